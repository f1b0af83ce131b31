// zelt-modbus poll --stats against the simulator: a fast unit, a busy and slow unit behind the same gateway
// and a device that is switched off. The summary's counters are exact; times have lower bounds only, and the
// time in back-off lies within the run.

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <map>

#include "tools/sim/blackhole_listener.h"
#include "tools/sim/simulator.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using modbus_sim::FaultKind;
using modbus_sim::FaultRule;
using zelt_modbus_test::itemOf;
using zelt_modbus_test::jsonLines;
using zelt_modbus_test::runTool;
using zelt_modbus_test::writeFile;

constexpr int kFastUnit = 1;
constexpr int kBusyUnit = 2;
constexpr int kFcReadHoldingRegisters = 3;
constexpr uint16_t kFastVoltage = 2305;
constexpr uint16_t kBusyVoltage = 2290;
constexpr uint16_t kSharedVoltage = 1;
// The fast unit's voltage (UINT16) and power (FLOAT) come in one read of three registers, the busy unit's
// voltage in a read of one.
constexpr int kFastReadCount = 3;
constexpr int kBusyReadCount = 1;
// Every second read of the busy unit is refused as busy and asked again.
constexpr int kBusyEvery = 2;
constexpr int kBusyUnitDelayMs = 30;
constexpr int kPolls = 3;
// Far above any answer time on a loaded machine: a time-out would change the counters.
const char* const kResponseTimeoutMs = "5000";
// The switched-off device gives up quickly and is then paused for a second, longer than the rest of its run.
const char* const kConnectTimeoutMs = "100";

class PollStatsCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        simulator.setUnits({kFastUnit, kBusyUnit});
        // Each unit has values of its own, so that a read sent under the other unit's id shows.
        simulator.setHoldingRegisters(0, {kSharedVoltage});
        simulator.setHoldingRegisters(kFastUnit, 0, {kFastVoltage, 0x4366, 0x8000});
        simulator.setHoldingRegisters(kBusyUnit, 0, {kBusyVoltage});
        // Only reads count: the identity requests of the first poll must not move the busy rule's count.
        FaultRule busy;
        busy.kind = FaultKind::BusyEvery;
        busy.unit = kBusyUnit;
        busy.function = kFcReadHoldingRegisters;
        busy.everyRequests = kBusyEvery;
        simulator.addFault(busy);
        FaultRule slow;
        slow.kind = FaultKind::Delay;
        slow.unit = kBusyUnit;
        slow.function = kFcReadHoldingRegisters;
        slow.delayMs = kBusyUnitDelayMs;
        simulator.addFault(slow);
        QString error;
        ASSERT_TRUE(simulator.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
        ASSERT_TRUE(switchedOff.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
    }

    static QJsonObject item(const QString& uid, const QString& address, const QString& type) {
        return QJsonObject{{QStringLiteral("uid"), uid},
                           {QStringLiteral("settings"), QJsonObject{{QStringLiteral("register"), address},
                                                                    {QStringLiteral("type"), type}}}};
    }

    static QJsonObject device(int id, const QString& name, int port, int unit, const QJsonArray& items,
                              QJsonObject settings = {}) {
        settings.insert(QStringLiteral("port"), QString::number(port));
        settings.insert(QStringLiteral("server_id"), QString::number(unit));
        settings.insert(QStringLiteral("response_timeout_ms"), QString::fromLatin1(kResponseTimeoutMs));
        return QJsonObject{{QStringLiteral("id"), id},
                           {QStringLiteral("name"), name},
                           {QStringLiteral("address"), QStringLiteral("127.0.0.1")},
                           {QStringLiteral("settings"), settings},
                           {QStringLiteral("items"), items}};
    }

    QString writeConfig(bool withSwitchedOff) {
        QJsonArray devices;
        devices.append(device(1, QStringLiteral("fast"), simulator.port(), kFastUnit,
                              {item(QStringLiteral("voltage"), QStringLiteral("40001"), QStringLiteral("2")),
                               item(QStringLiteral("power"), QStringLiteral("40002"), QStringLiteral("5"))}));
        devices.append(
            device(2, QStringLiteral("busy"), simulator.port(), kBusyUnit,
                   {item(QStringLiteral("busy_voltage"), QStringLiteral("40001"), QStringLiteral("2"))},
                   {{QStringLiteral("retries"), QStringLiteral("2")}}));
        if (withSwitchedOff)
            devices.append(
                device(3, QStringLiteral("off"), switchedOff.port(), kFastUnit,
                       {item(QStringLiteral("off_voltage"), QStringLiteral("40001"), QStringLiteral("2"))},
                       {{QStringLiteral("connect_timeout_ms"), QString::fromLatin1(kConnectTimeoutMs)}}));
        const QString path = dir.filePath(QStringLiteral("gateway.json"));
        EXPECT_TRUE(
            writeFile(path, QJsonDocument(QJsonObject{{QStringLiteral("devices"), devices}}).toJson()));
        return path;
    }

    static QStringList pollArguments(const QString& config) {
        return {QStringLiteral("poll"),    QStringLiteral("--config"), config,
                QStringLiteral("--count"), QString::number(kPolls),    QStringLiteral("--interval"),
                QStringLiteral("20")};
    }

    QTemporaryDir dir;
    modbus_sim::Simulator simulator;
    modbus_sim::BlackholeListener switchedOff;
};

// The summary row of `device`; empty when absent.
QJsonObject statsOf(const QJsonObject& summary, int device) {
    for (const QJsonValue& row : summary.value(QStringLiteral("stats")).toArray())
        if (row.toObject().value(QStringLiteral("device")).toInt() == device) return row.toObject();
    return {};
}

TEST_F(PollStatsCommandTest, JsonSummaryLineCountsEveryRequestRetryAndException) {
    const QString config = writeConfig(true);
    QStringList arguments = pollArguments(config);
    arguments << QStringLiteral("--stats") << QStringLiteral("--json");
    QElapsedTimer wall;
    wall.start();
    const auto run = runTool(arguments);
    const qint64 wallMs = wall.elapsed();
    // The switched-off device fails its polls.
    ASSERT_EQ(run.exitCode, 1) << run.err.toStdString();
    const QList<QJsonObject> lines = jsonLines(run.out);
    ASSERT_EQ(lines.size(), 3 * kPolls + 1) << run.out.toStdString();
    for (int i = 0; i < 3 * kPolls; ++i) EXPECT_TRUE(lines.at(i).contains(QStringLiteral("poll"))) << i;
    // Each unit's polls show its own values.
    for (int i = 0; i < 3 * kPolls; ++i) {
        SCOPED_TRACE(i);
        const QJsonObject& line = lines.at(i);
        const int device = line.value(QStringLiteral("device")).toInt();
        if (device == 1) {
            EXPECT_EQ(itemOf(line, QStringLiteral("voltage")).value("value").toString(),
                      QString::number(kFastVoltage));
        } else if (device == 2) {
            EXPECT_EQ(itemOf(line, QStringLiteral("busy_voltage")).value("value").toString(),
                      QString::number(kBusyVoltage));
        }
    }
    // Every read went out under the unit of the device that asked for it, which its size tells.
    std::map<int, int> readsOfUnit;
    for (const modbus_sim::RequestRecord& record : simulator.requestLog()) {
        if (record.function != kFcReadHoldingRegisters) continue;
        SCOPED_TRACE(record.unit);
        EXPECT_EQ(record.address, 0);
        EXPECT_EQ(record.count, record.unit == kFastUnit ? kFastReadCount : kBusyReadCount);
        ++readsOfUnit[record.unit];
    }
    EXPECT_EQ(readsOfUnit, (std::map<int, int>{{kFastUnit, kPolls}, {kBusyUnit, 5}}));
    const QJsonObject summary = lines.last();
    ASSERT_EQ(summary.keys(), QStringList{QStringLiteral("stats")}) << run.out.toStdString();
    const QJsonArray rows = summary.value(QStringLiteral("stats")).toArray();
    ASSERT_EQ(rows.size(), 3);
    // In the order of the configuration.
    for (int i = 0; i < 3; ++i) EXPECT_EQ(rows.at(i).toObject().value("device").toInt(), i + 1);

    const QJsonObject fast = statsOf(summary, 1);
    EXPECT_EQ(fast.value("name").toString(), QStringLiteral("fast"));
    EXPECT_EQ(fast.value("polls").toInt(), kPolls);
    EXPECT_EQ(fast.value("polls_complete").toInt(), kPolls);
    EXPECT_EQ(fast.value("requests").toInt(), kPolls);
    EXPECT_EQ(fast.value("failed_requests").toInt(), 0);
    EXPECT_EQ(fast.value("timeouts").toInt(), 0);
    EXPECT_EQ(fast.value("exceptions").toInt(), 0);
    EXPECT_EQ(fast.value("retries").toInt(), 0);
    EXPECT_EQ(fast.value("connects").toInt(), 1);
    EXPECT_EQ(fast.value("connect_failures").toInt(), 0);
    EXPECT_EQ(fast.value("response_samples").toInt(), kPolls);
    EXPECT_GE(fast.value("response_ms_p50").toDouble(-1), 0);
    EXPECT_EQ(fast.value("backoff_ms").toInt(-1), 0);

    // Read 1 answered; reads 2 and 4 busy, each answered when asked again (reads 3 and 5).
    const QJsonObject busy = statsOf(summary, 2);
    EXPECT_EQ(busy.value("name").toString(), QStringLiteral("busy"));
    EXPECT_EQ(busy.value("polls").toInt(), kPolls);
    EXPECT_EQ(busy.value("polls_complete").toInt(), kPolls);
    EXPECT_EQ(busy.value("requests").toInt(), 5);
    EXPECT_EQ(busy.value("failed_requests").toInt(), 0);
    EXPECT_EQ(busy.value("timeouts").toInt(), 0);
    EXPECT_EQ(busy.value("exceptions").toInt(), 2);
    EXPECT_EQ(busy.value("retries").toInt(), 2);
    EXPECT_EQ(busy.value("connects").toInt(), 1);
    EXPECT_EQ(busy.value("connect_failures").toInt(), 0);
    EXPECT_EQ(busy.value("response_samples").toInt(), kPolls);
    // Each poll's last answer is a delayed one.
    EXPECT_GE(busy.value("response_ms_p50").toDouble(), kBusyUnitDelayMs);
    EXPECT_GE(busy.value("response_ms_p95").toDouble(), busy.value("response_ms_p50").toDouble());
    EXPECT_GE(busy.value("response_ms_max").toDouble(), busy.value("response_ms_p95").toDouble());
    EXPECT_EQ(busy.value("backoff_ms").toInt(-1), 0);

    // One connection attempt, then paused: the two polls after it send nothing.
    const QJsonObject off = statsOf(summary, 3);
    EXPECT_EQ(off.value("polls").toInt(), kPolls);
    EXPECT_EQ(off.value("polls_complete").toInt(), 0);
    EXPECT_EQ(off.value("requests").toInt(), 0);
    EXPECT_EQ(off.value("connects").toInt(), 0);
    EXPECT_EQ(off.value("connect_failures").toInt(), 1);
    EXPECT_EQ(off.value("response_samples").toInt(), 0);
    EXPECT_TRUE(off.value("response_ms_p50").isNull());
    EXPECT_TRUE(off.value("response_ms_max").isNull());
    EXPECT_GE(off.value("backoff_ms").toInt(-1), 0);
    EXPECT_LE(off.value("backoff_ms").toInt(), wallMs);
}

TEST_F(PollStatsCommandTest, TextTableFollowsThePolls) {
    QStringList arguments = pollArguments(writeConfig(false));
    arguments << QStringLiteral("--stats");
    const auto run = runTool(arguments);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QStringList lines = run.out.split(QLatin1Char('\n'));
    const int title = lines.indexOf(QStringLiteral("Statistics"));
    ASSERT_GE(title, 1) << run.out.toStdString();
    EXPECT_EQ(lines.at(title - 1), QString());
    ASSERT_EQ(lines.size(), title + 6) << run.out.toStdString();
    EXPECT_EQ(
        lines.at(title + 1),
        QStringLiteral("  device  name  polls  complete  requests  failed  timeouts  exceptions  retries  "
                       "connects  p50 ms  p95 ms  max ms  backoff s"));
    EXPECT_TRUE(lines.at(title + 2).startsWith(QStringLiteral("  ------  ----  -----  --------  --------")));
    const QStringList busy = lines.at(title + 4).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    ASSERT_EQ(busy.size(), 14) << lines.at(title + 4).toStdString();
    EXPECT_EQ(busy.mid(0, 10), (QStringList{"2", "busy", "3", "3", "5", "0", "0", "2", "2", "1"}));
    EXPECT_GE(busy.at(10).toDouble(), kBusyUnitDelayMs);
    EXPECT_EQ(busy.at(13), QStringLiteral("0.0"));
    EXPECT_EQ(lines.last(), QString());
}

// The time stamps, the only part of a line that differs from one run to the next.
QString withoutTimestamps(QString line) {
    static const QRegularExpression kTimestamp(QStringLiteral("\"timestamp\":\"[^\"]*\""));
    return line.replace(kTimestamp, QStringLiteral("\"timestamp\":\"\""));
}

TEST_F(PollStatsCommandTest, PollLinesAreTheSameWithAndWithoutStats) {
    const QStringList arguments = pollArguments(writeConfig(false)) << QStringLiteral("--json");
    const auto plain = runTool(arguments);
    const auto withStats = runTool(QStringList(arguments) << QStringLiteral("--stats"));
    ASSERT_EQ(plain.exitCode, 0) << plain.err.toStdString();
    ASSERT_EQ(withStats.exitCode, 0) << withStats.err.toStdString();
    QStringList plainLines = plain.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QStringList statsLines = withStats.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(statsLines.size(), plainLines.size() + 1);
    EXPECT_TRUE(statsLines.takeLast().startsWith(QStringLiteral("{\"stats\":[")));
    EXPECT_FALSE(withStats.out.contains(QStringLiteral("__diagnostics")));
    EXPECT_FALSE(withStats.out.contains(QStringLiteral("__stats")));
    // Lines of different devices interleave as they come; each line is compared as a whole.
    for (QString& line : plainLines) line = withoutTimestamps(line);
    for (QString& line : statsLines) line = withoutTimestamps(line);
    std::sort(plainLines.begin(), plainLines.end());
    std::sort(statsLines.begin(), statsLines.end());
    EXPECT_EQ(statsLines, plainLines);
}

}  // namespace
