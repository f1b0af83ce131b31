#include "discovery/frames.h"

#include "connection/crc16.h"

namespace ModbusDiscovery {

namespace {

// MBAP header: transaction id (2), protocol id (2), length (2), unit id (1).
constexpr int kMbapHeaderSize = 7;
constexpr int kMbapLengthFieldEnd = 6;
// Length counts the unit id plus the PDU: at least a function code, at most the 253-byte PDU.
constexpr int kMbapMinLength = 2;
constexpr int kMbapMaxLength = 260;
// Smallest RTU frame: unit id, function code, exception code, CRC (2).
constexpr int kRtuMinFrameSize = 5;
constexpr int kRtuCrcSize = 2;

// Start address 0, quantity 1: the smallest read a server must answer.
constexpr unsigned char kSingleReadTail[] = {0x00, 0x00, 0x00, 0x01};

QByteArray singleReadPdu(unsigned char functionCode) {
    QByteArray pdu;
    pdu.append(static_cast<char>(functionCode));
    pdu.append(reinterpret_cast<const char*>(kSingleReadTail), sizeof(kSingleReadTail));
    return pdu;
}

quint8 byteAt(const QByteArray& data, int index) {
    return static_cast<quint8>(data.at(index));
}

quint16 bigEndianAt(const QByteArray& data, int index) {
    return static_cast<quint16>((byteAt(data, index) << 8) | byteAt(data, index + 1));
}

void appendBigEndian(QByteArray* data, quint16 value) {
    data->append(static_cast<char>(value >> 8));
    data->append(static_cast<char>(value & 0xFF));
}

}  // namespace

QByteArray readDeviceIdPdu(unsigned char readCode, unsigned char objectId) {
    QByteArray pdu;
    pdu.append(static_cast<char>(kFcMei));
    pdu.append(static_cast<char>(kMeiDeviceId));
    pdu.append(static_cast<char>(readCode));
    pdu.append(static_cast<char>(objectId));
    return pdu;
}

QByteArray reportSlaveIdPdu() {
    return QByteArray(1, static_cast<char>(kFcReportSlaveId));
}

QByteArray readHoldingRegistersPdu() {
    return singleReadPdu(kFcReadHolding);
}

QByteArray readCoilsPdu() {
    return singleReadPdu(kFcReadCoils);
}

quint16 crc16Modbus(const QByteArray& data) {
    return modbus_crc::crc16(reinterpret_cast<const unsigned char*>(data.constData()),
                             static_cast<size_t>(data.size()));
}

QByteArray wrapMbap(quint16 transactionId, unsigned char unitId, const QByteArray& pdu) {
    QByteArray frame;
    frame.reserve(kMbapHeaderSize + pdu.size());
    appendBigEndian(&frame, transactionId);
    appendBigEndian(&frame, 0);
    appendBigEndian(&frame, static_cast<quint16>(pdu.size() + 1));
    frame.append(static_cast<char>(unitId));
    if (!pdu.isEmpty()) {
        frame.append(pdu);
    }
    return frame;
}

bool parseMbap(const QByteArray& frame, quint16* transactionId, unsigned char* unitId, QByteArray* pdu) {
    if (frame.size() < kMbapHeaderSize + 1) {
        return false;
    }
    if (bigEndianAt(frame, 2) != 0) {
        return false;
    }
    const int length = bigEndianAt(frame, 4);
    if (length < kMbapMinLength || length > kMbapMaxLength) {
        return false;
    }
    if (frame.size() < length + kMbapLengthFieldEnd) {
        return false;
    }
    if (transactionId) {
        *transactionId = bigEndianAt(frame, 0);
    }
    if (unitId) {
        *unitId = byteAt(frame, kMbapLengthFieldEnd);
    }
    if (pdu) {
        *pdu = frame.mid(kMbapHeaderSize, length - 1);
        return !pdu->isEmpty();
    }
    return true;
}

QByteArray wrapRtu(unsigned char unitId, const QByteArray& pdu) {
    QByteArray frame;
    frame.reserve(1 + pdu.size() + kRtuCrcSize);
    frame.append(static_cast<char>(unitId));
    frame.append(pdu);
    const quint16 crc = crc16Modbus(frame);
    frame.append(static_cast<char>(crc & 0xFF));
    frame.append(static_cast<char>(crc >> 8));
    return frame;
}

bool parseRtu(const QByteArray& frame, unsigned char* unitId, QByteArray* pdu) {
    if (frame.size() < kRtuMinFrameSize) {
        return false;
    }
    const QByteArray body = frame.left(frame.size() - kRtuCrcSize);
    const quint16 received =
        static_cast<quint16>(byteAt(frame, frame.size() - 2) | (byteAt(frame, frame.size() - 1) << 8));
    if (received != crc16Modbus(body)) {
        return false;
    }
    if (unitId) {
        *unitId = byteAt(body, 0);
    }
    if (pdu) {
        *pdu = body.mid(1);
        return !pdu->isEmpty();
    }
    return true;
}

}  // namespace ModbusDiscovery
