#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "src/Network.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/TempDir.h"

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

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

}  // namespace
