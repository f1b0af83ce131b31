#include "connection/socket_stream.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kDiscardChunk = 512;
// A peer that never stops sending must not hold the caller here.
constexpr int kMostDiscarded = 64 * 1024;

int millisecondsUntil(SocketStream::Deadline deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits for a connect in progress on `socket`; the socket's own error, 0 when connected.
int finishConnect(int socket, SocketStream::Deadline deadline) {
    pollfd descriptor{socket, POLLOUT, 0};
    int ready = 0;
    for (;;) {
        ready = ::poll(&descriptor, 1, millisecondsUntil(deadline));
        if (ready >= 0 || errno != EINTR) break;
    }
    if (ready == 0) return EINPROGRESS;  // did not finish in time, as libmodbus reports it
    if (ready < 0) return errno;
    int socketError = 0;
    socklen_t size = sizeof socketError;
    if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &socketError, &size) != 0) return ECONNREFUSED;
    return socketError;
}

}  // namespace

int SocketStream::connectTcp(QByteArray const& host, QByteArray const& service, int timeoutMs, int* err) {
    addrinfo hints{};
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    const Deadline deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    addrinfo* addresses = nullptr;
    if (::getaddrinfo(host.constData(), service.constData(), &hints, &addresses) != 0) {
        *err = ECONNREFUSED;
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
            // The socket's own error: an unreachable host must not read as a refused connection.
            error = finishConnect(socket, deadline);
            if (error == 0) {
                connectedSocket = socket;
                break;
            }
        }
        ::close(socket);
    }
    ::freeaddrinfo(addresses);
    if (connectedSocket < 0) *err = error;
    return connectedSocket;
}

bool SocketStream::waitFor(int socket, short events, Deadline deadline, int* err) {
    for (;;) {
        pollfd descriptor{socket, events, 0};
        const int ready = ::poll(&descriptor, 1, millisecondsUntil(deadline));
        if (ready > 0) return true;
        if (ready < 0 && errno == EINTR) continue;
        *err = ready < 0 ? errno : ETIMEDOUT;
        return false;
    }
}

int SocketStream::sendAll(const unsigned char* data, int length, Deadline deadline, int* err) {
    int sent = 0;
    while (sent < length) {
        if (!waitFor(socket, POLLOUT, deadline, err)) return -1;
        const ssize_t count = ::send(socket, data + sent, static_cast<size_t>(length - sent), MSG_NOSIGNAL);
        if (count < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            *err = errno;
            return -1;
        }
        sent += static_cast<int>(count);
    }
    return sent;
}

int SocketStream::receiveSome(unsigned char* data, int capacity, Deadline deadline, int* err) {
    for (;;) {
        if (!waitFor(socket, POLLIN, deadline, err)) return -1;
        const ssize_t count = ::recv(socket, data, static_cast<size_t>(capacity), 0);
        if (count > 0) return static_cast<int>(count);
        if (count == 0) {
            *err = ECONNRESET;
            return -1;
        }
        if (errno == EINTR || errno == EAGAIN) continue;
        *err = errno;
        return -1;
    }
}

int SocketStream::discardWaiting() {
    if (socket < 0) return 0;
    unsigned char discard[kDiscardChunk];
    int total = 0;
    while (total < kMostDiscarded) {
        const ssize_t count = ::recv(socket, discard, sizeof discard, MSG_DONTWAIT);
        if (count <= 0) break;
        total += static_cast<int>(count);
    }
    return total;
}
