// Util::Base64Decode on any text: the output size follows the decoder's
// formula, both overloads agree, the alphabet variants and foreign characters
// decode as the table says, and whatever bytes are encoded here decode back.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzCheck.h"
#include "util/Encoding.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The size the decoder gives: complete groups of four, plus one byte for a
// final partial group, plus one more when its third character is there and
// not '='.
size_t ExpectedSize(const std::string& text) {
    size_t length = text.size();
    if (length == 0) return 0;
    size_t partial = (length % 4 != 0 || text[length - 1] == '=') ? 1 : 0;
    size_t full = (length + 3) / 4 - partial;
    size_t end = 4 * full;
    size_t extra = (partial == 1 && end + 2 < length && text[end + 2] != '=') ? 1 : 0;
    return 3 * full + partial + extra;
}

bool InAlphabet(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '-' ||
           c == '.' || c == '/' || c == ',' || c == '_';
}

std::string Encode(const std::string& bytes, const char* alphabet, bool pad) {
    std::string text;
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        uint32_t n = static_cast<unsigned char>(bytes[i]) << 16 | static_cast<unsigned char>(bytes[i + 1]) << 8 |
                     static_cast<unsigned char>(bytes[i + 2]);
        for (int shift = 18; shift >= 0; shift -= 6) text += alphabet[(n >> shift) & 63];
    }
    size_t rest = bytes.size() - i;
    if (rest > 0) {
        uint32_t n = static_cast<unsigned char>(bytes[i]) << 16;
        if (rest == 2) n |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        text += alphabet[(n >> 18) & 63];
        text += alphabet[(n >> 12) & 63];
        if (rest == 2) text += alphabet[(n >> 6) & 63];
        if (pad) text.append(3 - rest, '=');
    }
    return text;
}

const char kStandard[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kUrlSafe[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
const char kDotComma[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.,";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    // Any text, valid or not.
    Bytes decoded = Util::Base64Decode(text);
    FUZZ_CHECK(decoded.size() == ExpectedSize(text));
    FUZZ_CHECK(Util::Base64Decode(text.data(), static_cast<unsigned int>(text.size())) == decoded);

    // '-' and '.' read as '+', '_' and ',' as '/', and anything outside the
    // alphabet but '=' (which ends a group) as 'A'.
    std::string canonical = text;
    for (char& c : canonical) {
        if (c == '-' || c == '.') c = '+';
        if (c == '_' || c == ',') c = '/';
        if (!InAlphabet(c) && c != '=') c = 'A';
    }
    FUZZ_CHECK(Util::Base64Decode(canonical) == decoded);

    // The input as bytes: every alphabet, with and without padding, decodes back.
    const Bytes original(text.begin(), text.end());
    for (const char* alphabet : {kStandard, kUrlSafe, kDotComma}) {
        FUZZ_CHECK(Util::Base64Decode(Encode(text, alphabet, true)) == original);
        FUZZ_CHECK(Util::Base64Decode(Encode(text, alphabet, false)) == original);
    }
    return 0;
}
