#include "Diagnostics.h"
#include "Disk.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "Shop.h"
#include "SqlMigration.h"
#include "SqlStatement.h"
#include "Sqlite.h"
#include "Trouble.h"

#include <gmock/gmock.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using sql::MigrationStep;
using test::Cause;
using test::Disk;
using test::FileAccess;
using test::Target;
using testing::AnyOf;
using testing::IsEmpty;

// --- The work

const char old_version[] =
    "create table room (id integer primary key, name text);"
    "create table sensor (id integer primary key, room references room (id) on delete cascade);"
    "insert into room with recursive n (i) as (select 1 union all select i + 1 from n limit 40)"
    " select i, 'room ' || i || printf('%.*c', i * 9, 'x') from n;"
    "insert into sensor select id + 100, id from room; pragma user_version = 1";

bool shortenNames(sql::Database& database)
{
    sql::Statement shorten(database, "update room set name = ? where id = ?");
    bool done = true;
    for (int id = 1; id <= 40 && done; id += 3)
        done = shorten.run("room " + std::to_string(id), id);
    return done;
}

const MigrationStep steps[] = {
    {1, "no statement"},
    {2, "create table named (id integer primary key, name text not null);"
        "insert into named select * from room; drop table room; alter table named rename to room"},
    {3, shortenNames},
    {4, "alter table sensor add column place text; update sensor set place = 'here';"
        "delete from sensor where id > 130; create index by_place on sensor (place)"},
};

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("migrations: %d with faults, %d of them done; %d power losses, %d left the new "
                    "file; %d kills, %d left the new file\n",
                    faults, done, losses, newAfterLoss, kills, newAfterKill);
    }

    int faults = 0;
    int done = 0;
    int losses = 0;
    int newAfterLoss = 0;
    int kills = 0;
    int newAfterKill = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

// A file of an old version, which may be migrated, with the setting of its journal.
class MigratedFile {
public:
    MigratedFile(const std::string& name, const std::string& setting)
        : _name(name), _setting(setting)
    {
    }

    void fill() const
    {
        test::Connection db(_name);
        db.run("pragma page_size = 512; " + _setting + "; " + old_version);
    }

    bool migrate() const
    {
        test::Shop shop(_name);
        return shop.open() && shop.query(_setting) && sql::migrate(shop.database, steps);
    }

    std::string contents() const
    {
        return test::contents(_name);
    }

private:
    const std::string _name;
    const std::string _setting;
};

// What a file holds before and after.
struct Versions {
    Versions()
    {
        const test::TemporaryDirectory directory;
        const MigratedFile file(directory.file("home.db"), "");
        file.fill();
        before = file.contents();
        EXPECT_TRUE(file.migrate());
        after = file.contents();
        EXPECT_NE(before, after);
    }

    std::string before;
    std::string after;
};

const Versions& versions()
{
    static const Versions both;
    return both;
}

// --- Faults

class MigrationFaultTest : public test::TroubleTest {
protected:
    bool workWithTrouble(int nth) override
    {
        const auto& [cause, lasts, journal] = GetParam();
        test::Diagnostics diagnostics;
        const test::TemporaryDirectory directory;
        const MigratedFile file(directory.file("home.db"),
                                "pragma journal_mode = " + std::string(journal));
        test::Trouble trouble(cause, nth, lasts);
        file.fill();
        {
            test::Shop shop(directory.file("home.db"));
            EXPECT_TRUE(shop.open() && shop.query("pragma cache_size = 1")
                        && shop.query("pragma foreign_keys = on"));
            sql::Result<int> version;
            const bool returned = trouble.runThrough(
                shop.handle(), [&] { version = sql::migrate(shop.database, steps); });
            EXPECT_EQ(returned, version || version.failed());
            expectReports(diagnostics, version, trouble.hasStruck());
            EXPECT_EQ(test::rows(shop.handle(), "pragma foreign_keys"), "1");
            // There is a new index: SQLite compiles a rollback anew, which no memory is left for.
            if (cause.target == Target::sqlite_memory && lasts && shop.inTransaction())
                shop.query("rollback");
            EXPECT_EQ(file.contents(), version ? versions().after : versions().before);
            figures.done += version && trouble.hasStruck();
            diagnostics.clear();
            EXPECT_EQ(sql::migrate(shop.database, steps).valueOr(0), 4);
            EXPECT_EQ(file.contents(), versions().after);
        }
        EXPECT_THAT(diagnostics.events(), IsEmpty()); // no statement is left
        EXPECT_EQ(trouble.blocksInUse(), 0);
        ++figures.faults;
        return trouble.hasStruck();
    }

private:
    // A failure has one of the cause's codes, and is reported.
    static void expectReports(test::Diagnostics& diagnostics, const sql::Result<int>& version,
                              bool struck)
    {
        const std::set<int>& codes = std::get<0>(GetParam()).codes;
        if (version.failed()) {
            EXPECT_EQ(codes.count(version.error().code()), 1U) << version.error().text();
            EXPECT_FALSE(diagnostics.errors().empty());
        }
        EXPECT_TRUE(struck || (version && diagnostics.errors().empty()));
        EXPECT_THAT(diagnostics.assertions(), IsEmpty());
    }
};

TEST_P(MigrationFaultTest, LeavesTheOldFileOrTheNewAndTheNextOneSucceeds)
{
    versions();
    tryAllPoints({61, 23, 5});
}

// What "alter table" asks by itself fails of an interrupt without its code.
const Cause interrupt_cause = {"Interrupt", Target::instruction, {SQLITE_INTERRUPT, SQLITE_ERROR}};

INSTANTIATE_TEST_SUITE_P(File, MigrationFaultTest, test::everyWay(test::file_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Journal, MigrationFaultTest,
                         test::everyWayWithoutALog(test::journal_causes), test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Memory, MigrationFaultTest, test::everyWay(test::memory_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Interrupt, MigrationFaultTest,
                         test::everyWay(std::vector{interrupt_cause}), test::NameOfWay());

// --- Power cuts and kills

struct Journal : test::Case {
    const char* setting;
};

class MigrationCutTest : public testing::TestWithParam<Journal> {
protected:
    void SetUp() override
    {
        versions();
    }

    const MigratedFile& file() const
    {
        return _file;
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
        Disk disk({"", 512, true});
        std::mt19937 random(seed);
        bool isFilled = false;
        test::FaultVfs vfs;
        vfs.pretendDisk(512, SQLITE_IOCAP_POWERSAFE_OVERWRITE);
        vfs.before = [&](const FileAccess& access) {
            if (isFilled && test::changesDisk(access))
                losses.push_back(disk.afterPowerLoss(random));
            return SQLITE_OK;
        };
        vfs.after = [&](const FileAccess& access) {
            disk.take(access);
        };
        _file.fill();
        isFilled = true;
        EXPECT_TRUE(_file.migrate());
        losses.push_back(disk.afterPowerLoss(random));
        return losses;
    }

    // Whether it is the new one. The next start makes it that.
    bool startAgain() const
    {
        const std::string there = _file.contents();
        EXPECT_THAT(there, AnyOf(versions().before, versions().after));
        EXPECT_TRUE(_file.migrate());
        EXPECT_EQ(_file.contents(), versions().after);
        EXPECT_THAT(_diagnostics.events(), IsEmpty());
        return there == versions().after;
    }

    // True when the program was killed before its nth call into the file system.
    bool migrateAndKill(int nth) const
    {
        const pid_t child = ::fork();
        if (child == 0) {
            test::FaultVfs vfs;
            vfs.before = [&nth](const FileAccess&) {
                return --nth == 0 ? ::kill(::getpid(), SIGKILL) : SQLITE_OK;
            };
            ::_exit(_file.migrate() ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) || status == 0);
        return WIFSIGNALED(status);
    }

private:
    test::Diagnostics _diagnostics;
    const test::TemporaryDirectory _directory;
    const MigratedFile _file{_directory.file("home.db"), GetParam().setting};
};

TEST_P(MigrationCutTest, PowerCutAtEveryWriteLeavesTheOldFileOrTheNew)
{
    const unsigned int seeds = test::longRun() ? 20 : test::briefRun() ? 1 : 3;
    for (unsigned int seed = 1; seed <= seeds && !HasFailure(); ++seed) {
        const std::vector<test::Files> losses = lossesOf(seed);
        EXPECT_GT(losses.size(), 20U);
        for (std::size_t i = 0; i < losses.size() && !HasFailure(); ++i) {
            removeFiles();
            for (const auto& [path, bytes] : losses[i])
                test::writeFile(path, bytes);
            figures.newAfterLoss += startAgain();
            ++figures.losses;
            if (HasFailure())
                std::printf("with seed %u before call %zu\n", seed, i);
        }
    }
}

TEST_P(MigrationCutTest, KillAtEachCallIntoTheFileSystemLeavesTheOldFileOrTheNew)
{
    const int stride = test::stride(2);
    int nth = 1;
    for (bool isKilled = true; isKilled && !HasFailure(); nth += stride) {
        removeFiles();
        file().fill();
        isKilled = migrateAndKill(nth);
        figures.newAfterKill += startAgain() && isKilled;
        figures.kills += isKilled;
    }
    EXPECT_GT(nth, 50);
}

const Journal journals[] = {
    {"RemovedAndSyncedJournal", "pragma synchronous = extra"},
    {"CutJournal", "pragma journal_mode = truncate"},
    {"KeptJournal", "pragma journal_mode = persist"},
    {"WriteAheadLog", "pragma journal_mode = wal"},
};

INSTANTIATE_TEST_SUITE_P(Journals, MigrationCutTest, testing::ValuesIn(journals),
                         test::NameOfCase());

// --- Several programs

class MigrationContentionTest : public testing::TestWithParam<const char*> {};

// As soon as the pipe is closed.
[[noreturn]] void migrateAtOnce(int pipe, const std::string& file)
{
    static const MigrationStep once[] = {
        {1, "create table run (step); insert into run values (1)"},
        {2, [](sql::Database& database) {
             return sql::Statement(database, "insert into run values (2)").run();
         }}};
    ::alarm(300); // far longer than it takes
    char byte;
    while (::read(pipe, &byte, 1) > 0) {
    }
    test::Shop shop(file);
    const bool done = shop.open()
                      && sql::migrate(shop.database, once, std::chrono::minutes(1)).valueOr(0) == 2;
    ::_exit(done ? 0 : 1);
}

TEST_P(MigrationContentionTest, OfThreeProgramsThatStartAtOnceNoneFailsAndEachStepRunsOnce)
{
    const test::TemporaryDirectory directory;
    const int rounds = test::briefRun() ? 10 : 90;
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        const std::string file = directory.file(std::to_string(round) + ".db");
        test::Connection(file).run("pragma journal_mode = " + std::string(GetParam())
                                   + "; create table made (a)");
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        std::vector<pid_t> programs;
        for (int i = 0; i < 3; ++i) {
            programs.push_back(::fork());
            if (programs.back() == 0) {
                ::close(ends[1]);
                migrateAtOnce(ends[0], file);
            }
        }
        ::close(ends[0]);
        ::close(ends[1]);
        for (const pid_t program : programs) {
            int status = -1;
            EXPECT_EQ(::waitpid(program, &status, 0), program);
            EXPECT_EQ(status, 0);
        }
        test::Connection db(file);
        EXPECT_EQ(db.rows("select group_concat(step) from run"), "1,2");
        EXPECT_EQ(db.rows("pragma user_version"), "2");
    }
}

INSTANTIATE_TEST_SUITE_P(Journals, MigrationContentionTest, testing::Values("delete", "wal"),
                         [](const testing::TestParamInfo<const char*>& chosen) {
                             return std::string(chosen.param);
                         });

} // namespace
