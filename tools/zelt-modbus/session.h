#pragma once
// One run of the plugin file against the stand-in host, driven as the host drives it: the configured devices
// are registered, the plugin is loaded and initialised, the declared defaults fill the settings the
// configuration left out, and batches go through readData / writeData.

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QMap>
#include <QString>
#include <QVector>

#include "tools/zelt-modbus/batch_result.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/plugin_loader.h"

namespace zelt_cli {

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

    // With `enabled` (before start), every poll also carries one item per diagnostic name, unseen: their
    // values go to the result's `diagnostics`, not to its items, so the printed lines stay as they were.
    void setDiagnosticItems(bool enabled) { diagnosticItems = enabled; }

    // Plugin log lines go to standard error: warnings and errors always, the rest only when verbose.
    void setVerbose(bool verbose);

    // One poll of the device: its configured items plus the identity items the plugin created for it.
    BatchResult poll(const DeviceConfig& device);
    // One write batch holding `item` with `value`.
    BatchResult write(const DeviceConfig& device, const ItemConfig& item, const QString& value);

    void stop();

private:
    struct ItemLabels {
        QString address;  // the "register" setting
        QString type;     // the label of the "type" setting
    };

    QString typeLabel(const QString& code) const;
    // `labels` of the item when known beforehand; else they are read from its settings.
    ItemResult itemResult(const DataItem& dataItem, const QDateTime& received,
                          const ItemLabels* labels) const;

    LoadedPlugin loaded;
    Config configuration;
    QHash<QString, QString> typeLabels;
    // The labels of every configured item, by device id, in the order of its items: looking them up in each
    // item's settings cost more than the rest of a poll's result.
    QHash<int, QVector<ItemLabels>> configuredLabels;
    bool diagnosticItems = false;
    // The unseen diagnostic items of every device, by device id, made once: the plugin parses an item's
    // settings again only when they are another map than in the last poll.
    QHash<int, QVector<ItemInstancePlugin>> hiddenItems;
    bool started = false;
};

}  // namespace zelt_cli
