#include "SqlStatement.h"

#include "SqlTable.h"

#include "Cases.h"
#include "Environment.h"
#include "StatementTest.h"

#include <cmath>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

namespace report = test::report;

using sql::integer;
using sql::Result;
using sql::runScript;
using sql::Statement;
using testing::ValuesIn;
using testing::WithParamInterface;

struct Thrown {};

} // namespace

#ifdef TEST_EXCEPTIONS
template <> struct sql::Binder<Thrown> {
    static const char* read(const sql::Column&, Thrown& thrown)
    {
        throw thrown;
    }
};
#endif

namespace {

const std::string taken = "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: t.id";

class StatementRunTest : public StatementTest {
protected:
    StatementRunTest()
    {
        run("create table t (id integer primary key, name text)");
    }

    // The keys of all rows, "1,2,3".
    std::string keys()
    {
        return rows("select group_concat(id) from (select id from t order by id)");
    }
};

// --- From the start to the end

TEST_F(StatementRunTest, EndStaysTheEnd)
{
    Statement insert(_database, "insert into t (name) values ('tea')");
    EXPECT_FALSE(insert.next());
    EXPECT_TRUE(insert.finished());
    EXPECT_FALSE(insert.next());
    EXPECT_FALSE(insert.next());
    EXPECT_EQ(keys(), "1");
    EXPECT_TRUE(insert.reset());
    EXPECT_FALSE(insert.finished());
    EXPECT_FALSE(insert.next());
    EXPECT_TRUE(insert.finished());
    EXPECT_EQ(keys(), "1,2");
}

TEST_F(StatementRunTest, EndOfRowsStaysTheEnd)
{
    Statement values(_database, "values (1), (2)");
    EXPECT_TRUE(values.next());
    EXPECT_FALSE(values.finished());
    EXPECT_TRUE(values.next());
    EXPECT_FALSE(values.next());
    EXPECT_FALSE(values.next());
    EXPECT_TRUE(values.finished());
    EXPECT_FALSE(values.error());
}

TEST_F(StatementRunTest, RunStartsAnewWhereverItStands)
{
    Statement values(_database, "values (1), (2)");
    EXPECT_TRUE(values.next());
    EXPECT_TRUE(values.run());
    EXPECT_TRUE(values.finished());
    EXPECT_FALSE(values.next());
    EXPECT_TRUE(values.run());
    EXPECT_EQ(values.one<int>().valueOr(0), 1);
    EXPECT_FALSE(values.next());
    EXPECT_TRUE(values.reset());
    EXPECT_TRUE(values.next());
}

TEST_F(StatementRunTest, RunStartsAnewAtARowThatCouldNotBeRead)
{
    Statement values(_database, "values (1), (2)");
    const auto failToRead = [&] {
        ASSERT_TRUE(values.next());
        EXPECT_TRUE(values.column(7).isNull());
        expectFailure(values, "column", "25=SQLITE_RANGE: there is no column 7");
    };
    failToRead();
    EXPECT_EQ(values.one<int>().valueOr(0), 1);
    ASSERT_TRUE(values.reset());
    failToRead();
    EXPECT_TRUE(values.reset());
    int number = 0;
    EXPECT_TRUE(values.next(number));
    EXPECT_EQ(number, 1);
}

TEST_F(StatementRunTest, ResetGoesBackToTheStart)
{
    Statement values(_database, "values (1), (2)");
    int number = 0;
    ASSERT_TRUE(values.next(number));
    ASSERT_TRUE(values.next(number));
    EXPECT_TRUE(values.reset());
    ASSERT_TRUE(values.next(number));
    EXPECT_EQ(number, 1);
}

TEST_F(StatementRunTest, FailureStaysUntilTheReset)
{
    run("insert into t values (1, 'tea')");
    Statement insert(_database, "insert into t values (1, 'rum')");
    EXPECT_FALSE(insert.next());
    expectFailure(insert, "next", taken);
    EXPECT_FALSE(insert.next());
    EXPECT_FALSE(insert.finished());
    expectReport({});
    run("delete from t");
    EXPECT_TRUE(insert.error()) << "still";
    EXPECT_TRUE(insert.reset());
    EXPECT_FALSE(insert.error());
    EXPECT_FALSE(insert.next());
    EXPECT_TRUE(insert.finished());
}

TEST_F(StatementRunTest, RunAfterAFailureHasNone)
{
    Statement insert(_database, "insert into t values (?, 'tea')");
    EXPECT_TRUE(insert.run(1));
    EXPECT_FALSE(insert.run(1));
    expectFailure(insert, "run", taken);
    EXPECT_TRUE(insert.error().isConstraint());
    EXPECT_TRUE(insert.run(2));
    EXPECT_FALSE(insert.error());
    EXPECT_TRUE(insert.finished());
}

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

TEST_F(StatementRunTest, RunGoesOverRows)
{
    Statement insert(_database, "insert into t (name) values ('a'), ('b') returning id");
    EXPECT_TRUE(insert.run());
    EXPECT_EQ(insert.changes(), 2);
    EXPECT_EQ(keys(), "1,2");
}

#endif

TEST_F(StatementRunTest, StatementWithoutColumnsHasNoRowToRead)
{
    Statement insert(_database, "insert into t (name) values ('tea')");
    int number = 7;
    EXPECT_FALSE(insert.next(number));
    EXPECT_TRUE(insert.finished());
    EXPECT_EQ(number, 7);
}

TEST_F(StatementRunTest, FailureBehindSomeRowsEndsThem)
{
    Statement values(_database,
                     "select abs(column1) from (values (1), (-9223372036854775808), (3))");
    EXPECT_TRUE(values.next());
    EXPECT_FALSE(values.next());
    expectFailure(values, "next", "1=SQLITE_ERROR: integer overflow");
    EXPECT_FALSE(values.next());
    EXPECT_FALSE(values.finished());
}

TEST_F(StatementRunTest, RefusalByATriggerIsItsReason)
{
    run("create trigger r before insert on t begin select raise(abort, 'not today'); end");
    Statement insert(_database, "insert into t (name) values (?)");
    EXPECT_FALSE(insert.run("tea"));
    expectFailure(insert, "run", "1811=SQLITE_CONSTRAINT_TRIGGER: not today");
}

TEST_F(StatementRunTest, InterruptedStatementIsStopped)
{
    Statement endless(_database, "with recursive n(i) as (values (1) union all select i + 1 from n)"
                                 " select i from n");
    ASSERT_TRUE(endless.next());
    sqlite3_interrupt(_database.getHandle());
    EXPECT_FALSE(endless.next());
    expectFailure(endless, "next", "9=SQLITE_INTERRUPT: interrupted");
    EXPECT_TRUE(endless.error().isStopped());
}

TEST_F(StatementRunTest, LackOfMemoryIsKeptWithoutTheStatement)
{
    const auto exhaust = [](sqlite3_context* context, int, sqlite3_value**) {
        sqlite3_result_error_nomem(context);
    };
    sqlite3_create_function(_database.getHandle(), "exhaust", 0, SQLITE_UTF8, nullptr, exhaust,
                            nullptr, nullptr);
    Statement statement(_database, "select exhaust()");
    EXPECT_FALSE(statement.run());
    const std::string reason = "7=SQLITE_NOMEM: out of memory";
    expectReport(report::statementFailed("run", "select exhaust()", reason));
    expectError(statement.error(), reason, "");
    EXPECT_TRUE(statement.error().isNoMemory());
}

// --- The first row alone

TEST_F(StatementRunTest, OneIsTheValueOfTheFirstRow)
{
    run("insert into t values (1, 'tea'), (2, 'rum')");
    Statement find(_database, "select name from t where id >= ? order by id");
    const Result<std::string> name = find.one<std::string>(1);
    ASSERT_TRUE(name);
    EXPECT_EQ(*name, "tea");
    EXPECT_TRUE(find.finished());
    EXPECT_EQ(find.one<std::string>(2).valueOr("none"), "rum");
    find.bind(1, 2);
    EXPECT_EQ(find.one<std::string>().valueOr("none"), "rum");
}

TEST_F(StatementRunTest, OneOfNoRowsIsNothing)
{
    Statement find(_database, "select name from t where id = ?");
    const Result<std::string> name = find.one<std::string>(7);
    EXPECT_FALSE(name);
    EXPECT_FALSE(name.failed());
    EXPECT_TRUE(find.finished());
    EXPECT_FALSE(find.error());
    const Result<std::tuple<std::string, int>> row = find.one<std::string, int>(7);
    EXPECT_FALSE(row);
    EXPECT_FALSE(row.failed());
}

TEST_F(StatementRunTest, OneOfSeveralColumnsIsATuple)
{
    run("insert into t values (1, 'tea'), (2, null)");
    Statement find(_database, "select id, name from t where id = ?");
    const auto tea = find.one<integer, std::string>(1);
    ASSERT_TRUE(tea);
    EXPECT_EQ(*tea, std::make_tuple(1, "tea"));
    const auto none = find.one<integer, std::optional<std::string>>(2);
    ASSERT_TRUE(none);
    EXPECT_EQ(std::get<1>(*none), std::nullopt);
    const auto failed = find.one<integer, std::string>(2);
    EXPECT_TRUE(failed.failed());
    expectFailure(failed.error(), "one", "20=SQLITE_MISMATCH: column name is NULL",
                  "select id, name from t where id = ?");
    EXPECT_FALSE(find.finished());
}

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

TEST_F(StatementRunTest, OneThatFailsHasTheReasonOfTheStatement)
{
    Statement insert(_database, "insert into t values (?, 'tea') returning name");
    EXPECT_EQ(insert.one<std::string>(1).valueOr("none"), "tea");
    const Result<std::string> again = insert.one<std::string>(1);
    EXPECT_FALSE(again);
    EXPECT_TRUE(again.failed());
    expectFailure(again.error(), "one", taken, "insert into t values (?, 'tea') returning name");
    EXPECT_EQ(insert.error().text(), again.error().text());
}

TEST_F(StatementRunTest, OneCommitsAllRowsOfAnInsert)
{
    Statement insert(_database, "insert into t (name) values ('a'), ('b') returning id");
    EXPECT_EQ(insert.one<int>().valueOr(0), 1);
    EXPECT_EQ(keys(), "1,2");
    EXPECT_EQ(insert.changes(), 2);
    EXPECT_EQ(insert.lastKey(), 2);
    EXPECT_TRUE(sqlite3_get_autocommit(_database.getHandle()));
}

#endif

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

class LateFailureTest : public StatementRunTest {
protected:
    // A row that is refused when it is committed, once it was given back.
    LateFailureTest()
    {
        run("pragma foreign_keys = on;"
            " create table child (id integer primary key, parent integer"
            " references t deferrable initially deferred)");
    }

    const std::string _text = "insert into child (parent) values (99) returning id";
    const std::string _reason = "787=SQLITE_CONSTRAINT_FOREIGNKEY: FOREIGN KEY constraint failed";
};

TEST_F(LateFailureTest, WhateverEndsTheRowFails)
{
    const auto expectFails = [this](const char* operation, bool (*ends)(Statement&)) {
        Statement insert(_database, _text);
        ASSERT_TRUE(insert.next());
        EXPECT_FALSE(ends(insert));
        expectFailure(insert, operation, _reason);
        EXPECT_FALSE(insert.finished());
        EXPECT_FALSE(insert.next());
        EXPECT_EQ(insert.changes(), 0);
        EXPECT_EQ(insert.lastKey(), std::nullopt);
        EXPECT_EQ(rows("select count(*) from child"), "0");
        EXPECT_TRUE(insert.reset());
        EXPECT_FALSE(insert.error());
    };
    expectFails("next", [](Statement& insert) { return insert.next(); });
    expectFails("reset", [](Statement& insert) { return insert.reset(); });
    expectFails("run", [](Statement& insert) { return insert.run(); });
    expectFails("one", [](Statement& insert) { return bool(insert.one<int>()); });
}

TEST_F(LateFailureTest, NextBehindARowThatCouldNotBeReadFails)
{
    Statement insert(_database, _text);
    ASSERT_TRUE(insert.next());
    EXPECT_TRUE(insert.column(7).isNull());
    expectFailure(insert, "column", "25=SQLITE_RANGE: there is no column 7");
    EXPECT_FALSE(insert.next());
    expectFailure(insert, "next", _reason);
}

TEST_F(LateFailureTest, OneFailsWhenItsOwnRowCannotBeCommitted)
{
    Statement insert(_database, _text);
    const Result<int> id = insert.one<int>();
    EXPECT_TRUE(id.failed());
    expectFailure(id.error(), "one", _reason, _text);
    EXPECT_FALSE(insert.finished());
    EXPECT_EQ(insert.changes(), 0);
    EXPECT_EQ(insert.lastKey(), std::nullopt);
    EXPECT_EQ(rows("select count(*) from child"), "0");
}

TEST_F(LateFailureTest, ReleaseReportsARowThatCannotBeCommitted)
{
    const test::Texts released = report::statementFailed("release", _text, _reason);
    {
        Statement insert(_database, _text);
        ASSERT_TRUE(insert.next());
    }
    expectReport(released);
    Statement insert(_database, _text);
    ASSERT_TRUE(insert.next());
    insert.release();
    expectReport(released);
    insert = Statement(_database, _text);
    ASSERT_TRUE(insert.next());
    insert = Statement(_database, "select 1");
    expectReport(released);
    EXPECT_EQ(rows("select count(*) from child"), "0");
}

#endif

// --- Rows that were changed

struct Change : test::Case {
    std::string setup;
    std::string text;
    integer changes;
};

class ChangesTest : public StatementRunTest, public WithParamInterface<Change> {};

TEST_P(ChangesTest, RowsThatTheStatementChangedItself)
{
    run("insert into t values (1, 'tea'), (2, 'rum'), (3, 'gin');" + GetParam().setup);
    Statement statement(_database, GetParam().text);
    EXPECT_EQ(statement.changes(), 0);
    for (int i = 0; i < 2; ++i) {
        run("savepoint s");
        EXPECT_TRUE(statement.run());
        EXPECT_EQ(statement.changes(), GetParam().changes);
        run("rollback to s; release s");
    }
    EXPECT_EQ(statement.changes(), GetParam().changes);
}

const Change changes_of_runs[] = {
    {"Update", "", "update t set name = 'x' where id > 1", 2},
    {"UpdateToTheSame", "", "update t set name = name", 3},
    {"UpdateOfNone", "", "update t set name = 'x' where id > 9", 0},
    {"DeleteSome", "", "delete from t where id = 1", 1},
    {"DeleteAll", "", "delete from t", 3},
    {"Insert", "", "insert into t values (7, 'x'), (8, 'y')", 2},
    {"InsertSelect", "", "insert into t select id + 10, name from t", 3},
    {"InsertOrIgnore", "", "insert or ignore into t values (1, 'x'), (9, 'y')", 1},
    {"InsertIgnored", "", "insert or ignore into t values (1, 'x')", 0},
    {"Replace", "", "replace into t values (1, 'x')", 1},
    {"Upsert", "", "insert into t values (1, 'x') on conflict (id) do update set name = 'y'", 1},
    {"UpsertNothing", "", "insert into t values (1, 'x') on conflict do nothing", 0},
#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before
    {"Returning", "", "update t set name = 'x' returning id", 3},
#endif
    {"With", "", "with k as (select 2 as id) delete from t where id in k", 1},
    {"WithSelect", "", "with k as (select * from t) select * from k", 0},
    {"Select", "", "select * from t", 0},
    {"Values", "", "values (1)", 0},
    {"CreateTable", "", "create table u (id)", 0},
    {"CreateTableAs", "", "create table u as select * from t", 0},
    {"CreateVirtualTable", "", "create virtual table f using fts5(x)", 0},
    {"CreateIndex", "", "create index i on t (name)", 0},
    {"DropTable", "", "drop table t", 0},
    {"AlterTable", "", "alter table t add column price", 0},
    {"Pragma", "", "pragma user_version = 7", 0},
    {"Savepoint", "", "savepoint inner_one", 0},
    {"Trigger",
     "create table log (id);"
     "create trigger r after update on t begin insert into log values (1), (2); end",
     "update t set name = 'x'", 3},
    {"TriggerOfNone",
     "create table log (id);"
     "create trigger r after update on t begin insert into log values (1); end",
     "update t set name = 'x' where id > 9", 0},
    {"ForeignKeyAction",
     "create table child (parent references t on delete cascade);"
     "insert into child values (1), (1), (2); pragma foreign_keys = on",
     "delete from t where id = 1", 1},
    {"View",
     "create view v as select * from t;"
     "create trigger r instead of update on v begin"
     " update t set name = new.name where id = new.id; end",
     "update v set name = 'x'", 0},
    {"VirtualTables", "create virtual table f using fts5(x)", "insert into f values ('a'), ('b')",
     2},
};

INSTANTIATE_TEST_SUITE_P(Statements, ChangesTest, ValuesIn(changes_of_runs), test::NameOfCase());

TEST_F(StatementRunTest, QueryAfterAWriteHasChangedNothing)
{
    Statement insert(_database, "insert into t (name) values ('a'), ('b')");
    Statement count(_database, "select count(*) from t");
    EXPECT_TRUE(insert.run());
    EXPECT_EQ(count.one<int>().valueOr(0), 2);
    EXPECT_EQ(count.changes(), 0);
    EXPECT_EQ(insert.changes(), 2) << "whatever runs afterwards";
    run("delete from t where id = 1");
    EXPECT_EQ(insert.changes(), 2);
    EXPECT_TRUE(insert.reset());
    EXPECT_EQ(insert.changes(), 2);
}

TEST_F(StatementRunTest, QueryDuringWritesHasChangedNothing)
{
    run("insert into t values (1, 'tea'), (2, 'rum')");
    Statement all(_database, "select id from t order by id");
    Statement update(_database, "update t set name = 'x'");
    int id = 0;
    while (all.next(id))
        EXPECT_TRUE(update.run());
    EXPECT_TRUE(all.finished());
    EXPECT_EQ(all.changes(), 0);
    EXPECT_EQ(update.changes(), 2);

    ASSERT_TRUE(all.reset());
    ASSERT_TRUE(all.next(id));
    EXPECT_TRUE(update.run());
    EXPECT_TRUE(all.reset());
    EXPECT_EQ(all.changes(), 0);
}

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

TEST_F(StatementRunTest, WriteDuringWritesHasItsOwnChanges)
{
    run("insert into t values (1, 'tea'), (2, 'rum'), (3, 'gin')");
    run("create table u (id)");
    Statement update(_database, "update t set name = 'x' where id < 3 returning id");
    Statement insert(_database, "insert into u values (?), (?), (?)");
    int id = 0;
    while (update.next(id))
        EXPECT_TRUE(insert.run(id, id, id));
    EXPECT_EQ(update.changes(), 2);
    EXPECT_EQ(insert.changes(), 3);
}

#endif

TEST_F(StatementRunTest, FailedRunHasChangedNothing)
{
    Statement insert(_database, "insert into t values (?, 'x'), (?, 'y')");
    EXPECT_TRUE(insert.run(1, 2));
    EXPECT_EQ(insert.changes(), 2);
    EXPECT_FALSE(insert.run(3, 1));
    expectFailure(insert, "run", taken);
    EXPECT_EQ(insert.changes(), 0);
    EXPECT_EQ(keys(), "1,2");
}

TEST_F(StatementRunTest, RunWhoseValuesCannotBeBoundHasChangedNothing)
{
    Statement insert(_database, "insert into t values (?, ?)");
    EXPECT_TRUE(insert.run(1, "x"));
    EXPECT_FALSE(insert.run(2, std::nan("")));
    EXPECT_EQ(insert.changes(), 0);
    EXPECT_EQ(insert.lastKey(), std::nullopt);
    _diagnostics.clear();
}

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

TEST_F(StatementRunTest, RunHasChangedNothingBeforeItsEnd)
{
    Statement insert(_database, "insert into t (name) values ('a'), ('b') returning id");
    EXPECT_TRUE(insert.run());
    EXPECT_EQ(insert.changes(), 2);
    ASSERT_TRUE(insert.reset());
    EXPECT_TRUE(insert.next());
    EXPECT_EQ(insert.changes(), 0);
}

#endif

TEST_F(StatementRunTest, RunThatCannotBeginHasChangedNothing)
{
    run("create table u (id); insert into u values (1), (2), (3)");
    Statement remove(_database, "delete from u");
    EXPECT_TRUE(remove.run());
    EXPECT_EQ(remove.changes(), 3);
    run("insert into t (name) values ('a'), ('b'); drop table u");
    EXPECT_FALSE(remove.run());
    expectFailure(remove, "run", "1=SQLITE_ERROR: no such table: u");
    EXPECT_EQ(remove.changes(), 0);
}

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

TEST_F(StatementRunTest, ResetBeforeTheEndKeepsWhatWasWritten)
{
    Statement insert(_database, "insert into t (name) values ('a'), ('b') returning id");
    ASSERT_TRUE(insert.next());
    EXPECT_TRUE(insert.reset());
    EXPECT_EQ(insert.changes(), 2);
    EXPECT_EQ(insert.lastKey(), 2);
    EXPECT_EQ(keys(), "1,2");
}

#endif

// --- The key of a row that was inserted

struct Key : test::Case {
    std::string setup;
    std::string text;
    std::optional<integer> key;
};

class LastKeyTest : public StatementRunTest, public WithParamInterface<Key> {};

// The connection's own key has to be what it would be without the library, and the rows, too.
TEST_P(LastKeyTest, KeyOfTheRunAndOfTheConnection)
{
    const std::string setup = "insert into t values (1, 'tea'), (5, 'rum');" + GetParam().setup;
    test::Connection twin;
    twin.run("create table t (id integer primary key, name text);" + setup);
    run(setup);
    Statement statement(_database, GetParam().text);
    EXPECT_EQ(statement.lastKey(), std::nullopt);
    for (int i = 0; i < 2; ++i) {
        run("savepoint s");
        twin.run("savepoint s");
        sqlite3_set_last_insert_rowid(_database.getHandle(), 5);
        sqlite3_set_last_insert_rowid(twin, 5);
        EXPECT_TRUE(statement.run());
        twin.run(GetParam().text);
        EXPECT_EQ(statement.lastKey(), GetParam().key);
        EXPECT_EQ(sqlite3_last_insert_rowid(_database.getHandle()),
                  sqlite3_last_insert_rowid(twin));
        EXPECT_EQ(rows("select * from t"), twin.rows("select * from t"));
        run("rollback to s; release s");
        twin.run("rollback to s; release s");
    }
    EXPECT_TRUE(Statement(_database, "select 1").run());
    EXPECT_EQ(statement.lastKey(), GetParam().key);
}

const Key last_keys[] = {
    {"Chosen", "", "insert into t (name) values ('x')", 6},
    {"Given", "", "insert into t values (77, 'x')", 77},
    {"SameAsTheFormer", "create table u (id integer primary key)", "insert into u values (5)", 5},
    {"Zero", "", "insert into t values (0, 'x')", 0},
    {"Negative", "", "insert into t values (-1, 'x')", -1},
    {"Highest", "", "insert into t values (9223372036854775807, 'x')", 9223372036854775807},
    {"Lowest", "", "insert into t values (-9223372036854775807 - 1, 'x')",
     -9223372036854775807 - 1},
    {"Several", "", "insert into t values (70, 'x'), (60, 'y')", 60},
    {"InsertSelect", "", "insert into t select id + 10, name from t order by id", 15},
    {"InsertSelectOfNone", "", "insert into t select id, name from t where id > 9", std::nullopt},
    {"DefaultValues", "", "insert into t default values", 6},
    {"WithoutAKeyColumn", "create table u (name)", "insert into u values ('x')", 1},
    {"Ignored", "", "insert or ignore into t values (1, 'x')", std::nullopt},
    {"IgnoredSome", "", "insert or ignore into t values (8, 'x'), (1, 'x')", 8},
    {"Replace", "", "replace into t values (1, 'x')", 1},
    {"InsertOrReplace", "", "insert or replace into t values (5, 'x')", 5},
    {"UpsertThatInserted", "",
     "insert into t values (9, 'x') on conflict (id) do update set name = 'y'", 9},
    {"UpsertThatUpdated", "",
     "insert into t values (1, 'x') on conflict (id) do update set name = 'y'", std::nullopt},
    {"UpsertThatUpdatedTheFormer", "",
     "insert into t values (5, 'x') on conflict (id) do update set name = 'y'", std::nullopt},
    {"UpsertThatDidNothing", "", "insert into t values (1, 'x') on conflict do nothing",
     std::nullopt},
    {"WithoutRowid", "create table u (id integer primary key, name) without rowid",
     "insert into u values (5, 'x')", std::nullopt},
#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before
    {"WithoutRowidReturned", "create table u (id integer primary key, name) without rowid",
     "insert into u values (5, 'x') returning id", std::nullopt},
#endif
    {"WithoutRowidButRowid", "create table u (rowid integer primary key) without rowid",
     "insert into u values (5)", std::nullopt},
    {"WithoutRowidButOid", "create table u (oid integer primary key) without rowid",
     "insert into u values (5)", std::nullopt},
    {"WithoutRowidButRowidWithUnderlines",
     "create table u (_rowid_ integer primary key) without rowid", "insert into u values (5)",
     std::nullopt},
    {"ColumnsOfTheKeysNames", "create table u (rowid, oid, _rowid_, id integer primary key)",
     "insert into u values ('x', 'y', 'z', 5)", 5},
    {"TextKey", "create table u (id text primary key)", "insert into u values ('x')", 1},
    {"Update", "", "update t set id = 9 where id = 5", std::nullopt},
    {"Delete", "", "delete from t", std::nullopt},
    {"Select", "", "select * from t", std::nullopt},
#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before
    {"Returning", "", "insert into t (name) values ('x'), ('y') returning id", 7},
#endif
    {"With", "", "with k(id) as (values (40)) insert into t select id, 'x' from k", 40},
    {"Comment", "", " /* insert */ -- a\n insert into t values (41, 'x')", 41},
    {"UpperCase", "", "INSERT INTO t VALUES (42, 'x')", 42},
    {"AsksForTheKey", "", "insert into t values (last_insert_rowid() + 10, 'x')", 15},
    {"AsksInUpperCase", "", "INSERT INTO t VALUES (LAST_INSERT_ROWID() + 10, 'x')", 15},
    {"TriggerThatAsksBefore",
     "create table log (key default (last_insert_rowid()), former);"
     "create trigger b before insert on t begin"
     " insert into log (former) values (last_insert_rowid()); end;"
     "create trigger a after insert on t begin"
     " update t set name = (select key || ',' || former from log) where id = new.id; end",
     "insert into t values (9, 'x')", 9},
#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before
    {"FormerKeyReturned", "create table u (id integer primary key)",
     "insert into u values (5) returning id", 5},
#endif
    {"FormerKeyInQuotes", "create table `a ``\"]` (id integer primary key)",
     "insert into main.`a ``\"]` (id) values (5)", 5},
    {"FormerKeyInDoubleQuotes", "create table \"a \"\"`\" (id integer primary key)",
     "insert into \"a \"\"`\" (id) values (5)", 5},
    {"FormerKeyInApostrophes", "create table 'a ''`' (id integer primary key)",
     "insert into 'a ''`' (id) values (5)", 5},
    {"FormerKeyInBrackets", "create table [a [\"`] (id integer primary key)",
     "insert or abort into /* there */ [a [\"`]values (5)", 5},
    {"FormerKeyInATemporaryTable", "create temp table u_1$À (id integer primary key)",
     "replace into temp . u_1$À(id) values (5)", 5},
    {"FormerKeyWith", "create table u (key integer primary key)",
     "with into_it(x) as (values (5)) insert into u select x from into_it", 5},
    {"FormerKeyInATableOfConflicts", "create table onflict_conflic (id integer primary key)",
     "insert into onflict_conflic values (5)", 5},
    {"FormerKeyInAnotherFile", "attach ':memory:' as b; create table b.u (id integer primary key)",
     "insert into b.u values (5)", 5},
    {"FormerKeyBesideWithoutRowid",
     "create table u (id integer primary key) without rowid;"
     "attach ':memory:' as b; create table b.u (id integer primary key)",
     "insert into b.u values (5)", 5},
    {"WithoutRowidElsewhere",
     "create table u (id integer primary key) without rowid;"
     "attach ':memory:' as b; create table b.u (id integer primary key)",
     "insert into u values (5)", std::nullopt},
    {"IgnoredBesideATrigger",
     "create table log (x);"
     "create trigger r before insert on t begin insert into log values (1); end",
     "insert or ignore into t values (1, 'x')", std::nullopt},
    {"QueryThatAsks", "", "select last_insert_rowid()", std::nullopt},
    {"TriggerThatInserts",
     "create table log (id integer primary key, name);"
     "create trigger r after insert on t begin insert into log values (1000, 'x'); end",
     "insert into t values (9, 'x')", 9},
    {"TriggerThatAsksAfterwards",
     "create table log (key);"
     "create trigger r after insert on t begin"
     " insert into log values (last_insert_rowid()); update t set name = (select key from log); end",
     "insert into t values (9, 'x')", 9},
    {"ViewWithATrigger",
     "create view v as select * from t;"
     "create trigger r instead of insert on v begin"
     " insert into t values (new.id, new.name); end",
     "insert into v values (9, 'x')", std::nullopt},
    {"CreateTableAs", "", "create table u as select * from t", std::nullopt},
    {"FullTextTable", "create virtual table f using fts5(x)",
     "insert into f (rowid, x) values (33, 'a')", 33},
};

INSTANTIATE_TEST_SUITE_P(Statements, LastKeyTest, ValuesIn(last_keys), test::NameOfCase());

// A limit: nothing tells the two apart.
TEST_F(StatementRunTest, UpsertThatInsertsTheConnectionsLatestKeyPassesForAnUpdate)
{
    run("create table u (id integer primary key)");
    Statement upsert(_database,
                     "insert into t values (?, 'x') on conflict (id) do update set name = 'y'");
    run("insert into u values (7)");
    EXPECT_TRUE(upsert.run(7));
    EXPECT_EQ(upsert.lastKey(), std::nullopt);
}

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

TEST_F(StatementRunTest, KeyIsKnownAtTheFirstRow)
{
    Statement insert(_database, "insert into t values (7, 'a'), (8, 'b') returning id");
    ASSERT_TRUE(insert.next());
    EXPECT_EQ(insert.lastKey(), 8);
    run("insert into t values (99, 'x')");
    EXPECT_TRUE(insert.next());
    EXPECT_FALSE(insert.next());
    EXPECT_EQ(insert.lastKey(), 8);
    EXPECT_EQ(sqlite3_last_insert_rowid(_database.getHandle()), 99);
}

#endif

TEST_F(StatementRunTest, SameKeyTwiceInTwoTables)
{
    run("create table u (id integer primary key)");
    Statement first(_database, "insert into t values (?, 'x')");
    Statement second(_database, "insert into u values (?)");
    EXPECT_TRUE(first.run(7));
    EXPECT_TRUE(second.run(7));
    EXPECT_EQ(first.lastKey(), 7);
    EXPECT_EQ(second.lastKey(), 7);
}

TEST_F(StatementRunTest, KeyIsThatOfTheLatestRun)
{
    Statement upsert(_database, "insert into t values (?, 'x') on conflict do nothing");
    EXPECT_TRUE(upsert.run(7));
    EXPECT_EQ(upsert.lastKey(), 7);
    EXPECT_TRUE(upsert.run(7));
    EXPECT_EQ(upsert.lastKey(), std::nullopt);
    EXPECT_EQ(sqlite3_last_insert_rowid(_database.getHandle()), 7);
}

TEST_F(StatementRunTest, UpsertThatUpdatesHasNoKeyOfAFormerRun)
{
    Statement upsert(_database,
                     "insert into t values (?, 'x') on conflict (id) do update set name = 'y'");
    EXPECT_TRUE(upsert.run(7));
    EXPECT_EQ(upsert.lastKey(), 7);
    EXPECT_TRUE(upsert.run(7));
    EXPECT_EQ(upsert.changes(), 1);
    EXPECT_EQ(upsert.lastKey(), std::nullopt);
}

TEST_F(StatementRunTest, KeyThatAFunctionInsertsIsNotTheStatements)
{
    run("create table u (id integer primary key); insert into u values (10);"
        " insert into t values (1, 'tea')");
    const auto put = [](sqlite3_context* context, int, sqlite3_value**) {
        test::run(sqlite3_context_db_handle(context), "insert into u default values");
    };
    sqlite3_create_function(_database.getHandle(), "put", 0, SQLITE_UTF8, nullptr, put, nullptr,
                            nullptr);
    for (const char* const text :
         {"with k as (select put()) select * from k", "update t set name = put()"}) {
        Statement statement(_database, text);
        EXPECT_TRUE(statement.run());
        EXPECT_EQ(statement.lastKey(), std::nullopt) << text;
    }
    EXPECT_EQ(rows("select group_concat(id) from u"), "10,11,12");
}

TEST_F(StatementRunTest, FailedInsertHasNoKey)
{
    run("insert into t values (1, 'tea')");
    Statement insert(_database, "insert into t values (?, 'x'), (?, 'y')");
    EXPECT_FALSE(insert.run(1, 2));
    expectFailure(insert, "run", taken);
    EXPECT_EQ(insert.lastKey(), std::nullopt);
    EXPECT_EQ(sqlite3_last_insert_rowid(_database.getHandle()), 1);
    EXPECT_FALSE(insert.run(2, 1)); // SQLite takes the first row back
    expectFailure(insert, "run", taken);
    EXPECT_EQ(insert.lastKey(), std::nullopt);
    EXPECT_EQ(keys(), "1");
}

TEST_F(StatementRunTest, FailedInsertHasNoKeyThoughATriggerHasCounted)
{
    run("create table log (x);"
        "create trigger r after insert on t begin insert into log values (1);"
        " select raise(abort, 'no') where new.id = 9; end");
    Statement insert(_database, "insert into t values (?, 'x')");
    EXPECT_TRUE(insert.run(8));
    EXPECT_FALSE(insert.run(9));
    expectFailure(insert, "run", "1811=SQLITE_CONSTRAINT_TRIGGER: no");
    EXPECT_EQ(insert.lastKey(), std::nullopt);
    EXPECT_EQ(keys(), "8");
}

TEST_F(StatementRunTest, FailedInsertThatKeepsItsFirstRowsHasTheirKey)
{
    Statement insert(_database, "insert or fail into t values (?, 'x'), (?, 'y')");
    EXPECT_FALSE(insert.run(2, 2));
    expectFailure(insert, "run", taken);
    EXPECT_EQ(insert.lastKey(), 2);
    EXPECT_EQ(insert.changes(), 1);
    EXPECT_EQ(keys(), "2");
}

TEST_F(StatementRunTest, TableWritesThroughTheSameConnectionSeeTheConnectionsKey)
{
    run("create table u (id integer primary key, parent integer)");
    Statement upsert(_database, "insert into t values (5, 'x') on conflict do nothing");
    EXPECT_TRUE(upsert.run());
    EXPECT_TRUE(upsert.run());
    run("insert into u (parent) values (last_insert_rowid())");
    EXPECT_EQ(rows("select parent from u"), "5");
}

// --- Nothing keeps a lock

class LockTest : public StatementTest {
protected:
    LockTest() : _file(_directory.file("a.db"))
    {
        EXPECT_TRUE(_database.open(_file, sql::Database::access_create, false, 0));
        run("create table t (id integer primary key, name text);"
            " insert into t values (1, 'tea'), (2, null), (3, 'gin')");
    }

    // Whether another connection may write, at once.
    bool othersWrite()
    {
        test::Connection other(_file);
        return sqlite3_exec(other, "update t set id = id", nullptr, nullptr, nullptr) == SQLITE_OK;
    }

    test::TemporaryDirectory _directory;
    const std::string _file;
};

TEST_F(LockTest, RowKeepsALock)
{
    Statement statement(_database, "select id from t");
    EXPECT_TRUE(statement.next());
    EXPECT_FALSE(othersWrite());
}

TEST_F(LockTest, EndKeepsNone)
{
    Statement statement(_database, "select id from t");
    while (statement.next()) {
    }
    EXPECT_TRUE(othersWrite());
    EXPECT_TRUE(statement.run());
    EXPECT_TRUE(othersWrite());
    EXPECT_EQ(statement.one<int>().valueOr(0), 1);
    EXPECT_TRUE(othersWrite());
#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before
    Statement write(_database, "update t set id = id returning id");
    EXPECT_EQ(write.one<int>().valueOr(0), 1);
    EXPECT_TRUE(othersWrite());
#endif
}

TEST_F(LockTest, ResetReleaseAndDestructionKeepNone)
{
    {
        Statement statement(_database, "select id from t");
        ASSERT_TRUE(statement.next());
        EXPECT_TRUE(statement.reset());
        EXPECT_TRUE(othersWrite());
        ASSERT_TRUE(statement.next());
        statement.release();
        EXPECT_TRUE(othersWrite());
        statement = Statement(_database, "select id from t");
        ASSERT_TRUE(statement.next());
    }
    EXPECT_TRUE(othersWrite());
}

TEST_F(LockTest, FailureKeepsNone)
{
    Statement cells(_database, "select name from t");
    std::string name;
    ASSERT_TRUE(cells.next(name));
    EXPECT_FALSE(cells.next(name));
    expectFailure(cells, "next", "20=SQLITE_MISMATCH: column name is NULL");
    EXPECT_TRUE(othersWrite());

    ASSERT_TRUE(cells.reset());
    ASSERT_TRUE(cells.next());
    cells.bind(1, 7);
    expectFailure(cells, "bind",
                  "21=SQLITE_MISUSE: a value was bound at a row: reset the statement before");
    EXPECT_TRUE(othersWrite());

    ASSERT_TRUE(cells.reset());
    ASSERT_TRUE(cells.next());
    EXPECT_TRUE(cells.column(7).isNull());
    expectFailure(cells, "column", "25=SQLITE_RANGE: there is no column 7");
    EXPECT_FALSE(cells.next());
    EXPECT_TRUE(othersWrite());

    EXPECT_TRUE(cells.one<int>().failed());
    expectFailure(cells, "one", "20=SQLITE_MISMATCH: column name is no number");
    EXPECT_TRUE(othersWrite());

    Statement insert(_database, "insert into t values (4, 'x'), (1, 'x')");
    EXPECT_FALSE(insert.run());
    expectFailure(insert, "run", taken);
    EXPECT_TRUE(othersWrite());
}

// SQLite's own, which it takes for each of its calls.
TEST_F(LockTest, LockOfTheConnectionIsTakenAndLeftEvenly)
{
    sqlite3_mutex* const mutex = sqlite3_db_mutex(_database.getHandle());
    const auto othersMayUseIt = [&] {
        bool may = false;
        std::thread([&] {
            may = sqlite3_mutex_try(mutex) == SQLITE_OK;
            if (may)
                sqlite3_mutex_leave(mutex);
        }).join();
        return may;
    };
    Statement statement(_database, "select ?, ?, ?, ?, ?");
    sqlite3_mutex_enter(mutex);
    EXPECT_TRUE(statement.run(1, 2, 3, 4, 5));
    EXPECT_FALSE(othersMayUseIt());
    sqlite3_mutex_leave(mutex);
    EXPECT_TRUE(othersMayUseIt());
}

#ifdef TEST_EXCEPTIONS
TEST_F(LockTest, ExceptionOfABinderKeepsNone)
{
    Statement statement(_database, "select id from t");
    EXPECT_THROW(static_cast<void>(statement.one<Thrown>()), Thrown);
    EXPECT_TRUE(othersWrite());
    EXPECT_FALSE(statement.next());
    EXPECT_FALSE(statement.finished());
    EXPECT_EQ(statement.one<int>().valueOr(0), 1);
}
#endif

TEST_F(LockTest, ScriptKeepsNone)
{
    EXPECT_EQ(runScript(_database, "select id from t; select id from t").valueOr(0), 2);
    EXPECT_TRUE(othersWrite());
    EXPECT_TRUE(runScript(_database, "select id from t; insert into t values (1, 'x')").failed());
    _diagnostics.clear();
    EXPECT_TRUE(othersWrite());
}

TEST_F(LockTest, LockOfAnotherIsBusy)
{
    test::Connection other(_file);
    other.run("begin exclusive");
    Statement statement(_database, "select id from t");
    EXPECT_FALSE(statement.next());
    expectFailure(statement, "next", "5=SQLITE_BUSY: database is locked");
    EXPECT_TRUE(statement.error().isBusy());
    other.run("commit");
    EXPECT_FALSE(statement.next());
    EXPECT_TRUE(statement.reset());
    EXPECT_TRUE(statement.next());
}

TEST_F(LockTest, StatementThatIsMadeBehindALockIsBusyForGood)
{
    test::Connection other(_file);
    other.run("begin exclusive");
    sql::Database database;
    ASSERT_TRUE(database.open(_file, sql::Database::access_read_write, false, 0));
    const std::string text = "insert into t values (4, 'x')";
    Statement statement(database, text); // which reads the tables' declarations
    expectFailure(statement.error(), "Statement", "5=SQLITE_BUSY: database is locked", text);
    EXPECT_TRUE(statement.error().isBusy());
    other.run("commit");
    EXPECT_FALSE(statement.run());
    expectReport({});
    EXPECT_TRUE(Statement(database, text).run());
}

// --- Scripts

class ScriptTest : public StatementRunTest {
protected:
    void expectStopped(const std::string& script, const std::string& reason,
                       const std::string& statement)
    {
        const Result<int> ran = runScript(_database, script);
        EXPECT_FALSE(ran);
        EXPECT_TRUE(ran.failed());
        expectFailure(ran.error(), "runScript", reason, statement);
    }
};

TEST_F(ScriptTest, RunsAllStatementsAndCountsThem)
{
    EXPECT_EQ(runScript(_database, "").valueOr(-1), 0);
    EXPECT_EQ(runScript(_database, " ;; -- nothing\n /* at all */").valueOr(-1), 0);
    EXPECT_EQ(runScript(_database, "insert into t values (1, 'a')").valueOr(-1), 1);
    EXPECT_EQ(runScript(_database, "insert into t values (2, 'b'); select * from t;\n"
                                   "-- and now\n;insert into t values (3, '; x'); -- end")
                  .valueOr(-1),
              3);
    EXPECT_EQ(keys(), "1,2,3");
}

TEST_F(ScriptTest, RunsTriggersWhole)
{
    EXPECT_EQ(runScript(_database, "create table log (id);"
                                   "create trigger r after insert on t begin"
                                   " insert into log values (new.id); end;"
                                   "insert into t values (7, 'x')")
                  .valueOr(-1),
              3);
    EXPECT_EQ(rows("select * from log"), "7");
}

TEST_F(ScriptTest, IsTracedStatementByStatement)
{
    _diagnostics.setLevel(8);
    EXPECT_EQ(runScript(_database, "insert into t values (1, 'a'); select 1 ;").valueOr(-1), 2);
    expectReport({report::started("runScript", "insert into t values (1, 'a');"),
                  report::started("runScript", "select 1 ;")});
    _diagnostics.setLevel(3);
}

TEST_F(ScriptTest, SaysAtWhichStatementItStopped)
{
    expectStopped("insert into t values (1, 'a'); insert into t values (1, 'b');"
                  " insert into t values (2, 'c')",
                  "1555=SQLITE_CONSTRAINT_PRIMARYKEY: statement 2: UNIQUE constraint failed: t.id",
                  "insert into t values (1, 'b');");
    EXPECT_EQ(keys(), "1") << "what was before it has taken effect";
}

TEST_F(ScriptTest, StatementThatCannotBeCompiledIsNamedAlone)
{
    expectStopped("insert into t values (1, 'a'); insert into missing values (1); select 'secret'",
                  "1=SQLITE_ERROR: statement 2: no such table: missing",
                  "insert into missing values (1);");
    expectStopped("selec 1; select 'secret'",
                  "1=SQLITE_ERROR: statement 1: near \"selec\": syntax error", "selec 1;");
    expectStopped("select 'a;b', ; select 'secret'",
                  "1=SQLITE_ERROR: statement 1: near \";\": syntax error", "select 'a;b', ;");
    expectStopped("select 'never ended; select 1",
                  "1=SQLITE_ERROR: statement 1: unrecognized token: \"'never ended; select 1\"",
                  "select 'never ended; select 1");
    expectStopped("select '', ; select 'secret'",
                  "1=SQLITE_ERROR: statement 1: near \";\": syntax error", "select '', ;");
    expectStopped("'a;b'; select 'secret'",
                  "1=SQLITE_ERROR: statement 1: near \"'a;b'\": syntax error", "'a;b';");
    EXPECT_EQ(keys(), "1");
}

TEST_F(ScriptTest, QuotedSemicolonsDoNotEndTheNamedStatement)
{
    for (const std::string quoted : {"\"a;b\"", "`a;b`", "[a;b]"}) {
        expectStopped("select " + quoted + ", ; select 'secret'",
                      "1=SQLITE_ERROR: statement 1: near \";\": syntax error",
                      "select " + quoted + ", ;");
    }
}

TEST_F(ScriptTest, TriggerThatFailsIsNamedWhole)
{
    const std::string trigger = "create trigger r after insert on t begin select 1; select 2; end;";
    expectStopped("pragma query_only = on; " + trigger + " select 'secret'",
                  "8=SQLITE_READONLY: statement 2: attempt to write a readonly database", trigger);
}

TEST_F(ScriptTest, PointsAtTheByteInTheStatement)
{
    const Result<int> ran = runScript(_database, "select 1; select id, nope from t");
    _diagnostics.clear();
    EXPECT_EQ(ran.error().statement(), "select id, nope from t");
    expectOffset(ran.error(), 11);
}

TEST_F(ScriptTest, ZeroByteIsAFailureAndNothingRuns)
{
    const std::string script("insert into t values (1, 'a')\0; insert into t values (2, 'b')", 61);
    expectStopped(script, "21=SQLITE_MISUSE: there is a zero byte in the text",
                  "insert into t values (1, 'a')");
    EXPECT_EQ(rows("select count(*) from t"), "0");
}

TEST_F(ScriptTest, DatabaseThatIsNotOpenIsAFailure)
{
    sql::Database database;
    const Result<int> ran = runScript(database, "select 1");
    expectFailure(ran.error(), "runScript", "21=SQLITE_MISUSE: the database is not open",
                  "select 1");
}

TEST_F(ScriptTest, TransactionsInItGoOn)
{
    EXPECT_EQ(runScript(_database, "begin; insert into t values (1, 'a')").valueOr(-1), 2);
    EXPECT_FALSE(sqlite3_get_autocommit(_database.getHandle()));
    EXPECT_EQ(runScript(_database, "rollback").valueOr(-1), 1);
    EXPECT_EQ(rows("select count(*) from t"), "0");
}

} // namespace
