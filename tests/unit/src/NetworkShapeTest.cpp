// Telling what someone else undid: the comparison of what the daemon built
// with what the kernel holds, and the kernel's side read for real in a namespace.
#include "src/NetworkShape.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <string>
#include <vector>

#include "src/NetworkInternalNames.h"
#include "tests/support/KernelShapes.h"
#include "tests/support/Namespaces.h"

namespace {

// What the daemon wants after the two-port build with the addressing of WholeTwoPortShape.
WANTED_SHAPE TwoPortWanted() {
    WANTED_SHAPE wanted;
    wanted.m_ports = {"eth0", "eth1", "veth0", "veth2"};
    wanted.m_mayBeDown = {"eth0"};
    wanted.m_links = {"veth1", "veth3"};
    wanted.m_macs = {{"veth1", kTestVeth1Mac}, {"veth3", kVeth3Mac}};
    WANTED_ADDRESS veth1{Address("192.168.1.2"), 24, Address("192.168.1.1"), 10};
    WANTED_ADDRESS veth3{Address("192.168.100.1"), 24, Address("0.0.0.0"), 100};
    wanted.m_addresses = {{"veth1", veth1}, {"veth3", veth3}};
    return wanted;
}

// The link of that name in `shape`, to change (every test asks for one that is there).
KERNEL_LINK& LinkOf(KERNEL_SHAPE& shape, const std::string& name) {
    auto named = [&name](const KERNEL_LINK& link) { return link.m_name == name; };
    return *std::find_if(shape.m_links.begin(), shape.m_links.end(), named);
}

using Changes = std::vector<OUTSIDE_CHANGE>;

TEST(FindOutsideChangesTest, AWholeDeviceHasNone) {
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), WholeTwoPortShape()), Changes{});
}

TEST(FindOutsideChangesTest, NothingIsConcludedFromAKernelThatCouldNotBeRead) {
    KERNEL_SHAPE unread;
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), unread), Changes{});
}

TEST(FindOutsideChangesTest, NothingIsWantedBeforeABuild) {
    EXPECT_EQ(FindOutsideChanges(WANTED_SHAPE{}, WithoutLink(WholeTwoPortShape(), "br0")), Changes{});
}

TEST(FindOutsideChangesTest, ARemovedBridgeIsNamedAloneAndRebuilt) {
    // Its ports stay up and lose their master with it: that is not said again.
    KERNEL_SHAPE shape = WithoutLink(WholeTwoPortShape(), "br0");
    for (KERNEL_LINK& link : shape.m_links) link.m_nMaster = 0;
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), shape), (Changes{{SHAPE_REPAIR_BRIDGE, "br0 was removed"}}));
}

TEST(FindOutsideChangesTest, PortsTakenOutOrDownAndARemovedPair) {
    KERNEL_SHAPE shape = WholeTwoPortShape();
    LinkOf(shape, "eth1").m_nMaster = 0;
    LinkOf(shape, "veth2").m_bUp = false;
    LinkOf(shape, "br0").m_bUp = false;
    shape = WithoutLink(WithoutLink(shape, "veth0"), "veth1");
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), shape), (Changes{
                                                              {SHAPE_REPAIR_SET_UP, "br0 was set down"},
                                                              {SHAPE_REPAIR_ATTACH, "eth1 was taken out of br0"},
                                                              {SHAPE_REPAIR_BRIDGE, "veth0 was removed"},
                                                              {SHAPE_REPAIR_SET_UP, "veth2 was set down"},
                                                              {SHAPE_REPAIR_BRIDGE, "veth1 was removed"},
                                                          }));
}

TEST(FindOutsideChangesTest, Eth0IsPutBackByThePassAndItsLinkIsTheRecoverysConcern) {
    KERNEL_SHAPE shape = WholeTwoPortShape();
    LinkOf(shape, "eth0").m_bUp = false;
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), shape), Changes{});
    LinkOf(shape, "eth0").m_nMaster = 0;
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), shape), (Changes{{SHAPE_REPAIR_ETH0, "eth0 was taken out of br0"}}));
}

TEST(FindOutsideChangesTest, APhysicalPortGoneIsNoChangeABuildCouldRepair) {
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), WithoutLink(WithoutLink(WholeTwoPortShape(), "eth0"), "eth1")),
              Changes{});
}

TEST(FindOutsideChangesTest, APortTheDaemonKeepsDownIsNoChange) {
    KERNEL_SHAPE shape = WholeTwoPortShape();
    LinkOf(shape, "eth1").m_bUp = false;
    WANTED_SHAPE wanted = TwoPortWanted();
    EXPECT_EQ(FindOutsideChanges(wanted, shape), (Changes{{SHAPE_REPAIR_SET_UP, "eth1 was set down"}}));
    wanted.m_mayBeDown.emplace_back("eth1");
    EXPECT_EQ(FindOutsideChanges(wanted, shape), Changes{});
}

TEST(FindOutsideChangesTest, ChangedMacAddresses) {
    KERNEL_SHAPE shape = WholeTwoPortShape();
    LinkOf(shape, "veth1").m_mac = "02:00:00:00:77:02";
    LinkOf(shape, "veth3").m_mac = "aa:bb:cc:dd:ee:ff";
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), shape),
              (Changes{{SHAPE_REPAIR_MAC, "veth1's MAC address was changed to 02:00:00:00:77:02"},
                       {SHAPE_REPAIR_MAC, "veth3's MAC address was changed to aa:bb:cc:dd:ee:ff"}}));
}

TEST(FindOutsideChangesTest, AddressesAndRoutesRemovedOrChanged) {
    KERNEL_SHAPE shape = WholeTwoPortShape();
    // veth1 keeps its address and loses its route; veth3's address is another now.
    shape.m_routes.clear();
    shape.m_addresses[1].m_address = Address("192.168.100.9");
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), shape),
              (Changes{{SHAPE_REPAIR_VETH1, "veth1's default route via 192.168.1.1 was removed"},
                       {SHAPE_REPAIR_VETH3, "veth3's address 192.168.100.1/24 was removed"}}));
    // A route with another metric, or through another interface, is not the daemon's.
    shape = WholeTwoPortShape();
    shape.m_routes = {{5, Address("192.168.1.1"), 20}, {7, Address("192.168.1.1"), 10}};
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), shape),
              (Changes{{SHAPE_REPAIR_VETH1, "veth1's default route via 192.168.1.1 was removed"}}));
    // A prefix changed is the address removed; addresses added beside it are someone else's business.
    shape = WholeTwoPortShape();
    shape.m_addresses[0].m_nPrefix = 16;
    shape.m_addresses.push_back({5, Address("10.1.1.1"), 8});
    EXPECT_EQ(FindOutsideChanges(TwoPortWanted(), shape),
              (Changes{{SHAPE_REPAIR_VETH1, "veth1's address 192.168.1.2/24 was removed"}}));
}

TEST(FindOutsideChangesTest, EachChangeNamesTheInterfaceItsRepairTouches) {
    EXPECT_EQ(ChangedLink({SHAPE_REPAIR_SET_UP, "veth3 was set down"}), "veth3");
    EXPECT_EQ(ChangedLink({SHAPE_REPAIR_MAC, "veth1's MAC address was changed to 02:00:00:00:66:66"}), "veth1");
    EXPECT_EQ(ChangedLink({SHAPE_REPAIR_ATTACH, "veth2 was taken out of br0"}), "veth2");
}

TEST(PrefixLengthTest, DottedMasks) {
    EXPECT_EQ(PrefixLength(Address("255.255.255.0")), 24U);
    EXPECT_EQ(PrefixLength(Address("255.255.255.255")), 32U);
    EXPECT_EQ(PrefixLength(Address("0.0.0.0")), 0U);
    EXPECT_EQ(PrefixLength(Address("255.255.240.0")), 20U);
}

TEST(ReadKernelShapeTest, LinksPortsMacsAddressesAndDefaultRoutesAsTheKernelHasThem) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWNET, [] {
        for (const char* command :
             {"ip link add br0 type bridge", "ip link set br0 up", "ip link add veth1 type veth peer name veth0",
              "ip link set veth0 master br0", "ip link set veth0 up", "ip link set dev veth1 address 02:00:00:00:77:01",
              "ip link set veth1 up", "ip addr add 192.168.1.2/24 dev veth1",
              "ip route add default via 192.168.1.1 dev veth1 metric 10",
              "ip route add 10.0.0.0/8 via 192.168.1.1 dev veth1"}) {
            if (!RunQuietly(command)) return Lines{std::string("cannot run ") + command};
        }
        const KERNEL_SHAPE shape = ReadKernelShape();
        Lines seen = {shape.m_bRead ? "read" : "not read"};
        const KERNEL_LINK* br0 = shape.Link("br0");
        const KERNEL_LINK* veth0 = shape.Link("veth0");
        const KERNEL_LINK* veth1 = shape.Link("veth1");
        if (br0 == nullptr || veth0 == nullptr || veth1 == nullptr) return Lines{"links missing"};
        seen.push_back(std::string("br0 up ") + (br0->m_bUp ? "yes" : "no"));
        seen.push_back(std::string("veth0 in br0 ") + (veth0->m_nMaster == br0->m_nIndex ? "yes" : "no"));
        seen.push_back(std::string("veth1 master ") + std::to_string(veth1->m_nMaster) + " mac " + veth1->m_mac);
        for (const KERNEL_ADDRESS& address : shape.m_addresses) {
            if (address.m_nIndex == veth1->m_nIndex) {
                seen.push_back("veth1 address " + std::string(inet_ntoa(address.m_address)) + "/" +
                               std::to_string(address.m_nPrefix));
            }
        }
        // Only default routes: the one to 10.0.0.0/8 is not listed.
        for (const KERNEL_ROUTE& route : shape.m_routes) {
            seen.push_back("default via " + std::string(inet_ntoa(route.m_gateway)) + " index " +
                           (route.m_nIndex == veth1->m_nIndex ? "veth1" : std::to_string(route.m_nIndex)) + " metric " +
                           std::to_string(route.m_nMetric));
        }
        return seen;
    });
    EXPECT_EQ(lines, (Lines{"read", "br0 up yes", "veth0 in br0 yes", "veth1 master 0 mac 02:00:00:00:77:01",
                            "veth1 address 192.168.1.2/24", "default via 192.168.1.1 index veth1 metric 10"}));
}

TEST(ReadKernelShapeTest, ALinkWhoseMessageIsOverEightKibIsNotLeftOut) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWNET, [] {
        if (!RunQuietly("ip link add veth1 type veth peer name veth0")) return Lines{"cannot add veth1"};
        // A reader offering less than its message's length is sent the dump without it.
        if (!GiveManyAlternativeNames("veth1")) return Lines{"no alternative names"};
        const KERNEL_SHAPE shape = ReadKernelShape();
        Lines seen = {shape.m_bRead ? "read" : "not read"};
        for (const char* name : {"veth0", "veth1"}) {
            seen.push_back(std::string(name) + (shape.Link(name) != nullptr ? " listed" : " missing"));
        }
        return seen;
    });
    if (lines == Lines{"no alternative names"}) GTEST_SKIP() << "this kernel or ip has no alternative names";
    EXPECT_EQ(lines, (Lines{"read", "veth0 listed", "veth1 listed"}));
}

}  // namespace
