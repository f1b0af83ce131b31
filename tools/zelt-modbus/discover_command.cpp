#include <unistd.h>

#include <QFile>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QPair>
#include <QTextStream>
#include <atomic>
#include <mutex>

#include "connection/tls_credentials.h"
#include "connection/tls_settings.h"
#include "discovery/candidate.h"
#include "discovery/discovery_run.h"
#include "discovery/options.h"
#include "discovery/transport.h"
#include "host/zelt_interface.h"
#include "tools/standin/standin_host.h"
#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/config_writer.h"
#include "tools/zelt-modbus/device_target.h"
#include "tools/zelt-modbus/interrupt.h"
#include "tools/zelt-modbus/plugin_loader.h"

namespace zelt_cli {

namespace {

using ModbusDiscovery::Candidate;
using ModbusDiscovery::IdentifyResult;
using ModbusDiscovery::Options;

// The three entry points the host calls, plus the socket probe, by their exported (mangled) names.
using OptionsFromRequestFn = Options (*)(const QJsonObject&, QStringList*);
using DiscoverDevicesFn = QList<Candidate> (*)(const Options&, ModbusDiscovery::Transport&, QStringList*,
                                               std::atomic<bool>*);
using CandidateToJsonFn = QJsonObject (*)(const Candidate&);
using TcpIdentifyFn = QList<IdentifyResult> (*)(const QString&, quint16, const QList<quint8>&, int, int,
                                                bool*);
using RtuIdentifyFn = QList<IdentifyResult> (*)(const QString&, quint16, const QList<quint8>&, int, int,
                                                const ModbusDiscovery::StopCheck&);
using TlsIdentifyFn = ModbusDiscovery::SecureProbe (*)(const QString&, quint16, const QList<quint8>&,
                                                       const TlsSettings&, int, int, int);
// A plugin without the TLS probe lays its options out as OptionsCore alone.
using LegacyOptionsFromRequestFn = ModbusDiscovery::OptionsCore (*)(const QJsonObject&, QStringList*);

constexpr char kOptionsFromRequestSymbol[] =
    "_ZN15ModbusDiscovery18optionsFromRequestERK11QJsonObjectP11QStringList";
constexpr char kDiscoverDevicesSymbol[] =
    "_ZN15ModbusDiscovery15discoverDevicesERKNS_7OptionsERNS_9TransportEP11QStringListPSt6atomicIbE";
constexpr char kCandidateToJsonSymbol[] = "_ZN15ModbusDiscovery15candidateToJsonERKNS_9CandidateE";
constexpr char kTcpIdentifySymbol[] = "_ZN15ModbusDiscovery11tcpIdentifyERK7QStringtRK5QListIhEiiPb";
constexpr char kRtuIdentifySymbol[] =
    "_ZN15ModbusDiscovery11rtuIdentifyERK7QStringtRK5QListIhEiiRKSt8functionIFbvEE";
constexpr char kTlsIdentifySymbol[] =
    "_ZN15ModbusDiscovery11tlsIdentifyERK7QStringtRK5QListIhERK11TlsSettingsiii";

// Exit status of a run cut short by Ctrl-C, as shells report it.
constexpr int kExitInterrupted = 130;

const QString kAnyAddress = QStringLiteral("0.0.0.0");
const QString kLoopbackPrefix = QStringLiteral("127.");
const QString kTransportOption = QStringLiteral("transport");
const QString kTcpTransportName = QStringLiteral("tcp");
const QString kTlsTransportName = QStringLiteral("tls");

// Probes through the plugin's socket transport and counts what it has done, for the progress line.
class CountingTransport : public ModbusDiscovery::Transport {
public:
    CountingTransport(TcpIdentifyFn identify, RtuIdentifyFn identifyRtu, TlsIdentifyFn identifyTls,
                      int portsPerHost, int hostCount, bool showProgress)
        : identify(identify),
          identifyRtu(identifyRtu),
          identifyTls(identifyTls),
          portsPerHost(portsPerHost),
          hostCount(hostCount),
          showProgress(showProgress) {}

    QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs, bool* reachable) override {
        const QList<IdentifyResult> results =
            identify(host, port, unitIds, connectTimeoutMs, readTimeoutMs, reachable);
        std::lock_guard<std::mutex> lock(mutex);
        if (++portsProbed[host] == portsPerHost) ++hostsDone;
        count(results);
        return results;
    }

    // Only called when --rtu-over-tcp asked for it, and then the plugin has been checked to export the probe.
    QList<IdentifyResult> rtuIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs,
                                      const ModbusDiscovery::StopCheck& shouldStop) override {
        if (!identifyRtu) return QList<IdentifyResult>();
        const QList<IdentifyResult> results =
            identifyRtu(host, port, unitIds, connectTimeoutMs, readTimeoutMs, shouldStop);
        std::lock_guard<std::mutex> lock(mutex);
        count(results);
        return results;
    }

    // Only called with --transport tls, and then the plugin has been checked to export the probe.
    ModbusDiscovery::SecureProbe tlsIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                             const TlsSettings& tls, int connectTimeoutMs,
                                             int handshakeTimeoutMs, int readTimeoutMs) override {
        if (!identifyTls) return ModbusDiscovery::SecureProbe();
        const ModbusDiscovery::SecureProbe probe =
            identifyTls(host, port, unitIds, tls, connectTimeoutMs, handshakeTimeoutMs, readTimeoutMs);
        std::lock_guard<std::mutex> lock(mutex);
        if (++portsProbed[host] == portsPerHost) ++hostsDone;
        QList<IdentifyResult> results = probe.answers;
        // A device that wants a client certificate is found too, if not identified.
        if (results.isEmpty() && probe.clientCertificateRefused) results.append(refusedResult());
        count(results);
        return probe;
    }

    void endProgress() {
        std::lock_guard<std::mutex> lock(mutex);
        if (showProgress && !portsProbed.isEmpty()) QTextStream(stderr) << "\n";
    }

private:
    static IdentifyResult refusedResult() {
        IdentifyResult result;
        result.ok = true;
        return result;
    }

    // Called with the mutex held.
    void count(const QList<IdentifyResult>& results) {
        for (const IdentifyResult& result : results)
            if (result.ok) ++found;
        if (showProgress) {
            const QString total = hostCount > 0 ? QString::number(hostCount) : QStringLiteral("?");
            QTextStream(stderr) << "\rscanning: " << hostsDone << " of " << total << " hosts done, " << found
                                << " found" << Qt::flush;
        }
    }

    TcpIdentifyFn identify;
    RtuIdentifyFn identifyRtu;
    TlsIdentifyFn identifyTls;
    const int portsPerHost;
    const int hostCount;
    const bool showProgress;
    std::mutex mutex;
    QMap<QString, int> portsProbed;
    int hostsDone = 0;
    int found = 0;
};

// Known devices, from a configuration file or from a JSON array as the host sends it.
bool readExistingDevices(const QString& path, const QMap<QString, QString>& deviceDefaults, QJsonArray* out,
                         QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: cannot read: %2").arg(path, file.errorString());
        return false;
    }
    const QByteArray json = file.readAll();
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (document.isArray()) {
        *out = document.array();
        return true;
    }
    Config config;
    if (!parseConfig(json, path, &config, error)) return false;
    applyDefaults(&config, deviceDefaults, {});
    for (const DeviceConfig& device : config.devices)
        out->append(
            QJsonObject{{QStringLiteral("address"), device.address},
                        {QStringLiteral("port"), device.settings.value(QStringLiteral("port"))},
                        {QStringLiteral("server_id"), device.settings.value(QStringLiteral("server_id"))}});
    return true;
}

bool readHosts(const QString& text, QStringList* hosts, QString* error) {
    for (const QString& piece : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString host = piece.trimmed();
        QHostAddress address;
        if (!address.setAddress(host) || address.protocol() != QAbstractSocket::IPv4Protocol) {
            *error = QStringLiteral("--hosts: \"%1\" is not an IPv4 address").arg(host);
            return false;
        }
        hosts->append(host);
    }
    if (hosts->isEmpty()) {
        *error = QStringLiteral("--hosts: no address given");
        return false;
    }
    return true;
}

void printCandidates(QTextStream& out, const QList<Candidate>& candidates, CandidateToJsonFn toJson) {
    if (candidates.isEmpty()) {
        out << "No Modbus TCP devices found.\n";
        return;
    }
    Table table({QStringLiteral("name"), QStringLiteral("address"), QStringLiteral("port"),
                 QStringLiteral("unit"), QStringLiteral("description"), QStringLiteral("uid")});
    for (const Candidate& candidate : candidates) {
        const QJsonObject json = toJson(candidate);
        const QJsonObject fields = json.value(QStringLiteral("user_defined_fields")).toObject();
        table.addRow({json.value(QStringLiteral("name")).toString(), candidate.address,
                      fields.value(QStringLiteral("port")).toString(),
                      fields.value(QStringLiteral("server_id")).toString(),
                      json.value(QStringLiteral("description")).toString(),
                      json.value(QStringLiteral("uid_hint")).toString()});
    }
    table.print(out);
}

}  // namespace

int runDiscover(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("discover"),
        QStringLiteral("Looks for Modbus TCP devices with the plugin's discovery, as the host's "
                       "discover action does.\nWithout --hosts it scans the subnet of the interface."));
    command.addOption(QStringLiteral("interface"), QStringLiteral("NAME"),
                      QStringLiteral("interface whose subnet is scanned (default eth0; empty: all IPv4)"));
    command.addOption(QStringLiteral("hosts"), QStringLiteral("A,B,..."),
                      QStringLiteral("scan these IPv4 hosts instead of a subnet"));
    command.addOption(QStringLiteral("ports"), QStringLiteral("LIST"),
                      QStringLiteral("TCP ports, e.g. 502,1502 or 502-510 (default 502)"));
    command.addOption(QStringLiteral("units"), QStringLiteral("LIST"),
                      QStringLiteral("unit ids, e.g. 1,255 or 1-10 (default 1)"));
    command.addOption(QStringLiteral("timeout"), QStringLiteral("MS"),
                      QStringLiteral("overall time budget (default 60000, 1000..300000)"));
    command.addOption(QStringLiteral("existing"), QStringLiteral("FILE"),
                      QStringLiteral("known devices: a configuration file or a JSON array"));
    command.addOption(QStringLiteral("config-out"), QStringLiteral("FILE"),
                      QStringLiteral("also write the candidates as a configuration for poll (no items yet)"));
    command.addFlag(QStringLiteral("rtu-over-tcp"),
                    QStringLiteral("also ask open ports without a Modbus TCP answer in RTU frames (serial "
                                   "devices behind a serial-to-Ethernet converter)"));
    command.addOption(kTransportOption, QStringLiteral("NAME"),
                      QStringLiteral("tcp (Modbus TCP, the default) or tls (Modbus/TCP Security: every port "
                                     "is asked inside a TLS session; ports default to 802)"));
    addTlsOptions(&command);
    command.addFlag(QStringLiteral("json"), QStringLiteral("print a JSON array of candidates"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;
    const QString transportName = command.value(kTransportOption, kTcpTransportName);
    if (transportName != kTcpTransportName && transportName != kTlsTransportName) {
        QTextStream(stderr) << "zelt-modbus discover: --transport: unknown transport \"" << transportName
                            << "\" (expected tcp or tls; serial devices behind a converter: --rtu-over-tcp)\n"
                            << command.usage();
        return kExitUsage;
    }
    const bool secure = transportName == kTlsTransportName;
    if (secure && command.flag(QStringLiteral("rtu-over-tcp"))) {
        QTextStream(stderr) << "zelt-modbus discover: --rtu-over-tcp and --transport tls exclude each other\n"
                            << command.usage();
        return kExitUsage;
    }
    TlsSettings tls;
    if (!readTlsOptions(command, QStringLiteral("discover"),
                        secure ? Transport::ModbusTcpSecurity : Transport::ModbusTcp, &tls))
        return kExitUsage;

    QStringList hosts;
    QString error;
    if (command.has(QStringLiteral("hosts")) &&
        !readHosts(command.value(QStringLiteral("hosts")), &hosts, &error)) {
        QTextStream(stderr) << "zelt-modbus discover: " << error << "\n" << command.usage();
        return kExitUsage;
    }

    LoadedPlugin loaded;
    if (!loaded.load(command.pluginPath(), &error)) return fail(error);
    loaded.plugin()->init();
    const QList<zelt_standin::InitCall> calls = zelt_standin::Host::instance().initCalls();
    if (calls.isEmpty()) return fail(QStringLiteral("the plugin did not register with the host"));

    const QString pluginPath = command.pluginPath();
    auto optionsFromRequest =
        reinterpret_cast<OptionsFromRequestFn>(resolveExport(pluginPath, kOptionsFromRequestSymbol));
    auto discoverDevices =
        reinterpret_cast<DiscoverDevicesFn>(resolveExport(pluginPath, kDiscoverDevicesSymbol));
    auto candidateToJson =
        reinterpret_cast<CandidateToJsonFn>(resolveExport(pluginPath, kCandidateToJsonSymbol));
    auto tcpIdentify = reinterpret_cast<TcpIdentifyFn>(resolveExport(pluginPath, kTcpIdentifySymbol));
    if (!optionsFromRequest || !discoverDevices || !candidateToJson || !tcpIdentify)
        return fail(QStringLiteral("%1 does not export the discovery functions").arg(pluginPath));
    const bool rtuOverTcp = command.flag(QStringLiteral("rtu-over-tcp"));
    // Older plugins have no RTU probe; they still serve a discovery without it.
    auto rtuIdentify =
        rtuOverTcp ? reinterpret_cast<RtuIdentifyFn>(resolveExport(pluginPath, kRtuIdentifySymbol)) : nullptr;
    if (rtuOverTcp && !rtuIdentify)
        return fail(QStringLiteral("%1 cannot discover RTU-over-TCP devices").arg(pluginPath));
    // Its presence also tells the options' layout: older plugins return OptionsCore alone.
    auto tlsIdentify = reinterpret_cast<TlsIdentifyFn>(resolveExport(pluginPath, kTlsIdentifySymbol));
    if (secure && !tlsIdentify)
        return fail(QStringLiteral("%1 cannot discover Modbus/TCP Security devices").arg(pluginPath));
    if (secure) {
        // Read here too, so that a certificate setting that cannot be read stops the command before any scan.
        const TlsCredentials credentials = loadTlsCredentials(tls);
        for (const QString& warning : credentials.warnings)
            QTextStream(stderr) << "zelt-modbus discover: " << warning << "\n";
        if (!credentials.ok()) return fail(credentials.error);
    }

    // The request as the host builds it from the discover dialog; keys left out take the plugin's defaults.
    QJsonObject request;
    const QMap<QString, QString> requestKeys{
        {QStringLiteral("interface"), QStringLiteral("network_interface")},
        {QStringLiteral("ports"), QStringLiteral("tcp_ports")},
        {QStringLiteral("units"), QStringLiteral("server_ids")},
        {QStringLiteral("timeout"), QStringLiteral("timeout_ms")}};
    for (auto it = requestKeys.begin(); it != requestKeys.end(); ++it)
        if (command.has(it.key())) request.insert(it.value(), command.value(it.key()));
    // Set through the request, as the host sets it, so that the plugin alone decides what the switch means.
    if (rtuOverTcp) request.insert(QStringLiteral("rtu_over_tcp"), QStringLiteral("1"));
    if (secure) {
        request.insert(kTransportSetting, kModbusTcpSecuritySetting);
        const QList<QPair<QString, QString>> settings{{kTlsCaSetting, tls.caCertificates},
                                                      {kTlsCertificateSetting, tls.certificate},
                                                      {kTlsKeySetting, tls.privateKey},
                                                      {kTlsServerNameSetting, tls.serverName}};
        for (const auto& setting : settings)
            if (!setting.second.isEmpty()) request.insert(setting.first, setting.second);
    }
    if (command.has(QStringLiteral("existing"))) {
        QJsonArray existing;
        if (!readExistingDevices(command.value(QStringLiteral("existing")),
                                 columnDefaults(calls.last().deviceColumns), &existing, &error))
            return fail(error, kExitUsage);
        request.insert(QStringLiteral("existing_devices"), existing);
    }

    QStringList log;
    Options options;
    if (tlsIdentify)
        options = optionsFromRequest(request, &log);
    else
        static_cast<ModbusDiscovery::OptionsCore&>(options) = reinterpret_cast<LegacyOptionsFromRequestFn>(
            resolveExport(pluginPath, kOptionsFromRequestSymbol))(request, &log);
    options.tcpHosts = hosts;

    int hostCount = 0;
    for (const QString& host : hosts) {
        if (host == kAnyAddress || host.startsWith(kLoopbackPrefix))
            QTextStream(stderr) << "zelt-modbus discover: " << host
                                << " is skipped: the discovery never scans "
                                << "loopback or unspecified addresses\n";
        else
            ++hostCount;
    }

    installInterruptHandler();
    CountingTransport transport(tcpIdentify, rtuIdentify, tlsIdentify, options.tcpPorts.size(), hostCount,
                                isatty(STDERR_FILENO) != 0);
    const QList<Candidate> candidates = discoverDevices(options, transport, &log, interruptFlag());
    transport.endProgress();
    for (const QString& line : log) QTextStream(stderr) << line.trimmed() << "\n";

    QTextStream out(stdout);
    QJsonArray array;
    for (const Candidate& candidate : candidates) array.append(candidateToJson(candidate));
    if (command.flag(QStringLiteral("json"))) {
        out << QJsonDocument(array).toJson(QJsonDocument::Indented);
    } else {
        printCandidates(out, candidates, candidateToJson);
    }
    out.flush();
    loaded.plugin()->stopPlugin();
    if (command.has(QStringLiteral("config-out"))) {
        const QString path = command.value(QStringLiteral("config-out"));
        if (!writeConfigFile(path, configToJson(configFromCandidates(array)), &error)) return fail(error);
        QTextStream(stderr) << "zelt-modbus discover: wrote " << path << ": " << array.size()
                            << (array.size() == 1 ? " device\n" : " devices\n");
    }
    if (interrupted()) {
        QTextStream(stderr)
            << "zelt-modbus discover: interrupted; the list above is what was found until then\n";
        return kExitInterrupted;
    }
    return 0;
}

}  // namespace zelt_cli
