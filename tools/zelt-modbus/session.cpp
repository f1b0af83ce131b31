#include "tools/zelt-modbus/session.h"

#include <QTextStream>

#include "host/zelt_interface.h"
#include "tools/standin/standin_host.h"

namespace zelt_cli {

namespace {

using zelt_standin::Host;
using zelt_standin::LogLevel;

const QString kValueKey = QStringLiteral("value");
const QString kRegisterKey = QStringLiteral("register");
const QString kTypeKey = QStringLiteral("type");
const QString kDiagnosticPrefix = QStringLiteral("__diagnostics.");
// The names the plugin writes into diagnostic items, in the order the README lists them.
const char* const kDiagnosticNames[] = {
    "requests", "failed_requests",  "timeouts",    "exceptions",      "retries",
    "connects", "connect_failures", "response_ms", "response_ms_avg", "response_ms_max",
    "poll_ms",  "connected",        "backoff_s",   "last_error",      "last_ok"};

// Frees every data item of a batch, also those the plugin appended, as the host does after each call.
class Batch {
public:
    explicit Batch(const DeviceConfig& device) { list.device = toDeviceRecord(device); }
    ~Batch() {
        qDeleteAll(list.dataItems);
        list.dataItems.clear();
    }
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    LogList list;
};

}  // namespace

PluginSession::~PluginSession() {
    stop();
}

bool PluginSession::start(const QString& pluginPath, const Config& config, QString* error) {
    Host& host = Host::instance();
    QList<DeviceInstancePlugin> devices;
    for (const DeviceConfig& device : config.devices) devices.append(toDeviceRecord(device));
    host.setDevices(devices);
    for (const DeviceConfig& device : config.devices)
        for (const ItemConfig& item : device.items) host.addKnownItem(toItemRecord(item, device.id));

    if (!loaded.load(pluginPath, error)) return false;
    loaded.plugin()->init();
    started = true;
    const QList<zelt_standin::InitCall> calls = host.initCalls();
    if (calls.isEmpty()) {
        *error = QStringLiteral("the plugin did not register with the host");
        return false;
    }
    const zelt_standin::InitCall& call = calls.last();
    for (const DatabaseColumnStructure& column : call.itemColumns)
        if (column.name == kTypeKey)
            for (const auto& choice : column.selectionValues) typeLabels.insert(choice.value, choice.label);

    // The host stores a new device or item with every declared default; the plugin reads them back later.
    configuration = config;
    applyDefaults(&configuration, columnDefaults(call.deviceColumns), columnDefaults(call.itemColumns));
    devices.clear();
    for (const DeviceConfig& device : configuration.devices) devices.append(toDeviceRecord(device));
    host.setDevices(devices);
    for (const DeviceConfig& device : configuration.devices) {
        QVector<ItemLabels>& labels = configuredLabels[device.id];
        labels.clear();
        for (const ItemConfig& item : device.items)
            labels.append({item.settings.value(kRegisterKey), typeLabel(item.settings.value(kTypeKey))});
        if (!diagnosticItems) continue;
        QVector<ItemInstancePlugin>& hidden = hiddenItems[device.id];
        hidden.clear();
        for (const char* name : kDiagnosticNames) {
            const QString diagnostic = QString::fromLatin1(name);
            ItemConfig item;
            // Never printed; a poll's data items need no uid of their own.
            item.uid = QStringLiteral("__stats_%1_%2").arg(device.id).arg(diagnostic);
            item.name = diagnostic;
            item.settings.insert(kRegisterKey, kDiagnosticPrefix + diagnostic);
            hidden.append(toItemRecord(item, device.id));
        }
    }
    return true;
}

void PluginSession::setVerbose(bool verbose) {
    Host::instance().setLogSink([verbose](LogLevel level, const QString& text) {
        if (!verbose && (level == LogLevel::Debug || level == LogLevel::Info)) return;
        QTextStream(stderr) << "[" << zelt_standin::levelName(level) << "] " << text << "\n";
    });
}

BatchResult PluginSession::poll(const DeviceConfig& device) {
    const DeviceConfig* configured = configuration.device(device.id);
    const DeviceConfig& source = configured ? *configured : device;
    Batch batch(source);
    for (const ItemConfig& item : source.items)
        batch.list.dataItems.append(new DataItem(toItemRecord(item, source.id)));
    // As after the host's reload: every identity item the plugin created for this device is polled too.
    for (const ItemInstancePlugin& item : Host::instance().addedItems())
        if (item.deviceId == source.id) batch.list.dataItems.append(new DataItem(item));
    // The unseen items go last: the plugin appends its own after them, and the printed items keep their
    // order.
    const QVector<ItemInstancePlugin> hidden =
        configured ? hiddenItems.value(source.id) : QVector<ItemInstancePlugin>();
    const int hiddenStart = batch.list.dataItems.size();
    for (const ItemInstancePlugin& item : hidden) batch.list.dataItems.append(new DataItem(item));
    const int hiddenEnd = batch.list.dataItems.size();

    BatchResult result;
    result.ok = loaded.plugin()->readData(&batch.list);
    const QDateTime received = QDateTime::currentDateTimeUtc();
    result.deviceId = source.id;
    result.deviceName = source.name;
    result.deviceAddress = source.address;
    result.error = batch.list.device.lastError;
    const QVector<ItemLabels> labels = configured ? configuredLabels.value(source.id) : QVector<ItemLabels>();
    result.items.reserve(batch.list.dataItems.size());
    for (int i = 0; i < batch.list.dataItems.size(); ++i) {
        const DataItem* dataItem = batch.list.dataItems.at(i);
        if (!dataItem) continue;
        if (i >= hiddenStart && i < hiddenEnd) {
            if (dataItem->item.lastError.isEmpty() && dataItem->values.contains(kValueKey))
                result.diagnostics.insert(dataItem->item.name, dataItem->values.value(kValueKey));
            continue;
        }
        // The configured items come first, in their order; the plugin may have appended others. A configured
        // item still holds the very settings map its labels were read from.
        const bool configuredItem = i < labels.size() && i < source.items.size() &&
                                    dataItem->item.settings.isSharedWith(source.items.at(i).settings);
        result.items.append(itemResult(*dataItem, received, configuredItem ? &labels.at(i) : nullptr));
    }
    // The stand-in host keeps every log line; a poll that runs for days must not grow without bound.
    Host::instance().clearLogs();
    return result;
}

BatchResult PluginSession::write(const DeviceConfig& device, const ItemConfig& item, const QString& value) {
    const DeviceConfig* configured = configuration.device(device.id);
    const DeviceConfig& source = configured ? *configured : device;
    ItemConfig filled = item;
    for (const ItemConfig& candidate : source.items)
        if (candidate.uid == item.uid) filled = candidate;

    Batch batch(source);
    auto* dataItem = new DataItem(toItemRecord(filled, source.id));
    dataItem->values.insert(kValueKey, value);
    batch.list.dataItems.append(dataItem);

    Host& host = Host::instance();
    host.clearLogs();
    BatchResult result;
    result.ok = loaded.plugin()->writeData(&batch.list);
    const QDateTime received = QDateTime::currentDateTimeUtc();
    result.deviceId = source.id;
    result.deviceName = source.name;
    result.deviceAddress = source.address;
    result.error = batch.list.device.lastError;
    for (const DataItem* written : batch.list.dataItems) {
        if (!written) continue;
        ItemResult itemResult = PluginSession::itemResult(*written, received, nullptr);
        itemResult.value = value;
        result.items.append(itemResult);
    }

    // A request the server refused leaves the item's error empty; the plugin reports it only in its log. The
    // user still has to learn that the value did not arrive, so the connection's own text stands in for it.
    const QString failedPrefix = QStringLiteral("Failed to write %1. ").arg(filled.name);
    bool failed = false;
    QString connectionError;
    for (const zelt_standin::LogLine& line : host.logLines()) {
        if (line.level == LogLevel::Debug && line.text.startsWith(failedPrefix)) failed = true;
        if (line.level == LogLevel::Error) connectionError = line.text;
    }
    if (failed && !result.items.isEmpty() && result.items.first().error.isEmpty())
        result.items.first().error =
            connectionError.isEmpty() ? QStringLiteral("Write failed") : connectionError;
    host.clearLogs();
    return result;
}

void PluginSession::stop() {
    if (!started) return;
    started = false;
    loaded.plugin()->stopPlugin();
    Host::instance().setLogSink(nullptr);
}

QString PluginSession::typeLabel(const QString& code) const {
    return typeLabels.value(code, code);
}

ItemResult PluginSession::itemResult(const DataItem& dataItem, const QDateTime& received,
                                     const ItemLabels* labels) const {
    ItemResult result;
    result.uid = dataItem.item.uid;
    result.name = dataItem.item.name;
    result.address = labels ? labels->address : dataItem.item.settings.value(kRegisterKey);
    result.type = labels ? labels->type : typeLabel(dataItem.item.settings.value(kTypeKey));
    const auto value = dataItem.values.constFind(kValueKey);
    result.valued = value != dataItem.values.constEnd();
    if (result.valued) result.value = value.value();
    result.error = dataItem.item.lastError;
    // Values read from registers carry no time of their own; the host stamps them when the batch returns.
    result.timestamp = dataItem.timestamp.isValid() ? dataItem.timestamp.toUTC() : received;
    return result;
}

}  // namespace zelt_cli
