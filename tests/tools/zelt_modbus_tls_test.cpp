// inspect, map, write and discover over Modbus/TCP Security against the simulator serving TLS, each run held
// against the same run over Modbus TCP against a simulator holding the same values: TLS changes what carries
// the frames, never what the commands find or write. Also the handshake inspect prints, the certificate
// options and their errors, the configuration's tls keys, and that no output ever holds key material.

#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <memory>
#include <vector>

#include "tests/common/map_json.h"
#include "tests/common/tls_kit.h"
#include "tools/sim/sim_pki.h"
#include "tools/sim/sim_tls_kit.h"
#include "tools/sim/simulator.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using test_support::comparableMap;
using test_support::expiryOf;
using test_support::jsonOf;
using zelt_modbus_test::runTool;
using zelt_modbus_test::ToolRun;
using zelt_modbus_test::writeFile;

constexpr char kLoopback[] = "127.0.0.1";
constexpr int kUnit = 1;
constexpr int kReadHolding = 3;
constexpr int kIllegalDataAddress = 2;
const QString kTcp = QStringLiteral("tcp");
const QString kTls = QStringLiteral("tls");
const QStringList kTls13Suites{QStringLiteral("TLS_AES_128_GCM_SHA256"),
                               QStringLiteral("TLS_AES_256_GCM_SHA384"),
                               QStringLiteral("TLS_CHACHA20_POLY1305_SHA256")};

QString readText(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

void load(modbus_sim::Simulator* simulator) {
    simulator->setHoldingRegisters(0, {0x0011, 0x0012, 0x4148, 0x0000, 0x0015});
    simulator->setInputRegisters(0, {0x0021, 0x0022});
    simulator->setCoils(0, {1, 0, 0, 1, 1});
    simulator->setDiscreteInputs(0, {0, 1, 0});
    for (int address = 10; address <= 14; ++address) {
        modbus_sim::FaultRule rule;
        rule.function = kReadHolding;
        rule.address = address;
        rule.exceptionCode = kIllegalDataAddress;
        simulator->addFault(rule);
    }
}

class ZeltModbusTlsTest : public test_support::LoopbackTlsKitTest {
protected:
    static QStringList certificateOptions() {
        return {QStringLiteral("--tls-ca"),   pem(modbus_sim::kCaName),    QStringLiteral("--tls-cert"),
                pem(modbus_sim::kClientName), QStringLiteral("--tls-key"), key(modbus_sim::kClientName)};
    }
    // The base64 lines of the client's key.
    static QStringList keyBody() { return test_support::keyBody(key(modbus_sim::kClientName)); }

    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        load(&tcp);
        load(&tls);
        ASSERT_TRUE(tcp.start());
    }

    void serveTls(modbus_sim::TlsFault fault = modbus_sim::TlsFault::None) {
        modbus_sim::TlsServerSettings settings;
        ASSERT_NO_FATAL_FAILURE(serverSettings(fault, &settings));
        tls.setTls(settings);
        QString error;
        ASSERT_TRUE(tls.start(QLatin1String(kLoopback), 0, &error)) << error.toStdString();
    }

    modbus_sim::Simulator& simulator(const QString& transport) { return transport == kTls ? tls : tcp; }

    ToolRun run(const QString& transport, const QString& command, const QStringList& more) {
        QStringList arguments{command,
                              QStringLiteral("--address"),
                              QLatin1String(kLoopback),
                              QStringLiteral("--port"),
                              QString::number(simulator(transport).port()),
                              QStringLiteral("--unit"),
                              QString::number(kUnit)};
        if (transport == kTls) arguments << QStringLiteral("--transport") << kTls << certificateOptions();
        return remember(runTool(arguments << more));
    }

    QString withoutPort(const QString& transport, const QString& text) {
        return QString(text).replace(QStringLiteral(":%1 ").arg(simulator(transport).port()),
                                     QStringLiteral(":PORT "));
    }

    // Every output is checked for key material when the test ends.
    ToolRun remember(const ToolRun& run) {
        outputs.append(run.out + run.err);
        return run;
    }

    void TearDown() override {
        const QStringList body = keyBody();
        ASSERT_FALSE(body.isEmpty());
        for (const QString& output : outputs) {
            EXPECT_FALSE(output.contains(QLatin1String("PRIVATE KEY"))) << output.toStdString();
            for (const QString& line : body) EXPECT_FALSE(output.contains(line)) << output.toStdString();
        }
    }

    // The lines inspect prints about the handshake, after the heading.
    static QString handshakeLines(const QString& cipher) {
        return QStringLiteral(
                   "TLS: TLSv1.3, cipher %1\n"
                   "device certificate: /CN=modbus-sim\n"
                   "  issuer: /CN=modbus-sim test CA\n"
                   "  names: 127.0.0.1, localhost\n"
                   "  expires: %2\n")
            .arg(cipher, expiryOf(pem(modbus_sim::kDeviceName)));
    }

    QTemporaryDir dir;
    modbus_sim::Simulator tcp;
    modbus_sim::Simulator tls;
    QStringList outputs;
};

TEST_F(ZeltModbusTlsTest, InspectReadsAsOverModbusTcpAndShowsTheHandshake) {
    serveTls();
    const QStringList more{QStringLiteral("--register"), QStringLiteral("40001"), QStringLiteral("--count"),
                           QStringLiteral("5")};
    const ToolRun jsonTls =
        run(kTls, QStringLiteral("inspect"), QStringList(more) << QStringLiteral("--json"));
    const ToolRun jsonTcp =
        run(kTcp, QStringLiteral("inspect"), QStringList(more) << QStringLiteral("--json"));
    ASSERT_EQ(jsonTls.exitCode, 0) << jsonTls.err.toStdString();
    ASSERT_EQ(jsonTcp.exitCode, 0) << jsonTcp.err.toStdString();
    EXPECT_EQ(jsonTls.err, QString());
    QJsonObject json = jsonOf(jsonTls.out);
    const QJsonObject handshake = json.value(QStringLiteral("tls")).toObject();
    const QString cipher = handshake.value(QStringLiteral("cipher")).toString();
    EXPECT_TRUE(kTls13Suites.contains(cipher)) << cipher.toStdString();
    EXPECT_EQ(handshake, (QJsonObject{{"protocol", "TLSv1.3"},
                                      {"cipher", cipher},
                                      {"resumed", false},
                                      {"subject", "/CN=modbus-sim"},
                                      {"issuer", "/CN=modbus-sim test CA"},
                                      {"names", "127.0.0.1, localhost"},
                                      {"expiry", expiryOf(pem(modbus_sim::kDeviceName))}}));
    EXPECT_EQ(json.value(QStringLiteral("port")).toInt(), tls.port());
    json.remove(QStringLiteral("tls"));
    json.remove(QStringLiteral("port"));
    QJsonObject tcpJson = jsonOf(jsonTcp.out);
    EXPECT_FALSE(tcpJson.contains(QStringLiteral("tls")));
    tcpJson.remove(QStringLiteral("port"));
    EXPECT_EQ(json, tcpJson);

    const ToolRun textTls = run(kTls, QStringLiteral("inspect"), more);
    const ToolRun textTcp = run(kTcp, QStringLiteral("inspect"), more);
    ASSERT_EQ(textTls.exitCode, 0) << textTls.err.toStdString();
    const QString heading =
        QStringLiteral("127.0.0.1:%1 unit 1: holding registers 40001-40005 (offsets 0-4)\n").arg(tls.port());
    ASSERT_TRUE(textTls.out.startsWith(heading + handshakeLines(cipher) + QStringLiteral("\n")))
        << textTls.out.toStdString();
    EXPECT_EQ(withoutPort(kTls, QString(textTls.out).remove(heading.size(), handshakeLines(cipher).size())),
              withoutPort(kTcp, textTcp.out));
    for (const auto& record : tls.requestLog()) EXPECT_TRUE(record.tls);
    EXPECT_EQ(tls.totalRequests(), tcp.totalRequests());
}

TEST_F(ZeltModbusTlsTest, InspectOfBitsAndRefusalsAsOverModbusTcp) {
    serveTls();
    const QStringList coils{QStringLiteral("--register"), QStringLiteral("00001"), QStringLiteral("--count"),
                            QStringLiteral("5"), QStringLiteral("--json")};
    const ToolRun overTls = run(kTls, QStringLiteral("inspect"), coils);
    const ToolRun overTcp = run(kTcp, QStringLiteral("inspect"), coils);
    ASSERT_EQ(overTls.exitCode, 0) << overTls.err.toStdString();
    QJsonObject json = jsonOf(overTls.out);
    EXPECT_EQ(json.value(QStringLiteral("tls")).toObject().value(QStringLiteral("subject")).toString(),
              QStringLiteral("/CN=modbus-sim"));
    json.remove(QStringLiteral("tls"));
    json.remove(QStringLiteral("port"));
    QJsonObject tcpJson = jsonOf(overTcp.out);
    tcpJson.remove(QStringLiteral("port"));
    EXPECT_EQ(json, tcpJson);

    const QStringList hole{QStringLiteral("--register"), QStringLiteral("40011")};
    const ToolRun refusedTls = run(kTls, QStringLiteral("inspect"), hole);
    const ToolRun refusedTcp = run(kTcp, QStringLiteral("inspect"), hole);
    EXPECT_EQ(refusedTls.exitCode, 1);
    EXPECT_EQ(refusedTls.out, QString());
    EXPECT_EQ(refusedTls.err, QStringLiteral("zelt-modbus: reading holding registers 40011-40012 from "
                                             "127.0.0.1:%1 unit 1: Illegal data address\n")
                                  .arg(tls.port()));
    EXPECT_EQ(withoutPort(kTls, refusedTls.err), withoutPort(kTcp, refusedTcp.err));
}

TEST_F(ZeltModbusTlsTest, MapFindsTheRunsOfModbusTcpAndItsConfigurationKeepsTheCertificates) {
    serveTls();
    const QStringList more{QStringLiteral("--tables"), QStringLiteral("holding,coils"),
                           QStringLiteral("--range"),  QStringLiteral("0-29"),
                           QStringLiteral("--rate"),   QStringLiteral("1000"),
                           QStringLiteral("--json")};
    const QString path = dir.filePath(QStringLiteral("tls.json"));
    const ToolRun overTls =
        run(kTls, QStringLiteral("map"), QStringList(more) << QStringLiteral("--config-out") << path);
    const ToolRun overTcp = run(kTcp, QStringLiteral("map"), more);
    ASSERT_EQ(overTls.exitCode, 0) << overTls.err.toStdString();
    ASSERT_EQ(overTcp.exitCode, 0) << overTcp.err.toStdString();
    EXPECT_EQ(overTls.err, QStringLiteral("zelt-modbus map: wrote %1: 3 devices, 55 items\n").arg(path));
    EXPECT_EQ(comparableMap(jsonOf(overTls.out)), comparableMap(jsonOf(overTcp.out)));
    EXPECT_EQ(tls.totalRequests(), tcp.totalRequests());

    ASSERT_NO_FATAL_FAILURE(
        test_support::expectMapConfig(path, 3,
                                      {{"port", QString::number(tls.port())},
                                       {"server_id", "1"},
                                       {"transport", "2"},
                                       {"tls_ca_certificates", pem(modbus_sim::kCaName)},
                                       {"tls_certificate", pem(modbus_sim::kClientName)},
                                       {"tls_private_key", key(modbus_sim::kClientName)}}));

    // The plugin polls what map wrote, over TLS.
    const ToolRun poll =
        remember(runTool({QStringLiteral("poll"), QStringLiteral("--config"), path, QStringLiteral("--count"),
                          QStringLiteral("1"), QStringLiteral("--json")}));
    ASSERT_EQ(poll.exitCode, 0) << poll.out.toStdString() << poll.err.toStdString();
    const QList<QJsonObject> lines = zelt_modbus_test::pollLines(poll.out);
    ASSERT_EQ(lines.size(), 3);
    EXPECT_EQ(zelt_modbus_test::itemOf(lines.at(0), QStringLiteral("holding_4"))
                  .value(QStringLiteral("value"))
                  .toString(),
              QStringLiteral("21"));
}

TEST_F(ZeltModbusTlsTest, WriteReachesTheRegistersAsOverModbusTcp) {
    serveTls();
    const QString json = QStringLiteral(R"({"devices": [
        {"id": 1, "address": "127.0.0.1", "settings": {"port": "%1", "server_id": "1"%2},
         "items": [{"uid": "sp", "settings": {"register": "40021", "type": "5"}},
                   {"uid": "relay", "settings": {"register": "00021", "type": "0"}}]}]})");
    const QString tcpPath = dir.filePath(QStringLiteral("tcp.json"));
    const QString configuredPath = dir.filePath(QStringLiteral("configured.json"));
    const QString optionsPath = dir.filePath(QStringLiteral("options.json"));
    ASSERT_TRUE(writeFile(tcpPath, json.arg(tcp.port()).arg(QString()).toUtf8()));
    const QString tlsKeys =
        QStringLiteral(R"(, "transport": "tls", "tls_ca_certificates": "%1", "tls_certificate": "%2",)"
                       R"( "tls_private_key": "%3", "tls_server_name": "127.0.0.1")")
            .arg(pem(modbus_sim::kCaName), pem(modbus_sim::kClientName), key(modbus_sim::kClientName));
    ASSERT_TRUE(writeFile(configuredPath, json.arg(tls.port()).arg(tlsKeys).toUtf8()));
    ASSERT_TRUE(writeFile(optionsPath, json.arg(tls.port()).arg(QString()).toUtf8()));
    auto write = [this](const QString& path, const char* uid, const char* value, const QStringList& more) {
        return remember(runTool(
            QStringList{QStringLiteral("write"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                        QStringLiteral("1"), QStringLiteral("--item"), QLatin1String(uid),
                        QStringLiteral("--value"), QLatin1String(value), QStringLiteral("--json")}
            << more));
    };
    const QJsonObject ok{
        {"ok", true}, {"error", ""}, {"items", QJsonArray{QJsonObject{{"uid", "sp"}, {"error", ""}}}}};
    const ToolRun configured = write(configuredPath, "sp", "21.5", {QStringLiteral("--verbose")});
    ASSERT_EQ(configured.exitCode, 0) << configured.out.toStdString() << configured.err.toStdString();
    EXPECT_EQ(jsonOf(configured.out), ok);
    const ToolRun plain = write(tcpPath, "sp", "21.5", {});
    EXPECT_EQ(jsonOf(plain.out), ok);
    EXPECT_EQ(tls.holdingRegisters(20, 2), (std::vector<uint16_t>{0x41AC, 0x0000}));
    EXPECT_EQ(tcp.holdingRegisters(20, 2), (std::vector<uint16_t>{0x41AC, 0x0000}));

    // The options stand for the settings.
    const ToolRun byOptions = write(optionsPath, "relay", "1",
                                    QStringList{QStringLiteral("--transport"), kTls} << certificateOptions());
    ASSERT_EQ(byOptions.exitCode, 0) << byOptions.out.toStdString() << byOptions.err.toStdString();
    EXPECT_EQ(tls.coils(20, 1), (std::vector<uint8_t>{1}));
    for (const auto& record : tls.requestLog()) {
        EXPECT_TRUE(record.tls);
        EXPECT_EQ(record.role, QStringLiteral("operator"));
    }
}

TEST_F(ZeltModbusTlsTest, AKeyGivenAsPemTextInTheConfigurationIsNeverPrinted) {
    serveTls();
    const QString keyText = readText(key(modbus_sim::kClientName));
    QJsonObject settings{{"port", QString::number(tls.port())},
                         {"transport", "2"},
                         {"tls_ca_certificates", pem(modbus_sim::kCaName)},
                         {"tls_certificate", readText(pem(modbus_sim::kClientName))},
                         {"tls_private_key", keyText}};
    const QJsonObject device{
        {"id", 1},
        {"address", kLoopback},
        {"settings", settings},
        {"items", QJsonArray{QJsonObject{{"uid", "sp"},
                                         {"settings", QJsonObject{{"register", "40021"}, {"type", "2"}}}}}}};
    const QString path = dir.filePath(QStringLiteral("pem.json"));
    ASSERT_TRUE(writeFile(path, QJsonDocument(QJsonObject{{"devices", QJsonArray{device}}}).toJson()));
    const ToolRun inspect = remember(
        runTool({QStringLiteral("inspect"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                 QStringLiteral("1"), QStringLiteral("--register"), QStringLiteral("40001")}));
    ASSERT_EQ(inspect.exitCode, 0) << inspect.err.toStdString();
    const ToolRun write = remember(
        runTool({QStringLiteral("write"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                 QStringLiteral("1"), QStringLiteral("--item"), QStringLiteral("sp"),
                 QStringLiteral("--value"), QStringLiteral("7"), QStringLiteral("--verbose")}));
    ASSERT_EQ(write.exitCode, 0) << write.out.toStdString() << write.err.toStdString();
    EXPECT_EQ(tls.holdingRegisters(20, 1), (std::vector<uint16_t>{7}));
    // A key that does not fit its certificate is named by where it came from, not by what it holds.
    settings.insert(QStringLiteral("tls_private_key"), readText(key(modbus_sim::kViewerName)));
    QJsonObject mismatched = device;
    mismatched.insert(QStringLiteral("settings"), settings);
    ASSERT_TRUE(writeFile(path, QJsonDocument(QJsonObject{{"devices", QJsonArray{mismatched}}}).toJson()));
    const ToolRun refused = remember(
        runTool({QStringLiteral("inspect"), QStringLiteral("--config"), path, QStringLiteral("--device"),
                 QStringLiteral("1"), QStringLiteral("--register"), QStringLiteral("40001")}));
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(
        refused.err,
        QStringLiteral("zelt-modbus: reading holding registers 40001-40002 from 127.0.0.1:%1 unit 1: cannot "
                       "connect to 127.0.0.1:%1 unit 1: tls_private_key: the key in the PEM text does not "
                       "match the certificate in the PEM text\n")
            .arg(tls.port()));
}

TEST_F(ZeltModbusTlsTest, ConnectFailuresGiveTheConnectionsText) {
    serveTls(modbus_sim::TlsFault::ExpiredCertificate);
    const QStringList more{QStringLiteral("--register"), QStringLiteral("40001")};
    const ToolRun expired = run(kTls, QStringLiteral("inspect"), more);
    EXPECT_EQ(expired.exitCode, 1);
    EXPECT_EQ(expired.out, QString());
    EXPECT_EQ(expired.err,
              QStringLiteral("zelt-modbus: reading holding registers 40001-40002 from 127.0.0.1:%1 "
                             "unit 1: cannot connect to 127.0.0.1:%1 unit 1: TLS: certificate has "
                             "expired\n")
                  .arg(tls.port()));
    const ToolRun missingKey = remember(runTool(
        {QStringLiteral("inspect"), QStringLiteral("--address"), QLatin1String(kLoopback),
         QStringLiteral("--port"), QString::number(tls.port()), QStringLiteral("--transport"), kTls,
         QStringLiteral("--tls-ca"), pem(modbus_sim::kCaName), QStringLiteral("--tls-cert"),
         pem(modbus_sim::kClientName), QStringLiteral("--tls-key"), QStringLiteral("/nonexistent/client.key"),
         QStringLiteral("--register"), QStringLiteral("40001")}));
    EXPECT_EQ(missingKey.exitCode, 1);
    EXPECT_EQ(missingKey.err,
              QStringLiteral("zelt-modbus: reading holding registers 40001-40002 from 127.0.0.1:%1 "
                             "unit 1: cannot connect to 127.0.0.1:%1 unit 1: tls_private_key: "
                             "cannot read /nonexistent/client.key: No such file or directory\n")
                  .arg(tls.port()));
    // Without --port the TLS port is 802 (nothing listens there on loopback).
    const ToolRun defaultPort =
        remember(runTool({QStringLiteral("inspect"), QStringLiteral("--address"), QLatin1String(kLoopback),
                          QStringLiteral("--transport"), kTls, QStringLiteral("--tls-ca"),
                          pem(modbus_sim::kCaName), QStringLiteral("--register"), QStringLiteral("40001")}));
    EXPECT_EQ(defaultPort.exitCode, 1);
    EXPECT_EQ(defaultPort.err, QStringLiteral("zelt-modbus: reading holding registers 40001-40002 from "
                                              "127.0.0.1:802 unit 1: cannot connect to 127.0.0.1:802 unit 1: "
                                              "Connection refused\n"));
}

TEST_F(ZeltModbusTlsTest, OptionErrorsExitTwoWithTheirText) {
    struct Row {
        QStringList arguments;
        QString command;
        QString message;
    };
    const QString ca = pem(modbus_sim::kCaName);
    const QStringList inspect{QStringLiteral("inspect"), QStringLiteral("--address"),
                              QLatin1String(kLoopback), QStringLiteral("--register"),
                              QStringLiteral("40001")};
    const QString missing = QStringLiteral("/nonexistent/meter.json");
    const QStringList write{QStringLiteral("write"),    QStringLiteral("--config"), missing,
                            QStringLiteral("--device"), QStringLiteral("1"),        QStringLiteral("--item"),
                            QStringLiteral("sp"),       QStringLiteral("--value"),  QStringLiteral("1")};
    const QStringList discover{QStringLiteral("discover"), QStringLiteral("--hosts"),
                               QStringLiteral("10.0.0.5")};
    const Row rows[] = {
        {inspect + QStringList{"--tls-ca", ca}, "inspect", "--tls-ca needs --transport tls"},
        {inspect + QStringList{"--transport", "tcp", "--tls-server-name", "x"}, "inspect",
         "--tls-server-name needs --transport tls"},
        {inspect + QStringList{"--transport", "tls"}, "inspect", "--transport tls needs --tls-ca FILE"},
        {inspect + QStringList{"--transport", "tls", "--tls-ca", ca, "--tls-cert", ca}, "inspect",
         "--tls-cert and --tls-key go together"},
        {inspect + QStringList{"--transport", "tls", "--tls-ca", " "}, "inspect", "--tls-ca: empty"},
        {QStringList{"map", "--address", kLoopback, "--transport", "tls", "--tls-ca", ca, "--tls-key", ca},
         "map", "--tls-cert and --tls-key go together"},
        {discover + QStringList{"--transport", "rtu"}, "discover",
         "--transport: unknown transport \"rtu\" (expected tcp or tls; serial devices behind a converter: "
         "--rtu-over-tcp)"},
        {discover + QStringList{"--transport", "tls", "--tls-ca", ca, "--rtu-over-tcp"}, "discover",
         "--rtu-over-tcp and --transport tls exclude each other"},
        {discover + QStringList{"--transport", "tls"}, "discover", "--transport tls needs --tls-ca FILE"},
        {discover + QStringList{"--tls-ca", ca}, "discover", "--tls-ca needs --transport tls"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.arguments.join(QLatin1Char(' ')).toStdString());
        const ToolRun result = remember(runTool(row.arguments));
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, QString());
        EXPECT_TRUE(
            result.err.startsWith(QStringLiteral("zelt-modbus %1: %2\nUsage: zelt-modbus %1 [options]\n")
                                      .arg(row.command, row.message)))
            << result.err.toStdString();
    }
    // write reads its configuration first; its certificate options are checked against the device's
    // transport.
    const QString path = dir.filePath(QStringLiteral("meter.json"));
    ASSERT_TRUE(writeFile(path, QByteArrayLiteral(R"({"devices": [{"id": 1, "address": "127.0.0.1",
        "items": [{"uid": "sp", "settings": {"register": "40001", "type": "2"}}]}]})")));
    QStringList onPath = write;
    onPath[2] = path;
    const ToolRun plainWrite = remember(runTool(onPath + QStringList{"--tls-ca", ca}));
    EXPECT_EQ(plainWrite.exitCode, 2);
    EXPECT_TRUE(plainWrite.err.startsWith(QStringLiteral(
        "zelt-modbus write: --tls-ca needs --transport tls\nUsage: zelt-modbus write [options]\n")))
        << plainWrite.err.toStdString();
    const ToolRun noCa = remember(runTool(onPath + QStringList{"--transport", "tls"}));
    EXPECT_EQ(noCa.exitCode, 2);
    EXPECT_TRUE(
        noCa.err.startsWith(QStringLiteral("zelt-modbus write: --transport tls needs --tls-ca FILE\n")))
        << noCa.err.toStdString();
    EXPECT_EQ(tcp.totalRequests(), 0);
}

TEST_F(ZeltModbusTlsTest, DiscoverChecksTheCertificatesBeforeScanning) {
    const ToolRun unreadable =
        remember(runTool({QStringLiteral("discover"), QStringLiteral("--hosts"), QStringLiteral("10.0.0.5"),
                          QStringLiteral("--transport"), kTls, QStringLiteral("--tls-ca"),
                          QStringLiteral("/nonexistent/ca.pem")}));
    EXPECT_EQ(unreadable.exitCode, 1);
    EXPECT_EQ(unreadable.out, QString());
    EXPECT_EQ(unreadable.err,
              QStringLiteral("zelt-modbus: tls_ca_certificates: cannot read /nonexistent/ca.pem: No "
                             "such file or directory\n"));
    // Loopback is never scanned: a run with every option given ends at once, printing no key material.
    const ToolRun loopback =
        remember(runTool(QStringList{QStringLiteral("discover"), QStringLiteral("--hosts"),
                                     QLatin1String(kLoopback), QStringLiteral("--transport"), kTls}
                         << certificateOptions() << QStringLiteral("--json")));
    EXPECT_EQ(loopback.exitCode, 0) << loopback.err.toStdString();
    EXPECT_EQ(loopback.out, QStringLiteral("[\n]\n"));
    EXPECT_TRUE(loopback.err.contains(
        QLatin1String("Modbus TCP discovery probes Modbus/TCP Security (TLS) 802 on the selected subnet")))
        << loopback.err.toStdString();
}

TEST(TlsConfiguration, TheTransportAndTheCertificateKeysAreDeviceSettings) {
    zelt_cli::Config config;
    QString error;
    ASSERT_TRUE(zelt_cli::parseConfig(QByteArrayLiteral(R"({"devices": [
        {"id": 1, "address": "10.0.0.5", "settings": {"transport": "tls", "tls_ca_certificates": "/ca.pem",
         "tls_certificate": "/gw.pem", "tls_private_key": "/gw.key", "tls_server_name": "meter-7"}},
        {"id": 2, "address": "10.0.0.6", "settings": {"transport": "2", "port": "8802"}}]})"),
                                      QStringLiteral("meter.json"), &config, &error))
        << error.toStdString();
    ASSERT_EQ(config.devices.size(), 2);
    const zelt_cli::DeviceConfig& first = config.devices.at(0);
    EXPECT_EQ(first.settings.value("transport"), "2");
    EXPECT_EQ(zelt_cli::transportOf(first), Transport::ModbusTcpSecurity);
    const TlsSettings tls = zelt_cli::tlsSettingsOf(first);
    EXPECT_EQ(tls.caCertificates, "/ca.pem");
    EXPECT_EQ(tls.certificate, "/gw.pem");
    EXPECT_EQ(tls.privateKey, "/gw.key");
    EXPECT_EQ(tls.serverName, "meter-7");
    EXPECT_EQ(zelt_cli::transportOf(config.devices.at(1)), Transport::ModbusTcpSecurity);

    // Without a port a Modbus/TCP Security device takes 802, as the plugin would; a given port stays.
    zelt_cli::applyDefaults(&config, {{"port", "502"}, {"server_id", "1"}}, {});
    EXPECT_EQ(config.devices.at(0).settings.value("port"), "802");
    EXPECT_EQ(config.devices.at(1).settings.value("port"), "8802");

    QString stored;
    for (const char* name : {"tls", "2"}) {
        EXPECT_TRUE(zelt_cli::transportSettingFor(QLatin1String(name), &stored));
        EXPECT_EQ(stored, "2");
    }
    EXPECT_EQ(zelt_cli::transportSetting(Transport::ModbusTcpSecurity), "2");
    EXPECT_EQ(zelt_cli::transportSetting(Transport::RtuOverTcp), "1");
    EXPECT_EQ(zelt_cli::transportSetting(Transport::ModbusTcp), "0");
}

}  // namespace
