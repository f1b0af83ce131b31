// Memory of a host process that runs the plugin with many devices: 256 devices of 100 items each (every table
// and value type), all polled once over persistent connections, polled again, and then left idle. The
// simulator runs in a child process forked before anything else, so its tables and threads are not counted
// here. Heap figures come from malloc's own statistics (mallinfo2: bytes in use, including mmapped blocks).
// Then the same for idle Modbus/TCP Security connections: as many devices as above (at most 100) polled over
// TLS and kept connected, against as many polled over plain Modbus TCP, each set by a plugin of its own; the
// difference per device is what TLS keeps per idle connection (its session, context and certificates).
//
// Usage: memory_bench [--devices N] [--items N] [--idle-ms N] [--tls-devices N]
#include <malloc.h>
#include <poll.h>

#include <QCoreApplication>
#include <QDir>
#include <QString>
#include <QTemporaryDir>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "bench/bench_items.h"
#include "bench/bench_support.h"
#include "bench/bench_tls.h"
#include "bench/simulator_child.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

constexpr int kDefaultDevices = 256;
constexpr int kDefaultItems = 100;
constexpr int kDefaultIdleMs = 2000;
constexpr double kGoalPerConnectionKiB = 64;
constexpr double kGoalPerItemKiB = 1;
constexpr double kGoalPerTlsConnectionKiB = 64;
constexpr int kMostTlsDevices = 100;
constexpr int kTlsItems = 10;
constexpr double kKiB = 1024.0;

long heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>(info.uordblks + info.hblkhd);
}

// Every device here stands for a device at an address of its own; all reach the same simulator, so each is
// told not to share its connection with the others as units behind one gateway would.
QMap<QString, QString> ownConnection() {
    QMap<QString, QString> settings = bench::deviceDefaults();
    settings.insert(QStringLiteral("share_connection"), QStringLiteral("0"));
    return settings;
}

struct IdleFigures {
    long heapPerDeviceBytes = 0;  // plugin heap per idle device, the host's records taken out
    long descriptors = 0;         // open while idle, above the count before the polls
};

// `count` devices with the first `kTlsItems` items of the mix, each polled twice and then left idle with its
// connection kept, by a plugin of their own. `settingsFor` gives each device's settings. One more device is
// polled first and stays connected through the measurement, so that what is made once per process (OpenSSL's
// tables, the first endpoint) does not count against the others.
template <typename SettingsFor>
bool measureIdle(int count, uint16_t port, int idleMs, SettingsFor settingsFor, IdleFigures* figures) {
    std::vector<ItemInstancePlugin> items = bench::mixedItems(kTlsItems);
    Modbus plugin;
    plugin.init();
    bool ok = true;
    auto poll = [&](plugin_test::Batch* batch) {
        for (int round = 0; round < 2; ++round) {
            if (!plugin.readData(&batch->list)) {
                std::fprintf(stderr, "poll of %s failed: %s\n", qPrintable(batch->list.device.name),
                             qPrintable(batch->list.device.lastError));
                ok = false;
            }
            zelt_standin::Host::instance().clearLogs();
        }
    };
    auto first = bench::makeBatch(plugin_test::makeDevice(0, port, settingsFor(0)), items);
    poll(first.get());
    std::vector<std::unique_ptr<plugin_test::Batch>> batches;
    for (int device = 1; device <= count; ++device)
        batches.push_back(
            bench::makeBatch(plugin_test::makeDevice(device, port, settingsFor(device)), items));
    const long heapBefore = heapInUse();
    const long descriptorsBefore = bench::openDescriptors();
    for (auto& batch : batches) poll(batch.get());
    std::this_thread::sleep_for(std::chrono::milliseconds(idleMs));
    figures->descriptors = bench::openDescriptors() - descriptorsBefore;
    for (auto& batch : batches) {
        for (DataItem* dataItem : batch->list.dataItems) {
            dataItem->values.clear();
            dataItem->item.lastError.clear();
        }
    }
    figures->heapPerDeviceBytes = (heapInUse() - heapBefore) / count;
    plugin.stopPlugin();
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    const int deviceCount = bench::intOption(argc, argv, "--devices", kDefaultDevices);
    const int itemCount = bench::intOption(argc, argv, "--items", kDefaultItems);
    const int idleMs = bench::intOption(argc, argv, "--idle-ms", kDefaultIdleMs);
    const int tlsDevices = bench::intOption(argc, argv, "--tls-devices",
                                            deviceCount < kMostTlsDevices ? deviceCount : kMostTlsDevices);

    QTemporaryDir kit;
    if (!kit.isValid()) return 1;
    bench::SimulatorChild simulators;
    if (!simulators.start(kit.path())) return 1;
    const bench::SimulatorPorts ports = simulators.ports();
    const uint16_t port = ports.plain;
    auto stopChild = [&]() { simulators.stop(); };

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
        batches.push_back(bench::makeBatch(plugin_test::makeDevice(device, port, ownConnection()), items));
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

    // Idle TLS connections against idle plain ones. Each TLS device gets a copy of the client's certificate
    // files: the plugin keeps one endpoint per address, port and files, as it would for devices at different
    // addresses. A last set shares one endpoint, to tell the connection's own share from the endpoint's.
    IdleFigures plainIdle;
    IdleFigures tlsIdle;
    IdleFigures sharedIdle;
    for (int device = 0; device <= tlsDevices; ++device) {
        if (!bench::copyClientKit(kit.path(), QDir(kit.path()).filePath(QString::number(device)))) {
            std::fprintf(stderr, "cannot copy the certificate kit\n");
            ok = false;
        }
    }
    const QMap<QString, QString> defaults = ownConnection();
    ok &= measureIdle(
        tlsDevices, ports.plain, idleMs, [&](int) { return defaults; }, &plainIdle);
    ok &= measureIdle(
        tlsDevices, ports.tls, idleMs,
        [&](int device) {
            return bench::withTls(defaults, QDir(kit.path()).filePath(QString::number(device)));
        },
        &tlsIdle);
    ok &= measureIdle(
        tlsDevices, ports.tls, idleMs,
        [&](int device) {
            return bench::withTls(defaults,
                                  device == 0 ? QDir(kit.path()).filePath(QStringLiteral("0")) : kit.path());
        },
        &sharedIdle);
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

    const double tlsExtraKiB = (tlsIdle.heapPerDeviceBytes - plainIdle.heapPerDeviceBytes) / kKiB;
    std::printf(
        "\n%d idle devices of %d items each, kept connected after two polls (RSS is not shown: these "
        "allocations reuse what the run above freed):\n\n| Connection | Plugin heap per idle device | "
        "Descriptors per device |\n|---|---|---|\n",
        tlsDevices, kTlsItems);
    const struct {
        const char* name;
        const IdleFigures& figures;
    } rows[] = {{"Modbus TCP", plainIdle},
                {"Modbus/TCP Security, an endpoint each", tlsIdle},
                {"Modbus/TCP Security, one endpoint shared", sharedIdle}};
    for (const auto& row : rows)
        std::printf("| %s | %.2f KiB | %.2f |\n", row.name, row.figures.heapPerDeviceBytes / kKiB,
                    static_cast<double>(row.figures.descriptors) / tlsDevices);
    std::printf(
        "\n- Heap per idle TLS connection above a plain one (an endpoint each): %.2f KiB (goal <= %.0f KiB: "
        "%s); with one endpoint shared: %.2f KiB\n\n",
        tlsExtraKiB, kGoalPerTlsConnectionKiB, tlsExtraKiB <= kGoalPerTlsConnectionKiB ? "met" : "MISSED",
        (sharedIdle.heapPerDeviceBytes - plainIdle.heapPerDeviceBytes) / kKiB);
    bench::printCommand(argc, argv);
    return ok ? 0 : 1;
}
