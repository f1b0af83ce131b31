#pragma once
// Request PDUs, MBAP and RTU framing. Pure functions over byte arrays.

#include <QByteArray>
#include <QtGlobal>

#include "discovery/constants.h"

namespace ModbusDiscovery {

QByteArray readDeviceIdPdu(unsigned char readCode, unsigned char objectId);
QByteArray reportSlaveIdPdu();
QByteArray readHoldingRegistersPdu();
QByteArray readCoilsPdu();

quint16 crc16Modbus(const QByteArray& data);

QByteArray wrapMbap(quint16 transactionId, unsigned char unitId, const QByteArray& pdu);
bool parseMbap(const QByteArray& frame, quint16* transactionId, unsigned char* unitId, QByteArray* pdu);

QByteArray wrapRtu(unsigned char unitId, const QByteArray& pdu);
bool parseRtu(const QByteArray& frame, unsigned char* unitId, QByteArray* pdu);

}  // namespace ModbusDiscovery
