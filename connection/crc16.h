#pragma once
// CRC-16/MODBUS, the check of every RTU frame: preset 0xFFFF, polynomial 0x8005 reflected, sent low byte
// first. Header-only, so that the simulator, discovery and the connection share one definition.

#include <cstddef>
#include <cstdint>

namespace modbus_crc {

constexpr uint16_t kPreset = 0xFFFF;
constexpr uint16_t kReflectedPolynomial = 0xA001;
constexpr int kBitsPerByte = 8;

inline uint16_t crc16(const unsigned char* data, size_t size) {
    uint16_t crc = kPreset;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < kBitsPerByte; ++bit)
            crc = (crc & 1U) ? static_cast<uint16_t>((crc >> 1) ^ kReflectedPolynomial)
                             : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

}  // namespace modbus_crc
