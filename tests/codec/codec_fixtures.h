#pragma once
// Builders for the item and device records the codec tests feed to Modbus.

#include <QString>
#include <memory>
#include <vector>

#include "host/records.h"

namespace codec_test {

inline ItemInstancePlugin makeItem(const QString& address, const QString& registerType,
                                   const QString& type = {}, const QString& name = QStringLiteral("item")) {
    ItemInstancePlugin item;
    item.uid = QStringLiteral("uid_") + name;
    item.name = name;
    item.deviceId = 1;
    item.settings[QStringLiteral("register")] = address;
    item.settings[QStringLiteral("register_type")] = registerType;
    if (!type.isNull()) {
        item.settings[QStringLiteral("type")] = type;
    }
    return item;
}

// Owns the DataItems of one extract call and hands out the pointer list the decoder walks.
struct ItemList {
    std::vector<std::unique_ptr<DataItem>> owned;
    std::vector<DataItem*> pointers;

    DataItem* add(const ItemInstancePlugin& item) {
        owned.push_back(std::make_unique<DataItem>(item));
        pointers.push_back(owned.back().get());
        return owned.back().get();
    }
    QString value(size_t index) const { return owned.at(index)->values.value(QStringLiteral("value")); }
    bool hasValue(size_t index) const { return owned.at(index)->values.contains(QStringLiteral("value")); }
};

}  // namespace codec_test
