// Parses an item's settings once per poll.

#include "plugin/read_entry.h"

#include <cstring>

#include "codec/addressing.h"
#include "codec/number_text.h"
#include "codec/var_type.h"
#include "identity/zelt_identity.h"
#include "plugin/diagnostics.h"
#include "plugin/setting_keys.h"

namespace {

// The four settings a poll reads, found in one walk over the item's settings.
struct ItemTexts {
    QString const* registerText = nullptr;
    QString const* registerTypeText = nullptr;
    QString const* typeText = nullptr;
    QString const* precisionText = nullptr;
};

// Equal texts, compared inline: every poll compares several short texts per item. Two texts that hold the
// same character data are equal without reading it, which spares a poll the cache misses of reading it.
bool sameChars(QString const& a, QString const& b) {
    if (a.isSharedWith(b)) return true;
    int const size = a.size();
    return size == b.size() &&
           std::memcmp(a.constData(), b.constData(), sizeof(QChar) * static_cast<size_t>(size)) == 0;
}

ItemTexts itemTexts(QMap<QString, QString> const& settings) {
    ItemTexts texts;
    // The four keys differ in length, so the length alone picks the one candidate to compare with.
    for (auto it = settings.constBegin(); it != settings.constEnd(); ++it) {
        QString const& key = it.key();
        int const length = key.size();
        if (length == setting_keys::kRegister.size()) {
            if (sameChars(key, setting_keys::kRegister)) texts.registerText = &it.value();
        } else if (length == setting_keys::kRegisterType.size()) {
            if (sameChars(key, setting_keys::kRegisterType)) texts.registerTypeText = &it.value();
        } else if (length == setting_keys::kType.size()) {
            if (sameChars(key, setting_keys::kType)) texts.typeText = &it.value();
        } else if (length == setting_keys::kPrecision.size()) {
            if (sameChars(key, setting_keys::kPrecision)) texts.precisionText = &it.value();
        }
    }
    return texts;
}

QString const& orEmpty(QString const* text) {
    static QString const kUnset;
    return text ? *text : kUnset;
}

ReadEntry entryFrom(DataItem* dataItem, ItemTexts const& texts) {
    QString const& registerText = orEmpty(texts.registerText);
    QString const& typeText = orEmpty(texts.typeText);
    codec::ItemAddress const address = codec::parseAddress(registerText, orEmpty(texts.registerTypeText));
    ReadEntry entry;
    entry.dataItem = dataItem;
    entry.identity = zelt_identity::isIdentityAddress(registerText);
    entry.diagnostic = diagnostics::isDiagnosticAddress(registerText);
    entry.table = static_cast<RegisterType>(address.table);
    entry.offset = address.offset;
    entry.span = address.span;
    entry.bit = address.bit;
    entry.type = codec::textToUInt(QStringRef(&typeText));
    entry.requestLength = registersPerValue(static_cast<VarType>(codec::textToInt(QStringRef(&typeText))));
    if (entry.type == FLOAT || entry.type == DOUBLE) {
        entry.precision = codec::precisionOf(orEmpty(texts.precisionText));
    }
    return entry;
}

// A missing setting reads as an empty text, as the parser reads it.
bool sameText(QString const& kept, QString const* current) {
    return current ? sameChars(kept, *current) : kept.isEmpty();
}

bool sameTexts(ParsedItem const& slot, ItemTexts const& texts) {
    return sameText(slot.registerText, texts.registerText) &&
           sameText(slot.registerTypeText, texts.registerTypeText) &&
           sameText(slot.typeText, texts.typeText) && sameText(slot.precisionText, texts.precisionText);
}

}  // namespace

ReadEntry makeReadEntry(DataItem* dataItem) {
    return entryFrom(dataItem, itemTexts(dataItem->item.settings));
}

ReadEntry const& cachedReadEntry(DataItem* dataItem, ParsedItem& slot, bool* reparsed) {
    QMap<QString, QString> const& settings = dataItem->item.settings;
    const bool sameMap = slot.entry.dataItem != nullptr && slot.settings.isSharedWith(settings);
    ItemTexts texts;
    if (sameMap) {
        texts.registerText = slot.registerNode;
        texts.registerTypeText = slot.registerTypeNode;
        texts.typeText = slot.typeNode;
        texts.precisionText = slot.precisionNode;
    } else {
        texts = itemTexts(settings);
    }
    if (slot.entry.dataItem == nullptr || !sameTexts(slot, texts)) {
        slot.registerText = orEmpty(texts.registerText);
        slot.registerTypeText = orEmpty(texts.registerTypeText);
        slot.typeText = orEmpty(texts.typeText);
        slot.precisionText = orEmpty(texts.precisionText);
        slot.entry = entryFrom(dataItem, texts);
        if (reparsed) *reparsed = true;
    }
    if (!sameMap) {
        // The nodes found above belong to the item's map; the copy shares them and keeps them alive.
        slot.settings = settings;
        slot.registerNode = texts.registerText;
        slot.registerTypeNode = texts.registerTypeText;
        slot.typeNode = texts.typeText;
        slot.precisionNode = texts.precisionText;
    }
    slot.entry.dataItem = dataItem;
    return slot.entry;
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
