// The configuration: its records, the file's parser and the mode words. Holds
// nothing of the work that puts a configuration in force, so the configuration
// check and the fuzz targets reach the parser alone.
#pragma once

#include <netinet/in.h>
#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

// Which physical ports join br0. Kept as arithmetic on the value: bit 1 cleared
// gives 0 for the modes with eth0, value - 1 (unsigned) <= 1 for the modes with eth1.
enum BRIDGE_MODE : uint32_t {
    BRIDGE_MODE_ETH0 = 0,
    BRIDGE_MODE_ETH1 = 1,
    BRIDGE_MODE_ETH0ETH1 = 2,  // both ports, plus veth2/veth3 and the isolation rules
};

// How the Ethernet PHY is wired; anything but SGMII counts as copper.
enum PHY_MODE : uint32_t {
    PHY_MODE_COPPER = 0,  // RGMII to copper, PHY type 0
    PHY_MODE_SGMII = 1,   // RGMII to SGMII, PHY type 4
};

// The C library's address and time records have no equality of their own: the
// one each, here, that every record's defaulted comparison uses for them.
inline bool operator==(const in_addr& a, const in_addr& b) { return a.s_addr == b.s_addr; }
inline bool operator==(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

// Records compare field by field (defaulted, so no field can be left out): the
// padding after a flag holds nothing that counts.

// One interface's IPv4 addressing. A gateway of 0.0.0.0 means no default route.
struct IP_CONFIG {
    bool m_bDhcp;  // true: the addresses come from the DHCP client
    in_addr m_ipAddress;
    in_addr m_subnetMask;  // a dotted mask, never a prefix length
    in_addr m_gateway;

    bool operator==(const IP_CONFIG&) const = default;
};

struct USER_SETTINGS {
    BRIDGE_MODE m_eBridgeMode;
    PHY_MODE m_ePhyMode;
    IP_CONFIG m_veth1Config;
    IP_CONFIG m_veth3Config;
    IP_CONFIG m_vrx0Config;
    IP_CONFIG m_vrx1Config;

    bool operator==(const USER_SETTINGS&) const = default;
};

// --- Configuration --------------------------------------------------------

// Reads one interface address line ("veth1 static A M G" or "veth1 dhcp") into
// `config`. 0 valid, -1 not (logged; `config` written field by field as parts
// are found good).
int ParseInterfaceLine(const std::string& name, char* line, IP_CONFIG& config);

// Reads the configuration file into `settings` (never cleared: a field changes
// only when a line for it is read). 0 read to its end; -1 cannot be opened or
// read, with `settings` as it was (the outputs too, unless the read failed after
// its first line: then all three are false).
// bSettingsValid: a valid bridge line, and the last veth1 and veth3 lines valid.
// `problems`, when given, gets (appended) each message the read logs and, for a
// file read to its end that is not usable, each missing line that makes it so
// ("No veth1 line in config file"), which is not logged.
// `lines`, when given, gets each line the read classified (the configuration
// check names the line of each message from it).
struct CONFIG_LINE;
int ParseConfigFile(const std::string& path, USER_SETTINGS& settings, bool& bSettingsValid, bool& bVrx0Valid,
                    bool& bVrx1Valid, std::vector<std::string>* problems = nullptr,
                    std::vector<CONFIG_LINE>* lines = nullptr);

// The keywords a line's kind is found by, in the order they are looked for.
inline constexpr const char* kConfigKeywords[] = {"bridge", "phy", "veth1", "veth3", "vrx0", "vrx1"};

// One line as a read took it: its number in the file (a line longer than 255
// characters is read as pieces, each listed with the same number), its text
// without the newline, the keyword that decided its kind (nullptr: none, and
// the line was ignored) and the messages it drew. Comments and empty lines are
// not listed.
struct CONFIG_LINE {
    unsigned int m_nNumber = 0;
    std::string m_text;
    const char* m_szKeyword = nullptr;
    std::vector<std::string> m_problems;
};

// --- Mode words -------------------------------------------------------------
// One table each for the bridge and PHY modes: the configuration file's (the
// parser), the status document's and the configuration check's.

// One mode: its word in the configuration file and the status document, and
// what it means in the configuration check's words.
template <typename MODE>
struct MODE_TEXT {
    MODE m_eMode;
    const char* m_szWord;
    const char* m_szMeaning;
};

// A bridge mode's meaning is what it bridges.
using BRIDGE_MODE_TEXT = MODE_TEXT<BRIDGE_MODE>;

inline constexpr BRIDGE_MODE_TEXT kBridgeModeTexts[] = {
    {BRIDGE_MODE_ETH0, "eth0", "eth0 in br0"},
    {BRIDGE_MODE_ETH1, "eth1", "eth1 in br0"},
    {BRIDGE_MODE_ETH0ETH1, "eth0eth1", "eth0 and eth1 in br0, second pair veth2/veth3 with the isolation rules"},
};

// A PHY mode's meaning is how the PHY is wired. The first entry stands for
// every mode but SGMII.
using PHY_MODE_TEXT = MODE_TEXT<PHY_MODE>;

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
