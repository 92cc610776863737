// Captures what the log facility writes to standard output while in scope, and
// what it sends to the system log, for tests to compare.
#pragma once

#include <string>
#include <vector>

struct LogEntry {
    std::string level;  // "ERROR", "INFO", ...
    std::string file;   // "src/NetworkAddress.cpp"
    int line = 0;
    std::string function;
    std::string message;
};

class LogCapture {
public:
    LogCapture();  // sets the level to DEBUG and logging to standard output
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Every entry so far, parsed; fails the test on a line that is not an entry.
    std::vector<LogEntry> Entries();

    // "LEVEL Function: message" per entry, "$ command" per command that a
    // CommandRecorder saw meanwhile and "pause N ms" per pause that a
    // PauseRecorder saw, in the order they happened.
    std::vector<std::string> Timeline();

    // Entries as "LEVEL Function: message" only.
    std::vector<std::string> Messages();

    // What reached the system log, as "<priority> message".
    const std::vector<std::string>& SystemLog() const { return m_systemLog; }

    // Everything written to standard output so far, unparsed.
    std::string Raw();

    // Called by the recorders so commands and pauses take their place in the timeline.
    static void NoteCommand(const std::string& command);
    static void NotePause(unsigned int milliseconds);

private:
    static void SystemLogSink(int priority, const char* message);
    static LogCapture* s_active;

    int m_savedStdout = -1;
    int m_captureFd = -1;
    std::vector<std::string> m_systemLog;
};

// Parses one line of the facility's output; false when it is not an entry.
bool ParseLogLine(const std::string& line, LogEntry& entry);
