#pragma once
// The item sets the benchmarks poll and write, with the settings the host stores for a new device or item,
// and simulator contents that give every item a value worth decoding.

#include <QString>
#include <cstdint>
#include <memory>
#include <vector>

#include "host/records.h"
#include "tests/common/plugin_batch.h"
#include "tools/sim/simulator.h"

namespace bench {

// Codes of the item setting "type" and of "register_type", as stored by the host.
constexpr int kTypeBit = 0;
constexpr int kTypeInt16 = 1;
constexpr int kTypeUint16 = 2;
constexpr int kTypeInt32 = 3;
constexpr int kTypeUint32 = 4;
constexpr int kTypeFloat = 5;
constexpr int kTypeDouble = 6;
constexpr int kTypeString = 7;
constexpr int kTypeInt64 = 8;
constexpr int kTypeUint64 = 9;
const QString kRegisterTypeAuto = QStringLiteral("4");

// Auto addresses: the first coil, discrete input, input register and holding register.
constexpr int kFirstCoil = 1;
constexpr int kFirstDiscreteInput = 10001;
constexpr int kFirstInputRegister = 30001;
constexpr int kFirstHoldingRegister = 40001;
constexpr int kStringRegisters = 4;
constexpr int kBitsPerRegister = 16;
constexpr int kSimulatedWords = 8000;

// The four combinations of "endianness" and "byte_order".
struct ByteOrder {
    const char* name;
    const char* endianness;
    const char* byteOrder;
};
constexpr ByteOrder kByteOrders[] = {
    {"Big/High", "0", "0"}, {"Big/Low", "0", "1"}, {"Little/High", "1", "0"}, {"Little/Low", "1", "1"}};

inline QMap<QString, QString> deviceDefaults(const ByteOrder& order = kByteOrders[0],
                                             bool multiplePresets = true) {
    return {{QStringLiteral("server_id"), QStringLiteral("1")},
            {QStringLiteral("persistent_connection"), QStringLiteral("1")},
            {QStringLiteral("max_read_registers"), QStringLiteral("123")},
            {QStringLiteral("write_preset"), multiplePresets ? QStringLiteral("1") : QStringLiteral("0")},
            {QStringLiteral("endianness"), QString::fromLatin1(order.endianness)},
            {QStringLiteral("byte_order"), QString::fromLatin1(order.byteOrder)},
            {QStringLiteral("string_endianness"), QString::fromLatin1(order.endianness)},
            {QStringLiteral("string_byte_order"), QString::fromLatin1(order.byteOrder)}};
}

inline ItemInstancePlugin makeItem(int index, const QString& address, int type) {
    return plugin_test::makeItem(QStringLiteral("i%1").arg(index), address, kRegisterTypeAuto,
                                 QString::number(type), QStringLiteral("4"));
}

inline QString autoAddress(int address) {
    return QStringLiteral("%1").arg(address, 5, 10, QChar('0'));
}

// `count` items of one numeric type on neighbouring holding registers: 40001, 40003, ... for FLOAT.
inline std::vector<ItemInstancePlugin> holdingItems(int count, int type, int registersPerItem) {
    std::vector<ItemInstancePlugin> items;
    items.reserve(count);
    for (int i = 0; i < count; ++i)
        items.push_back(makeItem(i, autoAddress(kFirstHoldingRegister + i * registersPerItem), type));
    return items;
}

// `items` followed by the device's fifteen diagnostic items, which the poll writes without a request.
inline std::vector<ItemInstancePlugin> withDiagnostics(std::vector<ItemInstancePlugin> items) {
    const char* const kNames[] = {"requests",        "failed_requests", "timeouts",         "exceptions",
                                  "retries",         "connects",        "connect_failures", "response_ms",
                                  "response_ms_avg", "response_ms_max", "poll_ms",          "connected",
                                  "backoff_s",       "last_error",      "last_ok"};
    const int first = static_cast<int>(items.size());
    for (const char* name : kNames)
        items.push_back(plugin_test::makeItem(QStringLiteral("d%1").arg(items.size() - first),
                                              QStringLiteral("__diagnostics.") + QLatin1String(name),
                                              kRegisterTypeAuto, QString()));
    return items;
}

// Every value type on every table: a tenth of the items on coils, a tenth on discrete inputs, the rest split
// between input and holding registers cycling through the ten register layouts (BIT in a register, the eight
// numbers, and a string range).
inline std::vector<ItemInstancePlugin> mixedItems(int count) {
    struct Layout {
        int type;
        int registers;
    };
    static const Layout kLayouts[] = {{kTypeInt16, 1},  {kTypeUint16, 1}, {kTypeInt32, 2},
                                      {kTypeUint32, 2}, {kTypeFloat, 2},  {kTypeDouble, 4},
                                      {kTypeInt64, 4},  {kTypeUint64, 4}, {kTypeString, kStringRegisters},
                                      {kTypeBit, 1}};
    constexpr int kLayoutCount = sizeof(kLayouts) / sizeof(kLayouts[0]);
    std::vector<ItemInstancePlugin> items;
    items.reserve(count);
    const int bitItems = count / 10;
    for (int i = 0; i < bitItems; ++i)
        items.push_back(makeItem(items.size(), autoAddress(kFirstCoil + i), kTypeBit));
    for (int i = 0; i < bitItems; ++i)
        items.push_back(makeItem(items.size(), autoAddress(kFirstDiscreteInput + i), kTypeBit));
    int nextRegister[2] = {kFirstInputRegister, kFirstHoldingRegister};
    for (int i = 0; static_cast<int>(items.size()) < count; ++i) {
        const int table = i % 2;
        const Layout& layout = kLayouts[(i / 2) % kLayoutCount];
        const int address = nextRegister[table];
        QString text = autoAddress(address);
        if (layout.type == kTypeString)
            text += QStringLiteral("-") + autoAddress(address + layout.registers - 1);
        else if (layout.type == kTypeBit)
            text += QStringLiteral(".%1").arg(i % kBitsPerRegister);
        items.push_back(makeItem(items.size(), text, layout.type));
        nextRegister[table] += layout.registers;
    }
    return items;
}

// Non-zero words and alternating bits, so that decoding produces real digits, texts and both bit values.
inline void fillSimulator(modbus_sim::Simulator* simulator) {
    std::vector<uint16_t> words(kSimulatedWords);
    for (int i = 0; i < kSimulatedWords; ++i) words[i] = static_cast<uint16_t>(0x4142 + i * 7919);
    simulator->setHoldingRegisters(0, words);
    simulator->setInputRegisters(0, words);
    std::vector<uint8_t> bits(kSimulatedWords);
    for (int i = 0; i < kSimulatedWords; ++i) bits[i] = static_cast<uint8_t>(i % 3 == 0);
    simulator->setCoils(0, bits);
    simulator->setDiscreteInputs(0, bits);
}

inline std::unique_ptr<plugin_test::Batch> makeBatch(const DeviceInstancePlugin& device,
                                                     const std::vector<ItemInstancePlugin>& items) {
    auto batch = std::make_unique<plugin_test::Batch>(device);
    for (const ItemInstancePlugin& item : items) batch->add(item);
    return batch;
}

}  // namespace bench
