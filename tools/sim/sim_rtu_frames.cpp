// RTU over TCP framing: request lengths by function code, the CRC, and the MBAP conversion.

#include "connection/crc16.h"
#include "tools/sim/sim_protocol.h"
#include "tools/sim/sim_rtu.h"

namespace modbus_sim {

namespace {

constexpr int kUnitLength = 1;
constexpr int kFunctionOffset = 1;
// Requests with only a function code: unit, function, CRC (FC 7, 11, 12, 17).
constexpr int kBareRequestLength = kUnitLength + 1 + kRtuCrcLength;
// Address (or sub-function) and quantity (or value): unit, function, 2 + 2, CRC (FC 1-6, 8).
constexpr int kFixedRequestLength = kUnitLength + 1 + 4 + kRtuCrcLength;
// FC 24: unit, function, FIFO address, CRC.
constexpr int kFifoRequestLength = kUnitLength + 1 + 2 + kRtuCrcLength;
// FC 22: unit, function, address, AND mask, OR mask, CRC.
constexpr int kMaskWriteRequestLength = kUnitLength + 1 + 6 + kRtuCrcLength;
// FC 43 / MEI 14: unit, 2B, 0E, read code, object id, CRC.
constexpr int kIdentificationRequestLength = kUnitLength + 1 + 3 + kRtuCrcLength;
// Where the byte count sits in the frame of the requests that carry data: FC 15/16 after address and
// quantity, FC 23 after both address-quantity pairs, FC 20/21 right after the function code.
constexpr int kWriteMultipleByteCountOffset = 6;
constexpr int kReadWriteByteCountOffset = 10;
constexpr int kFileRecordByteCountOffset = 2;

constexpr int kFunctionReadExceptionStatus = 0x07;
constexpr int kFunctionDiagnostics = 0x08;
constexpr int kFunctionGetCommEventCounter = 0x0B;
constexpr int kFunctionGetCommEventLog = 0x0C;
constexpr int kFunctionReadFileRecord = 0x14;
constexpr int kFunctionWriteFileRecord = 0x15;
constexpr int kFunctionReadFifoQueue = 0x18;

constexpr uint8_t kInvertByte = 0xFF;

// A frame whose length is its header plus a byte count found at `offset`, plus the CRC.
int withByteCount(const QByteArray& bytes, int offset) {
    if (bytes.size() <= offset) return 0;
    return offset + 1 + static_cast<uint8_t>(bytes.at(offset)) + kRtuCrcLength;
}

int lengthByFunction(const QByteArray& bytes, int function) {
    switch (function) {
        case kFunctionReadCoils:
        case kFunctionReadDiscreteInputs:
        case kFunctionReadHoldingRegisters:
        case kFunctionReadInputRegisters:
        case kFunctionWriteSingleCoil:
        case kFunctionWriteSingleRegister:
        case kFunctionDiagnostics:
            return kFixedRequestLength;
        case kFunctionReadExceptionStatus:
        case kFunctionGetCommEventCounter:
        case kFunctionGetCommEventLog:
        case kFunctionReportSlaveId:
            return kBareRequestLength;
        case kFunctionReadFifoQueue:
            return kFifoRequestLength;
        case kFunctionMaskWriteRegister:
            return kMaskWriteRequestLength;
        case kFunctionEncapsulatedInterface:
            return kIdentificationRequestLength;
        case kFunctionWriteMultipleCoils:
        case kFunctionWriteMultipleRegisters:
            return withByteCount(bytes, kWriteMultipleByteCountOffset);
        case kFunctionReadWriteRegisters:
            return withByteCount(bytes, kReadWriteByteCountOffset);
        case kFunctionReadFileRecord:
        case kFunctionWriteFileRecord:
            return withByteCount(bytes, kFileRecordByteCountOffset);
        default:
            return -1;
    }
}

}  // namespace

int rtuRequestLength(const QByteArray& bytes) {
    if (bytes.size() <= kFunctionOffset) return 0;
    const int length = lengthByFunction(bytes, static_cast<uint8_t>(bytes.at(kFunctionOffset)));
    return length > kMaxRtuFrameLength ? -1 : length;
}

bool rtuCrcValid(const QByteArray& frame) {
    if (frame.size() < kUnitLength + kRtuCrcLength) return false;
    const int body = frame.size() - kRtuCrcLength;
    const uint16_t crc = modbus_crc::crc16(reinterpret_cast<const unsigned char*>(frame.constData()), body);
    return static_cast<uint8_t>(frame.at(body)) == (crc & 0xFF) &&
           static_cast<uint8_t>(frame.at(body + 1)) == (crc >> 8);
}

QByteArray mbapFromRtu(const QByteArray& frame) {
    const QByteArray pdu = frame.mid(kUnitLength, frame.size() - kUnitLength - kRtuCrcLength);
    QByteArray request(kMbapHeaderLength, '\0');
    writeBigEndian16(&request, kMbapLengthFieldOffset, static_cast<uint16_t>(kUnitLength + pdu.size()));
    request[kMbapUnitIdOffset] = frame.at(0);
    request.append(pdu);
    return request;
}

QByteArray rtuFromMbap(const QByteArray& answer) {
    QByteArray frame = answer.mid(kMbapUnitIdOffset);
    const uint16_t crc =
        modbus_crc::crc16(reinterpret_cast<const unsigned char*>(frame.constData()), frame.size());
    frame.append(static_cast<char>(crc & 0xFF));
    frame.append(static_cast<char>(crc >> 8));
    return frame;
}

QByteArray alterRtuAnswer(const FaultRule& rule, const QByteArray& answer) {
    if (answer.isEmpty()) return answer;
    QByteArray altered = answer;
    switch (rule.kind) {
        case FaultKind::BadCrc:
            altered[altered.size() - 1] =
                static_cast<char>(static_cast<uint8_t>(answer.at(answer.size() - 1)) ^ kInvertByte);
            break;
        case FaultKind::TrailingGarbage:
            altered.append(rule.garbage);
            break;
        case FaultKind::HeaderOnly:
            // The serial counterpart of an MBAP header without a PDU: the unit id alone.
            altered.truncate(kUnitLength);
            break;
        default:
            break;
    }
    return altered;
}

}  // namespace modbus_sim
