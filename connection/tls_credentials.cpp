#include "connection/tls_credentials.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <QFile>
#include <climits>

const char* const kCaCertificatesSetting = "tls_ca_certificates";
const char* const kCertificateSetting = "tls_certificate";
const char* const kPrivateKeySetting = "tls_private_key";

namespace {

constexpr mode_t kGroupOrOthers = S_IRWXG | S_IRWXO;
constexpr qint64 kMostPemBytes = 1024 * 1024;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};

bool isPemText(QString const& value) {
    return value.contains(QLatin1String("-----BEGIN"));
}

// Where a setting's PEM comes from, for messages: the file, or that it is the text itself.
QString sourceOf(QString const& value) {
    return isPemText(value) ? QStringLiteral("the PEM text") : value.trimmed();
}

// The PEM bytes of a setting; false with *error naming the setting and the file.
bool readPem(const char* setting, QString const& value, QByteArray* pem, QString* error) {
    if (isPemText(value)) {
        *pem = value.toUtf8();
        return true;
    }
    QFile file(value.trimmed());
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: cannot read %2: %3")
                     .arg(QLatin1String(setting), file.fileName(), file.errorString());
        return false;
    }
    *pem = file.read(kMostPemBytes);
    return true;
}

std::vector<CertificatePtr> certificatesIn(QByteArray const& pem) {
    std::vector<CertificatePtr> certificates;
    std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.constData(), pem.size()));
    while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr))
        certificates.emplace_back(certificate);
    ERR_clear_error();  // the end of the text reads as an error
    return certificates;
}

bool readCertificates(const char* setting, QString const& value, std::vector<CertificatePtr>* certificates,
                      QString* error) {
    QByteArray pem;
    if (!readPem(setting, value, &pem, error)) return false;
    *certificates = certificatesIn(pem);
    if (certificates->empty()) {
        *error = QStringLiteral("%1: no certificate in %2").arg(QLatin1String(setting), sourceOf(value));
        return false;
    }
    return true;
}

}  // namespace

TlsCredentials loadTlsCredentials(TlsSettings const& settings) {
    TlsCredentials credentials;
    if (settings.caCertificates.trimmed().isEmpty()) {
        credentials.error = QStringLiteral("%1: not set, so the device's certificate cannot be verified")
                                .arg(QLatin1String(kCaCertificatesSetting));
        return credentials;
    }
    if (!readCertificates(kCaCertificatesSetting, settings.caCertificates, &credentials.authorities,
                          &credentials.error))
        return credentials;
    const bool hasCertificate = !settings.certificate.trimmed().isEmpty();
    const bool hasKey = !settings.privateKey.trimmed().isEmpty();
    if (hasCertificate != hasKey) {
        credentials.error =
            QStringLiteral("%1: set without %2")
                .arg(QLatin1String(hasCertificate ? kCertificateSetting : kPrivateKeySetting),
                     QLatin1String(hasCertificate ? kPrivateKeySetting : kCertificateSetting));
        return credentials;
    }
    if (!hasCertificate) return credentials;
    if (!readCertificates(kCertificateSetting, settings.certificate, &credentials.chain, &credentials.error))
        return credentials;
    QByteArray pem;
    if (!readPem(kPrivateKeySetting, settings.privateKey, &pem, &credentials.error)) return credentials;
    std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.constData(), pem.size()));
    credentials.key.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
    pem.fill('\0');
    ERR_clear_error();
    const QString keySource = sourceOf(settings.privateKey);
    if (!credentials.key) {
        credentials.error =
            QStringLiteral("%1: no private key in %2").arg(QLatin1String(kPrivateKeySetting), keySource);
        return credentials;
    }
    if (X509_check_private_key(credentials.chain.front().get(), credentials.key.get()) != 1) {
        ERR_clear_error();
        credentials.error =
            QStringLiteral("%1: the key in %2 does not match the certificate in %3")
                .arg(QLatin1String(kPrivateKeySetting), keySource, sourceOf(settings.certificate));
        return credentials;
    }
    if (!isPemText(settings.privateKey)) {
        struct stat status {};
        if (::stat(keySource.toLocal8Bit().constData(), &status) == 0 && (status.st_mode & kGroupOrOthers))
            credentials.warnings.append(
                QStringLiteral("%1: %2 may be read by group or others; only its owner "
                               "should read it")
                    .arg(QLatin1String(kPrivateKeySetting), keySource));
    }
    return credentials;
}

QString tlsFileStamp(TlsSettings const& settings) {
    // stat() alone: this runs on every reconnect, and a QFileInfo time goes through the local time zone.
    QString stamp;
    for (QString const& value : {settings.caCertificates, settings.certificate, settings.privateKey}) {
        if (value.trimmed().isEmpty() || isPemText(value)) continue;
        struct stat status {};
        const bool exists = ::stat(value.trimmed().toLocal8Bit().constData(), &status) == 0;
        stamp += QStringLiteral("%1:%2.%3:%4;")
                     .arg(value.trimmed())
                     .arg(exists ? static_cast<qint64>(status.st_mtim.tv_sec) : -1)
                     .arg(exists ? static_cast<qint64>(status.st_mtim.tv_nsec) : -1)
                     .arg(exists ? static_cast<qint64>(status.st_size) : -1);
    }
    return stamp;
}

int daysUntilExpiry(X509 const* certificate) {
    if (!certificate) return INT_MIN;
    int days = 0;
    int seconds = 0;
    if (ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate)) != 1) return INT_MIN;
    // A certificate that expires later today has 0 days left; one that expired an hour ago has -1.
    return seconds < 0 ? days - 1 : days;
}
