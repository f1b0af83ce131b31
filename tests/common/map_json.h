#pragma once
// What zelt-modbus map prints and writes, as the tests that hold one transport's run against another's
// compare it.

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QMap>
#include <QString>

#include "tools/zelt-modbus/config.h"

namespace test_support {

inline QJsonObject jsonOf(const QString& text) {
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

// A map --json result without what differs between two runs of the same map: the port and the timings.
inline QJsonObject comparableMap(QJsonObject json) {
    json.remove(QStringLiteral("port"));
    json.remove(QStringLiteral("elapsed_ms"));
    QJsonArray tables;
    for (const QJsonValue& value : json.value(QStringLiteral("tables")).toArray()) {
        QJsonObject table = value.toObject();
        table.remove(QStringLiteral("elapsed_ms"));
        tables.append(table);
    }
    json.insert(QStringLiteral("tables"), tables);
    return json;
}

// The configuration map wrote to `path` holds `devices` devices, every one with exactly `settings`.
inline void expectMapConfig(const QString& path, int devices, const QMap<QString, QString>& settings) {
    zelt_cli::Config config;
    QString error;
    ASSERT_TRUE(zelt_cli::readConfigFile(path, &config, &error)) << error.toStdString();
    ASSERT_EQ(config.devices.size(), devices);
    for (const zelt_cli::DeviceConfig& device : config.devices)
        EXPECT_EQ(device.settings, settings) << device.name.toStdString();
}

}  // namespace test_support
