#include "discovery/candidate.h"

#include <gtest/gtest.h>

#include <QJsonDocument>

namespace ModbusDiscovery {
namespace {

Candidate candidateAt(const QString& address, quint16 port, quint8 unitId) {
    Candidate candidate;
    candidate.address = address;
    candidate.port = port;
    candidate.unitId = unitId;
    return candidate;
}

TEST(ApplyIdentify, IgnoresResultsThatAreNotOk) {
    Candidate candidate = candidateAt(QStringLiteral("10.0.0.5"), 502, 3);
    IdentifyResult result;
    result.unitId = 9;
    result.vendor = QStringLiteral("ACME");
    applyIdentify(&candidate, result);
    EXPECT_EQ(candidate.unitId, 3);
    EXPECT_EQ(candidate.vendor, QString());
    applyIdentify(nullptr, result);
}

TEST(ApplyIdentify, SetsUnitAndFillsOnlyEmptyTexts) {
    Candidate candidate = candidateAt(QStringLiteral("10.0.0.5"), 502, 1);
    candidate.source = QStringLiteral("tcp-scan");
    candidate.vendor = QStringLiteral("KNOWN");

    IdentifyResult result;
    result.ok = true;
    result.unitId = 17;
    result.vendor = QStringLiteral("ACME");
    result.productCode = QStringLiteral("P1");
    result.version = QStringLiteral("2.1");
    result.vendorUrl = QStringLiteral("x.inv");
    result.productName = QStringLiteral("PN");
    result.modelName = QStringLiteral("X1");
    result.userApplication = QStringLiteral("APP");
    result.source = QStringLiteral("device-id");
    applyIdentify(&candidate, result);

    EXPECT_EQ(candidate.unitId, 17);
    EXPECT_EQ(candidate.vendor, QStringLiteral("KNOWN"));
    EXPECT_EQ(candidate.productCode, QStringLiteral("P1"));
    EXPECT_EQ(candidate.version, QStringLiteral("2.1"));
    EXPECT_EQ(candidate.vendorUrl, QStringLiteral("x.inv"));
    EXPECT_EQ(candidate.productName, QStringLiteral("PN"));
    EXPECT_EQ(candidate.modelName, QStringLiteral("X1"));
    EXPECT_EQ(candidate.userApplication, QStringLiteral("APP"));
    EXPECT_EQ(candidate.source, QStringLiteral("tcp-scan"));

    IdentifyResult later;
    later.ok = true;
    later.unitId = 18;
    later.modelName = QStringLiteral("X2");
    applyIdentify(&candidate, later);
    EXPECT_EQ(candidate.unitId, 18);
    EXPECT_EQ(candidate.modelName, QStringLiteral("X1"));
}

TEST(SanitizeUidPart, KeepsLettersDigitsAndSingleUnderscores) {
    struct Row {
        const char* text;
        const char* expected;
    };
    const Row rows[] = {
        {"192.168.1.20", "192_168_1_20"},
        {"fe80::1", "fe80_1"},
        {"10.0.0.0/24", "10_0_0_0_24"},
        {"10.0.0.5 (plant)!", "10_0_0_5plant"},
        {"Host-Name", "HostName"},
        {"a. .b", "a_b"},
        {"a____b", "a_b"},
        {"_.x._", "_x_"},
        {"Gw.Ab", "Gw_Ab"},
        {"", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(sanitizeUidPart(QString::fromUtf8(row.text)), QString::fromLatin1(row.expected));
    }
    EXPECT_EQ(sanitizeUidPart(QStringLiteral("caf\u00e9.1")), QStringLiteral("caf_1"));
}

TEST(SanitizeUidPart, DropsUnpairedSurrogatesBeforeSanitizing) {
    const QChar high(0xD800);
    const QChar low(0xDC00);
    EXPECT_EQ(sanitizeUidPart(QString(high) + QStringLiteral("%1.x")), QStringLiteral("1_x"));
    EXPECT_EQ(sanitizeUidPart(QStringLiteral("a") + low + QStringLiteral(".b")), QStringLiteral("a_b"));
    EXPECT_EQ(sanitizeUidPart(QStringLiteral("a.b") + high), QStringLiteral("a_b"));
    EXPECT_EQ(sanitizeUidPart(QString(low) + high + QStringLiteral("c")), QStringLiteral("c"));
    // A valid pair is one character outside the allowed set, removed like any other.
    EXPECT_EQ(sanitizeUidPart(QString(high) + low + QStringLiteral("x.1")), QStringLiteral("x_1"));
}

TEST(UidFor, CombinesAddressPortAndUnit) {
    struct Row {
        const char* address;
        quint16 port;
        quint8 unitId;
        const char* expected;
    };
    const Row rows[] = {
        {"192.168.1.20", 502, 1, "modbus_192_168_1_20_502_1"},
        {"10.0.0.5", 0, 1, "modbus_10_0_0_5_502_1"},
        {"10.0.0.5", 1502, 255, "modbus_10_0_0_5_1502_255"},
        {"10.0.0.5%eth0", 65535, 0, "modbus_10_0_0_5eth0_65535_0"},
        {"10..0.0.5", 502, 1, "modbus_10_0_0_5_502_1"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.address);
        EXPECT_EQ(uidFor(candidateAt(QString::fromLatin1(row.address), row.port, row.unitId)),
                  QString::fromLatin1(row.expected));
    }
}

TEST(UidFor, AnAddressThatIsNoValidTextTakesNoPlaceholderOfTheOthers) {
    const QString address = QString(QChar(0xD800)) + QStringLiteral("%1.x");
    EXPECT_EQ(uidFor(candidateAt(address, 1502, 7)), QStringLiteral("modbus_1_x_1502_7"));
}

TEST(IdentityLabel, PrefersModelThenProductNameThenCode) {
    struct Row {
        const char* name;
        const char* modelName;
        const char* productName;
        const char* productCode;
        const char* expected;
    };
    const Row rows[] = {
        {"all set", "X1", "PN", "P1", "X1"},
        {"no model", "", "PN", "P1", "PN"},
        {"code only", "", "", "P1", "P1"},
        {"nothing", "", "", "", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Candidate candidate;
        candidate.modelName = QString::fromLatin1(row.modelName);
        candidate.productName = QString::fromLatin1(row.productName);
        candidate.productCode = QString::fromLatin1(row.productCode);
        EXPECT_EQ(identityLabel(candidate), QString::fromLatin1(row.expected));
    }
}

TEST(CandidateToJson, WritesTheWholeObject) {
    Candidate candidate = candidateAt(QStringLiteral("10.0.0.5"), 1502, 3);
    candidate.vendor = QStringLiteral("ACME");
    candidate.modelName = QStringLiteral("X1");
    candidate.version = QStringLiteral("2.1");
    candidate.vendorUrl = QStringLiteral("x.inv");
    candidate.userApplication = QStringLiteral("APP");
    candidate.source = QStringLiteral("tcp-scan");
    const QByteArray expected = R"json({
        "address": "10.0.0.5",
        "description": "ACME X1 2.1 at 10.0.0.5:1502 unit 3",
        "external_id": "modbus_10_0_0_5_1502_3",
        "name": "X1 (10.0.0.5)",
        "uid_hint": "modbus_10_0_0_5_1502_3",
        "user_defined_fields": {
            "byte_order": "0",
            "endianness": "0",
            "max_read_registers": "123",
            "persistent_connection": "1",
            "port": "1502",
            "server_id": "3",
            "string_byte_order": "0",
            "string_endianness": "0",
            "write_preset": "1"
        }
    })json";
    EXPECT_EQ(candidateToJson(candidate), QJsonDocument::fromJson(expected).object());
}

TEST(CandidateToJson, AnRtuOverTcpCandidateIsImportedWithRtuFraming) {
    Candidate candidate = candidateAt(QStringLiteral("10.0.0.5"), 4001, 3);
    candidate.vendor = QStringLiteral("Serial Co");
    candidate.productCode = QStringLiteral("RS-9");
    candidate.source = QStringLiteral("rtu-over-tcp-scan");
    const QByteArray expected = R"json({
        "address": "10.0.0.5",
        "description": "Serial Co RS-9 at 10.0.0.5:4001 unit 3",
        "external_id": "modbus_10_0_0_5_4001_3",
        "name": "RS-9 (10.0.0.5)",
        "uid_hint": "modbus_10_0_0_5_4001_3",
        "user_defined_fields": {
            "byte_order": "0",
            "endianness": "0",
            "max_read_registers": "123",
            "persistent_connection": "1",
            "port": "4001",
            "server_id": "3",
            "string_byte_order": "0",
            "string_endianness": "0",
            "transport": "1",
            "write_preset": "1"
        }
    })json";
    EXPECT_EQ(candidateToJson(candidate), QJsonDocument::fromJson(expected).object());
    EXPECT_EQ(ModbusDiscovery::kSourceRtuOverTcpScan, QStringLiteral("rtu-over-tcp-scan"));
}

TEST(CandidateToJson, NamesAndDescribesTheDevice) {
    struct Row {
        const char* name;
        const char* address;
        quint16 port;
        quint8 unitId;
        const char* vendor;
        const char* modelName;
        const char* productName;
        const char* version;
        const char* expectedName;
        const char* expectedDescription;
    };
    const Row rows[] = {
        {"no identification", "10.0.0.5", 502, 1, "", "", "", "", "Modbus 10.0.0.5",
         "Modbus TCP at 10.0.0.5:502 unit 1"},
        {"vendor, model and version", "10.0.0.5", 1502, 3, "ACME", "X1", "", "2.1", "X1 (10.0.0.5)",
         "ACME X1 2.1 at 10.0.0.5:1502 unit 3"},
        {"vendor without label", "10.0.0.5", 502, 1, "ACME", "", "", "", "Modbus 10.0.0.5",
         "ACME at 10.0.0.5:502 unit 1"},
        {"vendor and version without label", "10.0.0.5", 502, 1, "ACME", "", "", "1.0", "Modbus 10.0.0.5",
         "ACME 1.0 at 10.0.0.5:502 unit 1"},
        {"label without vendor", "10.0.0.5", 502, 1, "", "", "PN", "", "PN (10.0.0.5)",
         "PN at 10.0.0.5:502 unit 1"},
        {"version alone is not described", "10.0.0.5", 502, 1, "", "", "", "3.0", "Modbus 10.0.0.5",
         "Modbus TCP at 10.0.0.5:502 unit 1"},
        {"label holding the address", "10.0.0.5", 502, 1, "", "gw 10.0.0.5", "", "", "gw 10.0.0.5",
         "gw 10.0.0.5 at 10.0.0.5:502 unit 1"},
        {"port 0 written as 502", "10.0.0.5", 0, 2, "", "", "", "", "Modbus 10.0.0.5",
         "Modbus TCP at 10.0.0.5:502 unit 2"},
        {"percent signs stay literal", "10.0.0.5", 502, 1, "%2", "%1", "", "", "%1 (10.0.0.5)",
         "%2 %1 at 10.0.0.5:502 unit 1"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Candidate candidate = candidateAt(QString::fromLatin1(row.address), row.port, row.unitId);
        candidate.vendor = QString::fromLatin1(row.vendor);
        candidate.modelName = QString::fromLatin1(row.modelName);
        candidate.productName = QString::fromLatin1(row.productName);
        candidate.version = QString::fromLatin1(row.version);
        const QJsonObject json = candidateToJson(candidate);
        EXPECT_EQ(json.value(QStringLiteral("name")).toString(), QString::fromLatin1(row.expectedName));
        EXPECT_EQ(json.value(QStringLiteral("description")).toString(),
                  QString::fromLatin1(row.expectedDescription));
    }
}

TEST(CandidateToJson, HashesPortZeroAs502) {
    const QJsonObject json = candidateToJson(candidateAt(QStringLiteral("10.0.0.5"), 0, 1));
    EXPECT_EQ(json.value(QStringLiteral("external_id")).toString(), QStringLiteral("modbus_10_0_0_5_502_1"));
    EXPECT_EQ(json.value(QStringLiteral("uid_hint")).toString(), QStringLiteral("modbus_10_0_0_5_502_1"));
    EXPECT_EQ(json.value(QStringLiteral("user_defined_fields")).toObject().value(QStringLiteral("port")),
              QJsonValue(QStringLiteral("502")));
}

}  // namespace
}  // namespace ModbusDiscovery
