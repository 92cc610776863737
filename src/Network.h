// Configuration records and every network control function of the daemon.
// The runner the functions' commands go through is src/NetworkShell.h, the
// retries of failed work src/NetworkRetry.h.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"

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

// The DHCP lease in force on one interface. Zero-filled means no lease.
struct DHCP_STATE {
    bool m_bLeaseValid;
    in_addr m_ipAddress;
    in_addr m_subnetMask;
    in_addr m_gateway;

    bool operator==(const DHCP_STATE&) const = default;
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
int ParseConfigFile(const std::string& path, USER_SETTINGS& settings, bool& bSettingsValid, bool& bVrx0Valid,
                    bool& bVrx1Valid, std::vector<std::string>* problems = nullptr);

// --- Bridge, addresses, links ---------------------------------------------

// Rebuilds br0, its ports and the veth pairs for the mode; in BRIDGE_MODE_ETH0ETH1
// also the second pair and the ARP/IP isolation rules. An empty MAC text leaves
// that port's address alone. Returns false, stopping at the step that failed
// (noted in `failure` when given), when a step the build needs failed.
bool SetupBridge(BRIDGE_MODE bridgeMode, const std::string& eth0Mac, const std::string& eth1Mac,
                 WORK_FAILURE* failure = nullptr);

// Whether the mode makes eth0 (modes 0 and 2) or eth1 (modes 1 and 2) a port of br0.
bool BridgesEth0(BRIDGE_MODE mode);
bool BridgesEth1(BRIDGE_MODE mode);

// Removes every route, then every address, of the interface. Nothing to remove
// is no failure; false only when a command could not be run to its end.
bool FlushAddrAndRouting(const std::string& interfaceName, WORK_FAILURE* failure = nullptr);

// Adds the address with its dotted mask and, unless the gateway is 0.0.0.0, a
// default route with the metric. Removes nothing first. False when either failed.
bool SetAddrAndRouting(const std::string& interfaceName, unsigned int metric, in_addr address, in_addr mask,
                       in_addr gateway, WORK_FAILURE* failure = nullptr);

// 0 and `up` set when the query worked (up = administratively up and running);
// -1 and `up` false when it failed.
int GenericInterfaceLinkIsUp(const std::string& name, bool& up);

// Writes the PHY type character ("4" SGMII, "0" otherwise) to the driver's file.
void SetEthernetPhyMode(const std::string& path, PHY_MODE mode);

// --- DHCP and interface servicing -----------------------------------------

// One served interface (veth1, veth3): what was applied, the lease, its client.
struct INTERFACE_STATE {
    // Set up again on the next servicing, changed or not (at first, after a
    // bridge build, after a failure, when its DHCP client is gone).
    bool m_bReconfigure = true;
    // The addressing last applied.
    IP_CONFIG m_applied{};
    // The lease in force, or to be put in force when m_bLeasePending; zero-filled is none.
    DHCP_STATE m_dhcp{};
    // The lease in m_dhcp was read but could not be put in force yet.
    bool m_bLeasePending = false;
    // Real time the lease in m_dhcp was taken up; zero when none was.
    timespec m_leaseAt{};
    // The DHCP client serving the interface, 0 when none is known, and how many
    // clients the daemon started for it.
    pid_t m_clientPid = 0;
    unsigned int m_nClientStarts = 0;
    // Monotonic time of the next check that the client still runs.
    int64_t m_nClientCheckAtMs = 0;
    // Setting up the interface and putting its leases in force.
    WORK_HEALTH m_health;
};

// How often a DHCP client is looked for; a dead one is replaced at the next
// cycle after the check.
constexpr unsigned int kClientCheckIntervalMs = 5000;

// Signals every udhcpc process serving the interface and removes its lease file.
void StopDhcp(const std::string& interfaceName, unsigned int metric);

// The pid of a udhcpc process serving the interface, 0 when there is none.
pid_t FindDhcpClient(const std::string& interfaceName);

// Whether `pid` is still a udhcpc process serving the interface (one read of its
// command line; a process that has ended, zombie or gone, is not).
bool IsDhcpClientOf(pid_t pid, const std::string& interfaceName);

// Reads /tmp/dhcp_<interface>.txt if present, puts a new lease into effect (or
// flushes a lost one), records it in `dhcpState` and deletes the file. Returns
// false when a lease was read but putting it in force failed (it is recorded
// all the same, for the caller to try again).
bool CheckForNewDhcpAddress(const std::string& interfaceName, unsigned int metric, DHCP_STATE& dhcpState,
                            WORK_FAILURE* failure = nullptr);

// Puts the lease (or, when not valid, no address) in force: flush, then address
// and route. False when a step failed.
bool ApplyDhcpLease(const std::string& interfaceName, unsigned int metric, const DHCP_STATE& lease,
                    WORK_FAILURE* failure = nullptr);

// Configures the interface statically or starts a fresh DHCP client. False when
// a step it needs failed.
bool SetupInterface(const std::string& interfaceName, unsigned int metric, IP_CONFIG config, DHCP_STATE& dhcpState,
                    WORK_FAILURE* failure = nullptr);

// Once per cycle: re-applies a changed or forced configuration, then in DHCP mode
// looks for a new lease and checks that the client still runs. Failed work is
// retried with growing waits.
void ServiceVethX(const std::string& interfaceName, unsigned int metric, const IP_CONFIG& wantedConfig,
                  INTERFACE_STATE& iface);
