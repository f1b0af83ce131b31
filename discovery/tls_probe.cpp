#include "discovery/tls_probe.h"

#include <QStringList>
#include <algorithm>
#include <chrono>
#include <memory>

#include "connection/tls_stream.h"
#include "discovery/certificate_capture.h"
#include "discovery/mbap_probe.h"
#include "discovery/probe_channel.h"
#include "discovery/socket_io.h"

namespace ModbusDiscovery {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kReceiveChunkSize = 256;

// The alerts a device sends when the client certificate is missing (TLS 1.3: certificate required; TLS 1.2:
// handshake failure) or when it does not take the one it got.
const QStringList kClientCertificateAlerts = {
    QStringLiteral("tlsv13 alert certificate required"),   QStringLiteral("sslv3 alert handshake failure"),
    QStringLiteral("sslv3 alert bad certificate"),         QStringLiteral("sslv3 alert certificate unknown"),
    QStringLiteral("sslv3 alert certificate expired"),     QStringLiteral("sslv3 alert certificate revoked"),
    QStringLiteral("sslv3 alert unsupported certificate"), QStringLiteral("tlsv1 alert unknown ca"),
    QStringLiteral("tlsv1 alert access denied"),
};

Clock::time_point deadlineIn(int timeoutMs) {
    return Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
}

class StreamChannel : public ProbeChannel {
public:
    explicit StreamChannel(ByteStream& stream) : stream(stream) {}

    bool sendAll(const QByteArray& data, int timeoutMs) override {
        int error = 0;
        return stream.sendAll(reinterpret_cast<const unsigned char*>(data.constData()), data.size(),
                              deadlineIn(timeoutMs), &error) == data.size();
    }

    bool recvExact(QByteArray* buffer, int size, int timeoutMs) override {
        if (!buffer || size < 1) {
            return false;
        }
        const Clock::time_point deadline = deadlineIn(timeoutMs);
        unsigned char chunk[kReceiveChunkSize];
        while (buffer->size() < size) {
            int error = 0;
            const int count = stream.receiveSome(chunk, std::min(size - buffer->size(), kReceiveChunkSize),
                                                 deadline, &error);
            if (count <= 0) {
                return false;
            }
            buffer->append(reinterpret_cast<const char*>(chunk), count);
        }
        return true;
    }

private:
    ByteStream& stream;
};

}  // namespace

bool refusesClientCertificate(const QString& failure) {
    return kClientCertificateAlerts.contains(failure);
}

SecureProbe identifyOnTls(const QString& host, quint16 port, const QList<quint8>& unitIds,
                          const TlsSettings& tls, int connectTimeoutMs, int handshakeTimeoutMs,
                          int readTimeoutMs) {
    SecureProbe probe;
    const int fd = connectTcp(host, port, connectTimeoutMs);
    if (fd < 0) {
        return probe;
    }
    const ScopedSocket closer(fd);
    probe.reachable = true;
    std::shared_ptr<TlsEndpoint> endpoint = discoveryEndpoint(tls, &probe.failure);
    if (!endpoint) {
        return probe;
    }
    CertificateCapture capture;
    const std::unique_ptr<TlsStream> stream = TlsStream::handshake(
        fd, std::move(endpoint), tls.serverName, deadlineIn(handshakeTimeoutMs), &probe.failure);
    if (!stream) {
        if (capture.seen() && refusesClientCertificate(probe.failure)) {
            probe.clientCertificateRefused = true;
            const DeviceCertificate certificate = capture.certificate();
            probe.certificateSubject = certificate.subject;
            probe.certificateExpiry = certificate.expiry;
        }
        return probe;
    }
    StreamChannel channel(*stream);
    probe.answers = identifyUnitsOverMbap(channel, unitIds, readTimeoutMs);
    return probe;
}

}  // namespace ModbusDiscovery
