#pragma once

#include <QList>
#include <QStringList>
#include <atomic>

#include "discovery/candidate.h"
#include "discovery/options.h"
#include "discovery/transport.h"

namespace ModbusDiscovery {

// Scans the hosts of the options on worker threads and returns the new candidates; blocks until all
// workers have ended.
QList<Candidate> discoverDevices(const Options& options, Transport& transport, QStringList* log,
                                 std::atomic<bool>* cancel);

}  // namespace ModbusDiscovery
