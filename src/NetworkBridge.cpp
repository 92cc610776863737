#include "src/NetworkBridge.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include "logging/Logging.h"
#include "src/NetworkConfig.h"
#include "src/NetworkInputText.h"
#include "src/NetworkShell.h"

namespace {

// Tears br0 and both physical ports down to nothing, then creates an empty,
// ARP-silent br0. Runs in every mode.
// clang-format off
const SHELL_STEP kCommonCommands[] = {
    {"ip link set br0 down", false},
    {"ip addr flush dev br0", false},
    {"ip link set eth0 down", false},
    {"ip addr flush dev eth0", false},
    {"ip link set eth1 down", false},
    {"ip addr flush dev eth1", false},
    {"ip link del name br0", false},
    {"ip link add name br0 type bridge", true},
    {"ip link set br0 up", true},
    {"ip addr flush dev br0", false},
    {"ip link set br0 arp off", true},
};
// clang-format on

// eth0 becomes a port of br0.
const SHELL_STEP kEth0PortCommands[] = {
    {"ip link set eth0 master br0", true},
    {"ip link set eth0 up", true},
};

// eth1 becomes a port of br0.
const SHELL_STEP kEth1PortCommands[] = {
    {"ip link set eth1 master br0", true},
    {"ip link set eth1 up", true},
};

// The device's own stack reaches br0 through veth1/veth0: the kernel names the
// peer veth0, which joins the bridge; veth1 then takes the MAC from the kernel's
// "mac=" parameter (see SetupBridge). Adding the pair fails harmlessly when it
// already exists.
const SHELL_STEP kFirstPairCommands[] = {
    {"ip link add name veth1 type veth", false},
    {"ip link set veth0 master br0", true},
    {"ip link set veth0 up", true},
    {"ip link set veth1 up", true},
};

// After veth1 has its address.
const SHELL_STEP kFirstPairQuietCommands[] = {
    {"ip addr flush dev br0", false},
    {"ip link set br0 arp off", true},
};

// With both ports bridged, a second internal network reaches br0 through
// veth3/veth2.
const SHELL_STEP kSecondPairCommands[] = {
    {"ip link add name veth3 type veth", false},
    {"ip link set veth2 master br0", true},
    {"ip link set veth2 up", true},
    {"ip link set veth3 up", true},
    {"ip link set dev veth3 address 02:23:02:00:00:00", true},
};

// ARP never crosses between veth0 and veth2; veth0 talks ARP only with eth1 and
// veth2 only with eth0. The internal addresses 10.253.254.253/.254 and MACs
// 02:23:02:00:00:00/01 stay invisible on eth1 and veth0 (ARP), and on eth1 also
// at IP level. Also put back on their own when found missing.
const SHELL_STEP kIsolationRuleCommands[] = {
    {"arptables -F", true},
    // Port pairs that must not exchange ARP.
    {"arptables -A FORWARD --in-interface veth2 --out-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --in-interface veth0 --out-interface veth2 -j DROP", true},
    {"arptables -A FORWARD --in-interface veth2 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --in-interface eth1 --out-interface veth2 -j DROP", true},
    {"arptables -A FORWARD --in-interface veth0 --out-interface eth0 -j DROP", true},
    {"arptables -A FORWARD --in-interface eth0 --out-interface veth0 -j DROP", true},
    // The internal IP addresses, in and out of eth1, then of veth0.
    {"arptables -A FORWARD --source-ip 10.253.254.253 --in-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --destination-ip 10.253.254.253 --in-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --source-ip 10.253.254.254 --in-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --destination-ip 10.253.254.254 --in-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --source-ip 10.253.254.253 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --destination-ip 10.253.254.253 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --source-ip 10.253.254.254 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --destination-ip 10.253.254.254 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --source-ip 10.253.254.253 --in-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --destination-ip 10.253.254.253 --in-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --source-ip 10.253.254.254 --in-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --destination-ip 10.253.254.254 --in-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --source-ip 10.253.254.253 --out-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --destination-ip 10.253.254.253 --out-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --source-ip 10.253.254.254 --out-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --destination-ip 10.253.254.254 --out-interface veth0 -j DROP", true},
    // The internal MACs, in the same order.
    {"arptables -A FORWARD --source-mac 02:23:02:00:00:00 --in-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --in-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --source-mac 02:23:02:00:00:01 --in-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --in-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --source-mac 02:23:02:00:00:00 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --source-mac 02:23:02:00:00:01 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface eth1 -j DROP", true},
    {"arptables -A FORWARD --source-mac 02:23:02:00:00:00 --in-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --in-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --source-mac 02:23:02:00:00:01 --in-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --in-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --source-mac 02:23:02:00:00:00 --out-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --out-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --source-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP", true},
    {"arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP", true},
    // The internal IP addresses arriving on eth1 (to the device, through the
    // bridge) and leaving on it. The address order differs from the ARP rules'.
    {"iptables -F", true},
    {"iptables -A INPUT --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP", true},
    {"iptables -A INPUT --source 10.253.254.253 -m physdev --physdev-in eth1 -j DROP", true},
    {"iptables -A INPUT --destination 10.253.254.254 -m physdev --physdev-in eth1 -j DROP", true},
    {"iptables -A INPUT --destination 10.253.254.253 -m physdev --physdev-in eth1 -j DROP", true},
    {"iptables -A FORWARD --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP", true},
    {"iptables -A FORWARD --source 10.253.254.253 -m physdev --physdev-in eth1 -j DROP", true},
    {"iptables -A FORWARD --destination 10.253.254.254 -m physdev --physdev-in eth1 -j DROP", true},
    {"iptables -A FORWARD --destination 10.253.254.253 -m physdev --physdev-in eth1 -j DROP", true},
    {"iptables -A FORWARD --source 10.253.254.254 -m physdev --physdev-out eth1 -j DROP", true},
    {"iptables -A FORWARD --source 10.253.254.253 -m physdev --physdev-out eth1 -j DROP", true},
    {"iptables -A FORWARD --destination 10.253.254.254 -m physdev --physdev-out eth1 -j DROP", true},
    {"iptables -A FORWARD --destination 10.253.254.253 -m physdev --physdev-out eth1 -j DROP", true},
};

// eth1 learns no addresses.
const SHELL_STEP kLearningCommands[] = {
    {"bridge link set dev eth1 learning_sync off", true},
    {"bridge link set dev eth1 learning off", true},
    {"ip -s -s neigh flush all", false},
};

// Runs the steps in order; stops at the first one the work cannot go on after.
template <size_t N>
bool RunAll(const SHELL_STEP (&steps)[N], WORK_FAILURE& failure) {
    for (const SHELL_STEP& step : steps) {
        if (!RunStep(step.m_szCommand, step.m_bMustSucceed, failure)) return false;
    }
    return true;
}

// A MAC address goes into a shell command only when it is one; anything else
// (which could hold shell syntax) becomes the empty text, with a warning.
bool UsableMac(const std::string& mac) { return mac.empty() || IsMacAddress(mac); }

std::string MalformedMac(const std::string& mac, const std::string& source) {
    return "Ignoring malformed MAC address \"" + EscapeControlCharacters(mac) + "\" from " + source;
}

}  // namespace

// The mode is tested arithmetically, so values beyond the enum select neither
// port: clearing bit 1 leaves 0 only for ETH0 and ETH0ETH1, and value - 1 wraps
// to a large number for 0, leaving only ETH1 and ETH0ETH1 at most 1.
bool BridgesEth0(BRIDGE_MODE mode) { return (static_cast<uint32_t>(mode) & ~2U) == 0; }
bool BridgesEth1(BRIDGE_MODE mode) { return static_cast<uint32_t>(mode) - 1U <= 1U; }

bool SetupIsolationRules(WORK_FAILURE& failure) { return RunAll(kIsolationRuleCommands, failure); }

bool SetupBridge(BRIDGE_MODE bridgeMode, const std::string& eth0Mac, const std::string& eth1Mac,
                 WORK_FAILURE* failure) {
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Setting up bridge for control network");

    std::string macs[] = {eth0Mac, eth1Mac};
    const char* const sources[] = {"the caller for eth0", "the caller for eth1"};
    for (size_t i = 0; i < 2; ++i) {
        if (UsableMac(macs[i])) continue;
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, MalformedMac(macs[i], sources[i]));
        macs[i].clear();
    }
    // Read here rather than by a shell substitution, so the kernel command line
    // (which the boot loader's environment fills) never reaches the shell
    // unchecked. Without a usable address the command keeps its old empty form,
    // which ip rejects and which leaves veth1's address as it is.
    const std::string& cmdlinePath = KernelCommandLinePath();

    WORK_FAILURE& noted = FailureOrScratch(failure);
    // A given MAC is part of the build; an empty one is a command that fails by design.
    auto setMac = [&noted](const std::string& interfaceName, const std::string& mac) {
        return RunStep("ip link set dev " + interfaceName + " address " + mac, !mac.empty(), noted);
    };
    bool built = RunAll(kCommonCommands, noted);
    if (built && BridgesEth0(bridgeMode)) {
        built = RunAll(kEth0PortCommands, noted) && (macs[0].empty() || setMac("eth0", macs[0]));
    }
    if (built && BridgesEth1(bridgeMode)) {
        built = RunAll(kEth1PortCommands, noted) && (macs[1].empty() || setMac("eth1", macs[1]));
    }
    if (built) built = RunAll(kFirstPairCommands, noted);
    if (built) {
        std::string cmdlineMac = KernelCommandLineMac(cmdlinePath);
        if (cmdlineMac.empty()) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "No MAC address for veth1 in " + cmdlinePath);
        } else if (!UsableMac(cmdlineMac)) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false, MalformedMac(cmdlineMac, cmdlinePath));
            cmdlineMac.clear();
        }
        built = setMac("veth1", cmdlineMac) && RunAll(kFirstPairQuietCommands, noted);
    }
    if (built && BridgesEth0(bridgeMode)) built = RunStep("ip link set eth0 arp off", true, noted);
    if (built && BridgesEth1(bridgeMode)) built = RunStep("ip link set eth1 arp off", true, noted);
    // Only this mode flushes and installs the rules; leaving it keeps them, and
    // veth2/veth3, as they were.
    if (built && bridgeMode == BRIDGE_MODE_ETH0ETH1) {
        built = RunAll(kSecondPairCommands, noted) && SetupIsolationRules(noted) && RunAll(kLearningCommands, noted);
    }
    if (!built) return false;

    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Done with bridge setup");
    return true;
}
