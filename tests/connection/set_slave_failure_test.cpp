// The failure of modbus_set_slave. libmodbus 3.1.6 refuses, on TCP, the unit ids 248-254 and every id above
// 255 (0-247 and 255 are taken): those are tested through the real call. A test stand-in fails it on request
// for the other paths, and otherwise hands the call to libmodbus.

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

// Units libmodbus cannot address: a new connection fails before it connects, and an open one keeps the unit
// it had, so that the caller can tell and send nothing.
class UnaddressableUnitTest : public SetSlaveFailureTest, public ::testing::WithParamInterface<int> {};

TEST_P(UnaddressableUnitTest, ANewConnectionFailsWithInvalidArgumentBeforeConnecting) {
    Connection::Network net;
    net.host = QStringLiteral("127.0.0.1");
    net.port = simulator.port();
    net.serverId = GetParam();
    int err = 0;
    Connection connection(net, &host, &err);
    EXPECT_EQ(setSlaveUnit, GetParam());
    EXPECT_FALSE(connection.isConnected());
    EXPECT_EQ(err, EINVAL);
    EXPECT_EQ(connection.errToStr(err), QStringLiteral("Invalid argument"));
    EXPECT_EQ(simulator.acceptedConnections(), 0);
}

TEST_P(UnaddressableUnitTest, AnOpenConnectionKeepsItsUnitAndSaysSo) {
    Connection::Network net;
    net.host = QStringLiteral("127.0.0.1");
    net.port = simulator.port();
    net.serverId = 7;
    int err = 0;
    Connection connection(net, &host, &err);
    ASSERT_TRUE(connection.isConnected());
    EXPECT_FALSE(connection.setSlave(GetParam()));
    EXPECT_EQ(connection.slave(), 7);
    EXPECT_TRUE(connection.setSlave(255));
    EXPECT_EQ(connection.slave(), 255);
}

INSTANTIATE_TEST_SUITE_P(Units, UnaddressableUnitTest, ::testing::Values(248, 250, 254, 256, 300, 65536));

}  // namespace
