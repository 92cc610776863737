// Record the commands and pauses the code under test would run instead of running
// them, and put the real runner back when they go out of scope.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "src/NetworkClock.h"
#include "src/NetworkShell.h"
#include "tests/support/LogCapture.h"

class CommandRecorder {
public:
    // Commands for which `runsForReal` is true are run as well, through the real
    // runner, after they are recorded, and give its outcome; the others succeed
    // unless SetOutcomes says otherwise.
    explicit CommandRecorder(std::function<bool(const std::string&)> runsForReal = nullptr)
        : m_previous(SetCommandRunner([this, runsForReal](const std::string& command, std::string* output) {
              m_commands.push_back(command);
              LogCapture::NoteCommand(command);
              if (m_outputs) {
                  std::optional<std::string> printed = m_outputs(command);
                  if (printed && output != nullptr) *output = *printed;
              }
              if (m_outcomes) {
                  std::optional<COMMAND_OUTCOME> scripted = m_outcomes(command);
                  if (scripted) return *scripted;
              }
              if (runsForReal && runsForReal(command)) return RunShellCommand(command, output);
              return COMMAND_OUTCOME{};
          })) {}
    ~CommandRecorder() { SetCommandRunner(std::move(m_previous)); }
    CommandRecorder(const CommandRecorder&) = delete;
    CommandRecorder& operator=(const CommandRecorder&) = delete;

    const std::vector<std::string>& Commands() const { return m_commands; }
    void Clear() { m_commands.clear(); }

    // Gives the outcome of each command for which `outcomes` returns one (a
    // failure to inject); nullptr ends that.
    void SetOutcomes(std::function<std::optional<COMMAND_OUTCOME>(const std::string&)> outcomes) {
        m_outcomes = std::move(outcomes);
    }

    // Hands every command to `outputs` (a stand-in for the tools, which may keep
    // state), and gives what it returns as the output of a command that is read
    // (nothing: it prints nothing); nullptr ends that.
    void SetOutputs(std::function<std::optional<std::string>(const std::string&)> outputs) {
        m_outputs = std::move(outputs);
    }

private:
    std::vector<std::string> m_commands;
    std::function<std::optional<COMMAND_OUTCOME>(const std::string&)> m_outcomes;
    std::function<std::optional<std::string>(const std::string&)> m_outputs;
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
