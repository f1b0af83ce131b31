#include "tools/zelt-modbus/batch_output.h"

#include <QJsonArray>
#include <QJsonDocument>

#include "tools/zelt-modbus/cli.h"

namespace zelt_cli {

namespace {

QString isoUtc(const QDateTime& time) {
    return time.toUTC().toString(Qt::ISODateWithMs);
}

QString deviceHeading(const BatchResult& result) {
    return QStringLiteral("device %1 %2 (%3)")
        .arg(result.deviceId)
        .arg(result.deviceName, result.deviceAddress);
}

constexpr ushort kFirstPrintable = 0x20;
constexpr int kHexDigitBits = 4;
constexpr ushort kHexDigitMask = 0xF;

QChar hexDigit(ushort value) {
    return QLatin1Char("0123456789abcdef"[value & kHexDigitMask]);
}

void appendUnicodeEscape(QString& line, ushort unit) {
    line += QLatin1String("\\u");
    for (int shift = 3 * kHexDigitBits; shift >= 0; shift -= kHexDigitBits)
        line += hexDigit(static_cast<ushort>(unit >> shift));
}

// A JSON string literal, escaped exactly as QJsonDocument's compact form escapes it: the short escapes for
// quote, backslash and five control characters, \u00xx for the other control characters and \uxxxx for a
// surrogate without its partner; everything else as it is.
bool needsEscape(const QString& text) {
    for (const QChar c : text) {
        const ushort unit = c.unicode();
        if (unit < kFirstPrintable || unit == u'"' || unit == u'\\' || c.isSurrogate()) return true;
    }
    return false;
}

void appendJsonString(QString& line, const QString& text) {
    line += QLatin1Char('"');
    // Most texts (numbers, uids, names) need no escape at all and are copied in one piece.
    if (!needsEscape(text)) {
        line += text;
        line += QLatin1Char('"');
        return;
    }
    const QChar* const chars = text.constData();
    const int size = text.size();
    for (int i = 0; i < size; ++i) {
        const QChar c = chars[i];
        const ushort unit = c.unicode();
        switch (unit) {
            case u'"':
                line += QLatin1String("\\\"");
                continue;
            case u'\\':
                line += QLatin1String("\\\\");
                continue;
            case u'\b':
                line += QLatin1String("\\b");
                continue;
            case u'\f':
                line += QLatin1String("\\f");
                continue;
            case u'\n':
                line += QLatin1String("\\n");
                continue;
            case u'\r':
                line += QLatin1String("\\r");
                continue;
            case u'\t':
                line += QLatin1String("\\t");
                continue;
            default:
                break;
        }
        if (unit < kFirstPrintable) {
            appendUnicodeEscape(line, unit);
        } else if (c.isHighSurrogate() && i + 1 < size && chars[i + 1].isLowSurrogate()) {
            line += c;
            line += chars[++i];
        } else if (c.isSurrogate()) {
            appendUnicodeEscape(line, unit);
        } else {
            line += c;
        }
    }
    line += QLatin1Char('"');
}

// Keys with their quotes and colon, ready to copy: converting them from Latin-1 for every item cost more than
// the rest of a line.
const QString kDeviceKey = QStringLiteral("\"device\":");
const QString kErrorKey = QStringLiteral("\"error\":");
const QString kItemsKey = QStringLiteral("\"items\":");
const QString kNameKey = QStringLiteral("\"name\":");
const QString kOkKey = QStringLiteral("\"ok\":");
const QString kPollKey = QStringLiteral("\"poll\":");
const QString kTimestampKey = QStringLiteral("\"timestamp\":");
const QString kUidKey = QStringLiteral("\"uid\":");
const QString kValueKey = QStringLiteral("\"value\":");

}  // namespace

void writePollJson(QTextStream& out, int poll, const BatchResult& result) {
    // Keys in the order QJsonObject sorts them, so that the line is the one it would give.
    // One buffer for every line: resize(0) keeps its capacity, where clear() would give it back.
    static thread_local QString line;
    line.resize(0);
    line += QLatin1Char('{');
    line += kDeviceKey;
    line += QString::number(result.deviceId);
    line += QLatin1Char(',');
    line += kErrorKey;
    appendJsonString(line, result.error);
    line += QLatin1Char(',');
    line += kItemsKey;
    line += QLatin1Char('[');
    bool first = true;
    // The items of one poll mostly share one time stamp; its text is made once.
    QDateTime lastTime;
    QString lastTimeText;
    for (const ItemResult& item : result.items) {
        if (!first) line += QLatin1Char(',');
        first = false;
        line += QLatin1Char('{');
        line += kErrorKey;
        appendJsonString(line, item.error);
        line += QLatin1Char(',');
        line += kNameKey;
        appendJsonString(line, item.name);
        line += QLatin1Char(',');
        line += kTimestampKey;
        if (lastTimeText.isNull() || item.timestamp != lastTime ||
            item.timestamp.timeSpec() != lastTime.timeSpec()) {
            lastTime = item.timestamp;
            lastTimeText = isoUtc(item.timestamp);
        }
        appendJsonString(line, lastTimeText);
        line += QLatin1Char(',');
        line += kUidKey;
        appendJsonString(line, item.uid);
        line += QLatin1Char(',');
        line += kValueKey;
        appendJsonString(line, item.value);
        line += QLatin1Char('}');
    }
    line += QLatin1String("],");
    line += kNameKey;
    appendJsonString(line, result.deviceName);
    line += QLatin1Char(',');
    line += kOkKey;
    line += result.ok ? QLatin1String("true") : QLatin1String("false");
    line += QLatin1Char(',');
    line += kPollKey;
    line += QString::number(poll);
    line += QLatin1String("}\n");
    out << line;
}

QJsonObject pollToJson(int poll, const BatchResult& result) {
    QJsonArray items;
    for (const ItemResult& item : result.items)
        items.append(QJsonObject{{QStringLiteral("uid"), item.uid},
                                 {QStringLiteral("name"), item.name},
                                 {QStringLiteral("value"), item.value},
                                 {QStringLiteral("error"), item.error},
                                 {QStringLiteral("timestamp"), isoUtc(item.timestamp)}});
    return QJsonObject{{QStringLiteral("poll"), poll},
                       {QStringLiteral("device"), result.deviceId},
                       {QStringLiteral("name"), result.deviceName},
                       {QStringLiteral("ok"), result.ok},
                       {QStringLiteral("error"), result.error},
                       {QStringLiteral("items"), items}};
}

QJsonObject writeToJson(const BatchResult& result) {
    QJsonArray items;
    for (const ItemResult& item : result.items)
        items.append(QJsonObject{{QStringLiteral("uid"), item.uid}, {QStringLiteral("error"), item.error}});
    return QJsonObject{{QStringLiteral("ok"), result.ok},
                       {QStringLiteral("error"), result.error},
                       {QStringLiteral("items"), items}};
}

void printPoll(QTextStream& out, int poll, const BatchResult& result) {
    out << "Poll " << poll << ", " << deviceHeading(result) << ": "
        << (result.ok ? QStringLiteral("ok") : QStringLiteral("failed"));
    if (!result.error.isEmpty()) out << ": " << result.error;
    out << "\n";
    Table table({QStringLiteral("item"), QStringLiteral("address"), QStringLiteral("type"),
                 QStringLiteral("value"), QStringLiteral("error")});
    for (const ItemResult& item : result.items)
        table.addRow({item.name, item.address, item.type, item.value, item.error});
    table.print(out);
    out << "\n";
    out.flush();
}

void printWrite(QTextStream& out, const BatchResult& result) {
    for (const ItemResult& item : result.items) {
        out << "Write " << item.name << " = " << item.value << " to " << deviceHeading(result) << ": "
            << (result.ok && item.error.isEmpty() ? QStringLiteral("ok") : QStringLiteral("failed"));
        if (!item.error.isEmpty()) out << ": " << item.error;
        out << "\n";
    }
    if (!result.error.isEmpty()) out << "Device error: " << result.error << "\n";
    out.flush();
}

QString jsonLine(const QJsonObject& object) {
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

}  // namespace zelt_cli
