#include "discovery/probe_channel.h"

#include "discovery/socket_io.h"

namespace ModbusDiscovery {

bool SocketChannel::sendAll(const QByteArray& data, int timeoutMs) {
    return ModbusDiscovery::sendAll(fd, data, timeoutMs);
}

bool SocketChannel::recvExact(QByteArray* buffer, int size, int timeoutMs) {
    return ModbusDiscovery::recvExact(fd, buffer, size, timeoutMs);
}

}  // namespace ModbusDiscovery
