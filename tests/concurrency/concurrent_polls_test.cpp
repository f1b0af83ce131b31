// Polls, writes and stops from many host threads at once; run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

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

// Unit u of the gateway holds values of its own, so that a request sent under another unit's id, or an
// answer handed to another unit's poll, shows up as a wrong value.
constexpr int kHoldingBase = 1000;
constexpr int kInputBase = 2000;
constexpr int kFarBase = 3000;
// Every unit's far register lies at an address of its own (kFarAddress + unit), far beyond the near ones so
// that it is read by a request of its own; the log then tells which device asked for a read.
constexpr int kFarAddress = 199;
constexpr int kSetpointAddress = 2;
// A unit's setpoints are unit * kSetpointBase + poll, so that every logged write names its device.
constexpr int kSetpointBase = 100;
// The shared tables (of no device) hold this at every address the devices use.
constexpr uint16_t kSharedValue = 7;

constexpr int kFunctionReadHoldingRegisters = 3;
constexpr int kFunctionReadInputRegisters = 4;
constexpr int kFunctionWriteSingleRegister = 6;
constexpr int kFunctionWriteMultipleRegisters = 16;

// The register written by a single or multiple register write PDU (the first one for the latter), or -1.
int writtenValue(const modbus_sim::RequestRecord& record) {
    const int offset = record.function == kFunctionWriteSingleRegister ? 3 : 6;
    if (record.pdu.size() < offset + 2) return -1;
    return (static_cast<uint8_t>(record.pdu.at(offset)) << 8) |
           static_cast<uint8_t>(record.pdu.at(offset + 1));
}

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
                    const QString setpointValue = QString::number((i + 1) * kSetpointBase + n);
                    setpoint->values.insert(QStringLiteral("value"), setpointValue);
                    // A write that meets a stop is refused; the register then keeps the older value.
                    const bool written = plugin.writeData(&write.list) && setpoint->item.lastError.isEmpty();

                    Batch read(devices.at(i));
                    read.add(makeItem("setpoint", "40001", "4", "2"));
                    read.add(makeItem("input", "30001", "4", "2"));
                    if (plugin.readData(&read.list)) {
                        ++successfulPolls;
                        if (read.value("input") != QString::number(1000 + i)) ++wrongValues;
                        if (written && read.value("setpoint") != setpointValue) ++wrongValues;
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

    // After the storm every device still writes and polls correctly, identity included.
    for (int i = 0; i < kDevices; ++i) {
        const uint16_t lastSetpoint = static_cast<uint16_t>((i + 1) * kSetpointBase + kPollsPerRound);
        Batch write(devices.at(i));
        DataItem* setpoint = write.add(makeItem("setpoint", "40001", "4", "2"));
        setpoint->values.insert(QStringLiteral("value"), QString::number(lastSetpoint));
        ASSERT_TRUE(plugin.writeData(&write.list));
        EXPECT_EQ(setpoint->item.lastError, QString());
        EXPECT_EQ(sims.at(i)->holdingRegisters(0, 1), std::vector<uint16_t>({lastSetpoint}));
        Batch read(devices.at(i));
        read.add(makeItem("input", "30001", "4", "2"));
        ASSERT_TRUE(plugin.readData(&read.list));
        EXPECT_EQ(read.value("input"), QString::number(1000 + i));
        EXPECT_EQ(read.value(QStringLiteral("identity_%1_product_code").arg(i + 1)),
                  QStringLiteral("P%1").arg(i));
        // Each simulator saw its own device only: unit 1 (the default), and writes of that device's values.
        for (const modbus_sim::RequestRecord& record : sims.at(i)->requestLog()) {
            EXPECT_EQ(record.unit, 1) << i;
            if (record.function == kFunctionWriteSingleRegister ||
                record.function == kFunctionWriteMultipleRegisters) {
                EXPECT_EQ(writtenValue(record) / kSetpointBase, i + 1) << record.pdu.toHex().toStdString();
            }
        }
    }
    plugin.stopPlugin();
    Host::instance().reset();
}

TEST(ConcurrentPolls, EightUnitsBehindOneGatewayFromEightThreadsShareOneConnection) {
    Host::instance().reset();
    modbus_sim::Simulator gateway;
    gateway.setConnectionLimit(1);
    gateway.setHoldingRegisters(0, std::vector<uint16_t>(kFarAddress + kDevices + 1, kSharedValue));
    gateway.setInputRegisters(0, {kSharedValue});
    for (int unit = 1; unit <= kDevices; ++unit) {
        gateway.setHoldingRegisters(unit, 0, {static_cast<uint16_t>(kHoldingBase + unit)});
        gateway.setHoldingRegisters(unit, kFarAddress + unit, {static_cast<uint16_t>(kFarBase + unit)});
        gateway.setInputRegisters(unit, 0, {static_cast<uint16_t>(kInputBase + unit)});
    }
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

    std::mutex failuresMutex;
    std::vector<std::string> failures;
    std::vector<std::thread> pollers;
    for (int i = 0; i < kDevices; ++i) {
        pollers.emplace_back([&, i] {
            const int unit = i + 1;
            const QString farRegister = QString::number(40001 + kFarAddress + unit);
            for (int poll = 0; poll < kPollsPerRound; ++poll) {
                const QString setpointValue = QString::number(unit * kSetpointBase + poll);
                Batch write(devices.at(i));
                DataItem* setpoint = write.add(makeItem("setpoint", "40003", "4", "2"));
                setpoint->values.insert(QStringLiteral("value"), setpointValue);
                const bool written = plugin.writeData(&write.list) && setpoint->item.lastError.isEmpty();

                Batch batch(devices.at(i));
                batch.add(makeItem("a", "40001", "4", "2"));
                batch.add(makeItem("setpoint", "40003", "4", "2"));
                batch.add(makeItem("far", farRegister, "4", "2"));
                batch.add(makeItem("input", "30001", "4", "2"));
                batch.add(makeItem("connected", "__diagnostics.connected", "4", ""));
                const bool read = plugin.readData(&batch.list);
                const QStringList got = {batch.value("a"), batch.value("setpoint"), batch.value("far"),
                                         batch.value("input"), batch.value("connected")};
                const QStringList expected = {QString::number(kHoldingBase + unit), setpointValue,
                                              QString::number(kFarBase + unit),
                                              QString::number(kInputBase + unit), QStringLiteral("1")};
                if (!written || !read || got != expected) {
                    std::lock_guard<std::mutex> lock(failuresMutex);
                    failures.push_back(QStringLiteral("unit %1 poll %2: written %3, read %4, values %5")
                                           .arg(unit)
                                           .arg(poll)
                                           .arg(written)
                                           .arg(read)
                                           .arg(got.join(QLatin1Char(' ')))
                                           .toStdString());
                }
            }
        });
    }
    for (std::thread& poller : pollers) poller.join();
    EXPECT_EQ(failures, std::vector<std::string>());
    EXPECT_EQ(gateway.acceptedConnections(), 1);
    EXPECT_EQ(gateway.rejectedConnections(), 0);

    // Every unit's last setpoint landed in its own table, and none in the shared one.
    for (int unit = 1; unit <= kDevices; ++unit)
        EXPECT_EQ(gateway.holdingRegisters(unit, kSetpointAddress, 1),
                  std::vector<uint16_t>({static_cast<uint16_t>(unit * kSetpointBase + kPollsPerRound - 1)}))
            << unit;
    EXPECT_EQ(gateway.holdingRegisters(kSetpointAddress, 1), std::vector<uint16_t>({kSharedValue}));

    // Each request went out under the unit of the device that asked for it: a far read names its device by
    // its address, a write by its value. The near reads cover only the near registers.
    std::set<int> units;
    std::map<int, int> farReads;
    std::map<int, int> writes;
    for (const modbus_sim::RequestRecord& record : gateway.requestLog()) {
        SCOPED_TRACE(record.pdu.toHex().toStdString());
        units.insert(record.unit);
        if (record.function == kFunctionReadHoldingRegisters && record.address > kSetpointAddress) {
            EXPECT_EQ(record.address, kFarAddress + record.unit);
            EXPECT_EQ(record.count, 1);
            ++farReads[record.unit];
        } else if (record.function == kFunctionReadHoldingRegisters) {
            EXPECT_LE(record.address + record.count - 1, kSetpointAddress);
        } else if (record.function == kFunctionReadInputRegisters) {
            EXPECT_EQ(record.address, 0);
        } else if (record.function == kFunctionWriteSingleRegister ||
                   record.function == kFunctionWriteMultipleRegisters) {
            EXPECT_EQ(record.address, kSetpointAddress);
            EXPECT_EQ(writtenValue(record) / kSetpointBase, record.unit);
            ++writes[record.unit];
        }
    }
    std::set<int> expectedUnits;
    std::map<int, int> expectedCounts;
    for (int unit = 1; unit <= kDevices; ++unit) {
        expectedUnits.insert(unit);
        expectedCounts[unit] = kPollsPerRound;
    }
    EXPECT_EQ(units, expectedUnits);
    EXPECT_EQ(farReads, expectedCounts);
    EXPECT_EQ(writes, expectedCounts);
    plugin.stopPlugin();
    gateway.stop();
    Host::instance().reset();
}
