#include "util/UniqueFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

bool IsOpenDescriptor(int fd) { return fcntl(fd, F_GETFD) != -1; }

int OpenNull() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

TEST(UniqueFdTest, ClosesWhatItHoldsWhenItGoesOutOfScope) {
    int raw = -1;
    {
        const Util::UniqueFd fd(OpenNull());
        raw = fd.Get();
        ASSERT_TRUE(fd.IsOpen());
        EXPECT_TRUE(IsOpenDescriptor(raw));
    }
    EXPECT_FALSE(IsOpenDescriptor(raw));
}

TEST(UniqueFdTest, AFailedOpenOwnsNothing) {
    const Util::UniqueFd fd(open("/nonexistent/tessel", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(fd.IsOpen());
    EXPECT_EQ(fd.Get(), -1);
    const Util::UniqueFd empty;
    EXPECT_FALSE(empty.IsOpen());
}

TEST(UniqueFdTest, AMoveHandsTheDescriptorOverAndClosesWhatTheTargetHeld) {
    Util::UniqueFd first(OpenNull());
    Util::UniqueFd second(OpenNull());
    const int a = first.Get();
    const int b = second.Get();
    second = std::move(first);
    EXPECT_FALSE(first.IsOpen());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move): it owns nothing now
    EXPECT_EQ(second.Get(), a);
    EXPECT_FALSE(IsOpenDescriptor(b));
    Util::UniqueFd third(std::move(second));
    EXPECT_EQ(third.Get(), a);
    EXPECT_TRUE(IsOpenDescriptor(a));
}

TEST(UniqueFdTest, ReleaseGivesUpWithoutClosing) {
    int raw = -1;
    {
        Util::UniqueFd fd(OpenNull());
        raw = fd.Release();
        EXPECT_FALSE(fd.IsOpen());
    }
    EXPECT_TRUE(IsOpenDescriptor(raw));
    close(raw);
}

TEST(UniqueFdTest, CloseReportsHowItWentAndOwnsNothingAfter) {
    Util::UniqueFd fd(OpenNull());
    const int raw = fd.Get();
    EXPECT_TRUE(fd.Close());
    EXPECT_FALSE(fd.IsOpen());
    EXPECT_FALSE(IsOpenDescriptor(raw));
    errno = 0;
    EXPECT_FALSE(fd.Close());
    EXPECT_EQ(errno, EBADF);
}

TEST(UniqueFdTest, ClosingInScopeKeepsTheErrnoOfTheCallThatFailed) {
    {
        const Util::UniqueFd fd(OpenNull());
        errno = ENOENT;
    }
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
