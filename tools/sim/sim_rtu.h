#pragma once
// RTU over TCP framing of the simulator: where a request frame ends in the byte stream, its check, and the
// conversion between RTU frames and the MBAP frames the rest of the simulator serves.

#include <QByteArray>

#include "tools/sim/simulator.h"

namespace modbus_sim {

// Modbus over serial line 1.02, 2.5.1: an RTU frame is at most 256 bytes (unit id, 253-byte PDU, CRC).
constexpr int kMaxRtuFrameLength = 256;
constexpr int kRtuCrcLength = 2;
// Unit ids a serial line addresses: 1-247, 0 for broadcast.
constexpr int kRtuUnitIdCount = 248;
constexpr int kRtuBroadcastUnit = 0;

// The length of the request frame that `bytes` starts with, known from its function code (and byte count):
// the whole frame's length, 0 while more bytes are needed to tell, -1 when no request frame starts here.
int rtuRequestLength(const QByteArray& bytes);
bool rtuCrcValid(const QByteArray& frame);
// The MBAP request of an RTU request frame (transaction id 0), and the RTU frame of an MBAP answer.
QByteArray mbapFromRtu(const QByteArray& frame);
QByteArray rtuFromMbap(const QByteArray& answer);
// An RTU answer as a fault alters it (for the kinds that alter bytes; others return `answer` unchanged).
QByteArray alterRtuAnswer(const FaultRule& rule, const QByteArray& answer);

}  // namespace modbus_sim
