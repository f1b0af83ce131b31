// The TCP probe transport against the simulator and against small scripted servers on loopback.
#include "discovery/transport.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "common/closed_port.h"
#include "common/scripted_server.h"
#include "common/time_scale.h"
#include "discovery/constants.h"
#include "discovery/frames.h"
#include "discovery/identify_result.h"
#include "tools/sim/simulator.h"

namespace {

using modbus_sim::DeviceIdentification;
using modbus_sim::FaultKind;
using modbus_sim::FaultRule;
using modbus_sim::Simulator;
using ModbusDiscovery::IdentifyResult;
using ModbusDiscovery::QtTransport;
using test_support::closedPort;
using test_support::Request;
using test_support::ScriptedServer;

const QString kLoopback = QStringLiteral("127.0.0.1");
// Budgets far above what a loaded machine needs for an answer on loopback, so that an answer is never taken
// for silence; a connect that succeeds or is refused returns at once.
constexpr int kConnectMs = 5000 * zelt_test::kTimeScale;
constexpr int kReadMs = 1000 * zelt_test::kTimeScale;
// Where no exchange is answered in a way that matters, a short budget only shortens the test: silence stays
// silence however slow the machine is.
constexpr int kSilentReadMs = 60;
// The silent-port case measures the cost of silence, each exchange one budget plus a slack for scheduling.
constexpr int kSilentPortReadMs = 500 * zelt_test::kTimeScale;
constexpr int kSilentPortSlackMs = 250 * zelt_test::kTimeScale;
// A silent unit costs two device-id requests, one Report Slave ID and two fallback reads.
constexpr int kExchangesPerSilentUnit = 5;
constexpr int kFdSettleMs = 5000;

int openDescriptorCount() {
    int count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir) {
        return -1;
    }
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    ::closedir(dir);
    return count - 1;  // the directory stream itself
}

// Waits (bounded) until the descriptor count is back at the baseline; servers in this process close their
// side of a connection only after they see the client's close.
int descriptorsAfterSettling(int baseline) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kFdSettleMs);
    int count = openDescriptorCount();
    while (count != baseline && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        count = openDescriptorCount();
    }
    return count;
}

QByteArray hex(const char* text) {
    return QByteArray::fromHex(text);
}

DeviceIdentification fullIdentification(int objectsPerResponse) {
    DeviceIdentification identification;
    identification.objects = {{0x00, "ACME"},     {0x01, "PC-100"}, {0x02, "2.1"}, {0x03, "http://acme.test"},
                              {0x04, "Pump 100"}, {0x05, "PX-100"}, {0x06, "Flow"}};
    identification.objectsPerResponse = objectsPerResponse;
    return identification;
}

// A port that is listening but never accepts nor reads: the kernel completes the handshake alone.
class PlainListener {
public:
    PlainListener() {
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
            ::listen(fd, 4) == 0 && ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            listenPort = ntohs(address.sin_port);
        }
    }
    ~PlainListener() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    quint16 port() const { return listenPort; }

private:
    int fd = -1;
    quint16 listenPort = 0;
};

std::vector<int> unitsOf(const std::vector<modbus_sim::RequestRecord>& log) {
    std::vector<int> units;
    for (const auto& record : log) {
        units.push_back(record.unit);
    }
    return units;
}

int requestsForUnit(const std::vector<modbus_sim::RequestRecord>& log, int unit) {
    int count = 0;
    for (const auto& record : log) {
        count += record.unit == unit ? 1 : 0;
    }
    return count;
}

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override { baseline = openDescriptorCount(); }

    void startSimulator() {
        QString error;
        ASSERT_TRUE(sim.start(kLoopback, 0, &error)) << error.toStdString();
    }

    QList<IdentifyResult> probe(quint16 port, const QList<quint8>& units, bool* reachable,
                                int readMs = kReadMs) {
        return transport.tcpIdentify(kLoopback, port, units, kConnectMs, readMs, reachable);
    }

    // The simulator keeps some descriptors of finished sessions until it stops; stopping it first leaves only
    // what the probe might have leaked.
    void expectNoDescriptorLeft() {
        sim.stop();
        EXPECT_EQ(descriptorsAfterSettling(baseline), baseline);
    }

    Simulator sim;
    QtTransport transport;
    int baseline = 0;
};

TEST_F(TransportTest, ReadsEveryObjectOverMoreFollowsPaging) {
    sim.setDeviceIdentification(fullIdentification(2));
    startSimulator();
    bool reachable = false;
    const QList<IdentifyResult> results = probe(sim.port(), {1}, &reachable);

    EXPECT_TRUE(reachable);
    ASSERT_EQ(results.size(), 1);
    const IdentifyResult& result = results.at(0);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.unitId, 1);
    EXPECT_EQ(result.vendor, "ACME");
    EXPECT_EQ(result.productCode, "PC-100");
    EXPECT_EQ(result.version, "2.1");
    EXPECT_EQ(result.vendorUrl, "http://acme.test");
    EXPECT_EQ(result.productName, "Pump 100");
    EXPECT_EQ(result.modelName, "PX-100");
    EXPECT_EQ(result.userApplication, "Flow");
    EXPECT_EQ(result.source, "device-id");
    // Basic: objects 0-1, then 2. Regular: 0-1, 2-3, 4-5, 6. Identification found: no Report Slave ID.
    const std::vector<modbus_sim::RequestRecord> log = sim.requestLog();
    std::vector<QByteArray> pdus;
    for (const auto& record : log) {
        pdus.push_back(record.pdu);
    }
    EXPECT_EQ(pdus, (std::vector<QByteArray>{hex("2b0e0100"), hex("2b0e0102"), hex("2b0e0200"),
                                             hex("2b0e0202"), hex("2b0e0204"), hex("2b0e0206")}));
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcReportSlaveId), 0);
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, AsksAtMostFourTimesPerCategoryOnTheSimulator) {
    sim.setDeviceIdentification(fullIdentification(1));
    startSimulator();
    const QList<IdentifyResult> results = probe(sim.port(), {1}, nullptr);

    ASSERT_EQ(results.size(), 1);
    // Basic needs three requests; regular is cut after four, before objects 4 to 6.
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcMei), 7);
    EXPECT_EQ(results.at(0).vendor, "ACME");
    EXPECT_EQ(results.at(0).vendorUrl, "http://acme.test");
    EXPECT_EQ(results.at(0).productName, "");
    EXPECT_EQ(results.at(0).modelName, "");
    EXPECT_EQ(results.at(0).userApplication, "");
    EXPECT_EQ(results.at(0).source, "device-id");
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, FallsBackToReportSlaveId) {
    DeviceIdentification identification;
    identification.enabled = false;
    sim.setDeviceIdentification(identification);
    sim.setReportSlaveId(hex("01ff") + QByteArray("Meter 17"));
    startSimulator();
    const QList<IdentifyResult> results = probe(sim.port(), {4}, nullptr);

    ASSERT_EQ(results.size(), 1);
    const IdentifyResult& result = results.at(0);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.unitId, 4);
    EXPECT_EQ(result.productCode, "Meter 17");
    EXPECT_EQ(result.modelName, "Meter 17");
    EXPECT_EQ(result.vendor, "");
    EXPECT_EQ(result.source, "slave-id");
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcMei), 2);
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcReportSlaveId), 1);
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcReadHolding), 0);
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcReadCoils), 0);
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, UnitAnsweringOnlyWithExceptionsIsAModbusServer) {
    FaultRule everything;
    everything.kind = FaultKind::Exception;
    everything.exceptionCode = 4;
    sim.addFault(everything);
    startSimulator();
    bool reachable = false;
    const QList<IdentifyResult> results = probe(sim.port(), {9}, &reachable);

    EXPECT_TRUE(reachable);
    ASSERT_EQ(results.size(), 1);
    EXPECT_TRUE(results.at(0).ok);
    EXPECT_EQ(results.at(0).unitId, 9);
    EXPECT_EQ(results.at(0).source, "exception");
    EXPECT_EQ(results.at(0).vendor, "");
    EXPECT_EQ(results.at(0).productCode, "");
    // The unit responded, so the plain fallback reads are not needed.
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcMei), 2);
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcReportSlaveId), 1);
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcReadHolding), 0);
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcReadCoils), 0);
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, SilentIdentificationFallsBackToHoldingRead) {
    for (const int function : {int(ModbusDiscovery::kFcMei), int(ModbusDiscovery::kFcReportSlaveId)}) {
        FaultRule silence;
        silence.kind = FaultKind::Silence;
        silence.function = function;
        sim.addFault(silence);
    }
    startSimulator();
    const QList<IdentifyResult> results = probe(sim.port(), {2}, nullptr);

    ASSERT_EQ(results.size(), 1);
    EXPECT_TRUE(results.at(0).ok);
    EXPECT_EQ(results.at(0).unitId, 2);
    EXPECT_EQ(results.at(0).source, "holding");
    EXPECT_EQ(sim.requestCount(ModbusDiscovery::kFcReadCoils), 0);
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, SilentUnitsLeadToExactlyOneProbeOfUnit255) {
    sim.setUnits({7});
    sim.setUnknownUnitReply(modbus_sim::UnknownUnitReply::Silence);
    startSimulator();
    bool reachable = false;
    const QList<IdentifyResult> results = probe(sim.port(), {1, 2}, &reachable, kSilentReadMs);

    EXPECT_TRUE(reachable);
    EXPECT_TRUE(results.isEmpty());
    const std::vector<modbus_sim::RequestRecord> log = sim.requestLog();
    EXPECT_EQ(requestsForUnit(log, 1), kExchangesPerSilentUnit);
    EXPECT_EQ(requestsForUnit(log, 2), kExchangesPerSilentUnit);
    EXPECT_EQ(requestsForUnit(log, 255), kExchangesPerSilentUnit);
    ASSERT_EQ(log.size(), 3u * kExchangesPerSilentUnit);
    EXPECT_EQ(log.back().unit, 255);
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, UnitListWith255NeverProbesItTwice) {
    sim.setUnits({7});
    startSimulator();
    const QList<IdentifyResult> results = probe(sim.port(), {255, 1}, nullptr, kSilentReadMs);

    EXPECT_TRUE(results.isEmpty());
    const std::vector<modbus_sim::RequestRecord> log = sim.requestLog();
    EXPECT_EQ(requestsForUnit(log, 255), kExchangesPerSilentUnit);
    EXPECT_EQ(requestsForUnit(log, 1), kExchangesPerSilentUnit);
    EXPECT_EQ(log.size(), 2u * kExchangesPerSilentUnit);
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, GatewayAnsweringOnlyOn255IsFound) {
    sim.setUnits({255});
    sim.setDeviceIdentification(fullIdentification(0));
    startSimulator();
    const QList<IdentifyResult> results = probe(sim.port(), {1}, nullptr);

    ASSERT_EQ(results.size(), 1);
    EXPECT_EQ(results.at(0).unitId, 255);
    EXPECT_EQ(results.at(0).modelName, "PX-100");
    EXPECT_EQ(results.at(0).source, "device-id");
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, EmptyUnitListProbesUnitOneOnly) {
    sim.setDeviceIdentification(fullIdentification(0));
    startSimulator();
    const QList<IdentifyResult> results = probe(sim.port(), {}, nullptr);

    ASSERT_EQ(results.size(), 1);
    EXPECT_EQ(results.at(0).unitId, 1);
    const std::vector<int> units = unitsOf(sim.requestLog());
    EXPECT_EQ(units, (std::vector<int>{1, 1}));
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, EmptyUnitListProbes255WhenUnitOneIsSilent) {
    sim.setUnits({7});
    startSimulator();
    const QList<IdentifyResult> results = probe(sim.port(), {}, nullptr, kSilentReadMs);

    EXPECT_TRUE(results.isEmpty());
    const std::vector<modbus_sim::RequestRecord> log = sim.requestLog();
    EXPECT_EQ(requestsForUnit(log, 1), kExchangesPerSilentUnit);
    EXPECT_EQ(requestsForUnit(log, 255), kExchangesPerSilentUnit);
    EXPECT_EQ(log.size(), 2u * kExchangesPerSilentUnit);
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, BadMbapLengthFromTheSimulatorIsNoResponse) {
    struct Row {
        int lengthField;  // -1: the answers are left intact
        int results;
    };
    for (const Row row : {Row{-1, 1}, Row{0, 0}, Row{1, 0}, Row{261, 0}}) {
        SCOPED_TRACE(row.lengthField);
        const int before = openDescriptorCount();
        Simulator device;
        device.setDeviceIdentification(fullIdentification(0));
        device.setReportSlaveId(hex("01ff") + QByteArray("Meter"));
        if (row.lengthField >= 0) {
            FaultRule wrongLength;
            wrongLength.kind = FaultKind::WrongLength;
            wrongLength.lengthField = row.lengthField;
            device.addFault(wrongLength);
        }
        QString error;
        ASSERT_TRUE(device.start(kLoopback, 0, &error)) << error.toStdString();
        bool reachable = false;
        const QList<IdentifyResult> results =
            probe(device.port(), {1}, &reachable, row.lengthField < 0 ? kReadMs : kSilentReadMs);

        EXPECT_TRUE(reachable);
        EXPECT_EQ(results.size(), row.results);
        device.stop();
        EXPECT_EQ(descriptorsAfterSettling(before), before);
    }
}

TEST_F(TransportTest, BadMbapLengthIsNoResponse) {
    struct Row {
        int lengthField;
        int results;
        int requests;
    };
    // Only the first request is answered, with an exception whose length field is set per row; a well-formed
    // exception makes the unit a Modbus server, a bad length leaves it silent through all ten exchanges.
    for (const Row row : {Row{3, 1, 3}, Row{0, 0, 2 * kExchangesPerSilentUnit},
                          Row{1, 0, 2 * kExchangesPerSilentUnit}, Row{261, 0, 2 * kExchangesPerSilentUnit}}) {
        SCOPED_TRACE(row.lengthField);
        std::atomic<int> answered{0};
        ScriptedServer server([&answered, row](const Request& request) {
            if (answered++ > 0) {
                return QByteArray();
            }
            QByteArray frame = ModbusDiscovery::wrapMbap(request.transactionId, request.unit, hex("ab01"));
            frame[4] = static_cast<char>(row.lengthField >> 8);
            frame[5] = static_cast<char>(row.lengthField & 0xFF);
            return frame;
        });
        ASSERT_NE(server.port(), 0);
        // Only a well-formed answer must arrive in time; the bad ones count as silence whenever they come.
        const QList<IdentifyResult> results =
            probe(server.port(), {1}, nullptr, row.results > 0 ? kReadMs : kSilentReadMs);

        ASSERT_EQ(results.size(), row.results);
        if (row.results > 0) {
            EXPECT_EQ(results.at(0).source, "exception");
        }
        std::vector<Request> requests = server.requests();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (requests.size() < static_cast<size_t>(row.requests) &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            requests = server.requests();
        }
        EXPECT_EQ(requests.size(), static_cast<size_t>(row.requests));
    }
}

TEST_F(TransportTest, DifferentTransactionIdIsAccepted) {
    sim.setDeviceIdentification(fullIdentification(0));
    FaultRule wrongTransaction;
    wrongTransaction.kind = FaultKind::WrongTransactionId;
    sim.addFault(wrongTransaction);
    startSimulator();
    const QList<IdentifyResult> results = probe(sim.port(), {1}, nullptr);

    ASSERT_EQ(results.size(), 1);
    EXPECT_EQ(results.at(0).vendor, "ACME");
    EXPECT_EQ(results.at(0).source, "device-id");
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, DifferentUnitIdIsAcceptedAndTheRequestedUnitReported) {
    ScriptedServer server([](const Request& request) {
        QByteArray answer = hex("2b0e0101000001") + QByteArray(1, '\x00') + QByteArray(1, '\x04') + "ACME";
        return ModbusDiscovery::wrapMbap(request.transactionId, 99, answer);
    });
    ASSERT_NE(server.port(), 0);
    const QList<IdentifyResult> results = probe(server.port(), {3}, nullptr);

    ASSERT_EQ(results.size(), 1);
    EXPECT_EQ(results.at(0).unitId, 3);
    EXPECT_EQ(results.at(0).vendor, "ACME");
    EXPECT_EQ(results.at(0).source, "device-id");
}

TEST_F(TransportTest, EndlessMoreFollowsIsAskedFourTimesPerCategory) {
    // Every answer holds the asked object and says more follows with the next id.
    ScriptedServer server([](const Request& request) {
        const char objectId = request.pdu.at(3);
        QByteArray answer = hex("2b0e0101ff");
        answer.append(static_cast<char>(objectId + 1));
        answer.append('\x01');
        answer.append(objectId);
        answer.append('\x02');
        answer.append('V');
        answer.append(static_cast<char>('0' + objectId));
        return ModbusDiscovery::wrapMbap(request.transactionId, request.unit, answer);
    });
    ASSERT_NE(server.port(), 0);
    const QList<IdentifyResult> results = probe(server.port(), {1}, nullptr);

    ASSERT_EQ(results.size(), 1);
    EXPECT_EQ(results.at(0).vendor, "V0");
    EXPECT_EQ(results.at(0).productCode, "V1");
    EXPECT_EQ(results.at(0).version, "V2");
    EXPECT_EQ(results.at(0).vendorUrl, "V3");
    EXPECT_EQ(results.at(0).productName, "");
    EXPECT_EQ(results.at(0).source, "device-id");
    const std::vector<Request> requests = server.requests();
    const std::vector<QByteArray> expected = {hex("2b0e0100"), hex("2b0e0101"), hex("2b0e0102"),
                                              hex("2b0e0103"), hex("2b0e0200"), hex("2b0e0201"),
                                              hex("2b0e0202"), hex("2b0e0203")};
    ASSERT_EQ(requests.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(requests[i].pdu, expected[i]);
        EXPECT_EQ(requests[i].transactionId, i + 1);
        EXPECT_EQ(requests[i].unit, 1);
    }
}

TEST_F(TransportTest, SilentPortCostsFiveExchangesPerUnitInFixedOrder) {
    ScriptedServer server([](const Request&) { return QByteArray(); });
    ASSERT_NE(server.port(), 0);
    bool reachable = false;
    const auto started = std::chrono::steady_clock::now();
    const QList<IdentifyResult> results = probe(server.port(), {1}, &reachable, kSilentPortReadMs);
    const auto elapsed = std::chrono::steady_clock::now() - started;

    EXPECT_TRUE(reachable);
    EXPECT_TRUE(results.isEmpty());
    // Each of the ten exchanges waits out its budget once, no more: a send and a header read that shared no
    // budget, or a wait per read call, would cost far more than the slack allows.
    constexpr int kExchanges = 2 * kExchangesPerSilentUnit;
    EXPECT_GE(elapsed, std::chrono::milliseconds(kExchanges * kSilentPortReadMs));
    EXPECT_LT(elapsed, std::chrono::milliseconds(kExchanges * (kSilentPortReadMs + kSilentPortSlackMs)));
    struct Row {
        int unit;
        const char* pdu;
    };
    const Row expected[] = {{1, "2b0e0100"},     {1, "2b0e0200"},    {1, "11"},         {1, "0300000001"},
                            {1, "0100000001"},   {255, "2b0e0100"},  {255, "2b0e0200"}, {255, "11"},
                            {255, "0300000001"}, {255, "0100000001"}};
    // The last request may still be on its way to the server when the probe gives up on it.
    std::vector<Request> requests = server.requests();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (requests.size() < std::size(expected) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        requests = server.requests();
    }
    ASSERT_EQ(requests.size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(requests[i].unit, expected[i].unit);
        EXPECT_EQ(requests[i].pdu, hex(expected[i].pdu));
        EXPECT_EQ(requests[i].transactionId, i + 1);
    }
}

TEST_F(TransportTest, ListenerThatNeverAnswersGivesEmptyListButReachable) {
    PlainListener listener;
    ASSERT_NE(listener.port(), 0);
    const int before = openDescriptorCount();
    const auto started = std::chrono::steady_clock::now();
    bool reachable = false;
    const QList<IdentifyResult> results =
        transport.tcpIdentify(kLoopback, listener.port(), {1}, ModbusDiscovery::kTcpScanConnectTimeoutMs,
                              ModbusDiscovery::kTcpScanReadTimeoutMs, &reachable);
    const auto elapsed = std::chrono::steady_clock::now() - started;

    EXPECT_TRUE(reachable);
    EXPECT_TRUE(results.isEmpty());
    // Hang guard only: ten exchanges, each at most a send and a header read within the read budget.
    EXPECT_LT(elapsed, std::chrono::milliseconds(
                           ModbusDiscovery::kTcpScanConnectTimeoutMs +
                           2 * kExchangesPerSilentUnit * 2 * ModbusDiscovery::kTcpScanReadTimeoutMs + 2000));
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(TransportTest, ClosedPortIsNotReachable) {
    const quint16 port = closedPort();
    ASSERT_NE(port, 0);
    bool reachable = true;
    const QList<IdentifyResult> results = probe(port, {1}, &reachable);

    EXPECT_FALSE(reachable);
    EXPECT_TRUE(results.isEmpty());
    EXPECT_EQ(openDescriptorCount(), baseline);
}

TEST_F(TransportTest, HostThatIsNoDottedIpv4LiteralIsNeverConnected) {
    ScriptedServer server([](const Request&) { return QByteArray(); });
    ASSERT_NE(server.port(), 0);
    const int before = openDescriptorCount();
    const QString withNul = QStringLiteral("127.0.0.1") + QChar(0) + QStringLiteral("garbage");
    for (const QString& host :
         {QStringLiteral("localhost"), QStringLiteral("::1"), QStringLiteral("[::1]"), QString(),
          QStringLiteral("127.0.0.1.1"), QStringLiteral("127.0.0.256"), QStringLiteral(" 127.0.0.1"),
          QStringLiteral("ip6-localhost"), QStringLiteral("0x7f.0.0.1"), withNul}) {
        SCOPED_TRACE(host.toStdString());
        bool reachable = true;
        const QList<IdentifyResult> results =
            transport.tcpIdentify(host, server.port(), {1}, kConnectMs, kReadMs, &reachable);
        EXPECT_FALSE(reachable);
        EXPECT_TRUE(results.isEmpty());
    }
    EXPECT_TRUE(server.requests().empty());
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(TransportTest, FreeFunctionProbesLikeTheTransport) {
    sim.setDeviceIdentification(fullIdentification(0));
    startSimulator();
    bool reachable = false;
    const QList<IdentifyResult> results =
        ModbusDiscovery::tcpIdentify(kLoopback, sim.port(), {1, 2}, kConnectMs, kReadMs, &reachable);

    EXPECT_TRUE(reachable);
    ASSERT_EQ(results.size(), 2);
    EXPECT_EQ(results.at(0).unitId, 1);
    EXPECT_EQ(results.at(1).unitId, 2);
    EXPECT_EQ(results.at(1).productName, "Pump 100");
    expectNoDescriptorLeft();
}

TEST_F(TransportTest, NullReachableFlagIsAllowed) {
    const QList<IdentifyResult> results = probe(closedPort(), {1}, nullptr);
    EXPECT_TRUE(results.isEmpty());
}

}  // namespace
