#pragma once
// Reads the certificates and the key of a TLS connection from the device settings: a text holding
// "-----BEGIN" is PEM itself, anything else names a file. Every failure names the setting and the file, never
// a byte of a key. Remembers each file's change time, so that a certificate replaced on disk is read again.

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <QString>
#include <QStringList>
#include <memory>
#include <vector>

#include "connection/tls_settings.h"

struct X509Free {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using CertificatePtr = std::unique_ptr<X509, X509Free>;
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

// The setting names as the device columns call them, for messages.
extern const char* const kCaCertificatesSetting;
extern const char* const kCertificateSetting;
extern const char* const kPrivateKeySetting;

struct TlsCredentials {
    std::vector<CertificatePtr> authorities;
    // The gateway's certificate first, then the rest of its chain; empty when none is configured.
    std::vector<CertificatePtr> chain;
    KeyPtr key;
    // A read failure naming the setting and the file: no connection may be made then.
    QString error;
    // Things worth a warning that do not stop the connection (a key file others may read).
    QStringList warnings;

    bool ok() const { return error.isEmpty(); }
};

TlsCredentials loadTlsCredentials(TlsSettings const& settings);

// What the files named by `settings` look like on disk now (change time and size of each); equal stamps mean
// nothing was replaced.
QString tlsFileStamp(TlsSettings const& settings);

// Days from now until `certificate` expires (negative once it has), or INT_MIN when it cannot be told.
int daysUntilExpiry(X509 const* certificate);
