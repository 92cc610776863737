// The status document's text: a small JSON writer and the document's layout
// (docs/STATUS.md is its schema).
#pragma once

#include <sys/types.h>
#include <time.h>

#include <string>

struct STATUS_SNAPSHOT;

// What the document says of the daemon itself; fixed for its run.
struct STATUS_DAEMON {
    std::string m_version;
    pid_t m_pid = 0;
    timespec m_startedAt{};
    std::string m_configPath;
};

// The document's text.
std::string StatusJson(const STATUS_DAEMON& daemon, const STATUS_SNAPSHOT& snapshot);
