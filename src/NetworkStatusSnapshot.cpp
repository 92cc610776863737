// What counts as in force: the status snapshot taken from the cycle's state.
#include "src/NetworkStatusSnapshot.h"

#include <netinet/in.h>
#include <time.h>

#include <string>

#include "src/NetworkBridge.h"
#include "src/NetworkConfig.h"
#include "src/NetworkCycle.h"
#include "src/NetworkInterfaces.h"
#include "src/NetworkIsolation.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"
#include "src/NetworkStatusSchema.h"

namespace {

void TakeWork(const WORK_HEALTH& health, STATUS_WORK& work) {
    work.m_nFailures = health.m_nFailures;
    const bool bEverFailed = health.m_failedAt != timespec{};
    // assign() keeps the text's storage: no allocation once it has held a command this long.
    work.m_command.assign(bEverFailed ? health.m_lastFailure.m_command : std::string());
    work.m_outcome = bEverFailed ? health.m_lastFailure.m_outcome : COMMAND_OUTCOME{};
    work.m_failedAt = health.m_failedAt;
    work.m_recoveredAt = health.m_recoveredAt;
    work.m_nUndone = health.m_nUndone;
    work.m_undone.assign(health.m_lastUndone);
    work.m_undoneAt = health.m_undoneAt;
    work.m_bUndonePending = health.m_bUndonePending;
}

// The addressing as asked for; a DHCP request carries no addresses.
IP_CONFIG Requested(const IP_CONFIG& config) {
    IP_CONFIG requested{};
    requested.m_bDhcp = config.m_bDhcp;
    if (!config.m_bDhcp) requested = config;
    return requested;
}

void TakeInterface(const CYCLE_STATE& state, const IP_CONFIG& configured, const INTERFACE_STATE& iface,
                   unsigned int metric, bool bShown, bool bConfigured, STATUS_INTERFACE& shown) {
    shown.m_bShown = bShown;
    shown.m_nMetric = metric;
    TakeWork(iface.m_health, shown.m_work);
    // Serviced at least once: what it was last asked for is what a usable file asked.
    const bool bServiced = !state.m_bFirstCycle;
    shown.m_bRequested = bShown && (bConfigured || bServiced);
    shown.m_requested = shown.m_bRequested ? Requested(bConfigured ? configured : iface.m_applied) : IP_CONFIG{};
    // Set up without a failure since: a static address is in force; a DHCP
    // interface has one once its lease is.
    const bool bSetUp = bShown && bServiced && !iface.m_bReconfigure;
    const bool bStatic = bSetUp && !iface.m_applied.m_bDhcp;
    const bool bLease = bSetUp && iface.m_applied.m_bDhcp && iface.m_dhcp.m_bLeaseValid && !iface.m_bLeasePending;
    shown.m_bInForce = bStatic || bLease;
    shown.m_bFromDhcp = bLease;
    shown.m_address = bStatic ? iface.m_applied.m_ipAddress : bLease ? iface.m_dhcp.m_ipAddress : in_addr{};
    shown.m_mask = bStatic ? iface.m_applied.m_subnetMask : bLease ? iface.m_dhcp.m_subnetMask : in_addr{};
    shown.m_gateway = bStatic ? iface.m_applied.m_gateway : bLease ? iface.m_dhcp.m_gateway : in_addr{};
    shown.m_leaseAt = bLease ? iface.m_leaseAt : timespec{};
    shown.m_leaseServer = bLease ? iface.m_dhcp.m_server : in_addr{};
    shown.m_clientPid = bShown ? iface.m_clientPid : 0;
    shown.m_nClientStarts = iface.m_nClientStarts;
}

// Why the document stops saying "in force" when no look has found it whole lately.
constexpr const char* kIsolationNotLookedAtLately = "not found whole by a look for over 25 s";
static_assert(kIsolationVerifiedWithinSeconds == 25, "the text above says the period");

// Required while br0 is built for the two-port mode, and while a usable file asks
// for that mode and no build for it has worked yet: a failing build shows as an
// isolation not in force rather than as one not required.
void TakeIsolation(const ISOLATION_STATE& isolation, const STATUS_SNAPSHOT& snapshot, STATUS_ISOLATION& shown) {
    const bool bBuilt = snapshot.m_bBridgeInForce && snapshot.m_eBridgeMode == BRIDGE_MODE_ETH0ETH1;
    const bool bAskedFor = !snapshot.m_bBridgeInForce && snapshot.m_bConfigured &&
                           snapshot.m_eConfiguredBridgeMode == BRIDGE_MODE_ETH0ETH1;
    shown.m_bRequired = bBuilt || bAskedFor;
    // Without br0 built for it there is nothing to be in force; in another mode
    // what is left from an earlier two-port period is not shown.
    // In force as the last verdict says, and only while a look found it whole
    // within its period: a listing that keeps failing leaves the verdict
    // standing, but the document no longer vouches for it.
    const bool bLookedAtLately = isolation.m_nVerifiedMs != 0 &&
                                 MonotonicMs() - isolation.m_nVerifiedMs <= kIsolationVerifiedWithinSeconds * 1000;
    shown.m_bInForce = bBuilt && isolation.m_bInForce && bLookedAtLately;
    shown.m_verifiedAt = shown.m_bRequired ? isolation.m_verifiedAt : timespec{};
    // assign() and clear() keep the text's storage: the snapshot is taken after every pass.
    if (bBuilt && isolation.m_bInForce && !bLookedAtLately) {
        shown.m_problem.assign(kIsolationNotLookedAtLately);
        if (!isolation.m_unverified.empty()) shown.m_problem.append(": ").append(isolation.m_unverified);
    } else if (shown.m_bRequired && !shown.m_bInForce) {
        shown.m_problem.assign(isolation.m_problem);
    } else {
        shown.m_problem.clear();
    }
    if (shown.m_bRequired && !isolation.m_linkLayer.m_missing.empty()) {
        shown.m_partial.assign(isolation.m_linkLayer.m_missing);
    } else {
        shown.m_partial.clear();
    }
    TakeWork(isolation.m_health, shown.m_work);
}

// The document says "in force" for a look at most this old: longer than a period.
static_assert(kIsolationVerifiedWithinSeconds * 1000 > kIsolationCheckIntervalMs);

}  // namespace

void TakeStatusSnapshot(const CYCLE_STATE& state, STATUS_SNAPSHOT& snapshot) {
    snapshot.m_bConfigRead = state.m_bConfigRead;
    snapshot.m_bConfigUsable = state.m_bConfigUsable;
    snapshot.m_configProblems = state.m_configProblems;
    // An unusable read may have changed some settings; only a usable one says what is configured.
    snapshot.m_bConfigured = state.m_bConfigUsable;
    snapshot.m_bLastUsableSupervised = state.m_bConfigRead && !state.m_bConfigUsable && !state.m_bFirstCycle;
    snapshot.m_eConfiguredBridgeMode = state.m_bConfigUsable ? state.m_settings.m_eBridgeMode : BRIDGE_MODE_ETH0;
    snapshot.m_eConfiguredPhyMode = state.m_bConfigUsable ? state.m_settings.m_ePhyMode : PHY_MODE_COPPER;
    snapshot.m_bBridgeInForce = !state.m_bBridgeSetupPending;
    snapshot.m_eBridgeMode = snapshot.m_bBridgeInForce ? state.m_eLastBridgeMode : BRIDGE_MODE_ETH0;
    // Written in every usable pass that found it due: once one has run, the mode
    // last written is in force unless its write failed (that failure, and a
    // failed bounce of eth1 after it, are the PHY work's).
    snapshot.m_bPhyInForce = !state.m_bFirstCycle && !state.m_bPhyWriteFailed;
    snapshot.m_ePhyMode = snapshot.m_bPhyInForce ? state.m_eLastPhyMode : PHY_MODE_COPPER;
    snapshot.m_bEth0Used = snapshot.m_bBridgeInForce && BridgesEth0(snapshot.m_eBridgeMode);
    snapshot.m_bEth0LinkUp = snapshot.m_bEth0Used && state.m_bEth0LinkUp;
    snapshot.m_nEth0Recoveries = state.m_nEth0Recoveries;
    snapshot.m_eth0RecoveredAt = state.m_eth0RecoveredAt;
    const bool bStreak =
        state.m_nEth0StreakRecoveries != 0 && MonotonicMs() - state.m_nEth0RecoveredMs <= kEth0StreakGapMs;
    snapshot.m_nEth0StreakRecoveries = bStreak ? state.m_nEth0StreakRecoveries : 0;
    snapshot.m_eth0StreakSince = bStreak ? state.m_eth0StreakSince : timespec{};
    TakeWork(state.m_startupHealth, snapshot.m_startup);
    TakeWork(state.m_bridgeHealth, snapshot.m_bridge);
    TakeWork(state.m_registerHealth, snapshot.m_registers);
    TakeWork(state.m_phyHealth, snapshot.m_phy);
    TakeWork(state.m_setUp.m_health, snapshot.m_links);
    TakeWork(state.m_attach.m_health, snapshot.m_ports);
    TakeWork(state.m_mac.m_health, snapshot.m_macs);
    TakeWork(state.m_eth0PortHealth, snapshot.m_eth0Port);

    // veth3 is served in the two-port mode: the one asked for, or else the one in force.
    const BRIDGE_MODE servedMode = snapshot.m_bConfigured ? snapshot.m_eConfiguredBridgeMode : snapshot.m_eBridgeMode;
    const bool bTwoPort = (snapshot.m_bConfigured || snapshot.m_bBridgeInForce) && servedMode == BRIDGE_MODE_ETH0ETH1;
    TakeInterface(state, state.m_settings.m_veth1Config, state.m_veth1, kVeth1Metric, true, snapshot.m_bConfigured,
                  snapshot.m_veth1);
    TakeInterface(state, state.m_settings.m_veth3Config, state.m_veth3, kVeth3Metric, bTwoPort, snapshot.m_bConfigured,
                  snapshot.m_veth3);
    TakeIsolation(state.m_isolation, snapshot, snapshot.m_isolation);
}
