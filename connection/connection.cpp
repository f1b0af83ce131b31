#include "connection/connection.h"

#include <errno.h>
#include <modbus.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstring>

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

}  // namespace

Connection::Connection(Network const& net, PluginInterface* pluginInterface, int* err)
    : plugin(pluginInterface) {
    // modbus_new_tcp takes only dotted IPv4 text; the _pi variant also resolves host names.
    const QByteArray host = net.host.toLocal8Bit();
    const QByteArray service = QByteArray::number(net.port);
    ctx = modbus_new_tcp_pi(host.constData(), service.constData());
    if (!ctx) return;
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
    if (modbus_connect(ctx) == -1) {
        const int error = errno;
        if (plugin) plugin->logDebug(QStringLiteral("Could not connect: %1").arg(modbus_strerror(error)));
        disconnect();
        *err = error;
        return -1;
    }
    connected = true;
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
    if (ctx) modbus_flush(ctx);
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

bool Connection::setResponseTimeout(unsigned int sec, unsigned int usec) {
    if (!ctx) return false;
    return modbus_set_response_timeout(ctx, sec, usec) == 0;
}

int Connection::readBits(RegisterType type, int addr, int count, unsigned char* dest, int* err) const {
    int result = -1;
    if (type == OutputCoil) {
        result = modbus_read_bits(ctx, addr, count, dest);
    } else if (type == InputCoil) {
        result = modbus_read_input_bits(ctx, addr, count, dest);
    } else {
        if (plugin) plugin->logDebug(QStringLiteral("readBits called with non-bit input type"));
        *err = -1;
    }
    // The non-bit case falls through on purpose: its -1 is replaced by the current errno.
    if (result < 0) {
        *err = errno;
        setDeviceError(errno);
    } else {
        setDeviceError(0);
    }
    return result;
}

int Connection::readWords(RegisterType type, int addr, int count, unsigned short* dest, int* err) const {
    int result = 0;
    if (type == HoldingRegister) {
        result = modbus_read_registers(ctx, addr, count, dest);
    } else if (type == InputRegister) {
        result = modbus_read_input_registers(ctx, addr, count, dest);
    }
    if (result < 0) {
        *err = errno;
        setDeviceError(errno);
    } else {
        setDeviceError(0);
    }
    return result;
}

int Connection::writeBit(int addr, unsigned char value, int* err, bool multiple) const {
    if (plugin)
        plugin->logDebug(
            QStringLiteral("Writing bit. Register: %1 Data: 0x%2").arg(addr).arg(QString::number(value, 16)));
    const int result =
        multiple ? modbus_write_bits(ctx, addr, 1, &value) : modbus_write_bit(ctx, addr, value);
    if (result < 0) {
        const int error = errno;
        if (plugin) plugin->logError(QStringLiteral("Could not write bit: %1").arg(modbus_strerror(error)));
        *err = error;
        setDeviceError(error);
    } else {
        setDeviceError(0);
    }
    return result;
}

int Connection::writeWord(int addr, unsigned short value, int* err) const {
    const int result = modbus_write_register(ctx, addr, value);
    const int error = errno;
    if (plugin)
        plugin->logDebug(QStringLiteral("Writing word. Register: %1 Data: 0x%2 Res: %3")
                             .arg(addr)
                             .arg(QString::number(value, 16))
                             .arg(result));
    if (result < 0) {
        if (plugin) plugin->logError(QStringLiteral("Could not write word: %1").arg(modbus_strerror(error)));
        *err = error;
        setDeviceError(error);
    } else {
        setDeviceError(0);
    }
    return result;
}

int Connection::writeString(int addr, int count, unsigned short const* words, int* err) const {
    if (plugin) plugin->logDebug(QStringLiteral("Writing string. Register: %1").arg(addr));
    const int result = modbus_write_registers(ctx, addr, count, words);
    if (result < 0) {
        const int error = errno;
        if (plugin) plugin->logError(QStringLiteral("Could not write words: %1").arg(modbus_strerror(error)));
        *err = error;
        setDeviceError(error);
    } else {
        setDeviceError(0);
    }
    return result;
}

namespace {

// Waits for the socket until the deadline; false with *err set when it does not become ready.
bool waitForSocket(int socket, short events, std::chrono::steady_clock::time_point deadline, int* err) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
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
int Connection::sendFrame(const unsigned char* adu, int length, int* err) {
    static std::atomic<uint16_t> transactionCounter{0};
    const uint16_t transactionId = ++transactionCounter;
    unsigned char frame[kMbapPrefixLength + MODBUS_TCP_MAX_ADU_LENGTH];
    frame[0] = static_cast<unsigned char>(transactionId >> 8);
    frame[1] = static_cast<unsigned char>(transactionId & 0xFF);
    frame[2] = 0;  // protocol id: Modbus
    frame[3] = 0;
    frame[4] = static_cast<unsigned char>(length >> 8);
    frame[5] = static_cast<unsigned char>(length & 0xFF);
    std::memcpy(frame + kMbapPrefixLength, adu, length);

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
int Connection::receiveFrame(unsigned char* frame, int capacity, int* err) {
    const int socket = modbus_get_socket(ctx);
    const auto deadline = responseDeadline(ctx);
    int received = 0;
    int wanted = kMbapHeaderLength;
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
        if (wanted == kMbapHeaderLength && received >= kMbapHeaderLength) {
            const int lengthField = (frame[kMbapLengthFieldOffset] << 8) | frame[kMbapLengthFieldOffset + 1];
            if (lengthField < kMinMbapLengthField || lengthField > kMaxMbapLengthField ||
                kMbapPrefixLength + lengthField > capacity) {
                *err = EMBBADDATA;
                return -1;
            }
            wanted = kMbapPrefixLength + lengthField;
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
        modbus_flush(ctx);
        return -1;
    };
    int sendError = 0;
    if (sendFrame(buffer, request.size() + 1, &sendError) < 0) return fail(sendError);

    unsigned char reply[MODBUS_TCP_MAX_ADU_LENGTH];
    int receiveError = 0;
    const int received = receiveFrame(reply, sizeof reply, &receiveError);
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

QString Connection::errToStr(int code) const {
    if (code == -1) return QStringLiteral("Non-bit input type. Input or Output Coil required.");
    if (code == kTimeoutErrno) return QStringLiteral("Timeout");
    return QString::fromLocal8Bit(modbus_strerror(code));
}

bool Connection::setDeviceError(int code) const {
    // Item-level exceptions (illegal address, value, ...) must not mark the whole device faulty.
    const bool deviceLevel = code < MODBUS_ENOBASE || code == EMBXSFAIL || code == EMBXSBUSY ||
                             code == EMBXGPATH || code == EMBXGTAR;
    if (deviceLevel) deviceError = code;
    return deviceLevel;
}
