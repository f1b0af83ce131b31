#pragma once
// Diagnostic items: items whose "register" text is "__diagnostics." and a name. They are never read from the
// device; every poll of the device writes what its health says into them, so that the host's screens,
// history and alarms work on a device's health like on any value.

#include <QString>
#include <QVector>

#include "plugin/device_health.h"

namespace diagnostics {

inline const QString kPrefix = QStringLiteral("__diagnostics.");
inline const QString kUnknownItem = QStringLiteral("Unknown diagnostic item");
inline const QString kReadOnly = QStringLiteral("Diagnostic items are read-only");

inline bool isDiagnosticAddress(QString const& address) {
    return address.startsWith(kPrefix);
}

// What a poll knows of its device besides the health counters.
struct DeviceView {
    DeviceHealth const* health = nullptr;
    bool connected = false;
    qint64 backoffSeconds = 0;
    QString lastError;  // empty after a successful poll
};

// The names, in the order the documentation lists them.
QVector<QString> const& names();

// The value of the diagnostic item with `address`; a null text when its name is unknown.
QString valueOf(QString const& address, DeviceView const& view);

}  // namespace diagnostics
