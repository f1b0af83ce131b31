#pragma once
// Modbus/TCP Security's byte stream: a TLS 1.2 or 1.3 session over a connected socket, moved under the same
// poll()-based deadlines as a plain socket. The handshake verifies the device's certificate against the
// endpoint's authorities (and its name, when one is set); a failure is described in OpenSSL's own words
// ("certificate has expired", "wrong version number", ...).

#include <openssl/ssl.h>

#include <QString>
#include <memory>

#include "connection/byte_stream.h"
#include "connection/tls_endpoint.h"

// What a finished handshake established, for the device's health and for the commissioning tool.
struct TlsHandshake {
    bool resumed = false;
    int deviceCertificateDaysLeft = 0;  // INT_MIN when there is none to read
    QString protocol;                   // e.g. "TLSv1.3"
    QString cipher;
    QString subject;
    QString issuer;
    QString names;   // the certificate's DNS names and IP addresses, comma-separated
    QString expiry;  // e.g. "Nov 25 12:00:00 2027 GMT"
};

class TlsStream : public ByteStream {
public:
    // Completes a handshake on `socket` before `deadline`. Null with *failure describing why (without the
    // "TLS: " prefix) when it does not.
    static std::unique_ptr<TlsStream> handshake(int socket, std::shared_ptr<TlsEndpoint> endpoint,
                                                QString const& serverName, Deadline deadline,
                                                QString* failure);
    ~TlsStream() override;
    TlsStream(TlsStream const&) = delete;
    TlsStream& operator=(TlsStream const&) = delete;

    int sendAll(const unsigned char* data, int length, Deadline deadline, int* err) override;
    int receiveSome(unsigned char* data, int capacity, Deadline deadline, int* err) override;
    int discardWaiting() override;
    void releaseBuffers() override;

    TlsHandshake const& established() const { return details; }

private:
    TlsStream(SSL* ssl, int socket, std::shared_ptr<TlsEndpoint> endpoint);
    // Waits for what OpenSSL asked for (`sslError`: WANT_READ or WANT_WRITE); false with *err set.
    bool waitFor(int sslError, Deadline deadline, int* err) const;

    SSL* ssl;
    int socket;
    std::shared_ptr<TlsEndpoint> endpoint;
    TlsHandshake details;
};
