#pragma once

// Value type of an item, stored as a decimal number in the item setting "type". The numbers are part of stored
// configurations and never change (the 64-bit types came last, hence 8 and 9).
enum VarType : unsigned int {
    BIT = 0,
    INT16 = 1,
    UINT16 = 2,
    INT32 = 3,
    UINT32 = 4,
    FLOAT = 5,
    DOUBLE = 6,
    STRING = 7,
    INT64 = 8,
    UINT64 = 9,
};
