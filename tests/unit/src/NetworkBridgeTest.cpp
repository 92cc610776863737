#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "src/NetworkBridge.h"
#include "src/NetworkConfig.h"
#include "src/NetworkInputText.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/ExpectedTimelines.h"
#include "tests/support/KernelCommandLine.h"
#include "tests/support/LogCapture.h"

namespace {

using Lines = std::vector<std::string>;

// Every test of this file sees a device's command line unless it makes its own.
class DeviceCommandLine : public ::testing::Environment {
public:
    void SetUp() override { m_line = std::make_unique<KernelCommandLine>(kDeviceCmdline); }
    void TearDown() override { m_line.reset(); }
    static constexpr const char* kDeviceCmdline =
        "console=ttyS0,115200 root=/dev/mmcblk0p2 mac=02:00:00:00:77:01 quiet\n";

private:
    std::unique_ptr<KernelCommandLine> m_line;
};
const auto* const kDeviceEnvironment = ::testing::AddGlobalTestEnvironment(new DeviceCommandLine);

TEST(SetupBridgeTest, Eth0ModeBridgesEth0AndTheFirstPair) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0, "", "");
    EXPECT_EQ(log.Timeline(), BridgeBuildEth0());
    EXPECT_EQ(commands.Commands().size(), 21U);
}

TEST(SetupBridgeTest, Eth1ModeBridgesEth1AndTheFirstPair) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH1, "", "");
    EXPECT_EQ(log.Timeline(), BridgeBuildEth1());
    EXPECT_EQ(commands.Commands().size(), 21U);
}

TEST(SetupBridgeTest, BothPortsModeAddsTheSecondPairAndIsolationRules) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0ETH1, "", "");
    EXPECT_EQ(log.Timeline(), BridgeBuildEth0Eth1());
    EXPECT_EQ(commands.Commands().size(), 84U);
}

// The build's commands with `added` put in right after `after`.
Lines WithCommandAfter(Lines commands, const std::string& after, const std::string& added) {
    auto at = std::find(commands.begin(), commands.end(), after);
    if (at == commands.end()) return {"no command \"" + after + "\" in the expected build"};
    commands.insert(at + 1, added);
    return commands;
}

TEST(SetupBridgeTest, Eth0ModeSetsOnlyTheEth0MacRightAfterBringingItUp) {
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0, "02:00:00:00:00:0a", "02:00:00:00:00:0b");
    EXPECT_EQ(commands.Commands(), WithCommandAfter(CommandsOf(BridgeBuildEth0()), "ip link set eth0 up",
                                                    "ip link set dev eth0 address 02:00:00:00:00:0a"));
}

TEST(SetupBridgeTest, Eth1ModeSetsOnlyTheEth1MacRightAfterBringingItUp) {
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH1, "02:00:00:00:00:0a", "02:00:00:00:00:0b");
    EXPECT_EQ(commands.Commands(), WithCommandAfter(CommandsOf(BridgeBuildEth1()), "ip link set eth1 up",
                                                    "ip link set dev eth1 address 02:00:00:00:00:0b"));
}

TEST(SetupBridgeTest, BothPortsModeSetsEachMacRightAfterItsPortComesUp) {
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0ETH1, "02:00:00:00:00:0a", "02:00:00:00:00:0b");
    const Lines withEth0 = WithCommandAfter(CommandsOf(BridgeBuildEth0Eth1()), "ip link set eth0 up",
                                            "ip link set dev eth0 address 02:00:00:00:00:0a");
    EXPECT_EQ(commands.Commands(),
              WithCommandAfter(withEth0, "ip link set eth1 up", "ip link set dev eth1 address 02:00:00:00:00:0b"));
    EXPECT_EQ(commands.Commands().size(), 86U);
}

TEST(SetupBridgeTest, OneEmptyMacLeavesOnlyThatPortAlone) {
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH0ETH1, "", "02:00:00:00:00:0b");
    EXPECT_EQ(commands.Commands(), WithCommandAfter(CommandsOf(BridgeBuildEth0Eth1()), "ip link set eth1 up",
                                                    "ip link set dev eth1 address 02:00:00:00:00:0b"));
    EXPECT_EQ(commands.Commands().size(), 85U);
}

// Values beyond the enum select neither port and no second pair, whatever
// the MAC texts say.
TEST(SetupBridgeTest, OutOfRangeModesRunTheCommonCommandsAndFirstPairOnly) {
    for (uint32_t value : {3U, 4U, 6U, 0x80000002U, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
        SCOPED_TRACE(value);
        LogCapture log;
        CommandRecorder commands;
        SetupBridge(static_cast<BRIDGE_MODE>(value), "02:00:00:00:00:0a", "02:00:00:00:00:0b");
        EXPECT_EQ(log.Timeline(), BridgeBuildOtherMode());
        EXPECT_EQ(commands.Commands().size(), 18U);
    }
}

TEST(SetupBridgeTest, LogsAtInfoFromItsOwnUnitAndNotToTheSystemLog) {
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH1, "", "");
    std::vector<LogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), 2U);
    for (const LogEntry& entry : entries) {
        EXPECT_EQ(entry.file, "src/NetworkBridge.cpp");
        EXPECT_EQ(entry.level, "INFO");
    }
    EXPECT_TRUE(log.SystemLog().empty());
}

}  // namespace

namespace {

// --- Text from outside: the kernel command line and the MACs handed in ---------

// The veth1 command and the log of one eth1-mode setup under this command line.
Lines Veth1Timeline(const std::string& cmdline) {
    KernelCommandLine line(cmdline);
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH1, "", "");
    Lines picked;
    for (std::string entry : log.Timeline()) {
        if (entry.find("veth1 address") == std::string::npos && entry.rfind("WARN", 0) != 0) continue;
        size_t at = entry.find(KernelCommandLinePath());
        if (at != std::string::npos) entry.replace(at, KernelCommandLinePath().size(), "CMDLINE");
        picked.push_back(entry);
    }
    return picked;
}

TEST(SetupBridgeTest, MacIsTheFirstWordAfterTheFirstMacParameter) {
    EXPECT_EQ(Veth1Timeline("mac=02:00:00:00:77:02"), Lines{"$ ip link set dev veth1 address 02:00:00:00:77:02"});
    EXPECT_EQ(Veth1Timeline("a=1 mac=  AA:bb:0C:dd:0e:FF\tb=2\n"),
              Lines{"$ ip link set dev veth1 address AA:bb:0C:dd:0e:FF"});
    // As awk splits at every "mac=", also one inside another parameter's name.
    EXPECT_EQ(Veth1Timeline("ethmac=02:00:00:00:77:03 mac=02:00:00:00:77:04"),
              Lines{"$ ip link set dev veth1 address 02:00:00:00:77:03"});
}

TEST(SetupBridgeTest, CommandLineWithoutAMacKeepsTheEmptyCommandAndWarns) {
    const Lines expected = {
        "WARN SetupBridge: No MAC address for veth1 in CMDLINE",
        "$ ip link set dev veth1 address ",
    };
    EXPECT_EQ(Veth1Timeline("console=ttyS0 quiet\n"), expected);
    EXPECT_EQ(Veth1Timeline(""), expected);
    EXPECT_EQ(Veth1Timeline("mac= \n"), expected);
}

TEST(SetupBridgeTest, MalformedMacFromTheCommandLineNeverReachesTheShell) {
    const struct {
        const char* cmdline;
        const char* shown;
    } cases[] = {
        {"mac=$(reboot)", "$(reboot)"},
        {"mac=02:00:00:00:77:01;reboot", "02:00:00:00:77:01;reboot"},
        {"mac=`id`", "`id`"},
        {"mac=02:00:00:00:77", "02:00:00:00:77"},
        {"mac=02:00:00:00:77:0g", "02:00:00:00:77:0g"},
        {"mac=02-00-00-00-77-01", "02-00-00-00-77-01"},
        {"mac=02:00:00:00:77:01\x1b[2J", "02:00:00:00:77:01\\x1b[2J"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmdline);
        EXPECT_EQ(Veth1Timeline(c.cmdline),
                  (Lines{
                      std::string("WARN SetupBridge: Ignoring malformed MAC address \"") + c.shown + "\" from CMDLINE",
                      "$ ip link set dev veth1 address ",
                  }));
    }
}

TEST(SetupBridgeTest, UnreadableCommandLineCountsAsNoMac) {
    std::string previous = SetKernelCommandLinePath("/nonexistent/cmdline");
    LogCapture log;
    CommandRecorder commands;
    SetupBridge(BRIDGE_MODE_ETH1, "", "");
    SetKernelCommandLinePath(previous);
    const Lines& all = commands.Commands();
    EXPECT_NE(std::find(all.begin(), all.end(), "ip link set dev veth1 address "), all.end());
    Lines messages = log.Messages();
    ASSERT_GE(messages.size(), 2U);
    EXPECT_EQ(messages[1], "WARN SetupBridge: No MAC address for veth1 in /nonexistent/cmdline");
}

TEST(SetupBridgeTest, MalformedMacsHandedInAreLeftOutWithAWarning) {
    Lines all;
    Lines messages;
    {
        LogCapture log;
        CommandRecorder commands;
        SetupBridge(BRIDGE_MODE_ETH0ETH1, "02:00:00:00:00:0a; reboot", "$(halt)");
        all = commands.Commands();
        messages = log.Messages();
    }
    for (const std::string& command : all) {
        EXPECT_EQ(command.find("dev eth0 address"), std::string::npos) << command;
        EXPECT_EQ(command.find("dev eth1 address"), std::string::npos) << command;
    }
    EXPECT_EQ(all.size(), 84U);
    ASSERT_GE(messages.size(), 3U);
    EXPECT_EQ(
        Lines(messages.begin(), messages.begin() + 3),
        (Lines{
            "INFO SetupBridge: Setting up bridge for control network",
            "WARN SetupBridge: Ignoring malformed MAC address \"02:00:00:00:00:0a; reboot\" from the caller for eth0",
            "WARN SetupBridge: Ignoring malformed MAC address \"$(halt)\" from the caller for eth1",
        }));
}

TEST(InputTextTest, IsMacAddressTakesSixHexPairsOnly) {
    EXPECT_TRUE(IsMacAddress("02:00:00:00:77:01"));
    EXPECT_TRUE(IsMacAddress("FF:ff:aA:09:90:0f"));
    for (const char* text : {"", "02:00:00:00:77", "02:00:00:00:77:01:", "02:00:00:00:77:1", "02:00:00:00:7701",
                             "020:00:00:00:77:0", "02:00:00:00:77:0x", " 02:00:00:00:77:0", "02;00:00:00:77:01"}) {
        EXPECT_FALSE(IsMacAddress(text)) << text;
    }
}

TEST(InputTextTest, EscapeControlCharactersLeavesPrintableTextAlone) {
    EXPECT_EQ(EscapeControlCharacters("veth1 10.0.0.5"), "veth1 10.0.0.5");
    EXPECT_EQ(EscapeControlCharacters(std::string("a\nb\rc\td\x7f\x1b\\", 10)), "a\\x0ab\\x0dc\\x09d\\x7f\\x1b\\\\");
    EXPECT_EQ(EscapeControlCharacters(std::string("\0x", 2)), "\\x00x");
    EXPECT_EQ(EscapeControlCharacters("caf\xc3\xa9"), "caf\xc3\xa9");
}

}  // namespace
