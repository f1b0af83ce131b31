// The reads and writes of a connection: each builds its request PDU, exchanges it and checks the answer the
// way libmodbus checks a confirmation.

#include <errno.h>
#include <modbus.h>

#include <cstring>

#include "connection/confirmation.h"
#include "connection/connection.h"
#include "connection/pdu_words.h"
#include "connection/request_discipline.h"
#include "host/plugin_interface.h"

namespace {

using pdu_words::kBitsPerByte;
using pdu_words::kReadReplyHeader;
using pdu_words::kReadRequestPdu;
using pdu_words::putWord;
using pdu_words::wordAt;

constexpr int kWriteReplyPdu = 5;        // function code, address, value or quantity
constexpr int kMaskWriteRequestPdu = 7;  // function code, address, AND mask, OR mask; echoed as the reply
constexpr int kMultipleWriteHeader = 6;  // function code, address, quantity, byte count
constexpr unsigned short kCoilOn = 0xFF00;

void setBoth(int* err, int error) {
    *err = error;
    errno = error;
}

}  // namespace

int Connection::transact(const unsigned char* pdu, int length, int expectedReplyPdu, unsigned char* reply,
                         int* err) const {
    const bool read = pdu[0] <= MODBUS_FC_READ_INPUT_REGISTERS;
    int error = 0;
    const int received = exchange(pdu, length, read ? expectedReplyPdu - kReadReplyHeader : -1,
                                  AnswerSize::ByFunction, reply, &error);
    if (received < 0) {
        setBoth(err, error);
        return -1;
    }
    if (received == 0) return 0;  // a broadcast: nobody answers
    const int refusal = confirmation::check(pdu, expectedReplyPdu, reply, received);
    if (refusal != 0) {
        setBoth(err, refusal);
        return -1;
    }
    return received;
}

bool Connection::transactFixed(int function, int first, int second, int expectedReplyPdu,
                               unsigned char* reply) const {
    unsigned char request[kReadRequestPdu] = {static_cast<unsigned char>(function)};
    putWord(request + 1, first);
    putWord(request + 3, second);
    int error = 0;  // errno carries it too, which the callers report
    return transact(request, sizeof request, expectedReplyPdu, reply, &error) >= 0;
}

int Connection::readBits(RegisterType type, int addr, int count, unsigned char* dest, int* err) const {
    int result = -1;
    if (type == OutputCoil || type == InputCoil) {
        const int function = type == OutputCoil ? MODBUS_FC_READ_COILS : MODBUS_FC_READ_DISCRETE_INPUTS;
        if (!ctx) {
            errno = EINVAL;
        } else if (count > MODBUS_MAX_READ_BITS) {
            errno = EMBMDATA;
        } else {
            unsigned char reply[kMaxReplyPdu];
            if (transactFixed(function, addr, count, kReadReplyHeader + confirmation::bytesForBits(count),
                              reply)) {
                for (int i = 0; i < count; ++i)
                    dest[i] = (reply[kReadReplyHeader + i / kBitsPerByte] >> (i % kBitsPerByte)) & 1;
                result = count;
            }
        }
    } else {
        if (plugin) plugin->logDebug(QStringLiteral("readBits called with non-bit input type"));
        *err = -1;
    }
    // The non-bit case falls through on purpose: its -1 is replaced by the current errno.
    return settle(result, errno, err);
}

int Connection::readWords(RegisterType type, int addr, int count, unsigned short* dest, int* err) const {
    int result = 0;
    if (type == HoldingRegister || type == InputRegister) {
        result = -1;
        const int function =
            type == HoldingRegister ? MODBUS_FC_READ_HOLDING_REGISTERS : MODBUS_FC_READ_INPUT_REGISTERS;
        if (!ctx) {
            errno = EINVAL;
        } else if (count > MODBUS_MAX_READ_REGISTERS) {
            errno = EMBMDATA;
        } else {
            unsigned char reply[kMaxReplyPdu];
            if (transactFixed(function, addr, count, kReadReplyHeader + 2 * count, reply)) {
                for (int i = 0; i < count; ++i)
                    dest[i] = static_cast<unsigned short>(wordAt(reply + kReadReplyHeader + 2 * i));
                result = count;
            }
        }
    }
    return settle(result, errno, err);
}

int Connection::writeBit(int addr, unsigned char value, int* err, bool multiple) const {
    if (plugin)
        plugin->logDebug(
            QStringLiteral("Writing bit. Register: %1 Data: 0x%2").arg(addr).arg(QString::number(value, 16)));
    int result = -1;
    if (!ctx) {
        errno = EINVAL;
    } else if (multiple) {
        // FC 15 for one coil: address, quantity 1, one data byte holding the bit.
        unsigned char request[kReadRequestPdu + 2] = {MODBUS_FC_WRITE_MULTIPLE_COILS};
        putWord(request + 1, addr);
        putWord(request + 3, 1);
        request[5] = 1;
        request[6] = value ? 1 : 0;
        unsigned char reply[kMaxReplyPdu];
        int error = 0;
        if (transact(request, sizeof request, kWriteReplyPdu, reply, &error) >= 0) result = 1;
    } else {
        unsigned char reply[kMaxReplyPdu];
        if (transactFixed(MODBUS_FC_WRITE_SINGLE_COIL, addr, value ? kCoilOn : 0, kWriteReplyPdu, reply))
            result = 1;
    }
    return settle(result, errno, err, "Could not write bit: %1");
}

int Connection::writeWord(int addr, unsigned short value, int* err) const {
    int result = -1;
    if (!ctx) {
        errno = EINVAL;
    } else {
        unsigned char reply[kMaxReplyPdu];
        if (transactFixed(MODBUS_FC_WRITE_SINGLE_REGISTER, addr, value, kWriteReplyPdu, reply)) result = 1;
    }
    const int error = errno;
    if (plugin)
        plugin->logDebug(QStringLiteral("Writing word. Register: %1 Data: 0x%2 Res: %3")
                             .arg(addr)
                             .arg(QString::number(value, 16))
                             .arg(result));
    return settle(result, error, err, "Could not write word: %1");
}

int Connection::writeString(int addr, int count, unsigned short const* words, int* err) const {
    if (plugin) plugin->logDebug(QStringLiteral("Writing string. Register: %1").arg(addr));
    int result = -1;
    if (!ctx) {
        errno = EINVAL;
    } else if (count > MODBUS_MAX_WRITE_REGISTERS) {
        errno = EMBMDATA;
    } else if (count < 1) {
        // A write of no registers is no valid request (libmodbus would send it all the same); the answer is
        // the one a device gives to it, without asking.
        errno = EMBXILVAL;
    } else {
        unsigned char request[kMaxReplyPdu] = {MODBUS_FC_WRITE_MULTIPLE_REGISTERS};
        putWord(request + 1, addr);
        putWord(request + 3, count);
        request[5] = static_cast<unsigned char>(2 * count);
        for (int i = 0; i < count; ++i) putWord(request + kMultipleWriteHeader + 2 * i, words[i]);
        unsigned char reply[kMaxReplyPdu];
        int error = 0;
        if (transact(request, kMultipleWriteHeader + 2 * count, kWriteReplyPdu, reply, &error) >= 0)
            result = count;
    }
    return settle(result, errno, err, "Could not write words: %1");
}

int Connection::maskWriteRegister(int addr, unsigned short andMask, unsigned short orMask, int* err) const {
    if (plugin)
        plugin->logDebug(QStringLiteral("Mask writing register. Register: %1 And: 0x%2 Or: 0x%3")
                             .arg(addr)
                             .arg(QString::number(andMask, 16), QString::number(orMask, 16)));
    int result = -1;
    if (!ctx) {
        errno = EINVAL;
    } else {
        unsigned char request[kMaskWriteRequestPdu] = {MODBUS_FC_MASK_WRITE_REGISTER};
        putWord(request + 1, addr);
        putWord(request + 3, andMask);
        putWord(request + 5, orMask);
        unsigned char reply[kMaxReplyPdu];
        int error = 0;
        // The device echoes the request.
        if (transact(request, sizeof request, kMaskWriteRequestPdu, reply, &error) >= 0) result = 1;
    }
    // Refused with exception 1 by devices without function 22; the caller falls back, so it is no error here.
    return settle(result, errno, err);
}

int Connection::exchangePdu(QByteArray const& request, QByteArray* response, int* err) {
    if (!ctx || request.isEmpty()) {
        if (err) *err = EINVAL;
        return -1;
    }
    if (request.size() + 1 > MODBUS_TCP_MAX_ADU_LENGTH) {
        if (err) *err = EMBMDATA;
        return -1;
    }
    unsigned char reply[kMaxReplyPdu];
    int error = 0;
    const int received = exchange(reinterpret_cast<const unsigned char*>(request.constData()), request.size(),
                                  -1, AnswerSize::ByFrame, reply, &error);
    if (received < 0) {
        if (err) *err = error;
        if (request_discipline::isBrokenConnection(error)) connected = false;
        flush();
        return -1;
    }
    if (received < 1) {
        if (err) *err = EMBBADDATA;
        return -1;
    }
    if (response) *response = QByteArray(reinterpret_cast<const char*>(reply), received);
    return received;
}
