#pragma once
// CRC-16/MODBUS, the check of every RTU frame: preset 0xFFFF, polynomial 0x8005 reflected, sent low byte
// first. Header-only, so that the simulator, discovery and the connection share one definition. A table of
// the 256 byte steps, built at compile time, makes it a lookup per byte instead of eight shifts.

#include <array>
#include <cstddef>
#include <cstdint>

namespace modbus_crc {

constexpr uint16_t kPreset = 0xFFFF;
constexpr uint16_t kReflectedPolynomial = 0xA001;
constexpr int kBitsPerByte = 8;
constexpr int kByteValues = 256;
constexpr uint16_t kLowByte = 0xFF;

constexpr std::array<uint16_t, kByteValues> makeTable() {
    std::array<uint16_t, kByteValues> table{};
    for (int value = 0; value < kByteValues; ++value) {
        uint16_t crc = static_cast<uint16_t>(value);
        for (int bit = 0; bit < kBitsPerByte; ++bit)
            crc = (crc & 1U) ? static_cast<uint16_t>((crc >> 1) ^ kReflectedPolynomial)
                             : static_cast<uint16_t>(crc >> 1);
        table[static_cast<size_t>(value)] = crc;
    }
    return table;
}

constexpr std::array<uint16_t, kByteValues> kTable = makeTable();

inline uint16_t crc16(const unsigned char* data, size_t size) {
    uint16_t crc = kPreset;
    for (size_t i = 0; i < size; ++i)
        crc = static_cast<uint16_t>((crc >> kBitsPerByte) ^ kTable[(crc ^ data[i]) & kLowByte]);
    return crc;
}

}  // namespace modbus_crc
