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

#include <algorithm>
#include <cctype>
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
#include "src/NetworkRuleListing.h"
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
    // Under one 802.1Q tag the ARP and IP rules see what a frame carries
    // (bridge-nf-filter-vlan-tagged); under two tags, or an 802.1ad one, no
    // filter does: no such frame to a group address crosses eth1 either way.
    {"ebtables -A FORWARD -i eth1 -d Multicast -p 802_1Q --vlan-encap 802_1Q -j DROP", true},
    {"ebtables -A FORWARD -i eth1 -d Multicast -p 802_1Q --vlan-encap 0x88a8 -j DROP", true},
    {"ebtables -A FORWARD -i eth1 -d Multicast -p 0x88a8 -j DROP", true},
    {"ebtables -A FORWARD -o eth1 -d Multicast -p 802_1Q --vlan-encap 802_1Q -j DROP", true},
    {"ebtables -A FORWARD -o eth1 -d Multicast -p 802_1Q --vlan-encap 0x88a8 -j DROP", true},
    {"ebtables -A FORWARD -o eth1 -d Multicast -p 0x88a8 -j DROP", true},
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

// The look at the rules: one listing per table. The daemon owns the rules its
// rule tables append and judges those alone: each present, and ahead of every
// rule of another program in its chain that is not a DROP (one that could let
// a frame through before the isolation's rules see it). Other programs' rules
// after them, and their DROPs anywhere, are theirs and stay. The tools and
// their backends print rules differently (iptables -S "-A CHAIN" lines,
// arptables and ebtables chain headings, each its own order and spelling of
// the options), so a rule is compared as its options, each in one spelling,
// in any order.
struct RULE_LISTING {
    const char* m_szCommand;
    const char* m_szTool;
    const char* m_szTable;                // in the log's words
    std::span<const SHELL_STEP> m_steps;  // the steps that append its rules
};
const RULE_LISTING kRuleListings[] = {
    {"arptables -L -n", "arptables", "ARP", kIsolationRuleSteps},
    {"iptables -S", "iptables", "IP", kIsolationRuleSteps},
    {"ebtables -L", "ebtables", "link-layer", kLinkLayerRuleSteps},
};

const char* const kBridge = "br0";

// One rule the isolation appends: its chain, the rest of its command, and the
// command. The chain and the rest are views into the step's command, which is
// static like every step.
struct OWN_RULE {
    std::string_view m_chain;
    std::string_view m_spec;
    const char* m_szCommand;
    RULE_WORDS m_words;
};

std::vector<OWN_RULE> ReadOwnRules(const RULE_LISTING& table) {
    const std::string append = std::string(table.m_szTool) + " -A ";
    std::vector<OWN_RULE> rules;
    for (const SHELL_STEP& step : table.m_steps) {
        const std::string_view command = step.m_szCommand;
        if (!command.starts_with(append)) continue;
        const std::string_view rest = command.substr(append.size());
        const std::string_view chain = rest.substr(0, rest.find(' '));
        const std::string_view options = rest.substr(std::min(rest.size(), chain.size() + 1));
        rules.push_back({chain, options, step.m_szCommand, ReadRule(std::string(options))});
    }
    return rules;
}

// One command of a repair, and whether the repair stops when it fails.
struct REPAIR_STEP {
    std::string m_command;
    bool m_bMustSucceed = true;
};

// What one look found: what is wrong in the tables it could list and in bridge
// netfilter, the tables it could not list, and the commands that put back
// only what is missing or out of place.
struct ISOLATION_LOOK {
    std::string m_problems;
    std::string m_unlisted;
    WORK_FAILURE m_listingFailure;
    std::vector<REPAIR_STEP> m_repair;
};

void AddProblem(std::string& problems, const std::string& problem) {
    if (!problems.empty()) problems += "; ";
    problems += problem;
}

// One rule of a chain as listed: which of the isolation's rules it is (-1:
// another program's), and whether it drops.
struct CHAIN_ENTRY {
    int m_nOwn;
    bool m_bDrop;
};

// Judges one table's listing against the isolation's rules, chain by chain:
// each of them present and ahead of the first rule of another program that is
// not a DROP. An out-of-place rule is deleted and inserted just ahead of that
// rule; a missing one inserted there, or appended when the chain has none.
void JudgeTable(const RULE_LISTING& table, const std::vector<OWN_RULE>& own, const std::vector<LISTED_RULE>& listed,
                ISOLATION_LOOK& look) {
    unsigned int inPlace = 0;
    std::vector<std::string> ahead;
    std::vector<std::string> chains;
    for (const OWN_RULE& rule : own) {
        if (std::find(chains.begin(), chains.end(), rule.m_chain) == chains.end()) chains.emplace_back(rule.m_chain);
    }
    std::vector<bool> found(own.size(), false);
    for (const std::string& chain : chains) {
        std::vector<CHAIN_ENTRY> entries;
        std::vector<const std::string*> texts;
        for (const LISTED_RULE& rule : listed) {
            if (rule.m_chain != chain) continue;
            int match = -1;
            for (size_t index = 0; index < own.size() && match < 0; ++index) {
                if (!found[index] && own[index].m_chain == chain && own[index].m_words.m_key == rule.m_words.m_key) {
                    found[index] = true;
                    match = static_cast<int>(index);
                }
            }
            entries.push_back({match, rule.m_words.m_bDrop});
            texts.push_back(&rule.m_text);
        }
        const auto open = [](const CHAIN_ENTRY& entry) { return entry.m_nOwn < 0 && !entry.m_bDrop; };
        size_t firstOpen = std::find_if(entries.begin(), entries.end(), open) - entries.begin();
        size_t lastOwn = 0;
        for (size_t at = 0; at < entries.size(); ++at) lastOwn = entries[at].m_nOwn >= 0 ? at + 1 : lastOwn;
        for (size_t at = firstOpen; at < lastOwn; ++at) {
            if (open(entries[at])) ahead.push_back(*texts[at]);
        }
        for (size_t index = 0; index < own.size(); ++index) {
            const OWN_RULE& rule = own[index];
            if (rule.m_chain != chain) continue;
            const auto at = std::find_if(entries.begin(), entries.end(), [index](const CHAIN_ENTRY& entry) {
                return entry.m_nOwn == static_cast<int>(index);
            });
            const size_t position = at - entries.begin();
            if (at != entries.end() && position < firstOpen) {
                ++inPlace;
                continue;
            }
            if (at != entries.end()) {
                look.m_repair.push_back(
                    {Util::Format("%s -D %s %s", table.m_szTool, chain.c_str(), std::string(rule.m_spec).c_str())});
                entries.erase(at);
            }
            if (firstOpen >= entries.size()) {
                look.m_repair.push_back({rule.m_szCommand});
                entries.push_back({static_cast<int>(index), true});
                firstOpen = entries.size();
            } else {
                look.m_repair.push_back({Util::Format("%s -I %s %zu %s", table.m_szTool, chain.c_str(), firstOpen + 1,
                                                      std::string(rule.m_spec).c_str())});
                entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(firstOpen),
                               {static_cast<int>(index), true});
                ++firstOpen;
            }
        }
    }
    if (inPlace < own.size()) {
        AddProblem(look.m_problems, Util::Format("%u of %zu %s rules in place", inPlace, own.size(), table.m_szTable));
    }
    for (const std::string& text : ahead) {
        AddProblem(look.m_problems,
                   Util::Format("a rule of another program ahead of the %s rules: %s", table.m_szTable, text.c_str()));
    }
}

void JudgeBridgeFilter(const BRIDGE_FILTER_STATE& filter, std::string& problems) {
    if (!filter.m_bAvailable) {
        AddProblem(problems, "no bridge netfilter (br_netfilter) in the kernel");
        return;
    }
    if (!filter.m_bIptables) AddProblem(problems, "br0 hands no bridged IPv4 to iptables");
    if (!filter.m_bArptables) AddProblem(problems, "br0 hands no bridged ARP to arptables");
    if (!filter.m_bVlanTagged) {
        AddProblem(problems, "tagged IPv4 and ARP reach no filter (net.bridge.bridge-nf-filter-vlan-tagged is 0)");
    }
}

BridgeFilterReader& ActiveBridgeFilterReader() {
    static BridgeFilterReader reader;
    return reader;
}

TaggedFilterSwitch& ActiveTaggedFilterSwitch() {
    static TaggedFilterSwitch tagSwitch;
    return tagSwitch;
}

void MakeSureOfTaggedFiltering() {
    const TaggedFilterSwitch& tagSwitch = ActiveTaggedFilterSwitch();
    if (tagSwitch) {
        tagSwitch();
    } else {
        SwitchOnTaggedFiltering();
    }
}

BRIDGE_FILTER_STATE BridgeFilterState() {
    const BridgeFilterReader& reader = ActiveBridgeFilterReader();
    return reader ? reader(kBridge) : ReadBridgeFilterState(kBridge);
}

// One look at the whole isolation: the three listings (two without the link
// layer) and bridge netfilter. A listing that cannot be run leaves its table
// unjudged.
ISOLATION_LOOK LookAtIsolation(bool linkLayer) {
    ISOLATION_LOOK look;
    for (size_t index = 0; index < std::size(kRuleListings); ++index) {
        const RULE_LISTING& table = kRuleListings[index];
        // Without the link layer there are no rules of it to look at.
        if (!linkLayer && table.m_steps.data() == kLinkLayerRuleSteps) continue;
        std::string text;
        WORK_FAILURE listingFailure;
        if (!RunStep(table.m_szCommand, true, listingFailure, &text)) {
            AddProblem(look.m_unlisted, Util::Format("the %s rules cannot be listed (%s)", table.m_szTable,
                                                     DescribeOutcome(listingFailure.m_outcome).c_str()));
            if (look.m_listingFailure.m_command.empty()) look.m_listingFailure = listingFailure;
            continue;
        }
        // Read for each look, not kept: looks are rare, and the keys would hold
        // heap pages for the daemon's life.
        JudgeTable(table, ReadOwnRules(table), ReadListing(text), look);
    }
    const BRIDGE_FILTER_STATE filter = BridgeFilterState();
    JudgeBridgeFilter(filter, look.m_problems);
    if (!filter.m_bAvailable || !filter.m_bIptables || !filter.m_bArptables) {
        for (const SHELL_STEP& step : kBridgeFilterSteps)
            look.m_repair.push_back({step.m_szCommand, step.m_bMustSucceed});
    }
    return look;
}

// What a look found wrong, as the failure of the work.
WORK_FAILURE ProblemsFailure(const std::string& problems) {
    WORK_FAILURE failure;
    failure.m_command = "isolation check: " + problems;
    failure.m_outcome.m_nStatus = 1;
    return failure;
}

void NoteInForce(ISOLATION_STATE& state) {
    if (!state.m_unverified.empty()) LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Isolation looked at again: in force");
    state.m_bInForce = true;
    state.m_verifiedAt = Util::RealTimeNow();
    state.m_nVerifiedMs = MonotonicMs();
    state.m_problem.clear();
    state.m_unverified.clear();
    state.m_nListingRetryMs = 0;
    state.m_nNextCheckMs = MonotonicMs() + kIsolationCheckIntervalMs;
}

// A look that could not list a table: the verdict before it stands (its time
// not renewed), and the look is tried again soon, at growing waits.
void NoteUnverified(ISOLATION_STATE& state, const std::string& why) {
    state.m_nListingRetryMs = state.m_nListingRetryMs == 0
                                  ? kIsolationListingRetryMs
                                  : std::min(2 * state.m_nListingRetryMs, kIsolationCheckIntervalMs);
    if (state.m_unverified.empty()) {
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
                  Util::Format("Isolation not looked at (%s); looking again in %u s", why.c_str(),
                               state.m_nListingRetryMs / 1000));
    }
    state.m_unverified = why;
    state.m_nNextCheckMs = MonotonicMs() + state.m_nListingRetryMs;
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

// How a link-layer command that must succeed went, for the work.
enum class LINK_LAYER_OUTCOME {
    DONE,     // it succeeded
    REFUSED,  // ebtables refused it: the absence noted, the work goes on without the link layer
    FAILED,   // the work stops, as at a step RunStep judges so
};

// Runs one link-layer command that must succeed (with `output`, one the work
// reads). A command that ebtables refuses (it ran and exited with a failure:
// no such table in the kernel, or no ebtables at all) is no failure of the
// work: the blocks that went in are taken away again, quietly, and the absence
// is noted, naming `table` and the command as `shown`. Anything else that stops
// the work fills in `failure`, with an ERROR entry as RunStep gives.
LINK_LAYER_OUTCOME RunLinkLayerCommand(const std::string& command, const std::string& shown, const std::string& table,
                                       LINK_LAYER_STATE& linkLayer, bool warn, WORK_FAILURE& failure,
                                       std::string* output = nullptr) {
    const COMMAND_OUTCOME outcome = output != nullptr ? RunCommandForOutput(command, *output) : RunCommand(command);
    NotifyWatchdog();
    if (outcome.Succeeded()) return LINK_LAYER_OUTCOME::DONE;
    const bool refused = outcome.m_bStarted && !outcome.m_bTimedOut && outcome.m_bExited;
    if (!refused || StopRequested()) {
        failure.m_command = CommandInOneLine(command);
        failure.m_outcome = outcome;
        // As RunStep: a deadline was reported when it struck, a stop is no fault.
        if (!outcome.m_bTimedOut && !StopRequested()) {
            LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                      "Command failed (" + DescribeOutcome(outcome) + "): " + failure.m_command);
        }
        return LINK_LAYER_OUTCOME::FAILED;
    }
    WORK_FAILURE ignored;
    RunSteps(kQuietLiftSteps<"veth0">, ignored);
    RunSteps(kQuietLiftSteps<"eth1">, ignored);
    linkLayer.m_bEth1Blocked = false;
    NoteLinkLayerMissing(linkLayer,
                         Util::Format("ebtables cannot use the kernel's %s table: %s (%s)", table.c_str(),
                                      shown.c_str(), DescribeOutcome(outcome).c_str()),
                         warn);
    return LINK_LAYER_OUTCOME::REFUSED;
}

// Runs link-layer steps, those that must succeed as RunLinkLayerCommand: at
// the first that ebtables refuses the rest is not run (true, with
// linkLayer.m_missing set). False, as RunStep, for anything else that stops
// the work.
bool RunLinkLayerSteps(std::span<const SHELL_STEP> steps, LINK_LAYER_STATE& linkLayer, bool warn,
                       WORK_FAILURE& failure) {
    for (const SHELL_STEP& step : steps) {
        if (!step.m_bMustSucceed) {
            if (!RunStep(step.m_szCommand, false, failure)) return false;
            continue;
        }
        const LINK_LAYER_OUTCOME outcome = RunLinkLayerCommand(
            step.m_szCommand, step.m_szCommand, EbtablesTable(step.m_szCommand), linkLayer, warn, failure);
        if (outcome == LINK_LAYER_OUTCOME::REFUSED) return true;
        if (outcome == LINK_LAYER_OUTCOME::FAILED) return false;
    }
    return true;
}

// Puts back what a look found missing or out of place, and nothing else, with
// eth1 and veth0 blocked meanwhile; then looks again and lifts the blocks.
// `steps` are the finding look's commands; without them (a repair tried
// again) a look after the blocks says what to do.
void RepairIsolation(ISOLATION_STATE& state, std::vector<REPAIR_STEP> steps) {
    WORK_FAILURE failure;
    LINK_LAYER_STATE& linkLayer = state.m_linkLayer;
    bool done = BlockTwoPortBuild(linkLayer, failure);
    const bool withLinkLayer = linkLayer.m_missing.empty();
    // No command: the tagged frames' switch, wherever a look may have found it off.
    if (done) MakeSureOfTaggedFiltering();
    bool listingOnly = false;
    // A look that finds nothing to do is the repair's own look as well.
    bool looked = false;
    ISOLATION_LOOK after;
    if (done && steps.empty()) {
        after = LookAtIsolation(withLinkLayer);
        if (!after.m_unlisted.empty()) {
            done = false;
            listingOnly = true;
            failure = after.m_listingFailure;
        }
        steps = std::move(after.m_repair);
        looked = steps.empty();
    }
    for (const REPAIR_STEP& step : steps) {
        if (!done) break;
        done = RunStep(step.m_command, step.m_bMustSucceed, failure);
    }
    if (done) {
        if (!looked) after = LookAtIsolation(withLinkLayer);
        if (!after.m_problems.empty()) {
            done = false;
            failure = ProblemsFailure(after.m_problems);
            state.m_problem = after.m_problems;
            if (!StopRequested()) {
                LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                          "Isolation not in force after setting it up: " + after.m_problems);
            }
        }
    }
    done = done && LiftBlocksOfBuild(linkLayer, failure);
    if (!done) {
        if (StopRequested()) return;
        state.m_bInForce = false;
        if (state.m_problem.empty()) state.m_problem = "putting it back failed: " + failure.m_command;
        NoteWorkFailed(state.m_health, "isolation", failure);
        // A table that cannot be listed is no reason to take eth1 down: its
        // block at the bridge stays until a look can tell.
        if (listingOnly) return;
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
    if (after.m_unlisted.empty()) {
        NoteInForce(state);
        LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false, "Isolation back in force");
    } else {
        NoteUnverified(state, after.m_unlisted);
    }
}

// Hands IPv4 and ARP under one 802.1Q tag to the filters; system-wide only
// (no bridge has its own).
const char* const kTaggedFilterSwitch = "bridge-nf-filter-vlan-tagged";

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
    state.m_bVlanTagged = ReadBridgeSysctl(kTaggedFilterSwitch) == 1;
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

bool SwitchOnTaggedFiltering() {
    if (ReadBridgeSysctl(kTaggedFilterSwitch) == 1) return true;
    // Read-only under the service's sandbox, where the packaged sysctl.d file
    // has set it at boot; the look says so when neither did.
    const std::string path = std::string("/proc/sys/net/bridge/") + kTaggedFilterSwitch;
    const Util::UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.IsOpen()) return false;
    return write(file.Get(), "1\n", 2) == 2;
}

TaggedFilterSwitch SetTaggedFilterSwitch(TaggedFilterSwitch tagSwitch) {
    return std::exchange(ActiveTaggedFilterSwitch(), std::move(tagSwitch));
}

bool HoldEth1Down(WORK_FAILURE& failure) { return RunSteps(kHoldEth1DownSteps, failure); }

namespace {

// Where the shell finds `name` first: the file's path, empty where it finds none.
std::string FoundOnPath(const char* name) {
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
        std::string candidate = directory + "/" + name;
        struct stat info {};
        if (stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return "";
}

}  // namespace

bool ToolOnPath(const char* name) { return !FoundOnPath(name).empty(); }

namespace {

// Where ebtables takes a batch, the link-layer steps of a build go to it in one
// process: what would be the steps' commands, as ebtables-restore's lines.
// --noflush: only what the lines say changes, every other rule stays.
const char* const kEbtablesRestore = "ebtables-restore --noflush";
const char* const kNatListing = "ebtables -t nat -L";

// Whether ebtables takes a batch here: ebtables-restore where the shell finds
// ebtables first, so that both are of one backend, and found first there too.
// Looked for in-process; without it the steps run one by one, as ever.
bool EbtablesBatchUsable() {
    const std::string ebtables = FoundOnPath("ebtables");
    return !ebtables.empty() && FoundOnPath("ebtables-restore") == ebtables + "-restore";
}

// ebtables-restore's lines for link-layer steps: "*TABLE" where the table
// changes, then each step's command without the tool's name, its table and
// the shell's redirection ("-A FORWARD ...", "-D PREROUTING ..."). One line
// that fails fails the batch, so only steps that must succeed go in as they
// are; a quiet delete goes in only as often as the rule is there.
struct EBTABLES_BATCH {
    std::vector<std::string> m_lines;
    std::string m_table;  // of the last line

    static std::string_view Line(std::string_view command, std::string& table) {
        command.remove_prefix(std::string_view("ebtables ").size());
        table = "filter";
        if (command.starts_with("-t ")) {
            command.remove_prefix(3);
            const size_t space = command.find(' ');
            table = std::string(command.substr(0, space));
            command.remove_prefix(space + 1);
        }
        if (command.ends_with(" 2>/dev/null")) command.remove_suffix(std::string_view(" 2>/dev/null").size());
        return command;
    }

    void Add(std::string_view command) {
        std::string table;
        const std::string_view line = Line(command, table);
        if (table != m_table) m_lines.push_back("*" + table);
        m_table = table;
        m_lines.emplace_back(line);
    }
    void Add(std::span<const SHELL_STEP> steps) {
        for (const SHELL_STEP& step : steps) Add(step.m_szCommand);
    }
};

// How often an ebtables listing of a table holds `rule` in `chain`, as either
// backend prints it: under "Bridge chain: NAME, ..." the rules a line each,
// the legacy one with a space at the end.
unsigned int TimesListed(const std::string& listing, std::string_view chain, std::string_view rule) {
    unsigned int times = 0;
    bool inChain = false;
    std::vector<std::string> lines;
    Util::Split(lines, listing, '\n');
    for (std::string& line : lines) {
        Util::TrimFromEnd(line, ' ');
        if (line.starts_with("Bridge chain: ")) {
            inChain = std::string_view(line)
                          .substr(std::string_view("Bridge chain: ").size())
                          .starts_with(std::string(chain) + ",");
        } else if (inChain && line == rule) {
            ++times;
        }
    }
    return times;
}

// A block's steps (kBlockSteps) for a batch: the quiet delete before each
// block once for every time the nat table lists it, then the block, so that
// a block set again stays one.
void AddBlock(EBTABLES_BATCH& batch, std::span<const SHELL_STEP> steps, const std::string& natListing) {
    for (const SHELL_STEP& step : steps) {
        if (step.m_bMustSucceed) {
            batch.Add(step.m_szCommand);
            continue;
        }
        std::string table;
        // "-D CHAIN RULE"
        std::string_view line = EBTABLES_BATCH::Line(step.m_szCommand, table);
        line.remove_prefix(3);
        const size_t space = line.find(' ');
        const unsigned int times = TimesListed(natListing, line.substr(0, space), line.substr(space + 1));
        for (unsigned int time = 0; time < times; ++time) batch.Add(step.m_szCommand);
    }
}

// Runs a batch as RunLinkLayerCommand runs a command (every line of it must succeed).
LINK_LAYER_OUTCOME RunLinkLayerBatch(const EBTABLES_BATCH& batch, LINK_LAYER_STATE& linkLayer, bool warn,
                                     WORK_FAILURE& failure) {
    return RunLinkLayerCommand(BatchCommand(kEbtablesRestore, batch.m_lines), kEbtablesRestore,
                               batch.m_lines.front().substr(1), linkLayer, warn, failure);
}

// BlockTwoPortBuild's blocks in one batch, after one look at the nat table
// for blocks there already.
bool BlockTwoPortBuildInOne(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure) {
    std::string listing;
    LINK_LAYER_OUTCOME outcome =
        RunLinkLayerCommand(kNatListing, kNatListing, "nat", linkLayer, true, failure, &listing);
    if (outcome != LINK_LAYER_OUTCOME::DONE) return outcome == LINK_LAYER_OUTCOME::REFUSED;
    EBTABLES_BATCH batch;
    AddBlock(batch, kBlockSteps<"eth1">, listing);
    AddBlock(batch, kBlockSteps<"veth0">, listing);
    outcome = RunLinkLayerBatch(batch, linkLayer, true, failure);
    if (outcome == LINK_LAYER_OUTCOME::DONE) linkLayer.m_bEth1Blocked = true;
    return outcome != LINK_LAYER_OUTCOME::FAILED;
}

constexpr bool AllMustSucceed(std::span<const SHELL_STEP> steps) {
    return std::all_of(steps.begin(), steps.end(), [](const SHELL_STEP& step) { return step.m_bMustSucceed; });
}
static_assert(AllMustSucceed(kLinkLayerRuleSteps), "the link-layer rules go into a batch as they are");

// The link-layer rules, in one batch where ebtables takes one.
bool PutInLinkLayerRules(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure) {
    if (!EbtablesBatchUsable()) return RunLinkLayerSteps(kLinkLayerRuleSteps, linkLayer, true, failure);
    EBTABLES_BATCH batch;
    batch.Add(kLinkLayerRuleSteps);
    return RunLinkLayerBatch(batch, linkLayer, true, failure) != LINK_LAYER_OUTCOME::FAILED;
}

}  // namespace

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
    if (EbtablesBatchUsable()) return BlockTwoPortBuildInOne(linkLayer, failure);
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

bool LiftBlocksOfBuild(LINK_LAYER_STATE& linkLayer, WORK_FAILURE& failure) {
    if (!EbtablesBatchUsable())
        return LiftVeth0BlockOfBuild(linkLayer, failure) && LiftEth1BlockOfBuild(linkLayer, failure);
    EBTABLES_BATCH batch;
    if (linkLayer.m_missing.empty()) batch.Add(kLiftBlockSteps<"veth0">);
    if (linkLayer.m_bEth1Blocked) batch.Add(kLiftBlockSteps<"eth1">);
    if (batch.m_lines.empty()) return true;
    if (!RunStep(BatchCommand(kEbtablesRestore, batch.m_lines), true, failure)) return false;
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
    if (!RunSteps(kBridgeFilterSteps, failure)) {
        state.m_bInForce = false;
        state.m_problem = "setting it up failed: " + failure.m_command;
        return false;
    }
    // No command: a file write, checked by the look like br0's own switches.
    MakeSureOfTaggedFiltering();
    LINK_LAYER_STATE& linkLayer = state.m_linkLayer;
    if (linkLayer.m_missing.empty() && !PutInLinkLayerRules(linkLayer, failure)) {
        state.m_bInForce = false;
        state.m_problem = "setting it up failed: " + failure.m_command;
        return false;
    }
    const bool withLinkLayer = linkLayer.m_missing.empty();
    const ISOLATION_LOOK look = LookAtIsolation(withLinkLayer);
    if (!look.m_problems.empty()) {
        state.m_bInForce = false;
        state.m_problem = look.m_problems;
        failure = ProblemsFailure(look.m_problems);
        if (!StopRequested()) {
            LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Isolation not in force after setting it up: " + look.m_problems);
        }
        return false;
    }
    if (!look.m_unlisted.empty()) {
        // Every rule went in; a listing that cannot run says nothing against
        // them, and is looked at again soon.
        state.m_bInForce = false;
        state.m_problem = "not looked at yet: " + look.m_unlisted;
        NoteUnverified(state, look.m_unlisted);
        return true;
    }
    NoteInForce(state);
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

namespace {

// What a periodic look judges, as the kernel shows it without a command: the
// filter tables' fingerprint, bridge netfilter and whether the link layer is
// looked at. Unread where the tables' fingerprint is.
FILTER_FINGERPRINT LookFingerprint(bool linkLayer) {
    FILTER_FINGERPRINT seen = FilterFingerprint();
    if (!seen.m_bRead) return {};
    const BRIDGE_FILTER_STATE filter = BridgeFilterState();
    const bool judged[] = {filter.m_bAvailable, filter.m_bIptables, filter.m_bArptables, filter.m_bVlanTagged,
                           linkLayer};
    seen.m_nHash = HashBytes(seen.m_nHash, judged, sizeof(judged));
    return seen;
}

// Whether a look now would judge what the last periodic look that found the
// isolation whole judged, within the backstop after its listings.
bool JudgedUnchanged(const ISOLATION_STATE& state, const FILTER_FINGERPRINT& seen) {
    return seen.m_bRead && seen == state.m_judged && state.m_bInForce && state.m_unverified.empty() &&
           MonotonicMs() - state.m_nListedAtMs < kIsolationListingBackstopMs;
}

}  // namespace

void SuperviseIsolation(ISOLATION_STATE& state) {
    std::vector<REPAIR_STEP> steps;
    if (!state.m_bRepairPending) {
        if (MonotonicMs() < state.m_nNextCheckMs) return;
        // A link layer that was missing and can now be had is put in as a repair.
        if (state.m_bInForce && !state.m_linkLayer.m_missing.empty() && LinkLayerUsable(state.m_linkLayer)) {
            state.m_nNextCheckMs = MonotonicMs() + kIsolationCheckIntervalMs;
            state.m_bRepairPending = true;
            LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false, "Link-layer isolation available; putting it in");
            if (WorkDue(state.m_health)) RepairIsolation(state, {});
            return;
        }
        // Nothing the look judges has moved since one found it whole: no listing.
        const FILTER_FINGERPRINT seen = LookFingerprint(state.m_linkLayer.m_missing.empty());
        if (JudgedUnchanged(state, seen)) {
            NoteInForce(state);
            return;
        }
        state.m_judged = {};
        ISOLATION_LOOK look = LookAtIsolation(state.m_linkLayer.m_missing.empty());
        state.m_nNextCheckMs = MonotonicMs() + kIsolationCheckIntervalMs;
        // A look cut short by a stop found nothing.
        if (StopRequested()) return;
        if (look.m_problems.empty()) {
            if (look.m_unlisted.empty()) {
                NoteInForce(state);
                state.m_judged = seen;
                state.m_nListedAtMs = MonotonicMs();
            } else {
                NoteUnverified(state, look.m_unlisted);
            }
            return;
        }
        state.m_bInForce = false;
        state.m_problem = look.m_problems;
        state.m_bRepairPending = true;
        steps = std::move(look.m_repair);
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Isolation not in force (" + look.m_problems + "); putting it back");
    }
    if (WorkDue(state.m_health)) RepairIsolation(state, std::move(steps));
}
