// The command-line tool's cost per poll: `zelt-modbus poll --json --interval 0 --count N` on the 200 FLOAT
// items against the simulator on loopback, against a bare libmodbus loop that replays one poll's requests.
// The tool's start (loading the plugin, the first connect, the identification read) is taken out by running
// it with
// --count 1 as well: per poll = (time for N polls - time for 1 poll) / (N - 1).
//
// Usage: cli_bench [--count N] [--runs N]
#include <QByteArray>
#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <chrono>
#include <cstdio>
#include <vector>

#include "bench/bench_items.h"
#include "bench/bench_support.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

constexpr int kDefaultCount = 500;
constexpr int kDefaultRuns = 3;
constexpr int kItems = 200;
constexpr int kFloatRegisters = 2;
constexpr int kReplays = 300;
constexpr int kProcessTimeoutMs = 600000;
constexpr double kGoalRatio = 2.0;

QByteArray configJson(uint16_t port) {
    QJsonArray items;
    for (const ItemInstancePlugin& item : bench::holdingItems(kItems, bench::kTypeFloat, kFloatRegisters)) {
        QJsonObject settings;
        for (auto it = item.settings.begin(); it != item.settings.end(); ++it)
            settings.insert(it.key(), it.value());
        items.append(QJsonObject{{"uid", item.uid}, {"name", item.name}, {"settings", settings}});
    }
    QJsonObject device{{"id", 1},
                       {"name", "meter"},
                       {"address", "127.0.0.1"},
                       {"settings", QJsonObject{{"port", QString::number(port)}}},
                       {"items", items}};
    return QJsonDocument(QJsonObject{{"devices", QJsonArray{device}}}).toJson(QJsonDocument::Compact);
}

// Wall time of one run of the tool in µs; negative when it failed or printed the wrong number of lines.
double runTool(const QString& config, int count) {
    QProcess process;
    const QStringList arguments{QStringLiteral("poll"),    QStringLiteral("--config"),   config,
                                QStringLiteral("--json"),  QStringLiteral("--interval"), QStringLiteral("0"),
                                QStringLiteral("--count"), QString::number(count)};
    const auto start = std::chrono::steady_clock::now();
    process.start(QStringLiteral(ZELT_MODBUS_PATH), arguments);
    if (!process.waitForFinished(kProcessTimeoutMs)) return -1;
    const double wall = bench::elapsedUs(start);
    const QByteArray output = process.readAllStandardOutput();
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0 ||
        output.count('\n') != count) {
        std::fprintf(stderr, "zelt-modbus exited with %d after %d lines: %s\n", process.exitCode(),
                     static_cast<int>(output.count('\n')), process.readAllStandardError().constData());
        return -1;
    }
    return wall;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int count = std::max(2, bench::intOption(argc, argv, "--count", kDefaultCount));
    const int runs = bench::intOption(argc, argv, "--runs", kDefaultRuns);
    std::printf("cli_bench: %s, %d runs of --count 1 and --count %d, build type %s\n", ZELT_MODBUS_PATH, runs,
                count, ZELT_BUILD_TYPE);

    modbus_sim::Simulator simulator;
    QTemporaryDir directory;
    if (!simulator.start() || !directory.isValid()) {
        std::fprintf(stderr, "the simulator or the temporary directory could not be set up\n");
        return 1;
    }
    bench::fillSimulator(&simulator);
    const QString config = directory.filePath(QStringLiteral("bench.json"));
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly) || file.write(configJson(simulator.port())) < 0) return 1;
    file.close();

    // The requests of one steady poll, as the tool sends them from its second poll on.
    std::vector<modbus_sim::RequestRecord> requests;
    {
        Modbus plugin;
        plugin.init();
        auto batch = bench::makeBatch(plugin_test::makeDevice(1, simulator.port(), bench::deviceDefaults()),
                                      bench::holdingItems(kItems, bench::kTypeFloat, kFloatRegisters));
        plugin.readData(&batch->list);
        simulator.clearRequestLog();
        if (!plugin.readData(&batch->list)) return 1;
        requests = simulator.requestLog();
        plugin.stopPlugin();
        zelt_standin::Host::instance().reset();
    }

    std::vector<double> once;
    std::vector<double> many;
    for (int run = 0; run < runs; ++run) {
        const double first = runTool(config, 1);
        const double all = runTool(config, count);
        if (first < 0 || all < 0) return 1;
        once.push_back(first);
        many.push_back(all);
        simulator.clearRequestLog();
    }

    bench::RawReplay raw(simulator.port());
    if (!raw.connect()) return 1;
    std::vector<double> replays;
    for (int i = 0; i < kReplays; ++i) {
        const auto start = std::chrono::steady_clock::now();
        if (!raw.replay(requests)) return 1;
        replays.push_back(bench::elapsedUs(start));
    }
    simulator.stop();

    const double onceUs = bench::summarize(once).median;
    const double manyUs = bench::summarize(many).median;
    const double perPoll = (manyUs - onceUs) / (count - 1);
    const bench::Summary rawUs = bench::summarize(replays);
    const double ratio = perPoll / rawUs.median;
    std::printf("\n| Figure | Value |\n|---|---|\n");
    std::printf("| zelt-modbus --count 1, whole run (median) | %.1f ms |\n", onceUs / 1000);
    std::printf("| zelt-modbus --count %d, whole run (median) | %.1f ms |\n", count, manyUs / 1000);
    std::printf("| zelt-modbus per poll | %.0f µs |\n", perPoll);
    std::printf(
        "| Raw libmodbus replay of one poll (%d requests), median (min to max) | %.0f µs (%.0f to %.0f) |\n",
        static_cast<int>(requests.size()), rawUs.median, rawUs.min, rawUs.max);
    std::printf("| Ratio | %.2f (goal <= %.1f: %s) |\n", ratio, kGoalRatio,
                ratio <= kGoalRatio ? "met" : "MISSED");
    bench::printCommand(argc, argv);
    return 0;
}
