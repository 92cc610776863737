// Records the commands the code under test would run instead of running them,
// and puts the real runner back when it goes out of scope.
#pragma once

#include <string>
#include <vector>

#include "src/Network.h"
#include "tests/support/LogCapture.h"

class CommandRecorder {
public:
    CommandRecorder()
        : m_previous(SetCommandRunner([this](const std::string& command) {
              m_commands.push_back(command);
              LogCapture::NoteCommand(command);
          })) {}
    ~CommandRecorder() { SetCommandRunner(std::move(m_previous)); }
    CommandRecorder(const CommandRecorder&) = delete;
    CommandRecorder& operator=(const CommandRecorder&) = delete;

    const std::vector<std::string>& Commands() const { return m_commands; }
    void Clear() { m_commands.clear(); }

private:
    std::vector<std::string> m_commands;
    CommandRunner m_previous;
};
