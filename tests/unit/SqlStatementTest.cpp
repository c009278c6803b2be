#include "SqlStatement.h"

#include "Environment.h"
#include "StatementTest.h"

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sql::Statement;
using testing::ElementsAre;

static_assert(!std::is_polymorphic_v<Statement>);
static_assert(!std::is_copy_constructible_v<Statement> && !std::is_copy_assignable_v<Statement>);
static_assert(std::is_nothrow_move_constructible_v<Statement>);
static_assert(std::is_nothrow_move_assignable_v<Statement>);

const std::string gone = "21=SQLITE_MISUSE: the statement was released or moved from";
const std::string closed = "21=SQLITE_MISUSE: the database was closed or opened anew";

// Every operation once, and what each of them gives; all of them fail.
std::string everyOperation(Statement& statement)
{
    int number = 0;
    std::string failed;
    const auto add = [&](const char* operation, bool isTrue) {
        if (isTrue)
            failed += std::string(failed.empty() ? "" : " ") + operation;
    };
    add("next", statement.next());
    add("next into", statement.next(number));
    add("run", statement.run());
    add("run with", statement.run(7));
    add("one", !statement.one<int>().failed());
    add("one with", !statement.one<int>(7).failed());
    add("column", !statement.column(0).isNull());
    add("column by name", !statement.column("id").isNull());
    add("bind", !statement.bind(1, 7).error());
    add("bind by name", !statement.bind(":id", 7).error());
    statement.clearBindings();
    add("reset", statement.reset());
    add("finished", statement.finished());
    return failed;
}

// What is known of one that was not compiled, or not any more.
std::string everyFact(Statement& statement)
{
    return std::string(statement.isPrepared() ? "prepared " : "") + std::string(statement.text())
           + "|" + statement.expandedText() + "|" + (statement.isReadOnly() ? "reads" : "writes")
           + "|" + std::to_string(statement.parameterCount()) + "|"
           + std::to_string(statement.columnCount()) + "|" + statement.columnName(0) + "|"
           + statement.columnName(-1) + "|" + std::to_string(statement.changes()) + "|"
           + (statement.lastKey() ? "key" : "");
}
const std::string nothing_known = "||reads|0|0|||0|";

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
          "select 7; -- ; select 8", "select 7;/* ' */-- \"\n;"}) {
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
          "insert into t values (1); /* a */ x", "insert into t values (1); '", "select 1; -1"}) {
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
        EXPECT_EQ(statement.error().offset(), offset) << text;
    };
    expectRefused("selec 1", "1=SQLITE_ERROR: near \"selec\": syntax error", 0);
    expectRefused("select * from missing", "1=SQLITE_ERROR: no such table: missing", std::nullopt);
    expectRefused("select id, missing from t", "1=SQLITE_ERROR: no such column: missing", 11);
    expectRefused("select 'tea", "1=SQLITE_ERROR: unrecognized token: \"'tea\"", 7);
    expectRefused("select (", "1=SQLITE_ERROR: incomplete input", std::nullopt);
    expectRefused("select 1 order by id collate missing", "1=SQLITE_ERROR: no such column: id", 18);
    expectRefused("select id from t order by id collate missing",
                  "257=SQLITE_ERROR_MISSING_COLLSEQ: no such collation sequence: missing",
                  std::nullopt);
    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_SQL_LENGTH, 100);
    expectRefused("select 1 --" + std::string(100, 'a'), "18=SQLITE_TOOBIG: string or blob too big",
                  std::nullopt);
}

TEST_F(StatementTest, UncompiledStatementFailsInAllItDoesWithoutAnotherReport)
{
    Statement statement(_database, "selec 1");
    const std::string reason = "1=SQLITE_ERROR: near \"selec\": syntax error";
    expectFailure(statement.error(), "Statement", reason, "selec 1");
    EXPECT_EQ(everyOperation(statement), "");
    EXPECT_EQ(everyFact(statement), nothing_known);
    expectError(statement.error(), reason, "selec 1");
    statement.release();
    EXPECT_EQ(everyOperation(statement), "");
    expectReport({});
    EXPECT_TRUE(statement.one<int>().error().offset());
}

// --- The database behind it

TEST_F(StatementTest, DatabaseThatWasNeverOpenedIsAFailure)
{
    sql::Database database;
    Statement statement(database, "select 1");
    expectFailure(statement.error(), "Statement", "21=SQLITE_MISUSE: the database is not open",
                  "select 1");
    EXPECT_EQ(everyOperation(statement), "");
    EXPECT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
    EXPECT_EQ(everyOperation(statement), "") << "it was not compiled";
    EXPECT_EQ(everyFact(statement), nothing_known);
}

class ClosedDatabaseTest : public StatementTest {
protected:
    // Closes the connection while the statement lives, which leaks it.
    void close()
    {
        _leaked = _database.getHandle();
        _database.close();
        _diagnostics.clear(); // which it reports
    }

    // Its statements are gone by then.
    void TearDown() override
    {
        StatementTest::TearDown();
        EXPECT_EQ(test::closeConnection(_leaked), SQLITE_OK);
    }

    void expectEachFails(Statement& statement, const std::string& operation,
                         const std::string& reason)
    {
        expectFailure(statement, operation, reason);
        EXPECT_FALSE(statement.finished());
    }

    sqlite3* _leaked = nullptr;
};

TEST_F(ClosedDatabaseTest, EveryUseAfterwardsIsAFailure)
{
    for (const bool again : {false, true}) {
        Statement statement(_database, "select ? as id");
        statement.bind(1, 7);
        ASSERT_TRUE(statement.next());
        if (_leaked == nullptr)
            close();
        else
            break;
        if (again)
            ADD_FAILURE();
        int number = 0;
        EXPECT_FALSE(statement.next());
        expectEachFails(statement, "next", closed);
        EXPECT_FALSE(statement.next(number));
        expectEachFails(statement, "next", closed);
        EXPECT_FALSE(statement.run());
        expectEachFails(statement, "run", closed);
        EXPECT_FALSE(statement.run(7));
        expectEachFails(statement, "run", closed);
        EXPECT_TRUE(statement.one<int>().failed());
        expectEachFails(statement, "one", closed);
        EXPECT_TRUE(statement.one<int>(7).failed());
        expectEachFails(statement, "one", closed);
        EXPECT_TRUE(statement.column(0).isNull());
        expectEachFails(statement, "column", closed);
        EXPECT_TRUE(statement.column("id").isNull());
        expectEachFails(statement, "column", closed);
        EXPECT_FALSE(statement.reset());
        expectEachFails(statement, "reset", closed);
        statement.bind(1, 7);
        expectEachFails(statement, "bind", closed);
        statement.bind(":id", 7); // sticks
        statement.clearBindings();
        expectReport({});
        ASSERT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
        EXPECT_FALSE(statement.run(7));
        expectEachFails(statement, "run", closed);
        break;
    }
}

TEST_F(ClosedDatabaseTest, OpenedAnewItIsAnotherDatabase)
{
    Statement statement(_database, "select 1");
    close();
    ASSERT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
    EXPECT_FALSE(statement.next());
    expectEachFails(statement, "next", closed);
    statement = Statement(_database, "select 2");
    EXPECT_EQ(statement.one<int>().valueOr(0), 2);
    statement.release();
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
    expectEachFails(*statement, "next", closed);
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

class GoneStatementTest : public StatementTest {
protected:
    GoneStatementTest()
    {
        run("create table t (id integer primary key, name text unique)");
    }

    void expectGone(Statement& statement)
    {
        EXPECT_FALSE(statement.isPrepared());
        EXPECT_FALSE(statement.finished());
        EXPECT_EQ(statement.text(), "");
        EXPECT_EQ(statement.expandedText(), "");
        EXPECT_TRUE(statement.isReadOnly());
        EXPECT_EQ(statement.parameterCount(), 0);
        EXPECT_EQ(statement.columnCount(), 0);
        EXPECT_EQ(statement.columnName(0), "");
        int number = 0;
        EXPECT_FALSE(statement.next());
        expectFailure(statement, "next", gone);
        EXPECT_FALSE(statement.next(number));
        expectFailure(statement, "next", gone);
        EXPECT_FALSE(statement.run());
        expectFailure(statement, "run", gone);
        EXPECT_FALSE(statement.run(7));
        expectFailure(statement, "run", gone);
        EXPECT_TRUE(statement.one<int>().failed());
        expectFailure(statement, "one", gone);
        EXPECT_TRUE(statement.one<int>(7).failed());
        expectFailure(statement, "one", gone);
        EXPECT_TRUE(statement.column(0).isNull());
        expectFailure(statement, "column", gone);
        EXPECT_TRUE(statement.column("id").isNull());
        expectFailure(statement, "column", gone);
        EXPECT_FALSE(statement.reset());
        expectFailure(statement, "reset", gone);
        statement.bind(1, 7);
        expectFailure(statement, "bind", gone);
        statement.bind(":id", 7).bind(2, 8); // sticks
        statement.clearBindings();
        EXPECT_FALSE(statement.run());
        expectReport({});
        EXPECT_FALSE(statement.finished());
        statement.release();
        expectReport({});
    }
};

TEST_F(GoneStatementTest, ReleasedWhereverItStands)
{
    Statement fresh(_database, "select 1");
    fresh.release();
    expectGone(fresh);

    Statement ended(_database, "select 1");
    EXPECT_TRUE(ended.run());
    ended.release();
    expectGone(ended);

    Statement atRow(_database, "values (1), (2)");
    EXPECT_TRUE(atRow.next());
    atRow.release();
    expectGone(atRow);

    Statement bound(_database, "insert into t values (?, ?)");
    EXPECT_TRUE(bound.run(1, "tea"));
    bound.release();
    expectGone(bound);

    Statement failed(_database, "insert into t values (?, ?)");
    EXPECT_FALSE(failed.run(1, "tea"));
    _diagnostics.clear();
    failed.release();
    expectGone(failed);
}

TEST_F(GoneStatementTest, MovedFromWhereverItStands)
{
    Statement fresh(_database, "select 1");
    Statement newOwner(std::move(fresh));
    expectGone(fresh);

    Statement ended(_database, "select 2");
    EXPECT_TRUE(ended.run());
    newOwner = std::move(ended);
    expectGone(ended);
    EXPECT_TRUE(newOwner.finished());

    Statement atRow(_database, "values (1), (2)");
    EXPECT_TRUE(atRow.next());
    newOwner = std::move(atRow);
    expectGone(atRow);

    Statement bound(_database, "insert into t values (?, ?)");
    EXPECT_TRUE(bound.run(1, "tea"));
    newOwner = std::move(bound);
    expectGone(bound);

    Statement unfit(_database, "select ?");
    unfit.bind(2, 7);
    _diagnostics.clear();
    newOwner = std::move(unfit);
    EXPECT_FALSE(unfit.isPrepared());
    EXPECT_FALSE(unfit.run(7));
    expectFailure(unfit, "run", gone);
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
    Statement statement(_database, "values (1), (2)");
    Statement& same = statement;
    ASSERT_TRUE(statement.next());
    statement = std::move(same);
    EXPECT_EQ(statement.column(0).asInteger(), 1);
    EXPECT_TRUE(statement.next());
    EXPECT_EQ(statement.text(), "values (1), (2)");
    EXPECT_FALSE(statement.next());
    EXPECT_TRUE(statement.finished());
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
