// The runner's deadline, at its real length: a command that hangs is ended with
// everything it started, and one that takes as long as a DHCP client without a
// server takes to go to the background is not.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "src/NetworkShell.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

// Whether the process has gone, or is only waiting to be reaped.
bool Ended(const std::string& pid) {
    std::string stat = ReadFile("/proc/" + pid + "/stat");
    return stat.empty() || stat.find(") Z ") != std::string::npos;
}

using Clock = std::chrono::steady_clock;

// The outcome, the time it took and the log entries of one command. The log is
// captured only while the command runs, so a failed check below is printed.
struct RUN {
    COMMAND_OUTCOME m_outcome;
    Clock::duration m_elapsed;
    std::vector<std::string> m_timeline;
};

RUN RunTimed(const std::string& command) {
    LogCapture log;
    auto start = Clock::now();
    RUN run{RunShellCommand(command), {}, {}};
    run.m_elapsed = Clock::now() - start;
    run.m_timeline = log.Timeline();
    return run;
}

// Whether the process has ended (gone, or a zombie) within a second.
bool EndsSoon(const std::string& pid) {
    for (int tries = 0; tries < 100; ++tries) {
        if (Ended(pid)) return true;
        usleep(10000);
    }
    return false;
}

TEST(CommandDeadlineTest, CommandThatIgnoresTermIsKilledTwoSecondsAfterItsDeadline) {
    TempDir dir;
    // The shell and its children ignore SIGTERM; a background child shares the group.
    const std::string command =
        "trap '' TERM; sleep 100 & echo $! > " + dir.Path("child") + "; echo $$ > " + dir.Path("shell") + "; sleep 100";
    RUN run = RunTimed(command);
    EXPECT_TRUE(run.m_outcome.m_bTimedOut);
    EXPECT_FALSE(run.m_outcome.m_bExited);
    EXPECT_EQ(run.m_outcome.m_nStatus, SIGKILL);
    EXPECT_EQ(DescribeOutcome(run.m_outcome), "ended after its 20 s deadline");
    EXPECT_GE(run.m_elapsed, std::chrono::milliseconds(22000));
    // Slow machines and the soak beside this test get a margin.
    EXPECT_LT(run.m_elapsed, std::chrono::milliseconds(27000));
    std::string child = ReadFile(dir.Path("child"));
    ASSERT_FALSE(child.empty());
    EXPECT_TRUE(EndsSoon(child.substr(0, child.size() - 1)));
    EXPECT_EQ(
        run.m_timeline,
        (std::vector<std::string>{"ERROR WaitForCommand: Command still running after 20 s, ending it: " + command}));
}

TEST(CommandDeadlineTest, CommandThatEndsOnTermIsEndedAtItsDeadline) {
    RUN run = RunTimed("sleep 100");
    EXPECT_TRUE(run.m_outcome.m_bTimedOut);
    EXPECT_EQ(run.m_outcome.m_nStatus, SIGTERM);
    EXPECT_GE(run.m_elapsed, std::chrono::milliseconds(20000));
    // Well before the SIGKILL 2 s after the deadline would end it.
    EXPECT_LT(run.m_elapsed, std::chrono::milliseconds(22000));
    EXPECT_EQ(
        run.m_timeline,
        (std::vector<std::string>{"ERROR WaitForCommand: Command still running after 20 s, ending it: sleep 100"}));
}

TEST(CommandDeadlineTest, NineSecondCommandRunsToItsEnd) {
    RUN run = RunTimed("sleep 9; exit 0");
    EXPECT_TRUE(run.m_outcome.Succeeded());
    EXPECT_EQ(run.m_timeline, std::vector<std::string>{});
}

}  // namespace
