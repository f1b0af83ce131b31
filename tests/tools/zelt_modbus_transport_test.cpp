// zelt-modbus --transport and the configuration's "transport": the texts each accepts, the message for each
// refusal, and the commissioning client, which runs over the plugin's Connection, against the simulator.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <chrono>
#include <thread>

#include "tools/sim/simulator.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/config_writer.h"
#include "tools/zelt-modbus/device_link.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_cli::DeviceLink;
using zelt_cli::ReadOutcome;
using zelt_cli::RegisterTable;
using zelt_modbus_test::runTool;
using zelt_modbus_test::writeFile;

constexpr int kIllegalDataAddress = 2;
constexpr int kReadHolding = 3;
// Short, so that the time-out case stays quick; loopback answers in well under a millisecond.
constexpr int kShortTimeoutMs = 200;
constexpr int kUnaddressableUnit = 250;
// Bounds the wait for the simulator to log a request: 20 s in all.
constexpr int kWaitAttempts = 2000;
constexpr int kWaitSliceMs = 10;

QJsonObject jsonOf(const QString& text) {
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

// ---- the option -------------------------------------------------------------------------------------------

TEST(TransportOption, EveryCommandThatTalksToADeviceListsIt) {
    const QString line = QStringLiteral(
        "  --transport NAME          tcp (Modbus TCP), rtu (RTU over TCP, to a serial-to-Ethernet converter) "
        "or "
        "tls (Modbus/TCP Security); default: the device's \"transport\" setting, else tcp\n");
    for (const QString& command :
         {QStringLiteral("inspect"), QStringLiteral("map"), QStringLiteral("write")}) {
        SCOPED_TRACE(command.toStdString());
        const auto help = runTool({command, QStringLiteral("--help")});
        EXPECT_EQ(help.exitCode, 0);
        EXPECT_TRUE(help.out.contains(line)) << help.out.toStdString();
    }
}

TEST(TransportOption, AnUnknownTransportIsAUsageErrorBeforeAnyTraffic) {
    modbus_sim::Simulator simulator;
    ASSERT_TRUE(simulator.start());
    const QString port = QString::number(simulator.port());
    const QStringList target{QStringLiteral("--address"), QStringLiteral("127.0.0.1"),
                             QStringLiteral("--port"), port};
    struct Row {
        QString command;
        QStringList arguments;
        QString value;
    };
    const Row rows[] = {
        {QStringLiteral("inspect"),
         QStringList(target) << QStringLiteral("--register") << QStringLiteral("40001"),
         QStringLiteral("serial")},
        {QStringLiteral("map"), target, QStringLiteral("RTU")},
        {QStringLiteral("map"), target, QStringLiteral("1")},
        // Checked before the configuration is read: the file need not exist.
        {QStringLiteral("write"),
         {QStringLiteral("--config"), QStringLiteral("/nonexistent/meter.json"), QStringLiteral("--device"),
          QStringLiteral("1"), QStringLiteral("--item"), QStringLiteral("sp"), QStringLiteral("--value"),
          QStringLiteral("1")},
         QStringLiteral("modbus")},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE((row.command + QLatin1Char(' ') + row.value).toStdString());
        const auto run =
            runTool(QStringList{row.command} << row.arguments << QStringLiteral("--transport") << row.value);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_TRUE(
            run.err.startsWith(QStringLiteral("zelt-modbus %1: --transport: unknown transport \"%2\" "
                                              "(expected tcp, rtu or tls)\nUsage: zelt-modbus %1 [options]\n")
                                   .arg(row.command, row.value)))
            << run.err.toStdString();
        EXPECT_EQ(run.out, QString());
    }
    EXPECT_EQ(simulator.totalRequests(), 0);
    EXPECT_EQ(simulator.acceptedConnections(), 0);
}

TEST(TransportOption, TcpOverridesTheConfiguredTransport) {
    modbus_sim::Simulator simulator;
    simulator.setHoldingRegisters(0, {0x1234, 0xABCD});
    ASSERT_TRUE(simulator.start());
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("meter.json"));
    ASSERT_TRUE(writeFile(path, QStringLiteral(R"({"devices": [{"id": 7, "address": "127.0.0.1",
        "settings": {"port": "%1", "transport": "rtu"}}]})")
                                    .arg(simulator.port())
                                    .toUtf8()));
    const auto run =
        runTool({QStringLiteral("inspect"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                 QStringLiteral("7"), QStringLiteral("--register"), QStringLiteral("40001"),
                 QStringLiteral("--transport"), QStringLiteral("tcp"), QStringLiteral("--json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonArray registers = jsonOf(run.out).value(QStringLiteral("registers")).toArray();
    ASSERT_EQ(registers.size(), 2);
    EXPECT_EQ(registers.at(0).toObject().value(QStringLiteral("hex")).toString(), QStringLiteral("0x1234"));
    EXPECT_EQ(registers.at(1).toObject().value(QStringLiteral("hex")).toString(), QStringLiteral("0xabcd"));
}

// ---- the configuration
// -------------------------------------------------------------------------------------

QByteArray deviceWithTransport(const QString& transport) {
    return QStringLiteral(R"({"devices": [{"id": 1, "address": "10.0.0.1"},
        {"id": 2, "address": "10.0.0.2", "settings": {"port": "4001", "transport": "%1"}}]})")
        .arg(transport)
        .toUtf8();
}

TEST(TransportSetting, NamesAndStoredTextsAreStoredAsTheStoredText) {
    struct Row {
        const char* text;
        const char* stored;
        Transport transport;
    };
    const Row rows[] = {
        {"tcp", "0", Transport::ModbusTcp},
        {"0", "0", Transport::ModbusTcp},
        {"rtu", "1", Transport::RtuOverTcp},
        {"1", "1", Transport::RtuOverTcp},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        zelt_cli::Config config;
        QString error;
        ASSERT_TRUE(parseConfig(deviceWithTransport(QLatin1String(row.text)), QStringLiteral("meter.json"),
                                &config, &error))
            << error.toStdString();
        EXPECT_EQ(config.devices.at(1).settings,
                  (QMap<QString, QString>{{"port", "4001"}, {"transport", QLatin1String(row.stored)}}));
        EXPECT_EQ(zelt_cli::transportOf(config.devices.at(1)), row.transport);
        // A device without the setting keeps none: the plugin's default, Modbus TCP, applies.
        EXPECT_TRUE(config.devices.at(0).settings.isEmpty());
        EXPECT_EQ(zelt_cli::transportOf(config.devices.at(0)), Transport::ModbusTcp);
    }
}

TEST(TransportSetting, AnythingElseIsAConfigurationErrorNamingTheSetting) {
    for (const char* text : {"serial", "RTU", "Tcp", "3", " 1", ""}) {
        SCOPED_TRACE(text);
        zelt_cli::Config config;
        QString error;
        EXPECT_FALSE(parseConfig(deviceWithTransport(QLatin1String(text)), QStringLiteral("meter.json"),
                                 &config, &error));
        EXPECT_EQ(error,
                  QStringLiteral("meter.json: devices[1].settings.transport: expected \"tcp\", \"rtu\", "
                                 "\"tls\", \"0\", \"1\" or \"2\", not \"%1\"")
                      .arg(QLatin1String(text)));
    }
    zelt_cli::Config config;
    QString error;
    EXPECT_FALSE(
        parseConfig(R"({"devices": [{"id": 1, "address": "10.0.0.1", "settings": {"transport": 1}}]})",
                    QStringLiteral("meter.json"), &config, &error));
    EXPECT_EQ(error, QStringLiteral("meter.json: devices[0].settings.transport: expected a text, not 1"));
}

TEST(TransportSetting, TheToolRefusesABadTransportWithExitTwo) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("meter.json"));
    ASSERT_TRUE(writeFile(path, deviceWithTransport(QStringLiteral("serial"))));
    const QString message =
        QStringLiteral(
            "%1: devices[1].settings.transport: expected \"tcp\", \"rtu\", \"tls\", \"0\", "
            "\"1\" or \"2\", not \"serial\"")
            .arg(path);
    const auto poll = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path});
    EXPECT_EQ(poll.exitCode, 2);
    EXPECT_EQ(poll.err, QStringLiteral("zelt-modbus: %1\n").arg(message));
    const auto inspect =
        runTool({QStringLiteral("inspect"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                 QStringLiteral("2"), QStringLiteral("--register"), QStringLiteral("40001")});
    EXPECT_EQ(inspect.exitCode, 2);
    EXPECT_TRUE(inspect.err.startsWith(QStringLiteral("zelt-modbus inspect: %1\nUsage: ").arg(message)))
        << inspect.err.toStdString();
}

TEST(TransportSetting, AWrittenConfigurationReadsBackWithItsTransport) {
    zelt_cli::Config config;
    zelt_cli::DeviceConfig device;
    device.id = 3;
    device.name = QStringLiteral("converter");
    device.address = QStringLiteral("10.0.0.3");
    device.settings = {{QStringLiteral("port"), QStringLiteral("4001")},
                       {QStringLiteral("transport"), QStringLiteral("1")}};
    config.devices.append(device);
    zelt_cli::Config read;
    QString error;
    ASSERT_TRUE(parseConfig(zelt_cli::configToJson(config), QStringLiteral("out.json"), &read, &error))
        << error.toStdString();
    ASSERT_EQ(read.devices.size(), 1);
    EXPECT_EQ(read.devices.at(0).settings, device.settings);
    EXPECT_EQ(zelt_cli::transportOf(read.devices.at(0)), Transport::RtuOverTcp);
}

// ---- the plugin's column
// -----------------------------------------------------------------------------------

TEST(TransportColumn, ColumnsListsTheDevicesTransport) {
    const auto json = runTool({QStringLiteral("columns"), QStringLiteral("--json")});
    ASSERT_EQ(json.exitCode, 0) << json.err.toStdString();
    QJsonObject transport;
    for (const QJsonValue& column : jsonOf(json.out).value(QStringLiteral("device_columns")).toArray())
        if (column.toObject().value(QStringLiteral("name")).toString() == QLatin1String("transport"))
            transport = column.toObject();
    EXPECT_EQ(transport.value(QStringLiteral("default")).toString(), QStringLiteral("0"));
    EXPECT_EQ(transport.value(QStringLiteral("size")).toInt(), 3);
    EXPECT_EQ(transport.value(QStringLiteral("choices")).toArray(),
              (QJsonArray{QJsonObject{{"label", "Modbus TCP"}, {"value", "0"}},
                          QJsonObject{{"label", "RTU over TCP"}, {"value", "1"}},
                          QJsonObject{{"label", "Modbus/TCP Security (TLS)"}, {"value", "2"}}}));

    const auto text = runTool({QStringLiteral("columns")});
    ASSERT_EQ(text.exitCode, 0) << text.err.toStdString();
    EXPECT_TRUE(
        text.out.contains(QStringLiteral("Modbus TCP=0, RTU over TCP=1, Modbus/TCP Security (TLS)=2\n")))
        << text.out.toStdString();
    EXPECT_TRUE(text.out.contains(
        QStringLiteral("  transport: How requests travel on the TCP connection: Modbus TCP (MBAP header), or "
                       "RTU frames with "
                       "CRC for serial devices behind a transparent serial-to-Ethernet converter.\n")))
        << text.out.toStdString();
}

// ---- the client over Connection, Modbus TCP
// ----------------------------------------------------------------

class DeviceLinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Every table and unit holds values of its own, so that a read of the wrong one shows.
        simulator.setHoldingRegisters(1, 0, {0x0101, 0x0102, 0x0103});
        simulator.setInputRegisters(1, 0, {0x0201, 0x0202});
        simulator.setCoils(1, 0, {1, 0, 1, 1});
        simulator.setDiscreteInputs(1, 0, {0, 1, 1});
        simulator.setHoldingRegisters(3, 0, {0x0301, 0x0302, 0x0303});
        for (int address = 5; address <= 6; ++address) {
            modbus_sim::FaultRule rule;
            rule.function = kReadHolding;
            rule.address = address;
            rule.exceptionCode = kIllegalDataAddress;
            simulator.addFault(rule);
        }
        simulator.setDeadUnits({9});
        ASSERT_TRUE(simulator.start());
    }

    modbus_sim::Simulator simulator;
};

TEST_F(DeviceLinkTest, ReadsEveryTableOfTheUnitItAddresses) {
    DeviceLink unit1(QStringLiteral("127.0.0.1"), simulator.port(), 1);
    DeviceLink unit3(QStringLiteral("127.0.0.1"), simulator.port(), 3);
    EXPECT_EQ(unit3.describe(), QStringLiteral("127.0.0.1:%1 unit 3").arg(simulator.port()));
    std::vector<uint16_t> words;
    std::vector<uint8_t> bits;

    ReadOutcome outcome = unit1.read(RegisterTable::HoldingRegisters, 0, 3, &words, &bits);
    EXPECT_EQ(outcome.kind, ReadOutcome::Ok);
    EXPECT_EQ(outcome.error, QString());
    EXPECT_EQ(words, (std::vector<uint16_t>{0x0101, 0x0102, 0x0103}));
    EXPECT_EQ(unit1.read(RegisterTable::InputRegisters, 0, 2, &words, &bits).kind, ReadOutcome::Ok);
    EXPECT_EQ(words, (std::vector<uint16_t>{0x0201, 0x0202}));
    EXPECT_EQ(unit1.read(RegisterTable::Coils, 0, 4, &words, &bits).kind, ReadOutcome::Ok);
    EXPECT_EQ(bits, (std::vector<uint8_t>{1, 0, 1, 1}));
    EXPECT_EQ(unit1.read(RegisterTable::DiscreteInputs, 0, 3, &words, &bits).kind, ReadOutcome::Ok);
    EXPECT_EQ(bits, (std::vector<uint8_t>{0, 1, 1}));
    EXPECT_EQ(unit3.read(RegisterTable::HoldingRegisters, 0, 3, &words, &bits).kind, ReadOutcome::Ok);
    EXPECT_EQ(words, (std::vector<uint16_t>{0x0301, 0x0302, 0x0303}));

    // One connection each, kept across the reads.
    EXPECT_EQ(simulator.acceptedConnections(), 2);
    std::vector<int> units;
    for (const modbus_sim::RequestRecord& record : simulator.requestLog()) units.push_back(record.unit);
    EXPECT_EQ(units, (std::vector<int>{1, 1, 1, 1, 3}));
}

TEST_F(DeviceLinkTest, AnExceptionKeepsTheConnection) {
    DeviceLink link(QStringLiteral("127.0.0.1"), simulator.port(), 1);
    std::vector<uint16_t> words;
    std::vector<uint8_t> bits;
    const ReadOutcome outcome = link.read(RegisterTable::HoldingRegisters, 4, 2, &words, &bits);
    EXPECT_EQ(outcome.kind, ReadOutcome::Exception);
    EXPECT_EQ(outcome.exceptionCode, kIllegalDataAddress);
    EXPECT_EQ(outcome.error, QStringLiteral("Illegal data address"));
    EXPECT_EQ(link.read(RegisterTable::HoldingRegisters, 0, 2, &words, &bits).kind, ReadOutcome::Ok);
    EXPECT_EQ(words, (std::vector<uint16_t>{0x0101, 0x0102}));
    EXPECT_EQ(simulator.acceptedConnections(), 1);
}

TEST_F(DeviceLinkTest, ATimeoutClosesTheConnectionAndTheNextReadConnectsAnew) {
    DeviceLink dead(QStringLiteral("127.0.0.1"), simulator.port(), 9, kShortTimeoutMs);
    std::vector<uint16_t> words;
    std::vector<uint8_t> bits;
    const ReadOutcome outcome = dead.read(RegisterTable::HoldingRegisters, 0, 2, &words, &bits);
    EXPECT_EQ(outcome.kind, ReadOutcome::Timeout);
    EXPECT_EQ(outcome.error, QStringLiteral("Connection timed out"));
    EXPECT_EQ(dead.read(RegisterTable::HoldingRegisters, 0, 2, &words, &bits).kind, ReadOutcome::Timeout);
    // The simulator logs a request it leaves unanswered on a thread of its own, maybe after the time-out.
    for (int attempt = 0; attempt < kWaitAttempts && simulator.totalRequests() < 2; ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(kWaitSliceMs));
    std::vector<int> connections;
    for (const modbus_sim::RequestRecord& record : simulator.requestLog())
        connections.push_back(record.connection);
    EXPECT_EQ(connections, (std::vector<int>{1, 2}));
}

TEST_F(DeviceLinkTest, AUnitTheConnectionCannotAddressSendsNothing) {
    DeviceLink link(QStringLiteral("127.0.0.1"), simulator.port(), kUnaddressableUnit);
    std::vector<uint16_t> words;
    std::vector<uint8_t> bits;
    const ReadOutcome outcome = link.read(RegisterTable::HoldingRegisters, 0, 2, &words, &bits);
    EXPECT_EQ(outcome.kind, ReadOutcome::Failed);
    EXPECT_EQ(outcome.error,
              QStringLiteral("cannot use 127.0.0.1:%1 unit 250: Invalid argument").arg(simulator.port()));
    EXPECT_EQ(simulator.totalRequests(), 0);
    EXPECT_EQ(simulator.acceptedConnections(), 0);
}

TEST(DeviceLink, ARefusedConnectionFailsWithLibmodbusText) {
    // A bound socket that does not listen refuses every connection to its port, and no one else takes it.
    const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(holder, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t size = sizeof address;
    ASSERT_EQ(::getsockname(holder, reinterpret_cast<sockaddr*>(&address), &size), 0);
    const int port = ntohs(address.sin_port);

    DeviceLink link(QStringLiteral("127.0.0.1"), port, 1);
    QString error;
    EXPECT_FALSE(link.connect(&error));
    EXPECT_EQ(error, QStringLiteral("cannot connect to 127.0.0.1:%1 unit 1: Connection refused").arg(port));
    std::vector<uint16_t> words;
    std::vector<uint8_t> bits;
    const ReadOutcome outcome = link.read(RegisterTable::Coils, 0, 1, &words, &bits);
    EXPECT_EQ(outcome.kind, ReadOutcome::Failed);
    EXPECT_EQ(outcome.error, error);
    ::close(holder);
}

}  // namespace
