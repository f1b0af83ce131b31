#include <gtest/gtest.h>

#include <future>

#include "common/held_log_line.h"
#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;
using plugin_test::waitUntil;
using test_support::HeldLogLine;

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kDelayMs = 300;
// Bound for waits on events that come at once on an idle machine and within seconds on a loaded one.
constexpr std::chrono::seconds kHangGuard = test_support::HeldLogLine::kHangGuard;
const QMap<QString, QString> kPersistent = {{QStringLiteral("persistent_connection"), QStringLiteral("1")}};

struct Interval {
    Clock::time_point start;
    Clock::time_point end;
};

bool overlap(const Interval& a, const Interval& b) {
    return a.start < b.end && b.start < a.end;
}

class ConnectionCacheTest : public plugin_test::PluginTest {
protected:
    // Every read of holding registers answered after a pause, so that a poll holds its device for a while.
    static void slowReads(modbus_sim::Simulator& sim) {
        modbus_sim::FaultRule delay;
        delay.kind = modbus_sim::FaultKind::Delay;
        delay.function = 3;
        delay.delayMs = kDelayMs;
        sim.addFault(delay);
    }

    Interval timedPoll(const DeviceInstancePlugin& device) {
        Batch batch(device);
        batch.add(makeItem("value", "40001", "4", "2"));
        Interval interval;
        interval.start = Clock::now();
        EXPECT_TRUE(plugin.readData(&batch.list));
        interval.end = Clock::now();
        return interval;
    }
};

}  // namespace

TEST_F(ConnectionCacheTest, ServerIdBelowOnePollsUnitOne) {
    // Units 1 and 17 hold values of their own, the shared tables (unit 0 among others) another one.
    constexpr uint16_t kSharedValue = 7;
    constexpr uint16_t kUnitOneValue = 1001;
    constexpr uint16_t kUnitSeventeenValue = 1017;
    modbus_sim::Simulator sim;
    sim.setHoldingRegisters(0, {kSharedValue});
    sim.setHoldingRegisters(1, 0, {kUnitOneValue});
    sim.setHoldingRegisters(17, 0, {kUnitSeventeenValue});
    ASSERT_TRUE(sim.start());
    for (const char* serverId : {"0", "-5", "", "x"}) {
        SCOPED_TRACE(serverId);
        sim.clearRequestLog();
        plugin.stopPlugin();
        Batch batch(makeDevice(1, sim.port(), {{"server_id", serverId}}));
        batch.add(makeItem("value", "40001", "4", "2"));
        ASSERT_TRUE(plugin.readData(&batch.list));
        EXPECT_EQ(batch.value("value"), QString::number(kUnitOneValue));
        ASSERT_FALSE(sim.requestLog().empty());
        for (const modbus_sim::RequestRecord& record : sim.requestLog()) EXPECT_EQ(record.unit, 1);
    }
    sim.clearRequestLog();
    Batch batch(makeDevice(2, sim.port(), {{"server_id", "17"}}));
    batch.add(makeItem("value", "40001", "4", "2"));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("value"), QString::number(kUnitSeventeenValue));
    ASSERT_FALSE(sim.requestLog().empty());
    for (const modbus_sim::RequestRecord& record : sim.requestLog()) EXPECT_EQ(record.unit, 17);
}

TEST_F(ConnectionCacheTest, TcpDeviceConnectionCreatesOneEntryPerDevice) {
    bool stopping = true;
    auto first = plugin.tcpDeviceConnection(4, &stopping);
    EXPECT_FALSE(stopping);
    ASSERT_TRUE(first);
    EXPECT_FALSE(first->connection.isConnected());
    EXPECT_FALSE(static_cast<bool>(first->connection));
    EXPECT_EQ(plugin.tcpDeviceConnection(4, nullptr), first);
    EXPECT_NE(plugin.tcpDeviceConnection(5, nullptr), first);
}

TEST_F(ConnectionCacheTest, StopDisconnectsEveryDeviceAndTheNextPollConnectsAgain) {
    modbus_sim::Simulator simA;
    modbus_sim::Simulator simB;
    ASSERT_TRUE(simA.start());
    ASSERT_TRUE(simB.start());
    // Kept connections: nothing but the stop closes them.
    Batch a(makeDevice(1, simA.port(), kPersistent));
    Batch b(makeDevice(2, simB.port(), kPersistent));
    ASSERT_TRUE(plugin.readData(&a.list));
    ASSERT_TRUE(plugin.readData(&b.list));
    ASSERT_TRUE(plugin.readData(&a.list));
    ASSERT_TRUE(plugin.readData(&b.list));
    EXPECT_EQ(simA.acceptedConnections(), 1);
    EXPECT_EQ(simB.acceptedConnections(), 1);
    EXPECT_EQ(simA.closedConnections(), 0);
    EXPECT_EQ(simB.closedConnections(), 0);
    auto entryBefore = plugin.tcpDeviceConnection(1, nullptr);
    ASSERT_TRUE(entryBefore->connection.isConnected());

    EXPECT_TRUE(plugin.stopPlugin());
    EXPECT_TRUE(waitUntil([&] { return simA.closedConnections() == 1 && simB.closedConnections() == 1; },
                          kHangGuard));
    EXPECT_EQ(simA.openConnections(), 0);
    EXPECT_EQ(simB.openConnections(), 0);
    EXPECT_FALSE(entryBefore->connection.isConnected());

    ASSERT_TRUE(plugin.readData(&a.list));
    EXPECT_EQ(simA.acceptedConnections(), 2);
    EXPECT_EQ(simA.openConnections(), 1);
    EXPECT_EQ(simB.acceptedConnections(), 1);
    EXPECT_NE(plugin.tcpDeviceConnection(1, nullptr), entryBefore);
}

TEST_F(ConnectionCacheTest, PollDuringStopReturnsFalseWithoutTouchingTheBatch) {
    modbus_sim::Simulator busy;
    modbus_sim::Simulator other;
    ASSERT_TRUE(busy.start());
    ASSERT_TRUE(other.start());
    // Device 1 is connected and probed first, so that its next poll is one read.
    Batch warmUp(makeDevice(1, busy.port()));
    ASSERT_TRUE(plugin.readData(&warmUp.list));

    // The next poll of device 1 logs its last line while it still holds the device; the log sink holds it
    // there until the test lets go, so the stop waits for as long as the test needs.
    HeldLogLine held(QStringLiteral("Done reading 1 from device1"));
    auto slowPoll = std::async(std::launch::async, [&] {
        Batch batch(makeDevice(1, busy.port()));
        batch.add(makeItem("value", "40001", "4", "2"));
        return plugin.readData(&batch.list);
    });
    ASSERT_TRUE(held.waitUntilHeld());
    auto stop = std::async(std::launch::async, [&] { return plugin.stopPlugin(); });
    // The stop is now waiting for device 1; any poll asking for a connection gets none.
    ASSERT_TRUE(waitUntil(
        [&] {
            bool stopping = false;
            plugin.tcpDeviceConnection(99, &stopping);
            return stopping;
        },
        kHangGuard));

    Batch batch(makeDevice(2, other.port()));
    DataItem* item = batch.add(makeItem("value", "40001", "4", "2"));
    item->values.insert(QStringLiteral("value"), QStringLiteral("untouched"));
    batch.list.device.lastError = QStringLiteral("untouched");
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(item->values.value(QStringLiteral("value")), QStringLiteral("untouched"));
    EXPECT_EQ(item->item.lastError, QString());
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("untouched"));
    EXPECT_EQ(batch.list.dataItems.size(), 1);
    EXPECT_EQ(other.acceptedConnections(), 0);

    held.release();
    EXPECT_TRUE(slowPoll.get());
    EXPECT_TRUE(stop.get());
}

TEST_F(ConnectionCacheTest, PollsOfOneDeviceRunOneAfterTheOther) {
    modbus_sim::Simulator sim;
    ASSERT_TRUE(sim.start());
    slowReads(sim);
    const DeviceInstancePlugin device = makeDevice(1, sim.port());
    auto first = std::async(std::launch::async, [&] { return timedPoll(device); });
    auto second = std::async(std::launch::async, [&] { return timedPoll(device); });
    const Interval a = first.get();
    const Interval b = second.get();
    // The device mutex serialises them: one poll's read had to wait for the other's.
    EXPECT_FALSE(overlap({a.end - std::chrono::milliseconds(kDelayMs), a.end},
                         {b.end - std::chrono::milliseconds(kDelayMs), b.end}));
    EXPECT_EQ(sim.requestCount(3), 2);
}

TEST_F(ConnectionCacheTest, PollsOfDifferentDevicesDoNotWaitForEachOther) {
    modbus_sim::Simulator simA;
    modbus_sim::Simulator simB;
    ASSERT_TRUE(simA.start());
    ASSERT_TRUE(simB.start());
    // Probe the identities first so that each poll below is only its one read.
    Batch warmA(makeDevice(1, simA.port()));
    Batch warmB(makeDevice(2, simB.port()));
    ASSERT_TRUE(plugin.readData(&warmA.list));
    ASSERT_TRUE(plugin.readData(&warmB.list));

    // Device 1's poll is held while it holds its device; device 2's poll must finish all the same.
    HeldLogLine held(QStringLiteral("Done reading 1 from device1"));
    auto first = std::async(std::launch::async, [&] { return timedPoll(makeDevice(1, simA.port())); });
    ASSERT_TRUE(held.waitUntilHeld());
    auto second = std::async(std::launch::async, [&] { return timedPoll(makeDevice(2, simB.port())); });
    EXPECT_EQ(second.wait_for(kHangGuard), std::future_status::ready);
    EXPECT_EQ(first.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    held.release();
    first.get();
    second.get();
}
