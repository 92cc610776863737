#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>

#include "src/NetworkClock.h"
#include "src/NetworkShell.h"
#include "src/NetworkStop.h"
#include "tests/support/Files.h"
#include "tests/support/StopRequestGuard.h"
#include "tests/support/TempDir.h"

namespace {

TEST(StopDeferredTest, WhileOneLivesAStopWaitsAndItsGraceStartsAgainAfter) {
    TempDir dir;
    StopRequestGuard guard;
    RequestStop();
    // The grace runs out with nothing deferred: nothing would start now.
    SleepLettingSignalsIn(1500);
    ASSERT_TRUE(StopGraceOver());
    {
        StopDeferred whole;
        EXPECT_FALSE(StopGraceOver());
        // Commands start and run to their end; pauses last their whole time.
        EXPECT_TRUE(RunShellCommand("sleep 1.2; echo done > " + dir.Path("deferred")).Succeeded());
        EXPECT_EQ(ReadFile(dir.Path("deferred")), "done\n");
        auto start = std::chrono::steady_clock::now();
        SleepLettingSignalsIn(1200);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));
    }
    // A fresh grace from the end of the deferral: a short command still runs,
    // a pause ends with the grace, then nothing is started.
    EXPECT_FALSE(StopGraceOver());
    EXPECT_TRUE(RunShellCommand("true").Succeeded());
    auto start = std::chrono::steady_clock::now();
    SleepLettingSignalsIn(5000);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3000));
    EXPECT_TRUE(StopGraceOver());
    EXPECT_FALSE(RunShellCommand("true").m_bStarted);
}

// What the handler saw: the signals in the order taken, and how deeply it was
// nested at most.
volatile sig_atomic_t g_nHandlerDepth = 0;
volatile sig_atomic_t g_nHandlerMaxDepth = 0;
volatile sig_atomic_t g_nTaken[4] = {0, 0, 0, 0};
volatile sig_atomic_t g_nTakenCount = 0;

void NestingHandler(int sig) {
    // Read and written apart: C++20 deprecates ++ and -- on volatile objects.
    g_nHandlerDepth = g_nHandlerDepth + 1;
    if (g_nHandlerDepth > g_nHandlerMaxDepth) g_nHandlerMaxDepth = g_nHandlerDepth;
    if (g_nTakenCount < 4) {
        g_nTaken[g_nTakenCount] = sig;
        g_nTakenCount = g_nTakenCount + 1;
    }
    // A second, different stop signal while the first is handled.
    if (sig == SIGHUP) kill(getpid(), SIGTERM);
    if (sig == SIGINT) kill(getpid(), SIGQUIT);
    g_nHandlerDepth = g_nHandlerDepth - 1;
}

TEST(InstallStopHandlerTest, ASecondStopSignalWaitsForTheFirstHandlerToFinish) {
    InstallStopHandler(NestingHandler);
    kill(getpid(), SIGHUP);
    kill(getpid(), SIGINT);
    for (int sig : {SIGHUP, SIGINT, SIGTERM, SIGQUIT}) signal(sig, SIG_DFL);
    EXPECT_EQ(g_nHandlerMaxDepth, 1);
    ASSERT_EQ(g_nTakenCount, 4);
    // Each second signal is taken right after the handler of the first returns.
    EXPECT_EQ(g_nTaken[0], SIGHUP);
    EXPECT_EQ(g_nTaken[1], SIGTERM);
    EXPECT_EQ(g_nTaken[2], SIGINT);
    EXPECT_EQ(g_nTaken[3], SIGQUIT);
}

}  // namespace
