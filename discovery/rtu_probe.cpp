#include "discovery/rtu_probe.h"

#include "discovery/constants.h"
#include "discovery/frames.h"
#include "discovery/identification_internal.h"
#include "discovery/rtu_answer.h"
#include "discovery/socket_io.h"
#include "discovery/unit_identification.h"

namespace ModbusDiscovery {

namespace {

// One request and its answer. `linkLost` is set when the connection can carry nothing more, so that the
// remaining units are not each given a time-out on a dead socket.
IdentifyResult exchangeRtu(int fd, quint8 unitId, const QByteArray& pdu, quint8 expectedFc, int timeoutMs,
                           bool* linkLost) {
    // Converters may send heartbeats, and a slow unit's late answer may still arrive: neither is the answer
    // to this request.
    if (!discardPending(fd) || !sendAll(fd, wrapRtu(unitId, pdu), timeoutMs)) {
        *linkLost = true;
        return IdentifyResult();
    }
    const Stopwatch clock;
    QByteArray received;
    QByteArray answer;
    while (!findRtuAnswer(received, unitId, expectedFc, &answer)) {
        // No frame that is still incomplete can start further back than this.
        if (received.size() > kRtuMaxFrameSize) {
            received.remove(0, received.size() - kRtuMaxFrameSize);
        }
        const long long remaining = timeoutMs - clock.elapsedMs();
        if (remaining < 1 || !recvSome(fd, &received, static_cast<int>(remaining))) {
            return IdentifyResult();
        }
    }
    return resultFromPdu(unitId, expectedFc, answer);
}

}  // namespace

QList<IdentifyResult> identifyOnRtu(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                    int connectTimeoutMs, int readTimeoutMs, const StopCheck& shouldStop) {
    QList<IdentifyResult> results;
    const int fd = connectTcp(host, port, connectTimeoutMs);
    if (fd < 0) {
        return results;
    }
    const ScopedSocket closer(fd);
    QList<quint8> units = unitIds.mid(0, kMaxRtuUnitIds);
    if (units.isEmpty()) {
        units.append(static_cast<quint8>(kDefaultUnitId));
    }
    bool linkLost = false;
    for (const quint8 unit : units) {
        if (linkLost || (shouldStop && shouldStop())) {
            break;
        }
        const UnitExchange exchange = [&](const QByteArray& pdu, quint8 expectedFc) {
            return linkLost ? IdentifyResult()
                            : exchangeRtu(fd, unit, pdu, expectedFc, readTimeoutMs, &linkLost);
        };
        // Most unit ids of a serial line are unused; a unit silent on the basic objects is not asked for the
        // regular ones, only for Report Slave ID.
        const UnitIdentification identification =
            readIdentification(exchange, unit, RegularObjects::SkipAfterSilence);
        if (identification.identified) {
            results.append(identification.result);
        } else if (identification.responded) {
            results.append(answeredWithoutIdentification(identification.result));
        }
    }
    return results;
}

}  // namespace ModbusDiscovery
