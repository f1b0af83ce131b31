#pragma once
// A device found by discovery and the JSON object the host imports for it.

#include <QJsonObject>
#include <QString>
#include <QtGlobal>

#include "discovery/constants.h"
#include "discovery/identify_result.h"

namespace ModbusDiscovery {

// Source of a device that answered RTU frames on a TCP port; it is imported with RTU-over-TCP framing.
inline const QString kSourceRtuOverTcpScan = QStringLiteral("rtu-over-tcp-scan");

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
};

// Folds an identification into a candidate; fields already set are kept.
void applyIdentify(Candidate* candidate, const IdentifyResult& result);
QString sanitizeUidPart(QString text);
QString uidFor(const Candidate& candidate);
QString identityLabel(const Candidate& candidate);
QJsonObject candidateToJson(const Candidate& candidate);

}  // namespace ModbusDiscovery
