// Operations of a PreparedTable that take more than one statement, or read, while memory is short or the
// files fail at any point of them: what is said to be stored is there, all of it, and nothing else is.

#include "SqlPreparedTable.h"

#include "Cases.h"
#include "Columns.h"
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

using sql::Database;
using sql::PreparedTable;
using sql::Record;
using sql::Table;

const std::string long_name = "a name that needs memory of its own";

// The files that everything is done on: a table with a few rows, and one of as many as are copied.
struct Place {
    Place()
    {
        EXPECT_TRUE(target.open(file, Database::access_create, false, 0));
        EXPECT_TRUE(source.open(directory.file("source.db"), Database::access_create, false, 0));
        EXPECT_TRUE(again.open(file, Database::access_create, false, 0));
        for (sqlite3* const db : {target.getHandle(), source.getHandle()}) {
            test::run(db, "pragma encoding = 'UTF-16'"); // reading takes memory
            test::run(db, "create table product (id integer primary key, name text, price real)");
        }
        test::run(target.getHandle(), "insert into product values (1000, 'old', 0)");
        test::run(source.getHandle(),
                  "insert into product with recursive n(i) as (select 1 union all select i + 1"
                  " from n limit 50) select i, '"
                      + long_name + "', 0.5 from n");
    }

    std::string rows() const
    {
        return test::Connection(file).rows(
            "select count(*), sum(id), count(distinct name) from product");
    }

    const test::TemporaryDirectory directory;
    const std::string file = directory.file("target.db");
    Database target;
    Database source;
    Database again; // the target's file
    const Table table{nullptr, "product", sql::FieldSet(test::product_columns)};
    PreparedTable fast{target, table};
    PreparedTable from{source, table};
    PreparedTable same{again, table};
};

std::vector<Record> records(const Place& place, int count)
{
    std::vector<Record> all(count, Record(*place.table.fields()));
    for (int i = 0; i < count; ++i) {
        all[i].setInteger(0, i + 1);
        all[i].setString(1, long_name);
    }
    return all;
}

struct Operation : test::Case {
    bool (*run)(Place& place, const std::vector<Record>& records, sql::Error& error);
    int records;
    std::string after; // the rows that it has left, if it succeeds
};

bool adds(Place& place, const std::vector<Record>& records, sql::Error& error)
{
    const bool added = place.fast.addRecords(records.begin(), records.end());
    error = place.fast.error();
    return added;
}

bool copies(Place& place, const std::vector<Record>&, sql::Error& error)
{
    const bool copied = place.fast.copyRecords(place.from);
    error = place.fast.error();
    return copied;
}

// It is refused, whatever is short.
bool copiesIntoItself(Place& place, const std::vector<Record>&, sql::Error& error)
{
    EXPECT_FALSE(place.fast.copyRecords(place.same));
    error = place.fast.error();
    return error.isMisuse();
}

bool reads(Place& place, const std::vector<Record>&, sql::Error& error)
{
    sql::RecordCursor rows = place.from.select("where price < ? order by name", 3.5);
    Record record(*place.table.fields());
    int count = 0;
    while (rows.next(record)) {
        EXPECT_EQ(record.getValue(1)->asString(), long_name);
        ++count;
    }
    EXPECT_EQ(rows.finished(), !rows.error());
    EXPECT_TRUE(count == 50 || !rows.finished());
    error = rows.error();
    return rows.finished();
}

// A row that is there is never said not to be.
bool finds(Place& place, const std::vector<Record>&, sql::Error& error)
{
    const sql::Presence presence = place.from.hasRecordWithKeyId(7);
    EXPECT_NE(presence, sql::Presence::absent);
    error = place.from.error();
    EXPECT_EQ(presence == sql::Presence::unknown, static_cast<bool>(error));
    if (error)
        return false;
    Record record(*place.table.fields());
    const sql::Result<bool> found = place.from.readRecord(8, record);
    EXPECT_TRUE(found || found.failed());
    EXPECT_EQ(record.getKeyIdValue()->isNull(), found.failed());
    error = place.from.error();
    return static_cast<bool>(found);
}

bool checks(Place& place, const std::vector<Record>&, sql::Error& error)
{
    const auto found = place.fast.checkDeclaration();
    EXPECT_TRUE(!found || found->empty());
    error = found.error();
    return static_cast<bool>(found);
}

const char before[] = "1|1000|1";

const Operation operations[] = {
    {"AddsOneByOne", adds, 40, "41|1820|2"},
    {"AddsSeveralAtATime", adds, 300, "301|46150|2"},
    {"Copies", copies, 0, "51|2275|2"},
    {"CopiesIntoItself", copiesIntoItself, 0, before},
    {"Reads", reads, 0, before},
    {"Finds", finds, 0, before},
    {"Checks", checks, 0, before},
};

bool isShort(const sql::Error& error)
{
    return error.isNoMemory();
}

bool isOfFiles(const sql::Error& error)
{
    return error.isIo() || error.isFull();
}

class PreparedTableFaultTest : public testing::TestWithParam<Operation> {
protected:
    void expectAllOrNone(Place& place, bool succeeded, bool threw, const sql::Error& error,
                         bool (*isIt)(const sql::Error&) = isShort)
    {
        EXPECT_TRUE(sqlite3_get_autocommit(place.target.getHandle()));
        EXPECT_EQ(place.rows(), succeeded ? GetParam().after : before);
        if (!succeeded && !threw) {
            EXPECT_TRUE(isIt(error)) << error.name() << ": " << error.text();
            EXPECT_FALSE(_diagnostics.errors().empty());
        }
        if (succeeded) {
            EXPECT_EQ(_diagnostics.errors().empty(), !error);
        }
        _diagnostics.clear();
    }

    // Nothing is short any more, and all goes well with the same objects.
    void expectUsable(Place& place, const std::vector<Record>& all)
    {
        test::run(place.target.getHandle(), "delete from product where id < 1000");
        sql::Error error;
        EXPECT_TRUE(GetParam().run(place, all, error)) << error.text();
        EXPECT_EQ(place.rows(), GetParam().after);
        EXPECT_EQ(_diagnostics.events().empty(), !error);
        _diagnostics.clear();
        place.fast.release();
        place.from.release();
        place.same.release();
        place.target.close();
        place.source.close();
        place.again.close();
        EXPECT_TRUE(_diagnostics.events().empty());
    }

    test::Diagnostics _diagnostics;
};

TEST_P(PreparedTableFaultTest, MemoryOfSqlites)
{
    int refused = 0;
    for (const bool lasts : {false, true}) {
        bool struck = true;
        for (int nth = 1; struck; nth += test::stride(3)) {
            SCOPED_TRACE(std::to_string(nth) + (lasts ? " and those behind it" : ""));
            test::SqliteMemory memory;
            Place place;
            const std::vector<Record> all = records(place, GetParam().records);
            sql::Error error;
            memory.refuse(nth, lasts);
            memory.watch(true);
            const bool succeeded = GetParam().run(place, all, error);
            memory.watch(false);
            struck = memory.hasRefused();
            refused += struck ? 1 : 0;
            EXPECT_TRUE(succeeded || struck);
            expectAllOrNone(place, succeeded, false, error);
            expectUsable(place, all);
        }
    }
    EXPECT_GT(refused, 0);
}

#ifdef TEST_HEAP
TEST_P(PreparedTableFaultTest, MemoryOfTheLibrary)
{
    int refused = 0;
    for (const bool lasts : {false, true}) {
        bool struck = true;
        for (int nth = 1; struck; nth += test::stride(3)) {
            SCOPED_TRACE(std::to_string(nth) + (lasts ? " and those behind it" : ""));
            Place place;
            const std::vector<Record> all = records(place, GetParam().records);
            sql::Error error;
            bool succeeded = false;
            bool threw = false;
            {
                test::MemoryShortage shortage(nth, lasts);
                try {
                    succeeded = GetParam().run(place, all, error);
                } catch (const std::bad_alloc&) {
                    threw = true;
                }
                struck = shortage.hasStruck();
            }
            refused += struck ? 1 : 0;
            EXPECT_EQ(threw, struck);
            expectAllOrNone(place, succeeded, threw, error);
            expectUsable(place, all);
        }
    }
    EXPECT_GT(refused, 0);
}
#endif

struct Fault {
    test::FileCall call;
    int rc;
};

TEST_P(PreparedTableFaultTest, Files)
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
                test::run(place.target.getHandle(), "pragma cache_size = 1");
                const std::vector<Record> all = records(place, GetParam().records);
                sql::Error error;
                int left = nth;
                vfs.before = [&](const test::FileAccess& access) {
                    if (access.call != fault.call)
                        return SQLITE_OK;
                    --left;
                    return left == 0 || (left < 0 && lasts) ? fault.rc : SQLITE_OK;
                };
                const bool succeeded = GetParam().run(place, all, error);
                vfs.before = nullptr;
                struck = left <= 0;
                refused += struck ? 1 : 0;
                expectAllOrNone(place, succeeded, false, error, isOfFiles);
                expectUsable(place, all);
            }
        }
    }
    EXPECT_GT(refused, 0);
}

INSTANTIATE_TEST_SUITE_P(Operations, PreparedTableFaultTest, testing::ValuesIn(operations),
                         test::NameOfCase());

} // namespace
