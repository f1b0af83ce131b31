#include "discovery/subnet.h"

#include <QHostAddress>
#include <QNetworkAddressEntry>
#include <QNetworkInterface>

#include "discovery/constants.h"
#include "discovery/subnet_internal.h"

namespace ModbusDiscovery {

namespace {

// 169.254.0.0/16: self-assigned addresses, never a plant network worth scanning.
constexpr quint32 kLinkLocalNetwork = 0xA9FE0000U;
constexpr quint32 kLinkLocalMask = 0xFFFF0000U;

QString addressText(quint32 address) {
    return QHostAddress(address).toString();
}

InterfaceInfo infoFromInterface(const QNetworkInterface& iface) {
    InterfaceInfo info;
    const QNetworkInterface::InterfaceFlags flags = iface.flags();
    info.name = iface.name();
    info.humanName = iface.humanReadableName();
    info.up = flags.testFlag(QNetworkInterface::IsUp);
    info.running = flags.testFlag(QNetworkInterface::IsRunning);
    info.loopback = flags.testFlag(QNetworkInterface::IsLoopBack);
    for (const QNetworkAddressEntry& entry : iface.addressEntries()) {
        if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol) {
            continue;
        }
        info.entries.append(qMakePair(entry.ip().toIPv4Address(), entry.netmask().toIPv4Address()));
    }
    return info;
}

}  // namespace

bool interfaceMatches(const InterfaceInfo& iface, const QString& interfaceName) {
    if (interfaceName.isEmpty()) {
        return true;
    }
    return iface.name.compare(interfaceName, Qt::CaseInsensitive) == 0 ||
           iface.humanName.compare(interfaceName, Qt::CaseInsensitive) == 0;
}

QStringList ipv4HostsFromInterfaces(const QList<InterfaceInfo>& interfaces, const QString& interfaceName,
                                    QStringList* log) {
    QStringList hosts;
    QStringList ownAddresses;
    for (const InterfaceInfo& iface : interfaces) {
        if (!iface.up || !iface.running || iface.loopback) {
            continue;
        }
        if (!interfaceMatches(iface, interfaceName)) {
            continue;
        }
        for (const auto& entry : iface.entries) {
            const quint32 address = entry.first;
            const quint32 netmask = entry.second;
            if (address == 0 || netmask == 0 || (address & kLinkLocalMask) == kLinkLocalNetwork) {
                continue;
            }
            // 64-bit arithmetic: network + 1 must not wrap for an all-ones address.
            const quint64 network = address & netmask;
            const quint64 broadcast = (~netmask & 0xFFFFFFFFU) | network;
            const quint64 hostCount = broadcast > network + 1 ? broadcast - network - 1 : 0;
            if (hostCount == 0) {
                continue;  // /31 and /32
            }
            // Without a named interface only small subnets are walked.
            if (interfaceName.isEmpty() && hostCount > static_cast<quint64>(kMaxTcpScanHosts)) {
                continue;
            }
            ownAddresses.append(addressText(address));

            int taken = 0;
            bool limited = false;
            for (quint64 host = network + 1; host < broadcast; ++host) {
                if (host == address) {
                    continue;
                }
                if (hosts.size() >= kMaxTcpScanHosts || taken >= kMaxTcpScanHosts) {
                    limited = true;
                    break;
                }
                const QString text = addressText(static_cast<quint32>(host));
                if (!hosts.contains(text)) {
                    hosts.append(text);
                    ++taken;
                }
            }
            if (limited && log) {
                log->append(QStringLiteral("TCP subnet scan is limited to %1 hosts on %2")
                                .arg(QString::number(kMaxTcpScanHosts), iface.name));
            }
        }
    }
    for (const QString& own : ownAddresses) {
        hosts.removeAll(own);
    }
    return hosts;
}

QStringList ipv4HostsOnInterface(const QString& interfaceName, QStringList* log) {
    QList<InterfaceInfo> interfaces;
    for (const QNetworkInterface& iface : QNetworkInterface::allInterfaces()) {
        interfaces.append(infoFromInterface(iface));
    }
    return ipv4HostsFromInterfaces(interfaces, interfaceName, log);
}

}  // namespace ModbusDiscovery
