// zelt-modbus identify against the simulator over loopback: the identification the plugin reads in its first
// poll, in the order the plugin declares its identity items, as text and as JSON; a device without
// identification, one that cannot be reached, and the device of a configuration file.

#include <gtest/gtest.h>

#include "tools/sim/simulator.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::runTool;
using zelt_modbus_test::ToolRun;
using zelt_modbus_test::writeFile;

constexpr int kUnreachable = 1;
constexpr int kUsage = 2;
constexpr int kFcReadDeviceIdentification = 43;

modbus_sim::DeviceIdentification fullIdentification() {
    modbus_sim::DeviceIdentification identification;
    identification.objects = {{0x00, "ACME Meters"},          {0x01, "AM-3"},      {0x02, "v2.1"},
                              {0x03, "https://acme.example"}, {0x04, "Meter Pro"}, {0x05, "AM-3 Pro"},
                              {0x06, "energy \"logger\""}};
    // Paged, so that the fields arrive over several answers and not in their printed order.
    identification.objectsPerResponse = 2;
    return identification;
}

const QString kFullText = QStringLiteral(
    "Vendor: ACME Meters\n"
    "Product code: AM-3\n"
    "Revision: v2.1\n"
    "Vendor URL: https://acme.example\n"
    "Product name: Meter Pro\n"
    "Model: AM-3 Pro\n"
    "User application: energy \"logger\"\n");

const QString kFullJson = QStringLiteral(
    R"({"vendor":"ACME Meters","product_code":"AM-3","version":"v2.1","vendor_url":"https://acme.example",)"
    R"("product_name":"Meter Pro","model":"AM-3 Pro","user_application":"energy \"logger\""})"
    "\n");

class IdentifyTest : public ::testing::Test {
protected:
    void SetUp() override {
        QString error;
        ASSERT_TRUE(simulator.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
    }

    ToolRun identify(const QStringList& more = {}) {
        return runTool(QStringList{QStringLiteral("identify"), QStringLiteral("--address"),
                                   QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                                   QString::number(simulator.port())} +
                       more);
    }

    modbus_sim::Simulator simulator;
};

TEST_F(IdentifyTest, PrintsEveryFieldInTheDeclaredOrder) {
    simulator.setDeviceIdentification(fullIdentification());
    const ToolRun run = identify();
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, kFullText);
    EXPECT_EQ(run.err, QString());
    EXPECT_GE(simulator.requestCount(kFcReadDeviceIdentification), 2);
}

TEST_F(IdentifyTest, JsonIsOneObjectInTheSameOrder) {
    simulator.setDeviceIdentification(fullIdentification());
    const ToolRun run = identify({QStringLiteral("--json")});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, kFullJson);
    EXPECT_EQ(run.err, QString());
}

TEST_F(IdentifyTest, OnlyTheFieldsTheDeviceGaveArePrinted) {
    modbus_sim::DeviceIdentification identification;
    identification.objects = {{0x00, "ACME Meters"}, {0x01, "AM-3"}, {0x02, "v2.1"}, {0x05, "AM-3 Pro"}};
    simulator.setDeviceIdentification(identification);
    ToolRun run = identify();
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out,
              QStringLiteral("Vendor: ACME Meters\nProduct code: AM-3\nRevision: v2.1\nModel: AM-3 Pro\n"));
    run = identify({QStringLiteral("--json")});
    EXPECT_EQ(
        run.out,
        QStringLiteral(R"({"vendor":"ACME Meters","product_code":"AM-3","version":"v2.1","model":"AM-3 Pro"})"
                       "\n"));
}

TEST_F(IdentifyTest, ADeviceWithoutIdentificationPrintsNothingAndExitsZero) {
    modbus_sim::DeviceIdentification none;
    none.enabled = false;
    simulator.setDeviceIdentification(none);
    simulator.clearReportSlaveId();
    const QString note =
        QStringLiteral(
            "zelt-modbus identify: 127.0.0.1:%1 unit 1: no identification (neither Read Device "
            "Identification nor Report Slave ID gave any)\n")
            .arg(simulator.port());
    ToolRun run = identify();
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, QString());
    EXPECT_EQ(run.err, note);
    run = identify({QStringLiteral("--json")});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, QStringLiteral("{}\n"));
    EXPECT_EQ(run.err, note);
}

TEST_F(IdentifyTest, ADeviceThatCannotBeReachedExitsOneWithItsError) {
    modbus_sim::Simulator closed;
    ASSERT_TRUE(closed.start());
    const uint16_t closedPort = closed.port();
    closed.stop();
    for (const QStringList& more : {QStringList(), QStringList{QStringLiteral("--json")}}) {
        const ToolRun run = runTool(QStringList{QStringLiteral("identify"), QStringLiteral("--address"),
                                                QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                                                QString::number(closedPort)} +
                                    more);
        EXPECT_EQ(run.exitCode, kUnreachable);
        EXPECT_EQ(run.out, QString());
        EXPECT_EQ(run.err, QStringLiteral("zelt-modbus identify: 127.0.0.1:%1 unit 1: Could not connect. "
                                          "Connection refused\n")
                               .arg(closedPort));
    }
}

TEST_F(IdentifyTest, TheDeviceOfAConfigurationFileIsIdentifiedWithItsSettings) {
    simulator.setDeviceIdentification(fullIdentification());
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("plant.json"));
    ASSERT_TRUE(writeFile(path, QStringLiteral(R"({"devices": [
        {"id": 3, "name": "other", "address": "127.0.0.2", "settings": {"port": "1"}},
        {"id": 7, "name": "meter", "address": "127.0.0.1", "settings": {"port": "%1", "server_id": "1"},
         "items": [{"uid": "t", "settings": {"register": "40001", "type": "FLOAT"}}]}]})")
                                    .arg(simulator.port())
                                    .toUtf8()));
    const ToolRun run = runTool({QStringLiteral("identify"), QStringLiteral("--config"), path,
                                 QStringLiteral("--device"), QStringLiteral("7")});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, kFullText);
    // Only the identification is read, not the device's items.
    EXPECT_EQ(simulator.requestCount(3), 0);
}

TEST(IdentifyCommand, HelpAndUsageErrors) {
    const ToolRun help = runTool({QStringLiteral("identify"), QStringLiteral("--help")});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.startsWith(QStringLiteral("Usage: zelt-modbus identify [options]\n")));
    const ToolRun top = runTool({QStringLiteral("--help")});
    EXPECT_TRUE(
        top.out.contains(QStringLiteral("\n  identify   read a device's identification (vendor, product "
                                        "code, revision, ...) through the plugin\n")));

    const ToolRun none = runTool({QStringLiteral("identify")});
    EXPECT_EQ(none.exitCode, kUsage);
    EXPECT_TRUE(none.err.startsWith(QStringLiteral(
        "zelt-modbus identify: give either --address or --config\nUsage: zelt-modbus identify")))
        << none.err.toStdString();
    const ToolRun bogus = runTool({QStringLiteral("identify"), QStringLiteral("--bogus")});
    EXPECT_EQ(bogus.exitCode, kUsage);
    EXPECT_TRUE(bogus.err.startsWith(QStringLiteral("zelt-modbus identify: unknown argument --bogus\n")));
}

}  // namespace
