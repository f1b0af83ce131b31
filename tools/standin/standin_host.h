#pragma once
// In-process stand-in for the host library. Every PluginInterface talks to the one Host below, so a test or
// tool configures the host here and sees everything a plugin did through it.

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <functional>
#include <mutex>

#include "host/records.h"

namespace zelt_standin {

enum class LogLevel { Debug, Info, Warning, Error };

struct LogLine {
    LogLevel level;
    QString text;
};

struct InitCall {
    QString name;
    unsigned int version = 0;
    QList<DatabaseColumnStructure> pluginColumns;
    QList<DatabaseColumnStructure> itemColumns;
    QList<DatabaseColumnStructure> deviceColumns;
    QList<DatabaseColumnStructure> fourthColumns;
    PluginInitOptions options;
};

class Host {
public:
    static Host& instance();

    // Forgets devices, items, settings, interfaces, logs, init calls and the reload count.
    void reset();

    void setDevices(const QList<DeviceInstancePlugin>& devices);
    void addDevice(const DeviceInstancePlugin& device);
    QList<DeviceInstancePlugin> devices() const;

    void setSetting(const QString& key, const QString& value);
    QString setting(const QString& key) const;

    void setNetworkInterfaces(const QList<NetworkInterfaceInstance>& interfaces);
    QList<NetworkInterfaceInstance> networkInterfaces() const;

    // Items the host already knows, as if configured before the plugin started.
    void addKnownItem(const ItemInstancePlugin& item);
    QList<ItemInstancePlugin> items() const;       // every known item, in the order it became known
    QList<ItemInstancePlugin> addedItems() const;  // only those the plugin created with addPluginItem
    bool findItem(const QString& uid, ItemInstancePlugin* out) const;

    int reloadCount() const;
    QList<InitCall> initCalls() const;

    QList<LogLine> logLines() const;
    QStringList logTexts(LogLevel level) const;
    bool hasLog(LogLevel level, const QString& text) const;
    int countLog(LogLevel level, const QString& text) const;
    void clearLogs();
    // Called for every log line as it arrives (tools print them); null to stop.
    void setLogSink(std::function<void(LogLevel, const QString&)> sink);

    // Entry points of PluginInterface.
    void recordInit(InitCall call);
    void recordLog(LogLevel level, const QString& text);
    void recordAddedItem(const ItemInstancePlugin& item);
    void recordReload();

private:
    Host() = default;

    mutable std::mutex mutex;
    QList<DeviceInstancePlugin> deviceList;
    QMap<QString, QString> settings;
    QList<NetworkInterfaceInstance> interfaces;
    QList<ItemInstancePlugin> knownItems;
    QList<ItemInstancePlugin> createdItems;
    QList<InitCall> inits;
    QList<LogLine> logs;
    std::function<void(LogLevel, const QString&)> logSink;
    int reloads = 0;
};

QString levelName(LogLevel level);

}  // namespace zelt_standin
