// Tests that need root and network namespaces skip where they are missing, with
// the reason, and fail instead when TESSEL_REQUIRE_NAMESPACES=1 (CI) says they
// must run.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

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
