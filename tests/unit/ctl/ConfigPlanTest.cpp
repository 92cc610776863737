// "tessel-networkctl plan": whole plans compared with literal timelines (the
// daemon's own timelines of tests/fixtures where a build is the same), and
// proof that making one runs, signals and writes nothing.
#include "ctl/ConfigPlan.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/ExpectedTimelines.h"
#include "tests/support/Files.h"
#include "tests/support/KernelCommandLine.h"
#include "tests/support/Namespaces.h"
#include "tests/support/RefusedSystemCalls.h"
#include "tests/support/TempDir.h"
#include "tests/support/ToolPath.h"

namespace {

using Lines = std::vector<std::string>;

Lines Join(std::initializer_list<Lines> pieces) {
    Lines all;
    for (const Lines& piece : pieces) all.insert(all.end(), piece.begin(), piece.end());
    return all;
}

const char* const kEth0Static =
    "bridge eth0\n"
    "phy copper\n"
    "veth1 static 192.168.1.2 255.255.255.0 192.168.1.1\n"
    "veth3 static 192.168.100.1 255.255.255.0 0.0.0.0\n";

const char* const kBothStatic =
    "bridge eth0eth1\n"
    "phy copper\n"
    "veth1 static 192.168.1.2 255.255.255.0 192.168.1.1\n"
    "veth3 static 192.168.100.1 255.255.255.0 0.0.0.0\n";

const char* const kEth0Dhcp =
    "bridge eth0\n"
    "phy copper\n"
    "veth1 dhcp\n"
    "veth3 static 192.168.100.1 255.255.255.0 0.0.0.0\n";

const Lines kStartup = {
    "$ ip link set dev lo up",
    "$ ip link set dev eth1 down",
    "$ ip link set dev eth1 up",
};
const Lines kReattach = {"$ ip link set eth0 master br0 > /dev/null 2>&1"};
const Lines kVeth1Static = {
    "$ ip route flush dev veth1",
    "$ ip addr flush dev veth1",
    "INFO SetupInterface: Configuring interface veth1 for static IP",
    "INFO SetAddrAndRouting: Configuring veth1 for 192.168.1.2/255.255.255.0",
    "$ ip addr add 192.168.1.2/255.255.255.0 dev veth1",
    "INFO SetAddrAndRouting: Adding default gateway 192.168.1.1 for veth1",
    "$ ip route add default via 192.168.1.1 dev veth1 metric 10",
};
const Lines kVeth3Static = {
    "$ ip route flush dev veth3",
    "$ ip addr flush dev veth3",
    "INFO SetupInterface: Configuring interface veth3 for static IP",
    "INFO SetAddrAndRouting: Configuring veth3 for 192.168.100.1/255.255.255.0",
    "$ ip addr add 192.168.100.1/255.255.255.0 dev veth3",
    "INFO SetAddrAndRouting: Not adding default gateway for veth3",
};
// The plan's driver file takes the byte, as the device's does.
const Lines kPhyCopper = {
    "INFO SetEthernetPhyMode: Using ETH PHY type 0, RGMII to copper",
    "$ ip link set dev eth1 down",
    "$ ip link set dev eth1 up",
};

class ConfigPlanTest : public testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& text) {
        std::string path = m_dir.Path(name);
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    PLAN Plan(const std::string& from, const std::string& to) {
        PLAN_ENDS ends;
        ends.m_fromPath = from.empty() ? "" : Write("from.conf", from);
        ends.m_toPath = Write("to.conf", to);
        return MakePlan(ends);
    }

    TempDir m_dir;
    // ebtables with its batch form, as the device's tools have them, and the
    // unit tests' kernel command line.
    ToolPath m_tools{{"ebtables", "ebtables-restore"}};
    KernelCommandLine m_cmdline{"console=ttyS0 mac=02:00:00:00:77:01 quiet\n"};
};

TEST_F(ConfigPlanTest, FromNothingToOnePortIsTheFirstStart) {
    const PLAN plan = Plan("", kEth0Static);
    EXPECT_FALSE(plan.m_bNothingToDo);
    EXPECT_EQ(plan.m_lines, Join({kStartup, BridgeBuildEth0(), LinkLayerRemoval(), kReattach, RegisterWrites(),
                                  kVeth1Static, kPhyCopper}));
    EXPECT_EQ(plan.m_everyPass, kReattach);
}

TEST_F(ConfigPlanTest, FromOnePortToTwoPortsRebuildsUnderTheBlocks) {
    const PLAN plan = Plan(kEth0Static, kBothStatic);
    EXPECT_FALSE(plan.m_bNothingToDo);
    EXPECT_EQ(plan.m_lines, Join({TwoPortBlocks(), BridgeBuildEth0Eth1(), IsolationCompleteInOne(), TwoPortLifts(),
                                  kReattach, kVeth1Static, kVeth3Static}));
    EXPECT_EQ(plan.m_everyPass, kReattach);
}

TEST_F(ConfigPlanTest, FromTwoPortsToOnePortRemovesTheLinkLayerRules) {
    const PLAN plan = Plan(kBothStatic, kEth0Static);
    EXPECT_EQ(plan.m_lines, Join({BridgeBuildEth0(), LinkLayerRemoval(), kReattach, kVeth1Static}));
    EXPECT_EQ(plan.m_everyPass, kReattach);
}

TEST_F(ConfigPlanTest, TheRunningConfigurationIsNothingToDo) {
    const PLAN plan = Plan(kBothStatic, kBothStatic);
    EXPECT_TRUE(plan.m_bNothingToDo);
    EXPECT_EQ(plan.m_lines, Lines{});
    EXPECT_EQ(PlanShown(plan, "A", "B"),
              (Lines{"Plan from A to B (nothing run):", "Nothing to do: the daemon runs that shape already."}));
}

TEST_F(ConfigPlanTest, ShownWithWhatEveryPassDoes) {
    PLAN plan;
    plan.m_lines = {"$ one"};
    plan.m_everyPass = {"$ two"};
    EXPECT_EQ(PlanShown(plan, "nothing", "F"),
              (Lines{"Plan from nothing to F (nothing run):", "$ one",
                     "Then every pass (each second) while nothing changes:", "$ two"}));
}

TEST(ConfigPlanTextTest, LongLinesWrapWithin80Columns) {
    const std::string command =
        "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP";
    EXPECT_EQ(PlanText({"short", command}),
              "short\n"
              "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface veth0\n"
              "    -j DROP\n");
    const std::string word(100, 'x');
    EXPECT_EQ(PlanText({word}, 80), std::string(80, 'x') + "\n    " + std::string(20, 'x') + "\n");
}

// A plan runs no process, signals none and opens no socket (no netlink, no
// ioctl's socket): the kernel refuses all of it in the child that makes the
// plan, which still comes out whole. A lease file waiting in /tmp (a private
// one here) stays for the daemon, and what the plan writes stays in its
// private directory under TMPDIR, which is gone after it.
TEST_F(ConfigPlanTest, MakingAPlanRunsSignalsAndLeavesNothing) {
    TESSEL_NEED_NAMESPACES();
    const std::string lease = "veth1 192.168.77.100 255.255.255.0\n192.168.77.1\n";
    const Lines lines = InNewNamespaces(CLONE_NEWNS, [&] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return Lines{"cannot mount /tmp"};
        const ToolPath tools({"ebtables", "ebtables-restore"});
        const KernelCommandLine cmdline("console=ttyS0 mac=02:00:00:00:77:01 quiet\n");
        std::ofstream("/tmp/from.conf") << kEth0Static;
        std::ofstream("/tmp/to.conf") << kBothStatic;
        // A client to stop and start, and a lease file to leave alone.
        std::ofstream("/tmp/dhcp.conf") << kEth0Dhcp;
        std::ofstream("/tmp/dhcp_veth1.txt") << lease;
        std::filesystem::create_directory("/tmp/scratch");
        setenv("TMPDIR", "/tmp/scratch", 1);
        const std::string why =
            RefuseSystemCalls({SYS_execve, SYS_execveat, SYS_kill, SYS_tkill, SYS_tgkill, SYS_socket}, EPERM);
        if (!why.empty()) return Lines{"skipped: " + why};
        if (syscall(SYS_kill, getpid(), 0) == 0 || errno != EPERM) return Lines{"the filter is not in force"};
        Lines seen;
        for (const PLAN_ENDS& ends :
             {PLAN_ENDS{"/tmp/from.conf", "/tmp/to.conf"}, PLAN_ENDS{"/tmp/from.conf", "/tmp/dhcp.conf"}}) {
            const PLAN plan = MakePlan(ends);
            seen.insert(seen.end(), plan.m_lines.begin(), plan.m_lines.end());
            seen.insert(seen.end(), plan.m_everyPass.begin(), plan.m_everyPass.end());
        }
        if (ReadFile("/tmp/dhcp_veth1.txt") != lease) seen.emplace_back("the lease file was taken");
        if (!std::filesystem::is_empty("/tmp/scratch")) seen.emplace_back("the private directory stayed");
        return seen;
    });
    if (lines.size() == 1 && lines[0].rfind("skipped: ", 0) == 0) GTEST_SKIP() << lines[0];
    EXPECT_EQ(lines, Join({TwoPortBlocks(),
                           BridgeBuildEth0Eth1(),
                           IsolationCompleteInOne(),
                           TwoPortLifts(),
                           kReattach,
                           kVeth1Static,
                           kVeth3Static,
                           kReattach,
                           kReattach,
                           {
                               "INFO SetupInterface: Configuring interface veth1 for DHCP",
                               "$ ip route flush dev veth1",
                               "$ ip addr flush dev veth1",
                               "$ rm -f /tmp/dhcp_veth1.txt > /dev/null 2>&1",
                               "INFO SetupInterface: Starting DHCP for interface veth1",
                               "$ udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script",
                           },
                           kReattach}));
}

}  // namespace
