// Parses an item's settings once per poll.

#include "plugin/read_entry.h"

#include "codec/addressing.h"
#include "codec/number_text.h"
#include "codec/var_type.h"
#include "plugin/setting_keys.h"

using setting_keys::settingText;

ReadEntry makeReadEntry(DataItem* dataItem) {
    ReadEntry entry;
    entry.dataItem = dataItem;
    QMap<QString, QString> const& settings = dataItem->item.settings;
    QString const& registerText = settingText(settings, setting_keys::kRegister);
    QString const& registerTypeText = settingText(settings, setting_keys::kRegisterType);
    QString const& typeText = settingText(settings, setting_keys::kType);
    entry.table = static_cast<RegisterType>(codec::tableOf(registerText, registerTypeText));
    entry.offset = codec::offsetOf(registerText, registerTypeText);
    entry.span = codec::spanOf(registerText);
    entry.bit = codec::bitOf(registerText);
    entry.type = codec::textToUInt(QStringRef(&typeText));
    entry.requestLength = registersPerValue(static_cast<VarType>(codec::textToInt(QStringRef(&typeText))));
    if (entry.type == FLOAT || entry.type == DOUBLE) {
        entry.precision = codec::precisionOf(settingText(settings, setting_keys::kPrecision));
    }
    return entry;
}

std::vector<ReadEntry> makeReadEntries(std::vector<DataItem*>::const_iterator first,
                                       std::vector<DataItem*>::const_iterator last) {
    std::vector<ReadEntry> entries;
    entries.reserve(static_cast<size_t>(last - first));
    for (; first != last; ++first) {
        entries.push_back(makeReadEntry(*first));
    }
    return entries;
}
