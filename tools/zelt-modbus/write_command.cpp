#include <QJsonDocument>
#include <QTextStream>

#include "tools/zelt-modbus/batch_output.h"
#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/device_target.h"
#include "tools/zelt-modbus/session.h"

namespace zelt_cli {

int runWrite(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("write"),
        QStringLiteral("Writes one value to one item in a single write batch, as the host does.\n"
                       "Exits 0 when the batch succeeded and the item has no error, 1 otherwise."));
    command.addOption(QStringLiteral("config"), QStringLiteral("FILE"),
                      QStringLiteral("configuration file (JSON)"));
    command.addOption(QStringLiteral("device"), QStringLiteral("ID"), QStringLiteral("id of the device"));
    command.addOption(QStringLiteral("item"), QStringLiteral("UID"), QStringLiteral("uid of the item"));
    command.addOption(QStringLiteral("value"), QStringLiteral("TEXT"),
                      QStringLiteral("value to write, as text"));
    addTransportOption(&command);
    addTlsOptions(&command);
    command.addFlag(QStringLiteral("json"), QStringLiteral("print the result as JSON"));
    command.addFlag(QStringLiteral("verbose"), QStringLiteral("also print the plugin's debug log"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;
    for (const char* required : {"config", "device", "item", "value"}) {
        if (!command.has(QLatin1String(required))) {
            QTextStream(stderr) << "zelt-modbus write: --" << required << " is required\n" << command.usage();
            return kExitUsage;
        }
    }
    Transport transport = Transport::ModbusTcp;
    if (!readTransportOption(command, QStringLiteral("write"), &transport)) return kExitUsage;

    const QString path = command.value(QStringLiteral("config"));
    Config config;
    QString error;
    if (!readConfigFile(path, &config, &error)) return fail(error, kExitUsage);
    bool idOk = false;
    const int deviceId = command.value(QStringLiteral("device")).toInt(&idOk);
    // Set before anything points into the devices: the option stands for the setting, as if configured.
    if (idOk && command.has(QStringLiteral("transport"))) {
        for (DeviceConfig& candidate : config.devices)
            if (candidate.id == deviceId)
                candidate.settings.insert(kTransportSetting, transportSetting(transport));
    }
    const DeviceConfig* device = idOk ? config.device(deviceId) : nullptr;
    if (!device)
        return fail(
            QStringLiteral("%1: no device with id %2").arg(path, command.value(QStringLiteral("device"))),
            kExitUsage);
    // The certificate options stand for the device's tls_* settings alike.
    TlsSettings tls = tlsSettingsOf(*device);
    if (!readTlsOptions(command, QStringLiteral("write"), transportOf(*device), &tls)) return kExitUsage;
    if (transportOf(*device) == Transport::ModbusTcpSecurity) {
        for (DeviceConfig& configured : config.devices)
            if (configured.id == deviceId) setTlsSettings(&configured, tls);
    }
    const QString uid = command.value(QStringLiteral("item"));
    const ItemConfig* item = nullptr;
    for (const ItemConfig& candidate : device->items)
        if (candidate.uid == uid) item = &candidate;
    if (!item)
        return fail(
            QStringLiteral("%1: device %2 has no item with uid \"%3\"").arg(path).arg(deviceId).arg(uid),
            kExitUsage);

    PluginSession session;
    session.setVerbose(command.flag(QStringLiteral("verbose")));
    if (!session.start(command.pluginPath(), config, &error)) return fail(error);
    const BatchResult result = session.write(*device, *item, command.value(QStringLiteral("value")));
    session.stop();

    QTextStream out(stdout);
    if (command.flag(QStringLiteral("json")))
        out << jsonLine(writeToJson(result)) << "\n";
    else
        printWrite(out, result);
    const bool itemOk = !result.items.isEmpty() && result.items.first().error.isEmpty();
    return result.ok && itemOk ? 0 : 1;
}

}  // namespace zelt_cli
