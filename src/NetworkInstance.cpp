// The instance lock: a record lock on a file in the status directory. The
// kernel drops it with its holder, and says who holds it.
#include "src/NetworkInstance.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "src/NetworkStatusFile.h"
#include "util/TextScan.h"

namespace {

flock WholeFile(short type) {
    flock whole{};
    whole.l_type = type;
    whole.l_whence = SEEK_SET;
    return whole;
}

// The pid the holder wrote into the file (as its own pid namespace numbers it);
// 0 when there is none to read.
pid_t PidInFile(int fd) {
    char text[24] = {};
    const ssize_t count = pread(fd, text, sizeof text - 1, 0);
    if (count <= 0) return 0;
    const char* end = nullptr;
    const long long pid = Util::ScanDecimal(text, &end, LONG_MIN, LONG_MAX);
    return end != text && (*end == '\n' || *end == '\0') && pid > 0 ? static_cast<pid_t>(pid) : 0;
}

}  // namespace

INSTANCE_LOCK TakeInstanceLock(const std::string& directory) {
    INSTANCE_LOCK result;
    const Util::UniqueFd dir = OpenStatusDirectory(directory, result.m_problem);
    if (!dir.IsOpen()) return result;
    Util::UniqueFd lock(openat(dir.Get(), kInstanceLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!lock.IsOpen()) {
        result.m_problem = directory + "/" + kInstanceLockName + ": " + strerror(errno);
        return result;
    }
    flock wanted = WholeFile(F_WRLCK);
    if (fcntl(lock.Get(), F_SETLK, &wanted) != 0) {
        if (errno != EAGAIN && errno != EACCES) {
            result.m_problem = directory + "/" + kInstanceLockName + ": " + strerror(errno);
            return result;
        }
        result.m_bHeldByOther = true;
        flock held = WholeFile(F_WRLCK);
        if (fcntl(lock.Get(), F_GETLK, &held) == 0 && held.l_type != F_UNLCK && held.l_pid > 0) {
            result.m_holder = held.l_pid;
        }
        result.m_notedHolder = PidInFile(lock.Get());
        return result;
    }
    // For the operator's eye; the kernel's word on the holder is what counts.
    char text[24];
    const int length = snprintf(text, sizeof text, "%ld\n", static_cast<long>(getpid()));
    const bool bWritten =
        ftruncate(lock.Get(), 0) == 0 && pwrite(lock.Get(), text, static_cast<size_t>(length), 0) == length;
    (void)bWritten;  // the lock is held all the same
    result.m_lock = std::move(lock);
    return result;
}

std::string DescribeOtherInstance(const INSTANCE_LOCK& lock) {
    char pid[64] = "its pid is not visible here";
    if (lock.m_holder > 0) {
        snprintf(pid, sizeof pid, "pid %ld", static_cast<long>(lock.m_holder));
    } else if (lock.m_notedHolder > 0) {
        snprintf(pid, sizeof pid, "pid %ld in another pid namespace", static_cast<long>(lock.m_notedHolder));
    }
    return std::string("Another tessel-networkd is running (") + pid + "); not starting";
}
