// zelt-modbus inspect and map against a Modbus TCP server that is not written here: pymodbus, run by the
// system's Python. Its tables end after a fixed number of values and it refuses reads past the end with
// exception 2, so map must find exactly those ends, and the written configuration must poll cleanly.

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "tools/pymodbus_server_fixture.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::itemOf;
using zelt_modbus_test::jsonLines;
using zelt_modbus_test::pollLines;
using zelt_modbus_test::runTool;

QJsonObject tableOf(const QJsonObject& map, const QString& table) {
    for (const QJsonValue& value : map.value(QStringLiteral("tables")).toArray())
        if (value.toObject().value(QStringLiteral("table")).toString() == table) return value.toObject();
    return {};
}

QString runsOf(const QJsonObject& table) {
    QStringList runs;
    for (const QJsonValue& value : table.value(QStringLiteral("runs")).toArray())
        runs.append(value.toObject().value(QStringLiteral("registers")).toString());
    return runs.join(QLatin1Char(','));
}

class CommissionPymodbusTest : public pymodbus_test::PymodbusServerTest {
protected:
    QStringList target(const QString& command) const {
        return {command, QStringLiteral("--address"), QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                QString::number(port)};
    }
};

TEST_F(CommissionPymodbusTest, InspectFindsTheServersValuesInTheirOrder) {
    const auto run =
        runTool(target(QStringLiteral("inspect"))
                << QStringLiteral("--register") << QStringLiteral("40001") << QStringLiteral("--count")
                << QStringLiteral("12") << QStringLiteral("--expect") << QStringLiteral("123456")
                << QStringLiteral("--json"));
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonObject json = QJsonDocument::fromJson(run.out.toUtf8()).object();
    QStringList found;
    for (const QJsonValue& value : json.value(QStringLiteral("matches")).toArray()) {
        const QJsonObject match = value.toObject();
        const QJsonObject device = match.value(QStringLiteral("device_settings")).toObject();
        found.append(QStringLiteral("%1 %2 %3%4")
                         .arg(match.value(QStringLiteral("type")).toString(),
                              match.value(QStringLiteral("item_settings"))
                                  .toObject()
                                  .value(QStringLiteral("register"))
                                  .toString(),
                              device.value(QStringLiteral("endianness")).toString(),
                              device.value(QStringLiteral("byte_order")).toString()));
    }
    EXPECT_EQ(found, (QStringList{QStringLiteral("INT32 40011 00"), QStringLiteral("UINT32 40011 00")}));

    const auto text =
        runTool(target(QStringLiteral("inspect"))
                << QStringLiteral("--register") << QStringLiteral("40006") << QStringLiteral("--count")
                << QStringLiteral("4") << QStringLiteral("--expect") << QStringLiteral("PYMB"));
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_TRUE(text.out.contains(QStringLiteral(
        "STRING \"PYMB\" matches PYMB: device settings {\"string_endianness\": \"0\", \"string_byte_order\": "
        "\"0\"}, item settings {\"register\": \"40006-4\", \"type\": \"7\"}\n")))
        << text.out.toStdString();
}

TEST_F(CommissionPymodbusTest, MapFindsTheEndsOfTheTablesAndTheConfigurationPolls) {
    const QString path = dir.filePath(QStringLiteral("pymodbus-map.json"));
    const auto map = runTool(target(QStringLiteral("map"))
                             << QStringLiteral("--range") << QStringLiteral("0-39")
                             << QStringLiteral("--rate") << QStringLiteral("1000")
                             << QStringLiteral("--config-out") << path << QStringLiteral("--json"));
    ASSERT_EQ(map.exitCode, 0) << map.err.toStdString();
    const QJsonObject json = QJsonDocument::fromJson(map.out.toUtf8()).object();
    // Each table holds its values plus 16 zeros; the walk reads them in growing blocks and the addresses
    // behind them one at a time.
    EXPECT_EQ(runsOf(tableOf(json, QStringLiteral("holding"))), QStringLiteral("40001-40028"));
    EXPECT_EQ(runsOf(tableOf(json, QStringLiteral("input"))), QStringLiteral("30001-30018"));
    EXPECT_EQ(runsOf(tableOf(json, QStringLiteral("coils"))), QStringLiteral("00001-00019"));
    EXPECT_EQ(runsOf(tableOf(json, QStringLiteral("discrete"))), QStringLiteral("10001-10018"));
    EXPECT_EQ(tableOf(json, QStringLiteral("holding")).value(QStringLiteral("requests")).toInt(), 18);

    const auto poll = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                               QStringLiteral("--count"), QStringLiteral("1"), QStringLiteral("--json")});
    ASSERT_EQ(poll.exitCode, 0) << poll.out.toStdString() << poll.err.toStdString();
    const QList<QJsonObject> lines = pollLines(poll.out);
    ASSERT_EQ(lines.size(), 4);
    EXPECT_EQ(itemOf(lines.at(0), QStringLiteral("holding_4")).value(QStringLiteral("value")).toString(),
              QStringLiteral("4660"));
    EXPECT_EQ(itemOf(lines.at(1), QStringLiteral("input_0")).value(QStringLiteral("value")).toString(),
              QStringLiteral("65535"));
    EXPECT_EQ(itemOf(lines.at(2), QStringLiteral("coils_2")).value(QStringLiteral("value")).toString(),
              QStringLiteral("1"));
}

}  // namespace
