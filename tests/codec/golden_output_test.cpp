// Pins the decoder's and encoder's outputs, byte for byte, over a generated matrix of types, orders,
// precisions and values. The expected texts live in tests/codec/golden/; any change to how a value is read or
// written shows up here as the first differing case.
//
// To regenerate after a deliberate change:  ZELT_GOLDEN_REGENERATE=1 build/tests/codec_tests
//   --gtest_filter='GoldenOutput.*'   (then review the diff of tests/codec/golden/ before committing it)

#include <gtest/gtest.h>

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "codec/value_encoding.h"
#include "codec_fixtures.h"
#include "plugin/modbus.h"

namespace {

using codec_test::ItemList;
using codec_test::makeItem;

const QString kPrecisionKey = QStringLiteral("floating_point_precision");
constexpr char kRegenerateVariable[] = "ZELT_GOLDEN_REGENERATE";
constexpr unsigned int kFirstUnknownType = 10;
constexpr int kRandomBlocks = 48;
constexpr std::uint32_t kRandomSeed = 20261122;

struct Order {
    bool first;
    bool second;
};
constexpr Order kOrders[] = {{false, false}, {false, true}, {true, false}, {true, true}};

QString goldenPath(const char* name) {
    return QStringLiteral(ZELT_SOURCE_DIR "/tests/codec/golden/") + QLatin1String(name);
}

// Printable ASCII stays; everything else (control bytes, quotes, backslashes, UTF-8 bytes) becomes \xNN, so a
// line shows exactly which bytes a text held.
QByteArray escaped(const QByteArray& bytes) {
    QByteArray out;
    for (char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F && byte != '"' && byte != '\\') {
            out.append(c);
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", byte);
            out.append(hex);
        }
    }
    return out;
}

QByteArray quoted(const QString& text) {
    return '"' + escaped(text.toUtf8()) + '"';
}

QByteArray wordsText(const std::vector<unsigned short>& words) {
    QByteArray out;
    for (unsigned short word : words) {
        if (!out.isEmpty()) out.append(' ');
        char hex[5];
        std::snprintf(hex, sizeof hex, "%04x", word);
        out.append(hex);
    }
    return out;
}

QByteArray wordsText(const QVector<quint16>& words) {
    return wordsText(std::vector<unsigned short>(words.begin(), words.end()));
}

std::vector<unsigned short> wordsOf(std::uint64_t bits, int count) {
    std::vector<unsigned short> words(count);
    for (int i = 0; i < count; ++i) words[i] = static_cast<unsigned short>(bits >> (16 * (count - 1 - i)));
    return words;
}

std::uint64_t floatBits(float value) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

std::uint64_t doubleBits(double value) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// Register blocks of four words: each value's bits, most significant word first, padded with a marker word
// so that 1- and 2-register types also see what follows them.
std::vector<std::vector<unsigned short>> numberBlocks() {
    std::vector<std::uint64_t> wide = {
        0,
        1,
        0xFFFFFFFFFFFFFFFFULL,
        0x8000000000000000ULL,
        0x7FFFFFFFFFFFFFFFULL,
        0x0102030405060708ULL,
        0x123456789ABCDEF0ULL,
        doubleBits(0.0),
        doubleBits(-0.0),
        doubleBits(1.0),
        doubleBits(-1.5),
        doubleBits(49.98),
        doubleBits(0.1),
        doubleBits(1.0 / 3.0),
        doubleBits(123456789.123456789),
        doubleBits(1e300),
        doubleBits(-1e-300),
        doubleBits(std::numeric_limits<double>::max()),
        doubleBits(std::numeric_limits<double>::lowest()),
        doubleBits(std::numeric_limits<double>::min()),
        doubleBits(std::numeric_limits<double>::denorm_min()),
        doubleBits(std::numeric_limits<double>::infinity()),
        doubleBits(-std::numeric_limits<double>::infinity()),
        doubleBits(std::numeric_limits<double>::quiet_NaN()),
        0x7FF0000000000001ULL,  // signalling NaN with a payload
    };
    std::vector<std::uint32_t> narrow = {
        0x00000000,
        0x00008000,
        0x00007FFF,
        0x0000FFFF,
        0x80000000,
        0x7FFFFFFF,
        0xFFFFFFFF,
        0x12345678,
        static_cast<std::uint32_t>(floatBits(1.0f)),
        static_cast<std::uint32_t>(floatBits(-0.0f)),
        static_cast<std::uint32_t>(floatBits(230.5f)),
        static_cast<std::uint32_t>(floatBits(0.1f)),
        static_cast<std::uint32_t>(floatBits(3.0f)),
        static_cast<std::uint32_t>(floatBits(3.25f)),
        static_cast<std::uint32_t>(floatBits(123456.0f)),
        static_cast<std::uint32_t>(floatBits(1e10f)),
        static_cast<std::uint32_t>(floatBits(std::numeric_limits<float>::max())),
        static_cast<std::uint32_t>(floatBits(std::numeric_limits<float>::lowest())),
        static_cast<std::uint32_t>(floatBits(std::numeric_limits<float>::min())),
        static_cast<std::uint32_t>(floatBits(std::numeric_limits<float>::denorm_min())),
        static_cast<std::uint32_t>(floatBits(std::numeric_limits<float>::infinity())),
        static_cast<std::uint32_t>(floatBits(-std::numeric_limits<float>::infinity())),
        static_cast<std::uint32_t>(floatBits(std::numeric_limits<float>::quiet_NaN())),
        0x7F800001,  // signalling NaN with a payload
    };
    std::vector<std::vector<unsigned short>> blocks;
    for (std::uint64_t bits : wide) blocks.push_back(wordsOf(bits, 4));
    for (std::uint32_t bits : narrow) {
        std::vector<unsigned short> block = wordsOf(bits, 2);
        block.push_back(0xA5A5);
        block.push_back(0x5A5A);
        blocks.push_back(block);
    }
    std::mt19937 random(kRandomSeed);
    for (int i = 0; i < kRandomBlocks; ++i) {
        std::vector<unsigned short> block(4);
        for (unsigned short& word : block) word = static_cast<unsigned short>(random());
        blocks.push_back(block);
    }
    return blocks;
}

// The value text (or "<none>") and error text of one item at holding address 0 decoded from `words`.
QByteArray decodeLine(Modbus& plugin, unsigned int type, const QString& address, const QString* precision,
                      std::vector<unsigned short> words, int start, bool littleEndian, bool byteSwapped,
                      bool stringLittleEndian, bool stringByteSwapped) {
    ItemList items;
    ItemInstancePlugin item = makeItem(address, QStringLiteral("4"), QString::number(type));
    if (precision) item.settings[kPrecisionKey] = *precision;
    items.add(item);
    const auto next = plugin.extract(items.pointers.begin(), items.pointers.end(), start, words, littleEndian,
                                     byteSwapped, stringLittleEndian, stringByteSwapped);
    QByteArray line = items.hasValue(0) ? quoted(items.value(0)) : QByteArray("<none>");
    line += " error=" + quoted(items.owned.at(0)->item.lastError);
    line += next == items.pointers.end() ? " walked" : " stopped";
    return line;
}

QStringList precisionCases() {
    QStringList cases;
    for (int precision = 0; precision <= 17; ++precision) cases << QString::number(precision);
    cases << QStringLiteral("abc") << QString() << QStringLiteral("-1") << QStringLiteral("30");
    return cases;
}

QByteArray orderText(bool first, bool second) {
    return QByteArray::number(first ? 1 : 0) + '/' + QByteArray::number(second ? 1 : 0);
}

QList<QByteArray> decodeNumbers() {
    QList<QByteArray> lines;
    Modbus plugin;
    const std::vector<std::vector<unsigned short>> blocks = numberBlocks();
    const QStringList precisions = precisionCases();
    for (unsigned int type = BIT; type <= kFirstUnknownType; ++type) {
        if (type == STRING) continue;
        for (const std::vector<unsigned short>& block : blocks) {
            for (const Order& order : kOrders) {
                const QByteArray head = "decode type=" + QByteArray::number(type) +
                                        " order=" + orderText(order.first, order.second) +
                                        " words=" + wordsText(block);
                if (type == FLOAT || type == DOUBLE) {
                    for (const QString& precision : precisions) {
                        const bool missing = precision.isNull();
                        lines << head +
                                     " precision=" + (missing ? QByteArray("<missing>") : quoted(precision)) +
                                     " -> " +
                                     decodeLine(plugin, type, QStringLiteral("40001"),
                                                missing ? nullptr : &precision, block, 0, order.first,
                                                order.second, false, false);
                    }
                } else {
                    lines << head + " -> " +
                                 decodeLine(plugin, type, QStringLiteral("40001"), nullptr, block, 0,
                                            order.first, order.second, false, false);
                }
            }
        }
    }
    // A value whose registers run past the block: the walk stops there.
    for (unsigned int type = BIT; type <= kFirstUnknownType; ++type) {
        lines << "decode short block type=" + QByteArray::number(type) + " -> " +
                     decodeLine(plugin, type, QStringLiteral("40001"), nullptr, {0x1234}, 0, false, false,
                                false, false);
    }
    return lines;
}

QList<QByteArray> decodeBits() {
    QList<QByteArray> lines;
    Modbus plugin;
    const unsigned short registers[] = {0x0000, 0xFFFF, 0x8001, 0x5AA5};
    for (unsigned short word : registers) {
        for (int bit = 0; bit <= 16; ++bit) {
            const QString address = QStringLiteral("40001.%1").arg(bit);
            lines << "decode register bit word=" + wordsText(std::vector<unsigned short>{word}) +
                         " address=" + quoted(address) + " -> " +
                         decodeLine(plugin, BIT, address, nullptr, {word}, 0, false, false, false, false);
        }
        for (const QString& address : {QStringLiteral("40001"), QStringLiteral("40001.-1"),
                                       QStringLiteral("40001.x"), QStringLiteral("40001.")}) {
            lines << "decode register bit word=" + wordsText(std::vector<unsigned short>{word}) +
                         " address=" + quoted(address) + " -> " +
                         decodeLine(plugin, BIT, address, nullptr, {word}, 0, false, false, false, false);
        }
    }
    // Coils: values of the bit block as libmodbus hands them over, and positions past its end.
    const std::vector<unsigned char> coilBlock = {0, 1, 1, 0, 2, 255};
    for (int position = 1; position <= 8; ++position) {
        ItemList items;
        items.add(makeItem(QStringLiteral("%1").arg(position, 5, 10, QLatin1Char('0')), QStringLiteral("4"),
                           QStringLiteral("0")));
        std::vector<unsigned char> bits = coilBlock;
        const auto next = plugin.extract(items.pointers.begin(), items.pointers.end(), 0, bits);
        lines << "decode coil position=" + QByteArray::number(position) + " -> " +
                     (items.hasValue(0) ? quoted(items.value(0)) : QByteArray("<none>")) +
                     (next == items.pointers.end() ? " walked" : " stopped");
    }
    return lines;
}

QList<QByteArray> decodeStrings() {
    QList<QByteArray> lines;
    Modbus plugin;
    const std::vector<std::vector<unsigned short>> blocks = {
        {0x4142, 0x4344},                  // "ABCD"
        {0x4142, 0x4300},                  // NUL-padded odd length
        {0x4142, 0x0043, 0x4445},          // NUL in the middle
        {0x0041, 0x4243},                  // NUL first
        {0x0000, 0x0000},                  // all NUL
        {0x5A4D, 0x332D, 0x3030, 0x3034},  // "ZM3-0004"
        {0xC3A4, 0xE282, 0xAC00},          // UTF-8: a-umlaut, euro sign
        {0xFF41, 0xC328},                  // invalid UTF-8
        {0x2020, 0x4120},                  // spaces are kept
        {0x0A0D, 0x0941},                  // control characters
    };
    for (const std::vector<unsigned short>& block : blocks) {
        for (const Order& order : kOrders) {
            const QString address = QStringLiteral("40001-%1").arg(block.size());
            lines << "decode string order=" + orderText(order.first, order.second) +
                         " words=" + wordsText(block) + " -> " +
                         decodeLine(plugin, STRING, address, nullptr, block, 0, false, false, order.first,
                                    order.second);
        }
    }
    // Ranges that do not fit the block, and the other forms of a range.
    const std::vector<unsigned short> block = {0x4142, 0x4344, 0x4546};
    for (const QString& address :
         {QStringLiteral("40001-40003"), QStringLiteral("40001-3"), QStringLiteral("40001-4"),
          QStringLiteral("40002-40004"), QStringLiteral("40001-0"), QStringLiteral("40001-"),
          QStringLiteral("40001"), QStringLiteral("40003-1")}) {
        lines << "decode string range address=" + quoted(address) + " -> " +
                     decodeLine(plugin, STRING, address, nullptr, block, 0, false, false, false, false);
    }
    return lines;
}

QList<QByteArray> addressLines() {
    QList<QByteArray> lines;
    const QStringList registers = {
        QString(),
        QStringLiteral("0"),
        QStringLiteral("1"),
        QStringLiteral("00001"),
        QStringLiteral("09999"),
        QStringLiteral("10000"),
        QStringLiteral("10001"),
        QStringLiteral("19999"),
        QStringLiteral("20000"),
        QStringLiteral("30001"),
        QStringLiteral("39999"),
        QStringLiteral("40000"),
        QStringLiteral("40001"),
        QStringLiteral("49999"),
        QStringLiteral("65535"),
        QStringLiteral("65536"),
        QStringLiteral("70000"),
        QStringLiteral("99999"),
        QStringLiteral("100000"),
        QStringLiteral("465536"),
        QStringLiteral("499999"),
        QStringLiteral("2147483647"),
        QStringLiteral("2147483648"),
        QStringLiteral("-1"),
        QStringLiteral("-40001"),
        QStringLiteral("abc"),
        QStringLiteral(" 40001"),
        QStringLiteral("40001 "),
        QStringLiteral("4e4"),
        QStringLiteral("0x10"),
        QStringLiteral("40001.0"),
        QStringLiteral("40001.15"),
        QStringLiteral("40001.16"),
        QStringLiteral("40001.-1"),
        QStringLiteral("40001."),
        QStringLiteral(".3"),
        QStringLiteral("30001.3"),
        QStringLiteral("40001-40010"),
        QStringLiteral("40001-10"),
        QStringLiteral("40010-40001"),
        QStringLiteral("40001-0"),
        QStringLiteral("40001-"),
        QStringLiteral("-40001"),
        QStringLiteral("40001-1-2"),
        QStringLiteral("40001.1-3"),
        QStringLiteral("40001-3.1"),
        QStringLiteral("1-4294967295"),
        QStringLiteral("4-4294967296"),
        QStringLiteral("__identity.vendor"),
    };
    const QStringList registerTypes = {QString(),
                                       QStringLiteral("0"),
                                       QStringLiteral("1"),
                                       QStringLiteral("2"),
                                       QStringLiteral("3"),
                                       QStringLiteral("4"),
                                       QStringLiteral("5"),
                                       QStringLiteral("-1"),
                                       QStringLiteral("256"),
                                       QStringLiteral("abc")};
    for (const QString& registerType : registerTypes) {
        for (const QString& address : registers) {
            ItemInstancePlugin item = makeItem(address, registerType, QStringLiteral("2"));
            if (registerType.isNull()) item.settings.remove(QStringLiteral("register_type"));
            lines << "address register=" + quoted(address) + " register_type=" +
                         (registerType.isNull() ? QByteArray("<missing>") : quoted(registerType)) +
                         " -> type=" + QByteArray::number(static_cast<int>(Modbus::getType(item))) +
                         " offset=" + QByteArray::number(Modbus::getOffset(item)) +
                         " span=" + QByteArray::number(Modbus::getSpan(item)) +
                         " bit=" + QByteArray::number(Modbus::getBit(item));
        }
    }
    for (unsigned int type = BIT; type <= kFirstUnknownType + 1; ++type) {
        lines << "length type=" + QByteArray::number(type) + " -> " +
                     QByteArray::number(Modbus::getLengthOfVar(static_cast<VarType>(type)));
    }
    return lines;
}

QStringList valueTexts() {
    return {QStringLiteral("0"),
            QStringLiteral("1"),
            QStringLiteral("-1"),
            QStringLiteral("21.5"),
            QStringLiteral("-21.5"),
            QStringLiteral("0.1"),
            QStringLiteral("1e10"),
            QStringLiteral("-1e10"),
            QStringLiteral("1e400"),
            QStringLiteral("-1e400"),
            QStringLiteral("1e-400"),
            QStringLiteral("4.9e-324"),
            QStringLiteral("1.4e-45"),
            QStringLiteral("3.4028235e38"),
            QStringLiteral("3.5e38"),
            QStringLiteral("1.7976931348623157e308"),
            QStringLiteral("nan"),
            QStringLiteral("NaN"),
            QStringLiteral("inf"),
            QStringLiteral("-inf"),
            QStringLiteral("infinity"),
            QStringLiteral("32767"),
            QStringLiteral("32768"),
            QStringLiteral("-32769"),
            QStringLiteral("65535"),
            QStringLiteral("65536"),
            QStringLiteral("2147483647"),
            QStringLiteral("2147483648"),
            QStringLiteral("-2147483649"),
            QStringLiteral("4294967295"),
            QStringLiteral("4294967296"),
            QStringLiteral("9223372036854775807"),
            QStringLiteral("9223372036854775808"),
            QStringLiteral("-9223372036854775809"),
            QStringLiteral("18446744073709551615"),
            QStringLiteral("18446744073709551616"),
            QStringLiteral("107.00000000000001"),
            QStringLiteral("2.5"),
            QStringLiteral("-2.5"),
            QStringLiteral("0x10"),
            QStringLiteral(" 12 "),
            QStringLiteral("12abc"),
            QStringLiteral("abc"),
            QStringLiteral(""),
            QStringLiteral("1,5"),
            QStringLiteral("+7"),
            QStringLiteral("-0")};
}

QByteArray doubleText(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

QList<QByteArray> encodeLines() {
    QList<QByteArray> lines;
    for (const QString& text : valueTexts()) {
        const double value = codec::parseNumber(text);
        lines << "parse " + quoted(text) + " -> " + doubleText(value);
        for (unsigned int type = BIT; type <= kFirstUnknownType; ++type) {
            lines << "bits type=" + QByteArray::number(type) + " value=" + quoted(text) + " -> " +
                         QByteArray::number(codec::numberBits(static_cast<VarType>(type), value), 16);
            for (const Order& order : kOrders) {
                lines << "encode type=" + QByteArray::number(type) +
                             " order=" + orderText(order.first, order.second) + " value=" + quoted(text) +
                             " -> " +
                             wordsText(codec::encodeNumber(static_cast<VarType>(type), value, order.first,
                                                           order.second));
            }
        }
        lines << "int32 " + quoted(text) + " -> " + QByteArray::number(codec::toInt32(value)) + " uint32 " +
                     QByteArray::number(codec::toUInt32(value)) + " int64 " +
                     QByteArray::number(codec::toInt64(value)) + " uint64 " +
                     QByteArray::number(codec::toUInt64(value));
    }
    const QList<QByteArray> strings = {QByteArray(""),          QByteArray("A"),
                                       QByteArray("AB"),        QByteArray("ABC"),
                                       QByteArray("ABCD"),      QByteArray("ABCDE"),
                                       QByteArray("A\0B", 3),   QByteArray("\xC3\xA4\xE2\x82\xAC"),
                                       QByteArray("ZM3-000042")};
    for (const QByteArray& bytes : strings) {
        for (int registers = 0; registers <= 4; ++registers) {
            for (const Order& order : kOrders) {
                lines << "encode string registers=" + QByteArray::number(registers) +
                             " order=" + orderText(order.first, order.second) + " bytes=\"" + escaped(bytes) +
                             "\" -> " +
                             wordsText(codec::encodeString(bytes, registers, order.first, order.second));
            }
        }
    }
    return lines;
}

QList<QByteArray> readGolden(const char* name) {
    QFile file(goldenPath(name));
    if (!file.open(QIODevice::ReadOnly)) return {};
    QList<QByteArray> lines = file.readAll().split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty()) lines.removeLast();
    return lines;
}

void writeGolden(const char* name, const QList<QByteArray>& lines) {
    QFile file(goldenPath(name));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << goldenPath(name).toStdString();
    for (const QByteArray& line : lines) file.write(line + '\n');
}

void compareWithGolden(const char* name, const QList<QByteArray>& actual) {
    if (qEnvironmentVariableIsSet(kRegenerateVariable)) {
        writeGolden(name, actual);
        return;
    }
    const QList<QByteArray> expected = readGolden(name);
    ASSERT_FALSE(expected.isEmpty()) << "missing golden file " << goldenPath(name).toStdString();
    const int common = std::min(expected.size(), actual.size());
    for (int i = 0; i < common; ++i) {
        ASSERT_EQ(actual.at(i).toStdString(), expected.at(i).toStdString())
            << name << " line " << (i + 1) << " is the first that differs";
    }
    EXPECT_EQ(actual.size(), expected.size()) << name << ": different number of cases";
}

TEST(GoldenOutput, DecodedNumbers) {
    compareWithGolden("decode_numbers.txt", decodeNumbers());
}

TEST(GoldenOutput, DecodedBits) {
    compareWithGolden("decode_bits.txt", decodeBits());
}

TEST(GoldenOutput, DecodedStrings) {
    compareWithGolden("decode_strings.txt", decodeStrings());
}

TEST(GoldenOutput, Addresses) {
    compareWithGolden("addresses.txt", addressLines());
}

TEST(GoldenOutput, Encoded) {
    compareWithGolden("encode.txt", encodeLines());
}

}  // namespace
