// The retry schedule of failed work on its own: the waits, the log entries and
// the record each call leaves. The cycle's tests (NetworkCycleTest) run the
// same schedule through whole passes.
#include "src/NetworkClock.h"
#include "src/NetworkConfig.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"
#include "src/NetworkStop.h"
#include "tests/support/FixedClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SteppedClock.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

constexpr long long kInstant = 2147483647LL;  // 2038-01-19T03:14:07Z

WORK_FAILURE Failure(const std::string& command, int status) {
    WORK_FAILURE failure;
    failure.m_command = command;
    failure.m_outcome.m_nStatus = status;
    return failure;
}

TEST(WorkDueTest, HealthyWorkIsAlwaysDue) {
    SteppedClock clock(0);
    const WORK_HEALTH health;
    EXPECT_TRUE(WorkDue(health));
    clock.Set(-5000);
    EXPECT_TRUE(WorkDue(health));
}

TEST(NoteWorkFailedTest, WaitsDoubleFromASecondToAMinuteAndTheWorkIsDueWhenTheyEnd) {
    SteppedClock clock(100000);
    LogCapture log;
    WORK_HEALTH health;
    const std::vector<int64_t> waits = {1, 2, 4, 8, 16, 32, 60, 60, 60};
    for (size_t i = 0; i < waits.size(); ++i) {
        SCOPED_TRACE(i);
        NoteWorkFailed(health, "bridge setup", Failure("ip link add name br0 type bridge", 2));
        EXPECT_EQ(health.m_nFailures, i + 1);
        EXPECT_EQ(health.m_nRetryAtMs, SteppedClock::Now() + waits[i] * 1000);
        clock.Step(waits[i] * 1000 - 1);
        EXPECT_FALSE(WorkDue(health));
        clock.Step(1);
        EXPECT_TRUE(WorkDue(health));
    }
    EXPECT_EQ(log.Messages(), (Lines{
                                  "WARN NoteWorkFailed: Retrying bridge setup in 1 s (failed attempts: 1)",
                                  "WARN NoteWorkFailed: Retrying bridge setup in 2 s (failed attempts: 2)",
                                  "WARN NoteWorkFailed: Retrying bridge setup in 4 s (failed attempts: 3)",
                                  "WARN NoteWorkFailed: Retrying bridge setup in 8 s (failed attempts: 4)",
                                  "WARN NoteWorkFailed: Retrying bridge setup in 16 s (failed attempts: 5)",
                                  "WARN NoteWorkFailed: Retrying bridge setup in 32 s (failed attempts: 6)",
                                  "WARN NoteWorkFailed: Retrying bridge setup in 60 s (failed attempts: 7)",
                                  "WARN NoteWorkFailed: Retrying bridge setup in 60 s (failed attempts: 8)",
                                  "WARN NoteWorkFailed: Retrying bridge setup in 60 s (failed attempts: 9)",
                              }));
    EXPECT_EQ(kRetryMaxDelayMs, 60000U);
}

TEST(NoteWorkFailedTest, KeepsTheLastFailureAndItsTime) {
    SteppedClock clock(0);
    LogCapture log;
    WORK_HEALTH health;
    health.m_recoveredAt = {kInstant - 10, 0};
    FixedClock wall(kInstant, 5);
    NoteWorkFailed(health, "PHY mode", Failure("ip link set dev eth1 up", 1));
    EXPECT_EQ(health.m_lastFailure.m_command, "ip link set dev eth1 up");
    EXPECT_EQ(health.m_lastFailure.m_outcome.m_nStatus, 1);
    EXPECT_TRUE(health.m_failedAt == (timespec{kInstant, 5}));
    // Failing again: not recovered since.
    EXPECT_TRUE(health.m_recoveredAt == timespec{});
}

TEST(NoteWorkDoneTest, ASuccessAfterFailuresIsANoticeAndMakesTheWorkHealthy) {
    SteppedClock clock(0);
    LogCapture log;
    WORK_HEALTH health;
    {
        FixedClock wall(kInstant, 0);
        NoteWorkFailed(health, "addressing of veth1", Failure("ip addr add 192.168.1.2/255.255.255.0 dev veth1", 2));
        NoteWorkFailed(health, "addressing of veth1", Failure("ip addr add 192.168.1.2/255.255.255.0 dev veth1", 2));
    }
    FixedClock wall(kInstant + 3, 0);
    NoteWorkDone(health, "addressing of veth1");
    EXPECT_EQ(health.m_nFailures, 0U);
    EXPECT_EQ(health.m_nRetryAtMs, 0);
    EXPECT_TRUE(WorkDue(health));
    EXPECT_TRUE(health.m_recoveredAt == (timespec{kInstant + 3, 0}));
    // The last failure stays on record.
    EXPECT_EQ(health.m_lastFailure.m_command, "ip addr add 192.168.1.2/255.255.255.0 dev veth1");
    EXPECT_TRUE(health.m_failedAt == (timespec{kInstant, 0}));
    EXPECT_EQ(log.Messages().back(), "NOTICE NoteWorkDone: Recovered addressing of veth1 after 2 failed attempts");
}

TEST(NoteWorkDoneTest, ASuccessOfHealthyWorkChangesAndLogsNothing) {
    SteppedClock clock(0);
    LogCapture log;
    WORK_HEALTH health;
    NoteWorkDone(health, "bridge setup");
    EXPECT_EQ(health.m_nFailures, 0U);
    EXPECT_TRUE(health.m_recoveredAt == timespec{});
    EXPECT_TRUE(log.Messages().empty());
}

TEST(NoteWorkFailedTest, WorkCutShortByAStopIsNoFault) {
    SteppedClock clock(0);
    LogCapture log;
    WORK_HEALTH health;
    RequestStop();
    NoteWorkFailed(health, "bridge setup", Failure("ip link add name br0 type bridge", 2));
    ClearStopRequest();
    EXPECT_EQ(health.m_nFailures, 0U);
    EXPECT_TRUE(WorkDue(health));
    EXPECT_TRUE(health.m_lastFailure.m_command.empty());
    EXPECT_TRUE(log.Messages().empty());
}

TEST(MonotonicMsTest, ReadsTheRunnersSteadyClockUnlessATestSetsItsOwn) {
    const MonotonicClock previous = SetMonotonicClock(nullptr);
    const int64_t before = SteadyMs();
    const int64_t now = MonotonicMs();
    const int64_t after = SteadyMs();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
    {
        SteppedClock clock(42);
        EXPECT_EQ(MonotonicMs(), 42);
    }
    EXPECT_GE(MonotonicMs(), after);
    SetMonotonicClock(previous);
}

TEST(NoteWorkUndoneTest, OnceIsDueAtOnceAndAFightWaitsLikeFailures) {
    SteppedClock clock(100000);
    FixedClock wall(kInstant, 0);
    LogCapture log;
    WORK_HEALTH health;
    // Each undo comes a moment after the repair before it, until the last,
    // which comes 10 s after its repair: a new undo, not the same fight.
    const std::vector<std::pair<int64_t, int64_t>> expectedWaits = {
        {1, 0}, {2, 1000}, {3, 2000}, {4, 4000}, {5, 8000}, {6, 16000}, {7, 32000}, {8, 60000}, {9, 60000}};
    for (const auto& [count, waitMs] : expectedWaits) {
        SCOPED_TRACE(count);
        NoteWorkUndone(health, "br0 was removed");
        EXPECT_EQ(health.m_nUndone, static_cast<unsigned int>(count));
        EXPECT_TRUE(health.m_bUndonePending);
        EXPECT_EQ(health.m_lastUndone, "br0 was removed");
        EXPECT_EQ(health.m_undoneAt, (timespec{kInstant, 0}));
        if (waitMs != 0) {
            clock.Step(waitMs - 1);
            EXPECT_FALSE(WorkDue(health));
            clock.Step(1);
        }
        EXPECT_TRUE(WorkDue(health));
        NoteWorkDone(health, "bridge setup");
        EXPECT_FALSE(health.m_bUndonePending);
        EXPECT_TRUE(WorkDue(health));
        clock.Step(500);
    }
    clock.Step(kUndoneAgainMs);
    NoteWorkUndone(health, "eth1 was taken out of br0");
    EXPECT_EQ(health.m_nUndone, 1U);
    EXPECT_TRUE(WorkDue(health));
    // Each repair says so; the failures' record is untouched.
    const Lines messages = log.Messages();
    EXPECT_EQ(messages.size(), expectedWaits.size());
    for (const std::string& message : messages) {
        EXPECT_EQ(message, "NOTICE NoteWorkDone: Repaired bridge setup after an outside change");
    }
    EXPECT_EQ(health.m_nFailures, 0U);
    EXPECT_EQ(health.m_failedAt, timespec{});
}

TEST(NoteWorkUndoneTest, FailuresOfTheRepairKeepTheirOwnWaits) {
    SteppedClock clock(100000);
    LogCapture log;
    WORK_HEALTH health;
    NoteWorkUndone(health, "br0 was removed");
    EXPECT_TRUE(WorkDue(health));
    NoteWorkFailed(health, "bridge setup", Failure("ip link add name br0 type bridge", 2));
    EXPECT_FALSE(WorkDue(health));
    clock.Step(1000);
    EXPECT_TRUE(WorkDue(health));
    NoteWorkDone(health, "bridge setup");
    EXPECT_EQ(log.Messages(), (Lines{"WARN NoteWorkFailed: Retrying bridge setup in 1 s (failed attempts: 1)",
                                     "NOTICE NoteWorkDone: Repaired bridge setup after an outside change",
                                     "NOTICE NoteWorkDone: Recovered bridge setup after 1 failed attempts"}));
    EXPECT_TRUE(WorkDue(health));
}

}  // namespace
