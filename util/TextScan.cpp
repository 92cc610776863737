#include "util/TextScan.h"

#include <arpa/inet.h>

#include <cstdint>

namespace Util {

namespace {

// The C locale's isspace, without the locale's table.
bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The value of a digit in `base`, or -1 when it is none.
int DigitValue(char c, unsigned int base) {
    int value = -1;
    if (IsDigit(c)) {
        value = c - '0';
    } else if (c >= 'a' && c <= 'f') {
        value = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
        value = c - 'A' + 10;
    }
    return value >= 0 && static_cast<unsigned int>(value) < base ? value : -1;
}

// One part of an address as strtoul(p, &end, 0) reads it after a digit,
// held to 2^32 (anything above 0xffffffff is refused the same way).
uint64_t ScanAddressPart(const char*& p) {
    unsigned int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && DigitValue(p[2], 16) >= 0) {
        base = 16;
        p += 2;
    } else if (p[0] == '0') {
        base = 8;
    }
    uint64_t value = 0;
    for (int digit = DigitValue(*p, base); digit >= 0; digit = DigitValue(*++p, base)) {
        value = value * base + static_cast<unsigned int>(digit);
        if (value > 0xffffffffULL) value = 0x100000000ULL;
    }
    return value;
}

}  // namespace

const char* SkipSpace(const char* text) {
    while (IsSpace(*text)) ++text;
    return text;
}

int ScanWords(const char* text, bool bSkipFirst, std::initializer_list<SCAN_FIELD> fields) {
    const char* p = SkipSpace(text);
    if (bSkipFirst) {
        if (*p == '\0') return -1;
        while (*p != '\0' && !IsSpace(*p)) ++p;
    }
    int filled = 0;
    for (const SCAN_FIELD& field : fields) {
        p = SkipSpace(p);
        if (*p == '\0') break;
        size_t count = 0;
        while (count < field.m_nWidth && *p != '\0' && !IsSpace(*p)) field.m_text[count++] = *p++;
        field.m_text[count] = '\0';
        ++filled;
    }
    return filled == 0 ? -1 : filled;
}

long long ScanDecimal(const char* text, const char** end, long long min, long long max) {
    const char* p = SkipSpace(text);
    const bool bNegative = *p == '-';
    if (*p == '-' || *p == '+') ++p;
    if (!IsDigit(*p)) {
        if (end != nullptr) *end = text;
        return 0;
    }
    // Gathered as the magnitude, away from the bound it is held to.
    const unsigned long long limit =
        bNegative ? 0ULL - static_cast<unsigned long long>(min) : static_cast<unsigned long long>(max);
    unsigned long long value = 0;
    bool bOver = false;
    for (; IsDigit(*p); ++p) {
        const auto digit = static_cast<unsigned long long>(*p - '0');
        if (bOver || value > (limit - digit) / 10) {
            bOver = true;
        } else {
            value = value * 10 + digit;
        }
    }
    if (end != nullptr) *end = p;
    if (bOver) return bNegative ? min : max;
    return bNegative ? static_cast<long long>(0ULL - value) : static_cast<long long>(value);
}

bool ScanIpv4(const char* text, in_addr& address) {
    static const uint64_t kLastPartMax[4] = {0xffffffffULL, 0xffffffULL, 0xffffULL, 0xffULL};
    uint32_t leading = 0;  // the parts before the last, from the top byte down
    unsigned int parts = 0;
    const char* p = text;
    uint64_t value = 0;
    for (;;) {
        if (!IsDigit(*p)) return false;
        value = ScanAddressPart(p);
        if (value > 0xffffffffULL) return false;
        if (*p != '.') break;
        if (parts > 2 || value > 0xff) return false;
        leading |= static_cast<uint32_t>(value) << (24 - 8 * parts);
        ++parts;
        ++p;
    }
    // Only white space may end the address early, and anything may follow it.
    if (*p != '\0' && !IsSpace(*p)) return false;
    if (value > kLastPartMax[parts]) return false;
    address.s_addr = htonl(leading | static_cast<uint32_t>(value));
    return true;
}

std::string DottedQuad(in_addr address) {
    const uint32_t host = ntohl(address.s_addr);
    std::string text;
    text.reserve(15);
    for (int shift = 24; shift >= 0; shift -= 8) {
        const unsigned int byte = (host >> shift) & 0xff;
        if (byte >= 100) text += static_cast<char>('0' + byte / 100);
        if (byte >= 10) text += static_cast<char>('0' + byte / 10 % 10);
        text += static_cast<char>('0' + byte % 10);
        if (shift > 0) text += '.';
    }
    return text;
}

}  // namespace Util
