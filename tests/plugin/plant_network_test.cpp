// The plugin on a plant network, modelled by the simulator: units behind one gateway, busy and silent units,
// late answers, unreachable devices, and typos in addresses.

#include <gtest/gtest.h>

#include <set>

#include "common/manual_clock.h"
#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "common/time_scale.h"
#include "plugin/modbus.h"
#include "tools/sim/blackhole_listener.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;
using zelt_standin::Host;

namespace {

constexpr int kGatewayUnits = 8;
// Time-outs of tests that expect no answer: short natively, longer under an emulator.
const QString kShortTimeoutMs = QString::number(50 * zelt_test::kTimeScale);
const QString kMediumTimeoutMs = QString::number(200 * zelt_test::kTimeScale);

class PlantNetworkTest : public plugin_test::PluginAndSimulatorTest {
protected:
    // A unit behind the simulated gateway, with the host's default of a kept connection; the device id is
    // the unit id.
    DeviceInstancePlugin unit(int unitId, QMap<QString, QString> settings = {}) {
        settings.insert(QStringLiteral("server_id"), QString::number(unitId));
        if (!settings.contains(QStringLiteral("persistent_connection")))
            settings.insert(QStringLiteral("persistent_connection"), QStringLiteral("1"));
        return makeDevice(unitId, sim.port(), settings);
    }

    // Requests for each unit, by function code 3 only (identity probes left out).
    std::map<int, int> holdingReadsByUnit() const {
        std::map<int, int> reads;
        for (const modbus_sim::RequestRecord& record : sim.requestLog())
            if (record.function == 3) ++reads[record.unit];
        return reads;
    }
};

TEST_F(PlantNetworkTest, UnitsBehindOneGatewayShareOneConnection) {
    sim.setHoldingRegisters(0, {1234});
    for (int round = 0; round < 3; ++round) {
        for (int unitId = 1; unitId <= kGatewayUnits; ++unitId) {
            SCOPED_TRACE(unitId);
            Batch batch(unit(unitId));
            batch.add(makeItem("value", "40001", "4", "2"));
            EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
            EXPECT_EQ(batch.value("value"), QStringLiteral("1234"));
        }
    }
    EXPECT_EQ(sim.acceptedConnections(), 1);
    std::map<int, int> expected;
    for (int unitId = 1; unitId <= kGatewayUnits; ++unitId) expected[unitId] = 3;
    EXPECT_EQ(holdingReadsByUnit(), expected);
}

TEST_F(PlantNetworkTest, ADeviceThatAsksForItsOwnConnectionGetsOne) {
    Batch first(unit(1));
    Batch second(unit(2, {{"share_connection", "0"}}));
    first.add(makeItem("value", "40001", "4", "2"));
    second.add(makeItem("value", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&first.list));
    EXPECT_TRUE(plugin.readData(&second.list));
    EXPECT_EQ(sim.acceptedConnections(), 2);
}

TEST_F(PlantNetworkTest, ASharedConnectionIsClosedOnlyWhenNoDeviceKeepsIt) {
    Batch keeps(unit(1));
    Batch closes(unit(2, {{"persistent_connection", "0"}}));
    keeps.add(makeItem("value", "40001", "4", "2"));
    closes.add(makeItem("value", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&keeps.list));
    EXPECT_TRUE(plugin.readData(&closes.list));
    EXPECT_TRUE(plugin.readData(&keeps.list));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    EXPECT_EQ(sim.closedConnections(), 0);

    Batch alsoCloses(unit(1, {{"persistent_connection", "0"}}));
    alsoCloses.add(makeItem("value", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&alsoCloses.list));
    EXPECT_TRUE(plugin_test::waitUntil([&] { return sim.closedConnections() == 1; }));
}

TEST_F(PlantNetworkTest, ADeadUnitBehindTheGatewayFailsAloneAndKeepsTheConnection) {
    sim.setHoldingRegisters(0, {77});
    sim.setUnits({1, 2});
    sim.setUnknownUnitReply(modbus_sim::UnknownUnitReply::GatewayException);
    Batch live(unit(1));
    Batch dead(unit(3));
    Batch neighbour(unit(2));
    for (Batch* batch : {&live, &dead, &neighbour}) batch->add(makeItem("value", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&live.list));
    EXPECT_FALSE(plugin.readData(&dead.list));
    EXPECT_TRUE(plugin.readData(&neighbour.list));
    EXPECT_EQ(dead.error("value"), QStringLiteral("Target device failed to respond"));
    EXPECT_EQ(dead.list.device.lastError, QStringLiteral("Target device failed to respond"));
    EXPECT_EQ(live.value("value"), QStringLiteral("77"));
    EXPECT_EQ(neighbour.value("value"), QStringLiteral("77"));
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

TEST_F(PlantNetworkTest, ASilentUnitIsPausedAfterThreePollsWithoutAnAnswerAndItsNeighboursGoOn) {
    test_support::ManualClock clock;
    sim.setHoldingRegisters(0, {5});
    sim.setUnits({1});
    Batch silent(unit(2, {{"response_timeout_ms", kShortTimeoutMs}}));
    silent.add(makeItem("value", "40001", "4", "2"));
    for (int poll = 1; poll <= 3; ++poll) {
        SCOPED_TRACE(poll);
        EXPECT_FALSE(plugin.readData(&silent.list));
        EXPECT_EQ(silent.list.device.lastError, QStringLiteral("Connection timed out"));
        EXPECT_EQ(silent.error("value"), QStringLiteral("Connection timed out"));
    }
    EXPECT_EQ(holdingReadsByUnit()[2], 3);
    // Paused for the first second: a poll up to its last millisecond sends nothing.
    EXPECT_FALSE(plugin.readData(&silent.list));
    EXPECT_EQ(silent.list.device.lastError, QStringLiteral("Connection timed out; next attempt in 1 s"));
    EXPECT_EQ(holdingReadsByUnit()[2], 3);
    clock.advance(Backoff::kFirstPauseMs - 1);
    EXPECT_FALSE(plugin.readData(&silent.list));
    EXPECT_EQ(silent.list.device.lastError, QStringLiteral("Connection timed out; next attempt in 1 s"));
    EXPECT_EQ(holdingReadsByUnit()[2], 3);

    Batch neighbour(unit(1));
    neighbour.add(makeItem("value", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&neighbour.list));
    EXPECT_EQ(neighbour.value("value"), QStringLiteral("5"));

    // The pause is over: the unit is asked again, does not answer and is paused twice as long.
    clock.advance(1);
    EXPECT_FALSE(plugin.readData(&silent.list));
    EXPECT_EQ(silent.list.device.lastError, QStringLiteral("Connection timed out"));
    EXPECT_EQ(holdingReadsByUnit()[2], 4);
    EXPECT_FALSE(plugin.readData(&silent.list));
    EXPECT_EQ(silent.list.device.lastError, QStringLiteral("Connection timed out; next attempt in 2 s"));
    EXPECT_EQ(holdingReadsByUnit()[2], 4);
}

TEST_F(PlantNetworkTest, ATimedOutRequestIsSentAgainAsOftenAsTheRetriesSay) {
    modbus_sim::FaultRule silence;
    silence.kind = modbus_sim::FaultKind::Silence;
    silence.function = 3;
    silence.address = 5;
    sim.addFault(silence);
    sim.setHoldingRegisters(0, {10, 11});
    Batch batch(
        unit(1, {{"retries", "2"}, {"response_timeout_ms", kShortTimeoutMs}, {"max_read_registers", "2"}}));
    batch.add(makeItem("a", "40001", "4", "2"));
    batch.add(makeItem("b", "40002", "4", "2"));
    batch.add(makeItem("lost", "40006", "4", "2"));
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("a"), QStringLiteral("10"));
    EXPECT_EQ(batch.value("b"), QStringLiteral("11"));
    EXPECT_EQ(batch.error("lost"), QStringLiteral("Connection timed out"));
    int tries = 0;
    for (const modbus_sim::RequestRecord& record : sim.requestLog())
        if (record.function == 3 && record.address == 5) ++tries;
    EXPECT_EQ(tries, 3);
    // Each time-out closed the connection: what came after it could not be matched to a request.
    EXPECT_EQ(sim.acceptedConnections(), 3);
}

TEST_F(PlantNetworkTest, ALateAnswerFailsOnlyItsRequestAndNoOtherItemTakesItsData) {
    sim.setHoldingRegisters(0, {1, 2, 3, 4});
    sim.setInputRegisters(0, {9});
    modbus_sim::FaultRule late;
    late.kind = modbus_sim::FaultKind::Delay;
    late.function = 3;
    late.address = 0;
    late.delayMs = 300 * zelt_test::kTimeScale;
    sim.addFault(late);
    Batch batch(unit(1, {{"response_timeout_ms", QString::number(100 * zelt_test::kTimeScale)},
                         {"max_read_registers", "2"}}));
    batch.add(makeItem("late1", "40001", "4", "2"));
    batch.add(makeItem("late2", "40002", "4", "2"));
    batch.add(makeItem("next1", "40003", "4", "2"));
    batch.add(makeItem("next2", "40004", "4", "2"));
    batch.add(makeItem("input", "30001", "4", "2"));
    for (int poll = 1; poll <= 3; ++poll) {
        SCOPED_TRACE(poll);
        EXPECT_FALSE(plugin.readData(&batch.list));
        EXPECT_EQ(batch.error("late1"), QStringLiteral("Connection timed out"));
        EXPECT_EQ(batch.error("late2"), QStringLiteral("Connection timed out"));
        EXPECT_EQ(batch.value("next1"), QStringLiteral("3"));
        EXPECT_EQ(batch.value("next2"), QStringLiteral("4"));
        EXPECT_EQ(batch.value("input"), QStringLiteral("9"));
        EXPECT_EQ(batch.error("next1"), QString());
        EXPECT_EQ(batch.error("input"), QString());
    }
}

TEST_F(PlantNetworkTest, AnUnreachableDeviceIsPausedAndAPollInThePauseSendsNothing) {
    test_support::ManualClock clock;
    const quint16 closedPort = sim.port();
    sim.stop();
    Batch batch(makeDevice(1, closedPort));
    batch.add(makeItem("a", "40001", "4", "2"));
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Could not connect. Connection refused"));
    const QString attempt = QStringLiteral("Could not connect to 127.0.0.1. Connection refused");
    EXPECT_TRUE(Host::instance().hasLog(zelt_standin::LogLevel::Debug, attempt));
    Host::instance().clearLogs();
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError,
              QStringLiteral("Could not connect. Connection refused; next attempt in 1 s"));
    EXPECT_FALSE(Host::instance().hasLog(zelt_standin::LogLevel::Debug, attempt));

    // The pause is over: the device is tried again, and paused twice as long.
    clock.advance(Backoff::kFirstPauseMs);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Could not connect. Connection refused"));
    EXPECT_TRUE(Host::instance().hasLog(zelt_standin::LogLevel::Debug, attempt));
    Host::instance().clearLogs();
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError,
              QStringLiteral("Could not connect. Connection refused; next attempt in 2 s"));
    EXPECT_FALSE(Host::instance().hasLog(zelt_standin::LogLevel::Debug, attempt));
}

TEST_F(PlantNetworkTest, AWriteIsTriedWhileThePollsArePaused) {
    // The clock stands still, so the write below surely comes within the pause.
    test_support::ManualClock clock;
    const quint16 port = sim.port();
    sim.stop();
    Batch poll(makeDevice(1, port));
    poll.add(makeItem("a", "40001", "4", "2"));
    EXPECT_FALSE(plugin.readData(&poll.list));
    EXPECT_FALSE(plugin.readData(&poll.list));
    EXPECT_EQ(poll.list.device.lastError,
              QStringLiteral("Could not connect. Connection refused; next attempt in 1 s"));
    modbus_sim::Simulator revived;
    if (!revived.start(QStringLiteral("127.0.0.1"), port)) GTEST_SKIP() << "the port was taken meanwhile";
    Batch write(makeDevice(1, port));
    DataItem* item = write.add(makeItem("a", "40001", "4", "2"));
    item->values.insert(QStringLiteral("value"), QStringLiteral("42"));
    EXPECT_TRUE(plugin.writeData(&write.list)) << write.list.device.lastError.toStdString();
    EXPECT_EQ(revived.holdingRegisters(0, 1), std::vector<uint16_t>{42});
    // The write reached the device: the pause is over and the next poll goes out.
    EXPECT_TRUE(plugin.readData(&poll.list));
    EXPECT_EQ(poll.value("a"), QStringLiteral("42"));
}

TEST_F(PlantNetworkTest, AnInvalidAddressShowsOnTheItem) {
    sim.setHoldingRegisters(0, {8});
    Batch batch(unit(1));
    batch.add(makeItem("typo", "4000x", "4", "2"));
    batch.add(makeItem("good", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.error("typo"), QStringLiteral("Invalid register address"));
    EXPECT_EQ(batch.value("typo"), QString());
    EXPECT_EQ(batch.value("good"), QStringLiteral("8"));
}

TEST_F(PlantNetworkTest, AnExceptionAnswerKeepsTheConnectionForTheNextPoll) {
    sim.addFault(plugin_test::exceptionFault(3, 2));
    Batch batch(unit(1));
    batch.add(makeItem("a", "40001", "4", "2"));
    for (int poll = 0; poll < 3; ++poll) {
        EXPECT_TRUE(plugin.readData(&batch.list));
        EXPECT_EQ(batch.error("a"), QStringLiteral("Illegal data address"));
    }
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

// Items in every register of 0..count-1, each holding its own address as value.
void addCountingItems(Batch& batch, int count) {
    for (int address = 0; address < count; ++address)
        batch.add(makeItem(QStringLiteral("h%1").arg(address), QString::number(40001 + address), "4", "2"));
}

bool everyItemValued(const Batch& batch, int count) {
    for (int address = 0; address < count; ++address) {
        const QString uid = QStringLiteral("h%1").arg(address);
        if (batch.value(uid) != QString::number(address) || !batch.error(uid).isEmpty()) return false;
    }
    return true;
}

// Every third read of the holding registers is answered busy (exception 6).
modbus_sim::FaultRule busyEveryThirdRead() {
    modbus_sim::FaultRule busy;
    busy.kind = modbus_sim::FaultKind::BusyEvery;
    busy.everyRequests = 3;
    busy.function = 3;
    return busy;
}

std::vector<uint16_t> countingRegisters(int count) {
    std::vector<uint16_t> values(static_cast<size_t>(count));
    for (int address = 0; address < count; ++address)
        values[static_cast<size_t>(address)] = uint16_t(address);
    return values;
}

TEST_F(PlantNetworkTest, AGatewayThatAllowsTwoConnectionsServesAllEightUnits) {
    sim.setConnectionLimit(2);
    sim.setHoldingRegisters(0, countingRegisters(10));
    for (int round = 0; round < 5; ++round) {
        for (int unitId = 1; unitId <= kGatewayUnits; ++unitId) {
            SCOPED_TRACE(QStringLiteral("round %1 unit %2").arg(round).arg(unitId).toStdString());
            Batch batch(unit(unitId));
            addCountingItems(batch, 10);
            EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
            EXPECT_TRUE(everyItemValued(batch, 10));
        }
    }
    EXPECT_EQ(sim.acceptedConnections(), 1);
    EXPECT_EQ(sim.rejectedConnections(), 0);
}

TEST_F(PlantNetworkTest, ADeviceThatDropsHastyRequestsIsServedWithARequestPause) {
    constexpr int kGapMs = 10;
    sim.setMinimumRequestGap(kGapMs);
    sim.setHoldingRegisters(0, countingRegisters(30));
    Batch batch(unit(1, {{"request_pause_ms", QString::number(kGapMs)}, {"max_read_registers", "10"}}));
    addCountingItems(batch, 30);
    for (int poll = 0; poll < 5; ++poll) {
        SCOPED_TRACE(poll);
        EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
        EXPECT_TRUE(everyItemValued(batch, 30));
    }
    // Measured on the device's side: no request came sooner than the pause after the answer before it.
    const std::vector<modbus_sim::RequestRecord> log = sim.requestLog();
    int dropped = 0;
    for (size_t i = 1; i < log.size(); ++i) {
        if (log[i].dropped) ++dropped;
        if (log[i - 1].answeredUs >= 0 && log[i].connection == log[i - 1].connection) {
            EXPECT_GE(log[i].receivedUs - log[i - 1].answeredUs, kGapMs * 1000) << i;
        }
    }
    EXPECT_EQ(dropped, 0);
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

TEST_F(PlantNetworkTest, ABusyDeviceIsAskedAgainAndEveryPollCompletesOnOneConnection) {
    sim.addFault(busyEveryThirdRead());
    sim.setHoldingRegisters(0, countingRegisters(200));
    Batch batch(unit(1, {{"retries", "1"}, {"max_read_registers", "50"}}));
    addCountingItems(batch, 200);
    for (int poll = 0; poll < 6; ++poll) {
        SCOPED_TRACE(poll);
        EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
        EXPECT_TRUE(everyItemValued(batch, 200));
    }
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

TEST_F(PlantNetworkTest, WithoutRetriesABusyAnswerFailsOnlyItsItemsAndTheRestIsRead) {
    sim.addFault(busyEveryThirdRead());
    sim.setHoldingRegisters(0, countingRegisters(200));
    Batch batch(unit(1, {{"max_read_registers", "50"}}));
    addCountingItems(batch, 200);
    // Four requests of 50: the third is answered busy.
    EXPECT_FALSE(plugin.readData(&batch.list));
    for (int address = 0; address < 200; ++address) {
        const QString uid = QStringLiteral("h%1").arg(address);
        SCOPED_TRACE(uid.toStdString());
        if (address >= 100 && address < 150) {
            EXPECT_EQ(batch.error(uid), QStringLiteral("Slave device or server is busy"));
        } else {
            EXPECT_EQ(batch.value(uid), QString::number(address));
            EXPECT_EQ(batch.error(uid), QString());
        }
    }
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Slave device or server is busy"));
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

TEST_F(PlantNetworkTest, ADeadDeviceCostsOneConnectTimeOutAndIsThenPaused) {
    test_support::ManualClock clock;
    modbus_sim::BlackholeListener dead;
    QString reason;
    ASSERT_TRUE(dead.start(QStringLiteral("127.0.0.1"), 0, &reason)) << reason.toStdString();
    Batch batch(makeDevice(1, dead.port(), {{"connect_timeout_ms", kMediumTimeoutMs}}));
    batch.add(makeItem("a", "40001", "4", "2"));
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_GE(std::chrono::steady_clock::now() - started,
              std::chrono::milliseconds(kMediumTimeoutMs.toInt()));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Could not connect. Timeout"));
    const QString attempt = QStringLiteral("Could not connect to 127.0.0.1. Timeout");
    EXPECT_TRUE(Host::instance().hasLog(zelt_standin::LogLevel::Debug, attempt));
    Host::instance().clearLogs();
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Could not connect. Timeout; next attempt in 1 s"));
    EXPECT_FALSE(Host::instance().hasLog(zelt_standin::LogLevel::Debug, attempt));

    clock.advance(Backoff::kFirstPauseMs);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Could not connect. Timeout"));
    EXPECT_TRUE(Host::instance().hasLog(zelt_standin::LogLevel::Debug, attempt));
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Could not connect. Timeout; next attempt in 2 s"));
}

}  // namespace

namespace {

class PipeliningTest : public PlantNetworkTest {};

// Whether a request of the log was received before the answer to the one before it went out: two in flight.
bool anyOverlap(const std::vector<modbus_sim::RequestRecord>& log) {
    for (size_t i = 1; i < log.size(); ++i)
        if (log[i - 1].answeredUs >= 0 && log[i].receivedUs < log[i - 1].answeredUs) return true;
    return false;
}

std::vector<modbus_sim::RequestRecord> holdingReads(const modbus_sim::Simulator& simulator) {
    std::vector<modbus_sim::RequestRecord> reads;
    for (const modbus_sim::RequestRecord& record : simulator.requestLog())
        if (record.function == 3) reads.push_back(record);
    return reads;
}

TEST_F(PipeliningTest, APlanSentWithRequestsInFlightValuesEveryItem) {
    sim.setSerialLine(5);
    sim.setHoldingRegisters(0, countingRegisters(200));
    Batch batch(unit(1, {{"max_outstanding_requests", "4"}, {"max_read_registers", "20"}}));
    addCountingItems(batch, 200);
    EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
    EXPECT_TRUE(everyItemValued(batch, 200));
    // That they were in flight together shows at the connection (ConnectionTest.ReadPipelined*); the
    // simulator reads one request after the other.
    EXPECT_EQ(holdingReads(sim).size(), 10u);
    EXPECT_FALSE(Host::instance().hasLog(
        zelt_standin::LogLevel::Warning,
        QStringLiteral("device1 does not answer requests sent before the previous "
                       "answer came; it is asked one request at a time from now on")));
}

TEST_F(PipeliningTest, ADeviceThatLeavesARequestInFlightUnansweredIsAskedOneAtATimeFromThenOn) {
    modbus_sim::FaultRule silence;
    silence.kind = modbus_sim::FaultKind::Silence;
    silence.function = 3;
    silence.address = 20;
    sim.addFault(silence);
    sim.setHoldingRegisters(0, countingRegisters(60));
    Batch batch(unit(1, {{"max_outstanding_requests", "4"},
                         {"max_read_registers", "20"},
                         {"response_timeout_ms", kMediumTimeoutMs},
                         {"backoff_max_ms", "0"}}));
    addCountingItems(batch, 60);
    EXPECT_FALSE(plugin.readData(&batch.list));
    for (int address = 0; address < 60; ++address) {
        const QString uid = QStringLiteral("h%1").arg(address);
        SCOPED_TRACE(uid.toStdString());
        if (address >= 20 && address < 40) {
            EXPECT_EQ(batch.error(uid), QStringLiteral("Connection timed out"));
        } else {
            EXPECT_EQ(batch.value(uid), QString::number(address));
        }
    }
    const QString warning = QStringLiteral(
        "device1 does not answer requests sent before the previous answer came; it is asked one request at a "
        "time "
        "from now on");
    EXPECT_EQ(Host::instance().logTexts(zelt_standin::LogLevel::Warning).count(warning), 1);

    sim.clearRequestLog();
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_FALSE(anyOverlap(holdingReads(sim)));
    EXPECT_EQ(holdingReads(sim).size(), 3u);
    EXPECT_EQ(Host::instance().logTexts(zelt_standin::LogLevel::Warning).count(warning), 1);
}

}  // namespace

namespace {

class LearnedHolesTest : public PlantNetworkTest {
protected:
    // Reads of the holding registers the simulator refused (exception 2) since the log was cleared, and all
    // of them.
    int refusedReads() const {
        int refused = 0;
        for (const modbus_sim::RequestRecord& record : sim.requestLog()) {
            if (record.function != 3) continue;
            for (int hole : kHoles)
                if (record.address <= hole && hole < record.address + record.count) ++refused;
        }
        return refused;
    }

    // The holding register reads since the log was cleared: (address, count) each.
    std::vector<std::tuple<int, int>> holdingReadRanges() const {
        std::vector<std::tuple<int, int>> reads;
        for (const modbus_sim::RequestRecord& record : sim.requestLog())
            if (record.function == 3) reads.emplace_back(record.address, record.count);
        return reads;
    }

    static constexpr int kHoles[] = {5, 47, 123, 150};
};

TEST_F(LearnedHolesTest, EveryReadableItemIsValuedAtOnceAndNoReadIsRefusedFromTheSecondPollOn) {
    for (int hole : kHoles) sim.addFault(plugin_test::exceptionFault(3, 2, hole));
    sim.setHoldingRegisters(0, countingRegisters(200));
    Batch batch(unit(1, {{"max_read_registers", "100"}}));
    // Items every 10 registers; the one at 150 is itself unreadable.
    for (int address = 0; address < 200; address += 10)
        batch.add(makeItem(QStringLiteral("h%1").arg(address), QString::number(40001 + address), "4", "2"));
    EXPECT_TRUE(plugin.readData(&batch.list));
    for (int address = 0; address < 200; address += 10) {
        const QString uid = QStringLiteral("h%1").arg(address);
        SCOPED_TRACE(uid.toStdString());
        if (address == 150) {
            EXPECT_EQ(batch.error(uid), QStringLiteral("Illegal data address"));
        } else {
            EXPECT_EQ(batch.value(uid), QString::number(address));
            EXPECT_EQ(batch.error(uid), QString());
        }
    }
    for (int poll = 2; poll <= 4; ++poll) {
        SCOPED_TRACE(poll);
        sim.clearRequestLog();
        EXPECT_TRUE(plugin.readData(&batch.list));
        EXPECT_EQ(refusedReads(), 0);
        // The fewest reads that avoid the holes: 0, 10..40, 50..120, 130..140, 160..190 -> five reads.
        std::vector<std::tuple<int, int>> reads;
        for (const modbus_sim::RequestRecord& record : sim.requestLog())
            if (record.function == 3) reads.emplace_back(record.address, record.count);
        EXPECT_EQ(reads,
                  (std::vector<std::tuple<int, int>>{{0, 1}, {10, 31}, {50, 71}, {130, 11}, {160, 31}}));
        EXPECT_EQ(batch.error("h150"), QStringLiteral("Illegal data address"));
        EXPECT_EQ(batch.value("h190"), QStringLiteral("190"));
    }
}

TEST_F(LearnedHolesTest, WithoutGapReadsOnlyTheItemsRegistersAreAsked) {
    sim.setHoldingRegisters(0, countingRegisters(40));
    Batch batch(unit(1, {{"read_gaps", "0"}}));
    for (int address : {0, 1, 2, 10, 11, 30})
        batch.add(makeItem(QStringLiteral("h%1").arg(address), QString::number(40001 + address), "4", "2"));
    EXPECT_TRUE(plugin.readData(&batch.list));
    std::vector<std::tuple<int, int>> reads;
    for (const modbus_sim::RequestRecord& record : sim.requestLog())
        if (record.function == 3) reads.emplace_back(record.address, record.count);
    EXPECT_EQ(reads, (std::vector<std::tuple<int, int>>{{0, 3}, {10, 2}, {30, 1}}));
}

TEST_F(LearnedHolesTest, WhatWasLearnedIsForgottenAfterAnHour) {
    constexpr qint64 kOneHourMs = 60LL * 60 * 1000;
    test_support::ManualClock clock;
    sim.addFault(plugin_test::exceptionFault(3, 2, 5));
    sim.setHoldingRegisters(0, countingRegisters(20));
    Batch batch(unit(1));
    batch.add(makeItem("a", "40001", "4", "2"));
    batch.add(makeItem("b", "40011", "4", "2"));
    EXPECT_TRUE(plugin.readData(&batch.list));
    // The register at 5 became readable; what was learned still holds for the hour.
    sim.clearFaults();
    clock.advance(kOneHourMs);
    sim.clearRequestLog();
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(holdingReadRanges(), (std::vector<std::tuple<int, int>>{{0, 1}, {10, 1}}));

    clock.advance(1);
    sim.clearRequestLog();
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(holdingReadRanges(), (std::vector<std::tuple<int, int>>{{0, 11}}));
    EXPECT_EQ(batch.value("a"), QStringLiteral("0"));
    EXPECT_EQ(batch.value("b"), QStringLiteral("10"));
}

TEST_F(LearnedHolesTest, WhatWasLearnedIsForgottenWhenTheItemsChange) {
    sim.addFault(plugin_test::exceptionFault(3, 2, 5));
    sim.setHoldingRegisters(0, countingRegisters(20));
    Batch batch(unit(1));
    DataItem* moving = batch.add(makeItem("a", "40001", "4", "2"));
    batch.add(makeItem("b", "40011", "4", "2"));
    EXPECT_TRUE(plugin.readData(&batch.list));
    sim.clearRequestLog();
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(sim.requestLog().size(), 2u);  // 0 and 10 apart, around the hole at 5

    sim.clearFaults();
    moving->item.settings[QStringLiteral("register")] = QStringLiteral("40002");
    sim.clearRequestLog();
    EXPECT_TRUE(plugin.readData(&batch.list));
    std::vector<std::tuple<int, int>> reads;
    for (const modbus_sim::RequestRecord& record : sim.requestLog())
        if (record.function == 3) reads.emplace_back(record.address, record.count);
    EXPECT_EQ(reads, (std::vector<std::tuple<int, int>>{{1, 10}}));
}

}  // namespace
