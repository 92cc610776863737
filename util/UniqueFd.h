// A file descriptor with one owner, closed on every path out of the scope that
// holds it: the one type of the device's programs for every descriptor they
// open (files, directories, sockets).
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Util {

class UniqueFd {
public:
    UniqueFd() = default;
    // Takes `fd` over; a negative value (a failed open) owns nothing.
    explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
    ~UniqueFd() { Reset(); }

    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }

    // Gives the descriptor up without closing it (to a stream that closes it).
    int Release() { return std::exchange(m_fd, -1); }

    // Closes the one held, if any, and takes `fd` over. errno is kept: a reason
    // read after the owner went out of scope is still the call's that failed.
    void Reset(int fd = -1) {
        if (m_fd >= 0) {
            const int saved = errno;
            close(m_fd);
            errno = saved;
        }
        m_fd = fd;
    }

    // Closes now and tells how that went: false, with errno set, when close
    // reported an error (a write that failed late) or nothing was held.
    bool Close() {
        const int fd = Release();
        if (fd < 0) {
            errno = EBADF;
            return false;
        }
        return close(fd) == 0;
    }

private:
    int m_fd = -1;
};

}  // namespace Util
