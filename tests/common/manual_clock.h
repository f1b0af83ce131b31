#pragma once
// The poll path's clock (Backoff::clockMs), stopped while an object of this class lives: time moves only when
// the test advances it, so a back-off pause lasts exactly as long as the test says however loaded the
// machine. One at a time; the steady clock is back when it is destroyed.

#include <atomic>

#include "plugin/backoff.h"

namespace test_support {

class ManualClock {
public:
    // Far from 0, which the plugin's never-set times hold, as a steady clock on a machine that has been up.
    static constexpr qint64 kStartMs = 1000000000;

    ManualClock() {
        nowMs().store(kStartMs);
        Backoff::setClockSource(&read);
    }
    ~ManualClock() { Backoff::setClockSource(nullptr); }
    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;

    void advance(qint64 ms) { nowMs().fetch_add(ms); }
    qint64 now() const { return nowMs().load(); }

private:
    // A plain function pointer is what the plugin takes, so the time lives outside the object. Atomic: the
    // plugin's threads read it while the test advances it.
    static std::atomic<qint64>& nowMs() {
        static std::atomic<qint64> value{kStartMs};
        return value;
    }
    static qint64 read() { return nowMs().load(); }
};

}  // namespace test_support
