#pragma once
// A small OpenSSL Modbus/TCP Security client for tests: connects over loopback with a given CA, client
// certificate and key, sends MBAP frames and reads answers by their MBAP length. Every failure keeps the
// exact text OpenSSL gives, so tests can assert it.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <QFile>
#include <QString>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>

namespace tls_test {

// Hang guard for what must happen; a loopback handshake takes milliseconds.
constexpr int kTlsWaitMs = 10000;
constexpr int kMbapHeaderLength = 7;
constexpr int kMbapLengthOffset = 4;
constexpr char kTimedOut[] = "timed out";

struct TlsClientSettings {
    QString caFile;           // the authorities the device certificate must chain to; empty: no check at all
    QString certificateFile;  // empty: no client certificate
    QString keyFile;
    QString serverName;  // checked against the device certificate (SSL_set1_host); empty: no name check
    int maxVersion = 0;  // e.g. TLS1_2_VERSION; 0: the newest OpenSSL has
    int timeoutMs = kTlsWaitMs;
};

// OpenSSL writes with write(2): a write to a peer that has gone raises SIGPIPE. Held around every OpenSSL
// call, this keeps the signal from the process and consumes it before the thread's mask is restored.
class PipeSignalBlock {
public:
    PipeSignalBlock() {
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSignal, &previous);
    }
    ~PipeSignalBlock() {
        sigset_t pending;
        sigpending(&pending);
        if (sigismember(&pending, SIGPIPE)) {
            const timespec now = {0, 0};
            sigtimedwait(&pipeSignal, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }
    PipeSignalBlock(const PipeSignalBlock&) = delete;
    PipeSignalBlock& operator=(const PipeSignalBlock&) = delete;

private:
    sigset_t pipeSignal;
    sigset_t previous;
};

class TlsClient {
public:
    explicit TlsClient(const TlsClientSettings& settings) : settings(settings) {}
    ~TlsClient() {
        close();
        if (resumeFrom) SSL_SESSION_free(resumeFrom);
        if (context) SSL_CTX_free(context);
    }
    TlsClient(const TlsClient&) = delete;
    TlsClient& operator=(const TlsClient&) = delete;

    // Offers `session` (from another client's session()) in the next handshake.
    void setSession(SSL_SESSION* session) {
        if (resumeFrom) SSL_SESSION_free(resumeFrom);
        resumeFrom = session;
        if (resumeFrom) SSL_SESSION_up_ref(resumeFrom);
    }
    // The session of the current connection, for resumption (the caller frees it). With TLS 1.3 the ticket
    // arrives after the handshake: read an answer first.
    SSL_SESSION* session() const { return ssl ? SSL_get1_session(ssl) : nullptr; }
    bool resumed() const { return ssl && SSL_session_reused(ssl) == 1; }
    QString version() const { return ssl ? QString::fromLatin1(SSL_get_version(ssl)) : QString(); }

    // TCP connect to 127.0.0.1:port and the TLS handshake; false with error() (and verifyError()) set.
    bool connectTo(uint16_t port) {
        close();
        errorText.clear();
        verifyText.clear();
        if (!context && !makeContext()) return false;
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
            return fail(QStringLiteral("connect: %1").arg(QString::fromLocal8Bit(strerror(errno))));
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        ssl = SSL_new(context);
        SSL_set_fd(ssl, fd);
        if (!settings.serverName.isEmpty()) {
            const QByteArray name = settings.serverName.toLatin1();
            SSL_set_tlsext_host_name(ssl, name.constData());
            SSL_set1_host(ssl, name.constData());
        }
        if (resumeFrom) SSL_set_session(ssl, resumeFrom);
        return drive([this] { return SSL_connect(ssl); });
    }

    // Sends `request` and reads one MBAP answer; empty with error() set when that fails.
    QByteArray exchange(const QByteArray& request) {
        if (!send(request)) return {};
        QByteArray answer = readExact(kMbapHeaderLength);
        if (answer.size() < kMbapHeaderLength) return {};
        const int length = (static_cast<uint8_t>(answer.at(kMbapLengthOffset)) << 8) |
                           static_cast<uint8_t>(answer.at(kMbapLengthOffset + 1));
        if (length > 1) {
            const QByteArray rest = readExact(length - 1);
            if (rest.size() < length - 1) return {};
            answer.append(rest);
        }
        return answer;
    }

    bool send(const QByteArray& bytes) {
        if (!ssl) return fail(QStringLiteral("not connected"));
        size_t written = 0;
        return drive([&] { return SSL_write_ex(ssl, bytes.constData(), bytes.size(), &written); });
    }

    QByteArray readExact(int size) {
        QByteArray bytes(size, '\0');
        int received = 0;
        while (ssl && received < size) {
            size_t n = 0;
            if (!drive([&] { return SSL_read_ex(ssl, bytes.data() + received, size - received, &n); }))
                return bytes.left(received);
            received += static_cast<int>(n);
        }
        return bytes.left(received);
    }

    void close() {
        if (ssl) {
            PipeSignalBlock block;
            SSL_shutdown(ssl);
            SSL_free(ssl);
        }
        ssl = nullptr;
        if (fd >= 0) ::close(fd);
        fd = -1;
        ERR_clear_error();
    }

    // OpenSSL's reason for the last failure (e.g. "certificate verify failed", "wrong version number"),
    // "timed out", or "connection closed" when the peer closed without a TLS alert.
    QString error() const { return errorText; }
    // The certificate check's result text when it failed (e.g. "certificate has expired"), else empty.
    QString verifyError() const { return verifyText; }

private:
    bool makeContext() {
        context = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
        if (settings.maxVersion) SSL_CTX_set_max_proto_version(context, settings.maxVersion);
        if (!settings.caFile.isEmpty()) {
            SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
            if (SSL_CTX_load_verify_locations(context, QFile::encodeName(settings.caFile).constData(),
                                              nullptr) != 1)
                return fail(reason(SSL_ERROR_SSL));
        }
        if (!settings.certificateFile.isEmpty() &&
            (SSL_CTX_use_certificate_chain_file(
                 context, QFile::encodeName(settings.certificateFile).constData()) != 1 ||
             SSL_CTX_use_PrivateKey_file(context, QFile::encodeName(settings.keyFile).constData(),
                                         SSL_FILETYPE_PEM) != 1))
            return fail(reason(SSL_ERROR_SSL));
        return true;
    }

    // Repeats an OpenSSL call until it succeeds, fails for good or the time is up.
    template <typename Call>
    bool drive(Call call) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(settings.timeoutMs);
        for (;;) {
            PipeSignalBlock block;
            ERR_clear_error();
            const int result = call();
            if (result == 1) return true;
            const int sslError = SSL_get_error(ssl, result);
            const short events = sslError == SSL_ERROR_WANT_READ    ? POLLIN
                                 : sslError == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                                    : 0;
            if (events == 0) {
                const long verify = SSL_get_verify_result(ssl);
                if (verify != X509_V_OK)
                    verifyText = QString::fromLatin1(X509_verify_cert_error_string(verify));
                return fail(reason(sslError));
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  deadline - std::chrono::steady_clock::now())
                                  .count();
            pollfd wait = {fd, events, 0};
            if (left <= 0 || ::poll(&wait, 1, static_cast<int>(left)) == 0)
                return fail(QString::fromLatin1(kTimedOut));
        }
    }

    static QString reason(int sslError) {
        const unsigned long code = ERR_peek_last_error();
        const char* text = code ? ERR_reason_error_string(code) : nullptr;
        if (text) return QString::fromLatin1(text);
        if (sslError == SSL_ERROR_ZERO_RETURN || sslError == SSL_ERROR_SYSCALL)
            return QStringLiteral("connection closed");
        return QStringLiteral("TLS error %1").arg(sslError);
    }

    bool fail(const QString& text) {
        errorText = text;
        return false;
    }

    TlsClientSettings settings;
    SSL_CTX* context = nullptr;
    SSL* ssl = nullptr;
    SSL_SESSION* resumeFrom = nullptr;
    int fd = -1;
    QString errorText;
    QString verifyText;
};

}  // namespace tls_test
