#pragma once
// Non-blocking TCP socket primitives of the discovery probes: every wait is a poll() with its own budget, so
// a silent address never holds a scan longer than the caller allows.

#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <chrono>

namespace ModbusDiscovery {

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

// Owns a socket descriptor and closes it on every way out of a probe, an exception included.
class ScopedSocket {
public:
    explicit ScopedSocket(int fd) : fd(fd) {}
    ~ScopedSocket();
    ScopedSocket(const ScopedSocket&) = delete;
    ScopedSocket& operator=(const ScopedSocket&) = delete;

private:
    int fd;
};

// poll() on one descriptor; a negative budget polls without waiting, a negative descriptor gives -1.
int pollFd(int fd, short events, int timeoutMs);
// A connected non-blocking socket to a dotted IPv4 address, or -1.
int connectTcp(const QString& host, quint16 port, int timeoutMs);
bool sendAll(int fd, const QByteArray& data, int timeoutMs);
// Appends to the buffer until it holds at least `size` bytes; false on time-out, close or error.
bool recvExact(int fd, QByteArray* buffer, int size, int timeoutMs);
// Appends whatever arrives within the budget, at most one chunk; false on time-out, close or error.
bool recvSome(int fd, QByteArray* buffer, int timeoutMs);
// Reads and drops everything already waiting; false when the peer has closed or the socket failed.
bool discardPending(int fd);

}  // namespace ModbusDiscovery
