#pragma once
// The layout every Modbus frame shares: 16-bit fields sent high byte first, and the few PDU sizes the
// requests of this driver are built from. One definition for the framing, the confirmation checks and the
// requests.

namespace pdu_words {

constexpr int kBitsPerByte = 8;
constexpr int kByteMask = 0xFF;
constexpr int kReadRequestPdu = 5;   // function code, address, quantity
constexpr int kReadReplyHeader = 2;  // function code, byte count

inline void putWord(unsigned char* at, int value) {
    at[0] = static_cast<unsigned char>((value >> kBitsPerByte) & kByteMask);
    at[1] = static_cast<unsigned char>(value & kByteMask);
}

inline int wordAt(const unsigned char* at) {
    return (at[0] << kBitsPerByte) | at[1];
}

}  // namespace pdu_words
