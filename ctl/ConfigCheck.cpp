// The configuration check of tessel-netcheck and "tessel-networkctl check": the
// daemon's own parser on one file, and what the daemon would make of it.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ctl/ConfigCheck.h"
#include "logging/Logging.h"
#include "src/NetworkConfig.h"

namespace {

// Messages the parser logs, as "LEVEL message", printed in order. The daemon's
// log line adds a time stamp and the source location, which mean nothing to a
// person editing the file.
std::vector<std::string>* s_messages = nullptr;

void CollectMessage(int priority, const char* message) {
    if (s_messages == nullptr) return;
    s_messages->push_back(std::string(Logging::SeverityName(priority)) + " " + message);
}

struct ParseResult {
    int status;
    USER_SETTINGS settings;
    bool bSettingsValid;
    bool bVrx0Valid;
    bool bVrx1Valid;
};

ParseResult Parse(const std::string& path, const USER_SETTINGS& start) {
    ParseResult result{};
    result.settings = start;
    result.status = ParseConfigFile(path, result.settings, result.bSettingsValid, result.bVrx0Valid, result.bVrx1Valid);
    return result;
}

std::string Dotted(in_addr address) { return inet_ntoa(address); }

// As far as a line says: a DHCP line leaves the addresses as they were.
bool SameConfig(const IP_CONFIG& a, const IP_CONFIG& b) { return a.m_bDhcp == b.m_bDhcp && (a.m_bDhcp || a == b); }

std::string Addressing(const IP_CONFIG& config, unsigned int metric) {
    std::string text;
    if (config.m_bDhcp) {
        text = "dhcp";
    } else {
        text = "static " + Dotted(config.m_ipAddress) + " mask " + Dotted(config.m_subnetMask);
        text += config.m_gateway.s_addr == 0 ? ", no default route" : ", default route via " + Dotted(config.m_gateway);
    }
    if (metric != 0) text += ", metric " + std::to_string(metric);
    return text;
}

// vrx0 and vrx1 are read and checked, but the daemon programs neither, and
// the file is usable without them.
std::string OptionalText(bool bValid, const IP_CONFIG& read, const IP_CONFIG& probe) {
    if (bValid) return Addressing(read, 0) + " (checked, not programmed)";
    if (SameConfig(read, probe)) return "the last line is not valid (not needed)";
    return "no valid line (not needed)";
}

// The mode's word and what it bridges: "eth1: eth1 in br0".
std::string BridgeText(BRIDGE_MODE mode) {
    const BRIDGE_MODE_TEXT* text = FindBridgeMode(mode);
    return text != nullptr ? std::string(text->m_szWord) + ": " + text->m_szMeaning : "unknown";
}

// The mode's word and the wiring: "frame: RGMII to SGMII".
std::string PhyText(PHY_MODE mode) {
    const PHY_MODE_TEXT& text = PhyModeText(mode);
    return std::string(text.m_szWord) + ": " + text.m_szMeaning;
}

}  // namespace

int CheckConfigFile(const std::string& path) {
    // The daemon's level; entries go to the collector instead of standard output.
    std::vector<std::string> messages;
    s_messages = &messages;
    Logging::SetLogLevel(Logging::LOGGING_SEVERITY_INFO);
    Logging::SetLogToStdout(false);
    Logging::SetSystemLogSink(CollectMessage);

    // The daemon starts from a zeroed record: this read is the one it would make.
    USER_SETTINGS zero;
    memset(&zero, 0, sizeof zero);
    ParseResult read = Parse(path, zero);
    // Filled by CollectMessage during the read, through s_messages.
    // cppcheck-suppress knownEmptyContainer
    for (const std::string& message : messages) puts(message.c_str());
    // The second read below is silent, and nothing points at this call's list after it.
    s_messages = nullptr;
    if (read.status != 0) {
        printf("%s: cannot be read\n", path.c_str());
        return 2;
    }

    // A second read from a record holding other values everywhere shows which
    // settings the file wrote: those come out the same from both starts.
    USER_SETTINGS other;
    memset(&other, 0xff, sizeof other);
    const IP_CONFIG otherConfig = {true, {0xffffffff}, {0xffffffff}, {0xffffffff}};
    other.m_veth1Config = other.m_veth3Config = other.m_vrx0Config = other.m_vrx1Config = otherConfig;
    ParseResult probe = Parse(path, other);
    if (probe.status != 0) {
        printf("%s: cannot be read\n", path.c_str());
        return 2;
    }
    const USER_SETTINGS& s = read.settings;
    const USER_SETTINGS& p = probe.settings;
    bool bBridgeSet = s.m_eBridgeMode == p.m_eBridgeMode;
    bool bPhySet = s.m_ePhyMode == p.m_ePhyMode;
    bool bVeth1Set = SameConfig(s.m_veth1Config, p.m_veth1Config);
    bool bVeth3Set = SameConfig(s.m_veth3Config, p.m_veth3Config);

    printf("bridge  %s\n", bBridgeSet ? BridgeText(s.m_eBridgeMode).c_str() : "no valid line");
    if (bPhySet) {
        printf("phy     %s\n", PhyText(s.m_ePhyMode).c_str());
    } else {
        printf("phy     no valid line: copper when the daemon starts, else the mode it has\n");
    }
    printf("veth1   %s\n", bVeth1Set ? Addressing(s.m_veth1Config, 10).c_str() : "no valid line");
    std::string veth3 = bVeth3Set ? Addressing(s.m_veth3Config, 100) : "no valid line";
    if (bBridgeSet && s.m_eBridgeMode != BRIDGE_MODE_ETH0ETH1) veth3 += " (not used in this bridge mode)";
    printf("veth3   %s\n", veth3.c_str());
    printf("vrx0    %s\n", OptionalText(read.bVrx0Valid, s.m_vrx0Config, p.m_vrx0Config).c_str());
    printf("vrx1    %s\n", OptionalText(read.bVrx1Valid, s.m_vrx1Config, p.m_vrx1Config).c_str());

    if (read.bSettingsValid) {
        puts("usable: yes, the daemon applies these settings");
        return 0;
    }
    std::string why;
    if (!bBridgeSet) why += ", no valid bridge line";
    if (!bVeth1Set) why += ", no valid veth1 line";
    if (!bVeth3Set) why += ", no valid veth3 line";
    // Both interface records were written, yet the file is unusable: a bad
    // line came after a good one.
    if (why.empty()) why = ", the last veth1 or veth3 line is not valid";
    printf("usable: no (%s): the daemon ignores this file and keeps what it applied last\n", why.c_str() + 2);
    return 1;
}
