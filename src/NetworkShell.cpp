// The one place the daemon's shell commands go through.
#include "src/NetworkShell.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "logging/Logging.h"
#include "src/NetworkClock.h"
#include "src/NetworkNotify.h"
#include "src/NetworkStop.h"
#include "util/Format.h"
#include "util/UniqueFd.h"

namespace {

// A command ended because of a stop gets this long after SIGTERM before SIGKILL.
constexpr int64_t kStopKillGraceMs = 500;
// How long a process group is waited for after SIGKILL; a process stuck in the
// kernel may not die at once, and is then reaped later instead of waited for.
constexpr int64_t kReapWaitMs = 1000;

// Shells ended but not yet reaped, waited for without blocking before each command.
std::vector<pid_t>& Abandoned() {
    static std::vector<pid_t> pids;
    return pids;
}

CommandRunner& ActiveRunner() {
    static CommandRunner runner;
    return runner;
}

unsigned long& CommandsHandedOver() {
    static unsigned long count = 0;
    return count;
}

void OnChildEnded(int /*sig*/) {}

// A handled SIGCHLD is what wakes the wait below when the command ends; the
// default disposition would leave the wait asleep until its timeout.
void CatchChildSignal() {
    static bool installed = false;
    if (installed) return;
    struct sigaction action {};
    action.sa_handler = OnChildEnded;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_NOCLDSTOP;
    sigaction(SIGCHLD, &action, nullptr);
    installed = true;
}

void ReapAbandoned() {
    std::vector<pid_t>& pids = Abandoned();
    for (size_t i = 0; i < pids.size();) {
        pid_t reaped = waitpid(pids[i], nullptr, WNOHANG);
        if (reaped == pids[i] || (reaped < 0 && errno == ECHILD)) {
            pids[i] = pids.back();
            pids.pop_back();
        } else {
            ++i;
        }
    }
}

// The read end of a command's standard output and what has come through it.
struct OUTPUT_PIPE {
    Util::UniqueFd m_read;  // not open: no output is read (or all of it was)
    std::string* m_text = nullptr;

    // Takes what can be read now without waiting; closes at the end of the
    // output. Past the limit the rest is read and dropped, so the command never
    // blocks on a full pipe.
    void Drain() {
        char buffer[4096];
        while (m_read.IsOpen()) {
            const ssize_t got = read(m_read.Get(), buffer, sizeof buffer);
            if (got > 0) {
                const size_t room = kCommandOutputLimit - std::min(kCommandOutputLimit, m_text->size());
                m_text->append(buffer, std::min(room, static_cast<size_t>(got)));
            } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                m_read.Reset();
            } else if (errno == EAGAIN) {
                return;
            }
        }
    }
};

// Sleeps until `untilMs` at most, letting in every signal (the stop signals,
// SIGCHLD); returns early when one is taken or the output has something to read.
void WaitWithSignalsIn(int64_t nowMs, int64_t untilMs, OUTPUT_PIPE& output) {
    int64_t waitMs = untilMs - nowMs;
    if (waitMs <= 0) return;
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(waitMs / 1000);
    timeout.tv_nsec = static_cast<long>(waitMs % 1000) * 1000000L;
    sigset_t none;
    sigemptyset(&none);
    pollfd readable{output.m_read.Get(), POLLIN, 0};
    const nfds_t count = output.m_read.IsOpen() ? 1 : 0;
    if (ppoll(count != 0 ? &readable : nullptr, count, &timeout, &none) > 0) output.Drain();
}

// Waits for the shell, ending its process group when its deadline passes or a
// stop's grace runs out. Fills in how it ended.
void WaitForCommand(pid_t pid, const std::string& command, COMMAND_OUTCOME& outcome, OUTPUT_PIPE& output) {
    enum { RUNNING, TERMINATED, KILLED } phase = RUNNING;
    const int64_t deadlineMs = SteadyMs() + kCommandDeadlineMs;
    int64_t phaseEndMs = deadlineMs;
    for (;;) {
        int status = 0;
        pid_t reaped = waitpid(pid, &status, WNOHANG);
        if (reaped == pid) {
            outcome.m_bExited = WIFEXITED(status);
            outcome.m_nStatus = WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
            // What it wrote before it ended; a child it left behind holding the
            // pipe is not waited for.
            output.Drain();
            return;
        }
        if (reaped < 0 && errno != EINTR) {
            // Reaped by someone else: how it ended is unknown, so it counts as failed.
            outcome.m_bStarted = false;
            outcome.m_nError = errno;
            return;
        }
        const int64_t nowMs = SteadyMs();
        if (phase == RUNNING) phaseEndMs = std::min(deadlineMs, StopGraceEndMs());
        if (nowMs < phaseEndMs) {
            WaitWithSignalsIn(nowMs, phaseEndMs, output);
            continue;
        }
        if (phase == RUNNING) {
            if (nowMs >= deadlineMs) {
                outcome.m_bTimedOut = true;
                LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                          Util::Format("Command still running after %u s, ending it: ", kCommandDeadlineMs / 1000) +
                              CommandInOneLine(command));
            }
            kill(-pid, SIGTERM);
            phase = TERMINATED;
            phaseEndMs = nowMs + (outcome.m_bTimedOut ? kCommandKillGraceMs : kStopKillGraceMs);
        } else if (phase == TERMINATED) {
            kill(-pid, SIGKILL);
            phase = KILLED;
            phaseEndMs = nowMs + kReapWaitMs;
        } else {
            // Stuck beyond SIGKILL (in the kernel): reaped later, not waited for.
            Abandoned().push_back(pid);
            outcome.m_bExited = false;
            outcome.m_nStatus = SIGKILL;
            return;
        }
    }
}

}  // namespace

std::string DescribeOutcome(const COMMAND_OUTCOME& outcome) {
    if (!outcome.m_bStarted) return std::string("not started (") + strerror(outcome.m_nError) + ")";
    if (outcome.m_bTimedOut) {
        return Util::Format("ended after its %u s deadline", kCommandDeadlineMs / 1000);
    }
    if (!outcome.m_bExited) return Util::Format("ended by signal %d", outcome.m_nStatus);
    return Util::Format("exit status %d", outcome.m_nStatus);
}

COMMAND_OUTCOME RunCommand(const std::string& command) {
    ++CommandsHandedOver();
    const CommandRunner& runner = ActiveRunner();
    if (runner) return runner(command, nullptr);
    return RunShellCommand(command);
}

COMMAND_OUTCOME RunCommandForOutput(const std::string& command, std::string& output) {
    output.clear();
    ++CommandsHandedOver();
    const CommandRunner& runner = ActiveRunner();
    if (runner) return runner(command, &output);
    return RunShellCommand(command, &output);
}

unsigned long CommandsRun() { return CommandsHandedOver(); }

CommandRunner SetCommandRunner(CommandRunner runner) { return std::exchange(ActiveRunner(), std::move(runner)); }

COMMAND_OUTCOME RunShellCommand(const std::string& command, std::string* output) {
    COMMAND_OUTCOME outcome;
    ReapAbandoned();
    if (SteadyMs() >= StopGraceEndMs()) {
        // The daemon is on its way out: nothing new is started.
        outcome.m_bStarted = false;
        outcome.m_nError = ECANCELED;
        return outcome;
    }
    CatchChildSignal();

    // Unlike system(), nothing here ignores SIGINT or SIGQUIT, so a stop signal
    // that arrives while a command runs still reaches the daemon's handler. The
    // group of its own lets a command that hangs be ended with all it started.
    posix_spawnattr_t attributes;
    int error = posix_spawnattr_init(&attributes);
    if (error != 0) {
        outcome.m_bStarted = false;
        outcome.m_nError = error;
        return outcome;
    }
    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGCHLD}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

    // SIGCHLD stays blocked from before the start until the wait lets it in, so
    // an end that comes first is still pending then and never missed.
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &child, &previous);

    // A command that is read writes into a pipe; only its write end goes to the
    // shell, as standard output (both ends are closed on exec otherwise).
    OUTPUT_PIPE pipeOut;
    Util::UniqueFd writeEnd;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output != nullptr) {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
            error = errno;
        } else {
            pipeOut.m_read.Reset(ends[0]);
            pipeOut.m_text = output;
            writeEnd.Reset(ends[1]);
            // The shell's end blocks as a terminal or file would.
            fcntl(writeEnd.Get(), F_SETFL, 0);
            error = posix_spawn_file_actions_adddup2(&actions, writeEnd.Get(), STDOUT_FILENO);
        }
    }

    pid_t pid = -1;
    if (error == 0) {
        const char* shell = "/bin/sh";
        char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command.c_str()), nullptr};
        error = posix_spawn(&pid, shell, &actions, &attributes, argv, environ);
    }
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    // Only the shell keeps the write end: the output ends when the shell (and
    // whatever it left holding the pipe) does.
    writeEnd.Reset();
    if (error != 0) {
        outcome.m_bStarted = false;
        outcome.m_nError = error;
    } else {
        // The daemon keeps its stop signals blocked while it works; waiting is
        // where it takes them, so the handler never interrupts a heap or log call.
        WaitForCommand(pid, command, outcome, pipeOut);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return outcome;
}

WORK_FAILURE& FailureOrScratch(WORK_FAILURE* failure) {
    static WORK_FAILURE scratch = WORK_FAILURE{};
    return failure != nullptr ? *failure : scratch;
}

bool RunStep(const std::string& command, bool mustSucceed, WORK_FAILURE& failure, std::string* output) {
    const COMMAND_OUTCOME outcome = output != nullptr ? RunCommandForOutput(command, *output) : RunCommand(command);
    // A cycle of commands that each run to their deadline is slow, not stuck.
    NotifyWatchdog();
    if (outcome.m_bStarted && !outcome.m_bTimedOut && (!mustSucceed || outcome.Succeeded())) return true;
    failure.m_command = CommandInOneLine(command);
    failure.m_outcome = outcome;
    // A deadline was reported by the runner when it ended the command; commands
    // cut short or refused because the daemon is stopping are no fault.
    if (!outcome.m_bTimedOut && !StopRequested()) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false,
                  "Command failed (" + DescribeOutcome(outcome) + "): " + failure.m_command);
    }
    return false;
}

bool RunSteps(std::span<const SHELL_STEP> steps, WORK_FAILURE& failure) {
    for (const SHELL_STEP& step : steps) {
        if (!RunStep(step.m_szCommand, step.m_bMustSucceed, failure)) return false;
    }
    return true;
}

std::string BatchCommand(const std::string& tool, std::span<const std::string> lines) {
    std::string command = tool + " <<'EOF'\n";
    for (const std::string& line : lines) command += line + "\n";
    return command + "EOF";
}

std::string CommandInOneLine(const std::string& command) {
    std::string shown;
    for (const char c : command) shown += c == '\n' ? std::string("\\n") : std::string(1, c);
    return shown;
}
