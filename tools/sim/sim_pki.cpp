// Makes the certificate kit with OpenSSL's C API: keys, certificates, their extensions and the PEM files.

#include "tools/sim/sim_pki.h"

#include <fcntl.h>
#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <cstdio>
#include <memory>

namespace modbus_sim {

namespace {

constexpr int kSecondsPerDay = 24 * 60 * 60;
constexpr int kSerialBits = 63;
// A key file must be readable by its owner only, as any private key on a gateway.
constexpr mode_t kKeyFileMode = 0600;
constexpr mode_t kCertificateFileMode = 0644;
constexpr char kCaKeyUsage[] = "critical,keyCertSign,cRLSign";
constexpr char kLeafKeyUsage[] = "critical,digitalSignature,keyAgreement";

struct KeyDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertificateDeleter {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyDeleter>;
using CertificatePtr = std::unique_ptr<X509, CertificateDeleter>;
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// The reason of the most recent OpenSSL error (never key material: OpenSSL's texts name operations only).
QString openSslReason() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    if (code == 0) return QStringLiteral("unknown OpenSSL error");
    const char* reason = ERR_reason_error_string(code);
    return reason ? QString::fromLatin1(reason) : QStringLiteral("OpenSSL error %1").arg(code);
}

bool fail(QString* error, const QString& reason) {
    if (error) *error = reason;
    return false;
}

KeyPtr newKey() {
    return KeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
}

// Opens `path` for writing with `mode`, also when it existed with a wider one.
FilePtr createFile(const QString& path, mode_t mode) {
    const int fd =
        ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return nullptr;
    if (::fchmod(fd, mode) != 0) {
        ::close(fd);
        return nullptr;
    }
    FILE* file = ::fdopen(fd, "w");
    if (!file) ::close(fd);
    return FilePtr(file);
}

bool writeFiles(const QString& dir, const QString& name, X509* certificate, EVP_PKEY* key, QString* error) {
    const QString keyFile = keyPath(dir, name);
    FilePtr keyOut = createFile(keyFile, kKeyFileMode);
    if (!keyOut) return fail(error, QStringLiteral("cannot write %1").arg(keyFile));
    if (PEM_write_PrivateKey(keyOut.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1 ||
        fflush(keyOut.get()) != 0)
        return fail(error, QStringLiteral("cannot write %1: %2").arg(keyFile, openSslReason()));
    const QString certificateFile = certificatePath(dir, name);
    FilePtr certificateOut = createFile(certificateFile, kCertificateFileMode);
    if (!certificateOut) return fail(error, QStringLiteral("cannot write %1").arg(certificateFile));
    if (PEM_write_X509(certificateOut.get(), certificate) != 1 || fflush(certificateOut.get()) != 0)
        return fail(error, QStringLiteral("cannot write %1: %2").arg(certificateFile, openSslReason()));
    return true;
}

bool readAuthority(const QString& dir, const QString& name, CertificatePtr* certificate, KeyPtr* key,
                   QString* error) {
    const QString certificateFile = certificatePath(dir, name);
    FilePtr in(::fopen(QFile::encodeName(certificateFile).constData(), "re"));
    if (!in) return fail(error, QStringLiteral("cannot read %1").arg(certificateFile));
    certificate->reset(PEM_read_X509(in.get(), nullptr, nullptr, nullptr));
    if (!*certificate) return fail(error, QStringLiteral("%1: %2").arg(certificateFile, openSslReason()));
    const QString keyFile = keyPath(dir, name);
    in.reset(::fopen(QFile::encodeName(keyFile).constData(), "re"));
    if (!in) return fail(error, QStringLiteral("cannot read %1").arg(keyFile));
    key->reset(PEM_read_PrivateKey(in.get(), nullptr, nullptr, nullptr));
    if (!*key) return fail(error, QStringLiteral("%1: %2").arg(keyFile, openSslReason()));
    return true;
}

bool setRandomSerial(X509* certificate) {
    std::unique_ptr<BIGNUM, decltype(&BN_free)> serial(BN_new(), BN_free);
    if (!serial || BN_rand(serial.get(), kSerialBits, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) != 1) return false;
    return BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate)) != nullptr;
}

bool setValidity(X509* certificate, int fromDays, int untilDays) {
    return X509_time_adj_ex(X509_getm_notBefore(certificate), fromDays, 0, nullptr) &&
           X509_time_adj_ex(X509_getm_notAfter(certificate), untilDays, 0, nullptr);
}

bool setCommonName(X509* certificate, const QString& commonName) {
    X509_NAME* subject = X509_get_subject_name(certificate);
    const QByteArray text = commonName.toUtf8();
    return X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char*>(text.constData()), -1, -1,
                                      0) == 1;
}

// A standard extension from its configuration text (as in openssl.cnf), with `issuer` as the signer.
bool addExtension(X509* certificate, X509* issuer, int nid, const QByteArray& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.constData());
    if (!extension) return false;
    const bool added = X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return added;
}

// The role extension: its value is the DER of a UTF8String, wrapped in the extension's OCTET STRING.
bool addRoleExtension(X509* certificate, const QString& role) {
    std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> oid(OBJ_txt2obj(kRoleExtensionOid, 1),
                                                                  ASN1_OBJECT_free);
    std::unique_ptr<ASN1_UTF8STRING, decltype(&ASN1_UTF8STRING_free)> text(ASN1_UTF8STRING_new(),
                                                                           ASN1_UTF8STRING_free);
    std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> value(ASN1_OCTET_STRING_new(),
                                                                                ASN1_OCTET_STRING_free);
    if (!oid || !text || !value) return false;
    const QByteArray utf8 = role.toUtf8();
    if (ASN1_STRING_set(text.get(), utf8.constData(), utf8.size()) != 1) return false;
    unsigned char* der = nullptr;
    const int derLength = i2d_ASN1_UTF8STRING(text.get(), &der);
    if (derLength <= 0) return false;
    const bool set = ASN1_OCTET_STRING_set(value.get(), der, derLength) == 1;
    OPENSSL_free(der);
    if (!set) return false;
    X509_EXTENSION* extension = X509_EXTENSION_create_by_OBJ(nullptr, oid.get(), 0, value.get());
    if (!extension) return false;
    const bool added = X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return added;
}

QByteArray subjectAltName(const CertificateSpec& spec) {
    QStringList entries;
    for (const QString& address : spec.ipAddresses) entries << QStringLiteral("IP:") + address;
    for (const QString& name : spec.dnsNames) entries << QStringLiteral("DNS:") + name;
    return entries.join(QLatin1Char(',')).toLatin1();
}

bool ensureDirectory(const QString& dir, QString* error) {
    if (QDir().mkpath(dir)) return true;
    return fail(error, QStringLiteral("cannot create directory %1").arg(dir));
}

}  // namespace

QString certificatePath(const QString& dir, const QString& name) {
    return QDir(dir).filePath(name + QLatin1String(kCertificateSuffix));
}

QString keyPath(const QString& dir, const QString& name) {
    return QDir(dir).filePath(name + QLatin1String(kKeySuffix));
}

bool makeAuthority(const QString& dir, const QString& name, const QString& commonName, QString* error) {
    if (!ensureDirectory(dir, error)) return false;
    KeyPtr key = newKey();
    CertificatePtr certificate(X509_new());
    if (!key || !certificate)
        return fail(error, QStringLiteral("%1: cannot make a key: %2").arg(name, openSslReason()));
    X509* ca = certificate.get();
    if (X509_set_version(ca, X509_VERSION_3) != 1 || !setRandomSerial(ca) ||
        !setValidity(ca, -1, 10 * kDefaultValidDays) || !setCommonName(ca, commonName) ||
        X509_set_issuer_name(ca, X509_get_subject_name(ca)) != 1 || X509_set_pubkey(ca, key.get()) != 1 ||
        !addExtension(ca, ca, NID_basic_constraints, "critical,CA:TRUE") ||
        !addExtension(ca, ca, NID_key_usage, kCaKeyUsage) ||
        !addExtension(ca, ca, NID_subject_key_identifier, "hash") ||
        X509_sign(ca, key.get(), EVP_sha256()) <= 0)
        return fail(error, QStringLiteral("%1: cannot make the certificate: %2").arg(name, openSslReason()));
    return writeFiles(dir, name, ca, key.get(), error);
}

bool makeCertificate(const QString& dir, const CertificateSpec& spec, QString* error) {
    if (!ensureDirectory(dir, error)) return false;
    CertificatePtr issuer;
    KeyPtr issuerKey;
    if (!readAuthority(dir, spec.issuer, &issuer, &issuerKey, error)) return false;
    KeyPtr key = newKey();
    CertificatePtr certificate(X509_new());
    if (!key || !certificate)
        return fail(error, QStringLiteral("%1: cannot make a key: %2").arg(spec.name, openSslReason()));
    X509* leaf = certificate.get();
    const QByteArray names = subjectAltName(spec);
    const bool device = spec.use == CertificateUse::Device;
    bool made = X509_set_version(leaf, X509_VERSION_3) == 1 && setRandomSerial(leaf) &&
                setValidity(leaf, spec.validFromDays, spec.validUntilDays) &&
                setCommonName(leaf, spec.commonName) &&
                X509_set_issuer_name(leaf, X509_get_subject_name(issuer.get())) == 1 &&
                X509_set_pubkey(leaf, key.get()) == 1 &&
                addExtension(leaf, issuer.get(), NID_basic_constraints, "critical,CA:FALSE") &&
                addExtension(leaf, issuer.get(), NID_key_usage, kLeafKeyUsage) &&
                addExtension(leaf, issuer.get(), NID_ext_key_usage, device ? "serverAuth" : "clientAuth") &&
                addExtension(leaf, issuer.get(), NID_subject_key_identifier, "hash") &&
                addExtension(leaf, issuer.get(), NID_authority_key_identifier, "keyid:always");
    if (made && !names.isEmpty()) made = addExtension(leaf, issuer.get(), NID_subject_alt_name, names);
    if (made && !spec.role.isEmpty()) made = addRoleExtension(leaf, spec.role);
    if (made) made = X509_sign(leaf, issuerKey.get(), EVP_sha256()) > 0;
    if (!made)
        return fail(error,
                    QStringLiteral("%1: cannot make the certificate: %2").arg(spec.name, openSslReason()));
    return writeFiles(dir, spec.name, leaf, key.get(), error);
}

bool makeClientCertificate(const QString& dir, const QString& name, const QString& role, int validDays,
                           QString* error) {
    CertificateSpec spec;
    spec.name = name;
    spec.use = CertificateUse::Client;
    spec.commonName = name;
    spec.role = role;
    spec.validUntilDays = validDays;
    return makeCertificate(dir, spec, error);
}

namespace {

CertificateSpec deviceSpec(const QString& name, const QString& listenAddress) {
    CertificateSpec spec;
    spec.name = name;
    spec.use = CertificateUse::Device;
    spec.commonName = QString::fromLatin1(kDeviceCommonName);
    spec.ipAddresses = QStringList{listenAddress};
    spec.dnsNames = QStringList{QStringLiteral("localhost")};
    return spec;
}

}  // namespace

bool makeTestPki(const QString& dir, const QString& listenAddress, QString* error) {
    return makeAuthority(dir, QString::fromLatin1(kCaName), QStringLiteral("modbus-sim test CA"), error) &&
           makeCertificate(dir, deviceSpec(QString::fromLatin1(kDeviceName), listenAddress), error) &&
           makeClientCertificate(dir, QString::fromLatin1(kClientName), QString::fromLatin1(kOperatorRole),
                                 kDefaultValidDays, error);
}

bool makeFaultCertificates(const QString& dir, const QString& listenAddress, QString* error) {
    if (!makeClientCertificate(dir, QString::fromLatin1(kViewerName), QString::fromLatin1(kViewerRole),
                               kDefaultValidDays, error))
        return false;
    CertificateSpec expired = deviceSpec(QString::fromLatin1(kExpiredDeviceName), listenAddress);
    expired.validFromDays = -2 * kDefaultValidDays;
    expired.validUntilDays = -1;
    if (!makeCertificate(dir, expired, error)) return false;
    if (!makeAuthority(dir, QString::fromLatin1(kOtherCaName), QStringLiteral("modbus-sim other CA"), error))
        return false;
    CertificateSpec otherCa = deviceSpec(QString::fromLatin1(kOtherCaDeviceName), listenAddress);
    otherCa.issuer = QString::fromLatin1(kOtherCaName);
    if (!makeCertificate(dir, otherCa, error)) return false;
    CertificateSpec wrongName = deviceSpec(QString::fromLatin1(kWrongNameDeviceName), listenAddress);
    wrongName.ipAddresses.clear();
    wrongName.dnsNames = QStringList{QString::fromLatin1(kWrongName)};
    return makeCertificate(dir, wrongName, error);
}

bool hasDeviceKit(const QString& dir) {
    return QFile::exists(certificatePath(dir, QString::fromLatin1(kCaName))) &&
           QFile::exists(certificatePath(dir, QString::fromLatin1(kDeviceName))) &&
           QFile::exists(keyPath(dir, QString::fromLatin1(kDeviceName)));
}

}  // namespace modbus_sim
