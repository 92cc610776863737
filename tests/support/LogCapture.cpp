#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>
#include <utility>

#include "logging/Logging.h"
#include "tests/support/Files.h"

LogCapture* LogCapture::s_active = nullptr;

LogCapture::LogCapture() {
    fflush(stdout);
    m_captureFd = memfd_create("log-capture", 0);
    m_savedStdout = dup(STDOUT_FILENO);
    dup2(m_captureFd, STDOUT_FILENO);
    Logging::SetLogToStdout(true);
    Logging::SetLogLevel(Logging::LOGGING_SEVERITY_DEBUG);
    Logging::SetSystemLogSink(&LogCapture::SystemLogSink);
    s_active = this;
}

LogCapture::~LogCapture() {
    s_active = nullptr;
    Logging::SetSystemLogSink(nullptr);
    fflush(stdout);
    dup2(m_savedStdout, STDOUT_FILENO);
    close(m_savedStdout);
    close(m_captureFd);
}

void LogCapture::SystemLogSink(int priority, const char* message) {
    if (s_active == nullptr) return;
    // Appended piece by piece: GCC 12 takes "<" + std::string for an overlapping
    // copy at -O3 (-Wrestrict), a false alarm that would stop a Release build.
    std::string line = "<";
    line += std::to_string(priority);
    line += "> ";
    line += message;
    s_active->m_systemLog.push_back(std::move(line));
}

namespace {

// Noted events go into the same stream as the entries, so the order is the one
// they happened in. An entry's line starts with its date, never with these.
const char* const kCommandMark = "$ ";
const char* const kPauseMark = "pause ";
// A command's further lines (a batch's here-document), as a shell prompts for them.
const char* const kContinuationMark = "> ";

void NoteLine(const std::string& line) {
    std::string text = line + "\n";
    ssize_t ignored = write(STDOUT_FILENO, text.data(), text.size());
    (void)ignored;
}

bool IsNoted(const std::string& line) {
    return line.rfind(kCommandMark, 0) == 0 || line.rfind(kPauseMark, 0) == 0 || line.rfind(kContinuationMark, 0) == 0;
}

}  // namespace

void LogCapture::NoteCommand(const std::string& command) {
    if (s_active == nullptr) return;
    size_t start = 0;
    for (const char* mark = kCommandMark;; mark = kContinuationMark) {
        const size_t end = command.find('\n', start);
        NoteLine(mark + command.substr(start, end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
}

void LogCapture::NotePause(unsigned int milliseconds) {
    if (s_active != nullptr) NoteLine(kPauseMark + std::to_string(milliseconds) + " ms");
}

std::string LogCapture::Raw() {
    fflush(stdout);
    std::string text;
    char buffer[4096];
    off_t offset = 0;
    ssize_t n;
    while ((n = pread(m_captureFd, buffer, sizeof buffer, offset)) > 0) {
        text.append(buffer, static_cast<size_t>(n));
        offset += n;
    }
    return text;
}

namespace {

// "EMERG|ALERT|...|DEBUG", from the facility's own names.
std::string SeverityAlternatives() {
    std::string names;
    for (int severity = Logging::LOGGING_SEVERITY_EMERG; severity <= Logging::LOGGING_SEVERITY_DEBUG; ++severity) {
        if (!names.empty()) names += '|';
        names += Logging::SeverityName(severity);
    }
    return names;
}

}  // namespace

bool ParseLogLine(const std::string& line, LogEntry& entry) {
    static const std::regex pattern(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} ()" + SeverityAlternatives() +
                                    R"() ([^ :]+):(\d+) ([A-Za-z_][A-Za-z0-9_]*): (.*)$)");
    std::smatch match;
    if (!std::regex_match(line, match, pattern)) return false;
    entry.level = match[1];
    entry.file = match[2];
    entry.line = std::stoi(match[3]);
    entry.function = match[4];
    entry.message = match[5];
    return true;
}

std::vector<std::string> LogCapture::Timeline() {
    std::vector<std::string> timeline;
    for (const std::string& line : SplitLines(Raw())) {
        if (IsNoted(line)) {
            timeline.push_back(line);
            continue;
        }
        LogEntry entry;
        if (ParseLogLine(line, entry)) {
            timeline.push_back(entry.level + " " + entry.function + ": " + entry.message);
        } else {
            ADD_FAILURE() << "not a log entry: " << line;
        }
    }
    return timeline;
}

std::vector<LogEntry> LogCapture::Entries() {
    std::vector<LogEntry> entries;
    for (const std::string& line : SplitLines(Raw())) {
        if (IsNoted(line)) continue;
        LogEntry entry;
        if (ParseLogLine(line, entry)) {
            entries.push_back(entry);
        } else {
            ADD_FAILURE() << "not a log entry: " << line;
        }
    }
    return entries;
}

std::vector<std::string> LogCapture::Messages() {
    std::vector<std::string> messages;
    for (const LogEntry& entry : Entries())
        messages.push_back(entry.level + " " + entry.function + ": " + entry.message);
    return messages;
}
