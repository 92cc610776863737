// Work that must succeed is tried again after a failure, with waits that grow so
// that a lasting fault costs a few commands a minute, not a hundred a second.
#include "src/NetworkRetry.h"

#include <time.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "logging/Logging.h"
#include "src/NetworkClock.h"
#include "src/NetworkShell.h"
#include "src/NetworkStop.h"
#include "util/Format.h"

namespace {

// The runner's steady clock unless a test has set its own.
MonotonicClock g_clock = SteadyMs;

// 1, 2, 4 ... seconds after the first, second, third ... failure, at most a minute.
int64_t RetryDelayMs(unsigned int failures) {
    const unsigned int doublings = std::min(failures - 1U, 6U);
    return std::min<int64_t>(int64_t{1000} << doublings, kRetryMaxDelayMs);
}

}  // namespace

int64_t MonotonicMs() { return g_clock(); }

MonotonicClock SetMonotonicClock(MonotonicClock clock) {
    return std::exchange(g_clock, clock != nullptr ? clock : SteadyMs);
}

bool WorkDue(const WORK_HEALTH& health) {
    return (health.m_nFailures == 0 && health.m_nRetryAtMs == 0) || MonotonicMs() >= health.m_nRetryAtMs;
}

void NoteWorkFailed(WORK_HEALTH& health, const std::string& work, const WORK_FAILURE& failure) {
    // Work cut short by a stop is no fault, and there is no later attempt.
    if (StopRequested()) return;
    ++health.m_nFailures;
    const int64_t delayMs = RetryDelayMs(health.m_nFailures);
    health.m_nRetryAtMs = MonotonicMs() + delayMs;
    health.m_lastFailure = failure;
    health.m_failedAt = Util::RealTimeNow();
    health.m_recoveredAt = timespec{};
    LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
              Util::Format("Retrying %s in %lld s (failed attempts: %u)", work.c_str(),
                           static_cast<long long>(delayMs / 1000), health.m_nFailures));
}

void NoteWorkFailedQuietly(WORK_HEALTH& health, const WORK_FAILURE& failure) {
    ++health.m_nFailures;
    health.m_nRetryAtMs = MonotonicMs() + RetryDelayMs(health.m_nFailures);
    // A copy first: `failure` may be the record's own last failure.
    WORK_FAILURE noted = failure;
    health.m_lastFailure = std::move(noted);
    health.m_failedAt = Util::RealTimeNow();
    health.m_recoveredAt = timespec{};
}

void NoteWorkDone(WORK_HEALTH& health, const std::string& work) {
    if (health.m_bUndonePending) {
        health.m_bUndonePending = false;
        health.m_nRepairedAtMs = MonotonicMs();
        health.m_nRetryAtMs = 0;
        LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false, "Repaired " + work + " after an outside change");
    }
    if (health.m_nFailures == 0) return;
    LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false,
              Util::Format("Recovered %s after %u failed attempts", work.c_str(), health.m_nFailures));
    health.m_nFailures = 0;
    health.m_nRetryAtMs = 0;
    health.m_recoveredAt = Util::RealTimeNow();
}

void NoteWorkUndone(WORK_HEALTH& health, const std::string& found) {
    const int64_t nowMs = MonotonicMs();
    const bool again = health.m_nUndone != 0 && nowMs - health.m_nRepairedAtMs < kUndoneAgainMs;
    health.m_nUndone = again ? health.m_nUndone + 1 : 1;
    health.m_lastUndone = found;
    health.m_undoneAt = Util::RealTimeNow();
    health.m_bUndonePending = true;
    // Failures still pending keep their own wait.
    if (health.m_nFailures == 0) health.m_nRetryAtMs = again ? nowMs + RetryDelayMs(health.m_nUndone - 1) : 0;
}
