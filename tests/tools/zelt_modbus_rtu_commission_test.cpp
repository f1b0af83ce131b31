// inspect, map and write with --transport rtu against a simulator that speaks RTU over TCP, each run held
// against the same run over Modbus TCP against a simulator holding the same values: the transport changes the
// frames, never what the commands find or write.

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include "tests/common/map_json.h"
#include "tools/sim/simulator.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using test_support::comparableMap;
using test_support::jsonOf;
using zelt_modbus_test::itemOf;
using zelt_modbus_test::pollLines;
using zelt_modbus_test::runTool;
using zelt_modbus_test::ToolRun;
using zelt_modbus_test::writeFile;

constexpr int kReadHolding = 3;
constexpr int kIllegalDataAddress = 2;
// Two units behind the converter, each with values of its own, so that an answer from the wrong unit shows.
constexpr int kFirstUnit = 1;
constexpr int kSecondUnit = 4;
const QString kTcp = QStringLiteral("tcp");
const QString kRtu = QStringLiteral("rtu");

// Both simulators' values: per unit and table, and a hole in the holding registers of every unit.
void load(modbus_sim::Simulator* simulator) {
    simulator->setHoldingRegisters(kFirstUnit, 0, {0x0011, 0x0012, 0x4148, 0x0000, 0x0015});
    simulator->setInputRegisters(kFirstUnit, 0, {0x0021, 0x0022});
    simulator->setCoils(kFirstUnit, 0, {1, 0, 0, 1, 1});
    simulator->setDiscreteInputs(kFirstUnit, 0, {0, 1, 0});
    simulator->setHoldingRegisters(kSecondUnit, 0, {0x0041, 0x0042, 0xC2F6, 0xE979, 0x0045});
    simulator->setInputRegisters(kSecondUnit, 0, {0x0051, 0x0052});
    simulator->setCoils(kSecondUnit, 0, {0, 1, 1, 0, 1});
    simulator->setDiscreteInputs(kSecondUnit, 0, {1, 1, 0});
    for (int address = 10; address <= 14; ++address) {
        modbus_sim::FaultRule rule;
        rule.function = kReadHolding;
        rule.address = address;
        rule.exceptionCode = kIllegalDataAddress;
        simulator->addFault(rule);
    }
}

class RtuCommissionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        load(&tcp);
        load(&rtu);
        rtu.setFraming(modbus_sim::Framing::Rtu);
        ASSERT_TRUE(tcp.start());
        ASSERT_TRUE(rtu.start());
    }

    modbus_sim::Simulator& simulator(const QString& transport) { return transport == kRtu ? rtu : tcp; }

    // The command against the simulator of `transport`, with --transport rtu for the RTU one only: Modbus TCP
    // runs as it always has.
    ToolRun run(const QString& transport, const QString& command, int unit, const QStringList& more) {
        QStringList arguments{command,
                              QStringLiteral("--address"),
                              QStringLiteral("127.0.0.1"),
                              QStringLiteral("--port"),
                              QString::number(simulator(transport).port()),
                              QStringLiteral("--unit"),
                              QString::number(unit)};
        if (transport == kRtu) arguments << QStringLiteral("--transport") << kRtu;
        return runTool(arguments << more);
    }

    // The text with the simulator's port taken out, the one thing that differs between the two runs.
    QString withoutPort(const QString& transport, const QString& text) {
        return QString(text).replace(QStringLiteral(":%1 ").arg(simulator(transport).port()),
                                     QStringLiteral(":PORT "));
    }

    QTemporaryDir dir;
    modbus_sim::Simulator tcp;
    modbus_sim::Simulator rtu;
};

TEST_F(RtuCommissionTest, InspectReadsEveryTableOfEachUnitAsOverModbusTcp) {
    struct Row {
        int unit;
        const char* reg;
        const char* count;
        QStringList hex;  // the registers read, or
        QList<int> bits;  // the bits read
    };
    const Row rows[] = {
        {kFirstUnit, "40001", "5", {"0x0011", "0x0012", "0x4148", "0x0000", "0x0015"}, {}},
        {kSecondUnit, "40001", "5", {"0x0041", "0x0042", "0xc2f6", "0xe979", "0x0045"}, {}},
        {kFirstUnit, "30001", "2", {"0x0021", "0x0022"}, {}},
        {kSecondUnit, "30001", "2", {"0x0051", "0x0052"}, {}},
        {kFirstUnit, "00001", "5", {}, {1, 0, 0, 1, 1}},
        {kSecondUnit, "00001", "5", {}, {0, 1, 1, 0, 1}},
        {kFirstUnit, "10001", "3", {}, {0, 1, 0}},
        {kSecondUnit, "10001", "3", {}, {1, 1, 0}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(QStringLiteral("unit %1 %2").arg(row.unit).arg(QLatin1String(row.reg)).toStdString());
        const QStringList more{QStringLiteral("--register"), QLatin1String(row.reg),
                               QStringLiteral("--count"), QLatin1String(row.count)};
        const ToolRun overTcp = run(kTcp, QStringLiteral("inspect"), row.unit, QStringList(more) << "--json");
        const ToolRun overRtu = run(kRtu, QStringLiteral("inspect"), row.unit, QStringList(more) << "--json");
        ASSERT_EQ(overRtu.exitCode, 0) << overRtu.err.toStdString();
        ASSERT_EQ(overTcp.exitCode, 0) << overTcp.err.toStdString();
        QJsonObject json = jsonOf(overRtu.out);
        QStringList hex;
        for (const QJsonValue& value : json.value(QStringLiteral("registers")).toArray())
            hex.append(value.toObject().value(QStringLiteral("hex")).toString());
        QList<int> bits;
        for (const QJsonValue& value : json.value(QStringLiteral("bits")).toArray())
            bits.append(value.toObject().value(QStringLiteral("value")).toInt());
        EXPECT_EQ(hex, row.hex);
        EXPECT_EQ(bits, row.bits);
        EXPECT_EQ(json.value(QStringLiteral("port")).toInt(), rtu.port());
        EXPECT_EQ(json.value(QStringLiteral("unit")).toInt(), row.unit);
        QJsonObject tcpJson = jsonOf(overTcp.out);
        json.remove(QStringLiteral("port"));
        tcpJson.remove(QStringLiteral("port"));
        EXPECT_EQ(json, tcpJson);

        const ToolRun plainTcp = run(kTcp, QStringLiteral("inspect"), row.unit, more);
        const ToolRun plainRtu = run(kRtu, QStringLiteral("inspect"), row.unit, more);
        ASSERT_EQ(plainRtu.exitCode, 0) << plainRtu.err.toStdString();
        EXPECT_EQ(withoutPort(kRtu, plainRtu.out), withoutPort(kTcp, plainTcp.out));
    }
    for (const modbus_sim::RequestRecord& record : rtu.requestLog()) EXPECT_EQ(record.transactionId, 0);
    EXPECT_EQ(rtu.totalRequests(), tcp.totalRequests());
}

TEST_F(RtuCommissionTest, InspectMatchesAValueAndReportsARefusalAsOverModbusTcp) {
    // 12.5 as a FLOAT of unit 1 at 40003; -123.456 of unit 4 there.
    struct Row {
        int unit;
        const char* expect;
        const char* match;
    };
    const Row rows[] = {
        {kFirstUnit, "12.5",
         "FLOAT 12.5000 matches 12.5: device settings {\"endianness\": \"0\", \"byte_order\": "
         "\"0\"}, item settings {\"register\": \"40003\", \"type\": \"5\"}\n"},
        {kSecondUnit, "-123.456",
         "FLOAT -123.4560 matches -123.456: device settings {\"endianness\": \"0\", "
         "\"byte_order\": \"0\"}, item settings {\"register\": \"40003\", \"type\": \"5\"}\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.expect);
        const QStringList more{QStringLiteral("--register"), QStringLiteral("40003"),
                               QStringLiteral("--expect"), QLatin1String(row.expect)};
        const ToolRun overRtu = run(kRtu, QStringLiteral("inspect"), row.unit, more);
        const ToolRun overTcp = run(kTcp, QStringLiteral("inspect"), row.unit, more);
        ASSERT_EQ(overRtu.exitCode, 0) << overRtu.err.toStdString();
        EXPECT_TRUE(overRtu.out.contains(QLatin1String(row.match))) << overRtu.out.toStdString();
        EXPECT_EQ(withoutPort(kRtu, overRtu.out), withoutPort(kTcp, overTcp.out));
    }

    const QStringList hole{QStringLiteral("--register"), QStringLiteral("40010")};
    const ToolRun refusedRtu = run(kRtu, QStringLiteral("inspect"), kSecondUnit, hole);
    const ToolRun refusedTcp = run(kTcp, QStringLiteral("inspect"), kSecondUnit, hole);
    EXPECT_EQ(refusedRtu.exitCode, 1);
    EXPECT_EQ(refusedRtu.out, QString());
    EXPECT_EQ(refusedRtu.err, QStringLiteral("zelt-modbus: reading holding registers 40010-40011 from "
                                             "127.0.0.1:%1 unit 4: Illegal data address\n")
                                  .arg(rtu.port()));
    EXPECT_EQ(refusedTcp.exitCode, 1);
    EXPECT_EQ(withoutPort(kRtu, refusedRtu.err), withoutPort(kTcp, refusedTcp.err));
}

TEST_F(RtuCommissionTest, MapFindsTheRunsOfModbusTcpAndItsConfigurationKeepsTheTransport) {
    // Unit 4 refuses its holding registers 40011-40015, as unit 1 does; its coils answer throughout.
    const QStringList more{QStringLiteral("--tables"), QStringLiteral("holding,coils"),
                           QStringLiteral("--range"),  QStringLiteral("0-29"),
                           QStringLiteral("--rate"),   QStringLiteral("1000"),
                           QStringLiteral("--json")};
    const ToolRun overTcp = run(kTcp, QStringLiteral("map"), kSecondUnit, more);
    const QString path = dir.filePath(QStringLiteral("rtu.json"));
    const ToolRun overRtu = run(kRtu, QStringLiteral("map"), kSecondUnit,
                                QStringList(more) << QStringLiteral("--config-out") << path);
    ASSERT_EQ(overRtu.exitCode, 0) << overRtu.err.toStdString();
    ASSERT_EQ(overTcp.exitCode, 0) << overTcp.err.toStdString();
    EXPECT_EQ(overRtu.err, QStringLiteral("zelt-modbus map: wrote %1: 3 devices, 55 items\n").arg(path));

    const QJsonObject rtuMap = comparableMap(jsonOf(overRtu.out));
    EXPECT_EQ(rtuMap, comparableMap(jsonOf(overTcp.out)));
    QStringList runs;
    for (const QJsonValue& table : rtuMap.value(QStringLiteral("tables")).toArray())
        for (const QJsonValue& value : table.toObject().value(QStringLiteral("runs")).toArray())
            runs.append(value.toObject().value(QStringLiteral("registers")).toString());
    EXPECT_EQ(runs, (QStringList{"40001-40010", "40016-40030", "00001-00030"}));
    EXPECT_EQ(rtu.totalRequests(), tcp.totalRequests());

    ASSERT_NO_FATAL_FAILURE(test_support::expectMapConfig(path, 3,
                                                          {{"port", QString::number(rtu.port())},
                                                           {"server_id", QString::number(kSecondUnit)},
                                                           {"transport", "1"}}));

    // The plugin polls what map wrote over RTU, and reads the second unit's values.
    const ToolRun poll = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                                  QStringLiteral("--count"), QStringLiteral("1"), QStringLiteral("--json")});
    ASSERT_EQ(poll.exitCode, 0) << poll.out.toStdString() << poll.err.toStdString();
    const QList<QJsonObject> lines = pollLines(poll.out);
    ASSERT_EQ(lines.size(), 3);
    EXPECT_EQ(itemOf(lines.at(0), QStringLiteral("holding_0")).value(QStringLiteral("value")).toString(),
              QStringLiteral("65"));
    EXPECT_EQ(itemOf(lines.at(0), QStringLiteral("holding_4")).value(QStringLiteral("value")).toString(),
              QStringLiteral("69"));
    EXPECT_EQ(itemOf(lines.at(2), QStringLiteral("coils_1")).value(QStringLiteral("value")).toString(),
              QStringLiteral("1"));
    EXPECT_EQ(itemOf(lines.at(2), QStringLiteral("coils_3")).value(QStringLiteral("value")).toString(),
              QStringLiteral("0"));
}

TEST_F(RtuCommissionTest, WriteReachesTheUnitsRegistersAsOverModbusTcp) {
    const QString json = QStringLiteral(R"({"devices": [
        {"id": 1, "name": "first", "address": "127.0.0.1", "settings": {"port": "%1", "server_id": "1"},
         "items": [{"uid": "sp1", "settings": {"register": "40021", "type": "5"}},
                   {"uid": "relay1", "settings": {"register": "00021", "type": "0"}}]},
        {"id": 4, "name": "second", "address": "127.0.0.1", "settings": {"port": "%1", "server_id": "4"},
         "items": [{"uid": "sp4", "settings": {"register": "40021", "type": "5"}},
                   {"uid": "relay4", "settings": {"register": "00021", "type": "0"}}]}]})");
    const QString tcpPath = dir.filePath(QStringLiteral("tcp.json"));
    const QString rtuPath = dir.filePath(QStringLiteral("rtu.json"));
    ASSERT_TRUE(writeFile(tcpPath, json.arg(tcp.port()).toUtf8()));
    ASSERT_TRUE(writeFile(rtuPath, json.arg(rtu.port()).toUtf8()));
    struct Row {
        const char* device;
        const char* uid;
        const char* value;
    };
    const Row rows[] = {{"1", "sp1", "21.5"}, {"4", "sp4", "-7.25"}, {"4", "relay4", "1"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.uid);
        auto write = [&row](const QString& path, const QStringList& more) {
            return runTool(QStringList{QStringLiteral("write"), QStringLiteral("--config"), path,
                                       QStringLiteral("--device"), QLatin1String(row.device),
                                       QStringLiteral("--item"), QLatin1String(row.uid),
                                       QStringLiteral("--value"), QLatin1String(row.value),
                                       QStringLiteral("--json")}
                           << more);
        };
        const ToolRun overRtu = write(rtuPath, {QStringLiteral("--transport"), kRtu});
        const ToolRun overTcp = write(tcpPath, {});
        ASSERT_EQ(overRtu.exitCode, 0) << overRtu.out.toStdString() << overRtu.err.toStdString();
        ASSERT_EQ(overTcp.exitCode, 0) << overTcp.out.toStdString() << overTcp.err.toStdString();
        const QJsonObject expected{
            {"ok", true},
            {"error", ""},
            {"items", QJsonArray{QJsonObject{{"uid", QLatin1String(row.uid)}, {"error", ""}}}}};
        EXPECT_EQ(jsonOf(overRtu.out), expected);
        EXPECT_EQ(jsonOf(overTcp.out), expected);
    }
    for (modbus_sim::Simulator* simulator : {&tcp, &rtu}) {
        EXPECT_EQ(simulator->holdingRegisters(kFirstUnit, 20, 2), (std::vector<uint16_t>{0x41AC, 0x0000}));
        EXPECT_EQ(simulator->holdingRegisters(kSecondUnit, 20, 2), (std::vector<uint16_t>{0xC0E8, 0x0000}));
        EXPECT_EQ(simulator->coils(kFirstUnit, 20, 1), (std::vector<uint8_t>{0}));
        EXPECT_EQ(simulator->coils(kSecondUnit, 20, 1), (std::vector<uint8_t>{1}));
    }
    for (const modbus_sim::RequestRecord& record : rtu.requestLog()) EXPECT_EQ(record.transactionId, 0);
}

TEST_F(RtuCommissionTest, TheConfiguredTransportServesInspectAndWriteWithoutTheOption) {
    const QString path = dir.filePath(QStringLiteral("converter.json"));
    ASSERT_TRUE(writeFile(path, QStringLiteral(R"({"devices": [{"id": 2, "address": "127.0.0.1",
        "settings": {"port": "%1", "server_id": "4", "transport": "rtu"},
        "items": [{"uid": "x", "settings": {"register": "40005", "type": "2"}}]}]})")
                                    .arg(rtu.port())
                                    .toUtf8()));
    const ToolRun inspect =
        runTool({QStringLiteral("inspect"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                 QStringLiteral("2"), QStringLiteral("--register"), QStringLiteral("40005"),
                 QStringLiteral("--count"), QStringLiteral("1"), QStringLiteral("--json")});
    ASSERT_EQ(inspect.exitCode, 0) << inspect.err.toStdString();
    const QJsonArray registers = jsonOf(inspect.out).value(QStringLiteral("registers")).toArray();
    ASSERT_EQ(registers.size(), 1);
    EXPECT_EQ(registers.at(0).toObject().value(QStringLiteral("hex")).toString(), QStringLiteral("0x0045"));

    const ToolRun write = runTool({QStringLiteral("write"), QStringLiteral("--config"), path,
                                   QStringLiteral("--device"), QStringLiteral("2"), QStringLiteral("--item"),
                                   QStringLiteral("x"), QStringLiteral("--value"), QStringLiteral("4660")});
    ASSERT_EQ(write.exitCode, 0) << write.out.toStdString() << write.err.toStdString();
    EXPECT_EQ(rtu.holdingRegisters(kSecondUnit, 4, 1), (std::vector<uint16_t>{0x1234}));
    EXPECT_EQ(rtu.holdingRegisters(kFirstUnit, 4, 1), (std::vector<uint16_t>{0x0015}));
}

}  // namespace
