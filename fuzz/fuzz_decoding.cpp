// Decoding of arbitrary register and coil blocks for arbitrary item settings through Modbus::extract, in
// every combination of word and byte orders.

#include <fuzzer/FuzzedDataProvider.h>

#include <QString>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "host/records.h"
#include "plugin/modbus.h"

namespace {

// A poll reads at most this many registers at once; blocks up to twice that also cover the walk's bounds.
constexpr size_t kMaxBlockWords = 2 * Connection::max_read_registers;
constexpr int kMaxItems = 6;

QString textOf(const std::string& text) {
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

// Settings come either as short arbitrary texts or as numbers, so that most items land inside the block.
QString settingText(FuzzedDataProvider& input, int low, int high) {
    if (input.ConsumeBool()) return textOf(input.ConsumeRandomLengthString(16));
    return QString::number(input.ConsumeIntegralInRange<int>(low, high));
}

constexpr int kLowestType = -1;
constexpr int kHighestType = 16;
constexpr int kRegisterTypes = 5;
constexpr int kLargestAddress = 70000;
constexpr int kLargestPrecision = 1100;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Modbus plugin;
    FuzzedDataProvider input(data, size);

    const int itemCount = input.ConsumeIntegralInRange<int>(0, kMaxItems);
    std::vector<std::unique_ptr<DataItem>> owned;
    std::vector<DataItem*> items;
    for (int i = 0; i < itemCount; ++i) {
        ItemInstancePlugin item;
        item.uid = QStringLiteral("uid_%1").arg(i);
        item.name = QStringLiteral("item%1").arg(i);
        item.deviceId = 1;
        item.settings[QStringLiteral("register")] = settingText(input, 0, kLargestAddress);
        item.settings[QStringLiteral("register_type")] = settingText(input, 0, kRegisterTypes);
        item.settings[QStringLiteral("type")] = settingText(input, kLowestType, kHighestType);
        if (input.ConsumeBool()) {
            item.settings[QStringLiteral("floating_point_precision")] =
                settingText(input, -kLargestPrecision, kLargestPrecision);
        }
        owned.push_back(std::make_unique<DataItem>(item));
        items.push_back(owned.back().get());
    }
    const int start = input.ConsumeIntegralInRange<int>(-2, kLargestAddress);
    const bool littleEndian = input.ConsumeBool();
    const bool byteSwapped = input.ConsumeBool();
    const bool stringLittleEndian = input.ConsumeBool();
    const bool stringByteSwapped = input.ConsumeBool();

    const std::string block = input.ConsumeRemainingBytesAsString();
    std::vector<unsigned short> words;
    std::vector<unsigned char> bits;
    for (size_t i = 0; i + 1 < block.size() && words.size() < kMaxBlockWords; i += 2) {
        words.push_back(static_cast<unsigned short>((static_cast<unsigned char>(block[i]) << 8) |
                                                    static_cast<unsigned char>(block[i + 1])));
    }
    for (size_t i = 0; i < block.size() && bits.size() < kMaxBlockWords; ++i) {
        bits.push_back(static_cast<unsigned char>(block[i]) & 1U);
    }

    const auto afterWords = plugin.extract(items.begin(), items.end(), start, words, littleEndian,
                                           byteSwapped, stringLittleEndian, stringByteSwapped);
    FUZZ_CHECK(afterWords >= items.begin() && afterWords <= items.end());
    const auto afterBits = plugin.extract(items.begin(), items.end(), start, bits);
    FUZZ_CHECK(afterBits >= items.begin() && afterBits <= items.end());
    return 0;
}
