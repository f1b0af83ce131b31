#include "connection/confirmation.h"

#include <modbus.h>

#include "connection/pdu_words.h"

namespace confirmation {

namespace {

using pdu_words::kBitsPerByte;
using pdu_words::wordAt;

constexpr int kExceptionFlag = 0x80;
constexpr int kExceptionReplyPdu = 2;  // function code with the exception flag, exception code
constexpr int kQuantityOffset = 3;     // function code, address, quantity
constexpr int kAnsweredQuantityOffset = 3;

}  // namespace

int bytesForBits(int count) {
    return count / kBitsPerByte + (count % kBitsPerByte ? 1 : 0);
}

int check(const unsigned char* request, int expectedLength, const unsigned char* reply, int replyLength) {
    const int function = reply[0];
    if (function >= kExceptionFlag) {
        if (replyLength == kExceptionReplyPdu && function - kExceptionFlag == request[0]) {
            const int code = reply[1];
            return code < MODBUS_EXCEPTION_MAX ? MODBUS_ENOBASE + code : EMBBADEXC;
        }
        return EMBBADEXC;
    }
    if (replyLength != expectedLength || function != request[0]) return EMBBADDATA;
    int asked = 1;
    int answered = 1;
    if (function == MODBUS_FC_READ_COILS || function == MODBUS_FC_READ_DISCRETE_INPUTS) {
        asked = bytesForBits(wordAt(request + kQuantityOffset));
        answered = reply[1];
    } else if (function == MODBUS_FC_READ_HOLDING_REGISTERS || function == MODBUS_FC_READ_INPUT_REGISTERS) {
        asked = wordAt(request + kQuantityOffset);
        answered = reply[1] / 2;
    } else if (function == MODBUS_FC_WRITE_MULTIPLE_COILS || function == MODBUS_FC_WRITE_MULTIPLE_REGISTERS) {
        asked = wordAt(request + kQuantityOffset);
        answered = wordAt(reply + kAnsweredQuantityOffset);
    }
    return asked == answered ? 0 : EMBBADDATA;
}

}  // namespace confirmation
