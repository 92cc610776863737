// The runner every shell command of the daemon goes through: how a command
// ended, the seam tests put a recorder into, and the steps of a piece of work.
// The stop request it heeds is src/NetworkStop.h, its clock src/NetworkClock.h.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string>

// How one command ended. A default record is a command that ran and exited 0.
struct COMMAND_OUTCOME {
    bool m_bStarted = true;    // false: no process ran; m_nError says why
    int m_nError = 0;          // the errno of a start that failed
    bool m_bExited = true;     // ended by exit (m_nStatus is its status), not by a signal
    int m_nStatus = 0;         // the exit status, or the signal that ended it
    bool m_bTimedOut = false;  // ran past its deadline and was ended by the runner

    bool Succeeded() const { return m_bStarted && !m_bTimedOut && m_bExited && m_nStatus == 0; }
    // Field by field.
    bool operator==(const COMMAND_OUTCOME&) const = default;
};

// The outcome in words: "exit status 2", "ended by signal 9", "not started (...)",
// "ended after its deadline".
std::string DescribeOutcome(const COMMAND_OUTCOME& outcome);

// How long a command may run before the runner ends it, and how long it has
// after SIGTERM before SIGKILL.
constexpr unsigned int kCommandDeadlineMs = 20000;
constexpr unsigned int kCommandKillGraceMs = 2000;

// Runs one command line through /bin/sh -c and waits for it. Every shell command
// of the daemon goes through here (or through RunCommandForOutput).
COMMAND_OUTCOME RunCommand(const std::string& command);

// The same, for a command the daemon reads: what it writes to standard output
// is put in `output` (the first kCommandOutputLimit bytes) instead of going
// where the daemon's own output goes.
COMMAND_OUTCOME RunCommandForOutput(const std::string& command, std::string& output);
constexpr size_t kCommandOutputLimit = 65536;

// The function both hand their text to, with where the output goes (null: not
// read). Tests put a recorder here; an empty function puts the real runner
// back. Returns the one it replaced.
using CommandRunner = std::function<COMMAND_OUTCOME(const std::string& command, std::string* output)>;
CommandRunner SetCommandRunner(CommandRunner runner);

// How many commands the daemon has handed to a runner since it started: a pass
// that ran none left the heap as it found it.
unsigned long CommandsRun();

// The real runner: starts the shell in a process group of its own, with default
// signal dispositions and an empty signal mask, and lets the daemon's stop
// signals in while it waits, so a stop requested during a command is neither
// lost nor delayed past the cycle. A command still running at its deadline is
// ended, group and all (SIGTERM, then SIGKILL), with an ERROR entry. With
// `output`, standard output is read through a pipe while it runs.
COMMAND_OUTCOME RunShellCommand(const std::string& command, std::string* output = nullptr);

// One step of a piece of work: a command and whether the work needs it to
// succeed. Steps that only clear what may not exist may fail.
struct SHELL_STEP {
    const char* m_szCommand;
    bool m_bMustSucceed;
};

// Why a piece of work stopped short: the step that failed, and how.
struct WORK_FAILURE {
    std::string m_command;
    COMMAND_OUTCOME m_outcome;
};

// `failure`, or a record of no interest when it is null (for callers that do
// not ask why a piece of work stopped).
WORK_FAILURE& FailureOrScratch(WORK_FAILURE* failure);

// Runs one step. Returns false, with `failure` filled in and an ERROR entry, when
// the work cannot go on: a step that must succeed failed, or any step could not
// be started or ran past its deadline. With `output`, the step is one the work
// reads: its standard output is put there.
bool RunStep(const std::string& command, bool mustSucceed, WORK_FAILURE& failure, std::string* output = nullptr);

// Runs the steps in order; false, with `failure`, at the first one the work
// cannot go on after (as RunStep judges it), and the rest not run.
bool RunSteps(std::span<const SHELL_STEP> steps, WORK_FAILURE& failure);

// One command that hands `lines` to `tool` on its standard input, a line each,
// as a quoted here-document (nothing in them is expanded): a batch the tool
// takes in one process, run as a step like any other and logged and recorded
// whole, its lines as they are given.
std::string BatchCommand(const std::string& tool, std::span<const std::string> lines);
// A command as the log and a work's failure show it: on one line, a batch's
// line ends written "\n".
std::string CommandInOneLine(const std::string& command);
