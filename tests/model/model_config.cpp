#include "model/model_config.h"

#include <QStringList>
#include <algorithm>

#include "model/value_model.h"

namespace model_check {

int readFunction(Table table) {
    switch (table) {
        case Table::Coils:
            return kFunctionReadCoils;
        case Table::DiscreteInputs:
            return kFunctionReadDiscreteInputs;
        case Table::InputRegisters:
            return kFunctionReadInputRegisters;
        case Table::HoldingRegisters:
            break;
    }
    return kFunctionReadHoldingRegisters;
}

bool isBitTable(Table table) {
    return table == Table::Coils || table == Table::DiscreteInputs;
}

int ItemModel::footprint() const {
    // A read covers the range and the value's registers; at least one register (or bit).
    return std::max(1, span + registersOf(type));
}

bool ConfigModel::isHole(int sim, int unit, Table table, int address) const {
    return std::any_of(holes.cbegin(), holes.cend(), [&](const Hole& hole) {
        return hole.sim == sim && hole.unit == unit && hole.table == table && hole.address == address;
    });
}

bool ConfigModel::coversHole(int sim, int unit, const ItemModel& item) const {
    if (!item.validTable) return false;
    for (int address = item.offset; address <= item.last(); ++address)
        if (isHole(sim, unit, item.table, address)) return true;
    return false;
}

bool ConfigModel::unitHasHoles(int sim, int unit) const {
    return std::any_of(holes.cbegin(), holes.cend(),
                       [&](const Hole& hole) { return hole.sim == sim && hole.unit == unit; });
}

bool ConfigModel::hasFault(FaultKind kind) const {
    return std::any_of(faults.cbegin(), faults.cend(),
                       [kind](const TransientFault& fault) { return fault.kind == kind; });
}

bool ConfigModel::onlyLateIdentity() const {
    return !faults.empty() && std::all_of(faults.cbegin(), faults.cend(), [](const TransientFault& fault) {
        return fault.kind == FaultKind::IdentityDelay;
    });
}

std::set<int> ConfigModel::deviceUnits(int sim) const {
    std::set<int> units;
    for (const DeviceModel& device : devices)
        if (device.sim == sim && device.addressable()) units.insert(device.unit);
    return units;
}

std::set<int> ConfigModel::tableUnits(int sim) const {
    std::set<int> units = deviceUnits(sim);
    units.insert(decoyUnits[static_cast<size_t>(sim)].cbegin(), decoyUnits[static_cast<size_t>(sim)].cend());
    return units;
}

namespace {

QString tableName(Table table) {
    static const char* const kNames[] = {"coils", "discrete inputs", "input registers", "holding registers"};
    return QString::fromLatin1(kNames[static_cast<int>(table)]);
}

QString faultName(FaultKind kind) {
    static const char* const kNames[] = {
        "busy",        "identity delay", "data delay",   "dead unit",           "connection limit", "reset",
        "close after", "heartbeat",      "split answer", "other unit's answer", "bad CRC"};
    return QString::fromLatin1(kNames[static_cast<int>(kind)]);
}

QString settingsText(const QMap<QString, QString>& settings) {
    QStringList parts;
    for (auto it = settings.cbegin(); it != settings.cend(); ++it)
        parts.append(QStringLiteral("\"%1\": \"%2\"").arg(it.key(), it.value()));
    return QLatin1Char('{') + parts.join(QStringLiteral(", ")) + QLatin1Char('}');
}

}  // namespace

QString ConfigModel::describe() const {
    QStringList lines;
    lines.append(QStringLiteral(
                     "configuration %1: %2 simulator(s), response time-out %3 ms (%4 ms in the fault phase)")
                     .arg(seed)
                     .arg(simCount)
                     .arg(responseTimeoutMs)
                     .arg(faultResponseTimeoutMs > 0 ? faultResponseTimeoutMs : responseTimeoutMs));
    for (int sim = 0; sim < simCount; ++sim)
        if (rtuSimulators.at(static_cast<size_t>(sim)))
            lines.append(QStringLiteral("  simulator %1 serves RTU over TCP").arg(sim));
        else if (tlsSimulators.at(static_cast<size_t>(sim)))
            lines.append(QStringLiteral("  simulator %1 serves Modbus/TCP Security").arg(sim));
    for (const DeviceModel& device : devices) {
        lines.append(QStringLiteral("  device %1 on simulator %2, unit %3: %4")
                         .arg(device.id)
                         .arg(device.sim)
                         .arg(device.addressable() ? QString::number(device.unit) : QStringLiteral("none"))
                         .arg(settingsText(device.settings)));
        for (const ItemModel& item : device.items) {
            QString meaning =
                item.validTable
                    ? QStringLiteral("%1 %2..%3").arg(tableName(item.table)).arg(item.offset).arg(item.last())
                    : QStringLiteral("no table");
            lines.append(
                QStringLiteral("    %1: register \"%2\" register_type \"%3\" type \"%4\"%5 (%6)")
                    .arg(item.uid, item.registerText, item.registerTypeText, item.typeText,
                         item.precisionText.isNull()
                             ? QString()
                             : QStringLiteral(" floating_point_precision \"%1\"").arg(item.precisionText),
                         meaning));
        }
    }
    static const char* const kIdentityNames[] = {"none", "Report Slave ID", "Device Identification"};
    for (int sim = 0; sim < simCount; ++sim)
        lines.append(QStringLiteral("  simulator %1 identity: %2")
                         .arg(sim)
                         .arg(QString::fromLatin1(
                             kIdentityNames[static_cast<int>(identities[static_cast<size_t>(sim)])])));
    for (const Hole& hole : holes)
        lines.append(QStringLiteral("  hole: simulator %1 unit %2 %3 %4")
                         .arg(hole.sim)
                         .arg(hole.unit)
                         .arg(tableName(hole.table))
                         .arg(hole.address));
    for (const auto& refused : maskWriteRefused)
        lines.append(
            QStringLiteral("  FC 22 refused: simulator %1 unit %2").arg(refused.first).arg(refused.second));
    for (const TransientFault& fault : faults)
        lines.append(
            QStringLiteral(
                "  fault phase (%1): %2, simulator %3 unit %4 function %5 address %6 parameter %7%8")
                .arg(faultPhaseConcurrent ? QStringLiteral("concurrent") : QStringLiteral("sequential"),
                     faultName(fault.kind))
                .arg(fault.sim)
                .arg(fault.unit)
                .arg(fault.function)
                .arg(fault.address)
                .arg(fault.parameter)
                .arg(fault.gatewayReply ? QStringLiteral(", gateway exception") : QString()));
    return lines.join(QLatin1Char('\n'));
}

}  // namespace model_check
