#include "discovery/mbap_probe.h"

#include "discovery/constants.h"
#include "discovery/frames.h"
#include "discovery/identification_internal.h"
#include "discovery/unit_identification.h"

namespace ModbusDiscovery {

namespace {

// MBAP header up to and including the length field: transaction id (2), protocol id (2), length (2).
constexpr int kMbapPrefixSize = 6;
constexpr int kMbapLengthOffset = 4;
// The length counts the unit id plus the PDU: at least a function code, at most the 253-byte PDU.
constexpr int kMbapMinLength = 2;
constexpr int kMbapMaxLength = 260;

// Gateways often answer only on this unit id; it is tried when nothing else answered.
constexpr quint8 kGatewayUnitId = 255;

QByteArray readMbapFrame(ProbeChannel& channel, int timeoutMs) {
    QByteArray header;
    if (!channel.recvExact(&header, kMbapPrefixSize, timeoutMs)) {
        return QByteArray();
    }
    const int length = (static_cast<quint8>(header.at(kMbapLengthOffset)) << 8) |
                       static_cast<quint8>(header.at(kMbapLengthOffset + 1));
    if (length < kMbapMinLength || length > kMbapMaxLength) {
        return QByteArray();
    }
    QByteArray body;
    if (!channel.recvExact(&body, length, timeoutMs)) {
        return QByteArray();
    }
    return header + body;
}

IdentifyResult exchangeConnected(ProbeChannel& channel, quint8 unitId, const QByteArray& pdu,
                                 quint8 expectedFc, int timeoutMs, quint16* transactionId) {
    const quint16 transaction = (*transactionId)++;
    if (!channel.sendAll(wrapMbap(transaction, unitId, pdu), timeoutMs)) {
        return IdentifyResult();
    }
    const QByteArray frame = readMbapFrame(channel, timeoutMs);
    quint16 answerTransaction = 0;
    unsigned char answerUnit = 0;
    QByteArray answerPdu;
    if (!parseMbap(frame, &answerTransaction, &answerUnit, &answerPdu)) {
        return IdentifyResult();
    }
    // The next frame on the connection is the answer: devices that echo a wrong transaction or unit id
    // are still Modbus servers worth reporting.
    return resultFromPdu(unitId, expectedFc, answerPdu);
}

IdentifyResult probeConnected(ProbeChannel& channel, quint8 unitId, int timeoutMs, quint16* transactionId) {
    const UnitExchange exchange = [&](const QByteArray& pdu, quint8 expectedFc) {
        return exchangeConnected(channel, unitId, pdu, expectedFc, timeoutMs, transactionId);
    };
    const UnitIdentification identification = readIdentification(exchange, unitId, RegularObjects::AlwaysAsk);
    if (identification.identified) {
        return identification.result;
    }
    if (identification.responded) {
        return answeredWithoutIdentification(identification.result);
    }
    // Nothing spoke yet: a plain read tells a Modbus server from a silent port.
    const IdentifyResult holding = exchange(readHoldingRegistersPdu(), kFcReadHolding);
    if (holding.ok) {
        return holding;
    }
    const IdentifyResult coil = exchange(readCoilsPdu(), kFcReadCoils);
    if (coil.ok) {
        return coil;
    }
    return IdentifyResult();
}

}  // namespace

QList<IdentifyResult> identifyUnitsOverMbap(ProbeChannel& channel, const QList<quint8>& unitIds,
                                            int readTimeoutMs) {
    QList<IdentifyResult> results;
    QList<quint8> units = unitIds;
    if (units.isEmpty()) {
        units.append(static_cast<quint8>(kDefaultUnitId));
    }
    quint16 transactionId = 1;
    for (const quint8 unit : units) {
        const IdentifyResult result = probeConnected(channel, unit, readTimeoutMs, &transactionId);
        if (result.ok) {
            results.append(result);
        }
    }
    if (results.isEmpty() && !units.contains(kGatewayUnitId)) {
        const IdentifyResult result = probeConnected(channel, kGatewayUnitId, readTimeoutMs, &transactionId);
        if (result.ok) {
            results.append(result);
        }
    }
    return results;
}

}  // namespace ModbusDiscovery
