#pragma once
// The certificates of a Modbus/TCP Security connection, as the device settings hold them: each a PEM file on
// the gateway or the PEM text itself.

#include <QByteArray>
#include <QCryptographicHash>
#include <QString>

struct TlsSettings {
    QString caCertificates;  // who may sign the device's certificate
    QString certificate;     // this gateway's certificate, with its Modbus role
    QString privateKey;      // that certificate's key: never logged or shown
    QString serverName;      // the name or IP address the device's certificate must carry; empty: any

    // One value for all four texts (a key given as PEM text included, hashed, never kept): what tells the
    // connections and sessions of different certificates apart.
    QByteArray digest() const {
        QCryptographicHash hash(QCryptographicHash::Sha256);
        for (QString const* part : {&caCertificates, &certificate, &privateKey, &serverName}) {
            hash.addData(part->toUtf8());
            hash.addData("\0", 1);
        }
        return hash.result();
    }

    bool operator==(TlsSettings const& other) const {
        return caCertificates == other.caCertificates && certificate == other.certificate &&
               privateKey == other.privateKey && serverName == other.serverName;
    }
};
