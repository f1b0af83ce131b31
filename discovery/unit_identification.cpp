#include "discovery/unit_identification.h"

#include "discovery/constants.h"
#include "discovery/frames.h"
#include "discovery/identification.h"
#include "discovery/identification_internal.h"

namespace ModbusDiscovery {

namespace {

// Read Device Identification codes: basic and regular object categories.
constexpr unsigned char kReadDeviceIdBasic = 1;
constexpr unsigned char kReadDeviceIdRegular = 2;
// A device whose objects keep saying "more follows" is not asked again after this many requests.
constexpr int kMaxDeviceIdRequests = 4;

const QString kSourceDeviceId = QStringLiteral("device-id");
const QString kSourceSlaveId = QStringLiteral("slave-id");
const QString kSourceException = QStringLiteral("exception");

bool collectDeviceId(const UnitExchange& exchange, quint8 readCode, IdentifyResult* target, bool* responded) {
    unsigned char objectId = 0;
    for (int request = 0; request < kMaxDeviceIdRequests; ++request) {
        const IdentifyResult answer = exchange(readDeviceIdPdu(readCode, objectId), kFcMei);
        if (!answer.ok) {
            return false;
        }
        if (responded) {
            *responded = true;
        }
        if (answer.source == kSourceException) {
            return false;
        }
        mergeIdentify(target, answer);
        if (!answer.moreFollows) {
            return hasMetadata(*target) || target->ok;
        }
        objectId = answer.nextObjectId;
    }
    return hasMetadata(*target);
}

}  // namespace

UnitIdentification readIdentification(const UnitExchange& exchange, quint8 unitId, RegularObjects regular) {
    UnitIdentification unit;
    unit.result.unitId = unitId;

    (void)collectDeviceId(exchange, kReadDeviceIdBasic, &unit.result, &unit.responded);
    if (unit.responded || regular == RegularObjects::AlwaysAsk) {
        (void)collectDeviceId(exchange, kReadDeviceIdRegular, &unit.result, &unit.responded);
    }
    if (hasMetadata(unit.result)) {
        unit.result.ok = true;
        unit.result.source = kSourceDeviceId;
        unit.identified = true;
        return unit;
    }

    const IdentifyResult slaveId = exchange(reportSlaveIdPdu(), kFcReportSlaveId);
    if (slaveId.ok) {
        unit.responded = true;
        mergeIdentify(&unit.result, slaveId);
        if (hasMetadata(unit.result)) {
            unit.result.ok = true;
            if (unit.result.source.isEmpty()) {
                unit.result.source = kSourceSlaveId;
            }
            unit.identified = true;
        }
    }
    return unit;
}

IdentifyResult answeredWithoutIdentification(IdentifyResult result) {
    result.ok = true;
    if (result.source.isEmpty()) {
        result.source = kSourceException;
    }
    return result;
}

}  // namespace ModbusDiscovery
