#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <sstream>
#include <string>

#include <strings.h>

namespace {

std::string setting(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "none";
}

// 1234.5 by the C library, 1234567 by C++, and whether letters of either case are the same.
std::string numbersAndLetters()
{
    char real[16];
    std::snprintf(real, sizeof real, "%.1f", 1234.5);
    std::ostringstream grouped;
    grouped << 1234567;
    return std::string(real) + " " + grouped.str()
           + (::strcasecmp("i", "I") == 0 ? " i=I" : " i<>I");
}

std::string clockAt(time_t time)
{
    char text[16];
    return std::string(text, std::strftime(text, sizeof text, "%H:%M", std::localtime(&time)));
}

TEST(SettingTest, NumbersAndLettersFollowTheLocale)
{
    const std::map<std::string, std::string> expected = {{"C", "1234.5 1234567 i=I"},
                                                         {"de_DE.UTF-8", "1234,5 1.234.567 i=I"},
                                                         {"tr_TR.UTF-8", "1234,5 1.234.567 i<>I"}};
    EXPECT_EQ(numbersAndLetters(), expected.at(setting("SQLWRAPPER_TEST_LOCALE")));
}

TEST(SettingTest, ClocksOfWinterAndSummerFollowTheZone)
{
    const std::map<std::string, std::string> expected = {
        {"PST8PDT,M3.2.0,M11.1.0", "04:00 05:00"},
        {"IST-5:30", "17:30 17:30"},
        {"AEST-10AEDT,M10.1.0,M4.1.0/3", "23:00 22:00"}};
    const time_t january = 1705320000; // 2024-01-15 12:00 UTC
    const time_t july = 1721044800;    // 2024-07-15 12:00 UTC
    EXPECT_EQ(clockAt(january) + " " + clockAt(july), expected.at(setting("TZ")));
}

} // namespace
