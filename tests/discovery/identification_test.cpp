#include "discovery/identification.h"

#include <gtest/gtest.h>

#include <random>

#include "discovery/frames.h"
#include "discovery/identification_internal.h"

namespace ModbusDiscovery {
namespace {

QByteArray hex(const char* text) {
    return QByteArray::fromHex(text);
}

// Header of a Read Device Identification answer: 2B 0E, read code 1, conformity 1, more follows 0,
// next object 0, then the object count.
QByteArray deviceIdAnswer(const char* objectCountAndObjects) {
    return hex("2b0e01010000") + hex(objectCountAndObjects);
}

TEST(IsModbusPduFor, DecidesByFunctionCodeAndSize) {
    struct Row {
        const char* name;
        const char* pdu;
        unsigned char functionCode;
        bool expected;
    };
    const Row rows[] = {
        {"exception to 43", "ab02", 43, true},
        {"exception code missing", "ab", 43, false},
        {"device id answer of 4 bytes", "2b0e0101", 43, false},
        {"device id answer of 5 bytes", "2b0e010100", 43, true},
        {"wrong MEI type", "2b0d010100", 43, false},
        {"report slave id of 2 bytes", "1105", 17, true},
        {"report slave id of 1 byte", "11", 17, false},
        {"exception to 17", "9101", 17, true},
        {"holding answer of 2 bytes", "0302", 3, false},
        {"holding answer of 3 bytes", "030200", 3, true},
        {"exception to 3", "8302", 3, true},
        {"coil answer", "010100", 1, true},
        {"other function code answering", "010100", 3, false},
        {"empty", "", 3, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(isModbusPduFor(hex(row.pdu), row.functionCode), row.expected);
    }
}

TEST(AsciiFromBytes, KeepsPrintableBytesAndTrims) {
    struct Row {
        const char* name;
        const char* bytes;
        const char* expected;
    };
    const Row rows[] = {
        {"blank padded and NUL terminated", "20204142430000", "ABC"},
        {"only NUL bytes", "000000", ""},
        {"empty", "", ""},
        {"DEL and high bytes dropped", "417f4280ff43", "ABC"},
        {"control bytes dropped without replacement", "094109420a", "AB"},
        {"inner blanks kept", "20412042207e20", "A B ~"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(asciiFromBytes(hex(row.bytes)), QString::fromLatin1(row.expected));
    }
}

TEST(ParseDeviceIdPdu, ReadsAllRegularObjects) {
    // Objects 0..6 then a private object 0x80 that is dropped.
    const QByteArray pdu =
        hex("2b0e0383ff0709"
            "000441434d45"    // 0 ACME
            "00024e4f"        // 0 again, ignored
            "01025031"        // product code P1
            "0203322e31"      // 2.1
            "0305782e696e76"  // x.inv
            "0402504e"        // PN
            "05025831"        // X1
            "06024150"        // AP
            "80025a5a");      // private object
    IdentifyResult result;
    result.unitId = 9;
    result.source = QStringLiteral("old");
    ASSERT_TRUE(parseDeviceIdPdu(pdu, &result));
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.unitId, 9);
    EXPECT_EQ(result.vendor, QStringLiteral("ACME"));
    EXPECT_EQ(result.productCode, QStringLiteral("P1"));
    EXPECT_EQ(result.version, QStringLiteral("2.1"));
    EXPECT_EQ(result.vendorUrl, QStringLiteral("x.inv"));
    EXPECT_EQ(result.productName, QStringLiteral("PN"));
    EXPECT_EQ(result.modelName, QStringLiteral("X1"));
    EXPECT_EQ(result.userApplication, QStringLiteral("AP"));
    EXPECT_EQ(result.source, QString());
    EXPECT_TRUE(result.moreFollows);
    EXPECT_EQ(result.nextObjectId, 7);
}

TEST(ParseDeviceIdPdu, HandlesObjectEdgeCases) {
    struct Row {
        const char* name;
        QByteArray pdu;
        const char* vendor;
        const char* productCode;
        bool moreFollows;
        quint8 nextObjectId;
    };
    const Row rows[] = {
        {"second object runs past the end",
         deviceIdAnswer("02"
                        "000141"
                        "0105505152"),
         "A", "", false, 0},
        {"two vendor objects: first non-empty wins",
         deviceIdAnswer("03"
                        "00020000"
                        "000142"
                        "000143"),
         "B", "", false, 0},
        {"padded text",
         deviceIdAnswer("01"
                        "00072020414243"
                        "0000"),
         "ABC", "", false, 0},
        {"object of NUL bytes leaves the field empty",
         deviceIdAnswer("01"
                        "0003000000"),
         "", "", false, 0},
        {"count larger than the objects present",
         deviceIdAnswer("09"
                        "000141"),
         "A", "", false, 0},
        {"count 0 reads nothing",
         deviceIdAnswer("00"
                        "000141"),
         "", "", false, 0},
        {"objects above 6 are dropped",
         deviceIdAnswer("02"
                        "0701"
                        "5a"
                        "800141"),
         "", "", false, 0},
        {"lone object id at the end",
         deviceIdAnswer("02"
                        "000141"
                        "01"),
         "A", "", false, 0},
        {"more follows other than FF is false",
         hex("2b0e0101"
             "0105"
             "01"
             "010150"),
         "", "P", false, 5},
        {"more follows FF",
         hex("2b0e0101"
             "ff02"
             "01"
             "010150"),
         "", "P", true, 2},
        {"zero-length object",
         deviceIdAnswer("02"
                        "0000"
                        "000141"),
         "A", "", false, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        IdentifyResult result;
        ASSERT_TRUE(parseDeviceIdPdu(row.pdu, &result));
        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.vendor, QString::fromLatin1(row.vendor));
        EXPECT_EQ(result.productCode, QString::fromLatin1(row.productCode));
        EXPECT_EQ(result.moreFollows, row.moreFollows);
        EXPECT_EQ(result.nextObjectId, row.nextObjectId);
        EXPECT_TRUE(parseDeviceIdPdu(row.pdu, nullptr));
    }
}

TEST(ParseDeviceIdPdu, RejectsWithoutTouchingTheOutput) {
    struct Row {
        const char* name;
        const char* pdu;
    };
    const Row rows[] = {
        {"seven bytes", "2b0e0101000000"},
        {"wrong function code", "2a0e010100000100014a"},
        {"wrong MEI type", "2b0d010100000100014a"},
        {"exception", "ab02"},
        {"empty", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        IdentifyResult result;
        result.vendor = QStringLiteral("kept");
        result.unitId = 4;
        EXPECT_FALSE(parseDeviceIdPdu(hex(row.pdu), &result));
        EXPECT_FALSE(result.ok);
        EXPECT_EQ(result.vendor, QStringLiteral("kept"));
        EXPECT_EQ(result.unitId, 4);
    }
}

TEST(ParseReportSlaveId, ReadsAdditionalData) {
    struct Row {
        const char* name;
        const char* pdu;
        bool ok;
        const char* text;
    };
    const Row rows[] = {
        {"no additional data",
         "1103"
         "01ff",
         true, ""},
        {"two text bytes",
         "1105"
         "01ff"
         "4142",
         true, "AB"},
        {"bytes beyond the byte count count too",
         "1102"
         "01ff"
         "4142",
         true, "AB"},
        {"three bytes",
         "1100"
         "01",
         true, ""},
        {"padded text",
         "1108"
         "01ff"
         "20583100000a",
         true, "X1"},
        {"two bytes", "1100", false, ""},
        {"wrong function code",
         "1203"
         "01ff"
         "41",
         false, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        IdentifyResult result;
        result.unitId = 6;
        result.vendor = QStringLiteral("before");
        EXPECT_EQ(parseReportSlaveId(hex(row.pdu), &result), row.ok);
        EXPECT_EQ(result.ok, row.ok);
        EXPECT_EQ(result.unitId, 6);
        EXPECT_EQ(result.productCode, QString::fromLatin1(row.text));
        EXPECT_EQ(result.modelName, QString::fromLatin1(row.text));
        EXPECT_EQ(result.source, row.ok ? QStringLiteral("slave-id") : QString());
        EXPECT_EQ(result.vendor, row.ok ? QString() : QStringLiteral("before"));
        EXPECT_EQ(parseReportSlaveId(hex(row.pdu), nullptr), row.ok);
    }
}

TEST(IdentifyFromResponse, ChoosesOkAndSource) {
    struct Row {
        const char* name;
        unsigned char unitId;
        unsigned char functionCode;
        QByteArray pdu;
        bool ok;
        quint8 resultUnit;
        const char* source;
        const char* vendor;
        const char* modelName;
    };
    const Row rows[] = {
        {"device id answer", 7, 43,
         deviceIdAnswer("01"
                        "000141"),
         true, 7, "device-id", "A", ""},
        {"seven-byte answer to 43 with object count 0", 7, 43, deviceIdAnswer("00"), true, 7, "pdu", "", ""},
        {"eight-byte device id answer without objects", 7, 43, deviceIdAnswer("0000"), true, 7, "device-id",
         "", ""},
        {"six-byte answer to 43", 7, 43, hex("2b0e01010000"), true, 7, "pdu", "", ""},
        {"exception to 43", 7, 43, hex("ab01"), true, 7, "exception", "", ""},
        {"four-byte answer to 43", 7, 43, hex("2b0e0101"), false, 1, "", "", ""},
        {"report slave id with data", 3, 17, hex("110501ff4142"), true, 3, "slave-id", "", "AB"},
        {"two-byte report slave id", 3, 17, hex("1100"), true, 3, "slave-id", "", ""},
        {"exception to 17", 3, 17, hex("9101"), true, 3, "exception", "", ""},
        {"holding answer", 0, 3, hex("03020000"), true, 0, "holding", "", ""},
        {"exception to 3", 0, 3, hex("8302"), true, 0, "exception", "", ""},
        {"short holding answer", 0, 3, hex("0302"), false, 1, "", "", ""},
        {"coil answer", 2, 1, hex("010100"), true, 2, "coil", "", ""},
        {"answer to another function", 2, 4, hex("04020001"), true, 2, "pdu", "", ""},
        {"answer with the wrong function", 5, 3, hex("010100"), false, 1, "", "", ""},
        {"empty answer", 5, 43, QByteArray(), false, 1, "", "", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        for (const IdentifyResult& result : {identifyFromResponse(row.unitId, row.functionCode, row.pdu),
                                             resultFromPdu(row.unitId, row.functionCode, row.pdu)}) {
            EXPECT_EQ(result.ok, row.ok);
            EXPECT_EQ(result.unitId, row.resultUnit);
            EXPECT_EQ(result.source, QString::fromLatin1(row.source));
            EXPECT_EQ(result.vendor, QString::fromLatin1(row.vendor));
            EXPECT_EQ(result.modelName, QString::fromLatin1(row.modelName));
        }
    }
}

IdentifyResult okResult(quint8 unitId) {
    IdentifyResult result;
    result.ok = true;
    result.unitId = unitId;
    return result;
}

TEST(CombineIdentify, IgnoresAnswersThatAreNotOk) {
    IdentifyResult target;
    IdentifyResult answer;
    answer.unitId = 9;
    answer.vendor = QStringLiteral("ACME");
    answer.source = QStringLiteral("device-id");
    combineIdentify(&target, answer);
    EXPECT_FALSE(target.ok);
    EXPECT_EQ(target.unitId, 1);
    EXPECT_EQ(target.vendor, QString());
    EXPECT_EQ(target.source, QString());
    combineIdentify(nullptr, okResult(2));
    mergeIdentify(nullptr, okResult(2));
}

TEST(CombineIdentify, FillsOnlyEmptyFields) {
    IdentifyResult first = okResult(4);
    first.vendor = QStringLiteral("ACME");
    first.modelName = QStringLiteral("X1");
    first.source = QStringLiteral("device-id");
    first.moreFollows = true;
    first.nextObjectId = 3;

    IdentifyResult second = okResult(5);
    second.vendor = QStringLiteral("OTHER");
    second.productCode = QStringLiteral("P7");
    second.version = QStringLiteral("1.0");
    second.vendorUrl = QStringLiteral("u");
    second.productName = QStringLiteral("PN");
    second.modelName = QStringLiteral("X2");
    second.userApplication = QStringLiteral("APP");
    second.source = QStringLiteral("slave-id");
    second.moreFollows = false;
    second.nextObjectId = 9;

    IdentifyResult target;
    combineIdentify(&target, first);
    mergeIdentify(&target, second);
    EXPECT_TRUE(target.ok);
    EXPECT_EQ(target.unitId, 5);
    EXPECT_EQ(target.vendor, QStringLiteral("ACME"));
    EXPECT_EQ(target.productCode, QStringLiteral("P7"));
    EXPECT_EQ(target.version, QStringLiteral("1.0"));
    EXPECT_EQ(target.vendorUrl, QStringLiteral("u"));
    EXPECT_EQ(target.productName, QStringLiteral("PN"));
    EXPECT_EQ(target.modelName, QStringLiteral("X1"));
    EXPECT_EQ(target.userApplication, QStringLiteral("APP"));
    EXPECT_EQ(target.source, QStringLiteral("device-id"));
    // The paging fields of a device id answer are not merged.
    EXPECT_FALSE(target.moreFollows);
    EXPECT_EQ(target.nextObjectId, 0);
}

TEST(HasMetadata, CountsEveryTextButTheVendorUrl) {
    struct Row {
        const char* name;
        QString IdentifyResult::*field;
        bool expected;
    };
    const Row rows[] = {
        {"vendor", &IdentifyResult::vendor, true},
        {"product code", &IdentifyResult::productCode, true},
        {"version", &IdentifyResult::version, true},
        {"vendor url", &IdentifyResult::vendorUrl, false},
        {"product name", &IdentifyResult::productName, true},
        {"model name", &IdentifyResult::modelName, true},
        {"user application", &IdentifyResult::userApplication, true},
        {"source", &IdentifyResult::source, false},
    };
    EXPECT_FALSE(hasMetadata(okResult(1)));
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        IdentifyResult result = okResult(1);
        result.*row.field = QStringLiteral("x");
        EXPECT_EQ(hasMetadata(result), row.expected);
    }
}

TEST(IdentityItemValues, PublishesTrimmedNonEmptyTexts) {
    IdentifyResult result;
    result.vendor = QStringLiteral(" ACME ");
    result.productCode = QStringLiteral("P1");
    result.version = QStringLiteral("2.1");
    result.vendorUrl = QStringLiteral("x.inv");
    result.productName = QStringLiteral("PN");
    result.modelName = QStringLiteral("X1");
    result.userApplication = QStringLiteral("\tAPP\n");
    const QMap<QString, QString> expected{
        {QStringLiteral("vendor"), QStringLiteral("ACME")},
        {QStringLiteral("product_code"), QStringLiteral("P1")},
        {QStringLiteral("version"), QStringLiteral("2.1")},
        {QStringLiteral("vendor_url"), QStringLiteral("x.inv")},
        {QStringLiteral("product_name"), QStringLiteral("PN")},
        {QStringLiteral("model"), QStringLiteral("X1")},
        {QStringLiteral("user_application"), QStringLiteral("APP")},
    };
    EXPECT_EQ(identityItemValues(result), expected);
}

TEST(IdentityItemValues, PublishesTheSlaveIdTextOnceAsModel) {
    const IdentifyResult fromSlaveId = identifyFromResponse(1, kFcReportSlaveId, hex("110501ff4142"));
    EXPECT_EQ(fromSlaveId.productCode, QStringLiteral("AB"));
    EXPECT_EQ(fromSlaveId.modelName, QStringLiteral("AB"));
    const QMap<QString, QString> expected{{QStringLiteral("model"), QStringLiteral("AB")}};
    EXPECT_EQ(identityItemValues(fromSlaveId), expected);

    struct Row {
        const char* name;
        const char* productCode;
        const char* modelName;
        QMap<QString, QString> expected;
    };
    const Row rows[] = {
        {"equal after trimming", " AB", "AB ", {{QStringLiteral("model"), QStringLiteral("AB")}}},
        {"product code without model", "P1", "", {{QStringLiteral("product_code"), QStringLiteral("P1")}}},
        {"blanks only", "  ", " ", {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        IdentifyResult result;
        result.productCode = QString::fromLatin1(row.productCode);
        result.modelName = QString::fromLatin1(row.modelName);
        EXPECT_EQ(identityItemValues(result), row.expected);
    }
}

TEST(IdentificationParsers, SurviveTruncationsAndRandomBytes) {
    const QByteArray deviceId =
        hex("2b0e0101ff0303"
            "000441434d45"
            "01035031"
            "0203322e31");
    for (int length = 0; length <= deviceId.size(); ++length) {
        SCOPED_TRACE(length);
        const QByteArray part = deviceId.left(length);
        IdentifyResult result;
        EXPECT_EQ(parseDeviceIdPdu(part, &result), length >= 8);
        // A truncated object ends parsing: the vendor needs all of its bytes.
        EXPECT_EQ(result.vendor, length >= 13 ? QStringLiteral("ACME") : QString());
        EXPECT_EQ(identifyFromResponse(1, kFcMei, part).ok, length >= 5);
    }
    const QByteArray slaveId = hex("110601ff41424344");
    for (int length = 0; length <= slaveId.size(); ++length) {
        SCOPED_TRACE(length);
        EXPECT_EQ(parseReportSlaveId(slaveId.left(length), nullptr), length >= 3);
        EXPECT_EQ(identifyFromResponse(1, kFcReportSlaveId, slaveId.left(length)).ok, length >= 2);
    }

    std::mt19937 random(4711);
    std::uniform_int_distribution<int> sizes(0, 64);
    std::uniform_int_distribution<int> bytes(0, 255);
    const unsigned char functionCodes[] = {kFcReadCoils, kFcReadHolding, kFcReportSlaveId, kFcMei};
    for (int round = 0; round < 5000; ++round) {
        QByteArray data(sizes(random), '\0');
        for (char& c : data) {
            c = static_cast<char>(bytes(random));
        }
        // Every other round looks like a device id answer, so the object walk is exercised.
        if (round % 2 == 0 && data.size() >= 2) {
            data[0] = static_cast<char>(kFcMei);
            data[1] = static_cast<char>(kMeiDeviceId);
        }
        const bool deviceIdShape = data.size() >= 8 && static_cast<quint8>(data.at(0)) == kFcMei &&
                                   static_cast<quint8>(data.at(1)) == kMeiDeviceId;
        EXPECT_EQ(parseDeviceIdPdu(data, nullptr), deviceIdShape);
        const bool slaveIdShape = data.size() >= 3 && static_cast<quint8>(data.at(0)) == kFcReportSlaveId;
        EXPECT_EQ(parseReportSlaveId(data, nullptr), slaveIdShape);
        for (const unsigned char functionCode : functionCodes) {
            const IdentifyResult result = identifyFromResponse(2, functionCode, data);
            EXPECT_EQ(result.ok, isModbusPduFor(data, functionCode));
            identityItemValues(result);
        }
    }
}

}  // namespace
}  // namespace ModbusDiscovery
