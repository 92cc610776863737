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
#include <string>
#include <thread>
#include <vector>

#include "src/NetworkConfig.h"
#include "src/NetworkLinkPhy.h"
#include "src/NetworkShell.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Namespaces.h"
#include "tests/support/TempDir.h"

namespace {

// --- Link status, inside a fresh network namespace ---------------------------

// In the child: runs an `ip` command quietly; false when it failed.
bool Ip(const std::string& arguments) { return RunQuietly("ip " + arguments); }

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
    Lines report = InNewNamespaces(CLONE_NEWNET, [] {
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
    Lines report = InNewNamespaces(CLONE_NEWNET, [] {
        if (!Ip("link add vdn0 type veth peer name vdn1") || !Ip("link set vdn1 up")) return Lines{"setup failed"};
        return Query("vdn0");
    });
    EXPECT_EQ(report, Lines{"vdn0: 0 down"});
}

TEST(GenericInterfaceLinkIsUpTest, UpWithoutCarrierIsDown) {
    TESSEL_NEED_NAMESPACES();
    Lines report = InNewNamespaces(CLONE_NEWNET, [] {
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
    Lines report = InNewNamespaces(CLONE_NEWNET, [] { return Query("nosuch0"); });
    EXPECT_EQ(report, (Lines{
                          "nosuch0: -1 down",
                          "ERROR GenericInterfaceLinkIsUp: Unable to query link status for nosuch0 ioctl failed",
                      }));
}

TEST(GenericInterfaceLinkIsUpTest, LoopbackIsDownInAFreshNamespaceAndUpOnceSetUp) {
    TESSEL_NEED_NAMESPACES();
    Lines report = InNewNamespaces(CLONE_NEWNET, [] {
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
    Lines report = InNewNamespaces(CLONE_NEWNET, [] {
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
// the failed write after it, with the system's reason; the mode is not set.
TEST(SetEthernetPhyModeTest, LogsTheChoiceEvenWhenTheWriteFails) {
    LogCapture log;
    WORK_FAILURE failure;
    EXPECT_FALSE(SetEthernetPhyMode("/dev/full", PHY_MODE_SGMII, &failure));
    EXPECT_EQ(failure.m_command, "Unable to write the PHY type to /dev/full");
    EXPECT_EQ(DescribeOutcome(failure.m_outcome), "not started (No space left on device)");
    EXPECT_FALSE(SetEthernetPhyMode("/dev/full", PHY_MODE_COPPER));
    EXPECT_EQ(log.Timeline(), (Lines{
                                  "INFO SetEthernetPhyMode: Using ETH PHY type 4, RGMII to SGMII",
                                  "ERROR SetEthernetPhyMode: Unable to write the PHY type to /dev/full: No space left "
                                  "on device",
                                  "INFO SetEthernetPhyMode: Using ETH PHY type 0, RGMII to copper",
                                  "ERROR SetEthernetPhyMode: Unable to write the PHY type to /dev/full: No space left "
                                  "on device",
                              }));
    EXPECT_TRUE(log.SystemLog().empty());
}

TEST(SetEthernetPhyModeTest, AWrittenModeIsReportedAsSetAndLeavesTheFailureAlone) {
    TempDir dir;
    LogCapture log;
    WORK_FAILURE failure;
    failure.m_command = "untouched";
    EXPECT_TRUE(SetEthernetPhyMode(dir.Path("port"), PHY_MODE_COPPER, &failure));
    EXPECT_EQ(failure.m_command, "untouched");
    EXPECT_TRUE(failure.m_outcome.Succeeded());
}

// The design's one ERROR is the whole log; the failure carries its words and the reason.
TEST(SetEthernetPhyModeTest, AMissingDriverFileIsAFailureInTheLogsWords) {
    TempDir dir;
    const std::string path = dir.Path("missing-dir/marvell-phy-0-port");
    LogCapture log;
    WORK_FAILURE failure;
    EXPECT_FALSE(SetEthernetPhyMode(path, PHY_MODE_SGMII, &failure));
    EXPECT_EQ(failure.m_command, "Unable to open " + path + " patch is required");
    EXPECT_EQ(DescribeOutcome(failure.m_outcome), "not started (No such file or directory)");
    EXPECT_EQ(log.Timeline(), Lines{"ERROR SetEthernetPhyMode: Unable to open " + path + " patch is required"});
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
    EXPECT_EQ(entries[0].file, "src/NetworkLinkPhy.cpp");
}

// A dry run answers the link query itself: no socket, no ioctl.
TEST(GenericInterfaceLinkIsUpTest, AReaderAnswersInPlaceOfTheKernel) {
    LinkStateReader previous = SetLinkStateReader([](const std::string& name, bool& up) {
        up = name == "eth0";
        return name == "gone" ? -1 : 0;
    });
    bool up = false;
    EXPECT_EQ(GenericInterfaceLinkIsUp("eth0", up), 0);
    EXPECT_TRUE(up);
    EXPECT_EQ(GenericInterfaceLinkIsUp("gone", up), -1);
    EXPECT_FALSE(up);
    SetLinkStateReader(std::move(previous));
    // The kernel's query again: no such interface here.
    EXPECT_EQ(GenericInterfaceLinkIsUp("tessel-none0", up), -1);
}

}  // namespace
