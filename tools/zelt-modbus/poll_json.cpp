#include "tools/zelt-modbus/poll_json.h"

#include <QJsonArray>

namespace zelt_cli {

namespace {

QString isoUtc(const QDateTime& time) {
    return time.toUTC().toString(Qt::ISODateWithMs);
}

constexpr char16_t kFirstPrintable = 0x20;
constexpr char16_t kFirstNonAscii = 0x80;
constexpr char16_t kFirstThreeByteUtf8 = 0x800;
constexpr int kHexDigitBits = 4;
constexpr unsigned kHexDigitMask = 0xF;
constexpr unsigned kUtf8ContinuationBits = 6;
constexpr unsigned kUtf8ContinuationMask = 0x3F;
constexpr unsigned kUtf8Continuation = 0x80;
constexpr unsigned kUtf8Lead2 = 0xC0;
constexpr unsigned kUtf8Lead3 = 0xE0;
constexpr unsigned kUtf8Lead4 = 0xF0;

// Without the length count of a plain `+=`: the keys of a line are appended a thousand times per poll.
template <size_t N>
void appendLiteral(std::string& line, const char (&text)[N]) {
    line.append(text, N - 1);
}

void appendByte(std::string& line, unsigned byte) {
    line.push_back(static_cast<char>(byte));
}

void appendUnicodeEscape(std::string& line, char16_t unit) {
    appendLiteral(line, "\\u");
    for (int shift = 3 * kHexDigitBits; shift >= 0; shift -= kHexDigitBits)
        line.push_back("0123456789abcdef"[(unit >> shift) & kHexDigitMask]);
}

void appendUtf8(std::string& line, char32_t codePoint) {
    if (codePoint < kFirstThreeByteUtf8) {
        appendByte(line, kUtf8Lead2 | (codePoint >> kUtf8ContinuationBits));
    } else if (codePoint <= 0xFFFF) {
        appendByte(line, kUtf8Lead3 | (codePoint >> (2 * kUtf8ContinuationBits)));
        appendByte(line, kUtf8Continuation | ((codePoint >> kUtf8ContinuationBits) & kUtf8ContinuationMask));
    } else {
        appendByte(line, kUtf8Lead4 | (codePoint >> (3 * kUtf8ContinuationBits)));
        appendByte(line,
                   kUtf8Continuation | ((codePoint >> (2 * kUtf8ContinuationBits)) & kUtf8ContinuationMask));
        appendByte(line, kUtf8Continuation | ((codePoint >> kUtf8ContinuationBits) & kUtf8ContinuationMask));
    }
    appendByte(line, kUtf8Continuation | (codePoint & kUtf8ContinuationMask));
}

bool isPlainAscii(char16_t unit) {
    return unit >= kFirstPrintable && unit < kFirstNonAscii && unit != u'"' && unit != u'\\';
}

// A JSON string literal in UTF-8, escaped exactly as QJsonDocument's compact form escapes it: the short
// escapes for quote, backslash and five control characters, \u00xx for the other control characters and
// \uxxxx for a surrogate without its partner; everything else as it is.
void appendJsonString(std::string& line, const QString& text) {
    line.push_back('"');
    const QChar* const chars = text.constData();
    const int size = text.size();
    for (int i = 0; i < size; ++i) {
        const char16_t unit = chars[i].unicode();
        if (isPlainAscii(unit)) {
            line.push_back(static_cast<char>(unit));
            continue;
        }
        switch (unit) {
            case u'"':
                appendLiteral(line, "\\\"");
                continue;
            case u'\\':
                appendLiteral(line, "\\\\");
                continue;
            case u'\b':
                appendLiteral(line, "\\b");
                continue;
            case u'\f':
                appendLiteral(line, "\\f");
                continue;
            case u'\n':
                appendLiteral(line, "\\n");
                continue;
            case u'\r':
                appendLiteral(line, "\\r");
                continue;
            case u'\t':
                appendLiteral(line, "\\t");
                continue;
            default:
                break;
        }
        if (unit < kFirstPrintable) {
            appendUnicodeEscape(line, unit);
        } else if (chars[i].isHighSurrogate() && i + 1 < size && chars[i + 1].isLowSurrogate()) {
            appendUtf8(line, QChar::surrogateToUcs4(chars[i], chars[i + 1]));
            ++i;
        } else if (chars[i].isSurrogate()) {
            appendUnicodeEscape(line, unit);
        } else {
            appendUtf8(line, unit);
        }
    }
    line.push_back('"');
}

void appendNumber(std::string& line, int number) {
    line += std::to_string(number);
}

}  // namespace

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

void appendPollJsonLine(std::string& line, int poll, const BatchResult& result) {
    // Keys in the order QJsonObject sorts them, so that the line is the one it would give.
    appendLiteral(line, "{\"device\":");
    appendNumber(line, result.deviceId);
    appendLiteral(line, ",\"error\":");
    appendJsonString(line, result.error);
    appendLiteral(line, ",\"items\":[");
    bool first = true;
    // The items of one poll mostly share one time stamp; its text is made once.
    QDateTime lastTime;
    std::string lastTimeText;
    for (const ItemResult& item : result.items) {
        if (!first) line.push_back(',');
        first = false;
        appendLiteral(line, "{\"error\":");
        appendJsonString(line, item.error);
        appendLiteral(line, ",\"name\":");
        appendJsonString(line, item.name);
        appendLiteral(line, ",\"timestamp\":");
        if (lastTimeText.empty() || item.timestamp != lastTime ||
            item.timestamp.timeSpec() != lastTime.timeSpec()) {
            lastTime = item.timestamp;
            lastTimeText.clear();
            appendJsonString(lastTimeText, isoUtc(item.timestamp));
        }
        line += lastTimeText;
        appendLiteral(line, ",\"uid\":");
        appendJsonString(line, item.uid);
        appendLiteral(line, ",\"value\":");
        appendJsonString(line, item.value);
        line.push_back('}');
    }
    appendLiteral(line, "],\"name\":");
    appendJsonString(line, result.deviceName);
    if (result.ok)
        appendLiteral(line, ",\"ok\":true,\"poll\":");
    else
        appendLiteral(line, ",\"ok\":false,\"poll\":");
    appendNumber(line, poll);
    appendLiteral(line, "}\n");
}

}  // namespace zelt_cli
