// Value text to register words for the write path.

#include "codec/value_encoding.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

namespace codec {

namespace {

static_assert(std::numeric_limits<float>::is_iec559 && std::numeric_limits<double>::is_iec559,
              "register images are IEEE 754 single and double precision");

constexpr int kBitsPerRegister = 16;
constexpr int kBitsPerByte = 8;
constexpr quint64 kRegisterMask = 0xFFFF;
constexpr quint32 kLow16Bits = 0xFFFF;

quint16 swapped(quint16 word) {
    return static_cast<quint16>((word << kBitsPerByte) | (word >> kBitsPerByte));
}

// Converting NaN or an out-of-range double to an integer is undefined, so every such conversion is
// range-checked first.
template <typename T>
T saturatingTruncate(double value) {
    static_assert(std::is_integral<T>::value, "integer targets only");
    if (std::isnan(value)) {
        return 0;
    }
    // Both bounds are powers of two (or 0) and therefore exact doubles.
    double const lowest = static_cast<double>(std::numeric_limits<T>::min());
    double const aboveHighest = std::ldexp(1.0, std::numeric_limits<T>::digits);
    if (value <= lowest) {
        return std::numeric_limits<T>::min();
    }
    if (value >= aboveHighest) {
        return std::numeric_limits<T>::max();
    }
    return static_cast<T>(value);
}

template <typename Bits, typename Value>
Bits bitsOf(Value value) {
    static_assert(sizeof(Bits) == sizeof(Value), "same size");
    Bits bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// A bit is never encoded as a number of its own: bits are written through coils or "n.b" addresses.
unsigned int registersOf(VarType type) {
    return type == BIT ? 0 : registersPerValue(type);
}

}  // namespace

double parseNumber(QString const& text) {
    bool ok = false;
    double const value = text.toDouble(&ok);
    return ok ? value : 0.0;
}

qint32 toInt32(double value) {
    return saturatingTruncate<qint32>(value);
}
quint32 toUInt32(double value) {
    return saturatingTruncate<quint32>(value);
}
qint64 toInt64(double value) {
    return saturatingTruncate<qint64>(value);
}
quint64 toUInt64(double value) {
    return saturatingTruncate<quint64>(value);
}

quint64 numberBits(VarType type, double value) {
    switch (type) {
        case INT16:
            return static_cast<quint32>(toInt32(value)) & kLow16Bits;
        case UINT16:
            return toUInt32(value) & kLow16Bits;
        case INT32:
            return static_cast<quint32>(toInt32(value));
        case UINT32:
            return toUInt32(value);
        case FLOAT:
            // IEEE 754 rounding; beyond the float range this gives an infinity.
            return bitsOf<quint32>(static_cast<float>(value));
        case DOUBLE:
            return bitsOf<quint64>(value);
        case INT64:
            return static_cast<quint64>(toInt64(value));
        case UINT64:
            return toUInt64(value);
        case BIT:
        case STRING:
            return 0;
    }
    return 0;
}

QVector<quint16> encodeNumber(VarType type, double value, bool littleEndian, bool byteSwapped) {
    unsigned int const count = registersOf(type);
    quint64 const bits = numberBits(type, value);

    // Host (little-endian) memory order: word 0 is the least significant.
    QVector<quint16> words(static_cast<int>(count));
    for (unsigned int i = 0; i < count; ++i) {
        words[static_cast<int>(i)] = static_cast<quint16>((bits >> (i * kBitsPerRegister)) & kRegisterMask);
    }

    if (littleEndian) {
        for (quint16& word : words) {
            word = swapped(word);
        }
    } else {
        std::reverse(words.begin(), words.end());
    }
    if (byteSwapped) {
        for (quint16& word : words) {
            word = swapped(word);
        }
    }
    return words;
}

QVector<quint16> encodeString(QByteArray const& bytes, int registers, bool stringLittleEndian,
                              bool stringByteSwapped) {
    QVector<quint16> words(std::max(registers, 0), 0);
    int const available = bytes.size();
    for (int i = 0; i < words.size(); ++i) {
        int const high = 2 * i;
        int const low = high + 1;
        quint16 word = 0;
        if (high < available) {
            word = static_cast<quint16>(static_cast<unsigned char>(bytes.at(high)) << kBitsPerByte);
        }
        if (low < available) {
            word = static_cast<quint16>(word | static_cast<unsigned char>(bytes.at(low)));
        }
        words[i] = word;
    }

    if (stringByteSwapped) {
        for (quint16& word : words) {
            word = swapped(word);
        }
    }
    if (stringLittleEndian) {
        std::reverse(words.begin(), words.end());
    }
    return words;
}

}  // namespace codec
