// The configuration check of tessel-netcheck and "tessel-networkctl check": the
// daemon's own parser on one file, and what the daemon would make of it.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
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
    std::vector<CONFIG_LINE> lines;
};

ParseResult Parse(const std::string& path, const USER_SETTINGS& start) {
    ParseResult result{};
    result.settings = start;
    result.status = ParseConfigFile(path, result.settings, result.bSettingsValid, result.bVrx0Valid, result.bVrx1Valid,
                                    nullptr, &result.lines);
    return result;
}

std::string Dotted(in_addr address) { return inet_ntoa(address); }

// The last line of a kind: the one whose settings are in effect; nullptr: none.
const CONFIG_LINE* FindLastLine(const std::vector<CONFIG_LINE>& lines, const char* keyword) {
    const CONFIG_LINE* last = nullptr;
    for (const CONFIG_LINE& line : lines) {
        if (strcmp(line.m_szKeyword == nullptr ? "" : line.m_szKeyword, keyword) == 0) last = &line;
    }
    return last;
}

unsigned int LastLine(const std::vector<CONFIG_LINE>& lines, const char* keyword) {
    const CONFIG_LINE* last = FindLastLine(lines, keyword);
    return last == nullptr ? 0 : last->m_nNumber;
}

// Whether the last line of a kind drew no message: its settings are the ones in effect.
bool LastLineValid(const std::vector<CONFIG_LINE>& lines, const char* keyword) {
    const CONFIG_LINE* last = FindLastLine(lines, keyword);
    return last != nullptr && last->m_problems.empty();
}

// The line's first word, which the daemon never reads: only a keyword anywhere
// in the line decides its kind.
std::string FirstWord(const std::string& text) {
    const size_t start = text.find_first_not_of(" \t\r\v\f");
    if (start == std::string::npos) return "";
    return text.substr(start, text.find_first_of(" \t\r\v\f", start) - start);
}

// A message of the check, and the line it is about.
struct LINE_NOTE {
    unsigned int m_nLine;
    std::string m_text;
};

// What the daemon passes over without a word: lines with no keyword, and a
// keyword found inside another word.
void NoteUnknownKeywords(const std::vector<CONFIG_LINE>& lines, std::vector<LINE_NOTE>& notes) {
    for (const CONFIG_LINE& line : lines) {
        const std::string first = FirstWord(line.m_text);
        if (first.empty()) continue;
        if (line.m_szKeyword == nullptr) {
            notes.push_back({line.m_nNumber, "WARN line " + std::to_string(line.m_nNumber) + ": unknown keyword \"" +
                                                 first + "\", the daemon ignores this line"});
        } else if (first != line.m_szKeyword) {
            notes.push_back({line.m_nNumber, "WARN line " + std::to_string(line.m_nNumber) + ": unknown keyword \"" +
                                                 first + "\", the daemon takes it as a " + line.m_szKeyword + " line"});
        }
    }
}

// The number of leading one bits when `mask` (network order) is a contiguous
// netmask; -1 when it is not, which ip refuses.
int PrefixLength(in_addr mask) {
    const uint32_t bits = ntohl(mask.s_addr);
    const uint32_t inverted = ~bits;
    if ((inverted & (inverted + 1)) != 0) return -1;
    return __builtin_popcount(bits);
}

// What ip refuses of a static record: a mask that is not contiguous, a gateway
// outside the address's subnet or its broadcast address. Empty when nothing.
std::string RefusedByIp(const IP_CONFIG& config) {
    if (config.m_bDhcp) return "";
    const int prefix = PrefixLength(config.m_subnetMask);
    if (prefix < 0) return "mask " + Dotted(config.m_subnetMask) + " is not contiguous";
    if (config.m_gateway.s_addr == 0) return "";
    const uint32_t mask = ntohl(config.m_subnetMask.s_addr);
    const uint32_t gateway = ntohl(config.m_gateway.s_addr);
    if ((gateway & mask) != (ntohl(config.m_ipAddress.s_addr) & mask)) {
        return "gateway " + Dotted(config.m_gateway) + " is outside " + Dotted(config.m_ipAddress) + "/" +
               std::to_string(prefix);
    }
    if (prefix <= 30 && (gateway | ~mask) == gateway) {
        return "gateway " + Dotted(config.m_gateway) + " is the broadcast address of " + Dotted(config.m_ipAddress) +
               "/" + std::to_string(prefix);
    }
    return "";
}

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
    // The second read below is silent, and nothing points at this call's list after it.
    s_messages = nullptr;
    if (read.status != 0) {
        // Filled by CollectMessage during the read, through s_messages.
        // cppcheck-suppress knownEmptyContainer
        for (const std::string& message : messages) puts(message.c_str());
        printf("%s: cannot be read\n", path.c_str());
        return 2;
    }
    // The messages the daemon logs (all of them a line's, at its level), each
    // with the line that drew it, and what it passes over without a word;
    // printed in the lines' order once the ip checks below have added theirs.
    std::vector<LINE_NOTE> notes;
    for (const CONFIG_LINE& line : read.lines) {
        for (const std::string& problem : line.m_problems) {
            notes.push_back({line.m_nNumber, std::string(Logging::SeverityName(Logging::LOGGING_SEVERITY_ERROR)) +
                                                 " line " + std::to_string(line.m_nNumber) + ": " + problem});
        }
    }
    NoteUnknownKeywords(read.lines, notes);

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

    // What ip would refuse when the daemon applies it: veth1 always, veth3 in
    // the two-port mode; vrx0 and vrx1 are never applied, so only warned about.
    struct Applied {
        const char* name;
        const IP_CONFIG& config;
        bool bApplied;
        bool bValid;
    };
    const Applied applied[] = {
        {"veth1", s.m_veth1Config, true, LastLineValid(read.lines, "veth1")},
        {"veth3", s.m_veth3Config, bBridgeSet && s.m_eBridgeMode == BRIDGE_MODE_ETH0ETH1,
         LastLineValid(read.lines, "veth3")},
        {"vrx0", s.m_vrx0Config, false, read.bVrx0Valid},
        {"vrx1", s.m_vrx1Config, false, read.bVrx1Valid},
    };
    std::string refused;
    for (const Applied& one : applied) {
        if (!one.bValid) continue;
        const std::string why = RefusedByIp(one.config);
        if (why.empty()) continue;
        const unsigned int line = LastLine(read.lines, one.name);
        notes.push_back({line, std::string(one.bApplied ? "ERROR" : "WARN") + " line " + std::to_string(line) + ": " +
                                   one.name + ": " + why + ", ip refuses it"});
        if (one.bApplied) refused += ", " + std::string(one.name) + ": " + why;
    }
    std::stable_sort(notes.begin(), notes.end(),
                     [](const LINE_NOTE& a, const LINE_NOTE& b) { return a.m_nLine < b.m_nLine; });
    for (const LINE_NOTE& note : notes) puts(note.m_text.c_str());

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

    if (read.bSettingsValid && refused.empty()) {
        puts("usable: yes, the daemon applies these settings");
        return 0;
    }
    if (read.bSettingsValid) {
        printf("usable: no (%s): ip refuses it, and the daemon would retry it forever\n", refused.c_str() + 2);
        return 1;
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
