#include "Cases.h"
#include "Diagnostics.h"
#include "Disk.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "PreparedSteps.h"
#include "Rows.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

using test::Disk;
using test::DiskKind;
using test::FileAccess;
using testing::AnyOf;
using testing::IsEmpty;

// --- The work

// How SQLite is told to keep its promises.
struct Journal : test::Case {
    const char* setting;
    // The journal's end is a commit, and may be lost: the last transaction then is taken back.
    bool losesLastCommit;
};

struct PowerLoss {
    int call;         // into the file system, before which the power fails
    std::size_t done; // changes acknowledged before
    bool maySlip;     // the journal may be there again
    test::Files files;
};

int lossesTried = 0;
int lastCommitsLost = 0;

struct PrintFigures : testing::Environment {
    void TearDown() override
    {
        std::printf("power losses: %d tried, %d of them took the last commit back\n", lossesTried,
                    lastCommitsLost);
    }
};

testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(new PrintFigures);

class PowerLossTest : public testing::TestWithParam<std::tuple<Journal, DiskKind, std::string>> {
protected:
    PowerLossTest() : _file(_directory.file("shop.db"))
    {
    }

    // Makes all changes, and lets the power fail before every nth call that changes something.
    std::vector<PowerLoss> workWithLosses(unsigned int seed, int stride)
    {
        const auto& [journal, kind, pages] = GetParam();
        removeFiles();
        std::vector<PowerLoss> losses;
        Disk disk(kind);
        std::mt19937 random(seed);
        std::size_t done = 0;
        int calls = static_cast<int>(random() % stride);
        const auto lose = [&, slips = journal.losesLastCommit] {
            losses.push_back(
                {calls, done, slips && disk.hasRemovalsPending(), disk.afterPowerLoss(random)});
        };
        test::FaultVfs vfs;
        vfs.pretendDisk(kind.sectorSize,
                        kind.sparesNeighbours ? SQLITE_IOCAP_POWERSAFE_OVERWRITE : 0);
        vfs.before = [&](const FileAccess& access) {
            if (test::changesDisk(access) && ++calls % stride == 0)
                lose();
            return SQLITE_OK;
        };
        vfs.after = [&](const FileAccess& access) {
            disk.take(access);
        };
        work({pages, journal.setting}, done);
        lose();
        return losses;
    }

    // Starts again with what is left.
    void startAgain(const PowerLoss& loss)
    {
        removeFiles();
        for (const auto& [path, bytes] : loss.files)
            test::writeFile(path, bytes);
        const std::vector<std::string> rows = readByLibrary();
        const std::string there = test::contents(_file);
        const std::string& before = after(loss.done - loss.maySlip);
        EXPECT_THAT(there, AnyOf(after(loss.done), after(loss.done + 1), before));
        EXPECT_EQ(rows, rowsIn(there));
        ++lossesTried;
        lastCommitsLost += loss.maySlip && there == before;
    }

private:
    void removeFiles() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            std::filesystem::remove(entry.path());
    }

    void work(const std::vector<std::string>& settings, std::size_t& done)
    {
        test::Shop shop(_file);
        ASSERT_TRUE(shop.open());
        for (const std::string& pragma : settings)
            EXPECT_TRUE(shop.query(pragma));
        for (const test::Change& change : _changes) {
            for (const test::Step& step : change.steps)
                EXPECT_EQ(step.library(shop), "true") << step.name;
            ++done;
        }
        EXPECT_THAT(_diagnostics.events(), IsEmpty());
    }

    // What the file holds after so many changes.
    const std::string& after(std::size_t changes) const
    {
        static const std::string nothing = test::contents(*std::make_unique<test::Connection>());
        return changes == 0 ? nothing : _changes[std::min(changes, _changes.size()) - 1].after;
    }

    std::vector<std::string> readByLibrary()
    {
        test::Shop shop(_file);
        EXPECT_TRUE(shop.open() && shop.query("pragma synchronous = off")); // it stays on now
        EXPECT_TRUE(!shop.product.exists() || shop.product.open("", "id"));
        EXPECT_THAT(_diagnostics.events(), IsEmpty());
        return test::held(shop.product);
    }

    // The rows of products in the contents of a file.
    static std::vector<std::string> rowsIn(const std::string& contents)
    {
        test::Connection db;
        db.run(contents);
        test::TwinShop shop;
        shop.use(db);
        return shop.product.open("", "id") ? shop.product.held() : std::vector<std::string>();
    }

    const std::vector<test::Change> _changes = test::changesOf(
        test::filling(19) + test::changing() + test::backingUp() + test::changing()
        + test::changingByStatements() + test::changingInTransactions() + test::backingUp()
        + test::changingInBulk(4) + test::removing());
    test::Diagnostics _diagnostics;
    const test::TemporaryDirectory _directory;
    const std::string _file;
};

TEST_P(PowerLossTest, AcknowledgedTransactionsAreThereAndNoneIsHalfThere)
{
    const unsigned int seeds = test::longRun() ? 5 : 1;
    const int stride = test::stride(9);
    for (unsigned int seed = 1; seed <= seeds && !HasFailure(); ++seed) {
        for (const PowerLoss& loss : workWithLosses(seed, stride)) {
            startAgain(loss);
            if (HasFailure()) {
                std::printf("with seed %u before call %d\n", seed, loss.call);
                break;
            }
        }
    }
}

// A removed journal that is back takes back the last transaction unless the removal is synced.
const Journal journals[] = {
    {"RemovedJournal", "pragma journal_mode = delete", true},
    {"RemovedAndSyncedJournal", "pragma synchronous = extra", false},
    {"CutJournal", "pragma journal_mode = truncate", false},
    {"KeptJournal", "pragma journal_mode = persist", false},
    {"WriteAheadLog", "pragma journal_mode = wal; pragma wal_autocheckpoint = 12", false},
};

const char large_pages[] = "pragma page_size = 4096";
const char small_pages[] = "pragma page_size = 1024; pragma cache_size = 1";

std::string nameOfCase(const testing::TestParamInfo<PowerLossTest::ParamType>& chosen)
{
    const auto& [journal, kind, setting] = chosen.param;
    return journal.name + kind.name + (setting == small_pages ? "SmallPages" : "");
}

INSTANTIATE_TEST_SUITE_P(Journals, PowerLossTest,
                         testing::Combine(testing::ValuesIn(journals),
                                          testing::ValuesIn(test::disks),
                                          testing::Values(large_pages, small_pages)),
                         nameOfCase);

} // namespace
