// Whole sequences of supervision passes, in-process, each compared as one ordered
// timeline of log entries, commands and pauses. Each sequence runs in namespaces
// of its own: a private /tmp for the configuration and lease files, a /proc that
// lists no DHCP client but the test's, and an eth0 made for the case.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "src/NetworkCycle.h"
#include "src/NetworkCycleShape.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"
#include "src/NetworkStatusSnapshot.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/ExpectedTimelines.h"
#include "tests/support/FakeClient.h"
#include "tests/support/FakeFilterTables.h"
#include "tests/support/Files.h"
#include "tests/support/KernelCommandLine.h"
#include "tests/support/KernelShapes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Namespaces.h"
#include "tests/support/SteppedClock.h"
#include "tests/support/ToolPath.h"

namespace {

// ebtables with its batch form, as the device's tools have them: the same
// wherever the tests run, whatever the machine has.
const ToolPath g_deviceTools({"ebtables", "ebtables-restore"});

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
        FakeFilterTables tables;
        commands.SetOutputs([&tables](const std::string& command) { return tables.Run(command); });
        BridgeFilterScript bridgeFilter;
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

// A whole build as a pass runs it. Two-port mode: eth1 and veth0 blocked, br0
// built, the isolation completed, the blocks lifted. The others: br0 built,
// and the link-layer rules removed where there may be some (the run's first
// such build, with ebtables on the path, as the tests have it, or after a two-port build).
Lines BuildEth0() { return Join({BridgeBuildEth0(), LinkLayerRemoval()}); }
Lines BuildEth1() { return Join({BridgeBuildEth1(), LinkLayerRemoval()}); }
Lines BuildBoth() { return Join({TwoPortBlocks(), BridgeBuildEth0Eth1(), IsolationCompleteInOne(), TwoPortLifts()}); }

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
const Lines kClientStart = {
    "INFO SetupInterface: Configuring interface veth1 for DHCP",
    "$ ip route flush dev veth1",
    "$ ip addr flush dev veth1",
    "$ rm -f /tmp/dhcp_veth1.txt > /dev/null 2>&1",
    "INFO SetupInterface: Starting DHCP for interface veth1",
    "$ udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script",
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

// The first pass of a two-port device with both interfaces static.
Lines FirstTwoPortPass() {
    return Join({{"pass 1"}, BuildBoth(), kReattach, RegisterWrites(), kVeth1Static, kVeth3Static, kPhyWrite});
}

TEST(NetworkCycleTest, FirstUsablePassInEachBridgeMode) {
    TESSEL_NEED_NAMESPACES();
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kEth0Static, ""}}),
              Join({{"pass 1"}, BuildEth0(), kReattach, RegisterWrites(), kVeth1Static, kPhyWrite}));
    // eth0 is not watched, yet the first usable pass writes the registers.
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kEth1Static, ""}}),
              Join({{"pass 1"}, BuildEth1(), RegisterWrites(), kVeth1Static, kPhyWrite}));
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kBothStatic, ""}}), FirstTwoPortPass());
}

TEST(NetworkCycleTest, SteadyPassesFollowEth0sLink) {
    TESSEL_NEED_NAMESPACES();
    const Lines first = Join({{"pass 1"}, BuildEth0()});
    const Lines rest = Join({kVeth1Static, kPhyWrite});
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kEth0Static, ""}, {"", ""}, {"", ""}}),
              Join({first, kReattach, RegisterWrites(), rest, {"pass 2"}, kReattach, {"pass 3"}, kReattach}));
    // A down link is bounced and the registers written on every pass.
    const Lines down = Join({first,
                             kBounceEth0,
                             RegisterWrites(),
                             rest,
                             {"pass 2"},
                             kBounceEth0,
                             RegisterWrites(),
                             {"pass 3"},
                             kBounceEth0,
                             RegisterWrites()});
    EXPECT_EQ(RunPasses(Eth0::kDown, {{kEth0Static, ""}, {"", ""}, {"", ""}}), down);
    EXPECT_EQ(RunPasses(Eth0::kNoCarrier, {{kEth0Static, ""}, {"", ""}, {"", ""}}), down);
    // A failed query is not a down link: nothing is bounced, the registers only at first.
    EXPECT_EQ(RunPasses(Eth0::kMissing, {{kEth0Static, ""}, {"", ""}, {"", ""}}), Join({first,
                                                                                        kLinkQueryFails,
                                                                                        RegisterWrites(),
                                                                                        rest,
                                                                                        {"pass 2"},
                                                                                        kLinkQueryFails,
                                                                                        {"pass 3"},
                                                                                        kLinkQueryFails}));
}

TEST(NetworkCycleTest, BridgeModeChangeRebuildsAndStopsServicingVeth3) {
    TESSEL_NEED_NAMESPACES();
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kBothStatic, ""}, {kEth0Static, ""}, {"", ""}}),
              Join({FirstTwoPortPass(), {"pass 2"}, BuildEth0(), kReattach, kVeth1Static, {"pass 3"}, kReattach}));
}

TEST(NetworkCycleTest, PhyModeChangeWritesItAndBouncesEth1Only) {
    TESSEL_NEED_NAMESPACES();
    EXPECT_EQ(RunPasses(Eth0::kUp, {{kEth0Static, ""}, {kEth0Frame, ""}, {"", ""}}), Join({{"pass 1"},
                                                                                           BuildEth0(),
                                                                                           kReattach,
                                                                                           RegisterWrites(),
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
                    BuildEth0(),
                    kReattach,
                    RegisterWrites(),
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
              BuildEth0(),
              kReattach,
              RegisterWrites(),
              kClientStart,
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

// --- Faults: failed work is retried with growing waits ----------------------

// The clock retries and client checks read in these tests: one second per pass,
// as the daemon's loop pauses.

COMMAND_OUTCOME ExitStatus(int status) {
    COMMAND_OUTCOME outcome;
    outcome.m_nStatus = status;
    return outcome;
}

// What a pass's commands do: for a command, the failure to give on pass N (1 on),
// or nothing for success.
using Faults = std::function<std::optional<COMMAND_OUTCOME>(int pass, const std::string& command)>;

// `count` passes over the file `config`, one second apart; returns each pass's
// timeline under "pass N", leaving out passes that did nothing.
Lines RunTimedPasses(Eth0 link, const std::string& config, int count, const Faults& faults,
                     const std::function<void(int pass, CYCLE_STATE& state)>& beforePass = nullptr) {
    return InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID, [&] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return Lines{"cannot mount /tmp"};
        if (!MakeEth0(link)) return Lines{"cannot make eth0"};
        if (!WriteFile(kConfigPath, config)) return Lines{"cannot write"};
        KernelCommandLine cmdline("console=ttyS0 mac=02:00:00:00:77:01 quiet\n");
        SteppedClock clock(100000);
        LogCapture log;
        CommandRecorder commands;
        int pass = 0;
        commands.SetOutcomes([&](const std::string& command) { return faults(pass, command); });
        FakeFilterTables tables;
        commands.SetOutputs([&tables](const std::string& command) { return tables.Run(command); });
        BridgeFilterScript bridgeFilter;
        PauseRecorder pauses;
        CYCLE_STATE state;
        Lines lines;
        size_t seen = 0;
        for (pass = 1; pass <= count; ++pass) {
            if (beforePass) beforePass(pass, state);
            RunSupervisionCycle(kConfigPath, state);
            Lines timeline = log.Timeline();
            if (timeline.size() > seen) {
                lines.push_back("pass " + std::to_string(pass));
                lines.insert(lines.end(), timeline.begin() + static_cast<std::ptrdiff_t>(seen), timeline.end());
            }
            seen = timeline.size();
            clock.Step(1000);
        }
        return lines;
    });
}

TEST(NetworkCycleFaultTest, FailedBridgeBuildIsRetriedAfterGrowingWaitsUntilItRecovers) {
    TESSEL_NEED_NAMESPACES();
    // br0 cannot be created during the first 4 passes (seconds 0 to 3).
    const std::string create = "ip link add name br0 type bridge";
    Lines timeline = RunTimedPasses(Eth0::kMissing, kEth1Static, 9, [&](int pass, const std::string& command) {
        return pass <= 4 && command == create ? std::optional<COMMAND_OUTCOME>(ExitStatus(2)) : std::nullopt;
    });
    const Lines failedBuild = Join({{
        "INFO SetupBridge: Setting up bridge for control network",
        "$ ip link set br0 down",
        "$ ip addr flush dev br0",
        "$ ip link set eth0 down",
        "$ ip addr flush dev eth0",
        "$ ip link set eth1 down",
        "$ ip addr flush dev eth1",
        "$ ip link del name br0",
        "$ ip link add name br0 type bridge",
        "ERROR RunStep: Command failed (exit status 2): ip link add name br0 type bridge",
    }});
    EXPECT_EQ(timeline, Join({{"pass 1"},
                              failedBuild,
                              {"WARN NoteWorkFailed: Retrying bridge setup in 1 s (failed attempts: 1)"},
                              RegisterWrites(),
                              kVeth1Static,
                              kPhyWrite,
                              {"pass 2"},
                              failedBuild,
                              {"WARN NoteWorkFailed: Retrying bridge setup in 2 s (failed attempts: 2)"},
                              kVeth1Static,
                              // Nothing in pass 3: the wait lasts until second 3.
                              {"pass 4"},
                              failedBuild,
                              {"WARN NoteWorkFailed: Retrying bridge setup in 4 s (failed attempts: 3)"},
                              kVeth1Static,
                              // Nothing until second 7; the fault has gone meanwhile.
                              {"pass 8"},
                              BuildEth1(),
                              {"NOTICE NoteWorkDone: Recovered bridge setup after 3 failed attempts"},
                              kVeth1Static}));
}

// The whole timeline, a line each, for a failure's message.
std::string Text(const Lines& timeline) {
    std::string text;
    for (const std::string& line : timeline) text += line + "\n";
    return text;
}

const char* const kEth1Frame =
    "bridge eth1\n"
    "phy frame\n"
    "veth1 static 192.168.1.2 255.255.255.0 192.168.1.1\n"
    "veth3 static 192.168.100.1 255.255.255.0 0.0.0.0\n";

// `count` passes one second apart in the mode `config`, the PHY mode written to
// `phyFile`; `beforePass` changes the device before a pass. Each pass's timeline
// under "pass N", then, where it changed, the PHY work as status takes it:
// "phy failures N: <what failed>", "phy in force <mode file>" or "phy ok".
// Passes that changed nothing are left out.
Lines RunPhyPasses(const std::string& config, const std::string& phyFile, int count,
                   const std::function<void(int pass)>& beforePass, const Faults& faults = nullptr) {
    return InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID, [&] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return Lines{"cannot mount /tmp"};
        if (!WriteFile(kConfigPath, config)) return Lines{"cannot write"};
        KernelCommandLine cmdline("console=ttyS0 mac=02:00:00:00:77:01 quiet\n");
        SteppedClock clock(100000);
        LogCapture log;
        CommandRecorder commands;
        int pass = 0;
        if (faults) commands.SetOutcomes([&](const std::string& command) { return faults(pass, command); });
        FakeFilterTables tables;
        commands.SetOutputs([&tables](const std::string& command) { return tables.Run(command); });
        BridgeFilterScript bridgeFilter;
        PauseRecorder pauses;
        CYCLE_STATE state;
        state.m_phyModeFile = phyFile;
        Lines lines;
        size_t seen = 0;
        std::string shown;
        for (pass = 1; pass <= count; ++pass) {
            beforePass(pass);
            RunSupervisionCycle(kConfigPath, state);
            Lines timeline = log.Timeline();
            STATUS_SNAPSHOT snapshot;
            TakeStatusSnapshot(state, snapshot);
            std::string phy = snapshot.m_phy.m_nFailures != 0
                                  ? "phy failures " + std::to_string(snapshot.m_phy.m_nFailures) + ": " +
                                        snapshot.m_phy.m_command + ": " + DescribeOutcome(snapshot.m_phy.m_outcome)
                                  : "phy ok";
            if (snapshot.m_bPhyInForce) phy += ", in force " + std::string(PhyModeWord(snapshot.m_ePhyMode));
            if (timeline.size() > seen || phy != shown) {
                lines.push_back("pass " + std::to_string(pass));
                lines.insert(lines.end(), timeline.begin() + static_cast<std::ptrdiff_t>(seen), timeline.end());
                if (phy != shown) lines.push_back(phy);
            }
            seen = timeline.size();
            shown = phy;
            clock.Step(1000);
        }
        return lines;
    });
}

const Lines kBounceEth1 = {"$ ip link set dev eth1 down", "$ ip link set dev eth1 up"};

// The design's one ERROR, and eth1 bounced, as before; the mode is not in force
// and status says why. The file is then looked for without a command or an
// entry, 1, 2, 4 ... s apart; once it is there, the mode is written and eth1
// bounced as after a change of mode.
TEST(NetworkCycleFaultTest, AMissingPhyFileIsAFailureLookedForQuietlyAndWrittenOnceThere) {
    TESSEL_NEED_NAMESPACES();
    const std::string file = "/tmp/driver/marvell-phy-0-port";
    const std::string missing = "Unable to open " + file + " patch is required";
    // The file appears before pass 9 (second 8); the look after it is due at second 15.
    Lines timeline = RunPhyPasses(kEth1Frame, file, 18, [&](int pass) {
        if (pass == 9 && (mkdir("/tmp/driver", 0755) != 0 || !WriteFile(file, ""))) ADD_FAILURE() << "no file made";
    });
    EXPECT_EQ(timeline,
              Join({{"pass 1"},
                    BuildEth1(),
                    RegisterWrites(),
                    kVeth1Static,
                    {"ERROR SetEthernetPhyMode: " + missing},
                    kBounceEth1,
                    {"phy failures 1: " + missing + ": not started (No such file or directory)"},
                    {"pass 2", "phy failures 2: " + missing + ": not started (No such file or directory)"},
                    {"pass 4", "phy failures 3: " + missing + ": not started (No such file or directory)"},
                    {"pass 8", "phy failures 4: " + missing + ": not started (No such file or directory)"},
                    {"pass 16", "INFO SetEthernetPhyMode: Using ETH PHY type 4, RGMII to SGMII"},
                    kBounceEth1,
                    {"NOTICE NoteWorkDone: Recovered PHY mode after 4 failed attempts", "phy ok, in force frame"}}))
        << Text(timeline);
}

// The driver's file in place: the mode is written, and in force.
TEST(NetworkCycleTest, APhyFileInPlaceIsWrittenAndTheModeInForce) {
    TESSEL_NEED_NAMESPACES();
    Lines timeline = RunPhyPasses(kEth1Frame, "/tmp/port", 3, [](int pass) {
        if (pass == 1 && !WriteFile("/tmp/port", "")) ADD_FAILURE() << "no file made";
        if (pass == 3 && ReadFile("/tmp/port") != "4") ADD_FAILURE() << "not written: " << ReadFile("/tmp/port");
    });
    EXPECT_EQ(timeline, Join({{"pass 1"},
                              BuildEth1(),
                              RegisterWrites(),
                              kVeth1Static,
                              {"INFO SetEthernetPhyMode: Using ETH PHY type 4, RGMII to SGMII"},
                              kBounceEth1,
                              {"phy ok, in force frame"}}));
}

// A file that takes no byte fails with its own ERROR once; it is there, so
// nothing is looked for, and the write waits for a change of mode.
TEST(NetworkCycleFaultTest, AFailedPhyWriteIsAFailureNotRetriedUntilTheModeChanges) {
    TESSEL_NEED_NAMESPACES();
    const std::string refused = "Unable to write the PHY type to /dev/full";
    Lines timeline = RunPhyPasses(kEth1Frame, "/dev/full", 6, [](int pass) {
        if (pass == 5 && !WriteFile(kConfigPath, kEth1Static)) ADD_FAILURE() << "cannot write";
    });
    EXPECT_EQ(timeline, Join({{"pass 1"},
                              BuildEth1(),
                              RegisterWrites(),
                              kVeth1Static,
                              {"INFO SetEthernetPhyMode: Using ETH PHY type 4, RGMII to SGMII",
                               "ERROR SetEthernetPhyMode: " + refused + ": No space left on device"},
                              kBounceEth1,
                              {"phy failures 1: " + refused + ": not started (No space left on device)"},
                              {"pass 5", "INFO SetEthernetPhyMode: Using ETH PHY type 0, RGMII to copper",
                               "ERROR SetEthernetPhyMode: " + refused + ": No space left on device"},
                              kBounceEth1,
                              {"phy failures 2: " + refused + ": not started (No space left on device)"}}))
        << Text(timeline);
}

// The passes whose timeline holds `line`, from a RunTimedPasses timeline.
std::vector<int> PassesWith(const Lines& timeline, const std::string& line) {
    std::vector<int> passes;
    int pass = 0;
    for (const std::string& entry : timeline) {
        if (entry.rfind("pass ", 0) == 0) pass = std::stoi(entry.substr(5));
        if (entry == line && (passes.empty() || passes.back() != pass)) passes.push_back(pass);
    }
    return passes;
}

// The lines of the timeline that start with one of the prefixes, in order.
Lines Only(const Lines& timeline, std::initializer_list<std::string> prefixes) {
    Lines kept;
    for (const std::string& entry : timeline) {
        for (const std::string& prefix : prefixes) {
            if (entry.rfind(prefix, 0) == 0) {
                kept.push_back(entry);
                break;
            }
        }
    }
    return kept;
}

TEST(NetworkCycleFaultTest, WaitsGrowToAMinuteAndAChangedModeIsBuiltAtOnce) {
    TESSEL_NEED_NAMESPACES();
    const std::string create = "ip link add name br0 type bridge";
    Lines timeline = RunTimedPasses(
        Eth0::kMissing, kEth1Static, 200,
        [&](int /*pass*/, const std::string& command) {
            return command == create ? std::optional<COMMAND_OUTCOME>(ExitStatus(1)) : std::nullopt;
        },
        [](int pass, CYCLE_STATE& /*state*/) {
            if (pass == 190) WriteFile(kConfigPath, kBothStatic);
        });
    // Seconds 0, 1, 3, 7, 15, 31, 63, then a minute apart; the new mode at once.
    EXPECT_EQ(PassesWith(timeline, "$ " + create), (std::vector<int>{1, 2, 4, 8, 16, 32, 64, 124, 184, 190}));
    EXPECT_EQ(Only(timeline, {"WARN NoteWorkFailed"}),
              (Lines{"WARN NoteWorkFailed: Retrying bridge setup in 1 s (failed attempts: 1)",
                     "WARN NoteWorkFailed: Retrying bridge setup in 2 s (failed attempts: 2)",
                     "WARN NoteWorkFailed: Retrying bridge setup in 4 s (failed attempts: 3)",
                     "WARN NoteWorkFailed: Retrying bridge setup in 8 s (failed attempts: 4)",
                     "WARN NoteWorkFailed: Retrying bridge setup in 16 s (failed attempts: 5)",
                     "WARN NoteWorkFailed: Retrying bridge setup in 32 s (failed attempts: 6)",
                     "WARN NoteWorkFailed: Retrying bridge setup in 60 s (failed attempts: 7)",
                     "WARN NoteWorkFailed: Retrying bridge setup in 60 s (failed attempts: 8)",
                     "WARN NoteWorkFailed: Retrying bridge setup in 60 s (failed attempts: 9)",
                     "WARN NoteWorkFailed: Retrying bridge setup in 60 s (failed attempts: 10)"}));
}

TEST(NetworkCycleFaultTest, FailedIsolationRuleStopsTheBuildAndLeavesEth1BlockedAndDown) {
    TESSEL_NEED_NAMESPACES();
    // Another program holds the xtables lock during the first pass.
    Lines timeline = RunTimedPasses(Eth0::kUp, kBothStatic, 3, [&](int pass, const std::string& command) {
        return pass == 1 && command.rfind("iptables -A", 0) == 0 ? std::optional<COMMAND_OUTCOME>(ExitStatus(4))
                                                                 : std::nullopt;
    });
    Lines builds = Only(timeline, {"pass", "$ ebtables", "> ", "$ iptables -F", "$ ip link set eth1", "ERROR RunStep",
                                   "WARN", "NOTICE", "INFO SetupBridge", "INFO CompleteIsolation"});
    // Pass 1: eth1 and veth0 blocked first (one look at ebtables' nat table,
    // then both blocks in one batch); the design's build up to the refused
    // rule, no lift, eth1 taken down. Pass 2: blocked again (the blocks the
    // listing shows deleted first: one block each), the whole build with every
    // command in its place, the isolation completed, the blocks lifted only then.
    EXPECT_EQ(
        builds,
        Join({{"pass 1", "$ ebtables -t nat -L", "$ ebtables-restore --noflush <<'EOF'", "> *nat",
               "> -A PREROUTING -i eth1 -j DROP", "> -A POSTROUTING -o eth1 -j DROP",
               "> -A PREROUTING -i veth0 -j DROP", "> -A POSTROUTING -o veth0 -j DROP", "> EOF",
               "INFO SetupBridge: Setting up bridge for control network", "$ ip link set eth1 down",
               "$ ip link set eth1 master br0", "$ ip link set eth1 up", "$ ip link set eth1 arp off", "$ iptables -F",
               // One entry, cut to fit the line.
               // NOLINTNEXTLINE(bugprone-suspicious-missing-comma)
               "ERROR RunStep: Command failed (exit status 4): iptables -A INPUT --source 10.253.254.254 -m "
               "physdev --physdev-in eth1 -j DROP",
               "WARN NoteWorkFailed: Retrying bridge setup in 1 s (failed attempts: 1)",
               "WARN RunSupervisionCycle: Keeping eth1 down until the isolation rules are in place",
               "$ ip link set eth1 down",
               // The PHY mode's bounce raised it: down again.
               "$ ip link set eth1 down", "pass 2", "$ ebtables -t nat -L", "$ ebtables-restore --noflush <<'EOF'",
               "> *nat", "> -D PREROUTING -i eth1 -j DROP", "> -A PREROUTING -i eth1 -j DROP",
               "> -D POSTROUTING -o eth1 -j DROP", "> -A POSTROUTING -o eth1 -j DROP",
               "> -D PREROUTING -i veth0 -j DROP", "> -A PREROUTING -i veth0 -j DROP",
               "> -D POSTROUTING -o veth0 -j DROP", "> -A POSTROUTING -o veth0 -j DROP", "> EOF",
               "INFO SetupBridge: Setting up bridge for control network", "$ ip link set eth1 down",
               "$ ip link set eth1 master br0", "$ ip link set eth1 up", "$ ip link set eth1 arp off", "$ iptables -F",
               "INFO SetupBridge: Done with bridge setup"},
              Only(IsolationCompleteInOne(), {"$ ebtables-restore", "> "}),
              {"$ ebtables -L",
               "INFO CompleteIsolation: Isolation in force: 38 ARP, 12 IP and 28 link-layer rules, bridge "
               "netfilter for br0"},
              TwoPortLifts(),
              {"NOTICE NoteWorkDone: Recovered bridge setup after 1 failed attempts", "pass 3"}}));
    // The retry is the whole build, exactly as the first would have been but
    // for the blocks the first left, deleted before they are set again.
    const Lines expected = Join(
        {{"$ ebtables -t nat -L", "$ ebtables-restore --noflush <<'EOF'", "> *nat", "> -D PREROUTING -i eth1 -j DROP",
          "> -A PREROUTING -i eth1 -j DROP", "> -D POSTROUTING -o eth1 -j DROP", "> -A POSTROUTING -o eth1 -j DROP",
          "> -D PREROUTING -i veth0 -j DROP", "> -A PREROUTING -i veth0 -j DROP", "> -D POSTROUTING -o veth0 -j DROP",
          "> -A POSTROUTING -o veth0 -j DROP", "> EOF"},
         BridgeBuildEth0Eth1(),
         IsolationCompleteInOne(),
         TwoPortLifts()});
    const size_t second = static_cast<size_t>(std::find(timeline.begin(), timeline.end(), "pass 2") - timeline.begin());
    const size_t third = static_cast<size_t>(std::find(timeline.begin(), timeline.end(), "pass 3") - timeline.begin());
    ASSERT_LT(second, third);
    const Lines retried(
        timeline.begin() + static_cast<std::ptrdiff_t>(second) + 1,
        timeline.begin() + static_cast<std::ptrdiff_t>(second) + 1 + static_cast<std::ptrdiff_t>(expected.size()));
    EXPECT_EQ(retried, expected);
}

TEST(NetworkCycleTest, StartUpIsTheDesignsWhereNoBridgeCarriesEth1) {
    LogCapture log;
    CommandRecorder commands;
    KernelShapeScript kernel;
    KERNEL_SHAPE nothing;
    nothing.m_bRead = true;
    kernel.Show(nothing);
    CYCLE_STATE state;
    RunStartupCommands(state);
    EXPECT_EQ(log.Timeline(),
              (Lines{"$ ip link set dev lo up", "$ ip link set dev eth1 down", "$ ip link set dev eth1 up"}));
    EXPECT_FALSE(state.m_bStartupPending);
    EXPECT_FALSE(state.m_isolation.m_linkLayer.m_bEth1Blocked);
}

TEST(NetworkCycleTest, StartUpBlocksEth1BeforeRaisingItWhereAnEarlierBridgeCarriesIt) {
    LogCapture log;
    CommandRecorder commands;
    KernelShapeScript kernel;
    kernel.Show(WholeTwoPortShape());
    CYCLE_STATE state;
    RunStartupCommands(state);
    EXPECT_EQ(
        log.Timeline(),
        Join({{"$ ip link set dev lo up"}, Eth1Block(), {"$ ip link set dev eth1 down", "$ ip link set dev eth1 up"}}));
    EXPECT_FALSE(state.m_bStartupPending);
    EXPECT_TRUE(state.m_isolation.m_linkLayer.m_bEth1Blocked);
}

TEST(NetworkCycleTest, TheIsolationIsLookedAtEveryTenSecondsAndNothingElseIsAdded) {
    TESSEL_NEED_NAMESPACES();
    Lines timeline = RunTimedPasses(Eth0::kUp, kBothStatic, 22, [](int, const std::string&) { return std::nullopt; });
    Lines expected = FirstTwoPortPass();
    for (int pass = 2; pass <= 22; ++pass) {
        expected.push_back("pass " + std::to_string(pass));
        // Seconds 10 and 20 after the build: the first look lists the tables, the
        // second finds the kernel's fingerprint of them unchanged and lists nothing.
        if (pass == 11) expected.insert(expected.end(), IsolationLook().begin(), IsolationLook().end());
        expected.insert(expected.end(), kReattach.begin(), kReattach.end());
    }
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, LeavingTheTwoPortModeRemovesTheLinkLayerRulesAndLooksNoMore) {
    TESSEL_NEED_NAMESPACES();
    Lines timeline = RunTimedPasses(
        Eth0::kMissing, kBothStatic, 13, [](int, const std::string&) { return std::nullopt; },
        [](int pass, CYCLE_STATE& /*state*/) {
            if (pass == 2) WriteFile(kConfigPath, kEth1Static);
        });
    EXPECT_EQ(
        Only(timeline, {"pass", "$ ebtables", "> ", "INFO CompleteIsolation", "$ arptables -L", "WARN Supervise"}),
        Join({{"pass 1"},
              TwoPortBlocks(),
              Only(IsolationCompleteInOne(), {"$ ebtables", "> ", "INFO", "$ arptables -L"}),
              TwoPortLifts(),
              {"pass 2"},
              LinkLayerRemoval()}));
    // Nothing at all in passes 3 to 13: no look outside the two-port mode.
    EXPECT_EQ(Only(timeline, {"pass"}).back(), "pass 2");
}

const char* const kEth1Dhcp =
    "bridge eth1\n"
    "phy copper\n"
    "veth1 dhcp\n"
    "veth3 static 192.168.100.1 255.255.255.0 0.0.0.0\n";

TEST(NetworkCycleFaultTest, LeaseThatCannotBePutInForceIsKeptAndAppliedOnALaterPass) {
    TESSEL_NEED_NAMESPACES();
    const std::string add = "ip addr add 192.168.77.100/255.255.255.0 dev veth1";
    Lines timeline = RunTimedPasses(
        Eth0::kMissing, kEth1Dhcp, 4,
        [&](int pass, const std::string& command) {
            return pass == 2 && command == add ? std::optional<COMMAND_OUTCOME>(ExitStatus(2)) : std::nullopt;
        },
        [](int pass, CYCLE_STATE& /*state*/) {
            if (pass == 2) WriteFile(kVeth1Lease, kLease);
        });
    const Lines apply = {
        "$ ip route flush dev veth1",
        "$ ip addr flush dev veth1",
        "INFO SetAddrAndRouting: Configuring veth1 for 192.168.77.100/255.255.255.0",
        "$ ip addr add 192.168.77.100/255.255.255.0 dev veth1",
    };
    EXPECT_EQ(timeline,
              Join({{"pass 1"},
                    BuildEth1(),
                    RegisterWrites(),
                    kClientStart,
                    kPhyWrite,
                    {"pass 2", "INFO CheckForNewDhcpAddress: New DHCP lease for veth1"},
                    apply,
                    {"ERROR RunStep: Command failed (exit status 2): " + add,
                     "WARN NoteWorkFailed: Retrying addressing of veth1 in 1 s (failed attempts: 1)", "pass 3"},
                    apply,
                    {"INFO SetAddrAndRouting: Adding default gateway 192.168.77.1 for veth1",
                     "$ ip route add default via 192.168.77.1 dev veth1 metric 10",
                     "NOTICE NoteWorkDone: Recovered addressing of veth1 after 1 failed attempts"}}));
}

// One value the passes' process (in namespaces of its own, a child) hands back.
template <typename T>
class SharedWithPasses {
public:
    SharedWithPasses()
        : m_value(
              static_cast<T*>(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~SharedWithPasses() {
        if (m_value != MAP_FAILED) munmap(m_value, sizeof(T));
    }
    SharedWithPasses(const SharedWithPasses&) = delete;
    SharedWithPasses& operator=(const SharedWithPasses&) = delete;
    T* Get() const { return m_value == MAP_FAILED ? nullptr : m_value; }

private:
    T* m_value;
};

// The client the pass starts dies at second 6; with `lookAlike`, another user
// then runs a program under its name and arguments (its pid, as the passes see
// it, in `impostorPid`). Returns the passes' timeline.
Lines DeadClientTimeline(bool lookAlike, pid_t& impostorPid) {
    SharedWithPasses<pid_t> impostorSeen;
    if (impostorSeen.Get() == nullptr) return {"cannot map"};
    // What the started client looks like in the process table, once it has
    // gone to the background.
    const Lines arguments = {"-i", "veth1", "-b", "-R", "-s", "/usr/share/udhcpc/tessel.script"};
    std::vector<std::unique_ptr<FakeClient>> clients;
    std::unique_ptr<FakeClient> impostor;
    Lines timeline = RunTimedPasses(
        Eth0::kMissing, kEth1Dhcp, 14,
        [&](int /*pass*/, const std::string& command) -> std::optional<COMMAND_OUTCOME> {
            if (command.rfind("udhcpc -i veth1 ", 0) == 0)
                clients.push_back(std::make_unique<FakeClient>("udhcpc", arguments));
            return std::nullopt;
        },
        [&](int pass, CYCLE_STATE& /*state*/) {
            // Killed at second 6, after the first check at second 5 found it;
            // a zombie until reaped, and no client either way.
            if (pass != 7 || clients.empty()) return;
            clients.front()->KillToZombie();
            if (!lookAlike) return;
            impostor = std::make_unique<FakeClient>("udhcpc", arguments, "read REPLY", kNobody);
            if (impostor->Started()) *impostorSeen.Get() = impostor->Pid();
        });
    impostorPid = *impostorSeen.Get();
    return timeline;
}

TEST(NetworkCycleFaultTest, DeadDhcpClientIsReplacedAfterItsNextCheck) {
    TESSEL_NEED_NAMESPACES();
    pid_t impostor = 0;
    const Lines timeline = DeadClientTimeline(false, impostor);
    const Lines expected =
        Join({{"pass 1"},
              BuildEth1(),
              RegisterWrites(),
              kClientStart,
              kPhyWrite,
              // Checked at seconds 5 (running) and 10 (gone); replaced in the next pass.
              {"pass 11", "WARN ServiceVethX: DHCP client for veth1 is gone, starting a new one", "pass 12"},
              kClientStart});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleFaultTest, AnotherUsersLookAlikeNeverStandsInForADeadClient) {
    TESSEL_NEED_NAMESPACES();
    pid_t impostor = 0;
    const Lines timeline = DeadClientTimeline(true, impostor);
    ASSERT_GT(impostor, 0);
    const Lines expected =
        Join({{"pass 1"},
              BuildEth1(),
              RegisterWrites(),
              kClientStart,
              kPhyWrite,
              // Not taken for the client at the check at second 10: replaced as if
              // there were none, and stopped with the clients, as every udhcpc of veth1 is.
              {"pass 11", "WARN ServiceVethX: DHCP client for veth1 is gone, starting a new one", "pass 12",
               "INFO SetupInterface: Configuring interface veth1 for DHCP", "$ ip route flush dev veth1",
               "$ ip addr flush dev veth1",
               "INFO StopDhcp: Killing udhcpc pid " + std::to_string(impostor) + " for interface veth1",
               "$ rm -f /tmp/dhcp_veth1.txt > /dev/null 2>&1", "INFO SetupInterface: Starting DHCP for interface veth1",
               "$ udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script"}});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, WhatIsUndoneFromOutsideIsPutBackAndAFightWaits) {
    TESSEL_NEED_NAMESPACES();
    KernelShapeScript kernel;
    const KERNEL_SHAPE whole = WholeTwoPortShape();
    // What the kernel shows between two passes, as the wait's look finds it.
    auto outside = [&](const KERNEL_SHAPE& shape, CYCLE_STATE& state) {
        kernel.m_shape = shape;
        CheckForOutsideChanges(state);
        kernel.m_shape = whole;
    };
    KERNEL_SHAPE flushedVeth3 = whole;
    flushedVeth3.m_addresses.pop_back();
    Lines timeline = RunTimedPasses(
        Eth0::kUp, kBothStatic, 7, [](int, const std::string&) { return std::nullopt; },
        [&](int pass, CYCLE_STATE& state) {
            // br0 removed at seconds 1 and 2, veth3's address at second 5;
            // the look at second 4 finds everything whole.
            if (pass == 2 || pass == 3) outside(WithoutLink(whole, "br0"), state);
            if (pass == 5) outside(whole, state);
            if (pass == 6) outside(flushedVeth3, state);
        });
    const Lines rebuilt = Join({BuildBoth(),
                                {"NOTICE NoteWorkDone: Repaired bridge setup after an outside change"},
                                kReattach,
                                kVeth1Static,
                                kVeth3Static});
    const Lines expected =
        Join({FirstTwoPortPass(),
              // Each pass's lines begin with what the look before it found.
              {"pass 2", "WARN CheckForOutsideChanges: br0 was removed; rebuilding the bridge"},
              rebuilt,
              // Undone again a second after its repair: a fight, which waits a second.
              {"pass 3", "WARN CheckForOutsideChanges: br0 was removed; rebuilding the bridge"},
              kReattach,
              {"pass 4"},
              rebuilt,
              {"pass 5"},
              kReattach,
              {"pass 6",
               "WARN CheckForOutsideChanges: veth3's address 192.168.100.1/24 was removed; setting up veth3 again"},
              kReattach,
              kVeth3Static,
              {"NOTICE NoteWorkDone: Repaired addressing of veth3 after an outside change", "pass 7"},
              kReattach});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

// The whole two-port shape with one link changed as another program changed it.
KERNEL_SHAPE WithLink(const std::string& name, const std::function<void(KERNEL_LINK&)>& change) {
    KERNEL_SHAPE shape = WholeTwoPortShape();
    for (KERNEL_LINK& link : shape.m_links) {
        if (link.m_name == name) change(link);
    }
    return shape;
}

// Passes of a two-port device (both static) with `undo` shown to the look
// before the passes listed, the whole shape otherwise.
Lines RunUndonePasses(int count, const KERNEL_SHAPE& undo, const std::vector<int>& undoneBefore,
                      Eth0 link = Eth0::kUp) {
    KernelShapeScript kernel;
    const KERNEL_SHAPE whole = WholeTwoPortShape();
    return RunTimedPasses(
        link, kBothStatic, count, [](int, const std::string&) { return std::nullopt; },
        [&](int pass, CYCLE_STATE& state) {
            if (std::find(undoneBefore.begin(), undoneBefore.end(), pass) == undoneBefore.end()) return;
            kernel.Show(undo);
            CheckForOutsideChanges(state);
            kernel.Show(whole);
        });
}

TEST(NetworkCycleTest, ALinkSetDownIsSetUpWithOneCommandAndNothingElse) {
    TESSEL_NEED_NAMESPACES();
    const Lines timeline = RunUndonePasses(3, WithLink("veth3", [](KERNEL_LINK& l) { l.m_bUp = false; }), {2});
    const Lines expected =
        Join({FirstTwoPortPass(),
              {"pass 2", "WARN CheckForOutsideChanges: veth3 was set down; setting veth3 up again",
               "$ ip link set veth3 up", "NOTICE NoteWorkDone: Repaired link state after an outside change"},
              kReattach,
              {"pass 3"},
              kReattach});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, APortTakenOutOfBr0IsPutBackWithOneCommand) {
    TESSEL_NEED_NAMESPACES();
    const Lines timeline = RunUndonePasses(3, WithLink("veth2", [](KERNEL_LINK& l) { l.m_nMaster = 0; }), {2});
    const Lines expected =
        Join({FirstTwoPortPass(),
              {"pass 2", "WARN CheckForOutsideChanges: veth2 was taken out of br0; putting veth2 back into br0",
               "$ ip link set veth2 master br0", "NOTICE NoteWorkDone: Repaired bridge ports after an outside change"},
              kReattach,
              {"pass 3"},
              kReattach});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, AChangedMacIsSetBackWithOneCommand) {
    TESSEL_NEED_NAMESPACES();
    const Lines timeline =
        RunUndonePasses(3, WithLink("veth1", [](KERNEL_LINK& l) { l.m_mac = "02:00:00:00:66:66"; }), {2});
    const Lines expected = Join({FirstTwoPortPass(),
                                 {"pass 2",
                                  "WARN CheckForOutsideChanges: veth1's MAC address was changed to 02:00:00:00:66:66; "
                                  "setting the MAC address of veth1 back",
                                  "$ ip link set dev veth1 address 02:00:00:00:77:01",
                                  "NOTICE NoteWorkDone: Repaired MAC addresses after an outside change"},
                                 kReattach,
                                 {"pass 3"},
                                 kReattach});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, ASmallRepairUndoneAgainWaitsOneTwoFourSecondsAndItsRepairResetsNothing) {
    TESSEL_NEED_NAMESPACES();
    // Set down again right after each repair: before passes 2, 3, 5, 8.
    const Lines timeline =
        RunUndonePasses(13, WithLink("veth3", [](KERNEL_LINK& l) { l.m_bUp = false; }), {2, 3, 5, 8});
    const Lines warn = {"WARN CheckForOutsideChanges: veth3 was set down; setting veth3 up again"};
    const Lines repair = {"$ ip link set veth3 up", "NOTICE NoteWorkDone: Repaired link state after an outside change"};
    const Lines expected = Join({FirstTwoPortPass(),
                                 {"pass 2"},
                                 warn,
                                 repair,
                                 kReattach,
                                 // Undone a second after its repair: a wait of 1 s.
                                 {"pass 3"},
                                 warn,
                                 kReattach,
                                 {"pass 4"},
                                 repair,
                                 kReattach,
                                 // Again: 2 s, then 4 s.
                                 {"pass 5"},
                                 warn,
                                 kReattach,
                                 {"pass 6"},
                                 kReattach,
                                 {"pass 7"},
                                 repair,
                                 kReattach,
                                 {"pass 8"},
                                 warn,
                                 kReattach,
                                 {"pass 9"},
                                 kReattach,
                                 {"pass 10"},
                                 kReattach,
                                 {"pass 11"},
                                 IsolationLook(),
                                 kReattach,
                                 {"pass 12"},
                                 repair,
                                 kReattach,
                                 {"pass 13"},
                                 kReattach});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, Eth0TakenOutOfBr0AgainAndAgainWaitsLikeAnyOtherRepair) {
    TESSEL_NEED_NAMESPACES();
    const Lines timeline = RunUndonePasses(10, WithLink("eth0", [](KERNEL_LINK& l) { l.m_nMaster = 0; }), {2, 3, 5, 8});
    const Lines warn = {"WARN CheckForOutsideChanges: eth0 was taken out of br0; putting it back"};
    const Lines repair =
        Join({kReattach, {"NOTICE NoteWorkDone: Repaired eth0's place in br0 after an outside change"}});
    const Lines expected = Join({FirstTwoPortPass(),
                                 {"pass 2"},
                                 warn,
                                 repair,
                                 // Undone again a second later: the pass leaves eth0 out for its wait.
                                 {"pass 3"},
                                 warn,
                                 {"pass 4"},
                                 repair,
                                 {"pass 5"},
                                 warn,
                                 {"pass 7"},
                                 repair,
                                 // Ten passes: the 4 s wait after pass 8 is not over by pass 10.
                                 {"pass 8"},
                                 warn});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, AnUnusableFileLeavesTheLastShapeSupervisedAndRepaired) {
    TESSEL_NEED_NAMESPACES();
    KernelShapeScript kernel;
    const KERNEL_SHAPE whole = WholeTwoPortShape();
    const KERNEL_SHAPE down = WithLink("veth3", [](KERNEL_LINK& l) { l.m_bUp = false; });
    const Lines timeline = RunTimedPasses(
        Eth0::kUp, kBothStatic, 12, [](int, const std::string&) { return std::nullopt; },
        [&](int pass, CYCLE_STATE& state) {
            if (pass == 2) WriteFile(kConfigPath, "bridge eth0eth1\nphy copper\n");
            if (pass == 4) {
                kernel.Show(down);
                CheckForOutsideChanges(state);
                kernel.Show(whole);
            }
        });
    const Lines expected =
        Join({FirstTwoPortPass(),
              // Unusable from second 1: nothing new, but the look goes on.
              {"pass 4", "WARN CheckForOutsideChanges: veth3 was set down; setting veth3 up again",
               "$ ip link set veth3 up", "NOTICE NoteWorkDone: Repaired link state after an outside change"},
              {"pass 11"},
              IsolationLook()});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, Veth1IsHeldToTheMacItsBuildGaveItNotToALaterCommandLine) {
    TESSEL_NEED_NAMESPACES();
    KernelShapeScript kernel;
    KERNEL_SHAPE laterMac = WholeTwoPortShape();
    laterMac.m_links[4].m_mac = "02:00:00:00:77:99";
    std::optional<KernelCommandLine> later;
    Lines timeline = RunTimedPasses(
        Eth0::kUp, kBothStatic, 5, [](int, const std::string&) { return std::nullopt; },
        [&](int pass, CYCLE_STATE& state) {
            // The command line names another MAC after the first build: the
            // check still holds veth1 to the one that build gave it.
            if (pass == 2) later.emplace("console=ttyS0 mac=02:00:00:00:77:99 quiet\n");
            if (pass == 2 || pass == 3) kernel.Show(WholeTwoPortShape());
            // Changed from outside to the new one: set back to the build's, with one command.
            if (pass == 4 || pass == 5) kernel.Show(laterMac);
            if (pass >= 2) CheckForOutsideChanges(state);
        });
    const Lines expected = Join({FirstTwoPortPass(),
                                 {"pass 2"},
                                 kReattach,
                                 {"pass 3"},
                                 kReattach,
                                 {"pass 4",
                                  "WARN CheckForOutsideChanges: veth1's MAC address was changed to 02:00:00:00:77:99; "
                                  "setting the MAC address of veth1 back",
                                  "$ ip link set dev veth1 address 02:00:00:00:77:01",
                                  "NOTICE NoteWorkDone: Repaired MAC addresses after an outside change"},
                                 kReattach,
                                 {"pass 5"},
                                 kReattach});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, AConfigurationBeingWrittenIsNotReadUntilItsWriterIsDone) {
    TESSEL_NEED_NAMESPACES();
    const std::string whole =
        std::string(kBothStatic).replace(std::string(kBothStatic).find("192.168.100.1"), 13, "192.168.100.25");
    // Cut where the last line still reads as a good one, with another address.
    const std::string half = whole.substr(0, whole.find("192.168.100.25") + 13);
    Lines timeline = RunTimedPasses(
        Eth0::kUp, kBothStatic, 5, [](int, const std::string&) { return std::nullopt; },
        [&](int pass, CYCLE_STATE& state) {
            // The wait saw the writer begin at second 1 and close at second 3.
            if (pass == 2) {
                WriteFile(kConfigPath, half);
                state.m_nConfigWritingSinceMs = MonotonicMs();
            }
            if (pass == 4) {
                WriteFile(kConfigPath, whole);
                state.m_nConfigWritingSinceMs = 0;
            }
        });
    const Lines expected = Join({FirstTwoPortPass(),
                                 {"pass 2"},
                                 kReattach,
                                 {"pass 3"},
                                 kReattach,
                                 {"pass 4"},
                                 kReattach,
                                 {
                                     "$ ip route flush dev veth3",
                                     "$ ip addr flush dev veth3",
                                     "INFO SetupInterface: Configuring interface veth3 for static IP",
                                     "INFO SetAddrAndRouting: Configuring veth3 for 192.168.100.25/255.255.255.0",
                                     "$ ip addr add 192.168.100.25/255.255.255.0 dev veth3",
                                     "INFO SetAddrAndRouting: Not adding default gateway for veth3",
                                 },
                                 {"pass 5"},
                                 kReattach});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

TEST(NetworkCycleTest, AWriterThatKeepsTheFileOpenHasItReadAfterFiveSeconds) {
    TESSEL_NEED_NAMESPACES();
    const std::string changed =
        std::string(kBothStatic).replace(std::string(kBothStatic).find("192.168.100.1"), 13, "192.168.100.7");
    Lines timeline = RunTimedPasses(
        Eth0::kUp, kBothStatic, 8, [](int, const std::string&) { return std::nullopt; },
        [&](int pass, CYCLE_STATE& state) {
            if (pass == 2) {
                WriteFile(kConfigPath, changed);
                state.m_nConfigWritingSinceMs = MonotonicMs();
            }
        });
    // Seconds 1 to 5 keep the last read; the pass at second 6 takes the file as it stands.
    EXPECT_EQ(PassesWith(timeline, "$ ip addr add 192.168.100.7/255.255.255.0 dev veth3"), std::vector<int>{7})
        << Text(timeline);
}

TEST(NetworkCycleTest, WhatTheKernelNeverHeldIsNoOutsideChange) {
    TESSEL_NEED_NAMESPACES();
    // The tools said they made br0, but the kernel never showed it.
    KernelShapeScript kernel;
    const KERNEL_SHAPE withoutBr0 = WithoutLink(WholeTwoPortShape(), "br0");
    kernel.Show(withoutBr0);
    KERNEL_SHAPE flushedVeth3 = withoutBr0;
    flushedVeth3.m_addresses.pop_back();
    Lines timeline = RunTimedPasses(
        Eth0::kUp, kBothStatic, 4, [](int, const std::string&) { return std::nullopt; },
        [&](int pass, CYCLE_STATE& state) {
            if (pass == 2) CheckForOutsideChanges(state);
            if (pass == 3) {
                kernel.Show(flushedVeth3);
                CheckForOutsideChanges(state);
                kernel.Show(withoutBr0);
            }
        });
    const Lines expected =
        Join({FirstTwoPortPass(),
              {"pass 2"},
              kReattach,
              // What it held goes on counting.
              {"pass 3",
               "WARN CheckForOutsideChanges: veth3's address 192.168.100.1/24 was removed; setting up veth3 again"},
              kReattach,
              kVeth3Static,
              {"NOTICE NoteWorkDone: Repaired addressing of veth3 after an outside change", "pass 4"},
              kReattach});
    EXPECT_EQ(timeline, expected) << Text(timeline);
}

}  // namespace
