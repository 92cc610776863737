// Forgets the daemon's stop request however a test ends.
#pragma once

#include "src/NetworkStop.h"

struct StopRequestGuard {
    StopRequestGuard() { ClearStopRequest(); }
    ~StopRequestGuard() { ClearStopRequest(); }
    StopRequestGuard(const StopRequestGuard&) = delete;
    StopRequestGuard& operator=(const StopRequestGuard&) = delete;
};
