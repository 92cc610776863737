// The isolation past the bridge build: the block on eth1, the completion after
// a two-port build, the periodic look and the repair, each compared as one
// ordered timeline; and the kernel's bridge netfilter read in namespaces.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
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
#include "tests/support/SteppedClock.h"
#include "tests/support/ToolPath.h"

namespace {

// ebtables with its batch form, as the device's tools have them: the same
// wherever the tests run, whatever the machine has.
const ToolPath g_deviceTools({"ebtables", "ebtables-restore"});

using Lines = std::vector<std::string>;

Lines Join(std::initializer_list<Lines> pieces) {
    Lines all;
    for (const Lines& piece : pieces) all.insert(all.end(), piece.begin(), piece.end());
    return all;
}

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
    IsolationTest() : m_wallClock(1795000000, 0), m_clock(500000) {
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

    // One pass's look after `seconds` more, with its timeline.
    Lines After(int seconds) {
        m_clock.Step(static_cast<int64_t>(seconds) * 1000);
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
    SteppedClock m_clock;
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
    // The next look ten seconds after that one: the tables unchanged, no listing.
    EXPECT_EQ(After(9), Lines{});
    EXPECT_EQ(After(1), Lines{});
    EXPECT_EQ(m_state.m_verifiedAt.tv_sec, 1795000000);
}

TEST_F(IsolationTest, TheTablesAreListedOnlyWhenTheKernelsFingerprintMoved) {
    // The first look after the build lists; a minute of looks after it, with
    // nothing changed, lists nothing and still finds the isolation in force.
    EXPECT_EQ(After(10), IsolationLook());
    for (int look = 1; look <= 6; ++look) EXPECT_EQ(After(10), Lines{}) << "look " << look;
    EXPECT_TRUE(m_state.m_bInForce);
    EXPECT_EQ(m_state.m_verifiedAt.tv_sec, 1795000000);
    // Another program's rule after the isolation's moves it: one listing, no warning.
    m_tables.Rules("iptables").push_back("-A FORWARD -j ACCEPT");
    EXPECT_EQ(After(10), IsolationLook());
    EXPECT_EQ(After(10), Lines{});
    // A flush is found at the next period, as before.
    m_tables.Rules("arptables").clear();
    const Lines timeline = After(10);
    ASSERT_GT(timeline.size(), IsolationLook().size());
    EXPECT_EQ(Lines(timeline.begin(), timeline.begin() + static_cast<std::ptrdiff_t>(IsolationLook().size())),
              IsolationLook());
    EXPECT_EQ(timeline[IsolationLook().size()],
              "WARN SuperviseIsolation: Isolation not in force (0 of 38 ARP rules in place); putting it back");
    EXPECT_TRUE(m_state.m_bInForce);
    // After the repair the next look lists once, then nothing again.
    EXPECT_EQ(After(10), IsolationLook());
    EXPECT_EQ(After(10), Lines{});
}

TEST_F(IsolationTest, TheTablesAreListedEveryFiveMinutesWhateverTheFingerprint) {
    EXPECT_EQ(After(10), IsolationLook());
    // 29 looks of 10 s without a listing, then the backstop's.
    for (int look = 1; look <= 29; ++look) EXPECT_EQ(After(10), Lines{}) << "look " << look;
    EXPECT_EQ(After(10), IsolationLook());
    EXPECT_EQ(After(10), Lines{});
}

TEST_F(IsolationTest, AFingerprintThatCannotBeReadListsAtEveryLook) {
    m_tables.SetUnreadable(true);
    for (int look = 1; look <= 3; ++look) EXPECT_EQ(After(10), IsolationLook()) << "look " << look;
    // Readable again: once more a listing, then none.
    m_tables.SetUnreadable(false);
    EXPECT_EQ(After(10), IsolationLook());
    EXPECT_EQ(After(10), Lines{});
}

TEST_F(IsolationTest, BridgeNetfilterChangedIsLookedAtWithoutAFingerprintChange) {
    EXPECT_EQ(After(10), IsolationLook());
    EXPECT_EQ(After(10), Lines{});
    m_bridgeFilter.Set({true, true, true, false});
    const Lines timeline = After(10);
    ASSERT_GT(timeline.size(), IsolationLook().size());
    EXPECT_EQ(Lines(timeline.begin(), timeline.begin() + static_cast<std::ptrdiff_t>(IsolationLook().size())),
              IsolationLook());
}

// The commands of a fixture that start so, in order.
Lines Only(const Lines& timeline, std::initializer_list<std::string> prefixes) {
    Lines kept;
    for (const std::string& line : timeline) {
        for (const std::string& prefix : prefixes) {
            if (line.starts_with(prefix)) {
                kept.push_back(line);
                break;
            }
        }
    }
    return kept;
}

TEST_F(IsolationTest, RulesFlushedByAnotherProgramAreAppendedAgainWithEth1AndVeth0BlockedMeanwhile) {
    m_tables.Rules("arptables").clear();
    m_tables.Rules("iptables").clear();
    m_tables.Rules("ebtables").clear();
    // Only the rules appended again, no flush: another program's rule that came
    // meanwhile would stay.
    EXPECT_EQ(After(10), Join({IsolationLook(),
                               {"WARN SuperviseIsolation: Isolation not in force (0 of 38 ARP rules in place; 0 of 12 "
                                "IP rules in place; 0 of 28 link-layer rules in place); putting it back"},
                               TwoPortBlocks(),
                               Only(IsolationRules(), {"$ arptables -A ", "$ iptables -A "}),
                               Only(IsolationComplete(), {"$ ebtables -A "}),
                               IsolationLook(),
                               TwoPortLifts(),
                               {"NOTICE RepairIsolation: Isolation back in force"}}));
    EXPECT_TRUE(m_state.m_bInForce);
    EXPECT_EQ(m_tables.Rules("arptables").size(), kArpIsolationRules);
    EXPECT_EQ(m_tables.Rules("ebtables", "nat").size(), 0U);
    // Whole again: the next look finds nothing to do.
    EXPECT_EQ(After(10), IsolationLook());
}

TEST_F(IsolationTest, OtherProgramsRulesAfterTheIsolationsStayWithNoWarningAndNoCommand) {
    m_tables.Rules("iptables").push_back("-A FORWARD -s 192.0.2.1 -j DROP");
    m_tables.Rules("iptables").push_back("-A FORWARD -j ACCEPT");
    m_tables.Rules("iptables").push_back("-A OUTPUT -j ACCEPT");
    m_tables.Rules("arptables").push_back("-A FORWARD --source-ip 192.0.2.1 -j DROP");
    m_tables.Rules("arptables").push_back("-A INPUT -j ACCEPT");
    m_tables.Rules("ebtables").push_back("-A FORWARD -p IPv4 -j ACCEPT");
    // And a DROP of another program ahead of them: it lets nothing through.
    m_tables.Rules("iptables").insert(m_tables.Rules("iptables").begin(), "-A INPUT -s 192.0.2.2 -j DROP");
    const Lines before = Join({m_tables.Rules("arptables"), m_tables.Rules("iptables"), m_tables.Rules("ebtables")});
    // A minute of looks: the first the three listings alone, the others nothing
    // (the tables unchanged since).
    EXPECT_EQ(After(10), IsolationLook());
    for (int look = 2; look <= 6; ++look) EXPECT_EQ(After(10), Lines{}) << "look " << look;
    EXPECT_TRUE(m_state.m_bInForce);
    EXPECT_EQ(m_state.m_verifiedAt.tv_sec, 1795000000);
    EXPECT_EQ(Join({m_tables.Rules("arptables"), m_tables.Rules("iptables"), m_tables.Rules("ebtables")}), before);
}

TEST_F(IsolationTest, AnAcceptInsertedAheadIsNamedAndOnlyTheIsolationsRulesAfterItMoveAheadOfIt) {
    // Before the seventh of the isolation's eight FORWARD rules.
    Lines& ip = m_tables.Rules("iptables");
    ip.insert(ip.begin() + 10, "-A FORWARD -j ACCEPT");
    EXPECT_EQ(After(10),
              Join({IsolationLook(),
                    {"WARN SuperviseIsolation: Isolation not in force (10 of 12 IP rules in place; a rule of another "
                     "program ahead of the IP rules: -A FORWARD -j ACCEPT); putting it back"},
                    TwoPortBlocks(),
                    {"$ iptables -D FORWARD --destination 10.253.254.254 -m physdev --physdev-out eth1 -j DROP",
                     "$ iptables -I FORWARD 7 --destination 10.253.254.254 -m physdev --physdev-out eth1 -j DROP",
                     "$ iptables -D FORWARD --destination 10.253.254.253 -m physdev --physdev-out eth1 -j DROP",
                     "$ iptables -I FORWARD 8 --destination 10.253.254.253 -m physdev --physdev-out eth1 -j DROP"},
                    IsolationLook(),
                    TwoPortLifts(),
                    {"NOTICE RepairIsolation: Isolation back in force"}}));
    // The other program's rule stays, after the isolation's.
    ASSERT_EQ(ip.size(), kIpIsolationRules + 1);
    EXPECT_EQ(ip.back(), "-A FORWARD -j ACCEPT");
    EXPECT_TRUE(m_state.m_bInForce);
    EXPECT_EQ(After(10), IsolationLook());
}

TEST_F(IsolationTest, AJumpAheadOfTheArpRulesIsNamedAndTheOneRuleAfterItMoves) {
    Lines& arp = m_tables.Rules("arptables");
    arp.insert(arp.end() - 1, "-A FORWARD -j RETURN");
    const Lines timeline = After(10);
    EXPECT_EQ(Lines(timeline.begin() + 3, timeline.begin() + 4),
              Lines{"WARN SuperviseIsolation: Isolation not in force (37 of 38 ARP rules in place; a rule of another "
                    "program ahead of the ARP rules: -A FORWARD -j RETURN); putting it back"});
    EXPECT_EQ(Only(timeline, {"$ arptables -D", "$ arptables -I", "$ arptables -A"}),
              (Lines{"$ arptables -D FORWARD --destination-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP",
                     "$ arptables -I FORWARD 38 --destination-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP"}));
    EXPECT_EQ(arp.back(), "-A FORWARD -j RETURN");
    EXPECT_EQ(timeline.back(), "NOTICE RepairIsolation: Isolation back in force");
}

TEST_F(IsolationTest, OneRuleDeletedIsTheOnlyOnePutBack) {
    m_tables.Rules("ebtables").pop_back();
    EXPECT_EQ(After(10), Join({IsolationLook(),
                               {"WARN SuperviseIsolation: Isolation not in force (27 of 28 link-layer rules in place); "
                                "putting it back"},
                               TwoPortBlocks(),
                               {"$ ebtables -A FORWARD -o eth1 -d Multicast -p 0x88a8 -j DROP"},
                               IsolationLook(),
                               TwoPortLifts(),
                               {"NOTICE RepairIsolation: Isolation back in force"}}));
    // With another program's ACCEPT after them, a missing rule goes in ahead of it.
    Lines& ip = m_tables.Rules("iptables");
    ip.push_back("-A FORWARD -j ACCEPT");
    ip.erase(ip.begin() + 4);
    const Lines timeline = After(10);
    EXPECT_EQ(timeline[3],
              "WARN SuperviseIsolation: Isolation not in force (11 of 12 IP rules in place); putting it back");
    EXPECT_EQ(Only(timeline, {"$ iptables -D", "$ iptables -I", "$ iptables -A"}),
              Lines{"$ iptables -I FORWARD 8 --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP"});
    EXPECT_EQ(ip.back(), "-A FORWARD -j ACCEPT");
    EXPECT_EQ(ip[11], "-A FORWARD --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP");
}

TEST_F(IsolationTest, TheLegacyEbtablesListingIsReadAsWell) {
    m_tables.SetLegacyEbtables(true);
    EXPECT_EQ(After(10), IsolationLook());
    EXPECT_TRUE(m_state.m_bInForce);
    m_tables.Rules("ebtables").erase(m_tables.Rules("ebtables").begin() + 6);
    const Lines timeline = After(10);
    EXPECT_EQ(Only(timeline, {"$ ebtables -D", "$ ebtables -I", "$ ebtables -A"}),
              Lines{"$ ebtables -A FORWARD -s 02:23:02:00:00:00 -i eth1 -j DROP"});
    EXPECT_EQ(timeline.back(), "NOTICE RepairIsolation: Isolation back in force");
}

TEST_F(IsolationTest, BridgeNetfilterSwitchedOffIsFoundAndPutBack) {
    m_bridgeFilter.Set({true, false, false, true});
    Lines timeline = After(10);
    EXPECT_EQ(
        timeline,
        Join({IsolationLook(),
              {"WARN SuperviseIsolation: Isolation not in force (br0 hands no bridged IPv4 to iptables; br0 hands "
               "no bridged ARP to arptables); putting it back"},
              TwoPortBlocks(),
              {"$ ip link set dev br0 type bridge nf_call_iptables 1 nf_call_arptables 1"},
              IsolationLook(),
              // The repair's own look still finds it off: eth1 stays blocked and
              // goes down, and the repair is tried again after the usual waits.
              {"ERROR RepairIsolation: Isolation not in force after setting it up: br0 hands no bridged IPv4 "
               "to iptables; br0 hands no bridged ARP to arptables",
               "WARN NoteWorkFailed: Retrying isolation in 1 s (failed attempts: 1)",
               "WARN RepairIsolation: Keeping eth1 down until the isolation rules are in place",
               "$ ip link set eth1 down"}}));
    EXPECT_FALSE(m_state.m_bInForce);
    EXPECT_EQ(m_state.m_problem, "br0 hands no bridged IPv4 to iptables; br0 hands no bridged ARP to arptables");
    EXPECT_EQ(m_tables.Rules("ebtables", "nat"),
              (Lines{"-A PREROUTING -i eth1 -j DROP", "-A POSTROUTING -o eth1 -j DROP",
                     "-A PREROUTING -i veth0 -j DROP", "-A POSTROUTING -o veth0 -j DROP"}));
    // Someone turns it on again: the next attempt's look finds it whole, lifts the
    // blocks and raises eth1.
    m_bridgeFilter.Set({true, true, true, true});
    EXPECT_EQ(After(1),
              Join({// The listing shows both blocks still set: each deleted before it is set again.
                    {"$ ebtables -t nat -L", "$ ebtables-restore --noflush <<'EOF'", "> *nat",
                     "> -D PREROUTING -i eth1 -j DROP", "> -A PREROUTING -i eth1 -j DROP",
                     "> -D POSTROUTING -o eth1 -j DROP", "> -A POSTROUTING -o eth1 -j DROP",
                     "> -D PREROUTING -i veth0 -j DROP", "> -A PREROUTING -i veth0 -j DROP",
                     "> -D POSTROUTING -o veth0 -j DROP", "> -A POSTROUTING -o veth0 -j DROP", "> EOF"},
                    IsolationLook(),
                    TwoPortLifts(),
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
                               TwoPortBlocks(),
                               // No rule was missing: the switch alone, and the look after it.
                               IsolationLook(),
                               TwoPortLifts(),
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
              (Lines{"ERROR RepairIsolation: Isolation not in force after setting it up: tagged IPv4 and ARP reach "
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

TEST_F(IsolationTest, AListingThatCannotRunIsTriedAgainSoonAndNeverTakesEth1Down) {
    m_refuse = "iptables -S";
    m_state.m_verifiedAt = {1794999990, 0};
    const Lines refusedLook = {"$ arptables -L -n", "$ iptables -S",
                               "ERROR RunStep: Command failed (exit status 4): iptables -S", "$ ebtables -L"};
    EXPECT_EQ(After(10),
              Join({refusedLook,
                    {"WARN NoteUnverified: Isolation not looked at (the IP rules cannot be listed (exit status 4)); "
                     "looking again in 1 s"}}));
    // The verdict before stands, not renewed; nothing is repaired.
    EXPECT_TRUE(m_state.m_bInForce);
    EXPECT_EQ(m_state.m_verifiedAt.tv_sec, 1794999990);
    EXPECT_EQ(m_state.m_unverified, "the IP rules cannot be listed (exit status 4)");
    EXPECT_FALSE(m_state.m_bRepairPending);
    // Tried again after 1 s, then 2 s, 4 s ... (one warning for the whole run).
    EXPECT_EQ(After(1), refusedLook);
    EXPECT_EQ(After(1), Lines{});
    EXPECT_EQ(After(1), refusedLook);
    EXPECT_EQ(After(3), Lines{});
    // Another program's rule meanwhile is found by the tables that could be listed.
    m_tables.Rules("ebtables").pop_back();
    const Lines timeline = After(1);
    EXPECT_EQ(timeline[4],
              "WARN SuperviseIsolation: Isolation not in force (27 of 28 link-layer rules in place); putting it back");
    EXPECT_EQ(Only(timeline, {"$ ebtables -A", "$ ip link set eth1"}),
              Lines{"$ ebtables -A FORWARD -o eth1 -d Multicast -p 0x88a8 -j DROP"});
    // The repair's own look cannot list the IP rules either: put back, not yet looked at.
    EXPECT_FALSE(m_state.m_bInForce);
    EXPECT_FALSE(m_state.m_bRepairPending);
    EXPECT_EQ(m_state.m_verifiedAt.tv_sec, 1794999990);
    // Looked at again after 8 s, as the failures before it ran.
    m_refuse.clear();
    EXPECT_EQ(After(7), Lines{});
    EXPECT_EQ(After(1), Join({IsolationLook(), {"INFO NoteInForce: Isolation looked at again: in force"}}));
    EXPECT_TRUE(m_state.m_bInForce);
    EXPECT_EQ(m_state.m_unverified, "");
    EXPECT_EQ(m_state.m_verifiedAt.tv_sec, 1795000000);
    // The tables unchanged since that look: the next lists nothing.
    EXPECT_EQ(After(9), Lines{});
    EXPECT_EQ(After(1), Lines{});
}

TEST_F(IsolationTest, ACompletionWhoseListingCannotRunIsDoneAndLookedAtSoon) {
    m_refuse = "ebtables -L";
    ISOLATION_STATE state;
    WORK_FAILURE failure;
    Since();
    EXPECT_TRUE(CompleteIsolation(state, failure));
    const Lines timeline = Since();
    EXPECT_EQ(Lines(timeline.end() - 2, timeline.end()),
              (Lines{"ERROR RunStep: Command failed (exit status 4): ebtables -L",
                     "WARN NoteUnverified: Isolation not looked at (the link-layer rules cannot be listed (exit status "
                     "4)); looking again in 1 s"}));
    EXPECT_FALSE(state.m_bInForce);
    EXPECT_EQ(state.m_problem, "not looked at yet: the link-layer rules cannot be listed (exit status 4)");
    EXPECT_EQ(state.m_verifiedAt.tv_sec, 0);
    m_refuse.clear();
    m_clock.Step(1000);
    SuperviseIsolation(state);
    EXPECT_TRUE(state.m_bInForce);
    EXPECT_EQ(state.m_problem, "");
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

// Where the ebtables the shell finds first has no ebtables-restore beside it
// (here one later on the path, of whatever backend), the blocks, the
// link-layer rules and the lifts run one by one, as their steps are written.
TEST_F(IsolationTest, WithoutEbtablesRestoreBesideEbtablesEachStepIsItsOwnCommand) {
    bool blocked = false;
    bool completed = false;
    bool lifted = false;
    {
        const ToolPath tools({"ebtables"});
        ISOLATION_STATE state;
        WORK_FAILURE failure;
        blocked = BlockTwoPortBuild(state.m_linkLayer, failure);
        completed = CompleteIsolation(state, failure);
        lifted = LiftBlocksOfBuild(state.m_linkLayer, failure);
    }
    EXPECT_TRUE(blocked && completed && lifted);
    EXPECT_EQ(Since(), Join({Eth1Block(), Veth0Block(), IsolationComplete(), Veth0Lift(), Eth1Lift()}));
    EXPECT_EQ(m_tables.Rules("ebtables", "nat"), Lines{});
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
