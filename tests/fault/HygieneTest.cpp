#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Heap.h"
#include "Shop.h"
#include "SqlPreparedTable.h"
#include "SqlRecordSet.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <filesystem>
#include <iterator>
#include <ostream>
#include <string>
#include <utility>

namespace {

using sql::Database;
using sql::Table;
using test::good;

const std::string long_name(100, 'x');
const int warm_up = 100; // buffers and caches have their size then

int rounds()
{
    return 10000 / test::stride(1);
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

// A file with three rows, on which everything is done over and over.
struct Place {
    Place()
    {
        EXPECT_TRUE(shop.open() && shop.query("pragma synchronous = off")); // the disk is slow
        EXPECT_TRUE(shop.product.create());
        for (int id = 1; id <= 3; ++id)
            EXPECT_TRUE(shop.product.addRecord(good(id, "tea")));
    }

    test::Diagnostics diagnostics;
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    test::Shop shop{file};
};

struct Activity : test::Case {
    bool (*round)(Place& place);
    std::size_t errors; // lines that a round leaves
    std::size_t assertions;
};

bool opensAndCloses(Place& place)
{
    Database database;
    const bool first = database.open(place.file, Database::access_read_write, false, 100)
                       && sql::queryNumber(database.getHandle(), "select count(*) from product")
                              == 3;
    database.close();
    // Opened again while it is open, and closed by its end.
    return first && database.open(place.file, Database::access_read_only, false, 0)
           && database.open(place.file, Database::access_create, false, 0)
           && Table(database.getHandle(), "product", test::goods()).open();
}

bool failsToOpen(Place& place)
{
    Database database;
    const std::string missing = place.file + ".missing";
    return !database.open(missing, Database::access_read_only, false, 0)
           && !database.open(missing, Database::access_read_write, false, 0)
           && !database.open(place.directory.path(), Database::access_create, false, 0)
           && !database.open(place.file, static_cast<Database::AccessMode>(3), false, 0);
}

bool failsToQuery(Place& place)
{
    sql::RecordSet set(place.shop.handle(), test::goods());
    Table missing(place.shop.handle(), "missing", test::goods());
    return !set.query("select * from product where")
           && !set.query("insert into product (id) values (1)")
           && !set.query("select id, name, abs(-9223372036854775807 - (id > 1)) from product")
           && set.count() == 1 && !missing.open() && !missing.addRecord(good(4, long_name))
           && missing.getRecordByKeyId(sql::integer(1)) == nullptr;
}

bool failsToCount(Place& place)
{
    sqlite3* const db = place.shop.handle();
    return sql::queryNumber(db, "select nothing") == -1 && sql::queryNumber(db, "select 1, 2") == -1
           && sql::queryNumber(db, "select id from product where id > 3") == -1
           && sql::queryNumber(db, "select -id from product") == -1
           && !sql::runOneStepSqlStmt(db, "delete from missing")
           && !sql::runOneStepSqlStmt(db, "select id from product");
}

bool reads(Place& place)
{
    Table product(place.shop.handle(), "product", test::goods());
    return product.open() && product.recordCount() == 3 && product.open("id > 1", "name desc")
           && product.getRecordByKeyId(sql::integer(2)) != nullptr
           && product.getRecordByKeyId(std::string("3")) != nullptr
           && !product.hasRecordWithKeyId(sql::integer(4)) && product.totalRecordCount() == 3
           && place.shop.getUserVersion() == 0;
}

bool writes(Place& place)
{
    Table product(place.shop.handle(), "product", test::goods());
    const sql::Record row = good(4, long_name);
    return place.shop.transact("BEGIN") && product.addRecord(row)
           && product.updateRecord(good(4, "other"))
           && product.addOrUpdateRecord(sql::integer(4), row)
           && product.deleteRecord(sql::integer(4)) && place.shop.setUserVersion(0)
           && place.shop.transact("COMMIT");
}

bool usesTransactions(Place& place)
{
    test::Shop& shop = place.shop;
    return shop.transact("BEGIN") && shop.archive.backup(shop.product) && !shop.transact("BEGIN")
           && shop.archive.truncate() && shop.archive.copyRecords(shop.product)
           && shop.archive.remove() && shop.transact("COMMIT") && !shop.transact("COMMIT")
           && shop.transact("BEGIN") && shop.product.deleteRecords("") && shop.transact("ROLLBACK");
}

bool runsStatements(Place& place)
{
    Database& database = place.shop.database;
    sql::Statement add(database, "insert into product (id, name) values (?, ?)");
    sql::Statement all(database, "select id, name from product order by id");
    bool good = add.run(4, long_name) && add.bind(1, 5).bind(2, "rum").run();
    sql::integer id = 0;
    int count = 0;
    for (std::string name; all.next(id, name);)
        ++count;
    sql::Statement moved(std::move(add));
    const auto longest =
        sql::Statement(database, "select max(length(name)) from product").one<int>();
    good = good && all.finished() && count == 5 && longest && *longest == 100 && all.reset();
    return good && all.next() && all.column("id").asInteger() == 1
           && moved.expandedText().size() > moved.text().size()
           && sql::runScript(database,
                             "delete from product where id = 4; delete from product where id = 5");
}

bool failsToRunStatements(Place& place)
{
    Database& database = place.shop.database;
    sql::Statement add(database, "insert into product (id, name) values (?, ?)");
    sql::Statement wrong(database, "select nothing from product");
    sql::Statement all(database, "select id, name from product");
    int number = 0;
    return !add.run(1, long_name) && add.error().isConstraint() && !add.run(4) && !wrong.run()
           && !all.next(number, number) && all.column(0).isNull()
           && !sql::runScript(database, "select 1; select nothing");
}

bool usesPreparedTables(Place& place)
{
    sql::PreparedTable fast(place.shop.database, place.shop.product);
    const sql::Record more[] = {good(6, long_name), good(7, long_name)};
    bool done = fast.addRecord(good(4, long_name)) && fast.updateRecord(good(4, "other"))
                && fast.addOrUpdateRecord(good(5, long_name))
                && fast.addRecords(std::begin(more), std::end(more));
    sql::Record record(test::goods());
    for (int id = 1; id <= 7; ++id)
        done = done && fast.readRecord(id, record)
               && fast.hasRecordWithKeyId(id) == sql::Presence::present;
    int count = 0;
    for (const sql::Record& row : fast.select("where id > ?", 3))
        count += row.getValue(0)->asInteger() > 3 ? 1 : 0;
    for (int id = 4; id <= 7; ++id)
        done = done && fast.deleteRecord(id);
    return done && count == 4 && fast.checkDeclaration();
}

bool failsToUsePreparedTables(Place& place)
{
    sql::PreparedTable fast(place.shop.database, place.shop.product);
    const sql::Record again[] = {good(4, long_name), good(1, long_name)};
    sql::Record record(test::goods());
    sql::RecordCursor wrong = fast.select("where nothing = ?", long_name);
    return !fast.addRecord(again[1]) && !fast.addRecords(std::begin(again), std::end(again))
           && !fast.deleteRecord(long_name) && !fast.copyRecords(fast) && !wrong.next(record)
           && !wrong.finished() && place.shop.product.totalRecordCount() == 3;
}

bool usesScopes(Place& place)
{
    Database& database = place.shop.database;
    sql::Statement add(database, "insert into product (id, name) values (?, ?)");
    {
        const sql::Transaction left(database, sql::begin_exclusive);
        const sql::Savepoint inner(database);
        if (!add.run(4, long_name))
            return false;
    }
    const auto done = sql::inTransaction(database, [&] {
        sql::Savepoint undone(database);
        return add.run(4, long_name) && undone.rollback();
    });
    return done && place.shop.product.totalRecordCount() == 3;
}

bool losesTransactions(Place& place)
{
    Database& database = place.shop.database;
    sql::Transaction transaction(database, sql::begin_immediate);
    const sql::Savepoint savepoint(database);
    return !sql::runScript(database, "insert or rollback into product (id, name) values (1, '')")
           && !place.shop.product.addRecord(good(4, long_name)) && !transaction.commit()
           && !sql::Savepoint(database).isOpen() && !transaction.isOpen();
}

const Activity activities[] = {
    {"opens and closes", opensAndCloses, 0, 0},
    {"fails to open", failsToOpen, 4, 1},
    {"fails to query", failsToQuery, 12, 0},
    {"fails to count", failsToCount, 11, 0},
    {"reads", reads, 0, 0},
    {"writes", writes, 0, 0},
    {"uses transactions", usesTransactions, 4, 0},
    {"runs statements", runsStatements, 0, 0},
    {"fails to run statements", failsToRunStatements, 12, 0},
    {"uses prepared tables", usesPreparedTables, 0, 0},
    {"fails to use prepared tables", failsToUsePreparedTables, 10, 0},
    {"uses scopes", usesScopes, 0, 0},
    {"loses transactions", losesTransactions, 10, 0},
};

class HygieneTest : public testing::TestWithParam<Activity> {
protected:
    // The rounds that went as they should.
    int run(int times)
    {
        int good = 0;
        for (int i = 0; i < times; ++i) {
            const bool succeeded = GetParam().round(_place);
            if (succeeded && _place.diagnostics.lines().size() == GetParam().errors
                && _place.diagnostics.failedAssertions().size() == GetParam().assertions
                && sqlite3_next_stmt(_place.shop.handle(), nullptr) == nullptr)
                ++good;
            _place.diagnostics.clear();
        }
        return good;
    }

    Place _place;
};

TEST_P(HygieneTest, UsesNoMoreAfterManyRoundsThanAfterTheFirst)
{
    ASSERT_EQ(run(warm_up), warm_up);
    const Usage before = usage();
    ASSERT_EQ(run(rounds()), rounds());
    EXPECT_EQ(usage(), before);
}

TEST_P(HygieneTest, LeavesNothingBehindWhenTheConnectionIsClosed)
{
    ASSERT_EQ(run(1), 1);
    _place.shop.close();
    EXPECT_EQ(sqlite3_memory_used(), 0);
}

INSTANTIATE_TEST_SUITE_P(Activities, HygieneTest, testing::ValuesIn(activities));

} // namespace
