#pragma once
// An item's "register" and "register_type" texts as a register table, a 0-based protocol address, a bit
// number and a register count; a device's or an item's setting texts as flags and numbers. Pure functions
// over texts.

#include <QString>

namespace codec {

// Table numbers as stored in "register_type". Any other number is passed through unchanged.
enum Table : unsigned char {
    kCoilTable = 0,
    kDiscreteInputTable = 1,
    kInputRegisterTable = 2,
    kHoldingRegisterTable = 3,
    kAutoTable = 4,  // resolved from the address text
};

// The table of an item with these "register" and "register_type" texts.
Table tableOf(QString const& registerText, QString const& registerTypeText);

// The 0-based protocol address, or -1 when the text holds none.
int offsetOf(QString const& registerText, QString const& registerTypeText);

// Registers named by a range "first-last" (or "first-count" when the second number is not larger); 0 without
// a range.
unsigned int spanOf(QString const& registerText);

// The bit number of "register.bit"; 0 without one.
int bitOf(QString const& registerText);

// Everything the four functions above give, from one scan of the texts.
struct ItemAddress {
    Table table = kHoldingRegisterTable;
    int offset = -1;
    unsigned int span = 0;
    int bit = 0;
};
ItemAddress parseAddress(QString const& registerText, QString const& registerTypeText);

// A device flag setting ("endianness", "byte_order", ...) is on exactly when it reads as 1.
bool flagOn(QString const& settingText);

// "floating_point_precision": decimals of FLOAT and DOUBLE values; 4 when the text is no number.
int precisionOf(QString const& settingText);

}  // namespace codec
