// The plugin inside a host process that already holds more descriptors than select() can watch: connecting,
// polling and writing must neither abort the process nor fail.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <vector>

#include "common/plugin_batch.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;
using zelt_standin::Host;

constexpr int kHeldDescriptors = 1100;
// Room above the held descriptors for the simulator's sessions, the plugin's socket and the test's own.
constexpr rlim_t kDescriptorLimit = 2048;

class ManyDescriptorsTest : public ::testing::Test {
protected:
    void SetUp() override {
        Host::instance().reset();
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &savedLimit), 0);
        ASSERT_GE(savedLimit.rlim_max, kDescriptorLimit)
            << "the hard descriptor limit is too low for this test";
        rlimit raised = savedLimit;
        if (raised.rlim_cur < kDescriptorLimit) raised.rlim_cur = kDescriptorLimit;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
        sim.setHoldingRegisters(0, {0x1234, 0x0042});
        sim.setCoils(0, {1});
        ASSERT_TRUE(sim.start());
        for (int i = 0; i < kHeldDescriptors; ++i) {
            const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            ASSERT_GE(descriptor, 0);
            held.push_back(descriptor);
        }
        // Whatever the plugin opens from now on lies beyond what select() can take.
        const int probe = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ASSERT_GE(probe, FD_SETSIZE);
        ::close(probe);
    }

    void TearDown() override {
        plugin.stopPlugin();
        sim.stop();
        for (const int descriptor : held) ::close(descriptor);
        ::setrlimit(RLIMIT_NOFILE, &savedLimit);
        Host::instance().reset();
    }

    // A kept connection, so that every exchange after the first runs on the one socket opened up there.
    DeviceInstancePlugin device() const {
        return makeDevice(1, sim.port(), {{QStringLiteral("persistent_connection"), QStringLiteral("1")}});
    }

    rlimit savedLimit{};
    std::vector<int> held;
    modbus_sim::Simulator sim;
    Modbus plugin;
};

TEST_F(ManyDescriptorsTest, PollsAndWritesWithDescriptorsAboveTheSelectLimit) {
    Batch poll(device());
    poll.add(makeItem("word", "40001", "4", "2"));
    poll.add(makeItem("coil", "00001", "4", "0"));
    ASSERT_TRUE(plugin.readData(&poll.list));
    EXPECT_EQ(poll.list.device.lastError, QString());
    EXPECT_EQ(poll.value("word"), QStringLiteral("4660"));
    EXPECT_EQ(poll.error("word"), QString());
    EXPECT_EQ(poll.value("coil"), QStringLiteral("1"));
    EXPECT_EQ(poll.error("coil"), QString());

    Batch write(device());
    DataItem* word = write.add(makeItem("word", "40002", "4", "2"));
    word->values.insert(QStringLiteral("value"), QStringLiteral("77"));
    ASSERT_TRUE(plugin.writeData(&write.list));
    EXPECT_EQ(write.error("word"), QString());
    EXPECT_EQ(sim.holdingRegisters(1, 1), std::vector<uint16_t>{77});

    // A second poll on the kept connection reads what was written.
    Batch again(device());
    again.add(makeItem("word", "40002", "4", "2"));
    ASSERT_TRUE(plugin.readData(&again.list));
    EXPECT_EQ(again.value("word"), QStringLiteral("77"));
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

}  // namespace
