#include "model/model_environment.h"

#include <QByteArray>
#include <QStringList>
#include <cstdlib>

namespace model_check {

namespace {

constexpr int kDefaultConfigurations = 1;

QByteArray variable(const char* name) {
    return qgetenv(name).trimmed();
}

int intVariable(const char* name, int fallback) {
    bool ok = false;
    const int value = variable(name).toInt(&ok);
    return ok ? value : fallback;
}

}  // namespace

GeneratorLimits suiteLimits() {
    return GeneratorLimits{};
}

Selection selectionFromEnvironment() {
    Selection selection;
    const QByteArray seed = variable("ZELT_MODEL_SEED");
    const QByteArray configurations = variable("ZELT_MODEL_CONFIGS");
    const QByteArray seconds = variable("ZELT_MODEL_SECONDS");
    selection.requested = !seed.isEmpty() || !configurations.isEmpty() || !seconds.isEmpty();
    selection.firstSeed = seed.toULongLong();
    selection.seconds = seconds.toDouble();
    selection.configurations =
        intVariable("ZELT_MODEL_CONFIGS", selection.seconds > 0 ? 0 : kDefaultConfigurations);
    selection.limits = suiteLimits();
    selection.limits.maxDevices = intVariable("ZELT_MODEL_MAX_DEVICES", selection.limits.maxDevices);
    selection.limits.maxItems = intVariable("ZELT_MODEL_MAX_ITEMS", selection.limits.maxItems);
    selection.limits.faultPercent = intVariable("ZELT_MODEL_FAULT_PERCENT", selection.limits.faultPercent);
    return selection;
}

QString replayCommand(uint64_t seed, const GeneratorLimits& limits) {
    const GeneratorLimits defaults = suiteLimits();
    QStringList parts;
    parts.append(QStringLiteral("ZELT_MODEL_SEED=%1 ZELT_MODEL_CONFIGS=1").arg(seed));
    if (limits.maxDevices != defaults.maxDevices)
        parts.append(QStringLiteral("ZELT_MODEL_MAX_DEVICES=%1").arg(limits.maxDevices));
    if (limits.maxItems != defaults.maxItems)
        parts.append(QStringLiteral("ZELT_MODEL_MAX_ITEMS=%1").arg(limits.maxItems));
    if (limits.faultPercent != defaults.faultPercent)
        parts.append(QStringLiteral("ZELT_MODEL_FAULT_PERCENT=%1").arg(limits.faultPercent));
    parts.append(QStringLiteral(ZELT_BINARY_DIR "/tests/model_tests --gtest_filter='RandomModel.*'"));
    return parts.join(QLatin1Char(' '));
}

}  // namespace model_check
