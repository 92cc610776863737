// Changes of one field each, for tests that a record's equality notices every
// field: each change, made to a copy, must make the copy differ. Records that
// hold others list the inner records' changes under the member's name
// ("m_veth1Config.m_gateway.s_addr").
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <time.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "src/NetworkConfig.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkShell.h"

template <typename Record>
using FieldChanges = std::vector<std::pair<std::string, std::function<void(Record&)>>>;

// Adds the changes of the record held in `member` to `changes`, each named after the member.
template <typename Outer, typename Inner>
void AddFieldChanges(FieldChanges<Outer>& changes, const std::string& name, Inner Outer::*member,
                     const FieldChanges<Inner>& inner) {
    for (const auto& entry : inner) {
        std::string fullName = name;
        fullName += '.';
        fullName += entry.first;
        changes.emplace_back(std::move(fullName),
                             [member, change = entry.second](Outer& outer) { change(outer.*member); });
    }
}

// Each change, made to a copy of `base`, makes the copy differ from it; the copy
// equals it before.
template <typename Record>
void ExpectEveryChangeNoticed(const Record& base, const FieldChanges<Record>& changes) {
    for (const auto& [name, change] : changes) {
        Record changed = base;
        EXPECT_TRUE(changed == base) << name;
        change(changed);
        EXPECT_FALSE(changed == base) << name;
        EXPECT_TRUE(changed != base) << name;
    }
}

inline FieldChanges<in_addr> AddressChanges() {
    return {{"s_addr", [](in_addr& a) { a.s_addr ^= 0x01000000U; }}};
}

inline FieldChanges<timespec> TimeChanges() {
    return {
        {"tv_sec", [](timespec& t) { ++t.tv_sec; }},
        {"tv_nsec", [](timespec& t) { t.tv_nsec = t.tv_nsec == 0 ? 1 : 0; }},
    };
}

inline FieldChanges<COMMAND_OUTCOME> OutcomeChanges() {
    return {
        {"m_bStarted", [](COMMAND_OUTCOME& o) { o.m_bStarted = !o.m_bStarted; }},
        {"m_nError", [](COMMAND_OUTCOME& o) { ++o.m_nError; }},
        {"m_bExited", [](COMMAND_OUTCOME& o) { o.m_bExited = !o.m_bExited; }},
        {"m_nStatus", [](COMMAND_OUTCOME& o) { ++o.m_nStatus; }},
        {"m_bTimedOut", [](COMMAND_OUTCOME& o) { o.m_bTimedOut = !o.m_bTimedOut; }},
    };
}

inline FieldChanges<IP_CONFIG> IpConfigChanges() {
    FieldChanges<IP_CONFIG> changes = {{"m_bDhcp", [](IP_CONFIG& c) { c.m_bDhcp = !c.m_bDhcp; }}};
    AddFieldChanges(changes, "m_ipAddress", &IP_CONFIG::m_ipAddress, AddressChanges());
    AddFieldChanges(changes, "m_subnetMask", &IP_CONFIG::m_subnetMask, AddressChanges());
    AddFieldChanges(changes, "m_gateway", &IP_CONFIG::m_gateway, AddressChanges());
    return changes;
}

inline FieldChanges<DHCP_STATE> LeaseStateChanges() {
    FieldChanges<DHCP_STATE> changes = {{"m_bLeaseValid", [](DHCP_STATE& s) { s.m_bLeaseValid = !s.m_bLeaseValid; }}};
    AddFieldChanges(changes, "m_ipAddress", &DHCP_STATE::m_ipAddress, AddressChanges());
    AddFieldChanges(changes, "m_subnetMask", &DHCP_STATE::m_subnetMask, AddressChanges());
    AddFieldChanges(changes, "m_gateway", &DHCP_STATE::m_gateway, AddressChanges());
    return changes;
}

inline FieldChanges<USER_SETTINGS> SettingsChanges() {
    FieldChanges<USER_SETTINGS> changes = {
        {"m_eBridgeMode", [](USER_SETTINGS& s) { s.m_eBridgeMode = static_cast<BRIDGE_MODE>(s.m_eBridgeMode + 1U); }},
        {"m_ePhyMode", [](USER_SETTINGS& s) { s.m_ePhyMode = static_cast<PHY_MODE>(s.m_ePhyMode + 1U); }},
    };
    AddFieldChanges(changes, "m_veth1Config", &USER_SETTINGS::m_veth1Config, IpConfigChanges());
    AddFieldChanges(changes, "m_veth3Config", &USER_SETTINGS::m_veth3Config, IpConfigChanges());
    AddFieldChanges(changes, "m_vrx0Config", &USER_SETTINGS::m_vrx0Config, IpConfigChanges());
    AddFieldChanges(changes, "m_vrx1Config", &USER_SETTINGS::m_vrx1Config, IpConfigChanges());
    return changes;
}
