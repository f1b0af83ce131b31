#pragma once
// The discovery run with its thread start handed in, so that tests can make starting a worker fail.

#include <functional>
#include <thread>

#include "discovery/discovery_run.h"

namespace ModbusDiscovery {

// Starts one worker thread running `work`; may throw like the std::thread constructor or out of memory.
using WorkerStarter = std::function<std::thread(std::function<void()> work)>;

QList<Candidate> discoverDevices(const Options& options, Transport& transport, QStringList* log,
                                 std::atomic<bool>* cancel, const WorkerStarter& startWorker);

}  // namespace ModbusDiscovery
