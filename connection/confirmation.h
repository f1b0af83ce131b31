#pragma once
// Whether an answer PDU confirms the request PDU it came for, checked the way libmodbus checks a confirmation
// and with the same error codes, whatever framing carried it.

namespace confirmation {

int bytesForBits(int count);

// 0 when `reply` (`replyLength` bytes, function code first) answers `request` with the `expectedLength` bytes
// its function code calls for; else the libmodbus error code: an exception's (MODBUS_ENOBASE + code),
// EMBBADEXC or EMBBADDATA.
int check(const unsigned char* request, int expectedLength, const unsigned char* reply, int replyLength);

}  // namespace confirmation
