// Discovery of Modbus/TCP Security devices among Modbus TCP devices, over a veth pair between two network
// namespaces that the test creates and removes: the library's subnet scan with a client certificate, and
// zelt-modbus discover --transport tls run in the scanner namespace, with and without one.
#include <gtest/gtest.h>
#include <net/if.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include "discovery/candidate.h"
#include "discovery/discovery_run.h"
#include "discovery/options.h"
#include "discovery/subnet.h"
#include "discovery/transport.h"
#include "tests/common/netns_scan.h"
#include "tests/common/netns_testbed.h"
#include "tests/common/tls_kit.h"
#include "tests/tools/zelt_modbus_runner.h"
#include "tools/sim/sim_pki.h"
#include "tools/sim/sim_tls_kit.h"
#include "tools/sim/simulator.h"

namespace {

using modbus_sim::DeviceIdentification;
using modbus_sim::Simulator;
using ModbusDiscovery::Candidate;
using test_support::expiryOf;
using test_support::keyBody;
using zelt_modbus_test::ToolRun;

constexpr uint16_t kPlainPort = 502;
constexpr uint16_t kSecurePort = 802;
const char kScannerAddress[] = "10.82.0.1/24";
const char kPlainMeter[] = "10.82.0.10";     // Modbus TCP on 502
const char kPlainOnSecure[] = "10.82.0.11";  // Modbus TCP on 802: a ClientHello finds no TLS there
const char kSecureMeter[] = "10.82.0.20";    // Modbus/TCP Security on 802, client certificates demanded
const char kSecureGateway[] = "10.82.0.21";  // Modbus/TCP Security on 802, Report Slave ID only
constexpr int kHostsOnTheSubnet = 253;
constexpr int kScanTimeoutMs = 30000;

class TlsScanTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(kit.isValid());
        QString failure;
        ASSERT_TRUE(modbus_sim::makeTestPki(kit.path(), QLatin1String(kSecureMeter), &failure))
            << failure.toStdString();
        modbus_sim::TlsServerSettings tls;
        bool created = true;
        ASSERT_TRUE(modbus_sim::tlsServerSettingsForKit(kit.path(), QLatin1String(kSecureMeter),
                                                        modbus_sim::TlsFault::None, &tls, &created, &failure))
            << failure.toStdString();

        std::string error;
        ASSERT_TRUE(testbed.create(kScannerAddress,
                                   {std::string(kPlainMeter) + "/24", std::string(kPlainOnSecure) + "/24",
                                    std::string(kSecureMeter) + "/24", std::string(kSecureGateway) + "/24"},
                                   &error))
            << "cannot build the namespace testbed (root and iproute2 needed): " << error;

        DeviceIdentification plainIdentity;
        plainIdentity.objects = {{0x00, "ACME"}, {0x01, "AM-1"}, {0x02, "1.4"}, {0x05, "Plain Meter"}};
        for (Simulator* plain : {&plainMeter, &plainOnSecure}) {
            plain->setUnits({1});
            plain->setDeviceIdentification(plainIdentity);
        }
        DeviceIdentification secureIdentity;
        secureIdentity.objects = {{0x00, "ACME"}, {0x01, "SEC-1"}, {0x02, "2.0"}, {0x05, "Secure Meter"}};
        secureMeter.setUnits({1});
        secureMeter.setDeviceIdentification(secureIdentity);
        secureMeter.setTls(tls);
        DeviceIdentification none;
        none.enabled = false;
        secureGateway.setUnits({1});
        secureGateway.setDeviceIdentification(none);
        secureGateway.setReportSlaveId(QByteArray::fromHex("01ff") + "Gateway S");
        secureGateway.setTls(tls);

        bool started = false;
        ASSERT_TRUE(testbed.runInDevices([&] {
            started = plainMeter.start(kPlainMeter, kPlainPort, &failure) &&
                      plainOnSecure.start(kPlainOnSecure, kSecurePort, &failure) &&
                      secureMeter.start(kSecureMeter, kSecurePort, &failure) &&
                      secureGateway.start(kSecureGateway, kSecurePort, &failure);
        }));
        ASSERT_TRUE(started) << failure.toStdString();
    }

    void TearDown() override {
        plainMeter.stop();
        plainOnSecure.stop();
        secureMeter.stop();
        secureGateway.stop();
        testbed.destroy();
    }

    QString pem(const char* name) const {
        return modbus_sim::certificatePath(kit.path(), QLatin1String(name));
    }
    QString key(const char* name) const { return modbus_sim::keyPath(kit.path(), QLatin1String(name)); }

    ToolRun discover(const QStringList& arguments) const {
        return netns_testbed::discoverFromScanner(testbed, arguments);
    }

    QTemporaryDir kit;
    netns_testbed::Testbed testbed;
    Simulator plainMeter;
    Simulator plainOnSecure;
    Simulator secureMeter;
    Simulator secureGateway;
};

TEST_F(TlsScanTest, TheSubnetScanFindsTheSecureDevicesWithTheirIdentity) {
    ModbusDiscovery::Options options;
    options.networkInterface = QString::fromStdString(testbed.scannerLink);
    options.tcpPorts = {kPlainPort, kSecurePort};
    options.unitIds = {1};
    options.timeoutMs = kScanTimeoutMs;
    options.transport = ModbusDiscovery::kTransportModbusTcpSecurity;
    options.tls.caCertificates = pem(modbus_sim::kCaName);
    options.tls.certificate = pem(modbus_sim::kClientName);
    options.tls.privateKey = key(modbus_sim::kClientName);
    QList<Candidate> found;
    QStringList hosts;
    std::chrono::milliseconds elapsed{0};
    ASSERT_TRUE(netns_testbed::scanFromScanner(testbed, options, nullptr, &found, &hosts, &elapsed));
    ASSERT_EQ(hosts.size(), kHostsOnTheSubnet);
    std::printf("[ measured ] Modbus/TCP Security subnet scan of %d hosts: %lld ms\n", kHostsOnTheSubnet,
                static_cast<long long>(elapsed.count()));

    std::sort(found.begin(), found.end(),
              [](const Candidate& a, const Candidate& b) { return a.address < b.address; });
    ASSERT_EQ(found.size(), 2);
    const QJsonObject meter = ModbusDiscovery::candidateToJson(found.at(0));
    EXPECT_EQ(meter.value("external_id").toString(), "modbus_10_82_0_20_802_1");
    EXPECT_EQ(meter.value("name").toString(), "Secure Meter (10.82.0.20)");
    EXPECT_EQ(meter.value("description").toString(),
              "ACME Secure Meter 2.0 at 10.82.0.20:802 unit 1 (Modbus/TCP Security)");
    const QJsonObject gateway = ModbusDiscovery::candidateToJson(found.at(1));
    EXPECT_EQ(gateway.value("external_id").toString(), "modbus_10_82_0_21_802_1");
    EXPECT_EQ(gateway.value("description").toString(),
              "Gateway S at 10.82.0.21:802 unit 1 (Modbus/TCP Security)");
    for (const Candidate& candidate : found) {
        EXPECT_EQ(candidate.source, QStringLiteral("tls-scan"));
        const QJsonObject fields =
            ModbusDiscovery::candidateToJson(candidate).value("user_defined_fields").toObject();
        EXPECT_EQ(fields.value("transport").toString(), "2");
        EXPECT_EQ(fields.value("port").toString(), "802");
        EXPECT_EQ(fields.value("tls_ca_certificates").toString(), pem(modbus_sim::kCaName));
        EXPECT_EQ(fields.value("tls_certificate").toString(), pem(modbus_sim::kClientName));
        EXPECT_EQ(fields.value("tls_private_key").toString(), key(modbus_sim::kClientName));
    }
    // Every request of the secure devices came inside TLS; the plain devices saw no Modbus request.
    EXPECT_GT(secureMeter.totalRequests(), 0);
    for (const auto& record : secureMeter.requestLog()) {
        EXPECT_TRUE(record.tls);
    }
    EXPECT_EQ(plainMeter.totalRequests(), 0);
    EXPECT_LT(elapsed.count(), kScanTimeoutMs);
}

TEST_F(TlsScanTest, TheCommandLineReportsADeviceThatWantsAClientCertificate) {
    const ToolRun run =
        discover({QStringLiteral("--transport"), QStringLiteral("tls"), QStringLiteral("--tls-ca"),
                  pem(modbus_sim::kCaName), QStringLiteral("--hosts"),
                  QStringLiteral("%1,%2,%3").arg(kPlainMeter, kPlainOnSecure, kSecureMeter),
                  QStringLiteral("--ports"), QStringLiteral("502,802"), QStringLiteral("--timeout"),
                  QStringLiteral("20000"), QStringLiteral("--json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonArray candidates = QJsonDocument::fromJson(run.out.toUtf8()).array();
    ASSERT_EQ(candidates.size(), 1) << run.out.toStdString();
    const QJsonObject device = candidates.at(0).toObject();
    EXPECT_EQ(device.value("address").toString(), QLatin1String(kSecureMeter));
    EXPECT_EQ(device.value("external_id").toString(), "modbus_10_82_0_20_802_1");
    EXPECT_EQ(device.value("description").toString(),
              QStringLiteral(
                  "Modbus/TCP Security device at 10.82.0.20:802 (certificate CN=modbus-sim, expires %1); "
                  "a client certificate is needed")
                  .arg(expiryOf(pem(modbus_sim::kDeviceName))));
    const QJsonObject fields = device.value("user_defined_fields").toObject();
    EXPECT_EQ(fields.value("transport").toString(), "2");
    EXPECT_EQ(fields.value("tls_ca_certificates").toString(), pem(modbus_sim::kCaName));
    EXPECT_EQ(secureMeter.totalRequests(), 0);
}

TEST_F(TlsScanTest, TheCommandLineFindsTheSecureDevicesWithAClientCertificate) {
    const QStringList arguments{
        QStringLiteral("--transport"), QStringLiteral("tls"),
        QStringLiteral("--tls-ca"),    pem(modbus_sim::kCaName),
        QStringLiteral("--tls-cert"),  pem(modbus_sim::kClientName),
        QStringLiteral("--tls-key"),   key(modbus_sim::kClientName),
        QStringLiteral("--hosts"),     QStringLiteral("%1,%2").arg(kSecureMeter, kSecureGateway),
        QStringLiteral("--timeout"),   QStringLiteral("20000")};
    const ToolRun json = discover(arguments + QStringList{QStringLiteral("--json")});
    ASSERT_EQ(json.exitCode, 0) << json.err.toStdString();
    const QJsonArray candidates = QJsonDocument::fromJson(json.out.toUtf8()).array();
    ASSERT_EQ(candidates.size(), 2) << json.out.toStdString();
    QStringList descriptions;
    for (const QJsonValue& value : candidates) {
        descriptions.append(value.toObject().value("description").toString());
        EXPECT_EQ(
            value.toObject().value("user_defined_fields").toObject().value("tls_private_key").toString(),
            key(modbus_sim::kClientName));
    }
    descriptions.sort();
    EXPECT_EQ(descriptions,
              (QStringList{"ACME Secure Meter 2.0 at 10.82.0.20:802 unit 1 (Modbus/TCP Security)",
                           "Gateway S at 10.82.0.21:802 unit 1 (Modbus/TCP Security)"}));
    const ToolRun table = discover(arguments);
    ASSERT_EQ(table.exitCode, 0) << table.err.toStdString();
    EXPECT_TRUE(table.out.contains(
        QLatin1String("ACME Secure Meter 2.0 at 10.82.0.20:802 unit 1 (Modbus/TCP Security)")))
        << table.out.toStdString();
    // The key's path is a setting; what it holds appears nowhere.
    const QStringList body = keyBody(key(modbus_sim::kClientName));
    ASSERT_FALSE(body.isEmpty());
    for (const ToolRun& run : {json, table}) {
        const QString all = run.out + run.err;
        EXPECT_FALSE(all.contains(QLatin1String("PRIVATE KEY")));
        for (const QString& line : body) {
            EXPECT_FALSE(all.contains(line));
        }
    }
}

}  // namespace
