#include "SqlCommon.h"

#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace {

namespace report = test::report;

using sql::Time;
using test::Texts;
using test::visibleAt;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Values;
using testing::ValuesIn;
using testing::WithParamInterface;

static_assert(std::is_signed_v<sql::integer> && sizeof(sql::integer) == 8);
static_assert(sql::type_int == 0);
static_assert(sql::type_text == 1);
static_assert(sql::type_float == 2);
static_assert(sql::type_bool == 3);
static_assert(sql::type_time == 4);
static_assert(sql::type_undefined < 0 || sql::type_undefined > 4);
static_assert(!std::is_polymorphic_v<Time> && sizeof(Time) == sizeof(time_t));

// Nothing but statements and times is traced: silence is that of the highest level.
class CommonTest : public test::ReportTest {
protected:
    CommonTest()
    {
        _diagnostics.setLevel(9);
    }
};

// --- Type names

TEST_F(CommonTest, TypeNamesAreInLowerCase)
{
    Texts names;
    for (const auto type :
         {sql::type_int, sql::type_text, sql::type_float, sql::type_bool, sql::type_time})
        names.push_back(sql::type2Str(type));
    EXPECT_THAT(names, ElementsAre("integer", "text", "float", "bool", "time"));
}

TEST_F(CommonTest, UnknownTypeIsUndefinedAndReported)
{
    for (const int type : {int(sql::type_undefined), 5, 6, 7, 256, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(sql::type2Str(sql::field_type(type)), "undefined") << type;
        expectReport({report::asserted("sql::string sql::type2Str(sql::field_type)")});
    }
}

// --- Quoting

struct Quoting : test::Case {
    std::string text;
    std::string quoted;
};

class QuoteTest : public CommonTest, public WithParamInterface<Quoting> {};

TEST_P(QuoteTest, DoublesSingleQuotesOnly)
{
    EXPECT_EQ(sql::quoteStr(GetParam().text), GetParam().quoted);
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
    test::NameOfCase());

TEST_F(CommonTest, QuotingKeepsEveryOtherByte)
{
    std::string text;
    std::string quoted;
    for (int byte = 0; byte <= UCHAR_MAX; ++byte) {
        text += static_cast<char>(byte);
        quoted += byte == '\'' ? std::string("''") : std::string(1, static_cast<char>(byte));
    }
    EXPECT_EQ(sql::quoteStr(text), quoted);
}

// --- Trimming

struct Trimming : test::Case {
    std::string text;
    std::string left;
    std::string right;
    std::string both;
};

class TrimTest : public CommonTest, public WithParamInterface<Trimming> {};

TEST_P(TrimTest, ErasesTheBlanksAtItsEndInPlace)
{
    std::string left = GetParam().text;
    std::string right = GetParam().text;
    std::string both = GetParam().text;
    EXPECT_EQ(&sql::trimleft(left), &left);
    EXPECT_EQ(&sql::trimright(right), &right);
    EXPECT_EQ(&sql::trim(both), &both);
    EXPECT_EQ(left, GetParam().left);
    EXPECT_EQ(right, GetParam().right);
    EXPECT_EQ(both, GetParam().both);
}

TEST_P(TrimTest, OfAConstantIsACopy)
{
    const std::string text = GetParam().text;
    EXPECT_EQ(sql::trim(text), GetParam().both);
    EXPECT_EQ(text, GetParam().text);
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
    test::NameOfCase());

TEST_F(CommonTest, BlanksAreTheSixOfTheDefaultLocale)
{
    std::string blanks;
    for (int byte = 0; byte <= UCHAR_MAX; ++byte) {
        if (sql::trim(std::string(1, static_cast<char>(byte))).empty())
            blanks += static_cast<char>(byte);
    }
    EXPECT_EQ(blanks, "\t\n\v\f\r ");
}

// --- Lists

struct List : test::Case {
    std::string list;
    const char* delimiters;
    Texts items;
};

class ListTest : public CommonTest, public WithParamInterface<List> {};

TEST_P(ListTest, GivesItsTrimmedItemsInPlaceOfTheFormerOnes)
{
    std::string list = GetParam().list;
    Texts items = {"former", "contents"};
    sql::listToVector(list, items, GetParam().delimiters);
    EXPECT_EQ(items, GetParam().items);
    EXPECT_EQ(list, GetParam().list);
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
    test::NameOfCase());

// --- Number texts

class NumberTextTest : public CommonTest, public WithParamInterface<const char*> {
protected:
    void expectText()
    {
        const sql::integer value = std::stoll(GetParam());
        EXPECT_EQ(sql::intToStr(value), GetParam());
        if (value >= INT_MIN && value <= INT_MAX) {
            EXPECT_EQ(sql::intToStr(static_cast<int>(value)), GetParam());
        }
    }
};

TEST_P(NumberTextTest, IsPlainDecimal)
{
    expectText();
}

TEST_P(NumberTextTest, DoesNotDependOnTheLocale)
{
    const test::CommaLocale locale;
    expectText();
}

INSTANTIATE_TEST_SUITE_P(All, NumberTextTest,
                         Values("0", "7", "-1", "1000", "-1234567", "2147483647", "-2147483648",
                                "2147483648", "-2147483649", "9223372036854775807",
                                "-9223372036854775808"));

// --- Time

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

class TimeRangeTest : public TimeTest, public WithParamInterface<sql::integer> {};

TEST_P(TimeRangeTest, SecondsAreNarrowedToTheWidthOfTime)
{
    const Time time(GetParam());
    _diagnostics.setLevel(9);
    EXPECT_EQ(time.getTime(), static_cast<time_t>(GetParam()));
    EXPECT_EQ(time.asInteger(), sql::integer(static_cast<time_t>(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Seconds, TimeRangeTest,
                         Values(0, 1, -1, 1711796400, INT32_MAX, INT32_MIN, earliest, latest,
                                2147483648, 4294967295, 4294967296, 4294967301, -2147483649,
                                INT64_MAX, INT64_MIN));

TEST_F(TimeTest, ConstructionTracesTheCalendarTextWithItsLineEnd)
{
    _diagnostics.setLevel(9);
    const Time time(1711796400);
    const Time negative(-1);
    expectReport({report::timeMade("1711796400", "Sat Mar 30 12:00:00 2024\n"),
                  report::timeMade("-1", "Thu Jan  1 00:59:59 1970\n")});
}

TEST_F(TimeTest, ConstructionIsSilentBelowLevelNine)
{
    _diagnostics.setLevel(8);
    const Time time(1711796400);
    const Time current;
}

TEST_F(TimeTest, CurrentTimeIsTracedOnce)
{
    _diagnostics.setLevel(9);
    for (Time (*const current)() : {+[] { return Time(); }, &Time::now}) {
        const time_t seconds = current().getTime();
        expectReport({report::timeMade(std::to_string(seconds), std::ctime(&seconds))});
    }
}

TEST_F(TimeTest, CopyAndAssignmentAreSilent)
{
    const Time time(77);
    Time other(5);
    _diagnostics.setLevel(9);
    const Time copy(time);
    other = copy;
    EXPECT_EQ(other.asInteger(), 77);
}

TEST_F(TimeTest, AllTimesAreEqualDeliberately)
{
    Time time(1);
    const Time others[] = {Time(1), Time(2), Time(latest), Time(earliest)};
    _diagnostics.setLevel(9);
    for (const Time& other : others)
        EXPECT_TRUE(time == other) << other.asInteger();
}

TEST_F(TimeTest, DifferenceIsPositiveWhenThisTimeIsLater)
{
    Time later(10);
    Time earlier(4);
    _diagnostics.setLevel(9);
    EXPECT_EQ(later.diff(earlier), 6.0);
    EXPECT_EQ(earlier.diff(later), -6.0);
    EXPECT_EQ(later.diff(later), 0.0);
}

TEST_F(TimeTest, DifferenceOfDistantTimesDoesNotWrap)
{
    Time later(latest);
    Time earlier(-2);
    _diagnostics.setLevel(9);
    EXPECT_EQ(later.diff(earlier), static_cast<double>(latest) + 2.0);
}

struct TimeTexts : test::Case {
    const char* zone;
    sql::integer seconds;
    const char* text;
    const char* time;
    const char* date;
};

class TimeTextTest : public test::ReportTest, public WithParamInterface<TimeTexts> {
protected:
    TimeTextTest() : _zone(GetParam().zone)
    {
    }

    test::TimeZone _zone;
};

TEST_P(TimeTextTest, IsInLocalTime)
{
    const Time time(GetParam().seconds);
    EXPECT_EQ(time.asString(), GetParam().text);
    EXPECT_EQ(time.asTimeString(), GetParam().time);
    EXPECT_EQ(time.asDateString(), GetParam().date);
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
                         test::NameOfCase());

TEST_F(TimeTest, WeekdayIsInTheLanguageOfTheProcess)
{
    const Time time(0);
    const test::CommaLocale german;
    EXPECT_EQ(time.asString(), "01-01-1970 01:00:00, Do");
}

struct Format : test::Case {
    std::string format;
    std::string text;
};

class TimeFormatTest : public TimeTest, public WithParamInterface<Format> {};

TEST_P(TimeFormatTest, IsExpandedUpTo127Characters)
{
    const Time time(1711796400);
    _diagnostics.setLevel(9);
    EXPECT_EQ(time.format(GetParam().format.c_str()), GetParam().text);
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
    test::NameOfCase());

struct Shift : test::Case {
    void (Time::*operation)(sql::integer);
    time_t start;
    sql::integer count;
    time_t result;
};

class TimeShiftTest : public TimeTest, public WithParamInterface<Shift> {};

TEST_P(TimeShiftTest, IsExactAndWrapsInTheWidthOfTime)
{
    Time time(GetParam().start);
    _diagnostics.setLevel(9);
    (time.*GetParam().operation)(GetParam().count);
    EXPECT_EQ(time.getTime(), GetParam().result);
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
    test::NameOfCase());

INSTANTIATE_TEST_SUITE_P(
    Minutes, TimeShiftTest,
    Values(Shift{"Forward", &Time::addMinutes, 100, 2, 220},
           Shift{"Back", &Time::addMinutes, 100, -1, 40},
           Shift{"Nothing", &Time::addMinutes, 100, 0, 100},
           Shift{"PastTheLatest", &Time::addMinutes, latest, 1, earliest + 59},
           Shift{"PastTheEarliest", &Time::addMinutes, earliest, -1, latest - 59},
           Shift{"ProductWraps", &Time::addMinutes, 0, INT64_MAX, -60},
           Shift{"ProductOfTheLowestWraps", &Time::addMinutes, 7, INT64_MIN, 7}),
    test::NameOfCase());

INSTANTIATE_TEST_SUITE_P(Hours, TimeShiftTest,
                         Values(Shift{"Forward", &Time::addHours, 100, 2, 7300},
                                Shift{"Back", &Time::addHours, 100, -1, -3500},
                                Shift{"Nothing", &Time::addHours, 100, 0, 100},
                                Shift{"PastTheLatest", &Time::addHours, latest, 1, earliest + 3599},
                                Shift{"PastTheEarliest", &Time::addHours, earliest, -1,
                                      latest - 3599},
                                Shift{"ProductWraps", &Time::addHours, 0, INT64_MAX, -3600},
                                Shift{"ProductOfTheLowestWraps", &Time::addHours, 7, INT64_MIN, 7}),
                         test::NameOfCase());

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
                         test::NameOfCase());

struct Day : test::Case {
    sql::integer noon;
    const char* text;
    const char* nextDay;
};

class DayTest : public TimeTest, public WithParamInterface<Day> {};

TEST_P(DayTest, Is86400SecondsWhateverTheLocalTime)
{
    Time time(GetParam().noon);
    _diagnostics.setLevel(9);
    EXPECT_EQ(time.asString(), GetParam().text);
    time.addDays(1);
    EXPECT_EQ(time.asInteger(), GetParam().noon + 86400);
    EXPECT_EQ(time.asString(), GetParam().nextDay);
}

INSTANTIATE_TEST_SUITE_P(All, DayTest,
                         Values(Day{"DaylightSavingTimeBegins", 1711796400,
                                    "30-03-2024 12:00:00, Sat", "31-03-2024 13:00:00, Sun"},
                                Day{"DaylightSavingTimeEnds", 1729936800,
                                    "26-10-2024 12:00:00, Sat", "27-10-2024 11:00:00, Sun"}),
                         test::NameOfCase());

// --- Result codes

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
}

TEST_F(CommonTest, OtherResultCodesAreUnknown)
{
    for (const int rc : {-1, 255, INT_MAX, INT_MIN})
        EXPECT_STREQ(sql::sqliteRc2Str(rc), "unknown") << rc;
    for (int rc = 256; rc < 256 * 64; ++rc)
        ASSERT_STREQ(sql::sqliteRc2Str(rc), "unknown") << rc;
}

TEST_F(CommonTest, ResultCodeNameOutlivesTheNextOnes)
{
    const char* const busy = sql::sqliteRc2Str(5);
    const char* const unknown = sql::sqliteRc2Str(-1);
    for (int rc = 0; rc <= 110; ++rc)
        sql::sqliteRc2Str(rc);
    EXPECT_STREQ(busy, "SQLITE_BUSY");
    EXPECT_STREQ(unknown, "unknown");
}

// --- Statements of one step

// The way through SQLite, with the tags of the log lines as they come in between.
const Texts unprepared = {"[DEBUG2]", "prepare", "[ERROR]", "[ERROR]"};

struct OneStep : test::Case {
    const char* statement;
    int result; // -1 or false for a failure
    Texts report;
    Texts order;
};

class OneStepTest : public testing::Test, public WithParamInterface<OneStep> {
protected:
    void expect(int (*run)(sqlite3*, const std::string&))
    {
        for (const int level : test::trace_levels) {
            SCOPED_TRACE(level);
            test::Connection db;
            db.run("create table product (id integer primary key, name text)");
            db.run("insert into product select 1, 'tea' union all select 2, 'milk'");
            test::Diagnostics diagnostics;
            diagnostics.setLevel(level);
            test::SqliteCalls calls;
            diagnostics.onLine([&](const test::LogLine& line) {
                if (level == 9)
                    calls.order.push_back(line.tag);
            });
            EXPECT_EQ(run(db, GetParam().statement), GetParam().result);
            EXPECT_EQ(diagnostics.events(), visibleAt(level, GetParam().report));
            EXPECT_EQ(calls.order, level == 9 ? GetParam().order : callsAlone(GetParam().order));
            EXPECT_EQ(sqlite3_next_stmt(db, nullptr), nullptr);
        }
    }

private:
    static Texts callsAlone(Texts order)
    {
        const auto isTag = [](const std::string& step) {
            return step[0] == '[';
        };
        order.erase(std::remove_if(order.begin(), order.end(), isTag), order.end());
        return order;
    }
};

class QueryNumberTest : public OneStepTest {};

TEST_P(QueryNumberTest, YieldsItsNumberOrReportsAndFinalizesFirst)
{
    expect(sql::queryNumber);
}

OneStep counts(const char* name, const char* query, int number)
{
    return {name,
            query,
            number,
            report::counted(query, std::to_string(number)),
            {"[DEBUG2]", "prepare", "step", "finalize", "[DEBUG2]"}};
}

OneStep fails(const char* name, const char* query,
              Texts (*report)(const std::string&, const std::string&), const char* reason)
{
    return {name,
            query,
            -1,
            report(query, reason),
            {"[DEBUG2]", "prepare", "step", "finalize", "[ERROR]", "[ERROR]"}};
}

OneStep hasColumns(const char* name, const char* query, int columns)
{
    return {name,
            query,
            -1,
            report::columnsInstead(query, columns),
            {"[DEBUG2]", "prepare", "step", "finalize", "[ERROR]"}};
}

OneStep isNoQuery(const char* name, const char* query, const char* reason)
{
    return {name, query, -1, report::notPrepared(query, reason), unprepared};
}

const OneStep number_queries[] = {
    counts("Constant", "select 5", 5),
    counts("Zero", "select 0", 0),
    counts("Count", "select count(*) from product", 2),
    counts("Highest", "select 2147483647", 2147483647),
    counts("NarrowedTo32Bits", "select 4294967301", 5),
    counts("Null", "select null", 0),
    counts("Text", "select '7 apples'", 7),
    counts("Real", "select 2.9", 2),
    counts("FirstOfSeveralRows", "select id from product order by id desc", 2),
    counts("FirstOfSeveralStatements", "select 5; select 6; nonsense", 5),
    counts("PercentSigns", "select length('%s%n%d')", 6),
    fails("NarrowedToANegativeNumber", "select 2147483648", report::negative, "-2147483648"),
    fails("Negative", "select -3", report::negative, "-3"),
    fails("MinusOneIsRefusedToo", "select -1", report::negative, "-1"),
    hasColumns("TwoColumns", "select 5, 6", 2),
    hasColumns("TwoColumnsWithANegativeNumber", "select -5, -6", 2),
    hasColumns("ThreeColumns", "select 5, 6, 7", 3),
    fails("NoRow", "select 1 where 0", report::noRow, "101=SQLITE_DONE: not an error"),
    fails("NoRowOfTwoColumns", "select 1, 2 where 0", report::noRow,
          "101=SQLITE_DONE: not an error"),
    fails("FailingStep", "select abs(-9223372036854775807 - 1)", report::noRow,
          "1=SQLITE_ERROR: integer overflow"),
    fails("Constraint", "insert into product values (1, 'tea')", report::noRow,
          "19=SQLITE_CONSTRAINT: UNIQUE constraint failed: product.id"),
    {"Empty",
     "",
     -1,
     report::noRow("", "21=SQLITE_MISUSE: not an error"),
     {"[DEBUG2]", "prepare", "step", "finalize null", "[ERROR]", "[ERROR]"}},
    isNoQuery("SyntaxError", "selec 5", "1=SQLITE_ERROR: near \"selec\": syntax error"),
    isNoQuery("MissingTable", "select count(*) from nowhere",
              "1=SQLITE_ERROR: no such table: nowhere"),
};

INSTANTIATE_TEST_SUITE_P(All, QueryNumberTest, ValuesIn(number_queries), test::NameOfCase());

class RunOneStepTest : public OneStepTest {};

TEST_P(RunOneStepTest, SucceedsWhenDoneOrReportsBeforeItFinalizes)
{
    expect([](sqlite3* db, const std::string& statement) {
        return static_cast<int>(sql::runOneStepSqlStmt(db, statement));
    });
}

OneStep isDone(const char* name, const char* statement)
{
    return {name,
            statement,
            true,
            report::stepped(statement),
            {"[DEBUG2]", "prepare", "step", "finalize"}};
}

OneStep isNotDone(const char* name, const char* statement, const char* reason,
                  const char* last = "finalize")
{
    return {name,
            statement,
            false,
            report::stepFailed(statement, reason),
            {"[DEBUG2]", "prepare", "step", "[ERROR]", "[ERROR]", last}};
}

OneStep isNoStatement(const char* name, const char* statement, const char* reason)
{
    return {name, statement, false, report::stepNotPrepared(statement, reason), unprepared};
}

const OneStep one_steps[] = {
    isDone("Insert", "insert into product values (3, 'salt')"),
    isDone("CreateTable", "create table stock (id integer)"),
    isDone("QueryWithoutRows", "select 1 where 0"),
    isDone("PercentSigns", "insert into product values (3, '%s%n%d')"),
    isNotDone("QueryWithARow", "select 5", "100=SQLITE_ROW: another row available"),
    isNotDone("QueryWithRows", "select id from product", "100=SQLITE_ROW: another row available"),
    isNotDone("Constraint", "insert into product values (1, 'tea')",
              "19=SQLITE_CONSTRAINT: UNIQUE constraint failed: product.id"),
    isNotDone("Empty", "", "21=SQLITE_MISUSE: not an error", "finalize null"),
    isNoStatement("SyntaxError", "inser", "1=SQLITE_ERROR: near \"inser\": syntax error"),
    isNoStatement("MissingTable", "delete from nowhere", "1=SQLITE_ERROR: no such table: nowhere"),
};

INSTANTIATE_TEST_SUITE_P(All, RunOneStepTest, ValuesIn(one_steps), test::NameOfCase());

TEST_F(CommonTest, WithoutConnectionIsAssertedAndSqliteNotCalled)
{
    const test::SqliteCalls calls;
    EXPECT_EQ(sql::queryNumber(nullptr, "select 5"), -1);
    EXPECT_FALSE(sql::runOneStepSqlStmt(nullptr, "select 5"));
    expectReport({report::nothingToCountOn(), report::nothingToStepOn()});
    EXPECT_THAT(calls.order, IsEmpty());
}

TEST_F(CommonTest, OnlyTheFirstOfSeveralStatementsIsRun)
{
    test::Connection db;
    db.run("create table product (id integer primary key)");
    const char statements[] = "insert into product values (1); delete from product";
    EXPECT_TRUE(sql::runOneStepSqlStmt(db, statements));
    expectReport(report::stepped(statements));
    EXPECT_EQ(db.rows("select id from product"), "1");
}

TEST_F(CommonTest, ExtendedResultCodesAreUnknownInReports)
{
    const char insert[] = "insert into product values (1)";
    const char collate[] = "select 'a' < 'b' collate nowhere";
    const char taken[] = "1555=unknown: UNIQUE constraint failed: product.id";
    const char no_collation[] = "257=unknown: no such collation sequence: nowhere";
    test::Connection db;
    db.run("create table product (id integer primary key); insert into product values (1)");
    sqlite3_extended_result_codes(db, 1);
    EXPECT_EQ(sql::queryNumber(db, insert), -1);
    EXPECT_EQ(sql::queryNumber(db, collate), -1);
    EXPECT_FALSE(sql::runOneStepSqlStmt(db, insert));
    EXPECT_FALSE(sql::runOneStepSqlStmt(db, collate));
    expectReport(test::joined(
        {report::noRow(insert, taken), report::notPrepared(collate, no_collation),
         report::stepFailed(insert, taken), report::stepNotPrepared(collate, no_collation)}));
}

} // namespace
