// Turns an item's address texts into a register table, a 0-based protocol address, a bit number and a
// register count.

#include "codec/addressing.h"

#include <QStringRef>

#include "codec/number_text.h"

namespace codec {

namespace {

const QChar kBitSeparator = QLatin1Char('.');
const QChar kRangeSeparator = QLatin1Char('-');

// Five-digit "Auto" addresses: the leading digit names the table, the rest is 1-based.
constexpr int kFirstCoilAddress = 1;
constexpr int kLastCoilAddress = 9999;
constexpr int kFirstDiscreteInputAddress = 10001;
constexpr int kLastDiscreteInputAddress = 19999;
constexpr int kFirstInputRegisterAddress = 30001;
constexpr int kLastInputRegisterAddress = 39999;

constexpr unsigned int kFlagOn = 1;
constexpr int kDefaultPrecision = 4;

// The text up to the first occurrence of `separator` (all of it without one).
QStringRef beforeFirst(QString const& text, QChar separator) {
    int const at = text.indexOf(separator);
    return at < 0 ? QStringRef(&text) : text.leftRef(at);
}

// The text between the first and the second occurrence of `separator`; null without a first one.
QStringRef secondPart(QString const& text, QChar separator) {
    int const at = text.indexOf(separator);
    if (at < 0) {
        return QStringRef();
    }
    int const next = text.indexOf(separator, at + 1);
    return next < 0 ? text.midRef(at + 1) : text.midRef(at + 1, next - at - 1);
}

}  // namespace

Table tableOf(QString const& registerText, QString const& registerTypeText) {
    int const table = textToInt(QStringRef(&registerTypeText));
    if (table != kAutoTable) {
        return static_cast<Table>(static_cast<unsigned char>(table));
    }

    // Only a plain number is looked at: bit ("30001.3") and range ("30001-30010") addresses fail the
    // conversion and land in the holding registers, and so do six-digit addresses.
    int const address = textToInt(QStringRef(&registerText));
    if (address >= kFirstCoilAddress && address <= kLastCoilAddress) {
        return kCoilTable;
    }
    if (address >= kFirstDiscreteInputAddress && address <= kLastDiscreteInputAddress) {
        return kDiscreteInputTable;
    }
    if (address >= kFirstInputRegisterAddress && address <= kLastInputRegisterAddress) {
        return kInputRegisterTable;
    }
    return kHoldingRegisterTable;
}

int offsetOf(QString const& registerText, QString const& registerTypeText) {
    // A bit address is cut at its point; only an address without one is cut at its range separator.
    QStringRef const address = registerText.contains(kBitSeparator)
                                   ? beforeFirst(registerText, kBitSeparator)
                                   : beforeFirst(registerText, kRangeSeparator);

    bool ok = false;
    if (textToUInt(QStringRef(&registerTypeText)) != kAutoTable) {
        int const offset = textToInt(address, &ok);
        return ok ? offset : -1;
    }

    // The leading digit only has to be a digit; tableOf has already chosen the table from the whole text.
    textToInt(address.left(1), &ok);
    if (!ok) {
        return -1;
    }
    int const oneBased = textToInt(address.mid(1), &ok);
    if (!ok) {
        return -1;
    }
    return oneBased - 1;
}

unsigned int spanOf(QString const& registerText) {
    int const at = registerText.indexOf(kRangeSeparator);
    if (at < 0) {
        return 0;
    }
    QStringRef const secondText = secondPart(registerText, kRangeSeparator);
    unsigned int const first = textToUInt(registerText.leftRef(at));
    unsigned int const second = textToUInt(secondText);
    if (second <= first) {
        // "40001-10": the second number is a register count.
        return static_cast<unsigned int>(textToInt(secondText));
    }
    return second - first + 1;
}

int bitOf(QString const& registerText) {
    return textToInt(secondPart(registerText, kBitSeparator));
}

bool flagOn(QString const& settingText) {
    return textToUInt(QStringRef(&settingText)) == kFlagOn;
}

int precisionOf(QString const& settingText) {
    bool ok = false;
    int const precision = textToInt(QStringRef(&settingText), &ok);
    return ok ? precision : kDefaultPrecision;
}

}  // namespace codec
