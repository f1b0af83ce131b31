#include "plugin/modbus.h"

namespace {
constexpr quint16 kDefaultPort = 502;
constexpr int kFirstUnitId = 1;  // unit 0 is the broadcast id; polling never addresses it
}  // namespace

std::shared_ptr<Modbus::TcpDeviceConnection> Modbus::tcpDeviceConnection(int deviceId, bool* stoppingOut) {
    std::lock_guard<std::mutex> lock(connectionsMutex);
    if (stopping) {
        if (stoppingOut) *stoppingOut = true;
        return {};
    }
    if (stoppingOut) *stoppingOut = false;
    std::shared_ptr<TcpDeviceConnection>& entry = connections[deviceId];
    if (!entry) entry = std::make_shared<TcpDeviceConnection>();
    return entry;
}

Connection Modbus::makeConnection(DeviceInstancePlugin& device, int* error) {
    quint16 port = device.settings.value(QStringLiteral("port")).toUShort();
    if (port == 0) port = kDefaultPort;
    int serverId = device.settings.value(QStringLiteral("server_id")).toInt();
    if (serverId < kFirstUnitId) serverId = kFirstUnitId;

    Connection::Network network;
    network.host = device.address;
    network.port = port;
    network.serverId = serverId;
    return Connection(network, &pluginInterface, error);
}

bool Modbus::stopPlugin() {
    std::vector<std::shared_ptr<TcpDeviceConnection>> entries;
    {
        std::lock_guard<std::mutex> lock(connectionsMutex);
        stopping = true;
        entries.reserve(connections.size());
        for (auto& entry : connections)
            if (entry.second) entries.push_back(entry.second);
        connections.clear();
    }
    // Never wait for a device while holding the cache lock: a poll holding the device waits for nobody.
    for (auto& entry : entries) {
        std::lock_guard<std::mutex> lock(entry->mutex);
        entry->connection.disconnect();
    }
    {
        std::lock_guard<std::mutex> lock(connectionsMutex);
        stopping = false;
    }
    {
        std::lock_guard<std::mutex> lock(identityMutex);
        identityProbed.clear();
        identityValues.clear();
    }
    return true;
}
