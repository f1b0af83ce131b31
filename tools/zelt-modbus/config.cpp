#include "tools/zelt-modbus/config.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QPair>
#include <QSet>
#include <climits>
#include <cmath>

namespace zelt_cli {

namespace {

const QString kDevicesKey = QStringLiteral("devices");
const QString kIdKey = QStringLiteral("id");
const QString kNameKey = QStringLiteral("name");
const QString kAddressKey = QStringLiteral("address");
const QString kSettingsKey = QStringLiteral("settings");
const QString kItemsKey = QStringLiteral("items");
const QString kUidKey = QStringLiteral("uid");
const QString kTcpName = QStringLiteral("tcp");
const QString kRtuName = QStringLiteral("rtu");
const QString kTlsName = QStringLiteral("tls");

struct Choice {
    const char* name;
    const char* code;
};

// The plugin's choice lists of the item columns "type" and "register_type", in its order; the names are
// case-sensitive, as the host shows and stores them.
constexpr Choice kTypeChoices[] = {{"BIT", "0"},    {"INT16", "1"}, {"UINT16", "2"}, {"INT32", "3"},
                                   {"UINT32", "4"}, {"INT64", "8"}, {"UINT64", "9"}, {"FLOAT", "5"},
                                   {"DOUBLE", "6"}, {"STRING", "7"}};
constexpr Choice kRegisterTypeChoices[] = {{"Output Coil", "0"},
                                           {"Input Coil", "1"},
                                           {"Input Register", "2"},
                                           {"Holding Register", "3"},
                                           {"Auto", "4"}};

template <size_t N>
bool choiceCodeFor(const Choice (&choices)[N], const QString& text, QString* stored) {
    for (const Choice& choice : choices) {
        if (text == QLatin1String(choice.name) || text == QLatin1String(choice.code)) {
            *stored = QString::fromLatin1(choice.code);
            return true;
        }
    }
    return false;
}

// The host numbers devices from 1; identity items are never made for lower ids.
constexpr int kFirstDeviceId = 1;

QString describe(const QJsonValue& value) {
    switch (value.type()) {
        case QJsonValue::Null:
            return QStringLiteral("null");
        case QJsonValue::Bool:
            return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
        case QJsonValue::Double:
            return QString::number(value.toDouble(), 'g', 17);
        case QJsonValue::String:
            return QStringLiteral("\"%1\"").arg(value.toString());
        case QJsonValue::Array:
            return QStringLiteral("an array");
        case QJsonValue::Object:
            return QStringLiteral("an object");
        case QJsonValue::Undefined:
            break;
    }
    return QStringLiteral("nothing");
}

template <size_t N>
QString choiceList(const Choice (&choices)[N]) {
    QStringList names;
    for (const Choice& choice : choices)
        names.append(
            QStringLiteral("\"%1\" (%2)").arg(QLatin1String(choice.name), QLatin1String(choice.code)));
    const QString last = names.takeLast();
    return names.join(QStringLiteral(", ")) + QStringLiteral(" or ") + last;
}

bool isCode(const QString& text) {
    for (const QChar character : text)
        if (character < QLatin1Char('0') || character > QLatin1Char('9')) return false;
    return true;
}

class ConfigReader {
public:
    explicit ConfigReader(QString fileName) : file(std::move(fileName)) {}

    bool read(const QByteArray& json, Config* config);
    QString error;

private:
    bool fail(const QString& place, const QString& reason) {
        error = place.isEmpty() ? QStringLiteral("%1: %2").arg(file, reason)
                                : QStringLiteral("%1: %2: %3").arg(file, place, reason);
        return false;
    }
    bool checkKeys(const QJsonObject& object, const QString& place, const QStringList& known);
    bool readSettings(const QJsonObject& object, const QString& place, QMap<QString, QString>* settings);
    bool readText(const QJsonObject& object, const QString& key, const QString& place, bool required,
                  QString* out);
    bool readTransport(const QString& place, QMap<QString, QString>* settings);
    bool readItemChoices(const QString& place, QMap<QString, QString>* settings);
    bool readDevice(const QJsonValue& value, const QString& place, DeviceConfig* device);
    bool readItem(const QJsonValue& value, const QString& place, ItemConfig* item);

    QString file;
    QSet<int> deviceIds;
    QSet<QString> uids;
};

bool ConfigReader::read(const QByteArray& json, Config* config) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        const QByteArray before = json.left(parseError.offset);
        const int line = before.count('\n') + 1;
        const int column = parseError.offset - (before.lastIndexOf('\n') + 1) + 1;
        return fail(QString(), QStringLiteral("invalid JSON at line %1, column %2: %3")
                                   .arg(line)
                                   .arg(column)
                                   .arg(parseError.errorString()));
    }
    if (!document.isObject()) return fail(QString(), QStringLiteral("expected an object with \"devices\""));
    const QJsonObject root = document.object();
    if (!checkKeys(root, QString(), {kDevicesKey})) return false;
    if (!root.contains(kDevicesKey)) return fail(QString(), QStringLiteral("missing \"devices\""));
    if (!root.value(kDevicesKey).isArray())
        return fail(kDevicesKey,
                    QStringLiteral("expected an array, not %1").arg(describe(root.value(kDevicesKey))));
    const QJsonArray devices = root.value(kDevicesKey).toArray();
    Config result;
    for (int i = 0; i < devices.size(); ++i) {
        DeviceConfig device;
        if (!readDevice(devices.at(i), QStringLiteral("devices[%1]").arg(i), &device)) return false;
        result.devices.append(device);
    }
    *config = result;
    return true;
}

bool ConfigReader::checkKeys(const QJsonObject& object, const QString& place, const QStringList& known) {
    // A misspelt key would otherwise be ignored silently and its settings fall back to defaults.
    for (auto it = object.begin(); it != object.end(); ++it)
        if (!known.contains(it.key()))
            return fail(place, QStringLiteral("unknown key \"%1\" (expected one of %2)")
                                   .arg(it.key(), known.join(QStringLiteral(", "))));
    return true;
}

bool ConfigReader::readSettings(const QJsonObject& object, const QString& place,
                                QMap<QString, QString>* settings) {
    if (!object.contains(kSettingsKey)) return true;
    const QString settingsPlace = place + QLatin1Char('.') + kSettingsKey;
    const QJsonValue value = object.value(kSettingsKey);
    if (!value.isObject())
        return fail(settingsPlace, QStringLiteral("expected an object, not %1").arg(describe(value)));
    const QJsonObject map = value.toObject();
    for (auto it = map.begin(); it != map.end(); ++it) {
        // The host stores every setting as text; a number here would be a guess at its spelling.
        if (!it.value().isString())
            return fail(settingsPlace + QLatin1Char('.') + it.key(),
                        QStringLiteral("expected a text, not %1").arg(describe(it.value())));
        settings->insert(it.key(), it.value().toString());
    }
    return true;
}

bool ConfigReader::readText(const QJsonObject& object, const QString& key, const QString& place,
                            bool required, QString* out) {
    if (!object.contains(key))
        return required ? fail(place, QStringLiteral("missing \"%1\"").arg(key)) : true;
    const QJsonValue value = object.value(key);
    if (!value.isString() || value.toString().trimmed().isEmpty())
        return fail(place + QLatin1Char('.') + key,
                    QStringLiteral("expected a non-empty text, not %1").arg(describe(value)));
    *out = value.toString();
    return true;
}

bool ConfigReader::readTransport(const QString& place, QMap<QString, QString>* settings) {
    if (!settings->contains(kTransportSetting)) return true;
    const QString text = settings->value(kTransportSetting);
    QString stored;
    // The plugin would read a misspelt transport as Modbus TCP and talk to a converter in the wrong framing.
    if (!transportSettingFor(text, &stored))
        return fail(place + QLatin1Char('.') + kSettingsKey + QLatin1Char('.') + kTransportSetting,
                    QStringLiteral("expected \"tcp\", \"rtu\", \"tls\", \"0\", \"1\" or \"2\", not %1")
                        .arg(describe(text)));
    settings->insert(kTransportSetting, stored);
    return true;
}

bool ConfigReader::readItemChoices(const QString& place, QMap<QString, QString>* settings) {
    const struct {
        const QString& key;
        bool (*storedFor)(const QString&, QString*);
        QString expected;
    } kChoiceSettings[] = {{kTypeSetting, typeSettingFor, choiceList(kTypeChoices)},
                           {kRegisterTypeSetting, registerTypeSettingFor, choiceList(kRegisterTypeChoices)}};
    for (const auto& setting : kChoiceSettings) {
        if (!settings->contains(setting.key)) continue;
        const QString text = settings->value(setting.key);
        // Codes (and the empty default) go to the plugin as they stand, as they always have.
        if (isCode(text)) continue;
        QString stored;
        // The plugin would read a name as code 0: a misspelt "FLOAT" would become a BIT, "Holding Register" a
        // coil.
        if (!setting.storedFor(text, &stored))
            return fail(
                place + QLatin1Char('.') + kSettingsKey + QLatin1Char('.') + setting.key,
                QStringLiteral("expected %1, as name or code, not %2").arg(setting.expected, describe(text)));
        settings->insert(setting.key, stored);
    }
    return true;
}

bool ConfigReader::readDevice(const QJsonValue& value, const QString& place, DeviceConfig* device) {
    if (!value.isObject())
        return fail(place, QStringLiteral("expected an object, not %1").arg(describe(value)));
    const QJsonObject object = value.toObject();
    if (!checkKeys(object, place, {kIdKey, kNameKey, kAddressKey, kSettingsKey, kItemsKey})) return false;

    if (!object.contains(kIdKey)) return fail(place, QStringLiteral("missing \"id\""));
    const QJsonValue id = object.value(kIdKey);
    const double number = id.toDouble();
    if (!id.isDouble() || std::floor(number) != number || number < kFirstDeviceId || number > INT_MAX)
        return fail(place + QStringLiteral(".id"),
                    QStringLiteral("expected a whole number of at least %1, not %2")
                        .arg(kFirstDeviceId)
                        .arg(describe(id)));
    device->id = static_cast<int>(number);
    if (deviceIds.contains(device->id)) return fail(place, QStringLiteral("duplicate id %1").arg(device->id));
    deviceIds.insert(device->id);

    if (!readText(object, kAddressKey, place, true, &device->address)) return false;
    device->name = QStringLiteral("device %1").arg(device->id);
    if (!readText(object, kNameKey, place, false, &device->name)) return false;
    if (!readSettings(object, place, &device->settings) || !readTransport(place, &device->settings))
        return false;

    if (!object.contains(kItemsKey)) return true;
    const QJsonValue items = object.value(kItemsKey);
    if (!items.isArray())
        return fail(place + QStringLiteral(".items"),
                    QStringLiteral("expected an array, not %1").arg(describe(items)));
    const QJsonArray array = items.toArray();
    for (int i = 0; i < array.size(); ++i) {
        ItemConfig item;
        if (!readItem(array.at(i), QStringLiteral("%1.items[%2]").arg(place).arg(i), &item)) return false;
        device->items.append(item);
    }
    return true;
}

bool ConfigReader::readItem(const QJsonValue& value, const QString& place, ItemConfig* item) {
    if (!value.isObject())
        return fail(place, QStringLiteral("expected an object, not %1").arg(describe(value)));
    const QJsonObject object = value.toObject();
    if (!checkKeys(object, place, {kUidKey, kNameKey, kSettingsKey})) return false;
    if (!readText(object, kUidKey, place, true, &item->uid)) return false;
    // Uids are unique across the whole host, not only within one device.
    if (uids.contains(item->uid)) return fail(place, QStringLiteral("duplicate uid \"%1\"").arg(item->uid));
    uids.insert(item->uid);
    item->name = item->uid;
    if (!readText(object, kNameKey, place, false, &item->name)) return false;
    return readSettings(object, place, &item->settings) && readItemChoices(place, &item->settings);
}

}  // namespace

const DeviceConfig* Config::device(int id) const {
    for (const DeviceConfig& candidate : devices)
        if (candidate.id == id) return &candidate;
    return nullptr;
}

bool transportSettingFor(const QString& text, QString* stored) {
    if (text == kTcpName || text == kModbusTcpSetting) {
        *stored = kModbusTcpSetting;
        return true;
    }
    if (text == kRtuName || text == kRtuOverTcpSetting) {
        *stored = kRtuOverTcpSetting;
        return true;
    }
    if (text == kTlsName || text == kModbusTcpSecuritySetting) {
        *stored = kModbusTcpSecuritySetting;
        return true;
    }
    return false;
}

bool typeSettingFor(const QString& text, QString* stored) {
    return choiceCodeFor(kTypeChoices, text, stored);
}

QString typeName(const QString& code) {
    for (const Choice& choice : kTypeChoices)
        if (code == QLatin1String(choice.code)) return QString::fromLatin1(choice.name);
    return QString();
}

bool registerTypeSettingFor(const QString& text, QString* stored) {
    return choiceCodeFor(kRegisterTypeChoices, text, stored);
}

Transport transportOf(const DeviceConfig& device) {
    const QString stored = device.settings.value(kTransportSetting);
    if (stored == kRtuOverTcpSetting) return Transport::RtuOverTcp;
    if (stored == kModbusTcpSecuritySetting) return Transport::ModbusTcpSecurity;
    return Transport::ModbusTcp;
}

QString transportSetting(Transport transport) {
    switch (transport) {
        case Transport::RtuOverTcp:
            return kRtuOverTcpSetting;
        case Transport::ModbusTcpSecurity:
            return kModbusTcpSecuritySetting;
        case Transport::ModbusTcp:
            break;
    }
    return kModbusTcpSetting;
}

TlsSettings tlsSettingsOf(const DeviceConfig& device) {
    TlsSettings tls;
    tls.caCertificates = device.settings.value(kTlsCaSetting);
    tls.certificate = device.settings.value(kTlsCertificateSetting);
    tls.privateKey = device.settings.value(kTlsKeySetting);
    tls.serverName = device.settings.value(kTlsServerNameSetting);
    return tls;
}

void setTlsSettings(DeviceConfig* device, const TlsSettings& tls) {
    const QList<QPair<QString, QString>> settings{{kTlsCaSetting, tls.caCertificates},
                                                  {kTlsCertificateSetting, tls.certificate},
                                                  {kTlsKeySetting, tls.privateKey},
                                                  {kTlsServerNameSetting, tls.serverName}};
    for (const auto& setting : settings)
        if (!setting.second.isEmpty()) device->settings.insert(setting.first, setting.second);
}

bool parseConfig(const QByteArray& json, const QString& fileName, Config* config, QString* error) {
    ConfigReader reader(fileName);
    if (reader.read(json, config)) return true;
    *error = reader.error;
    return false;
}

bool readConfigFile(const QString& path, Config* config, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: cannot read: %2").arg(path, file.errorString());
        return false;
    }
    return parseConfig(file.readAll(), path, config, error);
}

QMap<QString, QString> columnDefaults(const QList<DatabaseColumnStructure>& columns) {
    QMap<QString, QString> defaults;
    for (const DatabaseColumnStructure& column : columns) defaults.insert(column.name, column.defaultValue);
    return defaults;
}

void applyDefaults(Config* config, const QMap<QString, QString>& deviceDefaults,
                   const QMap<QString, QString>& itemDefaults) {
    for (DeviceConfig& device : config->devices) {
        if (transportOf(device) == Transport::ModbusTcpSecurity && !device.settings.contains(kPortSetting))
            device.settings.insert(kPortSetting, QString::number(kDefaultSecurePort));
        for (auto it = deviceDefaults.begin(); it != deviceDefaults.end(); ++it)
            if (!device.settings.contains(it.key())) device.settings.insert(it.key(), it.value());
        for (ItemConfig& item : device.items)
            for (auto it = itemDefaults.begin(); it != itemDefaults.end(); ++it)
                if (!item.settings.contains(it.key())) item.settings.insert(it.key(), it.value());
    }
}

DeviceInstancePlugin toDeviceRecord(const DeviceConfig& device) {
    DeviceInstancePlugin record;
    record.id = device.id;
    record.name = device.name;
    record.address = device.address;
    record.settings = device.settings;
    record.pluginName = QStringLiteral("modbus_tcp");
    return record;
}

ItemInstancePlugin toItemRecord(const ItemConfig& item, int deviceId) {
    ItemInstancePlugin record;
    record.uid = item.uid;
    record.name = item.name;
    record.enabled = true;
    record.deviceId = deviceId;
    record.settings = item.settings;
    return record;
}

}  // namespace zelt_cli
