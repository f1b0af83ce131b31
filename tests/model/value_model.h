#pragma once
// The model's own reading of register words and bits as value texts, and of value texts as the words a write
// stores. Written from the README's tables (byte orders, value formats, error texts), independent of the
// plugin's codec, so that a defect in the codec shows as a difference.

#include <QString>
#include <cstdint>
#include <vector>

#include "model/model_config.h"

namespace model_check {

// Registers one value of `type` occupies; 0 for STRING, whose length is its range.
int registersOf(ValueType type);

// The value text of a register item whose registers start at `words` (footprint() of them).
QString decodeRegisters(const ItemModel& item, const DeviceModel& device, const uint16_t* words);
// The value text of a coil or discrete input.
QString decodeBit(uint8_t bit);

// What writing `value` to an item does to the device, as far as the value alone decides it.
struct WriteOutcome {
    enum class Kind {
        Registers,    // holding registers from `address` on take `words`
        Coil,         // the coil at `address` is set to `on`
        RegisterBit,  // bit `bit` of holding register `address` is set to `on`, the others kept
        Refused,      // nothing is sent; the item gets `error`
    };
    Kind kind = Kind::Refused;
    int address = 0;
    std::vector<uint16_t> words;
    bool on = false;
    int bit = 0;
    QString error;
    // A bit of a register whose value is no bit: written by read and write, the register is read before the
    // value is looked at (with mask write nothing is sent).
    bool readBeforeRefusal = false;
};
WriteOutcome writeOutcome(const ItemModel& item, const DeviceModel& device, const QString& value);

}  // namespace model_check
