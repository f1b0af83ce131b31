#pragma once
// A poll's or a write's result held against the model: the result, the device error, and every item's value
// and error.

#include <QString>
#include <utility>
#include <vector>

#include "host/records.h"
#include "model/model_config.h"
#include "model/unit_tables.h"
#include "model/violations.h"
#include "model/write_effects.h"

namespace model_check {

// Exact: no fault was active, so every value, error and result is known. Lenient: faults were active, so a
// request may have failed: an item then has the model's value or an error, never another value.
enum class Strictness { Exact, Lenient };

struct BatchContext {
    const ConfigModel& config;
    const DeviceModel& device;
    Strictness strictness;
    QString where;
};

using PolledItems = std::vector<std::pair<const ItemModel*, const DataItem*>>;

// `tables` are the model's tables of the device's unit (unused for a device that cannot be addressed).
void checkPoll(const BatchContext& context, const UnitTables* tables, const LogList& list,
               const PolledItems& items, bool ok, Violations& violations);
void checkWrite(const BatchContext& context, const LogList& list, const std::vector<WriteStep>& steps,
                const std::vector<const DataItem*>& written, bool ok, Violations& violations);

}  // namespace model_check
