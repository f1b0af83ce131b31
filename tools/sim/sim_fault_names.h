#pragma once
// The names of the fault kinds as the map file writes them, and the map file's fault list on its own (so that
// what a file asks for can be checked without a running simulator).

#include <QByteArray>
#include <QString>
#include <optional>
#include <vector>

#include "tools/sim/simulator.h"

namespace modbus_sim {

// "exception", "delay", ... for every FaultKind.
const char* faultKindName(FaultKind kind);
std::optional<FaultKind> faultKindFromName(const QString& name);
// Every name in declaration order, quoted and comma-separated, for error messages.
QString faultKindNameList();

// The "faults" of a JSON map, in file order, checked exactly as loadMapJson checks the whole map (the message
// is the one loadMapJson would give). Defined next to the map reader.
bool readMapFaults(const QByteArray& json, std::vector<FaultRule>* faults, QString* error);

}  // namespace modbus_sim
