#pragma once
// Releases a set of poller threads for one round at a time, as the host's timers fire for every device at
// once, and tells the coordinator when all of them have polled.

#include <condition_variable>
#include <mutex>

namespace bench {

class Rounds {
public:
    explicit Rounds(int workers) : workers(workers) {}

    // Worker side: waits for round `round` (false when the run is over).
    bool waitForRound(int round) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return started >= round || finished; });
        return !finished;
    }
    void done() {
        std::lock_guard<std::mutex> lock(mutex);
        if (++completed == workers) changed.notify_all();
    }
    // Coordinator side: starts the next round and waits until every worker has polled once.
    void runRound() {
        std::unique_lock<std::mutex> lock(mutex);
        completed = 0;
        ++started;
        changed.notify_all();
        changed.wait(lock, [&] { return completed == workers; });
    }
    void finish() {
        std::lock_guard<std::mutex> lock(mutex);
        finished = true;
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    const int workers;
    int started = 0;
    int completed = 0;
    bool finished = false;
};

}  // namespace bench
