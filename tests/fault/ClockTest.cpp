#include "SqlCommon.h"

#include "SqlRecordSet.h"
#include "SqlValue.h"

#include "Cases.h"
#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string>

#include <dlfcn.h>

namespace {

#ifdef TEST_TIME_BITS
static_assert(sizeof(time_t) * CHAR_BIT == TEST_TIME_BITS);
#endif

// What the clock and the calendar of the C library answer while a test is at it.
struct Clock {
    bool fails = false;
    bool stands = false;
    time_t time = 0; // while it stands
    bool convertsToLocalTime = true;
    bool hasCalendarText = true;
};

Clock clockOfTheTest;

// Where time_t was widened to 64 bits, the functions bear other names behind the scenes.
#ifdef __USE_TIME_BITS64
const char time_symbol[] = "__time64";
const char localtime_symbol[] = "__localtime64_r";
const char ctime_symbol[] = "__ctime64";
#else
const char time_symbol[] = "time";
const char localtime_symbol[] = "localtime_r";
const char ctime_symbol[] = "ctime";
#endif

template <typename Function> Function* original(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

// Found before the C library's own functions of the same names.
extern "C" {

time_t time(time_t* out) noexcept
{
    if (clockOfTheTest.fails)
        return static_cast<time_t>(-1);
    if (clockOfTheTest.stands) {
        if (out != nullptr)
            *out = clockOfTheTest.time;
        return clockOfTheTest.time;
    }
    static auto* const real = original<time_t(time_t*)>(time_symbol);
    return real(out);
}

struct tm* localtime_r(const time_t* seconds, struct tm* out) noexcept
{
    if (!clockOfTheTest.convertsToLocalTime)
        return nullptr;
    static auto* const real = original<struct tm*(const time_t*, struct tm*)>(localtime_symbol);
    return real(seconds, out);
}

char* ctime(const time_t* seconds) noexcept
{
    if (!clockOfTheTest.hasCalendarText)
        return nullptr;
    static auto* const real = original<char*(const time_t*)>(ctime_symbol);
    return real(seconds);
}

} // extern "C"

namespace {

using sql::Time;
using sql::Value;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::Values;
using testing::WithParamInterface;

namespace report = test::report;

const char summer_time[] = "Sat Mar 30 12:00:00 2024\n"; // 1711796400 in the zone of the tests

class ClockTest : public testing::Test {
protected:
    ClockTest()
    {
        _diagnostics.setLevel(9);
    }
    ~ClockTest() override
    {
        clockOfTheTest = Clock();
    }

    static void stopClock(time_t time)
    {
        clockOfTheTest.stands = true;
        clockOfTheTest.time = time;
    }

    test::TimeZone _zone;
    test::Diagnostics _diagnostics;
};

std::string notConverted()
{
    return report::error("Time::format", "Failed to convert calendar time to local time");
}

// --- the current time ---

struct Moment : test::Case {
    time_t time;
    const char* calendarText; // null when there is none
};

class CurrentTimeTest : public ClockTest, public WithParamInterface<Moment> {};

TEST_P(CurrentTimeTest, IsTheClocksAndTracedOnceByTheConstructor)
{
    const time_t time = GetParam().time;
    const char* const calendarText = GetParam().calendarText;
    stopClock(time);
    clockOfTheTest.hasCalendarText = calendarText != nullptr;
    const std::string line = report::timeMade(GetParam().name,
                                              calendarText != nullptr ? calendarText : "(null)");
    EXPECT_EQ(Time().getTime(), time);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(line));
    EXPECT_EQ(Time::now().getTime(), time);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(line, line));
    EXPECT_EQ(Time(time).getTime(), time);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(line, line, line));
}

// Only -1 means that the clock cannot be read.
INSTANTIATE_TEST_SUITE_P(Moments, CurrentTimeTest,
                         Values(Moment{"1711796400", 1711796400, summer_time},
                                Moment{"0", 0, "Thu Jan  1 01:00:00 1970\n"},
                                Moment{"-2", -2, "Thu Jan  1 00:59:58 1970\n"},
                                Moment{"77", 77, nullptr}));

class ClockLevelTest : public ClockTest, public WithParamInterface<int> {};

TEST_P(ClockLevelTest, ClockThatCannotBeReadGivesMinusOneSilently)
{
    _diagnostics.setLevel(GetParam());
    clockOfTheTest.fails = true;
    EXPECT_EQ(Time().asInteger(), -1);
    EXPECT_EQ(Time::now().asInteger(), -1);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Levels, ClockLevelTest, Values(0, 3, 8, 9));

TEST_F(ClockTest, TimeFromANumberDoesNotNeedTheClock)
{
    clockOfTheTest.fails = true;
    EXPECT_EQ(Time(77).asInteger(), 77);
}

// --- local time ---

// The text of a time or of a cell that holds one.
struct Text : test::Case {
    std::string (*make)(const Time& time, const Value& cell);
    const char* text; // when the time cannot be converted
    bool isOfCell;
};

class LocalTimeTest : public ClockTest, public WithParamInterface<Text> {
protected:
    LocalTimeTest() : _cell(sql::type_time)
    {
        _cell.setInteger(1711796400);
        clockOfTheTest.convertsToLocalTime = false;
        _diagnostics.clear();
    }

    const Time _time{1711796400};
    Value _cell;
};

TEST_P(LocalTimeTest, ConversionThatFailsIsReportedAndGivesAnEmptyText)
{
    test::Texts events = {notConverted()};
    if (GetParam().isOfCell)
        events.insert(events.begin(), report::timeMade("1711796400", summer_time));
    for (const int level : {9, 3, 2}) {
        _diagnostics.clear();
        _diagnostics.setLevel(level);
        EXPECT_EQ(GetParam().make(_time, _cell), GetParam().text);
        EXPECT_EQ(_diagnostics.events(), test::visibleAt(level, events));
    }
    _diagnostics.clear();
    _diagnostics.setLevel(test::without_trace_object);
    EXPECT_EQ(GetParam().make(_time, _cell), GetParam().text);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

const Text texts[] = {
    {"Format", [](const Time& time, const Value&) { return time.format("%Y"); }, "", false},
    {"FormatOfPlainText", [](const Time& time, const Value&) { return time.format("tea"); }, "",
     false},
    {"String", [](const Time& time, const Value&) { return time.asString(); }, "", false},
    {"TimeString", [](const Time& time, const Value&) { return time.asTimeString(); }, "", false},
    {"DateString", [](const Time& time, const Value&) { return time.asDateString(); }, "", false},
    {"CellString", [](const Time&, const Value& cell) { return cell.asString(); }, "", true},
    {"CellToString", [](const Time&, const Value& cell) { return cell.toString(); }, "", true},
    {"CellDump", [](const Time&, const Value& cell) { return cell.dump(false); }, "", true},
    {"CellDumpWithType", [](const Time&, const Value& cell) { return cell.dump(true); }, " (time)",
     true},
    {"CellSqlText", [](const Time&, const Value& cell) { return cell.toSql(sql::type_text); }, "''",
     true},
};

INSTANTIATE_TEST_SUITE_P(Texts, LocalTimeTest, testing::ValuesIn(texts), test::NameOfCase());

TEST_F(ClockTest, ConversionThatFailsIsOfErrorPriority)
{
    clockOfTheTest.convertsToLocalTime = false;
    _diagnostics.setLevel(3);
    Time(0).asString();
    ASSERT_THAT(_diagnostics.lines(), SizeIs(1));
    EXPECT_EQ(_diagnostics.lines()[0].priority, 3);
}

TEST_F(ClockTest, SecondsOfACellNeedNoLocalTime)
{
    clockOfTheTest.convertsToLocalTime = false;
    Value cell(sql::type_time);
    cell.setInteger(77);
    EXPECT_EQ(cell.toSql(sql::type_time), "77");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// A row that holds a time, whose dump would report that it cannot be converted.
class RowDumpTest : public ClockTest, public WithParamInterface<int> {};

TEST_P(RowDumpTest, RowIsDumpedAtTheHighestTraceLevelOnly)
{
    const std::string query = "select 7, null, null, null, 1711796400";
    const test::Connection db;
    sql::RecordSet rows(db, test::all_type_columns);
    clockOfTheTest.convertsToLocalTime = false;
    _diagnostics.setLevel(GetParam());
    EXPECT_TRUE(rows.query(query));
    EXPECT_EQ(rows.count(), 1);
    test::Texts events = report::ran(query);
    if (GetParam() > 8)
        events = test::joined(
            {events,
             {report::timeMade("1711796400", summer_time), notConverted(),
              report::rowRead("id = 7|name = null|price = null|sold = null|at = ")}});
    EXPECT_EQ(_diagnostics.events(), test::visibleAt(GetParam(), events));
}

INSTANTIATE_TEST_SUITE_P(Levels, RowDumpTest, Values(2, 3, 7, 8, 9));

// --- the ends of time ---

#if defined(__LP64__) || defined(__USE_TIME_BITS64)

// The years of these do not fit into an int.
class EndOfTimeTest : public ClockTest, public WithParamInterface<time_t> {};

TEST_P(EndOfTimeTest, IsTracedWithoutCalendarTextAndCannotBeConverted)
{
    const Time time(GetParam());
    EXPECT_EQ(time.asString(), "");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(report::timeMade(std::to_string(static_cast<long>(GetParam())), "(null)"),
                    notConverted()));
}

INSTANTIATE_TEST_SUITE_P(Seconds, EndOfTimeTest,
                         Values(std::numeric_limits<time_t>::max(),
                                std::numeric_limits<time_t>::min()));

#else

TEST_F(ClockTest, BothEndsOfTimeCanBeConverted)
{
    EXPECT_EQ(Time(INT32_MAX).asString(), "19-01-2038 04:14:07, Tue");
    EXPECT_EQ(Time(INT32_MIN).asString(), "13-12-1901 21:45:52, Fri");
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

#endif

} // namespace
