// A stand-in for a DHCP client in the process table, for the tests of the
// daemon's client scan and supervision.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/Namespaces.h"

// Another user than root, for a look-alike of a client: nobody.
constexpr uid_t kNobody = 65534;

// A real process with the command line a DHCP client would show: /bin/sh started
// under the name `argv0`, waiting on a pipe for input that never comes. Its
// command line is argv0, "-c", `script` (by default "read REPLY", which starts
// no other process), then `arguments`. Run as `user` (root by default: the
// client the daemon starts), for another user's look-alike. Killed and reaped
// on every path.
class FakeClient {
public:
    FakeClient(const std::string& argv0, const Lines& arguments, const std::string& script = "read REPLY",
               uid_t user = 0) {
        Lines all = {argv0, "-c", script};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& argument : all) argv.push_back(argument.data());
        argv.push_back(nullptr);

        int input[2];
        int started[2];
        if (pipe2(input, O_CLOEXEC) != 0) return;
        if (pipe2(started, O_CLOEXEC) != 0) {
            close(input[0]);
            close(input[1]);
            return;
        }
        m_pid = fork();
        if (m_pid == 0) {
            const bool becameUser = user == 0 || (setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 &&
                                                  setresuid(user, user, user) == 0);
            // Goes with the test process even if that is killed outright (after
            // the change of user, which clears it).
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (becameUser) {
                dup2(input[0], STDIN_FILENO);
                execv("/bin/sh", argv.data());
            }
            char failed = 1;
            ssize_t ignored = write(started[1], &failed, 1);
            (void)ignored;
            _exit(127);
        }
        close(input[0]);
        close(started[1]);
        m_input = input[1];
        // The pipe closes at the exec, but the kernel puts the new command line
        // in place only after that, while it loads the program: until then the
        // process shows none.
        char failed = 0;
        m_bStarted = m_pid > 0 && read(started[0], &failed, 1) == 0 && ShowsCommandLine(argv0);
        close(started[0]);
    }

    ~FakeClient() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_input >= 0) close(m_input);
    }
    FakeClient(const FakeClient&) = delete;
    FakeClient& operator=(const FakeClient&) = delete;

    bool Started() const { return m_bStarted; }
    pid_t Pid() const { return m_pid; }

    // Kills it and waits until it has died, leaving it a zombie until reaped: a
    // signal alone is taken at the process's next turn on a CPU, which a busy
    // machine may give it only after the checks that are to find it gone.
    bool KillToZombie() {
        if (m_pid <= 0 || kill(m_pid, SIGKILL) != 0) return false;
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT) == 0;
    }

    // Ends its input, so a process nobody signalled exits by itself, and reaps it.
    // A signal sent before is taken before the end of input is seen.
    // Returns the signal that ended it, 0 when it exited on its own.
    int EndingSignal() {
        close(m_input);
        m_input = -1;
        int status = 0;
        pid_t reaped = waitpid(m_pid, &status, 0);
        m_pid = -1;
        if (reaped <= 0) return -1;
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

private:
    // Waits (5 s at most) until the process's command line starts with `argv0`.
    bool ShowsCommandLine(const std::string& argv0) const {
        const std::string path = "/proc/" + std::to_string(m_pid) + "/cmdline";
        const std::string wanted = argv0 + '\0';
        for (int attempt = 0; attempt < 5000; ++attempt) {
            char bytes[256];
            ssize_t count = 0;
            int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                count = read(fd, bytes, sizeof bytes);
                close(fd);
            }
            if (count > 0 && std::string(bytes, static_cast<size_t>(count)).rfind(wanted, 0) == 0) return true;
            usleep(1000);
        }
        return false;
    }

    pid_t m_pid = -1;
    int m_input = -1;
    bool m_bStarted = false;
};
