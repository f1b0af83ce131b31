#pragma once
// The model's copy of one unit's four tables, how it is filled with data of its own, and the simulator's
// tables read back for comparison.

#include <QString>
#include <cstdint>
#include <map>
#include <vector>

#include "model/model_random.h"
#include "tools/sim/simulator.h"

namespace model_check {

constexpr int kTableEntries = 65536;
// Unit id under which the model keeps the simulator's shared tables (used by units without their own).
constexpr int kSharedTables = -1;

struct UnitTables {
    UnitTables();

    std::vector<uint16_t> holding;
    std::vector<uint16_t> input;
    std::vector<uint8_t> coils;
    std::vector<uint8_t> discrete;
};

// Random data in the addresses the items use: plain words, small numbers, zeros and text, so that every type
// reads something of interest, and every unit and table something of its own.
void fillRandom(UnitTables& tables, Random& random);
// Hands the filled part of `tables` to the simulator for `unit` (kSharedTables: the shared tables).
void storeTables(modbus_sim::Simulator& sim, int unit, const UnitTables& tables);

// The two tables a write can change, as the simulator holds them now.
struct WritableTables {
    std::vector<uint16_t> holding;
    std::vector<uint8_t> coils;
};
WritableTables readWritable(const modbus_sim::Simulator& sim, int unit);
// The first difference between the simulator's writable tables and the model's, or a null text.
QString firstDifference(const WritableTables& actual, const UnitTables& model);

}  // namespace model_check
