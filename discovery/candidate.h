#pragma once
// A device found by discovery and the JSON object the host imports for it.

#include <QJsonObject>
#include <QString>
#include <QtGlobal>

#include "connection/tls_settings.h"
#include "discovery/constants.h"
#include "discovery/identify_result.h"

namespace ModbusDiscovery {

// Source of a device that answered RTU frames on a TCP port; it is imported with RTU-over-TCP framing.
inline const QString kSourceRtuOverTcpScan = QStringLiteral("rtu-over-tcp-scan");
// Source of a device found over Modbus/TCP Security; it is imported with transport 2 and the scan's
// certificate settings.
inline const QString kSourceTlsScan = QStringLiteral("tls-scan");

struct Candidate {
    QString address;
    QString deviceInterface;
    quint16 port = kDefaultTcpPort;
    quint8 unitId = kDefaultUnitId;
    QString vendor;
    QString productCode;
    QString version;
    QString vendorUrl;
    QString productName;
    QString modelName;
    QString userApplication;
    QString source;
    int baudrate = 9600;
    QString parity = QStringLiteral("N");
    int databits = 8;
    int stopbits = 1;
    int serialMode = 1;
    int interframeDelay = 200;
    int reservedValue = 5000;
    // With kSourceTlsScan: the certificate settings of the scan, which become the device's own.
    TlsSettings tls;
    // The device ended the handshake for want of a client certificate (none was configured, or it did not
    // take the one given); its certificate tells the integrator which device it is.
    bool clientCertificateRefused = false;
    QString certificateSubject;
    QString certificateExpiry;
};

// Folds an identification into a candidate; fields already set are kept.
void applyIdentify(Candidate* candidate, const IdentifyResult& result);
QString sanitizeUidPart(QString text);
QString uidFor(const Candidate& candidate);
QString identityLabel(const Candidate& candidate);
QJsonObject candidateToJson(const Candidate& candidate);

}  // namespace ModbusDiscovery
