#include "ctl/StatusView.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
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
    const std::vector<std::string> expected = {
        "configuration file /etc/tessel-networkd.conf is not usable",
        "bridge build failing (ip link add name br0 type bridge: exit status 1)",
        "veth1 has no address in force",
        "eth0's link is down",
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
    const std::vector<std::string> expected = {
        "isolation repair failing (arptables -A FORWARD -i eth1 -j DROP: exit status 4)",
        "isolation of eth0 and eth1 is not in force",
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
    EXPECT_NE(table.find("\nUNDONE  IN A ROW  LAST             AT                         REPAIRED\n"
                         "bridge  2         br0 was removed  2026-11-25T16:21:50+00:00  not yet\n"),
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
    EXPECT_NE(table.find("veth1      dhcp"), std::string::npos) << table;
    EXPECT_NE(table.find("192.168.77.100"), std::string::npos) << table;
    EXPECT_NE(table.find("lease 2026-11-23T16:17:40+00:00"), std::string::npos) << table;
    EXPECT_NE(table.find("pid 51, 1 started"), std::string::npos) << table;
    EXPECT_NE(table.find("static 10.253.254.253/255.255.255.0"), std::string::npos) << table;
    EXPECT_EQ(table.find('\033'), std::string::npos) << "colour without a terminal";
    EXPECT_NE(StatusTable(doc, true, {}, true).find("\033[32mhealthy\033[0m"), std::string::npos);
}

TEST(StatusTableTest, TheIsolationInForceWithTheTimeOfItsLastLook) {
    const json doc = json::parse(kHealthy);
    const std::string table = StatusTable(doc, true, Degradations(doc), false);
    EXPECT_NE(table.find("\nIsolation:      in force (verified 16:21:50)\n"), std::string::npos) << table;
    EXPECT_NE(table.find("\nisolation  ok     0         -             -\n"), std::string::npos) << table;
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
              "                isolation of eth0 and eth1 is not in force\n"
              "Configuration:  /etc/tessel-networkd.conf (usable)\n"
              "Bridge mode:    eth0eth1 (configured eth0eth1)\n"
              "PHY mode:       frame (configured frame)\n"
              "eth0:           up, 2 recoveries, last 2026-11-23T16:20:00+00:00\n"
              "Isolation:      NOT in force: 0 of 38 ARP rules in place; 3 of 12 IP rules in\n"
              "                  place; 0 of 22 link-layer rules in place; br0 passes no\n"
              "                  bridged IPv4 to iptables; br0 passes no bridged ARP to arpt...\n");
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
    EXPECT_EQ(Degradations(doc),
              std::vector<std::string>{"isolation of eth0 and eth1 not verified since 2026-11-23T16:21:50+00:00"});
}

}  // namespace
