#include "model/value_texts.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace model_check {

namespace {

constexpr int kBytesPerRegister = 2;
// Whole numbers up to 2^53 pass through a double unchanged.
constexpr int64_t kExactDoubleInteger = int64_t{1} << 53;
constexpr int kFloatDigits = 9;
constexpr int kDoubleDigits = 17;

const std::vector<QString> kNoNumbers = {QString(), QStringLiteral("abc"), QStringLiteral("1e400"),
                                         QStringLiteral("-1e400")};
const std::vector<QString> kEdgeFloats = {QStringLiteral("inf"), QStringLiteral("-inf"),
                                          QStringLiteral("nan"), QStringLiteral("-0")};
const std::vector<QString> kExtremeIntegers = {QStringLiteral("9223372036854775807"),
                                               QStringLiteral("-9223372036854775808"),
                                               QStringLiteral("18446744073709551615")};
const QString kTextCharacters =
    QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 -_.:/");
const QString kWideCharacter = QString::fromUtf8("\xc3\xa4");  // two bytes in UTF-8
constexpr int kQuarterRange = 100000;
constexpr double kQuarters = 4.0;
constexpr int kQuarterDecimals = 2;

// Chances, in percent.
constexpr int kHalf = 50;
constexpr int kBadBitPercent = 8;
constexpr int kTooLongPercent = 8;
constexpr int kWidePercent = 10;
constexpr int kNoNumberPercent = 5;
constexpr int kEdgePercent = 5;
constexpr int kQuarterFloatPercent = 30;
constexpr int kQuarterIntegerPercent = 5;

QString integerText(ValueType type, Random& random) {
    switch (type) {
        case ValueType::Int16:
            return QString::number(
                random.between(std::numeric_limits<int16_t>::min(), std::numeric_limits<int16_t>::max()));
        case ValueType::UInt16:
            return QString::number(random.between(0, std::numeric_limits<uint16_t>::max()));
        case ValueType::Int32:
            return QString::number(static_cast<int32_t>(random.next()));
        case ValueType::UInt32:
            return QString::number(static_cast<uint32_t>(random.next()));
        case ValueType::Int64:
            return QString::number(static_cast<qint64>(random.below(2 * kExactDoubleInteger)) -
                                   kExactDoubleInteger);
        default:
            break;
    }
    return QString::number(static_cast<quint64>(random.below(kExactDoubleInteger)));
}

// A finite value of the type from random bits, written with enough digits to come back unchanged.
QString floatingText(ValueType type, Random& random) {
    for (;;) {
        if (type == ValueType::Float) {
            const auto bits = static_cast<uint32_t>(random.next());
            float value = 0;
            std::memcpy(&value, &bits, sizeof value);
            if (std::isfinite(value)) return QString::number(static_cast<double>(value), 'g', kFloatDigits);
        } else {
            const uint64_t bits = random.next();
            double value = 0;
            std::memcpy(&value, &bits, sizeof value);
            if (std::isfinite(value)) return QString::number(value, 'g', kDoubleDigits);
        }
    }
}

QString stringText(int span, Random& random) {
    const int capacity = span * kBytesPerRegister;
    // Now and then one byte too many, which the plugin refuses.
    const int length = random.percent(kTooLongPercent) ? capacity + 1 : random.between(0, capacity);
    QString text;
    int bytes = 0;
    while (bytes < length) {
        if (length - bytes >= kBytesPerRegister && random.percent(kWidePercent)) {
            text += kWideCharacter;
            bytes += kBytesPerRegister;
        } else {
            text += kTextCharacters.at(
                static_cast<int>(random.below(static_cast<uint64_t>(kTextCharacters.size()))));
            ++bytes;
        }
    }
    return text;
}

// A number with two decimals in quarters, e.g. "-12.75": exact in every floating type, cut toward zero in
// whole ones.
QString quarterText(Random& random) {
    return QString::number(random.between(-kQuarterRange, kQuarterRange) / kQuarters, 'f', kQuarterDecimals);
}

}  // namespace

QString randomValueText(const ItemModel& item, Random& random) {
    if (isBitTable(item.table)) return random.percent(kHalf) ? QStringLiteral("1") : QStringLiteral("0");
    if (item.isRegisterBit()) {
        if (random.percent(kBadBitPercent)) return QStringLiteral("true");
        return random.percent(kHalf) ? QStringLiteral("1") : QStringLiteral("0");
    }
    if (item.type == ValueType::String) return stringText(item.span, random);
    if (random.percent(kNoNumberPercent)) return random.pick(kNoNumbers);
    if (item.type == ValueType::Float || item.type == ValueType::Double) {
        if (random.percent(kEdgePercent)) return random.pick(kEdgeFloats);
        if (random.percent(kQuarterFloatPercent)) return quarterText(random);
        return floatingText(item.type, random);
    }
    const bool wide = item.type == ValueType::Int64 || item.type == ValueType::UInt64;
    if (wide && random.percent(kEdgePercent)) return random.pick(kExtremeIntegers);
    if (random.percent(kQuarterIntegerPercent)) return quarterText(random);
    return integerText(item.type, random);
}

}  // namespace model_check
