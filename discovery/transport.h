#pragma once
// Probing one host and port for Modbus units over a non-blocking TCP socket.

#include <QList>
#include <QString>
#include <QtGlobal>

#include "discovery/identify_result.h"

namespace ModbusDiscovery {

class Transport {
public:
    virtual ~Transport() = default;
    virtual QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                              int connectTimeoutMs, int readTimeoutMs, bool* reachable) = 0;
};

class QtTransport : public Transport {
public:
    QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs, bool* reachable) override;
};

QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                  int connectTimeoutMs, int readTimeoutMs, bool* reachable);

}  // namespace ModbusDiscovery
