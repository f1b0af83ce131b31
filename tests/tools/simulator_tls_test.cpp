// The simulator serving Modbus/TCP Security: roles from client certificates, each TLS fault as the client
// sees it (OpenSSL's exact texts), session resumption, the certificate kit and the command line's output.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <chrono>
#include <memory>

#include "common/program_command.h"
#include "common/tls_client.h"
#include "tools/sim/sim_pki.h"
#include "tools/sim/sim_tls_kit.h"
#include "tools/sim/simulator.h"
#include "tools/simulator_raw_client.h"

namespace {

using modbus_sim::Simulator;
using modbus_sim::TlsFault;
using modbus_sim::TlsServerSettings;
using simulator_test::adu;
using simulator_test::waitFor;
using tls_test::TlsClient;
using tls_test::TlsClientSettings;

constexpr char kListenAddress[] = "127.0.0.1";
constexpr char kServerName[] = "localhost";
constexpr char kNoRoleName[] = "no-role";
// Far below the client's usual wait, far above a loopback handshake: the stalled handshake must run out.
constexpr int kStallTimeoutMs = 500;
constexpr int kProgramWaitMs = 20000;

// One kit for the whole suite: the certificates do not change between tests.
class SimulatorTlsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        kitDir = std::make_unique<QTemporaryDir>();
        ASSERT_TRUE(kitDir->isValid());
        QString error;
        ASSERT_TRUE(modbus_sim::makeTestPki(kit(), QLatin1String(kListenAddress), &error))
            << error.toStdString();
        ASSERT_TRUE(modbus_sim::makeFaultCertificates(kit(), QLatin1String(kListenAddress), &error))
            << error.toStdString();
        ASSERT_TRUE(modbus_sim::makeClientCertificate(kit(), QLatin1String(kNoRoleName), QString(),
                                                      modbus_sim::kDefaultValidDays, &error))
            << error.toStdString();
    }
    static void TearDownTestSuite() { kitDir.reset(); }

    static QString kit() { return kitDir->path(); }
    static QString pem(const char* name) { return modbus_sim::certificatePath(kit(), QLatin1String(name)); }
    static QString key(const char* name) { return modbus_sim::keyPath(kit(), QLatin1String(name)); }

    // Serves the kit with `fault`, its files chosen as the command line chooses them.
    void startServing(TlsFault fault = TlsFault::None) {
        TlsServerSettings settings;
        bool created = true;
        QString error;
        ASSERT_TRUE(modbus_sim::tlsServerSettingsForKit(kit(), QLatin1String(kListenAddress), fault,
                                                        &settings, &created, &error))
            << error.toStdString();
        ASSERT_FALSE(created);
        simulator.setTls(settings);
        ASSERT_TRUE(simulator.start(QLatin1String(kListenAddress), 0, &error)) << error.toStdString();
    }

    static TlsClientSettings clientSettings(const char* name) {
        TlsClientSettings settings;
        settings.caFile = pem(modbus_sim::kCaName);
        if (name) {
            settings.certificateFile = pem(name);
            settings.keyFile = key(name);
        }
        settings.serverName = QLatin1String(kServerName);
        return settings;
    }

    static std::unique_ptr<QTemporaryDir> kitDir;
    Simulator simulator;
};

std::unique_ptr<QTemporaryDir> SimulatorTlsTest::kitDir;

TEST_F(SimulatorTlsTest, OperatorReadsAndWrites) {
    startServing();
    simulator.setHoldingRegisters(0, {0x1234, 0x5678});
    TlsClient client(clientSettings(modbus_sim::kClientName));
    ASSERT_TRUE(client.connectTo(simulator.port())) << client.error().toStdString();
    EXPECT_EQ(client.exchange(adu(1, 1, "0300000002")), QByteArray::fromHex("00010000000701030412345678"));
    EXPECT_EQ(client.exchange(adu(2, 1, "06000500aa")), QByteArray::fromHex("0002000000060106000500aa"));
    EXPECT_EQ(simulator.holdingRegisters(5, 1), std::vector<uint16_t>{0x00AA});
    EXPECT_EQ(client.exchange(adu(3, 1, "10000600020402030405")),
              QByteArray::fromHex("000300000006011000060002"));
    EXPECT_EQ(simulator.holdingRegisters(6, 2), (std::vector<uint16_t>{0x0203, 0x0405}));

    const auto log = simulator.requestLog();
    ASSERT_EQ(log.size(), 3u);
    for (const auto& record : log) {
        EXPECT_TRUE(record.tls);
        EXPECT_FALSE(record.tlsResumed);
        EXPECT_EQ(record.role, QStringLiteral("operator"));
        EXPECT_EQ(record.refusal, QString());
    }
    EXPECT_EQ(simulator.tlsHandshakes(), 1);
    EXPECT_EQ(simulator.tlsResumedHandshakes(), 0);
    EXPECT_EQ(simulator.tlsFailedHandshakes(), 0);
}

TEST_F(SimulatorTlsTest, ViewerReadsButEveryWriteIsRefused) {
    startServing();
    simulator.setHoldingRegisters(0, {7, 8});
    simulator.setCoils(0, {1});
    simulator.setReportSlaveId(QByteArray::fromHex("01ff"));
    TlsClient client(clientSettings(modbus_sim::kViewerName));
    ASSERT_TRUE(client.connectTo(simulator.port())) << client.error().toStdString();
    EXPECT_EQ(client.exchange(adu(1, 1, "0300000002")), QByteArray::fromHex("00010000000701030400070008"));
    EXPECT_EQ(client.exchange(adu(2, 1, "0100000001")), QByteArray::fromHex("00020000000401010101"));
    EXPECT_EQ(client.exchange(adu(3, 1, "11")), QByteArray::fromHex("00030000000501110201ff"));
    EXPECT_EQ(client.exchange(adu(4, 1, "0600000063")), QByteArray::fromHex("000400000003018601"));
    EXPECT_EQ(client.exchange(adu(5, 1, "1000000001020063")), QByteArray::fromHex("000500000003019001"));
    EXPECT_EQ(client.exchange(adu(6, 1, "0500000000")), QByteArray::fromHex("000600000003018501"));
    EXPECT_EQ(simulator.holdingRegisters(0, 2), (std::vector<uint16_t>{7, 8}));
    EXPECT_EQ(simulator.coils(0, 1), std::vector<uint8_t>{1});

    const auto log = simulator.requestLog();
    ASSERT_EQ(log.size(), 6u);
    EXPECT_EQ(log[0].role, QStringLiteral("viewer"));
    EXPECT_EQ(log[0].refusal, QString());
    EXPECT_EQ(log[3].refusal, QStringLiteral("role \"viewer\" may not use function 6"));
    EXPECT_EQ(log[4].refusal, QStringLiteral("role \"viewer\" may not use function 16"));
    EXPECT_EQ(log[5].refusal, QStringLiteral("role \"viewer\" may not use function 5"));
}

TEST_F(SimulatorTlsTest, CertificateWithoutRoleMayDoNothing) {
    startServing();
    TlsClient client(clientSettings(kNoRoleName));
    ASSERT_TRUE(client.connectTo(simulator.port())) << client.error().toStdString();
    EXPECT_EQ(client.exchange(adu(1, 1, "0300000001")), QByteArray::fromHex("000100000003018301"));
    EXPECT_EQ(client.exchange(adu(2, 1, "0600000001")), QByteArray::fromHex("000200000003018601"));
    EXPECT_EQ(simulator.holdingRegisters(0, 1), std::vector<uint16_t>{0});
    const auto log = simulator.requestLog();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].role, QString());
    EXPECT_EQ(log[0].refusal,
              QStringLiteral("the client certificate has no role (extension 1.3.6.1.4.1.50316.802.1)"));
}

TEST_F(SimulatorTlsTest, ExpiredDeviceCertificate) {
    startServing(TlsFault::ExpiredCertificate);
    TlsClient client(clientSettings(modbus_sim::kClientName));
    EXPECT_FALSE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.error(), QStringLiteral("certificate verify failed"));
    EXPECT_EQ(client.verifyError(), QStringLiteral("certificate has expired"));
    ASSERT_TRUE(waitFor([&] { return simulator.tlsFailedHandshakes() == 1; }));
    EXPECT_EQ(simulator.tlsHandshakeErrors(),
              std::vector<QString>{QStringLiteral("sslv3 alert certificate expired")});
    EXPECT_EQ(simulator.tlsHandshakes(), 0);
}

TEST_F(SimulatorTlsTest, DeviceCertificateOfAnotherAuthority) {
    startServing(TlsFault::WrongCa);
    TlsClient client(clientSettings(modbus_sim::kClientName));
    EXPECT_FALSE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.error(), QStringLiteral("certificate verify failed"));
    EXPECT_EQ(client.verifyError(), QStringLiteral("unable to get local issuer certificate"));
}

TEST_F(SimulatorTlsTest, DeviceCertificateForAnotherName) {
    startServing(TlsFault::WrongName);
    TlsClient client(clientSettings(modbus_sim::kClientName));
    EXPECT_FALSE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.error(), QStringLiteral("certificate verify failed"));
    EXPECT_EQ(client.verifyError(), QStringLiteral("hostname mismatch"));

    // Without a name check the same certificate is accepted: the name is all that is wrong.
    TlsClientSettings unchecked = clientSettings(modbus_sim::kClientName);
    unchecked.serverName.clear();
    TlsClient lenient(unchecked);
    EXPECT_TRUE(lenient.connectTo(simulator.port())) << lenient.error().toStdString();
}

TEST_F(SimulatorTlsTest, PlainModbusTcpPort) {
    startServing(TlsFault::PlainTcp);
    TlsClient client(clientSettings(modbus_sim::kClientName));
    EXPECT_FALSE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.error(), QStringLiteral("wrong version number"));

    // A plain client is served as ever.
    simulator.setHoldingRegisters(0, {42});
    simulator_test::RawClient plain;
    ASSERT_TRUE(plain.connectTo(simulator.port()));
    EXPECT_EQ(plain.exchange(adu(9, 1, "0300000001")), QByteArray::fromHex("000900000005010302002a"));
}

TEST_F(SimulatorTlsTest, ClientWithoutCertificateIsRefused) {
    startServing();
    TlsClientSettings settings = clientSettings(nullptr);
    settings.maxVersion = TLS1_3_VERSION;
    TlsClient client(settings);
    // TLS 1.3 ends the client's handshake before the device has checked the client's certificate; the
    // refusal arrives as an alert on the first read.
    ASSERT_TRUE(client.connectTo(simulator.port())) << client.error().toStdString();
    EXPECT_EQ(client.readExact(1), QByteArray());
    EXPECT_EQ(client.error(), QStringLiteral("tlsv13 alert certificate required"));
    ASSERT_TRUE(waitFor([&] { return simulator.tlsFailedHandshakes() == 1; }));
    EXPECT_EQ(simulator.tlsHandshakeErrors(),
              std::vector<QString>{QStringLiteral("peer did not return a certificate")});
    EXPECT_EQ(simulator.totalRequests(), 0);
}

TEST_F(SimulatorTlsTest, ClientWithoutCertificateOverTls12IsRefused) {
    startServing();
    TlsClientSettings settings = clientSettings(nullptr);
    settings.maxVersion = TLS1_2_VERSION;
    TlsClient client(settings);
    EXPECT_FALSE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.error(), QStringLiteral("sslv3 alert handshake failure"));
}

TEST_F(SimulatorTlsTest, DeviceThatDemandsNoCertificateAllowsEverything) {
    startServing(TlsFault::NoClientCertificateDemanded);
    TlsClient client(clientSettings(nullptr));
    ASSERT_TRUE(client.connectTo(simulator.port())) << client.error().toStdString();
    EXPECT_EQ(client.exchange(adu(1, 1, "0600030011")), QByteArray::fromHex("000100000006010600030011"));
    EXPECT_EQ(simulator.holdingRegisters(3, 1), std::vector<uint16_t>{0x11});
    const auto log = simulator.requestLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_TRUE(log[0].tls);
    EXPECT_EQ(log[0].role, QString());
    EXPECT_EQ(log[0].refusal, QString());
}

TEST_F(SimulatorTlsTest, StalledHandshakeRunsOutOfTime) {
    startServing(TlsFault::StallHandshake);
    TlsClientSettings settings = clientSettings(modbus_sim::kClientName);
    settings.timeoutMs = kStallTimeoutMs;
    TlsClient client(settings);
    EXPECT_FALSE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.error(), QString::fromLatin1(tls_test::kTimedOut));
    EXPECT_EQ(simulator.acceptedConnections(), 1);
    EXPECT_EQ(simulator.tlsHandshakes(), 0);
}

// Resumption over `maxVersion`: the second connection offers the first one's session.
void expectResumption(Simulator& simulator, TlsClientSettings settings, int maxVersion) {
    settings.maxVersion = maxVersion;
    TlsClient first(settings);
    ASSERT_TRUE(first.connectTo(simulator.port())) << first.error().toStdString();
    // A TLS 1.3 ticket arrives after the handshake: reading the answer takes it in.
    ASSERT_EQ(first.exchange(adu(1, 1, "0300000001")), QByteArray::fromHex("0001000000050103020000"));
    SSL_SESSION* session = first.session();
    ASSERT_NE(session, nullptr);
    EXPECT_FALSE(first.resumed());
    TlsClient second(settings);
    second.setSession(session);
    SSL_SESSION_free(session);
    ASSERT_TRUE(second.connectTo(simulator.port())) << second.error().toStdString();
    EXPECT_TRUE(second.resumed());
    EXPECT_EQ(second.exchange(adu(2, 1, "0600000001")), QByteArray::fromHex("000200000006010600000001"));
    EXPECT_EQ(simulator.tlsHandshakes(), 2);
    EXPECT_EQ(simulator.tlsResumedHandshakes(), 1);
    const auto log = simulator.requestLog();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_FALSE(log[0].tlsResumed);
    EXPECT_TRUE(log[1].tlsResumed);
    // The resumed session keeps the client's certificate, and with it the role.
    EXPECT_EQ(log[1].role, QStringLiteral("operator"));
}

TEST_F(SimulatorTlsTest, SessionIsResumedOverTls13) {
    startServing();
    expectResumption(simulator, clientSettings(modbus_sim::kClientName), TLS1_3_VERSION);
}

TEST_F(SimulatorTlsTest, SessionIsResumedOverTls12) {
    startServing();
    expectResumption(simulator, clientSettings(modbus_sim::kClientName), TLS1_2_VERSION);
}

TEST_F(SimulatorTlsTest, KitKeysAreOwnerOnly) {
    for (const char* name : {modbus_sim::kCaName, modbus_sim::kDeviceName, modbus_sim::kClientName,
                             modbus_sim::kViewerName, modbus_sim::kExpiredDeviceName}) {
        struct stat info {};
        ASSERT_EQ(::stat(QFile::encodeName(key(name)).constData(), &info), 0) << name;
        EXPECT_EQ(info.st_mode & 0777, 0600u) << name;
    }
}

TEST_F(SimulatorTlsTest, MapFileServesAKitItMakes) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString kitPath = dir.filePath(QStringLiteral("kit"));
    QString error;
    ASSERT_TRUE(simulator.loadMapJson(
        QStringLiteral(
            "{\"tls\": {\"dir\": \"%1\", \"fault\": \"none\"}, \"holding_registers\": {\"0\": [5]}}")
            .arg(kitPath)
            .toUtf8(),
        &error))
        << error.toStdString();
    ASSERT_TRUE(simulator.start(QLatin1String(kListenAddress), 0, &error)) << error.toStdString();
    EXPECT_TRUE(simulator.tlsKitCreated());
    TlsClientSettings settings;
    settings.caFile = modbus_sim::certificatePath(kitPath, QLatin1String(modbus_sim::kCaName));
    settings.certificateFile = modbus_sim::certificatePath(kitPath, QLatin1String(modbus_sim::kClientName));
    settings.keyFile = modbus_sim::keyPath(kitPath, QLatin1String(modbus_sim::kClientName));
    settings.serverName = QLatin1String(kServerName);
    TlsClient client(settings);
    ASSERT_TRUE(client.connectTo(simulator.port())) << client.error().toStdString();
    EXPECT_EQ(client.exchange(adu(1, 1, "0300000001")), QByteArray::fromHex("0001000000050103020005"));

    Simulator rejected;
    EXPECT_FALSE(rejected.loadMapJson("{\"tls\": {\"dir\": \"x\", \"fault\": \"late\"}}", &error));
    EXPECT_EQ(error,
              QStringLiteral("key \"tls.fault\": expected one of none, expired_certificate, wrong_ca, "
                             "wrong_name, no_client_certificate_demanded, plain_tcp, stall_handshake"));
}

// The base64 lines of every PEM private key in `dir`.
QStringList keyBodies(const QString& dir) {
    QStringList bodies;
    for (const QString& name : QDir(dir).entryList({QStringLiteral("*.key")}, QDir::Files)) {
        QFile file(QDir(dir).filePath(name));
        if (!file.open(QIODevice::ReadOnly)) continue;
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (!line.isEmpty() && !line.startsWith("-----")) bodies << QString::fromLatin1(line);
        }
    }
    return bodies;
}

TEST_F(SimulatorTlsTest, SimulateCommandMakesAKitAndPrintsNoKey) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString kitPath = dir.filePath(QStringLiteral("kit"));
    QProcess process;
    zelt_test::startProgram(process, QStringLiteral(ZELT_BINARY_DIR "/tools/zelt-modbus"),
                            {QStringLiteral("simulate"), QStringLiteral("--tls"), kitPath,
                             QStringLiteral("--port"), QStringLiteral("0")});
    QString output;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kProgramWaitMs);
    while (!output.contains(QLatin1String("tls: device settings:")) &&
           std::chrono::steady_clock::now() < deadline && process.waitForReadyRead(kProgramWaitMs))
        output += QString::fromUtf8(process.readAllStandardOutput());
    ASSERT_TRUE(output.contains(QLatin1String("tls: device settings:"))) << output.toStdString();
    const QRegularExpressionMatch port =
        QRegularExpression(QStringLiteral("listening on 127\\.0\\.0\\.1:(\\d+)\\n")).match(output);
    ASSERT_TRUE(port.hasMatch()) << output.toStdString();

    // The printed settings reach the device.
    TlsClientSettings settings;
    settings.caFile = kitPath + QStringLiteral("/ca.pem");
    settings.certificateFile = kitPath + QStringLiteral("/client.pem");
    settings.keyFile = kitPath + QStringLiteral("/client.key");
    settings.serverName = QLatin1String(kServerName);
    TlsClient client(settings);
    ASSERT_TRUE(client.connectTo(static_cast<uint16_t>(port.captured(1).toInt())))
        << client.error().toStdString();
    EXPECT_EQ(client.exchange(adu(1, 1, "0300000001")), QByteArray::fromHex("0001000000050103020000"));
    client.close();

    process.terminate();
    ASSERT_TRUE(process.waitForFinished(kProgramWaitMs));
    output += QString::fromUtf8(process.readAllStandardOutput()) +
              QString::fromUtf8(process.readAllStandardError());
    const QString expected =
        QStringLiteral(
            "listening on 127.0.0.1:%1\n"
            "tls: created a certificate kit in %2: ca.pem, device.pem and client.pem (role operator) with "
            "their "
            "keys\n"
            "tls: device settings: \"transport\": \"2\", \"port\": \"%1\", \"tls_ca_certificates\": "
            "\"%2/ca.pem\", \"tls_certificate\": \"%2/client.pem\", \"tls_private_key\": \"%2/client.key\", "
            "\"tls_server_name\": \"127.0.0.1\"\n"
            "stopped after 1 requests\n")
            .arg(port.captured(1), kitPath);
    EXPECT_EQ(output, expected);
    EXPECT_FALSE(output.contains(QLatin1String("PRIVATE KEY")));
    const QStringList bodies = keyBodies(kitPath);
    ASSERT_EQ(bodies.size(), 9);  // three keys of three base64 lines each
    for (const QString& body : bodies) EXPECT_FALSE(output.contains(body)) << body.toStdString();
}

}  // namespace
