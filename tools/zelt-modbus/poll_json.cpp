#include "tools/zelt-modbus/poll_json.h"

#include <QJsonArray>
#include <algorithm>
#include <charconv>
#include <cstring>

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

// The most bytes one UTF-16 unit can become: "\u" and four hex digits (a UTF-8 sequence is at most three
// bytes per unit, four for a pair of two).
constexpr size_t kMaxBytesPerUnit = 6;
// The quotes of a string.
constexpr size_t kQuoteBytes = 2;
// The most bytes of an int in decimal, with its sign.
constexpr size_t kMaxIntBytes = 11;
// Everything of a line but its texts and numbers, with room to spare: the keys, quotes, commas and brackets.
constexpr size_t kLineFrameBytes = 64;
constexpr size_t kItemFrameBytes = 64;
// What an item of a usual poll takes (short uid, name and value, a time stamp): the first guess of a line's
// size.
constexpr size_t kExpectedItemBytes = 128;

// The writers below put their bytes at `out` and return the end. Room for them is made before each item (see
// LineRoom), as checking for room on each byte cost more than the rest of the line.

size_t jsonStringBound(const QString& text) {
    return kQuoteBytes + kMaxBytesPerUnit * static_cast<size_t>(text.size());
}

template <size_t N>
char* putLiteral(char* out, const char (&text)[N]) {
    std::memcpy(out, text, N - 1);
    return out + N - 1;
}

char* putByte(char* out, unsigned byte) {
    *out = static_cast<char>(byte);
    return out + 1;
}

char* putUnicodeEscape(char* out, char16_t unit) {
    out = putLiteral(out, "\\u");
    for (int shift = 3 * kHexDigitBits; shift >= 0; shift -= kHexDigitBits)
        *out++ = "0123456789abcdef"[(unit >> shift) & kHexDigitMask];
    return out;
}

char* putUtf8(char* out, char32_t codePoint) {
    if (codePoint < kFirstThreeByteUtf8) {
        out = putByte(out, kUtf8Lead2 | (codePoint >> kUtf8ContinuationBits));
    } else if (codePoint <= 0xFFFF) {
        out = putByte(out, kUtf8Lead3 | (codePoint >> (2 * kUtf8ContinuationBits)));
        out =
            putByte(out, kUtf8Continuation | ((codePoint >> kUtf8ContinuationBits) & kUtf8ContinuationMask));
    } else {
        out = putByte(out, kUtf8Lead4 | (codePoint >> (3 * kUtf8ContinuationBits)));
        out = putByte(
            out, kUtf8Continuation | ((codePoint >> (2 * kUtf8ContinuationBits)) & kUtf8ContinuationMask));
        out =
            putByte(out, kUtf8Continuation | ((codePoint >> kUtf8ContinuationBits) & kUtf8ContinuationMask));
    }
    return putByte(out, kUtf8Continuation | (codePoint & kUtf8ContinuationMask));
}

bool isPlainAscii(char16_t unit) {
    return unit >= kFirstPrintable && unit < kFirstNonAscii && unit != u'"' && unit != u'\\';
}

// A JSON string literal in UTF-8, escaped exactly as QJsonDocument's compact form escapes it: the short
// escapes for quote, backslash and five control characters, \u00xx for the other control characters and
// \uxxxx for a surrogate without its partner; everything else as it is. At most jsonStringBound(text) bytes.
char* putJsonString(char* out, const QString& text) {
    *out++ = '"';
    const QChar* const chars = text.constData();
    const int size = text.size();
    for (int i = 0; i < size; ++i) {
        const char16_t unit = chars[i].unicode();
        if (isPlainAscii(unit)) {
            *out++ = static_cast<char>(unit);
            continue;
        }
        switch (unit) {
            case u'"':
                out = putLiteral(out, "\\\"");
                continue;
            case u'\\':
                out = putLiteral(out, "\\\\");
                continue;
            case u'\b':
                out = putLiteral(out, "\\b");
                continue;
            case u'\f':
                out = putLiteral(out, "\\f");
                continue;
            case u'\n':
                out = putLiteral(out, "\\n");
                continue;
            case u'\r':
                out = putLiteral(out, "\\r");
                continue;
            case u'\t':
                out = putLiteral(out, "\\t");
                continue;
            default:
                break;
        }
        if (unit < kFirstPrintable) {
            out = putUnicodeEscape(out, unit);
        } else if (chars[i].isHighSurrogate() && i + 1 < size && chars[i + 1].isLowSurrogate()) {
            out = putUtf8(out, QChar::surrogateToUcs4(chars[i], chars[i + 1]));
            ++i;
        } else if (chars[i].isSurrogate()) {
            out = putUnicodeEscape(out, unit);
        } else {
            out = putUtf8(out, unit);
        }
    }
    *out++ = '"';
    return out;
}

char* putNumber(char* out, int number) {
    return std::to_chars(out, out + kMaxIntBytes, number).ptr;
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

namespace {

// Room at the end of a line that is written through a pointer: made in large steps, so that the bytes
// themselves are written without a check each.
class LineRoom {
public:
    LineRoom(std::string& line, size_t expected) : line(line) {
        const size_t start = line.size();
        line.resize(start + expected);
        out = &line[start];
    }
    // At least `bytes` free after `out`.
    void make(size_t bytes) {
        const size_t used = static_cast<size_t>(out - line.data());
        if (line.size() - used >= bytes) return;
        line.resize(std::max(2 * line.size(), used + bytes));
        out = &line[used];
    }
    void finish() { line.resize(static_cast<size_t>(out - line.data())); }

    char* out = nullptr;

private:
    std::string& line;
};

}  // namespace

void appendPollJsonLine(std::string& line, int poll, const BatchResult& result) {
    LineRoom room(line, kLineFrameBytes + static_cast<size_t>(result.items.size()) * kExpectedItemBytes);
    room.make(kLineFrameBytes + 2 * kMaxIntBytes + jsonStringBound(result.error) +
              jsonStringBound(result.deviceName));
    char* out = room.out;
    // Keys in the order QJsonObject sorts them, so that the line is the one it would give.
    out = putLiteral(out, "{\"device\":");
    out = putNumber(out, result.deviceId);
    out = putLiteral(out, ",\"error\":");
    out = putJsonString(out, result.error);
    out = putLiteral(out, ",\"items\":[");
    // The items of one poll mostly share one time stamp; its text is made once, escaped as it is written.
    QDateTime lastTime;
    std::string timeText;
    bool first = true;
    for (const ItemResult& item : result.items) {
        if (timeText.empty() || item.timestamp != lastTime ||
            item.timestamp.timeSpec() != lastTime.timeSpec()) {
            lastTime = item.timestamp;
            const QString text = isoUtc(item.timestamp);
            timeText.resize(jsonStringBound(text));
            timeText.resize(static_cast<size_t>(putJsonString(&timeText[0], text) - timeText.data()));
        }
        room.out = out;
        room.make(kItemFrameBytes + jsonStringBound(item.error) + jsonStringBound(item.name) +
                  jsonStringBound(item.uid) + jsonStringBound(item.value) + timeText.size());
        out = room.out;
        if (!first) *out++ = ',';
        first = false;
        out = putLiteral(out, "{\"error\":");
        out = putJsonString(out, item.error);
        out = putLiteral(out, ",\"name\":");
        out = putJsonString(out, item.name);
        out = putLiteral(out, ",\"timestamp\":");
        std::memcpy(out, timeText.data(), timeText.size());
        out += timeText.size();
        out = putLiteral(out, ",\"uid\":");
        out = putJsonString(out, item.uid);
        out = putLiteral(out, ",\"value\":");
        out = putJsonString(out, item.value);
        *out++ = '}';
    }
    room.out = out;
    room.make(kLineFrameBytes + 2 * kMaxIntBytes + jsonStringBound(result.deviceName));
    out = room.out;
    out = putLiteral(out, "],\"name\":");
    out = putJsonString(out, result.deviceName);
    out = result.ok ? putLiteral(out, ",\"ok\":true,\"poll\":") : putLiteral(out, ",\"ok\":false,\"poll\":");
    out = putNumber(out, poll);
    out = putLiteral(out, "}\n");
    room.out = out;
    room.finish();
}

}  // namespace zelt_cli
