#include "discovery/certificate_capture.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <QStringList>
#include <mutex>

namespace ModbusDiscovery {

namespace {

// Not a host and port: the discovery's endpoints never meet a connection's in the connection layer's cache.
const QString kDiscoveryTarget = QStringLiteral("modbus-discovery");
// RFC 2253 order and escaping, but UTF-8 kept as it is instead of escaped byte by byte.
constexpr unsigned long kNameFlags = XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB;

thread_local CertificateCapture* activeCapture = nullptr;

std::mutex& preparationMutex() {
    static std::mutex mutex;
    return mutex;
}

// Observes only: the verdict stays OpenSSL's.
int observeVerification(int preverifyOk, X509_STORE_CTX* store) {
    if (activeCapture) {
        activeCapture->keep(X509_STORE_CTX_get0_cert(store));
    }
    return preverifyOk;
}

QString bioText(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return QString::fromUtf8(data, static_cast<int>(length));
}

}  // namespace

std::shared_ptr<TlsEndpoint> discoveryEndpoint(const TlsSettings& tls, QString* error) {
    QStringList warnings;  // the run reports them once, when it checks the settings
    std::shared_ptr<TlsEndpoint> endpoint = TlsEndpoint::forTarget(kDiscoveryTarget, tls, error, &warnings);
    if (!endpoint) {
        return endpoint;
    }
    // Every thread prepares the context before its first handshake with it, so no handshake reads the
    // context while it changes.
    std::lock_guard<std::mutex> lock(preparationMutex());
    SSL_CTX* context = endpoint->context();
    if (SSL_CTX_get_verify_callback(context) != &observeVerification) {
        SSL_CTX_set_verify(context, SSL_CTX_get_verify_mode(context), &observeVerification);
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    }
    return endpoint;
}

CertificateCapture::CertificateCapture() : previous(activeCapture) {
    activeCapture = this;
}

CertificateCapture::~CertificateCapture() {
    activeCapture = previous;
    X509_free(leaf);
}

void CertificateCapture::keep(X509* certificate) {
    if (leaf || !certificate) {
        return;
    }
    X509_up_ref(certificate);
    leaf = certificate;
}

DeviceCertificate CertificateCapture::certificate() const {
    DeviceCertificate described;
    if (!leaf) {
        return described;
    }
    BIO* subject = BIO_new(BIO_s_mem());
    if (subject && X509_NAME_print_ex(subject, X509_get_subject_name(leaf), 0, kNameFlags) >= 0) {
        described.subject = bioText(subject);
    }
    BIO_free(subject);
    BIO* expiry = BIO_new(BIO_s_mem());
    if (expiry && ASN1_TIME_print(expiry, X509_get0_notAfter(leaf)) == 1) {
        described.expiry = bioText(expiry);
    }
    BIO_free(expiry);
    ERR_clear_error();
    return described;
}

}  // namespace ModbusDiscovery
