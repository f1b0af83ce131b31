#pragma once
// A random configuration as the model sees it: simulated gateways, devices with their settings texts, items
// with their address texts and what those texts mean, the holes and refusals the devices have for good, and
// the faults of the fault phase. The plugin only ever gets the texts; the meanings are the model's own
// reading.

#include <QMap>
#include <QString>
#include <cstdint>
#include <set>
#include <vector>

namespace model_check {

enum class Table { Coils = 0, DiscreteInputs = 1, InputRegisters = 2, HoldingRegisters = 3 };
constexpr int kTableCount = 4;

// The "type" codes of the item setting.
enum class ValueType {
    Bit = 0,
    Int16 = 1,
    UInt16 = 2,
    Int32 = 3,
    UInt32 = 4,
    Float = 5,
    Double = 6,
    String = 7,
    Int64 = 8,
    UInt64 = 9
};

constexpr int kFunctionReadCoils = 1;
constexpr int kFunctionReadDiscreteInputs = 2;
constexpr int kFunctionReadHoldingRegisters = 3;
constexpr int kFunctionReadInputRegisters = 4;
constexpr int kFunctionWriteCoil = 5;
constexpr int kFunctionWriteRegister = 6;
constexpr int kFunctionWriteCoils = 15;
constexpr int kFunctionWriteRegisters = 16;
constexpr int kFunctionReportSlaveId = 17;
constexpr int kFunctionMaskWrite = 22;
constexpr int kFunctionDeviceIdentification = 43;

// The function code that reads `table`.
int readFunction(Table table);
bool isBitTable(Table table);

struct ItemModel {
    QString uid;
    // The settings texts handed to the plugin.
    QString registerText;
    QString registerTypeText;
    QString typeText;
    QString precisionText;  // null: not set
    // What the texts mean. `validTable` is false for a "register_type" outside 0-4: such an item names no
    // table and must never be read.
    bool validTable = true;
    Table table = Table::HoldingRegisters;
    int offset = 0;
    int bit = -1;  // the bit of a register ("40001.5"), or -1
    int span = 0;  // the registers of a STRING range
    ValueType type = ValueType::UInt16;
    int precision = 4;  // decimals of FLOAT and DOUBLE, as the plugin reads the setting

    // Registers (or bits) one read of the item covers.
    int footprint() const;
    int last() const { return offset + footprint() - 1; }
    bool isRegisterBit() const { return bit >= 0; }
};

struct DeviceModel {
    int id = 0;
    int sim = 0;
    // The device settings handed to the plugin, without the port (known once the simulator listens).
    QMap<QString, QString> settings;
    // The unit its requests must carry, or -1 when libmodbus cannot address it on TCP (248-254, above 255).
    int unit = 1;
    bool littleEndian = false;
    bool byteSwapped = false;
    bool stringLittleEndian = false;
    bool stringByteSwapped = false;
    bool readGaps = true;
    bool multipleWrites = true;
    bool maskWrite = false;
    // Its "transport" reads as RTU over TCP: requests go one at a time, in RTU frames.
    bool rtu = false;
    // Its "transport" is Modbus/TCP Security: the certificate settings are added once the kit is made.
    bool tls = false;
    int retries = 0;
    std::vector<ItemModel> items;

    bool addressable() const { return unit >= 0; }
};

struct Hole {
    int sim = 0;
    int unit = 0;
    Table table = Table::HoldingRegisters;
    int address = 0;
};

// Misbehaviour that lasts only for the fault phase. The last four are what converters do to an RTU stream:
// bytes before an answer, an answer in pieces, another unit's answer first, a damaged CRC.
enum class FaultKind {
    Busy,
    IdentityDelay,
    DataDelay,
    DeadUnit,
    ConnectionLimit,
    Reset,
    CloseAfter,
    Heartbeat,
    SplitAnswer,
    OtherUnitAnswer,
    BadCrc
};

struct TransientFault {
    FaultKind kind = FaultKind::Busy;
    int sim = 0;
    int unit = -1;      // -1: every unit
    int function = -1;  // -1: every function
    int address = -1;   // -1: every address; else the requests that cover it
    int parameter = 0;  // busy period, delay, connection limit, requests before the close or chunk size
    bool gatewayReply = false;  // a dead unit answered with exception 11 instead of silence
};

struct ConfigModel {
    uint64_t seed = 0;
    int simCount = 1;
    // Per simulator: it serves RTU frames (a serial line behind a converter) instead of Modbus TCP, or
    // Modbus/TCP Security (never both).
    std::vector<bool> rtuSimulators;
    std::vector<bool> tlsSimulators;
    int responseTimeoutMs = 1000;
    // The devices' "response_timeout_ms" during a fault phase with late answers or silent units, so that
    // each time-out costs little; 0 keeps responseTimeoutMs.
    int faultResponseTimeoutMs = 0;
    std::vector<DeviceModel> devices;
    // Units per simulator that get tables of their own although no device names them, so that a request sent
    // under a wrong unit id reads data that differ.
    std::vector<std::set<int>> decoyUnits;
    // What each simulator answers to the identity probe.
    enum class Identity { None, ReportSlaveId, DeviceIdentification };
    std::vector<Identity> identities;
    std::vector<Hole> holes;
    // (simulator, unit) pairs that refuse FC 22 with exception 1.
    std::set<std::pair<int, int>> maskWriteRefused;
    std::vector<TransientFault> faults;
    bool faultPhaseConcurrent = false;

    // Whether unit `unit` of simulator `sim` refuses a read of `table` covering `address`.
    bool isHole(int sim, int unit, Table table, int address) const;
    bool coversHole(int sim, int unit, const ItemModel& item) const;
    bool unitHasHoles(int sim, int unit) const;
    bool hasFault(FaultKind kind) const;
    // The fault phase only has late identity answers, which must cost no data request anything.
    bool onlyLateIdentity() const;
    // Every unit of `sim` that some addressable device uses.
    std::set<int> deviceUnits(int sim) const;
    // Units that have tables of their own in `sim`: those of the devices and the decoys.
    std::set<int> tableUnits(int sim) const;
    // A readable account of the whole configuration, printed with a violation.
    QString describe() const;
};

}  // namespace model_check
