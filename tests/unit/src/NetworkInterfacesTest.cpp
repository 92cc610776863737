#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "src/NetworkConfig.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkInterfaces.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetworkRecords.h"
#include "tests/support/SteppedClock.h"

namespace {

using Lines = std::vector<std::string>;

// An interface name no other test run uses. Stopping its DHCP clients scans the
// real process table, where nothing serves such a name.
std::string UniqueName() {
    static int counter = 0;
    return "ts" + std::to_string(getpid()) + "x" + std::to_string(++counter);
}

// Stands in for the shell and the DHCP client: records every command in the
// timeline, carries out the removal of the interface's lease file, and when the
// client is started writes the lease its script would report, if one is given.
// Every other command is only recorded. Removes the lease file when done.
class FakeShell {
public:
    explicit FakeShell(const std::string& interfaceName)
        : m_path("/tmp/dhcp_" + interfaceName + ".txt"),
          m_removal("rm -f " + m_path),
          m_clientStart("udhcpc -i " + interfaceName + " "),
          m_previous(SetCommandRunner([this](const std::string& command, std::string* /*output*/) {
              Run(command);
              return COMMAND_OUTCOME{};
          })) {}
    ~FakeShell() {
        SetCommandRunner(std::move(m_previous));
        std::remove(m_path.c_str());
    }
    FakeShell(const FakeShell&) = delete;
    FakeShell& operator=(const FakeShell&) = delete;

    // Mode 0600 whatever the umask, as the script writes it.
    void WriteLease(const std::string& text) const {
        {
            std::ofstream out(m_path, std::ios::binary | std::ios::trunc);
            out << text;
        }
        chmod(m_path.c_str(), 0600);
    }
    void LeaseOnClientStart(const std::string& text) { m_leaseOnStart = text; }
    const std::string& LeasePath() const { return m_path; }

private:
    void Run(const std::string& command) {
        LogCapture::NoteCommand(command);
        if (command.rfind(m_removal, 0) == 0) std::remove(m_path.c_str());
        if (command.rfind(m_clientStart, 0) == 0 && !m_leaseOnStart.empty()) WriteLease(m_leaseOnStart);
    }

    std::string m_path;
    std::string m_removal;
    std::string m_clientStart;
    std::string m_leaseOnStart;
    CommandRunner m_previous;
};

class ServiceVethXTest : public ::testing::Test {
protected:
    // As after a client start: its first check is a whole interval away.
    ServiceVethXTest() : m_name(UniqueName()), m_shell(m_name) {
        m_iface.m_nClientCheckAtMs = MonotonicMs() + kClientCheckIntervalMs;
    }

    // One supervision cycle for the interface, returning its messages and commands.
    Lines Cycle(unsigned int metric = 10) {
        LogCapture log;
        m_iface.m_bReconfigure = m_bReconfigure;
        m_iface.m_applied = m_applied;
        m_iface.m_dhcp = m_state;
        ServiceVethX(m_name, metric, m_wanted, m_iface);
        m_bReconfigure = m_iface.m_bReconfigure;
        m_applied = m_iface.m_applied;
        m_state = m_iface.m_dhcp;
        return log.Timeline();
    }
    const std::string& N() const { return m_name; }

    std::string m_name;
    FakeShell m_shell;
    bool m_bReconfigure = false;
    IP_CONFIG m_applied{};
    IP_CONFIG m_wanted{};
    DHCP_STATE m_state{};
    INTERFACE_STATE m_iface;
};

TEST_F(ServiceVethXTest, FirstCycleWithDhcpStartsAFreshClient) {
    // A lease an earlier client left behind is removed before it could be taken up.
    m_shell.WriteLease(N() + " 10.0.0.99 255.255.255.0\n10.0.0.1\n");
    m_bReconfigure = true;
    m_wanted = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    m_state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Cycle(), (Lines{
                           "INFO SetupInterface: Configuring interface " + N() + " for DHCP",
                           "$ ip route flush dev " + N(),
                           "$ ip addr flush dev " + N(),
                           "$ rm -f /tmp/dhcp_" + N() + ".txt > /dev/null 2>&1",
                           "INFO SetupInterface: Starting DHCP for interface " + N(),
                           "$ udhcpc -i " + N() + " -b -R -s /usr/share/udhcpc/tessel.script",
                       }));
    EXPECT_EQ(Describe(m_state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
    EXPECT_FALSE(m_bReconfigure);
    EXPECT_EQ(Describe(m_applied), "dhcp 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(ServiceVethXTest, LeaseReadyInTheCycleTheClientStartsIsTakenUpAsNew) {
    // The same lease as the one in force before: new all the same, because
    // starting the client cleared what was in force.
    m_shell.LeaseOnClientStart(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n");
    m_bReconfigure = true;
    m_wanted = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    m_state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Cycle(), (Lines{
                           "INFO SetupInterface: Configuring interface " + N() + " for DHCP",
                           "$ ip route flush dev " + N(),
                           "$ ip addr flush dev " + N(),
                           "$ rm -f /tmp/dhcp_" + N() + ".txt > /dev/null 2>&1",
                           "INFO SetupInterface: Starting DHCP for interface " + N(),
                           "$ udhcpc -i " + N() + " -b -R -s /usr/share/udhcpc/tessel.script",
                           "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                           "$ ip route flush dev " + N(),
                           "$ ip addr flush dev " + N(),
                           "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                           "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                           "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                           "$ ip route add default via 10.0.0.1 dev " + N() + " metric 10",
                       }));
    EXPECT_EQ(Describe(m_state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(ServiceVethXTest, FirstCycleStatic) {
    m_bReconfigure = true;
    m_wanted = IpConfig(false, "192.168.1.20", "255.255.255.0", "0.0.0.0");
    EXPECT_EQ(Cycle(100), (Lines{
                              "$ ip route flush dev " + N(),
                              "$ ip addr flush dev " + N(),
                              "INFO SetupInterface: Configuring interface " + N() + " for static IP",
                              "INFO SetAddrAndRouting: Configuring " + N() + " for 192.168.1.20/255.255.255.0",
                              "$ ip addr add 192.168.1.20/255.255.255.0 dev " + N(),
                              "INFO SetAddrAndRouting: Not adding default gateway for " + N(),
                          }));
    EXPECT_FALSE(m_bReconfigure);
    EXPECT_EQ(Describe(m_applied), "static 192.168.1.20 255.255.255.0 0.0.0.0");
}

TEST_F(ServiceVethXTest, ChangedStaticGatewayReprogramsTheInterface) {
    // Static mode never reads a lease file, even one lying there.
    m_shell.WriteLease(N() + " 10.0.0.99 255.255.255.0\n");
    m_applied = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    m_wanted = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.254");
    m_state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Cycle(100), (Lines{
                              "$ ip route flush dev " + N(),
                              "$ ip addr flush dev " + N(),
                              "INFO SetupInterface: Configuring interface " + N() + " for static IP",
                              "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.2/255.255.255.0",
                              "$ ip addr add 10.0.0.2/255.255.255.0 dev " + N(),
                              "INFO SetAddrAndRouting: Adding default gateway 10.0.0.254 for " + N(),
                              "$ ip route add default via 10.0.0.254 dev " + N() + " metric 100",
                          }));
    EXPECT_EQ(Describe(m_applied), "static 10.0.0.2 255.255.255.0 10.0.0.254");
    EXPECT_EQ(Describe(m_state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
    EXPECT_EQ(ReadFile(m_shell.LeasePath()), N() + " 10.0.0.99 255.255.255.0\n");
}

TEST_F(ServiceVethXTest, ChangedStaticAddressReprogramsTheInterface) {
    m_applied = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    m_wanted = IpConfig(false, "10.0.0.3", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Cycle(), (Lines{
                           "$ ip route flush dev " + N(),
                           "$ ip addr flush dev " + N(),
                           "INFO SetupInterface: Configuring interface " + N() + " for static IP",
                           "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.3/255.255.255.0",
                           "$ ip addr add 10.0.0.3/255.255.255.0 dev " + N(),
                           "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                           "$ ip route add default via 10.0.0.1 dev " + N() + " metric 10",
                       }));
    EXPECT_EQ(Describe(m_applied), "static 10.0.0.3 255.255.255.0 10.0.0.1");
}

TEST_F(ServiceVethXTest, ChangedStaticMaskReprogramsTheInterface) {
    m_applied = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    m_wanted = IpConfig(false, "10.0.0.2", "255.255.0.0", "10.0.0.1");
    EXPECT_EQ(Cycle(), (Lines{
                           "$ ip route flush dev " + N(),
                           "$ ip addr flush dev " + N(),
                           "INFO SetupInterface: Configuring interface " + N() + " for static IP",
                           "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.2/255.255.0.0",
                           "$ ip addr add 10.0.0.2/255.255.0.0 dev " + N(),
                           "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                           "$ ip route add default via 10.0.0.1 dev " + N() + " metric 10",
                       }));
    EXPECT_EQ(Describe(m_applied), "static 10.0.0.2 255.255.0.0 10.0.0.1");
}

TEST_F(ServiceVethXTest, StaticToDhcpStartsAClient) {
    // Only the mode changes; the addresses that come with it are the same.
    m_applied = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    m_wanted = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    m_wanted.m_bDhcp = true;
    EXPECT_EQ(Cycle(100), (Lines{
                              "INFO SetupInterface: Configuring interface " + N() + " for DHCP",
                              "$ ip route flush dev " + N(),
                              "$ ip addr flush dev " + N(),
                              "$ rm -f /tmp/dhcp_" + N() + ".txt > /dev/null 2>&1",
                              "INFO SetupInterface: Starting DHCP for interface " + N(),
                              "$ udhcpc -i " + N() + " -b -R -s /usr/share/udhcpc/tessel.script",
                          }));
    EXPECT_EQ(Describe(m_applied), "dhcp 10.0.0.2 255.255.255.0 10.0.0.1");
    EXPECT_EQ(Describe(m_state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(ServiceVethXTest, DhcpToStaticLeavesTheClientAndTheLeaseStateAlone) {
    m_applied = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    m_wanted = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    m_state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Cycle(), (Lines{
                           "$ ip route flush dev " + N(),
                           "$ ip addr flush dev " + N(),
                           "INFO SetupInterface: Configuring interface " + N() + " for static IP",
                           "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.2/255.255.255.0",
                           "$ ip addr add 10.0.0.2/255.255.255.0 dev " + N(),
                           "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                           "$ ip route add default via 10.0.0.1 dev " + N() + " metric 10",
                       }));
    EXPECT_EQ(Describe(m_applied), "static 10.0.0.2 255.255.255.0 10.0.0.1");
    EXPECT_EQ(Describe(m_state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(ServiceVethXTest, ForcedReconfigurationRestartsAnUnchangedDhcpClient) {
    m_applied = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    m_wanted = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    m_bReconfigure = true;
    m_state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Cycle(), (Lines{
                           "INFO SetupInterface: Configuring interface " + N() + " for DHCP",
                           "$ ip route flush dev " + N(),
                           "$ ip addr flush dev " + N(),
                           "$ rm -f /tmp/dhcp_" + N() + ".txt > /dev/null 2>&1",
                           "INFO SetupInterface: Starting DHCP for interface " + N(),
                           "$ udhcpc -i " + N() + " -b -R -s /usr/share/udhcpc/tessel.script",
                       }));
    EXPECT_FALSE(m_bReconfigure);
    EXPECT_EQ(Describe(m_state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(ServiceVethXTest, UnchangedStaticRunsNothing) {
    m_shell.WriteLease(N() + " 10.0.0.99 255.255.255.0\n");
    m_applied = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    m_wanted = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    Lines timeline;
    for (int cycle = 0; cycle < 3; ++cycle) {
        Lines one = Cycle();
        timeline.insert(timeline.end(), one.begin(), one.end());
    }
    EXPECT_EQ(timeline, Lines{});
    EXPECT_EQ(Describe(m_applied), "static 10.0.0.2 255.255.255.0 10.0.0.1");
}

TEST_F(ServiceVethXTest, UnchangedDhcpOnlyChecksForALeaseEachCycle) {
    m_applied = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    m_wanted = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    Lines timeline = Cycle();
    m_shell.WriteLease(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n");
    Lines second = Cycle();
    m_shell.WriteLease(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n");
    Lines third = Cycle();
    timeline.insert(timeline.end(), second.begin(), second.end());
    timeline.insert(timeline.end(), third.begin(), third.end());
    EXPECT_EQ(timeline, (Lines{
                            "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                            "$ ip route flush dev " + N(),
                            "$ ip addr flush dev " + N(),
                            "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                            "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                            "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                            "$ ip route add default via 10.0.0.1 dev " + N() + " metric 10",
                        }));
    EXPECT_EQ(Describe(m_state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(ServiceVethXTest, AClientWithoutALeaseIsSaidToBeSoAfter30SecondsAndEvery10Minutes) {
    SteppedClock clock(1000000);
    m_applied = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    m_wanted = m_applied;
    m_iface.m_clientPid = 4242;
    // The client's own check is not what this is about.
    m_iface.m_nClientCheckAtMs = INT64_MAX;
    const std::string warning = "WARN WarnWhileNoLease: No DHCP lease for " + N();
    Lines timeline;
    // A pass a second for 11 minutes, the lease coming at last after 700 s.
    for (int second = 0; second <= 760; ++second) {
        if (second == 700) m_shell.WriteLease(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n");
        for (const std::string& line : Cycle()) {
            if (line.rfind("WARN", 0) == 0) timeline.push_back(std::to_string(second) + " " + line);
        }
        clock.Step(1000);
    }
    EXPECT_EQ(timeline, (Lines{
                            "30 " + warning + " for 30 s; its client (pid 4242) is still asking",
                            "630 " + warning + " for 630 s; its client (pid 4242) is still asking",
                        }));
    EXPECT_EQ(Describe(m_state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");

    // A client started anew waits anew, and without a pid found says so.
    m_bReconfigure = true;
    Cycle();
    m_iface.m_clientPid = 0;
    m_iface.m_nClientCheckAtMs = INT64_MAX;
    timeline.clear();
    for (int second = 0; second <= 31; ++second) {
        clock.Step(1000);
        for (const std::string& line : Cycle()) {
            if (line.rfind("WARN", 0) == 0) timeline.push_back(line);
        }
    }
    EXPECT_EQ(timeline, (Lines{warning + " for 30 s; no client of it runs"}));

    // Static addressing: nothing to wait for.
    m_wanted = IpConfig(false, "10.0.0.2", "255.255.255.0", "0.0.0.0");
    Cycle();
    clock.Step(700000);
    for (const std::string& line : Cycle()) EXPECT_NE(line.rfind("WARN", 0), 0U) << line;
}

TEST_F(ServiceVethXTest, BytesBetweenTheFieldsDoNotCountAsAChange) {
    static_assert(sizeof(IP_CONFIG) > sizeof(bool) + 3 * sizeof(in_addr), "IP_CONFIG has padding after its flag");
    std::memset(static_cast<void*>(&m_applied), 0xAA, sizeof m_applied);
    std::memset(static_cast<void*>(&m_wanted), 0x55, sizeof m_wanted);
    for (IP_CONFIG* config : {&m_applied, &m_wanted}) {
        config->m_bDhcp = false;
        config->m_ipAddress = Ip("10.0.0.2");
        config->m_subnetMask = Ip("255.255.255.0");
        config->m_gateway = Ip("10.0.0.1");
    }
    EXPECT_EQ(Cycle(), Lines{});
}

TEST(SetupInterfaceTest, ConfigurationIsTakenAsGiven) {
    std::string name = UniqueName();
    FakeShell shell(name);
    LogCapture log;
    DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    SetupInterface(name, 10, IpConfig(false, "172.16.0.9", "255.240.0.0", "172.16.0.1"), state);
    EXPECT_EQ(log.Timeline(), (Lines{
                                  "$ ip route flush dev " + name,
                                  "$ ip addr flush dev " + name,
                                  "INFO SetupInterface: Configuring interface " + name + " for static IP",
                                  "INFO SetAddrAndRouting: Configuring " + name + " for 172.16.0.9/255.240.0.0",
                                  "$ ip addr add 172.16.0.9/255.240.0.0 dev " + name,
                                  "INFO SetAddrAndRouting: Adding default gateway 172.16.0.1 for " + name,
                                  "$ ip route add default via 172.16.0.1 dev " + name + " metric 10",
                              }));
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

}  // namespace
