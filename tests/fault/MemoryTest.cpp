#include "Environment.h"
#include "Job.h"
#include "PreparedSteps.h"
#include "SqliteMemory.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <string>

namespace {

using test::Job;
using test::SqliteMemory;

// When there was no memory for the text either, it is missing.
const test::Texts out_of_memory = {"7=SQLITE_NOMEM: out of memory", "7=SQLITE_NOMEM"};

class MemoryTest : public test::ShortageTest {
protected:
    MemoryTest() : ShortageTest(0)
    {
        _steps = test::wholeJob() + test::changingByStatements();
    }

    bool work(int nth, bool lasts) override
    {
        const test::TemporaryDirectory directory;
        SqliteMemory memory;
        Job job(directory.file("shop.db"), out_of_memory,
                [&](const std::string& operation, bool begins) {
                    memory.watch(begins);
                    if (!begins)
                        note(operation, memory.allocations());
                });
        memory.refuse(nth, lasts);
        if (job.open())
            job.take(_steps);
        job.useAgain();
        job.close();
        EXPECT_EQ(memory.blocksInUse(), 0);
        EXPECT_EQ(sqlite3_memory_used(), 0);
        job.verifyFile();
        _failures.insert(job.failures().begin(), job.failures().end());
        return memory.hasRefused();
    }
};

TEST_F(MemoryTest, OneAllocationThatFailsLosesNoAcknowledgedRow)
{
    workWithEveryFailure(false);
}

TEST_F(MemoryTest, LastingShortageLosesNoAcknowledgedRow)
{
    workWithEveryFailure(true);
    EXPECT_EQ(_failures, _allocating);
}

} // namespace
