// Polls, writes and stops from many host threads at once; run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "common/plugin_batch.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;
using zelt_standin::Host;

namespace {

constexpr int kDevices = 8;
constexpr int kRounds = 3;
constexpr int kPollsPerRound = 12;

}  // namespace

TEST(ConcurrentPolls, EightDevicesFromEightThreadsWithWritesAndStops) {
    Host::instance().reset();
    std::vector<std::unique_ptr<modbus_sim::Simulator>> sims;
    QList<DeviceInstancePlugin> devices;
    for (int i = 0; i < kDevices; ++i) {
        sims.push_back(std::make_unique<modbus_sim::Simulator>());
        ASSERT_TRUE(sims.back()->start());
        modbus_sim::DeviceIdentification identification;
        identification.objects = {{0, "ACME"}, {1, QByteArray("P") + QByteArray::number(i)}, {2, "1.0"}};
        sims.back()->setDeviceIdentification(identification);
        sims.back()->setInputRegisters(0, {static_cast<uint16_t>(1000 + i)});
        devices.append(
            makeDevice(i + 1, sims.back()->port(), {{"persistent_connection", i % 2 ? "1" : "0"}}));
    }
    Host::instance().setDevices(devices);

    Modbus plugin;
    ASSERT_TRUE(plugin.init());

    std::atomic<int> wrongValues{0};
    std::atomic<int> successfulPolls{0};
    for (int round = 0; round < kRounds; ++round) {
        std::atomic<bool> done{false};
        std::vector<std::thread> pollers;
        for (int i = 0; i < kDevices; ++i) {
            pollers.emplace_back([&, i] {
                for (int n = 0; n < kPollsPerRound; ++n) {
                    Batch write(devices.at(i));
                    DataItem* setpoint = write.add(makeItem("setpoint", "40001", "4", "2"));
                    setpoint->values.insert(QStringLiteral("value"), QString::number(n));
                    // A write that meets a stop is refused; the register then keeps the older value.
                    const bool written = plugin.writeData(&write.list) && setpoint->item.lastError.isEmpty();

                    Batch read(devices.at(i));
                    read.add(makeItem("setpoint", "40001", "4", "2"));
                    read.add(makeItem("input", "30001", "4", "2"));
                    if (plugin.readData(&read.list)) {
                        ++successfulPolls;
                        if (read.value("input") != QString::number(1000 + i)) ++wrongValues;
                        if (written && read.value("setpoint") != QString::number(n)) ++wrongValues;
                    }
                }
            });
        }
        std::thread stopper([&] {
            for (int n = 0; n < 3 && !done; ++n) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                plugin.stopPlugin();
            }
        });
        for (std::thread& poller : pollers) poller.join();
        done = true;
        stopper.join();
    }
    EXPECT_EQ(wrongValues.load(), 0);
    EXPECT_GT(successfulPolls.load(), 0);

    // After the storm every device still polls correctly, identity included.
    for (int i = 0; i < kDevices; ++i) {
        Batch read(devices.at(i));
        read.add(makeItem("input", "30001", "4", "2"));
        ASSERT_TRUE(plugin.readData(&read.list));
        EXPECT_EQ(read.value("input"), QString::number(1000 + i));
        EXPECT_EQ(read.value(QStringLiteral("identity_%1_product_code").arg(i + 1)),
                  QStringLiteral("P%1").arg(i));
    }
    plugin.stopPlugin();
    Host::instance().reset();
}

TEST(ConcurrentPolls, EightUnitsBehindOneGatewayFromEightThreadsShareOneConnection) {
    Host::instance().reset();
    modbus_sim::Simulator gateway;
    gateway.setConnectionLimit(1);
    gateway.setHoldingRegisters(0, {7, 8});
    ASSERT_TRUE(gateway.start());
    QList<DeviceInstancePlugin> devices;
    for (int unit = 1; unit <= kDevices; ++unit)
        devices.append(makeDevice(unit, gateway.port(),
                                  {{"persistent_connection", "1"},
                                   {"server_id", QString::number(unit)},
                                   {"max_outstanding_requests", unit % 2 ? "1" : "2"}}));
    Host::instance().setDevices(devices);
    Modbus plugin;
    ASSERT_TRUE(plugin.init());

    std::atomic<int> failures{0};
    std::vector<std::thread> pollers;
    for (int i = 0; i < kDevices; ++i) {
        pollers.emplace_back([&, i] {
            for (int poll = 0; poll < kPollsPerRound; ++poll) {
                Batch batch(devices.at(i));
                batch.add(makeItem("a", "40001", "4", "2"));
                batch.add(makeItem("far", "40200", "4", "2"));
                batch.add(makeItem("requests", "__diagnostics.requests", "4", ""));
                batch.add(makeItem("connected", "__diagnostics.connected", "4", ""));
                if (!plugin.readData(&batch.list) || batch.value("a") != QStringLiteral("7") ||
                    batch.value("connected") != QStringLiteral("1"))
                    ++failures;
            }
        });
    }
    for (std::thread& poller : pollers) poller.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(gateway.acceptedConnections(), 1);
    EXPECT_EQ(gateway.rejectedConnections(), 0);
    plugin.stopPlugin();
    gateway.stop();
    Host::instance().reset();
}
