#pragma once
// QString::toInt / toUInt over a text or a part of one, with a fast path for the plain decimal texts that
// settings nearly always hold. Any other text takes Qt's own conversion, so the results are Qt's in every
// case.

#include <QStringRef>

namespace codec {

int textToInt(QStringRef text, bool* ok = nullptr);
unsigned int textToUInt(QStringRef text, bool* ok = nullptr);

}  // namespace codec
