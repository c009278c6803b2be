#include "SqlRecordSet.h"

#include "Columns.h"
#include "Declarations.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Rows.h"
#include "Sqlite.h"
#include "Wording.h"

#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sql::Field;
using sql::FieldSet;
using sql::Record;
using sql::RecordSet;
using sql::string;
using sql::Value;
using test::cells;
using test::declared;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_copy_constructible<RecordSet>::value, "rows point at their set's columns");
static_assert(!std::is_copy_assignable<RecordSet>::value, "rows point at their set's columns");
static_assert(!std::is_move_constructible<RecordSet>::value, "rows point at their set's columns");
static_assert(!std::is_move_assignable<RecordSet>::value, "rows point at their set's columns");
static_assert(std::is_nothrow_destructible<RecordSet>::value, "a set never throws when it ends");
static_assert(!std::is_polymorphic<RecordSet>::value, "a plain class");

// The declarations, as users compile against them.
static_assert(std::is_default_constructible<RecordSet>::value);
static_assert(std::is_constructible<RecordSet, sqlite3*>::value);
static_assert(std::is_constructible<RecordSet, sqlite3*, const FieldSet&>::value);
static_assert(std::is_constructible<RecordSet, sqlite3*, const Field*>::value);
static_assert(declared<bool (RecordSet::*)(sqlite3*, const Field*)>(&RecordSet::initRecordSet));
static_assert(declared<void (RecordSet::*)()>(&RecordSet::close));
static_assert(declared<bool (RecordSet::*)(const string&)>(&RecordSet::query));
static_assert(declared<bool (RecordSet::*)() const>(&RecordSet::isResultOk));
static_assert(declared<int (RecordSet::*)() const>(&RecordSet::count));
static_assert(declared<Record* (RecordSet::*)(int)>(&RecordSet::getRecord));
static_assert(declared<const Record* (RecordSet::*)(int) const>(&RecordSet::getRecord));
static_assert(declared<const Record* (RecordSet::*)() const>(&RecordSet::getTopRecord));
static_assert(declared<const Value* (RecordSet::*)() const>(&RecordSet::getTopRecordFirstValue));
static_assert(declared<const FieldSet* (RecordSet::*)() const>(&RecordSet::fields));
static_assert(declared<string (RecordSet::*)() const>(&RecordSet::toString));
static_assert(declared<int (*)(void*, int, char**, char**)>(&RecordSet::on_next_record));

const char two_rows[] = "select 7, 'tea', 2.5 union all select 8, null, 3.5";

// Fails at its second row.
const char failing_rows[] = "select 7, 'tea' union all select abs(-9223372036854775808), 'x'";

const char null_connection[] =
    "assert '_db' in SqlRecordSet.cpp (bool sql::RecordSet::query(const string&))";

const char no_key_column[] =
    "assert 'false' in SqlFieldSet.cpp (bool sql::FieldSet::initFieldSet(const sql::Field*))";

// What a failure of the statement is answered with when SQLite is not asked.
int refuse(char** error, int rc, const char* text)
{
    if (text != nullptr)
        *error = sqlite3_mprintf("%s", text);
    return rc;
}

class RecordSetTest : public testing::Test {
protected:
    // Nothing is held and no statement has succeeded.
    static void expectEmpty(const RecordSet& set)
    {
        EXPECT_FALSE(set.isResultOk());
        EXPECT_EQ(set.count(), 0);
        EXPECT_EQ(set.getRecord(0), nullptr);
        EXPECT_EQ(set.getTopRecord(), nullptr);
        EXPECT_EQ(set.getTopRecordFirstValue(), nullptr);
        EXPECT_EQ(set.toString(), "");
    }

    // A table n of the numbers below `count`.
    void fillNumbers(int count)
    {
        _db.run("create table n (i integer primary key); insert into n values (0)");
        for (int size = 1; size < count; size *= 2) {
            const std::string next = "i + " + std::to_string(size);
            _db.run("insert into n select " + next + " from n where " + next + " < "
                    + std::to_string(count));
        }
    }

    const test::TimeZone _zone;
    test::Diagnostics _diagnostics;
    test::Connection _db;
    const FieldSet _products{test::product_columns};
};

// --- Construction

TEST_F(RecordSetTest, SetWithoutArgumentsHasNoColumnsAndNoConnection)
{
    RecordSet set;
    expectEmpty(set);
    EXPECT_EQ(set.fields()->count(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
    EXPECT_FALSE(set.query("select 1"));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(null_connection));
}

TEST_F(RecordSetTest, SetOfAConnectionAloneHasNoColumns)
{
    RecordSet set(_db);
    expectEmpty(set);
    EXPECT_EQ(set.fields()->count(), 0);
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, SetOfAFieldSetHasACopyOfIt)
{
    FieldSet fields = _products;
    RecordSet set(_db, fields);
    fields = FieldSet(test::text_key_columns);
    expectEmpty(set);
    EXPECT_NE(set.fields(), &fields);
    EXPECT_EQ(set.fields()->toSql(), "id, name, price");
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, SetOfAFieldSetKeepsPositionsAsTheyAre)
{
    const FieldSet unplaced(std::vector<Field>(test::product_columns, test::product_columns + 3));
    const RecordSet set(_db, unplaced);
    EXPECT_EQ(set.fields()->getByIndex(1)->getIndex(), -1);
}

TEST_F(RecordSetTest, SetOfAColumnArrayHasItsColumnsInTheirPositions)
{
    RecordSet set(_db, test::product_columns);
    expectEmpty(set);
    EXPECT_EQ(set.fields()->toSql(), "id, name, price");
    EXPECT_EQ(set.fields()->getByIndex(2)->getIndex(), 2);
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, SetOfANullColumnArrayHasNoColumns)
{
    const RecordSet set(_db, static_cast<const Field*>(nullptr));
    EXPECT_EQ(set.fields()->count(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, SetOfAColumnArrayWithoutAKeyIsReportedAndKeepsTheColumns)
{
    const RecordSet set(_db, test::without_key_columns);
    EXPECT_EQ(set.fields()->toSql(), "name, price");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(no_key_column));
}

TEST_F(RecordSetTest, SetOfAColumnArrayWithABadKeyIsReportedAndHasNoColumns)
{
    const Field columns[] = {
        Field("name", sql::type_text, sql::flag_none),
        Field("at", sql::type_time, sql::flag_primary_key),
        Field(),
    };
    const RecordSet set(_db, columns);
    EXPECT_EQ(set.fields()->count(), 0);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlFieldSet.cpp (initFieldSet) - PRIMARY KEY column 'at' must be of type 'integer' or 'text' instead of type 'time'",
            no_key_column));
}

TEST_F(RecordSetTest, NoConnectionIsOpenedOrClosed)
{
    const test::SqliteCalls calls;
    {
        RecordSet set(_db, _products);
        set.query(two_rows);
        set.close();
    }
    EXPECT_THAT(calls.order, ElementsAre("exec"));
    EXPECT_EQ(_db.rows("select 1"), "1");
}

// --- Silence

struct Quiet {
    const char* name;
    std::function<bool(sqlite3*, RecordSet&)> act; // on a set of two rows; whether it succeeds
};

void PrintTo(const Quiet& quiet, std::ostream* out)
{
    *out << quiet.name;
}

std::vector<Quiet> quietOperations()
{
    typedef RecordSet Set;
    return {
        {"Construction",
         [](sqlite3*, Set&) {
             return !Set().isResultOk();
         }},
        {"ConstructionWithAConnection",
         [](sqlite3* db, Set&) {
             return !Set(db).isResultOk();
         }},
        {"ConstructionWithAFieldSet",
         [](sqlite3* db, Set& set) {
             return !Set(db, *set.fields()).isResultOk();
         }},
        {"ConstructionWithAColumnArray",
         [](sqlite3* db, Set&) {
             return !Set(db, test::product_columns).isResultOk();
         }},
        {"Init",
         [](sqlite3* db, Set& set) {
             return set.initRecordSet(db, test::product_columns);
         }},
        {"Close",
         [](sqlite3*, Set& set) {
             set.close();
             return set.count() == 0;
         }},
        {"IsResultOk",
         [](sqlite3*, Set& set) {
             return set.isResultOk();
         }},
        {"Count",
         [](sqlite3*, Set& set) {
             return set.count() == 2;
         }},
        {"GetRecord",
         [](sqlite3*, Set& set) {
             return set.getRecord(1) != nullptr;
         }},
        {"GetConstRecord",
         [](sqlite3*, const Set& set) {
             return set.getRecord(1) != nullptr;
         }},
        {"GetTopRecord",
         [](sqlite3*, Set& set) {
             return set.getTopRecord() != nullptr;
         }},
        {"GetTopRecordFirstValue",
         [](sqlite3*, Set& set) {
             return set.getTopRecordFirstValue() != nullptr;
         }},
        {"Fields",
         [](sqlite3*, Set& set) {
             return set.fields()->count() == 3;
         }},
        {"ToString",
         [](sqlite3*, Set& set) {
             return set.toString() == "1. 7|tea|2.5\r\n2. 8|null|3.5\r\n";
         }},
    };
}

class RecordSetQuietTest : public RecordSetTest, public testing::WithParamInterface<Quiet> {};

TEST_P(RecordSetQuietTest, ReportsNothingAtTheHighestTraceLevel)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    _diagnostics.setLevel(9);
    EXPECT_TRUE(GetParam().act(_db, set));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, RecordSetQuietTest, testing::ValuesIn(quietOperations()),
                         [](const testing::TestParamInfo<Quiet>& parameter) {
                             return parameter.param.name;
                         });

// --- initRecordSet

TEST_F(RecordSetTest, InitGivesAnEmptySetConnectionAndColumns)
{
    RecordSet set;
    EXPECT_TRUE(set.initRecordSet(_db, test::product_columns));
    expectEmpty(set);
    EXPECT_EQ(set.fields()->toSql(), "id, name, price");
    EXPECT_TRUE(set.query("select 7, 'tea', 2.5"));
    EXPECT_EQ(set.toString(), "1. 7|tea|2.5\r\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, InitDiscardsRowsAndResult)
{
    RecordSet set(_db);
    set.query(two_rows);
    EXPECT_TRUE(set.initRecordSet(_db, test::product_columns));
    expectEmpty(set);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, InitTakesTheOtherConnection)
{
    test::Connection other;
    other.run("create table t (id)");
    RecordSet set(_db);
    EXPECT_TRUE(set.initRecordSet(other, test::product_columns));
    EXPECT_TRUE(set.query("select id from t"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, InitTakesNoConnectionAsWell)
{
    RecordSet set(_db);
    EXPECT_TRUE(set.initRecordSet(nullptr, test::product_columns));
    EXPECT_FALSE(set.query("select 1"));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(null_connection));
}

TEST_F(RecordSetTest, InitWithoutColumnsSucceedsAndKeepsThoseThereAre)
{
    RecordSet set(nullptr, _products);
    EXPECT_TRUE(set.initRecordSet(_db, nullptr));
    EXPECT_EQ(set.fields()->toSql(), "id, name, price");
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, InitAppendsAndNumbersTheFirstColumnsDeliberately)
{
    RecordSet set(_db, test::product_columns);
    EXPECT_TRUE(set.initRecordSet(_db, test::text_key_columns));
    EXPECT_EQ(set.fields()->toSql(), "id, name, price, code, name");
    EXPECT_EQ(set.fields()->getByIndex(0)->getIndex(), 0);
    EXPECT_EQ(set.fields()->getByIndex(1)->getIndex(), 1);
    EXPECT_EQ(set.fields()->getByIndex(2)->getIndex(), 2);
    EXPECT_EQ(set.fields()->getByIndex(3)->getIndex(), -1);
    EXPECT_EQ(set.fields()->getByIndex(4)->getIndex(), -1);
    EXPECT_TRUE(set.query("select 1, 2, 3, 4, 5"));
    EXPECT_EQ(set.toString(), "1. 1|2|3|4|5\r\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, InitWithoutAKeyFailsAndKeepsConnectionAndColumns)
{
    RecordSet set;
    EXPECT_FALSE(set.initRecordSet(_db, test::without_key_columns));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(no_key_column));
    EXPECT_EQ(set.fields()->toSql(), "name, price");
    EXPECT_TRUE(set.query("select 'tea', 2.5"));
    EXPECT_EQ(set.toString(), "1. tea|2.5\r\n");
}

TEST_F(RecordSetTest, InitWithABadKeyFailsAndRemovesAllColumns)
{
    const Field columns[] = {
        Field("share", sql::type_float, sql::flag_primary_key),
        Field(),
    };
    RecordSet set(nullptr, _products);
    EXPECT_FALSE(set.initRecordSet(_db, columns));
    EXPECT_EQ(set.fields()->count(), 0);
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlFieldSet.cpp (initFieldSet) - PRIMARY KEY column 'share' must be of type 'integer' or 'text' instead of type 'float'",
            no_key_column));
}

// --- close

TEST_F(RecordSetTest, CloseDiscardsRowsAndResult)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    set.close();
    expectEmpty(set);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, CloseKeepsConnectionAndColumns)
{
    RecordSet set(_db, _products);
    set.close();
    EXPECT_EQ(set.fields()->toSql(), "id, name, price");
    EXPECT_TRUE(set.query(two_rows));
    EXPECT_EQ(set.count(), 2);
}

TEST_F(RecordSetTest, CloseOfAnEmptySetDoesNothing)
{
    RecordSet set;
    set.close();
    set.close();
    expectEmpty(set);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- query: rows

TEST_F(RecordSetTest, QueryHoldsTheRowsInTheOrderOfTheirDelivery)
{
    RecordSet set(_db, _products);
    EXPECT_TRUE(
        set.query("select 3, 'c', 0.5 union all select 1, 'a', 1.5 union all select 2, 'b', 2.5"));
    EXPECT_TRUE(set.isResultOk());
    EXPECT_EQ(set.count(), 3);
    EXPECT_EQ(set.toString(), "1. 3|c|0.5\r\n2. 1|a|1.5\r\n3. 2|b|2.5\r\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, RowsPointAtTheColumnsOfTheSet)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    ASSERT_EQ(set.count(), 2);
    EXPECT_EQ(set.getRecord(0)->fields(), set.fields());
    EXPECT_EQ(set.getRecord(1)->fields(), set.fields());
    EXPECT_EQ(set.getRecord(1)->getValue("price")->asDouble(), 3.5);
}

TEST_F(RecordSetTest, QueryDiscardsTheRowsOfTheQueryBefore)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    EXPECT_TRUE(set.query("select 9, 'milk', 1.5"));
    EXPECT_EQ(set.toString(), "1. 9|milk|1.5\r\n");
}

TEST_F(RecordSetTest, CellsHaveTheTypesOfTheColumnsWhateverTheResultsTypes)
{
    RecordSet set(_db, test::all_type_columns);
    EXPECT_TRUE(set.query("select 'abc', 5, 'x', 1, '86400'"));
    ASSERT_EQ(set.count(), 1);
    EXPECT_THAT(cells(*set.getRecord(0)),
                ElementsAre("abc (integer)", "5 (text)", "x (float)", "1 (bool)",
                            "02-01-1970 01:00:00, Fri (time)"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, CellsKeepTheTextThatSqliteGives)
{
    RecordSet set(_db, _products);
    EXPECT_TRUE(set.query("select 9223372036854775807, '', 2.5"));
    ASSERT_EQ(set.count(), 1);
    EXPECT_EQ(set.getRecord(0)->getValue(0)->asInteger(), LLONG_MAX);
    EXPECT_EQ(set.getRecord(0)->getValue(1)->asString(), "");
    EXPECT_FALSE(set.getRecord(0)->getValue(1)->isNull());
    EXPECT_EQ(set.getRecord(0)->getValue(2)->asString(), "2.5");
}

TEST_F(RecordSetTest, NullsInTheResultAreNullCellsOfTheColumnsTypes)
{
    RecordSet set(_db, test::all_type_columns);
    EXPECT_TRUE(set.query("select null, null, null, null, null"));
    ASSERT_EQ(set.count(), 1);
    EXPECT_THAT(
        cells(*set.getRecord(0)),
        ElementsAre("null (integer)", "null (text)", "null (float)", "null (bool)", "null (time)"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, ResultsBeyondTheColumnsAreDroppedWithoutAReport)
{
    RecordSet set(_db, _products);
    EXPECT_TRUE(set.query("select 7, 'tea', 2.5, 'more', null"));
    EXPECT_EQ(set.toString(), "1. 7|tea|2.5\r\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, NullsInTheResultHaveEmptyTexts)
{
    RecordSet set(_db, _products);
    EXPECT_TRUE(set.query("select null, null, null"));
    const Record* const row = set.getRecord(0);
    ASSERT_NE(row, nullptr);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(row->getValue(i)->asString(), "") << i;
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, ColumnsBeyondTheResultsStayNull)
{
    RecordSet set(_db, _products);
    EXPECT_TRUE(set.query("select 7"));
    ASSERT_EQ(set.count(), 1);
    EXPECT_THAT(cells(*set.getRecord(0)),
                ElementsAre("7 (integer)", "null (text)", "null (float)"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, ResultsFillColumnsByPositionNotByName)
{
    _db.run("create table product (id, name, price); insert into product values (7, 'tea', 2.5)");
    RecordSet set(_db, _products);
    EXPECT_TRUE(set.query("select price, id, name from product"));
    ASSERT_EQ(set.count(), 1);
    EXPECT_THAT(cells(*set.getRecord(0)), ElementsAre("2.5 (integer)", "7 (text)", "tea (float)"));
    EXPECT_EQ(set.getRecord(0)->getValue("id")->asInteger(), 2);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, ResultsFillColumnsThatHaveNoPositionOfTheirOwn)
{
    RecordSet set(_db,
                  FieldSet(std::vector<Field>(test::product_columns, test::product_columns + 3)));
    EXPECT_TRUE(set.query("select 7, 'tea', 2.5"));
    EXPECT_EQ(set.toString(), "1. 7|tea|2.5\r\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, RowsWithoutColumnsAreCounted)
{
    RecordSet set(_db);
    EXPECT_TRUE(set.query(two_rows));
    EXPECT_EQ(set.count(), 2);
    EXPECT_EQ(set.getRecord(1)->columnCount(), 0);
    EXPECT_EQ(set.toString(), "1. \r\n2. \r\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, BytesAbove127AreKept)
{
    RecordSet set(_db, _products);
    EXPECT_TRUE(set.query("select 7, 'caf\xC3\xA9 \xFC'"));
    EXPECT_EQ(set.toString(), "1. 7|caf\xC3\xA9 \xFC|null\r\n");
}

TEST_F(RecordSetTest, CellsDoNotDependOnTheLocale)
{
    const test::CommaLocale locale;
    RecordSet set(_db, _products);
    EXPECT_TRUE(set.query("select 1234567, 1234567, 1234.5"));
    EXPECT_EQ(set.toString(), "1. 1234567|1234567|1234.5\r\n");
    EXPECT_EQ(set.getRecord(0)->getValue(2)->asDouble(), 1234.5);
}

TEST_F(RecordSetTest, RowCanBeChangedInItsPlace)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    set.getRecord(1)->setString("name", "milk");
    EXPECT_EQ(set.toString(), "1. 7|tea|2.5\r\n2. 8|milk|3.5\r\n");
}

class RecordSetStatementWithoutRowsTest : public RecordSetTest,
                                          public testing::WithParamInterface<const char*> {};

TEST_P(RecordSetStatementWithoutRowsTest, SucceedsWithoutRows)
{
    _db.run("create table product (id, name, price); insert into product values (7, 'tea', 2.5)");
    RecordSet set(_db, _products);
    set.query(two_rows);
    EXPECT_TRUE(set.query(GetParam()));
    EXPECT_TRUE(set.isResultOk());
    EXPECT_EQ(set.count(), 0);
    EXPECT_EQ(set.getTopRecord(), nullptr);
    EXPECT_EQ(set.getTopRecordFirstValue(), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, RecordSetStatementWithoutRowsTest,
                         testing::Values("update product set name = 'milk'",
                                         "insert into product values (8, 'milk', 1.5)",
                                         "delete from product", "drop table product",
                                         "BEGIN TRANSACTION", "select * from product where id = 8",
                                         "", " ", ";", "-- nothing"));

TEST_F(RecordSetTest, SeveralStatementsInOneQueryLeaveTheRowsOfAll)
{
    RecordSet set(_db, _products);
    EXPECT_TRUE(set.query("create table t (id); insert into t values (5); select id from t; "
                          "select 6, 'milk', 1.5;"));
    EXPECT_EQ(set.toString(), "1. 5|null|null\r\n2. 6|milk|1.5\r\n");
    EXPECT_EQ(_db.rows("select * from t"), "5");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, ResultAnnouncedWithoutARowIsNoRow)
{
    RecordSet set(_db, _products);
    EXPECT_TRUE(set.query("pragma empty_result_callbacks = on"));
    EXPECT_TRUE(set.query("select 7, 'tea', 2.5 where 0"));
    EXPECT_EQ(set.count(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- query: the call of SQLite

TEST_F(RecordSetTest, QueryPassesConnectionTextCallbackAndItselfToSqlite)
{
    RecordSet set(_db, _products);
    test::SqliteCalls calls;
    calls.exec = [&](sqlite3* db, const char* text, test::SqliteCalls::RowCallback callback,
                     void* context, char** error) {
        EXPECT_EQ(db, _db.get());
        EXPECT_STREQ(text, "select 1");
        EXPECT_EQ(callback, &RecordSet::on_next_record);
        EXPECT_EQ(context, &set);
        EXPECT_NE(error, nullptr);
        EXPECT_EQ(*error, nullptr);
        return SQLITE_OK;
    };
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_EQ(calls.execs, 1);
}

TEST_F(RecordSetTest, RowsAndResultAreDiscardedBeforeTheStatementRuns)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    test::SqliteCalls calls;
    calls.exec = [&](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*, char**) {
        expectEmpty(set);
        return SQLITE_OK;
    };
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_EQ(calls.execs, 1);
}

TEST_F(RecordSetTest, StatementIsTracedBeforeItRuns)
{
    RecordSet set(_db, _products);
    _diagnostics.setLevel(8);
    test::SqliteCalls calls;
    calls.exec = [&](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*, char**) {
        EXPECT_THAT(_diagnostics.events(),
                    ElementsAre("[DEBUG2] SqlRecordSet.cpp (query) - stmt='select 1'"));
        return SQLITE_OK;
    };
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_EQ(calls.execs, 1);
    EXPECT_EQ(_diagnostics.lines()[0].format, "[DEBUG2] %s:%d (%s) - stmt='%s'");
    EXPECT_EQ(_diagnostics.lines()[0].priority, 7);
}

TEST_F(RecordSetTest, StatementIsNotTracedBelowItsLevel)
{
    RecordSet set(_db, _products);
    _diagnostics.setLevel(7);
    EXPECT_TRUE(set.query(two_rows));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, StatementWithBytesAbove127IsTracedWhole)
{
    RecordSet set(_db, _products);
    _diagnostics.setLevel(8);
    EXPECT_TRUE(set.query("select 'caf\xC3\xA9 \xFC'"));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("[DEBUG2] SqlRecordSet.cpp (query) - stmt='select 'caf\xC3\xA9 \xFC''"));
}

TEST_F(RecordSetTest, ErrorTextIsNotLookedAtOnSuccess)
{
    RecordSet set(_db, _products);
    char* text = nullptr;
    test::SqliteCalls calls;
    calls.exec = [&](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*, char** error) {
        const int rc = refuse(error, SQLITE_OK, "no error");
        text = *error;
        return rc;
    };
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_EQ(calls.textsFreed, 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
    sqlite3_free(text);
}

TEST_F(RecordSetTest, NothingIsFreedOnSuccess)
{
    RecordSet set(_db, _products);
    const test::SqliteCalls calls;
    EXPECT_TRUE(set.query(two_rows));
    EXPECT_THAT(calls.order, ElementsAre("exec"));
}

// --- query: failures

TEST_F(RecordSetTest, QueryWithoutAConnectionIsAssertedAndNotLogged)
{
    RecordSet set(nullptr, _products);
    const test::SqliteCalls calls;
    _diagnostics.setLevel(9);
    EXPECT_FALSE(set.query("select 1"));
    expectEmpty(set);
    EXPECT_EQ(calls.execs, 0);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(null_connection));
    EXPECT_EQ(_diagnostics.failedAssertions()[0].path,
              "components/sql/sqlwrapper/src/SqlRecordSet.cpp");
}

TEST_F(RecordSetTest, QueryWithoutAConnectionIsAssertedWithoutATraceObject)
{
    RecordSet set;
    _diagnostics.removeTraceObject();
    EXPECT_FALSE(set.query("select 1"));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(null_connection));
}

TEST_F(RecordSetTest, QueryWithoutAConnectionDiscardsRows)
{
    RecordSet set(nullptr, _products);
    char id[] = "7";
    char* values[] = {id};
    RecordSet::on_next_record(&set, 1, values, nullptr);
    ASSERT_EQ(set.count(), 1);
    EXPECT_FALSE(set.query("select 1"));
    expectEmpty(set);
}

struct Failure {
    const char* name;
    const char* statement;
    int rc;
    const char* errorText;
    const char* secondLine;
};

void PrintTo(const Failure& failure, std::ostream* out)
{
    *out << failure.name;
}

class RecordSetFailureTest : public RecordSetTest, public testing::WithParamInterface<Failure> {
protected:
    RecordSetFailureTest()
    {
        _set.query(two_rows);
        _calls.exec = [](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*,
                         char** error) {
            return refuse(error, GetParam().rc, GetParam().errorText);
        };
        _calls.order.clear();
    }

    const std::string _statementLine = std::string("[DEBUG2] SqlRecordSet.cpp (query) - stmt='")
                                       + GetParam().statement + "'";
    const std::string _firstLine =
        std::string("[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt '")
        + GetParam().statement + "'";
    const std::string _secondLine = std::string("[ERROR] SqlRecordSet.cpp (query) - ")
                                    + GetParam().secondLine;

    // The statement fails, leaves no rows, and the error text is freed once when there is one.
    void expectFailure()
    {
        EXPECT_FALSE(_set.query(GetParam().statement));
        expectEmpty(_set);
        if (GetParam().errorText != nullptr)
            EXPECT_THAT(_calls.order, ElementsAre("exec", "free"));
        else
            EXPECT_THAT(_calls.order, ElementsAre("exec"));
    }

    RecordSet _set{_db, _products};
    test::SqliteCalls _calls;
};

TEST_P(RecordSetFailureTest, IsReportedInTwoLines)
{
    expectFailure();
    EXPECT_THAT(_diagnostics.events(), ElementsAre(_firstLine, _secondLine));
}

TEST_P(RecordSetFailureTest, IsReportedBehindTheStatement)
{
    _diagnostics.setLevel(9);
    expectFailure();
    EXPECT_THAT(_diagnostics.events(), ElementsAre(_statementLine, _firstLine, _secondLine));
}

TEST_P(RecordSetFailureTest, IsSilentBelowTheTraceLevelOfErrors)
{
    _diagnostics.setLevel(2);
    expectFailure();
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(RecordSetFailureTest, IsSilentWithoutATraceLevel)
{
    _diagnostics.removeLevel();
    expectFailure();
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(RecordSetFailureTest, IsSilentWithoutATraceObject)
{
    _diagnostics.removeTraceObject();
    expectFailure();
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(RecordSetFailureTest, SecondLineIsOmittedWhenTheLevelFallsBehindTheFirst)
{
    _diagnostics.onLine([this](const test::LogLine&) { _diagnostics.setLevel(2); });
    expectFailure();
    EXPECT_THAT(_diagnostics.events(), ElementsAre(_firstLine));
}

TEST_P(RecordSetFailureTest, SecondLineIsOmittedWhenTheTraceObjectGoesBehindTheFirst)
{
    _diagnostics.onLine([this](const test::LogLine&) { _diagnostics.removeTraceObject(); });
    expectFailure();
    EXPECT_THAT(_diagnostics.events(), ElementsAre(_firstLine));
}

INSTANTIATE_TEST_SUITE_P(
    All, RecordSetFailureTest,
    testing::Values(
        Failure{"WithAText", "select 1", SQLITE_BUSY, "database is locked",
                "  rc=5=SQLITE_BUSY: database is locked"},
        Failure{"WithATextOfPercentSignsAndBytesAbove127", "", SQLITE_ERROR, "100%s \xC3\xA9\xFC",
                "  rc=1=SQLITE_ERROR: 100%s \xC3\xA9\xFC"},
        Failure{"WithAnEmptyText", "select '100%s'", SQLITE_FULL, "", "  rc=13=SQLITE_FULL: "},
        Failure{"WithoutAText", "select 1", SQLITE_NOMEM, nullptr, "  rc=7=SQLITE_NOMEM"},
        Failure{"WithARowCode", "select 1", SQLITE_ROW, nullptr, "  rc=100=SQLITE_ROW"},
        Failure{"WithAnUnknownCode", "select 1", 266, "disk I/O error",
                "  rc=266=unknown: disk I/O error"}),
    [](const testing::TestParamInfo<Failure>& parameter) { return parameter.param.name; });

TEST_F(RecordSetTest, FormatOfTheSecondLineDependsOnTheErrorText)
{
    RecordSet set(_db, _products);
    const char* text = nullptr;
    test::SqliteCalls calls;
    calls.exec = [&](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*, char** error) {
        return refuse(error, SQLITE_ERROR, text);
    };
    set.query("select 1");
    text = "no";
    set.query("select 1");
    ASSERT_EQ(_diagnostics.lines().size(), 4u);
    EXPECT_EQ(_diagnostics.lines()[0].format,
              "[ERROR] %s:%d (%s) - Failed to run the SQL stmt '%s'");
    EXPECT_EQ(_diagnostics.lines()[1].format, "[ERROR] %s:%d (%s) -   rc=%d=%s");
    EXPECT_EQ(_diagnostics.lines()[3].format, "[ERROR] %s:%d (%s) -   rc=%d=%s: %s");
    EXPECT_EQ(_diagnostics.lines()[3].priority, 3);
}

TEST_F(RecordSetTest, SyntaxErrorFailsWithSqlitesText)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    EXPECT_FALSE(set.query("selekt 1"));
    expectEmpty(set);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'selekt 1'",
            "[ERROR] SqlRecordSet.cpp (query) -   rc=1=SQLITE_ERROR: near \"selekt\": syntax error"));
}

TEST_F(RecordSetTest, ErrorTextOfSqliteIsFreedOnceAtEveryTraceLevel)
{
    RecordSet set(_db, _products);
    for (const int level : {0, 2, 3, 7, 8, 9}) {
        _diagnostics.setLevel(level);
        const test::SqliteCalls calls;
        EXPECT_FALSE(set.query("selekt 1"));
        EXPECT_EQ(calls.textsFreed, 1) << level;
    }
}

TEST_F(RecordSetTest, ExtendedResultCodeIsUnknown)
{
    _db.run("create table t (id integer primary key); insert into t values (7)");
    sqlite3_extended_result_codes(_db, 1);
    RecordSet set(_db, _products);
    EXPECT_FALSE(set.query("insert into t values (7)"));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'insert into t values (7)'",
            test::worded(
                "[ERROR] SqlRecordSet.cpp (query) -   rc=1555=unknown: UNIQUE constraint failed: t.id")));
}

TEST_F(RecordSetTest, RowsBeforeTheFailureAreKept)
{
    RecordSet set(_db, _products);
    EXPECT_FALSE(set.query(failing_rows));
    EXPECT_FALSE(set.isResultOk());
    EXPECT_EQ(set.count(), 1);
    EXPECT_EQ(set.toString(), "1. 7|tea|null\r\n");
    EXPECT_NE(set.getRecord(0), nullptr);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'select 7, 'tea' union all select abs(-9223372036854775808), 'x''",
            "[ERROR] SqlRecordSet.cpp (query) -   rc=1=SQLITE_ERROR: integer overflow"));
}

TEST_F(RecordSetTest, FirstRowIsNotHandedOutAfterAFailure)
{
    RecordSet set(_db, _products);
    set.query(failing_rows);
    _diagnostics.clear();
    EXPECT_NE(set.getRecord(0), nullptr);
    EXPECT_EQ(set.getTopRecord(), nullptr);
    EXPECT_EQ(set.getTopRecordFirstValue(), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, RowsOfTheStatementsBeforeAFailingOneAreKept)
{
    RecordSet set(_db, _products);
    EXPECT_FALSE(set.query("select 7, 'tea'; selekt 1; select 8"));
    EXPECT_EQ(set.toString(), "1. 7|tea|null\r\n");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'select 7, 'tea'; selekt 1; select 8'",
            "[ERROR] SqlRecordSet.cpp (query) -   rc=1=SQLITE_ERROR: near \"selekt\": syntax error"));
}

TEST_F(RecordSetTest, QueryAfterAFailureStartsAfresh)
{
    RecordSet set(_db, _products);
    set.query(failing_rows);
    _diagnostics.clear();
    EXPECT_TRUE(set.query("select 9"));
    EXPECT_TRUE(set.isResultOk());
    EXPECT_EQ(set.toString(), "1. 9|null|null\r\n");
    EXPECT_NE(set.getTopRecord(), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, CloseAfterAFailureDiscardsTheRowsKept)
{
    RecordSet set(_db, _products);
    set.query(failing_rows);
    set.close();
    expectEmpty(set);
}

// --- The row callback

TEST_F(RecordSetTest, CallbackAppendsARowAndGoesOn)
{
    RecordSet set(nullptr, _products);
    char id[] = "7";
    char name[] = "tea";
    char* values[] = {id, name, nullptr};
    EXPECT_EQ(RecordSet::on_next_record(&set, 3, values, nullptr), 0);
    EXPECT_EQ(RecordSet::on_next_record(&set, 2, values, nullptr), 0);
    name[0] = 's';
    EXPECT_EQ(set.toString(), "1. 7|tea|null\r\n2. 7|tea|null\r\n");
    EXPECT_FALSE(set.isResultOk());
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, CallbackDoesNotUseTheColumnNames)
{
    RecordSet set(nullptr, _products);
    char id[] = "7";
    char name[] = "tea";
    char* values[] = {id, name};
    char firstColumn[] = "name";
    char secondColumn[] = "id";
    char* columnNames[] = {firstColumn, secondColumn};
    EXPECT_EQ(RecordSet::on_next_record(&set, 2, values, columnNames), 0);
    EXPECT_EQ(set.toString(), "1. 7|tea|null\r\n");
}

TEST_F(RecordSetTest, CallbackWithoutResultColumnsAppendsANullRow)
{
    RecordSet set(nullptr, _products);
    char* values[] = {nullptr};
    EXPECT_EQ(RecordSet::on_next_record(&set, 0, values, nullptr), 0);
    EXPECT_EQ(set.toString(), "1. null|null|null\r\n");
}

TEST_F(RecordSetTest, RowsAreDumpedAtTheHighestTraceLevelAsTheyArrive)
{
    RecordSet set(_db, _products);
    _diagnostics.setLevel(9);
    EXPECT_TRUE(set.query(two_rows));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG2] SqlRecordSet.cpp (query) - stmt='select 7, 'tea', 2.5 union all select 8, null, 3.5'",
            "[DEBUG3] SqlRecordSet.cpp (on_next_record) - id = 7|name = tea|price = 2.5",
            "[DEBUG3] SqlRecordSet.cpp (on_next_record) - id = 8|name = null|price = 3.5"));
    EXPECT_EQ(_diagnostics.lines()[1].format, "[DEBUG3] %s:%d (%s) - %s");
    EXPECT_EQ(_diagnostics.lines()[1].priority, 7);
}

TEST_F(RecordSetTest, RowIsDumpedBeforeItIsAppended)
{
    RecordSet set(_db, _products);
    std::vector<int> counts;
    _diagnostics.onLine([&](const test::LogLine& line) {
        if (line.function == "on_next_record")
            counts.push_back(set.count());
    });
    _diagnostics.setLevel(9);
    EXPECT_TRUE(set.query(two_rows));
    EXPECT_THAT(counts, ElementsAre(0, 1));
}

TEST_F(RecordSetTest, RowsAreNotDumpedBelowTheHighestTraceLevel)
{
    RecordSet set(_db, _products);
    _diagnostics.setLevel(8);
    EXPECT_TRUE(set.query(two_rows));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG2] SqlRecordSet.cpp (query) - stmt='select 7, 'tea', 2.5 union all select 8, null, 3.5'"));
}

TEST_F(RecordSetTest, RowIsDumpedByTheTraceLevelOfItsMoment)
{
    RecordSet set(nullptr, _products);
    char id[] = "7";
    char* values[] = {id};
    _diagnostics.setLevel(8);
    RecordSet::on_next_record(&set, 1, values, nullptr);
    _diagnostics.setLevel(9);
    RecordSet::on_next_record(&set, 1, values, nullptr);
    _diagnostics.removeLevel();
    RecordSet::on_next_record(&set, 1, values, nullptr);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG3] SqlRecordSet.cpp (on_next_record) - id = 7|name = null|price = null"));
    EXPECT_EQ(set.count(), 3);
}

TEST_F(RecordSetTest, RowWithoutColumnsIsDumpedAsAnEmptyText)
{
    RecordSet set(_db);
    _diagnostics.setLevel(9);
    EXPECT_TRUE(set.query("select 1"));
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[DEBUG2] SqlRecordSet.cpp (query) - stmt='select 1'",
                            "[DEBUG3] SqlRecordSet.cpp (on_next_record) - "));
}

TEST_F(RecordSetTest, DumpedTimeIsTracedBeforeTheLineThatItGoesInto)
{
    RecordSet set(_db, test::all_type_columns);
    _diagnostics.setLevel(9);
    EXPECT_TRUE(set.query("select 7, 'tea', 2.5, 1, 86400"));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG2] SqlRecordSet.cpp (query) - stmt='select 7, 'tea', 2.5, 1, 86400'",
            "[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 86400 = 'Fri Jan  2 01:00:00 1970\n'",
            "[DEBUG3] SqlRecordSet.cpp (on_next_record) - id = 7|name = tea|price = 2.5|sold = 1|at = 02-01-1970 01:00:00, Fri"));
}

// --- Rows

TEST_F(RecordSetTest, RowsAreFoundByPosition)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    const RecordSet& constant = set;
    for (int i = 0; i < 2; ++i) {
        ASSERT_NE(set.getRecord(i), nullptr);
        EXPECT_EQ(set.getRecord(i)->getValue(0)->asInteger(), 7 + i);
        EXPECT_EQ(constant.getRecord(i), set.getRecord(i));
    }
}

TEST_F(RecordSetTest, RowOutsideTheSetIsNullWithoutAReport)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    const RecordSet& constant = set;
    _diagnostics.setLevel(9);
    for (const int index : {-1, 2, INT_MIN, INT_MAX}) {
        EXPECT_EQ(set.getRecord(index), nullptr) << index;
        EXPECT_EQ(constant.getRecord(index), nullptr) << index;
    }
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, TopRecordIsTheFirstRow)
{
    RecordSet set(_db, _products);
    set.query(two_rows);
    EXPECT_EQ(set.getTopRecord(), set.getRecord(0));
    ASSERT_NE(set.getTopRecordFirstValue(), nullptr);
    EXPECT_EQ(set.getTopRecordFirstValue(), set.getRecord(0)->getValue(0));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, TopRecordIsNullBeforeAQueryHasSucceeded)
{
    RecordSet set(nullptr, _products);
    char id[] = "7";
    char* values[] = {id};
    RecordSet::on_next_record(&set, 1, values, nullptr);
    EXPECT_EQ(set.getTopRecord(), nullptr);
    EXPECT_EQ(set.getTopRecordFirstValue(), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, FirstValueOfARowWithoutCellsIsNullAndReported)
{
    RecordSet set(_db);
    set.query("select 7");
    EXPECT_NE(set.getTopRecord(), nullptr);
    EXPECT_EQ(set.getTopRecordFirstValue(), nullptr);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecord.cpp (getValue) - No value for column with index 0",
            "assert 'false' in SqlRecord.cpp (const sql::Value* sql::Record::getValue(int) const)"));
}

TEST_F(RecordSetTest, TextOfOneRowEndsInALineBreak)
{
    RecordSet set(_db, _products);
    set.query("select 7, 'tea', null");
    EXPECT_EQ(set.toString(), "1. 7|tea|null\r\n");
    EXPECT_EQ(set.toString(), "1. " + set.getRecord(0)->toString() + "\r\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordSetTest, TextNumbersRowsFromOne)
{
    RecordSet set(_db, test::text_key_columns);
    set.query("select 7, 'tea' union all select 8, null");
    EXPECT_EQ(set.toString(), "1. 7|tea\r\n2. 8|null\r\n");
}

TEST_F(RecordSetTest, RowNumbersDoNotDependOnTheLocale)
{
    RecordSet set(_db);
    fillNumbers(1001);
    set.query("select i from n");
    std::string expected;
    for (int i = 1; i <= 1001; ++i)
        expected += std::to_string(i) + ". \r\n";
    const test::CommaLocale locale;
    EXPECT_EQ(set.toString(), expected);
}

TEST_F(RecordSetTest, ManyRowsAreHeld)
{
    RecordSet set(_db, test::text_key_columns);
    fillNumbers(5000);
    EXPECT_TRUE(set.query("select i, 'row ' || i from n"));
    ASSERT_EQ(set.count(), 5000);
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(set.getRecord(i)->toString(), std::to_string(i) + "|row " + std::to_string(i));
}

} // namespace
