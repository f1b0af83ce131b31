// Write a value through writeData, read the raw registers back from the simulator, compare them with the
// golden registers, and decode them with extract back to the same text: every type, byte order and preset.

#include <gtest/gtest.h>

#include <QString>
#include <cstdint>
#include <vector>

#include "codec_fixtures.h"
#include "common/golden_vectors.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

using codec_test::ItemList;
using codec_test::makeItem;

constexpr int kOffset = 100;  // "40101" in Auto mode
const QString kAddress = QStringLiteral("40101");
constexpr uint16_t kFiller = 0xAAAA;

struct Case {
    std::string name;
    VarType type;
    QString text;
    std::vector<uint16_t> registers;
    golden::ByteOrder order;
};

std::vector<Case> numberCases() {
    std::vector<Case> cases;
    for (const golden::Vector& vector : golden::vectors()) {
        for (int order = 0; order < golden::kOrderCount; ++order) {
            cases.push_back({std::string(vector.name) + " " + golden::kByteOrders[order].name, vector.type,
                             QString::fromUtf8(vector.text), vector.registers[order],
                             golden::kByteOrders[order]});
        }
    }
    for (const golden::Extreme& extreme : golden::extremes()) {
        for (int order = 0; order < golden::kOrderCount; ++order) {
            cases.push_back({std::string(extreme.name) + " " + golden::kByteOrders[order].name, extreme.type,
                             QString::fromUtf8(extreme.text),
                             golden::inOrder(extreme.bigHigh, static_cast<golden::OrderIndex>(order)),
                             golden::kByteOrders[order]});
        }
    }
    return cases;
}

class RoundTripTest : public ::testing::Test {
protected:
    void SetUp() override {
        zelt_standin::Host::instance().reset();
        QString error;
        ASSERT_TRUE(sim.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
    }
    void TearDown() override {
        plugin.stopPlugin();
        sim.stop();
    }

    DeviceInstancePlugin device(const QString& preset) const {
        DeviceInstancePlugin result;
        result.id = 1;
        result.name = QStringLiteral("dev");
        result.address = QStringLiteral("127.0.0.1");
        result.settings[QStringLiteral("port")] = QString::number(sim.port());
        result.settings[QStringLiteral("persistent_connection")] = QStringLiteral("1");
        result.settings[QStringLiteral("write_preset")] = preset;
        return result;
    }

    bool write(const DeviceInstancePlugin& target, const ItemInstancePlugin& item, const QString& value,
               QString* itemError) {
        LogList list;
        list.device = target;
        DataItem dataItem(item);
        dataItem.values[QStringLiteral("value")] = value;
        list.dataItems.append(&dataItem);
        const bool result = plugin.writeData(&list);
        *itemError = dataItem.item.lastError;
        return result;
    }

    modbus_sim::Simulator sim;
    Modbus plugin;
};

TEST_F(RoundTripTest, NumbersInEveryTypeOrderAndPreset) {
    const QString presets[] = {QStringLiteral("0"), QStringLiteral("1")};
    for (const QString& preset : presets) {
        for (const Case& c : numberCases()) {
            SCOPED_TRACE(c.name + " write_preset " + preset.toStdString());
            const int count = static_cast<int>(c.registers.size());
            sim.setHoldingRegisters(kOffset, std::vector<uint16_t>(c.registers.size(), kFiller));
            sim.clearRequestLog();

            DeviceInstancePlugin target = device(preset);
            target.settings[QStringLiteral("endianness")] = c.order.littleEndian ? "1" : "0";
            target.settings[QStringLiteral("byte_order")] = c.order.byteSwapped ? "1" : "0";
            const ItemInstancePlugin item = makeItem(kAddress, QStringLiteral("4"), QString::number(c.type));

            QString itemError;
            ASSERT_TRUE(write(target, item, c.text, &itemError));
            EXPECT_EQ(itemError, QString());
            const std::vector<uint16_t> registers = sim.holdingRegisters(kOffset, count);
            EXPECT_EQ(registers, c.registers);
            if (preset == QStringLiteral("1")) {
                EXPECT_EQ(sim.requestCount(16), 1);
                EXPECT_EQ(sim.requestCount(6), 0);
            } else {
                EXPECT_EQ(sim.requestCount(6), count);
                EXPECT_EQ(sim.requestCount(16), 0);
            }

            ItemList items;
            items.add(item);
            std::vector<unsigned short> words(registers.begin(), registers.end());
            const auto next = plugin.extract(items.pointers.begin(), items.pointers.end(), kOffset, words,
                                             c.order.littleEndian, c.order.byteSwapped, false, false);
            EXPECT_TRUE(next == items.pointers.end());
            EXPECT_EQ(items.value(0), c.text);
        }
    }
}

TEST_F(RoundTripTest, StringsInEveryOrder) {
    struct Row {
        const char* text;
        bool littleEndian;
        bool byteSwapped;
        std::vector<uint16_t> registers;
    };
    const Row rows[] = {
        {"ABCD", false, false, {0x4142, 0x4344, 0x0000}},
        {"ABCD", false, true, {0x4241, 0x4443, 0x0000}},
        {"ABCD", true, false, {0x0000, 0x4344, 0x4142}},
        {"ABCD", true, true, {0x0000, 0x4443, 0x4241}},
        {"ABCDEF", true, false, {0x4546, 0x4344, 0x4142}},
        {"Zo\xc3\xab", false, false, {0x5A6F, 0xC3AB, 0x0000}},
        {"", false, false, {0x0000, 0x0000, 0x0000}},
    };
    const QString presets[] = {QStringLiteral("0"), QStringLiteral("1")};
    for (const QString& preset : presets) {
        for (const Row& row : rows) {
            const QString text = QString::fromUtf8(row.text);
            SCOPED_TRACE(QStringLiteral("\"%1\" string_endianness %2 string_byte_order %3 write_preset %4")
                             .arg(text)
                             .arg(row.littleEndian)
                             .arg(row.byteSwapped)
                             .arg(preset)
                             .toStdString());
            sim.setHoldingRegisters(kOffset, {kFiller, kFiller, kFiller});
            DeviceInstancePlugin target = device(preset);
            target.settings[QStringLiteral("string_endianness")] = row.littleEndian ? "1" : "0";
            target.settings[QStringLiteral("string_byte_order")] = row.byteSwapped ? "1" : "0";
            const ItemInstancePlugin item =
                makeItem(QStringLiteral("40101-40103"), QStringLiteral("4"), QString::number(STRING));

            QString itemError;
            ASSERT_TRUE(write(target, item, text, &itemError));
            EXPECT_EQ(itemError, QString());
            const std::vector<uint16_t> registers = sim.holdingRegisters(kOffset, 3);
            EXPECT_EQ(registers, row.registers);

            ItemList items;
            items.add(item);
            std::vector<unsigned short> words(registers.begin(), registers.end());
            plugin.extract(items.pointers.begin(), items.pointers.end(), kOffset, words, false, false,
                           row.littleEndian, row.byteSwapped);
            EXPECT_EQ(items.value(0), text);
        }
    }
}

TEST_F(RoundTripTest, BitsInARegister) {
    sim.setHoldingRegisters(kOffset, {0x0000});
    const QString bits[] = {QStringLiteral("0"), QStringLiteral("7"), QStringLiteral("15")};
    for (const QString& bit : bits) {
        SCOPED_TRACE(bit.toStdString());
        const ItemInstancePlugin item =
            makeItem(kAddress + QStringLiteral(".") + bit, QStringLiteral("4"), QString::number(BIT));
        QString itemError;
        ASSERT_TRUE(write(device(QStringLiteral("0")), item, QStringLiteral("1"), &itemError));
        EXPECT_EQ(itemError, QString());
        ItemList items;
        items.add(item);
        const std::vector<uint16_t> registers = sim.holdingRegisters(kOffset, 1);
        std::vector<unsigned short> words(registers.begin(), registers.end());
        plugin.extract(items.pointers.begin(), items.pointers.end(), kOffset, words, false, false, false,
                       false);
        EXPECT_EQ(items.value(0), QStringLiteral("1"));
    }
    EXPECT_EQ(sim.holdingRegisters(kOffset, 1), (std::vector<uint16_t>{0x8081}));
}

}  // namespace
