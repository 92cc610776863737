#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "util/Encoding.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes BytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// A plain RFC 4648 encoder, with or without '=' padding.
std::string Encode(const Bytes& bytes, bool pad) {
    std::string text;
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        unsigned n = bytes[i] << 16 | bytes[i + 1] << 8 | bytes[i + 2];
        text += kAlphabet[n >> 18 & 63];
        text += kAlphabet[n >> 12 & 63];
        text += kAlphabet[n >> 6 & 63];
        text += kAlphabet[n & 63];
    }
    std::size_t left = bytes.size() - i;
    if (left == 1) {
        unsigned n = bytes[i] << 16;
        text += kAlphabet[n >> 18 & 63];
        text += kAlphabet[n >> 12 & 63];
        if (pad) text += "==";
    } else if (left == 2) {
        unsigned n = bytes[i] << 16 | bytes[i + 1] << 8;
        text += kAlphabet[n >> 18 & 63];
        text += kAlphabet[n >> 12 & 63];
        text += kAlphabet[n >> 6 & 63];
        if (pad) text += "=";
    }
    return text;
}

std::string Replace(std::string text, char from, char to) {
    for (char& c : text) {
        if (c == from) c = to;
    }
    return text;
}

TEST(Base64DecodeTest, DocumentedExamples) {
    EXPECT_EQ(Util::Base64Decode(std::string("QUJD")), BytesOf("ABC"));
    EXPECT_EQ(Util::Base64Decode(std::string("QQ==")), BytesOf("A"));
    EXPECT_EQ(Util::Base64Decode(std::string("QQ")), BytesOf("A"));
    EXPECT_EQ(Util::Base64Decode(std::string("QUI")), BytesOf("AB"));
    EXPECT_EQ(Util::Base64Decode(std::string("QUI=")), BytesOf("AB"));
    EXPECT_EQ(Util::Base64Decode(std::string("")), Bytes{});
    EXPECT_EQ(Util::Base64Decode(nullptr, 0), Bytes{});
}

TEST(Base64DecodeTest, PaddingIsOptionalAfterFullGroups) {
    EXPECT_EQ(Util::Base64Decode(std::string("QUJDQQ==")), BytesOf("ABCA"));
    EXPECT_EQ(Util::Base64Decode(std::string("QUJDQQ")), BytesOf("ABCA"));
    EXPECT_EQ(Util::Base64Decode(std::string("QUJDQQ=")), BytesOf("ABCA"));
    EXPECT_EQ(Util::Base64Decode(std::string("QUJDQUI=")), BytesOf("ABCAB"));
    EXPECT_EQ(Util::Base64Decode(std::string("QUJDQUI")), BytesOf("ABCAB"));
}

TEST(Base64DecodeTest, AllByteValuesInStandardEncoding) {
    Bytes all;
    for (int b = 0; b < 256; ++b) all.push_back(static_cast<unsigned char>(b));
    const std::string text = Encode(all, true);
    EXPECT_EQ(Util::Base64Decode(text), all);
    EXPECT_EQ(Util::Base64Decode(text.data(), static_cast<unsigned int>(text.size())), all);
}

TEST(Base64DecodeTest, RandomBuffersPaddedUnpaddedAndUrlSafe) {
    std::mt19937 random(20240611U);
    for (int round = 0; round < 500; ++round) {
        Bytes bytes(random() % 200);
        for (unsigned char& b : bytes) b = static_cast<unsigned char>(random());
        const std::string padded = Encode(bytes, true);
        const std::string urlSafe = Replace(Replace(Encode(bytes, false), '+', '-'), '/', '_');
        const std::string dotComma = Replace(Replace(padded, '+', '.'), '/', ',');
        ASSERT_EQ(Util::Base64Decode(padded), bytes) << padded;
        ASSERT_EQ(Util::Base64Decode(Encode(bytes, false)), bytes) << padded;
        ASSERT_EQ(Util::Base64Decode(urlSafe), bytes) << urlSafe;
        ASSERT_EQ(Util::Base64Decode(dotComma), bytes) << dotComma;
    }
}

TEST(Base64DecodeTest, UrlSafeCharactersDecodeLikeStandardOnes) {
    // "+/+/" is the 6-bit values 62 63 62 63.
    const Bytes expected{0xfb, 0xff, 0xbf};
    EXPECT_EQ(Util::Base64Decode(std::string("+/+/")), expected);
    EXPECT_EQ(Util::Base64Decode(std::string("-_-_")), expected);
    EXPECT_EQ(Util::Base64Decode(std::string("-/+_")), expected);
    EXPECT_EQ(Util::Base64Decode(std::string(".,.,")), expected);
}

TEST(Base64DecodeTest, ValueOfEveryInputByte) {
    // The first decoded byte of "cAAA" is the value of c shifted left by 2.
    for (int c = 0; c < 256; ++c) {
        unsigned expected = 0;
        const char* at = c == 0 ? nullptr : strchr(kAlphabet, c);
        if (at != nullptr) expected = static_cast<unsigned>(at - kAlphabet);
        if (c == '-' || c == '.') expected = 62;
        if (c == '_' || c == ',') expected = 63;
        const unsigned char group[4] = {static_cast<unsigned char>(c), 'A', 'A', 'A'};
        const Bytes decoded = Util::Base64Decode(group, 4);
        ASSERT_EQ(decoded.size(), 3U);
        EXPECT_EQ(decoded[0], expected << 2) << "byte " << c;
    }
}

TEST(Base64DecodeTest, ForeignCharactersDecodeAsZeroWithoutError) {
    EXPECT_EQ(Util::Base64Decode(std::string("Q JD")), Util::Base64Decode(std::string("QAJD")));
    EXPECT_EQ(Util::Base64Decode(std::string("Q\nJD")), Util::Base64Decode(std::string("QAJD")));
    EXPECT_EQ(Util::Base64Decode(std::string("QQ==QUJD")), (Bytes{0x41, 0, 0, 'A', 'B', 'C'}));
    EXPECT_EQ(Util::Base64Decode(std::string("****")), (Bytes{0, 0, 0}));
}

TEST(Base64DecodeTest, FourthCharacterOfFinalGroupIsNeverUsed) {
    // Four characters ending in '=' are a final group: only three count.
    EXPECT_EQ(Util::Base64Decode(std::string("QUJ=")), Util::Base64Decode(std::string("QUJ")));
    EXPECT_EQ(Util::Base64Decode(std::string("QQ==")), Util::Base64Decode(std::string("QQ")));
}

TEST(Base64DecodeTest, FinalSingleCharacterGroupTakesZeroAfterTheInput) {
    // 'Q' is 16: the extra byte is 16 << 2; the missing second character counts as 0.
    EXPECT_EQ(Util::Base64Decode(std::string("QUJDQ")), (Bytes{'A', 'B', 'C', 0x40}));
    EXPECT_EQ(Util::Base64Decode(std::string("Q")), Bytes{0x40});
    EXPECT_EQ(Util::Base64Decode(std::string("=")), Bytes{0});
    EXPECT_EQ(Util::Base64Decode(std::string("Q=")), Bytes{0x40});
    // The caller's next byte ('z' is 51, it would add 3) is not part of the input.
    const char buffer[] = "QUJDQz";
    EXPECT_EQ(Util::Base64Decode(buffer, 5), (Bytes{'A', 'B', 'C', 0x40}));
}

TEST(Base64DecodeTest, NeverReadsPastTheCallersBytes) {
    // The input ends exactly where an inaccessible page begins.
    const long page = sysconf(_SC_PAGESIZE);
    void* mapped = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mapped, MAP_FAILED);
    char* pages = static_cast<char*>(mapped);
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    for (const std::string text : {"QUJDQ", "Q", "QUI", "QQ", "QUJD", "QQ=="}) {
        char* input = pages + page - text.size();
        std::copy(text.begin(), text.end(), input);
        EXPECT_EQ(Util::Base64Decode(input, static_cast<unsigned int>(text.size())), Util::Base64Decode(text)) << text;
    }
    munmap(mapped, 2 * page);
}

TEST(EscapeForJsonTest, SplitLinesMakesOneElementPerLine) {
    EXPECT_EQ(Util::EscapeForJson("a\nb\n", true), "a\",\n\"b");
    EXPECT_EQ(Util::EscapeForJson("a\nb", true), "a\",\n\"b");
    EXPECT_EQ(Util::EscapeForJson("\n", true), "");
    EXPECT_EQ(Util::EscapeForJson("\n\n", true), "\",\n\"");
}

TEST(EscapeForJsonTest, WithoutSplitLineFeedStaysBehindBackslash) {
    EXPECT_EQ(Util::EscapeForJson("a\nb\n", false), "a\\\nb\\\n");
    EXPECT_EQ(Util::EscapeForJson("\n", false), "\\\n");
}

TEST(EscapeForJsonTest, QuotesEscapedBackslashAndControlsUnchanged) {
    EXPECT_EQ(Util::EscapeForJson("say \"hi\"", false), "say \\\"hi\\\"");
    EXPECT_EQ(Util::EscapeForJson("say \"hi\"", true), "say \\\"hi\\\"");
    EXPECT_EQ(Util::EscapeForJson("a\\b\t\r", false), "a\\b\t\r");
    EXPECT_EQ(Util::EscapeForJson("a\\b\t\r", true), "a\\b\t\r");
}

TEST(EscapeForJsonTest, EmptyInput) {
    EXPECT_EQ(Util::EscapeForJson("", true), "");
    EXPECT_EQ(Util::EscapeForJson("", false), "");
}

TEST(DashboardToJsonTest, CarriageReturnTabAndLineFeed) {
    EXPECT_EQ(Util::DashboardToJson("a\r\n\tb"), "a\\n    b");
    EXPECT_EQ(Util::DashboardToJson("\r\r"), "");
}

TEST(DashboardToJsonTest, QuoteAndBackslashEscapedOthersKept) {
    EXPECT_EQ(Util::DashboardToJson("\"\\"), "\\\"\\\\");
    EXPECT_EQ(Util::DashboardToJson("x<&>'y"), "x<&>'y");
    EXPECT_EQ(Util::DashboardToJson(""), "");
}

TEST(EscapeForXmlTest, FiveCharactersBecomeEntities) {
    EXPECT_EQ(Util::EscapeForXml("a<b & 'c'"), "a&lt;b &amp; &apos;c&apos;");
    EXPECT_EQ(Util::EscapeForXml("\"x\">"), "&quot;x&quot;&gt;");
    EXPECT_EQ(Util::EscapeForXml("&amp;"), "&amp;amp;");
}

TEST(EscapeForXmlTest, OtherBytesCopied) {
    const std::string other("a\n\t\\\0\xff", 6);
    EXPECT_EQ(Util::EscapeForXml(other), other);
    EXPECT_EQ(Util::EscapeForXml(""), "");
}

TEST(JsonStringTest, QuotesAndEscapesQuoteAndBackslash) {
    EXPECT_EQ(Util::JsonString(""), "\"\"");
    EXPECT_EQ(Util::JsonString("plain text"), "\"plain text\"");
    EXPECT_EQ(Util::JsonString("say \"hi\" \\ bye"), "\"say \\\"hi\\\" \\\\ bye\"");
    EXPECT_EQ(Util::JsonString("/etc/x.conf"), "\"/etc/x.conf\"");
}

TEST(JsonStringTest, EveryControlCharacterIsEscaped) {
    EXPECT_EQ(Util::JsonString("a\nb\tc\rd\be\ff"), "\"a\\nb\\tc\\rd\\be\\ff\"");
    EXPECT_EQ(Util::JsonString(std::string("\0\x01\x1f\x7f", 4)), "\"\\u0000\\u0001\\u001f\\u007f\"");
    for (int c = 0; c < 0x20; ++c) {
        std::string value = Util::JsonString(std::string(1, static_cast<char>(c)));
        for (char out : value) EXPECT_GE(static_cast<unsigned char>(out), 0x20) << c;
    }
}

TEST(JsonStringTest, ValidUtf8StaysAndInvalidBytesBecomeReplacementCharacters) {
    EXPECT_EQ(Util::JsonString("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"),
              "\"gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80\"");
    // A lone continuation byte, a cut sequence, an overlong slash, a surrogate,
    // a lead byte past U+10FFFF.
    EXPECT_EQ(Util::JsonString("a\x80z"), "\"a\\ufffdz\"");
    EXPECT_EQ(Util::JsonString("a\xe2\x82"), "\"a\\ufffd\\ufffd\"");
    EXPECT_EQ(Util::JsonString("\xc0\xaf"), "\"\\ufffd\\ufffd\"");
    EXPECT_EQ(Util::JsonString("\xed\xa0\x80"), "\"\\ufffd\\ufffd\\ufffd\"");
    EXPECT_EQ(Util::JsonString("\xf5\x80\x80\x80"), "\"\\ufffd\\ufffd\\ufffd\\ufffd\"");
}

}  // namespace
