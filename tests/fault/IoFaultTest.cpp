#include "Cases.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "Job.h"
#include "PreparedSteps.h"
#include "SqlResult.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace {

using test::FileAccess;
using test::FileCall;
using test::Job;
using test::Step;
using testing::Combine;
using testing::ElementsAre;
using testing::Values;

const int most_calls = 100000; // far more than any work here makes

// A small cache makes SQLite write within a transaction, and read again what it has read before.
const char large_cache[] = "pragma cache_size = 2000";
const char small_cache[] = "pragma cache_size = 1";

// A journal is otherwise removed at the end of a transaction.
const char cut_journal[] = "pragma journal_mode = truncate";

struct Fault : test::Case {
    FileCall call;
    int rc;
};

// Lets the nth call of a kind fail, and those behind it when it lasts.
class Failing {
public:
    Failing(test::FaultVfs& vfs, const Fault& fault, int nth, bool lasts) : _vfs(vfs), _left(nth)
    {
        _vfs.before = [this, fault, lasts](const FileAccess& access) {
            if (access.call != fault.call)
                return SQLITE_OK;
            --_left;
            return _left == 0 || (_left < 0 && lasts) ? fault.rc : SQLITE_OK;
        };
    }
    ~Failing()
    {
        _vfs.before = nullptr;
    }
    Failing(const Failing&) = delete;
    Failing& operator=(const Failing&) = delete;

    bool hasStruck() const
    {
        return _left <= 0;
    }

private:
    test::FaultVfs& _vfs;
    int _left;
};

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("io faults: %d points, %d operations, %d of them failed\n", points, operations,
                    failures);
    }

    void add(const Job& job)
    {
        ++points;
        operations += job.operations();
        failures += job.failed();
    }

    int points = 0;
    int operations = 0;
    int failures = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

// What SQLite may make of a fault; statements tell its extended code.
test::Texts reasons(const Fault& fault)
{
    test::Texts all;
    for (const int rc : {SQLITE_BUSY, SQLITE_IOERR, SQLITE_CORRUPT, SQLITE_FULL, SQLITE_CANTOPEN,
                         SQLITE_NOTADB, fault.rc})
        all.push_back(std::to_string(rc) + "=" + sql::Error(rc, "").name() + ": "
                      + sqlite3_errstr(rc));
    return all;
}

void watchNothing(const std::string&, bool)
{
}

// Every call fails, once or from then on.
class IoFaultTest : public testing::TestWithParam<std::tuple<Fault, bool, std::string>> {
protected:
    // True when the fault has struck.
    bool workWithFault(int nth)
    {
        const auto& [fault, lasts, pragma] = GetParam();
        const test::TemporaryDirectory directory;
        // What is written stays once the journal is cut off, be that synced or not.
        const bool failsLate = pragma == cut_journal && fault.call == FileCall::sync;
        Job job(directory.file("shop.db"), reasons(fault), watchNothing, failsLate);
        bool struck = false;
        {
            test::FaultVfs vfs;
            const Failing failing(vfs, fault, nth, lasts);
            if (job.open() || job.open())
                job.take(std::vector<Step>{test::setting(pragma)} + test::wholeJob()
                         + test::changingByStatements());
            job.close();
            struck = failing.hasStruck();
        }
        job.verifyFile();
        EXPECT_TRUE(struck || job.possible().size() == 1);
        figures.add(job);
        return struck;
    }
};

TEST_P(IoFaultTest, WhatWasAcknowledgedIsThereAndWhatFailedIsReported)
{
    // With a fault that lasts, one point is much like the next.
    const int stride = test::stride(std::get<1>(GetParam()) ? 23 : 11);
    int nth = 1;
    while (nth < most_calls && workWithFault(nth) && !HasFailure())
        nth += stride;
    EXPECT_GT(nth, 1);
    EXPECT_LT(nth, most_calls);
    if (HasFailure())
        std::printf("with call %d\n", nth);
}

const Fault faults[] = {
    {"ReadError", FileCall::read, SQLITE_IOERR_READ},
    {"WriteError", FileCall::write, SQLITE_IOERR_WRITE},
    {"DiskFull", FileCall::write, SQLITE_FULL},
    {"SyncError", FileCall::sync, SQLITE_IOERR_FSYNC},
    {"OpenError", FileCall::open, SQLITE_CANTOPEN},
    {"AccessError", FileCall::access, SQLITE_IOERR_ACCESS},
    {"SizeError", FileCall::size, SQLITE_IOERR_FSTAT},
    {"LockError", FileCall::lock, SQLITE_IOERR_LOCK},
    {"LockedFile", FileCall::lock, SQLITE_BUSY},
};

std::string nameOfCase(const testing::TestParamInfo<IoFaultTest::ParamType>& chosen)
{
    const auto& [fault, lasts, pragma] = chosen.param;
    const std::map<std::string, std::string> names = {
        {large_cache, ""}, {small_cache, "SmallCache"}, {cut_journal, "CutJournal"}};
    return fault.name + (lasts ? "Lasting" : "Once") + names.at(pragma);
}

INSTANTIATE_TEST_SUITE_P(Faults, IoFaultTest,
                         Combine(testing::ValuesIn(faults), testing::Bool(),
                                 Values(large_cache, small_cache, cut_journal)),
                         nameOfCase);

// A journal is either removed or cut off.
const Fault remove_error = {"RemoveError", FileCall::remove, SQLITE_IOERR_DELETE};
const Fault truncate_error = {"TruncateError", FileCall::truncate, SQLITE_IOERR_TRUNCATE};

INSTANTIATE_TEST_SUITE_P(RemoveFaults, IoFaultTest,
                         Combine(Values(remove_error), testing::Bool(),
                                 Values(large_cache, small_cache)),
                         nameOfCase);

INSTANTIATE_TEST_SUITE_P(TruncateFaults, IoFaultTest,
                         Combine(Values(truncate_error), testing::Bool(), Values(cut_journal)),
                         nameOfCase);

// A file that seems to end too early.
class ShortReadTest : public testing::TestWithParam<bool> {};

TEST_P(ShortReadTest, NothingIsMadeUpAndTheFileStaysAsItIs)
{
    const Fault fault = {"ShortRead", FileCall::read, SQLITE_IOERR_SHORT_READ};
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    Job job(file, reasons(fault), watchNothing);
    ASSERT_TRUE(job.open());
    job.take(std::vector<Step>{test::setting("pragma page_size = 512")} + test::filling(9));
    job.close();
    const std::string before = test::readFile(file);
    int nth = 0;
    for (bool struck = true; struck && nth < most_calls && !HasFailure();) {
        test::FaultVfs vfs;
        const Failing failing(vfs, fault, ++nth, GetParam());
        if (job.open())
            job.take(test::reading());
        job.close();
        struck = failing.hasStruck();
    }
    figures.add(job);
    EXPECT_GT(nth, 1);
    EXPECT_LT(nth, most_calls);
    EXPECT_EQ(test::readFile(file), before);
    EXPECT_THAT(job.possible(), ElementsAre(test::contents(file)));
}

INSTANTIATE_TEST_SUITE_P(OnceAndLasting, ShortReadTest, testing::Bool());

// What programs have to know of: a row that cannot be looked for is added, and a transaction that
// SQLite has ended does not keep it from that.
TEST(QuestionFaultTest, AddOrUpdateAddsAfterTheTransactionHasEnded)
{
    test::FaultVfs vfs;
    test::Diagnostics diagnostics;
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    test::Shop shop(file);
    ASSERT_TRUE(shop.open() && shop.query("pragma page_size = 512"));
    for (const Step& step : test::filling(9))
        ASSERT_EQ(step.library(shop), "true");
    ASSERT_TRUE(shop.open() && shop.transact("BEGIN"));
    EXPECT_TRUE(shop.product.addRecord(test::good(20, ""))); // reads the last pages only
    {
        const Failing failing(vfs, {"ReadError", FileCall::read, SQLITE_IOERR_READ}, 1, false);
        EXPECT_TRUE(shop.product.addOrUpdateRecord(sql::integer(0), test::good(0, "")));
    }
    EXPECT_FALSE(shop.transact("COMMIT"));
    EXPECT_EQ(
        diagnostics.errors(),
        test::errorsOf(test::joined(
            {test::report::noRow("select count(*) from product where id = 0",
                                 "10=SQLITE_IOERR: disk I/O error"),
             test::report::refused("COMMIT TRANSACTION",
                                   "1=SQLITE_ERROR: cannot commit - no transaction is active")})));
    EXPECT_EQ(test::Connection(file).rows("select id from product where id in (0, 20)"), "0");
}

} // namespace
