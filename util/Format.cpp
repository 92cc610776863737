#include "util/Format.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace Util {

namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::string FormatList(const char* format, va_list arguments) {
    // Texts up to 4095 characters, most of them short: formatted on the stack
    // when they fit in 512 bytes, else again into a string of their length. A
    // log entry's formatting is the deepest call of the daemon's life, and
    // the stack's pages stay resident once touched.
    constexpr int kLongest = 4095;
    char buffer[512];
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(buffer, sizeof buffer, format, arguments);
    std::string text;
    if (length < 0) {
        text = "Formatting error";
    } else if (length > kLongest) {
        text = "(truncated)";
    } else if (length < static_cast<int>(sizeof buffer)) {
        text = buffer;
    } else {
        text.resize(static_cast<size_t>(length));
        vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    // Up to the first zero byte: a "%c" of zero ends the text there.
    text.resize(strlen(text.c_str()));
    return text;
}
#pragma GCC diagnostic pop

}  // namespace

std::string Format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = FormatList(format, arguments);
    va_end(arguments);
    return text;
}

std::string FormatFrom(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = FormatList(format, arguments);
    va_end(arguments);
    return text;
}

std::string FormatTimeDurAsDdHhMmSs(const unsigned int& seconds) {
    unsigned int days = seconds / 86400;
    unsigned int hours = (seconds % 86400) / 3600;
    unsigned int minutes = ((seconds % 86400) % 3600) / 60;
    unsigned int secs = ((seconds % 86400) % 3600) % 60;
    return Format("%02u:%02u:%02u:%02u", days, hours, minutes, secs);
}

namespace {

std::atomic<RealTimeClock> s_realTimeClock{nullptr};

std::string FormatLocalNow(const char* format) {
    const timespec now = RealTimeNow();
    const tm* local = localtime(&now.tv_sec);
    if (local == nullptr) return "";
    char buffer[128] = {};
    strftime(buffer, sizeof buffer, format, local);
    return std::string(buffer);
}

}  // namespace

// clock_gettime, not std::chrono::system_clock: the device's C++ library reads
// the clock with a 32-bit time_t, which the build's flags cannot change.
timespec RealTimeNow() {
    const RealTimeClock clock = s_realTimeClock.load();
    if (clock != nullptr) return clock();
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

RealTimeClock SetRealTimeClock(RealTimeClock clock) { return s_realTimeClock.exchange(clock); }

std::string GetSystemDate() { return FormatLocalNow("%D"); }

std::string GetSystemTime() { return FormatLocalNow("%H:%M:%S"); }

std::string FormatIsoTime(const timespec& instant) {
    tm local{};
    if (localtime_r(&instant.tv_sec, &local) == nullptr) return "";
    char text[64] = {};
    if (strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local) == 0) return "";
    // The offset with a colon (+01:00): strftime's %z has none.
    const long offset = local.tm_gmtoff;
    const long minutes = (offset < 0 ? -offset : offset) / 60;
    return Format("%s%c%02ld:%02ld", text, offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

}  // namespace Util
