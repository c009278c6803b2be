#include "SqlCommon.h"

#include "SqlRecordSet.h"
#include "SqlValue.h"

#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstdint>
#include <ctime>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

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

class ClockTest : public testing::Test {
protected:
    ~ClockTest() override
    {
        clockOfTheTest = Clock();
    }

    test::TimeZone _zone;
    test::Diagnostics _diagnostics;
};

const char not_converted[] =
    "[ERROR] SqlCommon.cpp (format) - Failed to convert calendar time to local time";

// --- the current time ---

TEST_F(ClockTest, CurrentTimeIsTheClocks)
{
    clockOfTheTest.stands = true;
    clockOfTheTest.time = 1711796400;
    EXPECT_EQ(Time().asInteger(), 1711796400);
    EXPECT_EQ(Time::now().asInteger(), 1711796400);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(ClockTest, CurrentTimeIsTraced)
{
    _diagnostics.setLevel(9);
    clockOfTheTest.stands = true;
    clockOfTheTest.time = 1711796400;
    const Time time;
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 1711796400 = 'Sat Mar 30 12:00:00 2024\n'"));
}

TEST_F(ClockTest, NowIsTracedOnceByTheConstructor)
{
    _diagnostics.setLevel(9);
    clockOfTheTest.stands = true;
    clockOfTheTest.time = 0;
    Time::now();
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 0 = 'Thu Jan  1 01:00:00 1970\n'"));
}

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

TEST_F(ClockTest, OnlyMinusOneMeansThatTheClockCannotBeRead)
{
    _diagnostics.setLevel(9);
    clockOfTheTest.stands = true;
    clockOfTheTest.time = -2;
    EXPECT_EQ(Time().asInteger(), -2);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = -2 = 'Thu Jan  1 00:59:58 1970\n'"));
}

TEST_F(ClockTest, TimeFromANumberDoesNotNeedTheClock)
{
    clockOfTheTest.fails = true;
    EXPECT_EQ(Time(77).asInteger(), 77);
}

// --- local time ---

struct Text {
    const char* name;
    std::string (*make)(const Time&);
};

void PrintTo(const Text& text, std::ostream* out)
{
    *out << text.name;
}

class LocalTimeTest : public ClockTest, public WithParamInterface<Text> {
protected:
    const Time _time{1711796400};
};

TEST_P(LocalTimeTest, ConversionThatFailsIsReportedAndGivesAnEmptyText)
{
    clockOfTheTest.convertsToLocalTime = false;
    EXPECT_EQ(GetParam().make(_time), "");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(not_converted));
}

TEST_P(LocalTimeTest, ConversionThatFailsGivesAnEmptyTextBelowTheErrorLevel)
{
    _diagnostics.setLevel(2);
    clockOfTheTest.convertsToLocalTime = false;
    EXPECT_EQ(GetParam().make(_time), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(LocalTimeTest, ConversionThatFailsGivesAnEmptyTextWithoutATraceObject)
{
    _diagnostics.removeTraceObject();
    clockOfTheTest.convertsToLocalTime = false;
    EXPECT_EQ(GetParam().make(_time), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

std::string nameOf(const testing::TestParamInfo<Text>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Texts, LocalTimeTest,
                         Values(Text{"Format",
                                     [](const Time& time) {
                                         return time.format("%Y");
                                     }},
                                Text{"FormatOfPlainText",
                                     [](const Time& time) {
                                         return time.format("tea");
                                     }},
                                Text{"String",
                                     [](const Time& time) {
                                         return time.asString();
                                     }},
                                Text{"TimeString",
                                     [](const Time& time) {
                                         return time.asTimeString();
                                     }},
                                Text{"DateString",
                                     [](const Time& time) {
                                         return time.asDateString();
                                     }}),
                         nameOf);

TEST_F(ClockTest, ConversionThatFailsIsOneLiteralOfErrorPriority)
{
    clockOfTheTest.convertsToLocalTime = false;
    Time(0).asString();
    ASSERT_THAT(_diagnostics.lines(), SizeIs(1));
    EXPECT_EQ(_diagnostics.lines()[0].priority, 3);
    EXPECT_EQ(_diagnostics.lines()[0].format,
              "[ERROR] %s:%d (%s) - Failed to convert calendar time to local time");
}

// --- cells that hold a time ---

struct CellText {
    const char* name;
    std::string (*make)(const Value&);
    const char* text;
};

void PrintTo(const CellText& text, std::ostream* out)
{
    *out << text.name;
}

class TimeCellTest : public ClockTest, public WithParamInterface<CellText> {
protected:
    TimeCellTest() : _cell(sql::type_time)
    {
        _cell.setInteger(1711796400);
        clockOfTheTest.convertsToLocalTime = false;
    }

    Value _cell;
};

TEST_P(TimeCellTest, ConversionThatFailsIsReportedAndGivesAnEmptyText)
{
    EXPECT_EQ(GetParam().make(_cell), GetParam().text);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(not_converted));
}

TEST_P(TimeCellTest, ConversionThatFailsIsReportedAfterTheTimeIsTraced)
{
    _diagnostics.setLevel(9);
    EXPECT_EQ(GetParam().make(_cell), GetParam().text);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 1711796400 = 'Sat Mar 30 12:00:00 2024\n'",
            not_converted));
}

std::string nameOfCellText(const testing::TestParamInfo<CellText>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TimeCellTest,
    Values(CellText{"AsString", [](const Value& cell) { return cell.asString(); }, ""},
           CellText{"ToString", [](const Value& cell) { return cell.toString(); }, ""},
           CellText{"Dump", [](const Value& cell) { return cell.dump(false); }, ""},
           CellText{"DumpWithType", [](const Value& cell) { return cell.dump(true); }, " (time)"},
           CellText{"SqlText", [](const Value& cell) { return cell.toSql(sql::type_text); }, "''"}),
    nameOfCellText);

TEST_F(ClockTest, SecondsOfACellNeedNoLocalTime)
{
    _diagnostics.setLevel(9);
    clockOfTheTest.convertsToLocalTime = false;
    Value cell(sql::type_time);
    cell.setInteger(77);
    EXPECT_EQ(cell.toSql(sql::type_time), "77");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- rows that hold a time, whose dump would report that it cannot be converted ---

const char row_query[] = "select 7, null, null, null, 1711796400";
const char row_query_line[] =
    "[DEBUG2] SqlRecordSet.cpp (query) - stmt='select 7, null, null, null, 1711796400'";

class RowDumpLevelTest : public ClockTest, public WithParamInterface<int> {};

TEST_P(RowDumpLevelTest, RowIsNotDumpedBelowTheHighestTraceLevel)
{
    const test::Connection db;
    sql::RecordSet rows(db, test::all_type_columns);
    clockOfTheTest.convertsToLocalTime = false;
    _diagnostics.setLevel(GetParam());
    EXPECT_TRUE(rows.query(row_query));
    EXPECT_EQ(rows.count(), 1);
    EXPECT_EQ(_diagnostics.events(), test::visibleAt(GetParam(), {row_query_line}));
}

INSTANTIATE_TEST_SUITE_P(Levels, RowDumpLevelTest, Values(2, 3, 7, 8));

TEST_F(ClockTest, RowIsDumpedAtTheHighestTraceLevel)
{
    const test::Connection db;
    sql::RecordSet rows(db, test::all_type_columns);
    clockOfTheTest.convertsToLocalTime = false;
    _diagnostics.setLevel(9);
    EXPECT_TRUE(rows.query(row_query));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            row_query_line,
            "[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 1711796400 = 'Sat Mar 30 12:00:00 2024\n'",
            not_converted,
            "[DEBUG3] SqlRecordSet.cpp (on_next_record) - id = 7|name = null|price = null|sold = null|at = "));
}

// --- calendar text ---

TEST_F(ClockTest, TimeWithoutCalendarTextIsTracedAsNull)
{
    _diagnostics.setLevel(9);
    clockOfTheTest.hasCalendarText = false;
    const Time time(77);
    EXPECT_EQ(time.asInteger(), 77);
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 77 = '(null)'"));
}

TEST_F(ClockTest, CurrentTimeWithoutCalendarTextIsTracedAsNull)
{
    _diagnostics.setLevel(9);
    clockOfTheTest.stands = true;
    clockOfTheTest.time = 77;
    clockOfTheTest.hasCalendarText = false;
    const Time time;
    EXPECT_EQ(time.asInteger(), 77);
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 77 = '(null)'"));
}

// --- the ends of time ---

#if defined(__LP64__) || defined(__USE_TIME_BITS64)

// The years of these do not fit into an int.
class EndOfTimeTest : public ClockTest, public WithParamInterface<time_t> {};

TEST_P(EndOfTimeTest, CannotBeConvertedToLocalTime)
{
    const Time time(GetParam());
    EXPECT_EQ(time.asString(), "");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(not_converted));
}

TEST_P(EndOfTimeTest, IsTracedWithoutCalendarText)
{
    _diagnostics.setLevel(9);
    const Time time(GetParam());
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = "
                            + std::to_string(static_cast<long>(GetParam())) + " = '(null)'"));
}

INSTANTIATE_TEST_SUITE_P(Seconds, EndOfTimeTest,
                         Values(std::numeric_limits<time_t>::max(),
                                std::numeric_limits<time_t>::min()));

#else

TEST_F(ClockTest, BothEndsOfTimeCanBeConverted)
{
    EXPECT_EQ(Time(INT32_MAX).asString(), "19-01-2038 04:14:07, Tue");
    EXPECT_EQ(Time(INT32_MIN).asString(), "13-12-1901 21:45:52, Fri");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

#endif

} // namespace
