#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "src/NetworkClock.h"
#include "src/NetworkShell.h"
#include "src/NetworkStop.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/FieldChanges.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/StopRequestGuard.h"
#include "tests/support/TempDir.h"

namespace {

TEST(RunShellCommandTest, RunsThroughTheShellAndWaits) {
    TempDir dir;
    RunShellCommand("sleep 0.2; echo done $((1+2)) > " + dir.Path("out"));
    EXPECT_EQ(ReadFile(dir.Path("out")), "done 3\n");
}

TEST(RunShellCommandTest, IgnoresFailingCommands) {
    TempDir dir;
    RunShellCommand("exit 7");
    RunShellCommand("/nonexistent/tool --flag");
    RunShellCommand("echo still > " + dir.Path("out"));
    EXPECT_EQ(ReadFile(dir.Path("out")), "still\n");
}

TEST(RunShellCommandTest, ACommandThatIsReadGivesItsStandardOutputAndNothingElse) {
    std::string output = "left from before";
    COMMAND_OUTCOME outcome = RunCommandForOutput("printf 'one\\ntwo\\n'; echo 'to stderr' >&2; exit 3", output);
    EXPECT_TRUE(outcome.m_bExited);
    EXPECT_EQ(outcome.m_nStatus, 3);
    EXPECT_EQ(output, "one\ntwo\n");
    // Written slowly, in pieces, and read as it comes.
    RunCommandForOutput("for i in 1 2 3; do echo $i; sleep 0.05; done", output);
    EXPECT_EQ(output, "1\n2\n3\n");
    // Nothing printed is the empty text.
    RunCommandForOutput("true", output);
    EXPECT_EQ(output, "");
}

TEST(RunShellCommandTest, OutputPastTheLimitIsDroppedWithoutStallingTheCommand) {
    std::string output;
    auto start = std::chrono::steady_clock::now();
    COMMAND_OUTCOME outcome = RunCommandForOutput("head -c 1000000 /dev/zero | tr '\\0' x", output);
    EXPECT_TRUE(outcome.Succeeded());
    EXPECT_EQ(output.size(), kCommandOutputLimit);
    EXPECT_EQ(output.find_first_not_of('x'), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10000));
}

TEST(RunShellCommandTest, AChildLeftHoldingTheOutputIsNotWaitedFor) {
    std::string output;
    auto start = std::chrono::steady_clock::now();
    // The sleep holds the output, not the test's own stderr: whoever reads
    // that (CTest) would wait for it otherwise.
    COMMAND_OUTCOME outcome = RunCommandForOutput("echo before; sleep 30 2>/dev/null & echo after", output);
    EXPECT_TRUE(outcome.Succeeded());
    EXPECT_EQ(output, "before\nafter\n");
    // The shell's end is the command's end, not the background sleep's.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5000));
}

TEST(RunStepTest, AStepThatIsReadGivesItsOutputThroughTheSeam) {
    LogCapture log;
    CommandRecorder commands;
    commands.SetOutputs([](const std::string& command) -> std::optional<std::string> {
        if (command == "iptables -S") return std::string("-P INPUT ACCEPT\n");
        return std::nullopt;
    });
    WORK_FAILURE failure;
    std::string output;
    EXPECT_TRUE(RunStep("iptables -S", true, failure, &output));
    EXPECT_EQ(output, "-P INPUT ACCEPT\n");
    EXPECT_TRUE(RunStep("ip link set br0 up", true, failure));
    EXPECT_EQ(log.Timeline(), (std::vector<std::string>{"$ iptables -S", "$ ip link set br0 up"}));
}

// A batch reaches the tool's standard input line for line, nothing in it
// expanded by the shell, in one command through the seam.
TEST(RunStepTest, ABatchIsOneCommandWhoseLinesReachTheToolAsTheyAre) {
    const std::vector<std::string> lines = {"*nat", "-A PREROUTING -i $HOME -j DROP", "`false` \\n 'x'"};
    std::string output;
    const COMMAND_OUTCOME outcome = RunShellCommand(BatchCommand("cat", lines), &output);
    EXPECT_TRUE(outcome.Succeeded()) << DescribeOutcome(outcome);
    EXPECT_EQ(output, "*nat\n-A PREROUTING -i $HOME -j DROP\n`false` \\n 'x'\n");
}

// A batch that fails is logged, and named in the failure, on one line.
TEST(RunStepTest, AFailedBatchIsShownOnOneLine) {
    LogCapture log;
    CommandRecorder commands;
    commands.SetOutcomes([](const std::string&) -> std::optional<COMMAND_OUTCOME> {
        COMMAND_OUTCOME failed;
        failed.m_nStatus = 1;
        return failed;
    });
    WORK_FAILURE failure;
    const std::vector<std::string> lines = {"*nat", "-D PREROUTING -i eth1 -j DROP"};
    EXPECT_FALSE(RunStep(BatchCommand("ebtables-restore --noflush", lines), true, failure));
    EXPECT_EQ(failure.m_command, "ebtables-restore --noflush <<'EOF'\\n*nat\\n-D PREROUTING -i eth1 -j DROP\\nEOF");
    EXPECT_EQ(log.Timeline(), (std::vector<std::string>{
                                  "$ ebtables-restore --noflush <<'EOF'", "> *nat", "> -D PREROUTING -i eth1 -j DROP",
                                  "> EOF", "ERROR RunStep: Command failed (exit status 1): " + failure.m_command}));
}

TEST(RunShellCommandTest, ChildStartsWithDefaultDispositionsAndNoMask) {
    TempDir dir;
    // What the daemon sets for itself must not leak into the tools it runs.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    RunShellCommand("grep -E '^(SigBlk|SigIgn):' /proc/self/status > " + dir.Path("status"));
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    signal(SIGPIPE, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    std::istringstream status(ReadFile(dir.Path("status")));
    std::string blockedLine;
    std::string ignoredLine;
    std::getline(status, blockedLine);
    std::getline(status, ignoredLine);
    ASSERT_EQ(blockedLine.rfind("SigBlk:\t", 0), 0U) << blockedLine;
    ASSERT_EQ(ignoredLine.rfind("SigIgn:\t", 0), 0U) << ignoredLine;
    unsigned long long childBlocked = std::stoull(blockedLine.substr(8), nullptr, 16);
    unsigned long long childIgnored = std::stoull(ignoredLine.substr(8), nullptr, 16);
    unsigned long long ours = 0;
    for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) ours |= 1ULL << (sig - 1);
    EXPECT_EQ(childBlocked, 0ULL);
    EXPECT_EQ(childIgnored & ours, 0ULL);
}

volatile sig_atomic_t g_caught = 0;
void Catch(int sig) { g_caught = sig; }

TEST(RunShellCommandTest, SignalDuringCommandReachesHandlerAndWaitCompletes) {
    TempDir dir;
    struct sigaction action {};
    action.sa_handler = Catch;
    sigaction(SIGUSR1, &action, nullptr);  // no SA_RESTART: waitpid sees EINTR
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigset_t previous;
    // Blocked while working, as the daemon holds its stop signals.
    pthread_sigmask(SIG_BLOCK, &usr1, &previous);
    g_caught = 0;
    std::string command = "kill -USR1 " + std::to_string(getpid()) + "; sleep 0.3; echo finished > " + dir.Path("out");
    auto start = std::chrono::steady_clock::now();
    RunShellCommand(command);
    auto elapsed = std::chrono::steady_clock::now() - start;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ(g_caught, SIGUSR1);
    EXPECT_EQ(ReadFile(dir.Path("out")), "finished\n");  // waited to the end despite EINTR
    EXPECT_GE(elapsed, std::chrono::milliseconds(300));
}

TEST(CommandRecorderTest, RecordsInsteadOfRunningAndRestoresTheRealRunner) {
    TempDir dir;
    {
        CommandRecorder recorder;
        RunCommand("echo recorded > " + dir.Path("a"));
        EXPECT_EQ(recorder.Commands(), std::vector<std::string>{"echo recorded > " + dir.Path("a")});
    }
    EXPECT_NE(access(dir.Path("a").c_str(), F_OK), 0);
    RunCommand("echo real > " + dir.Path("b"));
    EXPECT_EQ(ReadFile(dir.Path("b")), "real\n");
}

// The count the main loop releases the heap by: every command handed to a
// runner, read or not, and nothing else.
TEST(CommandsRunTest, CountsEveryCommandHandedToARunner) {
    CommandRecorder recorder;
    const unsigned long before = CommandsRun();
    RunCommand("ip link set br0 up");
    std::string output;
    RunCommandForOutput("iptables -S", output);
    WORK_FAILURE failure;
    EXPECT_TRUE(RunStep("ip link set eth0 master br0", true, failure));
    EXPECT_EQ(CommandsRun() - before, 3U);
    EXPECT_EQ(CommandsRun() - before, 3U);
}

// --- Outcomes -----------------------------------------------------------------

TEST(RunShellCommandTest, ReportsHowEachCommandEnded) {
    COMMAND_OUTCOME ok = RunShellCommand("true");
    EXPECT_TRUE(ok.Succeeded());
    EXPECT_EQ(DescribeOutcome(ok), "exit status 0");

    COMMAND_OUTCOME failed = RunShellCommand("exit 7");
    EXPECT_FALSE(failed.Succeeded());
    EXPECT_TRUE(failed.m_bStarted);
    EXPECT_TRUE(failed.m_bExited);
    EXPECT_EQ(failed.m_nStatus, 7);
    EXPECT_EQ(DescribeOutcome(failed), "exit status 7");

    COMMAND_OUTCOME missing = RunShellCommand("exec 2>/dev/null; /nonexistent/tool --flag");
    EXPECT_EQ(DescribeOutcome(missing), "exit status 127");

    COMMAND_OUTCOME killed = RunShellCommand("kill -KILL $$");
    EXPECT_FALSE(killed.Succeeded());
    EXPECT_FALSE(killed.m_bExited);
    EXPECT_EQ(killed.m_nStatus, SIGKILL);
    EXPECT_FALSE(killed.m_bTimedOut);
    EXPECT_EQ(DescribeOutcome(killed), "ended by signal 9");
}

TEST(RunShellCommandTest, EachCommandHasAProcessGroupOfItsOwn) {
    TempDir dir;
    // Field 5 of stat is the process group; the shell leads its own.
    RunShellCommand("echo $$ $(cut -d' ' -f5 /proc/$$/stat) > " + dir.Path("ids"));
    std::istringstream ids(ReadFile(dir.Path("ids")));
    long pid = 0;
    long group = 0;
    ids >> pid >> group;
    EXPECT_GT(pid, 0);
    EXPECT_EQ(group, pid);
    EXPECT_NE(group, static_cast<long>(getpgrp()));
}

TEST(CommandOutcomeTest, EqualityNoticesAChangeInEachFieldInTurn) {
    ExpectEveryChangeNoticed(COMMAND_OUTCOME{}, OutcomeChanges());
}

TEST(DescribeOutcomeTest, NamesAStartThatFailedAndADeadline) {
    COMMAND_OUTCOME notStarted;
    notStarted.m_bStarted = false;
    notStarted.m_nError = EAGAIN;
    EXPECT_FALSE(notStarted.Succeeded());
    EXPECT_EQ(DescribeOutcome(notStarted), "not started (Resource temporarily unavailable)");
    COMMAND_OUTCOME late;
    late.m_bTimedOut = true;
    late.m_bExited = false;
    late.m_nStatus = SIGTERM;
    EXPECT_FALSE(late.Succeeded());
    EXPECT_EQ(DescribeOutcome(late), "ended after its 20 s deadline");
}

// --- Stopping -------------------------------------------------------------------

TEST(RunShellCommandTest, StopRequestEndsAHangingCommandGroupAfterTheGraceAndStartsNoMore) {
    TempDir dir;
    StopRequestGuard guard;
    // A command that finishes within the grace ends normally.
    RequestStop();
    EXPECT_TRUE(RunShellCommand("sleep 0.2").Succeeded());
    // One that hangs is ended with what it started, soon after the grace.
    auto start = std::chrono::steady_clock::now();
    COMMAND_OUTCOME hung = RunShellCommand("sleep 30 & echo $! > " + dir.Path("child") + "; sleep 30");
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_FALSE(hung.m_bExited);
    EXPECT_EQ(hung.m_nStatus, SIGTERM);
    EXPECT_FALSE(hung.m_bTimedOut);
    // About the grace and a moment (1 s); far from the 30 s it would hang,
    // however slow the machine or an emulator.
    EXPECT_LT(elapsed, std::chrono::milliseconds(5000));
    long child = std::stol(ReadFile(dir.Path("child")));
    // The background sleep went with the group: gone, or a zombie, within moments.
    std::string stat;
    for (int tries = 0; tries < 100; ++tries) {
        stat = ReadFile("/proc/" + std::to_string(child) + "/stat");
        if (stat.empty() || stat.find(") Z ") != std::string::npos) break;
        usleep(10000);
    }
    EXPECT_TRUE(stat.empty() || stat.find(") Z ") != std::string::npos) << stat;
    // After the grace nothing is started, and a pause ends at once.
    COMMAND_OUTCOME refused = RunShellCommand("echo late > " + dir.Path("late"));
    EXPECT_FALSE(refused.m_bStarted);
    EXPECT_EQ(refused.m_nError, ECANCELED);
    EXPECT_NE(access(dir.Path("late").c_str(), F_OK), 0);
    start = std::chrono::steady_clock::now();
    SleepLettingSignalsIn(1000);
    // At once, not after the second asked for (slow machines need a margin).
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

// --- Steps ------------------------------------------------------------------------

TEST(RunStepTest, AStepThatMustSucceedStopsTheWorkWithAnErrorNamingIt) {
    LogCapture log;
    CommandRecorder recorder;
    recorder.SetOutcomes([](const std::string& command) -> std::optional<COMMAND_OUTCOME> {
        COMMAND_OUTCOME outcome;
        if (command == "clear") outcome.m_nStatus = 1;
        if (command == "build") outcome.m_nStatus = 2;
        if (command == "unstartable") {
            outcome.m_bStarted = false;
            outcome.m_nError = EAGAIN;
        }
        return outcome;
    });
    WORK_FAILURE failure;
    EXPECT_TRUE(RunStep("clear", false, failure));
    EXPECT_EQ(failure.m_command, "");
    EXPECT_FALSE(RunStep("build", true, failure));
    EXPECT_EQ(failure.m_command, "build");
    EXPECT_EQ(failure.m_outcome.m_nStatus, 2);
    // Not even a step that may fail goes on when it could not be started.
    EXPECT_FALSE(RunStep("unstartable", false, failure));
    EXPECT_EQ(failure.m_command, "unstartable");
    EXPECT_EQ(log.Timeline(), (std::vector<std::string>{
                                  "$ clear",
                                  "$ build",
                                  "ERROR RunStep: Command failed (exit status 2): build",
                                  "$ unstartable",
                                  // One entry, cut to fit the line.
                                  // NOLINTNEXTLINE(bugprone-suspicious-missing-comma)
                                  "ERROR RunStep: Command failed (not started (Resource temporarily unavailable)): "
                                  "unstartable",
                              }));
}

}  // namespace
