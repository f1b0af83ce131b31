// The RTU answer finder fed arbitrary streams for arbitrary requests: whatever it reports must hold of the
// bytes themselves. A found answer lies inside the stream, carries the unit and function code asked for (or
// its exception), is exactly as long as its function code and byte count say, and its CRC fits; bytes it
// calls discardable can begin no answer; and no prefix of the stream holds an answer the whole stream does
// not.

#include <cstddef>
#include <cstdint>

#include "connection/answer_length.h"
#include "connection/crc16.h"
#include "connection/rtu_framing.h"
#include "fuzz/fuzz_check.h"

namespace {

constexpr int kHeader = 3;  // unit, function code, byte count selector
constexpr int kExceptionFlag = 0x80;
constexpr int kMaxStream = 1024;

void checkFound(const unsigned char* data, int size, rtu_framing::Expectation const& expected,
                rtu_framing::Scan const& scan) {
    FUZZ_CHECK(scan.offset >= 0 && scan.length >= 5 && scan.offset + scan.length <= size);
    const unsigned char* frame = data + scan.offset;
    FUZZ_CHECK(frame[0] == expected.unit);
    FUZZ_CHECK(frame[1] == expected.function || frame[1] == (expected.function | kExceptionFlag));
    int pduLength = 0;
    FUZZ_CHECK(answer_length::answerPduLength(frame + 1, scan.length - 3, &pduLength) ==
               answer_length::Sizing::Known);
    FUZZ_CHECK(pduLength == scan.length - 3);
    if (expected.byteCount >= 0 && !(frame[1] & kExceptionFlag)) FUZZ_CHECK(frame[2] == expected.byteCount);
    const uint16_t crc = modbus_crc::crc16(frame, static_cast<size_t>(scan.length - 2));
    FUZZ_CHECK(frame[scan.length - 2] == (crc & 0xFF) && frame[scan.length - 1] == (crc >> 8));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    if (size < kHeader) return 0;
    rtu_framing::Expectation expected;
    expected.unit = input[0];
    expected.function = input[1] & ~kExceptionFlag;
    expected.byteCount = input[2] == 0xFF ? -1 : input[2];
    const unsigned char* data = input + kHeader;
    const int length = static_cast<int>(size - kHeader > kMaxStream ? kMaxStream : size - kHeader);

    const rtu_framing::Scan whole = rtu_framing::findAnswer(data, length, expected);
    FUZZ_CHECK(whole.discardable >= 0 && whole.discardable <= length);
    if (whole.status == rtu_framing::Scan::Found) checkFound(data, length, expected, whole);
    if (whole.status == rtu_framing::Scan::Nothing) FUZZ_CHECK(whole.discardable == length);
    if (whole.status == rtu_framing::Scan::NeedMore) FUZZ_CHECK(whole.discardable < length);
    // What the bytes before `discardable` say can never become an answer: the rest alone finds the same.
    if (whole.status != rtu_framing::Scan::Found) {
        const rtu_framing::Scan rest =
            rtu_framing::findAnswer(data + whole.discardable, length - whole.discardable, expected);
        FUZZ_CHECK(rest.status == whole.status);
    }
    for (int prefix = 0; prefix < length; prefix += 7) {
        const rtu_framing::Scan part = rtu_framing::findAnswer(data, prefix, expected);
        if (part.status == rtu_framing::Scan::Found) {
            checkFound(data, prefix, expected, part);
            FUZZ_CHECK(whole.status == rtu_framing::Scan::Found && whole.offset <= part.offset);
        }
    }

    int pduLength = 0;
    const answer_length::Sizing sizing = answer_length::answerPduLength(data, length, &pduLength);
    if (sizing == answer_length::Sizing::Known) FUZZ_CHECK(pduLength >= 1 && pduLength <= 253);
    if (sizing == answer_length::Sizing::NeedMore) FUZZ_CHECK(pduLength > length);
    return 0;
}
