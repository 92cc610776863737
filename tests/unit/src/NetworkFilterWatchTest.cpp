// The filter tables' fingerprint: legacy table entries as getsockopt hands
// them over (counters left out, lengths checked), the nf_tables generation's
// reply, and the real kernel's tables read in namespaces of the test's own.
// Before the kernel's headers, which then leave out what it declares.
#include <netinet/in.h>

#include <errno.h>
#include <gtest/gtest.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter_arp/arp_tables.h>
#include <linux/netfilter_ipv4/ip_tables.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "src/NetworkFilterWatch.h"
#include "tests/support/Namespaces.h"
#include "util/UniqueFd.h"

namespace {

constexpr uint64_t kStart = 14695981039346656037ULL;

// One iptables entry with a standard target (ACCEPT, as the kernel hands it over).
template <typename ENTRY>
std::vector<char> Entry(uint32_t mark) {
    std::vector<char> bytes(sizeof(ENTRY) + sizeof(xt_standard_target), 0);
    ENTRY entry{};
    entry.target_offset = sizeof(ENTRY);
    entry.next_offset = static_cast<uint16_t>(bytes.size());
    memcpy(&entry, &mark, sizeof(mark));  // the entry's first match field, as a rule's own
    memcpy(bytes.data(), &entry, sizeof(entry));
    xt_standard_target target{};
    target.target.u.user.target_size = sizeof(target);
    strcpy(target.target.u.user.name, "");
    target.verdict = -NF_ACCEPT - 1;
    memcpy(bytes.data() + sizeof(ENTRY), &target, sizeof(target));
    return bytes;
}

template <typename ENTRY>
void SetCounters(std::vector<char>& table, size_t at, uint64_t packets, uint32_t comefrom) {
    ENTRY entry{};
    memcpy(&entry, table.data() + at, sizeof(entry));
    entry.counters.pcnt = packets;
    entry.counters.bcnt = packets * 60;
    entry.comefrom = comefrom;
    memcpy(table.data() + at, &entry, sizeof(entry));
}

template <typename ENTRY>
std::vector<char> TwoEntries(uint32_t first, uint32_t second) {
    std::vector<char> table = Entry<ENTRY>(first);
    const std::vector<char> next = Entry<ENTRY>(second);
    table.insert(table.end(), next.begin(), next.end());
    return table;
}

template <typename ENTRY>
std::optional<uint64_t> Hash(FILTER_FAMILY family, const std::vector<char>& table) {
    uint64_t hash = kStart;
    if (!HashTableEntries(family, table.data(), table.size(), hash)) return std::nullopt;
    return hash;
}

template <typename ENTRY>
void CountersAreLeftOutAndRulesCount(FILTER_FAMILY family) {
    std::vector<char> table = TwoEntries<ENTRY>(1, 2);
    const std::optional<uint64_t> quiet = Hash<ENTRY>(family, table);
    ASSERT_TRUE(quiet.has_value());
    EXPECT_NE(*quiet, kStart);
    // Traffic moves the counters (and the kernel its loop mark): the same tables.
    SetCounters<ENTRY>(table, 0, 1000, 0x57acc001);
    SetCounters<ENTRY>(table, table.size() / 2, 7, 2);
    EXPECT_EQ(Hash<ENTRY>(family, table), quiet);
    // A rule of other contents, one rule fewer, the rules in another order: other tables.
    EXPECT_NE(Hash<ENTRY>(family, TwoEntries<ENTRY>(1, 3)), quiet);
    EXPECT_NE(Hash<ENTRY>(family, Entry<ENTRY>(1)), quiet);
    EXPECT_NE(Hash<ENTRY>(family, TwoEntries<ENTRY>(2, 1)), quiet);
}

template <typename ENTRY>
void LengthsThatDoNotFitAreNotRead(FILTER_FAMILY family) {
    std::vector<char> table = TwoEntries<ENTRY>(1, 2);
    // Cut inside the second entry.
    table.resize(table.size() - 4);
    EXPECT_EQ(Hash<ENTRY>(family, table), std::nullopt);
    // A next offset shorter than an entry (which would never end), and one past the end.
    for (const uint16_t next : {uint16_t{0}, uint16_t{4}, uint16_t{60000}}) {
        std::vector<char> bad = TwoEntries<ENTRY>(1, 2);
        ENTRY entry{};
        memcpy(&entry, bad.data(), sizeof(entry));
        entry.next_offset = next;
        memcpy(bad.data(), &entry, sizeof(entry));
        EXPECT_EQ(Hash<ENTRY>(family, bad), std::nullopt) << "next offset " << next;
    }
}

TEST(FilterWatchTest, IptablesEntriesAreHashedWithoutTheirCounters) {
    CountersAreLeftOutAndRulesCount<ipt_entry>(FILTER_FAMILY::kIp);
}

TEST(FilterWatchTest, ArptablesEntriesAreHashedWithoutTheirCounters) {
    CountersAreLeftOutAndRulesCount<arpt_entry>(FILTER_FAMILY::kArp);
}

TEST(FilterWatchTest, EntriesWhoseLengthsDoNotFitAreNotRead) {
    LengthsThatDoNotFitAreNotRead<ipt_entry>(FILTER_FAMILY::kIp);
    LengthsThatDoNotFitAreNotRead<arpt_entry>(FILTER_FAMILY::kArp);
}

TEST(FilterWatchTest, AnEmptyTableIsAState) {
    uint64_t hash = kStart;
    EXPECT_TRUE(HashTableEntries(FILTER_FAMILY::kIp, nullptr, 0, hash));
    EXPECT_EQ(hash, kStart);
    const std::vector<char> bridge = {1, 2, 3};
    EXPECT_TRUE(HashTableEntries(FILTER_FAMILY::kBridge, bridge.data(), bridge.size(), hash));
    EXPECT_NE(hash, kStart);
}

// A reply of the kernel's to NFT_MSG_GETGEN: NEWGEN with the generation (big
// endian), or an error.
std::vector<char> NewGen(uint32_t sequence, uint32_t generation, bool withId = true) {
    struct {
        nlmsghdr m_header;
        nfgenmsg m_message;
        rtattr m_attribute;
        uint32_t m_nId;
        rtattr m_pid;
        uint32_t m_nPid;
    } reply{};
    reply.m_header.nlmsg_len = sizeof(reply);
    reply.m_header.nlmsg_type = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWGEN;
    reply.m_header.nlmsg_seq = sequence;
    reply.m_attribute.rta_len = RTA_LENGTH(sizeof(uint32_t));
    reply.m_attribute.rta_type = withId ? NFTA_GEN_ID : NFTA_GEN_PROC_PID;
    reply.m_nId = htonl(generation);
    reply.m_pid.rta_len = RTA_LENGTH(sizeof(uint32_t));
    reply.m_pid.rta_type = NFTA_GEN_PROC_PID;
    reply.m_nPid = 1234;
    std::vector<char> bytes(sizeof(reply));
    memcpy(bytes.data(), &reply, sizeof(reply));
    return bytes;
}

std::vector<char> Error(uint32_t sequence, int error) {
    struct {
        nlmsghdr m_header;
        nlmsgerr m_error;
    } reply{};
    reply.m_header.nlmsg_len = sizeof(reply);
    reply.m_header.nlmsg_type = NLMSG_ERROR;
    reply.m_header.nlmsg_seq = sequence;
    reply.m_error.error = -error;
    std::vector<char> bytes(sizeof(reply));
    memcpy(bytes.data(), &reply, sizeof(reply));
    return bytes;
}

TEST(FilterWatchTest, TheGenerationIsReadFromItsReply) {
    const std::vector<char> reply = NewGen(1, 0x01020304);
    EXPECT_EQ(NftGenerationOf(reply.data(), reply.size(), 1), 0x01020304);
    // Another request's reply, or one without the generation, says nothing.
    EXPECT_EQ(NftGenerationOf(reply.data(), reply.size(), 2), std::nullopt);
    const std::vector<char> noId = NewGen(1, 5, false);
    EXPECT_EQ(NftGenerationOf(noId.data(), noId.size(), 1), std::nullopt);
    // Cut short: its length claims more than there is.
    EXPECT_EQ(NftGenerationOf(reply.data(), reply.size() - 2, 1), std::nullopt);
}

TEST(FilterWatchTest, AKernelWithoutNfTablesIsAState) {
    const std::vector<char> reply = Error(1, EOPNOTSUPP);
    EXPECT_EQ(NftGenerationOf(reply.data(), reply.size(), 1), -EOPNOTSUPP);
    // An acknowledgement is no generation.
    const std::vector<char> ack = Error(1, 0);
    EXPECT_EQ(NftGenerationOf(ack.data(), ack.size(), 1), std::nullopt);
}

bool Present(const char* tool) { return RunQuietly(std::string("(command -v ") + tool + " && " + tool + " -V)"); }

// Datagrams over lo, which the rules' counters count.
void SendTraffic() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int sent = 0; sent < 5; ++sent) {
        sendto(fd, "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
    close(fd);
}

// The real kernel's tables, in a network namespace of the test's own: the
// fingerprint holds while nothing changes (traffic included) and moves with a
// rule of either backend.
TEST(FilterWatchTest, TheKernelsFingerprintMovesWithARuleAndNotWithTraffic) {
    TESSEL_NEED_NAMESPACES();
    // The tools reach netfilter's netlink; where this process cannot (a
    // user-mode emulator running a cross build passes no such socket on, nor
    // the tables' sockopts), the kernel's tables are out of its sight.
    {
        const Util::UniqueFd probe(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
        if (!probe.IsOpen() && Present("iptables-nft")) {
            GTEST_SKIP() << "netfilter's netlink is out of this process's reach (" << strerror(errno) << ")";
        }
    }
    const Lines problems = InNewNamespaces(CLONE_NEWNET, [] {
        Lines found;
        RunQuietly("ip link set lo up");
        const FILTER_FINGERPRINT first = ReadFilterFingerprint();
        if (!first.m_bRead) return Lines{"the fingerprint cannot be read"};
        if (ReadFilterFingerprint() != first) found.push_back("two reads differ");
        int backends = 0;
        for (const char* tool : {"iptables-legacy", "iptables-nft", "arptables-legacy"}) {
            if (!Present(tool)) continue;
            const bool arp = std::string(tool).starts_with("arp");
            const FILTER_FINGERPRINT before = ReadFilterFingerprint();
            const std::string rule = arp ? " -A OUTPUT -j ACCEPT" : " -A OUTPUT -o lo -p udp -j ACCEPT";
            if (!RunQuietly(tool + rule)) {
                found.push_back(std::string(tool) + ": the rule was refused");
                continue;
            }
            ++backends;
            const FILTER_FINGERPRINT after = ReadFilterFingerprint();
            if (!after.m_bRead || after == before) found.push_back(std::string(tool) + ": a rule left it");
            SendTraffic();
            if (ReadFilterFingerprint() != after) found.push_back(std::string(tool) + ": traffic moved it");
        }
        if (backends == 0) found.push_back("no filter tool here to change the tables with");
        return found;
    });
    EXPECT_EQ(problems, Lines{});
}

}  // namespace
