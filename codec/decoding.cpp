// Register words and coil bits to value texts: cuts each item's words out of a block read from the device,
// applies the device's word and byte orders and formats the value.

#include <QByteArray>
#include <QRegularExpression>
#include <QString>
#include <algorithm>
#include <cstring>
#include <type_traits>

#include "plugin/modbus.h"

namespace {

const QString kValueKey = QStringLiteral("value");
const QString kTypeKey = QStringLiteral("type");
const QString kPrecisionKey = QStringLiteral("floating_point_precision");

constexpr int kDefaultPrecision = 4;
// The exact decimal expansion of a double never has more fractional digits than this; a larger setting
// would only add zeros (and could ask for a text of gigabytes).
constexpr int kMaxPrecision = 1074;

constexpr int kBitsPerByte = 8;
constexpr int kBitsPerRegister = 16;
constexpr int kBytesPerRegister = 2;
constexpr int kMaxRegistersPerValue = 4;

QString const kInvalidStringRange = QStringLiteral("Invalid string range");

// Trailing zeros go only when the whole fraction is zero: "3.0000" -> "3" but "3.2500" stays.
QString trimZeroFraction(QString text) {
    static QRegularExpression const zeroFraction(QStringLiteral("\\.0+$"));
    static QRegularExpression const barePoint(QStringLiteral("\\.$"));
    text.remove(zeroFraction);
    text.remove(barePoint);
    return text;
}

template <typename T>
QString formatNumber(T value, int precision) {
    if constexpr (std::is_floating_point<T>::value) {
        return trimZeroFraction(
            QString::number(static_cast<double>(value), 'f', std::min(precision, kMaxPrecision)));
    } else if constexpr (std::is_signed<T>::value) {
        return QString::number(static_cast<qlonglong>(value));
    } else {
        return QString::number(static_cast<qulonglong>(value));
    }
}

int precisionOf(ItemInstancePlugin const& item) {
    bool ok = false;
    int const precision = item.settings.value(kPrecisionKey).toInt(&ok);
    return ok ? precision : kDefaultPrecision;
}

QString stringValue(unsigned short const* words, unsigned int count, bool stringLittleEndian,
                    bool stringByteSwapped) {
    std::vector<unsigned short> copy(words, words + count);
    if (stringByteSwapped) {
        for (unsigned short& word : copy) {
            word = Modbus::swapBytes(word);
        }
    }
    if (stringLittleEndian) {
        std::reverse(copy.begin(), copy.end());
    }
    QByteArray bytes;
    bytes.reserve(static_cast<int>(copy.size()) * kBytesPerRegister);
    for (unsigned short word : copy) {
        bytes.append(static_cast<char>(word >> kBitsPerByte));
        bytes.append(static_cast<char>(word & 0xFF));
    }
    // Zero bytes pad short texts; whatever follows the first one is not part of the text.
    int const end = bytes.indexOf('\0');
    return QString::fromUtf8(bytes.constData(), end < 0 ? bytes.size() : end);
}

}  // namespace

unsigned short Modbus::swapBytes(unsigned short w) {
    return static_cast<unsigned short>((w << kBitsPerByte) | (w >> kBitsPerByte));
}

template <typename T>
QString Modbus::extractNumber(unsigned short* words, bool littleEndian, bool byteSwapped, int precision) {
    static_assert(
        sizeof(T) % kBytesPerRegister == 0 && sizeof(T) / kBytesPerRegister <= kMaxRegistersPerValue,
        "one to four registers");
    constexpr int count = sizeof(T) / kBytesPerRegister;

    unsigned short host[count];
    for (int i = 0; i < count; ++i) {
        if (littleEndian) {
            unsigned short word = words[i];
            if (byteSwapped) {
                word = swapBytes(word);
            }
            host[i] = swapBytes(word);  // big-endian register to host order
        } else {
            unsigned short word = words[count - 1 - i];
            host[i] = byteSwapped ? swapBytes(word) : word;
        }
    }

    // host[0] is the least significant word.
    unsigned long long bits = 0;
    for (int i = count - 1; i >= 0; --i) {
        bits = (bits << kBitsPerRegister) | host[i];
    }
    T value;
    if constexpr (sizeof(T) == sizeof(unsigned short)) {
        unsigned short const narrow = static_cast<unsigned short>(bits);
        std::memcpy(&value, &narrow, sizeof value);
    } else if constexpr (sizeof(T) == sizeof(unsigned int)) {
        unsigned int const narrow = static_cast<unsigned int>(bits);
        std::memcpy(&value, &narrow, sizeof value);
    } else {
        std::memcpy(&value, &bits, sizeof value);
    }
    return formatNumber(value, precision);
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
    for (; first != last; ++first) {
        DataItem* dataItem = *first;
        long long const pos = static_cast<long long>(getOffset(dataItem->item)) - start;
        // A position equal to the block size is let through on purpose; it has no bit to read and reads 0.
        if (pos < 0 || pos > static_cast<long long>(bits.size())) {
            return first;
        }
        unsigned char const bit = pos < static_cast<long long>(bits.size()) ? bits[pos] : 0;
        dataItem->values[kValueKey] = QString::number(bit);
    }
    return first;
}

Modbus::DataItemIterator Modbus::extract(DataItemIterator first, DataItemIterator last, int start,
                                         std::vector<unsigned short>& words, bool littleEndian,
                                         bool byteSwapped, bool stringLittleEndian, bool stringByteSwapped) {
    unsigned long long const available = words.size();
    for (; first != last; ++first) {
        DataItem* dataItem = *first;
        ItemInstancePlugin& item = dataItem->item;
        long long const signedPos = static_cast<long long>(getOffset(item)) - start;
        if (signedPos < 0) {
            return first;
        }
        unsigned long long const pos = static_cast<unsigned long long>(signedPos);
        unsigned int const type = item.settings.value(kTypeKey).toUInt();
        unsigned int const length = getLengthOfVar(static_cast<VarType>(type));
        if (available < pos + length) {
            return first;
        }

        unsigned short* const at = words.data() + (pos < available ? pos : 0);
        QString value;
        switch (type) {
            case BIT: {
                int const bit = getBit(item);
                bool const set = bit >= 0 && bit < kBitsPerRegister && ((*at >> bit) & 1U) != 0;
                value = set ? QStringLiteral("1") : QStringLiteral("0");
                break;
            }
            case INT16:
                value = extractNumber<short>(at, littleEndian, byteSwapped, kDefaultPrecision);
                break;
            case UINT16:
                value = extractNumber<unsigned short>(at, littleEndian, byteSwapped, kDefaultPrecision);
                break;
            case INT32:
                value = extractNumber<int>(at, littleEndian, byteSwapped, kDefaultPrecision);
                break;
            case UINT32:
                value = extractNumber<unsigned int>(at, littleEndian, byteSwapped, kDefaultPrecision);
                break;
            case INT64:
                value = extractNumber<long long>(at, littleEndian, byteSwapped, kDefaultPrecision);
                break;
            case UINT64:
                value = extractNumber<unsigned long long>(at, littleEndian, byteSwapped, kDefaultPrecision);
                break;
            case FLOAT:
                value = extractNumber<float>(at, littleEndian, byteSwapped, precisionOf(item));
                break;
            case DOUBLE:
                value = extractNumber<double>(at, littleEndian, byteSwapped, precisionOf(item));
                break;
            case STRING: {
                unsigned int const span = getSpan(item);
                if (pos + span > available) {
                    // A bad range spoils only this item; the items after it are still in the block.
                    item.setLastError(kInvalidStringRange);
                    continue;
                }
                value = stringValue(words.data() + pos, span, stringLittleEndian, stringByteSwapped);
                break;
            }
            default:
                continue;  // unknown type: left untouched
        }
        dataItem->values[kValueKey] = value;
    }
    return first;
}
