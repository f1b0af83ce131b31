#include <gtest/gtest.h>

#include "plugin/modbus.h"
#include "tools/standin/standin_host.h"

using zelt_standin::Host;
using zelt_standin::LogLevel;

namespace {

struct ColumnRow {
    const char* name;
    int type;
    int size;
    const char* defaultValue;
    const char* description;
    QList<QPair<QString, QString>> choices;
};

const QList<QPair<QString, QString>> kDiscoveryMarking = {{"__zelt_discovery_editable", "1"},
                                                          {"__zelt_discovery_parameter_only", "1"}};
const QList<QPair<QString, QString>> kEndianness = {{"Big endian", "0"}, {"Little endian (swapped)", "1"}};
const QList<QPair<QString, QString>> kByteOrder = {{"First byte high", "0"},
                                                   {"First byte low (swapped)", "1"}};

void expectColumns(const QList<DatabaseColumnStructure>& actual, const std::vector<ColumnRow>& expected) {
    ASSERT_EQ(actual.size(), static_cast<int>(expected.size()));
    for (size_t i = 0; i < expected.size(); ++i) {
        const ColumnRow& row = expected[i];
        const DatabaseColumnStructure& column = actual.at(static_cast<int>(i));
        SCOPED_TRACE(row.name);
        EXPECT_EQ(column.name, QString::fromLatin1(row.name));
        EXPECT_EQ(column.type, row.type);
        EXPECT_EQ(column.size, row.size);
        EXPECT_EQ(column.defaultValue, QString::fromLatin1(row.defaultValue));
        EXPECT_EQ(column.description, QString::fromLatin1(row.description));
        ASSERT_EQ(column.selectionValues.size(), row.choices.size());
        for (int c = 0; c < row.choices.size(); ++c) {
            EXPECT_EQ(column.selectionValues.at(c).label, row.choices.at(c).first);
            EXPECT_EQ(column.selectionValues.at(c).value, row.choices.at(c).second);
        }
    }
}

std::vector<ColumnRow> expectedDeviceColumns(const QList<QPair<QString, QString>>& interfaceChoices) {
    return {
        {"port", 0, 0, "502", "", {}},
        {"server_id", 0, 0, "1", "", {}},
        {"persistent_connection",
         0,
         3,
         "1",
         "Keep the connection alive between polling of data. Set to no if you want it to reconnect between "
         "each "
         "poll.",
         {{"No", "0"}, {"Yes", "1"}}},
        {"max_read_registers", 0, 0, "123", "Max. registers to read in each call", {}},
        {"write_preset",
         0,
         3,
         "1",
         "Use single or multiple register presets when writing data. Single presets uses function code 0x05 "
         "and "
         "0x06. Multiple presets uses function code 0x15 and 0x16",
         {{"Single register", "0"}, {"Multiple registers", "1"}}},
        {"endianness", 0, 3, "0", "Big: [A B] [C D] Little: [C D] [A B]", kEndianness},
        {"byte_order", 0, 3, "0", "High: [A B] [C D] Low: [B A] [D C]", kByteOrder},
        {"string_endianness", 0, 3, "0", "Big: [A B] [C D] Little: [C D] [A B]", kEndianness},
        {"string_byte_order", 0, 3, "0", "High: [A B] [C D] Low: [B A] [D C]", kByteOrder},
        {"timeout_ms", 0, 0, "60000",
         "Overall discovery window in milliseconds for the TCP subnet probe. Default 60000 is 60 seconds. "
         "One TCP "
         "session per device: disable an instance before scanning that slave.",
         kDiscoveryMarking},
        {"network_interface", 8, 64, "eth0",
         "Ethernet interface used for Modbus TCP subnet discovery. Default is eth0. Choose All IPv4 "
         "interfaces to "
         "scan every NIC.",
         interfaceChoices + kDiscoveryMarking},
        {"tcp_ports", 8, 64, "502",
         "TCP ports to probe on the selected subnet. Default 502. Use commas and ranges, for example "
         "502,1502 or "
         "502-510. A very wide range is truncated (max 64 ports).",
         kDiscoveryMarking},
        {"server_ids", 8, 64, "1",
         "Modbus unit IDs to probe on each TCP host (0-255). Default 1. Use commas and ranges, for example "
         "1,255 or "
         "1-10. Discovery also tries 255 if 1 does not answer. TCP-to-RTU gateways need a range covering "
         "each slave.",
         kDiscoveryMarking},
        {"response_timeout_ms", 0, 0, "500", "Time to wait for a device's answer, in milliseconds.", {}},
        {"connect_timeout_ms",
         0,
         0,
         "500",
         "Time to wait for a TCP connection to the device, in milliseconds.",
         {}},
        {"request_pause_ms",
         0,
         0,
         "0",
         "Pause before each request after an answer or a new connection, in milliseconds. For devices and "
         "gateways that drop requests sent too soon.",
         {}},
        {"retries",
         0,
         0,
         "0",
         "How often a request that timed out or was answered busy (exception 5 or 6) is sent again before "
         "its "
         "items fail.",
         {}},
        {"share_connection",
         0,
         3,
         "1",
         "Devices with the same address and port (units behind one gateway) share one connection, one "
         "request "
         "at a time.",
         {{"No", "0"}, {"Yes", "1"}}},
        {"backoff_max_ms",
         0,
         0,
         "10000",
         "Longest pause before a device that cannot be reached or stops answering is polled again. 0 tries "
         "on "
         "every poll.",
         {}},
        {"read_gaps",
         0,
         3,
         "1",
         "Read the registers between items along with them, so that fewer requests are needed. Set to no for "
         "devices that refuse or react to reads of registers nobody asked for.",
         {{"No", "0"}, {"Yes", "1"}}},
        {"max_outstanding_requests",
         0,
         0,
         "1",
         "Requests sent before waiting for their answers. Only for devices that allow several requests in "
         "flight; 1 sends one at a time.",
         {}},
        {"mask_write",
         0,
         3,
         "0",
         "Write a bit of a holding register with function 22 (mask write), so that the device changes that "
         "bit alone and no other bit is written back stale. A device that refuses function 22 is written by "
         "reading and writing the register, as with No.",
         {{"No", "0"}, {"Yes", "1"}}},
        {"transport",
         0,
         3,
         "0",
         "How requests travel on the TCP connection: Modbus TCP (MBAP header), or RTU frames with CRC for "
         "serial "
         "devices behind a transparent serial-to-Ethernet converter.",
         {{"Modbus TCP", "0"}, {"RTU over TCP", "1"}, {"Modbus/TCP Security (TLS)", "2"}}},
        {"tls_ca_certificates",
         2,
         0,
         "",
         "Certificate authorities that may sign the device's certificate: a PEM file on the gateway, or the "
         "PEM "
         "text itself.",
         {}},
        {"tls_certificate",
         2,
         0,
         "",
         "This gateway's certificate (carrying its Modbus role), shown to the device: a PEM file on the "
         "gateway, "
         "or the PEM text itself.",
         {}},
        {"tls_private_key",
         2,
         0,
         "",
         "The private key of that certificate: a PEM file on the gateway, or the PEM text itself. Never "
         "logged or "
         "shown.",
         {}},
        {"tls_server_name",
         2,
         0,
         "",
         "The name or IP address the device's certificate must carry. Empty: only the certificate chain is "
         "checked.",
         {}},
    };
}

const std::vector<ColumnRow> kItemColumns = {
    {"register", 2, 0, "", "", {}},
    {"register_type",
     0,
     2,
     "4",
     "Auto calculate offset & register (e.g. 40001 converts to 0 @ holding register)",
     {{"Auto", "4"},
      {"Holding Register", "3"},
      {"Input Coil", "1"},
      {"Output Coil", "0"},
      {"Input Register", "2"}}},
    {"type",
     0,
     2,
     "",
     "",
     {{"BIT", "0"},
      {"INT16", "1"},
      {"UINT16", "2"},
      {"INT32", "3"},
      {"UINT32", "4"},
      {"INT64", "8"},
      {"UINT64", "9"},
      {"FLOAT", "5"},
      {"DOUBLE", "6"},
      {"STRING", "7"}}},
    {"floating_point_precision", 0, 4, "4", "", {}},
};

class InitTest : public ::testing::Test {
protected:
    void SetUp() override { Host::instance().reset(); }
    void TearDown() override { Host::instance().reset(); }
};

DeviceInstancePlugin device(int id) {
    DeviceInstancePlugin d;
    d.id = id;
    d.name = QStringLiteral("device %1").arg(id);
    d.address = QStringLiteral("127.0.0.1");
    return d;
}

}  // namespace

TEST_F(InitTest, RegistersNameVersionAndBothColumnTables) {
    Host::instance().setNetworkInterfaces({{"eth0", "Ethernet"}, {"", "unnamed"}, {"wlan0", "Wireless"}});
    Modbus plugin;
    EXPECT_TRUE(plugin.init());

    const QList<zelt_standin::InitCall> calls = Host::instance().initCalls();
    ASSERT_EQ(calls.size(), 1);
    const zelt_standin::InitCall& call = calls.first();
    EXPECT_EQ(call.name, QStringLiteral("modbus_tcp"));
    EXPECT_EQ(call.version, 31u);
    EXPECT_TRUE(call.pluginColumns.isEmpty());
    EXPECT_TRUE(call.fourthColumns.isEmpty());
    expectColumns(call.itemColumns, kItemColumns);
    // An interface without a name is skipped; the others follow "All IPv4 interfaces" in the host's order.
    expectColumns(call.deviceColumns,
                  expectedDeviceColumns({{"All IPv4 interfaces", ""}, {"eth0", "eth0"}, {"wlan0", "wlan0"}}));
}

TEST_F(InitTest, OptionsCarryTheHostFlagsAndTheDiscoverAction) {
    Modbus plugin;
    plugin.init();
    const PluginInitOptions options = Host::instance().initCalls().first().options;
    EXPECT_EQ(options.valueA, 24);
    EXPECT_FALSE(options.flagA);
    EXPECT_FALSE(options.flagB);
    EXPECT_TRUE(options.flagC);
    EXPECT_EQ(options.valueB, 180);
    EXPECT_TRUE(options.flagD);
    EXPECT_FALSE(options.flagE);
    EXPECT_FALSE(options.flagF);
    EXPECT_FALSE(options.flagG);
    EXPECT_EQ(options.actionName, QStringLiteral("discover"));
    EXPECT_TRUE(options.actionOptions.isEmpty());
}

TEST_F(InitTest, DefaultOptionsMatchTheHostConstructor) {
    const PluginInitOptions options;
    EXPECT_EQ(options.valueA, 24);
    EXPECT_FALSE(options.flagA);
    EXPECT_FALSE(options.flagB);
    EXPECT_TRUE(options.flagC);
    EXPECT_EQ(options.valueB, 180);
    EXPECT_FALSE(options.flagD);
    EXPECT_FALSE(options.flagE);
    EXPECT_FALSE(options.flagF);
    EXPECT_FALSE(options.flagG);
    EXPECT_EQ(options.actionName, QStringLiteral("discover"));
}

TEST_F(InitTest, HostWithoutInterfacesOffersAllInterfacesAndTheMarkingOnly) {
    Modbus plugin;
    plugin.init();
    const DatabaseColumnStructure column = Host::instance().initCalls().first().deviceColumns.at(10);
    ASSERT_EQ(column.name, QStringLiteral("network_interface"));
    ASSERT_EQ(column.selectionValues.size(), 3);
    EXPECT_EQ(column.selectionValues.at(0).label, QStringLiteral("All IPv4 interfaces"));
    EXPECT_EQ(column.selectionValues.at(0).value, QString());
    EXPECT_EQ(column.selectionValues.at(1).label, QStringLiteral("__zelt_discovery_editable"));
    EXPECT_EQ(column.selectionValues.at(2).label, QStringLiteral("__zelt_discovery_parameter_only"));
}

TEST_F(InitTest, TypeChoicesKeepTheirListOrderAndStoredCodes) {
    Modbus plugin;
    plugin.init();
    const DatabaseColumnStructure type = Host::instance().initCalls().first().itemColumns.at(2);
    QStringList labels;
    QStringList values;
    for (const auto& choice : type.selectionValues) {
        labels << choice.label;
        values << choice.value;
    }
    EXPECT_EQ(labels.join(','),
              QStringLiteral("BIT,INT16,UINT16,INT32,UINT32,INT64,UINT64,FLOAT,DOUBLE,STRING"));
    EXPECT_EQ(values.join(','), QStringLiteral("0,1,2,3,4,8,9,5,6,7"));
}

TEST_F(InitTest, LogsTheTwoDebugLinesAroundInit) {
    Modbus plugin;
    plugin.init();
    const QStringList debug = Host::instance().logTexts(LogLevel::Debug);
    ASSERT_GE(debug.size(), 2);
    EXPECT_EQ(debug.first(), QStringLiteral("Init Modbus plugin"));
    EXPECT_EQ(debug.last(), QStringLiteral("Modbus plugin initialized"));
}

TEST_F(InitTest, CreatesFourIdentityStubsPerDeviceAndRequestsOneReload) {
    Host::instance().setDevices({device(1), device(2)});
    Modbus plugin;
    plugin.init();

    const QList<ItemInstancePlugin> items = Host::instance().addedItems();
    ASSERT_EQ(items.size(), 8);
    const struct {
        const char* field;
        const char* label;
        const char* description;
    } kStubs[] = {
        {"vendor", "Vendor", "Read Device Identification object 0x00 (vendor name)"},
        {"product_code", "Product code", "Read Device Identification object 0x01 (product code)"},
        {"version", "Revision", "Read Device Identification object 0x02 (major/minor revision)"},
        {"model", "Model", "Read Device Identification object 0x05 (model name) or Report Slave ID"},
    };
    int index = 0;
    for (int deviceId : {1, 2}) {
        for (const auto& stub : kStubs) {
            const ItemInstancePlugin& item = items.at(index++);
            SCOPED_TRACE(item.uid.toStdString());
            EXPECT_EQ(item.uid, QStringLiteral("identity_%1_%2").arg(deviceId).arg(stub.field));
            EXPECT_EQ(item.name, QString::fromLatin1(stub.label));
            EXPECT_EQ(item.description, QString::fromLatin1(stub.description));
            EXPECT_EQ(item.deviceId, deviceId);
            EXPECT_EQ(item.readInterval, 604800000);
            EXPECT_TRUE(item.enabled);
            EXPECT_EQ(item.itemClass, 1);
            EXPECT_FALSE(item.historyOnly);
            const QMap<QString, QString> expectedSettings{
                {"register", QStringLiteral("__identity.") + stub.field},
                {"type", "7"},
                {"register_type", "4"},
                {"item_tags", stub.field}};
            EXPECT_EQ(item.settings, expectedSettings);
        }
    }
    EXPECT_EQ(Host::instance().reloadCount(), 1);

    // A second init finds every stub and neither creates nor reloads.
    plugin.init();
    EXPECT_EQ(Host::instance().addedItems().size(), 8);
    EXPECT_EQ(Host::instance().reloadCount(), 1);
}

TEST_F(InitTest, EventDataAndLogCallbackDoNothingAndSucceed) {
    Modbus plugin;
    LogList list;
    EXPECT_TRUE(plugin.getEventData(&list));
    EXPECT_TRUE(plugin.logCallback(&list));
}

TEST_F(InitTest, LogHelpersForwardToTheirHostLevels) {
    Modbus plugin;
    plugin.writeLogDebug(QStringLiteral("d"));
    plugin.writeLogInfo(QStringLiteral("i"));
    plugin.writeLogWarning(QStringLiteral("w"));
    plugin.writeLogError(QStringLiteral("e"));
    EXPECT_EQ(Host::instance().logTexts(LogLevel::Debug), QStringList{"d"});
    EXPECT_EQ(Host::instance().logTexts(LogLevel::Info), QStringList{"i"});
    EXPECT_EQ(Host::instance().logTexts(LogLevel::Warning), QStringList{"w"});
    EXPECT_EQ(Host::instance().logTexts(LogLevel::Error), QStringList{"e"});
}
