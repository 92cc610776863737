#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "src/NetworkDhcp.h"
#include "src/NetworkShell.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/FieldChanges.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Namespaces.h"
#include "tests/support/NetworkRecords.h"
#include "tests/support/RefusedSystemCalls.h"
#include "tests/support/TempDir.h"

namespace {

using Lines = std::vector<std::string>;

// An interface name no other test run uses, so the lease files never collide and
// nothing of the machine's is read or removed.
std::string UniqueName() {
    static int counter = 0;
    return "tl" + std::to_string(getpid()) + "x" + std::to_string(++counter);
}

// Every entry of /tmp whose name begins with `prefix`.
std::vector<std::string> EntriesStartingWith(const std::string& prefix) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        std::string name = entry.path().filename().string();
        if (name.compare(0, prefix.size(), prefix) == 0) names.push_back(name);
    }
    return names;
}

// Writes a lease file as the script does: mode 0600, whatever the umask.
void WriteLease(const std::string& path, const std::string& text, mode_t mode = 0600) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ASSERT_EQ(fchmod(fd, mode), 0);
    close(fd);
}

std::string ReadWhole(const std::string& path) {
    std::string text;
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) return "(none)";
    char bytes[512];
    size_t count = 0;
    while ((count = fread(bytes, 1, sizeof bytes, file)) > 0) text.append(bytes, count);
    fclose(file);
    return text;
}

// The lease file of an interface of the test's own; whatever the reader left
// under its name or a name beginning with it is removed here.
class LeaseFile {
public:
    LeaseFile() : m_name(UniqueName()), m_path("/tmp/dhcp_" + m_name + ".txt") {}
    ~LeaseFile() {
        for (const std::string& name : EntriesStartingWith("dhcp_" + m_name + ".txt")) {
            std::error_code ignored;
            std::filesystem::remove_all("/tmp/" + name, ignored);
        }
    }
    LeaseFile(const LeaseFile&) = delete;
    LeaseFile& operator=(const LeaseFile&) = delete;

    void Write(const std::string& text, mode_t mode = 0600) const { WriteLease(m_path, text, mode); }
    // What is left in /tmp of this file: its own name and any claimed name.
    std::vector<std::string> Left() const { return EntriesStartingWith("dhcp_" + m_name + ".txt"); }
    const std::string& Name() const { return m_name; }
    const std::string& Path() const { return m_path; }

private:
    std::string m_name;
    std::string m_path;
};

// A dry run's directory: the lease is looked for there, and one in /tmp is
// left for the daemon; the log still names the file by its /tmp name.
TEST(DhcpLeaseDirectoryTest, LeasesAreTakenFromTheDirectoryNamed) {
    const LeaseFile inTmp;
    const TempDir directory;
    inTmp.Write(inTmp.Name() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n");
    WriteLease(directory.Path("dhcp_" + inTmp.Name() + ".txt"), inTmp.Name() + " 10.0.0.6 255.255.255.0\n10.0.0.1\n");
    const std::string previous = SetDhcpLeaseDirectory(directory.Path());
    DHCP_STATE state{};
    Lines timeline;
    {
        LogCapture log;
        CommandRecorder commands;
        CheckForNewDhcpAddress(inTmp.Name(), 10, state);
        timeline = log.Timeline();
    }
    SetDhcpLeaseDirectory(previous);
    ASSERT_FALSE(timeline.empty());
    EXPECT_EQ(timeline[0], "INFO CheckForNewDhcpAddress: New DHCP lease for " + inTmp.Name());
    EXPECT_TRUE(state.m_bLeaseValid);
    EXPECT_EQ(state.m_ipAddress.s_addr, htonl(0x0A000006));
    EXPECT_EQ(inTmp.Left(), Lines{"dhcp_" + inTmp.Name() + ".txt"});
    EXPECT_EQ(ReadWhole(inTmp.Path()), inTmp.Name() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n");
    EXPECT_FALSE(std::filesystem::exists(directory.Path("dhcp_" + inTmp.Name() + ".txt")));
}

class CheckForNewDhcpAddressTest : public ::testing::Test {
protected:
    // One call with a file holding `text`, returning the messages and commands.
    Lines Check(const std::string& text, DHCP_STATE& state, unsigned int metric = 10) {
        m_file.Write(text);
        LogCapture log;
        CommandRecorder commands;
        CheckForNewDhcpAddress(m_file.Name(), metric, state);
        // Every file that is read is gone afterwards, malformed or not.
        EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
        return log.Timeline();
    }

    LeaseFile m_file;
    const std::string& N() const { return m_file.Name(); }
};

TEST(LeaseStateTest, EqualityNoticesAChangeInEachFieldInTurn) {
    ExpectEveryChangeNoticed(LeaseState(true, "192.168.77.100", "255.255.255.0", "192.168.77.1"), LeaseStateChanges());
}

TEST_F(CheckForNewDhcpAddressTest, NoFileDoesNothing) {
    DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    LogCapture log;
    CommandRecorder commands;
    CheckForNewDhcpAddress(N(), 10, state);
    EXPECT_EQ(log.Timeline(), Lines{});
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(CheckForNewDhcpAddressTest, NewLeaseWithGatewayIsProgrammedAndRecorded) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n", state),
              (Lines{
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                  "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                  "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                  "$ ip route add default via 10.0.0.1 dev " + N() + " metric 10",
              }));
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(CheckForNewDhcpAddressTest, SameLeaseAgainChangesNothing) {
    DHCP_STATE state{};
    const std::string text = N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n";
    Check(text, state, 100);
    EXPECT_EQ(Check(text, state, 100), Lines{});
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(CheckForNewDhcpAddressTest, TheServerIsRecordedAndAloneIsNoNewLease) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0 10.0.0.254\n10.0.0.1\n", state, 100),
              (Lines{
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                  "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                  "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                  "$ ip route add default via 10.0.0.1 dev " + N() + " metric 100",
              }));
    EXPECT_EQ(Dotted(state.m_server), "10.0.0.254");
    // A renewal naming another server (or none, or a bad one) puts nothing in force again.
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0 10.0.0.253\n10.0.0.1\n", state, 100), Lines{});
    EXPECT_EQ(Dotted(state.m_server), "10.0.0.253");
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0 banana\n10.0.0.1\n", state, 100), Lines{});
    EXPECT_EQ(Dotted(state.m_server), "0.0.0.0");
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(CheckForNewDhcpAddressTest, CallersMetricAndFurtherLinesIgnored) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\ngarbage\n\n", state, 100),
              (Lines{
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                  "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                  "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                  "$ ip route add default via 10.0.0.1 dev " + N() + " metric 100",
              }));
}

TEST_F(CheckForNewDhcpAddressTest, AnyFormInetAtonTakesIsAccepted) {
    DHCP_STATE state{};
    Check(N() + " 10.5 0xffffff00\n012.0.0.1\n", state);
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(CheckForNewDhcpAddressTest, ChangedLeaseReplacesTheOldOne) {
    DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0\n10.0.0.254\n", state),
              (Lines{
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                  "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                  "INFO SetAddrAndRouting: Adding default gateway 10.0.0.254 for " + N(),
                  "$ ip route add default via 10.0.0.254 dev " + N() + " metric 10",
              }));
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.254");
}

TEST_F(CheckForNewDhcpAddressTest, FirstLineOnlyNamesTheFilesNameInTheGatewayMessage) {
    DHCP_STATE state{};
    EXPECT_EQ(Check("eth9 10.0.0.5 255.255.255.0\n", state),
              (Lines{
                  "INFO CheckForNewDhcpAddress: DHCP did not provide gateway for eth9",
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                  "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                  "INFO SetAddrAndRouting: Not adding default gateway for " + N(),
              }));
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, FirstLineWithoutNewlineHasNoGateway) {
    DHCP_STATE state{};
    Lines timeline = Check(N() + " 10.0.0.5 255.255.255.0", state);
    ASSERT_FALSE(timeline.empty());
    EXPECT_EQ(timeline[0], "INFO CheckForNewDhcpAddress: DHCP did not provide gateway for " + N());
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, ZeroLeaseWhileALeaseIsInForceSaysSoTwiceAndFlushes) {
    DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Check(N() + " 0.0.0.0 0.0.0.0\n10.0.0.1\n", state),
              (Lines{
                  "INFO CheckForNewDhcpAddress: No DHCP lease for " + N(),
                  "INFO CheckForNewDhcpAddress: No DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
              }));
    EXPECT_EQ(Describe(state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, ZeroLeaseWithNoLeaseInForceSaysSoOnce) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 0.0.0.0 0.0.0.0\n", state), (Lines{
                                                            "INFO CheckForNewDhcpAddress: No DHCP lease for " + N(),
                                                        }));
    EXPECT_EQ(Describe(state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, ZeroAddressWithAMaskIsALease) {
    DHCP_STATE state{};
    Check(N() + " 0.0.0.0 255.0.0.0\n", state);
    EXPECT_EQ(Describe(state), "valid 0.0.0.0 255.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, BadMaskKeepsTheAddressAndFlushesEvenWithoutALease) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.x\n10.0.0.1\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Invalid DHCP subnet mask for " + N(),
                  "INFO CheckForNewDhcpAddress: No DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
              }));
    EXPECT_EQ(Describe(state), "invalid 10.0.0.5 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, BadAddressWithNoLeaseInForceChangesNothing) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 10.0.0.300 255.255.255.0\n10.0.0.1\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Invalid DHCP IP address for " + N(),
              }));
    EXPECT_EQ(Describe(state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, BadAddressTakesALeaseInForceOff) {
    DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Check(N() + " nonsense 255.255.255.0\n10.0.0.1\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Invalid DHCP IP address for " + N(),
                  "INFO CheckForNewDhcpAddress: No DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
              }));
    EXPECT_EQ(Describe(state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, BadGatewayKeepsTheLeaseWithoutRoute) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0\n10.0.0.256\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Invalid DHCP gateway for " + N(),
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                  "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                  "INFO SetAddrAndRouting: Not adding default gateway for " + N(),
              }));
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, BlankSecondLineIsUnparsable) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0\n  \t \n10.0.0.1\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid second line",
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                  "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                  "INFO SetAddrAndRouting: Not adding default gateway for " + N(),
              }));
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, EmptySecondLineIsUnparsableNotMissing) {
    DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "0.0.0.0");
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0\n\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid second line",
              }));
}

TEST_F(CheckForNewDhcpAddressTest, EmptyFileIsUnreadable) {
    DHCP_STATE state{};
    EXPECT_EQ(Check("", state), (Lines{
                                    "ERROR CheckForNewDhcpAddress: Unable to read DHCP lease file for " + N(),
                                }));
    EXPECT_EQ(Describe(state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, EmptyFileTakesALeaseInForceOff) {
    DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Check("", state), (Lines{
                                    "ERROR CheckForNewDhcpAddress: Unable to read DHCP lease file for " + N(),
                                    "INFO CheckForNewDhcpAddress: No DHCP lease for " + N(),
                                    "$ ip route flush dev " + N(),
                                    "$ ip addr flush dev " + N(),
                                }));
    EXPECT_EQ(Describe(state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, FirstLineWithTwoFieldsIsUnparsable) {
    DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
    EXPECT_EQ(Check(N() + " 10.0.0.5\n255.255.255.0\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid first line",
                  "INFO CheckForNewDhcpAddress: No DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
              }));
    EXPECT_EQ(Describe(state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, BlankFirstLineIsUnparsable) {
    DHCP_STATE state{};
    EXPECT_EQ(Check("\n" + N() + " 10.0.0.5 255.255.255.0\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid first line",
              }));
}

TEST_F(CheckForNewDhcpAddressTest, NameFieldOfSixteenCharactersIsTakenWhole) {
    DHCP_STATE state{};
    Lines timeline = Check("abcdefghijklmnop 10.0.0.5 255.255.255.0\n", state);
    ASSERT_FALSE(timeline.empty());
    EXPECT_EQ(timeline[0], "INFO CheckForNewDhcpAddress: DHCP did not provide gateway for abcdefghijklmnop");
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 0.0.0.0");
}

// A field longer than its width is cut there and its rest becomes the next field:
// the fields after it shift by one and the last one written is never looked at.
TEST_F(CheckForNewDhcpAddressTest, LongerNameSpillsIntoTheAddress) {
    DHCP_STATE state{};
    EXPECT_EQ(Check("abcdefghijklmnopq 10.0.0.5 255.255.255.0\n10.0.0.1\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Invalid DHCP IP address for " + N(),
              }));
}

TEST_F(CheckForNewDhcpAddressTest, LongerNameWhoseRestConvertsShiftsEveryField) {
    // The name's last character "7" is taken as the address 0.0.0.7 and the
    // address as the mask.
    DHCP_STATE state{};
    EXPECT_EQ(Check("abcdefghijklmnop7 10.0.0.5 255.255.255.0\n10.0.0.1\n", state),
              (Lines{
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 0.0.0.7/10.0.0.5",
                  "$ ip addr add 0.0.0.7/10.0.0.5 dev " + N(),
                  "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                  "$ ip route add default via 10.0.0.1 dev " + N() + " metric 10",
              }));
    EXPECT_EQ(Describe(state), "valid 0.0.0.7 10.0.0.5 10.0.0.1");
}

TEST_F(CheckForNewDhcpAddressTest, LongerAddressSpillsIntoTheMask) {
    // "192.168.100.2001" is cut to "192.168.100.200"; its "1" becomes the mask 0.0.0.1.
    DHCP_STATE state{};
    Check(N() + " 192.168.100.2001 255.255.255.0\n", state);
    EXPECT_EQ(Describe(state), "valid 192.168.100.200 0.0.0.1 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, LongerMaskAndGatewayAreCut) {
    DHCP_STATE state{};
    Check(N() + " 10.0.0.5 255.255.255.0000\n192.168.100.2541\n", state);
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 192.168.100.254");
}

TEST_F(CheckForNewDhcpAddressTest, LongFirstLineIsReadInPiecesTheRestTakenAsTheGatewayLine) {
    // 255 characters make one piece; what follows on the same line is read as line 2.
    std::string first = N() + " 10.0.0.5 255.255.255.0";
    first.resize(255, ' ');
    DHCP_STATE state{};
    Check(first + "10.0.0.9\n10.0.0.1\n", state);
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.9");
}

TEST_F(CheckForNewDhcpAddressTest, LongFirstLineWithBlanksAfterThePieceHasAnUnparsableGatewayLine) {
    std::string first = N() + " 10.0.0.5 255.255.255.0";
    first.resize(300, ' ');
    DHCP_STATE state{};
    EXPECT_EQ(Check(first + "\n10.0.0.1\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid second line",
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                  "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                  "INFO SetAddrAndRouting: Not adding default gateway for " + N(),
              }));
}

TEST_F(CheckForNewDhcpAddressTest, FieldsBeyondTheFirstPieceAreNotSeen) {
    // 255 blanks fill the first piece, so the fields on the same line come too late.
    DHCP_STATE state{};
    EXPECT_EQ(Check(std::string(255, ' ') + N() + " 10.0.0.5 255.255.255.0\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid first line",
              }));
}

TEST_F(CheckForNewDhcpAddressTest, LineOf254CharactersIsOnePiece) {
    std::string first = N() + " 10.0.0.5 255.255.255.0";
    first.insert(0, 254 - first.size(), ' ');
    DHCP_STATE state{};
    Check(first + "\n10.0.0.1\n", state);
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(CheckForNewDhcpAddressTest, LineOf255CharactersLeavesItsNewlineAsAnEmptySecondLine) {
    std::string first = N() + " 10.0.0.5 255.255.255.0";
    first.insert(0, 255 - first.size(), ' ');
    DHCP_STATE state{};
    EXPECT_EQ(Check(first + "\n10.0.0.1\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid second line",
                  "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                  "$ ip route flush dev " + N(),
                  "$ ip addr flush dev " + N(),
                  "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                  "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                  "INFO SetAddrAndRouting: Not adding default gateway for " + N(),
              }));
}

TEST_F(CheckForNewDhcpAddressTest, LongGatewayLineIsCutToItsFirstPiece) {
    DHCP_STATE state{};
    Check(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1" + std::string(300, ' ') + "junk\n", state);
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

// --- What another local user can put at the path ---------------------------

class UntrustedLeaseTest : public CheckForNewDhcpAddressTest {
protected:
    // One call with a lease in force: nothing may be run and the lease stays.
    Lines CheckUntrusted() {
        DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
        LogCapture log;
        CommandRecorder commands;
        CheckForNewDhcpAddress(N(), 10, state);
        EXPECT_EQ(commands.Commands(), std::vector<std::string>{});
        EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
        return log.Timeline();
    }
    std::string Warning(const std::string& why) const {
        return "WARN CheckForNewDhcpAddress: Ignoring DHCP lease file " + m_file.Path() + ": " + why;
    }
    static bool IsRoot() { return geteuid() == 0; }
};

TEST_F(UntrustedLeaseTest, SymbolicLinkIsNotFollowedAndRemoved) {
    std::string target = m_file.Path() + "-target";
    WriteLease(target, N() + " 10.9.9.9 255.0.0.0\n10.9.9.1\n");
    ASSERT_EQ(symlink(target.c_str(), m_file.Path().c_str()), 0);
    EXPECT_EQ(CheckUntrusted(), Lines{Warning("a symbolic link")});
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{"dhcp_" + N() + ".txt-target"});
    EXPECT_EQ(ReadWhole(target), N() + " 10.9.9.9 255.0.0.0\n10.9.9.1\n");
}

TEST_F(UntrustedLeaseTest, DanglingLinkIsRemoved) {
    ASSERT_EQ(symlink("/nonexistent/shadow", m_file.Path().c_str()), 0);
    EXPECT_EQ(CheckUntrusted(), Lines{Warning("a symbolic link")});
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
}

TEST_F(UntrustedLeaseTest, FifoNeitherBlocksNorIsRead) {
    ASSERT_EQ(mkfifo(m_file.Path().c_str(), 0600), 0);
    EXPECT_EQ(CheckUntrusted(), Lines{Warning("a FIFO")});
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
}

TEST_F(UntrustedLeaseTest, EmptyDirectoryIsRemoved) {
    ASSERT_EQ(mkdir(m_file.Path().c_str(), 0755), 0);
    EXPECT_EQ(CheckUntrusted(), Lines{Warning("a directory")});
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
}

TEST_F(UntrustedLeaseTest, DirectoryWithContentIsMovedOutOfThePath) {
    ASSERT_EQ(mkdir(m_file.Path().c_str(), 0755), 0);
    WriteLease(m_file.Path() + "/inside", "x\n");
    EXPECT_EQ(CheckUntrusted(), Lines{Warning("a directory")});
    // It stays under the claimed name, so the path is free for the script.
    struct stat status {};
    EXPECT_NE(lstat(m_file.Path().c_str(), &status), 0);
    ASSERT_EQ(m_file.Left().size(), 1u);
    EXPECT_EQ(m_file.Left()[0].rfind("dhcp_" + N() + ".txt.taken-", 0), 0u) << m_file.Left()[0];
    // The next lease is taken up as usual.
    DHCP_STATE state{};
    m_file.Write(N() + " 10.0.0.5 255.255.255.0\n");
    {
        LogCapture log;
        CommandRecorder commands;
        CheckForNewDhcpAddress(N(), 10, state);
    }
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 0.0.0.0");
    EXPECT_EQ(m_file.Left().size(), 1u);
}

TEST_F(UntrustedLeaseTest, SocketIsRemoved) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, m_file.Path().c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(CheckUntrusted(), Lines{Warning("a socket")});
    close(fd);
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
}

TEST_F(UntrustedLeaseTest, DeviceNodeIsNotOpenedForReading) {
    if (!IsRoot()) GTEST_SKIP() << "needs root to create a device node";
    // /dev/zero's numbers: read, it would never end.
    ASSERT_EQ(mknod(m_file.Path().c_str(), S_IFCHR | 0600, makedev(1, 5)), 0);
    EXPECT_EQ(CheckUntrusted(), Lines{Warning("a device")});
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
}

TEST_F(UntrustedLeaseTest, FileOfAnotherUserIsRemovedUnread) {
    if (!IsRoot()) GTEST_SKIP() << "needs root to give a file to another user";
    m_file.Write(N() + " 10.9.9.9 255.0.0.0\n10.9.9.1\n");
    ASSERT_EQ(chown(m_file.Path().c_str(), 65534, 65534), 0);
    EXPECT_EQ(CheckUntrusted(), Lines{Warning("owned by user 65534")});
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
}

TEST_F(UntrustedLeaseTest, GroupOrOtherWritableFileIsRemovedUnread) {
    for (mode_t mode : {0620, 0602, 0666}) {
        m_file.Write(N() + " 10.9.9.9 255.0.0.0\n10.9.9.1\n", mode);
        char octal[8];
        snprintf(octal, sizeof octal, "%03o", static_cast<unsigned int>(mode));
        EXPECT_EQ(CheckUntrusted(), Lines{Warning(std::string("writable by group or others (mode ") + octal + ")")});
        EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
    }
}

TEST_F(UntrustedLeaseTest, ReadOnlyModesOfTheOwnerAreTrusted) {
    for (mode_t mode : {0400, 0644, 0444}) {
        DHCP_STATE state{};
        m_file.Write(N() + " 10.0.0.5 255.255.255.0\n", mode);
        LogCapture log;
        CommandRecorder commands;
        CheckForNewDhcpAddress(N(), 10, state);
        EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 0.0.0.0") << mode;
        EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
    }
}

TEST_F(UntrustedLeaseTest, FileWithASecondNameIsRemovedUnread) {
    std::string other = m_file.Path() + "-other";
    WriteLease(other, N() + " 10.9.9.9 255.0.0.0\n");
    ASSERT_EQ(link(other.c_str(), m_file.Path().c_str()), 0);
    EXPECT_EQ(CheckUntrusted(), Lines{Warning("a file with other links")});
    // Only the name at the lease path goes; the other name keeps its file.
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{"dhcp_" + N() + ".txt-other"});
    EXPECT_EQ(ReadWhole(other), N() + " 10.9.9.9 255.0.0.0\n");
}

// --- No lease is lost ---------------------------------------------------------

TEST_F(CheckForNewDhcpAddressTest, LeaseWrittenWhileTheLastIsTakenUpWaitsForTheNextCycle) {
    DHCP_STATE state{};
    m_file.Write(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n");
    const std::string newer = N() + " 10.0.0.6 255.255.255.0\n10.0.0.1\n";
    {
        // The script renames the next lease into place while the daemon programs
        // the first one.
        CommandRecorder commands;
        CommandRunner recorder = SetCommandRunner([&](const std::string& command, std::string* /*output*/) {
            if (command.rfind("ip addr add", 0) == 0) {
                WriteLease(m_file.Path() + ".tmp", newer);
                EXPECT_EQ(rename((m_file.Path() + ".tmp").c_str(), m_file.Path().c_str()), 0);
            }
            return COMMAND_OUTCOME{};
        });
        CheckForNewDhcpAddress(N(), 10, state);
        SetCommandRunner(recorder);
    }
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
    EXPECT_EQ(ReadWhole(m_file.Path()), newer);
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{"dhcp_" + N() + ".txt"});

    LogCapture log;
    CommandRecorder commands;
    CheckForNewDhcpAddress(N(), 10, state);
    EXPECT_EQ(Describe(state), "valid 10.0.0.6 255.255.255.0 10.0.0.1");
    Lines messages = log.Messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages[0], "INFO CheckForNewDhcpAddress: New DHCP lease for " + N());
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
}

TEST_F(CheckForNewDhcpAddressTest, FileWrittenInPlaceDuringTheReadIsNotTheOneDeleted) {
    // A writer that opens the path itself (not through a rename) while the reader
    // has claimed the last file creates a new file, which stays.
    DHCP_STATE state{};
    m_file.Write(N() + " 0.0.0.0 0.0.0.0\n");
    {
        CommandRecorder commands;
        CheckForNewDhcpAddress(N(), 10, state);
    }
    m_file.Write(N() + " 10.0.0.7 255.255.255.0\n");
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{"dhcp_" + N() + ".txt"});
    CommandRecorder commands;
    LogCapture log;
    CheckForNewDhcpAddress(N(), 10, state);
    EXPECT_EQ(Describe(state), "valid 10.0.0.7 255.255.255.0 0.0.0.0");
}

// --- File text in the log -----------------------------------------------------

TEST_F(CheckForNewDhcpAddressTest, NameFromTheFileHasItsControlCharactersEscaped) {
    DHCP_STATE state{};
    Lines timeline = Check("eth\x1b[2J\a\\ 10.0.0.5 255.255.255.0\n", state);
    ASSERT_FALSE(timeline.empty());
    EXPECT_EQ(timeline[0], "INFO CheckForNewDhcpAddress: DHCP did not provide gateway for eth\\x1b[2J\\x07\\\\");
}

}  // namespace

namespace {

// --- Kernels before 3.15 (no renameat2) and file systems without RENAME_NOREPLACE ---

// `body` in a forked child whose renameat2 calls fail with `error`; one line
// "skipped: WHY" where no filter can be put in place.
Lines WithoutRenameat2(int error, const std::function<Lines()>& body) {
    return InNewNamespaces(0, [&] {
        std::string why = RefuseSystemCalls({SYS_renameat2}, error);
        if (!why.empty()) return Lines{"skipped: " + why};
        // The kernel answers as such a kernel would (the C library turns a missing
        // renameat2 into EINVAL when flags are given).
        if (syscall(SYS_renameat2, AT_FDCWD, "/nonexistent-a", AT_FDCWD, "/nonexistent-b", RENAME_NOREPLACE) == 0 ||
            errno != error) {
            return Lines{"the filter is not in force"};
        }
        return body();
    });
}

class OldKernelLeaseTest : public UntrustedLeaseTest {};

TEST_F(OldKernelLeaseTest, LeaseIsClaimedAndTakenWithoutRenameat2) {
    for (int error : {ENOSYS, EINVAL}) {
        SCOPED_TRACE(strerror(error));
        m_file.Write(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n");
        Lines lines = WithoutRenameat2(error, [&] {
            DHCP_STATE state{};
            LogCapture log;
            CommandRecorder commands;
            CheckForNewDhcpAddress(N(), 10, state);
            Lines timeline = log.Timeline();
            timeline.push_back(Describe(state));
            return timeline;
        });
        if (lines.size() == 1 && lines[0].rfind("skipped: ", 0) == 0) GTEST_SKIP() << lines[0];
        EXPECT_EQ(lines, (Lines{
                             "INFO CheckForNewDhcpAddress: New DHCP lease for " + N(),
                             "$ ip route flush dev " + N(),
                             "$ ip addr flush dev " + N(),
                             "INFO SetAddrAndRouting: Configuring " + N() + " for 10.0.0.5/255.255.255.0",
                             "$ ip addr add 10.0.0.5/255.255.255.0 dev " + N(),
                             "INFO SetAddrAndRouting: Adding default gateway 10.0.0.1 for " + N(),
                             "$ ip route add default via 10.0.0.1 dev " + N() + " metric 10",
                             "valid 10.0.0.5 255.255.255.0 10.0.0.1",
                         }));
        // Read once: nothing of it is left, under its name or the claimed one.
        EXPECT_EQ(m_file.Left(), std::vector<std::string>{});
    }
}

TEST_F(OldKernelLeaseTest, NoFileIsStillTheQuietCase) {
    Lines lines = WithoutRenameat2(ENOSYS, [&] {
        DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "10.0.0.1");
        LogCapture log;
        CommandRecorder commands;
        CheckForNewDhcpAddress(N(), 10, state);
        Lines timeline = log.Timeline();
        timeline.push_back(Describe(state));
        return timeline;
    });
    if (lines.size() == 1 && lines[0].rfind("skipped: ", 0) == 0) GTEST_SKIP() << lines[0];
    EXPECT_EQ(lines, Lines{"valid 10.0.0.5 255.255.255.0 10.0.0.1"});
}

TEST_F(OldKernelLeaseTest, SymbolicLinkIsStillNotFollowed) {
    std::string target = m_file.Path() + "-target";
    WriteLease(target, N() + " 10.9.9.9 255.0.0.0\n10.9.9.1\n");
    ASSERT_EQ(symlink(target.c_str(), m_file.Path().c_str()), 0);
    Lines lines = WithoutRenameat2(ENOSYS, [&] { return CheckUntrusted(); });
    if (lines.size() == 1 && lines[0].rfind("skipped: ", 0) == 0) GTEST_SKIP() << lines[0];
    EXPECT_EQ(lines, Lines{Warning("a symbolic link")});
    EXPECT_EQ(m_file.Left(), std::vector<std::string>{"dhcp_" + N() + ".txt-target"});
    EXPECT_EQ(ReadWhole(target), N() + " 10.9.9.9 255.0.0.0\n10.9.9.1\n");
}

}  // namespace
