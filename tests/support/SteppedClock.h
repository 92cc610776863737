// Replaces the daemon's monotonic clock (MonotonicMs) with one the test steps by
// hand while in scope, and puts the previous clock back. One at a time: the
// time is shared.
#pragma once

#include <cstdint>

#include "src/NetworkRetry.h"

class SteppedClock {
public:
    explicit SteppedClock(int64_t startMs) : m_previous(SetMonotonicClock(&Now)) { s_nNowMs = startMs; }
    ~SteppedClock() { SetMonotonicClock(m_previous); }
    SteppedClock(const SteppedClock&) = delete;
    SteppedClock& operator=(const SteppedClock&) = delete;

    void Step(int64_t milliseconds) { s_nNowMs += milliseconds; }
    void Set(int64_t milliseconds) { s_nNowMs = milliseconds; }
    static int64_t Now() { return s_nNowMs; }

private:
    static inline int64_t s_nNowMs = 0;
    MonotonicClock m_previous;
};
