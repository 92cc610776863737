#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "src/Network.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/LogCapture.h"

namespace {

using Lines = std::vector<std::string>;

TEST(SetupBridgeTest, Eth0ModeBridgesEth0AndTheFirstPair) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0, "", "");
    EXPECT_EQ(log.Timeline(),
              (Lines{
                  "INFO SetupBridge: Setting up bridge for control network",
                  "$ ip link set br0 down",
                  "$ ip addr flush dev br0",
                  "$ ip link set eth0 down",
                  "$ ip addr flush dev eth0",
                  "$ ip link set eth1 down",
                  "$ ip addr flush dev eth1",
                  "$ ip link del name br0",
                  "$ ip link add name br0 type bridge",
                  "$ ip link set br0 up",
                  "$ ip addr flush dev br0",
                  "$ ip link set br0 arp off",
                  "$ ip link set eth0 master br0",
                  "$ ip link set eth0 up",
                  "$ ip link add name veth1 type veth",
                  "$ ip link set veth0 master br0",
                  "$ ip link set veth0 up",
                  "$ ip link set veth1 up",
                  "$ ip link set dev veth1 address $(cat /proc/cmdline | awk -Fmac= '{print $2}' | awk '{print $1}')",
                  "$ ip addr flush dev br0",
                  "$ ip link set br0 arp off",
                  "$ ip link set eth0 arp off",
                  "INFO SetupBridge: Done with bridge setup",
              }));
    EXPECT_EQ(commands.Commands().size(), 21U);
}

TEST(SetupBridgeTest, Eth1ModeBridgesEth1AndTheFirstPair) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH1, "", "");
    EXPECT_EQ(log.Timeline(),
              (Lines{
                  "INFO SetupBridge: Setting up bridge for control network",
                  "$ ip link set br0 down",
                  "$ ip addr flush dev br0",
                  "$ ip link set eth0 down",
                  "$ ip addr flush dev eth0",
                  "$ ip link set eth1 down",
                  "$ ip addr flush dev eth1",
                  "$ ip link del name br0",
                  "$ ip link add name br0 type bridge",
                  "$ ip link set br0 up",
                  "$ ip addr flush dev br0",
                  "$ ip link set br0 arp off",
                  "$ ip link set eth1 master br0",
                  "$ ip link set eth1 up",
                  "$ ip link add name veth1 type veth",
                  "$ ip link set veth0 master br0",
                  "$ ip link set veth0 up",
                  "$ ip link set veth1 up",
                  "$ ip link set dev veth1 address $(cat /proc/cmdline | awk -Fmac= '{print $2}' | awk '{print $1}')",
                  "$ ip addr flush dev br0",
                  "$ ip link set br0 arp off",
                  "$ ip link set eth1 arp off",
                  "INFO SetupBridge: Done with bridge setup",
              }));
    EXPECT_EQ(commands.Commands().size(), 21U);
}

TEST(SetupBridgeTest, BothPortsModeAddsTheSecondPairAndIsolationRules) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0ETH1, "", "");
    EXPECT_EQ(log.Timeline(),
              (Lines{
                  "INFO SetupBridge: Setting up bridge for control network",
                  "$ ip link set br0 down",
                  "$ ip addr flush dev br0",
                  "$ ip link set eth0 down",
                  "$ ip addr flush dev eth0",
                  "$ ip link set eth1 down",
                  "$ ip addr flush dev eth1",
                  "$ ip link del name br0",
                  "$ ip link add name br0 type bridge",
                  "$ ip link set br0 up",
                  "$ ip addr flush dev br0",
                  "$ ip link set br0 arp off",
                  "$ ip link set eth0 master br0",
                  "$ ip link set eth0 up",
                  "$ ip link set eth1 master br0",
                  "$ ip link set eth1 up",
                  "$ ip link add name veth1 type veth",
                  "$ ip link set veth0 master br0",
                  "$ ip link set veth0 up",
                  "$ ip link set veth1 up",
                  "$ ip link set dev veth1 address $(cat /proc/cmdline | awk -Fmac= '{print $2}' | awk '{print $1}')",
                  "$ ip addr flush dev br0",
                  "$ ip link set br0 arp off",
                  "$ ip link set eth0 arp off",
                  "$ ip link set eth1 arp off",
                  "$ ip link add name veth3 type veth",
                  "$ ip link set veth2 master br0",
                  "$ ip link set veth2 up",
                  "$ ip link set veth3 up",
                  "$ ip link set dev veth3 address 02:23:02:00:00:00",
                  "$ arptables -F",
                  "$ arptables -A FORWARD --in-interface veth2 --out-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --in-interface veth0 --out-interface veth2 -j DROP",
                  "$ arptables -A FORWARD --in-interface veth2 --out-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --in-interface eth1 --out-interface veth2 -j DROP",
                  "$ arptables -A FORWARD --in-interface veth0 --out-interface eth0 -j DROP",
                  "$ arptables -A FORWARD --in-interface eth0 --out-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --source-ip 10.253.254.253 --in-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --destination-ip 10.253.254.253 --in-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --source-ip 10.253.254.254 --in-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --destination-ip 10.253.254.254 --in-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --source-ip 10.253.254.253 --out-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --destination-ip 10.253.254.253 --out-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --source-ip 10.253.254.254 --out-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --destination-ip 10.253.254.254 --out-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --source-ip 10.253.254.253 --in-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --destination-ip 10.253.254.253 --in-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --source-ip 10.253.254.254 --in-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --destination-ip 10.253.254.254 --in-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --source-ip 10.253.254.253 --out-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --destination-ip 10.253.254.253 --out-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --source-ip 10.253.254.254 --out-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --destination-ip 10.253.254.254 --out-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --source-mac 02:23:02:00:00:00 --in-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --in-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --source-mac 02:23:02:00:00:01 --in-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --in-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --source-mac 02:23:02:00:00:00 --out-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --out-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --source-mac 02:23:02:00:00:01 --out-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface eth1 -j DROP",
                  "$ arptables -A FORWARD --source-mac 02:23:02:00:00:00 --in-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --in-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --source-mac 02:23:02:00:00:01 --in-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --in-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --source-mac 02:23:02:00:00:00 --out-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --out-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --source-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP",
                  "$ arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP",
                  "$ iptables -F",
                  "$ iptables -A INPUT --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
                  "$ iptables -A INPUT --source 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
                  "$ iptables -A INPUT --destination 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
                  "$ iptables -A INPUT --destination 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
                  "$ iptables -A FORWARD --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
                  "$ iptables -A FORWARD --source 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
                  "$ iptables -A FORWARD --destination 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
                  "$ iptables -A FORWARD --destination 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
                  "$ iptables -A FORWARD --source 10.253.254.254 -m physdev --physdev-out eth1 -j DROP",
                  "$ iptables -A FORWARD --source 10.253.254.253 -m physdev --physdev-out eth1 -j DROP",
                  "$ iptables -A FORWARD --destination 10.253.254.254 -m physdev --physdev-out eth1 -j DROP",
                  "$ iptables -A FORWARD --destination 10.253.254.253 -m physdev --physdev-out eth1 -j DROP",
                  "$ bridge link set dev eth1 learning_sync off",
                  "$ bridge link set dev eth1 learning off",
                  "$ ip -s -s neigh flush all",
                  "INFO SetupBridge: Done with bridge setup",
              }));
    EXPECT_EQ(commands.Commands().size(), 84U);
}

TEST(SetupBridgeTest, Eth0ModeSetsOnlyTheEth0MacRightAfterBringingItUp) {
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0, "02:00:00:00:00:0a", "02:00:00:00:00:0b");
    EXPECT_EQ(commands.Commands(), (Lines{
                                       "ip link set br0 down",
                                       "ip addr flush dev br0",
                                       "ip link set eth0 down",
                                       "ip addr flush dev eth0",
                                       "ip link set eth1 down",
                                       "ip addr flush dev eth1",
                                       "ip link del name br0",
                                       "ip link add name br0 type bridge",
                                       "ip link set br0 up",
                                       "ip addr flush dev br0",
                                       "ip link set br0 arp off",
                                       "ip link set eth0 master br0",
                                       "ip link set eth0 up",
                                       "ip link set dev eth0 address 02:00:00:00:00:0a",
                                       "ip link add name veth1 type veth",
                                       "ip link set veth0 master br0",
                                       "ip link set veth0 up",
                                       "ip link set veth1 up",
                                       "ip link set dev veth1 address $(cat /proc/cmdline | awk -Fmac= '{print $2}' | "
                                       "awk '{print $1}')",
                                       "ip addr flush dev br0",
                                       "ip link set br0 arp off",
                                       "ip link set eth0 arp off",
                                   }));
}

TEST(SetupBridgeTest, Eth1ModeSetsOnlyTheEth1MacRightAfterBringingItUp) {
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH1, "02:00:00:00:00:0a", "02:00:00:00:00:0b");
    EXPECT_EQ(commands.Commands(), (Lines{
                                       "ip link set br0 down",
                                       "ip addr flush dev br0",
                                       "ip link set eth0 down",
                                       "ip addr flush dev eth0",
                                       "ip link set eth1 down",
                                       "ip addr flush dev eth1",
                                       "ip link del name br0",
                                       "ip link add name br0 type bridge",
                                       "ip link set br0 up",
                                       "ip addr flush dev br0",
                                       "ip link set br0 arp off",
                                       "ip link set eth1 master br0",
                                       "ip link set eth1 up",
                                       "ip link set dev eth1 address 02:00:00:00:00:0b",
                                       "ip link add name veth1 type veth",
                                       "ip link set veth0 master br0",
                                       "ip link set veth0 up",
                                       "ip link set veth1 up",
                                       "ip link set dev veth1 address $(cat /proc/cmdline | awk -Fmac= '{print $2}' | "
                                       "awk '{print $1}')",
                                       "ip addr flush dev br0",
                                       "ip link set br0 arp off",
                                       "ip link set eth1 arp off",
                                   }));
}

// The rules after the ports do not depend on the MACs; the mode test above
// checks them line by line, so here the part up to the first pair is enough
// beside an unchanged remainder.
TEST(SetupBridgeTest, BothPortsModeSetsEachMacRightAfterItsPortComesUp) {
    CommandRecorder withoutMacs;
    SetupBridge(BRIDGE_MODE_ETH0ETH1, "", "");
    Lines plain = withoutMacs.Commands();
    ASSERT_EQ(plain.size(), 84U);

    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0ETH1, "02:00:00:00:00:0a", "02:00:00:00:00:0b");
    const Lines& withMacs = commands.Commands();
    ASSERT_EQ(withMacs.size(), 86U);
    EXPECT_EQ(Lines(withMacs.begin(), withMacs.begin() + 18), (Lines{
                                                                  "ip link set br0 down",
                                                                  "ip addr flush dev br0",
                                                                  "ip link set eth0 down",
                                                                  "ip addr flush dev eth0",
                                                                  "ip link set eth1 down",
                                                                  "ip addr flush dev eth1",
                                                                  "ip link del name br0",
                                                                  "ip link add name br0 type bridge",
                                                                  "ip link set br0 up",
                                                                  "ip addr flush dev br0",
                                                                  "ip link set br0 arp off",
                                                                  "ip link set eth0 master br0",
                                                                  "ip link set eth0 up",
                                                                  "ip link set dev eth0 address 02:00:00:00:00:0a",
                                                                  "ip link set eth1 master br0",
                                                                  "ip link set eth1 up",
                                                                  "ip link set dev eth1 address 02:00:00:00:00:0b",
                                                                  "ip link add name veth1 type veth",
                                                              }));
    EXPECT_EQ(Lines(withMacs.begin() + 17, withMacs.end()), Lines(plain.begin() + 15, plain.end()));
}

TEST(SetupBridgeTest, OneEmptyMacLeavesOnlyThatPortAlone) {
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0ETH1, "", "02:00:00:00:00:0b");
    const Lines& all = commands.Commands();
    ASSERT_EQ(all.size(), 85U);
    EXPECT_EQ(Lines(all.begin() + 11, all.begin() + 17), (Lines{
                                                             "ip link set eth0 master br0",
                                                             "ip link set eth0 up",
                                                             "ip link set eth1 master br0",
                                                             "ip link set eth1 up",
                                                             "ip link set dev eth1 address 02:00:00:00:00:0b",
                                                             "ip link add name veth1 type veth",
                                                         }));
}

// Values beyond the enum select neither port and no second pair, whatever
// the MAC texts say.
TEST(SetupBridgeTest, OutOfRangeModesRunTheCommonCommandsAndFirstPairOnly) {
    for (uint32_t value : {3U, 4U, 6U, 0x80000002U, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
        SCOPED_TRACE(value);
        LogCapture log;
        CommandRecorder commands;
        SetupBridge(static_cast<BRIDGE_MODE>(value), "02:00:00:00:00:0a", "02:00:00:00:00:0b");
        EXPECT_EQ(log.Timeline(), (Lines{
                                      "INFO SetupBridge: Setting up bridge for control network",
                                      "$ ip link set br0 down",
                                      "$ ip addr flush dev br0",
                                      "$ ip link set eth0 down",
                                      "$ ip addr flush dev eth0",
                                      "$ ip link set eth1 down",
                                      "$ ip addr flush dev eth1",
                                      "$ ip link del name br0",
                                      "$ ip link add name br0 type bridge",
                                      "$ ip link set br0 up",
                                      "$ ip addr flush dev br0",
                                      "$ ip link set br0 arp off",
                                      "$ ip link add name veth1 type veth",
                                      "$ ip link set veth0 master br0",
                                      "$ ip link set veth0 up",
                                      "$ ip link set veth1 up",
                                      "$ ip link set dev veth1 address $(cat /proc/cmdline | awk -Fmac= '{print $2}' "
                                      "| awk '{print $1}')",
                                      "$ ip addr flush dev br0",
                                      "$ ip link set br0 arp off",
                                      "INFO SetupBridge: Done with bridge setup",
                                  }));
    }
}

TEST(SetupBridgeTest, LogsAtInfoFromItsOwnUnitAndNotToTheSystemLog) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH1, "", "");
    std::vector<LogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), 2U);
    for (const LogEntry& entry : entries) {
        EXPECT_EQ(entry.file, "src/NetworkBridge.cpp");
        EXPECT_EQ(entry.level, "INFO");
    }
    EXPECT_TRUE(log.SystemLog().empty());
}

}  // namespace
