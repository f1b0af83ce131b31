// A device that cannot be reached at all, inside a network namespace the test creates: no host answers the
// address on the link, or no route leads to it. The device error names the reason, never "Connection
// refused".

#include <gtest/gtest.h>

#include "common/netns_testbed.h"
#include "common/plugin_batch.h"
#include "plugin/modbus.h"
#include "tools/standin/standin_host.h"

namespace {

using netns_testbed::Testbed;
using plugin_test::Batch;
using plugin_test::makeItem;

const char kOwnAddress[] = "10.78.0.1/24";
const char kNobodyOnTheLink[] = "10.78.0.50";  // on the link's subnet; no neighbour answers for it
const char kNoRoute[] = "10.201.0.7";          // no route leads there

class UnreachableDeviceTest : public ::testing::Test {
protected:
    void SetUp() override {
        zelt_standin::Host::instance().reset();
        std::string error;
        ASSERT_TRUE(testbed.create(kOwnAddress, {}, &error))
            << "cannot build the namespace testbed (root and iproute2 needed): " << error;
    }
    void TearDown() override {
        plugin.stopPlugin();
        zelt_standin::Host::instance().reset();
    }

    // The device error of one poll of `address`, from inside the namespace.
    QString pollError(const char* address) {
        QString lastError;
        const bool entered = testbed.runInScanner([&] {
            DeviceInstancePlugin device;
            device.id = 1;
            device.name = QStringLiteral("unreachable");
            device.address = QString::fromLatin1(address);
            // Longer than the kernel's neighbour resolution, so that its verdict arrives first.
            device.settings.insert(QStringLiteral("connect_timeout_ms"), QStringLiteral("20000"));
            Batch batch(device);
            batch.add(makeItem("a", "40001", "4", "2"));
            plugin.readData(&batch.list);
            lastError = batch.list.device.lastError;
        });
        EXPECT_TRUE(entered);
        return lastError;
    }

    Testbed testbed;
    Modbus plugin;
};

TEST_F(UnreachableDeviceTest, NoNeighbourForTheAddressReadsAsNoRouteToHost) {
    EXPECT_EQ(pollError(kNobodyOnTheLink), QStringLiteral("Could not connect. No route to host"));
}

TEST_F(UnreachableDeviceTest, NoRouteReadsAsNetworkIsUnreachable) {
    EXPECT_EQ(pollError(kNoRoute), QStringLiteral("Could not connect. Network is unreachable"));
}

}  // namespace
