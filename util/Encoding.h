// Text encodings: base64 decoding, and escapes for JSON and XML.
#pragma once

#include <string>
#include <vector>

namespace Util {

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

}  // namespace Util
