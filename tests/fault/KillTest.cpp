#include "Diagnostics.h"
#include "Environment.h"
#include "PreparedSteps.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
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
        + test::changingInTransactions() + test::backingUp() + test::removing()
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

} // namespace
