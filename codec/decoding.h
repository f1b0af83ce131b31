#pragma once
// Register words and coil bits to value texts: applies a device's word and byte orders and formats the value.
// Pure functions: no I/O, no logging.

#include <QString>
#include <QtGlobal>

#include "codec/var_type.h"

namespace codec {

// The two bytes of a register exchanged.
constexpr quint16 swapBytes(quint16 word) {
    return static_cast<quint16>((word << 8) | (word >> 8));
}

// The value of `sizeof(T) / 2` registers read from the device (T: one of the 16-, 32- and 64-bit integer
// types, float or double). "endianness" 1 means the least significant register comes first, each of its
// words byte-swapped on top; "byte_order" 1 swaps the bytes of every register. Floating-point values get
// `precision` decimals, then lose a fraction that is all zeros ("3.0000" -> "3").
template <typename T>
QString decodeNumber(quint16 const* words, bool littleEndian, bool byteSwapped, int precision);

// The text of a numeric VarType (INT16 to UINT64, FLOAT, DOUBLE); a null text for BIT, STRING and unknown
// types. Integers ignore `precision`.
QString decodeValue(VarType type, quint16 const* words, bool littleEndian, bool byteSwapped, int precision);

// Bit `bit` of a register as "1" or "0"; a bit number outside 0..15 reads "0".
QString decodeBit(quint16 word, int bit);

// `count` registers holding text two bytes per register, high byte first after the string byte order
// ("string_byte_order" 1 swaps the bytes of every register, "string_endianness" 1 reverses the registers).
// The text ends at the first zero byte.
QString decodeString(quint16 const* words, unsigned int count, bool stringLittleEndian,
                     bool stringByteSwapped);

// A coil or discrete input state as "1" or "0".
QString decodeCoil(unsigned char state);

}  // namespace codec
