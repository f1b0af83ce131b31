#pragma once
// Interpretation of identification answers (Read Device Identification, Report Slave ID). Pure functions.

#include <QByteArray>
#include <QMap>
#include <QString>

#include "discovery/identify_result.h"

namespace ModbusDiscovery {

bool isModbusPduFor(const QByteArray& pdu, unsigned char functionCode);
QString asciiFromBytes(const QByteArray& bytes);
bool parseDeviceIdPdu(const QByteArray& pdu, IdentifyResult* out);
bool parseReportSlaveId(const QByteArray& pdu, IdentifyResult* out);
IdentifyResult identifyFromResponse(unsigned char unitId, unsigned char functionCode, const QByteArray& pdu);
void combineIdentify(IdentifyResult* target, const IdentifyResult& answer);
bool hasMetadata(const IdentifyResult& result);
QMap<QString, QString> identityItemValues(const IdentifyResult& result);

}  // namespace ModbusDiscovery
