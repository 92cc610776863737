#include "ctl/StatusView.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/FixedClock.h"
#include "tests/support/TempDir.h"

namespace {

// The documents below are of 2026-11-23, their isolation looked at 16:21:50:
// every test reads them at 16:22:00 that day, ten seconds after that look.
const FixedClock g_documentsNow(1795450920, 0);

using nlohmann::json;

const char kHealthy[] = R"({
  "schema": 1,
  "daemon": {"version": "1.0.0", "pid": 42, "started": "2026-11-23T16:17:36+00:00"},
  "configuration": {"path": "/etc/tessel-networkd.conf", "read": true, "usable": true, "problems": [],
                    "bridge_mode": "eth0eth1", "phy_mode": "frame"},
  "bridge_mode": "eth0eth1",
  "phy_mode": "frame",
  "eth0": {"used": true, "link": "up", "recoveries": 2, "last_recovery": "2026-11-23T16:20:00+00:00"},
  "isolation": {"required": true, "in_force": true, "verified_at": "2026-11-23T16:21:50+00:00", "problem": null},
  "interfaces": [
    {"name": "veth1", "addressing": "dhcp", "requested": null, "address": "192.168.77.100",
     "mask": "255.255.255.0", "gateway": "192.168.77.1", "metric": 10, "from_dhcp": true,
     "lease_at": "2026-11-23T16:17:40+00:00", "dhcp_client": {"pid": 51, "starts": 1},
     "work": {"failing": false, "failures": 0, "last_failure": null, "recovered_at": null}},
    {"name": "veth3", "addressing": "static",
     "requested": {"address": "10.253.254.253", "mask": "255.255.255.0", "gateway": null},
     "address": "10.253.254.253", "mask": "255.255.255.0", "gateway": null, "metric": 100, "from_dhcp": false,
     "lease_at": null, "dhcp_client": {"pid": null, "starts": 0},
     "work": {"failing": false, "failures": 0, "last_failure": null, "recovered_at": null}}
  ],
  "work": {
    "startup": {"failing": false, "failures": 0, "last_failure": null, "recovered_at": null},
    "bridge": {"failing": false, "failures": 0, "last_failure": null, "recovered_at": null},
    "veth1": {"failing": false, "failures": 0, "last_failure": null, "recovered_at": null},
    "veth3": {"failing": false, "failures": 0, "last_failure": null, "recovered_at": null},
    "isolation": {"failing": false, "failures": 0, "last_failure": null, "recovered_at": null}
  }
})";

// The head of the table: everything before its first empty line.
std::string Head(const std::string& table) { return table.substr(0, table.find("\n\n") + 1); }

// The lines of `text` longer than a terminal's 80 columns.
std::vector<std::string> LinesWiderThan80(const std::string& text) {
    std::vector<std::string> wide;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        if (end - at > 80) wide.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return wide;
}

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// Arguments as /proc/PID/cmdline has them: each ended by a zero byte.
std::string Cmdline(const std::vector<std::string>& args) {
    std::string text;
    for (const std::string& arg : args) text += arg + '\0';
    return text;
}

// A process directory as /proc has it: state, name and arguments.
void FakeProcess(const TempDir& proc, long pid, char state, const std::string& comm, const std::string& cmdline) {
    const std::string dir = proc.Path(std::to_string(pid));
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    WriteText(dir + "/stat", std::to_string(pid) + " (" + comm + ") " + state + " 1 1 1 0 -1\n");
    WriteText(dir + "/comm", comm + "\n");
    WriteText(dir + "/cmdline", cmdline);
}

TEST(DegradationsTest, NoneWhenEverythingConfiguredIsInForce) {
    EXPECT_TRUE(Degradations(json::parse(kHealthy)).empty());
}

TEST(DegradationsTest, FailingWorkAMissingAddressEth0DownAndAnUnusableFile) {
    json doc = json::parse(kHealthy);
    doc["work"]["bridge"]["failing"] = true;
    doc["work"]["bridge"]["last_failure"] = {
        {"command", "ip link add name br0 type bridge"}, {"outcome", "exit status 1"}, {"at", "x"}};
    doc["interfaces"][0]["address"] = nullptr;
    doc["eth0"]["link"] = "down";
    doc["configuration"]["usable"] = false;
    // The first cause first: the file, the bridge, eth0's link, and the address they keep away.
    const std::vector<std::string> expected = {
        "configuration file /etc/tessel-networkd.conf is not usable",
        "bridge build failing (ip link add name br0 type bridge: exit status 1)",
        "eth0's link is down",
        "veth1 has no address in force",
    };
    EXPECT_EQ(Degradations(doc), expected);
}

TEST(DegradationsTest, TheIsolationNotInForceAndItsRepairFailing) {
    json doc = json::parse(kHealthy);
    doc["isolation"] = {{"required", true},
                        {"in_force", false},
                        {"verified_at", "2026-11-23T16:21:50+00:00"},
                        {"problem", "0 of 38 ARP rules in place"}};
    EXPECT_EQ(Degradations(doc), std::vector<std::string>{"isolation of eth0 and eth1 is not in force"});
    doc["work"]["isolation"]["failing"] = true;
    doc["work"]["isolation"]["failures"] = 1;
    doc["work"]["isolation"]["last_failure"] = {
        {"command", "arptables -A FORWARD -i eth1 -j DROP"}, {"outcome", "exit status 4"}, {"at", "x"}};
    // The isolation not in force is the cause; its failing repair is why it stays so.
    const std::vector<std::string> expected = {
        "isolation of eth0 and eth1 is not in force",
        "isolation repair failing (arptables -A FORWARD -i eth1 -j DROP: exit status 4)",
    };
    EXPECT_EQ(Degradations(doc), expected);
}

TEST(DegradationsTest, AnOutsideChangeCountsUntilItIsRepaired) {
    json doc = json::parse(kHealthy);
    doc["work"]["bridge"]["outside_changes"] = 2;
    doc["work"]["bridge"]["last_outside_change"] = {
        {"found", "br0 was removed"}, {"at", "2026-11-25T16:21:50+00:00"}, {"repaired", false}};
    EXPECT_EQ(Degradations(doc),
              std::vector<std::string>{"bridge build undone from outside, not yet repaired (br0 was removed)"});
    const std::string table = StatusTable(doc, true, Degradations(doc), false);
    EXPECT_NE(table.find("\nUNDONE  IN A ROW  AT                REPAIRED  LAST\n"
                         "bridge  2         2026-11-25 16:21  not yet   br0 was removed\n"),
              std::string::npos)
        << table;
    doc["work"]["bridge"]["last_outside_change"]["repaired"] = true;
    EXPECT_TRUE(Degradations(doc).empty());
    // A device nobody touched shows no such table.
    EXPECT_EQ(StatusTable(json::parse(kHealthy), true, {}, false).find("UNDONE"), std::string::npos);
}

TEST(DegradationsTest, TheIsolationCountsOnlyWhereItIsRequired) {
    json doc = json::parse(kHealthy);
    doc["bridge_mode"] = "eth0";
    doc["isolation"] = {{"required", false}, {"in_force", false}, {"verified_at", nullptr}, {"problem", nullptr}};
    EXPECT_TRUE(Degradations(doc).empty());
    // A daemon that knows no isolation says nothing of it.
    doc = json::parse(kHealthy);
    doc.erase("isolation");
    doc["work"].erase("isolation");
    EXPECT_TRUE(Degradations(doc).empty());
}

TEST(DegradationsTest, Eth0DownCountsOnlyInAModeThatBridgesIt) {
    json doc = json::parse(kHealthy);
    doc["eth0"] = {{"used", false}, {"link", nullptr}, {"recoveries", 0}, {"last_recovery", nullptr}};
    EXPECT_TRUE(Degradations(doc).empty());
}

TEST(DegradationsTest, ADocumentOfAnotherShapeIsReadWithoutACrash) {
    EXPECT_NO_THROW(Degradations(json::parse(R"({"schema": 2, "work": [1, 2], "interfaces": {"a": 1}})")));
    EXPECT_NO_THROW(StatusTable(json::parse(R"({"schema": 2, "eth0": 3, "interfaces": [1, "x"]})"), true, {}, false));
}

TEST(DaemonRunningTest, ByNameOrByAnArgumentAndNeverAZombie) {
    TempDir proc;
    FakeProcess(proc, 10, 'S', "tessel-networkd", Cmdline({"tessel-networkd", "--config", "/x"}));
    FakeProcess(proc, 11, 'S', "qemu-arm",
                Cmdline({"/usr/bin/qemu-arm", "-L", "/usr/arm-linux-gnueabihf", "/work/tessel-networkd"}));
    FakeProcess(proc, 12, 'Z', "tessel-networkd", "");
    FakeProcess(proc, 13, 'S', "sleep", Cmdline({"sleep", "tessel-networkd"}));
    FakeProcess(proc, 14, 'S', "bash", Cmdline({"bash", "-c", "x", "y", "/tessel-networkd"}));
    EXPECT_TRUE(DaemonRunning(10, proc.Path()));
    EXPECT_TRUE(DaemonRunning(11, proc.Path()));
    EXPECT_FALSE(DaemonRunning(12, proc.Path()));
    // Among the first arguments, as an emulator runs it; further on it does not count.
    EXPECT_TRUE(DaemonRunning(13, proc.Path()));
    EXPECT_FALSE(DaemonRunning(14, proc.Path()));
    EXPECT_FALSE(DaemonRunning(15, proc.Path()));
    EXPECT_FALSE(DaemonRunning(0, proc.Path()));
}

TEST(DaemonRunningTest, ThisProcessIsNoDaemon) { EXPECT_FALSE(DaemonRunning(getpid())); }

TEST(StatusTableTest, NamesEveryInterfaceWithWhatIsInForce) {
    const json doc = json::parse(kHealthy);
    const std::string table = StatusTable(doc, true, Degradations(doc), false);
    EXPECT_NE(table.find("State:          healthy"), std::string::npos) << table;
    EXPECT_NE(table.find("/etc/tessel-networkd.conf (usable)"), std::string::npos) << table;
    EXPECT_NE(table.find("eth0:           up, 2 recoveries, last 2026-11-23T16:20:00+00:00"), std::string::npos)
        << table;
    EXPECT_NE(table.find("\nveth1:          dhcp 192.168.77.100/24 via 192.168.77.1, metric 10\n"
                         "                lease, taken 16:17:40, 4m20s old\n"
                         "                DHCP client pid 51, 1 started\n"
                         "veth3:          static 10.253.254.253/24, no gateway, metric 100\n"),
              std::string::npos)
        << table;
    EXPECT_EQ(table.find('\033'), std::string::npos) << "colour without a terminal";
    EXPECT_NE(StatusTable(doc, true, {}, true).find("\033[32mhealthy\033[0m"), std::string::npos);
}

TEST(StatusTableTest, TheIsolationInForceWithTheTimeOfItsLastLook) {
    const json doc = json::parse(kHealthy);
    const std::string table = StatusTable(doc, true, Degradations(doc), false);
    EXPECT_NE(table.find("\nIsolation:      in force (verified 16:21:50)\n"), std::string::npos) << table;
    EXPECT_NE(table.find("\nisolation  ok     0         -          -\n"), std::string::npos) << table;
    EXPECT_NE(StatusTable(doc, true, {}, true).find("Isolation:      \033[32min force (verified 16:21:50)\033[0m\n"),
              std::string::npos);
}

TEST(StatusTableTest, ALongProblemOfTheIsolationIsWrappedWithin80Columns) {
    json doc = json::parse(kHealthy);
    doc["isolation"] = {
        {"required", true},
        {"in_force", false},
        {"verified_at", "2026-11-23T16:21:50+00:00"},
        {"problem",
         "0 of 38 ARP rules in place; 3 of 12 IP rules in place; 0 of 22 link-layer rules in place; br0 passes no "
         "bridged IPv4 to iptables; br0 passes no bridged ARP to arptables; someone flushed the FORWARD chains "
         "while the daemon was looking"}};
    const std::string table = StatusTable(doc, true, Degradations(doc), false);
    EXPECT_EQ(Head(table),
              "tessel-networkd 1.0.0, pid 42, started 2026-11-23T16:17:36+00:00\n"
              "State:          degraded\n"
              "First cause:    isolation of eth0 and eth1 is not in force\n"
              "What to do:     see Isolation below and the log; the daemon puts the rules back\n"
              "Configuration:  /etc/tessel-networkd.conf (usable)\n"
              "Bridge mode:    eth0eth1 (configured eth0eth1)\n"
              "PHY mode:       frame (configured frame)\n"
              "eth0:           up, 2 recoveries, last 2026-11-23T16:20:00+00:00\n"
              "Isolation:      NOT in force: 0 of 38 ARP rules in place; 3 of 12 IP rules in\n"
              "                  place; 0 of 22 link-layer rules in place; br0 passes no\n"
              "                  bridged IPv4 to iptables; br0 passes no bridged ARP to arpt...\n"
              "veth1:          dhcp 192.168.77.100/24 via 192.168.77.1, metric 10\n"
              "                lease, taken 16:17:40, 4m20s old\n"
              "                DHCP client pid 51, 1 started\n"
              "veth3:          static 10.253.254.253/24, no gateway, metric 100\n");
    EXPECT_EQ(LinesWiderThan80(Head(table)), std::vector<std::string>{});
    EXPECT_NE(StatusTable(doc, true, {}, true).find("Isolation:      \033[31mNOT in force: 0 of 38"),
              std::string::npos);
}

TEST(StatusTableTest, TheIsolationNotInForceWithoutAProblemAndNotRequired) {
    json doc = json::parse(kHealthy);
    // The two-port build failing: br0 is in no mode yet.
    doc["bridge_mode"] = nullptr;
    doc["isolation"] = {{"required", true}, {"in_force", false}, {"verified_at", nullptr}, {"problem", nullptr}};
    EXPECT_NE(StatusTable(doc, true, {}, false).find("\nIsolation:      NOT in force: br0 is not built for eth0eth1\n"),
              std::string::npos);
    doc["isolation"] = {{"required", false}, {"in_force", false}, {"verified_at", nullptr}, {"problem", nullptr}};
    EXPECT_NE(StatusTable(doc, true, {}, false).find("\nIsolation:      not required (no bridge built)\n"),
              std::string::npos);
    doc["bridge_mode"] = "eth1";
    const std::string table = StatusTable(doc, true, {}, true);
    EXPECT_NE(table.find("\nIsolation:      not required (bridge mode eth1)\n"), std::string::npos) << table;
    // A document without it (an older daemon's): no row.
    doc.erase("isolation");
    EXPECT_EQ(StatusTable(doc, true, {}, false).find("Isolation:"), std::string::npos);
}

TEST(StatusTableTest, AWordLongerThanALineIsCutAndControlCharactersNeverShow) {
    json doc = json::parse(kHealthy);
    doc["isolation"] = {{"required", true},
                        {"in_force", false},
                        {"verified_at", nullptr},
                        {"problem", std::string(70, 'x') + "\033[2J"}};
    const std::string head = Head(StatusTable(doc, true, {}, false));
    EXPECT_NE(head.find("\nIsolation:      NOT in force:\n"
                        "                  xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx\n"
                        "                  xxxxxxxx?[2J\n"),
              std::string::npos)
        << head;
    EXPECT_EQ(head.find('\033'), std::string::npos);
    EXPECT_EQ(LinesWiderThan80(head), std::vector<std::string>{});
}

TEST(StatusTableTest, ANotRunningDaemonAndControlCharactersFromTheDocument) {
    json doc = json::parse(kHealthy);
    doc["configuration"]["path"] = "/etc/\033[2Jx.conf";
    const std::string table = StatusTable(doc, false, {}, false);
    EXPECT_NE(table.find("State:          not running"), std::string::npos) << table;
    EXPECT_NE(table.find("/etc/?[2Jx.conf"), std::string::npos) << table;
    EXPECT_EQ(table.find('\033'), std::string::npos);
}

TEST(StatusTableTest, AnIsolationNotLookedAtWithinItsPeriodIsNotShownInForce) {
    // 2026-11-23T16:23:00Z: the last look, at 16:21:50, is 70 s old.
    FixedClock now(1795450980, 0);
    const json doc = json::parse(kHealthy);
    const std::string table = StatusTable(doc, true, Degradations(doc), false);
    EXPECT_NE(table.find("\nIsolation:      NOT verified since 16:21:50\n"), std::string::npos) << table;
    EXPECT_EQ(Degradations(doc), std::vector<std::string>{"isolation of eth0 and eth1 not verified since 16:21:50"});
}

// A command as long as the build's longest, and a failure of it.
const char kLongCommand[] =
    "iptables -w -A FORWARD -m physdev --physdev-is-bridged --physdev-in eth1 --physdev-out veth3 -j DROP "
    "-m comment --comment tessel-networkd";

json Failing(const char* command, const char* outcome) {
    return {{"failing", true},
            {"failures", 7},
            {"last_failure", {{"command", command}, {"outcome", outcome}, {"at", "2026-11-23T16:21:40+00:00"}}},
            {"recovered_at", nullptr}};
}

// One document of each state the status can show, what it renders as its first
// cause (empty: healthy), and whether its daemon runs.
struct STATE_CASE {
    std::string m_name;
    json m_document;
    bool m_bRunning;
    std::string m_firstCause;
};

std::vector<STATE_CASE> EveryState() {
    std::vector<STATE_CASE> cases;
    const json healthy = json::parse(kHealthy);
    cases.push_back({"healthy", healthy, true, ""});

    json starting = healthy;
    starting["configuration"] = {
        {"path", "/etc/tessel-networkd.conf"}, {"read", false},          {"usable", false},
        {"problems", json::array()},           {"bridge_mode", nullptr}, {"phy_mode", nullptr}};
    starting["bridge_mode"] = nullptr;
    starting["phy_mode"] = nullptr;
    starting["isolation"] = {
        {"required", false}, {"in_force", false}, {"verified_at", nullptr}, {"problem", nullptr}, {"partial", nullptr}};
    for (json& iface : starting["interfaces"]) {
        iface["address"] = nullptr;
        iface["from_dhcp"] = false;
        iface["lease_at"] = nullptr;
    }
    cases.push_back({"starting", starting, true, "the daemon's first pass has not ended yet"});

    for (const char* name : {"startup", "bridge", "registers", "phy", "veth1", "veth3", "isolation", "links", "ports",
                             "macs", "eth0_port"}) {
        json failing = healthy;
        failing["work"][name] = Failing(kLongCommand, "ended after its deadline");
        cases.push_back({std::string("failing ") + name, failing, true, ""});
    }

    json notInForce = healthy;
    notInForce["isolation"]["in_force"] = false;
    notInForce["isolation"]["problem"] = std::string(
        "a rule of another program ahead of the IP rules: -A FORWARD -i eth1 -o veth3 -m state "
        "--state RELATED,ESTABLISHED -j ACCEPT -m comment --comment \"site policy 12\"");
    notInForce["work"]["isolation"] = Failing(kLongCommand, "exit status 4");
    cases.push_back({"isolation not in force", notInForce, true, "isolation of eth0 and eth1 is not in force"});

    json partial = healthy;
    partial["isolation"]["partial"] =
        "ebtables cannot use the kernel's nat table: ebtables -t nat -L --Lc --Ln (exit status 255)";
    cases.push_back({"isolation partial", partial, true, "isolation of eth0 and eth1 is partial (ARP and IPv4 only)"});

    json unverified = healthy;
    unverified["isolation"]["verified_at"] = "2026-11-23T16:01:50+00:00";
    cases.push_back(
        {"isolation unverified", unverified, true, "isolation of eth0 and eth1 not verified since 16:01:50"});

    json unusable = healthy;
    unusable["configuration"]["path"] = "/etc/tessel-networkd/site-configurations/north-building-floor-2.conf";
    unusable["configuration"]["usable"] = false;
    unusable["configuration"]["last_usable_supervised"] = true;
    unusable["configuration"]["problems"] = {"Invalid static subnet mask veth3",
                                             "Unable to read configuration file " + std::string(60, 'p') + ".conf",
                                             "No veth1 line in config file"};
    unusable["work"]["bridge"] = Failing("ip link add name br0 type bridge", "exit status 2");
    unusable["eth0"]["link"] = "down";
    unusable["interfaces"][0]["address"] = nullptr;
    cases.push_back({"configuration unusable", unusable, true, "configuration file"});

    json undone = healthy;
    undone["work"]["links"]["outside_changes"] = 3;
    undone["work"]["links"]["last_outside_change"] = {{"found", "veth3 was set down " + std::string(80, 'w')},
                                                      {"at", "2026-11-23T16:21:55+00:00"},
                                                      {"repaired", false}};
    cases.push_back({"undone from outside", undone, true, ""});

    cases.push_back({"daemon stopped", notInForce, false, "tessel-networkd is not running: this status is stale"});
    return cases;
}

// The line of `text` that starts with `label`, empty when none does.
std::string LineOf(const std::string& text, const std::string& label) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, label.size(), label) == 0) return line;
    }
    return "";
}

TEST(StatusWidthTest, EveryStateFits80ColumnsAndFullShowsLongTextsWhole) {
    const FixedClock now(1795450920, 0);
    for (const STATE_CASE& state : EveryState()) {
        const std::vector<std::string> reasons = Degradations(state.m_document);
        const std::string table = StatusTable(state.m_document, state.m_bRunning, reasons, false);
        EXPECT_EQ(LinesWiderThan80(table), std::vector<std::string>{}) << state.m_name << "\n" << table;
        // In colour too: the codes take no columns, and a cut one is closed.
        std::string plain;
        const std::string coloured = StatusTable(state.m_document, state.m_bRunning, reasons, true);
        for (size_t i = 0; i < coloured.size(); ++i) {
            if (coloured[i] == '\033') {
                i = coloured.find('m', i);
                continue;
            }
            plain += coloured[i];
        }
        EXPECT_EQ(LinesWiderThan80(plain), std::vector<std::string>{}) << state.m_name << "\n" << coloured;
        const std::string full = StatusTable(state.m_document, state.m_bRunning, reasons, false, true);
        for (const std::string& reason : reasons) EXPECT_NE(full.find(reason), std::string::npos) << state.m_name;
    }
}

TEST(StatusWidthTest, FullShowsTheWholeCommandAndProblem) {
    const FixedClock now(1795450920, 0);
    json doc = json::parse(kHealthy);
    doc["work"]["bridge"] = Failing(kLongCommand, "exit status 1");
    const std::string cut = StatusTable(doc, true, Degradations(doc), false);
    EXPECT_EQ(cut.find(kLongCommand), std::string::npos) << cut;
    // Wrapped within 80 columns, and the work's row wrapped under its column and cut with "...".
    EXPECT_NE(cut.find("\nFirst cause:    bridge build failing (iptables -w -A FORWARD -m physdev\n"
                       "                  --physdev-is-bridged --physdev-in eth1 --physdev-out veth3 -j\n"),
              std::string::npos)
        << cut;
    EXPECT_NE(cut.find("\nbridge     failing  7         -          16:21:40 iptables -w -A FORWARD -m\n"
                       "                                           physdev --physdev-is-bridged\n"
                       "                                           --physdev-in eth1 --physdev-out ve...\n"),
              std::string::npos)
        << cut;
    const std::string full = StatusTable(doc, true, Degradations(doc), false, true);
    EXPECT_NE(full.find("First cause:    bridge build failing (" + std::string(kLongCommand) + ": exit status 1)\n"),
              std::string::npos)
        << full;
    EXPECT_NE(full.find("2026-11-23T16:21:40+00:00 " + std::string(kLongCommand) + ": exit status 1\n"),
              std::string::npos)
        << full;
}

TEST(StatusCauseTest, EachStateLeadsWithItsFirstCauseAndWhatToDo) {
    const FixedClock now(1795450920, 0);
    for (const STATE_CASE& state : EveryState()) {
        const std::vector<std::string> reasons = Degradations(state.m_document);
        const std::string table = StatusTable(state.m_document, state.m_bRunning, reasons, false);
        const std::string first = LineOf(table, "First cause:");
        if (state.m_name == "healthy") {
            EXPECT_EQ(first, "") << table;
            EXPECT_EQ(LineOf(table, "State:"), "State:          healthy");
            continue;
        }
        ASSERT_NE(first, "") << state.m_name << "\n" << table;
        if (!state.m_firstCause.empty()) {
            EXPECT_EQ(first, "First cause:    " + state.m_firstCause) << state.m_name << "\n" << table;
        }
        // The cause and what to do come right after the state, before anything else.
        const size_t stateAt = table.find("\nState:");
        EXPECT_EQ(table.find("\nFirst cause:"), table.find('\n', stateAt + 1)) << state.m_name << "\n" << table;
        EXPECT_NE(LineOf(table, "What to do:     "), "") << state.m_name << "\n" << table;
    }
}

TEST(StatusCauseTest, TheRootCauseComesFirst) {
    const FixedClock now(1795450920, 0);
    const std::vector<STATE_CASE> cases = EveryState();
    for (const STATE_CASE& state : cases) {
        if (state.m_name == "configuration unusable") {
            // Before the bridge build it stops, eth0's link, and veth1's missing address.
            const std::vector<std::string> reasons = Degradations(state.m_document);
            ASSERT_EQ(reasons.size(), 4u);
            EXPECT_EQ(reasons[1], "bridge build failing (ip link add name br0 type bridge: exit status 2)");
            EXPECT_EQ(reasons[2], "eth0's link is down");
            EXPECT_EQ(reasons[3], "veth1 has no address in force");
            const std::string table = StatusTable(state.m_document, true, reasons, false);
            EXPECT_EQ(LineOf(table, "What to do:"),
                      "What to do:     run tessel-networkctl check "
                      "/etc/tessel-networkd/site-configu...");
            EXPECT_EQ(LineOf(table, "State:"), "State:          degraded, 4 causes");
            EXPECT_EQ(LineOf(table, "Also:"),
                      "Also:           bridge build failing (ip link add name br0 type bridge: exit");
        }
        if (state.m_name == "starting") {
            EXPECT_EQ(LineOf(StatusTable(state.m_document, true, Degradations(state.m_document), false), "State:"),
                      "State:          starting");
        }
        if (state.m_name == "daemon stopped") {
            const std::string table = StatusTable(state.m_document, false, Degradations(state.m_document), false);
            EXPECT_EQ(LineOf(table, "What to do:"),
                      "What to do:     start it (systemctl start tessel-networkd), then see its log");
            // What it last reported follows, the isolation first.
            EXPECT_EQ(LineOf(table, "Also:"), "Also:           isolation of eth0 and eth1 is not in force");
        }
    }
    // A failing PHY mode before the isolation and the addresses it keeps away.
    json doc = json::parse(kHealthy);
    doc["work"]["phy"] = Failing("ip link set eth1 down", "exit status 1");
    doc["isolation"]["in_force"] = false;
    doc["interfaces"][0]["address"] = nullptr;
    const std::vector<std::string> expected = {
        "PHY mode failing (ip link set eth1 down: exit status 1)",
        "isolation of eth0 and eth1 is not in force",
        "veth1 has no address in force",
    };
    EXPECT_EQ(Degradations(doc), expected);
}

TEST(StatusCauseTest, NoRowContradictsTheHead) {
    const FixedClock now(1795450920, 0);
    for (const STATE_CASE& state : EveryState()) {
        const std::string table =
            StatusTable(state.m_document, state.m_bRunning, Degradations(state.m_document), false);
        const std::string isolationHead = LineOf(table, "Isolation:");
        const std::string isolationRow = LineOf(table, "isolation  ");
        if (isolationHead.find("NOT in force") != std::string::npos) {
            EXPECT_EQ(isolationRow.find(" ok "), std::string::npos) << state.m_name << "\n" << table;
            EXPECT_EQ(isolationRow.find(" recovered "), std::string::npos) << state.m_name << "\n" << table;
        }
        if (isolationHead.find("NOT verified") != std::string::npos) {
            EXPECT_EQ(isolationRow.compare(0, 22, "isolation  unverified "), 0) << state.m_name << "\n" << table;
        }
        if (isolationHead.find("PARTIAL") != std::string::npos) {
            EXPECT_EQ(isolationRow.compare(0, 19, "isolation  partial "), 0) << state.m_name << "\n" << table;
        }
        if (table.find("veth1:          dhcp no address in force") != std::string::npos) {
            EXPECT_EQ(LineOf(table, "veth1  ").find(" ok "), std::string::npos) << state.m_name << "\n" << table;
        }
        if (state.m_name == "undone from outside") {
            EXPECT_EQ(LineOf(table, "links  ").find(" ok "), std::string::npos) << table;
        }
    }
    // The case the table once showed: "isolation ok 0" under "Isolation: NOT in force".
    json doc = json::parse(kHealthy);
    doc["isolation"]["in_force"] = false;
    doc["isolation"]["problem"] = "0 of 38 ARP rules in place";
    const std::string table = StatusTable(doc, true, Degradations(doc), false);
    EXPECT_EQ(LineOf(table, "isolation  "), "isolation  NOT in force  0         -          -") << table;
}

TEST(StatusTableTest, Eth1sLinkAndTheLeasesServerWhenTheDocumentHasThem) {
    const FixedClock now(1795450920, 0);
    json doc = json::parse(kHealthy);
    EXPECT_EQ(LineOf(StatusTable(doc, true, {}, false), "eth1:"), "");
    doc["eth1"] = {{"link", "down"}};
    doc["interfaces"][0]["lease_server"] = "192.168.77.1";
    const std::string table = StatusTable(doc, true, {}, false);
    EXPECT_EQ(LineOf(table, "eth1:"), "eth1:           link down") << table;
    EXPECT_NE(table.find("\n                lease from 192.168.77.1, taken 16:17:40, 4m20s old\n"), std::string::npos)
        << table;
    doc["eth1"]["link"] = nullptr;
    EXPECT_EQ(LineOf(StatusTable(doc, true, {}, false), "eth1:"), "eth1:           link not known");
}

TEST(StatusTableTest, AStreakOfEth0RecoveriesLeadsTheCauseAndHasItsRow) {
    const FixedClock now(1795450920, 0);
    json doc = json::parse(kHealthy);
    doc["eth0"]["link"] = "down";
    doc["eth0"]["streak"] = {{"recoveries", 42}, {"since", "2026-11-23T16:20:00+00:00"}};
    const std::string table = StatusTable(doc, true, Degradations(doc), false);
    EXPECT_EQ(LineOf(table, "First cause:"), "First cause:    eth0's link is down (42 recoveries since 16:20:00)")
        << table;
    EXPECT_NE(table.find("\n                streak: 42 recoveries since 16:20:00\n"), std::string::npos) << table;
    EXPECT_EQ(LinesWiderThan80(table), std::vector<std::string>{});
    // One recovery is no streak yet; none at all, no row.
    doc["eth0"]["streak"]["recoveries"] = 1;
    EXPECT_EQ(StatusTable(doc, true, Degradations(doc), false).find("streak:"), std::string::npos);
    EXPECT_EQ(LineOf(StatusTable(doc, true, Degradations(doc), false), "First cause:"),
              "First cause:    eth0's link is down");
    doc["eth0"]["streak"] = nullptr;
    EXPECT_EQ(StatusTable(doc, true, Degradations(doc), false).find("streak:"), std::string::npos);
}

}  // namespace
