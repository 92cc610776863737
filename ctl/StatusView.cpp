// The status document read for people and for the exit status.
#include "ctl/StatusView.h"

#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "src/NetworkStatusSchema.h"
#include "util/Format.h"

using nlohmann::json;

namespace {

const char kDaemonName[] = "tessel-networkd";

// A member of an object, null when the value is no object or has no such member:
// a document of another schema shows as unknown fields, never as a crash.
const json& At(const json& value, const char* key) {
    static const json kNull;
    if (!value.is_object()) return kNull;
    const auto found = value.find(key);
    return found == value.end() ? kNull : *found;
}

bool Flag(const json& value) { return value.is_boolean() && value.get<bool>(); }

long long Number(const json& value) { return value.is_number_integer() ? value.get<long long>() : 0; }

// Text for a terminal: control characters from the document never reach it.
std::string Printable(const std::string& text) {
    std::string printable = text;
    std::replace_if(
        printable.begin(), printable.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; },
        '?');
    return printable;
}

// A string or number as text, `none` for anything else (null, missing).
std::string Text(const json& value, const char* none = "-") {
    if (value.is_string()) return Printable(value.get<std::string>());
    if (value.is_number()) return value.dump();
    return none;
}

std::string ReadFirstLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::string BaseName(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

struct Colours {
    bool on;
    std::string Paint(const std::string& text, const char* code) const {
        return on ? std::string("\033[") + code + "m" + text + "\033[0m" : text;
    }
    std::string Good(const std::string& text) const { return Paint(text, "32"); }
    std::string Warn(const std::string& text) const { return Paint(text, "33"); }
    std::string Bad(const std::string& text) const { return Paint(text, "31"); }
    std::string Bold(const std::string& text) const { return Paint(text, "1"); }
};

// Rows of cells printed in columns, two blanks apart; the colour codes of a cell
// do not count towards its width.
class Table {
public:
    void Row(std::vector<std::string> cells, std::vector<std::string> shown = {}) {
        if (shown.empty()) shown = cells;
        m_widths.resize(std::max(m_widths.size(), cells.size()), 0);
        for (size_t i = 0; i < cells.size(); ++i) m_widths[i] = std::max(m_widths[i], cells[i].size());
        m_rows.push_back({std::move(cells), std::move(shown)});
    }
    std::string Text() const {
        std::string text;
        for (const auto& row : m_rows) {
            std::string line;
            for (size_t i = 0; i < row.first.size(); ++i) {
                line += row.second[i];
                if (i + 1 < row.first.size()) line += std::string(m_widths[i] - row.first[i].size() + 2, ' ');
            }
            text += line + "\n";
        }
        return text;
    }

private:
    std::vector<size_t> m_widths;
    std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> m_rows;
};

const char* const kWorkNames[] = {"startup",   "bridge", "registers", "phy",  "veth1",    "veth3",
                                  "isolation", "links",  "ports",     "macs", "eth0_port"};

std::string WorkTitle(const std::string& name) {
    if (name == "startup") return "start-up commands";
    if (name == "bridge") return "bridge build";
    if (name == "registers") return "eth0 register writes";
    if (name == "phy") return "PHY mode";
    if (name == "isolation") return "isolation repair";
    if (name == "links") return "links set up";
    if (name == "ports") return "ports put back into br0";
    if (name == "macs") return "MAC addresses set back";
    if (name == "eth0_port") return "eth0 put back into br0";
    return "addressing of " + name;
}

// The width of a terminal the head of the table keeps within, and the head's
// widest label with its two blanks: what is left is a value's width.
constexpr size_t kScreenWidth = 80;
constexpr size_t kHeadValueWidth = kScreenWidth - (sizeof("Configuration:") - 1) - 2;
// A text wrapped at most to this many lines; the rest is cut.
constexpr size_t kMostWrappedLines = 3;

// `text` in lines of at most `width` characters, broken at blanks (a word longer
// than a line is cut where the line ends), lines after the first indented by two
// blanks; at most kMostWrappedLines, the last ending in "..." when text was left out.
std::vector<std::string> Wrap(const std::string& text, size_t width) {
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < text.size()) {
        const std::string indent = lines.empty() ? "" : "  ";
        const size_t room = width - indent.size();
        if (lines.size() + 1 == kMostWrappedLines && text.size() - at > room) {
            lines.push_back(indent + text.substr(at, room - 3) + "...");
            break;
        }
        size_t end = std::min(text.size(), at + room);
        if (end < text.size()) {
            const size_t blank = text.rfind(' ', end);
            if (blank != std::string::npos && blank > at) end = blank;
        }
        lines.push_back(indent + text.substr(at, end - at));
        at = end;
        while (at < text.size() && text[at] == ' ') ++at;
    }
    return lines;
}

// Seconds since 1970 of an ISO 8601 time with its offset; -1 when it is not one.
long long IsoSeconds(const std::string& text) {
    tm fields{};
    const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S%z", &fields);
    if (end == nullptr || *end != '\0') return -1;
    const long offset = fields.tm_gmtoff;
    return static_cast<long long>(timegm(&fields)) - offset;
}

// In force as the document says, and found so by a look within its period
// (and a margin): a look that stopped vouches for nothing.
bool IsolationVerifiedLately(const json& isolation) {
    if (!Flag(At(isolation, "in_force"))) return false;
    const long long verified = IsoSeconds(Text(At(isolation, "verified_at")));
    return verified >= 0 && Util::RealTimeNow().tv_sec - verified <= kIsolationVerifiedWithinSeconds;
}

// The time of day of an ISO 8601 time; anything else as it is.
std::string TimeOfDay(const json& stamp) {
    std::string text = Text(stamp);
    if (text.size() >= 19 && text[10] == 'T') text = text.substr(11, 8);
    return text;
}

// The two-port mode's isolation in a few words: in force since the last look,
// or why not; nothing to say in the other modes.
std::vector<std::string> IsolationLines(const json& document) {
    const json& isolation = At(document, "isolation");
    if (!Flag(At(isolation, "required"))) {
        const json& mode = At(document, "bridge_mode");
        return {mode.is_string() ? "not required (bridge mode " + Text(mode) + ")" : "not required (no bridge built)"};
    }
    if (IsolationVerifiedLately(isolation)) {
        const json& partial = At(isolation, "partial");
        if (partial.is_string()) {
            return Wrap("PARTIAL, ARP and IPv4 only (verified " + TimeOfDay(At(isolation, "verified_at")) +
                            "): " + Text(partial),
                        kHeadValueWidth);
        }
        return {"in force (verified " + TimeOfDay(At(isolation, "verified_at")) + ")"};
    }
    if (Flag(At(isolation, "in_force"))) {
        return {"NOT verified since " + TimeOfDay(At(isolation, "verified_at"))};
    }
    const json& problem = At(isolation, "problem");
    std::string why;
    if (problem.is_string()) {
        why = Text(problem);
    } else if (Text(At(document, "bridge_mode")) != "eth0eth1") {
        why = "br0 is not built for eth0eth1";
    }
    return Wrap(why.empty() ? "NOT in force" : "NOT in force: " + why, kHeadValueWidth);
}

std::string FailureText(const json& failure) {
    return Text(At(failure, "command")) + ": " + Text(At(failure, "outcome"));
}

}  // namespace

bool DaemonRunning(long pid, const std::string& procRoot) {
    if (pid <= 0) return false;
    const std::string dir = procRoot + "/" + std::to_string(pid);
    // The state is the field after the name in parentheses, which may hold blanks.
    const std::string stat = ReadFirstLine(dir + "/stat");
    const auto close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size()) return false;
    if (stat[close + 2] == 'Z' || stat[close + 2] == 'X') return false;
    if (ReadFirstLine(dir + "/comm") == kDaemonName) return true;
    // Run through an emulator (qemu-arm -L ROOT tessel-networkd) or an interpreter.
    std::ifstream in(dir + "/cmdline", std::ios::binary);
    const std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream args(cmdline);
    std::string arg;
    for (int i = 0; i < 4 && std::getline(args, arg, '\0'); ++i) {
        if (BaseName(arg) == kDaemonName) return true;
    }
    return false;
}

std::vector<std::string> Degradations(const json& document) {
    std::vector<std::string> reasons;
    const json& configuration = At(document, "configuration");
    if (Flag(At(configuration, "read")) && !Flag(At(configuration, "usable"))) {
        reasons.push_back("configuration file " + Text(At(configuration, "path")) + " is not usable");
    }
    const json& work = At(document, "work");
    for (const char* name : kWorkNames) {
        const json& health = At(work, name);
        if (Flag(At(health, "failing"))) {
            reasons.push_back(WorkTitle(name) + " failing (" + FailureText(At(health, "last_failure")) + ")");
        }
        const json& undone = At(health, "last_outside_change");
        if (undone.is_object() && !Flag(At(undone, "repaired"))) {
            reasons.push_back(WorkTitle(name) + " undone from outside, not yet repaired (" + Text(At(undone, "found")) +
                              ")");
        }
    }
    const json& interfaces = At(document, "interfaces");
    if (interfaces.is_array()) {
        for (const json& iface : interfaces) {
            if (At(iface, "address").is_null()) reasons.push_back(Text(At(iface, "name")) + " has no address in force");
        }
    }
    const json& eth0 = At(document, "eth0");
    if (Flag(At(eth0, "used")) && Text(At(eth0, "link")) == "down") reasons.push_back("eth0's link is down");
    // Why is on the table's own row for it: the reason stays one short line.
    const json& isolation = At(document, "isolation");
    if (Flag(At(isolation, "required")) && !Flag(At(isolation, "in_force"))) {
        reasons.push_back("isolation of eth0 and eth1 is not in force");
    } else if (Flag(At(isolation, "required")) && !IsolationVerifiedLately(isolation)) {
        reasons.push_back("isolation of eth0 and eth1 not verified since " + Text(At(isolation, "verified_at")));
    } else if (Flag(At(isolation, "required")) && At(isolation, "partial").is_string()) {
        reasons.push_back("isolation of eth0 and eth1 is partial (ARP and IPv4 only)");
    }
    return reasons;
}

std::string StatusTable(const json& document, bool running, const std::vector<std::string>& reasons, bool colour) {
    const Colours c{colour};
    std::string text;
    const json& daemon = At(document, "daemon");
    text += c.Bold(kDaemonName) + " " + Text(At(daemon, "version"), "?") + ", pid " + Text(At(daemon, "pid"), "?") +
            ", started " + Text(At(daemon, "started"), "?") + "\n";
    std::string state;
    if (!running) {
        state = c.Bad("not running") + " (what it last reported follows)";
    } else if (reasons.empty()) {
        state = c.Good("healthy");
    } else {
        state = c.Warn("degraded");
    }
    Table head;
    head.Row({"State:", state});
    for (const std::string& reason : reasons) head.Row({"", Printable(reason)});

    const json& configuration = At(document, "configuration");
    std::string read = !Flag(At(configuration, "read"))    ? "not read yet"
                       : Flag(At(configuration, "usable")) ? "usable"
                       : Flag(At(configuration, "last_usable_supervised"))
                           ? c.Bad("not usable") + ", keeping the last usable configuration, still supervised"
                           : c.Bad("not usable") + ", the last usable one stays in force";
    head.Row({"Configuration:", Text(At(configuration, "path")) + " (" + read + ")"});
    const json& problems = At(configuration, "problems");
    if (problems.is_array()) {
        for (const json& problem : problems) head.Row({"", Text(problem)});
    }
    head.Row({"Bridge mode:", Text(At(document, "bridge_mode"), "none") + " (configured " +
                                  Text(At(configuration, "bridge_mode"), "-") + ")"});
    head.Row({"PHY mode:", Text(At(document, "phy_mode"), "none") + " (configured " +
                               Text(At(configuration, "phy_mode"), "-") + ")"});
    const json& eth0 = At(document, "eth0");
    std::string link = "not bridged";
    if (Flag(At(eth0, "used"))) link = Text(At(eth0, "link")) == "up" ? c.Good("up") : c.Bad("down");
    link += ", " + std::to_string(Number(At(eth0, "recoveries"))) + " recoveries";
    if (!At(eth0, "last_recovery").is_null()) link += ", last " + Text(At(eth0, "last_recovery"));
    head.Row({"eth0:", link});
    // A document of a daemon that knows no isolation has no row for it.
    const json& isolation = At(document, "isolation");
    if (isolation.is_object()) {
        const std::vector<std::string> lines = IsolationLines(document);
        for (size_t i = 0; i < lines.size(); ++i) {
            const std::string label = i == 0 ? "Isolation:" : "";
            std::string shown = lines[i];
            if (i == 0 && Flag(At(isolation, "required"))) {
                shown = Flag(At(isolation, "in_force")) ? c.Good(shown) : c.Bad(shown);
            }
            head.Row({label, lines[i]}, {label, shown});
        }
    }
    text += head.Text() + "\n";

    Table ifaces;
    ifaces.Row({"INTERFACE", "ADDRESSING", "ADDRESS", "MASK", "GATEWAY", "METRIC", "SOURCE", "DHCP CLIENT"});
    const json& interfaces = At(document, "interfaces");
    if (interfaces.is_array()) {
        for (const json& iface : interfaces) {
            std::string addressing = Text(At(iface, "addressing"));
            const json& requested = At(iface, "requested");
            if (requested.is_object()) {
                addressing += " " + Text(At(requested, "address")) + "/" + Text(At(requested, "mask"));
            }
            const bool bHas = !At(iface, "address").is_null();
            std::string source = !bHas                          ? "none"
                                 : Flag(At(iface, "from_dhcp")) ? "lease " + Text(At(iface, "lease_at"))
                                                                : "static";
            const json& client = At(iface, "dhcp_client");
            std::string clientText = "-";
            if (!At(client, "pid").is_null() || Number(At(client, "starts")) != 0) {
                clientText =
                    "pid " + Text(At(client, "pid")) + ", " + std::to_string(Number(At(client, "starts"))) + " started";
            }
            std::vector<std::string> cells = {Text(At(iface, "name")),
                                              addressing,
                                              Text(At(iface, "address"), "none"),
                                              Text(At(iface, "mask")),
                                              Text(At(iface, "gateway")),
                                              Text(At(iface, "metric")),
                                              source,
                                              clientText};
            std::vector<std::string> shown = cells;
            shown[2] = bHas ? cells[2] : c.Bad(cells[2]);
            ifaces.Row(cells, shown);
        }
    }
    text += ifaces.Text() + "\n";

    Table work;
    work.Row({"WORK", "STATE", "FAILURES", "LAST FAILURE", "RECOVERED"});
    for (const char* name : kWorkNames) {
        const json& health = At(At(document, "work"), name);
        if (!health.is_object()) continue;
        const json& failure = At(health, "last_failure");
        const bool bFailing = Flag(At(health, "failing"));
        std::string stateText = bFailing ? "failing" : failure.is_null() ? "ok" : "recovered";
        std::string shownState = bFailing ? c.Bad(stateText) : c.Good(stateText);
        std::string last = failure.is_null() ? "-" : Text(At(failure, "at")) + " " + FailureText(failure);
        std::vector<std::string> cells = {name, stateText, Text(At(health, "failures")), last,
                                          Text(At(health, "recovered_at"))};
        std::vector<std::string> shown = cells;
        shown[1] = shownState;
        work.Row(cells, shown);
    }
    text += work.Text();

    // Only what someone else undid: a device left alone shows no such table.
    Table undone;
    undone.Row({"UNDONE", "IN A ROW", "LAST", "AT", "REPAIRED"});
    bool bAnyUndone = false;
    for (const char* name : kWorkNames) {
        const json& health = At(At(document, "work"), name);
        const json& last = At(health, "last_outside_change");
        if (!last.is_object()) continue;
        bAnyUndone = true;
        const bool bRepaired = Flag(At(last, "repaired"));
        std::vector<std::string> cells = {name, Text(At(health, "outside_changes")), Text(At(last, "found")),
                                          Text(At(last, "at")), bRepaired ? "yes" : "not yet"};
        std::vector<std::string> shown = cells;
        shown[4] = bRepaired ? c.Good(cells[4]) : c.Bad(cells[4]);
        undone.Row(cells, shown);
    }
    if (bAnyUndone) text += "\n" + undone.Text();
    return text;
}
