#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Heap.h"
#include "SqlDatabase.h"
#include "SqlRecord.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"

#include <gmock/gmock.h>
#include <malloc.h>
#include <sqlite3.h>

#include <filesystem>
#include <iterator>
#include <ostream>
#include <string>

namespace {

using sql::Database;
using sql::Record;
using sql::RecordSet;
using sql::Table;

const int warm_up = 100; // buffers and caches have their size then

int rounds()
{
    return test::briefRun() ? 1000 : 10000;
}

// What a process may run out of.
struct Usage {
    long descriptors;
    long blocks;      // of operator new
    long long sqlite; // bytes

    bool operator==(const Usage& other) const
    {
        return descriptors == other.descriptors && blocks == other.blocks && sqlite == other.sqlite;
    }
};

void PrintTo(const Usage& usage, std::ostream* out)
{
    *out << usage.descriptors << " descriptors, " << usage.blocks << " blocks, " << usage.sqlite
         << " bytes of SQLite";
}

Usage usage()
{
    const std::filesystem::directory_iterator open("/proc/self/fd");
    const long descriptors = std::distance(begin(open), end(open));
    return {descriptors, test::heapBlocksInUse(), sqlite3_memory_used()};
}

// Bytes of the C library's heap, those among them that it keeps ready after they were freed. Their
// number varies, and so does this.
long long heapInUse()
{
    return static_cast<long long>(mallinfo2().uordblks);
}

// A file with three rows, on which everything is done over and over.
class Shop {
public:
    Shop() : _file(_directory.file("shop.db")), _fields(test::product_columns), _row(_fields)
    {
        _row.setInteger("id", 4);
        _row.setString("name", std::string(100, 'x'));
        _row.setDouble("price", 2.5);
        EXPECT_TRUE(_database.open(_file, Database::access_create, false, 0));
        EXPECT_TRUE(RecordSet(handle()).query("pragma synchronous = off")); // the disk is slow
        Table product(handle(), "product", _fields);
        EXPECT_TRUE(product.create());
        for (int key = 1; key <= 3; ++key) {
            Record row(_row);
            row.setInteger("id", key);
            EXPECT_TRUE(product.addRecord(row));
        }
    }

    sqlite3* handle()
    {
        return _database.getHandle();
    }

    const test::TemporaryDirectory _directory;
    const std::string _file;
    const sql::FieldSet _fields;
    Record _row; // not in the file
    test::Diagnostics _diagnostics;
    Database _database;
};

struct Activity {
    const char* name;
    bool (*round)(Shop& shop);
    std::size_t errors; // lines that a round leaves
    std::size_t assertions;
};

void PrintTo(const Activity& activity, std::ostream* out)
{
    *out << activity.name;
}

bool opensAndCloses(Shop& shop)
{
    Database database;
    const bool first = database.open(shop._file, Database::access_read_write, false, 100)
                       && sql::queryNumber(database.getHandle(), "select count(*) from product")
                              == 3;
    database.close();
    // Opened again while it is open, and closed by its end.
    return first && database.open(shop._file, Database::access_read_only, false, 0)
           && database.open(shop._file, Database::access_create, false, 0)
           && Table(database.getHandle(), "product", shop._fields).open();
}

bool failsToOpen(Shop& shop)
{
    Database database;
    const std::string missing = shop._file + ".missing";
    return !database.open(missing, Database::access_read_only, false, 0)
           && !database.open(missing, Database::access_read_write, false, 0)
           && !database.open(shop._directory.path(), Database::access_create, false, 0)
           && !database.open(shop._file, static_cast<Database::AccessMode>(3), false, 0);
}

bool failsToQuery(Shop& shop)
{
    RecordSet set(shop.handle(), shop._fields);
    Table missing(shop.handle(), "missing", shop._fields);
    return !set.query("select * from product where")
           && !set.query("insert into product (id) values (1)")
           && !set.query("select id, name, abs(-9223372036854775807 - (id > 1)) from product")
           && set.count() == 1 && !missing.open() && !missing.addRecord(shop._row)
           && missing.getRecordByKeyId(sql::integer(1)) == nullptr;
}

bool failsToCount(Shop& shop)
{
    return sql::queryNumber(shop.handle(), "select nothing") == -1
           && sql::queryNumber(shop.handle(), "select 1, 2") == -1
           && sql::queryNumber(shop.handle(), "select id from product where id > 3") == -1
           && sql::queryNumber(shop.handle(), "select -id from product") == -1
           && !sql::runOneStepSqlStmt(shop.handle(), "delete from missing")
           && !sql::runOneStepSqlStmt(shop.handle(), "select id from product");
}

bool reads(Shop& shop)
{
    Table product(shop.handle(), "product", shop._fields);
    return product.open() && product.recordCount() == 3 && product.open("id > 1", "name desc")
           && product.getRecordByKeyId(sql::integer(2)) != nullptr
           && product.getRecordByKeyId(std::string("3")) != nullptr
           && !product.hasRecordWithKeyId(sql::integer(4)) && product.totalRecordCount() == 3
           && shop._database.getUserVersion() == 0;
}

bool writes(Shop& shop)
{
    Table product(shop.handle(), "product", shop._fields);
    Record changed(shop._row);
    changed.setString("name", "other");
    return shop._database.transactionBegin() && product.addRecord(shop._row)
           && product.updateRecord(changed) && product.addOrUpdateRecord(sql::integer(4), shop._row)
           && product.deleteRecord(sql::integer(4)) && shop._database.setUserVersion(0)
           && shop._database.transactionCommit();
}

bool usesTransactions(Shop& shop)
{
    Table product(shop.handle(), "product", shop._fields);
    Table copy(shop.handle(), "copy", shop._fields);
    Database& database = shop._database;
    return database.transactionBegin() && copy.backup(product) && !database.transactionBegin()
           && copy.truncate() && copy.copyRecords(product) && copy.remove()
           && database.transactionCommit() && !database.transactionCommit()
           && database.transactionBegin() && product.deleteRecords("")
           && database.transactionRollback();
}

const Activity activities[] = {
    {"opens and closes", opensAndCloses, 0, 0},
    {"fails to open", failsToOpen, 4, 1},
    {"fails to query", failsToQuery, 12, 0},
    {"fails to count", failsToCount, 11, 0},
    {"reads", reads, 0, 0},
    {"writes", writes, 0, 0},
    {"uses transactions", usesTransactions, 4, 0},
};

class HygieneTest : public testing::TestWithParam<Activity> {
protected:
    // The rounds that went as they should.
    int run(int times)
    {
        int good = 0;
        for (int i = 0; i < times; ++i) {
            const bool succeeded = GetParam().round(_shop);
            if (succeeded && _shop._diagnostics.lines().size() == GetParam().errors
                && _shop._diagnostics.failedAssertions().size() == GetParam().assertions
                && sqlite3_next_stmt(_shop.handle(), nullptr) == nullptr)
                ++good;
            _shop._diagnostics.clear();
        }
        return good;
    }

    Shop _shop;
};

TEST_P(HygieneTest, UsesNoMoreAfterManyRoundsThanAfterTheFirst)
{
    ASSERT_EQ(run(warm_up), warm_up);
    const Usage before = usage();
    const long long heapBefore = heapInUse();
    ASSERT_EQ(run(rounds()), rounds());
    EXPECT_EQ(usage(), before);
    EXPECT_LT(heapInUse() - heapBefore, 12 * rounds()); // no block is as small as that
}

TEST_P(HygieneTest, LeavesNothingBehindWhenTheConnectionIsClosed)
{
    ASSERT_EQ(run(1), 1);
    _shop._database.close();
    EXPECT_EQ(sqlite3_memory_used(), 0);
}

INSTANTIATE_TEST_SUITE_P(Activities, HygieneTest, testing::ValuesIn(activities));

} // namespace
