#include "discovery/identification.h"

#include "discovery/constants.h"
#include "discovery/identification_internal.h"

namespace ModbusDiscovery {

namespace {

// A server answers a failed request with its function code plus this bit.
constexpr unsigned char kExceptionFlag = 0x80;
// Function code and exception code.
constexpr int kMinExceptionPduSize = 2;
// Function code, MEI type, read code, conformity level, more follows.
constexpr int kMinDeviceIdAnswerSize = 5;
constexpr int kMinReportSlaveIdAnswerSize = 2;
// Function code, byte count and at least one data byte.
constexpr int kMinReadAnswerSize = 3;

// Read Device Identification answer: header up to the object count, then id/length/value objects.
constexpr int kDeviceIdMoreFollowsOffset = 4;
constexpr int kDeviceIdNextObjectOffset = 5;
constexpr int kDeviceIdObjectCountOffset = 6;
constexpr int kDeviceIdFirstObjectOffset = 7;
constexpr int kDeviceIdMinPduSize = 8;
constexpr int kDeviceIdObjectHeaderSize = 2;
constexpr unsigned char kMoreFollows = 0xFF;

// Report Slave ID answer: function code, byte count, slave id, run indicator, then device data.
constexpr int kSlaveIdMinPduSize = 3;
constexpr int kSlaveIdDataOffset = 4;

constexpr unsigned char kFirstPrintable = 32;
constexpr unsigned char kLastPrintable = 126;

// Basic and regular object ids of Read Device Identification.
enum DeviceIdObject : unsigned char {
    kVendorName = 0,
    kProductCode = 1,
    kMajorMinorRevision = 2,
    kVendorUrl = 3,
    kProductName = 4,
    kModelName = 5,
    kUserApplicationName = 6,
};

quint8 byteAt(const QByteArray& data, int index) {
    return static_cast<quint8>(data.at(index));
}

QString* fieldForObject(IdentifyResult* result, unsigned char objectId) {
    switch (objectId) {
        case kVendorName:
            return &result->vendor;
        case kProductCode:
            return &result->productCode;
        case kMajorMinorRevision:
            return &result->version;
        case kVendorUrl:
            return &result->vendorUrl;
        case kProductName:
            return &result->productName;
        case kModelName:
            return &result->modelName;
        case kUserApplicationName:
            return &result->userApplication;
        default:
            return nullptr;
    }
}

void fillIfEmpty(QString* target, const QString& value) {
    if (target->isEmpty() && !value.isEmpty()) {
        *target = value;
    }
}

void insertTrimmed(QMap<QString, QString>* values, const QString& key, const QString& value) {
    const QString trimmed = value.trimmed();
    if (!trimmed.isEmpty()) {
        values->insert(key, trimmed);
    }
}

}  // namespace

bool isModbusPduFor(const QByteArray& pdu, unsigned char functionCode) {
    if (pdu.isEmpty()) {
        return false;
    }
    const quint8 answered = byteAt(pdu, 0);
    if (answered == (functionCode | kExceptionFlag)) {
        return pdu.size() >= kMinExceptionPduSize;
    }
    if (answered != functionCode) {
        return false;
    }
    if (functionCode == kFcMei) {
        return pdu.size() >= kMinDeviceIdAnswerSize && byteAt(pdu, 1) == kMeiDeviceId;
    }
    if (functionCode == kFcReportSlaveId) {
        return pdu.size() >= kMinReportSlaveIdAnswerSize;
    }
    return pdu.size() >= kMinReadAnswerSize;
}

QString asciiFromBytes(const QByteArray& bytes) {
    QString text;
    text.reserve(bytes.size());
    for (const char c : bytes) {
        const quint8 code = static_cast<quint8>(c);
        if (code >= kFirstPrintable && code <= kLastPrintable) {
            text.append(QChar(code));
        }
    }
    return text.trimmed();
}

bool parseDeviceIdPdu(const QByteArray& pdu, IdentifyResult* out) {
    if (pdu.size() < kDeviceIdMinPduSize || byteAt(pdu, 0) != kFcMei || byteAt(pdu, 1) != kMeiDeviceId) {
        return false;
    }
    IdentifyResult result;
    result.ok = true;
    result.moreFollows = byteAt(pdu, kDeviceIdMoreFollowsOffset) == kMoreFollows;
    result.nextObjectId = byteAt(pdu, kDeviceIdNextObjectOffset);
    const int count = byteAt(pdu, kDeviceIdObjectCountOffset);
    int position = kDeviceIdFirstObjectOffset;
    for (int i = 0; i < count && position + kDeviceIdObjectHeaderSize <= pdu.size(); ++i) {
        const unsigned char objectId = byteAt(pdu, position);
        const int length = byteAt(pdu, position + 1);
        position += kDeviceIdObjectHeaderSize;
        if (position + length > pdu.size()) {
            break;  // a truncated object ends the walk; earlier objects stay
        }
        const QString value = asciiFromBytes(pdu.mid(position, length));
        position += length;
        // Extended and private objects (ids above the regular ones) are read past.
        if (QString* field = fieldForObject(&result, objectId)) {
            fillIfEmpty(field, value);
        }
    }
    if (out) {
        result.unitId = out->unitId;
        *out = result;
    }
    return true;
}

bool parseReportSlaveId(const QByteArray& pdu, IdentifyResult* out) {
    if (pdu.size() < kSlaveIdMinPduSize || byteAt(pdu, 0) != kFcReportSlaveId) {
        return false;
    }
    IdentifyResult result;
    result.ok = true;
    result.source = QStringLiteral("slave-id");
    // The byte count is not trusted: everything after the run indicator is device data.
    const QByteArray data = pdu.size() > kSlaveIdDataOffset ? pdu.mid(kSlaveIdDataOffset) : QByteArray();
    const QString text = asciiFromBytes(data);
    if (!text.isEmpty()) {
        result.productCode = text;
        result.modelName = text;
    }
    if (out) {
        result.unitId = out->unitId;
        *out = result;
    }
    return true;
}

IdentifyResult resultFromPdu(unsigned char unitId, unsigned char functionCode, const QByteArray& pdu) {
    IdentifyResult result;
    if (!isModbusPduFor(pdu, functionCode)) {
        return result;
    }
    result.ok = true;
    result.unitId = unitId;
    if (functionCode == kFcMei && parseDeviceIdPdu(pdu, &result)) {
        result.source = QStringLiteral("device-id");
        return result;
    }
    if (functionCode == kFcReportSlaveId && parseReportSlaveId(pdu, &result)) {
        result.source = QStringLiteral("slave-id");
        return result;
    }
    if (byteAt(pdu, 0) == (functionCode | kExceptionFlag)) {
        result.source = QStringLiteral("exception");
    } else if (functionCode == kFcReadHolding) {
        result.source = QStringLiteral("holding");
    } else if (functionCode == kFcReadCoils) {
        result.source = QStringLiteral("coil");
    } else if (functionCode == kFcReportSlaveId) {
        result.source = QStringLiteral("slave-id");
    } else {
        result.source = QStringLiteral("pdu");
    }
    return result;
}

IdentifyResult identifyFromResponse(unsigned char unitId, unsigned char functionCode, const QByteArray& pdu) {
    return resultFromPdu(unitId, functionCode, pdu);
}

void mergeIdentify(IdentifyResult* target, const IdentifyResult& answer) {
    if (!target || !answer.ok) {
        return;
    }
    target->ok = true;
    target->unitId = answer.unitId;
    fillIfEmpty(&target->vendor, answer.vendor);
    fillIfEmpty(&target->productCode, answer.productCode);
    fillIfEmpty(&target->version, answer.version);
    fillIfEmpty(&target->vendorUrl, answer.vendorUrl);
    fillIfEmpty(&target->productName, answer.productName);
    fillIfEmpty(&target->modelName, answer.modelName);
    fillIfEmpty(&target->userApplication, answer.userApplication);
    fillIfEmpty(&target->source, answer.source);
}

void combineIdentify(IdentifyResult* target, const IdentifyResult& answer) {
    mergeIdentify(target, answer);
}

bool hasMetadata(const IdentifyResult& result) {
    // A vendor URL alone says nothing about the device itself.
    return !result.vendor.isEmpty() || !result.productCode.isEmpty() || !result.version.isEmpty() ||
           !result.productName.isEmpty() || !result.modelName.isEmpty() || !result.userApplication.isEmpty();
}

QMap<QString, QString> identityItemValues(const IdentifyResult& result) {
    QMap<QString, QString> values;
    insertTrimmed(&values, QStringLiteral("vendor"), result.vendor);
    insertTrimmed(&values, QStringLiteral("version"), result.version);
    insertTrimmed(&values, QStringLiteral("vendor_url"), result.vendorUrl);
    insertTrimmed(&values, QStringLiteral("product_name"), result.productName);
    insertTrimmed(&values, QStringLiteral("user_application"), result.userApplication);
    const QString model = result.modelName.trimmed();
    insertTrimmed(&values, QStringLiteral("model"), model);
    // Report Slave ID fills product code and model with the same text; publish it once, as the model.
    const QString productCode = result.productCode.trimmed();
    if (!productCode.isEmpty() && productCode != model) {
        values.insert(QStringLiteral("product_code"), productCode);
    }
    return values;
}

}  // namespace ModbusDiscovery
