#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "src/NetworkDhcp.h"
#include "src/NetworkStop.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/FakeClient.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Namespaces.h"
#include "tests/support/TempDir.h"

namespace {

// An interface name no other test run uses, so that StopDhcp can only ever find
// the processes this test started.
std::string UniqueName() {
    static int counter = 0;
    return "tc" + std::to_string(getpid()) + "x" + std::to_string(++counter);
}

// What the daemon starts a client with, after the program name.
Lines ClientArguments(const std::string& interfaceName) {
    return {"-i", interfaceName, "-b", "-R", "-s", "/usr/share/udhcpc/tessel.script"};
}

std::string Cmdline(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Lines StopDhcpTimeline(const std::string& interfaceName) {
    LogCapture log;
    CommandRecorder commands;
    StopDhcp(interfaceName, 10);
    return log.Timeline();
}

Lines Sorted(Lines lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
}

TEST(StopDhcpTest, NoClientOnlyRemovesTheLeaseFile) {
    std::string name = UniqueName();
    EXPECT_EQ(StopDhcpTimeline(name), Lines{"$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1"});
}

TEST(StopDhcpTest, SignalsTheClientOfTheInterface) {
    std::string name = UniqueName();
    FakeClient client("udhcpc", ClientArguments(name));
    ASSERT_TRUE(client.Started());
    EXPECT_EQ(StopDhcpTimeline(name),
              (Lines{
                  "INFO StopDhcp: Killing udhcpc pid " + std::to_string(client.Pid()) + " for interface " + name,
                  "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1",
              }));
    EXPECT_EQ(client.EndingSignal(), SIGTERM);
}

// A dry run's clients: found, stopped and looked after as the lister says,
// and never signalled (the pid given is the test's own).
TEST(StopDhcpTest, AListersClientsAreNeverSignalled) {
    const std::string name = UniqueName();
    int calls = 0;
    // Listed until it has been told to stop (the first look), as a client that goes at once.
    DhcpClientLister previous = SetDhcpClientLister([&calls, &name](const std::string& interfaceName) {
        return interfaceName == name && calls++ == 0 ? std::vector<pid_t>{getpid()} : std::vector<pid_t>{};
    });
    EXPECT_EQ(StopDhcpTimeline(name),
              (Lines{
                  "INFO StopDhcp: Killing udhcpc pid " + std::to_string(getpid()) + " for interface " + name,
                  "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1",
              }));
    calls = 0;
    EXPECT_EQ(FindDhcpClient(name), getpid());
    EXPECT_FALSE(IsDhcpClientOf(getpid(), name));
    EXPECT_EQ(FindDhcpClient("other"), 0);
    SetDhcpClientLister(std::move(previous));
    EXPECT_FALSE(IsDhcpClientOf(getpid(), name));
}

TEST(StopDhcpTest, TheNameMayStandAnywhereOnTheCommandLine) {
    std::string name = UniqueName();
    FakeClient client("udhcpc", {"-b", "-R", name});
    ASSERT_TRUE(client.Started());
    EXPECT_EQ(StopDhcpTimeline(name),
              (Lines{
                  "INFO StopDhcp: Killing udhcpc pid " + std::to_string(client.Pid()) + " for interface " + name,
                  "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1",
              }));
    EXPECT_EQ(client.EndingSignal(), SIGTERM);
}

TEST(StopDhcpTest, OnlyWholeArgumentsAndTheBareProgramNameMatch) {
    std::string name = UniqueName();
    FakeClient client("udhcpc", ClientArguments(name));
    FakeClient longerInterface("udhcpc", ClientArguments(name + "0"));
    FakeClient glued("udhcpc", {"-i" + name});
    FakeClient fullPath("/usr/sbin/udhcpc", ClientArguments(name));
    FakeClient longerProgram("udhcpcx", ClientArguments(name));
    FakeClient prefixedProgram("myudhcpc", ClientArguments(name));
    FakeClient otherProgram("sleep", ClientArguments(name));
    for (FakeClient* started :
         {&client, &longerInterface, &glued, &fullPath, &longerProgram, &prefixedProgram, &otherProgram}) {
        ASSERT_TRUE(started->Started());
    }
    EXPECT_EQ(StopDhcpTimeline(name),
              (Lines{
                  "INFO StopDhcp: Killing udhcpc pid " + std::to_string(client.Pid()) + " for interface " + name,
                  "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1",
              }));
    EXPECT_EQ(client.EndingSignal(), SIGTERM);
    EXPECT_EQ(longerInterface.EndingSignal(), 0);
    EXPECT_EQ(glued.EndingSignal(), 0);
    EXPECT_EQ(fullPath.EndingSignal(), 0);
    EXPECT_EQ(longerProgram.EndingSignal(), 0);
    EXPECT_EQ(prefixedProgram.EndingSignal(), 0);
    EXPECT_EQ(otherProgram.EndingSignal(), 0);
}

TEST(StopDhcpTest, AnotherUsersLookAlikeIsStoppedLikeEveryClient) {
    TESSEL_NEED_ROOT();
    std::string name = UniqueName();
    FakeClient impostor("udhcpc", ClientArguments(name), "read REPLY", kNobody);
    ASSERT_TRUE(impostor.Started());
    EXPECT_EQ(StopDhcpTimeline(name),
              (Lines{
                  "INFO StopDhcp: Killing udhcpc pid " + std::to_string(impostor.Pid()) + " for interface " + name,
                  "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1",
              }));
    EXPECT_EQ(impostor.EndingSignal(), SIGTERM);
}

TEST(StopDhcpTest, ShorterNameDoesNotMatchTheClientOfALongerOne) {
    std::string name = UniqueName();
    FakeClient longerInterface("udhcpc", ClientArguments(name + "0"));
    ASSERT_TRUE(longerInterface.Started());
    EXPECT_EQ(StopDhcpTimeline(name), Lines{"$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1"});
    EXPECT_EQ(longerInterface.EndingSignal(), 0);
}

TEST(StopDhcpTest, LongerNameDoesNotMatchTheClientOfAShorterOne) {
    std::string name = UniqueName();
    FakeClient client("udhcpc", ClientArguments(name));
    ASSERT_TRUE(client.Started());
    EXPECT_EQ(StopDhcpTimeline(name + "0"), Lines{"$ rm -f /tmp/dhcp_" + name + "0.txt > /dev/null 2>&1"});
    EXPECT_EQ(client.EndingSignal(), 0);
}

TEST(StopDhcpTest, TwoClientsOfTheInterfaceAreBothSignalled) {
    std::string name = UniqueName();
    FakeClient first("udhcpc", ClientArguments(name));
    FakeClient second("udhcpc", ClientArguments(name));
    ASSERT_TRUE(first.Started());
    ASSERT_TRUE(second.Started());
    Lines timeline = StopDhcpTimeline(name);
    ASSERT_EQ(timeline.size(), 3U) << ::testing::PrintToString(timeline);
    // The process table's order decides which comes first; the removal comes last.
    EXPECT_EQ(Sorted({timeline[0], timeline[1]}),
              Sorted({
                  "INFO StopDhcp: Killing udhcpc pid " + std::to_string(first.Pid()) + " for interface " + name,
                  "INFO StopDhcp: Killing udhcpc pid " + std::to_string(second.Pid()) + " for interface " + name,
              }));
    EXPECT_EQ(timeline[2], "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1");
    EXPECT_EQ(first.EndingSignal(), SIGTERM);
    EXPECT_EQ(second.EndingSignal(), SIGTERM);
}

// Only the first 256 bytes of a command line are read. `padding` puts the
// interface name's end where the test wants it.
Lines PaddedArguments(const std::string& interfaceName, size_t nulIndex) {
    // "udhcpc", "-c", "read REPLY", "-i", padding, name, each ended by a NUL.
    size_t before = 7 + 3 + 11 + 3;
    size_t padding = nulIndex - interfaceName.size() - before - 1;
    return {"-i", std::string(padding, 'p'), interfaceName};
}

TEST(StopDhcpTest, OnlyAnArgumentEndedWithinTheFirst256BytesCounts) {
    std::string name = UniqueName();
    FakeClient endsAtTheLastByte("udhcpc", PaddedArguments(name, 255));
    FakeClient cutByTheRead("udhcpc", PaddedArguments(name, 256));
    FakeClient wellBeyond("udhcpc", PaddedArguments(name, 400));
    ASSERT_TRUE(endsAtTheLastByte.Started());
    ASSERT_TRUE(cutByTheRead.Started());
    ASSERT_TRUE(wellBeyond.Started());
    // The layout the cases rely on, as the kernel shows it.
    std::string fits = Cmdline(endsAtTheLastByte.Pid());
    ASSERT_EQ(fits.size(), 256U);
    EXPECT_EQ(fits.substr(255 - name.size()), name + std::string(1, '\0'));
    std::string cut = Cmdline(cutByTheRead.Pid());
    ASSERT_EQ(cut.size(), 257U);
    EXPECT_EQ(cut.substr(256 - name.size()), name + std::string(1, '\0'));

    EXPECT_EQ(StopDhcpTimeline(name), (Lines{
                                          "INFO StopDhcp: Killing udhcpc pid " +
                                              std::to_string(endsAtTheLastByte.Pid()) + " for interface " + name,
                                          "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1",
                                      }));
    EXPECT_EQ(endsAtTheLastByte.EndingSignal(), SIGTERM);
    EXPECT_EQ(cutByTheRead.EndingSignal(), 0);
    EXPECT_EQ(wellBeyond.EndingSignal(), 0);
}

std::string Ending(const char* what, FakeClient& client) {
    return std::string(what) + " ended by signal " + std::to_string(client.EndingSignal());
}

TEST(StopDhcpTest, EmptyNameMatchesAClientWithAnEmptyArgument) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWPID | CLONE_NEWNS, [] {
        FakeClient emptyArgument("udhcpc", {"-i", "", "-b"});
        FakeClient noEmptyArgument("udhcpc", {"-i", "x", "-b"});
        FakeClient otherProgram("sh", {"-i", "", "-b"});
        // The client is named by its role: which numbers a new PID namespace
        // hands out is not fixed (under an emulator each fork takes two).
        Lines lines = StopDhcpTimeline("");
        const std::string killed = " pid " + std::to_string(emptyArgument.Pid()) + " ";
        for (std::string& line : lines) {
            std::string::size_type at = line.find(killed);
            if (at != std::string::npos) line.replace(at, killed.size(), " pid <empty argument's> ");
        }
        lines.push_back(Ending("empty argument", emptyArgument));
        lines.push_back(Ending("no empty argument", noEmptyArgument));
        lines.push_back(Ending("other program", otherProgram));
        return lines;
    });
    EXPECT_EQ(lines, (Lines{
                         "INFO StopDhcp: Killing udhcpc pid <empty argument's> for interface ",
                         "$ rm -f /tmp/dhcp_.txt > /dev/null 2>&1",
                         "empty argument ended by signal 15",
                         "no empty argument ended by signal 0",
                         "other program ended by signal 0",
                     }));
}

TEST(StopDhcpTest, UnreadableProcIsReportedAndTheLeaseFileStillRemoved) {
    TESSEL_NEED_NAMESPACES();
    std::string name = UniqueName();
    Lines lines = InNewNamespaces(CLONE_NEWPID | CLONE_NEWNS, [&name] {
        FakeClient client("udhcpc", ClientArguments(name));
        // An empty /proc nobody but root may list, read without root's rights.
        if (mount("tmpfs", "/proc", "tmpfs", 0, "mode=000") != 0) return Lines{"cannot cover /proc"};
        if (seteuid(65534) != 0) return Lines{"cannot drop root's rights"};
        Lines lines = StopDhcpTimeline(name);
        if (seteuid(0) != 0) return Lines{"cannot take root's rights back"};
        lines.push_back(Ending("client", client));
        return lines;
    });
    EXPECT_EQ(lines, (Lines{
                         "ERROR StopDhcp: Unable to open /proc to stop udhcpc",
                         "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1",
                         "client ended by signal 0",
                     }));
}

// --- Waiting for stopped clients ---------------------------------------------------

// A stand-in's script that sets its SIGTERM trap, then says so in `ready` and
// waits; a signal sent before the trap is set would end it at once.
std::string TrappingScript(const std::string& trap, const std::string& ready) {
    return "trap '" + trap + "' TERM; : > " + ready + "; read REPLY";
}

// Waits (10 s at most) until `path` exists.
bool AppearsWithin10s(const std::string& path) {
    for (int attempt = 0; attempt < 10000; ++attempt) {
        if (access(path.c_str(), F_OK) == 0) return true;
        usleep(1000);
    }
    return false;
}

// Whether a StopDhcp call lasted within [low, high).
testing::AssertionResult TookBetween(std::chrono::steady_clock::duration took, std::chrono::milliseconds low,
                                     std::chrono::milliseconds high) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
    if (took >= low && took < high) return testing::AssertionSuccess() << ms << " ms";
    return testing::AssertionFailure() << "took " << ms << " ms, not within [" << low.count() << ", " << high.count()
                                       << ") ms";
}

// What one StopDhcp call logged and ran, and how long it took.
struct TIMED_STOP {
    Lines m_timeline;
    std::chrono::steady_clock::duration m_took;
};

TIMED_STOP TimedStopDhcp(const std::string& interfaceName) {
    LogCapture log;
    CommandRecorder commands;
    const auto start = std::chrono::steady_clock::now();
    StopDhcp(interfaceName, 10);
    const auto took = std::chrono::steady_clock::now() - start;
    return TIMED_STOP{log.Timeline(), took};
}

TEST(StopDhcpTest, AClientThatReleasesSlowlyIsGoneBeforeTheLeaseFileIsRemoved) {
    const std::string name = UniqueName();
    TempDir dir;
    const std::string released = dir.Path("released");
    // As a client started with -R does: on SIGTERM it releases the lease, then
    // its script reports that there is none; here that takes 1.5 s.
    FakeClient client("udhcpc", ClientArguments(name),
                      TrappingScript("sleep 1.5; echo no lease > " + released + "; exit 0", dir.Path("ready")));
    ASSERT_TRUE(client.Started());
    ASSERT_TRUE(AppearsWithin10s(dir.Path("ready")));
    const TIMED_STOP stop = TimedStopDhcp(name);
    // Its last word was said before the lease file was removed and before any
    // new client could start.
    EXPECT_EQ(ReadFile(released), "no lease\n");
    EXPECT_EQ(stop.m_timeline,
              (Lines{
                  "INFO StopDhcp: Killing udhcpc pid " + std::to_string(client.Pid()) + " for interface " + name,
                  "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1",
              }));
    // It ended when the client did: after its 1.5 s, and (no WARN above) before
    // the 3 s after which it would have been killed.
    EXPECT_GE(stop.m_took, std::chrono::milliseconds(1500));
    EXPECT_EQ(client.EndingSignal(), 0);
}

TEST(StopDhcpTest, AClientThatDoesNotStopIsKilledAfterThreeSeconds) {
    const std::string name = UniqueName();
    TempDir dir;
    FakeClient client("udhcpc", ClientArguments(name), TrappingScript("", dir.Path("ready")));
    ASSERT_TRUE(client.Started());
    ASSERT_TRUE(AppearsWithin10s(dir.Path("ready")));
    const TIMED_STOP stop = TimedStopDhcp(name);
    const std::string pid = std::to_string(client.Pid());
    EXPECT_EQ(stop.m_timeline, (Lines{
                                   "INFO StopDhcp: Killing udhcpc pid " + pid + " for interface " + name,
                                   "WARN StopDhcp: udhcpc pid " + pid + " for interface " + name +
                                       " did not stop within 3 s, killing it",
                                   "$ rm -f /tmp/dhcp_" + name + ".txt > /dev/null 2>&1",
                               }));
    EXPECT_TRUE(TookBetween(stop.m_took, std::chrono::milliseconds(3000), std::chrono::milliseconds(6000)));
    EXPECT_EQ(client.EndingSignal(), SIGKILL);
}

TEST(StopDhcpTest, AStopOfTheDaemonCutsTheWaitShortAndStartsNothing) {
    const std::string name = UniqueName();
    TempDir dir;
    FakeClient client("udhcpc", ClientArguments(name), TrappingScript("", dir.Path("ready")));
    ASSERT_TRUE(client.Started());
    ASSERT_TRUE(AppearsWithin10s(dir.Path("ready")));
    RequestStop();
    const TIMED_STOP stop = TimedStopDhcp(name);
    ClearStopRequest();
    // The stop's one-second grace, not the three seconds of the wait; the next
    // start of the daemon stops the client.
    EXPECT_EQ(stop.m_timeline,
              (Lines{
                  "INFO StopDhcp: Killing udhcpc pid " + std::to_string(client.Pid()) + " for interface " + name,
              }));
    EXPECT_TRUE(TookBetween(stop.m_took, std::chrono::milliseconds(900), std::chrono::milliseconds(2500)));
    EXPECT_EQ(client.EndingSignal(), 0);
}

// --- Finding the client again ---------------------------------------------------

TEST(FindDhcpClientTest, FindsTheClientOfTheInterfaceOnly) {
    TESSEL_NEED_ROOT();
    const std::string name = UniqueName();
    EXPECT_EQ(FindDhcpClient(name), 0);
    FakeClient other("udhcpc", ClientArguments(name + "0"));
    FakeClient client("udhcpc", ClientArguments(name));
    ASSERT_TRUE(other.Started() && client.Started());
    EXPECT_EQ(FindDhcpClient(name), client.Pid());
    EXPECT_TRUE(IsDhcpClientOf(client.Pid(), name));
    EXPECT_FALSE(IsDhcpClientOf(other.Pid(), name));
    EXPECT_FALSE(IsDhcpClientOf(0, name));
}

TEST(FindDhcpClientTest, TheClientAndNotItsChildThatStillShowsItsCommandLine) {
    TESSEL_NEED_ROOT();
    const std::string name = UniqueName();
    // The subshell is a child with the parent's command line, as a client's
    // child has until it runs the script.
    FakeClient client("udhcpc", ClientArguments(name), "(read REPLY); read REPLY");
    ASSERT_TRUE(client.Started());
    std::string children;
    for (int tries = 0; tries < 200 && children.empty(); ++tries) {
        std::ifstream in("/proc/" + std::to_string(client.Pid()) + "/task/" + std::to_string(client.Pid()) +
                         "/children");
        std::getline(in, children);
        if (children.empty()) usleep(10000);
    }
    ASSERT_FALSE(children.empty());
    EXPECT_TRUE(IsDhcpClientOf(std::stoi(children), name));
    EXPECT_EQ(FindDhcpClient(name), client.Pid());
}

TEST(FindDhcpClientTest, AnotherUsersLookAlikeIsNeverTheClient) {
    TESSEL_NEED_ROOT();
    const std::string name = UniqueName();
    // Started first, so the scan meets it before the client.
    FakeClient impostor("udhcpc", ClientArguments(name), "read REPLY", kNobody);
    ASSERT_TRUE(impostor.Started());
    EXPECT_FALSE(IsDhcpClientOf(impostor.Pid(), name));
    EXPECT_EQ(FindDhcpClient(name), 0);
    FakeClient client("udhcpc", ClientArguments(name));
    ASSERT_TRUE(client.Started());
    EXPECT_EQ(FindDhcpClient(name), client.Pid());
    EXPECT_TRUE(IsDhcpClientOf(client.Pid(), name));
}

TEST(FindDhcpClientTest, AClientThatEndedIsNoClientZombieOrGone) {
    const std::string name = UniqueName();
    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "udhcpc", "-c", "exit 0", "-i", name.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_GT(pid, 0);
    // A zombie until reaped: its command line is empty.
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_FALSE(IsDhcpClientOf(pid, name));
    EXPECT_EQ(FindDhcpClient(name), 0);
    waitpid(pid, nullptr, 0);
    EXPECT_FALSE(IsDhcpClientOf(pid, name));
}

}  // namespace
