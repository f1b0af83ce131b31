#pragma once
// How long the answer PDU to a request is, worked out from its own bytes as they arrive: by the function
// code, then by the byte count or, for Read Device Identification, object by object. RTU frames carry no
// length field, so this is the only way to find where an answer ends.

namespace answer_length {

enum class Sizing {
    Known,     // *length holds the whole PDU's length
    NeedMore,  // *length holds how many bytes must be there before the length can be known
    Unknown,   // a function code, MEI type or length no answer of this driver can have
};

// `pdu` points at the function code; `available` bytes of it have arrived.
Sizing answerPduLength(const unsigned char* pdu, int available, int* length);

}  // namespace answer_length
