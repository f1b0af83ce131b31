#include "tools/zelt-modbus/poll_stats.h"

#include <QJsonArray>
#include <QJsonValue>
#include <algorithm>
#include <cmath>
#include <utility>

namespace zelt_cli {

namespace {

constexpr int kP50 = 50;
constexpr int kP95 = 95;
constexpr int kHundredPercent = 100;
constexpr double kMsPerSecond = 1000.0;
// Times are shown as the diagnostic items give them: milliseconds with one decimal.
constexpr int kDecimals = 1;
const QString kNoValue = QStringLiteral("-");

bool readCount(const QHash<QString, QString>& values, const char* name, quint64* out) {
    bool ok = false;
    *out = values.value(QString::fromLatin1(name)).toULongLong(&ok);
    return ok;
}

bool readMs(const QHash<QString, QString>& values, const char* name, double* out) {
    bool ok = false;
    *out = values.value(QString::fromLatin1(name)).toDouble(&ok);
    return ok;
}

qint64 delta(quint64 before, quint64 after) {
    return static_cast<qint64>(after) - static_cast<qint64>(before);
}

QString decimal(double value) {
    return QString::number(value, 'f', kDecimals);
}

QString optionalDecimal(const std::optional<double>& value) {
    return value ? decimal(*value) : kNoValue;
}

QJsonValue optionalJson(const std::optional<double>& value) {
    return value ? QJsonValue(*value) : QJsonValue(QJsonValue::Null);
}

}  // namespace

bool readDiagnosticCounters(const QHash<QString, QString>& values, DiagnosticCounters* counters) {
    DiagnosticCounters read;
    quint64 backoff = 0;
    if (!readCount(values, "requests", &read.requests) ||
        !readCount(values, "failed_requests", &read.failedRequests) ||
        !readCount(values, "timeouts", &read.timeouts) ||
        !readCount(values, "exceptions", &read.exceptions) || !readCount(values, "retries", &read.retries) ||
        !readCount(values, "connects", &read.connects) ||
        !readCount(values, "connect_failures", &read.connectFailures) ||
        !readMs(values, "response_ms", &read.responseMs) ||
        !readMs(values, "response_ms_max", &read.responseMsMax) || !readCount(values, "backoff_s", &backoff))
        return false;
    read.backoffS = static_cast<qint64>(backoff);
    *counters = read;
    return true;
}

std::optional<double> percentile(std::vector<double> samples, int percent) {
    if (samples.empty()) return std::nullopt;
    percent = std::clamp(percent, 1, kHundredPercent);
    std::sort(samples.begin(), samples.end());
    // Rank ceil(percent / 100 * n), 1-based, in whole numbers so that no rounding moves it.
    const size_t count = samples.size();
    const size_t rank = (static_cast<size_t>(percent) * count + kHundredPercent - 1) / kHundredPercent;
    return samples[std::max<size_t>(rank, 1) - 1];
}

bool isCompletePoll(const BatchResult& result, int configuredItems) {
    if (!result.ok || result.items.size() < configuredItems) return false;
    for (int i = 0; i < configuredItems; ++i) {
        const ItemResult& item = result.items.at(i);
        if (!item.valued || !item.error.isEmpty()) return false;
    }
    return true;
}

bool refusedByBackoff(const DiagnosticCounters& before, const DiagnosticCounters& after) {
    return after.backoffS > 0 && after.requests == before.requests && after.connects == before.connects &&
           after.connectFailures == before.connectFailures;
}

bool answeredInPoll(const DiagnosticCounters& before, const DiagnosticCounters& after) {
    // An exception is an answer, and its round trip is recorded like any other.
    if (after.exceptions > before.exceptions) return true;
    // Each request is one first try plus its retries; a request that failed after them got no answer.
    const qint64 requests = delta(before.requests, after.requests) - delta(before.retries, after.retries);
    qint64 answered = requests - delta(before.failedRequests, after.failedRequests);
    // A retry that finds the connection gone and cannot open it again ends its request unsent, uncounted as
    // failed; after that failed connect no request of the poll is tried, so there is at most one such
    // request.
    if (after.connectFailures > before.connectFailures) --answered;
    return answered > 0;
}

DeviceStatsCollector::DeviceStatsCollector(int deviceId, QString name, int configuredItems)
    : configuredItems(configuredItems) {
    stats.deviceId = deviceId;
    stats.name = std::move(name);
}

void DeviceStatsCollector::addPoll(qint64 startMs, const BatchResult& result) {
    ++stats.polls;
    if (isCompletePoll(result, configuredItems)) ++stats.completePolls;
    DiagnosticCounters now;
    // Without the counters (the plugin had no state for the device) nothing is known of what the poll sent.
    if (!readDiagnosticCounters(result.diagnostics, &now)) return;
    if (refusedByBackoff(last, now)) {
        if (!refusedSinceMs) refusedSinceMs = startMs;
    } else if (refusedSinceMs) {
        stats.backoffMs += startMs - *refusedSinceMs;
        refusedSinceMs.reset();
    }
    if (answeredInPoll(last, now)) {
        responseSamples.push_back(now.responseMs);
        answered = true;
    }
    last = now;
}

DeviceStats DeviceStatsCollector::finish(qint64 endMs) const {
    DeviceStats done = stats;
    done.counters = last;
    if (refusedSinceMs) done.backoffMs += std::max<qint64>(0, endMs - *refusedSinceMs);
    done.responseSamples = static_cast<int>(responseSamples.size());
    done.responseMsP50 = percentile(responseSamples, kP50);
    done.responseMsP95 = percentile(responseSamples, kP95);
    if (answered || last.responseMsMax > 0) done.responseMsMax = last.responseMsMax;
    return done;
}

QJsonObject statsToJson(const QVector<DeviceStats>& devices) {
    QJsonArray rows;
    for (const DeviceStats& stats : devices) {
        const DiagnosticCounters& counters = stats.counters;
        rows.append(QJsonObject{
            {QStringLiteral("device"), stats.deviceId},
            {QStringLiteral("name"), stats.name},
            {QStringLiteral("polls"), stats.polls},
            {QStringLiteral("polls_complete"), stats.completePolls},
            {QStringLiteral("requests"), static_cast<qint64>(counters.requests)},
            {QStringLiteral("failed_requests"), static_cast<qint64>(counters.failedRequests)},
            {QStringLiteral("timeouts"), static_cast<qint64>(counters.timeouts)},
            {QStringLiteral("exceptions"), static_cast<qint64>(counters.exceptions)},
            {QStringLiteral("retries"), static_cast<qint64>(counters.retries)},
            {QStringLiteral("connects"), static_cast<qint64>(counters.connects)},
            {QStringLiteral("connect_failures"), static_cast<qint64>(counters.connectFailures)},
            {QStringLiteral("response_samples"), stats.responseSamples},
            {QStringLiteral("response_ms_p50"), optionalJson(stats.responseMsP50)},
            {QStringLiteral("response_ms_p95"), optionalJson(stats.responseMsP95)},
            {QStringLiteral("response_ms_max"), optionalJson(stats.responseMsMax)},
            {QStringLiteral("backoff_ms"), stats.backoffMs},
        });
    }
    return QJsonObject{{QStringLiteral("stats"), rows}};
}

QStringList statsTableHeader() {
    return {QStringLiteral("device"),   QStringLiteral("name"),       QStringLiteral("polls"),
            QStringLiteral("complete"), QStringLiteral("requests"),   QStringLiteral("failed"),
            QStringLiteral("timeouts"), QStringLiteral("exceptions"), QStringLiteral("retries"),
            QStringLiteral("connects"), QStringLiteral("p50 ms"),     QStringLiteral("p95 ms"),
            QStringLiteral("max ms"),   QStringLiteral("backoff s")};
}

QStringList statsTableRow(const DeviceStats& stats) {
    const DiagnosticCounters& counters = stats.counters;
    return {
        QString::number(stats.deviceId),      stats.name,
        QString::number(stats.polls),         QString::number(stats.completePolls),
        QString::number(counters.requests),   QString::number(counters.failedRequests),
        QString::number(counters.timeouts),   QString::number(counters.exceptions),
        QString::number(counters.retries),    QString::number(counters.connects),
        optionalDecimal(stats.responseMsP50), optionalDecimal(stats.responseMsP95),
        optionalDecimal(stats.responseMsMax), decimal(static_cast<double>(stats.backoffMs) / kMsPerSecond)};
}

}  // namespace zelt_cli
