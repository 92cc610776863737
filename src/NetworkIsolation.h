// The isolation of the two-port mode: the ARP and IP rules the bridge build puts in,
// eth1 blocked while a build runs, link-layer rules for every protocol, bridge
// netfilter made sure of for br0, and all of it checked in force and repaired.
#pragma once

#include <time.h>

#include <cstdint>
#include <functional>
#include <string>

#include "src/NetworkFilterWatch.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"

// How often the isolation in force is looked at when nothing else happens.
constexpr unsigned int kIsolationCheckIntervalMs = 10000;
// How long a look whose kernel fingerprint has not moved goes without listing
// the tables: the backstop for a change the fingerprint would miss.
constexpr unsigned int kIsolationListingBackstopMs = 300000;

// The rules the isolation puts in, per table, as its rule tables count them;
// a listing is checked against these.
extern const unsigned int kArpIsolationRules;
extern const unsigned int kIpIsolationRules;
extern const unsigned int kLinkLayerIsolationRules;

// How soon a look that could not list a table is tried again: the first wait,
// doubled after each further failure up to the check interval.
constexpr unsigned int kIsolationListingRetryMs = 1000;

// Whether the link-layer part of the isolation can be had on this device
// (ebtables on the path, and the kernel's tables for it), and what of it this
// run may have left in ebtables. Kept across builds in every mode.
struct LINK_LAYER_STATE {
    // Why it cannot be had, in the log's words ("no ebtables on the path");
    // empty while it can, as far as the daemon knows.
    std::string m_missing;
    // The WARN that says so was given for this absence.
    bool m_bWarned = false;
    // Link-layer rules or blocks may be in ebtables: this run put some, or
    // (until the first build outside the two-port mode cleared them) an earlier run did.
    bool m_bMayHaveRules = true;
    // eth1 is blocked at the bridge (by start-up or a two-port build); a build lifts it.
    bool m_bEth1Blocked = false;
};

// The isolation's state across passes (the two-port mode only).
struct ISOLATION_STATE {
    // Found whole by the last look (a build's, a repair's or a periodic check's).
    bool m_bInForce = false;
    // Real time of the last look that found it whole; zero: never.
    timespec m_verifiedAt{};
    // The same look's monotonic time (MonotonicMs), which the status judges its
    // age by: a clock step neither ages nor renews it. Zero: never.
    int64_t m_nVerifiedMs = 0;
    // Why it is not in force, in the log's words; empty while it is.
    std::string m_problem;
    // Monotonic time of the next periodic look.
    int64_t m_nNextCheckMs = 0;
    // A look found it broken: it is put back when its work is due.
    bool m_bRepairPending = false;
    // The daemon took eth1 down after a repair failed; raised after the next success.
    bool m_bEth1HeldDown = false;
    // Why the last look could not judge it (a table that could not be listed);
    // the verdict before it stands, m_verifiedAt is not renewed. Empty when the
    // last look judged everything.
    std::string m_unverified;
    // The wait before the next look after one that could not list a table; zero
    // after a look that could.
    unsigned int m_nListingRetryMs = 0;
    // What the last periodic look that found it whole judged, as the kernel
    // showed it just before its listings (the filter tables' fingerprint,
    // bridge netfilter, the link layer's use), and the monotonic time of those
    // listings. A look due while it is the same lists nothing until
    // kIsolationListingBackstopMs after them; unread: every look lists.
    FILTER_FINGERPRINT m_judged;
    int64_t m_nListedAtMs = 0;
    // Putting the isolation back, as retried work.
    WORK_HEALTH m_health;
    // The link-layer part: without it the isolation is partial (ARP and IPv4 only).
    LINK_LAYER_STATE m_linkLayer;
};

// Whether an executable of that name is in a directory of $PATH, looked for
// in-process (no command is run to find out). Without $PATH, the shell's own default.
bool ToolOnPath(const char* name);

// Whether the link-layer steps can run now: ebtables on the path and, where
// it refused the kernel's tables before, accepting them again (a quiet look,
// the only command this runs). Notes why not, with one WARN per absence.
bool LinkLayerUsable(LINK_LAYER_STATE& linkLayer);

// What the kernel does with bridged traffic on a bridge: whether br_netfilter
// is there at all, and whether it hands the bridge's IPv4 to iptables and its
// ARP to arptables (the bridge's own setting, or the system-wide one).
struct BRIDGE_FILTER_STATE {
    bool m_bAvailable = false;
    bool m_bIptables = false;
    bool m_bArptables = false;
    // Whether it hands IPv4 and ARP under one 802.1Q tag to them too
    // (bridge-nf-filter-vlan-tagged, system-wide only).
    bool m_bVlanTagged = false;

    bool operator==(const BRIDGE_FILTER_STATE&) const = default;
};

// Reads it from the kernel: /proc/sys/net/bridge (present only with br_netfilter)
// and the bridge's own settings through rtnetlink.
BRIDGE_FILTER_STATE ReadBridgeFilterState(const std::string& bridge);
// The function the isolation reads it through; tests put their own here, an
// empty one puts ReadBridgeFilterState back. Returns the one it replaced.
using BridgeFilterReader = std::function<BRIDGE_FILTER_STATE(const std::string& bridge)>;
BridgeFilterReader SetBridgeFilterReader(BridgeFilterReader reader);

// Turns bridge-nf-filter-vlan-tagged on where /proc/sys may be written (not
// under the service's sandbox: a sysctl.d file sets it at boot there); true
// when it is on afterwards. A two-port build's completion and a repair run
// it through the switch below, and the look judges the setting.
bool SwitchOnTaggedFiltering();
// The function that completion turns it on through; tests put their own
// here, an empty one puts SwitchOnTaggedFiltering back. Returns the one it replaced.
using TaggedFilterSwitch = std::function<void()>;
TaggedFilterSwitch SetTaggedFilterSwitch(TaggedFilterSwitch tagSwitch);

// The two-port build's ARP and IP rules alone, anew (each table flushed first),
// as the build runs them; false at the first that failed.
bool SetupIsolationRules(WORK_FAILURE& failure);

// Before a two-port build or a repair, where the link layer can be had: eth1
// blocked, then veth0, as BlockEth1 and BlockVeth0. Where ebtables refuses
// the kernel's tables, whatever of the blocks went in is taken away again, the
// absence is noted and the work goes on without the link layer (true).
bool BlockTwoPortBuild(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure);
// Their lifts after it, each only where it was set.
bool LiftVeth0BlockOfBuild(const LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure);
bool LiftEth1BlockOfBuild(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure);
// Both, veth0's first: where ebtables takes a batch (ebtables-restore beside
// it on the path), the blocks, the link-layer rules and these lifts each go to
// it in one process (the blocks after a listing of the nat table, for blocks
// to delete first); elsewhere the steps run one by one.
bool LiftBlocksOfBuild(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure);

// At start-up: eth1 blocked only where a bridge an earlier run left carries it
// (br0 with eth1 as its port, as the kernel shows it) and ebtables is on the
// path; a build lifts it. Where ebtables refuses, the absence is noted (no
// WARN: the mode may not need it) and start-up goes on.
bool BlockEth1AtStartUp(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure);

// Blocks every frame in and out of eth1 at the bridge, before anything of a build
// runs; lasts until LiftEth1Block. Setting it twice leaves one block.
bool BlockEth1(WORK_FAILURE& failure);
bool LiftEth1Block(WORK_FAILURE& failure);
// The same for veth0 (the device's own stack), around a two-port build and a
// repair: the internal network reaches neither outside nor the device until
// the link-layer rules are looked at.
bool BlockVeth0(WORK_FAILURE& failure);
bool LiftVeth0Block(WORK_FAILURE& failure);

// eth1 taken down while a two-port build or a repair that stopped short left
// the isolation incomplete: the internal network never reaches it unfiltered.
// Failing to is no failure of the work.
bool HoldEth1Down(WORK_FAILURE& failure);

// After a two-port build: br0's bridge netfilter on, the link-layer rules in,
// then all of it looked at (ARP, IP and link-layer rules, bridge netfilter).
// Fills `state`; false, with the failure, when a step failed or the look found
// it incomplete. A listing that could not run fails nothing: the isolation is
// then not yet found in force, and looked at again soon.
bool CompleteIsolation(ISOLATION_STATE& state, WORK_FAILURE& failure);

// After a build in another mode: the link-layer rules removed, and a block on
// veth0 that a two-port build cut short left, each quietly and allowed to fail.
bool RemoveLinkLayerRules(WORK_FAILURE& failure);
// The same, only where there may be some: this run put link-layer rules in,
// or this is the first build of the run and ebtables is on the path.
bool RemoveLinkLayerRulesOfBuild(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure);

// The two-port mode's step of each pass, once br0 is built: looks at the
// isolation when its time has come, listing the tables only when the kernel's
// filter fingerprint, bridge netfilter or the link layer's use moved since the
// last look that found it whole, and at least every kIsolationListingBackstopMs
// (otherwise the verdict is renewed). The daemon's own rules are judged alone:
// each present and ahead of any rule of another program that is not a DROP;
// others' rules after them stay. When something is missing or out of place (or
// a repair is due), only that is put back, with eth1 and veth0 blocked
// meanwhile: a missing rule appended or inserted, a misplaced one deleted and
// inserted ahead of the rule it was behind, bridge netfilter set; then a look,
// the blocks lifted. A WARN names what was wrong (another program's rule by
// its text), a NOTICE says when it is back; a failed repair keeps eth1 down and
// is retried with the usual waits. A listing that cannot run is looked at again
// after 1, 2, 4 ... 10 s and changes no verdict.
void SuperviseIsolation(ISOLATION_STATE& state);
