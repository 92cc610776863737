// Configuration records and every network control function of the daemon.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <string>

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

// One interface's IPv4 addressing. A gateway of 0.0.0.0 means no default route.
struct IP_CONFIG {
    bool m_bDhcp;  // true: the addresses come from the DHCP client
    in_addr m_ipAddress;
    in_addr m_subnetMask;  // a dotted mask, never a prefix length
    in_addr m_gateway;
};

// The DHCP lease in force on one interface. Zero-filled means no lease.
struct DHCP_STATE {
    bool m_bLeaseValid;
    in_addr m_ipAddress;
    in_addr m_subnetMask;
    in_addr m_gateway;
};

// Records compare field by field: the padding after a flag holds nothing that counts.
inline bool operator==(const IP_CONFIG& a, const IP_CONFIG& b) {
    return a.m_bDhcp == b.m_bDhcp && a.m_ipAddress.s_addr == b.m_ipAddress.s_addr &&
           a.m_subnetMask.s_addr == b.m_subnetMask.s_addr && a.m_gateway.s_addr == b.m_gateway.s_addr;
}
inline bool operator!=(const IP_CONFIG& a, const IP_CONFIG& b) { return !(a == b); }

inline bool operator==(const DHCP_STATE& a, const DHCP_STATE& b) {
    return a.m_bLeaseValid == b.m_bLeaseValid && a.m_ipAddress.s_addr == b.m_ipAddress.s_addr &&
           a.m_subnetMask.s_addr == b.m_subnetMask.s_addr && a.m_gateway.s_addr == b.m_gateway.s_addr;
}
inline bool operator!=(const DHCP_STATE& a, const DHCP_STATE& b) { return !(a == b); }

struct USER_SETTINGS {
    BRIDGE_MODE m_eBridgeMode;
    PHY_MODE m_ePhyMode;
    IP_CONFIG m_veth1Config;
    IP_CONFIG m_veth3Config;
    IP_CONFIG m_vrx0Config;
    IP_CONFIG m_vrx1Config;
};

inline bool operator==(const USER_SETTINGS& a, const USER_SETTINGS& b) {
    return a.m_eBridgeMode == b.m_eBridgeMode && a.m_ePhyMode == b.m_ePhyMode && a.m_veth1Config == b.m_veth1Config &&
           a.m_veth3Config == b.m_veth3Config && a.m_vrx0Config == b.m_vrx0Config && a.m_vrx1Config == b.m_vrx1Config;
}
inline bool operator!=(const USER_SETTINGS& a, const USER_SETTINGS& b) { return !(a == b); }

// --- Shell commands -------------------------------------------------------

// Runs one command line through /bin/sh -c and waits for it; its exit status is
// ignored. Every shell command of the daemon goes through here.
void RunCommand(const std::string& command);

// The function RunCommand hands its text to. Tests put a recorder here; an empty
// function puts the real runner back. Returns the one it replaced.
using CommandRunner = std::function<void(const std::string& command)>;
CommandRunner SetCommandRunner(CommandRunner runner);

// The real runner: starts the shell with default signal dispositions and an empty
// signal mask, and lets the daemon's stop signals in while it waits, so a stop
// requested during a command is neither lost nor delayed past the cycle.
void RunShellCommand(const std::string& command);

// Waits `milliseconds`; every pause of the daemon (the loop's second, the register
// pulses) goes through here, so tests can record pauses beside the commands.
void Pause(unsigned int milliseconds);

// The function Pause hands its duration to; tests put a recorder here, an empty
// function puts the real pause back. Returns the one it replaced.
using PauseRunner = std::function<void(unsigned int milliseconds)>;
PauseRunner SetPauseRunner(PauseRunner runner);

// The real pause: sleeps the whole period, resuming after a signal is taken, and
// is, with a running command, where the daemon's stop signals are let in.
void SleepLettingSignalsIn(unsigned int milliseconds);

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
int ParseConfigFile(const std::string& path, USER_SETTINGS& settings, bool& bSettingsValid, bool& bVrx0Valid,
                    bool& bVrx1Valid);

// --- Bridge, addresses, links ---------------------------------------------

// Rebuilds br0, its ports and the veth pairs for the mode; in BRIDGE_MODE_ETH0ETH1
// also the second pair and the ARP/IP isolation rules. An empty MAC text leaves
// that port's address alone.
void SetupBridge(BRIDGE_MODE bridgeMode, const std::string& eth0Mac, const std::string& eth1Mac);

// Whether the mode makes eth0 (modes 0 and 2) or eth1 (modes 1 and 2) a port of br0.
bool BridgesEth0(BRIDGE_MODE mode);
bool BridgesEth1(BRIDGE_MODE mode);

// Removes every route, then every address, of the interface.
void FlushAddrAndRouting(const std::string& interfaceName);

// Adds the address with its dotted mask and, unless the gateway is 0.0.0.0, a
// default route with the metric. Removes nothing first.
void SetAddrAndRouting(const std::string& interfaceName, unsigned int metric, in_addr address, in_addr mask,
                       in_addr gateway);

// 0 and `up` set when the query worked (up = administratively up and running);
// -1 and `up` false when it failed.
int GenericInterfaceLinkIsUp(const std::string& name, bool& up);

// Writes the PHY type character ("4" SGMII, "0" otherwise) to the driver's file.
void SetEthernetPhyMode(const std::string& path, PHY_MODE mode);

// --- DHCP and interface servicing -----------------------------------------

// Signals every udhcpc process serving the interface and removes its lease file.
void StopDhcp(const std::string& interfaceName, unsigned int metric);

// Reads /tmp/dhcp_<interface>.txt if present, puts a new lease into effect (or
// flushes a lost one), records it in `dhcpState` and deletes the file.
void CheckForNewDhcpAddress(const std::string& interfaceName, unsigned int metric, DHCP_STATE& dhcpState);

// Configures the interface statically or starts a fresh DHCP client.
void SetupInterface(const std::string& interfaceName, unsigned int metric, IP_CONFIG config, DHCP_STATE& dhcpState);

// Once per cycle: re-applies a changed or forced configuration, then in DHCP mode
// looks for a new lease.
void ServiceVethX(const std::string& interfaceName, unsigned int metric, bool& bReconfigure, IP_CONFIG& appliedConfig,
                  IP_CONFIG& wantedConfig, DHCP_STATE& dhcpState);
