#include "tools/zelt-modbus/plugin_loader.h"

#include <dlfcn.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPluginLoader>

#include "host/zelt_interface.h"

namespace zelt_cli {

QString defaultPluginPath() {
    const QString built = QStringLiteral(ZELT_PLUGIN_BUILD_PATH);
    const QString installed = QDir(QCoreApplication::applicationDirPath())
                                  .absoluteFilePath(QStringLiteral(ZELT_PLUGIN_RELATIVE_INSTALL_PATH));
    // An installed tool uses the plugin installed with it, even when the build tree still exists.
    if (QFileInfo::exists(installed)) return QFileInfo(installed).canonicalFilePath();
    return built;
}

LoadedPlugin::~LoadedPlugin() {
    // The instance belongs to the loader; unloading is left to process exit, as the host does.
    delete loader;
}

bool LoadedPlugin::load(const QString& path, QString* error) {
    if (!QFileInfo::exists(path)) {
        *error = QStringLiteral("plugin file %1 does not exist").arg(path);
        return false;
    }
    loader = new QPluginLoader(path);
    const QString iid = loader->metaData().value(QStringLiteral("IID")).toString();
    if (iid != QLatin1String(ZeltInterface_iid)) {
        *error = QStringLiteral("%1 is not a zelt plugin (IID \"%2\")").arg(path, iid);
        return false;
    }
    QObject* object = loader->instance();
    if (!object) {
        *error = QStringLiteral("cannot load %1: %2").arg(path, loader->errorString());
        return false;
    }
    instance = qobject_cast<ZeltInterface*>(object);
    if (!instance) {
        *error = QStringLiteral("%1 does not implement ZeltInterface").arg(path);
        return false;
    }
    return true;
}

void* resolveExport(const QString& pluginPath, const char* symbol) {
    // The plugin is already loaded by QPluginLoader; RTLD_NOLOAD finds that copy instead of loading another.
    void* handle = dlopen(QFile::encodeName(pluginPath).constData(), RTLD_NOW | RTLD_NOLOAD);
    if (!handle) handle = dlopen(QFile::encodeName(pluginPath).constData(), RTLD_NOW);
    return handle ? dlsym(handle, symbol) : nullptr;
}

}  // namespace zelt_cli
