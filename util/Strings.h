// String utilities: namespace Util's byte-wise trimming, splitting and
// searching, and Elide.
#pragma once

#include <string>
#include <vector>

namespace Util {

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

}  // namespace Util

// s cut to at most maxLen bytes, ending in " ..." when cut. maxLen must be 4 or
// more: a smaller limit on a longer text throws std::length_error.
std::string Elide(const std::string& s, unsigned int maxLen);
