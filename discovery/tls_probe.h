#pragma once
// Identification of the units behind one port that speaks Modbus/TCP Security: the connection layer's TLS
// handshake on a non-blocking socket, then the same requests as over plain Modbus TCP inside the session.

#include <QList>
#include <QString>
#include <QtGlobal>

#include "connection/tls_settings.h"
#include "discovery/secure_probe.h"

namespace ModbusDiscovery {

SecureProbe identifyOnTls(const QString& host, quint16 port, const QList<quint8>& unitIds,
                          const TlsSettings& tls, int connectTimeoutMs, int handshakeTimeoutMs,
                          int readTimeoutMs);

// Whether a handshake failure (OpenSSL's reason) is the device's answer to a missing or unwelcome client
// certificate.
bool refusesClientCertificate(const QString& failure);

}  // namespace ModbusDiscovery
