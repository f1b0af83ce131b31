#include "tools/zelt-modbus/register_table.h"

namespace zelt_cli {

namespace {

// The leading digit of an Auto address picks the table.
constexpr int kFirstDiscreteAuto = 10001;
constexpr int kLastDiscreteAuto = 19999;
constexpr int kFirstInputAuto = 30001;
constexpr int kLastInputAuto = 39999;
constexpr int kFirstCoilAuto = 1;
constexpr int kLastCoilAuto = 9999;
constexpr int kAutoDigits = 4;

}  // namespace

bool isBitTable(RegisterTable table) {
    return table == RegisterTable::Coils || table == RegisterTable::DiscreteInputs;
}

QString tableKey(RegisterTable table) {
    switch (table) {
        case RegisterTable::Coils:
            return QStringLiteral("coils");
        case RegisterTable::DiscreteInputs:
            return QStringLiteral("discrete");
        case RegisterTable::InputRegisters:
            return QStringLiteral("input");
        case RegisterTable::HoldingRegisters:
            break;
    }
    return QStringLiteral("holding");
}

QString tableTitle(RegisterTable table) {
    switch (table) {
        case RegisterTable::Coils:
            return QStringLiteral("coils");
        case RegisterTable::DiscreteInputs:
            return QStringLiteral("discrete inputs");
        case RegisterTable::InputRegisters:
            return QStringLiteral("input registers");
        case RegisterTable::HoldingRegisters:
            break;
    }
    return QStringLiteral("holding registers");
}

bool tableFromKey(const QString& key, RegisterTable* table) {
    for (RegisterTable candidate : {RegisterTable::HoldingRegisters, RegisterTable::InputRegisters,
                                    RegisterTable::Coils, RegisterTable::DiscreteInputs}) {
        if (tableKey(candidate) == key) {
            *table = candidate;
            return true;
        }
    }
    return false;
}

bool hasAutoAddress(int offset) {
    return offset >= 0 && offset <= kLastAutoOffset;
}

QString registerText(RegisterTable table, int offset) {
    if (!hasAutoAddress(offset)) return QString::number(offset);
    int digit = 4;
    if (table == RegisterTable::Coils) digit = 0;
    if (table == RegisterTable::DiscreteInputs) digit = 1;
    if (table == RegisterTable::InputRegisters) digit = 3;
    return QString::number(digit) + QStringLiteral("%1").arg(offset + 1, kAutoDigits, 10, QLatin1Char('0'));
}

bool parseRegisterAddress(const QString& text, int registerType, RegisterTable* table, int* offset,
                          QString* error) {
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number < 0) {
        *error = QStringLiteral("\"%1\" is not a register address").arg(text);
        return false;
    }
    if (registerType != kAutoRegisterType) {
        if (number > kLastOffset) {
            *error = QStringLiteral("offset %1 lies beyond %2").arg(number).arg(kLastOffset);
            return false;
        }
        *table = static_cast<RegisterTable>(registerType);
        *offset = number;
        return true;
    }
    // As the plugin reads Auto: the table comes from the 5-digit ranges, the offset from the digits after the
    // first, counted from 1.
    if (number >= kFirstCoilAuto && number <= kLastCoilAuto)
        *table = RegisterTable::Coils;
    else if (number >= kFirstDiscreteAuto && number <= kLastDiscreteAuto)
        *table = RegisterTable::DiscreteInputs;
    else if (number >= kFirstInputAuto && number <= kLastInputAuto)
        *table = RegisterTable::InputRegisters;
    else
        *table = RegisterTable::HoldingRegisters;
    const int rest = text.mid(1).toInt(&ok);
    if (!ok || rest < 1 || rest - 1 > kLastOffset) {
        *error = QStringLiteral(
                     "\"%1\" names no register: after its first digit it counts from 1 (40001 is "
                     "holding register 0)")
                     .arg(text);
        return false;
    }
    *offset = rest - 1;
    return true;
}

}  // namespace zelt_cli
