// zelt-modbus as a whole: usage and --help of every subcommand, the demo, the simulator subcommand, discovery
// of loopback hosts (which the discovery run never probes), and an installed copy of the tool.

#include <gtest/gtest.h>
#include <signal.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::itemOf;
using zelt_modbus_test::jsonLines;
using zelt_modbus_test::runProgram;
using zelt_modbus_test::runTool;
using zelt_modbus_test::writeFile;

// Hang guard for a line the simulator prints at once.
constexpr int kStartWaitMs = 10000;
// The demo's three polls and the install copy take a few seconds.
constexpr int kSlowRunTimeoutMs = 120000;

const char* const kCommands[] = {"demo",    "poll", "write",    "discover",
                                 "inspect", "map",  "simulate", "columns"};

TEST(ZeltModbusCommands, EverySubcommandHasHelpAndRefusesUnknownOptions) {
    for (const char* name : kCommands) {
        SCOPED_TRACE(name);
        const QString command = QLatin1String(name);
        const auto help = runTool({command, QStringLiteral("--help")});
        EXPECT_EQ(help.exitCode, 0);
        EXPECT_TRUE(help.out.startsWith(QStringLiteral("Usage: zelt-modbus %1 [options]\n").arg(command)));
        EXPECT_TRUE(help.out.contains(QStringLiteral("--plugin PATH")));
        const auto bad = runTool({command, QStringLiteral("--bogus")});
        EXPECT_EQ(bad.exitCode, 2);
        EXPECT_TRUE(bad.err.startsWith(
            QStringLiteral("zelt-modbus %1: unknown argument --bogus\nUsage: ").arg(command)));
        EXPECT_EQ(bad.out, QString());
    }
}

TEST(ZeltModbusCommands, TheTopLevelUsageListsEveryCommand) {
    const auto help = runTool({QStringLiteral("--help")});
    EXPECT_EQ(help.exitCode, 0);
    for (const char* name : kCommands)
        EXPECT_TRUE(
            help.out.contains(QRegularExpression(QStringLiteral("\n  %1 +").arg(QLatin1String(name)))))
            << name;
    const auto none = runTool({});
    EXPECT_EQ(none.exitCode, 2);
    const auto unknown = runTool({QStringLiteral("frobnicate")});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(unknown.err.startsWith(QStringLiteral("zelt-modbus: unknown command frobnicate\n")));
}

TEST(ZeltModbusCommands, MissingRequiredOptionsAreUsageErrors) {
    struct Row {
        QStringList arguments;
        const char* message;
    };
    const Row rows[] = {
        {{"poll"}, "zelt-modbus poll: --config is required\n"},
        {{"poll", "--config", "x.json", "--count", "0"},
         "zelt-modbus: --count needs a whole number of at least 1, not \"0\"\n"},
        {{"poll", "--config", "x.json", "--interval", "soon"},
         "zelt-modbus: --interval needs a whole number of at least 0, not \"soon\"\n"},
        {{"write", "--config", "x.json", "--device", "1", "--item", "a"},
         "zelt-modbus write: --value is required\n"},
        {{"discover", "--hosts", "10.0.0.1,nohost"},
         "zelt-modbus discover: --hosts: \"nohost\" is not an IPv4 address\n"},
        {{"simulate", "--port", "70000"}, "zelt-modbus simulate: --port must be at most 65535\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        const auto run = runTool(row.arguments);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_TRUE(run.err.startsWith(QString::fromUtf8(row.message))) << run.err.toStdString();
        EXPECT_TRUE(run.err.contains(QStringLiteral("Usage: zelt-modbus ")));
    }
}

TEST(ZeltModbusCommands, DemoWritesTheSetpointAndPollsTheMeterThreeTimes) {
    const auto run = runTool({QStringLiteral("demo"), QStringLiteral("--interval"), QStringLiteral("10"),
                              QStringLiteral("--json")},
                             kSlowRunTimeoutMs);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> lines = jsonLines(run.out);
    // The write result, then four devices per poll.
    ASSERT_EQ(lines.size(), 1 + 3 * 4) << run.out.toStdString();
    EXPECT_TRUE(lines.first().value("ok").toBool());
    const QJsonObject meter = lines.at(1);
    struct Row {
        const char* uid;
        const char* value;
    };
    const Row rows[] = {
        {"voltage", "230.5"},
        {"current", "12.75"},
        {"power", "-1500"},
        {"energy", "123456"},
        {"runtime", "-86400"},
        {"lifetime", "9876543210"},
        {"frequency", "49.98"},
        {"running", "1"},
        {"alarm", "1"},
        {"serial", "ZM3-000042"},
        {"setpoint", "21.5"},
        {"temperature", "-12"},
        {"cycles", "65000"},
        {"relay1", "1"},
        {"relay2", "0"},
        {"door", "0"},
        {"tamper", "1"},
        {"identity_1_vendor", "Zelt Demo Instruments"},
        {"identity_1_product_code", "ZM-3"},
        {"identity_1_version", "1.4.2"},
        {"identity_1_model", "ZM-3/DEMO"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.uid);
        EXPECT_EQ(itemOf(meter, QLatin1String(row.uid)).value("value").toString(),
                  QString::fromUtf8(row.value));
        EXPECT_EQ(itemOf(meter, QLatin1String(row.uid)).value("error").toString(), QString());
    }
    // The same values stored in the three other byte orders read the same.
    for (int device = 2; device <= 4; ++device) {
        const QJsonObject view = lines.at(device);
        const QString prefix =
            view.value("name").toString().replace(QLatin1Char('-'), QLatin1Char('_')) + "_";
        EXPECT_EQ(itemOf(view, prefix + "voltage").value("value").toString(), QStringLiteral("230.5"))
            << device;
        EXPECT_EQ(itemOf(view, prefix + "power").value("value").toString(), QStringLiteral("-1500"))
            << device;
        EXPECT_EQ(itemOf(view, prefix + "lifetime").value("value").toString(), QStringLiteral("9876543210"))
            << device;
    }
    // The meter keeps counting between polls.
    EXPECT_EQ(itemOf(lines.at(5), QStringLiteral("energy")).value("value").toString(),
              QStringLiteral("123463"));
    EXPECT_EQ(itemOf(lines.at(9), QStringLiteral("energy")).value("value").toString(),
              QStringLiteral("123470"));
}

TEST(ZeltModbusCommands, SimulateServesUntilInterrupted) {
    QTemporaryDir dir;
    const QString map = dir.filePath(QStringLiteral("map.json"));
    ASSERT_TRUE(writeFile(map, R"({"holding_registers": {"0": [4660]}})"));
    QProcess simulator;
    zelt_test::startProgram(simulator, zelt_modbus_test::toolPath(),
                            {QStringLiteral("simulate"), QStringLiteral("--map"), map});
    ASSERT_TRUE(simulator.waitForStarted(kStartWaitMs));
    ASSERT_TRUE(simulator.waitForReadyRead(kStartWaitMs)) << simulator.readAllStandardError().toStdString();
    const QString line = QString::fromUtf8(simulator.readLine());
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^listening on 127\\.0\\.0\\.1:(\\d+)\n$")).match(line);
    ASSERT_TRUE(match.hasMatch()) << line.toStdString();

    const QString config = dir.filePath(QStringLiteral("sim.json"));
    ASSERT_TRUE(writeFile(config, QStringLiteral(R"({"devices": [{"id": 1, "address": "127.0.0.1",
        "settings": {"port": "%1"}, "items": [{"uid": "v", "settings": {"register": "40001", "type": "2"}}]}]})")
                                      .arg(match.captured(1))
                                      .toUtf8()));
    const auto run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), config,
                              QStringLiteral("--count"), QStringLiteral("1"), QStringLiteral("--json")});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(itemOf(jsonLines(run.out).value(0), QStringLiteral("v")).value("value").toString(),
              QStringLiteral("4660"));

    ::kill(static_cast<pid_t>(simulator.processId()), SIGINT);
    ASSERT_TRUE(simulator.waitForFinished(kStartWaitMs));
    EXPECT_EQ(simulator.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(simulator.exitCode(), 0);
    EXPECT_TRUE(
        QString::fromUtf8(simulator.readAllStandardOutput()).startsWith(QStringLiteral("stopped after ")));
}

TEST(ZeltModbusCommands, SimulateRefusesABadMapFile) {
    QTemporaryDir dir;
    const QString map = dir.filePath(QStringLiteral("map.json"));
    ASSERT_TRUE(writeFile(map, R"({"holding_registers": {"0": [70000]}})"));
    const auto run = runTool({QStringLiteral("simulate"), QStringLiteral("--map"), map});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.startsWith(QStringLiteral("zelt-modbus: %1: ").arg(map))) << run.err.toStdString();
}

TEST(ZeltModbusCommands, DiscoverNeverProbesLoopbackHosts) {
    // The discovery run drops 127.x hosts and 0.0.0.0 before any probe, so this sends nothing anywhere.
    const auto run =
        runTool({QStringLiteral("discover"), QStringLiteral("--hosts"), QStringLiteral("127.0.0.1,0.0.0.0"),
                 QStringLiteral("--ports"), QStringLiteral("1502"), QStringLiteral("--json")});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(QJsonDocument::fromJson(run.out.toUtf8()).array(), QJsonArray());
    EXPECT_EQ(
        run.err,
        QStringLiteral("zelt-modbus discover: 127.0.0.1 is skipped: the discovery never scans loopback or "
                       "unspecified addresses\n"
                       "zelt-modbus discover: 0.0.0.0 is skipped: the discovery never scans loopback or "
                       "unspecified addresses\n"
                       "Modbus TCP discovery probes TCP 1502 on the selected subnet, then reads device "
                       "identification if available and Report Slave ID.\n"));
    const auto table =
        runTool({QStringLiteral("discover"), QStringLiteral("--hosts"), QStringLiteral("127.0.0.2")});
    EXPECT_EQ(table.exitCode, 0);
    EXPECT_EQ(table.out, QStringLiteral("No Modbus TCP devices found.\n"));
}

TEST(ZeltModbusCommands, AnInstalledCopyRunsTheDemo) {
    QTemporaryDir prefix;
    ASSERT_TRUE(prefix.isValid());
    const auto install = runProgram(QStringLiteral("cmake"),
                                    {QStringLiteral("--install"), QStringLiteral(ZELT_BINARY_DIR),
                                     QStringLiteral("--prefix"), prefix.path()},
                                    kSlowRunTimeoutMs);
    ASSERT_EQ(install.exitCode, 0) << install.err.toStdString();
    QDir root(prefix.path());
    for (const char* file : {"bin/zelt-modbus", "bin/modbus-sim", "include/zelt/zelt_interface.h",
                             "include/zelt/plugin_interface.h", "include/zelt/records.h"})
        EXPECT_TRUE(root.exists(QLatin1String(file))) << file;
    EXPECT_FALSE(QDir(prefix.path()).entryList().isEmpty());
    // The stand-in host library is the tools' own: never where the real host's library is looked for.
    EXPECT_TRUE(root.exists(QStringLiteral("lib/zelt-modbus/libzelt.so")));
    EXPECT_FALSE(root.exists(QStringLiteral("lib/libzelt.so")));
    EXPECT_TRUE(root.exists(QStringLiteral("lib/zelt/plugins/libmodbus_tcp.so")));

    const auto run = runProgram(root.filePath(QStringLiteral("bin/zelt-modbus")),
                                {QStringLiteral("demo"), QStringLiteral("--interval"), QStringLiteral("10")},
                                kSlowRunTimeoutMs);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    for (const char* identity : {"Zelt Demo Instruments", "ZM-3", "1.4.2", "ZM-3/DEMO",
                                 "https://zelt.invalid/zm3", "ZM-3 three-phase meter", "zelt-modbus demo"})
        EXPECT_TRUE(run.out.contains(QLatin1String(identity))) << identity;
    EXPECT_TRUE(run.out.contains(
        QRegularExpression(QStringLiteral("\n  voltage L1 \\[V\\] +40001 +FLOAT +230.5\n"))));
}

}  // namespace
