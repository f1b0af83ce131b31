#include "model/value_model.h"

#include <QByteArray>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace model_check {

namespace {

constexpr int kBitsPerByte = 8;
constexpr int kBytesPerRegister = 2;
constexpr int kLastRegisterBit = 15;
constexpr uint16_t kByteMask = 0xFF;
// The README: precision is bounded at 1074 decimals, past which a double has no non-zero digit.
constexpr int kMaxPrecision = 1074;

// The README's byte-order table, read as a mapping from the value's bytes (most significant first) to the
// bytes on the wire. Each of the four is its own inverse, so the same call also reads wire bytes back.
std::vector<uint8_t> reorder(const std::vector<uint8_t>& bytes, bool littleEndian, bool byteSwapped) {
    std::vector<uint8_t> out(bytes);
    const size_t count = out.size();
    if (!littleEndian && byteSwapped) {  // B A D C
        for (size_t i = 0; i + 1 < count; i += kBytesPerRegister) std::swap(out[i], out[i + 1]);
    } else if (littleEndian && !byteSwapped) {  // D C B A
        std::reverse(out.begin(), out.end());
    } else if (littleEndian && byteSwapped) {  // C D A B: the registers in reverse order
        for (size_t i = 0; i < count; i += kBytesPerRegister) {
            out[i] = bytes[count - kBytesPerRegister - i];
            out[i + 1] = bytes[count - 1 - i];
        }
    }
    return out;
}

std::vector<uint8_t> wordBytes(const uint16_t* words, int count) {
    std::vector<uint8_t> bytes;
    for (int i = 0; i < count; ++i) {
        bytes.push_back(static_cast<uint8_t>(words[i] >> kBitsPerByte));
        bytes.push_back(static_cast<uint8_t>(words[i] & kByteMask));
    }
    return bytes;
}

std::vector<uint16_t> bytesToWords(const std::vector<uint8_t>& bytes) {
    std::vector<uint16_t> words;
    for (size_t i = 0; i + 1 < bytes.size(); i += kBytesPerRegister)
        words.push_back(static_cast<uint16_t>((bytes[i] << kBitsPerByte) | bytes[i + 1]));
    return words;
}

uint64_t valueBits(const std::vector<uint8_t>& bytes) {
    uint64_t bits = 0;
    for (uint8_t byte : bytes) bits = (bits << kBitsPerByte) | byte;
    return bits;
}

std::vector<uint8_t> bitsToBytes(uint64_t bits, int byteCount) {
    std::vector<uint8_t> bytes(static_cast<size_t>(byteCount));
    for (int i = byteCount - 1; i >= 0; --i) {
        bytes[static_cast<size_t>(i)] = static_cast<uint8_t>(bits & kByteMask);
        bits >>= kBitsPerByte;
    }
    return bytes;
}

// Fixed notation as Qt writes it, a fraction of only zeros cut off ("3.0000" -> "3", "3.2500" stays).
QString fixedText(double value, int precision) {
    QString text = QString::number(value, 'f', std::min(precision, kMaxPrecision));
    const int point = text.indexOf(QLatin1Char('.'));
    if (point >= 0) {
        bool zeros = true;
        for (int i = point + 1; i < text.size(); ++i) zeros = zeros && text.at(i) == QLatin1Char('0');
        if (zeros) text.truncate(point);
    }
    return text;
}

template <typename T>
QString integerText(T value) {
    return QString::fromStdString(std::to_string(value));
}

template <typename Target, typename Bits>
Target reinterpret(Bits bits) {
    static_assert(sizeof(Target) == sizeof(Bits), "same size");
    Target value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

QString numberText(ValueType type, uint64_t bits, int precision) {
    switch (type) {
        case ValueType::Int16:
            return integerText(reinterpret<int16_t>(static_cast<uint16_t>(bits)));
        case ValueType::UInt16:
            return integerText(static_cast<uint16_t>(bits));
        case ValueType::Int32:
            return integerText(reinterpret<int32_t>(static_cast<uint32_t>(bits)));
        case ValueType::UInt32:
            return integerText(static_cast<uint32_t>(bits));
        case ValueType::Int64:
            return integerText(reinterpret<int64_t>(bits));
        case ValueType::UInt64:
            return integerText(bits);
        case ValueType::Float:
            return fixedText(static_cast<double>(reinterpret<float>(static_cast<uint32_t>(bits))), precision);
        case ValueType::Double:
            return fixedText(reinterpret<double>(bits), precision);
        case ValueType::Bit:
        case ValueType::String:
            break;
    }
    return QString();
}

QString stringText(const uint16_t* words, int span, bool littleEndian, bool byteSwapped) {
    QByteArray bytes;
    for (int i = 0; i < span; ++i) {
        uint16_t word = words[littleEndian ? span - 1 - i : i];
        if (byteSwapped) word = static_cast<uint16_t>((word << kBitsPerByte) | (word >> kBitsPerByte));
        bytes.append(static_cast<char>(word >> kBitsPerByte));
        bytes.append(static_cast<char>(word & kByteMask));
    }
    // Zero bytes pad a short text: the text ends at the first one.
    const int end = bytes.indexOf('\0');
    return QString::fromUtf8(end < 0 ? bytes : bytes.left(end));
}

// A value text as a number: what no finite double reads as 0, an explicit infinity stays (README).
double valueNumber(const QString& value) {
    bool ok = false;
    const double number = value.toDouble(&ok);
    return ok ? number : 0.0;
}

// Whole numbers are cut toward zero and held at the type's limits; NaN is 0.
template <typename T>
T saturated(double value) {
    if (std::isnan(value)) return 0;
    const double lowest = static_cast<double>(std::numeric_limits<T>::lowest());
    const double aboveHighest = std::ldexp(1.0, std::numeric_limits<T>::digits);
    if (value <= lowest) return std::numeric_limits<T>::lowest();
    if (value >= aboveHighest) return std::numeric_limits<T>::max();
    return static_cast<T>(value);
}

uint64_t numberBits(ValueType type, double value) {
    switch (type) {
        case ValueType::Int16:
            return static_cast<uint16_t>(saturated<int32_t>(value));
        case ValueType::UInt16:
            return static_cast<uint16_t>(saturated<uint32_t>(value));
        case ValueType::Int32:
            return static_cast<uint32_t>(saturated<int32_t>(value));
        case ValueType::UInt32:
            return saturated<uint32_t>(value);
        case ValueType::Int64:
            return static_cast<uint64_t>(saturated<int64_t>(value));
        case ValueType::UInt64:
            return saturated<uint64_t>(value);
        case ValueType::Float:
            return reinterpret<uint32_t>(static_cast<float>(value));
        case ValueType::Double:
            return reinterpret<uint64_t>(value);
        case ValueType::Bit:
        case ValueType::String:
            break;
    }
    return 0;
}

WriteOutcome refused(QString error) {
    WriteOutcome outcome;
    outcome.kind = WriteOutcome::Kind::Refused;
    outcome.error = std::move(error);
    return outcome;
}

}  // namespace

int registersOf(ValueType type) {
    switch (type) {
        case ValueType::Bit:
        case ValueType::Int16:
        case ValueType::UInt16:
            return 1;
        case ValueType::Int32:
        case ValueType::UInt32:
        case ValueType::Float:
            return 2;
        case ValueType::Double:
        case ValueType::Int64:
        case ValueType::UInt64:
            return 4;
        case ValueType::String:
            break;
    }
    return 0;
}

QString decodeBit(uint8_t bit) {
    return bit ? QStringLiteral("1") : QStringLiteral("0");
}

QString decodeRegisters(const ItemModel& item, const DeviceModel& device, const uint16_t* words) {
    if (item.isRegisterBit()) return decodeBit(static_cast<uint8_t>((words[0] >> item.bit) & 1U));
    if (item.type == ValueType::String)
        return stringText(words, item.span, device.stringLittleEndian, device.stringByteSwapped);
    const int count = registersOf(item.type);
    const std::vector<uint8_t> valueBytes =
        reorder(wordBytes(words, count), device.littleEndian, device.byteSwapped);
    return numberText(item.type, valueBits(valueBytes), item.precision);
}

WriteOutcome writeOutcome(const ItemModel& item, const DeviceModel& device, const QString& value) {
    WriteOutcome outcome;
    outcome.address = item.offset;
    if (isBitTable(item.table)) {
        // Discrete inputs are written like coils; the value's low byte decides.
        outcome.kind = WriteOutcome::Kind::Coil;
        outcome.on = (value.toUShort() & kByteMask) != 0;
        return outcome;
    }
    if (item.type == ValueType::String) {
        const QByteArray bytes = value.toUtf8();
        const int capacity = item.span * kBytesPerRegister;
        if (bytes.size() > capacity)
            return refused(QStringLiteral("String too long. Size %1 bytes but expected %2 bytes")
                               .arg(bytes.size())
                               .arg(capacity));
        std::vector<uint8_t> padded(static_cast<size_t>(capacity), 0);
        std::copy(bytes.cbegin(), bytes.cend(), padded.begin());
        std::vector<uint16_t> words = bytesToWords(padded);
        if (device.stringByteSwapped)
            for (uint16_t& word : words)
                word = static_cast<uint16_t>((word << kBitsPerByte) | (word >> kBitsPerByte));
        if (device.stringLittleEndian) std::reverse(words.begin(), words.end());
        outcome.kind = WriteOutcome::Kind::Registers;
        outcome.words = words;
        return outcome;
    }
    if (item.isRegisterBit()) {
        if (item.bit > kLastRegisterBit) return refused(QStringLiteral("Bit value out of range"));
        if (value != QStringLiteral("0") && value != QStringLiteral("1")) {
            WriteOutcome refusal = refused(QStringLiteral("Invalid bool/bit value to write. Val: ") + value);
            refusal.readBeforeRefusal = true;
            refusal.address = item.offset;
            return refusal;
        }
        outcome.kind = WriteOutcome::Kind::RegisterBit;
        outcome.bit = item.bit;
        outcome.on = value == QStringLiteral("1");
        return outcome;
    }
    const int count = registersOf(item.type);
    const std::vector<uint8_t> valueBytes =
        bitsToBytes(numberBits(item.type, valueNumber(value)), count * kBytesPerRegister);
    outcome.kind = WriteOutcome::Kind::Registers;
    outcome.words = bytesToWords(reorder(valueBytes, device.littleEndian, device.byteSwapped));
    return outcome;
}

}  // namespace model_check
