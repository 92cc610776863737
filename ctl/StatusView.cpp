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

std::vector<std::string> Wrap(const std::string& text, size_t width);

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
    // `width` > 0: a last cell (never coloured) too long for the line is
    // wrapped under its column, unless the other columns leave it too little room.
    std::string Text(size_t width = 0) const {
        std::string text;
        for (const auto& row : m_rows) {
            std::string line;
            size_t column = 0;
            for (size_t i = 0; i + 1 < row.first.size(); ++i) {
                line += row.second[i] + std::string(m_widths[i] - row.first[i].size() + 2, ' ');
                column += m_widths[i] + 2;
            }
            if (row.first.empty()) {
                text += "\n";
                continue;
            }
            const std::string& last = row.first.back();
            if (width == 0 || column + last.size() <= width || column + kLeastWrappedWidth > width) {
                text += line + row.second.back() + "\n";
                continue;
            }
            const std::vector<std::string> lines = Wrap(last, width - column);
            for (size_t i = 0; i < lines.size(); ++i) {
                text += (i == 0 ? line : std::string(column, ' ')) + lines[i] + "\n";
            }
        }
        return text;
    }

private:
    static constexpr size_t kLeastWrappedWidth = 20;
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
std::vector<std::string> IsolationLines(const json& document, bool full) {
    const json& isolation = At(document, "isolation");
    if (!Flag(At(isolation, "required"))) {
        const json& mode = At(document, "bridge_mode");
        return {mode.is_string() ? "not required (bridge mode " + Text(mode) + ")" : "not required (no bridge built)"};
    }
    if (IsolationVerifiedLately(isolation)) {
        const json& partial = At(isolation, "partial");
        if (partial.is_string()) {
            const std::string line = "PARTIAL, ARP and IPv4 only (verified " + TimeOfDay(At(isolation, "verified_at")) +
                                     "): " + Text(partial);
            return full ? std::vector<std::string>{line} : Wrap(line, kHeadValueWidth);
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
    const std::string line = why.empty() ? "NOT in force" : "NOT in force: " + why;
    return full ? std::vector<std::string>{line} : Wrap(line, kHeadValueWidth);
}

// A long text within a head value's width, cut with "..." (whole with `full`).
std::string Fit(const std::string& text, bool full) {
    if (full || text.size() <= kHeadValueWidth) return text;
    return text.substr(0, kHeadValueWidth - 3) + "...";
}

// A long text under `label`, wrapped within a head value's width (whole with `full`).
void Rows(Table& head, const std::string& label, const std::string& text, bool full) {
    const std::vector<std::string> lines = full ? std::vector<std::string>{text} : Wrap(text, kHeadValueWidth);
    for (size_t i = 0; i < lines.size(); ++i) head.Row({i == 0 ? label : "", lines[i]});
}

// Each line of `text` within kScreenWidth columns, cut with "..." where it is
// longer; colour codes count for nothing and a cut one is closed.
std::string FitLines(const std::string& text) {
    std::string fitted;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::string kept;
        size_t columns = 0;
        bool bCut = false;
        bool bColoured = false;
        for (size_t i = 0; i < line.size(); ++i) {
            if (line[i] == '\033') {
                const size_t end = line.find('m', i);
                const size_t stop = end == std::string::npos ? line.size() - 1 : end;
                kept += line.substr(i, stop - i + 1);
                bColoured = true;
                i = stop;
                continue;
            }
            if (columns == kScreenWidth - 3) {
                // Cut unless what is left fits in the three columns the dots would take.
                size_t left = 0;
                for (size_t j = i; j < line.size(); ++j) {
                    if (line[j] == '\033') {
                        const size_t end = line.find('m', j);
                        j = end == std::string::npos ? line.size() : end;
                    } else {
                        ++left;
                    }
                }
                if (left > 3) {
                    bCut = true;
                    break;
                }
            }
            kept += line[i];
            ++columns;
        }
        if (bCut) kept += std::string(bColoured ? "\033[0m" : "") + "...";
        fitted += kept + "\n";
    }
    return fitted;
}

// Seconds as a short age: 45s, 4m20s, 3h05m, 2d04h.
std::string Age(long long seconds) {
    char text[32];
    if (seconds < 60) {
        snprintf(text, sizeof text, "%llds", seconds < 0 ? 0 : seconds);
    } else if (seconds < 3600) {
        snprintf(text, sizeof text, "%lldm%02llds", seconds / 60, seconds % 60);
    } else if (seconds < 86400) {
        snprintf(text, sizeof text, "%lldh%02lldm", seconds / 3600, seconds % 3600 / 60);
    } else {
        snprintf(text, sizeof text, "%lldd%02lldh", seconds / 86400, seconds % 86400 / 3600);
    }
    return text;
}

// A time in a table: of today (in its own zone) the time of day, else the date
// and the minute; whole with `full`; "-" for none.
std::string When(const json& stamp, bool full) {
    std::string text = Text(stamp);
    const long long at = IsoSeconds(text);
    if (full || at < 0 || text.size() < 19) return text;
    tm fields{};
    strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S%z", &fields);
    const long long now = Util::RealTimeNow().tv_sec + fields.tm_gmtoff;
    const time_t today = static_cast<time_t>(now - now % 86400);
    tm day{};
    gmtime_r(&today, &day);
    char date[16];
    strftime(date, sizeof date, "%Y-%m-%d", &day);
    if (text.compare(0, 10, date) == 0) return text.substr(11, 8);
    return text.substr(0, 10) + " " + text.substr(11, 5);
}

// A dotted mask as a prefix length ("/24"), or "/" and the mask when its bits
// do not run from the top.
std::string Prefix(const std::string& mask) {
    unsigned int parts[4];
    char extra = 0;
    if (sscanf(mask.c_str(), "%u.%u.%u.%u%c", &parts[0], &parts[1], &parts[2], &parts[3], &extra) != 4) {
        return "/" + mask;
    }
    unsigned long bits = 0;
    for (unsigned int part : parts) {
        if (part > 255) return "/" + mask;
        bits = bits << 8 | part;
    }
    int length = 0;
    while (length < 32 && (bits & (1UL << (31 - length))) != 0) ++length;
    const unsigned long contiguous = length == 0 ? 0 : (0xffffffffUL << (32 - length)) & 0xffffffffUL;
    return bits == contiguous ? "/" + std::to_string(length) : "/" + mask;
}

// An address with its mask and gateway: "10.0.0.2/24 via 10.0.0.1".
std::string AddressText(const json& address, const json& mask, const json& gateway) {
    std::string text = Text(address) + Prefix(Text(mask));
    text += gateway.is_string() ? " via " + Text(gateway) : ", no gateway";
    return text;
}

// An interface in the head: what is asked for and in force, then, for DHCP,
// the lease (its server, age and time) and the client.
void InterfaceRows(Table& head, const json& iface, const Colours& c) {
    const std::string label = Text(At(iface, "name")) + ":";
    const std::string addressing = Text(At(iface, "addressing"));
    const bool bHas = !At(iface, "address").is_null();
    std::string inForce =
        bHas ? AddressText(At(iface, "address"), At(iface, "mask"), At(iface, "gateway")) : "no address in force";
    const std::string metric = ", metric " + Text(At(iface, "metric"));
    head.Row({label, addressing + " " + inForce + metric},
             {label, addressing + " " + (bHas ? inForce : c.Bad(inForce)) + metric});
    const json& requested = At(iface, "requested");
    if (requested.is_object()) {
        const std::string asked =
            AddressText(At(requested, "address"), At(requested, "mask"), At(requested, "gateway"));
        if (!bHas || asked != inForce) head.Row({"", "asked for " + asked});
    }
    if (addressing != "dhcp") return;
    std::string lease = "no lease";
    if (Flag(At(iface, "from_dhcp"))) {
        lease = "lease";
        if (At(iface, "lease_server").is_string()) lease += " from " + Text(At(iface, "lease_server"));
        lease += ", taken " + When(At(iface, "lease_at"), false);
        const long long at = IsoSeconds(Text(At(iface, "lease_at")));
        if (at >= 0) lease += ", " + Age(Util::RealTimeNow().tv_sec - at) + " old";
    }
    head.Row({"", lease});
    const json& client = At(iface, "dhcp_client");
    const std::string starts = std::to_string(Number(At(client, "starts"))) + " started";
    head.Row({"", At(client, "pid").is_null() ? "no DHCP client running, " + starts
                                              : "DHCP client pid " + Text(At(client, "pid")) + ", " + starts});
}

std::string FailureText(const json& failure) {
    return Text(At(failure, "command")) + ": " + Text(At(failure, "outcome"));
}

// What to do about a failing work, in one short line.
std::string WorkAdvice(const std::string& name) {
    if (name == "startup") return "see the log for the start-up command; the daemon retries it";
    if (name == "bridge") return "see the log for the failing build command; it is retried";
    if (name == "registers") return "check devmem and eth0's driver; the writes are retried";
    if (name == "phy") return "check eth1's driver and its PHY mode file; it is retried";
    if (name == "isolation") return "check arptables, iptables and ebtables; the repair is retried";
    if (name == "veth1" || name == "veth3") return "see the log for the failing address command; it is retried";
    return "see the log for the failing command; it is retried";
}

// The order of causes, the one others follow from first: nothing is configured
// without a usable file, nothing is built without the start-up commands and
// the bridge, eth0's link carries the ports' traffic, the isolation must hold
// before eth1 is let through, and the addresses come last.
enum CAUSE_RANK : int {
    RANK_STARTING,
    RANK_CONFIGURATION,
    RANK_STARTUP,
    RANK_BRIDGE,
    RANK_ETH0,
    RANK_PHY,
    RANK_ISOLATION,
    RANK_ISOLATION_WORK,
    RANK_REPAIRS,
    RANK_ADDRESSING,
    RANK_ADDRESS,
};

CAUSE_RANK WorkRank(const std::string& name) {
    if (name == "startup") return RANK_STARTUP;
    if (name == "bridge") return RANK_BRIDGE;
    if (name == "registers" || name == "eth0_port") return RANK_ETH0;
    if (name == "phy") return RANK_PHY;
    if (name == "isolation") return RANK_ISOLATION_WORK;
    if (name == "veth1" || name == "veth3") return RANK_ADDRESSING;
    return RANK_REPAIRS;
}

// The two-port mode's isolation as one verdict: nothing to say (empty, not
// required or in force and whole), or what stops it being in force.
std::string IsolationVerdict(const json& document) {
    const json& isolation = At(document, "isolation");
    if (!Flag(At(isolation, "required"))) return "";
    if (!Flag(At(isolation, "in_force"))) return "NOT in force";
    if (!IsolationVerifiedLately(isolation)) return "unverified";
    if (At(isolation, "partial").is_string()) return "partial";
    return "";
}

}  // namespace

std::vector<CAUSE> Causes(const json& document) {
    std::vector<std::pair<CAUSE_RANK, CAUSE>> found;
    const json& configuration = At(document, "configuration");
    const std::string path = Text(At(configuration, "path"));
    if (At(configuration, "read").is_boolean() && !Flag(At(configuration, "read"))) {
        found.push_back(
            {RANK_STARTING,
             {"the daemon's first pass has not ended yet", "wait a few seconds and ask for the status again"}});
    }
    if (Flag(At(configuration, "read")) && !Flag(At(configuration, "usable"))) {
        found.push_back({RANK_CONFIGURATION,
                         {"configuration file " + path + " is not usable",
                          "run tessel-networkctl check " + path + " and fix what it names"}});
    }
    const json& work = At(document, "work");
    for (const char* name : kWorkNames) {
        const json& health = At(work, name);
        if (Flag(At(health, "failing"))) {
            found.push_back(
                {WorkRank(name),
                 {WorkTitle(name) + " failing (" + FailureText(At(health, "last_failure")) + ")", WorkAdvice(name)}});
        }
        const json& undone = At(health, "last_outside_change");
        if (undone.is_object() && !Flag(At(undone, "repaired"))) {
            found.push_back(
                {WorkRank(name),
                 {WorkTitle(name) + " undone from outside, not yet repaired (" + Text(At(undone, "found")) + ")",
                  "find what else changes it; the daemon puts it back"}});
        }
    }
    const json& interfaces = At(document, "interfaces");
    if (interfaces.is_array()) {
        for (const json& iface : interfaces) {
            if (!At(iface, "address").is_null()) continue;
            const std::string name = Text(At(iface, "name"));
            const std::string advice = Text(At(iface, "addressing")) == "dhcp"
                                           ? "no lease yet: check eth1's link and that a DHCP server answers"
                                           : "see the log for why the address is not set";
            found.push_back({RANK_ADDRESS, {name + " has no address in force", advice}});
        }
    }
    const json& eth0 = At(document, "eth0");
    if (Flag(At(eth0, "used")) && Text(At(eth0, "link")) == "down") {
        const json& streak = At(eth0, "streak");
        const std::string cause = streak.is_object() && Number(At(streak, "recoveries")) > 1
                                      ? "eth0's link is down (" + std::to_string(Number(At(streak, "recoveries"))) +
                                            " recoveries since " + When(At(streak, "since"), false) + ")"
                                      : std::string("eth0's link is down");
        found.push_back({RANK_ETH0, {cause, "check eth0's cable and the port it is plugged into"}});
    }
    // Why is on the table's own row for it: the reason stays one short line.
    const json& isolation = At(document, "isolation");
    const std::string verdict = IsolationVerdict(document);
    if (verdict == "NOT in force") {
        found.push_back({RANK_ISOLATION,
                         {"isolation of eth0 and eth1 is not in force",
                          "see Isolation below and the log; the daemon puts the rules back"}});
    } else if (verdict == "unverified") {
        found.push_back({RANK_ISOLATION,
                         {"isolation of eth0 and eth1 not verified since " + When(At(isolation, "verified_at"), false),
                          "the daemon stopped looking: see its log, restart it if stuck"}});
    } else if (verdict == "partial") {
        found.push_back({RANK_ISOLATION,
                         {"isolation of eth0 and eth1 is partial (ARP and IPv4 only)",
                          "install ebtables with the kernel's nat table for the link layer"}});
    }
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<CAUSE> causes;
    causes.reserve(found.size());
    for (auto& entry : found) causes.push_back(std::move(entry.second));
    return causes;
}

namespace {}  // namespace

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
    for (const CAUSE& cause : Causes(document)) reasons.push_back(cause.m_text);
    return reasons;
}

std::string StatusTable(const json& document, bool running, const std::vector<std::string>& reasons, bool colour,
                        bool full) {
    const Colours c{colour};
    std::string text;
    const json& daemon = At(document, "daemon");
    text += c.Bold(kDaemonName) + " " + Text(At(daemon, "version"), "?") + ", pid " + Text(At(daemon, "pid"), "?") +
            ", started " + Text(At(daemon, "started"), "?") + "\n";
    const json& configuration = At(document, "configuration");
    const bool bStarting = At(configuration, "read").is_boolean() && !Flag(At(configuration, "read"));
    std::string state;
    if (!running) {
        state = c.Bad("not running") + " (what it last reported follows)";
    } else if (reasons.empty()) {
        state = c.Good("healthy");
    } else if (bStarting) {
        state = c.Warn("starting");
    } else {
        state = c.Warn("degraded") + (reasons.size() == 1 ? "" : ", " + std::to_string(reasons.size()) + " causes");
    }
    Table head;
    head.Row({"State:", state});
    // The first cause and what to do about it, then the rest, one line each.
    std::vector<std::string> rest = reasons;
    if (!running) {
        head.Row({"First cause:", "tessel-networkd is not running: this status is stale"});
        head.Row({"What to do:", "start it (systemctl start tessel-networkd), then see its log"});
    } else if (!rest.empty()) {
        std::string advice;
        for (const CAUSE& cause : Causes(document)) {
            if (cause.m_text == rest.front()) advice = cause.m_advice;
        }
        Rows(head, "First cause:", Printable(rest.front()), full);
        if (!advice.empty()) head.Row({"What to do:", Fit(Printable(advice), full)});
        rest.erase(rest.begin());
    }
    for (size_t i = 0; i < rest.size(); ++i) Rows(head, i == 0 ? "Also:" : "", Printable(rest[i]), full);

    const bool bUsable = Flag(At(configuration, "usable"));
    std::string read = !Flag(At(configuration, "read")) ? "not read yet"
                       : bUsable                        ? "usable"
                       : Flag(At(configuration, "last_usable_supervised"))
                           ? "not usable, keeping the last usable configuration, still supervised"
                           : "not usable, the last usable one stays in force";
    std::string shownRead = read;
    if (Flag(At(configuration, "read")) && !bUsable) shownRead = c.Bad("not usable") + read.substr(10);
    const std::string path = Text(At(configuration, "path"));
    // The path and what became of it on one line when they fit, else on two.
    if (path.size() + read.size() + 3 <= kHeadValueWidth || full) {
        head.Row({"Configuration:", path + " (" + read + ")"}, {"Configuration:", path + " (" + shownRead + ")"});
    } else {
        head.Row({"Configuration:", path});
        const std::vector<std::string> lines = Wrap("(" + read + ")", kHeadValueWidth);
        for (size_t i = 0; i < lines.size(); ++i) {
            // Only "not usable" is coloured, and it opens the first line.
            const bool bPaint = i == 0 && read.compare(0, 10, "not usable") == 0;
            head.Row({"", lines[i]}, {"", bPaint ? "(" + c.Bad("not usable") + lines[i].substr(11) : lines[i]});
        }
    }
    const json& problems = At(configuration, "problems");
    if (problems.is_array()) {
        for (const json& problem : problems) head.Row({"", Fit(Text(problem), full)});
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
    // A streak going on: how long eth0 has kept going down (one recovery is none).
    const json& streak = At(eth0, "streak");
    if (streak.is_object() && Number(At(streak, "recoveries")) > 1) {
        head.Row({"", "streak: " + std::to_string(Number(At(streak, "recoveries"))) + " recoveries since " +
                          When(At(streak, "since"), full)});
    }
    // A document of a daemon that does not report eth1 has no row for it.
    const json& eth1 = At(document, "eth1");
    if (eth1.is_object()) {
        const std::string eth1Link = Text(At(eth1, "link"), "not known");
        head.Row({"eth1:", "link " + eth1Link},
                 {"eth1:", "link " + (eth1Link == "up" ? c.Good(eth1Link) : c.Bad(eth1Link))});
    }
    // A document of a daemon that knows no isolation has no row for it.
    const json& isolation = At(document, "isolation");
    if (isolation.is_object()) {
        const std::vector<std::string> lines = IsolationLines(document, full);
        for (size_t i = 0; i < lines.size(); ++i) {
            const std::string label = i == 0 ? "Isolation:" : "";
            std::string shown = lines[i];
            if (i == 0 && Flag(At(isolation, "required"))) {
                shown = Flag(At(isolation, "in_force")) ? c.Good(shown) : c.Bad(shown);
            }
            head.Row({label, lines[i]}, {label, shown});
        }
    }
    const json& interfaces = At(document, "interfaces");
    if (interfaces.is_array()) {
        for (const json& iface : interfaces) InterfaceRows(head, iface, c);
    }
    text += head.Text() + "\n";

    // The state of each work never contradicts the head: the isolation's row
    // takes the isolation's verdict, an interface's row its missing address,
    // and a work undone from outside says so until it is put back.
    const std::string isolationVerdict = IsolationVerdict(document);
    Table work;
    work.Row({"WORK", "STATE", "FAILURES", "RECOVERED", "LAST FAILURE"});
    for (const char* name : kWorkNames) {
        const json& health = At(At(document, "work"), name);
        if (!health.is_object()) continue;
        const json& failure = At(health, "last_failure");
        const bool bFailing = Flag(At(health, "failing"));
        const json& undone = At(health, "last_outside_change");
        std::string stateText = bFailing ? "failing" : failure.is_null() ? "ok" : "recovered";
        bool bBad = bFailing;
        if (!bFailing && undone.is_object() && !Flag(At(undone, "repaired"))) {
            stateText = "undone";
            bBad = true;
        } else if (!bFailing && std::string(name) == "isolation" && !isolationVerdict.empty()) {
            stateText = isolationVerdict;
            bBad = true;
        } else if (!bFailing && interfaces.is_array()) {
            for (const json& iface : interfaces) {
                if (Text(At(iface, "name")) == name && At(iface, "address").is_null()) {
                    stateText = "no address";
                    bBad = true;
                }
            }
        }
        std::string last = failure.is_null() ? "-" : When(At(failure, "at"), full) + " " + FailureText(failure);
        std::vector<std::string> cells = {name, stateText, Text(At(health, "failures")),
                                          When(At(health, "recovered_at"), full), last};
        std::vector<std::string> shown = cells;
        shown[1] = bBad ? c.Bad(stateText) : c.Good(stateText);
        work.Row(cells, shown);
    }
    text += work.Text(full ? 0 : kScreenWidth);

    // Only what someone else undid: a device left alone shows no such table.
    Table undone;
    undone.Row({"UNDONE", "IN A ROW", "AT", "REPAIRED", "LAST"});
    bool bAnyUndone = false;
    for (const char* name : kWorkNames) {
        const json& health = At(At(document, "work"), name);
        const json& last = At(health, "last_outside_change");
        if (!last.is_object()) continue;
        bAnyUndone = true;
        const bool bRepaired = Flag(At(last, "repaired"));
        std::vector<std::string> cells = {name, Text(At(health, "outside_changes")), When(At(last, "at"), full),
                                          bRepaired ? "yes" : "not yet", Text(At(last, "found"))};
        std::vector<std::string> shown = cells;
        shown[3] = bRepaired ? c.Good(cells[3]) : c.Bad(cells[3]);
        undone.Row(cells, shown);
    }
    if (bAnyUndone) text += "\n" + undone.Text(full ? 0 : kScreenWidth);
    return full ? text : FitLines(text);
}
