// Per-unit register tables of the simulator: every request for a unit with tables of its own reads and writes
// those, the others the shared ones; the map file's "unit_tables" fills them and names the key of a mistake.

#include <gtest/gtest.h>

#include <vector>

#include "tools/sim/simulator.h"
#include "tools/simulator_raw_client.h"

namespace {

using modbus_sim::FaultKind;
using modbus_sim::FaultRule;
using modbus_sim::RequestRecord;
using modbus_sim::Simulator;
using simulator_test::adu;
using simulator_test::kMbapHeaderLength;
using simulator_test::RawClient;

constexpr int kFirstUnit = 1;
constexpr int kSecondUnit = 2;
// A unit without tables of its own: it is answered from the shared tables.
constexpr int kSharedUnit = 3;
constexpr uint16_t kTransactionId = 0x0042;

class SimulatorUnitTablesTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(simulator.start());
        ASSERT_TRUE(client.connectTo(simulator.port()));
    }

    // Fills both units' own tables and the shared ones with values that differ everywhere.
    void fillTables() {
        simulator.setHoldingRegisters(0, {0xAAAA, 0xBBBB});
        simulator.setInputRegisters(0, {0xCCCC});
        simulator.setCoils(0, {1, 1, 1, 1});
        simulator.setDiscreteInputs(0, {1, 1});
        simulator.setHoldingRegisters(kFirstUnit, 0, {1001, 0x1111});
        simulator.setInputRegisters(kFirstUnit, 0, {2001});
        simulator.setCoils(kFirstUnit, 0, {1, 0, 0, 1});
        simulator.setDiscreteInputs(kFirstUnit, 0, {1, 0});
        simulator.setHoldingRegisters(kSecondUnit, 0, {1002, 0x2222});
        simulator.setInputRegisters(kSecondUnit, 0, {2002});
        simulator.setCoils(kSecondUnit, 0, {0, 1, 1, 0});
        simulator.setDiscreteInputs(kSecondUnit, 0, {0, 1});
    }

    // The answer PDU as hex, after checking the answer's MBAP header against the request.
    QByteArray answerPdu(int unit, const char* pduHex) {
        const QByteArray answer = client.exchange(adu(kTransactionId, static_cast<uint8_t>(unit), pduHex));
        if (answer.size() < kMbapHeaderLength) return "no answer";
        EXPECT_EQ(answer.left(4).toHex(), QByteArray("00420000"));
        EXPECT_EQ(static_cast<uint8_t>(answer.at(6)), unit);
        return answer.mid(kMbapHeaderLength).toHex();
    }

    Simulator simulator;
    RawClient client;
};

struct UnitExchange {
    const char* name;
    int unit;
    const char* requestPdu;
    const char* answerPdu;
};

TEST_F(SimulatorUnitTablesTest, EachUnitReadsItsOwnTables) {
    fillTables();
    const UnitExchange rows[] = {
        {"holding registers of unit 1", kFirstUnit, "0300000002", "030403e91111"},
        {"holding registers of unit 2", kSecondUnit, "0300000002", "030403ea2222"},
        {"shared holding registers", kSharedUnit, "0300000002", "0304aaaabbbb"},
        {"input registers of unit 1", kFirstUnit, "0400000001", "040207d1"},
        {"input registers of unit 2", kSecondUnit, "0400000001", "040207d2"},
        {"shared input registers", kSharedUnit, "0400000001", "0402cccc"},
        // Coils 1,0,0,1 pack to 0x09, 0,1,1,0 to 0x06, the shared 1,1,1,1 to 0x0f.
        {"coils of unit 1", kFirstUnit, "0100000004", "010109"},
        {"coils of unit 2", kSecondUnit, "0100000004", "010106"},
        {"shared coils", kSharedUnit, "0100000004", "01010f"},
        {"discrete inputs of unit 1", kFirstUnit, "0200000002", "020101"},
        {"discrete inputs of unit 2", kSecondUnit, "0200000002", "020102"},
        {"shared discrete inputs", kSharedUnit, "0200000002", "020103"},
        {"past the end of a unit's table", kSecondUnit, "03ffff0002", "8302"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(answerPdu(row.unit, row.requestPdu), QByteArray(row.answerPdu));
    }
    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), std::size(rows));
    for (size_t i = 0; i < log.size(); ++i) EXPECT_EQ(log[i].unit, rows[i].unit) << rows[i].name;
}

TEST_F(SimulatorUnitTablesTest, GettersReadTheUnitsOwnTablesOrTheSharedOnes) {
    fillTables();
    EXPECT_EQ(simulator.holdingRegisters(kFirstUnit, 0, 2), std::vector<uint16_t>({1001, 0x1111}));
    EXPECT_EQ(simulator.holdingRegisters(kSecondUnit, 0, 2), std::vector<uint16_t>({1002, 0x2222}));
    EXPECT_EQ(simulator.holdingRegisters(kSharedUnit, 0, 2), std::vector<uint16_t>({0xAAAA, 0xBBBB}));
    EXPECT_EQ(simulator.holdingRegisters(0, 2), std::vector<uint16_t>({0xAAAA, 0xBBBB}));
    EXPECT_EQ(simulator.inputRegisters(kFirstUnit, 0, 1), std::vector<uint16_t>({2001}));
    EXPECT_EQ(simulator.inputRegisters(kSecondUnit, 0, 1), std::vector<uint16_t>({2002}));
    EXPECT_EQ(simulator.inputRegisters(kSharedUnit, 0, 1), std::vector<uint16_t>({0xCCCC}));
    EXPECT_EQ(simulator.coils(kFirstUnit, 0, 4), std::vector<uint8_t>({1, 0, 0, 1}));
    EXPECT_EQ(simulator.coils(kSecondUnit, 0, 4), std::vector<uint8_t>({0, 1, 1, 0}));
    EXPECT_EQ(simulator.coils(kSharedUnit, 0, 4), std::vector<uint8_t>({1, 1, 1, 1}));
    EXPECT_EQ(simulator.discreteInputs(kFirstUnit, 0, 2), std::vector<uint8_t>({1, 0}));
    EXPECT_EQ(simulator.discreteInputs(kSecondUnit, 0, 2), std::vector<uint8_t>({0, 1}));
    EXPECT_EQ(simulator.discreteInputs(kSharedUnit, 0, 2), std::vector<uint8_t>({1, 1}));
    // Bits are stored as 0 or 1; tables clip at their end as the shared ones do.
    simulator.setCoils(kFirstUnit, 65534, {7, 0, 1});
    EXPECT_EQ(simulator.coils(kFirstUnit, 65534, 5), std::vector<uint8_t>({1, 0}));
    EXPECT_EQ(simulator.coils(kFirstUnit, -1, 2), std::vector<uint8_t>());
}

TEST_F(SimulatorUnitTablesTest, FirstSetterGivesAUnitAllFourTablesAtZero) {
    fillTables();
    constexpr int kNewUnit = 4;
    simulator.setDiscreteInputs(kNewUnit, 0, {});
    EXPECT_EQ(answerPdu(kNewUnit, "0300000002"), QByteArray("030400000000"));
    EXPECT_EQ(answerPdu(kNewUnit, "0400000001"), QByteArray("04020000"));
    EXPECT_EQ(answerPdu(kNewUnit, "0100000004"), QByteArray("010100"));
    EXPECT_EQ(answerPdu(kNewUnit, "0200000002"), QByteArray("020100"));
    EXPECT_EQ(simulator.holdingRegisters(kNewUnit, 0, 2), std::vector<uint16_t>({0, 0}));
    // Later values of the shared tables do not reach it.
    simulator.setInputRegisters(0, {0xDDDD});
    EXPECT_EQ(answerPdu(kNewUnit, "0400000001"), QByteArray("04020000"));
    EXPECT_EQ(answerPdu(kSharedUnit, "0400000001"), QByteArray("0402dddd"));
}

TEST_F(SimulatorUnitTablesTest, UnitIdsNoRequestCarriesGetNoTables) {
    simulator.setHoldingRegisters(0, {5});
    for (int unit : {-1, 256}) {
        SCOPED_TRACE(unit);
        simulator.setHoldingRegisters(unit, 0, {9});
        simulator.setCoils(unit, 0, {1});
        EXPECT_EQ(simulator.holdingRegisters(unit, 0, 1), std::vector<uint16_t>({5}));
        EXPECT_EQ(simulator.coils(unit, 0, 1), std::vector<uint8_t>({0}));
    }
    EXPECT_EQ(simulator.holdingRegisters(0, 1), std::vector<uint16_t>({5}));
    EXPECT_EQ(answerPdu(0, "0300000001"), QByteArray("03020005"));
    EXPECT_EQ(answerPdu(255, "0300000001"), QByteArray("03020005"));
}

TEST_F(SimulatorUnitTablesTest, WritesLandOnTheirOwnUnit) {
    fillTables();
    // Function 6 and 16 on holding registers, 5 and 15 on coils, 23 writes then reads: each unit its own
    // values.
    EXPECT_EQ(answerPdu(kFirstUnit, "0600050101"), QByteArray("0600050101"));
    EXPECT_EQ(answerPdu(kSecondUnit, "0600050102"), QByteArray("0600050102"));
    EXPECT_EQ(answerPdu(kFirstUnit, "100010000204000111f1"), QByteArray("1000100002"));
    EXPECT_EQ(answerPdu(kSecondUnit, "100010000204000222f2"), QByteArray("1000100002"));
    EXPECT_EQ(answerPdu(kFirstUnit, "050007ff00"), QByteArray("050007ff00"));
    EXPECT_EQ(answerPdu(kSecondUnit, "050008ff00"), QByteArray("050008ff00"));
    EXPECT_EQ(answerPdu(kFirstUnit, "0f0020000a020100"), QByteArray("0f0020000a"));
    EXPECT_EQ(answerPdu(kSecondUnit, "0f0020000a020200"), QByteArray("0f0020000a"));
    EXPECT_EQ(answerPdu(kFirstUnit,
                        "17000500010006000102"
                        "0771"),
              QByteArray("17020101"));
    EXPECT_EQ(answerPdu(kSecondUnit,
                        "17000600010006000102"
                        "0772"),
              QByteArray("17020772"));

    EXPECT_EQ(simulator.holdingRegisters(kFirstUnit, 5, 2), std::vector<uint16_t>({0x0101, 0x0771}));
    EXPECT_EQ(simulator.holdingRegisters(kSecondUnit, 5, 2), std::vector<uint16_t>({0x0102, 0x0772}));
    EXPECT_EQ(simulator.holdingRegisters(kFirstUnit, 16, 2), std::vector<uint16_t>({0x0001, 0x11F1}));
    EXPECT_EQ(simulator.holdingRegisters(kSecondUnit, 16, 2), std::vector<uint16_t>({0x0002, 0x22F2}));
    EXPECT_EQ(simulator.coils(kFirstUnit, 7, 2), std::vector<uint8_t>({1, 0}));
    EXPECT_EQ(simulator.coils(kSecondUnit, 7, 2), std::vector<uint8_t>({0, 1}));
    EXPECT_EQ(simulator.coils(kFirstUnit, 32, 10), std::vector<uint8_t>({1, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(simulator.coils(kSecondUnit, 32, 10), std::vector<uint8_t>({0, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
    // The values set before are untouched, and nothing reached the shared tables.
    EXPECT_EQ(simulator.holdingRegisters(kFirstUnit, 0, 2), std::vector<uint16_t>({1001, 0x1111}));
    EXPECT_EQ(simulator.holdingRegisters(kSecondUnit, 0, 2), std::vector<uint16_t>({1002, 0x2222}));
    EXPECT_EQ(simulator.holdingRegisters(0, 20),
              std::vector<uint16_t>({0xAAAA, 0xBBBB, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(simulator.coils(0, 42),
              std::vector<uint8_t>({1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

    // A unit without tables of its own writes the shared ones.
    EXPECT_EQ(answerPdu(kSharedUnit, "0600080033"), QByteArray("0600080033"));
    EXPECT_EQ(simulator.holdingRegisters(8, 1), std::vector<uint16_t>({0x0033}));
    EXPECT_EQ(simulator.holdingRegisters(kFirstUnit, 8, 1), std::vector<uint16_t>({0}));
    EXPECT_EQ(simulator.holdingRegisters(kSecondUnit, 8, 1), std::vector<uint16_t>({0}));
}

TEST_F(SimulatorUnitTablesTest, MaskWriteChangesOnlyTheMaskedBitsOfItsUnit) {
    simulator.setHoldingRegisters(5, {0x5A5A});
    simulator.setHoldingRegisters(kFirstUnit, 5, {0x12F0});
    simulator.setHoldingRegisters(kSecondUnit, 5, {0xABCD});
    // (current & and) | (or & ~and): (0xABCD & 0xF0F0) | (0x0505 & 0x0F0F) = 0xA5C5.
    EXPECT_EQ(answerPdu(kSecondUnit, "160005f0f00505"), QByteArray("160005f0f00505"));
    EXPECT_EQ(simulator.holdingRegisters(kSecondUnit, 4, 3), std::vector<uint16_t>({0, 0xA5C5, 0}));
    EXPECT_EQ(simulator.holdingRegisters(kFirstUnit, 5, 1), std::vector<uint16_t>({0x12F0}));
    EXPECT_EQ(simulator.holdingRegisters(5, 1), std::vector<uint16_t>({0x5A5A}));
    // (0x12F0 & 0x00FF) | (0x3400 & 0xFF00) = 0x34F0.
    EXPECT_EQ(answerPdu(kFirstUnit, "16000500ff3400"), QByteArray("16000500ff3400"));
    // (0x5A5A & 0xFF00) | (0x0011 & 0x00FF) = 0x5A11, in the shared table.
    EXPECT_EQ(answerPdu(kSharedUnit, "160005ff000011"), QByteArray("160005ff000011"));
    EXPECT_EQ(answerPdu(kFirstUnit, "0300050001"), QByteArray("030234f0"));
    EXPECT_EQ(answerPdu(kSecondUnit, "0300050001"), QByteArray("0302a5c5"));
    EXPECT_EQ(answerPdu(kSharedUnit, "0300050001"), QByteArray("03025a11"));
    const std::vector<RequestRecord> log = simulator.requestLog();
    ASSERT_EQ(log.size(), 6u);
    EXPECT_EQ(log[0].unit, kSecondUnit);
    EXPECT_EQ(log[0].function, 22);
    EXPECT_EQ(log[0].address, 5);
}

FaultRule refuseMaskWrites(int unit) {
    FaultRule rule;
    rule.kind = FaultKind::Exception;
    rule.function = 22;
    rule.exceptionCode = 1;
    rule.unit = unit;
    return rule;
}

TEST_F(SimulatorUnitTablesTest, ExceptionFaultRefusesMaskWrite) {
    simulator.setHoldingRegisters(5, {0x5A5A});
    simulator.setHoldingRegisters(kFirstUnit, 5, {0x12F0});
    simulator.setHoldingRegisters(kSecondUnit, 5, {0xABCD});
    simulator.addFault(refuseMaskWrites(-1));
    for (int unit : {kFirstUnit, kSecondUnit, kSharedUnit}) {
        SCOPED_TRACE(unit);
        EXPECT_EQ(answerPdu(unit, "160005f0f00505"), QByteArray("9601"));
    }
    // Refused writes are not carried out; other functions still are.
    EXPECT_EQ(simulator.holdingRegisters(kFirstUnit, 5, 1), std::vector<uint16_t>({0x12F0}));
    EXPECT_EQ(simulator.holdingRegisters(kSecondUnit, 5, 1), std::vector<uint16_t>({0xABCD}));
    EXPECT_EQ(simulator.holdingRegisters(5, 1), std::vector<uint16_t>({0x5A5A}));
    EXPECT_EQ(answerPdu(kSecondUnit, "0600050007"), QByteArray("0600050007"));
    EXPECT_EQ(simulator.holdingRegisters(kSecondUnit, 5, 1), std::vector<uint16_t>({7}));
    EXPECT_EQ(simulator.requestCount(22), 3);

    // A rule for one unit refuses that unit's mask writes only.
    simulator.clearFaults();
    simulator.addFault(refuseMaskWrites(kSecondUnit));
    EXPECT_EQ(answerPdu(kSecondUnit, "160005f0f00505"), QByteArray("9601"));
    EXPECT_EQ(answerPdu(kFirstUnit, "16000500ff3400"), QByteArray("16000500ff3400"));
    EXPECT_EQ(simulator.holdingRegisters(kSecondUnit, 5, 1), std::vector<uint16_t>({7}));
    EXPECT_EQ(simulator.holdingRegisters(kFirstUnit, 5, 1), std::vector<uint16_t>({0x34F0}));
}

TEST(SimulatorUnitTablesMap, UnitTablesFillEachUnit) {
    Simulator simulator;
    QString error;
    ASSERT_TRUE(simulator.loadMapJson(R"({
      "holding_registers": {"0": [7]},
      "input_registers": {"0": [8]},
      "unit_tables": {
        "1": {"holding_registers": {"0": [1001, 1]}, "input_registers": {"0": 2001},
              "coils": {"0": [1, 0, true]}, "discrete_inputs": {"0x10": [true, 0]}},
        "0x02": {"holding_registers": {"0": [1002]}},
        "3": {}
      }
    })",
                                      &error))
        << error.toStdString();
    EXPECT_EQ(simulator.holdingRegisters(1, 0, 2), std::vector<uint16_t>({1001, 1}));
    EXPECT_EQ(simulator.inputRegisters(1, 0, 1), std::vector<uint16_t>({2001}));
    EXPECT_EQ(simulator.coils(1, 0, 3), std::vector<uint8_t>({1, 0, 1}));
    EXPECT_EQ(simulator.discreteInputs(1, 16, 2), std::vector<uint8_t>({1, 0}));
    EXPECT_EQ(simulator.holdingRegisters(2, 0, 1), std::vector<uint16_t>({1002}));
    // A unit listed gets all four tables, all 0 but for its values; unlisted units keep the shared ones.
    EXPECT_EQ(simulator.inputRegisters(2, 0, 1), std::vector<uint16_t>({0}));
    EXPECT_EQ(simulator.holdingRegisters(3, 0, 1), std::vector<uint16_t>({0}));
    EXPECT_EQ(simulator.holdingRegisters(4, 0, 1), std::vector<uint16_t>({7}));
    EXPECT_EQ(simulator.inputRegisters(4, 0, 1), std::vector<uint16_t>({8}));

    ASSERT_TRUE(simulator.start());
    RawClient client;
    ASSERT_TRUE(client.connectTo(simulator.port()));
    EXPECT_EQ(client.exchange(adu(1, 1, "0300000001")).toHex(), adu(1, 1, "030203e9").toHex());
    EXPECT_EQ(client.exchange(adu(2, 2, "0300000001")).toHex(), adu(2, 2, "030203ea").toHex());
    EXPECT_EQ(client.exchange(adu(3, 3, "0300000001")).toHex(), adu(3, 3, "03020000").toHex());
    EXPECT_EQ(client.exchange(adu(4, 4, "0300000001")).toHex(), adu(4, 4, "03020007").toHex());
}

TEST(SimulatorUnitTablesMap, BadUnitTablesNameTheKey) {
    struct Row {
        const char* name;
        const char* json;
        const char* error;
    };
    const Row rows[] = {
        {"not an object", R"({"unit_tables": [1]})",
         "key \"unit_tables\": expected an object of unit: {tables}"},
        {"unit too large", R"({"unit_tables": {"256": {}}})",
         "key \"unit_tables.256\": \"256\" is not a number in 0..255"},
        {"unit not a number", R"({"unit_tables": {"meter": {}}})",
         "key \"unit_tables.meter\": \"meter\" is not a number in 0..255"},
        {"unit given twice", R"({"unit_tables": {"1": {}, "0x01": {}}})",
         "key \"unit_tables.1\": unit 1 is given twice"},
        {"tables not an object", R"({"unit_tables": {"1": [1]}})",
         "key \"unit_tables.1\": expected an object of table: {address: [values]}"},
        {"unknown table", R"({"unit_tables": {"1": {"holding_register": {}}}})",
         "key \"unit_tables.1.holding_register\": unknown key"},
        {"register too large", R"({"unit_tables": {"1": {"holding_registers": {"0": [1, 70000]}}}})",
         "key \"unit_tables.1.holding_registers.0[1]\": value 70000 is out of range 0..65535"},
        {"fractional register", R"({"unit_tables": {"2": {"input_registers": {"0": 1.5}}}})",
         "key \"unit_tables.2.input_registers.0[0]\": expected a whole number"},
        {"coil not a bit", R"({"unit_tables": {"2": {"coils": {"0": [0, 2]}}}})",
         "key \"unit_tables.2.coils.0[1]\": value 2 is out of range 0..1"},
        {"table not an object", R"({"unit_tables": {"2": {"discrete_inputs": [1]}}})",
         "key \"unit_tables.2.discrete_inputs\": expected an object of address: [values]"},
        {"bad address", R"({"unit_tables": {"2": {"coils": {"x": [1]}}}})",
         "key \"unit_tables.2.coils.x\": \"x\" is not a number in 0..65535"},
        {"past the table", R"({"unit_tables": {"2": {"input_registers": {"65535": [1, 2]}}}})",
         "key \"unit_tables.2.input_registers.65535\": 2 values do not fit below address 65536"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Simulator simulator;
        QString error;
        EXPECT_FALSE(simulator.loadMapJson(row.json, &error));
        EXPECT_EQ(error.toStdString(), row.error);
    }
}

TEST(SimulatorUnitTablesMap, BadUnitTablesChangeNothing) {
    Simulator simulator;
    simulator.setHoldingRegisters(0, {4});
    simulator.setHoldingRegisters(1, 0, {9});
    QString error;
    EXPECT_FALSE(simulator.loadMapJson(
        R"({"unit_tables": {"1": {"holding_registers": {"0": [1]}}, "2": {"coils": {"0": [5]}}}})", &error));
    EXPECT_EQ(error, QStringLiteral("key \"unit_tables.2.coils.0[0]\": value 5 is out of range 0..1"));
    EXPECT_EQ(simulator.holdingRegisters(1, 0, 1), std::vector<uint16_t>({9}));
    // Unit 2 got no tables of its own.
    EXPECT_EQ(simulator.holdingRegisters(2, 0, 1), std::vector<uint16_t>({4}));
}

}  // namespace
