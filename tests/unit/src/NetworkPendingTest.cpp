#include "src/NetworkPending.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/FixedClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

constexpr long long kNow = 1795000000;  // 2026-11-18

void WriteFile(const std::string& path, const std::string& text, mode_t mode = 0600) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    chmod(path.c_str(), mode);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string Record(long long deadline, long long within) {
    return "tessel-networkd pending 1\ndeadline " + std::to_string(deadline) + "\nwithin " + std::to_string(within) +
           "\n";
}

TEST(PendingRecordTest, TextAndPathsAreTheOnesTheOperatorCommandWrites) {
    EXPECT_EQ(PendingRecordPath("/etc/tessel-networkd.conf"), "/etc/tessel-networkd.conf.pending");
    EXPECT_EQ(RollbackCopyPath("/etc/tessel-networkd.conf"), "/etc/tessel-networkd.conf.rollback");
    EXPECT_EQ(PendingRecordText(PENDING_RECORD{1795000120, 120}),
              "tessel-networkd pending 1\ndeadline 1795000120\nwithin 120\n");
    PENDING_RECORD record;
    ASSERT_TRUE(ParsePendingRecord(PendingRecordText(PENDING_RECORD{1795000120, 120}), record));
    EXPECT_EQ(record, (PENDING_RECORD{1795000120, 120}));
    ASSERT_TRUE(ParsePendingRecord(Record(1, 86400), record));
    EXPECT_EQ(record, (PENDING_RECORD{1, 86400}));
}

TEST(PendingRecordTest, AnythingButExactlyTheThreeLinesIsRefusedAndLeavesTheRecordAlone) {
    const std::vector<std::string> refused = {
        "",
        "tessel-networkd pending 1\ndeadline 1795000120\nwithin 120",      // no last newline
        "tessel-networkd pending 2\ndeadline 1795000120\nwithin 120\n",    // another version
        "tessel-networkd pending 1\ndeadline 1795000120\nwithin 120\n\n",  // a line more
        "tessel-networkd pending 1\nwithin 120\ndeadline 1795000120\n",    // out of order
        "tessel-networkd pending 1\ndeadline -1795000120\nwithin 120\n",   // a sign
        "tessel-networkd pending 1\ndeadline +1795000120\nwithin 120\n",
        "tessel-networkd pending 1\ndeadline 01795000120\nwithin 120\n",  // a leading zero
        "tessel-networkd pending 1\ndeadline 0\nwithin 120\n",            // the epoch
        "tessel-networkd pending 1\ndeadline 1795000120 \nwithin 120\n",  // a blank after it
        "tessel-networkd pending 1\ndeadline  1795000120\nwithin 120\n",
        "tessel-networkd pending 1\ndeadline 1795000120\nwithin 0\n",             // no window
        "tessel-networkd pending 1\ndeadline 1795000120\nwithin 86401\n",         // more than a day
        "tessel-networkd pending 1\ndeadline 9999999999999999999\nwithin 120\n",  // too large
        "tessel-networkd pending 1\r\ndeadline 1795000120\r\nwithin 120\r\n",
        std::string("tessel-networkd pending 1\ndeadline 17950\0"
                    "00120\nwithin 120\n",
                    54),
        "tessel-networkd pending 1\ndeadline 0x6afd\nwithin 120\n",
    };
    for (const std::string& text : refused) {
        PENDING_RECORD record{7, 8};
        EXPECT_FALSE(ParsePendingRecord(text, record)) << text;
        EXPECT_EQ(record, (PENDING_RECORD{7, 8})) << text;
    }
}

TEST(PendingRecordTest, RestoreIsDueAtTheDeadlineAndWhenTheClockWentBack) {
    const PENDING_RECORD record{kNow + 60, 60};
    EXPECT_FALSE(RestoreDue(record, kNow));
    EXPECT_FALSE(RestoreDue(record, kNow + 59));
    EXPECT_TRUE(RestoreDue(record, kNow + 60));
    EXPECT_TRUE(RestoreDue(record, kNow + 100000));
    // A device without a real-time clock starts in 1970: the deadline is decades away.
    EXPECT_TRUE(RestoreDue(record, 10));
    // The deadline is rounded up to a whole second: a second more is allowed for it.
    EXPECT_FALSE(RestoreDue(record, kNow - 1));
    EXPECT_TRUE(RestoreDue(record, kNow - 2));
}

TEST(PendingRecordTest, OnlyARegularFileOfRootsThatOthersCannotWriteIsRead) {
    ASSERT_EQ(geteuid(), 0u) << "the record's owner is checked against root";
    const TempDir directory;
    const std::string path = directory.Path("c.pending");
    PENDING_RECORD record;
    std::string problem;
    EXPECT_EQ(ReadPendingRecord(path, record, problem), PENDING_LOOK::kNone);
    EXPECT_EQ(problem, "");

    WriteFile(path, Record(kNow + 60, 60), 0644);
    EXPECT_EQ(ReadPendingRecord(path, record, problem), PENDING_LOOK::kPending);
    EXPECT_EQ(record, (PENDING_RECORD{kNow + 60, 60}));

    chmod(path.c_str(), 0664);
    EXPECT_EQ(ReadPendingRecord(path, record, problem), PENDING_LOOK::kRefused);
    EXPECT_EQ(problem, "writable by others than root");
    chmod(path.c_str(), 0602);
    EXPECT_EQ(ReadPendingRecord(path, record, problem), PENDING_LOOK::kRefused);
    EXPECT_EQ(problem, "writable by others than root");

    chmod(path.c_str(), 0600);
    ASSERT_EQ(chown(path.c_str(), 1000, 0), 0);
    EXPECT_EQ(ReadPendingRecord(path, record, problem), PENDING_LOOK::kRefused);
    EXPECT_EQ(problem, "owned by uid 1000, not root");
    ASSERT_EQ(chown(path.c_str(), 0, 0), 0);

    const std::string link = directory.Path("link.pending");
    ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
    EXPECT_EQ(ReadPendingRecord(link, record, problem), PENDING_LOOK::kRefused);
    EXPECT_EQ(problem, "a symbolic link");

    const std::string fifo = directory.Path("fifo.pending");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(ReadPendingRecord(fifo, record, problem), PENDING_LOOK::kRefused);
    EXPECT_EQ(problem, "not a regular file");

    WriteFile(path, Record(kNow + 60, 60) + std::string(300, 'x'));
    EXPECT_EQ(ReadPendingRecord(path, record, problem), PENDING_LOOK::kRefused);
    EXPECT_EQ(problem, "not a pending configuration record");
}

class SupervisePendingTest : public ::testing::Test {
protected:
    TempDir m_directory;
    std::string m_config = m_directory.Path("tessel-networkd.conf");
    std::string m_record = PendingRecordPath(m_config);
    std::string m_rollback = RollbackCopyPath(m_config);
    LogCapture m_log;

    void Pending(long long deadline, long long within) {
        WriteFile(m_config, "new\n", 0644);
        WriteFile(m_rollback, "previous\n", 0644);
        WriteFile(m_record, Record(deadline, within), 0644);
    }
};

TEST_F(SupervisePendingTest, NoRecordIsNoWorkAndNoLookUntilOneIsDue) {
    WriteFile(m_config, "mine\n", 0644);
    PENDING_STATE state;
    SupervisePendingConfig(m_config, state);
    EXPECT_FALSE(state.m_bLookDue);
    EXPECT_FALSE(state.m_bPending);
    // Written without a change of the directory being noted: not looked at.
    Pending(kNow - 1, 60);
    const FixedClock clock(kNow, 0);
    SupervisePendingConfig(m_config, state);
    EXPECT_EQ(ReadFile(m_config), "new\n");
    EXPECT_TRUE(Exists(m_record));
    EXPECT_EQ(m_log.Messages(), std::vector<std::string>{});
}

TEST_F(SupervisePendingTest, ARecordWhoseDeadlinePassedBeforeTheStartIsRestoredAtOnce) {
    Pending(kNow - 3600, 60);
    const FixedClock clock(kNow, 0);
    PENDING_STATE state;
    SupervisePendingConfig(m_config, state);
    EXPECT_EQ(ReadFile(m_config), "previous\n");
    EXPECT_FALSE(Exists(m_record));
    EXPECT_FALSE(Exists(m_rollback));
    EXPECT_FALSE(state.m_bPending);
    EXPECT_EQ(m_log.Messages(),
              std::vector<std::string>{
                  "WARN SupervisePendingConfig: Configuration not confirmed within 60 s; restored the previous one"});
}

TEST_F(SupervisePendingTest, APendingRecordIsLookedAtEachPassAndRestoredAtItsDeadline) {
    Pending(kNow + 2, 2);
    PENDING_STATE state;
    {
        const FixedClock clock(kNow, 0);
        SupervisePendingConfig(m_config, state);
        SupervisePendingConfig(m_config, state);
    }
    EXPECT_TRUE(state.m_bPending);
    EXPECT_EQ(ReadFile(m_config), "new\n");
    {
        const FixedClock clock(kNow + 1, 999999999);
        SupervisePendingConfig(m_config, state);
    }
    EXPECT_EQ(ReadFile(m_config), "new\n");
    {
        const FixedClock clock(kNow + 2, 0);
        SupervisePendingConfig(m_config, state);
    }
    EXPECT_EQ(ReadFile(m_config), "previous\n");
    EXPECT_FALSE(Exists(m_record));
    EXPECT_FALSE(state.m_bPending);
    const std::vector<std::string> messages = m_log.Messages();
    ASSERT_EQ(messages.size(), 2u);
    // Once, not once a pass.
    EXPECT_EQ(messages[0].rfind("NOTICE SupervisePendingConfig: Configuration awaits confirmation until 2026-11-", 0),
              0u)
        << messages[0];
    EXPECT_EQ(messages[1],
              "WARN SupervisePendingConfig: Configuration not confirmed within 2 s; restored the previous one");
}

TEST_F(SupervisePendingTest, AConfirmationBeforeTheDeadlineEndsTheWatch) {
    Pending(kNow + 60, 60);
    const FixedClock clock(kNow, 0);
    PENDING_STATE state;
    SupervisePendingConfig(m_config, state);
    ASSERT_TRUE(state.m_bPending);
    unlink(m_record.c_str());
    unlink(m_rollback.c_str());
    SupervisePendingConfig(m_config, state);
    EXPECT_FALSE(state.m_bPending);
    EXPECT_EQ(ReadFile(m_config), "new\n");
}

TEST_F(SupervisePendingTest, AHostileRecordIsIgnoredWithAWarn) {
    Pending(kNow - 1, 60);
    chmod(m_record.c_str(), 0666);
    const FixedClock clock(kNow, 0);
    PENDING_STATE state;
    SupervisePendingConfig(m_config, state);
    EXPECT_EQ(ReadFile(m_config), "new\n");
    EXPECT_TRUE(Exists(m_record));
    EXPECT_EQ(m_log.Messages(), std::vector<std::string>{"WARN SupervisePendingConfig: Ignoring pending configuration "
                                                         "record " +
                                                         m_record + ": writable by others than root"});
}

TEST_F(SupervisePendingTest, AHostileRollbackCopyIsNotRestoredAndTheRecordGoes) {
    Pending(kNow - 1, 60);
    chmod(m_rollback.c_str(), 0666);
    const FixedClock clock(kNow, 0);
    PENDING_STATE state;
    SupervisePendingConfig(m_config, state);
    EXPECT_EQ(ReadFile(m_config), "new\n");
    EXPECT_FALSE(Exists(m_record));
    EXPECT_EQ(m_log.Messages(),
              std::vector<std::string>{"ERROR SupervisePendingConfig: Configuration not confirmed within 60 s, but the "
                                       "previous one cannot be restored from " +
                                       m_rollback + ": writable by others than root"});
}

}  // namespace
