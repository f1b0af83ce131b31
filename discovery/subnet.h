#pragma once

#include <QString>
#include <QStringList>

namespace ModbusDiscovery {

// Host addresses of the IPv4 subnets of one interface (empty name: every interface), at most 256.
QStringList ipv4HostsOnInterface(const QString& interfaceName, QStringList* log);

}  // namespace ModbusDiscovery
