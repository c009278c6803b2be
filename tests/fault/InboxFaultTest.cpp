#include "CutTest.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Shop.h"
#include "SqlInbox.h"
#include "Sqlite.h"
#include "SyncDevice.h"
#include "Trouble.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

using sql::Inbox;
using sql::Received;
using test::Cause;
using test::SyncSet;
using test::Target;
using testing::Contains;
using testing::IsEmpty;

// --- The work

// What comes from a device: many changes, a conflict, two sets behind it, and those of a restored one.
struct Mail {
    Mail()
    {
        test::SyncDevice device;
        first = device.commit("insert into product with recursive n (i) as"
                              " (select 1 union all select i + 1 from n limit 60)"
                              " select i, printf('%.*c', i * 7, 'x'), i * 1.5 from n;"
                              "insert into pair values ('a', x'01'), ('b', x'02')");
        const sql::SyncPosition backup = device.position;
        conflict = device.commit("insert into product values (100, 'there', 1);"
                                 "delete from product where id between 41 and 60");
        third = device.commit("update product set price = -1 where id % 3 = 0");
        device.restore(backup, 12);
        other = device.commit("delete from pair; update product set name = null where id < 5");
    }

    SyncSet first, conflict, third, other;
};

const Mail& mail()
{
    static const Mail once;
    return once;
}

// An operation that changes the file at once, or not at all.
typedef std::function<sql::Error(Inbox&)> Step;

Step applied(const SyncSet Mail::*set, Received expected)
{
    return [set, expected](Inbox& inbox) {
        const SyncSet& sent = mail().*set;
        const sql::Result<Received> received = inbox.apply("device-17", sent.header, sent.bytes);
        EXPECT_TRUE(received.failed() || *received == expected);
        return received.error();
    };
}

const Step steps[] = {
    applied(&Mail::first, Received::applied),
    applied(&Mail::conflict, Received::kept),
    applied(&Mail::third, Received::kept),
    [](Inbox& inbox) { return inbox.discard("device-17").error(); },
    [](Inbox& inbox) { return inbox.retry("device-17").error(); },
    [](Inbox& inbox) { return inbox.admit("device-17", mail().other.header).error(); },
    applied(&Mail::other, Received::applied),
};
constexpr std::size_t step_count = std::size(steps);

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("inboxes: %d with faults, %d of them whole; %d power losses, %d kills\n",
                    faults, whole, losses, kills);
    }

    int faults = 0;
    int whole = 0;
    int losses = 0;
    int kills = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

// A file that an inbox is opened in, with the setting of its journal.
class Centre {
public:
    Centre(const std::string& name, const std::string& setting) : _name(name), _setting(setting)
    {
    }

    void fill() const
    {
        test::Connection db(_name);
        db.run("pragma page_size = 512; " + _setting + "; " + test::sync_tables
               + "; create table part (product references product);"
                 "create table log (what);"
                 "create trigger told after update on product begin"
                 " insert into log values ('no'); end;"
                 "insert into product values (100, 'here', 2)");
    }

    // From a step to the end.
    bool work(std::size_t from = 0) const
    {
        test::Shop shop(_name);
        if (!shop.open() || !shop.query(_setting) || !shop.query("pragma foreign_keys = on"))
            return false;
        Inbox inbox(shop.database, {"product", "pair"});
        return std::all_of(steps + from, steps + step_count,
                           [&inbox](const Step& step) { return !step(inbox); });
    }

    std::string contents() const
    {
        return test::contents(_name);
    }

private:
    const std::string _name;
    const std::string _setting;
};

// What the file holds before the inbox, with it, and after each step: all are different.
const std::vector<std::string>& states()
{
    static const std::vector<std::string> all = [] {
        const test::Diagnostics diagnostics;
        const test::TemporaryDirectory directory;
        const Centre centre(directory.file("centre.db"), "");
        centre.fill();
        std::vector<std::string> contents = {centre.contents()};
        test::Shop shop(directory.file("centre.db"));
        EXPECT_TRUE(shop.open());
        Inbox inbox(shop.database, {"product", "pair"});
        contents.push_back(centre.contents());
        for (const Step& step : steps) {
            EXPECT_FALSE(step(inbox));
            contents.push_back(centre.contents());
        }
        EXPECT_EQ(std::set<std::string>(contents.begin(), contents.end()).size(), step_count + 2);
        return contents;
    }();
    return all;
}

// The step to go on with.
std::size_t stepAfter(const std::string& contents)
{
    const auto found = std::find(states().begin(), states().end(), contents);
    const auto index = static_cast<std::size_t>(found - states().begin());
    return std::max<std::size_t>(index, 1) - 1;
}

// --- Faults

class InboxFaultTest : public test::TroubleTest {
protected:
    bool workWithTrouble(int nth) override
    {
        const auto& [cause, lasts, journal] = GetParam();
        test::Diagnostics diagnostics;
        const test::TemporaryDirectory directory;
        const Centre centre(directory.file("centre.db"),
                            "pragma journal_mode = " + std::string(journal));
        test::Trouble trouble(cause, nth, lasts);
        centre.fill();
        {
            test::Shop shop(directory.file("centre.db"));
            EXPECT_TRUE(shop.open() && shop.query("pragma cache_size = 1")
                        && shop.query("pragma foreign_keys = on"));
            std::size_t done = 0; // states
            sql::Error error;
            trouble.runThrough(shop.handle(), [&] { error = run(shop.database, done); });
            expectReports(diagnostics, error, done, trouble.hasStruck());
            expectRestored(shop.handle());
            // No memory is left for a rollback that SQLite compiles anew.
            if (cause.target == Target::sqlite_memory && lasts && shop.inTransaction())
                shop.query("rollback");
            EXPECT_FALSE(shop.inTransaction());
            EXPECT_EQ(centre.contents(), states()[done]);
            figures.whole += done == step_count + 1 && trouble.hasStruck();
            shop.close();
            EXPECT_TRUE(centre.work(std::max<std::size_t>(done, 1) - 1));
            EXPECT_EQ(centre.contents(), states().back());
            diagnostics.clear();
        }
        EXPECT_THAT(diagnostics.events(), IsEmpty()); // no statement is left
        EXPECT_EQ(trouble.blocksInUse(), 0);
        ++figures.faults;
        return trouble.hasStruck();
    }

private:
    // Up to the first failure.
    static sql::Error run(sql::Database& database, std::size_t& done)
    {
        Inbox inbox(database, {"product", "pair"});
        if (!inbox.isOpen())
            return inbox.error();
        for (const Step& step : steps) {
            ++done;
            if (sql::Error error = step(inbox))
                return error;
        }
        ++done;
        return sql::Error();
    }

    // A failure has one of the cause's codes, and is reported.
    static void expectReports(const test::Diagnostics& diagnostics, const sql::Error& error,
                              std::size_t done, bool struck)
    {
        std::set<int> codes = std::get<0>(GetParam()).codes;
        codes.insert(SQLITE_ABORT); // the transaction is lost
        if (error) {
            EXPECT_EQ(codes.count(error.code()), 1U) << error.text();
            EXPECT_THAT(diagnostics.errors(),
                        Contains("  rc=" + std::to_string(error.extendedCode()) + "=" + error.name()
                                 + ": " + error.text()));
        }
        EXPECT_TRUE(struck || (!error && done == step_count + 1));
        EXPECT_THAT(diagnostics.assertions(), IsEmpty());
    }

    static void expectRestored(sqlite3* db)
    {
        for (const int setting : {SQLITE_DBCONFIG_ENABLE_TRIGGER, SQLITE_DBCONFIG_ENABLE_FKEY}) {
            int isOn = -1;
            sqlite3_db_config(db, setting, -1, &isOn);
            EXPECT_EQ(isOn, 1);
        }
    }
};

TEST_P(InboxFaultTest, EachStepIsDoneWholeOrNotAtAllAndCanBeDoneAgain)
{
    states();
    tryAllPoints({211, 43, 5});
}

INSTANTIATE_TEST_SUITE_P(File, InboxFaultTest, test::everyWay(test::file_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Journal, InboxFaultTest, test::everyWayWithoutALog(test::journal_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Memory, InboxFaultTest, test::everyWay(test::memory_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Interrupt, InboxFaultTest,
                         test::everyWay(std::vector{test::interrupt_cause}), test::NameOfWay());

// --- Power cuts and kills

class InboxCutTest : public test::CutTest {
protected:
    void SetUp() override
    {
        states();
    }
    void fill() override
    {
        _centre.fill();
    }
    bool work() override
    {
        return _centre.work();
    }

    // Goes on to the end from where it stands.
    std::function<void()> startAgain() override
    {
        return [this] {
            const std::string there = _centre.contents();
            EXPECT_THAT(states(), Contains(there));
            EXPECT_TRUE(_centre.work(stepAfter(there)));
            EXPECT_EQ(_centre.contents(), states().back());
        };
    }

private:
    const Centre _centre{file(), GetParam().setting};
};

TEST_P(InboxCutTest, PowerCutAtEveryWriteLeavesAFileToGoOnWith)
{
    figures.losses += tryPowerCuts(3);
}

TEST_P(InboxCutTest, KillAtEachCallIntoTheFileSystemLeavesAFileToGoOnWith)
{
    figures.kills += tryKills(7);
}

INSTANTIATE_TEST_SUITE_P(Journals, InboxCutTest, testing::ValuesIn(test::journals),
                         test::NameOfCase());

} // namespace
