#pragma once
// Identification of the units behind one TCP port that carries RTU frames (a transparent serial-to-Ethernet
// converter in front of an RS-485 line).

#include <QList>
#include <QString>
#include <QtGlobal>

#include "discovery/identify_result.h"
#include "discovery/transport.h"

namespace ModbusDiscovery {

QList<IdentifyResult> identifyOnRtu(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                    int connectTimeoutMs, int readTimeoutMs, const StopCheck& shouldStop);

}  // namespace ModbusDiscovery
