// The pending configuration's record and the daemon's restore of the previous one.
#include "src/NetworkPending.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "logging/Logging.h"
#include "util/Format.h"
#include "util/UniqueFd.h"

namespace {

constexpr const char* kRecordHeader = "tessel-networkd pending 1";
// A record is three short lines; anything longer is not one.
constexpr size_t kMaxRecordBytes = 256;

// A decimal number without sign, leading zero or anything around it; false when it
// is none or too large for the record (more than 18 digits).
bool ParseDecimal(const std::string& text, int64_t& value) {
    if (text.empty() || text.size() > 18 || (text.size() > 1 && text[0] == '0')) return false;
    int64_t result = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
        result = result * 10 + (c - '0');
    }
    value = result;
    return true;
}

// The value of a line "KEY VALUE"; false when the line is another.
bool ParseField(const std::string& line, const char* key, int64_t& value) {
    const std::string prefix = std::string(key) + " ";
    return line.compare(0, prefix.size(), prefix) == 0 && ParseDecimal(line.substr(prefix.size()), value);
}

// Opens `path` for reading when it is a regular file of root's that only root may
// write, never through a symbolic link; -1 with `problem` set otherwise, and with
// errno ENOENT (and no problem) when there is no such file.
Util::UniqueFd OpenRootFile(const std::string& path, std::string& problem) {
    Util::UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!fd.IsOpen()) {
        if (errno != ENOENT) problem = errno == ELOOP ? "a symbolic link" : strerror(errno);
        return fd;
    }
    struct stat info {};
    if (fstat(fd.Get(), &info) != 0) {
        problem = strerror(errno);
    } else if (!S_ISREG(info.st_mode)) {
        problem = "not a regular file";
    } else if (info.st_uid != 0) {
        problem = Util::Format("owned by uid %u, not root", static_cast<unsigned int>(info.st_uid));
    } else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        problem = "writable by others than root";
    } else {
        return fd;
    }
    fd.Reset();
    errno = 0;
    return fd;
}

// The directory part of a path, for its fsync after a rename.
std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

void SyncDirectory(const std::string& path) {
    const Util::UniqueFd directory(open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.IsOpen()) fsync(directory.Get());
}

int64_t NowSeconds() { return static_cast<int64_t>(Util::RealTimeNow().tv_sec); }

}  // namespace

std::string PendingRecordPath(const std::string& configPath) { return configPath + ".pending"; }

std::string RollbackCopyPath(const std::string& configPath) { return configPath + ".rollback"; }

std::string PendingRecordText(const PENDING_RECORD& record) {
    return Util::Format("%s\ndeadline %lld\nwithin %lld\n", kRecordHeader, static_cast<long long>(record.m_nDeadline),
                        static_cast<long long>(record.m_nWithinSeconds));
}

bool ParsePendingRecord(const std::string& text, PENDING_RECORD& record) {
    if (text.size() > kMaxRecordBytes || text.empty() || text.back() != '\n') return false;
    std::string lines[3];
    size_t start = 0;
    for (std::string& line : lines) {
        const size_t end = text.find('\n', start);
        if (end == std::string::npos) return false;
        line = text.substr(start, end - start);
        start = end + 1;
    }
    if (start != text.size() || lines[0] != kRecordHeader) return false;
    PENDING_RECORD parsed;
    if (!ParseField(lines[1], "deadline", parsed.m_nDeadline) || parsed.m_nDeadline <= 0) return false;
    if (!ParseField(lines[2], "within", parsed.m_nWithinSeconds) || parsed.m_nWithinSeconds < 1 ||
        parsed.m_nWithinSeconds > kMaxConfirmSeconds) {
        return false;
    }
    record = parsed;
    return true;
}

PENDING_LOOK ReadPendingRecord(const std::string& path, PENDING_RECORD& record, std::string& problem) {
    problem.clear();
    const Util::UniqueFd fd = OpenRootFile(path, problem);
    if (!fd.IsOpen()) return problem.empty() ? PENDING_LOOK::kNone : PENDING_LOOK::kRefused;
    char buffer[kMaxRecordBytes + 1];
    size_t length = 0;
    for (;;) {
        const ssize_t got = read(fd.Get(), buffer + length, sizeof(buffer) - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            problem = strerror(errno);
            return PENDING_LOOK::kRefused;
        }
        if (got == 0 || length + static_cast<size_t>(got) == sizeof(buffer)) {
            length += static_cast<size_t>(got);
            break;
        }
        length += static_cast<size_t>(got);
    }
    if (!ParsePendingRecord(std::string(buffer, length), record)) {
        problem = "not a pending configuration record";
        return PENDING_LOOK::kRefused;
    }
    return PENDING_LOOK::kPending;
}

bool RestoreDue(const PENDING_RECORD& record, int64_t nowSeconds) {
    // A second more than the window: "apply" rounds the deadline up to a whole second.
    return nowSeconds >= record.m_nDeadline || record.m_nDeadline - nowSeconds > record.m_nWithinSeconds + 1;
}

RESTORE_RESULT RestorePreviousConfig(const std::string& configPath, std::string& problem) {
    problem.clear();
    const std::string recordPath = PendingRecordPath(configPath);
    const std::string rollbackPath = RollbackCopyPath(configPath);
    const Util::UniqueFd rollback = OpenRootFile(rollbackPath, problem);
    if (!rollback.IsOpen() && problem.empty()) problem = "it is missing";
    if (problem.empty() && rename(rollbackPath.c_str(), configPath.c_str()) != 0) {
        problem = strerror(errno);
        // The record stays for a start where the directory can be written.
        if (errno == EROFS || errno == EACCES || errno == EPERM) return RESTORE_RESULT::kReadOnly;
    }
    if (!problem.empty()) {
        // Confirmed meanwhile: "confirm" removes the record before the copy.
        if (access(recordPath.c_str(), F_OK) != 0 && errno == ENOENT) return RESTORE_RESULT::kConfirmed;
        unlink(recordPath.c_str());
        SyncDirectory(configPath);
        return RESTORE_RESULT::kCannot;
    }
    unlink(recordPath.c_str());
    SyncDirectory(configPath);
    return RESTORE_RESULT::kRestored;
}

bool SupervisePendingConfig(const std::string& configPath, PENDING_STATE& state) {
    if (!state.m_bLookDue && !state.m_bPending) return false;
    state.m_bLookDue = false;
    const std::string recordPath = PendingRecordPath(configPath);
    PENDING_RECORD record;
    std::string problem;
    const PENDING_LOOK look = ReadPendingRecord(recordPath, record, problem);
    if (look != PENDING_LOOK::kPending) {
        if (look == PENDING_LOOK::kRefused) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
                      "Ignoring pending configuration record " + recordPath + ": " + problem);
        }
        state.m_bPending = false;
        return false;
    }
    if (!RestoreDue(record, NowSeconds())) {
        if (!state.m_bPending || !(state.m_record == record)) {
            const timespec deadline{static_cast<time_t>(record.m_nDeadline), 0};
            LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false,
                      "Configuration awaits confirmation until " + Util::FormatIsoTime(deadline) +
                          "; the previous one is restored then");
        }
        state.m_bPending = true;
        state.m_record = record;
        return false;
    }
    state.m_bPending = false;
    const std::string within = std::to_string(record.m_nWithinSeconds);
    const std::string rollbackPath = RollbackCopyPath(configPath);
    switch (RestorePreviousConfig(configPath, problem)) {
        case RESTORE_RESULT::kRestored:
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
                      "Configuration not confirmed within " + within + " s; restored the previous one");
            return false;
        case RESTORE_RESULT::kConfirmed:
            return false;
        case RESTORE_RESULT::kCannot:
            LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                      "Configuration not confirmed within " + within +
                          " s, but the previous one cannot be restored from " + rollbackPath + ": " + problem);
            return false;
        case RESTORE_RESULT::kReadOnly:
            LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                      "Configuration not confirmed within " + within +
                          " s, but its directory cannot be written here (" + problem +
                          "); exiting, to be restored before the next start");
            return true;
    }
    return false;
}
