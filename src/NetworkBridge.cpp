#include <cstddef>
#include <cstdint>

#include "logging/Logging.h"
#include "src/InputText.h"
#include "src/Network.h"

namespace {

// Tears br0 and both physical ports down to nothing, then creates an empty,
// ARP-silent br0. Runs in every mode.
// clang-format off
const char* const kCommonCommands[] = {
    "ip link set br0 down",
    "ip addr flush dev br0",
    "ip link set eth0 down",
    "ip addr flush dev eth0",
    "ip link set eth1 down",
    "ip addr flush dev eth1",
    "ip link del name br0",
    "ip link add name br0 type bridge",
    "ip link set br0 up",
    "ip addr flush dev br0",
    "ip link set br0 arp off",
};
// clang-format on

// eth0 becomes a port of br0.
const char* const kEth0PortCommands[] = {
    "ip link set eth0 master br0",
    "ip link set eth0 up",
};

// eth1 becomes a port of br0.
const char* const kEth1PortCommands[] = {
    "ip link set eth1 master br0",
    "ip link set eth1 up",
};

// The device's own stack reaches br0 through veth1/veth0: the kernel names the
// peer veth0, which joins the bridge; veth1 then takes the MAC from the kernel's
// "mac=" parameter (see SetupBridge). Adding the pair fails harmlessly when it
// already exists.
const char* const kFirstPairCommands[] = {
    "ip link add name veth1 type veth",
    "ip link set veth0 master br0",
    "ip link set veth0 up",
    "ip link set veth1 up",
};

// After veth1 has its address.
const char* const kFirstPairQuietCommands[] = {
    "ip addr flush dev br0",
    "ip link set br0 arp off",
};

// With both ports bridged, a second internal network reaches br0 through
// veth3/veth2. ARP never crosses between veth0 and veth2; veth0 talks ARP only
// with eth1 and veth2 only with eth0. The internal addresses 10.253.254.253/.254
// and MACs 02:23:02:00:00:00/01 stay invisible on eth1 and veth0 (ARP), and on
// eth1 also at IP level; eth1 learns no addresses.
const char* const kSecondPairCommands[] = {
    "ip link add name veth3 type veth",
    "ip link set veth2 master br0",
    "ip link set veth2 up",
    "ip link set veth3 up",
    "ip link set dev veth3 address 02:23:02:00:00:00",
    "arptables -F",
    // Port pairs that must not exchange ARP.
    "arptables -A FORWARD --in-interface veth2 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --in-interface veth0 --out-interface veth2 -j DROP",
    "arptables -A FORWARD --in-interface veth2 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --in-interface eth1 --out-interface veth2 -j DROP",
    "arptables -A FORWARD --in-interface veth0 --out-interface eth0 -j DROP",
    "arptables -A FORWARD --in-interface eth0 --out-interface veth0 -j DROP",
    // The internal IP addresses, in and out of eth1, then of veth0.
    "arptables -A FORWARD --source-ip 10.253.254.253 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.253 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.254 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.254 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.253 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.253 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.254 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.254 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.253 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.253 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.254 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.254 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.253 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.253 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.254 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.254 --out-interface veth0 -j DROP",
    // The internal MACs, in the same order.
    "arptables -A FORWARD --source-mac 02:23:02:00:00:00 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:01 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:00 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:01 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:00 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:01 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:00 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP",
    // The internal IP addresses arriving on eth1 (to the device, through the
    // bridge) and leaving on it. The address order differs from the ARP rules'.
    "iptables -F",
    "iptables -A INPUT --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A INPUT --source 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A INPUT --destination 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A INPUT --destination 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --source 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --destination 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --destination 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --source 10.253.254.254 -m physdev --physdev-out eth1 -j DROP",
    "iptables -A FORWARD --source 10.253.254.253 -m physdev --physdev-out eth1 -j DROP",
    "iptables -A FORWARD --destination 10.253.254.254 -m physdev --physdev-out eth1 -j DROP",
    "iptables -A FORWARD --destination 10.253.254.253 -m physdev --physdev-out eth1 -j DROP",
    "bridge link set dev eth1 learning_sync off",
    "bridge link set dev eth1 learning off",
    "ip -s -s neigh flush all",
};

template <size_t N>
void RunAll(const char* const (&commands)[N]) {
    for (const char* command : commands) RunCommand(command);
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

void SetupBridge(BRIDGE_MODE bridgeMode, const std::string& eth0Mac, const std::string& eth1Mac) {
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Setting up bridge for control network");

    std::string macs[] = {eth0Mac, eth1Mac};
    const char* const sources[] = {"the caller for eth0", "the caller for eth1"};
    for (size_t i = 0; i < 2; ++i) {
        if (UsableMac(macs[i])) continue;
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, MalformedMac(macs[i], sources[i]));
        macs[i].clear();
    }

    RunAll(kCommonCommands);
    if (BridgesEth0(bridgeMode)) {
        RunAll(kEth0PortCommands);
        if (!macs[0].empty()) RunCommand("ip link set dev eth0 address " + macs[0]);
    }
    if (BridgesEth1(bridgeMode)) {
        RunAll(kEth1PortCommands);
        if (!macs[1].empty()) RunCommand("ip link set dev eth1 address " + macs[1]);
    }
    RunAll(kFirstPairCommands);
    // Read here rather than by a shell substitution, so the kernel command line
    // (which the boot loader's environment fills) never reaches the shell
    // unchecked. Without a usable address the command keeps its old empty form,
    // which ip rejects and which leaves veth1's address as it is.
    const std::string& cmdlinePath = KernelCommandLinePath();
    std::string cmdlineMac = KernelCommandLineMac(cmdlinePath);
    if (cmdlineMac.empty()) {
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "No MAC address for veth1 in " + cmdlinePath);
    } else if (!UsableMac(cmdlineMac)) {
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, MalformedMac(cmdlineMac, cmdlinePath));
        cmdlineMac.clear();
    }
    RunCommand("ip link set dev veth1 address " + cmdlineMac);
    RunAll(kFirstPairQuietCommands);
    if (BridgesEth0(bridgeMode)) RunCommand("ip link set eth0 arp off");
    if (BridgesEth1(bridgeMode)) RunCommand("ip link set eth1 arp off");
    // Only this mode flushes and installs the rules; leaving it keeps them, and
    // veth2/veth3, as they were.
    if (bridgeMode == BRIDGE_MODE_ETH0ETH1) RunAll(kSecondPairCommands);

    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Done with bridge setup");
}
