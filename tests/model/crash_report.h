#pragma once
// A configuration that crashes the process, trips a sanitizer or hangs must still name its seed: the replay
// command of the running configuration is printed from the signal handlers, the sanitizers' death callback
// and a watchdog.

#include <QString>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace model_check {

// Installs the handlers once per process.
void installCrashReport();

// Names the running configuration while it lives; a configuration that outlives `budget` is reported and
// the process aborted.
class RunningConfiguration {
public:
    RunningConfiguration(const QString& replay, std::chrono::milliseconds budget);
    ~RunningConfiguration();
    RunningConfiguration(const RunningConfiguration&) = delete;
    RunningConfiguration& operator=(const RunningConfiguration&) = delete;

private:
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    std::thread watchdog;
};

}  // namespace model_check
