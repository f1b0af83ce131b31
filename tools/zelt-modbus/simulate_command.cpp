#include <pthread.h>
#include <signal.h>

#include <QTextStream>
#include <optional>
#include <set>

#include "tools/sim/sim_tls_kit.h"
#include "tools/sim/simulator.h"
#include "tools/zelt-modbus/cli.h"

namespace zelt_cli {

namespace {

constexpr int kMaxPort = 65535;
constexpr int kMaxUnitId = 255;

// A whole-number option in minimum..maximum; false after printing the problem and the usage.
bool readBoundedOption(const CommandLine& command, const QString& name, int minimum, int maximum, int* out) {
    if (!readNumberOption(command, name, minimum, 0, out)) return false;
    if (*out <= maximum) return true;
    QTextStream(stderr) << "zelt-modbus simulate: --" << name << " must be at most " << maximum << "\n"
                        << command.usage();
    return false;
}

// The --transport option into `framing` when given; false after printing the problem.
bool readTransport(const CommandLine& command, std::optional<modbus_sim::Framing>* framing) {
    if (!command.has(QStringLiteral("transport"))) return true;
    const QString text = command.value(QStringLiteral("transport"));
    if (text == QLatin1String("tcp")) {
        *framing = modbus_sim::Framing::Tcp;
    } else if (text == QLatin1String("rtu")) {
        *framing = modbus_sim::Framing::Rtu;
    } else {
        QTextStream(stderr) << "zelt-modbus simulate: --transport must be tcp or rtu, not \"" << text
                            << "\"\n"
                            << command.usage();
        return false;
    }
    return true;
}

// The dead units and their reply, each from its option when given; false after printing the problem.
bool readDeadUnits(const CommandLine& command, const modbus_sim::Simulator& simulator, std::set<int>* units,
                   modbus_sim::UnknownUnitReply* reply) {
    *units = simulator.deadUnits();
    *reply = simulator.deadUnitReply();
    if (command.has(QStringLiteral("dead-units"))) {
        units->clear();
        const QString list = command.value(QStringLiteral("dead-units"));
        for (const QString& text : list.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            bool ok = false;
            const int unit = text.trimmed().toInt(&ok);
            if (!ok || unit < 0 || unit > kMaxUnitId) {
                QTextStream(stderr) << "zelt-modbus simulate: --dead-units: \"" << text
                                    << "\" is not a unit id in 0.." << kMaxUnitId << "\n"
                                    << command.usage();
                return false;
            }
            units->insert(unit);
        }
    }
    if (command.has(QStringLiteral("dead-unit-reply"))) {
        const QString text = command.value(QStringLiteral("dead-unit-reply"));
        if (text == QLatin1String("silence")) {
            *reply = modbus_sim::UnknownUnitReply::Silence;
        } else if (text == QLatin1String("gateway_exception")) {
            *reply = modbus_sim::UnknownUnitReply::GatewayException;
        } else {
            QTextStream(stderr) << "zelt-modbus simulate: --dead-unit-reply must be silence or "
                                   "gateway_exception, not \""
                                << text << "\"\n"
                                << command.usage();
            return false;
        }
    }
    return true;
}

// --tls and --tls-fault over the map's "tls"; false after printing the problem.
bool readTls(const CommandLine& command, modbus_sim::Simulator* simulator) {
    QString directory = simulator->tlsKitDirectory();
    if (command.has(QStringLiteral("tls"))) directory = command.value(QStringLiteral("tls"));
    modbus_sim::TlsFault fault = simulator->tls().fault;
    if (command.has(QStringLiteral("tls-fault"))) {
        const QString name = command.value(QStringLiteral("tls-fault"));
        if (!modbus_sim::tlsFaultFromName(name, &fault)) {
            QTextStream(stderr) << "zelt-modbus simulate: --tls-fault must be one of "
                                << modbus_sim::tlsFaultNames() << ", not \"" << name << "\"\n"
                                << command.usage();
            return false;
        }
        if (directory.isEmpty()) {
            QTextStream(stderr) << "zelt-modbus simulate: --tls-fault needs --tls DIR\n" << command.usage();
            return false;
        }
    }
    if (!directory.isEmpty()) simulator->setTlsKit(directory, fault);
    return true;
}

// File paths only: the keys stay in their files.
void printTls(const modbus_sim::Simulator& simulator) {
    const QString directory = simulator.tlsKitDirectory();
    if (directory.isEmpty()) return;
    QTextStream out(stdout);
    if (simulator.tlsKitCreated())
        out << "tls: created a certificate kit in " << directory
            << ": ca.pem, device.pem and client.pem (role operator) with their keys\n";
    if (simulator.tls().fault != modbus_sim::TlsFault::None)
        out << "tls: fault " << modbus_sim::tlsFaultName(simulator.tls().fault) << "\n";
    out << "tls: device settings: "
        << modbus_sim::tlsDeviceSettingsText(directory, simulator.port(), simulator.address()) << "\n";
}

}  // namespace

int runSimulate(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("simulate"),
        QStringLiteral("Runs the Modbus device simulator until interrupted (Ctrl-C or SIGTERM)\n"
                       "and prints the address and port it listens on."));
    command.addOption(QStringLiteral("listen"), QStringLiteral("ADDR"),
                      QStringLiteral("IPv4 address to listen on (default 127.0.0.1)"));
    command.addOption(QStringLiteral("port"), QStringLiteral("N"),
                      QStringLiteral("TCP port; 0 picks a free one (default 0)"));
    command.addOption(QStringLiteral("map"), QStringLiteral("FILE"),
                      QStringLiteral("JSON map of units, register tables, identification and faults"));
    command.addOption(QStringLiteral("transport"), QStringLiteral("NAME"),
                      QStringLiteral("tcp (Modbus TCP, default) or rtu (RTU frames over TCP, as behind a "
                                     "serial converter)"));
    command.addOption(QStringLiteral("connection-limit"), QStringLiteral("N"),
                      QStringLiteral("close connections beyond N open ones at once (0: no limit)"));
    command.addOption(QStringLiteral("serial-line"), QStringLiteral("MS"),
                      QStringLiteral("serve requests one at a time, MS each, like a gateway's serial line"));
    command.addOption(QStringLiteral("min-request-gap"), QStringLiteral("MS"),
                      QStringLiteral("drop requests sent within MS of the last answer on their connection"));
    command.addOption(QStringLiteral("busy-every"), QStringLiteral("N"),
                      QStringLiteral("answer every Nth request with exception 6, ahead of the map's faults"));
    command.addOption(QStringLiteral("dead-units"), QStringLiteral("LIST"),
                      QStringLiteral("comma-separated unit ids that never answer"));
    command.addOption(QStringLiteral("dead-unit-reply"), QStringLiteral("REPLY"),
                      QStringLiteral("what dead units give: silence (default) or gateway_exception"));
    command.addOption(QStringLiteral("tls"), QStringLiteral("DIR"),
                      QStringLiteral("serve Modbus/TCP Security with DIR's ca.pem, device.pem, device.key "
                                     "(made when missing)"));
    command.addOption(QStringLiteral("tls-fault"), QStringLiteral("NAME"),
                      QStringLiteral("with --tls: expired_certificate, wrong_ca, wrong_name, "
                                     "no_client_certificate_demanded, plain_tcp or stall_handshake"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;
    int port = 0;
    if (!readNumberOption(command, QStringLiteral("port"), 0, 0, &port)) return kExitUsage;
    if (port > kMaxPort) {
        QTextStream(stderr) << "zelt-modbus simulate: --port must be at most " << kMaxPort << "\n"
                            << command.usage();
        return kExitUsage;
    }
    int connectionLimit = 0;
    int serialLineMs = 0;
    int minimumRequestGapMs = 0;
    int busyEvery = 0;
    if (!readBoundedOption(command, QStringLiteral("connection-limit"), 0, modbus_sim::kMaxConnectionLimit,
                           &connectionLimit) ||
        !readBoundedOption(command, QStringLiteral("serial-line"), 0, modbus_sim::kMaxSettingMs,
                           &serialLineMs) ||
        !readBoundedOption(command, QStringLiteral("min-request-gap"), 0, modbus_sim::kMaxSettingMs,
                           &minimumRequestGapMs) ||
        !readNumberOption(command, QStringLiteral("busy-every"), 1, 0, &busyEvery))
        return kExitUsage;
    std::optional<modbus_sim::Framing> framing;
    if (!readTransport(command, &framing)) return kExitUsage;

    // The stopSignals are taken by sigwait below; blocking them before the simulator starts its threads keeps
    // those threads from receiving them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    modbus_sim::Simulator simulator;
    if (busyEvery > 0) {
        // Ahead of the map's rules, so that it counts every request.
        modbus_sim::FaultRule busy;
        busy.kind = modbus_sim::FaultKind::BusyEvery;
        busy.everyRequests = busyEvery;
        simulator.addFault(busy);
    }
    QString error;
    if (command.has(QStringLiteral("map")) &&
        !simulator.loadMapFile(command.value(QStringLiteral("map")), &error))
        return fail(QStringLiteral("%1: %2").arg(command.value(QStringLiteral("map")), error));
    // The options override the map file.
    std::set<int> deadUnits;
    modbus_sim::UnknownUnitReply deadUnitReply;
    if (!readDeadUnits(command, simulator, &deadUnits, &deadUnitReply)) return kExitUsage;
    simulator.setDeadUnits(deadUnits, deadUnitReply);
    if (command.has(QStringLiteral("connection-limit"))) simulator.setConnectionLimit(connectionLimit);
    if (command.has(QStringLiteral("serial-line"))) simulator.setSerialLine(serialLineMs);
    if (command.has(QStringLiteral("min-request-gap"))) simulator.setMinimumRequestGap(minimumRequestGapMs);
    if (framing) simulator.setFraming(*framing);
    if (!readTls(command, &simulator)) return kExitUsage;
    if (!simulator.start(command.value(QStringLiteral("listen"), QStringLiteral("127.0.0.1")),
                         static_cast<uint16_t>(port), &error))
        return fail(error);
    QTextStream(stdout) << "listening on " << simulator.address() << ":" << simulator.port() << "\n";
    printTls(simulator);

    int received = 0;
    sigwait(&stopSignals, &received);
    simulator.stop();
    QTextStream(stdout) << "stopped after " << simulator.totalRequests() << " requests\n";
    return 0;
}

}  // namespace zelt_cli
