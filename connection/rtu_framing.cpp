#include "connection/rtu_framing.h"

#include <cstring>

#include "connection/answer_length.h"
#include "connection/crc16.h"
#include "connection/pdu_words.h"

namespace rtu_framing {

namespace {

constexpr int kExceptionFlag = 0x80;
constexpr int kByteCountOffset = 2;  // in the frame: unit id, function code, byte count
using pdu_words::kBitsPerByte;
using pdu_words::kByteMask;

bool crcFits(const unsigned char* frame, int length) {
    const int crc = modbus_crc::crc16(frame, static_cast<size_t>(length - kCrcLength));
    return frame[length - 2] == (crc & kByteMask) && frame[length - 1] == (crc >> kBitsPerByte);
}

}  // namespace

int buildRequest(int unit, const unsigned char* pdu, int length, unsigned char* out) {
    if (length < 1 || length + kOverhead > kMaxFrameLength) return -1;
    out[0] = static_cast<unsigned char>(unit);
    std::memcpy(out + kUnitLength, pdu, static_cast<size_t>(length));
    const int crc = modbus_crc::crc16(out, static_cast<size_t>(kUnitLength + length));
    out[kUnitLength + length] = static_cast<unsigned char>(crc & kByteMask);
    out[kUnitLength + length + 1] = static_cast<unsigned char>(crc >> kBitsPerByte);
    return length + kOverhead;
}

Scan findAnswer(const unsigned char* data, int size, Expectation const& expected) {
    Scan scan;
    scan.discardable = size;
    bool partial = false;
    for (int start = 0; start < size; ++start) {
        if (data[start] != expected.unit) continue;
        const int available = size - start;
        if (available < kUnitLength + 1) {
            // A lone unit id at the end may begin the answer.
            if (!partial) scan.discardable = start;
            partial = true;
            break;
        }
        const int function = data[start + 1];
        const bool exception = function == (expected.function | kExceptionFlag);
        if (function != expected.function && !exception) continue;
        int pduLength = 0;
        const answer_length::Sizing sizing =
            answer_length::answerPduLength(data + start + kUnitLength, available - kUnitLength, &pduLength);
        if (sizing == answer_length::Sizing::Unknown) continue;
        // A read's answer must carry the byte count of the quantity asked for; one that has not arrived yet
        // leaves the candidate open.
        const bool countExpected = !exception && expected.byteCount >= 0;
        const bool countArrived = available > kByteCountOffset;
        if (sizing == answer_length::Sizing::Known && countExpected && countArrived &&
            data[start + kByteCountOffset] != expected.byteCount)
            continue;
        const int frameLength = pduLength + kOverhead;
        if (sizing == answer_length::Sizing::NeedMore || available < frameLength ||
            (countExpected && !countArrived)) {
            if (!partial) scan.discardable = start;
            partial = true;
            continue;
        }
        if (!crcFits(data + start, frameLength)) {
            scan.crcMismatch = true;
            continue;
        }
        scan.status = Scan::Found;
        scan.offset = start;
        scan.length = frameLength;
        return scan;
    }
    scan.status = partial ? Scan::NeedMore : Scan::Nothing;
    return scan;
}

}  // namespace rtu_framing
