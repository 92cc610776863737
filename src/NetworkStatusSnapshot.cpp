// What counts as in force: the status snapshot taken from the cycle's state.
#include "src/NetworkStatusSnapshot.h"

#include <netinet/in.h>
#include <time.h>

#include <string>

#include "src/Network.h"
#include "src/NetworkCycle.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"

namespace {

bool SameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }
bool IsZero(const timespec& t) { return t.tv_sec == 0 && t.tv_nsec == 0; }

void TakeWork(const WORK_HEALTH& health, STATUS_WORK& work) {
    work.m_nFailures = health.m_nFailures;
    const bool bEverFailed = !IsZero(health.m_failedAt);
    // assign() keeps the text's storage: no allocation once it has held a command this long.
    work.m_command.assign(bEverFailed ? health.m_lastFailure.m_command : std::string());
    work.m_outcome = bEverFailed ? health.m_lastFailure.m_outcome : COMMAND_OUTCOME{};
    work.m_failedAt = health.m_failedAt;
    work.m_recoveredAt = health.m_recoveredAt;
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
    shown.m_clientPid = bShown ? iface.m_clientPid : 0;
    shown.m_nClientStarts = iface.m_nClientStarts;
}

}  // namespace

bool operator==(const STATUS_WORK& a, const STATUS_WORK& b) {
    return a.m_nFailures == b.m_nFailures && a.m_command == b.m_command && a.m_outcome == b.m_outcome &&
           SameTime(a.m_failedAt, b.m_failedAt) && SameTime(a.m_recoveredAt, b.m_recoveredAt);
}

bool operator==(const STATUS_INTERFACE& a, const STATUS_INTERFACE& b) {
    return a.m_bShown == b.m_bShown && a.m_bRequested == b.m_bRequested && a.m_requested == b.m_requested &&
           a.m_bInForce == b.m_bInForce && a.m_bFromDhcp == b.m_bFromDhcp && a.m_address.s_addr == b.m_address.s_addr &&
           a.m_mask.s_addr == b.m_mask.s_addr && a.m_gateway.s_addr == b.m_gateway.s_addr &&
           a.m_nMetric == b.m_nMetric && SameTime(a.m_leaseAt, b.m_leaseAt) && a.m_clientPid == b.m_clientPid &&
           a.m_nClientStarts == b.m_nClientStarts && a.m_work == b.m_work;
}

bool operator==(const STATUS_SNAPSHOT& a, const STATUS_SNAPSHOT& b) {
    return a.m_bConfigRead == b.m_bConfigRead && a.m_bConfigUsable == b.m_bConfigUsable &&
           a.m_configProblems == b.m_configProblems && a.m_bConfigured == b.m_bConfigured &&
           a.m_eConfiguredBridgeMode == b.m_eConfiguredBridgeMode && a.m_eConfiguredPhyMode == b.m_eConfiguredPhyMode &&
           a.m_bBridgeInForce == b.m_bBridgeInForce && a.m_eBridgeMode == b.m_eBridgeMode &&
           a.m_bPhyInForce == b.m_bPhyInForce && a.m_ePhyMode == b.m_ePhyMode && a.m_bEth0Used == b.m_bEth0Used &&
           a.m_bEth0LinkUp == b.m_bEth0LinkUp && a.m_nEth0Recoveries == b.m_nEth0Recoveries &&
           SameTime(a.m_eth0RecoveredAt, b.m_eth0RecoveredAt) && a.m_startup == b.m_startup &&
           a.m_bridge == b.m_bridge && a.m_registers == b.m_registers && a.m_phy == b.m_phy && a.m_veth1 == b.m_veth1 &&
           a.m_veth3 == b.m_veth3;
}

void TakeStatusSnapshot(const CYCLE_STATE& state, STATUS_SNAPSHOT& snapshot) {
    snapshot.m_bConfigRead = state.m_bConfigRead;
    snapshot.m_bConfigUsable = state.m_bConfigUsable;
    snapshot.m_configProblems = state.m_configProblems;
    // An unusable read may have changed some settings; only a usable one says what is configured.
    snapshot.m_bConfigured = state.m_bConfigUsable;
    snapshot.m_eConfiguredBridgeMode = state.m_bConfigUsable ? state.m_settings.m_eBridgeMode : BRIDGE_MODE_ETH0;
    snapshot.m_eConfiguredPhyMode = state.m_bConfigUsable ? state.m_settings.m_ePhyMode : PHY_MODE_COPPER;
    snapshot.m_bBridgeInForce = !state.m_bBridgeSetupPending;
    snapshot.m_eBridgeMode = snapshot.m_bBridgeInForce ? state.m_eLastBridgeMode : BRIDGE_MODE_ETH0;
    // Written in every usable pass that found it due: once one has run, the mode
    // last written is in force (a failed bounce of eth1 after it is the PHY work's).
    snapshot.m_bPhyInForce = !state.m_bFirstCycle;
    snapshot.m_ePhyMode = snapshot.m_bPhyInForce ? state.m_eLastPhyMode : PHY_MODE_COPPER;
    snapshot.m_bEth0Used = snapshot.m_bBridgeInForce && BridgesEth0(snapshot.m_eBridgeMode);
    snapshot.m_bEth0LinkUp = snapshot.m_bEth0Used && state.m_bEth0LinkUp;
    snapshot.m_nEth0Recoveries = state.m_nEth0Recoveries;
    snapshot.m_eth0RecoveredAt = state.m_eth0RecoveredAt;
    TakeWork(state.m_startupHealth, snapshot.m_startup);
    TakeWork(state.m_bridgeHealth, snapshot.m_bridge);
    TakeWork(state.m_registerHealth, snapshot.m_registers);
    TakeWork(state.m_phyHealth, snapshot.m_phy);

    // veth3 is served in the two-port mode: the one asked for, or else the one in force.
    const BRIDGE_MODE servedMode = snapshot.m_bConfigured ? snapshot.m_eConfiguredBridgeMode : snapshot.m_eBridgeMode;
    const bool bTwoPort = (snapshot.m_bConfigured || snapshot.m_bBridgeInForce) && servedMode == BRIDGE_MODE_ETH0ETH1;
    TakeInterface(state, state.m_settings.m_veth1Config, state.m_veth1, kVeth1Metric, true, snapshot.m_bConfigured,
                  snapshot.m_veth1);
    TakeInterface(state, state.m_settings.m_veth3Config, state.m_veth3, kVeth3Metric, bTwoPort, snapshot.m_bConfigured,
                  snapshot.m_veth3);
}
