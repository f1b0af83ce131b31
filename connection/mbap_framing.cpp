#include "connection/mbap_framing.h"

#include <cstring>

#include "connection/pdu_words.h"

namespace mbap_framing {

namespace {

constexpr int kLengthFieldOffset = 4;
constexpr int kProtocolIdOffset = 2;
constexpr int kUnitOffset = 6;
// An answer numbered up to this many requests before the one awaited is a late answer to a request that timed
// out; anything else with a wrong number is a bad frame.
constexpr int kLateAnswerWindow = 1024;
constexpr int kTransactionIdSpace = 65536;

using pdu_words::putWord;
using pdu_words::wordAt;

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

bool answersAnEarlierRequest(unsigned short id, unsigned short awaited) {
    const int behind = (awaited - id + kTransactionIdSpace) % kTransactionIdSpace;
    return behind > 0 && behind <= kLateAnswerWindow;
}

bool protocolIdRefused(const unsigned char* frame) {
    return frame[kProtocolIdOffset] != 0 && frame[kProtocolIdOffset + 1] != 0;
}

}  // namespace mbap_framing
