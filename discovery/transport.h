#pragma once
// Probing one host and port for Modbus units over a non-blocking TCP socket.

#include <QList>
#include <QString>
#include <QtGlobal>
#include <functional>

#include "connection/tls_settings.h"
#include "discovery/identify_result.h"
#include "discovery/secure_probe.h"

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
    // The same identification inside a Modbus/TCP Security session made with `tls`; the handshake has
    // handshakeTimeoutMs after the TCP connection. A transport that cannot carry TLS finds nothing. Declared
    // last, so that the entries before it in the table of virtual functions stay where they were.
    virtual SecureProbe tlsIdentify(const QString& /*host*/, quint16 /*port*/,
                                    const QList<quint8>& /*unitIds*/, const TlsSettings& /*tls*/,
                                    int /*connectTimeoutMs*/, int /*handshakeTimeoutMs*/,
                                    int /*readTimeoutMs*/) {
        return SecureProbe();
    }
};

class QtTransport : public Transport {
public:
    QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs, bool* reachable) override;
    QList<IdentifyResult> rtuIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs,
                                      const StopCheck& shouldStop) override;
    SecureProbe tlsIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                            const TlsSettings& tls, int connectTimeoutMs, int handshakeTimeoutMs,
                            int readTimeoutMs) override;
};

QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                  int connectTimeoutMs, int readTimeoutMs, bool* reachable);
QList<IdentifyResult> rtuIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                  int connectTimeoutMs, int readTimeoutMs, const StopCheck& shouldStop);
SecureProbe tlsIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                        const TlsSettings& tls, int connectTimeoutMs, int handshakeTimeoutMs,
                        int readTimeoutMs);

}  // namespace ModbusDiscovery
