#include "connection/connection.h"

#include <errno.h>
#include <modbus.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <thread>

#include "connection/request_discipline.h"
#include "host/plugin_interface.h"

namespace {

// Errors that mean the socket itself is gone, so the cache must build a new connection.
bool isBrokenSocket(int error) {
    return error == EBADF || error == EPIPE || error == ECONNABORTED || error == ECONNRESET ||
           error == ENOTCONN;
}

constexpr int kMbapHeaderLength = 7;  // transaction id, protocol id, length, unit id
constexpr int kMbapPrefixLength = 6;  // the header without the unit id, which the length field counts
constexpr int kMbapLengthFieldOffset = 4;
constexpr int kMinMbapLengthField = 2;      // unit id and function code
constexpr int kMaxMbapLengthField = 254;    // unit id and the largest PDU (253 bytes)
constexpr int kTimeoutErrno = EINPROGRESS;  // an operation that did not complete in time
constexpr int kFunctionOffset = kMbapHeaderLength;
constexpr int kExceptionFlag = 0x80;
constexpr int kExceptionReplyPdu = 2;    // function code with the exception flag, exception code
constexpr int kReadRequestPdu = 5;       // function code, address, quantity
constexpr int kWriteReplyPdu = 5;        // function code, address, value or quantity
constexpr int kMaskWriteRequestPdu = 7;  // function code, address, AND mask, OR mask; echoed as the reply
constexpr int kBitsPerByte = 8;
constexpr unsigned short kCoilOn = 0xFF00;
constexpr int kFlushChunk = MODBUS_TCP_MAX_ADU_LENGTH;
// An answer numbered up to this many requests before the current one is a late answer to a request that
// timed out; anything else with a wrong number is a bad frame.
constexpr int kLateAnswerWindow = 1024;
constexpr int kTransactionIdSpace = 65536;
constexpr int kMicrosecondsPerMs = 1000;
constexpr int kMsPerSecond = 1000;
// Added to the request pause before the first request of a connection.
constexpr int kConnectPauseMarginMs = 5;

void putWord(unsigned char* at, int value) {
    at[0] = static_cast<unsigned char>((value >> 8) & 0xFF);
    at[1] = static_cast<unsigned char>(value & 0xFF);
}

int wordAt(const unsigned char* at) {
    return (at[0] << 8) | at[1];
}

int bytesForBits(int count) {
    return count / kBitsPerByte + (count % kBitsPerByte ? 1 : 0);
}

// What follows the function code of an answer to a standard request, sized as libmodbus sizes it: a fixed
// part known from the function code, then, for reads, as many bytes as its byte count says. The MBAP length
// field is not read, so an answer libmodbus takes is taken here too.
int confirmationMetaLength(int function) {
    switch (function) {
        case MODBUS_FC_WRITE_SINGLE_COIL:
        case MODBUS_FC_WRITE_SINGLE_REGISTER:
        case MODBUS_FC_WRITE_MULTIPLE_COILS:
        case MODBUS_FC_WRITE_MULTIPLE_REGISTERS:
            return 4;  // address and value or quantity
        case MODBUS_FC_MASK_WRITE_REGISTER:
            return 6;  // address, and mask, or mask
        default:
            return 1;  // byte count, or the exception code
    }
}

int confirmationDataLength(int function, int byteCount) {
    if (function <= MODBUS_FC_READ_INPUT_REGISTERS || function == MODBUS_FC_REPORT_SLAVE_ID ||
        function == MODBUS_FC_WRITE_AND_READ_REGISTERS)
        return byteCount;
    return 0;
}

void setBoth(int* err, int error) {
    *err = error;
    errno = error;
}

}  // namespace

Connection::Connection(Network const& net, PluginInterface* pluginInterface, int* err)
    : plugin(pluginInterface) {
    // modbus_new_tcp takes only dotted IPv4 text; the _pi variant also resolves host names.
    host = net.host.toLocal8Bit();
    service = QByteArray::number(net.port);
    ctx = modbus_new_tcp_pi(host.constData(), service.constData());
    if (!ctx) return;
    connectTimeoutMs = net.connectTimeoutMs;
    requestPauseMs = net.requestPauseMs;
    setResponseTimeoutMs(net.responseTimeoutMs);
    connected = connect(net.serverId, err) == 0;
}

Connection::Connection(Serial, PluginInterface& pluginInterface, int*, int, int) : plugin(&pluginInterface) {}

Connection::Connection(Connection&& other) noexcept {
    *this = std::move(other);
}

Connection& Connection::operator=(Connection&& other) noexcept {
    std::swap(ctx, other.ctx);
    std::swap(connected, other.connected);
    std::swap(plugin, other.plugin);
    std::swap(deviceError, other.deviceError);
    std::swap(slaveId, other.slaveId);
    std::swap(host, other.host);
    std::swap(service, other.service);
    std::swap(transactionId, other.transactionId);
    std::swap(connectTimeoutMs, other.connectTimeoutMs);
    std::swap(requestPauseMs, other.requestPauseMs);
    std::swap(lastExchange, other.lastExchange);
    return *this;
}

Connection::~Connection() {
    disconnect();
}

int Connection::connect(int slave, int* err) {
    slaveId = slave < 0 ? 1 : slave;
    if (modbus_set_slave(ctx, slaveId) == -1) {
        const int error = errno;
        if (plugin)
            plugin->logDebug(
                QStringLiteral("Could not set server ID to %1: %2").arg(slave).arg(modbus_strerror(error)));
        disconnect();
        *err = error;
        return -1;
    }
    if (connectSocket(err) == -1) {
        const int error = *err;
        if (plugin) plugin->logDebug(QStringLiteral("Could not connect: %1").arg(modbus_strerror(error)));
        disconnect();
        *err = error;
        return -1;
    }
    connected = true;
    // The device counts from the moment the connection reached it, a little after connect() returned here.
    lastExchange = std::chrono::steady_clock::now() + std::chrono::milliseconds(kConnectPauseMarginMs);
    return 0;
}

bool Connection::setSlave(int unit) {
    if (!ctx || modbus_set_slave(ctx, unit) == -1) return false;
    slaveId = unit;
    return true;
}

// libmodbus's own connect waits in select(), which aborts the process for a descriptor at or above
// FD_SETSIZE; this one waits in poll() and then hands the socket over.
int Connection::connectSocket(int* err) const {
    addrinfo hints{};
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    // The time-out covers the whole attempt, name resolution included.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(connectTimeoutMs);
    addrinfo* addresses = nullptr;
    if (::getaddrinfo(host.constData(), service.constData(), &hints, &addresses) != 0) {
        setBoth(err, ECONNREFUSED);
        return -1;
    }
    int error = ECONNREFUSED;
    int connectedSocket = -1;
    for (addrinfo* address = addresses; address && connectedSocket < 0; address = address->ai_next) {
        const int socket = ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                    address->ai_protocol);
        if (socket < 0) {
            error = errno;
            continue;
        }
        if (address->ai_family == AF_INET) {
            const int on = 1;
            ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            const int lowDelay = IPTOS_LOWDELAY;
            ::setsockopt(socket, IPPROTO_IP, IP_TOS, &lowDelay, sizeof lowDelay);
        }
        if (::connect(socket, address->ai_addr, address->ai_addrlen) == 0) {
            connectedSocket = socket;
            break;
        }
        error = errno;
        if (error == EINPROGRESS) {
            pollfd descriptor{socket, POLLOUT, 0};
            int ready = 0;
            for (;;) {
                const auto left =
                    std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
                ready = ::poll(&descriptor, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
                if (ready >= 0 || errno != EINTR) break;
            }
            if (ready > 0) {
                int socketError = 0;
                socklen_t size = sizeof socketError;
                if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &socketError, &size) == 0 &&
                    socketError == 0) {
                    connectedSocket = socket;
                    break;
                }
                // The socket's own error: an unreachable host must not read as a refused connection.
                error = socketError != 0 ? socketError : ECONNREFUSED;
            } else if (ready < 0) {
                error = errno;
            }
            // A connect that did not finish in time keeps EINPROGRESS, as with libmodbus.
        }
        ::close(socket);
    }
    ::freeaddrinfo(addresses);
    if (connectedSocket < 0) {
        setBoth(err, error);
        return -1;
    }
    modbus_set_socket(ctx, connectedSocket);
    return 0;
}

void Connection::disconnect() {
    if (ctx) {
        modbus_close(ctx);
        modbus_free(ctx);
        ctx = nullptr;
    }
    connected = false;
}

void Connection::flush() {
    // What libmodbus's flush does, without its select().
    const int socket = ctx ? modbus_get_socket(ctx) : -1;
    if (socket < 0) return;
    unsigned char discard[kFlushChunk];
    while (::recv(socket, discard, sizeof discard, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof discard)) {
    }
}

bool Connection::getResponseTimeout(unsigned int* sec, unsigned int* usec) const {
    if (!ctx) return false;
    uint32_t s = 0;
    uint32_t us = 0;
    const bool ok = modbus_get_response_timeout(ctx, &s, &us) == 0;
    if (ok) {
        *sec = s;
        *usec = us;
    }
    return ok;
}

bool Connection::setResponseTimeoutMs(int ms) {
    return setResponseTimeout(static_cast<unsigned int>(ms / kMsPerSecond),
                              static_cast<unsigned int>(ms % kMsPerSecond * kMicrosecondsPerMs));
}

bool Connection::setResponseTimeout(unsigned int sec, unsigned int usec) {
    if (!ctx) return false;
    return modbus_set_response_timeout(ctx, sec, usec) == 0;
}

bool Connection::transactFixed(int function, int first, int second, int expectedReplyPdu,
                               unsigned char* reply) const {
    unsigned char request[kReadRequestPdu] = {static_cast<unsigned char>(function)};
    putWord(request + 1, first);
    putWord(request + 3, second);
    int error = 0;  // errno carries it too, which the callers report
    return transact(request, sizeof request, expectedReplyPdu, reply, &error) >= 0;
}

int Connection::settle(int result, int error, int* err, const char* failureLog) const {
    if (result >= 0) {
        setDeviceError(0);
        return result;
    }
    if (plugin && failureLog) plugin->logError(QString::fromLatin1(failureLog).arg(modbus_strerror(error)));
    *err = error;
    setDeviceError(error);
    return result;
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
            unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
            if (transactFixed(function, addr, count, 2 + bytesForBits(count), reply)) {
                for (int i = 0; i < count; ++i)
                    dest[i] = (reply[kFunctionOffset + 2 + i / kBitsPerByte] >> (i % kBitsPerByte)) & 1;
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
            unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
            if (transactFixed(function, addr, count, 2 + 2 * count, reply)) {
                for (int i = 0; i < count; ++i)
                    dest[i] = static_cast<unsigned short>(wordAt(reply + kFunctionOffset + 2 + 2 * i));
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
        unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
        int error = 0;
        if (transact(request, sizeof request, kWriteReplyPdu, reply, &error) >= 0) result = 1;
    } else {
        unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
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
        unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
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
        unsigned char request[MODBUS_TCP_MAX_ADU_LENGTH] = {MODBUS_FC_WRITE_MULTIPLE_REGISTERS};
        putWord(request + 1, addr);
        putWord(request + 3, count);
        request[5] = static_cast<unsigned char>(2 * count);
        for (int i = 0; i < count; ++i) putWord(request + 6 + 2 * i, words[i]);
        unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
        int error = 0;
        if (transact(request, 6 + 2 * count, kWriteReplyPdu, reply, &error) >= 0) result = count;
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
        unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
        int error = 0;
        // The device echoes the request.
        if (transact(request, sizeof request, kMaskWriteRequestPdu, reply, &error) >= 0) result = 1;
    }
    // Refused with exception 1 by devices without function 22; the caller falls back, so it is no error here.
    return settle(result, errno, err);
}

namespace {

// Waits for the socket until the deadline; false with *err set when it does not become ready.
bool waitForSocket(int socket, short events, std::chrono::steady_clock::time_point deadline, int* err) {
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd descriptor{socket, events, 0};
        const int ready = ::poll(&descriptor, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready > 0) return true;
        if (ready < 0 && errno == EINTR) continue;
        *err = ready < 0 ? errno : ETIMEDOUT;
        return false;
    }
}

std::chrono::steady_clock::time_point responseDeadline(modbus_t* ctx) {
    uint32_t sec = 0;
    uint32_t usec = 0;
    modbus_get_response_timeout(ctx, &sec, &usec);
    return std::chrono::steady_clock::now() + std::chrono::seconds(sec) + std::chrono::microseconds(usec);
}
}  // namespace

// libmodbus refuses raw requests above 254 bytes, although a Modbus TCP frame may carry up to 260; the frame
// is therefore framed and sent here, like the reply is read here.
int Connection::sendFrame(const unsigned char* adu, int length, int* err) const {
    // Like libmodbus, each connection numbers its requests from 1 and wraps after 65535 to 0.
    ++transactionId;
    unsigned char frame[kMbapPrefixLength + MODBUS_TCP_MAX_ADU_LENGTH];
    frame[0] = static_cast<unsigned char>(transactionId >> 8);
    frame[1] = static_cast<unsigned char>(transactionId & 0xFF);
    frame[2] = 0;  // protocol id: Modbus
    frame[3] = 0;
    frame[4] = static_cast<unsigned char>(length >> 8);
    frame[5] = static_cast<unsigned char>(length & 0xFF);
    std::memcpy(frame + kMbapPrefixLength, adu, length);

    waitForRequestPause();
    const int socket = modbus_get_socket(ctx);
    const auto deadline = responseDeadline(ctx);
    const int total = kMbapPrefixLength + length;
    int sent = 0;
    while (sent < total) {
        if (!waitForSocket(socket, POLLOUT, deadline, err)) return -1;
        const ssize_t count = ::send(socket, frame + sent, total - sent, MSG_NOSIGNAL);
        if (count < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            *err = errno;
            return -1;
        }
        sent += static_cast<int>(count);
    }
    return sent;
}

// libmodbus sizes a confirmation by its function code and returns only two bytes of an FC 43 answer, leaving
// the rest in the socket. Reading the frame by its MBAP length keeps the stream aligned for the next request.
void Connection::waitForRequestPause() const {
    if (requestPauseMs <= 0) return;
    std::this_thread::sleep_until(lastExchange + std::chrono::milliseconds(requestPauseMs));
}

int Connection::receiveAnswer(unsigned short sentId, unsigned char* frame, int capacity, FrameSize size,
                              int* err) const {
    const auto deadline = responseDeadline(ctx);
    for (;;) {
        const int received = receiveFrame(frame, capacity, deadline, size, err);
        if (received < 0) return received;
        const int behind = (sentId - wordAt(frame) + kTransactionIdSpace) % kTransactionIdSpace;
        if (behind == 0 || behind > kLateAnswerWindow) {
            lastExchange = std::chrono::steady_clock::now();
            return received;
        }
        if (plugin)
            plugin->logDebug(
                QStringLiteral("Dropped a late answer to request %1 while waiting for request %2")
                    .arg(wordAt(frame))
                    .arg(sentId));
    }
}

int Connection::receiveFrame(unsigned char* frame, int capacity,
                             std::chrono::steady_clock::time_point deadline, FrameSize size, int* err) const {
    const int socket = modbus_get_socket(ctx);
    uint32_t byteSec = 0;
    uint32_t byteUsec = 0;
    modbus_get_byte_timeout(ctx, &byteSec, &byteUsec);
    const auto byteTimeout = std::chrono::seconds(byteSec) + std::chrono::microseconds(byteUsec);
    int received = 0;
    int wanted = size == FrameSize::ByFunction ? kFunctionOffset + 1 : kMbapHeaderLength;
    bool sized = false;
    bool metaRead = false;
    while (received < wanted) {
        if (!waitForSocket(socket, POLLIN, deadline, err)) return -1;
        const ssize_t count = ::recv(socket, frame + received, wanted - received, 0);
        if (count < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            *err = errno;
            return -1;
        }
        if (count == 0) {
            *err = ECONNRESET;
            return -1;
        }
        received += static_cast<int>(count);
        // Like libmodbus, once an answer has begun each further byte gets the byte time-out of its own.
        if (byteTimeout.count() > 0) deadline = std::chrono::steady_clock::now() + byteTimeout;
        if (received < wanted) continue;
        if (size == FrameSize::ByMbapLength && !sized) {
            const int lengthField = (frame[kMbapLengthFieldOffset] << 8) | frame[kMbapLengthFieldOffset + 1];
            if (lengthField < kMinMbapLengthField || lengthField > kMaxMbapLengthField ||
                kMbapPrefixLength + lengthField > capacity) {
                *err = EMBBADDATA;
                return -1;
            }
            wanted = kMbapPrefixLength + lengthField;
            sized = true;
        } else if (size == FrameSize::ByFunction && !sized) {
            wanted += confirmationMetaLength(frame[kFunctionOffset]);
            sized = true;
        } else if (size == FrameSize::ByFunction && !metaRead) {
            wanted += confirmationDataLength(frame[kFunctionOffset], frame[kFunctionOffset + 1]);
            metaRead = true;
        }
        if (wanted > capacity) {
            *err = EMBBADDATA;
            return -1;
        }
    }
    return received;
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
    unsigned char buffer[MODBUS_TCP_MAX_ADU_LENGTH];
    buffer[0] = static_cast<unsigned char>(slaveId);
    std::memcpy(buffer + 1, request.constData(), request.size());

    auto fail = [&](int error) {
        if (err) *err = error;
        if (isBrokenSocket(error)) connected = false;
        flush();
        return -1;
    };
    int sendError = 0;
    if (sendFrame(buffer, request.size() + 1, &sendError) < 0) return fail(sendError);

    unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
    int receiveError = 0;
    const int received =
        receiveAnswer(transactionId, reply, sizeof reply, FrameSize::ByMbapLength, &receiveError);
    if (received < 0) return fail(receiveError);

    const int header = modbus_get_header_length(ctx);
    if (header >= 0 && received >= header + 1) {
        if (response)
            *response = QByteArray(reinterpret_cast<const char*>(reply + header), received - header);
        return received - header;
    }
    if (err) *err = EMBBADDATA;
    return -1;
}

int Connection::transact(const unsigned char* pdu, int length, int expectedReplyPdu, unsigned char* reply,
                         int* err) const {
    unsigned char adu[MODBUS_TCP_MAX_ADU_LENGTH];
    adu[0] = static_cast<unsigned char>(slaveId);
    std::memcpy(adu + 1, pdu, length);
    int error = 0;
    if (sendFrame(adu, length + 1, &error) < 0) {
        setBoth(err, error);
        return -1;
    }
    const unsigned short sentId = transactionId;
    const int received =
        receiveAnswer(sentId, reply, MODBUS_TCP_MAX_ADU_LENGTH, FrameSize::ByFunction, &error);
    if (received < 0) {
        setBoth(err, error);
        return -1;
    }
    // libmodbus 3.1.6 refuses a protocol id only when both of its bytes are set; so does this.
    if (wordAt(reply) != sentId || (reply[2] != 0 && reply[3] != 0)) {
        setBoth(err, EMBBADDATA);
        return -1;
    }
    const int refusal = checkConfirmation(pdu, expectedReplyPdu, reply, received);
    if (refusal != 0) {
        setBoth(err, refusal);
        return -1;
    }
    return received;
}

int Connection::checkConfirmation(const unsigned char* pdu, int expectedReplyPdu, const unsigned char* reply,
                                  int received) {
    // The checks of a libmodbus confirmation, with the same error codes.
    const int function = reply[kFunctionOffset];
    if (function >= kExceptionFlag) {
        if (received == kFunctionOffset + kExceptionReplyPdu && function - kExceptionFlag == pdu[0]) {
            const int code = reply[kFunctionOffset + 1];
            return code < MODBUS_EXCEPTION_MAX ? MODBUS_ENOBASE + code : EMBBADEXC;
        }
        return EMBBADEXC;
    }
    if (received != kFunctionOffset + expectedReplyPdu || function != pdu[0]) return EMBBADDATA;
    int asked = 1;
    int answered = 1;
    if (function == MODBUS_FC_READ_COILS || function == MODBUS_FC_READ_DISCRETE_INPUTS) {
        asked = bytesForBits(wordAt(pdu + 3));
        answered = reply[kFunctionOffset + 1];
    } else if (function == MODBUS_FC_READ_HOLDING_REGISTERS || function == MODBUS_FC_READ_INPUT_REGISTERS) {
        asked = wordAt(pdu + 3);
        answered = reply[kFunctionOffset + 1] / 2;
    } else if (function == MODBUS_FC_WRITE_MULTIPLE_COILS || function == MODBUS_FC_WRITE_MULTIPLE_REGISTERS) {
        asked = wordAt(pdu + 3);
        answered = wordAt(reply + kFunctionOffset + 3);
    }
    return asked == answered ? 0 : EMBBADDATA;
}

Connection::Pipeline Connection::readPipelined(std::vector<PipelinedRead>& reads, int window) {
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
            const bool bits = read.table == OutputCoil || read.table == InputCoil;
            const int function = read.table == OutputCoil        ? MODBUS_FC_READ_COILS
                                 : read.table == InputCoil       ? MODBUS_FC_READ_DISCRETE_INPUTS
                                 : read.table == HoldingRegister ? MODBUS_FC_READ_HOLDING_REGISTERS
                                                                 : MODBUS_FC_READ_INPUT_REGISTERS;
            // Refused here like libmodbus refuses a bad argument: no other table may fall through to FC 4.
            const bool known = isModbusTable(read.table);
            if (!known || read.count > (bits ? MODBUS_MAX_READ_BITS : MODBUS_MAX_READ_REGISTERS)) {
                read.error = known ? EMBMDATA : EINVAL;
                read.answered = true;
                ++next;
                continue;
            }
            InFlight pending{next, 0, Clock::now(), {static_cast<unsigned char>(function)}};
            putWord(pending.pdu + 1, read.address);
            putWord(pending.pdu + 3, read.count);
            unsigned char adu[kReadRequestPdu + 1];
            adu[0] = static_cast<unsigned char>(slaveId);
            std::memcpy(adu + 1, pending.pdu, kReadRequestPdu);
            int error = 0;
            if (sendFrame(adu, sizeof adu, &error) < 0) {
                read.sent = true;
                read.error = error;
                failRest(error);
                if (isBrokenSocket(error)) connected = false;
                return Pipeline::Broken;
            }
            read.sent = true;
            pending.transactionId = transactionId;
            pending.sentAt = Clock::now();
            inFlight.push_back(pending);
            ++next;
        }
        if (inFlight.empty()) break;

        unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
        int error = 0;
        const int received = receiveFrame(reply, sizeof reply, inFlight.front().sentAt + responseTimeout,
                                          FrameSize::ByFunction, &error);
        if (received < 0) {
            failRest(error);
            if (isBrokenSocket(error)) connected = false;
            // No answer in time while requests were in flight: the device may not take them.
            return error == ETIMEDOUT ? Pipeline::Refused : Pipeline::Broken;
        }
        const unsigned short id = static_cast<unsigned short>(wordAt(reply));
        const auto answered = std::find_if(inFlight.begin(), inFlight.end(), [id](const InFlight& pending) {
            return pending.transactionId == id;
        });
        if (answered == inFlight.end()) {
            const int behind = (firstId - id + kTransactionIdSpace) % kTransactionIdSpace;
            if (behind > 0 && behind <= kLateAnswerWindow) continue;  // late answer to an earlier request
            failRest(EMBBADDATA);
            return Pipeline::Refused;
        }
        if (answered != inFlight.begin()) outcome = Pipeline::Refused;  // answered out of order
        PipelinedRead& read = reads[answered->index];
        read.answered = true;
        read.responseMs = std::chrono::duration<double, std::milli>(Clock::now() - answered->sentAt).count();
        const bool bits = read.table == OutputCoil || read.table == InputCoil;
        const int expected = 2 + (bits ? bytesForBits(read.count) : 2 * read.count);
        read.error = (reply[2] != 0 && reply[3] != 0)
                         ? EMBBADDATA
                         : checkConfirmation(answered->pdu, expected, reply, received);
        if (read.error == 0) {
            read.result = read.count;
            for (int i = 0; i < read.count; ++i) {
                if (bits)
                    read.bits[i] = (reply[kFunctionOffset + 2 + i / kBitsPerByte] >> (i % kBitsPerByte)) & 1;
                else
                    read.words[i] = static_cast<unsigned short>(wordAt(reply + kFunctionOffset + 2 + 2 * i));
            }
        }
        inFlight.erase(answered);
        lastExchange = Clock::now();
    }
    return outcome;
}

QString Connection::errToStr(int code) const {
    if (code == -1) return QStringLiteral("Non-bit input type. Input or Output Coil required.");
    if (code == kTimeoutErrno) return QStringLiteral("Timeout");
    return QString::fromLocal8Bit(modbus_strerror(code));
}

bool Connection::setDeviceError(int code) const {
    // Item-level exceptions (illegal address, value, ...) must not mark the whole device faulty.
    const bool deviceLevel = request_discipline::isDeviceLevel(code);
    if (deviceLevel) deviceError = code;
    return deviceLevel;
}
