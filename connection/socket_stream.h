#pragma once
// The bytes of one connected TCP socket, moved under poll()-based deadlines (never select(), which aborts the
// process for a descriptor at or above FD_SETSIZE). It knows nothing of frames: the framing decides how many
// bytes it wants and what they mean. It does not own the socket.

#include <QByteArray>

#include "connection/byte_stream.h"

class SocketStream : public ByteStream {
public:
    // Connects to host:service, trying each address it resolves to, within `timeoutMs` (name resolution
    // included). The connected, non-blocking socket, or -1 with *err set (EINPROGRESS when time ran out).
    static int connectTcp(QByteArray const& host, QByteArray const& service, int timeoutMs, int* err);

    explicit SocketStream(int socket) : socket(socket) {}

    int sendAll(const unsigned char* data, int length, Deadline deadline, int* err) override;
    int receiveSome(unsigned char* data, int capacity, Deadline deadline, int* err) override;
    int discardWaiting() override;

    // Waits until the socket is ready for `events` (POLLIN, POLLOUT); false with *err set (ETIMEDOUT).
    static bool waitFor(int socket, short events, Deadline deadline, int* err);

private:
    int socket;
};
