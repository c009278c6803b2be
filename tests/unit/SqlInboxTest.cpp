#include "SqlInbox.h"

#include "SqlRecorder.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"

#include "Interruption.h"
#include "PreparedTest.h"
#include "Reports.h"
#include "SyncDevice.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

namespace report = test::report;

using sql::Inbox;
using sql::Received;
using sql::SyncPosition;
using std::string;
using Device = test::SyncDevice;
using Sent = test::SyncSet;

static_assert(!std::is_copy_constructible_v<Inbox> && !std::is_copy_assignable_v<Inbox>);
static_assert(std::is_same_v<decltype(&Inbox::isOpen), bool (Inbox::*)() const>);
static_assert(std::is_same_v<decltype(&Inbox::error), const sql::Error& (Inbox::*)() const>);
static_assert(std::is_same_v<decltype(&Inbox::apply),
                             sql::Result<Received> (Inbox::*)(const string&, std::string_view,
                                                              std::string_view)>);
static_assert(std::is_same_v<decltype(&Inbox::admit),
                             sql::Result<bool> (Inbox::*)(const string&, std::string_view)>);
static_assert(
    std::is_same_v<decltype(&Inbox::retry), sql::Result<sql::integer> (Inbox::*)(const string&)>);
static_assert(
    std::is_same_v<decltype(&Inbox::discard), sql::Result<bool> (Inbox::*)(const string&)>);
static_assert(std::is_same_v<decltype(&Inbox::kept),
                             sql::Result<sql::integer> (Inbox::*)(const string&) const>);
static_assert(std::is_same_v<decltype(&Inbox::lost),
                             sql::Result<sql::integer> (Inbox::*)(const string&) const>);

class SqlInboxTest : public test::PreparedTest {
protected:
    SqlInboxTest()
    {
        run(test::sync_tables);
    }

    // Made when it is first needed.
    Inbox& inbox()
    {
        if (_inbox == nullptr) {
            _inbox = std::make_unique<Inbox>(_database, std::vector<string>{"product", "pair"});
            EXPECT_TRUE(_inbox->isOpen());
        }
        return *_inbox;
    }

    sql::Result<Received> apply(const Sent& sent, const string& device = "device-17")
    {
        return inbox().apply(device, sent.header, sent.bytes);
    }
    void expectApplied(const Sent& sent, const string& device = "device-17")
    {
        EXPECT_EQ(apply(sent, device).valueOr(Received::kept), Received::applied);
    }
    // It changes nothing at all.
    void expectRepeated(const Sent& sent, const string& device = "device-17")
    {
        const string before = everything();
        EXPECT_EQ(apply(sent, device).valueOr(Received::kept), Received::repeated);
        EXPECT_EQ(everything(), before);
    }
    void expectKept(const Sent& sent, const string& last, const string& reason,
                    const string& device = "device-17")
    {
        const string before = products();
        EXPECT_EQ(apply(sent, device).valueOr(Received::applied), Received::kept);
        EXPECT_EQ(products(), before);
        expectReport({report::error("Inbox::apply", "Kept the change set of device '" + device
                                                        + "' up to " + last + ": " + reason)});
    }
    void keep(const Sent& sent)
    {
        EXPECT_EQ(apply(sent).valueOr(Received::applied), Received::kept);
        _diagnostics.clear();
    }
    // Nothing has changed then.
    template <typename T>
    void expectRefused(const sql::Result<T>& result, const string& operation, const string& reason)
    {
        const sql::Error& error = result.error();
        EXPECT_FALSE(static_cast<bool>(result));
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name() + ": " + error.text(),
                  reason);
        expectReport(report::statementFailed(operation, error.statement(), reason));
        EXPECT_EQ(error.statement(), operation);
    }
    void expectRefused(const Sent& sent, const string& reason, const string& device = "device-17")
    {
        const string before = everything();
        expectRefused(apply(sent, device), "apply", reason);
        EXPECT_EQ(everything(), before);
    }

    string products()
    {
        return rows("select * from product order by 1") + "\n"
               + rows("select left, hex(right) from pair order by 1, 2");
    }
    string everything()
    {
        inbox();
        return products() + "\n" + rows("select * from sqlsync_inbox") + "\n"
               + rows("select * from sqlsync_incarnation") + "\n"
               + rows("select id, device, last, reason from sqlsync_kept");
    }

    std::unique_ptr<Inbox> _inbox;
    Device _device;
};

// --- Making it -----------------------------------------------------------------------------------

TEST_F(SqlInboxTest, MakesItsTablesOnce)
{
    inbox();
    EXPECT_EQ(rows("select name from sqlite_master where name like 'sqlsync%' and type = 'table'"
                   " order by 1"),
              "sqlsync_inbox\nsqlsync_inbox_table\nsqlsync_incarnation\nsqlsync_kept");
    EXPECT_EQ(rows("select name from sqlsync_inbox_table"), "pair\nproduct");
    const string version = rows("pragma schema_version");
    const Inbox again(_database, {"PRODUCT"});
    EXPECT_TRUE(again.isOpen());
    EXPECT_FALSE(again.error());
    EXPECT_EQ(rows("pragma schema_version"), version);
    EXPECT_EQ(rows("select name from sqlsync_inbox_table"), "pair\nproduct");
}

TEST_F(SqlInboxTest, TablesThatCannotTakeChangesAreRefusedByName)
{
    run("create view seen as select * from product;"
        "create table keyless (id);"
        "create table loose (name text primary key);"
        "create table falling (id integer primary key desc);"
        "create virtual table words using fts5(word);"
        "create table sqlsync_mine (id integer primary key);"
        "create table \"we're\" (id);"
        "create temp table temporary (id integer primary key);"
        "attach ':memory:' as other; create table other.beside (id integer primary key)");
    const std::vector<std::pair<string, string>> refusals = {
        {"missing", "table 'missing': there is none"},
        {"", "table '': there is none"},
        {"seen", "table 'seen': it is a view"},
        {"words", "table 'words': it is a virtual table"},
        {"keyless", "table 'keyless': it has no key"},
        {"we're", "table 'we're': it has no key"},
        {"loose", "table 'loose': column 'name' of the key may be null"},
        {"falling", "table 'falling': column 'id' of the key may be null"},
        {"sqlsync_mine", "table 'sqlsync_mine': names with sqlsync_ are the library's own"},
        {"SQLSync_inbox", "table 'SQLSync_inbox': names with sqlsync_ are the library's own"},
        {"temporary", "table 'temporary': there is none"},
        {"beside", "table 'beside': there is none"},
        {"sqlite_master", "table 'sqlite_master': there is none"},
    };
    for (const auto& [table, why] : refusals) {
        const Inbox refused(_database, {"product", table});
        EXPECT_FALSE(refused.isOpen());
        EXPECT_EQ(refused.error().text(), why);
        EXPECT_TRUE(refused.error().isMisuse());
        expectReport(report::statementFailed("Inbox", "Inbox", "21=SQLITE_MISUSE: " + why));
    }
    EXPECT_EQ(rows("select count(*) from sqlite_master where name = 'sqlsync_inbox'"), "0");
}

#if SQLITE_VERSION_NUMBER >= 3031000 // there are some
TEST_F(SqlInboxTest, GeneratedColumnIsRefused)
{
    run("create table made (id integer primary key, twice as (id * 2))");
    const Inbox refused(_database, {"made"});
    const string why = "table 'made': column 'twice' is generated";
    EXPECT_EQ(refused.error().text(), why);
    expectReport(report::statementFailed("Inbox", "Inbox", "21=SQLITE_MISUSE: " + why));
}
#endif

TEST_F(SqlInboxTest, KeysThatAreNeverNullAreTaken)
{
    run("create table plain (name text not null primary key);"
        "create table compact (name text, number integer, primary key (number, name)) without rowid;"
        "create table numbered (number integer, primary key (number))");
    const Inbox made(_database, {"plain", "compact", "numbered"});
    EXPECT_EQ(made.error().text(), "");
}

TEST_F(SqlInboxTest, OneThatCannotBeMadeFailsAtEverythingWithoutAnotherReport)
{
    Inbox none(_database, {});
    expectReport(report::statementFailed("Inbox", "Inbox", "21=SQLITE_MISUSE: there is no table"));
    const Sent sent = _device.commit("insert into product values (1, 'tea', 2)");
    for (const string& text :
         {none.apply("device-17", sent.header, sent.bytes).error().text(),
          none.admit("device-17", sent.header).error().text(),
          none.retry("device-17").error().text(), none.discard("device-17").error().text(),
          none.kept("device-17").error().text(), none.lost("device-17").error().text()})
        EXPECT_EQ(text, "there is no table");
}

TEST_F(SqlInboxTest, TableThatIsRecordedInTheFileIsRefused)
{
    sql::Envelope envelope = _device.envelope;
    envelope.tables.resize(1);
    envelope.last = {1, 1};
    const string header = sql::encode(envelope, "");
    run("create table sqlsync_schema (hash integer primary key, description blob not null)");
    // The description begins behind the fixed fields and ends before the checksum.
    const std::size_t start = 12 + 4 + envelope.device.size() + 48 + 24;
    sql::Statement add(_database, "insert into sqlsync_schema values (1, ?)");
    ASSERT_TRUE(add.run(sql::Bytes{header.data() + start, header.size() - start - 8}));
    add.release();
    const Inbox refused(_database, {"pair", "product"});
    EXPECT_EQ(refused.error().text(), "table 'product': it is recorded in this file");
    expectReport(report::statementFailed(
        "Inbox", "Inbox", "21=SQLITE_MISUSE: table 'product': it is recorded in this file"));
    const Inbox other(_database, {"pair"});
    EXPECT_TRUE(other.isOpen());
    run("update sqlsync_schema set description = 'x'");
    const Inbox damaged(_database, {"pair"});
    expectReport(report::statementFailed("Inbox", "Inbox",
                                         "11=SQLITE_CORRUPT: the header's lengths do not add up"));
}

// What one table's recorder keeps is what an inbox of another file applies.
TEST_F(SqlInboxTest, RecorderAndInboxShareAFileTableByTable)
{
    const sql::Recorder recorder(_database, {"pair"});
    ASSERT_TRUE(recorder.isRecording());
    const Inbox refused(_database, {"product", "pair"});
    expectReport(report::statementFailed(
        "Inbox", "Inbox", "21=SQLITE_MISUSE: table 'pair': it is recorded in this file"));
    _inbox = std::make_unique<Inbox>(_database, std::vector<string>{"product"});
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    EXPECT_EQ(products(), "1|tea|2\n");
    EXPECT_EQ(rows("select count(*) from sqlsync_outbox"), "0");
    const sql::Recorder late(_database, {"product"});
    EXPECT_FALSE(late.isRecording());
    _diagnostics.clear();
}

TEST_F(SqlInboxTest, AppliesWhatARecorderHasKept)
{
    sql::Database home;
    ASSERT_TRUE(home.open(":memory:", sql::Database::access_create, false, 0));
    test::run(home.getHandle(), test::sync_tables);
    {
        sql::Recorder recorder(home, {"PAIR", "product"});
        for (const char* const writes :
             {"insert into product values (1, 'tea', 2), (2, 'rum', null)",
              "update product set price = 3; insert into pair values ('a', x'01')",
              "delete from product where id = 2"}) {
            sql::RecordedTransaction transaction(recorder);
            test::run(home.getHandle(), writes);
            ASSERT_TRUE(transaction.commit());
        }
        sql::Statement kept(home, "select previous_incarnation, previous, incarnation, number,"
                                  " changes from sqlsync_outbox order by number");
        sql::Envelope envelope;
        envelope.device = "device-17";
        envelope.tables = test::describedTables();
        std::reverse(envelope.tables.begin(), envelope.tables.end());
        string bytes;
        int count = 0;
        while (kept.next(envelope.previous.incarnation, envelope.previous.number,
                         envelope.last.incarnation, envelope.last.number, bytes)) {
            expectApplied({sql::encode(envelope, bytes), bytes});
            ++count;
        }
        EXPECT_EQ(count, 3);
    }
    EXPECT_EQ(products(), "1|tea|3\na|01");
    home.close();
}

TEST_F(SqlInboxTest, DatabaseHasToBeOpenAndStay)
{
    sql::Database closed;
    const Inbox none(closed, {"product"});
    expectReport(
        report::statementFailed("Inbox", "Inbox", "21=SQLITE_MISUSE: the database is not open"));
    inbox();
    _database.close();
    const char gone[] = "21=SQLITE_MISUSE: the database was closed or opened anew";
    expectRefused(inbox().apply("d", "", ""), "apply", gone);
    expectRefused(inbox().admit("d", ""), "admit", gone);
    expectRefused(inbox().retry("d"), "retry", gone);
    expectRefused(inbox().discard("d"), "discard", gone);
    expectRefused(inbox().kept("d"), "kept", gone);
    expectRefused(inbox().lost("d"), "lost", gone);
}

TEST_F(SqlInboxTest, NoTransactionMayBeOpen)
{
    inbox();
    const Sent sent = _device.commit("insert into product values (1, 'tea', 2)");
    const auto expectNested = [this](const sql::Error& error) {
        EXPECT_EQ(error.text(), "cannot start a transaction within a transaction");
        expectReport(report::statementFailed(
            "begin", "begin immediate",
            "1=SQLITE_ERROR: cannot start a transaction within a transaction"));
    };
    run("begin");
    expectNested(apply(sent).error());
    expectNested(inbox().admit("device-17", sent.header).error());
    expectNested(inbox().retry("device-17").error());
    expectNested(Inbox(_database, {"pair"}).error());
    run("commit");
    EXPECT_EQ(products(), "\n");
    expectApplied(sent);
}

// --- Applying ------------------------------------------------------------------------------------

TEST_F(SqlInboxTest, AppliesEachSetOnceAndInOrder)
{
    const Sent first = _device.commit(
        "insert into product values (1, 'tea', 2.5), (2, 'rum', null)");
    const Sent second = _device.commit("update product set price = 3 where id = 1;"
                                       "delete from product where id = 2;"
                                       "insert into pair values ('a', x'01')");
    expectApplied(first);
    EXPECT_EQ(products(), "1|tea|2.5\n2|rum|NULL\n");
    expectRepeated(first);
    expectApplied(second);
    EXPECT_EQ(products(), "1|tea|3\na|01");
    expectRepeated(second);
    expectRepeated(first);
    EXPECT_EQ(rows("select device, incarnation, number, lost from sqlsync_inbox"),
              "device-17|11|2|0");
    EXPECT_EQ(rows("select * from sqlsync_incarnation"), "device-17|11|1|2|0");
}

TEST_F(SqlInboxTest, RangesOfCommitsAndEmptySetsCount)
{
    const Sent first = _device.commit("insert into product values (1, 'tea', 2)", 5);
    const Sent empty = _device.send("", 3);
    const Sent last = _device.commit("insert into product values (2, 'rum', 3)");
    expectApplied(first);
    expectApplied(empty);
    expectRepeated(empty);
    expectApplied(last);
    EXPECT_EQ(rows("select number from sqlsync_inbox"), "9");
}

TEST_F(SqlInboxTest, DevicesDoNotMeet)
{
    Device other("device-18", 12);
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    expectApplied(other.commit("insert into product values (2, 'rum', 3)"), "device-18");
    EXPECT_EQ(products(), "1|tea|2\n2|rum|3\n");
    expectRefused(other.commit("insert into product values (3, 'ale', 1)"),
                  "20=SQLITE_MISMATCH: the change set is of device 'device-18'");
}

TEST_F(SqlInboxTest, SetGoesOnAfterANewIncarnation)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    _device.position.incarnation = 12;
    const Sent next = _device.commit("insert into product values (2, 'rum', 3)");
    expectApplied(next);
    expectRepeated(next);
    EXPECT_EQ(rows("select * from sqlsync_incarnation"), "device-17|11|1|1|0\ndevice-17|12|2|2|0");
}

TEST_F(SqlInboxTest, GapIsToldAndMendedByWhatIsMissing)
{
    const Sent first = _device.commit("insert into product values (1, 'tea', 2)");
    const Sent second = _device.commit("insert into product values (2, 'rum', 3)", 2);
    const Sent third = _device.commit("insert into product values (3, 'ale', 4)");
    expectRefused(second, "12=SQLITE_NOTFOUND: the commits 1 to 1 are missing");
    expectRefused(third, "12=SQLITE_NOTFOUND: the commits 1 to 3 are missing");
    expectApplied(first);
    expectRefused(third, "12=SQLITE_NOTFOUND: the commits 2 to 3 are missing");
    expectApplied(second);
    expectApplied(third);
    EXPECT_EQ(inbox().lost("device-17").valueOr(-1), 0);
}

TEST_F(SqlInboxTest, GapThatTheDeviceDeclaresIsPassedAndTold)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    const Sent dropped = _device.commit("insert into product values (2, 'rum', 3)", 4);
    _device.envelope.dropped = _device.position;
    const Sent third = _device.commit("insert into product values (3, 'ale', 4)");
    expectApplied(third);
    expectReport(
        {report::error("Inbox::apply", "Device 'device-17' has dropped 4 commits, up to 5")});
    EXPECT_EQ(products(), "1|tea|2\n3|ale|4\n");
    EXPECT_EQ(inbox().lost("device-17").valueOr(-1), 4);
    EXPECT_EQ(inbox().lost("device-18").valueOr(-1), 0);
    expectRepeated(dropped); // which came late
    const Sent fourth = _device.commit("insert into product values (4, 'gin', 5)");
    expectApplied(fourth); // the header tells still what was dropped
    const Sent fifth = _device.commit("");
    expectRefused(_device.commit("insert into product values (5, 'cider', 6)"),
                  "12=SQLITE_NOTFOUND: the commits 8 to 8 are missing");
    expectApplied(fifth);
    EXPECT_EQ(inbox().lost("device-17").valueOr(-1), 4);
}

TEST_F(SqlInboxTest, SingleDroppedCommitIsToldToo)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    _device.commit("insert into product values (2, 'rum', 3)");
    _device.envelope.dropped = _device.position;
    expectApplied(_device.commit("insert into product values (3, 'ale', 4)"));
    expectReport(
        {report::error("Inbox::apply", "Device 'device-17' has dropped 1 commits, up to 2")});
}

TEST_F(SqlInboxTest, AnotherSetAtTheLastPositionIsAnotherDevices)
{
    Device twin;
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    expectRefused(twin.commit("insert into product values (1, 'rum', 2)"),
                  "23=SQLITE_AUTH: the device went back to 0 (restored from a backup), or another"
                  " device has its name");
}

// --- Forks ---------------------------------------------------------------------------------------

TEST_F(SqlInboxTest, RestoredDeviceWaitsToBeAdmitted)
{
    const Sent first = _device.commit("insert into product values (1, 'tea', 2)");
    const SyncPosition backup = _device.position;
    const Sent second = _device.commit("insert into product values (2, 'rum', 3)");
    const Sent third = _device.commit("insert into product values (3, 'ale', 4)");
    expectApplied(first);
    expectApplied(second);

    _device.restore(backup, 12);
    const Sent other = _device.commit("insert into product values (4, 'gin', 5)");
    const char fork[] = "23=SQLITE_AUTH: the device went back to 1 (restored from a backup), or"
                        " another device has its name";
    expectRefused(other, fork);
    expectRefused(other, fork);
    EXPECT_TRUE(inbox().admit("device-17", other.header).valueOr(false));
    const string admitted = everything();
    EXPECT_TRUE(inbox().admit("device-17", other.header).valueOr(false)); // which it is already
    EXPECT_EQ(everything(), admitted);
    EXPECT_EQ(inbox().lost("device-17").valueOr(-1), 0);
    EXPECT_EQ(rows("select * from sqlsync_incarnation"), "device-17|11|1|2|1");
    expectApplied(other);
    EXPECT_EQ(products(), "1|tea|2\n2|rum|3\n4|gin|5\n");
    expectRepeated(other);
    expectApplied(_device.commit("insert into product values (5, 'cider', 6)"));

    // The former line comes to its end.
    expectRepeated(second);
    expectRepeated(first);
    expectRefused(third, "23=SQLITE_AUTH: the device's incarnation was retired when another was"
                         " admitted");
    expectRefused(inbox().admit("device-17", third.header), "admit",
                  "23=SQLITE_AUTH: the device's incarnation was retired when another was admitted");
}

TEST_F(SqlInboxTest, FormerLineIsRefusedFromTheAdmissionOn)
{
    const Sent first = _device.commit("insert into product values (1, 'tea', 2)");
    const SyncPosition backup = _device.position;
    const Sent second = _device.commit("insert into product values (2, 'rum', 3)");
    expectApplied(first);
    expectApplied(second);
    Device restored;
    restored.restore(backup, 12);
    const Sent other = restored.commit("insert into product values (4, 'gin', 5)");
    EXPECT_TRUE(inbox().admit("device-17", other.header));
    expectRepeated(second); // though it begins where the inbox stands
    expectRepeated(first);
    expectRefused(_device.commit("insert into product values (3, 'ale', 4)"),
                  "23=SQLITE_AUTH: the device's incarnation was retired when another was admitted");
    expectApplied(other);
}

TEST_F(SqlInboxTest, EarlierIncarnationsOfTheFormerLineDoNotComeAgain)
{
    const Sent first = _device.commit("insert into product values (1, 'tea', 2)");
    const SyncPosition backup = _device.position;
    const Sent second = _device.commit("insert into product values (2, 'rum', 3)");
    _device.restore(_device.position, 12); // the program was started again
    const Sent third = _device.commit("delete from product where id = 2");
    expectApplied(first);
    expectApplied(second);
    expectApplied(third);
    Device restored;
    restored.restore(backup, 13);
    const Sent other = restored.commit("insert into product values (4, 'gin', 5)");
    EXPECT_TRUE(inbox().admit("device-17", other.header));
    expectRepeated(second); // though it begins where the inbox stands, and would fit
    expectRefused(inbox().admit("device-17", second.header), "admit",
                  "21=SQLITE_MISUSE: the change set has come before");
    expectApplied(other);
    expectRepeated(third);
    EXPECT_EQ(products(), "1|tea|2\n4|gin|5\n");
}

TEST_F(SqlInboxTest, TwoDevicesOfOneNameAreTold)
{
    Device twin("device-17", 12);
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    expectRefused(twin.commit("insert into product values (2, 'rum', 3)"),
                  "23=SQLITE_AUTH: the device went back to 0 (restored from a backup), or another"
                  " device has its name");
    expectRefused(twin.commit("insert into product values (3, 'ale', 4)"),
                  "23=SQLITE_AUTH: the device went back to 1 (restored from a backup), or another"
                  " device has its name");
    expectApplied(_device.commit("insert into product values (4, 'gin', 5)"));
}

TEST_F(SqlInboxTest, LaterSetCanBeAdmittedAndWhatIsBetweenIsLost)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    const Sent passed = _device.commit("insert into product values (2, 'rum', 3)", 3);
    const Sent next = _device.commit("insert into product values (3, 'ale', 4)");
    expectRefused(next, "12=SQLITE_NOTFOUND: the commits 2 to 4 are missing");
    EXPECT_TRUE(inbox().admit("device-17", next.header));
    EXPECT_EQ(inbox().lost("device-17").valueOr(-1), 3);
    expectRepeated(passed);
    expectApplied(next);
    expectRepeated(passed);
    EXPECT_EQ(products(), "1|tea|2\n3|ale|4\n");
    EXPECT_EQ(rows("select * from sqlsync_incarnation"), "device-17|11|1|5|0");
}

TEST_F(SqlInboxTest, SetWhoseTurnItIsNeedsNoAdmission)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    const Sent next = _device.commit("insert into product values (2, 'rum', 3)");
    const string before = everything();
    EXPECT_TRUE(inbox().admit("device-17", next.header).valueOr(false));
    EXPECT_EQ(everything(), before);
}

TEST_F(SqlInboxTest, SingleCommitBeforeTheAdmittedSetIsLostToo)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    const Sent passed = _device.commit("insert into product values (2, 'rum', 3)");
    _device.restore(_device.position, 12);
    const Sent next = _device.commit("insert into product values (3, 'ale', 4)");
    EXPECT_TRUE(inbox().admit("device-17", next.header));
    EXPECT_EQ(inbox().lost("device-17").valueOr(-1), 1);
    EXPECT_EQ(rows("select * from sqlsync_incarnation"), "device-17|11|1|2|1");
    expectRepeated(passed);
    expectApplied(next);
}

TEST_F(SqlInboxTest, LostCommitsAreNotedInTheirOwnIncarnation)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    _device.restore(_device.position, 12);
    const Sent passed = _device.commit("insert into product values (2, 'rum', 3)", 3);
    const Sent next = _device.commit("insert into product values (3, 'ale', 4)");
    EXPECT_TRUE(inbox().admit("device-17", next.header));
    EXPECT_EQ(rows("select * from sqlsync_incarnation"), "device-17|11|1|1|1\ndevice-17|12|2|4|0");
    expectRepeated(passed);
    expectApplied(next);
}

TEST_F(SqlInboxTest, NothingIsNotedOfALineThatIsNotBehind)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)", 3));
    Device twin("device-17", 12);
    twin.commit("insert into product values (2, 'rum', 3)");
    const Sent next = twin.commit("insert into product values (3, 'ale', 4)");
    EXPECT_TRUE(inbox().admit("device-17", next.header));
    EXPECT_EQ(rows("select * from sqlsync_incarnation"), "device-17|11|1|3|1");
    EXPECT_EQ(inbox().lost("device-17").valueOr(-1), 0);
}

TEST_F(SqlInboxTest, SetThatHasComeIsNotAdmitted)
{
    const Sent first = _device.commit("insert into product values (1, 'tea', 2)");
    expectApplied(first);
    expectRefused(inbox().admit("device-17", first.header), "admit",
                  "21=SQLITE_MISUSE: the change set has come before");
    expectRefused(inbox().admit("device-18", first.header), "admit",
                  "20=SQLITE_MISMATCH: the change set is of device 'device-17'");
    expectRefused(inbox().admit("device-17", first.header.substr(1)), "admit",
                  "11=SQLITE_CORRUPT: the bytes are no header of a change set");
}

TEST_F(SqlInboxTest, UnknownDeviceCanBeAdmittedInTheMiddle)
{
    _device.commit("insert into product values (1, 'tea', 2)", 7);
    const Sent next = _device.commit("insert into product values (2, 'rum', 3)");
    EXPECT_TRUE(inbox().admit("device-17", next.header));
    expectApplied(next);
    EXPECT_EQ(inbox().lost("device-17").valueOr(-1), 7);
}

// --- Damage and differences ----------------------------------------------------------------------

TEST_F(SqlInboxTest, DamagedSetChangesNothing)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    const Sent sent = _device.commit("insert into product values (2, 'rum', 3)");
    for (std::size_t at = 0; at < sent.header.size(); ++at) {
        Sent damaged = sent;
        damaged.header[at] = static_cast<char>(damaged.header[at] ^ 4);
        const string before = everything();
        EXPECT_TRUE(apply(damaged).error().isCorrupt());
        EXPECT_EQ(everything(), before);
    }
    for (std::size_t at = 0; at < sent.bytes.size(); ++at) {
        Sent damaged = sent;
        damaged.bytes[at] = static_cast<char>(damaged.bytes[at] ^ 4);
        _diagnostics.clear();
        expectRefused(damaged, "11=SQLITE_CORRUPT: the change set's checksum is wrong");
    }
    expectRefused({"", ""}, "11=SQLITE_CORRUPT: the header is cut off");
    expectRefused({sent.header, sent.bytes + "T"},
                  "11=SQLITE_CORRUPT: the change set has 39 bytes instead of 38");
    const string wrong = sent.bytes + "x";
    sql::Envelope envelope = _device.envelope;
    expectRefused({sql::encode(envelope, wrong), wrong},
                  "11=SQLITE_CORRUPT: byte 38: the change set is cut off");
    expectApplied(sent);
}

TEST_F(SqlInboxTest, TablesThatDifferAreToldByTableAndColumn)
{
    struct Difference {
        const char* here;
        const char* why;
    };
    const Difference differences[] = {
        {"id integer primary key, name text", "column 'price' is missing here"},
        {"id integer primary key, price, name text", "column 'name' is 'price' here"},
        {"id integer primary key, name text, Price", "column 'price' is 'Price' here"},
        {"id integer primary key, name blob, price",
         "column 'name' has type 'TEXT', and 'BLOB' here"},
        {"id integer, name text not null primary key, price",
         "column 'id' has another place in the key here"},
        {"id integer primary key, name text not null, price",
         "column 'name' may be null on one side alone"},
    };
    const Sent sent = _device.commit("insert into product values (1, 'tea', 2)");
    for (const Difference& difference : differences) {
        inbox(); // which sees that the table is another
        run(string("drop table product; create table product (") + difference.here + ")");
        expectRefused(sent, string("17=SQLITE_SCHEMA: table 'product': ") + difference.why);
    }
    run("drop table product");
    expectRefused(apply(sent), "apply", "21=SQLITE_MISUSE: table 'product': there is none");
    run("drop table pair; create table pair (left text not null, right blob not null,"
        " more text not null, primary key (right, left, more));"
        "create table product (id integer primary key, name text, price)");
    expectRefused(sent, "17=SQLITE_SCHEMA: table 'pair': column 'more' of the key is here alone");
    run("drop table product; drop table pair");
    run(test::sync_tables);
    expectApplied(sent);
}

TEST_F(SqlInboxTest, ColumnsThatALaterReleaseHasAddedAreLeftAlone)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2), (2, 'rum', 3)"));
    run("alter table product add column unit text default 'kg'; update product set unit = 'g'");
    expectApplied(_device.commit("insert into product values (3, 'ale', 4);"
                                 "update product set price = 5 where id = 1;"
                                 "delete from product where id = 2"));
    EXPECT_EQ(rows("select * from product order by 1"), "1|tea|5|g\n3|ale|4|kg");

    run("drop table product;"
        "create table product (id integer primary key, name text, price, unit text not null)");
    expectKept(_device.commit("insert into product values (4, 'gin', 6)"), "3",
               "table 'product', insert: a constraint forbids it here");
}

TEST_F(SqlInboxTest, TableThatWasNotOpenedIsNeverWritten)
{
    _inbox = std::make_unique<Inbox>(_database, std::vector<string>{"product"});
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    expectRefused(_device.commit("insert into product values (2, 'rum', 3);"
                                 "insert into pair values ('a', x'01')"),
                  "17=SQLITE_SCHEMA: table 'pair': the inbox was not opened for it");
}

// --- Triggers and foreign keys -------------------------------------------------------------------

class SqlInboxRestTest : public SqlInboxTest {
protected:
    SqlInboxRestTest()
    {
        run("create table log (what);"
            "create trigger told after insert on product begin insert into log values ('added'); end;"
            "create table part (id integer primary key, product integer references product);"
            "pragma foreign_keys = on");
        _device.db.run("create table part (id integer primary key, product integer)");
    }

    // Both work as before.
    void expectRestored()
    {
        run("savepoint probe; insert into product values (100, '', 0)");
        EXPECT_EQ(rows("select count(*) from log"), "1");
        EXPECT_EQ(sqlite3_exec(_database.getHandle(), "insert into part values (1, 55)", nullptr,
                               nullptr, nullptr),
                  SQLITE_CONSTRAINT);
        run("rollback to probe; release probe");
    }
};

TEST_F(SqlInboxRestTest, BothRestWhileASetIsAppliedAndAreRestored)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    EXPECT_EQ(rows("select count(*) from log"), "0");
    expectRestored();
    run("insert into part values (7, 1)");
    const Sent removed = _device.commit("delete from product where id = 1");
    expectApplied(removed);
    EXPECT_EQ(products(), "\n");
    expectRestored();
    expectRepeated(removed);
    expectRestored();
}

TEST_F(SqlInboxRestTest, BothAreRestoredAfterEveryFailure)
{
    const Sent first = _device.commit("insert into product values (1, 'tea', 2)");
    const Sent second = _device.commit("insert into product values (2, 'tea', 2)");
    expectRefused(second, "12=SQLITE_NOTFOUND: the commits 1 to 1 are missing");
    expectRestored();
    expectRefused({first.header, ""},
                  "11=SQLITE_CORRUPT: the change set has 0 bytes instead of 38");
    expectRestored();
    run("insert into product values (1, 'here', 2); delete from log");
    expectKept(first, "1", "table 'product', insert: there is a row with this key here");
    expectRestored();
    EXPECT_EQ(inbox().retry("device-17").valueOr(-1), 0);
    expectRestored();
    run("delete from product");
    EXPECT_EQ(inbox().retry("device-17").valueOr(-1), 1);
    expectRestored();
    run("begin");
    EXPECT_FALSE(apply(second));
    _diagnostics.clear();
    run("commit");
    expectRestored();
}

TEST_F(SqlInboxRestTest, WhatRestedBeforeRestsAfterwards)
{
    sqlite3* const db = _database.getHandle();
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    run("pragma foreign_keys = off");
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    int isOn = -1;
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, -1, &isOn);
    EXPECT_EQ(isOn, 0);
    EXPECT_EQ(rows("pragma foreign_keys"), "0");
}

// --- Conflicts -----------------------------------------------------------------------------------

TEST_F(SqlInboxTest, ConflictKeepsTheWholeSetWithItsReason)
{
    struct Conflict {
        const char* here;
        const char* there;
        const char* why;
    };
    const Conflict conflicts[] = {
        {"insert into product values (2, 'here', 0)", "insert into product values (2, 'tea', 1)",
         "table 'product', insert: there is a row with this key here"},
        {"update product set price = 7 where id = 1", "update product set price = 3 where id = 1",
         "table 'product', update: the row has other values here"},
        {"delete from product where id = 1", "update product set price = 3 where id = 1",
         "table 'product', update: there is no such row here"},
        {"update product set price = 7 where id = 1", "delete from product where id = 1",
         "table 'product', delete: the row has other values here"},
        {"delete from product where id = 1", "delete from product where id = 1",
         "table 'product', delete: there is no such row here"},
        {"create unique index one on product (name)", "insert into product values (2, 'rum', 1)",
         "table 'product', insert: a constraint forbids it here"},
    };
    sql::integer incarnation = 1;
    for (const Conflict& conflict : conflicts) {
        Device device("device-17", ++incarnation);
        _inbox.reset();
        run("drop index if exists one; delete from product; delete from pair");
        for (const char* const table : {"sqlsync_inbox", "sqlsync_incarnation", "sqlsync_kept"})
            run(string("drop table if exists ") + table);
        expectApplied(device.commit("insert into product values (1, 'rum', 2)"));
        run(conflict.here);
        const Sent sent = device.commit(string("insert into pair values ('a', x'01');"
                                               "insert into product values (9, 'ale', 0);")
                                        + conflict.there);
        expectKept(sent, "2", conflict.why);
        EXPECT_EQ(rows("select device, last, reason from sqlsync_kept"),
                  string("device-17|2|") + conflict.why);
        EXPECT_EQ(rows("select count(*) from pair"), "0");
        EXPECT_EQ(inbox().kept("device-17").valueOr(-1), 1);
        expectRepeated(sent);
    }
}

TEST_F(SqlInboxTest, WhatFollowsAConflictWaitsBehindIt)
{
    Device other("device-18", 12);
    run("insert into product values (1, 'here', 0)");
    const Sent first = _device.commit("insert into product values (1, 'tea', 1)");
    const Sent second = _device.commit("insert into product values (2, 'rum', 1)");
    const Sent third = _device.commit("update product set price = 9 where id = 2");
    expectKept(first, "1", "table 'product', insert: there is a row with this key here");
    expectKept(second, "2", "it waits for the one up to 1");
    expectKept(third, "3", "it waits for the one up to 1");
    expectApplied(other.commit("insert into product values (8, 'gin', 1)"), "device-18");
    EXPECT_EQ(inbox().kept("device-17").valueOr(-1), 3);
    EXPECT_EQ(inbox().kept("device-18").valueOr(-1), 0);

    EXPECT_EQ(inbox().retry("device-17").valueOr(-1), 0);
    EXPECT_EQ(inbox().kept("device-17").valueOr(-1), 3);
    run("delete from product where id = 1");
    EXPECT_EQ(inbox().retry("device-17").valueOr(-1), 3);
    EXPECT_EQ(products(), "1|tea|1\n2|rum|9\n8|gin|1\n");
    EXPECT_EQ(inbox().kept("device-17").valueOr(-1), 0);
    EXPECT_EQ(inbox().retry("device-17").valueOr(-1), 0);
    expectApplied(_device.commit("delete from product where id = 2"));
}

TEST_F(SqlInboxTest, RetryStopsAtTheNextConflictAndTellsWhy)
{
    run("insert into product values (1, 'here', 0), (3, 'here', 0)");
    keep(_device.commit("insert into product values (1, 'tea', 1)"));
    keep(_device.commit("insert into product values (2, 'rum', 1)"));
    keep(_device.commit("insert into product values (3, 'ale', 1)"));
    run("delete from product where id = 1");
    EXPECT_EQ(inbox().retry("device-17").valueOr(-1), 2);
    EXPECT_EQ(rows("select last, reason from sqlsync_kept"),
              "3|table 'product', insert: there is a row with this key here");
    EXPECT_EQ(products(), "1|tea|1\n2|rum|1\n3|here|0\n");
}

TEST_F(SqlInboxTest, OldestKeptSetCanBeDiscarded)
{
    EXPECT_FALSE(inbox().discard("device-17").failed());
    EXPECT_FALSE(inbox().discard("device-17"));
    run("insert into product values (1, 'here', 0)");
    const Sent first = _device.commit("insert into product values (1, 'tea', 1)");
    keep(first);
    keep(_device.commit("insert into product values (2, 'rum', 1)"));
    EXPECT_TRUE(inbox().discard("device-17").valueOr(false));
    EXPECT_EQ(inbox().kept("device-17").valueOr(-1), 1);
    expectRepeated(first);
    EXPECT_EQ(inbox().retry("device-17").valueOr(-1), 1);
    EXPECT_EQ(products(), "1|here|0\n2|rum|1\n");
    EXPECT_FALSE(inbox().discard("device-17"));
}

TEST_F(SqlInboxTest, KeptSetIsCheckedAgainBeforeItIsApplied)
{
    run("insert into product values (1, 'here', 0)");
    keep(_device.commit("insert into product values (1, 'tea', 1)"));
    run("delete from product; update sqlsync_kept set bytes = x'00' || bytes");
    expectRefused(inbox().retry("device-17"), "retry",
                  "11=SQLITE_CORRUPT: the change set has 39 bytes instead of 38");
    run("update sqlsync_kept set header = x'00'");
    expectRefused(inbox().retry("device-17"), "retry",
                  "11=SQLITE_CORRUPT: the bytes are no header of a change set");
}

TEST_F(SqlInboxTest, KeptSetWaitsForTablesThatFit)
{
    run("insert into product values (1, 'here', 0)");
    keep(_device.commit("insert into product values (1, 'tea', 1)"));
    run("delete from product; alter table product rename column price to cost");
    expectRefused(inbox().retry("device-17"), "retry",
                  "17=SQLITE_SCHEMA: table 'product': column 'price' is 'cost' here");
}

// Its set would be kept as if nothing of the transaction were gone.
TEST_F(SqlInboxTest, ConstraintThatRollsTheTransactionBackFails)
{
    run("insert into product values (1, 'here', 1)");
    keep(_device.commit("insert into product values (1, 'tea', 1)"));
    run("drop table product; create table product (id integer primary key, name text unique on"
        " conflict rollback, price); insert into product values (7, 'tea', 1)");
    Device other("device-18", 12);
    const Sent sent = other.commit("insert into product values (1, 'tea', 1)");
    const auto expectRolledBack = [this](const sql::Error& error, const string& operation) {
        const string reason = "SQLite has rolled the transaction back";
        EXPECT_EQ(error.text(), reason);
        std::vector<string> told = report::statementFailed(operation, operation,
                                                           "516=SQLITE_ABORT_ROLLBACK: " + reason);
        told.insert(told.begin(),
                    report::error("Transaction::noteRollback",
                                  "The transaction was rolled back: nothing is committed before its"
                                  " scope ends"));
        expectReport(told);
    };
    const string before = everything();
    expectRolledBack(apply(sent, "device-18").error(), "apply");
    expectRolledBack(inbox().retry("device-17").error(), "retry");
    EXPECT_EQ(everything(), before);
}

// --- Interrupts ----------------------------------------------------------------------------------

TEST_F(SqlInboxTest, MakingItFailsWhereverItIsInterrupted)
{
    run("create table sqlsync_schema (hash integer primary key, description blob not null)");
    const auto make = [this] {
        const Inbox made(_database, {"product", "pair"});
        EXPECT_EQ(made.isOpen(), !made.error());
        return made.error();
    };
    const auto check = [this](bool) {
        EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
        run("drop table if exists sqlsync_inbox; drop table if exists sqlsync_inbox_table");
    };
    EXPECT_GT(test::interruptEach(_database.getHandle(), _diagnostics, make, check), 10);
}

class SqlInboxInterruptTest : public SqlInboxTest {
protected:
    // An operation that fails wherever it is interrupted and then has changed nothing, or is done.
    template <typename Operation> void expectWhole(Operation operation)
    {
        test::Connection saved;
        test::copyDatabase(_database.getHandle(), saved);
        const string before = everything();
        EXPECT_FALSE(operation());
        const auto report = _diagnostics.take();
        const string after = everything();
        const auto attempt = [&] {
            const sql::Error error = operation();
            EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
            return error;
        };
        const auto check = [&](bool isDone) {
            EXPECT_EQ(everything(), isDone ? after : before);
            test::copyDatabase(saved, _database.getHandle());
        };
        test::copyDatabase(saved, _database.getHandle());
        EXPECT_GT(test::interruptEach(_database.getHandle(), _diagnostics, attempt, check, report),
                  0);
    }
};

TEST_F(SqlInboxInterruptTest, SetIsAppliedOrKeptWholeOrNotAtAll)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    const Sent next = _device.commit("insert into product values (2, 'rum', 2)");
    expectWhole([&] { return apply(next).error(); });
    run("insert into product values (2, 'here', 0)");
    expectWhole([&] { return apply(next).error(); });
    keep(next);
    const Sent waiting = _device.commit("insert into product values (3, 'ale', 2)");
    expectWhole([&] { return apply(waiting).error(); });
    expectWhole([&] { return apply(next).error(); });
}

TEST_F(SqlInboxInterruptTest, KeptSetsAreRetriedAllOrNotAtAll)
{
    run("insert into product values (1, 'here', 0), (3, 'here', 0)");
    for (const char* const id : {"1", "2", "3"})
        keep(_device.commit(string("insert into product values (") + id + ", 'tea', 2)"));
    run("delete from product where id = 1");
    expectWhole([&] { return inbox().retry("device-17").error(); });
    expectWhole([&] { return inbox().discard("device-17").error(); });
    expectWhole([&] { return inbox().kept("device-17").error(); });
}

TEST_F(SqlInboxInterruptTest, DeviceIsAdmittedOrNot)
{
    expectApplied(_device.commit("insert into product values (1, 'tea', 2)"));
    _device.commit("insert into product values (2, 'rum', 2)", 3);
    _device.restore(_device.position, 12);
    const Sent next = _device.commit("insert into product values (3, 'ale', 2)");
    expectWhole([&] { return inbox().admit("device-17", next.header).error(); });
    expectWhole([&] { return inbox().lost("device-17").error(); });
}

// --- Many ----------------------------------------------------------------------------------------

// Series on the way from some devices, with repetitions, losses and sets out of order: in the end
// the rows are those of the devices.
TEST_F(SqlInboxTest, WhateverHappensOnTheWayTheRowsAreTheSame)
{
    std::mt19937 random(5);
    for (int round = 0; round < 20; ++round) {
        _inbox.reset();
        run("delete from product; delete from pair; drop table if exists sqlsync_inbox;"
            "drop table if exists sqlsync_incarnation");
        Device device("device-17", round + 1);
        std::vector<Sent> sent;
        for (int i = 0; i < 30; ++i) {
            const string id = std::to_string(random() % 8);
            const string writes[] = {
                "insert or replace into product values (" + id + ", 'x', " + std::to_string(i)
                    + ")",
                "update product set name = " + std::to_string(i) + " where id < " + id,
                "delete from product where id = " + id,
                "insert or ignore into pair values ('" + id + "', x'0" + id + "')"};
            if (random() % 6 == 0)
                ++device.position.incarnation;
            sent.push_back(device.commit(writes[random() % 4], 1 + static_cast<int>(random() % 3)));
        }
        std::size_t next = 0;
        while (next < sent.size()) {
            const std::size_t which = random() % (next + 3);
            if (which >= sent.size())
                continue;
            const sql::Result<Received> received = apply(sent[which]);
            if (which < next) {
                ASSERT_EQ(received.valueOr(Received::kept), Received::repeated);
            } else if (which == next) {
                ASSERT_EQ(received.valueOr(Received::kept), Received::applied);
                ++next;
            } else {
                ASSERT_EQ(received.error().code(), SQLITE_NOTFOUND);
            }
        }
        _diagnostics.clear();
        EXPECT_EQ(products(),
                  device.db.rows("select * from product order by 1") + "\n"
                      + device.db.rows("select left, hex(right) from pair order by 1, 2"));
    }
}

} // namespace
