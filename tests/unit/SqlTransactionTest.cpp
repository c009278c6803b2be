#include "SqlTransaction.h"

#include "SqlStatement.h"
#include "SqlTable.h"

#include "Cases.h"
#include "Columns.h"
#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

namespace {

namespace report = test::report;

using sql::Savepoint;
using sql::Transaction;
using sql::TransactionScope;
using std::chrono::milliseconds;
using test::joined;
using test::Texts;
using testing::ElementsAre;
using testing::StartsWith;
using testing::Values;

static_assert(sql::begin_deferred == 0);
static_assert(sql::begin_immediate == 1);
static_assert(sql::begin_exclusive == 2);
static_assert(
    !std::is_copy_constructible_v<Transaction> && !std::is_move_constructible_v<Transaction>);
static_assert(!std::is_constructible_v<TransactionScope, sql::Database&>);

const milliseconds forever(60000); // longer than any of this takes
const char busy[] = "5=SQLITE_BUSY: database is locked";
const char interrupted[] = "9=SQLITE_INTERRUPT: interrupted";
const char forbidden[] = "23=SQLITE_AUTH: not authorized";
const char violated[] = "787=SQLITE_CONSTRAINT_FOREIGNKEY: FOREIGN KEY constraint failed";

// What is reported at a loss, and by what comes after it.
Texts lost()
{
    return {report::error("Transaction::noteRollback",
                          "The transaction was rolled back: nothing is "
                          "committed before its scope ends")};
}
Texts refusedCommit()
{
    return {report::error("Transaction::refuseCommit",
                          "Refused a commit that is not the transaction's own")};
}
Texts lostBefore(const std::string& operation, const std::string& statement)
{
    return report::statementFailed(
        operation, statement, "516=SQLITE_ABORT_ROLLBACK: the transaction was rolled back before");
}
Texts endedByAnother(const std::string& operation, const std::string& statement)
{
    return report::statementFailed(operation, statement,
                                   "516=SQLITE_ABORT_ROLLBACK: the transaction has ended before");
}
Texts endedBefore(const std::string& operation)
{
    return report::statementFailed(operation, operation,
                                   "21=SQLITE_MISUSE: the transaction has ended before");
}

// A file with a table of products, a connection to it, and another one that sees what is committed.
class TransactionTest : public test::ReportTest, public testing::WithParamInterface<const char*> {
protected:
    TransactionTest()
        : _file(makeFile(_directory.file("shop.db"))), _other(_file),
          _table(nullptr, "product", _fields)
    {
        open();
    }

    void open()
    {
        EXPECT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
        EXPECT_TRUE(run("pragma foreign_keys = on"));
        _table.initTable(_database.getHandle(), nullptr);
    }

    bool run(const std::string& statement)
    {
        return sql::RecordSet(_database.getHandle()).query(statement);
    }

    sql::Record product(sql::integer id) const
    {
        sql::Record record(_fields);
        record.setInteger("id", id);
        return record;
    }

    bool add(sql::integer id)
    {
        return _table.addRecord(product(id));
    }

    std::string insert(sql::integer id) const
    {
        return product(id).toSqlInsert("product");
    }

    // A write, or a commit, that the guard refuses.
    Texts refused(const std::string& statement) const
    {
        return joined({refusedCommit(),
                       report::refused(statement, "19=SQLITE_CONSTRAINT: constraint failed")});
    }

    // The same of a commit in a transaction that has lasted until then.
    Texts refusedAndLost() const
    {
        return joined(
            {refusedCommit(), lost(),
             report::refused("COMMIT TRANSACTION", "19=SQLITE_CONSTRAINT: constraint failed")});
    }

    // What is committed.
    std::string there()
    {
        return _other.rows("select group_concat(id) from (select id from product order by id)");
    }

    bool othersCan(const std::string& statements)
    {
        const int rc = sqlite3_exec(_other, statements.c_str(), nullptr, nullptr, nullptr);
        sqlite3_exec(_other, "rollback", nullptr, nullptr, nullptr);
        return rc == SQLITE_OK;
    }
    bool othersCanRead()
    {
        return othersCan("begin; select * from product");
    }
    bool othersCanWrite()
    {
        return othersCan("begin immediate");
    }
    bool othersCanCommit()
    {
        return othersCan("begin; pragma user_version = 7; commit");
    }

    // SQLite rolls back by itself, since a row is there twice.
    void lose()
    {
        const std::string statement = "insert or rollback into product (id) values (1), (1)";
        EXPECT_FALSE(run(statement));
        expectReport(
            joined({lost(), report::refused(statement, "19=SQLITE_CONSTRAINT: UNIQUE constraint "
                                                       "failed: product.id")}));
    }

    // Nothing of a guard is left: the connection commits by itself.
    void expectFree()
    {
        EXPECT_TRUE(add(100));
        EXPECT_EQ(_other.rows("select count(*) from product where id = 100"), "1");
        EXPECT_TRUE(othersCanCommit());
        EXPECT_EQ(sqlite3_commit_hook(_database.getHandle(), nullptr, nullptr), nullptr);
        EXPECT_EQ(sqlite3_rollback_hook(_database.getHandle(), nullptr, nullptr), nullptr);
        EXPECT_EQ(sqlite3_next_stmt(_database.getHandle(), nullptr), nullptr);
    }

    const test::TemporaryDirectory _directory;
    const std::string _file;
    test::Connection _other;
    const sql::FieldSet _fields{test::product_columns};
    sql::Database _database;
    sql::Table _table;

private:
    static std::string makeFile(const std::string& file)
    {
        test::Connection db(file);
        db.run(std::string("pragma journal_mode = ") + GetParam());
        db.run(
            "create table product (id integer primary key, name, price);"
            "create table part (of integer references product (id) deferrable initially deferred)");
        return file;
    }
};

// Keeps SQLite from compiling "BEGIN", "COMMIT", "ROLLBACK" or "RELEASE" while it lives; and from
// running what is compiled already before it is compiled anew.
class Prohibition {
public:
    Prohibition(sql::Database& database, const char* what) : _db(database.getHandle())
    {
        const auto judge = [](void* prohibited, int action, const char* first, const char*,
                              const char*, const char*) {
            const bool isMeant = action == SQLITE_TRANSACTION || action == SQLITE_SAVEPOINT;
            return isMeant && std::strcmp(first, static_cast<const char*>(prohibited)) == 0
                       ? SQLITE_DENY
                       : SQLITE_OK;
        };
        sqlite3_set_authorizer(_db, judge, const_cast<char*>(what));
    }
    ~Prohibition()
    {
        sqlite3_set_authorizer(_db, nullptr, nullptr);
    }
    Prohibition(const Prohibition&) = delete;
    Prohibition& operator=(const Prohibition&) = delete;

private:
    sqlite3* _db;
};

std::string nameOfJournal(const testing::TestParamInfo<const char*>& chosen)
{
    return chosen.param;
}

INSTANTIATE_TEST_SUITE_P(Journals, TransactionTest, Values("delete", "wal"), nameOfJournal);

// --- Begin

TEST_P(TransactionTest, DeferredOneTakesItsLocksWithItsStatements)
{
    Transaction transaction(_database, sql::begin_deferred);
    EXPECT_TRUE(transaction.isOpen());
    EXPECT_FALSE(transaction.error());
    EXPECT_TRUE(othersCanCommit());
    EXPECT_TRUE(_table.open());
    EXPECT_TRUE(othersCanWrite());
    EXPECT_EQ(othersCanCommit(), std::string(GetParam()) == "wal");
    EXPECT_TRUE(transaction.rollback());
    EXPECT_TRUE(othersCanCommit());

    Transaction writing(_database, sql::begin_deferred);
    EXPECT_TRUE(add(1));
    EXPECT_TRUE(othersCanRead());
    EXPECT_FALSE(othersCanWrite());
}

TEST_P(TransactionTest, ImmediateOneKeepsOthersFromWriting)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(transaction.isOpen());
    EXPECT_TRUE(othersCanRead());
    EXPECT_FALSE(othersCanWrite());
}

TEST_P(TransactionTest, ExclusiveOneKeepsReadersOutToo)
{
    Transaction transaction(_database, sql::begin_exclusive);
    EXPECT_TRUE(transaction.isOpen());
    EXPECT_EQ(othersCanRead(), std::string(GetParam()) == "wal"); // whose readers need no lock
    EXPECT_FALSE(othersCanWrite());
}

TEST_P(TransactionTest, SecondOneIsRefusedAndTheFirstGoesOn)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    {
        Transaction second(_database, sql::begin_deferred);
        EXPECT_FALSE(second.isOpen());
        EXPECT_EQ(second.error().text(), "cannot start a transaction within a transaction");
        EXPECT_STREQ(second.error().name(), "SQLITE_ERROR");
        EXPECT_EQ(second.error().statement(), "begin deferred");
        expectReport(report::statementFailed(
            "begin", "begin deferred",
            "1=SQLITE_ERROR: cannot start a transaction within a transaction"));
        // It has said so.
        EXPECT_FALSE(second.commit());
        EXPECT_FALSE(second.rollback());
        EXPECT_EQ(second.error().text(), "cannot start a transaction within a transaction");
    }
    EXPECT_TRUE(transaction.isOpen());
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1");
}

TEST_P(TransactionTest, DatabaseThatIsNotOpenIsRefused)
{
    sql::Database closed;
    const Transaction transaction(closed, sql::begin_exclusive);
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_TRUE(transaction.error().isMisuse());
    expectReport(report::statementFailed("begin", "begin exclusive",
                                         "21=SQLITE_MISUSE: the database is not open"));
}

TEST_P(TransactionTest, StatementThatSqliteDoesNotCompileIsAFailure)
{
    const char* const statements[][2] = {
        {"BEGIN", "begin immediate"}, {"COMMIT", "commit"}, {"ROLLBACK", "rollback"}};
    for (const auto& [what, statement] : statements) {
        const Prohibition prohibition(_database, what);
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_FALSE(transaction.isOpen());
        EXPECT_EQ(transaction.error().statement(), statement);
        expectReport(report::statementFailed("begin", statement, forbidden));
        EXPECT_FALSE(transaction.commit()); // it has said so
        expectReport({});
    }
    expectFree();
}

TEST_P(TransactionTest, OneThatCouldNotBeginLetsTheDatabaseClose)
{
    _other.run("begin immediate");
    const Transaction transaction(_database, sql::begin_immediate);
    expectReport(report::statementFailed("begin", "begin immediate", busy));
    _database.close();
    expectReport({});
}

#if SQLITE_VERSION_NUMBER >= 3040000 // 3.24 refuses to begin those that write

// SQLite refuses the first write alone.
TEST_P(TransactionTest, ReadOnlyDatabaseCanBeReadInEveryMode)
{
    sql::Database database;
    ASSERT_TRUE(database.open(_file, sql::Database::access_read_only, false, 0));
    for (const auto mode : {sql::begin_deferred, sql::begin_immediate, sql::begin_exclusive}) {
        Transaction transaction(database, mode);
        EXPECT_TRUE(transaction.isOpen());
        EXPECT_EQ(sql::queryNumber(database.getHandle(), "select count(*) from product"), 0);
        sql::Statement write(database, "insert into product (id) values (1)");
        EXPECT_FALSE(write.run());
        EXPECT_TRUE(write.error().isReadOnly());
        expectReport(
            report::statementFailed("run", "insert into product (id) values (1)",
                                    "8=SQLITE_READONLY: attempt to write a readonly database"));
        EXPECT_TRUE(transaction.commit());
    }
}

#endif

// --- End

TEST_P(TransactionTest, CommitMakesAllOfItVisibleAtOnce)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1) && add(2));
    EXPECT_EQ(there(), "NULL");
    EXPECT_TRUE(transaction.commit());
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_FALSE(transaction.error());
    EXPECT_EQ(there(), "1,2");
    expectFree();
}

TEST_P(TransactionTest, RollbackUndoesAllOfIt)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1) && add(2));
    EXPECT_TRUE(transaction.rollback());
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, EndOfItsScopeUndoesWhatWasNotCommitted)
{
    {
        const Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(1));
    }
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, ReaderOfItsOwnDoesNotKeepItFromEnding)
{
    EXPECT_TRUE(add(1) && add(2));
    sql::Statement all(_database, "select id from product");
    {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(all.next());
        EXPECT_TRUE(add(3));
        EXPECT_TRUE(transaction.commit());
    }
    all.release();
    EXPECT_EQ(there(), "1,2,3");
    expectFree();
}

TEST_P(TransactionTest, UseAfterTheEndIsAFailure)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(transaction.commit());
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(transaction.commit());
        expectReport(endedBefore("commit"));
        EXPECT_TRUE(transaction.error().isMisuse());
        EXPECT_FALSE(transaction.rollback());
        expectReport(endedBefore("rollback"));
        EXPECT_EQ(transaction.error().text(), "the transaction has ended before");
    }
    expectFree();
}

TEST_P(TransactionTest, EndedOneHasNoPartInTheNext)
{
    std::optional<Transaction> first(std::in_place, _database, sql::begin_immediate);
    EXPECT_TRUE(first->commit());
    const Transaction second(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    first.reset();
    EXPECT_FALSE(_database.transactionCommit());
    expectReport(refusedAndLost());
    EXPECT_EQ(there(), "NULL");
}

TEST_P(TransactionTest, RollbackThatFailsLeavesItOpen)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    {
        const Prohibition prohibition(_database, "ROLLBACK");
        EXPECT_FALSE(transaction.rollback());
        expectReport(report::statementFailed("rollback", "rollback", forbidden));
        EXPECT_EQ(transaction.error().text(), "not authorized");
        EXPECT_TRUE(transaction.isOpen());
    }
    EXPECT_TRUE(transaction.rollback());
    EXPECT_FALSE(transaction.error());
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, RollbackThatFailsIsTriedAgainAtTheEndOfItsScope)
{
    {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(1));
        const Prohibition prohibition(_database, "ROLLBACK");
        EXPECT_FALSE(transaction.rollback());
        expectReport(report::statementFailed("rollback", "rollback", forbidden));
    }
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, RollbackThatFailsAtTheEndOfItsScopeIsReported)
{
    std::optional<Transaction> transaction(std::in_place, _database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    const Prohibition prohibition(_database, "ROLLBACK");
    transaction.reset();
    expectReport(report::statementFailed("~TransactionScope", "rollback", forbidden));
}

TEST_P(TransactionTest, HooksOfTheProgramAreDisplaced)
{
    const auto count = [](void* calls) {
        ++*static_cast<int*>(calls);
        return 0;
    };
    const auto countRollback = [](void* calls) {
        ++*static_cast<int*>(calls);
    };
    int calls = 0;
    sqlite3_commit_hook(_database.getHandle(), count, &calls);
    sqlite3_rollback_hook(_database.getHandle(), countRollback, &calls);
    EXPECT_TRUE(add(1));
    EXPECT_EQ(calls, 1);
    for (const bool commits : {true, false}) {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(2 + commits));
        EXPECT_TRUE(commits ? transaction.commit() : transaction.rollback());
    }
    expectFree();
    EXPECT_EQ(calls, 1);
}

TEST_P(TransactionTest, ReportsItsStatementsWhereTheyAreAskedFor)
{
    _diagnostics.setLevel(9);
    {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(transaction.commit());
        Transaction undone(_database, sql::begin_exclusive);
        EXPECT_TRUE(undone.rollback());
        Transaction other(_database, sql::begin_deferred);
    }
    expectReport({report::debug(2, "Transaction::begin", "stmt='begin immediate'"),
                  report::debug(2, "Transaction::commit", "stmt='commit'"),
                  report::debug(2, "Transaction::begin", "stmt='begin exclusive'"),
                  report::debug(2, "Transaction::rollback", "stmt='rollback'"),
                  report::debug(2, "Transaction::begin", "stmt='begin deferred'"),
                  report::debug(2, "Transaction::~TransactionScope", "stmt='rollback'")});
}

TEST_P(TransactionTest, ReportsTheStatementsOfASavepointToo)
{
    const Transaction transaction(_database, sql::begin_immediate);
    _diagnostics.setLevel(9);
    {
        const Savepoint savepoint(_database);
    }
    EXPECT_THAT(_diagnostics.take(),
                ElementsAre(StartsWith(report::debug(2, "Transaction::begin",
                                                     "stmt='savepoint sqlprepared_")),
                            StartsWith(report::debug(2, "Transaction::~TransactionScope",
                                                     "stmt='rollback to sqlprepared_")),
                            StartsWith(report::debug(2, "Transaction::~TransactionScope",
                                                     "stmt='release sqlprepared_"))));
    _diagnostics.setLevel(3);
}

// --- Savepoints

struct Fates : test::Case {
    const char* left;
};

const Fates fates[] = {
    // c: committed, r: rolled back, e: at the end of its scope; the outer one first
    {"ccc", "1,2,3,4,5"}, {"ccr", "1,2,4,5"}, {"cce", "1,2,4,5"}, {"crc", "1,5"},  {"cec", "1,5"},
    {"rcc", "NULL"},      {"crr", "1,5"},     {"rrr", "NULL"},    {"ecc", "NULL"},
};

class SavepointTest : public TransactionTest {
protected:
    // Three within each other, of which the outer two add two rows each.
    void addThreeDeep(const std::string& each)
    {
        Savepoint first(_database);
        EXPECT_TRUE(first.isOpen() && add(1));
        {
            Savepoint second(_database);
            EXPECT_TRUE(second.isOpen() && add(2));
            {
                Savepoint third(_database);
                EXPECT_TRUE(third.isOpen() && add(3));
                end(third, each[2]);
                EXPECT_TRUE(second.isOpen());
            }
            EXPECT_TRUE(add(4));
            end(second, each[1]);
        }
        EXPECT_TRUE(first.isOpen() && add(5));
        end(first, each[0]);
    }

    // What is left of all fates, each in something that begins and commits.
    void expectLeft(const std::function<void()>& begin, const std::function<bool()>& commit)
    {
        for (const Fates& each : fates) {
            SCOPED_TRACE(each.name);
            begin();
            const bool isWithin = sqlite3_get_autocommit(_database.getHandle()) == 0;
            addThreeDeep(each.name);
            EXPECT_EQ(there(), isWithin ? "NULL" : each.left);
            EXPECT_TRUE(commit());
            EXPECT_EQ(there(), each.left);
            EXPECT_TRUE(_table.deleteRecords(""));
        }
        expectFree();
    }

private:
    static void end(Savepoint& savepoint, char fate)
    {
        EXPECT_TRUE(fate == 'e' || (fate == 'c' ? savepoint.commit() : savepoint.rollback()));
    }
};

INSTANTIATE_TEST_SUITE_P(Journals, SavepointTest, Values("delete", "wal"), nameOfJournal);

TEST_P(SavepointTest, InATransactionTheyAreUndoneAlone)
{
    std::optional<Transaction> transaction;
    expectLeft([&] { transaction.emplace(_database, sql::begin_immediate); },
               [&] { return transaction->commit(); });
}

TEST_P(SavepointTest, InATransactionOfTheDatabaseTheyAreUndoneAlone)
{
    expectLeft([this] { EXPECT_TRUE(_database.transactionBegin()); },
               [this] { return _database.transactionCommit(); });
}

TEST_P(SavepointTest, OutsideOfATransactionTheyAreOne)
{
    expectLeft([] {}, [] { return true; });
}

TEST_P(TransactionTest, SavepointOutsideOfATransactionTakesItsLocksWithItsStatements)
{
    Savepoint savepoint(_database);
    EXPECT_TRUE(othersCanCommit());
    EXPECT_TRUE(add(1));
    EXPECT_FALSE(othersCanWrite());
    EXPECT_EQ(there(), "NULL");
    EXPECT_TRUE(savepoint.commit());
    EXPECT_EQ(there(), "1");
    expectFree();
}

TEST_P(TransactionTest, TransactionInASavepointIsRefused)
{
    Savepoint savepoint(_database);
    EXPECT_TRUE(add(1));
    {
        const Transaction transaction(_database, sql::begin_immediate);
        EXPECT_FALSE(transaction.isOpen());
        expectReport(report::statementFailed(
            "begin", "begin immediate",
            "1=SQLITE_ERROR: cannot start a transaction within a transaction"));
    }
    EXPECT_TRUE(savepoint.commit());
    EXPECT_EQ(there(), "1");
}

TEST_P(TransactionTest, SavepointThatCannotBeUndoneStaysOpen)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    Savepoint savepoint(_database);
    EXPECT_TRUE(add(2));
    {
        const Prohibition prohibition(_database, "ROLLBACK");
        EXPECT_FALSE(savepoint.rollback());
        const std::string statement = savepoint.error().statement();
        EXPECT_THAT(statement, StartsWith("rollback to sqlprepared_"));
        expectReport(report::statementFailed("rollback", statement, forbidden));
        EXPECT_TRUE(savepoint.isOpen());
    }
    EXPECT_TRUE(savepoint.rollback());
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1");
}

// SQLite forgets its name with those of the outer one.
TEST_P(TransactionTest, SavepointThatSqliteKeepsHasEndedOnceItIsUndone)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    {
        Savepoint savepoint(_database);
        EXPECT_TRUE(add(2));
        const Prohibition prohibition(_database, "RELEASE");
        EXPECT_TRUE(savepoint.rollback());
        EXPECT_FALSE(savepoint.isOpen());
    }
    EXPECT_TRUE(add(3));
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1,3");
    expectFree();
}

// The end of the outer one is the end of all that was begun in it.
TEST_P(TransactionTest, InnerScopesEndWithTheOuterOne)
{
    for (const bool commits : {true, false}) {
        Transaction transaction(_database, sql::begin_immediate);
        Savepoint middle(_database);
        Savepoint inner(_database);
        EXPECT_TRUE(add(commits));
        EXPECT_TRUE(commits ? middle.commit() : middle.rollback());
        EXPECT_FALSE(inner.isOpen());
        EXPECT_FALSE(inner.commit());
        expectReport(endedBefore("commit"));
        EXPECT_TRUE(transaction.isOpen());
        Savepoint another(_database);
        EXPECT_TRUE(commits ? transaction.commit() : transaction.rollback());
        EXPECT_FALSE(another.isOpen());
        EXPECT_FALSE(another.rollback());
        expectReport(endedBefore("rollback"));

        Transaction next(_database, sql::begin_immediate); // which those have no part in
        EXPECT_TRUE(next.isOpen());
        EXPECT_FALSE(another.isOpen() || inner.isOpen());
        EXPECT_TRUE(next.commit());
    }
    EXPECT_EQ(there(), "1");
    expectFree();
}

// --- Commits of others

TEST_P(TransactionTest, CommitOfTheDatabaseIsRefusedAndNothingStays)
{
    {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(1));
        EXPECT_FALSE(_database.transactionCommit());
        expectReport(refusedAndLost());
        EXPECT_FALSE(transaction.isOpen());
        EXPECT_FALSE(transaction.commit());
        expectReport(lostBefore("commit", "commit"));
        EXPECT_STREQ(transaction.error().name(), "SQLITE_ABORT_ROLLBACK");
        EXPECT_EQ(there(), "NULL");
    }
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, RollbackOfTheDatabaseIsSeenAtOnce)
{
    Transaction transaction(_database, sql::begin_immediate);
    Savepoint savepoint(_database);
    EXPECT_TRUE(add(1));
    EXPECT_TRUE(_database.transactionRollback());
    expectReport(lost());
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_FALSE(savepoint.isOpen());
    EXPECT_FALSE(savepoint.commit());
    const std::string release = savepoint.error().statement();
    EXPECT_EQ(release.substr(0, 20), "release sqlprepared_");
    expectReport(lostBefore("commit", release));
}

// What has not written anything, and would not, has nothing to commit.
TEST_P(TransactionTest, CommitOfTheDatabaseThatWritesNothingEndsIt)
{
    Transaction transaction(_database, sql::begin_deferred);
    EXPECT_TRUE(_table.open());
    EXPECT_TRUE(_database.transactionCommit());
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_FALSE(transaction.commit());
    expectReport(endedByAnother("commit", "commit"));
    EXPECT_FALSE(Transaction(_database, sql::begin_deferred).isOpen());
    expectReport(endedByAnother("begin", "begin deferred"));
    EXPECT_FALSE(add(1));
    expectReport(joined({refusedCommit(), lost(),
                         report::refused(insert(1), "19=SQLITE_CONSTRAINT: constraint failed")}));
    EXPECT_FALSE(transaction.commit());
    expectReport(lostBefore("commit", "commit"));
    EXPECT_EQ(there(), "NULL");
}

TEST_P(TransactionTest, NothingIsCommittedBetweenALossAndTheEndOfTheScope)
{
    {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(1));
        lose();
        EXPECT_FALSE(transaction.isOpen());

        EXPECT_FALSE(add(2));
        expectReport(refused(insert(2)));
        sql::Statement statement(_database, "insert into product (id) values (?)");
        EXPECT_FALSE(statement.run(3));
        expectReport(joined(
            {refusedCommit(),
             report::statementFailed("run", "insert into product (id) values (?)",
                                     "531=SQLITE_CONSTRAINT_COMMITHOOK: constraint failed")}));
        EXPECT_TRUE(_database.transactionBegin());
        EXPECT_TRUE(add(4));
        EXPECT_FALSE(_database.transactionCommit());
        expectReport(refused("COMMIT TRANSACTION"));
        EXPECT_TRUE(_table.open());
        EXPECT_EQ(_table.recordCount(), 0);

        for (int i = 0; i < 2; ++i) {
            EXPECT_FALSE(transaction.commit());
            expectReport(lostBefore("commit", "commit"));
        }
        EXPECT_FALSE(add(5));
        expectReport(refused(insert(5)));
    }
    EXPECT_EQ(there(), "NULL");
    expectFree();
    EXPECT_EQ(there(), "100");
}

TEST_P(TransactionTest, WhatOthersBeginAfterALossDoesNotOutliveTheScope)
{
    {
        const Transaction transaction(_database, sql::begin_immediate);
        lose();
        EXPECT_TRUE(_database.transactionBegin());
        EXPECT_TRUE(add(2));
    }
    EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, LostOneRunsNothingAtItsEnd)
{
    for (const bool inScope : {true, false}) {
        std::optional<Transaction> transaction(std::in_place, _database, sql::begin_immediate);
        lose();
        _diagnostics.setLevel(9);
        EXPECT_TRUE(!inScope || transaction->rollback());
        transaction.reset();
        expectReport({});
        _diagnostics.setLevel(3);
    }
}

TEST_P(TransactionTest, WhatOthersBeginAfterALossOutlivesAnInnerScope)
{
    {
        const Transaction transaction(_database, sql::begin_immediate);
        {
            const Savepoint savepoint(_database);
            lose();
            EXPECT_TRUE(_database.transactionBegin());
        }
        EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 0);
    }
    EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
    expectFree();
}

TEST_P(TransactionTest, NoScopeBeginsBeforeTheEndOfALostOne)
{
    {
        const Transaction transaction(_database, sql::begin_immediate);
        lose();
        Transaction second(_database, sql::begin_immediate);
        EXPECT_FALSE(second.isOpen());
        expectReport(lostBefore("begin", "begin immediate"));
        EXPECT_FALSE(second.commit()); // it has said so
        expectReport({});
        const Savepoint savepoint(_database);
        EXPECT_FALSE(savepoint.isOpen());
        const std::string text = savepoint.error().statement();
        EXPECT_EQ(text.substr(0, 22), "savepoint sqlprepared_");
        expectReport(lostBefore("begin", text));
        const sql::Result<bool> third = sql::inTransaction(_database, [] {
            ADD_FAILURE() << "it runs";
            return true;
        });
        EXPECT_TRUE(third.failed());
        expectReport(lostBefore("begin", "begin immediate"));
    }
    EXPECT_TRUE(Transaction(_database, sql::begin_immediate).isOpen());
    expectFree();
}

TEST_P(TransactionTest, LossInTheInnermostIsSeenByAll)
{
    {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(2));
        {
            Savepoint savepoint(_database);
            Savepoint inner(_database);
            lose();
            EXPECT_FALSE(inner.isOpen() || savepoint.isOpen() || transaction.isOpen());
        }
        EXPECT_FALSE(add(3));
        expectReport(refused(insert(3)));
        EXPECT_FALSE(transaction.commit());
        expectReport(lostBefore("commit", "commit"));
    }
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

// A program that says so itself knows of the loss.
TEST_P(TransactionTest, RollbackOfALostOneEndsIt)
{
    Transaction transaction(_database, sql::begin_immediate);
    lose();
    EXPECT_FALSE(transaction.commit());
    expectReport(lostBefore("commit", "commit"));
    EXPECT_TRUE(transaction.rollback());
    EXPECT_FALSE(transaction.error());
    expectFree();
}

TEST_P(TransactionTest, SavepointLostInATransactionOfTheDatabaseRefusesCommitsToo)
{
    EXPECT_TRUE(_database.transactionBegin());
    EXPECT_TRUE(add(2));
    {
        Savepoint savepoint(_database);
        lose();
        EXPECT_FALSE(savepoint.isOpen());
        EXPECT_FALSE(add(3));
        expectReport(refused(insert(3)));
    }
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, CommitOfTheDatabaseIsRefusedInASavepointOfItsTransaction)
{
    EXPECT_TRUE(_database.transactionBegin());
    {
        Savepoint savepoint(_database);
        EXPECT_TRUE(add(2));
        EXPECT_FALSE(_database.transactionCommit());
        expectReport(refusedAndLost());
    }
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

// --- An interrupt

TEST_P(TransactionTest, InterruptWhileAStatementStandsAtARowDoesNotKeepItFromEnding)
{
    EXPECT_TRUE(add(1) && add(2));
    sql::Statement all(_database, "select id from product");
    EXPECT_TRUE(all.next());
    {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(3));
        sqlite3_interrupt(_database.getHandle());
        EXPECT_FALSE(transaction.commit());
        EXPECT_TRUE(transaction.error().isStopped());
        expectReport(report::statementFailed("commit", "commit", interrupted));
        EXPECT_TRUE(transaction.isOpen());
    }
    EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
    EXPECT_FALSE(all.next());
    expectReport(report::statementFailed("next", "select id from product", interrupted));
    all.release();
    EXPECT_EQ(there(), "1,2");
    expectFree();
}

TEST_P(TransactionTest, SavepointThatAnInterruptKeepsFromBeingUndoneTakesAllWithIt)
{
    EXPECT_TRUE(add(1) && add(2));
    sql::Statement all(_database, "select id from product");
    EXPECT_TRUE(all.next());
    {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(3));
        {
            const Savepoint savepoint(_database);
            EXPECT_TRUE(add(4));
            sqlite3_interrupt(_database.getHandle());
        }
        expectReport(lost());
        EXPECT_FALSE(transaction.commit());
        expectReport(lostBefore("commit", "commit"));
    }
    all.release();
    EXPECT_EQ(there(), "1,2");
    expectFree();
}

TEST_P(TransactionTest, SavepointInATransactionOfTheDatabaseTakesAllWithItToo)
{
    EXPECT_TRUE(add(1) && add(2));
    sql::Statement all(_database, "select id from product");
    EXPECT_TRUE(all.next());
    EXPECT_TRUE(_database.transactionBegin());
    EXPECT_TRUE(add(3));
    {
        const Savepoint savepoint(_database);
        EXPECT_TRUE(add(4));
        sqlite3_interrupt(_database.getHandle());
    }
    expectReport(lost());
    all.release();
    EXPECT_EQ(there(), "1,2");
    expectFree();
}

// Here SQLite has to compile the rollback anew, which is stopped before it undoes anything.
TEST_P(TransactionTest, RollbackThatAnInterruptKeepsFromBeingCompiledLeavesItOpen)
{
    EXPECT_TRUE(add(1) && add(2));
    sql::Statement all(_database, "select id from product");
    EXPECT_TRUE(all.next());
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(3));
    const Prohibition nothing(_database, "");
    sqlite3_interrupt(_database.getHandle());
    EXPECT_FALSE(transaction.rollback());
    expectReport(report::statementFailed("rollback", "rollback", interrupted));
    EXPECT_TRUE(transaction.isOpen());
    all.release();
    EXPECT_TRUE(transaction.rollback());
    EXPECT_EQ(there(), "1,2");
    expectFree();
}

// SQLite asks at its steps whether to stop: so many times from this one on, counted from 0.
class Stop {
public:
    Stop(sql::Database& database, int first, int count)
        : _db(database.getHandle()), _first(first), _end(first + count)
    {
        const auto isMeant = [](void* data) {
            Stop& stop = *static_cast<Stop*>(data);
            const int step = stop._steps++;
            return step >= stop._first && step < stop._end ? 1 : 0;
        };
        sqlite3_progress_handler(_db, 1, isMeant, this);
    }
    ~Stop()
    {
        sqlite3_progress_handler(_db, 0, nullptr, nullptr);
    }
    Stop(const Stop&) = delete;
    Stop& operator=(const Stop&) = delete;

private:
    sqlite3* _db;
    int _first;
    int _end;
    int _steps = 0;
};

TEST_P(TransactionTest, RollbackIsOneWhereverItIsStopped)
{
    for (const int count : {1, 2, 1000}) {
        for (int first = 0; first < 8; ++first) {
            SCOPED_TRACE(std::to_string(first) + ", " + std::to_string(count));
            std::optional<Transaction> transaction(std::in_place, _database, sql::begin_immediate);
            EXPECT_TRUE(add(1));
            {
                const Stop stop(_database, first, count);
                transaction.reset();
            }
            EXPECT_TRUE(othersCanWrite());
        }
    }
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, SavepointIsUndoneAloneWhereverItIsStopped)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    for (int first = 0; first < 16; ++first) {
        SCOPED_TRACE(first);
        Savepoint savepoint(_database);
        EXPECT_TRUE(add(2));
        {
            const Stop stop(_database, first, 1);
            EXPECT_TRUE(savepoint.rollback());
        }
        EXPECT_FALSE(savepoint.isOpen());
        EXPECT_TRUE(transaction.isOpen());
    }
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1");
    expectFree();
}

// --- Commits that fail

TEST_P(TransactionTest, OpenForeignKeyLeavesItOpenToBeMended)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(run("insert into part values (7)"));
    EXPECT_FALSE(transaction.commit());
    expectReport(report::statementFailed("commit", "commit", violated));
    EXPECT_TRUE(transaction.error().isConstraint());
    EXPECT_EQ(transaction.error().text(), "FOREIGN KEY constraint failed");
    EXPECT_TRUE(transaction.isOpen());
    EXPECT_TRUE(add(7));
    EXPECT_TRUE(transaction.commit());
    EXPECT_FALSE(transaction.error());
    EXPECT_EQ(there(), "7");
    EXPECT_EQ(_other.rows("select * from part"), "7");
    expectFree();
}

TEST_P(TransactionTest, CommitOfTheDatabaseIsRefusedAfterItsOwnHasFailed)
{
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(run("insert into part values (7)"));
    EXPECT_FALSE(transaction.commit());
    expectReport(report::statementFailed("commit", "commit", violated));
    EXPECT_TRUE(add(7));
    EXPECT_FALSE(_database.transactionCommit());
    expectReport(refusedAndLost());
    EXPECT_EQ(there(), "NULL");
}

TEST_P(TransactionTest, OpenForeignKeyLeavesASavepointOpenToo)
{
    {
        Savepoint savepoint(_database);
        EXPECT_TRUE(run("insert into part values (7)"));
        EXPECT_FALSE(savepoint.commit());
        expectReport(report::statementFailed("commit", savepoint.error().statement(), violated));
        EXPECT_TRUE(savepoint.isOpen());
    }
    EXPECT_EQ(_other.rows("select * from part"), "");
    Transaction transaction(_database, sql::begin_immediate);
    Savepoint inner(_database);
    EXPECT_TRUE(run("insert into part values (7)"));
    EXPECT_TRUE(inner.commit()); // the transaction may mend it
    EXPECT_FALSE(transaction.commit());
    expectReport(report::statementFailed("commit", "commit", violated));
    EXPECT_TRUE(transaction.rollback());
    expectFree();
}

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

TEST_P(TransactionTest, StatementThatHasRowsToWriteKeepsItFromCommitting)
{
    Transaction transaction(_database, sql::begin_immediate);
    sql::Statement insert(_database, "insert into product (id) values (1), (2) returning id");
    EXPECT_TRUE(insert.next());
    EXPECT_FALSE(transaction.commit());
    expectReport(
        report::statementFailed("commit", "commit",
                                "5=SQLITE_BUSY: cannot commit transaction - SQL statements "
                                "in progress"));
    EXPECT_TRUE(transaction.isOpen());
    EXPECT_TRUE(insert.reset());
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1,2");
}

#endif

// In a write-ahead log readers keep nobody waiting.
class BusyCommitTest : public TransactionTest {
protected:
    // From a reader's first row to its end.
    void startReading()
    {
        _other.run("begin; select * from product");
    }
    void endReading()
    {
        _other.run("commit");
    }
};

INSTANTIATE_TEST_SUITE_P(Journals, BusyCommitTest, Values("delete", "truncate"), nameOfJournal);

TEST_P(BusyCommitTest, ReaderLeavesItOpenToBeTriedAgain)
{
    startReading();
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(transaction.commit());
        EXPECT_TRUE(transaction.error().isBusy());
        EXPECT_TRUE(transaction.isOpen());
        expectReport(report::statementFailed("commit", "commit", busy));
    }
    EXPECT_TRUE(add(2));
    endReading();
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1,2");
    expectFree();
}

// An interrupt of nothing stops nothing that is begun after it.
TEST_P(BusyCommitTest, NothingRunsAfterARefusedCommit)
{
    startReading();
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    EXPECT_FALSE(transaction.commit());
    expectReport(report::statementFailed("commit", "commit", busy));
    sqlite3_interrupt(_database.getHandle());
    EXPECT_TRUE(add(2));
    endReading();
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1,2");
}

TEST_P(BusyCommitTest, SavepointIsTriedAgainToo)
{
    startReading();
    Savepoint savepoint(_database);
    EXPECT_TRUE(add(1));
    _diagnostics.setLevel(7); // which would tell of a wait
    EXPECT_FALSE(savepoint.commit());
    _diagnostics.setLevel(3);
    expectReport(report::statementFailed("commit", savepoint.error().statement(), busy));
    EXPECT_TRUE(savepoint.isOpen());
    endReading();
    EXPECT_TRUE(savepoint.commit());
    EXPECT_EQ(there(), "1");
    expectFree();
}

TEST_P(BusyCommitTest, ScopeThatEndsAfterARefusedCommitUndoesIt)
{
    startReading();
    {
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(1));
        EXPECT_FALSE(transaction.commit());
        expectReport(report::statementFailed("commit", "commit", busy));
    }
    endReading();
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

// --- Patience

milliseconds timeOf(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

Texts waiting(const std::string& operation, const std::string& statement)
{
    return {report::debug(1, "Transaction::" + operation,
                          "Waiting for another connection to '" + statement + "'")};
}

TEST_P(TransactionTest, WaitsToBeginAsLongAsItIsTold)
{
    _diagnostics.setLevel(7);
    _other.run("begin immediate");
    EXPECT_GE(timeOf([&] {
                  const Transaction transaction(_database, sql::begin_immediate, milliseconds(120));
                  EXPECT_TRUE(transaction.error().isBusy());
              }),
              milliseconds(120));
    expectReport(joined({waiting("begin", "begin immediate"),
                         report::statementFailed("begin", "begin immediate", busy)}));
    for (const milliseconds patience : {milliseconds(0), milliseconds(-1), milliseconds::min()}) {
        const Transaction transaction(_database, sql::begin_immediate, patience);
        EXPECT_FALSE(transaction.isOpen());
        expectReport(report::statementFailed("begin", "begin immediate", busy));
    }
    _other.run("rollback");
}

TEST_P(BusyCommitTest, WaitsToCommitAsLongAsItIsTold)
{
    startReading();
    Transaction transaction(_database, sql::begin_immediate, milliseconds(120));
    EXPECT_TRUE(add(1));
    _diagnostics.setLevel(7);
    EXPECT_GE(timeOf([&] { EXPECT_FALSE(transaction.commit()); }), milliseconds(120));
    expectReport(
        joined({waiting("commit", "commit"), report::statementFailed("commit", "commit", busy)}));
    endReading();
    EXPECT_TRUE(transaction.commit());
}

// Ends what another connection does as soon as somebody is known to wait for it.
class Release {
public:
    Release(test::Diagnostics& diagnostics, test::Connection& other, const char* statement)
        : _diagnostics(diagnostics), _thread([this, &other, statement] {
              while (!_waited)
                  std::this_thread::yield();
              other.run(statement);
          })
    {
        diagnostics.setLevel(7);
        diagnostics.onLine([this](const test::LogLine&) { _waited = true; });
    }
    ~Release()
    {
        _waited = true;
        _thread.join();
        _diagnostics.onLine(nullptr);
    }
    Release(const Release&) = delete;
    Release& operator=(const Release&) = delete;

private:
    test::Diagnostics& _diagnostics;
    std::atomic<bool> _waited{false};
    std::thread _thread;
};

TEST_P(TransactionTest, BeginsWhenTheOtherIsDone)
{
    _other.run("begin immediate");
    {
        const Release release(_diagnostics, _other, "rollback");
        const Transaction transaction(_database, sql::begin_immediate, milliseconds::max());
        EXPECT_TRUE(transaction.isOpen());
    }
    expectReport(waiting("begin", "begin immediate"));
}

TEST_P(BusyCommitTest, CommitsWhenTheReaderIsDone)
{
    startReading();
    {
        const Release release(_diagnostics, _other, "commit");
        const auto done = sql::inTransaction(
            _database,
            [this] {
                return sql::Statement(_database, "insert into product (id) values (1)").run();
            },
            forever);
        EXPECT_TRUE(done);
    }
    expectReport(waiting("commit", "commit"));
    EXPECT_EQ(there(), "1");
    expectFree();
}

// --- inTransaction()

TEST_P(TransactionTest, WorkIsCommittedWhenItReturnsTrue)
{
    const sql::Result<bool> done = sql::inTransaction(_database, [this] {
        EXPECT_FALSE(othersCanWrite());
        return add(1) && add(2);
    });
    EXPECT_TRUE(done && *done);
    EXPECT_EQ(there(), "1,2");
    expectFree();
}

TEST_P(TransactionTest, WorkIsUndoneWhenItReturnsFalse)
{
    const sql::Result<bool> done = sql::inTransaction(_database,
                                                      [this] { return add(1) && false; });
    EXPECT_FALSE(done);
    EXPECT_FALSE(done.failed());
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, WorkThatCannotBeUndoneIsAFailure)
{
    {
        std::optional<Prohibition> prohibition;
        const sql::Result<bool> done = sql::inTransaction(_database, [&] {
            EXPECT_TRUE(add(1));
            prohibition.emplace(_database, "ROLLBACK");
            return false;
        });
        EXPECT_TRUE(done.failed());
        EXPECT_EQ(done.error().text(), "not authorized");
        EXPECT_EQ(done.error().statement(), "rollback");
    }
    expectReport(joined({report::statementFailed("rollback", "rollback", forbidden),
                         report::statementFailed("~TransactionScope", "rollback", forbidden)}));
}

TEST_P(TransactionTest, WorkDoesNotRunWhenItCannotBegin)
{
    _other.run("begin immediate");
    bool runs = false;
    const sql::Result<bool> done = sql::inTransaction(_database, [&] { return runs = true; });
    _other.run("rollback");
    EXPECT_TRUE(done.failed() && done.error().isBusy());
    EXPECT_EQ(done.error().statement(), "begin immediate");
    EXPECT_FALSE(runs);
    expectReport(report::statementFailed("begin", "begin immediate", busy));
    expectFree();
}

TEST_P(TransactionTest, WorkRunsOnceAndIsUndoneWhenItCannotBeCommitted)
{
    int runs = 0;
    const sql::Result<bool> done = sql::inTransaction(_database, [&] {
        ++runs;
        return run("insert into part values (7)");
    });
    EXPECT_TRUE(done.failed() && done.error().isConstraint());
    EXPECT_EQ(done.error().statement(), "commit");
    EXPECT_EQ(runs, 1);
    expectReport(report::statementFailed("commit", "commit", violated));
    EXPECT_EQ(_other.rows("select * from part"), "");
    expectFree();
}

TEST_P(TransactionTest, WorkThatIsLostIsAFailureWhenItReturnsTrue)
{
    const sql::Result<bool> done = sql::inTransaction(_database, [this] {
        lose();
        return true;
    });
    EXPECT_TRUE(done.failed());
    EXPECT_STREQ(done.error().name(), "SQLITE_ABORT_ROLLBACK");
    expectReport(lostBefore("commit", "commit"));
    const sql::Result<bool> undone = sql::inTransaction(_database, [this] {
        lose();
        return false;
    });
    EXPECT_FALSE(undone || undone.failed());
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

#ifdef __cpp_exceptions
TEST_P(TransactionTest, ExceptionOfTheWorkUndoesItAndPassesThrough)
{
    EXPECT_THROW(static_cast<void>(sql::inTransaction(_database,
                                                      [this]() -> bool {
                                                          EXPECT_TRUE(add(1));
                                                          throw std::runtime_error("");
                                                      })),
                 std::runtime_error);
    EXPECT_EQ(there(), "NULL");
    expectFree();
}
#endif

// --- A database that goes away

TEST_P(TransactionTest, ClosedDatabaseIsAFailureAndItsTransactionUndone)
{
    sqlite3* const handle = _database.getHandle();
    {
        Transaction transaction(_database, sql::begin_immediate);
        Savepoint savepoint(_database);
        EXPECT_TRUE(add(1));
        _database.close();
        expectReport({report::asserted("void sql::Database::close()", "rc == SQLITE_OK")});
        for (const bool opened : {false, true}) {
            EXPECT_FALSE(transaction.commit());
            expectReport(report::statementFailed(
                "commit", "commit", "21=SQLITE_MISUSE: the database was closed or opened anew"));
            EXPECT_FALSE(savepoint.rollback());
            expectReport(report::statementFailed(
                "rollback", "rollback",
                "21=SQLITE_MISUSE: the database was closed or opened anew"));
            EXPECT_FALSE(othersCanWrite());
            if (!opened)
                open();
        }
    }
    EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
    EXPECT_EQ(there(), "NULL");
    expectFree();
}

TEST_P(TransactionTest, DestroyedDatabaseDoesNotKeepItFromEnding)
{
    auto database = std::make_unique<sql::Database>();
    ASSERT_TRUE(database->open(_file, sql::Database::access_read_write, false, 0));
    sqlite3* const handle = database->getHandle();
    {
        const Transaction transaction(*database, sql::begin_immediate);
        const Savepoint savepoint(*database);
        EXPECT_FALSE(othersCanWrite());
        database.reset();
        expectReport({report::asserted("void sql::Database::close()", "rc == SQLITE_OK")});
    }
    EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
    EXPECT_TRUE(othersCanWrite());
}

// --- Several connections

TEST_P(TransactionTest, GuardsOfTwoConnectionsKnowNothingOfEachOther)
{
    sql::Database second;
    ASSERT_TRUE(second.open(_directory.file("second.db"), sql::Database::access_create, false, 0));
    Transaction here(_database, sql::begin_immediate);
    Transaction there(second, sql::begin_immediate);
    Savepoint inner(second);
    lose();
    EXPECT_TRUE(!here.isOpen() && here.rollback());
    EXPECT_TRUE(there.isOpen() && inner.isOpen());
    EXPECT_TRUE(sql::RecordSet(second.getHandle()).query("create table t (a)"));
    EXPECT_TRUE(inner.commit() && there.commit());
    EXPECT_EQ(sql::queryNumber(second.getHandle(), "select count(*) from sqlite_master"), 1);
}

TEST_P(TransactionTest, EachOfTwoConnectionsRefusesTheCommitsOfOthers)
{
    sql::Database second;
    ASSERT_TRUE(second.open(_directory.file("second.db"), sql::Database::access_create, false, 0));
    Transaction here(_database, sql::begin_immediate);
    EXPECT_TRUE(add(1));
    const Transaction there(second, sql::begin_immediate);
    EXPECT_TRUE(sql::RecordSet(second.getHandle()).query("create table t (a)"));
    EXPECT_FALSE(second.transactionCommit());
    expectReport(refusedAndLost());
    EXPECT_FALSE(there.isOpen());
    EXPECT_TRUE(here.commit());
    EXPECT_EQ(sql::queryNumber(second.getHandle(), "select count(*) from sqlite_master"), 0);
}

TEST_P(TransactionTest, ThreadsHaveTheirGuardsAtOnce)
{
    constexpr int rounds = 100;
    const auto work = [this](int thread) {
        sql::Database database;
        // To compile is to read the file, which no patience of a transaction waits for.
        int good = database.open(_file, sql::Database::access_read_write, false, 60000);
        sql::Statement insert(database, "insert into product (id) values (?)");
        EXPECT_TRUE(sql::runScript(database, "pragma busy_timeout = 0"));
        for (int i = 0; i < rounds; ++i) {
            Transaction transaction(database, sql::begin_immediate, forever);
            Savepoint kept(database);
            good += insert.run(thread * rounds + i) && kept.commit();
            Savepoint undone(database);
            good += insert.run(1000000) && undone.rollback() && transaction.commit();
        }
        EXPECT_EQ(good, 1 + 2 * rounds);
    };
    std::thread first(work, 0);
    std::thread second(work, 1);
    first.join();
    second.join();
    EXPECT_EQ(_other.rows("select count(*), max(id) from product"),
              std::to_string(2 * rounds) + "|" + std::to_string(2 * rounds - 1));
}

} // namespace
