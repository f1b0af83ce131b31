// Plant-network behaviour of the simulator, seen from raw sockets: a gateway with few connection slots and
// one serial line, devices that need a pause or are busy now and then, dead units, the request log's times,
// and an endpoint that never answers a SYN.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "tools/sim/blackhole_listener.h"
#include "tools/sim/sim_fault_names.h"
#include "tools/sim/simulator.h"
#include "tools/simulator_raw_client.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using modbus_sim::FaultKind;
using modbus_sim::FaultRule;
using modbus_sim::RequestRecord;
using modbus_sim::Simulator;
using modbus_sim::UnknownUnitReply;
using simulator_test::adu;
using simulator_test::kSilenceWaitMs;
using simulator_test::RawClient;
using simulator_test::waitFor;

// Every unit the tests address has tables of its own: holding register 0 holds kHoldingBase + unit, input
// register 0 kInputBase + unit. The shared tables hold other values, so an answer from the wrong tables
// shows.
constexpr int kHoldingBase = 1000;
constexpr int kInputBase = 2000;
constexpr int kUnitsWithTables = 5;
constexpr uint16_t kSharedValue = 0x0102;

// A register value as the four hex digits of an answer.
QByteArray hex16(int value) {
    return QByteArray::number(value, 16).rightJustified(4, '0');
}

void giveUnitsTables(Simulator& simulator) {
    simulator.setHoldingRegisters(0, {kSharedValue});
    simulator.setInputRegisters(0, {kSharedValue});
    for (int unit = 1; unit <= kUnitsWithTables; ++unit) {
        simulator.setHoldingRegisters(unit, 0, {static_cast<uint16_t>(kHoldingBase + unit)});
        simulator.setInputRegisters(unit, 0, {static_cast<uint16_t>(kInputBase + unit)});
    }
}

// Read of one holding register at 0 (kHoldingBase + unit) for unit 1, and its answer, by transaction id.
QByteArray readRequest(uint16_t transactionId, uint8_t unit = 1) {
    return adu(transactionId, unit, "0300000001");
}
QByteArray readAnswerHex(uint16_t transactionId, uint8_t unit = 1) {
    return adu(transactionId, unit, "0302" + hex16(kHoldingBase + unit)).toHex();
}
QByteArray inputAnswerHex(uint16_t transactionId, uint8_t unit = 1) {
    return adu(transactionId, unit, "0402" + hex16(kInputBase + unit)).toHex();
}
QByteArray exceptionAnswerHex(uint16_t transactionId, uint8_t unit, const char* pduHex) {
    return adu(transactionId, unit, pduHex).toHex();
}

constexpr qint64 kUsPerMs = 1000;

class SimulatorPlantNetworkTest : public ::testing::Test {
protected:
    void SetUp() override {
        giveUnitsTables(simulator);
        ASSERT_TRUE(simulator.start());
    }

    std::vector<int> loggedUnits() const {
        std::vector<int> units;
        for (const RequestRecord& record : simulator.requestLog()) units.push_back(record.unit);
        return units;
    }

    Simulator simulator;
};

TEST_F(SimulatorPlantNetworkTest, ConnectionLimitClosesTheConnectionsBeyondIt) {
    simulator.setConnectionLimit(2);
    RawClient first;
    RawClient second;
    RawClient third;
    ASSERT_TRUE(first.connectTo(simulator.port()));
    ASSERT_TRUE(second.connectTo(simulator.port()));
    ASSERT_TRUE(waitFor([&] { return simulator.acceptedConnections() == 2; }));
    // The kernel completes the handshake; the simulator then closes the connection without reading.
    ASSERT_TRUE(third.connectTo(simulator.port()));
    EXPECT_TRUE(third.readUntilClosed().isEmpty());
    EXPECT_EQ(third.lastError, 0);
    EXPECT_TRUE(waitFor([&] { return simulator.rejectedConnections() == 1; }));
    EXPECT_EQ(simulator.acceptedConnections(), 2);
    EXPECT_EQ(simulator.openConnections(), 2);
    EXPECT_EQ(simulator.closedConnections(), 0);
    EXPECT_EQ(first.exchange(readRequest(1)).toHex(), readAnswerHex(1));
    EXPECT_EQ(second.exchange(readRequest(2)).toHex(), readAnswerHex(2));

    // A freed slot is taken by the next connection.
    first.close();
    ASSERT_TRUE(waitFor([&] { return simulator.closedConnections() == 1; }));
    ASSERT_TRUE(third.connectTo(simulator.port()));
    EXPECT_EQ(third.exchange(readRequest(3)).toHex(), readAnswerHex(3));
    EXPECT_EQ(simulator.acceptedConnections(), 3);
    EXPECT_EQ(simulator.rejectedConnections(), 1);
    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].connection, 1);
    EXPECT_EQ(log[1].connection, 2);
    EXPECT_EQ(log[2].connection, 3);

    // Without a limit nothing more is rejected.
    simulator.setConnectionLimit(0);
    RawClient fourth;
    ASSERT_TRUE(fourth.connectTo(simulator.port()));
    EXPECT_EQ(fourth.exchange(readRequest(4)).toHex(), readAnswerHex(4));
    EXPECT_EQ(simulator.rejectedConnections(), 1);
}

constexpr int kSerialLineMs = 200;

TEST_F(SimulatorPlantNetworkTest, SerialLineServesOneRequestAtATimeAcrossConnections) {
    simulator.setSerialLine(kSerialLineMs);
    RawClient first;
    RawClient second;
    ASSERT_TRUE(first.connectTo(simulator.port()));
    ASSERT_TRUE(second.connectTo(simulator.port()));
    ASSERT_TRUE(first.send(readRequest(1)));
    ASSERT_TRUE(second.send(readRequest(2)));
    EXPECT_EQ(first.readFrame().toHex(), readAnswerHex(1));
    EXPECT_EQ(second.readFrame().toHex(), readAnswerHex(2));

    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 2u);
    for (const RequestRecord& record : log) {
        SCOPED_TRACE(record.transactionId);
        EXPECT_GE(record.answeredUs - record.receivedUs, kSerialLineMs * kUsPerMs);
    }
    // Whichever took the line first, the other's answer left a whole line time later.
    EXPECT_GE(std::max(log[0].answeredUs, log[1].answeredUs) - std::min(log[0].answeredUs, log[1].answeredUs),
              kSerialLineMs * kUsPerMs);
}

TEST_F(SimulatorPlantNetworkTest, SerialLineIsHeldForADeadUnitToo) {
    simulator.setSerialLine(kSerialLineMs);
    simulator.setDeadUnits({5});
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    // Both requests at once: the dead unit's line time comes before the live unit's.
    ASSERT_TRUE(client.send(readRequest(1, 5) + readRequest(2)));
    EXPECT_EQ(client.readFrame().toHex(), readAnswerHex(2));
    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].unit, 5);
    EXPECT_EQ(log[1].unit, 1);
    EXPECT_EQ(log[0].answeredUs, -1);
    EXPECT_GE(log[1].answeredUs - log[0].receivedUs, 2 * kSerialLineMs * kUsPerMs);
}

// Long enough that a request sent at once after an answer arrives well within it, even on a loaded machine.
constexpr int kRequestGapMs = 2000;

TEST_F(SimulatorPlantNetworkTest, MinimumGapDropsARequestThatComesTooSoon) {
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(readRequest(1)).toHex(), readAnswerHex(1));
    const auto answered = std::chrono::steady_clock::now();
    simulator.setMinimumRequestGap(kRequestGapMs);

    ASSERT_TRUE(client.send(readRequest(2)));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    EXPECT_EQ(client.lastError, ETIMEDOUT);
    ASSERT_TRUE(waitFor([&] { return simulator.totalRequests() == 2; }));

    // The simulator sent its answer before the client saw it, so this wait is a lower bound on its side too.
    std::this_thread::sleep_until(answered + std::chrono::milliseconds(kRequestGapMs));
    EXPECT_EQ(client.exchange(readRequest(3)).toHex(), readAnswerHex(3));

    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_FALSE(log[0].dropped);
    EXPECT_TRUE(log[1].dropped);
    EXPECT_EQ(log[1].answeredUs, -1);
    EXPECT_EQ(log[1].transactionId, 2);
    EXPECT_FALSE(log[2].dropped);
    EXPECT_GE(log[2].receivedUs - log[0].answeredUs, kRequestGapMs * kUsPerMs);
    EXPECT_GE(log[2].answeredUs, log[2].receivedUs);
    // Dropped requests are counted like the others.
    EXPECT_EQ(simulator.requestCount(3), 3);
}

TEST_F(SimulatorPlantNetworkTest, MinimumGapCountsFromTheAccept) {
    simulator.setMinimumRequestGap(kRequestGapMs);
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    ASSERT_TRUE(client.send(readRequest(1)));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    ASSERT_TRUE(waitFor([&] { return simulator.totalRequests() == 1; }));
    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_TRUE(log[0].dropped);

    // Switched off, the same connection is answered at once.
    simulator.setMinimumRequestGap(0);
    EXPECT_EQ(client.exchange(readRequest(2)).toHex(), readAnswerHex(2));
}

FaultRule busyEvery(int everyRequests) {
    FaultRule rule;
    rule.kind = FaultKind::BusyEvery;
    rule.everyRequests = everyRequests;
    return rule;
}

TEST_F(SimulatorPlantNetworkTest, BusyEveryThirdRequestOverAllConnections) {
    simulator.addFault(busyEvery(3));
    RawClient clients[2];
    ASSERT_TRUE(clients[0].connectTo(simulator.port()));
    ASSERT_TRUE(clients[1].connectTo(simulator.port()));
    const bool busy[] = {false, false, true, false, false, true, false};
    for (uint16_t i = 0; i < 7; ++i) {
        SCOPED_TRACE(i);
        const uint16_t transactionId = i + 1;
        const QByteArray expected =
            busy[i] ? exceptionAnswerHex(transactionId, 1, "8306") : readAnswerHex(transactionId);
        EXPECT_EQ(clients[i % 2].exchange(readRequest(transactionId)).toHex(), expected);
    }
}

TEST_F(SimulatorPlantNetworkTest, BusyWritesAreNotCarriedOut) {
    simulator.addFault(busyEvery(2));
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(adu(1, 1, "0600000005")).toHex(), adu(1, 1, "0600000005").toHex());
    EXPECT_EQ(client.exchange(adu(2, 2, "0600000006")).toHex(), exceptionAnswerHex(2, 2, "8606"));
    EXPECT_EQ(simulator.holdingRegisters(1, 0, 1), std::vector<uint16_t>({5}));
    EXPECT_EQ(simulator.holdingRegisters(2, 0, 1), std::vector<uint16_t>({kHoldingBase + 2}));
    EXPECT_EQ(simulator.holdingRegisters(0, 1), std::vector<uint16_t>({kSharedValue}));
}

TEST_F(SimulatorPlantNetworkTest, BusyPassesTheOtherRequestsToLaterRules) {
    FaultRule busy = busyEvery(2);
    busy.function = 3;
    FaultRule wrongId;
    wrongId.kind = FaultKind::WrongTransactionId;
    simulator.addFault(busy);
    simulator.addFault(wrongId);
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(readRequest(1)).toHex(), readAnswerHex(2));
    // Function 4 is not counted by the rule for function 3.
    EXPECT_EQ(client.exchange(adu(5, 1, "0400000001")).toHex(), inputAnswerHex(6, 1));
    EXPECT_EQ(client.exchange(readRequest(7)).toHex(), exceptionAnswerHex(7, 1, "8306"));
    EXPECT_EQ(client.exchange(readRequest(9)).toHex(), readAnswerHex(10));
    // clearFaults starts the count again.
    simulator.clearFaults();
    simulator.addFault(busyEvery(2));
    EXPECT_EQ(client.exchange(readRequest(11)).toHex(), readAnswerHex(11));
    EXPECT_EQ(client.exchange(readRequest(12)).toHex(), exceptionAnswerHex(12, 1, "8306"));
}

TEST_F(SimulatorPlantNetworkTest, OneDeadUnitBehindALiveGateway) {
    simulator.setDeadUnits({2}, UnknownUnitReply::GatewayException);
    FaultRule exception;
    exception.exceptionCode = 4;
    exception.function = 4;
    simulator.addFault(exception);
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(readRequest(1, 2)).toHex(), exceptionAnswerHex(1, 2, "830b"));
    EXPECT_EQ(client.exchange(readRequest(2, 1)).toHex(), readAnswerHex(2, 1));
    EXPECT_EQ(client.exchange(readRequest(3, 3)).toHex(), readAnswerHex(3, 3));
    // Faults do not reach a dead unit.
    EXPECT_EQ(client.exchange(adu(4, 2, "0400000001")).toHex(), exceptionAnswerHex(4, 2, "840b"));
    EXPECT_EQ(simulator.deadUnits(), std::set<int>({2}));
    EXPECT_EQ(simulator.deadUnitReply(), UnknownUnitReply::GatewayException);

    simulator.setDeadUnits({2});
    ASSERT_TRUE(client.send(readRequest(5, 2)));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    EXPECT_EQ(client.lastError, ETIMEDOUT);
    EXPECT_EQ(client.exchange(readRequest(6, 1)).toHex(), readAnswerHex(6, 1));

    // Revived.
    simulator.setDeadUnits({});
    EXPECT_EQ(client.exchange(readRequest(7, 2)).toHex(), readAnswerHex(7, 2));
    EXPECT_EQ(client.exchange(adu(8, 2, "0400000001")).toHex(), exceptionAnswerHex(8, 2, "8404"));
    EXPECT_EQ(simulator.requestCount(3), 6);
    EXPECT_EQ(loggedUnits(), std::vector<int>({2, 1, 3, 2, 2, 1, 2, 2}));
}

TEST_F(SimulatorPlantNetworkTest, DeadUnitsWinOverServedUnits) {
    simulator.setUnits({1, 2});
    simulator.setUnknownUnitReply(UnknownUnitReply::Silence);
    simulator.setDeadUnits({1}, UnknownUnitReply::GatewayException);
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(readRequest(1, 1)).toHex(), exceptionAnswerHex(1, 1, "830b"));
    EXPECT_EQ(client.exchange(readRequest(2, 2)).toHex(), readAnswerHex(2, 2));
    ASSERT_TRUE(client.send(readRequest(3, 3)));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    EXPECT_EQ(client.exchange(adu(4, 2, "0400000001")).toHex(), inputAnswerHex(4, 2));
    EXPECT_EQ(loggedUnits(), std::vector<int>({1, 2, 3, 2}));
}

TEST_F(SimulatorPlantNetworkTest, RequestLogTimesConnectionsAndTransactionIds) {
    FaultRule silence;
    silence.kind = FaultKind::Silence;
    silence.function = 4;
    simulator.addFault(silence);
    RawClient first;
    RawClient second;
    ASSERT_TRUE(first.connectTo(simulator.port()));
    EXPECT_EQ(first.exchange(readRequest(0x1234)).toHex(), readAnswerHex(0x1234));
    ASSERT_TRUE(first.send(adu(0x1235, 1, "0400000001")));
    ASSERT_TRUE(waitFor([&] { return simulator.totalRequests() == 2; }));
    ASSERT_TRUE(second.connectTo(simulator.port()));
    EXPECT_EQ(second.exchange(readRequest(0xFFFF)).toHex(), readAnswerHex(0xFFFF));

    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].connection, 1);
    EXPECT_EQ(log[1].connection, 1);
    EXPECT_EQ(log[2].connection, 2);
    EXPECT_EQ(log[0].transactionId, 0x1234);
    EXPECT_EQ(log[1].transactionId, 0x1235);
    EXPECT_EQ(log[2].transactionId, 0xFFFF);
    EXPECT_GE(log[0].receivedUs, 0);
    EXPECT_GE(log[0].answeredUs, log[0].receivedUs);
    EXPECT_GE(log[1].receivedUs, log[0].answeredUs);
    EXPECT_EQ(log[1].answeredUs, -1);
    EXPECT_GE(log[2].receivedUs, log[1].receivedUs);
    EXPECT_GE(log[2].answeredUs, log[2].receivedUs);
    for (const RequestRecord& record : log) EXPECT_FALSE(record.dropped);
}

// A non-blocking connection attempt to 127.0.0.1:port.
int startConnect(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    return fd;
}

TEST(BlackholeListener, ConnectionAttemptsGetNoAnswer) {
    modbus_sim::BlackholeListener blackhole;
    QString error;
    ASSERT_TRUE(blackhole.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
    ASSERT_NE(blackhole.port(), 0);
    for (int attempt = 0; attempt < 2; ++attempt) {
        SCOPED_TRACE(attempt);
        const int fd = startConnect(blackhole.port());
        ASSERT_GE(fd, 0);
        // Neither connected nor refused: no SYN-ACK and no RST came back.
        pollfd wait = {fd, POLLOUT, 0};
        EXPECT_EQ(::poll(&wait, 1, kSilenceWaitMs), 0);
        int socketError = -1;
        socklen_t length = sizeof(socketError);
        EXPECT_EQ(::getsockopt(fd, SOL_SOCKET, SO_ERROR, &socketError, &length), 0);
        EXPECT_EQ(socketError, 0);
        ::close(fd);
    }
    // Once stopped the port refuses at once, so the silence above was the listener's doing.
    const uint16_t port = blackhole.port();
    blackhole.stop();
    RawClient client;
    EXPECT_FALSE(client.connectTo(port));
    EXPECT_EQ(client.lastError, ECONNREFUSED);
}

TEST(BlackholeListener, OnlyLoopback) {
    modbus_sim::BlackholeListener blackhole;
    QString error;
    EXPECT_FALSE(blackhole.start(QStringLiteral("10.0.0.1"), 0, &error));
    EXPECT_EQ(error, QStringLiteral("not a loopback address: 10.0.0.1"));
    EXPECT_FALSE(blackhole.start(QStringLiteral("localhost"), 0, &error));
    EXPECT_EQ(error, QStringLiteral("not an IPv4 address: localhost"));
}

TEST(SimulatorPlantNetworkMap, BusyEveryFaultReadsItsCount) {
    std::vector<FaultRule> faults;
    QString error;
    ASSERT_TRUE(
        modbus_sim::readMapFaults(R"({"faults": [{"kind": "busy_every", "every_requests": 3, "unit": 2},
                                                         {"kind": "busy_every"}]})",
                                  &faults, &error))
        << error.toStdString();
    ASSERT_EQ(faults.size(), 2u);
    EXPECT_EQ(faults[0].kind, FaultKind::BusyEvery);
    EXPECT_EQ(faults[0].everyRequests, 3);
    EXPECT_EQ(faults[0].unit, 2);
    EXPECT_EQ(faults[1].everyRequests, 1);
}

TEST(SimulatorPlantNetworkMap, SettingsTakeEffect) {
    Simulator simulator;
    QString error;
    ASSERT_TRUE(simulator.loadMapJson(R"({"holding_registers": {"0": [258]}, "connection_limit": 1,
                                          "unit_tables": {"1": {"holding_registers": {"0": [1001]}},
                                                          "3": {"holding_registers": {"0": [1003]}}},
                                          "serial_line_ms": 100, "dead_units": [2, 3],
                                          "dead_unit_reply": "gateway_exception",
                                          "faults": [{"kind": "busy_every", "every_requests": 2}]})",
                                      &error))
        << error.toStdString();
    EXPECT_EQ(simulator.deadUnits(), std::set<int>({2, 3}));
    EXPECT_EQ(simulator.deadUnitReply(), UnknownUnitReply::GatewayException);
    ASSERT_TRUE(simulator.start());
    RawClient client;
    RawClient rejected;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    ASSERT_TRUE(waitFor([&] { return simulator.acceptedConnections() == 1; }));
    ASSERT_TRUE(rejected.connectTo(simulator.port()));
    EXPECT_TRUE(rejected.readUntilClosed().isEmpty());
    EXPECT_TRUE(waitFor([&] { return simulator.rejectedConnections() == 1; }));
    EXPECT_EQ(client.exchange(readRequest(1, 3)).toHex(), exceptionAnswerHex(1, 3, "830b"));
    EXPECT_EQ(client.exchange(readRequest(2)).toHex(), readAnswerHex(2));
    EXPECT_EQ(client.exchange(readRequest(3)).toHex(), exceptionAnswerHex(3, 1, "8306"));
    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 3u);
    for (const RequestRecord& record : log) EXPECT_GE(record.answeredUs - record.receivedUs, 100 * kUsPerMs);

    // A reply on its own keeps the dead units; an empty list revives them.
    ASSERT_TRUE(simulator.loadMapJson(R"({"dead_unit_reply": "silence"})", &error)) << error.toStdString();
    EXPECT_EQ(simulator.deadUnits(), std::set<int>({2, 3}));
    EXPECT_EQ(simulator.deadUnitReply(), UnknownUnitReply::Silence);
    ASSERT_TRUE(simulator.loadMapJson(R"({"dead_units": []})", &error)) << error.toStdString();
    EXPECT_EQ(simulator.deadUnits(), std::set<int>());
}

TEST(SimulatorPlantNetworkMap, MinimumGapFromTheMap) {
    Simulator simulator;
    QString error;
    ASSERT_TRUE(simulator.loadMapJson(R"({"minimum_request_gap_ms": 2000})", &error)) << error.toStdString();
    ASSERT_TRUE(simulator.start());
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    ASSERT_TRUE(client.send(readRequest(1)));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    ASSERT_TRUE(waitFor([&] { return simulator.totalRequests() == 1; }));
    EXPECT_TRUE(simulator.requestLog().at(0).dropped);
}

TEST(SimulatorPlantNetworkMap, BadValuesNameTheKey) {
    struct Row {
        const char* json;
        const char* error;
    };
    const Row rows[] = {
        {R"({"connection_limit": -1})", "key \"connection_limit\": value -1 is out of range 0..1024"},
        {R"({"connection_limit": 1025})", "key \"connection_limit\": value 1025 is out of range 0..1024"},
        {R"({"connection_limit": true})", "key \"connection_limit\": expected a whole number"},
        {R"({"serial_line_ms": 60001})", "key \"serial_line_ms\": value 60001 is out of range 0..60000"},
        {R"({"serial_line_ms": 1.5})", "key \"serial_line_ms\": expected a whole number"},
        {R"({"minimum_request_gap_ms": "100"})", "key \"minimum_request_gap_ms\": expected a whole number"},
        {R"({"minimum_request_gap_ms": -5})",
         "key \"minimum_request_gap_ms\": value -5 is out of range 0..60000"},
        {R"({"dead_units": 2})", "key \"dead_units\": expected an array of unit ids"},
        {R"({"dead_units": [1, 256]})", "key \"dead_units[1]\": value 256 is out of range 0..255"},
        {R"({"dead_unit_reply": "exception"})",
         "key \"dead_unit_reply\": expected \"silence\" or \"gateway_exception\""},
        {R"({"faults": [{"kind": "busy_every", "every_requests": 0}]})",
         "key \"faults[0].every_requests\": value 0 is out of range 1..2147483647"},
        {R"({"faults": [{"kind": "exception", "every_requests": 2}]})",
         "key \"faults[0].every_requests\": not used by fault kind \"exception\""},
        {R"({"faults": [{"kind": "busy_every", "after_requests": 2}]})",
         "key \"faults[0].after_requests\": not used by fault kind \"busy_every\""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.json);
        Simulator simulator;
        QString error;
        EXPECT_FALSE(simulator.loadMapJson(row.json, &error));
        EXPECT_EQ(error.toStdString(), row.error);
    }
}

using zelt_modbus_test::runTool;

TEST(SimulatorPlantNetworkCommand, BadOptionsAreUsageErrors) {
    struct Row {
        QStringList arguments;
        const char* message;
    };
    const Row rows[] = {
        {{"simulate", "--connection-limit", "-1"},
         "zelt-modbus: --connection-limit needs a whole number of at least 0, not \"-1\"\n"},
        {{"simulate", "--connection-limit", "1025"},
         "zelt-modbus simulate: --connection-limit must be at most 1024\n"},
        {{"simulate", "--serial-line", "60001"},
         "zelt-modbus simulate: --serial-line must be at most 60000\n"},
        {{"simulate", "--min-request-gap", "soon"},
         "zelt-modbus: --min-request-gap needs a whole number of at least 0, not \"soon\"\n"},
        {{"simulate", "--busy-every", "0"},
         "zelt-modbus: --busy-every needs a whole number of at least 1, not \"0\"\n"},
        {{"simulate", "--dead-units", "1,300"},
         "zelt-modbus simulate: --dead-units: \"300\" is not a unit id in 0..255\n"},
        {{"simulate", "--dead-unit-reply", "loud"},
         "zelt-modbus simulate: --dead-unit-reply must be silence or gateway_exception, not \"loud\"\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        const auto run = runTool(row.arguments);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_TRUE(run.err.startsWith(QString::fromUtf8(row.message))) << run.err.toStdString();
        EXPECT_TRUE(run.err.contains(QStringLiteral("Usage: zelt-modbus simulate")));
    }
}

TEST(SimulatorPlantNetworkCommand, OptionsTakeEffect) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString map = dir.filePath(QStringLiteral("map.json"));
    // The options override the map's dead units and reply.
    ASSERT_TRUE(zelt_modbus_test::writeFile(
        map, R"({"holding_registers": {"0": [258]}, "dead_units": [4], "dead_unit_reply": "silence",
                 "unit_tables": {"1": {"holding_registers": {"0": [1001]}},
                                 "4": {"holding_registers": {"0": [1004]}}}})"));
    QProcess process;
    zelt_test::startProgram(
        process, zelt_modbus_test::toolPath(),
        {QStringLiteral("simulate"), QStringLiteral("--map"), map, QStringLiteral("--connection-limit"),
         QStringLiteral("1"), QStringLiteral("--serial-line"), QStringLiteral("50"),
         QStringLiteral("--busy-every"), QStringLiteral("3"), QStringLiteral("--dead-units"),
         QStringLiteral("2,3"), QStringLiteral("--dead-unit-reply"), QStringLiteral("gateway_exception")});
    ASSERT_TRUE(process.waitForReadyRead(simulator_test::kAnswerWaitMs))
        << process.readAllStandardError().toStdString();
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^listening on 127\\.0\\.0\\.1:(\\d+)\n$"))
            .match(QString::fromUtf8(process.readLine()));
    ASSERT_TRUE(match.hasMatch());
    const uint16_t port = static_cast<uint16_t>(match.captured(1).toInt());

    RawClient client;
    ASSERT_TRUE(client.connectTo(port));
    EXPECT_EQ(client.exchange(readRequest(1, 4)).toHex(), readAnswerHex(1, 4));
    EXPECT_EQ(client.exchange(readRequest(2, 2)).toHex(), exceptionAnswerHex(2, 2, "830b"));
    // The dead unit's request was not counted by the busy rule: this is the rule's second request.
    EXPECT_EQ(client.exchange(readRequest(3, 1)).toHex(), readAnswerHex(3, 1));
    EXPECT_EQ(client.exchange(readRequest(4, 1)).toHex(), exceptionAnswerHex(4, 1, "8306"));
    RawClient rejected;
    ASSERT_TRUE(rejected.connectTo(port));
    EXPECT_TRUE(rejected.readUntilClosed().isEmpty());
    EXPECT_EQ(rejected.lastError, 0);
    client.close();

    ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
    ASSERT_TRUE(process.waitForFinished(simulator_test::kAnswerWaitMs));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_EQ(QString::fromUtf8(process.readAllStandardOutput()),
              QStringLiteral("stopped after 4 requests\n"));
}

}  // namespace
