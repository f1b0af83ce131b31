// zelt-modbus poll and write over RTU over TCP ("transport" "1") against pymodbus's RTU framer, run by the
// system's Python: a peer not written here that puts RTU frames on the TCP stream. The values must be the
// ones the Modbus TCP test reads from the same server data, in every byte and word order.

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>
#include <iterator>

#include "common/pymodbus_types.h"
#include "tools/pymodbus_server_fixture.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using pymodbus_test::Framer;
using pymodbus_test::Row;
using zelt_modbus_test::itemOf;
using zelt_modbus_test::pollLines;
using zelt_modbus_test::runTool;
using zelt_modbus_test::ToolRun;
using zelt_modbus_test::writeFile;

constexpr const char* kModbusTcp = "0";
constexpr const char* kRtuOverTcp = "1";

class PymodbusRtuTest : public pymodbus_test::PymodbusServerTest {
protected:
    Framer framer() const override { return Framer::Rtu; }

    ToolRun poll(const QString& path, int count) const {
        return runTool({QStringLiteral("poll"), QStringLiteral("--config"), path, QStringLiteral("--count"),
                        QString::number(count), QStringLiteral("--interval"), QStringLiteral("50"),
                        QStringLiteral("--json")});
    }

    ToolRun write(const QString& path, const char* uid, const char* value) const {
        return runTool({QStringLiteral("write"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                        QStringLiteral("1"), QStringLiteral("--item"), QString::fromUtf8(uid),
                        QStringLiteral("--value"), QString::fromUtf8(value)});
    }
};

// One device per byte and word order ("endianness", "byte_order"), ids 1 to 4, each reading every type.
QByteArray ordersConfig(uint16_t port, const char* transport) {
    QStringList devices;
    int id = 0;
    for (const char* endianness : {"0", "1"}) {
        for (const char* byteOrder : {"0", "1"}) {
            devices.append(
                QStringLiteral(R"({"id": %1, "address": "127.0.0.1",
        "settings": {"port": "%2", "transport": "%3", "endianness": "%4", "byte_order": "%5",
                     "string_endianness": "%4", "string_byte_order": "%5"}, "items": [
        {"uid": "float_%1", "settings": {"register": "40006", "type": "5"}},
        {"uid": "double_%1", "settings": {"register": "40006", "type": "6"}},
        {"uid": "int16_%1", "settings": {"register": "40005", "type": "1"}},
        {"uid": "int32_%1", "settings": {"register": "40003", "type": "3"}},
        {"uid": "uint32_%1", "settings": {"register": "40011", "type": "4"}},
        {"uid": "int64_%1", "settings": {"register": "40003", "type": "8"}},
        {"uid": "uint64_%1", "settings": {"register": "40009", "type": "9"}},
        {"uid": "text_%1", "settings": {"register": "40006-40007", "type": "7"}},
        {"uid": "bit_%1", "settings": {"register": "40010.3", "type": "0"}},
        {"uid": "in_uint16_%1", "settings": {"register": "30002", "type": "2"}},
        {"uid": "coil_%1", "settings": {"register": "00003", "type": "0"}}]})")
                    .arg(++id)
                    .arg(port)
                    .arg(QLatin1String(transport), QLatin1String(endianness), QLatin1String(byteOrder)));
        }
    }
    return QStringLiteral(R"({"devices": [%1]})").arg(devices.join(QStringLiteral(", "))).toUtf8();
}

// The server data decoded by hand in each order (FLOAT and DOUBLE at the default 4 decimals); device 1 is the
// plain order the Modbus TCP test reads.
const Row kOrderRows[] = {
    {"float_1", "14582876160"},
    {"double_1", "11718987728720367083439092332747564554951142372613680370960674910587974699712512"},
    {"int16_1", "4660"},
    {"int32_1", "-2"},
    {"uint32_1", "123456"},
    {"int64_1", "-8284516263"},
    {"uint64_1", "38654829120"},
    {"text_1", "PYMB"},
    {"bit_1", "1"},
    {"in_uint16_1", "4660"},
    {"coil_1", "1"},
    {"float_2", "3663730852233216"},
    {"double_2",
     "1679390732022477637206588755986717101855556443996207449263425443544024983515883250791274399745054679045"
     "83446593773749927936"},
    {"int16_2", "13330"},
    {"int32_2", "-257"},
    {"uint32_2", "16793826"},
    {"int64_2", "-1102932977328"},
    {"uint64_2", "9895621443810"},
    {"text_2", "YPBM"},
    {"bit_2", "1"},
    {"in_uint16_2", "13330"},
    {"coil_2", "1"},
    {"float_3", "51.3372"},
    {"double_3", "0"},
    {"int16_3", "13330"},
    {"int32_3", "-16777217"},
    {"uint32_3", "1088553216"},
    {"int64_3", "6435701123704684543"},
    {"uint64_3", "4675300462826618880"},
    {"text_3", "MBPY"},
    {"bit_3", "1"},
    {"in_uint16_3", "13330"},
    {"coil_3", "1"},
    {"float_4", "203752848"},
    {"double_4", "0"},
    {"int16_4", "4660"},
    {"int32_4", "-65537"},
    {"uint32_4", "3795845121"},
    {"int64_4", "5789678814803984383"},
    {"uint64_4", "16303030655376752640"},
    {"text_4", "BMYP"},
    {"bit_4", "1"},
    {"in_uint16_4", "4660"},
    {"coil_4", "1"},
};

// Items of one poll's lines keyed by uid: "value|error".
QMap<QString, QString> itemsOf(const QList<QJsonObject>& lines) {
    QMap<QString, QString> items;
    for (const QJsonObject& line : lines) {
        for (const QJsonValue& value : line.value(QStringLiteral("items")).toArray()) {
            const QJsonObject item = value.toObject();
            items.insert(item.value(QStringLiteral("uid")).toString(),
                         item.value(QStringLiteral("value")).toString() + QLatin1Char('|') +
                             item.value(QStringLiteral("error")).toString());
        }
    }
    return items;
}

TEST_F(PymodbusRtuTest, PollReadsWhatTheModbusTcpTestReads) {
    const QString path = dir.filePath(QStringLiteral("pymodbus_rtu.json"));
    ASSERT_TRUE(writeFile(path, pymodbus_test::typesConfig(port, kRtuOverTcp)));
    const auto run = poll(path, 2);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> lines = pollLines(run.out);
    ASSERT_EQ(lines.size(), 2) << run.out.toStdString();
    pymodbus_test::expectTypeRows(lines);
}

TEST_F(PymodbusRtuTest, EveryOrderReadsTheValuesModbusTcpReadsFromTheSameData) {
    QProcess tcpServer;
    uint16_t tcpPort = 0;
    ASSERT_NO_FATAL_FAILURE(pymodbus_test::startServer(tcpServer, Framer::Socket, &tcpPort));
    const QString rtuPath = dir.filePath(QStringLiteral("orders_rtu.json"));
    const QString tcpPath = dir.filePath(QStringLiteral("orders_tcp.json"));
    ASSERT_TRUE(writeFile(rtuPath, ordersConfig(port, kRtuOverTcp)));
    ASSERT_TRUE(writeFile(tcpPath, ordersConfig(tcpPort, kModbusTcp)));
    const auto rtu = poll(rtuPath, 1);
    const auto tcp = poll(tcpPath, 1);
    pymodbus_test::stopServer(tcpServer);
    ASSERT_EQ(rtu.exitCode, 0) << rtu.err.toStdString();
    ASSERT_EQ(tcp.exitCode, 0) << tcp.err.toStdString();
    const QList<QJsonObject> rtuLines = pollLines(rtu.out);
    const QList<QJsonObject> tcpLines = pollLines(tcp.out);
    ASSERT_EQ(rtuLines.size(), 4) << rtu.out.toStdString();
    ASSERT_EQ(tcpLines.size(), 4) << tcp.out.toStdString();
    for (const QJsonObject& line : rtuLines) EXPECT_TRUE(line.value("ok").toBool());
    const QMap<QString, QString> overRtu = itemsOf(rtuLines);
    const QMap<QString, QString> overTcp = itemsOf(tcpLines);
    EXPECT_EQ(overRtu, overTcp);
    for (const Row& row : kOrderRows) {
        SCOPED_TRACE(row.uid);
        EXPECT_EQ(overRtu.value(QLatin1String(row.uid)), QString::fromUtf8(row.value) + QLatin1Char('|'));
    }
}

TEST_F(PymodbusRtuTest, WritesReachTheServerAndReadBack) {
    const QString path = dir.filePath(QStringLiteral("pymodbus_rtu.json"));
    ASSERT_TRUE(writeFile(path, QStringLiteral(R"({"devices": [{"id": 1, "address": "127.0.0.1",
        "settings": {"port": "%1", "transport": "%2", "endianness": "1", "byte_order": "1"}, "items": [
        {"uid": "setpoint", "settings": {"register": "40013", "type": "5", "floating_point_precision": "2"}},
        {"uid": "offset", "settings": {"register": "40015", "type": "3"}},
        {"uid": "limit", "settings": {"register": "40017", "type": "2"}},
        {"uid": "total", "settings": {"register": "40018", "type": "9"}},
        {"uid": "label", "settings": {"register": "40022-40023", "type": "7"}},
        {"uid": "relay", "settings": {"register": "00004", "type": "0"}}]}]})")
                                    .arg(port)
                                    .arg(QLatin1String(kRtuOverTcp))
                                    .toUtf8()));
    const Row written[] = {
        {"setpoint", "-12.25"},     {"offset", "-70000"}, {"limit", "65535"},
        {"total", "1234567890123"}, {"label", "RTU1"},    {"relay", "1"},
    };
    for (const Row& row : written) {
        SCOPED_TRACE(row.uid);
        const auto run = write(path, row.uid, row.value);
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    }
    const auto run = poll(path, 1);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> lines = pollLines(run.out);
    ASSERT_EQ(lines.size(), 1) << run.out.toStdString();
    for (const Row& row : written) {
        SCOPED_TRACE(row.uid);
        const QJsonObject item = itemOf(lines.first(), QLatin1String(row.uid));
        EXPECT_EQ(item.value("value").toString(), QString::fromUtf8(row.value));
        EXPECT_EQ(item.value("error").toString(), QString());
    }
}

}  // namespace
