#pragma once
// Loads the plugin file the way the host does and initialises it against the stand-in host.

#include <QString>

class QPluginLoader;
class ZeltInterface;

namespace zelt_cli {

// The plugin built beside this tool, or the one installed beside it.
QString defaultPluginPath();

class LoadedPlugin {
public:
    LoadedPlugin() = default;
    ~LoadedPlugin();
    LoadedPlugin(const LoadedPlugin&) = delete;
    LoadedPlugin& operator=(const LoadedPlugin&) = delete;

    // False with a reason when the file is not a loadable plugin of this host.
    bool load(const QString& path, QString* error);
    ZeltInterface* plugin() const { return instance; }

private:
    QPluginLoader* loader = nullptr;
    ZeltInterface* instance = nullptr;
};

// Resolves a function exported by the loaded plugin file; null when it is missing.
void* resolveExport(const QString& pluginPath, const char* symbol);

}  // namespace zelt_cli
