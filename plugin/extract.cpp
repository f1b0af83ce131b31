// Decodes a block read from the device into the values of the poll's items, and the plugin's decoding members
// built on it.

#include <utility>

#include "codec/decoding.h"
#include "plugin/modbus.h"
#include "plugin/read_entry.h"
#include "plugin/setting_keys.h"

namespace {
const QString kInvalidStringRange = QStringLiteral("Invalid string range");
}  // namespace

ReadEntryIterator extractBits(ReadEntryIterator first, ReadEntryIterator last, int start,
                              std::vector<unsigned char> const& bits) {
    long long const size = static_cast<long long>(bits.size());
    for (; first != last; ++first) {
        long long const pos = static_cast<long long>(first->offset) - start;
        // A position equal to the block size is let through on purpose; it has no bit to read and reads 0.
        if (pos < 0 || pos > size) {
            return first;
        }
        unsigned char const bit = pos < size ? bits[static_cast<size_t>(pos)] : 0;
        first->dataItem->values[setting_keys::kValue] = codec::decodeCoil(bit);
    }
    return first;
}

ReadEntryIterator extractWords(ReadEntryIterator first, ReadEntryIterator last, int start,
                               std::vector<unsigned short> const& words, bool littleEndian, bool byteSwapped,
                               bool stringLittleEndian, bool stringByteSwapped) {
    unsigned long long const available = words.size();
    for (; first != last; ++first) {
        ReadEntry const& entry = *first;
        long long const signedPos = static_cast<long long>(entry.offset) - start;
        if (signedPos < 0) {
            return first;
        }
        unsigned long long const pos = static_cast<unsigned long long>(signedPos);
        unsigned int const length = registersPerValue(static_cast<VarType>(entry.type));
        if (available < pos + length) {
            return first;
        }

        unsigned short const* const at = words.data() + (pos < available ? pos : 0);
        QString value;
        switch (entry.type) {
            case BIT:
                value = codec::decodeBit(*at, entry.bit);
                break;
            case INT16:
            case UINT16:
            case INT32:
            case UINT32:
            case INT64:
            case UINT64:
            case FLOAT:
            case DOUBLE:
                value = codec::decodeValue(static_cast<VarType>(entry.type), at, littleEndian, byteSwapped,
                                           entry.precision);
                break;
            case STRING:
                if (pos + entry.span > available) {
                    // A bad range spoils only this item; the items after it are still in the block.
                    entry.dataItem->item.setLastError(kInvalidStringRange);
                    continue;
                }
                value = codec::decodeString(words.data() + pos, entry.span, stringLittleEndian,
                                            stringByteSwapped);
                break;
            default:
                continue;  // unknown type: left untouched
        }
        entry.dataItem->values[setting_keys::kValue] = std::move(value);
    }
    return first;
}

unsigned short Modbus::swapBytes(unsigned short w) {
    return codec::swapBytes(w);
}

template <typename T>
QString Modbus::extractNumber(unsigned short* words, bool littleEndian, bool byteSwapped, int precision) {
    return codec::decodeNumber<T>(words, littleEndian, byteSwapped, precision);
}

template QString Modbus::extractNumber<short>(unsigned short*, bool, bool, int);
template QString Modbus::extractNumber<unsigned short>(unsigned short*, bool, bool, int);
template QString Modbus::extractNumber<int>(unsigned short*, bool, bool, int);
template QString Modbus::extractNumber<unsigned int>(unsigned short*, bool, bool, int);
template QString Modbus::extractNumber<float>(unsigned short*, bool, bool, int);
template QString Modbus::extractNumber<double>(unsigned short*, bool, bool, int);
template QString Modbus::extractNumber<long long>(unsigned short*, bool, bool, int);
template QString Modbus::extractNumber<unsigned long long>(unsigned short*, bool, bool, int);

Modbus::DataItemIterator Modbus::extract(DataItemIterator first, DataItemIterator last, int start,
                                         std::vector<unsigned char>& bits) {
    std::vector<ReadEntry> entries = makeReadEntries(first, last);
    return first + (extractBits(entries.begin(), entries.end(), start, bits) - entries.begin());
}

Modbus::DataItemIterator Modbus::extract(DataItemIterator first, DataItemIterator last, int start,
                                         std::vector<unsigned short>& words, bool littleEndian,
                                         bool byteSwapped, bool stringLittleEndian, bool stringByteSwapped) {
    std::vector<ReadEntry> entries = makeReadEntries(first, last);
    return first + (extractWords(entries.begin(), entries.end(), start, words, littleEndian, byteSwapped,
                                 stringLittleEndian, stringByteSwapped) -
                    entries.begin());
}
