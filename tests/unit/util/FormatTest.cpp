#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <regex>
#include <string>

#include "tests/support/FixedClock.h"
#include "util/Format.h"

namespace {

TEST(FormatTest, FormatsLikePrintf) {
    EXPECT_EQ(Util::Format("%s=%d %u %05.1f %x%%", "exit", -3, 4294967295U, 2.25, 255U),
              "exit=-3 4294967295 002.2 ff%");
}

TEST(FormatTest, ExactlyFourThousandNinetyFiveCharactersComeBackWhole) {
    std::string text = Util::Format("%4095d", 7);
    EXPECT_EQ(text, std::string(4094, ' ') + "7");
    EXPECT_EQ(text.size(), 4095U);
}

TEST(FormatTest, FourThousandNinetySixCharactersBecomeTruncatedMarkerAlone) {
    EXPECT_EQ(Util::Format("%4096d", 7), "(truncated)");
    EXPECT_EQ(Util::Format("%s%s", std::string(4000, 'a').c_str(), std::string(1000, 'b').c_str()), "(truncated)");
}

TEST(FormatTest, TextsAroundFiveHundredTwelveCharactersComeBackWhole) {
    for (int width : {510, 511, 512, 513, 1000}) {
        const std::string text = Util::Format("%*d|", width, 7);
        EXPECT_EQ(text, std::string(static_cast<size_t>(width) - 1, ' ') + "7|") << width;
    }
    EXPECT_EQ(Util::Format("%s%s", std::string(3000, 'a').c_str(), "end"), std::string(3000, 'a') + "end");
}

TEST(FormatTest, ZeroCharacterEndsALongTextToo) {
    const std::string text = Util::Format("%s%cafter", std::string(600, 'a').c_str(), 0);
    EXPECT_EQ(text, std::string(600, 'a'));
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
TEST(FormatTest, EmptyFormatGivesEmptyString) { EXPECT_EQ(Util::Format(""), ""); }
#pragma GCC diagnostic pop

TEST(FormatTest, ZeroCharacterEndsTheText) {
    std::string text = Util::Format("ab%ccd", 0);
    EXPECT_EQ(text, "ab");
    EXPECT_EQ(text.size(), 2U);
    EXPECT_EQ(Util::Format("%c", 0), "");
}

TEST(FormatTest, InvalidWideCharacterIsAFormattingError) {
    // A lone UTF-16 surrogate is no character in any locale: vsnprintf fails with EILSEQ.
    EXPECT_EQ(Util::Format("before %lc after", static_cast<wint_t>(0xD800)), "Formatting error");
    EXPECT_EQ(Util::Format(std::string("before %lc after"), static_cast<wint_t>(0xD800)), "Formatting error");
}

TEST(FormatTest, StringFormatBehavesLikeCharPointerFormat) {
    EXPECT_EQ(Util::Format(std::string("%s=%d %u"), "exit", -3, 4294967295U), "exit=-3 4294967295");
    EXPECT_EQ(Util::Format(std::string("%4095d"), 7), std::string(4094, ' ') + "7");
    EXPECT_EQ(Util::Format(std::string("%4096d"), 7), "(truncated)");
    EXPECT_EQ(Util::Format(std::string()), "");
    EXPECT_EQ(Util::Format(std::string("ab%ccd"), 0), "ab");
    const std::string plain = "no conversions";
    EXPECT_EQ(Util::Format(plain), "no conversions");
}

TEST(FormatTest, FloatArgumentsArePromotedThroughTheStringOverload) {
    float half = 0.5F;
    char letter = 'x';
    short small = -2;
    EXPECT_EQ(Util::Format(std::string("%.2f %c %hd"), half, letter, small), "0.50 x -2");
}

TEST(FormatTimeDurAsDdHhMmSsTest, SplitsIntoDaysHoursMinutesSeconds) {
    EXPECT_EQ(Util::FormatTimeDurAsDdHhMmSs(0), "00:00:00:00");
    EXPECT_EQ(Util::FormatTimeDurAsDdHhMmSs(59), "00:00:00:59");
    EXPECT_EQ(Util::FormatTimeDurAsDdHhMmSs(3600), "00:01:00:00");
    EXPECT_EQ(Util::FormatTimeDurAsDdHhMmSs(86399), "00:23:59:59");
    EXPECT_EQ(Util::FormatTimeDurAsDdHhMmSs(86400), "01:00:00:00");
    EXPECT_EQ(Util::FormatTimeDurAsDdHhMmSs(90061), "01:01:01:01");
    EXPECT_EQ(Util::FormatTimeDurAsDdHhMmSs(8640000), "100:00:00:00");
    EXPECT_EQ(Util::FormatTimeDurAsDdHhMmSs(4294967295U), "49710:06:28:15");
}

// Runs the body with the process time zone set to `zone`, and puts the old one back.
class TimeZone {
public:
    explicit TimeZone(const char* zone) {
        const char* old = getenv("TZ");
        m_hadZone = old != nullptr;
        if (m_hadZone) m_oldZone = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone() {
        if (m_hadZone) {
            setenv("TZ", m_oldZone.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

private:
    bool m_hadZone = false;
    std::string m_oldZone;
};

// The UTC text of `when` shifted by `offset` seconds.
std::string UtcText(time_t when, long offset, const char* format) {
    when += offset;
    tm parts{};
    gmtime_r(&when, &parts);
    char text[64] = {};
    strftime(text, sizeof text, format, &parts);
    return text;
}

// The second the texts are made from, read as they read it: time() takes the
// kernel's coarse clock, which may still show the last second for a tick after
// clock_gettime shows the next one.
time_t SecondNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

// A fixed zone five hours east of UTC, without summer time, written out by hand.
constexpr long kFiveHoursEast = 5L * 3600;

TEST(GetSystemDateTest, IsTheLocalDate) {
    TimeZone zone("TST-5");
    time_t before = SecondNow();
    std::string date = Util::GetSystemDate();
    time_t after = SecondNow();
    EXPECT_TRUE(date == UtcText(before, kFiveHoursEast, "%m/%d/%y") ||
                date == UtcText(after, kFiveHoursEast, "%m/%d/%y"))
        << date;
}

TEST(GetSystemTimeTest, IsTheLocalTimeOfDay) {
    TimeZone zone("TST-5");
    time_t before = SecondNow();
    std::string timeOfDay = Util::GetSystemTime();
    time_t after = SecondNow();
    EXPECT_TRUE(timeOfDay == UtcText(before, kFiveHoursEast, "%H:%M:%S") ||
                timeOfDay == UtcText(after, kFiveHoursEast, "%H:%M:%S"))
        << timeOfDay;
}

// Instants around and past the end of a 32-bit time_t, as seconds since 1970.
constexpr long long kLastSecondOf32Bits = 2147483647LL;  // 2038-01-19 03:14:07 UTC
constexpr long long kFirstSecondPast32Bits = kLastSecondOf32Bits + 1;
constexpr long long kLeapDay2040 = 2214172799LL;     // 2040-02-29 23:59:59 UTC
constexpr long long kSummer2040 = 2224756800LL;      // 2040-07-01 12:00:00 UTC
constexpr long long kPastUnsigned32 = 4294967296LL;  // 2106-02-07 06:28:16 UTC

// Zones written out as rules, so the texts do not depend on the time-zone files:
// fixed offsets either side of UTC, and one with summer time.
constexpr const char* kUtc = "UTC0";
constexpr const char* kFiveAndAHalfEast = "XST-5:30";
constexpr const char* kSevenWest = "YST+7";
constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

struct TimeTexts {
    long long seconds;
    const char* zone;
    const char* date;
    const char* timeOfDay;
};

TEST(TimeTextsTest, ExactAroundAndPastTheEndOf32BitTime) {
    const TimeTexts cases[] = {
        {kLastSecondOf32Bits, kUtc, "01/19/38", "03:14:07"},
        {kLastSecondOf32Bits, kFiveAndAHalfEast, "01/19/38", "08:44:07"},
        {kLastSecondOf32Bits, kSevenWest, "01/18/38", "20:14:07"},
        {kLastSecondOf32Bits, kCentralEurope, "01/19/38", "04:14:07"},
        {kFirstSecondPast32Bits, kUtc, "01/19/38", "03:14:08"},
        {kFirstSecondPast32Bits, kFiveAndAHalfEast, "01/19/38", "08:44:08"},
        {kFirstSecondPast32Bits, kSevenWest, "01/18/38", "20:14:08"},
        {kFirstSecondPast32Bits, kCentralEurope, "01/19/38", "04:14:08"},
        {kLeapDay2040, kUtc, "02/29/40", "23:59:59"},
        {kLeapDay2040, kFiveAndAHalfEast, "03/01/40", "05:29:59"},
        {kLeapDay2040, kSevenWest, "02/29/40", "16:59:59"},
        {kLeapDay2040, kCentralEurope, "03/01/40", "00:59:59"},
        {kSummer2040, kUtc, "07/01/40", "12:00:00"},
        {kSummer2040, kFiveAndAHalfEast, "07/01/40", "17:30:00"},
        {kSummer2040, kSevenWest, "07/01/40", "05:00:00"},
        {kSummer2040, kCentralEurope, "07/01/40", "14:00:00"},
        {kPastUnsigned32, kUtc, "02/07/06", "06:28:16"},
        {kPastUnsigned32, kFiveAndAHalfEast, "02/07/06", "11:58:16"},
        {kPastUnsigned32, kSevenWest, "02/06/06", "23:28:16"},
        {kPastUnsigned32, kCentralEurope, "02/07/06", "07:28:16"},
    };
    for (const TimeTexts& expected : cases) {
        SCOPED_TRACE(std::to_string(expected.seconds) + " in " + expected.zone);
        TimeZone zone(expected.zone);
        FixedClock clock(expected.seconds, 999999999L);
        EXPECT_EQ(Util::GetSystemDate(), expected.date);
        EXPECT_EQ(Util::GetSystemTime(), expected.timeOfDay);
    }
}

TEST(FormatIsoTimeTest, LocalTimeWithTheZonesOffset) {
    const struct {
        long long seconds;
        const char* zone;
        const char* text;
    } cases[] = {
        {kLastSecondOf32Bits, kUtc, "2038-01-19T03:14:07+00:00"},
        {kFirstSecondPast32Bits, kFiveAndAHalfEast, "2038-01-19T08:44:08+05:30"},
        {kFirstSecondPast32Bits, kSevenWest, "2038-01-18T20:14:08-07:00"},
        {kLeapDay2040, kCentralEurope, "2040-03-01T00:59:59+01:00"},
        {kSummer2040, kCentralEurope, "2040-07-01T14:00:00+02:00"},
        {kPastUnsigned32, kUtc, "2106-02-07T06:28:16+00:00"},
    };
    for (const auto& expected : cases) {
        SCOPED_TRACE(std::to_string(expected.seconds) + " in " + expected.zone);
        TimeZone zone(expected.zone);
        // Whole seconds: the fraction is dropped, never rounded up.
        EXPECT_EQ(Util::FormatIsoTime({static_cast<time_t>(expected.seconds), 999999999L}), expected.text);
    }
}

timespec SystemNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

bool NotAfter(const timespec& a, const timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec <= b.tv_nsec);
}

TEST(RealTimeNowTest, IsTheSystemClockUnlessSet) {
    timespec before = SystemNow();
    timespec now = Util::RealTimeNow();
    timespec after = SystemNow();
    EXPECT_TRUE(NotAfter(before, now) && NotAfter(now, after));
}

TEST(RealTimeNowTest, ASetClockIsReadUntilTheSystemsIsPutBack) {
    {
        FixedClock clock(kPastUnsigned32, 123456789L);
        timespec now = Util::RealTimeNow();
        EXPECT_EQ(static_cast<long long>(now.tv_sec), kPastUnsigned32);
        EXPECT_EQ(now.tv_nsec, 123456789L);
    }
    timespec before = SystemNow();
    timespec now = Util::RealTimeNow();
    timespec after = SystemNow();
    EXPECT_TRUE(NotAfter(before, now) && NotAfter(now, after));
    EXPECT_EQ(Util::SetRealTimeClock(nullptr), nullptr);
}

TEST(GetSystemDateTest, MonthSlashDaySlashTwoDigitYear) {
    std::string date = Util::GetSystemDate();
    EXPECT_TRUE(std::regex_match(date, std::regex("(0[1-9]|1[0-2])/(0[1-9]|[12][0-9]|3[01])/[0-9]{2}"))) << date;
}

TEST(GetSystemTimeTest, TwentyFourHourClock) {
    std::string time = Util::GetSystemTime();
    EXPECT_TRUE(std::regex_match(time, std::regex("([01][0-9]|2[0-3]):[0-5][0-9]:[0-6][0-9]"))) << time;
}

}  // namespace
