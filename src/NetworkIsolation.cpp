// The two-port mode's isolation: the ARP and IP rules the bridge build puts in,
// eth1's block, the link-layer rules, bridge netfilter for br0, and the look
// that keeps them in force. Every rule table of the isolation is here, and the
// counts a look checks against come from them.
#include "src/NetworkIsolation.h"

#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "logging/Logging.h"
#include "src/NetworkInternalNames.h"
#include "src/NetworkNetlink.h"
#include "src/NetworkNotify.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShape.h"
#include "src/NetworkShell.h"
#include "src/NetworkStop.h"
#include "util/Format.h"
#include "util/Strings.h"
#include "util/UniqueFd.h"
#include "util/UniqueMapping.h"

namespace {

// Every frame in and out of a port dropped where it enters or leaves the
// bridge, in a table of its own so that the filter table's flushes leave it.
// Each block is deleted first, so that setting it again leaves one; usually
// there is none to delete, and the tool's complaint about that stays out of
// the log. eth1 is blocked so from a two-port build's first command to its
// last; the device's own stack, through veth0, the same way while a two-port
// build or a repair runs: until the link-layer rules are looked at, nothing of
// the internal network reaches it.
template <FIXED_TEXT Port>
constexpr SHELL_STEP kBlockSteps[] = {
    {kJoined<"ebtables -t nat -D PREROUTING -i ", Port, " -j DROP 2>/dev/null">, false},
    {kJoined<"ebtables -t nat -A PREROUTING -i ", Port, " -j DROP">, true},
    {kJoined<"ebtables -t nat -D POSTROUTING -o ", Port, " -j DROP 2>/dev/null">, false},
    {kJoined<"ebtables -t nat -A POSTROUTING -o ", Port, " -j DROP">, true},
};
// A block taken away again where ebtables refused part of it: quietly, as
// much of it as went in.
template <FIXED_TEXT Port>
constexpr SHELL_STEP kQuietLiftSteps[] = {
    {kJoined<"ebtables -t nat -D PREROUTING -i ", Port, " -j DROP 2>/dev/null">, false},
    {kJoined<"ebtables -t nat -D POSTROUTING -o ", Port, " -j DROP 2>/dev/null">, false},
};
template <FIXED_TEXT Port>
constexpr SHELL_STEP kLiftBlockSteps[] = {
    {kJoined<"ebtables -t nat -D PREROUTING -i ", Port, " -j DROP">, true},
    {kJoined<"ebtables -t nat -D POSTROUTING -o ", Port, " -j DROP">, true},
};

// br0's own switch for handing bridged IPv4 and ARP to the filters, whatever
// the system-wide one says; through netlink, so a read-only /sys and /proc/sys
// do not stand in the way. Kernels before 4.4 refuse it: what counts is the
// look at the kernel afterwards.
const SHELL_STEP kBridgeFilterSteps[] = {
    {"ip link set dev br0 type bridge nf_call_iptables 1 nf_call_arptables 1", false},
};

// ARP never crosses between veth0 and veth2; veth0 talks ARP only with eth1 and
// veth2 only with eth0. The internal addresses and MACs stay invisible on eth1
// and veth0 (ARP), and on eth1 also at IP level. Part of the two-port build,
// and put back on their own when found missing.
constexpr SHELL_STEP kIsolationRuleSteps[] = {
    {"arptables -F", true},
    // Port pairs that must not exchange ARP.
    {"arptables -A FORWARD --in-interface veth2 --out-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --in-interface veth0 --out-interface veth2 -j DROP", true},
    {"arptables -A FORWARD --in-interface veth2 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --in-interface eth1 --out-interface veth2 -j DROP", true},
    {"arptables -A FORWARD --in-interface veth0 --out-interface eth0 -j DROP", true},
    {"arptables -A FORWARD --in-interface eth0 --out-interface veth0 -j DROP", true},
    // The internal IP addresses, in and out of eth1, then of veth0.
    {kJoined<"arptables -A FORWARD --source-ip ", kInternalIpLow, " --in-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-ip ", kInternalIpLow, " --in-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-ip ", kInternalIpHigh, " --in-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-ip ", kInternalIpHigh, " --in-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-ip ", kInternalIpLow, " --out-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-ip ", kInternalIpLow, " --out-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-ip ", kInternalIpHigh, " --out-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-ip ", kInternalIpHigh, " --out-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-ip ", kInternalIpLow, " --in-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-ip ", kInternalIpLow, " --in-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-ip ", kInternalIpHigh, " --in-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-ip ", kInternalIpHigh, " --in-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-ip ", kInternalIpLow, " --out-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-ip ", kInternalIpLow, " --out-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-ip ", kInternalIpHigh, " --out-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-ip ", kInternalIpHigh, " --out-interface veth0 -j DROP">, true},
    // The internal MACs, in the same order.
    {kJoined<"arptables -A FORWARD --source-mac ", kInternalMacLow, " --in-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-mac ", kInternalMacLow, " --in-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-mac ", kInternalMacHigh, " --in-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-mac ", kInternalMacHigh, " --in-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-mac ", kInternalMacLow, " --out-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-mac ", kInternalMacLow, " --out-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-mac ", kInternalMacHigh, " --out-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-mac ", kInternalMacHigh, " --out-interface eth1 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-mac ", kInternalMacLow, " --in-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-mac ", kInternalMacLow, " --in-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-mac ", kInternalMacHigh, " --in-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-mac ", kInternalMacHigh, " --in-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-mac ", kInternalMacLow, " --out-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-mac ", kInternalMacLow, " --out-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --source-mac ", kInternalMacHigh, " --out-interface veth0 -j DROP">, true},
    {kJoined<"arptables -A FORWARD --destination-mac ", kInternalMacHigh, " --out-interface veth0 -j DROP">, true},
    // The internal IP addresses arriving on eth1 (to the device, through the
    // bridge) and leaving on it. The address order differs from the ARP rules'.
    {"iptables -F", true},
    {kJoined<"iptables -A INPUT --source ", kInternalIpHigh, " -m physdev --physdev-in eth1 -j DROP">, true},
    {kJoined<"iptables -A INPUT --source ", kInternalIpLow, " -m physdev --physdev-in eth1 -j DROP">, true},
    {kJoined<"iptables -A INPUT --destination ", kInternalIpHigh, " -m physdev --physdev-in eth1 -j DROP">, true},
    {kJoined<"iptables -A INPUT --destination ", kInternalIpLow, " -m physdev --physdev-in eth1 -j DROP">, true},
    {kJoined<"iptables -A FORWARD --source ", kInternalIpHigh, " -m physdev --physdev-in eth1 -j DROP">, true},
    {kJoined<"iptables -A FORWARD --source ", kInternalIpLow, " -m physdev --physdev-in eth1 -j DROP">, true},
    {kJoined<"iptables -A FORWARD --destination ", kInternalIpHigh, " -m physdev --physdev-in eth1 -j DROP">, true},
    {kJoined<"iptables -A FORWARD --destination ", kInternalIpLow, " -m physdev --physdev-in eth1 -j DROP">, true},
    {kJoined<"iptables -A FORWARD --source ", kInternalIpHigh, " -m physdev --physdev-out eth1 -j DROP">, true},
    {kJoined<"iptables -A FORWARD --source ", kInternalIpLow, " -m physdev --physdev-out eth1 -j DROP">, true},
    {kJoined<"iptables -A FORWARD --destination ", kInternalIpHigh, " -m physdev --physdev-out eth1 -j DROP">, true},
    {kJoined<"iptables -A FORWARD --destination ", kInternalIpLow, " -m physdev --physdev-out eth1 -j DROP">, true},
};

// Frames of every protocol: the port pairs that the ARP rules keep apart
// exchange nothing, and no frame to or from an internal MAC enters or leaves
// through eth1 or veth0.
constexpr SHELL_STEP kLinkLayerRuleSteps[] = {
    {"ebtables -F", true},
    {"ebtables -A FORWARD -i veth2 -o veth0 -j DROP", true},
    {"ebtables -A FORWARD -i veth0 -o veth2 -j DROP", true},
    {"ebtables -A FORWARD -i veth2 -o eth1 -j DROP", true},
    {"ebtables -A FORWARD -i eth1 -o veth2 -j DROP", true},
    {"ebtables -A FORWARD -i veth0 -o eth0 -j DROP", true},
    {"ebtables -A FORWARD -i eth0 -o veth0 -j DROP", true},
    {kJoined<"ebtables -A FORWARD -s ", kInternalMacLow, " -i eth1 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -d ", kInternalMacLow, " -i eth1 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -s ", kInternalMacHigh, " -i eth1 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -d ", kInternalMacHigh, " -i eth1 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -s ", kInternalMacLow, " -o eth1 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -d ", kInternalMacLow, " -o eth1 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -s ", kInternalMacHigh, " -o eth1 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -d ", kInternalMacHigh, " -o eth1 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -s ", kInternalMacLow, " -i veth0 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -d ", kInternalMacLow, " -i veth0 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -s ", kInternalMacHigh, " -i veth0 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -d ", kInternalMacHigh, " -i veth0 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -s ", kInternalMacLow, " -o veth0 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -d ", kInternalMacLow, " -o veth0 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -s ", kInternalMacHigh, " -o veth0 -j DROP">, true},
    {kJoined<"ebtables -A FORWARD -d ", kInternalMacHigh, " -o veth0 -j DROP">, true},
};

// How many rules of a tool the steps append.
constexpr unsigned int CountAppended(std::span<const SHELL_STEP> steps, std::string_view append) {
    unsigned int rules = 0;
    for (const SHELL_STEP& step : steps) rules += std::string_view(step.m_szCommand).starts_with(append) ? 1 : 0;
    return rules;
}

}  // namespace

constexpr unsigned int kArpIsolationRules = CountAppended(kIsolationRuleSteps, "arptables -A ");
constexpr unsigned int kIpIsolationRules = CountAppended(kIsolationRuleSteps, "iptables -A ");
constexpr unsigned int kLinkLayerIsolationRules = CountAppended(kLinkLayerRuleSteps, "ebtables -A ");

namespace {

// Outside the two-port mode there are no link-layer rules, and no block on
// veth0 (one a two-port build cut short left; usually there is none). Each
// may find nothing (or no table) to clear: quietly, and none has to succeed.
// clang-format off
const SHELL_STEP kRemoveLinkLayerRuleSteps[] = {
    {"ebtables -F 2>/dev/null",                                     false},
    {"ebtables -t nat -D PREROUTING -i veth0 -j DROP 2>/dev/null",  false},
    {"ebtables -t nat -D POSTROUTING -o veth0 -j DROP 2>/dev/null", false},
};
// clang-format on

// Whether ebtables can use the kernel's tables, asked without changing them:
// only where it was found refusing them before.
const char* const kLinkLayerProbes[] = {
    "ebtables -t nat -L > /dev/null 2>&1",
    "ebtables -t filter -L > /dev/null 2>&1",
};

// While the isolation is not in force after a two-port build or a repair that
// stopped short, eth1 is kept down, and raised again once a repair worked.
const SHELL_STEP kHoldEth1DownSteps[] = {
    {"ip link set eth1 down", false},
};
const SHELL_STEP kRaiseEth1Steps[] = {
    {"ip link set eth1 up", false},
};

// The look at the rules: one listing per table, with how many rules the
// isolation puts there. The listings' texts differ between the tools'
// versions and backends, so a rule is any line with a target ("-j "); a look
// right after the rules went in wants exactly the isolation's rules, all DROP,
// and a later look wants the very listing that look saw.
struct RULE_LISTING {
    const char* m_szCommand;
    const char* m_szTable;  // in the log's words
    unsigned int m_nRules;
    std::string ISOLATION_LISTINGS::*m_text;
};
const RULE_LISTING kRuleListings[] = {
    {"arptables -L -n", "ARP", kArpIsolationRules, &ISOLATION_LISTINGS::m_arp},
    {"iptables -S", "IP", kIpIsolationRules, &ISOLATION_LISTINGS::m_ip},
    {"ebtables -L", "link-layer", kLinkLayerIsolationRules, &ISOLATION_LISTINGS::m_linkLayer},
};

const char* const kBridge = "br0";

// The lines of a listing that are rules.
std::vector<std::string> RuleLines(const std::string& listing) {
    std::vector<std::string> lines;
    Util::Split(lines, listing, '\n');
    std::erase_if(lines, [](const std::string& line) { return line.find("-j ") == std::string::npos; });
    return lines;
}

void AddProblem(std::string& problems, const std::string& problem) {
    if (!problems.empty()) problems += "; ";
    problems += problem;
}

// What is wrong with one table's listing: against the isolation's rules when
// `reference` is null, against the listing of the last whole look otherwise.
void JudgeListing(const RULE_LISTING& table, const std::string& listing, const std::string* reference,
                  std::string& problems) {
    const std::vector<std::string> rules = RuleLines(listing);
    if (reference == nullptr) {
        unsigned int drops = 0;
        for (const std::string& rule : rules) drops += rule.find("-j DROP") != std::string::npos ? 1 : 0;
        if (drops < table.m_nRules) {
            AddProblem(problems, Util::Format("%u of %u %s rules in place", drops, table.m_nRules, table.m_szTable));
        } else if (rules.size() != table.m_nRules) {
            AddProblem(problems, Util::Format("other %s rules among the isolation's", table.m_szTable));
        }
        return;
    }
    if (listing == *reference) return;
    unsigned int present = 0;
    for (const std::string& wanted : RuleLines(*reference)) {
        for (const std::string& rule : rules) {
            if (rule == wanted) {
                ++present;
                break;
            }
        }
    }
    if (present < table.m_nRules) {
        AddProblem(problems, Util::Format("%u of %u %s rules in place", present, table.m_nRules, table.m_szTable));
    } else {
        AddProblem(problems, Util::Format("the %s rules were changed", table.m_szTable));
    }
}

void JudgeBridgeFilter(const BRIDGE_FILTER_STATE& filter, std::string& problems) {
    if (!filter.m_bAvailable) {
        AddProblem(problems, "no bridge netfilter (br_netfilter) in the kernel");
        return;
    }
    if (!filter.m_bIptables) AddProblem(problems, "br0 hands no bridged IPv4 to iptables");
    if (!filter.m_bArptables) AddProblem(problems, "br0 hands no bridged ARP to arptables");
}

BridgeFilterReader& ActiveBridgeFilterReader() {
    static BridgeFilterReader reader;
    return reader;
}

BRIDGE_FILTER_STATE BridgeFilterState() {
    const BridgeFilterReader& reader = ActiveBridgeFilterReader();
    return reader ? reader(kBridge) : ReadBridgeFilterState(kBridge);
}

// One look at the whole isolation: the three listings (two without the link
// layer) and bridge netfilter.
// With a reference, the listings must be what it holds. Fills `listings` and
// `problems`; false, with `failure` naming the first thing wrong, when it is
// not whole (a listing that could not be run included).
bool LookAtIsolation(const ISOLATION_LISTINGS* reference, ISOLATION_LISTINGS& listings, std::string& problems,
                     WORK_FAILURE& failure, bool linkLayer) {
    problems.clear();
    for (const RULE_LISTING& table : kRuleListings) {
        std::string& text = listings.*table.m_text;
        // Without the link layer there are no rules of it to look at.
        if (!linkLayer && table.m_text == &ISOLATION_LISTINGS::m_linkLayer) continue;
        WORK_FAILURE listingFailure;
        if (!RunStep(table.m_szCommand, true, listingFailure, &text)) {
            AddProblem(problems, Util::Format("the %s rules cannot be listed (%s)", table.m_szTable,
                                              DescribeOutcome(listingFailure.m_outcome).c_str()));
            if (failure.m_command.empty()) failure = listingFailure;
            continue;
        }
        JudgeListing(table, text, reference != nullptr ? &(reference->*table.m_text) : nullptr, problems);
    }
    JudgeBridgeFilter(BridgeFilterState(), problems);
    if (problems.empty()) return true;
    // What was found wrong is the failure when every command ran.
    if (failure.m_command.empty()) {
        failure.m_command = "isolation check: " + problems;
        failure.m_outcome = COMMAND_OUTCOME{};
        failure.m_outcome.m_nStatus = 1;
    }
    return false;
}

void NoteInForce(ISOLATION_STATE& state, ISOLATION_LISTINGS&& listings) {
    state.m_bInForce = true;
    state.m_verifiedAt = Util::RealTimeNow();
    state.m_problem.clear();
    state.m_listings = std::move(listings);
    state.m_nNextCheckMs = MonotonicMs() + kIsolationCheckIntervalMs;
}

// Notes why the link layer cannot be had; the WARN that says so comes once
// per absence, and only where the two-port mode needs it (`warn`).
void NoteLinkLayerMissing(LINK_LAYER_STATE& linkLayer, const std::string& why, bool warn) {
    linkLayer.m_missing = why;
    if (!warn || linkLayer.m_bWarned) return;
    linkLayer.m_bWarned = true;
    LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
              "Link-layer isolation not available (" + why + "); isolating ARP and IPv4 only");
}

// The table an ebtables command names ("-t nat"), filter without one.
std::string EbtablesTable(const std::string& command) {
    const size_t at = command.find(" -t ");
    if (at == std::string::npos) return "filter";
    const size_t start = at + 4;
    return command.substr(start, command.find(' ', start) - start);
}

// Runs link-layer steps. A step that must succeed and that ebtables refuses
// (it ran and exited with a failure: no such table in the kernel, or no
// ebtables at all) is no failure of the work: the blocks that went in are
// taken away again, quietly, the absence is noted, and the rest is not run
// (true, with linkLayer.m_missing set). False, as RunStep, for anything else
// that stops the work.
bool RunLinkLayerSteps(std::span<const SHELL_STEP> steps, LINK_LAYER_STATE& linkLayer, bool warn,
                       WORK_FAILURE& failure) {
    for (const SHELL_STEP& step : steps) {
        if (!step.m_bMustSucceed) {
            if (!RunStep(step.m_szCommand, false, failure)) return false;
            continue;
        }
        const COMMAND_OUTCOME outcome = RunCommand(step.m_szCommand);
        NotifyWatchdog();
        if (outcome.Succeeded()) continue;
        const bool refused = outcome.m_bStarted && !outcome.m_bTimedOut && outcome.m_bExited;
        if (!refused || StopRequested()) {
            failure.m_command = step.m_szCommand;
            failure.m_outcome = outcome;
            // As RunStep: a deadline was reported when it struck, a stop is no fault.
            if (!outcome.m_bTimedOut && !StopRequested()) {
                LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                          "Command failed (" + DescribeOutcome(outcome) + "): " + step.m_szCommand);
            }
            return false;
        }
        WORK_FAILURE ignored;
        RunSteps(kQuietLiftSteps<"veth0">, ignored);
        RunSteps(kQuietLiftSteps<"eth1">, ignored);
        linkLayer.m_bEth1Blocked = false;
        NoteLinkLayerMissing(
            linkLayer,
            Util::Format("ebtables cannot use the kernel's %s table: %s (%s)", EbtablesTable(step.m_szCommand).c_str(),
                         step.m_szCommand, DescribeOutcome(outcome).c_str()),
            warn);
        return true;
    }
    return true;
}

// Puts the whole isolation back without touching the bridge: eth1 and veth0
// blocked, the ARP and IP rules of the build, the rest as after a build, the
// blocks lifted.
void RepairIsolation(ISOLATION_STATE& state) {
    WORK_FAILURE failure;
    LINK_LAYER_STATE& linkLayer = state.m_linkLayer;
    const bool done = BlockTwoPortBuild(linkLayer, failure) && SetupIsolationRules(failure) &&
                      CompleteIsolation(state, failure) && LiftVeth0BlockOfBuild(linkLayer, failure) &&
                      LiftEth1BlockOfBuild(linkLayer, failure);
    if (!done) {
        if (StopRequested()) return;
        state.m_bInForce = false;
        if (state.m_problem.empty()) state.m_problem = "putting it back failed: " + failure.m_command;
        NoteWorkFailed(state.m_health, "isolation", failure);
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Keeping eth1 down until the isolation rules are in place");
        WORK_FAILURE ignored;
        HoldEth1Down(ignored);
        state.m_bEth1HeldDown = true;
        return;
    }
    state.m_bRepairPending = false;
    if (state.m_bEth1HeldDown) {
        WORK_FAILURE ignored;
        RunSteps(kRaiseEth1Steps, ignored);
        state.m_bEth1HeldDown = false;
    }
    NoteWorkDone(state.m_health, "isolation");
    LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false, "Isolation back in force");
}

// A flag of /proc/sys/net/bridge: 1 or 0, -1 when it cannot be read (no br_netfilter).
int ReadBridgeSysctl(const char* name) {
    const std::string path = std::string("/proc/sys/net/bridge/") + name;
    Util::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) return -1;
    char text[8] = {};
    const ssize_t got = read(file.Get(), text, sizeof text - 1);
    if (got <= 0) return -1;
    return text[0] == '1' ? 1 : 0;
}

// The bridge's own nf_call_iptables and nf_call_arptables, asked of the kernel
// through rtnetlink; false when it does not say (no such bridge, or a kernel
// before 4.4, which keeps them out of netlink).
bool ReadBridgeOwnFlags(const std::string& bridge, bool& iptables, bool& arptables) {
    if (bridge.size() >= IFNAMSIZ) return false;
    const Util::UniqueFd socketFd = OpenRouteSocket(0, 0);
    if (!socketFd.IsOpen() || !SendLinkRequest(socketFd.Get(), bridge, 1)) return false;
    // One link's message: 1,880 bytes for br0 on Linux 6.18, 10 KiB with 80
    // alternative names; 64 KiB leave room for far more, and a longer reply
    // is told apart. Mapped for the look alone: a buffer on the stack would
    // leave its pages resident.
    const Util::UniqueMapping reply(65536);
    if (!reply.IsMapped()) return false;
    const nlmsghdr* header = ReadReply(socketFd.Get(), reply);
    if (header == nullptr || header->nlmsg_type != RTM_NEWLINK) return false;
    const rtattr* linkInfo = FindAttribute(MessageAttributes(header, sizeof(ifinfomsg)), IFLA_LINKINFO);
    if (linkInfo == nullptr) return false;
    const rtattr* data = FindAttribute(NestedAttributes(linkInfo), IFLA_INFO_DATA);
    if (data == nullptr) return false;
    const rtattr* ip = FindAttribute(NestedAttributes(data), IFLA_BR_NF_CALL_IPTABLES);
    const rtattr* arp = FindAttribute(NestedAttributes(data), IFLA_BR_NF_CALL_ARPTABLES);
    if (ip == nullptr || arp == nullptr || RTA_PAYLOAD(ip) < 1 || RTA_PAYLOAD(arp) < 1) return false;
    iptables = *static_cast<const uint8_t*>(RTA_DATA(ip)) != 0;
    arptables = *static_cast<const uint8_t*>(RTA_DATA(arp)) != 0;
    return true;
}

}  // namespace

BRIDGE_FILTER_STATE ReadBridgeFilterState(const std::string& bridge) {
    BRIDGE_FILTER_STATE state;
    const int iptables = ReadBridgeSysctl("bridge-nf-call-iptables");
    const int arptables = ReadBridgeSysctl("bridge-nf-call-arptables");
    state.m_bAvailable = iptables >= 0 && arptables >= 0;
    if (!state.m_bAvailable) return state;
    state.m_bIptables = iptables == 1;
    state.m_bArptables = arptables == 1;
    // The system-wide switch covers every bridge; the bridge's own is asked only without it.
    bool ownIptables = false;
    bool ownArptables = false;
    if ((!state.m_bIptables || !state.m_bArptables) && ReadBridgeOwnFlags(bridge, ownIptables, ownArptables)) {
        state.m_bIptables = state.m_bIptables || ownIptables;
        state.m_bArptables = state.m_bArptables || ownArptables;
    }
    return state;
}

BridgeFilterReader SetBridgeFilterReader(BridgeFilterReader reader) {
    return std::exchange(ActiveBridgeFilterReader(), std::move(reader));
}

bool HoldEth1Down(WORK_FAILURE& failure) { return RunSteps(kHoldEth1DownSteps, failure); }

bool ToolOnPath(const char* name) {
    const char* path = std::getenv("PATH");
    // What the shell searches without one.
    const std::string directories =
        path != nullptr ? path : "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    size_t start = 0;
    while (start <= directories.size()) {
        size_t end = directories.find(':', start);
        if (end == std::string::npos) end = directories.size();
        // An empty entry is the working directory, as for the shell.
        const std::string directory = end > start ? directories.substr(start, end - start) : ".";
        const std::string candidate = directory + "/" + name;
        struct stat info {};
        if (stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(candidate.c_str(), X_OK) == 0) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

bool LinkLayerUsable(LINK_LAYER_STATE& linkLayer) {
    if (!ToolOnPath("ebtables")) {
        NoteLinkLayerMissing(linkLayer, "no ebtables on the path", true);
        return false;
    }
    if (!linkLayer.m_missing.empty()) {
        // It was missing or refused: asked again, without changing anything.
        for (const char* probe : kLinkLayerProbes) {
            const COMMAND_OUTCOME outcome = RunCommand(probe);
            NotifyWatchdog();
            if (!outcome.Succeeded()) {
                if (linkLayer.m_missing == "no ebtables on the path") {
                    NoteLinkLayerMissing(
                        linkLayer,
                        Util::Format("ebtables cannot use the kernel's %s table: %s (%s)", EbtablesTable(probe).c_str(),
                                     probe, DescribeOutcome(outcome).c_str()),
                        true);
                }
                return false;
            }
        }
        linkLayer.m_missing.clear();
        linkLayer.m_bWarned = false;
    }
    return true;
}

bool BlockTwoPortBuild(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure) {
    if (!LinkLayerUsable(linkLayer)) return true;
    linkLayer.m_bMayHaveRules = true;
    if (!RunLinkLayerSteps(kBlockSteps<"eth1">, linkLayer, true, failure)) return false;
    if (!linkLayer.m_missing.empty()) return true;
    linkLayer.m_bEth1Blocked = true;
    return RunLinkLayerSteps(kBlockSteps<"veth0">, linkLayer, true, failure);
}

bool LiftVeth0BlockOfBuild(const LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure) {
    return !linkLayer.m_missing.empty() || LiftVeth0Block(failure);
}

bool LiftEth1BlockOfBuild(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure) {
    if (!linkLayer.m_bEth1Blocked) return true;
    if (!LiftEth1Block(failure)) return false;
    linkLayer.m_bEth1Blocked = false;
    return true;
}

bool BlockEth1AtStartUp(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure) {
    if (!ToolOnPath("ebtables")) return true;
    const KERNEL_SHAPE kernel = LookAtKernel();
    const KERNEL_LINK* bridge = kernel.Link(kBridge);
    const KERNEL_LINK* eth1 = kernel.Link("eth1");
    if (bridge == nullptr || eth1 == nullptr || eth1->m_nMaster != bridge->m_nIndex) return true;
    linkLayer.m_bMayHaveRules = true;
    if (!RunLinkLayerSteps(kBlockSteps<"eth1">, linkLayer, false, failure)) return false;
    linkLayer.m_bEth1Blocked = linkLayer.m_missing.empty();
    return true;
}

bool SetupIsolationRules(WORK_FAILURE& failure) { return RunSteps(kIsolationRuleSteps, failure); }

bool BlockEth1(WORK_FAILURE& failure) { return RunSteps(kBlockSteps<"eth1">, failure); }

bool LiftEth1Block(WORK_FAILURE& failure) { return RunSteps(kLiftBlockSteps<"eth1">, failure); }

bool BlockVeth0(WORK_FAILURE& failure) { return RunSteps(kBlockSteps<"veth0">, failure); }

bool LiftVeth0Block(WORK_FAILURE& failure) { return RunSteps(kLiftBlockSteps<"veth0">, failure); }

bool CompleteIsolation(ISOLATION_STATE& state, WORK_FAILURE& failure) {
    LINK_LAYER_STATE& linkLayer = state.m_linkLayer;
    if (!RunSteps(kBridgeFilterSteps, failure) ||
        (linkLayer.m_missing.empty() && !RunLinkLayerSteps(kLinkLayerRuleSteps, linkLayer, true, failure))) {
        state.m_bInForce = false;
        state.m_problem = "setting it up failed: " + failure.m_command;
        return false;
    }
    ISOLATION_LISTINGS listings;
    std::string problems;
    const bool withLinkLayer = linkLayer.m_missing.empty();
    if (!LookAtIsolation(nullptr, listings, problems, failure, withLinkLayer)) {
        state.m_bInForce = false;
        state.m_problem = problems;
        if (!StopRequested()) {
            LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Isolation not in force after setting it up: " + problems);
        }
        return false;
    }
    NoteInForce(state, std::move(listings));
    if (withLinkLayer) {
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false,
                  Util::Format("Isolation in force: %u ARP, %u IP and %u link-layer rules, bridge netfilter for br0",
                               kArpIsolationRules, kIpIsolationRules, kLinkLayerIsolationRules));
    } else {
        LOG_ENTRY(
            LOGGING_SEVERITY_INFO, false,
            Util::Format("Isolation in force: %u ARP and %u IP rules, bridge netfilter for br0; no link-layer rules",
                         kArpIsolationRules, kIpIsolationRules));
    }
    return true;
}

bool RemoveLinkLayerRules(WORK_FAILURE& failure) { return RunSteps(kRemoveLinkLayerRuleSteps, failure); }

bool RemoveLinkLayerRulesOfBuild(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure) {
    if (!linkLayer.m_bMayHaveRules) return true;
    if (ToolOnPath("ebtables") && !RemoveLinkLayerRules(failure)) return false;
    linkLayer.m_bMayHaveRules = false;
    return true;
}

void SuperviseIsolation(ISOLATION_STATE& state) {
    if (!state.m_bRepairPending) {
        if (MonotonicMs() < state.m_nNextCheckMs) return;
        // A link layer that was missing and can now be had is put in as a repair.
        if (state.m_bInForce && !state.m_linkLayer.m_missing.empty() && LinkLayerUsable(state.m_linkLayer)) {
            state.m_nNextCheckMs = MonotonicMs() + kIsolationCheckIntervalMs;
            state.m_bRepairPending = true;
            LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false, "Link-layer isolation available; putting it in");
            if (WorkDue(state.m_health)) RepairIsolation(state);
            return;
        }
        ISOLATION_LISTINGS listings;
        std::string problems;
        WORK_FAILURE failure;
        const bool whole =
            LookAtIsolation(&state.m_listings, listings, problems, failure, state.m_linkLayer.m_missing.empty());
        state.m_nNextCheckMs = MonotonicMs() + kIsolationCheckIntervalMs;
        // A look cut short by a stop found nothing.
        if (StopRequested()) return;
        if (whole) {
            NoteInForce(state, std::move(listings));
            return;
        }
        state.m_bInForce = false;
        state.m_problem = problems;
        state.m_bRepairPending = true;
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Isolation not in force (" + problems + "); putting it back");
    }
    if (WorkDue(state.m_health)) RepairIsolation(state);
}
