// A long run against misbehaving devices: 8 devices polled (and now and then written) from 8 host threads
// while their simulators restart, stall, reset connections and answer with exceptions, one device and one
// fault at a time. Prints the success rate of polls and writes under each fault kind, how long each device
// took to poll successfully again after a restart, and the process's memory, descriptors and threads; exits
// non-zero when a device never recovers or when descriptors, threads or memory grew over the run.
//
// The simulators run in a child process forked first, driven over a pipe, so that every descriptor and thread
// counted here is the plugin's or the host's.
//
// Usage: soak [--polls N] [--devices N] [--fault-every-ms N] [--pace-ms N] [--write-only N | --no-write-only]
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QString>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_items.h"
#include "bench/bench_support.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

constexpr int kDefaultPolls = 20000;
constexpr int kDefaultDevices = 8;
constexpr int kDefaultFaultEveryMs = 250;
constexpr int kDefaultPaceMs = 4;
constexpr int kDefaultWriteOnly = 1;  // the last device is only written, never polled
constexpr int kFaultWindowMs = 150;
constexpr int kRestartDownMs = 50;
constexpr int kItemsPerDevice = 10;
constexpr int kWriteItems = 2;
constexpr int kWriteEvery = 10;  // every tenth batch of a thread is a write
constexpr int kFloatRegisters = 2;
constexpr int kFirstWriteRegister = 40101;
constexpr int kExceptionServerFailure = 4;
constexpr int kSettleAttempts = 20;
constexpr long kRssToleranceKiB = 1024;  // allocator noise: arenas and free lists settle in steps
constexpr int kMaxDevices = 64;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers hold freed memory back (quarantine, shadow), so RSS grows whatever the plugin does.
constexpr bool kJudgeRss = false;
#else
constexpr bool kJudgeRss = true;
#endif
#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer starts a background thread of its own during the run.
constexpr bool kJudgeThreads = false;
#else
constexpr bool kJudgeThreads = true;
#endif

enum Kind { kNone, kRestart, kStall, kReset, kException, kKinds };
const char* const kKindNames[kKinds] = {"none", "restart", "stall", "reset", "exception"};
constexpr int kInjectedKinds = kKinds - 1;

// ---- child: the simulators, driven by one-line commands ----

[[noreturn]] void runSimulators(int deviceCount, int commandFd, int answerFd) {
    std::vector<std::unique_ptr<modbus_sim::Simulator>> simulators;
    std::string ports;
    for (int device = 0; device < deviceCount; ++device) {
        auto simulator = std::make_unique<modbus_sim::Simulator>();
        if (!simulator->start()) _exit(1);
        bench::fillSimulator(simulator.get());
        ports += std::to_string(simulator->port()) + ' ';
        simulators.push_back(std::move(simulator));
    }
    ports += '\n';
    if (::write(answerFd, ports.data(), ports.size()) != static_cast<ssize_t>(ports.size())) _exit(1);
    FILE* commands = ::fdopen(commandFd, "r");
    char line[128];
    while (commands && std::fgets(line, sizeof(line), commands)) {
        char verb[32] = {};
        int device = -1;
        int argument = 0;
        std::sscanf(line, "%31s %d %d", verb, &device, &argument);
        bool ok = device >= 0 && device < deviceCount;
        if (ok) {
            modbus_sim::Simulator& simulator = *simulators[device];
            simulator.clearRequestLog();
            modbus_sim::FaultRule rule;
            if (std::strcmp(verb, "restart") == 0) {
                const uint16_t port = simulator.port();
                simulator.stop();
                std::this_thread::sleep_for(std::chrono::milliseconds(kRestartDownMs));
                ok = simulator.start(QStringLiteral("127.0.0.1"), port);
            } else if (std::strcmp(verb, "fault") == 0 && argument > kRestart && argument < kKinds) {
                rule.kind = argument == kStall   ? modbus_sim::FaultKind::Silence
                            : argument == kReset ? modbus_sim::FaultKind::Reset
                                                 : modbus_sim::FaultKind::Exception;
                rule.exceptionCode = kExceptionServerFailure;
                simulator.addFault(rule);
            } else if (std::strcmp(verb, "clear") == 0) {
                simulator.clearFaults();
            } else {
                ok = false;
            }
        }
        const char answer = ok ? 'y' : 'n';
        if (::write(answerFd, &answer, 1) != 1) break;
    }
    for (auto& simulator : simulators) simulator->stop();
    _exit(0);
}

class SimulatorProcess {
public:
    bool start(int deviceCount) {
        int commands[2];
        int answers[2];
        if (::pipe(commands) != 0 || ::pipe(answers) != 0) return false;
        child = ::fork();
        if (child < 0) return false;
        if (child == 0) {
            ::close(commands[1]);
            ::close(answers[0]);
            runSimulators(deviceCount, commands[0], answers[1]);
        }
        ::close(commands[0]);
        ::close(answers[1]);
        commandFd = commands[1];
        answerFd = answers[0];
        std::string line;
        char byte;
        while (::read(answerFd, &byte, 1) == 1 && byte != '\n') line += byte;
        size_t position = 0;
        for (int device = 0; device < deviceCount; ++device) {
            const int port = std::atoi(line.c_str() + position);
            if (port <= 0) return false;
            ports.push_back(static_cast<uint16_t>(port));
            position = line.find(' ', position);
            if (position == std::string::npos) return false;
            ++position;
        }
        return true;
    }
    bool command(const char* verb, int device, int argument = 0) {
        std::lock_guard<std::mutex> lock(mutex);
        const std::string line =
            std::string(verb) + ' ' + std::to_string(device) + ' ' + std::to_string(argument) + '\n';
        if (::write(commandFd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return false;
        char answer = 0;
        return ::read(answerFd, &answer, 1) == 1 && answer == 'y';
    }
    void stop() {
        if (commandFd >= 0) ::close(commandFd);
        if (answerFd >= 0) ::close(answerFd);
        commandFd = answerFd = -1;
        int status = 0;
        if (child > 0) ::waitpid(child, &status, 0);
        child = -1;
    }
    std::vector<uint16_t> ports;

private:
    std::mutex mutex;
    pid_t child = -1;
    int commandFd = -1;
    int answerFd = -1;
};

// ---- parent: the host threads and the fault schedule ----

struct Tally {
    std::atomic<long> polls{0};
    std::atomic<long> pollsOk{0};
    std::atomic<long> writes{0};
    std::atomic<long> writesOk{0};
};

struct DeviceState {
    std::atomic<int> kind{kNone};
    std::atomic<bool> awaitingRecovery{false};
    std::atomic<long long> restartedAtUs{0};  // 0 until the simulator is listening again
};

long long nowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

QString firstError(const LogList& list) {
    if (!list.device.lastError.isEmpty()) return list.device.lastError;
    for (const DataItem* dataItem : list.dataItems)
        if (!dataItem->item.lastError.isEmpty())
            return dataItem->item.name + QStringLiteral(": ") + dataItem->item.lastError;
    return QStringLiteral("(no error text)");
}

bool noItemErrors(const LogList& list) {
    for (const DataItem* dataItem : list.dataItems)
        if (!dataItem->item.lastError.isEmpty()) return false;
    return true;
}

void clearItemErrors(LogList* list) {
    for (DataItem* dataItem : list->dataItems) dataItem->item.lastError.clear();
    list->device.lastError.clear();
}

}  // namespace

int main(int argc, char** argv) {
    const int targetPolls = bench::intOption(argc, argv, "--polls", kDefaultPolls);
    const int deviceCount = std::min(bench::intOption(argc, argv, "--devices", kDefaultDevices), kMaxDevices);
    const int faultEveryMs = bench::intOption(argc, argv, "--fault-every-ms", kDefaultFaultEveryMs);
    const int paceMs = bench::intOption(argc, argv, "--pace-ms", kDefaultPaceMs);
    // --write-only 0 is taken as the default by intOption, so "none" is spelled --no-write-only.
    const int writeOnlyCount =
        bench::hasFlag(argc, argv, "--no-write-only")
            ? 0
            : std::min(bench::intOption(argc, argv, "--write-only", kDefaultWriteOnly), deviceCount);

    SimulatorProcess simulators;
    if (!simulators.start(deviceCount)) {
        std::fprintf(stderr, "the simulators did not start\n");
        simulators.stop();
        return 1;
    }
    QCoreApplication application(argc, argv);
    std::printf(
        "soak: %d devices (%d of them write-only), %d polls and writes in all, a fault every %d ms, build "
        "type %s\n",
        deviceCount, writeOnlyCount, targetPolls, faultEveryMs, ZELT_BUILD_TYPE);

    std::vector<std::unique_ptr<plugin_test::Batch>> polls;
    std::vector<std::unique_ptr<plugin_test::Batch>> writes;
    std::vector<ItemInstancePlugin> writeItems;
    for (int i = 0; i < kWriteItems; ++i)
        writeItems.push_back(bench::makeItem(i, bench::autoAddress(kFirstWriteRegister + i * kFloatRegisters),
                                             bench::kTypeFloat));
    for (int device = 0; device < deviceCount; ++device) {
        const DeviceInstancePlugin record =
            plugin_test::makeDevice(device + 1, simulators.ports[device], bench::deviceDefaults());
        polls.push_back(bench::makeBatch(
            record, bench::holdingItems(kItemsPerDevice, bench::kTypeFloat, kFloatRegisters)));
        writes.push_back(bench::makeBatch(record, writeItems));
        for (DataItem* dataItem : writes.back()->list.dataItems)
            dataItem->values.insert(QStringLiteral("value"), QStringLiteral("12.5"));
    }

    Modbus plugin;
    plugin.init();
    bool ok = true;
    for (auto& batch : polls) ok = plugin.readData(&batch->list) && ok;
    for (auto& batch : writes) ok = plugin.writeData(&batch->list) && ok;
    zelt_standin::Host::instance().clearLogs();
    if (!ok) {
        std::fprintf(stderr, "the warm-up poll or write failed\n");
        simulators.stop();
        return 1;
    }
    const long startRss = bench::rssKiB();
    const long startFds = bench::openDescriptors();
    const long startThreads = bench::threadCount();

    std::array<Tally, kKinds> tallies;
    std::vector<DeviceState> states(deviceCount);
    std::mutex recoveriesMutex;
    std::vector<double> recoveriesMs;
    std::atomic<long> done{0};
    std::atomic<long> settledRss{0};
    std::atomic<bool> stop{false};
    const auto startTime = std::chrono::steady_clock::now();

    std::vector<std::thread> pollers;
    for (int device = 0; device < deviceCount; ++device) {
        pollers.emplace_back([&, device] {
            DeviceState& state = states[device];
            const bool writeOnly = device >= deviceCount - writeOnlyCount;
            for (long iteration = 0; done.load() < targetPolls; ++iteration) {
                const int kind = state.kind.load();
                const bool write = writeOnly || iteration % kWriteEvery == kWriteEvery - 1;
                LogList& list = write ? writes[device]->list : polls[device]->list;
                clearItemErrors(&list);
                const bool success =
                    (write ? plugin.writeData(&list) : plugin.readData(&list)) && noItemErrors(list);
                Tally& tally = tallies[kind];
                (write ? tally.writes : tally.polls)++;
                if (success) (write ? tally.writesOk : tally.pollsOk)++;
                if ((!write || writeOnly) && success && state.awaitingRecovery.load()) {
                    const long long restartedAt = state.restartedAtUs.load();
                    if (restartedAt != 0) {
                        std::lock_guard<std::mutex> lock(recoveriesMutex);
                        recoveriesMs.push_back(std::max(0LL, nowUs() - restartedAt) / 1000.0);
                        state.awaitingRecovery = false;
                    }
                }
                if (++done == targetPolls / 4) settledRss = bench::rssKiB();
                std::this_thread::sleep_for(std::chrono::milliseconds(paceMs));
            }
        });
    }

    int events = 0;
    int restarts = 0;
    int failedCommands = 0;
    std::thread injector([&] {
        while (!stop.load()) {
            const int device = events % deviceCount;
            const int kind = 1 + (events / deviceCount + events) % kInjectedKinds;
            DeviceState& state = states[device];
            state.kind = kind;
            if (kind == kRestart) {
                state.restartedAtUs = 0;
                state.awaitingRecovery = true;
                ++restarts;
                if (!simulators.command("restart", device)) ++failedCommands;
                state.restartedAtUs = nowUs();
                std::this_thread::sleep_for(std::chrono::milliseconds(kFaultWindowMs));
            } else {
                if (!simulators.command("fault", device, kind)) ++failedCommands;
                std::this_thread::sleep_for(std::chrono::milliseconds(kFaultWindowMs));
                if (!simulators.command("clear", device)) ++failedCommands;
            }
            state.kind = kNone;
            ++events;
            zelt_standin::Host::instance().clearLogs();
            for (int slept = kFaultWindowMs; slept < faultEveryMs && !stop.load(); slept += 10)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    for (std::thread& poller : pollers) poller.join();
    stop = true;
    injector.join();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - startTime).count();

    // Every device must answer again once the faults are gone; a write-only device is only written, so that
    // no poll mends its connection for it.
    int unrecovered = 0;
    for (int device = 0; device < deviceCount; ++device) {
        const bool writeOnly = device >= deviceCount - writeOnlyCount;
        LogList& list = writeOnly ? writes[device]->list : polls[device]->list;
        bool recovered = false;
        for (int attempt = 0; attempt < kSettleAttempts && !recovered; ++attempt) {
            clearItemErrors(&list);
            recovered = (writeOnly ? plugin.writeData(&list) : plugin.readData(&list)) && noItemErrors(list);
        }
        clearItemErrors(&writes[device]->list);
        recovered =
            recovered && plugin.writeData(&writes[device]->list) && noItemErrors(writes[device]->list);
        if (!recovered) {
            std::fprintf(stderr, "device %d%s did not recover after %d attempts: %s\n", device + 1,
                         writeOnly ? " (write-only)" : "", kSettleAttempts, qPrintable(firstError(list)));
            ++unrecovered;
        }
    }
    zelt_standin::Host::instance().clearLogs();
    const long endRss = bench::rssKiB();
    const long peakRss = bench::peakRssKiB();
    const long endFds = bench::openDescriptors();
    const long endThreads = bench::threadCount();
    plugin.stopPlugin();
    simulators.stop();

    std::printf(
        "\n%d fault events in %.1f s\n\n| Fault kind | Polls | Successful | Rate | Writes | Successful | "
        "Rate |\n"
        "|---|---|---|---|---|---|---|\n",
        events, seconds);
    for (int kind = 0; kind < kKinds; ++kind) {
        const Tally& tally = tallies[kind];
        std::printf("| %s | %ld | %ld | %.1f %% | %ld | %ld | %.1f %% |\n", kKindNames[kind],
                    tally.polls.load(), tally.pollsOk.load(),
                    tally.polls ? 100.0 * tally.pollsOk / tally.polls : 0.0, tally.writes.load(),
                    tally.writesOk.load(), tally.writes ? 100.0 * tally.writesOk / tally.writes : 0.0);
    }
    const bench::Summary recovery = bench::summarize(recoveriesMs);
    std::printf(
        "\nRecovery after a restart (simulator listening again to the first successful poll, or write on a "
        "write-only device): %zu of %d restarts recovered during the run, median %.1f ms, min %.1f ms, max "
        "%.1f "
        "ms\n",
        recoveriesMs.size(), restarts, recovery.median, recovery.min, recovery.max);
    const long settled = settledRss.load() > 0 ? settledRss.load() : startRss;
    const bool threadsGrew = kJudgeThreads && endThreads > startThreads;
    const bool rssGrew = kJudgeRss && endRss > settled + kRssToleranceKiB;
    std::printf("\n| Resource | Start | End | |\n|---|---|---|---|\n");
    std::printf("| RSS (KiB) | %ld (after a quarter of the run: %ld) | %ld (peak %ld) | %s |\n", startRss,
                settled, endRss, peakRss,
                !kJudgeRss ? "not judged under a sanitizer"
                : rssGrew  ? "GREW"
                           : "steady");
    std::printf("| Descriptors | %ld | %ld | %s |\n", startFds, endFds,
                endFds > startFds ? "GREW" : "steady");
    std::printf("| Threads | %ld | %ld | %s |\n", startThreads, endThreads,
                !kJudgeThreads ? "not judged under ThreadSanitizer"
                : threadsGrew  ? "GREW"
                               : "steady");
    if (failedCommands) std::printf("%d simulator commands failed\n", failedCommands);
    bench::printCommand(argc, argv);
    const bool failed = unrecovered > 0 || rssGrew || endFds > startFds || threadsGrew || failedCommands > 0;
    return failed ? 1 : 0;
}
