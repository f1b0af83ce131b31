// modbus-sim: runs the device simulator until SIGINT or SIGTERM.

#include <modbus.h>
#include <pthread.h>
#include <signal.h>

#include <QString>
#include <QStringList>
#include <cstdio>

#include "tools/sim/sim_tls_kit.h"
#include "tools/sim/simulator.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;
constexpr int kMaxPort = 65535;
constexpr const char* kVersion = ZELT_PROJECT_VERSION;

void printUsage(FILE* out) {
    fprintf(out,
            "Usage: modbus-sim [--listen ADDR] [--port N] [--map FILE]\n"
            "                  [--transport tcp|rtu] [--tls DIR [--tls-fault NAME]]\n"
            "Simulates a Modbus device (Modbus TCP, or RTU over TCP) until interrupted (SIGINT or SIGTERM).\n"
            "  --listen ADDR     IPv4 address to listen on (default 127.0.0.1)\n"
            "  --port N          TCP port, 0 picks a free one (default 0)\n"
            "  --map FILE        JSON map of units, register tables, identification and faults\n"
            "  --transport NAME  tcp (Modbus TCP) or rtu (RTU frames over TCP); overrides the map's\n"
            "                    \"transport\" (default tcp)\n"
            "  --tls DIR         serve Modbus/TCP Security with DIR's ca.pem, device.pem and device.key,\n"
            "                    made there (with client.pem for role operator) when missing\n"
            "  --tls-fault NAME  expired_certificate, wrong_ca, wrong_name, no_client_certificate_demanded,\n"
            "                    plain_tcp or stall_handshake\n"
            "  --help            show this help\n"
            "  --version         show the versions of modbus-sim and of the libmodbus it runs with\n");
}

// The libmodbus of the running process, which may be newer than the headers the simulator was built against.
void printVersion() {
    printf("modbus-sim %s\nlibmodbus %u.%u.%u\n", kVersion, libmodbus_version_major, libmodbus_version_minor,
           libmodbus_version_micro);
}

}  // namespace

int main(int argc, char** argv) {
    QString address = QStringLiteral("127.0.0.1");
    int port = 0;
    QString mapFile;
    QString transport;
    QString tlsDirectory;
    QString tlsFaultName;
    for (int i = 1; i < argc; ++i) {
        const QString option = QString::fromLocal8Bit(argv[i]);
        if (option == QLatin1String("--help") || option == QLatin1String("-h")) {
            printUsage(stdout);
            return 0;
        }
        if (option == QLatin1String("--version")) {
            printVersion();
            return 0;
        }
        const bool takesValue = option == QLatin1String("--listen") || option == QLatin1String("--port") ||
                                option == QLatin1String("--map") || option == QLatin1String("--transport") ||
                                option == QLatin1String("--tls") || option == QLatin1String("--tls-fault");
        if (!takesValue || i + 1 >= argc) {
            fprintf(stderr, "modbus-sim: %s %s\n", takesValue ? "missing value for" : "unknown option",
                    argv[i]);
            printUsage(stderr);
            return kExitUsage;
        }
        const QString value = QString::fromLocal8Bit(argv[++i]);
        if (option == QLatin1String("--listen")) {
            address = value;
        } else if (option == QLatin1String("--tls")) {
            tlsDirectory = value;
        } else if (option == QLatin1String("--tls-fault")) {
            tlsFaultName = value;
        } else if (option == QLatin1String("--map")) {
            mapFile = value;
        } else if (option == QLatin1String("--transport")) {
            if (value != QLatin1String("tcp") && value != QLatin1String("rtu")) {
                fprintf(stderr, "modbus-sim: --transport must be tcp or rtu, not \"%s\"\n", argv[i]);
                printUsage(stderr);
                return kExitUsage;
            }
            transport = value;
        } else {
            bool ok = false;
            port = value.toInt(&ok);
            if (!ok || port < 0 || port > kMaxPort) {
                fprintf(stderr, "modbus-sim: bad port %s\n", argv[i]);
                printUsage(stderr);
                return kExitUsage;
            }
        }
    }

    // The signals are taken by sigwait below; blocking them first keeps the simulator's threads from getting
    // them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    modbus_sim::Simulator simulator;
    QString error;
    if (!mapFile.isEmpty() && !simulator.loadMapFile(mapFile, &error)) {
        fprintf(stderr, "modbus-sim: %s\n", qPrintable(error));
        return kExitFailure;
    }
    if (!transport.isEmpty()) {
        simulator.setFraming(transport == QLatin1String("rtu") ? modbus_sim::Framing::Rtu
                                                               : modbus_sim::Framing::Tcp);
    }
    if (!tlsDirectory.isEmpty() || !tlsFaultName.isEmpty()) {
        modbus_sim::TlsFault fault = simulator.tls().fault;
        if (!tlsFaultName.isEmpty() && !modbus_sim::tlsFaultFromName(tlsFaultName, &fault)) {
            fprintf(stderr, "modbus-sim: --tls-fault must be one of %s, not \"%s\"\n",
                    qPrintable(modbus_sim::tlsFaultNames()), qPrintable(tlsFaultName));
            return kExitUsage;
        }
        const QString directory = tlsDirectory.isEmpty() ? simulator.tlsKitDirectory() : tlsDirectory;
        if (directory.isEmpty()) {
            fprintf(stderr, "modbus-sim: --tls-fault needs --tls DIR\n");
            return kExitUsage;
        }
        simulator.setTlsKit(directory, fault);
    }
    if (!simulator.start(address, static_cast<uint16_t>(port), &error)) {
        fprintf(stderr, "modbus-sim: %s\n", qPrintable(error));
        return kExitFailure;
    }
    printf("listening on %s:%u\n", qPrintable(simulator.address()), simulator.port());
    // File paths only: the keys stay in their files.
    if (!simulator.tlsKitDirectory().isEmpty()) {
        if (simulator.tlsKitCreated())
            printf(
                "tls: created a certificate kit in %s: ca.pem, device.pem and client.pem (role operator) "
                "with their keys\n",
                qPrintable(simulator.tlsKitDirectory()));
        if (simulator.tls().fault != modbus_sim::TlsFault::None)
            printf("tls: fault %s\n", qPrintable(modbus_sim::tlsFaultName(simulator.tls().fault)));
        printf("tls: device settings: %s\n",
               qPrintable(modbus_sim::tlsDeviceSettingsText(simulator.tlsKitDirectory(), simulator.port(),
                                                            simulator.address())));
    }
    fflush(stdout);

    int received = 0;
    sigwait(&signals, &received);
    simulator.stop();
    return 0;
}
