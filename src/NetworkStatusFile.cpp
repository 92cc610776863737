// Replacing the status document in one step: a file written beside it and
// renamed over it, in a directory that only this user can write.
#include "src/NetworkStatusFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include "src/NetworkStatusSchema.h"
#include "util/UniqueFd.h"

namespace {

const char kTemporaryName[] = ".status.json.new";
// Not ending in .prom: the textfile collector reads only what does.
const char kMetricsTemporaryName[] = ".tessel_networkd.prom.new";

std::string Reason(const std::string& what) { return what + ": " + strerror(errno); }

bool WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

// Writes the temporary file `temporary` in the directory and renames it over `name`.
bool ReplaceIn(int directoryFd, const char* temporary, const char* name, const std::string& text, std::string& error) {
    // A file left by a write that broke off is ours to remove.
    if (unlinkat(directoryFd, temporary, 0) != 0 && errno != ENOENT) {
        error = Reason(std::string("cannot remove ") + temporary);
        return false;
    }
    Util::UniqueFd file(openat(directoryFd, temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file.IsOpen()) {
        error = Reason(std::string("cannot create ") + temporary);
        return false;
    }
    bool bDone = true;
    // 0644 whatever the umask.
    if (fchmod(file.Get(), 0644) != 0) {
        error = Reason("cannot set its mode");
        bDone = false;
    } else if (!WriteAll(file.Get(), text)) {
        error = Reason("cannot write it");
        bDone = false;
    }
    if (!file.Close() && bDone) {
        error = Reason("cannot close it");
        bDone = false;
    }
    if (bDone && renameat(directoryFd, temporary, directoryFd, name) != 0) {
        error = Reason(std::string("cannot rename it to ") + name);
        bDone = false;
    }
    if (!bDone) unlinkat(directoryFd, temporary, 0);
    return bDone;
}

}  // namespace

Util::UniqueFd OpenStatusDirectory(const std::string& directory, std::string& error) {
    const bool bCreated = mkdir(directory.c_str(), 0755) == 0;
    if (!bCreated && errno != EEXIST) {
        error = Reason("cannot create " + directory);
        return {};
    }
    // O_NOFOLLOW: a symbolic link put where the directory should be is refused, not followed.
    Util::UniqueFd dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.IsOpen()) {
        // ELOOP: a symbolic link; ENOTDIR: anything else that is no directory.
        error =
            errno == ELOOP || errno == ENOTDIR ? directory + " is not a directory" : Reason("cannot open " + directory);
        return {};
    }
    struct stat status {};
    if (fstat(dir.Get(), &status) != 0) {
        error = Reason("cannot examine " + directory);
        return {};
    }
    if (status.st_uid != geteuid()) {
        error = directory + " belongs to another user";
        return {};
    }
    // 0755 whatever the umask; one made by someone else is used only when nobody else can write it.
    if (bCreated && fchmod(dir.Get(), 0755) != 0) {
        error = Reason("cannot set the mode of " + directory);
        return {};
    }
    if (!bCreated && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        error = directory + " is writable by others";
        return {};
    }
    return dir;
}

bool WriteStatusFile(const std::string& directory, const std::string& text, std::string& error) {
    const Util::UniqueFd dir = OpenStatusDirectory(directory, error);
    return dir.IsOpen() && ReplaceIn(dir.Get(), kTemporaryName, kStatusFileName, text, error);
}

Util::UniqueFd OpenMetricsDirectory(const std::string& directory, std::string& error) {
    // Never made here: a directory the operator named and that is missing is a mistake to report.
    Util::UniqueFd dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.IsOpen()) {
        error = errno == ENOENT                      ? directory + " does not exist"
                : errno == ELOOP || errno == ENOTDIR ? directory + " is not a directory"
                                                     : Reason("cannot open " + directory);
        return {};
    }
    struct stat status {};
    if (fstat(dir.Get(), &status) != 0) {
        error = Reason("cannot examine " + directory);
        return {};
    }
    // Its owner may be another user (the node exporter's); nobody else may write it.
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        error = directory + " is writable by others";
        return {};
    }
    return dir;
}

bool WriteMetricsFile(const std::string& directory, const std::string& text, std::string& error) {
    const Util::UniqueFd dir = OpenMetricsDirectory(directory, error);
    return dir.IsOpen() && ReplaceIn(dir.Get(), kMetricsTemporaryName, kMetricsFileName, text, error);
}
