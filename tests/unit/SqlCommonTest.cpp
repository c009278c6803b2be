#include "SqlCommon.h"

#include "Declarations.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Sqlite.h"
#include "Wording.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <ctime>
#include <functional>
#include <limits>
#include <ostream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sql::Time;
using testing::Combine;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::TestWithParam;
using testing::Values;
using testing::ValuesIn;

template <typename Parameter> std::string nameOf(const testing::TestParamInfo<Parameter>& info)
{
    return info.param.name;
}

static_assert(std::is_same_v<sql::string, std::string>);
static_assert(std::is_signed_v<sql::integer> && sizeof(sql::integer) == 8);

static_assert(sizeof(sql::field_type) == 4);
static_assert(sql::type_int == 0);
static_assert(sql::type_text == 1);
static_assert(sql::type_float == 2);
static_assert(sql::type_bool == 3);
static_assert(sql::type_time == 4);
static_assert(sql::type_undefined < 0 || sql::type_undefined > 4);

static_assert(test::declared<std::string (*)(sql::field_type)>(sql::type2Str));
static_assert(test::declared<std::string (*)(const std::string&)>(sql::quoteStr));
static_assert(test::declared<std::string& (*)(std::string&)>(sql::trimleft));
static_assert(test::declared<std::string& (*)(std::string&)>(sql::trimright));
static_assert(test::declared<std::string& (*)(std::string&)>(sql::trim));
static_assert(test::declared<std::string (*)(const std::string&)>(sql::trim));
static_assert(test::declared<void (*)(std::string, std::vector<std::string>&, const char*)>(
    sql::listToVector));
static_assert(test::declared<std::string (*)(int)>(sql::intToStr));
static_assert(test::declared<std::string (*)(sql::integer)>(sql::intToStr));
static_assert(test::declared<const char* (*)(int)>(sql::sqliteRc2Str));
static_assert(test::declared<int (*)(sqlite3*, const std::string&)>(sql::queryNumber));
static_assert(test::declared<bool (*)(sqlite3*, const std::string&)>(sql::runOneStepSqlStmt));

static_assert(std::is_default_constructible_v<Time>);
static_assert(std::is_convertible_v<sql::integer, Time>);
static_assert(std::is_copy_constructible_v<Time>);
static_assert(std::is_same_v<decltype(std::declval<Time&>() = std::declval<const Time&>()), Time&>);
static_assert(test::declared<Time (*)()>(&Time::now));
static_assert(test::declared<bool (Time::*)(const Time&)>(&Time::operator==));
static_assert(test::declared<double (Time::*)(Time&)>(&Time::diff));
static_assert(test::declared<sql::integer (Time::*)() const>(&Time::asInteger));
static_assert(test::declared<time_t (Time::*)() const>(&Time::getTime));
static_assert(test::declared<std::string (Time::*)(const char*) const>(&Time::format));
static_assert(test::declared<std::string (Time::*)() const>(&Time::asString));
static_assert(test::declared<std::string (Time::*)() const>(&Time::asTimeString));
static_assert(test::declared<std::string (Time::*)() const>(&Time::asDateString));
static_assert(test::declared<void (Time::*)(sql::integer)>(&Time::addValue));
static_assert(test::declared<void (Time::*)(sql::integer)>(&Time::addMinutes));
static_assert(test::declared<void (Time::*)(sql::integer)>(&Time::addHours));
static_assert(test::declared<void (Time::*)(sql::integer)>(&Time::addDays));
static_assert(!std::is_polymorphic_v<Time> && sizeof(Time) == sizeof(time_t));

class CommonTest : public testing::Test {
protected:
    CommonTest()
    {
        _diagnostics.setLevel(9);
    }

    test::Diagnostics _diagnostics;
};

// --- type names ---

struct TypeName {
    const char* name;
    sql::field_type type;
    const char* text;
};

void PrintTo(const TypeName& type, std::ostream* out)
{
    *out << type.name;
}

class TypeNameTest : public CommonTest, public testing::WithParamInterface<TypeName> {};

TEST_P(TypeNameTest, IsTheLowerCaseName)
{
    EXPECT_EQ(sql::type2Str(GetParam().type), GetParam().text);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Types, TypeNameTest,
                         Values(TypeName{"Integer", sql::type_int, "integer"},
                                TypeName{"Text", sql::type_text, "text"},
                                TypeName{"Float", sql::type_float, "float"},
                                TypeName{"Bool", sql::type_bool, "bool"},
                                TypeName{"Time", sql::type_time, "time"}),
                         nameOf<TypeName>);

class UnknownTypeTest : public CommonTest, public testing::WithParamInterface<int> {};

TEST_P(UnknownTypeTest, IsUndefinedAndReported)
{
    EXPECT_EQ(sql::type2Str(sql::field_type(GetParam())), "undefined");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'false' in SqlCommon.cpp (sql::string sql::type2Str(sql::field_type))"));
}

INSTANTIATE_TEST_SUITE_P(Types, UnknownTypeTest,
                         Values(int(sql::type_undefined), 5, 6, 7, 256, -1, INT_MAX, INT_MIN));

// --- quoting ---

struct Quoting {
    const char* name;
    std::string text;
    std::string quoted;
};

void PrintTo(const Quoting& quoting, std::ostream* out)
{
    *out << quoting.name;
}

class QuoteTest : public CommonTest, public testing::WithParamInterface<Quoting> {};

TEST_P(QuoteTest, DoublesSingleQuotesOnly)
{
    EXPECT_EQ(sql::quoteStr(GetParam().text), GetParam().quoted);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, QuoteTest,
    Values(Quoting{"Empty", "", ""}, Quoting{"Plain", "tea", "tea"},
           Quoting{"Name", "O'Brien", "O''Brien"}, Quoting{"One", "'", "''"},
           Quoting{"Two", "''", "''''"}, Quoting{"AtBothEnds", "'tea'", "''tea''"},
           Quoting{"DoubleQuotes", "\"tea\"", "\"tea\""}, Quoting{"Backslash", "\\'\\", "\\''\\"},
           Quoting{"OtherQuotes", "`\xb4\xe2\x80\x99", "`\xb4\xe2\x80\x99"},
           Quoting{"HighBytes", "\x80\xff'\xa7", "\x80\xff''\xa7"},
           Quoting{"BlanksAndLines", " ' \r\n\t", " '' \r\n\t"},
           Quoting{"ZeroByte", std::string("a\0'b", 4), std::string("a\0''b", 5)},
           Quoting{"Percent", "100% 'pure' %s", "100% ''pure'' %s"}),
    nameOf<Quoting>);

TEST_F(CommonTest, QuotingKeepsEveryOtherByte)
{
    std::string text;
    std::string quoted;
    for (int byte = 0; byte <= UCHAR_MAX; ++byte) {
        text += static_cast<char>(byte);
        quoted += byte == '\'' ? std::string("''") : std::string(1, static_cast<char>(byte));
    }
    EXPECT_EQ(sql::quoteStr(text), quoted);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- trimming ---

struct Trimming {
    const char* name;
    std::string text;
    std::string left;
    std::string right;
    std::string both;
};

void PrintTo(const Trimming& trimming, std::ostream* out)
{
    *out << trimming.name;
}

class TrimTest : public CommonTest, public testing::WithParamInterface<Trimming> {};

TEST_P(TrimTest, LeftErasesTheLeadingBlanks)
{
    std::string text = GetParam().text;
    std::string& result = sql::trimleft(text);
    EXPECT_EQ(&result, &text);
    EXPECT_EQ(text, GetParam().left);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(TrimTest, RightErasesTheTrailingBlanks)
{
    std::string text = GetParam().text;
    std::string& result = sql::trimright(text);
    EXPECT_EQ(&result, &text);
    EXPECT_EQ(text, GetParam().right);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(TrimTest, BothEndsInPlace)
{
    std::string text = GetParam().text;
    std::string& result = sql::trim(text);
    EXPECT_EQ(&result, &text);
    EXPECT_EQ(text, GetParam().both);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(TrimTest, CopyLeavesTheArgument)
{
    std::string text = GetParam().text;
    EXPECT_EQ(sql::trim(std::as_const(text)), GetParam().both);
    EXPECT_EQ(text, GetParam().text);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TrimTest,
    Values(Trimming{"Empty", "", "", "", ""}, Trimming{"Plain", "tea", "tea", "tea", "tea"},
           Trimming{"OneByteBetweenBlanks", " x ", "x ", " x", "x"},
           Trimming{"BlankInside", "  a b \t\n", "a b \t\n", "  a b", "a b"},
           Trimming{"OnlyBlanks", " \t\n\v\f\r", "", "", ""},
           Trimming{"EveryBlank", " \t\n\v\f\rx\r\f\v\n\t ", "x\r\f\v\n\t ", " \t\n\v\f\rx", "x"},
           Trimming{"ZeroByteIsNoBlank", std::string(" \0 ", 3), std::string("\0 ", 2),
                    std::string(" \0", 2), std::string("\0", 1)},
           Trimming{"HighBytesAreNoBlanks", "\xa0\x85\xff", "\xa0\x85\xff", "\xa0\x85\xff",
                    "\xa0\x85\xff"}),
    nameOf<Trimming>);

TEST_F(CommonTest, BlanksAreTheSixOfTheDefaultLocale)
{
    std::string blanks;
    for (int byte = 0; byte <= UCHAR_MAX; ++byte) {
        if (sql::trim(std::string(1, static_cast<char>(byte))).empty())
            blanks += static_cast<char>(byte);
    }
    EXPECT_EQ(blanks, "\t\n\v\f\r ");
}

// --- lists ---

struct List {
    const char* name;
    std::string list;
    const char* delimiters;
    std::vector<std::string> items;
};

void PrintTo(const List& list, std::ostream* out)
{
    *out << list.name;
}

class ListTest : public CommonTest, public testing::WithParamInterface<List> {};

TEST_P(ListTest, GivesItsTrimmedItemsInPlaceOfTheFormerOnes)
{
    std::string list = GetParam().list;
    std::vector<std::string> items = {"former", "contents"};
    sql::listToVector(list, items, GetParam().delimiters);
    EXPECT_THAT(items, ElementsAreArray(GetParam().items));
    EXPECT_EQ(list, GetParam().list);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Lists, ListTest,
    Values(List{"Empty", "", ",", {}}, List{"DelimitersOnly", ",,,", ",", {}},
           List{"OneItem", "a", ",", {"a"}}, List{"OrderIsKept", "c,a,b", ",", {"c", "a", "b"}},
           List{"BlanksAreTrimmed", " a ; b ", ";", {"a", "b"}},
           List{"BlanksInsideStay", " a b ;\tc\n", ";", {"a b", "c"}},
           List{"BlankItemIsKeptAsEmpty", "a, ,b", ",", {"a", "", "b"}},
           List{"BlankListIsOneEmptyItem", " ", ",", {""}},
           List{"RunIsOneSeparator", "a,,b", ",", {"a", "b"}},
           List{"OuterDelimitersYieldNothing", ",,a,b,", ",", {"a", "b"}},
           List{"SeveralDelimiters", "a,b;c,;d", ",;", {"a", "b", "c", "d"}},
           List{"BlankAsDelimiter", "  a  b ", " ", {"a", "b"}},
           List{"NoDelimiters", " a,b ", "", {"a,b"}}, List{"OtherDelimiter", "a,b", ";", {"a,b"}},
           List{"HighBytesAsDelimiter", "a\xa7\x62\xff", "\xa7", {"a", "b\xff"}},
           List{"ZeroByteEndsTheList", std::string("a,b\0,c", 6), ",", {"a", "b"}},
           List{"ZeroByteFirst", std::string("\0a,b", 4), ",", {}},
           List{"RepeatedItems", "a,a,a", ",", {"a", "a", "a"}}),
    nameOf<List>);

// --- number texts ---

struct IntText {
    const char* name;
    int value;
    const char* text;
};

void PrintTo(const IntText& parameter, std::ostream* out)
{
    *out << parameter.text;
}

struct IntegerText {
    const char* name;
    sql::integer value;
    const char* text;
};

void PrintTo(const IntegerText& parameter, std::ostream* out)
{
    *out << parameter.text;
}

class IntTextTest : public CommonTest, public testing::WithParamInterface<IntText> {};
class IntegerTextTest : public CommonTest, public testing::WithParamInterface<IntegerText> {};

TEST_P(IntTextTest, IsPlainDecimal)
{
    EXPECT_EQ(sql::intToStr(GetParam().value), GetParam().text);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(IntTextTest, DoesNotDependOnTheLocale)
{
    const test::CommaLocale locale;
    EXPECT_EQ(sql::intToStr(GetParam().value), GetParam().text);
}

TEST_P(IntegerTextTest, IsPlainDecimal)
{
    EXPECT_EQ(sql::intToStr(GetParam().value), GetParam().text);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(IntegerTextTest, DoesNotDependOnTheLocale)
{
    const test::CommaLocale locale;
    EXPECT_EQ(sql::intToStr(GetParam().value), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Numbers, IntTextTest,
                         Values(IntText{"Zero", 0, "0"}, IntText{"Seven", 7, "7"},
                                IntText{"MinusOne", -1, "-1"}, IntText{"Thousand", 1000, "1000"},
                                IntText{"Million", -1234567, "-1234567"},
                                IntText{"Highest", INT32_MAX, "2147483647"},
                                IntText{"Lowest", INT32_MIN, "-2147483648"}),
                         nameOf<IntText>);

INSTANTIATE_TEST_SUITE_P(Numbers, IntegerTextTest,
                         Values(IntegerText{"Zero", 0, "0"}, IntegerText{"MinusOne", -1, "-1"},
                                IntegerText{"AboveInt", 2147483648, "2147483648"},
                                IntegerText{"BelowInt", -2147483649, "-2147483649"},
                                IntegerText{"Highest", INT64_MAX, "9223372036854775807"},
                                IntegerText{"Lowest", INT64_MIN, "-9223372036854775808"}),
                         nameOf<IntegerText>);

// --- time ---

constexpr time_t latest = std::numeric_limits<time_t>::max();
constexpr time_t earliest = std::numeric_limits<time_t>::min();

class TimeTest : public CommonTest {
protected:
    TimeTest()
    {
        _diagnostics.setLevel(3);
    }

    test::TimeZone _zone;
};

class TimeRangeTest : public TimeTest, public testing::WithParamInterface<sql::integer> {};

TEST_P(TimeRangeTest, SecondsAreNarrowedToTheWidthOfTime)
{
    const Time time(GetParam());
    _diagnostics.setLevel(9);
    EXPECT_EQ(time.getTime(), static_cast<time_t>(GetParam()));
    EXPECT_EQ(time.asInteger(), sql::integer(static_cast<time_t>(GetParam())));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Seconds, TimeRangeTest,
                         Values(0, 1, -1, 1711796400, INT32_MAX, INT32_MIN, earliest, latest,
                                2147483648, 4294967295, 4294967296, 4294967301, -2147483649,
                                INT64_MAX, INT64_MIN));

TEST_F(TimeTest, ConstructionTracesTheCalendarTextWithItsLineEnd)
{
    _diagnostics.setLevel(9);
    const Time time(1711796400);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 1711796400 = 'Sat Mar 30 12:00:00 2024\n'"));
}

TEST_F(TimeTest, ConstructionTracesANegativeTime)
{
    _diagnostics.setLevel(9);
    const Time time(-1);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = -1 = 'Thu Jan  1 00:59:59 1970\n'"));
}

TEST_F(TimeTest, ConstructionIsSilentBelowLevelNine)
{
    _diagnostics.setLevel(8);
    const Time time(1711796400);
    const Time current;
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TimeTest, CurrentTimeIsTracedOnce)
{
    _diagnostics.setLevel(9);
    const Time time;
    const time_t seconds = time.getTime();
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = "
                            + std::to_string(seconds) + " = '" + std::ctime(&seconds) + "'"));
}

TEST_F(TimeTest, CopyHoldsTheSameSecondsAndIsSilent)
{
    const Time time(77);
    _diagnostics.setLevel(9);
    const Time copy(time);
    EXPECT_EQ(copy.asInteger(), 77);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TimeTest, AssignmentCopiesTheSecondsAndIsSilent)
{
    const Time time(77);
    Time other(5);
    _diagnostics.setLevel(9);
    Time& result = other = time;
    EXPECT_EQ(&result, &other);
    EXPECT_EQ(other.asInteger(), 77);
    EXPECT_EQ(time.asInteger(), 77);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TimeTest, AssignmentToItselfChangesNothing)
{
    Time time(77);
    const Time& itself = time;
    _diagnostics.setLevel(9);
    time = itself;
    EXPECT_EQ(time.asInteger(), 77);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TimeTest, AllTimesAreEqualDeliberately)
{
    Time time(1);
    const Time others[] = {Time(1), Time(2), Time(latest), Time(earliest)};
    _diagnostics.setLevel(9);
    for (const Time& other : others)
        EXPECT_TRUE(time == other) << other.asInteger();
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TimeTest, DifferenceIsPositiveWhenThisTimeIsLater)
{
    Time later(10);
    Time earlier(4);
    _diagnostics.setLevel(9);
    EXPECT_EQ(later.diff(earlier), 6.0);
    EXPECT_EQ(earlier.diff(later), -6.0);
    EXPECT_EQ(later.diff(later), 0.0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TimeTest, DifferenceOfDistantTimesDoesNotWrap)
{
    Time later(latest);
    Time earlier(-2);
    _diagnostics.setLevel(9);
    EXPECT_EQ(later.diff(earlier), static_cast<double>(latest) + 2.0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

struct TimeTexts {
    const char* name;
    const char* zone;
    sql::integer seconds;
    const char* text;
    const char* time;
    const char* date;
};

void PrintTo(const TimeTexts& texts, std::ostream* out)
{
    *out << texts.name;
}

class TimeTextTest : public TestWithParam<TimeTexts> {
protected:
    TimeTextTest() : _zone(GetParam().zone)
    {
    }

    test::Diagnostics _diagnostics;
    test::TimeZone _zone;
};

TEST_P(TimeTextTest, IsInLocalTime)
{
    const Time time(GetParam().seconds);
    EXPECT_EQ(time.asString(), GetParam().text);
    EXPECT_EQ(time.asTimeString(), GetParam().time);
    EXPECT_EQ(time.asDateString(), GetParam().date);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

const char utc[] = "UTC0";
const char central_europe[] = "CET-1CEST,M3.5.0,M10.5.0/3";
const char new_york[] = "EST5EDT,M3.2.0,M11.1.0";

INSTANTIATE_TEST_SUITE_P(Zones, TimeTextTest,
                         Values(TimeTexts{"EpochInUtc", utc, 0, "01-01-1970 00:00:00, Thu",
                                          "00:00:00", "01-01-1970"},
                                TimeTexts{"Epoch", central_europe, 0, "01-01-1970 01:00:00, Thu",
                                          "01:00:00", "01-01-1970"},
                                TimeTexts{"BeforeTheEpoch", new_york, 0, "31-12-1969 19:00:00, Wed",
                                          "19:00:00", "31-12-1969"},
                                TimeTexts{"Negative", central_europe, -3601,
                                          "31-12-1969 23:59:59, Wed", "23:59:59", "31-12-1969"},
                                TimeTexts{"Winter", central_europe, 1711796400,
                                          "30-03-2024 12:00:00, Sat", "12:00:00", "30-03-2024"},
                                TimeTexts{"Summer", central_europe, 1711882800,
                                          "31-03-2024 13:00:00, Sun", "13:00:00", "31-03-2024"},
                                TimeTexts{"LastOf32Bits", utc, 2147483647,
                                          "19-01-2038 03:14:07, Tue", "03:14:07", "19-01-2038"}),
                         nameOf<TimeTexts>);

TEST_F(TimeTest, WeekdayIsInTheLanguageOfTheProcess)
{
    const Time time(0);
    const test::CommaLocale german;
    EXPECT_EQ(time.asString(), "01-01-1970 01:00:00, Do");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

struct Format {
    const char* name;
    std::string format;
    std::string text;
};

void PrintTo(const Format& format, std::ostream* out)
{
    *out << format.name;
}

class TimeFormatTest : public TimeTest, public testing::WithParamInterface<Format> {};

TEST_P(TimeFormatTest, IsExpandedUpTo127Characters)
{
    const Time time(1711796400);
    _diagnostics.setLevel(9);
    EXPECT_EQ(time.format(GetParam().format.c_str()), GetParam().text);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

std::string times(int count, const std::string& text)
{
    std::string repeated;
    for (int i = 0; i < count; ++i)
        repeated += text;
    return repeated;
}

INSTANTIATE_TEST_SUITE_P(
    Formats, TimeFormatTest,
    Values(Format{"Empty", "", ""}, Format{"Text", "tea", "tea"},
           Format{"Iso", "%Y-%m-%dT%H:%M", "2024-03-30T12:00"}, Format{"Percent", "100%%", "100%"},
           Format{"LineEnd", "%H%n", "12\n"},
           Format{"Text127", std::string(127, 'x'), std::string(127, 'x')},
           Format{"Text128", std::string(128, 'x'), ""},
           Format{"Text1000", std::string(1000, 'x'), ""},
           Format{"Years127", times(31, "%Y") + "abc", times(31, "2024") + "abc"},
           Format{"Years128", times(32, "%Y"), ""}, Format{"Years4000", times(1000, "%Y"), ""}),
    nameOf<Format>);

struct Shift {
    const char* name;
    void (Time::*operation)(sql::integer);
    time_t start;
    sql::integer count;
    time_t result;
};

void PrintTo(const Shift& shift, std::ostream* out)
{
    *out << shift.name;
}

class TimeShiftTest : public TimeTest, public testing::WithParamInterface<Shift> {};

TEST_P(TimeShiftTest, IsExactAndWrapsInTheWidthOfTime)
{
    Time time(GetParam().start);
    _diagnostics.setLevel(9);
    (time.*GetParam().operation)(GetParam().count);
    EXPECT_EQ(time.getTime(), GetParam().result);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Seconds, TimeShiftTest,
    Values(Shift{"Forward", &Time::addValue, 100, 7, 107},
           Shift{"Back", &Time::addValue, 100, -107, -7},
           Shift{"Nothing", &Time::addValue, 100, 0, 100},
           Shift{"PastTheLatest", &Time::addValue, latest, 1, earliest},
           Shift{"PastTheEarliest", &Time::addValue, earliest, -1, latest},
           Shift{"Highest", &Time::addValue, 0, INT64_MAX, static_cast<time_t>(INT64_MAX)},
           Shift{"Lowest", &Time::addValue, 0, INT64_MIN, static_cast<time_t>(INT64_MIN)},
           Shift{"Above32Bits", &Time::addValue, 5, 4294967296, static_cast<time_t>(4294967301)}),
    nameOf<Shift>);

INSTANTIATE_TEST_SUITE_P(
    Minutes, TimeShiftTest,
    Values(Shift{"Forward", &Time::addMinutes, 100, 2, 220},
           Shift{"Back", &Time::addMinutes, 100, -1, 40},
           Shift{"Nothing", &Time::addMinutes, 100, 0, 100},
           Shift{"PastTheLatest", &Time::addMinutes, latest, 1, earliest + 59},
           Shift{"PastTheEarliest", &Time::addMinutes, earliest, -1, latest - 59},
           Shift{"ProductWraps", &Time::addMinutes, 0, INT64_MAX, -60},
           Shift{"ProductOfTheLowestWraps", &Time::addMinutes, 7, INT64_MIN, 7}),
    nameOf<Shift>);

INSTANTIATE_TEST_SUITE_P(Hours, TimeShiftTest,
                         Values(Shift{"Forward", &Time::addHours, 100, 2, 7300},
                                Shift{"Back", &Time::addHours, 100, -1, -3500},
                                Shift{"Nothing", &Time::addHours, 100, 0, 100},
                                Shift{"PastTheLatest", &Time::addHours, latest, 1, earliest + 3599},
                                Shift{"PastTheEarliest", &Time::addHours, earliest, -1,
                                      latest - 3599},
                                Shift{"ProductWraps", &Time::addHours, 0, INT64_MAX, -3600},
                                Shift{"ProductOfTheLowestWraps", &Time::addHours, 7, INT64_MIN, 7}),
                         nameOf<Shift>);

INSTANTIATE_TEST_SUITE_P(Days, TimeShiftTest,
                         Values(Shift{"Forward", &Time::addDays, 100, 2, 172900},
                                Shift{"Back", &Time::addDays, 100, -1, -86300},
                                Shift{"Nothing", &Time::addDays, 100, 0, 100},
                                Shift{"PastTheLatest", &Time::addDays, latest, 1, earliest + 86399},
                                Shift{"PastTheEarliest", &Time::addDays, earliest, -1,
                                      latest - 86399},
                                Shift{"ProductWraps", &Time::addDays, 0, INT64_MAX, -86400},
                                Shift{"ProductOfTheLowestWraps", &Time::addDays, 7, INT64_MIN, 7},
                                Shift{"NarrowedCount", &Time::addDays, 0, 4294967297,
                                      static_cast<time_t>(INT64_C(4294967297) * 86400)}),
                         nameOf<Shift>);

TEST_F(TimeTest, DayIs86400SecondsWhenDaylightSavingTimeBegins)
{
    Time time(1711796400);
    _diagnostics.setLevel(9);
    ASSERT_EQ(time.asString(), "30-03-2024 12:00:00, Sat");
    time.addDays(1);
    EXPECT_EQ(time.asInteger(), 1711882800);
    EXPECT_EQ(time.asString(), "31-03-2024 13:00:00, Sun");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TimeTest, DayIs86400SecondsWhenDaylightSavingTimeEnds)
{
    Time time(1729936800);
    _diagnostics.setLevel(9);
    ASSERT_EQ(time.asString(), "26-10-2024 12:00:00, Sat");
    time.addDays(1);
    EXPECT_EQ(time.asInteger(), 1730023200);
    EXPECT_EQ(time.asString(), "27-10-2024 11:00:00, Sun");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- result codes ---

TEST_F(CommonTest, ResultCodesUpTo110HaveTheirNames)
{
    const std::vector<std::string> names = {
        "SQLITE_OK",       "SQLITE_ERROR",     "SQLITE_INTERNAL", "SQLITE_PERM",
        "SQLITE_ABORT",    "SQLITE_BUSY",      "SQLITE_LOCKED",   "SQLITE_NOMEM",
        "SQLITE_READONLY", "SQLITE_INTERRUPT", "SQLITE_IOERR",    "SQLITE_CORRUPT",
        "SQLITE_NOTFOUND", "SQLITE_FULL",      "SQLITE_CANTOPEN", "SQLITE_PROTOCOL",
        "SQLITE_EMPTY",    "SQLITE_SCHEMA",    "SQLITE_TOOBIG",   "SQLITE_CONSTRAINT",
        "SQLITE_MISMATCH", "SQLITE_MISUSE",    "SQLITE_NOLFS",    "SQLITE_AUTH",
        "SQLITE_FORMAT",   "SQLITE_RANGE",     "SQLITE_NOTADB"};
    std::vector<std::string> expected(111, "unknown");
    std::copy(names.begin(), names.end(), expected.begin());
    expected[100] = "SQLITE_ROW";
    expected[101] = "SQLITE_DONE";

    std::vector<std::string> actual;
    for (int rc = 0; rc <= 110; ++rc)
        actual.push_back(sql::sqliteRc2Str(rc));
    EXPECT_EQ(actual, expected);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(CommonTest, ExtendedResultCodesAreUnknown)
{
    for (int rc = 256; rc < 256 * 64; ++rc)
        ASSERT_STREQ(sql::sqliteRc2Str(rc), "unknown") << rc;
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

class UnknownResultCodeTest : public CommonTest, public testing::WithParamInterface<int> {};

TEST_P(UnknownResultCodeTest, IsUnknown)
{
    EXPECT_STREQ(sql::sqliteRc2Str(GetParam()), "unknown");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(ResultCodes, UnknownResultCodeTest,
                         Values(-1, 27, 28, 99, 102, 255, 256, 266, INT_MAX, INT_MIN));

TEST_F(CommonTest, ResultCodeNameOutlivesTheNextOnes)
{
    const char* const busy = sql::sqliteRc2Str(5);
    const char* const unknown = sql::sqliteRc2Str(-1);
    for (int rc = 0; rc <= 110; ++rc)
        sql::sqliteRc2Str(rc);
    EXPECT_STREQ(busy, "SQLITE_BUSY");
    EXPECT_STREQ(unknown, "unknown");
}

// --- one-step statements ---

struct NumberQuery {
    const char* name;
    const char* query;
    int result;
    std::vector<std::string> events; // past "stmt='...'"
};

void PrintTo(const NumberQuery& query, std::ostream* out)
{
    *out << query.name;
}

class StatementTest : public testing::Test {
protected:
    StatementTest()
    {
        _db.run("create table product (id integer primary key, name text)");
        _db.run("insert into product select 1, 'tea' union all select 2, 'milk'");
    }

    test::Connection _db;
    test::Diagnostics _diagnostics;
};

class QueryNumberTest : public StatementTest,
                        public testing::WithParamInterface<std::tuple<NumberQuery, int>> {};

TEST_P(QueryNumberTest, YieldsItsNumberOrReports)
{
    const auto& [query, level] = GetParam();
    _diagnostics.setLevel(level);
    std::vector<std::string> events = {"[DEBUG2] SqlCommon.cpp (queryNumber) - stmt='"
                                       + std::string(query.query) + "'"};
    events.insert(events.end(), query.events.begin(), query.events.end());

    EXPECT_EQ(sql::queryNumber(_db, query.query), query.result);
    EXPECT_EQ(_diagnostics.events(), test::visibleAt(level, events));
    EXPECT_EQ(sqlite3_next_stmt(_db, nullptr), nullptr);
}

const std::vector<NumberQuery> number_queries = {
    {"Constant",
     "select 5",
     5,
     {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=5"}},
    {"Zero", "select 0", 0, {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=0"}},
    {"Count",
     "select count(*) from product",
     2,
     {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=2"}},
    {"Highest",
     "select 2147483647",
     2147483647,
     {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=2147483647"}},
    {"NarrowedTo32Bits",
     "select 4294967301",
     5,
     {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=5"}},
    {"NarrowedToANegativeNumber",
     "select 2147483648",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'select 2147483648' failed",
      "[ERROR] SqlCommon.cpp (queryNumber) -   SQLite returned returned number = -2147483648 < 0"}},
    {"Null", "select null", 0, {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=0"}},
    {"Text",
     "select '7 apples'",
     7,
     {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=7"}},
    {"Real", "select 2.9", 2, {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=2"}},
    {"FirstOfSeveralRows",
     "select id from product order by id desc",
     2,
     {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=2"}},
    {"FirstOfSeveralStatements",
     "select 5; select 6; nonsense",
     5,
     {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=5"}},
    {"PercentSigns",
     "select length('%s%n%d')",
     6,
     {"[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=6"}},
    {"Negative",
     "select -3",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'select -3' failed",
      "[ERROR] SqlCommon.cpp (queryNumber) -   SQLite returned returned number = -3 < 0"}},
    {"MinusOneIsRefusedToo",
     "select -1",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'select -1' failed",
      "[ERROR] SqlCommon.cpp (queryNumber) -   SQLite returned returned number = -1 < 0"}},
    {"TwoColumns",
     "select 5, 6",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'select 5, 6' failed: query returned 2 columns in result while 1 is expected"}},
    {"TwoColumnsWithANegativeNumber",
     "select -5, -6",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'select -5, -6' failed: query returned 2 columns in result while 1 is expected"}},
    {"ThreeColumns",
     "select 5, 6, 7",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'select 5, 6, 7' failed: query returned 3 columns in result while 1 is expected"}},
    {"NoRow",
     "select 1 where 0",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'select 1 where 0' failed",
      "[ERROR] SqlCommon.cpp (queryNumber) -    the query returned 101=SQLITE_DONE instead of SQLITE_ROW: not an error"}},
    {"NoRowOfTwoColumns",
     "select 1, 2 where 0",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'select 1, 2 where 0' failed",
      "[ERROR] SqlCommon.cpp (queryNumber) -    the query returned 101=SQLITE_DONE instead of SQLITE_ROW: not an error"}},
    {"FailingStep",
     "select abs(-9223372036854775807 - 1)",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'select abs(-9223372036854775807 - 1)' failed",
      "[ERROR] SqlCommon.cpp (queryNumber) -    the query returned 1=SQLITE_ERROR instead of SQLITE_ROW: integer overflow"}},
    {"Constraint",
     "insert into product values (1, 'tea')",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'insert into product values (1, 'tea')' failed",
      "[ERROR] SqlCommon.cpp (queryNumber) -    the query returned 19=SQLITE_CONSTRAINT instead of SQLITE_ROW: UNIQUE constraint failed: product.id"}},
    {"Empty",
     "",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - The SQL query '' failed",
      "[ERROR] SqlCommon.cpp (queryNumber) -    the query returned 21=SQLITE_MISUSE instead of SQLITE_ROW: not an error"}},
    {"SyntaxError",
     "selec 5",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - Failed to prepare the SQL query 'selec 5': ",
      "[ERROR] SqlCommon.cpp (queryNumber) -   rc=1=SQLITE_ERROR: near \"selec\": syntax error"}},
    {"MissingTable",
     "select count(*) from nowhere",
     -1,
     {"[ERROR] SqlCommon.cpp (queryNumber) - Failed to prepare the SQL query 'select count(*) from nowhere': ",
      "[ERROR] SqlCommon.cpp (queryNumber) -   rc=1=SQLITE_ERROR: no such table: nowhere"}},
};

template <typename Parameter>
std::string nameAtLevel(const testing::TestParamInfo<std::tuple<Parameter, int>>& info)
{
    return std::string(std::get<0>(info.param).name) + "AtLevel"
           + std::to_string(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Queries, QueryNumberTest,
                         Combine(ValuesIn(number_queries), Values(2, 3, 7, 8, 9)),
                         nameAtLevel<NumberQuery>);

TEST_F(StatementTest, QueryWithoutConnectionIsReported)
{
    _diagnostics.setLevel(9);
    EXPECT_EQ(sql::queryNumber(nullptr, "select 5"), -1);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'db' in SqlCommon.cpp (int sql::queryNumber(sqlite3*, const string&))"));
}

TEST_F(StatementTest, QueryReadsOnlyTheFirstRow)
{
    const test::SqliteCalls calls;
    sql::queryNumber(_db, "select id from product");
    EXPECT_THAT(calls.order, ElementsAre("prepare", "step", "finalize"));
}

struct OneStep {
    const char* name;
    const char* statement;
    bool result;
    std::vector<std::string> events; // past "stmt='...'"
};

void PrintTo(const OneStep& step, std::ostream* out)
{
    *out << step.name;
}

class RunOneStepTest : public StatementTest,
                       public testing::WithParamInterface<std::tuple<OneStep, int>> {};

TEST_P(RunOneStepTest, SucceedsWhenDoneOrReports)
{
    const auto& [step, level] = GetParam();
    _diagnostics.setLevel(level);
    std::vector<std::string> events = {"[DEBUG2] SqlCommon.cpp (runOneStepSqlStmt) - stmt='"
                                       + std::string(step.statement) + "'"};
    events.insert(events.end(), step.events.begin(), step.events.end());

    EXPECT_EQ(sql::runOneStepSqlStmt(_db, step.statement), step.result);
    EXPECT_EQ(_diagnostics.events(), test::visibleAt(level, events));
    EXPECT_EQ(sqlite3_next_stmt(_db, nullptr), nullptr);
}

const std::vector<OneStep> one_steps = {
    {"Insert", "insert into product values (3, 'salt')", true, {}},
    {"CreateTable", "create table stock (id integer)", true, {}},
    {"QueryWithoutRows", "select 1 where 0", true, {}},
    {"PercentSigns", "insert into product values (3, '%s%n%d')", true, {}},
    {"QueryWithARow",
     "select 5",
     false,
     {"[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - Running the SQL stmt 'select 5' failed",
      "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) -   SQLite returned 100=SQLITE_ROW instead of SQLITE_DONE: another row available"}},
    {"Constraint",
     "insert into product values (1, 'tea')",
     false,
     {"[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - Running the SQL stmt 'insert into product values (1, 'tea')' failed",
      "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) -   SQLite returned 19=SQLITE_CONSTRAINT instead of SQLITE_DONE: UNIQUE constraint failed: product.id"}},
    {"Empty",
     "",
     false,
     {"[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - Running the SQL stmt '' failed",
      "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) -   SQLite returned 21=SQLITE_MISUSE instead of SQLITE_DONE: not an error"}},
    {"SyntaxError",
     "inser",
     false,
     {"[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - Failed to prepare the SQL statement 'inser': ",
      "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) -  rc=1=SQLITE_ERROR: near \"inser\": syntax error"}},
    {"MissingTable",
     "delete from nowhere",
     false,
     {"[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - Failed to prepare the SQL statement 'delete from nowhere': ",
      "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) -  rc=1=SQLITE_ERROR: no such table: nowhere"}},
};

INSTANTIATE_TEST_SUITE_P(Statements, RunOneStepTest,
                         Combine(ValuesIn(one_steps), Values(2, 3, 7, 8, 9)), nameAtLevel<OneStep>);

TEST_F(StatementTest, StatementWithoutConnectionIsReported)
{
    _diagnostics.setLevel(9);
    EXPECT_FALSE(sql::runOneStepSqlStmt(nullptr, "select 5"));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'db' in SqlCommon.cpp (bool sql::runOneStepSqlStmt(sqlite3*, const string&))"));
}

TEST_F(StatementTest, StatementTakesEffect)
{
    sql::runOneStepSqlStmt(_db, "insert into product values (3, 'salt')");
    EXPECT_EQ(_db.rows("select name from product where id = 3"), "salt");
}

TEST_F(StatementTest, OnlyTheFirstOfSeveralStatementsIsRun)
{
    EXPECT_TRUE(
        sql::runOneStepSqlStmt(_db, "delete from product where id = 1; delete from product"));
    EXPECT_EQ(_db.rows("select id from product"), "2");
}

TEST_F(StatementTest, OnlyTheFirstStepIsRunWhenThereAreRows)
{
    const test::SqliteCalls calls;
    EXPECT_FALSE(sql::runOneStepSqlStmt(_db, "select id from product"));
    EXPECT_EQ(calls.steps, 1);
}

class ExtendedResultCodeTest : public StatementTest {
protected:
    ExtendedResultCodeTest()
    {
        sqlite3_extended_result_codes(_db, 1);
    }
};

TEST_F(ExtendedResultCodeTest, OfAQueryThatFailsIsUnknown)
{
    EXPECT_EQ(sql::queryNumber(_db, "insert into product values (1, 'tea')"), -1);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'insert into product values (1, 'tea')' failed",
            test::worded(
                "[ERROR] SqlCommon.cpp (queryNumber) -    the query returned 1555=unknown instead of SQLITE_ROW: UNIQUE constraint failed: product.id")));
}

TEST_F(ExtendedResultCodeTest, OfAQueryThatCannotBePreparedIsUnknown)
{
    EXPECT_EQ(sql::queryNumber(_db, "select 'a' < 'b' collate nowhere"), -1);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlCommon.cpp (queryNumber) - Failed to prepare the SQL query 'select 'a' < 'b' collate nowhere': ",
            test::worded(
                "[ERROR] SqlCommon.cpp (queryNumber) -   rc=257=unknown: no such collation sequence: nowhere")));
}

TEST_F(ExtendedResultCodeTest, OfAStatementThatFailsIsUnknown)
{
    EXPECT_FALSE(sql::runOneStepSqlStmt(_db, "insert into product values (1, 'tea')"));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - Running the SQL stmt 'insert into product values (1, 'tea')' failed",
            test::worded(
                "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) -   SQLite returned 1555=unknown instead of SQLITE_DONE: UNIQUE constraint failed: product.id")));
}

TEST_F(ExtendedResultCodeTest, OfAStatementThatCannotBePreparedIsUnknown)
{
    EXPECT_FALSE(sql::runOneStepSqlStmt(_db, "select 'a' < 'b' collate nowhere"));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - Failed to prepare the SQL statement 'select 'a' < 'b' collate nowhere': ",
            test::worded(
                "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) -  rc=257=unknown: no such collation sequence: nowhere")));
}

// The way through SQLite, with the log lines as they come in between.
struct Route {
    const char* name;
    std::function<void(sqlite3*)> act;
    std::vector<std::string> order;
};

void PrintTo(const Route& route, std::ostream* out)
{
    *out << route.name;
}

class RouteTest : public StatementTest, public testing::WithParamInterface<Route> {};

TEST_P(RouteTest, ReportsAndFinalizesInItsOrder)
{
    _diagnostics.setLevel(8);
    test::SqliteCalls calls;
    _diagnostics.onLine([&calls](const test::LogLine& line) { calls.order.push_back(line.tag); });
    GetParam().act(_db);
    EXPECT_EQ(calls.order, GetParam().order);
}

// Without a level the same calls are made.
TEST_P(RouteTest, IsTheSameWithoutLines)
{
    _diagnostics.removeTraceObject();
    std::vector<std::string> order;
    for (const std::string& step : GetParam().order) {
        if (step[0] != '[')
            order.push_back(step);
    }
    const test::SqliteCalls calls;
    GetParam().act(_db);
    EXPECT_EQ(calls.order, order);
}

INSTANTIATE_TEST_SUITE_P(
    Routes, RouteTest,
    Values(Route{"Number",
                 [](sqlite3* db) { sql::queryNumber(db, "select 5"); },
                 {"[DEBUG2]", "prepare", "step", "finalize", "[DEBUG2]"}},
           Route{"NumberPrepareFails",
                 [](sqlite3* db) { sql::queryNumber(db, "selec"); },
                 {"[DEBUG2]", "prepare", "[ERROR]", "[ERROR]"}},
           Route{"NumberStepFails",
                 [](sqlite3* db) { sql::queryNumber(db, "select 1 where 0"); },
                 {"[DEBUG2]", "prepare", "step", "finalize", "[ERROR]", "[ERROR]"}},
           Route{"NumberOfTwoColumns",
                 [](sqlite3* db) { sql::queryNumber(db, "select 5, 6"); },
                 {"[DEBUG2]", "prepare", "step", "finalize", "[ERROR]"}},
           Route{"NegativeNumber",
                 [](sqlite3* db) { sql::queryNumber(db, "select -3"); },
                 {"[DEBUG2]", "prepare", "step", "finalize", "[ERROR]", "[ERROR]"}},
           Route{"NumberOfNothing",
                 [](sqlite3* db) { sql::queryNumber(db, ""); },
                 {"[DEBUG2]", "prepare", "step", "finalize null", "[ERROR]", "[ERROR]"}},
           Route{"NumberWithoutConnection",
                 [](sqlite3*) { sql::queryNumber(nullptr, "select 5"); },
                 {}},
           Route{"OneStep",
                 [](sqlite3* db) { sql::runOneStepSqlStmt(db, "delete from product"); },
                 {"[DEBUG2]", "prepare", "step", "finalize"}},
           Route{"OneStepPrepareFails",
                 [](sqlite3* db) { sql::runOneStepSqlStmt(db, "inser"); },
                 {"[DEBUG2]", "prepare", "[ERROR]", "[ERROR]"}},
           Route{"OneStepFails",
                 [](sqlite3* db) {
                     sql::runOneStepSqlStmt(db, "insert into product values (1, 'tea')");
                 },
                 {"[DEBUG2]", "prepare", "step", "[ERROR]", "[ERROR]", "finalize"}},
           Route{"OneStepWithARow",
                 [](sqlite3* db) { sql::runOneStepSqlStmt(db, "select 5"); },
                 {"[DEBUG2]", "prepare", "step", "[ERROR]", "[ERROR]", "finalize"}},
           Route{"OneStepOfNothing",
                 [](sqlite3* db) { sql::runOneStepSqlStmt(db, ""); },
                 {"[DEBUG2]", "prepare", "step", "[ERROR]", "[ERROR]", "finalize null"}},
           Route{"OneStepWithoutConnection",
                 [](sqlite3*) { sql::runOneStepSqlStmt(nullptr, "select 5"); },
                 {}}),
    nameOf<Route>);

} // namespace
