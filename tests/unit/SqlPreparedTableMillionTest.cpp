// What takes as much memory for a million rows as for a few.

#include "SqlPreparedTable.h"

#include "Environment.h"
#include "Heap.h"
#include "PreparedTableBulkTest.h"

#include <algorithm>
#include <string>

namespace {

using sql::integer;
using sql::Record;

// In a file, of which SQLite keeps fifty pages at a time.
class MillionTest : public PreparedTableBulkTest {
protected:
    MillionTest()
    {
        EXPECT_TRUE(
            _database.open(_directory.file("shop.db"), sql::Database::access_create, false, 0));
        run(_setup);
    }

    // The records that are added, by plain SQL.
    void fillAll()
    {
        run("insert into product with recursive n(i) as"
            " (select 1 union all select i + 1 from n limit "
            + std::to_string(_count)
            + ") select i, 'product of the number ' || (1000000 + i), i / 2.0 from n");
    }

    // What SQLite holds is measured from here on.
    void startMeasuring()
    {
        sqlite3_memory_highwater(1);
        _before = sqlite3_memory_used();
    }
    sqlite3_int64 mostOfSqlite() const
    {
        return sqlite3_memory_highwater(0) - _before;
    }

    const int _count = test::briefRun() ? 100000 : 1000000;
    const std::string _setup = "pragma cache_size = 50; pragma synchronous = off;"
                               + std::string(test::product_definition);
    const sqlite3_int64 _cache = 50 * 5000;
    test::TemporaryDirectory _directory;

private:
    sqlite3_int64 _before = 0;
};

TEST_F(MillionTest, RecordsAreAddedInTheMemoryOfAFew)
{
    long blocks = 0;
    long bytes = 0;
    long most = 0;
    EXPECT_TRUE(_fast.addRecords(Made(_table, 1), Made(_table, _count + 1), [&](integer added) {
        if (added < 10000)
            return true;
        if (blocks == 0) {
            blocks = test::heapBlocksInUse();
            bytes = test::heapBytesInUse();
            startMeasuring();
        }
        most = std::max(most, test::heapBytesInUse());
        return true;
    }));
    EXPECT_EQ(most, bytes);
    EXPECT_LE(test::heapBlocksInUse(), blocks);
    EXPECT_LT(mostOfSqlite(), _cache);
    expectAdded(_count);
}

TEST_F(MillionTest, OneThatFailsIsNamedAndNothingIsKept)
{
    const integer number = test::briefRun() ? 77777 : 777777;
    EXPECT_FALSE(_fast.addRecords(Made(_table, 1, number), Made(_table, _count + 1)));
    expectFailure(_fast, "addRecords",
                  "1555=SQLITE_CONSTRAINT_PRIMARYKEY: record " + std::to_string(number) + ": "
                      + _taken);
    expectStored(0);
}

TEST_F(MillionTest, StoppedInTheMiddleNothingIsKept)
{
    const integer half = _count / 2;
    EXPECT_FALSE(_fast.addRecords(Made(_table, 1), Made(_table, _count + 1),
                                  [&](integer added) { return added < half; }));
    expectFailure(_fast, "addRecords", _stopped);
    expectStored(0);
}

TEST_F(MillionTest, RowsAreCopiedInTheMemoryOfOne)
{
    fillAll();
    const std::string file = _directory.file("copy.db");
    sql::Database other;
    ASSERT_TRUE(other.open(file, sql::Database::access_create, false, 0));
    test::run(other.getHandle(), _setup);
    sql::PreparedTable copy(other, _table);
    startMeasuring();
    {
        const test::MemoryShortage counted(Limits<int>::max(), false);
        EXPECT_TRUE(copy.copyRecords(_fast));
        EXPECT_LT(counted.allocations(), 1000) << "none for a row";
    }
    EXPECT_LT(mostOfSqlite(), 2 * _cache);
    EXPECT_EQ(copy.changes(), _count);
    copy.release();
    other.close();
    _fast.release();
    ASSERT_TRUE(_database.open(file, sql::Database::access_read_only, false, 0));
    expectStored(_count);
}

TEST_F(MillionTest, RowsAreReadInTheMemoryOfOne)
{
    fillAll();
    sql::RecordCursor rows = _fast.select();
    Record record(*_table.fields());
    int read = 0;
    integer sum = 0;
    for (; read < 1000 && rows.next(record); ++read)
        sum += record.getValue(0)->asInteger();
    startMeasuring();
    {
        const test::MemoryShortage counted(Limits<int>::max(), false);
        for (; rows.next(record); ++read)
            sum += record.getValue(0)->asInteger();
        EXPECT_EQ(counted.allocations(), 0);
    }
    EXPECT_LT(mostOfSqlite(), _cache);
    EXPECT_TRUE(rows.finished());
    EXPECT_EQ(read, _count);
    EXPECT_EQ(sum, integer(_count) * (_count + 1) / 2);
    EXPECT_EQ(record.toString(), std::to_string(_count) + "|product of the number "
                                     + std::to_string(1000000 + _count) + "|"
                                     + std::to_string(_count / 2) + ".0");
}

TEST_F(MillionTest, TextsThatAreMadeForCellsAreLetGo)
{
    const sql::FieldSet times({sql::Field("id", sql::type_int, sql::flag_none),
                               sql::Field("name", sql::type_time, sql::flag_none),
                               sql::Field("price", sql::type_float, sql::flag_none)});
    std::vector<Record> records(3200, Record(times));
    long blocks = 0;
    for (int i = 0; i < 3200; ++i) {
        records[i].setInteger(0, i);
        records[i].setTime(1, sql::Time(86400));
        EXPECT_TRUE(_fast.addOrUpdateRecord(records[i]));
        if (i == 100)
            blocks = test::heapBlocksInUse();
    }
    EXPECT_EQ(test::heapBlocksInUse(), blocks);
    run("delete from product");
    EXPECT_TRUE(_fast.addRecords(records.begin(), records.end(), [&](integer added) {
        if (added == 320)
            blocks = test::heapBlocksInUse();
        EXPECT_LE(test::heapBlocksInUse(), added < 320 ? Limits<long>::max() : blocks);
        return true;
    }));

    run("create table shelf (name text primary key)");
    Declared shelf(_database, {sql::Field("name", sql::type_text, sql::flag_primary_key)});
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(shelf.fast.hasRecordWithKeyId(1000000), sql::Presence::absent);
        if (i == 100)
            blocks = test::heapBlocksInUse();
    }
    EXPECT_EQ(test::heapBlocksInUse(), blocks);
}

} // namespace
