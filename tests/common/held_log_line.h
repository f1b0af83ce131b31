#pragma once
// Holds the thread that logs a given line inside the stand-in host's log call until release(), so that a test
// can keep the plugin at that point (for example inside a device lock) for as long as it needs, without
// timing.

#include <QString>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "tools/standin/standin_host.h"

namespace test_support {

class HeldLogLine {
public:
    // Bound for every wait here: a hang guard, never reached on a working plugin however slow the machine.
    static constexpr std::chrono::seconds kHangGuard{60};

    explicit HeldLogLine(const QString& line) {
        zelt_standin::Host::instance().setLogSink([this, line](zelt_standin::LogLevel, const QString& text) {
            if (text != line) return;
            std::unique_lock<std::mutex> lock(mutex);
            held = true;
            changed.notify_all();
            changed.wait_for(lock, kHangGuard, [this] { return released; });
        });
    }
    // Lets go of a held thread at the latest here.
    ~HeldLogLine() {
        release();
        zelt_standin::Host::instance().setLogSink(nullptr);
    }
    HeldLogLine(const HeldLogLine&) = delete;
    HeldLogLine& operator=(const HeldLogLine&) = delete;

    bool waitUntilHeld() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, kHangGuard, [this] { return held; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool held = false;
    bool released = false;
};

}  // namespace test_support
