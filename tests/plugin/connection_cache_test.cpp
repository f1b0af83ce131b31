#include <gtest/gtest.h>

#include <future>

#include "common/plugin_batch.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;
using plugin_test::waitUntil;
using zelt_standin::Host;

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kDelayMs = 300;

struct Interval {
    Clock::time_point start;
    Clock::time_point end;
};

bool overlap(const Interval& a, const Interval& b) {
    return a.start < b.end && b.start < a.end;
}

class ConnectionCacheTest : public ::testing::Test {
protected:
    void SetUp() override { Host::instance().reset(); }
    void TearDown() override {
        plugin.stopPlugin();
        Host::instance().reset();
    }

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

    Modbus plugin;
};

}  // namespace

TEST_F(ConnectionCacheTest, UnusablePortSettingsConnectToPort502) {
    modbus_sim::Simulator sim;
    QString error;
    ASSERT_TRUE(sim.start(QStringLiteral("127.0.0.1"), 502, &error)) << error.toStdString();
    const char* kPorts[] = {nullptr, "", "0", "abc", "70000"};
    int expectedConnections = 0;
    for (const char* port : kPorts) {
        SCOPED_TRACE(port ? port : "(missing)");
        DeviceInstancePlugin device = makeDevice(1, 0);
        if (port)
            device.settings.insert(QStringLiteral("port"), QString::fromLatin1(port));
        else
            device.settings.remove(QStringLiteral("port"));
        int connectError = 0;
        Connection connection = plugin.makeConnection(device, &connectError);
        EXPECT_TRUE(connection.isConnected());
        EXPECT_TRUE(waitUntil([&] { return sim.acceptedConnections() == expectedConnections + 1; }));
        ++expectedConnections;
    }
}

TEST_F(ConnectionCacheTest, ServerIdBelowOnePollsUnitOne) {
    modbus_sim::Simulator sim;
    ASSERT_TRUE(sim.start());
    for (const char* serverId : {"0", "-5", "", "x"}) {
        SCOPED_TRACE(serverId);
        sim.clearRequestLog();
        plugin.stopPlugin();
        Batch batch(makeDevice(1, sim.port(), {{"server_id", serverId}}));
        batch.add(makeItem("value", "40001", "4", "2"));
        ASSERT_TRUE(plugin.readData(&batch.list));
        ASSERT_FALSE(sim.requestLog().empty());
        for (const modbus_sim::RequestRecord& record : sim.requestLog()) EXPECT_EQ(record.unit, 1);
    }
    sim.clearRequestLog();
    Batch batch(makeDevice(2, sim.port(), {{"server_id", "17"}}));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(sim.requestLog().front().unit, 17);
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
    Batch a(makeDevice(1, simA.port()));
    Batch b(makeDevice(2, simB.port()));
    ASSERT_TRUE(plugin.readData(&a.list));
    ASSERT_TRUE(plugin.readData(&b.list));
    auto entryBefore = plugin.tcpDeviceConnection(1, nullptr);

    EXPECT_TRUE(plugin.stopPlugin());
    EXPECT_TRUE(waitUntil([&] { return simA.closedConnections() == 1 && simB.closedConnections() == 1; }));
    EXPECT_FALSE(entryBefore->connection.isConnected());

    ASSERT_TRUE(plugin.readData(&a.list));
    EXPECT_EQ(simA.acceptedConnections(), 2);
    EXPECT_NE(plugin.tcpDeviceConnection(1, nullptr), entryBefore);
}

TEST_F(ConnectionCacheTest, PollDuringStopReturnsFalseWithoutTouchingTheBatch) {
    modbus_sim::Simulator busy;
    modbus_sim::Simulator other;
    ASSERT_TRUE(busy.start());
    ASSERT_TRUE(other.start());
    // Device 1 is connected and probed first; its next poll then holds its mutex in a slow read while stop
    // waits.
    Batch warmUp(makeDevice(1, busy.port()));
    ASSERT_TRUE(plugin.readData(&warmUp.list));
    slowReads(busy);

    auto slowPoll = std::async(std::launch::async, [&] {
        Batch batch(makeDevice(1, busy.port()));
        batch.add(makeItem("value", "40001", "4", "2"));
        return plugin.readData(&batch.list);
    });
    ASSERT_TRUE(waitUntil([&] { return busy.requestCount(3) == 1; }));
    auto stop = std::async(std::launch::async, [&] { return plugin.stopPlugin(); });
    // The stop is now waiting for device 1; any poll asking for a connection gets none.
    ASSERT_TRUE(waitUntil([&] {
        bool stopping = false;
        plugin.tcpDeviceConnection(99, &stopping);
        return stopping;
    }));

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
    slowReads(simA);
    slowReads(simB);
    // Probe the identities first so that each timed poll is only its one slow read.
    Batch warmA(makeDevice(1, simA.port()));
    Batch warmB(makeDevice(2, simB.port()));
    ASSERT_TRUE(plugin.readData(&warmA.list));
    ASSERT_TRUE(plugin.readData(&warmB.list));

    auto first = std::async(std::launch::async, [&] { return timedPoll(makeDevice(1, simA.port())); });
    auto second = std::async(std::launch::async, [&] { return timedPoll(makeDevice(2, simB.port())); });
    EXPECT_TRUE(overlap(first.get(), second.get()));
}
