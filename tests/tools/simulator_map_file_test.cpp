// The simulator's JSON map file: a good file fills every table and setting, a bad one names the key.

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <vector>

#include "tools/sim/simulator.h"
#include "tools/simulator_raw_client.h"

namespace {

using modbus_sim::Simulator;
using simulator_test::adu;
using simulator_test::kSilenceWaitMs;
using simulator_test::RawClient;

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

}  // namespace
