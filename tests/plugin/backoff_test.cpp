// The back-off schedule, driven by a clock the test sets.

#include "plugin/backoff.h"

#include <gtest/gtest.h>

#include <chrono>

#include "common/manual_clock.h"

namespace {

const QString kRefused = QStringLiteral("Could not connect. Connection refused");

TEST(BackoffTest, AFailedConnectPausesOneSecondThenDoublesUpToTheLongestPause) {
    Backoff backoff;
    EXPECT_FALSE(backoff.paused(0));
    backoff.connectFailed(1000, 5000, kRefused);
    EXPECT_TRUE(backoff.paused(1000));
    EXPECT_TRUE(backoff.paused(1999));
    EXPECT_FALSE(backoff.paused(2000));
    backoff.connectFailed(2000, 5000, kRefused);
    EXPECT_EQ(backoff.remainingMs(2000), 2000);
    backoff.connectFailed(4000, 5000, kRefused);
    EXPECT_EQ(backoff.remainingMs(4000), 4000);
    backoff.connectFailed(8000, 5000, kRefused);
    EXPECT_EQ(backoff.remainingMs(8000), 5000);
    backoff.connectFailed(13000, 5000, kRefused);
    EXPECT_EQ(backoff.remainingMs(13000), 5000);
}

TEST(BackoffTest, ASuccessEndsThePauseAndTheDoublingStartsOver) {
    Backoff backoff;
    backoff.connectFailed(0, 10000, kRefused);
    backoff.connectFailed(1000, 10000, kRefused);
    EXPECT_EQ(backoff.remainingMs(1000), 2000);
    backoff.succeeded();
    EXPECT_FALSE(backoff.paused(1000));
    backoff.connectFailed(1000, 10000, kRefused);
    EXPECT_EQ(backoff.remainingMs(1000), 1000);
}

TEST(BackoffTest, ThreePollsInARowWithoutAnyAnswerPause) {
    const QString timedOut = QStringLiteral("Connection timed out");
    Backoff backoff;
    backoff.pollEnded(0, 10000, true, timedOut);
    backoff.pollEnded(100, 10000, true, timedOut);
    EXPECT_FALSE(backoff.paused(100));
    backoff.pollEnded(200, 10000, true, timedOut);
    EXPECT_TRUE(backoff.paused(200));
    EXPECT_EQ(backoff.pausedText(200), QStringLiteral("Connection timed out; next attempt in 1 s"));
    // Still no answer after the pause: paused again at once, twice as long.
    backoff.pollEnded(1300, 10000, true, timedOut);
    EXPECT_EQ(backoff.remainingMs(1300), 2000);
}

TEST(BackoffTest, AnAnsweredPollInBetweenStartsTheCountAgain) {
    const QString timedOut = QStringLiteral("Connection timed out");
    Backoff backoff;
    backoff.pollEnded(0, 10000, true, timedOut);
    backoff.pollEnded(100, 10000, true, timedOut);
    backoff.pollEnded(200, 10000, false, QString());
    backoff.pollEnded(300, 10000, true, timedOut);
    backoff.pollEnded(400, 10000, true, timedOut);
    EXPECT_FALSE(backoff.paused(400));
    backoff.pollEnded(500, 10000, true, timedOut);
    EXPECT_TRUE(backoff.paused(500));
}

TEST(BackoffTest, ALongestPauseOfZeroTriesOnEveryPoll) {
    Backoff backoff;
    for (int i = 0; i < 5; ++i) backoff.connectFailed(i, 0, kRefused);
    EXPECT_FALSE(backoff.paused(5));
}

TEST(BackoffTest, TheSecondsLeftAreRoundedUp) {
    Backoff backoff;
    backoff.connectFailed(0, 600000, kRefused);
    backoff.connectFailed(1000, 600000, kRefused);  // 2 s from 1000
    EXPECT_EQ(backoff.remainingSeconds(1000), 2);
    EXPECT_EQ(backoff.remainingSeconds(1001), 2);
    EXPECT_EQ(backoff.remainingSeconds(2000), 1);
    EXPECT_EQ(backoff.remainingSeconds(2999), 1);
    EXPECT_EQ(backoff.remainingSeconds(3000), 0);
    EXPECT_EQ(backoff.pausedText(1500),
              QStringLiteral("Could not connect. Connection refused; next attempt in 2 s"));
}

qint64 steadyNowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

TEST(BackoffClockTest, TheClockReadsTheSetSourceUntilTheSteadyClockIsRestored) {
    {
        test_support::ManualClock clock;
        EXPECT_EQ(Backoff::clockMs(), test_support::ManualClock::kStartMs);
        clock.advance(1500);
        EXPECT_EQ(Backoff::clockMs(), test_support::ManualClock::kStartMs + 1500);
        EXPECT_EQ(clock.now(), test_support::ManualClock::kStartMs + 1500);
    }
    const qint64 before = steadyNowMs();
    const qint64 now = Backoff::clockMs();
    const qint64 after = steadyNowMs();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

}  // namespace
