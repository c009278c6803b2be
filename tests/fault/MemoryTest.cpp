#include "Environment.h"
#include "Job.h"
#include "SqliteMemory.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <set>
#include <string>
#include <vector>

namespace {

using test::Job;
using test::SqliteMemory;
using testing::IsEmpty;

const Job::Reasons out_of_memory = {
    {"7=SQLITE_NOMEM", "out of memory"},
    {"7=SQLITE_NOMEM", ""}, // nor was there memory for the text
};

class MemoryTest : public testing::Test {
protected:
    // A whole job on a new file. True when an allocation was refused.
    bool work(int nth, bool lasts)
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
        job.work();
        job.useAgain();
        job.close();
        EXPECT_EQ(memory.blocksInUse(), 0);
        EXPECT_EQ(sqlite3_memory_used(), 0);
        job.verifyFile();
        _failures.insert(job.failures().begin(), job.failures().end());
        return memory.hasRefused();
    }

    // The job without failures shows which operation needs which allocations.
    void plan()
    {
        EXPECT_FALSE(work(0, false));
        EXPECT_THAT(_failures, IsEmpty());
        _planned = true;
    }

    void note(const std::string& operation, int allocations)
    {
        if (_planned)
            return;
        if (_ends.empty() ? allocations > 0 : allocations > _ends.back())
            _allocating.insert(operation);
        _ends.push_back(allocations);
    }

    void workWithEveryFailure(bool lasts)
    {
        plan();
        const std::vector<int> cases = Job::cases(_ends);
        for (const int nth : cases) {
            SCOPED_TRACE(nth);
            EXPECT_TRUE(work(nth, lasts));
            if (HasFailure())
                break;
        }
        RecordProperty("allocations", _ends.back());
        RecordProperty("tried", static_cast<int>(cases.size()));
    }

    std::vector<int> _ends;
    std::set<std::string> _allocating;
    std::set<std::string> _failures;

private:
    bool _planned = false;
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
