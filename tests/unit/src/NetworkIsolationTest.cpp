// The isolation past the bridge build: the block on eth1, the completion after
// a two-port build, the periodic look and the repair, each compared as one
// ordered timeline; and the kernel's bridge netfilter read in namespaces.
#include <gtest/gtest.h>
#include <sched.h>

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "src/NetworkBridge.h"
#include "src/NetworkIsolation.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/ExpectedTimelines.h"
#include "tests/support/FakeFilterTables.h"
#include "tests/support/FixedClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Namespaces.h"

namespace {

using Lines = std::vector<std::string>;

Lines Join(std::initializer_list<Lines> pieces) {
    Lines all;
    for (const Lines& piece : pieces) all.insert(all.end(), piece.begin(), piece.end());
    return all;
}

int64_t g_nNowMs = 0;
int64_t TestNow() { return g_nNowMs; }

COMMAND_OUTCOME ExitStatus(int status) {
    COMMAND_OUTCOME outcome;
    outcome.m_nStatus = status;
    return outcome;
}

// The device as the isolation sees it: filter tables kept by the commands, a
// scripted bridge netfilter, a monotonic clock the test steps and a fixed
// wall clock; the isolation completed once, as after a two-port build.
class IsolationTest : public ::testing::Test {
protected:
    IsolationTest() : m_wallClock(1795000000, 0), m_previousClock(SetMonotonicClock(TestNow)) {
        g_nNowMs = 500000;
        m_commands.SetOutputs([this](const std::string& command) { return m_tables.Run(command); });
        m_commands.SetOutcomes([this](const std::string& command) -> std::optional<COMMAND_OUTCOME> {
            if (m_refuse.empty() || command.rfind(m_refuse, 0) != 0) return m_tables.Failure();
            return ExitStatus(4);
        });
        // The ARP and IP rules of the build, as it left them.
        WORK_FAILURE failure;
        SetupIsolationRules(failure);
        m_completed = CompleteIsolation(m_state, failure);
        m_seen = m_log.Timeline().size();
    }
    ~IsolationTest() override { SetMonotonicClock(m_previousClock); }

    // One pass's look after `seconds` more, with its timeline.
    Lines After(int seconds) {
        g_nNowMs += static_cast<int64_t>(seconds) * 1000;
        SuperviseIsolation(m_state);
        return Since();
    }

    // What happened since the last call.
    Lines Since() {
        Lines timeline = m_log.Timeline();
        Lines recent(timeline.begin() + static_cast<std::ptrdiff_t>(m_seen), timeline.end());
        m_seen = timeline.size();
        return recent;
    }

    FixedClock m_wallClock;
    MonotonicClock m_previousClock;
    LogCapture m_log;
    CommandRecorder m_commands;
    FakeFilterTables m_tables;
    BridgeFilterScript m_bridgeFilter;
    std::string m_refuse;  // commands starting so exit with status 4
    ISOLATION_STATE m_state;
    bool m_completed = false;
    size_t m_seen = 0;
};

TEST_F(IsolationTest, CompletionPutsTheLinkLayerRulesInAndFindsEverythingInForce) {
    ASSERT_TRUE(m_completed);
    EXPECT_TRUE(m_state.m_bInForce);
    EXPECT_EQ(m_state.m_problem, "");
    EXPECT_EQ(m_state.m_verifiedAt.tv_sec, 1795000000);
    EXPECT_EQ(m_tables.Rules("arptables").size(), kArpIsolationRules);
    EXPECT_EQ(m_tables.Rules("iptables").size(), kIpIsolationRules);
    EXPECT_EQ(m_tables.Rules("ebtables").size(), kLinkLayerIsolationRules);
    EXPECT_EQ(m_bridgeFilter.Asked(), (Lines{"br0"}));
}

TEST_F(IsolationTest, NothingRunsUntilTheLookIsDueThenOnlyTheListings) {
    for (int second = 1; second < 10; ++second) EXPECT_EQ(After(1), Lines{}) << "second " << second;
    EXPECT_EQ(After(1), IsolationLook());
    EXPECT_TRUE(m_state.m_bInForce);
    // The next look ten seconds after that one.
    EXPECT_EQ(After(9), Lines{});
    EXPECT_EQ(After(1), IsolationLook());
}

TEST_F(IsolationTest, RulesFlushedByAnotherProgramAreAllPutBackWithEth1AndVeth0BlockedMeanwhile) {
    m_tables.Rules("arptables").clear();
    m_tables.Rules("iptables").clear();
    m_tables.Rules("ebtables").clear();
    EXPECT_EQ(After(10), Join({IsolationLook(),
                               {"WARN SuperviseIsolation: Isolation not in force (0 of 38 ARP rules in place; 0 of 12 "
                                "IP rules in place; 0 of 28 link-layer rules in place); putting it back"},
                               Eth1Block(),
                               Veth0Block(),
                               IsolationRules(),
                               IsolationComplete(),
                               Veth0Lift(),
                               Eth1Lift(),
                               {"NOTICE RepairIsolation: Isolation back in force"}}));
    EXPECT_TRUE(m_state.m_bInForce);
    EXPECT_EQ(m_tables.Rules("arptables").size(), kArpIsolationRules);
    EXPECT_EQ(m_tables.Rules("ebtables", "nat").size(), 0U);
    // Whole again: the next look finds nothing to do.
    EXPECT_EQ(After(10), IsolationLook());
}

TEST_F(IsolationTest, OneRuleRemovedOrOneAddedIsNamed) {
    m_tables.Rules("ebtables").pop_back();
    Lines timeline = After(10);
    ASSERT_GE(timeline.size(), 4U);
    EXPECT_EQ(timeline[3],
              "WARN SuperviseIsolation: Isolation not in force (27 of 28 link-layer rules in place); putting it back");
    // A rule put before the isolation's lets everything through: a change too.
    m_tables.Rules("iptables").insert(m_tables.Rules("iptables").begin(), "-A FORWARD -j ACCEPT");
    timeline = After(10);
    ASSERT_GE(timeline.size(), 4U);
    EXPECT_EQ(timeline[3],
              "WARN SuperviseIsolation: Isolation not in force (the IP rules were changed); putting it back");
    EXPECT_EQ(m_tables.Rules("iptables").size(), kIpIsolationRules);
    EXPECT_EQ(m_tables.Rules("iptables").front(),
              "-A INPUT --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP");
}

TEST_F(IsolationTest, BridgeNetfilterSwitchedOffIsFoundAndPutBack) {
    m_bridgeFilter.Set({true, false, false, true});
    Lines timeline = After(10);
    ASSERT_GE(timeline.size(), 4U);
    EXPECT_EQ(timeline[3],
              "WARN SuperviseIsolation: Isolation not in force (br0 hands no bridged IPv4 to iptables; br0 hands no "
              "bridged ARP to arptables); putting it back");
    // The repair's own look still finds it off: eth1 stays blocked and goes down,
    // and the repair is tried again after the usual waits.
    EXPECT_EQ(Lines(timeline.end() - 4, timeline.end()),
              (Lines{"ERROR CompleteIsolation: Isolation not in force after setting it up: br0 hands no bridged IPv4 "
                     "to iptables; br0 hands no bridged ARP to arptables",
                     "WARN NoteWorkFailed: Retrying isolation in 1 s (failed attempts: 1)",
                     "WARN RepairIsolation: Keeping eth1 down until the isolation rules are in place",
                     "$ ip link set eth1 down"}));
    EXPECT_FALSE(m_state.m_bInForce);
    EXPECT_EQ(m_state.m_problem, "br0 hands no bridged IPv4 to iptables; br0 hands no bridged ARP to arptables");
    EXPECT_EQ(m_tables.Rules("ebtables", "nat"),
              (Lines{"-A PREROUTING -i eth1 -j DROP", "-A POSTROUTING -o eth1 -j DROP",
                     "-A PREROUTING -i veth0 -j DROP", "-A POSTROUTING -o veth0 -j DROP"}));
    // Someone turns it on again: the next attempt completes, lifts the blocks and raises eth1.
    m_bridgeFilter.Set({true, true, true, true});
    EXPECT_EQ(After(1),
              Join({Eth1Block(),
                    Veth0Block(),
                    IsolationRules(),
                    IsolationComplete(),
                    Veth0Lift(),
                    Eth1Lift(),
                    {"$ ip link set eth1 up", "NOTICE NoteWorkDone: Recovered isolation after 1 failed attempts",
                     "NOTICE RepairIsolation: Isolation back in force"}}));
    EXPECT_TRUE(m_state.m_bInForce);
    EXPECT_EQ(m_tables.Rules("ebtables", "nat"), Lines{});
}

TEST_F(IsolationTest, TaggedFilteringIsTurnedOnByTheCompletionAndALookFindsItOff) {
    // The completion after the build turned it on, without a command.
    EXPECT_EQ(m_bridgeFilter.Switched(), 1);
    m_bridgeFilter.Set({true, true, true, false});
    EXPECT_EQ(After(10), Join({IsolationLook(),
                               {"WARN SuperviseIsolation: Isolation not in force (tagged IPv4 and ARP reach no filter "
                                "(net.bridge.bridge-nf-filter-vlan-tagged is 0)); putting it back"},
                               Eth1Block(),
                               Veth0Block(),
                               IsolationRules(),
                               IsolationComplete(),
                               Veth0Lift(),
                               Eth1Lift(),
                               {"NOTICE RepairIsolation: Isolation back in force"}}));
    EXPECT_EQ(m_bridgeFilter.Switched(), 2);
    EXPECT_TRUE(m_state.m_bInForce);
}

TEST_F(IsolationTest, TaggedFilteringThatCannotBeTurnedOnKeepsTheIsolationOutOfForce) {
    m_bridgeFilter.RefuseSwitch();
    m_bridgeFilter.Set({true, true, true, false});
    Lines timeline = After(10);
    ASSERT_GE(timeline.size(), 4U);
    EXPECT_EQ(timeline[3],
              "WARN SuperviseIsolation: Isolation not in force (tagged IPv4 and ARP reach no filter "
              "(net.bridge.bridge-nf-filter-vlan-tagged is 0)); putting it back");
    EXPECT_EQ(Lines(timeline.end() - 4, timeline.end()),
              (Lines{"ERROR CompleteIsolation: Isolation not in force after setting it up: tagged IPv4 and ARP reach "
                     "no filter (net.bridge.bridge-nf-filter-vlan-tagged is 0)",
                     "WARN NoteWorkFailed: Retrying isolation in 1 s (failed attempts: 1)",
                     "WARN RepairIsolation: Keeping eth1 down until the isolation rules are in place",
                     "$ ip link set eth1 down"}));
    EXPECT_FALSE(m_state.m_bInForce);
    EXPECT_EQ(m_state.m_problem, "tagged IPv4 and ARP reach no filter (net.bridge.bridge-nf-filter-vlan-tagged is 0)");
}

TEST_F(IsolationTest, NoBridgeNetfilterInTheKernelIsNamed) {
    m_bridgeFilter.Set({false, false, false});
    Lines timeline = After(10);
    ASSERT_GE(timeline.size(), 4U);
    EXPECT_EQ(timeline[3],
              "WARN SuperviseIsolation: Isolation not in force (no bridge netfilter (br_netfilter) in the kernel); "
              "putting it back");
    EXPECT_FALSE(m_state.m_bInForce);
}

TEST_F(IsolationTest, ARefusedListingIsAProblemAndTheRepairWaitsOutItsBackoff) {
    m_refuse = "iptables -S";
    Lines timeline = After(10);
    EXPECT_EQ(Lines(timeline.begin(), timeline.begin() + 5),
              (Lines{"$ arptables -L -n", "$ iptables -S", "ERROR RunStep: Command failed (exit status 4): iptables -S",
                     "$ ebtables -L",
                     "WARN SuperviseIsolation: Isolation not in force (the IP rules cannot be listed (exit status 4)); "
                     "putting it back"}));
    EXPECT_EQ(timeline.back(), "$ ip link set eth1 down");
    // Waits 1 s, then 2 s: nothing in between.
    EXPECT_EQ(After(1).back(), "$ ip link set eth1 down");
    EXPECT_EQ(After(1), Lines{});
    m_refuse.clear();
    EXPECT_EQ(After(1).back(), "NOTICE RepairIsolation: Isolation back in force");
    EXPECT_TRUE(m_state.m_bInForce);
}

TEST_F(IsolationTest, ABlockSetTwiceIsLiftedWhole) {
    WORK_FAILURE failure;
    ASSERT_TRUE(BlockEth1(failure));
    ASSERT_TRUE(BlockEth1(failure));
    EXPECT_EQ(m_tables.Rules("ebtables", "nat"),
              (Lines{"-A PREROUTING -i eth1 -j DROP", "-A POSTROUTING -o eth1 -j DROP"}));
    ASSERT_TRUE(LiftEth1Block(failure));
    EXPECT_EQ(m_tables.Rules("ebtables", "nat"), Lines{});
    // Lifting a block that is not there is a failure: the work is done again.
    EXPECT_FALSE(LiftEth1Block(failure));
}

TEST_F(IsolationTest, OtherModesRemoveTheLinkLayerRules) {
    WORK_FAILURE failure;
    // A block a two-port build cut short left on veth0 goes too.
    ASSERT_TRUE(BlockVeth0(failure));
    Since();
    ASSERT_TRUE(RemoveLinkLayerRules(failure));
    EXPECT_EQ(Since(), LinkLayerRemoval());
    EXPECT_EQ(m_tables.Rules("ebtables", "nat"), Lines{});
    EXPECT_EQ(m_tables.Rules("ebtables").size(), 0U);
    // The design's own ARP and IP rules stay.
    EXPECT_EQ(m_tables.Rules("arptables").size(), kArpIsolationRules);
}

// The kernel's side, for real, in namespaces of the test's own.
std::string ReadFlag(const std::string& path) {
    std::ifstream in(path);
    std::string text;
    std::getline(in, text);
    return text;
}

TEST(BridgeFilterStateTest, ReadsTheSystemWideSwitchAndTheBridgesOwn) {
    TESSEL_NEED_NAMESPACES();
    Lines found = InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS, [] {
        if (ReadFlag("/proc/sys/net/bridge/bridge-nf-call-iptables").empty()) return Lines{"no br_netfilter"};
        auto describe = [](const BRIDGE_FILTER_STATE& state) {
            return std::string(state.m_bAvailable ? "available" : "missing") + (state.m_bIptables ? " ip" : " -") +
                   (state.m_bArptables ? " arp" : " -");
        };
        Lines lines;
        if (!RunQuietly("ip link add br0 type bridge")) return Lines{"cannot make br0"};
        RunQuietly("sysctl -q -w net.bridge.bridge-nf-call-iptables=1 net.bridge.bridge-nf-call-arptables=1");
        lines.push_back(describe(ReadBridgeFilterState("br0")));
        RunQuietly("sysctl -q -w net.bridge.bridge-nf-call-iptables=0 net.bridge.bridge-nf-call-arptables=0");
        lines.push_back(describe(ReadBridgeFilterState("br0")));
        RunQuietly("ip link set dev br0 type bridge nf_call_iptables 1");
        lines.push_back(describe(ReadBridgeFilterState("br0")));
        RunQuietly("ip link set dev br0 type bridge nf_call_iptables 1 nf_call_arptables 1");
        lines.push_back(describe(ReadBridgeFilterState("br0")));
        // No such bridge, and the system-wide switch off: not handed over.
        lines.push_back(describe(ReadBridgeFilterState("br9")));
        return lines;
    });
    if (found == Lines{"no br_netfilter"}) GTEST_SKIP() << "this kernel has no br_netfilter";
    EXPECT_EQ(found,
              (Lines{"available ip arp", "available - -", "available ip -", "available ip arp", "available - -"}));
}

TEST(BridgeFilterStateTest, TaggedFilteringIsReadAndTurnedOn) {
    TESSEL_NEED_NAMESPACES();
    Lines found = InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS, [] {
        if (ReadFlag("/proc/sys/net/bridge/bridge-nf-filter-vlan-tagged").empty()) return Lines{"no br_netfilter"};
        auto describe = [](bool switched) {
            return std::string(switched ? "switched " : "- ") +
                   (ReadBridgeFilterState("br0").m_bVlanTagged ? "on" : "off");
        };
        if (!RunQuietly("ip link add br0 type bridge")) return Lines{"cannot make br0"};
        Lines lines;
        RunQuietly("sysctl -q -w net.bridge.bridge-nf-filter-vlan-tagged=0");
        lines.push_back(describe(false));
        lines.push_back(describe(SwitchOnTaggedFiltering()));
        lines.push_back(ReadFlag("/proc/sys/net/bridge/bridge-nf-filter-vlan-tagged"));
        // Already on: nothing to write.
        lines.push_back(describe(SwitchOnTaggedFiltering()));
        return lines;
    });
    if (found == Lines{"no br_netfilter"}) GTEST_SKIP() << "this kernel has no br_netfilter";
    EXPECT_EQ(found, (Lines{"- off", "switched on", "1", "switched on"}));
}

TEST(BridgeFilterStateTest, ReadsTheBridgesOwnWhateverTheSizeOfItsMessage) {
    TESSEL_NEED_NAMESPACES();
    Lines found = InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS, [] {
        if (ReadFlag("/proc/sys/net/bridge/bridge-nf-call-iptables").empty()) return Lines{"no br_netfilter"};
        if (!RunQuietly("ip link add br0 type bridge")) return Lines{"cannot make br0"};
        RunQuietly("sysctl -q -w net.bridge.bridge-nf-call-iptables=0 net.bridge.bridge-nf-call-arptables=0");
        RunQuietly("ip link set dev br0 type bridge nf_call_iptables 1 nf_call_arptables 1");
        if (!GiveManyAlternativeNames("br0")) return Lines{"no alternative names"};
        const BRIDGE_FILTER_STATE state = ReadBridgeFilterState("br0");
        return Lines{std::string(state.m_bIptables ? "ip" : "-") + (state.m_bArptables ? " arp" : " -")};
    });
    if (found == Lines{"no br_netfilter"}) GTEST_SKIP() << "this kernel has no br_netfilter";
    if (found == Lines{"no alternative names"}) GTEST_SKIP() << "this kernel or ip has no alternative names";
    EXPECT_EQ(found, Lines{"ip arp"});
}

}  // namespace
