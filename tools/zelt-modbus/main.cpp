// zelt-modbus: drives the modbus_tcp plugin file from the command line the way the host does.
#include <QCoreApplication>
#include <QTextStream>

#include "tools/zelt-modbus/cli.h"

namespace {

const char* kUsage =
    "Usage: zelt-modbus COMMAND [options]\n"
    "\n"
    "Commands:\n"
    "  columns    print the configuration columns the plugin declares\n"
    "\n"
    "Run 'zelt-modbus COMMAND --help' for the options of a command.\n";

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
    if (command == QLatin1String("columns")) return zelt_cli::runColumns(arguments);
    QTextStream(stderr) << "zelt-modbus: unknown command " << command << "\n" << kUsage;
    return zelt_cli::kExitUsage;
}
