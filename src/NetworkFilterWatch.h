// Whether the kernel's filter tables may have changed, learnt without starting a
// program: one number over what the isolation's look lists (the nf_tables
// generation, and the legacy filter tables' entries without their counters),
// so the look runs the listing tools only when it moved.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "util/UniqueFd.h"

// The filter tables as one number. A table or a kernel part that is absent is a
// state like any other; only what could not be read at all leaves it unread.
struct FILTER_FINGERPRINT {
    // False when some part could not be read: the look lists the tables then.
    bool m_bRead = false;
    uint64_t m_nHash = 0;

    bool operator==(const FILTER_FINGERPRINT&) const = default;
};

// Reads it from the kernel: the nf_tables generation through NETLINK_NETFILTER,
// and the legacy "filter" tables through getsockopt on a raw socket (iptables'
// and arptables' only where /proc/net lists them, so a look never makes one;
// ebtables' only where the ebtables on the path is the legacy one).
FILTER_FINGERPRINT ReadFilterFingerprint();
// The function the isolation reads it through; tests put their own here, an
// empty one puts ReadFilterFingerprint back. Returns the one it replaced.
using FilterFingerprintReader = std::function<FILTER_FINGERPRINT()>;
FilterFingerprintReader SetFilterFingerprintReader(FilterFingerprintReader reader);
// Through that seam.
FILTER_FINGERPRINT FilterFingerprint();

// A non-blocking socket that receives nf_tables' notifications (NFNLGRP_NFTABLES:
// every commit of any nft backend's tool); closed where the kernel has no
// nf_tables (the legacy tables announce nothing: their looks stay periodic).
Util::UniqueFd OpenFilterChangeSocket();

// The legacy tables whose entries go into the fingerprint.
enum class FILTER_FAMILY { kIp, kArp, kBridge };

// Adds a table's entries, as its GET_ENTRIES returned them, to `hash`, each
// entry's packet and byte counters (which move with the traffic) left out;
// false where an entry's lengths do not fit what is left. The bridge's entries
// carry no counters.
bool HashTableEntries(FILTER_FAMILY family, const char* data, size_t length, uint64_t& hash);

// The nf_tables generation in a reply to NFT_MSG_GETGEN `sequence`, or the
// kernel's error as a negative errno (no nf_tables: a state); none when the
// reply holds neither.
std::optional<int64_t> NftGenerationOf(const char* data, size_t length, uint32_t sequence);

// Adds `length` bytes to a 64-bit FNV-1a hash.
uint64_t HashBytes(uint64_t hash, const void* data, size_t length);
