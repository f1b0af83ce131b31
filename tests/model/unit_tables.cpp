#include "model/unit_tables.h"

#include <utility>

namespace model_check {

namespace {

// The items live below 2048 (plus a string's length); the rest of every table stays 0 in both.
constexpr int kFilledEntries = 2560;
constexpr int kPrintableFirst = 0x20;
constexpr int kPrintableCount = 0x5F;
constexpr int kBitsPerByte = 8;
constexpr int kSmallNumbers = 256;

enum class WordKind { Any, Small, Zero, Text };
const std::vector<std::pair<int, WordKind>> kWordKinds = {
    {45, WordKind::Any}, {15, WordKind::Small}, {8, WordKind::Zero}, {32, WordKind::Text}};
// Chance in percent that the second byte of a text word is a character rather than the zero that ends it.
constexpr int kFullTextWordPercent = 85;

uint16_t randomWord(Random& random) {
    switch (random.weighted(kWordKinds)) {
        case WordKind::Any:
            return static_cast<uint16_t>(random.next());
        case WordKind::Small:
            return static_cast<uint16_t>(random.below(kSmallNumbers));
        case WordKind::Zero:
            return 0;
        case WordKind::Text:
            break;
    }
    const auto high = static_cast<uint16_t>(kPrintableFirst + random.below(kPrintableCount));
    const auto low = static_cast<uint16_t>(
        random.percent(kFullTextWordPercent) ? kPrintableFirst + random.below(kPrintableCount) : 0);
    return static_cast<uint16_t>((high << kBitsPerByte) | low);
}

}  // namespace

UnitTables::UnitTables()
    : holding(kTableEntries, 0),
      input(kTableEntries, 0),
      coils(kTableEntries, 0),
      discrete(kTableEntries, 0) {}

void fillRandom(UnitTables& tables, Random& random) {
    for (int i = 0; i < kFilledEntries; ++i) {
        tables.holding[static_cast<size_t>(i)] = randomWord(random);
        tables.input[static_cast<size_t>(i)] = randomWord(random);
        tables.coils[static_cast<size_t>(i)] = static_cast<uint8_t>(random.below(2));
        tables.discrete[static_cast<size_t>(i)] = static_cast<uint8_t>(random.below(2));
    }
}

void storeTables(modbus_sim::Simulator& sim, int unit, const UnitTables& tables) {
    const std::vector<uint16_t> holding(tables.holding.cbegin(), tables.holding.cbegin() + kFilledEntries);
    const std::vector<uint16_t> input(tables.input.cbegin(), tables.input.cbegin() + kFilledEntries);
    const std::vector<uint8_t> coils(tables.coils.cbegin(), tables.coils.cbegin() + kFilledEntries);
    const std::vector<uint8_t> discrete(tables.discrete.cbegin(), tables.discrete.cbegin() + kFilledEntries);
    if (unit == kSharedTables) {
        sim.setHoldingRegisters(0, holding);
        sim.setInputRegisters(0, input);
        sim.setCoils(0, coils);
        sim.setDiscreteInputs(0, discrete);
        return;
    }
    sim.setHoldingRegisters(unit, 0, holding);
    sim.setInputRegisters(unit, 0, input);
    sim.setCoils(unit, 0, coils);
    sim.setDiscreteInputs(unit, 0, discrete);
}

WritableTables readWritable(const modbus_sim::Simulator& sim, int unit) {
    if (unit == kSharedTables) return {sim.holdingRegisters(0, kTableEntries), sim.coils(0, kTableEntries)};
    return {sim.holdingRegisters(unit, 0, kTableEntries), sim.coils(unit, 0, kTableEntries)};
}

QString firstDifference(const WritableTables& actual, const UnitTables& model) {
    for (size_t i = 0; i < model.holding.size(); ++i)
        if (i >= actual.holding.size() || actual.holding[i] != model.holding[i])
            return QStringLiteral("holding register %1 is %2, the model has %3")
                .arg(i)
                .arg(i < actual.holding.size() ? actual.holding[i] : -1)
                .arg(model.holding[i]);
    for (size_t i = 0; i < model.coils.size(); ++i)
        if (i >= actual.coils.size() || actual.coils[i] != model.coils[i])
            return QStringLiteral("coil %1 is %2, the model has %3")
                .arg(i)
                .arg(i < actual.coils.size() ? actual.coils[i] : -1)
                .arg(model.coils[i]);
    return QString();
}

}  // namespace model_check
