#include "discovery/rtu_answer.h"

#include "discovery/constants.h"
#include "discovery/frames.h"

namespace ModbusDiscovery {

namespace {

constexpr quint8 kExceptionBit = 0x80;
constexpr int kRtuCrcSize = 2;
// Unit id, function code and exception code.
constexpr int kExceptionBodySize = 3;
// Unit id, function code and byte count of the answers that announce their data size in one byte.
constexpr int kByteCountHeaderSize = 3;
// Unit id, function code, MEI type, read code, conformity, more follows, next object id, object count.
constexpr int kDeviceIdHeaderSize = 8;
constexpr int kDeviceIdMeiOffset = 2;
constexpr int kDeviceIdCountOffset = 7;
// Each device identification object: id and length before its value.
constexpr int kObjectHeaderSize = 2;
constexpr quint8 kFcReadDiscreteInputs = 2;
constexpr quint8 kFcReadInputRegisters = 4;
// Frame size not known until more bytes arrive.
constexpr int kSizeUnknownYet = 0;
// No frame of the expected kind starts here.
constexpr int kNoFrame = -1;

quint8 byteAt(const QByteArray& bytes, int index) {
    return static_cast<quint8>(bytes.at(index));
}

int deviceIdFrameSize(const QByteArray& stream, int offset) {
    const int available = stream.size() - offset;
    if (available <= kDeviceIdMeiOffset) {
        return kSizeUnknownYet;
    }
    if (byteAt(stream, offset + kDeviceIdMeiOffset) != kMeiDeviceId) {
        return kNoFrame;
    }
    if (available < kDeviceIdHeaderSize) {
        return kSizeUnknownYet;
    }
    const int count = byteAt(stream, offset + kDeviceIdCountOffset);
    int size = kDeviceIdHeaderSize;
    for (int object = 0; object < count; ++object) {
        if (available < size + kObjectHeaderSize) {
            return kSizeUnknownYet;
        }
        size += kObjectHeaderSize + byteAt(stream, offset + size + 1);
        if (size + kRtuCrcSize > kRtuMaxFrameSize) {
            return kNoFrame;
        }
    }
    return size + kRtuCrcSize;
}

// The size the frame starting at `offset` announces for itself, kSizeUnknownYet or kNoFrame.
int announcedFrameSize(const QByteArray& stream, int offset, quint8 functionCode) {
    const quint8 function = byteAt(stream, offset + 1);
    if (function == (functionCode | kExceptionBit)) {
        return kExceptionBodySize + kRtuCrcSize;
    }
    if (function != functionCode) {
        return kNoFrame;
    }
    switch (functionCode) {
        case kFcReadCoils:
        case kFcReadDiscreteInputs:
        case kFcReadHolding:
        case kFcReadInputRegisters:
        case kFcReportSlaveId: {
            if (stream.size() - offset < kByteCountHeaderSize) {
                return kSizeUnknownYet;
            }
            const int size = kByteCountHeaderSize + byteAt(stream, offset + 2) + kRtuCrcSize;
            return size > kRtuMaxFrameSize ? kNoFrame : size;
        }
        case kFcMei:
            return deviceIdFrameSize(stream, offset);
        default:
            return kNoFrame;
    }
}

}  // namespace

bool findRtuAnswer(const QByteArray& stream, quint8 unitId, quint8 functionCode, QByteArray* pdu) {
    // A frame that is still incomplete does not end the search: what looked like its start may be noise
    // with a whole answer behind it.
    for (int offset = 0; offset + 1 < stream.size(); ++offset) {
        if (byteAt(stream, offset) != unitId) {
            continue;
        }
        const int size = announcedFrameSize(stream, offset, functionCode);
        if (size <= 0 || offset + size > stream.size()) {
            continue;
        }
        unsigned char answerUnit = 0;
        QByteArray answerPdu;
        if (parseRtu(stream.mid(offset, size), &answerUnit, &answerPdu) && answerUnit == unitId) {
            if (pdu) {
                *pdu = answerPdu;
            }
            return true;
        }
    }
    return false;
}

}  // namespace ModbusDiscovery
