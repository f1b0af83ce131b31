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
void appendJsonString(QString& line, const QString& text) {
    line += QLatin1Char('"');
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

void appendKey(QString& line, const char* key) {
    line += QLatin1Char('"');
    line += QLatin1String(key);
    line += QLatin1String("\":");
}

}  // namespace

void writePollJson(QTextStream& out, int poll, const BatchResult& result) {
    // Keys in the order QJsonObject sorts them, so that the line is the one it would give.
    static thread_local QString line;
    line.clear();
    line += QLatin1Char('{');
    appendKey(line, "device");
    line += QString::number(result.deviceId);
    line += QLatin1Char(',');
    appendKey(line, "error");
    appendJsonString(line, result.error);
    line += QLatin1Char(',');
    appendKey(line, "items");
    line += QLatin1Char('[');
    bool first = true;
    // The items of one poll mostly share one time stamp; its text is made once.
    QDateTime lastTime;
    QString lastTimeText;
    for (const ItemResult& item : result.items) {
        if (!first) line += QLatin1Char(',');
        first = false;
        line += QLatin1Char('{');
        appendKey(line, "error");
        appendJsonString(line, item.error);
        line += QLatin1Char(',');
        appendKey(line, "name");
        appendJsonString(line, item.name);
        line += QLatin1Char(',');
        appendKey(line, "timestamp");
        if (lastTimeText.isNull() || item.timestamp != lastTime ||
            item.timestamp.timeSpec() != lastTime.timeSpec()) {
            lastTime = item.timestamp;
            lastTimeText = isoUtc(item.timestamp);
        }
        appendJsonString(line, lastTimeText);
        line += QLatin1Char(',');
        appendKey(line, "uid");
        appendJsonString(line, item.uid);
        line += QLatin1Char(',');
        appendKey(line, "value");
        appendJsonString(line, item.value);
        line += QLatin1Char('}');
    }
    line += QLatin1String("],");
    appendKey(line, "name");
    appendJsonString(line, result.deviceName);
    line += QLatin1Char(',');
    appendKey(line, "ok");
    line += result.ok ? QLatin1String("true") : QLatin1String("false");
    line += QLatin1Char(',');
    appendKey(line, "poll");
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
