#include "connection/answer_length.h"

#include <modbus.h>

namespace answer_length {

namespace {

constexpr int kExceptionFlag = 0x80;
constexpr int kExceptionPdu = 2;       // function code with the flag, exception code
constexpr int kByteCountedHeader = 2;  // function code, byte count
constexpr int kWriteEchoPdu = 5;       // function code, address, value or quantity
constexpr int kMaskWriteEchoPdu = 7;   // function code, address, AND mask, OR mask
constexpr int kMaxPduLength = 253;     // the 256-byte serial ADU without unit id and CRC
constexpr int kEncapsulatedInterface = 0x2B;
constexpr int kMeiReadDeviceId = 0x0E;
// Function code, MEI type, read code, conformity level, more follows, next object id, number of objects.
constexpr int kDeviceIdHeader = 7;
constexpr int kObjectCountOffset = 6;
constexpr int kObjectHeader = 2;  // object id, object length
constexpr int kMeiTypeOffset = 1;

Sizing need(int bytes, int* length) {
    *length = bytes;
    return Sizing::NeedMore;
}

Sizing known(int bytes, int* length) {
    if (bytes > kMaxPduLength) return Sizing::Unknown;
    *length = bytes;
    return Sizing::Known;
}

Sizing deviceIdentificationLength(const unsigned char* pdu, int available, int* length) {
    if (available < kMeiTypeOffset + 1) return need(kMeiTypeOffset + 1, length);
    if (pdu[kMeiTypeOffset] != kMeiReadDeviceId) return Sizing::Unknown;
    if (available < kDeviceIdHeader) return need(kDeviceIdHeader, length);
    int end = kDeviceIdHeader;
    for (int object = 0; object < pdu[kObjectCountOffset]; ++object) {
        if (end + kObjectHeader > kMaxPduLength) return Sizing::Unknown;
        if (available < end + kObjectHeader) return need(end + kObjectHeader, length);
        end += kObjectHeader + pdu[end + 1];
    }
    return known(end, length);
}

}  // namespace

Sizing answerPduLength(const unsigned char* pdu, int available, int* length) {
    if (available < 1) return need(1, length);
    const int function = pdu[0];
    if (function & kExceptionFlag) return known(kExceptionPdu, length);
    switch (function) {
        case MODBUS_FC_READ_COILS:
        case MODBUS_FC_READ_DISCRETE_INPUTS:
        case MODBUS_FC_READ_HOLDING_REGISTERS:
        case MODBUS_FC_READ_INPUT_REGISTERS:
        case MODBUS_FC_REPORT_SLAVE_ID:
        case MODBUS_FC_WRITE_AND_READ_REGISTERS:
            if (available < kByteCountedHeader) return need(kByteCountedHeader, length);
            return known(kByteCountedHeader + pdu[1], length);
        case MODBUS_FC_WRITE_SINGLE_COIL:
        case MODBUS_FC_WRITE_SINGLE_REGISTER:
        case MODBUS_FC_WRITE_MULTIPLE_COILS:
        case MODBUS_FC_WRITE_MULTIPLE_REGISTERS:
            return known(kWriteEchoPdu, length);
        case MODBUS_FC_MASK_WRITE_REGISTER:
            return known(kMaskWriteEchoPdu, length);
        case kEncapsulatedInterface:  // only Read Device Identification is ever asked for
            return deviceIdentificationLength(pdu, available, length);
        default:
            return Sizing::Unknown;
    }
}

}  // namespace answer_length
