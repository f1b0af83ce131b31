#include "connection/mbap_framing.h"

#include <cstring>

namespace mbap_framing {

namespace {

constexpr int kLengthFieldOffset = 4;
constexpr int kProtocolIdOffset = 2;
constexpr int kUnitOffset = 6;
constexpr int kByteMask = 0xFF;

void putWord(unsigned char* at, int value) {
    at[0] = static_cast<unsigned char>((value >> 8) & kByteMask);
    at[1] = static_cast<unsigned char>(value & kByteMask);
}

int wordAt(const unsigned char* at) {
    return (at[0] << 8) | at[1];
}

}  // namespace

int buildRequest(unsigned short transactionId, int unit, const unsigned char* pdu, int length,
                 unsigned char* out) {
    putWord(out, transactionId);
    putWord(out + kProtocolIdOffset, 0);  // Modbus
    putWord(out + kLengthFieldOffset, length + 1);
    out[kUnitOffset] = static_cast<unsigned char>(unit);
    std::memcpy(out + kHeaderLength, pdu, static_cast<size_t>(length));
    return kHeaderLength + length;
}

unsigned short transactionId(const unsigned char* frame) {
    return static_cast<unsigned short>(wordAt(frame));
}

int lengthField(const unsigned char* frame) {
    return wordAt(frame + kLengthFieldOffset);
}

bool protocolIdRefused(const unsigned char* frame) {
    return frame[kProtocolIdOffset] != 0 && frame[kProtocolIdOffset + 1] != 0;
}

}  // namespace mbap_framing
