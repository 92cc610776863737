// tessel-old-kernel COMMAND [ARG...]: runs COMMAND as on a Linux 3.10 kernel,
// the oldest the daemon supports: every system call added after 3.10 fails
// with ENOSYS, for COMMAND and everything it starts. The system tests run the
// daemon and its programs through it once more, so each newer call they make
// must have a safe fallback.
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

// The architecture's highest system call number in Linux 3.10 (finit_module).
#if defined(__x86_64__)
constexpr unsigned int kArch = AUDIT_ARCH_X86_64;
constexpr unsigned int kLast = 313;
#elif defined(__aarch64__)
constexpr unsigned int kArch = AUDIT_ARCH_AARCH64;
constexpr unsigned int kLast = 273;
#elif defined(__arm__)
constexpr unsigned int kArch = AUDIT_ARCH_ARM;
constexpr unsigned int kLast = 379;
#elif defined(__i386__)
constexpr unsigned int kArch = AUDIT_ARCH_I386;
constexpr unsigned int kLast = 350;
#else
// cppcheck-suppress preprocessorErrorDirective ; every target built has its branch above
#error "no system call table for this target"
#endif

// The x32 calls of x86_64 carry this bit; the rest of the number is what counts.
constexpr unsigned int kX32Bit = 0x40000000;
// ARM's private calls (cacheflush, set_tls) are older than 3.10.
constexpr unsigned int kArmPrivate = 0x0f0000;

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: tessel-old-kernel COMMAND [ARG...]\n");
        return 2;
    }
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),  // another ABI: none was there
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_STMT(BPF_ALU | BPF_AND | BPF_K, ~kX32Bit),
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, kArmPrivate, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLast, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog filter{sizeof program / sizeof program[0], program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        fprintf(stderr, "tessel-old-kernel: cannot filter system calls: %s\n", strerror(errno));
        return 2;
    }
    execvp(argv[1], argv + 1);
    fprintf(stderr, "tessel-old-kernel: cannot run %s: %s\n", argv[1], strerror(errno));
    return 127;
}
