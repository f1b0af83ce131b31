#include "tools/zelt-modbus/interrupt.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace zelt_cli {

namespace {

std::atomic<bool> flag{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is set from a signal handler");

// Short enough that Ctrl-C feels immediate, long enough not to spin.
constexpr int kSleepSliceMs = 20;

void onSignal(int) {
    flag.store(true);
}

}  // namespace

void installInterruptHandler() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() {
    return flag.load();
}

std::atomic<bool>* interruptFlag() {
    return &flag;
}

bool sleepUnlessInterrupted(int ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!interrupted()) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return true;
        std::this_thread::sleep_for(
            std::min(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now),
                     std::chrono::milliseconds(kSleepSliceMs)));
    }
    return false;
}

}  // namespace zelt_cli
