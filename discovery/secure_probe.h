#pragma once

#include <QList>
#include <QString>

#include "discovery/identify_result.h"

namespace ModbusDiscovery {

// What probing one port over Modbus/TCP Security found.
struct SecureProbe {
    QList<IdentifyResult> answers;  // the units that answered inside the TLS session
    bool reachable = false;         // the TCP connection was made
    QString failure;                // why no TLS session came about, in OpenSSL's words; empty after one
    // The device wants a client certificate: none was configured, or it refused the one given. The device
    // is there all the same, and its certificate says which one it is.
    bool clientCertificateRefused = false;
    QString certificateSubject;  // e.g. "CN=meter-7", when the device's certificate was read
    QString certificateExpiry;   // e.g. "Nov 25 12:00:00 2027 GMT"
};

}  // namespace ModbusDiscovery
