#include "SqlRecorder.h"

#include "SqlStatement.h"

#include "Interruption.h"
#include "PreparedTest.h"
#include "Reports.h"
#include "Session.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/syscall.h>
#include <type_traits>
#include <unistd.h>

static bool hasEntropy = true;

// Called in place of the C library's.
extern "C" int getentropy(void* buffer, std::size_t size)
{
    return hasEntropy && ::syscall(SYS_getrandom, buffer, size, 0) == static_cast<long>(size) ? 0
                                                                                              : -1;
}

namespace {

namespace report = test::report;

using sql::RecordedTransaction;
using sql::Recorder;
using std::string;

static_assert(!std::is_copy_constructible_v<Recorder> && !std::is_copy_assignable_v<Recorder>);
static_assert(!std::is_copy_constructible_v<
                  RecordedTransaction> && !std::is_copy_assignable_v<RecordedTransaction>);
static_assert(std::is_same_v<decltype(&Recorder::isRecording), bool (Recorder::*)() const>);
static_assert(std::is_same_v<decltype(&Recorder::renew), bool (Recorder::*)()>);
static_assert(std::is_same_v<decltype(&Recorder::unrecorded), sql::integer (Recorder::*)() const>);
static_assert(std::is_same_v<decltype(&Recorder::error), const sql::Error& (Recorder::*)() const>);
static_assert(
    std::is_same_v<decltype(&RecordedTransaction::isOpen), bool (RecordedTransaction::*)() const>);
static_assert(
    std::is_same_v<decltype(&RecordedTransaction::commit), bool (RecordedTransaction::*)()>);
static_assert(
    std::is_same_v<decltype(&RecordedTransaction::rollback), bool (RecordedTransaction::*)()>);
static_assert(std::is_same_v<decltype(&RecordedTransaction::error),
                             const sql::Error& (RecordedTransaction::*)() const>);

const char tables[] =
    "create table product (id integer primary key, name text, price);"
    "create table event (at integer, kind text not null, primary key (at, kind)) without rowid;"
    "create table other (id integer primary key, name text)";
const char outside[] = "Refused a commit of recorded tables outside of a RecordedTransaction";
const char renewal[] = "the schema has changed: renew the recorder";

// As early in a boot, while it lives.
struct WithoutEntropy {
    WithoutEntropy()
    {
        hasEntropy = false;
    }
    WithoutEntropy(const WithoutEntropy&) = delete;
    WithoutEntropy& operator=(const WithoutEntropy&) = delete;
    ~WithoutEntropy()
    {
        hasEntropy = true;
    }
};

class SqlRecorderTest : public test::PreparedTest {
protected:
    SqlRecorderTest()
    {
        runBoth(tables);
    }
    void runBoth(const string& statements)
    {
        run(statements);
        _twin.run(statements);
    }

    // Runs statements and commits them, recorded.
    static bool record(Recorder& recorder, sqlite3* db, const string& statements)
    {
        RecordedTransaction transaction(recorder);
        EXPECT_TRUE(transaction.isOpen());
        test::run(db, statements);
        return transaction.commit();
    }
    bool record(Recorder& recorder, const string& statements)
    {
        return record(recorder, _database.getHandle(), statements);
    }

    // What SQLite says to a statement.
    string tried(const string& statement)
    {
        char* text = nullptr;
        const int rc = sqlite3_exec(_database.getHandle(), statement.c_str(), nullptr, nullptr,
                                    &text);
        const string said = text != nullptr ? text : "";
        sqlite3_free(text);
        return std::to_string(rc) + "=" + said;
    }

    // The numbers of what the outbox has, each behind the one before it.
    string numbers()
    {
        return rows("select previous || '-' || number from sqlsync_outbox order by number");
    }
    // The changes that the outbox has, as statements of SQLite's own session tell them.
    string changes()
    {
        return rows("select hex(changes) from sqlsync_outbox order by number");
    }
    // What SQLite itself records of the same statements in another file.
    string expected(std::initializer_list<const char*> recorded, const string& statements)
    {
        const string bytes = test::changesOf(_twin, recorded, statements);
        string text;
        for (const unsigned char byte : bytes) {
            char digits[3];
            std::snprintf(digits, sizeof(digits), "%02X", byte);
            text += digits;
        }
        return text;
    }

    void expectFailure(const sql::Error& error, const string& operation, const string& reason)
    {
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name() + ": " + error.text(),
                  reason);
        expectReport(report::statementFailed(operation, error.statement(), reason));
    }

    test::Connection _twin;
};

// --- Making it ------------------------------------------------------------------------------------

TEST_F(SqlRecorderTest, MakesItsTablesOnce)
{
    string version;
    {
        const Recorder recorder(_database, {"product", "event"});
        EXPECT_TRUE(recorder.isRecording());
        EXPECT_FALSE(recorder.error());
        version = rows("pragma schema_version");
    }
    EXPECT_EQ(rows("select name from sqlite_master where name like 'sqlsync%' order by 1"),
              "sqlsync_outbox\nsqlsync_schema\nsqlsync_state");
    EXPECT_EQ(rows("select * from sqlsync_state"), "1|0|0|0|0|0|0");
    const Recorder again(_database, {"PRODUCT"});
    EXPECT_TRUE(again.isRecording());
    EXPECT_EQ(rows("pragma schema_version"), version);
    EXPECT_EQ(rows("select count(*) from sqlsync_schema"), "2");
    EXPECT_EQ(rows("select * from sqlsync_state"), "1|0|0|0|0|0|0");
}

TEST_F(SqlRecorderTest, TablesThatCannotBeRecordedAreRefusedByName)
{
    run("create table keyless (id); create table loose (name text primary key)");
    const std::vector<std::pair<string, string>> refusals = {
        {"missing", "21=SQLITE_MISUSE: table 'missing': there is none"},
        {"keyless", "21=SQLITE_MISUSE: table 'keyless': it has no key"},
        {"loose", "21=SQLITE_MISUSE: table 'loose': column 'name' of the key may be null"},
        {"sqlsync_state",
         "21=SQLITE_MISUSE: table 'sqlsync_state': names with sqlsync_ are the library's own"},
    };
    for (const auto& [table, reason] : refusals) {
        Recorder recorder(_database, {"product", table});
        EXPECT_FALSE(recorder.isRecording());
        expectFailure(recorder.error(), "Recorder", reason);
        RecordedTransaction transaction(recorder);
        EXPECT_FALSE(transaction.isOpen());
        EXPECT_FALSE(transaction.commit());
        EXPECT_FALSE(transaction.rollback());
        EXPECT_EQ(transaction.error().text(), recorder.error().text());
    }
    run("insert into product values (1, 'tea', 2)");
    EXPECT_EQ(rows("select count(*) from sqlite_master where name like 'sqlsync%'"), "0");
}

TEST_F(SqlRecorderTest, OnlyNamesThatBeginLikeTheLibrarysAreItsOwn)
{
    run("create table sqlsyncs (id integer primary key)");
    EXPECT_TRUE(Recorder(_database, {"sqlsyncs"}).isRecording());
}

// As a program may forbid it, by SQLite's authorizer.
TEST_F(SqlRecorderTest, TablesThatCannotBeLookedAtAreAFailure)
{
    const auto forbid = [](void* what, int action, const char* first, const char* second,
                           const char*, const char*) {
        const char* const asked = action == SQLITE_READ     ? second
                                  : action == SQLITE_PRAGMA ? first
                                                            : nullptr;
        return asked != nullptr && std::strcmp(asked, static_cast<const char*>(what)) == 0
                   ? SQLITE_DENY
                   : SQLITE_OK;
    };
    struct Case {
        string what, operation, reason;
    };
    std::vector<Case> cases = {
        {"rootpage", "Statement", "access to sqlite_master.rootpage is prohibited"},
        {"index_list", "one", "not authorized"},
        {"table_xinfo", "next", "not authorized"},
    };
    for (Case& refused : cases) {
        sqlite3_set_authorizer(_database.getHandle(), forbid, refused.what.data());
        const Recorder recorder(_database, {"product"});
        sqlite3_set_authorizer(_database.getHandle(), nullptr, nullptr);
        expectFailure(recorder.error(), refused.operation.c_str(),
                      "23=SQLITE_AUTH: " + refused.reason);
    }
}

TEST_F(SqlRecorderTest, WhatCannotBeRecordedNowIsAFailure)
{
    const Recorder none(_database, {});
    expectFailure(none.error(), "Recorder", "21=SQLITE_MISUSE: there are no tables");
    run("begin");
    const Recorder inside(_database, {"product"});
    expectFailure(inside.error(), "Recorder", "21=SQLITE_MISUSE: a transaction is open");
    run("rollback");
    const Recorder one(_database, {"product"});
    const Recorder other(_database, {"event"});
    EXPECT_FALSE(other.isRecording());
    expectFailure(other.error(), "Recorder", "21=SQLITE_MISUSE: the connection has a recorder");
    sql::Database closed;
    const Recorder unopened(closed, {"product"});
    expectFailure(unopened.error(), "Recorder", "21=SQLITE_MISUSE: the database is not open");
}

TEST_F(SqlRecorderTest, TableOfAnInboxIsRefused)
{
    run("create table sqlsync_inbox_table (name text primary key) without rowid;"
        "insert into sqlsync_inbox_table values ('event')");
    const Recorder recorder(_database, {"product", "event"});
    expectFailure(recorder.error(), "Recorder",
                  "21=SQLITE_MISUSE: table 'event': an inbox writes it in this file");
    EXPECT_TRUE(Recorder(_database, {"product"}).isRecording());
}

// --- Recording ------------------------------------------------------------------------------------

TEST_F(SqlRecorderTest, CommitStoresWhatHasChanged)
{
    Recorder recorder(_database, {"product", "event"});
    const string writes[] = {
        "insert into product values (1, 'tea', 2.5), (2, 'rum', null)",
        "update product set price = 3 where id = 1; insert into event values (7, 'door')",
        "delete from product; delete from event"};
    string wanted;
    for (const string& write : writes) {
        wanted += (wanted.empty() ? "" : "\n") + expected({"product", "event"}, write);
        EXPECT_TRUE(record(recorder, write));
    }
    EXPECT_EQ(changes(), wanted);
    EXPECT_EQ(numbers(), "0-1\n1-2\n2-3");
    EXPECT_EQ(rows("select number, sent, dropped from sqlsync_state"), "3|0|0");
    EXPECT_EQ(rows("select count(distinct incarnation) from sqlsync_outbox"), "1");
    EXPECT_EQ(
        rows("select count(*) from sqlsync_outbox o join sqlsync_schema s on s.hash = o.hash"),
        "3");
}

TEST_F(SqlRecorderTest, CommitWithoutAChangeStoresNothing)
{
    Recorder recorder(_database, {"product"});
    EXPECT_TRUE(record(recorder, "select 1"));
    EXPECT_TRUE(record(recorder, "insert into other values (1, 'tea')"));
    EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 2); delete from product"));
    EXPECT_EQ(numbers(), "");
    EXPECT_EQ(rows("select incarnation, number from sqlsync_state"), "0|0");
}

TEST_F(SqlRecorderTest, OtherTablesAndTheOutboxAreNotRecorded)
{
    const string wanted = expected({"product"}, "insert into product values (1, 'tea', 2)");
    Recorder recorder(_database, {"product"});
    EXPECT_TRUE(record(recorder,
                       "insert into product values (1, 'tea', 2);"
                       "insert into other values (1, 'x'); insert into event values (1, 'y')"));
    EXPECT_EQ(changes(), wanted);
    run("insert into other values (2, 'z'); delete from sqlsync_outbox");
    EXPECT_EQ(numbers(), "");
}

TEST_F(SqlRecorderTest, RowsThatTriggersChangeAreRecorded)
{
    runBoth(
        "create trigger noted after insert on product begin insert into event values (new.id, 'new'); end");
    const string write = "insert into product values (1, 'tea', 2)";
    const string wanted = expected({"product", "event"}, write);
    Recorder recorder(_database, {"product", "event"});
    EXPECT_TRUE(record(recorder, write));
    EXPECT_EQ(changes(), wanted);
    EXPECT_EQ(rows("select * from event"), "1|new");
}

TEST_F(SqlRecorderTest, SavepointsAndRollbacksLeaveNoTrace)
{
    Recorder recorder(_database, {"product"});
    const string kept = "insert into product values (1, 'tea', 2)";
    const string wanted = expected({"product"}, kept);
    {
        RecordedTransaction transaction(recorder);
        run("insert into product values (5, 'gone', 0)");
        EXPECT_TRUE(transaction.rollback());
    }
    {
        RecordedTransaction transaction(recorder);
        run("insert into product values (6, 'gone', 0)");
    }
    {
        RecordedTransaction transaction(recorder);
        run(kept);
        sql::Savepoint part(_database);
        run("update product set name = 'gone'; insert into product values (7, 'gone', 0)");
        EXPECT_TRUE(part.rollback());
        EXPECT_TRUE(transaction.commit());
    }
    EXPECT_EQ(changes(), wanted);
    EXPECT_EQ(numbers(), "0-1");
}

TEST_F(SqlRecorderTest, EndedTransactionLeavesNoRowsInMemory)
{
    run("insert into product with recursive n (i) as (select 1 union all select i + 1 from n limit 1000)"
        " select i, printf('%.*c', 1000, 'x'), 0 from n");
    Recorder recorder(_database, {"product"});
    const sqlite3_int64 before = sqlite3_memory_used();
    {
        RecordedTransaction transaction(recorder);
        run("update product set price = 1");
        EXPECT_GT(sqlite3_memory_used(), before + 50000);
    }
    EXPECT_LT(sqlite3_memory_used(), before + 50000);
    EXPECT_TRUE(record(recorder, "update product set price = 1"));
    run("delete from sqlsync_outbox");
    EXPECT_LT(sqlite3_memory_used(), before + 50000);
}

TEST_F(SqlRecorderTest, StatementThatWasCompiledBeforeIsRecordedToo)
{
    runBoth("insert into product values (1, 'tea', 2), (2, 'rum', 3)");
    sql::Statement clear(_database, "delete from product"); // SQLite would empty it in one step
    ASSERT_TRUE(clear.isPrepared());
    const string wanted = expected({"product"}, "delete from product");
    Recorder recorder(_database, {"product"});
    RecordedTransaction transaction(recorder);
    EXPECT_TRUE(clear.run());
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(changes(), wanted);
}

TEST_F(SqlRecorderTest, SettingThatExpiresStatementsStaysAsItIs)
{
    for (const char* const setting : {"0", "1"}) {
        run(string("pragma recursive_triggers = ") + setting);
        const Recorder recorder(_database, {"product"});
        EXPECT_EQ(rows("pragma recursive_triggers"), setting);
    }
}

TEST_F(SqlRecorderTest, FailedCommitCanBeRepeatedWithMoreWrites)
{
    run("create table parent (id integer primary key);"
        "create table child (id integer primary key, parent integer references parent deferrable initially"
        " deferred); pragma foreign_keys = on");
    Recorder recorder(_database, {"parent", "child"});
    RecordedTransaction transaction(recorder);
    run("insert into child values (1, 9)");
    EXPECT_FALSE(transaction.commit());
    expectFailure(transaction.error(), "commit",
                  "787=SQLITE_CONSTRAINT_FOREIGNKEY: FOREIGN KEY constraint failed");
    EXPECT_TRUE(transaction.isOpen());
    run("insert into parent values (9)");
    EXPECT_TRUE(transaction.commit());
    EXPECT_FALSE(transaction.error());
    EXPECT_EQ(numbers(), "0-1");
    EXPECT_EQ(test::countChanges([&] {
                  sql::Statement read(_database, "select changes from sqlsync_outbox");
                  return read.one<string>().valueOr("");
              }()),
              2);
}

TEST_F(SqlRecorderTest, CommitOfATransactionThatIsOverFails)
{
    run("create table once (id integer primary key on conflict rollback)");
    Recorder recorder(_database, {"product"});
    RecordedTransaction transaction(recorder);
    run("insert into product values (1, 'tea', 2); insert into once values (1)");
    EXPECT_EQ(tried("insert into once values (1)"), "19=UNIQUE constraint failed: once.id");
    _diagnostics.clear();
    EXPECT_FALSE(transaction.commit());
    expectFailure(transaction.error(), "commit",
                  "516=SQLITE_ABORT_ROLLBACK: the transaction was rolled back before");
    EXPECT_NE(sqlite3_get_autocommit(_database.getHandle()), 0);
    EXPECT_EQ(rows("select count(*) from sqlsync_outbox"), "0");
}

TEST_F(SqlRecorderTest, TransactionIsCommittedOnce)
{
    Recorder recorder(_database, {"product"});
    RecordedTransaction transaction(recorder);
    run("insert into product values (1, 'tea', 2)");
    EXPECT_TRUE(transaction.commit());
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_FALSE(transaction.commit());
    expectFailure(transaction.error(), "commit",
                  "21=SQLITE_MISUSE: the transaction has ended before");
    EXPECT_EQ(numbers(), "0-1");
}

TEST_F(SqlRecorderTest, RollbackThatSucceedsClearsTheError)
{
    run("create table parent (id integer primary key);"
        "create table child (id integer primary key, parent integer references parent deferrable"
        " initially deferred); pragma foreign_keys = on");
    Recorder recorder(_database, {"parent", "child"});
    RecordedTransaction transaction(recorder);
    run("insert into child values (1, 9)");
    EXPECT_FALSE(transaction.commit());
    _diagnostics.clear();
    EXPECT_TRUE(transaction.rollback());
    EXPECT_FALSE(transaction.error());
}

// --- Commits that bypass it -----------------------------------------------------------------------

TEST_F(SqlRecorderTest, CommitOutsideOfARecordedTransactionIsRefused)
{
    Recorder recorder(_database, {"product"});
    for (const char* const statement :
         {"insert into product values (1, 'tea', 2)",
          "savepoint a; insert into product values (1, 'tea', 2); release a",
          "begin; insert into product values (1, 'tea', 2); commit"}) {
        EXPECT_EQ(tried(statement), "19=constraint failed");
        expectReport({report::error("Recorder::Recorder", outside)});
        tried("rollback"); // SQLite leaves a savepoint open
        EXPECT_EQ(rows("select count(*) from product"), "0");
    }
    sql::Transaction plain(_database, sql::begin_immediate);
    run("insert into product values (1, 'tea', 2)");
    EXPECT_FALSE(plain.commit());
    _diagnostics.clear();
    EXPECT_EQ(rows("select count(*) from product"), "0");
}

TEST_F(SqlRecorderTest, OtherTablesAreWrittenAsEver)
{
    Recorder recorder(_database, {"product"});
    run("insert into other values (1, 'autocommit')");
    sql::Transaction plain(_database, sql::begin_immediate);
    run("insert into other values (2, 'transaction')");
    EXPECT_TRUE(plain.commit());
    // Not refused for what a refused or undone transaction before it had changed.
    EXPECT_EQ(tried("insert into product values (1, 'tea', 2)"), "19=constraint failed");
    run("begin; insert into product values (1, 'tea', 2); rollback");
    _diagnostics.clear();
    run("insert into other values (3, 'after')");
    EXPECT_EQ(rows("select count(*) from other"), "3");
}

TEST_F(SqlRecorderTest, WritesPassOnceItHasEnded)
{
    {
        Recorder recorder(_database, {"product"});
        EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 2)"));
    }
    run("insert into product values (2, 'rum', 2)");
    EXPECT_EQ(rows("select count(*) from product"), "2");
    EXPECT_EQ(numbers(), "0-1");
}

TEST_F(SqlRecorderTest, TransactionsOfOthersGiveTheHooksBack)
{
    Recorder recorder(_database, {"product"});
    {
        sql::Transaction plain(_database, sql::begin_immediate);
        sql::Savepoint part(_database);
    }
    EXPECT_EQ(tried("insert into product values (1, 'tea', 2)"), "19=constraint failed");
    expectReport({report::error("Recorder::Recorder", outside)});
}

// SQLite goes on with a write whose session was stopped as it first looked at the table.
TEST_F(SqlRecorderTest, WriteThatWasNotRecordedIsNotCommitted)
{
    const auto interrupt = [](sqlite3_context* call, int, sqlite3_value**) {
        sqlite3_interrupt(sqlite3_context_db_handle(call));
        sqlite3_result_int(call, 7);
    };
    sqlite3_create_function(_database.getHandle(), "interrupt", 0, SQLITE_UTF8, nullptr, interrupt,
                            nullptr, nullptr);
    const string write = "insert into product values (interrupt(), 'tea', 2)";
    Recorder recorder(_database, {"product"});
    EXPECT_EQ(tried(write), "19=constraint failed");
    expectReport({report::error("Recorder::Recorder", outside)});
    {
        RecordedTransaction transaction(recorder);
        run(write);
        EXPECT_FALSE(transaction.commit());
        expectFailure(transaction.error(), "commit", "9=SQLITE_INTERRUPT: interrupted");
        EXPECT_FALSE(transaction.isOpen());
    }
    EXPECT_EQ(rows("select count(*) from product"), "0");
    EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 2)"));
    EXPECT_EQ(numbers(), "0-1");
}

// --- Changes of the schema ------------------------------------------------------------------------

TEST_F(SqlRecorderTest, SchemaChangeEndsTheRecordingUntilItIsRenewed)
{
    Recorder recorder(_database, {"product"});
    EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 2)"));
    run("alter table product add column note text");
    {
        RecordedTransaction transaction(recorder);
        EXPECT_FALSE(transaction.isOpen());
        expectFailure(transaction.error(), "begin", string("17=SQLITE_SCHEMA: ") + renewal);
    }
    EXPECT_EQ(tried("insert into product values (2, 'rum', 2, '')"), "19=constraint failed");
    expectReport({report::error("Recorder::Recorder", outside)});
    ASSERT_TRUE(recorder.renew());
    EXPECT_TRUE(record(recorder, "insert into product values (2, 'rum', 2, '')"));
    EXPECT_EQ(numbers(), "0-1\n1-2");
    EXPECT_EQ(rows("select count(distinct hash) from sqlsync_outbox"), "2");
}

TEST_F(SqlRecorderTest, TableThatWasRebuiltIsNotWrittenUnrecorded)
{
    Recorder recorder(_database, {"product"});
    run("create table new (id integer primary key, name text, price, note);"
        "insert into new select *, null from product; drop table product; alter table new rename to product");
    EXPECT_EQ(tried("insert into product values (2, 'rum', 2, '')"), "19=constraint failed");
    expectReport({report::error("Recorder::Recorder", outside)});
    EXPECT_TRUE(recorder.renew());
    EXPECT_TRUE(record(recorder, "insert into product values (2, 'rum', 2, '')"));
}

TEST_F(SqlRecorderTest, SchemaChangeWithinATransactionFailsItsCommit)
{
    Recorder recorder(_database, {"product"});
    RecordedTransaction transaction(recorder);
    run("insert into product values (1, 'tea', 2); create table more (id)");
    EXPECT_FALSE(transaction.commit());
    expectFailure(transaction.error(), "commit", string("17=SQLITE_SCHEMA: ") + renewal);
    EXPECT_TRUE(transaction.isOpen());
    EXPECT_TRUE(transaction.rollback());
    EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 2)"));
}

TEST_F(SqlRecorderTest, FileThatWentBackUnderARecorderIsOfAnotherIncarnation)
{
    Recorder recorder(_database, {"product"});
    EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 5)"));
    EXPECT_TRUE(record(recorder, "insert into product values (2, 'rum', 5)"));
    EXPECT_EQ(rows("select count(distinct incarnation) from sqlsync_outbox"), "1");
    const string former = rows("select incarnation from sqlsync_state");
    run("delete from sqlsync_outbox where number = 2; update sqlsync_state set number = 1");
    EXPECT_TRUE(record(recorder, "insert into product values (3, 'gin', 5)"));
    EXPECT_EQ(numbers(), "0-1\n1-2");
    EXPECT_EQ(rows("select previous_incarnation = " + former + ", incarnation = " + former
                   + ", abs(incarnation) > 1 from sqlsync_outbox where number = 2"),
              "1|0|1")
        << "another random one";
    const string now = rows("select incarnation from sqlsync_state");
    EXPECT_TRUE(record(recorder, "insert into product values (4, 'ale', 5)"));
    EXPECT_EQ(rows("select incarnation from sqlsync_state"), now);
}

TEST_F(SqlRecorderTest, CommitThatCannotBeNumberedIsRefused)
{
    Recorder recorder(_database, {"product"});
    {
        const WithoutEntropy without;
        EXPECT_FALSE(record(recorder, "insert into product values (1, 'tea', 5)"));
        expectReport(report::statementFailed("commit", "commit",
                                             "10=SQLITE_IOERR: the system has no random numbers"));
    }
    EXPECT_EQ(rows("select count(*) from product"), "0");
    EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 5)"));
    const WithoutEntropy without; // which it needs once
    EXPECT_TRUE(record(recorder, "insert into product values (2, 'rum', 5)"));
    EXPECT_EQ(numbers(), "0-1\n1-2");
}

TEST_F(SqlRecorderTest, CommitThatCannotBeStoredIsRefused)
{
    {
        const Recorder makes(_database, {"product"}); // its tables
    }
    for (const char* const what : {"insert on sqlsync_outbox", "update on sqlsync_state"}) {
        const string file = rows("select * from sqlsync_state");
        {
            run(string("create trigger forbidden before ") + what
                + " begin select raise(abort, 'no'); end");
            Recorder recorder(_database, {"product"});
            RecordedTransaction transaction(recorder);
            run("insert into product values (1, 'tea', 5)");
            EXPECT_FALSE(transaction.commit());
            EXPECT_EQ(transaction.error().extendedCode(), SQLITE_CONSTRAINT_TRIGGER);
            EXPECT_EQ(transaction.error().text(), "no");
            EXPECT_TRUE(transaction.isOpen());
            EXPECT_EQ(_diagnostics.lines().size(), 2U);
            _diagnostics.clear();
        }
        run("drop trigger forbidden");
        EXPECT_EQ(rows("select * from sqlsync_state"), file);
        EXPECT_EQ(rows("select count(*) from sqlsync_outbox"), "0");
        EXPECT_EQ(rows("select count(*) from product"), "0");
    }
}

TEST_F(SqlRecorderTest, CommitThatIsUndoneAsItIsStoredSaysWhyOnce)
{
    {
        const Recorder makes(_database, {"product"}); // its tables
    }
    run("create trigger forbidden before insert on sqlsync_outbox begin select raise(rollback, 'no'); end");
    Recorder recorder(_database, {"product"});
    RecordedTransaction transaction(recorder);
    run("insert into product values (1, 'tea', 5)");
    EXPECT_FALSE(transaction.commit());
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_EQ(_diagnostics.lines().size(), 3U) << "one that all was rolled back";
    _diagnostics.clear();
    EXPECT_EQ(transaction.error().text(), "no");
}

TEST_F(SqlRecorderTest, RenewalThatFailsLeavesItAsItWas)
{
    Recorder recorder(_database, {"product"});
    run("alter table product rename to renamed");
    EXPECT_FALSE(recorder.renew());
    expectFailure(recorder.error(), "renew", "21=SQLITE_MISUSE: table 'product': there is none");
    run("create table product (id integer primary key)");
    EXPECT_EQ(tried("insert into product values (1)"), "19=constraint failed");
    expectReport({report::error("Recorder::Recorder", outside)});
    EXPECT_TRUE(recorder.renew());
    EXPECT_TRUE(record(recorder, "insert into product values (1)"));
    run("begin");
    EXPECT_FALSE(recorder.renew());
    expectFailure(recorder.error(), "renew", "21=SQLITE_MISUSE: a transaction is open");
    run("rollback");
}

// --- Other connections ----------------------------------------------------------------------------

class RecorderFileTest : public SqlRecorderTest {
protected:
    RecorderFileTest() : _name(testing::TempDir() + "recorder.db")
    {
        std::remove(_name.c_str());
        _database.close();
        EXPECT_TRUE(_database.open(_name, sql::Database::access_create, false, 0));
        run(tables);
    }
    ~RecorderFileTest() override
    {
        std::remove(_name.c_str());
    }

    string _name;
};

TEST_F(RecorderFileTest, CommitOfAnotherConnectionIsSeenAndTold)
{
    Recorder recorder(_database, {"product"});
    EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 2)"));
    EXPECT_EQ(recorder.unrecorded(), 0);
    test::Connection other(_name);
    other.run("insert into product values (2, 'rum', 2)");
    EXPECT_TRUE(record(recorder, "insert into product values (3, 'gin', 2)"));
    expectReport({report::error("Recorder::RecordedTransaction",
                                "Another connection has committed what is not recorded")});
    EXPECT_EQ(recorder.unrecorded(), 1);
    EXPECT_TRUE(record(recorder, "insert into product values (4, 'ale', 2)"));
    EXPECT_EQ(recorder.unrecorded(), 1);
    EXPECT_EQ(numbers(), "0-1\n1-2\n2-3");
}

TEST_F(RecorderFileTest, OneThatOthersKeepWaitingFailsAsItBegins)
{
    Recorder recorder(_database, {"product"});
    test::Connection other(_name);
    other.run("begin immediate");
    RecordedTransaction transaction(recorder);
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_EQ(transaction.error().statement(), "begin immediate");
    expectFailure(transaction.error(), "begin", "5=SQLITE_BUSY: database is locked");
    EXPECT_FALSE(recorder.renew());
    EXPECT_EQ(recorder.error().statement(), "begin immediate");
    expectFailure(recorder.error(), "begin", "5=SQLITE_BUSY: database is locked");
    other.run("commit");
    EXPECT_TRUE(recorder.renew());
    EXPECT_FALSE(recorder.error());
}

TEST_F(RecorderFileTest, CommitsOfAnotherRecorderFollowEachOther)
{
    Recorder recorder(_database, {"product"});
    sql::Database second;
    ASSERT_TRUE(second.open(_name, sql::Database::access_read_write, false, 0));
    {
        Recorder other(second, {"product"});
        EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 2)"));
        EXPECT_TRUE(record(other, second.getHandle(), "insert into product values (2, 'rum', 2)"));
        EXPECT_TRUE(record(recorder, "insert into product values (3, 'gin', 2)"));
        EXPECT_EQ(recorder.unrecorded() + other.unrecorded(), 0);
    }
    EXPECT_EQ(numbers(), "0-1\n1-2\n2-3");
    EXPECT_EQ(
        rows("select count(*) from sqlsync_outbox a join sqlsync_outbox b on b.number = a.previous"
             " and b.incarnation = a.previous_incarnation"),
        "2");
    EXPECT_EQ(rows("select count(distinct incarnation) from sqlsync_outbox"), "2");
    second.close();
}

TEST_F(RecorderFileTest, RestoredFileNeverUsesAPositionForOtherRows)
{
    test::Connection copy;
    {
        Recorder recorder(_database, {"product"});
        EXPECT_TRUE(record(recorder, "insert into product values (1, 'tea', 2)"));
        std::filesystem::copy_file(_name, _name + ".copy");
        EXPECT_TRUE(record(recorder, "insert into product values (2, 'rum', 2)"));
        const string former = rows("select incarnation from sqlsync_outbox where number = 2");

        // Restored beneath the recorder.
        sql::Database backup;
        ASSERT_TRUE(backup.open(_name + ".copy", sql::Database::access_read_write, false, 0));
        sqlite3_backup* const pages = sqlite3_backup_init(_database.getHandle(), "main",
                                                          backup.getHandle(), "main");
        ASSERT_NE(pages, nullptr);
        EXPECT_EQ(sqlite3_backup_step(pages, -1), SQLITE_DONE);
        EXPECT_EQ(sqlite3_backup_finish(pages), SQLITE_OK);
        backup.close();
        EXPECT_EQ(numbers(), "0-1");
        ASSERT_TRUE(recorder.renew()) << recorder.error().text();
        EXPECT_TRUE(record(recorder, "insert into product values (2, 'ale', 9)"));
        EXPECT_EQ(numbers(), "0-1\n1-2");
        EXPECT_NE(rows("select incarnation from sqlsync_outbox where number = 2"), former);
    }
    std::remove((_name + ".copy").c_str());
}

// --- Interrupts -----------------------------------------------------------------------------------

// A commit that the other table counts.
sql::Error recordAnother(sql::Database& database, Recorder& recorder)
{
    RecordedTransaction transaction(recorder);
    EXPECT_EQ(transaction.isOpen(), !transaction.error());
    if (!transaction.isOpen())
        return transaction.error();
    const sql::Result<int> written = sql::runScript(
        database, "insert into other (name) values ('tea');"
                  "insert or replace into product select 1, max(id), null from other");
    if (!written)
        return written.error();
    const bool isDone = transaction.commit();
    EXPECT_EQ(isDone, !transaction.error());
    return transaction.error();
}

TEST_F(SqlRecorderTest, MakingItFailsWhereverItIsInterrupted)
{
    const auto make = [this] {
        const Recorder recorder(_database, {"product", "event"});
        EXPECT_EQ(recorder.isRecording(), !recorder.error());
        return recorder.error();
    };
    const auto check = [this](bool) {
        EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
        run("drop table if exists sqlsync_schema");
    };
    run("create table sqlsync_inbox_table (name text primary key) without rowid");
    EXPECT_GT(test::interruptEach(_database.getHandle(), _diagnostics, make, check), 10);
}

TEST_F(SqlRecorderTest, RenewalFailsWhereverItIsInterrupted)
{
    run("create table sqlsync_inbox_table (name text primary key) without rowid");
    Recorder recorder(_database, {"product", "event"});
    const auto renew = [&recorder] {
        const bool isDone = recorder.renew();
        EXPECT_EQ(isDone, !recorder.error());
        return recorder.error();
    };
    const auto check = [this, &recorder](bool) {
        EXPECT_TRUE(recorder.isRecording());
        EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
    };
    EXPECT_GT(test::interruptEach(_database.getHandle(), _diagnostics, renew, check), 10);
    EXPECT_FALSE(recordAnother(_database, recorder));
    EXPECT_EQ(numbers(), "0-1");
}

TEST_F(SqlRecorderTest, CommitsAreWholeOrNotThereWhereverTheyAreInterrupted)
{
    for (const sql::RecorderOptions& options :
         {sql::RecorderOptions(),
          sql::RecorderOptions{32, sql::WhenFull::merge_ranges}}) { // room for one row
        run("delete from other; delete from product; drop table if exists sqlsync_outbox;"
            "drop table if exists sqlsync_state; drop table if exists sqlsync_schema");
        Recorder recorder(_database, {"product", "event"}, options);
        const auto another = [&] {
            return recordAnother(_database, recorder);
        };
        const auto check = [this](bool) {
            EXPECT_EQ(rows("select number from sqlsync_state"), rows("select count(*) from other"));
        };
        EXPECT_FALSE(another());
        EXPECT_GT(test::interruptEach(_database.getHandle(), _diagnostics, another, check), 10);
        EXPECT_EQ(rows("select max(number) from sqlsync_outbox"),
                  rows("select count(*) from other"));
        EXPECT_EQ(rows("select name from product"), rows("select count(*) from other"));
    }
}

// --- The connection -------------------------------------------------------------------------------

TEST_F(SqlRecorderTest, DatabaseThatWasClosedIsAFailure)
{
    sql::Database database;
    ASSERT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
    test::run(database.getHandle(), tables);
    sqlite3* const leaked = database.getHandle();
    {
        Recorder recorder(database, {"product"});
        database.close();
        _diagnostics.clear();
        ASSERT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
        RecordedTransaction transaction(recorder);
        EXPECT_FALSE(transaction.isOpen());
        expectFailure(transaction.error(), "begin",
                      "21=SQLITE_MISUSE: the database was closed or opened anew");
        test::run(database.getHandle(), tables);
        const Recorder other(database, {"product"});
        EXPECT_TRUE(other.isRecording());
        EXPECT_FALSE(recorder.renew());
        expectFailure(recorder.error(), "renew", "21=SQLITE_MISUSE: the connection has a recorder");
    }
    EXPECT_EQ(sqlite3_close(leaked), SQLITE_OK);
}

} // namespace
