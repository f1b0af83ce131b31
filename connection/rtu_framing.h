#pragma once
// RTU frames on a byte stream: unit id, PDU, CRC-16 low byte first, with nothing that says where a frame
// starts or ends. An answer is found by looking, position by position, for bytes where the unit id, the
// function code, the length and the CRC all fit the request just sent; whatever else is on the stream (a
// converter's heartbeat, garbage, a late answer, another unit's answer) is passed over.

namespace rtu_framing {

constexpr int kUnitLength = 1;
constexpr int kCrcLength = 2;
constexpr int kOverhead = kUnitLength + kCrcLength;
constexpr int kMaxFrameLength = 256;  // unit id, a PDU of 253 bytes, CRC
// The broadcast unit: every device carries out a write to it, none answers.
constexpr int kBroadcastUnit = 0;
// The highest unit id a serial device may have.
constexpr int kMaxUnit = 247;

// `pdu` framed for `unit` into `out` (room for kMaxFrameLength); the frame's length, or -1 for a PDU that
// does not fit.
int buildRequest(int unit, const unsigned char* pdu, int length, unsigned char* out);

// What answers the request: its unit and function code, and for a read the byte count its answer must carry
// (-1: any).
struct Expectation {
    int unit = 1;
    int function = 0;
    int byteCount = -1;
};

struct Scan {
    enum Status {
        Found,     // an answer is at `offset`, `length` bytes with its unit id and CRC
        NeedMore,  // a beginning of an answer is there; more bytes may complete it
        Nothing,   // no byte here can begin the answer
    };
    Status status = Nothing;
    int offset = 0;
    int length = 0;
    // Bytes at the front that can begin no answer any more: they may be dropped.
    int discardable = 0;
    // A frame of the right unit, function and length was there, but its CRC did not fit.
    bool crcMismatch = false;
};

Scan findAnswer(const unsigned char* data, int size, Expectation const& expected);

}  // namespace rtu_framing
