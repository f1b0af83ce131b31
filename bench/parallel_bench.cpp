// Whether polls of different devices overlap: 16 devices, each with its own simulator that answers every
// request 5 ms late, polled from 16 host threads at once in rounds (every thread polls its device once, the
// round ends when the last one is done), against one device polled alone. With polls that only wait on their
// own device, a round takes about as long as one poll.
//
// Usage: parallel_bench [--rounds N] [--devices N] [--delay-ms N]
#include <QCoreApplication>
#include <QString>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/bench_items.h"
#include "bench/bench_support.h"
#include "bench/rounds.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

constexpr int kDefaultRounds = 50;
constexpr int kDefaultDevices = 16;
constexpr int kDefaultDelayMs = 5;
constexpr int kWarmupRounds = 3;
constexpr int kItemsPerDevice = 20;
constexpr int kFloatRegisters = 2;
constexpr double kGoalRatio = 1.5;

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int rounds = bench::intOption(argc, argv, "--rounds", kDefaultRounds);
    const int deviceCount = bench::intOption(argc, argv, "--devices", kDefaultDevices);
    const int delayMs = bench::intOption(argc, argv, "--delay-ms", kDefaultDelayMs);
    std::printf("parallel_bench: %d devices answering %d ms late, %d rounds, build type %s\n", deviceCount,
                delayMs, rounds, ZELT_BUILD_TYPE);

    std::vector<std::unique_ptr<modbus_sim::Simulator>> simulators;
    std::vector<std::unique_ptr<plugin_test::Batch>> batches;
    const std::vector<ItemInstancePlugin> items =
        bench::holdingItems(kItemsPerDevice, bench::kTypeFloat, kFloatRegisters);
    modbus_sim::FaultRule late;
    late.kind = modbus_sim::FaultKind::Delay;
    late.delayMs = delayMs;
    for (int device = 1; device <= deviceCount; ++device) {
        auto simulator = std::make_unique<modbus_sim::Simulator>();
        if (!simulator->start()) {
            std::fprintf(stderr, "simulator %d did not start\n", device);
            return 1;
        }
        bench::fillSimulator(simulator.get());
        simulator->addFault(late);
        batches.push_back(bench::makeBatch(
            plugin_test::makeDevice(device, simulator->port(), bench::deviceDefaults()), items));
        simulators.push_back(std::move(simulator));
    }

    Modbus plugin;
    plugin.init();
    std::atomic<bool> failed{false};
    auto poll = [&](int device) {
        if (!plugin.readData(&batches[device]->list)) {
            std::fprintf(stderr, "poll of %s failed: %s\n", qPrintable(batches[device]->list.device.name),
                         qPrintable(batches[device]->list.device.lastError));
            failed = true;
        }
    };

    // One device alone, on the coordinating thread.
    std::vector<double> single;
    for (int round = 0; round < kWarmupRounds + rounds; ++round) {
        const auto start = std::chrono::steady_clock::now();
        poll(0);
        if (round >= kWarmupRounds) single.push_back(bench::elapsedUs(start));
        zelt_standin::Host::instance().clearLogs();
    }
    const int requestsPerPoll = simulators[0]->requestCount(3) / (kWarmupRounds + rounds);

    bench::Rounds control(deviceCount);
    std::vector<std::thread> threads;
    for (int device = 0; device < deviceCount; ++device) {
        threads.emplace_back([&, device] {
            for (int round = 1; control.waitForRound(round); ++round) {
                poll(device);
                control.done();
            }
        });
    }
    std::vector<double> parallel;
    for (int round = 0; round < kWarmupRounds + rounds; ++round) {
        const auto start = std::chrono::steady_clock::now();
        control.runRound();
        if (round >= kWarmupRounds) parallel.push_back(bench::elapsedUs(start));
        zelt_standin::Host::instance().clearLogs();
    }
    control.finish();
    for (std::thread& thread : threads) thread.join();
    plugin.stopPlugin();
    for (auto& simulator : simulators) simulator->stop();

    const bench::Summary one = bench::summarize(single);
    const bench::Summary all = bench::summarize(parallel);
    const double ratio = all.median / one.median;
    std::printf("\n| Figure | Median µs (min to max) |\n|---|---|\n");
    std::printf("| One device alone, one poll (%d FLOAT, %d request(s)) | %.0f (%.0f to %.0f) |\n",
                kItemsPerDevice, requestsPerPoll, one.median, one.min, one.max);
    std::printf("| %d devices from %d threads, one round | %.0f (%.0f to %.0f) |\n", deviceCount, deviceCount,
                all.median, all.min, all.max);
    std::printf("| Ratio | %.2f (goal <= %.1f: %s) |\n", ratio, kGoalRatio,
                ratio <= kGoalRatio ? "met" : "MISSED");
    bench::printCommand(argc, argv);
    return failed ? 1 : 0;
}
