#include <QTextStream>
#include <algorithm>
#include <cstring>
#include <iterator>

#include "tools/sim/simulator.h"
#include "tools/zelt-modbus/batch_output.h"
#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/interrupt.h"
#include "tools/zelt-modbus/session.h"

namespace zelt_cli {

namespace {

constexpr int kDefaultPolls = 3;
constexpr int kDefaultIntervalMs = 1000;

// The sample meter's values. Holding registers are 0-based protocol addresses; "40001" is address 0.
constexpr float kVoltage = 230.5F;
constexpr float kCurrent = 12.75F;
constexpr int32_t kPower = -1500;
constexpr uint32_t kEnergyWh = 123456;
constexpr uint32_t kEnergyStepWh = 7;
constexpr int64_t kRuntimeSeconds = -86400;  // a signed 64-bit counter that happens to be negative
constexpr uint64_t kLifetimeEnergyWh = 9876543210ULL;
constexpr double kFrequency = 49.98;
constexpr uint16_t kStatusWord = 0x0005;  // bit 0 running, bit 2 alarm
constexpr char kSerialNumber[] = "ZM3-000042";
constexpr int16_t kTemperature = -12;
constexpr uint16_t kCycles = 65000;
constexpr char kSetpoint[] = "21.5";

constexpr int kVoltageAddress = 0;
constexpr int kCurrentAddress = 2;
constexpr int kPowerAddress = 4;
constexpr int kEnergyAddress = 6;
constexpr int kRuntimeAddress = 8;
constexpr int kLifetimeAddress = 12;
constexpr int kFrequencyAddress = 16;
constexpr int kStatusAddress = 20;
constexpr int kSerialAddress = 21;
constexpr int kSerialRegisters = 8;
// The three byte-order views each hold a FLOAT, an INT32 and a UINT64 from this address on, 10 apart.
constexpr int kViewBaseAddress = 100;
constexpr int kViewStride = 10;
// "Auto" addresses of holding registers count from 40001.
constexpr int kHoldingRegisterBase = 40000;

const char* const kIdentity[] = {
    "Zelt Demo Instruments",  "ZM-3",      "1.4.2",           "https://zelt.invalid/zm3",
    "ZM-3 three-phase meter", "ZM-3/DEMO", "zelt-modbus demo"};

struct ByteOrderView {
    const char* name;
    const char* label;
    bool littleEndian;
    bool byteSwapped;
};

// Device 1 is the meter in plain big-endian order; devices 2 to 4 read the same values stored in the other
// three orders of the "endianness" and "byte_order" settings.
const ByteOrderView kViews[] = {
    {"meter-badc", "Big endian, first byte low: B A D C", false, true},
    {"meter-dcba", "Little endian, first byte high: D C B A", true, false},
    {"meter-cdab", "Little endian, first byte low: C D A B", true, true},
};

// The value's bytes, most significant first.
template <typename T>
QByteArray bigEndianBytes(T value) {
    unsigned char raw[sizeof(T)];
    std::memcpy(raw, &value, sizeof(T));
    QByteArray bytes;
    for (size_t i = 0; i < sizeof(T); ++i) bytes.append(static_cast<char>(raw[sizeof(T) - 1 - i]));
    return bytes;
}

// Registers that a device with these settings decodes to the value: A B C D is the value's byte order for
// Big/High, B A D C for Big/Low, D C B A for Little/High and C D A B for Little/Low.
std::vector<uint16_t> registersFor(const QByteArray& valueBytes, bool littleEndian, bool byteSwapped) {
    QByteArray wire = valueBytes;
    const int words = valueBytes.size() / 2;
    if (littleEndian && !byteSwapped) {
        std::reverse(wire.begin(), wire.end());
    } else if (littleEndian) {
        for (int i = 0; i < words; ++i) wire.replace(2 * i, 2, valueBytes.mid(2 * (words - 1 - i), 2));
    } else if (byteSwapped) {
        for (int i = 0; i < words; ++i) {
            wire[2 * i] = valueBytes.at(2 * i + 1);
            wire[2 * i + 1] = valueBytes.at(2 * i);
        }
    }
    std::vector<uint16_t> registers;
    for (int i = 0; i < words; ++i)
        registers.push_back(static_cast<uint16_t>((static_cast<uint8_t>(wire.at(2 * i)) << 8) |
                                                  static_cast<uint8_t>(wire.at(2 * i + 1))));
    return registers;
}

template <typename T>
void setValue(modbus_sim::Simulator& simulator, int address, T value, bool littleEndian = false,
              bool byteSwapped = false) {
    simulator.setHoldingRegisters(address, registersFor(bigEndianBytes(value), littleEndian, byteSwapped));
}

void fillSimulator(modbus_sim::Simulator& simulator) {
    setValue(simulator, kVoltageAddress, kVoltage);
    setValue(simulator, kCurrentAddress, kCurrent);
    setValue(simulator, kPowerAddress, kPower);
    setValue(simulator, kEnergyAddress, kEnergyWh);
    setValue(simulator, kRuntimeAddress, kRuntimeSeconds);
    setValue(simulator, kLifetimeAddress, kLifetimeEnergyWh);
    setValue(simulator, kFrequencyAddress, kFrequency);
    simulator.setHoldingRegisters(kStatusAddress, {kStatusWord});
    const QByteArray serial(kSerialNumber);
    std::vector<uint16_t> serialRegisters(kSerialRegisters, 0);
    for (int i = 0; i < serial.size(); ++i)
        serialRegisters[i / 2] |=
            static_cast<uint16_t>(static_cast<uint8_t>(serial.at(i)) << (i % 2 == 0 ? 8 : 0));
    simulator.setHoldingRegisters(kSerialAddress, serialRegisters);
    simulator.setInputRegisters(0, {static_cast<uint16_t>(kTemperature), kCycles});
    simulator.setCoils(0, {1, 0});
    simulator.setDiscreteInputs(0, {0, 1});

    for (int v = 0; v < static_cast<int>(std::size(kViews)); ++v) {
        const int base = kViewBaseAddress + v * kViewStride;
        setValue(simulator, base, kVoltage, kViews[v].littleEndian, kViews[v].byteSwapped);
        setValue(simulator, base + 2, kPower, kViews[v].littleEndian, kViews[v].byteSwapped);
        setValue(simulator, base + 4, kLifetimeEnergyWh, kViews[v].littleEndian, kViews[v].byteSwapped);
    }

    modbus_sim::DeviceIdentification identification;
    for (int object = 0; object < static_cast<int>(std::size(kIdentity)); ++object)
        identification.objects[object] = QByteArray(kIdentity[object]);
    simulator.setDeviceIdentification(identification);
}

ItemConfig item(const QString& uid, const char* name, const QString& address, const char* type,
                const char* precision = nullptr) {
    ItemConfig config;
    config.uid = uid;
    config.name = QString::fromUtf8(name);
    config.settings.insert(QStringLiteral("register"), address);
    config.settings.insert(QStringLiteral("type"), QLatin1String(type));
    if (precision)
        config.settings.insert(QStringLiteral("floating_point_precision"), QLatin1String(precision));
    return config;
}

// Type codes as the "type" setting stores them.
constexpr char kBit[] = "0";
constexpr char kInt16[] = "1";
constexpr char kUint16[] = "2";
constexpr char kInt32[] = "3";
constexpr char kUint32[] = "4";
constexpr char kFloat[] = "5";
constexpr char kDouble[] = "6";
constexpr char kString[] = "7";
constexpr char kInt64[] = "8";
constexpr char kUint64[] = "9";

Config demoConfig(uint16_t port) {
    DeviceConfig meter;
    meter.id = 1;
    meter.name = QStringLiteral("meter");
    meter.address = QStringLiteral("127.0.0.1");
    meter.settings.insert(QStringLiteral("port"), QString::number(port));
    meter.items = {
        item("voltage", "voltage L1 [V]", "40001", kFloat, "1"),
        item("current", "current L1 [A]", "40003", kFloat, "2"),
        item("power", "active power [W]", "40005", kInt32),
        item("energy", "energy [Wh]", "40007", kUint32),
        item("runtime", "runtime offset [s]", "40009", kInt64),
        item("lifetime", "lifetime energy [Wh]", "40013", kUint64),
        item("frequency", "frequency [Hz]", "40017", kDouble, "2"),
        item("running", "status: running", "40021.0", kBit),
        item("alarm", "status: alarm", "40021.2", kBit),
        item("serial", "serial number", "40022-40029", kString),
        item("setpoint", "setpoint [C]", "40051", kFloat, "1"),
        item("temperature", "temperature [C]", "30001", kInt16),
        item("cycles", "relay cycles", "30002", kUint16),
        item("relay1", "relay 1", "00001", kBit),
        item("relay2", "relay 2", "00002", kBit),
        item("door", "door open", "10001", kBit),
        item("tamper", "tamper switch", "10002", kBit),
    };
    Config config;
    config.devices.append(meter);
    for (int v = 0; v < static_cast<int>(std::size(kViews)); ++v) {
        DeviceConfig view;
        view.id = v + 2;
        view.name = QLatin1String(kViews[v].name);
        view.address = meter.address;
        view.settings.insert(QStringLiteral("port"), QString::number(port));
        view.settings.insert(QStringLiteral("endianness"), kViews[v].littleEndian ? "1" : "0");
        view.settings.insert(QStringLiteral("byte_order"), kViews[v].byteSwapped ? "1" : "0");
        const int base = kViewBaseAddress + v * kViewStride + 1;
        const QString prefix =
            QStringLiteral("%1_").arg(kViews[v].name).replace(QLatin1Char('-'), QLatin1Char('_'));
        const auto address = [base](int offset) {
            return QString::number(kHoldingRegisterBase + base + offset);
        };
        view.items = {item(prefix + "voltage", "voltage L1 [V]", address(0), kFloat, "1"),
                      item(prefix + "power", "active power [W]", address(2), kInt32),
                      item(prefix + "lifetime", "lifetime energy [Wh]", address(4), kUint64)};
        config.devices.append(view);
    }
    return config;
}

}  // namespace

int runDemo(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("demo"),
        QStringLiteral("Starts the built-in simulator with a sample meter on 127.0.0.1, writes a "
                       "setpoint through the plugin\nand polls the meter, printing every value and "
                       "the meter's identity."));
    command.addOption(QStringLiteral("count"), QStringLiteral("N"),
                      QStringLiteral("number of polls (default 3)"));
    command.addOption(QStringLiteral("interval"), QStringLiteral("MS"),
                      QStringLiteral("time between two polls (default 1000)"));
    command.addFlag(QStringLiteral("json"),
                    QStringLiteral("print the polls as JSON lines, as poll --json does"));
    command.addFlag(QStringLiteral("verbose"), QStringLiteral("also print the plugin's debug log"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;
    int count = 0;
    int intervalMs = 0;
    if (!readNumberOption(command, QStringLiteral("count"), 1, kDefaultPolls, &count) ||
        !readNumberOption(command, QStringLiteral("interval"), 0, kDefaultIntervalMs, &intervalMs))
        return kExitUsage;

    modbus_sim::Simulator simulator;
    fillSimulator(simulator);
    QString error;
    if (!simulator.start(QStringLiteral("127.0.0.1"), 0, &error)) return fail(error);
    const Config config = demoConfig(simulator.port());

    installInterruptHandler();
    PluginSession session;
    session.setVerbose(command.flag(QStringLiteral("verbose")));
    if (!session.start(command.pluginPath(), config, &error)) return fail(error);

    QTextStream out(stdout);
    const bool json = command.flag(QStringLiteral("json"));
    if (!json) {
        out << "Simulated meter listening on " << simulator.address() << ":" << simulator.port() << "\n";
        for (int v = 0; v < static_cast<int>(std::size(kViews)); ++v)
            out << "Device " << v + 2 << " " << kViews[v].name << " reads the same values stored as "
                << kViews[v].label << "\n";
        out << "\n";
    }

    const DeviceConfig& meter = config.devices.first();
    const ItemConfig* setpoint = nullptr;
    for (const ItemConfig& candidate : meter.items)
        if (candidate.uid == QLatin1String("setpoint")) setpoint = &candidate;
    const BatchResult written = session.write(meter, *setpoint, QLatin1String(kSetpoint));
    bool allOk = written.ok && !written.items.isEmpty() && written.items.first().error.isEmpty();
    if (json)
        out << jsonLine(writeToJson(written)) << "\n";
    else
        printWrite(out, written);
    if (!json) out << "\n";

    for (int poll = 1; poll <= count; ++poll) {
        if (poll > 1) {
            if (!sleepUnlessInterrupted(intervalMs)) break;
            // The meter keeps counting between polls.
            setValue(simulator, kEnergyAddress, kEnergyWh + static_cast<uint32_t>(poll - 1) * kEnergyStepWh);
        }
        for (const DeviceConfig& device : session.config().devices) {
            BatchResult result = session.poll(device);
            allOk = allOk && result.ok;
            if (json) {
                out << jsonLine(pollToJson(poll, result)) << "\n";
                continue;
            }
            // The views share the meter's identity; the meter's table already shows it.
            if (device.id != meter.id) {
                QVector<ItemResult> own;
                for (const ItemResult& row : result.items)
                    if (!row.address.startsWith(QLatin1String("__identity."))) own.append(row);
                result.items = own;
            }
            printPoll(out, poll, result);
        }
        out.flush();
    }
    session.stop();
    simulator.stop();
    return allOk ? 0 : 1;
}

}  // namespace zelt_cli
