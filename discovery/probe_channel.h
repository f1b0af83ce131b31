#pragma once
// One connection to a device as the identification probes see it, whatever carries the bytes (a plain socket
// or a TLS session over one): whole frames out, exact byte counts in, each wait within its own budget.

#include <QByteArray>

namespace ModbusDiscovery {

class ProbeChannel {
public:
    virtual ~ProbeChannel() = default;
    // False on time-out, close or error.
    virtual bool sendAll(const QByteArray& data, int timeoutMs) = 0;
    // Appends until the buffer holds at least `size` bytes; false on time-out, close or error.
    virtual bool recvExact(QByteArray* buffer, int size, int timeoutMs) = 0;
};

// A connected non-blocking socket, which it does not own.
class SocketChannel : public ProbeChannel {
public:
    explicit SocketChannel(int fd) : fd(fd) {}
    bool sendAll(const QByteArray& data, int timeoutMs) override;
    bool recvExact(QByteArray* buffer, int size, int timeoutMs) override;

private:
    int fd;
};

}  // namespace ModbusDiscovery
