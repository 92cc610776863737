#include "src/NetworkNotify.h"

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdint>

#include "util/TextScan.h"
#include "util/UniqueFd.h"

namespace {

int64_t NowUs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Sends one state text; the socket is opened and closed here, as the messages
// are rare. A path starting with '@' names an abstract socket.
void Send(const char* text) {
    const char* path = getenv("NOTIFY_SOCKET");
    if (path == nullptr || (path[0] != '/' && path[0] != '@')) return;
    size_t length = strlen(path);
    sockaddr_un address{};
    if (length >= sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, length);
    if (path[0] == '@') address.sun_path[0] = '\0';
    const Util::UniqueFd socketFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socketFd.IsOpen()) return;
    const auto addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    while (sendto(socketFd.Get(), text, strlen(text), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                  addressLength) < 0 &&
           errno == EINTR) {
    }
}

// Half the watchdog period in microseconds, 0 when there is no watchdog for
// this process. Read once: the manager sets it before the start.
int64_t WatchdogHalfPeriodUs() {
    static const int64_t half = [] {
        const char* usec = getenv("WATCHDOG_USEC");
        if (usec == nullptr) return int64_t{0};
        const char* pid = getenv("WATCHDOG_PID");
        if (pid != nullptr && Util::ScanDecimal(pid, nullptr, LONG_MIN, LONG_MAX) != getpid()) return int64_t{0};
        const long long period = Util::ScanDecimal(usec, nullptr, LLONG_MIN, LLONG_MAX);
        return period > 0 ? static_cast<int64_t>(period / 2) : int64_t{0};
    }();
    return half;
}

// When the watchdog was last fed (or readiness sent); 0 before readiness, when
// the manager does not watch yet.
int64_t g_nLastWatchdogUs = 0;

}  // namespace

void NotifyReady() {
    Send("READY=1");
    g_nLastWatchdogUs = NowUs();
}

void NotifyWatchdog() {
    const int64_t half = WatchdogHalfPeriodUs();
    if (half == 0 || g_nLastWatchdogUs == 0) return;
    const int64_t now = NowUs();
    if (now - g_nLastWatchdogUs < half) return;
    g_nLastWatchdogUs = now;
    Send("WATCHDOG=1");
}

void NotifyStopping() { Send("STOPPING=1"); }
