// Keeping one virtual interface in its configured addressing mode, cycle by cycle.
#include <string>

#include "logging/Logging.h"
#include "src/Network.h"

void SetupInterface(const std::string& interfaceName, unsigned int metric, IP_CONFIG config, DHCP_STATE& dhcpState) {
    if (config.m_bDhcp) {
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Configuring interface " + interfaceName + " for DHCP");
        FlushAddrAndRouting(interfaceName);
        // At most one client per interface, and nothing an earlier one learnt is kept:
        // the fresh client's first lease always counts as new.
        StopDhcp(interfaceName, metric);
        dhcpState = DHCP_STATE{};
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Starting DHCP for interface " + interfaceName);
        // -b: go on in the background without a lease; -R: release it when stopped;
        // -s: the script that reports leases through /tmp/dhcp_<interface>.txt.
        RunCommand("udhcpc -i " + interfaceName + " -b -R -s /usr/share/udhcpc/tessel.script");
    } else {
        // A client still running from DHCP mode is left alone; going back to DHCP stops it.
        FlushAddrAndRouting(interfaceName);
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Configuring interface " + interfaceName + " for static IP");
        SetAddrAndRouting(interfaceName, metric, config.m_ipAddress, config.m_subnetMask, config.m_gateway);
    }
}

void ServiceVethX(const std::string& interfaceName, unsigned int metric, bool& bReconfigure, IP_CONFIG& appliedConfig,
                  IP_CONFIG& wantedConfig, DHCP_STATE& dhcpState) {
    if (bReconfigure || appliedConfig != wantedConfig) {
        SetupInterface(interfaceName, metric, wantedConfig, dhcpState);
        bReconfigure = false;
        appliedConfig = wantedConfig;
    }
    // Also in the cycle that started the client, in case its lease is already there.
    if (wantedConfig.m_bDhcp) CheckForNewDhcpAddress(interfaceName, metric, dhcpState);
}
