// The simulator serving RTU over TCP: RTU request frames in, RTU answer frames out, checked byte for byte
// (CRC included) from a raw socket, with the faults a serial converter's line shows.

#include <gtest/gtest.h>
#include <signal.h>

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <vector>

#include "connection/crc16.h"
#include "tools/sim/sim_fault_names.h"
#include "tools/sim/simulator.h"
#include "tools/simulator_raw_client.h"
#include "tools/simulator_shared_cases.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using modbus_sim::FaultKind;
using modbus_sim::FaultRule;
using modbus_sim::Framing;
using modbus_sim::Simulator;
using simulator_test::adu;
using simulator_test::kAnswerWaitMs;
using simulator_test::kSilenceWaitMs;
using simulator_test::RawClient;
using simulator_test::waitFor;

// An RTU frame: unit id, PDU (given as hex), CRC low byte first. The expected answers below spell their CRC
// out instead, so that a CRC computed wrongly on both sides cannot hide.
QByteArray rtu(uint8_t unit, const QByteArray& pduHex) {
    QByteArray frame(1, static_cast<char>(unit));
    frame.append(QByteArray::fromHex(pduHex));
    const uint16_t crc =
        modbus_crc::crc16(reinterpret_cast<const unsigned char*>(frame.constData()), frame.size());
    frame.append(static_cast<char>(crc & 0xFF));
    frame.append(static_cast<char>(crc >> 8));
    return frame;
}

// Read of holding register 0 by unit 1 (0x0102 in the shared tables) and its answer.
const QByteArray kReadRequestHex = "010300000001840a";
const QByteArray kReadAnswerHex = "01030201023815";

FaultRule rule(FaultKind kind) {
    FaultRule fault;
    fault.kind = kind;
    return fault;
}

// An RTU simulator with different values in every table, units 2 and 3 with tables of their own, and a
// client connected to it.
class SimulatorRtuTest : public ::testing::Test {
protected:
    void SetUp() override {
        simulator.setFraming(Framing::Rtu);
        simulator.setCoils(0, {1, 0, 1, 1, 0, 0, 1, 0, 1, 1});
        simulator.setDiscreteInputs(0, {0, 1, 1, 0, 1, 0, 0, 1});
        simulator.setHoldingRegisters(0, {0x0102, 0x0304, 0x0506});
        simulator.setHoldingRegisters(50, {0x0102});
        simulator.setInputRegisters(0, {0x1234, 0x5678});
        simulator.setHoldingRegisters(2, 0, {0x07D2});
        simulator.setHoldingRegisters(3, 0, {0x0BBB});
        simulator.setReportSlaveId(QByteArray::fromHex("01ff4142"));
        modbus_sim::DeviceIdentification identification;
        identification.objects = {{0, "ACME"}, {1, "X1"}, {2, "1.0"}};
        simulator.setDeviceIdentification(identification);
        ASSERT_TRUE(simulator.start());
        ASSERT_TRUE(client.connectTo(simulator.port()));
    }

    // Sends `request` and reads as many bytes as `answerHex` holds; nothing more may have come.
    QByteArray exchange(const QByteArray& request, const QByteArray& answerHex) {
        if (!client.send(request)) return "send failed";
        const QByteArray answer = client.readExact(QByteArray::fromHex(answerHex).size()).toHex();
        if (!client.readSome(1, 0).isEmpty()) return answer + " and more";
        return answer;
    }

    Simulator simulator;
    RawClient client;
};

TEST_F(SimulatorRtuTest, EveryFunctionIsAnsweredWithAnRtuFrame) {
    EXPECT_EQ(simulator.framing(), Framing::Rtu);
    struct Row {
        const char* name;
        QByteArray request;
        QByteArray answerHex;
    };
    const Row rows[] = {
        {"read coils", rtu(1, "010000000a"), "0101024d03ccad"},
        {"read discrete inputs", rtu(1, "0200000008"), "0102019621e6"},
        {"read holding registers", rtu(1, "0300000003"), "0103060102030405069bb3"},
        {"read input registers", rtu(1, "0400000002"), "0104041234567880b0"},
        {"write single coil", rtu(1, "050014ff00"), "01050014ff00cc3e"},
        {"write single register", rtu(1, "06000aabcd"), "0106000aabcd176d"},
        {"write multiple coils", rtu(1, "0f001e000a02cd01"), "010f001e000ab5ca"},
        {"write multiple registers", rtu(1, "10002800020411112222"), "011000280002c1c0"},
        {"report slave id", rtu(1, "11"), "01110401ff414278ec"},
        {"mask write register", rtu(1, "16003200f20025"), "0116003200f20025afea"},
        {"read/write registers", rtu(1, "1700000002003c0001027777"), "011704010203045828"},
        {"read device identification", rtu(1, "2b0e0100"),
         "012b0e0181000003000441434d45010258310203312e303da7"},
        {"illegal data address", rtu(1, "03ffff0002"), "018302c0f1"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(exchange(row.request, row.answerHex), row.answerHex);
    }
    EXPECT_EQ(simulator.coils(20, 1), std::vector<uint8_t>({1}));
    EXPECT_EQ(simulator.holdingRegisters(10, 1), std::vector<uint16_t>({0xABCD}));
    EXPECT_EQ(simulator.coils(30, 10), std::vector<uint8_t>({1, 0, 1, 1, 0, 0, 1, 1, 1, 0}));
    EXPECT_EQ(simulator.holdingRegisters(40, 2), std::vector<uint16_t>({0x1111, 0x2222}));
    EXPECT_EQ(simulator.holdingRegisters(50, 1), std::vector<uint16_t>({0x0007}));
    EXPECT_EQ(simulator.holdingRegisters(60, 1), std::vector<uint16_t>({0x7777}));
    EXPECT_EQ(simulator.discardedBytes(), 0);

    const std::vector<modbus_sim::RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 13u);
    EXPECT_EQ(log[2].unit, 1);
    EXPECT_EQ(log[2].function, 3);
    EXPECT_EQ(log[2].address, 0);
    EXPECT_EQ(log[2].count, 3);
    EXPECT_EQ(log[2].pdu.toHex(), QByteArray("0300000003"));
    EXPECT_EQ(log[2].transactionId, 0);
    EXPECT_EQ(log[11].function, 0x2b);
    EXPECT_EQ(log[11].pdu.toHex(), QByteArray("2b0e0100"));
}

TEST_F(SimulatorRtuTest, UnitsWithTablesOfTheirOwn) {
    EXPECT_EQ(exchange(rtu(2, "0300000001"), "02030207d27e29"), QByteArray("02030207d27e29"));
    EXPECT_EQ(exchange(rtu(3, "0300000001"), "0303020bbb86c7"), QByteArray("0303020bbb86c7"));
    EXPECT_EQ(exchange(QByteArray::fromHex(kReadRequestHex), kReadAnswerHex), kReadAnswerHex);
    const std::vector<modbus_sim::RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].unit, 2);
    EXPECT_EQ(log[1].unit, 3);
    EXPECT_EQ(log[2].unit, 1);
}

TEST_F(SimulatorRtuTest, UnknownUnitGetsTheGatewayException) {
    simulator.setUnits({1});
    simulator.setUnknownUnitReply(modbus_sim::UnknownUnitReply::GatewayException);
    EXPECT_EQ(exchange(rtu(4, "0300000001"), "04830b10f6"), QByteArray("04830b10f6"));
}

TEST_F(SimulatorRtuTest, BroadcastIsCarriedOutAndNeverAnswered) {
    ASSERT_TRUE(client.send(rtu(0, "0600464242")));
    ASSERT_TRUE(
        waitFor([&] { return simulator.holdingRegisters(70, 1) == std::vector<uint16_t>({0x4242}); }));
    ASSERT_TRUE(client.send(rtu(0, "100050000204abcdef01")));
    ASSERT_TRUE(waitFor([&] {
        return simulator.holdingRegisters(80, 2) == std::vector<uint16_t>({0xABCD, 0xEF01});
    }));
    ASSERT_TRUE(client.send(rtu(0, "0300000001")));
    ASSERT_TRUE(waitFor([&] { return simulator.requestLog().size() == 3; }));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    // A session serves its requests in order, so an answer to any broadcast would come before this one.
    EXPECT_EQ(exchange(rtu(1, "0300460001"), "010302424208d5"), QByteArray("010302424208d5"));

    const std::vector<modbus_sim::RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0].unit, 0);
    EXPECT_EQ(log[0].function, 6);
    EXPECT_EQ(log[0].answeredUs, -1);
    EXPECT_EQ(log[1].function, 16);
    EXPECT_EQ(log[1].answeredUs, -1);
    EXPECT_EQ(log[2].function, 3);
    EXPECT_EQ(log[2].answeredUs, -1);
    EXPECT_GE(log[3].answeredUs, log[3].receivedUs);
}

TEST_F(SimulatorRtuTest, BroadcastUsesUnitZerosOwnTables) {
    simulator.setHoldingRegisters(0, 0, {0});
    ASSERT_TRUE(client.send(rtu(0, "0600464242")));
    ASSERT_TRUE(
        waitFor([&] { return simulator.holdingRegisters(0, 70, 1) == std::vector<uint16_t>({0x4242}); }));
    EXPECT_EQ(simulator.holdingRegisters(70, 1), std::vector<uint16_t>({0}));
}

TEST_F(SimulatorRtuTest, FrameWithABadCrcIsDroppedUnanswered) {
    ASSERT_TRUE(client.send(QByteArray::fromHex("010300000001840b")));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    EXPECT_EQ(exchange(QByteArray::fromHex(kReadRequestHex), kReadAnswerHex), kReadAnswerHex);
    const std::vector<modbus_sim::RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].pdu.toHex(), QByteArray("0300000001"));
    EXPECT_EQ(simulator.discardedBytes(), 8);
}

TEST_F(SimulatorRtuTest, RequestBehindNoiseIsFound) {
    // A converter's heartbeat ahead of the request, in the same segment.
    ASSERT_TRUE(
        client.send(QByteArray::fromHex("6865617274626561740d0a") + QByteArray::fromHex(kReadRequestHex)));
    EXPECT_EQ(client.readExact(7).toHex(), kReadAnswerHex);
    EXPECT_EQ(simulator.discardedBytes(), 11);
    EXPECT_EQ(simulator.requestLog().size(), 1u);
}

TEST_F(SimulatorRtuTest, UnfinishedFrameIsGivenUp) {
    // Unit 1, write multiple registers, cut off before its byte count: the rest never comes.
    ASSERT_TRUE(client.send(QByteArray::fromHex("01100000")));
    ASSERT_TRUE(waitFor([&] { return simulator.discardedBytes() == 4; }));
    EXPECT_EQ(exchange(QByteArray::fromHex(kReadRequestHex), kReadAnswerHex), kReadAnswerHex);
    EXPECT_EQ(simulator.requestLog().size(), 1u);
    simulator.clearRequestLog();
    EXPECT_EQ(simulator.discardedBytes(), 0);
}

TEST_F(SimulatorRtuTest, FaultsAlterTheRtuAnswer) {
    struct Row {
        const char* name;
        FaultRule fault;
        const char* answerHex;
    };
    FaultRule heartbeat = rule(FaultKind::GarbageBefore);
    heartbeat.garbage = QByteArray("heartbeat\r\n");
    FaultRule trailing = rule(FaultKind::TrailingGarbage);
    trailing.garbage = QByteArray::fromHex("0badf00d");
    FaultRule exception = rule(FaultKind::Exception);
    exception.exceptionCode = 4;
    FaultRule split = rule(FaultKind::Split);
    split.chunkBytes = 2;
    const Row rows[] = {
        {"bad crc", rule(FaultKind::BadCrc),
         "0103020102"
         "38ea"},
        {"heartbeat before", heartbeat,
         "6865617274626561740d0a"
         "01030201023815"},
        {"default garbage before", rule(FaultKind::GarbageBefore),
         "deadbeef"
         "01030201023815"},
        {"split", split, "01030201023815"},
        {"byte by byte", rule(FaultKind::ByteByByte), "01030201023815"},
        {"delay", rule(FaultKind::Delay), "01030201023815"},
        {"trailing garbage", trailing,
         "01030201023815"
         "0badf00d"},
        {"header only: the unit id alone", rule(FaultKind::HeaderOnly), "01"},
        {"exception", exception, "01830440f3"},
        {"no transaction id to get wrong", rule(FaultKind::WrongTransactionId), "01030201023815"},
        {"no length to get wrong", rule(FaultKind::WrongLength), "01030201023815"},
        {"no protocol id to get wrong", rule(FaultKind::WrongProtocolId), "01030201023815"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        simulator.clearFaults();
        simulator.addFault(row.fault);
        EXPECT_EQ(exchange(QByteArray::fromHex(kReadRequestHex), row.answerHex), QByteArray(row.answerHex));
    }
}

TEST_F(SimulatorRtuTest, SplitSendsChunksApart) {
    constexpr int kChunkDelayMs = 100;
    FaultRule split = rule(FaultKind::Split);
    split.chunkBytes = 3;
    split.delayMs = kChunkDelayMs;
    simulator.addFault(split);
    // Seven answer bytes in chunks of 3, 3 and 1: two waits between them.
    EXPECT_EQ(exchange(QByteArray::fromHex(kReadRequestHex), kReadAnswerHex), kReadAnswerHex);
    const std::vector<modbus_sim::RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_GE(log[0].answeredUs - log[0].receivedUs, 2 * kChunkDelayMs * 1000);
}

TEST_F(SimulatorRtuTest, DelayHoldsTheAnswerBack) {
    constexpr int kDelayMs = 150;
    FaultRule delay = rule(FaultKind::Delay);
    delay.delayMs = kDelayMs;
    simulator.addFault(delay);
    EXPECT_EQ(exchange(QByteArray::fromHex(kReadRequestHex), kReadAnswerHex), kReadAnswerHex);
    const std::vector<modbus_sim::RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_GE(log[0].answeredUs - log[0].receivedUs, kDelayMs * 1000);
}

TEST_F(SimulatorRtuTest, OtherUnitAnswersFirst) {
    simulator.addFault(rule(FaultKind::OtherUnitFirst));
    // Unit 3 reads from its own tables, then unit 2 answers.
    const QByteArray otherUnitsRead =
        "0303020bbb86c7"
        "02030207d27e29";
    EXPECT_EQ(exchange(rtu(2, "0300000001"), otherUnitsRead), otherUnitsRead);
    // Unit 247 is the last on a line: unit 0 comes before it, with the shared tables.
    const QByteArray lastUnitsRead =
        "000302010205d5"
        "f703020102f000";
    EXPECT_EQ(exchange(rtu(247, "0300000001"), lastUnitsRead), lastUnitsRead);
    // A write is carried out once, by the unit asked; the other unit only echoes it.
    const QByteArray otherUnitsWrite =
        "0306000a1234a55d"
        "0206000a1234a48c";
    EXPECT_EQ(exchange(rtu(2, "06000a1234"), otherUnitsWrite), otherUnitsWrite);
    EXPECT_EQ(simulator.holdingRegisters(2, 10, 1), std::vector<uint16_t>({0x1234}));
    EXPECT_EQ(simulator.holdingRegisters(3, 10, 1), std::vector<uint16_t>({0}));
}

TEST_F(SimulatorRtuTest, ResetSendsHalfTheFrame) {
    simulator.addFault(rule(FaultKind::Reset));
    ASSERT_TRUE(client.send(QByteArray::fromHex(kReadRequestHex)));
    const QByteArray received = client.readUntilClosed();
    EXPECT_EQ(client.lastError, ECONNRESET);
    // The reset may overtake what was sent before it: at most the frame's first half (3 of 7 bytes) arrives.
    EXPECT_LE(received.size(), 3);
    EXPECT_EQ(received.toHex(), kReadAnswerHex.left(received.size() * 2));
}

// The new faults keep their meaning with Modbus TCP framing.
class SimulatorTcpFramingFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        simulator.setHoldingRegisters(0, {0x0102});
        simulator.setHoldingRegisters(2, 0, {0x0202});
        ASSERT_TRUE(simulator.start());
        ASSERT_TRUE(client.connectTo(simulator.port()));
    }

    Simulator simulator;
    RawClient client;
};

TEST_F(SimulatorTcpFramingFaultTest, NewFaultsUnderMbap) {
    struct Row {
        const char* name;
        FaultRule fault;
        const char* answerHex;
    };
    FaultRule split = rule(FaultKind::Split);
    split.chunkBytes = 4;
    const Row rows[] = {
        {"bad crc: no CRC to break", rule(FaultKind::BadCrc), "0007000000050103020102"},
        {"garbage before", rule(FaultKind::GarbageBefore),
         "deadbeef"
         "0007000000050103020102"},
        {"split", split, "0007000000050103020102"},
        {"other unit first", rule(FaultKind::OtherUnitFirst),
         "0007000000050203020202"
         "0007000000050103020102"},
    };
    EXPECT_EQ(simulator.framing(), Framing::Tcp);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        simulator.clearFaults();
        simulator.addFault(row.fault);
        ASSERT_TRUE(client.send(adu(7, 1, "0300000001")));
        const QByteArray expected = QByteArray::fromHex(row.answerHex);
        EXPECT_EQ(client.readExact(expected.size()).toHex(), QByteArray(row.answerHex));
        EXPECT_TRUE(client.readSome(1, 0).isEmpty());
    }
}

// Reads "listening on 127.0.0.1:PORT" from a started simulator program; the port, or 0.
uint16_t listeningPort(QProcess& process) {
    if (!process.waitForReadyRead(kAnswerWaitMs)) return 0;
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^listening on 127\\.0\\.0\\.1:(\\d+)\n$"))
            .match(QString::fromUtf8(process.readLine()));
    return match.hasMatch() ? static_cast<uint16_t>(match.captured(1).toInt()) : 0;
}

TEST(SimulatorRtuCommand, ZeltModbusSimulateServesRtu) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString map = dir.filePath(QStringLiteral("map.json"));
    // The option overrides the map's transport.
    ASSERT_TRUE(
        zelt_modbus_test::writeFile(map, R"({"transport": "tcp", "holding_registers": {"0": [258]}})"));
    QProcess process;
    zelt_test::startProgram(process, zelt_modbus_test::toolPath(),
                            {QStringLiteral("simulate"), QStringLiteral("--map"), map,
                             QStringLiteral("--transport"), QStringLiteral("rtu")});
    const uint16_t port = listeningPort(process);
    ASSERT_NE(port, 0) << process.readAllStandardError().toStdString();

    RawClient client;
    ASSERT_TRUE(client.connectTo(port));
    ASSERT_TRUE(client.send(QByteArray::fromHex(kReadRequestHex)));
    EXPECT_EQ(client.readExact(7).toHex(), kReadAnswerHex);
    client.close();

    ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
    ASSERT_TRUE(process.waitForFinished(kAnswerWaitMs));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_EQ(QString::fromUtf8(process.readAllStandardOutput()),
              QStringLiteral("stopped after 1 requests\n"));
}

TEST(SimulatorRtuCommand, UnknownTransportIsAUsageError) {
    const auto run = zelt_modbus_test::runTool(
        {QStringLiteral("simulate"), QStringLiteral("--transport"), QStringLiteral("serial")});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.startsWith(
        QStringLiteral("zelt-modbus simulate: --transport must be tcp or rtu, not \"serial\"\n")))
        << run.err.toStdString();
    EXPECT_TRUE(run.err.contains(QStringLiteral("Usage: zelt-modbus simulate")));
}

TEST(SimulatorRtuCommand, ModbusSimServesRtu) {
    QProcess process;
    const uint16_t port = simulator_test::startSimulatorProgram(
        process, {QStringLiteral("--transport"), QStringLiteral("rtu")});
    ASSERT_NE(port, 0) << process.readAllStandardError().toStdString();
    RawClient client;
    ASSERT_TRUE(client.connectTo(port));
    // All tables start at 0.
    ASSERT_TRUE(client.send(QByteArray::fromHex(kReadRequestHex)));
    EXPECT_EQ(client.readExact(7).toHex(), QByteArray("0103020000b844"));
    client.close();
    ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
    ASSERT_TRUE(process.waitForFinished(kAnswerWaitMs));
    EXPECT_EQ(process.exitCode(), 0);

    const auto run = zelt_modbus_test::runProgram(simulator_test::kSimulatorProgram,
                                                  {QStringLiteral("--transport"), QStringLiteral("ascii")});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(
        run.err.startsWith(QStringLiteral("modbus-sim: --transport must be tcp or rtu, not \"ascii\"\n")))
        << run.err.toStdString();
}

}  // namespace
