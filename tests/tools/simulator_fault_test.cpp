// Injected faults of the simulator, seen from a raw socket.

#include <gtest/gtest.h>

#include <vector>

#include "tools/sim/simulator.h"
#include "tools/simulator_raw_client.h"
#include "tools/simulator_shared_cases.h"

namespace {

using modbus_sim::FaultKind;
using modbus_sim::FaultRule;
using modbus_sim::Simulator;
using simulator_test::adu;
using simulator_test::kSilenceWaitMs;
using simulator_test::RawClient;
using simulator_test::waitFor;

// Read of one holding register at 0 (value 0x0102), transaction 0x0007, unit 1, and its normal answer.
const QByteArray kReadRequest = adu(7, 1, "0300000001");
const QByteArray kReadAnswerHex = "0007000000050103020102";

FaultRule rule(FaultKind kind) {
    FaultRule fault;
    fault.kind = kind;
    return fault;
}

class SimulatorFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        simulator.setHoldingRegisters(0, {0x0102});
        ASSERT_TRUE(simulator.start());
        ASSERT_TRUE(client.connectTo(simulator.port()));
    }

    Simulator simulator;
    RawClient client;
};

TEST_F(SimulatorFaultTest, AlteredAnswers) {
    struct Row {
        const char* name;
        FaultRule fault;
        const char* answerHex;
    };
    FaultRule exception = rule(FaultKind::Exception);
    exception.exceptionCode = 4;
    FaultRule wrongLength = rule(FaultKind::WrongLength);
    wrongLength.lengthField = 200;
    FaultRule garbage = rule(FaultKind::TrailingGarbage);
    garbage.garbage = QByteArray::fromHex("0badf00d");
    const Row rows[] = {
        {"exception", exception,
         "00070000000301"
         "8304"},
        {"wrong transaction id", rule(FaultKind::WrongTransactionId), "0008000000050103020102"},
        {"wrong length", wrongLength,
         "00070000"
         "00c8"
         "0103020102"},
        {"wrong protocol id", rule(FaultKind::WrongProtocolId),
         "0007"
         "0001"
         "00050103020102"},
        {"trailing garbage", garbage,
         "0007000000050103020102"
         "0badf00d"},
        {"header only", rule(FaultKind::HeaderOnly), "00070000000101"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        simulator.clearFaults();
        simulator.addFault(row.fault);
        ASSERT_TRUE(client.send(kReadRequest));
        const QByteArray expected = QByteArray::fromHex(row.answerHex);
        EXPECT_EQ(client.readExact(expected.size()).toHex(), QByteArray(row.answerHex));
        EXPECT_TRUE(client.readSome(1, 0).isEmpty());  // nothing more than expected has arrived
    }
}

TEST_F(SimulatorFaultTest, ExceptionOfAnyCodeForAnyFunction) {
    const int codes[] = {1, 2, 3, 4, 6, 10, 11, 0x7F};
    for (int code : codes) {
        SCOPED_TRACE(code);
        simulator.clearFaults();
        FaultRule fault = rule(FaultKind::Exception);
        fault.function = 0x2B;
        fault.exceptionCode = code;
        simulator.addFault(fault);
        const QByteArray answer = client.exchange(adu(1, 1, "2b0e0100"));
        EXPECT_EQ(answer.mid(7).toHex(),
                  QStringLiteral("ab%1").arg(code, 2, 16, QLatin1Char('0')).toLatin1());
    }
    // Other functions are not affected by a rule for function 43.
    EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray(kReadAnswerHex));
}

TEST_F(SimulatorFaultTest, ExceptionLeavesTheTablesAlone) {
    FaultRule fault = rule(FaultKind::Exception);
    fault.function = 6;
    fault.exceptionCode = 2;
    simulator.addFault(fault);
    EXPECT_EQ(client.exchange(adu(1, 1, "0600000005")).toHex(), QByteArray("0001000000030186"
                                                                           "02"));
    EXPECT_EQ(simulator.holdingRegisters(0, 1), std::vector<uint16_t>({0x0102}));
}

TEST_F(SimulatorFaultTest, SelectorsNarrowTheRule) {
    FaultRule fault = rule(FaultKind::Exception);
    fault.unit = 2;
    fault.function = 3;
    fault.address = 10;
    fault.exceptionCode = 2;
    simulator.addFault(fault);
    for (const simulator_test::SelectorCase& row : simulator_test::kSelectorCases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(client.exchange(adu(1, row.unit, row.pdu)).mid(7).toHex(), QByteArray(row.answerPdu));
    }
}

TEST_F(SimulatorFaultTest, FirstMatchingRuleDecides) {
    FaultRule first = rule(FaultKind::Exception);
    first.exceptionCode = 4;
    FaultRule second = rule(FaultKind::Exception);
    second.exceptionCode = 6;
    simulator.addFault(first);
    simulator.addFault(second);
    EXPECT_EQ(client.exchange(kReadRequest).mid(7).toHex(), QByteArray("8304"));
    simulator.clearFaults();
    EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray(kReadAnswerHex));
}

TEST_F(SimulatorFaultTest, SilenceNeverAnswers) {
    FaultRule fault = rule(FaultKind::Silence);
    fault.function = 3;
    simulator.addFault(fault);
    ASSERT_TRUE(client.send(kReadRequest));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    EXPECT_EQ(client.lastError, ETIMEDOUT);
    EXPECT_EQ(client.exchange(adu(8, 1, "0400000001")).toHex(), QByteArray("0008000000050104020000"));
    EXPECT_EQ(simulator.requestCount(3), 1);
}

TEST_F(SimulatorFaultTest, DelayHoldsTheAnswerBack) {
    FaultRule fault = rule(FaultKind::Delay);
    fault.delayMs = 400;
    simulator.addFault(fault);
    ASSERT_TRUE(client.send(kReadRequest));
    EXPECT_TRUE(client.readSome(1, 100).isEmpty());
    EXPECT_EQ(client.readFrame().toHex(), QByteArray(kReadAnswerHex));
}

TEST_F(SimulatorFaultTest, StopDoesNotWaitForADelay) {
    FaultRule fault = rule(FaultKind::Delay);
    fault.delayMs = 600000;
    simulator.addFault(fault);
    ASSERT_TRUE(client.send(kReadRequest));
    ASSERT_TRUE(waitFor([&] { return simulator.totalRequests() == 1; }));
    simulator.stop();  // a hang here would end the test by its time limit
    EXPECT_TRUE(client.readUntilClosed().isEmpty());
}

TEST_F(SimulatorFaultTest, ByteByByte) {
    FaultRule fault = rule(FaultKind::ByteByByte);
    fault.delayMs = 50;
    simulator.addFault(fault);
    const auto sent = std::chrono::steady_clock::now();
    ASSERT_TRUE(client.send(kReadRequest));
    // Eleven bytes 50 ms apart: the last one cannot arrive before ten pauses have passed, however late the
    // reader wakes, while an answer sent in one piece would be there at once.
    EXPECT_EQ(client.readFrame().toHex(), QByteArray(kReadAnswerHex));
    EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(10 * 50));
}

TEST_F(SimulatorFaultTest, CloseAfterRequestsPerConnection) {
    FaultRule fault = rule(FaultKind::CloseAfter);
    fault.afterRequests = 2;
    simulator.addFault(fault);
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray(kReadAnswerHex));
        EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray(kReadAnswerHex));
        ASSERT_TRUE(client.send(kReadRequest));
        EXPECT_TRUE(client.readUntilClosed().isEmpty());
        EXPECT_EQ(client.lastError, 0);
        EXPECT_TRUE(waitFor([&] { return simulator.closedConnections() == round + 1; }));
        ASSERT_TRUE(client.connectTo(simulator.port()));
    }
    EXPECT_EQ(simulator.requestCount(3), 6);
}

TEST_F(SimulatorFaultTest, CloseAfterLetsLaterRulesApply) {
    FaultRule close = rule(FaultKind::CloseAfter);
    close.afterRequests = 1;
    FaultRule wrongId = rule(FaultKind::WrongTransactionId);
    simulator.addFault(close);
    simulator.addFault(wrongId);
    EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray("0008000000050103020102"));
    ASSERT_TRUE(client.send(kReadRequest));
    EXPECT_TRUE(client.readUntilClosed().isEmpty());
}

TEST_F(SimulatorFaultTest, ResetMidFrame) {
    simulator.addFault(rule(FaultKind::Reset));
    ASSERT_TRUE(client.send(kReadRequest));
    const QByteArray received = client.readUntilClosed();
    EXPECT_EQ(client.lastError, ECONNRESET);
    // Whatever came before the reset is the start of the answer, at most its first half.
    EXPECT_LE(received.size(), 5);
    EXPECT_EQ(received.toHex(), QByteArray(kReadAnswerHex).left(received.size() * 2));
    EXPECT_TRUE(waitFor([&] { return simulator.closedConnections() == 1; }));
    EXPECT_EQ(simulator.openConnections(), 0);
}

TEST_F(SimulatorFaultTest, FaultsSkipUnitsNotServed) {
    simulator.setUnits({1});
    simulator.setUnknownUnitReply(modbus_sim::UnknownUnitReply::GatewayException);
    simulator.addFault(rule(FaultKind::HeaderOnly));
    EXPECT_EQ(client.exchange(adu(3, 2, "0300000001")).toHex(), QByteArray("00030000000302"
                                                                           "830b"));
    EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray("00070000000101"));
}

}  // namespace
