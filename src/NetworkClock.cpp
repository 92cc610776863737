// The daemon's steady clock and its pauses, with the seam tests record pauses through.
#include "src/NetworkClock.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <utility>

#include "src/NetworkStop.h"

namespace {

PauseRunner& ActivePauseRunner() {
    static PauseRunner runner;
    return runner;
}

// The real monotonic clock: deadlines never follow a test's clock.
int64_t SteadyNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

}  // namespace

int64_t SteadyMs() { return SteadyNs() / 1000000; }

void Pause(unsigned int milliseconds) {
    const PauseRunner& runner = ActivePauseRunner();
    if (runner) {
        runner(milliseconds);
    } else {
        SleepLettingSignalsIn(milliseconds);
    }
}

PauseRunner SetPauseRunner(PauseRunner runner) { return std::exchange(ActivePauseRunner(), std::move(runner)); }

void SleepLettingSignalsIn(unsigned int milliseconds) {
    // The whole period even when a signal is taken meanwhile (register pulses
    // need their full width), unless a stop's grace runs out first. Counted in
    // nanoseconds: whole milliseconds would let it end up to one early.
    sigset_t none;
    sigset_t previous;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, &previous);
    const int64_t endNs = SteadyNs() + static_cast<int64_t>(milliseconds) * 1000000;
    for (;;) {
        const int64_t graceEndMs = StopGraceEndMs();
        const int64_t untilNs = graceEndMs == INT64_MAX ? endNs : std::min(endNs, graceEndMs * 1000000);
        const int64_t leftNs = untilNs - SteadyNs();
        if (leftNs <= 0) break;
        timespec remaining{};
        remaining.tv_sec = static_cast<time_t>(leftNs / 1000000000);
        remaining.tv_nsec = static_cast<long>(leftNs % 1000000000);
        nanosleep(&remaining, nullptr);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}
