#include "SqlPreparedTable.h"

#include "Environment.h"
#include "PreparedTableBulkTest.h"
#include "SqlTransaction.h"

#include <algorithm>
#include <forward_list>
#include <iterator>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

namespace report = test::report;

using sql::Field;
using sql::integer;
using sql::PreparedTable;
using sql::Record;

const std::string no_number = "20=SQLITE_MISMATCH: record 3: column price is no number";

// --- Records of every source

TEST_F(PreparedTableBulkTest, AllRecordsAreAdded)
{
    for (const int count :
         {0, 1, 2, 31, 32, 33, 64, 279, 280, 281, 287, 288, 319, 320, 321, 1000}) {
        run("delete from product");
        EXPECT_TRUE(add(records(count)));
        expectAdded(count);
    }
    EXPECT_FALSE(inTransaction());
}

TEST_F(PreparedTableBulkTest, RecordsOfAnyForwardRange)
{
    const std::vector<Record> all = records(300);
    const std::list<Record> list(all.begin(), all.end());
    EXPECT_TRUE(_fast.addRecords(list.begin(), list.end()));
    expectAdded(300);
    run("delete from product");
    const std::forward_list<Record> once(all.begin(), all.end());
    EXPECT_TRUE(_fast.addRecords(once.begin(), once.end()));
    expectAdded(300);
    run("delete from product");
    EXPECT_TRUE(_fast.addRecords(all.data(), all.data() + all.size()));
    expectAdded(300);
    run("delete from product");
    std::vector<Record> changeable = all;
    EXPECT_TRUE(_fast.addRecords(changeable.begin(), changeable.end()));
    expectAdded(300);
}

TEST_F(PreparedTableBulkTest, RecordsThatAreMadeWhileTheyAreRead)
{
    for (const int count : {0, 1, 31, 32, 33, 279, 280, 281, 320, 1000}) {
        run("delete from product");
        EXPECT_TRUE(_fast.addRecords(Made(_table, 1), Made(_table, count + 1)));
        expectAdded(count);
    }
}

TEST_F(PreparedTableBulkTest, RecordsOfACursor)
{
    ASSERT_TRUE(add(records(300)));
    const sql::Table copy(_database.getHandle(), "copy", sql::FieldSet(test::product_columns));
    run("create table copy (id integer primary key, name text, price real)");
    PreparedTable target(_database, copy);
    sql::RecordCursor half = _fast.select("where id > ? order by id", 150);
    EXPECT_TRUE(target.addRecords(half.begin(), half.end()));
    EXPECT_TRUE(half.finished());
    EXPECT_EQ(target.changes(), 150);
    EXPECT_EQ(rows("select * from copy"), rows("select * from product where id > 150"));
}

TEST_F(PreparedTableBulkTest, NullKeysAreChosenBySqlite)
{
    fill();
    std::vector<Record> some = records(300);
    for (Record& record : some)
        record.setNull(0);
    EXPECT_TRUE(add(some));
    EXPECT_EQ(_fast.changes(), 300);
    EXPECT_EQ(_fast.lastKey(), 303);
    EXPECT_EQ(rows("select count(*), max(id) from product"), "303|303");
}

TEST_F(PreparedTableBulkTest, CellsGoInAsOneByOne)
{
    Declared shelf(_database, {Field("whole", sql::type_int, sql::flag_none),
                               Field("words", sql::type_text, sql::flag_none),
                               Field("share", sql::type_float, sql::flag_none)});
    run("create table shelf (whole, words, share)");
    const Cells cells[] = {{"7", "7", "7"},
                           {"2.5", std::string("a\0b", 3), "0.30000000000000004"},
                           {{}, {}, {}},
                           {"9223372036854775808", "", "-9223372036854775808"},
                           {"+1e3", "it's", "1e-5"}};
    std::vector<Record> some;
    for (int i = 0; i < 300; ++i)
        some.push_back(shelf.record(cells[i % 5]));
    EXPECT_TRUE(shelf.fast.addRecords(some.begin(), some.end()));
    const std::string stored = typedRows("select * from shelf order by rowid");
    run("delete from shelf");
    for (const Record& record : some)
        EXPECT_TRUE(shelf.fast.addRecord(record));
    EXPECT_EQ(stored, typedRows("select * from shelf order by rowid"));
}

TEST_F(PreparedTableBulkTest, ChangesAreTheRowsAddedAndNotThoseOfTriggers)
{
    run("create table log (id integer primary key); create trigger more after insert on product"
        " begin insert into log values (null), (null); end");
    EXPECT_TRUE(add(records(300)));
    expectAdded(300);
    EXPECT_EQ(rows("select count(*) from log"), "600");
}

TEST_F(PreparedTableBulkTest, RowsThatTheSchemaIgnoresAreNoneAdded)
{
    run("drop table product; create table product"
        " (id integer primary key on conflict ignore, name text, price real);"
        "insert into product values (5, 'five', 5), (290, 'more', 290)");
    EXPECT_TRUE(add(records(300)));
    EXPECT_EQ(_fast.changes(), 298);
    EXPECT_EQ(rows("select count(*), sum(name in ('five', 'more')) from product"), "300|2");
}

TEST_F(PreparedTableBulkTest, RowsThatATriggerIgnoresLeaveTheOthersOnce)
{
    Declared shelf(_database, {Field("name", sql::type_text, sql::flag_none)});
    run("create table shelf (name); create trigger skip before insert on shelf when new.name = '5'"
        " begin select raise(ignore); end");
    std::vector<Record> names;
    for (int i = 0; i < 320; ++i)
        names.push_back(shelf.record({std::to_string(i)}));
    EXPECT_TRUE(shelf.fast.addRecords(names.begin(), names.end()));
    EXPECT_EQ(shelf.fast.changes(), 319);
    EXPECT_EQ(rows("select count(*), count(distinct name) from shelf"), "319|319");
}

// --- Several rows a statement

class GroupsTest : public PreparedTableBulkTest {
protected:
    // How many rows each INSERT of that many records had.
    std::vector<int> groups(int count)
    {
        const std::vector<Record> all = records(count);
        return groups(all.begin(), all.end());
    }

    template <typename Iterator> std::vector<int> groups(Iterator begin, Iterator end)
    {
        run("delete from product");
        const test::Statements statements(_database.getHandle());
        EXPECT_TRUE(_fast.addRecords(begin, end));
        std::vector<int> rows;
        for (const std::string& text : statements.texts()) {
            if (text.compare(0, 6, "insert") == 0)
                rows.push_back(static_cast<int>(std::count(text.begin(), text.end(), '?') / 3));
        }
        return rows;
    }

    static std::vector<int> groupsAndSingles(int groups, int size, int singles)
    {
        std::vector<int> all(groups, size);
        all.insert(all.end(), singles, 1);
        return all;
    }

    void setLimit(int variables)
    {
        sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_VARIABLE_NUMBER, variables);
        _fast.release();
    }
};

TEST_F(GroupsTest, FewRecordsGoOneByOne)
{
    EXPECT_EQ(groups(0), groupsAndSingles(0, 32, 0));
    EXPECT_EQ(groups(1), groupsAndSingles(0, 32, 1));
    EXPECT_EQ(groups(32), groupsAndSingles(0, 32, 32));
    EXPECT_EQ(groups(279), groupsAndSingles(0, 32, 279));
}

TEST_F(GroupsTest, ManyGoBy32AndTheRestOneByOne)
{
    EXPECT_EQ(groups(280), groupsAndSingles(8, 32, 24));
    EXPECT_EQ(groups(288), groupsAndSingles(9, 32, 0));
    EXPECT_EQ(groups(1000), groupsAndSingles(31, 32, 8));
}

TEST_F(GroupsTest, ThoseThatAreMadeMayBeMany)
{
    EXPECT_EQ(groups(Made(_table, 1), Made(_table, 1001)), groupsAndSingles(31, 32, 8));
    EXPECT_EQ(groups(Made(_table, 1), Made(_table, 31)), groupsAndSingles(0, 32, 30));
}

TEST_F(GroupsTest, AsManyAsSqliteTakesParameters)
{
    setLimit(96);
    EXPECT_EQ(groups(300), groupsAndSingles(9, 32, 12));
    setLimit(95);
    EXPECT_EQ(groups(300), groupsAndSingles(9, 31, 21));
    setLimit(29);
    EXPECT_EQ(groups(300), groupsAndSingles(33, 9, 3));
    setLimit(24);
    EXPECT_EQ(groups(300), groupsAndSingles(37, 8, 4));
    setLimit(23);
    EXPECT_EQ(groups(300), groupsAndSingles(0, 7, 300)) << "fewer than eight do not pay";
    setLimit(3);
    EXPECT_EQ(groups(300), groupsAndSingles(0, 1, 300));
    expectStored(300);
}

TEST_F(GroupsTest, FewerParametersThanColumnsAreSqlitesToRefuse)
{
    setLimit(2);
    EXPECT_FALSE(add(records(300)));
    const std::string reason = _fast.error().text();
    EXPECT_NE(reason.find("variable"), std::string::npos) << reason;
    expectFailure(_fast, "addRecords", "1=SQLITE_ERROR: " + reason);
    EXPECT_FALSE(inTransaction());
}

// --- All or none

TEST_F(PreparedTableBulkTest, FirstRecordThatFailsIsNamedAndNothingIsKept)
{
    for (const int count : {50, 300}) {
        for (const int number : {1, 2, 17, 32, 33, 40, 50, count}) {
            run("insert into product values (" + std::to_string(number) + ", 'old', 0)");
            EXPECT_FALSE(add(records(count)));
            expectFailure(_fast, "addRecords",
                          "1555=SQLITE_CONSTRAINT_PRIMARYKEY: record " + std::to_string(number)
                              + ": " + _taken);
            EXPECT_TRUE(_fast.error().isConstraint());
            EXPECT_EQ(rows("select id, name from product"), std::to_string(number) + "|old");
            EXPECT_FALSE(inTransaction());
            run("delete from product");
        }
    }
}

TEST_F(PreparedTableBulkTest, RecordThatFailsIsNamedFromAnySource)
{
    for (const int count : {50, 300}) {
        EXPECT_FALSE(_fast.addRecords(Made(_table, 1, 45), Made(_table, count + 1, 45)));
        expectFailure(_fast, "addRecords",
                      "1555=SQLITE_CONSTRAINT_PRIMARYKEY: record 45: " + _taken);
        expectStored(0);
    }
}

TEST_F(PreparedTableBulkTest, WhateverFailsFirstIsTheReason)
{
    for (const int count : {20, 300}) {
        std::vector<Record> some = records(count);
        some[2].setString(2, "much");
        some[4].setInteger(0, 1);
        EXPECT_FALSE(add(some));
        expectFailure(_fast, "addRecords", no_number);
        EXPECT_TRUE(_fast.error().isMismatch());
        some = records(count);
        some[2].setInteger(0, 1);
        some[4].setString(2, "much");
        EXPECT_FALSE(add(some));
        expectFailure(_fast, "addRecords",
                      "1555=SQLITE_CONSTRAINT_PRIMARYKEY: record 3: " + _taken);
        expectStored(0);
    }
}

TEST_F(PreparedTableBulkTest, RecordOfOtherColumnsIsNamed)
{
    const sql::FieldSet others(test::key_last_columns);
    for (const int count : {20, 300}) {
        std::vector<Record> some = records(count);
        some[2] = Record(others);
        EXPECT_FALSE(add(some));
        expectFailure(_fast, "addRecords",
                      "21=SQLITE_MISUSE: record 3: the record has other columns than the table");
        expectStored(0);
    }
}

TEST_F(PreparedTableBulkTest, RefusalByATriggerNamesTheRecord)
{
    run("create trigger r before insert on product when new.id = 277 begin"
        " select raise(abort, 'not today'); end");
    EXPECT_FALSE(add(records(300)));
    expectFailure(_fast, "addRecords", "1811=SQLITE_CONSTRAINT_TRIGGER: record 277: not today");
    expectStored(0);
}

TEST_F(PreparedTableBulkTest, FailureKeepsNothingWhateverTheSchemaSaysOfConflicts)
{
    for (const std::string conflict : {"abort", "fail", "rollback"}) {
        run("drop table product; create table product (id integer primary key on conflict "
            + conflict + ", name text, price real); insert into product values (277, 'old', 0)");
        EXPECT_FALSE(add(records(300)));
        const std::string code = "1555=SQLITE_CONSTRAINT_PRIMARYKEY: ";
        if (conflict == "rollback") // nothing is left in which to look for the record
            expectLost(code + "records 257 to 288: " + _taken);
        else
            expectFailure(_fast, "addRecords", code + "record 277: " + _taken);
        EXPECT_EQ(rows("select id, name from product"), "277|old") << conflict;
        EXPECT_FALSE(inTransaction());
    }
}

TEST_F(PreparedTableBulkTest, InterruptIsAFailureThatKeepsNothing)
{
    const auto interrupt = [](sqlite3_context* context, int, sqlite3_value**) {
        sqlite3_interrupt(sqlite3_context_db_handle(context));
    };
    sqlite3_create_function(_database.getHandle(), "interrupt", 0, SQLITE_UTF8, nullptr, interrupt,
                            nullptr, nullptr);
    run("create trigger r before insert on product when new.id = 40 begin"
        " select interrupt(); select 1 from sqlite_master as a, sqlite_master as b; end");
    EXPECT_FALSE(add(records(50)));
    expectLost("9=SQLITE_INTERRUPT: record 40: interrupted");
    EXPECT_TRUE(_fast.error().isStopped());
    expectStored(0);
    EXPECT_FALSE(add(records(300)));
    expectLost("9=SQLITE_INTERRUPT: records 33 to 64: interrupted");
    expectStored(0);
    EXPECT_FALSE(inTransaction());
}

TEST_F(PreparedTableBulkTest, TextThatIsTooLongFailsInAnyGroup)
{
    std::vector<Record> some = records(300);
    some[69].setString(1, std::string(2000, 'x'));
    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_LENGTH, 1999);
    EXPECT_FALSE(add(some));
    expectFailure(_fast, "addRecords", "18=SQLITE_TOOBIG: record 70: string or blob too big");
    expectStored(0);
}

TEST_F(PreparedTableBulkTest, StatementThatIsTooLongForSeveralRowsIsAFailure)
{
    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_SQL_LENGTH, 300);
    EXPECT_FALSE(add(records(300)));
    expectFailure(_fast, "addRecords", "18=SQLITE_TOOBIG: string or blob too big");
    EXPECT_FALSE(inTransaction());
    EXPECT_TRUE(add(records(20)));
    expectAdded(20);
}

TEST_F(PreparedTableBulkTest, MissingTableIsAFailure)
{
    run("drop table product");
    EXPECT_FALSE(add(records(300)));
    EXPECT_EQ(_fast.error().text().substr(_fast.error().text().size() - 22),
              "no such table: product");
    expectFailure(_fast, "addRecords", "1=SQLITE_ERROR: " + _fast.error().text());
    EXPECT_FALSE(inTransaction());
}

TEST_F(PreparedTableBulkTest, FailureIsForgottenByTheNextOperation)
{
    std::vector<Record> some = records(20);
    some[2].setString(2, "much");
    EXPECT_FALSE(add(some));
    expectFailure(_fast, "addRecords", no_number);
    some.erase(some.begin() + 2);
    EXPECT_TRUE(add(some));
    EXPECT_FALSE(_fast.error());
    EXPECT_EQ(_fast.changes(), 19);
    EXPECT_EQ(_fast.lastKey(), 20);
}

// --- Transactions

TEST_F(PreparedTableBulkTest, OwnTransactionIsImmediate)
{
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    _fast.release();
    ASSERT_TRUE(_database.open(file, sql::Database::access_create, false, 0));
    run(test::product_definition);
    test::Connection other(file);
    bool locked = false;
    const std::vector<Record> all = records(300);
    EXPECT_TRUE(_fast.addRecords(all.begin(), all.end(), [&](integer) {
        locked = sqlite3_exec(other, "begin immediate", nullptr, nullptr, nullptr) == SQLITE_BUSY;
        EXPECT_EQ(other.rows("select count(*) from product"), "0") << "all or none to others, too";
        return true;
    }));
    EXPECT_TRUE(locked);
    EXPECT_EQ(other.rows("select count(*) from product"), "300");
    run("delete from product");
    other.run("begin immediate");
    EXPECT_FALSE(add(all));
    expectFailure(_fast, "begin", "5=SQLITE_BUSY: database is locked");
    EXPECT_TRUE(_fast.error().isBusy());
    EXPECT_FALSE(inTransaction());
}

TEST_F(PreparedTableBulkTest, ReaderInTheWayOfTheCommitIsAFailureThatKeepsNothing)
{
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    _fast.release();
    ASSERT_TRUE(_database.open(file, sql::Database::access_create, false, 0));
    run(test::product_definition);
    test::Connection other(file);
    other.run("begin; select count(*) from product");
    EXPECT_FALSE(add(records(300)));
    expectFailure(_fast, "commit", "5=SQLITE_BUSY: database is locked");
    EXPECT_FALSE(inTransaction());
    other.run("commit");
    EXPECT_EQ(rows("select count(*) from product"), "0");
    EXPECT_TRUE(add(records(300)));
    expectAdded(300);
}

TEST_F(PreparedTableBulkTest, RowsThatCannotBeCommittedAreNotKept)
{
    run("pragma foreign_keys = on; create table maker (name text primary key);"
        "drop table product; create table product (id integer primary key,"
        " name text references maker deferrable initially deferred, price real)");
    EXPECT_FALSE(add(records(300)));
    expectFailure(_fast, "commit",
                  "787=SQLITE_CONSTRAINT_FOREIGNKEY: FOREIGN KEY constraint failed");
    EXPECT_FALSE(inTransaction());
    expectStored(0);
}

TEST_F(PreparedTableBulkTest, CallersTransactionGoesOn)
{
    run("begin; insert into product values (1000, 'before', 0)");
    EXPECT_TRUE(add(records(300)));
    EXPECT_TRUE(inTransaction());
    EXPECT_EQ(rows("select count(*) from product"), "301");
    EXPECT_FALSE(add(records(300)));
    expectFailure(_fast, "addRecords", "1555=SQLITE_CONSTRAINT_PRIMARYKEY: record 1: " + _taken);
    EXPECT_TRUE(inTransaction());
    EXPECT_EQ(rows("select count(*) from product"), "301");
    run("commit");
    EXPECT_EQ(rows("select count(*) from product"), "301");
    run("begin; delete from product");
    EXPECT_TRUE(add(records(300)));
    run("rollback");
    EXPECT_EQ(rows("select count(*) from product"), "301");
}

TEST_F(PreparedTableBulkTest, ScopesOfTheCallersGoOn)
{
    sql::Transaction transaction(_database, sql::begin_immediate);
    {
        sql::Savepoint kept(_database);
        EXPECT_TRUE(add(records(300)));
        EXPECT_TRUE(kept.commit());
    }
    {
        const sql::Savepoint left(_database);
        EXPECT_FALSE(add(records(20)));
        expectFailure(_fast, "addRecords",
                      "1555=SQLITE_CONSTRAINT_PRIMARYKEY: record 1: " + _taken);
        run("delete from product");
        EXPECT_TRUE(add(records(20)));
    }
    EXPECT_TRUE(transaction.isOpen());
    EXPECT_TRUE(transaction.commit());
    expectStored(300);
}

TEST_F(PreparedTableBulkTest, TransactionThatIsLostIsSaidToBe)
{
    run("drop table product; create table product"
        " (id integer primary key on conflict rollback, name text, price real);"
        "insert into product values (277, 'old', 0)");
    sql::Transaction transaction(_database, sql::begin_immediate);
    EXPECT_FALSE(add(records(300)));
    expectLost("1555=SQLITE_CONSTRAINT_PRIMARYKEY: records 257 to 288: " + _taken);
    EXPECT_FALSE(transaction.isOpen());
    EXPECT_FALSE(transaction.commit());
    expectReport(report::statementFailed("commit", transaction.error().statement(),
                                         std::to_string(transaction.error().extendedCode()) + "="
                                             + transaction.error().name() + ": "
                                             + transaction.error().text()));
    EXPECT_EQ(rows("select id, name from product"), "277|old");
}

// --- Progress

class ProgressTest : public PreparedTableBulkTest {
protected:
    std::vector<integer> progressOf(int count)
    {
        run("delete from product");
        std::vector<integer> told;
        const std::vector<Record> all = records(count);
        EXPECT_TRUE(_fast.addRecords(all.begin(), all.end(), [&](integer added) {
            told.push_back(added);
            EXPECT_EQ(rows("select count(*) from product"), std::to_string(added));
            return true;
        }));
        expectAdded(count);
        return told;
    }

    static std::vector<integer> by32(int count)
    {
        std::vector<integer> all;
        for (integer added = 32; added < count; added += 32)
            all.push_back(added);
        all.push_back(count);
        return all;
    }
};

TEST_F(ProgressTest, IsToldEvery32RowsAndAtTheEnd)
{
    for (const int count : {0, 1, 31, 32, 33, 64, 100, 279, 280, 288, 300, 320})
        EXPECT_EQ(progressOf(count), by32(count));
}

TEST_F(ProgressTest, IsToldAfterEachStatementOfFewerRows)
{
    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_VARIABLE_NUMBER, 30);
    std::vector<integer> tens(30);
    for (int i = 0; i < 30; ++i)
        tens[i] = 10 * (i + 1);
    EXPECT_EQ(progressOf(300), tens);
}

TEST_F(ProgressTest, StopsTheWhole)
{
    fill();
    std::vector<Record> all = records(600);
    all.erase(all.begin(), all.begin() + 3);
    for (const integer last : {32, 320, 597}) {
        integer told = 0;
        EXPECT_FALSE(_fast.addRecords(all.begin(), all.end(), [&](integer added) {
            told = added;
            return added < last;
        }));
        EXPECT_EQ(told, last);
        expectFailure(_fast, "addRecords", _stopped);
        EXPECT_TRUE(_fast.error().isStopped());
        EXPECT_EQ(rows("select * from product"), test::three_products);
        EXPECT_FALSE(inTransaction());
    }
    EXPECT_TRUE(add(all));
    EXPECT_EQ(_fast.changes(), 597);
}

TEST_F(ProgressTest, StopsRecordsThatAreMadeWithoutReadingOn)
{
    integer made = 0;
    EXPECT_FALSE(_fast.addRecords(Made(_table, 1), Made(_table, 1000000), [&](integer added) {
        made = added;
        return added < 320;
    }));
    EXPECT_GE(made, 320);
    EXPECT_LE(made, 320 + 32);
    expectFailure(_fast, "addRecords", _stopped);
    expectStored(0);
}

TEST_F(ProgressTest, StopsInTheCallersTransactionAndLeavesIt)
{
    run("begin; insert into product values (1000, 'before', 0)");
    const std::vector<Record> all = records(300);
    EXPECT_FALSE(
        _fast.addRecords(all.begin(), all.end(), [](integer added) { return added < 64; }));
    expectFailure(_fast, "addRecords", _stopped);
    EXPECT_TRUE(inTransaction());
    EXPECT_EQ(rows("select id from product"), "1000");
    run("commit");
}

TEST_F(ProgressTest, MayBeAnyCallable)
{
    struct Counter {
        int calls = 0;
        bool operator()(integer)
        {
            return ++calls < 3;
        }
    };
    Counter counter;
    const std::vector<Record> all = records(100);
    EXPECT_FALSE(_fast.addRecords(all.begin(), all.end(), counter));
    EXPECT_EQ(counter.calls, 3) << "not a copy";
    expectFailure(_fast, "addRecords", _stopped);
    bool (*const always)(long long) = [](long long) {
        return true;
    };
    EXPECT_TRUE(_fast.addRecords(all.begin(), all.end(), always));
}

#ifdef TEST_EXCEPTIONS
struct Thrown {};

TEST_F(ProgressTest, ExceptionPassesThroughAndNothingIsKept)
{
    const std::vector<Record> all = records(300);
    const auto addAndThrow = [&] {
        return _fast.addRecords(all.begin(), all.end(), [](integer added) -> bool {
            if (added > 100)
                throw Thrown();
            return true;
        });
    };
    EXPECT_THROW(static_cast<void>(addAndThrow()), Thrown);
    EXPECT_FALSE(inTransaction());
    expectStored(0);
    run("begin");
    EXPECT_THROW(static_cast<void>(addAndThrow()), Thrown);
    EXPECT_TRUE(inTransaction());
    expectStored(0);
    run("commit");
    EXPECT_TRUE(add(all));
    expectAdded(300);
}

// Its hundredth record cannot be made.
struct Broken : Made {
    using Made::Made;

    Record operator*() const
    {
        Record record = Made::operator*();
        if (record.getValue(0)->asInteger() == 100)
            throw Thrown();
        return record;
    }
};

TEST_F(ProgressTest, ExceptionOfAnIteratorPassesThroughAndNothingIsKept)
{
    EXPECT_THROW(static_cast<void>(_fast.addRecords(Broken(_table, 1), Broken(_table, 301))),
                 Thrown);
    EXPECT_FALSE(inTransaction());
    expectStored(0);
    EXPECT_TRUE(_fast.addRecords(Broken(_table, 1), Broken(_table, 100)));
    expectAdded(99);
}
#endif

// --- Copies

class PreparedTableCopyTest : public PreparedTableTest {
protected:
    PreparedTableCopyTest()
        : _copyTable(nullptr, "copy", sql::FieldSet(test::product_columns)),
          _copy(_database, _copyTable)
    {
        fill();
        run("create table copy (id integer primary key, name text, price real)");
    }

    void TearDown() override
    {
        _copy.release();
        PreparedTableTest::TearDown();
    }

    std::string copied()
    {
        return rows("select * from copy");
    }

    sql::Table _copyTable;
    PreparedTable _copy;
};

TEST_F(PreparedTableCopyTest, AllRowsOfAnotherTable)
{
    run("insert into copy values (9, 'rum', 8)");
    EXPECT_TRUE(_copy.copyRecords(_fast));
    EXPECT_EQ(_copy.changes(), 3);
    EXPECT_EQ(_copy.lastKey(), 3);
    EXPECT_FALSE(_copy.error());
    EXPECT_EQ(copied(), std::string(test::three_products) + "\n9|rum|8.0");
    EXPECT_EQ(rows("select * from product"), test::three_products);
    run("delete from product");
    EXPECT_TRUE(_copy.copyRecords(_fast));
    EXPECT_EQ(_copy.changes(), 0);
}

TEST_F(PreparedTableCopyTest, CellsAsTheyAre)
{
    const std::string columns = " (id integer primary key, name, price)";
    run("drop table product; drop table copy;"
        "create table product"
        + columns + "; create table copy" + columns);
    run("insert into product values (1, x'00FF', 'no number'), (2, 7, 9e999), (3, null, x''),"
        " (4, 'a' || char(0) || 'b', 0.1 + 0.2), (5, 2.0, -9223372036854775807 - 1),"
        " (6, '', 4.9e-324), (7, zeroblob(10000), '1); drop table product; --')");
    EXPECT_TRUE(_copy.copyRecords(_fast));
    EXPECT_EQ(_copy.changes(), 7);
    EXPECT_EQ(typedRows("select * from copy"), typedRows("select * from product"));
}

TEST_F(PreparedTableCopyTest, ColumnByColumnOfItsOwnNames)
{
    run("drop table product; create table product"
        " (price real, stock integer, name text, id integer primary key);"
        "insert into product values (2.5, 10, 'tea', 1), (8, 20, 'rum', 2)");
    EXPECT_TRUE(_copy.copyRecords(_fast));
    EXPECT_EQ(copied(), "1|tea|2.5\n2|rum|8.0");
}

TEST_F(PreparedTableCopyTest, SourceOfOtherColumnsIsSqlitesToRefuse)
{
    run("drop table product; create table product (id integer primary key, name text);"
        "insert into product values (1, 'tea')");
    EXPECT_FALSE(_copy.copyRecords(_fast));
    expectFailure(_copy, "copyRecords", "1=SQLITE_ERROR: no such column: price");
    run("drop table product");
    EXPECT_FALSE(_copy.copyRecords(_fast));
    expectFailure(_copy, "copyRecords", "1=SQLITE_ERROR: no such table: product");
    EXPECT_EQ(copied(), "");
}

TEST_F(PreparedTableCopyTest, AllOrNone)
{
    run("insert into copy values (3, 'old', 0)");
    EXPECT_FALSE(_copy.copyRecords(_fast));
    expectFailure(_copy, "copyRecords",
                  "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: copy.id");
    EXPECT_EQ(copied(), "3|old|0.0");
    EXPECT_TRUE(sqlite3_get_autocommit(_database.getHandle()));
    EXPECT_FALSE(_fast.error()) << "the source has not failed";
    run("begin; insert into copy values (4, 'new', 0)");
    EXPECT_FALSE(_copy.copyRecords(_fast));
    expectFailure(_copy, "copyRecords",
                  "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: copy.id");
    EXPECT_FALSE(sqlite3_get_autocommit(_database.getHandle()));
    run("commit");
    EXPECT_EQ(copied(), "3|old|0.0\n4|new|0.0");
    run("delete from copy");
    EXPECT_TRUE(_copy.copyRecords(_fast));
    EXPECT_EQ(copied(), test::three_products);
}

TEST_F(PreparedTableCopyTest, SourceThatFailsOnTheWayIsTheReason)
{
    run("alter table product rename to base; create view product as"
        " select id, name, abs((id = 2) * -9223372036854775807 - (id = 2)) as price from base");
    EXPECT_FALSE(_copy.copyRecords(_fast));
    expectFailure(_copy, "copyRecords", "1=SQLITE_ERROR: integer overflow");
    EXPECT_EQ(copied(), "");
    EXPECT_TRUE(sqlite3_get_autocommit(_database.getHandle()));
}

TEST_F(PreparedTableCopyTest, TableCannotBeCopiedIntoItself)
{
    const std::string itself = "21=SQLITE_MISUSE: a table cannot be copied into itself";
    EXPECT_FALSE(_fast.copyRecords(_fast));
    expectFailure(_fast, "copyRecords", itself);
    PreparedTable same(_database, _table);
    EXPECT_FALSE(_fast.copyRecords(same));
    expectFailure(_fast, "copyRecords", itself);
    const sql::Table capital(nullptr, "PRODUCT", sql::FieldSet(test::product_columns));
    PreparedTable inOtherLetters(_database, capital);
    EXPECT_FALSE(_fast.copyRecords(inOtherLetters));
    expectFailure(_fast, "copyRecords", itself);
    EXPECT_EQ(rows("select * from product"), test::three_products);
}

TEST_F(PreparedTableCopyTest, SameNameInAnotherDatabaseInMemoryIsAnother)
{
    sql::Database other;
    ASSERT_TRUE(other.open(":memory:", sql::Database::access_create, false, 0));
    test::run(other.getHandle(), test::product_definition);
    PreparedTable target(other, _table);
    EXPECT_TRUE(target.copyRecords(_fast));
    EXPECT_EQ(test::rows(other.getHandle(), "select * from product"), test::three_products);
    target.release();
}

// Two files, and connections to them.
class CopyBetweenFilesTest : public PreparedTableCopyTest {
protected:
    CopyBetweenFilesTest()
    {
        _copy.release();
        _fast.release();
        EXPECT_TRUE(_database.open(_file, sql::Database::access_create, false, 0));
        run(test::product_definition);
        fill();
        run("create table copy (id integer primary key, name text, price real)");
    }

    // A second connection, to the file of the first one or another.
    void openOther(const std::string& file)
    {
        ASSERT_TRUE(_other.open(file, sql::Database::access_create, false, 0));
    }

    void TearDown() override
    {
        _otherProduct.release();
        _otherCopy.release();
        PreparedTableCopyTest::TearDown();
    }

    void expectUnlocked()
    {
        test::Connection third(_file);
        third.run("begin exclusive; commit");
    }

    const std::string _itself = "21=SQLITE_MISUSE: a table cannot be copied into itself";
    const std::string _waiting =
        "21=SQLITE_MISUSE: the source's connection would keep this one from writing";
    test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("shop.db");
    sql::Database _other;
    PreparedTable _otherProduct{_other, _table};
    PreparedTable _otherCopy{_other, _copyTable};
};

TEST_F(CopyBetweenFilesTest, FromOneFileToAnother)
{
    openOther(_directory.file("other.db"));
    test::run(_other.getHandle(), test::product_definition);
    EXPECT_TRUE(_otherProduct.copyRecords(_fast));
    EXPECT_EQ(_otherProduct.changes(), 3);
    EXPECT_EQ(_otherProduct.lastKey(), 3);
    EXPECT_EQ(test::Connection(_directory.file("other.db")).rows("select * from product"),
              test::three_products);
    expectUnlocked();
}

TEST_F(CopyBetweenFilesTest, AllOrNone)
{
    openOther(_directory.file("other.db"));
    test::run(_other.getHandle(), test::product_definition);
    test::run(_other.getHandle(), "insert into product values (3, 'old', 0)");
    EXPECT_FALSE(_otherProduct.copyRecords(_fast));
    expectFailure(_otherProduct, "copyRecords",
                  "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: product.id");
    EXPECT_EQ(test::rows(_other.getHandle(), "select * from product"), "3|old|0.0");
    EXPECT_TRUE(sqlite3_get_autocommit(_other.getHandle()));
    expectUnlocked();
}

TEST_F(CopyBetweenFilesTest, SourceThatFailsOnTheWayIsTheReason)
{
    run("alter table product rename to base; create view product as"
        " select id, name, abs((id = 2) * -9223372036854775807 - (id = 2)) as price from base");
    openOther(_directory.file("other.db"));
    test::run(_other.getHandle(), test::product_definition);
    EXPECT_FALSE(_otherProduct.copyRecords(_fast));
    expectFailure(_otherProduct, "copyRecords", "1=SQLITE_ERROR: integer overflow");
    EXPECT_EQ(test::rows(_other.getHandle(), "select * from product"), "");
}

TEST_F(CopyBetweenFilesTest, TemporaryTableOfTheSameNameIsAnother)
{
    openOther(_file);
    test::run(_other.getHandle(),
              "create temp table product (id integer primary key, name text, price real)");
    EXPECT_TRUE(_otherProduct.copyRecords(_fast));
    EXPECT_EQ(test::rows(_other.getHandle(), "select * from temp.product"), test::three_products);
    EXPECT_EQ(rows("select * from product"), test::three_products);
}

TEST_F(CopyBetweenFilesTest, SameTableOfAnotherConnectionIsItself)
{
    const std::string link = _directory.file("link.db");
    ASSERT_EQ(::symlink(_file.c_str(), link.c_str()), 0);
    for (const std::string mode : {"delete", "wal"}) {
        run("pragma journal_mode = " + mode);
        openOther(_file);
        EXPECT_FALSE(_otherProduct.copyRecords(_fast));
        expectFailure(_otherProduct, "copyRecords", _itself);
        _otherProduct.release();
        openOther(link);
        EXPECT_FALSE(_otherProduct.copyRecords(_fast));
        expectFailure(_otherProduct, "copyRecords", _itself);
        EXPECT_EQ(rows("select * from product"), test::three_products);
        _otherProduct.release();
        _other.close();
    }
}

TEST_F(CopyBetweenFilesTest, ReaderThatItsWriterWouldWaitForIsRefused)
{
    openOther(_file);
    EXPECT_FALSE(_otherCopy.copyRecords(_fast));
    expectFailure(_otherCopy, "copyRecords", _waiting);
    EXPECT_EQ(copied(), "");
    expectUnlocked();
    EXPECT_TRUE(_copy.copyRecords(_fast)) << "one connection waits for nobody";
    EXPECT_EQ(copied(), test::three_products);
}

TEST_F(CopyBetweenFilesTest, ViewIsOfItsFile)
{
    run("create view v as select * from product");
    const sql::Table view(nullptr, "v", sql::FieldSet(test::product_columns));
    PreparedTable source(_database, view);
    openOther(_file);
    EXPECT_FALSE(_otherCopy.copyRecords(source));
    expectFailure(_otherCopy, "copyRecords", _waiting);
    EXPECT_TRUE(_copy.copyRecords(source));
    EXPECT_EQ(copied(), test::three_products);
}

TEST_F(CopyBetweenFilesTest, TableOfAnAttachedFileIsOfThatFile)
{
    openOther(":memory:");
    test::run(_other.getHandle(), "attach '" + _file + "' as shop");
    EXPECT_FALSE(_otherProduct.copyRecords(_fast));
    expectFailure(_otherProduct, "copyRecords", _itself);
    EXPECT_FALSE(_otherCopy.copyRecords(_fast));
    expectFailure(_otherCopy, "copyRecords", _waiting);
    EXPECT_FALSE(_copy.copyRecords(_otherProduct));
    expectFailure(_copy, "copyRecords", _waiting);
    EXPECT_EQ(rows("select * from product"), test::three_products);
    EXPECT_EQ(copied(), "");
}

TEST_F(CopyBetweenFilesTest, TableIsOfTheFirstFileThatHasIt)
{
    openOther(_directory.file("other.db"));
    test::run(_other.getHandle(), test::product_definition);
    test::run(_other.getHandle(), "attach '" + _file + "' as shop");
    EXPECT_TRUE(_otherProduct.copyRecords(_fast));
    EXPECT_EQ(test::Connection(_directory.file("other.db")).rows("select * from product"),
              test::three_products);
    EXPECT_EQ(rows("select * from product"), test::three_products);
}

TEST_F(CopyBetweenFilesTest, WriteAheadLogLetsThemBothGoOn)
{
    run("pragma journal_mode = wal");
    openOther(_file);
    EXPECT_TRUE(_otherCopy.copyRecords(_fast));
    EXPECT_EQ(copied(), test::three_products);
}

TEST_F(CopyBetweenFilesTest, SourceIsReadAsItWasAtTheBeginning)
{
    run("pragma journal_mode = wal");
    openOther(_directory.file("other.db"));
    test::run(_other.getHandle(), test::product_definition);
    test::Connection writer(_file);
    const auto write = [](sqlite3_context* context, int, sqlite3_value**) {
        test::run(static_cast<sqlite3*>(sqlite3_user_data(context)),
                  "insert into product (name) values ('later')");
    };
    sqlite3_create_function(_other.getHandle(), "write", 0, SQLITE_UTF8, writer.get(), write,
                            nullptr, nullptr);
    test::run(_other.getHandle(),
              "create trigger w after insert on product begin select write(); end");
    EXPECT_TRUE(_otherProduct.copyRecords(_fast));
    EXPECT_EQ(test::rows(_other.getHandle(), "select * from product"), test::three_products);
    EXPECT_EQ(rows("select count(*) from product"), "6");
}

TEST_F(CopyBetweenFilesTest, WriterInTheWayIsTheReason)
{
    openOther(_directory.file("other.db"));
    test::run(_other.getHandle(), test::product_definition);
    test::Connection third(_directory.file("other.db"));
    third.run("begin immediate");
    EXPECT_FALSE(_otherProduct.copyRecords(_fast));
    expectFailure(_otherProduct, "begin", "5=SQLITE_BUSY: database is locked");
    EXPECT_TRUE(_otherProduct.error().isBusy());
    third.run("rollback");
    test::Connection fourth(_file);
    fourth.run("begin exclusive");
    EXPECT_FALSE(_otherProduct.copyRecords(_fast));
    expectFailure(_otherProduct, "copyRecords", "5=SQLITE_BUSY: database is locked");
    fourth.run("rollback");
    EXPECT_TRUE(_otherProduct.copyRecords(_fast));
    EXPECT_EQ(_otherProduct.changes(), 3);
}

TEST_F(CopyBetweenFilesTest, EitherDatabaseHasToBeOpen)
{
    const std::string not_open = "21=SQLITE_MISUSE: the database is not open";
    EXPECT_FALSE(_otherCopy.copyRecords(_fast));
    expectFailure(_otherCopy, "copyRecords", not_open);
    EXPECT_FALSE(_copy.copyRecords(_otherProduct));
    expectFailure(_copy, "copyRecords", not_open);
    EXPECT_EQ(copied(), "");
    expectUnlocked();
}

} // namespace
