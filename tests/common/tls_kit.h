#pragma once
// The test certificate kit of tools/sim/sim_pki.h as the Modbus/TCP Security tests use it: made once per test
// suite for a device on loopback, and read back for what a certificate or key file holds.

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

#include "tools/sim/sim_pki.h"
#include "tools/sim/sim_tls_kit.h"

namespace test_support {

// The notAfter of a PEM certificate file, as OpenSSL prints it; empty when the file holds no certificate.
inline QString expiryOf(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return QString();
    }
    const QByteArray pem = file.readAll();
    BIO* bio = BIO_new_mem_buf(pem.constData(), pem.size());
    X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    if (!certificate) {
        return QString();
    }
    BIO* text = BIO_new(BIO_s_mem());
    ASN1_TIME_print(text, X509_get0_notAfter(certificate));
    char* data = nullptr;
    const long length = BIO_get_mem_data(text, &data);
    const QString expiry = QString::fromLatin1(data, static_cast<int>(length));
    BIO_free(text);
    X509_free(certificate);
    return expiry;
}

// The base64 lines of a PEM key file, which no output may contain.
inline QStringList keyBody(const QString& path) {
    QFile file(path);
    QStringList lines;
    if (!file.open(QIODevice::ReadOnly)) {
        return lines;
    }
    for (const QString& line :
         QString::fromLatin1(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (!line.startsWith(QLatin1String("-----"))) {
            lines.append(line.trimmed());
        }
    }
    return lines;
}

enum class FaultCertificates { Skip, Make };

// The kit for a device at 127.0.0.1 in `dir`, with the certificates the fault cases present when asked.
inline void makeLoopbackKit(const QString& dir, FaultCertificates faults) {
    QString error;
    ASSERT_TRUE(modbus_sim::makeTestPki(dir, QStringLiteral("127.0.0.1"), &error)) << error.toStdString();
    if (faults == FaultCertificates::Make) {
        ASSERT_TRUE(modbus_sim::makeFaultCertificates(dir, QStringLiteral("127.0.0.1"), &error))
            << error.toStdString();
    }
}

// One kit for every test of a suite, for a device at 127.0.0.1: making certificates is slow.
class LoopbackTlsKitTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        kitDir = std::make_unique<QTemporaryDir>();
        ASSERT_TRUE(kitDir->isValid());
        makeLoopbackKit(kit(), FaultCertificates::Make);
    }
    static void TearDownTestSuite() { kitDir.reset(); }

    static QString kit() { return kitDir->path(); }
    static QString pem(const char* name) { return modbus_sim::certificatePath(kit(), QLatin1String(name)); }
    static QString key(const char* name) { return modbus_sim::keyPath(kit(), QLatin1String(name)); }

    // The device's side of the kit, presenting what `fault` names.
    static void serverSettings(modbus_sim::TlsFault fault, modbus_sim::TlsServerSettings* settings) {
        bool created = true;
        QString error;
        ASSERT_TRUE(modbus_sim::tlsServerSettingsForKit(kit(), QStringLiteral("127.0.0.1"), fault, settings,
                                                        &created, &error))
            << error.toStdString();
    }

private:
    inline static std::unique_ptr<QTemporaryDir> kitDir;
};

}  // namespace test_support
