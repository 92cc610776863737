// The runner's deadline, at its real length: a command that hangs is ended with
// everything it started, and one that takes as long as a DHCP client without a
// server takes to go to the background is not.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>

#include "src/Network.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Whether the process has gone, or is only waiting to be reaped.
bool Ended(const std::string& pid) {
    std::string stat = ReadFile("/proc/" + pid + "/stat");
    return stat.empty() || stat.find(") Z ") != std::string::npos;
}

using Clock = std::chrono::steady_clock;

TEST(CommandDeadlineTest, CommandThatIgnoresTermIsKilledTwoSecondsAfterItsDeadline) {
    TempDir dir;
    LogCapture log;
    // The shell and its children ignore SIGTERM; a background child shares the group.
    const std::string command =
        "trap '' TERM; sleep 100 & echo $! > " + dir.Path("child") + "; echo $$ > " + dir.Path("shell") + "; sleep 100";
    auto start = Clock::now();
    COMMAND_OUTCOME outcome = RunShellCommand(command);
    auto elapsed = Clock::now() - start;
    EXPECT_TRUE(outcome.m_bTimedOut);
    EXPECT_FALSE(outcome.m_bExited);
    EXPECT_EQ(outcome.m_nStatus, SIGKILL);
    EXPECT_EQ(DescribeOutcome(outcome), "ended after its 20 s deadline");
    EXPECT_GE(elapsed, std::chrono::milliseconds(22000));
    EXPECT_LT(elapsed, std::chrono::milliseconds(24000));
    EXPECT_TRUE(Ended(ReadFile(dir.Path("child")).substr(0, ReadFile(dir.Path("child")).size() - 1)));
    EXPECT_EQ(log.Timeline(), (std::vector<std::string>{"ERROR WaitForCommand: Command still running after 20 s, "
                                                        "ending it: " +
                                                        command}));
}

TEST(CommandDeadlineTest, CommandThatEndsOnTermIsEndedAtItsDeadline) {
    LogCapture log;
    auto start = Clock::now();
    COMMAND_OUTCOME outcome = RunShellCommand("sleep 100");
    auto elapsed = Clock::now() - start;
    EXPECT_TRUE(outcome.m_bTimedOut);
    EXPECT_EQ(outcome.m_nStatus, SIGTERM);
    EXPECT_GE(elapsed, std::chrono::milliseconds(20000));
    EXPECT_LT(elapsed, std::chrono::milliseconds(21500));
    EXPECT_EQ(
        log.Timeline(),
        (std::vector<std::string>{"ERROR WaitForCommand: Command still running after 20 s, ending it: sleep 100"}));
}

TEST(CommandDeadlineTest, NineSecondCommandRunsToItsEnd) {
    LogCapture log;
    COMMAND_OUTCOME outcome = RunShellCommand("sleep 9; exit 0");
    EXPECT_TRUE(outcome.Succeeded());
    EXPECT_EQ(log.Timeline(), std::vector<std::string>{});
}

}  // namespace
