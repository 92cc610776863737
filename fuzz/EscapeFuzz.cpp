// The JSON and XML escapers on any text: the exact output length each one's
// table gives, the characters that may no longer appear, and undoing the
// escapes gives the text back where the escaping is reversible.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "util/Util.h"

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
    CheckXml(text);
    return 0;
}
