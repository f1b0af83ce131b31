#pragma once
// Identification helpers shared by the parsers and the TCP transport; not part of the public surface.

#include <QByteArray>

#include "discovery/identify_result.h"

namespace ModbusDiscovery {

// Interprets one answer PDU to a request with the given function code; ok stays false when nothing
// usable came back.
IdentifyResult resultFromPdu(unsigned char unitId, unsigned char functionCode, const QByteArray& pdu);
// Copies the fields of an answer into the target; fields the target already has are kept.
void mergeIdentify(IdentifyResult* target, const IdentifyResult& answer);

}  // namespace ModbusDiscovery
