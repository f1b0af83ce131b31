#include "model/batch_checks.h"

#include <QRegularExpression>

#include "model/value_model.h"

namespace model_check {

namespace {

// The item error of a "register_type" outside 0-4 (README, error texts). Empty would accept any non-empty
// text.
const QString kBadRegisterTypeError = QStringLiteral("Invalid register type");
const QString kIllegalDataAddress = QStringLiteral("Illegal data address");
// A device whose unit id libmodbus refuses on TCP fails as a connection would; a poll during its back-off
// pause adds when it is tried again.
const QString kUnaddressableError = QStringLiteral("Could not connect. Invalid argument");
const QRegularExpression kBackoffSuffix(QStringLiteral("; next attempt in \\d+ s$"));
const QString kValueKey = QStringLiteral("value");

QString withoutBackoff(QString error) {
    return error.remove(kBackoffSuffix);
}

QString quoted(const QString& text) {
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QString expectedValue(const ItemModel& item, const DeviceModel& device, const UnitTables& tables) {
    const auto at = static_cast<size_t>(item.offset);
    switch (item.table) {
        case Table::Coils:
            return decodeBit(tables.coils[at]);
        case Table::DiscreteInputs:
            return decodeBit(tables.discrete[at]);
        case Table::InputRegisters:
            return decodeRegisters(item, device, tables.input.data() + at);
        case Table::HoldingRegisters:
            break;
    }
    return decodeRegisters(item, device, tables.holding.data() + at);
}

void checkItem(const BatchContext& context, const UnitTables& tables, const ItemModel& item,
               const DataItem& data, bool reached, Violations& violations) {
    const bool exact = context.strictness == Strictness::Exact;
    const bool valued = data.values.contains(kValueKey);
    const QString value = data.values.value(kValueKey);
    const QString& error = data.item.lastError;
    const QString where = QStringLiteral("%1: device %2 item %3 (\"%4\" register_type \"%5\" type \"%6\")")
                              .arg(context.where)
                              .arg(context.device.id)
                              .arg(item.uid, item.registerText, item.registerTypeText, item.typeText);
    if (!item.validTable) {
        if (valued)
            violations.add(Check::Value,
                           QStringLiteral("%1: names no table, yet shows %2").arg(where, quoted(value)));
        if (reached && error.isEmpty())
            violations.add(Check::ItemError,
                           QStringLiteral("%1: names no table, yet has no error").arg(where));
        if (!kBadRegisterTypeError.isEmpty() && !error.isEmpty() && error != kBadRegisterTypeError)
            violations.add(Check::ItemError, QStringLiteral("%1: error %2, expected %3")
                                                 .arg(where, quoted(error), quoted(kBadRegisterTypeError)));
        return;
    }
    if (context.config.coversHole(context.device.sim, context.device.unit, item)) {
        if (valued)
            violations.add(
                Check::Value,
                QStringLiteral("%1: covers an unreadable address, yet shows %2").arg(where, quoted(value)));
        if (exact && error != kIllegalDataAddress)
            violations.add(Check::ItemError,
                           QStringLiteral("%1: covers an unreadable address, error %2, expected %3")
                               .arg(where, quoted(error), quoted(kIllegalDataAddress)));
        if (!exact && reached && error.isEmpty())
            violations.add(Check::Unvalued,
                           QStringLiteral("%1: covers an unreadable address, yet has no error").arg(where));
        return;
    }
    const QString expected = expectedValue(item, context.device, tables);
    if (valued && value != expected)
        violations.add(Check::Value, QStringLiteral("%1: shows %2, the model reads %3 (error %4)")
                                         .arg(where, quoted(value), quoted(expected), quoted(error)));
    if (exact) {
        if (!valued)
            violations.add(Check::Unvalued, QStringLiteral("%1: no value, the model reads %2 (error %3)")
                                                .arg(where, quoted(expected), quoted(error)));
        if (!error.isEmpty())
            violations.add(Check::ItemError, QStringLiteral("%1: error %2").arg(where, quoted(error)));
    } else if (reached && !valued && error.isEmpty()) {
        violations.add(
            Check::Unvalued,
            QStringLiteral("%1: the poll reached the device, yet the item has no value and no error")
                .arg(where));
    }
}

}  // namespace

void checkPoll(const BatchContext& context, const UnitTables* tables, const LogList& list,
               const PolledItems& items, bool ok, Violations& violations) {
    const QString& deviceError = list.device.lastError;
    const QString where = QStringLiteral("%1: poll of device %2").arg(context.where).arg(context.device.id);
    if (!context.device.addressable()) {
        if (ok || withoutBackoff(deviceError) != kUnaddressableError)
            violations.add(Check::PollResult,
                           QStringLiteral("%1: returned %2 with device error %3, expected false "
                                          "with %4")
                               .arg(where, ok ? QStringLiteral("true") : QStringLiteral("false"),
                                    quoted(deviceError), quoted(kUnaddressableError)));
        for (const auto& item : items)
            if (item.second->values.contains(kValueKey))
                violations.add(Check::Value, QStringLiteral("%1: item %2 shows %3 though nothing may be read")
                                                 .arg(where, item.first->uid,
                                                      quoted(item.second->values.value(kValueKey))));
        return;
    }
    if (context.strictness == Strictness::Exact && (!ok || !deviceError.isEmpty()))
        violations.add(
            Check::PollResult,
            QStringLiteral("%1: returned %2 with device error %3 where no fault was "
                           "active")
                .arg(where, ok ? QStringLiteral("true") : QStringLiteral("false"), quoted(deviceError)));
    if (ok && !deviceError.isEmpty())
        violations.add(
            Check::PollResult,
            QStringLiteral("%1: returned true with device error %2").arg(where, quoted(deviceError)));
    const bool reached = ok || deviceError.isEmpty();
    for (const auto& item : items)
        checkItem(context, *tables, *item.first, *item.second, reached, violations);
}

void checkWrite(const BatchContext& context, const LogList& list, const std::vector<WriteStep>& steps,
                const std::vector<const DataItem*>& written, bool ok, Violations& violations) {
    const QString& deviceError = list.device.lastError;
    const QString where = QStringLiteral("%1: write of device %2").arg(context.where).arg(context.device.id);
    if (!context.device.addressable()) {
        if (ok || deviceError != kUnaddressableError)
            violations.add(Check::WriteResult,
                           QStringLiteral("%1: returned %2 with device error %3, expected false "
                                          "with %4")
                               .arg(where, ok ? QStringLiteral("true") : QStringLiteral("false"),
                                    quoted(deviceError), quoted(kUnaddressableError)));
        return;
    }
    if (ok && !deviceError.isEmpty())
        violations.add(
            Check::WriteResult,
            QStringLiteral("%1: returned true with device error %2").arg(where, quoted(deviceError)));
    if (context.strictness == Strictness::Lenient) return;
    if (!ok || !deviceError.isEmpty())
        violations.add(
            Check::WriteResult,
            QStringLiteral("%1: returned %2 with device error %3 where no fault was "
                           "active")
                .arg(where, ok ? QStringLiteral("true") : QStringLiteral("false"), quoted(deviceError)));
    for (size_t i = 0; i < steps.size(); ++i) {
        const QString& error = written[i]->item.lastError;
        if (error != steps[i].expectedError &&
            (steps[i].otherError.isEmpty() || error != steps[i].otherError))
            violations.add(Check::ItemError,
                           QStringLiteral("%1: item %2 (\"%3\") written with %4: error %5, expected %6")
                               .arg(where, steps[i].item->uid, steps[i].item->registerText,
                                    quoted(steps[i].value), quoted(error), quoted(steps[i].expectedError)));
    }
}

}  // namespace model_check
