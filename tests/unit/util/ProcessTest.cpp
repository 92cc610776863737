#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Files.h"
#include "tests/support/TempDir.h"
#include "util/Process.h"

namespace {

// Open descriptors of this process (the directory handle itself counts once).
int OpenDescriptorCount() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
    return count;
}

// Processes, zombies included, whose parent is this process.
std::vector<std::string> ChildProcesses() {
    std::vector<std::string> children;
    DIR* dir = opendir("/proc");
    if (dir == nullptr) return {"cannot open /proc"};
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        std::string stat = ReadFile(std::string("/proc/") + entry->d_name + "/stat");
        // "pid (comm) state ppid ...": comm may hold blanks and parentheses.
        std::string::size_type end = stat.rfind(')');
        if (end == std::string::npos) continue;
        std::istringstream fields(stat.substr(end + 1));
        std::string state;
        long parent = 0;
        fields >> state >> parent;
        if (parent == getpid()) children.push_back(stat.substr(0, end + 1) + " " + state);
    }
    closedir(dir);
    return children;
}

TEST(ReadStdOutFromSystemCallTest, FirstLineWithItsLineFeed) {
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("printf 'a\\nb\\n'"), "a\n");
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("echo one two"), "one two\n");
}

TEST(ReadStdOutFromSystemCallTest, LastLineWithoutLineFeed) {
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("printf abc"), "abc");
}

TEST(ReadStdOutFromSystemCallTest, NothingPrintedGivesEmptyString) {
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("true"), "");
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("exec 2>/dev/null; echo to-stderr >&2; exit 3"), "");
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("/nonexistent/tool 2>/dev/null"), "");
}

TEST(ReadStdOutFromSystemCallTest, LineOfExactly1023BytesKeepsItsLineFeed) {
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("printf '%1022s\\n' x"), std::string(1021, ' ') + "x\n");
}

TEST(ReadStdOutFromSystemCallTest, LongerLineIsCutAt1023Bytes) {
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("printf '%1023s\\n' x"), std::string(1022, ' ') + "x");
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("printf '%2000s\\nnext\\n' x"), std::string(1023, ' '));
}

TEST(ReadStdOutFromSystemCallTest, ZeroByteEndsTheText) {
    EXPECT_EQ(Util::ReadStdOutFromSystemCall("printf 'ab\\000cd\\n'"), "ab");
}

TEST(ReadStdOutFromSystemCallTest, CommandHasFinishedOnReturn) {
    TempDir dir;
    const std::string marker = dir.Path("done");
    const std::string command = "echo first; sleep 0.2; echo finished > " + marker;
    EXPECT_EQ(Util::ReadStdOutFromSystemCall(command.c_str()), "first\n");
    EXPECT_EQ(ReadFile(marker), "finished\n");
}

TEST(ReadStdOutFromSystemCallTest, ManyCallsLeaveNoDescriptorOrChildBehind) {
    const int descriptorsBefore = OpenDescriptorCount();
    ASSERT_EQ(ChildProcesses(), std::vector<std::string>{});
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(Util::ReadStdOutFromSystemCall(i % 2 == 0 ? "echo x" : "true"), i % 2 == 0 ? "x\n" : "") << i;
    }
    EXPECT_EQ(OpenDescriptorCount(), descriptorsBefore);
    EXPECT_EQ(ChildProcesses(), std::vector<std::string>{});
}

TEST(ReadStdOutFromSystemCallTest, CommandThatCannotStartReportsUnableToRun) {
    // Without free descriptors popen cannot make its pipe. Done in a child
    // process, whose standard output goes to a file.
    TempDir dir;
    const std::string outPath = dir.Path("stdout");
    fflush(stdout);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out < 0 || dup2(out, STDOUT_FILENO) < 0) _exit(10);
        close(out);
        rlimit limit{64, 64};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(11);
        while (dup(STDERR_FILENO) >= 0) {
        }
        std::string result = Util::ReadStdOutFromSystemCall("echo should-not-run");
        fflush(stdout);
        _exit(result == "Unable to run" ? 0 : 12);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(ReadFile(outPath), "ERROR: unable to run command as subprocess\n");
}

TEST(PrintDataBlockTest, PrintsNothing) {
    TempDir dir;
    const std::string outPath = dir.Path("stdout");
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    ASSERT_GE(saved, 0);
    const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(out, 0);
    dup2(out, STDOUT_FILENO);
    close(out);
    Util::PrintDataBlock("block", {0x00, 0x41, 0xff});
    Util::PrintDataBlock("", {});
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    EXPECT_EQ(ReadFile(outPath), "");
}

}  // namespace
