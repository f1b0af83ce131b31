// Plant-network scenarios: the plugin driven in process as the host drives it (a new batch per poll, one host
// thread per device) against the simulator's plant faults: units behind one gateway, a dead unit among them,
// a device that needs a pause between requests, a busy device, answers later than the time-out, and a dead
// device that comes back. Per scenario it prints polls complete (every item of the batch valued, with the
// value the simulator holds, and without error), items valued, connections the simulator accepted, median and
// worst poll time, the command that reproduces the scenario, and whether the scenario's goal is met.
//
// As root it runs inside a network namespace of its own (re-executing itself there through `ip netns exec`,
// so every socket of the run lives on that namespace's loopback; the namespace is removed at the end, also
// after a failure or an interrupt); otherwise, or with --loopback, on the machine's loopback. No traffic
// leaves 127.0.0.1.
//
// Usage: field_bench [--quick] [--scenario N] [--loopback] [--gateway-polls N] [--serial-ms N]
//                    [--round-interval-ms N] [--pause-polls N] [--contrast-polls N] [--busy-polls N]
//                    [--late-polls N] [--dead-polls N] [--interval-ms N] [--backoff-max-ms N]
//                    [--verbose]
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QString>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_items.h"
#include "bench/bench_support.h"
#include "bench/rounds.h"
#include "plugin/modbus.h"
#include "tools/sim/blackhole_listener.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

using Clock = std::chrono::steady_clock;

// Defaults of the full run.
constexpr int kDefaultGatewayPolls = 20;
constexpr int kDefaultSerialMs = 2;
// Rounds of the dead-unit scenario are paced, so that the run spans the first pause and the retry after it.
constexpr int kDefaultRoundIntervalMs = 100;
constexpr int kDefaultPausePolls = 50;
constexpr int kDefaultContrastPolls = 5;
constexpr int kDefaultBusyPolls = 30;
constexpr int kDefaultLatePolls = 5;
constexpr int kDefaultDeadPolls = 10;
constexpr int kDefaultIntervalMs = 1000;
constexpr int kDefaultBackoffMaxMs = 10000;
// --quick: bounded for CI (well under a minute in all).
constexpr int kQuickPausePolls = 10;
constexpr int kQuickContrastPolls = 3;
constexpr int kQuickBusyPolls = 10;
constexpr int kQuickLatePolls = 2;
constexpr int kQuickIntervalMs = 200;
constexpr int kQuickBackoffMaxMs = 2000;

// Scenario set-ups.
constexpr int kGatewayUnits = 8;
constexpr int kGatewayConnectionLimit = 2;
constexpr int kGatewayItems = 10;
constexpr int kDeadUnit = 5;
constexpr int kPauseMs = 10;
constexpr int kPauseItemsPerTable = 10;
constexpr int kBusyEvery = 3;
constexpr int kBusyRetries = 1;
constexpr int kSpreadItemsPerTable = 100;
constexpr int kSpreadStride = 3;
constexpr int kLateItems = 400;
constexpr int kLateAddress = 100;  // start of the second of the four requests of the 400 items
constexpr int kLateDelayMs = 600;
constexpr int kDeadItems = 10;

// Goals.
constexpr double kRoundRatioGoal = 1.2;
constexpr double kDeadBudgetMs = 1500;
constexpr int kRecoveryGraceMs = 1000;
// Bounds of the come-back scenario: attempts to reach the longest pause, and the wait for the first good poll
// beyond its goal.
// The pauses double up to the longest, so reaching it takes less than twice the longest pause plus the
// attempts themselves.
constexpr int kLongestPauseReachFactor = 3;
constexpr int kLongestPauseReachSlackMs = 10000;
constexpr int kRecoveryWaitBeyondGoalMs = 5000;

constexpr int kMsPerSecond = 1000;
constexpr uint16_t kFirstWord = 0x4142;  // what bench::fillSimulator writes: kFirstWord + i * kWordStep
constexpr uint16_t kWordStep = 7919;
constexpr int kHoldingTable = bench::kFirstHoldingRegister;
constexpr int kInputTable = bench::kFirstInputRegister;

const QString kTimedOutText = QStringLiteral("Connection timed out");
const QString kInvalidDataText = QStringLiteral("Invalid data");
const QString kPausedMarker = QStringLiteral("next attempt in");
const QString kDiagBackoff = QStringLiteral("__diagnostics.backoff_s");
const QString kDiagConnectFailures = QStringLiteral("__diagnostics.connect_failures");

struct Options {
    bool quick = false;
    bool loopback = false;
    bool verbose = false;  // per-round and per-poll details where a scenario has them
    int scenario = 0;      // 0: every scenario
    int gatewayPolls = kDefaultGatewayPolls;
    int serialMs = kDefaultSerialMs;
    int roundIntervalMs = kDefaultRoundIntervalMs;
    int pausePolls = kDefaultPausePolls;
    int contrastPolls = kDefaultContrastPolls;
    int busyPolls = kDefaultBusyPolls;
    int latePolls = kDefaultLatePolls;
    int deadPolls = kDefaultDeadPolls;
    int intervalMs = kDefaultIntervalMs;
    int backoffMaxMs = kDefaultBackoffMaxMs;
    std::string program;
    std::string netns;  // set in the re-executed run inside the namespace
};

std::string stringOption(int argc, char** argv, const char* name) {
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], name) == 0) return argv[i + 1];
    return {};
}

Options parseOptions(int argc, char** argv) {
    Options options;
    options.quick = bench::hasFlag(argc, argv, "--quick");
    options.loopback = bench::hasFlag(argc, argv, "--loopback");
    options.verbose = bench::hasFlag(argc, argv, "--verbose");
    if (options.quick) {
        options.pausePolls = kQuickPausePolls;
        options.contrastPolls = kQuickContrastPolls;
        options.busyPolls = kQuickBusyPolls;
        options.latePolls = kQuickLatePolls;
        options.intervalMs = kQuickIntervalMs;
        options.backoffMaxMs = kQuickBackoffMaxMs;
    }
    options.scenario = bench::intOption(argc, argv, "--scenario", 0);
    options.gatewayPolls = bench::intOption(argc, argv, "--gateway-polls", options.gatewayPolls);
    options.serialMs = bench::intOption(argc, argv, "--serial-ms", options.serialMs);
    options.roundIntervalMs = bench::intOption(argc, argv, "--round-interval-ms", options.roundIntervalMs);
    options.pausePolls = bench::intOption(argc, argv, "--pause-polls", options.pausePolls);
    options.contrastPolls = bench::intOption(argc, argv, "--contrast-polls", options.contrastPolls);
    options.busyPolls = bench::intOption(argc, argv, "--busy-polls", options.busyPolls);
    options.latePolls = bench::intOption(argc, argv, "--late-polls", options.latePolls);
    options.deadPolls = bench::intOption(argc, argv, "--dead-polls", options.deadPolls);
    options.intervalMs = bench::intOption(argc, argv, "--interval-ms", options.intervalMs);
    options.backoffMaxMs = bench::intOption(argc, argv, "--backoff-max-ms", options.backoffMaxMs);
    options.netns = stringOption(argc, argv, "--in-netns");
    options.program = argv[0];
    return options;
}

bool wanted(const Options& options, int scenario) {
    return options.scenario == 0 || options.scenario == scenario;
}

// ---------------------------------------------------------------------------------------------------------
// Items whose right value is known: UINT16 items on registers that bench::fillSimulator filled, so an item
// that shows another request's data shows a number that differs from its own register's.

struct MeasuredItem {
    ItemInstancePlugin item;
    QString expected;
};

struct ItemSet {
    std::vector<MeasuredItem> measured;
    std::vector<ItemInstancePlugin> diagnostics;  // after the measured ones; never counted as polled items
};

QString expectedWord(int offset) {
    return QString::number(static_cast<uint16_t>(kFirstWord + offset * kWordStep));
}

void addWords(ItemSet* set, int table, int firstOffset, int count, int stride = 1) {
    for (int i = 0; i < count; ++i) {
        const int offset = firstOffset + i * stride;
        const int index = static_cast<int>(set->measured.size());
        set->measured.push_back(
            {bench::makeItem(index, bench::autoAddress(table + offset), bench::kTypeUint16),
             expectedWord(offset)});
    }
}

void addDiagnostic(ItemSet* set, const QString& address) {
    set->diagnostics.push_back(plugin_test::makeItem(address, address, bench::kRegisterTypeAuto,
                                                     QString::number(bench::kTypeUint16)));
}

QMap<QString, QString> deviceSettings(std::initializer_list<std::pair<const char*, QString>> extra) {
    QMap<QString, QString> settings = bench::deviceDefaults();
    for (const auto& entry : extra) settings.insert(QString::fromLatin1(entry.first), entry.second);
    return settings;
}

// ---------------------------------------------------------------------------------------------------------
// One poll as the host makes it: a new batch of new items, handed over, judged afterwards.

struct PollRecord {
    double ms = 0;
    bool complete = false;
    bool paused = false;  // refused at once in a back-off pause
    int valued = 0;       // without error and with the value the simulator holds
    int wrongData = 0;    // without error but with another register's value
    int invalidData = 0;  // "Invalid data"
    int timedOut = 0;     // the time-out text
    QString deviceError;
    QString firstBadItem;  // the first item that was not valued, for the log
    std::map<QString, QString> diagnostics;
};

PollRecord pollOnce(Modbus& plugin, const DeviceInstancePlugin& device, const ItemSet& items) {
    plugin_test::Batch batch(device);
    for (const MeasuredItem& measured : items.measured) batch.add(measured.item);
    for (const ItemInstancePlugin& diagnostic : items.diagnostics) batch.add(diagnostic);
    PollRecord record;
    const auto start = Clock::now();
    plugin.readData(&batch.list);
    record.ms = bench::elapsedUs(start) / kMsPerSecond;
    for (size_t i = 0; i < items.measured.size(); ++i) {
        const DataItem* dataItem = batch.list.dataItems.at(static_cast<int>(i));
        const QString& error = dataItem->item.lastError;
        const QString value = dataItem->values.value(QStringLiteral("value"));
        if (error.isEmpty() && value == items.measured[i].expected) {
            ++record.valued;
            continue;
        }
        if (error.isEmpty() && !value.isEmpty()) ++record.wrongData;
        if (error == kInvalidDataText) ++record.invalidData;
        if (error == kTimedOutText) ++record.timedOut;
        if (record.firstBadItem.isEmpty())
            record.firstBadItem = QStringLiteral("%1 = '%2' (expected %3), error '%4'")
                                      .arg(dataItem->item.settings.value(QStringLiteral("register")), value,
                                           items.measured[i].expected, error);
    }
    for (size_t i = 0; i < items.diagnostics.size(); ++i) {
        const DataItem* dataItem = batch.list.dataItems.at(static_cast<int>(items.measured.size() + i));
        record.diagnostics[items.diagnostics[i].uid] = dataItem->values.value(QStringLiteral("value"));
    }
    record.complete = record.valued == static_cast<int>(items.measured.size());
    record.deviceError = batch.list.device.lastError;
    record.paused = record.deviceError.contains(kPausedMarker);
    // The stand-in host keeps every log line; a long run would only grow it.
    zelt_standin::Host::instance().clearLogs();
    return record;
}

// ---------------------------------------------------------------------------------------------------------
// Figures and goals.

struct Row {
    std::string id;
    std::string title;
    int devices = 1;
    int polls = 0;
    int complete = 0;
    long valued = 0;
    long asked = 0;
    int connections = 0;
    int rejected = 0;
    std::vector<double> pollMs;
    std::string command;

    void add(const PollRecord& record, int itemCount) {
        ++polls;
        if (record.complete) ++complete;
        valued += record.valued;
        asked += itemCount;
        pollMs.push_back(record.ms);
    }
    void addAll(const std::vector<PollRecord>& records, int itemCount) {
        for (const PollRecord& record : records) add(record, itemCount);
    }
};

struct Goal {
    std::string id;
    std::string goal;
    std::string measured;
    bool met = false;
};

std::vector<Row> rows;
std::vector<Goal> goals;
bool setupFailed = false;

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* pattern, ...) {
    char buffer[1024];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(buffer, sizeof buffer, pattern, arguments);
    va_end(arguments);
    return buffer;
}

double percent(int part, int whole) {
    return whole > 0 ? 100.0 * part / whole : 0.0;
}

std::string command(const Options& options, int scenario, const std::string& flags) {
    return format("%s --scenario %d%s", options.program.c_str(), scenario, flags.c_str());
}

bool startSimulator(modbus_sim::Simulator* simulator, const char* what, uint16_t port = 0) {
    QString error;
    if (simulator->start(QStringLiteral("127.0.0.1"), port, &error)) {
        bench::fillSimulator(simulator);
        return true;
    }
    std::fprintf(stderr, "%s: the simulator did not start: %s\n", what, qPrintable(error));
    setupFailed = true;
    return false;
}

void reportBadPoll(const char* scenario, const PollRecord& record) {
    std::fprintf(stderr,
                 "  %s: poll incomplete after %.1f ms: device error '%s'; first item not valued: %s\n",
                 scenario, record.ms, qPrintable(record.deviceError), qPrintable(record.firstBadItem));
}

// The host's poll timer: every `intervalMs` from the first poll on; a poll that overruns its slot is followed
// at once by one poll, not by a burst of the slots it missed, and the schedule goes on from there.
class PollTimer {
public:
    explicit PollTimer(int intervalMs) : interval(intervalMs), due(Clock::now()) {}
    void waitForNext() {
        if (first) {
            first = false;
            return;
        }
        due += interval;
        const auto now = Clock::now();
        if (due < now) due = now;
        std::this_thread::sleep_until(due);
    }

private:
    const std::chrono::milliseconds interval;
    Clock::time_point due;
    bool first = true;
};

// Polls one device `polls` times from the calling thread, on the host's timer.
std::vector<PollRecord> pollDevice(const DeviceInstancePlugin& device, const ItemSet& items, int polls,
                                   int intervalMs) {
    Modbus plugin;
    plugin.init();
    std::vector<PollRecord> records;
    PollTimer timer(intervalMs);
    for (int poll = 0; poll < polls; ++poll) {
        timer.waitForNext();
        records.push_back(pollOnce(plugin, device, items));
    }
    plugin.stopPlugin();
    return records;
}

int completeCount(const std::vector<PollRecord>& records) {
    return static_cast<int>(
        std::count_if(records.begin(), records.end(), [](auto& r) { return r.complete; }));
}

// ---------------------------------------------------------------------------------------------------------
// Scenarios 1 and 2: units behind one gateway, each polled by its own host thread; all threads are released
// together for every round (the worst case of the host's timers), the round ending with the last poll.

struct GatewayRun {
    std::vector<int> units;
    std::vector<std::vector<PollRecord>> polls;  // [unit index][round]
    std::vector<double> roundMs;
    int connections = 0;
    int rejected = 0;
    int itemCount = kGatewayItems;
};

// --verbose: the simulator's log of the requests `select` picks, each with the time since the answer before
// it on its connection (or that it was the first on its connection).
template <typename Select>
void printRequests(const modbus_sim::Simulator& simulator, const char* title, Select select) {
    std::printf("%s:\n", title);
    std::map<int, qint64> lastAnswerUs;
    for (const modbus_sim::RequestRecord& record : simulator.requestLog()) {
        const auto previous = lastAnswerUs.find(record.connection);
        if (select(record)) {
            const std::string since = previous == lastAnswerUs.end()
                                          ? std::string("first on its connection")
                                          : format("%.2f ms after the last answer on it",
                                                   (record.receivedUs - previous->second) / 1e3);
            std::printf(
                "  at %9.2f ms: unit %d function %d address %d, connection %d, transaction %d%s, %s%s\n",
                record.receivedUs / 1e3, record.unit, record.function, record.address, record.connection,
                record.transactionId, record.dropped ? ", DROPPED" : "", since.c_str(),
                record.answeredUs < 0 ? ", unanswered" : "");
        }
        if (record.answeredUs >= 0)
            lastAnswerUs[record.connection] = record.answeredUs;
        else if (previous == lastAnswerUs.end())
            lastAnswerUs[record.connection] = record.receivedUs;
    }
}

GatewayRun runGateway(const Options& options, const std::vector<int>& units, bool unitDead, int rounds,
                      int roundIntervalMs) {
    GatewayRun run;
    run.units = units;
    modbus_sim::Simulator simulator;
    if (!startSimulator(&simulator, "gateway")) return run;
    simulator.setConnectionLimit(kGatewayConnectionLimit);
    simulator.setSerialLine(options.serialMs);
    if (unitDead) simulator.setDeadUnits({kDeadUnit}, modbus_sim::UnknownUnitReply::Silence);

    std::vector<DeviceInstancePlugin> devices;
    std::vector<ItemSet> itemSets(units.size());
    for (size_t i = 0; i < units.size(); ++i) {
        const int unit = units[i];
        devices.push_back(plugin_test::makeDevice(unit, simulator.port(),
                                                  deviceSettings({{"server_id", QString::number(unit)}})));
        // Each unit reads registers of its own, so data handed to the wrong unit would show.
        addWords(&itemSets[i], kHoldingTable, unit * kGatewayItems, kGatewayItems);
    }
    run.polls.resize(units.size());

    Modbus plugin;
    plugin.init();
    bench::Rounds control(static_cast<int>(units.size()));
    std::vector<std::thread> threads;
    for (size_t i = 0; i < units.size(); ++i) {
        threads.emplace_back([&, i] {
            for (int round = 1; control.waitForRound(round); ++round) {
                run.polls[i].push_back(pollOnce(plugin, devices[i], itemSets[i]));
                control.done();
            }
        });
    }
    PollTimer timer(roundIntervalMs);
    for (int round = 0; round < rounds; ++round) {
        timer.waitForNext();
        const auto roundStart = Clock::now();
        control.runRound();
        run.roundMs.push_back(bench::elapsedUs(roundStart) / kMsPerSecond);
    }
    control.finish();
    for (std::thread& thread : threads) thread.join();
    plugin.stopPlugin();
    if (options.verbose && unitDead)
        printRequests(simulator, "Requests for the dead unit",
                      [](const modbus_sim::RequestRecord& record) { return record.unit == kDeadUnit; });
    run.connections = simulator.acceptedConnections();
    run.rejected = simulator.rejectedConnections();
    simulator.stop();
    return run;
}

Row gatewayRow(const GatewayRun& run, const std::string& id, const std::string& title,
               const std::string& cmd) {
    Row row;
    row.id = id;
    row.title = title;
    row.devices = static_cast<int>(run.units.size());
    for (const auto& unitPolls : run.polls) row.addAll(unitPolls, run.itemCount);
    row.connections = run.connections;
    row.rejected = run.rejected;
    row.command = cmd;
    return row;
}

void scenarioGateway(const Options& options) {
    std::vector<int> units;
    for (int unit = 1; unit <= kGatewayUnits; ++unit) units.push_back(unit);
    const GatewayRun run = runGateway(options, units, false, options.gatewayPolls, 0);
    if (setupFailed) return;
    const std::string cmd = command(
        options, 1, format(" --gateway-polls %d --serial-ms %d", options.gatewayPolls, options.serialMs));
    rows.push_back(gatewayRow(run, "1",
                              format("Gateway: %d units, limit %d connections, serial line %d ms",
                                     kGatewayUnits, kGatewayConnectionLimit, options.serialMs),
                              cmd));
    int allComplete = 0;
    for (size_t i = 0; i < run.units.size(); ++i) {
        if (completeCount(run.polls[i]) == static_cast<int>(run.polls[i].size())) ++allComplete;
        for (const PollRecord& record : run.polls[i])
            if (!record.complete) reportBadPoll("gateway", record);
    }
    const Row& row = rows.back();
    goals.push_back({"1", "8/8 devices, 100 % of polls complete, 1 connection to the gateway",
                     format("%d/%d devices, %d/%d polls (%.1f %%), %d connection(s), %d rejected",
                            allComplete, kGatewayUnits, row.complete, row.polls,
                            percent(row.complete, row.polls), row.connections, row.rejected),
                     allComplete == kGatewayUnits && row.complete == row.polls && row.connections == 1});
}

void scenarioDeadUnit(const Options& options) {
    std::vector<int> live;
    std::vector<int> all;
    for (int unit = 1; unit <= kGatewayUnits; ++unit) {
        all.push_back(unit);
        if (unit != kDeadUnit) live.push_back(unit);
    }
    const GatewayRun alone = runGateway(options, live, true, options.gatewayPolls, options.roundIntervalMs);
    if (setupFailed) return;
    const GatewayRun withDead = runGateway(options, all, true, options.gatewayPolls, options.roundIntervalMs);
    if (setupFailed) return;
    const std::string cmd = command(options, 2,
                                    format(" --gateway-polls %d --serial-ms %d --round-interval-ms %d",
                                           options.gatewayPolls, options.serialMs, options.roundIntervalMs));
    rows.push_back(gatewayRow(
        alone, "2a",
        format("The %d live units alone (rounds %d ms apart)", kGatewayUnits - 1, options.roundIntervalMs),
        cmd));
    rows.push_back(gatewayRow(withDead, "2b",
                              format("All %d units, unit %d dead (silent)", kGatewayUnits, kDeadUnit), cmd));

    // The live units' polls in the run with the dead unit.
    int livePolls = 0;
    int liveComplete = 0;
    size_t deadIndex = 0;
    for (size_t i = 0; i < withDead.units.size(); ++i) {
        if (withDead.units[i] == kDeadUnit) {
            deadIndex = i;
            continue;
        }
        livePolls += static_cast<int>(withDead.polls[i].size());
        liveComplete += completeCount(withDead.polls[i]);
        for (const PollRecord& record : withDead.polls[i])
            if (!record.complete) reportBadPoll("dead unit, live neighbour", record);
    }
    goals.push_back({"2", "units 1-4, 6-8: 100 % of polls complete",
                     format("%d/%d (%.1f %%)", liveComplete, livePolls, percent(liveComplete, livePolls)),
                     liveComplete == livePolls && livePolls > 0});

    // Rounds from the first one in which the dead unit's poll was refused in its pause.
    const std::vector<PollRecord>& deadPolls = withDead.polls[deadIndex];
    size_t firstPaused = deadPolls.size();
    for (size_t round = 0; round < deadPolls.size(); ++round)
        if (deadPolls[round].paused) {
            firstPaused = round;
            break;
        }
    const size_t firstAfter = std::min(firstPaused, withDead.roundMs.size());
    std::vector<double> after(withDead.roundMs.begin() + firstAfter, withDead.roundMs.end());
    // The live units' rounds from the same round on: the first rounds also read each unit's identification.
    std::vector<double> liveAfter(alone.roundMs.begin() + std::min(firstAfter, alone.roundMs.size()),
                                  alone.roundMs.end());
    if (options.verbose) {
        std::printf("Rounds (ms), live units alone / all units, and the dead unit's poll:\n");
        for (size_t round = 0; round < withDead.roundMs.size(); ++round)
            std::printf("  round %2zu: %7.1f / %7.1f  unit %d %s %.1f ms: %s\n", round + 1,
                        round < alone.roundMs.size() ? alone.roundMs[round] : 0.0, withDead.roundMs[round],
                        kDeadUnit, deadPolls[round].paused ? "paused" : "polled", deadPolls[round].ms,
                        qPrintable(deadPolls[round].deviceError));
    }
    int retriesAfter = 0;
    for (size_t round = firstPaused; round < deadPolls.size(); ++round)
        if (!deadPolls[round].paused) ++retriesAfter;
    const bench::Summary liveRounds = bench::summarize(liveAfter);
    const bench::Summary afterRounds = bench::summarize(after);
    double sumAfter = 0;
    for (double ms : after) sumAfter += ms;
    const int over = static_cast<int>(std::count_if(
        after.begin(), after.end(), [&](double ms) { return ms > kRoundRatioGoal * liveRounds.median; }));
    const double medianRatio = afterRounds.median / liveRounds.median;
    const double worstRatio = afterRounds.max / liveRounds.max;
    const double meanRatio = after.empty() ? 0 : sumAfter / after.size() / liveRounds.median;
    goals.push_back(
        {"2",
         format("after the first back-off, a round of all %d <= %.1f x a round of the %d live units",
                kGatewayUnits, kRoundRatioGoal, kGatewayUnits - 1),
         format(
             "%zu rounds after the first back-off (round %zu), %d with a retry of unit %d: median %.1f ms vs "
             "%.1f ms (%.2f x), worst %.1f ms vs %.1f ms (%.2f x), mean %.2f x; %d round(s) over %.1f x the "
             "live median",
             after.size(), firstPaused + 1, retriesAfter, kDeadUnit, afterRounds.median, liveRounds.median,
             medianRatio, afterRounds.max, liveRounds.max, worstRatio, meanRatio, over, kRoundRatioGoal),
         !after.empty() && medianRatio <= kRoundRatioGoal && worstRatio <= kRoundRatioGoal});
}

// ---------------------------------------------------------------------------------------------------------
// Scenario 3: a device that drops requests sent sooner than 10 ms after its last answer.

struct SingleResult {
    std::vector<PollRecord> polls;
    int connections = 0;
    int rejected = 0;
    int dropped = 0;
    int requests = 0;
};

void collect(modbus_sim::Simulator& simulator, SingleResult* result) {
    result->connections = simulator.acceptedConnections();
    result->rejected = simulator.rejectedConnections();
    for (const modbus_sim::RequestRecord& record : simulator.requestLog()) {
        if (record.dropped) ++result->dropped;
        if (record.function >= 1 && record.function <= 4) ++result->requests;
    }
}

SingleResult runPauseDevice(const Options& options, int pauseMs, int polls) {
    SingleResult result;
    modbus_sim::Simulator simulator;
    if (!startSimulator(&simulator, "pause")) return result;
    simulator.setMinimumRequestGap(kPauseMs);
    ItemSet items;
    addWords(&items, kHoldingTable, 0, kPauseItemsPerTable);
    addWords(&items, kInputTable, 0, kPauseItemsPerTable);
    const DeviceInstancePlugin device = plugin_test::makeDevice(
        1, simulator.port(), deviceSettings({{"request_pause_ms", QString::number(pauseMs)}}));
    result.polls = pollDevice(device, items, polls, 0);
    collect(simulator, &result);
    if (options.verbose)
        printRequests(simulator, format("Dropped requests, request_pause_ms %d", pauseMs).c_str(),
                      [](const modbus_sim::RequestRecord& record) { return record.dropped; });
    simulator.stop();
    return result;
}

Row singleRow(const SingleResult& result, int itemCount, const std::string& id, const std::string& title,
              const std::string& cmd) {
    Row row;
    row.id = id;
    row.title = title;
    row.addAll(result.polls, itemCount);
    row.connections = result.connections;
    row.rejected = result.rejected;
    row.command = cmd;
    return row;
}

void scenarioPause(const Options& options) {
    const int itemCount = 2 * kPauseItemsPerTable;
    const SingleResult paced = runPauseDevice(options, kPauseMs, options.pausePolls);
    if (setupFailed) return;
    const SingleResult unpaced = runPauseDevice(options, 0, options.contrastPolls);
    if (setupFailed) return;
    const std::string cmd =
        command(options, 3,
                format(" --pause-polls %d --contrast-polls %d", options.pausePolls, options.contrastPolls));
    rows.push_back(singleRow(
        paced, itemCount, "3a",
        format("Device needs %d ms between requests, request_pause_ms %d", kPauseMs, kPauseMs), cmd));
    rows.push_back(singleRow(unpaced, itemCount, "3b", "Same, request_pause_ms 0 (contrast)", cmd));
    for (const PollRecord& record : paced.polls)
        if (!record.complete) reportBadPoll("pause", record);
    const int complete = completeCount(paced.polls);
    goals.push_back(
        {"3", format("request_pause_ms %d: 100 %% of %d polls complete", kPauseMs, options.pausePolls),
         format("%d/%d (%.1f %%), %d request(s) dropped by the device; with pause 0: %d/%zu complete, "
                "%d dropped, %d connection(s)",
                complete, options.pausePolls, percent(complete, options.pausePolls), paced.dropped,
                completeCount(unpaced.polls), unpaced.polls.size(), unpaced.dropped, unpaced.connections),
         complete == options.pausePolls});
}

// ---------------------------------------------------------------------------------------------------------
// Scenario 4: a device that answers every third request "busy" (exception 6).

SingleResult runBusyDevice(int retries, int polls, const ItemSet& items) {
    SingleResult result;
    modbus_sim::Simulator simulator;
    if (!startSimulator(&simulator, "busy")) return result;
    modbus_sim::FaultRule busy;
    busy.kind = modbus_sim::FaultKind::BusyEvery;
    busy.everyRequests = kBusyEvery;
    simulator.addFault(busy);
    const DeviceInstancePlugin device =
        plugin_test::makeDevice(1, simulator.port(), deviceSettings({{"retries", QString::number(retries)}}));
    result.polls = pollDevice(device, items, polls, 0);
    collect(simulator, &result);
    simulator.stop();
    return result;
}

void scenarioBusy(const Options& options) {
    // Every third register of two tables: each poll needs several requests (four per table).
    ItemSet items;
    addWords(&items, kHoldingTable, 0, kSpreadItemsPerTable, kSpreadStride);
    addWords(&items, kInputTable, 0, kSpreadItemsPerTable, kSpreadStride);
    const int itemCount = static_cast<int>(items.measured.size());
    const SingleResult retried = runBusyDevice(kBusyRetries, options.busyPolls, items);
    if (setupFailed) return;
    const SingleResult plain = runBusyDevice(0, options.busyPolls, items);
    if (setupFailed) return;
    const std::string cmd = command(options, 4, format(" --busy-polls %d", options.busyPolls));
    rows.push_back(singleRow(
        retried, itemCount, "4a",
        format("Busy every %d requests, %d items, retries %d (%.1f requests/poll)", kBusyEvery, itemCount,
               kBusyRetries, retried.polls.empty() ? 0.0 : double(retried.requests) / retried.polls.size()),
        cmd));
    rows.push_back(singleRow(plain, itemCount, "4b", "Same, retries 0 (contrast)", cmd));
    for (const PollRecord& record : retried.polls)
        if (!record.complete) reportBadPoll("busy", record);
    const int complete = completeCount(retried.polls);
    goals.push_back(
        {"4",
         format("retries %d: 100 %% of %d polls complete, 1 connection", kBusyRetries, options.busyPolls),
         format("%d/%d (%.1f %%), %d connection(s); with retries 0: %d/%zu complete, %d connection(s)",
                complete, options.busyPolls, percent(complete, options.busyPolls), retried.connections,
                completeCount(plain.polls), plain.polls.size(), plain.connections),
         complete == options.busyPolls && retried.connections == 1});
}

// ---------------------------------------------------------------------------------------------------------
// Scenario 5: one request's answer comes 600 ms late, after the default 500 ms time-out.

void scenarioLate(const Options& options) {
    SingleResult result;
    modbus_sim::Simulator simulator;
    if (!startSimulator(&simulator, "late")) return;
    modbus_sim::FaultRule late;
    late.kind = modbus_sim::FaultKind::Delay;
    late.function = 3;
    late.address = kLateAddress;
    late.delayMs = kLateDelayMs;
    simulator.addFault(late);
    ItemSet items;
    addWords(&items, kHoldingTable, 0, kLateItems);
    const DeviceInstancePlugin device = plugin_test::makeDevice(1, simulator.port(), bench::deviceDefaults());
    result.polls = pollDevice(device, items, options.latePolls, 0);
    collect(simulator, &result);
    // The items of the late request: those the request that covers kLateAddress covers.
    int lateItems = 0;
    for (const modbus_sim::RequestRecord& record : simulator.requestLog())
        if (record.function == 3 && record.address <= kLateAddress &&
            kLateAddress < record.address + record.count) {
            lateItems = record.count;
            break;
        }
    simulator.stop();

    const std::string cmd = command(options, 5, format(" --late-polls %d", options.latePolls));
    rows.push_back(singleRow(
        result, kLateItems, "5",
        format("One request of %d answered %d ms late, time-out 500 ms", kLateItems / 4, kLateDelayMs), cmd));
    int wrong = 0;
    int invalid = 0;
    int timedOut = 0;
    int valued = 0;
    for (const PollRecord& record : result.polls) {
        wrong += record.wrongData;
        invalid += record.invalidData;
        timedOut += record.timedOut;
        valued += record.valued;
    }
    const int polls = static_cast<int>(result.polls.size());
    const int expectedTimedOut = lateItems * polls;
    const int expectedValued = (kLateItems - lateItems) * polls;
    goals.push_back({"5", "0 items with another request's data or \"Invalid data\"",
                     format("%d with other data, %d \"Invalid data\"", wrong, invalid),
                     wrong == 0 && invalid == 0});
    goals.push_back({"5", "the late request's items carry the time-out text, all others valued",
                     format("%d/%d with \"%s\", %d/%d others valued; %d connection(s) over %d polls",
                            timedOut, expectedTimedOut, qPrintable(kTimedOutText), valued, expectedValued,
                            result.connections, polls),
                     lateItems > 0 && timedOut == expectedTimedOut && valued == expectedValued});
}

// ---------------------------------------------------------------------------------------------------------
// Scenario 6: a dead device (its SYNs never answered) with the default settings, then the device comes back
// on the same port.

void scenarioDead(const Options& options) {
    modbus_sim::BlackholeListener hole;
    QString error;
    if (!hole.start(QStringLiteral("127.0.0.1"), 0, &error)) {
        std::fprintf(stderr, "dead device: the blackhole did not start: %s\n", qPrintable(error));
        setupFailed = true;
        return;
    }
    const uint16_t port = hole.port();
    ItemSet items;
    addWords(&items, kHoldingTable, 0, kDeadItems);
    addDiagnostic(&items, kDiagBackoff);
    addDiagnostic(&items, kDiagConnectFailures);
    const DeviceInstancePlugin device = plugin_test::makeDevice(
        1, port, deviceSettings({{"backoff_max_ms", QString::number(options.backoffMaxMs)}}));

    Modbus plugin;
    plugin.init();
    PollTimer timer(options.intervalMs);
    const auto start = Clock::now();
    auto nextPoll = [&] {
        timer.waitForNext();
        PollRecord record = pollOnce(plugin, device, items);
        if (options.verbose)
            std::printf("  at %6.0f ms: %s %6.1f ms, back-off %s s: %s\n",
                        bench::elapsedUs(start) / kMsPerSecond, record.paused ? "paused" : "polled",
                        record.ms, qPrintable(record.diagnostics[kDiagBackoff]),
                        qPrintable(record.deviceError));
        return record;
    };

    // Phase 1: the dead device's first polls.
    std::vector<PollRecord> deadPolls;
    double deadSumMs = 0;
    int attempts = 0;
    for (int i = 0; i < options.deadPolls; ++i) {
        deadPolls.push_back(nextPoll());
        deadSumMs += deadPolls.back().ms;
        if (!deadPolls.back().paused) ++attempts;
    }
    const std::string cmd = command(options, 6,
                                    format(" --dead-polls %d --interval-ms %d --backoff-max-ms %d",
                                           options.deadPolls, options.intervalMs, options.backoffMaxMs));
    Row deadRow;
    deadRow.id = "6a";
    deadRow.title = format("Dead device (SYNs unanswered), polls %d ms apart, defaults", options.intervalMs);
    deadRow.addAll(deadPolls, kDeadItems);
    deadRow.command = cmd;
    rows.push_back(deadRow);
    goals.push_back({"6",
                     format("%d polls of the dead device cost <= %.1f s in all", options.deadPolls,
                            kDeadBudgetMs / kMsPerSecond),
                     format("%.0f ms in all: %d connect attempt(s), %d poll(s) refused in a pause", deadSumMs,
                            attempts, options.deadPolls - attempts),
                     deadSumMs <= kDeadBudgetMs});

    // Phase 2: poll on until a connect attempt has set the longest pause, so the device comes back at the
    // worst moment; then it comes back on the same port.
    const qint64 longestPauseS = (options.backoffMaxMs + kMsPerSecond - 1) / kMsPerSecond;
    std::vector<PollRecord> laterPolls;
    bool atLongest = false;
    const auto reachBy =
        Clock::now() + std::chrono::milliseconds(kLongestPauseReachFactor * options.backoffMaxMs +
                                                 kLongestPauseReachSlackMs);
    while (!atLongest && Clock::now() < reachBy) {
        PollRecord record = nextPoll();
        atLongest = !record.paused && record.diagnostics[kDiagBackoff].toLongLong() >= longestPauseS;
        laterPolls.push_back(std::move(record));
    }
    hole.stop();
    modbus_sim::Simulator simulator;
    const bool revived = atLongest && startSimulator(&simulator, "dead device coming back", port);
    const auto cameBack = Clock::now();
    double recoveryMs = -1;
    std::vector<PollRecord> recoveryPolls;
    if (revived) {
        const auto giveUp = cameBack + std::chrono::milliseconds(options.backoffMaxMs + kRecoveryGraceMs +
                                                                 kRecoveryWaitBeyondGoalMs);
        while (Clock::now() < giveUp) {
            recoveryPolls.push_back(nextPoll());
            if (recoveryPolls.back().complete) {
                recoveryMs = bench::elapsedUs(cameBack) / kMsPerSecond;
                break;
            }
        }
    }
    plugin.stopPlugin();
    Row backRow;
    backRow.id = "6b";
    backRow.title = format("It comes back on the same port at the longest pause, backoff_max_ms %d",
                           options.backoffMaxMs);
    backRow.addAll(recoveryPolls, kDeadItems);
    backRow.connections = revived ? simulator.acceptedConnections() : 0;
    backRow.command = cmd;
    rows.push_back(backRow);
    simulator.stop();
    const double recoveryGoalMs = options.backoffMaxMs + kRecoveryGraceMs;
    std::string measured;
    if (!atLongest)
        measured = "the longest pause was never reached";
    else if (!revived)
        measured = "the port could not be taken over by the simulator";
    else if (recoveryMs < 0)
        measured = format("no successful poll within %.0f ms", recoveryGoalMs + kRecoveryWaitBeyondGoalMs);
    else
        measured =
            format("%.0f ms after %zu further poll(s) of the dead device", recoveryMs, laterPolls.size());
    goals.push_back(
        {"6",
         format("first successful poll within backoff_max_ms + 1 s = %.0f ms of the device coming "
                "back",
                recoveryGoalMs),
         measured, recoveryMs >= 0 && recoveryMs <= recoveryGoalMs});
}

// ---------------------------------------------------------------------------------------------------------

void printResults() {
    std::printf(
        "\n| # | Scenario | Devices | Polls complete | Items valued | Connections opened | Poll median ms "
        "| Poll worst ms |\n|---|---|---|---|---|---|---|---|\n");
    for (const Row& row : rows) {
        const bench::Summary times = bench::summarize(row.pollMs);
        std::string connections = std::to_string(row.connections);
        if (row.rejected > 0) connections += format(" (+%d rejected)", row.rejected);
        std::printf("| %s | %s | %d | %d/%d (%.1f %%) | %ld/%ld | %s | %.1f | %.1f |\n", row.id.c_str(),
                    row.title.c_str(), row.devices, row.complete, row.polls, percent(row.complete, row.polls),
                    row.valued, row.asked, connections.c_str(), times.median, times.max);
    }
    std::printf("\n| # | Goal | Measured | Met |\n|---|---|---|---|\n");
    for (const Goal& goal : goals)
        std::printf("| %s | %s | %s | %s |\n", goal.id.c_str(), goal.goal.c_str(), goal.measured.c_str(),
                    goal.met ? "met" : "MISSED");
    std::printf("\n");
    std::string last;
    for (const Row& row : rows) {
        if (row.command == last) continue;
        last = row.command;
        std::printf("Reproduce %s: %s\n", row.id.c_str(), row.command.c_str());
    }
}

// The command line as the user gave it: without the namespace the run re-executed itself in.
void printCommand(int argc, char** argv) {
    std::vector<char*> shown;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--in-netns") == 0) {
            ++i;
            continue;
        }
        shown.push_back(argv[i]);
    }
    bench::printCommand(static_cast<int>(shown.size()), shown.data());
}

// ---------------------------------------------------------------------------------------------------------
// The namespace: created here, the run re-executed inside it, removed whatever became of the run.

volatile sig_atomic_t childPid = 0;

void forwardSignal(int signal) {
    if (childPid > 0) ::kill(childPid, signal);
}

bool runQuietly(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// -1 when the namespace could not be made (the caller runs on loopback instead); else the run's exit status.
int runInNamespace(int argc, char** argv) {
    const std::string name = "zfb" + std::to_string(::getpid());
    if (!runQuietly("ip netns add " + name)) return -1;
    if (!runQuietly("ip -n " + name + " link set lo up")) {
        runQuietly("ip netns del " + name);
        return -1;
    }
    struct sigaction forward {};
    forward.sa_handler = forwardSignal;
    sigemptyset(&forward.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(signal, &forward, nullptr);

    // `ip netns exec` resolves a relative path from the same working directory; a bare name from PATH.
    std::string self = argv[0];
    if (self.find('/') == std::string::npos) {
        char path[PATH_MAX] = {};
        const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
        if (length > 0) self.assign(path, static_cast<size_t>(length));
    }
    std::vector<std::string> arguments = {"ip", "netns", "exec", name, self};
    for (int i = 1; i < argc; ++i) arguments.push_back(argv[i]);
    arguments.push_back("--in-netns");
    arguments.push_back(name);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);

    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execvp("ip", pointers.data());
        _exit(127);
    }
    int status = 0;
    if (pid > 0) {
        childPid = pid;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    childPid = 0;
    runQuietly("ip netns del " + name);
    if (pid < 0) return 1;
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parseOptions(argc, argv);
    if (options.netns.empty() && !options.loopback && ::geteuid() == 0) {
        const int status = runInNamespace(argc, argv);
        if (status >= 0) return status;
        std::printf("field_bench: could not create a network namespace; running on the machine's loopback\n");
    }
    QCoreApplication application(argc, argv);
    std::printf("field_bench: plant-network scenarios, build type %s%s\n", ZELT_BUILD_TYPE,
                options.quick ? ", quick run" : "");
    if (!options.netns.empty())
        std::printf(
            "Network: namespace %s, created for this run (its own loopback 127.0.0.1; removed at the end)\n",
            options.netns.c_str());
    else
        std::printf("Network: the machine's loopback 127.0.0.1 (%s)\n",
                    ::geteuid() == 0 ? "no namespace" : "not root: no namespace");
    std::fflush(stdout);

    using Scenario = void (*)(const Options&);
    const Scenario scenarios[] = {scenarioGateway, scenarioDeadUnit, scenarioPause,
                                  scenarioBusy,    scenarioLate,     scenarioDead};
    for (int i = 0; i < static_cast<int>(sizeof scenarios / sizeof scenarios[0]) && !setupFailed; ++i) {
        if (!wanted(options, i + 1)) continue;
        const auto started = Clock::now();
        scenarios[i](options);
        std::printf("scenario %d done in %.1f s\n", i + 1, bench::elapsedUs(started) / 1e6);
        std::fflush(stdout);
    }
    printResults();
    printCommand(argc, argv);
    return setupFailed ? 1 : 0;
}
