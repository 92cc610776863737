#include <arpa/inet.h>

#include "logging/Logging.h"
#include "src/Network.h"
#include "util/Util.h"

namespace {

// inet_ntoa returns a shared buffer: copy each result before the next call.
std::string DottedQuad(in_addr address) { return std::string(inet_ntoa(address)); }

}  // namespace

void FlushAddrAndRouting(const std::string& interfaceName) {
    RunCommand("ip route flush dev " + interfaceName);
    RunCommand("ip addr flush dev " + interfaceName);
}

void SetAddrAndRouting(const std::string& interfaceName, unsigned int metric, in_addr address, in_addr mask,
                       in_addr gateway) {
    std::string addressWithMask = DottedQuad(address) + "/" + DottedQuad(mask);
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Configuring " + interfaceName + " for " + addressWithMask);
    RunCommand("ip addr add " + addressWithMask + " dev " + interfaceName);

    if (gateway.s_addr != 0) {
        std::string via = DottedQuad(gateway);
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Adding default gateway " + via + " for " + interfaceName);
        RunCommand("ip route add default via " + via + " dev " + interfaceName + " metric " +
                   Util::Format("%u", metric));
    } else {
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Not adding default gateway for " + interfaceName);
    }
}
