#include "discovery/socket_io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace ModbusDiscovery {

namespace {

constexpr int kRecvChunkSize = 256;
// A peer that streams without pause must not hold the discarding forever; what is left over is skipped later
// as bytes that are no answer.
constexpr int kMaxDiscardedChunks = 64;

bool retryable(int error) {
    return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

ScopedSocket::~ScopedSocket() {
    if (fd >= 0) {
        ::close(fd);
    }
}

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
        } else if (!retryable(errno)) {
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
        } else if (!retryable(errno)) {
            return false;
        }
    }
}

bool recvSome(int fd, QByteArray* buffer, int timeoutMs) {
    if (!buffer) {
        return false;
    }
    const Stopwatch clock;
    char chunk[kRecvChunkSize];
    while (true) {
        const long long remaining = timeoutMs - clock.elapsedMs();
        if (remaining < 1) {
            return false;
        }
        if (pollFd(fd, POLLIN, static_cast<int>(remaining)) < 1) {
            return false;
        }
        const ssize_t count = ::recv(fd, chunk, sizeof(chunk), 0);
        if (count > 0) {
            buffer->append(chunk, static_cast<int>(count));
            return true;
        }
        if (count == 0 || !retryable(errno)) {
            return false;
        }
    }
}

bool discardPending(int fd) {
    char chunk[kRecvChunkSize];
    int chunks = 0;
    while (chunks < kMaxDiscardedChunks) {
        const ssize_t count = ::recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT);
        if (count > 0) {
            ++chunks;
            continue;
        }
        if (count == 0) {
            return false;  // the peer closed the connection
        }
        if (errno == EINTR) {
            continue;
        }
        return errno == EAGAIN || errno == EWOULDBLOCK;
    }
    return true;
}

}  // namespace ModbusDiscovery
