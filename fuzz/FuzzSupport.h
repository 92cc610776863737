// Shared by the fuzz targets that drive the daemon's own code: quiet logging.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "logging/Logging.h"

// Log entries are still formatted and written, only to /dev/null, so the
// logging paths are exercised without flooding the fuzzer's output.
inline void SilenceLogging() {
    int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    Logging::SetLogToStdout(true);
    Logging::SetLogLevel(Logging::LOGGING_SEVERITY_DEBUG);
}
