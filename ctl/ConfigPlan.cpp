// The plan of "tessel-networkctl plan FILE": the daemon's own cycle
// (RunStartupCommands, RunSupervisionCycle) run in-process against a device
// made of answers. Every seam the daemon has to the system is swapped for the
// run: commands are recorded and succeed, pauses are recorded and never
// slept, the clock is the run's own, the kernel shows the shape the daemon
// expects to hold, the filter tools' listings hold the rules the recorded
// commands appended, no DHCP client is found (so none is signalled), lease
// files are looked for in a private directory, and the PHY mode is written
// to a file in it. So the plan is the daemon's own tables in the daemon's own
// order, and nothing of the system is touched.
#include "ctl/ConfigPlan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ctl/ConfigCheck.h"
#include "ctl/StatusView.h"
#include "logging/Logging.h"
#include "src/NetworkClock.h"
#include "src/NetworkCycle.h"
#include "src/NetworkCycleShape.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkFilterWatch.h"
#include "src/NetworkIsolation.h"
#include "src/NetworkLinkPhy.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShape.h"
#include "src/NetworkShell.h"
#include "src/NetworkStatusSchema.h"

namespace {

// Passes run after FILE is first read, at most, and to reach the running
// shape: a pass that does nothing ends either sooner.
constexpr int kMaxPasses = 10;
// The daemon's pace when nothing wakes it.
constexpr int64_t kPassSpacingMs = 1000;

// The filter tools' tables as the recorded commands left them, one "-A CHAIN
// ..." line a rule, so the isolation's look finds what the build appended.
class PLAN_TABLES {
public:
    // Applies a filter tool's command; the listing when it is one.
    std::string Run(const std::string& command) {
        const std::string batch = "ebtables-restore --noflush <<'EOF'\n";
        if (command.starts_with(batch)) {
            RunBatch(command.substr(batch.size()));
            return "";
        }
        std::istringstream words(command);
        std::string tool;
        words >> tool;
        if (tool != "arptables" && tool != "iptables" && tool != "ebtables") return "";
        std::string table = "filter";
        std::string verb;
        words >> verb;
        if (verb == "-t") words >> table >> verb;
        std::string rest;
        std::getline(words, rest);
        for (const std::string redirection : {" > /dev/null 2>&1", " 2>/dev/null"}) {
            if (rest.ends_with(redirection)) rest.resize(rest.size() - redirection.size());
        }
        std::vector<std::string>& rules = m_tables[tool + " " + table];
        if (verb == "-F") {
            rules.clear();
        } else if (verb == "-A") {
            rules.push_back("-A" + rest);
        } else if (verb == "-I") {
            // "-I CHAIN N rule": ahead of the others, as far as a look can tell.
            std::istringstream insert(rest);
            std::string chain;
            std::string number;
            insert >> chain >> number;
            std::string rule;
            std::getline(insert, rule);
            rules.insert(rules.begin(), "-A " + chain + rule);
        } else if (verb == "-D") {
            for (auto rule = rules.begin(); rule != rules.end(); ++rule) {
                if (*rule == "-A" + rest) {
                    rules.erase(rule);
                    break;
                }
            }
        } else if (verb == "-L" || verb == "-S") {
            std::string listing;
            for (const std::string& rule : rules) listing += rule + "\n";
            return listing;
        }
        return "";
    }

    // One number that moves with any change, as the kernel's fingerprint does.
    uint64_t Hash() const {
        uint64_t hash = 1469598103934665603ULL;
        auto add = [&hash](const std::string& text) {
            // The terminator too, so "ab" "c" and "a" "bc" differ.
            for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
            hash *= 1099511628211ULL;
        };
        for (const auto& [name, rules] : m_tables) {
            add(name);
            for (const std::string& text : rules) add(text);
        }
        return hash;
    }

private:
    // ebtables-restore's lines: "*TABLE", then that table's commands, to "EOF".
    void RunBatch(const std::string& lines) {
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
        }
    }

    std::map<std::string, std::vector<std::string>> m_tables;
};

// The shape the daemon expects to hold, as the kernel would show it once its
// commands have run: br0 with its ports, the links the build made, their MACs,
// the addresses and routes in force; eth0 and eth1 always there.
KERNEL_SHAPE ShapeHeld(const CYCLE_STATE& state) {
    const WANTED_SHAPE wanted = WantedShape(state);
    KERNEL_SHAPE shape;
    shape.m_bRead = true;
    int next = 1;
    auto link = [&shape, &next](const std::string& name, int master) -> KERNEL_LINK& {
        for (KERNEL_LINK& known : shape.m_links) {
            if (known.m_name == name) {
                if (master != 0) known.m_nMaster = master;
                return known;
            }
        }
        shape.m_links.push_back({name, next++, master, true, ""});
        return shape.m_links.back();
    };
    const int bridge = wanted.m_ports.empty() ? 0 : link("br0", 0).m_nIndex;
    for (const std::string& port : wanted.m_ports) link(port, bridge);
    for (const std::string& name : wanted.m_links) link(name, 0);
    link("eth0", 0);
    link("eth1", 0);
    for (const auto& [name, mac] : wanted.m_macs) link(name, 0).m_mac = mac;
    for (const auto& [name, address] : wanted.m_addresses) {
        const int index = link(name, 0).m_nIndex;
        shape.m_addresses.push_back({index, address.m_address, address.m_nPrefix});
        if (address.m_gateway.s_addr != 0) shape.m_routes.push_back({index, address.m_gateway, address.m_nMetric});
    }
    return shape;
}

int64_t s_nowMs = 0;
int64_t PlanClock() { return s_nowMs; }

class DRY_RUN;
DRY_RUN* s_active = nullptr;

// While it lives, the daemon's units run against answers, and what they do is
// recorded while `m_bRecording`.
class DRY_RUN {
public:
    explicit DRY_RUN(const CYCLE_STATE& state) : m_state(state) {
        const char* base = getenv("TMPDIR");
        std::string folder = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tessel-plan-XXXXXX";
        if (mkdtemp(folder.data()) != nullptr) m_folder = folder;
        s_active = this;
        s_nowMs = 1000000;
        const char* notify = getenv("NOTIFY_SOCKET");
        if (notify != nullptr) {
            m_notify = notify;
            unsetenv("NOTIFY_SOCKET");
        }
        m_runner = SetCommandRunner([this](const std::string& command, std::string* output) {
            Record("$ " + command);
            const std::string listing = m_tables.Run(command);
            if (output != nullptr) *output = listing;
            return COMMAND_OUTCOME{};
        });
        m_pause = SetPauseRunner([this](unsigned int milliseconds) {
            Record("pause " + std::to_string(milliseconds) + " ms");
            s_nowMs += milliseconds;
        });
        m_clock = SetMonotonicClock(PlanClock);
        m_shape = SetKernelShapeReader([this] { return ShapeHeld(m_state); });
        m_fingerprint = SetFilterFingerprintReader([this] { return FILTER_FINGERPRINT{true, m_tables.Hash()}; });
        m_bridgeFilter = SetBridgeFilterReader([](const std::string&) {
            return BRIDGE_FILTER_STATE{true, true, true, true};
        });
        m_tagged = SetTaggedFilterSwitch([] {});
        m_link = SetLinkStateReader([](const std::string&, bool& up) {
            up = true;
            return 0;
        });
        m_clients = SetDhcpClientLister([](const std::string&) { return std::vector<pid_t>{}; });
        m_leases = SetDhcpLeaseDirectory(m_folder.empty() ? "/nonexistent" : m_folder);
        // The daemon's level: what its log would show.
        Logging::SetLogLevel(Logging::LOGGING_SEVERITY_INFO);
        Logging::SetEntrySink(Sink);
    }
    ~DRY_RUN() {
        Logging::SetEntrySink(nullptr);
        SetDhcpLeaseDirectory(std::move(m_leases));
        SetDhcpClientLister(std::move(m_clients));
        SetLinkStateReader(std::move(m_link));
        SetTaggedFilterSwitch(std::move(m_tagged));
        SetBridgeFilterReader(std::move(m_bridgeFilter));
        SetFilterFingerprintReader(std::move(m_fingerprint));
        SetKernelShapeReader(std::move(m_shape));
        SetMonotonicClock(m_clock);
        SetPauseRunner(std::move(m_pause));
        SetCommandRunner(std::move(m_runner));
        if (!m_notify.empty()) setenv("NOTIFY_SOCKET", m_notify.c_str(), 1);
        if (!m_folder.empty()) {
            unlink(PhyFile().c_str());
            rmdir(m_folder.c_str());
        }
        s_active = nullptr;
    }
    DRY_RUN(const DRY_RUN&) = delete;
    DRY_RUN& operator=(const DRY_RUN&) = delete;

    // The PHY driver's stand-in, made in the private directory.
    std::string PhyFile() const { return m_folder + "/phy"; }
    bool Ready() const { return !m_folder.empty(); }

    // Each line of an entry; a here-document's lines after its first as "> " lines.
    void Record(const std::string& entry) {
        std::istringstream text(entry);
        std::string line;
        bool first = true;
        while (std::getline(text, line)) {
            m_lines.push_back(first ? line : "> " + line);
            first = false;
        }
    }

    // What was recorded since the last call.
    std::vector<std::string> Take() { return std::exchange(m_lines, {}); }

private:
    static void Sink(Logging::LOGGING_SEVERITY_LEVEL severity, const char* function, const std::string& message) {
        if (s_active != nullptr) {
            s_active->Record(std::string(Logging::SeverityName(severity)) + " " + function + ": " + message);
        }
    }

    const CYCLE_STATE& m_state;
    std::string m_folder;
    std::string m_notify;
    std::vector<std::string> m_lines;
    PLAN_TABLES m_tables;
    CommandRunner m_runner;
    PauseRunner m_pause;
    MonotonicClock m_clock = nullptr;
    KernelShapeReader m_shape;
    FilterFingerprintReader m_fingerprint;
    BridgeFilterReader m_bridgeFilter;
    TaggedFilterSwitch m_tagged;
    LinkStateReader m_link;
    DhcpClientLister m_clients;
    std::string m_leases;
};

// Passes at the daemon's pace until one does what the one before did (the
// steady pass, which every later one repeats), kMaxPasses at most. Returns
// what the passes before the steady one did; `steady`: what it does.
std::vector<std::string> Settle(DRY_RUN& run, const std::string& path, CYCLE_STATE& state,
                                std::vector<std::string>& steady) {
    std::vector<std::string> lines = run.Take();
    std::vector<std::string> last;
    for (int pass = 0; pass < kMaxPasses; ++pass) {
        RunSupervisionCycle(path, state);
        s_nowMs += kPassSpacingMs;
        std::vector<std::string> done = run.Take();
        if (pass > 0 && done == last) break;
        if (pass > 0) lines.insert(lines.end(), last.begin(), last.end());
        last = std::move(done);
    }
    steady = std::move(last);
    return lines;
}

bool Readable(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return static_cast<bool>(in);
}

// The configuration the running daemon reads, from its status document; empty
// when no daemon runs (no document, or its daemon is gone).
std::string RunningConfigPath(const std::string& directory) {
    std::ifstream in(directory + "/" + kStatusFileName, std::ios::binary);
    if (!in) return "";
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object()) return "";
    long pid = 0;
    std::string path;
    const auto daemon = document.find("daemon");
    if (daemon != document.end() && daemon->is_object()) {
        const auto found = daemon->find("pid");
        if (found != daemon->end() && found->is_number_integer()) pid = found->get<long>();
    }
    const auto configuration = document.find("configuration");
    if (configuration != document.end() && configuration->is_object()) {
        const auto found = configuration->find("path");
        if (found != configuration->end() && found->is_string()) path = found->get<std::string>();
    }
    return DaemonRunning(pid) ? path : "";
}

// Runs the check as "check" does with its output thrown away; its status.
int QuietCheck(const std::string& path) {
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    const int sink = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved < 0 || sink < 0) {
        if (saved >= 0) close(saved);
        if (sink >= 0) close(sink);
        return CheckConfigFile(path);
    }
    dup2(sink, STDOUT_FILENO);
    close(sink);
    const int status = CheckConfigFile(path);
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    return status;
}

// Where a line may be cut: the last blank within `width`, or at `width`.
size_t CutAt(const std::string& text, size_t width) {
    const size_t blank = text.rfind(' ', width);
    return blank == std::string::npos || blank == 0 ? width : blank;
}

}  // namespace

PLAN MakePlan(const PLAN_ENDS& ends) {
    PLAN plan;
    CYCLE_STATE state;
    DRY_RUN run(state);
    if (!run.Ready()) {
        plan.m_lines = {"ERROR no private directory for the plan: " + std::string(strerror(errno))};
        return plan;
    }
    state.m_phyModeFile = run.PhyFile();
    {
        // The driver's stand-in, so the PHY mode's write succeeds as on the device.
        std::ofstream phy(run.PhyFile(), std::ios::binary);
    }
    RunStartupCommands(state);
    std::vector<std::string> before;
    if (!ends.m_fromPath.empty()) Settle(run, ends.m_fromPath, state, before);
    plan.m_lines = Settle(run, ends.m_toPath, state, plan.m_everyPass);
    // The running shape's steady pass again, and nothing before it: no change.
    plan.m_bNothingToDo = !ends.m_fromPath.empty() && plan.m_lines.empty() && plan.m_everyPass == before;
    return plan;
}

std::string PlanText(const std::vector<std::string>& lines, size_t width) {
    std::string text;
    const std::string indent = "    ";
    for (const std::string& line : lines) {
        std::string rest = line;
        bool first = true;
        while (rest.size() > (first ? width : width - indent.size())) {
            const size_t room = first ? width : width - indent.size();
            const size_t cut = CutAt(rest, room);
            text += (first ? "" : indent) + rest.substr(0, cut) + "\n";
            rest = rest.substr(rest[cut] == ' ' ? cut + 1 : cut);
            first = false;
        }
        text += (first ? "" : indent) + rest + "\n";
    }
    return text;
}

std::vector<std::string> PlanShown(const PLAN& plan, const std::string& from, const std::string& to) {
    std::vector<std::string> shown = {"Plan from " + from + " to " + to + " (nothing run):"};
    if (plan.m_bNothingToDo) {
        shown.emplace_back("Nothing to do: the daemon runs that shape already.");
        return shown;
    }
    shown.insert(shown.end(), plan.m_lines.begin(), plan.m_lines.end());
    if (!plan.m_everyPass.empty()) {
        shown.emplace_back("Then every pass (each second) while nothing changes:");
        shown.insert(shown.end(), plan.m_everyPass.begin(), plan.m_everyPass.end());
    }
    return shown;
}

int PlanConfig(const PLAN_REQUEST& request) {
    if (!Readable(request.m_file)) {
        fprintf(stderr, "tessel-networkctl: cannot read %s: %s\n", request.m_file.c_str(), strerror(errno));
        return 2;
    }
    const int checked = QuietCheck(request.m_file);
    if (checked != 0) return CheckConfigFile(request.m_file);
    PLAN_ENDS ends;
    ends.m_toPath = request.m_file;
    std::string from;
    if (!request.m_fromPath.empty()) {
        ends.m_fromPath = request.m_fromPath;
        from = "the configuration " + request.m_fromPath;
    } else {
        ends.m_fromPath = RunningConfigPath(request.m_statusDirectory);
        from = ends.m_fromPath.empty() ? "nothing (no daemon runs: its first start)"
                                       : "the configuration the running daemon reads, " + ends.m_fromPath;
    }
    if (!ends.m_fromPath.empty() && !Readable(ends.m_fromPath)) {
        fprintf(stderr, "tessel-networkctl: cannot read %s: %s\n", ends.m_fromPath.c_str(), strerror(errno));
        return 2;
    }
    // What a daemon keeps from an earlier usable file is not known here: the
    // plan is then a first start's, and says so.
    if (!ends.m_fromPath.empty() && QuietCheck(ends.m_fromPath) != 0) {
        from += " (not usable: planned from nothing)";
        ends.m_fromPath.clear();
    }
    fputs(PlanText(PlanShown(MakePlan(ends), from, request.m_file)).c_str(), stdout);
    return 0;
}
