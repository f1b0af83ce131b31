// Random configurations and random device behaviour, driven through the plugin as the host drives it and
// checked against the model (see config_run.h). The suite runs a fixed set of seeds; the environment selects
// other seeds, more configurations or a time budget (model_environment.h, scripts/model-check.sh).

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "common/time_scale.h"
#include "model/config_generator.h"
#include "model/config_run.h"
#include "model/crash_report.h"
#include "model/model_environment.h"
#include "model/violations.h"

using model_check::Check;
using model_check::GeneratorLimits;

namespace {

constexpr uint64_t kSuiteSeedCount = 30;
// A configuration that runs longer than this hangs.
constexpr std::chrono::milliseconds kConfigurationBudget(120000 * zelt_test::kTimeScale);
// A long run prints every failing configuration in full up to this many, then one line each.
constexpr int kDetailedFailures = 3;

struct Totals {
    int configurations = 0;
    int failing = 0;
    long polls = 0;
    long writes = 0;
    int violations = 0;
    std::map<Check, int> byCheck;
};

std::vector<uint64_t> suiteSeeds() {
    std::vector<uint64_t> seeds;
    for (uint64_t seed = 1; seed <= kSuiteSeedCount; ++seed) seeds.push_back(seed);
    return seeds;
}

QString countsText(const std::map<Check, int>& counts) {
    QStringList parts;
    for (const auto& entry : counts)
        parts.append(
            QStringLiteral("%1 %2").arg(model_check::Violations::name(entry.first)).arg(entry.second));
    return parts.isEmpty() ? QStringLiteral("none") : parts.join(QStringLiteral(", "));
}

// Runs one configuration; adds a test failure with the replay command when it broke an invariant.
void runConfiguration(uint64_t seed, const GeneratorLimits& limits, Totals& totals) {
    const model_check::ConfigModel config = model_check::generateConfig(seed, limits);
    const QString replay = model_check::replayCommand(seed, limits);
    if (!qgetenv("ZELT_MODEL_VERBOSE").isEmpty()) {
        std::printf("%s\n", config.describe().toStdString().c_str());
        std::fflush(stdout);
    }
    model_check::Violations violations;
    {
        model_check::RunningConfiguration running(replay, kConfigurationBudget);
        model_check::ConfigRun run(config, violations);
        QString error;
        if (!run.run(&error)) {
            ADD_FAILURE() << "seed " << seed << ": the simulators did not start: " << error.toStdString();
            return;
        }
        totals.polls += run.polls();
        totals.writes += run.writes();
    }
    ++totals.configurations;
    if (violations.count() == 0) return;
    ++totals.failing;
    totals.violations += violations.count();
    for (const auto& entry : violations.counts()) totals.byCheck[entry.first] += entry.second;
    const std::string headline = QStringLiteral("seed %1: %2 violation(s) (%3)")
                                     .arg(seed)
                                     .arg(violations.count())
                                     .arg(countsText(violations.counts()))
                                     .toStdString();
    std::printf("model failure: %s; replay: %s\n", headline.c_str(), replay.toStdString().c_str());
    if (totals.failing > kDetailedFailures) {
        ADD_FAILURE() << headline << "; replay: " << replay.toStdString();
        return;
    }
    ADD_FAILURE() << headline << ":\n  " << violations.first().join(QStringLiteral("\n  ")).toStdString()
                  << "\n"
                  << config.describe().toStdString() << "\nReplay it alone with:\n  " << replay.toStdString();
}

void printSummary(const Totals& totals, double seconds) {
    std::printf(
        "model summary: configurations %d, polls %ld, writes %ld, violations %d, failing configurations %d, "
        "seconds %.1f\n",
        totals.configurations, totals.polls, totals.writes, totals.violations, totals.failing, seconds);
    std::printf("model violations by check: %s\n", countsText(totals.byCheck).toStdString().c_str());
    std::fflush(stdout);
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class RandomModelSeed : public ::testing::TestWithParam<uint64_t> {};

}  // namespace

TEST_P(RandomModelSeed, Configuration) {
    if (model_check::selectionFromEnvironment().requested)
        GTEST_SKIP() << "the environment selects the configurations: see RandomModel.Selected";
    model_check::installCrashReport();
    const uint64_t seed = GetParam();
    std::printf("model: seed %llu; replay alone with: %s\n", static_cast<unsigned long long>(seed),
                model_check::replayCommand(seed, model_check::suiteLimits()).toStdString().c_str());
    std::fflush(stdout);
    const auto start = std::chrono::steady_clock::now();
    Totals totals;
    runConfiguration(seed, model_check::suiteLimits(), totals);
    printSummary(totals, secondsSince(start));
}

INSTANTIATE_TEST_SUITE_P(Suite, RandomModelSeed, ::testing::ValuesIn(suiteSeeds()),
                         [](const ::testing::TestParamInfo<uint64_t>& info) {
                             return "seed_" + std::to_string(info.param);
                         });

TEST(RandomModel, Selected) {
    const model_check::Selection selection = model_check::selectionFromEnvironment();
    if (!selection.requested) GTEST_SKIP() << "set ZELT_MODEL_SEED, ZELT_MODEL_CONFIGS or ZELT_MODEL_SECONDS";
    model_check::installCrashReport();
    const auto start = std::chrono::steady_clock::now();
    Totals totals;
    for (uint64_t seed = selection.firstSeed;; ++seed) {
        const int done = static_cast<int>(seed - selection.firstSeed);
        if (selection.configurations > 0 && done >= selection.configurations) break;
        if (selection.seconds > 0 && secondsSince(start) >= selection.seconds) break;
        runConfiguration(seed, selection.limits, totals);
    }
    printSummary(totals, secondsSince(start));
}
