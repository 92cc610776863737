// Reading the filter tools' listings: the rules of an iptables -S, arptables
// -L or ebtables -L listing, of either backend, each as its options in one
// spelling, so the isolation's look can compare them with its own rules.
#pragma once

#include <string>
#include <vector>

// A rule's options but its chain, each "-option value" in one spelling,
// sorted: the same text whichever tool or backend printed the rule.
struct RULE_WORDS {
    std::string m_key;
    bool m_bDrop = false;
};
// The options of a rule as a tool prints or takes them (no chain).
RULE_WORDS ReadRule(const std::string& text);

// One rule of a listing: its chain, its text as "-A CHAIN options" (as the
// log names it), its options.
struct LISTED_RULE {
    std::string m_chain;
    std::string m_text;
    RULE_WORDS m_words;
};

// The rules of a listing of any of the three tools, in order.
std::vector<LISTED_RULE> ReadListing(const std::string& listing);

// A text's first word (up to its first blank).
std::string FirstWord(const std::string& text);
