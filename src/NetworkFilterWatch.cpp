// The filter tables' fingerprint: asked of the kernel in-process (a netlink
// request, a few getsockopt calls, two small /proc files), so that the look at
// the isolation starts its listing tools only when the tables may have moved.
#include "src/NetworkFilterWatch.h"

// Before the kernel's headers, which then leave out what it declares.
#include <netinet/in.h>

#include <errno.h>
#include <fcntl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter_arp/arp_tables.h>
#include <linux/netfilter_bridge/ebtables.h>
#include <linux/netfilter_ipv4/ip_tables.h>
#include <linux/netlink.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "src/NetworkNetlink.h"
#include "util/UniqueFd.h"

namespace {

constexpr uint64_t kHashStart = 14695981039346656037ULL;

// One part of the fingerprint: read (with its hash), or not readable.
struct PART {
    bool m_bRead = false;
    uint64_t m_nHash = kHashStart;
};

PART Absent(int error) {
    PART part{true, kHashStart};
    part.m_nHash = HashBytes(part.m_nHash, &error, sizeof(error));
    return part;
}

// The layout of one kind of legacy entry: where the part that moves with the
// traffic (the kernel's loop mark and the counters) lies.
struct ENTRY_LAYOUT {
    size_t m_nSize;
    size_t m_nNextOffsetAt;
    size_t m_nSkipFrom;
    size_t m_nSkipTo;
};

constexpr ENTRY_LAYOUT kIpEntry{sizeof(ipt_entry), offsetof(ipt_entry, next_offset), offsetof(ipt_entry, comefrom),
                                offsetof(ipt_entry, counters) + sizeof(xt_counters)};
constexpr ENTRY_LAYOUT kArpEntry{sizeof(arpt_entry), offsetof(arpt_entry, next_offset), offsetof(arpt_entry, comefrom),
                                 offsetof(arpt_entry, counters) + sizeof(xt_counters)};

bool HashEntries(const ENTRY_LAYOUT& layout, const char* data, size_t length, uint64_t& hash) {
    size_t at = 0;
    while (at < length) {
        if (length - at < layout.m_nSize) return false;
        uint16_t next = 0;
        memcpy(&next, data + at + layout.m_nNextOffsetAt, sizeof(next));
        if (next < layout.m_nSize || next > length - at) return false;
        hash = HashBytes(hash, data + at, layout.m_nSkipFrom);
        hash = HashBytes(hash, data + at + layout.m_nSkipTo, next - layout.m_nSkipTo);
        at += next;
    }
    return true;
}

// Whether a /proc/net/*_tables_names file lists "filter"; the file's absence
// (no such tables in the kernel) is a state too. Unread where it cannot be read.
PART TablesNamed(const char* path, bool& filterListed) {
    filterListed = false;
    const Util::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) return errno == ENOENT ? Absent(ENOENT) : PART{};
    char text[512];
    const ssize_t got = read(file.Get(), text, sizeof(text));
    if (got < 0) return {};
    const std::string_view names(text, static_cast<size_t>(got));
    filterListed = names == "filter\n" || names.starts_with("filter\n") || names.find("\nfilter\n") != names.npos;
    PART part{true, kHashStart};
    part.m_nHash = HashBytes(part.m_nHash, text, static_cast<size_t>(got));
    return part;
}

// A legacy table's entries through getsockopt: GET_INFO says how long they
// are, GET_ENTRIES hands them over (EAGAIN where the table changed between the two).
template <typename INFO, typename ENTRIES>
PART ReadXtTable(int fd, int infoOption, int entriesOption, const ENTRY_LAYOUT& layout) {
    INFO info{};
    strncpy(info.name, "filter", sizeof(info.name) - 1);
    socklen_t length = sizeof(info);
    if (getsockopt(fd, IPPROTO_IP, infoOption, &info, &length) != 0) {
        return errno == ENOENT || errno == ENOPROTOOPT ? Absent(errno) : PART{};
    }
    std::vector<char> buffer(sizeof(ENTRIES) + info.size);
    ENTRIES entries{};
    strncpy(entries.name, "filter", sizeof(entries.name) - 1);
    entries.size = info.size;
    memcpy(buffer.data(), &entries, sizeof(entries));
    length = static_cast<socklen_t>(buffer.size());
    if (getsockopt(fd, IPPROTO_IP, entriesOption, buffer.data(), &length) != 0) return {};
    PART part{true, kHashStart};
    part.m_nHash = HashBytes(part.m_nHash, &info.valid_hooks, sizeof(info.valid_hooks));
    part.m_nHash = HashBytes(part.m_nHash, info.hook_entry, sizeof(info.hook_entry));
    part.m_nHash = HashBytes(part.m_nHash, info.underflow, sizeof(info.underflow));
    part.m_nHash = HashBytes(part.m_nHash, &info.num_entries, sizeof(info.num_entries));
    if (!HashEntries(layout, buffer.data() + sizeof(ENTRIES), info.size, part.m_nHash)) return {};
    return part;
}

// iptables' or arptables' filter table, only where /proc/net names it: asking
// for one the kernel has not made in this namespace would make it.
template <typename INFO, typename ENTRIES>
PART ReadNamedXtTable(int fd, const char* names, int infoOption, int entriesOption, const ENTRY_LAYOUT& layout) {
    bool listed = false;
    PART part = TablesNamed(names, listed);
    if (!part.m_bRead || !listed) return part;
    const PART table = ReadXtTable<INFO, ENTRIES>(fd, infoOption, entriesOption, layout);
    if (!table.m_bRead) return {};
    part.m_nHash = HashBytes(part.m_nHash, &table.m_nHash, sizeof(table.m_nHash));
    return part;
}

PART ReadEbtablesFilter(int fd) {
    ebt_replace info{};
    strncpy(info.name, "filter", sizeof(info.name) - 1);
    socklen_t length = sizeof(info);
    if (getsockopt(fd, IPPROTO_IP, EBT_SO_GET_INFO, &info, &length) != 0) {
        return errno == ENOENT || errno == ENOPROTOOPT ? Absent(errno) : PART{};
    }
    // The kernel reads the request's head and writes the entries where it points.
    std::vector<char> buffer(sizeof(ebt_replace) + info.entries_size);
    ebt_replace request{};
    memcpy(request.name, info.name, sizeof(request.name));
    request.nentries = info.nentries;
    request.entries_size = info.entries_size;
    request.entries = buffer.data() + sizeof(ebt_replace);
    memcpy(buffer.data(), &request, sizeof(request));
    length = static_cast<socklen_t>(buffer.size());
    if (getsockopt(fd, IPPROTO_IP, EBT_SO_GET_ENTRIES, buffer.data(), &length) != 0) return {};
    PART part{true, kHashStart};
    part.m_nHash = HashBytes(part.m_nHash, &info.valid_hooks, sizeof(info.valid_hooks));
    part.m_nHash = HashBytes(part.m_nHash, &info.nentries, sizeof(info.nentries));
    if (!HashTableEntries(FILTER_FAMILY::kBridge, buffer.data() + sizeof(ebt_replace), info.entries_size,
                          part.m_nHash)) {
        return {};
    }
    return part;
}

// Whether the ebtables the daemon runs is the legacy one: found on $PATH, and
// its real file not one of the nf_tables variants (whose changes the
// generation shows). Asking the legacy tables where nothing uses them would
// make a filter table every bridged frame then passes.
bool FindLegacyEbtables() {
    const char* path = getenv("PATH");
    std::string_view dirs = path != nullptr ? path : "/usr/local/bin:/bin:/usr/bin";
    while (!dirs.empty()) {
        const size_t end = dirs.find(':');
        const std::string_view dir = dirs.substr(0, end);
        dirs = end == dirs.npos ? std::string_view{} : dirs.substr(end + 1);
        const std::string candidate = std::string(dir.empty() ? "." : dir) + "/ebtables";
        if (access(candidate.c_str(), X_OK) != 0) continue;
        char* real = realpath(candidate.c_str(), nullptr);
        if (real == nullptr) return false;
        const std::string_view name = std::string_view(real).substr(std::string_view(real).rfind('/') + 1);
        const bool legacy = name.find("nft") == name.npos;
        free(real);  // NOLINT(cppcoreguidelines-no-malloc): realpath's own allocation
        return legacy;
    }
    return false;
}

// The nf_tables generation (the number every commit moves), asked through
// NETLINK_NETFILTER; a kernel without nf_tables is a state.
PART ReadNftGeneration() {
    const Util::UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    if (!fd.IsOpen()) return errno == EPROTONOSUPPORT || errno == EAFNOSUPPORT ? Absent(errno) : PART{};
    timeval limit{};
    limit.tv_sec = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    constexpr uint32_t kSequence = 1;
    struct {
        nlmsghdr m_header;
        nfgenmsg m_message;
    } request{};
    request.m_header.nlmsg_len = NLMSG_LENGTH(sizeof(nfgenmsg));
    request.m_header.nlmsg_type = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETGEN;
    request.m_header.nlmsg_flags = NLM_F_REQUEST;
    request.m_header.nlmsg_seq = kSequence;
    request.m_message.nfgen_family = AF_UNSPEC;
    request.m_message.version = NFNETLINK_V0;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd.Get(), &request, request.m_header.nlmsg_len, 0, reinterpret_cast<const sockaddr*>(&kernel),
               sizeof(kernel)) < 0) {
        return {};
    }
    alignas(nlmsghdr) char reply[512];
    ssize_t got = 0;
    do {
        got = ReceiveWhole(fd.Get(), reply, sizeof(reply));
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return {};
    const std::optional<int64_t> generation = NftGenerationOf(reply, static_cast<size_t>(got), kSequence);
    if (!generation) return {};
    PART part{true, kHashStart};
    part.m_nHash = HashBytes(part.m_nHash, &*generation, sizeof(*generation));
    return part;
}

FilterFingerprintReader& ActiveReader() {
    static FilterFingerprintReader reader;
    return reader;
}

}  // namespace

uint64_t HashBytes(uint64_t hash, const void* data, size_t length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (size_t at = 0; at < length; ++at) {
        hash ^= bytes[at];
        hash *= 1099511628211ULL;
    }
    return hash;
}

bool HashTableEntries(FILTER_FAMILY family, const char* data, size_t length, uint64_t& hash) {
    switch (family) {
        case FILTER_FAMILY::kIp:
            return HashEntries(kIpEntry, data, length, hash);
        case FILTER_FAMILY::kArp:
            return HashEntries(kArpEntry, data, length, hash);
        case FILTER_FAMILY::kBridge:
            hash = HashBytes(hash, data, length);
            return true;
    }
    return false;
}

std::optional<int64_t> NftGenerationOf(const char* data, size_t length, uint32_t sequence) {
    std::optional<int64_t> found;
    ForEachMessage(data, length, [&](const nlmsghdr* header) {
        if (header->nlmsg_seq != sequence) return true;
        if (header->nlmsg_type == NLMSG_ERROR) {
            if (header->nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr))) {
                const auto* error = static_cast<const nlmsgerr*>(NLMSG_DATA(header));
                if (error->error < 0) found = error->error;
            }
            return false;
        }
        if (header->nlmsg_type != ((NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWGEN)) return true;
        const rtattr* id = FindAttribute(MessageAttributes(header, sizeof(nfgenmsg)), NFTA_GEN_ID);
        if (id != nullptr && RTA_PAYLOAD(id) >= sizeof(uint32_t)) {
            uint32_t generation = 0;
            memcpy(&generation, RTA_DATA(id), sizeof(generation));
            found = static_cast<int64_t>(ntohl(generation));
        }
        return false;
    });
    return found;
}

FILTER_FINGERPRINT ReadFilterFingerprint() {
    PART parts[4];
    parts[0] = ReadNftGeneration();
    const Util::UniqueFd raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
    if (raw.IsOpen()) {
        parts[1] = ReadNamedXtTable<ipt_getinfo, ipt_get_entries>(raw.Get(), "/proc/net/ip_tables_names",
                                                                  IPT_SO_GET_INFO, IPT_SO_GET_ENTRIES, kIpEntry);
        parts[2] = ReadNamedXtTable<arpt_getinfo, arpt_get_entries>(raw.Get(), "/proc/net/arp_tables_names",
                                                                    ARPT_SO_GET_INFO, ARPT_SO_GET_ENTRIES, kArpEntry);
        // Looked for once: the daemon's path does not change while it runs.
        static const bool legacyEbtables = FindLegacyEbtables();
        parts[3] = legacyEbtables ? ReadEbtablesFilter(raw.Get()) : Absent(0);
    }
    FILTER_FINGERPRINT fingerprint{true, kHashStart};
    for (const PART& part : parts) {
        if (!part.m_bRead) return {};
        fingerprint.m_nHash = HashBytes(fingerprint.m_nHash, &part.m_nHash, sizeof(part.m_nHash));
    }
    return fingerprint;
}

Util::UniqueFd OpenFilterChangeSocket() {
    Util::UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_NETFILTER));
    if (!fd.IsOpen()) return fd;
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    const int group = NFNLGRP_NFTABLES;
    if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0 ||
        setsockopt(fd.Get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) != 0) {
        fd.Reset();
    }
    return fd;
}

FilterFingerprintReader SetFilterFingerprintReader(FilterFingerprintReader reader) {
    return std::exchange(ActiveReader(), std::move(reader));
}

FILTER_FINGERPRINT FilterFingerprint() {
    const FilterFingerprintReader& reader = ActiveReader();
    return reader ? reader() : ReadFilterFingerprint();
}
