#pragma once
// One item of a poll with its settings parsed once: the poll sorts, splits and decodes on these fields
// instead of reading the item's texts again on every comparison.

#include <vector>

#include "connection/register_type.h"
#include "host/records.h"

struct ReadEntry {
    DataItem* dataItem = nullptr;
    bool identity = false;    // an identity item: published, never read
    bool diagnostic = false;  // a diagnostic item: written from the device's health, never read
    RegisterType table = HoldingRegister;
    int offset = -1;
    unsigned int span = 0;
    int bit = 0;
    unsigned int type = 0;           // "type" read as an unsigned number, as the decoder has always read it
    unsigned int requestLength = 0;  // registers of "type" read as a signed number, as requests are sized
    int precision = 0;               // only parsed for FLOAT and DOUBLE
    unsigned int slot = 0;           // the item's position in its batch
};

// A parsed entry kept from one poll to the next, with the four texts it was parsed from. The texts are
// compared, not the maps' sharing: a host that writes through a reference it took into its map before the
// plugin copied it changes the shared data in place, so a map still shared may hold other texts.
struct ParsedItem {
    QString registerText;
    QString registerTypeText;
    QString typeText;
    QString precisionText;
    ReadEntry entry;
    // A copy of the settings map the texts were found in, sharing its data: while the item's map still shares
    // it, the four texts are where they were found (a text written through a reference lands there too), so
    // they are compared without looking them up again.
    QMap<QString, QString> settings;
    QString const* registerNode = nullptr;
    QString const* registerTypeNode = nullptr;
    QString const* typeNode = nullptr;
    QString const* precisionNode = nullptr;
};

// The entry of `dataItem`, from `slot` when its four texts are still the ones parsed there, else parsed anew
// into it (and `*reparsed` set, when given).
ReadEntry const& cachedReadEntry(DataItem* dataItem, ParsedItem& slot, bool* reparsed = nullptr);

using ReadEntryIterator = std::vector<ReadEntry>::iterator;

ReadEntry makeReadEntry(DataItem* dataItem);

// Entries for every item of [first, last).
std::vector<ReadEntry> makeReadEntries(std::vector<DataItem*>::const_iterator first,
                                       std::vector<DataItem*>::const_iterator last);

// Decode the entries from `first` on, whose values lie in a block read from protocol address `start`, into
// their items; the result is the first entry that lies outside the block (or `last`).
ReadEntryIterator extractBits(ReadEntryIterator first, ReadEntryIterator last, int start,
                              std::vector<unsigned char> const& bits);
ReadEntryIterator extractWords(ReadEntryIterator first, ReadEntryIterator last, int start,
                               std::vector<unsigned short> const& words, bool littleEndian, bool byteSwapped,
                               bool stringLittleEndian, bool stringByteSwapped);
