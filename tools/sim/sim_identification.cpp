// Answers the simulator builds itself: Read Device Identification (FC 43 / MEI 14) and Report Slave ID (FC
// 17).

#include <algorithm>
#include <vector>

#include "tools/sim/sim_protocol.h"

namespace modbus_sim {

namespace {

// Request PDU: function, MEI type, read device id code, object id.
constexpr int kRequestPduLength = 4;
constexpr int kMeiTypeOffset = 1;
constexpr int kReadCodeOffset = 2;
constexpr int kObjectIdOffset = 3;

// Read device id codes (Modbus Application Protocol 1.1b3, 6.21).
constexpr int kReadBasic = 1;
constexpr int kReadRegular = 2;
constexpr int kReadExtended = 3;
constexpr int kReadSpecific = 4;

// Highest object id of each category: basic 0x00-0x02, regular up to 0x7F, extended up to 0xFF.
constexpr int kLastBasicObject = 0x02;
constexpr int kLastRegularObject = 0x7F;
constexpr int kLastExtendedObject = 0xFF;

// Conformity level: the category, with bit 0x80 set because individual access (code 4) is supported.
constexpr int kConformityIndividualAccess = 0x80;

constexpr char kMoreFollows = static_cast<char>(0xFF);
// Answer header: function, MEI type, read code, conformity level, more follows, next object id, object count.
constexpr int kAnswerHeaderLength = 7;
constexpr int kMoreFollowsOffset = 4;
constexpr int kNextObjectIdOffset = 5;
constexpr int kObjectCountOffset = 6;
// Each object is id, length, value; the length is one byte.
constexpr int kObjectHeaderLength = 2;
constexpr int kMaxObjectValueLength = 0xFF;

// Report Slave ID answer: function, byte count, payload.
constexpr int kReportSlaveIdHeaderLength = 2;

int lastObjectOf(int readCode) {
    switch (readCode) {
        case kReadBasic:
            return kLastBasicObject;
        case kReadRegular:
            return kLastRegularObject;
        default:
            return kLastExtendedObject;
    }
}

int conformityLevel(const DeviceIdentification& identification) {
    if (identification.conformityLevel > 0) return identification.conformityLevel;
    int category = kReadBasic;
    for (const auto& entry : identification.objects) {
        if (entry.first > kLastRegularObject) {
            category = kReadExtended;
        } else if (entry.first > kLastBasicObject) {
            category = std::max(category, kReadRegular);
        }
    }
    return kConformityIndividualAccess | category;
}

void appendObject(QByteArray* pdu, int id, const QByteArray& value, int room) {
    const int length =
        std::min({static_cast<int>(value.size()), kMaxObjectValueLength, room - kObjectHeaderLength});
    pdu->append(static_cast<char>(id));
    pdu->append(static_cast<char>(length));
    pdu->append(value.left(length));
}

}  // namespace

QByteArray readDeviceIdentificationPdu(const DeviceIdentification& identification,
                                       const QByteArray& requestPdu, int* exceptionCode) {
    *exceptionCode = 0;
    if (!identification.enabled) {
        *exceptionCode = kExceptionIllegalFunction;
        return {};
    }
    if (requestPdu.size() < kRequestPduLength ||
        static_cast<uint8_t>(requestPdu.at(kMeiTypeOffset)) != kMeiReadDeviceIdentification) {
        *exceptionCode =
            requestPdu.size() < kRequestPduLength ? kExceptionIllegalDataValue : kExceptionIllegalFunction;
        return {};
    }
    if (requestPdu.size() != kRequestPduLength) {
        *exceptionCode = kExceptionIllegalDataValue;
        return {};
    }
    const int readCode = static_cast<uint8_t>(requestPdu.at(kReadCodeOffset));
    const int objectId = static_cast<uint8_t>(requestPdu.at(kObjectIdOffset));
    if (readCode < kReadBasic || readCode > kReadSpecific) {
        *exceptionCode = kExceptionIllegalDataValue;
        return {};
    }

    QByteArray pdu = requestPdu.left(kReadCodeOffset + 1);
    pdu.append(static_cast<char>(conformityLevel(identification)));
    pdu.append(2, '\0');  // more follows, next object id
    pdu.append('\0');     // object count

    if (readCode == kReadSpecific) {
        const auto found = identification.objects.find(objectId);
        if (found == identification.objects.end()) {
            *exceptionCode = kExceptionIllegalDataAddress;
            return {};
        }
        appendObject(&pdu, found->first, found->second, kMaxPduLength - kAnswerHeaderLength);
        pdu[kObjectCountOffset] = 1;
        return pdu;
    }

    // Stream access: the objects of the category from the start object on. A start object that the category
    // does not hold restarts the stream at the beginning, as a device does for an unknown object id.
    const int last = lastObjectOf(readCode);
    std::vector<int> ids;
    for (const auto& entry : identification.objects) {
        if (entry.first <= last) ids.push_back(entry.first);
    }
    auto start = std::find(ids.begin(), ids.end(), objectId);
    if (start == ids.end()) start = ids.begin();

    int count = 0;
    for (auto it = start; it != ids.end(); ++it) {
        const QByteArray& value = identification.objects.at(*it);
        const int room = kMaxPduLength - pdu.size();
        const bool limitReached =
            identification.objectsPerResponse > 0 && count >= identification.objectsPerResponse;
        const bool fits =
            kObjectHeaderLength + std::min(static_cast<int>(value.size()), kMaxObjectValueLength) <= room;
        // An object too long for an empty answer is cut to fit rather than never sent.
        if (limitReached || (!fits && count > 0)) {
            pdu[kMoreFollowsOffset] = kMoreFollows;
            pdu[kNextObjectIdOffset] = static_cast<char>(*it);
            break;
        }
        appendObject(&pdu, *it, value, room);
        ++count;
    }
    pdu[kObjectCountOffset] = static_cast<char>(count);
    return pdu;
}

QByteArray reportSlaveIdPdu(const QByteArray& payload) {
    const QByteArray bytes = payload.left(kMaxPduLength - kReportSlaveIdHeaderLength);
    QByteArray pdu;
    pdu.append(static_cast<char>(kFunctionReportSlaveId));
    pdu.append(static_cast<char>(bytes.size()));
    pdu.append(bytes);
    return pdu;
}

}  // namespace modbus_sim
