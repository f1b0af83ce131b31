#pragma once
// The certificates of a Modbus/TCP Security connection, as the device settings hold them: each a PEM file on
// the gateway or the PEM text itself.

#include <QString>

struct TlsSettings {
    QString caCertificates;  // who may sign the device's certificate
    QString certificate;     // this gateway's certificate, with its Modbus role
    QString privateKey;      // that certificate's key: never logged or shown
    QString serverName;      // the name or IP address the device's certificate must carry; empty: any

    bool operator==(TlsSettings const& other) const {
        return caCertificates == other.caCertificates && certificate == other.certificate &&
               privateKey == other.privateKey && serverName == other.serverName;
    }
};
