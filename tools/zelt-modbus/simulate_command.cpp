#include <pthread.h>
#include <signal.h>

#include <QTextStream>

#include "tools/sim/simulator.h"
#include "tools/zelt-modbus/cli.h"

namespace zelt_cli {

namespace {

constexpr int kMaxPort = 65535;

}  // namespace

int runSimulate(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("simulate"),
        QStringLiteral("Runs the Modbus TCP device simulator until interrupted (Ctrl-C or SIGTERM)\n"
                       "and prints the address and port it listens on."));
    command.addOption(QStringLiteral("listen"), QStringLiteral("ADDR"),
                      QStringLiteral("IPv4 address to listen on (default 127.0.0.1)"));
    command.addOption(QStringLiteral("port"), QStringLiteral("N"),
                      QStringLiteral("TCP port; 0 picks a free one (default 0)"));
    command.addOption(QStringLiteral("map"), QStringLiteral("FILE"),
                      QStringLiteral("JSON map of units, register tables, identification and faults"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;
    int port = 0;
    if (!readNumberOption(command, QStringLiteral("port"), 0, 0, &port)) return kExitUsage;
    if (port > kMaxPort) {
        QTextStream(stderr) << "zelt-modbus simulate: --port must be at most " << kMaxPort << "\n"
                            << command.usage();
        return kExitUsage;
    }

    // The stopSignals are taken by sigwait below; blocking them before the simulator starts its threads keeps
    // those threads from receiving them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    modbus_sim::Simulator simulator;
    QString error;
    if (command.has(QStringLiteral("map")) &&
        !simulator.loadMapFile(command.value(QStringLiteral("map")), &error))
        return fail(QStringLiteral("%1: %2").arg(command.value(QStringLiteral("map")), error));
    if (!simulator.start(command.value(QStringLiteral("listen"), QStringLiteral("127.0.0.1")),
                         static_cast<uint16_t>(port), &error))
        return fail(error);
    QTextStream(stdout) << "listening on " << simulator.address() << ":" << simulator.port() << "\n";

    int received = 0;
    sigwait(&stopSignals, &received);
    simulator.stop();
    QTextStream(stdout) << "stopped after " << simulator.totalRequests() << " requests\n";
    return 0;
}

}  // namespace zelt_cli
