#include <dirent.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "src/Network.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Namespaces.h"
#include "tests/support/TempDir.h"

namespace {

using Lines = std::vector<std::string>;

// --- Link status, inside a fresh network namespace ---------------------------

// Runs `body` in a forked child that first moves into a network namespace of its
// own, so the interfaces it creates never touch this machine's. Returns the lines
// the child reported through a pipe, plus a last line when the child failed.
Lines InFreshNetworkNamespace(const std::function<Lines()>& body) {
    int fds[2];
    if (pipe(fds) != 0) return {"pipe failed"};
    fflush(stdout);
    pid_t child = fork();
    if (child < 0) {
        close(fds[0]);
        close(fds[1]);
        return {"fork failed"};
    }
    if (child == 0) {
        close(fds[0]);
        if (unshare(CLONE_NEWNET) != 0) _exit(2);
        std::string report;
        for (const std::string& line : body()) report += line + "\n";
        const char* data = report.data();
        size_t left = report.size();
        while (left > 0) {
            ssize_t n = write(fds[1], data, left);
            if (n <= 0) _exit(3);
            data += n;
            left -= static_cast<size_t>(n);
        }
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char buffer[1024];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);

    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        lines.push_back("child failed, status " + std::to_string(status));
    return lines;
}

// In the child: runs an `ip` command quietly; false when it failed.
bool Ip(const std::string& arguments) { return system(("ip " + arguments + " >/dev/null 2>&1").c_str()) == 0; }

// In the child: a fresh veth takes a moment to report carrier, so wait for the
// kernel's own operational state (not the code under test) with a bound.
bool WaitForOperStateUp(const std::string& name) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::string probe = "ip -o link show dev " + name + " 2>/dev/null | grep -q 'state UP'";
    while (std::chrono::steady_clock::now() < deadline) {
        if (system(probe.c_str()) == 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// In the child: "name: result up|down" and then each log entry the query wrote.
// `up` starts true so a failure has to clear it.
Lines Query(const std::string& name) {
    LogCapture log;
    bool up = true;
    int result = GenericInterfaceLinkIsUp(name, up);
    Lines lines{name + ": " + std::to_string(result) + (up ? " up" : " down")};
    for (const std::string& message : log.Messages()) lines.push_back(message);
    return lines;
}

void Append(Lines& to, const Lines& from) { to.insert(to.end(), from.begin(), from.end()); }

TEST(GenericInterfaceLinkIsUpTest, VethWithItsPeerUpIsUp) {
    TESSEL_NEED_NAMESPACES();
    Lines report = InFreshNetworkNamespace([] {
        if (!Ip("link add vup0 type veth peer name vup1") || !Ip("link set vup1 up") || !Ip("link set vup0 up")) {
            return Lines{"setup failed"};
        }
        if (!WaitForOperStateUp("vup0")) return Lines{"vup0 never got carrier"};
        return Query("vup0");
    });
    EXPECT_EQ(report, Lines{"vup0: 0 up"});
}

TEST(GenericInterfaceLinkIsUpTest, AdministrativelyDownVethIsDown) {
    TESSEL_NEED_NAMESPACES();
    Lines report = InFreshNetworkNamespace([] {
        if (!Ip("link add vdn0 type veth peer name vdn1") || !Ip("link set vdn1 up")) return Lines{"setup failed"};
        return Query("vdn0");
    });
    EXPECT_EQ(report, Lines{"vdn0: 0 down"});
}

TEST(GenericInterfaceLinkIsUpTest, UpWithoutCarrierIsDown) {
    TESSEL_NEED_NAMESPACES();
    Lines report = InFreshNetworkNamespace([] {
        // The peer stays down, so vnc0 is administratively up with no carrier.
        if (!Ip("link add vnc0 type veth peer name vnc1") || !Ip("link set vnc0 up")) return Lines{"setup failed"};
        Lines lines;
        if (!Ip("-o link show dev vnc0 | grep -q NO-CARRIER")) lines.push_back("vnc0 unexpectedly has carrier");
        Append(lines, Query("vnc0"));
        return lines;
    });
    EXPECT_EQ(report, Lines{"vnc0: 0 down"});
}

TEST(GenericInterfaceLinkIsUpTest, MissingInterfaceFailsAndNamesIt) {
    TESSEL_NEED_NAMESPACES();
    Lines report = InFreshNetworkNamespace([] { return Query("nosuch0"); });
    EXPECT_EQ(report, (Lines{
                          "nosuch0: -1 down",
                          "ERROR GenericInterfaceLinkIsUp: Unable to query link status for nosuch0 ioctl failed",
                      }));
}

TEST(GenericInterfaceLinkIsUpTest, LoopbackIsDownInAFreshNamespaceAndUpOnceSetUp) {
    TESSEL_NEED_NAMESPACES();
    Lines report = InFreshNetworkNamespace([] {
        Lines lines = Query("lo");
        if (!Ip("link set lo up")) lines.push_back("setup failed");
        Append(lines, Query("lo"));
        return lines;
    });
    EXPECT_EQ(report, (Lines{"lo: 0 down", "lo: 0 up"}));
}

size_t OpenDescriptorCount() {
    size_t count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) ++count;
        closedir(dir);
    }
    return count;
}

TEST(GenericInterfaceLinkIsUpTest, ClosesItsSocketOnSuccessAndFailure) {
    TESSEL_NEED_NAMESPACES();
    Lines report = InFreshNetworkNamespace([] {
        if (!Ip("link set lo up")) return Lines{"setup failed"};
        LogCapture log;  // keeps the failure messages out of the test's output
        size_t before = OpenDescriptorCount();
        bool up = false;
        int succeeded = 0;
        int failed = 0;
        for (int i = 0; i < 50; ++i) {
            if (GenericInterfaceLinkIsUp("lo", up) == 0 && up) ++succeeded;
            if (GenericInterfaceLinkIsUp("nosuch0", up) == -1 && !up) ++failed;
        }
        size_t after = OpenDescriptorCount();
        return Lines{"succeeded " + std::to_string(succeeded), "failed " + std::to_string(failed),
                     "descriptors added " + std::to_string(after - before)};
    });
    EXPECT_EQ(report, (Lines{"succeeded 50", "failed 50", "descriptors added 0"}));
}

// --- PHY mode ------------------------------------------------------------------

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(SetEthernetPhyModeTest, SgmiiWritesTypeFourAlone) {
    TempDir dir;
    LogCapture log;
    SetEthernetPhyMode(dir.Path("port"), PHY_MODE_SGMII);
    EXPECT_EQ(ReadFile(dir.Path("port")), "4");
    EXPECT_EQ(log.Timeline(), Lines{"INFO SetEthernetPhyMode: Using ETH PHY type 4, RGMII to SGMII"});
    EXPECT_TRUE(log.SystemLog().empty());
}

TEST(SetEthernetPhyModeTest, CopperWritesTypeZeroAlone) {
    TempDir dir;
    LogCapture log;
    SetEthernetPhyMode(dir.Path("port"), PHY_MODE_COPPER);
    EXPECT_EQ(ReadFile(dir.Path("port")), "0");
    EXPECT_EQ(log.Timeline(), Lines{"INFO SetEthernetPhyMode: Using ETH PHY type 0, RGMII to copper"});
    EXPECT_TRUE(log.SystemLog().empty());
}

TEST(SetEthernetPhyModeTest, ValuesBeyondSgmiiCountAsCopper) {
    for (uint32_t value : {2U, 3U, 4U, 0x80000001U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(value);
        TempDir dir;
        LogCapture log;
        SetEthernetPhyMode(dir.Path("port"), static_cast<PHY_MODE>(value));
        EXPECT_EQ(ReadFile(dir.Path("port")), "0");
        EXPECT_EQ(log.Timeline(), Lines{"INFO SetEthernetPhyMode: Using ETH PHY type 0, RGMII to copper"});
    }
}

TEST(SetEthernetPhyModeTest, EachCallLeavesExactlyOneByte) {
    TempDir dir;
    std::ofstream(dir.Path("port")) << "previous content\n";
    SetEthernetPhyMode(dir.Path("port"), PHY_MODE_SGMII);
    EXPECT_EQ(ReadFile(dir.Path("port")), "4");
    SetEthernetPhyMode(dir.Path("port"), PHY_MODE_COPPER);
    EXPECT_EQ(ReadFile(dir.Path("port")), "0");
}

// /dev/full opens but refuses the byte: the choice is logged all the same, and
// the failed write is not reported.
TEST(SetEthernetPhyModeTest, LogsTheChoiceEvenWhenTheWriteFails) {
    LogCapture log;
    SetEthernetPhyMode("/dev/full", PHY_MODE_SGMII);
    SetEthernetPhyMode("/dev/full", PHY_MODE_COPPER);
    EXPECT_EQ(log.Timeline(), (Lines{
                                  "INFO SetEthernetPhyMode: Using ETH PHY type 4, RGMII to SGMII",
                                  "INFO SetEthernetPhyMode: Using ETH PHY type 0, RGMII to copper",
                              }));
    EXPECT_TRUE(log.SystemLog().empty());
}

TEST(SetEthernetPhyModeTest, UnopenablePathOnlyReportsTheMissingPatch) {
    TempDir dir;
    std::string path = dir.Path("missing-dir/marvell-phy-0-port");
    LogCapture log;
    SetEthernetPhyMode(path, PHY_MODE_SGMII);
    EXPECT_EQ(log.Timeline(), Lines{"ERROR SetEthernetPhyMode: Unable to open " + path + " patch is required"});
    // The one entry of this unit that also goes to the system log.
    EXPECT_EQ(log.SystemLog(), Lines{"<3> Unable to open " + path + " patch is required"});
    struct stat info;
    EXPECT_NE(stat(dir.Path("missing-dir").c_str(), &info), 0);
    EXPECT_NE(stat(path.c_str(), &info), 0);
}

TEST(SetEthernetPhyModeTest, EntriesCarryTheUnit) {
    TempDir dir;
    LogCapture log;
    SetEthernetPhyMode(dir.Path("port"), PHY_MODE_SGMII);
    std::vector<LogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].file, "src/NetworkLink.cpp");
}

}  // namespace
