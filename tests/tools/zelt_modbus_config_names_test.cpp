// The item settings "type" and "register_type" of a zelt-modbus configuration take the plugin's choice texts
// as well as the stored codes; the reader stores the codes, and refuses a text that is neither.

#include <gtest/gtest.h>

#include <QRegularExpression>

#include "tools/sim/simulator.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::runTool;
using zelt_modbus_test::ToolRun;
using zelt_modbus_test::writeFile;

constexpr int kConfigError = 2;

QByteArray itemConfig(const QString& settings) {
    return QStringLiteral(R"({"devices": [{"id": 1, "address": "127.0.0.1", "items": [
        {"uid": "x", "settings": {"register": "40001", %1}}]}]})")
        .arg(settings)
        .toUtf8();
}

// The stored settings of the one item of itemConfig(settings), or the reader's message.
QMap<QString, QString> readItemSettings(const QString& settings, QString* error) {
    zelt_cli::Config config;
    if (!zelt_cli::parseConfig(itemConfig(settings), QStringLiteral("plant.json"), &config, error)) return {};
    return config.devices.value(0).items.value(0).settings;
}

TEST(ConfigNames, TypeNamesAreStoredAsTheirCodes) {
    const std::pair<const char*, const char*> kTypes[] = {
        {"BIT", "0"},   {"INT16", "1"},  {"UINT16", "2"}, {"INT32", "3"},  {"UINT32", "4"},
        {"INT64", "8"}, {"UINT64", "9"}, {"FLOAT", "5"},  {"DOUBLE", "6"}, {"STRING", "7"}};
    for (const auto& type : kTypes) {
        SCOPED_TRACE(type.first);
        for (const char* given : {type.first, type.second}) {
            QString error;
            const auto settings = readItemSettings(QStringLiteral(R"("type": "%1")").arg(given), &error);
            EXPECT_EQ(error, QString());
            EXPECT_EQ(settings.value(QStringLiteral("type")), QLatin1String(type.second));
        }
    }
}

TEST(ConfigNames, RegisterTypeNamesAreStoredAsTheirCodes) {
    const std::pair<const char*, const char*> kTables[] = {{"Output Coil", "0"},
                                                           {"Input Coil", "1"},
                                                           {"Input Register", "2"},
                                                           {"Holding Register", "3"},
                                                           {"Auto", "4"}};
    for (const auto& table : kTables) {
        SCOPED_TRACE(table.first);
        for (const char* given : {table.first, table.second}) {
            QString error;
            const auto settings =
                readItemSettings(QStringLiteral(R"("register_type": "%1")").arg(given), &error);
            EXPECT_EQ(error, QString());
            EXPECT_EQ(settings.value(QStringLiteral("register_type")), QLatin1String(table.second));
        }
    }
}

TEST(ConfigNames, CodesAndTheEmptyDefaultStayAsTheyWere) {
    // The plugin reads any code itself, also one it does not declare.
    for (const char* given : {"", "5", "12", "007"}) {
        SCOPED_TRACE(given);
        QString error;
        const auto settings =
            readItemSettings(QStringLiteral(R"("type": "%1", "register_type": "%1")").arg(given), &error);
        EXPECT_EQ(error, QString());
        EXPECT_EQ(settings.value(QStringLiteral("type")), QLatin1String(given));
        EXPECT_EQ(settings.value(QStringLiteral("register_type")), QLatin1String(given));
    }
}

TEST(ConfigNames, AnUnknownNameIsAConfigurationErrorNamingTheKey) {
    const QString types = QStringLiteral(
        R"("BIT" (0), "INT16" (1), "UINT16" (2), "INT32" (3), "UINT32" (4), "INT64" (8), "UINT64" (9), )"
        R"("FLOAT" (5), "DOUBLE" (6) or "STRING" (7))");
    const QString tables = QStringLiteral(
        R"("Output Coil" (0), "Input Coil" (1), "Input Register" (2), "Holding Register" (3) or "Auto" (4))");
    struct Row {
        const char* settings;
        QString message;
    };
    const Row rows[] = {
        // The names are case-sensitive, as the plugin's choice texts.
        {R"("type": "float")",
         QStringLiteral(R"(plant.json: devices[0].items[0].settings.type: expected %1, as name or code, )"
                        R"(not "float")")
             .arg(types)},
        {R"("type": " 5")",
         QStringLiteral(R"(plant.json: devices[0].items[0].settings.type: expected %1, as name or code, )"
                        R"(not " 5")")
             .arg(types)},
        {R"("type": "FLOAT", "register_type": "holding")",
         QStringLiteral(R"(plant.json: devices[0].items[0].settings.register_type: expected %1, as name or )"
                        R"(code, not "holding")")
             .arg(tables)},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.settings);
        QString error;
        readItemSettings(QLatin1String(row.settings), &error);
        EXPECT_EQ(error, row.message);
    }
}

class ConfigNamesToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        QString error;
        ASSERT_TRUE(simulator.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
        path = dir.filePath(QStringLiteral("plant.json"));
    }

    void writeConfig(const QString& items) {
        ASSERT_TRUE(writeFile(path, QStringLiteral(R"({"devices": [{"id": 1, "name": "plant",
            "address": "127.0.0.1", "settings": {"port": "%1"}, "items": [%2]}]})")
                                        .arg(simulator.port())
                                        .arg(items)
                                        .toUtf8()));
    }

    QTemporaryDir dir;
    modbus_sim::Simulator simulator;
    QString path;
};

TEST_F(ConfigNamesToolTest, NamedItemsArePolledAndWrittenAsTheirCodes) {
    simulator.setHoldingRegisters(4, {0x4050, 0x0000});
    simulator.setInputRegisters(7, {0xFFFE});
    writeConfig(QStringLiteral(
        R"({"uid": "temperature", "settings": {"register": "4", "register_type": "Holding Register", "type": "FLOAT"}},
           {"uid": "delta", "settings": {"register": "7", "register_type": "Input Register", "type": "INT16"}},
           {"uid": "pump", "settings": {"register": "2", "register_type": "Output Coil", "type": "BIT"}})"));
    const ToolRun poll = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                                  QStringLiteral("--count"), QStringLiteral("1")});
    ASSERT_EQ(poll.exitCode, 0) << poll.err.toStdString();
    EXPECT_TRUE(poll.out.contains(QRegularExpression(QStringLiteral("\n  temperature +4 +FLOAT +3.2500\n"))))
        << poll.out.toStdString();
    EXPECT_TRUE(poll.out.contains(QRegularExpression(QStringLiteral("\n  delta +7 +INT16 +-2\n"))))
        << poll.out.toStdString();
    EXPECT_TRUE(poll.out.contains(QRegularExpression(QStringLiteral("\n  pump +2 +BIT +0\n"))))
        << poll.out.toStdString();

    const auto write = [&](const char* uid, const char* value) {
        return runTool({QStringLiteral("write"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                        QStringLiteral("1"), QStringLiteral("--item"), QLatin1String(uid),
                        QStringLiteral("--value"), QLatin1String(value)});
    };
    EXPECT_EQ(write("pump", "1").exitCode, 0);
    EXPECT_EQ(simulator.coils(2, 1), std::vector<uint8_t>{1});
    // The write check reads the stored code: "FLOAT" takes a number.
    const ToolRun refused = write("temperature", "warm");
    EXPECT_EQ(refused.exitCode, kConfigError);
    EXPECT_EQ(
        refused.err,
        QStringLiteral("zelt-modbus write: item \"temperature\" (FLOAT) takes a number, not \"warm\"\n"));
}

TEST_F(ConfigNamesToolTest, AnUnknownNameEndsTheToolWithExitTwoAndNoTraffic) {
    writeConfig(QStringLiteral(R"({"uid": "x", "settings": {"register": "40001", "type": "Float"}})"));
    const ToolRun run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                                 QStringLiteral("--count"), QStringLiteral("1")});
    EXPECT_EQ(run.exitCode, kConfigError);
    EXPECT_EQ(run.out, QString());
    EXPECT_EQ(
        run.err,
        QStringLiteral(
            R"(zelt-modbus: %1: devices[0].items[0].settings.type: expected "BIT" (0), "INT16" (1), )"
            R"("UINT16" (2), "INT32" (3), "UINT32" (4), "INT64" (8), "UINT64" (9), "FLOAT" (5), "DOUBLE" (6) )"
            R"(or "STRING" (7), as name or code, not "Float")"
            "\n")
            .arg(path));
    EXPECT_EQ(simulator.acceptedConnections(), 0);
}

TEST(ConfigNamesColumns, ColumnsSaysTheConfigurationTakesCodeOrChoiceText) {
    const ToolRun run = runTool({QStringLiteral("columns")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QString note = QStringLiteral(
        "  A configuration file takes the stored code or the choice text of \"type\" and \"register_type\", "
        "e.g. \"type\": \"5\" or \"FLOAT\".\n\n");
    EXPECT_TRUE(run.out.endsWith(note)) << run.out.toStdString();
    EXPECT_EQ(run.out.count(note), 1);
}

}  // namespace
