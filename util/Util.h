// The utility library shared by the device's programs: namespace Util, and Elide.
#pragma once

#include <ctime>
#include <string>
#include <type_traits>
#include <vector>

namespace Util {

// --- Formatted strings and time text --------------------------------------

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

// --- String utilities ------------------------------------------------------
// All of them work byte by byte with one delimiter or fill character.

// Whether the first (last) byte is c; false for an empty string.
bool BeginsWith(const std::string& s, char c);
bool EndsWith(const std::string& s, char c);

// Remove every leading (trailing, both) c; only that character, not white space.
void TrimFromStart(std::string& s, char c);
void TrimFromEnd(std::string& s, char c);
void Trim(std::string& s, char c);

// Collapse each run of two or more c into one ("a//b" -> "a/b").
void RemoveRepeat(std::string& s, char c);

// Fields between delimiters into `out` (replaced). Split drops empty fields;
// Slice keeps them, except after a single trailing delimiter.
void Split(std::vector<std::string>& out, const std::string& s, char delim);
void Slice(std::vector<std::string>& out, const std::string& s, char delim);

// Substring search; an empty needle always occurs. The Ci form ignores ASCII case.
bool StringContains(const std::string& haystack, const std::string& needle);
bool StringContainsCi(const std::string& haystack, const std::string& needle);

// Each byte through toupper: in the default locale only a to z change.
std::string StringToUpper(const std::string& s);

// Whether any byte of s is in the zero-terminated set `chars`.
bool StringContainsAnyChar(const std::string& s, const char* chars);

// --- Text encodings --------------------------------------------------------

// Decodes base64 in the standard or URL-safe alphabet, padding optional. Never
// fails: characters outside the alphabet decode as 0.
std::vector<unsigned char> Base64Decode(const void* data, unsigned int length);
std::vector<unsigned char> Base64Decode(const std::string& text);

// Escapes double quotes for a JSON string value. splitLines: each line feed ends
// one array element and starts the next ("\",\n\""), a final one is dropped;
// otherwise a line feed is kept behind a backslash.
std::string EscapeForJson(const std::string& text, bool splitLines);

// Dashboard text into a JSON string value: CR dropped, tab to four blanks,
// line feed to \n, quote and backslash escaped.
std::string DashboardToJson(const std::string& text);

// A complete JSON string value, quotes included: quote, backslash and every
// control character escaped (\n, \t, ... or \u00XX), DEL as \u007f, and each
// byte that is not part of valid UTF-8 replaced by U+FFFD, so that any text
// gives a value every JSON parser takes.
std::string JsonString(const std::string& text);

// The five XML special characters as entities.
std::string EscapeForXml(const std::string& text);

// --- Process and file utilities -------------------------------------------

// The first line a shell command prints (at most 1023 bytes, its line feed
// included when it fits), "" when it prints nothing, "Unable to run" when the
// command cannot be started. Waits for the command to finish.
std::string ReadStdOutFromSystemCall(const char* command);

// Diagnostic hook for byte blocks; prints nothing in this build.
void PrintDataBlock(const char* title, const std::vector<unsigned char>& data);

// The byte substitution behind EncryptFile/DecryptFile: encTable is a permutation
// of 0..255 and decTable its inverse.
extern const unsigned char encTable[256];
extern const unsigned char decTable[256];

// Scramble (unscramble) a whole file into outputPath, which may be inputPath.
// 0 done; -1 failed before any output was made (a write failing half-way is not
// noticed). DecryptFile writes whatever it could read, even when that is less
// than the file's size; EncryptFile fails then.
int EncryptFile(const std::string& inputPath, const std::string& outputPath);
int DecryptFile(const std::string& inputPath, const std::string& outputPath);

}  // namespace Util

// s cut to at most maxLen bytes, ending in " ..." when cut. maxLen must be 4 or
// more: a smaller limit on a longer text throws std::length_error.
std::string Elide(const std::string& s, unsigned int maxLen);
