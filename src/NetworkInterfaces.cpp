// Keeping one virtual interface in its configured addressing mode, cycle by cycle.
#include "src/NetworkInterfaces.h"

#include <time.h>

#include <cstdint>
#include <string>

#include "logging/Logging.h"
#include "src/NetworkAddress.h"
#include "src/NetworkConfig.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"
#include "util/Format.h"

bool SetupInterface(const std::string& interfaceName, unsigned int metric, IP_CONFIG config, DHCP_STATE& dhcpState,
                    WORK_FAILURE* failure) {
    WORK_FAILURE& noted = FailureOrScratch(failure);
    if (config.m_bDhcp) {
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Configuring interface " + interfaceName + " for DHCP");
        if (!FlushAddrAndRouting(interfaceName, &noted)) return false;
        // At most one client per interface, and nothing an earlier one learnt is kept:
        // the fresh client's first lease always counts as new.
        StopDhcp(interfaceName, metric);
        dhcpState = DHCP_STATE{};
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Starting DHCP for interface " + interfaceName);
        // -b: go on in the background without a lease; -R: release it when stopped;
        // -s: the script that reports leases through /tmp/dhcp_<interface>.txt.
        return RunStep("udhcpc -i " + interfaceName + " -b -R -s /usr/share/udhcpc/tessel.script", true, noted);
    }
    // A client still running from DHCP mode is left alone; going back to DHCP stops it.
    if (!FlushAddrAndRouting(interfaceName, &noted)) return false;
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Configuring interface " + interfaceName + " for static IP");
    return SetAddrAndRouting(interfaceName, metric, config.m_ipAddress, config.m_subnetMask, config.m_gateway, &noted);
}

namespace {

// A client that gets no lease says nothing; the daemon says it once after
// kNoLeaseWarnAfterMs and then every kNoLeaseWarnEveryMs while none comes, so
// the log tells why the interface has no address.
void WarnWhileNoLease(const std::string& interfaceName, INTERFACE_STATE& iface) {
    const int64_t nowMs = MonotonicMs();
    if (iface.m_dhcp.m_bLeaseValid) {
        iface.m_nNoLeaseSinceMs = 0;
        return;
    }
    if (iface.m_nNoLeaseSinceMs == 0) {
        iface.m_nNoLeaseSinceMs = nowMs;
        iface.m_nNoLeaseWarnAtMs = nowMs + kNoLeaseWarnAfterMs;
    }
    if (nowMs < iface.m_nNoLeaseWarnAtMs) return;
    iface.m_nNoLeaseWarnAtMs = nowMs + kNoLeaseWarnEveryMs;
    const long long seconds = (nowMs - iface.m_nNoLeaseSinceMs) / 1000;
    const std::string client = iface.m_clientPid != 0 ? Util::Format("its client (pid %d) is still asking",
                                                                     static_cast<int>(iface.m_clientPid))
                                                      : std::string("no client of it runs");
    LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
              Util::Format("No DHCP lease for %s for %lld s; %s", interfaceName.c_str(), seconds, client.c_str()));
}

}  // namespace

void ServiceVethX(const std::string& interfaceName, unsigned int metric, const IP_CONFIG& wantedConfig,
                  INTERFACE_STATE& iface) {
    const std::string work = "addressing of " + interfaceName;
    WORK_FAILURE failure;
    // A changed configuration is new work and tried at once; the same one again
    // only when its wait after a failure is over.
    const bool changed = iface.m_applied != wantedConfig;
    if (changed || (iface.m_bReconfigure && WorkDue(iface.m_health))) {
        const bool done = SetupInterface(interfaceName, metric, wantedConfig, iface.m_dhcp, &failure);
        iface.m_applied = wantedConfig;
        iface.m_bReconfigure = !done;
        if (wantedConfig.m_bDhcp) {
            iface.m_bLeasePending = false;
            iface.m_leaseAt = timespec{};
            // A fresh client has no lease yet: its wait starts now.
            iface.m_nNoLeaseSinceMs = 0;
            if (done) {
                ++iface.m_nClientStarts;
                // The client has gone to the background under a pid of its own by now.
                iface.m_clientPid = FindDhcpClient(interfaceName);
                iface.m_nClientCheckAtMs = MonotonicMs() + kClientCheckIntervalMs;
            }
        }
        if (done) {
            NoteWorkDone(iface.m_health, work);
        } else {
            NoteWorkFailed(iface.m_health, work, failure);
        }
    } else if (wantedConfig.m_bDhcp && iface.m_bLeasePending && !iface.m_bReconfigure && WorkDue(iface.m_health)) {
        if (ApplyDhcpLease(interfaceName, metric, iface.m_dhcp, &failure)) {
            iface.m_bLeasePending = false;
            iface.m_leaseAt = Util::RealTimeNow();
            NoteWorkDone(iface.m_health, work);
        } else {
            NoteWorkFailed(iface.m_health, work, failure);
        }
    }
    if (!wantedConfig.m_bDhcp) iface.m_nNoLeaseSinceMs = 0;
    if (!wantedConfig.m_bDhcp || iface.m_bReconfigure) return;

    // Also in the cycle that started the client, in case its lease is already there.
    const DHCP_STATE before = iface.m_dhcp;
    if (!CheckForNewDhcpAddress(interfaceName, metric, iface.m_dhcp, &failure)) {
        iface.m_bLeasePending = true;
        NoteWorkFailed(iface.m_health, work, failure);
    } else if (iface.m_dhcp != before) {
        iface.m_bLeasePending = false;
        iface.m_leaseAt = iface.m_dhcp.m_bLeaseValid ? Util::RealTimeNow() : timespec{};
        NoteWorkDone(iface.m_health, work);
    }
    WarnWhileNoLease(interfaceName, iface);

    // A client that has died leaves the address in force past its lease; one
    // read of its command line every few seconds finds that out.
    const int64_t nowMs = MonotonicMs();
    if (nowMs < iface.m_nClientCheckAtMs) return;
    iface.m_nClientCheckAtMs = nowMs + kClientCheckIntervalMs;
    if (IsDhcpClientOf(iface.m_clientPid, interfaceName)) return;
    // Maybe it was restarted by someone: a client found serving the interface is kept.
    iface.m_clientPid = FindDhcpClient(interfaceName);
    if (iface.m_clientPid != 0) return;
    LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "DHCP client for " + interfaceName + " is gone, starting a new one");
    iface.m_bReconfigure = true;
}
