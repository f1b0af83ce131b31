// Turns an item's address texts into a register table, a 0-based protocol address, a bit number and a
// register count.

#include "codec/addressing.h"

#include <QStringRef>
#include <climits>

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

// Where the first and second separators of each kind sit in an address text (-1: none).
struct Separators {
    int firstBit = -1;
    int secondBit = -1;
    int firstRange = -1;
    int secondRange = -1;
};

Separators findSeparators(QString const& text) {
    Separators found;
    QChar const* const chars = text.constData();
    int const size = text.size();
    for (int i = 0; i < size; ++i) {
        if (chars[i] == kBitSeparator) {
            if (found.firstBit < 0) {
                found.firstBit = i;
            } else if (found.secondBit < 0) {
                found.secondBit = i;
            }
        } else if (chars[i] == kRangeSeparator) {
            if (found.firstRange < 0) {
                found.firstRange = i;
            } else if (found.secondRange < 0) {
                found.secondRange = i;
            }
        }
    }
    return found;
}

// The text between a separator at `first` and the next one at `second` (or the end); null when `first` is -1.
QStringRef partAfter(QString const& text, int first, int second) {
    if (first < 0) {
        return QStringRef();
    }
    return second < 0 ? text.midRef(first + 1) : text.midRef(first + 1, second - first - 1);
}

Table tableFrom(QString const& registerText, int registerType) {
    if (registerType != kAutoTable) {
        return static_cast<Table>(static_cast<unsigned char>(registerType));
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

int offsetFrom(QString const& registerText, QString const& registerTypeText, Separators const& at) {
    // A bit address is cut at its point; only an address without one is cut at its range separator.
    int const cut = at.firstBit >= 0 ? at.firstBit : at.firstRange;
    QStringRef const address = cut < 0 ? QStringRef(&registerText) : registerText.leftRef(cut);

    bool ok = false;
    if (textToUInt(QStringRef(&registerTypeText)) != kAutoTable) {
        int const offset = textToInt(address, &ok);
        return ok ? offset : -1;
    }

    // The leading digit only has to be a digit; the table has already been chosen from the whole text.
    textToInt(address.left(1), &ok);
    if (!ok) {
        return -1;
    }
    int const oneBased = textToInt(address.mid(1), &ok);
    if (!ok || oneBased == INT_MIN) {
        // The rest may read as the smallest int, whose 0-based address no int holds.
        return -1;
    }
    return oneBased - 1;
}

unsigned int spanFrom(QString const& registerText, Separators const& at) {
    if (at.firstRange < 0) {
        return 0;
    }
    QStringRef const secondText = partAfter(registerText, at.firstRange, at.secondRange);
    unsigned int const first = textToUInt(registerText.leftRef(at.firstRange));
    unsigned int const second = textToUInt(secondText);
    if (second <= first) {
        // "40001-10": the second number is a register count.
        return static_cast<unsigned int>(textToInt(secondText));
    }
    return second - first + 1;
}

int bitFrom(QString const& registerText, Separators const& at) {
    return textToInt(partAfter(registerText, at.firstBit, at.secondBit));
}

}  // namespace

Table tableOf(QString const& registerText, QString const& registerTypeText) {
    return tableFrom(registerText, textToInt(QStringRef(&registerTypeText)));
}

int offsetOf(QString const& registerText, QString const& registerTypeText) {
    return offsetFrom(registerText, registerTypeText, findSeparators(registerText));
}

unsigned int spanOf(QString const& registerText) {
    return spanFrom(registerText, findSeparators(registerText));
}

int bitOf(QString const& registerText) {
    return bitFrom(registerText, findSeparators(registerText));
}

ItemAddress parseAddress(QString const& registerText, QString const& registerTypeText) {
    Separators const at = findSeparators(registerText);
    ItemAddress address;
    address.table = tableFrom(registerText, textToInt(QStringRef(&registerTypeText)));
    address.offset = offsetFrom(registerText, registerTypeText, at);
    address.span = spanFrom(registerText, at);
    address.bit = bitFrom(registerText, at);
    return address;
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
