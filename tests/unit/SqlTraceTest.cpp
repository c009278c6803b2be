#include "SqlCommon.h"
#include "SqlDatabase.h"
#include "SqlField.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"

#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <climits>
#include <ctime>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace {

using sql::Database;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Field;
using testing::Gt;
using testing::IsEmpty;
using testing::SizeIs;
using testing::TestWithParam;
using testing::Values;
using testing::ValuesIn;

template <typename Parameter> std::string nameOf(const testing::TestParamInfo<Parameter>& info)
{
    return info.param.name;
}

// One line with each of the four tags.
void reportWithEachTag()
{
    Database database;
    database.open(":memory:", Database::access_create, false, 0);
    sql::runOneStepSqlStmt(database.getHandle(), "drop table if exists product");
    const sql::Time epoch(0);
    database.setUserVersion(2147483648u);
}

std::vector<std::string> tags(const test::Diagnostics& diagnostics)
{
    std::vector<std::string> found;
    for (const test::LogLine& line : diagnostics.lines())
        found.push_back(line.tag);
    return found;
}

struct LevelCase {
    int level;
    std::vector<std::string> tags;
};

void PrintTo(const LevelCase& parameter, std::ostream* out)
{
    *out << "level " << parameter.level;
}

class TraceLevelTest : public TestWithParam<LevelCase> {
protected:
    test::Diagnostics _diagnostics;
};

TEST_P(TraceLevelTest, LetsThroughTheLinesBelowIt)
{
    _diagnostics.setLevel(GetParam().level);
    reportWithEachTag();
    EXPECT_THAT(tags(_diagnostics), ElementsAreArray(GetParam().tags));
}

INSTANTIATE_TEST_SUITE_P(
    Levels, TraceLevelTest,
    Values(LevelCase{INT_MIN, {}}, LevelCase{-1, {}}, LevelCase{0, {}}, LevelCase{1, {}},
           LevelCase{2, {}}, LevelCase{3, {"[ERROR]"}}, LevelCase{4, {"[ERROR]"}},
           LevelCase{5, {"[ERROR]"}}, LevelCase{6, {"[ERROR]"}},
           LevelCase{7, {"[DEBUG1]", "[ERROR]"}}, LevelCase{8, {"[DEBUG1]", "[DEBUG2]", "[ERROR]"}},
           LevelCase{9, {"[DEBUG1]", "[DEBUG2]", "[DEBUG3]", "[ERROR]"}},
           LevelCase{10, {"[DEBUG1]", "[DEBUG2]", "[DEBUG3]", "[ERROR]"}},
           LevelCase{INT_MAX, {"[DEBUG1]", "[DEBUG2]", "[DEBUG3]", "[ERROR]"}}));

// How the trace library can stand.
struct Setting {
    const char* name;
    std::function<void(test::Diagnostics&)> apply;
    std::vector<std::string> tags;
};

void PrintTo(const Setting& setting, std::ostream* out)
{
    *out << setting.name;
}

class TraceSettingTest : public TestWithParam<Setting> {
protected:
    TraceSettingTest()
    {
        GetParam().apply(_diagnostics);
    }

    test::Diagnostics _diagnostics;
    test::Connection _db;
};

TEST_P(TraceSettingTest, ResultsAreTheSame)
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

TEST_P(TraceSettingTest, OnlyLinesThatTheLevelAllowsAreWritten)
{
    reportWithEachTag();
    EXPECT_THAT(tags(_diagnostics), ElementsAreArray(GetParam().tags));
}

TEST_P(TraceSettingTest, AssertionsAreReportedWhateverTheLevel)
{
    sql::queryNumber(nullptr, "select 5");
    sql::type2Str(sql::type_undefined);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'db' in SqlCommon.cpp (int sql::queryNumber(sqlite3*, const string&))",
            "assert 'false' in SqlCommon.cpp (sql::string sql::type2Str(sql::field_type))"));
}

Setting levelSetting(const char* name, int level, const std::vector<std::string>& tags)
{
    return {name, [level](test::Diagnostics& diagnostics) { diagnostics.setLevel(level); }, tags};
}

INSTANTIATE_TEST_SUITE_P(
    Trace, TraceSettingTest,
    Values(levelSetting("Level0", 0, {}), levelSetting("Level2", 2, {}),
           levelSetting("Level3", 3, {"[ERROR]"}), levelSetting("Level6", 6, {"[ERROR]"}),
           levelSetting("Level7", 7, {"[DEBUG1]", "[ERROR]"}),
           levelSetting("Level8", 8, {"[DEBUG1]", "[DEBUG2]", "[ERROR]"}),
           levelSetting("Level9", 9, {"[DEBUG1]", "[DEBUG2]", "[DEBUG3]", "[ERROR]"}),
           Setting{"WithoutLevel",
                   [](test::Diagnostics& diagnostics) {
                       diagnostics.setLevel(9);
                       diagnostics.removeLevel();
                   },
                   {}},
           Setting{"WithoutTraceObject",
                   [](test::Diagnostics& diagnostics) {
                       diagnostics.setLevel(9);
                       diagnostics.removeTraceObject();
                   },
                   {}}),
    nameOf<Setting>);

// What is done to an empty database for the sake of its reports.
struct Reports {
    const char* name;
    std::function<void(sqlite3*)> act;
    std::vector<std::string> formats;
};

void PrintTo(const Reports& reports, std::ostream* out)
{
    *out << reports.name;
}

class TwoLineReportTest : public TestWithParam<Reports> {
protected:
    test::Diagnostics _diagnostics;
    test::Connection _db;
};

TEST_P(TwoLineReportTest, HasBothLinesAtTheErrorLevel)
{
    GetParam().act(_db);
    ASSERT_THAT(_diagnostics.lines(), SizeIs(2));
    EXPECT_THAT(tags(_diagnostics), ElementsAre("[ERROR]", "[ERROR]"));
    EXPECT_EQ(_diagnostics.lines()[0].format, GetParam().formats[0]);
    EXPECT_EQ(_diagnostics.lines()[1].format, GetParam().formats[1]);
    EXPECT_LT(_diagnostics.lines()[0].line, _diagnostics.lines()[1].line);
}

TEST_P(TwoLineReportTest, LosesItsSecondLineWhenTheLevelFallsInBetween)
{
    _diagnostics.onLine([this](const test::LogLine&) { _diagnostics.setLevel(2); });
    GetParam().act(_db);
    ASSERT_THAT(_diagnostics.lines(), SizeIs(1));
    EXPECT_EQ(_diagnostics.lines()[0].format, GetParam().formats[0]);
}

TEST_P(TwoLineReportTest, LosesItsSecondLineWhenTheLevelGoesInBetween)
{
    _diagnostics.onLine([this](const test::LogLine&) { _diagnostics.removeLevel(); });
    GetParam().act(_db);
    ASSERT_THAT(_diagnostics.lines(), SizeIs(1));
    EXPECT_EQ(_diagnostics.lines()[0].format, GetParam().formats[0]);
}

TEST_P(TwoLineReportTest, LosesItsSecondLineWhenTheTraceObjectGoesInBetween)
{
    _diagnostics.onLine([this](const test::LogLine&) { _diagnostics.removeTraceObject(); });
    GetParam().act(_db);
    ASSERT_THAT(_diagnostics.lines(), SizeIs(1));
    EXPECT_EQ(_diagnostics.lines()[0].format, GetParam().formats[0]);
}

const std::vector<Reports> two_line_reports = {
    {"QueryNumberPrepare",
     [](sqlite3* db) { sql::queryNumber(db, "select"); },
     {"[ERROR] %s:%d (%s) - Failed to prepare the SQL query '%s': ",
      "[ERROR] %s:%d (%s) -   rc=%d=%s: %s"}},
    {"QueryNumberStep",
     [](sqlite3* db) { sql::queryNumber(db, "select 1 where 0"); },
     {"[ERROR] %s:%d (%s) - The SQL query '%s' failed",
      "[ERROR] %s:%d (%s) -    the query returned %d=%s instead of SQLITE_ROW: %s"}},
    {"QueryNumberNegative",
     [](sqlite3* db) { sql::queryNumber(db, "select -3"); },
     {"[ERROR] %s:%d (%s) - The SQL query '%s' failed",
      "[ERROR] %s:%d (%s) -   SQLite returned returned number = %d < 0"}},
    {"RunOneStepPrepare",
     [](sqlite3* db) { sql::runOneStepSqlStmt(db, "select"); },
     {"[ERROR] %s:%d (%s) - Failed to prepare the SQL statement '%s': ",
      "[ERROR] %s:%d (%s) -  rc=%d=%s: %s"}},
    {"RunOneStepStep",
     [](sqlite3* db) { sql::runOneStepSqlStmt(db, "select 5"); },
     {"[ERROR] %s:%d (%s) - Running the SQL stmt '%s' failed",
      "[ERROR] %s:%d (%s) -   SQLite returned %d=%s instead of SQLITE_DONE: %s"}},
    {"RecordSetQuery",
     [](sqlite3* db) { sql::RecordSet(db).query("select"); },
     {"[ERROR] %s:%d (%s) - Failed to run the SQL stmt '%s'",
      "[ERROR] %s:%d (%s) -   rc=%d=%s: %s"}},
    {"RecordSetQueryWithoutErrorText",
     [](sqlite3* db) {
         test::SqliteCalls calls;
         calls.exec = [](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*, char**) {
             return SQLITE_BUSY;
         };
         sql::RecordSet(db).query("select");
     },
     {"[ERROR] %s:%d (%s) - Failed to run the SQL stmt '%s'", "[ERROR] %s:%d (%s) -   rc=%d=%s"}},
};

INSTANTIATE_TEST_SUITE_P(Reports, TwoLineReportTest, ValuesIn(two_line_reports), nameOf<Reports>);

class TraceTest : public testing::Test {
protected:
    test::Diagnostics _diagnostics;
    test::Connection _db;
};

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

TEST_F(TraceTest, PriorityGoesWithTheTag)
{
    _diagnostics.setLevel(9);
    reportWithEachTag();
    std::vector<std::pair<std::string, int>> priorities;
    for (const test::LogLine& line : _diagnostics.lines())
        priorities.emplace_back(line.tag, line.priority);
    EXPECT_THAT(priorities, ElementsAre(testing::Pair("[DEBUG1]", 7), testing::Pair("[DEBUG2]", 7),
                                        testing::Pair("[DEBUG3]", 7), testing::Pair("[ERROR]", 3)));
}

// The calendar text is made in a buffer of the C library's that everybody can see.
TEST_F(TraceTest, ArgumentsOfALineThatIsNotWrittenAreNotEvaluated)
{
    const test::TimeZone zone;
    const time_t epoch = 0;
    const char* const calendar = std::ctime(&epoch);
    _diagnostics.setLevel(8);
    const sql::Time time(86400);
    EXPECT_STREQ(calendar, "Thu Jan  1 01:00:00 1970\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TraceTest, ArgumentsOfALineThatIsWrittenAreEvaluated)
{
    const test::TimeZone zone;
    const time_t epoch = 0;
    const char* const calendar = std::ctime(&epoch);
    _diagnostics.setLevel(9);
    const sql::Time time(86400);
    EXPECT_STREQ(calendar, "Fri Jan  2 01:00:00 1970\n");
}

TEST_F(TraceTest, AssertionNamesItsConditionPathLineAndFunction)
{
    sql::queryNumber(nullptr, "select 5");
    ASSERT_THAT(_diagnostics.failedAssertions(), SizeIs(1));
    const test::Assertion& assertion = _diagnostics.failedAssertions()[0];
    EXPECT_EQ(assertion.expression, "db");
    EXPECT_EQ(assertion.path, "components/sql/sqlwrapper/src/SqlCommon.cpp");
    EXPECT_GT(assertion.line, 0);
    EXPECT_EQ(assertion.function, "int sql::queryNumber(sqlite3*, const string&)");
}

TEST_F(TraceTest, AssertionsOfTwoPlacesHaveTheirOwnLines)
{
    sql::queryNumber(nullptr, "select 5");
    sql::runOneStepSqlStmt(nullptr, "select 5");
    ASSERT_THAT(_diagnostics.failedAssertions(), SizeIs(2));
    EXPECT_LT(_diagnostics.failedAssertions()[0].line, _diagnostics.failedAssertions()[1].line);
}

TEST_F(TraceTest, LinesNameFileLineAndFunction)
{
    _diagnostics.setLevel(9);
    Database database;
    database.open(":memory:", Database::access_create, false, 0);
    database.setUserVersion(2147483648u);
    database.transactionBegin();
    sql::queryNumber(_db, "select 5");
    sql::runOneStepSqlStmt(_db, "drop table if exists product");
    const sql::Time epoch(0);
    const sql::Time now;
    sql::Time::now();
    EXPECT_THAT(_diagnostics.lines(), Each(Field(&test::LogLine::line, Gt(0))));
    std::vector<std::string> places;
    for (const test::LogLine& line : _diagnostics.lines())
        places.push_back(line.file + " " + line.function);
    EXPECT_THAT(places,
                ElementsAre("SqlDatabase.cpp open", "SqlDatabase.cpp setUserVersion",
                            "SqlRecordSet.cpp query", "SqlCommon.cpp queryNumber",
                            "SqlCommon.cpp queryNumber", "SqlCommon.cpp runOneStepSqlStmt",
                            "SqlCommon.cpp Time", "SqlCommon.cpp Time", "SqlCommon.cpp Time"));
}

// What each source file reports with, once.
struct Source {
    const char* name;
    std::function<void()> act;
    const char* path;
};

void PrintTo(const Source& source, std::ostream* out)
{
    *out << source.name;
}

class SourceFileTest : public TestWithParam<Source> {
protected:
    test::Diagnostics _diagnostics;
};

TEST_P(SourceFileTest, AssertionsCarryItsPath)
{
    GetParam().act();
    EXPECT_THAT(_diagnostics.failedAssertions(),
                Each(AllOf(Field(&test::Assertion::path, GetParam().path),
                           Field(&test::Assertion::line, Gt(0)))));
    EXPECT_THAT(_diagnostics.failedAssertions(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(
    Sources, SourceFileTest,
    Values(Source{"Common", [] { sql::type2Str(sql::type_undefined); },
                  "components/sql/sqlwrapper/src/SqlCommon.cpp"},
           Source{"Database",
                  [] { Database().open(":memory:", Database::AccessMode(3), false, 0); },
                  "components/sql/sqlwrapper/src/SqlDatabase.cpp"},
           Source{"Field", [] { sql::Field("", sql::type_text, sql::flag_none); },
                  "components/sql/sqlwrapper/src/SqlField.cpp"},
           Source{"FieldSet", [] { sql::FieldSet fields(test::no_columns); },
                  "components/sql/sqlwrapper/src/SqlFieldSet.cpp"},
           Source{"Record",
                  [] {
                      const sql::FieldSet fields(test::product_columns);
                      sql::Record(fields).getValue(3);
                  },
                  "components/sql/sqlwrapper/src/SqlRecord.cpp"},
           Source{"RecordSet", [] { sql::RecordSet().query("select 5"); },
                  "components/sql/sqlwrapper/src/SqlRecordSet.cpp"},
           Source{"Table", [] { sql::Table("product").exists(); },
                  "components/sql/sqlwrapper/src/SqlTable.cpp"}),
    nameOf<Source>);

class MessageTest : public TestWithParam<Reports> {
protected:
    test::Diagnostics _diagnostics;
    test::Connection _db;
};

TEST_P(MessageTest, IsOneLiteralWithItsPlaceholders)
{
    _diagnostics.setLevel(9);
    GetParam().act(_db);
    std::vector<std::string> formats;
    for (const test::LogLine& line : _diagnostics.lines())
        formats.push_back(line.format);
    EXPECT_THAT(formats, ElementsAreArray(GetParam().formats));
}

bool openWith(int rc)
{
    test::SqliteCalls calls;
    calls.open = [rc](const char*, sqlite3** db, int, const char*) {
        *db = nullptr;
        return rc;
    };
    return Database().open("product.db", Database::access_read_only, false, 0);
}

bool openWithoutBusyTimeout()
{
    test::SqliteCalls calls;
    calls.busyTimeout = [](sqlite3*, int) {
        return SQLITE_MISUSE;
    };
    return Database().open(":memory:", Database::access_create, false, 0);
}

const sql::FieldSet& withoutKey()
{
    static const sql::FieldSet fields(test::without_key_columns);
    return fields;
}

const sql::FieldSet& empty()
{
    static const sql::FieldSet fields{std::vector<sql::Field>()};
    return fields;
}

// Fields without positions, by which records do not find their cells.
const sql::FieldSet& withoutPositions()
{
    static const sql::FieldSet fields(
        std::vector<sql::Field>{{"name", sql::type_text, sql::flag_none}});
    return fields;
}

// A record without a cell for its key column, which its fields got later.
std::string updateWithoutKeyCell()
{
    sql::FieldSet fields{std::vector<sql::Field>()};
    const sql::Record record(fields);
    const sql::Field columns[] = {{"id", sql::type_int, sql::flag_primary_key}, sql::Field()};
    fields.initFieldSet(columns);
    return record.toSqlUpdate("product");
}

const sql::FieldSet& products()
{
    static const sql::FieldSet fields(test::product_columns);
    return fields;
}

void makeTable(sqlite3* db)
{
    sqlite3_exec(db, "create table product (id integer, name, price)", nullptr, nullptr, nullptr);
}

// The second time there is a row with the key to update.
template <typename Key> void addThenUpdate(sqlite3* db, const Key& key)
{
    makeTable(db);
    sql::Record record(products());
    record.setInteger("id", 7);
    sql::Table table(db, "product", products());
    table.addOrUpdateRecord(key, record);
    table.addOrUpdateRecord(key, record);
}

const std::vector<Reports> messages = {
    {"Number",
     [](sqlite3* db) { sql::queryNumber(db, "select 5"); },
     {"[DEBUG2] %s:%d (%s) - stmt='%s'", "[DEBUG2] %s:%d (%s) - SQLite returned number=%d"}},
    {"TwoColumns",
     [](sqlite3* db) { sql::queryNumber(db, "select 5, 6"); },
     {"[DEBUG2] %s:%d (%s) - stmt='%s'",
      "[ERROR] %s:%d (%s) - The SQL query '%s' failed: query returned %d columns in result while 1 is expected"}},
    {"OneStep",
     [](sqlite3* db) { sql::runOneStepSqlStmt(db, "drop table if exists product"); },
     {"[DEBUG2] %s:%d (%s) - stmt='%s'"}},
    {"TimeFromANumber",
     [](sqlite3*) { const sql::Time time(0); },
     {"[DEBUG3] %s:%d (%s) - Time ctor: time = %ld = '%s'"}},
    {"CurrentTime",
     [](sqlite3*) { const sql::Time time; },
     {"[DEBUG3] %s:%d (%s) - Time ctor: time = %ld = '%s'"}},
    {"FailedOpen",
     [](sqlite3*) { openWith(SQLITE_CANTOPEN); },
     {"[DEBUG1] %s:%d (%s) - Opening database '%s'",
      "[ERROR] %s:%d (%s) - Failed to open the database %s: rc=%d=%s: %s"}},
    {"OpenWithoutHandle",
     [](sqlite3*) { openWith(SQLITE_OK); },
     {"[DEBUG1] %s:%d (%s) - Opening database '%s'",
      "[ERROR] %s:%d (%s) - Failed to open the database %s: database handle returned by SQLite is 0"}},
    {"BusyTimeout",
     [](sqlite3*) { openWithoutBusyTimeout(); },
     {"[DEBUG1] %s:%d (%s) - Opening database '%s'",
      "[ERROR] %s:%d (%s) - Failed to set the busy timeout: rc=%d=%s"}},
    {"UserVersion",
     [](sqlite3*) { Database().setUserVersion(2147483648u); },
     {"[ERROR] %s:%d (%s) - User version of a Quillmoor SQL database must be <= %d"}},
    {"KeyOfAnotherType",
     [](sqlite3*) {
         const sql::Field columns[] = {{"at", sql::type_time, sql::flag_primary_key}, sql::Field()};
         const sql::FieldSet fields(columns);
     },
     {"[ERROR] %s:%d (%s) - PRIMARY KEY column '%s' must be of type 'integer' or 'text' instead of type '%s'"}},
    {"ColumnOutOfRange",
     [](sqlite3*) { sql::Record(withoutKey()).initColumnValue(2, "tea", sql::type_text); },
     {"[ERROR] %s:%d (%s) - Column index (%d) is out of range [0, %d["}},
    {"NoValueAtIndex",
     [](sqlite3*) { sql::Record(withoutKey()).getValue(2); },
     {"[ERROR] %s:%d (%s) - No value for column with index %d"}},
    {"NoValueWithName",
     [](sqlite3*) { sql::Record(withoutKey()).getValue("id"); },
     {"[ERROR] %s:%d (%s) - No value for column with name '%s'"}},
    {"NoFieldWithName",
     [](sqlite3*) { sql::Record(withoutKey()).setNull("id"); },
     {"[ERROR] %s:%d (%s) - Field/column '%s' not found"}},
    {"NoKeyValue",
     [](sqlite3*) { sql::Record(withoutKey()).getKeyIdValue(); },
     {"[ERROR] %s:%d (%s) - No PRIMARY KEY column found"}},
    {"NoTableName",
     [](sqlite3*) { sql::Record(withoutKey()).toSqlInsert(""); },
     {"[ERROR] %s:%d (%s) - No table name given"}},
    {"UpdateWithoutKey",
     [](sqlite3*) { sql::Record(withoutKey()).toSqlUpdate("product"); },
     {"[ERROR] %s:%d (%s) - Failed to get name of PRIMARY KEY column",
      "[ERROR] %s:%d (%s) - Failed to get name of PRIMARY KEY column for table %s"}},
    {"ValueListWithoutCell",
     [](sqlite3*) { sql::Record(withoutPositions()).toSql(); },
     {"[ERROR] %s:%d (%s) - No value for column with index %d",
      "[ERROR] %s:%d (%s) - field with index %d does not have value"}},
    {"InsertWithoutValues",
     [](sqlite3*) { sql::Record(withoutPositions()).toSqlInsert("product"); },
     {"[ERROR] %s:%d (%s) - No value for column with index %d",
      "[ERROR] %s:%d (%s) - field with index %d does not have value",
      "[ERROR] %s:%d (%s) - No values to insert in table '%s'"}},
    {"UpdateWithoutCell",
     [](sqlite3*) { sql::Record(withoutPositions()).toSqlUpdate("product"); },
     {"[ERROR] %s:%d (%s) - No value for column with index %d",
      "[ERROR] %s:%d (%s) - No value for column with index=%d (and name=%s) of table %s"}},
    {"UpdateWithoutKeyCell",
     [](sqlite3*) { updateWithoutKeyCell(); },
     {"[ERROR] %s:%d (%s) - No value for column with index %d",
      "[ERROR] %s:%d (%s) - No PRIMARY KEY column found for table %s"}},
    {"UpdateOfARowWithoutKey",
     [](sqlite3* db) {
         sql::Table(db, "product", withoutKey()).updateRecord(sql::Record(withoutKey()));
     },
     {"[ERROR] %s:%d (%s) - Failed to get name of PRIMARY KEY column",
      "[ERROR] %s:%d (%s) - Failed to get name of PRIMARY KEY column for table %s",
      "[ERROR] %s:%d (%s) - Failed to build SQL UPDATE statement for table '%s'"}},
    {"InsertWithoutFields",
     [](sqlite3* db) { sql::Table(db, "product", empty()).addRecord(sql::Record(empty())); },
     {"[ERROR] %s:%d (%s) - No fields to insert in table '%s'",
      "[ERROR] %s:%d (%s) - Failed to build SQL INSERT statement for table '%s'"}},
    {"RowDump",
     [](sqlite3* db) { sql::RecordSet(db, withoutKey()).query("select 'tea'"); },
     {"[DEBUG2] %s:%d (%s) - stmt='%s'", "[DEBUG3] %s:%d (%s) - %s"}},
    {"MissingTable",
     [](sqlite3* db) { sql::Table(db, "product", withoutKey()).exists(); },
     {"[DEBUG2] %s:%d (%s) - stmt='%s'", "[DEBUG2] %s:%d (%s) - SQLite returned number=%d",
      "[DEBUG2] %s:%d (%s) - Table '%s' does not exist"}},
    {"ExistingTable",
     [](sqlite3* db) {
         makeTable(db);
         sql::Table(db, "product", withoutKey()).exists();
     },
     {"[DEBUG2] %s:%d (%s) - stmt='%s'", "[DEBUG2] %s:%d (%s) - SQLite returned number=%d",
      "[DEBUG2] %s:%d (%s) - Table '%s' exists"}},
    {"TextKey",
     [](sqlite3* db) { addThenUpdate(db, sql::string("7")); },
     {"[DEBUG2] %s:%d (%s) - stmt='%s'", "[DEBUG2] %s:%d (%s) - SQLite returned number=%d",
      "[DEBUG2] %s:%d (%s) - add record for key=%s", "[DEBUG2] %s:%d (%s) - stmt='%s'",
      "[DEBUG2] %s:%d (%s) - stmt='%s'", "[DEBUG2] %s:%d (%s) - SQLite returned number=%d",
      "[DEBUG2] %s:%d (%s) - update record for key=%s", "[DEBUG2] %s:%d (%s) - stmt='%s'"}},
    {"IntegerKey",
     [](sqlite3* db) { addThenUpdate(db, sql::integer(7)); },
     {"[DEBUG2] %s:%d (%s) - stmt='%s'", "[DEBUG2] %s:%d (%s) - SQLite returned number=%d",
      "[DEBUG2] %s:%d (%s) - add record for key=%lld", "[DEBUG2] %s:%d (%s) - stmt='%s'",
      "[DEBUG2] %s:%d (%s) - stmt='%s'", "[DEBUG2] %s:%d (%s) - SQLite returned number=%d",
      "[DEBUG2] %s:%d (%s) - update record for key=%lld", "[DEBUG2] %s:%d (%s) - stmt='%s'"}},
    {"TableThatCannotBeLookedFor",
     [](sqlite3* db) { sql::Table(db, "it's", withoutKey()).exists(); },
     {"[DEBUG2] %s:%d (%s) - stmt='%s'",
      "[ERROR] %s:%d (%s) - Failed to prepare the SQL query '%s': ",
      "[ERROR] %s:%d (%s) -   rc=%d=%s: %s",
      "[ERROR] %s:%d (%s) - Failed to determine if table '%s' exists"}},
    {"TableWithoutColumns",
     [](sqlite3* db) { sql::Table(db, "product", empty()).getDefinition(); },
     {"[ERROR] %s:%d (%s) - Failed to build SQL CREATE TABLE stmt for table %s"}},
};

INSTANTIATE_TEST_SUITE_P(Messages, MessageTest, ValuesIn(messages), nameOf<Reports>);

} // namespace
