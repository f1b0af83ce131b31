#pragma once
// The 16-bit address space every Modbus table has: an item is only ever sent when all of its registers (or
// coils) lie inside it, so that no address wraps around to another register on the device.

#include <QtGlobal>

namespace codec {

constexpr qint64 kAddressSpaceSize = 65536;

// True when `count` entries from `first` on all have a protocol address in 0..65535. In 64 bits, so that
// no offset or span from a configuration text can overflow.
constexpr bool fitsAddressSpace(qint64 first, qint64 count) {
    return first >= 0 && count >= 0 && first < kAddressSpaceSize && first + count <= kAddressSpaceSize;
}

}  // namespace codec
