#include "SqlLiteral.h"

#include "Cases.h"
#include "Environment.h"
#include "HostileTexts.h"
#include "PreparedTest.h"
#include "Sqlite.h"

#include <chrono>
#include <ctime>
#include <sstream>
#include <string>
#include <string_view>

namespace {

using sql::escapeLike;
using sql::fromIso8601;
using sql::quoteIdentifier;
using sql::Time;
using sql::toIso8601;
using test::Case;
using testing::Values;
using testing::WithParamInterface;

using Clock = std::chrono::system_clock;
using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr bool wide_times = sizeof(time_t) == 8;

// Nothing here reports but a Time that is made, at the highest level.
class LiteralTest : public test::PreparedTest {
protected:
    LiteralTest()
    {
        _diagnostics.setLevel(8);
        _diagnostics.clear(); // of the database that was opened
    }

    // The first cell of a row for a text, with SQLite's own bindings: a parameter each.
    std::string askedWith(const std::string& sql, const std::string& first,
                          const std::string& second = std::string())
    {
        sqlite3_stmt* statement = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(_database.getHandle(), sql.c_str(), -1, &statement, nullptr),
                  SQLITE_OK);
        const int size = static_cast<int>(first.size());
        sqlite3_bind_text(statement, 1, first.data(), size, SQLITE_STATIC);
        sqlite3_bind_text(statement, 2, second.data(), static_cast<int>(second.size()),
                          SQLITE_STATIC);
        EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW) << test::printable(first);
        const unsigned char* const cell = sqlite3_column_text(statement, 0);
        const std::string text = cell != nullptr ? reinterpret_cast<const char*>(cell) : "NULL";
        sqlite3_finalize(statement);
        return text;
    }
};

// --- Texts of like

struct Escaping : Case {
    std::string text;
    std::string escaped;
};

class EscapeTest : public LiteralTest, public WithParamInterface<Escaping> {};

TEST_P(EscapeTest, HasABackslashBeforeWhatLikeKnows)
{
    EXPECT_EQ(escapeLike(GetParam().text), GetParam().escaped);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, EscapeTest,
    Values(Escaping{"Empty", "", ""}, Escaping{"Plain", "tea", "tea"},
           Escaping{"Percent", "100%", "100\\%"}, Escaping{"Underline", "a_b", "a\\_b"},
           Escaping{"Backslash", "a\\b", "a\\\\b"}, Escaping{"All", "%_\\", "\\%\\_\\\\"},
           Escaping{"Twice", "%%", "\\%\\%"}, Escaping{"Quotes", "'\"`", "'\"`"},
           Escaping{"OtherPatterns", "*?[a]", "*?[a]"},
           Escaping{"HighBytes", "\xc3\xa4%\xff", "\xc3\xa4\\%\xff"},
           Escaping{"ZeroByte", std::string("a\0%", 3), std::string("a\0\\%", 4)}),
    test::NameOfCase());

TEST_F(LiteralTest, EscapedTextIsLikeItselfAlone)
{
    const std::string like = "select ?1 like ?2 escape '\\'";
    for (const std::string& text : test::hostileTexts()) {
        const std::string escaped = escapeLike(text);
        if (escaped.size() > 50000 || text.find('\0') != text.npos)
            continue; // SQLite takes no longer patterns, and ends them at a zero byte
        EXPECT_EQ(askedWith(like, text, escaped), "1") << test::printable(text);
        EXPECT_EQ(askedWith(like, text + "x", escaped), "0") << test::printable(text);
        EXPECT_EQ(askedWith(like, "x" + text, escaped), "0") << test::printable(text);
    }
    EXPECT_EQ(askedWith(like, "1000", escapeLike("100%")), "0");
    EXPECT_EQ(askedWith(like, "acb", escapeLike("a_b")), "0");
    EXPECT_EQ(askedWith(like, "what is 100% sure", "%" + escapeLike("100%") + "%"), "1");
}

// --- Names

struct Naming : Case {
    std::string text;
    std::string quoted;
};

class IdentifierTest : public LiteralTest, public WithParamInterface<Naming> {};

TEST_P(IdentifierTest, StandsBetweenBackticks)
{
    EXPECT_EQ(quoteIdentifier(GetParam().text), GetParam().quoted);
}

INSTANTIATE_TEST_SUITE_P(Names, IdentifierTest,
                         Values(Naming{"Empty", "", "``"}, Naming{"Plain", "product", "`product`"},
                                Naming{"Blank", "my table", "`my table`"},
                                Naming{"Backtick", "`", "````"},
                                Naming{"Backticks", "a``b", "`a````b`"},
                                Naming{"OtherQuotes", "'\"[]", "`'\"[]`"},
                                Naming{"Keyword", "select", "`select`"},
                                Naming{"Point", "main.product", "`main.product`"}),
                         test::NameOfCase());

TEST_F(LiteralTest, QuotedNameIsThatNameToSqlite)
{
    for (const std::string& name : test::hostileTexts()) {
        if (name.find('\0') != name.npos)
            continue;
        const std::string table = "create temp table t (" + quoteIdentifier(name) + ")";
        run(table);
        EXPECT_EQ(rows("select name from pragma_table_info('t')"), name) << test::printable(name);
        EXPECT_EQ(rows("select " + quoteIdentifier(name) + " from t"), "");
        run("drop table t");
    }
}

TEST_F(LiteralTest, QuotedNameThatIsUnknownIsNoText)
{
    const std::string select = "select " + quoteIdentifier("nothing");
    EXPECT_EQ(sqlite3_exec(_database.getHandle(), select.c_str(), nullptr, nullptr, nullptr),
              SQLITE_ERROR);
    EXPECT_STREQ(sqlite3_errmsg(_database.getHandle()), "no such column: nothing");
}

// --- Times to texts

Clock::time_point at(long long second, long long nanosecond = 0)
{
    return Clock::time_point(seconds(second) + nanoseconds(nanosecond));
}

TEST_F(LiteralTest, TimesAreTextsInUtc)
{
    const test::TimeZone zone;
    EXPECT_EQ(toIso8601(Time(0)), "1970-01-01T00:00:00Z");
    EXPECT_EQ(toIso8601(Time(1262303999)), "2009-12-31T23:59:59Z");
    EXPECT_EQ(toIso8601(Time(-1)), "1969-12-31T23:59:59Z");
    EXPECT_EQ(toIso8601(at(0)), "1970-01-01T00:00:00Z");
    EXPECT_EQ(toIso8601(at(1262303999)), "2009-12-31T23:59:59Z");
    EXPECT_EQ(toIso8601(at(-1)), "1969-12-31T23:59:59Z");
}

TEST_F(LiteralTest, PartsOfASecondAreRoundedDown)
{
    EXPECT_EQ(toIso8601(at(0, 999999999)), "1970-01-01T00:00:00Z");
    EXPECT_EQ(toIso8601(at(0, -1)), "1969-12-31T23:59:59Z");
    EXPECT_EQ(toIso8601(at(-1, 1)), "1969-12-31T23:59:59Z");
    EXPECT_EQ(toIso8601(at(-1, -1)), "1969-12-31T23:59:58Z");
}

TEST_F(LiteralTest, FirstAndLastTimesOfTheClocks)
{
    EXPECT_EQ(toIso8601(Clock::time_point::min()), "1677-09-21T00:12:43Z");
    EXPECT_EQ(toIso8601(Clock::time_point::max()), "2262-04-11T23:47:16Z");
    if (wide_times) {
        EXPECT_EQ(toIso8601(Time(-62167219200)), "0000-01-01T00:00:00Z");
        EXPECT_EQ(toIso8601(Time(253402300799)), "9999-12-31T23:59:59Z");
        for (const sql::integer second :
             {-62167219201, 253402300800, -9223372036854775807 - 1, 9223372036854775807})
            EXPECT_EQ(toIso8601(Time(second)), "") << "its year has other than four digits";
    } else {
        EXPECT_EQ(toIso8601(Time(INT32_MIN)), "1901-12-13T20:45:52Z");
        EXPECT_EQ(toIso8601(Time(INT32_MAX)), "2038-01-19T03:14:07Z");
    }
}

// Each line "seconds|text", the text written by SQLite.
std::string sqlitesTimes(sql::integer first, sql::integer last, sql::integer step)
{
    return "with recursive t(s) as (values (" + std::to_string(first) + ") union all select s + "
           + std::to_string(step) + " from t where s + " + std::to_string(step)
           + " <= " + std::to_string(last)
           + ") select s, strftime('%Y-%m-%dT%H:%M:%SZ', s, 'unixepoch') from t";
}

TEST_F(LiteralTest, TimesOfAllCenturiesAreSqlitesTexts)
{
    const sql::integer first = -62167219200;
    const sql::integer last = 253402300799;
    const sql::integer step = 86400 * 29 + 12345 + 86400 * (test::stride(10) - 1) * 29;
    std::istringstream lines(rows(sqlitesTimes(first, last, step)));
    sql::integer tried = 0;
    for (std::string line; std::getline(lines, line); ++tried) {
        const sql::integer second = std::stoll(line);
        const std::string text = line.substr(line.find('|') + 1);
        if (Time(second).asInteger() == second) {
            Time time(1);
            EXPECT_EQ(toIso8601(Time(second)), text) << second;
            EXPECT_TRUE(fromIso8601(text, time)) << text;
            EXPECT_EQ(time.asInteger(), second) << text;
        }
        if (second >= -9223372036 && second <= 9223372036) {
            Clock::time_point time;
            EXPECT_EQ(toIso8601(at(second)), text) << second;
            EXPECT_TRUE(fromIso8601(text, time)) << text;
            EXPECT_EQ(time, at(second)) << text;
        }
    }
    EXPECT_EQ(tried, (last - first) / step + 1);
}

TEST_F(LiteralTest, EveryDayOfLeapYearsAndOthersIsSqlites)
{
    for (const char* const year : {"1896", "1900", "1904", "1999", "2000", "2001", "2100"}) {
        const sql::integer first = std::stoll(
            askedWith("select strftime('%s', ?1)", year + std::string("-01-01")));
        std::istringstream lines(rows(sqlitesTimes(first, first + 366 * 86400, 86400)));
        for (std::string line; std::getline(lines, line);)
            EXPECT_EQ(toIso8601(at(std::stoll(line))), line.substr(line.find('|') + 1));
    }
}

// --- Texts to times

TEST_F(LiteralTest, TextsOfManyFormsAreTimes)
{
    const test::TimeZone zone;
    for (const char* const text : {"2009-12-31",
                                   "2009-12-31 23:59",
                                   "2009-12-31T23:59",
                                   "2009-12-31 23:59:59",
                                   "2009-12-31T23:59:59",
                                   "2009-12-31T23:59:59Z",
                                   "2009-12-31 23:59:59Z",
                                   "2009-12-31T23:59Z",
                                   "2009-12-31T23:59:59.2",
                                   "2009-12-31T23:59:59.25+01:00",
                                   "2009-12-31T23:59:59.05Z",
                                   "2009-12-31 23:59:59.123456789Z",
                                   "2009-12-31T23:59:59.999999999999999999999999Z",
                                   "2009-12-31T23:59+00:00",
                                   "2009-12-31T23:59-00:00",
                                   "2009-12-31T23:59:59+05:30",
                                   "2009-12-31T23:59:59-11:59",
                                   "2009-12-31T00:00+14:00",
                                   "2008-02-29",
                                   "2000-02-29",
                                   "1970-01-01",
                                   "1969-12-31T23:59:59",
                                   "1969-12-31T23:59:59.75Z",
                                   "1960-02-29 01:02:03"}) {
        // SQLite rounds to its thousandths, which can be the next second.
        std::string whole = text;
        if (const std::size_t point = whole.find('.'); point != whole.npos)
            whole.erase(point, whole.find_first_not_of("0123456789", point + 1) - point);
        const sql::integer second = std::stoll(askedWith("select strftime('%s', ?1)", whole));
        Time time(1);
        Clock::time_point point;
        EXPECT_TRUE(fromIso8601(text, time)) << text;
        EXPECT_EQ(time.asInteger(), second) << text;
        EXPECT_TRUE(fromIso8601(text, point)) << text;
        EXPECT_EQ(point, at(second)) << text;
    }
}

TEST_F(LiteralTest, OffsetIsTheOneFromUtc)
{
    Time time(0);
    EXPECT_TRUE(fromIso8601("2009-12-31T23:59:59.25+01:00", time));
    EXPECT_EQ(time.asInteger(), 1262300399); // an hour before midnight
    EXPECT_TRUE(fromIso8601("2009-12-31T23:59:59-01:00", time));
    EXPECT_EQ(time.asInteger(), 1262307599); // an hour behind it
}

void expectNoTime(const std::string& text)
{
    Time time(77);
    Clock::time_point point = at(77);
    EXPECT_FALSE(fromIso8601(text, time)) << test::printable(text);
    EXPECT_FALSE(fromIso8601(text, point)) << test::printable(text);
    EXPECT_EQ(time.asInteger(), 77) << test::printable(text);
    EXPECT_EQ(point, at(77)) << test::printable(text);
}

TEST_F(LiteralTest, OtherTextsLeaveTheTimeAsItIs)
{
    for (const std::string& text : {std::string(),
                                    std::string(" "),
                                    std::string("now"),
                                    std::string("12:00"),
                                    std::string("2009"),
                                    std::string("2009-12"),
                                    std::string("2009-12-"),
                                    std::string("2009-1-1"),
                                    std::string("09-12-31"),
                                    std::string("02009-12-31"),
                                    std::string("-2009-12-31"),
                                    std::string("+2009-12-31"),
                                    std::string("20091231"),
                                    std::string("2009/12/31"),
                                    std::string("200/-12-31"),
                                    std::string("200:-12-31"),
                                    std::string("2009-12-31T"),
                                    std::string("2009-12-31 "),
                                    std::string(" 2009-12-31"),
                                    std::string("2009-12-31Z"),
                                    std::string("2009-12-31x"),
                                    std::string("2009-12-31+01:00"),
                                    std::string("2009-12-31T23"),
                                    std::string("2009-12-31T23:"),
                                    std::string("2009-12-31T2:59"),
                                    std::string("2009-12-31T23:5"),
                                    std::string("2009-12-31T23:59:"),
                                    std::string("2009-12-31T23:59:5"),
                                    std::string("2009-12-31T23:59:59."),
                                    std::string("2009-12-31T23:59:59.Z"),
                                    std::string("2009-12-31T23:59.5"),
                                    std::string("2009-12-31T23:59:59x"),
                                    std::string("2009-12-31T23:59:5901:00"),
                                    std::string("2009-12-31T23:59:59ZZ"),
                                    std::string("2009-12-31T23:59:59Z "),
                                    std::string("2009-12-31T23:59:59+"),
                                    std::string("2009-12-31T23:59:59+1:00"),
                                    std::string("2009-12-31T23:59:59+01:0"),
                                    std::string("2009-12-31T23:59:59+01:60"),
                                    std::string("2009-12-31T23:59:59+01:00x"),
                                    std::string("2009-12-31  23:59:59"),
                                    std::string("2009-12-31T-1:00"),
                                    std::string("1262303999"),
                                    std::string("2455197.5"),
                                    std::string("2009-12-31\0", 11),
                                    std::string("2009-12-31T23:59:59Z\0", 21),
                                    std::string("\xd9\xa2"
                                                "009-12-31")}) {
        expectNoTime(text);
    }
}

TEST_F(LiteralTest, DaysAndTimesThatNoCalendarHasAreRefused)
{
    for (const char* const text :
         {"2009-00-01", "2009-13-01", "2009-01-00", "2009-01-32", "2009-04-31", "2009-06-31",
          "2009-09-31", "2009-11-31", "2009-02-29", "2008-02-30", "2009-02-31", "1900-02-29",
          "2100-02-29", "2009-99-99", "2009-12-31T24:00", "2009-12-31T25:00", "2009-12-31T23:60",
          "2009-12-31T23:59:60", "2009-12-31T99:99:99"})
        expectNoTime(text);
}

struct Edge : Case {
    std::string text;
    bool fitsTime;
    bool fitsClock;
};

class EdgeTest : public LiteralTest, public WithParamInterface<Edge> {};

TEST_P(EdgeTest, TimeOutOfTheVariablesRangeIsRefused)
{
    const std::string& text = GetParam().text;
    Time time(77);
    Clock::time_point point = at(77);
    EXPECT_EQ(fromIso8601(text, time), GetParam().fitsTime);
    EXPECT_EQ(fromIso8601(text, point), GetParam().fitsClock);
    EXPECT_EQ(toIso8601(time), GetParam().fitsTime ? text : "1970-01-01T00:01:17Z");
    EXPECT_EQ(toIso8601(point), GetParam().fitsClock ? text : "1970-01-01T00:01:17Z");
}

INSTANTIATE_TEST_SUITE_P(
    Times, EdgeTest,
    Values(Edge{"FirstOfAll", "0000-01-01T00:00:00Z", wide_times, false},
           Edge{"FirstLeapDay", "0000-02-29T23:59:59Z", wide_times, false},
           Edge{"FirstMarch", "0000-03-01T00:00:00Z", wide_times, false},
           Edge{"LeapDayAfterFourHundredYears", "0400-02-29T23:59:59Z", wide_times, false},
           Edge{"LastOfAll", "9999-12-31T23:59:59Z", wide_times, false},
           Edge{"BeforeTheClock", "1677-09-21T00:12:43Z", wide_times, false},
           Edge{"FirstOfTheClock", "1677-09-21T00:12:44Z", wide_times, true},
           Edge{"LastOfTheClock", "2262-04-11T23:47:16Z", wide_times, true},
           Edge{"AfterTheClock", "2262-04-11T23:47:17Z", wide_times, false},
           Edge{"BeforeThirtyTwoBits", "1901-12-13T20:45:51Z", wide_times, true},
           Edge{"FirstOfThirtyTwoBits", "1901-12-13T20:45:52Z", true, true},
           Edge{"LastOfThirtyTwoBits", "2038-01-19T03:14:07Z", true, true},
           Edge{"AfterThirtyTwoBits", "2038-01-19T03:14:08Z", wide_times, true}),
    test::NameOfCase());

} // namespace
