#include "src/NetworkInstance.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "tests/support/TempDir.h"

namespace {

// What another process (a second daemon) finds when it tries the lock: its
// INSTANCE_LOCK's fields, as "held HOLDER NOTED" or "taken" or "problem: ...".
std::string TriedFromAnotherProcess(const std::string& directory) {
    int result[2];
    if (pipe(result) != 0) return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        close(result[0]);
        const INSTANCE_LOCK lock = TakeInstanceLock(directory);
        std::string text = lock.m_bHeldByOther
                               ? "held " + std::to_string(lock.m_holder) + " " + std::to_string(lock.m_notedHolder)
                           : lock.m_lock.IsOpen() ? "taken"
                                                  : "problem: " + lock.m_problem;
        const bool bWritten = write(result[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        _exit(bWritten ? 0 : 1);
    }
    close(result[1]);
    std::string text;
    char buffer[256];
    ssize_t count = 0;
    while ((count = read(result[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(count));
    close(result[0]);
    waitpid(child, nullptr, 0);
    return text;
}

std::string FileText(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(InstanceLockTest, TheFirstTakesItAndASecondIsToldWhoHoldsIt) {
    TempDir dir;
    const std::string directory = dir.Path("status");
    const INSTANCE_LOCK first = TakeInstanceLock(directory);
    ASSERT_TRUE(first.m_lock.IsOpen()) << first.m_problem;
    EXPECT_FALSE(first.m_bHeldByOther);
    EXPECT_EQ(first.m_problem, "");
    // Made as the status document's directory is, and the pid written for the operator.
    struct stat status {};
    ASSERT_EQ(stat(directory.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
    // The kernel names the holder; the file, which the second one reads, too.
    const std::string self = std::to_string(getpid());
    EXPECT_EQ(TriedFromAnotherProcess(directory), "held " + self + " " + self);
    // Read last: a record lock goes when its holder closes any descriptor of the
    // file, and the daemon never opens it twice.
    EXPECT_EQ(FileText(directory + "/lock"), self + "\n");
}

TEST(InstanceLockTest, ALockWhoseHolderIsGoneNeverStopsAStart) {
    TempDir dir;
    const std::string directory = dir.Path("status");
    {
        const INSTANCE_LOCK first = TakeInstanceLock(directory);
        ASSERT_TRUE(first.m_lock.IsOpen()) << first.m_problem;
    }
    // The file stays, with the old pid in it: no one holds it any more.
    EXPECT_EQ(FileText(directory + "/lock"), std::to_string(getpid()) + "\n");
    EXPECT_EQ(TriedFromAnotherProcess(directory), "taken");
    // A holder that died outright (no close of its own) lets the next one in too.
    const pid_t holder = fork();
    if (holder == 0) {
        const INSTANCE_LOCK lock = TakeInstanceLock(directory);
        _exit(lock.m_lock.IsOpen() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(FileText(directory + "/lock"), std::to_string(holder) + "\n");
    const INSTANCE_LOCK next = TakeInstanceLock(directory);
    EXPECT_TRUE(next.m_lock.IsOpen()) << next.m_problem;
    EXPECT_FALSE(next.m_bHeldByOther);
}

TEST(InstanceLockTest, ALinkOrAnotherUsersPlaceIsAProblemNotAHolder) {
    TempDir dir;
    // A symbolic link where the lock should be is not followed.
    const std::string linked = dir.Path("linked");
    ASSERT_EQ(mkdir(linked.c_str(), 0755), 0);
    ASSERT_EQ(symlink(dir.Path("elsewhere").c_str(), (linked + "/lock").c_str()), 0);
    const INSTANCE_LOCK viaLink = TakeInstanceLock(linked);
    EXPECT_FALSE(viaLink.m_lock.IsOpen());
    EXPECT_FALSE(viaLink.m_bHeldByOther);
    EXPECT_EQ(viaLink.m_problem, linked + "/lock: Too many levels of symbolic links");
    EXPECT_NE(access(dir.Path("elsewhere").c_str(), F_OK), 0);
    // A directory others can write is refused, as for the status document.
    const std::string open = dir.Path("open");
    ASSERT_EQ(mkdir(open.c_str(), 0755), 0);
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
    const INSTANCE_LOCK inOpen = TakeInstanceLock(open);
    EXPECT_FALSE(inOpen.m_lock.IsOpen());
    EXPECT_EQ(inOpen.m_problem, open + " is writable by others");
}

TEST(InstanceLockTest, TheLineNamesTheRunningDaemon) {
    INSTANCE_LOCK seen;
    seen.m_bHeldByOther = true;
    seen.m_holder = 1234;
    seen.m_notedHolder = 1234;
    EXPECT_EQ(DescribeOtherInstance(seen), "Another tessel-networkd is running (pid 1234); not starting");
    seen.m_holder = 0;
    seen.m_notedHolder = 7;
    EXPECT_EQ(DescribeOtherInstance(seen),
              "Another tessel-networkd is running (pid 7 in another pid namespace); not starting");
    seen.m_notedHolder = 0;
    EXPECT_EQ(DescribeOtherInstance(seen),
              "Another tessel-networkd is running (its pid is not visible here); not starting");
}

}  // namespace
