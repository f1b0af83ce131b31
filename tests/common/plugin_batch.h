#pragma once
// Devices, items and batches for tests that drive the plugin the way the host does.

#include <QString>
#include <chrono>
#include <functional>
#include <thread>

#include "host/records.h"

namespace plugin_test {

inline DeviceInstancePlugin makeDevice(int id, quint16 port, QMap<QString, QString> settings = {}) {
    DeviceInstancePlugin device;
    device.id = id;
    device.name = QStringLiteral("device%1").arg(id);
    device.address = QStringLiteral("127.0.0.1");
    device.settings = std::move(settings);
    device.settings.insert(QStringLiteral("port"), QString::number(port));
    return device;
}

inline ItemInstancePlugin makeItem(const QString& uid, const QString& address, const QString& registerType,
                                   const QString& type, const QString& precision = QString()) {
    ItemInstancePlugin item;
    item.uid = uid;
    item.name = uid;
    item.settings.insert(QStringLiteral("register"), address);
    item.settings.insert(QStringLiteral("register_type"), registerType);
    item.settings.insert(QStringLiteral("type"), type);
    if (!precision.isNull()) item.settings.insert(QStringLiteral("floating_point_precision"), precision);
    return item;
}

// A batch as the host hands it over. It owns its data items, including those the plugin appends.
class Batch {
public:
    explicit Batch(DeviceInstancePlugin device) { list.device = std::move(device); }
    ~Batch() { qDeleteAll(list.dataItems); }
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    DataItem* add(const ItemInstancePlugin& item) {
        auto* dataItem = new DataItem(item);
        list.dataItems.append(dataItem);
        return dataItem;
    }
    DataItem* find(const QString& uid) const {
        for (DataItem* dataItem : list.dataItems)
            if (dataItem->item.uid == uid) return dataItem;
        return nullptr;
    }
    QString value(const QString& uid) const {
        const DataItem* dataItem = find(uid);
        return dataItem ? dataItem->values.value(QStringLiteral("value")) : QStringLiteral("<no item>");
    }
    QString error(const QString& uid) const {
        const DataItem* dataItem = find(uid);
        return dataItem ? dataItem->item.lastError : QStringLiteral("<no item>");
    }

    LogList list;
};

// Waits for a condition with a bounded number of short sleeps; true when it held in time.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(3000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

}  // namespace plugin_test
