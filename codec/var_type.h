#pragma once

// Value type of an item, stored as a decimal number in the item setting "type". The numbers are part of
// stored configurations and never change (the 64-bit types came last, hence 8 and 9).
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

// Registers one value of the type occupies; a STRING's length comes from its address range instead.
inline unsigned int registersPerValue(VarType type) {
    switch (type) {
        case BIT:
        case INT16:
        case UINT16:
            return 1;
        case INT32:
        case UINT32:
        case FLOAT:
            return 2;
        case DOUBLE:
        case INT64:
        case UINT64:
            return 4;
        case STRING:
            return 0;
    }
    return 0;
}
