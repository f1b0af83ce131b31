// Diagnostic items: what a scripted sequence of polls against the simulator leaves in each of them.

#include "plugin/diagnostics.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QRegularExpression>

#include "common/manual_clock.h"
#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "common/time_scale.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;

namespace {

class DiagnosticsTest : public plugin_test::PluginAndSimulatorTest {
protected:
    DeviceInstancePlugin device(int unitId = 1, QMap<QString, QString> settings = {}) {
        settings.insert(QStringLiteral("server_id"), QString::number(unitId));
        if (!settings.contains(QStringLiteral("persistent_connection")))
            settings.insert(QStringLiteral("persistent_connection"), QStringLiteral("1"));
        return makeDevice(unitId, sim.port(), settings);
    }

    // Adds every diagnostic item (uid = its name) and two values, one holding and one input register.
    static void addItems(Batch& batch) {
        batch.add(makeItem("holding", "40001", "4", "2"));
        batch.add(makeItem("input", "30001", "4", "2"));
        for (const QString& name : diagnostics::names())
            batch.add(makeItem(name, diagnostics::kPrefix + name, "4", ""));
    }

    // The counters, in the documented order, as one text: "requests=... failed_requests=...".
    static QString counters(const Batch& batch) {
        QStringList parts;
        for (const char* name : {"requests", "failed_requests", "timeouts", "exceptions", "retries",
                                 "connects", "connect_failures", "connected", "backoff_s"})
            parts.append(QStringLiteral("%1=%2").arg(QLatin1String(name), batch.value(QLatin1String(name))));
        return parts.join(QLatin1Char(' '));
    }

    // Reads of the holding registers the simulator received.
    int holdingReads() const {
        int reads = 0;
        for (const modbus_sim::RequestRecord& record : sim.requestLog())
            if (record.function == 3) ++reads;
        return reads;
    }

    static double milliseconds(const Batch& batch, const char* name) {
        const QString text = batch.value(QLatin1String(name));
        EXPECT_TRUE(QRegularExpression(QStringLiteral("^\\d+\\.\\d$")).match(text).hasMatch())
            << name << " " << text.toStdString();
        return text.toDouble();
    }
};

TEST_F(DiagnosticsTest, ACleanDeviceCountsEveryRequestAndOneConnection) {
    sim.setHoldingRegisters(0, {1});
    sim.setInputRegisters(0, {2});
    Batch batch(device());
    addItems(batch);
    for (int poll = 0; poll < 3; ++poll) ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(counters(batch),
              QStringLiteral("requests=6 failed_requests=0 timeouts=0 exceptions=0 retries=0 "
                             "connects=1 connect_failures=0 connected=1 backoff_s=0"));
    EXPECT_EQ(batch.value("last_error"), QString());
    EXPECT_EQ(batch.error("last_error"), QString());
    const QDateTime lastOk = QDateTime::fromString(batch.value("last_ok"), Qt::ISODate);
    EXPECT_TRUE(lastOk.isValid()) << batch.value("last_ok").toStdString();
    EXPECT_EQ(lastOk.timeSpec(), Qt::UTC);
    EXPECT_GE(milliseconds(batch, "response_ms_max"), milliseconds(batch, "response_ms"));
    milliseconds(batch, "response_ms_avg");
    milliseconds(batch, "poll_ms");
    // Diagnostic items are never read from the device nor taken for invalid addresses.
    EXPECT_EQ(batch.error("requests"), QString());
    EXPECT_EQ(batch.value("holding"), QStringLiteral("1"));
    EXPECT_EQ(batch.value("input"), QStringLiteral("2"));
}

TEST_F(DiagnosticsTest, BeforeTheFirstGoodPollLastOkIsEmpty) {
    sim.addFault(plugin_test::exceptionFault(3, 6));
    Batch batch(device());
    addItems(batch);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("last_ok"), QString());
    EXPECT_EQ(batch.value("last_error"), QStringLiteral("Slave device or server is busy"));
}

TEST_F(DiagnosticsTest, ABusyAnswerIsSentAgainAndCountedAsExceptionRetryAndFailure) {
    sim.addFault(plugin_test::exceptionFault(4, 6));
    Batch batch(device(1, {{"retries", "1"}}));
    addItems(batch);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(counters(batch),
              QStringLiteral("requests=3 failed_requests=1 timeouts=0 exceptions=2 retries=1 "
                             "connects=1 connect_failures=0 connected=1 backoff_s=0"));
    EXPECT_EQ(batch.value("last_error"), QStringLiteral("Slave device or server is busy"));
}

TEST_F(DiagnosticsTest, ASilentDeviceCountsItsTimeOutsAndIsPausedAfterThreePolls) {
    test_support::ManualClock clock;
    modbus_sim::FaultRule silence;
    silence.kind = modbus_sim::FaultKind::Silence;
    sim.addFault(silence);
    const int timeoutMs = 50 * zelt_test::kTimeScale;
    Batch batch(device(1, {{"response_timeout_ms", QString::number(timeoutMs)}}));
    batch.add(makeItem("holding", "40001", "4", "2"));
    for (const QString& name : diagnostics::names())
        batch.add(makeItem(name, diagnostics::kPrefix + name, "4", ""));
    for (int poll = 0; poll < 3; ++poll) EXPECT_FALSE(plugin.readData(&batch.list));
    // Every time-out closed the connection; each poll opened one. The identity probe's requests are its own.
    EXPECT_EQ(counters(batch),
              QStringLiteral("requests=3 failed_requests=3 timeouts=3 exceptions=0 retries=0 "
                             "connects=3 connect_failures=0 connected=0 backoff_s=1"));
    EXPECT_EQ(batch.value("last_error"), QStringLiteral("Connection timed out"));
    EXPECT_GE(milliseconds(batch, "poll_ms"), timeoutMs);
    // A poll in the pause sends nothing and counts nothing.
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(counters(batch),
              QStringLiteral("requests=3 failed_requests=3 timeouts=3 exceptions=0 retries=0 "
                             "connects=3 connect_failures=0 connected=0 backoff_s=1"));
    EXPECT_EQ(batch.value("last_error"), QStringLiteral("Connection timed out; next attempt in 1 s"));
    EXPECT_EQ(holdingReads(), 3);

    // After the pause the device is asked again; still silent, it is paused twice as long.
    clock.advance(Backoff::kFirstPauseMs);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(counters(batch),
              QStringLiteral("requests=4 failed_requests=4 timeouts=4 exceptions=0 retries=0 "
                             "connects=4 connect_failures=0 connected=0 backoff_s=2"));
    EXPECT_EQ(batch.value("last_error"), QStringLiteral("Connection timed out"));
    EXPECT_EQ(holdingReads(), 4);
}

TEST_F(DiagnosticsTest, ResponseTimesAreAtLeastTheDevicesDelay) {
    modbus_sim::FaultRule slow;
    slow.kind = modbus_sim::FaultKind::Delay;
    slow.function = 3;
    slow.delayMs = 40;
    sim.addFault(slow);
    Batch batch(device());
    addItems(batch);
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_GE(milliseconds(batch, "response_ms_max"), 40.0);
    // The last answer was the fast input register read; the mean holds the slow one.
    EXPECT_GE(milliseconds(batch, "response_ms_avg"), 20.0);
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_GE(milliseconds(batch, "poll_ms"), 40.0);
}

TEST_F(DiagnosticsTest, AnUnreachableDeviceCountsItsFailedConnectsAndCountsTheBackOffDown) {
    test_support::ManualClock clock;
    const quint16 port = sim.port();
    sim.stop();
    Batch batch(makeDevice(1, port, {{"backoff_max_ms", "600000"}}));
    for (const QString& name : diagnostics::names())
        batch.add(makeItem(name, diagnostics::kPrefix + name, "4", ""));
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(counters(batch),
              QStringLiteral("requests=0 failed_requests=0 timeouts=0 exceptions=0 retries=0 "
                             "connects=0 connect_failures=1 connected=0 backoff_s=1"));
    EXPECT_EQ(batch.value("last_error"), QStringLiteral("Could not connect. Connection refused"));
    clock.advance(Backoff::kFirstPauseMs);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("connect_failures"), QStringLiteral("2"));
    EXPECT_EQ(batch.value("backoff_s"), QStringLiteral("2"));
    // 900 ms of the 2 s pause left: counted in whole seconds, rounded up.
    clock.advance(1100);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("backoff_s"), QStringLiteral("1"));
    EXPECT_EQ(batch.value("connect_failures"), QStringLiteral("2"));
    EXPECT_EQ(batch.value("last_error"),
              QStringLiteral("Could not connect. Connection refused; next attempt in 1 s"));
    clock.advance(900);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("connect_failures"), QStringLiteral("3"));
    EXPECT_EQ(batch.value("backoff_s"), QStringLiteral("4"));
    EXPECT_EQ(batch.value("last_error"), QStringLiteral("Could not connect. Connection refused"));
}

TEST_F(DiagnosticsTest, UnitsSharingAConnectionEachCountIt) {
    Batch first(device(1));
    Batch second(device(2));
    first.add(makeItem("connects", diagnostics::kPrefix + QStringLiteral("connects"), "4", ""));
    second.add(makeItem("connects", diagnostics::kPrefix + QStringLiteral("connects"), "4", ""));
    ASSERT_TRUE(plugin.readData(&first.list));
    ASSERT_TRUE(plugin.readData(&second.list));
    ASSERT_TRUE(plugin.readData(&first.list));
    EXPECT_EQ(first.value("connects"), QStringLiteral("1"));
    EXPECT_EQ(second.value("connects"), QStringLiteral("1"));
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

TEST_F(DiagnosticsTest, AnUnknownNameGetsAnError) {
    Batch batch(device());
    DataItem* unknown = batch.add(makeItem("unknown", QStringLiteral("__diagnostics.bogus"), "4", ""));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(unknown->item.lastError, QStringLiteral("Unknown diagnostic item"));
    EXPECT_EQ(batch.value("unknown"), QString());
}

TEST_F(DiagnosticsTest, AWriteToADiagnosticItemIsRefusedAndSendsNothing) {
    Batch batch(device());
    DataItem* item = batch.add(makeItem("requests", QStringLiteral("__diagnostics.requests"), "4", "2"));
    item->values.insert(QStringLiteral("value"), QStringLiteral("0"));
    plugin.writeData(&batch.list);
    EXPECT_EQ(item->item.lastError, QStringLiteral("Diagnostic items are read-only"));
    for (const modbus_sim::RequestRecord& record : sim.requestLog())
        EXPECT_TRUE(record.function != 5 && record.function != 6 && record.function != 15 &&
                    record.function != 16)
            << record.function;
}

}  // namespace
