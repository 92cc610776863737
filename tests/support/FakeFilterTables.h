// The device's three filter tools (arptables, iptables, ebtables) as far as the
// daemon uses them, kept in memory: flushes, appends and deletes change the
// tables, and a listing prints what they hold, one "-A CHAIN ..." line a rule,
// so a look at the isolation sees what the commands before it put in.
#pragma once

#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "src/NetworkIsolation.h"
#include "src/NetworkShell.h"

class FakeFilterTables {
public:
    // Applies `command` when it is one of the filter tools'; returns the listing
    // for a listing command, nothing otherwise.
    std::optional<std::string> Run(std::string command) {
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
            std::string listing;
            for (const std::string& rule : rules) listing += rule + "\n";
            return listing;
        }
        return std::nullopt;
    }

    // How the command last given to Run ended, when it failed (exit status 1).
    std::optional<COMMAND_OUTCOME> Failure() const {
        if (!m_bLastFailed) return std::nullopt;
        COMMAND_OUTCOME failed;
        failed.m_nStatus = 1;
        return failed;
    }

    // The rules of one tool's table, as a listing shows them.
    std::vector<std::string>& Rules(const std::string& tool, const std::string& table = "filter") {
        return m_tables[tool + " " + table];
    }

private:
    std::map<std::string, std::vector<std::string>> m_tables;
    bool m_bLastFailed = false;
};

// Puts a bridge netfilter state of the test's own where the isolation reads the
// kernel's, and the real reader back when it goes out of scope.
class BridgeFilterScript {
public:
    explicit BridgeFilterScript(BRIDGE_FILTER_STATE state = {true, true, true})
        : m_state(state), m_previous(SetBridgeFilterReader([this](const std::string& bridge) {
              m_bridges.push_back(bridge);
              return m_state;
          })) {}
    ~BridgeFilterScript() { SetBridgeFilterReader(std::move(m_previous)); }
    BridgeFilterScript(const BridgeFilterScript&) = delete;
    BridgeFilterScript& operator=(const BridgeFilterScript&) = delete;

    void Set(BRIDGE_FILTER_STATE state) { m_state = state; }
    // The bridges asked about, in order.
    const std::vector<std::string>& Asked() const { return m_bridges; }

private:
    BRIDGE_FILTER_STATE m_state;
    std::vector<std::string> m_bridges;
    BridgeFilterReader m_previous;
};
