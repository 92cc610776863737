#include "src/NetworkBridge.h"

#include <cstddef>
#include <string>

#include "logging/Logging.h"
#include "src/NetworkBridgeLayout.h"
#include "src/NetworkConfig.h"
#include "src/NetworkInputText.h"
#include "src/NetworkInternalNames.h"
#include "src/NetworkIsolation.h"
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

// A physical port becomes a port of br0.
template <FIXED_TEXT Port>
constexpr SHELL_STEP kPortCommands[] = {
    {kJoined<"ip link set ", Port, " master br0">, true},
    {kJoined<"ip link set ", Port, " up">, true},
};

// A veth pair made as `Link`, whose peer the kernel names `Port`; the peer
// joins br0. Adding the pair fails harmlessly when it already exists.
template <FIXED_TEXT Link, FIXED_TEXT Port>
constexpr SHELL_STEP kPairCommands[] = {
    {kJoined<"ip link add name ", Link, " type veth">, false},
    {kJoined<"ip link set ", Port, " master br0">, true},
    {kJoined<"ip link set ", Port, " up">, true},
    {kJoined<"ip link set ", Link, " up">, true},
};

// The device's own stack reaches br0 through veth1/veth0; veth1 then takes the
// MAC from the kernel's "mac=" parameter (see SetupBridge), and br0 is made
// ARP-silent again once it has.
const auto& kFirstPairCommands = kPairCommands<"veth1", "veth0">;
const SHELL_STEP kFirstPairQuietCommands[] = {
    {"ip addr flush dev br0", false},
    {"ip link set br0 arp off", true},
};

// With both ports bridged, a second internal network reaches br0 through
// veth3/veth2; veth3 then takes the internal network's fixed MAC.
const auto& kSecondPairCommands = kPairCommands<"veth3", "veth2">;

// eth1 learns no addresses.
const SHELL_STEP kLearningCommands[] = {
    {"bridge link set dev eth1 learning_sync off", true},
    {"bridge link set dev eth1 learning off", true},
    {"ip -s -s neigh flush all", false},
};

// A MAC address goes into a shell command only when it is one; anything else
// (which could hold shell syntax) becomes the empty text, with a warning.
bool UsableMac(const std::string& mac) { return mac.empty() || IsMacAddress(mac); }

std::string MalformedMac(const std::string& mac, const std::string& source) {
    return "Ignoring malformed MAC address \"" + EscapeControlCharacters(mac) + "\" from " + source;
}

}  // namespace

bool BridgesEth0(BRIDGE_MODE mode) { return BridgeLayout(mode).m_bEth0Port; }
bool BridgesEth1(BRIDGE_MODE mode) { return BridgeLayout(mode).m_bEth1Port; }

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

    const BRIDGE_LAYOUT layout = BridgeLayout(bridgeMode);
    WORK_FAILURE& noted = FailureOrScratch(failure);
    // A given MAC is part of the build; an empty one is a command that fails by design.
    auto setMac = [&noted](const std::string& interfaceName, const std::string& mac) {
        return RunStep("ip link set dev " + interfaceName + " address " + mac, !mac.empty(), noted);
    };
    bool built = RunSteps(kCommonCommands, noted);
    if (built && layout.m_bEth0Port) {
        built = RunSteps(kPortCommands<"eth0">, noted) && (macs[0].empty() || setMac("eth0", macs[0]));
    }
    if (built && layout.m_bEth1Port) {
        built = RunSteps(kPortCommands<"eth1">, noted) && (macs[1].empty() || setMac("eth1", macs[1]));
    }
    if (built) built = RunSteps(kFirstPairCommands, noted);
    if (built) {
        std::string cmdlineMac = KernelCommandLineMac(cmdlinePath);
        if (cmdlineMac.empty()) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "No MAC address for veth1 in " + cmdlinePath);
        } else if (!UsableMac(cmdlineMac)) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false, MalformedMac(cmdlineMac, cmdlinePath));
            cmdlineMac.clear();
        }
        built = setMac("veth1", cmdlineMac) && RunSteps(kFirstPairQuietCommands, noted);
    }
    if (built && layout.m_bEth0Port) built = RunStep("ip link set eth0 arp off", true, noted);
    if (built && layout.m_bEth1Port) built = RunStep("ip link set eth1 arp off", true, noted);
    // Only the mode with the second pair flushes and installs the rules; leaving
    // it keeps them, and veth2/veth3, as they were.
    if (built && layout.m_bSecondPair) {
        built = RunSteps(kSecondPairCommands, noted) && setMac("veth3", kVeth3Mac) && SetupIsolationRules(noted) &&
                RunSteps(kLearningCommands, noted);
    }
    if (!built) return false;

    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Done with bridge setup");
    return true;
}
