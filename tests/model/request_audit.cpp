#include "model/request_audit.h"

#include <QStringList>
#include <algorithm>
#include <map>
#include <tuple>

namespace model_check {

namespace {

// Whether a write of a register's bit with "mask_write" 1 must go out as FC 22 (unless the unit refused it).
constexpr bool kMaskWriteExpected = true;

bool isIdentity(int function) {
    return function == kFunctionDeviceIdentification || function == kFunctionReportSlaveId;
}

bool isRead(int function) {
    return function >= kFunctionReadCoils && function <= kFunctionReadInputRegisters;
}

Table tableRead(int function) {
    switch (function) {
        case kFunctionReadCoils:
            return Table::Coils;
        case kFunctionReadDiscreteInputs:
            return Table::DiscreteInputs;
        case kFunctionReadInputRegisters:
            return Table::InputRegisters;
        default:
            break;
    }
    return Table::HoldingRegisters;
}

// Single writes and FC 22 name one address and no quantity.
RequestRange rangeOf(const modbus_sim::RequestRecord& record) {
    RequestRange range;
    range.function = record.function;
    range.first = record.address;
    range.last = record.address + std::max(record.count, 1) - 1;
    return range;
}

QString describe(const modbus_sim::RequestRecord& record) {
    return QStringLiteral("FC %1 unit %2 address %3 count %4 (PDU %5)")
        .arg(record.function)
        .arg(record.unit)
        .arg(record.address)
        .arg(record.count)
        .arg(QString::fromLatin1(record.pdu.toHex()));
}

bool within(const RequestRange& request, const RequestRange& allowed) {
    return request.function == allowed.function && request.first >= allowed.first &&
           request.last <= allowed.last;
}

// The requests writing `item` with some valid value may send.
std::vector<RequestRange> itemWriteAllowances(const ItemModel& item, const DeviceModel& device) {
    WriteStep step;
    step.item = &item;
    const QString value = item.type == ValueType::String ? QString() : QStringLiteral("1");
    step.outcome = writeOutcome(item, device, value);
    return writeAllowances(step, device);
}

}  // namespace

ReadAllowance::ReadAllowance(const DeviceModel& device) : readGaps(device.readGaps) {
    for (const ItemModel& item : device.items) {
        if (!item.validTable) continue;
        const int table = static_cast<int>(item.table);
        low[table] = named[table] ? std::min(low[table], item.offset) : item.offset;
        high[table] = named[table] ? std::max(high[table], item.last()) : item.last();
        named[table] = true;
        for (int address = item.offset; address <= item.last(); ++address) addresses[table].insert(address);
    }
}

bool ReadAllowance::allows(const RequestRange& request, Check* check, QString* why) const {
    const int table = static_cast<int>(tableRead(request.function));
    if (!named[table]) {
        *check = Check::Range;
        *why = QStringLiteral("no item of the device names that table");
        return false;
    }
    if (request.first < low[table] || request.last > high[table]) {
        *check = Check::Range;
        *why = QStringLiteral("outside the device's items of that table, %1..%2")
                   .arg(low[table])
                   .arg(high[table]);
        return false;
    }
    if (!readGaps) {
        for (int address = request.first; address <= request.last; ++address) {
            if (addresses[table].count(address)) continue;
            *check = Check::Gaps;
            *why = QStringLiteral("address %1 belongs to no item and read_gaps is 0").arg(address);
            return false;
        }
    }
    return true;
}

std::vector<RequestRange> writeAllowances(const WriteStep& step, const DeviceModel& device) {
    const ItemModel& item = *step.item;
    const int off = item.offset;
    std::vector<RequestRange> allowed;
    switch (step.outcome.kind) {
        case WriteOutcome::Kind::Coil:
            allowed.push_back({device.multipleWrites ? kFunctionWriteCoils : kFunctionWriteCoil, off, off});
            break;
        case WriteOutcome::Kind::Registers: {
            const int last = off + static_cast<int>(step.outcome.words.size()) - 1;
            // A range is always one FC 16, whatever "write_preset" says.
            const bool multiple = device.multipleWrites || item.type == ValueType::String;
            allowed.push_back({multiple ? kFunctionWriteRegisters : kFunctionWriteRegister, off, last});
            break;
        }
        case WriteOutcome::Kind::RegisterBit:
            allowed.push_back({readFunction(item.table), off, off});
            allowed.push_back(
                {device.multipleWrites ? kFunctionWriteRegisters : kFunctionWriteRegister, off, off});
            if (device.maskWrite) allowed.push_back({kFunctionMaskWrite, off, off});
            break;
        case WriteOutcome::Kind::Refused:
            // Nothing is sent for a refused value, except the read of a bit of a register that is written by
            // read and write: the register is read before its new value is looked at.
            if (step.outcome.readBeforeRefusal && !step.maskWrite)
                allowed.push_back({readFunction(item.table), off, off});
            break;
    }
    return allowed;
}

// RTU answers carry nothing to match them to requests in flight: each request must wait for the answer before
// it. Only where every request was answered in time (no fault but busy answers).
void auditOneAtATime(const DeviceModel& device, const std::vector<modbus_sim::RequestRecord>& records,
                     Violations& violations, const QString& where) {
    std::map<int, const modbus_sim::RequestRecord*> previous;
    for (const modbus_sim::RequestRecord& record : records) {
        const modbus_sim::RequestRecord*& before = previous[record.connection];
        if (before && before->answeredUs >= 0 && record.receivedUs < before->answeredUs)
            violations.add(Check::OneAtATime, QStringLiteral("%1: device %2 sent %3 before %4 was answered")
                                                  .arg(where)
                                                  .arg(device.id)
                                                  .arg(describe(record), describe(*before)));
        before = &record;
    }
}

void auditPoll(const DeviceModel& device, const std::vector<modbus_sim::RequestRecord>& records,
               bool retryBound, Violations& violations, const QString& where) {
    if (!device.addressable()) {
        if (!records.empty())
            violations.add(Check::Unit,
                           QStringLiteral("%1: device %2 has a unit id the plugin cannot address, yet "
                                          "%3 request(s) reached the simulator, the first %4")
                               .arg(where)
                               .arg(device.id)
                               .arg(records.size())
                               .arg(describe(records.front())));
        return;
    }
    const ReadAllowance allowance(device);
    std::map<std::tuple<int, int, int>, int> sends;
    for (const modbus_sim::RequestRecord& record : records) {
        if (record.unit != device.unit)
            violations.add(Check::Unit, QStringLiteral("%1: device %2 (unit %3) sent %4")
                                            .arg(where)
                                            .arg(device.id)
                                            .arg(device.unit)
                                            .arg(describe(record)));
        if (isIdentity(record.function)) continue;
        if (!isRead(record.function)) {
            violations.add(Check::Range, QStringLiteral("%1: poll of device %2 sent %3")
                                             .arg(where)
                                             .arg(device.id)
                                             .arg(describe(record)));
            continue;
        }
        Check check = Check::Range;
        QString why;
        if (!allowance.allows(rangeOf(record), &check, &why))
            violations.add(check, QStringLiteral("%1: poll of device %2 sent %3: %4")
                                      .arg(where)
                                      .arg(device.id)
                                      .arg(describe(record), why));
        ++sends[std::make_tuple(record.function, record.address, record.count)];
    }
    if (!retryBound) return;
    if (device.rtu) auditOneAtATime(device, records, violations, where);
    for (const auto& sent : sends) {
        if (sent.second <= device.retries + 1) continue;
        violations.add(Check::Retries,
                       QStringLiteral("%1: poll of device %2 (retries %3) sent FC %4 address %5 count "
                                      "%6 %7 times")
                           .arg(where)
                           .arg(device.id)
                           .arg(device.retries)
                           .arg(std::get<0>(sent.first))
                           .arg(std::get<1>(sent.first))
                           .arg(std::get<2>(sent.first))
                           .arg(sent.second));
    }
}

void auditWrite(const ConfigModel& config, const DeviceModel& device,
                const std::vector<modbus_sim::RequestRecord>& records, const std::vector<WriteStep>& steps,
                bool faultFree, Violations& violations, const QString& where) {
    if (!device.addressable()) {
        auditPoll(device, records, false, violations, where);
        return;
    }
    std::vector<RequestRange> allowed;
    QStringList written;
    for (const WriteStep& step : steps) {
        const std::vector<RequestRange> more = writeAllowances(step, device);
        allowed.insert(allowed.end(), more.cbegin(), more.cend());
        written.append(
            QStringLiteral("%1 (\"%2\") = \"%3\"").arg(step.item->uid, step.item->registerText, step.value));
    }
    const QString batch = written.join(QStringLiteral(", "));
    for (const modbus_sim::RequestRecord& record : records) {
        if (record.unit != device.unit)
            violations.add(Check::Unit, QStringLiteral("%1: write of device %2 (unit %3) sent %4")
                                            .arg(where)
                                            .arg(device.id)
                                            .arg(device.unit)
                                            .arg(describe(record)));
        const RequestRange request = rangeOf(record);
        const bool explained = std::any_of(allowed.cbegin(), allowed.cend(),
                                           [&](const RequestRange& range) { return within(request, range); });
        if (!explained)
            violations.add(Check::WriteRequest,
                           QStringLiteral("%1: write of device %2 (%3) sent %4, which none of "
                                          "its items explains")
                               .arg(where)
                               .arg(device.id)
                               .arg(batch, describe(record)));
    }
    // With faults a batch may end before its FC 22 goes out (a connection refused, a reset).
    if (!kMaskWriteExpected || !faultFree) return;
    const bool refused = config.maskWriteRefused.count({device.sim, device.unit}) > 0;
    for (const WriteStep& step : steps) {
        if (!step.maskWrite || refused || step.outcome.kind != WriteOutcome::Kind::RegisterBit) continue;
        const bool sent =
            std::any_of(records.cbegin(), records.cend(), [&](const modbus_sim::RequestRecord& record) {
                return record.function == kFunctionMaskWrite && record.address == step.item->offset;
            });
        if (!sent)
            violations.add(Check::MaskWrite,
                           QStringLiteral("%1: device %2 has mask_write 1, yet item %3 (\"%4\") was "
                                          "written without FC 22")
                               .arg(where)
                               .arg(device.id)
                               .arg(step.item->uid, step.item->registerText));
    }
}

void auditConcurrent(const ConfigModel& config, int sim,
                     const std::vector<modbus_sim::RequestRecord>& records, const std::set<int>& writers,
                     Violations& violations, const QString& where) {
    const std::set<int> units = config.deviceUnits(sim);
    for (const modbus_sim::RequestRecord& record : records) {
        if (!units.count(record.unit)) {
            violations.add(Check::Unit,
                           QStringLiteral("%1: simulator %2 received %3; no device there has that unit")
                               .arg(where)
                               .arg(sim)
                               .arg(describe(record)));
            continue;
        }
        if (isIdentity(record.function)) continue;
        const RequestRange request = rangeOf(record);
        Check check = isRead(record.function) ? Check::Range : Check::WriteRequest;
        QString why = QStringLiteral("no device with that unit may send it");
        bool explained = false;
        for (const DeviceModel& device : config.devices) {
            if (explained || device.sim != sim || device.unit != record.unit) continue;
            if (isRead(record.function)) {
                Check deviceCheck = Check::Range;
                QString deviceWhy;
                explained = ReadAllowance(device).allows(request, &deviceCheck, &deviceWhy);
                if (!explained) {
                    check = deviceCheck;
                    why = QStringLiteral("device %1: %2").arg(device.id).arg(deviceWhy);
                }
            }
            // A bit of a register is read before it is written.
            if (!explained && writers.count(device.id)) {
                for (const ItemModel& item : device.items) {
                    if (!item.validTable) continue;
                    const std::vector<RequestRange> allowed = itemWriteAllowances(item, device);
                    explained = explained ||
                                std::any_of(allowed.cbegin(), allowed.cend(), [&](const RequestRange& range) {
                                    return within(request, range);
                                });
                }
            }
        }
        if (!explained)
            violations.add(check, QStringLiteral("%1: simulator %2 received %3: %4")
                                      .arg(where)
                                      .arg(sim)
                                      .arg(describe(record), why));
    }
}

}  // namespace model_check
