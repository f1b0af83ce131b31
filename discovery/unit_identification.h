#pragma once
// The identification requests asked of one unit and how their answers add up, whatever the framing that
// carries them: Read Device Identification (basic, then regular objects), then Report Slave ID.

#include <QByteArray>
#include <QtGlobal>
#include <functional>

#include "discovery/identify_result.h"

namespace ModbusDiscovery {

// Sends one request PDU to the unit and interprets its answer for the expected function code; ok stays false
// when no usable answer came.
using UnitExchange = std::function<IdentifyResult(const QByteArray& pdu, quint8 expectedFunctionCode)>;

struct UnitIdentification {
    IdentifyResult result;    // the answers merged, the first one supplying a field winning
    bool identified = false;  // the answers carried metadata: `result` is final
    bool responded = false;   // the unit answered at least one request, if only with an exception
};

enum class RegularObjects {
    AlwaysAsk,         // some devices keep the model name in the regular objects only
    SkipAfterSilence,  // a unit silent on the basic objects is taken to be absent, saving one time-out
};

UnitIdentification readIdentification(const UnitExchange& exchange, quint8 unitId, RegularObjects regular);

// A unit that answered without identification is still a Modbus server: ok, and "exception" when no answer
// named its kind.
IdentifyResult answeredWithoutIdentification(IdentifyResult result);

}  // namespace ModbusDiscovery
