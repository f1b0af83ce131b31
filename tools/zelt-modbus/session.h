#pragma once
// One run of the plugin file against the stand-in host, driven as the host drives it: the configured devices
// are registered, the plugin is loaded and initialised, the declared defaults fill the settings the
// configuration left out, and batches go through readData / writeData.

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QMap>
#include <QString>

#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/plugin_loader.h"

namespace zelt_cli {

struct ItemResult {
    QString uid;
    QString name;
    QString address;  // the item's "register" setting
    QString type;     // the label of its "type" setting, e.g. FLOAT
    QString value;
    QString error;
    QDateTime timestamp;  // UTC
};

struct BatchResult {
    int deviceId = 0;
    QString deviceName;
    QString deviceAddress;
    bool ok = false;
    QString error;  // the device's error text after the batch
    QList<ItemResult> items;
};

class PluginSession {
public:
    PluginSession() = default;
    ~PluginSession();
    PluginSession(const PluginSession&) = delete;
    PluginSession& operator=(const PluginSession&) = delete;

    // Loads and initialises the plugin for `config`. False with a reason.
    bool start(const QString& pluginPath, const Config& config, QString* error);
    // The configuration with the declared defaults filled in.
    const Config& config() const { return configuration; }

    // Plugin log lines go to standard error: warnings and errors always, the rest only when verbose.
    void setVerbose(bool verbose);

    // One poll of the device: its configured items plus the identity items the plugin created for it.
    BatchResult poll(const DeviceConfig& device);
    // One write batch holding `item` with `value`.
    BatchResult write(const DeviceConfig& device, const ItemConfig& item, const QString& value);

    void stop();

private:
    QString typeLabel(const QString& code) const;
    ItemResult itemResult(const DataItem& dataItem, const QDateTime& received) const;

    LoadedPlugin loaded;
    Config configuration;
    QHash<QString, QString> typeLabels;  // looked up for every item of every poll
    bool started = false;
};

}  // namespace zelt_cli
