#pragma once
// When a device that cannot be reached, or stops answering, is tried again. Pure: the caller passes the time
// (milliseconds of clockMs()), so the schedule is tested without waiting.

#include <QString>
#include <QtGlobal>

class Backoff {
public:
    static constexpr qint64 kFirstPauseMs = 1000;
    // A device may miss one poll's answers (a reboot, a busy gateway); three in a row mean it is gone.
    static constexpr int kTimedOutPollsBeforePause = 3;

    // The clock the whole poll path runs on. Tests replace it to step time by hand; nullptr restores the
    // steady clock.
    using ClockSource = qint64 (*)();
    static void setClockSource(ClockSource source);
    // The time now on that clock: steady milliseconds unless a source was set.
    static qint64 clockMs();

    // A connection attempt failed with `error`: the device is paused at once.
    void connectFailed(qint64 nowMs, qint64 maxPauseMs, QString const& error);
    // A poll that sent requests ended; `allTimedOut` when not one of them was answered.
    void pollEnded(qint64 nowMs, qint64 maxPauseMs, bool allTimedOut, QString const& error);
    // The device answered: the pause and its doubling start over.
    void succeeded();

    bool paused(qint64 nowMs) const { return nowMs < resumeAtMs; }
    // The last poll got no answer at all: the next one need not wait out a time-out for every request.
    bool lastPollTimedOut() const { return timedOutPolls > 0; }
    qint64 remainingMs(qint64 nowMs) const { return paused(nowMs) ? resumeAtMs - nowMs : 0; }
    // Whole seconds until the next attempt, rounded up, so that a pause never reads as 0 while it lasts.
    qint64 remainingSeconds(qint64 nowMs) const;
    // The device error of a poll refused during the pause: the last failure and when the next try comes.
    QString pausedText(qint64 nowMs) const;

private:
    void pause(qint64 nowMs, qint64 maxPauseMs, QString const& error);

    qint64 resumeAtMs = 0;
    qint64 nextPauseMs = kFirstPauseMs;
    int timedOutPolls = 0;
    QString lastFailure;
};
