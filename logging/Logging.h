// The log facility: the same interface as the device's own logging library,
// so the daemon builds against either.
#pragma once

#include <string>

namespace Logging {

enum LOGGING_SEVERITY_LEVEL : int {
    LOGGING_SEVERITY_EMERG = 0,
    LOGGING_SEVERITY_ALERT = 1,
    LOGGING_SEVERITY_CRIT = 2,
    LOGGING_SEVERITY_ERROR = 3,
    LOGGING_SEVERITY_WARN = 4,
    LOGGING_SEVERITY_NOTICE = 5,
    LOGGING_SEVERITY_INFO = 6,
    LOGGING_SEVERITY_DEBUG = 7,
};

// The name an entry carries for its severity ("ERROR", "INFO"); severities
// outside 0 to 7 are named as DEBUG, the level they are logged at.
const char* SeverityName(int severity);

// Entries whose severity number is above the level are dropped.
void SetLogLevel(LOGGING_SEVERITY_LEVEL level);

// true: one line per entry on standard output; false: the system log.
void SetLogToStdout(bool toStdout);

// Whether standard output is the journal's stream: $JOURNAL_STREAM ("DEVICE:INODE",
// set by the service manager) names the file standard output is open on. Then
// each line on standard output starts with "<N>", N its severity, which the
// journal takes as the entry's priority and leaves out of the text it stores;
// anywhere else the line stays as it is. Looked at when called (once at start;
// tests again after they move standard output); returns what it found.
bool UsePriorityPrefixIfStdoutIsJournal();

// Writes one entry. `toSystemLog` sends it to the system log as well, whatever
// SetLogToStdout chose. Signals are held while an entry is made, so a handler
// that logs never splits another entry; its own entry follows whole. From a
// handler it is safe while logging to standard output, unless the handler
// interrupted the C library's time-zone code (localtime) or, for very long
// messages, its heap.
void AddEntryWithLocation(LOGGING_SEVERITY_LEVEL severity, bool toSystemLog, const std::string& message,
                          const char* file, const char* function, int line);

// Tests replace the system log to see what reaches it; nullptr restores syslog(3).
using SystemLogSink = void (*)(int priority, const char* message);
void SetSystemLogSink(SystemLogSink sink);

// A dry run (tessel-networkctl plan) takes each entry whole, with the
// function that made it, in place of both outputs; nullptr puts them back.
using EntrySink = void (*)(LOGGING_SEVERITY_LEVEL severity, const char* function, const std::string& message);
void SetEntrySink(EntrySink sink);

}  // namespace Logging

// Logs with the caller's location: its path from the repository root, its plain
// function name and its line.
#define LOG_ENTRY(severity, toSystemLog, message) \
    Logging::AddEntryWithLocation(Logging::severity, (toSystemLog), (message), __FILE__, __func__, __LINE__)
