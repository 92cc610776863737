// Reading the filter tools' listings, of either backend, into comparable rules.
#include "src/NetworkRuleListing.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include "util/Strings.h"

namespace {

// Two texts held in the table itself: a table of pointers is relocated at
// every start, which makes its page of the program private to each process.
struct SPELLING {
    char m_szAs[18];
    char m_szUsual[10];
};

// The options the tools print in another spelling than the rule tables'.
constexpr SPELLING kSpellings[] = {
    {"--in-interface", "-i"},
    {"--out-interface", "-o"},
    {"--source", "-s"},
    {"--destination", "-d"},
    {"--source-ip", "-s"},
    {"--destination-ip", "-d"},
    {"--src", "-s"},
    {"--dst", "-d"},
    {"--jump", "-j"},
    {"--protocol", "-p"},
    {"--source-mac", "--src-mac"},
    {"--destination-mac", "--dst-mac"},
};

// EtherTypes the tools print by name; the rule tables and other versions of
// the tools give the number ("-p 0x88a8" is listed as "-p S-TAG",
// "--vlan-encap 802_1Q" as "--vlan-encap 8100").
constexpr SPELLING kEtherTypeNames[] = {
    {"IPv4", "0800"}, {"ARP", "0806"}, {"IPv6", "86dd"}, {"802_1Q", "8100"}, {"S-TAG", "88a8"}, {"802_1AD", "88a8"},
};

// An EtherType as four lower-case hexadecimal digits, from a name or a number
// with or without "0x"; anything else as it is.
std::string UsualEtherType(const std::string& value) {
    for (const SPELLING& name : kEtherTypeNames) {
        if (value == name.m_szAs) return name.m_szUsual;
    }
    std::string digits = value.starts_with("0x") || value.starts_with("0X") ? value.substr(2) : value;
    if (digits.empty() || digits.size() > 4 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return value;
    }
    for (char& digit : digits) digit = static_cast<char>(tolower(static_cast<unsigned char>(digit)));
    return std::string(4 - digits.size(), '0') + digits;
}

// A value in one spelling: an EtherType (of `option`) as its number, a MAC in
// lower case, two digits a byte (the legacy ebtables drops leading zeros), a
// single IPv4 address without its "/32".
std::string UsualValue(std::string value, const std::string& option) {
    if (option == "-p" || option == "--vlan-encap") return UsualEtherType(value);
    if (value.ends_with("/32")) value.resize(value.size() - 3);
    std::vector<std::string> bytes;
    Util::Split(bytes, value, ':');
    if (bytes.size() != 6) return value;
    std::string mac;
    for (const std::string& byte : bytes) {
        if (byte.empty() || byte.size() > 2 || byte.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            return value;
        }
        if (!mac.empty()) mac += ':';
        if (byte.size() == 1) mac += '0';
        for (const char digit : byte) mac += static_cast<char>(tolower(static_cast<unsigned char>(digit)));
    }
    return mac;
}

}  // namespace

RULE_WORDS ReadRule(const std::string& text) {
    std::vector<std::string> words;
    Util::Split(words, text, ' ');
    std::vector<std::string> options;
    RULE_WORDS rule;
    bool negated = false;
    for (size_t at = 0; at < words.size(); ++at) {
        const std::string& word = words[at];
        if (word == "!") {
            negated = true;
            continue;
        }
        if (!word.starts_with('-') && !options.empty()) {
            const std::string option = options.back().substr(options.back().find('-'));
            options.back() += (negated ? " ! " : " ") + UsualValue(word, option.substr(0, option.find(' ')));
            negated = false;
            continue;
        }
        std::string option = word;
        for (const SPELLING& spelling : kSpellings) {
            if (option == spelling.m_szAs) option = spelling.m_szUsual;
        }
        if (option == "-j" && at + 1 < words.size()) rule.m_bDrop = words[at + 1] == "DROP";
        options.push_back((negated ? "! " : "") + option);
        negated = false;
    }
    std::sort(options.begin(), options.end());
    for (const std::string& option : options) {
        if (!rule.m_key.empty()) rule.m_key += ' ';
        rule.m_key += option;
    }
    return rule;
}

std::string FirstWord(const std::string& text) { return text.substr(0, text.find(' ')); }

std::vector<LISTED_RULE> ReadListing(const std::string& listing) {
    std::vector<std::string> lines;
    Util::Split(lines, listing, '\n');
    std::vector<LISTED_RULE> rules;
    std::string chain;
    for (std::string& line : lines) {
        Util::Trim(line, ' ');
        Util::Trim(line, '\r');
        if (line.empty() || line.starts_with('#') || line.starts_with("-P ") || line.starts_with("-N ") ||
            line.starts_with("Bridge table:")) {
            continue;
        }
        if (line.starts_with("Chain ")) {
            chain = FirstWord(line.substr(6));
            continue;
        }
        if (line.starts_with("Bridge chain: ")) {
            chain = line.substr(14, line.find(',') - 14);
            continue;
        }
        std::string options = line;
        if (line.starts_with("-A ")) {
            chain = FirstWord(line.substr(3));
            const size_t after = 3 + chain.size();
            options = after < line.size() ? line.substr(after + 1) : std::string();
        }
        if (chain.empty()) continue;
        rules.push_back({chain, "-A " + chain + (options.empty() ? "" : " " + options), ReadRule(options)});
    }
    return rules;
}
