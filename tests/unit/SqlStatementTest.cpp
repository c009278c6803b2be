#include "SqlStatement.h"

#include "Environment.h"
#include "StatementTest.h"

#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sql::Statement;

static_assert(!std::is_polymorphic_v<Statement>);
static_assert(!std::is_copy_constructible_v<Statement> && !std::is_copy_assignable_v<Statement>);
static_assert(std::is_nothrow_move_constructible_v<Statement>);
static_assert(std::is_nothrow_move_assignable_v<Statement>);

const std::string gone = "21=SQLITE_MISUSE: the statement was released or moved from";
const std::string closed = "21=SQLITE_MISUSE: the database was closed or opened anew";
const std::string no_syntax = "1=SQLITE_ERROR: near \"selec\": syntax error";

// Statements that cannot be used any more, or never could.
class UnusableTest : public StatementTest {
protected:
    // Every use fails for this reason, and reports so.
    void expectUnusable(Statement& statement, const std::string& reason)
    {
        useInEveryWay(statement, [&](const char* operation) {
            expectFailure(statement, operation, reason);
            EXPECT_FALSE(statement.finished());
        });
        statement.bind(1, 7);
        expectFailure(statement, "bind", reason);
        statement.bind(":id", 7).clearBindings();
        EXPECT_FALSE(statement.run());
        EXPECT_TRUE(statement.one<int>().failed());
        expectReport({}); // it sticks
    }

    void expectGone(Statement& statement)
    {
        expectNothingKnown(statement);
        expectUnusable(statement, gone);
        statement.release();
        expectReport({});
        EXPECT_FALSE(statement.run());
        expectFailure(statement, "run", gone); // nothing sticks any more
        expectNothingKnown(statement);
    }

    // It was refused for this reason, which was reported, and is not again.
    void expectUncompiled(Statement& statement, const std::string& reason, const std::string& text)
    {
        expectNothingKnown(statement);
        useInEveryWay(statement, [](const char*) {});
        statement.release();
        EXPECT_FALSE(statement.finished() || statement.run());
        EXPECT_EQ(statement.changes(), 0);
        EXPECT_EQ(statement.lastKey(), std::nullopt);
        expectReport({});
        expectError(statement.error(), reason, text);
    }

private:
    // A value that could not be bound sticks but for what comes next here.
    template <typename Look> static void useInEveryWay(Statement& statement, Look look)
    {
        int number = 0;
        const auto expectFailed = [&](const char* operation, bool failed) {
            EXPECT_TRUE(failed) << operation;
            look(operation);
        };
        expectFailed("next", !statement.next());
        expectFailed("bind", bool(statement.bind(1, 7).error()));
        expectFailed("next", !statement.next(number, number, number, number, number));
        expectFailed("bind", bool(statement.bind(":id", 7).error()));
        expectFailed("run", !statement.run(7));
        statement.clearBindings();
        expectFailed("bind", bool(statement.error()));
        expectFailed("one", statement.one<int>(7).failed());
        expectFailed("one", statement.one<int>().failed());
        expectFailed("run", !statement.run());
        expectFailed("column", statement.column(0).isNull());
        expectFailed("column", statement.column("id").isNull());
        expectFailed("reset", !statement.reset());
    }

    static void expectNothingKnown(Statement& statement)
    {
        EXPECT_FALSE(statement.isPrepared());
        EXPECT_FALSE(statement.finished());
        EXPECT_EQ(statement.text(), "");
        EXPECT_EQ(statement.expandedText(), "");
        EXPECT_TRUE(statement.isReadOnly());
        EXPECT_EQ(statement.parameterCount(), 0);
        EXPECT_EQ(statement.columnCount(), 0);
        EXPECT_EQ(statement.columnName(0), "");
        EXPECT_EQ(statement.columnName(-1), "");
    }
};

// --- What a text may hold

TEST_F(StatementTest, CompiledStatementKnowsItsTextAndItsColumns)
{
    run("create table t (id integer primary key, name text)");
    Statement select(_database, "select id, name as label from t where id > ?1 and name = :name");
    EXPECT_TRUE(select.isPrepared());
    EXPECT_FALSE(select.error());
    EXPECT_EQ(select.text(), "select id, name as label from t where id > ?1 and name = :name");
    EXPECT_TRUE(select.isReadOnly());
    EXPECT_EQ(select.parameterCount(), 2);
    EXPECT_EQ(select.columnCount(), 2);
    EXPECT_EQ(select.columnName(0), "id");
    EXPECT_EQ(select.columnName(1), "label");
    EXPECT_FALSE(select.finished());
    EXPECT_EQ(select.changes(), 0);
    EXPECT_EQ(select.lastKey(), std::nullopt);

    Statement insert(_database, "insert into t values (?, ?)");
    EXPECT_FALSE(insert.isReadOnly());
    EXPECT_EQ(insert.columnCount(), 0);
}

TEST_F(StatementTest, BlanksCommentsAndSemicolonsMayStandAroundTheStatement)
{
    for (const char* const text :
         {"select 7;", "select 7 ; ;;", " \t\r\n\f select 7", "select 7 -- comment",
          "select 7; -- comment", "select 7; -- comment\n", "select 7; /* comment */",
          "select 7; /* never ended", "select 7;/**/;--", "-- comment\nselect 7",
          "/* a; b */ select 7", "; select 7", "select 7 /* ; select 8 */",
          "select 7; -- ; select 8", "select 7;/* ' */-- \"\n;", "select 7; \t\r\n\f",
          "select 7; /*/ comment */"}) {
        Statement statement(_database, text);
        EXPECT_EQ(statement.one<int>().valueOr(0), 7) << text;
        EXPECT_FALSE(statement.error()) << text;
    }
}

TEST_F(StatementTest, SemicolonsOfItsOwnDoNotEndIt)
{
    run("create table t (id integer)");
    Statement trigger(_database, "create trigger r after insert on t begin"
                                 " insert into t select 2 where new.id = 1; select ';'; end;");
    EXPECT_TRUE(trigger.run());
    Statement text(_database, "select '; select 8'");
    EXPECT_EQ(text.one<std::string>().valueOr("failed"), "; select 8");
}

TEST_F(StatementTest, TextWithoutAStatementIsAFailure)
{
    for (const char* const text : {"", " ", ";", ";;", "-- comment", "/* comment */", "/* never",
                                   "\n\t", "--\n;/**/", "-- select 7"}) {
        Statement statement(_database, text);
        expectFailure(statement.error(), "Statement",
                      "21=SQLITE_MISUSE: there is no statement in the text", text);
        EXPECT_FALSE(statement.isPrepared());
    }
}

TEST_F(StatementTest, SecondStatementIsAFailureAndNeitherRuns)
{
    run("create table t (id integer)");
    for (const char* const text :
         {"insert into t values (1); insert into t values (2)", "delete from t; nonsense",
          "insert into t values (1);;select 1", "insert into t values (1); -- a\n select 1",
          "insert into t values (1); /* a */ x", "insert into t values (1); '", "select 1; -1",
          "select 1;/**/select 2", "select 1; \x01"}) {
        Statement statement(_database, text);
        expectFailure(statement.error(), "Statement",
                      "21=SQLITE_MISUSE: there is more than one statement in the text", text);
        EXPECT_FALSE(statement.isPrepared());
        EXPECT_FALSE(statement.run());
    }
    EXPECT_EQ(rows("select count(*) from t"), "0");
}

TEST_F(StatementTest, ZeroByteInTheTextIsAFailure)
{
    run("create table t (id integer); insert into t values (1)");
    for (const std::string& text :
         {std::string("delete from t\0 where id = 2", 27), std::string("select 1\0", 9),
          std::string("\0", 1), std::string("select 1; -- \0", 14)}) {
        Statement statement(_database, text);
        const std::string shown = text.c_str();
        expectFailure(statement.error(), "Statement",
                      "21=SQLITE_MISUSE: there is a zero byte in the text", shown);
        EXPECT_FALSE(statement.run());
    }
    EXPECT_EQ(rows("select * from t"), "1");
}

TEST_F(StatementTest, TextThatSqliteRefusesFailsWithItsReason)
{
    run("create table t (id integer)");
    const auto expectRefused = [this](const std::string& text, const std::string& reason,
                                      std::optional<int> offset) {
        Statement statement(_database, text);
        expectFailure(statement.error(), "Statement", reason, text);
        expectOffset(statement.error(), offset);
    };
    expectRefused("selec 1", "1=SQLITE_ERROR: near \"selec\": syntax error", 0);
    expectRefused("select * from missing", "1=SQLITE_ERROR: no such table: missing", std::nullopt);
    expectRefused("select id, missing from t", "1=SQLITE_ERROR: no such column: missing", 11);
    expectRefused("select 'tea", "1=SQLITE_ERROR: unrecognized token: \"'tea\"", 7);
    for (const char* const text : {"select (", "insert", "insert or", "insert into",
                                   "insert into t", "insert into `t`", "insert into main."})
        expectRefused(text, "1=SQLITE_ERROR: incomplete input", std::nullopt);
    expectRefused("select 1 order by id collate missing", "1=SQLITE_ERROR: no such column: id", 18);
    expectRefused("select id from t order by id collate missing",
                  "257=SQLITE_ERROR_MISSING_COLLSEQ: no such collation sequence: missing",
                  std::nullopt);
    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_SQL_LENGTH, 100);
    expectRefused("select 1 --" + std::string(100, 'a'), "18=SQLITE_TOOBIG: string or blob too big",
                  std::nullopt);
}

TEST_F(StatementTest, FailureDoesNotPointWhereAnEarlierOneDid)
{
    expectOffset(Statement(_database, "selec 1").error(), 0);
    expectOffset(Statement(_database, std::string("select 1\0", 9)).error(), std::nullopt);
    _diagnostics.clear();
}

TEST_F(UnusableTest, UncompiledStatementFailsInAllItDoesWithoutAnotherReport)
{
    Statement statement(_database, "selec 1");
    expectFailure(statement.error(), "Statement", no_syntax, "selec 1");
    expectUncompiled(statement, no_syntax, "selec 1");
    expectOffset(statement.one<int>().error(), 0);
}

// --- The database behind it

TEST_F(UnusableTest, DatabaseThatWasNeverOpenedIsAFailure)
{
    const std::string reason = "21=SQLITE_MISUSE: the database is not open";
    sql::Database database;
    Statement statement(database, "select 1");
    expectFailure(statement.error(), "Statement", reason, "select 1");
    expectUncompiled(statement, reason, "select 1");
    EXPECT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
    expectUncompiled(statement, reason, "select 1");
}

class ClosedDatabaseTest : public UnusableTest {
protected:
    // Closes the connection while the statement lives, which leaks it.
    void close()
    {
        _leaked = _database.getHandle();
        _database.close();
        expectReport({test::report::asserted("void sql::Database::close()", "rc == SQLITE_OK")});
    }

    // Its statements are gone by then.
    void TearDown() override
    {
        StatementTest::TearDown();
        EXPECT_EQ(test::closeConnection(_leaked), SQLITE_OK);
    }

    sqlite3* _leaked = nullptr;
};

TEST_F(ClosedDatabaseTest, EveryUseIsAFailureAlsoOnceItIsOpenedAnew)
{
    Statement statement(_database, "select ? as id");
    statement.bind(1, 7);
    ASSERT_TRUE(statement.next());
    close();
    expectUnusable(statement, closed);
    ASSERT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
    expectUnusable(statement, closed);
    statement = Statement(_database, "select 2");
    EXPECT_EQ(statement.one<int>().valueOr(0), 2);
}

TEST_F(ClosedDatabaseTest, LocksAreGoneWithTheStatement)
{
    const test::TemporaryDirectory directory;
    ASSERT_TRUE(_database.open(directory.file("a.db"), sql::Database::access_create, false, 0));
    run("create table t (id); insert into t values (1), (2)");
    std::optional<Statement> statement(std::in_place, _database, "select id from t");
    ASSERT_TRUE(statement->next());
    close();
    EXPECT_FALSE(statement->next());
    expectFailure(*statement, "next", closed);
    test::Connection(directory.file("a.db")).run("insert into t values (3)");
    statement.reset();
}

TEST_F(StatementTest, StatementMayOutliveItsDatabase)
{
    auto database = std::make_unique<sql::Database>();
    ASSERT_TRUE(database->open(":memory:", sql::Database::access_create, false, 0));
    sqlite3* const leaked = database->getHandle();
    {
        Statement statement(*database, "values (1), (2)");
        ASSERT_TRUE(statement.next());
        database.reset();
        _diagnostics.clear(); // of the connection that cannot be closed
    }
    EXPECT_EQ(test::closeConnection(leaked), SQLITE_OK);
}

TEST_F(StatementTest, ReleasedStatementLetsTheDatabaseClose)
{
    Statement statement(_database, "values (1), (2)");
    ASSERT_TRUE(statement.next());
    statement.release();
    _database.close();
    expectReport({});
}

// --- Release and moves

class GoneStatementTest : public UnusableTest {
protected:
    GoneStatementTest()
    {
        run("create table t (id integer primary key, name text unique)");
    }

    // One at each place where a statement can stand.
    std::vector<Statement> everywhere()
    {
        std::vector<Statement> all;
        const auto add = [&](const char* text) -> Statement& {
            return all.emplace_back(_database, text);
        };
        add("select 1 as id");
        EXPECT_TRUE(add("select 1 as id").run());
        EXPECT_TRUE(add("values (1), (2)").next());
        Statement& broken = add("values (1), (2)");
        EXPECT_TRUE(broken.next() && broken.column(7).isNull());
        EXPECT_TRUE(add("insert into t values (?, ?)").run(1, "tea"));
        EXPECT_FALSE(add("insert into t values (?, ?)").run(1, "tea"));
        add("select ?").bind(2, 7);
        add("select 1").release();
        _diagnostics.clear();
        return all;
    }
};

TEST_F(GoneStatementTest, ReleasedWhereverItStands)
{
    for (Statement& statement : everywhere()) {
        statement.release();
        expectGone(statement);
    }
}

TEST_F(GoneStatementTest, MovedFromWhereverItStands)
{
    for (Statement& statement : everywhere()) {
        Statement owner(std::move(statement));
        EXPECT_FALSE(statement.error());
        expectGone(statement);
        statement = std::move(owner);
        EXPECT_FALSE(owner.error());
        expectGone(owner);
    }
}

TEST_F(GoneStatementTest, OneThatWasNotCompiledStaysSoWhereverItGoes)
{
    Statement statement(_database, "selec 1");
    expectFailure(statement.error(), "Statement", no_syntax, "selec 1");
    Statement owner(std::move(statement));
    expectGone(statement);
    statement = std::move(owner);
    expectGone(owner);
    expectUncompiled(statement, no_syntax, "selec 1");
}

TEST_F(GoneStatementTest, WhatTheLatestRunHasDoneIsKnownAfterTheRelease)
{
    Statement insert(_database, "insert into t values (?, ?)");
    EXPECT_TRUE(insert.run(7, "tea"));
    insert.release();
    EXPECT_EQ(insert.changes(), 1);
    EXPECT_EQ(insert.lastKey(), 7);
    EXPECT_FALSE(insert.error());
}

TEST_F(GoneStatementTest, MoveTakesEverything)
{
    Statement atRow(_database, "values (1, 'a'), (2, 'b')");
    EXPECT_TRUE(atRow.next());
    Statement owner(std::move(atRow));
    EXPECT_EQ(owner.column(1).asText(), "a");
    int number = 0;
    std::string text;
    EXPECT_TRUE(owner.next(number, text));
    EXPECT_EQ(text, "b");

    Statement bound(_database, "insert into t values (?, ?)");
    bound.bind(1, 7).bind(2, "tea");
    owner = std::move(bound);
    EXPECT_TRUE(owner.run());
    EXPECT_EQ(owner.lastKey(), 7);
    EXPECT_EQ(owner.changes(), 1);
    EXPECT_FALSE(owner.run());
    const std::string taken = "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: t.id";
    expectFailure(owner, "run", taken);
    const Statement last(std::move(owner));
    expectError(last.error(), taken, "insert into t values (?, ?)");

    Statement unfit(_database, "select ?");
    unfit.bind(2, 7);
    _diagnostics.clear();
    Statement still(std::move(unfit));
    EXPECT_FALSE(still.run()) << "the failure sticks to the new owner";
}

TEST_F(GoneStatementTest, StaleValuesAreGoneAfterAMoveToo)
{
    Statement former(_database, "select typeof(?)");
    {
        const std::string tea = "tea";
        EXPECT_TRUE(former.run(tea));
    }
    Statement owner(std::move(former));
    EXPECT_EQ(owner.one<std::string>().valueOr("failed"), "null");
}

TEST_F(GoneStatementTest, ColumnFollowsNoMove)
{
    Statement former(_database, "select 'tea'");
    EXPECT_TRUE(former.next());
    Statement owner(std::move(former));
    EXPECT_TRUE(former.column(0).isNull());
    expectFailure(former, "column", gone);
    EXPECT_EQ(owner.column(0).asText(), "tea");
}

TEST_F(GoneStatementTest, AssignmentReleasesWhatWasThere)
{
    const test::TemporaryDirectory directory;
    ASSERT_TRUE(_database.open(directory.file("a.db"), sql::Database::access_create, false, 0));
    run("create table t (id); insert into t values (1), (2)");
    Statement statement(_database, "select id from t");
    ASSERT_TRUE(statement.next());
    statement = Statement(_database, "select 7");
    test::Connection(directory.file("a.db")).run("insert into t values (3)");
    EXPECT_EQ(statement.one<int>().valueOr(0), 7);
}

TEST_F(GoneStatementTest, OneThatTakesItselfStaysAsItIs)
{
    const auto takeItself = [](Statement& statement) {
        Statement& same = statement;
        statement = std::move(same);
    };
    Statement statement(_database, "values (1, ?), (2, ?)");
    statement.bind(1, "tea").bind(2, "rum");
    ASSERT_TRUE(statement.next());
    EXPECT_EQ(statement.column("column2").asText(), "tea");
    takeItself(statement);
    EXPECT_EQ(statement.column("column2").asText(), "tea");
    EXPECT_TRUE(statement.next());
    EXPECT_EQ(statement.column("column2").asText(), "rum");
    EXPECT_EQ(statement.expandedText(), "values (1, 'tea'), (2, 'rum')");
    EXPECT_FALSE(statement.next());
    takeItself(statement);
    EXPECT_TRUE(statement.finished());

    EXPECT_FALSE(statement.run(7));
    const std::string reason = "25=SQLITE_RANGE: there are 1 values for 2 parameters";
    expectFailure(statement, "run", reason);
    takeItself(statement);
    expectError(statement.error(), reason, "values (1, ?), (2, ?)");

    statement.release();
    takeItself(statement);
    expectGone(statement);
    Statement uncompiled(_database, "selec 1");
    expectFailure(uncompiled.error(), "Statement", no_syntax, "selec 1");
    takeItself(uncompiled);
    expectUncompiled(uncompiled, no_syntax, "selec 1");
}

TEST_F(GoneStatementTest, StatementsLiveInContainers)
{
    std::vector<Statement> statements;
    for (int i = 0; i < 10; ++i)
        statements.emplace_back(_database, "select " + std::to_string(i));
    statements.erase(statements.begin());
    std::swap(statements.front(), statements.back());
    EXPECT_EQ(statements.front().one<int>().valueOr(0), 9);
    EXPECT_EQ(statements.back().one<int>().valueOr(0), 1);
}

} // namespace
