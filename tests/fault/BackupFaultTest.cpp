#include "SqlBackup.h"

#include "SqlStopFlag.h"

#include "Cases.h"
#include "Diagnostics.h"
#include "Disk.h"
#include "Environment.h"
#include "FaultVfs.h"
#ifdef TEST_HEAP
#include "Heap.h"
#endif
#include "Reports.h"
#include "Sqlite.h"
#include "SqliteMemory.h"
#include "SystemCalls.h"

#include <gmock/gmock.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <new>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

bool hasLocales = true;

} // namespace

// Found before the C library's own.
extern "C" ::locale_t newlocale(int mask, const char* name, ::locale_t base) noexcept
{
    static auto* const real = reinterpret_cast<decltype(newlocale)*>(
        ::dlsym(RTLD_NEXT, "newlocale"));
    return hasLocales ? real(mask, name, base) : nullptr;
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
    const char* sourceMode = "delete";
    const char* sourceEncoding = "UTF-8";
};

const Job jobs[] = {
    {"NewFile", false, nullptr},
    {"NewFileOfALog", false, nullptr, "wal"},
    {"ExistingFile", false, "delete"},
    {"ExistingFileWithALog", false, "wal"},
    {"Restore", true, "delete"},
    {"RestoreWithALog", true, "wal"},
    {"NewFileInUtf16", false, nullptr, "delete", "UTF-16"},
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
        make(_source, "new", 60, GetParam().sourceMode, GetParam().sourceEncoding);
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
        if (now == _new && !hasTarget()) { // and stands alone
            EXPECT_EQ(test::readFile(_target).substr(18, 2), "\1\1");
        }
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

    const test::TemporaryDirectory _directory;
    const std::string _source = _directory.file("source.db");
    const std::string _target = _directory.file("target.db");

private:
    static void make(const std::string& file, const std::string& name, int rows,
                     const std::string& mode, const std::string& encoding = "UTF-8")
    {
        test::Connection maker(file);
        maker.run(
            "pragma encoding = '" + encoding
            + "'; pragma page_size = 1024; create table product (id integer primary key, name);"
              "insert into product with recursive n (i) as (select 1 union all"
              " select i + 1 from n limit "
            + std::to_string(rows) + ") select i, '" + name
            + "' || printf('%0200d', i) from n; pragma journal_mode = " + mode);
    }

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

#ifdef TEST_HEAP
TEST_P(BackupFaultTest, WithoutHeapTheFileIsTheOldOneOrTheNew)
{
    for (const bool lasts : {false, true}) {
        bool hasStruck = true;
        long blocks = 0;
        for (int nth = 1; hasStruck && !HasFailure(); ++nth) {
            setUp();
            {
                const test::Diagnostics diagnostics;
                test::MemoryShortage heap(nth, lasts);
                heap.watch(false);
                _starts = [&heap] {
                    heap.watch(true);
                };
                _ends = [&heap] {
                    heap.watch(false);
                };
                bool isDone = false;
                bool hasThrown = false;
                try {
                    isDone = run();
                } catch (const std::bad_alloc&) {
                    heap.watch(false);
                    hasThrown = true;
                }
                hasStruck = heap.hasStruck();
                _starts = _ends = [] {
                };
                EXPECT_EQ(hasThrown, hasStruck);
                EXPECT_EQ(isDone, !hasStruck);
                expectWhole(isDone, false);
                figures.faults += hasStruck;
            }
            expectDoneNextTime();
            EXPECT_TRUE(nth == 1 || test::heapBlocksInUse() == blocks)
                << test::heapBlocksInUse() - blocks;
            blocks = test::heapBlocksInUse();
            if (HasFailure())
                std::printf("at allocation %d%s\n", nth, lasts ? " and all behind it" : "");
        }
    }
}
#endif

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
            test::SystemCalls calls;
            vfs.before = [&left](const FileAccess&) {
                if (--left == 0)
                    ::_exit(9);
                return SQLITE_OK;
            };
            calls.before = [&left](const test::SystemCall&) {
                if (--left == 0)
                    ::_exit(9);
                return 0;
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

TEST_P(BackupFaultTest, KilledAtAnyMomentTheProgramLeavesTheOldFileOrTheNew)
{
    std::mt19937 random(5);
    const int count = test::longRun() ? 200 : test::briefRun() ? 2 : 10;
    for (int i = 0; i < count && !HasFailure(); ++i) {
        setUp();
        const ::pid_t child = ::fork();
        if (child == 0)
            ::_exit(run() ? 0 : 1);
        ::usleep(static_cast<::useconds_t>(random() % 5000));
        EXPECT_EQ(child > 0 ? ::kill(child, SIGKILL) : -1, 0);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) || status == 0) << "it has failed";
        figures.kills += WIFSIGNALED(status) ? 1 : 0;
        expectWhole(!WIFSIGNALED(status), WIFSIGNALED(status));
        expectDoneNextTime();
    }
}

// Without them it is not known to be the job's own, or cannot be removed.
const std::set<std::string> leavesTheCopy = {"flock", "fstat", "lstat", "unlink"};

// Those that are made past SQLite.
TEST_P(BackupFaultTest, FaultOfTheSystemLeavesTheOldFileOrTheNew)
{
    for (const int code : {EIO, ENOSPC, EACCES, EINVAL}) {
        bool hasStruck = true;
        for (int nth = 1; hasStruck && !HasFailure(); ++nth) {
            setUp();
            hasStruck = false;
            test::SystemCall struck;
            {
                test::Diagnostics diagnostics;
                test::SystemCalls calls;
                int left = nth;
                _starts = [&] {
                    calls.before = [&](const test::SystemCall& call) {
                        if (--left != 0)
                            return 0;
                        hasStruck = true;
                        struck = call;
                        return code;
                    };
                };
                _ends = [&] {
                    calls.before = nullptr;
                };
                const bool isDone = run(
                    [&](const sql::Error& error) { expectOneReport(diagnostics, error); });
                _starts = _ends = [] {
                };
                expectWhole(isDone, leavesTheCopy.count(struck.name) != 0);
                figures.faults += hasStruck;
                figures.harmless += hasStruck && isDone;
            }
            expectDoneNextTime();
            if (HasFailure())
                std::printf("%s at call %d: %s(%s)\n", ::strerror(code), nth, struck.name.c_str(),
                            struck.path.c_str());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Jobs, BackupFaultTest, testing::ValuesIn(jobs), test::NameOfCase());

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
        int changes = 0;
        const auto cut = [&] {
            if (++changes % stride == 0)
                losses.push_back(disk.afterPowerLoss(random));
        };
        test::FaultVfs vfs;
        vfs.pretendDisk(kind.sectorSize,
                        kind.sparesNeighbours ? SQLITE_IOCAP_POWERSAFE_OVERWRITE : 0);
        vfs.after = [&disk](const FileAccess& access) {
            disk.take(access);
        };
        makeFiles();
        disk.syncNames();
        vfs.before = [&](const FileAccess& access) {
            if (test::changesDisk(access))
                cut();
            return SQLITE_OK;
        };
        test::SystemCalls calls;
        calls.before = [&](const test::SystemCall& call) {
            if (changesDisk(call))
                cut();
            return 0;
        };
        calls.after = [&](const test::SystemCall& call) {
            if (changesDisk(call))
                note(call, disk);
        };
        EXPECT_TRUE(run());
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
    static bool changesDisk(const test::SystemCall& call)
    {
        return call.name == "open"
                   ? (call.flags & O_CREAT) != 0
                   : call.name.find("stat") == std::string::npos && call.name != "flock";
    }

    static void note(const test::SystemCall& call, test::Disk& disk)
    {
        const char* const path = call.path.c_str();
        if (call.name == "open")
            disk.make(call.path);
        else if (call.name == "ftruncate")
            disk.take({FileCall::truncate, path, 0, 0, nullptr, 0});
        else if (call.name == "unlink")
            disk.take({FileCall::remove, path, 0, 0, nullptr, 0});
        else if (call.name == "renameat2")
            disk.rename(call.path, call.newPath);
        else if (std::filesystem::is_directory(call.path))
            disk.syncNames();
        else
            disk.sync(call.path);
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

// --- What the system refuses

struct Refusal : test::Case {
    // Of calls: "renameat2", "fsync /" for that of a folder, "lstat 2" for the second one.
    std::map<std::string, int> errors;
    std::string where; // behind the target's name; "/" for the folder
    std::string code;
    std::string reason;
};

long openFiles()
{
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::distance(begin(files), end(files));
}

class BackupRefusalTest : public testing::TestWithParam<Refusal> {
protected:
    BackupRefusalTest()
    {
        test::Connection(_file).run("create table product (id, name)");
        EXPECT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
        _calls.before = [this](const test::SystemCall& call) {
            const bool isFolder = std::filesystem::is_directory(call.path);
            const std::string which = call.name + (isFolder ? " /" : "");
            const std::map<std::string, int>& errors = GetParam().errors;
            auto found = errors.find(which + " " + std::to_string(++_counts[which]));
            if (found == errors.end())
                found = errors.find(which);
            return found != errors.end() ? found->second : 0;
        };
    }

    std::set<std::string> files() const
    {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            names.insert(entry.path().filename());
        return names;
    }

    std::string where() const
    {
        return GetParam().where == "/" ? _directory.file("") : _target + GetParam().where;
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("shop.db");
    const std::string _target = _directory.file("copy.db");
    test::Diagnostics _diagnostics;
    sql::Database _database;
    std::map<std::string, int> _counts;
    test::SystemCalls _calls;
};

TEST_P(BackupRefusalTest, IsSaidAndLeavesNoFile)
{
    const long open = openFiles();
    const auto pages = sql::backupDatabase(_database, _target);
    EXPECT_EQ(openFiles(), open);
    ASSERT_TRUE(pages.failed());
    const std::string text = where() + ": " + GetParam().reason;
    EXPECT_EQ(pages.error().text(), text);
    EXPECT_EQ(_diagnostics.events(),
              test::visibleAt(3, test::report::statementFailed("backupDatabase", "backupDatabase",
                                                               GetParam().code + ": " + text)));
    std::set<std::string> expected = {"shop.db"};
    const std::map<std::string, int>& errors = GetParam().errors;
    if (errors.count("flock") + errors.count("fstat") + errors.count("lstat 6") != 0)
        expected.insert("copy.db-unfinished"); // which the next one takes over
    EXPECT_EQ(files(), expected);
}

const char full[] = "13=SQLITE_FULL";
const char not_opened[] = "14=SQLITE_CANTOPEN";
const char no_access[] = "Permission denied";
const char no_space[] = "No space left on device";

const Refusal refusals[] = {
    {"LookNoAccess", {{"lstat", EACCES}}, "", not_opened, no_access},
    {"OpenNoAccess", {{"open", EACCES}}, "-unfinished", not_opened, no_access},
    {"OpenNoSpace", {{"open", ENOSPC}}, "-unfinished", full, no_space},
    {"OpenQuota", {{"open", EDQUOT}}, "-unfinished", full, "Disk quota exceeded"},
    {"OpenReadOnly",
     {{"open", EROFS}},
     "-unfinished",
     "8=SQLITE_READONLY",
     "Read-only file system"},
    {"LockTaken",
     {{"flock", EWOULDBLOCK}},
     "-unfinished",
     "5=SQLITE_BUSY",
     "another backup is being made"},
    {"LockMissing",
     {{"flock", ENOLCK}},
     "-unfinished",
     "3850=SQLITE_IOERR_LOCK",
     "No locks available"},
    {"LookAtOpened",
     {{"fstat", EIO}},
     "-unfinished",
     "3850=SQLITE_IOERR_LOCK",
     "Input/output error"},
    {"Truncate",
     {{"ftruncate", EIO}},
     "-unfinished",
     "1546=SQLITE_IOERR_TRUNCATE",
     "Input/output error"},
    {"Sync", {{"fsync", EIO}}, "-unfinished", "1034=SQLITE_IOERR_FSYNC", "Input/output error"},
    {"SyncNoSpace", {{"fsync", ENOSPC}}, "-unfinished", full, no_space},
    {"RenameTaken", {{"renameat2", EEXIST}}, "", not_opened, "File exists"},
    {"RenameNoSpace", {{"renameat2", ENOSPC}}, "", full, no_space},
    {"LinkTaken", {{"renameat2", EINVAL}, {"link", EEXIST}}, "", not_opened, "File exists"},
    {"NoOtherWay",
     {{"renameat2", ENOSYS}, {"link", EPERM}, {"rename", EACCES}},
     "",
     not_opened,
     no_access},
    {"LookForAnother",
     {{"renameat2", ENOSYS}, {"link", EPERM}, {"lstat 10", EIO}},
     "",
     not_opened,
     "Input/output error"},
    {"LookAtLocked",
     {{"lstat 6", EIO}},
     "-unfinished",
     "3850=SQLITE_IOERR_LOCK",
     "Input/output error"},
    {"OpenFolder", {{"open /", EMFILE}}, "/", "1290=SQLITE_IOERR_DIR_FSYNC", "Too many open files"},
    {"SyncFolder", {{"fsync /", EIO}}, "/", "1290=SQLITE_IOERR_DIR_FSYNC", "Input/output error"},
};

INSTANTIATE_TEST_SUITE_P(Refusals, BackupRefusalTest, testing::ValuesIn(refusals),
                         test::NameOfCase());

class BackupOtherWayTest : public BackupRefusalTest {};

TEST_P(BackupOtherWayTest, IsTakenWhereTheFileSystemKnowsNoBetter)
{
    const long open = openFiles();
    EXPECT_TRUE(sql::backupDatabase(_database, _target));
    EXPECT_EQ(openFiles(), open);
    EXPECT_EQ(test::Connection(_target).rows("pragma integrity_check"), "ok");
    _calls.before = nullptr;
    std::set<std::string> expected = {"copy.db", "shop.db"};
    if (GetParam().errors.count("unlink") != 0)
        expected.insert("copy.db-unfinished");
    EXPECT_EQ(files(), expected);
    EXPECT_TRUE(sql::backupDatabase(_database, _target)); // and removes what was left
    EXPECT_EQ(files(), (std::set<std::string>{"copy.db", "shop.db"}));
    EXPECT_EQ(test::Connection(_target).rows("pragma integrity_check"), "ok");
    EXPECT_THAT(_diagnostics.events(), testing::IsEmpty());
}

const Refusal other_ways[] = {
    {"Link", {{"renameat2", EINVAL}}, "", "", ""},
    {"LinkOnOldKernel", {{"renameat2", ENOSYS}}, "", "", ""},
    {"LinkThatStays", {{"renameat2", EINVAL}, {"unlink", EIO}}, "", "", ""},
    {"Rename", {{"renameat2", EINVAL}, {"link", EPERM}}, "", "", ""},
};

INSTANTIATE_TEST_SUITE_P(Ways, BackupOtherWayTest, testing::ValuesIn(other_ways),
                         test::NameOfCase());

// --- What others do at the wrong moment

class BackupMomentTest : public testing::Test {
protected:
    BackupMomentTest()
    {
        test::Connection(_file).run("create table product (id, name)");
        EXPECT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
    }

    // What happens before the first call of a name; its answer is that call's errno.
    void before(const std::string& name, const std::function<int()>& happens)
    {
        _calls.before = [=, isDone = false](const test::SystemCall& call) mutable {
            const bool isMeant = (call.name == name && !isDone)
                                 || call.name + " " + call.path == name;
            isDone = isDone || isMeant;
            return isMeant ? happens() : 0;
        };
    }

    void expectBackup()
    {
        EXPECT_TRUE(sql::backupDatabase(_database, _target));
        EXPECT_EQ(test::Connection(_target).rows("select count(*) from product"), "0");
        EXPECT_THAT(_diagnostics.events(), testing::IsEmpty());
    }

    void expectFailure(const std::string& where, int code, const std::string& reason)
    {
        const auto pages = sql::backupDatabase(_database, _target);
        ASSERT_TRUE(pages.failed());
        EXPECT_EQ(pages.error().text(), where + ": " + reason);
        EXPECT_EQ(pages.error().extendedCode(), code);
        EXPECT_EQ(_diagnostics.errors().size(), 2U);
    }

    std::set<std::string> files() const
    {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            names.insert(entry.path().filename());
        return names;
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("shop.db");
    const std::string _target = _directory.file("copy.db");
    const std::string _unfinished = _target + "-unfinished";
    test::Diagnostics _diagnostics;
    sql::Database _database;
    test::SystemCalls _calls;
};

// Another one, which has had the lock, removes the copy on its way, or makes one of its own.
TEST_F(BackupMomentTest, CopyThatHasLostItsNameBeforeItIsLockedIsMadeAnew)
{
    for (const bool isReplaced : {false, true}) {
        int locks = 0;
        _calls.before = [&](const test::SystemCall& call) {
            if (call.name != "flock" || ++locks > 1)
                return 0;
            std::filesystem::remove(_unfinished);
            if (isReplaced)
                test::writeFile(_unfinished, "");
            return 0;
        };
        expectBackup();
        EXPECT_EQ(locks, 2);
        EXPECT_EQ(files(), (std::set<std::string>{"copy.db", "shop.db"}));
        std::filesystem::remove(_target);
    }
}

TEST_F(BackupMomentTest, NameThatIsTakenMeanwhileIsNotOverwritten)
{
    for (const bool knowsLinks : {true, false}) {
        _calls.before = [&](const test::SystemCall& call) {
            if (call.name == "renameat2")
                test::writeFile(_target, "mine");
            if (knowsLinks)
                return 0;
            return call.name == "renameat2" ? EINVAL : call.name == "link" ? EPERM : 0;
        };
        expectFailure(_target, SQLITE_CANTOPEN, "File exists");
        EXPECT_EQ(test::readFile(_target), "mine");
        std::filesystem::remove(_target);
        EXPECT_EQ(files(), std::set<std::string>{"shop.db"});
        _diagnostics.clear();
    }
}

TEST_F(BackupMomentTest, LeftoversThatCameMeanwhileAreSeen)
{
    before("fsync", [this] {
        test::writeFile(_target + "-wal", "");
        return 0;
    });
    expectFailure(_target + "-wal", SQLITE_CANTOPEN, "is left of another database");
    EXPECT_EQ(files(), (std::set<std::string>{"copy.db-wal", "shop.db"}));
}

TEST_F(BackupMomentTest, SecondNameThatCannotBeRemovedIsNotWrittenTo)
{
    expectBackup();
    std::filesystem::create_hard_link(_target, _unfinished);
    const std::string former = test::readFile(_target);
    before("unlink", [] { return EIO; });
    expectFailure(_unfinished, SQLITE_CANTOPEN, "Input/output error");
    EXPECT_EQ(test::readFile(_target), former);
}

// The name of the copy on its way is free as soon as that has its own.
TEST_F(BackupMomentTest, NextCopyIsNotRemoved)
{
    before("open " + _directory.file(""), [this] {
        test::writeFile(_unfinished, "next");
        return 0;
    });
    expectBackup();
    EXPECT_EQ(test::readFile(_unfinished), "next");
}

TEST_F(BackupMomentTest, WhatAKilledOneHasLeftIsRemovedInAnyCase)
{
    for (const char* const ending : {"", "-journal", "-wal", "-shm"})
        test::writeFile(_unfinished + ending, "x");
    before("ftruncate", [] { return EIO; });
    expectFailure(_unfinished, SQLITE_IOERR_TRUNCATE, "Input/output error");
    EXPECT_EQ(files(), std::set<std::string>{"shop.db"});
}

// For programs that are started meanwhile.
TEST_F(BackupMomentTest, FilesAreNotInheritedNorLinksFollowed)
{
    std::map<std::string, int> flags;
    _calls.after = [&](const test::SystemCall& call) {
        if (call.name == "open")
            flags[call.path] = call.flags;
    };
    expectBackup();
    const int ofCopy = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const int ofFolder = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    EXPECT_EQ(flags,
              (std::map<std::string, int>{{_unfinished, ofCopy}, {_directory.file(""), ofFolder}}));
}

TEST_F(BackupMomentTest, FaultIsToldThoughAStopIsAskedFor)
{
    _database.close();
    test::FaultVfs vfs;
    ASSERT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
    {
        sql::StopFlag stop(_database);
        vfs.before = [&stop](const FileAccess& access) {
            if (access.call != FileCall::write)
                return SQLITE_OK;
            stop.set();
            return SQLITE_IOERR_WRITE;
        };
        expectFailure(_unfinished, SQLITE_IOERR_WRITE, "disk I/O error");
    }
    _database.close();
}

// All that follows is the sync, and the name.
TEST_F(BackupMomentTest, StopIsHeededUntilTheCopyIsChecked)
{
    sql::StopFlag stop(_database);
    test::SqliteCalls sqlite;
    int closes = 0;
    sqlite.close = [&](sqlite3* connection) {
        if (++closes == 3) // source, copy, and that which has checked it
            stop.set();
        return test::closeConnection(connection);
    };
    expectFailure(_target, SQLITE_INTERRUPT, "interrupted");
    EXPECT_EQ(closes, 3);
    EXPECT_EQ(files(), std::set<std::string>{"shop.db"});
}

TEST_F(BackupMomentTest, ReasonIsANumberWhereNoLocaleIsLeft)
{
    before("fsync", [] {
        hasLocales = false;
        return EIO;
    });
    expectFailure(_unfinished, SQLITE_IOERR_FSYNC, "error 5 of the system");
    hasLocales = true;
}

TEST_F(BackupMomentTest, FilesAreOpenedByTheFileSystemOfTheDatabase)
{
    _database.close();
    sqlite3_vfs* const usual = sqlite3_vfs_find(nullptr);
    test::FaultVfs vfs;
    ASSERT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
    sqlite3_vfs_register(usual, 1);
    std::set<std::string> opened;
    vfs.before = [&opened](const FileAccess& access) {
        if (access.call == FileCall::open)
            opened.insert(access.path);
        return SQLITE_OK;
    };
    expectBackup();
    EXPECT_EQ(opened.count(_file) + opened.count(_unfinished), 2U);
    vfs.before = nullptr;
    _database.close();
}

TEST_F(BackupMomentTest, WhatIsOnlyReadIsOpenedOnlyForThat)
{
    _database.close();
    test::FaultVfs vfs;
    ASSERT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
    std::vector<std::pair<std::string, bool>> opened;
    vfs.before = [&opened](const FileAccess& access) {
        if (access.call == FileCall::open && (access.flags & SQLITE_OPEN_MAIN_DB) != 0)
            opened.emplace_back(access.path, (access.flags & SQLITE_OPEN_READONLY) != 0);
        return SQLITE_OK;
    };
    EXPECT_TRUE(sql::backupDatabase(_database, _target));
    opened.clear();
    EXPECT_TRUE(sql::backupDatabase(_database, _target));
    EXPECT_EQ(opened, (std::vector<std::pair<std::string, bool>>{{_file, false},
                                                                 {_unfinished, false},
                                                                 {_unfinished, false},
                                                                 {_unfinished, true},
                                                                 {_target, false}}));
    opened.clear();
    EXPECT_TRUE(sql::restoreDatabase(_database, _target));
    EXPECT_EQ(opened, (std::vector<std::pair<std::string, bool>>{{_target, true}}));
    vfs.before = nullptr;
    _database.close();
}

// A program that only reads the database goes on only reading it.
TEST_F(BackupMomentTest, SourceIsOpenedAsTheDatabaseIs)
{
    _database.close();
    for (const bool isReadOnly : {false, true}) {
        test::FaultVfs vfs;
        ASSERT_TRUE(_database.open(
            _file, isReadOnly ? sql::Database::access_read_only : sql::Database::access_read_write,
            false, 0));
        int opens = 0;
        vfs.before = [&](const FileAccess& access) {
            if (access.call == FileCall::open && access.path == _file) {
                EXPECT_EQ((access.flags & SQLITE_OPEN_READONLY) != 0, isReadOnly);
                ++opens;
            }
            return SQLITE_OK;
        };
        expectBackup();
        EXPECT_EQ(opens, 1);
        vfs.before = nullptr;
        _database.close();
    }
}

// --- Other processes

// A program that goes on until its parent ends it.
class Program {
public:
    explicit Program(const std::function<void(int pipe)>& work)
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::pipe(ends), 0);
        _id = ::fork();
        if (_id == 0) {
            ::close(ends[0]);
            work(ends[1]);
            ::_exit(1);
        }
        ::close(ends[1]);
        _pipe = ends[0];
    }
    ~Program()
    {
        EXPECT_EQ(_id > 0 ? ::kill(_id, SIGKILL) : -1, 0);
        int status = 0;
        EXPECT_EQ(::waitpid(_id, &status, 0), _id);
        EXPECT_TRUE(WIFSIGNALED(status)) << "it has ended by itself";
        ::close(_pipe);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Waits until it tells something.
    void wait() const
    {
        char byte = 0;
        EXPECT_EQ(::read(_pipe, &byte, 1), 1);
    }

private:
    ::pid_t _id = -1;
    int _pipe = -1;
};

class BackupProcessTest : public testing::TestWithParam<const char*> {
protected:
    static constexpr char ask_sum[] = "select sum(balance), sum(moves) - 2 * n from account, done";

    BackupProcessTest()
    {
        makeAccounts(_file, "delete");
        test::Connection(_file).run(std::string("pragma journal_mode = ") + GetParam());
        _options.patience = std::chrono::milliseconds(60000);
    }

    // About 500 pages.
    static void makeAccounts(const std::string& file, const std::string& name)
    {
        test::Connection(file).run(
            "create table account (id integer primary key, balance, moves, name);"
            "create table done (n); insert into done values (0);"
            "insert into account with recursive n (i) as (select 1 union all"
            " select i + 1 from n limit 500) select i, 100, 0, printf('%04000d', 7) || '"
            + name + "' from n");
    }

    // Moves money from one account to another every few milliseconds, and tells each time.
    static void moveMoney(const std::string& file, int pipe)
    {
        test::Connection own(file);
        own.run("pragma busy_timeout = 60000; pragma synchronous = off");
        for (int i = 1; ::write(pipe, ".", 1) == 1; ++i) {
            own.run("begin immediate;"
                    "update account set balance = balance - 7, moves = moves + 1 where id = 1 + "
                    + std::to_string(i * 7 % 500)
                    + ";"
                      "update account set balance = balance + 7, moves = moves + 1 where id = 1 + "
                    + std::to_string(i * 311 % 500) + "; update done set n = n + 1; commit");
            ::usleep(2000);
        }
    }

    // Reads the file over and over, which always is wholly one of the two.
    static void readNames(const std::string& file, int pipe)
    {
        test::Connection own(file);
        own.run("pragma busy_timeout = 60000");
        const std::string ask = "select count(*), min(substr(name, 4001)), max(substr(name, 4001))"
                                " from account";
        for (;;) {
            const std::string names = own.rows(ask);
            if ((names != "500|old|old" && names != "500|new|new") || ::write(pipe, ".", 1) != 1)
                return;
            ::usleep(1000);
        }
    }

    static void open(sql::Database& database, const std::string& file)
    {
        EXPECT_TRUE(database.open(file, sql::Database::access_read_write, false, 60000));
    }

    static void expectWhole(const std::string& file)
    {
        test::Connection copy(file);
        EXPECT_EQ(copy.rows("pragma integrity_check"), "ok");
        EXPECT_EQ(copy.rows(ask_sum), "50000|0");
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("shop.db");
    const std::string _copy = _directory.file("copy.db");
    const test::Diagnostics _diagnostics;
    sql::BackupOptions _options;
    sql::Database _database;
};

// It does not begin anew, and has all changes of one moment. With a log nobody waits.
TEST_P(BackupProcessTest, AnotherOneWritesMeanwhile)
{
    const bool isLog = GetParam() == std::string("wal");
    const Program writer([this](int pipe) { moveMoney(_file, pipe); });
    open(_database, _file);
    test::Connection look(_file);
    for (int i = 0; i < 4; ++i) {
        std::vector<sql::integer> told;
        _options.progress = [&](sql::integer done, sql::integer) {
            told.push_back(done);
            const std::string former = isLog ? look.rows("select n from done") : "";
            while (isLog && look.rows("select n from done") == former)
                ::usleep(500);
            return true;
        };
        writer.wait();
        const auto pages = sql::backupDatabase(_database, _copy, _options);
        ASSERT_TRUE(pages);
        std::vector<sql::integer> expected;
        for (sql::integer done = 64; done < *pages; done += 64)
            expected.push_back(done);
        if (i > 0) // twice onto an existing file
            expected.insert(expected.end(), expected.begin(), expected.end());
        EXPECT_EQ(told, expected);
        expectWhole(_copy);
    }
    EXPECT_THAT(_diagnostics.events(), testing::IsEmpty());
}

TEST_P(BackupProcessTest, ReadersOfTheTargetFindTheOldFileOrTheNew)
{
    const std::string old = _directory.file("old.db");
    const std::string fresh = _directory.file("new.db");
    makeAccounts(old, "old");
    makeAccounts(fresh, "new");
    std::filesystem::copy_file(old, _copy);
    test::Connection(_copy).run(std::string("pragma journal_mode = ") + GetParam());
    const Program first([this](int pipe) { readNames(_copy, pipe); });
    const Program second([this](int pipe) { readNames(_copy, pipe); });
    sql::Database target;
    open(target, _copy);
    for (int i = 0; i < 8; ++i) {
        const std::string& source = i % 2 == 0 ? fresh : old;
        open(_database, source);
        EXPECT_TRUE(i % 4 < 2 ? sql::backupDatabase(_database, _copy, _options)
                              : sql::restoreDatabase(target, source, _options));
        _database.close();
        expectWhole(_copy);
        first.wait();
        second.wait();
    }
    EXPECT_THAT(_diagnostics.events(), testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Journals, BackupProcessTest, testing::Values("delete", "wal"),
                         [](const auto& chosen) { return std::string(chosen.param); });

// --- Large files

struct LargeJob : test::Case {
    bool restores;
    const char* targetMode; // null for no target
    sql::IntegrityCheck check;
};

const LargeJob large_jobs[] = {
    {"NewFile", false, nullptr, sql::check_quick},
    {"NewFileCheckedInFull", false, nullptr, sql::check_full},
    {"ExistingFile", false, "delete", sql::check_quick},
    {"ExistingFileWithALog", false, "wal", sql::check_quick},
    {"Restore", true, "delete", sql::check_quick},
    {"RestoreWithALog", true, "wal", sql::check_full},
};

using Clock = std::chrono::steady_clock;

double inMilliseconds(Clock::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

class LargeBackupTest : public testing::TestWithParam<LargeJob> {
protected:
    // A megabyte has 256 pages, nearly one for each row.
    static void make(const std::string& file, const std::string& name, int megabytes,
                     const std::string& mode = "delete")
    {
        std::filesystem::remove(file);
        test::Connection(file).run(
            "pragma synchronous = off; create table part (id integer primary key, name, bytes);"
            "insert into part with recursive n (i) as (select 1 union all select i + 1 from n limit "
            + std::to_string(megabytes * 256) + ") select i, '" + name
            + "', randomblob(3900) from n; create index by_name on part (name, id);"
              "pragma journal_mode = "
            + mode);
    }

    void makeFiles(int megabytes) const
    {
        make(_source, "new", megabytes);
        if (GetParam().targetMode != nullptr)
            make(_pattern, "old", megabytes, GetParam().targetMode);
    }

    void putTarget() const
    {
        std::filesystem::remove(_target);
        if (GetParam().targetMode != nullptr)
            std::filesystem::copy_file(_pattern, _target);
    }

    sql::Result<sql::integer> run(const std::function<void(sql::Database&)>& begins)
    {
        sql::Database database;
        EXPECT_TRUE(database.open(GetParam().restores ? _target : _source,
                                  sql::Database::access_read_write, false, 0));
        _options.check = GetParam().check;
        begins(database);
        return GetParam().restores ? sql::restoreDatabase(database, _source, _options)
                                   : sql::backupDatabase(database, _target, _options);
    }

    // From a moment of the run, nothing where that was over by then; from its beginning without one.
    std::optional<Clock::duration> timeToStop(std::optional<Clock::duration> moment)
    {
        putTarget();
        std::optional<sql::StopFlag> stop;
        std::atomic<Clock::time_point> start(Clock::now());
        std::thread other;
        const auto pages = run([&](sql::Database& database) {
            stop.emplace(database);
            start = Clock::now();
            other = std::thread([&] {
                std::this_thread::sleep_for(moment.value_or(Clock::duration::zero()));
                if (!moment)
                    return;
                start = Clock::now();
                stop->set();
            });
        });
        const Clock::time_point end = Clock::now();
        other.join();
        EXPECT_TRUE(pages || pages.error().isStopped());
        expectWhole(static_cast<bool>(pages));
        if (end < start.load())
            return std::nullopt;
        return end - start.load();
    }

    void expectWhole(bool isNew) const
    {
        EXPECT_FALSE(std::filesystem::exists(_target + "-unfinished"));
        if (!isNew && GetParam().targetMode == nullptr) {
            EXPECT_FALSE(std::filesystem::exists(_target));
            return;
        }
        test::Connection target(_target);
        const std::string name = isNew ? "new" : "old";
        EXPECT_EQ(target.rows("pragma integrity_check"), "ok");
        EXPECT_EQ(target.rows("select min(name), max(name) from part"), name + "|" + name);
    }

    const test::TemporaryDirectory _directory;
    const std::string _source = _directory.file("source.db");
    const std::string _pattern = _directory.file("pattern.db");
    const std::string _target = _directory.file("target.db");
    sql::BackupOptions _options;
    test::Diagnostics _diagnostics;
};

// Of the process, in kilobytes, since the last time.
long peakOfMemory()
{
    std::ifstream status("/proc/self/status");
    long peak = 0;
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmHWM:") == 0)
            peak = std::stol(line.substr(6));
    }
    std::ofstream("/proc/self/clear_refs") << 5;
    return peak;
}

TEST_P(LargeBackupTest, TakesNoMoreMemoryForALargeFile)
{
    sqlite3_int64 least = 0;
    for (const int megabytes : {6, test::longRun() ? 1024 : test::briefRun() ? 12 : 30}) {
        makeFiles(megabytes);
        putTarget();
        sql::integer last = 0;
        sql::integer told = 0;
        _options.progress = [&](sql::integer done, sql::integer total) {
            ++told;
            last = done;
            return done <= total && total > megabytes * 250;
        };
        peakOfMemory();
        sqlite3_int64 used = 0;
        const Clock::time_point start = Clock::now();
        const auto pages = run([&used](sql::Database&) {
            used = sqlite3_memory_used();
            sqlite3_memory_highwater(1);
        });
        const Clock::duration time = Clock::now() - start;
        const sqlite3_int64 peak = sqlite3_memory_highwater(0) - used;
        const long processPeak = peakOfMemory();
        ASSERT_TRUE(pages);
        const bool isCopiedTwice = !GetParam().restores && GetParam().targetMode != nullptr;
        EXPECT_EQ(told, (*pages - 1) / 64 * (isCopiedTwice ? 2 : 1));
        EXPECT_EQ(last, (*pages - 1) / 64 * 64);
        std::printf("%s of %d MB: %.0f ms, %lld kB of SQLite's, %ld kB of the process\n",
                    GetParam().name.c_str(), megabytes, inMilliseconds(time),
                    static_cast<long long>(peak / 1024), processPeak);
        expectWhole(true);
        // SQLite marks each page that it may have to undo.
        EXPECT_TRUE(least == 0 || peak < least + (100 << 10) + 8 * *pages) << peak - least;
        least = peak;
    }
    EXPECT_THAT(_diagnostics.events(), testing::IsEmpty());
}

// The machine may be busy with something else: once is enough.
TEST_P(LargeBackupTest, StopIsHeededSoonAndLeavesTheOldFileOrTheNew)
{
    makeFiles(test::longRun() ? 200 : test::briefRun() ? 1 : 4);
    const Clock::duration whole = *timeToStop(std::nullopt);
    std::printf("%s of %.1f ms, stopped within", GetParam().name.c_str(), inMilliseconds(whole));
    std::vector<Clock::duration> times;
    for (int i = 1; i <= 8; ++i) {
        if (const auto time = timeToStop(whole * i / 9)) {
            times.push_back(*time);
            std::printf(" %.1f", inMilliseconds(*time));
        }
    }
    std::printf(" ms\n");
    EXPECT_TRUE(times.empty()
                || *std::min_element(times.begin(), times.end()) < std::chrono::milliseconds(50));
}

INSTANTIATE_TEST_SUITE_P(Jobs, LargeBackupTest, testing::ValuesIn(large_jobs), test::NameOfCase());

} // namespace
