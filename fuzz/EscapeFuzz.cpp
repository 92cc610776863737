// The JSON and XML escapers on any text: the exact output length each one's
// table gives, the characters that may no longer appear, and undoing the
// escapes gives the text back where the escaping is reversible. JsonString's
// value is one JSON string: quoted, no control character or lone quote inside,
// and read back it is the text wherever the text was ASCII.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "util/Encoding.h"

namespace {

size_t Count(const std::string& text, char c) { return static_cast<size_t>(std::count(text.begin(), text.end(), c)); }

// Drops the backslash in front of a line feed or a double quote.
std::string UnescapeJson(const std::string& escaped) {
    std::string text;
    for (size_t i = 0; i < escaped.size(); i++) {
        if (escaped[i] == '\\' && i + 1 < escaped.size() && (escaped[i + 1] == '\n' || escaped[i + 1] == '"')) i++;
        text += escaped[i];
    }
    return text;
}

std::string UnescapeXml(const std::string& escaped) {
    static const struct {
        const char* entity;
        char c;
    } kEntities[] = {{"&quot;", '"'}, {"&amp;", '&'}, {"&apos;", '\''}, {"&lt;", '<'}, {"&gt;", '>'}};
    std::string text;
    for (size_t i = 0; i < escaped.size();) {
        bool replaced = false;
        for (const auto& entry : kEntities) {
            std::string entity = entry.entity;
            if (escaped.compare(i, entity.size(), entity) == 0) {
                text += entry.c;
                i += entity.size();
                replaced = true;
                break;
            }
        }
        if (!replaced) text += escaped[i++];
    }
    return text;
}

void CheckJson(const std::string& text) {
    const size_t n = text.size();
    const size_t lineFeeds = Count(text, '\n');
    const size_t quotes = Count(text, '"');

    std::string kept = Util::EscapeForJson(text, false);
    FUZZ_CHECK(kept.size() == n + lineFeeds + quotes);
    FUZZ_CHECK(kept.size() <= 2 * n);
    FUZZ_CHECK(UnescapeJson(kept) == text);

    // Each line feed but a last one becomes quote, comma, line feed, quote.
    const bool endsInLineFeed = n > 0 && text[n - 1] == '\n';
    std::string split = Util::EscapeForJson(text, true);
    // A last line feed adds nothing: four characters fewer than the others.
    FUZZ_CHECK(split.size() + (endsInLineFeed ? 4 : 0) == n + quotes + 3 * lineFeeds);
    FUZZ_CHECK(split.size() <= 4 * n);
    FUZZ_CHECK(Count(split, '\n') == lineFeeds - (endsInLineFeed ? 1 : 0));

    std::string dashboard = Util::DashboardToJson(text);
    FUZZ_CHECK(dashboard.size() ==
               n - Count(text, '\r') + 3 * Count(text, '\t') + lineFeeds + quotes + Count(text, '\\'));
    FUZZ_CHECK(dashboard.size() <= 4 * n);
    FUZZ_CHECK(Count(dashboard, '\r') == 0 && Count(dashboard, '\t') == 0 && Count(dashboard, '\n') == 0);
}

// Reads a JSON string value's escapes back: the ones JsonString writes.
// False on anything else, a control character or a quote inside included.
bool DecodeJsonString(const std::string& value, std::string& text) {
    if (value.size() < 2 || value.front() != '"' || value.back() != '"') return false;
    for (size_t i = 1; i + 1 < value.size(); i++) {
        const auto c = static_cast<unsigned char>(value[i]);
        if (c < 0x20 || c == 0x7f || c == '"') return false;
        if (c != '\\') {
            text += static_cast<char>(c);
            continue;
        }
        if (++i + 1 >= value.size()) return false;
        const char* const kPairs = "\"\"\\\\b\bf\fn\nr\rt\t";
        const char* pair = nullptr;
        for (const char* p = kPairs; *p != '\0'; p += 2) {
            if (*p == value[i]) pair = p;
        }
        if (pair != nullptr) {
            text += pair[1];
        } else if (value.compare(i, 5, "ufffd") == 0) {
            text += "\xef\xbf\xbd";
            i += 4;
        } else if (value.compare(i, 3, "u00") == 0 && i + 5 < value.size()) {
            text += static_cast<char>(std::stoi(value.substr(i + 3, 2), nullptr, 16));
            i += 4;
        } else {
            return false;
        }
    }
    return true;
}

void CheckJsonString(const std::string& text) {
    const std::string value = Util::JsonString(text);
    std::string back;
    FUZZ_CHECK(DecodeJsonString(value, back));
    const bool ascii =
        std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (ascii) FUZZ_CHECK(back == text);
    // At most six characters a byte (\u001f), plus the quotes.
    FUZZ_CHECK(value.size() <= 6 * text.size() + 2);
}

void CheckXml(const std::string& text) {
    std::string escaped = Util::EscapeForXml(text);
    FUZZ_CHECK(escaped.size() == text.size() + 5 * Count(text, '"') + 4 * Count(text, '&') + 5 * Count(text, '\'') +
                                     3 * Count(text, '<') + 3 * Count(text, '>'));
    FUZZ_CHECK(escaped.size() <= 6 * text.size());
    FUZZ_CHECK(escaped.find_first_of("\"'<>") == std::string::npos);
    FUZZ_CHECK(UnescapeXml(escaped) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CheckJson(text);
    CheckJsonString(text);
    CheckXml(text);
    return 0;
}
