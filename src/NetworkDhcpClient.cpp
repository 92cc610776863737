// Stopping the DHCP clients of one interface. Nobody records which clients were
// started, so they are found again in the process table each time.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "logging/Logging.h"
#include "src/NetworkClock.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkShell.h"
#include "src/NetworkStop.h"
#include "util/Format.h"
#include "util/TextScan.h"
#include "util/UniqueDir.h"
#include "util/UniqueFd.h"

namespace {

// One read of a process's command line sees at most this much of it.
constexpr size_t kCmdlineBytes = 256;

// The arguments of a udhcpc process from its NUL-separated command line; empty for
// any other program. Bytes after the last NUL (a line cut short by the read) are
// not an argument, so an interface name there is never seen.
std::vector<std::string> UdhcpcArguments(const char* bytes, size_t count) {
    // A full path or a longer name is a different program: only the bare name
    // counts. Nearly every process is another program, and is told apart here
    // without building anything.
    static constexpr char kProgram[] = "udhcpc";  // with its NUL
    if (count < sizeof kProgram || memcmp(bytes, kProgram, sizeof kProgram) != 0) return {};
    std::vector<std::string> arguments;
    std::string current;
    for (size_t i = 0; i < count; ++i) {
        if (bytes[i] != '\0') {
            current.push_back(bytes[i]);
            continue;
        }
        arguments.push_back(current);
        current.clear();
    }
    return arguments;
}

// The udhcpc arguments of the process whose command line is at `path` (relative
// to the directory `directory`); empty when it is not udhcpc, has gone
// meanwhile or has no command line (kernel threads, zombies). A scan does this
// for every process, so no stream and no allocation: one read into the stack,
// of which the kernel fills as much as the command line has, up to 256 bytes.
std::vector<std::string> ReadUdhcpcArguments(int directory, const char* path) {
    const Util::UniqueFd fd(openat(directory, path, O_RDONLY | O_CLOEXEC));
    if (!fd.IsOpen()) return {};
    char bytes[kCmdlineBytes];
    ssize_t count = 0;
    do {
        count = read(fd.Get(), bytes, sizeof bytes);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) return {};
    return UdhcpcArguments(bytes, static_cast<size_t>(count));
}

// As much of /proc/PID/NAME as fits in `text` (`size` bytes, the last for the
// NUL that ends it), read to its end as fread would; false when it cannot be
// opened (the process is gone).
bool ReadProcessFile(pid_t pid, const char* name, char* text, size_t size) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%ld/%s", static_cast<long>(pid), name);
    const Util::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) return false;
    size_t count = 0;
    while (count < size - 1) {
        const ssize_t got = read(file.Get(), text + count, size - 1 - count);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        count += static_cast<size_t>(got);
    }
    text[count] = '\0';
    return true;
}

// Two numbers as sscanf's " %ld %ld" reads them; false unless both are there.
bool ScanTwoLongs(const char* text, long long (&values)[2]) {
    for (long long& value : values) {
        const char* end = nullptr;
        value = Util::ScanDecimal(text, &end, LONG_MIN, LONG_MAX);
        if (end == text) return false;
        text = end;
    }
    return true;
}

// The parent and the process group of a process from its stat line ("pid (comm)
// state ppid pgrp ..."); false when it cannot be read. The name may hold
// anything, so the fields are counted from its last ')'.
bool ReadParentAndGroup(pid_t pid, pid_t& parent, pid_t& group) {
    char line[512];
    if (!ReadProcessFile(pid, "stat", line, sizeof line)) return false;
    const char* end = strrchr(line, ')');
    if (end == nullptr) return false;
    // The state (one character), then the two numbers.
    const char* p = end + 1;
    p = Util::SkipSpace(p);
    if (*p == '\0') return false;
    long long fields[2] = {};
    if (!ScanTwoLongs(p + 1, fields)) return false;
    parent = static_cast<pid_t>(fields[0]);
    group = static_cast<pid_t>(fields[1]);
    return true;
}

pid_t ParentOf(pid_t pid) {
    pid_t parent = 0;
    pid_t group = 0;
    return ReadParentAndGroup(pid, parent, group) ? parent : 0;
}

// Whether the arguments of a udhcpc process name the interface; the name may
// stand anywhere on the command line, but only as a whole argument: a client of
// veth1 is not one of veth10.
bool Serves(const std::vector<std::string>& arguments, const std::string& interfaceName) {
    for (const std::string& argument : arguments) {
        if (argument == interfaceName) return true;
    }
    return false;
}

// Whether the process runs as root: the real and effective user of its status's
// "Uid:" line both 0. Any user can start a program under the client's name
// (exec -a udhcpc ...), and no other user's process is the client the daemon
// started; /proc/PID's owner is no proof, as a process can make it root's.
bool RunsAsRoot(pid_t pid) {
    // The Uid line comes within the first few hundred bytes, after the name
    // (at most 64 escaped characters) and seven short lines.
    char text[1024];
    if (!ReadProcessFile(pid, "status", text, sizeof text)) return false;
    const char* line = strstr(text, "\nUid:");
    long long ids[2] = {-1, -1};
    return line != nullptr && ScanTwoLongs(line + strlen("\nUid:"), ids) && ids[0] == 0 && ids[1] == 0;
}

DhcpClientLister& ActiveLister() {
    static DhcpClientLister lister;
    return lister;
}

// Calls `found` with the pid of each udhcpc process serving the interface; false
// when /proc cannot be read.
template <typename Found>
bool ForEachClient(const std::string& interfaceName, Found found) {
    if (const DhcpClientLister& lister = ActiveLister()) {
        for (pid_t pid : lister(interfaceName)) found(pid);
        return true;
    }
    const Util::UniqueDir proc(opendir("/proc"));
    if (!proc) return false;
    char path[sizeof(dirent::d_name) + sizeof "/cmdline"];
    while (const dirent* entry = readdir(proc.get())) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        // Relative to /proc, already open: no walk of the path's first part.
        snprintf(path, sizeof path, "%s/cmdline", entry->d_name);
        if (Serves(ReadUdhcpcArguments(dirfd(proc.get()), path), interfaceName)) {
            found(static_cast<pid_t>(Util::ScanDecimal(entry->d_name, nullptr, LONG_MIN, LONG_MAX)));
        }
    }
    return true;
}

// Whether `pid` is still a udhcpc process serving the interface, whoever runs
// it: a stopped client is waited for as it was found, by its command line.
bool IsUdhcpcOf(pid_t pid, const std::string& interfaceName) {
    if (pid <= 0) return false;
    if (const DhcpClientLister& lister = ActiveLister()) {
        const std::vector<pid_t> clients = lister(interfaceName);
        return std::find(clients.begin(), clients.end(), pid) != clients.end();
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/%ld/cmdline", static_cast<long>(pid));
    return Serves(ReadUdhcpcArguments(AT_FDCWD, path), interfaceName);
}

// How long clients told to stop get to release their leases (a release packet
// and the script's "deconfig"), and how long a killed one gets to be gone.
constexpr unsigned int kClientReleaseWaitMs = 3000;
constexpr unsigned int kClientKillWaitMs = 1000;

// Waits until none of `pids` is a client of the interface any more (ended, a
// zombie, or the pid taken by another program), `waitMs` at most, and less when
// a stop's grace runs out. Returns those still there. Real time, not a pause of
// the cycle: nothing waits when no client was running.
std::vector<pid_t> WaitForClientsToGo(std::vector<pid_t> pids, const std::string& interfaceName, unsigned int waitMs) {
    const int64_t endMs = SteadyMs() + waitMs;
    for (;;) {
        pids.erase(std::remove_if(pids.begin(), pids.end(),
                                  [&interfaceName](pid_t pid) { return !IsUdhcpcOf(pid, interfaceName); }),
                   pids.end());
        if (pids.empty() || SteadyMs() >= endMs || StopGraceOver()) return pids;
        SleepLettingSignalsIn(10);
    }
}

}  // namespace

DhcpClientLister SetDhcpClientLister(DhcpClientLister lister) {
    return std::exchange(ActiveLister(), std::move(lister));
}

void StopDhcp(const std::string& interfaceName, [[maybe_unused]] unsigned int metric) {
    std::vector<pid_t> clients;
    if (!ForEachClient(interfaceName, [&clients](pid_t pid) { clients.push_back(pid); })) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Unable to open /proc to stop udhcpc");
    }
    for (pid_t pid : clients) {
        LOG_ENTRY(
            LOGGING_SEVERITY_INFO, false,
            "Killing udhcpc pid " + Util::Format("%ld", static_cast<long>(pid)) + " for interface " + interfaceName);
        // A stand-in's pid is no process of this system.
        if (!ActiveLister()) kill(pid, SIGTERM);
    }
    // A stopped client releases its lease and then reports "no lease" through its
    // script; done after the next client's lease, that would take the address
    // away. So the old ones go first, and one that does not is killed outright,
    // with the script it may be running.
    clients = WaitForClientsToGo(clients, interfaceName, kClientReleaseWaitMs);
    // A daemon on its way out starts no new client; the next start stops these.
    if (!clients.empty() && StopRequested()) return;
    for (pid_t pid : clients) {
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
                  "udhcpc pid " + Util::Format("%ld", static_cast<long>(pid)) + " for interface " + interfaceName +
                      Util::Format(" did not stop within %u s, killing it", kClientReleaseWaitMs / 1000));
        pid_t parent = 0;
        pid_t group = 0;
        // A daemonised client leads a process group of its own, its script in it.
        const bool leadsGroup = ReadParentAndGroup(pid, parent, group) && group == pid;
        if (!ActiveLister()) kill(leadsGroup ? -pid : pid, SIGKILL);
    }
    for (pid_t pid : WaitForClientsToGo(clients, interfaceName, kClientKillWaitMs)) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                  "udhcpc pid " + Util::Format("%ld", static_cast<long>(pid)) + " for interface " + interfaceName +
                      " is still there after SIGKILL");
    }
    // A lease the old client left behind must never be taken up by the next check.
    RunCommand("rm -f " + DhcpLeasePath(interfaceName) + " > /dev/null 2>&1");
}

pid_t FindDhcpClient(const std::string& interfaceName) {
    std::vector<pid_t> clients;
    ForEachClient(interfaceName, [&clients](pid_t pid) {
        if (ActiveLister() || RunsAsRoot(pid)) clients.push_back(pid);
    });
    // A client's own child (forked to run its script, and not yet the script)
    // carries the client's command line for a moment: the one whose parent is
    // not among them is the client.
    for (pid_t pid : clients) {
        if (std::find(clients.begin(), clients.end(), ParentOf(pid)) == clients.end()) return pid;
    }
    return clients.empty() ? 0 : clients.front();
}

bool IsDhcpClientOf(pid_t pid, const std::string& interfaceName) {
    return IsUdhcpcOf(pid, interfaceName) && (ActiveLister() || RunsAsRoot(pid));
}
