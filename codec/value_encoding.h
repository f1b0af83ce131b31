#pragma once
// Value text to register words, the inverse of codec::decodeNumber and codec::decodeString.
// Pure functions: no I/O, no logging.

#include <QByteArray>
#include <QString>
#include <QVector>
#include <QtGlobal>

#include "codec/var_type.h"

namespace codec {

// The value text of a numeric write as a double: a text that is not a number gives 0, so does a number that
// does not fit a double ("1e400"). "nan", "inf" and "-inf" are numbers and come back as such.
double parseNumber(QString const& text);

// Saturating truncation toward zero of a double to a 32- or 64-bit integer: NaN gives 0, values (and
// infinities) beyond the target range give its nearest limit.
qint32 toInt32(double value);
quint32 toUInt32(double value);
qint64 toInt64(double value);
quint64 toUInt64(double value);

// The value bits of `value` converted to `type`, least significant bits first. INT16/UINT16 keep the low
// 16 bits of the 32-bit conversion; FLOAT is rounded to single precision. BIT, STRING and unknown types give
// 0.
quint64 numberBits(VarType type, double value);

// The registers of a numeric write, in the order they go on the wire: getLengthOfVar(type) words (none for
// BIT, STRING and unknown types). "endianness" 1 swaps the bytes of every word and keeps the word order,
// "endianness" 0 reverses the word order; "byte_order" 1 then swaps the bytes of every word.
QVector<quint16> encodeNumber(VarType type, double value, bool littleEndian, bool byteSwapped);

// `registers` words holding `bytes` two per word, high byte first, zero-padded (bytes beyond 2·registers are
// dropped; callers check the length first). "string_byte_order" 1 swaps the bytes of every word, then
// "string_endianness" 1 reverses the word order.
QVector<quint16> encodeString(QByteArray const& bytes, int registers, bool stringLittleEndian,
                              bool stringByteSwapped);

}  // namespace codec
