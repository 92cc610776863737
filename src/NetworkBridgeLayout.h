// What each bridge mode puts in place: the one table the bridge build follows
// and the cycle's wanted shape reads, so the two cannot drift apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "src/NetworkConfig.h"

// br0's members in a mode. The first pair (veth0 in br0, veth1 the device's
// end) is in every mode; the second (veth2 in br0, veth3 the internal
// network's end) comes with the isolation.
struct BRIDGE_LAYOUT {
    bool m_bEth0Port = false;
    bool m_bEth1Port = false;
    bool m_bSecondPair = false;
};

// Indexed by the mode.
inline constexpr BRIDGE_LAYOUT kBridgeLayouts[] = {
    {.m_bEth0Port = true, .m_bEth1Port = false, .m_bSecondPair = false},  // BRIDGE_MODE_ETH0
    {.m_bEth0Port = false, .m_bEth1Port = true, .m_bSecondPair = false},  // BRIDGE_MODE_ETH1
    {.m_bEth0Port = true, .m_bEth1Port = true, .m_bSecondPair = true},    // BRIDGE_MODE_ETH0ETH1
};

// A value beyond the enum has no port and no second pair.
constexpr BRIDGE_LAYOUT BridgeLayout(BRIDGE_MODE mode) {
    const auto index = static_cast<size_t>(static_cast<uint32_t>(mode));
    return index < std::size(kBridgeLayouts) ? kBridgeLayouts[index] : BRIDGE_LAYOUT{};
}
