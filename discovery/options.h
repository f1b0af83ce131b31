#pragma once
// Discovery request JSON turned into run options.

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include "discovery/constants.h"

namespace ModbusDiscovery {

struct Options {
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

Options optionsFromRequest(const QJsonObject& request, QStringList* log);
QList<quint16> parsePortList(const QString& text, const QList<quint16>& fallback);
QList<quint8> parseUnitIdList(const QString& text, const QList<quint8>& fallback);

}  // namespace ModbusDiscovery
