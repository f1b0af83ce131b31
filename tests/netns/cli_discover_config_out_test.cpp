// zelt-modbus discover --config-out inside network namespaces that the test creates and removes: the written
// configuration holds one device per candidate with the settings the candidate carries, and poll, run in the
// same namespace, reads every device of it as it stands.
#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include "tests/common/netns_testbed.h"
#include "tests/common/program_command.h"
#include "tests/tools/zelt_modbus_runner.h"
#include "tools/sim/simulator.h"

namespace {

using modbus_sim::DeviceIdentification;
using modbus_sim::Simulator;
using netns_testbed::Testbed;
using zelt_modbus_test::ToolRun;

constexpr uint16_t kPort = 1502;
const char kScannerAddress[] = "10.79.0.1/24";
const char kMeter[] = "10.79.0.10";  // identifies itself, answers only unit 1
const char kPlain[] = "10.79.0.11";  // answers only unit 3, without identification
constexpr int kPlainUnit = 3;

class CliDiscoverConfigOutTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(testbed.create(kScannerAddress,
                                   {std::string(kMeter) + "/24", std::string(kPlain) + "/24"}, &error))
            << "cannot build the namespace testbed (root and iproute2 needed): " << error;
        DeviceIdentification identification;
        identification.objects = {{0x00, "ACME"}, {0x01, "AM-1"}, {0x02, "1.4"}, {0x05, "Model A"}};
        meter.setDeviceIdentification(identification);
        meter.setUnits({1});
        DeviceIdentification none;
        none.enabled = false;
        plain.setDeviceIdentification(none);
        plain.setUnits({kPlainUnit});
        bool started = false;
        QString failure;
        ASSERT_TRUE(testbed.runInDevices(
            [&] { started = meter.start(kMeter, kPort, &failure) && plain.start(kPlain, kPort, &failure); }));
        ASSERT_TRUE(started) << failure.toStdString();
        ASSERT_TRUE(dir.isValid());
    }

    void TearDown() override {
        meter.stop();
        plain.stop();
        testbed.destroy();
    }

    // The tool run in the scanner namespace, through the emulator on a cross build.
    ToolRun tool(const QStringList& arguments) {
        return zelt_modbus_test::runProgram(
            QStringLiteral("ip"), QStringList{QStringLiteral("netns"), QStringLiteral("exec"),
                                              QString::fromStdString(testbed.scannerNamespace)} +
                                      zelt_test::commandFor(zelt_modbus_test::toolPath()) + arguments);
    }

    Testbed testbed;
    Simulator meter;
    Simulator plain;
    QTemporaryDir dir;
};

TEST_F(CliDiscoverConfigOutTest, TheWrittenConfigurationPollsEveryCandidate) {
    const QString path = dir.filePath(QStringLiteral("discovered.json"));
    const ToolRun discover = tool(
        {QStringLiteral("discover"), QStringLiteral("--hosts"), QStringLiteral("%1,%2").arg(kMeter, kPlain),
         QStringLiteral("--ports"), QString::number(kPort), QStringLiteral("--units"), QStringLiteral("1,3"),
         QStringLiteral("--timeout"), QStringLiteral("10000"), QStringLiteral("--config-out"), path});
    ASSERT_EQ(discover.exitCode, 0) << discover.err.toStdString();
    EXPECT_TRUE(
        discover.err.contains(QStringLiteral("zelt-modbus discover: wrote %1: 2 devices\n").arg(path)))
        << discover.err.toStdString();

    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QJsonArray devices = QJsonDocument::fromJson(file.readAll()).object().value("devices").toArray();
    ASSERT_EQ(devices.size(), 2);
    const bool meterFirst = devices.at(0).toObject().value("address").toString() == QLatin1String(kMeter);
    const QJsonObject meterDevice = devices.at(meterFirst ? 0 : 1).toObject();
    const QJsonObject plainDevice = devices.at(meterFirst ? 1 : 0).toObject();
    EXPECT_EQ(devices.at(0).toObject().value("id").toInt(), 1);
    EXPECT_EQ(devices.at(1).toObject().value("id").toInt(), 2);
    EXPECT_EQ(meterDevice.value("name").toString(), QStringLiteral("Model A (10.79.0.10)"));
    EXPECT_EQ(meterDevice.value("settings").toObject().value("server_id").toString(), QStringLiteral("1"));
    EXPECT_EQ(plainDevice.value("name").toString(), QStringLiteral("Modbus 10.79.0.11"));
    EXPECT_EQ(plainDevice.value("address").toString(), QStringLiteral("10.79.0.11"));
    EXPECT_EQ(plainDevice.value("settings").toObject(), (QJsonObject{{"port", "1502"},
                                                                     {"server_id", "3"},
                                                                     {"persistent_connection", "1"},
                                                                     {"max_read_registers", "123"},
                                                                     {"write_preset", "1"},
                                                                     {"endianness", "0"},
                                                                     {"byte_order", "0"},
                                                                     {"string_endianness", "0"},
                                                                     {"string_byte_order", "0"}}));
    EXPECT_EQ(plainDevice.value("items").toArray(), QJsonArray());

    const ToolRun poll = tool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                               QStringLiteral("--count"), QStringLiteral("1")});
    EXPECT_EQ(poll.exitCode, 0) << poll.out.toStdString() << poll.err.toStdString();
    EXPECT_TRUE(poll.out.contains(QStringLiteral("device 2 ")));
    EXPECT_EQ(poll.out.count(QStringLiteral("): ok\n")), 2) << poll.out.toStdString();
}

}  // namespace
