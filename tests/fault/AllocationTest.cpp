#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Heap.h"
#include "Job.h"
#include "Reports.h"
#include "SqlRecordSet.h"
#include "Sqlite.h"
#include "SqliteMemory.h"
#include "Wording.h"
#ifdef TEST_PREPARED
#include "PreparedSteps.h"
#endif

#include <gmock/gmock.h>

#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

using sql::RecordSet;
using test::MemoryShortage;
using testing::ElementsAre;
using testing::IsEmpty;

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
        EXPECT_EQ(_diagnostics.errors(),
                  test::errorsOf(test::report::refused(all_rows, "4=SQLITE_ABORT: query aborted")))
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

// --- Anywhere within a whole job on a file

const test::Texts no_memory_for_a_row = {test::worded("4=SQLITE_ABORT: query aborted")};

class JobAllocationTest : public test::ShortageTest {
protected:
    JobAllocationTest() : ShortageTest(1000 * most_allocations)
    {
#ifdef TEST_PREPARED
        _steps = _steps + test::changingByStatements();
#endif
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
            job->take(_steps);
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

TEST_F(JobAllocationTest, NoAllocationOfAnyOperationMayNotFail)
{
    _steps = test::onceEach(_steps);
    workWithEveryFailure(false, true);
}

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
