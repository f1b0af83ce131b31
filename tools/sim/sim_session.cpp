// One client connection of the simulator: reads request frames (by their MBAP length, or RTU frames by their
// function code), answers them and applies the injected faults and the client's role.

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tools/sim/sim_protocol.h"
#include "tools/sim/sim_rtu.h"
#include "tools/sim/sim_state.h"

namespace modbus_sim {

namespace {

// The server context is never connected; it only formats answers, so any address does.
constexpr char kContextAddress[] = "127.0.0.1";
// libmodbus sleeps for the response timeout before flushing after some exceptions; a server has no reason to
// wait, so the timeout is the smallest one libmodbus accepts.
constexpr uint32_t kReplyFlushTimeoutUs = 1;
// One recv takes at most this much; an RTU frame is never longer.
constexpr int kReceiveChunk = kMaxRtuFrameLength;
// What a plain Modbus TCP port gives a frame that is not Modbus TCP: exception 1 under transaction, unit and
// function 0. Its second byte is not 3, so a TLS client reading it as a record header sees no TLS.
constexpr char kForeignFrameAnswerHex[] = "000000000003008001";

bool isRead(int function) {
    return function == kFunctionReadCoils || function == kFunctionReadDiscreteInputs ||
           function == kFunctionReadHoldingRegisters || function == kFunctionReadInputRegisters;
}

}  // namespace

Session::Session(Simulator::State* state, int fd, int stopFd, int connection, qint64 acceptedUs,
                 Framing framing, SSL_CTX* tlsContext, TlsFault tlsFault)
    : state(state),
      fd(fd),
      stopFd(stopFd),
      framing(framing),
      tlsContext(tlsContext),
      tlsFault(tlsFault),
      connection(connection),
      lastAnswerUs(acceptedUs) {
    context = modbus_new_tcp(kContextAddress, 0);
    if (context) modbus_set_response_timeout(context, 0, kReplyFlushTimeoutUs);
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, capture) != 0) {
        capture[0] = capture[1] = -1;
    }
    if (context && capture[0] >= 0) modbus_set_socket(context, capture[0]);
}

Session::~Session() {
    join();
    if (context) {
        // The context does not own the capture socket; closing it here keeps ownership in one place.
        modbus_set_socket(context, -1);
        modbus_free(context);
    }
    for (int& end : capture) {
        if (end >= 0) ::close(end);
        end = -1;
    }
    if (ssl) SSL_free(ssl);
}

void Session::start() {
    thread = std::thread([this] { run(); });
}

void Session::join() {
    if (thread.joinable()) thread.join();
}

void Session::run() {
    bool alreadyClosed = false;
    for (bool serving = startConnection(); serving;) {
        QByteArray request;
        if (!(framing == Framing::Rtu ? readRtuRequest(&request) : readMbapRequest(&request))) break;
        const Outcome outcome = handleReceived(request);
        if (outcome == Outcome::Closed) alreadyClosed = true;
        if (outcome != Outcome::Continue) break;
    }
    if (!alreadyClosed) {
        endTls();
        ::close(fd);
    }
    fd = -1;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        --state->openConnections;
        ++state->closedConnections;
    }
    done = true;
}

bool Session::readMbapRequest(QByteArray* request) {
    request->fill('\0', kMbapHeaderLength);
    if (!readExact(request->data(), kMbapHeaderLength)) return false;
    const int length = readBigEndian16(*request, kMbapLengthFieldOffset);
    // A frame without even a unit id cannot be answered, and the stream cannot be trusted after it.
    if (length < 1) return false;
    if (tlsFault == TlsFault::PlainTcp && readBigEndian16(*request, kMbapProtocolIdOffset) != 0) {
        // Read no further: the length of a frame that is not Modbus TCP means nothing. The client's bytes
        // are drained rather than left unread, which would turn the close into a reset.
        sendAll(QByteArray::fromHex(kForeignFrameAnswerHex));
        discardUntilClosed();
        return false;
    }
    request->resize(kMbapHeaderLength - 1 + length);
    return length == 1 || readExact(request->data() + kMbapHeaderLength, length - 1);
}

bool Session::readRtuRequest(QByteArray* request) {
    // RTU has no length field and no transaction id: the function code tells where a frame ends, and the CRC
    // whether it was one. Anything else is dropped a byte at a time, so that a request right behind noise or
    // a broken frame is still found.
    for (;;) {
        const int length = rtuRequestLength(pending);
        if (length < 0) {
            discardPendingByte();
            continue;
        }
        if (length > 0 && pending.size() >= length) {
            const QByteArray frame = pending.left(length);
            if (!rtuCrcValid(frame)) {
                discardPendingByte();
                continue;
            }
            pending.remove(0, length);
            *request = mbapFromRtu(frame);
            return true;
        }
        const Arrival arrival = receiveMore(pending.isEmpty() ? -1 : kRtuFrameGapMs);
        if (arrival == Arrival::Closed) return false;
        if (arrival == Arrival::Quiet) discardPendingByte();
    }
}

void Session::discardPendingByte() {
    pending.remove(0, 1);
    std::lock_guard<std::mutex> lock(state->mutex);
    ++state->discardedBytes;
}

Session::Arrival Session::receiveMore(int quietMs) {
    char bytes[kReceiveChunk];
    int received = 0;
    const Arrival arrival = receiveSome(bytes, sizeof(bytes), quietMs, &received);
    if (arrival == Arrival::Bytes) pending.append(bytes, received);
    return arrival;
}

Session::Arrival Session::receiveSome(char* data, int size, int quietMs, int* received) {
    if (ssl) return receiveTls(data, size, quietMs, received);
    for (;;) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        const int ready = ::poll(fds, 2, quietMs);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return Arrival::Closed;
        }
        if (ready == 0) return Arrival::Quiet;
        if (fds[1].revents != 0) return Arrival::Closed;
        const ssize_t n = ::recv(fd, data, size, 0);
        if (n == 0) return Arrival::Closed;
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return Arrival::Closed;
        }
        *received = static_cast<int>(n);
        return Arrival::Bytes;
    }
}

bool Session::readExact(char* data, int size) {
    int received = 0;
    while (received < size) {
        int n = 0;
        if (receiveSome(data + received, size - received, -1, &n) != Arrival::Bytes) return false;
        received += n;
    }
    return true;
}

void Session::discardUntilClosed() {
    char bytes[kReceiveChunk];
    int received = 0;
    while (receiveSome(bytes, sizeof(bytes), -1, &received) == Arrival::Bytes) {
    }
}

bool Session::waitForStop(int ms) {
    if (ms <= 0) return false;
    pollfd stop = {stopFd, POLLIN, 0};
    return ::poll(&stop, 1, ms) > 0;
}

bool Session::sendAll(const QByteArray& bytes) {
    if (ssl) return sendTls(bytes);
    int sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.constData() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        sent += static_cast<int>(n);
    }
    return true;
}

bool Session::sendAnswer(const QByteArray& bytes) {
    stampAnswer();
    return sendAll(bytes);
}

Session::Outcome Session::sendInChunks(const QByteArray& bytes, int chunkBytes, int delayMs) {
    const int step = std::max(chunkBytes, 1);
    for (int i = 0; i < bytes.size(); i += step) {
        if (i > 0 && waitForStop(delayMs)) return Outcome::Close;
        if (i + step >= bytes.size()) stampAnswer();
        if (!sendAll(bytes.mid(i, step))) return Outcome::Close;
    }
    return Outcome::Continue;
}

QByteArray Session::toWire(const QByteArray& answer) const {
    return framing == Framing::Rtu ? rtuFromMbap(answer) : answer;
}

void Session::stampAnswer() {
    answeredUs = state->elapsedUs();
    std::lock_guard<std::mutex> lock(state->mutex);
    if (logGeneration == state->requestLogGeneration && logIndex < state->requestLog.size())
        state->requestLog[logIndex].answeredUs = answeredUs;
}

Session::Outcome Session::handleReceived(const QByteArray& request) {
    RequestRecord record = describeRequest(request);
    record.receivedUs = state->elapsedUs();
    record.connection = connection;
    record.tls = tlsEstablished;
    record.tlsResumed = tlsResumed;
    record.role = authority.role;
    if (record.function >= 0) record.refusal = roleRefusal(authority, record.function);
    int serialLineMs = 0;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        const qint64 gapUs = static_cast<qint64>(state->minimumRequestGapMs) * 1000;
        record.dropped = gapUs > 0 && record.receivedUs - lastAnswerUs < gapUs;
        ++state->functionCounts[record.function];
        ++state->totalRequests;
        state->requestLog.push_back(record);
        logIndex = state->requestLog.size() - 1;
        logGeneration = state->requestLogGeneration;
        serialLineMs = state->serialLineMs;
    }
    if (record.dropped || record.function < 0) return Outcome::Continue;

    answeredUs = -1;
    Outcome outcome = Outcome::Continue;
    if (serialLineMs > 0) {
        // The line is taken before the wait: a gateway forwards one request at a time and waits for its
        // answer (or its timeout) before the next.
        std::lock_guard<std::mutex> line(state->serialLine);
        if (waitForStop(serialLineMs)) return Outcome::Close;
        outcome = handle(request, record);
    } else {
        outcome = handle(request, record);
    }
    if (answeredUs >= 0) lastAnswerUs = answeredUs;
    return outcome;
}

Session::Outcome Session::handle(const QByteArray& request, const RequestRecord& record) {
    // A serial line's broadcast is carried out by the device but never answered, not even with an exception.
    const bool broadcast = framing == Framing::Rtu && record.unit == kRtuBroadcastUnit;
    bool served = true;
    UnknownUnitReply unservedReply;
    FaultRule fault;
    const FaultRule* rule = nullptr;
    bool closeNow = false;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        const bool dead = state->deadUnits.count(record.unit) > 0;
        served = !dead && (state->units.empty() || state->units.count(record.unit) > 0);
        unservedReply = dead ? state->deadUnitReply : state->unknownUnitReply;
    }
    if (!served) {
        if (unservedReply == UnknownUnitReply::GatewayException && !broadcast) {
            return sendAnswer(
                       toWire(exceptionAnswer(request, record.function, kExceptionGatewayTargetFailed)))
                       ? Outcome::Continue
                       : Outcome::Close;
        }
        return Outcome::Continue;
    }
    if (!record.refusal.isEmpty()) {
        // Refused before the device looks at the request: no fault applies and nothing is carried out.
        if (broadcast) return Outcome::Continue;
        return sendAnswer(toWire(exceptionAnswer(request, record.function, kExceptionIllegalFunction)))
                   ? Outcome::Continue
                   : Outcome::Close;
    }
    rule = selectFault(record, &fault, &closeNow);
    if (closeNow) return Outcome::Close;
    if (rule && rule->kind == FaultKind::Silence) return Outcome::Continue;
    if (rule && (rule->kind == FaultKind::Exception || rule->kind == FaultKind::BusyEvery)) {
        if (broadcast) return Outcome::Continue;
        const int code =
            rule->kind == FaultKind::Exception ? rule->exceptionCode : kExceptionServerDeviceBusy;
        return sendAnswer(toWire(exceptionAnswer(request, record.function, code))) ? Outcome::Continue
                                                                                   : Outcome::Close;
    }

    QByteArray answer;
    if (record.function == kFunctionEncapsulatedInterface) {
        int exceptionCode = 0;
        QByteArray pdu;
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            pdu = readDeviceIdentificationPdu(state->identification, record.pdu, &exceptionCode);
        }
        answer = exceptionCode ? exceptionAnswer(request, record.function, exceptionCode)
                               : wrapAnswer(request, pdu);
    } else if (record.function == kFunctionReportSlaveId) {
        std::lock_guard<std::mutex> lock(state->mutex);
        answer = state->hasReportSlaveId
                     ? wrapAnswer(request, reportSlaveIdPdu(state->reportSlaveId))
                     : exceptionAnswer(request, record.function, kExceptionIllegalFunction);
    } else if (request.size() <= kMaxAduLength) {
        answer = standardAnswer(request, record.unit);
    }
    // Frames longer than any Modbus ADU are not answered, as a device would drop them.
    if (answer.isEmpty() || broadcast) return Outcome::Continue;
    return deliver(rule, request, record, answer);
}

QByteArray Session::standardAnswer(const QByteArray& request, int unit) {
    if (!context || capture[0] < 0) return {};
    // modbus_reply reads fields at fixed offsets; a zero-filled full-size buffer keeps short frames in
    // bounds.
    uint8_t buffer[MODBUS_TCP_MAX_ADU_LENGTH] = {};
    memcpy(buffer, request.constData(), request.size());
    int length = 0;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        length = modbus_reply(context, buffer, request.size(), state->tablesFor(unit));
    }
    if (length <= 0) return {};
    QByteArray answer(length, '\0');
    int received = 0;
    while (received < length) {
        const ssize_t n = ::recv(capture[1], answer.data() + received, length - received, 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            return {};
        }
        received += static_cast<int>(n);
    }
    return answer;
}

const FaultRule* Session::selectFault(const RequestRecord& record, FaultRule* storage, bool* closeNow) {
    std::lock_guard<std::mutex> lock(state->mutex);
    if (faultGeneration != state->faultGeneration) {
        closeAfterCounts.clear();
        faultGeneration = state->faultGeneration;
    }
    for (size_t i = 0; i < state->faults.size(); ++i) {
        const FaultRule& rule = state->faults[i];
        if (!faultMatches(rule, record)) continue;
        if (rule.kind == FaultKind::CloseAfter) {
            // The first `afterRequests` matching requests pass; the next one closes the connection.
            int& seen = closeAfterCounts[i];
            if (seen >= rule.afterRequests) {
                *closeNow = true;
                return nullptr;
            }
            ++seen;
            continue;
        }
        if (rule.kind == FaultKind::BusyEvery) {
            int& seen = state->busyEveryCounts[i];
            if (++seen < rule.everyRequests) continue;
            seen = 0;
        }
        *storage = rule;
        return storage;
    }
    return nullptr;
}

Session::Outcome Session::deliver(const FaultRule* fault, const QByteArray& request,
                                  const RequestRecord& record, const QByteArray& answer) {
    if (!fault) return sendAnswer(toWire(answer)) ? Outcome::Continue : Outcome::Close;
    switch (fault->kind) {
        case FaultKind::Delay:
            if (waitForStop(fault->delayMs)) return Outcome::Close;
            return sendAnswer(toWire(answer)) ? Outcome::Continue : Outcome::Close;
        case FaultKind::ByteByByte:
            return sendInChunks(toWire(answer), 1, fault->delayMs);
        case FaultKind::Split:
            return sendInChunks(toWire(answer), fault->chunkBytes, fault->delayMs);
        case FaultKind::Reset: {
            const QByteArray wire = toWire(answer);
            sendAll(wire.left(wire.size() / 2));
            resetConnection();
            return Outcome::Closed;
        }
        case FaultKind::GarbageBefore:
            if (!sendAll(fault->garbage)) return Outcome::Close;
            return sendAnswer(toWire(answer)) ? Outcome::Continue : Outcome::Close;
        case FaultKind::OtherUnitFirst:
            if (!sendAll(toWire(otherUnitAnswer(request, record, answer)))) return Outcome::Close;
            return sendAnswer(toWire(answer)) ? Outcome::Continue : Outcome::Close;
        default: {
            const QByteArray altered = framing == Framing::Rtu ? alterRtuAnswer(*fault, toWire(answer))
                                                               : alterAnswer(*fault, answer);
            return sendAnswer(altered) ? Outcome::Continue : Outcome::Close;
        }
    }
}

QByteArray Session::otherUnitAnswer(const QByteArray& request, const RequestRecord& record,
                                    const QByteArray& answer) {
    const char other = static_cast<char>((record.unit + 1) % kRtuUnitIdCount);
    QByteArray otherAnswer;
    if (isRead(record.function)) {
        QByteArray otherRequest = request;
        otherRequest[kMbapUnitIdOffset] = other;
        otherAnswer = standardAnswer(otherRequest, static_cast<uint8_t>(other));
    }
    if (otherAnswer.isEmpty()) {
        otherAnswer = answer;
        otherAnswer[kMbapUnitIdOffset] = other;
    }
    return otherAnswer;
}

void Session::resetConnection() {
    // A zero linger time makes close() send RST instead of FIN.
    const linger reset = {1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    ::close(fd);
}

}  // namespace modbus_sim
