// Reading rtnetlink: the sockets, the requests and the replies of every look at the kernel.
#include "src/NetworkNetlink.h"

#include <errno.h>
#include <net/if.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <string>

namespace {

bool SendToKernel(int fd, const nlmsghdr& request) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return sendto(fd, &request, request.nlmsg_len, 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof(kernel)) >= 0;
}

}  // namespace

Util::UniqueFd OpenRouteSocket(uint32_t groups, int receiveLimitSeconds) {
    Util::UniqueFd socketFd(
        socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | (groups != 0 ? SOCK_NONBLOCK : 0), NETLINK_ROUTE));
    if (!socketFd.IsOpen()) return socketFd;
    if (groups != 0) {
        sockaddr_nl joined{};
        joined.nl_family = AF_NETLINK;
        joined.nl_groups = groups;
        // Reset keeps errno: the caller reads why it failed.
        if (bind(socketFd.Get(), reinterpret_cast<sockaddr*>(&joined), sizeof(joined)) != 0) socketFd.Reset();
    } else if (receiveLimitSeconds > 0) {
        timeval limit{};
        limit.tv_sec = receiveLimitSeconds;
        setsockopt(socketFd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    return socketFd;
}

bool SendDumpRequest(int fd, uint16_t type, unsigned char family, uint32_t sequence) {
    struct {
        nlmsghdr m_header;
        rtgenmsg m_message;
    } request{};
    request.m_header.nlmsg_len = NLMSG_LENGTH(sizeof(rtgenmsg));
    request.m_header.nlmsg_type = type;
    request.m_header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.m_header.nlmsg_seq = sequence;
    request.m_message.rtgen_family = family;
    return SendToKernel(fd, request.m_header);
}

bool SendLinkRequest(int fd, const std::string& name, uint32_t sequence) {
    const size_t length = name.size();
    if (length >= IFNAMSIZ) return false;
    struct {
        nlmsghdr m_header;
        ifinfomsg m_info;
        char m_attributes[RTA_SPACE(IFNAMSIZ)];
    } request{};
    request.m_header.nlmsg_type = RTM_GETLINK;
    request.m_header.nlmsg_flags = NLM_F_REQUEST;
    request.m_header.nlmsg_seq = sequence;
    request.m_info.ifi_family = AF_UNSPEC;
    auto* attribute = reinterpret_cast<rtattr*>(request.m_attributes);
    attribute->rta_type = IFLA_IFNAME;
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(length + 1));
    memcpy(RTA_DATA(attribute), name.c_str(), length + 1);
    request.m_header.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_ALIGN(attribute->rta_len);
    return SendToKernel(fd, request.m_header);
}

const rtattr* FindAttribute(NETLINK_ATTRIBUTES attributes, unsigned short type) {
    const rtattr* found = nullptr;
    ForEachAttribute(attributes, [&found, type](unsigned short each, const rtattr* attribute) {
        if (found == nullptr && each == type) found = attribute;
    });
    return found;
}

const nlmsghdr* ReadReply(int fd, const Util::UniqueMapping& buffer) {
    ssize_t got = 0;
    do {
        got = ReceiveWhole(fd, buffer.Data(), buffer.Size());
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return nullptr;
    const nlmsghdr* reply = nullptr;
    ForEachMessage(buffer.Data(), static_cast<size_t>(got), [&reply](const nlmsghdr* header) {
        if (header->nlmsg_type != NLMSG_ERROR) reply = header;
        return false;
    });
    return reply;
}
