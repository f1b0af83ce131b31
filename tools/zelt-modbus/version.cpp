#include "tools/zelt-modbus/version.h"

#include <modbus.h>

#include "host/zelt_interface.h"

namespace zelt_cli {

namespace {

// The tool and the plugin are built from one project and packaged at one version (the tools package depends
// on the plugin package at exactly its own version).
constexpr const char* kProjectVersion = ZELT_PROJECT_VERSION;
constexpr const char* kPluginName = ZELT_PLUGIN_NAME;

// The contract is the version at the end of the interface id the host and the plugin agree on.
QString hostContractVersion() {
    const QString iid = QStringLiteral(ZeltInterface_iid);
    return iid.mid(iid.lastIndexOf(QLatin1Char('/')) + 1);
}

// The library the process runs with, which may be newer than the headers the tool was built against.
QString libmodbusVersion() {
    return QStringLiteral("%1.%2.%3")
        .arg(libmodbus_version_major)
        .arg(libmodbus_version_minor)
        .arg(libmodbus_version_micro);
}

}  // namespace

QString versionText() {
    return QStringLiteral("zelt-modbus %1\nplugin %2 %1\nhost contract %3\nlibmodbus %4\n")
        .arg(QLatin1String(kProjectVersion), QLatin1String(kPluginName), hostContractVersion(),
             libmodbusVersion());
}

}  // namespace zelt_cli
