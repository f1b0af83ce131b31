#pragma once
// Identity items: identification data published as ordinary items whose "register" is "__identity.<field>".
// Knows nothing of Modbus.

#include <QList>
#include <QMap>
#include <QString>

#include "host/plugin_interface.h"
#include "host/records.h"

namespace zelt_identity {

struct Spec {
    QString field;
    QString label;
    QString description;
    QMap<QString, QString> settings;
    bool flag = false;
};

int readIntervalMs();
bool isIdentityAddress(const QString& address);
QString fieldKey(const QString& address);
QString uidFor(int deviceId, const QString& field);
int ensureItems(PluginInterface* host, int deviceId, const QList<Spec>& specs);
void ensureItemsForAllDevices(PluginInterface* host, const QList<Spec>& specs);
void requestReloadIfIdentityCreated(PluginInterface* host, int createdCount);
void applyValues(LogList* list, const char* registerSetting, const QMap<QString, QString>& values);
void applyValuesByUid(LogList* list, const QMap<QString, QString>& values);
void publishValues(PluginInterface* host, LogList* list, const QMap<QString, QString>& values,
                   const char* registerSetting);

}  // namespace zelt_identity
