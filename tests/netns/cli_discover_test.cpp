// zelt-modbus discover inside a network namespace that the test creates and removes: simulators listen at
// addresses of a veth peer namespace, the tool runs in the scanner namespace with `ip netns exec`, so no
// probe ever leaves the namespaces.
#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
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
const char kScannerAddress[] = "10.78.0.1/24";
const char kMeter[] = "10.78.0.10";    // identifies itself with device-id objects
const char kPlain[] = "10.78.0.11";    // no identification at all
const char kNothing[] = "10.78.0.12";  // address assigned, nothing listening

class CliDiscoverTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(testbed.create(
            kScannerAddress,
            {std::string(kMeter) + "/24", std::string(kPlain) + "/24", std::string(kNothing) + "/24"},
            &error))
            << "cannot build the namespace testbed (root and iproute2 needed): " << error;
        DeviceIdentification identification;
        identification.objects = {{0x00, "ACME"}, {0x01, "AM-1"}, {0x02, "1.4"}, {0x05, "Model A"}};
        meter.setDeviceIdentification(identification);
        DeviceIdentification none;
        none.enabled = false;
        plain.setDeviceIdentification(none);
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
    ToolRun discover(const QStringList& arguments) {
        return zelt_modbus_test::runProgram(QStringLiteral("ip"),
                                            QStringList{QStringLiteral("netns"), QStringLiteral("exec"),
                                                        QString::fromStdString(testbed.scannerNamespace)} +
                                                zelt_test::commandFor(zelt_modbus_test::toolPath()) +
                                                QStringList{QStringLiteral("discover")} + arguments);
    }

    static QJsonObject candidateAt(const QJsonArray& candidates, const QString& address) {
        for (const QJsonValue& value : candidates)
            if (value.toObject().value(QStringLiteral("address")).toString() == address)
                return value.toObject();
        return {};
    }

    Testbed testbed;
    Simulator meter;
    Simulator plain;
    QTemporaryDir dir;
};

QJsonObject expectedFields(const char* port, const char* unit) {
    return QJsonObject{{"port", port},
                       {"server_id", unit},
                       {"persistent_connection", "1"},
                       {"max_read_registers", "123"},
                       {"write_preset", "1"},
                       {"endianness", "0"},
                       {"byte_order", "0"},
                       {"string_endianness", "0"},
                       {"string_byte_order", "0"}};
}

TEST_F(CliDiscoverTest, FindsTheSimulatorsAtTheGivenHosts) {
    const ToolRun run = discover(
        {QStringLiteral("--hosts"), QStringLiteral("%1,%2,%3").arg(kMeter, kPlain, kNothing),
         QStringLiteral("--ports"), QStringLiteral("1502"), QStringLiteral("--units"), QStringLiteral("1"),
         QStringLiteral("--timeout"), QStringLiteral("10000"), QStringLiteral("--json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonArray candidates = QJsonDocument::fromJson(run.out.toUtf8()).array();
    ASSERT_EQ(candidates.size(), 2) << run.out.toStdString();

    const QJsonObject found = candidateAt(candidates, QLatin1String(kMeter));
    EXPECT_EQ(found.value("external_id").toString(), QStringLiteral("modbus_10_78_0_10_1502_1"));
    EXPECT_EQ(found.value("uid_hint").toString(), QStringLiteral("modbus_10_78_0_10_1502_1"));
    EXPECT_EQ(found.value("name").toString(), QStringLiteral("Model A (10.78.0.10)"));
    EXPECT_EQ(found.value("description").toString(),
              QStringLiteral("ACME Model A 1.4 at 10.78.0.10:1502 unit 1"));
    EXPECT_EQ(found.value("user_defined_fields").toObject(), expectedFields("1502", "1"));

    const QJsonObject bare = candidateAt(candidates, QLatin1String(kPlain));
    EXPECT_EQ(bare.value("external_id").toString(), QStringLiteral("modbus_10_78_0_11_1502_1"));
    EXPECT_EQ(bare.value("user_defined_fields").toObject(), expectedFields("1502", "1"));
    EXPECT_TRUE(
        run.err.contains(QStringLiteral("Modbus TCP discovery probes TCP 1502 on the selected subnet")));
    // Standard error is not a terminal here, so no progress line is drawn.
    EXPECT_FALSE(run.err.contains(QStringLiteral("scanning:")));
}

TEST_F(CliDiscoverTest, KnownDevicesFromAConfigurationAreLeftOut) {
    const QString existing = dir.filePath(QStringLiteral("known.json"));
    QFile file(existing);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QStringLiteral(R"({"devices": [{"id": 1, "address": "%1", "settings": {"port": "1502"}}]})")
                   .arg(kPlain)
                   .toUtf8());
    file.close();
    const ToolRun run = discover({QStringLiteral("--hosts"), QStringLiteral("%1,%2").arg(kMeter, kPlain),
                                  QStringLiteral("--ports"), QStringLiteral("1502"),
                                  QStringLiteral("--existing"), existing, QStringLiteral("--json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonArray candidates = QJsonDocument::fromJson(run.out.toUtf8()).array();
    ASSERT_EQ(candidates.size(), 1) << run.out.toStdString();
    EXPECT_EQ(candidates.at(0).toObject().value("address").toString(), QLatin1String(kMeter));
}

TEST_F(CliDiscoverTest, ScansTheSubnetOfTheNamespaceInterfaceAndPrintsATable) {
    // Without --hosts the run enumerates the subnet of --interface: here the veth end inside the namespace.
    const ToolRun run = discover({QStringLiteral("--interface"), QString::fromStdString(testbed.scannerLink),
                                  QStringLiteral("--ports"), QStringLiteral("1502"),
                                  QStringLiteral("--timeout"), QStringLiteral("20000")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QStringList lines = run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 4) << run.out.toStdString();
    EXPECT_TRUE(lines.at(0).startsWith(QStringLiteral("  name ")));
    const QStringList rows = lines.mid(2);
    const QRegularExpression meterRow(
        QStringLiteral("^  Model A \\(10\\.78\\.0\\.10\\) +10\\.78\\.0\\.10 +1502 +1 +ACME Model A 1\\.4 at "
                       "10\\.78\\.0\\.10:1502 unit 1 "
                       "+modbus_10_78_0_10_1502_1$"));
    const QRegularExpression plainRow(QStringLiteral(
        "^  Modbus 10\\.78\\.0\\.11 +10\\.78\\.0\\.11 +1502 +1 +Modbus TCP at 10\\.78\\.0\\.11:1502 unit 1 "
        "+modbus_10_78_0_11_1502_1$"));
    EXPECT_EQ(rows.filter(meterRow).size(), 1) << run.out.toStdString();
    EXPECT_EQ(rows.filter(plainRow).size(), 1) << run.out.toStdString();
}

}  // namespace
