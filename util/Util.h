// The utility library shared by the device's programs: namespace Util, and Elide.
#pragma once

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

// Local date "MM/DD/YY" and time of day "HH:MM:SS".
std::string GetSystemDate();
std::string GetSystemTime();

}  // namespace Util
