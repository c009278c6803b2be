#include "SqlRecordSet.h"

#include "Cases.h"
#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Rows.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <climits>
#include <string>
#include <type_traits>
#include <vector>

namespace {

namespace report = test::report;

using sql::Field;
using sql::FieldSet;
using sql::Record;
using sql::RecordSet;
using test::cells;
using test::joined;
using test::Texts;
using testing::ElementsAre;
using testing::ValuesIn;

static_assert(!std::is_copy_constructible<RecordSet>::value, "rows point at their set's columns");
static_assert(!std::is_copy_assignable<RecordSet>::value, "rows point at their set's columns");
static_assert(!std::is_move_constructible<RecordSet>::value, "rows point at their set's columns");
static_assert(!std::is_move_assignable<RecordSet>::value, "rows point at their set's columns");
static_assert(std::is_nothrow_destructible<RecordSet>::value, "a set never throws when it ends");
static_assert(!std::is_polymorphic<RecordSet>::value, "a plain class");

const char two_rows[] = "select 7, 'tea', 2.5 union all select 8, null, 3.5";
const char two_rows_held[] = "1. 7|tea|2.5\r\n2. 8|null|3.5\r\n";

// Fails at its second row.
const char failing_rows[] = "select 7, 'tea' union all"
                            " select abs(-9223372036854775807 - (random() is not null)), 'x'";

const Field bad_key_columns[] = {
    Field("name", sql::type_text, sql::flag_none),
    Field("at", sql::type_time, sql::flag_primary_key),
    Field(),
};

FieldSet unplacedProducts()
{
    return FieldSet(std::vector<Field>(test::product_columns, test::product_columns + 3));
}

class RecordSetTest : public test::ReportTest {
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
    test::Connection _db;
    const FieldSet _products{test::product_columns};
    RecordSet _set{_db, _products};
};

// --- Construction

TEST_F(RecordSetTest, SetWithoutArgumentsHasNoColumnsAndNoConnection)
{
    RecordSet set;
    expectEmpty(set);
    EXPECT_EQ(set.fields()->count(), 0);
    EXPECT_FALSE(set.query("select 1"));
    expectReport({report::notConnected()});
}

TEST_F(RecordSetTest, SetOfAConnectionAloneHasNoColumns)
{
    RecordSet set(_db);
    expectEmpty(set);
    EXPECT_EQ(set.fields()->count(), 0);
    EXPECT_TRUE(set.query("select 1"));
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
}

TEST_F(RecordSetTest, SetOfAFieldSetKeepsPositionsAsTheyAre)
{
    const RecordSet set(_db, unplacedProducts());
    EXPECT_EQ(set.fields()->getByIndex(1)->getIndex(), -1);
}

TEST_F(RecordSetTest, SetOfAColumnArrayHasItsColumnsInTheirPositions)
{
    RecordSet set(_db, test::product_columns);
    expectEmpty(set);
    EXPECT_EQ(set.fields()->toSql(), "id, name, price");
    EXPECT_EQ(set.fields()->getByIndex(2)->getIndex(), 2);
    EXPECT_TRUE(set.query("select 1"));
}

TEST_F(RecordSetTest, SetOfANullColumnArrayHasNoColumns)
{
    const RecordSet set(_db, static_cast<const Field*>(nullptr));
    EXPECT_EQ(set.fields()->count(), 0);
}

TEST_F(RecordSetTest, SetOfAColumnArrayWithoutAKeyIsReportedAndKeepsTheColumns)
{
    const RecordSet set(_db, test::without_key_columns);
    EXPECT_EQ(set.fields()->toSql(), "name, price");
    expectReport({report::badColumns()});
}

TEST_F(RecordSetTest, SetOfAColumnArrayWithABadKeyIsReportedAndHasNoColumns)
{
    const RecordSet set(_db, bad_key_columns);
    EXPECT_EQ(set.fields()->count(), 0);
    expectReport(report::wrongKeyType("at", "time"));
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

// --- Everything but a query is silent, even at the highest trace level

TEST_F(RecordSetTest, SetWithRowsIsLookedAtAndClosedInSilence)
{
    _set.query(two_rows);
    const RecordSet& constant = _set;
    _diagnostics.setLevel(9);
    EXPECT_TRUE(_set.isResultOk());
    EXPECT_EQ(_set.count(), 2);
    EXPECT_NE(_set.getRecord(1), nullptr);
    EXPECT_EQ(constant.getRecord(1), _set.getRecord(1));
    EXPECT_NE(_set.getTopRecord(), nullptr);
    EXPECT_NE(_set.getTopRecordFirstValue(), nullptr);
    EXPECT_EQ(_set.fields()->count(), 3);
    EXPECT_EQ(_set.toString(), two_rows_held);
    EXPECT_TRUE(_set.initRecordSet(_db, nullptr));
    _set.close();
}

TEST_F(RecordSetTest, SetIsMadeInSilence)
{
    _diagnostics.setLevel(9);
    const RecordSet none;
    const RecordSet connected(_db);
    const RecordSet ofColumns(_db, _products);
    RecordSet ofArray(_db, test::product_columns);
    EXPECT_TRUE(ofArray.initRecordSet(_db, test::text_key_columns));
}

// --- initRecordSet

TEST_F(RecordSetTest, InitGivesAnEmptySetConnectionAndColumns)
{
    RecordSet set;
    EXPECT_TRUE(set.initRecordSet(_db, test::product_columns));
    expectEmpty(set);
    EXPECT_EQ(set.fields()->toSql(), "id, name, price");
    EXPECT_TRUE(set.query("select 7, 'tea', 2.5"));
    EXPECT_EQ(set.toString(), "1. 7|tea|2.5\r\n");
}

TEST_F(RecordSetTest, InitDiscardsRowsAndResultAndTakesTheOtherConnection)
{
    test::Connection other;
    other.run("create table t (id)");
    _set.query(two_rows);
    EXPECT_TRUE(_set.initRecordSet(other, nullptr));
    expectEmpty(_set);
    EXPECT_EQ(_set.fields()->toSql(), "id, name, price");
    EXPECT_TRUE(_set.query("select id from t"));
}

TEST_F(RecordSetTest, InitTakesNoConnectionAsWell)
{
    EXPECT_TRUE(_set.initRecordSet(nullptr, nullptr));
    EXPECT_FALSE(_set.query("select 1"));
    expectReport({report::notConnected()});
}

TEST_F(RecordSetTest, InitAppendsAndNumbersTheFirstColumnsDeliberately)
{
    EXPECT_TRUE(_set.initRecordSet(_db, test::text_key_columns));
    EXPECT_EQ(_set.fields()->toSql(), "id, name, price, code, name");
    std::vector<int> positions;
    for (int i = 0; i < 5; ++i)
        positions.push_back(_set.fields()->getByIndex(i)->getIndex());
    EXPECT_THAT(positions, ElementsAre(0, 1, 2, -1, -1));
    EXPECT_TRUE(_set.query("select 1, 2, 3, 4, 5"));
    EXPECT_EQ(_set.toString(), "1. 1|2|3|4|5\r\n");
}

TEST_F(RecordSetTest, InitWithoutAKeyFailsAndKeepsConnectionAndColumns)
{
    RecordSet set;
    EXPECT_FALSE(set.initRecordSet(_db, test::without_key_columns));
    expectReport({report::badColumns()});
    EXPECT_EQ(set.fields()->toSql(), "name, price");
    EXPECT_TRUE(set.query("select 'tea', 2.5"));
    EXPECT_EQ(set.toString(), "1. tea|2.5\r\n");
}

TEST_F(RecordSetTest, InitWithABadKeyFailsAndRemovesAllColumns)
{
    RecordSet set(nullptr, _products);
    EXPECT_FALSE(set.initRecordSet(_db, bad_key_columns));
    EXPECT_EQ(set.fields()->count(), 0);
    EXPECT_TRUE(set.query("select 1"));
    expectReport(report::wrongKeyType("at", "time"));
}

// --- close

TEST_F(RecordSetTest, CloseDiscardsRowsAndResultAndKeepsConnectionAndColumns)
{
    _set.query(two_rows);
    _set.close();
    expectEmpty(_set);
    _set.close();
    EXPECT_EQ(_set.fields()->toSql(), "id, name, price");
    EXPECT_TRUE(_set.query(two_rows));
    EXPECT_EQ(_set.toString(), two_rows_held);
}

// --- query: rows

TEST_F(RecordSetTest, QueryHoldsTheRowsInTheOrderOfTheirDelivery)
{
    EXPECT_TRUE(
        _set.query("select 3, 'c', 0.5 union all select 1, 'a', 1.5 union all select 2, 'b', 2.5"));
    EXPECT_TRUE(_set.isResultOk());
    EXPECT_EQ(_set.count(), 3);
    EXPECT_EQ(_set.toString(), "1. 3|c|0.5\r\n2. 1|a|1.5\r\n3. 2|b|2.5\r\n");
}

TEST_F(RecordSetTest, QueryDiscardsTheRowsOfTheQueryBefore)
{
    _set.query(two_rows);
    EXPECT_TRUE(_set.query("select 9, 'milk', 1.5"));
    EXPECT_EQ(_set.toString(), "1. 9|milk|1.5\r\n");
}

struct Result : test::Case {
    const char* statement;
    Texts cells; // of its one row
};

class RecordSetCellsTest : public RecordSetTest, public testing::WithParamInterface<Result> {};

TEST_P(RecordSetCellsTest, HaveTheTypesOfTheColumnsInTheirOrder)
{
    RecordSet set(_db, test::all_type_columns);
    EXPECT_TRUE(set.query(GetParam().statement));
    ASSERT_EQ(set.count(), 1);
    EXPECT_EQ(cells(*set.getRecord(0)), GetParam().cells);
    EXPECT_EQ(set.getRecord(0)->fields(), set.fields());
}

const Result results[] = {
    {"WhateverTheTypesOfTheResults",
     "select 'abc', 5, 'x', 1, '86400'",
     {"abc (integer)", "5 (text)", "x (float)", "1 (bool)", "02-01-1970 01:00:00, Fri (time)"}},
    {"WithTheTextThatSqliteGives",
     "select 9223372036854775807, '', 2.5, 0, 0",
     {"9223372036854775807 (integer)", " (text)", "2.5 (float)", "0 (bool)",
      "01-01-1970 01:00:00, Thu (time)"}},
    {"WithBytesAbove127",
     "select 7, 'caf\xC3\xA9 \xFC', null, null, null",
     {"7 (integer)", "caf\xC3\xA9 \xFC (text)", "null (float)", "null (bool)", "null (time)"}},
    {"OfNulls",
     "select null, null, null, null, null",
     {"null (integer)", "null (text)", "null (float)", "null (bool)", "null (time)"}},
    {"WithoutTheResultsBeyondTheColumns",
     "select 7, 'tea', 2.5, 1, null, 'more', null",
     {"7 (integer)", "tea (text)", "2.5 (float)", "1 (bool)", "null (time)"}},
    {"WithNullsBeyondTheResults",
     "select 7",
     {"7 (integer)", "null (text)", "null (float)", "null (bool)", "null (time)"}},
    {"ByPositionNotByName",
     "select 2.5 as price, 7 as id, 'tea' as name",
     {"2.5 (integer)", "7 (text)", "tea (float)", "null (bool)", "null (time)"}},
};

INSTANTIATE_TEST_SUITE_P(All, RecordSetCellsTest, ValuesIn(results), test::NameOfCase());

TEST_F(RecordSetTest, NullsInTheResultHaveEmptyTexts)
{
    EXPECT_TRUE(_set.query("select null, '', null"));
    const Record* const row = _set.getRecord(0);
    ASSERT_NE(row, nullptr);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(row->getValue(i)->asString(), "") << i;
    EXPECT_TRUE(row->getValue(0)->isNull());
    EXPECT_FALSE(row->getValue(1)->isNull());
}

TEST_F(RecordSetTest, ResultsFillColumnsThatHaveNoPositionOfTheirOwn)
{
    RecordSet set(_db, unplacedProducts());
    EXPECT_TRUE(set.query(two_rows));
    EXPECT_EQ(set.toString(), two_rows_held);
}

TEST_F(RecordSetTest, RowsWithoutColumnsAreCounted)
{
    RecordSet set(_db);
    EXPECT_TRUE(set.query(two_rows));
    EXPECT_EQ(set.count(), 2);
    EXPECT_EQ(set.getRecord(1)->columnCount(), 0);
    EXPECT_EQ(set.toString(), "1. \r\n2. \r\n");
}

TEST_F(RecordSetTest, CellsDoNotDependOnTheLocale)
{
    const test::CommaLocale locale;
    EXPECT_TRUE(_set.query("select 1234567, 1234567, 1234.5"));
    EXPECT_EQ(_set.toString(), "1. 1234567|1234567|1234.5\r\n");
    EXPECT_EQ(_set.getRecord(0)->getValue(2)->asDouble(), 1234.5);
}

TEST_F(RecordSetTest, RowCanBeChangedInItsPlace)
{
    _set.query(two_rows);
    _set.getRecord(1)->setString("name", "milk");
    EXPECT_EQ(_set.toString(), "1. 7|tea|2.5\r\n2. 8|milk|3.5\r\n");
}

class RecordSetStatementWithoutRowsTest : public RecordSetTest,
                                          public testing::WithParamInterface<const char*> {
protected:
    RecordSetStatementWithoutRowsTest()
    {
        _db.run("create table product (id, name, price); insert into product values (7, 'tea', 2)");
        _set.query(two_rows);
    }

    void expectSuccessWithoutRows()
    {
        EXPECT_TRUE(_set.query(GetParam()));
        EXPECT_TRUE(_set.isResultOk());
        EXPECT_EQ(_set.toString(), "");
        EXPECT_EQ(_set.getTopRecord(), nullptr);
        EXPECT_EQ(_set.getTopRecordFirstValue(), nullptr);
    }
};

TEST_P(RecordSetStatementWithoutRowsTest, SucceedsWithoutRows)
{
    expectSuccessWithoutRows();
}

// SQLite then announces a result without rows by a call with column names alone.
TEST_P(RecordSetStatementWithoutRowsTest, SucceedsWithoutRowsWhereEmptyResultsAreAnnounced)
{
    _db.run("pragma empty_result_callbacks = on");
    expectSuccessWithoutRows();
}

INSTANTIATE_TEST_SUITE_P(All, RecordSetStatementWithoutRowsTest,
                         testing::Values("update product set name = 'milk'",
                                         "insert into product values (8, 'milk', 1.5)",
                                         "delete from product", "drop table product",
                                         "BEGIN TRANSACTION", "select * from product where id = 8",
                                         "", " ", ";", "-- nothing"));

TEST_F(RecordSetTest, SeveralStatementsInOneQueryLeaveTheRowsOfAll)
{
    EXPECT_TRUE(_set.query("create table t (id); insert into t values (5); select id from t; "
                           "select 6, 'milk', 1.5;"));
    EXPECT_EQ(_set.toString(), "1. 5|null|null\r\n2. 6|milk|1.5\r\n");
    EXPECT_EQ(_db.rows("select * from t"), "5");
}

// --- query: the call of SQLite

class RecordSetCallTest : public RecordSetTest {
protected:
    // What SQLite answers instead of running the statement.
    int answer(char** error)
    {
        if (_text != nullptr)
            *error = sqlite3_mprintf("%s", _text);
        _error = *error;
        return _rc;
    }

    int _rc = SQLITE_OK;
    const char* _text = nullptr;
    char* _error = nullptr;
    test::SqliteCalls _calls;
};

TEST_F(RecordSetCallTest, QueryTracesTheStatementDiscardsTheRowsAndCallsSqlite)
{
    _set.query(two_rows);
    _diagnostics.setLevel(8);
    _calls.execs = 0;
    _calls.exec = [&](sqlite3* db, const char* text, test::SqliteCalls::RowCallback callback,
                      void* context, char** error) {
        EXPECT_EQ(db, _db.get());
        EXPECT_STREQ(text, "select 1");
        EXPECT_EQ(callback, &RecordSet::on_next_record);
        EXPECT_EQ(context, &_set);
        EXPECT_NE(error, nullptr);
        EXPECT_EQ(*error, nullptr);
        expectReport(report::ran("select 1"));
        expectEmpty(_set);
        return SQLITE_OK;
    };
    EXPECT_TRUE(_set.query("select 1"));
    EXPECT_EQ(_calls.execs, 1);
}

TEST_F(RecordSetCallTest, StatementWithBytesAbove127IsTracedWholeAtItsLevelAlone)
{
    _diagnostics.setLevel(7);
    EXPECT_TRUE(_set.query("select 'caf\xC3\xA9 \xFC'"));
    _diagnostics.setLevel(8);
    EXPECT_TRUE(_set.query("select 'caf\xC3\xA9 \xFC'"));
    expectReport(report::ran("select 'caf\xC3\xA9 \xFC'"));
}

TEST_F(RecordSetCallTest, ErrorTextIsNeitherLookedAtNorFreedOnSuccess)
{
    _text = "no error";
    _calls.exec = [&](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*, char** error) {
        return answer(error);
    };
    EXPECT_TRUE(_set.query("select 1"));
    EXPECT_THAT(_calls.order, ElementsAre("exec"));
    sqlite3_free(_error);
}

// --- query: failures

TEST_F(RecordSetTest, QueryWithoutAConnectionIsAssertedAtEveryLevelAndNotLogged)
{
    char id[] = "7";
    char* values[] = {id};
    for (const int level : test::trace_levels) {
        RecordSet set(nullptr, _products);
        RecordSet::on_next_record(&set, 1, values, nullptr);
        EXPECT_EQ(set.count(), 1);
        _diagnostics.clear();
        _diagnostics.setLevel(level);
        const test::SqliteCalls calls;
        EXPECT_FALSE(set.query("select 1"));
        expectEmpty(set);
        EXPECT_EQ(calls.execs, 0);
        expectReport({report::notConnected()});
    }
}

struct Failure : test::Case {
    const char* statement;
    int rc;
    const char* errorText;
    const char* reason;
};

class RecordSetFailureTest : public RecordSetCallTest,
                             public testing::WithParamInterface<Failure> {};

TEST_P(RecordSetFailureTest, LeavesNoRowsFreesTheTextAndIsReportedAtTheLevelOfErrors)
{
    _rc = GetParam().rc;
    _text = GetParam().errorText;
    for (const int level : test::trace_levels) {
        SCOPED_TRACE(level);
        _calls.exec = nullptr;
        _diagnostics.setLevel(3);
        _set.query(two_rows);
        _calls.exec = [&](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*,
                          char** error) {
            return answer(error);
        };
        _calls.order.clear();
        _diagnostics.setLevel(level);
        _diagnostics.clear();
        EXPECT_FALSE(_set.query(GetParam().statement));
        expectReport(report::refused(GetParam().statement, GetParam().reason));
        expectEmpty(_set);
        EXPECT_EQ(_calls.order, _text != nullptr ? Texts({"exec", "free"}) : Texts({"exec"}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, RecordSetFailureTest,
    testing::Values(Failure{"WithAText", "select 1", SQLITE_BUSY, "database is locked",
                            "5=SQLITE_BUSY: database is locked"},
                    Failure{"WithATextOfPercentSignsAndBytesAbove127", "", SQLITE_ERROR,
                            "100%s \xC3\xA9\xFC", "1=SQLITE_ERROR: 100%s \xC3\xA9\xFC"},
                    Failure{"WithAnEmptyText", "select '100%s'", SQLITE_FULL, "",
                            "13=SQLITE_FULL: "},
                    Failure{"WithoutAText", "select 1", SQLITE_NOMEM, nullptr, "7=SQLITE_NOMEM"},
                    Failure{"WithARowCode", "select 1", SQLITE_ROW, nullptr, "100=SQLITE_ROW"},
                    Failure{"WithAnUnknownCode", "select 1", 266, "disk I/O error",
                            "266=unknown: disk I/O error"}),
    test::NameOfCase());

TEST_F(RecordSetTest, SyntaxErrorFailsWithSqlitesTextWhichIsFreedOnceAtEveryLevel)
{
    for (const int level : test::trace_levels) {
        _diagnostics.setLevel(3);
        _set.query(two_rows);
        _diagnostics.clear();
        _diagnostics.setLevel(level);
        const test::SqliteCalls calls;
        EXPECT_FALSE(_set.query("selekt 1"));
        expectEmpty(_set);
        EXPECT_EQ(calls.textsFreed, 1) << level;
        expectReport(report::refused("selekt 1", "1=SQLITE_ERROR: near \"selekt\": "
                                                 "syntax error"));
    }
}

TEST_F(RecordSetTest, ExtendedResultCodeIsUnknown)
{
    _db.run("create table t (id integer primary key); insert into t values (7)");
    sqlite3_extended_result_codes(_db, 1);
    EXPECT_FALSE(_set.query("insert into t values (7)"));
    expectReport(report::refused("insert into t values (7)",
                                 "1555=unknown: UNIQUE constraint failed: t.id"));
}

TEST_F(RecordSetTest, RowsBeforeTheFailureAreKeptButTheFirstIsNotHandedOut)
{
    EXPECT_FALSE(_set.query(failing_rows));
    expectReport(report::refused(failing_rows, "1=SQLITE_ERROR: integer overflow"));
    EXPECT_FALSE(_set.isResultOk());
    EXPECT_EQ(_set.count(), 1);
    EXPECT_EQ(_set.toString(), "1. 7|tea|null\r\n");
    EXPECT_NE(_set.getRecord(0), nullptr);
    EXPECT_EQ(_set.getTopRecord(), nullptr);
    EXPECT_EQ(_set.getTopRecordFirstValue(), nullptr);
}

TEST_F(RecordSetTest, RowsOfTheStatementsBeforeAFailingOneAreKept)
{
    EXPECT_FALSE(_set.query("select 7, 'tea'; selekt 1; select 8"));
    EXPECT_EQ(_set.toString(), "1. 7|tea|null\r\n");
    expectReport(report::refused("select 7, 'tea'; selekt 1; select 8",
                                 "1=SQLITE_ERROR: near \"selekt\": syntax error"));
}

TEST_F(RecordSetTest, QueryAfterAFailureStartsAfresh)
{
    _set.query(failing_rows);
    _diagnostics.clear();
    EXPECT_TRUE(_set.query("select 9"));
    EXPECT_TRUE(_set.isResultOk());
    EXPECT_EQ(_set.toString(), "1. 9|null|null\r\n");
    EXPECT_NE(_set.getTopRecord(), nullptr);
}

TEST_F(RecordSetTest, CloseAfterAFailureDiscardsTheRowsKept)
{
    _set.query(failing_rows);
    _diagnostics.clear();
    _set.close();
    expectEmpty(_set);
}

// --- The row callback

class RecordSetCallbackTest : public RecordSetTest {
protected:
    char _id[2] = "7";
    char _name[4] = "tea";
    char* _values[3] = {_id, _name, nullptr};
    char* _columnNames[2] = {_name, _id};
    RecordSet _unconnected{nullptr, _products};
};

TEST_F(RecordSetCallbackTest, AppendsARowAndGoesOn)
{
    EXPECT_EQ(RecordSet::on_next_record(&_unconnected, 3, _values, nullptr), 0);
    EXPECT_EQ(RecordSet::on_next_record(&_unconnected, 2, _values, nullptr), 0);
    _name[0] = 's';
    EXPECT_EQ(_unconnected.toString(), "1. 7|tea|null\r\n2. 7|tea|null\r\n");
    EXPECT_FALSE(_unconnected.isResultOk());
    EXPECT_EQ(_unconnected.getTopRecord(), nullptr);
    EXPECT_EQ(_unconnected.getTopRecordFirstValue(), nullptr);
}

TEST_F(RecordSetCallbackTest, DoesNotUseTheColumnNames)
{
    EXPECT_EQ(RecordSet::on_next_record(&_unconnected, 2, _values, _columnNames), 0);
    EXPECT_EQ(_unconnected.toString(), "1. 7|tea|null\r\n");
}

TEST_F(RecordSetCallbackTest, AppendsARowOfNullsForNoResultColumns)
{
    EXPECT_EQ(RecordSet::on_next_record(&_unconnected, 0, _values, nullptr), 0);
    EXPECT_EQ(RecordSet::on_next_record(&_unconnected, 0, nullptr, nullptr), 0);
    EXPECT_EQ(RecordSet::on_next_record(&_unconnected, 3, nullptr, nullptr), 0);
    EXPECT_EQ(_unconnected.toString(),
              "1. null|null|null\r\n2. null|null|null\r\n3. null|null|null\r\n");
}

TEST_F(RecordSetCallbackTest, AppendsNoRowForAnAnnouncementOfColumnNamesAlone)
{
    _diagnostics.setLevel(9);
    EXPECT_EQ(RecordSet::on_next_record(&_unconnected, 2, nullptr, _columnNames), 0);
    EXPECT_EQ(_unconnected.count(), 0);
}

TEST_F(RecordSetCallbackTest, DumpsTheRowByTheTraceLevelOfItsMoment)
{
    for (const int level : test::trace_levels) {
        _diagnostics.setLevel(level);
        RecordSet::on_next_record(&_unconnected, 1, _values, nullptr);
    }
    _diagnostics.setLevel(9);
    expectReport({report::rowRead("id = 7|name = null|price = null")});
    EXPECT_EQ(_unconnected.count(), 9);
}

TEST_F(RecordSetTest, RowsAreDumpedAsTheyArriveBeforeTheyAreAppended)
{
    std::vector<int> counts;
    _diagnostics.onLine([&](const test::LogLine& line) {
        if (line.function == "on_next_record")
            counts.push_back(_set.count());
    });
    _diagnostics.setLevel(9);
    EXPECT_TRUE(_set.query(two_rows));
    expectReport(joined({report::ran(two_rows),
                         {report::rowRead("id = 7|name = tea|price = 2.5"),
                          report::rowRead("id = 8|name = null|price = 3.5")}}));
    EXPECT_THAT(counts, ElementsAre(0, 1));
}

TEST_F(RecordSetTest, RowWithoutColumnsIsDumpedAsAnEmptyText)
{
    RecordSet set(_db);
    _diagnostics.setLevel(9);
    EXPECT_TRUE(set.query("select 1"));
    expectReport(joined({report::ran("select 1"), {report::rowRead("")}}));
}

TEST_F(RecordSetTest, DumpedTimeIsTracedBeforeTheLineThatItGoesInto)
{
    RecordSet set(_db, test::all_type_columns);
    _diagnostics.setLevel(9);
    EXPECT_TRUE(set.query("select 7, 'tea', 2.5, 1, 86400"));
    expectReport(joined({report::ran("select 7, 'tea', 2.5, 1, 86400"),
                         {report::timeMade("86400", "Fri Jan  2 01:00:00 1970\n"),
                          report::rowRead("id = 7|name = tea|price = 2.5|sold = 1|at = 02-01-1970 "
                                          "01:00:00, Fri")}}));
}

// --- Rows

TEST_F(RecordSetTest, RowsAreFoundByPosition)
{
    _set.query(two_rows);
    const RecordSet& constant = _set;
    for (int i = 0; i < 2; ++i) {
        ASSERT_NE(_set.getRecord(i), nullptr);
        EXPECT_EQ(_set.getRecord(i)->getValue(0)->asInteger(), 7 + i);
        EXPECT_EQ(constant.getRecord(i), _set.getRecord(i));
    }
}

TEST_F(RecordSetTest, RowOutsideTheSetIsNullWithoutAReport)
{
    _set.query(two_rows);
    const RecordSet& constant = _set;
    _diagnostics.setLevel(9);
    for (const int index : {-1, 2, INT_MIN, INT_MAX}) {
        EXPECT_EQ(_set.getRecord(index), nullptr) << index;
        EXPECT_EQ(constant.getRecord(index), nullptr) << index;
    }
}

TEST_F(RecordSetTest, TopRecordIsTheFirstRow)
{
    _set.query(two_rows);
    EXPECT_EQ(_set.getTopRecord(), _set.getRecord(0));
    ASSERT_NE(_set.getTopRecordFirstValue(), nullptr);
    EXPECT_EQ(_set.getTopRecordFirstValue(), _set.getRecord(0)->getValue(0));
}

TEST_F(RecordSetTest, FirstValueOfARowWithoutCellsIsNullAndReported)
{
    RecordSet set(_db);
    set.query("select 7");
    EXPECT_NE(set.getTopRecord(), nullptr);
    EXPECT_EQ(set.getTopRecordFirstValue(), nullptr);
    expectReport(report::noValue(0));
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
