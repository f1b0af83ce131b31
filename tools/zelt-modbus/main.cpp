// zelt-modbus: drives the modbus_tcp plugin file from the command line the way the host does.
#include <QCoreApplication>
#include <QMap>
#include <QTextStream>

#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/version.h"

namespace {

const char* kUsage =
    "Usage: zelt-modbus COMMAND [options]\n"
    "\n"
    "Commands:\n"
    "  demo       run a simulated meter on 127.0.0.1, write a setpoint and poll it\n"
    "  poll       poll the devices of a configuration file\n"
    "  write      write one value to one item of a configuration file\n"
    "  discover   look for Modbus TCP devices with the plugin's discovery\n"
    "  inspect    read registers once and show every type and byte order the plugin can read them as\n"
    "  identify   read a device's identification (vendor, product code, revision, ...) through the plugin\n"
    "  map        find the addresses a device answers, and write a configuration for them\n"
    "  simulate   run the Modbus TCP device simulator\n"
    "  columns    print the configuration columns the plugin declares\n"
    "\n"
    "Run 'zelt-modbus COMMAND --help' for the options of a command, 'zelt-modbus --version' for the\n"
    "versions of the tool, the plugin, the host contract and libmodbus.\n";

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QStringList arguments = app.arguments().mid(1);
    if (arguments.isEmpty()) {
        QTextStream(stderr) << kUsage;
        return zelt_cli::kExitUsage;
    }
    const QString command = arguments.takeFirst();
    if (command == QLatin1String("--help") || command == QLatin1String("help")) {
        QTextStream(stdout) << kUsage;
        return 0;
    }
    if (command == QLatin1String("--version")) {
        QTextStream(stdout) << zelt_cli::versionText();
        return 0;
    }
    using Runner = int (*)(const QStringList&);
    const QMap<QString, Runner> commands{{QStringLiteral("demo"), zelt_cli::runDemo},
                                         {QStringLiteral("poll"), zelt_cli::runPoll},
                                         {QStringLiteral("write"), zelt_cli::runWrite},
                                         {QStringLiteral("discover"), zelt_cli::runDiscover},
                                         {QStringLiteral("inspect"), zelt_cli::runInspect},
                                         {QStringLiteral("identify"), zelt_cli::runIdentify},
                                         {QStringLiteral("map"), zelt_cli::runMap},
                                         {QStringLiteral("simulate"), zelt_cli::runSimulate},
                                         {QStringLiteral("columns"), zelt_cli::runColumns}};
    if (const Runner run = commands.value(command)) {
        // Every command answers --version the same way, before its own options are checked.
        if (arguments.contains(QLatin1String("--version"))) {
            QTextStream(stdout) << zelt_cli::versionText();
            return 0;
        }
        return run(arguments);
    }
    QTextStream(stderr) << "zelt-modbus: unknown command " << command << "\n" << kUsage;
    return zelt_cli::kExitUsage;
}
