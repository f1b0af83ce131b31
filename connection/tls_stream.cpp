#include "connection/tls_stream.h"

#include <arpa/inet.h>
#include <errno.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <QStringList>
#include <atomic>
#include <climits>

#include "connection/socket_stream.h"
#include "connection/tls_credentials.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDiscardChunk = 512;
constexpr int kIpv4Length = 4;
constexpr int kIpv6Length = 16;
constexpr int kMostDiscarded = 64 * 1024;
constexpr int kErrorTextLength = 256;
// After a TLS 1.3 handshake the device judges the gateway's certificate only once it has the client's last
// flight: its refusal (an alert) or its session tickets come about one round trip later. The handshake's own
// duration is that round trip, measured, taken twice; the margin covers a device (or a loaded machine) slow
// to check a certificate. A device that takes the certificate ends the wait at once with its tickets.
constexpr auto kVerdictMargin = std::chrono::milliseconds(100);

QString fromX509Name(X509_NAME const* name) {
    if (!name) return QString();
    char text[kErrorTextLength] = {};
    X509_NAME_oneline(name, text, sizeof text);
    return QString::fromUtf8(text);
}

QString asn1TimeText(ASN1_TIME const* time) {
    BIO* bio = BIO_new(BIO_s_mem());
    ASN1_TIME_print(bio, time);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    const QString text = QString::fromLatin1(data, static_cast<int>(length));
    BIO_free(bio);
    return text;
}

QString subjectNames(X509* certificate) {
    QStringList names;
    auto* general =
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; general && i < sk_GENERAL_NAME_num(general); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(general, i);
        if (name->type == GEN_DNS) {
            names.append(
                QString::fromUtf8(reinterpret_cast<const char*>(ASN1_STRING_get0_data(name->d.dNSName)),
                                  ASN1_STRING_length(name->d.dNSName)));
        } else if (name->type == GEN_IPADD) {
            const ASN1_OCTET_STRING* ip = name->d.iPAddress;
            const int length = ASN1_STRING_length(ip);
            char text[INET6_ADDRSTRLEN] = {};
            const int family = length == kIpv4Length ? AF_INET : length == kIpv6Length ? AF_INET6 : 0;
            if (family && inet_ntop(family, ASN1_STRING_get0_data(ip), text, sizeof text))
                names.append(QString::fromLatin1(text));
        }
    }
    GENERAL_NAMES_free(general);
    return names.join(QStringLiteral(", "));
}

// Why a handshake failed, in OpenSSL's words: the verification result when the device's certificate did not
// verify, else the reason of the first error queued (an alert, a protocol error).
QString handshakeFailure(SSL* ssl, int sslError) {
    const long verification = SSL_get_verify_result(ssl);
    if (verification != X509_V_OK) return QString::fromUtf8(X509_verify_cert_error_string(verification));
    const unsigned long queued = ERR_peek_error();
    if (queued != 0) {
        const char* reason = ERR_reason_error_string(queued);
        ERR_clear_error();
        if (reason) return QString::fromUtf8(reason);
    }
    if (sslError == SSL_ERROR_ZERO_RETURN || sslError == SSL_ERROR_SYSCALL)
        return QStringLiteral("the device closed the connection during the handshake");
    return QStringLiteral("handshake failed");
}

// OpenSSL writes a socket with write(2): a device that closed the connection would raise SIGPIPE and end the
// whole host. This socket BIO sends with MSG_NOSIGNAL instead and is otherwise OpenSSL's own.
int sendWithoutSignal(BIO* bio, const char* data, int length) {
    int socket = -1;
    BIO_get_fd(bio, &socket);
    errno = 0;
    const ssize_t sent = ::send(socket, data, static_cast<size_t>(length), MSG_NOSIGNAL);
    BIO_clear_retry_flags(bio);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) BIO_set_retry_write(bio);
    return static_cast<int>(sent);
}

BIO_METHOD const* socketWithoutSignal() {
    static BIO_METHOD* const kMethod = [] {
        const BIO_METHOD* base = BIO_s_socket();
        BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR,
                                          "socket without SIGPIPE");
        BIO_meth_set_write(method, sendWithoutSignal);
        BIO_meth_set_read(method, BIO_meth_get_read(base));
        BIO_meth_set_puts(method, BIO_meth_get_puts(base));
        BIO_meth_set_ctrl(method, BIO_meth_get_ctrl(base));
        BIO_meth_set_create(method, BIO_meth_get_create(base));
        BIO_meth_set_destroy(method, BIO_meth_get_destroy(base));
        return method;
    }();
    return kMethod;
}

}  // namespace

TlsStream::TlsStream(SSL* ssl, int socket, std::shared_ptr<TlsEndpoint> endpoint)
    : ssl(ssl), socket(socket), endpoint(std::move(endpoint)) {}

TlsStream::~TlsStream() {
    // Tell the device the session ends, without waiting for its answer: it may be gone.
    SSL_set_quiet_shutdown(ssl, 0);
    SSL_shutdown(ssl);
    ERR_clear_error();
    SSL_free(ssl);
}

bool TlsStream::waitFor(int sslError, Deadline deadline, int* err) const {
    if (sslError != SSL_ERROR_WANT_READ && sslError != SSL_ERROR_WANT_WRITE) {
        *err = ECONNRESET;
        return false;
    }
    return SocketStream::waitFor(socket, sslError == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline, err);
}

std::unique_ptr<TlsStream> TlsStream::handshake(int socket, std::shared_ptr<TlsEndpoint> endpoint,
                                                QString const& serverName, Deadline deadline,
                                                QString* failure) {
    ERR_clear_error();
    SSL* ssl = SSL_new(endpoint->context());
    if (!ssl) {
        *failure = QStringLiteral("cannot start a session");
        return nullptr;
    }
    std::unique_ptr<TlsStream> stream(new TlsStream(ssl, socket, endpoint));
    BIO* bio = BIO_new(socketWithoutSignal());
    if (!bio) {
        *failure = QStringLiteral("cannot start a session");
        return nullptr;
    }
    BIO_set_fd(bio, socket, BIO_NOCLOSE);
    SSL_set_bio(ssl, bio, bio);
    const QString name = serverName.trimmed();
    if (!name.isEmpty()) {
        const QByteArray text = name.toUtf8();
        unsigned char address[kIpv6Length];
        if (inet_pton(AF_INET, text.constData(), address) == 1 ||
            inet_pton(AF_INET6, text.constData(), address) == 1) {
            X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), text.constData());
        } else {
            SSL_set_tlsext_host_name(ssl, text.constData());
            SSL_set1_host(ssl, text.constData());
        }
    }
    SSL_SESSION* session = endpoint->sessionToResume();
    if (session) {
        SSL_set_session(ssl, session);
        SSL_SESSION_free(session);
    }
    const auto started = Clock::now();
    for (;;) {
        const int result = SSL_connect(ssl);
        if (result == 1) break;
        const int sslError = SSL_get_error(ssl, result);
        int waitError = 0;
        if (sslError == SSL_ERROR_WANT_READ || sslError == SSL_ERROR_WANT_WRITE) {
            if (stream->waitFor(sslError, deadline, &waitError)) continue;
            *failure = QStringLiteral("no handshake within the connect time-out");
        } else {
            *failure = handshakeFailure(ssl, sslError);
        }
        // A session the device no longer takes must not fail the next attempt too.
        if (session) endpoint->keepSession(nullptr);
        return nullptr;
    }
    if (SSL_version(ssl) >= TLS1_3_VERSION && !SSL_session_reused(ssl)) {
        // Wait for the device's verdict on the gateway's certificate: a refusal arrives as an alert. A
        // resumed session was judged when it was made.
        const auto roundTrip = Clock::now() - started;
        const auto verdictBy = std::min(deadline, Clock::now() + 2 * roundTrip + kVerdictMargin);
        unsigned char peek = 0;
        int waitError = 0;
        std::atomic<bool> sessionOffered{false};
        TlsEndpoint::watchForSession(ssl, &sessionOffered);
        // What was read ahead with the handshake's last record is looked at before the socket is waited on.
        bool buffered = SSL_has_pending(ssl) == 1;
        while (buffered || SocketStream::waitFor(socket, POLLIN, verdictBy, &waitError)) {
            buffered = false;
            const int peeked = SSL_peek(ssl, &peek, 1);
            if (peeked > 0) break;
            const int sslError = SSL_get_error(ssl, peeked);
            // A session ticket: the device took the certificate.
            if (sslError == SSL_ERROR_WANT_READ && sessionOffered) break;
            if (sslError == SSL_ERROR_WANT_READ) continue;
            TlsEndpoint::watchForSession(ssl, nullptr);
            *failure = handshakeFailure(ssl, sslError);
            return nullptr;
        }
        TlsEndpoint::watchForSession(ssl, nullptr);
    }
    TlsHandshake& details = stream->details;
    details.resumed = SSL_session_reused(ssl) == 1;
    details.protocol = QString::fromLatin1(SSL_get_version(ssl));
    details.cipher = QString::fromLatin1(SSL_get_cipher_name(ssl));
    X509* device = SSL_get1_peer_certificate(ssl);
    details.deviceCertificateDaysLeft = daysUntilExpiry(device);
    if (device) {
        details.subject = fromX509Name(X509_get_subject_name(device));
        details.issuer = fromX509Name(X509_get_issuer_name(device));
        details.names = subjectNames(device);
        details.expiry = asn1TimeText(X509_get0_notAfter(device));
        X509_free(device);
    }
    ERR_clear_error();
    return stream;
}

int TlsStream::sendAll(const unsigned char* data, int length, Deadline deadline, int* err) {
    int sent = 0;
    while (sent < length) {
        size_t written = 0;
        if (SSL_write_ex(ssl, data + sent, static_cast<size_t>(length - sent), &written) == 1) {
            sent += static_cast<int>(written);
            continue;
        }
        const int sslError = SSL_get_error(ssl, 0);
        ERR_clear_error();
        if (!waitFor(sslError, deadline, err)) return -1;
    }
    return sent;
}

int TlsStream::receiveSome(unsigned char* data, int capacity, Deadline deadline, int* err) {
    for (;;) {
        size_t read = 0;
        if (SSL_read_ex(ssl, data, static_cast<size_t>(capacity), &read) == 1) return static_cast<int>(read);
        const int sslError = SSL_get_error(ssl, 0);
        ERR_clear_error();
        if (sslError == SSL_ERROR_ZERO_RETURN) {
            *err = ECONNRESET;
            return -1;
        }
        if (!waitFor(sslError, deadline, err)) return -1;
    }
}

int TlsStream::discardWaiting() {
    unsigned char discard[kDiscardChunk];
    int total = 0;
    // Only what is already decrypted or already on the socket: never wait.
    while (total < kMostDiscarded) {
        pollfd descriptor{socket, POLLIN, 0};
        if (!SSL_has_pending(ssl) && ::poll(&descriptor, 1, 0) <= 0) break;
        size_t read = 0;
        if (SSL_read_ex(ssl, discard, sizeof discard, &read) != 1) {
            ERR_clear_error();
            break;
        }
        total += static_cast<int>(read);
    }
    return total;
}

void TlsStream::releaseBuffers() {
    // Kept through a batch (allocating them again for every record costs more than the encryption), freed
    // between batches, so that many idle devices stay cheap. Refused while a record is half read.
    SSL_free_buffers(ssl);
}
