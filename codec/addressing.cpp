// Turns an item's "register", "register_type" and "type" texts into a register table, a 0-based protocol
// address, a bit number and a register count, and reads the device's byte-order flags.

#include <QString>
#include <QStringList>

#include "plugin/modbus.h"

namespace {

const QString kRegisterKey = QStringLiteral("register");
const QString kRegisterTypeKey = QStringLiteral("register_type");

const QChar kBitSeparator = QLatin1Char('.');
const QChar kRangeSeparator = QLatin1Char('-');

// Five-digit "Auto" addresses: the leading digit names the table, the rest is 1-based.
constexpr int kFirstCoilAddress = 1;
constexpr int kLastCoilAddress = 9999;
constexpr int kFirstDiscreteInputAddress = 10001;
constexpr int kLastDiscreteInputAddress = 19999;
constexpr int kFirstInputRegisterAddress = 30001;
constexpr int kLastInputRegisterAddress = 39999;

// A device flag setting is on exactly when it reads as this number.
constexpr unsigned int kFlagOn = 1;

bool deviceFlag(DeviceInstancePlugin const& device, char const* key) {
    return device.settings.value(QLatin1String(key)).toUInt() == kFlagOn;
}

}  // namespace

unsigned int Modbus::getLengthOfVar(VarType type) {
    return registersPerValue(type);
}

RegisterType Modbus::getType(ItemInstancePlugin const& item) {
    int const table = item.settings.value(kRegisterTypeKey).toInt();
    if (table != Auto) {
        return static_cast<RegisterType>(static_cast<unsigned char>(table));
    }

    // Only a plain number is looked at: bit ("30001.3") and range ("30001-30010") addresses fail the
    // conversion and land in the holding registers, and so do six-digit addresses.
    int const address = item.settings.value(kRegisterKey).toInt();
    if (address >= kFirstCoilAddress && address <= kLastCoilAddress) {
        return OutputCoil;
    }
    if (address >= kFirstDiscreteInputAddress && address <= kLastDiscreteInputAddress) {
        return InputCoil;
    }
    if (address >= kFirstInputRegisterAddress && address <= kLastInputRegisterAddress) {
        return InputRegister;
    }
    return HoldingRegister;
}

int Modbus::getOffset(ItemInstancePlugin const& item) {
    QString address = item.settings.value(kRegisterKey);
    if (address.contains(kBitSeparator)) {
        address = address.section(kBitSeparator, 0, 0);
    } else if (address.contains(kRangeSeparator)) {
        address = address.section(kRangeSeparator, 0, 0);
    }

    bool ok = false;
    if (item.settings.value(kRegisterTypeKey).toUInt() != Auto) {
        int const offset = address.toInt(&ok);
        return ok ? offset : -1;
    }

    // The leading digit only has to be a digit; getType has already chosen the table from the whole text.
    address.left(1).toInt(&ok);
    if (!ok) {
        return -1;
    }
    int const oneBased = address.mid(1).toInt(&ok);
    if (!ok) {
        return -1;
    }
    return oneBased - 1;
}

unsigned int Modbus::getSpan(ItemInstancePlugin const& item) {
    QStringList const parts = item.settings.value(kRegisterKey).split(kRangeSeparator, Qt::KeepEmptyParts);
    if (parts.size() < 2) {
        return 0;
    }
    unsigned int const first = parts.at(0).toUInt();
    unsigned int const second = parts.at(1).toUInt();
    if (second <= first) {
        // "40001-10": the second number is a register count.
        return static_cast<unsigned int>(parts.at(1).toInt());
    }
    return second - first + 1;
}

int Modbus::getBit(ItemInstancePlugin const& item) {
    QStringList const parts = item.settings.value(kRegisterKey).split(kBitSeparator, Qt::KeepEmptyParts);
    if (parts.size() < 2) {
        return 0;
    }
    return parts.at(1).toInt();
}

bool Modbus::isLittleEndian(DeviceInstancePlugin const& device) {
    return deviceFlag(device, "endianness");
}

bool Modbus::isByteSwapped(DeviceInstancePlugin const& device) {
    return deviceFlag(device, "byte_order");
}

bool Modbus::isStringLittleEndian(DeviceInstancePlugin const& device) {
    return deviceFlag(device, "string_endianness");
}

bool Modbus::isStringByteSwapped(DeviceInstancePlugin const& device) {
    return deviceFlag(device, "string_byte_order");
}
