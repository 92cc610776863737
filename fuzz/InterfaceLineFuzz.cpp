// One interface address line, as the configuration parser hands it over (at
// most 255 characters, up to and including the first line feed). Each line is
// parsed twice, into records whose every field starts different, so a field is
// known to be written exactly when both runs end with the same value.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/FuzzCheck.h"
#include "fuzz/FuzzSupport.h"
#include "src/NetworkConfig.h"

namespace {

IP_CONFIG Sentinel(bool dhcp, uint32_t seed) {
    IP_CONFIG config{};
    config.m_bDhcp = dhcp;
    config.m_ipAddress.s_addr = seed;
    config.m_subnetMask.s_addr = seed ^ 0x00ff00ffU;
    config.m_gateway.s_addr = seed ^ 0xff00ff00U;
    return config;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SilenceLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<char> line;
    for (size_t i = 0; i < size && line.size() < 255; i++) {
        line.push_back(static_cast<char>(data[i]));
        if (data[i] == '\n') break;
    }
    line.push_back('\0');
    const std::vector<char> original = line;

    IP_CONFIG a = Sentinel(true, 0x5a5a5a5aU);
    IP_CONFIG b = Sentinel(false, 0xa5a5a5a5U);
    int resultA = ParseInterfaceLine("veth1", line.data(), a);
    FUZZ_CHECK(line == original);  // the line is not modified
    int resultB = ParseInterfaceLine("veth1", line.data(), b);
    FUZZ_CHECK(resultA == resultB);
    FUZZ_CHECK(resultA == 0 || resultA == -1);

    bool addressWritten = a.m_ipAddress.s_addr == b.m_ipAddress.s_addr;
    bool maskWritten = a.m_subnetMask.s_addr == b.m_subnetMask.s_addr;
    bool gatewayWritten = a.m_gateway.s_addr == b.m_gateway.s_addr;
    bool dhcpSet = a.m_bDhcp && b.m_bDhcp;
    bool staticSet = !a.m_bDhcp && !b.m_bDhcp;
    bool modeUntouched = a.m_bDhcp && !b.m_bDhcp;

    if (dhcpSet) {
        // "dhcp": valid, and the addresses keep what they held.
        FUZZ_CHECK(resultA == 0);
        FUZZ_CHECK(!addressWritten && !maskWritten && !gatewayWritten);
    } else if (staticSet) {
        // "static": written field by field as each part is found good, never rolled back.
        if (resultA == 0) {
            FUZZ_CHECK(addressWritten && maskWritten && gatewayWritten);
        } else {
            FUZZ_CHECK(!gatewayWritten);
            FUZZ_CHECK(!maskWritten || addressWritten);
        }
    } else {
        // Rejected before any part was taken: the record is untouched.
        FUZZ_CHECK(modeUntouched);
        FUZZ_CHECK(resultA == -1);
        FUZZ_CHECK(!addressWritten && !maskWritten && !gatewayWritten);
    }
    return 0;
}
