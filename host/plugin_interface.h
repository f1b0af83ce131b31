#pragma once
// Services the host offers to a plugin. The plugin holds one PluginInterface by value; every instance talks
// to the same host, so no per-object state lives here.

#include <QList>
#include <QString>

#include "records.h"

class PluginInterface {
public:
    PluginInterface();
    ~PluginInterface();

    void initPlugin(QString name, unsigned int version, QList<DatabaseColumnStructure> pluginColumns,
                    QList<DatabaseColumnStructure> itemColumns, QList<DatabaseColumnStructure> deviceColumns,
                    QList<DatabaseColumnStructure> fourthColumns, PluginInitOptions const& options);

    QString getSetting(QString key);

    void logInfo(QString message);
    void logWarning(QString message);
    void logError(QString message);
    void logDebug(QString message);

    void addPluginItem(ItemInstancePlugin* item);
    bool getPluginItem(QString uid, ItemInstancePlugin* out);
    void reloadPlugins();

    QList<DeviceInstancePlugin> getPluginDevices();
    QList<NetworkInterfaceInstance> getNetworkInterfaces();
};
