#pragma once
// What the simulators do besides answering: the holes and FC 22 refusals a configuration's devices have for
// good, the faults of its fault phase, and the identity they answer the probe with.

#include <memory>
#include <vector>

#include "model/model_config.h"
#include "tools/sim/simulator.h"

namespace model_check {

using Simulators = std::vector<std::unique_ptr<modbus_sim::Simulator>>;

void installPermanentFaults(modbus_sim::Simulator& sim, const ConfigModel& config, int simIndex);
void installTransientFaults(Simulators& sims, const ConfigModel& config);
// Back to the permanent faults only: no dead units, no connection limit.
void clearTransientFaults(Simulators& sims, const ConfigModel& config);
void installIdentity(modbus_sim::Simulator& sim, ConfigModel::Identity identity);

}  // namespace model_check
