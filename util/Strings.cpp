#include "util/Strings.h"

#include <cctype>
#include <sstream>

namespace Util {

bool BeginsWith(const std::string& s, char c) { return !s.empty() && s.front() == c; }

bool EndsWith(const std::string& s, char c) { return !s.empty() && s.back() == c; }

void TrimFromStart(std::string& s, char c) {
    while (BeginsWith(s, c)) s.erase(0, 1);
}

void TrimFromEnd(std::string& s, char c) {
    while (EndsWith(s, c)) s.pop_back();
}

void Trim(std::string& s, char c) {
    TrimFromStart(s, c);
    TrimFromEnd(s, c);
}

void RemoveRepeat(std::string& s, char c) {
    if (s.size() < 2) return;
    std::string::size_type found = s.find(c);
    while (found != std::string::npos && found + 1 < s.size()) {
        if (s[found + 1] == c) {
            // Stay on this c: the byte now after it may be another repeat.
            s.erase(found, 1);
            found = s.find(c, found);
        } else {
            found = s.find(c, found + 1);
        }
    }
}

void Split(std::vector<std::string>& out, const std::string& s, char delim) {
    out.clear();
    std::string rest = s;
    while (!rest.empty()) {
        std::string::size_type found = rest.find(delim);
        if (found == std::string::npos) {
            out.push_back(rest);
            return;
        }
        if (found == 0) {
            if (rest.size() == 1) return;  // a lone delimiter ends the text
            rest.erase(0, 1);
        } else {
            out.push_back(rest.substr(0, found));
            rest.erase(0, found + 1);
        }
    }
}

void Slice(std::vector<std::string>& out, const std::string& s, char delim) {
    out.clear();
    std::istringstream in(s);
    std::string field;
    while (std::getline(in, field, delim)) out.push_back(field);
}

bool StringContains(const std::string& haystack, const std::string& needle) {
    return haystack.find(needle) != std::string::npos;
}

std::string StringToUpper(const std::string& s) {
    std::string upper = s;
    // Through unsigned char: toupper of a negative char value is undefined.
    for (char& c : upper) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return upper;
}

bool StringContainsCi(const std::string& haystack, const std::string& needle) {
    return StringContains(StringToUpper(haystack), StringToUpper(needle));
}

bool StringContainsAnyChar(const std::string& s, const char* chars) {
    return s.find_first_of(chars) != std::string::npos;
}

}  // namespace Util

std::string Elide(const std::string& s, unsigned int maxLen) {
    static const std::string Ellipsis = " ...";
    // size_type, so that maxLen - EllipSize is done in the string's own width: a
    // limit below 4 then wraps past max_size() and resize throws length_error.
    static const std::string::size_type EllipSize = Ellipsis.size();
    std::string elided = s;
    if (maxLen >= elided.size()) return elided;
    elided.resize(maxLen - EllipSize);
    elided += Ellipsis;
    return elided;
}
