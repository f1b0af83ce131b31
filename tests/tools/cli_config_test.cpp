// The configuration reader of zelt-modbus on its own: what it accepts, the message for each refusal and how
// the declared defaults fill what a file leaves out.

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "tools/zelt-modbus/config.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_cli::Config;
using zelt_cli::parseConfig;

TEST(CliConfig, ReadsDevicesItemsAndSettingsInFileOrder) {
    const QByteArray json = R"({"devices": [
        {"id": 1, "name": "meter", "address": "127.0.0.1", "settings": {"port": "1502", "server_id": "1"},
         "items": [{"uid": "t1", "name": "temperature",
                    "settings": {"register": "40001", "register_type": "4", "type": "5",
                                 "floating_point_precision": "2"}},
                   {"uid": "t2", "settings": {"register": "40003"}}]},
        {"id": 5, "address": "10.0.0.5"}]})";
    Config config;
    QString error;
    ASSERT_TRUE(parseConfig(json, QStringLiteral("meter.json"), &config, &error)) << error.toStdString();
    ASSERT_EQ(config.devices.size(), 2);
    const zelt_cli::DeviceConfig& meter = config.devices.at(0);
    EXPECT_EQ(meter.id, 1);
    EXPECT_EQ(meter.name, QStringLiteral("meter"));
    EXPECT_EQ(meter.address, QStringLiteral("127.0.0.1"));
    EXPECT_EQ(meter.settings, (QMap<QString, QString>{{"port", "1502"}, {"server_id", "1"}}));
    ASSERT_EQ(meter.items.size(), 2);
    EXPECT_EQ(meter.items.at(0).uid, QStringLiteral("t1"));
    EXPECT_EQ(meter.items.at(0).name, QStringLiteral("temperature"));
    EXPECT_EQ(meter.items.at(0).settings.value("floating_point_precision"), QStringLiteral("2"));
    EXPECT_EQ(meter.items.at(1).name, QStringLiteral("t2"));  // the uid stands in for a missing name
    EXPECT_EQ(config.devices.at(1).name, QStringLiteral("device 5"));
    EXPECT_TRUE(config.devices.at(1).items.isEmpty());
    EXPECT_EQ(config.device(5), &config.devices.at(1));
    EXPECT_EQ(config.device(2), nullptr);
}

struct BadRow {
    const char* name;
    const char* json;
    const char* message;
};

const BadRow kBadRows[] = {
    {"invalid JSON", "{\"devices\": [\n  {\"id\": 1,,}]}",
     "meter.json: invalid JSON at line 2, column 13: unterminated object"},
    {"empty file", "", "meter.json: invalid JSON at line 1, column 1: illegal value"},
    {"top level array", "[]", "meter.json: expected an object with \"devices\""},
    {"no devices", "{}", "meter.json: missing \"devices\""},
    {"devices not array", R"({"devices": {}})", "meter.json: devices: expected an array, not an object"},
    {"unknown top key", R"({"devices": [], "device": []})",
     "meter.json: unknown key \"device\" (expected one of devices)"},
    {"device not object", R"({"devices": [3]})", "meter.json: devices[0]: expected an object, not 3"},
    {"missing id", R"({"devices": [{"address": "127.0.0.1"}]})", "meter.json: devices[0]: missing \"id\""},
    {"id text", R"({"devices": [{"id": "1", "address": "127.0.0.1"}]})",
     "meter.json: devices[0].id: expected a whole number of at least 1, not \"1\""},
    {"id zero", R"({"devices": [{"id": 0, "address": "127.0.0.1"}]})",
     "meter.json: devices[0].id: expected a whole number of at least 1, not 0"},
    {"id fraction", R"({"devices": [{"id": 1.5, "address": "127.0.0.1"}]})",
     "meter.json: devices[0].id: expected a whole number of at least 1, not 1.5"},
    {"duplicate id", R"({"devices": [{"id": 1, "address": "a"}, {"id": 1, "address": "b"}]})",
     "meter.json: devices[1]: duplicate id 1"},
    {"missing address", R"({"devices": [{"id": 1}]})", "meter.json: devices[0]: missing \"address\""},
    {"empty address", R"({"devices": [{"id": 1, "address": " "}]})",
     "meter.json: devices[0].address: expected a non-empty text, not \" \""},
    {"unknown device key", R"({"devices": [{"id": 1, "address": "a", "setings": {}}]})",
     "meter.json: devices[0]: unknown key \"setings\" (expected one of id, name, address, settings, items)"},
    {"settings not object", R"({"devices": [{"id": 1, "address": "a", "settings": []}]})",
     "meter.json: devices[0].settings: expected an object, not an array"},
    {"setting number", R"({"devices": [{"id": 1, "address": "a", "settings": {"port": 1502}}]})",
     "meter.json: devices[0].settings.port: expected a text, not 1502"},
    {"items not array", R"({"devices": [{"id": 1, "address": "a", "items": {}}]})",
     "meter.json: devices[0].items: expected an array, not an object"},
    {"item missing uid", R"({"devices": [{"id": 1, "address": "a", "items": [{"name": "x"}]}]})",
     "meter.json: devices[0].items[0]: missing \"uid\""},
    {"duplicate uid", R"({"devices": [{"id": 1, "address": "a", "items": [{"uid": "t1"}, {"uid": "t1"}]}]})",
     "meter.json: devices[0].items[1]: duplicate uid \"t1\""},
    {"duplicate uid across devices",
     R"({"devices": [{"id": 1, "address": "a", "items": [{"uid": "t1"}]},
                     {"id": 2, "address": "b", "items": [{"uid": "t1"}]}]})",
     "meter.json: devices[1].items[0]: duplicate uid \"t1\""},
    {"item setting bool",
     R"({"devices": [{"id": 1, "address": "a", "items": [{"uid": "t1", "settings": {"type": true}}]}]})",
     "meter.json: devices[0].items[0].settings.type: expected a text, not true"},
    {"item setting null",
     R"({"devices": [{"id": 1, "address": "a", "items": [{"uid": "t1", "settings": {"register": null}}]}]})",
     "meter.json: devices[0].items[0].settings.register: expected a text, not null"},
    {"unknown item key", R"({"devices": [{"id": 1, "address": "a", "items": [{"uid": "t1", "type": "5"}]}]})",
     "meter.json: devices[0].items[0]: unknown key \"type\" (expected one of uid, name, settings)"},
};

TEST(CliConfig, RefusesBadConfigurationsNamingTheFileAndThePlace) {
    for (const BadRow& row : kBadRows) {
        SCOPED_TRACE(row.name);
        Config config;
        QString error;
        EXPECT_FALSE(parseConfig(QByteArray(row.json), QStringLiteral("meter.json"), &config, &error));
        EXPECT_EQ(error, QString::fromUtf8(row.message));
    }
}

TEST(CliConfig, AnUnreadableFileIsRefused) {
    Config config;
    QString error;
    EXPECT_FALSE(zelt_cli::readConfigFile(QStringLiteral("/nonexistent/meter.json"), &config, &error));
    EXPECT_EQ(error, QStringLiteral("/nonexistent/meter.json: cannot read: No such file or directory"));
}

TEST(CliConfig, ReadsAFileFromDisk) {
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("one.json"));
    ASSERT_TRUE(zelt_modbus_test::writeFile(path, R"({"devices": [{"id": 2, "address": "10.0.0.2"}]})"));
    Config config;
    QString error;
    ASSERT_TRUE(zelt_cli::readConfigFile(path, &config, &error)) << error.toStdString();
    ASSERT_EQ(config.devices.size(), 1);
    EXPECT_EQ(config.devices.first().address, QStringLiteral("10.0.0.2"));
}

TEST(CliConfig, DefaultsFillOnlyWhatTheFileLeavesOut) {
    Config config;
    QString error;
    ASSERT_TRUE(parseConfig(R"({"devices": [{"id": 1, "address": "a", "settings": {"port": "1502"},
        "items": [{"uid": "t1", "settings": {"type": "5", "floating_point_precision": ""}}]}]})",
                            QStringLiteral("m.json"), &config, &error));
    QList<DatabaseColumnStructure> deviceColumns{{"port", 0, 0, "502", ""}, {"server_id", 0, 0, "1", ""}};
    QList<DatabaseColumnStructure> itemColumns{
        {"register", 2, 0, "", ""}, {"type", 0, 2, "", ""}, {"floating_point_precision", 0, 4, "4", ""}};
    zelt_cli::applyDefaults(&config, zelt_cli::columnDefaults(deviceColumns),
                            zelt_cli::columnDefaults(itemColumns));
    EXPECT_EQ(config.devices.first().settings,
              (QMap<QString, QString>{{"port", "1502"}, {"server_id", "1"}}));
    // A setting given as empty text stays empty, as the host would store it.
    EXPECT_EQ(config.devices.first().items.first().settings,
              (QMap<QString, QString>{{"register", ""}, {"type", "5"}, {"floating_point_precision", ""}}));
}

TEST(CliConfig, RecordsCarryWhatTheHostStores) {
    zelt_cli::DeviceConfig device;
    device.id = 4;
    device.name = QStringLiteral("meter");
    device.address = QStringLiteral("10.0.0.4");
    device.settings.insert(QStringLiteral("port"), QStringLiteral("502"));
    const DeviceInstancePlugin record = zelt_cli::toDeviceRecord(device);
    EXPECT_EQ(record.id, 4);
    EXPECT_EQ(record.name, QStringLiteral("meter"));
    EXPECT_EQ(record.address, QStringLiteral("10.0.0.4"));
    EXPECT_EQ(record.settings, device.settings);
    EXPECT_EQ(record.lastError, QString());

    zelt_cli::ItemConfig item;
    item.uid = QStringLiteral("t1");
    item.name = QStringLiteral("temperature");
    item.settings.insert(QStringLiteral("register"), QStringLiteral("40001"));
    const ItemInstancePlugin itemRecord = zelt_cli::toItemRecord(item, 4);
    EXPECT_EQ(itemRecord.uid, QStringLiteral("t1"));
    EXPECT_EQ(itemRecord.name, QStringLiteral("temperature"));
    EXPECT_EQ(itemRecord.deviceId, 4);
    EXPECT_TRUE(itemRecord.enabled);
    EXPECT_EQ(itemRecord.settings, item.settings);
}

}  // namespace
