#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "src/NetworkConfig.h"
#include "src/NetworkCycle.h"
#include "src/NetworkStatus.h"
#include "src/NetworkStatusFile.h"
#include "src/NetworkStatusJson.h"
#include "src/NetworkStatusMetrics.h"
#include "src/NetworkStatusSnapshot.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetworkRecords.h"
#include "tests/support/StatusDaemon.h"
#include "tests/support/TempDir.h"

namespace {

// A two-port device in good health: the isolation whole, veth1 with a lease, veth3 static.
STATUS_SNAPSHOT Healthy() {
    STATUS_SNAPSHOT s;
    s.m_bConfigRead = true;
    s.m_bConfigUsable = true;
    s.m_bConfigured = true;
    s.m_eConfiguredBridgeMode = BRIDGE_MODE_ETH0ETH1;
    s.m_eConfiguredPhyMode = PHY_MODE_SGMII;
    s.m_bBridgeInForce = true;
    s.m_eBridgeMode = BRIDGE_MODE_ETH0ETH1;
    s.m_bPhyInForce = true;
    s.m_ePhyMode = PHY_MODE_SGMII;
    s.m_bEth0Used = true;
    s.m_bEth0LinkUp = true;
    s.m_eEth1Link = STATUS_LINK_UP;
    s.m_veth1.m_bShown = true;
    s.m_veth1.m_bRequested = true;
    s.m_veth1.m_requested = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    s.m_veth1.m_bInForce = true;
    s.m_veth1.m_bFromDhcp = true;
    s.m_veth1.m_address = Ip("192.168.77.100");
    s.m_veth1.m_leaseAt = {kStatusInstant + 5, 0};
    s.m_veth1.m_nClientStarts = 1;
    s.m_veth3.m_bShown = true;
    s.m_veth3.m_bRequested = true;
    s.m_veth3.m_requested = IpConfig(false, "10.253.254.253", "255.255.255.0", "0.0.0.0");
    s.m_veth3.m_bInForce = true;
    s.m_isolation.m_bRequired = true;
    s.m_isolation.m_bInForce = true;
    s.m_isolation.m_verifiedAt = {kStatusInstant + 30, 0};
    return s;
}

// The lines of `text` that start with `prefix`, in order.
std::string LinesStartingWith(const std::string& text, const std::string& prefix) {
    std::string lines;
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end - at);
        if (line.rfind(prefix, 0) == 0) lines += line + "\n";
        at = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

// The samples alone, without HELP and TYPE lines.
std::string Samples(const std::string& text) { return LinesStartingWith(text, "tessel_networkd_"); }

TEST(StatusMetricsTest, AHealthyTwoPortDeviceWholeWithHelpAndTypeLines) {
    EXPECT_EQ(StatusMetrics(StatusDaemon(), Healthy()), R"(# HELP tessel_networkd_info The daemon's version; always 1.
# TYPE tessel_networkd_info gauge
tessel_networkd_info{version="1.2.3"} 1
# HELP tessel_networkd_start_time_seconds When the daemon started, in seconds since 1970.
# TYPE tessel_networkd_start_time_seconds gauge
tessel_networkd_start_time_seconds 2147483647
# HELP tessel_networkd_state The device's state as tessel-networkctl status judges it: 1 for the current one (starting, healthy, degraded).
# TYPE tessel_networkd_state gauge
tessel_networkd_state{state="starting"} 0
tessel_networkd_state{state="healthy"} 1
tessel_networkd_state{state="degraded"} 0
# HELP tessel_networkd_configuration_usable 1 when the last read of the configuration file was usable.
# TYPE tessel_networkd_configuration_usable gauge
tessel_networkd_configuration_usable 1
# HELP tessel_networkd_configuration_problems Problems the last read of the configuration file found.
# TYPE tessel_networkd_configuration_problems gauge
tessel_networkd_configuration_problems 0
# HELP tessel_networkd_bridge_mode The bridge mode in force, always 1; absent while no build is in force.
# TYPE tessel_networkd_bridge_mode gauge
tessel_networkd_bridge_mode{mode="eth0eth1"} 1
# HELP tessel_networkd_phy_mode The PHY mode in force, always 1; absent while none is.
# TYPE tessel_networkd_phy_mode gauge
tessel_networkd_phy_mode{mode="frame"} 1
# HELP tessel_networkd_isolation The two-port isolation of eth0 and eth1: 1 for its current state (not_required, in_force, partial: ARP and IPv4 only, not_in_force).
# TYPE tessel_networkd_isolation gauge
tessel_networkd_isolation{state="not_required"} 0
tessel_networkd_isolation{state="in_force"} 1
tessel_networkd_isolation{state="partial"} 0
tessel_networkd_isolation{state="not_in_force"} 0
# HELP tessel_networkd_isolation_verified_timestamp_seconds When a look last found the isolation whole, in seconds since 1970; absent when none has.
# TYPE tessel_networkd_isolation_verified_timestamp_seconds gauge
tessel_networkd_isolation_verified_timestamp_seconds 2147483677
# HELP tessel_networkd_eth0_used 1 when the bridge in force has eth0 as a port.
# TYPE tessel_networkd_eth0_used gauge
tessel_networkd_eth0_used 1
# HELP tessel_networkd_eth0_link_up 1 when eth0's link is up, 0 down; absent when eth0 is not used.
# TYPE tessel_networkd_eth0_link_up gauge
tessel_networkd_eth0_link_up 1
# HELP tessel_networkd_eth0_recoveries_total eth0 links found down and bounced, with its register writes, since the daemon started.
# TYPE tessel_networkd_eth0_recoveries_total counter
tessel_networkd_eth0_recoveries_total 0
# HELP tessel_networkd_eth0_last_recovery_timestamp_seconds When eth0 was last bounced, in seconds since 1970; absent when never.
# TYPE tessel_networkd_eth0_last_recovery_timestamp_seconds gauge
# HELP tessel_networkd_eth0_recovery_streak Recoveries of eth0 in the streak going on; 0 when none is.
# TYPE tessel_networkd_eth0_recovery_streak gauge
tessel_networkd_eth0_recovery_streak 0
# HELP tessel_networkd_eth1_link_up 1 when eth1's link is up, 0 down; absent when not known.
# TYPE tessel_networkd_eth1_link_up gauge
tessel_networkd_eth1_link_up 1
# HELP tessel_networkd_interface_address 1 when a served interface has its address in force.
# TYPE tessel_networkd_interface_address gauge
tessel_networkd_interface_address{interface="veth1"} 1
tessel_networkd_interface_address{interface="veth3"} 1
# HELP tessel_networkd_interface_dhcp 1 when a served interface is asked to take its address by DHCP, 0 static.
# TYPE tessel_networkd_interface_dhcp gauge
tessel_networkd_interface_dhcp{interface="veth1"} 1
tessel_networkd_interface_dhcp{interface="veth3"} 0
# HELP tessel_networkd_lease_timestamp_seconds When the DHCP lease in force was taken up, in seconds since 1970; absent without one. Its age is time() minus this.
# TYPE tessel_networkd_lease_timestamp_seconds gauge
tessel_networkd_lease_timestamp_seconds{interface="veth1"} 2147483652
# HELP tessel_networkd_dhcp_client_starts_total DHCP clients started for an interface since the daemon started.
# TYPE tessel_networkd_dhcp_client_starts_total counter
tessel_networkd_dhcp_client_starts_total{interface="veth1"} 1
tessel_networkd_dhcp_client_starts_total{interface="veth3"} 0
# HELP tessel_networkd_work_failing 1 while a kind of work is failing (retried after 1, 2, 4 ... 60 s).
# TYPE tessel_networkd_work_failing gauge
tessel_networkd_work_failing{work="startup"} 0
tessel_networkd_work_failing{work="bridge"} 0
tessel_networkd_work_failing{work="registers"} 0
tessel_networkd_work_failing{work="phy"} 0
tessel_networkd_work_failing{work="veth1"} 0
tessel_networkd_work_failing{work="veth3"} 0
tessel_networkd_work_failing{work="isolation"} 0
tessel_networkd_work_failing{work="links"} 0
tessel_networkd_work_failing{work="ports"} 0
tessel_networkd_work_failing{work="macs"} 0
tessel_networkd_work_failing{work="eth0_port"} 0
# HELP tessel_networkd_work_failures Failed attempts of a kind of work since its last success.
# TYPE tessel_networkd_work_failures gauge
tessel_networkd_work_failures{work="startup"} 0
tessel_networkd_work_failures{work="bridge"} 0
tessel_networkd_work_failures{work="registers"} 0
tessel_networkd_work_failures{work="phy"} 0
tessel_networkd_work_failures{work="veth1"} 0
tessel_networkd_work_failures{work="veth3"} 0
tessel_networkd_work_failures{work="isolation"} 0
tessel_networkd_work_failures{work="links"} 0
tessel_networkd_work_failures{work="ports"} 0
tessel_networkd_work_failures{work="macs"} 0
tessel_networkd_work_failures{work="eth0_port"} 0
# HELP tessel_networkd_work_last_failure_timestamp_seconds When a kind of work last failed, in seconds since 1970; absent when it never did.
# TYPE tessel_networkd_work_last_failure_timestamp_seconds gauge
# HELP tessel_networkd_work_outside_changes Outside changes in a row that undid a kind of work.
# TYPE tessel_networkd_work_outside_changes gauge
tessel_networkd_work_outside_changes{work="startup"} 0
tessel_networkd_work_outside_changes{work="bridge"} 0
tessel_networkd_work_outside_changes{work="registers"} 0
tessel_networkd_work_outside_changes{work="phy"} 0
tessel_networkd_work_outside_changes{work="veth1"} 0
tessel_networkd_work_outside_changes{work="veth3"} 0
tessel_networkd_work_outside_changes{work="isolation"} 0
tessel_networkd_work_outside_changes{work="links"} 0
tessel_networkd_work_outside_changes{work="ports"} 0
tessel_networkd_work_outside_changes{work="macs"} 0
tessel_networkd_work_outside_changes{work="eth0_port"} 0
# HELP tessel_networkd_work_undone 1 while an outside change to a kind of work is not yet repaired.
# TYPE tessel_networkd_work_undone gauge
tessel_networkd_work_undone{work="startup"} 0
tessel_networkd_work_undone{work="bridge"} 0
tessel_networkd_work_undone{work="registers"} 0
tessel_networkd_work_undone{work="phy"} 0
tessel_networkd_work_undone{work="veth1"} 0
tessel_networkd_work_undone{work="veth3"} 0
tessel_networkd_work_undone{work="isolation"} 0
tessel_networkd_work_undone{work="links"} 0
tessel_networkd_work_undone{work="ports"} 0
tessel_networkd_work_undone{work="macs"} 0
tessel_networkd_work_undone{work="eth0_port"} 0
)");
}

// The bridge build failing for the third time, the isolation broken, eth0 down
// in a streak, a MAC set back from outside and not yet repaired.
TEST(StatusMetricsTest, ADegradedDevice) {
    STATUS_SNAPSHOT s = Healthy();
    s.m_bridge.m_nFailures = 3;
    s.m_bridge.m_command = "ip link add name br0 type bridge";
    s.m_bridge.m_failedAt = {kStatusInstant + 60, 0};
    s.m_isolation.m_bInForce = false;
    s.m_isolation.m_problem = "the ARP rules are missing";
    s.m_bEth0LinkUp = false;
    s.m_nEth0Recoveries = 7;
    s.m_eth0RecoveredAt = {kStatusInstant + 50, 0};
    s.m_nEth0StreakRecoveries = 4;
    s.m_eth0StreakSince = {kStatusInstant + 20, 0};
    s.m_eEth1Link = STATUS_LINK_UNKNOWN;
    s.m_macs.m_nUndone = 2;
    s.m_macs.m_undone = "veth1's MAC address was changed";
    s.m_macs.m_undoneAt = {kStatusInstant + 55, 0};
    s.m_macs.m_bUndonePending = true;
    EXPECT_EQ(StatusState(s), STATUS_STATE_DEGRADED);
    const std::string text = StatusMetrics(StatusDaemon(), s);
    EXPECT_EQ(Samples(LinesStartingWith(text, "tessel_networkd_state")),
              "tessel_networkd_state{state=\"starting\"} 0\n"
              "tessel_networkd_state{state=\"healthy\"} 0\n"
              "tessel_networkd_state{state=\"degraded\"} 1\n");
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_isolation"),
              "tessel_networkd_isolation{state=\"not_required\"} 0\n"
              "tessel_networkd_isolation{state=\"in_force\"} 0\n"
              "tessel_networkd_isolation{state=\"partial\"} 0\n"
              "tessel_networkd_isolation{state=\"not_in_force\"} 1\n"
              "tessel_networkd_isolation_verified_timestamp_seconds 2147483677\n");
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_eth"),
              "tessel_networkd_eth0_used 1\n"
              "tessel_networkd_eth0_link_up 0\n"
              "tessel_networkd_eth0_recoveries_total 7\n"
              "tessel_networkd_eth0_last_recovery_timestamp_seconds 2147483697\n"
              "tessel_networkd_eth0_recovery_streak 4\n");
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_work_failing{work=\"bridge\"}"),
              "tessel_networkd_work_failing{work=\"bridge\"} 1\n");
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_work_failures{work=\"bridge\"}"),
              "tessel_networkd_work_failures{work=\"bridge\"} 3\n");
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_work_last_failure_timestamp_seconds"),
              "tessel_networkd_work_last_failure_timestamp_seconds{work=\"bridge\"} 2147483707\n");
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_work_outside_changes{work=\"macs\"}"),
              "tessel_networkd_work_outside_changes{work=\"macs\"} 2\n");
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_work_undone{work=\"macs\"}"),
              "tessel_networkd_work_undone{work=\"macs\"} 1\n");
    // Every other work stays at 0; the families keep their HELP and TYPE lines.
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_work_undone{").size(),
              LinesStartingWith(StatusMetrics(StatusDaemon(), Healthy()), "tessel_networkd_work_undone{").size());
    EXPECT_NE(text.find("# TYPE tessel_networkd_eth1_link_up gauge\n# HELP tessel_networkd_interface_address "),
              std::string::npos);
}

// veth1 asks for DHCP and no lease has come: no address, no lease time, degraded.
TEST(StatusMetricsTest, NoLeaseLeavesTheLeaseTimeOut) {
    STATUS_SNAPSHOT s = Healthy();
    s.m_veth1.m_bInForce = false;
    s.m_veth1.m_bFromDhcp = false;
    s.m_veth1.m_address = {};
    s.m_veth1.m_leaseAt = {};
    const std::string text = StatusMetrics(StatusDaemon(), s);
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_interface_address"),
              "tessel_networkd_interface_address{interface=\"veth1\"} 0\n"
              "tessel_networkd_interface_address{interface=\"veth3\"} 1\n");
    EXPECT_EQ(LinesStartingWith(text, "# HELP tessel_networkd_lease_timestamp_seconds") +
                  LinesStartingWith(text, "# TYPE tessel_networkd_lease_timestamp_seconds") +
                  LinesStartingWith(text, "tessel_networkd_lease_timestamp_seconds"),
              "# HELP tessel_networkd_lease_timestamp_seconds When the DHCP lease in force was taken up, in seconds "
              "since 1970; absent without one. Its age is time() minus this.\n"
              "# TYPE tessel_networkd_lease_timestamp_seconds gauge\n");
    EXPECT_EQ(StatusState(s), STATUS_STATE_DEGRADED);
}

TEST(StatusMetricsTest, ALabelValueIsEscaped) {
    EXPECT_EQ(MetricsLabelValue("plain 1.2.3"), "plain 1.2.3");
    EXPECT_EQ(MetricsLabelValue("a \"b\" c\\d\ne"), "a \\\"b\\\" c\\\\d\\ne");
    STATUS_DAEMON daemon = StatusDaemon();
    daemon.m_version = "1.2.3 \"rc\" C:\\x\nnext";
    EXPECT_EQ(LinesStartingWith(StatusMetrics(daemon, Healthy()), "tessel_networkd_info"),
              "tessel_networkd_info{version=\"1.2.3 \\\"rc\\\" C:\\\\x\\nnext\"} 1\n");
}

TEST(StatusMetricsTest, TheStateFollowsWhatTheOperatorCommandCountsAsACause) {
    EXPECT_EQ(StatusState(STATUS_SNAPSHOT{}), STATUS_STATE_STARTING);
    EXPECT_EQ(StatusState(Healthy()), STATUS_STATE_HEALTHY);
    STATUS_SNAPSHOT s = Healthy();
    s.m_bConfigUsable = false;
    EXPECT_EQ(StatusState(s), STATUS_STATE_DEGRADED);
    s = Healthy();
    s.m_isolation.m_partial = "ebtables is not on PATH";
    EXPECT_EQ(StatusState(s), STATUS_STATE_DEGRADED);
    EXPECT_EQ(LinesStartingWith(StatusMetrics(StatusDaemon(), s), "tessel_networkd_isolation{state=\"partial\"}"),
              "tessel_networkd_isolation{state=\"partial\"} 1\n");
    s = Healthy();
    s.m_veth3.m_bInForce = false;
    EXPECT_EQ(StatusState(s), STATUS_STATE_DEGRADED);
    // An outside change already put back is no cause.
    s = Healthy();
    s.m_links.m_nUndone = 1;
    s.m_links.m_undoneAt = {kStatusInstant + 9, 0};
    EXPECT_EQ(StatusState(s), STATUS_STATE_HEALTHY);
    // A one-port mode: no eth0, no isolation, no veth3.
    s = Healthy();
    s.m_eBridgeMode = BRIDGE_MODE_ETH1;
    s.m_bEth0Used = false;
    s.m_bEth0LinkUp = false;
    s.m_isolation = {};
    s.m_veth3 = {};
    EXPECT_EQ(StatusState(s), STATUS_STATE_HEALTHY);
    const std::string text = StatusMetrics(StatusDaemon(), s);
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_eth0_link_up"), "");
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_isolation{state=\"not_required\"}"),
              "tessel_networkd_isolation{state=\"not_required\"} 1\n");
    EXPECT_EQ(LinesStartingWith(text, "tessel_networkd_interface_address"),
              "tessel_networkd_interface_address{interface=\"veth1\"} 1\n");
}

ino_t Inode(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

mode_t Mode(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? (status.st_mode & 07777) : 0;
}

bool IsLink(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

TEST(WriteMetricsFileTest, ReplacesTheFileInOneStepWithItsModeWhateverTheUmask) {
    TempDir dir;
    ASSERT_EQ(mkdir(dir.Path("metrics").c_str(), 0755), 0);
    const std::string file = dir.Path("metrics/tessel_networkd.prom");
    const mode_t old = umask(077);
    std::string error;
    const bool bWritten = WriteMetricsFile(dir.Path("metrics"), "a 1\n", error);
    umask(old);
    ASSERT_TRUE(bWritten) << error;
    EXPECT_EQ(Mode(file), 0644U);
    EXPECT_EQ(ReadFile(file), "a 1\n");
    // Replaced, not rewritten: the collector reading the old file keeps it whole.
    const ino_t first = Inode(file);
    ASSERT_TRUE(WriteMetricsFile(dir.Path("metrics"), "a 2\n", error)) << error;
    EXPECT_NE(Inode(file), first);
    EXPECT_EQ(ReadFile(file), "a 2\n");
    EXPECT_EQ(access(dir.Path("metrics/.tessel_networkd.prom.new").c_str(), F_OK), -1);
}

TEST(WriteMetricsFileTest, LinksPlantedAtTheFilesNamesAreReplacedNeverFollowed) {
    TempDir dir;
    ASSERT_EQ(mkdir(dir.Path("metrics").c_str(), 0755), 0);
    std::ofstream(dir.Path("precious")) << "keep me\n";
    ASSERT_EQ(symlink(dir.Path("precious").c_str(), dir.Path("metrics/tessel_networkd.prom").c_str()), 0);
    ASSERT_EQ(symlink(dir.Path("precious").c_str(), dir.Path("metrics/.tessel_networkd.prom.new").c_str()), 0);
    std::string error;
    ASSERT_TRUE(WriteMetricsFile(dir.Path("metrics"), "a 1\n", error)) << error;
    EXPECT_EQ(ReadFile(dir.Path("precious")), "keep me\n");
    EXPECT_FALSE(IsLink(dir.Path("metrics/tessel_networkd.prom")));
    EXPECT_EQ(ReadFile(dir.Path("metrics/tessel_networkd.prom")), "a 1\n");
    EXPECT_EQ(access(dir.Path("metrics/.tessel_networkd.prom.new").c_str(), F_OK), -1);
}

TEST(WriteMetricsFileTest, RefusesAMissingDirectoryALinkAndOneOthersCanWriteAndMakesNone) {
    TempDir dir;
    std::string error;
    EXPECT_FALSE(WriteMetricsFile(dir.Path("metrics"), "a 1\n", error));
    EXPECT_EQ(error, dir.Path("metrics") + " does not exist");
    EXPECT_EQ(access(dir.Path("metrics").c_str(), F_OK), -1);

    ASSERT_EQ(mkdir(dir.Path("elsewhere").c_str(), 0755), 0);
    ASSERT_EQ(symlink(dir.Path("elsewhere").c_str(), dir.Path("metrics").c_str()), 0);
    EXPECT_FALSE(WriteMetricsFile(dir.Path("metrics"), "a 1\n", error));
    EXPECT_EQ(error, dir.Path("metrics") + " is not a directory");
    EXPECT_EQ(access(dir.Path("elsewhere/tessel_networkd.prom").c_str(), F_OK), -1);

    ASSERT_EQ(mkdir(dir.Path("open").c_str(), 0755), 0);
    ASSERT_EQ(chmod(dir.Path("open").c_str(), 0775), 0);
    EXPECT_FALSE(WriteMetricsFile(dir.Path("open"), "a 1\n", error));
    EXPECT_EQ(error, dir.Path("open") + " is writable by others");
}

TEST(WriteMetricsFileTest, TheDirectoryMayBelongToAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "giving a directory away needs root";
    TempDir dir;
    ASSERT_EQ(mkdir(dir.Path("metrics").c_str(), 0755), 0);
    // The node exporter's own user owns its textfile directory on some systems.
    ASSERT_EQ(chown(dir.Path("metrics").c_str(), 65534, 65534), 0);
    std::string error;
    EXPECT_TRUE(WriteMetricsFile(dir.Path("metrics"), "a 1\n", error)) << error;
}

// A one-port device (eth1 bridged) after usable passes, veth1 static.
CYCLE_STATE OnePortState() {
    CYCLE_STATE state;
    state.m_bConfigRead = true;
    state.m_bConfigUsable = true;
    state.m_settings.m_eBridgeMode = BRIDGE_MODE_ETH1;
    state.m_settings.m_veth1Config = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    state.m_bBridgeSetupPending = false;
    state.m_eLastBridgeMode = BRIDGE_MODE_ETH1;
    state.m_bFirstCycle = false;
    state.m_veth1.m_bReconfigure = false;
    state.m_veth1.m_applied = state.m_settings.m_veth1Config;
    return state;
}

TEST(UpdateStatusMetricsTest, WrittenWithTheDocumentAndOnlyWhenItIs) {
    TempDir dir;
    ASSERT_EQ(mkdir(dir.Path("metrics").c_str(), 0755), 0);
    STATUS_WRITER writer;
    StartStatus(writer, dir.Path("run"), "/etc/x.conf");
    writer.m_metricsDirectory = dir.Path("metrics");
    CYCLE_STATE state = OnePortState();
    UpdateStatus(writer, state);
    const std::string file = dir.Path("metrics/tessel_networkd.prom");
    const ino_t first = Inode(file);
    ASSERT_NE(first, 0U);
    EXPECT_EQ(ReadFile(file), StatusMetrics(writer.m_daemon, writer.m_written));
    const ino_t document = Inode(dir.Path("run/status.json"));
    for (int pass = 0; pass < 5; ++pass) UpdateStatus(writer, state);
    EXPECT_EQ(Inode(file), first);
    state.m_nEth0Recoveries = 1;
    UpdateStatus(writer, state);
    EXPECT_NE(Inode(file), first);
    EXPECT_NE(Inode(dir.Path("run/status.json")), document);
    EXPECT_NE(ReadFile(file).find("\ntessel_networkd_eth0_recoveries_total 1\n"), std::string::npos);
}

TEST(UpdateStatusMetricsTest, AMissingDirectoryIsLoggedOnceTriedAgainAndNeverStopsTheDocument) {
    TempDir dir;
    STATUS_WRITER writer;
    StartStatus(writer, dir.Path("run"), "/etc/x.conf");
    writer.m_metricsDirectory = dir.Path("metrics");
    CYCLE_STATE state = OnePortState();
    std::vector<std::string> failing;
    std::vector<std::string> again;
    ino_t document = 0;
    {
        LogCapture log;
        UpdateStatus(writer, state);
        state.m_nEth0Recoveries = 1;  // a change: the document is written again, the metrics tried
        for (int pass = 0; pass < 3; ++pass) UpdateStatus(writer, state);
        failing = log.Messages();
        document = Inode(dir.Path("run/status.json"));
        if (mkdir(dir.Path("metrics").c_str(), 0755) == 0) {
            // Nothing changed in the state, yet the metrics are written; the document stays.
            UpdateStatus(writer, state);
            UpdateStatus(writer, state);
        }
        again = log.Messages();
    }
    const std::string path = dir.Path("metrics/tessel_networkd.prom");
    ASSERT_EQ(failing.size(), 1U);
    EXPECT_EQ(failing[0], "WARN UpdateMetrics: Unable to write metrics file " + path + ": " + dir.Path("metrics") +
                              " does not exist");
    ASSERT_EQ(again.size(), 2U);
    EXPECT_EQ(again[1], "NOTICE UpdateMetrics: Metrics file " + path + " written again");
    EXPECT_EQ(Inode(dir.Path("run/status.json")), document);
    EXPECT_EQ(ReadFile(path), StatusMetrics(writer.m_daemon, writer.m_written));
}

TEST(UpdateStatusMetricsTest, WithoutADirectoryNothingIsWrittenNorLogged) {
    TempDir dir;
    STATUS_WRITER writer;
    StartStatus(writer, dir.Path("run"), "/etc/x.conf");
    std::vector<std::string> messages;
    {
        LogCapture log;
        UpdateStatus(writer, OnePortState());
        messages = log.Messages();
    }
    EXPECT_EQ(messages, std::vector<std::string>{});
    EXPECT_EQ(ReadFile(dir.Path("run/status.json")).empty(), false);
    EXPECT_EQ(access(dir.Path("run/tessel_networkd.prom").c_str(), F_OK), -1);
}

}  // namespace
