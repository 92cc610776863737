#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "src/NetworkAddress.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetworkRecords.h"

namespace {

using Lines = std::vector<std::string>;

TEST(FlushAddrAndRoutingTest, FlushesRoutesBeforeAddressesAndLogsNothing) {
    LogCapture log;
    CommandRecorder commands;
    FlushAddrAndRouting("veth1");
    EXPECT_EQ(commands.Commands(), (Lines{"ip route flush dev veth1", "ip addr flush dev veth1"}));
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST(SetAddrAndRoutingTest, AddressAndDefaultRouteWithMetric) {
    LogCapture log;
    CommandRecorder commands;
    SetAddrAndRouting("veth1", 10, Ip("10.0.0.2"), Ip("255.255.255.0"), Ip("10.0.0.1"));
    EXPECT_EQ(log.Timeline(), (Lines{
                                  "INFO SetAddrAndRouting: Configuring veth1 for 10.0.0.2/255.255.255.0",
                                  "$ ip addr add 10.0.0.2/255.255.255.0 dev veth1",
                                  "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for veth1",
                                  "$ ip route add default via 10.0.0.1 dev veth1 metric 10",
                              }));
}

TEST(SetAddrAndRoutingTest, ZeroGatewayAddsNoRoute) {
    LogCapture log;
    CommandRecorder commands;
    SetAddrAndRouting("veth1", 10, Ip("10.0.0.2"), Ip("255.255.255.0"), Ip("0.0.0.0"));
    EXPECT_EQ(log.Timeline(), (Lines{
                                  "INFO SetAddrAndRouting: Configuring veth1 for 10.0.0.2/255.255.255.0",
                                  "$ ip addr add 10.0.0.2/255.255.255.0 dev veth1",
                                  "INFO SetAddrAndRouting: Not adding default gateway for veth1",
                              }));
}

TEST(SetAddrAndRoutingTest, MetricIsWrittenUnsignedAtBothEnds) {
    CommandRecorder commands;
    SetAddrAndRouting("veth3", 0, Ip("10.0.0.2"), Ip("255.255.255.0"), Ip("10.0.0.1"));
    SetAddrAndRouting("veth3", 4294967295U, Ip("10.0.0.2"), Ip("255.255.255.0"), Ip("10.0.0.1"));
    EXPECT_EQ(commands.Commands(), (Lines{
                                       "ip addr add 10.0.0.2/255.255.255.0 dev veth3",
                                       "ip route add default via 10.0.0.1 dev veth3 metric 0",
                                       "ip addr add 10.0.0.2/255.255.255.0 dev veth3",
                                       "ip route add default via 10.0.0.1 dev veth3 metric 4294967295",
                                   }));
}

TEST(SetAddrAndRoutingTest, MaskIsDottedNeverAPrefixLength) {
    CommandRecorder commands;
    SetAddrAndRouting("veth1", 10, Ip("10.0.0.2"), Ip("255.255.255.255"), Ip("0.0.0.0"));
    EXPECT_EQ(commands.Commands(), Lines{"ip addr add 10.0.0.2/255.255.255.255 dev veth1"});
}

TEST(SetAddrAndRoutingTest, SecondCallWithoutFlushRepeatsTheAddCommand) {
    LogCapture log;
    CommandRecorder commands;
    SetAddrAndRouting("veth1", 10, Ip("10.0.0.2"), Ip("255.255.255.0"), Ip("0.0.0.0"));
    SetAddrAndRouting("veth1", 10, Ip("10.0.0.2"), Ip("255.255.255.0"), Ip("0.0.0.0"));
    EXPECT_EQ(commands.Commands(),
              (Lines{"ip addr add 10.0.0.2/255.255.255.0 dev veth1", "ip addr add 10.0.0.2/255.255.255.0 dev veth1"}));
    EXPECT_EQ(log.Messages().size(), 4U);
}

TEST(SetAddrAndRoutingTest, EntriesCarryTheUnitAndFunction) {
    LogCapture log;
    CommandRecorder commands;
    SetAddrAndRouting("veth1", 10, Ip("1.2.3.4"), Ip("255.0.0.0"), Ip("0.0.0.0"));
    std::vector<LogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].file, "src/NetworkAddress.cpp");
    EXPECT_EQ(entries[0].function, "SetAddrAndRouting");
    EXPECT_GT(entries[0].line, 0);
    EXPECT_TRUE(log.SystemLog().empty());
}

}  // namespace
