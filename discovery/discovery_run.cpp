#include "discovery/discovery_run.h"

#include <chrono>
#include <cstdio>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "connection/tls_credentials.h"
#include "discovery/constants.h"
#include "discovery/discovery_run_internal.h"
#include "discovery/subnet.h"

namespace ModbusDiscovery {

namespace {

const QString kTypeName = QStringLiteral("Modbus TCP");
const QString kSourceTcpScan = QStringLiteral("tcp-scan");
const QString kSecureProbeName = QStringLiteral("Modbus/TCP Security (TLS)");
const QString kAnyAddress = QStringLiteral("0.0.0.0");
const QString kLoopbackPrefix = QStringLiteral("127.");
const char kDebugVariable[] = "ZELT_DISCOVERY_DEBUG";

// Diagnostics for developers only; the user sees the log list instead.
void logDiscovery(const QString& line) {
    if (!qEnvironmentVariableIsSet(kDebugVariable)) {
        return;
    }
    const QByteArray text = line.toUtf8() + '\n';
    std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stderr);
    std::fflush(stderr);
}

// The certificate settings are read once before any host is asked: a setting that cannot be read would fail
// every handshake alike. The messages name settings and files, never what a key holds.
bool secureSettingsUsable(const TlsSettings& tls, QStringList* log) {
    const TlsCredentials credentials = loadTlsCredentials(tls);
    if (log) {
        for (const QString& warning : credentials.warnings) {
            log->append(QStringLiteral("%1 discovery: %2").arg(kTypeName, warning));
        }
        if (!credentials.ok()) {
            log->append(QStringLiteral("%1 discovery cannot make TLS connections: %2")
                            .arg(kTypeName, credentials.error));
        }
    }
    return credentials.ok();
}

template <typename T>
QString joinNumbers(const QList<T>& values) {
    QStringList texts;
    for (const T value : values) {
        texts.append(QString::number(value));
    }
    return texts.join(QLatin1Char(','));
}

// State shared by the workers of one run; it lives on the caller's stack.
struct RunState {
    const Options& options;
    Transport& transport;
    const QStringList& hosts;
    std::atomic<bool>* cancel;
    std::atomic<bool> abandoned{false};  // the run could not start its workers and winds down
    std::atomic<int> nextHost{0};
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::mutex resultMutex;  // std::mutex rather than QMutex: ThreadSanitizer sees through it
    QList<Candidate> results;

    RunState(const Options& runOptions, Transport& runTransport, const QStringList& runHosts,
             std::atomic<bool>* runCancel)
        : options(runOptions), transport(runTransport), hosts(runHosts), cancel(runCancel) {}

    bool shouldStop() const {
        if (abandoned.load() || (cancel && cancel->load())) {
            return true;
        }
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        return elapsed.count() >= options.timeoutMs;
    }

    void collect(const QString& host, quint16 port, const QString& source, const IdentifyResult& result) {
        Candidate candidate;
        candidate.address = host;
        candidate.port = port;
        candidate.source = source;
        applyIdentify(&candidate, result);
        add(candidate);
    }

    void add(const Candidate& candidate) {
        const QString uid = uidFor(candidate);
        if (options.existingUids.contains(uid)) {
            return;
        }
        std::lock_guard<std::mutex> lock(resultMutex);
        for (const Candidate& known : std::as_const(results)) {
            if (uidFor(known) == uid) {
                return;
            }
        }
        results.append(candidate);
    }

    // An open port that gave no Modbus TCP answer may be a serial-to-Ethernet converter passing RTU frames.
    void probeRtu(const QString& host, quint16 port) {
        if (shouldStop()) {
            return;
        }
        const QList<IdentifyResult> answers = transport.rtuIdentify(
            host, port, options.unitIds.mid(0, kMaxRtuUnitIds), kTcpScanConnectTimeoutMs, kRtuReadTimeoutMs,
            [this] { return shouldStop(); });
        for (const IdentifyResult& answer : answers) {
            collect(host, port, kSourceRtuOverTcpScan, answer);
        }
    }

    void collectSecure(const QString& host, quint16 port, const IdentifyResult* result,
                       const SecureProbe& probe) {
        Candidate candidate;
        candidate.address = host;
        candidate.port = port;
        candidate.source = kSourceTlsScan;
        candidate.tls = options.tls;
        if (result) {
            applyIdentify(&candidate, *result);
        } else {
            // Nothing was asked of any unit: the uid takes the first one the request names.
            candidate.unitId =
                options.unitIds.isEmpty() ? static_cast<quint8>(kDefaultUnitId) : options.unitIds.first();
            candidate.clientCertificateRefused = true;
            candidate.certificateSubject = probe.certificateSubject;
            candidate.certificateExpiry = probe.certificateExpiry;
        }
        add(candidate);
    }

    // Every port of a Modbus/TCP Security scan is asked inside a TLS session only: a plain request to a
    // secured device, or a ClientHello to a plain one, finds nothing.
    void probeSecure(const QString& host, quint16 port) {
        const SecureProbe probe =
            transport.tlsIdentify(host, port, options.unitIds, options.tls, kTcpScanConnectTimeoutMs,
                                  kTlsScanHandshakeTimeoutMs, kTcpScanReadTimeoutMs);
        if (!probe.failure.isEmpty()) {
            logDiscovery(QStringLiteral("%1 %2:%3 TLS: %4")
                             .arg(kTypeName, host, QString::number(port), probe.failure));
        }
        for (const IdentifyResult& answer : probe.answers) {
            collectSecure(host, port, &answer, probe);
        }
        if (probe.answers.isEmpty() && probe.clientCertificateRefused) {
            collectSecure(host, port, nullptr, probe);
        }
    }

    void work() {
        while (!shouldStop()) {
            const int index = nextHost.fetch_add(1);
            if (index >= hosts.size()) {
                return;
            }
            const QString& host = hosts.at(index);
            for (const quint16 port : options.tcpPorts) {
                if (shouldStop()) {
                    return;
                }
                if (options.secure()) {
                    probeSecure(host, port);
                    continue;
                }
                // The reachable flag is asked for only when RTU probing may follow, so that a run without it
                // calls the transport exactly as before.
                bool reachable = false;
                const QList<IdentifyResult> answers =
                    transport.tcpIdentify(host, port, options.unitIds, kTcpScanConnectTimeoutMs,
                                          kTcpScanReadTimeoutMs, options.rtuOverTcp ? &reachable : nullptr);
                for (const IdentifyResult& answer : answers) {
                    collect(host, port, kSourceTcpScan, answer);
                }
                if (options.rtuOverTcp && reachable && answers.isEmpty()) {
                    probeRtu(host, port);
                }
            }
        }
    }

    // A worker must never let an exception out of its thread: that would end the host process.
    void workGuarded() {
        try {
            work();
        } catch (...) {
        }
    }
};

}  // namespace

namespace {

QList<Candidate> runDiscovery(const Options& options, Transport& transport, QStringList* log,
                              std::atomic<bool>* cancel, const WorkerStarter& startWorker) {
    const QString ports = joinNumbers(options.tcpPorts);
    const QString units = joinNumbers(options.unitIds);
    const QString interfaceLabel =
        options.networkInterface.isEmpty() ? QStringLiteral("all IPv4") : options.networkInterface;
    logDiscovery(QStringLiteral("%1 discovery interface=%2 tcp=%3 unit=%4 timeout_ms=%5")
                     .arg(kTypeName, interfaceLabel, ports, units, QString::number(options.timeoutMs)));
    if (log) {
        log->append(QStringLiteral("%1 discovery probes %2 %3 on the selected subnet, then reads device "
                                   "identification if available and Report Slave ID. ")
                        .arg(kTypeName, options.secure() ? kSecureProbeName : QStringLiteral("TCP"), ports));
    }
    if (!options.tcpSubnetScan) {
        return QList<Candidate>();
    }
    if (options.secure() && !secureSettingsUsable(options.tls, log)) {
        return QList<Candidate>();
    }

    const QStringList candidates =
        options.tcpHosts.isEmpty() ? ipv4HostsOnInterface(options.networkInterface, log) : options.tcpHosts;
    QStringList hosts;
    for (const QString& host : candidates) {
        if (host.isEmpty() || host == kAnyAddress || host.startsWith(kLoopbackPrefix)) {
            continue;
        }
        hosts.append(host);
    }
    logDiscovery(QStringLiteral("%1 TCP subnet scan hosts=%2 ports=%3")
                     .arg(kTypeName, QString::number(hosts.size()), ports));
    if (hosts.isEmpty()) {
        return QList<Candidate>();
    }

    RunState state(options, transport, hosts, cancel);
    const int workerCount = qBound(1, static_cast<int>(hosts.size()), kMaxSynWorkers);
    std::vector<std::thread> workers;
    try {
        workers.reserve(static_cast<size_t>(workerCount));
        for (int i = 0; i < workerCount; ++i) {
            try {
                // Within the reserved capacity the move into the vector cannot throw, so no started thread
                // is ever left unowned.
                workers.push_back(startWorker([&state] { state.workGuarded(); }));
            } catch (const std::system_error&) {
                break;  // out of threads: the workers already running share the remaining hosts
            }
        }
    } catch (...) {
        // Anything else (out of memory) ends the run; a vector of joinable threads must never unwind.
        state.abandoned = true;
        for (std::thread& worker : workers) {
            worker.join();
        }
        throw;
    }
    if (workers.empty()) {
        state.workGuarded();
    }
    for (std::thread& worker : workers) {
        worker.join();
    }

    logDiscovery(
        QStringLiteral("%1 discovery importable=%2").arg(kTypeName, QString::number(state.results.size())));
    return state.results;
}

}  // namespace

QList<Candidate> discoverDevices(const Options& options, Transport& transport, QStringList* log,
                                 std::atomic<bool>* cancel, const WorkerStarter& startWorker) {
    // Discovery reports nothing as errors; running out of memory or threads gives no candidates.
    try {
        return runDiscovery(options, transport, log, cancel, startWorker);
    } catch (...) {
        return QList<Candidate>();
    }
}

QList<Candidate> discoverDevices(const Options& options, Transport& transport, QStringList* log,
                                 std::atomic<bool>* cancel) {
    return discoverDevices(options, transport, log, cancel,
                           [](std::function<void()> work) { return std::thread(std::move(work)); });
}

}  // namespace ModbusDiscovery
