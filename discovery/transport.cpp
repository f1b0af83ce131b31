#include "discovery/transport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "discovery/constants.h"
#include "discovery/frames.h"
#include "discovery/identification.h"
#include "discovery/identification_internal.h"

namespace ModbusDiscovery {

namespace {

// MBAP header up to and including the length field: transaction id (2), protocol id (2), length (2).
constexpr int kMbapPrefixSize = 6;
constexpr int kMbapLengthOffset = 4;
// The length counts the unit id plus the PDU: at least a function code, at most the 253-byte PDU.
constexpr int kMbapMinLength = 2;
constexpr int kMbapMaxLength = 260;
constexpr int kRecvChunkSize = 256;

// Read Device Identification codes: basic and regular object categories.
constexpr unsigned char kReadDeviceIdBasic = 1;
constexpr unsigned char kReadDeviceIdRegular = 2;
// A device whose objects keep saying "more follows" is not asked again after this many requests.
constexpr int kMaxDeviceIdRequests = 4;
// Gateways often answer only on this unit id; it is tried when nothing else answered.
constexpr quint8 kGatewayUnitId = 255;

const QString kSourceDeviceId = QStringLiteral("device-id");
const QString kSourceSlaveId = QStringLiteral("slave-id");
const QString kSourceException = QStringLiteral("exception");

// Milliseconds passed since a steady-clock start point.
class Stopwatch {
public:
    Stopwatch() : start(std::chrono::steady_clock::now()) {}
    long long elapsedMs() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count();
    }

private:
    std::chrono::steady_clock::time_point start;
};

int pollFd(int fd, short events, int timeoutMs) {
    if (fd < 0) {
        return -1;
    }
    pollfd entry{};
    entry.fd = fd;
    entry.events = events;
    return ::poll(&entry, 1, timeoutMs > 0 ? timeoutMs : 0);
}

int connectTcp(const QString& host, quint16 port, int timeoutMs) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        return -1;
    }
    const int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        ::close(fd);
        return -1;
    }
    // Every exchange is one small request and one small answer: do not let Nagle hold them back.
    const int noDelay = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    // Only dotted IPv4 literals: a scan must never wait on name resolution.
    const QByteArray hostText = host.toUtf8();
    // inet_pton stops at a NUL; a text with one inside is not an address, whatever comes before it.
    if (hostText.contains('\0') || ::inet_pton(AF_INET, hostText.constData(), &address.sin_addr) != 1) {
        ::close(fd);
        return -1;
    }
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        return fd;
    }
    if (errno != EINPROGRESS) {
        ::close(fd);
        return -1;
    }
    if (pollFd(fd, POLLOUT, timeoutMs) < 1) {
        ::close(fd);
        return -1;
    }
    int pendingError = 0;
    socklen_t length = sizeof(pendingError);
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &pendingError, &length) != 0 || pendingError != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool sendAll(int fd, const QByteArray& data, int timeoutMs) {
    const Stopwatch clock;
    int sent = 0;
    while (sent < data.size()) {
        const long long remaining = timeoutMs - clock.elapsedMs();
        if (remaining < 1) {
            return false;
        }
        if (pollFd(fd, POLLOUT, static_cast<int>(remaining)) < 1) {
            return false;
        }
        // MSG_NOSIGNAL: a peer that has gone away gives an error here, never SIGPIPE in the host process.
        const ssize_t count =
            ::send(fd, data.constData() + sent, static_cast<size_t>(data.size() - sent), MSG_NOSIGNAL);
        if (count >= 0) {
            sent += static_cast<int>(count);
        } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            return false;
        }
    }
    return true;
}

bool recvExact(int fd, QByteArray* buffer, int size, int timeoutMs) {
    if (!buffer || size < 1) {
        return false;
    }
    const Stopwatch clock;
    char chunk[kRecvChunkSize];
    while (true) {
        if (buffer->size() >= size) {
            return true;
        }
        const long long remaining = timeoutMs - clock.elapsedMs();
        if (remaining < 1) {
            return false;
        }
        if (pollFd(fd, POLLIN, static_cast<int>(remaining)) < 1) {
            return false;
        }
        const int wanted = qMin(size - buffer->size(), kRecvChunkSize);
        const ssize_t count = ::recv(fd, chunk, static_cast<size_t>(wanted), 0);
        if (count > 0) {
            buffer->append(chunk, static_cast<int>(count));
        } else if (count == 0) {
            return false;  // the peer closed the connection
        } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            return false;
        }
    }
}

QByteArray readMbapFrame(int fd, int timeoutMs) {
    QByteArray header;
    if (!recvExact(fd, &header, kMbapPrefixSize, timeoutMs)) {
        return QByteArray();
    }
    const int length = (static_cast<quint8>(header.at(kMbapLengthOffset)) << 8) |
                       static_cast<quint8>(header.at(kMbapLengthOffset + 1));
    if (length < kMbapMinLength || length > kMbapMaxLength) {
        return QByteArray();
    }
    QByteArray body;
    if (!recvExact(fd, &body, length, timeoutMs)) {
        return QByteArray();
    }
    return header + body;
}

IdentifyResult exchangeConnected(int fd, quint8 unitId, const QByteArray& pdu, quint8 expectedFc,
                                 int timeoutMs, quint16* transactionId) {
    if (fd < 0) {
        return IdentifyResult();
    }
    quint16 transaction = 1;
    if (transactionId) {
        transaction = (*transactionId)++;
    }
    if (!sendAll(fd, wrapMbap(transaction, unitId, pdu), timeoutMs)) {
        return IdentifyResult();
    }
    const QByteArray frame = readMbapFrame(fd, timeoutMs);
    quint16 answerTransaction = 0;
    unsigned char answerUnit = 0;
    QByteArray answerPdu;
    if (!parseMbap(frame, &answerTransaction, &answerUnit, &answerPdu)) {
        return IdentifyResult();
    }
    // The next frame on the connection is the answer: devices that echo a wrong transaction or unit id
    // are still Modbus servers worth reporting.
    return resultFromPdu(unitId, expectedFc, answerPdu);
}

bool collectDeviceId(int fd, quint8 unitId, quint8 readCode, int timeoutMs, quint16* transactionId,
                     IdentifyResult* target, bool* responded) {
    unsigned char objectId = 0;
    for (int request = 0; request < kMaxDeviceIdRequests; ++request) {
        const IdentifyResult answer = exchangeConnected(fd, unitId, readDeviceIdPdu(readCode, objectId),
                                                        kFcMei, timeoutMs, transactionId);
        if (!answer.ok) {
            return false;
        }
        if (responded) {
            *responded = true;
        }
        if (answer.source == kSourceException) {
            return false;
        }
        mergeIdentify(target, answer);
        if (!answer.moreFollows) {
            return hasMetadata(*target) || target->ok;
        }
        objectId = answer.nextObjectId;
    }
    return hasMetadata(*target);
}

IdentifyResult probeConnected(int fd, quint8 unitId, int timeoutMs, quint16* transactionId) {
    IdentifyResult result;
    result.unitId = unitId;
    bool responded = false;

    // Both categories always run: some devices keep the model name in the regular objects only.
    (void)collectDeviceId(fd, unitId, kReadDeviceIdBasic, timeoutMs, transactionId, &result, &responded);
    (void)collectDeviceId(fd, unitId, kReadDeviceIdRegular, timeoutMs, transactionId, &result, &responded);
    if (hasMetadata(result)) {
        result.ok = true;
        result.source = kSourceDeviceId;
        return result;
    }

    const IdentifyResult slaveId =
        exchangeConnected(fd, unitId, reportSlaveIdPdu(), kFcReportSlaveId, timeoutMs, transactionId);
    if (slaveId.ok) {
        responded = true;
        mergeIdentify(&result, slaveId);
        if (hasMetadata(result)) {
            result.ok = true;
            if (result.source.isEmpty()) {
                result.source = kSourceSlaveId;
            }
            return result;
        }
    }

    if (!responded) {
        // Nothing spoke yet: a plain read tells a Modbus server from a silent port.
        const IdentifyResult holding = exchangeConnected(fd, unitId, readHoldingRegistersPdu(),
                                                         kFcReadHolding, timeoutMs, transactionId);
        if (holding.ok) {
            return holding;
        }
        const IdentifyResult coil =
            exchangeConnected(fd, unitId, readCoilsPdu(), kFcReadCoils, timeoutMs, transactionId);
        if (coil.ok) {
            return coil;
        }
        return IdentifyResult();
    }

    // The unit answered, if only with exceptions: it is a Modbus server without identification.
    result.ok = true;
    if (result.source.isEmpty()) {
        result.source = kSourceException;
    }
    return result;
}

QList<IdentifyResult> identifyOnTcp(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                    int connectTimeoutMs, int readTimeoutMs, bool* reachable) {
    if (reachable) {
        *reachable = false;
    }
    QList<IdentifyResult> results;
    const int fd = connectTcp(host, port, connectTimeoutMs);
    if (fd < 0) {
        return results;
    }
    // Closes the socket on every way out, an exception from the list included.
    struct SocketCloser {
        int fd;
        ~SocketCloser() { ::close(fd); }
    } closer{fd};
    if (reachable) {
        *reachable = true;
    }
    QList<quint8> units = unitIds;
    if (units.isEmpty()) {
        units.append(static_cast<quint8>(kDefaultUnitId));
    }
    quint16 transactionId = 1;
    for (const quint8 unit : units) {
        const IdentifyResult result = probeConnected(fd, unit, readTimeoutMs, &transactionId);
        if (result.ok) {
            results.append(result);
        }
    }
    if (results.isEmpty() && !units.contains(kGatewayUnitId)) {
        const IdentifyResult result = probeConnected(fd, kGatewayUnitId, readTimeoutMs, &transactionId);
        if (result.ok) {
            results.append(result);
        }
    }
    return results;
}

}  // namespace

QList<IdentifyResult> QtTransport::tcpIdentify(const QString& host, quint16 port,
                                               const QList<quint8>& unitIds, int connectTimeoutMs,
                                               int readTimeoutMs, bool* reachable) {
    return identifyOnTcp(host, port, unitIds, connectTimeoutMs, readTimeoutMs, reachable);
}

QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                  int connectTimeoutMs, int readTimeoutMs, bool* reachable) {
    return identifyOnTcp(host, port, unitIds, connectTimeoutMs, readTimeoutMs, reachable);
}

}  // namespace ModbusDiscovery
