// The shape the daemon built, read back from the kernel (links, their bridge,
// flags and MAC addresses, IPv4 addresses, default routes) and compared with
// what the daemon put there: what differs was undone by someone else.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// One network interface as the kernel reports it.
struct KERNEL_LINK {
    std::string m_name;
    int m_nIndex = 0;
    int m_nMaster = 0;   // the index of the bridge it is a port of; 0: none
    bool m_bUp = false;  // administratively up
    std::string m_mac;   // "02:23:02:00:00:00", lower case; empty: none
};

// One IPv4 address, on the interface with that index.
struct KERNEL_ADDRESS {
    int m_nIndex = 0;
    in_addr m_address{};
    unsigned int m_nPrefix = 0;
};

// One IPv4 default route of the main table.
struct KERNEL_ROUTE {
    int m_nIndex = 0;  // the interface it leaves through
    in_addr m_gateway{};
    unsigned int m_nMetric = 0;
};

// What the kernel holds; nothing is concluded from a read that failed.
struct KERNEL_SHAPE {
    bool m_bRead = false;
    std::vector<KERNEL_LINK> m_links;
    std::vector<KERNEL_ADDRESS> m_addresses;
    std::vector<KERNEL_ROUTE> m_routes;

    // The link of that name; null when there is none.
    const KERNEL_LINK* Link(const std::string& name) const;
};

// Reads it through rtnetlink: one dump each of links, IPv4 addresses and IPv4 routes.
KERNEL_SHAPE ReadKernelShape();
// The function the shape is read through; tests put their own here, an empty
// one puts ReadKernelShape back. Returns the one it replaced.
using KernelShapeReader = std::function<KERNEL_SHAPE()>;
KernelShapeReader SetKernelShapeReader(KernelShapeReader reader);
// Reads the shape through the reader in force.
KERNEL_SHAPE LookAtKernel();

// An address the daemon put on an interface, with its default route when it has a gateway.
struct WANTED_ADDRESS {
    in_addr m_address{};
    unsigned int m_nPrefix = 0;
    in_addr m_gateway{};  // 0.0.0.0: no route
    unsigned int m_nMetric = 0;
};

// What the daemon put in place and expects to find again, per piece of work.
struct WANTED_SHAPE {
    // br0 with these ports, each in br0 and up (but those in m_mayBeDown, kept
    // down by the daemon itself); empty: no bridge is expected.
    std::vector<std::string> m_ports;
    std::vector<std::string> m_mayBeDown;
    // Links the bridge build made and raised that are not ports (veth1, veth3),
    // and the MAC addresses it gave them.
    std::vector<std::string> m_links;
    std::vector<std::pair<std::string, std::string>> m_macs;
    // The served interfaces' addressing, where one is in force.
    std::vector<std::pair<std::string, WANTED_ADDRESS>> m_addresses;
};

// What someone undid, and which work puts it back.
enum SHAPE_REPAIR {
    SHAPE_REPAIR_BRIDGE,  // the bridge build (both interfaces are set up again after it)
    SHAPE_REPAIR_ETH0,    // eth0 put back into br0, as every pass does when its link is up
    SHAPE_REPAIR_VETH1,   // veth1's addressing
    SHAPE_REPAIR_VETH3,   // veth3's addressing
    // The least work for what one command puts back; the interface touched is
    // the one the change was to (ChangedLink), nothing else.
    SHAPE_REPAIR_SET_UP,  // a link set down: set up again
    SHAPE_REPAIR_ATTACH,  // a port taken out of br0 (not eth0): put back into br0
    SHAPE_REPAIR_MAC,     // a MAC address changed: set back
};
constexpr size_t kShapeRepairKinds = 7;
struct OUTSIDE_CHANGE {
    SHAPE_REPAIR m_eRepair;
    std::string m_found;  // "br0 was removed"

    bool operator==(const OUTSIDE_CHANGE&) const = default;
};

// The interface a change was found on: the name its text starts with.
std::string ChangedLink(const OUTSIDE_CHANGE& change);

// Every difference between what is wanted and what the kernel holds, bridge
// first; what follows from a bigger loss is not named again (the ports of a
// removed br0, the address of a removed veth1).
std::vector<OUTSIDE_CHANGE> FindOutsideChanges(const WANTED_SHAPE& wanted, const KERNEL_SHAPE& kernel);

// The prefix length of a dotted mask (its bits set).
unsigned int PrefixLength(in_addr mask);
