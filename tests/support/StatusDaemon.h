// The daemon's own facts as the status tests give them: a fixed version, pid
// and configuration path, and a start at the last second a signed 32-bit
// time_t holds, so every time the tests print is past it.
#pragma once

#include "src/NetworkStatusJson.h"

constexpr long long kStatusInstant = 2147483647LL;  // 2038-01-19T03:14:07Z

inline STATUS_DAEMON StatusDaemon() {
    STATUS_DAEMON daemon;
    daemon.m_version = "1.2.3";
    daemon.m_pid = 4321;
    daemon.m_startedAt = {kStatusInstant, 0};
    daemon.m_configPath = "/etc/tessel-networkd.conf";
    return daemon;
}
