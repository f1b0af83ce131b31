#pragma once
// The four Modbus tables as zelt-modbus names them on the command line, and the plugin's register address
// text: "Auto" addresses (40001 = holding register 0, 30001 input, 10001 discrete input, 00001 coil) or a
// plain 0-based offset with an explicit "register_type".

#include <QString>

namespace zelt_cli {

// The values are the plugin's stored "register_type" codes.
enum class RegisterTable { Coils = 0, DiscreteInputs = 1, InputRegisters = 2, HoldingRegisters = 3 };

constexpr int kAutoRegisterType = 4;
// A 5-digit Auto address names offsets 0 to 9998 of its table.
constexpr int kLastAutoOffset = 9998;
constexpr int kLastOffset = 65535;

bool isBitTable(RegisterTable table);
// "holding", "input", "coils", "discrete".
QString tableKey(RegisterTable table);
// "holding registers", "input registers", "coils", "discrete inputs".
QString tableTitle(RegisterTable table);
bool tableFromKey(const QString& key, RegisterTable* table);

// The plugin's address of `offset`: the 5-digit Auto form when there is one, else the plain offset (which
// needs "register_type" set to the table).
QString registerText(RegisterTable table, int offset);
// True when registerText gives the Auto form for this offset.
bool hasAutoAddress(int offset);

// Reads ADDR as the plugin reads an item's "register" under `registerType` (4 = Auto). False with a reason.
bool parseRegisterAddress(const QString& text, int registerType, RegisterTable* table, int* offset,
                          QString* error);

}  // namespace zelt_cli
