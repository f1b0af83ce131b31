// zelt-modbus poll against a Modbus TCP server that is not written here: pymodbus, run by the system's
// Python. The values and identity texts read through the plugin must be what that server holds.

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>
#include <iterator>

#include "common/pymodbus_types.h"
#include "tools/pymodbus_server_fixture.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::itemOf;
using zelt_modbus_test::jsonLines;
using zelt_modbus_test::pollLines;
using zelt_modbus_test::runTool;
using zelt_modbus_test::writeFile;

using PymodbusTest = pymodbus_test::PymodbusServerTest;

TEST_F(PymodbusTest, PollReadsWhatTheServerHolds) {
    const QString path = dir.filePath(QStringLiteral("pymodbus.json"));
    ASSERT_TRUE(writeFile(path, pymodbus_test::typesConfig(port, nullptr)));
    const auto run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                              QStringLiteral("--count"), QStringLiteral("2"), QStringLiteral("--interval"),
                              QStringLiteral("50"), QStringLiteral("--json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> lines = pollLines(run.out);
    ASSERT_EQ(lines.size(), 2) << run.out.toStdString();
    pymodbus_test::expectTypeRows(lines);
}

TEST_F(PymodbusTest, WriteReachesTheServerAndReadsBack) {
    const QString path = dir.filePath(QStringLiteral("pymodbus.json"));
    ASSERT_TRUE(writeFile(path, QStringLiteral(R"({"devices": [{"id": 1, "address": "127.0.0.1",
        "settings": {"port": "%1", "endianness": "1", "byte_order": "1"}, "items": [
        {"uid": "setpoint", "settings": {"register": "40013", "type": "5", "floating_point_precision": "2"}}]}]})")
                                    .arg(port)
                                    .toUtf8()));
    const auto written =
        runTool({QStringLiteral("write"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                 QStringLiteral("1"), QStringLiteral("--item"), QStringLiteral("setpoint"),
                 QStringLiteral("--value"), QStringLiteral("-12.25")});
    ASSERT_EQ(written.exitCode, 0) << written.err.toStdString();
    const auto run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                              QStringLiteral("--count"), QStringLiteral("1"), QStringLiteral("--json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> lines = pollLines(run.out);
    ASSERT_EQ(lines.size(), 1);
    EXPECT_EQ(itemOf(lines.first(), QStringLiteral("setpoint")).value("value").toString(),
              QStringLiteral("-12.25"));
}

}  // namespace
