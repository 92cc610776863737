#include "logging/Logging.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "util/Format.h"

namespace Logging {

namespace {

std::atomic<int> s_level{LOGGING_SEVERITY_INFO};
std::atomic<bool> s_toStdout{true};
std::atomic<SystemLogSink> s_systemLogSink{nullptr};
std::atomic<EntrySink> s_entrySink{nullptr};
std::atomic<bool> s_priorityPrefix{false};

const char* const kLevelNames[] = {"EMERG", "ALERT", "CRIT", "ERROR", "WARN", "NOTICE", "INFO", "DEBUG"};

// Appends without the C library's formatting, which is not safe in a signal handler.
class LineBuilder {
public:
    LineBuilder(char* buffer, size_t size) : m_buffer(buffer), m_size(size) {}

    void Text(const char* text, size_t length) {
        size_t room = m_size - m_length;
        size_t take = length < room ? length : room;
        memcpy(m_buffer + m_length, text, take);
        m_length += take;
    }
    void Text(const char* text) { Text(text, strlen(text)); }
    void Char(char c) { Text(&c, 1); }
    void Number(long long value, int width) {
        char digits[24];
        int n = 0;
        bool negative = value < 0;
        unsigned long long magnitude =
            negative ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
        do {
            digits[n++] = static_cast<char>('0' + magnitude % 10);
            magnitude /= 10;
        } while (magnitude != 0);
        while (n < width) digits[n++] = '0';
        if (negative) Char('-');
        while (n > 0) Char(digits[--n]);
    }
    size_t Length() const { return m_length; }

private:
    char* m_buffer;
    size_t m_size;
    size_t m_length = 0;
};

// Civil date from days since 1970-01-01 (proleptic Gregorian).
void CivilFromDays(long long days, long long& year, int& month, int& day) {
    days += 719468;
    long long era = (days >= 0 ? days : days - 146096) / 146097;
    long long doe = days - era * 146097;
    long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    long long mp = (5 * doy + 2) / 153;
    day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    year = yoe + era * 400 + (month <= 2 ? 1 : 0);
}

// long long throughout: on the 32-bit device a long is 32 bits, and the
// seconds since 1970 pass 2^31 in 2038.
void AppendTimestamp(LineBuilder& line) {
    const timespec now = Util::RealTimeNow();
    struct tm local {};
    long long utcOffset = localtime_r(&now.tv_sec, &local) != nullptr ? local.tm_gmtoff : 0;
    long long seconds = static_cast<long long>(now.tv_sec) + utcOffset;
    long long days = seconds / 86400;
    long long secondOfDay = seconds % 86400;
    if (secondOfDay < 0) {
        secondOfDay += 86400;
        days -= 1;
    }
    long long year = 0;
    int month = 0;
    int day = 0;
    CivilFromDays(days, year, month, day);
    line.Number(year, 4);
    line.Char('-');
    line.Number(month, 2);
    line.Char('-');
    line.Number(day, 2);
    line.Char(' ');
    line.Number(secondOfDay / 3600, 2);
    line.Char(':');
    line.Number(secondOfDay % 3600 / 60, 2);
    line.Char(':');
    line.Number(secondOfDay % 60, 2);
    line.Char('.');
    line.Number(now.tv_nsec / 1000000, 3);
}

void WriteAll(const char* data, size_t length) {
    while (length > 0) {
        ssize_t written = write(STDOUT_FILENO, data, length);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;  // nowhere left to report it
        }
        data += written;
        length -= static_cast<size_t>(written);
    }
}

void WriteToSystemLog(LOGGING_SEVERITY_LEVEL severity, const std::string& message) {
    SystemLogSink sink = s_systemLogSink.load();
    if (sink != nullptr) {
        sink(severity, message.c_str());
    } else {
        syslog(LOG_DAEMON | severity, "%s", message.c_str());
    }
}

// Apart and never inlined: its buffers are off the stack when the system log's
// own formatting runs beneath an entry, the deepest call of the daemon's life
// (stack pages stay resident once touched).
[[gnu::noinline]] void WriteEntryToStdout(LOGGING_SEVERITY_LEVEL severity, const std::string& message, const char* file,
                                          const char* function, int line) {
    char header[512];
    LineBuilder builder(header, sizeof header);
    if (s_priorityPrefix.load()) {
        builder.Char('<');
        builder.Number(severity, 1);
        builder.Char('>');
    }
    AppendTimestamp(builder);
    builder.Char(' ');
    builder.Text(SeverityName(severity));
    builder.Char(' ');
    builder.Text(file != nullptr ? file : "?");
    builder.Char(':');
    builder.Number(line, 1);
    builder.Char(' ');
    builder.Text(function != nullptr ? function : "?");
    builder.Text(": ");

    // One write per entry, so lines never interleave with what child
    // commands print on the same descriptor.
    char entry[4096];
    size_t total = builder.Length() + message.size() + 1;
    if (total <= sizeof entry) {
        memcpy(entry, header, builder.Length());
        // The entry is a counted line, not a C string: no terminator is wanted.
        // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
        memcpy(entry + builder.Length(), message.data(), message.size());
        entry[total - 1] = '\n';
        WriteAll(entry, total);
    } else {
        std::string longEntry(header, builder.Length());
        longEntry += message;
        longEntry += '\n';
        WriteAll(longEntry.data(), longEntry.size());
    }
}

// A handler that logs must never run inside an entry: its line would land in
// the middle of this one wherever a write to a pipe or socket is only partly
// done, and it would re-enter localtime_r, which holds the time-zone lock.
// Signals that arrive meanwhile stay pending and are taken once the entry is out.
class SignalsHeld {
public:
    SignalsHeld() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &m_previous);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

private:
    sigset_t m_previous;
};

// One decimal number of `text` up to `end` (not included), nothing else, no sign.
bool ParseDecimal(const char* text, const char* end, unsigned long long& value) {
    if (text == end) return false;
    value = 0;
    for (const char* c = text; c != end; ++c) {
        if (*c < '0' || *c > '9') return false;
        const unsigned long long digit = static_cast<unsigned long long>(*c - '0');
        if (value > (~0ULL - digit) / 10) return false;
        value = value * 10 + digit;
    }
    return true;
}

}  // namespace

bool UsePriorityPrefixIfStdoutIsJournal() {
    bool journal = false;
    // Set by whoever started the daemon: taken only in its exact form.
    const char* stream = getenv("JOURNAL_STREAM");
    const char* colon = stream != nullptr ? strchr(stream, ':') : nullptr;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    struct stat out {};
    if (colon != nullptr && ParseDecimal(stream, colon, device) &&
        ParseDecimal(colon + 1, colon + strlen(colon), inode) && fstat(STDOUT_FILENO, &out) == 0) {
        journal = static_cast<unsigned long long>(out.st_dev) == device &&
                  static_cast<unsigned long long>(out.st_ino) == inode;
    }
    s_priorityPrefix = journal;
    return journal;
}

const char* SeverityName(int severity) {
    return kLevelNames[severity >= LOGGING_SEVERITY_EMERG && severity <= LOGGING_SEVERITY_DEBUG
                           ? severity
                           : LOGGING_SEVERITY_DEBUG];
}

void SetLogLevel(LOGGING_SEVERITY_LEVEL level) { s_level = level; }

void SetLogToStdout(bool toStdout) { s_toStdout = toStdout; }

void SetSystemLogSink(SystemLogSink sink) { s_systemLogSink = sink; }

void SetEntrySink(EntrySink sink) { s_entrySink = sink; }

void AddEntryWithLocation(LOGGING_SEVERITY_LEVEL severity, bool toSystemLog, const std::string& message,
                          const char* file, const char* function, int line) {
    if (severity < LOGGING_SEVERITY_EMERG || severity > LOGGING_SEVERITY_DEBUG) severity = LOGGING_SEVERITY_DEBUG;
    if (severity > s_level.load()) return;
    SignalsHeld held;

    if (EntrySink sink = s_entrySink.load()) {
        sink(severity, function, message);
        return;
    }
    if (s_toStdout.load()) WriteEntryToStdout(severity, message, file, function, line);
    if (!s_toStdout.load() || toSystemLog) WriteToSystemLog(severity, message);
}

}  // namespace Logging
