// The summary of zelt-modbus poll --stats without a device: percentiles, complete polls, answered polls, the
// time in back-off and the JSON keys, from scripted poll results.

#include "tools/zelt-modbus/poll_stats.h"

#include <gtest/gtest.h>

#include <QJsonArray>

namespace {

using zelt_cli::BatchResult;
using zelt_cli::DeviceStats;
using zelt_cli::DeviceStatsCollector;
using zelt_cli::DiagnosticCounters;
using zelt_cli::ItemResult;

constexpr int kDevice = 7;
constexpr int kOneItem = 1;

ItemResult valuedItem(const QString& value) {
    ItemResult item;
    item.uid = QStringLiteral("v");
    item.value = value;
    item.valued = true;
    return item;
}

// The diagnostic texts a poll leaves, as the plugin writes them.
struct Diagnostics {
    int requests = 0;
    int failed = 0;
    int timeouts = 0;
    int exceptions = 0;
    int retries = 0;
    int connects = 0;
    int connectFailures = 0;
    QString responseMs = QStringLiteral("0.0");
    QString responseMsMax = QStringLiteral("0.0");
    int backoffS = 0;
};

QHash<QString, QString> texts(const Diagnostics& d) {
    return {{QStringLiteral("requests"), QString::number(d.requests)},
            {QStringLiteral("failed_requests"), QString::number(d.failed)},
            {QStringLiteral("timeouts"), QString::number(d.timeouts)},
            {QStringLiteral("exceptions"), QString::number(d.exceptions)},
            {QStringLiteral("retries"), QString::number(d.retries)},
            {QStringLiteral("connects"), QString::number(d.connects)},
            {QStringLiteral("connect_failures"), QString::number(d.connectFailures)},
            {QStringLiteral("response_ms"), d.responseMs},
            {QStringLiteral("response_ms_avg"), QStringLiteral("0.0")},
            {QStringLiteral("response_ms_max"), d.responseMsMax},
            {QStringLiteral("poll_ms"), QStringLiteral("0.0")},
            {QStringLiteral("connected"), QStringLiteral("1")},
            {QStringLiteral("backoff_s"), QString::number(d.backoffS)},
            {QStringLiteral("last_error"), QString()},
            {QStringLiteral("last_ok"), QString()}};
}

BatchResult poll(bool ok, const Diagnostics& d, const QVector<ItemResult>& items = {valuedItem("1")}) {
    BatchResult result;
    result.deviceId = kDevice;
    result.ok = ok;
    result.items = items;
    result.diagnostics = texts(d);
    return result;
}

DiagnosticCounters counters(const Diagnostics& d) {
    DiagnosticCounters read;
    EXPECT_TRUE(zelt_cli::readDiagnosticCounters(texts(d), &read));
    return read;
}

TEST(PollStatsPercentile, NearestRankIsAlwaysOneOfTheSamples) {
    EXPECT_FALSE(zelt_cli::percentile({}, 50).has_value());
    EXPECT_EQ(zelt_cli::percentile({4.5}, 50), 4.5);
    EXPECT_EQ(zelt_cli::percentile({4.5}, 95), 4.5);
    EXPECT_EQ(zelt_cli::percentile({3, 1, 2}, 50), 2);
    EXPECT_EQ(zelt_cli::percentile({3, 1, 2}, 95), 3);
    EXPECT_EQ(zelt_cli::percentile({4, 1, 3, 2}, 50), 2);
    std::vector<double> hundred;
    for (int i = 100; i >= 1; --i) hundred.push_back(i);
    EXPECT_EQ(zelt_cli::percentile(hundred, 50), 50);
    EXPECT_EQ(zelt_cli::percentile(hundred, 95), 95);
    EXPECT_EQ(zelt_cli::percentile(hundred, 100), 100);
    hundred.push_back(1000);
    EXPECT_EQ(zelt_cli::percentile(hundred, 95), 96);
    EXPECT_EQ(zelt_cli::percentile(hundred, 100), 1000);
}

TEST(PollStatsCounters, AreReadFromTheDiagnosticTexts) {
    Diagnostics d;
    d.requests = 12;
    d.failed = 2;
    d.timeouts = 3;
    d.exceptions = 1;
    d.retries = 4;
    d.connects = 2;
    d.connectFailures = 5;
    d.responseMs = QStringLiteral("12.5");
    d.responseMsMax = QStringLiteral("101.3");
    d.backoffS = 8;
    const DiagnosticCounters read = counters(d);
    EXPECT_EQ(read.requests, 12u);
    EXPECT_EQ(read.failedRequests, 2u);
    EXPECT_EQ(read.timeouts, 3u);
    EXPECT_EQ(read.exceptions, 1u);
    EXPECT_EQ(read.retries, 4u);
    EXPECT_EQ(read.connects, 2u);
    EXPECT_EQ(read.connectFailures, 5u);
    EXPECT_EQ(read.responseMs, 12.5);
    EXPECT_EQ(read.responseMsMax, 101.3);
    EXPECT_EQ(read.backoffS, 8);

    QHash<QString, QString> missing = texts(d);
    missing.remove(QStringLiteral("retries"));
    DiagnosticCounters untouched;
    EXPECT_FALSE(zelt_cli::readDiagnosticCounters(missing, &untouched));
    QHash<QString, QString> notANumber = texts(d);
    notANumber.insert(QStringLiteral("requests"), QStringLiteral("many"));
    EXPECT_FALSE(zelt_cli::readDiagnosticCounters(notANumber, &untouched));
    EXPECT_EQ(untouched.requests, 0u);
}

TEST(PollStatsComplete, NeedsTrueAndEveryConfiguredItemValuedWithoutError) {
    EXPECT_TRUE(zelt_cli::isCompletePoll(poll(true, {}), kOneItem));
    EXPECT_FALSE(zelt_cli::isCompletePoll(poll(false, {}), kOneItem));

    ItemResult failed = valuedItem(QString());
    failed.error = QStringLiteral("Illegal data address");
    EXPECT_FALSE(zelt_cli::isCompletePoll(poll(true, {}, {valuedItem("1"), failed}), 2));

    ItemResult unread;
    unread.uid = QStringLiteral("u");
    EXPECT_FALSE(zelt_cli::isCompletePoll(poll(true, {}, {valuedItem("1"), unread}), 2));
    // An empty text is a value (a blank STRING register).
    EXPECT_TRUE(
        zelt_cli::isCompletePoll(poll(true, {}, {valuedItem(QStringLiteral("")), valuedItem("1")}), 2));
    // Items after the configured ones (identity items) do not count.
    EXPECT_TRUE(zelt_cli::isCompletePoll(poll(true, {}, {valuedItem("1"), unread}), kOneItem));
    EXPECT_FALSE(zelt_cli::isCompletePoll(poll(true, {}, {}), kOneItem));
}

TEST(PollStatsBackoff, ARefusedPollSendsNothingAndLeavesThePauseRunning) {
    Diagnostics before;
    before.requests = 3;
    before.connectFailures = 1;
    Diagnostics paused = before;
    paused.backoffS = 2;
    EXPECT_TRUE(zelt_cli::refusedByBackoff(counters(before), counters(paused)));
    // The pause was over: the poll tried again.
    Diagnostics retried = paused;
    retried.connectFailures = 2;
    EXPECT_FALSE(zelt_cli::refusedByBackoff(counters(paused), counters(retried)));
    Diagnostics sent = paused;
    sent.requests = 4;
    EXPECT_FALSE(zelt_cli::refusedByBackoff(counters(paused), counters(sent)));
    Diagnostics connected = paused;
    connected.connects = 1;
    EXPECT_FALSE(zelt_cli::refusedByBackoff(counters(paused), counters(connected)));
    // Nothing sent and no pause: a batch without items to read.
    EXPECT_FALSE(zelt_cli::refusedByBackoff(counters(before), counters(before)));
}

TEST(PollStatsAnswered, CountsAnswersFromTheCounters) {
    const Diagnostics start;
    Diagnostics answered;
    answered.requests = 2;
    EXPECT_TRUE(zelt_cli::answeredInPoll(counters(start), counters(answered)));
    // One request, tried three times, all timed out.
    Diagnostics timedOut;
    timedOut.requests = 3;
    timedOut.retries = 2;
    timedOut.timeouts = 3;
    timedOut.failed = 1;
    EXPECT_FALSE(zelt_cli::answeredInPoll(counters(start), counters(timedOut)));
    // Busy twice, then answered.
    Diagnostics busyThenAnswered;
    busyThenAnswered.requests = 3;
    busyThenAnswered.retries = 2;
    busyThenAnswered.exceptions = 2;
    EXPECT_TRUE(zelt_cli::answeredInPoll(counters(start), counters(busyThenAnswered)));
    // An exception answer, no retry.
    Diagnostics refused;
    refused.requests = 1;
    refused.exceptions = 1;
    refused.failed = 1;
    EXPECT_TRUE(zelt_cli::answeredInPoll(counters(start), counters(refused)));
    // A time-out closed the connection; the retry could not connect again.
    Diagnostics lostConnection;
    lostConnection.requests = 1;
    lostConnection.timeouts = 1;
    lostConnection.connectFailures = 1;
    EXPECT_FALSE(zelt_cli::answeredInPoll(counters(start), counters(lostConnection)));
    EXPECT_FALSE(zelt_cli::answeredInPoll(counters(answered), counters(answered)));
}

TEST(PollStatsCollector, SumsPollsSamplesAndTheTimeInBackoff) {
    DeviceStatsCollector collector(kDevice, QStringLiteral("slow"), kOneItem);
    Diagnostics d;
    d.connects = 1;
    d.requests = 1;
    d.responseMs = QStringLiteral("10.0");
    d.responseMsMax = QStringLiteral("10.0");
    collector.addPoll(0, poll(true, d));
    d.requests = 2;
    d.responseMs = QStringLiteral("30.0");
    d.responseMsMax = QStringLiteral("30.0");
    collector.addPoll(1000, poll(true, d));
    // Unanswered: timed out and paused. Its "response_ms" is the last poll's and is not sampled again.
    d.requests = 3;
    d.timeouts = 1;
    d.failed = 1;
    d.backoffS = 1;
    collector.addPoll(2000, poll(false, d, {ItemResult{}}));
    // Two polls refused by the pause, then a poll that tries again and is answered.
    collector.addPoll(3000, poll(false, d, {ItemResult{}}));
    collector.addPoll(4000, poll(false, d, {ItemResult{}}));
    d.requests = 4;
    d.backoffS = 0;
    d.responseMs = QStringLiteral("20.0");
    collector.addPoll(5500, poll(true, d));
    // Refused again until the end.
    d.requests = 5;
    d.timeouts = 2;
    d.failed = 2;
    d.backoffS = 2;
    collector.addPoll(6000, poll(false, d, {ItemResult{}}));
    collector.addPoll(7000, poll(false, d, {ItemResult{}}));

    const DeviceStats stats = collector.finish(7250);
    EXPECT_EQ(stats.deviceId, kDevice);
    EXPECT_EQ(stats.name, QStringLiteral("slow"));
    EXPECT_EQ(stats.polls, 8);
    EXPECT_EQ(stats.completePolls, 3);
    EXPECT_EQ(stats.counters.requests, 5u);
    EXPECT_EQ(stats.counters.timeouts, 2u);
    EXPECT_EQ(stats.responseSamples, 3);
    EXPECT_EQ(stats.responseMsP50, 20.0);
    EXPECT_EQ(stats.responseMsP95, 30.0);
    EXPECT_EQ(stats.responseMsMax, 30.0);
    // 3000 → 5500, then 7000 → the end at 7250.
    EXPECT_EQ(stats.backoffMs, 2500 + 250);
}

TEST(PollStatsCollector, APollWithoutCountersChangesNothingButThePollCount) {
    DeviceStatsCollector collector(kDevice, QStringLiteral("meter"), kOneItem);
    BatchResult bare;
    bare.ok = false;
    collector.addPoll(0, bare);
    const DeviceStats stats = collector.finish(10);
    EXPECT_EQ(stats.polls, 1);
    EXPECT_EQ(stats.completePolls, 0);
    EXPECT_EQ(stats.counters.requests, 0u);
    EXPECT_EQ(stats.responseSamples, 0);
    EXPECT_FALSE(stats.responseMsP50.has_value());
    EXPECT_FALSE(stats.responseMsMax.has_value());
    EXPECT_EQ(stats.backoffMs, 0);
}

TEST(PollStatsJson, HasOneObjectPerDeviceWithTheDocumentedKeys) {
    DeviceStats stats;
    stats.deviceId = 2;
    stats.name = QStringLiteral("slow");
    stats.polls = 3;
    stats.completePolls = 2;
    stats.counters.requests = 4;
    stats.counters.failedRequests = 1;
    stats.counters.timeouts = 1;
    stats.counters.exceptions = 0;
    stats.counters.retries = 1;
    stats.counters.connects = 2;
    stats.counters.connectFailures = 0;
    stats.responseSamples = 2;
    stats.responseMsP50 = 100.5;
    stats.responseMsP95 = 120.25;
    stats.responseMsMax = 130.0;
    stats.backoffMs = 1500;
    DeviceStats silent;
    silent.deviceId = 3;
    silent.name = QStringLiteral("dead");
    const QJsonObject json = zelt_cli::statsToJson({stats, silent});
    EXPECT_EQ(json.keys(), QStringList{QStringLiteral("stats")});
    const QJsonArray rows = json.value(QStringLiteral("stats")).toArray();
    ASSERT_EQ(rows.size(), 2);
    const QJsonObject row = rows.at(0).toObject();
    EXPECT_EQ(row.size(), 16);
    EXPECT_EQ(row.value("device").toInt(), 2);
    EXPECT_EQ(row.value("name").toString(), QStringLiteral("slow"));
    EXPECT_EQ(row.value("polls").toInt(), 3);
    EXPECT_EQ(row.value("polls_complete").toInt(), 2);
    EXPECT_EQ(row.value("requests").toInt(), 4);
    EXPECT_EQ(row.value("failed_requests").toInt(), 1);
    EXPECT_EQ(row.value("timeouts").toInt(), 1);
    EXPECT_EQ(row.value("exceptions").toInt(), 0);
    EXPECT_EQ(row.value("retries").toInt(), 1);
    EXPECT_EQ(row.value("connects").toInt(), 2);
    EXPECT_EQ(row.value("connect_failures").toInt(), 0);
    EXPECT_EQ(row.value("response_samples").toInt(), 2);
    EXPECT_EQ(row.value("response_ms_p50").toDouble(), 100.5);
    EXPECT_EQ(row.value("response_ms_p95").toDouble(), 120.25);
    EXPECT_EQ(row.value("response_ms_max").toDouble(), 130.0);
    EXPECT_EQ(row.value("backoff_ms").toInt(), 1500);
    const QJsonObject dead = rows.at(1).toObject();
    EXPECT_TRUE(dead.value("response_ms_p50").isNull());
    EXPECT_TRUE(dead.value("response_ms_p95").isNull());
    EXPECT_TRUE(dead.value("response_ms_max").isNull());
}

TEST(PollStatsTable, ShowsTimesWithOneDecimalAndADashForNone) {
    EXPECT_EQ(zelt_cli::statsTableHeader(),
              (QStringList{"device", "name", "polls", "complete", "requests", "failed", "timeouts",
                           "exceptions", "retries", "connects", "p50 ms", "p95 ms", "max ms", "backoff s"}));
    DeviceStats stats;
    stats.deviceId = 2;
    stats.name = QStringLiteral("slow");
    stats.polls = 3;
    stats.completePolls = 3;
    stats.counters.requests = 3;
    stats.counters.connects = 1;
    stats.responseMsP50 = 100.5;
    stats.responseMsP95 = 101;
    stats.responseMsMax = 101.26;
    stats.backoffMs = 1260;
    EXPECT_EQ(zelt_cli::statsTableRow(stats), (QStringList{"2", "slow", "3", "3", "3", "0", "0", "0", "0",
                                                           "1", "100.5", "101.0", "101.3", "1.3"}));
    DeviceStats none;
    none.deviceId = 3;
    none.name = QStringLiteral("dead");
    EXPECT_EQ(zelt_cli::statsTableRow(none),
              (QStringList{"3", "dead", "0", "0", "0", "0", "0", "0", "0", "0", "-", "-", "-", "0.0"}));
}

}  // namespace
