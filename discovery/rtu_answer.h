#pragma once
// Finding one unit's answer in the bytes an RTU-over-TCP link delivers. RTU frames carry no length field and
// a serial-to-Ethernet converter passes on whatever the line carries, so the answer is found by its header
// and its CRC rather than by its position. Pure function.

#include <QByteArray>
#include <QtGlobal>

namespace ModbusDiscovery {

// The longest RTU frame: unit id, a PDU of at most 253 bytes and the CRC.
constexpr int kRtuMaxFrameSize = 256;

// True when `stream` holds a whole frame of `unitId` answering `functionCode` (that function or its
// exception) with a good CRC; `pdu` then gets the first such frame's PDU. Bytes around it (heartbeats, late
// answers of other units, line noise) are skipped. Function codes 1 to 4, 17 and 43 (MEI type 14) are known.
bool findRtuAnswer(const QByteArray& stream, quint8 unitId, quint8 functionCode, QByteArray* pdu);

}  // namespace ModbusDiscovery
