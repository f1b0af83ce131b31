#pragma once
// The device certificate a discovery handshake was shown, read while OpenSSL verifies it. A device that wants
// a client certificate ends the handshake with an alert, and the session with its certificate is gone by
// then; the scan still tells the integrator which device is there.

#include <openssl/x509.h>

#include <QString>
#include <memory>

#include "connection/tls_endpoint.h"
#include "connection/tls_settings.h"

namespace ModbusDiscovery {

struct DeviceCertificate {
    QString subject;  // e.g. "CN=meter-7"
    QString expiry;   // e.g. "Nov 25 12:00:00 2027 GMT"
};

// The connection layer's endpoint for discovery handshakes with `tls`, under a target of its own: it keeps
// no sessions (each host scanned is another device) and lets a CertificateCapture watch its verification,
// which stays as strict as a connection's. Null with *error when the certificate settings cannot be read.
std::shared_ptr<TlsEndpoint> discoveryEndpoint(const TlsSettings& tls, QString* error);

// While it lives, takes note of the device certificate of the handshakes this thread makes with a discovery
// endpoint.
class CertificateCapture {
public:
    CertificateCapture();
    ~CertificateCapture();
    CertificateCapture(const CertificateCapture&) = delete;
    CertificateCapture& operator=(const CertificateCapture&) = delete;

    bool seen() const { return leaf != nullptr; }
    DeviceCertificate certificate() const;

    // Called by the verification with the certificate being verified; the first one is kept.
    void keep(X509* certificate);

private:
    X509* leaf = nullptr;
    CertificateCapture* previous;
};

}  // namespace ModbusDiscovery
