// MBAP framing, request description and fault selection of the simulator.

#include <algorithm>

#include "tools/sim/sim_protocol.h"

namespace modbus_sim {

namespace {

constexpr uint16_t kWrongProtocolId = 1;
// The length field of a header-only answer: the unit id alone, no PDU.
constexpr uint16_t kHeaderOnlyLength = 1;

// PDU offsets of the fields that most requests share: function (0), address (1..2), quantity (3..4).
constexpr int kPduAddressOffset = 1;
constexpr int kPduQuantityOffset = 3;
constexpr int kPduWithAddressLength = 3;
constexpr int kPduWithQuantityLength = 5;

bool hasAddressAndQuantity(int function) {
    switch (function) {
        case kFunctionReadCoils:
        case kFunctionReadDiscreteInputs:
        case kFunctionReadHoldingRegisters:
        case kFunctionReadInputRegisters:
        case kFunctionWriteMultipleCoils:
        case kFunctionWriteMultipleRegisters:
        case kFunctionReadWriteRegisters:  // the read part comes first
            return true;
        default:
            return false;
    }
}

bool hasAddressOnly(int function) {
    return function == kFunctionWriteSingleCoil || function == kFunctionWriteSingleRegister ||
           function == kFunctionMaskWriteRegister;
}

}  // namespace

uint16_t readBigEndian16(const QByteArray& bytes, int offset) {
    return static_cast<uint16_t>((static_cast<uint8_t>(bytes.at(offset)) << 8) |
                                 static_cast<uint8_t>(bytes.at(offset + 1)));
}

void writeBigEndian16(QByteArray* bytes, int offset, uint16_t value) {
    (*bytes)[offset] = static_cast<char>(value >> 8);
    (*bytes)[offset + 1] = static_cast<char>(value & 0xFF);
}

QByteArray wrapAnswer(const QByteArray& request, const QByteArray& pdu) {
    QByteArray answer = request.left(kMbapHeaderLength);
    answer.resize(kMbapHeaderLength);
    writeBigEndian16(&answer, kMbapProtocolIdOffset, 0);
    writeBigEndian16(&answer, kMbapLengthFieldOffset, static_cast<uint16_t>(pdu.size() + 1));
    answer.append(pdu);
    return answer;
}

QByteArray exceptionAnswer(const QByteArray& request, int function, int exceptionCode) {
    QByteArray pdu;
    pdu.append(static_cast<char>((function | kExceptionFlag) & 0xFF));
    pdu.append(static_cast<char>(exceptionCode & 0xFF));
    return wrapAnswer(request, pdu);
}

RequestRecord describeRequest(const QByteArray& request) {
    RequestRecord record;
    if (request.size() > kMbapUnitIdOffset) record.unit = static_cast<uint8_t>(request.at(kMbapUnitIdOffset));
    if (request.size() >= kMbapTransactionIdLength) record.transactionId = readBigEndian16(request, 0);
    record.pdu = request.mid(kMbapHeaderLength);
    if (record.pdu.isEmpty()) {
        record.function = -1;
        return record;
    }
    record.function = static_cast<uint8_t>(record.pdu.at(0));
    if (hasAddressAndQuantity(record.function) && record.pdu.size() >= kPduWithQuantityLength) {
        record.address = readBigEndian16(record.pdu, kPduAddressOffset);
        record.count = readBigEndian16(record.pdu, kPduQuantityOffset);
    } else if (hasAddressOnly(record.function) && record.pdu.size() >= kPduWithAddressLength) {
        record.address = readBigEndian16(record.pdu, kPduAddressOffset);
    }
    return record;
}

bool faultMatches(const FaultRule& rule, const RequestRecord& request) {
    if (rule.unit >= 0 && rule.unit != request.unit) return false;
    if (rule.function >= 0 && rule.function != request.function) return false;
    if (rule.address >= 0) {
        if (request.address < 0) return false;
        const int count = std::max(request.count, 1);
        if (rule.address < request.address || rule.address >= request.address + count) return false;
    }
    return true;
}

QByteArray alterAnswer(const FaultRule& rule, const QByteArray& answer) {
    if (answer.size() < kMbapHeaderLength) return answer;
    QByteArray altered = answer;
    switch (rule.kind) {
        case FaultKind::WrongTransactionId:
            writeBigEndian16(&altered, 0, static_cast<uint16_t>(readBigEndian16(answer, 0) + 1));
            break;
        case FaultKind::WrongLength:
            writeBigEndian16(&altered, kMbapLengthFieldOffset, static_cast<uint16_t>(rule.lengthField));
            break;
        case FaultKind::WrongProtocolId:
            writeBigEndian16(&altered, kMbapProtocolIdOffset, kWrongProtocolId);
            break;
        case FaultKind::TrailingGarbage:
            altered.append(rule.garbage);
            break;
        case FaultKind::HeaderOnly:
            altered.truncate(kMbapHeaderLength);
            writeBigEndian16(&altered, kMbapLengthFieldOffset, kHeaderOnlyLength);
            break;
        default:
            break;
    }
    return altered;
}

}  // namespace modbus_sim
