#include "SqlLiteral.h"

#include <cstdio>
#include <limits>
#include <optional>

namespace sql {

namespace {

constexpr integer seconds_per_day = 86400;
constexpr integer first_second = -62167219200; // 0000-01-01T00:00:00Z
constexpr integer last_second = 253402300799;  // 9999-12-31T23:59:59Z

// --- The calendar, which repeats itself every 400 years; a year begins in March here, so that a leap
// day is its last --------------------------------------------------------------------------------

constexpr integer days_per_era = 146097;
constexpr integer epoch = 719468; // days from 0000-03-01 to 1970-01-01

struct Date {
    int year, month, day;
};

integer daysSinceEpoch(const Date& date)
{
    const integer year = date.month <= 2 ? date.year - 1 : date.year;
    const integer era = (year >= 0 ? year : year - 399) / 400;
    const integer yearOfEra = year - era * 400;
    const integer dayOfYear = (153 * (date.month + (date.month > 2 ? -3 : 9)) + 2) / 5 + date.day
                              - 1;
    return era * days_per_era + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear
           - epoch;
}

Date dateOf(integer days)
{
    days += epoch;
    const integer era = (days >= 0 ? days : days - days_per_era + 1) / days_per_era;
    const integer day = days - era * days_per_era;
    const integer year = (day - day / 1460 + day / 36524 - day / 146096) / 365;
    const integer dayOfYear = day - (365 * year + year / 4 - year / 100);
    const integer month = (5 * dayOfYear + 2) / 153;
    const int calendarMonth = static_cast<int>(month < 10 ? month + 3 : month - 9);
    return {static_cast<int>(year + era * 400) + (calendarMonth <= 2 ? 1 : 0), calendarMonth,
            static_cast<int>(dayOfYear - (153 * month + 2) / 5 + 1)};
}

string textOf(integer time)
{
    if (time < first_second || time > last_second)
        return string();
    const integer second = ((time % seconds_per_day) + seconds_per_day) % seconds_per_day;
    const Date date = dateOf((time - second) / seconds_per_day);
    const int ofDay = static_cast<int>(second);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", date.year, date.month,
                  date.day, ofDay / 3600, ofDay / 60 % 60, ofDay % 60);
    return text;
}

// --- Reading, from the front of the text -------------------------------------------------------------

bool take(std::string_view& text, char byte)
{
    if (text.empty() || text.front() != byte)
        return false;
    text.remove_prefix(1);
    return true;
}

// A number of exactly so many digits in a range; -1 for anything else.
int takeNumber(std::string_view& text, std::size_t digits, int lowest, int highest)
{
    if (text.size() < digits)
        return -1;
    int number = 0;
    for (std::size_t i = 0; i < digits; ++i) {
        if (text[i] < '0' || text[i] > '9')
            return -1;
        number = number * 10 + (text[i] - '0');
    }
    text.remove_prefix(digits);
    return number >= lowest && number <= highest ? number : -1;
}

// Seconds of a day, from hours and minutes.
int takeHoursAndMinutes(std::string_view& text)
{
    const int hours = takeNumber(text, 2, 0, 23);
    if (hours < 0 || !take(text, ':'))
        return -1;
    const int minutes = takeNumber(text, 2, 0, 59);
    return minutes < 0 ? -1 : hours * 3600 + minutes * 60;
}

int takeTimeOfDay(std::string_view& text)
{
    const int minutes = takeHoursAndMinutes(text);
    if (minutes < 0 || !take(text, ':'))
        return minutes;
    const int seconds = takeNumber(text, 2, 0, 59);
    if (seconds < 0)
        return -1;
    if (take(text, '.')) {
        if (takeNumber(text, 1, 0, 9) < 0)
            return -1;
        while (takeNumber(text, 1, 0, 9) >= 0) {
        }
    }
    return minutes + seconds;
}

// The offset from UTC in seconds; none at all is 0.
std::optional<int> takeOffset(std::string_view& text)
{
    if (text.empty() || take(text, 'Z'))
        return 0;
    const bool west = take(text, '-');
    if (!west && !take(text, '+'))
        return std::nullopt;
    const int offset = takeHoursAndMinutes(text);
    if (offset < 0)
        return std::nullopt;
    return west ? -offset : offset;
}

std::optional<integer> takeDate(std::string_view& text)
{
    const int year = takeNumber(text, 4, 0, 9999);
    const int month = year >= 0 && take(text, '-') ? takeNumber(text, 2, 1, 12) : -1;
    const int day = month >= 0 && take(text, '-') ? takeNumber(text, 2, 1, 31) : -1;
    if (day < 0)
        return std::nullopt;
    const integer days = daysSinceEpoch({year, month, day});
    if (dateOf(days).day != day) // the thirtieth of February
        return std::nullopt;
    return days * seconds_per_day;
}

std::optional<integer> secondsIn(std::string_view text)
{
    const std::optional<integer> date = takeDate(text);
    if (!date || text.empty())
        return date;
    if (!take(text, 'T') && !take(text, ' '))
        return std::nullopt;
    const int time = takeTimeOfDay(text);
    const std::optional<int> offset = takeOffset(text);
    if (time < 0 || !offset || !text.empty())
        return std::nullopt;
    return *date + time - *offset;
}

} // namespace

string escapeLike(std::string_view text)
{
    string escaped;
    for (const char byte : text) {
        if (byte == '%' || byte == '_' || byte == '\\')
            escaped += '\\';
        escaped += byte;
    }
    return escaped;
}

string quoteIdentifier(std::string_view name)
{
    string quoted = "`";
    for (const char byte : name) {
        if (byte == '`')
            quoted += '`';
        quoted += byte;
    }
    return quoted + '`';
}

string toIso8601(const Time& time)
{
    return textOf(time.asInteger());
}

string toIso8601(std::chrono::system_clock::time_point time)
{
    return textOf(std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count());
}

bool fromIso8601(std::string_view text, Time& time)
{
    const std::optional<integer> seconds = secondsIn(text);
    if (!seconds || *seconds < std::numeric_limits<time_t>::min()
        || *seconds > std::numeric_limits<time_t>::max())
        return false;
    time = Time(*seconds);
    return true;
}

bool fromIso8601(std::string_view text, std::chrono::system_clock::time_point& time)
{
    using TimePoint = std::chrono::system_clock::time_point;
    using Seconds = std::chrono::seconds;
    const std::optional<integer> seconds = secondsIn(text);
    if (!seconds
        || *seconds < std::chrono::ceil<Seconds>(TimePoint::min().time_since_epoch()).count()
        || *seconds > std::chrono::floor<Seconds>(TimePoint::max().time_since_epoch()).count())
        return false;
    time = TimePoint(Seconds(*seconds));
    return true;
}

} // namespace sql
