// The plugin's addressing members: an item's or a device's settings handed to the codec.

#include "codec/addressing.h"
#include "plugin/modbus.h"
#include "plugin/setting_keys.h"

using setting_keys::settingText;

unsigned int Modbus::getLengthOfVar(VarType type) {
    return registersPerValue(type);
}

RegisterType Modbus::getType(ItemInstancePlugin const& item) {
    return static_cast<RegisterType>(codec::tableOf(settingText(item.settings, setting_keys::kRegister),
                                                    settingText(item.settings, setting_keys::kRegisterType)));
}

int Modbus::getOffset(ItemInstancePlugin const& item) {
    return codec::offsetOf(settingText(item.settings, setting_keys::kRegister),
                           settingText(item.settings, setting_keys::kRegisterType));
}

unsigned int Modbus::getSpan(ItemInstancePlugin const& item) {
    return codec::spanOf(settingText(item.settings, setting_keys::kRegister));
}

int Modbus::getBit(ItemInstancePlugin const& item) {
    return codec::bitOf(settingText(item.settings, setting_keys::kRegister));
}

bool Modbus::isLittleEndian(DeviceInstancePlugin const& device) {
    return codec::flagOn(settingText(device.settings, setting_keys::kEndianness));
}

bool Modbus::isByteSwapped(DeviceInstancePlugin const& device) {
    return codec::flagOn(settingText(device.settings, setting_keys::kByteOrder));
}

bool Modbus::isStringLittleEndian(DeviceInstancePlugin const& device) {
    return codec::flagOn(settingText(device.settings, setting_keys::kStringEndianness));
}

bool Modbus::isStringByteSwapped(DeviceInstancePlugin const& device) {
    return codec::flagOn(settingText(device.settings, setting_keys::kStringByteOrder));
}
