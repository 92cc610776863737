// Formatted strings and time texts, and the wall clock they read.
#pragma once

#include <ctime>
#include <string>
#include <type_traits>

namespace Util {

// printf-style formatting into a string. A text of 4096 characters or more comes
// back as "(truncated)" and a formatting failure as "Formatting error": callers put
// the result straight into log messages and always get something printable.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The same with the format held in a string object.
std::string FormatFrom(const char* format, ...);
template <typename S, typename... Args, typename = std::enable_if_t<std::is_same_v<S, std::string>>>
std::string Format(const S& format, Args... args) {
    return FormatFrom(format.c_str(), args...);
}

// A duration as days:hours:minutes:seconds, each at least two digits ("01:01:01:01").
std::string FormatTimeDurAsDdHhMmSs(const unsigned int& seconds);

// Local date "MM/DD/YY" and time of day "HH:MM:SS" of RealTimeNow(); empty
// when the C library cannot convert it.
std::string GetSystemDate();
std::string GetSystemTime();

// An instant as ISO 8601 local time with its zone's offset,
// "2026-11-23T16:17:36+01:00" (whole seconds); empty when the C library cannot
// convert it.
std::string FormatIsoTime(const timespec& instant);

// The wall clock that the time texts and the log's time stamps read: the
// system's real-time clock unless a test has set another. Safe in a signal
// handler (when the clock set is).
timespec RealTimeNow();

// Sets the clock RealTimeNow reads and returns the one it replaces; nullptr
// puts the system's back.
using RealTimeClock = timespec (*)();
RealTimeClock SetRealTimeClock(RealTimeClock clock);

}  // namespace Util
