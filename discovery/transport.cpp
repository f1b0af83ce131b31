#include "discovery/transport.h"

#include "discovery/mbap_probe.h"
#include "discovery/probe_channel.h"
#include "discovery/rtu_probe.h"
#include "discovery/socket_io.h"
#include "discovery/tls_probe.h"

namespace ModbusDiscovery {

namespace {

QList<IdentifyResult> identifyOnTcp(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                    int connectTimeoutMs, int readTimeoutMs, bool* reachable) {
    if (reachable) {
        *reachable = false;
    }
    const int fd = connectTcp(host, port, connectTimeoutMs);
    if (fd < 0) {
        return QList<IdentifyResult>();
    }
    const ScopedSocket closer(fd);
    if (reachable) {
        *reachable = true;
    }
    SocketChannel channel(fd);
    return identifyUnitsOverMbap(channel, unitIds, readTimeoutMs);
}

}  // namespace

QList<IdentifyResult> QtTransport::tcpIdentify(const QString& host, quint16 port,
                                               const QList<quint8>& unitIds, int connectTimeoutMs,
                                               int readTimeoutMs, bool* reachable) {
    return identifyOnTcp(host, port, unitIds, connectTimeoutMs, readTimeoutMs, reachable);
}

QList<IdentifyResult> QtTransport::rtuIdentify(const QString& host, quint16 port,
                                               const QList<quint8>& unitIds, int connectTimeoutMs,
                                               int readTimeoutMs, const StopCheck& shouldStop) {
    return identifyOnRtu(host, port, unitIds, connectTimeoutMs, readTimeoutMs, shouldStop);
}

SecureProbe QtTransport::tlsIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                     const TlsSettings& tls, int connectTimeoutMs, int handshakeTimeoutMs,
                                     int readTimeoutMs) {
    return identifyOnTls(host, port, unitIds, tls, connectTimeoutMs, handshakeTimeoutMs, readTimeoutMs);
}

QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                  int connectTimeoutMs, int readTimeoutMs, bool* reachable) {
    return identifyOnTcp(host, port, unitIds, connectTimeoutMs, readTimeoutMs, reachable);
}

QList<IdentifyResult> rtuIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                  int connectTimeoutMs, int readTimeoutMs, const StopCheck& shouldStop) {
    return identifyOnRtu(host, port, unitIds, connectTimeoutMs, readTimeoutMs, shouldStop);
}

SecureProbe tlsIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                        const TlsSettings& tls, int connectTimeoutMs, int handshakeTimeoutMs,
                        int readTimeoutMs) {
    return identifyOnTls(host, port, unitIds, tls, connectTimeoutMs, handshakeTimeoutMs, readTimeoutMs);
}

}  // namespace ModbusDiscovery
