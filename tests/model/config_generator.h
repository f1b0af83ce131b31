#pragma once
// Random configurations: one to six devices on one to three simulated gateways, items of every table, type,
// address form and byte order, holes, FC 22 refusals and the faults of the fault phase.

#include <cstdint>

#include "model/model_config.h"

namespace model_check {

struct GeneratorLimits {
    int maxDevices = 6;
    int maxItems = 12;
    // Chance in percent that a configuration has a fault phase.
    int faultPercent = 60;
};

ConfigModel generateConfig(uint64_t seed, const GeneratorLimits& limits);

}  // namespace model_check
