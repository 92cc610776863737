#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "src/NetworkConfig.h"
#include "tests/support/FieldChanges.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetworkRecords.h"

namespace {

using Lines = std::vector<std::string>;

// Calls the parser on a private copy of the text and checks it was not modified.
int ParseLine(const std::string& name, const std::string& text, IP_CONFIG& config) {
    std::vector<char> line(text.begin(), text.end());
    line.push_back('\0');
    int result = ParseInterfaceLine(name, line.data(), config);
    EXPECT_EQ(std::string(line.data()), text.c_str());
    return result;
}

// Neither zero nor anything a test line writes.
const IP_CONFIG kOldStatic = IpConfig(false, "198.51.100.7", "255.255.0.0", "198.51.100.1");
const IP_CONFIG kOldDhcp = IpConfig(true, "198.51.100.7", "255.255.0.0", "198.51.100.1");

TEST(SettingsRecordTest, EqualityNoticesAChangeInEachFieldInTurn) {
    ExpectEveryChangeNoticed(kOldStatic, IpConfigChanges());
    USER_SETTINGS settings{};
    settings.m_veth1Config = kOldStatic;
    settings.m_veth3Config = kOldDhcp;
    ExpectEveryChangeNoticed(settings, SettingsChanges());
}

TEST(ParseInterfaceLineTest, StaticLinesStoreAllThreeAddresses) {
    LogCapture log;
    const struct {
        const char* line;
        IP_CONFIG expected;
    } cases[] = {
        {"veth1 static 10.0.0.2 255.255.255.0 10.0.0.1\n", IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1")},
        {"veth1 static 10.0.0.2 255.255.255.0 0.0.0.0\n", IpConfig(false, "10.0.0.2", "255.255.255.0", "0.0.0.0")},
        {"veth1 static 10.0.0.2 255.255.255.0 10.0.0.1 10.0.0.9 more\n",
         IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1")},
        {"veth1 static 10.0.0.2 255.255.255.0 10.0.0.1\r\n", IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1")},
        {"  veth1  static\t10.0.0.2 255.255.255.0 10.0.0.1", IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1")},
        // Every inet_aton form: one number, hexadecimal, three parts with an octal one.
        {"veth1 static 167772162 0xffffff00 012.0.1\n", IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1")},
        // A 16-character address is cut at 15: "0" becomes the mask and the mask the gateway.
        {"veth1 static 100.100.100.1000 255.255.255.0 10.0.0.1\n",
         IpConfig(false, "100.100.100.100", "0.0.0.0", "255.255.255.0")},
    };
    for (const auto& c : cases) {
        IP_CONFIG config = kOldDhcp;
        EXPECT_EQ(ParseLine("veth1", c.line, config), 0) << c.line;
        EXPECT_EQ(config, c.expected) << c.line;
    }
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST(ParseInterfaceLineTest, DhcpLinesKeepTheAddresses) {
    LogCapture log;
    // Up to two further words are ignored; the first word is never checked.
    const char* const lines[] = {"veth3 dhcp\n", "veth3 dhcp\r\n", "veth3 dhcp extra words\n", "veth3 dhcp #comment\n",
                                 "anything dhcp"};
    for (const char* line : lines) {
        IP_CONFIG config = kOldStatic;
        EXPECT_EQ(ParseLine("veth3", line, config), 0) << line;
        EXPECT_EQ(config, kOldDhcp) << line;
    }
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST(ParseInterfaceLineTest, LinesWithoutAUsableModeLeaveTheRecordUntouched) {
    LogCapture log;
    const std::pair<const char*, const char*> cases[] = {
        {"veth1\n", "veth1"},
        {"  veth1 \r\n", "veth1"},
        {"", "vrx0"},
        // Four words after the keyword always demand "static"; a "#" is a word like any other.
        {"veth1 dhcp 10.0.0.2 255.255.255.0 10.0.0.1\n", "veth1"},
        {"veth3 dhcp # a comment\n", "veth3"},
        // Fewer words allow only "dhcp", exactly and with its case.
        {"veth1 static 10.0.0.2 255.255.255.0\n", "veth1"},
        {"veth1 static\n", "veth1"},
        {"vrx1 DHCP\n", "vrx1"},
        {"vrx1 Static 10.0.0.2 255.255.255.0 10.0.0.1\n", "vrx1"},
        {"veth1 dhcpdhcp\n", "veth1"},  // the mode is cut to "dhcpdh"
    };
    for (const auto& [line, name] : cases) {
        IP_CONFIG config = kOldDhcp;
        EXPECT_EQ(ParseLine(name, line, config), -1) << line;
        EXPECT_EQ(config, kOldDhcp) << line;
    }
    EXPECT_EQ(log.Messages(),
              (Lines{
                  "ERROR ParseInterfaceLine: Invalid syntax for veth1 entry in config file",
                  "ERROR ParseInterfaceLine: Invalid syntax for veth1 entry in config file",
                  "ERROR ParseInterfaceLine: Invalid syntax for vrx0 entry in config file",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth3 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for vrx1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for vrx1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
              }));
}

TEST(ParseInterfaceLineTest, BadStaticPartStopsTheWritesWithoutRollback) {
    LogCapture log;
    const struct {
        const char* name;
        const char* line;
        IP_CONFIG expected;
    } cases[] = {
        {"veth1", "veth1 static 10.0.0.300 255.255.255.0 10.0.0.1\n", kOldStatic},
        {"veth3", "veth3 static 10.0.0.2 255.255.255.x 10.0.0.1\n",
         IpConfig(false, "10.0.0.2", "255.255.0.0", "198.51.100.1")},
        {"vrx0", "vrx0 static 10.0.0.2 255.255.255.0 10.0.0.1.1\n",
         IpConfig(false, "10.0.0.2", "255.255.255.0", "198.51.100.1")},
        // "staticx" is the mode "static" and an address "x".
        {"vrx1", "vrx1 staticx 10.0.0.2 255.255.255.0 10.0.0.1\n", kOldStatic},
        // The cut-off "x" of the mask becomes the gateway.
        {"veth1", "veth1 static 10.0.0.2 255.255.255.255x 10.0.0.1\n",
         IpConfig(false, "10.0.0.2", "255.255.255.255", "198.51.100.1")},
    };
    for (const auto& c : cases) {
        IP_CONFIG config = kOldDhcp;
        EXPECT_EQ(ParseLine(c.name, c.line, config), -1) << c.line;
        EXPECT_EQ(config, c.expected) << c.line;
    }
    EXPECT_EQ(log.Messages(), (Lines{
                                  "ERROR ParseInterfaceLine: Invalid static IP address veth1",
                                  "ERROR ParseInterfaceLine: Invalid static subnet mask veth3",
                                  "ERROR ParseInterfaceLine: Invalid static default gateway vrx0",
                                  "ERROR ParseInterfaceLine: Invalid static IP address vrx1",
                                  "ERROR ParseInterfaceLine: Invalid static default gateway veth1",
                              }));
}

using Flags = std::vector<bool>;

// Every field non-zero and unlike anything a test file writes, static so that
// a "dhcp" line shows; PHY and bridge modes out of their enums' range.
USER_SETTINGS Sentinels() {
    USER_SETTINGS settings;
    settings.m_eBridgeMode = static_cast<BRIDGE_MODE>(0xA5A5A5A5);
    settings.m_ePhyMode = static_cast<PHY_MODE>(0x5A5A5A5A);
    settings.m_veth1Config = IpConfig(false, "198.51.100.11", "255.255.0.11", "203.0.113.11");
    settings.m_veth3Config = IpConfig(false, "198.51.100.33", "255.255.0.33", "203.0.113.33");
    settings.m_vrx0Config = IpConfig(false, "198.51.100.100", "255.255.0.100", "203.0.113.100");
    settings.m_vrx1Config = IpConfig(false, "198.51.100.101", "255.255.0.101", "203.0.113.101");
    return settings;
}

const char kExampleFile[] =
    "#network settings\n"
    "bridge eth0eth1\n"
    "phy frame\n"
    "veth1 static 10.0.0.2 255.255.255.0 10.0.0.1\n"
    "veth3 dhcp\n"
    "vrx0 dhcp\n"
    "vrx1 static 192.168.1.10 255.255.255.0 0.0.0.0\n";

// What the example file makes of the sentinels: dhcp lines keep the addresses.
USER_SETTINGS ExampleSettings() {
    USER_SETTINGS settings = Sentinels();
    settings.m_eBridgeMode = BRIDGE_MODE_ETH0ETH1;
    settings.m_ePhyMode = PHY_MODE_SGMII;
    settings.m_veth1Config = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    settings.m_veth3Config.m_bDhcp = true;
    settings.m_vrx0Config.m_bDhcp = true;
    settings.m_vrx1Config = IpConfig(false, "192.168.1.10", "255.255.255.0", "0.0.0.0");
    return settings;
}

// The text followed by blanks up to `width` characters.
std::string Pad(const std::string& text, size_t width) { return text + std::string(width - text.size(), ' '); }

class ParseConfigFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tessel-config-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        path = dir + "/tessel.conf";
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    void Write(const std::string& content) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        ASSERT_TRUE(out.good()) << path;
    }
    int Parse() { return ParseConfigFile(path, settings, bSettingsValid, bVrx0Valid, bVrx1Valid); }
    int ParseText(const std::string& content) {
        Write(content);
        return Parse();
    }
    Flags Outputs() const { return {bSettingsValid, bVrx0Valid, bVrx1Valid}; }

    LogCapture log;
    std::string dir;
    std::string path;
    const USER_SETTINGS before = Sentinels();
    USER_SETTINGS settings = before;
    bool bSettingsValid = true;
    bool bVrx0Valid = true;
    bool bVrx1Valid = true;
};

// Every line kind with exactly its words.
TEST_F(ParseConfigFileTest, ExampleFileSetsEverySetting) {
    EXPECT_EQ(ParseText(kExampleFile), 0);
    EXPECT_EQ(settings, ExampleSettings());
    EXPECT_EQ(Outputs(), (Flags{true, true, true}));
    EXPECT_EQ(log.Messages(), Lines{});
}

// What a caller that collects problems gets: each logged message in its words,
// then the lines whose absence makes the file unusable, which are not logged.
TEST_F(ParseConfigFileTest, ProblemsAreTheLoggedMessagesThenTheMissingLines) {
    Lines problems;
    Write("bridge eth2\nveth1 static 10.0.0.2 banana 10.0.0.1\nvrx0 bogus\n");
    EXPECT_EQ(ParseConfigFile(path, settings, bSettingsValid, bVrx0Valid, bVrx1Valid, &problems), 0);
    const Lines expected = {
        "Invalid bridge mode entry, expected eth0|eth1|eth0eth1",
        "Invalid static subnet mask veth1",
        "Invalid syntax or address mode for vrx0 expected dhcp|static",
        "No veth3 line in config file",
    };
    EXPECT_EQ(problems, expected);
    EXPECT_EQ(log.Messages(), (Lines{
                                  "ERROR ParseConfigFile: " + expected[0],
                                  "ERROR ParseInterfaceLine: " + expected[1],
                                  "ERROR ParseInterfaceLine: " + expected[2],
                              }));
}

TEST_F(ParseConfigFileTest, ProblemsOfAnEmptyAnUnreadableAndAUsableFile) {
    Lines problems;
    Write("# nothing\n");
    EXPECT_EQ(ParseConfigFile(path, settings, bSettingsValid, bVrx0Valid, bVrx1Valid, &problems), 0);
    EXPECT_EQ(problems,
              (Lines{"No bridge line in config file", "No veth1 line in config file", "No veth3 line in config file"}));
    problems.clear();
    std::filesystem::remove(path);
    EXPECT_EQ(ParseConfigFile(path, settings, bSettingsValid, bVrx0Valid, bVrx1Valid, &problems), -1);
    EXPECT_EQ(problems, (Lines{"Unable to read configuration file"}));
    problems.clear();
    Write(kExampleFile);
    EXPECT_EQ(ParseConfigFile(path, settings, bSettingsValid, bVrx0Valid, bVrx1Valid, &problems), 0);
    EXPECT_EQ(problems, Lines{});
    // A read that does not ask notes nothing anywhere.
    Write("bridge eth2\n");
    EXPECT_EQ(Parse(), 0);
    EXPECT_EQ(problems, Lines{});
}

// What a caller that lists the lines gets: each classified line with its
// number in the file, its keyword and its messages; comments and empty lines
// are counted, not listed; a line longer than a piece is several, one number.
TEST_F(ParseConfigFileTest, LinesAreListedWithTheirNumbersKeywordsAndMessages) {
    std::vector<CONFIG_LINE> lines;
    const std::string longLine = "veth1 dhcp" + std::string(250, ' ') + "vrx9 x";
    Write("# comment\n\nbridge eth2\ngateway 1.2.3.4\n" + longLine + "\nveth3 static 10.0.0.2 banana 10.0.0.1");
    EXPECT_EQ(ParseConfigFile(path, settings, bSettingsValid, bVrx0Valid, bVrx1Valid, nullptr, &lines), 0);
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[0].m_nNumber, 3U);
    EXPECT_STREQ(lines[0].m_szKeyword, "bridge");
    EXPECT_EQ(lines[0].m_text, "bridge eth2");
    EXPECT_EQ(lines[0].m_problems, Lines{"Invalid bridge mode entry, expected eth0|eth1|eth0eth1"});
    EXPECT_EQ(lines[1].m_nNumber, 4U);
    EXPECT_EQ(lines[1].m_szKeyword, nullptr);
    EXPECT_EQ(lines[1].m_problems, Lines{});
    // The long line's two pieces: 255 characters, then the rest.
    EXPECT_EQ(lines[2].m_nNumber, 5U);
    EXPECT_STREQ(lines[2].m_szKeyword, "veth1");
    EXPECT_EQ(lines[2].m_text, longLine.substr(0, 255));
    EXPECT_EQ(lines[2].m_problems, Lines{});
    EXPECT_EQ(lines[3].m_nNumber, 5U);
    EXPECT_EQ(lines[3].m_szKeyword, nullptr);
    EXPECT_EQ(lines[3].m_text, longLine.substr(255));
    // The last line has no newline; its message is its own.
    EXPECT_EQ(lines[4].m_nNumber, 6U);
    EXPECT_STREQ(lines[4].m_szKeyword, "veth3");
    EXPECT_EQ(lines[4].m_problems, Lines{"Invalid static subnet mask veth3"});
    // The missing lines are the file's, no line's; the log is as without the list.
    EXPECT_EQ(log.Messages(), (Lines{
                                  "ERROR ParseConfigFile: Invalid bridge mode entry, expected eth0|eth1|eth0eth1",
                                  "ERROR ParseInterfaceLine: Invalid static subnet mask veth3",
                              }));
}

TEST_F(ParseConfigFileTest, CrlfEndingsReadTheSame) {
    std::string text;
    for (const char* c = kExampleFile; *c != '\0'; ++c) text += *c == '\n' ? std::string("\r\n") : std::string(1, *c);
    EXPECT_EQ(ParseText(text + "\r\n"), 0);
    EXPECT_EQ(settings, ExampleSettings());
    EXPECT_EQ(Outputs(), (Flags{true, true, true}));
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseConfigFileTest, MissingFileChangesNothingAndSaysSoEachTime) {
    EXPECT_EQ(ParseText(kExampleFile), 0);
    std::filesystem::remove(path);
    EXPECT_EQ(Parse(), -1);
    EXPECT_EQ(Outputs(), (Flags{true, true, true}));
    bSettingsValid = bVrx1Valid = false;
    EXPECT_EQ(Parse(), -1);
    EXPECT_EQ(Outputs(), (Flags{false, true, false}));
    EXPECT_EQ(settings, ExampleSettings());
    EXPECT_EQ(log.Messages(), (Lines{
                                  "ERROR ParseConfigFile: Unable to read configuration file",
                                  "ERROR ParseConfigFile: Unable to read configuration file",
                              }));
}

TEST_F(ParseConfigFileTest, DirectoryIsAFileThatCannotBeRead) {
    path = dir;
    EXPECT_EQ(Parse(), -1);
    EXPECT_EQ(Outputs(), (Flags{true, true, true}));
    EXPECT_EQ(settings, before);
    EXPECT_EQ(log.Messages(), (Lines{"ERROR ParseConfigFile: Unable to read configuration file"}));
}

// A child whose page at address 0 holds a text: its memory file reads as that
// text and then fails with EIO on the unmapped page after it.
class PageZeroProcess {
public:
    explicit PageZeroProcess(const std::string& text) {
        int ready[2];
        if (pipe(ready) != 0) return;
        m_pid = fork();
        if (m_pid == 0) {
            close(ready[0]);
            void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
            char mapped = page == MAP_FAILED ? 'n' : 'y';
            if (page != MAP_FAILED) {
                memset(page, '\n', 4096);
                memcpy(page, text.data(), text.size());
            }
            if (write(ready[1], &mapped, 1) == 1) pause();
            _exit(0);
        }
        close(ready[1]);
        char mapped = 'n';
        m_bMapped = m_pid > 0 && read(ready[0], &mapped, 1) == 1 && mapped == 'y';
        close(ready[0]);
        // Under an emulator the process's page 0 is not the emulated program's:
        // the memory file must show the text where the test reads it.
        int memory = m_bMapped ? open(MemoryFile().c_str(), O_RDONLY) : -1;
        std::string start(text.size(), '\0');
        m_bVisible = memory >= 0 && pread(memory, &start[0], start.size(), 0) == static_cast<ssize_t>(start.size()) &&
                     start == text;
        if (memory >= 0) close(memory);
    }
    ~PageZeroProcess() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    bool Mapped() const { return m_bMapped; }
    bool Visible() const { return m_bVisible; }
    std::string MemoryFile() const { return "/proc/" + std::to_string(m_pid) + "/mem"; }

private:
    pid_t m_pid = -1;
    bool m_bMapped = false;
    bool m_bVisible = false;
};

TEST_F(ParseConfigFileTest, ReadErrorPartWayIsNoCompleteFile) {
    PageZeroProcess child("bridge eth1\nveth1 dhcp\nveth3 dhcp\nvrx0 dhcp\nvrx1 bogus\n");
    if (!child.Mapped()) GTEST_SKIP() << "cannot map address 0 here (needs root with CAP_SYS_RAWIO)";
    if (!child.Visible()) GTEST_SKIP() << "the memory file does not show page 0 here (an emulated process)";
    path = child.MemoryFile();
    EXPECT_EQ(Parse(), -1);
    EXPECT_EQ(settings, before);
    EXPECT_EQ(Outputs(), (Flags{false, false, false}));
    EXPECT_EQ(log.Messages(),
              (Lines{
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for vrx1 expected dhcp|static",
                  "ERROR ParseConfigFile: Unable to read configuration file",
              }));
}

TEST_F(ParseConfigFileTest, EmptyOrCommentedFileClearsTheOutputsOnly) {
    EXPECT_EQ(ParseText(""), 0);
    EXPECT_EQ(Outputs(), (Flags{false, false, false}));
    bSettingsValid = bVrx0Valid = bVrx1Valid = true;
    EXPECT_EQ(ParseText("#network settings\n\n#bridge eth1\n#veth1 dhcp\n\n#veth3 dhcp"), 0);
    EXPECT_EQ(Outputs(), (Flags{false, false, false}));
    EXPECT_EQ(settings, before);
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseConfigFileTest, EachReadNeedsItsOwnBridgeVeth1AndVeth3Lines) {
    EXPECT_EQ(ParseText("bridge eth1\nveth1 dhcp\nveth3 dhcp\n"), 0);
    EXPECT_TRUE(bSettingsValid);
    EXPECT_EQ(ParseText("veth1 dhcp\nveth3 dhcp\n"), 0);
    EXPECT_FALSE(bSettingsValid);
    EXPECT_EQ(ParseText("bridge eth1\nveth3 dhcp\n"), 0);
    EXPECT_FALSE(bSettingsValid);
    settings = before;
    EXPECT_EQ(ParseText("bridge eth1\nphy frame\nveth1 dhcp\nvrx0 dhcp\nvrx1 dhcp\n"), 0);
    EXPECT_EQ(Outputs(), (Flags{false, true, true}));
    EXPECT_EQ(settings.m_veth3Config, before.m_veth3Config);
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseConfigFileTest, GoodBridgeLineCountsWhateverBadOnesFollow) {
    EXPECT_EQ(ParseText("bridge\nbridge eth2\nveth1 dhcp\nveth3 dhcp\n"), 0);
    EXPECT_EQ(settings.m_eBridgeMode, before.m_eBridgeMode);
    EXPECT_FALSE(bSettingsValid);
    EXPECT_EQ(ParseText("bridge eth0\nveth1 dhcp\nveth3 dhcp\nbridge eth2\nbridge\n"), 0);
    EXPECT_EQ(settings.m_eBridgeMode, BRIDGE_MODE_ETH0);
    EXPECT_TRUE(bSettingsValid);
    EXPECT_EQ(log.Messages(), (Lines{
                                  "ERROR ParseConfigFile: Invalid bridge mode line in config file",
                                  "ERROR ParseConfigFile: Invalid bridge mode entry, expected eth0|eth1|eth0eth1",
                                  "ERROR ParseConfigFile: Invalid bridge mode entry, expected eth0|eth1|eth0eth1",
                                  "ERROR ParseConfigFile: Invalid bridge mode line in config file",
                              }));
}

TEST_F(ParseConfigFileTest, LastInterfaceLineDecidesItsFlagButBadOnesKeepTheValues) {
    EXPECT_EQ(ParseText("bridge eth1\nveth1 static 10.0.0.2 255.255.255.0 10.0.0.1\nveth1 bogus\nveth3 bogus\n"
                        "veth3 dhcp\nvrx0 dhcp\nvrx0\nvrx1 static 1.2.3\nvrx1 dhcp\n"),
              0);
    EXPECT_EQ(settings.m_veth1Config, IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1"));
    EXPECT_EQ(Outputs(), (Flags{false, false, true}));
    EXPECT_EQ(log.Messages(),
              (Lines{
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth3 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax for vrx0 entry in config file",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for vrx1 expected dhcp|static",
              }));
}

TEST_F(ParseConfigFileTest, BridgeValuesAreComparedOnTheirFirstEightCharacters) {
    const struct {
        const char* line;
        uint32_t mode;
        bool valid;
    } cases[] = {
        {"bridge eth0\n", BRIDGE_MODE_ETH0, true},         {"bridge eth1\n", BRIDGE_MODE_ETH1, true},
        {"bridge eth0eth1\n", BRIDGE_MODE_ETH0ETH1, true}, {"bridge eth0eth1extra\n", BRIDGE_MODE_ETH0ETH1, true},
        {"bridge eth1x\n", BRIDGE_MODE_ETH0ETH1, false},  // no mode: the last one stays
        {"bridge ETH1\n", BRIDGE_MODE_ETH0ETH1, false},    {"bridge eth0eth\n", BRIDGE_MODE_ETH0ETH1, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ParseText(std::string(c.line) + "veth1 dhcp\nveth3 dhcp\n"), 0) << c.line;
        EXPECT_EQ(settings.m_eBridgeMode, c.mode) << c.line;
        EXPECT_EQ(bSettingsValid, c.valid) << c.line;
    }
    EXPECT_EQ(log.Messages(), (Lines{
                                  "ERROR ParseConfigFile: Invalid bridge mode entry, expected eth0|eth1|eth0eth1",
                                  "ERROR ParseConfigFile: Invalid bridge mode entry, expected eth0|eth1|eth0eth1",
                                  "ERROR ParseConfigFile: Invalid bridge mode entry, expected eth0|eth1|eth0eth1",
                              }));
}

TEST_F(ParseConfigFileTest, PhyIsSgmiiOnlyForFrameOnItsFirstFiveCharacters) {
    const std::pair<const char*, uint32_t> cases[] = {
        {"phy frame\n", PHY_MODE_SGMII},  {"phy copper\n", PHY_MODE_COPPER},
        {"phy framed\n", PHY_MODE_SGMII}, {"phy\n", PHY_MODE_SGMII},  // no value: the last one stays
        {"phy fram\n", PHY_MODE_COPPER},  {"phy FRAME\n", PHY_MODE_COPPER},
    };
    for (const auto& [line, mode] : cases) {
        EXPECT_EQ(ParseText(line), 0) << line;
        EXPECT_EQ(settings.m_ePhyMode, mode) << line;
    }
    EXPECT_EQ(log.Messages(), (Lines{"ERROR ParseConfigFile: Invalid bridge mode line in config file"}));
}

TEST_F(ParseConfigFileTest, LinesWithTooFewWords) {
    EXPECT_EQ(ParseText("bridge\nphy\nveth1 static 10.0.0.2 255.255.255.0\nveth3\nvrx0 static\nvrx1 \n"), 0);
    EXPECT_EQ(settings, before);
    EXPECT_EQ(Outputs(), (Flags{false, false, false}));
    EXPECT_EQ(log.Messages(),
              (Lines{
                  "ERROR ParseConfigFile: Invalid bridge mode line in config file",
                  "ERROR ParseConfigFile: Invalid bridge mode line in config file",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for veth1 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax for veth3 entry in config file",
                  "ERROR ParseInterfaceLine: Invalid syntax or address mode for vrx0 expected dhcp|static",
                  "ERROR ParseInterfaceLine: Invalid syntax for vrx1 entry in config file",
              }));
}

TEST_F(ParseConfigFileTest, LinesWithTooManyWords) {
    EXPECT_EQ(ParseText("bridge eth1 eth0\nphy frame copper\nveth1 static 10.0.0.2 255.255.255.0 10.0.0.1 10.0.0.9\n"
                        "veth3 dhcp a b c\nvrx0 dhcp a b\nvrx1 static 192.168.1.10 255.255.255.0 0.0.0.0 x\n"),
              0);
    USER_SETTINGS expected = before;
    expected.m_eBridgeMode = BRIDGE_MODE_ETH1;
    expected.m_ePhyMode = PHY_MODE_SGMII;
    expected.m_veth1Config = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    expected.m_vrx0Config.m_bDhcp = true;
    expected.m_vrx1Config = IpConfig(false, "192.168.1.10", "255.255.255.0", "0.0.0.0");
    EXPECT_EQ(settings, expected);
    EXPECT_EQ(Outputs(), (Flags{false, true, true}));
    EXPECT_EQ(log.Messages(),
              (Lines{"ERROR ParseInterfaceLine: Invalid syntax or address mode for veth3 expected dhcp|static"}));
}

TEST_F(ParseConfigFileTest, KeywordIsFoundAnywhereInTheFixedOrder) {
    // A blank before "#" makes no comment.
    EXPECT_EQ(ParseText(" #bridge eth1\n"), 0);
    EXPECT_EQ(settings.m_eBridgeMode, BRIDGE_MODE_ETH1);
    // "bridge" is looked for before "phy".
    EXPECT_EQ(ParseText("myphy_bridge eth0eth1\n"), 0);
    EXPECT_EQ(settings.m_eBridgeMode, BRIDGE_MODE_ETH0ETH1);
    EXPECT_EQ(settings.m_ePhyMode, before.m_ePhyMode);

    EXPECT_EQ(ParseText("xphy frame\n"
                        "veth1 dhcp bridge\n"  // a bridge line with the value "dhcp"
                        "vrx0 dhcp veth3\n"    // a veth3 line: veth3 is looked for before vrx0
                        "veth1 dhcp #comment\n"
                        "interface eth0\n"),  // no keyword
              0);
    USER_SETTINGS expected = before;
    expected.m_eBridgeMode = BRIDGE_MODE_ETH0ETH1;
    expected.m_ePhyMode = PHY_MODE_SGMII;
    expected.m_veth1Config.m_bDhcp = true;
    expected.m_veth3Config.m_bDhcp = true;
    EXPECT_EQ(settings, expected);
    EXPECT_EQ(Outputs(), (Flags{false, false, false}));
    EXPECT_EQ(log.Messages(), (Lines{"ERROR ParseConfigFile: Invalid bridge mode entry, expected eth0|eth1|eth0eth1"}));
}

TEST_F(ParseConfigFileTest, RepeatedLinesLastOneWins) {
    EXPECT_EQ(ParseText("bridge eth0\nbridge eth1\nphy frame\nphy copper\n"
                        "veth1 static 10.0.0.2 255.255.255.0 10.0.0.1\nveth1 dhcp\nveth3 dhcp\nveth3 dhcp\n"),
              0);
    USER_SETTINGS expected = before;
    expected.m_eBridgeMode = BRIDGE_MODE_ETH1;
    expected.m_ePhyMode = PHY_MODE_COPPER;
    expected.m_veth1Config = IpConfig(true, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    expected.m_veth3Config.m_bDhcp = true;
    EXPECT_EQ(settings, expected);
    EXPECT_EQ(Outputs(), (Flags{true, false, false}));
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseConfigFileTest, VrxOutputsAreWrittenAsTheirLinesAreRead) {
    // One variable for both: the vrx line read last decides it.
    bool shared = true;
    Write("vrx1 dhcp\nvrx0 bogus\n");
    EXPECT_EQ(ParseConfigFile(path, settings, bSettingsValid, shared, shared), 0);
    EXPECT_FALSE(shared);
    Write("vrx0 bogus\nvrx1 dhcp\n");
    EXPECT_EQ(ParseConfigFile(path, settings, bSettingsValid, shared, shared), 0);
    EXPECT_TRUE(shared);
}

TEST_F(ParseConfigFileTest, FieldsWithoutALineKeepTheLastReadsValues) {
    EXPECT_EQ(ParseText(kExampleFile), 0);
    EXPECT_EQ(ParseText("bridge eth1\n"), 0);
    USER_SETTINGS expected = ExampleSettings();
    expected.m_eBridgeMode = BRIDGE_MODE_ETH1;
    EXPECT_EQ(settings, expected);
    EXPECT_EQ(Outputs(), (Flags{false, false, false}));
}

TEST_F(ParseConfigFileTest, NulByteEndsTheLineItIsIn) {
    const char text[] =
        "bridge\0eth1\n"  // a bridge line without a value
        "\0veth1 dhcp\n"  // an empty line
        "phy fr\0ame\n"   // phy "fr"
        "vrx0 dhcp\0\n"
        "veth3 dhcp\n";
    EXPECT_EQ(ParseText(std::string(text, sizeof text - 1)), 0);
    USER_SETTINGS expected = before;
    expected.m_ePhyMode = PHY_MODE_COPPER;
    expected.m_vrx0Config.m_bDhcp = true;
    expected.m_veth3Config.m_bDhcp = true;
    EXPECT_EQ(settings, expected);
    EXPECT_EQ(Outputs(), (Flags{false, true, false}));
    EXPECT_EQ(log.Messages(), (Lines{"ERROR ParseConfigFile: Invalid bridge mode line in config file"}));
}

TEST_F(ParseConfigFileTest, LastLineWithoutNewlineIsRead) {
    EXPECT_EQ(ParseText("bridge eth1\nveth1 dhcp\nveth3 dhcp"), 0);
    EXPECT_EQ(Outputs(), (Flags{true, false, false}));
    EXPECT_TRUE(settings.m_veth3Config.m_bDhcp);
    EXPECT_EQ(ParseText("bridge eth1\nveth1 dhcp\nveth3 dhcp\nphy frame"), 0);
    EXPECT_EQ(settings.m_ePhyMode, PHY_MODE_SGMII);
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseConfigFileTest, LineLongerThan255CharactersIsSeveralLines) {
    EXPECT_EQ(ParseText(Pad("bridge eth1", 254) + "\n"   // fits with its newline
                        + Pad("veth1 dhcp", 255) + "\n"  // the newline alone is an empty line
                        + Pad("veth3 dhcp", 255) + "phy frame\n" + Pad("vrx0 dhcp", 255) + "#vrx1 dhcp\n" +
                        std::string(252, 'x') + "vrx1 dhcp\n"),  // "vrx" | "1 dhcp": no keyword
              0);
    USER_SETTINGS expected = before;
    expected.m_eBridgeMode = BRIDGE_MODE_ETH1;
    expected.m_ePhyMode = PHY_MODE_SGMII;
    expected.m_veth1Config.m_bDhcp = true;
    expected.m_veth3Config.m_bDhcp = true;
    expected.m_vrx0Config.m_bDhcp = true;
    EXPECT_EQ(settings, expected);
    EXPECT_EQ(Outputs(), (Flags{true, true, false}));
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseConfigFileTest, SixtyKilobyteLineIsReadIn255CharacterPieces) {
    std::vector<std::string> pieces(241, std::string(255, 'x'));
    pieces[0] = Pad("veth1 static 10.0.0.2 255.255.255.0 10.0.0.1", 255);
    pieces[100] = Pad("bridge eth0eth1", 255);
    pieces[150] = Pad("#bridge eth1", 255);
    pieces[180] = Pad("phy", 255);
    pieces[219] = std::string(253, 'x') + "ve";  // "veth3 dhcp" across two pieces: no keyword in either
    pieces[220] = Pad("th3 dhcp", 255);
    std::string line;
    for (const std::string& piece : pieces) line += piece;
    line += "vrx0 dhcp\n";
    ASSERT_GE(line.size(), 60000u);
    EXPECT_EQ(ParseText(line), 0);
    USER_SETTINGS expected = before;
    expected.m_eBridgeMode = BRIDGE_MODE_ETH0ETH1;
    expected.m_veth1Config = IpConfig(false, "10.0.0.2", "255.255.255.0", "10.0.0.1");
    expected.m_vrx0Config.m_bDhcp = true;
    EXPECT_EQ(settings, expected);
    EXPECT_EQ(Outputs(), (Flags{false, true, false}));
    EXPECT_EQ(log.Messages(), (Lines{"ERROR ParseConfigFile: Invalid bridge mode line in config file"}));
}

// The example padded with comment lines to exactly `size` bytes.
std::string ExamplePaddedTo(size_t size) {
    std::string text = kExampleFile;
    while (text.size() + 200 < size) text += "#" + std::string(198, '-') + "\n";
    text += "#" + std::string(size - text.size() - 2, '-') + "\n";
    return text;
}

TEST_F(ParseConfigFileTest, FileOfSixtyFourKilobytesIsRead) {
    std::string text = ExamplePaddedTo(65536);
    ASSERT_EQ(text.size(), 65536u);
    EXPECT_EQ(ParseText(text), 0);
    EXPECT_EQ(settings, ExampleSettings());
    EXPECT_EQ(Outputs(), (Flags{true, true, true}));
    EXPECT_EQ(log.Messages(), Lines{});
}

TEST_F(ParseConfigFileTest, FileOfMoreThanSixtyFourKilobytesIsUnreadableAndTouchesNothing) {
    EXPECT_EQ(ParseText(ExamplePaddedTo(65537)), -1);
    EXPECT_EQ(Outputs(), (Flags{true, true, true}));
    EXPECT_EQ(settings, before);
    EXPECT_EQ(log.Messages(), (Lines{"ERROR ParseConfigFile: Unable to read configuration file"}));
}

// The parse in a child, so a parse that blocks fails the test instead of hanging it.
// Returns what the child saw: the result, or "blocked" after two seconds.
std::string ParseInChild(const std::string& path) {
    int fds[2];
    if (pipe(fds) != 0) return "no pipe";
    pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        USER_SETTINGS settings = Sentinels();
        bool a = true;
        bool b = true;
        bool c = true;
        int result = ParseConfigFile(path, settings, a, b, c);
        bool untouched = settings == Sentinels() && a && b && c;
        std::string said = std::to_string(result) + (untouched ? " untouched" : " touched");
        ssize_t written = write(fds[1], said.data(), said.size());
        _exit(written == static_cast<ssize_t>(said.size()) ? 0 : 1);
    }
    close(fds[1]);
    std::string said = "blocked";
    for (int waited = 0; waited < 200; ++waited) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) {
            char bytes[64];
            ssize_t count = read(fds[0], bytes, sizeof bytes);
            said = count > 0 ? std::string(bytes, static_cast<size_t>(count)) : "nothing";
            child = -1;
            break;
        }
        usleep(10000);
    }
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    close(fds[0]);
    return said;
}

TEST_F(ParseConfigFileTest, FifoNeverBlocksAndIsUnreadable) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(ParseInChild(path), "-1 untouched");
    // Also with a writer that keeps it open and never writes.
    int writer = open(path.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(writer, 0);
    EXPECT_EQ(ParseInChild(path), "-1 untouched");
    close(writer);
}

TEST_F(ParseConfigFileTest, EndlessDeviceIsUnreadable) {
    EXPECT_EQ(ParseInChild("/dev/zero"), "-1 untouched");
    EXPECT_EQ(ParseInChild("/dev/urandom"), "-1 untouched");
    path = "/dev/zero";
    EXPECT_EQ(Parse(), -1);
    // The children log into the same capture: one message each.
    const std::string unreadable = "ERROR ParseConfigFile: Unable to read configuration file";
    EXPECT_EQ(log.Messages(), (Lines{unreadable, unreadable, unreadable}));
}

TEST_F(ParseConfigFileTest, LinkToARegularFileIsFollowed) {
    Write(kExampleFile);
    std::string link = dir + "/link.conf";
    ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
    path = link;
    EXPECT_EQ(Parse(), 0);
    EXPECT_EQ(settings, ExampleSettings());
}

TEST_F(ParseConfigFileTest, LinkToAFifoIsUnreadable) {
    std::string fifo = dir + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_EQ(symlink(fifo.c_str(), path.c_str()), 0);
    EXPECT_EQ(ParseInChild(path), "-1 untouched");
}

TEST_F(ParseConfigFileTest, MessagesAreErrorsFromThisFileAndStayOutOfTheSystemLog) {
    EXPECT_EQ(ParseText("bridge\nbridge eth2\nphy\nveth1\nveth3 static 1.2.3.4 x 1.2.3.1\n"), 0);
    path = dir + "/missing.conf";
    EXPECT_EQ(Parse(), -1);
    std::vector<std::string> functions;
    for (const LogEntry& entry : log.Entries()) {
        EXPECT_EQ(entry.level, "ERROR");
        EXPECT_EQ(entry.file, "src/NetworkConfig.cpp");
        functions.push_back(entry.function);
    }
    EXPECT_EQ(functions, (Lines{"ParseConfigFile", "ParseConfigFile", "ParseConfigFile", "ParseInterfaceLine",
                                "ParseInterfaceLine", "ParseConfigFile"}));
    EXPECT_EQ(log.SystemLog(), Lines{});
}

}  // namespace
