// A real subnet scan over a veth pair between two network namespaces that the test creates and removes: the
// scanner side holds one address of a /24, the device side several addresses with simulators, a listener that
// never answers and an address with nothing listening; the rest of the /24 is unassigned.
#include "tests/common/netns_scan.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <QString>
#include <QStringList>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

#include "discovery/candidate.h"
#include "discovery/constants.h"
#include "discovery/discovery_run.h"
#include "discovery/options.h"
#include "discovery/subnet.h"
#include "discovery/transport.h"
#include "tests/common/netns_testbed.h"
#include "tools/sim/simulator.h"

namespace {

using modbus_sim::DeviceIdentification;
using modbus_sim::Simulator;
using ModbusDiscovery::Candidate;
using netns_testbed::ExpectedCandidate;
using netns_testbed::SilentListener;
using netns_testbed::Testbed;

constexpr uint16_t kPort = 502;
const char kScannerAddress[] = "10.77.0.1/24";
const char kIdentifiedDevice[] = "10.77.0.10";  // device-id objects
const char kSlaveIdDevice[] = "10.77.0.11";     // Report Slave ID only
const char kKnownDevice[] = "10.77.0.12";       // already imported: its uid is in the existing uids
const char kSilentHost[] = "10.77.0.13";        // accepts, never answers
const char kClosedHost[] = "10.77.0.14";        // address assigned, nothing listening
const char kGatewayDevice[] = "10.77.0.15";     // answers on unit 255 only
constexpr int kHostsOnTheSubnet = 253;          // .1 to .254 without the scanner's own address
constexpr int kScanTimeoutMs = 20000;
// One probe may overrun the deadline: the connect budget plus two reads for each of ten exchanges.
constexpr int kOneProbeMs =
    ModbusDiscovery::kTcpScanConnectTimeoutMs + 10 * 2 * ModbusDiscovery::kTcpScanReadTimeoutMs;

DeviceIdentification identification(const QByteArray& vendor, const QByteArray& model,
                                    const QByteArray& version) {
    DeviceIdentification result;
    result.objects = {{0x00, vendor}, {0x01, model + "-PC"}, {0x02, version}, {0x05, model}};
    return result;
}

class NetnsScanTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        const bool created =
            testbed.create(kScannerAddress,
                           {std::string(kIdentifiedDevice) + "/24", std::string(kSlaveIdDevice) + "/24",
                            std::string(kKnownDevice) + "/24", std::string(kSilentHost) + "/24",
                            std::string(kClosedHost) + "/24", std::string(kGatewayDevice) + "/24"},
                           &error);
        ASSERT_TRUE(created) << "cannot build the namespace testbed (root and iproute2 needed): " << error;

        identified.setDeviceIdentification(identification("ACME", "Model A", "1.4"));
        DeviceIdentification noDeviceId;
        noDeviceId.enabled = false;
        slaveId.setDeviceIdentification(noDeviceId);
        slaveId.setReportSlaveId(QByteArray::fromHex("01ff") + "Meter B");
        known.setDeviceIdentification(identification("ACME", "Model K", "9.9"));
        gateway.setUnits({255});
        gateway.setDeviceIdentification(identification("Gate", "Gateway D", "2.0"));

        bool started = false;
        const bool entered = testbed.runInDevices([&] {
            QString failure;
            started = identified.start(kIdentifiedDevice, kPort, &failure) &&
                      slaveId.start(kSlaveIdDevice, kPort, &failure) &&
                      known.start(kKnownDevice, kPort, &failure) &&
                      gateway.start(kGatewayDevice, kPort, &failure);
            silent = std::make_unique<SilentListener>(kSilentHost, kPort);
            startError = failure.toStdString();
        });
        ASSERT_TRUE(entered) << "cannot enter " << testbed.deviceNamespace;
        ASSERT_TRUE(started) << startError;
        ASSERT_TRUE(silent->ok());
    }

    void TearDown() override {
        identified.stop();
        slaveId.stop();
        known.stop();
        gateway.stop();
        silent.reset();
        testbed.destroy();
    }

    ModbusDiscovery::Options scanOptions() const {
        ModbusDiscovery::Options options;
        options.networkInterface = QString::fromStdString(testbed.scannerLink);
        options.tcpPorts = {kPort};
        options.unitIds = {1};
        options.timeoutMs = kScanTimeoutMs;
        return options;
    }

    // The scan runs on a thread inside the scanner namespace, and so do the workers it starts.
    QList<Candidate> scan(const ModbusDiscovery::Options& options, QStringList* log, QStringList* hosts,
                          std::chrono::milliseconds* elapsed) {
        QList<Candidate> result;
        const bool entered = netns_testbed::scanFromScanner(testbed, options, log, &result, hosts, elapsed);
        EXPECT_TRUE(entered) << "cannot enter " << testbed.scannerNamespace;
        return result;
    }

    Testbed testbed;
    Simulator identified;
    Simulator slaveId;
    Simulator known;
    Simulator gateway;
    std::unique_ptr<SilentListener> silent;
    std::string startError;
};

TEST_F(NetnsScanTest, FindsExactlyTheAnsweringDevicesOfTheSubnet) {
    ModbusDiscovery::Options options = scanOptions();
    options.existingUids = QStringList{QStringLiteral("modbus_10_77_0_12_502_1")};
    QStringList log;
    QStringList hosts;
    std::chrono::milliseconds elapsed{0};
    QList<Candidate> found = scan(options, &log, &hosts, &elapsed);

    // The enumeration saw the /24 inside the namespace and nothing else.
    ASSERT_EQ(hosts.size(), kHostsOnTheSubnet);
    EXPECT_EQ(hosts.first(), "10.77.0.2");
    EXPECT_EQ(hosts.last(), "10.77.0.254");
    for (const QString& host : hosts) {
        EXPECT_TRUE(host.startsWith(QStringLiteral("10.77.0."))) << host.toStdString();
    }

    std::sort(found.begin(), found.end(),
              [](const Candidate& a, const Candidate& b) { return a.address < b.address; });
    const ExpectedCandidate expected[] = {
        {kIdentifiedDevice, 1, "ACME", "Model A-PC", "1.4", "Model A", "tcp-scan", "modbus_10_77_0_10_502_1"},
        {kSlaveIdDevice, 1, "", "Meter B", "", "Meter B", "tcp-scan", "modbus_10_77_0_11_502_1"},
        {kGatewayDevice, 255, "Gate", "Gateway D-PC", "2.0", "Gateway D", "tcp-scan",
         "modbus_10_77_0_15_502_255"},
    };
    ASSERT_EQ(found.size(), static_cast<int>(std::size(expected)));
    netns_testbed::expectCandidates(found, kPort, expected);
    // The known device was probed all the same; only its candidate was dropped.
    EXPECT_GT(known.totalRequests(), 0);
    EXPECT_EQ(log,
              QStringList{QStringLiteral("Modbus TCP discovery probes TCP 502 on the selected subnet, then "
                                         "reads device identification if available and Report Slave ID. ")});
    // Hang guard: the scan ends within its deadline plus one probe.
    EXPECT_LT(elapsed.count(), kScanTimeoutMs + kOneProbeMs);
}

TEST_F(NetnsScanTest, ShortDeadlineEndsTheScanEarly) {
    ModbusDiscovery::Options options = scanOptions();
    options.timeoutMs = 1000;  // the smallest a request can ask for
    QStringList hosts;
    std::chrono::milliseconds elapsed{0};
    scan(options, nullptr, &hosts, &elapsed);

    ASSERT_EQ(hosts.size(), kHostsOnTheSubnet);
    EXPECT_LT(elapsed.count(), options.timeoutMs + kOneProbeMs + 1000);
}

TEST_F(NetnsScanTest, ProbeOfSingleHostsInsideTheNamespace) {
    struct Row {
        const char* host;
        bool reachable;
        int results;
    };
    const Row rows[] = {{kIdentifiedDevice, true, 1}, {kSilentHost, true, 0}, {kClosedHost, false, 0}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.host);
        bool reachable = !row.reachable;
        QList<ModbusDiscovery::IdentifyResult> results;
        ASSERT_TRUE(testbed.runInScanner([&] {
            results =
                ModbusDiscovery::tcpIdentify(row.host, kPort, {1}, ModbusDiscovery::kTcpScanConnectTimeoutMs,
                                             ModbusDiscovery::kTcpScanReadTimeoutMs, &reachable);
        }));
        EXPECT_EQ(reachable, row.reachable);
        EXPECT_EQ(results.size(), row.results);
    }
}

}  // namespace
