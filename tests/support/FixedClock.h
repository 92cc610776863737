// Stops the wall clock (Util::RealTimeNow: the log's time stamps and the time
// texts) at one instant while in scope, and puts the previous clock back. One
// at a time: the instant is shared.
#pragma once

#include <ctime>

#include "util/Format.h"

class FixedClock {
public:
    // Seconds since 1970-01-01 00:00:00 UTC, and the nanoseconds past that second.
    FixedClock(long long seconds, long nanoseconds) : m_previous(Stop(seconds, nanoseconds)) {}
    ~FixedClock() { Util::SetRealTimeClock(m_previous); }
    FixedClock(const FixedClock&) = delete;
    FixedClock& operator=(const FixedClock&) = delete;

private:
    static Util::RealTimeClock Stop(long long seconds, long nanoseconds) {
        s_now.tv_sec = seconds;
        s_now.tv_nsec = nanoseconds;
        return Util::SetRealTimeClock(&Now);
    }
    static timespec Now() { return s_now; }
    static inline timespec s_now{};
    Util::RealTimeClock m_previous;
};
