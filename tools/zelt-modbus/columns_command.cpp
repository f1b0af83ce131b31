#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkInterface>
#include <QTextStream>

#include "host/zelt_interface.h"
#include "tools/standin/standin_host.h"
#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/plugin_loader.h"

namespace zelt_cli {

namespace {

// zelt-modbus reads the names of these two choice lists (config.cpp); the host itself stores only the codes.
const QString kChoiceNote = QStringLiteral(
    "A configuration file takes the stored code or the choice text of \"type\" and \"register_type\", e.g. "
    "\"type\": \"5\" or \"FLOAT\".");

QJsonArray columnsToJson(const QList<DatabaseColumnStructure>& columns) {
    QJsonArray array;
    for (const DatabaseColumnStructure& column : columns) {
        QJsonArray choices;
        for (const auto& choice : column.selectionValues)
            choices.append(QJsonObject{{QStringLiteral("label"), choice.label},
                                       {QStringLiteral("value"), choice.value}});
        array.append(QJsonObject{{QStringLiteral("name"), column.name},
                                 {QStringLiteral("type"), column.type},
                                 {QStringLiteral("size"), column.size},
                                 {QStringLiteral("default"), column.defaultValue},
                                 {QStringLiteral("description"), column.description},
                                 {QStringLiteral("choices"), choices}});
    }
    return array;
}

void printColumns(QTextStream& out, const QString& title, const QList<DatabaseColumnStructure>& columns,
                  const QString& note = QString()) {
    out << title << "\n";
    Table table({QStringLiteral("column"), QStringLiteral("type"), QStringLiteral("size"),
                 QStringLiteral("default"), QStringLiteral("choices")});
    for (const DatabaseColumnStructure& column : columns) {
        QStringList choices;
        for (const auto& choice : column.selectionValues)
            choices.append(choice.value.isEmpty() ? choice.label : choice.label + "=" + choice.value);
        table.addRow({column.name, QString::number(column.type), QString::number(column.size),
                      column.defaultValue.isEmpty() ? QStringLiteral("(empty)") : column.defaultValue,
                      choices.join(QStringLiteral(", "))});
    }
    table.print(out);
    for (const DatabaseColumnStructure& column : columns)
        if (!column.description.isEmpty()) out << "  " << column.name << ": " << column.description << "\n";
    if (!note.isEmpty()) out << "  " << note << "\n";
    out << "\n";
}

}  // namespace

int runColumns(const QStringList& arguments) {
    CommandLine command(QStringLiteral("columns"),
                        QStringLiteral("Prints the device and item columns the plugin declares."));
    command.addFlag(QStringLiteral("json"), QStringLiteral("print JSON instead of tables"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;

    QList<NetworkInterfaceInstance> interfaces;
    for (const QNetworkInterface& iface : QNetworkInterface::allInterfaces())
        interfaces.append({iface.name(), iface.humanReadableName()});
    zelt_standin::Host::instance().setNetworkInterfaces(interfaces);

    LoadedPlugin loaded;
    QString error;
    if (!loaded.load(command.pluginPath(), &error)) return fail(error);
    loaded.plugin()->init();
    const QList<zelt_standin::InitCall> calls = zelt_standin::Host::instance().initCalls();
    if (calls.isEmpty()) return fail(QStringLiteral("the plugin did not register with the host"));
    const zelt_standin::InitCall& call = calls.last();

    QTextStream out(stdout);
    if (command.flag(QStringLiteral("json"))) {
        QJsonObject object{{QStringLiteral("name"), call.name},
                           {QStringLiteral("version"), static_cast<int>(call.version)},
                           {QStringLiteral("device_columns"), columnsToJson(call.deviceColumns)},
                           {QStringLiteral("item_columns"), columnsToJson(call.itemColumns)}};
        out << QJsonDocument(object).toJson(QJsonDocument::Indented);
        return 0;
    }
    out << "Plugin " << call.name << " (host contract version " << call.version << ")\n\n";
    printColumns(out, QStringLiteral("Device columns"), call.deviceColumns);
    printColumns(out, QStringLiteral("Item columns"), call.itemColumns, kChoiceNote);
    return 0;
}

}  // namespace zelt_cli
