#pragma once
// Probing one host and port for Modbus units over a non-blocking TCP socket.

#include <QList>
#include <QString>
#include <QtGlobal>
#include <functional>

#include "discovery/identify_result.h"

namespace ModbusDiscovery {

// Asked before each unit of a probe; true ends the probe with what it has found so far. An empty one never
// stops it.
using StopCheck = std::function<bool()>;

class Transport {
public:
    virtual ~Transport() = default;
    virtual QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                              int connectTimeoutMs, int readTimeoutMs, bool* reachable) = 0;
    // The same identification in RTU frames on the TCP connection, for serial devices behind a transparent
    // serial-to-Ethernet converter; at most kMaxRtuUnitIds of the units are asked. A transport that cannot
    // carry RTU finds nothing. Defined here, like every other member, so that programs that load the plugin
    // at run time and derive their own transport need none of its symbols.
    virtual QList<IdentifyResult> rtuIdentify(const QString& /*host*/, quint16 /*port*/,
                                              const QList<quint8>& /*unitIds*/, int /*connectTimeoutMs*/,
                                              int /*readTimeoutMs*/, const StopCheck& /*shouldStop*/) {
        return QList<IdentifyResult>();
    }
};

class QtTransport : public Transport {
public:
    QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs, bool* reachable) override;
    QList<IdentifyResult> rtuIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs,
                                      const StopCheck& shouldStop) override;
};

QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                  int connectTimeoutMs, int readTimeoutMs, bool* reachable);
QList<IdentifyResult> rtuIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                  int connectTimeoutMs, int readTimeoutMs, const StopCheck& shouldStop);

}  // namespace ModbusDiscovery
