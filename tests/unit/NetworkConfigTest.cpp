#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "src/Network.h"
#include "tests/support/LogCapture.h"

// Records compare field by field, so a test can say "untouched" of a whole record.
static bool operator==(const IP_CONFIG& a, const IP_CONFIG& b) {
    return a.m_bDhcp == b.m_bDhcp && a.m_ipAddress.s_addr == b.m_ipAddress.s_addr &&
           a.m_subnetMask.s_addr == b.m_subnetMask.s_addr && a.m_gateway.s_addr == b.m_gateway.s_addr;
}

static void PrintTo(const IP_CONFIG& config, std::ostream* out) {
    *out << (config.m_bDhcp ? "dhcp " : "static ") << inet_ntoa(config.m_ipAddress);
    *out << " " << inet_ntoa(config.m_subnetMask);
    *out << " " << inet_ntoa(config.m_gateway);
}

namespace {

using Lines = std::vector<std::string>;

in_addr Ip(const char* text) {
    in_addr address{};
    EXPECT_NE(inet_aton(text, &address), 0) << text;
    return address;
}

IP_CONFIG Config(bool dhcp, const char* address, const char* mask, const char* gateway) {
    return IP_CONFIG{dhcp, Ip(address), Ip(mask), Ip(gateway)};
}

// Calls the parser on a private copy of the text and checks it was not modified.
int ParseLine(const std::string& name, const std::string& text, IP_CONFIG& config) {
    std::vector<char> line(text.begin(), text.end());
    line.push_back('\0');
    int result = ParseInterfaceLine(name, line.data(), config);
    EXPECT_EQ(std::string(line.data()), text.c_str());
    return result;
}

class ParseInterfaceLineTest : public ::testing::Test {
protected:
    LogCapture log;
    // Neither zero nor anything a test line writes.
    IP_CONFIG config = Config(true, "198.51.100.7", "255.255.0.0", "198.51.100.1");
    const IP_CONFIG before = config;
};

TEST_F(ParseInterfaceLineTest, StaticLineStoresAllThreeAddresses) {
    EXPECT_EQ(ParseLine("veth1", "veth1 static 10.0.0.2 255.255.255.0 10.0.0.1\n", config), 0);
    EXPECT_EQ(config, Config(false, "10.0.0.2", "255.255.255.0", "10.0.0.1"));
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseInterfaceLineTest, ZeroGatewayIsValid) {
    EXPECT_EQ(ParseLine("veth1", "veth1 static 10.0.0.2 255.255.255.0 0.0.0.0\n", config), 0);
    EXPECT_EQ(config, Config(false, "10.0.0.2", "255.255.255.0", "0.0.0.0"));
}

TEST_F(ParseInterfaceLineTest, WordsAfterTheGatewayAreIgnored) {
    EXPECT_EQ(ParseLine("veth1", "veth1 static 10.0.0.2 255.255.255.0 10.0.0.1 10.0.0.9 more\n", config), 0);
    EXPECT_EQ(config, Config(false, "10.0.0.2", "255.255.255.0", "10.0.0.1"));
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseInterfaceLineTest, DhcpKeepsTheAddressesItFinds) {
    config.m_bDhcp = false;
    EXPECT_EQ(ParseLine("veth3", "veth3 dhcp\n", config), 0);
    EXPECT_EQ(config, Config(true, "198.51.100.7", "255.255.0.0", "198.51.100.1"));
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseInterfaceLineTest, DhcpAllowsUpToTwoFurtherWords) {
    config.m_bDhcp = false;
    EXPECT_EQ(ParseLine("veth3", "veth3 dhcp extra words\n", config), 0);
    EXPECT_TRUE(config.m_bDhcp);
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseInterfaceLineTest, FourWordsAlwaysDemandStatic) {
    config.m_bDhcp = false;
    const IP_CONFIG staticBefore = config;
    EXPECT_EQ(ParseLine("veth1", "veth1 dhcp 10.0.0.2 255.255.255.0 10.0.0.1\n", config), -1);
    // A "#" after the mode is a word like any other.
    EXPECT_EQ(ParseLine("veth3", "veth3 dhcp # a comment\n", config), -1);
    EXPECT_EQ(config, staticBefore);
    EXPECT_EQ(log.Messages(),
              (Lines{
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth3 expected dhcp|static",
              }));
}

TEST_F(ParseInterfaceLineTest, KeywordWithoutAModeWord) {
    EXPECT_EQ(ParseLine("veth1", "veth1\n", config), -1);
    EXPECT_EQ(ParseLine("veth1", "  veth1 \r\n", config), -1);
    EXPECT_EQ(ParseLine("veth1", "veth1", config), -1);
    EXPECT_EQ(ParseLine("veth1", "", config), -1);
    EXPECT_EQ(config, before);
    EXPECT_EQ(log.Messages(), (Lines{
                                  "ERROR ParseInterfaceLine: Invalid syntax for veth1 entry in config file",
                                  "ERROR ParseInterfaceLine: Invalid syntax for veth1 entry in config file",
                                  "ERROR ParseInterfaceLine: Invalid syntax for veth1 entry in config file",
                                  "ERROR ParseInterfaceLine: Invalid syntax for veth1 entry in config file",
                              }));
}

TEST_F(ParseInterfaceLineTest, StaticWithFewerThanThreeAddressesIsAModeError) {
    EXPECT_EQ(ParseLine("veth1", "veth1 static 10.0.0.2 255.255.255.0\n", config), -1);
    EXPECT_EQ(ParseLine("veth1", "veth1 static\n", config), -1);
    EXPECT_EQ(ParseLine("veth1", "veth1 bogus a b\n", config), -1);
    EXPECT_EQ(config, before);
    EXPECT_EQ(log.Messages(),
              (Lines{
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
              }));
}

TEST_F(ParseInterfaceLineTest, ModeIsCaseSensitive) {
    EXPECT_EQ(ParseLine("vrx1", "vrx1 DHCP\n", config), -1);
    EXPECT_EQ(ParseLine("vrx1", "vrx1 Static 10.0.0.2 255.255.255.0 10.0.0.1\n", config), -1);
    EXPECT_EQ(config, before);
    EXPECT_EQ(log.Messages(),
              (Lines{
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for vrx1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for vrx1 expected dhcp|static",
              }));
}

TEST_F(ParseInterfaceLineTest, BadAddressLeavesStaticModeAndOldAddresses) {
    EXPECT_EQ(ParseLine("veth1", "veth1 static 10.0.0.300 255.255.255.0 10.0.0.1\n", config), -1);
    EXPECT_EQ(config, Config(false, "198.51.100.7", "255.255.0.0", "198.51.100.1"));
    EXPECT_EQ(log.Messages(), (Lines{"ERROR ParseInterfaceLine: Invalid static IP address veth1"}));
}

TEST_F(ParseInterfaceLineTest, BadMaskKeepsTheNewAddress) {
    EXPECT_EQ(ParseLine("veth3", "veth3 static 10.0.0.2 255.255.255.x 10.0.0.1\n", config), -1);
    EXPECT_EQ(config, Config(false, "10.0.0.2", "255.255.0.0", "198.51.100.1"));
    EXPECT_EQ(log.Messages(), (Lines{"ERROR ParseInterfaceLine: Invalid static subnet mask veth3"}));
}

TEST_F(ParseInterfaceLineTest, BadGatewayKeepsTheNewAddressAndMask) {
    EXPECT_EQ(ParseLine("vrx0", "vrx0 static 10.0.0.2 255.255.255.0 10.0.0.1.1\n", config), -1);
    EXPECT_EQ(config, Config(false, "10.0.0.2", "255.255.255.0", "198.51.100.1"));
    EXPECT_EQ(log.Messages(), (Lines{"ERROR ParseInterfaceLine: Invalid static default gateway vrx0"}));
}

TEST_F(ParseInterfaceLineTest, EveryInetAtonFormIsAccepted) {
    // One number, hexadecimal, and three parts with an octal first part.
    EXPECT_EQ(ParseLine("veth1", "veth1 static 167772162 0xffffff00 012.0.1\n", config), 0);
    EXPECT_EQ(config, Config(false, "10.0.0.2", "255.255.255.0", "10.0.0.1"));
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseInterfaceLineTest, LongWordsAreCutAndTheirRestIsTheNextWord) {
    // "staticx": mode "static", then "x" is taken as the address.
    EXPECT_EQ(ParseLine("veth1", "veth1 staticx 10.0.0.2 255.255.255.0 10.0.0.1\n", config), -1);
    // "dhcpdhcp": mode "dhcpdh" and a word "cp".
    EXPECT_EQ(ParseLine("veth1", "veth1 dhcpdhcp\n", config), -1);
    // The mask's "x" becomes the gateway.
    EXPECT_EQ(ParseLine("veth1", "veth1 static 10.0.0.2 255.255.255.255x 10.0.0.1\n", config), -1);
    EXPECT_EQ(config, Config(false, "10.0.0.2", "255.255.255.255", "198.51.100.1"));
    // A 16-character address: "100.100.100.100", then "0" as the mask and the
    // written mask as the gateway, which all convert.
    EXPECT_EQ(ParseLine("veth1", "veth1 static 100.100.100.1000 255.255.255.0 10.0.0.1\n", config), 0);
    EXPECT_EQ(config, Config(false, "100.100.100.100", "0.0.0.0", "255.255.255.0"));
    EXPECT_EQ(log.Messages(),
              (Lines{
                  "ERROR ParseInterfaceLine: Invalid static IP address veth1",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid static default gateway veth1",
              }));
}

TEST_F(ParseInterfaceLineTest, CarriageReturnEndsTheLastWord) {
    EXPECT_EQ(ParseLine("veth1", "veth1 static 10.0.0.2 255.255.255.0 10.0.0.1\r\n", config), 0);
    EXPECT_EQ(config, Config(false, "10.0.0.2", "255.255.255.0", "10.0.0.1"));
    EXPECT_EQ(ParseLine("veth1", "veth1 dhcp\r\n", config), 0);
    EXPECT_TRUE(config.m_bDhcp);
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseInterfaceLineTest, FirstWordIsNotChecked) {
    config.m_bDhcp = false;
    EXPECT_EQ(ParseLine("vrx0", "anything dhcp\n", config), 0);
    EXPECT_TRUE(config.m_bDhcp);
}

TEST_F(ParseInterfaceLineTest, MessagesAreErrorsFromThisFileAndStayOutOfTheSystemLog) {
    ParseLine("veth1", "veth1\n", config);
    ParseLine("veth1", "veth1 static 10.0.0.2 255.255.255.0 x\n", config);
    std::vector<LogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), 2u);
    for (const LogEntry& entry : entries) {
        EXPECT_EQ(entry.level, "ERROR");
        EXPECT_EQ(entry.file, "src/NetworkConfig.cpp");
        EXPECT_EQ(entry.function, "ParseInterfaceLine");
    }
    EXPECT_EQ(log.SystemLog(), Lines{});
}

}  // namespace
