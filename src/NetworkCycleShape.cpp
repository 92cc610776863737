// The cycle's view of what it built: the shape it wants held, and what the
// kernel shows of it after someone else's change. Runs only after a build or
// when the kernel reports a change, never in an idle pass.
#include "src/NetworkCycleShape.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "logging/Logging.h"
#include "src/NetworkBridge.h"
#include "src/NetworkBridgeLayout.h"
#include "src/NetworkConfig.h"
#include "src/NetworkInputText.h"
#include "src/NetworkInterfaces.h"
#include "src/NetworkInternalNames.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShape.h"
#include "src/NetworkShell.h"

namespace {

// The MAC address the bridge build gave veth1, in the kernel's lower case;
// empty when the kernel command line gives none it could use.
std::string Veth1Mac() {
    std::string mac = KernelCommandLineMac(KernelCommandLinePath());
    if (!IsMacAddress(mac)) return std::string();
    std::transform(mac.begin(), mac.end(), mac.begin(), [](unsigned char c) { return std::tolower(c); });
    return mac;
}

// The addressing an interface has in force: its static one, or its DHCP lease;
// none while it is to be set up again or a lease waits to be put in force.
void AddWantedAddress(const std::string& name, unsigned int metric, const INTERFACE_STATE& iface,
                      WANTED_SHAPE& wanted) {
    if (iface.m_bReconfigure || iface.m_bLeasePending) return;
    WANTED_ADDRESS address;
    address.m_nMetric = metric;
    if (!iface.m_applied.m_bDhcp) {
        address.m_address = iface.m_applied.m_ipAddress;
        address.m_nPrefix = PrefixLength(iface.m_applied.m_subnetMask);
        address.m_gateway = iface.m_applied.m_gateway;
    } else if (iface.m_dhcp.m_bLeaseValid) {
        address.m_address = iface.m_dhcp.m_ipAddress;
        address.m_nPrefix = PrefixLength(iface.m_dhcp.m_subnetMask);
        address.m_gateway = iface.m_dhcp.m_gateway;
    } else {
        return;
    }
    wanted.m_addresses.emplace_back(name, address);
}

// "a, b and c".
std::string Listed(const std::vector<std::string>& items) {
    std::string text;
    for (size_t i = 0; i < items.size(); ++i) {
        if (i != 0) text += i + 1 == items.size() ? " and " : ", ";
        text += items[i];
    }
    return text;
}

bool Contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// One command each, over the interface's name: a link set up again, a port
// put back into br0. eth0's place in br0 is the pass's own step.
template <FIXED_TEXT Name>
constexpr SHELL_STEP kSetUpSteps[] = {
    {kJoined<"ip link set ", Name, " up">, true},
};
template <FIXED_TEXT Name>
constexpr SHELL_STEP kAttachSteps[] = {
    {kJoined<"ip link set ", Name, " master br0">, true},
};
struct LINK_REPAIRS {
    const char* m_szName;
    std::span<const SHELL_STEP> m_setUp;
    std::span<const SHELL_STEP> m_attach;  // empty: not a port the small repair puts back
};
const LINK_REPAIRS kLinkRepairs[] = {
    {"br0", kSetUpSteps<"br0">, {}},
    {"eth1", kSetUpSteps<"eth1">, kAttachSteps<"eth1">},
    {"veth0", kSetUpSteps<"veth0">, kAttachSteps<"veth0">},
    {"veth1", kSetUpSteps<"veth1">, {}},
    {"veth2", kSetUpSteps<"veth2">, kAttachSteps<"veth2">},
    {"veth3", kSetUpSteps<"veth3">, {}},
};

SMALL_REPAIR* SmallRepairOf(CYCLE_STATE& state, SHAPE_REPAIR repair) {
    switch (repair) {
        case SHAPE_REPAIR_SET_UP:
            return &state.m_setUp;
        case SHAPE_REPAIR_ATTACH:
            return &state.m_attach;
        case SHAPE_REPAIR_MAC:
            return &state.m_mac;
        default:
            return nullptr;
    }
}

// The work's name in the log ("Repaired TITLE after an outside change").
std::string SmallRepairTitle(SHAPE_REPAIR repair) {
    if (repair == SHAPE_REPAIR_SET_UP) return "link state";
    if (repair == SHAPE_REPAIR_ATTACH) return "bridge ports";
    return "MAC addresses";
}

std::string SmallRepairRemedy(SHAPE_REPAIR repair, const std::vector<std::string>& links) {
    const std::string named = Listed(links);
    if (repair == SHAPE_REPAIR_SET_UP) return "setting " + named + " up again";
    if (repair == SHAPE_REPAIR_ATTACH) return "putting " + named + " back into br0";
    return "setting the MAC address of " + named + " back";
}

// The one command that puts `link` back; false, with the failure, when it failed.
bool RunSmallRepair(SHAPE_REPAIR repair, const std::string& link, const WANTED_SHAPE& wanted, WORK_FAILURE& failure) {
    if (repair == SHAPE_REPAIR_MAC) {
        for (const auto& [name, mac] : wanted.m_macs) {
            if (name != link) continue;
            std::string command = "ip link set dev ";
            command.append(name).append(" address ").append(mac);
            return RunStep(command, true, failure);
        }
        return true;  // no longer wanted (a rebuild since): nothing to put back
    }
    for (const LINK_REPAIRS& repairs : kLinkRepairs) {
        if (link != repairs.m_szName) continue;
        return RunSteps(repair == SHAPE_REPAIR_SET_UP ? repairs.m_setUp : repairs.m_attach, failure);
    }
    return true;
}

}  // namespace

// What the work just done put in place, as the kernel shows it now: whatever
// of it is missing already was never held, and is no outside change later.
void NoteShapeHeld(CYCLE_STATE& state, std::initializer_list<SHAPE_REPAIR> works) {
    auto ofThese = [works](const OUTSIDE_CHANGE& change) {
        return std::find(works.begin(), works.end(), change.m_eRepair) != works.end();
    };
    // The build gave veth1 the MAC of the kernel command line as it read it.
    if (std::find(works.begin(), works.end(), SHAPE_REPAIR_BRIDGE) != works.end()) state.m_veth1Mac = Veth1Mac();
    std::vector<OUTSIDE_CHANGE>& misses = state.m_shapeMisses;
    misses.erase(std::remove_if(misses.begin(), misses.end(), ofThese), misses.end());
    for (const OUTSIDE_CHANGE& change : FindOutsideChanges(WantedShape(state), LookAtKernel())) {
        if (ofThese(change)) misses.push_back(change);
    }
}

WANTED_SHAPE WantedShape(const CYCLE_STATE& state) {
    WANTED_SHAPE wanted;
    // Nothing is expected before a usable pass has built br0, nor while a
    // build is pending (it is redone anyway). An unusable file since changes
    // nothing: the last usable shape stays supervised.
    if (state.m_bBridgeSetupPending) return wanted;
    const BRIDGE_LAYOUT layout = BridgeLayout(state.m_eLastBridgeMode);
    // eth0's link is the recovery's concern: only its place in br0 is looked at.
    if (layout.m_bEth0Port) {
        wanted.m_ports.emplace_back("eth0");
        wanted.m_mayBeDown.emplace_back("eth0");
    }
    if (layout.m_bEth1Port) {
        wanted.m_ports.emplace_back("eth1");
        // The daemon itself keeps eth1 down while the isolation is not in force,
        // and bounces it for the PHY mode.
        if (layout.m_bSecondPair && (state.m_isolation.m_bEth1HeldDown || state.m_isolation.m_bRepairPending)) {
            wanted.m_mayBeDown.emplace_back("eth1");
        }
        if (state.m_bPhyModePending) wanted.m_mayBeDown.emplace_back("eth1");
    }
    wanted.m_ports.emplace_back("veth0");
    wanted.m_links.emplace_back("veth1");
    if (!state.m_veth1Mac.empty()) wanted.m_macs.emplace_back("veth1", state.m_veth1Mac);
    AddWantedAddress("veth1", kVeth1Metric, state.m_veth1, wanted);
    if (layout.m_bSecondPair) {
        wanted.m_ports.emplace_back("veth2");
        wanted.m_links.emplace_back("veth3");
        wanted.m_macs.emplace_back("veth3", kVeth3Mac);
        AddWantedAddress("veth3", kVeth3Metric, state.m_veth3, wanted);
    }
    return wanted;
}

bool CheckForOutsideChanges(CYCLE_STATE& state) {
    const WANTED_SHAPE wanted = WantedShape(state);
    if (wanted.m_ports.empty()) return false;
    const std::vector<OUTSIDE_CHANGE> changes = FindOutsideChanges(wanted, LookAtKernel());
    std::vector<std::string> found[kShapeRepairKinds];
    std::vector<std::string> links[kShapeRepairKinds];
    bool any = false;
    for (const OUTSIDE_CHANGE& change : changes) {
        const std::vector<OUTSIDE_CHANGE>& misses = state.m_shapeMisses;
        if (std::find(misses.begin(), misses.end(), change) != misses.end()) continue;
        // The pass puts eth0 back only while its link is up; while it is down
        // the recovery bounces it, and a port out of br0 is no news each time.
        if (change.m_eRepair == SHAPE_REPAIR_ETH0 && (!state.m_bEth0LinkUp || state.m_bEth0PortPending)) continue;
        // A small repair already due is no news either: found again before it
        // ran, it is the same undo, not one more in a fight.
        const SMALL_REPAIR* small = SmallRepairOf(state, change.m_eRepair);
        const std::string link = ChangedLink(change);
        if (small != nullptr && Contains(small->m_pending, link)) continue;
        found[change.m_eRepair].push_back(change.m_found);
        links[change.m_eRepair].push_back(link);
        any = true;
    }
    if (!any) return false;

    if (!found[SHAPE_REPAIR_BRIDGE].empty()) {
        // The rebuild sets both interfaces up again: what they lost is not named apart.
        const std::string text = Listed(found[SHAPE_REPAIR_BRIDGE]);
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, text + "; rebuilding the bridge");
        state.m_bBridgeSetupPending = true;
        NoteWorkUndone(state.m_bridgeHealth, text);
        return true;
    }
    // Each kind of work is due at once, unless it is waiting out a fight: then
    // the pass that repairs it comes when its wait is over, not now.
    bool passNow = false;
    if (!found[SHAPE_REPAIR_ETH0].empty()) {
        const std::string text = Listed(found[SHAPE_REPAIR_ETH0]);
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, text + "; putting it back");
        state.m_bEth0PortPending = true;
        NoteWorkUndone(state.m_eth0PortHealth, text);
        passNow = passNow || WorkDue(state.m_eth0PortHealth);
    }
    for (const SHAPE_REPAIR repair : {SHAPE_REPAIR_SET_UP, SHAPE_REPAIR_ATTACH, SHAPE_REPAIR_MAC}) {
        if (found[repair].empty()) continue;
        SMALL_REPAIR& small = *SmallRepairOf(state, repair);
        const std::string text = Listed(found[repair]);
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, text + "; " + SmallRepairRemedy(repair, links[repair]));
        small.m_pending.insert(small.m_pending.end(), links[repair].begin(), links[repair].end());
        NoteWorkUndone(small.m_health, text);
        passNow = passNow || WorkDue(small.m_health);
    }
    const SHAPE_REPAIR repairs[] = {SHAPE_REPAIR_VETH1, SHAPE_REPAIR_VETH3};
    const char* const names[] = {"veth1", "veth3"};
    INTERFACE_STATE* const ifaces[] = {&state.m_veth1, &state.m_veth3};
    for (size_t i = 0; i < 2; ++i) {
        const SHAPE_REPAIR repair = repairs[i];
        INTERFACE_STATE& iface = *ifaces[i];
        if (found[repair].empty()) continue;
        const std::string text = Listed(found[repair]);
        // A lease is put in force again as it stands; a static address set up again.
        std::string message = text;
        if (iface.m_applied.m_bDhcp) {
            message.append("; putting the DHCP lease of ").append(names[i]).append(" back");
            iface.m_bLeasePending = true;
        } else {
            message.append("; setting up ").append(names[i]).append(" again");
            iface.m_bReconfigure = true;
        }
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, message);
        NoteWorkUndone(iface.m_health, text);
        passNow = passNow || WorkDue(iface.m_health);
    }
    return passNow;
}

void RepairSmallChanges(CYCLE_STATE& state) {
    if (state.m_bBridgeSetupPending) return;
    const WANTED_SHAPE wanted = WantedShape(state);
    for (const SHAPE_REPAIR repair : {SHAPE_REPAIR_SET_UP, SHAPE_REPAIR_ATTACH, SHAPE_REPAIR_MAC}) {
        SMALL_REPAIR& small = *SmallRepairOf(state, repair);
        if (small.m_pending.empty() || !WorkDue(small.m_health)) continue;
        WORK_FAILURE failure;
        bool done = true;
        for (const std::string& link : small.m_pending) {
            if (!(done = RunSmallRepair(repair, link, wanted, failure))) break;
        }
        if (!done) {
            NoteWorkFailed(small.m_health, SmallRepairTitle(repair), failure);
            continue;
        }
        small.m_pending.clear();
        NoteShapeHeld(state, {repair});
        NoteWorkDone(small.m_health, SmallRepairTitle(repair));
    }
}
