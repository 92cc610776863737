// Record the commands and pauses the code under test would run instead of running
// them, and put the real runner back when they go out of scope.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "src/Network.h"
#include "tests/support/LogCapture.h"

class CommandRecorder {
public:
    // Commands for which `runsForReal` is true are run as well, through the real
    // runner, after they are recorded.
    explicit CommandRecorder(std::function<bool(const std::string&)> runsForReal = nullptr)
        : m_previous(SetCommandRunner([this, runsForReal](const std::string& command) {
              m_commands.push_back(command);
              LogCapture::NoteCommand(command);
              if (runsForReal && runsForReal(command)) RunShellCommand(command);
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

class PauseRecorder {
public:
    PauseRecorder()
        : m_previous(SetPauseRunner([this](unsigned int milliseconds) {
              m_pauses.push_back(milliseconds);
              LogCapture::NotePause(milliseconds);
          })) {}
    ~PauseRecorder() { SetPauseRunner(std::move(m_previous)); }
    PauseRecorder(const PauseRecorder&) = delete;
    PauseRecorder& operator=(const PauseRecorder&) = delete;

    const std::vector<unsigned int>& Pauses() const { return m_pauses; }

private:
    std::vector<unsigned int> m_pauses;
    PauseRunner m_previous;
};
