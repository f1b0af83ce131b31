// How the CPU cost of a poll grows with the number of items on one device: 10, 100, 1,000 and 10,000 UINT16
// items on neighbouring holding registers, polled in process against the simulator on loopback. The figure is
// the CPU time of the polling thread (user and system, so the socket calls count, the simulator's threads do
// not), median over the polls, next to a bare libmodbus replay of the same requests.
//
// Usage: scaling_bench [--polls N]   (N polls at 1,000 items; more at the small sizes, fewer at 10,000)
#include <QCoreApplication>
#include <QString>
#include <cmath>
#include <cstdio>
#include <vector>

#include "bench/bench_items.h"
#include "bench/bench_support.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

constexpr int kDefaultPolls = 200;
constexpr int kWarmupPolls = 5;
constexpr int kDeviceId = 1;
constexpr int kSizes[] = {10, 100, 1000, 10000};
constexpr int kReferenceSize = 1000;
const QString kHoldingRegisterTable = QStringLiteral("3");

struct Row {
    int items = 0;
    int polls = 0;
    int requests = 0;
    double pluginCpuUs = 0;
    double rawCpuUs = 0;
    double wallUs = 0;
};

std::vector<ItemInstancePlugin> uint16Items(int count) {
    std::vector<ItemInstancePlugin> items;
    items.reserve(count);
    for (int i = 0; i < count; ++i)
        items.push_back(plugin_test::makeItem(QStringLiteral("i%1").arg(i), QString::number(i),
                                              kHoldingRegisterTable, QString::number(bench::kTypeUint16),
                                              QStringLiteral("4")));
    return items;
}

bool measure(int items, int polls, modbus_sim::Simulator* simulator, Row* row) {
    zelt_standin::Host::instance().reset();
    DeviceInstancePlugin device =
        plugin_test::makeDevice(kDeviceId, simulator->port(), bench::deviceDefaults());
    auto batch = bench::makeBatch(device, uint16Items(items));
    Modbus plugin;
    plugin.init();
    bench::RawReplay raw(simulator->port());
    if (!raw.connect()) return false;

    std::vector<double> pluginCpu;
    std::vector<double> rawCpu;
    std::vector<double> wall;
    std::vector<modbus_sim::RequestRecord> requests;
    bool ok = true;
    for (int i = 0; ok && i < kWarmupPolls + polls; ++i) {
        simulator->clearRequestLog();
        const auto start = std::chrono::steady_clock::now();
        const double cpuStart = bench::threadCpuUs();
        ok = plugin.readData(&batch->list);
        const double cpu = bench::threadCpuUs() - cpuStart;
        const double wallTime = bench::elapsedUs(start);
        zelt_standin::Host::instance().clearLogs();
        if (i + 1 == kWarmupPolls) requests = simulator->requestLog();
        const double rawStart = bench::threadCpuUs();
        ok = ok && raw.replay(requests);
        if (i >= kWarmupPolls) {
            pluginCpu.push_back(cpu);
            rawCpu.push_back(bench::threadCpuUs() - rawStart);
            wall.push_back(wallTime);
        }
    }
    plugin.stopPlugin();
    if (!ok) {
        std::fprintf(stderr, "%d items: the poll or the replay failed: %s\n", items,
                     qPrintable(batch->list.device.lastError));
        return false;
    }
    row->items = items;
    row->polls = polls;
    row->requests = static_cast<int>(requests.size());
    row->pluginCpuUs = bench::summarize(pluginCpu).median;
    row->rawCpuUs = bench::summarize(rawCpu).median;
    row->wallUs = bench::summarize(wall).median;
    return true;
}

double nLogN(double n) {
    return n * std::log2(n);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int basePolls = bench::intOption(argc, argv, "--polls", kDefaultPolls);
    std::printf("scaling_bench: build type %s\n", ZELT_BUILD_TYPE);

    modbus_sim::Simulator simulator;
    if (!simulator.start()) {
        std::fprintf(stderr, "the simulator did not start\n");
        return 1;
    }
    bench::fillSimulator(&simulator);

    std::vector<Row> rows;
    for (int size : kSizes) {
        // Roughly the same total work per size, at least a few polls.
        const long scaled = static_cast<long>(basePolls) * kReferenceSize / size;
        const int polls = static_cast<int>(std::max(3L, std::min(scaled, static_cast<long>(basePolls) * 10)));
        Row row;
        if (!measure(size, polls, &simulator, &row)) return 1;
        rows.push_back(row);
        std::printf("  %d items done (%d polls)\n", size, row.polls);
        std::fflush(stdout);
    }
    simulator.stop();

    // Growth from one size to the next, against what n log n would give: 1.0 is n log n, 10 / 13.3 = 0.75 at
    // the last step would be linear. The first step is dominated by the fixed cost of a poll.
    std::printf(
        "\n| Items | Polls | Requests | Plugin CPU µs/poll | ns/item | Raw CPU µs/poll | Wall µs/poll | "
        "Growth from "
        "the row above | n log n growth | Growth / n log n growth "
        "|\n|---|---|---|---|---|---|---|---|---|---|\n");
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row& row = rows[i];
        std::printf("| %d | %d | %d | %.1f | %.0f | %.1f | %.1f |", row.items, row.polls, row.requests,
                    row.pluginCpuUs, row.pluginCpuUs * 1000.0 / row.items, row.rawCpuUs, row.wallUs);
        if (i == 0) {
            std::printf(" | | |\n");
            continue;
        }
        const double growth = row.pluginCpuUs / rows[i - 1].pluginCpuUs;
        const double expected = nLogN(row.items) / nLogN(rows[i - 1].items);
        std::printf(" %.1f | %.1f | %.2f |\n", growth, expected, growth / expected);
    }
    const double overall = rows.back().pluginCpuUs / rows[1].pluginCpuUs;
    const double overallExpected = nLogN(rows.back().items) / nLogN(rows[1].items);
    std::printf("From %d to %d items: growth %.1f, n log n %.1f, ratio %.2f\n", rows[1].items,
                rows.back().items, overall, overallExpected, overall / overallExpected);
    bench::printCommand(argc, argv);
    return 0;
}
