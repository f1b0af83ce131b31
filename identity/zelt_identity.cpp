#include "identity/zelt_identity.h"

#include <QDateTime>
#include <QSet>

namespace zelt_identity {

namespace {

const QString kAddressPrefix = QStringLiteral("__identity.");
constexpr int kReadIntervalMs = 7 * 24 * 60 * 60 * 1000;  // identity rarely changes: once a week
const QString kRefreshingSetting = QStringLiteral("plugin_refreshing");

void setValue(DataItem* dataItem, const QString& value, const QDateTime& now) {
    dataItem->values.insert(QStringLiteral("value"), value);
    dataItem->timestamp = now;
    dataItem->item.setLastError(QString());
}

}  // namespace

int readIntervalMs() {
    return kReadIntervalMs;
}

bool isIdentityAddress(const QString& address) {
    return address.startsWith(kAddressPrefix, Qt::CaseSensitive);
}

QString fieldKey(const QString& address) {
    return isIdentityAddress(address) ? address.mid(kAddressPrefix.size()) : QString();
}

QString uidFor(int deviceId, const QString& field) {
    return QStringLiteral("identity_%1_%2").arg(deviceId).arg(field);
}

int ensureItems(PluginInterface* host, int deviceId, const QList<Spec>& specs) {
    if (!host || deviceId < 1) return 0;
    int created = 0;
    for (const Spec& spec : specs) {
        const QString uid = uidFor(deviceId, spec.field);
        ItemInstancePlugin existing;
        if (host->getPluginItem(uid, &existing)) continue;

        ItemInstancePlugin item;
        item.uid = uid;
        item.name = spec.label;
        item.description = spec.description;
        item.enabled = true;
        item.deviceId = deviceId;
        item.itemClass = 1;
        item.readInterval = readIntervalMs();
        item.historyOnly = spec.flag;
        item.settings = spec.settings;
        item.settings.insert(QStringLiteral("item_tags"), spec.field);
        host->addPluginItem(&item);
        ++created;
    }
    return created;
}

void ensureItemsForAllDevices(PluginInterface* host, const QList<Spec>& specs) {
    if (!host) return;
    int created = 0;
    for (const DeviceInstancePlugin& device : host->getPluginDevices())
        created += ensureItems(host, device.id, specs);
    requestReloadIfIdentityCreated(host, created);
}

void requestReloadIfIdentityCreated(PluginInterface* host, int createdCount) {
    if (!host || createdCount < 1) return;
    // The host is already reloading; asking again would loop.
    if (host->getSetting(kRefreshingSetting) == QLatin1String("1")) return;
    host->reloadPlugins();
}

void applyValues(LogList* list, const char* registerSetting, const QMap<QString, QString>& values) {
    if (!list) return;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QString settingKey = QString::fromLatin1(registerSetting);
    for (DataItem* dataItem : list->dataItems) {
        const QString field = fieldKey(dataItem->item.settings.value(settingKey));
        if (field.isEmpty() || !values.contains(field)) continue;
        setValue(dataItem, values.value(field), now);
    }
}

void applyValuesByUid(LogList* list, const QMap<QString, QString>& values) {
    if (!list) return;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const int deviceId = list->device.id;
    for (DataItem* dataItem : list->dataItems) {
        for (auto value = values.constBegin(); value != values.constEnd(); ++value) {
            if (dataItem->item.uid == uidFor(deviceId, value.key())) setValue(dataItem, value.value(), now);
        }
    }
}

void publishValues(PluginInterface* host, LogList* list, const QMap<QString, QString>& values,
                   const char* registerSetting) {
    applyValuesByUid(list, values);
    if (registerSetting) applyValues(list, registerSetting, values);
    if (!host || !list) return;

    QSet<QString> presentUids;
    QSet<QString> presentFields;
    const QString settingKey = registerSetting ? QString::fromLatin1(registerSetting) : QString();
    for (DataItem* dataItem : list->dataItems) {
        presentUids.insert(dataItem->item.uid);
        if (registerSetting) presentFields.insert(fieldKey(dataItem->item.settings.value(settingKey)));
    }

    const QDateTime now = QDateTime::currentDateTimeUtc();
    const int deviceId = list->device.id;
    for (auto value = values.constBegin(); value != values.constEnd(); ++value) {
        if (value.value().trimmed().isEmpty()) continue;
        const QString uid = uidFor(deviceId, value.key());
        if (presentUids.contains(uid) || presentFields.contains(value.key())) continue;
        ItemInstancePlugin known;
        if (!host->getPluginItem(uid, &known)) continue;
        auto* dataItem = new DataItem(known);
        setValue(dataItem, value.value(), now);
        list->dataItems.append(dataItem);
    }
}

}  // namespace zelt_identity
