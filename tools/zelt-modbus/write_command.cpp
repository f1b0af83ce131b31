#include <QJsonDocument>
#include <QTextStream>
#include <cmath>
#include <limits>

#include "tools/zelt-modbus/batch_output.h"
#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/device_target.h"
#include "tools/zelt-modbus/session.h"

namespace zelt_cli {

namespace {

const QString kRegisterSetting = QStringLiteral("register");
// What the host stores for an item without "register_type": the column's default, Auto.
const QString kAutoRegisterType = QStringLiteral("4");
constexpr int kAutoTable = 4;
constexpr int kCoilTable = 0;
constexpr int kDiscreteInputTable = 1;
// Five-digit Auto addresses of the two bit tables, as the plugin tells them apart.
constexpr int kFirstCoilAddress = 1;
constexpr int kLastCoilAddress = 9999;
constexpr int kFirstDiscreteInputAddress = 10001;
constexpr int kLastDiscreteInputAddress = 19999;
const QString kBitName = QStringLiteral("BIT");
const QString kBitOff = QStringLiteral("0");
const QString kBitOn = QStringLiteral("1");
constexpr unsigned int kBitType = 0;
constexpr unsigned int kInt16Type = 1;
constexpr unsigned int kUInt16Type = 2;
constexpr unsigned int kInt32Type = 3;
constexpr unsigned int kUInt32Type = 4;
constexpr unsigned int kFloatType = 5;
constexpr unsigned int kDoubleType = 6;
constexpr unsigned int kInt64Type = 8;
constexpr unsigned int kUInt64Type = 9;

// A bound of the signed and unsigned 64-bit ranges as a double: both are powers of two and therefore exact.
const double kTwoTo63 = std::ldexp(1.0, 63);
const double kTwoTo64 = std::ldexp(1.0, 64);

struct WholeRange {
    qint64 lowest;
    quint64 highest;
};

bool wholeRangeOf(unsigned int type, WholeRange* range) {
    switch (type) {
        case kInt16Type:
            *range = {std::numeric_limits<qint16>::min(), std::numeric_limits<qint16>::max()};
            return true;
        case kUInt16Type:
            *range = {0, std::numeric_limits<quint16>::max()};
            return true;
        case kInt32Type:
            *range = {std::numeric_limits<qint32>::min(), std::numeric_limits<qint32>::max()};
            return true;
        case kUInt32Type:
            *range = {0, std::numeric_limits<quint32>::max()};
            return true;
        case kInt64Type:
            *range = {std::numeric_limits<qint64>::min(),
                      static_cast<quint64>(std::numeric_limits<qint64>::max())};
            return true;
        case kUInt64Type:
            *range = {0, std::numeric_limits<quint64>::max()};
            return true;
        default:
            return false;
    }
}

// The bit tables are decided before the address form and the type, as the plugin's write path decides.
bool writesToBitTable(const ItemConfig& item) {
    const int table = item.settings.value(kRegisterTypeSetting, kAutoRegisterType).toInt();
    if (table != kAutoTable) return table == kCoilTable || table == kDiscreteInputTable;
    const int address = item.settings.value(kRegisterSetting).toInt();
    return (address >= kFirstCoilAddress && address <= kLastCoilAddress) ||
           (address >= kFirstDiscreteInputAddress && address <= kLastDiscreteInputAddress);
}

// What the plugin writes for a whole number in range: it carries every number as a double, so a 64-bit
// value beyond 2^53 may arrive as its nearest double, saturated to the type's range.
QString writtenWhole(unsigned int type, double value) {
    if (type == kUInt64Type) {
        if (value >= kTwoTo64) return QString::number(std::numeric_limits<quint64>::max());
        return QString::number(value <= 0 ? quint64{0} : static_cast<quint64>(value));
    }
    if (value >= kTwoTo63) return QString::number(std::numeric_limits<qint64>::max());
    if (value <= -kTwoTo63) return QString::number(std::numeric_limits<qint64>::min());
    return QString::number(static_cast<qint64>(value));
}

// Empty when the plugin writes `value` to `item` as given (or the plugin refuses the item whatever the
// value); else why the value is refused.
QString valueProblem(const ItemConfig& item, const QString& value) {
    const QString address = item.settings.value(kRegisterSetting);
    const QString typeCode = item.settings.value(kTypeSetting);
    const unsigned int type = typeCode.toUInt();
    const QString prefix = QStringLiteral("item \"%1\" (%2) ");
    const bool bit = writesToBitTable(item) || (!address.contains(QLatin1Char('-')) &&
                                                (address.contains(QLatin1Char('.')) || type == kBitType));
    if (bit) {
        if (value == kBitOff || value == kBitOn) return QString();
        return prefix.arg(item.uid, kBitName) + QStringLiteral("takes 0 or 1, not \"%1\"").arg(value);
    }
    // A range is written as text whatever the type; a STRING or unknown type on a single register fails in
    // the plugin, whatever the value.
    if (address.contains(QLatin1Char('-'))) return QString();
    const QString label = prefix.arg(item.uid, typeName(typeCode));
    bool isNumber = false;
    const double number = value.toDouble(&isNumber);
    if (type == kFloatType || type == kDoubleType)
        return isNumber ? QString() : label + QStringLiteral("takes a number, not \"%1\"").arg(value);
    WholeRange range{};
    if (!wholeRangeOf(type, &range)) return QString();
    const QString text = value.trimmed();
    bool whole = false;
    QString given;
    if (text.startsWith(QLatin1Char('-'))) {
        const qint64 signedValue = text.toLongLong(&whole);
        whole = whole && signedValue >= range.lowest;
        given = QString::number(signedValue);
    } else {
        const quint64 unsignedValue = text.toULongLong(&whole);
        whole = whole && unsignedValue <= range.highest;
        given = QString::number(unsignedValue);
    }
    if (!whole || !isNumber)
        return label + QStringLiteral("takes a whole number from %1 to %2, not \"%3\"")
                           .arg(range.lowest)
                           .arg(range.highest)
                           .arg(value);
    const QString written = writtenWhole(type, number);
    if (written != given)
        return label +
               QStringLiteral("would be written as %1, not %2: the plugin carries the value as a double")
                   .arg(written, given);
    return QString();
}

}  // namespace

int runWrite(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("write"),
        QStringLiteral("Writes one value to one item in a single write batch, as the host does.\n"
                       "A value the item cannot take as given (no number for a numeric item, not 0 or 1 for "
                       "a bit)\nis refused before anything is sent, unless --raw.\n"
                       "Exits 0 when the batch succeeded and the item has no error, 1 otherwise, 2 for a "
                       "refused value."));
    command.addOption(QStringLiteral("config"), QStringLiteral("FILE"),
                      QStringLiteral("configuration file (JSON)"));
    command.addOption(QStringLiteral("device"), QStringLiteral("ID"), QStringLiteral("id of the device"));
    command.addOption(QStringLiteral("item"), QStringLiteral("UID"), QStringLiteral("uid of the item"));
    command.addOption(
        QStringLiteral("value"), QStringLiteral("TEXT"),
        QStringLiteral("value to write, as text: a number for a numeric item (whole for the "
                       "integer types, with a point for FLOAT and DOUBLE), 0 or 1 for a bit, any "
                       "text for a STRING"));
    command.addFlag(
        QStringLiteral("raw"),
        QStringLiteral("hand the value to the plugin unchecked, as the host does: the plugin's own "
                       "handling applies (it writes a text that is no number as 0)"));
    addTransportOption(&command);
    addTlsOptions(&command);
    command.addFlag(QStringLiteral("json"), QStringLiteral("print the result as JSON"));
    command.addFlag(QStringLiteral("verbose"), QStringLiteral("also print the plugin's debug log"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;
    for (const char* required : {"config", "device", "item", "value"}) {
        if (!command.has(QLatin1String(required))) {
            QTextStream(stderr) << "zelt-modbus write: --" << required << " is required\n" << command.usage();
            return kExitUsage;
        }
    }
    Transport transport = Transport::ModbusTcp;
    if (!readTransportOption(command, QStringLiteral("write"), &transport)) return kExitUsage;

    const QString path = command.value(QStringLiteral("config"));
    Config config;
    QString error;
    if (!readConfigFile(path, &config, &error)) return fail(error, kExitUsage);
    bool idOk = false;
    const int deviceId = command.value(QStringLiteral("device")).toInt(&idOk);
    // Set before anything points into the devices: the option stands for the setting, as if configured.
    if (idOk && command.has(QStringLiteral("transport"))) {
        for (DeviceConfig& candidate : config.devices)
            if (candidate.id == deviceId)
                candidate.settings.insert(kTransportSetting, transportSetting(transport));
    }
    const DeviceConfig* device = idOk ? config.device(deviceId) : nullptr;
    if (!device)
        return fail(
            QStringLiteral("%1: no device with id %2").arg(path, command.value(QStringLiteral("device"))),
            kExitUsage);
    // The certificate options stand for the device's tls_* settings alike.
    TlsSettings tls = tlsSettingsOf(*device);
    if (!readTlsOptions(command, QStringLiteral("write"), transportOf(*device), &tls)) return kExitUsage;
    if (transportOf(*device) == Transport::ModbusTcpSecurity) {
        for (DeviceConfig& configured : config.devices)
            if (configured.id == deviceId) setTlsSettings(&configured, tls);
    }
    const QString uid = command.value(QStringLiteral("item"));
    const ItemConfig* item = nullptr;
    for (const ItemConfig& candidate : device->items)
        if (candidate.uid == uid) item = &candidate;
    if (!item)
        return fail(
            QStringLiteral("%1: device %2 has no item with uid \"%3\"").arg(path).arg(deviceId).arg(uid),
            kExitUsage);
    const QString value = command.value(QStringLiteral("value"));
    if (!command.flag(QStringLiteral("raw"))) {
        // The plugin would write such a text as 0 or as another number, and report success.
        if (const QString problem = valueProblem(*item, value); !problem.isEmpty()) {
            QTextStream(stderr) << "zelt-modbus write: " << problem << "\n";
            return kExitUsage;
        }
    }

    PluginSession session;
    session.setVerbose(command.flag(QStringLiteral("verbose")));
    if (!session.start(command.pluginPath(), config, &error)) return fail(error);
    const BatchResult result = session.write(*device, *item, value);
    session.stop();

    QTextStream out(stdout);
    if (command.flag(QStringLiteral("json")))
        out << jsonLine(writeToJson(result)) << "\n";
    else
        printWrite(out, result);
    const bool itemOk = !result.items.isEmpty() && result.items.first().error.isEmpty();
    return result.ok && itemOk ? 0 : 1;
}

}  // namespace zelt_cli
