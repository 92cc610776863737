// Whole sequences of supervision passes, in-process, each compared as one ordered
// timeline of log entries, commands and pauses. Each sequence runs in namespaces
// of its own: a private /tmp for the configuration and lease files, a /proc that
// lists no DHCP client but the test's, and an eth0 made for the case.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "src/Network.h"
#include "src/NetworkCycle.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/ExpectedTimelines.h"
#include "tests/support/KernelCommandLine.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Namespaces.h"

namespace {

const char* const kConfigPath = "/tmp/networkd.conf";
const char* const kVeth1Lease = "/tmp/dhcp_veth1.txt";

// eth0 as the link query will find it.
enum class Eth0 {
    kUp,         // a veth whose peer is up: running
    kDown,       // administratively down
    kNoCarrier,  // up, but its peer is down
    kMissing,    // no such interface
};

// One pass, and what changes on the device before it.
struct Pass {
    std::string config;  // written to the configuration file; empty: the file stays as it is
    std::string lease;   // written as veth1's lease file by the client's script; empty: none
};

bool WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

// The names in a directory, one after another.
std::string Listing(const char* path) {
    std::string names;
    for (const auto& entry : std::filesystem::directory_iterator(path)) names += entry.path().filename().string() + " ";
    return names;
}

bool MakeEth0(Eth0 link) {
    if (link == Eth0::kMissing) return true;
    if (!RunQuietly("ip link add eth0 type veth peer name eth0peer")) return false;
    switch (link) {
        case Eth0::kUp:
            return RunQuietly("ip link set eth0peer up") && RunQuietly("ip link set eth0 up") &&
                   WaitForOperStateUp("eth0");
        case Eth0::kNoCarrier:
            return RunQuietly("ip link set eth0 up");
        default:
            return true;
    }
}

// Runs the passes against one state, as the daemon's loop does, and returns each
// pass's timeline under a "pass N" line. Commands are recorded, not run, but for
// the removal of a lease file, which the shell would carry out.
Lines RunPasses(Eth0 link, const std::vector<Pass>& passes) {
    return InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID, [&] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return Lines{"cannot mount /tmp"};
        if (!MakeEth0(link)) return Lines{"cannot make eth0"};
        KernelCommandLine cmdline("console=ttyS0 mac=02:00:00:00:77:01 quiet\n");
        LogCapture log;
        CommandRecorder commands(
            [](const std::string& command) { return command.rfind(std::string("rm -f ") + kVeth1Lease, 0) == 0; });
        PauseRecorder pauses;
        CYCLE_STATE state;
        Lines lines;
        size_t seen = 0;
        for (size_t i = 0; i < passes.size(); ++i) {
            if (!passes[i].config.empty() && !WriteFile(kConfigPath, passes[i].config)) return Lines{"cannot write"};
            if (!passes[i].lease.empty() && !WriteFile(kVeth1Lease, passes[i].lease)) return Lines{"cannot write"};
            RunSupervisionCycle(kConfigPath, state);
            Lines timeline = log.Timeline();
            lines.push_back("pass " + std::to_string(i + 1));
            lines.insert(lines.end(), timeline.begin() + static_cast<std::ptrdiff_t>(seen), timeline.end());
            seen = timeline.size();
            // A lease read is a lease taken: nothing of it may stay for the next pass.
            if (Listing("/tmp").find("dhcp_veth1") != std::string::npos) lines.push_back("lease file left");
        }
        return lines;
    });
}

// The expected lines, built from literal pieces in the order given.
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

const char* const kEth1Static =
    "bridge eth1\n"
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

const char* const kEth0Frame =
    "bridge eth0\n"
    "phy frame\n"
    "veth1 static 192.168.1.2 255.255.255.0 192.168.1.1\n"
    "veth3 static 192.168.100.1 255.255.255.0 0.0.0.0\n";

const char* const kLease = "veth1 192.168.77.100 255.255.255.0\n192.168.77.1\n";

// Pieces of the timelines below, written out once.
const Lines kReattach = {"$ ip link set eth0 master br0 > /dev/null 2>&1"};
const Lines kBounceEth0 = {"$ ip link set eth0 down > /dev/null 2>&1", "$ ip link set eth0 up > /dev/null 2>&1"};
const Lines kLinkQueryFails = {
    "ERROR GenericInterfaceLinkIsUp: Unable to query link status for eth0 ioctl failed",
    "WARN RunSupervisionCycle: Unable to get link status for bridge physical interface eth0",
};
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
// Tests have no PHY driver: the write fails, eth1 is bounced all the same.
const Lines kPhyWrite = {
    "ERROR SetEthernetPhyMode: Unable to open /proc/marvell-phy-0-port patch is required",
    "$ ip link set dev eth1 down",
    "$ ip link set dev eth1 up",
};

TEST(NetworkCycleTest, FirstUsablePassInEachBridgeMode) {
    TESSEL_NEED_NAMESPACES();
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kEth0Static, ""}}),
              Join({{"pass 1"}, kBridgeBuildEth0, kReattach, kRegisterWrites, kVeth1Static, kPhyWrite}));
    // eth0 is not watched, yet the first usable pass writes the registers.
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kEth1Static, ""}}),
              Join({{"pass 1"}, kBridgeBuildEth1, kRegisterWrites, kVeth1Static, kPhyWrite}));
    EXPECT_EQ(
        RunPasses(Eth0::kUp, {{kBothStatic, ""}}),
        Join({{"pass 1"}, kBridgeBuildEth0Eth1, kReattach, kRegisterWrites, kVeth1Static, kVeth3Static, kPhyWrite}));
}

TEST(NetworkCycleTest, SteadyPassesFollowEth0sLink) {
    TESSEL_NEED_NAMESPACES();
    const Lines first = Join({{"pass 1"}, kBridgeBuildEth0});
    const Lines rest = Join({kVeth1Static, kPhyWrite});
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kEth0Static, ""}, {"", ""}, {"", ""}}),
              Join({first, kReattach, kRegisterWrites, rest, {"pass 2"}, kReattach, {"pass 3"}, kReattach}));
    // A down link is bounced and the registers written on every pass.
    const Lines down = Join({first,
                             kBounceEth0,
                             kRegisterWrites,
                             rest,
                             {"pass 2"},
                             kBounceEth0,
                             kRegisterWrites,
                             {"pass 3"},
                             kBounceEth0,
                             kRegisterWrites});
    EXPECT_EQ(RunPasses(Eth0::kDown, {{kEth0Static, ""}, {"", ""}, {"", ""}}), down);
    EXPECT_EQ(RunPasses(Eth0::kNoCarrier, {{kEth0Static, ""}, {"", ""}, {"", ""}}), down);
    // A failed query is not a down link: nothing is bounced, the registers only at first.
    EXPECT_EQ(
        RunPasses(Eth0::kMissing, {{kEth0Static, ""}, {"", ""}, {"", ""}}),
        Join(
            {first, kLinkQueryFails, kRegisterWrites, rest, {"pass 2"}, kLinkQueryFails, {"pass 3"}, kLinkQueryFails}));
}

TEST(NetworkCycleTest, BridgeModeChangeRebuildsAndStopsServicingVeth3) {
    TESSEL_NEED_NAMESPACES();
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kBothStatic, ""}, {kEth0Static, ""}, {"", ""}}), Join({{"pass 1"},
                                                                                            kBridgeBuildEth0Eth1,
                                                                                            kReattach,
                                                                                            kRegisterWrites,
                                                                                            kVeth1Static,
                                                                                            kVeth3Static,
                                                                                            kPhyWrite,
                                                                                            {"pass 2"},
                                                                                            kBridgeBuildEth0,
                                                                                            kReattach,
                                                                                            kVeth1Static,
                                                                                            {"pass 3"},
                                                                                            kReattach}));
}

TEST(NetworkCycleTest, PhyModeChangeWritesItAndBouncesEth1Only) {
    TESSEL_NEED_NAMESPACES();
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kEth0Static, ""}, {kEth0Frame, ""}, {"", ""}}), Join({{"pass 1"},
                                                                                           kBridgeBuildEth0,
                                                                                           kReattach,
                                                                                           kRegisterWrites,
                                                                                           kVeth1Static,
                                                                                           kPhyWrite,
                                                                                           {"pass 2"},
                                                                                           kReattach,
                                                                                           kPhyWrite,
                                                                                           {"pass 3"},
                                                                                           kReattach}));
}

TEST(NetworkCycleTest, UnusableFileBetweenGoodOnesChangesNothing) {
    TESSEL_NEED_NAMESPACES();
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kEth0Static, ""}, {"bridge nowhere\n", ""}, {kEth0Static, ""}}),
              Join({{"pass 1"},
                    kBridgeBuildEth0,
                    kReattach,
                    kRegisterWrites,
                    kVeth1Static,
                    kPhyWrite,
                    {"pass 2"},
                    {"ERROR ParseConfigFile: Invalid bridge mode entry, expected eth0|eth1|eth0eth1"},
                    {"pass 3"},
                    kReattach}));
}

TEST(NetworkCycleTest, MissingFileRunsNothing) {
    TESSEL_NEED_NAMESPACES();
    EXPECT_EQ(RunPasses(Eth0::kUp, {{"", ""}, {"", ""}}),
              (Lines{"pass 1", "ERROR ParseConfigFile: Unable to read configuration file", "pass 2",
                     "ERROR ParseConfigFile: Unable to read configuration file"}));
}

TEST(NetworkCycleTest, DhcpStartLeaseRenewalAndLoss) {
    TESSEL_NEED_NAMESPACES();
    EXPECT_EQ(
        RunPasses(Eth0::kUp,
                  {{kEth0Dhcp, ""}, {"", kLease}, {"", ""}, {"", kLease}, {"", "veth1 0.0.0.0 0.0.0.0\n"}, {"", ""}}),
        Join({{"pass 1"},
              kBridgeBuildEth0,
              kReattach,
              kRegisterWrites,
              {
                  "INFO SetupInterface: Configuring interface veth1 for DHCP",
                  "$ ip route flush dev veth1",
                  "$ ip addr flush dev veth1",
                  "$ rm -f /tmp/dhcp_veth1.txt > /dev/null 2>&1",
                  "INFO SetupInterface: Starting DHCP for interface veth1",
                  "$ udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script",
              },
              kPhyWrite,
              {"pass 2"},
              kReattach,
              {
                  "INFO CheckForNewDhcpAddress: New DHCP lease for veth1",
                  "$ ip route flush dev veth1",
                  "$ ip addr flush dev veth1",
                  "INFO SetAddrAndRouting: Configuring veth1 for 192.168.77.100/255.255.255.0",
                  "$ ip addr add 192.168.77.100/255.255.255.0 dev veth1",
                  "INFO SetAddrAndRouting: Adding default gateway 192.168.77.1 for veth1",
                  "$ ip route add default via 192.168.77.1 dev veth1 metric 10",
              },
              {"pass 3"},
              kReattach,
              // A renewal repeats the lease in force: read and removed, nothing else.
              {"pass 4"},
              kReattach,
              {"pass 5"},
              kReattach,
              {
                  "INFO CheckForNewDhcpAddress: No DHCP lease for veth1",
                  "INFO CheckForNewDhcpAddress: No DHCP lease for veth1",
                  "$ ip route flush dev veth1",
                  "$ ip addr flush dev veth1",
              },
              {"pass 6"},
              kReattach}));
}

}  // namespace
