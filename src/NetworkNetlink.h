// Reading rtnetlink, in one place for every look at the kernel: the socket, a
// request, its reply (a dump's datagrams to NLMSG_DONE, or one message), and
// the walk over messages and their attributes, which never reads past what a
// datagram or an attribute holds.
#pragma once

#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "util/UniqueFd.h"
#include "util/UniqueMapping.h"

// An rtnetlink socket; closed, with errno saying why, when it cannot be had.
// With `groups` (RTMGRP_*) it is non-blocking and receives their
// notifications; without, it is for asking, and `receiveLimitSeconds` > 0
// bounds each wait for a reply.
Util::UniqueFd OpenRouteSocket(uint32_t groups, int receiveLimitSeconds);

// Asks for a dump of `type` (RTM_GETLINK, ...) of the address `family`.
bool SendDumpRequest(int fd, uint16_t type, unsigned char family, uint32_t sequence);
// Asks for the one link named `name` (RTM_GETLINK); false for a name too long for a link.
bool SendLinkRequest(int fd, const std::string& name, uint32_t sequence);

// A run of bytes holding attributes.
struct NETLINK_ATTRIBUTES {
    const char* m_pData = nullptr;
    size_t m_nLength = 0;
};
// A message's attributes after its fixed part of `fixedLength` bytes; none when
// the message is shorter than that.
inline NETLINK_ATTRIBUTES MessageAttributes(const nlmsghdr* header, size_t fixedLength) {
    const size_t start = NLMSG_LENGTH(fixedLength);
    if (header->nlmsg_len < start) return {};
    return {reinterpret_cast<const char*>(header) + NLMSG_ALIGN(start), header->nlmsg_len - start};
}
// The attributes nested in `attribute`'s payload.
inline NETLINK_ATTRIBUTES NestedAttributes(const rtattr* attribute) {
    return {static_cast<const char*>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute)};
}

// Hands each whole message among `length` bytes at `data` to `take`, which
// returns false to stop; a message that claims more than is left ends the walk.
template <typename Take>
void ForEachMessage(const char* data, size_t length, Take take) {
    while (length >= sizeof(nlmsghdr)) {
        const auto* header = reinterpret_cast<const nlmsghdr*>(data);
        if (header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > length || !take(header)) return;
        const size_t step = NLMSG_ALIGN(header->nlmsg_len);
        if (step >= length) return;
        data += step;
        length -= step;
    }
}

// Hands each whole attribute to `take(type, attribute)`, the type without its
// flag bits; an attribute that claims more than is left ends the walk.
template <typename Take>
void ForEachAttribute(NETLINK_ATTRIBUTES attributes, Take take) {
    const char* data = attributes.m_pData;
    size_t length = attributes.m_nLength;
    while (length >= sizeof(rtattr)) {
        const auto* attribute = reinterpret_cast<const rtattr*>(data);
        if (attribute->rta_len < sizeof(rtattr) || attribute->rta_len > length) return;
        take(static_cast<unsigned short>(attribute->rta_type & NLA_TYPE_MASK), attribute);
        const size_t step = RTA_ALIGN(attribute->rta_len);
        if (step >= length) return;
        data += step;
        length -= step;
    }
}

// The first attribute of `type`, or null.
const rtattr* FindAttribute(NETLINK_ATTRIBUTES attributes, unsigned short type);

// Receives one datagram whole: its length, or -1 with errno set; EMSGSIZE for
// one longer than `size` (dropped, never parsed cut short).
inline ssize_t ReceiveWhole(int fd, char* buffer, size_t size) {
    // MSG_TRUNC: the datagram's whole length, so one cut short is told apart.
    const ssize_t got = recv(fd, buffer, size, MSG_TRUNC);
    if (got > static_cast<ssize_t>(size)) {
        errno = EMSGSIZE;
        return -1;
    }
    return got;
}

// Reads the reply to the dump request `sequence` into `buffer`, datagram by
// datagram, and hands each of its messages to `take` until NLMSG_DONE. False
// when a datagram could not be read or was cut, the kernel answered NLMSG_ERROR,
// or the kernel marked the reply NLM_F_DUMP_INTR (what it changed meanwhile may
// be missing or twice in it): then `*interrupted`, when given, is set and the
// reply is still read to its end, so the socket is ready for the next request.
template <typename Take>
bool ReadDump(int fd, const Util::UniqueMapping& buffer, uint32_t sequence, Take take, bool* interrupted = nullptr) {
    bool changed = false;
    for (;;) {
        const ssize_t got = ReceiveWhole(fd, buffer.Data(), buffer.Size());
        if (got <= 0) return false;
        int end = 0;  // 1: done, -1: the kernel's error
        ForEachMessage(buffer.Data(), static_cast<size_t>(got), [&](const nlmsghdr* header) {
            if (header->nlmsg_seq != sequence) return true;
            if ((header->nlmsg_flags & NLM_F_DUMP_INTR) != 0) changed = true;
            if (header->nlmsg_type == NLMSG_DONE || header->nlmsg_type == NLMSG_ERROR) {
                end = header->nlmsg_type == NLMSG_DONE ? 1 : -1;
                return false;
            }
            take(header);
            return true;
        });
        if (end == 0) continue;
        if (changed && end > 0 && interrupted != nullptr) *interrupted = true;
        return end > 0 && !changed;
    }
}

// How often a dump interrupted by a change is asked for again before the look gives up.
constexpr int kDumpAttempts = 4;

// Asks for a dump with `ask` and reads its reply as ReadDump does; a reply the
// kernel marked interrupted is never taken: `restart` forgets what it handed to
// `take`, and the dump is asked for again, kDumpAttempts times in all.
template <typename Ask, typename Take, typename Restart>
bool ReadWholeDump(int fd, const Util::UniqueMapping& buffer, uint32_t sequence, Ask ask, Take take, Restart restart) {
    for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
        if (attempt > 0) restart();
        bool interrupted = false;
        if (!ask()) return false;
        if (ReadDump(fd, buffer, sequence, take, &interrupted)) return true;
        if (!interrupted) return false;
    }
    restart();
    return false;
}

// Asks the kernel for a dump of `type` and reads it whole (ReadWholeDump).
template <typename Take, typename Restart>
bool Dump(int fd, const Util::UniqueMapping& buffer, uint16_t type, unsigned char family, uint32_t sequence, Take take,
          Restart restart) {
    return ReadWholeDump(
        fd, buffer, sequence, [=] { return SendDumpRequest(fd, type, family, sequence); }, take, restart);
}

// Reads the reply to a request for one object into `buffer`: its message, or
// null when nothing could be read, the datagram was cut or the kernel answered NLMSG_ERROR.
const nlmsghdr* ReadReply(int fd, const Util::UniqueMapping& buffer);
