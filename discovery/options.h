#pragma once
// Discovery request JSON turned into run options.

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include "connection/tls_settings.h"
#include "discovery/constants.h"

namespace ModbusDiscovery {

// The options as plugins before Modbus/TCP Security laid them out. The command-line tool receives the options
// by value from a plugin it loads at run time; from such a plugin it reads this part alone.
struct OptionsCore {
    int timeoutMs = kDefaultTimeoutMs;
    QString networkInterface;
    QList<quint16> tcpPorts;
    QList<quint8> unitIds;
    QStringList existingUids;
    bool tcpSubnetScan = true;
    // Open ports without a Modbus TCP answer are asked again in RTU frames. Placed in the padding after
    // tcpSubnetScan, so that neither the size nor any other field's offset changes for callers built
    // against the earlier layout.
    bool rtuOverTcp = false;
    QStringList tcpHosts;  // explicit hosts; when empty the run enumerates the interface's subnet
    QString deviceInterface;
    int baudrate = 9600;
    QString parity = QStringLiteral("N");
    int databits = 8;
    int stopbits = 1;
    int serialMode = 1;
    int interframeDelay = 200;
};

struct Options : OptionsCore {
    // The device setting "transport" asked for: kTransportModbusTcpSecurity probes every port over TLS.
    int transport = kTransportModbusTcp;
    // The certificates of those handshakes, as the device settings tls_* hold them (paths or PEM texts).
    TlsSettings tls;

    bool secure() const { return transport == kTransportModbusTcpSecurity; }
};

Options optionsFromRequest(const QJsonObject& request, QStringList* log);
QList<quint16> parsePortList(const QString& text, const QList<quint16>& fallback);
QList<quint8> parseUnitIdList(const QString& text, const QList<quint8>& fallback);

}  // namespace ModbusDiscovery
