// The supervision cycle: one pass turns the configuration file into the device's
// bridge, links, addresses and PHY mode, against what earlier passes applied.
#pragma once

#include <string>

#include "src/Network.h"

// What the cycle remembers from one pass to the next. A new record is the state
// before the first pass: everything is due, no lease is in force.
struct CYCLE_STATE {
    // The settings, refilled from the file by every pass (a field changes only
    // when a line for it is read).
    USER_SETTINGS m_settings{};
    // br0 is to be built on the next usable pass, whatever the mode.
    bool m_bBridgeSetupPending = true;
    // The mode br0 was last built for; compared only once a build has happened.
    BRIDGE_MODE m_eLastBridgeMode = BRIDGE_MODE_ETH0;
    // The interface is to be set up again on its next servicing, changed or not
    // (after a bridge build, and at first).
    bool m_bVeth1Reconfigure = true;
    bool m_bVeth3Reconfigure = true;
    // The PHY mode is to be written on the next usable pass, whatever the mode.
    bool m_bPhyModePending = true;
    // The PHY mode last written (or attempted: a failed write is not retried).
    PHY_MODE m_eLastPhyMode = PHY_MODE_COPPER;
    // eth0's link as last queried; false when the query failed.
    bool m_bEth0LinkUp = false;
    // No pass has found the configuration usable yet: the register writes are due.
    bool m_bFirstCycle = true;
    // The addressing last applied to each interface.
    IP_CONFIG m_veth1Applied{};
    IP_CONFIG m_veth3Applied{};
    // The lease in force on each interface; zero-filled is none.
    DHCP_STATE m_veth1Dhcp{};
    DHCP_STATE m_veth3Dhcp{};
};

// One pass: reads the file at `configPath` into `state` and, when it is usable,
// rebuilds, recovers and re-applies what the state says is due or changed. An
// unusable file leaves everything else in `state` as it was.
void RunSupervisionCycle(const std::string& configPath, CYCLE_STATE& state);
