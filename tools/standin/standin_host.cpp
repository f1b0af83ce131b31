#include "tools/standin/standin_host.h"

namespace zelt_standin {

Host& Host::instance() {
    static Host host;
    return host;
}

void Host::reset() {
    std::lock_guard<std::mutex> lock(mutex);
    deviceList.clear();
    settings.clear();
    interfaces.clear();
    knownItems.clear();
    createdItems.clear();
    inits.clear();
    logs.clear();
    reloads = 0;
}

void Host::setDevices(const QList<DeviceInstancePlugin>& devices) {
    std::lock_guard<std::mutex> lock(mutex);
    deviceList = devices;
}

void Host::addDevice(const DeviceInstancePlugin& device) {
    std::lock_guard<std::mutex> lock(mutex);
    deviceList.append(device);
}

QList<DeviceInstancePlugin> Host::devices() const {
    std::lock_guard<std::mutex> lock(mutex);
    return deviceList;
}

void Host::setSetting(const QString& key, const QString& value) {
    std::lock_guard<std::mutex> lock(mutex);
    settings.insert(key, value);
}

QString Host::setting(const QString& key) const {
    std::lock_guard<std::mutex> lock(mutex);
    return settings.value(key);
}

void Host::setNetworkInterfaces(const QList<NetworkInterfaceInstance>& list) {
    std::lock_guard<std::mutex> lock(mutex);
    interfaces = list;
}

QList<NetworkInterfaceInstance> Host::networkInterfaces() const {
    std::lock_guard<std::mutex> lock(mutex);
    return interfaces;
}

void Host::addKnownItem(const ItemInstancePlugin& item) {
    std::lock_guard<std::mutex> lock(mutex);
    knownItems.append(item);
}

QList<ItemInstancePlugin> Host::items() const {
    std::lock_guard<std::mutex> lock(mutex);
    return knownItems;
}

QList<ItemInstancePlugin> Host::addedItems() const {
    std::lock_guard<std::mutex> lock(mutex);
    return createdItems;
}

bool Host::findItem(const QString& uid, ItemInstancePlugin* out) const {
    std::lock_guard<std::mutex> lock(mutex);
    for (const ItemInstancePlugin& item : knownItems) {
        if (item.uid == uid) {
            if (out) *out = item;
            return true;
        }
    }
    return false;
}

int Host::reloadCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return reloads;
}

QList<InitCall> Host::initCalls() const {
    std::lock_guard<std::mutex> lock(mutex);
    return inits;
}

QList<LogLine> Host::logLines() const {
    std::lock_guard<std::mutex> lock(mutex);
    return logs;
}

QStringList Host::logTexts(LogLevel level) const {
    std::lock_guard<std::mutex> lock(mutex);
    QStringList texts;
    for (const LogLine& line : logs)
        if (line.level == level) texts.append(line.text);
    return texts;
}

bool Host::hasLog(LogLevel level, const QString& text) const {
    return countLog(level, text) > 0;
}

int Host::countLog(LogLevel level, const QString& text) const {
    std::lock_guard<std::mutex> lock(mutex);
    int count = 0;
    for (const LogLine& line : logs)
        if (line.level == level && line.text == text) ++count;
    return count;
}

void Host::clearLogs() {
    std::lock_guard<std::mutex> lock(mutex);
    logs.clear();
}

void Host::setLogSink(std::function<void(LogLevel, const QString&)> sink) {
    std::lock_guard<std::mutex> lock(mutex);
    logSink = std::move(sink);
}

void Host::recordInit(InitCall call) {
    std::lock_guard<std::mutex> lock(mutex);
    inits.append(std::move(call));
}

void Host::recordLog(LogLevel level, const QString& text) {
    std::function<void(LogLevel, const QString&)> sink;
    {
        std::lock_guard<std::mutex> lock(mutex);
        logs.append({level, text});
        sink = logSink;
    }
    if (sink) sink(level, text);
}

void Host::recordAddedItem(const ItemInstancePlugin& item) {
    std::lock_guard<std::mutex> lock(mutex);
    knownItems.append(item);
    createdItems.append(item);
}

void Host::recordReload() {
    std::lock_guard<std::mutex> lock(mutex);
    ++reloads;
}

QString levelName(LogLevel level) {
    switch (level) {
        case LogLevel::Debug:
            return QStringLiteral("debug");
        case LogLevel::Info:
            return QStringLiteral("info");
        case LogLevel::Warning:
            return QStringLiteral("warning");
        case LogLevel::Error:
            return QStringLiteral("error");
    }
    return QString();
}

}  // namespace zelt_standin
