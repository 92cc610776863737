#include "logging/Logging.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/FixedClock.h"

namespace {

// Standard output goes to `fd` while in scope; Restore() ends it early so that
// assertions print where they should.
class StdoutTo {
public:
    explicit StdoutTo(int fd) {
        fflush(stdout);
        m_saved = dup(STDOUT_FILENO);
        dup2(fd, STDOUT_FILENO);
    }
    ~StdoutTo() { Restore(); }
    StdoutTo(const StdoutTo&) = delete;
    StdoutTo& operator=(const StdoutTo&) = delete;
    void Restore() {
        if (m_saved < 0) return;
        fflush(stdout);
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
        m_saved = -1;
    }

private:
    int m_saved = -1;
};

// A pipe whose reading end never blocks: reading gives what was written so far.
class Pipe {
public:
    Pipe() {
        if (pipe2(m_fds, O_CLOEXEC) != 0) ADD_FAILURE() << "pipe2 failed";
        fcntl(m_fds[0], F_SETFL, O_NONBLOCK);
    }
    ~Pipe() {
        close(m_fds[0]);
        close(m_fds[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int ReadEnd() const { return m_fds[0]; }
    int WriteEnd() const { return m_fds[1]; }
    std::string ReadAvailable() const {
        std::string text;
        char buffer[4096];
        ssize_t n;
        while ((n = read(m_fds[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
        return text;
    }

private:
    int m_fds[2] = {-1, -1};
};

// What reached the system log, as "<priority> message".
std::vector<std::string> g_systemLog;
void RecordSystemLog(int priority, const char* message) {
    g_systemLog.push_back("<" + std::to_string(priority) + "> " + message);
}

// The local time of `when` as the entries print it, from the C library's own conversion.
std::string LocalStamp(const timespec& when) {
    struct tm local {};
    localtime_r(&when.tv_sec, &local);
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    char millis[24];
    snprintf(millis, sizeof millis, ".%03ld", when.tv_nsec / 1000000);
    return std::string(text) + millis;
}

timespec Now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start) + "<no line feed>");
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

const std::regex kStampPattern(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}$)");

// Splits "STAMP REST" of one line; false when the stamp is malformed.
bool SplitStamp(const std::string& line, std::string& stamp, std::string& rest) {
    if (line.size() < 24 || line[23] != ' ') return false;
    stamp = line.substr(0, 23);
    rest = line.substr(24);
    return std::regex_match(stamp, kStampPattern);
}

// One line taken apart. The message is split off first, at the first ": " (the
// header has none before it): std::regex recurses per character and would overflow
// the stack on the long messages these tests log.
struct Entry {
    std::string stamp;
    std::string level;
    std::string file;
    int line = 0;
    std::string function;
    std::string message;
};

bool ParseEntry(const std::string& text, Entry& entry) {
    static const std::regex head(
        R"(^(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}) ([A-Z]+) ([^ :]+):(\d+) ([A-Za-z_]+)$)");
    size_t colon = text.find(": ");
    if (colon == std::string::npos) return false;
    std::string header = text.substr(0, colon);
    std::smatch match;
    if (!std::regex_match(header, match, head)) return false;
    entry.stamp = match.str(1);
    entry.level = match.str(2);
    entry.file = match.str(3);
    entry.line = std::stoi(match.str(4));
    entry.function = match.str(5);
    entry.message = text.substr(colon + 2);
    return true;
}

// "LEVEL FILE FUNCTION: MESSAGE" of a well-formed line (its line number dropped), or "" when malformed.
std::string WithoutStampAndLine(const std::string& line) {
    Entry entry;
    if (!ParseEntry(line, entry)) return "";
    return entry.level + " " + entry.file + " " + entry.function + ": " + entry.message;
}

int g_helperLine = 0;
void LogFromHelper(const std::string& message) {
    g_helperLine = __LINE__ + 1;
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, message);
}

class LoggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tz = getenv("TZ");
        m_hadTz = tz != nullptr;
        if (m_hadTz) m_savedTz = tz;
        g_systemLog.clear();
        Logging::SetLogToStdout(true);
        Logging::SetLogLevel(Logging::LOGGING_SEVERITY_DEBUG);
        Logging::SetSystemLogSink(&RecordSystemLog);
    }
    void TearDown() override {
        Logging::SetSystemLogSink(nullptr);
        Logging::SetLogToStdout(true);
        Logging::SetLogLevel(Logging::LOGGING_SEVERITY_INFO);
        if (m_hadTz) {
            setenv("TZ", m_savedTz.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    // A zone away from UTC, so that an entry in UTC cannot pass for local time.
    static void UseZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

private:
    bool m_hadTz = false;
    std::string m_savedTz;
};

// --- Line format ------------------------------------------------------------------

TEST_F(LoggingTest, LineHasLocalTimeLevelFileLineFunctionAndMessage) {
    for (const char* zone : {"XST-5:30", "YST+7", "UTC0"}) {
        UseZone(zone);
        Pipe pipe;
        StdoutTo redirect(pipe.WriteEnd());
        timespec before = Now();
        LogFromHelper("hello, world");
        timespec after = Now();
        std::string text = pipe.ReadAvailable();
        redirect.Restore();

        SCOPED_TRACE(zone);
        std::string stamp;
        std::string rest;
        ASSERT_TRUE(SplitStamp(text, stamp, rest)) << text;
        EXPECT_EQ(rest, "INFO tests/unit/logging/LoggingTest.cpp:" + std::to_string(g_helperLine) +
                            " LogFromHelper: hello, world\n");
        EXPECT_LE(LocalStamp(before), stamp);
        EXPECT_GE(LocalStamp(after), stamp);
    }
}

struct Stamped {
    long long seconds;  // since 1970-01-01 00:00:00 UTC
    long nanoseconds;
    const char* zone;
    const char* stamp;
};

// Around and past the end of a 32-bit time_t, in zones written out as rules (no
// time-zone files needed): UTC, fixed offsets either side, one with summer time.
TEST_F(LoggingTest, StampsAroundAndPastTheEndOf32BitTime) {
    const char* utc = "UTC0";
    const char* east = "XST-5:30";
    const char* west = "YST+7";
    const char* centralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
    const Stamped cases[] = {
        {2147483647LL, 999999999L, utc, "2038-01-19 03:14:07.999"},
        {2147483647LL, 999999999L, east, "2038-01-19 08:44:07.999"},
        {2147483647LL, 999999999L, west, "2038-01-18 20:14:07.999"},
        {2147483647LL, 999999999L, centralEurope, "2038-01-19 04:14:07.999"},
        {2147483648LL, 0L, utc, "2038-01-19 03:14:08.000"},
        {2147483648LL, 0L, east, "2038-01-19 08:44:08.000"},
        {2147483648LL, 0L, west, "2038-01-18 20:14:08.000"},
        {2147483648LL, 0L, centralEurope, "2038-01-19 04:14:08.000"},
        {2214172799LL, 123456789L, utc, "2040-02-29 23:59:59.123"},
        {2214172799LL, 123456789L, east, "2040-03-01 05:29:59.123"},
        {2214172799LL, 123456789L, west, "2040-02-29 16:59:59.123"},
        {2214172799LL, 123456789L, centralEurope, "2040-03-01 00:59:59.123"},
        {2224756800LL, 1000000L, utc, "2040-07-01 12:00:00.001"},
        {2224756800LL, 1000000L, east, "2040-07-01 17:30:00.001"},
        {2224756800LL, 1000000L, west, "2040-07-01 05:00:00.001"},
        {2224756800LL, 1000000L, centralEurope, "2040-07-01 14:00:00.001"},
        {4294967296LL, 500000000L, utc, "2106-02-07 06:28:16.500"},
        {4294967296LL, 500000000L, east, "2106-02-07 11:58:16.500"},
        {4294967296LL, 500000000L, west, "2106-02-06 23:28:16.500"},
        {4294967296LL, 500000000L, centralEurope, "2106-02-07 07:28:16.500"},
    };
    for (const Stamped& expected : cases) {
        SCOPED_TRACE(std::to_string(expected.seconds) + " in " + expected.zone);
        UseZone(expected.zone);
        FixedClock clock(expected.seconds, expected.nanoseconds);
        Pipe pipe;
        StdoutTo redirect(pipe.WriteEnd());
        LogFromHelper("past 2038");
        std::string text = pipe.ReadAvailable();
        redirect.Restore();
        EXPECT_EQ(text, std::string(expected.stamp) + " INFO tests/unit/logging/LoggingTest.cpp:" +
                            std::to_string(g_helperLine) + " LogFromHelper: past 2038\n");
    }
}

std::vector<std::string>* g_sunk = nullptr;

void Sink(Logging::LOGGING_SEVERITY_LEVEL severity, const char* function, const std::string& message) {
    g_sunk->push_back(std::string(Logging::SeverityName(severity)) + " " + function + ": " + message);
}

// A dry run's sink takes each entry whole, and nothing reaches either output.
TEST_F(LoggingTest, AnEntrySinkTakesEveryEntryInPlaceOfBothOutputs) {
    std::vector<std::string> sunk;
    g_sunk = &sunk;
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    Logging::SetEntrySink(Sink);
    LogFromHelper("hello, world");
    Logging::AddEntryWithLocation(Logging::LOGGING_SEVERITY_WARN, true, "to the system log too", "f.cpp", "Fn", 1);
    Logging::SetEntrySink(nullptr);
    const std::string text = pipe.ReadAvailable();
    redirect.Restore();
    g_sunk = nullptr;
    EXPECT_EQ(text, "");
    EXPECT_EQ(sunk, (std::vector<std::string>{"INFO LogFromHelper: hello, world", "WARN Fn: to the system log too"}));
}

TEST_F(LoggingTest, LocationIsPrintedAsGiven) {
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    Logging::AddEntryWithLocation(Logging::LOGGING_SEVERITY_ERROR, false, "Unable to read configuration file",
                                  "src/NetworkConfig.cpp", "ParseConfigFile", 1234);
    std::string text = pipe.ReadAvailable();
    redirect.Restore();
    std::string stamp;
    std::string rest;
    ASSERT_TRUE(SplitStamp(text, stamp, rest)) << text;
    EXPECT_EQ(rest, "ERROR src/NetworkConfig.cpp:1234 ParseConfigFile: Unable to read configuration file\n");
}

TEST_F(LoggingTest, EmptyMessageStillMakesALine) {
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    Logging::AddEntryWithLocation(Logging::LOGGING_SEVERITY_WARN, false, "", "src/main.cpp", "main", 7);
    std::string text = pipe.ReadAvailable();
    redirect.Restore();
    std::string stamp;
    std::string rest;
    ASSERT_TRUE(SplitStamp(text, stamp, rest)) << text;
    EXPECT_EQ(rest, "WARN src/main.cpp:7 main: \n");
}

TEST_F(LoggingTest, LevelNamesOfEverySeverity) {
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    for (int severity = 0; severity <= 7; severity++) {
        Logging::AddEntryWithLocation(static_cast<Logging::LOGGING_SEVERITY_LEVEL>(severity), false, "m", "f.cpp", "F",
                                      severity);
    }
    std::string text = pipe.ReadAvailable();
    redirect.Restore();
    std::vector<std::string> rests;
    for (const std::string& line : SplitLines(text)) {
        std::string stamp;
        std::string rest;
        EXPECT_TRUE(SplitStamp(line, stamp, rest)) << line;
        rests.push_back(rest);
    }
    EXPECT_EQ(rests, (std::vector<std::string>{"EMERG f.cpp:0 F: m", "ALERT f.cpp:1 F: m", "CRIT f.cpp:2 F: m",
                                               "ERROR f.cpp:3 F: m", "WARN f.cpp:4 F: m", "NOTICE f.cpp:5 F: m",
                                               "INFO f.cpp:6 F: m", "DEBUG f.cpp:7 F: m"}));
}

// --- Level ----------------------------------------------------------------------------

TEST_F(LoggingTest, EntriesAboveTheLevelAreDropped) {
    for (int level = 0; level <= 7; level++) {
        SCOPED_TRACE("level " + std::to_string(level));
        Logging::SetLogLevel(static_cast<Logging::LOGGING_SEVERITY_LEVEL>(level));
        g_systemLog.clear();
        Pipe pipe;
        StdoutTo redirect(pipe.WriteEnd());
        for (int severity = 0; severity <= 7; severity++) {
            Logging::AddEntryWithLocation(static_cast<Logging::LOGGING_SEVERITY_LEVEL>(severity), true,
                                          std::to_string(severity), "f.cpp", "F", 1);
        }
        std::string text = pipe.ReadAvailable();
        redirect.Restore();
        std::vector<std::string> messages;
        for (const std::string& line : SplitLines(text)) messages.push_back(line.substr(line.rfind(' ') + 1));
        std::vector<std::string> expected;
        std::vector<std::string> expectedSystemLog;
        for (int severity = 0; severity <= level; severity++) {
            expected.push_back(std::to_string(severity));
            // Appended piece by piece: GCC 12 takes "<" + std::string for an
            // overlapping copy at -O3 (-Wrestrict), a false alarm.
            std::string line = "<";
            line += std::to_string(severity);
            line += "> ";
            line += std::to_string(severity);
            expectedSystemLog.push_back(std::move(line));
        }
        EXPECT_EQ(messages, expected);
        EXPECT_EQ(g_systemLog, expectedSystemLog);
    }
}

TEST_F(LoggingTest, DaemonLevelKeepsInfoAndDropsDebug) {
    Logging::SetLogLevel(Logging::LOGGING_SEVERITY_INFO);
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    LOG_ENTRY(LOGGING_SEVERITY_DEBUG, false, "debug detail");
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "progress");
    std::string text = pipe.ReadAvailable();
    redirect.Restore();
    std::vector<std::string> lines = SplitLines(text);
    ASSERT_EQ(lines.size(), 1U) << text;
    EXPECT_EQ(lines[0].substr(lines[0].rfind(": ")), ": progress");
}

// --- Destinations ---------------------------------------------------------------------

TEST_F(LoggingTest, OffStdoutAnEntryGoesToTheSystemLogOnly) {
    Logging::SetLogToStdout(false);
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Unable to read configuration file");
    LOG_ENTRY(LOGGING_SEVERITY_INFO, true, "flagged");
    std::string text = pipe.ReadAvailable();
    redirect.Restore();
    EXPECT_EQ(text, "");
    EXPECT_EQ(g_systemLog, (std::vector<std::string>{"<3> Unable to read configuration file", "<6> flagged"}));
}

TEST_F(LoggingTest, OnStdoutOnlyFlaggedEntriesAlsoReachTheSystemLog) {
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "plain");
    LOG_ENTRY(LOGGING_SEVERITY_INFO, true, "both ways");
    std::string text = pipe.ReadAvailable();
    redirect.Restore();
    std::vector<std::string> lines = SplitLines(text);
    ASSERT_EQ(lines.size(), 2U) << text;
    EXPECT_NE(lines[0].find(" WARN tests/unit/logging/LoggingTest.cpp:"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[0].substr(lines[0].rfind(": ")), ": plain");
    EXPECT_NE(lines[1].find(" INFO tests/unit/logging/LoggingTest.cpp:"), std::string::npos) << lines[1];
    EXPECT_EQ(lines[1].substr(lines[1].rfind(": ")), ": both ways");
    EXPECT_EQ(g_systemLog, (std::vector<std::string>{"<6> both ways"}));
}

TEST_F(LoggingTest, SwitchingBackToStdoutStopsTheSystemLog) {
    Logging::SetLogToStdout(false);
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "to the system log");
    Logging::SetLogToStdout(true);
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "to stdout");
    std::string text = pipe.ReadAvailable();
    redirect.Restore();
    EXPECT_EQ(SplitLines(text).size(), 1U) << text;
    EXPECT_EQ(g_systemLog, (std::vector<std::string>{"<6> to the system log"}));
}

// --- Whole lines, at once -------------------------------------------------------------

TEST_F(LoggingTest, EachEntryIsInThePipeAsSoonAsTheCallReturns) {
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    std::vector<std::string> seen;
    for (const std::string& message : {std::string("first"), std::string("second"), std::string(5000, 'x')}) {
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, message);
        seen.push_back(pipe.ReadAvailable());  // no flush in between
    }
    redirect.Restore();
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen[0].substr(seen[0].rfind(": ")), ": first\n");
    EXPECT_EQ(seen[1].substr(seen[1].rfind(": ")), ": second\n");
    EXPECT_EQ(seen[2].substr(seen[2].rfind(": ")), ": " + std::string(5000, 'x') + "\n");
    for (const std::string& text : seen) EXPECT_EQ(SplitLines(text).size(), 1U) << text;
}

TEST_F(LoggingTest, LongMessagesStayOneWholeLine) {
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    LogFromHelper("probe");
    std::string probe = pipe.ReadAvailable();
    // Same function and line: every entry below has the same header length.
    size_t header = probe.size() - std::string("probe\n").size();
    std::vector<size_t> sizes;
    for (size_t total : {4095, 4096, 4097, 8192, 60000}) sizes.push_back(total - header - 1);
    std::vector<std::string> texts;
    for (size_t size : sizes) {
        std::string message(size, 'a');
        message[0] = '<';
        message[size - 1] = '>';
        LogFromHelper(message);
        texts.push_back(pipe.ReadAvailable());
    }
    redirect.Restore();
    ASSERT_EQ(texts.size(), sizes.size());
    for (size_t i = 0; i < sizes.size(); i++) {
        SCOPED_TRACE("message of " + std::to_string(sizes[i]) + " bytes");
        const std::string& text = texts[i];
        std::string stamp;
        std::string rest;
        ASSERT_TRUE(SplitStamp(text, stamp, rest)) << text.substr(0, 100);
        EXPECT_EQ(text.size(), header + sizes[i] + 1);
        EXPECT_EQ(text.find('\n'), text.size() - 1);
        std::string expectedMessage(sizes[i], 'a');
        expectedMessage.front() = '<';
        expectedMessage.back() = '>';
        EXPECT_TRUE(rest == "INFO tests/unit/logging/LoggingTest.cpp:" + std::to_string(g_helperLine) +
                                " LogFromHelper: " + expectedMessage + "\n");
    }
}

// --- Re-entry from a signal handler ---------------------------------------------------

volatile sig_atomic_t g_raiseFromSink = 0;
volatile sig_atomic_t g_handled = 0;
const std::string* g_handlerMessage = nullptr;  // built before any signal, so the handler does not allocate

void LogFromSignalHandler(int) {
    g_handled = g_handled + 1;
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, *g_handlerMessage);
}

// Raises the signal in the middle of the outer entry, once.
void RaisingSink(int priority, const char* message) {
    RecordSystemLog(priority, message);
    if (g_raiseFromSink) {
        g_raiseFromSink = 0;
        raise(SIGUSR1);
    }
}

class SignalHandler {
public:
    SignalHandler(int sig, void (*handler)(int)) : m_sig(sig) {
        struct sigaction action {};
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        sigaction(sig, &action, &m_previous);
    }
    ~SignalHandler() { sigaction(m_sig, &m_previous, nullptr); }
    SignalHandler(const SignalHandler&) = delete;
    SignalHandler& operator=(const SignalHandler&) = delete;

private:
    int m_sig;
    struct sigaction m_previous {};
};

TEST_F(LoggingTest, HandlerLoggingDuringAFlaggedEntryGivesTwoWholeLines) {
    UseZone("XST-5:30");
    static const std::string handlerMessage = "SigHandler: Caught signal: 10, shutting down...";
    g_handlerMessage = &handlerMessage;
    g_handled = 0;
    SignalHandler handler(SIGUSR1, LogFromSignalHandler);
    Logging::SetSystemLogSink(&RaisingSink);
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    timespec before = Now();
    g_raiseFromSink = 1;
    LOG_ENTRY(LOGGING_SEVERITY_WARN, true, "outer entry");
    timespec after = Now();
    std::string text = pipe.ReadAvailable();
    redirect.Restore();

    EXPECT_EQ(g_handled, 1);
    std::vector<std::string> rests;
    for (const std::string& line : SplitLines(text)) {
        std::string stamp;
        std::string rest;
        EXPECT_TRUE(SplitStamp(line, stamp, rest)) << line;
        EXPECT_LE(LocalStamp(before), stamp);
        EXPECT_GE(LocalStamp(after), stamp);
        rests.push_back(WithoutStampAndLine(line));
    }
    EXPECT_EQ(rests, (std::vector<std::string>{
                         "WARN tests/unit/logging/LoggingTest.cpp TestBody: outer entry",
                         "INFO tests/unit/logging/LoggingTest.cpp LogFromSignalHandler: " + handlerMessage}));
    EXPECT_EQ(g_systemLog, (std::vector<std::string>{"<4> outer entry"}));
}

TEST_F(LoggingTest, HandlerLoggingDuringASystemLogEntryReachesTheSystemLogToo) {
    static const std::string handlerMessage = "from the handler";
    g_handlerMessage = &handlerMessage;
    g_handled = 0;
    SignalHandler handler(SIGUSR1, LogFromSignalHandler);
    Logging::SetSystemLogSink(&RaisingSink);
    Logging::SetLogToStdout(false);
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    g_raiseFromSink = 1;
    LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "outer entry");
    std::string text = pipe.ReadAvailable();
    redirect.Restore();
    EXPECT_EQ(g_handled, 1);
    EXPECT_EQ(text, "");
    EXPECT_EQ(g_systemLog, (std::vector<std::string>{"<3> outer entry", "<6> from the handler"}));
}

// A reader on the far side of a one-page pipe lets the outer entry fill it, so
// the write waits half done; a signal then arrives, and its handler logs.
TEST_F(LoggingTest, HandlerLoggingWhileAnEntryWaitsOnAFullPipeGivesTwoWholeLines) {
    static const std::string handlerMessage = "SigHandler: Caught signal: 10, shutting down...";
    g_handlerMessage = &handlerMessage;
    g_handled = 0;
    SignalHandler handler(SIGUSR1, LogFromSignalHandler);
    Pipe pipe;
    ASSERT_GT(fcntl(pipe.WriteEnd(), F_SETPIPE_SZ, 4096), 0);
    int capacity = fcntl(pipe.WriteEnd(), F_GETPIPE_SZ);
    const std::string outer(8 * static_cast<size_t>(capacity), 'o');
    pthread_t logger = pthread_self();
    std::string text;
    bool sawFullPipe = false;
    StdoutTo redirect(pipe.WriteEnd());
    std::thread reader([&] {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        int queued = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            if (ioctl(pipe.ReadEnd(), FIONREAD, &queued) == 0 && queued >= capacity) break;
            usleep(1000);
        }
        sawFullPipe = queued >= capacity;
        pthread_kill(logger, SIGUSR1);
        // Both lines complete, or give up so that a broken facility fails instead of hanging.
        while (std::chrono::steady_clock::now() < deadline && std::count(text.begin(), text.end(), '\n') < 2) {
            text += pipe.ReadAvailable();
            usleep(1000);
        }
    });
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, outer);
    reader.join();
    redirect.Restore();

    EXPECT_TRUE(sawFullPipe);
    EXPECT_EQ(g_handled, 1);
    std::vector<std::string> rests;
    for (const std::string& line : SplitLines(text)) {
        std::string stamp;
        std::string rest;
        EXPECT_TRUE(SplitStamp(line, stamp, rest)) << line.substr(0, 200);
        rests.push_back(WithoutStampAndLine(line));
    }
    ASSERT_EQ(rests.size(), 2U) << text.substr(0, 400);
    EXPECT_TRUE(rests[0] == "INFO tests/unit/logging/LoggingTest.cpp TestBody: " + outer) << rests[0].substr(0, 200);
    EXPECT_EQ(rests[1], "INFO tests/unit/logging/LoggingTest.cpp LogFromSignalHandler: " + handlerMessage);
}

// A timer interrupts a stream of entries at arbitrary points; each interruption
// logs from the handler. Every line must still be whole and in local time.
TEST_F(LoggingTest, EntriesInterruptedAnywhereStayWholeLines) {
    UseZone("XST-5:30");
    static const std::string handlerMessage = "interrupting entry";
    g_handlerMessage = &handlerMessage;
    g_handled = 0;
    std::vector<std::string> messages;
    messages.reserve(4000);
    for (int i = 0; i < 4000; i++) {
        messages.push_back("entry " + std::to_string(i) + " " + std::string(i % 50 == 0 ? 5000 : 200, 'z'));
    }
    int capture = memfd_create("log-interrupted", MFD_CLOEXEC);
    ASSERT_GE(capture, 0);
    StdoutTo redirect(capture);
    LogFromHelper("before the timer");  // the outermost call learns the zone's offset
    timespec before = Now();
    size_t logged = 0;
    {
        SignalHandler handler(SIGALRM, LogFromSignalHandler);
        struct itimerval every = {{0, 150}, {0, 150}};
        setitimer(ITIMER_REAL, &every, nullptr);
        while (logged < messages.size() && (logged < 500 || g_handled < 200)) {
            LOG_ENTRY(LOGGING_SEVERITY_INFO, false, messages[logged]);
            logged++;
        }
        struct itimerval off = {{0, 0}, {0, 0}};
        setitimer(ITIMER_REAL, &off, nullptr);
    }
    timespec after = Now();
    redirect.Restore();
    std::string text;
    char buffer[65536];
    ssize_t n;
    off_t offset = 0;
    while ((n = pread(capture, buffer, sizeof buffer, offset)) > 0) {
        text.append(buffer, static_cast<size_t>(n));
        offset += n;
    }
    close(capture);

    size_t handlerLines = 0;
    size_t next = 0;
    size_t malformed = 0;
    std::string lowest = LocalStamp(before);
    std::string highest = LocalStamp(after);
    std::vector<std::string> lines = SplitLines(text);
    ASSERT_FALSE(lines.empty());
    lines.erase(lines.begin());  // the entry before the timer
    for (const std::string& line : lines) {
        Entry entry;
        if (!ParseEntry(line, entry) || entry.level != "INFO" || entry.file != "tests/unit/logging/LoggingTest.cpp" ||
            entry.stamp < lowest || entry.stamp > highest) {
            if (malformed++ < 3) ADD_FAILURE() << "bad line: " << line.substr(0, 200);
            continue;
        }
        if (entry.function == "LogFromSignalHandler" && entry.message == handlerMessage) {
            handlerLines++;
        } else if (next < logged && entry.function == "TestBody" && entry.message == messages[next]) {
            next++;
        } else if (malformed++ < 3) {
            ADD_FAILURE() << "unexpected line: " << line.substr(0, 200);
        }
    }
    EXPECT_EQ(malformed, 0U);
    EXPECT_EQ(next, logged);
    EXPECT_EQ(handlerLines, static_cast<size_t>(g_handled));
    EXPECT_GT(g_handled, 0);
}

// --- The journal's priority prefix ---------------------------------------------------

// $JOURNAL_STREAM set to `value` while in scope; afterwards unset and the prefix
// decision taken again, so no later test sees it.
class JournalStream {
public:
    explicit JournalStream(const std::string& value) { setenv("JOURNAL_STREAM", value.c_str(), 1); }
    ~JournalStream() {
        unsetenv("JOURNAL_STREAM");
        Logging::UsePriorityPrefixIfStdoutIsJournal();
    }
    JournalStream(const JournalStream&) = delete;
    JournalStream& operator=(const JournalStream&) = delete;
};

// "DEVICE:INODE" of what standard output is open on.
std::string StdoutStream() {
    struct stat out {};
    if (fstat(STDOUT_FILENO, &out) != 0) return "unknown";
    return std::to_string(static_cast<unsigned long long>(out.st_dev)) + ":" +
           std::to_string(static_cast<unsigned long long>(out.st_ino));
}

// One entry of each severity on a pipe, after the decision under `stream`
// ("" names the pipe itself). Returns the text and whether the prefix was chosen.
std::string EveryLevelUnder(const std::string& stream, bool& chosen) {
    Pipe pipe;
    StdoutTo redirect(pipe.WriteEnd());
    JournalStream journal(stream.empty() ? StdoutStream() : stream);
    chosen = Logging::UsePriorityPrefixIfStdoutIsJournal();
    for (int severity = Logging::LOGGING_SEVERITY_EMERG; severity <= Logging::LOGGING_SEVERITY_DEBUG; ++severity) {
        Logging::AddEntryWithLocation(static_cast<Logging::LOGGING_SEVERITY_LEVEL>(severity), false, "entry", "f.cpp",
                                      "Fn", 7);
    }
    std::string text = pipe.ReadAvailable();
    redirect.Restore();
    return text;
}

TEST_F(LoggingTest, EntriesToTheJournalStreamStartWithTheirPriority) {
    bool chosen = false;
    std::vector<std::string> lines = SplitLines(EveryLevelUnder("", chosen));
    EXPECT_TRUE(chosen);
    const char* const levels[] = {"EMERG", "ALERT", "CRIT", "ERROR", "WARN", "NOTICE", "INFO", "DEBUG"};
    ASSERT_EQ(lines.size(), 8U);
    for (size_t severity = 0; severity < lines.size(); ++severity) {
        SCOPED_TRACE(severity);
        const std::string prefix = "<" + std::to_string(severity) + ">";
        ASSERT_EQ(lines[severity].rfind(prefix, 0), 0U) << lines[severity];
        // Behind the prefix, the line exactly as anywhere else.
        EXPECT_EQ(WithoutStampAndLine(lines[severity].substr(prefix.size())),
                  std::string(levels[severity]) + " f.cpp Fn: entry");
    }
}

TEST_F(LoggingTest, LinesStayAsTheyAreWhenStdoutIsNotTheJournalStream) {
    struct stat out {};
    ASSERT_EQ(fstat(STDOUT_FILENO, &out), 0);
    const std::string device = std::to_string(static_cast<unsigned long long>(out.st_dev));
    // Another file's, malformed, or with more than the two numbers.
    for (const std::string& stream :
         {std::string("1:1"), device + ":", ":" + device, std::string("12"), std::string("a:b"), std::string(":"),
          std::string("1:2:3"), std::string(" 1:2"), std::string("-1:-1"), std::string("99999999999999999999999:1"),
          std::string("0x1:0x2")}) {
        SCOPED_TRACE(stream);
        bool chosen = true;
        std::vector<std::string> lines = SplitLines(EveryLevelUnder(stream, chosen));
        EXPECT_FALSE(chosen);
        ASSERT_EQ(lines.size(), 8U);
        for (const std::string& line : lines) EXPECT_NE(WithoutStampAndLine(line), "") << line;
    }
    // None at all.
    unsetenv("JOURNAL_STREAM");
    EXPECT_FALSE(Logging::UsePriorityPrefixIfStdoutIsJournal());
}

TEST_F(LoggingTest, TheJournalStreamOfAnotherDescriptorDoesNotCount) {
    // The pipe the entries go to is not the one JOURNAL_STREAM names.
    Pipe named;
    struct stat other {};
    ASSERT_EQ(fstat(named.WriteEnd(), &other), 0);
    bool chosen = true;
    std::string text = EveryLevelUnder(std::to_string(static_cast<unsigned long long>(other.st_dev)) + ":" +
                                           std::to_string(static_cast<unsigned long long>(other.st_ino)),
                                       chosen);
    EXPECT_FALSE(chosen);
    EXPECT_EQ(text.find('<'), std::string::npos) << text;
}

}  // namespace
