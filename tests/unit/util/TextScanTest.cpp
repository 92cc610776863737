#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "util/TextScan.h"

namespace {

// Texts of the bytes that decide how each reader goes: digits, the letters of
// hexadecimal, dots, signs, each white space, other bytes, one above 127.
std::vector<std::string> Corpus(size_t count, size_t longest) {
    static const char kBytes[] = "0123456789xXaAfFgG..+-  \t\n\v\f\r#/\x80z";
    std::mt19937 random(20261126);
    std::uniform_int_distribution<size_t> length(0, longest);
    std::uniform_int_distribution<size_t> pick(0, sizeof kBytes - 2);
    std::vector<std::string> texts;
    for (size_t i = 0; i < count; ++i) {
        std::string text;
        for (size_t n = length(random); n > 0; --n) text += kBytes[pick(random)];
        texts.push_back(text);
    }
    return texts;
}

struct WORDS {
    int m_nResult = 0;
    std::string m_texts[4];
};

// The four fields of an interface line ("%6s %15s %15s %15s"), each "?" until
// `read` fills it; `read` returns what the reader does.
template <typename Read>
WORDS ReadFields(Read read) {
    char a[7] = "?";
    char b[16] = "?";
    char c[16] = "?";
    char d[16] = "?";
    WORDS words;
    words.m_nResult = read(a, b, c, d);
    const char* fields[] = {a, b, c, d};
    for (int i = 0; i < 4; ++i) words.m_texts[i] = fields[i];
    return words;
}

WORDS Scanned(const std::string& text, bool bSkipFirst) {
    return ReadFields([&](char* a, char* b, char* c, char* d) {
        return Util::ScanWords(text.c_str(), bSkipFirst, {{a, 6}, {b, 15}, {c, 15}, {d, 15}});
    });
}

WORDS ByLibrary(const std::string& text, bool bSkipFirst) {
    return ReadFields([&](char* a, char* b, char* c, char* d) {
        return bSkipFirst ? sscanf(text.c_str(), "%*s %6s %15s %15s %15s", a, b, c, d)
                          : sscanf(text.c_str(), "%6s %15s %15s %15s", a, b, c, d);
    });
}

void ExpectSameWords(const std::string& text, bool bSkipFirst) {
    const WORDS ours = Scanned(text, bSkipFirst);
    const WORDS theirs = ByLibrary(text, bSkipFirst);
    ASSERT_EQ(theirs.m_nResult, ours.m_nResult) << "[" << text << "]";
    for (int i = 0; i < 4; ++i) EXPECT_EQ(theirs.m_texts[i], ours.m_texts[i]) << "[" << text << "] field " << i;
}

TEST(ScanWordsTest, ReadsLinesAsTheConfigurationsReaderDid) {
    const WORDS line = Scanned("veth3 static 10.0.1.2 255.255.255.0 0.0.0.0\n", true);
    EXPECT_EQ(4, line.m_nResult);
    EXPECT_EQ("static", line.m_texts[0]);
    EXPECT_EQ("10.0.1.2", line.m_texts[1]);
    EXPECT_EQ("255.255.255.0", line.m_texts[2]);
    EXPECT_EQ("0.0.0.0", line.m_texts[3]);
    // A word longer than its field is cut, and its rest is the next field.
    const WORDS cut = Scanned("veth1 dhcpdhcp 1234567890123456789", true);
    EXPECT_EQ(4, cut.m_nResult);
    EXPECT_EQ("dhcpdh", cut.m_texts[0]);
    EXPECT_EQ("cp", cut.m_texts[1]);
    EXPECT_EQ("123456789012345", cut.m_texts[2]);
    EXPECT_EQ("6789", cut.m_texts[3]);
    const WORDS dhcp = Scanned("veth1 dhcp", true);
    EXPECT_EQ(1, dhcp.m_nResult);
    EXPECT_EQ("?", dhcp.m_texts[1]);
    // No second word: the end came before the first field.
    EXPECT_EQ(-1, Scanned("veth1\n", true).m_nResult);
    EXPECT_EQ(-1, Scanned(" \t\r\n", true).m_nResult);
    EXPECT_EQ(-1, Scanned("", false).m_nResult);
    EXPECT_EQ(1, Scanned("\vveth1", false).m_nResult);
}

TEST(ScanWordsTest, AgreesWithTheCLibrarysScannerOnEveryText) {
    for (const std::string& text : Corpus(20000, 60)) {
        ExpectSameWords(text, true);
        ExpectSameWords(text, false);
        if (HasFatalFailure()) return;
    }
}

TEST(ScanDecimalTest, ReadsAsStrtolDoes) {
    const char* end = nullptr;
    const char* text = " \t-42x";
    EXPECT_EQ(-42, Util::ScanDecimal(text, &end, LONG_MIN, LONG_MAX));
    EXPECT_EQ(text + 5, end);
    text = "+";
    EXPECT_EQ(0, Util::ScanDecimal(text, &end, LONG_MIN, LONG_MAX));
    EXPECT_EQ(text, end);
    // Held to the bounds, every digit read.
    text = "99999999999999999999 1";
    EXPECT_EQ(INT_MAX, Util::ScanDecimal(text, &end, INT_MIN, INT_MAX));
    EXPECT_EQ(text + 20, end);
    EXPECT_EQ(LLONG_MIN, Util::ScanDecimal("-9223372036854775808", nullptr, LLONG_MIN, LLONG_MAX));
    EXPECT_EQ(LLONG_MIN, Util::ScanDecimal("-9223372036854775809", nullptr, LLONG_MIN, LLONG_MAX));
    EXPECT_EQ(LLONG_MAX, Util::ScanDecimal("9223372036854775807", nullptr, LLONG_MIN, LLONG_MAX));
}

TEST(ScanDecimalTest, AgreesWithStrtolOnEveryText) {
    std::vector<std::string> texts = Corpus(20000, 24);
    texts.insert(texts.end(), {"2147483647", "2147483648", "-2147483648", "-2147483649", "9223372036854775807",
                               "9223372036854775808", "-9223372036854775808", "-9223372036854775809", "00012", "- 1",
                               "+-1", " +7 "});
    for (const std::string& text : texts) {
        const char* ours = nullptr;
        char* theirs = nullptr;
        const long long value = Util::ScanDecimal(text.c_str(), &ours, LONG_MIN, LONG_MAX);
        EXPECT_EQ(strtol(text.c_str(), &theirs, 10), value) << "[" << text << "]";
        EXPECT_EQ(theirs, ours) << "[" << text << "]";
        const long long wide = Util::ScanDecimal(text.c_str(), &ours, LLONG_MIN, LLONG_MAX);
        EXPECT_EQ(strtoll(text.c_str(), &theirs, 10), wide) << "[" << text << "]";
        EXPECT_EQ(theirs, ours) << "[" << text << "]";
    }
}

TEST(ScanIpv4Test, ReadsEveryFormInetAtonTakes) {
    struct CASE {
        const char* m_text;
        const char* m_dotted;  // nullptr: refused
    };
    const CASE cases[] = {
        {"192.168.1.10", "192.168.1.10"},
        {"255.255.255.255", "255.255.255.255"},
        {"0.0.0.0", "0.0.0.0"},
        {"10.1", "10.0.0.1"},
        {"10.1.2", "10.1.0.2"},
        {"167772161", "10.0.0.1"},
        {"0x0a.010.0X1.1", "10.8.1.1"},
        {"1.2.3.4 and then anything", "1.2.3.4"},
        {"1.2.3.4\n", "1.2.3.4"},
        {"1.2.3.256", nullptr},
        {"1.2.65536", nullptr},
        {"1.2.65535", "1.2.255.255"},
        {"256.1.1.1", nullptr},
        {"4294967296", nullptr},
        {"4294967295", "255.255.255.255"},
        {"1.2.3.4.5", nullptr},
        {"1.2.3.", nullptr},
        {".1.2.3", nullptr},
        {" 1.2.3.4", nullptr},
        {"08.1.1.1", nullptr},
        {"0x.1.1.1", nullptr},
        {"1.2.3.4x", nullptr},
        {"-1.2.3.4", nullptr},
        {"", nullptr},
    };
    for (const CASE& c : cases) {
        in_addr address{};
        address.s_addr = 0x01020304;
        const bool taken = Util::ScanIpv4(c.m_text, address);
        EXPECT_EQ(c.m_dotted != nullptr, taken) << c.m_text;
        if (c.m_dotted != nullptr) {
            EXPECT_EQ(c.m_dotted, Util::DottedQuad(address)) << c.m_text;
        } else {
            EXPECT_EQ(0x01020304U, address.s_addr) << "untouched: " << c.m_text;
        }
    }
}

TEST(ScanIpv4Test, AgreesWithInetAtonOnEveryText) {
    std::vector<std::string> texts = Corpus(40000, 20);
    // Addresses with a stray byte somewhere, as a mistyped file has them.
    std::mt19937 random(38);
    std::uniform_int_distribution<unsigned int> byte(0, 255);
    for (int i = 0; i < 5000; ++i) {
        std::string text = std::to_string(byte(random)) + "." + std::to_string(byte(random)) + "." +
                           std::to_string(byte(random)) + "." + std::to_string(byte(random) * (i % 3 + 1));
        text[byte(random) % text.size()] = "0x. 9\t"[byte(random) % 6];
        texts.push_back(text);
    }
    for (const std::string& text : texts) {
        in_addr ours{};
        in_addr theirs{};
        const bool taken = Util::ScanIpv4(text.c_str(), ours);
        ASSERT_EQ(inet_aton(text.c_str(), &theirs) != 0, taken) << "[" << text << "]";
        EXPECT_EQ(theirs.s_addr, ours.s_addr) << "[" << text << "]";
    }
}

TEST(DottedQuadTest, WritesAsInetNtoaDoes) {
    EXPECT_EQ("0.0.0.0", Util::DottedQuad(in_addr{}));
    std::mt19937 random(7);
    for (int i = 0; i < 20000; ++i) {
        in_addr address{};
        address.s_addr = static_cast<uint32_t>(random());
        ASSERT_EQ(std::string(inet_ntoa(address)), Util::DottedQuad(address));
    }
}

}  // namespace
