#pragma once
// What one poll or write batch of a device gave, as the commands print it.

#include <QDateTime>
#include <QHash>
#include <QString>
#include <QVector>

namespace zelt_cli {

struct ItemResult {
    QString uid;
    QString name;
    QString address;  // the item's "register" setting
    QString type;     // the label of its "type" setting, e.g. FLOAT
    QString value;
    bool valued = false;  // the plugin set a value, maybe an empty text
    QString error;
    QDateTime timestamp;  // UTC
};

struct BatchResult {
    int deviceId = 0;
    QString deviceName;
    QString deviceAddress;
    bool ok = false;
    QString error;  // the device's error text after the batch
    QVector<ItemResult> items;
    // The values of the diagnostic items the session added unseen (`PluginSession::setDiagnosticItems`), by
    // name without the "__diagnostics." prefix; empty otherwise.
    QHash<QString, QString> diagnostics;
};

}  // namespace zelt_cli
