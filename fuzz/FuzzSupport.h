// Shared by the fuzz targets that drive the daemon's own code: quiet logging
// and the recorder that stands in for the shell.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "logging/Logging.h"
#include "src/NetworkShell.h"

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

// Collects the commands the code would run; nothing is run.
class RecordingRunner {
public:
    RecordingRunner()
        : m_previous(SetCommandRunner([this](const std::string& command, std::string* /*output*/) {
              m_commands.push_back(command);
              return COMMAND_OUTCOME{};
          })) {}
    ~RecordingRunner() { SetCommandRunner(std::move(m_previous)); }
    RecordingRunner(const RecordingRunner&) = delete;
    RecordingRunner& operator=(const RecordingRunner&) = delete;

    const std::vector<std::string>& Commands() const { return m_commands; }

private:
    std::vector<std::string> m_commands;
    CommandRunner m_previous;
};
