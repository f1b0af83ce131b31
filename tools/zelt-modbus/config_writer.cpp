#include "tools/zelt-modbus/config_writer.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace zelt_cli {

namespace {

QJsonObject settingsObject(const QMap<QString, QString>& settings) {
    QJsonObject object;
    for (auto it = settings.begin(); it != settings.end(); ++it) object.insert(it.key(), it.value());
    return object;
}

}  // namespace

QByteArray configToJson(const Config& config) {
    QJsonArray devices;
    for (const DeviceConfig& device : config.devices) {
        QJsonObject object{{QStringLiteral("id"), device.id},
                           {QStringLiteral("name"), device.name},
                           {QStringLiteral("address"), device.address}};
        if (!device.settings.isEmpty())
            object.insert(QStringLiteral("settings"), settingsObject(device.settings));
        QJsonArray items;
        for (const ItemConfig& item : device.items) {
            QJsonObject itemObject{{QStringLiteral("uid"), item.uid}, {QStringLiteral("name"), item.name}};
            if (!item.settings.isEmpty())
                itemObject.insert(QStringLiteral("settings"), settingsObject(item.settings));
            items.append(itemObject);
        }
        object.insert(QStringLiteral("items"), items);
        devices.append(object);
    }
    return QJsonDocument(QJsonObject{{QStringLiteral("devices"), devices}}).toJson(QJsonDocument::Indented);
}

Config configFromCandidates(const QJsonArray& candidates) {
    Config config;
    for (const QJsonValue& value : candidates) {
        const QJsonObject candidate = value.toObject();
        DeviceConfig device;
        device.id = config.devices.size() + 1;
        device.address = candidate.value(QStringLiteral("address")).toString();
        device.name = candidate.value(QStringLiteral("name")).toString();
        if (device.name.trimmed().isEmpty()) device.name = QStringLiteral("device %1").arg(device.id);
        const QJsonObject fields = candidate.value(QStringLiteral("user_defined_fields")).toObject();
        for (auto it = fields.begin(); it != fields.end(); ++it)
            device.settings.insert(
                it.key(), it.value().isString() ? it.value().toString() : it.value().toVariant().toString());
        config.devices.append(device);
    }
    return config;
}

bool writeConfigFile(const QString& path, const QByteArray& json, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(json) != json.size()) {
        *error = QStringLiteral("%1: cannot write: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

}  // namespace zelt_cli
