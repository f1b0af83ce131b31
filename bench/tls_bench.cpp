// What a reconnect costs the gateway over Modbus/TCP Security: one device polled with "persistent_connection"
// 0, so that every poll connects, shakes hands, reads one register and closes. Three devices are polled in
// turn (which goes first rotates, so load from elsewhere falls on all alike):
//   - resumed: the plugin as it is, resuming the session of its last handshake on every reconnect;
//   - full: the same with its endpoint's session dropped before each poll, so every handshake is a full one;
//   - plain: Modbus TCP, the same poll without TLS (what a reconnect costs anyway).
// The figure is the CPU time of the polling thread (the plugin does its I/O on the calling thread). The
// simulators run in a child process forked first, so none of their work counts here.
//
// Usage: tls_bench [--connects N] [--only full|resumed|plain]
//   --connects: timed reconnecting polls per device (default 200), after two untimed ones
//   --only: poll that one device only (for valgrind --tool=callgrind, see bench/README.md)
#include <time.h>

#include <QCoreApplication>
#include <QDir>
#include <QString>
#include <QTemporaryDir>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_items.h"
#include "bench/bench_support.h"
#include "bench/bench_tls.h"
#include "bench/simulator_child.h"
#include "connection/tls_endpoint.h"
#include "connection/tls_settings.h"
#include "plugin/diagnostics.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

constexpr int kDefaultConnects = 200;
constexpr int kUntimedPolls = 2;
// A resumed handshake should cost at most this share of a full one.
constexpr double kResumedGoal = 0.25;
constexpr int kFirstDeviceId = 1;

enum class Mode { Resumed, Full, Plain };
constexpr Mode kModes[] = {Mode::Resumed, Mode::Full, Mode::Plain};
constexpr int kModeCount = sizeof(kModes) / sizeof(kModes[0]);

const char* modeName(Mode mode) {
    switch (mode) {
        case Mode::Resumed:
            return "resumed";
        case Mode::Full:
            return "full";
        case Mode::Plain:
            return "plain";
    }
    return "";
}

double processCpuNowUs() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return now.tv_sec * 1e6 + now.tv_nsec / 1e3;
}

// One device polled over and over, its figures, and the health counters read through its diagnostic items.
struct Side {
    Mode mode = Mode::Resumed;
    std::unique_ptr<plugin_test::Batch> batch;
    std::shared_ptr<TlsEndpoint> endpoint;  // full: the one whose session is dropped before each poll
    int polls = 0;
    std::vector<double> threadCpuUs;
    std::vector<double> processCpuUs;
    std::vector<double> wallMs;

    QString value(const char* uid) const {
        for (const DataItem* dataItem : batch->list.dataItems)
            if (dataItem->item.uid == QLatin1String(uid))
                return dataItem->values.value(QStringLiteral("value"));
        return QString();
    }

    bool poll(Modbus* plugin, bool timed) {
        if (endpoint) endpoint->keepSession(nullptr);
        for (DataItem* dataItem : batch->list.dataItems) {
            dataItem->values.clear();
            dataItem->item.lastError.clear();
        }
        const double processStart = processCpuNowUs();
        const double threadStart = bench::threadCpuUs();
        const auto start = std::chrono::steady_clock::now();
        const bool ok = plugin->readData(&batch->list);
        const double wallUs = bench::elapsedUs(start);
        const double threadUs = bench::threadCpuUs() - threadStart;
        const double processUs = processCpuNowUs() - processStart;
        zelt_standin::Host::instance().clearLogs();
        ++polls;
        if (!ok || value("value").isEmpty()) {
            std::fprintf(stderr, "%s: poll %d failed: %s\n", modeName(mode), polls,
                         qPrintable(batch->list.device.lastError));
            return false;
        }
        if (timed) {
            threadCpuUs.push_back(threadUs);
            processCpuUs.push_back(processUs);
            wallMs.push_back(wallUs / 1000.0);
        }
        return true;
    }
};

bool parseMode(const char* text, Mode* mode) {
    for (Mode candidate : kModes) {
        if (std::strcmp(text, modeName(candidate)) == 0) {
            *mode = candidate;
            return true;
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    const int connects = bench::intOption(argc, argv, "--connects", kDefaultConnects);
    bool onlyOne = false;
    Mode only = Mode::Resumed;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--only") != 0) continue;
        if (!parseMode(argv[i + 1], &only)) {
            std::fprintf(stderr, "--only takes full, resumed or plain\n");
            return 2;
        }
        onlyOne = true;
    }

    QTemporaryDir kit;
    if (!kit.isValid()) return 1;
    const QString kitDir = kit.path();
    bench::SimulatorChild simulators;
    if (!simulators.start(kitDir)) return 1;
    const bench::SimulatorPorts ports = simulators.ports();
    auto stopChild = [&]() { simulators.stop(); };

    QCoreApplication application(argc, argv);
    std::printf("tls_bench: %d reconnecting polls per device after %d untimed, build type %s\n", connects,
                kUntimedPolls, ZELT_BUILD_TYPE);
    const QString fullKitDir = QDir(kitDir).filePath(QStringLiteral("full"));
    if (!bench::copyClientKit(kitDir, fullKitDir)) {
        std::fprintf(stderr, "cannot copy the kit to %s\n", qPrintable(fullKitDir));
        stopChild();
        return 1;
    }

    std::vector<ItemInstancePlugin> items;
    items.push_back(bench::makeItem(0, bench::autoAddress(bench::kFirstHoldingRegister), bench::kTypeUint16));
    items.back().uid = QStringLiteral("value");
    for (const char* name : {"tls_handshakes", "tls_resumed"})
        items.push_back(plugin_test::makeItem(QString::fromLatin1(name),
                                              diagnostics::kPrefix + QLatin1String(name),
                                              bench::kRegisterTypeAuto, QString()));

    Modbus plugin;
    plugin.init();
    Side sides[kModeCount];
    for (int m = 0; m < kModeCount; ++m) {
        Side& side = sides[m];
        side.mode = kModes[m];
        QMap<QString, QString> settings = bench::deviceDefaults();
        settings.insert(QStringLiteral("persistent_connection"), QStringLiteral("0"));
        uint16_t port = ports.plain;
        if (side.mode != Mode::Plain) {
            settings = bench::withTls(settings, side.mode == Mode::Full ? fullKitDir : kitDir);
            port = ports.tls;
        }
        if (side.mode == Mode::Full) {
            // The endpoint the plugin uses for this device: the same address, port and certificate files.
            TlsSettings tls;
            tls.caCertificates = settings.value(QStringLiteral("tls_ca_certificates"));
            tls.certificate = settings.value(QStringLiteral("tls_certificate"));
            tls.privateKey = settings.value(QStringLiteral("tls_private_key"));
            tls.serverName = settings.value(QStringLiteral("tls_server_name"));
            QString error;
            QStringList warnings;
            side.endpoint = TlsEndpoint::forTarget(
                bench::kLoopbackAddress + QLatin1Char(':') + QString::number(port), tls, &error, &warnings);
            if (!side.endpoint) {
                std::fprintf(stderr, "no TLS endpoint: %s\n", qPrintable(error));
                stopChild();
                return 1;
            }
        }
        side.batch = bench::makeBatch(plugin_test::makeDevice(kFirstDeviceId + m, port, settings), items);
    }

    bool ok = true;
    for (int round = 0; ok && round < kUntimedPolls + connects; ++round) {
        const bool timed = round >= kUntimedPolls;
        for (int k = 0; ok && k < kModeCount; ++k) {
            Side& side = sides[(round + k) % kModeCount];
            if (onlyOne && side.mode != only) continue;
            ok &= side.poll(&plugin, timed);
        }
    }
    plugin.stopPlugin();
    stopChild();
    if (!ok) return 1;

    std::printf(
        "\n| Device | Reconnecting polls | Handshakes / resumed | Thread CPU µs per poll, median (min to "
        "max) "
        "| Process CPU µs per poll, median | Poll wall ms, median (min to max) | CPU above the plain "
        "reconnect µs |\n|---|---|---|---|---|---|---|\n");
    bench::Summary cpu[kModeCount];
    for (int m = 0; m < kModeCount; ++m) cpu[m] = bench::summarize(sides[m].threadCpuUs);
    const double plainCpu = cpu[static_cast<int>(Mode::Plain)].median;
    for (int m = 0; m < kModeCount; ++m) {
        const Side& side = sides[m];
        if (side.polls == 0) continue;
        const bench::Summary wall = bench::summarize(side.wallMs);
        const bool tls = side.mode != Mode::Plain;
        std::printf(
            "| %s | %d | %s | %.0f (%.0f to %.0f) | %.0f | %.3f (%.3f to %.3f) | %s |\n", modeName(side.mode),
            side.polls,
            tls ? qPrintable(side.value("tls_handshakes") + QStringLiteral(" / ") + side.value("tls_resumed"))
                : "-",
            cpu[m].median, cpu[m].min, cpu[m].max, bench::summarize(side.processCpuUs).median, wall.median,
            wall.min, wall.max,
            tls && plainCpu > 0 ? QByteArray::number(cpu[m].median - plainCpu, 'f', 0).constData() : "-");
    }

    std::printf("\n## Goals\n\n");
    const Side& resumed = sides[static_cast<int>(Mode::Resumed)];
    const Side& full = sides[static_cast<int>(Mode::Full)];
    if (resumed.polls > 0) {
        const int resumedCount = resumed.value("tls_resumed").toInt();
        const bool everyOne = resumedCount == resumed.polls - 1;
        std::printf(
            "- persistent_connection 0: every poll after the first resumed: %s (tls_resumed %d of %d "
            "polls)\n",
            everyOne ? "met" : "NOT met", resumedCount, resumed.polls);
        ok &= everyOne;
    }
    if (full.polls > 0 && full.value("tls_resumed").toInt() != 0) {
        std::fprintf(stderr, "the full side resumed %s times: its session was not dropped\n",
                     qPrintable(full.value("tls_resumed")));
        ok = false;
    }
    if (!onlyOne) {
        const double full = cpu[static_cast<int>(Mode::Full)].median;
        const double again = cpu[static_cast<int>(Mode::Resumed)].median;
        const double ratio = full > 0 ? again / full : 0;
        const double handshakeRatio = full > plainCpu ? (again - plainCpu) / (full - plainCpu) : 0;
        std::printf(
            "- CPU of a resumed reconnect within %.2f x a full one: %s (%.0f µs against %.0f µs, ratio %.3f; "
            "the handshakes alone, the plain reconnect's %.0f µs taken out of both: %.0f µs against %.0f µs, "
            "ratio %.3f)\n",
            kResumedGoal, ratio <= kResumedGoal ? "met" : "NOT met", again, full, ratio, plainCpu,
            again - plainCpu, full - plainCpu, handshakeRatio);
    }
    std::printf("\n");
    bench::printCommand(argc, argv);
    return ok ? 0 : 1;
}
