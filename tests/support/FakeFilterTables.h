// The device's three filter tools (arptables, iptables, ebtables) as far as the
// daemon uses them, kept in memory: flushes, appends, inserts and deletes change
// the tables, each rule kept as one "-A CHAIN ..." line, and a listing prints
// what they hold as the real tool does (iptables -S with "-s ADDRESS/32";
// arptables -L -n and ebtables -L under chain headings, in their own order and
// spelling), so a look at the isolation sees what the commands before it (and
// other programs, through Rules) put in. While it lives, the kernel's filter
// fingerprint the look reads is the tables' own: it moves with any change.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "src/NetworkFilterWatch.h"
#include "src/NetworkIsolation.h"
#include "src/NetworkShell.h"

class FakeFilterTables {
public:
    FakeFilterTables() : m_previousReader(SetFilterFingerprintReader([this] { return Fingerprint(); })) {}
    ~FakeFilterTables() { SetFilterFingerprintReader(std::move(m_previousReader)); }
    FakeFilterTables(const FakeFilterTables&) = delete;
    FakeFilterTables& operator=(const FakeFilterTables&) = delete;

    // The tables as the kernel's fingerprint shows them (unread once SetUnreadable).
    FILTER_FINGERPRINT Fingerprint() const {
        if (m_bUnreadable) return {};
        FILTER_FINGERPRINT fingerprint{true, 0};
        for (const auto& [name, rules] : m_tables) {
            fingerprint.m_nHash = HashBytes(fingerprint.m_nHash, name.data(), name.size() + 1);
            for (const std::string& rule : rules) {
                fingerprint.m_nHash = HashBytes(fingerprint.m_nHash, rule.data(), rule.size() + 1);
            }
        }
        return fingerprint;
    }
    // The fingerprint cannot be read from now on (or can again).
    void SetUnreadable(bool unreadable) { m_bUnreadable = unreadable; }

    // Applies `command` when it is one of the filter tools'; returns the listing
    // for a listing command, nothing otherwise.
    std::optional<std::string> Run(std::string command) {
        const std::string batch = "ebtables-restore --noflush <<'EOF'\n";
        if (command.starts_with(batch)) {
            RunBatch(command.substr(batch.size()));
            return std::nullopt;
        }
        // The shell's redirection of a quiet step is no word of the tool's.
        for (const std::string redirection : {" > /dev/null 2>&1", " 2>/dev/null"}) {
            if (command.ends_with(redirection)) command.resize(command.size() - redirection.size());
        }
        std::istringstream words(command);
        std::string tool;
        words >> tool;
        if (tool != "arptables" && tool != "iptables" && tool != "ebtables") return std::nullopt;
        std::string table = "filter";
        std::string verb;
        words >> verb;
        if (verb == "-t") {
            words >> table >> verb;
        }
        std::string rest;
        std::getline(words, rest);
        std::vector<std::string>& rules = m_tables[tool + " " + table];
        m_bLastFailed = false;
        if (verb == "-F") {
            rules.clear();
        } else if (verb == "-A") {
            rules.push_back("-A" + rest);
        } else if (verb == "-I") {
            // "-I CHAIN N rule": before the chain's Nth rule (1: first; one past its last: appended).
            std::istringstream insert(rest);
            std::string chain;
            size_t number = 0;
            insert >> chain >> number;
            std::string rule;
            std::getline(insert, rule);
            m_bLastFailed = true;
            size_t seen = 0;
            auto at = rules.begin();
            for (; at != rules.end() && seen + 1 < number; ++at) seen += ChainOf(*at) == chain ? 1 : 0;
            // Past the chain's rules counted so far, to its next one (or the end).
            while (at != rules.end() && ChainOf(*at) != chain) ++at;
            if (number >= 1 && seen + 1 == number) {
                rules.insert(at, "-A " + chain + rule);
                m_bLastFailed = false;
            }
        } else if (verb == "-D") {
            // Deleting a rule that is not there fails, as the tools do.
            m_bLastFailed = true;
            for (auto rule = rules.begin(); rule != rules.end(); ++rule) {
                if (*rule == "-A" + rest) {
                    rules.erase(rule);
                    m_bLastFailed = false;
                    break;
                }
            }
        } else if (verb == "-L" || verb == "-S") {
            return Listing(tool, rules);
        }
        return std::nullopt;
    }

    // ebtables-restore's lines, "*TABLE" and a command of the table each, to
    // "EOF": all of them or, where one fails, none (as the nft backend does).
    void RunBatch(const std::string& lines) {
        const auto before = m_tables;
        std::istringstream text(lines);
        std::string line;
        std::string table = "filter";
        while (std::getline(text, line) && line != "EOF") {
            if (line.starts_with("*")) {
                table = line.substr(1);
                continue;
            }
            std::string command = "ebtables -t ";
            command.append(table).append(" ").append(line);
            Run(command);
            if (m_bLastFailed) {
                m_tables = before;
                return;
            }
        }
    }

    // How the command last given to Run ended, when it failed (exit status 1).
    std::optional<COMMAND_OUTCOME> Failure() const {
        if (!m_bLastFailed) return std::nullopt;
        COMMAND_OUTCOME failed;
        failed.m_nStatus = 1;
        return failed;
    }

    // ebtables listed as the legacy tool does (MACs without leading zeros, a
    // space at the end) rather than as the nft one.
    void SetLegacyEbtables(bool legacy) { m_bLegacyEbtables = legacy; }

    // The rules of one tool's table, one "-A CHAIN ..." line each.
    std::vector<std::string>& Rules(const std::string& tool, const std::string& table = "filter") {
        return m_tables[tool + " " + table];
    }

private:
    static std::string ChainOf(const std::string& rule) {
        std::istringstream words(rule);
        std::string append;
        std::string chain;
        words >> append >> chain;
        return chain;
    }

    // A rule's words after its chain, as "-option value" groups.
    static std::vector<std::vector<std::string>> Options(const std::string& rule) {
        std::istringstream words(rule);
        std::string word;
        words >> word >> word;
        std::vector<std::vector<std::string>> options;
        while (words >> word) {
            if (word.starts_with('-') || options.empty()) {
                options.push_back({word});
            } else {
                options.back().push_back(word);
            }
        }
        return options;
    }

    static std::string Spelt(const std::string& option, const std::map<std::string, std::string>& spellings) {
        const auto found = spellings.find(option);
        return found == spellings.end() ? option : found->second;
    }

    // "02:23:02:00:00:0a" as the legacy ebtables prints it: "2:23:2:0:0:a".
    static std::string ShortMac(const std::string& value) {
        if (std::count(value.begin(), value.end(), ':') != 5) return value;
        std::string shortened;
        for (size_t at = 0; at < value.size(); ++at) {
            const bool startsByte = at == 0 || value[at - 1] == ':';
            if (startsByte && value[at] == '0' && at + 1 < value.size() && value[at + 1] != ':') continue;
            shortened += value[at];
        }
        return shortened;
    }

    std::string Listing(const std::string& tool, const std::vector<std::string>& rules) const {
        std::vector<std::string> chains = {"INPUT", "FORWARD", "OUTPUT"};
        if (tool == "arptables") chains = {"INPUT", "OUTPUT", "FORWARD"};
        for (const std::string& rule : rules) {
            if (std::find(chains.begin(), chains.end(), ChainOf(rule)) == chains.end()) chains.push_back(ChainOf(rule));
        }
        std::string listing;
        if (tool == "iptables") {
            for (size_t builtin = 0; builtin < 3; ++builtin) listing += "-P " + chains[builtin] + " ACCEPT\n";
            for (const std::string& rule : rules) {
                std::string line = "-A " + ChainOf(rule);
                for (const auto& option : Options(rule)) {
                    const std::string name = Spelt(option[0], {{"--source", "-s"}, {"--destination", "-d"}});
                    line += " " + name;
                    for (const std::string& value : std::vector(option.begin() + 1, option.end())) {
                        const bool address = (name == "-s" || name == "-d") && value.find('/') == std::string::npos;
                        line += " " + value + (address ? "/32" : "");
                    }
                }
                listing += line + "\n";
            }
            return listing;
        }
        if (tool == "ebtables") listing += "Bridge table: filter\n";
        for (const std::string& chain : chains) {
            std::vector<std::string> lines;
            for (const std::string& rule : rules) {
                if (ChainOf(rule) != chain) continue;
                lines.push_back(tool == "arptables" ? ArpLine(rule) : EbLine(rule));
            }
            if (tool == "arptables") {
                listing += "\nChain " + chain + " (policy ACCEPT)\n";
            } else {
                listing +=
                    "\nBridge chain: " + chain + ", entries: " + std::to_string(lines.size()) + ", policy: ACCEPT\n";
            }
            for (const std::string& line : lines) listing += line + "\n";
        }
        return listing;
    }

    // As the arptables of the device prints a rule: its target first, then
    // interfaces, addresses and MACs, in short spellings, a space at the end.
    static std::string ArpLine(const std::string& rule) {
        const std::map<std::string, std::string> spellings = {
            {"--in-interface", "-i"},   {"--out-interface", "-o"},     {"--source-ip", "-s"},
            {"--destination-ip", "-d"}, {"--source-mac", "--src-mac"}, {"--destination-mac", "--dst-mac"}};
        const std::vector<std::string> order = {"-j", "-i", "-o", "-s", "-d", "--src-mac", "--dst-mac"};
        std::string line;
        const auto options = Options(rule);
        for (const std::string& wanted : order) {
            for (const auto& option : options) {
                if (Spelt(option[0], spellings) != wanted) continue;
                line += wanted;
                for (size_t value = 1; value < option.size(); ++value) line += " " + option[value];
                line += " ";
            }
        }
        return line;
    }

    std::string EbLine(const std::string& rule) const {
        std::string line;
        for (const auto& option : Options(rule)) {
            if (!line.empty()) line += " ";
            line += option[0];
            for (size_t value = 1; value < option.size(); ++value) {
                // Two appends: GCC 12 takes " " + std::string for an overlapping
                // copy at -O3 (-Wrestrict), a false alarm.
                line += " ";
                line += m_bLegacyEbtables ? ShortMac(option[value]) : NftEtherType(option[0], option[value]);
            }
        }
        return m_bLegacyEbtables ? line + " " : line;
    }

    // The EtherTypes of the tagged rules as the nft ebtables prints them: the
    // 802.1ad tag by its name, an encapsulated one as its number.
    static std::string NftEtherType(const std::string& option, const std::string& value) {
        if (option == "-p" && value == "0x88a8") return "S-TAG";
        if (option == "--vlan-encap" && value == "802_1Q") return "8100";
        if (option == "--vlan-encap" && value == "0x88a8") return "88A8";
        return value;
    }

    std::map<std::string, std::vector<std::string>> m_tables;
    bool m_bLastFailed = false;
    bool m_bLegacyEbtables = false;
    bool m_bUnreadable = false;
    FilterFingerprintReader m_previousReader;
};

// Puts a bridge netfilter state of the test's own where the isolation reads the
// kernel's, and a switch for tagged filtering that turns it on in that state
// (unless refused, as a read-only /proc/sys does); the real ones back when it
// goes out of scope.
class BridgeFilterScript {
public:
    explicit BridgeFilterScript(BRIDGE_FILTER_STATE state = {true, true, true, true})
        : m_state(state),
          m_previous(SetBridgeFilterReader([this](const std::string& bridge) {
              m_bridges.push_back(bridge);
              return m_state;
          })),
          m_previousSwitch(SetTaggedFilterSwitch([this] {
              ++m_nSwitched;
              if (!m_bRefuseSwitch) m_state.m_bVlanTagged = true;
          })) {}
    ~BridgeFilterScript() {
        SetBridgeFilterReader(std::move(m_previous));
        SetTaggedFilterSwitch(std::move(m_previousSwitch));
    }
    BridgeFilterScript(const BridgeFilterScript&) = delete;
    BridgeFilterScript& operator=(const BridgeFilterScript&) = delete;

    void Set(BRIDGE_FILTER_STATE state) { m_state = state; }
    // Tagged filtering cannot be turned on from now on.
    void RefuseSwitch() { m_bRefuseSwitch = true; }
    // The bridges asked about, in order.
    const std::vector<std::string>& Asked() const { return m_bridges; }
    // How often tagged filtering was turned on.
    int Switched() const { return m_nSwitched; }

private:
    BRIDGE_FILTER_STATE m_state;
    std::vector<std::string> m_bridges;
    BridgeFilterReader m_previous;
    TaggedFilterSwitch m_previousSwitch;
    bool m_bRefuseSwitch = false;
    int m_nSwitched = 0;
};
