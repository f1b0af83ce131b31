#pragma once
// The bytes of one connected TCP socket, moved under poll()-based deadlines (never select(), which aborts the
// process for a descriptor at or above FD_SETSIZE). It knows nothing of frames: the framing decides how many
// bytes it wants and what they mean. Errors come back as errno values in *err.

#include <QByteArray>
#include <chrono>

class SocketStream {
public:
    using Deadline = std::chrono::steady_clock::time_point;

    // Connects to host:service, trying each address it resolves to, within `timeoutMs` (name resolution
    // included). The connected, non-blocking socket, or -1 with *err set (EINPROGRESS when time ran out).
    static int connectTcp(QByteArray const& host, QByteArray const& service, int timeoutMs, int* err);

    explicit SocketStream(int socket) : socket(socket) {}

    // All `length` bytes, or -1.
    int sendAll(const unsigned char* data, int length, Deadline deadline, int* err) const;
    // At least one byte and at most `capacity`, or -1: ETIMEDOUT when nothing came in time, ECONNRESET when
    // the peer closed.
    int receiveSome(unsigned char* data, int capacity, Deadline deadline, int* err) const;
    // Reads and drops whatever has already arrived, without waiting; how many bytes that was.
    int discardWaiting() const;

private:
    bool waitFor(short events, Deadline deadline, int* err) const;

    int socket;
};
