// Taking up the lease that the DHCP client's script reports through a one-shot
// file: the daemon, not the client, programs the address and route.
#include <arpa/inet.h>

#include <cstdio>
#include <memory>
#include <string>

#include "logging/Logging.h"
#include "src/Network.h"
#include "src/UniqueFile.h"

namespace {

// Logged for a file that states no lease and again for the flush that follows
// when a lease was in force, so one text serves both.
const std::string kNoLease = "No DHCP lease for ";

// Writes `address` only when the text converts, so a bad field leaves 0.0.0.0.
bool ToAddress(const char* text, in_addr& address) {
    in_addr converted{};
    if (inet_aton(text, &converted) == 0) return false;
    address = converted;
    return true;
}

}  // namespace

void CheckForNewDhcpAddress(const std::string& interfaceName, unsigned int metric, DHCP_STATE& dhcpState) {
    const std::string path = "/tmp/dhcp_" + interfaceName + ".txt";
    UniqueFile file(fopen(path.c_str(), "r"));
    // No file is the usual case: the script writes one only when something changed.
    if (!file) return;

    // Line 1: "name address mask"; line 2: "gateway", left out when the server gave none.
    // A line longer than the buffer is read in pieces, the next piece as the next line.
    DHCP_STATE candidate{};
    char line[256];
    char name[16 + 1];
    char address[15 + 1];
    char mask[15 + 1];
    char gateway[15 + 1];
    if (fgets(line, sizeof line, file.get()) == nullptr) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Unable to read DHCP lease file for " + interfaceName);
    } else if (sscanf(line, "%16s %15s %15s", name, address, mask) != 3) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                  "Unable to parse DHCP lease file for " + interfaceName + " invalid first line");
    } else if (!ToAddress(address, candidate.m_ipAddress)) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Invalid DHCP IP address for " + interfaceName);
    } else if (!ToAddress(mask, candidate.m_subnetMask)) {
        // The address stays in the candidate, so even with no lease in force the
        // candidate differs and the interface is flushed.
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Invalid DHCP subnet mask for " + interfaceName);
    } else if (candidate.m_ipAddress.s_addr == 0 && candidate.m_subnetMask.s_addr == 0) {
        // The script's way of saying the lease was lost.
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, kNoLease + interfaceName);
    } else {
        // A missing or bad gateway only means no default route, never no lease.
        candidate.m_bLeaseValid = true;
        if (fgets(line, sizeof line, file.get()) == nullptr) {
            LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "DHCP did not provide gateway for " + std::string(name));
        } else if (sscanf(line, "%15s", gateway) != 1) {
            LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                      "Unable to parse DHCP lease file for " + interfaceName + " invalid second line");
        } else if (!ToAddress(gateway, candidate.m_gateway)) {
            LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Invalid DHCP gateway for " + interfaceName);
        }
    }

    // A renewal repeats the lease in force and changes nothing. A malformed file
    // counts as no lease, so an address in force is taken off until a good one comes.
    if (candidate != dhcpState) {
        if (candidate.m_bLeaseValid) {
            LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "New DHCP lease for " + interfaceName);
            FlushAddrAndRouting(interfaceName);
            SetAddrAndRouting(interfaceName, metric, candidate.m_ipAddress, candidate.m_subnetMask,
                              candidate.m_gateway);
        } else {
            LOG_ENTRY(LOGGING_SEVERITY_INFO, false, kNoLease + interfaceName);
            FlushAddrAndRouting(interfaceName);
        }
    }
    dhcpState = candidate;

    // Every file that could be opened is a message taken; delete it, malformed or not.
    file.reset();
    RunCommand("rm -f " + path);
}
