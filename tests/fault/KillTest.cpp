#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "SqlDatabase.h"
#include "SqlRecord.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using sql::Database;
using sql::Record;
using sql::RecordSet;
using sql::Table;
using testing::AnyOf;

const int row_count = 12; // all rewritten by each round's transaction
const int rounds_kept = 5;
const int most_steps = 1000000; // far more than any program here takes

// --- What the file holds after a number of steps

// The tables are made in the first one, and each round takes two more.

int roundOf(int step)
{
    return step / 2;
}

std::string nameOf(int round)
{
    return "round " + std::to_string(round) + " " + std::string(900, 'x');
}

std::string expectedContents(int step)
{
    if (step == 0)
        return "";
    std::string text = "product:";
    for (int id = 1; id <= row_count; ++id)
        text += "\n" + std::to_string(id) + "|" + nameOf(roundOf(step)) + "|2.5";
    text += "\nround:";
    for (int round = std::max(1, roundOf(step) - rounds_kept + 1); round <= roundOf(step); ++round)
        text += "\n" + std::to_string(round) + "|done|0.5";
    text += "\nlatest:";
    if (step > 2)
        text += "\n1|" + std::to_string((step - 1) / 2) + "|NULL";
    return text;
}

std::string contentsOf(test::Connection& db)
{
    if (db.rows("select count(*) from sqlite_master") == "0")
        return "";
    std::string text;
    for (const std::string name : {"product", "round", "latest"}) {
        const std::string rows = db.rows("select * from " + name);
        text += (text.empty() ? "" : "\n") + name + ":" + (rows.empty() ? "" : "\n") + rows;
    }
    return text;
}

// --- The program that is killed

// Takes one step after the other and acknowledges each on a pipe.
class Program {
public:
    Program(int pipe, int step) : _pipe(pipe), _step(step)
    {
    }

    // Ends only when something fails.
    void work(const std::string& file, const char* setting)
    {
        bool done = _db.open(file, Database::access_create, false, 1000)
                    && RecordSet(_db.getHandle()).query(setting);
        for (Table* const table : {&_product, &_round, &_latest})
            done = done && table->initTable(_db.getHandle(), test::product_columns);
        done = done && (_step > 0 || (makeTables() && acknowledge()));
        while (done)
            done = (_step % 2 == 1 ? replaceAll() : noteRound()) && acknowledge();
    }

private:
    bool acknowledge()
    {
        ++_step;
        const char byte = '.';
        return ::write(_pipe, &byte, 1) == 1;
    }

    static Record record(const Table& table, int id, const std::string& name)
    {
        Record record(*table.fields());
        record.setInteger("id", id);
        record.setString("name", name);
        return record;
    }

    bool makeTables()
    {
        bool done = _db.transactionBegin() && _product.create() && _round.create()
                    && _latest.create();
        for (int id = 1; id <= row_count; ++id)
            done = done && addProduct(id, 0);
        return done && _db.transactionCommit();
    }

    bool addProduct(int id, int round)
    {
        Record row = record(_product, id, nameOf(round));
        row.setDouble("price", 2.5);
        return _product.addRecord(row);
    }

    // A transaction: half of the rows are updated, the others removed and added.
    bool replaceAll()
    {
        const int round = roundOf(_step + 1);
        bool done = _db.transactionBegin() && _product.deleteRecords("id % 2 = 0");
        for (int id = 1; id <= row_count; ++id) {
            Record row = record(_product, id, nameOf(round));
            row.setDouble("price", 2.5);
            done = done && (id % 2 == 0 ? _product.addRecord(row) : _product.updateRecord(row));
        }
        Record row = record(_round, round, "done");
        row.setDouble("price", 0.5);
        return done && _round.addRecord(row)
               && _round.deleteRecord(sql::integer(round - rounds_kept)) && _db.transactionCommit();
    }

    // A single statement, which is a transaction by itself.
    bool noteRound()
    {
        return _latest.addOrUpdateRecord(sql::integer(1),
                                         record(_latest, 1, std::to_string(roundOf(_step))));
    }

    const int _pipe;
    int _step;
    Database _db;
    Table _product{"product"};
    Table _round{"round"};
    Table _latest{"latest"};
};

// --- The one that kills it

int killed = 0;
int acknowledged = 0;
int finishedUnacknowledged = 0;

class PrintFigures : public testing::Environment {
public:
    void TearDown() override
    {
        std::printf("kills: %d, %d steps acknowledged, %d finished without\n", killed, acknowledged,
                    finishedUnacknowledged);
    }
};

testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(new PrintFigures);

class KillTest : public testing::TestWithParam<const char*> {
protected:
    KillTest() : _file(_directory.file("shop.db"))
    {
    }

    // Lets a program go on from a step, kills it a little after it has acknowledged some more and
    // returns the last step that it has acknowledged.
    int workAndKill(int step, int moreSteps, int microseconds)
    {
        int ends[2];
        if (::pipe(ends) != 0)
            std::abort();
        const pid_t child = ::fork();
        if (child == 0)
            work(ends[1], step);
        ::close(ends[1]);
        step += acknowledgements(ends[0], moreSteps);
        ::usleep(static_cast<useconds_t>(microseconds));
        // A child that could not be started has no id to be killed by.
        EXPECT_EQ(child > 0 ? ::kill(child, SIGKILL) : -1, 0);
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status)) << "it has ended by itself";
        step += acknowledgements(ends[0], most_steps);
        ::close(ends[0]);
        return step;
    }

    // The step that the file has got to, by its own contents.
    int look(int step)
    {
        test::Connection db(_file);
        EXPECT_EQ(db.rows("pragma integrity_check"), "ok");
        const std::string there = contentsOf(db);
        EXPECT_THAT(there, AnyOf(expectedContents(step), expectedContents(step + 1)));
        if (there == expectedContents(step))
            return step;
        ++finishedUnacknowledged;
        return step + 1;
    }

    test::Diagnostics _diagnostics;

private:
    [[noreturn]] void work(int pipe, int step)
    {
        Program(pipe, step).work(_file, GetParam());
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

TEST_P(KillTest, AcknowledgedStepsAreThereAndNoneIsHalfThere)
{
    const int kills = test::longRun() ? 300 : 40;
    std::mt19937 random(20);
    int step = 0;
    for (int i = 0; i < kills && !HasFailure(); ++i) {
        const int before = step;
        // The first ones early: even an empty file has to be made.
        const int moreSteps = i < 5 ? 0 : static_cast<int>(random() % 4);
        step = workAndKill(step, moreSteps, static_cast<int>(random() % 8000));
        ++killed;
        acknowledged += step - before;
        step = look(step);
    }
    EXPECT_GT(step, 1);
}

INSTANTIATE_TEST_SUITE_P(Journals, KillTest,
                         testing::Values("pragma journal_mode = delete",
                                         "pragma journal_mode = truncate",
                                         "pragma journal_mode = wal"),
                         [](const testing::TestParamInfo<const char*>& chosen) {
                             const std::string setting = chosen.param;
                             return setting.substr(setting.rfind(' ') + 1);
                         });

} // namespace
