// The stand-in host's side of the host contract: every service forwards to the one in-process Host.
#include "host/plugin_interface.h"

#include "tools/standin/standin_host.h"

using zelt_standin::Host;
using zelt_standin::LogLevel;

DatabaseColumnStructure::DatabaseColumnStructure(QString columnName, DataType columnType, int columnSize,
                                                 QString columnDefault, QString columnDescription)
    : name(std::move(columnName)),
      defaultValue(std::move(columnDefault)),
      description(std::move(columnDescription)),
      type(columnType),
      size(columnSize) {}

void DatabaseColumnStructure::insertSelectionValues(QString label, QString value) {
    selectionValues.append({std::move(label), std::move(value)});
}

PluginInitOptions::PluginInitOptions()
    : valueA(24),
      flagA(false),
      flagB(false),
      flagC(true),
      valueB(180),
      flagD(false),
      flagE(false),
      flagF(false),
      flagG(false),
      actionName(QStringLiteral("discover")) {}

PluginInterface::PluginInterface() = default;
PluginInterface::~PluginInterface() = default;

void PluginInterface::initPlugin(QString name, unsigned int version,
                                 QList<DatabaseColumnStructure> pluginColumns,
                                 QList<DatabaseColumnStructure> itemColumns,
                                 QList<DatabaseColumnStructure> deviceColumns,
                                 QList<DatabaseColumnStructure> fourthColumns,
                                 PluginInitOptions const& options) {
    zelt_standin::InitCall call;
    call.name = std::move(name);
    call.version = version;
    call.pluginColumns = std::move(pluginColumns);
    call.itemColumns = std::move(itemColumns);
    call.deviceColumns = std::move(deviceColumns);
    call.fourthColumns = std::move(fourthColumns);
    call.options = options;
    Host::instance().recordInit(std::move(call));
}

QString PluginInterface::getSetting(QString key) {
    return Host::instance().setting(key);
}

void PluginInterface::logInfo(QString message) {
    Host::instance().recordLog(LogLevel::Info, message);
}
void PluginInterface::logWarning(QString message) {
    Host::instance().recordLog(LogLevel::Warning, message);
}
void PluginInterface::logError(QString message) {
    Host::instance().recordLog(LogLevel::Error, message);
}
void PluginInterface::logDebug(QString message) {
    Host::instance().recordLog(LogLevel::Debug, message);
}

void PluginInterface::addPluginItem(ItemInstancePlugin* item) {
    if (item) Host::instance().recordAddedItem(*item);
}

bool PluginInterface::getPluginItem(QString uid, ItemInstancePlugin* out) {
    return Host::instance().findItem(uid, out);
}

void PluginInterface::reloadPlugins() {
    Host::instance().recordReload();
}

QList<DeviceInstancePlugin> PluginInterface::getPluginDevices() {
    return Host::instance().devices();
}

QList<NetworkInterfaceInstance> PluginInterface::getNetworkInterfaces() {
    return Host::instance().networkInterfaces();
}
