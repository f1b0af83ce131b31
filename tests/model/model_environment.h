#pragma once
// Which configurations a run checks: the suite's fixed seeds, or those the environment asks for
// (ZELT_MODEL_SEED, ZELT_MODEL_CONFIGS, ZELT_MODEL_SECONDS, and the size caps ZELT_MODEL_MAX_DEVICES,
// ZELT_MODEL_MAX_ITEMS, ZELT_MODEL_FAULT_PERCENT), and the command that replays one of them alone.
// ZELT_MODEL_VERBOSE=1 prints each configuration before it runs.

#include <QString>
#include <cstdint>

#include "model/config_generator.h"

namespace model_check {

struct Selection {
    // Whether the environment asked for a run at all.
    bool requested = false;
    uint64_t firstSeed = 0;
    // Configurations from firstSeed on (seeds firstSeed, firstSeed + 1, ...); 0 with a time budget: as many
    // as fit.
    int configurations = 1;
    double seconds = 0;
    GeneratorLimits limits;
};

Selection selectionFromEnvironment();
// The caps the suite's fixed seeds are generated with.
GeneratorLimits suiteLimits();
QString replayCommand(uint64_t seed, const GeneratorLimits& limits);

}  // namespace model_check
