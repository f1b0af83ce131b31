#pragma once
// Identification of the units behind one connection that carries MBAP frames, plain or inside TLS: each unit
// asked as unit_identification asks it, then a plain read for units that gave no identification, and the
// gateway unit 255 when no unit answered.

#include <QList>
#include <QtGlobal>

#include "discovery/identify_result.h"
#include "discovery/probe_channel.h"

namespace ModbusDiscovery {

QList<IdentifyResult> identifyUnitsOverMbap(ProbeChannel& channel, const QList<quint8>& unitIds,
                                            int readTimeoutMs);

}  // namespace ModbusDiscovery
