// The silent endpoint: a listening socket whose accept queue is full and never drained. Linux drops a SYN to
// a listener with a full accept queue before it considers SYN cookies, so no SYN-ACK and no RST ever comes
// back, whatever net.ipv4.tcp_syncookies says.

#include "tools/sim/blackhole_listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace modbus_sim {

namespace {

// Backlog 0 leaves room for one established connection in the accept queue on current kernels; the loop
// below fills whatever room there is.
constexpr int kBacklog = 0;
constexpr int kMaxFillers = 16;
// A loopback handshake completes inside connect() itself; the wait only guards a loaded machine.
constexpr int kFillWaitMs = 5000;
// How long a probe may stay unanswered before the queue counts as full. A probe answered later only adds
// one more filler.
constexpr int kProbeWaitMs = 50;
constexpr uint32_t kLoopbackNet = 0x7F000000;
constexpr uint32_t kLoopbackMask = 0xFF000000;

// A non-blocking connection attempt; -1 when the socket cannot even be made.
int startConnect(const sockaddr_in& address) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
        errno != EINPROGRESS) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Whether the handshake of `fd` completed within `ms`.
bool connectedWithin(int fd, int ms) {
    pollfd wait = {fd, POLLOUT, 0};
    if (::poll(&wait, 1, ms) <= 0) return false;
    int error = 0;
    socklen_t length = sizeof(error);
    return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

}  // namespace

BlackholeListener::~BlackholeListener() {
    stop();
}

bool BlackholeListener::start(const QString& address, uint16_t port, QString* error) {
    stop();
    auto fail = [&](const QString& reason) {
        if (error) *error = reason;
        stop();
        return false;
    };
    sockaddr_in bindAddress{};
    bindAddress.sin_family = AF_INET;
    bindAddress.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.toLatin1().constData(), &bindAddress.sin_addr) != 1)
        return fail(QStringLiteral("not an IPv4 address: %1").arg(address));
    // The trick leaves half-open attempts behind; they belong on loopback only.
    if ((ntohl(bindAddress.sin_addr.s_addr) & kLoopbackMask) != kLoopbackNet)
        return fail(QStringLiteral("not a loopback address: %1").arg(address));
    listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd < 0) return fail(QStringLiteral("socket: %1").arg(strerror(errno)));
    if (::bind(listenFd, reinterpret_cast<sockaddr*>(&bindAddress), sizeof(bindAddress)) != 0)
        return fail(QStringLiteral("bind %1:%2: %3").arg(address).arg(port).arg(strerror(errno)));
    if (::listen(listenFd, kBacklog) != 0) return fail(QStringLiteral("listen: %1").arg(strerror(errno)));
    sockaddr_in bound{};
    socklen_t boundLength = sizeof(bound);
    ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&bound), &boundLength);
    boundPort = ntohs(bound.sin_port);

    for (int i = 0; i < kMaxFillers; ++i) {
        const int fd = startConnect(bound);
        if (fd < 0) return fail(QStringLiteral("connect: %1").arg(strerror(errno)));
        const bool first = fillers.empty();
        if (!connectedWithin(fd, first ? kFillWaitMs : kProbeWaitMs)) {
            ::close(fd);
            if (first)
                return fail(QStringLiteral("the accept queue of port %1 took no connection").arg(boundPort));
            return true;
        }
        fillers.push_back(fd);
    }
    return fail(QStringLiteral("the accept queue of port %1 never filled up").arg(boundPort));
}

void BlackholeListener::stop() {
    for (int fd : fillers) ::close(fd);
    fillers.clear();
    if (listenFd >= 0) ::close(listenFd);
    listenFd = -1;
    boundPort = 0;
}

}  // namespace modbus_sim
