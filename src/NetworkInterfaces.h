// Servicing the served interfaces (veth1, veth3): their addressing, static or
// by DHCP, applied, kept and retried once per cycle.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <string>

#include "src/NetworkConfig.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkRetry.h"

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
    // Monotonic time since when the interface's DHCP client has had no lease
    // (it was started, or its lease ended); 0 while it has one, or in static mode.
    int64_t m_nNoLeaseSinceMs = 0;
    // When the next WARN that none came is due.
    int64_t m_nNoLeaseWarnAtMs = 0;
    // Setting up the interface and putting its leases in force.
    WORK_HEALTH m_health;
};

// How often a DHCP client is looked for; a dead one is replaced at the next
// cycle after the check.
constexpr unsigned int kClientCheckIntervalMs = 5000;

// A DHCP client without a lease this long is said to be so (a WARN), and
// again at this interval while none comes.
constexpr int64_t kNoLeaseWarnAfterMs = 30000;
constexpr int64_t kNoLeaseWarnEveryMs = 600000;

// Configures the interface statically or starts a fresh DHCP client. False when
// a step it needs failed.
bool SetupInterface(const std::string& interfaceName, unsigned int metric, IP_CONFIG config, DHCP_STATE& dhcpState,
                    WORK_FAILURE* failure = nullptr);

// Once per cycle: re-applies a changed or forced configuration, then in DHCP mode
// looks for a new lease and checks that the client still runs. Failed work is
// retried with growing waits.
void ServiceVethX(const std::string& interfaceName, unsigned int metric, const IP_CONFIG& wantedConfig,
                  INTERFACE_STATE& iface);
