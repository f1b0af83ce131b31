#include <QTextStream>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/zelt-modbus/batch_output.h"
#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/interrupt.h"
#include "tools/zelt-modbus/poll_stats.h"
#include "tools/zelt-modbus/session.h"

namespace zelt_cli {

namespace {

constexpr int kDefaultIntervalMs = 1000;

qint64 steadyMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void printStatsTable(QTextStream& out, const QVector<DeviceStats>& devices) {
    out << "Statistics\n";
    Table table(statsTableHeader());
    for (const DeviceStats& stats : devices) table.addRow(statsTableRow(stats));
    table.print(out);
    out.flush();
}

}  // namespace

int runPoll(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("poll"),
        QStringLiteral("Polls every device of the configuration, as the host does, and prints the "
                       "values.\nExits 0 when every poll succeeded, 1 otherwise."));
    command.addOption(QStringLiteral("config"), QStringLiteral("FILE"),
                      QStringLiteral("configuration file (JSON)"));
    command.addOption(QStringLiteral("count"), QStringLiteral("N"),
                      QStringLiteral("number of polls (default: until interrupted)"));
    command.addOption(QStringLiteral("interval"), QStringLiteral("MS"),
                      QStringLiteral("time between the starts of two polls (default 1000)"));
    command.addFlag(QStringLiteral("json"), QStringLiteral("one JSON object per line per device and poll"));
    command.addFlag(QStringLiteral("verbose"), QStringLiteral("also print the plugin's debug log"));
    command.addFlag(
        QStringLiteral("stats"),
        QStringLiteral("at exit, one row per device (with --json, one {\"stats\": [...]} line): polls, "
                       "complete polls, request counters, response ms p50/p95 (one sample per "
                       "answered poll: the round trip of its last answer) and max, time in back-off"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;
    if (!command.has(QStringLiteral("config"))) {
        QTextStream(stderr) << "zelt-modbus poll: --config is required\n" << command.usage();
        return kExitUsage;
    }
    int count = 0;
    int intervalMs = 0;
    if (!readNumberOption(command, QStringLiteral("count"), 1, 0, &count) ||
        !readNumberOption(command, QStringLiteral("interval"), 0, kDefaultIntervalMs, &intervalMs))
        return kExitUsage;

    Config config;
    QString error;
    if (!readConfigFile(command.value(QStringLiteral("config")), &config, &error))
        return fail(error, kExitUsage);

    installInterruptHandler();
    PluginSession session;
    session.setVerbose(command.flag(QStringLiteral("verbose")));
    const bool stats = command.flag(QStringLiteral("stats"));
    session.setDiagnosticItems(stats);
    if (!session.start(command.pluginPath(), config, &error)) return fail(error);

    // Each device is polled from a thread of its own, as the host does: a slow or dead device delays only its
    // own lines. A device's lines stay in its poll order; lines of different devices interleave as they come.
    QTextStream out(stdout);
    const bool json = command.flag(QStringLiteral("json"));
    std::mutex outputMutex;
    std::atomic<bool> allOk{true};
    const auto started = std::chrono::steady_clock::now();
    const QList<DeviceConfig>& devices = session.config().devices;
    QVector<DeviceStats> deviceStats(devices.size());
    auto pollDevice = [&](const DeviceConfig& device, DeviceStats* summary) {
        std::string line;  // reused: its capacity stays from one poll to the next
        DeviceStatsCollector collector(device.id, device.name, device.items.size());
        for (int poll = 1; count == 0 || poll <= count; ++poll) {
            if (poll > 1) {
                const auto due = started + std::chrono::milliseconds(qint64(intervalMs) * (poll - 1));
                const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    due - std::chrono::steady_clock::now());
                if (!sleepUnlessInterrupted(static_cast<int>(std::max<qint64>(0, left.count())))) break;
            }
            if (interrupted()) break;
            const qint64 pollStartMs = steadyMs();
            const BatchResult result = session.poll(device);
            if (stats) collector.addPoll(pollStartMs, result);
            if (!result.ok) allOk = false;
            std::lock_guard<std::mutex> lock(outputMutex);
            if (json) {
                line.clear();
                appendPollJsonLine(line, poll, result);
                std::fwrite(line.data(), 1, line.size(), stdout);
                std::fflush(stdout);
            } else {
                printPoll(out, poll, result);
                out.flush();
            }
        }
        *summary = collector.finish(steadyMs());
    };
    std::vector<std::thread> pollers;
    pollers.reserve(static_cast<size_t>(devices.size()));
    DeviceStats* summaries = deviceStats.data();  // detached once, before any poller writes its row
    for (int i = 0; i < devices.size(); ++i) pollers.emplace_back(pollDevice, devices.at(i), summaries + i);
    for (std::thread& poller : pollers) poller.join();
    session.stop();
    if (stats) {
        if (json) {
            const QByteArray summary = jsonLine(statsToJson(deviceStats)).toUtf8() + '\n';
            std::fwrite(summary.constData(), 1, static_cast<size_t>(summary.size()), stdout);
            std::fflush(stdout);
        } else {
            // Each poll's table ends with a blank line already.
            printStatsTable(out, deviceStats);
        }
    }
    return allOk.load() ? 0 : 1;
}

}  // namespace zelt_cli
