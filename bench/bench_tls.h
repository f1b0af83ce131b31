#pragma once
// The device settings that reach a simulator serving the certificate kit of tools/sim/sim_pki.h over
// Modbus/TCP Security, as the host stores them: file paths of the kit's authority and client certificate.

#include <QDir>
#include <QFile>
#include <QMap>
#include <QString>

#include "tools/sim/sim_pki.h"

namespace bench {

const QString kTransportTls = QStringLiteral("2");
const QString kLoopbackAddress = QStringLiteral("127.0.0.1");

// `settings` with "transport" 2 and the kit's ca.pem, client.pem and client.key in `dir`.
inline QMap<QString, QString> withTls(QMap<QString, QString> settings, const QString& dir) {
    settings.insert(QStringLiteral("transport"), kTransportTls);
    settings.insert(QStringLiteral("tls_ca_certificates"),
                    modbus_sim::certificatePath(dir, QString::fromLatin1(modbus_sim::kCaName)));
    settings.insert(QStringLiteral("tls_certificate"),
                    modbus_sim::certificatePath(dir, QString::fromLatin1(modbus_sim::kClientName)));
    settings.insert(QStringLiteral("tls_private_key"),
                    modbus_sim::keyPath(dir, QString::fromLatin1(modbus_sim::kClientName)));
    settings.insert(QStringLiteral("tls_server_name"), kLoopbackAddress);
    return settings;
}

// A copy of the client's side of the kit in `dir` (ca.pem, client.pem, client.key) in the new directory
// `copyDir`. The plugin keeps one TLS endpoint (context, certificates, session) per address, port and
// certificate files, so devices with a copy each have an endpoint each, as devices at different addresses
// do.
inline bool copyClientKit(const QString& dir, const QString& copyDir) {
    if (!QDir().mkpath(copyDir)) return false;
    const QString ca = QString::fromLatin1(modbus_sim::kCaName);
    const QString client = QString::fromLatin1(modbus_sim::kClientName);
    return QFile::copy(modbus_sim::certificatePath(dir, ca), modbus_sim::certificatePath(copyDir, ca)) &&
           QFile::copy(modbus_sim::certificatePath(dir, client),
                       modbus_sim::certificatePath(copyDir, client)) &&
           QFile::copy(modbus_sim::keyPath(dir, client), modbus_sim::keyPath(copyDir, client));
}

}  // namespace bench
