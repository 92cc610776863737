#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "src/Network.h"

namespace {

CommandRunner& ActiveRunner() {
    static CommandRunner runner;
    return runner;
}

PauseRunner& ActivePauseRunner() {
    static PauseRunner runner;
    return runner;
}

}  // namespace

void RunCommand(const std::string& command) {
    const CommandRunner& runner = ActiveRunner();
    if (runner) {
        runner(command);
    } else {
        RunShellCommand(command);
    }
}

CommandRunner SetCommandRunner(CommandRunner runner) { return std::exchange(ActiveRunner(), std::move(runner)); }

void RunShellCommand(const std::string& command) {
    // Unlike system(), nothing here ignores SIGINT or SIGQUIT, so a stop signal
    // that arrives while a command runs still reaches the daemon's handler.
    posix_spawnattr_t attributes;
    if (posix_spawnattr_init(&attributes) != 0) return;
    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    const char* shell = "/bin/sh";
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command.c_str()), nullptr};
    pid_t pid = -1;
    int spawned = posix_spawn(&pid, shell, nullptr, &attributes, argv, environ);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) return;

    // The daemon keeps its stop signals blocked while it works; waiting is where
    // it takes them, so the handler never interrupts a heap or log call.
    sigset_t previous;
    pthread_sigmask(SIG_SETMASK, &none, &previous);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

void Pause(unsigned int milliseconds) {
    const PauseRunner& runner = ActivePauseRunner();
    if (runner) {
        runner(milliseconds);
    } else {
        SleepLettingSignalsIn(milliseconds);
    }
}

PauseRunner SetPauseRunner(PauseRunner runner) { return std::exchange(ActivePauseRunner(), std::move(runner)); }

void SleepLettingSignalsIn(unsigned int milliseconds) {
    // The whole period even when a signal is taken meanwhile: the loop tests the
    // run flag only after its pause, and register pulses need their full width.
    sigset_t none;
    sigset_t previous;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, &previous);
    struct timespec remaining {};
    remaining.tv_sec = static_cast<time_t>(milliseconds / 1000);
    remaining.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}
