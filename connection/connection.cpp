#include "connection/connection.h"

#include <errno.h>
#include <modbus.h>

#include <chrono>

#include "connection/request_discipline.h"
#include "connection/rtu_framing.h"
#include "connection/socket_stream.h"
#include "host/plugin_interface.h"

namespace {

constexpr int kTimeoutErrno = EINPROGRESS;  // an operation that did not complete in time
constexpr int kMicrosecondsPerMs = 1000;
constexpr int kMsPerSecond = 1000;
// Added to the request pause before the first request of a connection.
constexpr int kConnectPauseMarginMs = 5;

// A unit libmodbus takes on a TCP context may still be none a serial device can have.
bool addressable(Transport transport, int unit) {
    return transport != Transport::RtuOverTcp || (unit >= 0 && unit <= rtu_framing::kMaxUnit);
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
    transport = net.transport;
    tls = net.tls;
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
    std::swap(transport, other.transport);
    std::swap(lateAnswer, other.lateAnswer);
    std::swap(tls, other.tls);
    std::swap(stream, other.stream);
    std::swap(handshake, other.handshake);
    std::swap(clientCertificateDaysLeft, other.clientCertificateDaysLeft);
    std::swap(tlsFailure, other.tlsFailure);
    return *this;
}

Connection::~Connection() {
    disconnect();
}

int Connection::connect(int slave, int* err) {
    slaveId = slave < 0 ? 1 : slave;
    if (modbus_set_slave(ctx, slaveId) == -1 || !addressable(transport, slaveId)) {
        const int error = addressable(transport, slaveId) ? errno : EINVAL;
        if (plugin)
            plugin->logDebug(
                QStringLiteral("Could not set server ID to %1: %2").arg(slave).arg(modbus_strerror(error)));
        disconnect();
        *err = error;
        return -1;
    }
    // The time-out covers the whole attempt: name resolution, TCP and the TLS handshake.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(connectTimeoutMs);
    const int socket = SocketStream::connectTcp(host, service, connectTimeoutMs, err);
    if (socket < 0) {
        errno = *err;
        if (plugin) plugin->logDebug(QStringLiteral("Could not connect: %1").arg(modbus_strerror(*err)));
        disconnect();
        return -1;
    }
    modbus_set_socket(ctx, socket);
    if (transport == Transport::ModbusTcpSecurity) {
        if (!startTls(socket, deadline, err)) {
            if (plugin) plugin->logDebug(QStringLiteral("Could not connect: %1").arg(errToStr(*err)));
            disconnect();
            return -1;
        }
    } else {
        stream = std::make_unique<SocketStream>(socket);
    }
    connected = true;
    // The device counts from the moment the connection reached it, a little after connect() returned here.
    lastExchange = std::chrono::steady_clock::now() + std::chrono::milliseconds(kConnectPauseMarginMs);
    return 0;
}

bool Connection::setSlave(int unit) {
    if (!ctx || !addressable(transport, unit) || modbus_set_slave(ctx, unit) == -1) return false;
    slaveId = unit;
    return true;
}

bool Connection::startTls(int socket, std::chrono::steady_clock::time_point deadline, int* err) {
    const QString target = QString::fromLocal8Bit(host) + QLatin1Char(':') + QString::fromLatin1(service);
    QStringList warnings;
    std::shared_ptr<TlsEndpoint> endpoint = TlsEndpoint::forTarget(target, tls, &tlsFailure, &warnings);
    if (plugin)
        for (QString const& warning : warnings) plugin->logWarning(warning);
    if (!endpoint) {
        *err = kTlsSetupFailure;
        return false;
    }
    clientCertificateDaysLeft = endpoint->clientCertificateDaysLeft();
    std::unique_ptr<TlsStream> session =
        TlsStream::handshake(socket, std::move(endpoint), tls.serverName, deadline, &tlsFailure);
    if (!session) {
        *err = kTlsFailure;
        return false;
    }
    handshake = std::make_unique<TlsHandshake>(session->established());
    stream = std::move(session);
    return true;
}

void Connection::disconnect() {
    // A TLS session says goodbye on the socket before the socket goes.
    stream.reset();
    if (ctx) {
        modbus_close(ctx);
        modbus_free(ctx);
        ctx = nullptr;
    }
    connected = false;
}

int Connection::socket() const {
    return ctx ? modbus_get_socket(ctx) : -1;
}

void Connection::flush() {
    // What libmodbus's flush does, without its select().
    if (stream) stream->discardWaiting();
}

void Connection::releaseIdleBuffers() {
    if (stream) stream->releaseBuffers();
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

std::chrono::steady_clock::time_point Connection::responseDeadline() const {
    uint32_t sec = 0;
    uint32_t usec = 0;
    modbus_get_response_timeout(ctx, &sec, &usec);
    return std::chrono::steady_clock::now() + std::chrono::seconds(sec) + std::chrono::microseconds(usec);
}

std::chrono::microseconds Connection::byteTimeout() const {
    uint32_t sec = 0;
    uint32_t usec = 0;
    modbus_get_byte_timeout(ctx, &sec, &usec);
    return std::chrono::seconds(sec) + std::chrono::microseconds(usec);
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

QString Connection::errToStr(int code) const {
    if (code == -1) return QStringLiteral("Non-bit input type. Input or Output Coil required.");
    if (code == kTlsFailure) return QStringLiteral("TLS: ") + tlsFailure;
    if (code == kTlsSetupFailure) return tlsFailure;
    if (code == kTimeoutErrno) return QStringLiteral("Timeout");
    return QString::fromLocal8Bit(modbus_strerror(code));
}

bool Connection::setDeviceError(int code) const {
    // Item-level exceptions (illegal address, value, ...) must not mark the whole device faulty.
    const bool deviceLevel = request_discipline::isDeviceLevel(code);
    if (deviceLevel) deviceError = code;
    return deviceLevel;
}
