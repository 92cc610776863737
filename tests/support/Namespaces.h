// Tests that need root and network namespaces skip where they are missing, with
// the reason, and fail instead when TESSEL_REQUIRE_NAMESPACES=1 (CI) says they
// must run.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

// Runs `body` in a forked child inside new namespaces (CLONE_NEWNET, CLONE_NEWNS,
// CLONE_NEWPID, as `flags` says), so what it creates never touches this
// machine's, and returns the lines it reported, plus a last line when the child
// failed. With CLONE_NEWNS its mounts are private; with CLONE_NEWPID as well it
// is the namespace's first process and has a /proc of its own, which lists only
// the processes it starts.
Lines InNewNamespaces(int flags, const std::function<Lines()>& body);

// In a test's namespaces: runs a shell command quietly; false when it failed.
bool RunQuietly(const std::string& command);

// In a test's namespaces: gives `link` 80 alternative names of 104 characters,
// which grow its link message past 10 KiB (10,460 bytes for a veth on Linux
// 6.18); false where the kernel or ip has no alternative names.
bool GiveManyAlternativeNames(const std::string& link);

// A fresh veth takes a moment to report carrier: waits for the kernel's own
// operational state (not the code under test), at most 5 seconds.
bool WaitForOperStateUp(const std::string& name);

// Empty when this process may create network namespaces, else why not.
inline std::string NamespacesUnavailableReason() {
    if (geteuid() != 0) return "needs root to create network namespaces";
    pid_t child = fork();
    if (child == 0) _exit(unshare(CLONE_NEWNET) == 0 ? 0 : 1);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return "cannot create a network namespace here";
    }
    return "";
}

inline bool NamespacesRequired() {
    const char* required = getenv("TESSEL_REQUIRE_NAMESPACES");
    return required != nullptr && std::string(required) == "1";
}

#define TESSEL_NEED_NAMESPACES()                                                          \
    do {                                                                                  \
        std::string why_ = NamespacesUnavailableReason();                                 \
        if (!why_.empty()) {                                                              \
            if (NamespacesRequired()) FAIL() << why_ << " (TESSEL_REQUIRE_NAMESPACES=1)"; \
            GTEST_SKIP() << why_;                                                         \
        }                                                                                 \
    } while (0)

// For tests of what only root may do (run a process as another user) or what
// only root's processes count for (the DHCP client): skipped, or failed where
// namespaces are required, when not root.
#define TESSEL_NEED_ROOT()                                                                  \
    do {                                                                                    \
        if (geteuid() != 0) {                                                               \
            if (NamespacesRequired()) FAIL() << "needs root (TESSEL_REQUIRE_NAMESPACES=1)"; \
            GTEST_SKIP() << "needs root";                                                   \
        }                                                                                   \
    } while (0)
