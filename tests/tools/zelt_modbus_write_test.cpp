// zelt-modbus write against the simulator over loopback: what reaches the registers, the printed result, item
// errors of the write path and the exit codes.

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "tools/sim/simulator.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::runTool;
using zelt_modbus_test::writeFile;

constexpr int kIllegalDataAddress = 2;
constexpr int kFcWriteSingleRegister = 6;
constexpr int kFcWriteMultipleRegisters = 16;

class WriteCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        modbus_sim::FaultRule fault;
        fault.kind = modbus_sim::FaultKind::Exception;
        fault.address = 900;
        fault.exceptionCode = kIllegalDataAddress;
        simulator.addFault(fault);
        QString error;
        ASSERT_TRUE(simulator.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
        path = dir.filePath(QStringLiteral("meter.json"));
        const QByteArray json = QStringLiteral(R"({"devices": [
            {"id": 1, "name": "meter", "address": "127.0.0.1", "settings": {"port": "%1"}, "items": [
              {"uid": "sp", "name": "setpoint", "settings": {"register": "40001", "type": "5"}},
              {"uid": "i32", "settings": {"register": "40011", "type": "3"}},
              {"uid": "label", "settings": {"register": "40021-40022", "type": "7"}},
              {"uid": "flag", "settings": {"register": "40031.3", "type": "0"}},
              {"uid": "relay", "settings": {"register": "00005", "type": "0"}},
              {"uid": "refused", "settings": {"register": "40901", "type": "2"}}]},
            {"id": 2, "name": "single", "address": "127.0.0.1",
             "settings": {"port": "%1", "write_preset": "0", "endianness": "1", "byte_order": "1"}, "items": [
              {"uid": "s32", "settings": {"register": "40041", "type": "3"}}]}]})")
                                    .arg(simulator.port())
                                    .toUtf8();
        ASSERT_TRUE(writeFile(path, json));
    }

    zelt_modbus_test::ToolRun write(const QString& device, const QString& uid, const QString& value,
                                    const QStringList& more = {}) {
        return runTool(QStringList{QStringLiteral("write"), QStringLiteral("--config"), path,
                                   QStringLiteral("--device"), device, QStringLiteral("--item"), uid,
                                   QStringLiteral("--value"), value, QStringLiteral("--json")} +
                       more);
    }

    QTemporaryDir dir;
    modbus_sim::Simulator simulator;
    QString path;
};

TEST_F(WriteCommandTest, WritesValuesAndPrintsTheResult) {
    struct Row {
        const char* device;
        const char* uid;
        const char* value;
        int address;
        std::vector<uint16_t> registers;
        int function;
    };
    const Row rows[] = {
        {"1", "sp", "1", 0, {0x3F80, 0x0000}, kFcWriteMultipleRegisters},
        {"1", "i32", "-2", 10, {0xFFFF, 0xFFFE}, kFcWriteMultipleRegisters},
        {"1", "label", "ABC", 20, {0x4142, 0x4300}, kFcWriteMultipleRegisters},
        // Little/Low: the two registers in reverse order, each high byte first.
        {"2", "s32", "-2", 40, {0xFFFE, 0xFFFF}, kFcWriteSingleRegister},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.uid);
        simulator.clearRequestLog();
        const auto run = write(QLatin1String(row.device), QLatin1String(row.uid), QLatin1String(row.value));
        EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
        const QJsonObject result = QJsonDocument::fromJson(run.out.toUtf8()).object();
        EXPECT_TRUE(result.value("ok").toBool());
        EXPECT_EQ(result.value("error").toString(), QString());
        const QJsonArray items = result.value("items").toArray();
        ASSERT_EQ(items.size(), 1);
        EXPECT_EQ(items.at(0).toObject().value("uid").toString(), QLatin1String(row.uid));
        EXPECT_EQ(items.at(0).toObject().value("error").toString(), QString());
        EXPECT_EQ(simulator.holdingRegisters(row.address, static_cast<int>(row.registers.size())),
                  row.registers);
        EXPECT_GE(simulator.requestCount(row.function), 1);
    }
}

TEST_F(WriteCommandTest, WritesBitsAndCoils) {
    simulator.setHoldingRegisters(30, {0x0001});
    auto run = write(QStringLiteral("1"), QStringLiteral("flag"), QStringLiteral("1"));
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(simulator.holdingRegisters(30, 1), std::vector<uint16_t>{0x0009});
    run = write(QStringLiteral("1"), QStringLiteral("relay"), QStringLiteral("1"));
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(simulator.coils(4, 1), std::vector<uint8_t>{1});
}

TEST_F(WriteCommandTest, ItemErrorsOfTheWritePathExitOne) {
    struct Row {
        const char* uid;
        const char* value;
        const char* error;
    };
    const Row rows[] = {
        {"label", "ABCDE", "String too long. Size 5 bytes but expected 4 bytes"},
        {"flag", "true", "Invalid bool/bit value to write. Val: true"},
        // The server refuses the request; the plugin logs it and the tool reports the connection's text.
        {"refused", "7", "Could not write words: Illegal data address"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.uid);
        // --raw: the tool itself would refuse "true" for a bit before the plugin sees it.
        const auto run = write(QStringLiteral("1"), QLatin1String(row.uid), QLatin1String(row.value),
                               {QStringLiteral("--raw")});
        EXPECT_EQ(run.exitCode, 1);
        const QJsonObject result = QJsonDocument::fromJson(run.out.toUtf8()).object();
        EXPECT_TRUE(result.value("ok").toBool());
        EXPECT_EQ(result.value("error").toString(), QString());
        EXPECT_EQ(result.value("items").toArray().at(0).toObject().value("error").toString(),
                  QLatin1String(row.error));
    }
    EXPECT_EQ(simulator.holdingRegisters(20, 2), (std::vector<uint16_t>{0, 0}));
}

TEST_F(WriteCommandTest, ADeviceThatCannotBeReachedFailsTheBatch) {
    modbus_sim::Simulator closed;
    ASSERT_TRUE(closed.start());
    const uint16_t closedPort = closed.port();
    closed.stop();
    const QString downPath = dir.filePath(QStringLiteral("down.json"));
    ASSERT_TRUE(writeFile(downPath, QStringLiteral(R"({"devices": [{"id": 3, "address": "127.0.0.1",
        "settings": {"port": "%1"}, "items": [{"uid": "x", "settings": {"register": "40001", "type": "2"}}]}]})")
                                        .arg(closedPort)
                                        .toUtf8()));
    const auto run =
        runTool({QStringLiteral("write"), QStringLiteral("--config"), downPath, QStringLiteral("--device"),
                 QStringLiteral("3"), QStringLiteral("--item"), QStringLiteral("x"),
                 QStringLiteral("--value"), QStringLiteral("1"), QStringLiteral("--json")});
    EXPECT_EQ(run.exitCode, 1);
    const QJsonObject result = QJsonDocument::fromJson(run.out.toUtf8()).object();
    EXPECT_FALSE(result.value("ok").toBool());
    EXPECT_EQ(result.value("error").toString(), QStringLiteral("Could not connect. Connection refused"));
}

TEST_F(WriteCommandTest, PrintsAPlainResultWithoutJson) {
    const auto run = runTool({QStringLiteral("write"), QStringLiteral("--config"), path,
                              QStringLiteral("--device"), QStringLiteral("1"), QStringLiteral("--item"),
                              QStringLiteral("sp"), QStringLiteral("--value"), QStringLiteral("21.5")});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, QStringLiteral("Write setpoint = 21.5 to device 1 meter (127.0.0.1): ok\n"));
    EXPECT_EQ(simulator.holdingRegisters(0, 2), (std::vector<uint16_t>{0x41AC, 0x0000}));
}

TEST_F(WriteCommandTest, AnUnknownDeviceOrItemIsRefusedBeforeAnyTraffic) {
    struct Row {
        const char* device;
        const char* uid;
        const char* message;
    };
    const Row rows[] = {
        {"9", "sp", "zelt-modbus: %1: no device with id 9\n"},
        {"x", "sp", "zelt-modbus: %1: no device with id x\n"},
        {"1", "nope", "zelt-modbus: %1: device 1 has no item with uid \"nope\"\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        const auto run = write(QLatin1String(row.device), QLatin1String(row.uid), QStringLiteral("1"));
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_EQ(run.err, QString::fromLatin1(row.message).arg(path));
    }
    EXPECT_EQ(simulator.acceptedConnections(), 0);
    EXPECT_EQ(simulator.totalRequests(), 0);
}

}  // namespace
