#include "SqlLiteral.h"

#include <algorithm>
#include <cstdio>

namespace sql {

namespace {

constexpr integer seconds_per_day = 86400;
constexpr integer first_second = -62167219200; // 0000-01-01T00:00:00Z
constexpr integer last_second = 253402300799;  // 9999-12-31T23:59:59Z

// --- The calendar, which repeats itself every 400 years. A year begins in March here, so that a leap day
// is its last, and years count from -400, so that nothing is negative. Days count from 0000-01-01 -----

constexpr integer days_per_era = 146097;
constexpr integer first_day = 146037; // 0000-01-01, in days from the first March

struct Date {
    int year, month, day;
};

integer dayOf(const Date& date)
{
    const integer year = date.year + (date.month > 2 ? 400 : 399);
    const integer month = date.month + (date.month > 2 ? -3 : 9);
    const integer dayOfYear = (153 * month + 2) / 5 + date.day - 1;
    return year * 365 + year / 4 - year / 100 + year / 400 + dayOfYear - first_day;
}

Date dateOf(integer day)
{
    const integer era = (day + first_day) / days_per_era;
    const integer dayOfEra = (day + first_day) % days_per_era;
    const integer year = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const integer dayOfYear = dayOfEra - (365 * year + year / 4 - year / 100);
    const integer month = (5 * dayOfYear + 2) / 153;
    return {static_cast<int>(year + era * 400 - (month < 10 ? 400 : 399)),
            static_cast<int>(month < 10 ? month + 3 : month - 9),
            static_cast<int>(dayOfYear - (153 * month + 2) / 5 + 1)};
}

string textOf(integer time)
{
    if (time < first_second || time > last_second)
        return string();
    const Date date = dateOf((time - first_second) / seconds_per_day);
    const int ofDay = static_cast<int>((time - first_second) % seconds_per_day);
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

// The number is 0 before.
bool takeDigits(std::string_view& text, std::size_t count, int& number)
{
    for (std::size_t i = 0; i < count; ++i) {
        if (i == text.size() || text[i] < '0' || text[i] > '9')
            return false;
        number = number * 10 + (text[i] - '0');
    }
    text.remove_prefix(count);
    return true;
}

bool takeTwoDigits(std::string_view& text, int highest, int& number)
{
    return takeDigits(text, 2, number) && number <= highest;
}

bool takeFraction(std::string_view& text)
{
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    text.remove_prefix(digits);
    return digits > 0;
}

bool takeHoursAndMinutes(std::string_view& text, int& seconds)
{
    int hours = 0;
    int minutes = 0;
    if (!takeTwoDigits(text, 23, hours) || !take(text, ':') || !takeTwoDigits(text, 59, minutes))
        return false;
    seconds = hours * 3600 + minutes * 60;
    return true;
}

bool takeTimeOfDay(std::string_view& text, int& time)
{
    if (!takeHoursAndMinutes(text, time))
        return false;
    if (!take(text, ':'))
        return true;
    int seconds = 0;
    if (!takeTwoDigits(text, 59, seconds))
        return false;
    time += seconds;
    return !take(text, '.') || takeFraction(text);
}

// The offset from UTC in seconds; none at all is 0.
bool takeOffset(std::string_view& text, int& offset)
{
    if (text.empty() || take(text, 'Z'))
        return true;
    const bool west = take(text, '-');
    if ((!west && !take(text, '+')) || !takeHoursAndMinutes(text, offset))
        return false;
    if (west)
        offset = -offset;
    return true;
}

bool takeDate(std::string_view& text, integer& day)
{
    Date date{};
    if (!takeDigits(text, 4, date.year) || !take(text, '-') || !takeDigits(text, 2, date.month)
        || !take(text, '-') || !takeDigits(text, 2, date.day))
        return false;
    day = dayOf(date);
    return dateOf(day).month == date.month; // the thirtieth of February is in March
}

bool read(std::string_view text, integer& seconds)
{
    integer day = 0;
    int time = 0;
    int offset = 0;
    if (!takeDate(text, day))
        return false;
    const bool hasTime = take(text, 'T') || take(text, ' ');
    if (hasTime && (!takeTimeOfDay(text, time) || !takeOffset(text, offset)))
        return false;
    seconds = first_second + day * seconds_per_day + time - offset;
    return text.empty();
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
    integer seconds = 0;
    if (!read(text, seconds))
        return false;
    const Time found(static_cast<time_t>(seconds));
    if (found.asInteger() != seconds) // beyond a time_t of 32 bits
        return false;
    time = found;
    return true;
}

bool fromIso8601(std::string_view text, std::chrono::system_clock::time_point& time)
{
    using TimePoint = std::chrono::system_clock::time_point;
    using Seconds = std::chrono::seconds;
    integer seconds = 0;
    if (!read(text, seconds)
        || seconds < std::chrono::ceil<Seconds>(TimePoint::min().time_since_epoch()).count()
        || seconds > std::chrono::floor<Seconds>(TimePoint::max().time_since_epoch()).count())
        return false;
    time = TimePoint(Seconds(seconds));
    return true;
}

} // namespace sql
