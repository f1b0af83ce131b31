// The failure of modbus_set_slave, which no unit id the connection passes on can cause with a real context: a
// test stand-in for it fails on request and otherwise hands the call to libmodbus.

#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <modbus.h>

#include <atomic>

#include "connection/connection.h"
#include "host/plugin_interface.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

std::atomic<bool> failSetSlave{false};
std::atomic<int> setSlaveUnit{-1};

}  // namespace

extern "C" int modbus_set_slave(modbus_t* ctx, int slave) {
    using SetSlave = int (*)(modbus_t*, int);
    static const auto real = reinterpret_cast<SetSlave>(::dlsym(RTLD_NEXT, "modbus_set_slave"));
    setSlaveUnit = slave;
    if (failSetSlave) {
        errno = EINVAL;
        return -1;
    }
    return real(ctx, slave);
}

namespace {

using zelt_standin::Host;
using zelt_standin::LogLevel;

class SetSlaveFailureTest : public ::testing::Test {
protected:
    void SetUp() override {
        Host::instance().reset();
        ASSERT_TRUE(simulator.start());
    }
    void TearDown() override { failSetSlave = false; }

    PluginInterface host;
    modbus_sim::Simulator simulator;
};

TEST_F(SetSlaveFailureTest, NegativeUnitIdIsLoggedAsGivenAlthoughUnitOneWasSet) {
    failSetSlave = true;
    Connection::Network net;
    net.host = QStringLiteral("127.0.0.1");
    net.port = simulator.port();
    net.serverId = -3;
    int err = 0;
    Connection connection(net, &host, &err);
    EXPECT_EQ(setSlaveUnit, 1);
    EXPECT_FALSE(connection.isConnected());
    EXPECT_FALSE(static_cast<bool>(connection));
    EXPECT_EQ(err, EINVAL);
    EXPECT_EQ(Host::instance().logTexts(LogLevel::Debug),
              QStringList({QStringLiteral("Could not set server ID to -3: Invalid argument")}));
    EXPECT_EQ(simulator.acceptedConnections(), 0);
}

TEST_F(SetSlaveFailureTest, TheStandInPassesEveryOtherCallOn) {
    Connection::Network net;
    net.host = QStringLiteral("127.0.0.1");
    net.port = simulator.port();
    net.serverId = -3;
    int err = 0;
    Connection connection(net, &host, &err);
    EXPECT_TRUE(connection.isConnected());
    EXPECT_EQ(setSlaveUnit, 1);
    EXPECT_EQ(connection.slave(), 1);
}

}  // namespace
