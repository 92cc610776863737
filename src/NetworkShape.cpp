// Reading the kernel's links, addresses and routes back, and telling what of
// the daemon's work someone else undid.
#include "src/NetworkShape.h"

#include <arpa/inet.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "src/NetworkNetlink.h"
#include "util/TextScan.h"
#include "util/UniqueFd.h"
#include "util/UniqueMapping.h"

namespace {

constexpr size_t kDumpBufferBytes = 32768;

KernelShapeReader& ActiveReader() {
    static KernelShapeReader reader;
    return reader;
}

uint32_t U32(const rtattr* attribute) {
    uint32_t value = 0;
    if (RTA_PAYLOAD(attribute) >= sizeof(value)) memcpy(&value, RTA_DATA(attribute), sizeof(value));
    return value;
}

in_addr Ipv4(const rtattr* attribute) {
    in_addr value{};
    if (RTA_PAYLOAD(attribute) >= sizeof(value)) memcpy(&value, RTA_DATA(attribute), sizeof(value));
    return value;
}

void TakeLink(const nlmsghdr* header, KERNEL_SHAPE& shape) {
    if (header->nlmsg_type != RTM_NEWLINK || header->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
    const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(header));
    KERNEL_LINK link;
    link.m_nIndex = info->ifi_index;
    link.m_bUp = (info->ifi_flags & IFF_UP) != 0;
    const NETLINK_ATTRIBUTES attributes = MessageAttributes(header, sizeof(ifinfomsg));
    ForEachAttribute(attributes, [&link](unsigned short type, const rtattr* attribute) {
        if (type == IFLA_IFNAME) {
            const auto* text = static_cast<const char*>(RTA_DATA(attribute));
            link.m_name.assign(text, strnlen(text, RTA_PAYLOAD(attribute)));
        } else if (type == IFLA_MASTER) {
            link.m_nMaster = static_cast<int>(U32(attribute));
        } else if (type == IFLA_ADDRESS && RTA_PAYLOAD(attribute) == 6) {
            const auto* mac = static_cast<const unsigned char*>(RTA_DATA(attribute));
            char text[18];
            snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                     mac[5]);
            link.m_mac = text;
        }
    });
    shape.m_links.push_back(std::move(link));
}

void TakeAddress(const nlmsghdr* header, KERNEL_SHAPE& shape) {
    if (header->nlmsg_type != RTM_NEWADDR || header->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) return;
    const auto* info = static_cast<const ifaddrmsg*>(NLMSG_DATA(header));
    if (info->ifa_family != AF_INET) return;
    KERNEL_ADDRESS address;
    address.m_nIndex = static_cast<int>(info->ifa_index);
    address.m_nPrefix = info->ifa_prefixlen;
    const NETLINK_ATTRIBUTES attributes = MessageAttributes(header, sizeof(ifaddrmsg));
    ForEachAttribute(attributes, [&address](unsigned short type, const rtattr* attribute) {
        if (type == IFA_LOCAL) address.m_address = Ipv4(attribute);
    });
    shape.m_addresses.push_back(address);
}

void TakeRoute(const nlmsghdr* header, KERNEL_SHAPE& shape) {
    if (header->nlmsg_type != RTM_NEWROUTE || header->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return;
    const auto* info = static_cast<const rtmsg*>(NLMSG_DATA(header));
    if (info->rtm_family != AF_INET || info->rtm_dst_len != 0) return;
    uint32_t table = info->rtm_table;
    KERNEL_ROUTE route;
    const NETLINK_ATTRIBUTES attributes = MessageAttributes(header, sizeof(rtmsg));
    ForEachAttribute(attributes, [&route, &table](unsigned short type, const rtattr* attribute) {
        if (type == RTA_OIF) route.m_nIndex = static_cast<int>(U32(attribute));
        if (type == RTA_GATEWAY) route.m_gateway = Ipv4(attribute);
        if (type == RTA_PRIORITY) route.m_nMetric = U32(attribute);
        if (type == RTA_TABLE) table = U32(attribute);
    });
    if (table == RT_TABLE_MAIN) shape.m_routes.push_back(route);
}

bool HasAddress(const KERNEL_SHAPE& kernel, int index, const WANTED_ADDRESS& wanted) {
    return std::any_of(kernel.m_addresses.begin(), kernel.m_addresses.end(), [&](const KERNEL_ADDRESS& a) {
        return a.m_nIndex == index && a.m_address.s_addr == wanted.m_address.s_addr && a.m_nPrefix == wanted.m_nPrefix;
    });
}

bool HasRoute(const KERNEL_SHAPE& kernel, int index, const WANTED_ADDRESS& wanted) {
    return std::any_of(kernel.m_routes.begin(), kernel.m_routes.end(), [&](const KERNEL_ROUTE& r) {
        return r.m_nIndex == index && r.m_gateway.s_addr == wanted.m_gateway.s_addr && r.m_nMetric == wanted.m_nMetric;
    });
}

std::string Dotted(in_addr address) { return Util::DottedQuad(address); }

const char* const kRemoved = " was removed";
const char* const kSetDown = " was set down";

// One finding, "NAME WHAT DETAIL", in one place: the texts are many, the code once.
void Note(std::vector<OUTSIDE_CHANGE>& changes, SHAPE_REPAIR repair, const std::string& name, const char* what,
          const char* detail = "") {
    std::string found = name;
    found.append(what).append(detail);
    changes.push_back({repair, std::move(found)});
}

bool Contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

const KERNEL_LINK* KERNEL_SHAPE::Link(const std::string& name) const {
    for (const KERNEL_LINK& link : m_links) {
        if (link.m_name == name) return &link;
    }
    return nullptr;
}

KERNEL_SHAPE ReadKernelShape() {
    KERNEL_SHAPE shape;
    // The kernel answers a dump at once; the limit only keeps a broken one from holding the daemon.
    const Util::UniqueFd socketFd = OpenRouteSocket(0, 1);
    if (!socketFd.IsOpen()) return shape;
    // The kernel sizes a dump's datagrams to the largest buffer the reader has
    // offered (32 KiB at most), and a link whose message does not fit is left
    // out, on Linux 6.18 without an error. 32 KiB are offered, in a mapping of
    // the look's own: nothing of it stays resident after the look.
    const Util::UniqueMapping buffer(kDumpBufferBytes);
    if (!buffer.IsMapped()) return shape;
    const int fd = socketFd.Get();
    // A dump a change interrupted is read again: what it handed over so far is dropped first.
    shape.m_bRead =
        Dump(
            fd, buffer, RTM_GETLINK, AF_UNSPEC, 1, [&shape](const nlmsghdr* header) { TakeLink(header, shape); },
            [&shape] { shape.m_links.clear(); }) &&
        Dump(
            fd, buffer, RTM_GETADDR, AF_INET, 2, [&shape](const nlmsghdr* header) { TakeAddress(header, shape); },
            [&shape] { shape.m_addresses.clear(); }) &&
        Dump(
            fd, buffer, RTM_GETROUTE, AF_INET, 3, [&shape](const nlmsghdr* header) { TakeRoute(header, shape); },
            [&shape] { shape.m_routes.clear(); });
    return shape;
}

KernelShapeReader SetKernelShapeReader(KernelShapeReader reader) {
    return std::exchange(ActiveReader(), std::move(reader));
}

KERNEL_SHAPE LookAtKernel() {
    const KernelShapeReader& reader = ActiveReader();
    return reader ? reader() : ReadKernelShape();
}

std::string ChangedLink(const OUTSIDE_CHANGE& change) {
    return change.m_found.substr(0, change.m_found.find_first_of(" '"));
}

unsigned int PrefixLength(in_addr mask) { return static_cast<unsigned int>(__builtin_popcount(mask.s_addr)); }

std::vector<OUTSIDE_CHANGE> FindOutsideChanges(const WANTED_SHAPE& wanted, const KERNEL_SHAPE& kernel) {
    std::vector<OUTSIDE_CHANGE> changes;
    if (!kernel.m_bRead) return changes;
    if (!wanted.m_ports.empty()) {
        const KERNEL_LINK* br0 = kernel.Link("br0");
        if (br0 == nullptr) Note(changes, SHAPE_REPAIR_BRIDGE, "br0", kRemoved);
        if (br0 != nullptr && !br0->m_bUp) Note(changes, SHAPE_REPAIR_SET_UP, "br0", kSetDown);
        for (const std::string& name : wanted.m_ports) {
            const KERNEL_LINK* port = kernel.Link(name);
            // A physical port goes only with its driver, and no build brings it
            // back: eth0's loss is the link query's to report.
            if (port == nullptr) {
                if (name.rfind("eth", 0) != 0) Note(changes, SHAPE_REPAIR_BRIDGE, name, kRemoved);
            } else if (br0 != nullptr && port->m_nMaster != br0->m_nIndex) {
                Note(changes, name == "eth0" ? SHAPE_REPAIR_ETH0 : SHAPE_REPAIR_ATTACH, name, " was taken out of br0");
            } else if (!port->m_bUp && !Contains(wanted.m_mayBeDown, name)) {
                Note(changes, SHAPE_REPAIR_SET_UP, name, kSetDown);
            }
        }
    }
    for (const std::string& name : wanted.m_links) {
        const KERNEL_LINK* link = kernel.Link(name);
        if (link == nullptr) Note(changes, SHAPE_REPAIR_BRIDGE, name, kRemoved);
        if (link != nullptr && !link->m_bUp) Note(changes, SHAPE_REPAIR_SET_UP, name, kSetDown);
    }
    for (const auto& [name, mac] : wanted.m_macs) {
        const KERNEL_LINK* link = kernel.Link(name);
        if (link != nullptr && link->m_mac != mac) {
            Note(changes, SHAPE_REPAIR_MAC, name, "'s MAC address was changed to ", link->m_mac.c_str());
        }
    }
    for (const auto& [name, address] : wanted.m_addresses) {
        const KERNEL_LINK* link = kernel.Link(name);
        // A removed interface comes back with the bridge, and is then set up again.
        if (link == nullptr) continue;
        const SHAPE_REPAIR repair = name == "veth3" ? SHAPE_REPAIR_VETH3 : SHAPE_REPAIR_VETH1;
        char text[INET_ADDRSTRLEN + 32];
        if (!HasAddress(kernel, link->m_nIndex, address)) {
            snprintf(text, sizeof(text), "%s/%u was removed", Dotted(address.m_address).c_str(), address.m_nPrefix);
            Note(changes, repair, name, "'s address ", text);
        } else if (address.m_gateway.s_addr != 0 && !HasRoute(kernel, link->m_nIndex, address)) {
            snprintf(text, sizeof(text), "%s was removed", Dotted(address.m_gateway).c_str());
            Note(changes, repair, name, "'s default route via ", text);
        }
    }
    return changes;
}
