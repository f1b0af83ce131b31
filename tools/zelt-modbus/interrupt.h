#pragma once
// Ctrl-C (SIGINT) and SIGTERM set a flag that long-running subcommands check between steps, so that they end
// cleanly: the current batch completes, the plugin is stopped and the output stays whole.

#include <atomic>

namespace zelt_cli {

void installInterruptHandler();
bool interrupted();
// The flag itself, for code that takes a cancel flag (the discovery run).
std::atomic<bool>* interruptFlag();
// Sleeps for `ms` milliseconds or until interrupted; false when interrupted.
bool sleepUnlessInterrupted(int ms);

}  // namespace zelt_cli
