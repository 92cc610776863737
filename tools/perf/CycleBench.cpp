// tessel-bench: times the daemon's own functions in-process against the
// least work that could do the same job (the floor), block by block in turns so
// that a busy machine slows both alike. Run by tools/bench inside namespaces of
// its own with no-op stand-ins for the network tools first on PATH; it runs real
// commands and must never run in the machine's own network namespace.
//
//   tessel-bench idle|steady CONFIG CYCLES   one pass of the daemon's cycle and its status update against
//                                            opening, reading and closing CONFIG (idle) or the eth0
//                                            re-attach command (steady)
//   tessel-bench status WRITES               one write of the status document (text built, file
//                                            replaced) against writing the same bytes to a new file
//                                            and renaming it over the old one
//   tessel-bench bridge BUILDS               SetupBridge(eth0eth1) against its commands through /bin/sh -c
//   tessel-bench stopdhcp EXTRA              StopDhcp with EXTRA more processes against a bare /proc scan
//   tessel-bench paced CONFIG [COMMAND]      the idle floor (with COMMAND: the steady one) once a
//                                            second, until killed
//
// Results go to standard error, one line each: "name value floor" in microseconds.
// Standard output carries the log, as the daemon's does.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "src/NetworkBridge.h"
#include "src/NetworkClock.h"
#include "src/NetworkConfig.h"
#include "src/NetworkCycle.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkIsolation.h"
#include "src/NetworkShell.h"
#include "src/NetworkStatus.h"
#include "src/NetworkStatusFile.h"
#include "src/NetworkStatusJson.h"
#include "src/NetworkStatusSnapshot.h"
#include "util/UniqueDir.h"
#include "util/UniqueFd.h"

namespace {

// CPU time of this process and of the children it has waited for, in microseconds.
double CpuMicros() {
    double total = 0;
    for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        struct rusage usage {};
        getrusage(who, &usage);
        total += usage.ru_utime.tv_sec * 1e6 + usage.ru_utime.tv_usec;
        total += usage.ru_stime.tv_sec * 1e6 + usage.ru_stime.tv_usec;
    }
    return total;
}

// The least a cycle must do: open, read and close the configuration file.
void ReadFileOnce(const std::string& path) {
    char buffer[4096];
    const Util::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.IsOpen()) return;
    while (read(fd.Get(), buffer, sizeof buffer) > 0) {
    }
}

// The least a command costs: /bin/sh -c with it, waited for.
void ShellOnce(const std::string& command) {
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command.c_str()), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) return;
    waitpid(pid, nullptr, 0);
}

// Runs `subject` and `floor` `count` times each, in `blocks` alternating blocks,
// and reports the CPU microseconds per call of each.
template <typename Subject, typename Floor>
void Compare(const char* name, int count, int blocks, Subject subject, Floor floor) {
    double subjectTotal = 0;
    double floorTotal = 0;
    int perBlock = count / blocks > 0 ? count / blocks : 1;
    int done = 0;
    for (int block = 0; block < blocks; ++block) {
        double start = CpuMicros();
        for (int i = 0; i < perBlock; ++i) subject();
        double middle = CpuMicros();
        for (int i = 0; i < perBlock; ++i) floor();
        double end = CpuMicros();
        subjectTotal += middle - start;
        floorTotal += end - middle;
        done += perBlock;
    }
    fprintf(stderr, "%s %.3f %.3f %d\n", name, subjectTotal / done, floorTotal / done, done);
}

// A directory of the bench's own for the status document, under its private
// /tmp; removed with what is in it by RemoveStatusDirectory.
std::string MakeStatusDirectory() {
    char pattern[] = "/tmp/tessel-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return "";
    return std::string(pattern) + "/status";
}

void RemoveStatusDirectory(const std::string& directory) {
    unlink((directory + "/status.json").c_str());
    unlink((directory + "/.status.json.new").c_str());
    unlink((directory + "/floor.json").c_str());
    unlink((directory + "/floor.json.new").c_str());
    rmdir(directory.c_str());
    rmdir(directory.substr(0, directory.rfind('/')).c_str());
}

// The least a replacement of the document costs: its bytes to a new file, renamed over the old.
void ReplaceFileOnce(const std::string& directory, const std::string& text) {
    const std::string temporary = directory + "/floor.json.new";
    Util::UniqueFd fd(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd.IsOpen()) return;
    if (write(fd.Get(), text.data(), text.size()) < 0) perror("write");
    fd.Reset();
    rename(temporary.c_str(), (directory + "/floor.json").c_str());
}

int Usage() {
    fputs(
        "usage: tessel-bench idle|steady CONFIG CYCLES | status WRITES | bridge BUILDS | stopdhcp EXTRA | "
        "paced CONFIG [COMMAND]\n",
        stderr);
    return 2;
}

// Children that only wait to be killed, as stand-ins for a busy process table.
std::vector<pid_t> StartSleepers(int count) {
    std::vector<pid_t> pids;
    for (int i = 0; i < count; ++i) {
        pid_t pid = fork();
        if (pid == 0) {
            pause();
            _exit(0);
        }
        if (pid > 0) pids.push_back(pid);
    }
    return pids;
}

void StopSleepers(const std::vector<pid_t>& pids) {
    for (pid_t pid : pids) kill(pid, SIGKILL);
    for (pid_t pid : pids) waitpid(pid, nullptr, 0);
}

// What any scan for clients must do: list /proc and read each process's command line.
void ScanProcOnce() {
    const Util::UniqueDir proc(opendir("/proc"));
    if (!proc) return;
    char path[300];
    char bytes[256];
    while (const dirent* entry = readdir(proc.get())) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        snprintf(path, sizeof path, "/proc/%s/cmdline", entry->d_name);
        const Util::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
        if (!fd.IsOpen()) continue;
        if (read(fd.Get(), bytes, sizeof bytes) < 0) bytes[0] = '\0';
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return Usage();
    const std::string mode = argv[1];

    if ((mode == "idle" || mode == "steady") && argc == 4) {
        const std::string path = argv[2];
        int cycles = atoi(argv[3]);
        // The daemon's own cycle. The register writes' pauses of the first pass
        // would only add wall time to an untimed pass; measured passes keep eth0
        // up and have none.
        SetPauseRunner([](unsigned int) {});
        CYCLE_STATE state;
        // A pass as the daemon's loop makes it: the cycle, then the status document,
        // which is written only when what it shows changed.
        const std::string statusDirectory = MakeStatusDirectory();
        STATUS_WRITER status;
        StartStatus(status, statusDirectory, path);
        auto pass = [&] {
            RunSupervisionCycle(path, state);
            UpdateStatus(status, state);
        };
        pass();  // the first usable cycle, not timed
        pass();
        if (mode == "idle") {
            Compare("idle_cycle", cycles, 10, pass, [&] { ReadFileOnce(path); });
        } else {
            const std::string reattach = "ip link set eth0 master br0 > /dev/null 2>&1";
            Compare("steady_cycle", cycles, 10, pass, [&] { ShellOnce(reattach); });
        }
        RemoveStatusDirectory(statusDirectory);
        return 0;
    }
    if (mode == "status") {
        int writes = atoi(argv[2]);
        // The document of a two-port device with a lease on veth1 and veth3 static.
        CYCLE_STATE state;
        state.m_bConfigRead = state.m_bConfigUsable = true;
        state.m_settings.m_eBridgeMode = state.m_eLastBridgeMode = BRIDGE_MODE_ETH0ETH1;
        state.m_settings.m_ePhyMode = state.m_eLastPhyMode = PHY_MODE_SGMII;
        state.m_bBridgeSetupPending = state.m_bPhyModePending = state.m_bFirstCycle = false;
        state.m_bEth0LinkUp = true;
        state.m_settings.m_veth1Config.m_bDhcp = true;
        state.m_veth1.m_applied = state.m_settings.m_veth1Config;
        state.m_veth1.m_bReconfigure = state.m_veth3.m_bReconfigure = false;
        state.m_veth1.m_dhcp = {
            true, {htonl(0xC0A84D64)}, {htonl(0xFFFFFF00)}, {htonl(0xC0A84D01)}, {htonl(0xC0A84D01)}};
        state.m_veth1.m_leaseAt = {1795000000, 0};
        state.m_veth1.m_clientPid = 223;
        state.m_veth1.m_nClientStarts = 1;
        state.m_settings.m_veth3Config = {false, {htonl(0x0AFDFEFD)}, {htonl(0xFFFFFF00)}, {0}};
        state.m_veth3.m_applied = state.m_settings.m_veth3Config;
        const std::string directory = MakeStatusDirectory();
        STATUS_WRITER status;
        StartStatus(status, directory, "/etc/tessel-networkd.conf");
        STATUS_SNAPSHOT snapshot;
        TakeStatusSnapshot(state, snapshot);
        const std::string text = StatusJson(status.m_daemon, snapshot);
        std::string error;
        if (!WriteStatusFile(directory, text, error)) fprintf(stderr, "status write failed: %s\n", error.c_str());
        fprintf(stderr, "status_bytes %zu 0 1\n", text.size());
        Compare(
            "status_write", writes, 10,
            [&] {
                TakeStatusSnapshot(state, snapshot);
                WriteStatusFile(directory, StatusJson(status.m_daemon, snapshot), error);
            },
            [&] { ReplaceFileOnce(directory, text); });
        RemoveStatusDirectory(directory);
        return 0;
    }
    if (mode == "bridge") {
        int builds = atoi(argv[2]);
        // The whole two-port build as a pass runs it: eth1 and veth0 blocked,
        // br0, the isolation completed and looked at, the blocks lifted. The
        // stand-ins print nothing, so each listing is given, after its process
        // ran, the rules the build's own commands appended to that tool's
        // filter table since its flush (the look judges each rule), and bridge
        // netfilter is taken as on: the look then finds the isolation whole and
        // the build runs to its end.
        std::map<std::string, std::string> tables;
        auto note = [&tables](const std::string& command) {
            const std::string tool = command.substr(0, command.find(' '));
            const std::string rest = command.substr(std::min(command.size(), tool.size() + 1));
            if (rest.starts_with("-F")) tables[tool].clear();
            if (rest.starts_with("-A ")) tables[tool] += rest + "\n";
        };
        auto listing = [&tables](const std::string& command) { return tables[command.substr(0, command.find(' '))]; };
        CommandRunner real = SetCommandRunner([&](const std::string& command, std::string* output) {
            COMMAND_OUTCOME outcome = RunShellCommand(command, output);
            note(command);
            if (output != nullptr) *output = listing(command);
            return outcome;
        });
        SetBridgeFilterReader([](const std::string&) { return BRIDGE_FILTER_STATE{true, true, true, true}; });
        SetTaggedFilterSwitch([] {});
        auto build = [] {
            WORK_FAILURE failure;
            ISOLATION_STATE isolation;
            return BlockEth1(failure) && BlockVeth0(failure) && SetupBridge(BRIDGE_MODE_ETH0ETH1, "", "", &failure) &&
                   CompleteIsolation(isolation, failure) && LiftVeth0Block(failure) && LiftEth1Block(failure);
        };
        // The commands a build runs, taken from the build itself, for the floor to run as they are.
        std::vector<std::string> commands;
        CommandRunner timed = SetCommandRunner([&](const std::string& command, std::string* output) {
            commands.push_back(command);
            note(command);
            if (output != nullptr) *output = listing(command);
            return COMMAND_OUTCOME{};
        });
        if (!build()) fprintf(stderr, "the build did not complete\n");
        std::vector<std::string> look(commands.end() - 5, commands.end() - 2);
        SetCommandRunner(timed);
        fprintf(stderr, "bridge_commands %zu 0 1\n", commands.size());
        Compare("bridge_build", builds, builds, build, [&] {
            for (const std::string& command : commands) ShellOnce(command);
        });
        // The look every 10 s in the two-port mode after the tables moved: three
        // listings read, and bridge netfilter read from the kernel, against the
        // listings alone (what it judged forgotten, so that each look lists).
        SetBridgeFilterReader(nullptr);
        SetTaggedFilterSwitch(nullptr);
        ISOLATION_STATE isolation;
        WORK_FAILURE failure;
        if (!CompleteIsolation(isolation, failure)) fprintf(stderr, "the isolation was not found whole\n");
        Compare(
            "isolation_look", builds * 5, builds,
            [&] {
                isolation.m_nNextCheckMs = 0;
                isolation.m_judged = {};
                SuperviseIsolation(isolation);
            },
            [&] {
                for (const std::string& command : look) ShellOnce(command);
            });
        SetCommandRunner(real);
        return 0;
    }
    if (mode == "stopdhcp") {
        int extra = atoi(argv[2]);
        const int rounds = 20;
        // The removal command StopDhcp runs is the same with or without the
        // extra processes; the difference is the scan's share.
        Compare(
            "stopdhcp_alone", rounds, rounds, [] { StopDhcp("veth1", 10); }, [] { ScanProcOnce(); });
        std::vector<pid_t> sleepers = StartSleepers(extra);
        fprintf(stderr, "stopdhcp_processes %zu 0 1\n", sleepers.size());
        Compare(
            "stopdhcp_busy", rounds, rounds, [] { StopDhcp("veth1", 10); }, [] { ScanProcOnce(); });
        StopSleepers(sleepers);
        return 0;
    }
    // The floors at the daemon's pace, for comparing with the running daemon:
    // read the file, run the command if given, pause a second; until killed.
    if (mode == "paced" && (argc == 3 || argc == 4)) {
        const std::string path = argv[2];
        for (;;) {
            ReadFileOnce(path);
            if (argc == 4) ShellOnce(argv[3]);
            struct timespec second = {1, 0};
            nanosleep(&second, nullptr);
        }
    }
    return Usage();
}
