#include "tests/support/Namespaces.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "tests/support/Files.h"

namespace {

void WriteLines(int fd, const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = write(fd, data, left);
        if (n <= 0) return;
        data += n;
        left -= static_cast<size_t>(n);
    }
}

// In the namespaces: the body, after what the flags ask to be made private.
Lines RunInside(int flags, const std::function<Lines()>& body) {
    if ((flags & CLONE_NEWNS) != 0) {
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return {"cannot make the mounts private"};
        // A PID namespace's processes are listed only by a /proc mounted in it.
        if ((flags & CLONE_NEWPID) != 0 &&
            mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
            return {"cannot mount /proc"};
        }
    }
    return body();
}

}  // namespace

Lines InNewNamespaces(int flags, const std::function<Lines()>& body) {
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0) return {"no pipe"};
    fflush(stdout);
    pid_t child = fork();
    if (child < 0) {
        close(output[0]);
        close(output[1]);
        return {"fork failed"};
    }
    if (child == 0) {
        close(output[0]);
        if (unshare(flags) != 0) {
            WriteLines(output[1], {"cannot create the namespaces"});
            _exit(1);
        }
        if ((flags & CLONE_NEWPID) == 0) {
            WriteLines(output[1], RunInside(flags, body));
            _exit(0);
        }
        // Only a child enters the new PID namespace, as its first process.
        pid_t init = fork();
        if (init == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            WriteLines(output[1], RunInside(flags, body));
            _exit(0);
        }
        int status = 0;
        if (init < 0 || waitpid(init, &status, 0) != init || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            WriteLines(output[1], {"the namespace's first process failed"});
            _exit(1);
        }
        _exit(0);
    }
    close(output[1]);
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = read(output[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
    close(output[0]);
    int status = 0;
    waitpid(child, &status, 0);

    Lines lines = SplitLines(text);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        lines.push_back("child failed, status " + std::to_string(status));
    return lines;
}

bool RunQuietly(const std::string& command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }

bool GiveManyAlternativeNames(const std::string& link) {
    const std::string padding(100, 'x');
    for (int i = 0; i < 80; ++i) {
        char name[8];
        snprintf(name, sizeof name, "a%03d", i);
        std::string command = "ip link property add dev ";
        command.append(link).append(" altname ").append(name).append(padding);
        if (!RunQuietly(command)) return false;
    }
    return true;
}

bool WaitForOperStateUp(const std::string& name) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::string probe = "ip -o link show dev " + name + " 2>/dev/null | grep -q 'state UP'";
    while (std::chrono::steady_clock::now() < deadline) {
        if (system(probe.c_str()) == 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}
