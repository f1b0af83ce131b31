#pragma once

// The Modbus table an item lives in. The numbers are stored in the item setting "register_type".
enum RegisterType : unsigned char {
    OutputCoil = 0,       // coils: FC 1 read, FC 5 / 15 write
    InputCoil = 1,        // discrete inputs: FC 2 read
    InputRegister = 2,    // input registers: FC 4 read
    HoldingRegister = 3,  // holding registers: FC 3 read, FC 6 / 16 write
    Auto = 4,             // resolved from the address text; never handed to a Connection
};

// Whether `table` names one of the four Modbus tables. A stored "register_type" may hold any number; only
// these four may ever decide a function code or index a per-table container.
constexpr bool isModbusTable(int table) {
    return table >= OutputCoil && table <= HoldingRegister;
}
