// The discovery run driven by a scripted transport: worker pool, stop conditions, filtering and log lines.
#include "discovery/discovery_run.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QTemporaryFile>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "discovery/candidate.h"
#include "discovery/constants.h"
#include "discovery/discovery_run_internal.h"
#include "discovery/options.h"
#include "discovery/transport.h"

namespace {

using ModbusDiscovery::Candidate;
using ModbusDiscovery::IdentifyResult;
using ModbusDiscovery::Options;

const char kDebugVariable[] = "ZELT_DISCOVERY_DEBUG";
const QString kProbesLine502 = QStringLiteral(
    "Modbus TCP discovery probes TCP 502 on the selected subnet, then reads device identification if "
    "available and "
    "Report Slave ID. ");

struct Call {
    QString host;
    quint16 port = 0;
    QList<quint8> unitIds;
    int connectTimeoutMs = 0;
    int readTimeoutMs = 0;
    bool reachableGiven = false;
};

// Answers from a table and records every call, the distinct calling threads and the largest number of calls
// in progress at once. With `gatherCount` set, each call waits (bounded) until that many calls are in
// progress, so that every worker the run starts gets to call before any finishes. `onCall` runs inside every
// call with its 0-based index, outside the lock.
class FakeTransport : public ModbusDiscovery::Transport {
public:
    QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs, bool* reachable) override {
        std::unique_lock<std::mutex> lock(mutex);
        calls.push_back({host, port, unitIds, connectTimeoutMs, readTimeoutMs, reachable != nullptr});
        threads.insert(std::this_thread::get_id());
        ++active;
        maxActive = std::max(maxActive, active);
        changed.notify_all();
        const int index = static_cast<int>(calls.size()) - 1;
        if (gatherCount > 0) {
            changed.wait_for(lock, std::chrono::seconds(60), [this] { return maxActive >= gatherCount; });
        }
        lock.unlock();
        if (onCall) {
            onCall(index);
        }
        lock.lock();
        --active;
        if (throwOnCall) {
            throw std::runtime_error("transport failure");
        }
        return answers.value(QStringLiteral("%1:%2").arg(host).arg(port));
    }

    void answer(const QString& host, quint16 port, const QList<IdentifyResult>& results) {
        answers.insert(QStringLiteral("%1:%2").arg(host).arg(port), results);
    }

    std::vector<Call> recordedCalls() const {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    size_t distinctThreads() const {
        std::lock_guard<std::mutex> lock(mutex);
        return threads.size();
    }
    int largestConcurrency() const {
        std::lock_guard<std::mutex> lock(mutex);
        return maxActive;
    }

    int gatherCount = 0;
    std::function<void(int)> onCall;
    bool throwOnCall = false;

private:
    mutable std::mutex mutex;
    std::condition_variable changed;
    QMap<QString, QList<IdentifyResult>> answers;
    std::vector<Call> calls;
    std::set<std::thread::id> threads;
    int active = 0;
    int maxActive = 0;
};

IdentifyResult answerFrom(quint8 unit, const QString& model, const QString& vendor = QString()) {
    IdentifyResult result;
    result.ok = true;
    result.unitId = unit;
    result.modelName = model;
    result.vendor = vendor;
    result.source = QStringLiteral("device-id");
    return result;
}

QStringList hostsInTen(int count) {
    QStringList hosts;
    for (int i = 0; i < count; ++i) {
        hosts.append(QStringLiteral("10.1.%1.%2").arg(i / 250).arg(i % 250 + 1));
    }
    return hosts;
}

Options optionsFor(const QStringList& hosts) {
    Options options;
    options.networkInterface = QStringLiteral("veth-test");
    options.tcpPorts = {502};
    options.unitIds = {1};
    options.tcpHosts = hosts;
    options.timeoutMs = 10000;
    return options;
}

// Sends standard error to a temporary file for the lifetime of the object and hands back what was written.
class StderrCapture {
public:
    StderrCapture() {
        file.open();
        std::fflush(stderr);
        saved = ::dup(STDERR_FILENO);
        ::dup2(file.handle(), STDERR_FILENO);
    }
    ~StderrCapture() { restore(); }

    QString text() {
        restore();
        file.seek(0);
        return QString::fromUtf8(file.readAll());
    }

private:
    void restore() {
        if (saved >= 0) {
            std::fflush(stderr);
            ::dup2(saved, STDERR_FILENO);
            ::close(saved);
            saved = -1;
        }
    }

    QTemporaryFile file;
    int saved = -1;
};

// Sets or clears the debug variable for one test and puts back what was there.
class DebugVariable {
public:
    explicit DebugVariable(const char* value) : hadValue(qEnvironmentVariableIsSet(kDebugVariable)) {
        previous = qgetenv(kDebugVariable);
        if (value) {
            qputenv(kDebugVariable, value);
        } else {
            qunsetenv(kDebugVariable);
        }
    }
    ~DebugVariable() {
        if (hadValue) {
            qputenv(kDebugVariable, previous);
        } else {
            qunsetenv(kDebugVariable);
        }
    }

private:
    bool hadValue;
    QByteArray previous;
};

QList<Candidate> run(const Options& options, FakeTransport& transport, QStringList* log = nullptr,
                     std::atomic<bool>* cancel = nullptr) {
    return ModbusDiscovery::discoverDevices(options, transport, log, cancel);
}

TEST(DiscoveryRunTest, SubnetScanOffReturnsAfterHeaderAndProbesLine) {
    DebugVariable debug("1");
    FakeTransport transport;
    Options options = optionsFor({QStringLiteral("10.1.0.1")});
    options.tcpSubnetScan = false;
    options.networkInterface.clear();
    options.tcpPorts = {502, 1502};
    options.unitIds = {1, 2};
    options.timeoutMs = 5000;
    QStringList log;
    StderrCapture capture;
    const QList<Candidate> result = run(options, transport, &log);
    const QString errors = capture.text();

    EXPECT_TRUE(result.isEmpty());
    EXPECT_TRUE(transport.recordedCalls().empty());
    EXPECT_EQ(log, QStringList{
                       QStringLiteral("Modbus TCP discovery probes TCP 502,1502 on the selected subnet, then "
                                      "reads device identification if available and Report Slave ID. ")});
    EXPECT_EQ(errors, QStringLiteral(
                          "Modbus TCP discovery interface=all IPv4 tcp=502,1502 unit=1,2 timeout_ms=5000\n"));
}

TEST(DiscoveryRunTest, OnlyLoopbackAndAnyAddressGiveNoHostsAndNoCalls) {
    DebugVariable debug("");
    FakeTransport transport;
    const Options options = optionsFor(
        {QStringLiteral("127.0.0.1"), QStringLiteral("0.0.0.0"), QString(), QStringLiteral("127.10.20.30")});
    QStringList log;
    StderrCapture capture;
    const QList<Candidate> result = run(options, transport, &log);
    const QString errors = capture.text();

    EXPECT_TRUE(result.isEmpty());
    EXPECT_TRUE(transport.recordedCalls().empty());
    EXPECT_EQ(transport.distinctThreads(), 0u);
    EXPECT_EQ(log, QStringList{kProbesLine502});
    EXPECT_EQ(errors,
              QStringLiteral("Modbus TCP discovery interface=veth-test tcp=502 unit=1 timeout_ms=10000\n"
                             "Modbus TCP TCP subnet scan hosts=0 ports=502\n"));
}

TEST(DiscoveryRunTest, OnlyLoopbackAndAnyAddressStartNoWorker) {
    FakeTransport transport;
    int starts = 0;
    const ModbusDiscovery::WorkerStarter starter = [&starts](std::function<void()> work) {
        ++starts;
        return std::thread(std::move(work));
    };
    const Options options = optionsFor(
        {QStringLiteral("127.0.0.1"), QStringLiteral("0.0.0.0"), QString(), QStringLiteral("127.10.20.30")});
    QStringList log;
    const QList<Candidate> result =
        ModbusDiscovery::discoverDevices(options, transport, &log, nullptr, starter);
    EXPECT_TRUE(result.isEmpty());
    EXPECT_EQ(starts, 0);
    EXPECT_EQ(log, QStringList{kProbesLine502});

    // The same starter counts the workers of a run that has a host to probe.
    const QList<Candidate> probed = ModbusDiscovery::discoverDevices(optionsFor({QStringLiteral("10.1.0.7")}),
                                                                     transport, nullptr, nullptr, starter);
    EXPECT_TRUE(probed.isEmpty());
    EXPECT_EQ(starts, 1);
}

TEST(DiscoveryRunTest, FilteringKeepsOtherHostsInOrder) {
    DebugVariable debug("1");
    FakeTransport transport;
    const Options options = optionsFor({QStringLiteral("127.0.0.1"), QStringLiteral("10.1.0.7"),
                                        QStringLiteral("0.0.0.0"), QStringLiteral("10.1.0.8"), QString()});
    StderrCapture capture;
    run(options, transport);
    const QString errors = capture.text();

    std::vector<QString> hosts;
    for (const Call& call : transport.recordedCalls()) {
        hosts.push_back(call.host);
    }
    std::sort(hosts.begin(), hosts.end());
    EXPECT_EQ(hosts, (std::vector<QString>{QStringLiteral("10.1.0.7"), QStringLiteral("10.1.0.8")}));
    EXPECT_EQ(errors,
              QStringLiteral("Modbus TCP discovery interface=veth-test tcp=502 unit=1 timeout_ms=10000\n"
                             "Modbus TCP TCP subnet scan hosts=2 ports=502\n"
                             "Modbus TCP discovery importable=0\n"));
}

TEST(DiscoveryRunTest, WorkerCountFollowsHostCountUpToTheBound) {
    struct Row {
        int hosts;
        int workers;
    };
    for (const Row row : {Row{1, 1}, Row{3, 3}, Row{48, 48}, Row{300, ModbusDiscovery::kMaxSynWorkers}}) {
        SCOPED_TRACE(row.hosts);
        FakeTransport transport;
        transport.gatherCount = row.workers;
        const QStringList hosts = hostsInTen(row.hosts);
        const QList<Candidate> result = run(optionsFor(hosts), transport);

        EXPECT_TRUE(result.isEmpty());
        EXPECT_EQ(transport.distinctThreads(), static_cast<size_t>(row.workers));
        EXPECT_EQ(transport.largestConcurrency(), row.workers);
        // Every host is taken by exactly one worker.
        std::vector<QString> probed;
        for (const Call& call : transport.recordedCalls()) {
            probed.push_back(call.host);
        }
        std::sort(probed.begin(), probed.end());
        std::vector<QString> expected(hosts.begin(), hosts.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(probed, expected);
    }
}

TEST(DiscoveryRunTest, ProbesEveryPortWithTheScanBudgets) {
    FakeTransport transport;
    Options options = optionsFor({QStringLiteral("10.1.0.1")});
    options.tcpPorts = {502, 1502, 8502};
    options.unitIds = {1, 247, 0};
    run(options, transport);

    const std::vector<Call> calls = transport.recordedCalls();
    ASSERT_EQ(calls.size(), 3u);
    const quint16 ports[] = {502, 1502, 8502};
    for (size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(calls[i].host, "10.1.0.1");
        EXPECT_EQ(calls[i].port, ports[i]);
        EXPECT_EQ(calls[i].unitIds, (QList<quint8>{1, 247, 0}));
        EXPECT_EQ(calls[i].connectTimeoutMs, 80);
        EXPECT_EQ(calls[i].readTimeoutMs, 400);
        EXPECT_FALSE(calls[i].reachableGiven);
    }
}

TEST(DiscoveryRunTest, CancelBeforeTheCallGivesNothingButStillLogsImportable) {
    DebugVariable debug("1");
    FakeTransport transport;
    transport.answer(QStringLiteral("10.1.0.1"), 502, {answerFrom(1, QStringLiteral("X1"))});
    std::atomic<bool> cancel{true};
    StderrCapture capture;
    const QList<Candidate> result = run(optionsFor(hostsInTen(10)), transport, nullptr, &cancel);
    const QString errors = capture.text();

    EXPECT_TRUE(result.isEmpty());
    EXPECT_TRUE(transport.recordedCalls().empty());
    EXPECT_EQ(errors,
              QStringLiteral("Modbus TCP discovery interface=veth-test tcp=502 unit=1 timeout_ms=10000\n"
                             "Modbus TCP TCP subnet scan hosts=10 ports=502\n"
                             "Modbus TCP discovery importable=0\n"));
}

TEST(DiscoveryRunTest, CancelDuringTheRunStopsBeforeTheNextPort) {
    FakeTransport transport;
    Options options = optionsFor(hostsInTen(100));
    options.tcpPorts = {502, 1502};
    std::atomic<bool> cancel{false};
    // The cancel arrives while the first probe is under way; every worker may finish the probe it has begun,
    // none starts another.
    transport.onCall = [&cancel](int index) {
        if (index == 0) {
            cancel = true;
        }
    };
    const QList<Candidate> result = run(options, transport, nullptr, &cancel);

    const std::vector<Call> calls = transport.recordedCalls();
    EXPECT_TRUE(result.isEmpty());
    EXPECT_GE(calls.size(), 1u);
    EXPECT_LE(calls.size(), static_cast<size_t>(ModbusDiscovery::kMaxSynWorkers));
    for (const Call& call : calls) {
        EXPECT_EQ(call.port, 502);
    }
}

TEST(DiscoveryRunTest, ZeroTimeoutProbesNothing) {
    DebugVariable debug("1");
    FakeTransport transport;
    Options options = optionsFor(hostsInTen(5));
    options.timeoutMs = 0;
    StderrCapture capture;
    const QList<Candidate> result = run(options, transport);
    const QString errors = capture.text();

    EXPECT_TRUE(result.isEmpty());
    EXPECT_TRUE(transport.recordedCalls().empty());
    EXPECT_TRUE(errors.endsWith(QStringLiteral("Modbus TCP discovery importable=0\n")))
        << errors.toStdString();
}

TEST(DiscoveryRunTest, DeadlineStopsWorkersBeforeTheirNextHostOrPort) {
    constexpr int kRunTimeoutMs = 3000;
    FakeTransport transport;
    // Every probe lasts until the run's deadline has passed for sure: it began after the run did, and it ends
    // a whole run timeout later.
    transport.onCall = [](int) { std::this_thread::sleep_for(std::chrono::milliseconds(kRunTimeoutMs + 1)); };
    Options options = optionsFor(hostsInTen(300));
    options.tcpPorts = {502, 1502};
    options.timeoutMs = kRunTimeoutMs;
    const auto started = std::chrono::steady_clock::now();
    run(options, transport);
    const auto elapsed = std::chrono::steady_clock::now() - started;

    const std::vector<Call> calls = transport.recordedCalls();
    // Each worker gets at most one probe in before the clock runs out: the second port is never reached.
    EXPECT_GE(calls.size(), 1u);
    EXPECT_LE(calls.size(), static_cast<size_t>(ModbusDiscovery::kMaxSynWorkers));
    for (const Call& call : calls) {
        EXPECT_EQ(call.port, 502);
    }
    EXPECT_LT(elapsed, std::chrono::seconds(60));  // hang guard
}

TEST(DiscoveryRunTest, CandidatesCarryHostPortUnitAndIdentification) {
    FakeTransport transport;
    IdentifyResult answer = answerFrom(3, QStringLiteral("X1"), QStringLiteral("ACME"));
    answer.version = QStringLiteral("2.1");
    answer.productCode = QStringLiteral("PC");
    transport.answer(QStringLiteral("10.1.0.2"), 502, {answer});
    const QList<Candidate> result = run(optionsFor(hostsInTen(4)), transport);

    ASSERT_EQ(result.size(), 1);
    const Candidate& candidate = result.at(0);
    EXPECT_EQ(candidate.address, "10.1.0.2");
    EXPECT_EQ(candidate.port, 502);
    EXPECT_EQ(candidate.unitId, 3);
    EXPECT_EQ(candidate.vendor, "ACME");
    EXPECT_EQ(candidate.modelName, "X1");
    EXPECT_EQ(candidate.version, "2.1");
    EXPECT_EQ(candidate.productCode, "PC");
    EXPECT_EQ(candidate.source, "tcp-scan");
    EXPECT_EQ(ModbusDiscovery::uidFor(candidate), "modbus_10_1_0_2_502_3");
}

TEST(DiscoveryRunTest, SameUnitTwiceOnOnePortGivesOneCandidate) {
    FakeTransport transport;
    transport.answer(QStringLiteral("10.1.0.1"), 502,
                     {answerFrom(1, QStringLiteral("First")), answerFrom(1, QStringLiteral("Second"))});
    const QList<Candidate> result = run(optionsFor({QStringLiteral("10.1.0.1")}), transport);

    ASSERT_EQ(result.size(), 1);
    EXPECT_EQ(result.at(0).modelName, "First");
}

TEST(DiscoveryRunTest, DeviceOnTwoPortsGivesTwoCandidates) {
    FakeTransport transport;
    transport.answer(QStringLiteral("10.1.0.1"), 502, {answerFrom(1, QStringLiteral("X1"))});
    transport.answer(QStringLiteral("10.1.0.1"), 1502, {answerFrom(1, QStringLiteral("X1"))});
    Options options = optionsFor({QStringLiteral("10.1.0.1")});
    options.tcpPorts = {502, 1502};
    const QList<Candidate> result = run(options, transport);

    ASSERT_EQ(result.size(), 2);
    EXPECT_EQ(ModbusDiscovery::uidFor(result.at(0)), "modbus_10_1_0_1_502_1");
    EXPECT_EQ(ModbusDiscovery::uidFor(result.at(1)), "modbus_10_1_0_1_1502_1");
}

TEST(DiscoveryRunTest, SameHostListedTwiceGivesOneCandidate) {
    FakeTransport transport;
    transport.answer(QStringLiteral("10.1.0.1"), 502, {answerFrom(1, QStringLiteral("X1"))});
    const QList<Candidate> result =
        run(optionsFor({QStringLiteral("10.1.0.1"), QStringLiteral("10.1.0.1")}), transport);

    EXPECT_EQ(transport.recordedCalls().size(), 2u);
    ASSERT_EQ(result.size(), 1);
    EXPECT_EQ(result.at(0).address, "10.1.0.1");
}

TEST(DiscoveryRunTest, ExistingUidsAreNotReturned) {
    DebugVariable debug("1");
    FakeTransport transport;
    transport.answer(QStringLiteral("10.1.0.1"), 502,
                     {answerFrom(1, QStringLiteral("Known")), answerFrom(2, QStringLiteral("New"))});
    transport.answer(QStringLiteral("10.1.0.2"), 502, {answerFrom(1, QStringLiteral("Other"))});
    Options options = optionsFor({QStringLiteral("10.1.0.1"), QStringLiteral("10.1.0.2")});
    options.existingUids =
        QStringList{QStringLiteral("modbus_10_1_0_1_502_1"), QStringLiteral("modbus_10_1_0_2_502_1")};
    StderrCapture capture;
    const QList<Candidate> result = run(options, transport);
    const QString errors = capture.text();

    ASSERT_EQ(result.size(), 1);
    EXPECT_EQ(result.at(0).modelName, "New");
    EXPECT_EQ(result.at(0).unitId, 2);
    EXPECT_TRUE(errors.endsWith(QStringLiteral("Modbus TCP discovery importable=1\n")))
        << errors.toStdString();
}

TEST(DiscoveryRunTest, ResultsFromManyWorkersAreAllCollected) {
    FakeTransport transport;
    const QStringList hosts = hostsInTen(120);
    for (const QString& host : hosts) {
        transport.answer(host, 502, {answerFrom(1, host)});
    }
    const QList<Candidate> result = run(optionsFor(hosts), transport);

    ASSERT_EQ(result.size(), hosts.size());
    QStringList found;
    for (const Candidate& candidate : result) {
        found.append(candidate.address);
        EXPECT_EQ(candidate.modelName, candidate.address);
    }
    found.sort();
    QStringList expected = hosts;
    expected.sort();
    EXPECT_EQ(found, expected);
}

TEST(DiscoveryRunTest, DebugVariableUnsetWritesNothingToStandardError) {
    DebugVariable debug(nullptr);
    FakeTransport transport;
    transport.answer(QStringLiteral("10.1.0.1"), 502, {answerFrom(1, QStringLiteral("X1"))});
    QStringList log;
    StderrCapture capture;
    const QList<Candidate> result = run(optionsFor(hostsInTen(3)), transport, &log);
    const QString errors = capture.text();

    EXPECT_EQ(result.size(), 1);
    EXPECT_EQ(errors, QString());
    EXPECT_EQ(log, QStringList{kProbesLine502});
}

TEST(DiscoveryRunTest, DebugLinesOfAFullRun) {
    DebugVariable debug("yes");
    FakeTransport transport;
    transport.answer(QStringLiteral("10.1.0.1"), 502, {answerFrom(1, QStringLiteral("X1"))});
    transport.answer(QStringLiteral("10.1.0.1"), 1502, {answerFrom(2, QStringLiteral("X2"))});
    Options options = optionsFor(hostsInTen(3));
    options.tcpPorts = {502, 1502};
    options.unitIds = {1, 2, 255};
    options.timeoutMs = 60000;
    StderrCapture capture;
    run(options, transport);
    const QString errors = capture.text();

    EXPECT_EQ(
        errors,
        QStringLiteral("Modbus TCP discovery interface=veth-test tcp=502,1502 unit=1,2,255 timeout_ms=60000\n"
                       "Modbus TCP TCP subnet scan hosts=3 ports=502,1502\n"
                       "Modbus TCP discovery importable=2\n"));
}

TEST(DiscoveryRunTest, NoLogListIsFine) {
    FakeTransport transport;
    Options options = optionsFor({});
    options.tcpSubnetScan = false;
    EXPECT_TRUE(run(options, transport, nullptr).isEmpty());
}

TEST(DiscoveryRunTest, FailingTransportEndsTheRunWithoutCrashing) {
    FakeTransport transport;
    transport.throwOnCall = true;
    EXPECT_TRUE(run(optionsFor(hostsInTen(5)), transport).isEmpty());
    EXPECT_EQ(transport.recordedCalls().size(), 5u);
}

TEST(DiscoveryRunTest, WorkerStartOutOfMemoryStopsAndJoinsTheStartedWorkers) {
    FakeTransport transport;
    std::mutex mutex;
    std::condition_variable changed;
    bool firstProbeBegun = false;
    bool startFailed = false;
    std::atomic<int> starts{0};
    std::atomic<int> ended{0};
    // The first worker's first probe lasts until the second start has failed. A probe after that is one the
    // run should not have begun: it is held (bounded) so that a run that does not stop its workers shows.
    transport.onCall = [&](int index) {
        std::unique_lock<std::mutex> lock(mutex);
        if (index == 0) {
            firstProbeBegun = true;
            changed.notify_all();
            changed.wait_for(lock, std::chrono::seconds(30), [&] { return startFailed; });
        } else {
            changed.wait_for(lock, std::chrono::seconds(2), [] { return false; });
        }
    };
    const ModbusDiscovery::WorkerStarter starter = [&](std::function<void()> work) {
        if (starts++ == 1) {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait_for(lock, std::chrono::seconds(30), [&] { return firstProbeBegun; });
            startFailed = true;
            changed.notify_all();
            throw std::bad_alloc();
        }
        return std::thread([&ended, work] {
            work();
            ++ended;
        });
    };
    const QList<Candidate> result =
        ModbusDiscovery::discoverDevices(optionsFor(hostsInTen(50)), transport, nullptr, nullptr, starter);

    EXPECT_TRUE(result.isEmpty());
    EXPECT_EQ(starts.load(), 2);
    EXPECT_EQ(ended.load(), 1);  // the started worker was joined before the run returned
    // Stopped: at most the probe under way when the start failed, and one begun just before the stop.
    EXPECT_GE(transport.recordedCalls().size(), 1u);
    EXPECT_LE(transport.recordedCalls().size(), 2u);
}

}  // namespace
