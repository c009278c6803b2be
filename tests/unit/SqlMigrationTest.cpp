#include "SqlMigration.h"

#include "SqlRecordSet.h"
#include "SqlStatement.h"
#include "SqlStopFlag.h"
#include "SqlTransaction.h"

#include "Cases.h"
#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace report = test::report;

using sql::migrate;
using sql::MigrationStep;
using std::chrono::milliseconds;
using test::joined;
using test::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

using Function = bool (*)(sql::Database&);
struct Counter;

static_assert(std::is_same_v<decltype(&sql::migrateSteps),
                             sql::Result<int> (*)(sql::Database&, const MigrationStep*, std::size_t,
                                                  milliseconds)>);
static_assert(std::is_trivially_copyable_v<MigrationStep>);
static_assert(std::is_constructible_v<MigrationStep, int, const char*>);
static_assert(std::is_constructible_v<MigrationStep, int, std::string&>);
static_assert(!std::is_constructible_v<MigrationStep, int, std::string>); // it would be gone
static_assert(!std::is_constructible_v<MigrationStep, int, const std::string>);
static_assert(std::is_constructible_v<MigrationStep, int, const std::string&>);
static_assert(std::is_constructible_v<MigrationStep, int, Function>);
static_assert(!std::is_constructible_v<MigrationStep, int, void (*)(sql::Database&)>);
static_assert(!std::is_constructible_v<MigrationStep, int, std::optional<int>&>);

const milliseconds forever(60000); // longer than any of this takes
const char locked[] = "5=SQLITE_BUSY: database is locked";
const char ask_version[] = "pragma user_version";

Texts failed(const std::string& statement, const std::string& reason)
{
    return report::statementFailed("migrate", statement, reason);
}

// What comes before that when the transaction is lost.
Texts lost()
{
    return {report::error("Transaction::noteRollback",
                          "The transaction was rolled back: nothing is "
                          "committed before its scope ends")};
}
Texts refused()
{
    return {report::error("Transaction::refuseCommit",
                          "Refused a commit that is not the transaction's own")};
}

bool run(sql::Database& database, const char* statement)
{
    return sqlite3_exec(database.getHandle(), statement, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// A file with tables of which one refers to the other, and another connection to it.
class MigrationTest : public test::ReportTest {
protected:
    MigrationTest()
    {
        _other.run("create table room (id integer primary key, name text);"
                   "create table sensor (id integer primary key, room references room (id));"
                   "insert into room values (1, 'hall'); insert into sensor values (7, 1)");
        EXPECT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
    }

    void TearDown() override
    {
        _database.close();
        ReportTest::TearDown();
    }

    std::string rows(const std::string& query)
    {
        return test::rows(_database.getHandle(), query);
    }

    // All of the file, as the other connection sees it, which may write at once.
    std::string there()
    {
        const std::string all = _other.rows("pragma user_version") + "|"
                                + _other.rows("select group_concat(sql, ';') from sqlite_master")
                                + "|" + _other.rows("select * from room") + "|"
                                + _other.rows("select * from sensor");
        _other.run("begin immediate; rollback");
        return all;
    }

    // Fails with this error, and leaves the file and the setting as they were.
    void expectFailure(const std::vector<MigrationStep>& steps, const std::string& statement,
                       const std::string& reason, const Texts& before = {})
    {
        const std::string former = there();
        const std::string setting = rows("pragma foreign_keys");
        const sql::Result<int> version = migrate(_database, steps);
        ASSERT_TRUE(version.failed());
        const sql::Error& error = version.error();
        EXPECT_EQ(error.statement(), statement);
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name() + ": " + error.text(),
                  reason);
        expectReport(joined({before, failed(statement, reason)}));
        EXPECT_EQ(there(), former);
        EXPECT_EQ(rows("pragma foreign_keys"), setting);
        EXPECT_NE(sqlite3_get_autocommit(_database.getHandle()), 0);
        EXPECT_EQ(sqlite3_next_stmt(_database.getHandle(), nullptr), nullptr);
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("home.db");
    test::Connection _other{_file};
    sql::Database _database;
};

// --- Steps

TEST_F(MigrationTest, StepsRunInTheirOrderAndTheVersionIsThatOfTheLast)
{
    const MigrationStep steps[] = {
        {1, "create table t (a); insert into t values (1);"},
        {2, "-- nothing but this\n"},
        {5, "alter table t add column b; update t set b = a + 1"},
    };
    const sql::Result<int> version = migrate(_database, steps);
    ASSERT_TRUE(version);
    EXPECT_EQ(*version, 5);
    EXPECT_EQ(_other.rows("select user_version, a, b from t, pragma_user_version"), "5|1|2");
}

TEST_F(MigrationTest, StepsThatTheFileHasDoNotRunAgain)
{
    _other.run("pragma user_version = 2");
    const std::vector<MigrationStep> steps = {
        {1, "no statement"}, {2, "no statement"}, {3, "create table t (a)"}, {4, ""}};
    EXPECT_EQ(*migrate(_database, steps), 4);
    EXPECT_EQ(*migrate(_database, steps), 4);
    EXPECT_EQ(_other.rows(ask_version), "4");
}

TEST_F(MigrationTest, VersionBetweenTwoStepsNeedsTheLater)
{
    _other.run("pragma user_version = 3");
    const MigrationStep steps[] = {{2, "no statement"}, {4, "create table t (a)"}};
    EXPECT_EQ(*migrate(_database, steps), 4);
}

TEST_F(MigrationTest, FiftyVersionsFromEachOfThem)
{
    std::vector<std::string> texts;
    for (int i = 1; i <= 50; ++i)
        texts.push_back("create table t" + std::to_string(i) + " (a)");
    for (int from = 0; from <= 50; ++from) {
        sql::Database database;
        EXPECT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
        std::vector<MigrationStep> steps;
        for (int i = 1; i <= 50; ++i) {
            if (i == from + 1) {
                EXPECT_EQ(*migrate(database, steps), from);
            }
            steps.emplace_back(i, texts[i - 1]);
        }
        EXPECT_EQ(*migrate(database, steps), 50);
        EXPECT_EQ(test::rows(database.getHandle(), "select count(*) from sqlite_master"), "50");
    }
}

TEST_F(MigrationTest, NoStepsAreVersionZero)
{
    EXPECT_EQ(*migrate(_database, std::vector<MigrationStep>()), 0);
    EXPECT_EQ(*migrate(_database, std::array<MigrationStep, 0>()), 0);
}

TEST_F(MigrationTest, FileThatIsUpToDateIsOnlyRead)
{
    _other.run("pragma user_version = 1; begin immediate; insert into room values (2, 'attic')");
    const MigrationStep steps[] = {{1, "create table t (a)"}};
    {
        const test::Statements statements(_database.getHandle());
        EXPECT_EQ(*migrate(_database, steps), 1);
        EXPECT_THAT(statements.texts(), ElementsAre(ask_version));
    }
    _other.run("rollback");
    sql::Database reader;
    EXPECT_TRUE(reader.open(_file, sql::Database::access_read_only, false, 0));
    EXPECT_EQ(*migrate(reader, steps), 1);
}

TEST_F(MigrationTest, StatementsAreTraced)
{
    _diagnostics.setLevel(9);
    const MigrationStep steps[] = {{1, "create table t (a); insert into t values (1)"}};
    EXPECT_TRUE(migrate(_database, steps));
    const auto migrating = [](const std::string& statement) {
        return report::debug(2, "Migration::migrate", "stmt='" + statement + "'");
    };
    const auto stepping = [](const std::string& statement) {
        return report::started("migrate", statement);
    };
    const auto ofTransaction = [](const std::string& operation, const std::string& statement) {
        return report::debug(2, "Transaction::" + operation, "stmt='" + statement + "'");
    };
    expectReport({migrating(ask_version), ofTransaction("begin", "begin immediate"),
                  migrating(ask_version), stepping("create table t (a);"),
                  stepping("insert into t values (1)"),
                  report::started("next", "pragma main.foreign_key_check"),
                  report::withValues("next", "pragma main.foreign_key_check"),
                  migrating("pragma user_version = 1"), ofTransaction("commit", "commit")});
    _diagnostics.setLevel(3);
}

// --- Versions that do not fit

TEST_F(MigrationTest, FileOfANewerProgramIsRefused)
{
    _other.run("pragma user_version = 3");
    expectFailure({{1, "create table t (a)"}, {2, "create table u (a)"}}, ask_version,
                  "20=SQLITE_MISMATCH: the file has version 3, the program those up to 2");
    expectFailure({}, ask_version,
                  "20=SQLITE_MISMATCH: the file has version 3, the program those up to 0");
    const MigrationStep none[] = {{1, ""}};
    EXPECT_TRUE(migrate(_database, none).error().isMismatch());
    _diagnostics.clear();
}

TEST_F(MigrationTest, NegativeVersionIsRefused)
{
    _other.run("pragma user_version = -1");
    expectFailure({{1, "create table t (a)"}}, ask_version,
                  "20=SQLITE_MISMATCH: the file has version -1, the program those up to 1");
}

TEST_F(MigrationTest, VersionsThatDoNotAscendAreMisuse)
{
    const std::string words =
        "21=SQLITE_MISUSE: the versions of the steps do not ascend from 1 on: ";
    expectFailure({{1, ""}, {3, ""}, {2, ""}}, "migrate", words + "2 follows 3");
    expectFailure({{1, ""}, {1, ""}}, "migrate", words + "1 follows 1");
    expectFailure({{0, ""}}, "migrate", words + "0 follows 0");
    expectFailure({{-1, ""}, {1, ""}}, "migrate", words + "-1 follows 0");
}

TEST_F(MigrationTest, OpenTransactionIsMisuse)
{
    const MigrationStep steps[] = {{1, "create table t (a)"}};
    EXPECT_TRUE(run(_database, "begin"));
    EXPECT_TRUE(migrate(_database, steps).error().isMisuse());
    expectReport(failed("migrate", "21=SQLITE_MISUSE: a transaction is open already"));
    EXPECT_TRUE(run(_database, "commit"));
    EXPECT_TRUE(migrate(_database, steps));
}

TEST_F(MigrationTest, DatabaseThatIsNotOpenIsMisuse)
{
    const MigrationStep steps[] = {{1, "create table t (a)"}};
    sql::Database closed;
    EXPECT_TRUE(migrate(closed, steps).error().isMisuse());
    expectReport(failed("migrate", "21=SQLITE_MISUSE: the database is not open"));
}

TEST_F(MigrationTest, FileThatIsNoDatabaseIsRefused)
{
    test::writeFile(_directory.file("text"), std::string(1000, 'x'));
    sql::Database database;
    EXPECT_TRUE(database.open(_directory.file("text"), sql::Database::access_read_write, false, 0));
    const MigrationStep steps[] = {{1, "create table t (a)"}};
    EXPECT_TRUE(migrate(database, steps).error().isCorrupt());
    expectReport(failed(ask_version, "26=SQLITE_NOTADB: file is not a database"));
}

// --- Steps that fail

TEST_F(MigrationTest, StepThatFailsAtEachOfItsStatementsLeavesTheFileAsItWas)
{
    const std::vector<std::string> statements = {"create table t (a unique)",
                                                 "insert into t values (1)",
                                                 "delete from sensor",
                                                 "drop table sensor",
                                                 "alter table room add column area",
                                                 "create index by_area on room (area)"};
    for (std::size_t at = 0; at <= statements.size(); ++at) {
        std::string text;
        for (std::size_t i = 0; i < at; ++i)
            text += statements[i] + "; ";
        const std::string number = std::to_string(at + 1);
        const std::vector<MigrationStep> steps = {{1, "create table before (a)"}, {4, text}};
        const auto failing = [&](const std::string& statement) {
            return std::vector<MigrationStep>{steps[0], {4, statement}};
        };
        const std::string wrong = text + "insert into missing values (1); create table u (a)";
        expectFailure(failing(wrong), "insert into missing values (1);",
                      "1=SQLITE_ERROR: version 4: statement " + number
                          + ": no such table: missing");
        const std::string twice = text + "insert into room (id) values (1)";
        expectFailure(failing(twice), "insert into room (id) values (1)",
                      "1555=SQLITE_CONSTRAINT_PRIMARYKEY: version 4: statement " + number
                          + ": UNIQUE constraint failed: room.id");
    }
}

TEST_F(MigrationTest, ConflictThatRollsBackIsAFailure)
{
    const char conflict[] = "insert or rollback into room values (1, 'again')";
    expectFailure({{1, "delete from sensor"}, {2, conflict}}, conflict,
                  "1555=SQLITE_CONSTRAINT_PRIMARYKEY: version 2: statement 1: UNIQUE constraint "
                  "failed: room.id",
                  lost());
}

TEST_F(MigrationTest, TextWithAZeroByteDoesNotRun)
{
    const std::string text("create table t (a); \0 create table u (a)", 40);
    expectFailure({{1, text}}, text.c_str(),
                  "21=SQLITE_MISUSE: version 1: there is a zero byte in the text");
}

TEST_F(MigrationTest, PragmaThatATransactionForbidsIsAFailure)
{
    expectFailure({{1, "pragma synchronous = off"}}, "pragma synchronous = off",
                  "1=SQLITE_ERROR: version 1: statement 1: Safety level may not be changed inside "
                  "a transaction");
}

TEST_F(MigrationTest, StatementsThatEndTheTransactionOrLeaveTheFileAreRefused)
{
    for (const std::string statement :
         {"begin immediate", "COMMIT", "end", "/* so */ rollback", "Vacuum", "rollback to here",
          "vacuum into 'copy.db'", "attach 'copy.db' as copy", "detach copy"}) {
        const std::string text = "create table t (a); -- and then\n" + statement + "; drop table t";
        const std::string own = statement.substr(statement[0] == '/' ? 9 : 0);
        expectFailure({{3, text}}, own + ";",
                      "21=SQLITE_MISUSE: version 3: statement 2: a step cannot begin or end a "
                      "transaction, vacuum, attach or detach");
    }
}

TEST_F(MigrationTest, TriggersAndSavepointsAreNoEndOfTheTransaction)
{
    const MigrationStep steps[] = {
        {1, "create trigger t after insert on room begin delete from sensor; end; savepoint s;"
            "insert into room values (2, 'attic'); release s; savepoint open"}};
    EXPECT_EQ(*migrate(_database, steps), 1);
    EXPECT_EQ(_other.rows("select * from sensor"), "");
    EXPECT_TRUE(run(_database, "begin immediate; rollback"));
}

// --- Steps that are functions

bool addRoom(sql::Database& database)
{
    return sql::Statement(database, "insert into room values (2, 'attic')").run();
}

struct Counter {
    bool operator()(sql::Database&)
    {
        return ++calls > 0;
    }

    int calls = 0;
};

TEST_F(MigrationTest, FunctionsAndObjectsAreSteps)
{
    Counter counter;
    const std::string name = "cellar";
    const auto rename = [&name](sql::Database& database) {
        return sql::Statement(database, "update room set name = ? where id = 2").run(name);
    };
    const MigrationStep steps[] = {
        {1, addRoom},
        {2, counter},
        {3, rename},
        {4, [](sql::Database& database) {
             return sql::RecordSet(database.getHandle()).query("delete from sensor");
         }}};
    EXPECT_EQ(*migrate(_database, steps), 4);
    EXPECT_EQ(*migrate(_database, steps), 4);
    EXPECT_EQ(counter.calls, 1);
    EXPECT_EQ(_other.rows("select * from room where id = 2"), "2|cellar");
    EXPECT_EQ(_other.rows("select * from sensor"), "");
}

TEST_F(MigrationTest, FunctionThatFailsIsUndoneAndSaysWhatSqliteSays)
{
    const char twice[] = "insert into room (id) values (1)";
    const auto fails = [&](sql::Database& database) {
        return addRoom(database) && sql::Statement(database, twice).run();
    };
    expectFailure({{2, fails}}, "migrate",
                  "1555=SQLITE_CONSTRAINT_PRIMARYKEY: version 2: the function has failed: UNIQUE "
                  "constraint failed: room.id",
                  report::statementFailed("run", twice,
                                          "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint "
                                          "failed: room.id"));
}

TEST_F(MigrationTest, FunctionThatFailsByItselfIsUndone)
{
    const auto fails = [](sql::Database& database) {
        return addRoom(database) && false;
    };
    expectFailure({{1, "create table t (a)"}, {2, fails}}, "migrate",
                  "4=SQLITE_ABORT: version 2: the function has failed");
}

#ifdef __cpp_exceptions
TEST_F(MigrationTest, FunctionThatThrowsIsUndoneAndItsExceptionPasses)
{
    EXPECT_TRUE(run(_database, "pragma foreign_keys = on"));
    const std::string former = there();
    const MigrationStep steps[] = {{1, "create table t (a)"},
                                   {2, [](sql::Database& database) {
                                        EXPECT_TRUE(addRoom(database));
                                        throw std::runtime_error("thrown");
                                        return true;
                                    }}};
    EXPECT_THROW(static_cast<void>(migrate(_database, steps)), std::runtime_error);
    EXPECT_EQ(there(), former);
    EXPECT_EQ(rows("pragma foreign_keys"), "1");
}
#endif

TEST_F(MigrationTest, FunctionThatCommitsIsAFailureWhateverItReturns)
{
    for (const bool answer : {false, true}) {
        for (const bool begins : {false, true}) {
            const auto commits = [=](sql::Database& database) {
                EXPECT_FALSE(run(database, "commit"));
                // There is none to commit any more.
                EXPECT_EQ(run(database, begins ? "begin immediate; delete from sensor" : "commit"),
                          begins);
                return answer;
            };
            const std::string why =
                answer
                    ? "516=SQLITE_ABORT_ROLLBACK: version 2: the step has finished the transaction"
                : begins ? "4=SQLITE_ABORT: version 2: the function has failed"
                         : "1=SQLITE_ERROR: version 2: the function has failed: cannot commit - no "
                           "transaction is active";
            expectFailure({{1, "create table t (a)"}, {2, commits}}, "migrate", why,
                          joined({refused(), lost()}));
        }
    }
}

TEST_F(MigrationTest, FunctionThatRollsBackIsAFailure)
{
    const auto undoes = [](sql::Database& database) {
        return run(database, "rollback; begin immediate") && addRoom(database);
    };
    expectFailure({{1, "create table t (a)"}, {2, undoes}}, "migrate",
                  "516=SQLITE_ABORT_ROLLBACK: version 2: the step has finished the transaction",
                  lost());
}

TEST_F(MigrationTest, FunctionThatVacuumsIsAFailure)
{
    const auto vacuums = [](sql::Database& database) {
        return run(database, "vacuum");
    };
    expectFailure({{1, vacuums}}, "migrate",
                  "1=SQLITE_ERROR: version 1: the function has failed: cannot VACUUM from within a "
                  "transaction");
}

TEST_F(MigrationTest, FunctionThatClosesTheDatabaseIsAFailure)
{
    sqlite3* const handle = _database.getHandle();
    const MigrationStep steps[] = {{1, [](sql::Database& database) {
                                        EXPECT_TRUE(addRoom(database));
                                        database.close();
                                        return true;
                                    }}};
    const std::string former = there();
    EXPECT_TRUE(migrate(_database, steps).error().isMisuse());
    expectReport(
        joined({{report::asserted("void sql::Database::close()", "rc == SQLITE_OK")},
                failed("migrate",
                       "21=SQLITE_MISUSE: version 1: the database was closed or opened anew")}));
    EXPECT_EQ(there(), former);
    EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
}

// --- Foreign keys

TEST_F(MigrationTest, TableThatOthersReferToCanBeReplaced)
{
    for (const char* const setting : {"0", "1"}) {
        _other.run("pragma user_version = 0");
        EXPECT_TRUE(run(_database, ("pragma foreign_keys = " + std::string(setting)).c_str()));
        const MigrationStep steps[] = {
            {1, "create table new_room (id integer primary key, name text not null);"
                "insert into new_room select id, name from room; drop table room;"
                "alter table new_room rename to room"}};
        EXPECT_EQ(*migrate(_database, steps), 1);
        EXPECT_EQ(rows("pragma foreign_keys"), setting);
        EXPECT_EQ(_other.rows("select * from sensor"), "7|1");
    }
}

TEST_F(MigrationTest, ReferenceThatAStepBreaksIsAFailure)
{
    for (const char* const setting : {"pragma foreign_keys = off", "pragma foreign_keys = on"}) {
        EXPECT_TRUE(run(_database, setting));
        expectFailure({{1, "delete from room"}, {2, "create table t (a)"}},
                      "pragma main.foreign_key_check",
                      "787=SQLITE_CONSTRAINT_FOREIGNKEY: row 7 of sensor refers to none of room");
    }
}

TEST_F(MigrationTest, ReferenceOfARowWithoutANumberIsAFailure)
{
    expectFailure({{1, "create table t (a primary key, b references room) without rowid;"
                       "insert into t values (1, 9)"}},
                  "pragma main.foreign_key_check",
                  "787=SQLITE_CONSTRAINT_FOREIGNKEY: a row of t refers to none of room");
}

TEST_F(MigrationTest, ReferenceThatWasBrokenBeforeIsAFailureUntilAStepMendsIt)
{
    _other.run("insert into sensor values (8, 9)");
    expectFailure({{1, "create table t (a)"}}, "pragma main.foreign_key_check",
                  "787=SQLITE_CONSTRAINT_FOREIGNKEY: row 8 of sensor refers to none of room");
    const MigrationStep mended[] = {{1, "delete from sensor where room = 9"}};
    EXPECT_EQ(*migrate(_database, mended), 1);
}

TEST_F(MigrationTest, ReferenceThatCannotBeCheckedIsAFailure)
{
    const std::string former = there();
    const MigrationStep steps[] = {{1, "create table t (a references room (name));"
                                       "insert into t values (1)"}};
    const sql::Result<int> version = migrate(_database, steps);
    EXPECT_EQ(version.error().text(), "foreign key mismatch - \"t\" referencing \"room\"");
    expectReport(report::statementFailed(
        "Statement", "pragma main.foreign_key_check",
        "1=SQLITE_ERROR: foreign key mismatch - \"t\" referencing \"room\""));
    EXPECT_EQ(there(), former);
}

// --- Other connections, and stops

TEST_F(MigrationTest, OtherConnectionThatWritesIsAFailureWithoutPatience)
{
    const MigrationStep steps[] = {{1, "create table t (a)"}};
    for (const char* const begin : {"begin immediate", "begin exclusive"}) {
        _other.run(begin);
        EXPECT_TRUE(migrate(_database, steps).error().isBusy());
        expectReport(report::statementFailed("begin", "begin immediate", locked));
        _other.run("rollback");
    }
    EXPECT_EQ(*migrate(_database, steps), 1);
}

TEST_F(MigrationTest, FileThatCannotBeReadHasNoKnownVersion)
{
    const std::vector<MigrationStep> none;
    _other.run("begin exclusive");
    EXPECT_TRUE(migrate(_database, none).error().isBusy());
    expectReport(report::statementFailed("begin", "begin immediate", locked));
    _other.run("rollback");
    EXPECT_EQ(*migrate(_database, none), 0);
}

// As a program may forbid it, by SQLite's authorizer.
TEST_F(MigrationTest, VersionThatCannotBeReadInTheTransactionIsAFailure)
{
    int asked = 0;
    const auto forbidSecond = [](void* count, int action, const char* name, const char*,
                                 const char*, const char*) {
        const bool isVersion = action == SQLITE_PRAGMA && std::string(name) == "user_version";
        return isVersion && ++*static_cast<int*>(count) == 2 ? SQLITE_DENY : SQLITE_OK;
    };
    sqlite3_set_authorizer(_database.getHandle(), forbidSecond, &asked);
    expectFailure({{1, "create table t (a)"}}, ask_version, "23=SQLITE_AUTH: not authorized");
    EXPECT_EQ(asked, 2);
    sqlite3_set_authorizer(_database.getHandle(), nullptr, nullptr);
}

// What it has left is its own affair, a reference to nothing, too.
TEST_F(MigrationTest, OtherConnectionThatMigratesIsWaitedForAndNothingDoneTwice)
{
    _other.run("insert into sensor values (8, 9)");
    for (const int further : {0, 1}) {
        _other.run("pragma user_version = 0; begin exclusive; pragma user_version = "
                   + std::to_string(1 + further));
        _diagnostics.setLevel(7);
        _diagnostics.onLine([&](const test::LogLine&) {
            if (sqlite3_get_autocommit(_other) == 0)
                _other.run("commit");
        });
        const MigrationStep steps[] = {{1, "create table t (a)"}};
        const sql::Result<int> version = migrate(_database, steps, forever);
        _diagnostics.onLine(nullptr);
        Texts lines = {report::debug(1, "Transaction::begin",
                                     "Waiting for another connection to 'begin immediate'")};
        EXPECT_EQ(version.valueOr(0), 1 - further);
        if (further > 0)
            lines = joined({lines, failed(ask_version, "20=SQLITE_MISMATCH: the file has version "
                                                       "2, the program those up to 1")});
        expectReport(lines);
        _diagnostics.setLevel(3);
        EXPECT_EQ(rows("select count(*) from sqlite_master where name = 't'"), "0");
    }
}

TEST_F(MigrationTest, ReaderThatKeepsItFromCommittingIsAFailure)
{
    const MigrationStep steps[] = {{1, "create table t (a)"}};
    _other.run("begin; select * from room");
    EXPECT_TRUE(migrate(_database, steps).error().isBusy());
    expectReport(report::statementFailed("commit", "commit", locked));
    _other.run("commit");
    EXPECT_EQ(_other.rows(ask_version), "0");
    EXPECT_EQ(*migrate(_database, steps), 1);
}

TEST_F(MigrationTest, StopAtAnyPointLeavesTheFileAsItWas)
{
    EXPECT_TRUE(run(_database, "pragma foreign_keys = on"));
    struct Stop {
        sql::StopFlag flag;
        int left;
    };
    const auto strike = [](void* stop) {
        Stop& self = *static_cast<Stop*>(stop);
        if (--self.left == 0)
            self.flag.set(); // as another thread does, at any time
        return 0;
    };
    const MigrationStep steps[] = {{1, "create table t (a); insert into t select id from room"},
                                   {2, "alter table t add column b; alter table t rename to u"}};
    const std::string former = there();
    int stopped = 0;
    Stop stop{sql::StopFlag(_database), 0};
    for (int at = 1; stop.left <= 0; ++at) {
        stop.left = at;
        sqlite3_progress_handler(_database.getHandle(), 1, strike, &stop);
        const sql::Result<int> version = migrate(_database, steps);
        sqlite3_progress_handler(_database.getHandle(), 0, nullptr, nullptr);
        stop.flag.clear();
        EXPECT_TRUE(version || version.error().isStopped()) << version.error().text();
        EXPECT_EQ(_diagnostics.take().empty(), static_cast<bool>(version));
        EXPECT_EQ(rows("pragma foreign_keys"), "1");
        if (version)
            _other.run("drop table u; pragma user_version = 0");
        else
            ++stopped;
        EXPECT_EQ(there(), former);
    }
    EXPECT_GT(stopped, 40);
}

TEST_F(MigrationTest, NothingBeginsWhileAStopIsAskedFor)
{
    EXPECT_TRUE(run(_database, "pragma foreign_keys = on"));
    const MigrationStep steps[] = {{1, "create table t (a)"}};
    sql::StopFlag stop(_database);
    stop.set();
    EXPECT_TRUE(migrate(_database, steps).error().isStopped());
#if SQLITE_VERSION_NUMBER >= 3040000
    expectReport(failed(ask_version, "9=SQLITE_INTERRUPT: interrupted"));
#else // which does not look whether to stop there
    expectReport(
        report::statementFailed("begin", "begin immediate", "9=SQLITE_INTERRUPT: interrupted"));
#endif
    stop.clear();
    EXPECT_EQ(rows("pragma foreign_keys"), "1");
    EXPECT_EQ(*migrate(_database, steps), 1);
}

} // namespace
