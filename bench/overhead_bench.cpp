// The plugin's own cost on a poll and on a write batch: `readData` / `writeData` in process against the
// simulator on loopback, and in the same run a bare libmodbus loop that sends exactly the requests the
// simulator logged for that poll or batch and ignores the answers. Both keep one connection open throughout
// and are warmed up first; iterations alternate between the two so that machine load falls on both alike.
//
// Usage: overhead_bench [--polls N] [--warmup N] [--case NAME]
//   cases: float200, float200_diagnostics, uint16_200, mix2000, write_multiple200, write_single200
#include <QCoreApplication>
#include <QString>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

#include "bench/bench_items.h"
#include "bench/bench_support.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

constexpr int kDefaultPolls = 300;
constexpr int kDefaultWarmup = 30;
// The first poll also reads the device identification, so the requests to replay come from a later one.
constexpr int kMinWarmup = 2;
constexpr int kDeviceId = 1;
constexpr int kFloatRegisters = 2;
constexpr int kSmallCaseItems = 200;
constexpr int kMixItems = 2000;
constexpr double kGoalPlain = 1.25;
constexpr double kGoalMix = 1.5;

struct Options {
    int polls = kDefaultPolls;
    int warmup = kDefaultWarmup;
    const char* only = nullptr;
};

struct CaseResult {
    QString name;
    int items = 0;
    int requests = 0;
    bench::Summary plugin;
    bench::Summary raw;
    double goal = 0;
};

enum class Direction { Read, Write };

// Runs one case; false when the plugin reported a failure or the replay did not get its answers.
bool runCase(const Options& options, const QString& name, Direction direction,
             const DeviceInstancePlugin& device, const std::vector<ItemInstancePlugin>& items, double goal,
             std::vector<CaseResult>* results) {
    zelt_standin::Host::instance().reset();
    modbus_sim::Simulator simulator;
    if (!simulator.start()) {
        std::fprintf(stderr, "%s: the simulator did not start\n", qPrintable(name));
        return false;
    }
    bench::fillSimulator(&simulator);
    DeviceInstancePlugin target = device;
    target.settings.insert(QStringLiteral("port"), QString::number(simulator.port()));
    auto batch = bench::makeBatch(target, items);
    if (direction == Direction::Write) {
        int index = 0;
        for (DataItem* dataItem : batch->list.dataItems)
            dataItem->values.insert(QStringLiteral("value"), QString::number(1.5 + index++));
    }

    Modbus plugin;
    plugin.init();
    bench::RawReplay raw(simulator.port());
    if (!raw.connect()) {
        std::fprintf(stderr, "%s: the raw client could not connect\n", qPrintable(name));
        return false;
    }

    auto pluginOnce = [&]() {
        return direction == Direction::Read ? plugin.readData(&batch->list) : plugin.writeData(&batch->list);
    };
    std::vector<modbus_sim::RequestRecord> requests;
    std::vector<double> pluginUs;
    std::vector<double> rawUs;
    pluginUs.reserve(options.polls);
    rawUs.reserve(options.polls);
    bool ok = true;
    for (int i = 0; ok && i < options.warmup + options.polls; ++i) {
        // Whichever side runs second finds the simulator's threads and the caches warm: alternate the order.
        const bool rawFirst = i % 2 == 1 && !requests.empty();
        double rawTime = 0;
        auto replayOnce = [&]() {
            const auto start = std::chrono::steady_clock::now();
            ok = raw.replay(requests);
            rawTime = bench::elapsedUs(start);
            if (!ok) std::fprintf(stderr, "%s: the raw replay failed\n", qPrintable(name));
        };
        if (rawFirst) replayOnce();
        if (!ok) break;
        simulator.clearRequestLog();
        const auto start = std::chrono::steady_clock::now();
        ok = pluginOnce();
        const double pluginTime = bench::elapsedUs(start);
        zelt_standin::Host::instance().clearLogs();
        if (!ok) {
            std::fprintf(stderr, "%s: the plugin reported a failure: %s\n", qPrintable(name),
                         qPrintable(batch->list.device.lastError));
            break;
        }
        if (i + 1 == options.warmup) requests = simulator.requestLog();
        if (!rawFirst) replayOnce();
        if (i >= options.warmup) {
            pluginUs.push_back(pluginTime);
            rawUs.push_back(rawTime);
        }
    }
    plugin.stopPlugin();
    simulator.stop();
    if (!ok) return false;

    CaseResult result;
    result.name = name;
    result.items = static_cast<int>(items.size());
    result.requests = static_cast<int>(requests.size());
    result.plugin = bench::summarize(pluginUs);
    result.raw = bench::summarize(rawUs);
    result.goal = goal;
    results->push_back(result);
    std::printf("  %-28s done: %d items, %d requests per %s\n", qPrintable(name), result.items,
                result.requests, direction == Direction::Read ? "poll" : "batch");
    std::fflush(stdout);
    return true;
}

bool selected(const Options& options, const char* name) {
    return !options.only || std::strcmp(options.only, name) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    Options options;
    options.polls = bench::intOption(argc, argv, "--polls", kDefaultPolls);
    options.warmup = std::max(kMinWarmup, bench::intOption(argc, argv, "--warmup", kDefaultWarmup));
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--case") == 0) options.only = argv[i + 1];

    std::printf("overhead_bench: %d measured iterations after %d warm-up, build type %s\n", options.polls,
                options.warmup, ZELT_BUILD_TYPE);
    std::vector<CaseResult> results;
    bool ok = true;
    const DeviceInstancePlugin device = plugin_test::makeDevice(kDeviceId, 0, bench::deviceDefaults());
    if (selected(options, "float200"))
        ok &= runCase(options, QStringLiteral("200 FLOAT poll"), Direction::Read, device,
                      bench::holdingItems(kSmallCaseItems, bench::kTypeFloat, kFloatRegisters), kGoalPlain,
                      &results);
    if (selected(options, "float200_diagnostics"))
        ok &= runCase(
            options, QStringLiteral("200 FLOAT poll + 15 diagnostic items"), Direction::Read, device,
            bench::withDiagnostics(bench::holdingItems(kSmallCaseItems, bench::kTypeFloat, kFloatRegisters)),
            kGoalPlain, &results);
    if (selected(options, "uint16_200"))
        ok &= runCase(options, QStringLiteral("200 UINT16 poll"), Direction::Read, device,
                      bench::holdingItems(kSmallCaseItems, bench::kTypeUint16, 1), kGoalPlain, &results);
    if (selected(options, "mix2000")) {
        for (const bench::ByteOrder& order : bench::kByteOrders) {
            const DeviceInstancePlugin ordered =
                plugin_test::makeDevice(kDeviceId, 0, bench::deviceDefaults(order));
            ok &= runCase(options, QStringLiteral("2,000 mixed poll %1").arg(QLatin1String(order.name)),
                          Direction::Read, ordered, bench::mixedItems(kMixItems), kGoalMix, &results);
        }
    }
    if (selected(options, "write_multiple200"))
        ok &= runCase(options, QStringLiteral("200 FLOAT write, multiple"), Direction::Write, device,
                      bench::holdingItems(kSmallCaseItems, bench::kTypeFloat, kFloatRegisters), kGoalPlain,
                      &results);
    if (selected(options, "write_single200")) {
        const DeviceInstancePlugin single =
            plugin_test::makeDevice(kDeviceId, 0, bench::deviceDefaults(bench::kByteOrders[0], false));
        ok &= runCase(options, QStringLiteral("200 FLOAT write, single"), Direction::Write, single,
                      bench::holdingItems(kSmallCaseItems, bench::kTypeFloat, kFloatRegisters), kGoalPlain,
                      &results);
    }

    std::printf(
        "\n| Case | Items | Requests | Plugin median µs (min to max) | Raw libmodbus median µs (min to max) "
        "| Ratio | Goal |\n|---|---|---|---|---|---|---|\n");
    for (const CaseResult& result : results) {
        const double ratio = result.raw.median > 0 ? result.plugin.median / result.raw.median : 0;
        std::printf("| %s | %d | %d | %.0f (%.0f to %.0f) | %.0f (%.0f to %.0f) | %.2f | %s %.2f |\n",
                    qPrintable(result.name), result.items, result.requests, result.plugin.median,
                    result.plugin.min, result.plugin.max, result.raw.median, result.raw.min, result.raw.max,
                    ratio, ratio <= result.goal ? "met, <=" : "MISSED, <=", result.goal);
    }
    bench::printCommand(argc, argv);
    return ok ? 0 : 1;
}
