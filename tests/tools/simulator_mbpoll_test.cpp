// The simulator against an independent client (mbpoll), and the modbus-sim executable.

#include <gtest/gtest.h>
#include <signal.h>

#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <map>
#include <vector>

#include "tools/sim/simulator.h"
#include "tools/simulator_raw_client.h"
#include "tools/simulator_shared_cases.h"

namespace {

using modbus_sim::Simulator;
using simulator_test::adu;
using simulator_test::kAnswerWaitMs;
using simulator_test::RawClient;

const QString kMbpoll = QStringLiteral("/usr/bin/mbpoll");

struct MbpollResult {
    int exitCode = -1;
    std::map<int, long> values;  // reference (1-based) -> value
    QString output;
};

// Runs mbpoll once against the simulator; reads when `writeValues` is empty, writes them otherwise.
MbpollResult runMbpoll(uint16_t port, const QString& table, int unit, int reference, int count,
                       const QStringList& writeValues = {}) {
    QStringList arguments = {QStringLiteral("-m"),  QStringLiteral("tcp"),      QStringLiteral("-a"),
                             QString::number(unit), QStringLiteral("-t"),       table,
                             QStringLiteral("-r"),  QString::number(reference), QStringLiteral("-p"),
                             QString::number(port), QStringLiteral("-o"),       QStringLiteral("2")};
    if (writeValues.isEmpty())
        arguments << QStringLiteral("-c") << QString::number(count) << QStringLiteral("-1");
    arguments << QStringLiteral("127.0.0.1") << writeValues;
    QProcess process;
    process.start(kMbpoll, arguments);
    MbpollResult result;
    if (!process.waitForFinished(kAnswerWaitMs * 2)) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    result.exitCode = process.exitCode();
    result.output = QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
    // Values are printed as "[reference]: <tab>value", registers above 32767 followed by "(negative)".
    const QRegularExpression line(QStringLiteral("^\\[(\\d+)\\]:\\s+(-?\\d+)"),
                                  QRegularExpression::MultilineOption);
    auto matches = line.globalMatch(result.output);
    while (matches.hasNext()) {
        const auto match = matches.next();
        result.values[match.captured(1).toInt()] = match.captured(2).toLong();
    }
    return result;
}

class SimulatorMbpollTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!QFileInfo::exists(kMbpoll)) GTEST_SKIP() << "mbpoll is not installed";
        ASSERT_TRUE(simulator.start());
    }
    Simulator simulator;
};

TEST_F(SimulatorMbpollTest, ReadsWhatTheSimulatorHolds) {
    simulator.setHoldingRegisters(100, {1, 2, 3, 65535});
    simulator.setInputRegisters(7, {0x1234, 42});
    simulator.setCoils(20, {1, 0, 1, 1, 0});
    simulator.setDiscreteInputs(0, {0, 1, 1});
    struct Row {
        const char* name;
        const char* table;
        int address;
        int count;
    };
    const Row rows[] = {
        {"holding registers", "4", 100, 4},
        {"input registers", "3", 7, 2},
        {"coils", "0", 20, 5},
        {"discrete inputs", "1", 0, 3},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        // mbpoll numbers references from 1: reference n is address n - 1.
        const MbpollResult result = runMbpoll(simulator.port(), row.table, 1, row.address + 1, row.count);
        ASSERT_EQ(result.exitCode, 0) << result.output.toStdString();
        std::map<int, long> expected;
        const QString table = row.table;
        for (int i = 0; i < row.count; ++i) {
            const int address = row.address + i;
            long value = 0;
            if (table == QLatin1String("4")) value = simulator.holdingRegisters(address, 1).at(0);
            if (table == QLatin1String("3")) value = simulator.inputRegisters(address, 1).at(0);
            if (table == QLatin1String("0")) value = simulator.coils(address, 1).at(0);
            if (table == QLatin1String("1")) value = simulator.discreteInputs(address, 1).at(0);
            expected[address + 1] = value;
        }
        EXPECT_EQ(result.values, expected) << result.output.toStdString();
    }
    EXPECT_EQ(simulator.requestCount(1), 1);
    EXPECT_EQ(simulator.requestCount(2), 1);
    EXPECT_EQ(simulator.requestCount(3), 1);
    EXPECT_EQ(simulator.requestCount(4), 1);
}

TEST_F(SimulatorMbpollTest, WritesReachTheTables) {
    MbpollResult result = runMbpoll(simulator.port(), QStringLiteral("4"), 1, 11, 2,
                                    {QStringLiteral("1234"), QStringLiteral("5678")});
    ASSERT_EQ(result.exitCode, 0) << result.output.toStdString();
    EXPECT_EQ(simulator.holdingRegisters(10, 2), std::vector<uint16_t>({1234, 5678}));
    result = runMbpoll(simulator.port(), QStringLiteral("0"), 1, 5, 3,
                       {QStringLiteral("1"), QStringLiteral("0"), QStringLiteral("1")});
    ASSERT_EQ(result.exitCode, 0) << result.output.toStdString();
    EXPECT_EQ(simulator.coils(4, 3), std::vector<uint8_t>({1, 0, 1}));
}

TEST_F(SimulatorMbpollTest, UnitNotServedTimesOut) {
    simulator.setUnits({1});
    const MbpollResult result = runMbpoll(simulator.port(), QStringLiteral("4"), 2, 1, 1);
    EXPECT_NE(result.exitCode, 0);
    EXPECT_TRUE(result.values.empty());
    EXPECT_TRUE(result.output.contains(QStringLiteral("Connection timed out")))
        << result.output.toStdString();
}

using simulator_test::kSimulatorProgram;

class ModbusSimProgramTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!QFileInfo::exists(kSimulatorProgram)) GTEST_SKIP() << "modbus-sim is not built";
    }
};

TEST_F(ModbusSimProgramTest, ServesAMapUntilTerminated) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString map = dir.filePath(QStringLiteral("map.json"));
    {
        QFile file(map);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(R"({"holding_registers": {"0": [11, 22]}})");
    }
    QProcess process;
    const uint16_t port = simulator_test::startSimulatorProgram(process, {QStringLiteral("--map"), map});
    ASSERT_NE(port, 0);
    RawClient client;
    ASSERT_TRUE(client.connectTo(port));
    EXPECT_EQ(client.exchange(adu(1, 1, "0300000002")).toHex(), QByteArray("000100000007010304000b0016"));
    ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
    ASSERT_TRUE(process.waitForFinished(kAnswerWaitMs));
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_TRUE(client.readUntilClosed().isEmpty());
    EXPECT_EQ(client.lastError, 0);
}

TEST_F(ModbusSimProgramTest, OptionsAndErrors) {
    struct Row {
        const char* name;
        QStringList arguments;
        int exitCode;
        const char* stdoutStart;
        const char* stderrStart;
    };
    const Row rows[] = {
        {"help",
         {QStringLiteral("--help")},
         0,
         "Usage: modbus-sim [--listen ADDR] [--port N] [--map FILE]\n",
         ""},
        {"unknown option",
         {QStringLiteral("--bogus")},
         2,
         "",
         "modbus-sim: unknown option --bogus\nUsage: modbus-sim"},
        {"missing value", {QStringLiteral("--port")}, 2, "", "modbus-sim: missing value for --port\nUsage:"},
        {"bad port",
         {QStringLiteral("--port"), QStringLiteral("70000")},
         2,
         "",
         "modbus-sim: bad port 70000\n"},
        {"missing map",
         {QStringLiteral("--map"), QStringLiteral("/nonexistent/map.json")},
         1,
         "",
         "modbus-sim: /nonexistent/map.json: No such file or directory\n"},
        {"bad address",
         {QStringLiteral("--listen"), QStringLiteral("nowhere")},
         1,
         "",
         "modbus-sim: not an IPv4 address: nowhere\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        QProcess process;
        zelt_test::startProgram(process, kSimulatorProgram, row.arguments);
        ASSERT_TRUE(process.waitForFinished(kAnswerWaitMs));
        EXPECT_EQ(process.exitCode(), row.exitCode);
        const QByteArray out = process.readAllStandardOutput();
        const QByteArray err = process.readAllStandardError();
        EXPECT_TRUE(out.startsWith(row.stdoutStart)) << out.toStdString();
        EXPECT_TRUE(err.startsWith(row.stderrStart)) << err.toStdString();
        if (QByteArray(row.stdoutStart).isEmpty()) {
            EXPECT_TRUE(out.isEmpty()) << out.toStdString();
        }
    }
}

}  // namespace
