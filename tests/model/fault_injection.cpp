#include "model/fault_injection.h"

#include <map>
#include <set>

namespace model_check {

namespace {

constexpr int kIllegalFunctionCode = 1;
constexpr int kIllegalDataAddressCode = 2;
// A Report Slave ID payload: slave id, run indicator, a text.
const QByteArray kReportSlaveId = QByteArray::fromHex("01ff") + QByteArray("model check gateway");
// A converter's keep-alive, with bytes in it that could begin an answer of unit 1.
const QByteArray kHeartbeat = QByteArray("alive") + QByteArray::fromHex("0103ff0d0a");
constexpr int kSplitGapMs = 2;

modbus_sim::FaultRule exceptionRule(int unit, int function, int address, int code) {
    modbus_sim::FaultRule rule;
    rule.kind = modbus_sim::FaultKind::Exception;
    rule.unit = unit;
    rule.function = function;
    rule.address = address;
    rule.exceptionCode = code;
    return rule;
}

}  // namespace

void installPermanentFaults(modbus_sim::Simulator& sim, const ConfigModel& config, int simIndex) {
    for (const Hole& hole : config.holes)
        if (hole.sim == simIndex)
            sim.addFault(
                exceptionRule(hole.unit, readFunction(hole.table), hole.address, kIllegalDataAddressCode));
    for (const auto& refused : config.maskWriteRefused)
        if (refused.first == simIndex)
            sim.addFault(exceptionRule(refused.second, kFunctionMaskWrite, -1, kIllegalFunctionCode));
}

void installTransientFaults(Simulators& sims, const ConfigModel& config) {
    std::map<int, std::set<int>> dead;
    std::map<int, bool> gatewayReply;
    for (const TransientFault& fault : config.faults) {
        modbus_sim::Simulator& sim = *sims[static_cast<size_t>(fault.sim)];
        modbus_sim::FaultRule rule;
        rule.unit = fault.unit;
        rule.function = fault.function;
        rule.address = fault.address;
        switch (fault.kind) {
            case FaultKind::Busy:
                rule.kind = modbus_sim::FaultKind::BusyEvery;
                rule.everyRequests = fault.parameter;
                sim.addFault(rule);
                break;
            case FaultKind::IdentityDelay:
            case FaultKind::DataDelay:
                rule.kind = modbus_sim::FaultKind::Delay;
                rule.delayMs = fault.parameter;
                sim.addFault(rule);
                break;
            case FaultKind::DeadUnit:
                dead[fault.sim].insert(fault.unit);
                gatewayReply[fault.sim] = gatewayReply[fault.sim] || fault.gatewayReply;
                break;
            case FaultKind::ConnectionLimit:
                sim.setConnectionLimit(fault.parameter);
                break;
            case FaultKind::Reset:
                rule.kind = modbus_sim::FaultKind::Reset;
                sim.addFault(rule);
                break;
            case FaultKind::CloseAfter:
                rule.kind = modbus_sim::FaultKind::CloseAfter;
                rule.afterRequests = fault.parameter;
                sim.addFault(rule);
                break;
            case FaultKind::Heartbeat:
                rule.kind = modbus_sim::FaultKind::GarbageBefore;
                rule.garbage = kHeartbeat;
                sim.addFault(rule);
                break;
            case FaultKind::SplitAnswer:
                rule.kind = modbus_sim::FaultKind::Split;
                rule.chunkBytes = fault.parameter;
                rule.delayMs = kSplitGapMs;
                sim.addFault(rule);
                break;
            case FaultKind::OtherUnitAnswer:
                rule.kind = modbus_sim::FaultKind::OtherUnitFirst;
                sim.addFault(rule);
                break;
            case FaultKind::BadCrc:
                rule.kind = modbus_sim::FaultKind::BadCrc;
                sim.addFault(rule);
                break;
        }
    }
    for (const auto& units : dead)
        sims[static_cast<size_t>(units.first)]->setDeadUnits(
            units.second, gatewayReply[units.first] ? modbus_sim::UnknownUnitReply::GatewayException
                                                    : modbus_sim::UnknownUnitReply::Silence);
}

void clearTransientFaults(Simulators& sims, const ConfigModel& config) {
    for (int s = 0; s < config.simCount; ++s) {
        modbus_sim::Simulator& sim = *sims[static_cast<size_t>(s)];
        sim.clearFaults();
        installPermanentFaults(sim, config, s);
        sim.setDeadUnits({});
        sim.setConnectionLimit(0);
    }
}

void installIdentity(modbus_sim::Simulator& sim, ConfigModel::Identity identity) {
    // Answers of both kinds, so that a late one of each kind meets the next request.
    switch (identity) {
        case ConfigModel::Identity::ReportSlaveId:
            sim.setReportSlaveId(kReportSlaveId);
            break;
        case ConfigModel::Identity::DeviceIdentification: {
            modbus_sim::DeviceIdentification identification;
            identification.objects = {{0, "Model Check"}, {1, "MC-1"}, {2, "1.0"}};
            sim.setDeviceIdentification(identification);
            break;
        }
        case ConfigModel::Identity::None:
            break;
    }
}

}  // namespace model_check
