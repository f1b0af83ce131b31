#pragma once
// What `zelt-modbus poll --stats` sums up per device at exit, computed from each poll's result and the values
// of the device's diagnostic items after it. Pure: the caller passes the times, so the rules are tested
// without a device.

#include <QHash>
#include <QJsonObject>
#include <QString>
#include <QVector>
#include <QtGlobal>
#include <optional>
#include <vector>

#include "tools/zelt-modbus/batch_result.h"

namespace zelt_cli {

// The diagnostic counters one poll left in the device's items (cumulative since the plugin's init).
struct DiagnosticCounters {
    quint64 requests = 0;
    quint64 failedRequests = 0;
    quint64 timeouts = 0;
    quint64 exceptions = 0;
    quint64 retries = 0;
    quint64 connects = 0;
    quint64 connectFailures = 0;
    double responseMs = 0;     // the round trip of the device's last answer
    double responseMsMax = 0;  // the longest round trip since init
    qint64 backoffS = 0;       // seconds until the next attempt while the device is paused
};

// Reads the counters from the diagnostic values of a poll (name without the "__diagnostics." prefix → text).
// False when one of them is missing or not a number.
bool readDiagnosticCounters(const QHash<QString, QString>& values, DiagnosticCounters* counters);

// The nearest-rank percentile `percent` (1-100) of `samples`: the smallest sample that at least `percent` %
// of the samples do not exceed. Always one of the samples; none when there are none.
std::optional<double> percentile(std::vector<double> samples, int percent);

// A poll is complete when readData returned true and every configured item (the first `configuredItems` of
// the result) got a value and no error.
bool isCompletePoll(const BatchResult& result, int configuredItems);

// True when the poll was refused by the device's back-off: it sent no request, tried no connection, and the
// device is still paused after it.
bool refusedByBackoff(const DiagnosticCounters& before, const DiagnosticCounters& after);

// True when the device answered at least one request in the poll, so that "response_ms" after it is the round
// trip of an answer of this poll rather than one left from an earlier poll.
bool answeredInPoll(const DiagnosticCounters& before, const DiagnosticCounters& after);

struct DeviceStats {
    int deviceId = 0;
    QString name;
    int polls = 0;
    int completePolls = 0;
    DiagnosticCounters counters;  // after the device's last poll
    int responseSamples = 0;
    std::optional<double> responseMsP50;
    std::optional<double> responseMsP95;
    std::optional<double> responseMsMax;  // none before the first answer
    qint64 backoffMs = 0;
};

// Collects one device's polls in their order.
class DeviceStatsCollector {
public:
    DeviceStatsCollector(int deviceId, QString name, int configuredItems);

    // One poll that started at `startMs` (any steady clock, in milliseconds).
    void addPoll(qint64 startMs, const BatchResult& result);
    // The device's polling ended at `endMs`: a back-off still running counts until then.
    DeviceStats finish(qint64 endMs) const;

private:
    int configuredItems;
    DeviceStats stats;
    DiagnosticCounters last;
    bool answered = false;
    std::vector<double> responseSamples;
    std::optional<qint64> refusedSinceMs;  // start of the first poll of the current run of refused polls
};

// {"stats": [{"device": ..., "name": ..., "polls": ..., ...}, ...]}; the keys are listed in the README.
QJsonObject statsToJson(const QVector<DeviceStats>& devices);

// The header and rows of the text table, one row per device.
QStringList statsTableHeader();
QStringList statsTableRow(const DeviceStats& stats);

}  // namespace zelt_cli
