// The simulator's JSON map file: a good file fills every table, setting and fault, a bad one names the key.

#include <gtest/gtest.h>
#include <signal.h>

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <vector>

#include "tools/sim/sim_fault_names.h"
#include "tools/sim/simulator.h"
#include "tools/simulator_raw_client.h"
#include "tools/simulator_shared_cases.h"

namespace {

using modbus_sim::FaultRule;
using modbus_sim::Simulator;
using simulator_test::adu;
using simulator_test::kAnswerWaitMs;
using simulator_test::kSilenceWaitMs;
using simulator_test::RawClient;
using simulator_test::waitFor;

QString writeFile(const QTemporaryDir& dir, const QByteArray& contents) {
    const QString path = dir.filePath(QStringLiteral("map.json"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) return {};
    file.write(contents);
    return path;
}

const char kGoodMap[] = R"({
  "units": [1, 2],
  "unknown_unit_reply": "gateway_exception",
  "holding_registers": {"0": [1, 2, 3], "100": [65535], "0x10": 7},
  "input_registers": {"5": [4660]},
  "coils": {"0": [1, 0, 1]},
  "discrete_inputs": {"3": [true, false, 1]},
  "identification": {"objects": {"0": "ACME", "1": "X-100", "2": "1.0", "0x80": "hex:0102"},
                     "objects_per_response": 2},
  "report_slave_id": "hex:01FF4142"
})";

TEST(SimulatorMapFile, GoodFileSetsEverything) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    Simulator simulator;
    QString error;
    ASSERT_TRUE(simulator.loadMapFile(writeFile(dir, kGoodMap), &error)) << error.toStdString();
    EXPECT_EQ(simulator.holdingRegisters(0, 3), std::vector<uint16_t>({1, 2, 3}));
    EXPECT_EQ(simulator.holdingRegisters(100, 1), std::vector<uint16_t>({65535}));
    EXPECT_EQ(simulator.holdingRegisters(16, 1), std::vector<uint16_t>({7}));
    EXPECT_EQ(simulator.inputRegisters(5, 1), std::vector<uint16_t>({0x1234}));
    EXPECT_EQ(simulator.coils(0, 3), std::vector<uint8_t>({1, 0, 1}));
    EXPECT_EQ(simulator.discreteInputs(3, 3), std::vector<uint8_t>({1, 0, 1}));

    ASSERT_TRUE(simulator.start());
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(adu(1, 2, "11")).mid(7).toHex(), QByteArray("110401ff4142"));
    EXPECT_EQ(client.exchange(adu(2, 3, "0300000001")).mid(7).toHex(), QByteArray("830b"));
    EXPECT_EQ(client.exchange(adu(3, 1, "2b0e0300")).mid(7).toHex(), QByteArray("2b0e0383ff0202"
                                                                                "000441434d45"
                                                                                "0105582d313030"));
    EXPECT_EQ(client.exchange(adu(4, 1, "2b0e0302")).mid(7).toHex(), QByteArray("2b0e0383000002"
                                                                                "0203312e30"
                                                                                "80020102"));
}

TEST(SimulatorMapFile, TextReportSlaveIdAndSilentUnits) {
    Simulator simulator;
    QString error;
    ASSERT_TRUE(simulator.loadMapJson(R"({"units": [7], "unknown_unit_reply": "silence",
                                          "report_slave_id": "AB"})",
                                      &error))
        << error.toStdString();
    ASSERT_TRUE(simulator.start());
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(adu(1, 7, "11")).mid(7).toHex(), QByteArray("11024142"));
    ASSERT_TRUE(client.send(adu(2, 1, "11")));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
}

TEST(SimulatorMapFile, BadMapsNameTheKey) {
    struct Row {
        const char* name;
        const char* json;
        const char* error;
    };
    const Row rows[] = {
        {"not JSON", "{", "JSON error at offset 1: unterminated object"},
        {"not an object", "[1]", "the map must be a JSON object"},
        {"unknown key", R"({"holding_register": {}})", "key \"holding_register\": unknown key"},
        {"register too large", R"({"holding_registers": {"100": [1, 70000]}})",
         "key \"holding_registers.100[1]\": value 70000 is out of range 0..65535"},
        {"negative register", R"({"input_registers": {"0": [-1]}})",
         "key \"input_registers.0[0]\": value -1 is out of range 0..65535"},
        {"fractional register", R"({"input_registers": {"0": [1.5]}})",
         "key \"input_registers.0[0]\": expected a whole number"},
        {"bad address", R"({"holding_registers": {"abc": [1]}})",
         "key \"holding_registers.abc\": \"abc\" is not a number in 0..65535"},
        {"address past the table", R"({"coils": {"65535": [1, 1]}})",
         "key \"coils.65535\": 2 values do not fit below address 65536"},
        {"coil not a bit", R"({"coils": {"0": [2]}})", "key \"coils.0[0]\": value 2 is out of range 0..1"},
        {"table not an object", R"({"discrete_inputs": [1]})",
         "key \"discrete_inputs\": expected an object of address: [values]"},
        {"units not an array", R"({"units": 1})", "key \"units\": expected an array of unit ids"},
        {"unit too large", R"({"units": [1, 256]})", "key \"units[1]\": value 256 is out of range 0..255"},
        {"unknown unit reply", R"({"unknown_unit_reply": "loud"})",
         "key \"unknown_unit_reply\": expected \"silence\" or \"gateway_exception\""},
        {"object id too large", R"({"identification": {"objects": {"300": "x"}}})",
         "key \"identification.objects.300\": \"300\" is not a number in 0..255"},
        {"object value not text", R"({"identification": {"objects": {"0": 5}}})",
         "key \"identification.objects.0\": expected a text or \"hex:...\""},
        {"unknown identification key", R"({"identification": {"object": {}}})",
         "key \"identification.object\": unknown key"},
        {"objects per response", R"({"identification": {"objects_per_response": -1}})",
         "key \"identification.objects_per_response\": value -1 is out of range 0..253"},
        {"bad hex", R"({"report_slave_id": "hex:0g"})",
         "key \"report_slave_id\": \"hex:0g\" is not valid hexadecimal"},
        {"odd hex", R"({"report_slave_id": "hex:012"})",
         "key \"report_slave_id\": \"hex:012\" is not valid hexadecimal"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Simulator simulator;
        QString error;
        EXPECT_FALSE(simulator.loadMapJson(row.json, &error));
        EXPECT_EQ(error.toStdString(), row.error);
    }
}

TEST(SimulatorMapFile, BadFileNamesTheFileAndChangesNothing) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    Simulator simulator;
    simulator.setHoldingRegisters(0, {9});
    const QString path = writeFile(dir, R"({"holding_registers": {"0": [1]}, "coils": {"0": [5]}})");
    QString error;
    EXPECT_FALSE(simulator.loadMapFile(path, &error));
    EXPECT_EQ(error, path + QStringLiteral(": key \"coils.0[0]\": value 5 is out of range 0..1"));
    EXPECT_EQ(simulator.holdingRegisters(0, 1), std::vector<uint16_t>({9}));
}

TEST(SimulatorMapFile, MissingFile) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("absent.json"));
    Simulator simulator;
    QString error;
    EXPECT_FALSE(simulator.loadMapFile(path, &error));
    EXPECT_EQ(error, path + QStringLiteral(": No such file or directory"));
}

// Every field of a rule on one line, so that a table row states the whole rule.
std::string describe(const FaultRule& rule) {
    return QStringLiteral(
               "%1 unit=%2 function=%3 address=%4 exception_code=%5 delay_ms=%6 after_requests=%7 "
               "length_field=%8 garbage=%9")
        .arg(QLatin1String(modbus_sim::faultKindName(rule.kind)))
        .arg(rule.unit)
        .arg(rule.function)
        .arg(rule.address)
        .arg(rule.exceptionCode)
        .arg(rule.delayMs)
        .arg(rule.afterRequests)
        .arg(rule.lengthField)
        .arg(QString::fromLatin1(rule.garbage.toHex()))
        .toStdString();
}

TEST(SimulatorMapFileFaults, EveryKindBecomesItsRule) {
    struct Row {
        const char* fault;
        const char* rule;
    };
    const Row rows[] = {
        {R"({"kind": "exception"})",
         "exception unit=-1 function=-1 address=-1 exception_code=1 delay_ms=0 after_requests=0 "
         "length_field=0 garbage=deadbeef"},
        {R"({"kind": "exception", "unit": 3, "function": 3, "address": 5, "exception_code": 255})",
         "exception unit=3 function=3 address=5 exception_code=255 delay_ms=0 after_requests=0 "
         "length_field=0 garbage=deadbeef"},
        {R"({"kind": "delay", "delay_ms": 60000})",
         "delay unit=-1 function=-1 address=-1 exception_code=1 delay_ms=60000 after_requests=0 "
         "length_field=0 garbage=deadbeef"},
        {R"({"kind": "silence", "unit": 0, "function": 0, "address": 65535})",
         "silence unit=0 function=0 address=65535 exception_code=1 delay_ms=0 after_requests=0 "
         "length_field=0 garbage=deadbeef"},
        {R"({"kind": "close_after", "after_requests": 3})",
         "close_after unit=-1 function=-1 address=-1 exception_code=1 delay_ms=0 after_requests=3 "
         "length_field=0 garbage=deadbeef"},
        {R"({"kind": "reset", "function": 16})",
         "reset unit=-1 function=16 address=-1 exception_code=1 delay_ms=0 after_requests=0 "
         "length_field=0 garbage=deadbeef"},
        {R"({"kind": "byte_by_byte", "delay_ms": 20})",
         "byte_by_byte unit=-1 function=-1 address=-1 exception_code=1 delay_ms=20 after_requests=0 "
         "length_field=0 garbage=deadbeef"},
        {R"({"kind": "wrong_transaction_id", "unit": 255})",
         "wrong_transaction_id unit=255 function=-1 address=-1 exception_code=1 delay_ms=0 after_requests=0 "
         "length_field=0 garbage=deadbeef"},
        {R"({"kind": "wrong_length", "length_field": 65535})",
         "wrong_length unit=-1 function=-1 address=-1 exception_code=1 delay_ms=0 after_requests=0 "
         "length_field=65535 garbage=deadbeef"},
        {R"({"kind": "wrong_protocol_id"})",
         "wrong_protocol_id unit=-1 function=-1 address=-1 exception_code=1 delay_ms=0 after_requests=0 "
         "length_field=0 garbage=deadbeef"},
        {R"({"kind": "trailing_garbage", "garbage": "hex:01 02 0a"})",
         "trailing_garbage unit=-1 function=-1 address=-1 exception_code=1 delay_ms=0 after_requests=0 "
         "length_field=0 garbage=01020a"},
        {R"({"kind": "trailing_garbage", "garbage": "AB"})",
         "trailing_garbage unit=-1 function=-1 address=-1 exception_code=1 delay_ms=0 after_requests=0 "
         "length_field=0 garbage=4142"},
        {R"({"kind": "header_only", "address": 0})",
         "header_only unit=-1 function=-1 address=0 exception_code=1 delay_ms=0 after_requests=0 "
         "length_field=0 garbage=deadbeef"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        std::vector<FaultRule> faults;
        QString error;
        ASSERT_TRUE(
            modbus_sim::readMapFaults(QByteArray(R"({"faults": [)") + row.fault + "]}", &faults, &error))
            << error.toStdString();
        ASSERT_EQ(faults.size(), 1u);
        EXPECT_EQ(describe(faults[0]), row.rule);
    }
}

TEST(SimulatorMapFileFaults, FileOrderIsKept) {
    std::vector<FaultRule> faults;
    QString error;
    ASSERT_TRUE(modbus_sim::readMapFaults(R"({"faults": [{"kind": "silence", "unit": 2},
                                                         {"kind": "exception", "exception_code": 4},
                                                         {"kind": "exception", "exception_code": 6}]})",
                                          &faults, &error))
        << error.toStdString();
    ASSERT_EQ(faults.size(), 3u);
    EXPECT_EQ(faults[0].kind, modbus_sim::FaultKind::Silence);
    EXPECT_EQ(faults[1].exceptionCode, 4);
    EXPECT_EQ(faults[2].exceptionCode, 6);

    EXPECT_TRUE(modbus_sim::readMapFaults(R"({"units": [1]})", &faults, &error));
    EXPECT_TRUE(faults.empty());
}

// Read of one holding register at 0 (value 0x0102), transaction 0x0007, unit 1, and its normal answer.
const QByteArray kReadRequest = adu(7, 1, "0300000001");
const QByteArray kReadAnswerHex = "0007000000050103020102";

// A started simulator holding 0x0102 at holding register 0, with the given faults from its map, and a client
// connected to it.
class SimulatorMapFaultTest : public ::testing::Test {
protected:
    void load(const QByteArray& faults) {
        QString error;
        ASSERT_TRUE(
            simulator.loadMapJson(R"({"holding_registers": {"0": [258]}, "faults": )" + faults + "}", &error))
            << error.toStdString();
        ASSERT_TRUE(simulator.start());
        ASSERT_TRUE(client.connectTo(simulator.port()));
    }

    Simulator simulator;
    RawClient client;
};

TEST(SimulatorMapFileFaults, AlteredAnswers) {
    struct Row {
        const char* fault;
        const char* answerHex;
    };
    const Row rows[] = {
        {R"({"kind": "exception", "exception_code": 4})",
         "00070000000301"
         "8304"},
        {R"({"kind": "exception"})",
         "00070000000301"
         "8301"},
        {R"({"kind": "wrong_transaction_id"})", "0008000000050103020102"},
        {R"({"kind": "wrong_length", "length_field": 200})",
         "00070000"
         "00c8"
         "0103020102"},
        {R"({"kind": "wrong_protocol_id"})",
         "0007"
         "0001"
         "00050103020102"},
        {R"({"kind": "trailing_garbage", "garbage": "hex:0badf00d"})",
         "0007000000050103020102"
         "0badf00d"},
        {R"({"kind": "trailing_garbage"})",
         "0007000000050103020102"
         "deadbeef"},
        {R"({"kind": "header_only"})", "00070000000101"},
        {R"({"kind": "delay", "delay_ms": 0})", "0007000000050103020102"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        Simulator simulator;
        QString error;
        ASSERT_TRUE(simulator.loadMapJson(
            QByteArray(R"({"holding_registers": {"0": [258]}, "faults": [)") + row.fault + "]}", &error))
            << error.toStdString();
        ASSERT_TRUE(simulator.start());
        RawClient client;
        ASSERT_TRUE(client.connectTo(simulator.port()));
        ASSERT_TRUE(client.send(kReadRequest));
        const QByteArray expected = QByteArray::fromHex(row.answerHex);
        EXPECT_EQ(client.readExact(expected.size()).toHex(), QByteArray(row.answerHex));
        EXPECT_TRUE(client.readSome(1, 0).isEmpty());  // nothing more than expected has arrived
    }
}

TEST_F(SimulatorMapFaultTest, ExceptionLeavesTheTablesAlone) {
    load(R"([{"kind": "exception", "function": 6, "exception_code": 2}])");
    EXPECT_EQ(client.exchange(adu(1, 1, "0600000005")).toHex(), QByteArray("0001000000030186"
                                                                           "02"));
    EXPECT_EQ(simulator.holdingRegisters(0, 1), std::vector<uint16_t>({0x0102}));
    EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray(kReadAnswerHex));
}

TEST_F(SimulatorMapFaultTest, SelectorsNarrowTheRule) {
    load(R"([{"kind": "exception", "unit": 2, "function": 3, "address": 10, "exception_code": 2}])");
    for (const simulator_test::SelectorCase& row : simulator_test::kSelectorCases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(client.exchange(adu(1, row.unit, row.pdu)).mid(7).toHex(), QByteArray(row.answerPdu));
    }
}

TEST_F(SimulatorMapFaultTest, FirstRuleInTheFileDecides) {
    load(R"([{"kind": "exception", "function": 4, "exception_code": 3},
             {"kind": "exception", "exception_code": 4},
             {"kind": "exception", "exception_code": 6}])");
    EXPECT_EQ(client.exchange(kReadRequest).mid(7).toHex(), QByteArray("8304"));
    EXPECT_EQ(client.exchange(adu(8, 1, "0400000001")).mid(7).toHex(), QByteArray("8403"));
}

TEST_F(SimulatorMapFaultTest, FaultsFromCodeComeFirst) {
    FaultRule fault;
    fault.exceptionCode = 5;
    simulator.addFault(fault);
    load(R"([{"kind": "exception", "exception_code": 4}])");
    EXPECT_EQ(client.exchange(kReadRequest).mid(7).toHex(), QByteArray("8305"));
    simulator.clearFaults();
    EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray(kReadAnswerHex));
}

TEST_F(SimulatorMapFaultTest, SilenceNeverAnswers) {
    load(R"([{"kind": "silence", "function": 3}])");
    ASSERT_TRUE(client.send(kReadRequest));
    EXPECT_TRUE(client.readSome(1, kSilenceWaitMs).isEmpty());
    EXPECT_EQ(client.lastError, ETIMEDOUT);
    EXPECT_EQ(client.exchange(adu(8, 1, "0400000001")).toHex(), QByteArray("0008000000050104020000"));
    EXPECT_EQ(simulator.requestCount(3), 1);
}

TEST_F(SimulatorMapFaultTest, DelayHoldsTheAnswerBack) {
    load(R"([{"kind": "delay", "delay_ms": 400}])");
    ASSERT_TRUE(client.send(kReadRequest));
    EXPECT_TRUE(client.readSome(1, 100).isEmpty());
    EXPECT_EQ(client.readFrame().toHex(), QByteArray(kReadAnswerHex));
}

TEST_F(SimulatorMapFaultTest, ByteByByte) {
    load(R"([{"kind": "byte_by_byte", "delay_ms": 50}])");
    const auto sent = std::chrono::steady_clock::now();
    ASSERT_TRUE(client.send(kReadRequest));
    // Eleven bytes 50 ms apart: the last one cannot arrive before ten pauses have passed, however late the
    // reader wakes, while an answer sent in one piece would be there at once.
    EXPECT_EQ(client.readFrame().toHex(), QByteArray(kReadAnswerHex));
    EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(10 * 50));
}

TEST_F(SimulatorMapFaultTest, CloseAfterRequests) {
    load(R"([{"kind": "close_after", "after_requests": 2}])");
    EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray(kReadAnswerHex));
    EXPECT_EQ(client.exchange(kReadRequest).toHex(), QByteArray(kReadAnswerHex));
    ASSERT_TRUE(client.send(kReadRequest));
    EXPECT_TRUE(client.readUntilClosed().isEmpty());
    EXPECT_EQ(client.lastError, 0);
    EXPECT_TRUE(waitFor([&] { return simulator.closedConnections() == 1; }));
    EXPECT_EQ(simulator.requestCount(3), 3);
}

TEST_F(SimulatorMapFaultTest, CloseAfterZeroClosesOnTheFirstRequest) {
    load(R"([{"kind": "close_after"}])");
    ASSERT_TRUE(client.send(kReadRequest));
    EXPECT_TRUE(client.readUntilClosed().isEmpty());
    EXPECT_EQ(client.lastError, 0);
}

TEST_F(SimulatorMapFaultTest, ResetMidFrame) {
    load(R"([{"kind": "reset"}])");
    ASSERT_TRUE(client.send(kReadRequest));
    const QByteArray received = client.readUntilClosed();
    EXPECT_EQ(client.lastError, ECONNRESET);
    // Whatever came before the reset is the start of the answer, at most its first half.
    EXPECT_LE(received.size(), 5);
    EXPECT_EQ(received.toHex(), QByteArray(kReadAnswerHex).left(received.size() * 2));
    EXPECT_TRUE(waitFor([&] { return simulator.closedConnections() == 1; }));
}

TEST(SimulatorMapFileFaults, BadFaultsNameTheKey) {
    const QString kinds = QStringLiteral(
        "\"exception\", \"delay\", \"silence\", \"close_after\", \"reset\", \"byte_by_byte\", "
        "\"wrong_transaction_id\", \"wrong_length\", \"wrong_protocol_id\", \"trailing_garbage\", "
        "\"header_only\", \"busy_every\", \"bad_crc\", \"garbage_before\", \"split\", \"other_unit_first\"");
    struct Row {
        const char* name;
        const char* faults;
        QString error;
    };
    const Row rows[] = {
        {"faults not an array", R"({"kind": "silence"})",
         QStringLiteral("key \"faults\": expected an array of fault objects")},
        {"fault not an object", R"([{"kind": "silence"}, "silence"])",
         QStringLiteral("key \"faults[1]\": expected an object")},
        {"unknown kind", R"([{"kind": "silence"}, {"kind": "explode"}])",
         QStringLiteral("key \"faults[1].kind\": unknown fault kind \"explode\" (expected one of %1)")
             .arg(kinds)},
        {"kind in capitals", R"([{"kind": "Exception"}])",
         QStringLiteral("key \"faults[0].kind\": unknown fault kind \"Exception\" (expected one of %1)")
             .arg(kinds)},
        {"kind not a text", R"([{"kind": 1}])",
         QStringLiteral("key \"faults[0].kind\": expected one of %1").arg(kinds)},
        {"kind missing", R"([{"unit": 1}])",
         QStringLiteral("key \"faults[0].kind\": missing (expected one of %1)").arg(kinds)},
        {"unknown key", R"([{"kind": "silence", "units": 1}])",
         QStringLiteral("key \"faults[0].units\": unknown key")},
        {"parameter of another kind", R"([{"kind": "exception", "delay_ms": 100}])",
         QStringLiteral("key \"faults[0].delay_ms\": not used by fault kind \"exception\"")},
        {"parameter of a kind without any", R"([{"kind": "header_only", "length_field": 1}])",
         QStringLiteral("key \"faults[0].length_field\": not used by fault kind \"header_only\"")},
        {"unit too large", R"([{"kind": "silence", "unit": 256}])",
         QStringLiteral("key \"faults[0].unit\": value 256 is out of range 0..255")},
        {"unit negative", R"([{"kind": "silence", "unit": -1}])",
         QStringLiteral("key \"faults[0].unit\": value -1 is out of range 0..255")},
        {"unit as text", R"([{"kind": "silence", "unit": "1"}])",
         QStringLiteral("key \"faults[0].unit\": expected a whole number")},
        {"unit as flag", R"([{"kind": "silence", "unit": true}])",
         QStringLiteral("key \"faults[0].unit\": expected a whole number")},
        {"function too large", R"([{"kind": "silence", "function": 256}])",
         QStringLiteral("key \"faults[0].function\": value 256 is out of range 0..255")},
        {"address too large", R"([{"kind": "silence", "address": 65536}])",
         QStringLiteral("key \"faults[0].address\": value 65536 is out of range 0..65535")},
        {"fractional address", R"([{"kind": "silence", "address": 1.5}])",
         QStringLiteral("key \"faults[0].address\": expected a whole number")},
        {"exception code 0", R"([{"kind": "exception", "exception_code": 0}])",
         QStringLiteral("key \"faults[0].exception_code\": value 0 is out of range 1..255")},
        {"exception code too large", R"([{"kind": "exception", "exception_code": 256}])",
         QStringLiteral("key \"faults[0].exception_code\": value 256 is out of range 1..255")},
        {"delay too long", R"([{"kind": "delay", "delay_ms": 60001}])",
         QStringLiteral("key \"faults[0].delay_ms\": value 60001 is out of range 0..60000")},
        {"byte delay negative", R"([{"kind": "byte_by_byte", "delay_ms": -1}])",
         QStringLiteral("key \"faults[0].delay_ms\": value -1 is out of range 0..60000")},
        {"after requests negative", R"([{"kind": "close_after", "after_requests": -1}])",
         QStringLiteral("key \"faults[0].after_requests\": value -1 is out of range 0..2147483647")},
        {"length field too large", R"([{"kind": "wrong_length", "length_field": 65536}])",
         QStringLiteral("key \"faults[0].length_field\": value 65536 is out of range 0..65535")},
        {"garbage not text", R"([{"kind": "trailing_garbage", "garbage": 5}])",
         QStringLiteral("key \"faults[0].garbage\": expected a text or \"hex:...\"")},
        {"garbage bad hex", R"([{"kind": "trailing_garbage", "garbage": "hex:0g"}])",
         QStringLiteral("key \"faults[0].garbage\": \"hex:0g\" is not valid hexadecimal")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const QByteArray json = QByteArray(R"({"faults": )") + row.faults + "}";
        Simulator simulator;
        QString error;
        EXPECT_FALSE(simulator.loadMapJson(json, &error));
        EXPECT_EQ(error.toStdString(), row.error.toStdString());
        std::vector<FaultRule> faults;
        QString faultsError;
        EXPECT_FALSE(modbus_sim::readMapFaults(json, &faults, &faultsError));
        EXPECT_EQ(faultsError, error);
    }
}

TEST(SimulatorMapFileFaults, SerialLineFaultsBecomeTheirRules) {
    std::vector<FaultRule> faults;
    QString error;
    ASSERT_TRUE(modbus_sim::readMapFaults(R"({"faults": [
        {"kind": "bad_crc", "unit": 4},
        {"kind": "garbage_before", "garbage": "hex:6865617274626561740d0a"},
        {"kind": "garbage_before"},
        {"kind": "split", "chunk_bytes": 2, "delay_ms": 30},
        {"kind": "split"},
        {"kind": "other_unit_first", "function": 3}]})",
                                          &faults, &error))
        << error.toStdString();
    ASSERT_EQ(faults.size(), 6u);
    EXPECT_EQ(faults[0].kind, modbus_sim::FaultKind::BadCrc);
    EXPECT_EQ(faults[0].unit, 4);
    EXPECT_EQ(faults[1].kind, modbus_sim::FaultKind::GarbageBefore);
    EXPECT_EQ(faults[1].garbage, QByteArray("heartbeat\r\n"));
    EXPECT_EQ(faults[2].garbage.toHex(), QByteArray("deadbeef"));
    EXPECT_EQ(faults[3].kind, modbus_sim::FaultKind::Split);
    EXPECT_EQ(faults[3].chunkBytes, 2);
    EXPECT_EQ(faults[3].delayMs, 30);
    EXPECT_EQ(faults[4].chunkBytes, 3);
    EXPECT_EQ(faults[4].delayMs, 0);
    EXPECT_EQ(faults[5].kind, modbus_sim::FaultKind::OtherUnitFirst);
    EXPECT_EQ(faults[5].function, 3);
    for (const char* name : {"bad_crc", "garbage_before", "split", "other_unit_first"}) {
        const std::optional<modbus_sim::FaultKind> kind = modbus_sim::faultKindFromName(QLatin1String(name));
        ASSERT_TRUE(kind.has_value()) << name;
        EXPECT_STREQ(modbus_sim::faultKindName(*kind), name);
    }
}

TEST(SimulatorMapFileFaults, BadSerialLineFaultsNameTheKey) {
    struct Row {
        const char* faults;
        const char* error;
    };
    const Row rows[] = {
        {R"([{"kind": "split", "chunk_bytes": 0}])",
         "key \"faults[0].chunk_bytes\": value 0 is out of range 1..256"},
        {R"([{"kind": "split", "chunk_bytes": 257}])",
         "key \"faults[0].chunk_bytes\": value 257 is out of range 1..256"},
        {R"([{"kind": "byte_by_byte", "chunk_bytes": 2}])",
         "key \"faults[0].chunk_bytes\": not used by fault kind \"byte_by_byte\""},
        {R"([{"kind": "bad_crc", "garbage": "x"}])",
         "key \"faults[0].garbage\": not used by fault kind \"bad_crc\""},
        {R"([{"kind": "garbage_before", "delay_ms": 5}])",
         "key \"faults[0].delay_ms\": not used by fault kind \"garbage_before\""},
        {R"([{"kind": "other_unit_first", "chunk_bytes": 1}])",
         "key \"faults[0].chunk_bytes\": not used by fault kind \"other_unit_first\""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.faults);
        Simulator simulator;
        QString error;
        EXPECT_FALSE(simulator.loadMapJson(QByteArray(R"({"faults": )") + row.faults + "}", &error));
        EXPECT_EQ(error.toStdString(), row.error);
    }
}

TEST(SimulatorMapFile, TransportChoosesTheFraming) {
    Simulator simulator;
    EXPECT_EQ(simulator.framing(), modbus_sim::Framing::Tcp);
    QString error;
    ASSERT_TRUE(simulator.loadMapJson(R"({"transport": "rtu", "holding_registers": {"0": [258]}})", &error))
        << error.toStdString();
    EXPECT_EQ(simulator.framing(), modbus_sim::Framing::Rtu);
    ASSERT_TRUE(simulator.start());
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    ASSERT_TRUE(client.send(QByteArray::fromHex("010300000001840a")));
    EXPECT_EQ(client.readExact(7).toHex(), QByteArray("01030201023815"));
    client.close();
    simulator.stop();

    ASSERT_TRUE(simulator.loadMapJson(R"({"transport": "tcp"})", &error)) << error.toStdString();
    EXPECT_EQ(simulator.framing(), modbus_sim::Framing::Tcp);
    // A map without the key leaves the framing as it was.
    simulator.setFraming(modbus_sim::Framing::Rtu);
    ASSERT_TRUE(simulator.loadMapJson(R"({"units": [1]})", &error)) << error.toStdString();
    EXPECT_EQ(simulator.framing(), modbus_sim::Framing::Rtu);

    for (const char* json :
         {R"({"transport": "serial"})", R"({"transport": "RTU"})", R"({"transport": 1})"}) {
        SCOPED_TRACE(json);
        Simulator other;
        EXPECT_FALSE(other.loadMapJson(json, &error));
        EXPECT_EQ(error, QStringLiteral("key \"transport\": expected \"tcp\" or \"rtu\""));
        EXPECT_EQ(other.framing(), modbus_sim::Framing::Tcp);
    }
}

TEST(SimulatorMapFileFaults, BadFaultFileChangesNothing) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    Simulator simulator;
    simulator.setHoldingRegisters(0, {9});
    const QString path = writeFile(dir, R"({"holding_registers": {"0": [1]},
                                            "faults": [{"kind": "exception", "exception_code": 2},
                                                       {"kind": "explode"}]})");
    QString error;
    EXPECT_FALSE(simulator.loadMapFile(path, &error));
    EXPECT_EQ(
        error,
        path + QStringLiteral(": key \"faults[1].kind\": unknown fault kind \"explode\" (expected one of ") +
            modbus_sim::faultKindNameList() + QStringLiteral(")"));
    EXPECT_EQ(simulator.holdingRegisters(0, 1), std::vector<uint16_t>({9}));
    // The good first fault was not added either.
    ASSERT_TRUE(simulator.start());
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(adu(1, 1, "0300000001")).toHex(), QByteArray("0001000000050103020009"));
}

using simulator_test::kSimulatorProgram;
const QString kMbpoll = QStringLiteral("/usr/bin/mbpoll");

TEST(ModbusSimProgramFaults, FaultFromTheMapFileTakesEffect) {
    if (!QFileInfo::exists(kSimulatorProgram)) GTEST_SKIP() << "modbus-sim is not built";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString map = writeFile(dir, R"({"holding_registers": {"0": [11, 22, 33, 44, 55, 66]},
                                           "faults": [{"kind": "exception", "function": 3, "address": 5,
                                                       "exception_code": 2}]})");
    QProcess process;
    const uint16_t port = simulator_test::startSimulatorProgram(process, {QStringLiteral("--map"), map});
    ASSERT_NE(port, 0);

    RawClient client;
    ASSERT_TRUE(client.connectTo(port));
    EXPECT_EQ(client.exchange(adu(1, 1, "0300050001")).toHex(), QByteArray("00010000000301"
                                                                           "8302"));
    EXPECT_EQ(client.exchange(adu(2, 1, "0300000005")).toHex(), QByteArray("00020000000d01030a"
                                                                           "000b00160021002c0037"));
    client.close();

    if (QFileInfo::exists(kMbpoll)) {
        // mbpoll numbers references from 1: reference 6 is holding register 5.
        QProcess mbpoll;
        mbpoll.start(
            kMbpoll,
            {QStringLiteral("-m"), QStringLiteral("tcp"), QStringLiteral("-a"), QStringLiteral("1"),
             QStringLiteral("-t"), QStringLiteral("4"), QStringLiteral("-r"), QStringLiteral("6"),
             QStringLiteral("-c"), QStringLiteral("1"), QStringLiteral("-p"), QString::number(port),
             QStringLiteral("-o"), QStringLiteral("2"), QStringLiteral("-1"), QStringLiteral("127.0.0.1")});
        ASSERT_TRUE(mbpoll.waitForFinished(kAnswerWaitMs * 2));
        const QString output =
            QString::fromUtf8(mbpoll.readAllStandardOutput() + mbpoll.readAllStandardError());
        EXPECT_EQ(mbpoll.exitCode(), 1) << output.toStdString();
        EXPECT_TRUE(
            output.contains(QStringLiteral("Read output (holding) register failed: Illegal data address")))
            << output.toStdString();
    }

    ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
    ASSERT_TRUE(process.waitForFinished(kAnswerWaitMs));
    EXPECT_EQ(process.exitCode(), 0);
}

}  // namespace
