// Names of the fault kinds in the map file.

#include "tools/sim/sim_fault_names.h"

#include <QStringList>

namespace modbus_sim {

namespace {

struct KindName {
    FaultKind kind;
    const char* name;
};

constexpr KindName kKindNames[] = {
    {FaultKind::Exception, "exception"},
    {FaultKind::Delay, "delay"},
    {FaultKind::Silence, "silence"},
    {FaultKind::CloseAfter, "close_after"},
    {FaultKind::Reset, "reset"},
    {FaultKind::ByteByByte, "byte_by_byte"},
    {FaultKind::WrongTransactionId, "wrong_transaction_id"},
    {FaultKind::WrongLength, "wrong_length"},
    {FaultKind::WrongProtocolId, "wrong_protocol_id"},
    {FaultKind::TrailingGarbage, "trailing_garbage"},
    {FaultKind::HeaderOnly, "header_only"},
    {FaultKind::BusyEvery, "busy_every"},
    {FaultKind::BadCrc, "bad_crc"},
    {FaultKind::GarbageBefore, "garbage_before"},
    {FaultKind::Split, "split"},
    {FaultKind::OtherUnitFirst, "other_unit_first"},
};

}  // namespace

const char* faultKindName(FaultKind kind) {
    for (const auto& entry : kKindNames) {
        if (entry.kind == kind) return entry.name;
    }
    return "unknown";
}

std::optional<FaultKind> faultKindFromName(const QString& name) {
    for (const auto& entry : kKindNames) {
        if (name == QLatin1String(entry.name)) return entry.kind;
    }
    return std::nullopt;
}

QString faultKindNameList() {
    QStringList names;
    for (const auto& entry : kKindNames) names << QStringLiteral("\"%1\"").arg(QLatin1String(entry.name));
    return names.join(QStringLiteral(", "));
}

}  // namespace modbus_sim
