#pragma once
// The configuration file of zelt-modbus: the devices and items the host would have stored, read and checked
// in one place before any traffic. Pure apart from reading the file itself.

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include "connection/tls_settings.h"
#include "connection/transport.h"
#include "host/records.h"

namespace zelt_cli {

// The device setting that picks the framing on the device's TCP connection, and its stored texts.
inline const QString kTransportSetting = QStringLiteral("transport");
inline const QString kModbusTcpSetting = QStringLiteral("0");
inline const QString kRtuOverTcpSetting = QStringLiteral("1");
inline const QString kModbusTcpSecuritySetting = QStringLiteral("2");
// The device settings of Modbus/TCP Security's certificates: each a PEM file path or the PEM text itself.
inline const QString kTlsCaSetting = QStringLiteral("tls_ca_certificates");
inline const QString kTlsCertificateSetting = QStringLiteral("tls_certificate");
inline const QString kTlsKeySetting = QStringLiteral("tls_private_key");
inline const QString kTlsServerNameSetting = QStringLiteral("tls_server_name");
inline const QString kPortSetting = QStringLiteral("port");
// The port of Modbus/TCP Security when the device names none, as the plugin takes it.
constexpr int kDefaultSecurePort = 802;
// The item settings whose stored codes the plugin names in its choice lists.
inline const QString kTypeSetting = QStringLiteral("type");
inline const QString kRegisterTypeSetting = QStringLiteral("register_type");

struct ItemConfig {
    QString uid;
    QString name;
    QMap<QString, QString> settings;
};

struct DeviceConfig {
    int id = 0;
    QString name;
    QString address;
    QMap<QString, QString> settings;
    QList<ItemConfig> items;
};

struct Config {
    QList<DeviceConfig> devices;

    // Null when there is no device with that id.
    const DeviceConfig* device(int id) const;
};

// Parses the JSON text of a configuration. `fileName` only prefixes the messages. False with a message that
// names the file and the place in it, e.g. `meter.json: devices[0].items[1]: duplicate uid "t1"`.
bool parseConfig(const QByteArray& json, const QString& fileName, Config* config, QString* error);

// The stored text of the device setting "transport" for `text`, which may also name it: "tcp" for "0",
// "rtu" for "1", "tls" for "2". False for any other text.
bool transportSettingFor(const QString& text, QString* stored);

// The stored code of the item setting "type" for `text`: a code the plugin declares, or its choice text
// ("FLOAT" for "5"). False for any other text.
bool typeSettingFor(const QString& text, QString* stored);
// The choice text of a stored "type" code ("FLOAT" for "5"); empty for a code the plugin does not declare.
QString typeName(const QString& code);
// The stored code of the item setting "register_type" for `text`: a code the plugin declares, or its choice
// text ("Holding Register" for "3"). False for any other text.
bool registerTypeSettingFor(const QString& text, QString* stored);

// How the plugin reads the device's "transport": RTU over TCP for "1", Modbus/TCP Security for "2", Modbus
// TCP for anything else.
Transport transportOf(const DeviceConfig& device);
// The stored "transport" text of `transport`.
QString transportSetting(Transport transport);
// The device's certificate settings (empty texts where it has none).
TlsSettings tlsSettingsOf(const DeviceConfig& device);
// Sets the device's tls_* settings to the texts of `tls` that are not empty.
void setTlsSettings(DeviceConfig* device, const TlsSettings& tls);

// Reads and parses the file at `path`.
bool readConfigFile(const QString& path, Config* config, QString* error);

// Settings a column list declares a default for, as the host stores them for a new device or item.
QMap<QString, QString> columnDefaults(const QList<DatabaseColumnStructure>& columns);

// Fills every setting the configuration leaves out with the declared default; given settings are kept. A
// Modbus/TCP Security device without a port gets 802, as the plugin would give it, not the column's 502.
void applyDefaults(Config* config, const QMap<QString, QString>& deviceDefaults,
                   const QMap<QString, QString>& itemDefaults);

DeviceInstancePlugin toDeviceRecord(const DeviceConfig& device);
ItemInstancePlugin toItemRecord(const ItemConfig& item, int deviceId);

}  // namespace zelt_cli
