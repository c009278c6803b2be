#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "PreparedSteps.h"
#include "SqlPreparedTable.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using test::Change;
using test::Step;
using testing::AnyOf;

const int most_changes = 1000000; // far more than any program here makes

// What the program that is killed does over and over: it ends where it begins.
const std::vector<Change>& changes()
{
    static const std::vector<Change> all = test::changesOf(
        test::filling(12) + test::changing() + test::changingByStatements()
        + test::changingInTransactions() + test::backingUp() + test::changingInBulk(300)
        + test::removing()
        + std::vector<Step>{{"remove",
                             [](auto& shop) {
                                 return shop.product.remove();
                             }},
                            {"setUserVersion", [](auto& shop) {
                                 return shop.setUserVersion(0);
                             }}});
    return all;
}

const Change& changeAt(int number)
{
    return changes()[static_cast<std::size_t>(number) % changes().size()];
}

// --- The one that kills it

int killed = 0;
int acknowledged = 0;
int finishedUnacknowledged = 0;

struct PrintFigures : testing::Environment {
    void TearDown() override
    {
        std::printf("kills: %d, %d changes acknowledged, %d finished without\n", killed,
                    acknowledged, finishedUnacknowledged);
    }
};

testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(new PrintFigures);

class KillTest : public testing::TestWithParam<const char*> {
protected:
    KillTest() : _file(_directory.file("shop.db"))
    {
    }

    // Lets a program go on after so many changes, kills it a little after it has acknowledged some
    // more and returns how many it has made for all that it has acknowledged.
    int workAndKill(int made, int more, int microseconds)
    {
        int ends[2];
        if (::pipe(ends) != 0)
            std::abort();
        const pid_t child = ::fork();
        if (child == 0)
            work(ends[1], made);
        ::close(ends[1]);
        made += acknowledgements(ends[0], more);
        ::usleep(static_cast<useconds_t>(microseconds));
        // A child that could not be started has no id to be killed by.
        EXPECT_EQ(child > 0 ? ::kill(child, SIGKILL) : -1, 0);
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status)) << "it has ended by itself";
        made += acknowledgements(ends[0], most_changes);
        ::close(ends[0]);
        return made;
    }

    // The same by the file's own contents.
    int look(int made)
    {
        const std::string there = test::contents(_file);
        const std::string& after = changeAt(made + static_cast<int>(changes().size()) - 1).after;
        EXPECT_THAT(there, AnyOf(after, changeAt(made).after));
        if (there == after)
            return made;
        ++finishedUnacknowledged;
        return made + 1;
    }

    test::Diagnostics _diagnostics;

private:
    // Acknowledges each change on a pipe; ends only when something fails.
    [[noreturn]] void work(int pipe, int made)
    {
        test::Shop shop(_file);
        bool done = shop.open(sql::Database::access_create, 1000) && shop.query(GetParam());
        for (; done; ++made) {
            for (const Step& step : changeAt(made).steps)
                done = done && step.library(shop) == "true";
            done = done && ::write(pipe, ".", 1) == 1;
        }
        for (const std::string& event : _diagnostics.events())
            std::fprintf(stderr, "%s\n", event.c_str());
        ::_exit(1);
    }

    // How many come, of so many at most, before the program's end.
    static int acknowledgements(int pipe, int most)
    {
        int count = 0;
        char byte;
        while (count < most && ::read(pipe, &byte, 1) == 1)
            ++count;
        return count;
    }

    const test::TemporaryDirectory _directory;
    const std::string _file;
};

TEST_P(KillTest, AcknowledgedChangesAreThereAndNoneIsHalfThere)
{
    const int kills = test::longRun() ? 300 : 40;
    std::mt19937 random(20);
    int made = 0;
    for (int i = 0; i < kills && !HasFailure(); ++i) {
        // The first ones early: even an empty file has to be made.
        const int more = i < 5 ? 0 : static_cast<int>(random() % 4);
        const int now = workAndKill(made, more, static_cast<int>(random() % 8000));
        ++killed;
        acknowledged += now - made;
        made = look(now);
    }
    EXPECT_GT(made, static_cast<int>(changes().size()));
}

INSTANTIATE_TEST_SUITE_P(Journals, KillTest,
                         testing::Values("pragma journal_mode = delete",
                                         "pragma journal_mode = truncate",
                                         "pragma journal_mode = wal"),
                         [](const testing::TestParamInfo<const char*>& chosen) {
                             const std::string setting = chosen.param;
                             return setting.substr(setting.rfind(' ') + 1);
                         });

// --- Killed at a certain row

// Adds all rows of a table, whose keys are odd, to one that has the even ones.
struct Bulk : test::Case {
    int rows;
    bool (*run)(sql::PreparedTable& target, sql::PreparedTable& source);
};

bool adds(sql::PreparedTable& target, sql::PreparedTable& source)
{
    sql::RecordCursor rows = source.select();
    const std::vector<sql::Record> records(rows.begin(), rows.end());
    return target.addRecords(records.begin(), records.end());
}

bool copies(sql::PreparedTable& target, sql::PreparedTable& source)
{
    return target.copyRecords(source);
}

class BulkKillTest : public testing::TestWithParam<std::tuple<const char*, Bulk>> {
protected:
    BulkKillTest()
    {
        test::Connection file(_file);
        file.run(std::get<0>(GetParam()));
        fill(file, 2);
    }

    // What the file holds after a program was killed at a row that it added, or, for 0, when it was
    // told that all of them are there.
    std::string rowsAfterKill(int row)
    {
        const std::string bytes = test::readFile(_file);
        const pid_t child = ::fork();
        if (child == 0)
            work(row);
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status)) << "it has ended by itself";
        EXPECT_TRUE(row < std::get<1>(GetParam()).rows || test::readFile(_file) != bytes
                    || isFilled(_file + "-wal"))
            << "there is nothing to take back";
        test::Connection file(_file);
        EXPECT_EQ(file.rows("pragma integrity_check"), "ok");
        return file.rows("select count(*), sum(id) from product");
    }

private:
    // With so little memory that rows are in the file before they are committed.
    [[noreturn]] void work(int row)
    {
        const auto& [journal, bulk] = GetParam();
        sql::Database database;
        sql::Database memory;
        if (!database.open(_file, sql::Database::access_read_write, false, 0)
            || !memory.open(":memory:", sql::Database::access_create, false, 0))
            ::_exit(1);
        test::run(database.getHandle(), journal + std::string("; pragma cache_size = 1"));
        fill(memory.getHandle(), 1);
        sqlite3_update_hook(database.getHandle(), killAtRow, &row);
        const sql::Table table(nullptr, "product", test::goods());
        sql::PreparedTable target(database, table);
        sql::PreparedTable source(memory, table);
        if (bulk.run(target, source))
            ::kill(::getpid(), SIGKILL);
        ::_exit(1);
    }

    static void fill(sqlite3* db, int firstKey)
    {
        test::run(db, "create table product (id integer primary key, name, price, sold, code);"
                      "insert into product with recursive n(i) as (select "
                          + std::to_string(firstKey) + " union all select i + 2 from n limit "
                          + std::to_string(std::get<1>(GetParam()).rows)
                          + ") select i, printf('%500d', i), null, null, null from n");
    }

    static bool isFilled(const std::string& file)
    {
        std::error_code missing;
        const std::uintmax_t size = std::filesystem::file_size(file, missing);
        return !missing && size > 0;
    }

    static void killAtRow(void* left, int, const char*, const char*, sqlite3_int64)
    {
        if (--*static_cast<int*>(left) == 0)
            ::kill(::getpid(), SIGKILL);
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("shop.db");
};

TEST_P(BulkKillTest, LeavesNoRowUnlessAllWereSaidToBeStored)
{
    const int rows = std::get<1>(GetParam()).rows;
    const std::string before = std::to_string(rows) + "|" + std::to_string(rows * (rows + 1));
    for (const int row : {1, 40, rows / 2, rows})
        EXPECT_EQ(rowsAfterKill(row), before) << "killed at row " << row;
    EXPECT_EQ(rowsAfterKill(0),
              std::to_string(2 * rows) + "|" + std::to_string(rows * (2 * rows + 1)));
}

const Bulk bulks[] = {
    {"AddsOneByOne", 200, adds},
    {"AddsSeveralAtATime", 400, adds},
    {"Copies", 400, copies},
};

INSTANTIATE_TEST_SUITE_P(Journals, BulkKillTest,
                         testing::Combine(testing::Values("pragma journal_mode = delete",
                                                          "pragma journal_mode = wal"),
                                          testing::ValuesIn(bulks)),
                         [](const auto& chosen) {
                             const std::string setting = std::get<0>(chosen.param);
                             return setting.substr(setting.rfind(' ') + 1)
                                    + std::get<1>(chosen.param).name;
                         });

} // namespace
