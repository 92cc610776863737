#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <regex>
#include <string>

#include "util/Util.h"

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

// A fixed zone five hours east of UTC, without summer time, written out by hand.
constexpr long kFiveHoursEast = 5L * 3600;

TEST(GetSystemDateTest, IsTheLocalDate) {
    TimeZone zone("TST-5");
    time_t before = time(nullptr);
    std::string date = Util::GetSystemDate();
    time_t after = time(nullptr);
    EXPECT_TRUE(date == UtcText(before, kFiveHoursEast, "%m/%d/%y") ||
                date == UtcText(after, kFiveHoursEast, "%m/%d/%y"))
        << date;
}

TEST(GetSystemTimeTest, IsTheLocalTimeOfDay) {
    TimeZone zone("TST-5");
    time_t before = time(nullptr);
    std::string timeOfDay = Util::GetSystemTime();
    time_t after = time(nullptr);
    EXPECT_TRUE(timeOfDay == UtcText(before, kFiveHoursEast, "%H:%M:%S") ||
                timeOfDay == UtcText(after, kFiveHoursEast, "%H:%M:%S"))
        << timeOfDay;
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
