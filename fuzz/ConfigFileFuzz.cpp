// Whole configuration files, written to a temporary file and read by
// ParseConfigFile. Each file is read into two records whose every field starts
// different, so a field is known to be written exactly when both reads end
// with the same value; then read once more from the first result, which must
// change nothing.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "fuzz/FuzzSupport.h"
#include "src/NetworkConfig.h"

namespace {

std::string& FilePath() {
    static std::string path;
    return path;
}

IP_CONFIG SentinelConfig(bool dhcp, uint32_t seed) {
    IP_CONFIG config{};
    config.m_bDhcp = dhcp;
    config.m_ipAddress.s_addr = seed;
    config.m_subnetMask.s_addr = seed + 1;
    config.m_gateway.s_addr = seed + 2;
    return config;
}

USER_SETTINGS Sentinel(bool dhcp, uint32_t seed) {
    USER_SETTINGS settings{};
    settings.m_eBridgeMode = static_cast<BRIDGE_MODE>(seed);
    settings.m_ePhyMode = static_cast<PHY_MODE>(seed);
    settings.m_veth1Config = SentinelConfig(dhcp, seed + 10);
    settings.m_veth3Config = SentinelConfig(dhcp, seed + 20);
    settings.m_vrx0Config = SentinelConfig(dhcp, seed + 30);
    settings.m_vrx1Config = SentinelConfig(dhcp, seed + 40);
    return settings;
}

// An interface record no line touched is still its sentinel in both reads.
bool Untouched(const IP_CONFIG& a, const IP_CONFIG& b) {
    return a.m_bDhcp != b.m_bDhcp && a.m_ipAddress.s_addr != b.m_ipAddress.s_addr &&
           a.m_subnetMask.s_addr != b.m_subnetMask.s_addr && a.m_gateway.s_addr != b.m_gateway.s_addr;
}

struct Outputs {
    bool settingsValid;
    bool vrx0Valid;
    bool vrx1Valid;
};

int Read(USER_SETTINGS& settings, Outputs& outputs) {
    return ParseConfigFile(FilePath(), settings, outputs.settingsValid, outputs.vrx0Valid, outputs.vrx1Valid);
}

void RemoveFile() { unlink(FilePath().c_str()); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SilenceLogging();
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/tessel-config-fuzz-XXXXXX";
    int fd = mkstemp(&pattern[0]);
    FUZZ_CHECK(fd >= 0);
    close(fd);
    FilePath() = pattern;
    atexit(RemoveFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fd = open(FilePath().c_str(), O_WRONLY | O_TRUNC);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(write(fd, data, size) == static_cast<ssize_t>(size));
    close(fd);
    std::string text(reinterpret_cast<const char*>(data), size);

    USER_SETTINGS a = Sentinel(true, 0x5a5a5a5aU);
    USER_SETTINGS b = Sentinel(false, 0xa5a5a5a5U);
    Outputs outA{true, true, true};
    Outputs outB{false, false, false};
    FUZZ_CHECK(Read(a, outA) == 0);
    FUZZ_CHECK(Read(b, outB) == 0);
    // The outputs are recomputed on every read, whatever they held.
    FUZZ_CHECK(outA.settingsValid == outB.settingsValid && outA.vrx0Valid == outB.vrx0Valid &&
               outA.vrx1Valid == outB.vrx1Valid);

    bool bridgeWritten = a.m_eBridgeMode == b.m_eBridgeMode;
    bool phyWritten = a.m_ePhyMode == b.m_ePhyMode;
    if (bridgeWritten) FUZZ_CHECK(a.m_eBridgeMode <= BRIDGE_MODE_ETH0ETH1);
    if (phyWritten) FUZZ_CHECK(a.m_ePhyMode == PHY_MODE_COPPER || a.m_ePhyMode == PHY_MODE_SGMII);

    // Valid settings mean a bridge line and valid veth1 and veth3 lines were read.
    if (outA.settingsValid) {
        FUZZ_CHECK(bridgeWritten);
        FUZZ_CHECK(a.m_veth1Config.m_bDhcp == b.m_veth1Config.m_bDhcp);
        FUZZ_CHECK(a.m_veth3Config.m_bDhcp == b.m_veth3Config.m_bDhcp);
    }
    if (outA.vrx0Valid) FUZZ_CHECK(a.m_vrx0Config.m_bDhcp == b.m_vrx0Config.m_bDhcp);
    if (outA.vrx1Valid) FUZZ_CHECK(a.m_vrx1Config.m_bDhcp == b.m_vrx1Config.m_bDhcp);

    // A field changes only when a line for it is read.
    auto absent = [&text](const char* keyword) { return text.find(keyword) == std::string::npos; };
    if (absent("bridge")) FUZZ_CHECK(!bridgeWritten && !outA.settingsValid);
    if (absent("phy")) FUZZ_CHECK(!phyWritten);
    if (absent("veth1")) FUZZ_CHECK(Untouched(a.m_veth1Config, b.m_veth1Config) && !outA.settingsValid);
    if (absent("veth3")) FUZZ_CHECK(Untouched(a.m_veth3Config, b.m_veth3Config) && !outA.settingsValid);
    if (absent("vrx0")) FUZZ_CHECK(Untouched(a.m_vrx0Config, b.m_vrx0Config) && !outA.vrx0Valid);
    if (absent("vrx1")) FUZZ_CHECK(Untouched(a.m_vrx1Config, b.m_vrx1Config) && !outA.vrx1Valid);

    // Every field a line writes takes the same value whatever it held, so
    // reading the file again over the result changes nothing.
    USER_SETTINGS again = a;
    Outputs outAgain{!outA.settingsValid, !outA.vrx0Valid, !outA.vrx1Valid};
    FUZZ_CHECK(Read(again, outAgain) == 0);
    FUZZ_CHECK(again == a);
    FUZZ_CHECK(outAgain.settingsValid == outA.settingsValid && outAgain.vrx0Valid == outA.vrx0Valid &&
               outAgain.vrx1Valid == outA.vrx1Valid);
    return 0;
}
