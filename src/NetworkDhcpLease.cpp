// Taking up the lease that the DHCP client's script reports through a one-shot
// file: the daemon, not the client, programs the address and route.
//
// The file lies in /tmp, where every local user may put anything under its
// name. So the file is first claimed (renamed to a name of the daemon's own, so
// a newer lease written meanwhile lands at the path and waits for the next
// cycle), then opened without following a link or blocking, and read only when
// it is a regular file that this process's user alone could have written.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

#include "logging/Logging.h"
#include "src/NetworkAddress.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkInputText.h"
#include "src/NetworkShell.h"
#include "util/Format.h"
#include "util/TextScan.h"
#include "util/UniqueFd.h"
#include "util/UniqueFile.h"

namespace {

// Logged for a file that states no lease and again for the flush that follows
// when a lease was in force, so one text serves both.
const std::string kNoLease = "No DHCP lease for ";

// Writes `address` only when the text converts, so a bad field leaves 0.0.0.0.
bool ToAddress(const char* text, in_addr& address) {
    in_addr converted{};
    if (!Util::ScanIpv4(text, converted)) return false;
    address = converted;
    return true;
}

// A name beside the lease file that no other user can guess in advance: the
// clocks' nanoseconds (read without a system call) mixed with the attempt.
std::string ClaimName(const std::string& path, unsigned int attempt) {
    timespec monotonic{};
    timespec realtime{};
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    clock_gettime(CLOCK_REALTIME, &realtime);
    uint64_t mix = static_cast<uint64_t>(monotonic.tv_nsec) * 0x9E3779B97F4A7C15ULL ^
                   static_cast<uint64_t>(realtime.tv_sec) * 0xC2B2AE3D27D4EB4FULL ^
                   static_cast<uint64_t>(realtime.tv_nsec) ^ (static_cast<uint64_t>(attempt) << 56U);
    mix ^= mix >> 29U;
    return path + ".taken-" + Util::Format("%016llx", static_cast<unsigned long long>(mix));
}

// Moves `path` to `name` in one step, never following a link at either. Kernels
// before 3.15 lack renameat2 (ENOSYS), and some file systems its
// RENAME_NOREPLACE (EINVAL): there a plain rename, once nothing is at the
// name, does the same. The name cannot be guessed in advance, so whatever
// could appear there in between is at most replaced, never followed or read;
// and a lease written to `path` meanwhile stays there either way.
int RenameToFreshName(const std::string& path, const std::string& name) {
    if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != ENOSYS && errno != EINVAL) return -1;
    struct stat existing {};
    if (lstat(name.c_str(), &existing) == 0) {
        errno = EEXIST;
        return -1;
    }
    if (errno != ENOENT) return -1;
    return rename(path.c_str(), name.c_str());
}

// Whatever was moved to the claimed name, removed on every path out of the
// reader: a lease once claimed is read at most once. A directory goes only when
// empty; one that is not stays under the claimed name, out of the script's way.
class ClaimedEntry {
public:
    ClaimedEntry() = default;
    ~ClaimedEntry() {
        if (m_path.empty()) return;
        if (unlink(m_path.c_str()) != 0 && (errno == EISDIR || errno == EPERM)) rmdir(m_path.c_str());
    }
    ClaimedEntry(const ClaimedEntry&) = delete;
    ClaimedEntry& operator=(const ClaimedEntry&) = delete;

    // Renames `path` to a fresh name of its own, never replacing anything.
    // Returns 0 when claimed, else the errno of the last attempt (ENOENT: no file).
    int Claim(const std::string& path) {
        int error = EEXIST;
        for (unsigned int attempt = 0; attempt < 4 && error == EEXIST; ++attempt) {
            std::string name = ClaimName(path, attempt);
            if (RenameToFreshName(path, name) == 0) {
                m_path = name;
                return 0;
            }
            error = errno;
        }
        return error;
    }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

const char* KindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a regular file";
}

// Opens the claimed entry as a stream when it can be trusted; otherwise returns
// nothing and says in `why` why not.
Util::UniqueFile OpenTrusted(const std::string& claimed, std::string& why) {
    Util::UniqueFd fd(open(claimed.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat status {};
    if (!fd.IsOpen()) {
        // O_NOFOLLOW ends in ELOOP on a link; a socket cannot be opened at all.
        why = errno == ELOOP ? "a symbolic link" : errno == ENXIO ? "a socket" : strerror(errno);
    } else if (fstat(fd.Get(), &status) != 0) {
        why = strerror(errno);
    } else if (!S_ISREG(status.st_mode)) {
        why = KindOf(status.st_mode);
    } else if (status.st_uid != geteuid()) {
        why = Util::Format("owned by user %u", static_cast<unsigned int>(status.st_uid));
    } else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        why = Util::Format("writable by group or others (mode %03o)", static_cast<unsigned int>(status.st_mode & 0777));
    } else if (status.st_nlink != 1) {
        // Another name of the same file, maybe one another user may not read.
        why = "a file with other links";
    }
    if (why.empty()) {
        Util::UniqueFile file(fdopen(fd.Get(), "r"));
        if (file) {
            // The stream owns the descriptor now and closes it.
            fd.Release();
            return file;
        }
        why = strerror(errno);
    }
    return nullptr;
}

}  // namespace

bool ApplyDhcpLease(const std::string& interfaceName, unsigned int metric, const DHCP_STATE& lease,
                    WORK_FAILURE* failure) {
    if (!FlushAddrAndRouting(interfaceName, failure)) return false;
    if (!lease.m_bLeaseValid) return true;
    return SetAddrAndRouting(interfaceName, metric, lease.m_ipAddress, lease.m_subnetMask, lease.m_gateway, failure);
}

std::string DhcpLeasePath(const std::string& interfaceName) { return "/tmp/dhcp_" + interfaceName + ".txt"; }

namespace {

std::string& LeaseDirectory() {
    static std::string directory;
    return directory;
}

}  // namespace

std::string SetDhcpLeaseDirectory(std::string directory) {
    return std::exchange(LeaseDirectory(), std::move(directory));
}

bool CheckForNewDhcpAddress(const std::string& interfaceName, unsigned int metric, DHCP_STATE& dhcpState,
                            WORK_FAILURE* failure) {
    const std::string path = DhcpLeasePath(interfaceName);
    // Declared first, so the claimed entry goes only after the stream is closed.
    ClaimedEntry claimed;
    int error = claimed.Claim(LeaseDirectory().empty() ? path : LeaseDirectory() + "/dhcp_" + interfaceName + ".txt");
    // No file is the usual case: the script writes one only when something changed.
    if (error == ENOENT) return true;
    std::string why;
    Util::UniqueFile file;
    if (error != 0) {
        why = std::string("cannot be claimed (") + strerror(error) + ")";
    } else {
        file = OpenTrusted(claimed.Path(), why);
    }
    if (!file) {
        // Something untrusted is removed unread, and the lease in force stays in force.
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Ignoring DHCP lease file " + path + ": " + why);
        return true;
    }

    // Line 1: "name address mask [server]"; line 2: "gateway", left out when the
    // server gave none.
    // A line longer than the buffer is read in pieces, the next piece as the next line.
    DHCP_STATE candidate{};
    char line[256];
    char name[16 + 1] = {};
    char address[15 + 1] = {};
    char mask[15 + 1] = {};
    char gateway[15 + 1] = {};
    char server[15 + 1] = {};
    // Assigned in the first line's test below, and read only after it.
    // cppcheck-suppress unreadVariable
    int nFields = 0;
    if (fgets(line, sizeof line, file.get()) == nullptr) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Unable to read DHCP lease file for " + interfaceName);
    } else if ((nFields = Util::ScanWords(line, false, {{name, 16}, {address, 15}, {mask, 15}, {server, 15}})) < 3) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                  "Unable to parse DHCP lease file for " + interfaceName + " invalid first line");
    } else if (!ToAddress(address, candidate.m_ipAddress)) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Invalid DHCP IP address for " + interfaceName);
    } else if (!ToAddress(mask, candidate.m_subnetMask)) {
        // The address stays in the candidate, so even with no lease in force the
        // candidate differs and the interface is flushed.
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Invalid DHCP subnet mask for " + interfaceName);
    } else if (candidate.m_ipAddress.s_addr == 0 && candidate.m_subnetMask.s_addr == 0) {
        // The script's way of saying the lease was lost.
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, kNoLease + interfaceName);
    } else {
        // A missing or bad gateway only means no default route, never no lease;
        // a missing or bad server only that the status cannot name it.
        candidate.m_bLeaseValid = true;
        if (nFields == 4 && !ToAddress(server, candidate.m_server)) candidate.m_server = in_addr{};
        if (fgets(line, sizeof line, file.get()) == nullptr) {
            LOG_ENTRY(LOGGING_SEVERITY_INFO, false,
                      "DHCP did not provide gateway for " + EscapeControlCharacters(name));
        } else if (Util::ScanWords(line, false, {{gateway, 15}}) != 1) {
            LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                      "Unable to parse DHCP lease file for " + interfaceName + " invalid second line");
        } else if (!ToAddress(gateway, candidate.m_gateway)) {
            LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Invalid DHCP gateway for " + interfaceName);
        }
    }

    // A renewal repeats the lease in force and changes nothing. A malformed file
    // counts as no lease, so an address in force is taken off until a good one comes.
    bool applied = true;
    if (candidate != dhcpState) {
        if (candidate.m_bLeaseValid) {
            LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "New DHCP lease for " + interfaceName);
        } else {
            LOG_ENTRY(LOGGING_SEVERITY_INFO, false, kNoLease + interfaceName);
        }
        applied = ApplyDhcpLease(interfaceName, metric, candidate, failure);
    }
    // Recorded even when it could not be put in force, for the caller to retry.
    dhcpState = candidate;

    // Every file that could be read is a message taken: the claimed entry is
    // removed on the way out, malformed or not, and a newer file stays.
    return applied;
}
