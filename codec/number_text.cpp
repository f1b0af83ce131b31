// Plain decimal texts of up to nine digits cannot overflow 32 bits and mean the same to every conversion;
// everything else (signs, spaces, longer texts, empty texts) is left to Qt.

#include "codec/number_text.h"

namespace codec {

namespace {

constexpr int kMaxFastDigits = 9;
constexpr unsigned int kDecimalBase = 10;

// The value of `text` when it is one to nine ASCII digits from `from` on.
bool plainDigits(QStringRef const& text, int from, unsigned int* value) {
    int const size = text.size();
    if (size <= from || size - from > kMaxFastDigits) {
        return false;
    }
    QChar const* const chars = text.unicode();
    unsigned int result = 0;
    for (int i = from; i < size; ++i) {
        ushort const c = chars[i].unicode();
        if (c < u'0' || c > u'9') {
            return false;
        }
        result = result * kDecimalBase + (c - u'0');
    }
    *value = result;
    return true;
}

// An empty text is no number to any of the conversions.
bool emptyText(QStringRef const& text, bool* ok) {
    if (!text.isEmpty()) {
        return false;
    }
    if (ok) {
        *ok = false;
    }
    return true;
}

}  // namespace

int textToInt(QStringRef text, bool* ok) {
    if (emptyText(text, ok)) {
        return 0;
    }
    bool const negative = !text.isEmpty() && text.at(0) == QLatin1Char('-');
    unsigned int magnitude = 0;
    if (plainDigits(text, negative ? 1 : 0, &magnitude)) {
        if (ok) {
            *ok = true;
        }
        return negative ? -static_cast<int>(magnitude) : static_cast<int>(magnitude);
    }
    return text.toInt(ok);
}

unsigned int textToUInt(QStringRef text, bool* ok) {
    if (emptyText(text, ok)) {
        return 0;
    }
    unsigned int value = 0;
    if (plainDigits(text, 0, &value)) {
        if (ok) {
            *ok = true;
        }
        return value;
    }
    return text.toUInt(ok);
}

}  // namespace codec
