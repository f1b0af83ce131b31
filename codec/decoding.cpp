// Register words and coil bits to value texts.

#include "codec/decoding.h"

#include <QByteArray>
#include <QVarLengthArray>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

namespace codec {

namespace {

// The exact decimal expansion of a double never has more fractional digits than this; a larger setting
// would only add zeros (and could ask for a text of gigabytes).
constexpr int kMaxPrecision = 1074;

constexpr int kBitsPerByte = 8;
constexpr int kBitsPerRegister = 16;
constexpr int kBytesPerRegister = 2;
constexpr int kMaxRegistersPerValue = 4;
constexpr int kLastBitOfRegister = 15;
constexpr quint16 kLowByteMask = 0xFF;
// Most texts fit here without a heap allocation.
constexpr int kInlineStringBytes = 256;
// Sign, 309 integer digits of the largest double, the point and kMaxPrecision decimals.
constexpr int kMaxFixedTextLength = 1 + 309 + 1 + kMaxPrecision;
constexpr int kMaxIntegerTextLength = 24;
constexpr int kDoubleFractionBits = std::numeric_limits<double>::digits - 1;  // 52 stored bits
constexpr quint64 kDoubleExponentMask = 0x7FF;
// The exponent of the lowest bit of a subnormal double: 2^-1074.
constexpr int kDoubleMinExponent =
    std::numeric_limits<double>::min_exponent - std::numeric_limits<double>::digits;

// Trailing zeros go only when the whole fraction is zero: "3.0000" -> "3" but "3.2500" stays.
void trimZeroFraction(QString& text) {
    int const point = text.lastIndexOf(QLatin1Char('.'));
    if (point < 0) {
        return;
    }
    QChar const* const chars = text.constData();
    for (int i = point + 1; i < text.size(); ++i) {
        if (chars[i] != QLatin1Char('0')) {
            return;
        }
    }
    text.truncate(point);
}

// Binary digits after the point of a finite, non-zero double: k where value * 2^k is an odd integer; 0 for
// integers. Read from the bits (value = significand * 2^exponent), as frexp and ldexp cost more than the
// rest.
int fractionalBits(double value) {
    quint64 bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    int const biasedExponent = static_cast<int>((bits >> kDoubleFractionBits) & kDoubleExponentMask);
    quint64 significand = bits & ((quint64{1} << kDoubleFractionBits) - 1);
    int exponent = kDoubleMinExponent;  // subnormal: no implicit leading one
    if (biasedExponent != 0) {
        significand |= quint64{1} << kDoubleFractionBits;
        exponent = biasedExponent + kDoubleMinExponent - 1;
    }
    int const k = -(exponent + __builtin_ctzll(significand));
    return std::max(k, 0);
}

// The length of `text` without a fraction that is all zeros, as trimZeroFraction cuts it.
size_t withoutZeroFraction(const char* text, size_t length) {
    const char* const point = static_cast<const char*>(std::memchr(text, '.', length));
    if (!point) {
        return length;
    }
    for (const char* digit = point + 1; digit < text + length; ++digit) {
        if (*digit != '0') {
            return length;
        }
    }
    return static_cast<size_t>(point - text);
}

// Fixed notation with `precision` decimals, a fraction of only zeros cut off. The exact shortest-path
// conversion rounds a tie to even; the texts have always rounded ties away from zero, and printed "-0" as
// "0", so those (rare) cases, and what is no finite number, keep going through Qt's conversion.
QString fixedText(double value, int precision) {
    // Registers that were never written read as +0, the most common value of all; every precision trims it to
    // the same text.
    if (precision >= 0 && value == 0 && !std::signbit(value)) {
        return QStringLiteral("0");
    }
    // A value is a tie at `precision` decimals exactly when its expansion ends one digit later: 2^-k ends
    // in 5.
    if (precision < 0 || value == 0 || !std::isfinite(value) || fractionalBits(value) == precision + 1) {
        QString text = QString::number(value, 'f', precision);
        trimZeroFraction(text);
        return text;
    }
    char text[kMaxFixedTextLength];
    std::to_chars_result const result =
        std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, precision);
    if (result.ec != std::errc()) {
        QString fallback = QString::number(value, 'f', precision);
        trimZeroFraction(fallback);
        return fallback;
    }
    // Cut in the buffer, before the text is made, so that a trimmed text is not made twice.
    return QString::fromLatin1(
        text, static_cast<int>(withoutZeroFraction(text, static_cast<size_t>(result.ptr - text))));
}

template <typename T>
QString formatNumber(T value, int precision) {
    if constexpr (std::is_floating_point<T>::value) {
        return fixedText(static_cast<double>(value), std::min(precision, kMaxPrecision));
    } else {
        char text[kMaxIntegerTextLength];
        std::to_chars_result const result = std::to_chars(text, text + sizeof text, value);
        return QString::fromLatin1(text, static_cast<int>(result.ptr - text));
    }
}

}  // namespace

template <typename T>
QString decodeNumber(quint16 const* words, bool littleEndian, bool byteSwapped, int precision) {
    static_assert(
        sizeof(T) % kBytesPerRegister == 0 && sizeof(T) / kBytesPerRegister <= kMaxRegistersPerValue,
        "one to four registers");
    constexpr int count = sizeof(T) / kBytesPerRegister;

    // host[0] is the least significant word.
    quint16 host[count];
    for (int i = 0; i < count; ++i) {
        if (littleEndian) {
            quint16 word = words[i];
            if (byteSwapped) {
                word = swapBytes(word);
            }
            host[i] = swapBytes(word);  // big-endian register to host order
        } else {
            quint16 const word = words[count - 1 - i];
            host[i] = byteSwapped ? swapBytes(word) : word;
        }
    }

    quint64 bits = 0;
    for (int i = count - 1; i >= 0; --i) {
        bits = (bits << kBitsPerRegister) | host[i];
    }
    T value;
    if constexpr (sizeof(T) == sizeof(quint16)) {
        quint16 const narrow = static_cast<quint16>(bits);
        std::memcpy(&value, &narrow, sizeof value);
    } else if constexpr (sizeof(T) == sizeof(quint32)) {
        quint32 const narrow = static_cast<quint32>(bits);
        std::memcpy(&value, &narrow, sizeof value);
    } else {
        std::memcpy(&value, &bits, sizeof value);
    }
    return formatNumber(value, precision);
}

template QString decodeNumber<short>(quint16 const*, bool, bool, int);
template QString decodeNumber<unsigned short>(quint16 const*, bool, bool, int);
template QString decodeNumber<int>(quint16 const*, bool, bool, int);
template QString decodeNumber<unsigned int>(quint16 const*, bool, bool, int);
template QString decodeNumber<float>(quint16 const*, bool, bool, int);
template QString decodeNumber<double>(quint16 const*, bool, bool, int);
template QString decodeNumber<long long>(quint16 const*, bool, bool, int);
template QString decodeNumber<unsigned long long>(quint16 const*, bool, bool, int);

QString decodeValue(VarType type, quint16 const* words, bool littleEndian, bool byteSwapped, int precision) {
    switch (type) {
        case INT16:
            return decodeNumber<short>(words, littleEndian, byteSwapped, precision);
        case UINT16:
            return decodeNumber<unsigned short>(words, littleEndian, byteSwapped, precision);
        case INT32:
            return decodeNumber<int>(words, littleEndian, byteSwapped, precision);
        case UINT32:
            return decodeNumber<unsigned int>(words, littleEndian, byteSwapped, precision);
        case INT64:
            return decodeNumber<long long>(words, littleEndian, byteSwapped, precision);
        case UINT64:
            return decodeNumber<unsigned long long>(words, littleEndian, byteSwapped, precision);
        case FLOAT:
            return decodeNumber<float>(words, littleEndian, byteSwapped, precision);
        case DOUBLE:
            return decodeNumber<double>(words, littleEndian, byteSwapped, precision);
        case BIT:
        case STRING:
            break;
    }
    return QString();
}

QString decodeBit(quint16 word, int bit) {
    bool const set = bit >= 0 && bit <= kLastBitOfRegister && ((word >> bit) & 1U) != 0;
    return set ? QStringLiteral("1") : QStringLiteral("0");
}

QString decodeString(quint16 const* words, unsigned int count, bool stringLittleEndian,
                     bool stringByteSwapped) {
    QVarLengthArray<char, kInlineStringBytes> bytes(static_cast<int>(count) * kBytesPerRegister);
    for (unsigned int i = 0; i < count; ++i) {
        quint16 word = words[stringLittleEndian ? count - 1 - i : i];
        if (stringByteSwapped) {
            word = swapBytes(word);
        }
        bytes[static_cast<int>(i) * kBytesPerRegister] = static_cast<char>(word >> kBitsPerByte);
        bytes[static_cast<int>(i) * kBytesPerRegister + 1] = static_cast<char>(word & kLowByteMask);
    }
    // Zero bytes pad short texts; whatever follows the first one is not part of the text.
    char const* const end = std::find(bytes.constBegin(), bytes.constEnd(), '\0');
    return QString::fromUtf8(bytes.constData(), static_cast<int>(end - bytes.constBegin()));
}

QString decodeCoil(unsigned char state) {
    return QString::number(state);
}

}  // namespace codec
