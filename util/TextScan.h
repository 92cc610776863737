// Numbers, words and IPv4 addresses read out of text, and dotted quads
// written, byte for byte as the C library's sscanf ("%Ns" fields), strtol
// (base 10), inet_aton and inet_ntoa do. The daemon reads its configuration
// with them every pass: the C library's scanner took half of an idle pass's
// instructions, and its scanning, number and resolver code was the largest
// part of that library the daemon kept mapped.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <initializer_list>
#include <string>

namespace Util {

// One word field: `m_text` holds `m_nWidth` + 1 bytes.
struct SCAN_FIELD {
    char* m_text;
    size_t m_nWidth;
};

// As sscanf(text, "%Ns %Ns ...") with one "%Ns" per field, or with
// bSkipFirst as sscanf(text, "%*s %Ns ..."): white space (the C locale's six
// characters) is skipped before each field, and a field takes at most its
// width of the bytes up to the next white space, so the rest of a longer word
// becomes the next field. Returns how many fields were filled, or -1 (EOF)
// when the text ended before the first was.
int ScanWords(const char* text, bool bSkipFirst, std::initializer_list<SCAN_FIELD> fields);

// The first byte of `text` that is not white space (the C locale's six characters).
const char* SkipSpace(const char* text);

// As strtol(text, &end, 10), the result held to [min, max] instead of
// LONG_MIN and LONG_MAX: leading white space, an optional sign, then decimal
// digits. With no digit it returns 0 and `end` is `text`.
long long ScanDecimal(const char* text, const char** end, long long min, long long max);

// As inet_aton: one to four parts separated by dots, each as C writes a
// number (0x: hexadecimal, 0: octal, else decimal), the last filling the
// bytes the others left, optionally followed by white space and then
// anything. False, and `address` untouched, for anything else.
bool ScanIpv4(const char* text, in_addr& address);

// The dotted quad of an address ("192.168.1.10"), as inet_ntoa writes it.
std::string DottedQuad(in_addr address);

}  // namespace Util
