// Reads the simulator's JSON map file: served units, register tables (shared and per unit), identification,
// Report Slave ID and faults. Everything is checked before anything is applied, so a bad file leaves the
// simulator as it was.

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <limits>
#include <map>
#include <optional>

#include "tools/sim/sim_fault_names.h"
#include "tools/sim/sim_protocol.h"
#include "tools/sim/sim_rtu.h"
#include "tools/sim/simulator.h"

namespace modbus_sim {

namespace {

constexpr int kMaxRegisterValue = 0xFFFF;
constexpr int kMaxObjectId = 0xFF;
constexpr char kHexPrefix[] = "hex:";
constexpr int kMaxFunctionCode = 0xFF;
constexpr int kMinExceptionCode = 1;
constexpr int kMaxExceptionCode = 0xFF;
// A minute is far beyond any client timeout worth testing; longer waits only slow a test run down.
constexpr int kMaxFaultDelayMs = 60000;
constexpr int kMaxAfterRequests = std::numeric_limits<int>::max();
constexpr int kMaxLengthField = 0xFFFF;
constexpr int kMaxEveryRequests = std::numeric_limits<int>::max();

// Whether fault kind `kind` reads parameter `key`.
bool usesParameter(FaultKind kind, const QString& key) {
    switch (kind) {
        case FaultKind::Exception:
            return key == QLatin1String("exception_code");
        case FaultKind::Delay:
        case FaultKind::ByteByByte:
            return key == QLatin1String("delay_ms");
        case FaultKind::Split:
            return key == QLatin1String("chunk_bytes") || key == QLatin1String("delay_ms");
        case FaultKind::CloseAfter:
            return key == QLatin1String("after_requests");
        case FaultKind::WrongLength:
            return key == QLatin1String("length_field");
        case FaultKind::TrailingGarbage:
        case FaultKind::GarbageBefore:
            return key == QLatin1String("garbage");
        case FaultKind::BusyEvery:
            return key == QLatin1String("every_requests");
        default:
            return false;
    }
}

bool isFaultParameterKey(const QString& key) {
    return key == QLatin1String("exception_code") || key == QLatin1String("delay_ms") ||
           key == QLatin1String("after_requests") || key == QLatin1String("length_field") ||
           key == QLatin1String("garbage") || key == QLatin1String("every_requests") ||
           key == QLatin1String("chunk_bytes");
}

template <typename T>
struct TableBlock {
    int address = 0;
    std::vector<T> values;
};

struct UnitTables {
    std::vector<TableBlock<uint16_t>> holdingRegisters;
    std::vector<TableBlock<uint16_t>> inputRegisters;
    std::vector<TableBlock<uint8_t>> coils;
    std::vector<TableBlock<uint8_t>> discreteInputs;
};

struct MapFile {
    std::optional<Framing> framing;
    std::optional<std::set<int>> units;
    std::optional<UnknownUnitReply> unknownUnitReply;
    std::optional<std::set<int>> deadUnits;
    std::optional<UnknownUnitReply> deadUnitReply;
    std::optional<int> connectionLimit;
    std::optional<int> serialLineMs;
    std::optional<int> minimumRequestGapMs;
    UnitTables sharedTables;
    std::map<int, UnitTables> unitTables;
    std::optional<DeviceIdentification> identification;
    std::optional<QByteArray> reportSlaveId;
    std::vector<FaultRule> faults;
    std::optional<QString> tlsDirectory;
    TlsFault tlsFault = TlsFault::None;
};

class MapReader {
public:
    bool read(const QJsonObject& root, MapFile* map);
    QString error;

private:
    bool fail(const QString& key, const QString& reason) {
        error = QStringLiteral("key \"%1\": %2").arg(key, reason);
        return false;
    }
    bool readInt(const QJsonValue& value, const QString& key, int min, int max, int* out);
    bool readFraming(const QJsonValue& value, const QString& key, std::optional<Framing>* out);
    bool readUnits(const QJsonValue& value, const QString& key, std::set<int>* out);
    bool readUnitReply(const QJsonValue& value, const QString& key, std::optional<UnknownUnitReply>* out);
    bool readSetting(const QJsonValue& value, const QString& key, int max, std::optional<int>* out);
    bool readId(const QString& text, const QString& key, int max, int* out);
    bool readBytes(const QJsonValue& value, const QString& key, QByteArray* out);
    template <typename T>
    bool readTable(const QJsonValue& value, const QString& key, int maxValue,
                   std::vector<TableBlock<T>>* out);
    // The table `name` names (one of the four table keys) into `tables`.
    bool readTableKey(const QString& name, const QJsonValue& value, const QString& key, UnitTables* tables);
    bool readUnitTables(const QJsonValue& value, const QString& key, std::map<int, UnitTables>* out);
    bool readIdentification(const QJsonValue& value, const QString& key, DeviceIdentification* out);
    bool readNumber(const QJsonValue& value, const QString& key, int min, int max, int* out);
    bool readFault(const QJsonValue& value, const QString& key, FaultRule* out);
    bool readFaults(const QJsonValue& value, const QString& key, std::vector<FaultRule>* out);
    bool readTls(const QJsonValue& value, const QString& key, MapFile* map);
};

bool MapReader::readInt(const QJsonValue& value, const QString& key, int min, int max, int* out) {
    if (value.isBool()) {
        *out = value.toBool() ? 1 : 0;
    } else if (value.isDouble() && value.toDouble() == static_cast<double>(value.toInt())) {
        *out = value.toInt();
    } else {
        return fail(key, QStringLiteral("expected a whole number"));
    }
    if (*out < min || *out > max) {
        return fail(key, QStringLiteral("value %1 is out of range %2..%3").arg(*out).arg(min).arg(max));
    }
    return true;
}

bool MapReader::readFraming(const QJsonValue& value, const QString& key, std::optional<Framing>* out) {
    if (value.toString() == QLatin1String("tcp")) {
        *out = Framing::Tcp;
    } else if (value.toString() == QLatin1String("rtu")) {
        *out = Framing::Rtu;
    } else {
        return fail(key, QStringLiteral("expected \"tcp\" or \"rtu\""));
    }
    return true;
}

bool MapReader::readUnits(const QJsonValue& value, const QString& key, std::set<int>* out) {
    if (!value.isArray()) return fail(key, QStringLiteral("expected an array of unit ids"));
    const QJsonArray array = value.toArray();
    for (int i = 0; i < array.size(); ++i) {
        int unit = 0;
        if (!readInt(array.at(i), QStringLiteral("%1[%2]").arg(key).arg(i), 0, kMaxUnitId, &unit))
            return false;
        out->insert(unit);
    }
    return true;
}

bool MapReader::readUnitReply(const QJsonValue& value, const QString& key,
                              std::optional<UnknownUnitReply>* out) {
    if (value.toString() == QLatin1String("silence")) {
        *out = UnknownUnitReply::Silence;
    } else if (value.toString() == QLatin1String("gateway_exception")) {
        *out = UnknownUnitReply::GatewayException;
    } else {
        return fail(key, QStringLiteral("expected \"silence\" or \"gateway_exception\""));
    }
    return true;
}

bool MapReader::readSetting(const QJsonValue& value, const QString& key, int max, std::optional<int>* out) {
    int number = 0;
    if (!readNumber(value, key, 0, max, &number)) return false;
    *out = number;
    return true;
}

bool MapReader::readId(const QString& text, const QString& key, int max, int* out) {
    bool ok = false;
    // Base 0 accepts both decimal and 0x-prefixed hexadecimal keys.
    *out = text.trimmed().toInt(&ok, 0);
    if (!ok || *out < 0 || *out > max) {
        return fail(key, QStringLiteral("\"%1\" is not a number in 0..%2").arg(text).arg(max));
    }
    return true;
}

bool MapReader::readBytes(const QJsonValue& value, const QString& key, QByteArray* out) {
    if (!value.isString()) return fail(key, QStringLiteral("expected a text or \"hex:...\""));
    const QString text = value.toString();
    if (!text.startsWith(QLatin1String(kHexPrefix))) {
        *out = text.toUtf8();
        return true;
    }
    const QByteArray hex = text.mid(static_cast<int>(strlen(kHexPrefix))).remove(QLatin1Char(' ')).toLatin1();
    const QByteArray bytes = QByteArray::fromHex(hex);
    if (hex.size() % 2 != 0 || bytes.toHex() != hex.toLower()) {
        return fail(key, QStringLiteral("\"%1\" is not valid hexadecimal").arg(text));
    }
    *out = bytes;
    return true;
}

template <typename T>
bool MapReader::readTable(const QJsonValue& value, const QString& key, int maxValue,
                          std::vector<TableBlock<T>>* out) {
    if (!value.isObject()) return fail(key, QStringLiteral("expected an object of address: [values]"));
    const QJsonObject table = value.toObject();
    for (auto it = table.begin(); it != table.end(); ++it) {
        const QString blockKey = key + QLatin1Char('.') + it.key();
        TableBlock<T> block;
        if (!readId(it.key(), blockKey, kTableSize - 1, &block.address)) return false;
        QJsonArray values;
        if (it.value().isArray()) {
            values = it.value().toArray();
        } else {
            values.append(it.value());
        }
        if (block.address + values.size() > kTableSize) {
            return fail(
                blockKey,
                QStringLiteral("%1 values do not fit below address %2").arg(values.size()).arg(kTableSize));
        }
        for (int i = 0; i < values.size(); ++i) {
            int number = 0;
            if (!readInt(values.at(i), QStringLiteral("%1[%2]").arg(blockKey).arg(i), 0, maxValue, &number)) {
                return false;
            }
            block.values.push_back(static_cast<T>(number));
        }
        out->push_back(block);
    }
    return true;
}

bool isTableKey(const QString& name) {
    return name == QLatin1String("holding_registers") || name == QLatin1String("input_registers") ||
           name == QLatin1String("coils") || name == QLatin1String("discrete_inputs");
}

bool MapReader::readTableKey(const QString& name, const QJsonValue& value, const QString& key,
                             UnitTables* tables) {
    if (name == QLatin1String("holding_registers"))
        return readTable(value, key, kMaxRegisterValue, &tables->holdingRegisters);
    if (name == QLatin1String("input_registers"))
        return readTable(value, key, kMaxRegisterValue, &tables->inputRegisters);
    if (name == QLatin1String("coils")) return readTable(value, key, 1, &tables->coils);
    return readTable(value, key, 1, &tables->discreteInputs);
}

bool MapReader::readUnitTables(const QJsonValue& value, const QString& key, std::map<int, UnitTables>* out) {
    if (!value.isObject()) return fail(key, QStringLiteral("expected an object of unit: {tables}"));
    const QJsonObject units = value.toObject();
    for (auto unitIt = units.begin(); unitIt != units.end(); ++unitIt) {
        const QString unitKey = key + QLatin1Char('.') + unitIt.key();
        int unit = 0;
        if (!readId(unitIt.key(), unitKey, kMaxUnitId, &unit)) return false;
        // "1" and "0x01" name the same unit; two sets of tables for one unit would be a mistake.
        if (out->count(unit) > 0) return fail(unitKey, QStringLiteral("unit %1 is given twice").arg(unit));
        if (!unitIt.value().isObject())
            return fail(unitKey, QStringLiteral("expected an object of table: {address: [values]}"));
        UnitTables& tables = (*out)[unit];
        const QJsonObject object = unitIt.value().toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            const QString tableKey = unitKey + QLatin1Char('.') + it.key();
            if (!isTableKey(it.key())) return fail(tableKey, QStringLiteral("unknown key"));
            if (!readTableKey(it.key(), it.value(), tableKey, &tables)) return false;
        }
    }
    return true;
}

bool MapReader::readIdentification(const QJsonValue& value, const QString& key, DeviceIdentification* out) {
    if (!value.isObject()) return fail(key, QStringLiteral("expected an object"));
    const QJsonObject object = value.toObject();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QString subKey = key + QLatin1Char('.') + it.key();
        if (it.key() == QLatin1String("objects")) {
            if (!it.value().isObject())
                return fail(subKey, QStringLiteral("expected an object of id: value"));
            const QJsonObject objects = it.value().toObject();
            for (auto entry = objects.begin(); entry != objects.end(); ++entry) {
                const QString objectKey = subKey + QLatin1Char('.') + entry.key();
                int id = 0;
                QByteArray bytes;
                if (!readId(entry.key(), objectKey, kMaxObjectId, &id)) return false;
                if (!readBytes(entry.value(), objectKey, &bytes)) return false;
                out->objects[id] = bytes;
            }
        } else if (it.key() == QLatin1String("objects_per_response")) {
            if (!readInt(it.value(), subKey, 0, kMaxPduLength, &out->objectsPerResponse)) return false;
        } else if (it.key() == QLatin1String("conformity_level")) {
            if (!readInt(it.value(), subKey, 0, kMaxObjectId, &out->conformityLevel)) return false;
        } else if (it.key() == QLatin1String("enabled")) {
            if (!it.value().isBool()) return fail(subKey, QStringLiteral("expected true or false"));
            out->enabled = it.value().toBool();
        } else {
            return fail(subKey, QStringLiteral("unknown key"));
        }
    }
    return true;
}

// Like readInt, but true/false are not numbers here: a selector or parameter given as a flag is a mistake.
bool MapReader::readNumber(const QJsonValue& value, const QString& key, int min, int max, int* out) {
    if (value.isBool()) return fail(key, QStringLiteral("expected a whole number"));
    return readInt(value, key, min, max, out);
}

bool MapReader::readFault(const QJsonValue& value, const QString& key, FaultRule* out) {
    if (!value.isObject()) return fail(key, QStringLiteral("expected an object"));
    const QJsonObject object = value.toObject();
    const QString kindKey = key + QStringLiteral(".kind");
    // The kind comes first: it decides which parameters the other keys may name.
    if (!object.contains(QLatin1String("kind"))) {
        return fail(kindKey, QStringLiteral("missing (expected one of %1)").arg(faultKindNameList()));
    }
    const QJsonValue kindValue = object.value(QLatin1String("kind"));
    if (!kindValue.isString()) {
        return fail(kindKey, QStringLiteral("expected one of %1").arg(faultKindNameList()));
    }
    const std::optional<FaultKind> kind = faultKindFromName(kindValue.toString());
    if (!kind) {
        return fail(kindKey, QStringLiteral("unknown fault kind \"%1\" (expected one of %2)")
                                 .arg(kindValue.toString(), faultKindNameList()));
    }
    FaultRule rule;
    rule.kind = *kind;
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QString subKey = key + QLatin1Char('.') + it.key();
        if (it.key() == QLatin1String("kind")) continue;
        if (it.key() == QLatin1String("unit")) {
            if (!readNumber(it.value(), subKey, 0, kMaxUnitId, &rule.unit)) return false;
        } else if (it.key() == QLatin1String("function")) {
            if (!readNumber(it.value(), subKey, 0, kMaxFunctionCode, &rule.function)) return false;
        } else if (it.key() == QLatin1String("address")) {
            if (!readNumber(it.value(), subKey, 0, kTableSize - 1, &rule.address)) return false;
        } else if (isFaultParameterKey(it.key()) && !usesParameter(rule.kind, it.key())) {
            // A parameter the kind ignores is most likely a mix-up of kinds; ignoring it would hide that.
            return fail(
                subKey,
                QStringLiteral("not used by fault kind \"%1\"").arg(QLatin1String(faultKindName(rule.kind))));
        } else if (it.key() == QLatin1String("exception_code")) {
            if (!readNumber(it.value(), subKey, kMinExceptionCode, kMaxExceptionCode, &rule.exceptionCode))
                return false;
        } else if (it.key() == QLatin1String("delay_ms")) {
            if (!readNumber(it.value(), subKey, 0, kMaxFaultDelayMs, &rule.delayMs)) return false;
        } else if (it.key() == QLatin1String("after_requests")) {
            if (!readNumber(it.value(), subKey, 0, kMaxAfterRequests, &rule.afterRequests)) return false;
        } else if (it.key() == QLatin1String("length_field")) {
            if (!readNumber(it.value(), subKey, 0, kMaxLengthField, &rule.lengthField)) return false;
        } else if (it.key() == QLatin1String("garbage")) {
            if (!readBytes(it.value(), subKey, &rule.garbage)) return false;
        } else if (it.key() == QLatin1String("every_requests")) {
            if (!readNumber(it.value(), subKey, 1, kMaxEveryRequests, &rule.everyRequests)) return false;
        } else if (it.key() == QLatin1String("chunk_bytes")) {
            if (!readNumber(it.value(), subKey, 1, kMaxRtuFrameLength, &rule.chunkBytes)) return false;
        } else {
            return fail(subKey, QStringLiteral("unknown key"));
        }
    }
    *out = rule;
    return true;
}

bool MapReader::readFaults(const QJsonValue& value, const QString& key, std::vector<FaultRule>* out) {
    if (!value.isArray()) return fail(key, QStringLiteral("expected an array of fault objects"));
    const QJsonArray array = value.toArray();
    for (int i = 0; i < array.size(); ++i) {
        FaultRule rule;
        if (!readFault(array.at(i), QStringLiteral("%1[%2]").arg(key).arg(i), &rule)) return false;
        out->push_back(rule);
    }
    return true;
}

bool MapReader::readTls(const QJsonValue& value, const QString& key, MapFile* map) {
    if (!value.isObject()) return fail(key, QStringLiteral("expected an object with \"dir\" and \"fault\""));
    const QJsonObject object = value.toObject();
    if (!object.value(QLatin1String("dir")).isString())
        return fail(key + QLatin1String(".dir"), QStringLiteral("expected the certificate directory"));
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QString itemKey = key + QLatin1Char('.') + it.key();
        if (it.key() == QLatin1String("dir")) {
            map->tlsDirectory = it.value().toString();
        } else if (it.key() == QLatin1String("fault")) {
            if (!tlsFaultFromName(it.value().toString(), &map->tlsFault))
                return fail(itemKey, QStringLiteral("expected one of %1").arg(tlsFaultNames()));
        } else {
            return fail(itemKey, QStringLiteral("unknown key"));
        }
    }
    return true;
}

bool MapReader::read(const QJsonObject& root, MapFile* map) {
    for (auto it = root.begin(); it != root.end(); ++it) {
        const QString key = it.key();
        const QJsonValue value = it.value();
        if (key == QLatin1String("transport")) {
            if (!readFraming(value, key, &map->framing)) return false;
        } else if (key == QLatin1String("units")) {
            std::set<int> units;
            if (!readUnits(value, key, &units)) return false;
            map->units = units;
        } else if (key == QLatin1String("unknown_unit_reply")) {
            if (!readUnitReply(value, key, &map->unknownUnitReply)) return false;
        } else if (key == QLatin1String("dead_units")) {
            std::set<int> units;
            if (!readUnits(value, key, &units)) return false;
            map->deadUnits = units;
        } else if (key == QLatin1String("dead_unit_reply")) {
            if (!readUnitReply(value, key, &map->deadUnitReply)) return false;
        } else if (key == QLatin1String("connection_limit")) {
            if (!readSetting(value, key, kMaxConnectionLimit, &map->connectionLimit)) return false;
        } else if (key == QLatin1String("serial_line_ms")) {
            if (!readSetting(value, key, kMaxSettingMs, &map->serialLineMs)) return false;
        } else if (key == QLatin1String("minimum_request_gap_ms")) {
            if (!readSetting(value, key, kMaxSettingMs, &map->minimumRequestGapMs)) return false;
        } else if (isTableKey(key)) {
            if (!readTableKey(key, value, key, &map->sharedTables)) return false;
        } else if (key == QLatin1String("unit_tables")) {
            if (!readUnitTables(value, key, &map->unitTables)) return false;
        } else if (key == QLatin1String("identification")) {
            DeviceIdentification identification;
            if (!readIdentification(value, key, &identification)) return false;
            map->identification = identification;
        } else if (key == QLatin1String("report_slave_id")) {
            QByteArray payload;
            if (!readBytes(value, key, &payload)) return false;
            map->reportSlaveId = payload;
        } else if (key == QLatin1String("faults")) {
            if (!readFaults(value, key, &map->faults)) return false;
        } else if (key == QLatin1String("tls")) {
            if (!readTls(value, key, map)) return false;
        } else {
            return fail(key, QStringLiteral("unknown key"));
        }
    }
    return true;
}

// Reads and checks the whole map without applying any of it.
bool parseMap(const QByteArray& json, MapFile* map, QString* error) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        if (error) {
            *error = QStringLiteral("JSON error at offset %1: %2")
                         .arg(parseError.offset)
                         .arg(parseError.errorString());
        }
        return false;
    }
    if (!document.isObject()) {
        if (error) *error = QStringLiteral("the map must be a JSON object");
        return false;
    }
    MapReader reader;
    if (!reader.read(document.object(), map)) {
        if (error) *error = reader.error;
        return false;
    }
    return true;
}

}  // namespace

bool readMapFaults(const QByteArray& json, std::vector<FaultRule>* faults, QString* error) {
    MapFile map;
    if (!parseMap(json, &map, error)) return false;
    *faults = map.faults;
    return true;
}

bool Simulator::loadMapJson(const QByteArray& json, QString* error) {
    MapFile map;
    if (!parseMap(json, &map, error)) return false;
    if (map.framing) setFraming(*map.framing);
    if (map.units) setUnits(*map.units);
    if (map.unknownUnitReply) setUnknownUnitReply(*map.unknownUnitReply);
    // A reply without units changes how the dead units already set answer, and units without a reply keep it.
    if (map.deadUnits || map.deadUnitReply) {
        setDeadUnits(map.deadUnits.value_or(deadUnits()), map.deadUnitReply.value_or(deadUnitReply()));
    }
    if (map.connectionLimit) setConnectionLimit(*map.connectionLimit);
    if (map.serialLineMs) setSerialLine(*map.serialLineMs);
    if (map.minimumRequestGapMs) setMinimumRequestGap(*map.minimumRequestGapMs);
    const UnitTables& shared = map.sharedTables;
    for (const auto& block : shared.holdingRegisters) setHoldingRegisters(block.address, block.values);
    for (const auto& block : shared.inputRegisters) setInputRegisters(block.address, block.values);
    for (const auto& block : shared.coils) setCoils(block.address, block.values);
    for (const auto& block : shared.discreteInputs) setDiscreteInputs(block.address, block.values);
    for (const auto& [unit, tables] : map.unitTables) {
        // A unit listed without any values still gets tables of its own, all 0.
        setHoldingRegisters(unit, 0, {});
        for (const auto& block : tables.holdingRegisters)
            setHoldingRegisters(unit, block.address, block.values);
        for (const auto& block : tables.inputRegisters) setInputRegisters(unit, block.address, block.values);
        for (const auto& block : tables.coils) setCoils(unit, block.address, block.values);
        for (const auto& block : tables.discreteInputs) setDiscreteInputs(unit, block.address, block.values);
    }
    if (map.identification) setDeviceIdentification(*map.identification);
    if (map.reportSlaveId) setReportSlaveId(*map.reportSlaveId);
    for (const auto& fault : map.faults) addFault(fault);
    if (map.tlsDirectory) setTlsKit(*map.tlsDirectory, map.tlsFault);
    return true;
}

bool Simulator::loadMapFile(const QString& path, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error) *error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    QString reason;
    if (!loadMapJson(file.readAll(), &reason)) {
        if (error) *error = QStringLiteral("%1: %2").arg(path, reason);
        return false;
    }
    return true;
}

}  // namespace modbus_sim
