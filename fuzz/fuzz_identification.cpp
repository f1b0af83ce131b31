// Identification answers over arbitrary PDUs: the device-id walk, Report Slave ID, the combination of several
// answers and the candidate JSON built from the result.

#include <fuzzer/FuzzedDataProvider.h>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstddef>
#include <cstdint>
#include <string>

#include "discovery/candidate.h"
#include "discovery/identification.h"
#include "fuzz/fuzz_check.h"

namespace {

// Up to this many answers are folded into one result, like a device answering several requests.
constexpr int kMaxAnswers = 4;

QByteArray bytesOf(const std::string& text) {
    return QByteArray(text.data(), static_cast<int>(text.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const unsigned char unitId = input.ConsumeIntegral<unsigned char>();
    const int answers = input.ConsumeIntegralInRange<int>(1, kMaxAnswers);

    ModbusDiscovery::IdentifyResult combined;
    combined.unitId = unitId;
    for (int i = 0; i < answers; ++i) {
        const unsigned char functionCode = input.ConsumeIntegral<unsigned char>();
        const QByteArray pdu = bytesOf(input.ConsumeRandomLengthString(input.remaining_bytes()));

        ModbusDiscovery::IdentifyResult deviceId;
        ModbusDiscovery::parseDeviceIdPdu(pdu, &deviceId);
        ModbusDiscovery::IdentifyResult slaveId;
        ModbusDiscovery::parseReportSlaveId(pdu, &slaveId);
        ModbusDiscovery::asciiFromBytes(pdu);

        const ModbusDiscovery::IdentifyResult answer =
            ModbusDiscovery::identifyFromResponse(unitId, functionCode, pdu);
        if (answer.ok) FUZZ_CHECK(answer.unitId == unitId);
        ModbusDiscovery::combineIdentify(&combined, answer);
    }
    ModbusDiscovery::hasMetadata(combined);
    ModbusDiscovery::identityItemValues(combined);

    ModbusDiscovery::Candidate candidate;
    candidate.address = QStringLiteral("127.0.0.1");
    candidate.unitId = unitId;
    ModbusDiscovery::applyIdentify(&candidate, combined);
    ModbusDiscovery::uidFor(candidate);
    ModbusDiscovery::identityLabel(candidate);
    const QJsonObject json = ModbusDiscovery::candidateToJson(candidate);
    // Whatever the device sent, the host must get an object that survives a JSON round trip.
    const QByteArray text = QJsonDocument(json).toJson(QJsonDocument::Compact);
    FUZZ_CHECK(QJsonDocument::fromJson(text).isObject());
    return 0;
}
