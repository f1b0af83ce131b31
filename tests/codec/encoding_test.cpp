// Value texts to register words: byte orders, saturating conversions, strings.

#include <gtest/gtest.h>

#include <QString>
#include <QVector>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "codec/value_encoding.h"
#include "common/golden_vectors.h"

namespace {

std::vector<uint16_t> encode(VarType type, const char* text, const golden::ByteOrder& order) {
    const QVector<quint16> words = codec::encodeNumber(type, codec::parseNumber(QString::fromUtf8(text)),
                                                       order.littleEndian, order.byteSwapped);
    return std::vector<uint16_t>(words.begin(), words.end());
}

TEST(Encoding, GoldenVectorsInEveryByteOrder) {
    for (const golden::Vector& vector : golden::vectors()) {
        for (int order = 0; order < golden::kOrderCount; ++order) {
            SCOPED_TRACE(std::string(vector.name) + " " + golden::kByteOrders[order].name);
            EXPECT_EQ(encode(vector.type, vector.text, golden::kByteOrders[order]), vector.registers[order]);
        }
    }
}

TEST(Encoding, ExtremesInEveryByteOrder) {
    for (const golden::Extreme& extreme : golden::extremes()) {
        for (int order = 0; order < golden::kOrderCount; ++order) {
            SCOPED_TRACE(std::string(extreme.name) + " " + golden::kByteOrders[order].name);
            EXPECT_EQ(encode(extreme.type, extreme.text, golden::kByteOrders[order]),
                      golden::inOrder(extreme.bigHigh, static_cast<golden::OrderIndex>(order)));
        }
    }
}

TEST(Encoding, FloatOneWithLittleLow) {
    EXPECT_EQ(encode(FLOAT, "1", golden::kByteOrders[golden::kLittleLow]),
              (std::vector<uint16_t>{0x0000, 0x3F80}));
}

TEST(Encoding, ParseNumber) {
    EXPECT_EQ(codec::parseNumber(QStringLiteral("-2")), -2.0);
    EXPECT_EQ(codec::parseNumber(QStringLiteral(" 2.5 ")), 2.5);
    EXPECT_EQ(codec::parseNumber(QStringLiteral("1e30")), 1e30);
    EXPECT_EQ(codec::parseNumber(QStringLiteral("abc")), 0.0);
    EXPECT_EQ(codec::parseNumber(QString()), 0.0);
    EXPECT_EQ(codec::parseNumber(QStringLiteral("1e400")), 0.0);  // does not fit a double: not a number
    EXPECT_TRUE(std::isnan(codec::parseNumber(QStringLiteral("nan"))));
    EXPECT_EQ(codec::parseNumber(QStringLiteral("inf")), std::numeric_limits<double>::infinity());
    EXPECT_EQ(codec::parseNumber(QStringLiteral("-inf")), -std::numeric_limits<double>::infinity());
}

TEST(Encoding, SaturatingIntegerConversions) {
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(codec::toInt32(2.9), 2);
    EXPECT_EQ(codec::toInt32(-2.9), -2);
    EXPECT_EQ(codec::toInt32(3e9), std::numeric_limits<qint32>::max());
    EXPECT_EQ(codec::toInt32(-3e9), std::numeric_limits<qint32>::min());
    EXPECT_EQ(codec::toInt32(-2147483648.9), std::numeric_limits<qint32>::min());
    EXPECT_EQ(codec::toInt32(2147483647.9), std::numeric_limits<qint32>::max());
    EXPECT_EQ(codec::toInt32(nan), 0);
    EXPECT_EQ(codec::toInt32(inf), std::numeric_limits<qint32>::max());
    EXPECT_EQ(codec::toInt32(-inf), std::numeric_limits<qint32>::min());
    EXPECT_EQ(codec::toUInt32(-5), 0u);
    EXPECT_EQ(codec::toUInt32(-0.5), 0u);
    EXPECT_EQ(codec::toUInt32(4294967295.5), 4294967295u);
    EXPECT_EQ(codec::toUInt32(1e10), 4294967295u);
    EXPECT_EQ(codec::toUInt32(nan), 0u);
    EXPECT_EQ(codec::toInt64(1e30), std::numeric_limits<qint64>::max());
    EXPECT_EQ(codec::toInt64(-1e30), std::numeric_limits<qint64>::min());
    EXPECT_EQ(codec::toInt64(9223372036854775808.0), std::numeric_limits<qint64>::max());
    EXPECT_EQ(codec::toInt64(9223372036854774784.0),
              Q_INT64_C(9223372036854774784));  // largest double below 2^63
    EXPECT_EQ(codec::toInt64(nan), 0);
    EXPECT_EQ(codec::toInt64(-inf), std::numeric_limits<qint64>::min());
    EXPECT_EQ(codec::toUInt64(-5), 0u);
    EXPECT_EQ(codec::toUInt64(1e30), std::numeric_limits<quint64>::max());
    EXPECT_EQ(codec::toUInt64(18446744073709551616.0), std::numeric_limits<quint64>::max());
    EXPECT_EQ(codec::toUInt64(inf), std::numeric_limits<quint64>::max());
    EXPECT_EQ(codec::toUInt64(nan), 0u);
}

TEST(Encoding, ValuesOutsideTheTargetRange) {
    struct Row {
        VarType type;
        const char* text;
        std::vector<uint16_t> bigHigh;
    };
    const Row rows[] = {
        {UINT16, "70000", {4464}},  // low 16 bits of 70000 = 0x11170
        {UINT16, "-1", {0x0000}},
        {UINT16, "1e10", {0xFFFF}},  // saturates at 0xFFFFFFFF first
        {UINT16, "65535.9", {0xFFFF}},
        {INT16, "70000", {4464}},
        {INT16, "-1", {0xFFFF}},
        {INT16, "-40000", {0x63C0}},  // low 16 bits of -40000
        {INT16, "1e10", {0xFFFF}},    // 0x7FFFFFFF, low 16 bits
        {INT16, "-1e10", {0x0000}},   // 0x80000000, low 16 bits
        {INT16, "nan", {0x0000}},
        {INT32, "-2", {0xFFFF, 0xFFFE}},
        {INT32, "2.9", {0x0000, 0x0002}},
        {INT32, "-2.9", {0xFFFF, 0xFFFE}},
        {INT32, "1e30", {0x7FFF, 0xFFFF}},
        {INT32, "-1e30", {0x8000, 0x0000}},
        {INT32, "nan", {0x0000, 0x0000}},
        {INT32, "inf", {0x7FFF, 0xFFFF}},
        {INT32, "-inf", {0x8000, 0x0000}},
        {INT32, "abc", {0x0000, 0x0000}},
        {INT32, "1e400", {0x0000, 0x0000}},
        {UINT32, "-5", {0x0000, 0x0000}},
        {UINT32, "1e10", {0xFFFF, 0xFFFF}},
        {UINT32, "inf", {0xFFFF, 0xFFFF}},
        {INT64, "1e30", {0x7FFF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {INT64, "-1e30", {0x8000, 0x0000, 0x0000, 0x0000}},
        {INT64, "nan", {0x0000, 0x0000, 0x0000, 0x0000}},
        {INT64, "inf", {0x7FFF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {INT64, "-inf", {0x8000, 0x0000, 0x0000, 0x0000}},
        {UINT64, "-5", {0x0000, 0x0000, 0x0000, 0x0000}},
        {UINT64, "1e30", {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {UINT64, "inf", {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {UINT64, "nan", {0x0000, 0x0000, 0x0000, 0x0000}},
        // 64-bit texts go through a double: beyond 53 bits they are rounded first.
        {UINT64, "81985529216486895", {0x0123, 0x4567, 0x89AB, 0xCDF0}},
        {INT64, "-1234567890123456789", {0xEEDD, 0xEF0B, 0x8216, 0x7F00}},
        {FLOAT, "1e300", {0x7F80, 0x0000}},  // beyond the float range: infinity
        {FLOAT, "-1e300", {0xFF80, 0x0000}},
        {FLOAT, "abc", {0x0000, 0x0000}},
        {FLOAT, "0.1", {0x3DCC, 0xCCCD}},  // rounded to single precision
        {DOUBLE, "abc", {0x0000, 0x0000, 0x0000, 0x0000}},
    };
    for (const Row& row : rows) {
        for (int order = 0; order < golden::kOrderCount; ++order) {
            SCOPED_TRACE(
                QStringLiteral("type %1 \"%2\" %3")
                    .arg(row.type)
                    .arg(QString::fromUtf8(row.text), QString::fromLatin1(golden::kByteOrders[order].name))
                    .toStdString());
            EXPECT_EQ(encode(row.type, row.text, golden::kByteOrders[order]),
                      golden::inOrder(row.bigHigh, static_cast<golden::OrderIndex>(order)));
        }
    }
}

TEST(Encoding, TypesWithoutNumericRegisters) {
    const golden::ByteOrder& bigHigh = golden::kByteOrders[golden::kBigHigh];
    EXPECT_TRUE(encode(BIT, "1", bigHigh).empty());
    EXPECT_TRUE(encode(STRING, "1", bigHigh).empty());
    EXPECT_TRUE(encode(static_cast<VarType>(10), "1", bigHigh).empty());
    EXPECT_EQ(codec::numberBits(static_cast<VarType>(10), 1.0), 0u);
}

std::vector<uint16_t> encodeText(const char* text, int registers, bool littleEndian, bool byteSwapped) {
    const QVector<quint16> words =
        codec::encodeString(QString::fromUtf8(text).toUtf8(), registers, littleEndian, byteSwapped);
    return std::vector<uint16_t>(words.begin(), words.end());
}

TEST(Encoding, Strings) {
    EXPECT_EQ(encodeText("ABCD", 2, false, false), (std::vector<uint16_t>{0x4142, 0x4344}));
    EXPECT_EQ(encodeText("ABCD", 2, false, true), (std::vector<uint16_t>{0x4241, 0x4443}));
    EXPECT_EQ(encodeText("ABCD", 2, true, false), (std::vector<uint16_t>{0x4344, 0x4142}));
    EXPECT_EQ(encodeText("ABCD", 2, true, true), (std::vector<uint16_t>{0x4443, 0x4241}));
    EXPECT_EQ(encodeText("ABC", 2, false, false), (std::vector<uint16_t>{0x4142, 0x4300}));
    EXPECT_EQ(encodeText("A", 3, false, false), (std::vector<uint16_t>{0x4100, 0x0000, 0x0000}));
    EXPECT_EQ(encodeText("A", 3, true, true), (std::vector<uint16_t>{0x0000, 0x0000, 0x0041}));
    EXPECT_EQ(encodeText("", 1, false, false), (std::vector<uint16_t>{0x0000}));
    EXPECT_EQ(encodeText("Zo\xc3\xab", 2, false, false),
              (std::vector<uint16_t>{0x5A6F, 0xC3AB}));  // high bytes unsigned
    EXPECT_EQ(encodeText("ABCDE", 2, false, false),
              (std::vector<uint16_t>{0x4142, 0x4344}));  // caller checks length
    EXPECT_TRUE(encodeText("AB", 0, false, false).empty());
    EXPECT_TRUE(encodeText("AB", -1, false, false).empty());
}

}  // namespace
