// zelt-modbus inspect and map against the project's simulator, and the configurations that map and discover
// write: what inspect shows must be what the plugin reads, map must find the exact readable runs with the
// exact requests, within its limits, and poll must read the written configuration without an error.

#include <gtest/gtest.h>
#include <signal.h>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <chrono>
#include <thread>

#include "tests/common/program_command.h"
#include "tools/sim/simulator.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/config_writer.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::itemOf;
using zelt_modbus_test::jsonLines;
using zelt_modbus_test::pollLines;
using zelt_modbus_test::runTool;
using zelt_modbus_test::writeFile;

constexpr int kReadHolding = 3;
constexpr int kReadInput = 4;
constexpr int kReadCoils = 1;
constexpr int kIllegalDataAddress = 2;
constexpr int kIllegalDataValue = 3;
// Short, so that the timeout cases stay quick; loopback answers in well under a millisecond.
const QString kShortTimeoutMs = QStringLiteral("200");
// Bounds the wait for the simulator to see a request: 20 s in all.
constexpr int kWaitAttempts = 2000;
constexpr int kWaitSliceMs = 10;

QJsonObject jsonOf(const QString& text) {
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

QJsonObject tableOf(const QJsonObject& map, const QString& table) {
    for (const QJsonValue& value : map.value(QStringLiteral("tables")).toArray())
        if (value.toObject().value(QStringLiteral("table")).toString() == table) return value.toObject();
    return {};
}

// "first-last" of every run of a table, e.g. {"0-9", "15-99"}.
QStringList runsOf(const QJsonObject& table) {
    QStringList runs;
    for (const QJsonValue& value : table.value(QStringLiteral("runs")).toArray())
        runs.append(QStringLiteral("%1-%2")
                        .arg(value.toObject().value(QStringLiteral("first")).toInt())
                        .arg(value.toObject().value(QStringLiteral("last")).toInt()));
    return runs;
}

// Registers whose wire bytes A B C D decode to the value under the given settings.
std::vector<uint16_t> wordsFor(const QByteArray& abcd, bool littleEndian, bool byteSwapped) {
    QByteArray wire = abcd;
    if (littleEndian && !byteSwapped)
        wire = QByteArray() + abcd[3] + abcd[2] + abcd[1] + abcd[0];
    else if (littleEndian)
        wire = abcd.mid(2, 2) + abcd.mid(0, 2);
    else if (byteSwapped)
        wire = QByteArray() + abcd[1] + abcd[0] + abcd[3] + abcd[2];
    return {static_cast<uint16_t>((static_cast<uint8_t>(wire[0]) << 8) | static_cast<uint8_t>(wire[1])),
            static_cast<uint16_t>((static_cast<uint8_t>(wire[2]) << 8) | static_cast<uint8_t>(wire[3]))};
}

class CommissionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        ASSERT_TRUE(simulator.start());
        port = QString::number(simulator.port());
    }

    QStringList target(const QString& command) const {
        return {command, QStringLiteral("--address"), QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                port};
    }

    // Holding registers 10 to 14 are refused with exception 2.
    void addHoles() {
        for (int address = 10; address <= 14; ++address) {
            modbus_sim::FaultRule rule;
            rule.function = kReadHolding;
            rule.address = address;
            rule.exceptionCode = kIllegalDataAddress;
            simulator.addFault(rule);
        }
    }

    QTemporaryDir dir;
    modbus_sim::Simulator simulator;
    QString port;
};

TEST_F(CommissionTest, InspectAndMapHaveHelp) {
    for (const QString& command : {QStringLiteral("inspect"), QStringLiteral("map")}) {
        SCOPED_TRACE(command.toStdString());
        const auto help = runTool({command, QStringLiteral("--help")});
        EXPECT_EQ(help.exitCode, 0);
        EXPECT_TRUE(help.out.startsWith(QStringLiteral("Usage: zelt-modbus %1 [options]\n").arg(command)));
        EXPECT_EQ(runTool({command, QStringLiteral("--bogus")}).exitCode, 2);
        EXPECT_EQ(runTool({command}).exitCode, 2);
    }
    EXPECT_EQ(
        runTool(target(QStringLiteral("inspect")) << QStringLiteral("--register") << QStringLiteral("40000"))
            .exitCode,
        2);
    EXPECT_EQ(
        runTool(target(QStringLiteral("map")) << QStringLiteral("--tables") << QStringLiteral("holding,x"))
            .exitCode,
        2);
    EXPECT_EQ(simulator.totalRequests(), 0);
}

TEST_F(CommissionTest, InspectShowsThePluginsReadingsOfAPairInEveryOrder) {
    simulator.setHoldingRegisters(0, {0x0001, 0x0002});
    const auto run =
        runTool(target(QStringLiteral("inspect"))
                << QStringLiteral("--register") << QStringLiteral("40001") << QStringLiteral("--json"));
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonObject json = jsonOf(run.out);
    const QJsonArray registers = json.value(QStringLiteral("registers")).toArray();
    ASSERT_EQ(registers.size(), 2);
    EXPECT_EQ(registers.at(1).toObject().value(QStringLiteral("hex")).toString(), QStringLiteral("0x0002"));
    EXPECT_EQ(registers.at(1).toObject().value(QStringLiteral("register")).toString(),
              QStringLiteral("40002"));
    QStringList int32;
    for (const QJsonValue& value : json.value(QStringLiteral("interpretations")).toArray()) {
        const QJsonObject object = value.toObject();
        if (object.value(QStringLiteral("type")).toString() != QLatin1String("INT32")) continue;
        const QJsonObject settings = object.value(QStringLiteral("settings")).toObject();
        int32.append(settings.value(QStringLiteral("endianness")).toString() +
                     settings.value(QStringLiteral("byte_order")).toString() + QLatin1Char('=') +
                     object.value(QStringLiteral("value")).toString());
    }
    EXPECT_EQ(int32, (QStringList{QStringLiteral("00=65538"), QStringLiteral("01=16777728"),
                                  QStringLiteral("10=33554688"), QStringLiteral("11=131073")}));
    // One read of two holding registers and nothing else reached the device.
    ASSERT_EQ(simulator.requestLog().size(), 1U);
    EXPECT_EQ(simulator.requestLog().front().function, kReadHolding);
    EXPECT_EQ(simulator.requestLog().front().count, 2);
}

TEST_F(CommissionTest, ExpectFindsTheOrderAFloatWasStoredIn) {
    const QByteArray abcd = QByteArray::fromHex("43668000");  // 230.5
    const bool orders[4][2] = {{false, false}, {false, true}, {true, false}, {true, true}};
    for (int k = 0; k < 4; ++k)
        simulator.setHoldingRegisters(100 + 10 * k, wordsFor(abcd, orders[k][0], orders[k][1]));
    for (int k = 0; k < 4; ++k) {
        SCOPED_TRACE(k);
        const QString address = QString::number(40101 + 10 * k);
        const auto run = runTool(target(QStringLiteral("inspect"))
                                 << QStringLiteral("--register") << address << QStringLiteral("--expect")
                                 << QStringLiteral("230.5") << QStringLiteral("--json"));
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        const QJsonArray matches = jsonOf(run.out).value(QStringLiteral("matches")).toArray();
        ASSERT_EQ(matches.size(), 1);
        const QJsonObject match = matches.at(0).toObject();
        EXPECT_EQ(match.value(QStringLiteral("type")).toString(), QStringLiteral("FLOAT"));
        EXPECT_EQ(match.value(QStringLiteral("value")).toString(), QStringLiteral("230.5000"));
        EXPECT_EQ(match.value(QStringLiteral("device_settings")).toObject(),
                  (QJsonObject{{QStringLiteral("endianness"), orders[k][0] ? "1" : "0"},
                               {QStringLiteral("byte_order"), orders[k][1] ? "1" : "0"}}));
        EXPECT_EQ(match.value(QStringLiteral("item_settings")).toObject(),
                  (QJsonObject{{QStringLiteral("register"), address}, {QStringLiteral("type"), "5"}}));
    }
    // The text form prints the settings line in column order, ready to paste.
    const auto text =
        runTool(target(QStringLiteral("inspect")) << QStringLiteral("--register") << QStringLiteral("40131")
                                                  << QStringLiteral("--expect") << QStringLiteral("230.5"));
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_TRUE(text.out.contains(QStringLiteral(
        "FLOAT 230.5000 matches 230.5: device settings {\"endianness\": \"1\", \"byte_order\": "
        "\"1\"}, item settings {\"register\": \"40131\", \"type\": \"5\"}\n")))
        << text.out.toStdString();
}

TEST_F(CommissionTest, ExpectFindsStringOrdersAndIntegersAndSaysWhenNothingMatches) {
    simulator.setInputRegisters(7, {0x4142, 0x4344});
    const auto text =
        runTool(target(QStringLiteral("inspect"))
                << QStringLiteral("--register") << QStringLiteral("30008") << QStringLiteral("--expect")
                << QStringLiteral("DCBA") << QStringLiteral("--json"));
    ASSERT_EQ(text.exitCode, 0) << text.err.toStdString();
    const QJsonArray matches = jsonOf(text.out).value(QStringLiteral("matches")).toArray();
    ASSERT_EQ(matches.size(), 1);
    EXPECT_EQ(matches.at(0).toObject().value(QStringLiteral("device_settings")).toObject(),
              (QJsonObject{{QStringLiteral("string_endianness"), "1"},
                           {QStringLiteral("string_byte_order"), "1"}}));
    EXPECT_EQ(matches.at(0).toObject().value(QStringLiteral("item_settings")).toObject(),
              (QJsonObject{{QStringLiteral("register"), "7-8"},
                           {QStringLiteral("type"), "7"},
                           {QStringLiteral("register_type"), "2"}}));
    EXPECT_EQ(simulator.requestCount(kReadInput), 1);

    // 0x4344 is 17220 as INT16 and UINT16, in the plain order only.
    const auto integer =
        runTool(target(QStringLiteral("inspect"))
                << QStringLiteral("--register") << QStringLiteral("8") << QStringLiteral("--register-type")
                << QStringLiteral("2") << QStringLiteral("--count") << QStringLiteral("1")
                << QStringLiteral("--expect") << QStringLiteral("17220"));
    EXPECT_EQ(integer.exitCode, 0);
    EXPECT_TRUE(integer.out.contains(QStringLiteral(
        "INT16 17220 matches 17220: device settings {\"endianness\": \"0\", \"byte_order\": \"0\"}, item "
        "settings {\"register\": \"8\", \"type\": \"1\", \"register_type\": \"2\"}\n")))
        << integer.out.toStdString();

    const auto none =
        runTool(target(QStringLiteral("inspect")) << QStringLiteral("--register") << QStringLiteral("30008")
                                                  << QStringLiteral("--expect") << QStringLiteral("99"));
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_TRUE(none.out.endsWith(QStringLiteral("\nNothing reads as 99.\n"))) << none.out.toStdString();
}

TEST_F(CommissionTest, InspectPrintsCoilsAsBits) {
    simulator.setCoils(4, {1, 0, 1});
    const auto run =
        runTool(target(QStringLiteral("inspect")) << QStringLiteral("--register") << QStringLiteral("00005")
                                                  << QStringLiteral("--count") << QStringLiteral("3"));
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, QStringLiteral("127.0.0.1:%1 unit 1: coils 00005-00007\n\n"
                                      "  register  offset  value\n"
                                      "  --------  ------  -----\n"
                                      "  00005     4       1\n"
                                      "  00006     5       0\n"
                                      "  00007     6       1\n")
                           .arg(port));
    EXPECT_EQ(simulator.requestCount(kReadCoils), 1);
}

TEST_F(CommissionTest, InspectReportsARefusedRead) {
    addHoles();
    const auto run =
        runTool(target(QStringLiteral("inspect")) << QStringLiteral("--register") << QStringLiteral("40010"));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err,
              QStringLiteral("zelt-modbus: reading holding registers 40010-40011 from 127.0.0.1:%1 unit "
                             "1: Illegal data address\n")
                  .arg(port));
}

TEST_F(CommissionTest, MapSplitsRefusedBlocksIntoTheExactRuns) {
    addHoles();
    QElapsedTimer timer;
    timer.start();
    const auto run =
        runTool(target(QStringLiteral("map"))
                << QStringLiteral("--tables") << QStringLiteral("holding") << QStringLiteral("--range")
                << QStringLiteral("0-99") << QStringLiteral("--json"));
    const qint64 elapsed = timer.elapsed();
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonObject json = jsonOf(run.out);
    const QJsonObject holding = tableOf(json, QStringLiteral("holding"));
    EXPECT_EQ(runsOf(holding), (QStringList{QStringLiteral("0-9"), QStringLiteral("15-99")}));
    EXPECT_EQ(holding.value(QStringLiteral("requests")).toInt(), 21);
    EXPECT_EQ(json.value(QStringLiteral("requests")).toInt(), 21);
    EXPECT_EQ(simulator.totalRequests(), 21);
    EXPECT_EQ(simulator.requestCount(kReadHolding), 21);
    // The first request asks for the whole range, the last for the rest of it after blocks that doubled
    // behind the holes.
    const auto log = simulator.requestLog();
    EXPECT_EQ(log.front().address, 0);
    EXPECT_EQ(log.front().count, 100);
    EXPECT_EQ(log.back().address, 88);
    EXPECT_EQ(log.back().count, 12);
    // 21 requests at no more than 20 a second take at least 20 intervals of 50 ms.
    EXPECT_GE(json.value(QStringLiteral("elapsed_ms")).toInt(), 1000);
    EXPECT_GE(elapsed, 1000);
}

TEST_F(CommissionTest, MapSplitsBlocksRefusedWithException3AndHonoursTheRate) {
    modbus_sim::FaultRule rule;
    rule.function = kReadInput;
    rule.address = 40;
    rule.exceptionCode = kIllegalDataValue;
    simulator.addFault(rule);
    const auto run = runTool(target(QStringLiteral("map"))
                             << QStringLiteral("--tables") << QStringLiteral("input")
                             << QStringLiteral("--range") << QStringLiteral("0-99")
                             << QStringLiteral("--rate") << QStringLiteral("10") << QStringLiteral("--json"));
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonObject input = tableOf(jsonOf(run.out), QStringLiteral("input"));
    EXPECT_EQ(runsOf(input), (QStringList{QStringLiteral("0-39"), QStringLiteral("41-99")}));
    EXPECT_EQ(input.value(QStringLiteral("requests")).toInt(), 14);
    EXPECT_EQ(simulator.requestCount(kReadInput), 14);
    // 14 requests at no more than 10 a second: 13 intervals of 100 ms.
    EXPECT_GE(input.value(QStringLiteral("elapsed_ms")).toInt(), 1300);
}

TEST_F(CommissionTest, MapStopsAtTheRequestLimit) {
    addHoles();
    const auto run =
        runTool(target(QStringLiteral("map"))
                << QStringLiteral("--range") << QStringLiteral("0-99") << QStringLiteral("--max-requests")
                << QStringLiteral("5") << QStringLiteral("--json"));
    EXPECT_EQ(run.exitCode, 1);
    const QJsonObject json = jsonOf(run.out);
    EXPECT_EQ(json.value(QStringLiteral("requests")).toInt(), 5);
    EXPECT_EQ(json.value(QStringLiteral("ended")).toString(), QStringLiteral("request limit of 5 reached"));
    EXPECT_EQ(json.value(QStringLiteral("tables")).toArray().size(), 1);
    EXPECT_EQ(runsOf(tableOf(json, QStringLiteral("holding"))), QStringList{QStringLiteral("0-5")});
    EXPECT_EQ(simulator.totalRequests(), 5);
}

TEST_F(CommissionTest, MapFindsADeviceThatAnswersOnlyUnit3) {
    simulator.setUnits({3});
    const auto unit3 = runTool(target(QStringLiteral("map"))
                               << QStringLiteral("--unit") << QStringLiteral("3") << QStringLiteral("--range")
                               << QStringLiteral("0-9") << QStringLiteral("--json"));
    ASSERT_EQ(unit3.exitCode, 0) << unit3.err.toStdString();
    const QJsonObject json = jsonOf(unit3.out);
    for (const QString& table : {QStringLiteral("holding"), QStringLiteral("input"), QStringLiteral("coils"),
                                 QStringLiteral("discrete")}) {
        SCOPED_TRACE(table.toStdString());
        EXPECT_EQ(runsOf(tableOf(json, table)), QStringList{QStringLiteral("0-9")});
        EXPECT_EQ(tableOf(json, table).value(QStringLiteral("requests")).toInt(), 1);
    }
    EXPECT_EQ(simulator.totalRequests(), 4);

    const auto unit1 =
        runTool(target(QStringLiteral("map"))
                << QStringLiteral("--tables") << QStringLiteral("holding") << QStringLiteral("--range")
                << QStringLiteral("0-9") << QStringLiteral("--timeout") << kShortTimeoutMs);
    EXPECT_EQ(unit1.exitCode, 1);
    EXPECT_TRUE(unit1.out.contains(QStringLiteral("\nholding registers: nothing readable, 1 request, ")))
        << unit1.out.toStdString();
    EXPECT_TRUE(
        unit1.out.contains(QStringLiteral("  stopped: no answer at 40001-40010: Connection timed out\n")))
        << unit1.out.toStdString();
}

TEST_F(CommissionTest, MapGoesOnWithTheNextTableAfterATimeout) {
    modbus_sim::FaultRule silence;
    silence.kind = modbus_sim::FaultKind::Silence;
    silence.function = kReadInput;
    simulator.addFault(silence);
    const auto run = runTool(target(QStringLiteral("map"))
                             << QStringLiteral("--tables") << QStringLiteral("holding,input,coils")
                             << QStringLiteral("--range") << QStringLiteral("0-9")
                             << QStringLiteral("--timeout") << kShortTimeoutMs << QStringLiteral("--json"));
    EXPECT_EQ(run.exitCode, 1);
    const QJsonObject json = jsonOf(run.out);
    EXPECT_EQ(runsOf(tableOf(json, QStringLiteral("holding"))), QStringList{QStringLiteral("0-9")});
    EXPECT_EQ(runsOf(tableOf(json, QStringLiteral("input"))), QStringList());
    EXPECT_EQ(tableOf(json, QStringLiteral("input")).value(QStringLiteral("stopped")).toString(),
              QStringLiteral("no answer at 30001-30010: Connection timed out"));
    EXPECT_EQ(runsOf(tableOf(json, QStringLiteral("coils"))), QStringList{QStringLiteral("0-9")});
    EXPECT_EQ(json.value(QStringLiteral("requests")).toInt(), 3);
    EXPECT_EQ(simulator.requestCount(kReadCoils), 1);
    // The late connection was dropped, so the coils were read on a fresh one.
    EXPECT_EQ(simulator.acceptedConnections(), 2);
}

TEST_F(CommissionTest, TheWrittenConfigurationPollsWithoutAnError) {
    addHoles();
    simulator.setHoldingRegisters(0, {11, 12});
    simulator.setHoldingRegisters(15, {1515});
    simulator.setCoils(3, {1});
    const QString path = dir.filePath(QStringLiteral("map.json"));
    const auto map =
        runTool(target(QStringLiteral("map"))
                << QStringLiteral("--tables") << QStringLiteral("holding,coils") << QStringLiteral("--range")
                << QStringLiteral("0-39") << QStringLiteral("--rate") << QStringLiteral("1000")
                << QStringLiteral("--config-out") << path);
    ASSERT_EQ(map.exitCode, 0) << map.err.toStdString();
    EXPECT_EQ(map.err, QStringLiteral("zelt-modbus map: wrote %1: 3 devices, 75 items\n").arg(path));

    zelt_cli::Config config;
    QString error;
    ASSERT_TRUE(zelt_cli::readConfigFile(path, &config, &error)) << error.toStdString();
    ASSERT_EQ(config.devices.size(), 3);
    EXPECT_EQ(config.devices.at(0).name, QStringLiteral("holding 40001-40010"));
    EXPECT_EQ(config.devices.at(1).name, QStringLiteral("holding 40016-40040"));
    EXPECT_EQ(config.devices.at(2).name, QStringLiteral("coils 00001-00040"));
    EXPECT_EQ(config.devices.at(1).settings.value(QStringLiteral("port")), port);
    EXPECT_EQ(config.devices.at(1).settings.value(QStringLiteral("server_id")), QStringLiteral("1"));
    EXPECT_EQ(config.devices.at(1).items.first().uid, QStringLiteral("holding_15"));
    EXPECT_EQ(config.devices.at(1).items.first().settings,
              (QMap<QString, QString>{{QStringLiteral("register"), QStringLiteral("40016")},
                                      {QStringLiteral("type"), QStringLiteral("2")}}));
    EXPECT_EQ(config.devices.at(2).items.at(3).settings,
              (QMap<QString, QString>{{QStringLiteral("register"), QStringLiteral("00004")},
                                      {QStringLiteral("type"), QStringLiteral("0")}}));

    simulator.clearRequestLog();
    const auto poll = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                               QStringLiteral("--count"), QStringLiteral("1"), QStringLiteral("--json")});
    ASSERT_EQ(poll.exitCode, 0) << poll.out.toStdString() << poll.err.toStdString();
    const QList<QJsonObject> lines = pollLines(poll.out);
    ASSERT_EQ(lines.size(), 3);
    EXPECT_EQ(itemOf(lines.at(0), QStringLiteral("holding_1")).value(QStringLiteral("value")).toString(),
              QStringLiteral("12"));
    EXPECT_EQ(itemOf(lines.at(1), QStringLiteral("holding_15")).value(QStringLiteral("value")).toString(),
              QStringLiteral("1515"));
    EXPECT_EQ(itemOf(lines.at(2), QStringLiteral("coils_3")).value(QStringLiteral("value")).toString(),
              QStringLiteral("1"));
    // No read of the poll touched a hole.
    for (const auto& record : simulator.requestLog())
        if (record.function == kReadHolding) {
            EXPECT_TRUE(record.address + record.count <= 10 || record.address >= 15);
        }
}

TEST_F(CommissionTest, CtrlCPrintsWhatWasFoundSoFar) {
    QProcess process;
    zelt_test::startProgram(process, zelt_modbus_test::toolPath(),
                            target(QStringLiteral("map"))
                                << QStringLiteral("--tables") << QStringLiteral("coils,holding")
                                << QStringLiteral("--rate") << QStringLiteral("2"));
    ASSERT_TRUE(process.waitForStarted());
    // Five requests cover the coils; the first holding request follows, and the next one waits half a second.
    for (int attempt = 0; attempt < kWaitAttempts && simulator.requestCount(kReadHolding) == 0; ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(kWaitSliceMs));
    ASSERT_EQ(simulator.requestCount(kReadHolding), 1);
    ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    ASSERT_TRUE(process.waitForFinished(zelt_modbus_test::kRunTimeoutMs));
    EXPECT_EQ(process.exitCode(), 130);
    const QString out = QString::fromUtf8(process.readAllStandardOutput());
    EXPECT_TRUE(out.contains(QStringLiteral("\ncoils: 1 readable run, 5 requests, "))) << out.toStdString();
    EXPECT_TRUE(out.contains(QStringLiteral(" Ended early: interrupted.\n"))) << out.toStdString();
    EXPECT_TRUE(QString::fromUtf8(process.readAllStandardError())
                    .contains(QStringLiteral("interrupted; the map above is what was found until then")));
}

TEST(CommissionConfigWriter, CandidatesBecomeDevicesWithoutItemsThatPollAccepts) {
    const QJsonArray candidates = QJsonDocument::fromJson(R"json([
        {"external_id": "modbus_10_0_0_2_1502_3", "uid_hint": "modbus_10_0_0_2_1502_3",
         "name": "Modbus 10.0.0.2", "description": "Modbus TCP at 10.0.0.2:1502 unit 3", "address": "10.0.0.2",
         "user_defined_fields": {"port": "1502", "server_id": "3", "persistent_connection": "1",
                                 "max_read_registers": "123", "write_preset": "1", "endianness": "0"}},
        {"external_id": "x", "uid_hint": "x", "name": "AM-7 (10.0.0.3)", "description": "",
         "address": "10.0.0.3", "user_defined_fields": {"port": "502", "server_id": "1"}}])json")
                                      .array();
    const zelt_cli::Config written = zelt_cli::configFromCandidates(candidates);
    zelt_cli::Config read;
    QString error;
    ASSERT_TRUE(zelt_cli::parseConfig(zelt_cli::configToJson(written), QStringLiteral("discovered.json"),
                                      &read, &error))
        << error.toStdString();
    ASSERT_EQ(read.devices.size(), 2);
    EXPECT_EQ(read.devices.at(0).id, 1);
    EXPECT_EQ(read.devices.at(0).name, QStringLiteral("Modbus 10.0.0.2"));
    EXPECT_EQ(read.devices.at(0).address, QStringLiteral("10.0.0.2"));
    EXPECT_EQ(read.devices.at(0).settings,
              (QMap<QString, QString>{{QStringLiteral("port"), QStringLiteral("1502")},
                                      {QStringLiteral("server_id"), QStringLiteral("3")},
                                      {QStringLiteral("persistent_connection"), QStringLiteral("1")},
                                      {QStringLiteral("max_read_registers"), QStringLiteral("123")},
                                      {QStringLiteral("write_preset"), QStringLiteral("1")},
                                      {QStringLiteral("endianness"), QStringLiteral("0")}}));
    EXPECT_TRUE(read.devices.at(0).items.isEmpty());
    EXPECT_EQ(read.devices.at(1).id, 2);
    EXPECT_EQ(read.devices.at(1).name, QStringLiteral("AM-7 (10.0.0.3)"));
}

TEST_F(CommissionTest, PollAcceptsADiscoveredDeviceWithoutItems) {
    const QJsonArray candidates{QJsonObject{
        {QStringLiteral("name"), QStringLiteral("Modbus 127.0.0.1")},
        {QStringLiteral("address"), QStringLiteral("127.0.0.1")},
        {QStringLiteral("user_defined_fields"),
         QJsonObject{{QStringLiteral("port"), port}, {QStringLiteral("server_id"), QStringLiteral("1")}}}}};
    const QString path = dir.filePath(QStringLiteral("discovered.json"));
    ASSERT_TRUE(writeFile(path, zelt_cli::configToJson(zelt_cli::configFromCandidates(candidates))));
    const auto poll = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                               QStringLiteral("--count"), QStringLiteral("1")});
    EXPECT_EQ(poll.exitCode, 0) << poll.out.toStdString() << poll.err.toStdString();
    EXPECT_TRUE(poll.out.startsWith(QStringLiteral("Poll 1, device 1 Modbus 127.0.0.1 (127.0.0.1): ok\n")))
        << poll.out.toStdString();
    // The device was reached: the plugin read its identity.
    EXPECT_GT(simulator.totalRequests(), 0);
    EXPECT_EQ(simulator.requestCount(kReadHolding), 0);
}

}  // namespace
