#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "src/Network.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetworkRecords.h"

namespace {

using Lines = std::vector<std::string>;

// An interface name no other test run uses, so the lease files never collide and
// nothing of the machine's is read or removed.
std::string UniqueName() {
    static int counter = 0;
    return "tl" + std::to_string(getpid()) + "x" + std::to_string(++counter);
}

// The lease file of an interface of the test's own. The code's removal command is
// only recorded, so the file is removed here.
class LeaseFile {
public:
    LeaseFile() : m_name(UniqueName()), m_path("/tmp/dhcp_" + m_name + ".txt") {}
    ~LeaseFile() { std::remove(m_path.c_str()); }
    LeaseFile(const LeaseFile&) = delete;
    LeaseFile& operator=(const LeaseFile&) = delete;

    void Write(const std::string& text) const {
        std::ofstream out(m_path, std::ios::binary | std::ios::trunc);
        out << text;
    }
    const std::string& Name() const { return m_name; }
    const std::string& Path() const { return m_path; }

private:
    std::string m_name;
    std::string m_path;
};

class CheckForNewDhcpAddressTest : public ::testing::Test {
protected:
    // One call with a file holding `text`, returning the messages and commands.
    Lines Check(const std::string& text, DHCP_STATE& state, unsigned int metric = 10) {
        m_file.Write(text);
        LogCapture log;
        CommandRecorder commands;
        CheckForNewDhcpAddress(m_file.Name(), metric, state);
        return log.Timeline();
    }

    LeaseFile m_file;
    const std::string& N() const { return m_file.Name(); }
};

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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
              }));
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

TEST_F(CheckForNewDhcpAddressTest, SameLeaseAgainOnlyRemovesTheFile) {
    DHCP_STATE state{};
    const std::string text = N() + " 10.0.0.5 255.255.255.0\n10.0.0.1\n";
    Check(text, state, 100);
    EXPECT_EQ(Check(text, state, 100), Lines{"$ rm -f /tmp/dhcp_" + N() + ".txt"});
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
              }));
    EXPECT_EQ(Describe(state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, ZeroLeaseWithNoLeaseInForceSaysSoOnce) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 0.0.0.0 0.0.0.0\n", state), (Lines{
                                                            "INFO CheckForNewDhcpAddress: No DHCP lease for " + N(),
                                                            "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
              }));
    EXPECT_EQ(Describe(state), "invalid 10.0.0.5 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, BadAddressWithNoLeaseInForceChangesNothing) {
    DHCP_STATE state{};
    EXPECT_EQ(Check(N() + " 10.0.0.300 255.255.255.0\n10.0.0.1\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Invalid DHCP IP address for " + N(),
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
              }));
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, EmptySecondLineIsUnparsableNotMissing) {
    DHCP_STATE state = LeaseState(true, "10.0.0.5", "255.255.255.0", "0.0.0.0");
    EXPECT_EQ(Check(N() + " 10.0.0.5 255.255.255.0\n\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid second line",
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
              }));
}

TEST_F(CheckForNewDhcpAddressTest, EmptyFileIsUnreadable) {
    DHCP_STATE state{};
    EXPECT_EQ(Check("", state), (Lines{
                                    "ERROR CheckForNewDhcpAddress: Unable to read DHCP lease file for " + N(),
                                    "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                                    "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
              }));
    EXPECT_EQ(Describe(state), "invalid 0.0.0.0 0.0.0.0 0.0.0.0");
}

TEST_F(CheckForNewDhcpAddressTest, BlankFirstLineIsUnparsable) {
    DHCP_STATE state{};
    EXPECT_EQ(Check("\n" + N() + " 10.0.0.5 255.255.255.0\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid first line",
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
              }));
}

TEST_F(CheckForNewDhcpAddressTest, FieldsBeyondTheFirstPieceAreNotSeen) {
    // 255 blanks fill the first piece, so the fields on the same line come too late.
    DHCP_STATE state{};
    EXPECT_EQ(Check(std::string(255, ' ') + N() + " 10.0.0.5 255.255.255.0\n", state),
              (Lines{
                  "ERROR CheckForNewDhcpAddress: Unable to parse DHCP lease file for " + N() + " invalid first line",
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
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
                  "$ rm -f /tmp/dhcp_" + N() + ".txt",
              }));
}

TEST_F(CheckForNewDhcpAddressTest, LongGatewayLineIsCutToItsFirstPiece) {
    DHCP_STATE state{};
    Check(N() + " 10.0.0.5 255.255.255.0\n10.0.0.1" + std::string(300, ' ') + "junk\n", state);
    EXPECT_EQ(Describe(state), "valid 10.0.0.5 255.255.255.0 10.0.0.1");
}

}  // namespace
