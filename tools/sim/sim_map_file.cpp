// Reads the simulator's JSON map file: served units, register tables, identification and Report Slave ID.
// Everything is checked before anything is applied, so a bad file leaves the simulator as it was.

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <optional>

#include "tools/sim/sim_protocol.h"
#include "tools/sim/simulator.h"

namespace modbus_sim {

namespace {

constexpr int kMaxUnitId = 255;
constexpr int kMaxRegisterValue = 0xFFFF;
constexpr int kMaxObjectId = 0xFF;
constexpr char kHexPrefix[] = "hex:";

template <typename T>
struct TableBlock {
    int address = 0;
    std::vector<T> values;
};

struct MapFile {
    std::optional<std::set<int>> units;
    std::optional<UnknownUnitReply> unknownUnitReply;
    std::vector<TableBlock<uint16_t>> holdingRegisters;
    std::vector<TableBlock<uint16_t>> inputRegisters;
    std::vector<TableBlock<uint8_t>> coils;
    std::vector<TableBlock<uint8_t>> discreteInputs;
    std::optional<DeviceIdentification> identification;
    std::optional<QByteArray> reportSlaveId;
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
    bool readId(const QString& text, const QString& key, int max, int* out);
    bool readBytes(const QJsonValue& value, const QString& key, QByteArray* out);
    template <typename T>
    bool readTable(const QJsonValue& value, const QString& key, int maxValue,
                   std::vector<TableBlock<T>>* out);
    bool readIdentification(const QJsonValue& value, const QString& key, DeviceIdentification* out);
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

bool MapReader::read(const QJsonObject& root, MapFile* map) {
    for (auto it = root.begin(); it != root.end(); ++it) {
        const QString key = it.key();
        const QJsonValue value = it.value();
        if (key == QLatin1String("units")) {
            if (!value.isArray()) return fail(key, QStringLiteral("expected an array of unit ids"));
            std::set<int> units;
            const QJsonArray array = value.toArray();
            for (int i = 0; i < array.size(); ++i) {
                int unit = 0;
                if (!readInt(array.at(i), QStringLiteral("units[%1]").arg(i), 0, kMaxUnitId, &unit))
                    return false;
                units.insert(unit);
            }
            map->units = units;
        } else if (key == QLatin1String("unknown_unit_reply")) {
            if (value.toString() == QLatin1String("silence")) {
                map->unknownUnitReply = UnknownUnitReply::Silence;
            } else if (value.toString() == QLatin1String("gateway_exception")) {
                map->unknownUnitReply = UnknownUnitReply::GatewayException;
            } else {
                return fail(key, QStringLiteral("expected \"silence\" or \"gateway_exception\""));
            }
        } else if (key == QLatin1String("holding_registers")) {
            if (!readTable(value, key, kMaxRegisterValue, &map->holdingRegisters)) return false;
        } else if (key == QLatin1String("input_registers")) {
            if (!readTable(value, key, kMaxRegisterValue, &map->inputRegisters)) return false;
        } else if (key == QLatin1String("coils")) {
            if (!readTable(value, key, 1, &map->coils)) return false;
        } else if (key == QLatin1String("discrete_inputs")) {
            if (!readTable(value, key, 1, &map->discreteInputs)) return false;
        } else if (key == QLatin1String("identification")) {
            DeviceIdentification identification;
            if (!readIdentification(value, key, &identification)) return false;
            map->identification = identification;
        } else if (key == QLatin1String("report_slave_id")) {
            QByteArray payload;
            if (!readBytes(value, key, &payload)) return false;
            map->reportSlaveId = payload;
        } else {
            return fail(key, QStringLiteral("unknown key"));
        }
    }
    return true;
}

}  // namespace

bool Simulator::loadMapJson(const QByteArray& json, QString* error) {
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
    MapFile map;
    MapReader reader;
    if (!reader.read(document.object(), &map)) {
        if (error) *error = reader.error;
        return false;
    }
    if (map.units) setUnits(*map.units);
    if (map.unknownUnitReply) setUnknownUnitReply(*map.unknownUnitReply);
    for (const auto& block : map.holdingRegisters) setHoldingRegisters(block.address, block.values);
    for (const auto& block : map.inputRegisters) setInputRegisters(block.address, block.values);
    for (const auto& block : map.coils) setCoils(block.address, block.values);
    for (const auto& block : map.discreteInputs) setDiscreteInputs(block.address, block.values);
    if (map.identification) setDeviceIdentification(*map.identification);
    if (map.reportSlaveId) setReportSlaveId(*map.reportSlaveId);
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
