#include "SqlGroupCommit.h"

#include "SqlStatement.h"
#include "SqlStopFlag.h"

#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <chrono>
#include <climits>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>

namespace {

namespace report = test::report;

using sql::GroupCommit;
using std::chrono::milliseconds;
using test::joined;
using test::Texts;
using testing::Values;

static_assert(!std::is_copy_constructible_v<GroupCommit>);
static_assert(!std::is_move_constructible_v<GroupCommit>);
static_assert(!std::is_default_constructible_v<GroupCommit>);

// Long enough for any time, on machines of 32 bits, too.
static_assert(sizeof(milliseconds::rep) == 8);
static_assert(sizeof(std::chrono::steady_clock::rep) == 8);

const milliseconds forever(60000); // longer than any of this takes
const char busy[] = "5=SQLITE_BUSY: database is locked";
const char taken[] = "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: reading.id";

Texts rolledBack()
{
    return {report::error("Transaction::noteRollback",
                          "The transaction was rolled back: nothing is "
                          "committed before its scope ends")};
}
Texts lost(int writes)
{
    return {report::error("GroupCommit::drop",
                          "Writes of a group that are lost: " + std::to_string(writes))};
}
Texts misused(const std::string& operation, const std::string& why)
{
    return report::statementFailed(operation, operation, "21=SQLITE_MISUSE: " + why);
}

// A file with a table of readings, a connection to it, and another one that sees what is committed.
class GroupCommitTest : public test::ReportTest, public testing::WithParamInterface<const char*> {
protected:
    GroupCommitTest() : _file(makeFile(_directory.file("readings.db"))), _other(_file)
    {
        open();
        _add.emplace(_database, "insert into reading values (?, null)");
    }

    void open()
    {
        EXPECT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
        test::run(_database.getHandle(), "pragma foreign_keys = on");
    }

    // One row, as a write of the group.
    bool write(GroupCommit& group, int id)
    {
        return group.write([&] { return _add->run(id); });
    }

    // What is committed.
    std::string there()
    {
        return keysOn(_other);
    }
    std::string seen()
    {
        return keysOn(_database.getHandle());
    }

    bool othersCanWrite()
    {
        const int rc = sqlite3_exec(_other, "begin immediate", nullptr, nullptr, nullptr);
        sqlite3_exec(_other, "rollback", nullptr, nullptr, nullptr);
        return rc == SQLITE_OK;
    }

    // The open group has so many writes, none for no group.
    static void expectOpen(const GroupCommit& group, std::optional<int> writes)
    {
        EXPECT_EQ(group.pending(), writes.value_or(0));
        EXPECT_EQ(group.due().has_value(), writes.has_value());
    }

    static std::string keysOn(sqlite3* db)
    {
        return test::rows(db, "select group_concat(id) from (select id from reading order by id)");
    }

    const test::TemporaryDirectory _directory;
    const std::string _file;
    test::Connection _other;
    sql::Database _database;
    std::optional<sql::Statement> _add;

private:
    static std::string makeFile(const std::string& file)
    {
        test::Connection db(file);
        db.run(std::string("pragma journal_mode = ") + GetParam());
        db.run("create table reading (id integer primary key, of integer references reading (id)"
               " deferrable initially deferred); create table note (text)");
        return file;
    }
};

INSTANTIATE_TEST_SUITE_P(Journals, GroupCommitTest, Values("delete", "wal"),
                         [](const auto& chosen) { return std::string(chosen.param); });

// --- When it commits

TEST_P(GroupCommitTest, CommitsAfterSoManyWrites)
{
    GroupCommit group(_database, 3, forever);
    expectOpen(group, std::nullopt);
    for (int id = 1; id <= 7; ++id) {
        EXPECT_TRUE(write(group, id));
        EXPECT_FALSE(group.error());
        expectOpen(group, id % 3 == 0 ? std::nullopt : std::optional<int>(id % 3));
    }
    EXPECT_EQ(there(), "1,2,3,4,5,6");
    EXPECT_EQ(seen(), "1,2,3,4,5,6,7");
    EXPECT_TRUE(group.flush());
    expectOpen(group, std::nullopt);
    EXPECT_EQ(there(), "1,2,3,4,5,6,7");
    EXPECT_TRUE(group.flush()) << "of nothing";
    EXPECT_EQ(group.lost(), 0);
}

TEST_P(GroupCommitTest, GroupsOfOneAreCommittedOneByOne)
{
    for (const int count : {1, 0, INT_MIN}) {
        GroupCommit group(_database, count, forever);
        EXPECT_TRUE(write(group, count == 1 ? 1 : count == 0 ? 2 : 3));
        expectOpen(group, std::nullopt);
    }
    EXPECT_EQ(there(), "1,2,3");
}

TEST_P(GroupCommitTest, IsDueSoLongAfterItsFirstWrite)
{
    const milliseconds longest(40);
    GroupCommit group(_database, INT_MAX, longest);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(write(group, 1));
    while (group.due().value_or(milliseconds(0)) > milliseconds(0)) {
        EXPECT_LE(*group.due(), longest);
        EXPECT_TRUE(write(group, static_cast<int>(group.pending()) + 1));
        if (group.pending() > 0)
            std::this_thread::sleep_for(milliseconds(1));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - before, longest);
    EXPECT_TRUE(group.flush());
    EXPECT_EQ(there(), seen());
}

TEST_P(GroupCommitTest, WriteCommitsAGroupThatIsDue)
{
    GroupCommit group(_database, INT_MAX, milliseconds(50));
    EXPECT_TRUE(write(group, 1));
    EXPECT_EQ(there(), "NULL");
    std::this_thread::sleep_for(milliseconds(51));
    EXPECT_EQ(group.due(), milliseconds(0));
    EXPECT_TRUE(write(group, 2));
    EXPECT_EQ(there(), "1,2");
    expectOpen(group, std::nullopt);
}

TEST_P(GroupCommitTest, TimesOfAnyLengthAreTimes)
{
    for (const milliseconds longest :
         {milliseconds(std::chrono::hours(24 * 30)), milliseconds::max()}) {
        GroupCommit group(_database, INT_MAX, longest);
        EXPECT_TRUE(write(group, longest == milliseconds::max() ? 1 : 2));
        EXPECT_EQ(group.due(), milliseconds(INT_MAX));
    }
    for (const milliseconds longest : {milliseconds(0), milliseconds(-1), milliseconds::min()}) {
        GroupCommit group(_database, INT_MAX, longest);
        EXPECT_TRUE(write(group, 3 + (longest < milliseconds(-1)) + (longest < milliseconds(0))));
        expectOpen(group, std::nullopt);
    }
    EXPECT_EQ(there(), "1,2,3,4,5");
}

TEST_P(GroupCommitTest, CommitsAtItsEnd)
{
    {
        GroupCommit group(_database, 10, forever);
        EXPECT_TRUE(write(group, 1));
        EXPECT_TRUE(write(group, 2));
        EXPECT_EQ(there(), "NULL");
        _diagnostics.setLevel(8);
    }
    expectReport({report::debug(2, "Transaction::~GroupCommit", "stmt='commit'")});
    EXPECT_EQ(there(), "1,2");
    EXPECT_TRUE(othersCanWrite());
}

// --- Writes that do not go in

TEST_P(GroupCommitTest, WriteThatIsNotGoodIsUndoneAlone)
{
    GroupCommit group(_database, 3, forever);
    const auto half = [&] {
        EXPECT_TRUE(_add->run(50));
        return false;
    };
    EXPECT_FALSE(group.write(half));
    EXPECT_FALSE(group.error());
    expectOpen(group, std::nullopt);
    EXPECT_TRUE(othersCanWrite()) << "no group without a write";
    EXPECT_TRUE(write(group, 1));
    EXPECT_FALSE(group.write(half));
    expectOpen(group, 1);
    EXPECT_TRUE(write(group, 2));
    EXPECT_FALSE(write(group, 2));
    expectReport(report::statementFailed("run", "insert into reading values (?, null)", taken));
    EXPECT_FALSE(group.error());
    EXPECT_TRUE(write(group, 3));
    EXPECT_EQ(there(), "1,2,3");
    EXPECT_EQ(group.lost(), 0);
}

TEST_P(GroupCommitTest, WhateverIsTrueIsGood)
{
    GroupCommit group(_database, 1, forever);
    EXPECT_TRUE(group.write([&] { return sql::runScript(_database, "delete from reading"); }));
    EXPECT_FALSE(group.write([] { return sql::Result<int>(); }));
}

#ifdef TEST_EXCEPTIONS
TEST_P(GroupCommitTest, ExceptionUndoesTheWriteAndPassesThrough)
{
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(write(group, 1));
    const auto half = [&]() -> bool {
        EXPECT_TRUE(_add->run(50));
        throw 7;
    };
    EXPECT_THROW(static_cast<void>(group.write(half)), int);
    expectOpen(group, 1);
    EXPECT_TRUE(write(group, 2));
    EXPECT_TRUE(write(group, 3));
    EXPECT_EQ(there(), "1,2,3");
    EXPECT_THROW(static_cast<void>(group.write(half)), int);
    expectOpen(group, std::nullopt);
}
#endif

TEST_P(GroupCommitTest, GroupThatCannotBeginRunsNothing)
{
    GroupCommit group(_database, 2, forever);
    _other.run("begin immediate");
    EXPECT_FALSE(write(group, 1));
    EXPECT_TRUE(group.error().isBusy());
    EXPECT_EQ(group.error().statement(), "begin immediate");
    expectReport(report::statementFailed("begin", "begin immediate", busy));
    expectOpen(group, std::nullopt);
    _other.run("commit");
    EXPECT_TRUE(write(group, 2));
    EXPECT_FALSE(group.error());
    EXPECT_TRUE(write(group, 3));
    EXPECT_EQ(there(), "2,3");
}

TEST_P(GroupCommitTest, WaitsForOthersAsLongAsItsPatience)
{
    GroupCommit group(_database, 2, forever, milliseconds(30));
    _other.run("begin immediate");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(write(group, 1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(30));
    expectReport(report::statementFailed("begin", "begin immediate", busy));
    _other.run("commit");
}

TEST_P(GroupCommitTest, OthersReadAndDoNotWriteMeanwhile)
{
    GroupCommit group(_database, 2, forever);
    EXPECT_TRUE(write(group, 1));
    EXPECT_EQ(there(), "NULL");
    EXPECT_FALSE(othersCanWrite());
    EXPECT_TRUE(write(group, 2));
    EXPECT_TRUE(othersCanWrite());
}

TEST_P(GroupCommitTest, WhatTheProgramBeginsMeanwhileIsASavepoint)
{
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(write(group, 1));
    {
        const sql::Transaction transaction(_database, sql::begin_deferred);
        EXPECT_FALSE(transaction.isOpen());
        expectReport(report::statementFailed(
            "begin", "begin deferred",
            "1=SQLITE_ERROR: cannot start a transaction within a transaction"));
    }
    EXPECT_TRUE(group.write([&] {
        sql::Savepoint part(_database);
        return _add->run(2) && part.commit();
    }));
    {
        sql::Savepoint outside(_database);
        EXPECT_TRUE(_add->run(3));
        EXPECT_TRUE(outside.commit());
    }
    expectOpen(group, 2);
    EXPECT_TRUE(group.flush());
    EXPECT_EQ(there(), "1,2,3");
}

TEST_P(GroupCommitTest, InATransactionNoneBegins)
{
    sql::Transaction transaction(_database, sql::begin_immediate);
    GroupCommit group(_database, 3, forever);
    EXPECT_FALSE(write(group, 1));
    expectReport(
        report::statementFailed("begin", "begin immediate",
                                "1=SQLITE_ERROR: cannot start a transaction within a transaction"));
    EXPECT_TRUE(_add->run(2));
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(there(), "2");
}

TEST_P(GroupCommitTest, WriteWithinAWriteIsRefused)
{
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(group.write([&] {
        EXPECT_FALSE(write(group, 1));
        expectReport(misused("write", "a write of the group is under way"));
        EXPECT_TRUE(group.error().isMisuse());
        EXPECT_FALSE(group.flush());
        expectReport(misused("flush", "a write of the group is under way"));
        return _add->run(2);
    }));
    EXPECT_FALSE(group.error());
    EXPECT_TRUE(group.flush());
    EXPECT_EQ(there(), "2");
}

TEST_P(GroupCommitTest, DatabaseThatIsNotOpenIsRefused)
{
    sql::Database closed;
    GroupCommit group(closed, 3, forever);
    EXPECT_FALSE(group.write([] { return true; }));
    EXPECT_TRUE(group.error().isMisuse());
    EXPECT_EQ(group.error().text(), "the database is not open");
    EXPECT_EQ(group.error().statement(), "write");
    expectReport(misused("write", "the database is not open"));
    EXPECT_TRUE(group.flush());
}

TEST_P(GroupCommitTest, ClosedDatabaseIsAFailureAndTheGroupCommittedAtItsEnd)
{
    sqlite3* const handle = _database.getHandle();
    {
        GroupCommit group(_database, 3, forever);
        EXPECT_TRUE(write(group, 1));
        _add->release();
        _database.close();
        expectReport({report::asserted("void sql::Database::close()", "rc == SQLITE_OK")});
        for (const bool opened : {false, true}) {
            EXPECT_FALSE(group.write([] { return true; }));
            expectReport(misused("write", "the database was closed or opened anew"));
            EXPECT_FALSE(group.flush());
            expectReport(misused("flush", "the database was closed or opened anew"));
            expectOpen(group, 1);
            if (!opened)
                open();
        }
    }
    EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
    EXPECT_EQ(there(), "1");
}

// --- Commits that fail

class BusyCommitTest : public GroupCommitTest {
protected:
    // As whoever reads until lettingGo(), where the journal lets nobody commit beside a reader.
    void read()
    {
        _other.run("begin; select * from reading");
    }
    void letGo()
    {
        _other.run("commit");
    }

    void expectBusy(const std::string& operation = "commit")
    {
        expectReport(report::statementFailed(operation, "commit", busy));
    }
};

INSTANTIATE_TEST_SUITE_P(Journals, BusyCommitTest, Values("delete"),
                         [](const auto& chosen) { return std::string(chosen.param); });

TEST_P(BusyCommitTest, GroupStaysOpenAndIsTriedAgain)
{
    GroupCommit group(_database, 2, forever);
    read();
    EXPECT_TRUE(write(group, 1));
    EXPECT_TRUE(write(group, 2)) << "it is in the group";
    EXPECT_TRUE(group.error().isBusy());
    EXPECT_EQ(group.error().statement(), "commit");
    expectBusy();
    expectOpen(group, 2);
    EXPECT_GT(group.due(), milliseconds(0)) << "a loop would turn without a pause";
    EXPECT_LE(group.due(), milliseconds(100));
    EXPECT_FALSE(group.flush());
    expectBusy();
    expectOpen(group, 2);
    letGo();
    EXPECT_TRUE(group.flush());
    EXPECT_FALSE(group.error());
    EXPECT_EQ(there(), "1,2");
    EXPECT_EQ(group.lost(), 0);
    expectOpen(group, std::nullopt);
}

TEST_P(BusyCommitTest, WritesTryAgainWhenThereAreAsManyMore)
{
    GroupCommit group(_database, 2, forever);
    read();
    EXPECT_TRUE(write(group, 1));
    EXPECT_TRUE(write(group, 2));
    expectBusy();
    letGo();
    EXPECT_TRUE(write(group, 3));
    EXPECT_TRUE(write(group, 4));
    EXPECT_EQ(there(), "1,2,3,4");
    EXPECT_TRUE(write(group, 5));
    expectOpen(group, 1);
}

TEST_P(BusyCommitTest, GroupOfOneTriesAgainWithEachWrite)
{
    GroupCommit group(_database, 1, forever);
    read();
    for (const int id : {1, 2}) {
        EXPECT_TRUE(write(group, id));
        expectBusy();
        expectOpen(group, id);
    }
    letGo();
    EXPECT_TRUE(write(group, 3));
    EXPECT_EQ(there(), "1,2,3");
}

TEST_P(BusyCommitTest, WritesTryAgainALittleLater)
{
    GroupCommit group(_database, 4, milliseconds(50));
    read();
    EXPECT_TRUE(write(group, 1));
    std::this_thread::sleep_for(milliseconds(51));
    EXPECT_FALSE(group.flush());
    const auto due = group.due();
    EXPECT_GT(due, milliseconds(0));
    EXPECT_LE(due, milliseconds(50)) << "no later than any other group";
    expectBusy();
    letGo();
    std::this_thread::sleep_for(milliseconds(51));
    EXPECT_EQ(group.due(), milliseconds(0));
    EXPECT_TRUE(write(group, 2));
    EXPECT_EQ(there(), "1,2");
}

TEST_P(BusyCommitTest, AtItsEndTheWritesAreLostAndTheLogTells)
{
    read();
    {
        GroupCommit group(_database, 3, forever);
        EXPECT_TRUE(write(group, 1));
        EXPECT_TRUE(write(group, 2));
    }
    expectReport(joined({report::statementFailed("~GroupCommit", "commit", busy), lost(2)}));
    letGo();
    EXPECT_EQ(there(), "NULL");
    EXPECT_TRUE(othersCanWrite());
}

// The interrupt lasts until the rollback, which it must not stop.
TEST_P(BusyCommitTest, StopOfTheWaitAtItsEndLosesTheGroup)
{
    test::run(_database.getHandle(), "pragma busy_timeout = 60000");
    sql::StopFlag stop(_database);
    std::optional<GroupCommit> group(std::in_place, _database, 3, forever);
    EXPECT_TRUE(write(*group, 1));
    read();
    std::thread other([&stop] {
        std::this_thread::sleep_for(milliseconds(5));
        stop.set();
    });
    group.reset();
    other.join();
    expectReport(joined(
        {report::statementFailed("~GroupCommit", "commit", "9=SQLITE_INTERRUPT: interrupted"),
         lost(1)}));
    letGo();
    EXPECT_NE(sqlite3_get_autocommit(_database.getHandle()), 0);
    EXPECT_EQ(there(), "NULL");
    EXPECT_TRUE(othersCanWrite());
}

TEST_P(GroupCommitTest, GroupThatMayNotBeCommittedIsMendedByAnotherWrite)
{
    GroupCommit group(_database, 2, forever);
    sql::Statement addWith(_database, "insert into reading values (?, ?)");
    EXPECT_TRUE(write(group, 1));
    EXPECT_TRUE(group.write([&] { return addWith.run(2, 3); }));
    EXPECT_TRUE(group.error().isConstraint());
    expectReport(report::statementFailed(
        "commit", "commit", "787=SQLITE_CONSTRAINT_FOREIGNKEY: FOREIGN KEY constraint failed"));
    expectOpen(group, 2);
    EXPECT_TRUE(write(group, 3));
    EXPECT_TRUE(group.flush());
    EXPECT_EQ(there(), "1,2,3");
}

TEST_P(GroupCommitTest, WhileAStopIsAskedForNothingIsCommittedAndNothingLost)
{
    sql::StopFlag stop(_database);
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(write(group, 1));
    stop.set();
    EXPECT_FALSE(group.flush());
    EXPECT_TRUE(group.error().isStopped());
    expectReport(report::statementFailed("commit", "commit", "9=SQLITE_INTERRUPT: interrupted"));
    expectOpen(group, 1);
    stop.clear();
    EXPECT_TRUE(group.flush());
    EXPECT_EQ(there(), "1");
}

TEST_P(GroupCommitTest, WhileAStopIsAskedForNoWriteBegins)
{
    sql::StopFlag stop(_database);
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(write(group, 1));
    stop.set();
    EXPECT_FALSE(group.write([] {
        ADD_FAILURE() << "it has begun";
        return true;
    }));
    EXPECT_TRUE(group.error().isStopped());
    expectReport(report::statementFailed("begin", group.error().statement(),
                                         "9=SQLITE_INTERRUPT: interrupted"));
    expectOpen(group, 1);
    stop.clear();
    EXPECT_TRUE(write(group, 2));
    EXPECT_FALSE(group.error());
    EXPECT_TRUE(group.flush());
    EXPECT_EQ(there(), "1,2");
}

TEST_P(GroupCommitTest, StopInAWriteUndoesThatAlone)
{
    sql::StopFlag stop(_database);
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(write(group, 1));
    EXPECT_FALSE(group.write([&] {
        EXPECT_TRUE(_add->run(2));
        stop.set();
        return true;
    }));
    EXPECT_TRUE(group.error().isStopped());
    expectReport(report::statementFailed("commit", group.error().statement(),
                                         "9=SQLITE_INTERRUPT: interrupted"));
    expectOpen(group, 1);
    stop.clear();
    EXPECT_TRUE(group.flush());
    EXPECT_EQ(there(), "1");
}

TEST_P(GroupCommitTest, StopAtItsEndLosesTheGroup)
{
    sql::StopFlag stop(_database);
    {
        GroupCommit group(_database, 3, forever);
        EXPECT_TRUE(write(group, 1));
        stop.set();
    }
    expectReport(joined(
        {report::statementFailed("~GroupCommit", "commit", "9=SQLITE_INTERRUPT: interrupted"),
         lost(1)}));
    stop.clear();
    EXPECT_EQ(there(), "NULL");
    EXPECT_TRUE(othersCanWrite());
}

TEST_P(GroupCommitTest, WhatIsWrittenOutsideIsInTheGroupAndNotCounted)
{
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(write(group, 1));
    EXPECT_TRUE(_add->run(2));
    expectOpen(group, 1);
    EXPECT_EQ(there(), "NULL");
    EXPECT_TRUE(group.flush());
    EXPECT_EQ(there(), "1,2");
}

// --- Losses

TEST_P(GroupCommitTest, GroupThatSqliteRollsBackIsLostAndTheNextOneBegins)
{
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(write(group, 1));
    EXPECT_TRUE(write(group, 2));
    const std::string statement = "insert or rollback into reading values (1, null)";
    sql::Statement replace(_database, statement);
    EXPECT_FALSE(group.write([&] { return replace.run(); }));
    expectReport(joined({rolledBack(), report::statementFailed("run", statement, taken), lost(2)}));
    EXPECT_EQ(group.lost(), 2);
    expectOpen(group, std::nullopt);
    EXPECT_EQ(there(), "NULL");
    for (const int id : {3, 4, 5})
        EXPECT_TRUE(write(group, id));
    EXPECT_EQ(there(), "3,4,5");
    EXPECT_EQ(group.lost(), 2);
}

TEST_P(GroupCommitTest, WriteThatGoesOnAfterALossIsNotGood)
{
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(write(group, 1));
    EXPECT_FALSE(group.write([&] {
        test::run(_database.getHandle(), "rollback");
        return true;
    }));
    EXPECT_EQ(group.error().text(), "the transaction was rolled back before");
    EXPECT_EQ(group.lost(), 1);
    const Texts report = _diagnostics.take();
    ASSERT_EQ(report.size(), 4U);
    EXPECT_EQ(report.front(), rolledBack().front());
    EXPECT_EQ(report[2], report::statementFailed("commit", "",
                                                 "516=SQLITE_ABORT_ROLLBACK: the transaction was "
                                                 "rolled back before")[1]);
    EXPECT_EQ(report.back(), lost(1).front());
}

TEST_P(GroupCommitTest, LossBetweenWritesCountsWithTheNextOperation)
{
    GroupCommit group(_database, 3, forever);
    EXPECT_TRUE(write(group, 1));
    test::run(_database.getHandle(), "rollback");
    expectReport(rolledBack());
    EXPECT_TRUE(write(group, 2));
    expectReport(lost(1));
    EXPECT_EQ(group.lost(), 1);
    expectOpen(group, 1);
    test::run(_database.getHandle(), "rollback");
    expectReport(rolledBack());
    EXPECT_FALSE(group.flush());
    EXPECT_EQ(group.error().text(), "the transaction was rolled back before");
    expectReport(
        joined({report::statementFailed("commit", "commit",
                                        "516=SQLITE_ABORT_ROLLBACK: the transaction was rolled "
                                        "back before"),
                lost(1)}));
    EXPECT_EQ(group.lost(), 2);
}

TEST_P(GroupCommitTest, LossAtItsEndIsTold)
{
    {
        GroupCommit group(_database, 3, forever);
        EXPECT_TRUE(write(group, 1));
        test::run(_database.getHandle(), "rollback");
        expectReport(rolledBack());
    }
    expectReport(lost(1));
}

TEST_P(GroupCommitTest, FullFileLosesTheOpenGroupAlone)
{
    GroupCommit group(_database, 3, forever);
    const std::string statement = "insert into note values (zeroblob(100000))";
    sql::Statement fill(_database, statement);
    for (const int id : {1, 2, 3, 4})
        EXPECT_TRUE(write(group, id));
    test::run(_database.getHandle(), "pragma max_page_count = 1"); // no more than there are
    EXPECT_FALSE(group.write([&] { return fill.run(); }));
    EXPECT_TRUE(fill.error().isFull());
    EXPECT_FALSE(group.error());
    expectReport(joined(
        {rolledBack(),
         report::statementFailed("run", statement, "13=SQLITE_FULL: database or disk is full"),
         lost(1)}));
    EXPECT_EQ(group.lost(), 1);
    EXPECT_TRUE(write(group, 5));
    EXPECT_TRUE(group.flush());
    EXPECT_EQ(there(), "1,2,3,5");
}

} // namespace
