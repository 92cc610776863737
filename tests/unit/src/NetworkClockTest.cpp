#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <chrono>
#include <string>

#include "src/NetworkClock.h"
#include "src/NetworkStop.h"
#include "tests/support/StopRequestGuard.h"

namespace {

TEST(SleepLettingSignalsInTest, PauseEndsWhenAStopsGraceRunsOut) {
    StopRequestGuard guard;
    auto start = std::chrono::steady_clock::now();
    SleepLettingSignalsIn(300);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    RequestStop();
    start = std::chrono::steady_clock::now();
    SleepLettingSignalsIn(5000);
    auto elapsed = std::chrono::steady_clock::now() - start;
    // The one-second grace, counted from when the stop was first noticed, in
    // whole milliseconds; well before the 5 s asked and within the 3 s a stop
    // may take.
    EXPECT_GE(elapsed, std::chrono::milliseconds(990));
    EXPECT_LT(elapsed, std::chrono::milliseconds(3000));
}

void OnTimerSignal(int /*sig*/) {}

TEST(SleepLettingSignalsInTest, APauseIsNeverShorterThanAsked) {
    StopRequestGuard guard;
    // Signals taken meanwhile (a child's end, an emulator's timers) wake the
    // sleep early many times; the pause goes on to its full length all the same.
    struct sigaction action {};
    action.sa_handler = OnTimerSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
    itimerval every{};
    every.it_interval.tv_usec = 300;
    every.it_value.tv_usec = 300;
    setitimer(ITIMER_REAL, &every, nullptr);
    std::string shorter;
    // Short pauses, where a millisecond cut off would show most often.
    for (unsigned int i = 0; i < 200 && shorter.empty(); ++i) {
        const unsigned int asked = 1 + i % 3;
        const auto start = std::chrono::steady_clock::now();
        SleepLettingSignalsIn(asked);
        const auto took = std::chrono::steady_clock::now() - start;
        if (took < std::chrono::milliseconds(asked)) {
            shorter = "pause " + std::to_string(i) + " of " + std::to_string(asked) + " ms took " +
                      std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(took).count()) + " us";
        }
    }
    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_EQ(shorter, "");
}

}  // namespace
