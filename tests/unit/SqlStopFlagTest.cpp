#include "SqlStopFlag.h"

#include "SqlPreparedTable.h"
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
#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <sys/time.h>

namespace {

namespace report = test::report;

using sql::Savepoint;
using sql::StopFlag;
using sql::Transaction;
using std::chrono::milliseconds;
using test::joined;
using test::Texts;
using testing::Values;
using testing::ValuesIn;

static_assert(std::is_constructible_v<StopFlag, sql::Database&>);
static_assert(!std::is_convertible_v<sql::Database&, StopFlag>);
static_assert(!std::is_copy_constructible_v<StopFlag> && !std::is_copy_assignable_v<StopFlag>);
static_assert(std::is_same_v<decltype(&StopFlag::set), void (StopFlag::*)() noexcept>);
static_assert(std::is_same_v<decltype(&StopFlag::clear), void (StopFlag::*)() noexcept>);
static_assert(std::is_same_v<decltype(&StopFlag::isSet), bool (StopFlag::*)() const noexcept>);
static_assert(std::is_same_v<decltype(&StopFlag::isAttached), bool (StopFlag::*)() const>);
static_assert(std::is_same_v<decltype(&StopFlag::error), const sql::Error& (StopFlag::*)() const>);

const int forever = 60000; // milliseconds, longer than any of this takes
const char interrupted[] = "9=SQLITE_INTERRUPT: interrupted";
const char busy[] = "5=SQLITE_BUSY: database is locked";

// Sets a flag from a signal handler, some milliseconds later, and again and again.
class Alarm {
public:
    Alarm(StopFlag& stop, int wait)
    {
        flag = &stop;
        struct sigaction action = {};
        action.sa_handler = [](int) {
            flag.load()->set();
        };
        ::sigaction(SIGALRM, &action, nullptr);
        start(wait * 1000);
    }
    ~Alarm()
    {
        start(0);
        std::signal(SIGALRM, SIG_IGN); // one may be on its way
    }
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;

private:
    static void start(int microseconds)
    {
        itimerval time = {};
        time.it_value.tv_usec = microseconds;
        time.it_interval.tv_usec = microseconds;
        ::setitimer(ITIMER_REAL, &time, nullptr);
    }

    static std::atomic<StopFlag*> flag;
};

std::atomic<StopFlag*> Alarm::flag(nullptr);

// Sets a flag while SQLite runs a statement, at one of its own looks, counted from 1.
class Moment {
public:
    Moment(sql::Database& database, StopFlag& stop, int nth)
        : _db(database.getHandle()), _stop(stop), _left(nth)
    {
        const auto look = [](void* data) {
            Moment& moment = *static_cast<Moment*>(data);
            if (--moment._left == 0)
                moment._stop.set();
            return 0;
        };
        sqlite3_progress_handler(_db, 1, look, this);
    }
    ~Moment()
    {
        sqlite3_progress_handler(_db, 0, nullptr, nullptr);
    }
    Moment(const Moment&) = delete;
    Moment& operator=(const Moment&) = delete;

private:
    sqlite3* _db;
    StopFlag& _stop;
    int _left;
};

// A file with a table of products, a connection to it, and another one that sees what is committed.
class StopFlagTest : public test::ReportTest {
protected:
    StopFlagTest()
        : _file(makeFile(_directory.file("shop.db"))), _other(_file),
          _table(nullptr, "product", _fields)
    {
        open(forever);
    }

    void open(int busyTimeout)
    {
        EXPECT_TRUE(_database.open(_file, sql::Database::access_read_write, false, busyTimeout));
        _table.initTable(_database.getHandle(), nullptr);
        EXPECT_TRUE(_table.open("id = 1")); // SQLite knows the schema
    }

    bool run(const std::string& statement)
    {
        return sql::RecordSet(_database.getHandle()).query(statement);
    }

    bool isInTransaction()
    {
        return sqlite3_get_autocommit(_database.getHandle()) == 0;
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

    // What is committed.
    std::string there()
    {
        return _other.rows("select count(*), sum(price) from product");
    }

    // The statement's latest operation was stopped, and has reported that and nothing else.
    void expectStopped(const sql::Statement& statement, const std::string& operation)
    {
        expectStopped(statement.error(), operation, std::string(statement.text()));
    }
    void expectStopped(const sql::Error& error, const std::string& operation,
                       const std::string& text)
    {
        EXPECT_TRUE(error.isStopped());
        EXPECT_EQ(error.text(), "interrupted");
        EXPECT_EQ(error.statement(), text);
        expectReport(report::statementFailed(operation, text, interrupted));
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
        test::Connection(file).run(
            "pragma journal_mode = wal;"
            "create table product (id integer primary key, name text, price real);"
            "with recursive number (i) as (select 1 union all select i + 1 from number where i < 1000)"
            " insert into product select i, 'product ' || i, i % 10 from number");
        return file;
    }
};

const char all_there[] = "1000|4500.0";

// --- The flag itself

TEST_F(StopFlagTest, FlagIsNotSetWhenItIsMade)
{
    const StopFlag stop(_database);
    EXPECT_TRUE(stop.isAttached());
    EXPECT_FALSE(stop.isSet());
    EXPECT_FALSE(stop.error());
    EXPECT_TRUE(add(2000));
}

TEST_F(StopFlagTest, FlagSticksUntilItIsCleared)
{
    StopFlag stop(_database);
    stop.set();
    EXPECT_TRUE(stop.isSet());
    stop.set();
    EXPECT_TRUE(stop.isSet());
    for (int i = 0; i < 3; ++i) {
        sql::Statement count(_database, "select count(*) from product");
        EXPECT_TRUE(count.one<int>().error().isStopped());
        expectStopped(count, "one");
    }
    stop.clear();
    EXPECT_FALSE(stop.isSet());
    EXPECT_EQ(sql::Statement(_database, "select count(*) from product").one<int>().valueOr(0),
              1000);
}

TEST_F(StopFlagTest, DatabaseThatIsNotOpenIsRefused)
{
    sql::Database closed;
    StopFlag stop(closed);
    EXPECT_FALSE(stop.isAttached());
    EXPECT_TRUE(stop.error().isMisuse());
    EXPECT_EQ(stop.error().text(), "the database is not open");
    EXPECT_EQ(stop.error().statement(), "pragma busy_timeout");
    expectReport(report::statementFailed("StopFlag", "pragma busy_timeout",
                                         "21=SQLITE_MISUSE: the database is not open"));
    stop.set(); // which nobody heeds
    EXPECT_TRUE(stop.isSet());
    stop.clear();
    EXPECT_FALSE(stop.isSet());
}

TEST_F(StopFlagTest, SecondOneIsRefusedAndTheFirstIsHeeded)
{
    std::optional<StopFlag> first(std::in_place, _database);
    {
        StopFlag second(_database);
        EXPECT_FALSE(second.isAttached());
        EXPECT_TRUE(second.error().isMisuse());
        expectReport(
            report::statementFailed("StopFlag", "pragma busy_timeout",
                                    "21=SQLITE_MISUSE: the connection has a stop flag already"));
        second.set();
        EXPECT_TRUE(add(2000));
    }
    EXPECT_TRUE(first->isAttached());
    first->set();
    EXPECT_FALSE(add(2001));
    expectReport(report::refused(product(2001).toSqlInsert("product"), interrupted));
    first.reset();
    const StopFlag next(_database);
    EXPECT_TRUE(next.isAttached());
    EXPECT_TRUE(add(2001));
}

TEST_F(StopFlagTest, FlagIsThatOfItsConnectionAlone)
{
    sql::Database another;
    EXPECT_TRUE(another.open(_file, sql::Database::access_read_only, false, 0));
    StopFlag stop(_database);
    StopFlag other(another);
    EXPECT_TRUE(other.isAttached());
    other.set();
    EXPECT_TRUE(add(2000));
    other.clear();
    stop.set();
    EXPECT_EQ(sql::queryNumber(another.getHandle(), "select count(*) from product"), 1001);
}

TEST_F(StopFlagTest, RunOfAnotherConnectionGoesOn)
{
    sql::Database another;
    EXPECT_TRUE(another.open(_file, sql::Database::access_read_only, false, 0));
    const StopFlag stop(_database);
    StopFlag other(another);
    sql::Statement all(_database, "select id from product");
    EXPECT_TRUE(all.next());
    other.set();
    EXPECT_TRUE(all.next());
}

TEST_F(StopFlagTest, FlagsOfSeveralConnectionsEndInAnyOrder)
{
    sql::Database databases[3];
    std::optional<StopFlag> flags[3];
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(databases[i].open(":memory:", sql::Database::access_create, false, 0));
        flags[i].emplace(databases[i]);
        flags[i]->set();
    }
    for (const int ended : {1, 0, 2}) {
        flags[ended].reset();
        for (int i = 0; i < 3; ++i) {
            sql::Statement statement(databases[i], "select 1 from sqlite_master");
            EXPECT_EQ(statement.run(), !flags[i]) << i;
            if (flags[i])
                expectStopped(statement, "run");
        }
    }
}

TEST_F(StopFlagTest, FlagThatCannotAskForTheTimeoutIsNotAttached)
{
    sql::Statement all(_database, "select * from product");
    EXPECT_TRUE(all.next());
    sqlite3_interrupt(_database.getHandle());
    const StopFlag stop(_database);
    EXPECT_FALSE(stop.isAttached());
    expectStopped(stop.error(), "StopFlag", "pragma busy_timeout");
}

TEST_F(StopFlagTest, FlagIsNotHeededAfterItsEnd)
{
    std::optional<StopFlag> stop(std::in_place, _database);
    stop->set();
    stop.reset();
    EXPECT_TRUE(add(2000));
}

// --- The connection's end

TEST_F(StopFlagTest, FlagOutlivesItsConnection)
{
    StopFlag stop(_database);
    _database.close();
    EXPECT_FALSE(stop.isAttached());
    EXPECT_FALSE(stop.error());
    stop.set();
    open(0);
    EXPECT_FALSE(stop.isAttached());
    EXPECT_TRUE(add(2000));
    const StopFlag next(_database);
    EXPECT_TRUE(next.isAttached());
}

TEST_F(StopFlagTest, ConnectionThatIsLeakedHeedsItNoMore)
{
    sqlite3* const leaked = _database.getHandle();
    sqlite3_stmt* left = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(leaked, "select 1", -1, &left, nullptr), SQLITE_OK);
    {
        StopFlag stop(_database);
        stop.set();
        _database.close();
        expectReport({report::asserted("void sql::Database::close()", "rc == SQLITE_OK")});
        EXPECT_FALSE(stop.isAttached());
        EXPECT_EQ(sqlite3_step(left), SQLITE_ROW);
        sqlite3_reset(left);
    }
    EXPECT_EQ(sqlite3_step(left), SQLITE_ROW);
    sqlite3_finalize(left);
    EXPECT_EQ(test::closeConnection(leaked), SQLITE_OK);
}

// --- Runs

struct Work : test::Case {
    std::string statement;
};

const Work works[] = {
    {"Select", "select * from product where name like '%x%'"},
    {"Count", "select count(*) from product"},
    {"Sort", "select * from product order by price, name"},
    {"Insert", "insert into product select id + 1000, name, price from product"},
    {"Update", "update product set price = price + 1"},
    {"Delete", "delete from product where id % 2"},
    {"CreateTable", "create table other (id)"},
    {"CreateIndex", "create index by_price on product (price, name)"},
    {"DropTable", "drop table product"},
    {"Analyze", "analyze"},
    {"Vacuum", "vacuum"},
    {"IntegrityCheck", "pragma integrity_check"},
    {"QuickCheck", "pragma quick_check"},
};

class StoppedRunTest : public StopFlagTest, public testing::WithParamInterface<Work> {};

INSTANTIATE_TEST_SUITE_P(Works, StoppedRunTest, ValuesIn(works), test::NameOfCase());

TEST_P(StoppedRunTest, FlagThatIsSetBeforeStopsIt)
{
    StopFlag stop(_database);
    sql::Statement work(_database, GetParam().statement);
    stop.set();
    EXPECT_FALSE(work.run());
    expectStopped(work, "run");
    EXPECT_EQ(there(), all_there);
    EXPECT_FALSE(isInTransaction());
    stop.clear();
    EXPECT_TRUE(work.run());
}

TEST_P(StoppedRunTest, FlagThatIsSetInItStopsIt)
{
    StopFlag stop(_database);
    sql::Statement work(_database, GetParam().statement);
    {
        const Moment moment(_database, stop, 1);
        EXPECT_FALSE(work.run());
    }
    expectStopped(work, "run");
    EXPECT_EQ(there(), all_there);
    EXPECT_FALSE(isInTransaction());
    stop.clear();
    EXPECT_TRUE(work.run());
}

TEST_P(StoppedRunTest, FlagThatIsSetAfterItTakesNothingBack)
{
    StopFlag stop(_database);
    EXPECT_TRUE(sql::Statement(_database, GetParam().statement).run());
    const std::string before = test::rows(_other, "select name from sqlite_master order by 1");
    stop.set();
    stop.clear();
    EXPECT_EQ(test::rows(_other, "select name from sqlite_master order by 1"), before);
    EXPECT_TRUE(run("select 1"));
}

TEST_P(StoppedRunTest, TextsAreStoppedLikewise)
{
    StopFlag stop(_database);
    stop.set();
    EXPECT_FALSE(run(GetParam().statement));
    EXPECT_TRUE(sql::lastError(_database).isStopped());
    expectReport(report::refused(GetParam().statement, interrupted));
    EXPECT_EQ(there(), all_there);
    stop.clear();
    EXPECT_TRUE(run(GetParam().statement));
}

TEST_F(StopFlagTest, LoopOverRowsEndsByTheFlag)
{
    StopFlag stop(_database);
    sql::Statement all(_database, "select id from product");
    int rows = 0;
    for (sql::integer id = 0; all.next(id);) {
        if (++rows == 10)
            stop.set();
    }
    EXPECT_EQ(rows, 10);
    EXPECT_FALSE(all.finished());
    expectStopped(all, "next");
    stop.clear();
    EXPECT_TRUE(all.run());
}

// As it is documented: SQLite remembers an interrupt while one of its statements is under way.
TEST_F(StopFlagTest, StatementAtARowKeepsOthersFromRunningUntilItIsReset)
{
    StopFlag stop(_database);
    sql::Statement all(_database, "select id from product");
    sql::Statement other(_database, "select 1");
    EXPECT_TRUE(all.next());
    stop.set();
    stop.clear();
    EXPECT_FALSE(other.run());
    expectStopped(other, "run");
    EXPECT_TRUE(all.reset());
    EXPECT_TRUE(other.run());
    EXPECT_TRUE(all.run());
}

TEST_F(StopFlagTest, ScriptEndsAtTheStatementThatIsStopped)
{
    StopFlag stop(_database);
    const Moment moment(_database, stop, 40);
    const auto done = sql::runScript(_database, "delete from product where id = 1000;"
                                                "update product set price = 1");
    EXPECT_TRUE(done.error().isStopped());
    expectReport(report::statementFailed("runScript", "update product set price = 1",
                                         "9=SQLITE_INTERRUPT: statement 2: interrupted"));
    EXPECT_EQ(there(), "999|4500.0");
}

#if SQLITE_VERSION_NUMBER >= 3040000 // older ones tell that there is no such table

// One that comes while a table-valued function is made known. The statement at a row lets it last.
TEST_F(StopFlagTest, StopThatSqliteTellsAsAnErrorIsAStop)
{
    StopFlag stop(_database);
    sql::Statement all(_database, "select * from product");
    EXPECT_TRUE(all.next());
    const auto setInSelect = [](void* flag, int action, const char*, const char*, const char*,
                                const char*) {
        if (action == SQLITE_SELECT)
            static_cast<StopFlag*>(flag)->set();
        return SQLITE_OK;
    };
    sqlite3_set_authorizer(_database.getHandle(), setInSelect, &stop);
    const std::string text = "select name from pragma_table_info('product')";
    expectStopped(sql::Statement(_database, text).error(), "Statement", text);
    sqlite3_set_authorizer(_database.getHandle(), nullptr, nullptr);
    stop.clear();
    EXPECT_TRUE(all.reset());
    EXPECT_TRUE(sql::Statement(_database, text).run());
}

#endif

TEST_F(StopFlagTest, ErrorOfAnotherCauseIsNoStop)
{
    StopFlag stop(_database);
    const auto setAndFail = [](sqlite3_context* context, int, sqlite3_value**) {
        static_cast<StopFlag*>(sqlite3_user_data(context))->set();
        sqlite3_result_error(context, "no", -1);
    };
    EXPECT_EQ(sqlite3_create_function(_database.getHandle(), "refuse", 0, SQLITE_UTF8, &stop,
                                      setAndFail, nullptr, nullptr),
              SQLITE_OK);
    sql::Statement refused(_database, "select refuse()");
    EXPECT_FALSE(refused.run());
    EXPECT_TRUE(stop.isSet());
    expectReport(report::statementFailed("run", "select refuse()", "1=SQLITE_ERROR: no"));
    const sql::Statement missing(_database, "select * from missing");
    expectReport(report::statementFailed("Statement", "select * from missing",
                                         "1=SQLITE_ERROR: no such table: missing"));
}

TEST_F(StopFlagTest, ChangeOfATableThatIsStoppedAnywhereIsAStop)
{
    StopFlag stop(_database);
    const std::string text = "alter table product rename to goods";
    bool isDone = false;
    int nth = 0;
    for (; !isDone; stop.clear()) {
        sql::Statement change(_database, text);
        const Moment moment(_database, stop, ++nth);
        isDone = change.run();
        if (!isDone)
            expectStopped(change, "run");
    }
    EXPECT_GT(nth, 5);
}

TEST_F(StopFlagTest, TablesFailAndChangeNothing)
{
    StopFlag stop(_database);
    stop.set();
    EXPECT_FALSE(_table.open());
    expectReport(report::refused("select * from product", interrupted));
    EXPECT_FALSE(_table.updateRecord(product(1)));
    expectReport(report::refused(product(1).toSqlUpdate("product"), interrupted));
    EXPECT_FALSE(_table.deleteRecord(1));
    expectReport(report::refused("delete from product where id = 1", interrupted));
    EXPECT_EQ(sql::queryNumber(_database.getHandle(), "select count(*) from product"), -1);
    expectReport(report::noRow("select count(*) from product", interrupted));
    EXPECT_EQ(there(), all_there);
    stop.clear();
    EXPECT_TRUE(_table.open() && _table.deleteRecord(1));
    EXPECT_EQ(sql::queryNumber(_database.getHandle(), "select count(*) from product"), 999);
}

TEST_F(StopFlagTest, ThreadsSetItAtAnyTime)
{
    StopFlag stop(_database);
    sql::Statement insert(_database, "insert into product (id) values (?)");
    std::atomic<bool> isOver(false);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] {
            while (!isOver) {
                stop.set();
                stop.clear();
            }
        });
    int stored = 0;
    for (int id = 2000; id < 2500; ++id) {
        if (insert.run(id))
            ++stored;
        else
            expectStopped(insert, "run");
    }
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    stop.clear();
    EXPECT_EQ(_other.rows("select count(*) from product where id >= 2000"), std::to_string(stored));
    EXPECT_TRUE(insert.run(3000));
}

// --- Records

TEST_F(StopFlagTest, RecordsInBulkAreAddedTogetherOrNotAtAll)
{
    StopFlag stop(_database);
    sql::PreparedTable fast(_database, _table);
    std::vector<sql::Record> records;
    for (int id = 2000; id < 2400; ++id)
        records.push_back(product(id));
    const auto stopAt = [&stop](sql::integer count) {
        if (count >= 100)
            stop.set();
        return true;
    };
    EXPECT_FALSE(fast.addRecords(records.begin(), records.end(), stopAt));
    EXPECT_TRUE(fast.error().isStopped());
    EXPECT_FALSE(_diagnostics.take().empty());
    EXPECT_EQ(there(), all_there);
    EXPECT_FALSE(isInTransaction());
    EXPECT_FALSE(fast.addRecords(records.begin(), records.end()));
    expectStopped(fast.error(), "begin", "begin immediate");
    stop.clear();
    EXPECT_TRUE(fast.addRecords(records.begin(), records.end()));
    EXPECT_EQ(there(), "1400|4500.0");
}

TEST_F(StopFlagTest, PreparedTableDoesNotKnowAndChangesNothing)
{
    StopFlag stop(_database);
    sql::PreparedTable fast(_database, _table);
    sql::Record record = product(1);
    EXPECT_EQ(fast.hasRecordWithKeyId(1), sql::Presence::present);
    stop.set();
    EXPECT_EQ(fast.hasRecordWithKeyId(1), sql::Presence::unknown);
    expectStopped(fast.error(), "hasRecordWithKeyId", fast.error().statement());
    EXPECT_TRUE(fast.readRecord(1, record).error().isStopped());
    expectStopped(fast.error(), "readRecord", fast.error().statement());
    EXPECT_FALSE(fast.addOrUpdateRecord(record));
    expectStopped(fast.error(), "addOrUpdateRecord", fast.error().statement());
    EXPECT_FALSE(fast.deleteRecord(1));
    expectStopped(fast.error(), "deleteRecord", fast.error().statement());
    EXPECT_EQ(there(), all_there);
    stop.clear();
    EXPECT_TRUE(fast.deleteRecord(1));
}

TEST_F(StopFlagTest, CopyIsWholeOrNotThereAtAll)
{
    EXPECT_TRUE(run("create table archive (id integer primary key, name text, price real)"));
    sql::Database target;
    EXPECT_TRUE(target.open(_file, sql::Database::access_read_write, false, 0));
    const sql::Table archive(target.getHandle(), "archive", _fields);
    sql::PreparedTable from(_database, _table);
    sql::PreparedTable to(target, archive);
    for (sql::Database* const stopped : {&_database, &target}) {
        StopFlag stop(*stopped);
        {
            const Moment moment(*stopped, stop, 500);
            EXPECT_FALSE(to.copyRecords(from));
        }
        EXPECT_TRUE(to.error().isStopped());
        EXPECT_FALSE(_diagnostics.take().empty());
        EXPECT_EQ(_other.rows("select count(*) from archive"), "0");
    }
    EXPECT_TRUE(to.copyRecords(from));
    EXPECT_EQ(_other.rows("select count(*) from archive"), "1000");
}

// --- Transactions

// Nothing is even tried, which the trace would tell.
TEST_F(StopFlagTest, NoTransactionBegins)
{
    StopFlag stop(_database);
    stop.set();
    _diagnostics.setLevel(9);
    const char* const beginnings[] = {"begin deferred", "begin immediate", "begin exclusive"};
    for (const auto mode : {sql::begin_deferred, sql::begin_immediate, sql::begin_exclusive}) {
        const Transaction transaction(_database, mode);
        EXPECT_FALSE(transaction.isOpen());
        expectStopped(transaction.error(), "begin", beginnings[mode]);
        EXPECT_FALSE(isInTransaction());
    }
    {
        const Savepoint savepoint(_database);
        EXPECT_FALSE(savepoint.isOpen());
        EXPECT_TRUE(savepoint.error().isStopped());
        expectStopped(savepoint.error(), "begin", savepoint.error().statement());
        EXPECT_FALSE(isInTransaction());
    }
    bool hasRun = false;
    const auto done = sql::inTransaction(_database, [&] { return hasRun = true; });
    expectStopped(done.error(), "begin", "begin immediate");
    EXPECT_FALSE(hasRun);
    _diagnostics.setLevel(3);
    stop.clear();
    EXPECT_TRUE(Transaction(_database, sql::begin_deferred).isOpen());
}

TEST_F(StopFlagTest, CommitWaitsUntilTheFlagIsCleared)
{
    StopFlag stop(_database);
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(2000));
    stop.set();
    _diagnostics.setLevel(9);
    EXPECT_FALSE(transaction.commit());
    expectStopped(transaction.error(), "commit", "commit");
    _diagnostics.setLevel(3);
    EXPECT_TRUE(transaction.isOpen());
    EXPECT_EQ(there(), all_there);
    stop.clear();
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1001|4500.0");
}

TEST_F(StopFlagTest, TransactionIsRolledBackWhileTheFlagIsSet)
{
    StopFlag stop(_database);
    {
        const Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(2000));
        stop.set();
    }
    EXPECT_FALSE(isInTransaction());
    stop.clear();
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(2000));
    stop.set();
    EXPECT_TRUE(transaction.rollback());
    EXPECT_FALSE(isInTransaction());
    EXPECT_EQ(there(), all_there);
}

TEST_F(StopFlagTest, SavepointIsRolledBackAloneWhileTheFlagIsSet)
{
    StopFlag stop(_database);
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(2000));
    {
        const Savepoint savepoint(_database);
        EXPECT_TRUE(add(2001));
        stop.set();
    }
    EXPECT_TRUE(transaction.isOpen());
    stop.clear();
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1001|4500.0");
}

TEST_F(StopFlagTest, RollbackIsNotStoppedByAFlagThatIsSetInIt)
{
    for (int nth = 1; nth <= 4; ++nth) {
        StopFlag stop(_database);
        Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(add(2000));
        {
            Savepoint savepoint(_database);
            EXPECT_TRUE(add(2001));
            const Moment moment(_database, stop, nth);
            EXPECT_TRUE(savepoint.rollback());
        }
        EXPECT_TRUE(transaction.isOpen());
        stop.clear();
        const Moment moment(_database, stop, nth);
        EXPECT_TRUE(transaction.rollback());
        EXPECT_FALSE(isInTransaction());
    }
    EXPECT_EQ(there(), all_there);
}

#if SQLITE_VERSION_NUMBER >= 3040000 // older ones do not look whether to stop here

// Once, at its first look. Without the second try it would take the whole transaction with it.
TEST_F(StopFlagTest, RollbackThatIsInterruptedIsTriedAgain)
{
    StopFlag stop(_database);
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(2000));
    Savepoint savepoint(_database);
    EXPECT_TRUE(add(2001));
    stop.set();
    int looks = 0;
    const auto isFirst = [](void* data) {
        return ++*static_cast<int*>(data) == 1 ? 1 : 0;
    };
    sqlite3_progress_handler(_database.getHandle(), 1, isFirst, &looks);
    EXPECT_TRUE(savepoint.rollback());
    sqlite3_progress_handler(_database.getHandle(), 0, nullptr, nullptr);
    EXPECT_GT(looks, 1);
    EXPECT_TRUE(transaction.isOpen());
    stop.clear();
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1001|4500.0");
}

#endif

TEST_F(StopFlagTest, RollbacksOfTheDatabaseAndByTextsRun)
{
    StopFlag stop(_database);
    EXPECT_TRUE(_database.transactionBegin() && add(2000));
    stop.set();
    EXPECT_TRUE(_database.transactionRollback());
    EXPECT_FALSE(isInTransaction());
    for (const char* const text :
         {"rollback", " /* now */ RollBack transaction; ", "-- it\nROLLBACK"}) {
        stop.clear();
        EXPECT_TRUE(_database.transactionBegin() && run("savepoint one") && add(2000));
        stop.set();
        EXPECT_TRUE(run("rollback to one"));
        EXPECT_TRUE(run(text)) << text;
        EXPECT_FALSE(isInTransaction()) << text;
    }
    EXPECT_EQ(there(), all_there);
}

TEST_F(StopFlagTest, WriteThatIsStoppedTakesTheTransactionWithIt)
{
    StopFlag stop(_database);
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(2000));
    sql::Statement update(_database, "update product set price = 1");
    {
        const Moment moment(_database, stop, 500);
        EXPECT_FALSE(update.run());
    }
    EXPECT_TRUE(update.error().isStopped());
    expectReport(joined(
        {{report::error("Transaction::noteRollback", "The transaction was rolled back: nothing is "
                                                     "committed before its scope ends")},
         report::statementFailed("run", "update product set price = 1", interrupted)}));
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_EQ(there(), all_there);
}

TEST_F(StopFlagTest, ReadThatIsStoppedLeavesTheTransactionOpen)
{
    StopFlag stop(_database);
    Transaction transaction(_database, sql::begin_immediate);
    EXPECT_TRUE(add(2000));
    stop.set();
    sql::Statement count(_database, "select count(*) from product");
    EXPECT_FALSE(count.run());
    expectStopped(count, "run");
    stop.clear();
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1001|4500.0");
}

// --- Waits

TEST_F(StopFlagTest, WaitForAnotherConnectionIsStopped)
{
    StopFlag stop(_database);
    _other.run("begin immediate");
    sql::Statement update(_database, "update product set price = 1");
    {
        const Alarm alarm(stop, 5);
        EXPECT_FALSE(update.run());
    }
    expectStopped(update, "run");
    EXPECT_FALSE(add(2000)); // at once
    EXPECT_TRUE(sql::lastError(_database).isStopped());
    EXPECT_EQ(sql::lastError(_database).text(), "interrupted");
    expectReport(report::refused(product(2000).toSqlInsert("product"), busy));
    _other.run("rollback");
    stop.clear();
    EXPECT_TRUE(update.run());
}

TEST_F(StopFlagTest, PatienceOfATransactionIsStopped)
{
    open(0);
    StopFlag stop(_database);
    _other.run("begin immediate");
    {
        const Alarm alarm(stop, 5);
        const Transaction transaction(_database, sql::begin_immediate, milliseconds(forever));
        EXPECT_FALSE(transaction.isOpen());
        expectStopped(transaction.error(), "begin", "begin immediate");
    }
    EXPECT_FALSE(isInTransaction());
    _other.run("rollback");
    stop.clear();
    EXPECT_TRUE(Transaction(_database, sql::begin_immediate).isOpen());
}

TEST_F(StopFlagTest, CommitThatWaitsForReadersIsStoppedAndCanBeTriedAgain)
{
    _database.close();
    _other.run("pragma journal_mode = delete");
    open(0);
    StopFlag stop(_database);
    Transaction transaction(_database, sql::begin_immediate, milliseconds(forever));
    EXPECT_TRUE(add(2000));
    _other.run("begin; select * from product");
    {
        const Alarm alarm(stop, 5);
        EXPECT_FALSE(transaction.commit());
    }
    expectStopped(transaction.error(), "commit", "commit");
    EXPECT_TRUE(transaction.isOpen());
    _other.run("commit");
    stop.clear();
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "1001|4500.0");
}

TEST_F(StopFlagTest, BusyTimeoutIsThatOfTheDatabase)
{
    for (const int timeout : {-1, 0, 20}) {
        open(timeout);
        const StopFlag stop(_database);
        _other.run("begin immediate");
        sql::Statement update(_database, "update product set price = 1");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(update.run());
        const auto time = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(update.error().isBusy());
        expectReport(report::statementFailed("run", "update product set price = 1", busy));
        EXPECT_GE(time, milliseconds(timeout));
        EXPECT_LT(time, milliseconds(forever));
        _other.run("rollback");
    }
}

TEST_F(StopFlagTest, LockThatIsReleasedInTimeIsWaitedFor)
{
    const StopFlag stop(_database);
    _other.run("begin immediate");
    std::thread other([this] {
        std::this_thread::sleep_for(milliseconds(5));
        _other.run("rollback");
    });
    EXPECT_TRUE(add(2000));
    other.join();
}

TEST_F(StopFlagTest, BusyTimeoutIsGivenBack)
{
    open(1234);
    {
        const StopFlag stop(_database);
        EXPECT_EQ(sql::queryNumber(_database.getHandle(), "pragma busy_timeout"),
                  0); // SQLite's own
    }
    EXPECT_EQ(sql::queryNumber(_database.getHandle(), "pragma busy_timeout"), 1234);
}

TEST_F(StopFlagTest, AnotherConnectionsLockIsBusyUnderAFlagOfAnother)
{
    open(0);
    sql::Database another;
    EXPECT_TRUE(another.open(_file, sql::Database::access_read_only, false, 0));
    StopFlag stop(another);
    stop.set();
    _other.run("begin immediate");
    EXPECT_FALSE(add(2000));
    EXPECT_TRUE(sql::lastError(_database).isBusy());
    expectReport(report::refused(product(2000).toSqlInsert("product"), busy));
}

} // namespace
