// Connection over Modbus/TCP Security against stunnel, an independent TLS implementation, in front of the
// simulator: values as over plain Modbus TCP, every verification failure named in OpenSSL's words, unreadable
// certificate settings named by setting and file, sessions resumed, and no key material in any text.

#include <errno.h>
#include <gtest/gtest.h>

#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>
#include <climits>
#include <memory>

#include "common/stunnel_fixture.h"
#include "common/tls_kit.h"
#include "connection/connection.h"
#include "host/plugin_interface.h"
#include "tools/sim/sim_pki.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

using zelt_standin::Host;

constexpr int kTimeoutMs = 3000;

class TlsConnectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        Host::instance().reset();
        ASSERT_TRUE(pki.isValid());
        ASSERT_NO_FATAL_FAILURE(
            test_support::makeLoopbackKit(pki.path(), test_support::FaultCertificates::Make));
        simulator.setHoldingRegisters(0, {0x1111, 0x2222, 0x3333});
        simulator.setInputRegisters(0, {0xA1, 0xA2});
        simulator.setCoils(0, {1, 0, 1});
        ASSERT_TRUE(simulator.start());
    }

    QString file(const char* name) const { return pki.filePath(QString::fromLatin1(name)); }

    Connection::Network network(quint16 port) const {
        Connection::Network net;
        net.host = QStringLiteral("127.0.0.1");
        net.port = port;
        net.connectTimeoutMs = kTimeoutMs;
        net.responseTimeoutMs = kTimeoutMs;
        net.transport = Transport::ModbusTcpSecurity;
        net.tls.caCertificates = file("ca.pem");
        net.tls.certificate = file("client.pem");
        net.tls.privateKey = file("client.key");
        return net;
    }

    // The connect failure text of a connection to `port` with `net`'s settings.
    QString failure(Connection::Network const& net) {
        int err = 0;
        Connection connection(net, &host, &err);
        EXPECT_FALSE(connection.isConnected());
        const QString text = QStringLiteral("Could not connect. ") + connection.errToStr(err);
        return text;
    }

    QTemporaryDir pki;
    modbus_sim::Simulator simulator;
    PluginInterface host;
};

TEST_F(TlsConnectionTest, ReadsAndWritesThroughStunnelAsOverPlainModbusTcp) {
    test_support::Stunnel stunnel;
    ASSERT_TRUE(stunnel.start(pki.path(), simulator.port())) << stunnel.output().toStdString();
    int err = 0;
    Connection connection(network(stunnel.port()), &host, &err);
    ASSERT_TRUE(connection.isConnected()) << connection.errToStr(err).toStdString();
    ASSERT_NE(connection.tlsHandshake(), nullptr);
    EXPECT_FALSE(connection.tlsHandshake()->resumed);
    EXPECT_EQ(connection.tlsHandshake()->protocol, QStringLiteral("TLSv1.3"));
    EXPECT_EQ(connection.tlsHandshake()->subject, QStringLiteral("/CN=modbus-sim"));
    EXPECT_EQ(connection.tlsHandshake()->names, QStringLiteral("127.0.0.1, localhost"));
    // Both certificates were made moments ago, valid for a year: the day count depends on the second.
    EXPECT_GE(connection.tlsHandshake()->deviceCertificateDaysLeft, modbus_sim::kDefaultValidDays - 1);
    EXPECT_LE(connection.tlsHandshake()->deviceCertificateDaysLeft, modbus_sim::kDefaultValidDays);
    EXPECT_GE(connection.tlsClientCertificateDaysLeft(), modbus_sim::kDefaultValidDays - 1);
    EXPECT_LE(connection.tlsClientCertificateDaysLeft(), modbus_sim::kDefaultValidDays);
    unsigned short words[3] = {};
    ASSERT_EQ(connection.readWords(HoldingRegister, 0, 3, words, &err), 3) << err;
    EXPECT_EQ(std::vector<unsigned short>(words, words + 3),
              std::vector<unsigned short>({0x1111, 0x2222, 0x3333}));
    ASSERT_EQ(connection.readWords(InputRegister, 0, 2, words, &err), 2);
    EXPECT_EQ(std::vector<unsigned short>(words, words + 2), std::vector<unsigned short>({0xA1, 0xA2}));
    unsigned char bits[3] = {};
    ASSERT_EQ(connection.readBits(OutputCoil, 0, 3, bits, &err), 3);
    EXPECT_EQ(std::vector<unsigned char>(bits, bits + 3), std::vector<unsigned char>({1, 0, 1}));
    EXPECT_EQ(connection.writeWord(5, 0xBEEF, &err), 1);
    const unsigned short values[2] = {7, 8};
    EXPECT_EQ(connection.writeString(6, 2, values, &err), 2);
    EXPECT_EQ(connection.writeBit(1, 1, &err, false), 1);
    EXPECT_EQ(simulator.holdingRegisters(5, 3), std::vector<uint16_t>({0xBEEF, 7, 8}));
    EXPECT_EQ(simulator.coils(1, 1), std::vector<uint8_t>({1}));
    QByteArray reply;
    EXPECT_EQ(connection.exchangePdu(QByteArray::fromHex("0300000001"), &reply, &err), 4);
    EXPECT_EQ(reply.toHex(), QByteArray("03021111"));
}

TEST_F(TlsConnectionTest, EveryReconnectResumesTheSession) {
    test_support::Stunnel stunnel;
    ASSERT_TRUE(stunnel.start(pki.path(), simulator.port())) << stunnel.output().toStdString();
    for (int connect = 0; connect < 4; ++connect) {
        SCOPED_TRACE(connect);
        int err = 0;
        Connection connection(network(stunnel.port()), &host, &err);
        ASSERT_TRUE(connection.isConnected()) << connection.errToStr(err).toStdString();
        EXPECT_EQ(connection.tlsHandshake()->resumed, connect > 0);
        unsigned short word = 0;
        EXPECT_EQ(connection.readWords(HoldingRegister, 1, 1, &word, &err), 1);
        EXPECT_EQ(word, 0x2222);
    }
}

TEST_F(TlsConnectionTest, AFailedVerificationIsAConnectFailureNamedByItsCause) {
    test_support::Stunnel stunnel;
    ASSERT_TRUE(stunnel.start(pki.path(), simulator.port())) << stunnel.output().toStdString();
    Connection::Network otherCa = network(stunnel.port());
    otherCa.tls.caCertificates = file("other-ca.pem");
    // stunnel sends its authority along with its certificate: the chain ends in one nobody here trusts.
    EXPECT_EQ(failure(otherCa),
              QStringLiteral("Could not connect. TLS: self-signed certificate in certificate chain"));
    Connection::Network wrongName = network(stunnel.port());
    wrongName.tls.serverName = QStringLiteral("wrong.example");
    EXPECT_EQ(failure(wrongName), QStringLiteral("Could not connect. TLS: hostname mismatch"));
    Connection::Network wrongAddress = network(stunnel.port());
    wrongAddress.tls.serverName = QStringLiteral("127.0.0.2");
    EXPECT_EQ(failure(wrongAddress), QStringLiteral("Could not connect. TLS: IP address mismatch"));
    Connection::Network rightName = network(stunnel.port());
    rightName.tls.serverName = QStringLiteral("127.0.0.1");
    int err = 0;
    EXPECT_TRUE(Connection(rightName, &host, &err).isConnected());
    Connection::Network anonymous = network(stunnel.port());
    anonymous.tls.certificate.clear();
    anonymous.tls.privateKey.clear();
    EXPECT_EQ(failure(anonymous),
              QStringLiteral("Could not connect. TLS: tlsv13 alert certificate required"));
    // A device that speaks plain Modbus TCP on the port and waits for the rest of a frame that never comes.
    Connection::Network plain = network(simulator.port());
    plain.connectTimeoutMs = 300;
    EXPECT_EQ(failure(plain),
              QStringLiteral("Could not connect. TLS: no handshake within the connect time-out"));
}

TEST_F(TlsConnectionTest, AnExpiredDeviceCertificateIsRefused) {
    test_support::Stunnel stunnel;
    ASSERT_TRUE(
        stunnel.start(pki.path(), simulator.port(), QStringLiteral("2"), QStringLiteral("device-expired")))
        << stunnel.output().toStdString();
    EXPECT_EQ(failure(network(stunnel.port())),
              QStringLiteral("Could not connect. TLS: certificate has expired"));
    EXPECT_EQ(simulator.totalRequests(), 0);
}

TEST_F(TlsConnectionTest, UnreadableCertificateSettingsNameTheSettingAndTheFile) {
    Connection::Network missingKey = network(simulator.port());
    missingKey.tls.privateKey = file("missing.key");
    EXPECT_EQ(failure(missingKey),
              QStringLiteral("Could not connect. tls_private_key: cannot read %1: No such file "
                             "or directory")
                  .arg(file("missing.key")));
    Connection::Network wrongKey = network(simulator.port());
    wrongKey.tls.privateKey = file("viewer.key");
    EXPECT_EQ(failure(wrongKey),
              QStringLiteral("Could not connect. tls_private_key: the key in %1 does not match the "
                             "certificate in %2")
                  .arg(file("viewer.key"), file("client.pem")));
    Connection::Network notACertificate = network(simulator.port());
    notACertificate.tls.caCertificates = file("ca.key");
    EXPECT_EQ(
        failure(notACertificate),
        QStringLiteral("Could not connect. tls_ca_certificates: no certificate in %1").arg(file("ca.key")));
    Connection::Network noCa = network(simulator.port());
    noCa.tls.caCertificates.clear();
    EXPECT_EQ(failure(noCa),
              QStringLiteral("Could not connect. tls_ca_certificates: not set, so the device's "
                             "certificate cannot be verified"));
    Connection::Network keyWithoutCertificate = network(simulator.port());
    keyWithoutCertificate.tls.certificate.clear();
    EXPECT_EQ(failure(keyWithoutCertificate),
              QStringLiteral("Could not connect. tls_private_key: set without tls_certificate"));
    EXPECT_EQ(simulator.totalRequests(), 0);
}

TEST_F(TlsConnectionTest, PemTextWorksAsWellAsFilesAndNoKeyMaterialIsEverShown) {
    test_support::Stunnel stunnel;
    ASSERT_TRUE(stunnel.start(pki.path(), simulator.port())) << stunnel.output().toStdString();
    QFile keyFile(file("client.key"));
    ASSERT_TRUE(keyFile.open(QIODevice::ReadOnly));
    const QString keyPem = QString::fromLatin1(keyFile.readAll());
    QFile certificateFile(file("client.pem"));
    ASSERT_TRUE(certificateFile.open(QIODevice::ReadOnly));
    Connection::Network inline_ = network(stunnel.port());
    inline_.tls.privateKey = keyPem;
    inline_.tls.certificate = QString::fromLatin1(certificateFile.readAll());
    int err = 0;
    {
        Connection connection(inline_, &host, &err);
        EXPECT_TRUE(connection.isConnected()) << connection.errToStr(err).toStdString();
    }
    // A key text that matches no certificate: the failure names the setting, never the key.
    Connection::Network wrong = inline_;
    QFile viewerKey(file("viewer.key"));
    ASSERT_TRUE(viewerKey.open(QIODevice::ReadOnly));
    wrong.tls.privateKey = QString::fromLatin1(viewerKey.readAll());
    const QString text = failure(wrong);
    EXPECT_EQ(text,
              QStringLiteral("Could not connect. tls_private_key: the key in the PEM text does not match the "
                             "certificate in the PEM text"));
    const QStringList keyLines = keyPem.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_GE(keyLines.size(), 3);
    for (const zelt_standin::LogLine& line : Host::instance().logLines()) {
        EXPECT_FALSE(line.text.contains(QStringLiteral("PRIVATE KEY"))) << line.text.toStdString();
        for (int i = 1; i + 1 < keyLines.size(); ++i)
            EXPECT_FALSE(line.text.contains(keyLines[i])) << line.text.toStdString();
    }
}

TEST_F(TlsConnectionTest, AKeyFileOthersMayReadIsWarnedOf) {
    QFile::setPermissions(file("client.key"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup);
    test_support::Stunnel stunnel;
    ASSERT_TRUE(stunnel.start(pki.path(), simulator.port())) << stunnel.output().toStdString();
    int err = 0;
    Connection::Network net = network(stunnel.port());
    net.tls.serverName = QStringLiteral("localhost");  // another endpoint than the other tests', read afresh
    Connection connection(net, &host, &err);
    EXPECT_TRUE(connection.isConnected());
    EXPECT_TRUE(
        Host::instance().hasLog(zelt_standin::LogLevel::Warning,
                                QStringLiteral("tls_private_key: %1 may be read by group or others; only its "
                                               "owner should read it")
                                    .arg(file("client.key"))));
}

TEST(TlsEndpointTest, ChaChaComesFirstOnlyWithoutAesInstructions) {
    EXPECT_FALSE(TlsEndpoint::lacksAes("processor\t: 0\nflags\t\t: fpu vme sse2 aes avx\n"));
    EXPECT_TRUE(TlsEndpoint::lacksAes("processor\t: 0\nflags\t\t: fpu vme sse2 avx\n"));
    EXPECT_FALSE(
        TlsEndpoint::lacksAes("Features\t: half thumb fastmult vfp edsp neon vfpv3 tls vfpv4 idiva "
                              "idivt lpae evtstrm aes pmull sha1 sha2 crc32\n"));
    EXPECT_TRUE(
        TlsEndpoint::lacksAes("Features\t: half thumb fastmult vfp edsp neon vfpv3 tls vfpv4 idiva "
                              "idivt lpae evtstrm\n"));
    EXPECT_TRUE(TlsEndpoint::lacksAes(""));
}

}  // namespace

TEST_F(TlsConnectionTest, ADeviceThatClosesTheConnectionNeverRaisesSigpipe) {
    modbus_sim::Simulator secured;
    secured.setTlsKit(pki.path(), modbus_sim::TlsFault::None);
    modbus_sim::FaultRule close;
    close.kind = modbus_sim::FaultKind::CloseAfter;
    close.afterRequests = 1;
    secured.addFault(close);
    ASSERT_TRUE(secured.start());
    int err = 0;
    Connection connection(network(secured.port()), &host, &err);
    ASSERT_TRUE(connection.isConnected()) << connection.errToStr(err).toStdString();
    unsigned short word = 0;
    EXPECT_EQ(connection.readWords(HoldingRegister, 0, 1, &word, &err), 1);
    // The second request is not answered: the device closes. Writes after that meet a closed socket; a signal
    // would end this test program.
    EXPECT_EQ(connection.readWords(HoldingRegister, 0, 1, &word, &err), -1);
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_EQ(connection.writeWord(1, 2, &err), -1);
        EXPECT_TRUE(err == EPIPE || err == ECONNRESET) << err;
    }
}

// The simulator's own Modbus/TCP Security, with each of its faults: the connect failure text the plugin
// shows.
class TlsSimulatorFaultTest : public TlsConnectionTest {
protected:
    QString connectTo(modbus_sim::TlsFault fault, QString const& serverName = QString(),
                      int connectTimeoutMs = kTimeoutMs) {
        modbus_sim::Simulator secured;
        secured.setTlsKit(pki.path(), fault);
        EXPECT_TRUE(secured.start());
        Connection::Network net = network(secured.port());
        net.tls.serverName = serverName;
        net.connectTimeoutMs = connectTimeoutMs;
        int err = 0;
        Connection connection(net, &host, &err);
        if (!connection.isConnected())
            return QStringLiteral("Could not connect. ") + connection.errToStr(err);
        unsigned short word = 0;
        return connection.readWords(HoldingRegister, 0, 1, &word, &err) == 1 ? QStringLiteral("read")
                                                                             : connection.errToStr(err);
    }
};

TEST_F(TlsSimulatorFaultTest, EachFaultGivesItsOwnText) {
    EXPECT_EQ(connectTo(modbus_sim::TlsFault::None), QStringLiteral("read"));
    EXPECT_EQ(connectTo(modbus_sim::TlsFault::ExpiredCertificate),
              QStringLiteral("Could not connect. TLS: certificate has expired"));
    EXPECT_EQ(connectTo(modbus_sim::TlsFault::WrongCa),
              QStringLiteral("Could not connect. TLS: unable to get local issuer certificate"));
    EXPECT_EQ(connectTo(modbus_sim::TlsFault::WrongName, QStringLiteral("localhost")),
              QStringLiteral("Could not connect. TLS: hostname mismatch"));
    EXPECT_EQ(connectTo(modbus_sim::TlsFault::WrongName), QStringLiteral("read"));  // no name asked for
    EXPECT_EQ(connectTo(modbus_sim::TlsFault::NoClientCertificateDemanded), QStringLiteral("read"));
    EXPECT_EQ(connectTo(modbus_sim::TlsFault::PlainTcp),
              QStringLiteral("Could not connect. TLS: wrong version number"));
    EXPECT_EQ(connectTo(modbus_sim::TlsFault::StallHandshake, QString(), 300),
              QStringLiteral("Could not connect. TLS: no handshake within the connect time-out"));
}

TEST_F(TlsSimulatorFaultTest, AViewerMayReadButItsWriteIsAnIllegalFunction) {
    QString error;
    ASSERT_TRUE(modbus_sim::makeClientCertificate(pki.path(), QStringLiteral("viewer"),
                                                  QStringLiteral("viewer"), modbus_sim::kDefaultValidDays,
                                                  &error))
        << error.toStdString();
    modbus_sim::Simulator secured;
    secured.setTlsKit(pki.path(), modbus_sim::TlsFault::None);
    secured.setHoldingRegisters(0, {77});
    ASSERT_TRUE(secured.start());
    Connection::Network net = network(secured.port());
    net.tls.certificate = file("viewer.pem");
    net.tls.privateKey = file("viewer.key");
    int err = 0;
    Connection connection(net, &host, &err);
    ASSERT_TRUE(connection.isConnected()) << connection.errToStr(err).toStdString();
    unsigned short word = 0;
    EXPECT_EQ(connection.readWords(HoldingRegister, 0, 1, &word, &err), 1);
    EXPECT_EQ(word, 77);
    EXPECT_EQ(connection.writeWord(0, 5, &err), -1);
    EXPECT_EQ(connection.errToStr(err), QStringLiteral("Illegal function"));
    EXPECT_EQ(secured.holdingRegisters(0, 1), std::vector<uint16_t>({77}));
}

TEST_F(TlsConnectionTest, ACertificateReplacedOnDiskIsUsedFromTheNextConnect) {
    modbus_sim::Simulator secured;
    secured.setTlsKit(pki.path(), modbus_sim::TlsFault::None);
    ASSERT_TRUE(secured.start());
    int err = 0;
    int daysBefore = 0;
    {
        Connection connection(network(secured.port()), &host, &err);
        ASSERT_TRUE(connection.isConnected()) << connection.errToStr(err).toStdString();
        daysBefore = connection.tlsClientCertificateDaysLeft();
    }
    EXPECT_GE(daysBefore, modbus_sim::kDefaultValidDays - 1);
    // The gateway's certificate is rotated in place: same files, a certificate valid for 10 days.
    QString error;
    ASSERT_TRUE(modbus_sim::makeClientCertificate(pki.path(), QStringLiteral("client"),
                                                  QStringLiteral("operator"), 10, &error))
        << error.toStdString();
    // A rotation comes later than the first connect; the file system's clock may not have moved on yet in a
    // test.
    QFile rotated(file("client.pem"));
    ASSERT_TRUE(rotated.open(QIODevice::ReadWrite));
    ASSERT_TRUE(
        rotated.setFileTime(QDateTime::currentDateTimeUtc().addSecs(60), QFileDevice::FileModificationTime));
    rotated.close();
    Connection connection(network(secured.port()), &host, &err);
    ASSERT_TRUE(connection.isConnected()) << connection.errToStr(err).toStdString();
    EXPECT_GE(connection.tlsClientCertificateDaysLeft(), 9);
    EXPECT_LE(connection.tlsClientCertificateDaysLeft(), 10);
    // New certificates, new endpoint: a full handshake, not the old session.
    EXPECT_FALSE(connection.tlsHandshake()->resumed);
}
