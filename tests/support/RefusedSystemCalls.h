// Kernels older than the machine's: the kernel made to answer an error to the
// system calls they lack, for the rest of the calling process and its children.
#pragma once

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#if defined(__x86_64__)
constexpr unsigned int kAuditArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned int kAuditArch = AUDIT_ARCH_AARCH64;
#elif defined(__arm__)
constexpr unsigned int kAuditArch = AUDIT_ARCH_ARM;
#elif defined(__i386__)
constexpr unsigned int kAuditArch = AUDIT_ARCH_I386;
#else
// cppcheck-suppress preprocessorErrorDirective ; every target built has its branch above
#error "no audit architecture for this target"
#endif

// Makes every later call of the system calls `numbers` (of this build's
// architecture) fail with `error`, in this process and all it starts; for a
// forked test child only, as it cannot be undone. Returns "" when in place,
// else why not (an emulator that takes no filter, for one).
inline std::string RefuseSystemCalls(const std::vector<unsigned int>& numbers, int error) {
    std::vector<sock_filter> program = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAuditArch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    };
    for (unsigned int number : numbers) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
        program.push_back(
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (static_cast<unsigned int>(error) & SECCOMP_RET_DATA)));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return std::string("no_new_privs: ") + strerror(errno);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        return std::string("no seccomp filter: ") + strerror(errno);
    }
    return "";
}
