// Memory of a host process that runs the plugin with many devices: 256 devices of 100 items each (every table
// and value type), all polled once over persistent connections, polled again, and then left idle. The
// simulator runs in a child process forked before anything else, so its tables and threads are not counted
// here. Heap figures come from malloc's own statistics (mallinfo2: bytes in use, including mmapped blocks).
//
// Usage: memory_bench [--devices N] [--items N] [--idle-ms N]
#include <malloc.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QString>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "bench/bench_items.h"
#include "bench/bench_support.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

constexpr int kDefaultDevices = 256;
constexpr int kDefaultItems = 100;
constexpr int kDefaultIdleMs = 2000;
constexpr double kGoalPerConnectionKiB = 64;
constexpr double kGoalPerItemKiB = 1;
constexpr double kKiB = 1024.0;

long heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>(info.uordblks + info.hblkhd);
}

// Serves until the parent closes its end of `control`; reports the port through `report`.
[[noreturn]] void runSimulatorChild(int reportFd, int controlFd) {
    modbus_sim::Simulator simulator;
    uint16_t port = 0;
    if (simulator.start()) {
        bench::fillSimulator(&simulator);
        port = simulator.port();
    }
    if (::write(reportFd, &port, sizeof(port)) != sizeof(port)) _exit(1);
    ::close(reportFd);
    char byte;
    while (::read(controlFd, &byte, 1) > 0) {
    }
    simulator.stop();
    _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    const int deviceCount = bench::intOption(argc, argv, "--devices", kDefaultDevices);
    const int itemCount = bench::intOption(argc, argv, "--items", kDefaultItems);
    const int idleMs = bench::intOption(argc, argv, "--idle-ms", kDefaultIdleMs);

    int report[2];
    int control[2];
    if (::pipe(report) != 0 || ::pipe(control) != 0) return 1;
    const pid_t child = ::fork();
    if (child < 0) return 1;
    if (child == 0) {
        ::close(report[0]);
        ::close(control[1]);
        runSimulatorChild(report[1], control[0]);
    }
    ::close(report[1]);
    ::close(control[0]);
    uint16_t port = 0;
    const bool havePort = ::read(report[0], &port, sizeof(port)) == sizeof(port) && port != 0;
    ::close(report[0]);
    auto stopChild = [&]() {
        ::close(control[1]);
        int status = 0;
        ::waitpid(child, &status, 0);
    };
    if (!havePort) {
        std::fprintf(stderr, "the simulator did not start\n");
        stopChild();
        return 1;
    }

    QCoreApplication application(argc, argv);
    std::printf("memory_bench: %d devices x %d items, build type %s\n", deviceCount, itemCount,
                ZELT_BUILD_TYPE);
    const long startRss = bench::rssKiB();
    const long startFds = bench::openDescriptors();
    const long startThreads = bench::threadCount();

    Modbus plugin;
    plugin.init();
    const long heapAfterInit = heapInUse();

    std::vector<std::unique_ptr<plugin_test::Batch>> batches;
    batches.reserve(deviceCount);
    const std::vector<ItemInstancePlugin> items = bench::mixedItems(itemCount);
    for (int device = 1; device <= deviceCount; ++device)
        batches.push_back(
            bench::makeBatch(plugin_test::makeDevice(device, port, bench::deviceDefaults()), items));
    const long heapAfterBatches = heapInUse();
    const long rssBeforePolls = bench::rssKiB();

    bool ok = true;
    auto pollAll = [&]() {
        for (auto& batch : batches) {
            if (!plugin.readData(&batch->list)) {
                std::fprintf(stderr, "poll of %s failed: %s\n", qPrintable(batch->list.device.name),
                             qPrintable(batch->list.device.lastError));
                ok = false;
            }
            zelt_standin::Host::instance().clearLogs();
        }
    };
    pollAll();
    const long heapAfterFirstRound = heapInUse();
    pollAll();
    const long heapAfterSecondRound = heapInUse();
    std::this_thread::sleep_for(std::chrono::milliseconds(idleMs));
    const long idleRss = bench::rssKiB();
    const long idleFds = bench::openDescriptors();
    const long idleThreads = bench::threadCount();
    const long peakRss = bench::peakRssKiB();

    // What the plugin wrote into the host's records (values, error texts) is the host's from now on; take it
    // out to see what the plugin itself keeps per device.
    for (auto& batch : batches) {
        for (DataItem* dataItem : batch->list.dataItems) {
            dataItem->values.clear();
            dataItem->item.lastError.clear();
        }
    }
    const long heapPluginOnly = heapInUse();

    plugin.stopPlugin();
    const long heapAfterStop = heapInUse();
    batches.clear();
    stopChild();

    const double configuredItems = static_cast<double>(deviceCount) * itemCount;
    const double perDevice = (heapPluginOnly - heapAfterBatches) / kKiB / deviceCount;
    const double hostRecordsPerItem = (heapAfterBatches - heapAfterInit) / kKiB / configuredItems;
    const double valuesPerItem = (heapAfterSecondRound - heapPluginOnly) / kKiB / configuredItems;
    const double pluginPerItem = valuesPerItem + perDevice * deviceCount / configuredItems;
    std::printf("\n| Figure | Value |\n|---|---|\n");
    std::printf("| RSS at start | %ld KiB |\n", startRss);
    std::printf("| RSS with the batches built, before any poll | %ld KiB |\n", rssBeforePolls);
    std::printf("| RSS idle after two poll rounds | %ld KiB (%.1f KiB per device above the line before) |\n",
                idleRss, static_cast<double>(idleRss - rssBeforePolls) / deviceCount);
    std::printf("| Peak RSS | %ld KiB |\n", peakRss);
    std::printf("| Host records per configured item (the host's, for scale) | %.2f KiB |\n",
                hostRecordsPerItem);
    std::printf(
        "| Plugin heap per idle device connection (cache entry, libmodbus context, identity) | %.2f KiB "
        "(goal < %.0f KiB: %s) |\n",
        perDevice, kGoalPerConnectionKiB, perDevice < kGoalPerConnectionKiB ? "met" : "MISSED");
    std::printf("| Values and error texts the plugin wrote, per item | %.3f KiB |\n", valuesPerItem);
    std::printf(
        "| Plugin heap per configured item, all of the above spread over the items | %.3f KiB (goal < "
        "%.0f KiB: %s) |\n",
        pluginPerItem, kGoalPerItemKiB, pluginPerItem < kGoalPerItemKiB ? "met" : "MISSED");
    std::printf("| Heap growth from the first to the second poll round | %ld bytes |\n",
                heapAfterSecondRound - heapAfterFirstRound);
    std::printf(
        "| Plugin heap left after stopPlugin (identity and cache released) | %ld bytes above the batches |\n",
        heapAfterStop - heapAfterBatches);
    std::printf("| Descriptors at start / idle | %ld / %ld |\n", startFds, idleFds);
    std::printf("| Threads at start / idle | %ld / %ld |\n", startThreads, idleThreads);
    bench::printCommand(argc, argv);
    return ok ? 0 : 1;
}
