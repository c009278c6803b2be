#include "Diagnostics.h"
#include "Environment.h"
#include "Reports.h"
#include "Shop.h"
#include "SqlSettings.h"
#include "Sqlite.h"
#include "Trouble.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using test::FileCall;
using test::Shop;
using test::Target;
using test::Trouble;
using testing::IsEmpty;

typedef std::vector<std::pair<std::string, std::string>> Values; // of settings, by their names

// What all are set to, in their order.
const Values asked = {{"busy_timeout", "1"}, {"foreign_keys", "1"}, {"cache_size", "-77"},
                      {"mmap_size", "0"},    {"temp_store", "2"},   {"page_size", "512"},
                      {"journal_mode", ""},  {"synchronous", "1"}};

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("faults in settings: %d, %d operations failed\n", points, failures);
    }

    int points = 0;
    int failures = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

// From the journal that the file has to the other one.
class SettingsFaultTest : public test::TroubleTest {
protected:
    bool workWithTrouble(int nth) override
    {
        const auto& [cause, lasts, journal] = GetParam();
        test::Diagnostics diagnostics;
        const test::TemporaryDirectory directory;
        const std::string file = directory.file("shop.db");
        Trouble trouble(cause, nth, lasts);
        fill(file, journal);
        {
            Shop shop(file);
            EXPECT_TRUE(shop.open());
            const Values before = present(shop.handle());
            _errors.clear();
            _applied.reset();
            const bool returned = trouble.runThrough(shop.handle(), [&] { work(shop); });
            expectReports(diagnostics, trouble.hasStruck(), returned);
            // Pages that could not be read may be among what is complained of.
            EXPECT_TRUE(!_complains || cause.target == Target::file);
            if (_applied)
                expectPresent(before, present(shop.handle()));
            figures.failures += static_cast<int>(_errors.size());
            diagnostics.clear();
            _errors.clear();
            work(shop);
            EXPECT_FALSE(_complains);
            EXPECT_THAT(_errors, IsEmpty());
            EXPECT_EQ(present(shop.handle()), all());
        }
        EXPECT_THAT(diagnostics.events(), IsEmpty()); // no statement is left
        EXPECT_EQ(test::Connection(file).rows("select count(*) from product"), "9");
        EXPECT_EQ(trouble.blocksInUse(), 0);
        _applied.reset();
        _errors = std::vector<sql::Error>();
        ++figures.points;
        return trouble.hasStruck();
    }

private:
    static void fill(const std::string& file, const std::string& journal)
    {
        test::Connection db(file);
        db.run("pragma page_size = 512; pragma journal_mode = " + journal
               + "; create table product (id integer primary key, name, price, sold, code);"
                 "create index by_name on product (name); analyze;"
                 "insert into product with recursive n(i) as (select 1 union all select i + 1 from "
                 "n limit 9) select i, 'product ' || i, null, null, null from n");
    }

    static std::string otherJournal()
    {
        return std::get<2>(GetParam()) == std::string("wal") ? "delete" : "wal";
    }

    static Values all()
    {
        Values values = asked;
        values[6].second = otherJournal();
        return values;
    }

    static Values present(sqlite3* db)
    {
        Values values = asked;
        for (auto& [name, value] : values)
            value = test::rows(db, "pragma " + name);
        return values;
    }

    static sql::Settings settings()
    {
        sql::Settings all;
        all.busyTimeout = std::chrono::milliseconds(1);
        all.foreignKeys = true;
        all.cacheSize = -77;
        all.mmapSize = 0; // no test of faults has mapped files
        all.tempStore = sql::temp_store_memory;
        all.pageSize = 512;
        all.journalMode = otherJournal() == "wal" ? sql::journal_wal : sql::journal_delete;
        all.synchronous = sql::synchronous_normal;
        return all;
    }

    void work(Shop& shop)
    {
        _applied = settings().apply(shop.database);
        note(*_applied);
        const auto complaints = sql::checkIntegrity(shop.database, sql::check_full);
        note(complaints);
        _complains = complaints && !complaints->empty();
        note(sql::checkpoint(shop.database, sql::checkpoint_full));
        note(sql::optimize(shop.database));
    }

    template <typename T> void note(const sql::Result<T>& result)
    {
        if (result.failed())
            _errors.push_back(result.error());
    }

    // Each failure is reported once, with its reason; without one there is silence.
    void expectReports(test::Diagnostics& diagnostics, bool struck, bool returned)
    {
        const std::set<int>& codes = std::get<0>(GetParam()).codes;
        std::vector<std::string> expected;
        for (const sql::Error& error : _errors) {
            const bool isOfTheCause = codes.count(error.code()) == 1;
            EXPECT_TRUE(isOfTheCause || error.code() == SQLITE_ERROR) << error.text();
            expected.push_back("  rc=" + std::to_string(error.extendedCode()) + "=" + error.name()
                               + ": " + error.text());
        }
        std::vector<std::string> reported;
        for (const std::string& line : diagnostics.errors()) {
            if (line.compare(0, 5, "  rc=") == 0)
                reported.push_back(line);
        }
        EXPECT_EQ(reported, expected);
        EXPECT_EQ(diagnostics.events().size(), 2 * expected.size());
        EXPECT_TRUE(struck || (returned && expected.empty()));
    }

    // Up to the setting that failed all have what was asked, and those behind it what they had.
    void expectPresent(const Values& before, const Values& now) const
    {
        const std::string& text = _applied->error().text();
        bool isBehind = false;
        for (std::size_t i = 0; i < now.size(); ++i) {
            const bool hasFailed = _applied->failed() && text.find(now[i].first) == 0;
            if (!hasFailed) {
                EXPECT_EQ(now[i], isBehind ? before[i] : all()[i]) << text;
            }
            isBehind = isBehind || hasFailed;
        }
        EXPECT_EQ(isBehind, _applied->failed()) << text;
    }

    std::optional<sql::Result<bool>> _applied;
    std::vector<sql::Error> _errors;
    bool _complains = false;
};

TEST_P(SettingsFaultTest, WhatIsSaidToBeAppliedIsAndWhatFailedIsReported)
{
    tryAllPoints();
}

INSTANTIATE_TEST_SUITE_P(File, SettingsFaultTest, test::everyWay(test::file_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Journal, SettingsFaultTest,
                         test::everyWay(std::vector(std::begin(test::journal_causes) + 1,
                                                    std::end(test::journal_causes))),
                         test::NameOfWay());
// Once only: a log that stays locked is tried again for ten seconds.
INSTANTIATE_TEST_SUITE_P(Lock, SettingsFaultTest,
                         testing::Combine(testing::Values(test::journal_causes[0]),
                                          testing::Values(false), testing::Values("delete", "wal")),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Memory, SettingsFaultTest, test::everyWay(test::memory_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Interrupt, SettingsFaultTest,
                         test::everyWay(std::vector{test::interrupt_cause}), test::NameOfWay());

// --- Two at once

TEST(CheckpointFaultTest, AnotherCheckpointMeanwhileIsBusy)
{
    test::Diagnostics diagnostics;
    const test::TemporaryDirectory directory;
    test::FaultVfs vfs;
    Shop first(directory.file("shop.db"));
    Shop second(directory.file("shop.db"));
    ASSERT_TRUE(first.open() && first.query("pragma journal_mode = wal") && first.product.create());
    ASSERT_TRUE(second.open() && second.product.exists());
    std::optional<sql::Result<sql::integer>> meanwhile;
    vfs.before = [&](const test::FileAccess& access) {
        if (access.call == FileCall::sync && !meanwhile)
            meanwhile = sql::checkpoint(second.database, sql::checkpoint_passive);
        return SQLITE_OK;
    };
    EXPECT_EQ(sql::checkpoint(first.database, sql::checkpoint_full).valueOr(-1), 0);
    ASSERT_TRUE(meanwhile && meanwhile->error().isBusy());
    EXPECT_EQ(meanwhile->error().text(), "another checkpoint is under way");
    EXPECT_EQ(diagnostics.take(),
              test::report::statementFailed("checkpoint", "pragma main.wal_checkpoint(passive)",
                                            "5=SQLITE_BUSY: another checkpoint is under way"));
}

} // namespace
