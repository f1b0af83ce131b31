#include "tools/zelt-modbus/device_target.h"

#include <QTextStream>

#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/device_link.h"

namespace zelt_cli {

namespace {

constexpr int kLastPort = 65535;
constexpr int kLastUnit = 255;
const QString kTransportOption = QStringLiteral("transport");

bool usageError(const CommandLine& command, const QString& commandName, const QString& message) {
    QTextStream(stderr) << "zelt-modbus " << commandName << ": " << message << "\n" << command.usage();
    return false;
}

}  // namespace

void addTargetOptions(CommandLine* command) {
    command->addOption(QStringLiteral("address"), QStringLiteral("HOST"), QStringLiteral("device address"));
    command->addOption(QStringLiteral("port"), QStringLiteral("N"), QStringLiteral("TCP port (default 502)"));
    command->addOption(QStringLiteral("unit"), QStringLiteral("N"), QStringLiteral("unit id (default 1)"));
    command->addOption(QStringLiteral("config"), QStringLiteral("FILE"),
                       QStringLiteral("take address, port and unit from a configuration file..."));
    command->addOption(QStringLiteral("device"), QStringLiteral("ID"),
                       QStringLiteral("...from the device with this id"));
    command->addOption(QStringLiteral("timeout"), QStringLiteral("MS"),
                       QStringLiteral("response timeout per request (default 1000)"));
    addTransportOption(command);
}

void addTransportOption(CommandLine* command) {
    command->addOption(
        kTransportOption, QStringLiteral("NAME"),
        QStringLiteral("tcp (Modbus TCP) or rtu (RTU over TCP, to a serial-to-Ethernet converter); "
                       "default: the device's \"transport\" setting, else tcp"));
}

bool readTransportOption(const CommandLine& command, const QString& commandName, Transport* transport) {
    if (!command.has(kTransportOption)) return true;
    const QString name = command.value(kTransportOption);
    if (name == QLatin1String("tcp")) {
        *transport = Transport::ModbusTcp;
        return true;
    }
    if (name == QLatin1String("rtu")) {
        *transport = Transport::RtuOverTcp;
        return true;
    }
    return usageError(
        command, commandName,
        QStringLiteral("--transport: unknown transport \"%1\" (expected tcp or rtu)").arg(name));
}

bool readTarget(const CommandLine& command, const QString& commandName, DeviceTarget* target) {
    const bool fromConfig = command.has(QStringLiteral("config"));
    if (fromConfig == command.has(QStringLiteral("address")))
        return usageError(command, commandName, QStringLiteral("give either --address or --config"));
    if (fromConfig != command.has(QStringLiteral("device")))
        return usageError(command, commandName, QStringLiteral("--config and --device go together"));
    if (fromConfig) {
        Config config;
        QString error;
        if (!readConfigFile(command.value(QStringLiteral("config")), &config, &error))
            return usageError(command, commandName, error);
        int id = 0;
        if (!readNumberOption(command, QStringLiteral("device"), 1, 1, &id)) return false;
        const DeviceConfig* device = config.device(id);
        if (!device) return usageError(command, commandName, QStringLiteral("no device with id %1").arg(id));
        target->address = device->address;
        // The plugin reads a missing or bad number as 0 and then uses its defaults; so do we.
        const int port = device->settings.value(QStringLiteral("port")).toInt();
        const int unit = device->settings.value(QStringLiteral("server_id")).toInt();
        target->port = port > 0 && port <= kLastPort ? port : kDefaultModbusPort;
        target->unit = device->settings.contains(QStringLiteral("server_id")) ? unit : kDefaultUnit;
        target->transport = transportOf(*device);
    } else {
        target->address = command.value(QStringLiteral("address"));
        if (!readNumberOption(command, QStringLiteral("port"), 1, kDefaultModbusPort, &target->port) ||
            !readNumberOption(command, QStringLiteral("unit"), 0, kDefaultUnit, &target->unit))
            return false;
        if (target->port > kLastPort)
            return usageError(command, commandName, QStringLiteral("--port must be at most 65535"));
        if (target->unit > kLastUnit)
            return usageError(command, commandName, QStringLiteral("--unit must be at most 255"));
    }
    return readNumberOption(command, QStringLiteral("timeout"), 1, kDefaultResponseTimeoutMs,
                            &target->responseTimeoutMs) &&
           readTransportOption(command, commandName, &target->transport);
}

}  // namespace zelt_cli
