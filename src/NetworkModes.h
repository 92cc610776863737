// The words of the bridge and PHY modes, one table each: the configuration
// file's (the parser), the status document's and the configuration check's.
#pragma once

#include "src/Network.h"

// One bridge mode: its word in the configuration file and the status
// document, and what it bridges in the configuration check's words.
struct BRIDGE_MODE_TEXT {
    BRIDGE_MODE m_eMode;
    const char* m_szWord;
    const char* m_szPorts;
};

inline constexpr BRIDGE_MODE_TEXT kBridgeModeTexts[] = {
    {BRIDGE_MODE_ETH0, "eth0", "eth0 in br0"},
    {BRIDGE_MODE_ETH1, "eth1", "eth1 in br0"},
    {BRIDGE_MODE_ETH0ETH1, "eth0eth1", "eth0 and eth1 in br0, second pair veth2/veth3 with the isolation rules"},
};

// One PHY mode: its word in the configuration file and the status document,
// and how the PHY is wired. The first entry stands for every mode but SGMII.
struct PHY_MODE_TEXT {
    PHY_MODE m_eMode;
    const char* m_szWord;
    const char* m_szWiring;
};

inline constexpr PHY_MODE_TEXT kPhyModeTexts[] = {
    {PHY_MODE_COPPER, "copper", "RGMII to copper"},
    {PHY_MODE_SGMII, "frame", "RGMII to SGMII"},
};

// The bridge mode the word names exactly; nullptr when none does.
const BRIDGE_MODE_TEXT* FindBridgeModeByWord(const char* word);

// The entry of a bridge mode; nullptr for a value beyond the enum.
const BRIDGE_MODE_TEXT* FindBridgeMode(BRIDGE_MODE mode);

// The mode's word; "unknown" for a value beyond the enum.
const char* BridgeModeWord(BRIDGE_MODE mode);

// The entry of a PHY mode: anything but SGMII counts as copper.
const PHY_MODE_TEXT& PhyModeText(PHY_MODE mode);

// The mode's word: "frame" for SGMII, "copper" for anything else.
const char* PhyModeWord(PHY_MODE mode);

// The PHY mode a configuration word names: every word but "frame" means copper.
PHY_MODE PhyModeFromWord(const char* word);
