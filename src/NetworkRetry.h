// Work that must succeed is tried again after a failure, with waits that grow
// from 1 s to a minute; the monotonic clock the waits go by, and its seam.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>

#include "src/NetworkShell.h"

// The health of one piece of work that must succeed (the bridge build, one
// interface's addressing): after a failure it is tried again on a later cycle,
// waiting 1, 2, 4 ... up to 60 seconds between attempts.
struct WORK_HEALTH {
    unsigned int m_nFailures = 0;  // failed attempts since the last success; 0: healthy
    int64_t m_nRetryAtMs = 0;      // monotonic time before which it is not tried again
    WORK_FAILURE m_lastFailure;    // the last failure, kept after recovery for the record
    timespec m_failedAt{};         // real time of the last failure; zero: never failed
    timespec m_recoveredAt{};      // real time of the success after it; zero: not yet
    // What someone else undid of the work once done: how often in a row (each
    // found within kUndoneAgainMs of the work's last repair), what and when last
    // (zero: never), and whether its repair is still to succeed.
    unsigned int m_nUndone = 0;
    std::string m_lastUndone;
    timespec m_undoneAt{};
    bool m_bUndonePending = false;
    int64_t m_nRepairedAtMs = 0;  // monotonic time of the last repair after an undo
};

// The longest wait between two attempts of failing work.
constexpr unsigned int kRetryMaxDelayMs = 60000;

// Milliseconds of the monotonic clock the retries and client checks go by.
int64_t MonotonicMs();
// Sets the clock MonotonicMs reads (tests); nullptr puts the system's (SteadyMs) back.
using MonotonicClock = int64_t (*)();
MonotonicClock SetMonotonicClock(MonotonicClock clock);

// Whether the work is healthy or its wait after the last failure is over.
bool WorkDue(const WORK_HEALTH& health);
// Notes a failed attempt of the work named `work` and when to try it again.
void NoteWorkFailed(WORK_HEALTH& health, const std::string& work, const WORK_FAILURE& failure);
// Notes a failed attempt as NoteWorkFailed does, without an entry: for work
// whose failure has said so once already in words of its own.
void NoteWorkFailedQuietly(WORK_HEALTH& health, const WORK_FAILURE& failure);
// Notes a successful attempt; after failures, a NOTICE entry says it recovered,
// and after an outside change, that it is whole again.
void NoteWorkDone(WORK_HEALTH& health, const std::string& work);
// An outside change found this soon after the work was last repaired is the
// same fight going on.
constexpr int64_t kUndoneAgainMs = 10000;

// Notes that someone else undid the work (`found`, in the log's words): it is
// due at once, unless it was undone again within kUndoneAgainMs of its last
// repair; then it waits 1, 2, 4 ... 60 s, as after failures, so a program that
// keeps undoing it does not drive the daemon in a loop.
void NoteWorkUndone(WORK_HEALTH& health, const std::string& found);
