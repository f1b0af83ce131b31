// zelt-modbus write checks the value against the item before anything is sent: a numeric item takes a number
// (a whole one within the type's range for the integer types), a bit takes 0 or 1, a STRING any text; --raw
// hands the text to the plugin unchecked.

#include <gtest/gtest.h>

#include <vector>

#include "tools/sim/simulator.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::runTool;
using zelt_modbus_test::ToolRun;
using zelt_modbus_test::writeFile;

constexpr int kRefused = 2;

class WriteChecksTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        QString error;
        ASSERT_TRUE(simulator.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
        path = dir.filePath(QStringLiteral("plant.json"));
        const QByteArray json = QStringLiteral(R"({"devices": [
            {"id": 1, "name": "plant", "address": "127.0.0.1", "settings": {"port": "%1"}, "items": [
              {"uid": "setpoint", "settings": {"register": "40001", "type": "5"}},
              {"uid": "energy", "settings": {"register": "40003", "type": "6"}},
              {"uid": "i16", "settings": {"register": "40011", "type": "1"}},
              {"uid": "count", "settings": {"register": "40012", "type": "2"}},
              {"uid": "u32", "settings": {"register": "40013", "type": "4"}},
              {"uid": "i64", "settings": {"register": "40021", "type": "8"}},
              {"uid": "u64", "settings": {"register": "40025", "type": "9"}},
              {"uid": "label", "settings": {"register": "40031-40032", "type": "7"}},
              {"uid": "wide", "settings": {"register": "40033-40034", "type": "5"}},
              {"uid": "pump", "settings": {"register": "00005", "type": "0"}},
              {"uid": "valve", "settings": {"register": "6", "register_type": "0", "type": "2"}},
              {"uid": "flag", "settings": {"register": "40041.3", "type": "2"}}]}]})")
                                    .arg(simulator.port())
                                    .toUtf8();
        ASSERT_TRUE(writeFile(path, json));
    }

    ToolRun write(const QString& uid, const QString& value, const QStringList& more = {}) {
        return runTool(QStringList{QStringLiteral("write"), QStringLiteral("--config"), path,
                                   QStringLiteral("--device"), QStringLiteral("1"), QStringLiteral("--item"),
                                   uid, QStringLiteral("--value"), value} +
                       more);
    }

    QTemporaryDir dir;
    modbus_sim::Simulator simulator;
    QString path;
};

TEST_F(WriteChecksTest, AValueTheItemCannotTakeIsRefusedBeforeAnyTraffic) {
    struct Row {
        const char* uid;
        const char* value;
        const char* message;
    };
    const Row rows[] = {
        {"setpoint", "3,25", "item \"setpoint\" (FLOAT) takes a number, not \"3,25\""},
        {"setpoint", "", "item \"setpoint\" (FLOAT) takes a number, not \"\""},
        {"energy", "1.5 kWh", "item \"energy\" (DOUBLE) takes a number, not \"1.5 kWh\""},
        {"i16", "-32769", "item \"i16\" (INT16) takes a whole number from -32768 to 32767, not \"-32769\""},
        {"i16", "0x10", "item \"i16\" (INT16) takes a whole number from -32768 to 32767, not \"0x10\""},
        {"count", "70000", "item \"count\" (UINT16) takes a whole number from 0 to 65535, not \"70000\""},
        {"count", "3.5", "item \"count\" (UINT16) takes a whole number from 0 to 65535, not \"3.5\""},
        {"count", "-1", "item \"count\" (UINT16) takes a whole number from 0 to 65535, not \"-1\""},
        {"count", "ten", "item \"count\" (UINT16) takes a whole number from 0 to 65535, not \"ten\""},
        {"u32", "4294967296",
         "item \"u32\" (UINT32) takes a whole number from 0 to 4294967295, not \"4294967296\""},
        {"i64", "9223372036854775808",
         "item \"i64\" (INT64) takes a whole number from -9223372036854775808 to 9223372036854775807, not "
         "\"9223372036854775808\""},
        {"u64", "9007199254740993",
         "item \"u64\" (UINT64) would be written as 9007199254740992, not 9007199254740993: the plugin "
         "carries the value as a double"},
        {"pump", "on", "item \"pump\" (BIT) takes 0 or 1, not \"on\""},
        {"pump", "2", "item \"pump\" (BIT) takes 0 or 1, not \"2\""},
        // A coil and a bit of a register are written as bits, whatever their type.
        {"valve", "7", "item \"valve\" (BIT) takes 0 or 1, not \"7\""},
        {"flag", "true", "item \"flag\" (BIT) takes 0 or 1, not \"true\""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        for (const QStringList& more : {QStringList(), QStringList{QStringLiteral("--json")}}) {
            const ToolRun run = write(QLatin1String(row.uid), QString::fromUtf8(row.value), more);
            EXPECT_EQ(run.exitCode, kRefused);
            EXPECT_EQ(run.out, QString());
            EXPECT_EQ(run.err, QStringLiteral("zelt-modbus write: %1\n").arg(QString::fromUtf8(row.message)));
        }
    }
    EXPECT_EQ(simulator.acceptedConnections(), 0);
    EXPECT_EQ(simulator.totalRequests(), 0);
}

TEST_F(WriteChecksTest, AValueTheItemTakesIsWritten) {
    struct Row {
        const char* uid;
        const char* value;
        int address;
        std::vector<uint16_t> registers;
    };
    const Row rows[] = {
        {"setpoint", "3.25", 0, {0x4050, 0x0000}},
        {"setpoint", "-1e3", 0, {0xC47A, 0x0000}},
        {"energy", " 0.5 ", 2, {0x3FE0, 0x0000, 0x0000, 0x0000}},
        {"i16", "-32768", 10, {0x8000}},
        {"count", "+65535", 11, {0xFFFF}},
        {"u32", "4294967295", 12, {0xFFFF, 0xFFFF}},
        {"i64", "-9223372036854775808", 20, {0x8000, 0x0000, 0x0000, 0x0000}},
        {"u64", "18446744073709551615", 24, {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {"label", "3,25", 30, {0x332C, 0x3235}},
        // A range is written as text whatever the type.
        {"wide", "on", 32, {0x6F6E, 0x0000}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.uid) + " " + row.value);
        const ToolRun run = write(QLatin1String(row.uid), QLatin1String(row.value));
        EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
        EXPECT_EQ(run.err, QString());
        EXPECT_EQ(run.out, QStringLiteral("Write %1 = %2 to device 1 plant (127.0.0.1): ok\n")
                               .arg(QLatin1String(row.uid), QLatin1String(row.value)));
        EXPECT_EQ(simulator.holdingRegisters(row.address, static_cast<int>(row.registers.size())),
                  row.registers);
    }
    for (const char* value : {"1", "0"}) {
        EXPECT_EQ(write(QStringLiteral("pump"), QLatin1String(value)).exitCode, 0);
        EXPECT_EQ(simulator.coils(4, 1), std::vector<uint8_t>{static_cast<uint8_t>(value[0] - '0')});
    }
    EXPECT_EQ(write(QStringLiteral("flag"), QStringLiteral("1")).exitCode, 0);
    EXPECT_EQ(simulator.holdingRegisters(40, 1), std::vector<uint16_t>{0x0008});
}

TEST_F(WriteChecksTest, RawHandsTheTextToThePluginUnchecked) {
    simulator.setHoldingRegisters(0, {0x4050, 0x0000});
    ToolRun run = write(QStringLiteral("setpoint"), QStringLiteral("3,25"), {QStringLiteral("--raw")});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, QStringLiteral("Write setpoint = 3,25 to device 1 plant (127.0.0.1): ok\n"));
    // The plugin writes a text that is no number as 0.
    EXPECT_EQ(simulator.holdingRegisters(0, 2), (std::vector<uint16_t>{0x0000, 0x0000}));

    run = write(QStringLiteral("count"), QStringLiteral("70000"), {QStringLiteral("--raw")});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(simulator.holdingRegisters(11, 1), std::vector<uint16_t>{70000 & 0xFFFF});

    run = write(QStringLiteral("flag"), QStringLiteral("true"),
                {QStringLiteral("--raw"), QStringLiteral("--json")});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out,
              QStringLiteral("{\"error\":\"\",\"items\":[{\"error\":\"Invalid bool/bit value to write. "
                             "Val: true\",\"uid\":\"flag\"}],\"ok\":true}\n"));
}

TEST_F(WriteChecksTest, HelpNamesRaw) {
    const ToolRun run = runTool({QStringLiteral("write"), QStringLiteral("--help")});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.contains(QStringLiteral(
        "  --raw                     hand the value to the plugin unchecked, as the host does: "
        "the plugin's own handling applies (it writes a text that is no number as 0)\n")))
        << run.out.toStdString();
}

}  // namespace
