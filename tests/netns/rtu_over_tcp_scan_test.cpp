// Discovery of a serial device behind a transparent serial-to-Ethernet converter (RTU frames on TCP) among
// Modbus TCP devices, over a veth pair between two network namespaces that the test creates and removes: the
// library's subnet scan, and zelt-modbus discover --rtu-over-tcp run in the scanner namespace.
#include <gtest/gtest.h>
#include <net/if.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include "discovery/candidate.h"
#include "discovery/constants.h"
#include "discovery/discovery_run.h"
#include "discovery/options.h"
#include "discovery/subnet.h"
#include "discovery/transport.h"
#include "tests/common/netns_scan.h"
#include "tests/common/netns_testbed.h"
#include "tests/tools/zelt_modbus_runner.h"
#include "tools/sim/simulator.h"

namespace {

using modbus_sim::DeviceIdentification;
using modbus_sim::Simulator;
using ModbusDiscovery::Candidate;
using netns_testbed::ExpectedCandidate;
using netns_testbed::SilentListener;
using netns_testbed::Testbed;
using zelt_modbus_test::ToolRun;

constexpr uint16_t kPort = 502;
constexpr int kRtuUnit = 3;
const char kScannerAddress[] = "10.79.0.1/24";
const char kTcpMeter[] = "10.79.0.10";    // Modbus TCP, device-id objects
const char kTcpPlain[] = "10.79.0.11";    // Modbus TCP, Report Slave ID only
const char kConverter[] = "10.79.0.20";   // RTU over TCP, one serial meter at unit 3
const char kSilentHost[] = "10.79.0.13";  // accepts, never answers in any framing
const char kClosedHost[] = "10.79.0.14";  // address assigned, nothing listening
constexpr int kHostsOnTheSubnet = 253;    // .1 to .254 without the scanner's own address
constexpr int kScanTimeoutMs = 30000;

class RtuOverTcpScanTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(testbed.create(
            kScannerAddress,
            {std::string(kTcpMeter) + "/24", std::string(kTcpPlain) + "/24", std::string(kConverter) + "/24",
             std::string(kSilentHost) + "/24", std::string(kClosedHost) + "/24"},
            &error))
            << "cannot build the namespace testbed (root and iproute2 needed): " << error;

        DeviceIdentification meterIdentity;
        meterIdentity.objects = {{0x00, "ACME"}, {0x01, "AM-1"}, {0x02, "1.4"}, {0x05, "Model A"}};
        // The Modbus TCP devices serve unit 1 only, so that asking for the serial unit finds nothing there.
        tcpMeter.setUnits({1});
        tcpMeter.setDeviceIdentification(meterIdentity);
        tcpPlain.setUnits({1});
        DeviceIdentification none;
        none.enabled = false;
        tcpPlain.setDeviceIdentification(none);
        tcpPlain.setReportSlaveId(QByteArray::fromHex("01ff") + "Meter B");
        DeviceIdentification serialIdentity;
        serialIdentity.objects = {{0x00, "Serial Co"}, {0x01, "SC-9"}, {0x02, "3.2"}, {0x05, "RS-9"}};
        converter.setFraming(modbus_sim::Framing::Rtu);
        converter.setUnits({kRtuUnit});
        converter.setDeviceIdentification(serialIdentity);

        bool started = false;
        QString failure;
        ASSERT_TRUE(testbed.runInDevices([&] {
            started = tcpMeter.start(kTcpMeter, kPort, &failure) &&
                      tcpPlain.start(kTcpPlain, kPort, &failure) &&
                      converter.start(kConverter, kPort, &failure);
            silent = std::make_unique<SilentListener>(kSilentHost, kPort);
        }));
        ASSERT_TRUE(started) << failure.toStdString();
        ASSERT_TRUE(silent->ok());
    }

    void TearDown() override {
        tcpMeter.stop();
        tcpPlain.stop();
        converter.stop();
        silent.reset();
        testbed.destroy();
    }

    ToolRun discover(const QStringList& arguments) const {
        return netns_testbed::discoverFromScanner(testbed, arguments);
    }

    Testbed testbed;
    Simulator tcpMeter;
    Simulator tcpPlain;
    Simulator converter;
    std::unique_ptr<SilentListener> silent;
};

TEST_F(RtuOverTcpScanTest, TheSubnetScanFindsTheSerialMeterAmongModbusTcpDevices) {
    ModbusDiscovery::Options options;
    options.networkInterface = QString::fromStdString(testbed.scannerLink);
    options.tcpPorts = {kPort};
    options.unitIds = {1, kRtuUnit};
    options.timeoutMs = kScanTimeoutMs;
    options.rtuOverTcp = true;
    QList<Candidate> found;
    QStringList hosts;
    std::chrono::milliseconds elapsed{0};
    ASSERT_TRUE(netns_testbed::scanFromScanner(testbed, options, nullptr, &found, &hosts, &elapsed));
    ASSERT_EQ(hosts.size(), kHostsOnTheSubnet);
    std::printf("[ measured ] RTU-over-TCP subnet scan of %d hosts: %lld ms\n", kHostsOnTheSubnet,
                static_cast<long long>(elapsed.count()));

    std::sort(found.begin(), found.end(),
              [](const Candidate& a, const Candidate& b) { return a.address < b.address; });
    const ExpectedCandidate expected[] = {
        {kTcpMeter, 1, "ACME", "AM-1", "1.4", "Model A", "tcp-scan", "modbus_10_79_0_10_502_1"},
        {kTcpPlain, 1, "", "Meter B", "", "Meter B", "tcp-scan", "modbus_10_79_0_11_502_1"},
        {kConverter, kRtuUnit, "Serial Co", "SC-9", "3.2", "RS-9", "rtu-over-tcp-scan",
         "modbus_10_79_0_20_502_3"},
    };
    ASSERT_EQ(found.size(), static_cast<int>(std::size(expected)));
    netns_testbed::expectCandidates(found, kPort, expected);
    const QJsonObject serial = ModbusDiscovery::candidateToJson(found.at(2));
    EXPECT_EQ(serial.value("name").toString(), "RS-9 (10.79.0.20)");
    EXPECT_EQ(serial.value("description").toString(), "Serial Co RS-9 3.2 at 10.79.0.20:502 unit 3");
    EXPECT_EQ(serial.value("user_defined_fields").toObject().value("transport").toString(), "1");
    EXPECT_FALSE(ModbusDiscovery::candidateToJson(found.at(0))
                     .value("user_defined_fields")
                     .toObject()
                     .contains("transport"));
    // RTU probing runs inside the run's budget.
    EXPECT_LT(elapsed.count(), kScanTimeoutMs);
}

TEST_F(RtuOverTcpScanTest, TheCommandLineFindsTheSerialMeterOnlyWhenAsked) {
    // The Modbus TCP meter does not serve unit 3: only the serial meter can be found.
    const QStringList common{QStringLiteral("--hosts"),   QStringLiteral("%1,%2").arg(kTcpMeter, kConverter),
                             QStringLiteral("--units"),   QStringLiteral("3"),
                             QStringLiteral("--timeout"), QStringLiteral("20000"),
                             QStringLiteral("--json")};
    const ToolRun withRtu = discover(common + QStringList{QStringLiteral("--rtu-over-tcp")});
    ASSERT_EQ(withRtu.exitCode, 0) << withRtu.err.toStdString();
    const QJsonArray candidates = QJsonDocument::fromJson(withRtu.out.toUtf8()).array();
    ASSERT_EQ(candidates.size(), 1) << withRtu.out.toStdString();
    const QJsonObject serial = candidates.at(0).toObject();
    EXPECT_EQ(serial.value("address").toString(), QLatin1String(kConverter));
    EXPECT_EQ(serial.value("external_id").toString(), "modbus_10_79_0_20_502_3");
    EXPECT_EQ(serial.value("name").toString(), "RS-9 (10.79.0.20)");
    EXPECT_EQ(serial.value("description").toString(), "Serial Co RS-9 3.2 at 10.79.0.20:502 unit 3");
    const QJsonObject fields = serial.value("user_defined_fields").toObject();
    EXPECT_EQ(fields.value("transport").toString(), "1");
    EXPECT_EQ(fields.value("server_id").toString(), "3");
    EXPECT_EQ(fields.value("port").toString(), "502");

    const ToolRun without = discover(common);
    ASSERT_EQ(without.exitCode, 0) << without.err.toStdString();
    EXPECT_EQ(QJsonDocument::fromJson(without.out.toUtf8()).array(), QJsonArray())
        << without.out.toStdString();
}

}  // namespace
