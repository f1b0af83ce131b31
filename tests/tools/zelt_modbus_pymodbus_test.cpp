// zelt-modbus poll against a Modbus TCP server that is not written here: pymodbus, run by the system's
// Python. The values and identity texts read through the plugin must be what that server holds.

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>
#include <iterator>

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
    ASSERT_TRUE(
        writeFile(path, QStringLiteral(R"({"devices": [{"id": 1, "name": "pymodbus", "address": "127.0.0.1",
        "settings": {"port": "%1"}, "items": [
        {"uid": "float", "settings": {"register": "40001", "type": "5"}},
        {"uid": "int32", "settings": {"register": "40003", "type": "3"}},
        {"uid": "uint16", "settings": {"register": "40005", "type": "2"}},
        {"uid": "text", "settings": {"register": "40006-40009", "type": "7"}},
        {"uid": "bit0", "settings": {"register": "40010.0", "type": "0"}},
        {"uid": "bit1", "settings": {"register": "40010.1", "type": "0"}},
        {"uid": "bit3", "settings": {"register": "40010.3", "type": "0"}},
        {"uid": "uint32", "settings": {"register": "40011", "type": "4"}},
        {"uid": "in_int16", "settings": {"register": "30001", "type": "1"}},
        {"uid": "in_uint16", "settings": {"register": "30002", "type": "2"}},
        {"uid": "coil1", "settings": {"register": "00001", "type": "0"}},
        {"uid": "coil2", "settings": {"register": "00002", "type": "0"}},
        {"uid": "coil3", "settings": {"register": "00003", "type": "0"}},
        {"uid": "input1", "settings": {"register": "10001", "type": "0"}},
        {"uid": "input2", "settings": {"register": "10002", "type": "0"}}]}]})")
                            .arg(port)
                            .toUtf8()));
    const auto run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                              QStringLiteral("--count"), QStringLiteral("2"), QStringLiteral("--interval"),
                              QStringLiteral("50"), QStringLiteral("--json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> lines = pollLines(run.out);
    ASSERT_EQ(lines.size(), 2) << run.out.toStdString();
    struct Row {
        const char* uid;
        const char* value;
    };
    const Row rows[] = {
        {"float", "1"},
        {"int32", "-2"},
        {"uint16", "4660"},
        {"text", "PYMB"},
        {"bit0", "1"},
        {"bit1", "0"},
        {"bit3", "1"},
        {"uint32", "123456"},
        {"in_int16", "-1"},
        {"in_uint16", "4660"},
        {"coil1", "1"},
        {"coil2", "0"},
        {"coil3", "1"},
        {"input1", "0"},
        {"input2", "1"},
        {"identity_1_vendor", "PyModbus Test Vendor"},
        {"identity_1_product_code", "PYM-1"},
        {"identity_1_version", "3.0"},
        {"identity_1_vendor_url", "https://pymodbus.invalid"},
        {"identity_1_product_name", "PyModbus test server"},
        {"identity_1_model", "PYM-1 model"},
        {"identity_1_user_application", "zelt-modbus test"},
    };
    for (const QJsonObject& line : lines) {
        SCOPED_TRACE(line.value("poll").toInt());
        EXPECT_TRUE(line.value("ok").toBool());
        EXPECT_EQ(line.value("error").toString(), QString());
        EXPECT_EQ(line.value("items").toArray().size(), static_cast<int>(std::size(rows)));
        for (const Row& row : rows) {
            SCOPED_TRACE(row.uid);
            const QJsonObject item = itemOf(line, QLatin1String(row.uid));
            EXPECT_EQ(item.value("value").toString(), QString::fromUtf8(row.value));
            EXPECT_EQ(item.value("error").toString(), QString());
        }
    }
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
