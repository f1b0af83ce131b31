#include "tools/zelt-modbus/batch_output.h"

#include <QJsonArray>
#include <QJsonDocument>

#include "tools/zelt-modbus/cli.h"

namespace zelt_cli {

namespace {

QString deviceHeading(const BatchResult& result) {
    return QStringLiteral("device %1 %2 (%3)")
        .arg(result.deviceId)
        .arg(result.deviceName, result.deviceAddress);
}

}  // namespace

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
