#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "util/Strings.h"

namespace {

using Fields = std::vector<std::string>;

TEST(BeginsEndsWithTest, LooksAtFirstAndLastByteOnly) {
    EXPECT_TRUE(Util::BeginsWith("/etc", '/'));
    EXPECT_FALSE(Util::BeginsWith("etc/", '/'));
    EXPECT_TRUE(Util::EndsWith("etc/", '/'));
    EXPECT_FALSE(Util::EndsWith("/etc", '/'));
    EXPECT_TRUE(Util::BeginsWith("x", 'x'));
    EXPECT_TRUE(Util::EndsWith("x", 'x'));
}

TEST(BeginsEndsWithTest, EmptyStringIsFalseEvenForZeroByte) {
    EXPECT_FALSE(Util::BeginsWith("", '\0'));
    EXPECT_FALSE(Util::EndsWith("", '\0'));
    EXPECT_FALSE(Util::BeginsWith("", 'a'));
    EXPECT_FALSE(Util::EndsWith("", 'a'));
}

TEST(TrimTest, RemovesOnlyTheGivenCharacterFromTheChosenEnds) {
    std::string s = "xxabcxx";
    Util::Trim(s, 'x');
    EXPECT_EQ(s, "abc");

    s = "xxabcxx";
    Util::TrimFromStart(s, 'x');
    EXPECT_EQ(s, "abcxx");

    s = "xxabcxx";
    Util::TrimFromEnd(s, 'x');
    EXPECT_EQ(s, "xxabc");

    s = " xabx ";
    Util::Trim(s, 'x');
    EXPECT_EQ(s, " xabx ");  // not white space, and not behind it
}

TEST(TrimTest, StringMadeOnlyOfTheCharacterBecomesEmpty) {
    std::string s = "xxx";
    Util::Trim(s, 'x');
    EXPECT_EQ(s, "");
    s = "xxx";
    Util::TrimFromStart(s, 'x');
    EXPECT_EQ(s, "");
    s = "xxx";
    Util::TrimFromEnd(s, 'x');
    EXPECT_EQ(s, "");
    s = "";
    Util::Trim(s, 'x');
    EXPECT_EQ(s, "");
}

TEST(RemoveRepeatTest, CollapsesEveryRunToOne) {
    std::string s = "a//b///c/";
    Util::RemoveRepeat(s, '/');
    EXPECT_EQ(s, "a/b/c/");

    s = "//";
    Util::RemoveRepeat(s, '/');
    EXPECT_EQ(s, "/");

    s = "////a////";
    Util::RemoveRepeat(s, '/');
    EXPECT_EQ(s, "/a/");

    s = "aabbaa";
    Util::RemoveRepeat(s, 'b');
    EXPECT_EQ(s, "aabaa");  // other runs stay
}

TEST(RemoveRepeatTest, ShortAndRunFreeStringsStayAlone) {
    std::string s = "/";
    Util::RemoveRepeat(s, '/');
    EXPECT_EQ(s, "/");
    s = "";
    Util::RemoveRepeat(s, '/');
    EXPECT_EQ(s, "");
    s = "a/b/c";
    Util::RemoveRepeat(s, '/');
    EXPECT_EQ(s, "a/b/c");
}

TEST(SplitTest, DropsEmptyFields) {
    Fields out;
    Util::Split(out, ",a,,b,", ',');
    EXPECT_EQ(out, (Fields{"a", "b"}));
    Util::Split(out, ",,,a", ',');
    EXPECT_EQ(out, (Fields{"a"}));
    Util::Split(out, "a b  c", ' ');
    EXPECT_EQ(out, (Fields{"a", "b", "c"}));
}

TEST(SplitTest, LoneDelimiterEmptyAndPlainText) {
    Fields out{"stale"};
    Util::Split(out, ",", ',');
    EXPECT_EQ(out, Fields{});
    out = {"stale"};
    Util::Split(out, ",,", ',');
    EXPECT_EQ(out, Fields{});
    out = {"stale"};
    Util::Split(out, "", ',');
    EXPECT_EQ(out, Fields{});
    Util::Split(out, "abc", ',');
    EXPECT_EQ(out, Fields{"abc"});
}

TEST(SliceTest, KeepsEmptyFieldsButNotAfterOneTrailingDelimiter) {
    Fields out;
    Util::Slice(out, ",a,,b,", ',');
    EXPECT_EQ(out, (Fields{"", "a", "", "b"}));
    Util::Slice(out, "a,,", ',');
    EXPECT_EQ(out, (Fields{"a", ""}));
    Util::Slice(out, ",", ',');
    EXPECT_EQ(out, Fields{""});
    Util::Slice(out, "abc", ',');
    EXPECT_EQ(out, Fields{"abc"});
}

TEST(SliceTest, EmptyTextGivesNothingAndReplacesOut) {
    Fields out{"stale"};
    Util::Slice(out, "", ',');
    EXPECT_EQ(out, Fields{});
}

TEST(StringContainsTest, CaseSensitiveAndCaseInsensitive) {
    EXPECT_TRUE(Util::StringContainsCi("Link UP", "up"));
    EXPECT_FALSE(Util::StringContains("Link UP", "up"));
    EXPECT_TRUE(Util::StringContains("Link UP", "k U"));
    EXPECT_FALSE(Util::StringContainsCi("Link UP", "down"));
    EXPECT_FALSE(Util::StringContains("up", "Link UP"));
}

TEST(StringContainsTest, EmptyNeedleAlwaysOccurs) {
    EXPECT_TRUE(Util::StringContains("", ""));
    EXPECT_TRUE(Util::StringContains("abc", ""));
    EXPECT_TRUE(Util::StringContainsCi("", ""));
    EXPECT_FALSE(Util::StringContains("", "a"));
}

TEST(StringToUpperTest, OnlyAsciiLettersChange) {
    EXPECT_EQ(Util::StringToUpper("eth0 Link-up_z{}`@"), "ETH0 LINK-UP_Z{}`@");
    EXPECT_EQ(Util::StringToUpper(""), "");
    // Bytes above 127 and a zero byte pass through in the default locale.
    const std::string bytes("\xe9\xff\0a", 4);
    EXPECT_EQ(Util::StringToUpper(bytes), std::string("\xe9\xff\0A", 4));
}

TEST(StringContainsAnyCharTest, AnyByteOfTheSet) {
    EXPECT_TRUE(Util::StringContainsAnyChar("a;b", ";|&"));
    EXPECT_TRUE(Util::StringContainsAnyChar("a&", ";|&"));
    EXPECT_FALSE(Util::StringContainsAnyChar("abc", ";|&"));
    EXPECT_FALSE(Util::StringContainsAnyChar("", ";|&"));
}

TEST(StringContainsAnyCharTest, EmptySetIsFalseEvenWithZeroBytes) {
    EXPECT_FALSE(Util::StringContainsAnyChar("abc", ""));
    EXPECT_FALSE(Util::StringContainsAnyChar(std::string("a\0b", 3), ""));
}

TEST(ElideTest, CutsToTheLimitWithMarker) {
    EXPECT_EQ(Elide("abcdefghij", 8), "abcd ...");
    EXPECT_EQ(Elide("abcdefghij", 9), "abcde ...");
    EXPECT_EQ(Elide("abcdefghij", 4), " ...");
    EXPECT_EQ(Elide("abcdefghij", 5), "a ...");
}

TEST(ElideTest, ShortEnoughTextComesBackUnchanged) {
    EXPECT_EQ(Elide("abcdefghij", 10), "abcdefghij");
    EXPECT_EQ(Elide("abcdefghij", 11), "abcdefghij");
    EXPECT_EQ(Elide("abcdefghij", 4294967295U), "abcdefghij");
    EXPECT_EQ(Elide("", 0), "");
    EXPECT_EQ(Elide("ab", 2), "ab");  // a limit below 4 is fine when nothing is cut
}

TEST(ElideTest, LimitBelowFourOnLongerTextThrowsLengthError) {
    EXPECT_THROW(Elide("abcdefghij", 3), std::length_error);
    EXPECT_THROW(Elide("abcdefghij", 0), std::length_error);
    EXPECT_THROW(Elide("ab", 1), std::length_error);
}

TEST(ElideTest, FirstUseFromManyThreadsAtOnce) {
    // The marker is set up once on first use; racing first calls must all see it.
    std::vector<std::string> results(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < results.size(); ++i) {
        threads.emplace_back([&results, i] { results[i] = Elide("0123456789", 7); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(results, Fields(8, "012 ..."));
}

}  // namespace
