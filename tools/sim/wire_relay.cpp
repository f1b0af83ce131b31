// The slow wire: one accepting thread, and per relayed connection one thread per direction that reads chunks
// as they come and hands each on when its latency has passed.

#include "tools/sim/wire_relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace modbus_sim {

namespace {

using Clock = std::chrono::steady_clock;

// One read from a socket; Modbus frames are at most 260 bytes, so a read rarely holds more than a few.
constexpr size_t kChunkBytes = 4096;
// A direction whose receiver does not keep up stops reading at this much held back, so memory stays bounded.
constexpr size_t kMaxQueuedBytes = 1 << 20;
constexpr int kListenBacklog = 16;

struct Chunk {
    Clock::time_point due;
    std::vector<char> bytes;
};

void closeFd(int* fd) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
}

void setNoDelay(int fd) {
    // A chunk is due as a whole: Nagle's algorithm would hold a small one back until the last is
    // acknowledged.
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

bool sendAll(int fd, const std::vector<char>& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t written = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        sent += static_cast<size_t>(written);
    }
    return true;
}

timespec until(Clock::time_point due, Clock::time_point now) {
    const auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(due - now);
    const long long nanoseconds = std::max<long long>(0, wait.count());
    timespec spec{};
    spec.tv_sec = static_cast<time_t>(nanoseconds / 1000000000LL);
    spec.tv_nsec = static_cast<long>(nanoseconds % 1000000000LL);
    return spec;
}

// Moves bytes from `from` to `to`, each chunk `oneWay` after it was read, until `from` ends and everything
// read has been delivered (then `to` is shut for writing, so the end travels on too), `to` fails, or the
// stop pipe becomes readable.
void pump(int from, int to, int stopFd, std::chrono::microseconds oneWay) {
    std::deque<Chunk> queue;
    size_t queuedBytes = 0;
    bool readOpen = true;
    std::vector<char> buffer(kChunkBytes);
    for (;;) {
        Clock::time_point now = Clock::now();
        while (!queue.empty() && queue.front().due <= now) {
            if (!sendAll(to, queue.front().bytes)) {
                // The receiver is gone: the sender must learn it too.
                ::shutdown(from, SHUT_RDWR);
                return;
            }
            queuedBytes -= queue.front().bytes.size();
            queue.pop_front();
        }
        if (!readOpen && queue.empty()) {
            ::shutdown(to, SHUT_WR);
            return;
        }
        timespec timeout{};
        timespec* wait = nullptr;
        if (!queue.empty()) {
            timeout = until(queue.front().due, now);
            wait = &timeout;
        }
        const bool reading = readOpen && queuedBytes < kMaxQueuedBytes;
        pollfd fds[2] = {{reading ? from : -1, POLLIN, 0}, {stopFd, POLLIN, 0}};
        const int ready = ::ppoll(fds, 2, wait, nullptr);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if (fds[0].revents == 0) continue;
        const ssize_t received = ::recv(from, buffer.data(), buffer.size(), 0);
        if (received > 0) {
            queue.push_back(
                Chunk{Clock::now() + oneWay, std::vector<char>(buffer.data(), buffer.data() + received)});
            queuedBytes += static_cast<size_t>(received);
        } else if (received == 0 || (errno != EINTR && errno != EAGAIN)) {
            // An end or a reset: what was read still goes out, then the end.
            readOpen = false;
        }
    }
}

int connectToTarget(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(port);
    target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&target), sizeof(target)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

struct WireRelay::State {
    struct Link {
        int clientFd = -1;
        int targetFd = -1;
        std::thread up;
        std::thread down;
        std::atomic<int> pumpsRunning{2};
    };

    int listenFd = -1;
    int stopPipe[2] = {-1, -1};
    uint16_t port = 0;
    uint16_t targetPort = 0;
    std::chrono::microseconds oneWay{0};
    std::thread acceptThread;
    std::list<std::unique_ptr<Link>> links;  // only the accepting thread touches it while running
    std::atomic<int> relayed{0};

    void acceptLoop();
    void startLink(int clientFd, int targetFd);
    void reapLinks(bool all);
};

void WireRelay::State::acceptLoop() {
    for (;;) {
        pollfd fds[2] = {{listenFd, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & POLLIN) == 0) {
            if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) return;
            continue;
        }
        int clientFd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (clientFd < 0) continue;
        reapLinks(false);
        if (links.size() >= static_cast<size_t>(kMaxRelayConnections)) {
            closeFd(&clientFd);
            continue;
        }
        int targetFd = connectToTarget(targetPort);
        if (targetFd < 0) {
            // No target: the client sees its connection end, as it would with a gateway that lost its line.
            closeFd(&clientFd);
            continue;
        }
        startLink(clientFd, targetFd);
    }
}

void WireRelay::State::startLink(int clientFd, int targetFd) {
    setNoDelay(clientFd);
    setNoDelay(targetFd);
    links.push_back(std::make_unique<Link>());
    Link* link = links.back().get();
    link->clientFd = clientFd;
    link->targetFd = targetFd;
    const int stopFd = stopPipe[0];
    const std::chrono::microseconds latency = oneWay;
    link->up = std::thread([link, stopFd, latency] {
        pump(link->clientFd, link->targetFd, stopFd, latency);
        --link->pumpsRunning;
    });
    link->down = std::thread([link, stopFd, latency] {
        pump(link->targetFd, link->clientFd, stopFd, latency);
        --link->pumpsRunning;
    });
    ++relayed;
}

void WireRelay::State::reapLinks(bool all) {
    for (auto it = links.begin(); it != links.end();) {
        Link& link = **it;
        if (!all && link.pumpsRunning.load() != 0) {
            ++it;
            continue;
        }
        // Shutting both sockets wakes a pump blocked in a send to a receiver that stopped reading.
        ::shutdown(link.clientFd, SHUT_RDWR);
        ::shutdown(link.targetFd, SHUT_RDWR);
        link.up.join();
        link.down.join();
        closeFd(&link.clientFd);
        closeFd(&link.targetFd);
        it = links.erase(it);
    }
}

WireRelay::WireRelay() : state(std::make_unique<State>()) {}

WireRelay::~WireRelay() {
    stop();
}

bool WireRelay::start(uint16_t targetPort, std::chrono::microseconds oneWay, QString* error) {
    stop();
    auto fail = [&](const char* what) {
        if (error)
            *error = QStringLiteral("%1: %2").arg(QLatin1String(what),
                                                  QString::fromLocal8Bit(std::strerror(errno)));
        stop();
        return false;
    };
    if (::pipe2(state->stopPipe, O_CLOEXEC) != 0) return fail("pipe");
    state->listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (state->listenFd < 0) return fail("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = 0;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(state->listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        return fail("bind");
    if (::listen(state->listenFd, kListenBacklog) != 0) return fail("listen");
    socklen_t length = sizeof(address);
    if (::getsockname(state->listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return fail("getsockname");
    state->port = ntohs(address.sin_port);
    state->targetPort = targetPort;
    state->oneWay = oneWay;
    state->relayed = 0;
    state->acceptThread = std::thread([this] { state->acceptLoop(); });
    return true;
}

void WireRelay::stop() {
    if (state->stopPipe[1] >= 0) {
        const char byte = 1;
        while (::write(state->stopPipe[1], &byte, 1) < 0 && errno == EINTR) {
        }
    }
    if (state->acceptThread.joinable()) state->acceptThread.join();
    state->reapLinks(true);
    closeFd(&state->listenFd);
    closeFd(&state->stopPipe[0]);
    closeFd(&state->stopPipe[1]);
    state->port = 0;
}

uint16_t WireRelay::port() const {
    return state->port;
}

int WireRelay::relayedConnections() const {
    return state->relayed.load();
}

}  // namespace modbus_sim
