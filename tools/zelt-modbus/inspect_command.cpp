#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPair>
#include <QTextStream>
#include <algorithm>
#include <cmath>

#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/device_link.h"
#include "tools/zelt-modbus/device_target.h"
#include "tools/zelt-modbus/interpretations.h"
#include "tools/zelt-modbus/register_table.h"

namespace zelt_cli {

namespace {

constexpr int kDefaultRegisterCount = 2;
constexpr int kDefaultBitCount = 1;
constexpr int kHexDigits = 4;
// Floating values are taken as the expected one when they lie this close to it, relative to it.
constexpr double kFloatTolerance = 0.005;
// 16-bit values have only two orders: Little/High reads like Big/Low and Little/Low like Big/High.
constexpr int kSixteenBitOrders = 2;
const QString kOff = QStringLiteral("0");
const QString kOn = QStringLiteral("1");

struct Match {
    Interpretation interpretation;
    QList<QPair<QString, QString>> deviceSettings;
    QList<QPair<QString, QString>> itemSettings;
};

bool matches(const Interpretation& interpretation, const QString& expect) {
    if (!interpretation.error.isEmpty()) return false;
    const QString& value = interpretation.value;
    if (interpretation.type.registers == 0) return value == expect;
    if (interpretation.type.floating) {
        bool okValue = false;
        bool okExpect = false;
        const double number = value.toDouble(&okValue);
        const double expected = expect.toDouble(&okExpect);
        if (!okValue || !okExpect) return false;
        if (expected == 0) return number == 0;
        return std::fabs(number - expected) <= kFloatTolerance * std::fabs(expected);
    }
    bool okValue = false;
    bool okExpect = false;
    if (const qlonglong expected = expect.toLongLong(&okExpect); okExpect)
        return value.toLongLong(&okValue) == expected && okValue;
    const qulonglong expected = expect.toULongLong(&okExpect);
    return okExpect && value.toULongLong(&okValue) == expected && okValue;
}

// Spaced like a hand-written configuration and in the order of the columns, so the line can be pasted as it
// stands.
QString settingsLine(const QList<QPair<QString, QString>>& settings) {
    QStringList pairs;
    for (const auto& setting : settings)
        pairs.append(QStringLiteral("\"%1\": \"%2\"").arg(setting.first, setting.second));
    return QStringLiteral("{") + pairs.join(QStringLiteral(", ")) + QStringLiteral("}");
}

QJsonObject settingsObject(const QList<QPair<QString, QString>>& settings) {
    QJsonObject object;
    for (const auto& setting : settings) object.insert(setting.first, setting.second);
    return object;
}

// How far a matching reading lies from the expected value, relative to it; 0 for integers and texts.
double distance(const Interpretation& interpretation, const QString& expect) {
    if (!interpretation.type.floating) return 0;
    const double expected = expect.toDouble();
    if (expected == 0) return 0;
    return std::fabs(interpretation.value.toDouble() - expected) / std::fabs(expected);
}

QString rangeText(RegisterTable table, int first, int count) {
    const QString start = registerText(table, first);
    return count == 1 ? start : start + QLatin1Char('-') + registerText(table, first + count - 1);
}

Match matchFor(const Interpretation& interpretation, RegisterTable table, int offset, bool explicitType) {
    const ByteOrder order = byteOrders().at(interpretation.order);
    const bool text = interpretation.type.registers == 0;
    const QString prefix = text ? QStringLiteral("string_") : QString();
    Match match;
    match.interpretation = interpretation;
    match.deviceSettings = {{prefix + QStringLiteral("endianness"), order.littleEndian ? kOn : kOff},
                            {prefix + QStringLiteral("byte_order"), order.byteSwapped ? kOn : kOff}};
    const int first = offset + interpretation.index;
    // In Auto mode the plugin reads every range from the holding registers, so a STRING anywhere else needs
    // the table set explicitly, and so does an offset that has no 5-digit Auto address.
    const bool autoForm =
        !explicitType && hasAutoAddress(first) && (!text || table == RegisterTable::HoldingRegisters);
    QString address = autoForm ? registerText(table, first) : QString::number(first);
    if (text) {
        const int count = interpretation.registers;
        // The second number is a count when it is not above the first, else the last address.
        address += autoForm || count == 1 ? QStringLiteral("-%1").arg(count)
                                          : QStringLiteral("-%1").arg(first + count - 1);
    }
    match.itemSettings = {{QStringLiteral("register"), address},
                          {QStringLiteral("type"), QString::number(interpretation.type.code)}};
    if (!autoForm)
        match.itemSettings.append(
            {QStringLiteral("register_type"), QString::number(static_cast<int>(table))});
    return match;
}

QString quoted(const Interpretation& interpretation) {
    if (!interpretation.error.isEmpty()) return QStringLiteral("(%1)").arg(interpretation.error);
    return interpretation.type.registers == 0 ? QStringLiteral("\"%1\"").arg(interpretation.value)
                                              : interpretation.value;
}

// What the device showed of itself in the TLS handshake, below the heading.
void printTls(QTextStream& out, const TlsHandshake* tls) {
    if (!tls) return;
    out << "TLS: " << tls->protocol << ", cipher " << tls->cipher
        << (tls->resumed ? ", session resumed" : QString()) << "\n"
        << "device certificate: " << tls->subject << "\n"
        << "  issuer: " << tls->issuer << "\n"
        << "  names: " << tls->names << "\n"
        << "  expires: " << tls->expiry << "\n";
}

void insertTls(QJsonObject* root, const TlsHandshake* tls) {
    if (!tls) return;
    root->insert(QStringLiteral("tls"), QJsonObject{{QStringLiteral("protocol"), tls->protocol},
                                                    {QStringLiteral("cipher"), tls->cipher},
                                                    {QStringLiteral("resumed"), tls->resumed},
                                                    {QStringLiteral("subject"), tls->subject},
                                                    {QStringLiteral("issuer"), tls->issuer},
                                                    {QStringLiteral("names"), tls->names},
                                                    {QStringLiteral("expiry"), tls->expiry}});
}

int printBits(QTextStream& out, const DeviceTarget& target, const TlsHandshake* tls, RegisterTable table,
              int offset, const std::vector<uint8_t>& bits, const QString& expect, bool hasExpect,
              bool json) {
    int found = 0;
    QJsonArray array;
    Table rows({QStringLiteral("register"), QStringLiteral("offset"), QStringLiteral("value")});
    for (size_t i = 0; i < bits.size(); ++i) {
        const bool hit = hasExpect && QString::number(bits[i]) == expect;
        found += hit ? 1 : 0;
        const int at = offset + static_cast<int>(i);
        QJsonObject bit{{QStringLiteral("register"), registerText(table, at)},
                        {QStringLiteral("offset"), at},
                        {QStringLiteral("value"), static_cast<int>(bits[i])}};
        if (hasExpect) bit.insert(QStringLiteral("match"), hit);
        array.append(bit);
        rows.addRow({registerText(table, at), QString::number(at),
                     QString::number(bits[i]) + (hit ? QStringLiteral(" *") : QString())});
    }
    if (json) {
        QJsonObject root{{QStringLiteral("address"), target.address},
                         {QStringLiteral("port"), target.port},
                         {QStringLiteral("unit"), target.unit},
                         {QStringLiteral("table"), tableKey(table)},
                         {QStringLiteral("offset"), offset},
                         {QStringLiteral("count"), static_cast<int>(bits.size())},
                         {QStringLiteral("bits"), array}};
        insertTls(&root, tls);
        out << QJsonDocument(root).toJson(QJsonDocument::Indented);
    } else {
        out << target.address << ":" << target.port << " unit " << target.unit << ": " << tableTitle(table)
            << " " << rangeText(table, offset, static_cast<int>(bits.size())) << "\n";
        printTls(out, tls);
        out << "\n";
        rows.print(out);
    }
    return !hasExpect || found > 0 ? 0 : 1;
}

}  // namespace

int runInspect(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("inspect"),
        QStringLiteral(
            "Reads registers once and shows every way the plugin can read them: each register as "
            "INT16 and UINT16,\neach pair as INT32, UINT32 and FLOAT, each four as INT64, UINT64 "
            "and DOUBLE, in the four byte\norders, and the block as STRING. Coils and discrete inputs "
            "print as bits.\nExits 0 after a read (with --expect: when something matched), 1 "
            "otherwise."));
    addTargetOptions(&command);
    command.addOption(QStringLiteral("register"), QStringLiteral("ADDR"),
                      QStringLiteral("first address, e.g. 40001 (holding 0), 30001, 10001, 00001"));
    command.addOption(QStringLiteral("register-type"), QStringLiteral("N"),
                      QStringLiteral("as the item setting: 4 Auto (default), 3 holding, 2 input, 1 discrete "
                                     "input, 0 coil; 0-3 take ADDR as a 0-based offset"));
    command.addOption(QStringLiteral("count"), QStringLiteral("N"),
                      QStringLiteral("registers to read (default 2, at most 125) or bits (default 1, at "
                                     "most 2000)"));
    command.addOption(
        QStringLiteral("expect"), QStringLiteral("VALUE"),
        QStringLiteral("mark the readings within 0.5% of VALUE (equal for integers and texts)"));
    command.addFlag(QStringLiteral("json"), QStringLiteral("print one JSON object"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;

    DeviceTarget target;
    if (!readTarget(command, QStringLiteral("inspect"), &target)) return kExitUsage;
    if (!command.has(QStringLiteral("register"))) {
        QTextStream(stderr) << "zelt-modbus inspect: --register is required\n" << command.usage();
        return kExitUsage;
    }
    int registerType = kAutoRegisterType;
    if (!readNumberOption(command, QStringLiteral("register-type"), 0, kAutoRegisterType, &registerType))
        return kExitUsage;
    if (registerType > kAutoRegisterType) {
        QTextStream(stderr) << "zelt-modbus inspect: --register-type must be 0 to 4\n" << command.usage();
        return kExitUsage;
    }
    RegisterTable table = RegisterTable::HoldingRegisters;
    int offset = 0;
    QString error;
    if (!parseRegisterAddress(command.value(QStringLiteral("register")), registerType, &table, &offset,
                              &error)) {
        QTextStream(stderr) << "zelt-modbus inspect: --register: " << error << "\n" << command.usage();
        return kExitUsage;
    }
    const bool bitTable = isBitTable(table);
    int count = 0;
    if (!readNumberOption(command, QStringLiteral("count"), 1,
                          bitTable ? kDefaultBitCount : kDefaultRegisterCount, &count))
        return kExitUsage;
    const int maxCount = bitTable ? kMaxBitsPerRead : kMaxRegistersPerRead;
    if (count > maxCount || offset + count - 1 > kLastOffset) {
        QTextStream(stderr) << "zelt-modbus inspect: --count: one read takes at most " << maxCount << " "
                            << (bitTable ? "bits" : "registers") << " and ends at offset " << kLastOffset
                            << "\n"
                            << command.usage();
        return kExitUsage;
    }

    DeviceLink link(target.address, target.port, target.unit, target.responseTimeoutMs, target.transport,
                    target.tls);
    std::vector<uint16_t> words;
    std::vector<uint8_t> bits;
    const ReadOutcome outcome = link.read(table, offset, count, &words, &bits);
    link.close();
    if (outcome.kind != ReadOutcome::Ok)
        return fail(
            QStringLiteral("reading %1 %2 from %3: %4")
                .arg(tableTitle(table), rangeText(table, offset, count), link.describe(), outcome.error));

    QTextStream out(stdout);
    const bool hasExpect = command.has(QStringLiteral("expect"));
    const QString expect = command.value(QStringLiteral("expect"));
    const bool json = command.flag(QStringLiteral("json"));
    const TlsHandshake* tls = link.tlsHandshake();
    if (bitTable) return printBits(out, target, tls, table, offset, bits, expect, hasExpect, json);

    QList<Interpretation> interpretations;
    if (!decodeAllWays(command.pluginPath(), words, &interpretations, &error)) return fail(error);
    const bool explicitType = registerType != kAutoRegisterType;
    const QList<ByteOrder> orders = byteOrders();

    QList<Match> found;
    for (const Interpretation& interpretation : interpretations) {
        if (!hasExpect || !matches(interpretation, expect)) continue;
        if (interpretation.type.registers == 1 && interpretation.order >= kSixteenBitOrders) continue;
        found.append(matchFor(interpretation, table, offset, explicitType));
    }
    // The closest reading first: a misaligned pair can land near the value by chance.
    std::stable_sort(found.begin(), found.end(), [&expect](const Match& a, const Match& b) {
        return distance(a.interpretation, expect) < distance(b.interpretation, expect);
    });

    if (json) {
        QJsonArray registers;
        for (int i = 0; i < count; ++i) {
            const Interpretation& asInt = interpretations.at(i);
            registers.append(
                QJsonObject{{QStringLiteral("register"), registerText(table, offset + i)},
                            {QStringLiteral("offset"), offset + i},
                            {QStringLiteral("hex"),
                             QStringLiteral("0x%1").arg(words[i], kHexDigits, 16, QLatin1Char('0'))},
                            {QStringLiteral("INT16"), asInt.value},
                            {QStringLiteral("UINT16"), interpretations.at(count + i).value}});
        }
        QJsonArray all;
        for (const Interpretation& interpretation : interpretations) {
            const Match described = matchFor(interpretation, table, offset, explicitType);
            QJsonObject object{{QStringLiteral("register"),
                                rangeText(table, offset + interpretation.index, interpretation.registers)},
                               {QStringLiteral("type"), interpretation.type.name},
                               {QStringLiteral("settings"), settingsObject(described.deviceSettings)},
                               {QStringLiteral("value"), interpretation.value}};
            if (!interpretation.error.isEmpty()) object.insert(QStringLiteral("error"), interpretation.error);
            if (hasExpect) object.insert(QStringLiteral("match"), matches(interpretation, expect));
            all.append(object);
        }
        QJsonObject root{
            {QStringLiteral("address"), target.address}, {QStringLiteral("port"), target.port},
            {QStringLiteral("unit"), target.unit},       {QStringLiteral("table"), tableKey(table)},
            {QStringLiteral("offset"), offset},          {QStringLiteral("count"), count},
            {QStringLiteral("registers"), registers},    {QStringLiteral("interpretations"), all}};
        if (hasExpect) {
            QJsonArray matchArray;
            for (const Match& match : found)
                matchArray.append(
                    QJsonObject{{QStringLiteral("type"), match.interpretation.type.name},
                                {QStringLiteral("value"), match.interpretation.value},
                                {QStringLiteral("device_settings"), settingsObject(match.deviceSettings)},
                                {QStringLiteral("item_settings"), settingsObject(match.itemSettings)}});
            root.insert(QStringLiteral("expect"), expect);
            root.insert(QStringLiteral("matches"), matchArray);
        }
        insertTls(&root, tls);
        out << QJsonDocument(root).toJson(QJsonDocument::Indented);
        return !hasExpect || !found.isEmpty() ? 0 : 1;
    }

    out << target.address << ":" << target.port << " unit " << target.unit << ": " << tableTitle(table) << " "
        << rangeText(table, offset, count) << " (offsets " << offset << "-" << offset + count - 1 << ")\n";
    printTls(out, tls);
    out << "\n";
    Table plain({QStringLiteral("register"), QStringLiteral("offset"), QStringLiteral("hex"),
                 QStringLiteral("INT16"), QStringLiteral("UINT16")});
    for (int i = 0; i < count; ++i)
        plain.addRow({registerText(table, offset + i), QString::number(offset + i),
                      QStringLiteral("0x%1").arg(words[i], kHexDigits, 16, QLatin1Char('0')),
                      interpretations.at(i).value, interpretations.at(count + i).value});
    plain.print(out);

    // One row per start and type, one column per byte order; "*" marks a reading that matches --expect.
    QStringList header{QStringLiteral("register"), QStringLiteral("type")};
    for (const ByteOrder& order : orders)
        header.append(QStringLiteral("%1/%2 %3")
                          .arg(order.littleEndian ? 1 : 0)
                          .arg(order.byteSwapped ? 1 : 0)
                          .arg(QString(order.layout).remove(QLatin1Char(' '))));
    Table wide(header);
    const int perOrder = interpretations.size() / orders.size();
    bool any = false;
    for (int row = 0; row < perOrder; ++row) {
        const Interpretation& first = interpretations.at(row);
        if (first.type.registers == 1) continue;
        any = true;
        QStringList cells{rangeText(table, offset + first.index, first.registers), first.type.name};
        for (int order = 0; order < orders.size(); ++order) {
            const Interpretation& cell = interpretations.at(order * perOrder + row);
            cells.append(quoted(cell) +
                         (hasExpect && matches(cell, expect) ? QStringLiteral(" *") : QString()));
        }
        wide.addRow(cells);
    }
    if (any) {
        out << "\nColumns: \"endianness\"/\"byte_order\" (for STRING: \"string_endianness\"/"
               "\"string_byte_order\") and the value's bytes, most significant first.\n";
        wide.print(out);
    }
    if (hasExpect) {
        out << "\n";
        if (found.isEmpty()) out << "Nothing reads as " << expect << ".\n";
        for (const Match& match : found)
            out << match.interpretation.type.name << " " << quoted(match.interpretation) << " matches "
                << expect << ": device settings " << settingsLine(match.deviceSettings) << ", item settings "
                << settingsLine(match.itemSettings) << "\n";
    }
    return !hasExpect || !found.isEmpty() ? 0 : 1;
}

}  // namespace zelt_cli
