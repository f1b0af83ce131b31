#pragma once
// Protocol constants and pure helpers of the simulator: MBAP framing, exception answers, request records,
// fault selection and the answers built here rather than by libmodbus (FC 43 / MEI 14 and FC 17).

#include <QByteArray>
#include <cstdint>

#include "tools/sim/simulator.h"

namespace modbus_sim {

// MBAP header: transaction id (2), protocol id (2), length (2), unit id (1). The length field counts the unit
// id and the PDU.
constexpr int kMbapHeaderLength = 7;
constexpr int kMbapTransactionIdLength = 2;
constexpr int kMbapProtocolIdOffset = 2;
constexpr int kMbapLengthFieldOffset = 4;
constexpr int kMbapUnitIdOffset = 6;
// Modbus Application Protocol 1.1b3, 4.1: a PDU is at most 253 bytes (256-byte serial ADU minus address and
// CRC); the TCP ADU adds the 7-byte MBAP header, so 260 bytes.
constexpr int kMaxPduLength = 253;
constexpr int kMaxAduLength = kMbapHeaderLength + kMaxPduLength;
constexpr int kTableSize = 65536;
constexpr int kMaxUnitId = 255;

constexpr int kFunctionReadCoils = 0x01;
constexpr int kFunctionReadDiscreteInputs = 0x02;
constexpr int kFunctionReadHoldingRegisters = 0x03;
constexpr int kFunctionReadInputRegisters = 0x04;
constexpr int kFunctionWriteSingleCoil = 0x05;
constexpr int kFunctionWriteSingleRegister = 0x06;
constexpr int kFunctionWriteMultipleCoils = 0x0F;
constexpr int kFunctionWriteMultipleRegisters = 0x10;
constexpr int kFunctionReportSlaveId = 0x11;
constexpr int kFunctionMaskWriteRegister = 0x16;
constexpr int kFunctionReadWriteRegisters = 0x17;
constexpr int kFunctionEncapsulatedInterface = 0x2B;
constexpr int kMeiReadDeviceIdentification = 0x0E;

constexpr int kExceptionFlag = 0x80;
constexpr int kExceptionIllegalFunction = 0x01;
constexpr int kExceptionIllegalDataAddress = 0x02;
constexpr int kExceptionIllegalDataValue = 0x03;
constexpr int kExceptionServerDeviceBusy = 0x06;
constexpr int kExceptionGatewayTargetFailed = 0x0B;

uint16_t readBigEndian16(const QByteArray& bytes, int offset);
void writeBigEndian16(QByteArray* bytes, int offset, uint16_t value);

// A whole ADU answering `request` (an ADU) with `pdu`: same transaction id and unit id.
QByteArray wrapAnswer(const QByteArray& request, const QByteArray& pdu);
// Exception answer: function | 0x80, exception code.
QByteArray exceptionAnswer(const QByteArray& request, int function, int exceptionCode);

// Unit, function, address, count and PDU of a request ADU; address and count only where the function has
// them.
RequestRecord describeRequest(const QByteArray& request);

// Whether a fault rule's selectors all match the request.
bool faultMatches(const FaultRule& rule, const RequestRecord& request);

// Answer bytes as a fault alters them (for the kinds that alter bytes; others return `answer` unchanged).
QByteArray alterAnswer(const FaultRule& rule, const QByteArray& answer);

// Read Device Identification answer PDU for a request PDU (2B 0E readCode objectId). On a protocol error the
// result is empty and *exceptionCode holds the exception to answer with.
QByteArray readDeviceIdentificationPdu(const DeviceIdentification& identification,
                                       const QByteArray& requestPdu, int* exceptionCode);
// Report Slave ID answer PDU: 11 byteCount payload.
QByteArray reportSlaveIdPdu(const QByteArray& payload);

}  // namespace modbus_sim
