// DHCP: the udhcpc clients serving an interface, and the leases they report
// through a file per interface.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "src/NetworkConfig.h"

// Why a piece of work stopped short (src/NetworkShell.h).
struct WORK_FAILURE;

// The DHCP lease in force on one interface. Zero-filled means no lease.
struct DHCP_STATE {
    bool m_bLeaseValid;
    in_addr m_ipAddress;
    in_addr m_subnetMask;
    in_addr m_gateway;
    in_addr m_server;  // the server that gave it, for the status; 0.0.0.0: not named

    // The same lease in force: the server is not part of it, so a renewal that
    // names another server puts nothing in force again.
    bool operator==(const DHCP_STATE& other) const {
        return m_bLeaseValid == other.m_bLeaseValid && m_ipAddress.s_addr == other.m_ipAddress.s_addr &&
               m_subnetMask.s_addr == other.m_subnetMask.s_addr && m_gateway.s_addr == other.m_gateway.s_addr;
    }
};

// The file the DHCP client's script leaves a lease in: /tmp/dhcp_<interface>.txt.
std::string DhcpLeasePath(const std::string& interfaceName);

// Signals every udhcpc process serving the interface and removes its lease file.
void StopDhcp(const std::string& interfaceName, unsigned int metric);

// The pid of a udhcpc process serving the interface and running as root, 0 when
// there is none. Another user's look-alike is never taken for the client.
pid_t FindDhcpClient(const std::string& interfaceName);

// Whether `pid` is still a udhcpc process serving the interface and running as
// root (one read of its command line and its status; a process that has ended,
// zombie or gone, is not).
bool IsDhcpClientOf(pid_t pid, const std::string& interfaceName);

// The function the udhcpc processes serving an interface are found through,
// in place of a look through /proc: a dry run (tessel-networkctl plan) and
// tests put their own here, and no process it names is ever signalled. An
// empty one puts /proc back. Returns the one it replaced.
using DhcpClientLister = std::function<std::vector<pid_t>(const std::string& interfaceName)>;
DhcpClientLister SetDhcpClientLister(DhcpClientLister lister);

// The directory CheckForNewDhcpAddress takes lease files from, in place of
// /tmp (the log and the commands still name DhcpLeasePath): a dry run points
// it at a private one. Empty puts /tmp back. Returns the one it replaced.
std::string SetDhcpLeaseDirectory(std::string directory);

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
