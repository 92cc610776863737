// Reading rtnetlink: dumps over several datagrams, the kernel's errors, cut
// datagrams and malformed lengths, written by the test to a socket pair; and
// the requests answered by a real kernel in a namespace of the test's own.
#include "src/NetworkNetlink.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <string.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/Namespaces.h"
#include "util/UniqueFd.h"
#include "util/UniqueMapping.h"

namespace {

// One attribute, padded to its alignment.
std::string Attribute(uint16_t type, const std::string& payload) {
    rtattr header{};
    header.rta_type = type;
    header.rta_len = static_cast<uint16_t>(RTA_LENGTH(payload.size()));
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    bytes += payload;
    bytes.resize(RTA_SPACE(payload.size()), '\0');
    return bytes;
}

// One link message of index `index`, with `attributes` after its ifinfomsg.
std::string Message(uint16_t type, uint32_t sequence, int index, const std::string& attributes = "") {
    nlmsghdr header{};
    header.nlmsg_type = type;
    header.nlmsg_flags = NLM_F_MULTI;
    header.nlmsg_seq = sequence;
    header.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(sizeof(ifinfomsg)) + attributes.size());
    ifinfomsg info{};
    info.ifi_index = index;
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    bytes.append(reinterpret_cast<const char*>(&info), sizeof(info));
    bytes += attributes;
    bytes.resize(NLMSG_ALIGN(bytes.size()), '\0');
    return bytes;
}

std::string Done(uint32_t sequence) {
    nlmsghdr header{};
    header.nlmsg_type = NLMSG_DONE;
    header.nlmsg_flags = NLM_F_MULTI;
    header.nlmsg_seq = sequence;
    header.nlmsg_len = NLMSG_LENGTH(sizeof(int));
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    bytes.append(sizeof(int), '\0');
    return bytes;
}

std::string Error(uint32_t sequence, int error) {
    nlmsghdr header{};
    header.nlmsg_type = NLMSG_ERROR;
    header.nlmsg_seq = sequence;
    header.nlmsg_len = NLMSG_LENGTH(sizeof(nlmsgerr));
    nlmsgerr body{};
    body.error = -error;
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    bytes.append(reinterpret_cast<const char*>(&body), sizeof(body));
    return bytes;
}

// The reading end of a datagram socket pair the test writes the kernel's side to.
struct Datagrams {
    Datagrams() {
        int ends[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) ADD_FAILURE() << "socketpair";
        m_reader.Reset(ends[0]);
        m_writer.Reset(ends[1]);
    }
    void Send(const std::string& datagram) {
        EXPECT_EQ(send(m_writer.Get(), datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
    }
    bool Queued() const {
        char byte = 0;
        return recv(m_reader.Get(), &byte, 1, MSG_PEEK | MSG_TRUNC) > 0;
    }

    Util::UniqueFd m_reader;
    Util::UniqueFd m_writer;
};

// The indexes of the link messages a dump handed over, in order.
std::vector<int> Indexes(const std::vector<const nlmsghdr*>& headers) {
    std::vector<int> indexes;
    indexes.reserve(headers.size());
    for (const nlmsghdr* header : headers)
        indexes.push_back(static_cast<const ifinfomsg*>(NLMSG_DATA(header))->ifi_index);
    return indexes;
}

TEST(NetlinkDumpTest, AMultipartReplyIsReadOverItsDatagramsToDone) {
    Datagrams kernel;
    // Another request's message among them is passed over.
    kernel.Send(Message(RTM_NEWLINK, 7, 1) + Message(RTM_NEWLINK, 6, 99) + Message(RTM_NEWLINK, 7, 2));
    kernel.Send(Message(RTM_NEWLINK, 7, 3));
    kernel.Send(Message(RTM_NEWLINK, 7, 4) + Done(7));
    // The next dump's reply stays for it.
    kernel.Send(Message(RTM_NEWLINK, 8, 5) + Done(8));
    const Util::UniqueMapping buffer(4096);
    ASSERT_TRUE(buffer.IsMapped());
    std::vector<int> taken;
    EXPECT_TRUE(ReadDump(kernel.m_reader.Get(), buffer, 7, [&taken](const nlmsghdr* header) {
        EXPECT_EQ(header->nlmsg_type, RTM_NEWLINK);
        taken.push_back(static_cast<const ifinfomsg*>(NLMSG_DATA(header))->ifi_index);
    }));
    EXPECT_EQ(taken, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_TRUE(kernel.Queued());

    taken.clear();
    EXPECT_TRUE(ReadDump(kernel.m_reader.Get(), buffer, 8, [&taken](const nlmsghdr* header) {
        taken.push_back(static_cast<const ifinfomsg*>(NLMSG_DATA(header))->ifi_index);
    }));
    EXPECT_EQ(taken, (std::vector<int>{5}));
    EXPECT_FALSE(kernel.Queued());
}

// A reply the kernel marked interrupted: one of its messages, or its NLMSG_DONE.
std::string Interrupted(std::string message) {
    auto* header = reinterpret_cast<nlmsghdr*>(message.data());
    header->nlmsg_flags |= NLM_F_DUMP_INTR;
    return message;
}

TEST(NetlinkDumpTest, AnInterruptedReplyIsReadToItsEndAndNotTaken) {
    Datagrams kernel;
    kernel.Send(Message(RTM_NEWLINK, 4, 1) + Interrupted(Message(RTM_NEWLINK, 4, 2)));
    kernel.Send(Message(RTM_NEWLINK, 4, 3) + Done(4));
    kernel.Send(Message(RTM_NEWLINK, 5, 6) + Interrupted(Done(5)));
    const Util::UniqueMapping buffer(4096);
    ASSERT_TRUE(buffer.IsMapped());
    bool interrupted = false;
    std::vector<int> taken;
    auto take = [&taken](const nlmsghdr* header) {
        taken.push_back(static_cast<const ifinfomsg*>(NLMSG_DATA(header))->ifi_index);
    };
    EXPECT_FALSE(ReadDump(kernel.m_reader.Get(), buffer, 4, take, &interrupted));
    EXPECT_TRUE(interrupted);
    EXPECT_EQ(taken, (std::vector<int>{1, 2, 3}));
    // Read to its NLMSG_DONE: the next reply is the next one's.
    EXPECT_FALSE(ReadDump(kernel.m_reader.Get(), buffer, 5, take));
    EXPECT_EQ(taken, (std::vector<int>{1, 2, 3, 6}));
    EXPECT_FALSE(kernel.Queued());
}

TEST(NetlinkDumpTest, AnInterruptedDumpIsAskedForAgainAndOnlyTheWholeReplyKept) {
    Datagrams kernel;
    const Util::UniqueMapping buffer(4096);
    ASSERT_TRUE(buffer.IsMapped());
    // The first two replies interrupted by a change, the third whole.
    const std::vector<std::string> replies = {
        Message(RTM_NEWLINK, 9, 1) + Interrupted(Message(RTM_NEWLINK, 9, 2)) + Done(9),
        Message(RTM_NEWLINK, 9, 1) + Interrupted(Done(9)),
        Message(RTM_NEWLINK, 9, 1) + Message(RTM_NEWLINK, 9, 3) + Done(9)};
    size_t asked = 0;
    std::vector<int> taken;
    auto ask = [&] {
        if (asked < replies.size()) kernel.Send(replies[asked]);
        ++asked;
        return true;
    };
    auto take = [&taken](const nlmsghdr* header) {
        taken.push_back(static_cast<const ifinfomsg*>(NLMSG_DATA(header))->ifi_index);
    };
    EXPECT_TRUE(ReadWholeDump(kernel.m_reader.Get(), buffer, 9, ask, take, [&taken] { taken.clear(); }));
    EXPECT_EQ(asked, 3U);
    EXPECT_EQ(taken, (std::vector<int>{1, 3}));
    EXPECT_FALSE(kernel.Queued());
}

TEST(NetlinkDumpTest, ADumpInterruptedEveryTimeIsNotReadAfterABoundedNumberOfAttempts) {
    Datagrams kernel;
    const Util::UniqueMapping buffer(4096);
    ASSERT_TRUE(buffer.IsMapped());
    int asked = 0;
    std::vector<int> taken;
    auto ask = [&] {
        kernel.Send(Message(RTM_NEWLINK, 2, 7) + Interrupted(Done(2)));
        ++asked;
        return true;
    };
    auto take = [&taken](const nlmsghdr* header) {
        taken.push_back(static_cast<const ifinfomsg*>(NLMSG_DATA(header))->ifi_index);
    };
    EXPECT_FALSE(ReadWholeDump(kernel.m_reader.Get(), buffer, 2, ask, take, [&taken] { taken.clear(); }));
    EXPECT_EQ(asked, kDumpAttempts);
    EXPECT_GE(asked, 2);
    EXPECT_LE(asked, 8);
    // Nothing of an interrupted reply is left to be taken as the shape.
    EXPECT_EQ(taken, std::vector<int>{});
    EXPECT_FALSE(kernel.Queued());
}

TEST(NetlinkDumpTest, TheKernelsErrorEndsTheDumpAsNotRead) {
    Datagrams kernel;
    kernel.Send(Message(RTM_NEWLINK, 3, 1));
    kernel.Send(Error(3, EBUSY) + Message(RTM_NEWLINK, 3, 2) + Done(3));
    const Util::UniqueMapping buffer(4096);
    std::vector<const nlmsghdr*> taken;
    EXPECT_FALSE(
        ReadDump(kernel.m_reader.Get(), buffer, 3, [&taken](const nlmsghdr* header) { taken.push_back(header); }));
    // What came before the error was handed over; nothing after it.
    EXPECT_EQ(taken.size(), 1U);
}

TEST(NetlinkDumpTest, ADatagramLongerThanTheBufferIsNoRead) {
    Datagrams kernel;
    const std::string name(200, 'x');
    kernel.Send(Message(RTM_NEWLINK, 1, 1, Attribute(IFLA_IFNAME, name)) + Done(1));
    const Util::UniqueMapping buffer(128);
    int taken = 0;
    EXPECT_FALSE(ReadDump(kernel.m_reader.Get(), buffer, 1, [&taken](const nlmsghdr* /*header*/) { ++taken; }));
    EXPECT_EQ(taken, 0);
    // Dropped whole: nothing of it is left for the next read.
    EXPECT_FALSE(kernel.Queued());

    kernel.Send(std::string(129, 'y'));
    char small[128];
    errno = 0;
    EXPECT_EQ(ReceiveWhole(kernel.m_reader.Get(), small, sizeof(small)), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    kernel.Send(std::string(128, 'y'));
    EXPECT_EQ(ReceiveWhole(kernel.m_reader.Get(), small, sizeof(small)), 128);
}

TEST(NetlinkDumpTest, NothingMoreToReadIsNoRead) {
    Datagrams kernel;
    kernel.Send(Message(RTM_NEWLINK, 1, 1));
    const Util::UniqueMapping buffer(4096);
    int taken = 0;
    EXPECT_FALSE(ReadDump(kernel.m_reader.Get(), buffer, 1, [&taken](const nlmsghdr* /*header*/) { ++taken; }));
    EXPECT_EQ(taken, 1);
}

TEST(NetlinkReplyTest, TheFirstMessageOrNoneForAnErrorOrACutDatagram) {
    Datagrams kernel;
    const Util::UniqueMapping buffer(256);
    kernel.Send(Message(RTM_NEWLINK, 1, 4) + Message(RTM_NEWLINK, 1, 5));
    const nlmsghdr* reply = ReadReply(kernel.m_reader.Get(), buffer);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(Indexes({reply}), std::vector<int>{4});

    kernel.Send(Error(1, ENODEV));
    EXPECT_EQ(ReadReply(kernel.m_reader.Get(), buffer), nullptr);
    kernel.Send(Message(RTM_NEWLINK, 1, 6, Attribute(IFLA_IFNAME, std::string(300, 'x'))));
    EXPECT_EQ(ReadReply(kernel.m_reader.Get(), buffer), nullptr);
    // A message claiming more than the datagram holds.
    std::string claimsMore = Message(RTM_NEWLINK, 1, 7);
    claimsMore[0] = static_cast<char>(claimsMore.size() + 8);
    kernel.Send(claimsMore);
    EXPECT_EQ(ReadReply(kernel.m_reader.Get(), buffer), nullptr);
    EXPECT_EQ(ReadReply(kernel.m_reader.Get(), buffer), nullptr);
}

TEST(NetlinkWalkTest, MessagesAreWalkedNoFurtherThanTheyHold) {
    const std::string two = Message(RTM_NEWLINK, 1, 1) + Message(RTM_DELLINK, 1, 2);
    auto walked = [](const std::string& bytes, size_t length) {
        std::vector<const nlmsghdr*> headers;
        ForEachMessage(bytes.data(), length, [&headers](const nlmsghdr* header) {
            headers.push_back(header);
            return true;
        });
        return Indexes(headers);
    };
    EXPECT_EQ(walked(two, two.size()), (std::vector<int>{1, 2}));
    // The second cut short, or the first's header alone.
    EXPECT_EQ(walked(two, two.size() - 1), (std::vector<int>{1}));
    EXPECT_EQ(walked(two, 10), std::vector<int>{});
    // A length under a header's own ends the walk.
    std::string tooShort = two;
    tooShort[0] = 4;
    EXPECT_EQ(walked(tooShort, tooShort.size()), std::vector<int>{});
    // `take` stops it.
    int seen = 0;
    ForEachMessage(two.data(), two.size(), [&seen](const nlmsghdr* /*header*/) { return ++seen < 1; });
    EXPECT_EQ(seen, 1);
}

// The types and payloads of the attributes walked.
std::vector<std::string> Walked(NETLINK_ATTRIBUTES attributes) {
    std::vector<std::string> seen;
    ForEachAttribute(attributes, [&seen](unsigned short type, const rtattr* attribute) {
        seen.push_back(std::to_string(type) + " " +
                       std::string(static_cast<const char*>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute)));
    });
    return seen;
}

TEST(NetlinkWalkTest, AttributesAreWalkedNoFurtherThanTheyHold) {
    const std::string message =
        Message(RTM_NEWLINK, 1, 1, Attribute(IFLA_IFNAME, "eth0") + Attribute(IFLA_MTU, "abcd"));
    const auto* header = reinterpret_cast<const nlmsghdr*>(message.data());
    EXPECT_EQ(Walked(MessageAttributes(header, sizeof(ifinfomsg))),
              (std::vector<std::string>{std::to_string(IFLA_IFNAME) + " eth0", std::to_string(IFLA_MTU) + " abcd"}));
    // A fixed part longer than the message: no attributes.
    EXPECT_EQ(MessageAttributes(header, 4096).m_nLength, 0U);

    // The second claims more than is left, then less than its own header: the walk ends at the first.
    std::string malformed = Attribute(1, "one") + Attribute(2, "two") + Attribute(3, "three");
    auto* second = reinterpret_cast<rtattr*>(&malformed[RTA_SPACE(3)]);
    second->rta_len = static_cast<unsigned short>(malformed.size());
    EXPECT_EQ(Walked({malformed.data(), malformed.size()}), std::vector<std::string>{"1 one"});
    second->rta_len = 2;
    EXPECT_EQ(Walked({malformed.data(), malformed.size()}), std::vector<std::string>{"1 one"});

    // A last attribute unpadded at the end: taken, and nothing past the run read.
    const std::string unpadded = Attribute(1, "one") + Attribute(2, "x").substr(0, RTA_LENGTH(1)) + Attribute(3, "far");
    const size_t runLength = RTA_SPACE(3) + RTA_LENGTH(1);
    EXPECT_EQ(Walked({unpadded.data(), runLength}), (std::vector<std::string>{"1 one", "2 x"}));
    EXPECT_EQ(Walked({unpadded.data(), runLength - 1}), std::vector<std::string>{"1 one"});
}

TEST(NetlinkWalkTest, NestedAttributesAndTypesWithoutTheirFlags) {
    const std::string inner =
        Attribute(IFLA_BR_NF_CALL_IPTABLES, "\x01") + Attribute(IFLA_BR_NF_CALL_ARPTABLES, std::string(1, '\0'));
    const std::string data = Attribute(static_cast<uint16_t>(NLA_F_NESTED | IFLA_INFO_DATA), inner);
    const std::string info = Attribute(IFLA_INFO_KIND, "bridge") + data;
    const std::string message =
        Message(RTM_NEWLINK, 1, 1, Attribute(IFLA_IFNAME, "br0") + Attribute(IFLA_LINKINFO, info));
    const auto* header = reinterpret_cast<const nlmsghdr*>(message.data());
    const rtattr* linkInfo = FindAttribute(MessageAttributes(header, sizeof(ifinfomsg)), IFLA_LINKINFO);
    ASSERT_NE(linkInfo, nullptr);
    const rtattr* found = FindAttribute(NestedAttributes(linkInfo), IFLA_INFO_DATA);
    ASSERT_NE(found, nullptr);
    const rtattr* arp = FindAttribute(NestedAttributes(found), IFLA_BR_NF_CALL_ARPTABLES);
    ASSERT_NE(arp, nullptr);
    EXPECT_EQ(RTA_PAYLOAD(arp), 1U);
    EXPECT_EQ(*static_cast<const char*>(RTA_DATA(arp)), '\0');
    EXPECT_EQ(FindAttribute(NestedAttributes(found), IFLA_BR_VLAN_FILTERING), nullptr);
}

TEST(NetlinkKernelTest, TheKernelAnswersTheDumpAndTheLinkRequest) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWNET, [] {
        const Util::UniqueFd socketFd = OpenRouteSocket(0, 1);
        const Util::UniqueMapping buffer(32768);
        if (!socketFd.IsOpen() || !buffer.IsMapped()) return Lines{"no socket"};
        Lines seen;
        auto name = [](const nlmsghdr* header) {
            const rtattr* attribute = FindAttribute(MessageAttributes(header, sizeof(ifinfomsg)), IFLA_IFNAME);
            return attribute == nullptr ? std::string("?") : std::string(static_cast<const char*>(RTA_DATA(attribute)));
        };
        const bool read = Dump(
            socketFd.Get(), buffer, RTM_GETLINK, AF_UNSPEC, 1,
            [&seen, &name](const nlmsghdr* header) { seen.push_back("dump " + name(header)); },
            [&seen] { seen.emplace_back("dump again"); });
        seen.push_back(read ? "dump read" : "dump not read");
        if (SendLinkRequest(socketFd.Get(), "lo", 2)) {
            const nlmsghdr* reply = ReadReply(socketFd.Get(), buffer);
            seen.push_back(reply == nullptr ? "lo: none" : "lo: " + name(reply));
        }
        // No such link: the kernel's error.
        if (SendLinkRequest(socketFd.Get(), "nosuch0", 3)) {
            seen.push_back(ReadReply(socketFd.Get(), buffer) == nullptr ? "nosuch0: none" : "nosuch0: a reply");
        }
        seen.push_back(SendLinkRequest(socketFd.Get(), std::string(IFNAMSIZ, 'x'), 4) ? "long: sent" : "long: refused");
        return seen;
    });
    EXPECT_EQ(lines, (Lines{"dump lo", "dump read", "lo: lo", "nosuch0: none", "long: refused"}));
}

TEST(NetlinkKernelTest, NotificationsAreJoinedOnANonBlockingSocket) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWNET, [] {
        const Util::UniqueFd socketFd = OpenRouteSocket(RTMGRP_LINK, 0);
        if (!socketFd.IsOpen()) return Lines{"not open"};
        char buffer[8192];
        Lines seen;
        seen.push_back(ReceiveWhole(socketFd.Get(), buffer, sizeof(buffer)) < 0 && errno == EAGAIN ? "nothing yet"
                                                                                                   : "read");
        if (!RunQuietly("ip link add veth7 type veth peer name veth8")) return Lines{"cannot add veth7"};
        const ssize_t got = ReceiveWhole(socketFd.Get(), buffer, sizeof(buffer));
        ForEachMessage(buffer, got > 0 ? static_cast<size_t>(got) : 0, [&seen](const nlmsghdr* header) {
            if (header->nlmsg_type == RTM_NEWLINK) seen.emplace_back("new link");
            return true;
        });
        return seen;
    });
    if (lines == Lines{"cannot add veth7"}) GTEST_SKIP() << "veth7 could not be made";
    EXPECT_EQ(lines, (Lines{"nothing yet", "new link"}));
}

}  // namespace
