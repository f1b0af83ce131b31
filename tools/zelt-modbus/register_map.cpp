#include "tools/zelt-modbus/register_map.h"

#include <QElapsedTimer>
#include <chrono>

#include "tools/zelt-modbus/interrupt.h"
#include "tools/zelt-modbus/map_walk.h"

namespace zelt_cli {

namespace {

constexpr qint64 kMicrosecondsPerSecond = 1000000;
constexpr qint64 kMicrosecondsPerMs = 1000;
// Exception 1: the device does not serve this function, so it has no such table.
constexpr int kIllegalFunction = 1;

qint64 nowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void addRun(TableMap* map, int first, int last) {
    if (!map->runs.isEmpty() && map->runs.last().last + 1 == first)
        map->runs.last().last = last;
    else
        map->runs.append({first, last});
}

}  // namespace

RegisterMapper::RegisterMapper(ReadFn read, MapLimits limits) : read(std::move(read)), limits(limits) {}

bool RegisterMapper::pace() {
    if (interrupted()) return false;
    if (lastStartUs >= 0 && limits.ratePerSecond > 0) {
        const qint64 due = lastStartUs + kMicrosecondsPerSecond / limits.ratePerSecond;
        const qint64 waitUs = due - nowUs();
        if (waitUs > 0 &&
            !sleepUnlessInterrupted(static_cast<int>((waitUs + kMicrosecondsPerMs - 1) / kMicrosecondsPerMs)))
            return false;
    }
    lastStartUs = nowUs();
    return true;
}

RegisterMapper::Step RegisterMapper::request(RegisterTable table, int first, int count, TableMap* map,
                                             bool* readable) {
    if (requests >= limits.maxRequests) {
        ending = QStringLiteral("request limit of %1 reached").arg(limits.maxRequests);
        return Step::StopAll;
    }
    if (!pace()) {
        ending = QStringLiteral("interrupted");
        return Step::StopAll;
    }
    ++requests;
    ++map->requests;
    const ReadOutcome outcome = read(table, first, count);
    const QString where =
        QStringLiteral("%1-%2").arg(registerText(table, first), registerText(table, first + count - 1));
    switch (outcome.kind) {
        case ReadOutcome::Ok:
            addRun(map, first, first + count - 1);
            *readable = true;
            return Step::Continue;
        case ReadOutcome::Exception:
            if (outcome.exceptionCode == kIllegalDataAddress || outcome.exceptionCode == kIllegalDataValue) {
                *readable = false;
                return Step::Continue;
            }
            if (outcome.exceptionCode == kIllegalFunction && map->runs.isEmpty()) {
                map->unsupported = true;
                return Step::StopTable;
            }
            map->stopped =
                QStringLiteral("exception %1 at %2: %3").arg(outcome.exceptionCode).arg(where, outcome.error);
            return Step::StopTable;
        case ReadOutcome::Timeout:
            map->stopped = QStringLiteral("no answer at %1: %2").arg(where, outcome.error);
            return Step::StopTable;
        case ReadOutcome::Failed:
            break;
    }
    map->stopped = QStringLiteral("failed at %1: %2").arg(where, outcome.error);
    return Step::StopTable;
}

bool RegisterMapper::mapTable(RegisterTable table, TableMap* map) {
    map->table = table;
    QElapsedTimer timer;
    timer.start();
    MapWalk walk(limits.first, limits.last, isBitTable(table) ? kMaxBitsPerRead : kMaxRegistersPerRead);
    bool goOn = true;
    while (!walk.done()) {
        bool readable = false;
        const Step step = request(table, walk.position(), walk.count(), map, &readable);
        if (step == Step::StopAll) goOn = false;
        if (step != Step::Continue) break;
        walk.answered(readable);
    }
    map->elapsedMs = timer.elapsed();
    return goOn;
}

}  // namespace zelt_cli
