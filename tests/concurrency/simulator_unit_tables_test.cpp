// The simulator's per-unit tables from many threads at once: clients write and read their own units on
// connections of their own while the test thread gives further units tables and reads them; run under
// ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/sim/simulator.h"
#include "tools/simulator_raw_client.h"

namespace {

using simulator_test::adu;
using simulator_test::RawClient;

constexpr int kClientUnits = 4;
constexpr int kRounds = 50;
// Units given tables while the clients run; their ids follow the clients' units.
constexpr int kLateUnits = 40;
constexpr int kFirstLateUnit = 100;
constexpr int kHoldingBase = 1000;
// A unit's writes are unit * kWriteBase + round, so that each one names its unit.
constexpr int kWriteBase = 100;
constexpr uint16_t kSharedValue = 7;

QByteArray hex16(int value) {
    const char bytes[] = {static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
    return QByteArray(bytes, 2).toHex();
}

}  // namespace

TEST(SimulatorUnitTablesConcurrency, ClientsOfEachUnitWhileTablesAreAdded) {
    modbus_sim::Simulator simulator;
    simulator.setHoldingRegisters(0, {kSharedValue, kSharedValue});
    for (int unit = 1; unit <= kClientUnits; ++unit)
        simulator.setHoldingRegisters(unit, 0, {static_cast<uint16_t>(kHoldingBase + unit)});
    ASSERT_TRUE(simulator.start());

    std::mutex failuresMutex;
    std::vector<std::string> failures;
    std::vector<std::thread> clients;
    for (int unit = 1; unit <= kClientUnits; ++unit) {
        clients.emplace_back([&, unit] {
            RawClient client;
            if (!client.connectTo(simulator.port())) {
                std::lock_guard<std::mutex> lock(failuresMutex);
                failures.push_back("unit " + std::to_string(unit) + ": no connection");
                return;
            }
            for (int round = 0; round < kRounds; ++round) {
                const uint16_t transactionId = static_cast<uint16_t>(round);
                const int value = unit * kWriteBase + round;
                const QByteArray write =
                    adu(transactionId, static_cast<uint8_t>(unit), "060001" + hex16(value));
                const QByteArray read = adu(transactionId, static_cast<uint8_t>(unit), "0300000002");
                const QByteArray readAnswer = adu(transactionId, static_cast<uint8_t>(unit),
                                                  "0304" + hex16(kHoldingBase + unit) + hex16(value));
                const QByteArray writeGot = client.exchange(write);
                const QByteArray readGot = client.exchange(read);
                if (writeGot != write || readGot != readAnswer) {
                    std::lock_guard<std::mutex> lock(failuresMutex);
                    failures.push_back("unit " + std::to_string(unit) + " round " + std::to_string(round) +
                                       ": " + writeGot.toHex().toStdString() + " " +
                                       readGot.toHex().toStdString());
                }
            }
        });
    }
    for (int i = 0; i < kLateUnits; ++i) {
        simulator.setInputRegisters(kFirstLateUnit + i, 0, {static_cast<uint16_t>(i)});
        const int unit = 1 + i % kClientUnits;
        EXPECT_EQ(simulator.holdingRegisters(unit, 0, 1),
                  std::vector<uint16_t>({static_cast<uint16_t>(kHoldingBase + unit)}));
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(failures, std::vector<std::string>());

    for (int unit = 1; unit <= kClientUnits; ++unit)
        EXPECT_EQ(simulator.holdingRegisters(unit, 1, 1),
                  std::vector<uint16_t>({static_cast<uint16_t>(unit * kWriteBase + kRounds - 1)}))
            << unit;
    for (int i = 0; i < kLateUnits; ++i)
        EXPECT_EQ(simulator.inputRegisters(kFirstLateUnit + i, 0, 1),
                  std::vector<uint16_t>({static_cast<uint16_t>(i)}));
    EXPECT_EQ(simulator.holdingRegisters(0, 2), std::vector<uint16_t>({kSharedValue, kSharedValue}));
    EXPECT_EQ(simulator.totalRequests(), 2 * kClientUnits * kRounds);
    simulator.stop();
}
