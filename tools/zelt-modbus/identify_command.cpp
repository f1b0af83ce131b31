#include <QJsonArray>
#include <QJsonDocument>
#include <QList>
#include <QPair>
#include <QTextStream>

#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/device_target.h"
#include "tools/zelt-modbus/session.h"

namespace zelt_cli {

namespace {

const QString kCommandName = QStringLiteral("identify");
const QString kIdentityPrefix = QStringLiteral("__identity.");
const QString kServerIdSetting = QStringLiteral("server_id");
const QString kResponseTimeoutSetting = QStringLiteral("response_timeout_ms");
// The plugin declares its identity items in this order; a field it adds later follows them as it comes.
const char* const kFieldOrder[] = {"vendor",       "product_code", "version",         "vendor_url",
                                   "product_name", "model",        "user_application"};
// The device of an --address target, as a host would number its first one.
constexpr int kAddressDeviceId = 1;

struct Field {
    QString key;    // e.g. "product_code"
    QString label;  // the identity item's name, e.g. "Product code"
    QString value;
};

// The identity items of the poll that carry a value, in the declared order.
QList<Field> identification(const BatchResult& result) {
    QList<Field> given;
    for (const ItemResult& item : result.items) {
        if (!item.address.startsWith(kIdentityPrefix) || !item.error.isEmpty() || item.value.isEmpty())
            continue;
        given.append({item.address.mid(kIdentityPrefix.size()), item.name, item.value});
    }
    QList<Field> ordered;
    for (const char* key : kFieldOrder) {
        for (int i = 0; i < given.size(); ++i) {
            if (given.at(i).key == QLatin1String(key)) {
                ordered.append(given.takeAt(i));
                break;
            }
        }
    }
    return ordered + given;
}

QString jsonString(const QString& text) {
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

// QJsonObject sorts its keys; the fields keep their order only when the object is written member by member.
QString orderedJsonObject(const QList<Field>& fields) {
    QStringList members;
    for (const Field& field : fields)
        members.append(jsonString(field.key) + QLatin1Char(':') + jsonString(field.value));
    return QLatin1Char('{') + members.join(QLatin1Char(',')) + QLatin1Char('}');
}

// The device the plugin polls: a configured one keeps its settings, with the target's over them.
bool deviceFor(const CommandLine& command, const DeviceTarget& target, DeviceConfig* device, QString* error) {
    if (command.has(QStringLiteral("config"))) {
        Config config;
        if (!readConfigFile(command.value(QStringLiteral("config")), &config, error)) return false;
        const DeviceConfig* configured = config.device(command.value(QStringLiteral("device")).toInt());
        if (!configured) {
            *error =
                QStringLiteral("%1: no device with id %2")
                    .arg(command.value(QStringLiteral("config")), command.value(QStringLiteral("device")));
            return false;
        }
        *device = *configured;
        device->items.clear();
        if (command.has(QStringLiteral("timeout")))
            device->settings.insert(kResponseTimeoutSetting, QString::number(target.responseTimeoutMs));
    } else {
        device->id = kAddressDeviceId;
        device->name = target.address;
        device->settings.insert(kResponseTimeoutSetting, QString::number(target.responseTimeoutMs));
    }
    device->address = target.address;
    device->settings.insert(kPortSetting, QString::number(target.port));
    device->settings.insert(kServerIdSetting, QString::number(target.unit));
    device->settings.insert(kTransportSetting, transportSetting(target.transport));
    setTlsSettings(device, target.tls);
    return true;
}

}  // namespace

int runIdentify(const QStringList& arguments) {
    CommandLine command(
        kCommandName,
        QStringLiteral(
            "Reads the device's identification once through the plugin, as its first poll does (Read "
            "Device\nIdentification, else Report Slave ID), and prints one \"name: value\" line per "
            "field the device\ngave, in the order the plugin declares its identity items.\n"
            "Exits 0 when the device answered (also without identification), 1 when it cannot be "
            "reached."));
    addTargetOptions(&command);
    command.addFlag(
        QStringLiteral("json"),
        QStringLiteral("print one JSON object, field keys (vendor, product_code, ...) in the same "
                       "order"));
    command.addFlag(QStringLiteral("verbose"), QStringLiteral("also print the plugin's debug log"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;
    DeviceTarget target;
    if (!readTarget(command, kCommandName, &target)) return kExitUsage;

    DeviceConfig device;
    QString error;
    if (!deviceFor(command, target, &device, &error)) return fail(error, kExitUsage);
    Config config;
    config.devices.append(device);

    PluginSession session;
    session.setVerbose(command.flag(QStringLiteral("verbose")));
    if (!session.start(command.pluginPath(), config, &error)) return fail(error);
    const BatchResult result = session.poll(device);
    session.stop();

    const QString where =
        QStringLiteral("%1:%2 unit %3").arg(target.address).arg(target.port).arg(target.unit);
    if (!result.ok) {
        QTextStream(stderr) << "zelt-modbus identify: " << where << ": "
                            << (result.error.isEmpty() ? QStringLiteral("the poll failed") : result.error)
                            << "\n";
        return 1;
    }
    const QList<Field> fields = identification(result);
    QTextStream out(stdout);
    if (command.flag(QStringLiteral("json"))) {
        out << orderedJsonObject(fields) << "\n";
    } else {
        for (const Field& field : fields) out << field.label << ": " << field.value << "\n";
    }
    if (fields.isEmpty())
        QTextStream(stderr) << "zelt-modbus identify: " << where
                            << ": no identification (neither Read Device Identification nor Report Slave ID "
                               "gave any)\n";
    return 0;
}

}  // namespace zelt_cli
