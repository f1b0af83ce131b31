#include "model/config_generator.h"

#include <algorithm>
#include <utility>

#include "common/time_scale.h"
#include "model/model_random.h"
#include "model/value_model.h"

namespace model_check {

namespace {

constexpr int kMostDevices = 6;
constexpr int kMostSimulators = 3;
// Items live in the first addresses of each table, in clusters, so that requests group, overlap and leave
// gaps.
constexpr int kAddressWindow = 2048;
constexpr int kClusterSpan = 300;
constexpr int kLongestString = 10;
constexpr int kLastBit = 15;
constexpr int kAutoDigits = 4;
constexpr int kDecimal = 10;
constexpr int kResponseTimeoutBaseMs = 1000;
constexpr int kResponseTimeoutStepMs = 250;
constexpr int kResponseTimeoutSteps = 4;
constexpr int kConnectTimeoutMs = 1000;
// With late answers or silent units every time-out costs its full length: the fault phase then runs with
// this response time-out, and a late answer comes this much after it.
constexpr int kFaultResponseTimeoutMs = 300;
// Late identity answers alone: every data request must still be answered in time, so the time-out leaves
// room for the late answer that holds the connection before it.
constexpr int kIdentityFaultResponseTimeoutMs = 600;
constexpr int kLateByMs = 200;
constexpr int kMostHolesPerUnit = 4;
constexpr int kMostFaults = 2;
constexpr int kMostRetries = 2;
constexpr int kMostOutstanding = 16;
constexpr int kMostRequestPauseMs = 3;
constexpr int kMostHoleDistance = 3;
constexpr int kFewestBusyPeriod = 2;
constexpr int kMostBusyPeriod = 4;
constexpr int kMostConnections = 2;
constexpr int kFewestRequestsBeforeClose = 2;
constexpr int kMostRequestsBeforeClose = 8;
constexpr int kDefaultPrecision = 4;

// Chances, in percent.
constexpr int kHalf = 50;
constexpr int kExplicitTablePercent = 40;
constexpr int kCountFormPercent = 40;
constexpr int kBadTablePercent = 5;
constexpr int kNoBackoffPercent = 50;
constexpr int kOneOutstandingPercent = 40;
constexpr int kNoPausePercent = 85;
constexpr int kHolesPercent = 35;
constexpr int kHoleInGapPercent = 30;
constexpr int kMaskRefusedPercent = 30;
constexpr int kRtuSimulatorPercent = 35;
constexpr int kTlsSimulatorPercent = 30;  // of those that are not RTU
constexpr int kMostChunkBytes = 5;

enum class UnitChoice { Zero, MinusOne, Unset, Unaddressable, Pooled };
const std::vector<std::pair<int, UnitChoice>> kUnitChoices = {{8, UnitChoice::Zero},
                                                              {6, UnitChoice::MinusOne},
                                                              {4, UnitChoice::Unset},
                                                              {12, UnitChoice::Unaddressable},
                                                              {70, UnitChoice::Pooled}};
// Unit ids the plugin addresses (the texts "0", "-1" and none read as unit 1).
const std::vector<int> kUnitPool = {1, 2, 3, 7, 17, 100, 200, 247, 255};
// Ids libmodbus refuses on TCP.
const std::vector<QString> kUnaddressableIds = {QStringLiteral("248"), QStringLiteral("300")};
const std::vector<QString> kReadLimits = {QStringLiteral("0"),   QStringLiteral("7"),
                                          QStringLiteral("123"), QStringLiteral("125"),
                                          QStringLiteral("126"), QStringLiteral("300")};
const std::vector<QString> kBadRegisterTypes = {QStringLiteral("5"), QStringLiteral("260"),
                                                QStringLiteral("-1")};
const std::vector<QString> kPrecisions = {QString(),
                                          QStringLiteral("0"),
                                          QStringLiteral("1"),
                                          QStringLiteral("2"),
                                          QStringLiteral("3"),
                                          QStringLiteral("4"),
                                          QStringLiteral("6"),
                                          QStringLiteral("8"),
                                          QStringLiteral("17"),
                                          QStringLiteral("-1"),
                                          QStringLiteral("abc")};
const std::vector<std::pair<int, Table>> kTableChoices = {{15, Table::Coils},
                                                          {15, Table::DiscreteInputs},
                                                          {25, Table::InputRegisters},
                                                          {45, Table::HoldingRegisters}};
enum class RegisterKind { Bit, String, Number };
const std::vector<std::pair<int, RegisterKind>> kRegisterKinds = {
    {12, RegisterKind::Bit}, {12, RegisterKind::String}, {76, RegisterKind::Number}};
const std::vector<ValueType> kNumberTypes = {ValueType::Int16,  ValueType::UInt16, ValueType::Int32,
                                             ValueType::UInt32, ValueType::Float,  ValueType::Double,
                                             ValueType::Int64,  ValueType::UInt64};
const std::vector<int> kClusterSpreads = {8, 40, 150, kClusterSpan - kLongestString};
const std::vector<std::pair<int, FaultKind>> kFaultChoices = {{25, FaultKind::Busy},
                                                              {12, FaultKind::IdentityDelay},
                                                              {10, FaultKind::DataDelay},
                                                              {15, FaultKind::DeadUnit},
                                                              {10, FaultKind::ConnectionLimit},
                                                              {14, FaultKind::Reset},
                                                              {14, FaultKind::CloseAfter},
                                                              {10, FaultKind::Heartbeat},
                                                              {10, FaultKind::SplitAnswer},
                                                              {10, FaultKind::OtherUnitAnswer},
                                                              {8, FaultKind::BadCrc}};
// How a device on a Modbus TCP simulator may say so: not at all, "0", or a text that reads as "0".
const std::vector<QString> kTcpTransportTexts = {QString(), QStringLiteral("0"), QStringLiteral("tcp")};
// The highest unit id a serial device may have; above it (255 included) an RTU device cannot be addressed.
constexpr int kMaxRtuUnit = 247;
const std::vector<int> kResetFunctions = {kFunctionReadHoldingRegisters,
                                          kFunctionReadInputRegisters,
                                          kFunctionReadCoils,
                                          kFunctionReadDiscreteInputs,
                                          kFunctionWriteRegisters,
                                          kFunctionWriteRegister,
                                          kFunctionWriteCoil,
                                          kFunctionWriteCoils,
                                          kFunctionMaskWrite};
const std::vector<ConfigModel::Identity> kIdentities = {ConfigModel::Identity::None,
                                                        ConfigModel::Identity::ReportSlaveId,
                                                        ConfigModel::Identity::DeviceIdentification};
// Unit 44 is 300 narrowed to 8 bits, 248 the first id libmodbus refuses, 0 the broadcast id.
const std::set<int> kDecoyUnits = {0, 1, 44, 248};
// The leading digit of an Auto address per table.
const char kAutoLeadingDigits[] = {'0', '1', '3', '4'};

QString flagText(Random& random) {
    return random.percent(kHalf) ? QStringLiteral("1") : QStringLiteral("0");
}

bool flagOn(const QMap<QString, QString>& settings, const QString& key) {
    return settings.value(key) == QStringLiteral("1");
}

int precisionOf(const QString& text) {
    bool ok = false;
    const int precision = text.toInt(&ok);
    return ok ? precision : kDefaultPrecision;
}

QString autoAddress(Table table, int offset) {
    return QLatin1Char(kAutoLeadingDigits[static_cast<int>(table)]) +
           QStringLiteral("%1").arg(offset + 1, kAutoDigits, kDecimal, QLatin1Char('0'));
}

// A STRING range "first-last" or "first-count"; the second number is a count exactly when it is not larger
// than the first.
QString rangeText(const QString& first, long long firstNumber, int span, Random& random) {
    const bool asCount = span <= firstNumber && (span < 2 || random.percent(kCountFormPercent));
    return first + QLatin1Char('-') + QString::number(asCount ? span : firstNumber + span - 1);
}

ItemModel makeItem(Random& random, const QString& uid, Table table, int offset) {
    ItemModel item;
    item.uid = uid;
    item.table = table;
    item.offset = offset;
    if (isBitTable(table)) {
        item.type = ValueType::Bit;
    } else {
        switch (random.weighted(kRegisterKinds)) {
            case RegisterKind::Bit:
                item.type = ValueType::Bit;
                item.bit = random.between(0, kLastBit);
                break;
            case RegisterKind::String:
                item.type = ValueType::String;
                item.span = random.between(1, kLongestString);
                break;
            case RegisterKind::Number:
                item.type = random.pick(kNumberTypes);
                break;
        }
    }
    // Auto puts every bit and range in the holding registers: those of input registers need "2" and an
    // offset.
    const bool inputBitOrRange =
        table == Table::InputRegisters && (item.type == ValueType::String || item.isRegisterBit());
    const bool explicitTable = inputBitOrRange || random.percent(kExplicitTablePercent);
    // A range of one register is a count, which must not be larger than its first number.
    if (explicitTable && item.type == ValueType::String && item.span < 2 && item.offset < 1) item.span = 2;
    const QString first = explicitTable ? QString::number(offset) : autoAddress(table, offset);
    item.registerTypeText = explicitTable ? QString::number(static_cast<int>(table)) : QStringLiteral("4");
    if (item.isRegisterBit())
        item.registerText = first + QLatin1Char('.') + QString::number(item.bit);
    else if (item.type == ValueType::String)
        item.registerText = rangeText(first, first.toLongLong(), item.span, random);
    else
        item.registerText = first;
    item.typeText = QString::number(static_cast<int>(item.type));
    if (item.type == ValueType::Float || item.type == ValueType::Double) {
        item.precisionText = random.pick(kPrecisions);
        item.precision = precisionOf(item.precisionText);
    }
    return item;
}

// An item whose "register_type" names no table: it must get an error and never be read.
ItemModel makeBadTableItem(Random& random, const QString& uid, int offset) {
    ItemModel item;
    item.uid = uid;
    item.validTable = false;
    item.offset = offset;
    item.type = random.pick(kNumberTypes);
    item.registerText = QString::number(offset);
    item.registerTypeText = random.pick(kBadRegisterTypes);
    item.typeText = QString::number(static_cast<int>(item.type));
    return item;
}

void makeUnit(Random& random, DeviceModel& device) {
    QMap<QString, QString>& settings = device.settings;
    const QString kServerId = QStringLiteral("server_id");
    device.unit = 1;
    switch (random.weighted(kUnitChoices)) {
        case UnitChoice::Zero:
            settings.insert(kServerId, QStringLiteral("0"));
            break;
        case UnitChoice::MinusOne:
            settings.insert(kServerId, QStringLiteral("-1"));
            break;
        case UnitChoice::Unset:
            break;
        case UnitChoice::Unaddressable:
            settings.insert(kServerId, random.pick(kUnaddressableIds));
            device.unit = -1;
            break;
        case UnitChoice::Pooled:
            device.unit = random.pick(kUnitPool);
            settings.insert(kServerId, QString::number(device.unit));
            if (device.rtu && device.unit > kMaxRtuUnit) device.unit = -1;
            break;
    }
}

// A flag setting "0", "1" or (one time in three) left out.
void maybeFlag(Random& random, QMap<QString, QString>& settings, const QString& key) {
    const int roll = random.between(0, 2);
    if (roll < 2) settings.insert(key, QString::number(roll));
}

void makeSettings(Random& random, DeviceModel& device, int responseTimeoutMs, bool rtu, bool tls) {
    QMap<QString, QString>& settings = device.settings;
    device.rtu = rtu;
    device.tls = tls;
    if (rtu) {
        settings.insert(QStringLiteral("transport"), QStringLiteral("1"));
    } else if (tls) {
        settings.insert(QStringLiteral("transport"), QStringLiteral("2"));
    } else {
        const QString text = random.pick(kTcpTransportTexts);
        if (!text.isNull()) settings.insert(QStringLiteral("transport"), text);
    }
    makeUnit(random, device);
    maybeFlag(random, settings, QStringLiteral("share_connection"));
    settings.insert(QStringLiteral("persistent_connection"), flagText(random));
    settings.insert(QStringLiteral("max_read_registers"), random.pick(kReadLimits));
    maybeFlag(random, settings, QStringLiteral("read_gaps"));
    settings.insert(
        QStringLiteral("max_outstanding_requests"),
        QString::number(random.percent(kOneOutstandingPercent) ? 1 : random.between(2, kMostOutstanding)));
    device.retries = random.between(0, kMostRetries);
    settings.insert(QStringLiteral("retries"), QString::number(device.retries));
    settings.insert(QStringLiteral("mask_write"), flagText(random));
    settings.insert(QStringLiteral("write_preset"), flagText(random));
    settings.insert(QStringLiteral("endianness"), flagText(random));
    settings.insert(QStringLiteral("byte_order"), flagText(random));
    settings.insert(QStringLiteral("string_endianness"), flagText(random));
    settings.insert(QStringLiteral("string_byte_order"), flagText(random));
    settings.insert(QStringLiteral("response_timeout_ms"), QString::number(responseTimeoutMs));
    settings.insert(QStringLiteral("connect_timeout_ms"),
                    QString::number(kConnectTimeoutMs * zelt_test::kTimeScale));
    if (random.percent(kNoBackoffPercent))
        settings.insert(QStringLiteral("backoff_max_ms"), QStringLiteral("0"));
    settings.insert(
        QStringLiteral("request_pause_ms"),
        QString::number(random.percent(kNoPausePercent) ? 0 : random.between(1, kMostRequestPauseMs)));

    device.littleEndian = flagOn(settings, QStringLiteral("endianness"));
    device.byteSwapped = flagOn(settings, QStringLiteral("byte_order"));
    device.stringLittleEndian = flagOn(settings, QStringLiteral("string_endianness"));
    device.stringByteSwapped = flagOn(settings, QStringLiteral("string_byte_order"));
    device.readGaps = settings.value(QStringLiteral("read_gaps"), QStringLiteral("1")) == QStringLiteral("1");
    device.multipleWrites = flagOn(settings, QStringLiteral("write_preset"));
    device.maskWrite = flagOn(settings, QStringLiteral("mask_write"));
}

void makeItems(Random& random, DeviceModel& device, int maxItems) {
    int bases[kTableCount];
    for (int& base : bases) base = random.between(0, kAddressWindow - kClusterSpan);
    const int spread = random.pick(kClusterSpreads);
    const int count = random.between(1, maxItems);
    for (int i = 0; i < count; ++i) {
        const QString uid = QStringLiteral("d%1_i%2").arg(device.id).arg(i);
        const Table table = random.weighted(kTableChoices);
        const int offset = bases[static_cast<int>(table)] + random.between(0, spread);
        if (random.percent(kBadTablePercent))
            device.items.push_back(makeBadTableItem(random, uid, offset));
        else
            device.items.push_back(makeItem(random, uid, table, offset));
    }
}

void makeHoles(Random& random, ConfigModel& config) {
    for (int sim = 0; sim < config.simCount; ++sim) {
        for (int unit : config.deviceUnits(sim)) {
            if (!random.percent(kHolesPercent)) continue;
            std::vector<const ItemModel*> items;
            for (const DeviceModel& device : config.devices)
                if (device.sim == sim && device.unit == unit)
                    for (const ItemModel& item : device.items)
                        if (item.validTable) items.push_back(&item);
            if (items.empty()) continue;
            const int holes = random.between(1, kMostHolesPerUnit);
            for (int i = 0; i < holes; ++i) {
                const ItemModel& item = *random.pick(items);
                // Mostly inside an item, sometimes in the gap next to it.
                int address =
                    item.offset + static_cast<int>(random.below(static_cast<uint64_t>(item.footprint())));
                if (random.percent(kHoleInGapPercent))
                    address = random.percent(kHalf) ? item.offset - random.between(1, kMostHoleDistance)
                                                    : item.last() + random.between(1, kMostHoleDistance);
                address = std::max(address, 0);
                if (!config.isHole(sim, unit, item.table, address))
                    config.holes.push_back(Hole{sim, unit, item.table, address});
            }
        }
    }
}

// Whether the fault makes requests wait for their whole time-out.
bool slowFault(const TransientFault& fault) {
    return fault.kind == FaultKind::DataDelay || fault.kind == FaultKind::IdentityDelay ||
           (fault.kind == FaultKind::DeadUnit && !fault.gatewayReply);
}

// Fills in the fault's selectors and parameter; false when it does not fit the device.
bool makeFault(Random& random, const DeviceModel& device, ConfigModel& config, TransientFault& fault) {
    switch (fault.kind) {
        case FaultKind::Busy:
            if (random.percent(kHalf)) fault.unit = -1;
            fault.parameter = random.between(kFewestBusyPeriod, kMostBusyPeriod);
            return true;
        case FaultKind::IdentityDelay:
            if (config.hasFault(FaultKind::IdentityDelay)) return false;
            fault.function = random.percent(kHalf) ? kFunctionDeviceIdentification : kFunctionReportSlaveId;
            return true;
        case FaultKind::DataDelay: {
            std::vector<const ItemModel*> readable;
            for (const ItemModel& item : device.items)
                if (item.validTable) readable.push_back(&item);
            if (readable.empty()) return false;
            // Only the reads that cover one item's first address: each late answer holds its connection
            // for its whole delay.
            const ItemModel& item = *random.pick(readable);
            fault.function = readFunction(item.table);
            fault.address = item.offset;
            return true;
        }
        case FaultKind::DeadUnit:
            fault.gatewayReply = random.percent(kHalf);
            return true;
        case FaultKind::ConnectionLimit:
            fault.unit = -1;
            fault.parameter = random.between(1, kMostConnections);
            return true;
        case FaultKind::Reset:
            fault.function = random.pick(kResetFunctions);
            return true;
        case FaultKind::CloseAfter:
            fault.unit = -1;
            fault.parameter = random.between(kFewestRequestsBeforeClose, kMostRequestsBeforeClose);
            return true;
        case FaultKind::Heartbeat:
        case FaultKind::OtherUnitAnswer:
        case FaultKind::BadCrc:
            if (random.percent(kHalf)) fault.unit = -1;
            return config.rtuSimulators[static_cast<size_t>(device.sim)];
        case FaultKind::SplitAnswer:
            if (random.percent(kHalf)) fault.unit = -1;
            fault.parameter = random.between(1, kMostChunkBytes);
            return config.rtuSimulators[static_cast<size_t>(device.sim)];
    }
    return false;
}

void makeFaults(Random& random, ConfigModel& config, int faultPercent) {
    std::vector<const DeviceModel*> addressable;
    for (const DeviceModel& device : config.devices)
        if (device.addressable()) addressable.push_back(&device);
    for (const DeviceModel* device : addressable)
        if (device->maskWrite && random.percent(kMaskRefusedPercent))
            config.maskWriteRefused.insert({device->sim, device->unit});
    if (addressable.empty() || !random.percent(faultPercent)) return;
    config.faultPhaseConcurrent = random.percent(kHalf);
    const int count = random.between(1, kMostFaults);
    for (int i = 0; i < count; ++i) {
        const DeviceModel& device = *random.pick(addressable);
        TransientFault fault;
        fault.kind = random.weighted(kFaultChoices);
        fault.sim = device.sim;
        fault.unit = device.unit;
        if (makeFault(random, device, config, fault)) config.faults.push_back(fault);
    }
    if (!std::any_of(config.faults.cbegin(), config.faults.cend(), slowFault)) return;
    config.faultResponseTimeoutMs =
        (config.onlyLateIdentity() ? kIdentityFaultResponseTimeoutMs : kFaultResponseTimeoutMs) *
        zelt_test::kTimeScale;
    for (TransientFault& fault : config.faults) {
        if (fault.kind != FaultKind::DataDelay && fault.kind != FaultKind::IdentityDelay) continue;
        fault.parameter = config.faultResponseTimeoutMs + kLateByMs * zelt_test::kTimeScale;
        // A late answer holds its connection's later requests back past their batch: only the concurrent
        // phase, which attributes requests by unit, takes it.
        config.faultPhaseConcurrent = true;
    }
}

}  // namespace

ConfigModel generateConfig(uint64_t seed, const GeneratorLimits& limits) {
    Random random(seed);
    ConfigModel config;
    config.seed = seed;
    const int deviceCount = random.between(1, std::max(1, std::min(limits.maxDevices, kMostDevices)));
    config.simCount = deviceCount >= 3 ? random.between(1, std::min(kMostSimulators, deviceCount - 1)) : 1;
    config.responseTimeoutMs =
        (kResponseTimeoutBaseMs + kResponseTimeoutStepMs * random.between(0, kResponseTimeoutSteps)) *
        zelt_test::kTimeScale;
    for (int sim = 0; sim < config.simCount; ++sim) {
        const bool rtu = random.percent(kRtuSimulatorPercent);
        config.rtuSimulators.push_back(rtu);
        config.tlsSimulators.push_back(!rtu && random.percent(kTlsSimulatorPercent));
    }
    for (int i = 0; i < deviceCount; ++i) {
        DeviceModel device;
        device.id = i + 1;
        device.sim = random.between(0, config.simCount - 1);
        makeSettings(random, device, config.responseTimeoutMs,
                     config.rtuSimulators[static_cast<size_t>(device.sim)],
                     config.tlsSimulators[static_cast<size_t>(device.sim)]);
        makeItems(random, device, std::max(1, limits.maxItems));
        config.devices.push_back(device);
    }
    for (int sim = 0; sim < config.simCount; ++sim) config.identities.push_back(random.pick(kIdentities));
    config.decoyUnits.resize(static_cast<size_t>(config.simCount));
    for (int sim = 0; sim < config.simCount; ++sim) {
        const std::set<int> used = config.deviceUnits(sim);
        for (int unit : kDecoyUnits)
            if (!used.count(unit)) config.decoyUnits[static_cast<size_t>(sim)].insert(unit);
    }
    makeHoles(random, config);
    makeFaults(random, config, limits.faultPercent);
    return config;
}

}  // namespace model_check
