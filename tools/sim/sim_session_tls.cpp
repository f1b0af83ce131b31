// The TLS side of a client connection: the handshake, and the session's byte I/O on a non-blocking socket,
// so that the stop pipe and the handshake deadline are seen while OpenSSL waits for bytes.

#include <errno.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <chrono>

#include "tools/sim/sim_state.h"

namespace modbus_sim {

namespace {

using Clock = std::chrono::steady_clock;

int remainingMs(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// The poll events an OpenSSL call that could not go on waits for; 0 when it failed for good.
short awaitedEvents(int sslError) {
    if (sslError == SSL_ERROR_WANT_READ) return POLLIN;
    if (sslError == SSL_ERROR_WANT_WRITE) return POLLOUT;
    return 0;
}

// Why an OpenSSL call failed for good, as OpenSSL's reason text when it gave one.
QString failureReason(int sslError) {
    const unsigned long code = ERR_peek_last_error();
    if (code != 0) {
        const char* reason = ERR_reason_error_string(code);
        if (reason) return QString::fromLatin1(reason);
    }
    if (sslError == SSL_ERROR_ZERO_RETURN || sslError == SSL_ERROR_SYSCALL)
        return QStringLiteral("connection closed");
    return QStringLiteral("TLS error %1").arg(sslError);
}

}  // namespace

bool Session::startConnection() {
    if (tlsFault == TlsFault::StallHandshake) {
        discardUntilClosed();
        return false;
    }
    return !tlsContext || acceptTls();
}

Session::Wait Session::waitForSocket(short events, int timeoutMs) {
    for (;;) {
        pollfd fds[2] = {{fd, events, 0}, {stopFd, POLLIN, 0}};
        const int ready = ::poll(fds, 2, timeoutMs);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return Wait::Stopped;
        }
        if (ready == 0) return Wait::TimedOut;
        if (fds[1].revents != 0) return Wait::Stopped;
        return Wait::Ready;
    }
}

bool Session::acceptTls() {
    // OpenSSL writes with write(2), which has no MSG_NOSIGNAL: a write to a client that has gone would raise
    // SIGPIPE and end the process. Blocked in this thread only, the signal stays pending here and ends with
    // the thread.
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0)
        return handshakeFailed(QStringLiteral("cannot make the socket non-blocking"));
    ERR_clear_error();
    ssl = SSL_new(tlsContext);
    if (!ssl || SSL_set_fd(ssl, fd) != 1) return handshakeFailed(failureReason(SSL_ERROR_SSL));
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kTlsHandshakeTimeoutMs);
    for (;;) {
        ERR_clear_error();
        const int result = SSL_accept(ssl);
        if (result == 1) break;
        const int sslError = SSL_get_error(ssl, result);
        const short events = awaitedEvents(sslError);
        if (events == 0) return handshakeFailed(failureReason(sslError));
        const Wait wait = waitForSocket(events, remainingMs(deadline));
        if (wait == Wait::TimedOut) return handshakeFailed(QStringLiteral("handshake timed out"));
        if (wait == Wait::Stopped) return handshakeFailed(QStringLiteral("simulator stopped"));
    }
    tlsEstablished = true;
    tlsResumed = SSL_session_reused(ssl) == 1;
    authority = clientAuthority(SSL_get0_peer_certificate(ssl));
    std::lock_guard<std::mutex> lock(state->mutex);
    ++state->tlsHandshakes;
    if (tlsResumed) ++state->tlsResumedHandshakes;
    return true;
}

bool Session::handshakeFailed(const QString& reason) {
    std::lock_guard<std::mutex> lock(state->mutex);
    ++state->tlsFailedHandshakes;
    state->tlsHandshakeErrors.push_back(reason);
    return false;
}

Session::Arrival Session::receiveTls(char* data, int size, int quietMs, int* received) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(std::max(quietMs, 0));
    for (;;) {
        size_t n = 0;
        ERR_clear_error();
        const int result = SSL_read_ex(ssl, data, static_cast<size_t>(size), &n);
        if (result == 1) {
            *received = static_cast<int>(n);
            return Arrival::Bytes;
        }
        const short events = awaitedEvents(SSL_get_error(ssl, result));
        if (events == 0) return Arrival::Closed;
        const Wait wait = waitForSocket(events, quietMs < 0 ? -1 : remainingMs(deadline));
        if (wait == Wait::TimedOut) return Arrival::Quiet;
        if (wait == Wait::Stopped) return Arrival::Closed;
    }
}

bool Session::sendTls(const QByteArray& bytes) {
    if (bytes.isEmpty()) return true;
    for (;;) {
        size_t n = 0;
        ERR_clear_error();
        const int result = SSL_write_ex(ssl, bytes.constData(), static_cast<size_t>(bytes.size()), &n);
        if (result == 1) return true;
        const short events = awaitedEvents(SSL_get_error(ssl, result));
        if (events == 0 || waitForSocket(events, -1) != Wait::Ready) return false;
    }
}

void Session::endTls() {
    // One call sends close_notify; the client's own close_notify is not waited for.
    if (ssl && tlsEstablished) SSL_shutdown(ssl);
    ERR_clear_error();
}

}  // namespace modbus_sim
