#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "src/Network.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/ExpectedTimelines.h"
#include "tests/support/LogCapture.h"

namespace {

using Lines = std::vector<std::string>;

TEST(SetupBridgeTest, Eth0ModeBridgesEth0AndTheFirstPair) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0, "", "");
    EXPECT_EQ(log.Timeline(), kBridgeBuildEth0);
    EXPECT_EQ(commands.Commands().size(), 21U);
}

TEST(SetupBridgeTest, Eth1ModeBridgesEth1AndTheFirstPair) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH1, "", "");
    EXPECT_EQ(log.Timeline(), kBridgeBuildEth1);
    EXPECT_EQ(commands.Commands().size(), 21U);
}

TEST(SetupBridgeTest, BothPortsModeAddsTheSecondPairAndIsolationRules) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0ETH1, "", "");
    EXPECT_EQ(log.Timeline(), kBridgeBuildEth0Eth1);
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
