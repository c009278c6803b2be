#include "SqlDatabase.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"

#include "Cases.h"
#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <climits>
#include <ctime>
#include <functional>
#include <string>
#include <utility>
#include <vector>

// Which lines are written when, with what priority, and where they say that they come from.

namespace {

namespace report = test::report;

using sql::Database;
using test::Texts;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::Gt;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::ValuesIn;

const Texts one_of_each_tag = test::joined(
    {report::opening(":memory:"),
     report::stepped("drop table if exists product"),
     {report::timeMade("0", "Thu Jan  1 01:00:00 1970\n"),
      report::error("Database::setUserVersion",
                    "User version of a Quillmoor SQL database must be <= 2147483647")}});

void reportWithEachTag()
{
    const test::TimeZone zone;
    Database database;
    database.open(":memory:", Database::access_create, false, 0);
    sql::runOneStepSqlStmt(database.getHandle(), "drop table if exists product");
    const sql::Time epoch(0);
    database.setUserVersion(2147483648u);
}

class TraceTest : public testing::Test {
protected:
    test::Diagnostics _diagnostics;
    test::Connection _db;
};

// --- Levels

class TraceLevelTest : public TraceTest, public testing::WithParamInterface<int> {
protected:
    TraceLevelTest()
    {
        _diagnostics.setLevel(GetParam());
    }
};

TEST_P(TraceLevelTest, LetsThroughTheLinesBelowIt)
{
    reportWithEachTag();
    EXPECT_EQ(_diagnostics.events(), test::visibleAt(GetParam(), one_of_each_tag));
}

TEST_P(TraceLevelTest, ChangesNoResult)
{
    EXPECT_EQ(sql::queryNumber(_db, "select 5"), 5);
    EXPECT_EQ(sql::queryNumber(_db, "select -3"), -1);
    EXPECT_EQ(sql::queryNumber(_db, "select"), -1);
    EXPECT_EQ(sql::queryNumber(_db, "select 1 where 0"), -1);
    EXPECT_EQ(sql::queryNumber(nullptr, "select 5"), -1);
    EXPECT_TRUE(sql::runOneStepSqlStmt(_db, "create table product (id integer)"));
    EXPECT_FALSE(sql::runOneStepSqlStmt(_db, "create table product (id integer)"));
    EXPECT_FALSE(sql::runOneStepSqlStmt(_db, "select 5"));
    EXPECT_FALSE(sql::runOneStepSqlStmt(nullptr, "select 5"));
    EXPECT_EQ(sql::type2Str(sql::field_type(7)), "undefined");
    EXPECT_EQ(sql::Time(77).asInteger(), 77);

    Database database;
    EXPECT_FALSE(database.transactionBegin());
    EXPECT_TRUE(database.open(":memory:", Database::access_create, false, 0));
    EXPECT_FALSE(database.setUserVersion(2147483648u));
    EXPECT_FALSE(database.transactionCommit());
    EXPECT_FALSE(database.open("/", Database::access_read_only, false, 0));

    sql::RecordSet records(_db, test::product_columns);
    EXPECT_TRUE(records.query("select 7, 'tea', 1.5"));
    EXPECT_EQ(records.toString(), "1. 7|tea|1.5\r\n");
    EXPECT_EQ(records.getTopRecord()->getValue(3), nullptr);
}

TEST_P(TraceLevelTest, HidesNoAssertion)
{
    sql::queryNumber(nullptr, "select 5");
    sql::type2Str(sql::type_undefined);
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre(report::nothingToCountOn(),
                            report::asserted("sql::string sql::type2Str(sql::field_type)")));
}

INSTANTIATE_TEST_SUITE_P(Usual, TraceLevelTest, ValuesIn(test::trace_levels));
INSTANTIATE_TEST_SUITE_P(Other, TraceLevelTest, testing::Values(INT_MIN, -1, 1, 4, 5, 10, INT_MAX));

// What is done to an empty database for the sake of its report of two lines.
struct Report : test::Case {
    std::function<void(sqlite3*)> act;
    Texts lines;
};

const Report two_line_reports[] = {
    {"QueryNumberPrepare", [](sqlite3* db) { sql::queryNumber(db, "selekt"); },
     report::notPrepared("selekt", "1=SQLITE_ERROR: near \"selekt\": syntax error")},
    {"QueryNumberStep", [](sqlite3* db) { sql::queryNumber(db, "select 1 where 0"); },
     report::noRow("select 1 where 0", "101=SQLITE_DONE: not an error")},
    {"QueryNumberNegative", [](sqlite3* db) { sql::queryNumber(db, "select -3"); },
     report::negative("select -3", "-3")},
    {"RunOneStepPrepare", [](sqlite3* db) { sql::runOneStepSqlStmt(db, "selekt"); },
     report::stepNotPrepared("selekt", "1=SQLITE_ERROR: near \"selekt\": syntax error")},
    {"RunOneStepStep", [](sqlite3* db) { sql::runOneStepSqlStmt(db, "select 5"); },
     report::stepFailed("select 5", "100=SQLITE_ROW: another row available")},
    {"RecordSetQuery", [](sqlite3* db) { sql::RecordSet(db).query("selekt"); },
     report::refused("selekt", "1=SQLITE_ERROR: near \"selekt\": syntax error")},
    {"RecordSetQueryWithoutErrorText",
     [](sqlite3* db) {
         test::SqliteCalls calls;
         calls.exec = [](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*, char**) {
             return SQLITE_BUSY;
         };
         sql::RecordSet(db).query("select 5");
     },
     report::refused("select 5", "5=SQLITE_BUSY")},
};

class TwoLineReportTest : public TraceTest, public testing::WithParamInterface<Report> {
protected:
    const Texts _lines = test::visibleAt(3, GetParam().lines);
};

TEST_P(TwoLineReportTest, HasBothLinesFromTheirOwnPlaces)
{
    GetParam().act(_db);
    EXPECT_EQ(_diagnostics.events(), _lines);
    EXPECT_THAT(_lines, SizeIs(2));
    EXPECT_LT(_diagnostics.lines().front().line, _diagnostics.lines().back().line);
}

TEST_P(TwoLineReportTest, LosesItsSecondLineWhenTheLevelFallsOrGoesInBetween)
{
    for (const int level : {2, test::without_level, test::without_trace_object}) {
        _diagnostics.clear();
        _diagnostics.setLevel(3);
        _diagnostics.onLine([&](const test::LogLine&) { _diagnostics.setLevel(level); });
        GetParam().act(_db);
        EXPECT_THAT(_diagnostics.events(), ElementsAre(_lines[0])) << level;
    }
}

INSTANTIATE_TEST_SUITE_P(All, TwoLineReportTest, ValuesIn(two_line_reports), test::NameOfCase());

TEST_F(TraceTest, LevelThatRisesDuringAnOperationHoldsForItsNextLine)
{
    sql::Table table(_db, "product", sql::FieldSet(std::vector<sql::Field>()));
    _diagnostics.onLine([this](const test::LogLine&) { _diagnostics.setLevel(8); });
    table.addOrUpdateRecord(sql::integer(7), sql::Record(*table.fields()));
    EXPECT_THAT(_diagnostics.messages(),
                ElementsAre("Failed to get name of PRIMARY KEY column",
                            "Failed to get name of PRIMARY KEY column", "add record for key=7",
                            "No fields to insert in table 'product'",
                            "Failed to build SQL INSERT statement for table 'product'"));
}

TEST_F(TraceTest, LevelThatFallsDuringAnOperationHoldsForItsNextLine)
{
    _diagnostics.setLevel(8);
    _diagnostics.onLine([this](const test::LogLine&) { _diagnostics.setLevel(7); });
    EXPECT_EQ(sql::queryNumber(_db, "select 5"), 5);
    EXPECT_THAT(_diagnostics.messages(), ElementsAre("stmt='select 5'"));
}

// --- What a line and an assertion say of themselves

TEST_F(TraceTest, PriorityGoesWithTheTag)
{
    _diagnostics.setLevel(9);
    reportWithEachTag();
    std::vector<std::pair<std::string, int>> priorities;
    for (const test::LogLine& line : _diagnostics.lines())
        priorities.emplace_back(line.tag, line.priority);
    EXPECT_THAT(priorities, ElementsAre(Pair("[DEBUG1]", 7), Pair("[DEBUG2]", 7),
                                        Pair("[DEBUG3]", 7), Pair("[ERROR]", 3)));
}

TEST_F(TraceTest, LinesHaveTheNumberOfTheirSourceLine)
{
    _diagnostics.setLevel(9);
    reportWithEachTag();
    EXPECT_THAT(_diagnostics.lines(), Each(Field(&test::LogLine::line, Gt(0))));
}

// The calendar text is made in a buffer of the C library's that everybody can see.
TEST_F(TraceTest, ArgumentsAreEvaluatedOnlyOfALineThatIsWritten)
{
    const test::TimeZone zone;
    const time_t epoch = 0;
    const char* const calendar = std::ctime(&epoch);
    _diagnostics.setLevel(8);
    const sql::Time silent(86400);
    EXPECT_STREQ(calendar, "Thu Jan  1 01:00:00 1970\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
    _diagnostics.setLevel(9);
    const sql::Time traced(86400);
    EXPECT_STREQ(calendar, "Fri Jan  2 01:00:00 1970\n");
}

TEST_F(TraceTest, AssertionsOfTwoPlacesHaveTheirOwnLines)
{
    sql::queryNumber(nullptr, "select 5");
    sql::runOneStepSqlStmt(nullptr, "select 5");
    ASSERT_THAT(_diagnostics.failedAssertions(), SizeIs(2));
    EXPECT_LT(_diagnostics.failedAssertions()[0].line, _diagnostics.failedAssertions()[1].line);
}

// A failed assertion of each source file.
struct Source : test::Case {
    std::function<void()> act;
    const char* path;
};

class SourceFileTest : public testing::TestWithParam<Source> {
protected:
    test::Diagnostics _diagnostics;
};

TEST_P(SourceFileTest, AssertionsCarryItsPath)
{
    GetParam().act();
    EXPECT_THAT(_diagnostics.failedAssertions(),
                ElementsAre(AllOf(Field(&test::Assertion::path, GetParam().path),
                                  Field(&test::Assertion::line, Gt(0)))));
}

const Source sources[] = {
    {"Common", [] { sql::type2Str(sql::type_undefined); },
     "components/sql/sqlwrapper/src/SqlCommon.cpp"},
    {"Database", [] { Database().open(":memory:", Database::AccessMode(3), false, 0); },
     "components/sql/sqlwrapper/src/SqlDatabase.cpp"},
    {"Field", [] { sql::Field("", sql::type_text, sql::flag_none); },
     "components/sql/sqlwrapper/src/SqlField.cpp"},
    {"FieldSet", [] { sql::FieldSet fields(test::no_columns); },
     "components/sql/sqlwrapper/src/SqlFieldSet.cpp"},
    {"Record",
     [] {
         const sql::FieldSet fields(test::product_columns);
         sql::Record(fields).getValue(3);
     },
     "components/sql/sqlwrapper/src/SqlRecord.cpp"},
    {"RecordSet", [] { sql::RecordSet().query("select 5"); },
     "components/sql/sqlwrapper/src/SqlRecordSet.cpp"},
    {"Table", [] { sql::Table("product").exists(); }, "components/sql/sqlwrapper/src/SqlTable.cpp"},
};

INSTANTIATE_TEST_SUITE_P(All, SourceFileTest, ValuesIn(sources), test::NameOfCase());

} // namespace
