#pragma once
// A certificate kit for Modbus/TCP Security tests, the simulator and the tool: a certificate authority, the
// device's certificate, client certificates carrying a role, and the broken certificates the faults need.
// Every key is EC P-256 (fast to make on a small Arm gateway and under qemu), every signature SHA-256. Each
// certificate is written as <name>.pem next to its key <name>.key (PEM, unencrypted PKCS#8, mode 0600).
// Nothing here prints or returns key material; error texts name files and OpenSSL reasons only.

#include <QString>
#include <QStringList>

namespace modbus_sim {

// The extension that carries a client's role: an ASN.1 UTF8String holding the role name.
constexpr char kRoleExtensionOid[] = "1.3.6.1.4.1.50316.802.1";
constexpr char kOperatorRole[] = "operator";
constexpr char kViewerRole[] = "viewer";

// Base names (without .pem / .key) of the files the kit functions write.
constexpr char kCaName[] = "ca";
constexpr char kDeviceName[] = "device";
constexpr char kClientName[] = "client";
constexpr char kViewerName[] = "viewer";
constexpr char kOtherCaName[] = "other-ca";
constexpr char kExpiredDeviceName[] = "device-expired";
constexpr char kOtherCaDeviceName[] = "device-other-ca";
constexpr char kWrongNameDeviceName[] = "device-wrong-name";
constexpr char kWrongName[] = "wrong.example";
constexpr char kDeviceCommonName[] = "modbus-sim";
constexpr char kCertificateSuffix[] = ".pem";
constexpr char kKeySuffix[] = ".key";
constexpr int kDefaultValidDays = 365;

enum class CertificateUse {
    Device,  // TLS server: extendedKeyUsage serverAuth
    Client,  // TLS client: extendedKeyUsage clientAuth
};

struct CertificateSpec {
    QString name;  // base name of the files written: <name>.pem and <name>.key
    CertificateUse use = CertificateUse::Client;
    QString commonName;
    QStringList ipAddresses;  // subjectAltName IP entries (IPv4 or IPv6 text)
    QStringList dnsNames;     // subjectAltName DNS entries
    QString role;             // the role extension's value; empty: no role extension
    // Validity relative to now, in days: notBefore = now + validFromDays, notAfter = now + validUntilDays.
    // A negative validUntilDays gives a certificate that has already expired.
    int validFromDays = -1;
    int validUntilDays = kDefaultValidDays;
    QString issuer =
        QString::fromLatin1(kCaName);  // base name of the signing authority's files in the directory
};

// The path of <name>.pem or <name>.key in `dir`.
QString certificatePath(const QString& dir, const QString& name);
QString keyPath(const QString& dir, const QString& name);

// A self-signed certificate authority: <name>.pem and <name>.key.
bool makeAuthority(const QString& dir, const QString& name, const QString& commonName, QString* error);
// A certificate signed by the authority spec.issuer whose files are already in `dir`.
bool makeCertificate(const QString& dir, const CertificateSpec& spec, QString* error);
// A client certificate <name>.pem / <name>.key with `role` (empty: no role extension), signed by ca, valid
// from a day ago until `validDays` from now.
bool makeClientCertificate(const QString& dir, const QString& name, const QString& role, int validDays,
                           QString* error);

// The kit a device and its client need, made in `dir` (created when missing; existing files are replaced):
// ca.pem/ca.key, device.pem/device.key (CN modbus-sim, subjectAltName IP:<listenAddress> and DNS:localhost)
// and client.pem/client.key with role "operator".
bool makeTestPki(const QString& dir, const QString& listenAddress, QString* error);
// The certificates of the faults and a second role, next to a kit from makeTestPki: viewer.pem/.key (role
// "viewer"), device-expired.pem/.key (notAfter a day in the past), other-ca.pem/.key and
// device-other-ca.pem/.key (a device certificate that authority signed), device-wrong-name.pem/.key
// (subjectAltName DNS:wrong.example only). Every device certificate but the last carries the names of
// device.pem.
bool makeFaultCertificates(const QString& dir, const QString& listenAddress, QString* error);
// Whether `dir` holds what a device serves: ca.pem, device.pem and device.key.
bool hasDeviceKit(const QString& dir);

}  // namespace modbus_sim
