// Reads in flight: several requests sent before their answers are read, matched by transaction id. Only
// Modbus TCP numbers its requests; over RTU the reads go one at a time.

#include <errno.h>
#include <modbus.h>

#include <algorithm>
#include <deque>

#include "connection/confirmation.h"
#include "connection/connection.h"
#include "connection/mbap_framing.h"
#include "connection/pdu_words.h"
#include "connection/request_discipline.h"

namespace {

using pdu_words::kBitsPerByte;
using pdu_words::kReadReplyHeader;
using pdu_words::kReadRequestPdu;
using pdu_words::putWord;
using pdu_words::wordAt;

bool isBitTable(RegisterType table) {
    return table == OutputCoil || table == InputCoil;
}

int readFunction(RegisterType table) {
    return table == OutputCoil        ? MODBUS_FC_READ_COILS
           : table == InputCoil       ? MODBUS_FC_READ_DISCRETE_INPUTS
           : table == HoldingRegister ? MODBUS_FC_READ_HOLDING_REGISTERS
                                      : MODBUS_FC_READ_INPUT_REGISTERS;
}

// Refused here like libmodbus refuses a bad argument: no other table may fall through to FC 4. 0 when the
// read may be sent.
int refusal(Connection::PipelinedRead const& read) {
    if (!isModbusTable(read.table)) return EINVAL;
    return read.count > (isBitTable(read.table) ? MODBUS_MAX_READ_BITS : MODBUS_MAX_READ_REGISTERS) ? EMBMDATA
                                                                                                    : 0;
}

void storeValues(Connection::PipelinedRead& read, const unsigned char* replyPdu) {
    for (int i = 0; i < read.count; ++i) {
        if (isBitTable(read.table))
            read.bits[i] = (replyPdu[kReadReplyHeader + i / kBitsPerByte] >> (i % kBitsPerByte)) & 1;
        else
            read.words[i] = static_cast<unsigned short>(wordAt(replyPdu + kReadReplyHeader + 2 * i));
    }
}

}  // namespace

Connection::Pipeline Connection::readOneByOne(std::vector<PipelinedRead>& reads) {
    using Clock = std::chrono::steady_clock;
    for (PipelinedRead& read : reads) {
        read.error = refusal(read);
        if (read.error != 0) {
            read.answered = true;
            continue;
        }
        const auto sentAt = Clock::now();
        read.sent = true;
        int error = 0;
        const int result = isBitTable(read.table)
                               ? readBits(read.table, read.address, read.count, read.bits, &error)
                               : readWords(read.table, read.address, read.count, read.words, &error);
        if (result < 0) {
            read.error = error;
            read.answered = request_discipline::isExceptionAnswer(error);
            if (read.answered) continue;
            return request_discipline::isTimeout(error) ? Pipeline::Refused : Pipeline::Broken;
        }
        read.answered = true;
        read.result = result;
        read.responseMs = std::chrono::duration<double, std::milli>(Clock::now() - sentAt).count();
    }
    return Pipeline::Kept;
}

Connection::Pipeline Connection::readPipelined(std::vector<PipelinedRead>& reads, int window) {
    if (transport == Transport::RtuOverTcp) return readOneByOne(reads);
    using Clock = std::chrono::steady_clock;
    struct InFlight {
        size_t index;
        unsigned short transactionId;
        Clock::time_point sentAt;
        unsigned char pdu[kReadRequestPdu];
    };
    std::deque<InFlight> inFlight;
    Pipeline outcome = Pipeline::Kept;
    const unsigned short firstId = static_cast<unsigned short>(transactionId + 1);
    uint32_t sec = 0;
    uint32_t usec = 0;
    modbus_get_response_timeout(ctx, &sec, &usec);
    const auto responseTimeout = std::chrono::seconds(sec) + std::chrono::microseconds(usec);

    // Everything still in flight, and everything not sent, ends with `error`.
    auto failRest = [&](int error) {
        for (const InFlight& pending : inFlight) {
            reads[pending.index].result = -1;
            reads[pending.index].error = error;
            reads[pending.index].sent = true;
        }
        inFlight.clear();
    };

    size_t next = 0;
    while (next < reads.size() || !inFlight.empty()) {
        while (next < reads.size() && static_cast<int>(inFlight.size()) < window) {
            PipelinedRead& read = reads[next];
            read.error = refusal(read);
            if (read.error != 0) {
                read.answered = true;
                ++next;
                continue;
            }
            InFlight pending{next, 0, Clock::now(), {static_cast<unsigned char>(readFunction(read.table))}};
            putWord(pending.pdu + 1, read.address);
            putWord(pending.pdu + 3, read.count);
            int error = 0;
            if (sendMbap(pending.pdu, kReadRequestPdu, &error) < 0) {
                read.sent = true;
                read.error = error;
                failRest(error);
                if (request_discipline::isBrokenConnection(error)) connected = false;
                return Pipeline::Broken;
            }
            read.sent = true;
            pending.transactionId = transactionId;
            pending.sentAt = Clock::now();
            inFlight.push_back(pending);
            ++next;
        }
        if (inFlight.empty()) break;

        unsigned char reply[mbap_framing::kMaxFrameLength];
        int error = 0;
        const int received = receiveMbapFrame(reply, sizeof reply, inFlight.front().sentAt + responseTimeout,
                                              AnswerSize::ByFunction, &error);
        if (received < 0) {
            failRest(error);
            if (request_discipline::isBrokenConnection(error)) connected = false;
            // No answer in time while requests were in flight: the device may not take them.
            return error == ETIMEDOUT ? Pipeline::Refused : Pipeline::Broken;
        }
        const unsigned short id = mbap_framing::transactionId(reply);
        const auto answered = std::find_if(inFlight.begin(), inFlight.end(), [id](const InFlight& pending) {
            return pending.transactionId == id;
        });
        if (answered == inFlight.end()) {
            if (mbap_framing::answersAnEarlierRequest(id, firstId)) continue;  // came late: dropped
            failRest(EMBBADDATA);
            return Pipeline::Refused;
        }
        if (answered != inFlight.begin()) outcome = Pipeline::Refused;  // answered out of order
        PipelinedRead& read = reads[answered->index];
        read.answered = true;
        read.responseMs = std::chrono::duration<double, std::milli>(Clock::now() - answered->sentAt).count();
        const int expected =
            kReadReplyHeader +
            (isBitTable(read.table) ? confirmation::bytesForBits(read.count) : 2 * read.count);
        const unsigned char* replyPdu = reply + mbap_framing::kHeaderLength;
        read.error = mbap_framing::protocolIdRefused(reply)
                         ? EMBBADDATA
                         : confirmation::check(answered->pdu, expected, replyPdu,
                                               received - mbap_framing::kHeaderLength);
        if (read.error == 0) {
            read.result = read.count;
            storeValues(read, replyPdu);
        }
        inFlight.erase(answered);
        lastExchange = Clock::now();
    }
    return outcome;
}
