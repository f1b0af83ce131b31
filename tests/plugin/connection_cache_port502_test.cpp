// Connection settings that name no usable port fall back to the Modbus port 502. The test binds
// 127.0.0.1:502, so it builds into an executable whose tests hold the fixed-port resource lock.
#include <gtest/gtest.h>

#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::makeDevice;
using plugin_test::waitUntil;

namespace {

constexpr uint16_t kModbusPort = 502;

using ConnectionCacheTest = plugin_test::PluginTest;

}  // namespace

TEST_F(ConnectionCacheTest, UnusablePortSettingsConnectToPort502) {
    modbus_sim::Simulator sim;
    QString error;
    ASSERT_TRUE(sim.start(QStringLiteral("127.0.0.1"), kModbusPort, &error)) << error.toStdString();
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
