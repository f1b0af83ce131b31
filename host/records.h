#pragma once
// Records that cross the boundary between the host (libzelt) and its plugins. The host library is closed;
// these declarations carry the fields the plugin relies on, in the host's order.

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>
#include <QVariant>

class DatabaseColumnStructure {
public:
    // The host's column type enumeration; this plugin uses its codes 0, 2 and 8 as plain numbers.
    using DataType = int;

    struct SelectionValue {
        QString label;
        QString value;
    };

    DatabaseColumnStructure(QString name, DataType type, int size, QString defaultValue, QString description);

    void insertSelectionValues(QString label, QString value);

    QList<SelectionValue> selectionValues;
    QString name;
    QString defaultValue;
    QString description;
    DataType type;
    int size;
};

struct PluginInitOptions {
    PluginInitOptions();

    int valueA;
    bool flagA;
    bool flagB;
    bool flagC;
    int valueB;
    bool flagD;
    bool flagE;
    bool flagF;
    bool flagG;
    QString actionName;
    QMap<QString, QVariant> actionOptions;
};

struct NetworkInterfaceInstance {
    QString name;
    QString description;
};

struct Mapping {
    QString source;
    QString target;
    QMap<QString, QString> settings;
};

struct DeviceTemplate {
    QString name;
    QMap<QString, QString> settings;
};

struct DeviceInstancePlugin {
    int id = 0;
    QString name;
    QString address;
    QString lastError;
    QMap<QString, QString> settings;
    QString description;
    QString pluginName;
    QList<Mapping> mappings;
    QList<DeviceTemplate> templates;
};

struct ItemInstancePlugin {
    QString uid;
    QString name;
    QString description;
    bool enabled = false;
    int deviceId = 0;
    int itemClass = 0;
    qint64 readInterval = 0;
    bool historyOnly = false;
    QMap<QString, QString> settings;
    QList<Mapping> mappings;
    QString lastError;

    void setLastError(QString error) { lastError = std::move(error); }
};

// One item of a read or write batch. The item's error text is the wrapped item's lastError.
struct DataItem {
    DataItem() = default;
    explicit DataItem(ItemInstancePlugin instance) : item(std::move(instance)) {}

    ItemInstancePlugin item;
    QMap<QString, QString> values;  // the item's value text is stored under "value"
    QDateTime timestamp;
};

struct PluginInstancePlugin {
    int id = 0;
    QString name;
    QMap<QString, QString> settings;
};

struct LogList {
    DeviceInstancePlugin device;
    PluginInstancePlugin plugin;
    QList<DataItem*> dataItems;  // owned by the host
};
