#pragma once
// Finds the addresses of each table that a device answers: reads the blocks MapWalk chooses, which a device
// answers or refuses as "illegal data address" (or "value"), until the readable runs are known. Paced and
// bounded, because it runs against devices in service.

#include <QList>
#include <QString>
#include <functional>

#include "tools/zelt-modbus/device_link.h"
#include "tools/zelt-modbus/register_table.h"

namespace zelt_cli {

struct AddressRun {
    int first = 0;
    int last = 0;
};

struct TableMap {
    RegisterTable table = RegisterTable::HoldingRegisters;
    QList<AddressRun> runs;
    int requests = 0;
    qint64 elapsedMs = 0;
    bool unsupported = false;  // the device answered exception 1: it has no such table
    QString stopped;           // why the table was left before its end; empty when it was walked to the end
};

struct MapLimits {
    int first = 0;
    int last = kLastAutoOffset;
    int maxRequests = 0;
    int ratePerSecond = 0;
};

class RegisterMapper {
public:
    // `read` performs one request: DeviceLink::read in the tool.
    using ReadFn = std::function<ReadOutcome(RegisterTable, int, int)>;
    RegisterMapper(ReadFn read, MapLimits limits);

    // Maps one table. False when the whole run must end: request limit reached or interrupted.
    bool mapTable(RegisterTable table, TableMap* map);
    int totalRequests() const { return requests; }
    // Set when mapTable returned false.
    QString endReason() const { return ending; }

private:
    enum class Step { Continue, StopTable, StopAll };
    // One read of [first, first + count); `*readable` is set when it was answered or refused.
    Step request(RegisterTable table, int first, int count, TableMap* map, bool* readable);
    bool pace();

    ReadFn read;
    MapLimits limits;
    int requests = 0;
    qint64 lastStartUs = -1;
    QString ending;
};

}  // namespace zelt_cli
