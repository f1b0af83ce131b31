// The plugin polling and writing serial devices behind a simulated transparent converter (RTU over TCP): the
// units share the converter's connection, every value is read from its own unit, and what converters do to
// the stream (heartbeats, garbage, split answers, another unit's answer, bad CRCs, late answers) never puts a
// wrong value on an item.

#include <gtest/gtest.h>

#include <map>

#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "common/time_scale.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;

namespace {

constexpr int kUnits[] = {3, 7, 12};

class RtuOverTcpTest : public ::testing::Test {
protected:
    void SetUp() override {
        zelt_standin::Host::instance().reset();
        converter.setFraming(modbus_sim::Framing::Rtu);
        // Three meters behind one converter, each with values of its own.
        for (int unit : kUnits) {
            converter.setHoldingRegisters(unit, 0, {static_cast<uint16_t>(unit * 100), 0x4148, 0x0000});
            converter.setInputRegisters(unit, 10, {static_cast<uint16_t>(unit * 100 + 1)});
            converter.setCoils(unit, 0, {static_cast<uint8_t>(unit % 2), static_cast<uint8_t>(1 - unit % 2)});
            converter.setDiscreteInputs(unit, 5, {1});
        }
        ASSERT_TRUE(converter.start());
    }
    void TearDown() override {
        plugin.stopPlugin();
        converter.stop();
        zelt_standin::Host::instance().reset();
    }

    DeviceInstancePlugin meter(int unit, QMap<QString, QString> settings = {}) {
        settings.insert(QStringLiteral("server_id"), QString::number(unit));
        settings.insert(QStringLiteral("transport"), QStringLiteral("1"));
        if (!settings.contains(QStringLiteral("persistent_connection")))
            settings.insert(QStringLiteral("persistent_connection"), QStringLiteral("1"));
        return makeDevice(unit, converter.port(), settings);
    }

    static void addItems(Batch& batch) {
        batch.add(makeItem("count", "40001", "4", "2"));
        batch.add(makeItem("float", "40002", "4", "5", "1"));
        batch.add(makeItem("input", "30011", "4", "2"));
        batch.add(makeItem("coil0", "00001", "4", "0"));
        batch.add(makeItem("coil1", "00002", "4", "0"));
        batch.add(makeItem("status", "10006", "4", "0"));
    }

    static void expectValues(const Batch& batch, int unit) {
        SCOPED_TRACE(unit);
        EXPECT_EQ(batch.value("count"), QString::number(unit * 100));
        EXPECT_EQ(batch.value("float"), QStringLiteral("12.5"));
        EXPECT_EQ(batch.value("input"), QString::number(unit * 100 + 1));
        EXPECT_EQ(batch.value("coil0"), QString::number(unit % 2));
        EXPECT_EQ(batch.value("coil1"), QString::number(1 - unit % 2));
        EXPECT_EQ(batch.value("status"), QStringLiteral("1"));
        for (const char* uid : {"count", "float", "input", "coil0", "coil1", "status"})
            EXPECT_EQ(batch.error(uid), QString()) << uid;
    }

    // Polls every meter once; true when each read all its items.
    void pollAll() {
        for (int unit : kUnits) {
            Batch batch(meter(unit));
            addItems(batch);
            EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
            expectValues(batch, unit);
        }
    }

    std::map<int, int> requestsByUnit() const {
        std::map<int, int> requests;
        for (const modbus_sim::RequestRecord& record : converter.requestLog())
            if (record.function >= 1 && record.function <= 4) ++requests[record.unit];
        return requests;
    }

    modbus_sim::Simulator converter;
    Modbus plugin;
};

TEST_F(RtuOverTcpTest, ThreeMetersBehindOneConverterShareItsConnectionAndReadTheirOwnValues) {
    for (int round = 0; round < 3; ++round) pollAll();
    EXPECT_EQ(converter.acceptedConnections(), 1);
    for (const modbus_sim::RequestRecord& record : converter.requestLog())
        EXPECT_EQ(record.transactionId, 0) << "an RTU frame has no transaction id";
}

TEST_F(RtuOverTcpTest, ADeviceOnModbusTcpAtTheSameAddressGetsAConnectionOfItsOwn) {
    pollAll();
    Batch tcp(makeDevice(99, converter.port(), {{"server_id", "3"}, {"response_timeout_ms", "100"}}));
    tcp.add(makeItem("count", "40001", "4", "2"));
    // The converter takes no MBAP frames: the device fails alone, on its own connection.
    EXPECT_FALSE(plugin.readData(&tcp.list));
    EXPECT_EQ(converter.acceptedConnections(), 2);
    pollAll();
}

TEST_F(RtuOverTcpTest, WritesReachTheirOwnUnitAndReadBack) {
    for (int unit : kUnits) {
        Batch write(meter(unit));
        write.add(makeItem("count", "40001", "4", "2"))
            ->values.insert(QStringLiteral("value"), QString::number(unit + 1));
        write.add(makeItem("float", "40002", "4", "5"))
            ->values.insert(QStringLiteral("value"), QStringLiteral("-2.25"));
        write.add(makeItem("coil1", "00002", "4", "0"))
            ->values.insert(QStringLiteral("value"), QStringLiteral("1"));
        write.add(makeItem("bit3", "40003.3", "4", "0"))
            ->values.insert(QStringLiteral("value"), QStringLiteral("1"));
        EXPECT_TRUE(plugin.writeData(&write.list)) << write.list.device.lastError.toStdString();
    }
    for (int unit : kUnits) {
        SCOPED_TRACE(unit);
        EXPECT_EQ(converter.holdingRegisters(unit, 0, 3),
                  std::vector<uint16_t>({static_cast<uint16_t>(unit + 1), 0xC010, 0x0008}));
        EXPECT_EQ(converter.coils(unit, 1, 1), std::vector<uint8_t>({1}));
    }
}

struct ConverterFault {
    const char* name;
    modbus_sim::FaultKind kind;
    int chunkBytes;
    int delayMs;
    const char* garbage;
};

TEST_F(RtuOverTcpTest, EveryItemIsValuedWhereTheAnswerIsStillInTheStream) {
    const ConverterFault faults[] = {
        {"heartbeat before the answer", modbus_sim::FaultKind::GarbageBefore, 0, 0, "6865617274626561740d0a"},
        {"garbage before the answer", modbus_sim::FaultKind::GarbageBefore, 0, 0, "deadbeef0103ff"},
        {"answer split into chunks", modbus_sim::FaultKind::Split, 3, 20, ""},
        {"another unit's answer first", modbus_sim::FaultKind::OtherUnitFirst, 0, 0, ""},
    };
    for (const ConverterFault& fault : faults) {
        SCOPED_TRACE(fault.name);
        converter.clearFaults();
        modbus_sim::FaultRule rule;
        rule.kind = fault.kind;
        rule.chunkBytes = fault.chunkBytes;
        rule.delayMs = fault.delayMs;
        if (*fault.garbage) rule.garbage = QByteArray::fromHex(fault.garbage);
        converter.addFault(rule);
        pollAll();
    }
    EXPECT_EQ(converter.acceptedConnections(), 1);
}

TEST_F(RtuOverTcpTest, ABadCrcFailsItsItemsByNameAndTheNextPollReadsThem) {
    modbus_sim::FaultRule damaged;
    damaged.kind = modbus_sim::FaultKind::BadCrc;
    damaged.unit = 7;
    damaged.function = 4;
    converter.addFault(damaged);
    Batch batch(meter(7));
    addItems(batch);
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.error("input"), QStringLiteral("Invalid CRC"));
    EXPECT_EQ(batch.value("count"), QStringLiteral("700"));
    EXPECT_EQ(batch.value("status"), QStringLiteral("1"));
    converter.clearFaults();
    pollAll();
    EXPECT_EQ(converter.acceptedConnections(), 1);
}

TEST_F(RtuOverTcpTest, ALateAnswerFailsItsItemsAndNoItemTakesItsValues) {
    const int timeoutMs = 150 * zelt_test::kTimeScale;
    modbus_sim::FaultRule late;
    late.kind = modbus_sim::FaultKind::Delay;
    late.unit = 12;
    late.function = 3;
    late.delayMs = timeoutMs + 60 * zelt_test::kTimeScale;
    converter.addFault(late);
    Batch batch(
        meter(12, {{"response_timeout_ms", QString::number(timeoutMs)}, {"max_read_registers", "1"}}));
    addItems(batch);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.error("count"), QStringLiteral("Connection timed out"));
    EXPECT_EQ(batch.error("float"), QStringLiteral("Connection timed out"));
    for (const char* uid : {"count", "float"}) EXPECT_EQ(batch.value(uid), QString()) << uid;
    converter.clearFaults();
    pollAll();
}

TEST_F(RtuOverTcpTest, RequestsInFlightAreNeverSentOverRtu) {
    Batch batch(meter(3, {{"max_outstanding_requests", "8"}, {"read_gaps", "0"}}));
    addItems(batch);
    batch.add(makeItem("far", "40101", "4", "2"));
    for (int poll = 0; poll < 2; ++poll) {
        ASSERT_TRUE(plugin.readData(&batch.list));
        expectValues(batch, 3);
    }
    const std::vector<modbus_sim::RequestRecord> log = converter.requestLog();
    for (size_t i = 1; i < log.size(); ++i) {
        SCOPED_TRACE(i);
        ASSERT_GE(log[i - 1].answeredUs, 0);
        EXPECT_GE(log[i].receivedUs, log[i - 1].answeredUs);
    }
}

// What three rounds of polls cost with unit 7 dead: the connections the neighbours needed and the requests
// each unit got.
struct DeadUnitCost {
    int connections = 0;
    std::map<int, int> requestsByUnit;
};

DeadUnitCost pollAroundADeadUnit(modbus_sim::Framing framing) {
    modbus_sim::Simulator gateway;
    gateway.setFraming(framing);
    for (int unit : kUnits) gateway.setHoldingRegisters(unit, 0, {static_cast<uint16_t>(unit * 100)});
    gateway.setDeadUnits({7});
    EXPECT_TRUE(gateway.start());
    Modbus plugin;
    const QString transport = framing == modbus_sim::Framing::Rtu ? QStringLiteral("1") : QStringLiteral("0");
    for (int round = 0; round < 3; ++round) {
        for (int unit : kUnits) {
            Batch batch(makeDevice(unit, gateway.port(),
                                   {{"server_id", QString::number(unit)},
                                    {"transport", transport},
                                    {"persistent_connection", "1"},
                                    {"response_timeout_ms", QString::number(100 * zelt_test::kTimeScale)}}));
            batch.add(makeItem("count", "40001", "4", "2"));
            batch.add(makeItem("far", "40101", "4", "2"));
            EXPECT_EQ(plugin.readData(&batch.list), unit != 7) << unit;
            if (unit != 7) {
                EXPECT_EQ(batch.value("count"), QString::number(unit * 100));
                EXPECT_EQ(batch.value("far"), QStringLiteral("0"));
            }
        }
    }
    plugin.stopPlugin();
    DeadUnitCost cost;
    cost.connections = gateway.acceptedConnections();
    for (const modbus_sim::RequestRecord& record : gateway.requestLog())
        if (record.function == 3) ++cost.requestsByUnit[record.unit];
    return cost;
}

TEST(RtuDeadUnitTest, ADeadMeterCostsItsNeighboursNoMoreThanBehindAModbusTcpGateway) {
    zelt_standin::Host::instance().reset();
    const DeadUnitCost tcp = pollAroundADeadUnit(modbus_sim::Framing::Tcp);
    const DeadUnitCost rtu = pollAroundADeadUnit(modbus_sim::Framing::Rtu);
    EXPECT_EQ(rtu.connections, tcp.connections);
    EXPECT_EQ(rtu.requestsByUnit, tcp.requestsByUnit);
    EXPECT_EQ(rtu.requestsByUnit.at(3), rtu.requestsByUnit.at(12));
    zelt_standin::Host::instance().reset();
}

TEST_F(RtuOverTcpTest, UnitsNoSerialDeviceCanHaveFailWithoutARequest) {
    for (int unit : {248, 255}) {
        Batch batch(meter(unit));
        batch.add(makeItem("count", "40001", "4", "2"));
        EXPECT_FALSE(plugin.readData(&batch.list));
        EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Could not connect. Invalid argument"));
    }
    EXPECT_EQ(converter.totalRequests(), 0);
}

}  // namespace
