#include "src/NetworkAddress.h"

#include <arpa/inet.h>

#include <string>

#include "logging/Logging.h"
#include "src/NetworkShell.h"
#include "util/Format.h"
#include "util/TextScan.h"

using Util::DottedQuad;

bool FlushAddrAndRouting(const std::string& interfaceName, WORK_FAILURE* failure) {
    WORK_FAILURE& noted = FailureOrScratch(failure);
    // Nothing to flush is no failure, so either may fail.
    return RunStep("ip route flush dev " + interfaceName, false, noted) &&
           RunStep("ip addr flush dev " + interfaceName, false, noted);
}

bool SetAddrAndRouting(const std::string& interfaceName, unsigned int metric, in_addr address, in_addr mask,
                       in_addr gateway, WORK_FAILURE* failure) {
    WORK_FAILURE& noted = FailureOrScratch(failure);
    std::string addressWithMask = DottedQuad(address) + "/" + DottedQuad(mask);
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Configuring " + interfaceName + " for " + addressWithMask);
    if (!RunStep("ip addr add " + addressWithMask + " dev " + interfaceName, true, noted)) return false;

    if (gateway.s_addr != 0) {
        std::string via = DottedQuad(gateway);
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Adding default gateway " + via + " for " + interfaceName);
        return RunStep(
            "ip route add default via " + via + " dev " + interfaceName + " metric " + Util::Format("%u", metric), true,
            noted);
    }
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Not adding default gateway for " + interfaceName);
    return true;
}
