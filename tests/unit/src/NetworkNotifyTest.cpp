// The service notification on its own: the datagrams a listener at
// $NOTIFY_SOCKET receives. The fault suite (tests/system/test_faults.py) runs
// the daemon against a listener as a service manager would.
#include "src/NetworkNotify.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <string>

#include "tests/support/TempDir.h"
#include "util/UniqueDir.h"
#include "util/UniqueFd.h"

namespace {

// A datagram socket bound where $NOTIFY_SOCKET names it while in scope: a path,
// or an abstract name when it starts with '@'.
class Listener {
public:
    explicit Listener(const std::string& name) : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, name.c_str(), name.size());
        if (name[0] == '@') address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), length), 0) << name;
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }
    ~Listener() { unsetenv("NOTIFY_SOCKET"); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // The next datagram already sent (a datagram to a local socket is queued
    // by the time the send returns), or nothing.
    std::optional<std::string> Take() {
        char text[64];
        const ssize_t count = recv(m_socket.Get(), text, sizeof text, MSG_DONTWAIT);
        if (count < 0) return std::nullopt;
        return std::string(text, static_cast<size_t>(count));
    }

private:
    Util::UniqueFd m_socket;
};

// How many descriptors the process has open.
int OpenDescriptors() {
    int count = 0;
    const Util::UniqueDir fds(opendir("/proc/self/fd"));
    if (!fds) return -1;
    while (const dirent* entry = readdir(fds.get())) count += entry->d_name[0] != '.' ? 1 : 0;
    return count;
}

TEST(NotifyTest, ReadinessAndStoppingGoAsDatagramsToThePathInNotifySocket) {
    TempDir dir;
    Listener listener(dir.Path("notify"));
    NotifyReady();
    EXPECT_EQ(listener.Take(), "READY=1");
    NotifyStopping();
    EXPECT_EQ(listener.Take(), "STOPPING=1");
    EXPECT_EQ(listener.Take(), std::nullopt);
}

TEST(NotifyTest, AnAtSignNamesAnAbstractSocket) {
    Listener listener("@tessel-notify-test-" + std::to_string(getpid()));
    NotifyStopping();
    EXPECT_EQ(listener.Take(), "STOPPING=1");
}

TEST(NotifyTest, WithoutAUsableNotifySocketNothingIsSentAndNothingStaysOpen) {
    TempDir dir;
    const int before = OpenDescriptors();
    unsetenv("NOTIFY_SOCKET");
    NotifyReady();
    NotifyStopping();
    // Neither a path nor an abstract name; a path too long for the address.
    for (const std::string& name : {std::string("relative/notify"), "/" + std::string(200, 'n')}) {
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        NotifyReady();
        NotifyStopping();
    }
    unsetenv("NOTIFY_SOCKET");
    // Nowhere to send to: sent, the datagram is dropped; the socket is closed all the same.
    setenv("NOTIFY_SOCKET", dir.Path("nobody-listens").c_str(), 1);
    NotifyStopping();
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(NotifyTest, TheWatchdogIsFedAtMostEveryHalfPeriodOnceReady) {
    // Read at the first feed, once for the process: half of it is a second.
    setenv("WATCHDOG_USEC", "2000000", 1);
    unsetenv("WATCHDOG_PID");
    TempDir dir;
    Listener listener(dir.Path("notify"));
    NotifyReady();
    ASSERT_EQ(listener.Take(), "READY=1");
    // Readiness counts as a feed: nothing within the second after it.
    NotifyWatchdog();
    EXPECT_EQ(listener.Take(), std::nullopt);
    const timespec beyondHalf = {1, 100L * 1000 * 1000};
    nanosleep(&beyondHalf, nullptr);
    NotifyWatchdog();
    EXPECT_EQ(listener.Take(), "WATCHDOG=1");
    NotifyWatchdog();
    EXPECT_EQ(listener.Take(), std::nullopt);
    unsetenv("WATCHDOG_USEC");
}

}  // namespace
