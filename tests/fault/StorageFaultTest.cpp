#include "SqlBlob.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"

#include "Cases.h"
#include "Diagnostics.h"
#include "Disk.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "Sqlite.h"
#include "SqliteMemory.h"
#ifdef TEST_HEAP
#include "Heap.h"
#endif

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

using sql::Blob;
using test::FileCall;
using testing::Combine;
using testing::IsEmpty;
using testing::ValuesIn;

const int most_points = 100000; // far more than any work here has
const std::size_t old_size = 150000;
const std::size_t new_size = 200000;

// --- What goes wrong

enum class Target { file, sqlite_memory, heap };

struct Cause : test::Case {
    Target target;
    FileCall call = FileCall::open;
    int rc = SQLITE_OK; // of that call
};

const Cause causes[] = {
    {"Open", Target::file, FileCall::open, SQLITE_CANTOPEN},
    {"Read", Target::file, FileCall::read, SQLITE_IOERR_READ},
    {"Write", Target::file, FileCall::write, SQLITE_IOERR_WRITE},
    {"Full", Target::file, FileCall::write, SQLITE_FULL},
    {"Sync", Target::file, FileCall::sync, SQLITE_IOERR_FSYNC},
    {"Size", Target::file, FileCall::size, SQLITE_IOERR_FSTAT},
    {"Lock", Target::file, FileCall::lock, SQLITE_BUSY},
    {"Remove", Target::file, FileCall::remove, SQLITE_IOERR_DELETE},
    {"SqliteMemory", Target::sqlite_memory},
#ifdef TEST_HEAP
    {"Heap", Target::heap},
#endif
};

// Lets a cause strike at its nth target, and at those behind it when it lasts.
class Trouble {
public:
    Trouble(const Cause& cause, int nth, bool lasts) : _cause(cause), _left(nth), _lasts(lasts)
    {
        _vfs.before = [this](const test::FileAccess& access) {
            const bool isMeant = _cause.target == Target::file && access.call == _cause.call;
            return isMeant && strikes() ? _cause.rc : SQLITE_OK;
        };
        if (cause.target == Target::sqlite_memory)
            _memory.refuse(nth, lasts);
    }

    // False when the work has failed or was left by an exception.
    template <typename Work> bool letDo(Work work)
    {
#ifdef TEST_HEAP
        test::MemoryShortage heap(_cause.target == Target::heap ? _left : most_points, _lasts);
#endif
        _watches = true;
        _memory.watch(_cause.target == Target::sqlite_memory);
        bool isDone = false;
        try {
            isDone = work();
        } catch (const std::bad_alloc&) {
            _passedOn = true;
        }
        _watches = false;
        _memory.watch(false);
#ifdef TEST_HEAP
        if (_cause.target == Target::heap)
            _left -= heap.allocations();
#endif
        return isDone;
    }

    bool hasStruck() const
    {
        return _cause.target == Target::sqlite_memory ? _memory.hasRefused() : _left <= 0;
    }

    bool isPassedOn() const
    {
        return _passedOn;
    }

private:
    bool strikes()
    {
        if (!_watches)
            return false;
        --_left;
        return _left == 0 || (_left < 0 && _lasts);
    }

    const Cause& _cause;
    int _left;
    const bool _lasts;
    bool _watches = false;
    bool _passedOn = false;
    test::SqliteMemory _memory;
    test::FaultVfs _vfs;
};

// --- What is done

bool fill(void* buffer, std::size_t size)
{
    std::memset(buffer, 'b', size);
    return true;
}

bool isOld(sql::Bytes piece)
{
    return std::string(static_cast<const char*>(piece.data), piece.size)
           == std::string(piece.size, 'a');
}

bool store(sql::Database& database)
{
    sql::Transaction transaction(database, sql::begin_immediate);
    sql::Statement add(database, "insert into file (id, content) values (2, zeroblob(?))");
    if (!transaction.isOpen() || !add.run(new_size))
        return false;
    Blob blob(database, "file", "content", 2, sql::blob_write);
    return blob.writeAll(fill) && blob.release() && transaction.commit();
}

bool overwrite(sql::Database& database)
{
    Blob blob(database, "file", "content", 1, sql::blob_write);
    return blob.writeAll(fill) && blob.release();
}

bool fetch(sql::Database& database)
{
    Blob blob(database, "file", "content", 1, sql::blob_read);
    return blob.readAll(isOld) && blob.release();
}

struct Work : test::Case {
    bool (*run)(sql::Database& database);
};

const Work works[] = {{"Store", store}, {"Overwrite", overwrite}, {"Fetch", fetch}};

// --- What comes of it

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("faults: %d, %d of them without effect, %d told too late; power cuts: %d\n",
                    faults, harmless, late, cuts);
    }

    int faults = 0;
    int harmless = 0;
    int late = 0;
    int cuts = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

class StorageFaultTest : public testing::TestWithParam<std::tuple<Work, Cause>> {
protected:
    StorageFaultTest()
    {
        test::Connection(_pattern).run("create table file (id integer primary key, content);"
                                       "insert into file values (1, cast(replace(hex(zeroblob("
                                       + std::to_string(old_size / 2) + ")), '0', 'a') as blob))");
        _before = contents(_pattern);
        test::writeFile(_file, test::readFile(_pattern));
        sql::Database database;
        EXPECT_TRUE(database.open(_file, sql::Database::access_read_write, false, 0));
        EXPECT_TRUE(std::get<0>(GetParam()).run(database));
        database.close();
        _after = contents(_file);
    }

    static std::string contents(const std::string& file)
    {
        test::Connection db(file);
        EXPECT_EQ(db.rows("pragma integrity_check"), "ok");
        return db.rows("select id, length(content), cast(content as text) from file");
    }

    // Whether there was something to strike at.
    bool workWithFault(int nth, bool lasts)
    {
        test::writeFile(_file, test::readFile(_pattern));
        bool hasStruck = false;
        bool isDone = false;
        {
            Trouble trouble(std::get<1>(GetParam()), nth, lasts);
            test::Diagnostics diagnostics;
            sql::Database database;
            EXPECT_TRUE(database.open(_file, sql::Database::access_read_write, false, 0));
            sql::queryNumber(database.getHandle(), "pragma cache_size = 10");
            diagnostics.clear();
            isDone = trouble.letDo([&] { return std::get<0>(GetParam()).run(database); });
            hasStruck = trouble.hasStruck();
            // Silence means that it is done, or that nobody had memory to tell more.
            EXPECT_TRUE(isDone || trouble.isPassedOn() || !diagnostics.errors().empty());
            EXPECT_TRUE(isDone || hasStruck);
            EXPECT_THAT(diagnostics.assertions(), IsEmpty());
            EXPECT_EQ(sqlite3_get_autocommit(database.getHandle()), 1);
            diagnostics.clear();
            database.close();
            EXPECT_THAT(diagnostics.events(), IsEmpty()); // nothing is left over
        }
        const std::string now = contents(_file);
        const bool isLate = !isDone && now != _before;
        EXPECT_EQ(now, isDone || isLate ? _after : _before);
        figures.faults += hasStruck;
        figures.harmless += hasStruck && isDone;
        figures.late += isLate;
        return hasStruck;
    }

    const test::TemporaryDirectory _directory;
    const std::string _pattern = _directory.file("pattern.db");
    const std::string _file = _directory.file("files.db");
    std::string _before;
    std::string _after;
};

TEST_P(StorageFaultTest, BlobIsStoredOrNotAndNothingInBetween)
{
    const int stride = test::stride(5);
    for (const bool lasts : {false, true}) {
        for (int nth = 1; nth < most_points && !HasFailure(); nth += nth < 20 ? 1 : stride) {
            if (!workWithFault(nth, lasts))
                break;
            if (HasFailure())
                std::printf("fault %d, %s\n", nth, lasts ? "lasting" : "once");
        }
    }
}

std::string nameOfCase(const testing::TestParamInfo<StorageFaultTest::ParamType>& chosen)
{
    return std::get<0>(chosen.param).name + std::get<1>(chosen.param).name;
}

INSTANTIATE_TEST_SUITE_P(Works, StorageFaultTest, Combine(ValuesIn(works), ValuesIn(causes)),
                         nameOfCase);

#if SQLITE_VERSION_NUMBER >= 3031000 // there are generated columns
TEST(BlobMemoryTest, GeneratedColumnsAreNotOverlookedForWantOfMemory)
{
    test::SqliteMemory memory;
    int nth = 0;
    do {
        test::Diagnostics diagnostics;
        sql::Database database;
        EXPECT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
        test::run(database.getHandle(),
                  "create table made (content, first as (substr(content, 1, 1)));"
                  "insert into made values ('text')");
        memory.refuse(++nth, false);
        memory.watch(true);
        const Blob blob(database, "made", "content", 1, sql::blob_read);
        memory.watch(false);
        EXPECT_FALSE(blob.isOpen());
        EXPECT_TRUE(blob.error());
    } while (memory.hasRefused() && nth < most_points && !HasFailure());
    EXPECT_GT(nth, 5);
}
#endif

// --- Power cuts

struct Journal : test::Case {
    std::string setting;
};

class BlobCutTest : public testing::TestWithParam<std::tuple<Work, Journal>> {
protected:
    static bool work(const std::string& file)
    {
        sql::Database database;
        if (!database.open(file, sql::Database::access_create, false, 0))
            return false;
        test::run(database.getHandle(), "pragma cache_size = 10; " + setting());
        return std::get<0>(GetParam()).run(database);
    }

    void removeFiles() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            std::filesystem::remove(entry.path());
    }

    // What is left when the power fails before each call that changes something, and in the end.
    std::vector<test::Files> lossesOf(unsigned int seed) const
    {
        removeFiles();
        std::vector<test::Files> losses;
        test::Disk disk({"", 512, true});
        std::mt19937 random(seed);
        bool isFilled = false;
        test::FaultVfs vfs;
        vfs.pretendDisk(512, SQLITE_IOCAP_POWERSAFE_OVERWRITE);
        vfs.before = [&](const test::FileAccess& access) {
            if (isFilled && test::changesDisk(access))
                losses.push_back(disk.afterPowerLoss(random));
            return SQLITE_OK;
        };
        vfs.after = [&](const test::FileAccess& access) {
            disk.take(access);
        };
        test::Connection(_file).run(
            setting()
            + "; create table file (id integer primary key, content);"
              "insert into file values (1, cast(replace(hex(zeroblob(10000)), '0', 'a') as blob))");
        isFilled = true;
        EXPECT_TRUE(work(_file));
        losses.push_back(disk.afterPowerLoss(random));
        return losses;
    }

    std::string contents() const
    {
        test::Connection db(_file);
        EXPECT_EQ(db.rows("pragma integrity_check"), "ok");
        return db.rows("select id, length(content), cast(content as text) from file");
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("files.db");

private:
    static const std::string& setting()
    {
        return std::get<1>(GetParam()).setting;
    }
};

TEST_P(BlobCutTest, PowerCutAtEveryWriteLeavesTheOldBlobsOrTheNew)
{
    const unsigned int seeds = test::longRun() ? 10 : 1;
    for (unsigned int seed = 1; seed <= seeds && !HasFailure(); ++seed) {
        const std::vector<test::Files> losses = lossesOf(seed);
        EXPECT_GT(losses.size(), 20U);
        const std::string after = contents();
        std::string before;
        const std::size_t stride = losses.size() > 100 ? test::stride(5) : 1;
        for (std::size_t i = 0; i < losses.size() && !HasFailure(); i += stride) {
            removeFiles();
            for (const auto& [path, bytes] : losses[i])
                test::writeFile(path, bytes);
            const std::string there = contents();
            if (i == 0)
                before = there;
            EXPECT_THAT(there, testing::AnyOf(before, after)) << "before call " << i;
            ++figures.cuts;
        }
        EXPECT_NE(before, after);
    }
}

const Journal journals[] = {
    {"RemovedAndSyncedJournal", "pragma synchronous = extra"},
    {"WriteAheadLog", "pragma journal_mode = wal; pragma synchronous = full"},
};

INSTANTIATE_TEST_SUITE_P(Journals, BlobCutTest,
                         Combine(testing::Values(works[0], works[1]), ValuesIn(journals)),
                         [](const auto& chosen) {
                             return std::get<0>(chosen.param).name + std::get<1>(chosen.param).name;
                         });

} // namespace
