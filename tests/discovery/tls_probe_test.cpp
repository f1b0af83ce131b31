// The Modbus/TCP Security probe against the simulator serving TLS on loopback: a device identified inside the
// session, a device that wants a client certificate found by its certificate, and the handshakes that find
// nothing.
#include "discovery/tls_probe.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <chrono>
#include <memory>
#include <thread>

#include "connection/tls_settings.h"
#include "discovery/constants.h"
#include "discovery/secure_probe.h"
#include "discovery/transport.h"
#include "tests/common/tls_kit.h"
#include "tools/sim/sim_pki.h"
#include "tools/sim/sim_tls_kit.h"
#include "tools/sim/simulator.h"

namespace {

using modbus_sim::Simulator;
using modbus_sim::TlsFault;
using ModbusDiscovery::SecureProbe;
using test_support::expiryOf;

constexpr char kLoopback[] = "127.0.0.1";
constexpr char kForeignClient[] = "foreign-client";
// Far above a loopback handshake, also on a loaded machine.
constexpr int kConnectTimeoutMs = 2000;
constexpr int kHandshakeTimeoutMs = 5000;
constexpr int kReadTimeoutMs = 2000;

class TlsProbeTest : public test_support::LoopbackTlsKitTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_NO_FATAL_FAILURE(LoopbackTlsKitTest::SetUpTestSuite());
        QString error;
        // A client certificate of an authority the device does not know.
        modbus_sim::CertificateSpec foreign;
        foreign.name = QLatin1String(kForeignClient);
        foreign.commonName = QLatin1String(kForeignClient);
        foreign.role = QLatin1String(modbus_sim::kOperatorRole);
        foreign.issuer = QLatin1String(modbus_sim::kOtherCaName);
        ASSERT_TRUE(modbus_sim::makeCertificate(kit(), foreign, &error)) << error.toStdString();
    }
    void serve(TlsFault fault = TlsFault::None) {
        modbus_sim::TlsServerSettings settings;
        ASSERT_NO_FATAL_FAILURE(serverSettings(fault, &settings));
        simulator.setTls(settings);
        QString error;
        modbus_sim::DeviceIdentification identity;
        identity.objects = {{0x00, "ACME"}, {0x01, "SEC-1"}, {0x02, "2.0"}, {0x05, "Secure Meter"}};
        simulator.setDeviceIdentification(identity);
        simulator.setUnits({1});
        ASSERT_TRUE(simulator.start(QLatin1String(kLoopback), 0, &error)) << error.toStdString();
    }

    static TlsSettings settings(const char* client) {
        TlsSettings tls;
        tls.caCertificates = pem(modbus_sim::kCaName);
        if (client) {
            tls.certificate = pem(client);
            tls.privateKey = key(client);
        }
        return tls;
    }

    SecureProbe probe(const TlsSettings& tls) {
        return ModbusDiscovery::tlsIdentify(QLatin1String(kLoopback), simulator.port(), {1}, tls,
                                            kConnectTimeoutMs, kHandshakeTimeoutMs, kReadTimeoutMs);
    }

    Simulator simulator;
};

TEST_F(TlsProbeTest, IdentifiesTheDeviceInsideTheSession) {
    serve();
    const SecureProbe found = probe(settings(modbus_sim::kClientName));
    EXPECT_TRUE(found.reachable);
    EXPECT_EQ(found.failure, QString());
    EXPECT_FALSE(found.clientCertificateRefused);
    ASSERT_EQ(found.answers.size(), 1);
    const ModbusDiscovery::IdentifyResult& unit = found.answers.first();
    EXPECT_TRUE(unit.ok);
    EXPECT_EQ(unit.unitId, 1);
    EXPECT_EQ(unit.vendor, "ACME");
    EXPECT_EQ(unit.productCode, "SEC-1");
    EXPECT_EQ(unit.version, "2.0");
    EXPECT_EQ(unit.modelName, "Secure Meter");
    EXPECT_EQ(unit.source, "device-id");
    // The same requests as over Modbus TCP, every one inside TLS with the client's role.
    const auto log = simulator.requestLog();
    ASSERT_FALSE(log.empty());
    for (const auto& record : log) {
        EXPECT_TRUE(record.tls);
        EXPECT_EQ(record.role, QStringLiteral("operator"));
        EXPECT_EQ(record.function, ModbusDiscovery::kFcMei);
    }
    EXPECT_EQ(simulator.tlsHandshakes(), 1);
}

TEST_F(TlsProbeTest, QtTransportProbesLikeTheExportedFunction) {
    serve();
    ModbusDiscovery::QtTransport transport;
    const SecureProbe found = transport.tlsIdentify(QLatin1String(kLoopback), simulator.port(), {1},
                                                    settings(modbus_sim::kClientName), kConnectTimeoutMs,
                                                    kHandshakeTimeoutMs, kReadTimeoutMs);
    ASSERT_EQ(found.answers.size(), 1);
    EXPECT_EQ(found.answers.first().modelName, "Secure Meter");
}

TEST_F(TlsProbeTest, ADeviceWantingAClientCertificateIsKnownByItsCertificate) {
    serve();
    const SecureProbe found = probe(settings(nullptr));
    EXPECT_TRUE(found.reachable);
    EXPECT_EQ(found.failure, QStringLiteral("tlsv13 alert certificate required"));
    EXPECT_TRUE(found.clientCertificateRefused);
    EXPECT_TRUE(found.answers.isEmpty());
    EXPECT_EQ(found.certificateSubject, QStringLiteral("CN=modbus-sim"));
    EXPECT_EQ(found.certificateExpiry, expiryOf(pem(modbus_sim::kDeviceName)));
    EXPECT_FALSE(found.certificateExpiry.isEmpty());
    EXPECT_EQ(simulator.totalRequests(), 0);
}

TEST_F(TlsProbeTest, ADeviceRefusingTheClientCertificateIsKnownByItsCertificate) {
    serve();
    const SecureProbe found = probe(settings(kForeignClient));
    EXPECT_EQ(found.failure, QStringLiteral("tlsv1 alert unknown ca"));
    EXPECT_TRUE(found.clientCertificateRefused);
    EXPECT_EQ(found.certificateSubject, QStringLiteral("CN=modbus-sim"));
    EXPECT_EQ(found.certificateExpiry, expiryOf(pem(modbus_sim::kDeviceName)));
}

TEST_F(TlsProbeTest, ADeviceCertificateThatDoesNotVerifyFindsNothing) {
    serve(TlsFault::ExpiredCertificate);
    const SecureProbe found = probe(settings(modbus_sim::kClientName));
    EXPECT_TRUE(found.reachable);
    EXPECT_EQ(found.failure, QStringLiteral("certificate has expired"));
    EXPECT_FALSE(found.clientCertificateRefused);
    EXPECT_TRUE(found.answers.isEmpty());
    EXPECT_EQ(found.certificateSubject, QString());
}

TEST_F(TlsProbeTest, APlainModbusPortFindsNothing) {
    serve(TlsFault::PlainTcp);
    const SecureProbe found = probe(settings(modbus_sim::kClientName));
    EXPECT_TRUE(found.reachable);
    EXPECT_EQ(found.failure, QStringLiteral("wrong version number"));
    EXPECT_FALSE(found.clientCertificateRefused);
    EXPECT_TRUE(found.answers.isEmpty());
}

TEST_F(TlsProbeTest, ASilentHandshakeEndsWithinItsBudget) {
    serve(TlsFault::StallHandshake);
    constexpr int kShortHandshakeMs = 300;
    const auto started = std::chrono::steady_clock::now();
    const SecureProbe found = ModbusDiscovery::tlsIdentify(
        QLatin1String(kLoopback), simulator.port(), {1}, settings(modbus_sim::kClientName), kConnectTimeoutMs,
        kShortHandshakeMs, kReadTimeoutMs);
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
    EXPECT_EQ(found.failure, QStringLiteral("no handshake within the connect time-out"));
    EXPECT_TRUE(found.answers.isEmpty());
    EXPECT_GE(elapsed.count(), kShortHandshakeMs);
    EXPECT_LT(elapsed.count(), kShortHandshakeMs + kHandshakeTimeoutMs);
}

TEST_F(TlsProbeTest, UnreadableSettingsAreNamedWithoutAHandshake) {
    serve();
    TlsSettings tls = settings(modbus_sim::kClientName);
    tls.caCertificates = QStringLiteral("/nonexistent/ca.pem");
    const SecureProbe found = probe(tls);
    EXPECT_TRUE(found.reachable);
    EXPECT_EQ(found.failure,
              QStringLiteral("tls_ca_certificates: cannot read /nonexistent/ca.pem: No such file "
                             "or directory"));
    // The probe connected and closed without a ClientHello; once the simulator has seen the close, no
    // handshake went on, and one that failed failed for want of any byte.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (simulator.closedConnections() < simulator.acceptedConnections() &&
           std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(simulator.closedConnections(), simulator.acceptedConnections());
    EXPECT_EQ(simulator.tlsHandshakes(), 0);
    // OpenSSL's words for a peer that closed before its first byte, or the simulator's when OpenSSL has none.
    for (const QString& error : simulator.tlsHandshakeErrors())
        EXPECT_TRUE(error == QLatin1String("unexpected eof while reading") ||
                    error == QLatin1String("connection closed"))
            << error.toStdString();
}

TEST_F(TlsProbeTest, AClosedPortIsUnreachable) {
    serve();
    const quint16 port = simulator.port();
    simulator.stop();
    const SecureProbe found =
        ModbusDiscovery::tlsIdentify(QLatin1String(kLoopback), port, {1}, settings(modbus_sim::kClientName),
                                     kConnectTimeoutMs, kHandshakeTimeoutMs, kReadTimeoutMs);
    EXPECT_FALSE(found.reachable);
    EXPECT_EQ(found.failure, QString());
}

TEST(RefusesClientCertificate, TheAlertsOfAMissingOrUnwelcomeCertificate) {
    for (const char* reason :
         {"tlsv13 alert certificate required", "sslv3 alert handshake failure", "sslv3 alert bad certificate",
          "sslv3 alert certificate unknown", "sslv3 alert certificate expired",
          "sslv3 alert certificate revoked", "sslv3 alert unsupported certificate", "tlsv1 alert unknown ca",
          "tlsv1 alert access denied"}) {
        EXPECT_TRUE(ModbusDiscovery::refusesClientCertificate(QLatin1String(reason))) << reason;
    }
    for (const char* reason :
         {"certificate has expired", "hostname mismatch", "wrong version number",
          "no handshake within the connect time-out", "self-signed certificate in certificate chain", ""}) {
        EXPECT_FALSE(ModbusDiscovery::refusesClientCertificate(QLatin1String(reason))) << reason;
    }
}

}  // namespace
