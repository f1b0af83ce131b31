// One request and its answer, in Modbus TCP or in RTU framing. What frames a request lives in
// mbap_framing / rtu_framing, what moves the bytes in a ByteStream (a socket, or TLS over one); this is the
// discipline between them: the request pause, late answers, and what is dropped on the way to the answer.

#include <errno.h>
#include <modbus.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "connection/answer_length.h"
#include "connection/connection.h"
#include "connection/mbap_framing.h"
#include "connection/rtu_framing.h"
#include "host/plugin_interface.h"

namespace {

using Clock = std::chrono::steady_clock;

// Room for an RTU answer with as much again of other bytes before it.
constexpr int kRtuReceiveBuffer = 2 * rtu_framing::kMaxFrameLength;
// A frame of the right unit, function and length whose CRC fails is the answer, damaged; anything still to
// come follows it within this time.
constexpr auto kQuietAfterBadCrc = std::chrono::milliseconds(50);

bool isBroadcastWrite(int function) {
    return function == MODBUS_FC_WRITE_SINGLE_COIL || function == MODBUS_FC_WRITE_SINGLE_REGISTER ||
           function == MODBUS_FC_WRITE_MULTIPLE_COILS || function == MODBUS_FC_WRITE_MULTIPLE_REGISTERS ||
           function == MODBUS_FC_MASK_WRITE_REGISTER;
}

// The answer's PDU length as its function code sizes it; a function code no request of this driver gets an
// answer to counts as a two-byte answer, as libmodbus counts it.
int sizedPduLength(const unsigned char* pdu, int available, bool* known) {
    int length = 0;
    const answer_length::Sizing sizing = answer_length::answerPduLength(pdu, available, &length);
    *known = sizing != answer_length::Sizing::NeedMore;
    return sizing == answer_length::Sizing::Unknown ? 2 : length;
}

}  // namespace

int Connection::exchange(const unsigned char* pdu, int length, int byteCount, AnswerSize size,
                         unsigned char* reply, int* err) const {
    if (!stream) {
        *err = ENOTCONN;
        return -1;
    }
    if (transport == Transport::RtuOverTcp) return exchangeRtu(pdu, length, byteCount, reply, err);
    return exchangeMbap(pdu, length, size, reply, err);
}

void Connection::waitForRequestPause() const {
    if (requestPauseMs <= 0) return;
    std::this_thread::sleep_until(lastExchange + std::chrono::milliseconds(requestPauseMs));
}

// libmodbus refuses raw requests above 254 bytes, although a Modbus TCP frame may carry up to 260; the frame
// is therefore framed and sent here, like the reply is read here.
int Connection::sendMbap(const unsigned char* pdu, int length, int* err) const {
    // Like libmodbus, each connection numbers its requests from 1 and wraps after 65535 to 0.
    ++transactionId;
    unsigned char frame[mbap_framing::kPrefixLength + mbap_framing::kMaxFrameLength];
    const int total = mbap_framing::buildRequest(transactionId, slaveId, pdu, length, frame);
    waitForRequestPause();
    return stream->sendAll(frame, total, responseDeadline(), err);
}

int Connection::exchangeMbap(const unsigned char* pdu, int length, AnswerSize size, unsigned char* reply,
                             int* err) const {
    if (sendMbap(pdu, length, err) < 0) return -1;
    const unsigned short sentId = transactionId;
    unsigned char frame[mbap_framing::kMaxFrameLength];
    const int received = receiveMbapAnswer(sentId, frame, sizeof frame, size, err);
    if (received < 0) return -1;
    if (size == AnswerSize::ByFunction &&
        (mbap_framing::transactionId(frame) != sentId || mbap_framing::protocolIdRefused(frame))) {
        *err = EMBBADDATA;
        return -1;
    }
    const int pduLength = received - mbap_framing::kHeaderLength;
    std::memcpy(reply, frame + mbap_framing::kHeaderLength, static_cast<size_t>(pduLength));
    return pduLength;
}

int Connection::receiveMbapAnswer(unsigned short sentId, unsigned char* frame, int capacity, AnswerSize size,
                                  int* err) const {
    const auto deadline = responseDeadline();
    for (;;) {
        const int received = receiveMbapFrame(frame, capacity, deadline, size, err);
        if (received < 0) return received;
        const unsigned short id = mbap_framing::transactionId(frame);
        if (!mbap_framing::answersAnEarlierRequest(id, sentId)) {
            lastExchange = Clock::now();
            return received;
        }
        if (plugin)
            plugin->logDebug(
                QStringLiteral("Dropped a late answer to request %1 while waiting for request %2")
                    .arg(id)
                    .arg(sentId));
    }
}

// Reads exactly one frame and nothing of the next, so that answers in flight stay on the socket for their
// turn. libmodbus sizes a confirmation by its function code and returns only two bytes of an FC 43 answer,
// leaving the rest in the socket; the raw PDUs of identity are therefore read by the MBAP length field.
int Connection::receiveMbapFrame(unsigned char* frame, int capacity, Clock::time_point deadline,
                                 AnswerSize size, int* err) const {
    const auto byteTimeout = this->byteTimeout();
    int received = 0;
    int wanted = mbap_framing::kHeaderLength + (size == AnswerSize::ByFunction ? 1 : 0);
    bool sized = false;
    while (received < wanted) {
        const int count = stream->receiveSome(frame + received, wanted - received, deadline, err);
        if (count < 0) return -1;
        received += count;
        // Like libmodbus, once an answer has begun each further byte gets the byte time-out of its own.
        if (byteTimeout.count() > 0) deadline = Clock::now() + byteTimeout;
        if (received < wanted || sized) continue;
        if (size == AnswerSize::ByFrame) {
            const int lengthField = mbap_framing::lengthField(frame);
            if (lengthField < mbap_framing::kMinLengthField || lengthField > mbap_framing::kMaxLengthField ||
                mbap_framing::kPrefixLength + lengthField > capacity) {
                *err = EMBBADDATA;
                return -1;
            }
            wanted = mbap_framing::kPrefixLength + lengthField;
            sized = true;
        } else {
            const int pduLength = sizedPduLength(frame + mbap_framing::kHeaderLength,
                                                 received - mbap_framing::kHeaderLength, &sized);
            wanted = mbap_framing::kHeaderLength + pduLength;
        }
        if (wanted > capacity) {
            *err = EMBBADDATA;
            return -1;
        }
    }
    return received;
}

int Connection::exchangeRtu(const unsigned char* pdu, int length, int byteCount, unsigned char* reply,
                            int* err) const {
    const bool broadcast = slaveId == rtu_framing::kBroadcastUnit;
    if (broadcast && !isBroadcastWrite(pdu[0])) {
        // Nobody answers a broadcast: a read of unit 0 could only time out.
        *err = EINVAL;
        return -1;
    }
    unsigned char frame[rtu_framing::kMaxFrameLength];
    const int total = rtu_framing::buildRequest(slaveId, pdu, length, frame);
    if (total < 0) {
        *err = EMBMDATA;
        return -1;
    }
    awaitLateRtuAnswer(pdu[0]);
    waitForRequestPause();
    // Whatever waits now answers no request of this one: a converter's heartbeat, or an answer that came
    // late.
    const int dropped = stream->discardWaiting();
    if (dropped > 0 && plugin)
        plugin->logDebug(QStringLiteral("Dropped %1 bytes that came before a request to unit %2")
                             .arg(dropped)
                             .arg(slaveId));
    if (stream->sendAll(frame, total, responseDeadline(), err) < 0) return -1;
    if (broadcast) {
        // The devices need the pause to carry the write out before the line is theirs again.
        lastExchange = Clock::now();
        waitForRequestPause();
        return 0;
    }
    return receiveRtuAnswer(pdu[0], byteCount, reply, err);
}

int Connection::receiveRtuAnswer(int function, int byteCount, unsigned char* reply, int* err) const {
    int skipped = 0;
    const int received =
        searchRtuAnswer({slaveId, function, byteCount}, responseDeadline(), reply, &skipped, err);
    if (skipped > 0 && plugin)
        plugin->logDebug(
            QStringLiteral("Skipped %1 bytes that were no answer of unit %2").arg(skipped).arg(slaveId));
    if (received >= 0) {
        lastExchange = Clock::now();
    } else if (*err == ETIMEDOUT) {
        lateAnswer = LateAnswer{slaveId, function, responseDeadline()};
    }
    return received;
}

int Connection::searchRtuAnswer(rtu_framing::Expectation const& expected, Clock::time_point deadline,
                                unsigned char* reply, int* skipped, int* err) const {
    const auto byteTimeout = this->byteTimeout();
    unsigned char buffer[kRtuReceiveBuffer];
    int size = 0;
    bool crcMismatch = false;
    for (;;) {
        const rtu_framing::Scan scan = rtu_framing::findAnswer(buffer, size, expected);
        if (scan.status == rtu_framing::Scan::Found) {
            *skipped += scan.offset;
            const int pduLength = scan.length - rtu_framing::kOverhead;
            if (reply)
                std::memcpy(reply, buffer + scan.offset + rtu_framing::kUnitLength,
                            static_cast<size_t>(pduLength));
            return pduLength;
        }
        if (scan.crcMismatch && !crcMismatch) {
            crcMismatch = true;
            deadline = std::min(deadline, Clock::now() + kQuietAfterBadCrc);
        }
        if (size == kRtuReceiveBuffer) {
            const int drop = std::max(scan.discardable, 1);
            std::memmove(buffer, buffer + drop, static_cast<size_t>(size - drop));
            size -= drop;
            *skipped += drop;
        }
        const int count = stream->receiveSome(buffer + size, kRtuReceiveBuffer - size, deadline, err);
        if (count < 0) {
            if (*err == ETIMEDOUT && crcMismatch) *err = EMBBADCRC;
            return -1;
        }
        size += count;
        // An answer that has begun gets the byte time-out for each further byte, as with libmodbus, but never
        // less time than the response time-out gave it.
        if (scan.status == rtu_framing::Scan::NeedMore && byteTimeout.count() > 0)
            deadline = std::max(deadline, Clock::now() + byteTimeout);
    }
}

void Connection::awaitLateRtuAnswer(int function) const {
    if (lateAnswer.unit != slaveId || lateAnswer.function != function) return;
    const LateAnswer late = lateAnswer;
    lateAnswer = LateAnswer{};
    if (Clock::now() >= late.until) return;
    // The answer to the request that timed out would pass for this one's: it is read and dropped first, or
    // its time runs out.
    int skipped = 0;
    int error = 0;
    if (searchRtuAnswer({late.unit, late.function, -1}, late.until, nullptr, &skipped, &error) >= 0 && plugin)
        plugin->logDebug(QStringLiteral("Dropped a late answer of unit %1 to function %2")
                             .arg(late.unit)
                             .arg(late.function));
}
