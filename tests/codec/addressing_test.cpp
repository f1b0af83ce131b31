// Register table, offset, bit and span from an item's address texts; byte-order flags of a device.

#include <gtest/gtest.h>

#include <climits>

#include "codec_fixtures.h"
#include "plugin/modbus.h"

namespace {

using codec_test::makeItem;

struct AddressRow {
    const char* registerType;
    const char* address;
    int table;
    int offset;
    int bit;
    unsigned int span;
};

const AddressRow kAddressRows[] = {
    // Auto: the leading digit picks the table, the rest is 1-based.
    {"4", "40001", HoldingRegister, 0, 0, 0},
    {"4", "40010", HoldingRegister, 9, 0, 0},
    {"4", "40001.15", HoldingRegister, 0, 15, 0},
    {"4", "30001", InputRegister, 0, 0, 0},
    {"4", "30001.2", HoldingRegister, 0, 2, 0},  // a bit address is no plain number: holding registers
    {"4", "30001-30004", HoldingRegister, 0, 0, 4},
    {"4", "10001", InputCoil, 0, 0, 0},
    {"4", "19999", InputCoil, 9998, 0, 0},
    {"4", "00001", OutputCoil, 0, 0, 0},
    {"4", "1", OutputCoil, -1, 0, 0},
    {"4", "9999", OutputCoil, 998, 0, 0},
    {"4", "10000", HoldingRegister, -1, 0, 0},
    {"4", "20000", HoldingRegister, -1, 0, 0},
    {"4", "25000", HoldingRegister, 4999, 0, 0},
    {"4", "40000", HoldingRegister, -1, 0, 0},
    {"4", "400001", HoldingRegister, 0, 0, 0},
    {"4", "300001", HoldingRegister, 0, 0, 0},  // six digits are not recognised
    {"4", "100001", HoldingRegister, 0, 0, 0},
    {"4", "0", HoldingRegister, -1, 0, 0},
    {"4", "-5", HoldingRegister, -1, 0, 6},  // ["", "5"]: 0 < 5, so 5 - 0 + 1
    {"4", "", HoldingRegister, -1, 0, 0},
    {"4", ".3", HoldingRegister, -1, 3, 0},
    {"4", "x0001", HoldingRegister, -1, 0, 0},
    {"4", "4abc", HoldingRegister, -1, 0, 0},
    {"4", "4-5.0", HoldingRegister, -6, 0, 0},  // the rest "-5" is taken as it is, minus 1
    {"4", "4-2147483647.0", HoldingRegister, INT_MIN, 0, 0},
    {"4", "4-2147483648.1", HoldingRegister, -1, 1, 0},  // one below the smallest int: no offset at all
    // Explicit tables: the number is the protocol address itself.
    {"3", "40001", HoldingRegister, 40001, 0, 0},
    {"2", "100.4", InputRegister, 100, 4, 0},
    {"0", "abc", OutputCoil, -1, 0, 0},
    {"1", "17", InputCoil, 17, 0, 0},
    {"3", "0-5", HoldingRegister, 0, 0, 6},
    {"3", "100-50", HoldingRegister, 100, 0, 50},
    {"3", "5-5", HoldingRegister, 5, 0, 5},
    {"3", "40001-10", HoldingRegister, 40001, 0, 10},
    {"3", "40001-40010", HoldingRegister, 40001, 0, 10},
    {"3", "40001-", HoldingRegister, 40001, 0, 0},
    {"3", "40001.x", HoldingRegister, 40001, 0, 0},
    {"3", "7.3-9", HoldingRegister, 7, 0, 10},  // "3-9" is no bit number, "7.3" no start
    {"7", "12", 7, 12, 0, 0},                   // no range check outside Auto
    {"300", "12", 44, 12, 0, 0},                // narrowed to 8 bits
    {"", "12", OutputCoil, 12, 0, 0},           // missing register_type reads as 0
};

TEST(Addressing, TableOffsetBitAndSpan) {
    for (const AddressRow& row : kAddressRows) {
        SCOPED_TRACE(QStringLiteral("register_type %1 register \"%2\"")
                         .arg(row.registerType, row.address)
                         .toStdString());
        const ItemInstancePlugin item =
            makeItem(QString::fromLatin1(row.address), QString::fromLatin1(row.registerType));
        EXPECT_EQ(static_cast<int>(Modbus::getType(item)), row.table);
        EXPECT_EQ(Modbus::getOffset(item), row.offset);
        EXPECT_EQ(Modbus::getBit(item), row.bit);
        EXPECT_EQ(Modbus::getSpan(item), row.span);
    }
}

TEST(Addressing, MissingRegisterSettingIsInvalid) {
    ItemInstancePlugin item;
    EXPECT_EQ(Modbus::getType(item), OutputCoil);
    EXPECT_EQ(Modbus::getOffset(item), -1);
    EXPECT_EQ(Modbus::getBit(item), 0);
    EXPECT_EQ(Modbus::getSpan(item), 0u);
}

TEST(Addressing, LengthOfEveryType) {
    struct Row {
        unsigned int type;
        unsigned int registers;
    };
    const Row rows[] = {{BIT, 1},    {INT16, 1},  {UINT16, 1}, {INT32, 2},  {UINT32, 2}, {FLOAT, 2},
                        {DOUBLE, 4}, {STRING, 0}, {INT64, 4},  {UINT64, 4}, {10, 0},     {0xFFFFFFFFu, 0}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.type);
        EXPECT_EQ(Modbus::getLengthOfVar(static_cast<VarType>(row.type)), row.registers);
    }
}

TEST(Addressing, DeviceFlagsAreOnOnlyForOne) {
    struct Row {
        const char* value;  // nullptr: setting missing
        bool on;
    };
    const Row rows[] = {{nullptr, false}, {"", false},    {"0", false},  {"1", true},
                        {"2", false},     {"abc", false}, {" 1 ", true}, {"01", true}};
    const char* const keys[] = {"endianness", "byte_order", "string_endianness", "string_byte_order"};
    for (const char* key : keys) {
        for (const Row& row : rows) {
            SCOPED_TRACE(
                QStringLiteral("%1 = %2").arg(key, row.value ? row.value : "<missing>").toStdString());
            DeviceInstancePlugin device;
            if (row.value) {
                device.settings[QString::fromLatin1(key)] = QString::fromLatin1(row.value);
            }
            const bool flags[] = {Modbus::isLittleEndian(device), Modbus::isByteSwapped(device),
                                  Modbus::isStringLittleEndian(device), Modbus::isStringByteSwapped(device)};
            for (size_t i = 0; i < 4; ++i) {
                EXPECT_EQ(flags[i], keys[i] == key && row.on) << keys[i];
            }
        }
    }
}

}  // namespace
