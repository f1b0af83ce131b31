#include "tools/zelt-modbus/device_target.h"

#include <QList>
#include <QPair>
#include <QTextStream>

#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/device_link.h"

namespace zelt_cli {

namespace {

constexpr int kLastPort = 65535;
constexpr int kLastUnit = 255;
const QString kTransportOption = QStringLiteral("transport");
const QString kTlsCaOption = QStringLiteral("tls-ca");
const QString kTlsCertOption = QStringLiteral("tls-cert");
const QString kTlsKeyOption = QStringLiteral("tls-key");
const QString kTlsServerNameOption = QStringLiteral("tls-server-name");

bool usageError(const CommandLine& command, const QString& commandName, const QString& message) {
    QTextStream(stderr) << "zelt-modbus " << commandName << ": " << message << "\n" << command.usage();
    return false;
}

int defaultPort(Transport transport) {
    return transport == Transport::ModbusTcpSecurity ? kDefaultSecurePort : kDefaultModbusPort;
}

}  // namespace

void addTargetOptions(CommandLine* command) {
    command->addOption(QStringLiteral("address"), QStringLiteral("HOST"), QStringLiteral("device address"));
    command->addOption(QStringLiteral("port"), QStringLiteral("N"),
                       QStringLiteral("TCP port (default 502; 802 with --transport tls)"));
    command->addOption(QStringLiteral("unit"), QStringLiteral("N"), QStringLiteral("unit id (default 1)"));
    command->addOption(QStringLiteral("config"), QStringLiteral("FILE"),
                       QStringLiteral("take address, port and unit from a configuration file..."));
    command->addOption(QStringLiteral("device"), QStringLiteral("ID"),
                       QStringLiteral("...from the device with this id"));
    command->addOption(QStringLiteral("timeout"), QStringLiteral("MS"),
                       QStringLiteral("response timeout per request (default 1000)"));
    addTransportOption(command);
    addTlsOptions(command);
}

void addTransportOption(CommandLine* command) {
    command->addOption(
        kTransportOption, QStringLiteral("NAME"),
        QStringLiteral("tcp (Modbus TCP), rtu (RTU over TCP, to a serial-to-Ethernet converter) or tls "
                       "(Modbus/TCP Security); default: the device's \"transport\" setting, else tcp"));
}

void addTlsOptions(CommandLine* command) {
    command->addOption(kTlsCaOption, QStringLiteral("FILE"),
                       QStringLiteral("with --transport tls (Modbus/TCP Security, port 802 by default): the "
                                      "authorities (PEM) the device's certificate must chain to"));
    command->addOption(
        kTlsCertOption, QStringLiteral("FILE"),
        QStringLiteral("with --transport tls: this client's certificate (PEM), with its role"));
    command->addOption(kTlsKeyOption, QStringLiteral("FILE"),
                       QStringLiteral("with --transport tls: that certificate's private key (PEM)"));
    command->addOption(kTlsServerNameOption, QStringLiteral("NAME"),
                       QStringLiteral("with --transport tls: the name or IP address the device's certificate "
                                      "must carry (default: not checked)"));
}

bool readTlsOptions(const CommandLine& command, const QString& commandName, Transport transport,
                    TlsSettings* tls) {
    const QList<QPair<QString, QString*>> options{{kTlsCaOption, &tls->caCertificates},
                                                  {kTlsCertOption, &tls->certificate},
                                                  {kTlsKeyOption, &tls->privateKey},
                                                  {kTlsServerNameOption, &tls->serverName}};
    for (const auto& option : options) {
        if (!command.has(option.first)) continue;
        if (transport != Transport::ModbusTcpSecurity)
            return usageError(command, commandName,
                              QStringLiteral("--%1 needs --transport tls").arg(option.first));
        if (command.value(option.first).trimmed().isEmpty())
            return usageError(command, commandName, QStringLiteral("--%1: empty").arg(option.first));
        *option.second = command.value(option.first);
    }
    if (transport != Transport::ModbusTcpSecurity) return true;
    if (tls->caCertificates.trimmed().isEmpty())
        return usageError(command, commandName, QStringLiteral("--transport tls needs --tls-ca FILE"));
    if (tls->certificate.trimmed().isEmpty() != tls->privateKey.trimmed().isEmpty())
        return usageError(command, commandName, QStringLiteral("--tls-cert and --tls-key go together"));
    return true;
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
    if (name == QLatin1String("tls")) {
        *transport = Transport::ModbusTcpSecurity;
        return true;
    }
    return usageError(
        command, commandName,
        QStringLiteral("--transport: unknown transport \"%1\" (expected tcp, rtu or tls)").arg(name));
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
        target->transport = transportOf(*device);
        target->tls = tlsSettingsOf(*device);
        if (!readTransportOption(command, commandName, &target->transport)) return false;
        // The plugin reads a missing or bad number as 0 and then uses its defaults; so do we.
        const int port = device->settings.value(QStringLiteral("port")).toInt();
        const int unit = device->settings.value(QStringLiteral("server_id")).toInt();
        target->port = port > 0 && port <= kLastPort ? port : defaultPort(target->transport);
        target->unit = device->settings.contains(QStringLiteral("server_id")) ? unit : kDefaultUnit;
    } else {
        target->address = command.value(QStringLiteral("address"));
        if (!readTransportOption(command, commandName, &target->transport)) return false;
        if (!readNumberOption(command, QStringLiteral("port"), 1, defaultPort(target->transport),
                              &target->port) ||
            !readNumberOption(command, QStringLiteral("unit"), 0, kDefaultUnit, &target->unit))
            return false;
        if (target->port > kLastPort)
            return usageError(command, commandName, QStringLiteral("--port must be at most 65535"));
        if (target->unit > kLastUnit)
            return usageError(command, commandName, QStringLiteral("--unit must be at most 255"));
    }
    return readNumberOption(command, QStringLiteral("timeout"), 1, kDefaultResponseTimeoutMs,
                            &target->responseTimeoutMs) &&
           readTlsOptions(command, commandName, target->transport, &target->tls);
}

}  // namespace zelt_cli
