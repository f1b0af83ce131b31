#include <QStringBuilder>
#include <algorithm>

#include "plugin/modbus.h"
#include "plugin/setting_keys.h"

namespace {

// Units behind one gateway or converter name the same address, port and framing; a device that wants its own
// connection gets a key no other device has.
QString endpointKey(int deviceId, QString const& address, quint16 port, bool shared,
                    DeviceOptions const& options) {
    if (!shared) return QStringLiteral("device:") % QString::number(deviceId);
    const QString target = address % QLatin1Char(':') % QString::number(port);
    switch (options.transport) {
        case Transport::RtuOverTcp:
            return QStringLiteral("rtu:") % target;
        case Transport::ModbusTcpSecurity:
            // Units behind one secured gateway share a session only when they present the same certificates.
            return QStringLiteral("tls:") % target % QLatin1Char('/') %
                   QString::fromLatin1(options.tls.digest().toHex());
        case Transport::ModbusTcp:
            break;
    }
    return QStringLiteral("tcp:") % target;
}

// A device that has not used its connection for this long is taken to be gone from the host: it no longer
// keeps the connection open nor counts as a neighbour. One that is merely polled seldom reconnects once.
constexpr qint64 kForgetUserAfterMs = 10LL * 60 * 1000;

void closeUnused(std::shared_ptr<Modbus::TcpDeviceConnection> const& unused) {
    if (!unused) return;
    std::lock_guard<std::mutex> lock(unused->mutex);
    unused->connection.disconnect();
}

// The device no longer uses `left`, which its neighbours still use: it stops keeping it open.
void leave(std::shared_ptr<Modbus::TcpDeviceConnection> const& left, int deviceId) {
    if (!left) return;
    std::lock_guard<std::mutex> lock(left->mutex);
    left->forget(deviceId);
    if (!left->anyKeepsOpen()) left->connection.disconnect();
}
}  // namespace

void Modbus::TcpDeviceConnection::noteUse(int deviceId, qint64 nowMs) {
    for (auto user = users.begin(); user != users.end();) {
        if (user->first != deviceId && nowMs - user->second.lastUseMs > kForgetUserAfterMs)
            user = users.erase(user);
        else
            ++user;
    }
    users[deviceId].lastUseMs = nowMs;
}

void Modbus::TcpDeviceConnection::forget(int deviceId) {
    users.erase(deviceId);
}

void Modbus::TcpDeviceConnection::setKeepOpen(int deviceId, bool keep) {
    users[deviceId].keepOpen = keep;
}

bool Modbus::TcpDeviceConnection::anyKeepsOpen() const {
    return std::any_of(users.cbegin(), users.cend(), [](auto const& user) { return user.second.keepOpen; });
}

std::shared_ptr<Modbus::TcpDeviceConnection> Modbus::tcpDeviceConnection(int deviceId, bool* stoppingOut) {
    std::lock_guard<std::mutex> lock(connectionsMutex);
    if (stopping) {
        if (stoppingOut) *stoppingOut = true;
        return {};
    }
    if (stoppingOut) *stoppingOut = false;
    std::shared_ptr<TcpDeviceConnection>& entry = connections[deviceId];
    if (!entry) {
        entry = std::make_shared<TcpDeviceConnection>();
        entry->key = endpointKey(deviceId, QString(), 0, false, DeviceOptions{});
        endpoints.insert(entry->key, entry);
    }
    return entry;
}

std::shared_ptr<Modbus::TcpDeviceConnection> Modbus::tcpDeviceConnection(DeviceInstancePlugin const& device,
                                                                         DeviceOptions const& options,
                                                                         bool* stoppingOut) {
    const QString key =
        endpointKey(device.id, device.address, devicePort(device.settings), options.shareConnection, options);
    std::shared_ptr<TcpDeviceConnection> unused;
    std::shared_ptr<TcpDeviceConnection> left;
    std::shared_ptr<TcpDeviceConnection> bound;
    {
        std::lock_guard<std::mutex> lock(connectionsMutex);
        if (stopping) {
            if (stoppingOut) *stoppingOut = true;
            return {};
        }
        if (stoppingOut) *stoppingOut = false;
        std::shared_ptr<TcpDeviceConnection>& entry = connections[device.id];
        if (entry && entry->key == key) return entry;
        // First use, or the device's address, port or sharing changed: bind it to the connection for its key.
        std::shared_ptr<TcpDeviceConnection> previous = entry;
        std::shared_ptr<TcpDeviceConnection>& shared = endpoints[key];
        if (!shared) {
            shared = std::make_shared<TcpDeviceConnection>();
            shared->key = key;
        }
        entry = shared;
        bound = shared;
        if (previous) {
            const bool stillUsed =
                std::any_of(connections.cbegin(), connections.cend(),
                            [&previous](auto const& other) { return other.second == previous; });
            if (!stillUsed) {
                endpoints.remove(previous->key);
                unused = previous;
            } else {
                left = previous;
            }
        }
    }
    // A connection nobody polls any more would stay open for ever; it is closed outside the cache lock, as
    // is the one the device left to its neighbours.
    closeUnused(unused);
    leave(left, device.id);
    return bound;
}

std::shared_ptr<Modbus::DeviceState> Modbus::deviceState(int deviceId) {
    std::lock_guard<std::mutex> lock(connectionsMutex);
    if (stopping) return {};
    std::shared_ptr<DeviceState>& state = deviceStates[deviceId];
    if (!state) state = std::make_shared<DeviceState>();
    return state;
}

Connection Modbus::makeConnection(DeviceInstancePlugin& device, int* error) {
    const DeviceOptions options = deviceOptions(device.settings);

    Connection::Network network;
    network.host = device.address;
    network.port = devicePort(device.settings);
    network.serverId = deviceUnitId(device.settings);
    network.connectTimeoutMs = options.connectTimeoutMs;
    network.responseTimeoutMs = options.responseTimeoutMs;
    network.requestPauseMs = options.requestPauseMs;
    network.transport = options.transport;
    network.tls = options.tls;
    return Connection(network, &pluginInterface, error);
}

bool Modbus::stopPlugin() {
    std::vector<std::shared_ptr<TcpDeviceConnection>> entries;
    {
        std::lock_guard<std::mutex> lock(connectionsMutex);
        stopping = true;
        entries.reserve(static_cast<size_t>(endpoints.size()));
        for (auto const& entry : endpoints)
            if (entry) entries.push_back(entry);
        connections.clear();
        endpoints.clear();
        // Back-off, learned state and counters start over with the next run.
        deviceStates.clear();
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
