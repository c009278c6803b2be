#include "SqlOutbox.h"

#include "SqlInbox.h"
#include "SqlRecorder.h"

#include "Interruption.h"
#include "PreparedTest.h"
#include "Reports.h"
#include "Session.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace {

namespace report = test::report;

using sql::ChangeSet;
using sql::Outbox;
using sql::RecordedTransaction;
using sql::Recorder;
using sql::RecorderOptions;
using sql::SyncPosition;
using sql::WhenFull;
using std::string;

static_assert(!std::is_copy_constructible_v<Outbox> && !std::is_copy_assignable_v<Outbox>);
static_assert(
    std::is_nothrow_move_constructible_v<ChangeSet> && std::is_copy_assignable_v<ChangeSet>);
static_assert(std::is_same_v<decltype(&Outbox::next), bool (Outbox::*)(ChangeSet&)>);
static_assert(std::is_same_v<decltype(&Outbox::restart), void (Outbox::*)()>);
static_assert(std::is_same_v<decltype(&Outbox::acknowledge), bool (Outbox::*)(SyncPosition)>);
static_assert(
    std::is_same_v<decltype(&Outbox::pending), sql::Result<sql::OutboxSize> (Outbox::*)()>);
static_assert(std::is_same_v<decltype(&Outbox::error), const sql::Error& (Outbox::*)() const>);
static_assert(
    std::is_same_v<decltype(&ChangeSet::header), std::string_view (ChangeSet::*)() const>);
static_assert(std::is_same_v<decltype(&ChangeSet::bytes), std::string_view (ChangeSet::*)() const>);
static_assert(std::is_same_v<decltype(&ChangeSet::previous), SyncPosition (ChangeSet::*)() const>);
static_assert(std::is_same_v<decltype(&ChangeSet::last), SyncPosition (ChangeSet::*)() const>);

const char tables[] = "create table product (id integer primary key, name text)";

class SqlOutboxTest : public test::PreparedTest {
protected:
    SqlOutboxTest()
    {
        run(tables);
        _twin.run(tables);
    }
    void TearDown() override
    {
        _recorder.reset();
        PreparedTest::TearDown();
    }

    void record(const string& statements)
    {
        EXPECT_TRUE(tryToRecord(statements));
    }
    bool tryToRecord(const string& statements)
    {
        if (!_recorder)
            _recorder.emplace(_database, std::vector<string>{"product"}, _options);
        RecordedTransaction transaction(*_recorder);
        EXPECT_TRUE(transaction.isOpen());
        run(statements);
        const bool isCommitted = transaction.commit();
        _failure = transaction.error();
        return isCommitted;
    }
    // What SQLite itself records of the same statements in another file.
    string expected(const string& statements)
    {
        return test::changesOf(_twin, {"product"}, statements);
    }

    // All that an outbox hands out from now on: "0-3" for the third set behind none.
    string ranges(Outbox& outbox)
    {
        string all;
        ChangeSet set;
        while (outbox.next(set)) {
            all += (all.empty() ? "" : " ") + std::to_string(set.previous().number) + "-"
                   + std::to_string(set.last().number);
            expectWhole(set);
        }
        EXPECT_FALSE(outbox.error());
        return all;
    }
    static void expectWhole(const ChangeSet& set)
    {
        const auto envelope = sql::readEnvelope(set.header());
        ASSERT_TRUE(envelope);
        EXPECT_EQ(envelope->previous, set.previous());
        EXPECT_EQ(envelope->last, set.last());
        EXPECT_TRUE(sql::checkChangeSet(*envelope, set.bytes()));
    }
    void expectBytesCounted()
    {
        EXPECT_EQ(rows("select bytes from sqlsync_state"),
                  rows("select ifnull(sum(length(changes)), 0) from sqlsync_outbox"));
    }
    void expectFailure(const sql::Error& error, const string& operation, const string& reason)
    {
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name() + ": " + error.text(),
                  reason);
        expectReport(report::statementFailed(operation, error.statement(), reason));
    }

    test::Connection _twin;
    RecorderOptions _options;
    std::optional<Recorder> _recorder;
    sql::Error _failure;
};

TEST_F(SqlOutboxTest, TypesAreDescribedInCapitals)
{
    run("create table sensor (id Integer primary key, at timestamp, name Varchar(12), az \"Az@`{\")");
    Recorder recorder(_database, {"sensor"});
    RecordedTransaction transaction(recorder);
    run("insert into sensor (id) values (1)");
    EXPECT_TRUE(transaction.commit());
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    EXPECT_TRUE(outbox.next(set));
    const auto envelope = sql::readEnvelope(set.header());
    ASSERT_TRUE(envelope && envelope->tables.size() == 1);
    std::vector<string> types;
    for (const sql::SyncColumn& column : envelope->tables[0].columns)
        types.push_back(column.type);
    EXPECT_EQ(types, (std::vector<string>{"INTEGER", "TIMESTAMP", "VARCHAR(12)", "AZ@`{"}));
}

TEST_F(SqlOutboxTest, FileWithoutARecorderHasNothing)
{
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    EXPECT_FALSE(outbox.next(set));
    EXPECT_FALSE(outbox.error());
    EXPECT_EQ(outbox.pending()->sets, 0);
    EXPECT_EQ(set.header(), "");
    EXPECT_EQ(set.bytes(), "");
}

TEST_F(SqlOutboxTest, ChangesHaveTheseBytesOnEverySystem)
{
    run("create table cell (id integer primary key, value)");
    Recorder recorder(_database, {"cell"});
    const string head("T\2\1\0cell\0", 9);
    const string id("\1\xff\xff\xff\xff\xff\xff\xff\xfe", 9);
    const string real("\2\x3f\xf8\0\0\0\0\0\0", 9);
    const std::pair<const char*, string> changes[] = {
        {"insert into cell values (-2, 1.5)", string("\22\0", 2) + id + real},
        {"update cell set value = null", string("\27\0", 2) + id + real + string("\0\5", 2)},
        {"delete from cell", string("\11\0", 2) + id + "\5"},
        {"insert into cell values (72623859790382856, 'tea')",
         string("\22\0\1\1\2\3\4\5\6\7\10\3\3tea", 16)},
        {"insert into cell values (2, x'00ff')", string("\22\0\1\0\0\0\0\0\0\0\2\4\2\0\xff", 15)},
    };
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    for (const auto& [statement, bytes] : changes) {
        RecordedTransaction transaction(recorder);
        run(statement);
        ASSERT_TRUE(transaction.commit());
        ASSERT_TRUE(outbox.next(set));
        EXPECT_EQ(set.bytes(), head + bytes) << statement;
    }
}

TEST_F(SqlOutboxTest, HandsOutInOrderWithTheHeader)
{
    record("insert into product values (1, 'tea')");
    record("insert into product values (2, 'rum')");
    const string bytes[] = {expected("insert into product values (1, 'tea')"),
                            expected("insert into product values (2, 'rum')")};
    Outbox outbox(_database, "device-17", 1);
    SyncPosition previous;
    for (const string& wanted : bytes) {
        ChangeSet set;
        ASSERT_TRUE(outbox.next(set));
        EXPECT_EQ(set.bytes(), wanted);
        EXPECT_EQ(set.previous(), previous);
        EXPECT_EQ(set.last().number, previous.number + 1);
        const auto envelope = sql::readEnvelope(set.header());
        ASSERT_TRUE(envelope);
        EXPECT_EQ(envelope->device, "device-17");
        EXPECT_EQ(envelope->previous, set.previous());
        EXPECT_EQ(envelope->last, set.last());
        EXPECT_EQ(envelope->dropped, SyncPosition());
        ASSERT_EQ(envelope->tables.size(), 1U);
        EXPECT_EQ(envelope->tables[0].name, "product");
        EXPECT_TRUE(sql::checkChangeSet(*envelope, set.bytes()));
        previous = set.last();
    }
    ChangeSet set;
    EXPECT_FALSE(outbox.next(set));
    EXPECT_FALSE(outbox.error());
    outbox.restart();
    EXPECT_EQ(ranges(outbox), "0-1 1-2");
}

TEST_F(SqlOutboxTest, NeighboursAreMerged)
{
    for (const char* const write :
         {"insert into product values (1, 'tea'), (2, 'rum')",
          "update product set name = 'ale' where id = 1",
          "delete from product where id = 2; insert into product values (3, 'gin')"})
        record(write);
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    ASSERT_TRUE(outbox.next(set));
    EXPECT_EQ(set.previous(), SyncPosition());
    EXPECT_EQ(set.last().number, 3);
    EXPECT_EQ(test::countChanges(set.bytes()), 2);
    expectWhole(set);
    EXPECT_FALSE(outbox.next(set));
    EXPECT_EQ(rows("select number, previous from sqlsync_outbox"), "3|0");
    expectBytesCounted();
}

TEST_F(SqlOutboxTest, WhatUndoesEachOtherIsAnEmptySet)
{
    record("insert into product values (1, 'tea')");
    record("delete from product");
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    ASSERT_TRUE(outbox.next(set));
    EXPECT_EQ(set.bytes(), "");
    EXPECT_EQ(set.last().number, 2);
    expectWhole(set);
}

TEST_F(SqlOutboxTest, WhatWasHandedOutComesAgainAsItWas)
{
    record("insert into product values (1, 'tea')");
    record("insert into product values (2, 'rum')");
    ChangeSet first;
    {
        Outbox outbox(_database, "device-17");
        ASSERT_TRUE(outbox.next(first));
    }
    record("update product set name = 'ale'");
    record("delete from product where id = 1");
    Outbox outbox(_database, "device-17");
    ChangeSet again;
    ASSERT_TRUE(outbox.next(again));
    EXPECT_EQ(again.header(), first.header());
    EXPECT_EQ(again.bytes(), first.bytes());
    EXPECT_EQ(ranges(outbox), "2-4");
    expectBytesCounted();
}

TEST_F(SqlOutboxTest, MergesUpToSoManyBytes)
{
    for (int id = 1; id <= 6; ++id)
        record("insert into product values (" + std::to_string(id) + ", 'tea')");
    const long long size = std::stoll(rows("select max(length(changes)) from sqlsync_outbox"));
    Outbox outbox(_database, "device-17", 2 * size);
    EXPECT_EQ(ranges(outbox), "0-2 2-4 4-6");
}

TEST_F(SqlOutboxTest, OneByteLessKeepsTwoSetsApart)
{
    record("insert into product values (1, 'tea')");
    record("insert into product values (2, 'rum')");
    const long long size = std::stoll(rows("select max(length(changes)) from sqlsync_outbox"));
    Outbox outbox(_database, "device-17", 2 * size - 1);
    EXPECT_EQ(ranges(outbox), "0-1 1-2");
}

TEST_F(SqlOutboxTest, SetsOfTwoSchemasAreNotMerged)
{
    record("insert into product values (1, 'tea')");
    run("alter table product add column price");
    ASSERT_TRUE(_recorder->renew());
    record("insert into product values (2, 'rum', 3)");
    record("insert into product values (3, 'gin', 3)");
    Outbox outbox(_database, "device-17");
    EXPECT_EQ(ranges(outbox), "0-1 1-3");
}

TEST_F(SqlOutboxTest, AcknowledgedSetsAndThoseBeforeThemAreGone)
{
    for (int id = 1; id <= 3; ++id)
        record("insert into product values (" + std::to_string(id) + ", 'tea')");
    Outbox outbox(_database, "device-17", 1);
    ChangeSet sets[3];
    for (ChangeSet& set : sets)
        ASSERT_TRUE(outbox.next(set));
    EXPECT_TRUE(outbox.acknowledge(sets[1].last()));
    EXPECT_EQ(rows("select number from sqlsync_outbox"), "3");
    EXPECT_EQ(outbox.pending()->sets, 1);
    EXPECT_EQ(outbox.pending()->bytes, static_cast<sql::integer>(sets[2].bytes().size()));
    EXPECT_TRUE(outbox.acknowledge(sets[0].last()));
    EXPECT_TRUE(outbox.acknowledge(sets[2].last()));
    EXPECT_EQ(outbox.pending()->sets, 0);
    expectBytesCounted();
    record("insert into product values (4, 'tea')");
    Outbox later(_database, "device-17");
    EXPECT_EQ(ranges(later), "3-4");
}

TEST_F(SqlOutboxTest, CommitThatWasNeverHandedOutIsNotAcknowledged)
{
    record("insert into product values (1, 'tea')");
    record("insert into product values (2, 'rum')");
    Outbox outbox(_database, "device-17", 1);
    ChangeSet set;
    ASSERT_TRUE(outbox.next(set));
    SyncPosition position = set.last();
    position.number = 2;
    EXPECT_FALSE(outbox.acknowledge(position));
    expectFailure(outbox.error(), "acknowledge", "21=SQLITE_MISUSE: commit 2 was never handed out");
    position = set.last();
    ++position.incarnation; // of the file before it was restored
    EXPECT_FALSE(outbox.acknowledge(position));
    expectFailure(outbox.error(), "acknowledge", "21=SQLITE_MISUSE: commit 1 was never handed out");
    EXPECT_EQ(outbox.pending()->sets, 2);
    EXPECT_FALSE(outbox.error());
}

TEST_F(SqlOutboxTest, NoOperationWorksWithinATransaction)
{
    record("insert into product values (1, 'tea')");
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    run("begin");
    const string reason = "1=SQLITE_ERROR: cannot start a transaction within a transaction";
    EXPECT_FALSE(outbox.next(set));
    expectFailure(outbox.error(), "begin", reason);
    EXPECT_FALSE(outbox.acknowledge({}));
    expectFailure(outbox.error(), "begin", reason);
    run("rollback");
    EXPECT_EQ(ranges(outbox), "0-1");
}

TEST_F(SqlOutboxTest, DamagedSchemaIsAFailure)
{
    record("insert into product values (1, 'tea')");
    run("update sqlsync_schema set description = x'00'");
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    EXPECT_FALSE(outbox.next(set));
    EXPECT_TRUE(outbox.error().isCorrupt());
    EXPECT_EQ(outbox.error().statement(), "next");
    _diagnostics.clear();
    EXPECT_EQ(rows("select sent from sqlsync_state"), "0");
}

// --- The limit ------------------------------------------------------------------------------------

TEST_F(SqlOutboxTest, CommitThatHasNoRoomIsRefused)
{
    record("insert into product values (1, 'tea')");
    const string size = rows("select bytes from sqlsync_state");
    _recorder.reset();
    _options = {std::stoll(size), WhenFull::refuse_writes};
    EXPECT_FALSE(tryToRecord("insert into product values (2, 'rum')"));
    expectFailure(_failure, "commit",
                  "13=SQLITE_FULL: the outbox is full: " + std::to_string(2 * std::stoll(size))
                      + " bytes, at most " + size + " are allowed");
    EXPECT_EQ(rows("select id from product"), "1");
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    ASSERT_TRUE(outbox.next(set));
    EXPECT_TRUE(outbox.acknowledge(set.last()));
    record("insert into product values (2, 'rum')");
    EXPECT_EQ(ranges(outbox), "1-2");
    expectBytesCounted();
}

TEST_F(SqlOutboxTest, FullOutboxMergesWhatWasNeverHandedOut)
{
    record("insert into product values (1, 'tea')");
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    ASSERT_TRUE(outbox.next(set));
    _recorder.reset();
    _options = {4 * std::stoll(rows("select bytes from sqlsync_state")), WhenFull::merge_ranges};
    for (int i = 0; i < 20; ++i)
        record("insert or replace into product values (2, 'rum " + std::to_string(i) + "')");
    Outbox all(_database, "device-17", 1);
    EXPECT_EQ(ranges(all).substr(0, 8), "0-1 1-20");
    expectBytesCounted();
    EXPECT_FALSE(tryToRecord("insert into product values (3, '" + string(1000, 'x') + "')"));
    EXPECT_TRUE(_failure.isFull());
    _diagnostics.clear();
    expectBytesCounted();
}

TEST_F(SqlOutboxTest, FullOutboxThatIsDamagedFailsTheCommit)
{
    record("insert into product values (1, 'tea')");
    run("update sqlsync_outbox set changes = x'ff'");
    _recorder.reset();
    _options = {1, WhenFull::merge_ranges};
    EXPECT_FALSE(tryToRecord("insert into product values (2, 'rum')"));
    expectFailure(_failure, "commit", "11=SQLITE_CORRUPT: database disk image is malformed");
    EXPECT_EQ(rows("select id from product"), "1");
}

TEST_F(SqlOutboxTest, FullOutboxDropsTheOldestAndSaysSo)
{
    record("insert into product values (1, 'tea')");
    const long long size = std::stoll(rows("select bytes from sqlsync_state"));
    _recorder.reset();
    _options = {2 * size, WhenFull::drop_oldest};
    record("insert into product values (2, 'rum')");
    record("insert into product values (3, 'gin')");
    expectReport(
        {report::error("Outbox::commit", "The outbox is full: change sets up to 1 were dropped")});
    Outbox outbox(_database, "device-17", 1);
    ChangeSet set;
    ASSERT_TRUE(outbox.next(set));
    EXPECT_EQ(set.previous().number, 1);
    EXPECT_EQ(sql::readEnvelope(set.header())->dropped, set.previous());
    expectBytesCounted();
    EXPECT_FALSE(tryToRecord("insert into product values (4, '" + string(1000, 'x') + "')"));
    EXPECT_TRUE(_failure.isFull());
    EXPECT_EQ(_diagnostics.lines().size(), 2U); // none of a drop
    _diagnostics.clear();
    EXPECT_EQ(rows("select number from sqlsync_outbox"), "2\n3");
    expectBytesCounted();
}

TEST_F(SqlOutboxTest, SetThatIsAByteTooLargeForAllOfTheOutboxDropsNothing)
{
    record("insert into product values (1, 'tea')");
    const long long size = std::stoll(rows("select bytes from sqlsync_state"));
    _recorder.reset();
    _options = {size, WhenFull::drop_oldest};
    EXPECT_FALSE(tryToRecord("insert into product values (2, 'tea!')"));
    expectFailure(_failure, "commit",
                  "13=SQLITE_FULL: the outbox is full: " + std::to_string(2 * size + 1)
                      + " bytes, at most " + std::to_string(size) + " are allowed");
    EXPECT_EQ(rows("select number from sqlsync_outbox"), "1");
}

TEST_F(SqlOutboxTest, ByteTooMuchDropsTheOldest)
{
    record("insert into product values (1, 'tea')");
    const long long size = std::stoll(rows("select bytes from sqlsync_state"));
    _recorder.reset();
    _options = {2 * size - 1, WhenFull::drop_oldest};
    record("insert into product values (2, 'rum')");
    expectReport(
        {report::error("Outbox::commit", "The outbox is full: change sets up to 1 were dropped")});
    EXPECT_EQ(rows("select number from sqlsync_outbox"), "2");
}

TEST_F(SqlOutboxTest, FullOutboxMergesTheSetsOfEachSchema)
{
    record("insert into product values (1, 'tea')");
    const long long size = std::stoll(rows("select bytes from sqlsync_state"));
    run("alter table product add column price");
    ASSERT_TRUE(_recorder->renew());
    record("insert into product values (2, 'rum', 3)");
    _recorder.reset();
    _options = {4 * size, WhenFull::merge_ranges};
    for (int i = 0; i < 5; ++i)
        record("insert or replace into product values (3, 'gin " + std::to_string(i) + "', 3)");
    EXPECT_EQ(rows("select number from sqlsync_outbox where number < 3"), "1");
    expectBytesCounted();
}

// --- Failures -------------------------------------------------------------------------------------

// Statements of the library's own that fail in the middle of an operation: all of it is undone.
class SqlOutboxFailureTest : public SqlOutboxTest {
protected:
    // Where something is done to a table of the library's.
    void forbid(const string& what)
    {
        run("create trigger forbidden before " + what + " begin select raise(abort, 'no'); end");
    }
    void allow()
    {
        run("drop trigger forbidden");
    }
    // Of a statement whose text is the library's own matter.
    void expectForbidden(const sql::Error& error)
    {
        EXPECT_EQ(error.extendedCode(), SQLITE_CONSTRAINT_TRIGGER);
        EXPECT_EQ(error.text(), "no");
        EXPECT_EQ(_diagnostics.lines().size(), 2U);
        _diagnostics.clear();
    }
    string everything()
    {
        return rows("select number, previous, hex(changes) from sqlsync_outbox") + "\n"
               + rows("select * from sqlsync_state");
    }

    // An operation that fails wherever it is interrupted and then has changed nothing, or is done.
    template <typename Operation> void expectWhole(Operation operation)
    {
        test::Connection saved;
        test::copyDatabase(_database.getHandle(), saved);
        const string before = everything();
        EXPECT_FALSE(operation());
        const string after = everything();
        test::copyDatabase(saved, _database.getHandle());
        const auto check = [&](bool isDone) {
            EXPECT_EQ(everything(), isDone ? after : before);
            EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
            test::copyDatabase(saved, _database.getHandle());
        };
        EXPECT_GT(test::interruptEach(_database.getHandle(), _diagnostics, operation, check), 0);
    }
};

TEST_F(SqlOutboxFailureTest, NothingIsHandedOutThatCouldNotBeNoted)
{
    for (const char* const what :
         {"update of sent on sqlsync_state", "update of bytes on sqlsync_state",
          "delete on sqlsync_outbox", "insert on sqlsync_outbox"}) {
        record("insert into product values (null, 'tea')");
        record("insert into product values (null, 'rum')");
        _recorder.reset();
        forbid(what);
        const string before = everything();
        Outbox outbox(_database, "device-17");
        ChangeSet set;
        EXPECT_FALSE(outbox.next(set)) << what;
        expectForbidden(outbox.error());
        EXPECT_EQ(set.bytes(), "");
        EXPECT_EQ(everything(), before);
        allow();
        EXPECT_TRUE(outbox.next(set));
        EXPECT_TRUE(outbox.acknowledge(set.last()));
    }
}

TEST_F(SqlOutboxFailureTest, NothingIsLetGoThatCouldNotBeRemoved)
{
    record("insert into product values (1, 'tea')");
    _recorder.reset();
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    ASSERT_TRUE(outbox.next(set));
    for (const char* const what :
         {"update of bytes on sqlsync_state", "delete on sqlsync_outbox"}) {
        forbid(what);
        const string before = everything();
        EXPECT_FALSE(outbox.acknowledge(set.last())) << what;
        expectForbidden(outbox.error());
        EXPECT_EQ(everything(), before);
        allow();
    }
    EXPECT_TRUE(outbox.acknowledge(set.last()));
    EXPECT_EQ(outbox.pending()->sets, 0);
}

TEST_F(SqlOutboxFailureTest, CommitIsRefusedWhenNothingCanBeDropped)
{
    record("insert into product values (1, 'tea')");
    _recorder.reset();
    _options = {std::stoll(rows("select bytes from sqlsync_state")), WhenFull::drop_oldest};
    forbid("update of dropped on sqlsync_state");
    EXPECT_FALSE(tryToRecord("insert into product values (2, 'rum')"));
    expectForbidden(_failure);
    EXPECT_EQ(rows("select id from product"), "1");
    _recorder.reset();
    allow();
    EXPECT_TRUE(tryToRecord("insert into product values (2, 'rum')"));
    _diagnostics.clear();
    EXPECT_EQ(rows("select number from sqlsync_outbox"), "2");
}

TEST_F(SqlOutboxFailureTest, DamagedRowsAreToldNotSkipped)
{
    record("insert into product values (1, 'tea')");
    const string size = rows("select bytes from sqlsync_state");
    _recorder.reset();
    run("update sqlsync_outbox set previous = 'none'");
    Outbox outbox(_database, "device-17");
    ChangeSet set;
    EXPECT_FALSE(outbox.next(set));
    EXPECT_EQ(outbox.error().text(), "column previous is no number");
    _diagnostics.clear();
    for (const WhenFull whenFull : {WhenFull::merge_ranges, WhenFull::drop_oldest}) {
        _options = {std::stoll(size), whenFull};
        EXPECT_FALSE(tryToRecord("insert into product values (2, 'rum')"));
        EXPECT_EQ(_failure.text(), "column previous is no number");
        _diagnostics.clear();
        _recorder.reset();
    }
    EXPECT_EQ(rows("select id from product"), "1");
}

// Of three sets, two are merged as they are handed out.
TEST_F(SqlOutboxFailureTest, WhatIsInterruptedIsDoneOrNot)
{
    for (int id = 1; id <= 3; ++id)
        record("insert into product values (" + std::to_string(id) + ", 'tea')");
    _recorder.reset();
    const long long size = std::stoll(rows("select max(length(changes)) from sqlsync_outbox"));
    Outbox outbox(_database, "device-17", 2 * size);
    ChangeSet set;
    const auto next = [&] {
        outbox.restart();
        const bool isRead = outbox.next(set);
        EXPECT_EQ(isRead, !outbox.error());
        return outbox.error();
    };
    expectWhole(next);
    EXPECT_FALSE(next());
    EXPECT_EQ(set.last().number, 2);
    expectWhole([&] {
        const bool isDone = outbox.acknowledge(set.last());
        EXPECT_EQ(isDone, !outbox.error());
        return outbox.error();
    });
    expectWhole([&] {
        const auto pending = outbox.pending();
        EXPECT_EQ(static_cast<bool>(pending), !outbox.error());
        return outbox.error();
    });
}

class SqlOutboxFileTest : public SqlOutboxTest {
protected:
    SqlOutboxFileTest() : _name(testing::TempDir() + "outbox.db")
    {
        std::remove(_name.c_str());
        _database.close();
        EXPECT_TRUE(_database.open(_name, sql::Database::access_create, false, 0));
        run(tables);
    }
    ~SqlOutboxFileTest() override
    {
        std::remove(_name.c_str());
    }

    string _name;
};

TEST_F(SqlOutboxFileTest, NothingIsHandedOutOrLetGoWhileOthersKeepItFromBeingCommitted)
{
    record("insert into product values (1, 'tea')");
    record("insert into product values (2, 'rum')");
    Outbox outbox(_database, "device-17", 1);
    ChangeSet set;
    ASSERT_TRUE(outbox.next(set));
    test::Connection other(_name);
    for (const auto& [lock, statement] : {std::pair("begin; select * from product", "commit"),
                                          std::pair("begin immediate", "begin immediate")}) {
        other.run(lock);
        ChangeSet more;
        EXPECT_FALSE(outbox.next(more));
        EXPECT_EQ(outbox.error().statement(), statement);
        expectFailure(outbox.error(), outbox.error().statement() == "commit" ? "commit" : "begin",
                      "5=SQLITE_BUSY: database is locked");
        EXPECT_FALSE(outbox.acknowledge(set.last()));
        EXPECT_EQ(outbox.error().statement(), statement);
        expectFailure(outbox.error(), outbox.error().statement() == "commit" ? "commit" : "begin",
                      "5=SQLITE_BUSY: database is locked");
        other.run("commit");
    }
    EXPECT_TRUE(outbox.acknowledge(set.last()));
    EXPECT_EQ(ranges(outbox), "1-2");
}

// --- All of it ------------------------------------------------------------------------------------

TEST_F(SqlOutboxTest, InboxHasTheSameRowsInTheEnd)
{
    sql::Database centre;
    ASSERT_TRUE(centre.open(":memory:", sql::Database::access_create, false, 0));
    test::run(centre.getHandle(), tables);
    {
        sql::Inbox inbox(centre, {"product"});
        Outbox outbox(_database, "device-17", 200);
        for (int round = 0; round < 30; ++round) {
            const string id = std::to_string(round % 7);
            record("insert or replace into product values (" + id + ", 'round "
                   + std::to_string(round) + "')");
            record(round % 3 == 0 ? "delete from product where id = " + id
                                  : "update product set name = name || '!' where id < " + id);
            if (round % 4 != 0)
                continue;
            ChangeSet set;
            while (outbox.next(set)) {
                for (int time = 0; time < 1 + round % 2; ++time) // some come twice
                    EXPECT_TRUE(inbox.apply("device-17", set.header(), set.bytes()));
                EXPECT_TRUE(outbox.acknowledge(set.last()));
            }
            EXPECT_EQ(test::rows(centre.getHandle(), "select * from product"),
                      rows("select * from product"));
        }
    }
    centre.close();
}

} // namespace
