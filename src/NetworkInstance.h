// One daemon per device: a second one started by mistake (a manual run beside
// the service, an init script and a unit both enabled) would take the first
// one's rebuilds for outside changes, and the two would rebuild in turn.
#pragma once

#include <sys/types.h>

#include <string>

#include "util/UniqueFd.h"

// The exit status of a daemon that found another one running: none of the
// signals' numbers, nor 1 (a rejected command line).
constexpr int kExitAnotherInstance = 75;

// The lock's name in the status directory, which the service's sandbox and the
// init script both let the daemon write.
constexpr const char* kInstanceLockName = "lock";

// What came of taking the lock.
struct INSTANCE_LOCK {
    // Held for the daemon's life; closing it (or the daemon ending, however it
    // ends) lets the next one in, so a lock left behind never stops a start.
    Util::UniqueFd m_lock;
    // Another daemon holds it: its pid as the kernel tells it (0 when it runs in
    // a pid namespace this one cannot see), and the pid it wrote into the file.
    bool m_bHeldByOther = false;
    pid_t m_holder = 0;
    pid_t m_notedHolder = 0;
    // Why the lock could not be taken at all (the directory refused, say); empty otherwise.
    std::string m_problem;
};

// Takes the lock `directory`/lock (the directory made and checked as the
// status document's), and writes this process's pid into it for the operator.
INSTANCE_LOCK TakeInstanceLock(const std::string& directory);

// The line a daemon that found another one running logs before it ends.
std::string DescribeOtherInstance(const INSTANCE_LOCK& lock);
