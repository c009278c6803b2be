// Operations of a TypedTable while memory is short or the files fail at any point of them: what is said to
// be stored is there, all of it, and nothing else is.

#include "SqlTypedTable.h"

#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "Sqlite.h"
#include "SqliteMemory.h"

#include <gmock/gmock.h>

#include <new>
#include <string>
#include <vector>

#ifdef TEST_HEAP
#include "Heap.h"
#endif

namespace {

const std::string long_name = "a name that needs memory of its own";

class Product {
public:
    sql::integer id = 0;
    double price = 0;

    std::string name() const
    {
        return _name;
    }
    void setName(const std::string& name)
    {
        _name = name;
    }

private:
    std::string _name = long_name;
};

const auto product = sql::mapping<Product>(
    "product", sql::autoKey<&Product::id>("id"),
    sql::column<&Product::name, &Product::setName>("name", sql::indexed),
    sql::column<&Product::price>("price", sql::defaultsTo("0.5")));

using Products = sql::TypedTable<Product, sql::integer>;

// A file with a table of fifty rows, which lacks a column and an index.
struct Place {
    Place()
    {
        EXPECT_TRUE(database.open(file, sql::Database::access_create, false, 0));
        sqlite3* const db = database.getHandle();
        test::run(db, "pragma encoding = 'UTF-16'"); // reading takes memory
        test::run(db, "create table product (id integer primary key, name text);"
                      "insert into product with recursive n(i) as (select 1 union all select i + 1"
                      " from n limit 50) select i + 1000, '"
                          + long_name + "' from n");
    }

    // The rows, and how the tables and indexes are declared.
    std::string rows() const
    {
        test::Connection connection(file);
        return connection.rows("select count(*), sum(id), count(distinct name) from product") + " "
               + connection.rows("select count(*), sum(sql like '%price%') from sqlite_master");
    }

    const test::TemporaryDirectory directory;
    const std::string file = directory.file("product.db");
    sql::Database database;
    Products products{database, product};
};

struct Operation : test::Case {
    bool (*run)(Place& place, sql::Error& error);
    bool isPrepared;   // whether the file has its column and index before
    std::string after; // what it leaves, if it succeeds
};

bool keep(Place& place, bool isDone, sql::Error& error)
{
    error = place.products.error();
    EXPECT_EQ(isDone, !error);
    return isDone;
}

bool adds(Place& place, sql::Error& error)
{
    Product made;
    const bool isDone = keep(place, place.products.add(made), error);
    EXPECT_EQ(made.id, isDone ? 1051 : 0);
    return isDone;
}

bool addsMany(Place& place, sql::Error& error)
{
    std::vector<Product> many(300);
    return keep(place, place.products.add(many.begin(), many.end()), error);
}

bool upserts(Place& place, sql::Error& error)
{
    Product made;
    made.id = 7;
    return keep(place, place.products.addOrUpdate(made), error);
}

bool finds(Place& place, sql::Error& error)
{
    const sql::Result<Product> found = place.products.find(1007);
    EXPECT_TRUE(found || found.failed());
    if (found) {
        EXPECT_EQ(found->name(), long_name);
    }
    return keep(place, static_cast<bool>(found), error);
}

bool loads(Place& place, sql::Error& error)
{
    std::vector<Product> all;
    const bool isDone = place.products.load(all, "where name = ? order by id desc", long_name);
    EXPECT_EQ(all.size(), isDone ? 50u : 0u);
    return keep(place, isDone, error);
}

bool counts(Place& place, sql::Error& error)
{
    const sql::Result<sql::integer> count = place.products.count("where name = ?", long_name);
    EXPECT_EQ(count.valueOr(50), 50);
    return keep(place, static_cast<bool>(count), error);
}

bool readsValues(Place& place, sql::Error& error)
{
    const auto names = place.products.values<std::string>("name", "order by id");
    EXPECT_TRUE(!names || names->size() == 50u);
    return keep(place, static_cast<bool>(names), error);
}

bool selects(Place& place, sql::Error& error)
{
    auto rows = place.products.select("where name = ? order by id", long_name);
    Product row;
    int count = 0;
    while (rows.next(row))
        ++count;
    EXPECT_TRUE(count == 50 || !rows.finished());
    error = rows.error();
    EXPECT_EQ(rows.finished(), !error);
    return rows.finished();
}

bool queries(Place& place, sql::Error& error)
{
    auto rows = sql::query<Product>(
        place.database, product, "select price, name, id from product where name = ?", long_name);
    Product row;
    int count = 0;
    while (rows.next(row))
        ++count;
    EXPECT_TRUE(count == 50 || !rows.finished());
    error = rows.error();
    return rows.finished();
}

bool syncs(Place& place, sql::Error& error)
{
    const auto found = place.products.sync();
    EXPECT_TRUE(!found || found->empty());
    error = found.error();
    return static_cast<bool>(found);
}

const auto other = sql::mapping<Product>("other", sql::key<&Product::id>("id"),
                                         sql::column<&Product::price>("price", sql::indexed));

bool creates(Place& place, sql::Error& error)
{
    sql::TypedTable others(place.database, other);
    const bool isDone = others.create();
    error = others.error();
    return isDone;
}

bool checks(Place& place, sql::Error& error)
{
    const auto found = place.products.checkDeclaration();
    EXPECT_TRUE(!found || found->empty());
    error = found.error();
    return static_cast<bool>(found);
}

const Operation operations[] = {
    {"Adds", adds, true, "51|52326|1 2|1"},
    {"AddsMany", addsMany, true, "350|411425|1 2|1"},
    {"Upserts", upserts, true, "51|51282|1 2|1"},
    {"Finds", finds, true, ""},
    {"Loads", loads, true, ""},
    {"Counts", counts, true, ""},
    {"ReadsValues", readsValues, true, ""},
    {"Selects", selects, true, ""},
    {"Queries", queries, true, ""},
    {"Checks", checks, true, ""},
    {"Creates", creates, true, "50|51275|1 4|3"},
    {"Syncs", syncs, false, "50|51275|1 2|1"},
};

bool isShort(const sql::Error& error)
{
    return error.isNoMemory();
}

bool isOfFiles(const sql::Error& error)
{
    return error.isIo() || error.isFull();
}

class TypedTableFaultTest : public testing::TestWithParam<Operation> {
protected:
    // Before the operation, whatever its statements are.
    void prepare(Place& place)
    {
        if (GetParam().isPrepared)
            test::run(place.database.getHandle(),
                      "alter table product add column price real default 0.5;"
                      "create index product_name on product (name)");
        _before = place.rows();
    }

    void expectAllOrNone(Place& place, bool succeeded, bool threw, const sql::Error& error,
                         bool (*isIt)(const sql::Error&) = isShort)
    {
        EXPECT_TRUE(sqlite3_get_autocommit(place.database.getHandle()));
        const bool hasChanged = succeeded && !GetParam().after.empty();
        EXPECT_EQ(place.rows(), hasChanged ? GetParam().after : _before);
        if (!succeeded && !threw) {
            EXPECT_TRUE(isIt(error)) << error.name() << ": " << error.text();
            EXPECT_FALSE(_diagnostics.errors().empty());
        }
        if (succeeded) {
            EXPECT_TRUE(_diagnostics.errors().empty());
        }
        _diagnostics.clear();
    }

    // SQLite has to compile a rollback anew once tables have changed. Where there is no memory for that, the
    // transaction stays open, and the log says so.
    void endWhatCouldNotBeUndone(Place& place)
    {
        sqlite3* const db = place.database.getHandle();
        if (sqlite3_get_autocommit(db) != 0)
            return;
        EXPECT_THAT(_diagnostics.errors(), testing::Contains("SQL statement 'rollback' failed: "));
        test::run(db, "rollback");
    }

    // Nothing is short any more, and all goes well with the same objects.
    void expectUsable(Place& place)
    {
        test::run(place.database.getHandle(), "delete from product where id < 1000 or id > 1050");
        sql::Error error;
        EXPECT_TRUE(GetParam().run(place, error)) << error.text();
        EXPECT_TRUE(_diagnostics.events().empty());
        place.products.release();
        place.database.close();
        EXPECT_TRUE(_diagnostics.events().empty());
        _diagnostics.clear();
    }

    test::Diagnostics _diagnostics;
    std::string _before;
};

TEST_P(TypedTableFaultTest, MemoryOfSqlites)
{
    int refused = 0;
    for (const bool lasts : {false, true}) {
        bool struck = true;
        for (int nth = 1; struck; nth += test::stride(3)) {
            SCOPED_TRACE(std::to_string(nth) + (lasts ? " and those behind it" : ""));
            test::SqliteMemory memory;
            Place place;
            prepare(place);
            sql::Error error;
            memory.refuse(nth, lasts);
            memory.watch(true);
            const bool succeeded = GetParam().run(place, error);
            memory.watch(false);
            struck = memory.hasRefused();
            refused += struck ? 1 : 0;
            EXPECT_TRUE(succeeded || struck);
            if (lasts && !succeeded)
                endWhatCouldNotBeUndone(place);
            expectAllOrNone(place, succeeded, false, error);
            expectUsable(place);
        }
    }
    EXPECT_GT(refused, 0);
}

#ifdef TEST_HEAP
TEST_P(TypedTableFaultTest, MemoryOfTheLibrary)
{
    int refused = 0;
    for (const bool lasts : {false, true}) {
        bool struck = true;
        for (int nth = 1; struck; nth += test::stride(3)) {
            SCOPED_TRACE(std::to_string(nth) + (lasts ? " and those behind it" : ""));
            Place place;
            prepare(place);
            sql::Error error;
            bool succeeded = false;
            bool threw = false;
            {
                test::MemoryShortage shortage(nth, lasts);
                try {
                    succeeded = GetParam().run(place, error);
                } catch (const std::bad_alloc&) {
                    threw = true;
                }
                struck = shortage.hasStruck();
            }
            refused += struck ? 1 : 0;
            EXPECT_EQ(threw, struck);
            expectAllOrNone(place, succeeded, threw, error);
            expectUsable(place);
        }
    }
    EXPECT_GT(refused, 0);
}
#endif

struct Fault {
    test::FileCall call;
    int rc;
};

TEST_P(TypedTableFaultTest, Files)
{
    int refused = 0;
    for (const Fault& fault : {Fault{test::FileCall::write, SQLITE_FULL},
                               Fault{test::FileCall::write, SQLITE_IOERR_WRITE},
                               Fault{test::FileCall::sync, SQLITE_IOERR_FSYNC},
                               Fault{test::FileCall::read, SQLITE_IOERR_READ}}) {
        for (const bool lasts : {false, true}) {
            bool struck = true;
            for (int nth = 1; struck; nth += test::stride(2)) {
                SCOPED_TRACE(std::to_string(nth) + (lasts ? " and those behind it" : ""));
                test::FaultVfs vfs;
                Place place;
                prepare(place);
                test::run(place.database.getHandle(), "pragma cache_size = 1");
                sql::Error error;
                int left = nth;
                vfs.before = [&](const test::FileAccess& access) {
                    if (access.call != fault.call)
                        return SQLITE_OK;
                    --left;
                    return left == 0 || (left < 0 && lasts) ? fault.rc : SQLITE_OK;
                };
                const bool succeeded = GetParam().run(place, error);
                vfs.before = nullptr;
                struck = left <= 0;
                refused += struck ? 1 : 0;
                expectAllOrNone(place, succeeded, false, error, isOfFiles);
                expectUsable(place);
            }
        }
    }
    EXPECT_GT(refused, 0);
}

INSTANTIATE_TEST_SUITE_P(Operations, TypedTableFaultTest, testing::ValuesIn(operations),
                         test::NameOfCase());

} // namespace
