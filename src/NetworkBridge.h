// The bridge build: br0, its ports and the veth pairs for a bridge mode.
#pragma once

#include <string>

#include "src/NetworkConfig.h"

// Why a piece of work stopped short (src/NetworkShell.h).
struct WORK_FAILURE;

// Rebuilds br0, its ports and the veth pairs for the mode; in BRIDGE_MODE_ETH0ETH1
// also the second pair and the ARP/IP isolation rules. An empty MAC text leaves
// that port's address alone. Returns false, stopping at the step that failed
// (noted in `failure` when given), when a step the build needs failed.
bool SetupBridge(BRIDGE_MODE bridgeMode, const std::string& eth0Mac, const std::string& eth1Mac,
                 WORK_FAILURE* failure = nullptr);

// Whether the mode makes eth0 (modes 0 and 2) or eth1 (modes 1 and 2) a port of br0.
bool BridgesEth0(BRIDGE_MODE mode);
bool BridgesEth1(BRIDGE_MODE mode);
