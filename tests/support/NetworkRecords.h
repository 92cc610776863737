// Building and printing the network records in tests; they compare with the
// operators beside the records.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "src/NetworkConfig.h"
#include "src/NetworkDhcp.h"

inline in_addr Ip(const char* text) {
    in_addr address{};
    EXPECT_NE(inet_aton(text, &address), 0) << text;
    return address;
}

inline std::string Dotted(in_addr address) { return inet_ntoa(address); }

inline IP_CONFIG IpConfig(bool dhcp, const char* address, const char* mask, const char* gateway) {
    IP_CONFIG config{};
    config.m_bDhcp = dhcp;
    config.m_ipAddress = Ip(address);
    config.m_subnetMask = Ip(mask);
    config.m_gateway = Ip(gateway);
    return config;
}

inline DHCP_STATE LeaseState(bool valid, const char* address, const char* mask, const char* gateway) {
    DHCP_STATE state{};
    state.m_bLeaseValid = valid;
    state.m_ipAddress = Ip(address);
    state.m_subnetMask = Ip(mask);
    state.m_gateway = Ip(gateway);
    return state;
}

inline std::string Describe(const IP_CONFIG& config) {
    return std::string(config.m_bDhcp ? "dhcp " : "static ") + Dotted(config.m_ipAddress) + " " +
           Dotted(config.m_subnetMask) + " " + Dotted(config.m_gateway);
}

inline std::string Describe(const DHCP_STATE& state) {
    return std::string(state.m_bLeaseValid ? "valid " : "invalid ") + Dotted(state.m_ipAddress) + " " +
           Dotted(state.m_subnetMask) + " " + Dotted(state.m_gateway);
}

inline void PrintTo(const IP_CONFIG& config, std::ostream* out) { *out << Describe(config); }
inline void PrintTo(const DHCP_STATE& state, std::ostream* out) { *out << Describe(state); }

inline void PrintTo(const USER_SETTINGS& settings, std::ostream* out) {
    *out << "bridge " << settings.m_eBridgeMode << ", phy " << settings.m_ePhyMode;
    for (const IP_CONFIG* config :
         {&settings.m_veth1Config, &settings.m_veth3Config, &settings.m_vrx0Config, &settings.m_vrx1Config}) {
        *out << ", " << Describe(*config);
    }
}
