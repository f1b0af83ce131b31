#include "model/write_effects.h"

#include <QStringList>
#include <map>
#include <set>

namespace model_check {

namespace {

const QString kPreReadRefused = QStringLiteral("Could not read value. Illegal data address");

uint16_t withBit(uint16_t word, int bit, bool on) {
    const auto mask = static_cast<uint16_t>(1U << bit);
    return on ? static_cast<uint16_t>(word | mask) : static_cast<uint16_t>(word & ~mask);
}

// The holding register and coil a step writes, with the function of the value before it.
template <typename Visit>
void visitStep(const WriteStep& step, Visit&& visit) {
    const WriteOutcome& outcome = step.outcome;
    switch (outcome.kind) {
        case WriteOutcome::Kind::Registers:
            for (size_t i = 0; i < outcome.words.size(); ++i)
                visit(true, outcome.address + static_cast<int>(i),
                      [&](uint16_t) { return outcome.words[i]; });
            break;
        case WriteOutcome::Kind::RegisterBit:
            visit(true, outcome.address,
                  [&](uint16_t word) { return withBit(word, outcome.bit, outcome.on); });
            break;
        case WriteOutcome::Kind::Coil:
            visit(false, outcome.address,
                  [&](uint16_t) { return static_cast<uint16_t>(outcome.on ? 1 : 0); });
            break;
        case WriteOutcome::Kind::Refused:
            break;
    }
}

QString describePosition(bool holding, int address) {
    return holding ? QStringLiteral("holding register %1").arg(address)
                   : QStringLiteral("coil %1").arg(address);
}

}  // namespace

std::vector<WriteStep> planWrites(const ConfigModel& config, const DeviceModel& device,
                                  const std::vector<const ItemModel*>& items, const QStringList& values) {
    std::vector<WriteStep> steps;
    const bool maskRefused = config.maskWriteRefused.count({device.sim, device.unit}) > 0;
    for (size_t i = 0; i < items.size(); ++i) {
        WriteStep step;
        step.item = items[i];
        step.value = values.at(static_cast<int>(i));
        step.outcome = writeOutcome(*step.item, device, step.value);
        step.applies = step.outcome.kind != WriteOutcome::Kind::Refused;
        step.expectedError = step.outcome.error;
        if (step.outcome.kind == WriteOutcome::Kind::RegisterBit || step.outcome.readBeforeRefusal) {
            step.maskWrite = device.maskWrite && !maskRefused;
            // Read and written back: a read refused for an illegal address stops the write.
            if (!step.maskWrite &&
                config.isHole(device.sim, device.unit, step.item->table, step.item->offset)) {
                step.applies = false;
                // A value that is no bit, on a device that refuses FC 22 it has not yet been told: refused
                // before the read.
                if (step.outcome.readBeforeRefusal && device.maskWrite) step.otherError = step.expectedError;
                step.expectedError = kPreReadRefused;
            }
        }
        steps.push_back(step);
    }
    return steps;
}

QString exactEffectDifference(const WritableTables& before, const WritableTables& after,
                              const std::vector<WriteStep>& steps) {
    WritableTables expected = before;
    for (const WriteStep& step : steps) {
        if (!step.applies) continue;
        visitStep(step, [&](bool holding, int address, auto&& valueOf) {
            if (holding)
                expected.holding[static_cast<size_t>(address)] =
                    valueOf(expected.holding[static_cast<size_t>(address)]);
            else
                expected.coils[static_cast<size_t>(address)] = static_cast<uint8_t>(valueOf(0));
        });
    }
    for (size_t i = 0; i < expected.holding.size(); ++i)
        if (after.holding.at(i) != expected.holding[i])
            return QStringLiteral("%1 is %2, expected %3 (was %4)")
                .arg(describePosition(true, static_cast<int>(i)))
                .arg(after.holding.at(i))
                .arg(expected.holding[i])
                .arg(before.holding[i]);
    for (size_t i = 0; i < expected.coils.size(); ++i)
        if (after.coils.at(i) != expected.coils[i])
            return QStringLiteral("%1 is %2, expected %3 (was %4)")
                .arg(describePosition(false, static_cast<int>(i)))
                .arg(after.coils.at(i))
                .arg(expected.coils[i])
                .arg(before.coils[i]);
    return QString();
}

QString possibleEffectDifference(const WritableTables& before, const WritableTables& after,
                                 const std::vector<WriteStep>& steps) {
    // Every value a position may hold: each step may or may not have been carried out.
    std::map<int, std::set<uint16_t>> holding;
    std::map<int, std::set<uint16_t>> coils;
    for (const WriteStep& step : steps) {
        visitStep(step, [&](bool isHolding, int address, auto&& valueOf) {
            auto& positions = isHolding ? holding : coils;
            auto found = positions.find(address);
            if (found == positions.end()) {
                const uint16_t old = isHolding ? before.holding[static_cast<size_t>(address)]
                                               : before.coils[static_cast<size_t>(address)];
                found = positions.emplace(address, std::set<uint16_t>{old}).first;
            }
            std::set<uint16_t> next = found->second;
            for (uint16_t value : found->second) next.insert(valueOf(value));
            found->second = next;
        });
    }
    for (size_t i = 0; i < before.holding.size(); ++i) {
        if (after.holding.at(i) == before.holding[i]) continue;
        const auto found = holding.find(static_cast<int>(i));
        if (found == holding.end() || !found->second.count(after.holding.at(i)))
            return QStringLiteral("%1 changed from %2 to %3, which no item of the batch writes there")
                .arg(describePosition(true, static_cast<int>(i)))
                .arg(before.holding[i])
                .arg(after.holding.at(i));
    }
    for (size_t i = 0; i < before.coils.size(); ++i) {
        if (after.coils.at(i) == before.coils[i]) continue;
        const auto found = coils.find(static_cast<int>(i));
        if (found == coils.end() || !found->second.count(after.coils.at(i)))
            return QStringLiteral("%1 changed from %2 to %3, which no item of the batch writes there")
                .arg(describePosition(false, static_cast<int>(i)))
                .arg(before.coils[i])
                .arg(after.coils.at(i));
    }
    return QString();
}

QString unchangedDifference(const WritableTables& before, const WritableTables& after) {
    return possibleEffectDifference(before, after, {});
}

}  // namespace model_check
