#include "util/Encoding.h"

#include <cstdint>

namespace Util {

namespace {

// The 6-bit value of each base64 character. Both the standard alphabet ("+/")
// and the URL-safe one ("-_"), and the "." "," variant, so the sender's choice
// need not be known; every other byte, '=' included, counts as 0.
// clang-format off
const uint32_t Base64Index[256] = {
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x00
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x10
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0, 62, 63, 62, 62, 63,  // 0x20
    52, 53, 54, 55, 56, 57, 58, 59, 60, 61,  0,  0,  0,  0,  0,  0,  // 0x30
     0,  0,  1,  2,  3,  4,  5,  6,  7,  8,  9, 10, 11, 12, 13, 14,  // 0x40
    15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25,  0,  0,  0,  0, 63,  // 0x50
     0, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40,  // 0x60
    41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51,  0,  0,  0,  0,  0,  // 0x70
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x80
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x90
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xA0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xB0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xC0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xD0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xE0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xF0
};
// clang-format on

}  // namespace

std::vector<unsigned char> Base64Decode(const void* data, unsigned int length) {
    const unsigned char* input = static_cast<const unsigned char*>(data);
    if (length == 0) return {};
    const unsigned int partial = (length % 4 != 0 || input[length - 1] == '=') ? 1 : 0;
    const unsigned int full = (length + 3) / 4 - partial;
    const unsigned int groupsEnd = 4 * full;
    std::vector<unsigned char> bytes(3 * full + partial, 0);

    unsigned int out = 0;
    for (unsigned int in = 0; in < groupsEnd; in += 4) {
        uint32_t n = Base64Index[input[in]] << 18 | Base64Index[input[in + 1]] << 12 | Base64Index[input[in + 2]] << 6 |
                     Base64Index[input[in + 3]];
        bytes[out++] = static_cast<unsigned char>(n >> 16);
        bytes[out++] = static_cast<unsigned char>(n >> 8);
        bytes[out++] = static_cast<unsigned char>(n);
    }

    if (partial == 1) {
        // A final group of one character has no second one: the byte after the
        // input would be read, which is not ours; it counts as 0, as a string's
        // terminator would.
        const uint32_t second = groupsEnd + 1 < length ? Base64Index[input[groupsEnd + 1]] : 0;
        uint32_t n = Base64Index[input[groupsEnd]] << 18 | second << 12;
        bytes.back() = static_cast<unsigned char>(n >> 16);
        if (groupsEnd + 2 < length && input[groupsEnd + 2] != '=') {
            bytes.push_back(static_cast<unsigned char>((n | Base64Index[input[groupsEnd + 2]] << 6) >> 8));
        }
    }
    return bytes;
}

std::vector<unsigned char> Base64Decode(const std::string& text) {
    return Base64Decode(text.data(), static_cast<unsigned int>(text.size()));
}

std::string EscapeForJson(const std::string& text, bool splitLines) {
    std::string escaped;
    for (std::string::size_type i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\n' && splitLines) {
            // Each line becomes one element of the caller's string array.
            if (i + 1 < text.size()) escaped += "\",\n\"";
        } else if (c == '\n') {
            // Kept as a backslash and the line feed itself, not "\n": what the
            // readers of this output expect.
            escaped += "\\\n";
        } else if (c == '"') {
            escaped += "\\\"";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string DashboardToJson(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '\r':
                break;
            case '\t':
                escaped += "    ";
                break;
            case '\n':
                escaped += "\\n";
                break;
            case '"':
                escaped += "\\\"";
                break;
            case '\\':
                escaped += "\\\\";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

namespace {

// The length of the valid UTF-8 sequence at text[i] (1 to 4), 0 when the byte
// there starts none: no overlong forms, no surrogates, nothing past U+10FFFF.
size_t Utf8SequenceLength(const std::string& text, size_t i) {
    const auto byte = [&text](size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) return 1;
    size_t length = 0;
    unsigned char low = 0x80;  // the range of the second byte, which rules out the bad forms
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    if (byte(i + 1) < low || byte(i + 1) > high) return 0;
    for (size_t k = 2; k < length; ++k) {
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
    }
    return length;
}

}  // namespace

std::string JsonString(const std::string& text) {
    static const char kHex[] = "0123456789abcdef";
    std::string value;
    value.reserve(text.size() + 2);
    value += '"';
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const size_t length = Utf8SequenceLength(text, i);
        if (length == 0) {
            value += "\\ufffd";
            ++i;
            continue;
        }
        if (length > 1) {
            value.append(text, i, length);
            i += length;
            continue;
        }
        ++i;
        switch (c) {
            case '"':
                value += "\\\"";
                break;
            case '\\':
                value += "\\\\";
                break;
            case '\b':
                value += "\\b";
                break;
            case '\f':
                value += "\\f";
                break;
            case '\n':
                value += "\\n";
                break;
            case '\r':
                value += "\\r";
                break;
            case '\t':
                value += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    value += "\\u00";
                    value += kHex[c >> 4];
                    value += kHex[c & 0xF];
                } else {
                    value += static_cast<char>(c);
                }
        }
    }
    value += '"';
    return value;
}

std::string EscapeForXml(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '"':
                escaped += "&quot;";
                break;
            case '&':
                escaped += "&amp;";
                break;
            case '\'':
                escaped += "&apos;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

}  // namespace Util
