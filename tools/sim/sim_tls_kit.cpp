// Chooses the files a simulator serves for a TLS fault, and describes how a client reaches it.

#include "tools/sim/sim_tls_kit.h"

#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include "tools/sim/sim_pki.h"

namespace modbus_sim {

namespace {

// The device certificate's base name for a fault; the certificate faults serve a broken one.
QString deviceName(TlsFault fault) {
    switch (fault) {
        case TlsFault::ExpiredCertificate:
            return QString::fromLatin1(kExpiredDeviceName);
        case TlsFault::WrongCa:
            return QString::fromLatin1(kOtherCaDeviceName);
        case TlsFault::WrongName:
            return QString::fromLatin1(kWrongNameDeviceName);
        default:
            return QString::fromLatin1(kDeviceName);
    }
}

QString quoted(const QString& key, const QString& value) {
    return QStringLiteral("\"%1\": \"%2\"").arg(key, value);
}

}  // namespace

bool tlsServerSettingsForKit(const QString& dir, const QString& listenAddress, TlsFault fault,
                             TlsServerSettings* settings, bool* created, QString* error) {
    *created = false;
    if (!hasDeviceKit(dir)) {
        if (!makeTestPki(dir, listenAddress, error)) return false;
        *created = true;
    }
    const QString device = deviceName(fault);
    if (!QFile::exists(certificatePath(dir, device)) || !QFile::exists(keyPath(dir, device))) {
        if (!makeFaultCertificates(dir, listenAddress, error)) return false;
    }
    settings->enabled = true;
    settings->caFile = certificatePath(dir, QString::fromLatin1(kCaName));
    settings->certificateFile = certificatePath(dir, device);
    settings->keyFile = keyPath(dir, device);
    settings->requireClientCertificate = fault != TlsFault::NoClientCertificateDemanded;
    settings->fault = fault;
    return true;
}

QString tlsDeviceSettingsText(const QString& dir, uint16_t port, const QString& serverName) {
    const QString absolute = QFileInfo(dir).absoluteFilePath();
    const QString client = QString::fromLatin1(kClientName);
    return QStringList{quoted(QStringLiteral("transport"), QStringLiteral("2")),
                       quoted(QStringLiteral("port"), QString::number(port)),
                       quoted(QStringLiteral("tls_ca_certificates"),
                              certificatePath(absolute, QString::fromLatin1(kCaName))),
                       quoted(QStringLiteral("tls_certificate"), certificatePath(absolute, client)),
                       quoted(QStringLiteral("tls_private_key"), keyPath(absolute, client)),
                       quoted(QStringLiteral("tls_server_name"), serverName)}
        .join(QStringLiteral(", "));
}

}  // namespace modbus_sim
