#pragma once
// Subnet enumeration over plain interface descriptions, so it can be exercised without real interfaces.

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QtGlobal>

namespace ModbusDiscovery {

struct InterfaceInfo {
    QString name;       // system name, e.g. "eth0"
    QString humanName;  // human-readable name; equals the system name on Linux
    bool up = false;
    bool running = false;
    bool loopback = false;
    // IPv4 address entries as (address, netmask) in host byte order; other protocols are left out.
    QList<QPair<quint32, quint32>> entries;
};

bool interfaceMatches(const InterfaceInfo& iface, const QString& interfaceName);
QStringList ipv4HostsFromInterfaces(const QList<InterfaceInfo>& interfaces, const QString& interfaceName,
                                    QStringList* log);

}  // namespace ModbusDiscovery
