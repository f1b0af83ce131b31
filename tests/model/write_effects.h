#pragma once
// What a write batch must do to its unit's holding registers and coils: exactly its items' registers and bits
// when every request went through, and in a phase with faults at most those, each with a value one of the
// batch's items writes there.

#include <QString>
#include <QStringList>
#include <vector>

#include "model/model_config.h"
#include "model/unit_tables.h"
#include "model/value_model.h"

namespace model_check {

struct WriteStep {
    const ItemModel* item = nullptr;
    QString value;
    WriteOutcome outcome;
    // Whether a write without faults changes the device, and the item error it leaves.
    bool applies = false;
    QString expectedError;
    // The other error the item may get, when which one depends on what the plugin has learned of the device
    // (empty: none).
    QString otherError;
    // A bit of a register written with FC 22 (else read and written back).
    bool maskWrite = false;
};

// The steps of writing `values` to `items` (same order) of `device`: how each bit of a register goes, and
// which ones a hole in front of their read or a refused value stops.
std::vector<WriteStep> planWrites(const ConfigModel& config, const DeviceModel& device,
                                  const std::vector<const ItemModel*>& items, const QStringList& values);

// The first position where `after` differs from `before` changed by every applying step, or a null text.
QString exactEffectDifference(const WritableTables& before, const WritableTables& after,
                              const std::vector<WriteStep>& steps);
// The first position whose value in `after` no subset of the steps explains, or a null text.
QString possibleEffectDifference(const WritableTables& before, const WritableTables& after,
                                 const std::vector<WriteStep>& steps);
// The first difference between two images of the same unit, or a null text.
QString unchangedDifference(const WritableTables& before, const WritableTables& after);

}  // namespace model_check
