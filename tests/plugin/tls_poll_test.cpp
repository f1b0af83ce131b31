// The plugin polling and writing over Modbus/TCP Security through stunnel in front of the simulator: values
// as over plain Modbus TCP, port 802 when none is set, sessions resumed on every reconnect, the handshake and
// certificate items of the device's health, the daily warning of a certificate about to expire, and connect
// failures named by their cause.

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "common/manual_clock.h"
#include "common/plugin_batch.h"
#include "common/stunnel_fixture.h"
#include "common/tls_kit.h"
#include "plugin/diagnostics.h"
#include "plugin/modbus.h"
#include "tools/sim/sim_pki.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;
using zelt_standin::Host;
using zelt_standin::LogLevel;

namespace {

constexpr qint64 kDayMs = 24LL * 60 * 60 * 1000;

class TlsPollTest : public ::testing::Test {
protected:
    void SetUp() override {
        Host::instance().reset();
        ASSERT_TRUE(pki.isValid());
        ASSERT_NO_FATAL_FAILURE(
            test_support::makeLoopbackKit(pki.path(), test_support::FaultCertificates::Skip));
        sim.setHoldingRegisters(0, {0x4148, 0x0000, 42});
        sim.setCoils(0, {1});
        ASSERT_TRUE(sim.start());
        ASSERT_TRUE(stunnel.start(pki.path(), sim.port())) << stunnel.output().toStdString();
    }
    void TearDown() override {
        plugin.stopPlugin();
        Host::instance().reset();
    }

    DeviceInstancePlugin device(QMap<QString, QString> settings = {}) {
        settings.insert(QStringLiteral("transport"), QStringLiteral("2"));
        settings.insert(QStringLiteral("tls_ca_certificates"), pki.filePath(QStringLiteral("ca.pem")));
        if (!settings.contains(QStringLiteral("tls_certificate"))) {
            settings.insert(QStringLiteral("tls_certificate"), pki.filePath(QStringLiteral("client.pem")));
            settings.insert(QStringLiteral("tls_private_key"), pki.filePath(QStringLiteral("client.key")));
        }
        if (!settings.contains(QStringLiteral("persistent_connection")))
            settings.insert(QStringLiteral("persistent_connection"), QStringLiteral("1"));
        return makeDevice(1, stunnel.port(), settings);
    }

    static void addItems(Batch& batch) {
        batch.add(makeItem("float", "40001", "4", "5", "1"));
        batch.add(makeItem("count", "40003", "4", "2"));
        batch.add(makeItem("coil", "00001", "4", "0"));
        for (const char* name : {"tls_handshakes", "tls_resumed", "tls_certificate_days_left",
                                 "tls_client_certificate_days_left", "connects"})
            batch.add(makeItem(name, diagnostics::kPrefix + QLatin1String(name), "4", ""));
    }

    QTemporaryDir pki;
    modbus_sim::Simulator sim;
    test_support::Stunnel stunnel;
    Modbus plugin;
};

TEST_F(TlsPollTest, PollsAndWritesAsOverPlainModbusTcp) {
    Batch poll(device());
    addItems(poll);
    ASSERT_TRUE(plugin.readData(&poll.list)) << poll.list.device.lastError.toStdString();
    EXPECT_EQ(poll.value("float"), QStringLiteral("12.5"));
    EXPECT_EQ(poll.value("count"), QStringLiteral("42"));
    EXPECT_EQ(poll.value("coil"), QStringLiteral("1"));
    EXPECT_EQ(poll.value("tls_handshakes"), QStringLiteral("1"));
    EXPECT_EQ(poll.value("tls_resumed"), QStringLiteral("0"));
    // Made moments ago for a year: 364 or 365 days, as the second falls.
    EXPECT_GE(poll.value("tls_certificate_days_left").toInt(), modbus_sim::kDefaultValidDays - 1);
    EXPECT_LE(poll.value("tls_client_certificate_days_left").toInt(), modbus_sim::kDefaultValidDays);

    Batch write(device());
    write.add(makeItem("float", "40001", "4", "5"))
        ->values.insert(QStringLiteral("value"), QStringLiteral("-2.25"));
    write.add(makeItem("coil", "00001", "4", "0"))
        ->values.insert(QStringLiteral("value"), QStringLiteral("0"));
    ASSERT_TRUE(plugin.writeData(&write.list)) << write.list.device.lastError.toStdString();
    EXPECT_EQ(sim.holdingRegisters(0, 2), std::vector<uint16_t>({0xC010, 0x0000}));
    EXPECT_EQ(sim.coils(0, 1), std::vector<uint8_t>({0}));
}

TEST_F(TlsPollTest, EveryPollAfterTheFirstResumesTheSessionWithoutAKeptConnection) {
    Batch poll(device({{"persistent_connection", "0"}}));
    addItems(poll);
    for (int round = 1; round <= 5; ++round) {
        SCOPED_TRACE(round);
        ASSERT_TRUE(plugin.readData(&poll.list)) << poll.list.device.lastError.toStdString();
        EXPECT_EQ(poll.value("count"), QStringLiteral("42"));
        EXPECT_EQ(poll.value("tls_handshakes"), QString::number(round));
        EXPECT_EQ(poll.value("tls_resumed"), QString::number(round - 1));
    }
}

TEST_F(TlsPollTest, ACertificateAboutToExpireIsWarnedOfOnceADay) {
    test_support::ManualClock clock;
    QString error;
    ASSERT_TRUE(modbus_sim::makeClientCertificate(pki.path(), QStringLiteral("short"),
                                                  QStringLiteral("operator"), 10, &error))
        << error.toStdString();
    Batch poll(device({{"persistent_connection", "0"},
                       {"tls_certificate", pki.filePath(QStringLiteral("short.pem"))},
                       {"tls_private_key", pki.filePath(QStringLiteral("short.key"))}}));
    addItems(poll);
    const auto warnings = [] {
        int count = 0;
        for (const QString& text : Host::instance().logTexts(LogLevel::Warning))
            if (text.contains(QLatin1String("TLS certificate"))) ++count;
        return count;
    };
    ASSERT_TRUE(plugin.readData(&poll.list)) << poll.list.device.lastError.toStdString();
    const int daysLeft = poll.value("tls_client_certificate_days_left").toInt();
    EXPECT_TRUE(daysLeft == 9 || daysLeft == 10) << daysLeft;
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Warning,
        QStringLiteral("device1: this gateway's TLS certificate (tls_certificate) expires in %1 days")
            .arg(daysLeft)));
    EXPECT_EQ(warnings(), 1);
    ASSERT_TRUE(plugin.readData(&poll.list));
    clock.advance(kDayMs - 1);
    ASSERT_TRUE(plugin.readData(&poll.list));
    EXPECT_EQ(warnings(), 1);
    clock.advance(1);
    ASSERT_TRUE(plugin.readData(&poll.list));
    EXPECT_EQ(warnings(), 2);
}

TEST_F(TlsPollTest, AConnectFailureNamesItsCause) {
    Batch noCertificate(device({{"tls_certificate", ""}, {"tls_private_key", ""}}));
    noCertificate.add(makeItem("count", "40003", "4", "2"));
    EXPECT_FALSE(plugin.readData(&noCertificate.list));
    EXPECT_EQ(noCertificate.list.device.lastError,
              QStringLiteral("Could not connect. TLS: tlsv13 alert certificate required"));
    Batch missingKey(makeDevice(2, stunnel.port(),
                                {{"transport", "2"},
                                 {"tls_ca_certificates", pki.filePath(QStringLiteral("ca.pem"))},
                                 {"tls_certificate", pki.filePath(QStringLiteral("client.pem"))},
                                 {"tls_private_key", pki.filePath(QStringLiteral("gone.key"))}}));
    missingKey.add(makeItem("count", "40003", "4", "2"));
    EXPECT_FALSE(plugin.readData(&missingKey.list));
    EXPECT_EQ(missingKey.list.device.lastError,
              QStringLiteral("Could not connect. tls_private_key: cannot read %1: No such file or directory")
                  .arg(pki.filePath(QStringLiteral("gone.key"))));
    EXPECT_EQ(sim.totalRequests(), 0);
}

}  // namespace
