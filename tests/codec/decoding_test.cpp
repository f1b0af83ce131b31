// Register words and coil bits to value texts: byte orders, formatting, strings, bits and the walk's stops.

#include <gtest/gtest.h>

#include <QString>
#include <cstdint>
#include <vector>

#include "codec_fixtures.h"
#include "common/golden_vectors.h"
#include "plugin/modbus.h"

namespace {

using codec_test::ItemList;
using codec_test::makeItem;

const QString kPrecisionKey = QStringLiteral("floating_point_precision");

std::vector<unsigned short> toWords(const std::vector<uint16_t>& registers) {
    return std::vector<unsigned short>(registers.begin(), registers.end());
}

// The value text of one item at holding address 0 whose registers are `registers`, through extract.
QString decodeItem(VarType type, const std::vector<uint16_t>& registers, const golden::ByteOrder& order,
                   const QString& precision = {}) {
    Modbus plugin;
    ItemList items;
    ItemInstancePlugin item = makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(type));
    if (!precision.isNull()) {
        item.settings[kPrecisionKey] = precision;
    }
    items.add(item);
    std::vector<unsigned short> words = toWords(registers);
    const auto next = plugin.extract(items.pointers.begin(), items.pointers.end(), 0, words,
                                     order.littleEndian, order.byteSwapped, false, false);
    EXPECT_TRUE(next == items.pointers.end());
    return items.value(0);
}

// The same through the extractNumber instance of the type.
QString decodeNumber(VarType type, const std::vector<uint16_t>& registers, const golden::ByteOrder& order,
                     int precision = 4) {
    Modbus plugin;
    std::vector<unsigned short> words = toWords(registers);
    const bool le = order.littleEndian;
    const bool bs = order.byteSwapped;
    switch (type) {
        case INT16:
            return plugin.extractNumber<short>(words.data(), le, bs, precision);
        case UINT16:
            return plugin.extractNumber<unsigned short>(words.data(), le, bs, precision);
        case INT32:
            return plugin.extractNumber<int>(words.data(), le, bs, precision);
        case UINT32:
            return plugin.extractNumber<unsigned int>(words.data(), le, bs, precision);
        case FLOAT:
            return plugin.extractNumber<float>(words.data(), le, bs, precision);
        case DOUBLE:
            return plugin.extractNumber<double>(words.data(), le, bs, precision);
        case INT64:
            return plugin.extractNumber<long long>(words.data(), le, bs, precision);
        case UINT64:
            return plugin.extractNumber<unsigned long long>(words.data(), le, bs, precision);
        case BIT:
        case STRING:
            break;
    }
    ADD_FAILURE() << "not a number type";
    return {};
}

TEST(Decoding, GoldenVectorsInEveryByteOrder) {
    for (const golden::Vector& vector : golden::vectors()) {
        for (int order = 0; order < golden::kOrderCount; ++order) {
            const golden::ByteOrder& byteOrder = golden::kByteOrders[order];
            SCOPED_TRACE(std::string(vector.name) + " " + byteOrder.name);
            EXPECT_EQ(decodeNumber(vector.type, vector.registers[order], byteOrder),
                      QString::fromUtf8(vector.text));
            EXPECT_EQ(decodeItem(vector.type, vector.registers[order], byteOrder),
                      QString::fromUtf8(vector.text));
        }
    }
}

TEST(Decoding, GoldenRegistersAgreeWithTheByteTable) {
    // The hand-written columns and the byte table say the same thing.
    for (const golden::Vector& vector : golden::vectors()) {
        for (int order = 0; order < golden::kOrderCount; ++order) {
            SCOPED_TRACE(std::string(vector.name) + " " + golden::kByteOrders[order].name);
            EXPECT_EQ(
                golden::inOrder(vector.registers[golden::kBigHigh], static_cast<golden::OrderIndex>(order)),
                vector.registers[order]);
        }
    }
}

TEST(Decoding, ExtremesInEveryByteOrder) {
    for (const golden::Extreme& extreme : golden::extremes()) {
        for (int order = 0; order < golden::kOrderCount; ++order) {
            const golden::ByteOrder& byteOrder = golden::kByteOrders[order];
            SCOPED_TRACE(std::string(extreme.name) + " " + byteOrder.name);
            const std::vector<uint16_t> registers =
                golden::inOrder(extreme.bigHigh, static_cast<golden::OrderIndex>(order));
            EXPECT_EQ(decodeNumber(extreme.type, registers, byteOrder), QString::fromUtf8(extreme.text));
            EXPECT_EQ(decodeItem(extreme.type, registers, byteOrder), QString::fromUtf8(extreme.text));
        }
    }
}

TEST(Decoding, Int32WorkedExample) {
    const std::vector<uint16_t> registers = {0x0001, 0x0002};
    const char* const expected[golden::kOrderCount] = {"65538", "16777728", "33554688", "131073"};
    for (int order = 0; order < golden::kOrderCount; ++order) {
        SCOPED_TRACE(golden::kByteOrders[order].name);
        EXPECT_EQ(decodeItem(INT32, registers, golden::kByteOrders[order]),
                  QString::fromLatin1(expected[order]));
    }
}

TEST(Decoding, SixteenBitByteOrders) {
    // A B = 0x12 0x34: Big/High A B; Big/Low B A; Little/High B A; Little/Low A B.
    const char* const expected[golden::kOrderCount] = {"4660", "13330", "13330", "4660"};
    for (int order = 0; order < golden::kOrderCount; ++order) {
        SCOPED_TRACE(golden::kByteOrders[order].name);
        EXPECT_EQ(decodeItem(UINT16, {0x1234}, golden::kByteOrders[order]),
                  QString::fromLatin1(expected[order]));
    }
}

// A string item over all of `registers`, addressed as "100-<count>" and read from a block starting at 100.
QString decodeString(const std::vector<uint16_t>& registers, bool stringLittleEndian, bool stringByteSwapped,
                     QString* lastError = nullptr) {
    Modbus plugin;
    ItemList items;
    const QString address = QStringLiteral("100-%1").arg(registers.size());
    items.add(makeItem(address, QStringLiteral("3"), QString::number(STRING)));
    std::vector<unsigned short> words = toWords(registers);
    // The number byte-order flags must not matter for strings.
    plugin.extract(items.pointers.begin(), items.pointers.end(), 100, words, true, true, stringLittleEndian,
                   stringByteSwapped);
    if (lastError) {
        *lastError = items.owned[0]->item.lastError;
    }
    return items.value(0);
}

TEST(Decoding, StringWorkedExample) {
    struct Row {
        bool littleEndian;
        bool byteSwapped;
        const char* text;
    };
    const Row rows[] = {
        {false, false, "ABCD"}, {false, true, "BADC"}, {true, false, "CDAB"}, {true, true, "DCBA"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(decodeString({0x4142, 0x4344}, row.littleEndian, row.byteSwapped),
                  QString::fromLatin1(row.text));
    }
}

TEST(Decoding, StringEndsAtTheFirstZeroByte) {
    EXPECT_EQ(decodeString({0x4142, 0x0000, 0x4344}, false, false), QStringLiteral("AB"));
    EXPECT_EQ(decodeString({0x4100, 0x4344}, false, false), QStringLiteral("A"));
    EXPECT_EQ(decodeString({0x0041}, false, false), QString());
    // Swapped first, so the zero byte moves to the end of the word.
    EXPECT_EQ(decodeString({0x0041}, false, true), QStringLiteral("A"));
}

TEST(Decoding, StringIsUtf8) {
    // "Zoë" = 5A 6F C3 AB
    EXPECT_EQ(decodeString({0x5A6F, 0xC3AB, 0x0000}, false, false), QString::fromUtf8("Zo\xc3\xab"));
}

QString decodeItemAt(const QString& address, std::vector<unsigned short> words) {
    Modbus plugin;
    ItemList items;
    items.add(makeItem(address, QStringLiteral("3"), QString::number(STRING)));
    plugin.extract(items.pointers.begin(), items.pointers.end(), 0, words, false, false, false, false);
    return items.value(0);
}

TEST(Decoding, StringOfTheWholeBlockAndEmptyRange) {
    QString error;
    EXPECT_EQ(decodeString({0x4142, 0x4344}, false, false, &error), QStringLiteral("ABCD"));
    EXPECT_EQ(error, QString());
    // "0-1" is the inclusive range 0..1.
    EXPECT_EQ(decodeItemAt(QStringLiteral("0-1"), {0x4142, 0x4344}), QStringLiteral("ABCD"));
    // "0-0": a count of 0 registers gives an empty text.
    Modbus plugin;
    ItemList items;
    items.add(makeItem(QStringLiteral("0-0"), QStringLiteral("3"), QString::number(STRING)));
    std::vector<unsigned short> words = {0x4142};
    plugin.extract(items.pointers.begin(), items.pointers.end(), 0, words, false, false, false, false);
    EXPECT_TRUE(items.hasValue(0));
    EXPECT_EQ(items.value(0), QString());
}

TEST(Decoding, FloatingPointPrecision) {
    // 3.14159 = 0x400921F9F01B866E
    const std::vector<uint16_t> pi = {0x4009, 0x21F9, 0xF01B, 0x866E};
    const golden::ByteOrder& bigHigh = golden::kByteOrders[golden::kBigHigh];
    EXPECT_EQ(decodeItem(DOUBLE, pi, bigHigh, QStringLiteral("2")), QStringLiteral("3.14"));
    EXPECT_EQ(decodeItem(DOUBLE, pi, bigHigh, QStringLiteral("0")), QStringLiteral("3"));
    EXPECT_EQ(decodeItem(DOUBLE, pi, bigHigh, QStringLiteral("abc")), QStringLiteral("3.1416"));
    EXPECT_EQ(decodeItem(DOUBLE, pi, bigHigh), QStringLiteral("3.1416"));
    EXPECT_EQ(decodeItem(DOUBLE, pi, bigHigh, QStringLiteral("6")), QStringLiteral("3.141590"));
}

TEST(Decoding, ZeroFractionIsTrimmedOtherwiseZerosStay) {
    const golden::ByteOrder& bigHigh = golden::kByteOrders[golden::kBigHigh];
    const std::vector<uint16_t> zero = {0x0000, 0x0000, 0x0000, 0x0000};
    const std::vector<uint16_t> minusTwoAndAHalf = {0xC004, 0x0000, 0x0000, 0x0000};
    const std::vector<uint16_t> threeAndAQuarter = {0x400A, 0x0000, 0x0000, 0x0000};  // 3.25
    const std::vector<uint16_t> hundred = {0x4059, 0x0000, 0x0000, 0x0000};           // 100.0
    const std::vector<uint16_t> tinyNegative = {0xBEE4, 0xF8B5, 0x88E3, 0x68F1};      // -0.00001

    EXPECT_EQ(decodeItem(DOUBLE, zero, bigHigh, QStringLiteral("4")), QStringLiteral("0"));
    EXPECT_EQ(decodeItem(DOUBLE, minusTwoAndAHalf, bigHigh, QStringLiteral("1")), QStringLiteral("-2.5"));
    EXPECT_EQ(decodeItem(DOUBLE, threeAndAQuarter, bigHigh, QStringLiteral("4")), QStringLiteral("3.2500"));
    EXPECT_EQ(decodeItem(DOUBLE, threeAndAQuarter, bigHigh, QStringLiteral("0")), QStringLiteral("3"));
    EXPECT_EQ(decodeItem(DOUBLE, hundred, bigHigh, QStringLiteral("0")), QStringLiteral("100"));
    EXPECT_EQ(decodeItem(DOUBLE, hundred, bigHigh, QStringLiteral("2")), QStringLiteral("100"));
    // A negative value that rounds to zero keeps its sign.
    EXPECT_EQ(decodeItem(DOUBLE, tinyNegative, bigHigh, QStringLiteral("4")), QStringLiteral("-0"));
    EXPECT_EQ(decodeItem(FLOAT, {0x0000, 0x0000}, bigHigh, QStringLiteral("4")), QStringLiteral("0"));
    EXPECT_EQ(decodeItem(FLOAT, {0xC020, 0x0000}, bigHigh, QStringLiteral("1")), QStringLiteral("-2.5"));
}

TEST(Decoding, HugePrecisionIsBounded) {
    // 3.25 has two decimals; beyond 1074 decimals a double has nothing but zeros, so the text stops there.
    const QString text = decodeItem(DOUBLE, {0x400A, 0x0000, 0x0000, 0x0000}, golden::kByteOrders[0],
                                    QStringLiteral("2147483647"));
    EXPECT_EQ(text, QStringLiteral("3.25") + QString(1072, QLatin1Char('0')));
    EXPECT_EQ(
        decodeItem(DOUBLE, {0x400A, 0x0000, 0x0000, 0x0000}, golden::kByteOrders[0], QStringLiteral("1075")),
        text);
}

TEST(Decoding, SixteenBitSignedness) {
    const golden::ByteOrder& bigHigh = golden::kByteOrders[golden::kBigHigh];
    EXPECT_EQ(decodeItem(UINT16, {0xFFFF}, bigHigh), QStringLiteral("65535"));
    EXPECT_EQ(decodeItem(INT16, {0xFFFF}, bigHigh), QStringLiteral("-1"));
}

QString decodeBitInRegister(uint16_t word, const QString& address) {
    Modbus plugin;
    ItemList items;
    items.add(makeItem(address, QStringLiteral("4"), QString::number(BIT)));
    std::vector<unsigned short> words = {word};
    plugin.extract(items.pointers.begin(), items.pointers.end(), 0, words, false, false, false, false);
    return items.value(0);
}

TEST(Decoding, BitsInARegister) {
    struct Row {
        uint16_t word;
        const char* address;
        const char* value;
    };
    const Row rows[] = {
        {0x8000, "40001.15", "1"}, {0x7FFF, "40001.15", "0"}, {0x0001, "40001.0", "1"},
        {0x0001, "40001", "1"},    {0x0004, "40001.2", "1"},  {0xFFFB, "40001.2", "0"},
        {0xFFFF, "40001.16", "0"}, {0xFFFF, "40001.31", "0"}, {0xFFFF, "40001.32", "0"},
        {0xFFFF, "40001.99", "0"}, {0xFFFF, "40001.-1", "0"}, {0xFFFF, "40001.x", "1"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(QStringLiteral("%1 in 0x%2").arg(row.address).arg(row.word, 4, 16).toStdString());
        EXPECT_EQ(decodeBitInRegister(row.word, QString::fromLatin1(row.address)),
                  QString::fromLatin1(row.value));
    }
}

TEST(Decoding, WalkStopsAtAnItemBeforeTheBlock) {
    Modbus plugin;
    ItemList items;
    items.add(makeItem(QStringLiteral("5"), QStringLiteral("3"), QString::number(UINT16)));
    items.add(makeItem(QStringLiteral("10"), QStringLiteral("3"), QString::number(UINT16)));
    std::vector<unsigned short> words = {7, 8};
    const auto next =
        plugin.extract(items.pointers.begin(), items.pointers.end(), 10, words, false, false, false, false);
    EXPECT_TRUE(next == items.pointers.begin());
    EXPECT_FALSE(items.hasValue(0));
    EXPECT_FALSE(items.hasValue(1));
}

TEST(Decoding, WalkStopsAtADoublePastTheBlock) {
    Modbus plugin;
    ItemList items;
    items.add(makeItem(QStringLiteral("100"), QStringLiteral("3"), QString::number(INT16)));
    items.add(makeItem(QStringLiteral("102"), QStringLiteral("3"), QString::number(DOUBLE)));
    items.add(makeItem(QStringLiteral("103"), QStringLiteral("3"), QString::number(INT16)));
    std::vector<unsigned short> words = {0xFFFE, 0, 0, 0x0005};  // addresses 100..103
    const auto next =
        plugin.extract(items.pointers.begin(), items.pointers.end(), 100, words, false, false, false, false);
    EXPECT_TRUE(next == items.pointers.begin() + 1);
    EXPECT_EQ(items.value(0), QStringLiteral("-2"));
    EXPECT_FALSE(items.hasValue(1));
    EXPECT_FALSE(items.hasValue(2));
}

TEST(Decoding, BadStringRangeSetsAnErrorAndTheWalkGoesOn) {
    Modbus plugin;
    ItemList items;
    items.add(makeItem(QStringLiteral("0-10"), QStringLiteral("3"), QString::number(STRING)));
    items.add(makeItem(QStringLiteral("1"), QStringLiteral("3"), QString::number(UINT16)));
    items.add(
        makeItem(QStringLiteral("3-3"), QStringLiteral("3"), QString::number(STRING)));  // 3 words from 3
    std::vector<unsigned short> words = {0x4142, 0x002A, 0x4344, 0x4546};
    const auto next =
        plugin.extract(items.pointers.begin(), items.pointers.end(), 0, words, false, false, false, false);
    EXPECT_TRUE(next == items.pointers.end());
    EXPECT_EQ(items.owned[0]->item.lastError, QStringLiteral("Invalid string range"));
    EXPECT_FALSE(items.hasValue(0));
    EXPECT_EQ(items.value(1), QStringLiteral("42"));
    EXPECT_EQ(items.owned[2]->item.lastError, QStringLiteral("Invalid string range"));
}

TEST(Decoding, UnknownTypeIsLeftUntouched) {
    Modbus plugin;
    ItemList items;
    items.add(makeItem(QStringLiteral("0"), QStringLiteral("3"), QStringLiteral("10")));
    items.add(makeItem(QStringLiteral("0"), QStringLiteral("3"), QString::number(UINT16)));
    std::vector<unsigned short> words = {9};
    const auto next =
        plugin.extract(items.pointers.begin(), items.pointers.end(), 0, words, false, false, false, false);
    EXPECT_TRUE(next == items.pointers.end());
    EXPECT_FALSE(items.hasValue(0));
    EXPECT_EQ(items.owned[0]->item.lastError, QString());
    EXPECT_EQ(items.value(1), QStringLiteral("9"));
}

TEST(Decoding, EmptyRangeOfItems) {
    Modbus plugin;
    std::vector<DataItem*> none;
    std::vector<unsigned short> words = {1};
    std::vector<unsigned char> bits = {1};
    EXPECT_TRUE(plugin.extract(none.begin(), none.end(), 0, words, false, false, false, false) == none.end());
    EXPECT_TRUE(plugin.extract(none.begin(), none.end(), 0, bits) == none.end());
}

TEST(Decoding, CoilBits) {
    Modbus plugin;
    ItemList items;
    items.add(makeItem(QStringLiteral("20"), QStringLiteral("0"), QString::number(BIT)));
    items.add(makeItem(QStringLiteral("21"), QStringLiteral("0"), QString::number(BIT)));
    items.add(makeItem(QStringLiteral("22"), QStringLiteral("0"), QString::number(BIT)));
    // A position equal to the block size is let through (and reads 0); one past it stops the walk.
    items.add(makeItem(QStringLiteral("23"), QStringLiteral("0"), QString::number(BIT)));
    items.add(makeItem(QStringLiteral("24"), QStringLiteral("0"), QString::number(BIT)));
    std::vector<unsigned char> bits = {1, 0, 1};
    const auto next = plugin.extract(items.pointers.begin(), items.pointers.end(), 20, bits);
    EXPECT_TRUE(next == items.pointers.begin() + 4);
    EXPECT_EQ(items.value(0), QStringLiteral("1"));
    EXPECT_EQ(items.value(1), QStringLiteral("0"));
    EXPECT_EQ(items.value(2), QStringLiteral("1"));
    EXPECT_EQ(items.value(3), QStringLiteral("0"));
    EXPECT_FALSE(items.hasValue(4));
}

TEST(Decoding, CoilWalkStopsBeforeStart) {
    Modbus plugin;
    ItemList items;
    items.add(makeItem(QStringLiteral("10001"), QStringLiteral("4"), QString::number(BIT)));  // offset 0
    std::vector<unsigned char> bits = {1};
    const auto next = plugin.extract(items.pointers.begin(), items.pointers.end(), 1, bits);
    EXPECT_TRUE(next == items.pointers.begin());
    EXPECT_FALSE(items.hasValue(0));
}

TEST(Decoding, SwapBytes) {
    EXPECT_EQ(Modbus::swapBytes(0x1234), 0x3412);
    EXPECT_EQ(Modbus::swapBytes(0xFF00), 0x00FF);
    EXPECT_EQ(Modbus::swapBytes(0x0000), 0x0000);
}

}  // namespace
