#include "discovery/options.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>

namespace ModbusDiscovery {
namespace {

QJsonObject json(const char* text) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray(text), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << text;
    return document.object();
}

QList<quint16> portRange(int from, int to) {
    QList<quint16> ports;
    for (int port = from; port <= to; ++port) {
        ports.append(static_cast<quint16>(port));
    }
    return ports;
}

QList<quint8> unitRange(int from, int to) {
    QList<quint8> units;
    for (int unit = from; unit <= to; ++unit) {
        units.append(static_cast<quint8>(unit));
    }
    return units;
}

TEST(OptionsFromRequest, EmptyRequestGivesDefaults) {
    QStringList log{QStringLiteral("earlier line")};
    const Options options = optionsFromRequest(QJsonObject(), &log);
    EXPECT_EQ(options.timeoutMs, 60000);
    EXPECT_EQ(options.networkInterface, QStringLiteral("eth0"));
    EXPECT_EQ(options.tcpPorts, QList<quint16>{502});
    EXPECT_EQ(options.unitIds, QList<quint8>{1});
    EXPECT_TRUE(options.existingUids.isEmpty());
    EXPECT_TRUE(options.tcpSubnetScan);
    EXPECT_FALSE(options.rtuOverTcp);
    EXPECT_TRUE(options.tcpHosts.isEmpty());
    EXPECT_EQ(options.deviceInterface, QString());
    EXPECT_EQ(options.baudrate, 9600);
    EXPECT_EQ(options.parity, QStringLiteral("N"));
    EXPECT_EQ(options.databits, 8);
    EXPECT_EQ(options.stopbits, 1);
    EXPECT_EQ(options.serialMode, 1);
    EXPECT_EQ(options.interframeDelay, 200);
    EXPECT_EQ(log, QStringList{QStringLiteral("earlier line")});
    EXPECT_EQ(optionsFromRequest(QJsonObject(), nullptr).timeoutMs, 60000);
}

TEST(OptionsFromRequest, ClampsTheTimeout) {
    struct Row {
        const char* request;
        int expected;
    };
    const Row rows[] = {
        {R"({"timeout_ms": "500"})", 1000},    {R"({"timeout_ms": "999999"})", 300000},
        {R"({"timeout_ms": "-1"})", 60000},    {R"({"timeout_ms": "soon"})", 60000},
        {R"({"timeout_ms": "0"})", 60000},     {R"({"timeout_ms": 1500.9})", 1500},
        {R"({"timeout_ms": -0.5})", 60000},    {R"({"timeout_ms": 1e30})", 60000},
        {R"({"timeout_ms": " 5000 "})", 5000}, {R"({"timeout_ms": "300000"})", 300000},
        {R"({"timeout_ms": true})", 1000},     {R"({"timeout_ms": null})", 60000},
        {R"({"timeout_ms": [5000]})", 60000},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.request);
        EXPECT_EQ(optionsFromRequest(json(row.request), nullptr).timeoutMs, row.expected);
    }
}

TEST(OptionsFromRequest, ReadsTheSubnetScanSwitch) {
    struct Row {
        const char* request;
        bool expected;
    };
    const Row rows[] = {
        {R"({"tcp_subnet_scan": false})", false}, {R"({"tcp_subnet_scan": "FALSE"})", false},
        {R"({"tcp_subnet_scan": "0"})", false},   {R"({"tcp_subnet_scan": 0})", false},
        {R"({"tcp_subnet_scan": "no"})", true},   {R"({"tcp_subnet_scan": true})", true},
        {R"({"tcp_subnet_scan": ""})", true},     {R"({"options": {"tcp_subnet_scan": "false"}})", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.request);
        EXPECT_EQ(optionsFromRequest(json(row.request), nullptr).tcpSubnetScan, row.expected);
    }
}

TEST(OptionsFromRequest, ReadsTheRtuOverTcpSwitch) {
    struct Row {
        const char* request;
        bool expected;
    };
    const Row rows[] = {
        {R"({})", false},
        {R"({"rtu_over_tcp": "1"})", true},
        {R"({"rtu_over_tcp": " 1 "})", true},
        {R"({"rtu_over_tcp": 1})", true},
        {R"({"rtu_over_tcp": true})", true},
        {R"({"options": {"rtu_over_tcp": "1"}})", true},
        {R"({"rtu_over_tcp": "", "user_defined_fields": {"rtu_over_tcp": "1"}})", true},
        {R"({"rtu_over_tcp": "0"})", false},
        {R"({"rtu_over_tcp": false})", false},
        {R"({"rtu_over_tcp": "true"})", false},
        {R"({"rtu_over_tcp": "yes"})", false},
        {R"({"rtu_over_tcp": "01"})", false},
        {R"({"rtu_over_tcp": 2})", false},
        {R"({"rtu_over_tcp": ""})", false},
        {R"({"rtu_over_tcp": null})", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.request);
        EXPECT_EQ(optionsFromRequest(json(row.request), nullptr).rtuOverTcp, row.expected);
    }
}

// The layout before the RTU switch, as programs built against it see the options.
struct OptionsWithoutRtuSwitch {
    int timeoutMs;
    QString networkInterface;
    QList<quint16> tcpPorts;
    QList<quint8> unitIds;
    QStringList existingUids;
    bool tcpSubnetScan;
    QStringList tcpHosts;
    QString deviceInterface;
    int baudrate;
    QString parity;
    int databits;
    int stopbits;
    int serialMode;
    int interframeDelay;
};

TEST(OptionsLayout, TheRtuSwitchLeavesTheSizeUnchanged) {
    // The command-line tool receives the options by value from a plugin it loads at run time.
    EXPECT_EQ(sizeof(ModbusDiscovery::OptionsCore), sizeof(OptionsWithoutRtuSwitch));
}

TEST(OptionsFromRequest, LooksInOptionsThenUserDefinedFields) {
    struct Row {
        const char* request;
        QList<quint16> expected;
    };
    const Row rows[] = {
        {R"({"tcp_ports": "", "options": {"tcp_ports": ""}, "user_defined_fields": {"tcp_ports": "1502"}})",
         {1502}},
        {R"({"tcp_ports": "", "options": {"tcp_ports": "503"}, "user_defined_fields": {"tcp_ports": "1502"}})",
         {503}},
        {R"({"tcp_ports": "504", "options": {"tcp_ports": "503"}})", {504}},
        {R"({"tcp_ports": null, "options": "503", "user_defined_fields": {"tcp_ports": 1502}})", {1502}},
        {R"({"options": {"tcp_ports": ""}})", {502}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.request);
        EXPECT_EQ(optionsFromRequest(json(row.request), nullptr).tcpPorts, row.expected);
    }
}

TEST(OptionsFromRequest, ReadsTheNetworkInterface) {
    struct Row {
        const char* request;
        const char* expected;
    };
    const Row rows[] = {
        {R"({})", "eth0"},
        {R"({"network_interface": ""})", ""},
        {R"({"network_interface": null})", ""},
        {R"({"network_interface": " eth1 "})", "eth1"},
        {R"({"options": {"network_interface": ""}})", ""},
        {R"({"user_defined_fields": {"network_interface": "wlan0"}})", "wlan0"},
        {R"({"network_interface": "", "options": {"network_interface": "br0"}})", "br0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.request);
        EXPECT_EQ(optionsFromRequest(json(row.request), nullptr).networkInterface,
                  QString::fromLatin1(row.expected));
    }
}

TEST(ParsePortList, ParsesNumbersAndRanges) {
    struct Row {
        const char* text;
        QList<quint16> expected;
    };
    const Row rows[] = {
        {"0,70000", {502}},
        {"1-100", portRange(1, 64)},
        {"10-12,5", {5, 10, 11, 12}},
        {"12-10", {10, 11, 12}},
        {"502, 1502", {502, 1502}},
        {"502,502", {502}},
        {" , ,80,", {80}},
        {"-5", {502}},
        {"a,b-c,7-x", {502}},
        {"65530-70000", portRange(65530, 65535)},
        {"0-2", {1, 2}},
        {"3 - 4", {3, 4}},
        {"", {502}},
        {"1-2147483647", portRange(1, 64)},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(parsePortList(QString::fromLatin1(row.text), {502}), row.expected);
    }
    EXPECT_EQ(parsePortList(QStringLiteral("x"), {}), QList<quint16>{});
}

TEST(ParsePortList, StopsAtSixtyFourPorts) {
    QStringList singles;
    for (int port = 1000; port < 1070; ++port) {
        singles.append(QString::number(port));
    }
    EXPECT_EQ(parsePortList(singles.join(QLatin1Char(',')), {502}), portRange(1000, 1063));
    EXPECT_EQ(parsePortList(QStringLiteral("1-60,100-200"), {502}), portRange(1, 60) + portRange(100, 103));
}

TEST(ParseUnitIdList, ParsesNumbersAndRanges) {
    struct Row {
        const char* text;
        QList<quint8> expected;
    };
    const Row rows[] = {
        {"0-255", unitRange(0, 31)},
        {"3, 1-2, 3", {3, 1, 2}},
        {"0", {0}},
        {"256", {1}},
        {"250-300", unitRange(250, 255)},
        {"", {1}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(parseUnitIdList(QString::fromLatin1(row.text), {1}), row.expected);
    }
}

TEST(OptionsFromRequest, ParsesPortsAndUnits) {
    const Options options =
        optionsFromRequest(json(R"({"tcp_ports": "0,70000", "server_ids": "3, 1-2, 3"})"), nullptr);
    EXPECT_EQ(options.tcpPorts, QList<quint16>{502});
    EXPECT_EQ(options.unitIds, (QList<quint8>{3, 1, 2}));
    EXPECT_EQ(optionsFromRequest(json(R"({"server_ids": "0-255"})"), nullptr).unitIds, unitRange(0, 31));
    EXPECT_EQ(optionsFromRequest(json(R"({"server_ids": "999"})"), nullptr).unitIds, QList<quint8>{1});
    EXPECT_EQ(optionsFromRequest(json(R"({"tcp_ports": "1-100"})"), nullptr).tcpPorts, portRange(1, 64));
}

TEST(OptionsFromRequest, ReadsSerialSettings) {
    struct Row {
        const char* request;
        const char* deviceInterface;
        int baudrate;
        const char* parity;
        int databits;
        int stopbits;
        int serialMode;
        int interframeDelay;
    };
    const Row rows[] = {
        {R"({"parity": "even", "databits": "9", "stopbits": "3"})", "", 9600, "E", 8, 1, 1, 200},
        {R"({"parity": "o", "databits": 7, "stopbits": 2, "baudrate": "19200"})", "", 19200, "O", 7, 2, 1,
         200},
        {R"({"databits": "5", "baudrate": "0"})", "", 9600, "N", 5, 1, 1, 200},
        {R"({"databits": "4", "baudrate": "fast", "stopbits": "0"})", "", 9600, "N", 8, 1, 1, 200},
        {R"({"serial_mode": "x", "interframe_delay": "x"})", "", 9600, "N", 8, 1, 0, 0},
        {R"({"serial_mode": "-3", "interframe_delay": "-5"})", "", 9600, "N", 8, 1, -3, 200},
        {R"({"serial_mode": 2, "interframe_delay": "50"})", "", 9600, "N", 8, 1, 2, 50},
        {R"({"device_interface": " /dev/ttyS1 ", "parity": ""})", "/dev/ttyS1", 9600, "N", 8, 1, 1, 200},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.request);
        const Options options = optionsFromRequest(json(row.request), nullptr);
        EXPECT_EQ(options.deviceInterface, QString::fromLatin1(row.deviceInterface));
        EXPECT_EQ(options.baudrate, row.baudrate);
        EXPECT_EQ(options.parity, QString::fromLatin1(row.parity));
        EXPECT_EQ(options.databits, row.databits);
        EXPECT_EQ(options.stopbits, row.stopbits);
        EXPECT_EQ(options.serialMode, row.serialMode);
        EXPECT_EQ(options.interframeDelay, row.interframeDelay);
    }
}

TEST(OptionsFromRequest, CollectsExistingDeviceUids) {
    struct Row {
        const char* name;
        const char* request;
        QStringList expected;
    };
    const Row rows[] = {
        {"address only: port 502 in the uid, unit 0",
         R"({"existing_devices": [{"address": "10.0.0.5"}]})",
         {QStringLiteral("modbus_10_0_0_5_502_0")}},
        {"uid hint wins over uid",
         R"({"existing_devices": [{"uid_hint": "hint", "uid": "uid", "address": "10.0.0.5", "port": "1502",
             "server_id": "3"}]})",
         {QStringLiteral("hint"), QStringLiteral("modbus_10_0_0_5_1502_3")}},
        {"uid when no hint",
         R"({"existing_devices": [{"uid": "plain", "user_defined_fields": {"port": 503}}]})",
         {QStringLiteral("plain"), QStringLiteral("modbus__503_0")}},
        {"computed uid not repeated",
         R"({"existing_devices": [{"uid": "modbus_10_0_0_6_502_1", "address": "10.0.0.6",
             "options": {"server_id": "1"}}]})",
         {QStringLiteral("modbus_10_0_0_6_502_1")}},
        {"given uids are not checked for duplicates",
         R"({"existing_devices": [{"uid": "same", "address": "a"}, {"uid": "same", "address": "a"}]})",
         {QStringLiteral("same"), QStringLiteral("modbus_a_502_0"), QStringLiteral("same")}},
        {"bad port and unit give 0",
         R"({"existing_devices": [{"address": "10.0.0.7", "port": "x", "server_id": "x"}]})",
         {QStringLiteral("modbus_10_0_0_7_502_0")}},
        {"the last unit",
         R"({"existing_devices": [{"address": "10.0.0.7", "server_id": "255"}]})",
         {QStringLiteral("modbus_10_0_0_7_502_255")}},
        {"a unit past 255 matches no device",
         R"({"existing_devices": [{"uid": "kept", "address": "10.0.0.7", "server_id": "256"},
             {"address": "10.0.0.7", "server_id": "300"}, {"address": "10.0.0.7", "server_id": "70000"},
             {"address": "10.0.0.7", "server_id": "-1"}]})",
         {QStringLiteral("kept")}},
        {"an address with a lone surrogate",
         R"({"existing_devices": [{"address": "\ud800%1.x", "port": "1502", "server_id": "7"}]})",
         {QStringLiteral("modbus_1_x_1502_7")}},
        {"non-objects skipped", R"({"existing_devices": ["modbus_1_502_1", 5, null, [1]]})", {}},
        {"not an array", R"({"existing_devices": {"uid": "x"}})", {}},
        {"top level only", R"({"options": {"existing_devices": [{"uid": "x"}]}})", {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(optionsFromRequest(json(row.request), nullptr).existingUids, row.expected);
    }
}

}  // namespace
}  // namespace ModbusDiscovery
