// The cycle's view of what it built: the shape it wants held, and what the
// kernel shows of it after someone else's change. Runs only after a build or
// when the kernel reports a change, never in an idle pass.
#include "src/NetworkCycleShape.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <initializer_list>
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
    // Nothing is expected before a build, nor while one is pending (it is
    // redone anyway) or the configuration is unusable (nothing is serviced).
    if (!state.m_bConfigUsable || state.m_bBridgeSetupPending) return wanted;
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
    std::vector<std::string> found[4];
    bool any = false;
    for (const OUTSIDE_CHANGE& change : changes) {
        const std::vector<OUTSIDE_CHANGE>& misses = state.m_shapeMisses;
        if (std::find(misses.begin(), misses.end(), change) != misses.end()) continue;
        // The pass puts eth0 back only while its link is up; while it is down
        // the recovery bounces it, and a port out of br0 is no news each time.
        if (change.m_eRepair == SHAPE_REPAIR_ETH0 && !state.m_bEth0LinkUp) continue;
        found[change.m_eRepair].push_back(change.m_found);
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
    if (!found[SHAPE_REPAIR_ETH0].empty()) {
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, Listed(found[SHAPE_REPAIR_ETH0]) + "; putting it back");
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
    }
    return true;
}
