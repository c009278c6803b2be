#include "Diagnostics.h"
#include "Disk.h"
#include "Environment.h"
#include "Shop.h"
#include "SqlGroupCommit.h"
#include "SqlStatement.h"
#include "Sqlite.h"
#include "Trouble.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using sql::GroupCommit;
using std::chrono::milliseconds;
using test::Cause;
using test::FileAccess;
using test::FileCall;
using test::Shop;
using test::Trouble;
using testing::IsEmpty;

const milliseconds forever(600000); // longer than any of this takes

typedef std::vector<int> Keys;

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("groups: %d faults, %d writes lost in them; %d power cuts; %d kills\n", faults,
                    lost, powerCuts, kills);
    }

    int faults = 0;
    int lost = 0;
    int powerCuts = 0;
    int kills = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

void makeFile(const std::string& file, const std::string& settings)
{
    test::Connection db(file);
    db.run(settings);
    db.run("create table reading (id integer primary key, text)");
}

// As another connection sees them, which may write at once. None where the table is not there yet.
Keys keysIn(const std::string& file)
{
    test::Connection db(file);
    EXPECT_EQ(db.rows("pragma integrity_check"), "ok");
    db.run("begin immediate; pragma user_version = 7; commit");
    Keys keys;
    if (db.rows("select count(*) from sqlite_master") == "0")
        return keys;
    std::istringstream lines(db.rows("select id from reading order by id"));
    for (int key = 0; lines >> key;)
        keys.push_back(key);
    return keys;
}

// One to the number.
Keys keysTo(int number)
{
    Keys keys;
    for (int key = 1; key <= number; ++key)
        keys.push_back(key);
    return keys;
}

// Adds readings by their keys, and keeps account of what has become of them by what the group says.
class Account {
public:
    Account(sql::Database& database, int count)
        : _add(database, "insert into reading values (?, ?)"), _group(database, count, forever)
    {
    }

    void write(int key)
    {
        const bool isIn = _group.write(
            [&] { return _add.run(key, std::string(key % 3 == 0 ? 900 : 20, 'x')); });
        const bool hasCommitted = isIn && _group.pending() == 0;
        settle();
        if (isIn)
            _open.push_back(key);
        if (hasCommitted)
            settleAs(committed);
        else
            EXPECT_EQ(_group.pending(), static_cast<sql::integer>(_open.size()));
    }

    bool flush()
    {
        const bool isDone = _group.flush();
        settle();
        if (isDone)
            settleAs(committed);
        EXPECT_EQ(_group.pending(), static_cast<sql::integer>(_open.size()));
        return isDone;
    }

    // Those of the open group, when it ends by itself.
    Keys open() const
    {
        return _open;
    }

    Keys committed;
    Keys lost;

private:
    // Those of a group that is lost are so all at once.
    void settle()
    {
        const auto lostNow = static_cast<std::size_t>(_group.lost());
        if (lostNow == lost.size())
            return;
        EXPECT_EQ(lostNow - lost.size(), _open.size());
        settleAs(lost);
    }

    void settleAs(Keys& keys)
    {
        keys.insert(keys.end(), _open.begin(), _open.end());
        _open.clear();
    }

    sql::Statement _add;
    GroupCommit _group;
    Keys _open;
};

// --- Faults

class GroupCommitFaultTest : public test::TroubleTest {
protected:
    bool workWithTrouble(int nth) override
    {
        const auto& [cause, lasts, journal] = GetParam();
        test::Diagnostics diagnostics;
        const test::TemporaryDirectory directory;
        const std::string file = directory.file("readings.db");
        Trouble trouble(cause, nth, lasts);
        makeFile(file, std::string("pragma page_size = 512; pragma journal_mode = ") + journal);
        Keys committed;
        {
            Shop shop(file);
            EXPECT_TRUE(shop.open() && shop.query("pragma cache_size = 1")); // written early
            Account account(shop.database, 4);
            const bool returned = trouble.runThrough(
                shop.handle(), [&, &cause = cause] { work(shop, trouble, account, cause); });
            if (returned)
                expectReports(diagnostics, trouble.hasStruck(), account);
            shop.query("pragma max_page_count = 100000");
            diagnostics.clear();
            if (returned)
                goOn(account);
            figures.lost += static_cast<int>(account.lost.size());
            committed = account.committed;
        }
        EXPECT_THAT(diagnostics.assertions(), IsEmpty()); // no statement is left
        const Keys there = keysIn(file);
        EXPECT_TRUE(committed == there || !isCertain) << testing::PrintToString(there);
        EXPECT_EQ(trouble.blocksInUse(), 0);
        ++figures.faults;
        return trouble.hasStruck();
    }

private:
    void work(Shop& shop, Trouble& trouble, Account& account, const Cause& cause)
    {
        isCertain = false; // if an exception ends it
        sql::Statement reader(shop.database, "select * from sqlite_master");
        if (!cause.standsAtARow || reader.next()) {
            for (int key = 1; key <= 14; ++key) {
                trouble.step(shop.handle());
                account.write(key);
            }
            trouble.step(shop.handle());
            if (!account.flush()) {
                trouble.step(shop.handle());
                static_cast<void>(account.flush());
            }
        }
        isCertain = true;
    }

    // Once nothing goes wrong any more.
    static void goOn(Account& account)
    {
        EXPECT_TRUE(account.flush());
        const std::size_t lost = account.lost.size();
        for (int key = 101; key <= 106; ++key)
            account.write(key);
        EXPECT_TRUE(account.flush());
        EXPECT_EQ(account.lost.size(), lost);
        EXPECT_THAT(account.open(), IsEmpty());
    }

    // What is lost is told; a failure has its reason; without one there is silence.
    static void expectReports(test::Diagnostics& diagnostics, bool struck, const Account& account)
    {
        expectReasons(diagnostics.errors());
        std::size_t lost = 0;
        const std::string words = "Writes of a group that are lost: ";
        for (const std::string& error : diagnostics.errors()) {
            if (error.compare(0, words.size(), words) == 0)
                lost += static_cast<std::size_t>(std::stoi(error.substr(words.size())));
        }
        EXPECT_EQ(lost, account.lost.size());
        EXPECT_TRUE(struck || (account.committed == keysTo(14) && diagnostics.events().empty()));
        EXPECT_THAT(diagnostics.assertions(), IsEmpty());
    }

    bool isCertain = true;
};

TEST_P(GroupCommitFaultTest, WhatIsNotLostIsThereAndWhatIsLostIsCounted)
{
    tryAllPoints();
}

void violate(sqlite3* db)
{
    sqlite3_exec(db, "insert or rollback into reading values (1000, ''), (1000, '')", nullptr,
                 nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(File, GroupCommitFaultTest, test::everyWay(test::file_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Journal, GroupCommitFaultTest,
                         test::everyWayWithoutALog(test::journal_causes), test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Memory, GroupCommitFaultTest, test::everyWay(test::memory_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Interrupt, GroupCommitFaultTest,
                         test::everyWay(std::vector{test::interrupt_cause}), test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Statement, GroupCommitFaultTest,
                         test::everyWay(test::statementCauses(violate)), test::NameOfWay());

// A commit that is lost takes the write with it that asked for it, which is told and not counted.
TEST(GroupCommitLossTest, WriteWhoseCommitIsLostIsNotCounted)
{
    test::Diagnostics diagnostics;
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("readings.db");
    makeFile(file, "");
    test::FaultVfs vfs;
    Shop shop(file);
    ASSERT_TRUE(shop.open());
    {
        GroupCommit group(shop.database, 3, forever);
        const auto add = [&] {
            return group.write(
                [&] { return shop.query("insert into reading (text) values ('')"); });
        };
        EXPECT_TRUE(add() && add());
        vfs.before = [](const FileAccess& access) {
            return access.call == FileCall::sync ? SQLITE_FULL : SQLITE_OK;
        };
        EXPECT_FALSE(add());
        EXPECT_TRUE(group.error().isFull());
        EXPECT_EQ(group.lost(), 2);
        EXPECT_EQ(group.pending(), 0);
        EXPECT_THAT(
            diagnostics.errors(),
            testing::ElementsAre(
                "The transaction was rolled back: nothing is committed before its scope ends",
                "SQL statement 'commit' failed: ", "  rc=13=SQLITE_FULL: database or disk is full",
                "Writes of a group that are lost: 2"));
        vfs.before = nullptr;
        EXPECT_TRUE(add() && add() && add());
        EXPECT_EQ(group.lost(), 2);
    }
    shop.close();
    EXPECT_EQ(keysIn(file), keysTo(3));
}

// --- What it costs

struct Cost {
    int syncs = 0;
    long bytes = 0;
};

class GroupCommitCostTest : public testing::TestWithParam<const char*> {
protected:
    static Cost costOf(int writes, int count)
    {
        const test::TemporaryDirectory directory;
        const std::string file = directory.file("readings.db");
        makeFile(file, std::string("pragma journal_mode = ") + GetParam());
        Cost cost;
        test::FaultVfs vfs;
        Shop shop(file);
        EXPECT_TRUE(shop.open());
        vfs.after = [&](const FileAccess& access) {
            cost.syncs += access.call == FileCall::sync;
            cost.bytes += access.call == FileCall::write ? access.count : 0;
        };
        GroupCommit group(shop.database, count, forever);
        sql::Statement add(shop.database, "insert into reading (text) values ('21.5')");
        for (int i = 0; i < writes; ++i)
            EXPECT_TRUE(group.write([&] { return add.run(); }));
        EXPECT_TRUE(group.flush());
        return cost;
    }
};

TEST_P(GroupCommitCostTest, GroupTakesTheSyncsOfOneWrite)
{
    const bool isLog = GetParam() == std::string("wal");
    const int writes = test::longRun() ? 10000 : 2000;
    long bytes = 0;
    for (const int count : {1, 10, 100, 1000}) {
        const Cost cost = costOf(writes, count);
        const int groups = writes / count;
        if (isLog) { // and those of the checkpoints in between
            EXPECT_GE(cost.syncs, groups);
            EXPECT_LE(cost.syncs, groups + groups / 200 + 5);
        } else { // the journal twice, and the file
            EXPECT_EQ(cost.syncs, 3 * groups);
        }
        EXPECT_TRUE(bytes == 0 || cost.bytes < bytes / 2) << cost.bytes << " after " << bytes;
        bytes = cost.bytes;
        std::printf("%s, groups of %d: %d syncs, %ld bytes\n", GetParam(), count, cost.syncs,
                    bytes);
    }
}

INSTANTIATE_TEST_SUITE_P(Journals, GroupCommitCostTest, testing::Values("delete", "wal"),
                         [](const auto& chosen) { return std::string(chosen.param); });

// --- Power cuts

const int group_size = 5;

struct Journal : test::Case {
    const char* setting;
    // How many groups that were committed may be lost, with the one that is open.
    int groupsAtRisk;
};

struct PowerCut {
    int call;      // into the file system, before which it comes
    int writes;    // accepted before
    int committed; // of those
    test::Files files;
};

class GroupCommitPowerTest
    : public testing::TestWithParam<std::tuple<Journal, test::DiskKind, std::string>> {
protected:
    // Lets the power fail before every nth call that changes something.
    std::vector<PowerCut> workWithCuts(unsigned int seed, int stride)
    {
        const auto& [journal, kind, pages] = GetParam();
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            std::filesystem::remove(entry.path());
        std::vector<PowerCut> cuts;
        test::Disk disk(kind);
        std::mt19937 random(seed);
        int calls = 0;
        int writes = 0;
        int committed = 0;
        test::FaultVfs vfs;
        vfs.pretendDisk(kind.sectorSize,
                        kind.sparesNeighbours ? SQLITE_IOCAP_POWERSAFE_OVERWRITE : 0);
        vfs.after = [&](const FileAccess& access) {
            disk.take(access);
        };
        makeFile(_file, pages + journal.setting);
        vfs.before = [&](const FileAccess& access) {
            if (test::changesDisk(access) && ++calls % stride == 0)
                cuts.push_back({calls, writes, committed, disk.afterPowerLoss(random)});
            return SQLITE_OK;
        };
        Shop shop(_file);
        EXPECT_TRUE(shop.open() && shop.query(pages + journal.setting));
        sql::Statement add(shop.database, "insert into reading values (?, ?)");
        GroupCommit group(shop.database, group_size, forever);
        for (int key = 1; key <= 60; ++key) {
            EXPECT_TRUE(group.write(
                [&] { return add.run(key, std::string(key % 7 == 0 ? 3000 : 20, 'x')); }));
            ++writes;
            committed = writes - static_cast<int>(group.pending());
        }
        EXPECT_EQ(committed, 60);
        return cuts;
    }

    // Whole groups, the first ones; of those that were committed at most as many are lost as the
    // journal says.
    void expectWholeGroups(const PowerCut& cut)
    {
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            std::filesystem::remove(entry.path());
        for (const auto& [path, bytes] : cut.files)
            test::writeFile(path, bytes);
        const Keys there = keysIn(_file);
        const int count = static_cast<int>(there.size());
        EXPECT_EQ(there, keysTo(count));
        EXPECT_EQ(count % group_size, 0) << "a part of a group";
        EXPECT_GE(count, cut.committed - std::get<0>(GetParam()).groupsAtRisk * group_size);
        EXPECT_LE(count, cut.committed + group_size);
        ++figures.powerCuts;
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("readings.db");
    test::Diagnostics _diagnostics;
};

TEST_P(GroupCommitPowerTest, NeverAPartOfAGroupIsThereAndAtMostWhatWasPromisedIsLost)
{
    const unsigned int seeds = test::longRun() ? 5 : 1;
    for (unsigned int seed = 1; seed <= seeds && !HasFailure(); ++seed) {
        for (const PowerCut& cut : workWithCuts(seed, test::stride(5))) {
            expectWholeGroups(cut);
            if (HasFailure()) {
                std::printf("with seed %u before call %d\n", seed, cut.call);
                break;
            }
        }
    }
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

const int all_groups = 1000;

const Journal journals[] = {
    {"RemovedJournal", "pragma journal_mode = delete", 1}, // which may be back
    {"RemovedAndSyncedJournal", "pragma synchronous = extra", 0},
    {"CutJournal", "pragma journal_mode = truncate", 0},
    {"WriteAheadLog", "pragma journal_mode = wal; pragma wal_autocheckpoint = 12", 0},
    {"WriteAheadLogNormal",
     "pragma journal_mode = wal; pragma wal_autocheckpoint = 12; pragma synchronous = normal",
     all_groups},
};

const char large_pages[] = "pragma page_size = 4096;";
const char small_pages[] = "pragma page_size = 1024; pragma cache_size = 1;";

std::string nameOfCut(const testing::TestParamInfo<GroupCommitPowerTest::ParamType>& chosen)
{
    const auto& [journal, kind, pages] = chosen.param;
    return journal.name + kind.name + (pages == small_pages ? "SmallPages" : "");
}

INSTANTIATE_TEST_SUITE_P(Journals, GroupCommitPowerTest,
                         testing::Combine(testing::ValuesIn(journals),
                                          testing::ValuesIn(test::disks),
                                          testing::Values(large_pages, small_pages)),
                         nameOfCut);

// --- Other processes

class GroupCommitProcessTest : public testing::TestWithParam<const char*> {
protected:
    GroupCommitProcessTest()
    {
        makeFile(_file, std::string("pragma journal_mode = ") + GetParam());
    }

    // A program that writes readings with these keys, and tells each committed group on a pipe.
    pid_t start(int first, int last, int pipe)
    {
        const pid_t child = ::fork();
        if (child != 0)
            return child;
        Shop shop(_file);
        bool isGood = shop.open(sql::Database::access_read_write, 10);
        {
            sql::Statement add(shop.database, "insert into reading values (?, null)");
            GroupCommit group(shop.database, group_size, forever, milliseconds(20000));
            for (int key = first; isGood && key <= last; ++key) {
                isGood = group.write([&] { return add.run(key); });
                if (isGood && group.pending() == 0)
                    isGood = ::write(pipe, ".", 1) == 1;
            }
            isGood = isGood && group.lost() == 0;
        }
        ::_exit(isGood ? 0 : 1);
    }

    static int groupsTold(int pipe, int most)
    {
        int count = 0;
        char byte = 0;
        while (count < most && ::read(pipe, &byte, 1) == 1)
            ++count;
        return count;
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("readings.db");
    test::Diagnostics _diagnostics;
};

TEST_P(GroupCommitProcessTest, TwoProgramsOnTheFileWaitForEachOther)
{
    const int each = 20 * group_size;
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t programs[] = {start(1, each, ends[1]), start(each + 1, 2 * each, ends[1])};
    ::close(ends[1]);
    EXPECT_EQ(groupsTold(ends[0], 1000), 40);
    ::close(ends[0]);
    for (const pid_t program : programs) {
        int status = 1;
        EXPECT_EQ(::waitpid(program, &status, 0), program);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(keysIn(_file), keysTo(2 * each));
}

TEST_P(GroupCommitProcessTest, KilledProgramLeavesWholeGroupsAndAllThatItWasToldOf)
{
    const int kills = test::longRun() ? 100 : 10;
    std::mt19937 random(7);
    int stored = 0;
    for (int i = 0; i < kills && !HasFailure(); ++i) {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        const pid_t program = start(stored + 1, 1 << 30, ends[1]);
        ::close(ends[1]);
        int told = groupsTold(ends[0], static_cast<int>(random() % 4));
        ::usleep(static_cast<useconds_t>(random() % 3000));
        EXPECT_EQ(program > 0 ? ::kill(program, SIGKILL) : -1, 0);
        int status = 0;
        EXPECT_EQ(::waitpid(program, &status, 0), program);
        EXPECT_TRUE(WIFSIGNALED(status)) << "it has ended by itself";
        told += groupsTold(ends[0], 1 << 30);
        ::close(ends[0]);
        const int there = static_cast<int>(keysIn(_file).size());
        EXPECT_EQ(keysIn(_file), keysTo(there));
        EXPECT_EQ(there % group_size, 0) << "a part of a group";
        EXPECT_GE(there, stored + told * group_size);
        EXPECT_LE(there, stored + (told + 1) * group_size);
        stored = there;
        ++figures.kills;
    }
}

INSTANTIATE_TEST_SUITE_P(Journals, GroupCommitProcessTest, testing::Values("delete", "wal"),
                         [](const auto& chosen) { return std::string(chosen.param); });

} // namespace
