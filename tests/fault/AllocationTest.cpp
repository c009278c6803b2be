#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Heap.h"
#include "Job.h"
#include "SqlDatabase.h"
#include "SqlRecord.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"
#include "Sqlite.h"
#include "SqliteMemory.h"
#include "Wording.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <new>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

using sql::Record;
using sql::RecordSet;
using sql::Table;
using testing::ElementsAre;
using testing::IsEmpty;

// Which allocations fail while one of these lives: the nth, and those behind it when it lasts.
class MemoryShortage {
public:
    MemoryShortage(int nth, bool lasts) : _nth(nth), _left(nth), _lasts(lasts)
    {
        current = this;
        test::refusesHeap = strikes;
    }
    ~MemoryShortage()
    {
        test::refusesHeap = nullptr;
    }
    MemoryShortage(const MemoryShortage&) = delete;
    MemoryShortage& operator=(const MemoryShortage&) = delete;

    bool hasStruck() const
    {
        return _left <= 0;
    }

    // Whether allocations count, and fail; they do at first.
    void watch(bool on)
    {
        _watches = on;
    }

    int allocations() const // counted
    {
        return _nth - _left;
    }

private:
    // What the tests do to capture a report is no allocation of the library.
    static bool strikes()
    {
        return current->_watches && !test::Diagnostics::isCapturing() && current->countDown();
    }

    bool countDown()
    {
        --_left;
        return _left == 0 || (_left < 0 && _lasts);
    }

    static MemoryShortage* current;

    const int _nth;
    int _left;
    const bool _lasts;
    bool _watches = true;
};

MemoryShortage* MemoryShortage::current = nullptr;

const int row_count = 4;
const int most_allocations = 10000; // far more than any operation here needs

const std::string long_text(200, 'x');

std::string nameOfRow(int id)
{
    return "the name of row " + std::to_string(id) + " " + long_text;
}

// The table "product" with rows that no short text buffer holds.
class AllocationTest : public testing::Test {
protected:
    AllocationTest() : _fields(test::product_columns)
    {
        _db.run("create table product (id integer primary key, name text, price real)");
        for (int id = 1; id <= row_count; ++id)
            _db.run("insert into product values (" + std::to_string(id) + ", '" + nameOfRow(id)
                    + "', 2.5)");
        _before = contents();
    }

    std::string contents()
    {
        return _db.rows("select * from product order by id");
    }

    bool hasOpenStatement() const
    {
        return sqlite3_next_stmt(_db, nullptr) != nullptr;
    }

    test::Connection _db;
    test::Diagnostics _diagnostics;
    const sql::FieldSet _fields;
    std::string _before;
};

// --- Within SQLite's row callback

class RowAllocationTest : public AllocationTest,
                          public testing::WithParamInterface<std::tuple<int, bool>> {
protected:
    RowAllocationTest() : _level(std::get<0>(GetParam())), _lasts(std::get<1>(GetParam()))
    {
        _diagnostics.setLevel(_level);
    }

    // Queries all rows while the nth allocation fails. True when none did.
    bool queryWithFailure(int nth, RecordSet& set)
    {
        _diagnostics.clear();
        bool succeeded;
        bool struck;
        {
            const MemoryShortage shortage(nth, _lasts);
            succeeded = set.query(all_rows);
            struck = shortage.hasStruck();
        }
        EXPECT_EQ(succeeded, !struck);
        EXPECT_EQ(set.isResultOk(), !struck);
        EXPECT_FALSE(hasOpenStatement());
        return !struck;
    }

    // The first rows, as RecordSet::toString() numbers them.
    static std::string firstRows(int count)
    {
        std::string lines;
        for (int id = 1; id <= count; ++id)
            lines += std::to_string(id) + ". " + std::to_string(id) + "|" + nameOfRow(id)
                     + "|2.5\r\n";
        return lines;
    }

    const std::string all_rows = "select * from product order by id";
    const int _level;
    const bool _lasts;
};

TEST_P(RowAllocationTest, FailureEndsTheQueryAndKeepsTheRowsBeforeIt)
{
    std::vector<int> kept = {0};
    for (int nth = 1; nth < most_allocations; ++nth) {
        RecordSet set(_db, _fields);
        if (queryWithFailure(nth, set))
            break;
        EXPECT_EQ(set.toString(), firstRows(set.count())) << nth;
        EXPECT_EQ(set.getTopRecord(), nullptr) << nth;
        if (set.count() != kept.back())
            kept.push_back(set.count());
    }
    EXPECT_THAT(kept, ElementsAre(0, 1, 2, 3));
}

TEST_P(RowAllocationTest, FailureIsReportedAsAnAbortedStatement)
{
    for (int nth = 1; nth < most_allocations; ++nth) {
        RecordSet set(_db, _fields);
        if (queryWithFailure(nth, set))
            break;
        EXPECT_THAT(_diagnostics.errors(),
                    ElementsAre("Failed to run the SQL stmt 'select * from product order by id'",
                                test::worded("  rc=4=SQLITE_ABORT: query aborted")))
            << nth;
        EXPECT_THAT(_diagnostics.assertions(), IsEmpty()) << nth;
    }
}

TEST_P(RowAllocationTest, SetAndConnectionWorkAfterAFailure)
{
    RecordSet set(_db, _fields);
    int nth = 1;
    while (nth < most_allocations && !queryWithFailure(nth, set)) {
        EXPECT_TRUE(set.query(all_rows)) << nth;
        EXPECT_EQ(set.toString(), firstRows(row_count)) << nth;
        ++nth;
    }
    EXPECT_GT(nth, row_count);
    EXPECT_EQ(contents(), _before);
}

TEST_P(RowAllocationTest, RowsAreWholeWhenNoAllocationFails)
{
    RecordSet set(_db, _fields);
    EXPECT_TRUE(queryWithFailure(most_allocations, set));
    EXPECT_EQ(set.toString(), firstRows(row_count));
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(LevelsAndDurations, RowAllocationTest,
                         testing::Combine(testing::Values(3, 9), testing::Bool()));

// --- Anywhere within an operation

struct Operation {
    const char* what;
    std::function<bool(sqlite3* db, Table& table, const Record& record)> run;
    bool changesRows;
    const char* load; // the statement whose rows it holds, or null
};

void PrintTo(const Operation& operation, std::ostream* out)
{
    *out << operation.what;
}

class OperationAllocationTest : public AllocationTest,
                                public testing::WithParamInterface<Operation> {
protected:
    OperationAllocationTest() : _record(_fields)
    {
        _record.setInteger("id", 7);
        _record.setString("name", nameOfRow(7));
        _record.setDouble("price", 3.5);
        _diagnostics.setLevel(9);
    }

    // Runs the operation while the nth allocation fails. True when none did. Otherwise it has
    // passed std::bad_alloc on without a report, or has failed as a load does.
    bool runWithFailure(int nth, Table& table)
    {
        bool succeeded = false;
        bool passedOn = false;
        bool struck;
        _diagnostics.clear();
        {
            const MemoryShortage shortage(nth, false);
            try {
                succeeded = GetParam().run(_db, table, _record);
            } catch (const std::bad_alloc&) {
                passedOn = true;
            }
            struck = shortage.hasStruck();
        }
        EXPECT_EQ(succeeded, !struck) << nth;
        EXPECT_FALSE(hasOpenStatement()) << nth;
        EXPECT_EQ(_diagnostics.errors(), errorsOf(struck && !passedOn)) << nth;
        EXPECT_THAT(_diagnostics.assertions(), IsEmpty()) << nth;
        if (struck && !passedOn)
            ++_loadsFailed;
        return !struck;
    }

    static std::vector<std::string> errorsOf(bool failedLoad)
    {
        if (!failedLoad)
            return {};
        if (GetParam().load == nullptr)
            return {"a failed load"};
        return {std::string("Failed to run the SQL stmt '") + GetParam().load + "'",
                test::worded("  rc=4=SQLITE_ABORT: query aborted")};
    }

    int _loadsFailed = 0;

    Record _record;
};

TEST_P(OperationAllocationTest, FailureLeavesNoStatementOpenAndAllRowsInPlace)
{
    Table table(_db, "product", _fields);
    for (int nth = 1; nth < most_allocations; ++nth) {
        if (runWithFailure(nth, table))
            break;
        EXPECT_EQ(contents(), _before) << nth;
    }
    EXPECT_EQ(contents() != _before, GetParam().changesRows);
    EXPECT_EQ(_loadsFailed > 0, GetParam().load != nullptr);
}

TEST_P(OperationAllocationTest, TableWorksAfterAFailure)
{
    Table table(_db, "product", _fields);
    int nth = 1;
    while (nth < most_allocations && !runWithFailure(nth, table)) {
        EXPECT_TRUE(table.open()) << nth;
        EXPECT_EQ(table.recordCount(), row_count) << nth;
        ++nth;
    }
    EXPECT_GT(nth, 1);
}

// Conditions and keys are short enough to need no memory of their own.
const Operation operations[] = {
    {"open", [](sqlite3*, Table& table, const Record&) { return table.open(); }, false,
     "select * from product"},
    {"open by condition and order",
     [](sqlite3*, Table& table, const Record&) { return table.open("price > 2", "name"); }, false,
     "select * from product where price > 2 order by name"},
    {"getRecordByKeyId with an integer",
     [](sqlite3*, Table& table, const Record&) {
         return table.getRecordByKeyId(sql::integer(2)) != nullptr;
     },
     false, "select * from product where id = 2"},
    {"getRecordByKeyId with a text",
     [](sqlite3*, Table& table, const Record&) {
         return table.getRecordByKeyId(std::string("2")) != nullptr;
     },
     false, "select * from product where id = \"2\""},
    {"hasRecordWithKeyId",
     [](sqlite3*, Table& table, const Record&) {
         return table.hasRecordWithKeyId(sql::integer(2));
     },
     false, nullptr},
    {"exists", [](sqlite3*, Table& table, const Record&) { return table.exists(); }, false,
     nullptr},
    {"create", [](sqlite3*, Table& table, const Record&) { return table.create(); }, false,
     nullptr},
    {"totalRecordCount",
     [](sqlite3*, Table& table, const Record&) { return table.totalRecordCount() == row_count; },
     false, nullptr},
    {"addRecord",
     [](sqlite3*, Table& table, const Record& record) { return table.addRecord(record); }, true,
     nullptr},
    {"updateRecord",
     [](sqlite3*, Table& table, const Record& record) {
         Record second(record);
         second.setInteger(0, 2);
         return table.updateRecord(second);
     },
     true, nullptr},
    {"addOrUpdateRecord that adds",
     [](sqlite3*, Table& table, const Record& record) {
         return table.addOrUpdateRecord(sql::integer(7), record);
     },
     true, nullptr},
    {"addOrUpdateRecord that updates no row",
     [](sqlite3*, Table& table, const Record& record) {
         return table.addOrUpdateRecord(std::string("2"), record);
     },
     false, nullptr},
    {"deleteRecord",
     [](sqlite3*, Table& table, const Record&) { return table.deleteRecord(sql::integer(2)); },
     true, nullptr},
    {"deleteRecords",
     [](sqlite3*, Table& table, const Record&) { return table.deleteRecords("id > 2"); }, true,
     nullptr},
    {"query of a record set of its own",
     [](sqlite3* db, Table& table, const Record&) {
         return RecordSet(db, *table.fields()).query("select 1, 2");
     },
     false, "select 1, 2"},
    {"runOneStepSqlStmt",
     [](sqlite3* db, Table&, const Record&) {
         return sql::runOneStepSqlStmt(db, "delete from product where id = 2");
     },
     true, nullptr},
};

INSTANTIATE_TEST_SUITE_P(Operations, OperationAllocationTest, testing::ValuesIn(operations));

TEST_F(AllocationTest, FailureWhileCopyingKeepsTheRowsCopiedBeforeIt)
{
    _db.run("create table spare (id integer primary key, name text, price real)");
    Table source(_db, "product", _fields);
    Table spare(_db, "spare", _fields);
    ASSERT_TRUE(source.open());
    for (int nth = 1; nth < most_allocations; ++nth) {
        bool copied = false;
        {
            const MemoryShortage shortage(nth, false);
            try {
                copied = spare.copyRecords(source);
            } catch (const std::bad_alloc&) {
            }
        }
        const std::string rows = _db.rows("select * from spare order by id");
        EXPECT_EQ(rows, _before.substr(0, rows.size())) << nth;
        EXPECT_EQ(rows.size() == _before.size(), copied) << nth;
        EXPECT_EQ(source.recordCount(), row_count) << nth;
        EXPECT_FALSE(hasOpenStatement()) << nth;
        if (copied)
            break;
        _db.run("delete from spare");
    }
    EXPECT_EQ(_db.rows("select * from spare order by id"), _before);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(AllocationTest, BackupCanBeRepeatedAfterAFailure)
{
    Table source(_db, "product", _fields);
    Table spare(_db, "spare", _fields);
    int nth = 1;
    for (bool done = false; !done && nth < most_allocations; ++nth) {
        {
            const MemoryShortage shortage(nth, false);
            try {
                done = spare.backup(source);
            } catch (const std::bad_alloc&) {
            }
        }
        EXPECT_FALSE(hasOpenStatement()) << nth;
        EXPECT_TRUE(done || spare.backup(source)) << nth;
        EXPECT_EQ(_db.rows("select * from spare order by id"), _before) << nth;
    }
    EXPECT_GT(nth, row_count);
    EXPECT_EQ(contents(), _before);
}

TEST(DatabaseAllocationTest, FailureLeavesTheConnectionOpenAndNoTransaction)
{
    test::Diagnostics diagnostics;
    sql::Database database;
    ASSERT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
    bool begun = false;
    for (int nth = 1; !begun && nth < most_allocations; ++nth) {
        {
            const MemoryShortage shortage(nth, false);
            try {
                begun = database.setUserVersion(static_cast<unsigned int>(nth))
                        && database.transactionBegin();
            } catch (const std::bad_alloc&) {
            }
        }
        EXPECT_EQ(sqlite3_get_autocommit(database.getHandle()) == 0, begun) << nth;
        EXPECT_EQ(sqlite3_next_stmt(database.getHandle(), nullptr), nullptr) << nth;
        EXPECT_TRUE(database.isOpen()) << nth;
    }
    EXPECT_TRUE(database.transactionCommit());
    EXPECT_THAT(diagnostics.events(), IsEmpty());
}

// --- Anywhere within a whole job on a file

const test::Texts no_memory_for_a_row = {test::worded("4=SQLITE_ABORT: query aborted")};

class JobAllocationTest : public test::ShortageTest {
protected:
    JobAllocationTest() : ShortageTest(1000 * most_allocations)
    {
    }

    bool work(int nth, bool lasts) override
    {
        const test::TemporaryDirectory directory;
        const test::SqliteMemory sqlite;
        const long before = test::heapBlocksInUse();
        MemoryShortage shortage(nth, lasts);
        shortage.watch(false);
        auto job = std::make_unique<test::Job>(directory.file("shop.db"), no_memory_for_a_row,
                                               [&](const std::string& operation, bool begins) {
                                                   shortage.watch(begins);
                                                   if (!begins)
                                                       note(operation, shortage.allocations());
                                               });
        job->diagnostics().setLevel(9);
        if (job->open())
            job->take(test::wholeJob());
        job->useAgain();
        job->close();
        EXPECT_EQ(sqlite.blocksInUse(), 0);
        job->verifyFile();
        const long noted = keep(job->failures());
        job.reset();
        EXPECT_TRUE(!_planned || test::heapBlocksInUse() - before == noted)
            << test::heapBlocksInUse() - before - noted;
        return shortage.hasStruck();
    }

    // The blocks that this takes.
    long keep(const std::set<std::string>& failures)
    {
        const long before = test::heapBlocksInUse();
        _failures.insert(failures.begin(), failures.end());
        return test::heapBlocksInUse() - before;
    }
};

TEST_F(JobAllocationTest, OneAllocationThatFailsLosesNoAcknowledgedRow)
{
    workWithEveryFailure(false);
}

TEST_F(JobAllocationTest, LastingShortageLosesNoAcknowledgedRow)
{
    workWithEveryFailure(true);
    EXPECT_EQ(_failures, _allocating);
}

} // namespace
