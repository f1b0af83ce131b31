// The simulator over loopback: standard answers, identification, Report Slave ID, unit filtering and
// counters.

#include "tools/sim/simulator.h"

#include <gtest/gtest.h>

#include <vector>

#include "tools/simulator_raw_client.h"

namespace {

using modbus_sim::DeviceIdentification;
using modbus_sim::RequestRecord;
using modbus_sim::Simulator;
using modbus_sim::UnknownUnitReply;
using simulator_test::adu;
using simulator_test::kSilenceWaitMs;
using simulator_test::RawClient;
using simulator_test::waitFor;

constexpr uint16_t kTransactionId = 0x1234;
constexpr uint8_t kUnit = 1;

class SimulatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        QString error;
        ASSERT_TRUE(simulator.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
        ASSERT_TRUE(client.connectTo(simulator.port()));
    }

    // The answer PDU as hex, after checking the answer's MBAP header against the request.
    QByteArray answerPdu(const QByteArray& pduHex, uint8_t unit = kUnit) {
        const QByteArray answer = client.exchange(adu(kTransactionId, unit, pduHex));
        if (answer.size() < simulator_test::kMbapHeaderLength) return "no answer";
        EXPECT_EQ(answer.left(4).toHex(), QByteArray("12340000"));
        EXPECT_EQ(static_cast<uint8_t>(answer.at(6)), unit);
        return answer.mid(simulator_test::kMbapHeaderLength).toHex();
    }

    Simulator simulator;
    RawClient client;
};

struct ExchangeRow {
    const char* name;
    const char* requestPdu;
    const char* answerPdu;
};

TEST_F(SimulatorTest, AnswersStandardRequestsFromTheTables) {
    simulator.setHoldingRegisters(0, {1, 2, 3});
    simulator.setInputRegisters(10, {0x1234, 0xABCD});
    simulator.setCoils(0, {1, 0, 1, 1, 0, 0, 0, 0, 1});
    simulator.setDiscreteInputs(5, {1, 1});
    const ExchangeRow rows[] = {
        {"holding registers", "030000 0003", "0306000100020003"},
        {"input registers", "04000a0002", "04041234abcd"},
        {"coils", "0100000009", "01020d01"},
        {"discrete inputs", "0200050002", "020103"},
        {"too many registers", "030000007e", "8303"},
        {"past the table end", "03ffff0002", "8302"},
        {"unsupported function", "41", "c101"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(answerPdu(QByteArray(row.requestPdu).replace(' ', "")), QByteArray(row.answerPdu));
    }
}

TEST_F(SimulatorTest, WritesChangeTheTables) {
    EXPECT_EQ(answerPdu("0600641234"), QByteArray("0600641234"));
    EXPECT_EQ(simulator.holdingRegisters(100, 1), std::vector<uint16_t>({0x1234}));
    EXPECT_EQ(answerPdu("1000100002040001fffe"), QByteArray("1000100002"));
    EXPECT_EQ(simulator.holdingRegisters(16, 2), std::vector<uint16_t>({1, 0xFFFE}));
    EXPECT_EQ(answerPdu("050003ff00"), QByteArray("050003ff00"));
    EXPECT_EQ(simulator.coils(3, 1), std::vector<uint8_t>({1}));
    EXPECT_EQ(answerPdu("0f0020000a02ff03"), QByteArray("0f0020000a"));
    EXPECT_EQ(simulator.coils(32, 10), std::vector<uint8_t>(10, 1));
}

TEST_F(SimulatorTest, TablesClipAtTheirEnd) {
    simulator.setHoldingRegisters(65534, {7, 8, 9});
    EXPECT_EQ(simulator.holdingRegisters(65534, 5), std::vector<uint16_t>({7, 8}));
    EXPECT_EQ(simulator.holdingRegisters(-1, 2), std::vector<uint16_t>());
    EXPECT_EQ(simulator.inputRegisters(0, 2), std::vector<uint16_t>({0, 0}));
    EXPECT_EQ(simulator.discreteInputs(65535, 1), std::vector<uint8_t>({0}));
}

TEST_F(SimulatorTest, AnswersPipelinedRequestsInOrder) {
    simulator.setHoldingRegisters(0, {0x0A0B});
    ASSERT_TRUE(client.send(adu(1, kUnit, "0300000001") + adu(2, kUnit, "0300000001")));
    EXPECT_EQ(client.readFrame().toHex(), QByteArray("000100000005010302"
                                                     "0a0b"));
    EXPECT_EQ(client.readFrame().toHex(), QByteArray("000200000005010302"
                                                     "0a0b"));
}

TEST_F(SimulatorTest, ServesSeveralClientsAtOnce) {
    simulator.setHoldingRegisters(0, {42});
    RawClient second;
    RawClient third;
    ASSERT_TRUE(second.connectTo(simulator.port()));
    ASSERT_TRUE(third.connectTo(simulator.port()));
    ASSERT_TRUE(second.send(adu(2, kUnit, "0300000001")));
    ASSERT_TRUE(third.send(adu(3, kUnit, "0300000001")));
    ASSERT_TRUE(client.send(adu(1, kUnit, "0300000001")));
    EXPECT_EQ(client.readFrame().toHex(), QByteArray("000100000005010302002a"));
    EXPECT_EQ(third.readFrame().toHex(), QByteArray("000300000005010302002a"));
    EXPECT_EQ(second.readFrame().toHex(), QByteArray("000200000005010302002a"));
    EXPECT_TRUE(waitFor([&] { return simulator.openConnections() == 3; }));
    EXPECT_EQ(simulator.acceptedConnections(), 3);
}

TEST_F(SimulatorTest, AnswersUnitZeroWhenEveryUnitIsServed) {
    EXPECT_EQ(answerPdu("0300000001", 0), QByteArray("03020000"));
    EXPECT_EQ(answerPdu("0300000001", 247), QByteArray("03020000"));
}

DeviceIdentification acmeIdentification() {
    DeviceIdentification identification;
    identification.objects = {{0x00, "ACME"}, {0x01, "X-100"}, {0x02, "1.0"}, {0x05, "Model"}};
    return identification;
}

TEST_F(SimulatorTest, ReadsDeviceIdentification) {
    DeviceIdentification identification = acmeIdentification();
    simulator.setDeviceIdentification(identification);
    const ExchangeRow rows[] = {
        {"basic", "2b0e0100",
         "2b0e0182000003"
         "000441434d45"
         "0105582d313030"
         "0203312e30"},
        {"regular", "2b0e0200",
         "2b0e0282000004"
         "000441434d45"
         "0105582d313030"
         "0203312e30"
         "05054d6f64656c"},
        {"regular from object 2", "2b0e0202",
         "2b0e0282000002"
         "0203312e30"
         "05054d6f64656c"},
        {"absent start object restarts at 0", "2b0e0203",
         "2b0e0282000004"
         "000441434d45"
         "0105582d313030"
         "0203312e30"
         "05054d6f64656c"},
        {"start object outside the category restarts at 0", "2b0e0105",
         "2b0e0182000003"
         "000441434d45"
         "0105582d313030"
         "0203312e30"},
        {"specific object", "2b0e0405",
         "2b0e0482000001"
         "05054d6f64656c"},
        {"specific object absent", "2b0e0403", "ab02"},
        {"read code 0", "2b0e0000", "ab03"},
        {"read code 5", "2b0e0500", "ab03"},
        {"other MEI type", "2b0d0100", "ab01"},
        {"short request", "2b0e01", "ab03"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(answerPdu(row.requestPdu), QByteArray(row.answerPdu));
    }
}

TEST_F(SimulatorTest, ExtendedObjectsAndConformityLevel) {
    DeviceIdentification identification = acmeIdentification();
    identification.objects[0x80] = QByteArray::fromHex("0102");
    simulator.setDeviceIdentification(identification);
    EXPECT_EQ(answerPdu("2b0e0380"), QByteArray("2b0e0383000001"
                                                "80020102"));
    EXPECT_EQ(answerPdu("2b0e0200"), QByteArray("2b0e0283000004"
                                                "000441434d45"
                                                "0105582d313030"
                                                "0203312e30"
                                                "05054d6f64656c"));

    identification.objects = {{0x00, "A"}};
    simulator.setDeviceIdentification(identification);
    EXPECT_EQ(answerPdu("2b0e0100"), QByteArray("2b0e0181000001"
                                                "000141"));

    identification.conformityLevel = 0x01;
    simulator.setDeviceIdentification(identification);
    EXPECT_EQ(answerPdu("2b0e0100"), QByteArray("2b0e0101000001"
                                                "000141"));

    identification.enabled = false;
    simulator.setDeviceIdentification(identification);
    EXPECT_EQ(answerPdu("2b0e0100"), QByteArray("ab01"));
}

TEST_F(SimulatorTest, PagesIdentificationWithMoreFollows) {
    DeviceIdentification identification = acmeIdentification();
    identification.objectsPerResponse = 2;
    simulator.setDeviceIdentification(identification);
    EXPECT_EQ(answerPdu("2b0e0200"), QByteArray("2b0e0282ff0202"
                                                "000441434d45"
                                                "0105582d313030"));
    EXPECT_EQ(answerPdu("2b0e0202"), QByteArray("2b0e0282000002"
                                                "0203312e30"
                                                "05054d6f64656c"));
    identification.objectsPerResponse = 1;
    simulator.setDeviceIdentification(identification);
    EXPECT_EQ(answerPdu("2b0e0101"), QByteArray("2b0e0182ff0201"
                                                "0105582d313030"));
    EXPECT_EQ(answerPdu("2b0e0102"), QByteArray("2b0e0182000001"
                                                "0203312e30"));
}

TEST_F(SimulatorTest, PagesIdentificationThatDoesNotFitOneAnswer) {
    DeviceIdentification identification;
    for (int id = 0; id < 4; ++id) identification.objects[id] = QByteArray(100, static_cast<char>('a' + id));
    simulator.setDeviceIdentification(identification);
    const QByteArray first = answerPdu("2b0e0200");
    EXPECT_EQ(first.left(14), QByteArray("2b0e0282ff0202"));
    EXPECT_EQ(first.size() / 2, 7 + 2 * 102);
    const QByteArray second = answerPdu("2b0e0202");
    EXPECT_EQ(second.left(14), QByteArray("2b0e0282000002"));
    EXPECT_EQ(second.mid(14, 4), QByteArray("0264"));
    EXPECT_EQ(second.mid(14 + 2 * 102, 4), QByteArray("0364"));
}

TEST_F(SimulatorTest, ReportsSlaveId) {
    EXPECT_EQ(answerPdu("11"), QByteArray("9101"));
    simulator.setReportSlaveId(QByteArray::fromHex("01ff4142"));
    EXPECT_EQ(answerPdu("11"), QByteArray("110401ff4142"));
    simulator.clearReportSlaveId();
    EXPECT_EQ(answerPdu("11"), QByteArray("9101"));
}

TEST_F(SimulatorTest, UnitsNotServedGetSilence) {
    simulator.setUnits({1, 3});
    ASSERT_TRUE(client.send(adu(7, 2, "0300000001")));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    EXPECT_EQ(answerPdu("0300000001", 3), QByteArray("03020000"));
    EXPECT_EQ(simulator.requestCount(3), 2);
}

TEST_F(SimulatorTest, UnitsNotServedGetGatewayException) {
    simulator.setUnits({1});
    simulator.setUnknownUnitReply(UnknownUnitReply::GatewayException);
    EXPECT_EQ(answerPdu("0300000001", 9), QByteArray("830b"));
    EXPECT_EQ(answerPdu("2b0e0100", 9), QByteArray("ab0b"));
    EXPECT_EQ(answerPdu("0300000001", 1), QByteArray("03020000"));
}

TEST_F(SimulatorTest, LogsEveryRequest) {
    simulator.setUnits({1});
    answerPdu("0300100004");
    answerPdu("0600200005");
    answerPdu("2b0e0100");
    answerPdu("0f0030000a02ff03");
    ASSERT_TRUE(client.send(adu(9, 5, "0400000002")));
    ASSERT_TRUE(waitFor([&] { return simulator.totalRequests() == 5; }));

    struct Expected {
        int unit;
        int function;
        int address;
        int count;
        const char* pdu;
    };
    const Expected expected[] = {
        {1, 3, 0x10, 4, "0300100004"},         {1, 6, 0x20, -1, "0600200005"}, {1, 0x2B, -1, -1, "2b0e0100"},
        {1, 15, 0x30, 10, "0f0030000a02ff03"}, {5, 4, 0, 2, "0400000002"},
    };
    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), std::size(expected));
    for (size_t i = 0; i < log.size(); ++i) {
        SCOPED_TRACE(expected[i].pdu);
        EXPECT_EQ(log[i].unit, expected[i].unit);
        EXPECT_EQ(log[i].function, expected[i].function);
        EXPECT_EQ(log[i].address, expected[i].address);
        EXPECT_EQ(log[i].count, expected[i].count);
        EXPECT_EQ(log[i].pdu.toHex(), QByteArray(expected[i].pdu));
    }
    EXPECT_EQ(simulator.requestCount(3), 1);
    EXPECT_EQ(simulator.requestCount(4), 1);
    EXPECT_EQ(simulator.requestCount(0x2B), 1);
    EXPECT_EQ(simulator.requestCount(16), 0);

    simulator.clearRequestLog();
    EXPECT_TRUE(simulator.requestLog().empty());
    EXPECT_EQ(simulator.totalRequests(), 0);
    EXPECT_EQ(simulator.requestCount(3), 0);
}

TEST_F(SimulatorTest, CountsConnections) {
    ASSERT_TRUE(waitFor([&] { return simulator.openConnections() == 1; }));
    EXPECT_EQ(simulator.acceptedConnections(), 1);
    EXPECT_EQ(simulator.closedConnections(), 0);
    client.close();
    ASSERT_TRUE(waitFor([&] { return simulator.closedConnections() == 1; }));
    EXPECT_EQ(simulator.openConnections(), 0);
    ASSERT_TRUE(client.connectTo(simulator.port()));
    ASSERT_TRUE(waitFor([&] { return simulator.acceptedConnections() == 2; }));
    EXPECT_EQ(simulator.openConnections(), 1);
}

TEST_F(SimulatorTest, ClosesAConnectionWhoseFrameHasNoUnitId) {
    ASSERT_TRUE(client.send(QByteArray::fromHex("00010000000001")));
    EXPECT_TRUE(client.readUntilClosed().isEmpty());
    EXPECT_EQ(client.lastError, 0);
    EXPECT_TRUE(waitFor([&] { return simulator.closedConnections() == 1; }));
}

TEST_F(SimulatorTest, StopClosesClientsAndListener) {
    ASSERT_TRUE(waitFor([&] { return simulator.openConnections() == 1; }));
    const uint16_t port = simulator.port();
    EXPECT_NE(port, 0);
    EXPECT_TRUE(simulator.running());
    simulator.stop();
    EXPECT_FALSE(simulator.running());
    EXPECT_TRUE(client.readUntilClosed().isEmpty());
    EXPECT_EQ(client.lastError, 0);
    EXPECT_EQ(simulator.closedConnections(), 1);
    RawClient late;
    EXPECT_FALSE(late.connectTo(port));
    EXPECT_EQ(late.lastError, ECONNREFUSED);
    simulator.stop();  // a second stop does nothing
}

TEST(SimulatorLifecycle, RestartsAfterStop) {
    Simulator simulator;
    simulator.setHoldingRegisters(0, {5});
    ASSERT_TRUE(simulator.start());
    simulator.stop();
    ASSERT_TRUE(simulator.start());
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(adu(1, 1, "0300000001")).toHex(), QByteArray("0001000000050103020005"));
}

TEST(SimulatorLifecycle, StartFailsWithAReason) {
    Simulator first;
    ASSERT_TRUE(first.start());
    Simulator second;
    QString error;
    EXPECT_FALSE(second.start(QStringLiteral("127.0.0.1"), first.port(), &error));
    EXPECT_EQ(error, QStringLiteral("bind 127.0.0.1:%1: Address already in use").arg(first.port()));
    EXPECT_FALSE(second.start(QStringLiteral("localhost"), 0, &error));
    EXPECT_EQ(error, QStringLiteral("not an IPv4 address: localhost"));
    EXPECT_FALSE(first.start(QStringLiteral("127.0.0.1"), 0, &error));
    EXPECT_EQ(error, QStringLiteral("already running on 127.0.0.1:%1").arg(first.port()));
    EXPECT_TRUE(first.running());
    EXPECT_FALSE(second.running());
}

}  // namespace
