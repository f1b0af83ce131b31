#include "plugin/backoff.h"

#include <algorithm>
#include <atomic>
#include <chrono>

namespace {
constexpr qint64 kMsPerSecond = 1000;

// Atomic: polls of several devices read it concurrently while a test sets it.
std::atomic<Backoff::ClockSource> clockSource{nullptr};

qint64 steadyMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
}  // namespace

void Backoff::setClockSource(ClockSource source) {
    clockSource.store(source);
}

qint64 Backoff::clockMs() {
    const ClockSource source = clockSource.load();
    return source ? source() : steadyMs();
}

void Backoff::connectFailed(qint64 nowMs, qint64 maxPauseMs, QString const& error) {
    pause(nowMs, maxPauseMs, error);
}

void Backoff::pollEnded(qint64 nowMs, qint64 maxPauseMs, bool allTimedOut, QString const& error) {
    if (!allTimedOut) {
        succeeded();
        return;
    }
    // Counting goes on through a pause: a device that still does not answer after it is paused again.
    if (++timedOutPolls >= kTimedOutPollsBeforePause) pause(nowMs, maxPauseMs, error);
}

void Backoff::succeeded() {
    resumeAtMs = 0;
    nextPauseMs = kFirstPauseMs;
    timedOutPolls = 0;
}

void Backoff::pause(qint64 nowMs, qint64 maxPauseMs, QString const& error) {
    lastFailure = error;
    if (maxPauseMs <= 0) return;  // 0: try on every poll
    const qint64 pauseMs = std::min(nextPauseMs, maxPauseMs);
    resumeAtMs = nowMs + pauseMs;
    nextPauseMs = std::min(nextPauseMs * 2, maxPauseMs);
}

qint64 Backoff::remainingSeconds(qint64 nowMs) const {
    return (remainingMs(nowMs) + kMsPerSecond - 1) / kMsPerSecond;
}

QString Backoff::pausedText(qint64 nowMs) const {
    return lastFailure + QStringLiteral("; next attempt in %1 s").arg(remainingSeconds(nowMs));
}
