#pragma once
// Modbus TCP frames: the MBAP header (transaction id, protocol id, length, unit id) before the PDU. The
// transaction id lets answers be matched to requests, in flight or late; the length field says where a frame
// ends.

namespace mbap_framing {

constexpr int kHeaderLength = 7;  // transaction id, protocol id, length, unit id
constexpr int kPrefixLength = 6;  // the header without the unit id, which the length field counts
constexpr int kMaxPduLength = 253;
// libmodbus's largest TCP frame, which sizes every buffer here.
constexpr int kMaxFrameLength = 260;
constexpr int kMinLengthField = 2;    // unit id and function code
constexpr int kMaxLengthField = 254;  // unit id and the largest PDU

// `pdu` (function code first) framed for `unit` under `transactionId` into `out` (room for kPrefixLength +
// kMaxFrameLength bytes: a raw PDU may be larger than a standard one); the frame's length.
int buildRequest(unsigned short transactionId, int unit, const unsigned char* pdu, int length,
                 unsigned char* out);

unsigned short transactionId(const unsigned char* frame);
int lengthField(const unsigned char* frame);
// Whether an answer numbered `id` belongs to a request sent before the one numbered `awaited` (a late answer
// to be dropped), rather than to it or to nothing sent here.
bool answersAnEarlierRequest(unsigned short id, unsigned short awaited);
// libmodbus 3.1.6 refuses a protocol id only when both of its bytes are set; so does this.
bool protocolIdRefused(const unsigned char* frame);

}  // namespace mbap_framing
