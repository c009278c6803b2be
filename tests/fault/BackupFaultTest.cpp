#include "SqlBackup.h"

#include "Cases.h"
#include "Diagnostics.h"
#include "Disk.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "Sqlite.h"
#include "SqliteMemory.h"

#include <gmock/gmock.h>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

// A call by which the library itself changes files: a power cut comes before it, or it fails.
struct SystemCall {
    const char* name;
    std::string path;
    std::string other; // to which it gives another name
};

// What an answer other than 0 is becomes the call's failure.
std::function<int(const SystemCall&)> onCall;

bool fails(const SystemCall& call)
{
    errno = onCall ? onCall(call) : 0;
    return errno != 0;
}

std::string pathOf(int descriptor)
{
    return "/proc/self/fd/" + std::to_string(descriptor);
}

std::string nameOf(int descriptor)
{
    std::error_code ignored;
    return std::filesystem::read_symlink(pathOf(descriptor), ignored);
}

template <typename Function> Function* next(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

// In place of the system's. Nothing waits for the disk.
extern "C" {
int fsync(int descriptor)
{
    return fails({"fsync", nameOf(descriptor), ""}) ? -1 : 0;
}

int ftruncate(int descriptor, off_t size) noexcept
{
    if (fails({"ftruncate", nameOf(descriptor), ""}))
        return -1;
    return ::truncate(pathOf(descriptor).c_str(), size);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to,
              unsigned int flags) noexcept
{
    static auto* const real = next<decltype(renameat2)>("renameat2");
    return fails({"renameat2", from, to}) ? -1 : real(fromFolder, from, toFolder, to, flags);
}

int link(const char* from, const char* to) noexcept
{
    static auto* const real = next<decltype(link)>("link");
    return fails({"link", from, to}) ? -1 : real(from, to);
}

int rename(const char* from, const char* to) noexcept
{
    static auto* const real = next<decltype(rename)>("rename");
    return fails({"rename", from, to}) ? -1 : real(from, to);
}
}

namespace {

using test::FileAccess;
using test::FileCall;
using testing::AnyOf;
using testing::Eq;

// What is done, from one file to the other, and what the target is before.
struct Job : test::Case {
    bool restores;
    const char* targetMode; // null for no target
};

const Job jobs[] = {
    {"NewFile", false, nullptr},
    {"ExistingFile", false, "delete"},
    {"ExistingFileWithALog", false, "wal"},
    {"Restore", true, "delete"},
    {"RestoreWithALog", true, "wal"},
};

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("faults: %d, %d of them without effect; kills: %d; power cuts: %d\n", faults,
                    harmless, kills, cuts);
    }

    int faults = 0;
    int harmless = 0;
    int kills = 0;
    int cuts = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

class BackupFaultTest : public testing::TestWithParam<Job> {
protected:
    BackupFaultTest()
    {
        makeFiles();
        _sourceBytes = test::readFile(_source);
        _targetBytes = hasTarget() ? test::readFile(_target) : "";
        _new = contents(_source);
        _old = hasTarget() ? contents(_target) : "";
    }

    void clear() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            std::filesystem::remove(entry.path());
    }

    void makeFiles() const
    {
        make(_source, "new", 60, "delete");
        if (hasTarget())
            make(_target, "old", 90, GetParam().targetMode);
    }

    void setUp() const
    {
        clear();
        test::writeFile(_source, _sourceBytes);
        if (hasTarget())
            test::writeFile(_target, _targetBytes);
    }

    // Whether it succeeded.
    bool run(const std::function<void(const sql::Error&)>& onFailure = nullptr) const
    {
        const Job& job = GetParam();
        sql::Database database;
        if (!database.open(job.restores ? _target : _source, sql::Database::access_read_write,
                           false, 0))
            return false;
        _starts();
        const auto pages = job.restores ? sql::restoreDatabase(database, _source)
                                        : sql::backupDatabase(database, _target);
        _ends();
        if (!pages && onFailure)
            onFailure(pages.error());
        return static_cast<bool>(pages);
    }

    // The target is the old one or the new one, whole; nothing is half done where nobody was killed.
    void expectWhole(bool isDone, bool wasKilled) const
    {
        EXPECT_EQ(contents(_source), _new);
        const std::string now = std::filesystem::exists(_target) ? contents(_target) : "";
        EXPECT_THAT(now, AnyOf(Eq(_new), Eq(isDone ? _new : _old)));
        EXPECT_TRUE(wasKilled || !std::filesystem::exists(_target + "-unfinished"));
    }

    // And the next time it is done.
    void expectDoneNextTime() const
    {
        const test::Diagnostics diagnostics;
        EXPECT_TRUE(run());
        EXPECT_THAT(diagnostics.events(), testing::IsEmpty());
        expectWhole(true, false);
    }

    // Two lines, of which the second has the reason.
    static void expectOneReport(const test::Diagnostics& diagnostics, const sql::Error& error)
    {
        const std::vector<std::string> lines = diagnostics.errors();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[1], "  rc=" + std::to_string(error.extendedCode()) + "=" + error.name()
                                + ": " + error.text());
    }

    static std::string contents(const std::string& file)
    {
        test::Connection reader(file);
        return reader.rows("pragma integrity_check") + " "
               + reader.rows(
                   "select count(*), sum(id), sum(substr(name, 4) = printf('%0200d', id)),"
                   " min(substr(name, 1, 3)), max(substr(name, 1, 3)) from product");
    }

    bool hasTarget() const
    {
        return GetParam().targetMode != nullptr;
    }

    mutable std::function<void()> _starts = [] {
    };
    mutable std::function<void()> _ends = [] {
    };

private:
    static void make(const std::string& file, const std::string& name, int rows,
                     const std::string& mode)
    {
        test::Connection maker(file);
        maker.run("pragma page_size = 1024; create table product (id integer primary key, name);"
                  "insert into product with recursive n (i) as (select 1 union all"
                  " select i + 1 from n limit "
                  + std::to_string(rows) + ") select i, '" + name
                  + "' || printf('%0200d', i) from n; pragma journal_mode = " + mode);
    }

    const test::TemporaryDirectory _directory;
    const std::string _source = _directory.file("source.db");
    const std::string _target = _directory.file("target.db");
    std::string _sourceBytes;
    std::string _targetBytes;
    std::string _old;
    std::string _new;
};

TEST_P(BackupFaultTest, FaultOfTheDiskLeavesTheOldFileOrTheNew)
{
    const int stride = test::stride(3);
    for (const int code : {SQLITE_IOERR, SQLITE_FULL}) {
        bool hasStruck = true;
        for (int nth = 1; hasStruck && !HasFailure(); nth += stride) {
            setUp();
            hasStruck = false;
            {
                test::Diagnostics diagnostics;
                bool isDone = false;
                {
                    test::FaultVfs vfs;
                    int left = nth;
                    _starts = [&] {
                        vfs.before = [&](const FileAccess& access) {
                            if ((code == SQLITE_FULL && access.call != FileCall::write)
                                || --left != 0)
                                return SQLITE_OK;
                            hasStruck = true;
                            return code;
                        };
                    };
                    _ends = [&] {
                        vfs.before = nullptr;
                    };
                    isDone = run([&](const sql::Error& error) {
                        expectOneReport(diagnostics, error);
                        EXPECT_TRUE(error.isFull() || code != SQLITE_FULL) << error.text();
                    });
                }
                _starts = _ends = [] {
                };
                expectWhole(isDone, false);
                figures.faults += hasStruck;
                figures.harmless += hasStruck && isDone;
            }
            expectDoneNextTime();
            if (HasFailure())
                std::printf("code %d at call %d\n", code, nth);
        }
    }
}

TEST_P(BackupFaultTest, WithoutMemoryTheFileIsTheOldOneOrTheNew)
{
    const int stride = test::stride(7);
    bool hasStruck = true;
    for (int nth = 1; hasStruck && !HasFailure(); nth += stride) {
        setUp();
        {
            test::Diagnostics diagnostics;
            bool isDone = false;
            {
                test::SqliteMemory memory;
                memory.refuse(nth, false);
                _starts = [&memory] {
                    memory.watch(true);
                };
                _ends = [&memory] {
                    memory.watch(false);
                };
                isDone = run([&](const sql::Error& error) {
                    expectOneReport(diagnostics, error);
                    EXPECT_TRUE(error.isNoMemory()) << error.text();
                });
                hasStruck = memory.hasRefused();
            }
            _starts = _ends = [] {
            };
            expectWhole(isDone, false);
            figures.faults += hasStruck;
            figures.harmless += hasStruck && isDone;
        }
        expectDoneNextTime();
        if (HasFailure())
            std::printf("at allocation %d\n", nth);
    }
}

// At each call into the file system: what is in the file then is what others find.
TEST_P(BackupFaultTest, KilledProgramLeavesTheOldFileOrTheNew)
{
    const int stride = test::stride(9);
    bool wasKilled = true;
    for (int nth = 1; wasKilled && !HasFailure(); nth += stride) {
        setUp();
        const ::pid_t child = ::fork();
        if (child == 0) {
            const test::Diagnostics diagnostics;
            test::FaultVfs vfs;
            int left = nth;
            vfs.before = [&left](const FileAccess&) {
                if (--left == 0)
                    ::_exit(9);
                return SQLITE_OK;
            };
            ::_exit(run() ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_THAT(WEXITSTATUS(status), AnyOf(0, 9));
        wasKilled = WEXITSTATUS(status) == 9;
        figures.kills += wasKilled;
        expectWhole(!wasKilled, wasKilled);
        expectDoneNextTime();
        if (HasFailure())
            std::printf("at call %d\n", nth);
    }
}

// --- Power cuts

class BackupCutTest : public BackupFaultTest {
protected:
    // What is left when the power fails before each nth call that changes something, and in the end.
    std::vector<test::Files> lossesOf(const test::DiskKind& kind, unsigned int seed, int stride)
    {
        clear();
        std::vector<test::Files> losses;
        test::Disk disk(kind);
        std::mt19937 random(seed);
        int calls = 0;
        const auto cut = [&] {
            if (++calls % stride == 0)
                losses.push_back(disk.afterPowerLoss(random));
        };
        test::FaultVfs vfs;
        vfs.pretendDisk(kind.sectorSize,
                        kind.sparesNeighbours ? SQLITE_IOCAP_POWERSAFE_OVERWRITE : 0);
        vfs.after = [&disk](const FileAccess& access) {
            if (access.call == FileCall::open && isUnfinished(access.path))
                disk.make(access.path); // which the library has made
            else
                disk.take(access);
        };
        makeFiles();
        disk.syncNames();
        vfs.before = [&](const FileAccess& access) {
            if (test::changesDisk(access))
                cut();
            return SQLITE_OK;
        };
        onCall = [&](const SystemCall& call) {
            cut();
            note(call, disk);
            return 0;
        };
        EXPECT_TRUE(run());
        onCall = nullptr;
        losses.push_back(disk.afterPowerLoss(random));
        return losses;
    }

    void putBack(const test::Files& files) const
    {
        clear();
        for (const auto& [path, bytes] : files)
            test::writeFile(path, bytes);
    }

private:
    static bool isUnfinished(const std::string& path)
    {
        const std::string ending = "-unfinished";
        return path.size() > ending.size()
               && path.compare(path.size() - ending.size(), ending.size(), ending) == 0;
    }

    // SQLite's own calls are in what the file system tells.
    static void note(const SystemCall& call, test::Disk& disk)
    {
        if (!call.other.empty())
            disk.rename(call.path, call.other);
        else if (std::string(call.name) == "fsync" && isUnfinished(call.path))
            disk.sync(call.path);
        else if (std::filesystem::is_directory(call.path))
            disk.syncNames();
    }
};

TEST_P(BackupCutTest, PowerCutAtEveryWriteLeavesTheOldFileOrTheNew)
{
    const unsigned int seeds = test::longRun() ? 20 : 1;
    for (const test::DiskKind& kind : test::disks) {
        for (unsigned int seed = 1; seed <= seeds && !HasFailure(); ++seed) {
            const std::vector<test::Files> losses = lossesOf(kind, seed, test::stride(3));
            for (std::size_t i = 0; i < losses.size() && !HasFailure(); ++i) {
                putBack(losses[i]);
                expectWhole(i + 1 == losses.size(), true);
                expectDoneNextTime();
                ++figures.cuts;
                if (HasFailure())
                    std::printf("%s, seed %u, before call %zu\n", kind.name.c_str(), seed, i);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Jobs, BackupCutTest, testing::ValuesIn(jobs), test::NameOfCase());

INSTANTIATE_TEST_SUITE_P(Jobs, BackupFaultTest, testing::ValuesIn(jobs), test::NameOfCase());

} // namespace
