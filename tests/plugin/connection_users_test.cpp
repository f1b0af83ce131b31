// A shared connection is kept open only by the devices that still use it: one that moved to a connection of
// its own, or that the host no longer polls, stops keeping it.

#include <gtest/gtest.h>

#include "common/manual_clock.h"
#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;

namespace {

class ConnectionUsersTest : public plugin_test::PluginAndSimulatorTest {
protected:
    void SetUp() override {
        PluginAndSimulatorTest::SetUp();
        sim.setHoldingRegisters(1, 0, {101});
        sim.setHoldingRegisters(2, 0, {102});
    }

    bool poll(const DeviceInstancePlugin& device, const QString& expected) {
        Batch batch(device);
        batch.add(makeItem("value", "40001", "4", "2"));
        const bool ok = plugin.readData(&batch.list);
        EXPECT_EQ(batch.value("value"), expected);
        return ok;
    }

    DeviceInstancePlugin keeper(const QString& share) {
        return makeDevice(1, sim.port(),
                          {{"server_id", "1"}, {"persistent_connection", "1"}, {"share_connection", share}});
    }
    DeviceInstancePlugin closer() {
        return makeDevice(2, sim.port(), {{"server_id", "2"}, {"persistent_connection", "0"}});
    }
};

TEST_F(ConnectionUsersTest, ADeviceThatTakesItsOwnConnectionStopsKeepingTheSharedOneOpen) {
    ASSERT_TRUE(poll(keeper("1"), QStringLiteral("101")));
    ASSERT_TRUE(poll(closer(), QStringLiteral("102")));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    EXPECT_EQ(sim.closedConnections(), 0);

    ASSERT_TRUE(poll(keeper("0"), QStringLiteral("101")));
    ASSERT_TRUE(poll(closer(), QStringLiteral("102")));
    // The shared connection closed when its keeper left; the closer's polls close theirs: only the keeper's
    // own connection stays.
    EXPECT_TRUE(plugin_test::waitUntil([&] { return sim.openConnections() == 1; }));
    ASSERT_TRUE(poll(closer(), QStringLiteral("102")));
    EXPECT_TRUE(plugin_test::waitUntil([&] { return sim.openConnections() == 1; }));
    EXPECT_EQ(sim.acceptedConnections(), 4);
}

TEST_F(ConnectionUsersTest, ADeviceTheHostNoLongerPollsStopsKeepingItOpenAfterTenMinutes) {
    test_support::ManualClock clock;
    ASSERT_TRUE(poll(keeper("1"), QStringLiteral("101")));
    ASSERT_TRUE(poll(closer(), QStringLiteral("102")));
    clock.advance(10LL * 60 * 1000);
    ASSERT_TRUE(poll(closer(), QStringLiteral("102")));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    EXPECT_EQ(sim.openConnections(), 1);

    clock.advance(1);
    ASSERT_TRUE(poll(closer(), QStringLiteral("102")));
    EXPECT_TRUE(plugin_test::waitUntil([&] { return sim.openConnections() == 0; }));
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

}  // namespace
