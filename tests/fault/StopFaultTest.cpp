// Work of both libraries that is stopped at any moment, from another thread, by a signal or between
// SQLite's own steps: what is said to be done is there, all of it, nothing else is, and the same work
// is done once the flag is cleared.

#include "SqlBackup.h"
#include "SqlBlob.h"
#include "SqlGroupCommit.h"
#include "SqlMigration.h"
#include "SqlPreparedTable.h"
#include "SqlSettings.h"
#include "SqlStopFlag.h"

#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Shop.h"
#include "Sqlite.h"
#include "SqliteMemory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <sys/time.h>

namespace {

using sql::StopFlag;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using test::Shop;
using testing::Combine;
using testing::IsEmpty;
using testing::ValuesIn;

using Clock = std::chrono::steady_clock;

const int row_count = 400;
const int photo_size = 70000; // in two pieces

// --- What is done

// All of it, or nothing.
struct Work : test::Case {
    std::function<bool(Shop&)> run;
};

Work byStatement(const std::string& name, const std::string& text)
{
    return {name, [text](Shop& shop) {
                return sql::Statement(shop.database, text).run();
            }};
}

Work byText(const std::string& name, const std::string& text)
{
    return {name, [text](Shop& shop) {
                return shop.query(text);
            }};
}

bool readsRows(Shop& shop)
{
    sql::Statement all(shop.database, "select id, name from product order by name");
    sql::integer id = 0;
    std::string name;
    int rows = 0;
    while (all.next(id, name))
        ++rows;
    EXPECT_TRUE(!all.finished() || rows == row_count);
    return all.finished();
}

bool readsRecords(Shop& shop)
{
    const bool isRead = shop.product.open();
    EXPECT_TRUE(!isRead || shop.product.recordCount() == row_count);
    return isRead;
}

bool counts(Shop& shop)
{
    const auto count = sql::Statement(shop.database, "select count(*) from product").one<int>();
    EXPECT_EQ(count.valueOr(row_count), row_count);
    return static_cast<bool>(count);
}

bool checks(Shop& shop)
{
    const auto result = sql::Statement(shop.database, "pragma integrity_check").one<std::string>();
    EXPECT_EQ(result.valueOr("ok"), "ok");
    return static_cast<bool>(result);
}

bool addsInBulk(Shop& shop)
{
    sql::PreparedTable archive(shop.database, shop.archive);
    std::vector<sql::Record> records;
    for (int id = 1; id <= row_count; ++id)
        records.push_back(test::good(id, "good"));
    return archive.addRecords(records.begin(), records.end());
}

bool copies(Shop& shop)
{
    sql::PreparedTable archive(shop.database, shop.archive);
    sql::PreparedTable product(shop.database, shop.product);
    return archive.copyRecords(product);
}

// Both libraries, with a savepoint that is kept and one that is not.
bool changesTogether(Shop& shop)
{
    sql::Statement update(shop.database, "update product set price = price + 1 where id < ?");
    return static_cast<bool>(sql::inTransaction(shop.database, [&] {
        for (int id = 1; id <= 20; ++id) {
            if (!shop.archive.addRecord(test::good(id, "good")))
                return false;
        }
        {
            sql::Savepoint kept(shop.database);
            if (!update.run(100) || !kept.commit())
                return false;
        }
        const sql::Savepoint undone(shop.database);
        return update.run(200);
    }));
}

bool runsScript(Shop& shop)
{
    return static_cast<bool>(sql::inTransaction(shop.database, [&] {
        return static_cast<bool>(sql::runScript(shop.database,
                                                "update product set price = 7 where id % 2;"
                                                "create index by_price on product (price);"
                                                "delete from product where id % 3 = 0"));
    }));
}

bool changesByTheDatabase(Shop& shop)
{
    if (!shop.database.transactionBegin())
        return false;
    if (shop.query("update product set price = price + 1") && shop.setUserVersion(7)
        && shop.database.transactionCommit())
        return true;
    // One that has just been stopped itself is told again.
    EXPECT_TRUE(!shop.inTransaction() || shop.database.transactionRollback()
                || shop.database.transactionRollback());
    return false;
}

bool raises(sql::Database& database)
{
    return sql::Statement(database, "update product set price = price + 1").run();
}

// Foreign keys are enforced afterwards, as before.
bool migrates(Shop& shop)
{
    const sql::MigrationStep steps[] = {
        {1, "create table sensor (name); create index by_price on product (price)"},
        {2, raises},
        {3, "delete from product where id % 3 = 0"}};
    int* const none = nullptr;
    sqlite3_db_config(shop.handle(), SQLITE_DBCONFIG_ENABLE_FKEY, 1, none);
    const bool isDone = static_cast<bool>(sql::migrate(shop.database, steps));
    int isEnforced = 0;
    sqlite3_db_config(shop.handle(), SQLITE_DBCONFIG_ENABLE_FKEY, -1, &isEnforced);
    EXPECT_EQ(isEnforced, 1);
    return isDone;
}

// One group, which is lost where it is not flushed.
bool commitsAGroup(Shop& shop)
{
    sql::GroupCommit group(shop.database, row_count, std::chrono::hours(1));
    sql::Statement update(shop.database, "update product set price = price + 1 where id < ?");
    for (int i = 0; i < 5; ++i) {
        if (!group.write([&] { return update.run(100 * i); }))
            return false;
    }
    return group.flush();
}

bool readsABlob(Shop& shop)
{
    sql::Blob photo(shop.database, "photo", "data", 1, sql::blob_read);
    std::size_t size = 0;
    const bool isRead = photo.isOpen() && photo.readAll([&size](sql::Bytes bytes) {
        size += bytes.size;
        return true;
    });
    EXPECT_TRUE(!isRead || size == photo_size);
    return isRead;
}

// What was written stays, but for the transaction.
bool writesABlob(Shop& shop)
{
    return static_cast<bool>(sql::inTransaction(shop.database, [&] {
        sql::Blob photo(shop.database, "photo", "data", 1, sql::blob_write);
        const auto fill = [](void* data, std::size_t size) {
            std::memset(data, 'x', size);
            return true;
        };
        return photo.isOpen() && photo.writeAll(fill) && photo.release();
    }));
}

// Those before the one that was stopped are applied, which no file tells.
bool appliesSettings(Shop& shop)
{
    sql::Settings settings;
    settings.busyTimeout = milliseconds(1);
    settings.foreignKeys = true;
    settings.cacheSize = -77;
    settings.pageSize = 4096;
    settings.journalMode = sql::journal_wal;
    settings.synchronous = sql::synchronous_normal;
    return static_cast<bool>(settings.apply(shop.database));
}

bool checksIntegrity(Shop& shop)
{
    const auto complaints = sql::checkIntegrity(shop.database, sql::check_full);
    EXPECT_TRUE(!complaints || complaints->empty());
    return static_cast<bool>(complaints);
}

// A log that was not copied is as good as one that was.
bool copiesTheLog(Shop& shop)
{
    sql::Settings settings;
    settings.journalMode = sql::journal_wal;
    if (!settings.apply(shop.database) || !shop.query("update product set price = price"))
        return false;
    const auto left = sql::checkpoint(shop.database, sql::checkpoint_truncate);
    EXPECT_EQ(left.valueOr(0), 0);
    return static_cast<bool>(left);
}

bool optimizes(Shop& shop)
{
    return shop.query("select * from product where code = 7")
           && static_cast<bool>(sql::optimize(shop.database));
}

std::string beside(Shop& shop, const std::string& name)
{
    return std::string(sqlite3_db_filename(shop.handle(), "main")) + name;
}

bool backsUp(Shop& shop)
{
    const std::string file = beside(shop, "-backup");
    std::filesystem::remove(file);
    const bool isDone = static_cast<bool>(sql::backupDatabase(shop.database, file));
    EXPECT_EQ(std::filesystem::exists(file), isDone);
    EXPECT_FALSE(std::filesystem::exists(file + "-unfinished"));
    EXPECT_TRUE(!isDone || test::contents(file) == test::contents(beside(shop, "")));
    return isDone;
}

bool restores(Shop& shop)
{
    const std::string file = beside(shop, "-other");
    if (!std::filesystem::exists(file))
        test::Connection(file).run("create table other (id); insert into other values (1), (2)");
    return static_cast<bool>(sql::restoreDatabase(shop.database, file));
}

const Work works[] = {
    byStatement("Update", "update product set price = price + 1, name = name || '!'"),
    byStatement("Insert", "insert into archive select * from product"),
    byStatement("Delete", "delete from product where id % 2"),
    byStatement("DeleteAll", "delete from product"),
    byStatement("CreateIndex", "create index by_name on product (name, price)"),
    byStatement("Vacuum", "vacuum"),
    byStatement("Reindex", "reindex"),
    byText("UpdateByText", "update product set price = price + 1, name = name || '!'"),
    byText("DropTable", "drop table product"),
    {"ReadRows", readsRows},
    {"ReadRecords", readsRecords},
    {"Count", counts},
    {"IntegrityCheck", checks},
    {"Bulk", addsInBulk},
    {"Copy", copies},
    {"Transaction", changesTogether},
    {"Script", runsScript},
    {"Backup", backsUp},
    {"Restore", restores},
    {"Migration", migrates},
    {"GroupCommit", commitsAGroup},
    {"ReadBlob", readsABlob},
    {"WriteBlob", writesABlob},
    {"Settings", appliesSettings},
    {"CheckIntegrity", checksIntegrity},
    {"Checkpoint", copiesTheLog},
    {"Optimize", optimizes},
    {"TransactionOfTheDatabase", changesByTheDatabase},
};

// --- What stops it

enum class Means { step, thread, signal };

const char* const names_of_means[] = {"BetweenSteps", "FromAThread", "FromASignal"};

std::atomic<StopFlag*> signalled(nullptr);

// Sets the flag once, as many steps of SQLite's or microseconds from now on.
class Stopper {
public:
    Stopper(Shop& shop, StopFlag& stop, Means means, long when)
        : _db(shop.handle()), _stop(stop), _means(means), _left(when)
    {
        if (means == Means::step)
            sqlite3_progress_handler(_db, 1, look, this);
        else if (means == Means::thread)
            _thread = std::thread([this, when] {
                std::this_thread::sleep_for(microseconds(when));
                _stop.set();
            });
        else
            raiseIn(when);
    }
    ~Stopper()
    {
        if (_means == Means::step)
            sqlite3_progress_handler(_db, 0, nullptr, nullptr);
        else if (_means == Means::thread)
            _thread.join();
        else
            raiseIn(0);
    }
    Stopper(const Stopper&) = delete;
    Stopper& operator=(const Stopper&) = delete;

    // How many steps there have been.
    long steps() const
    {
        return -_left;
    }

private:
    static int look(void* stopper)
    {
        Stopper& self = *static_cast<Stopper*>(stopper);
        if (--self._left == 0)
            self._stop.set();
        return 0;
    }

    void raiseIn(long delay) const
    {
        signalled = delay > 0 ? &_stop : nullptr;
        std::signal(SIGALRM, [](int) {
            if (StopFlag* const stop = signalled)
                stop->set();
        });
        itimerval time = {};
        time.it_value.tv_usec = std::min(delay, 999999L);
        ::setitimer(ITIMER_REAL, &time, nullptr);
    }

    sqlite3* _db;
    StopFlag& _stop;
    const Means _means;
    long _left;
    std::thread _thread;
};

// --- What comes of it

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("stops: %d, %d of them too late for the work\n", stops, late);
    }

    int stops = 0;
    int late = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

class StopFaultTest : public testing::TestWithParam<std::tuple<Work, Means>> {
protected:
    StopFaultTest()
    {
        Shop shop(_pattern);
        EXPECT_TRUE(shop.open() && shop.product.create() && shop.archive.create());
        test::run(shop.handle(),
                  "insert into product (id, name, price, code) with recursive n (i) as"
                  " (select 1 union all select i + 1 from n limit "
                      + std::to_string(row_count)
                      + ") select i, 'product ' || (i * 7 % 400), i, i from n");
        test::run(shop.handle(), "create table photo (id integer primary key, data);"
                                 "insert into photo values (1, zeroblob("
                                     + std::to_string(photo_size) + "))");
        // What is known of the table is of when it was small.
        test::run(shop.handle(), "analyze product; update sqlite_stat1 set stat = '10 1'");
        shop.close();
        _before = test::contents(_pattern);
        test::writeFile(_file, test::readFile(_pattern));
        _extent = measure();
        _after = test::contents(_file);
    }

    void stopAt(long when)
    {
        test::writeFile(_file, test::readFile(_pattern));
        test::Diagnostics diagnostics;
        {
            Shop shop(_file);
            EXPECT_TRUE(shop.open());
            StopFlag stop(shop.database);
            EXPECT_TRUE(stop.isAttached());
            bool isDone = false;
            {
                const Stopper stopper(shop, stop, means(), when);
                isDone = work().run(shop);
            }
            expectReports(diagnostics, isDone);
            EXPECT_TRUE(isDone || stop.isSet());
            EXPECT_FALSE(shop.inTransaction());
            EXPECT_EQ(test::contents(_file), isDone ? _after : _before);
            ++figures.stops;
            figures.late += isDone && stop.isSet();

            stop.clear();
            diagnostics.clear();
            EXPECT_TRUE(isDone ? shop.query("select 1") : work().run(shop));
            EXPECT_EQ(test::contents(_file), _after);
        }
        EXPECT_THAT(diagnostics.events(), IsEmpty()); // no statement is left
    }

    long extent() const
    {
        return _extent;
    }

private:
    static const Work& work()
    {
        return std::get<0>(GetParam());
    }
    static Means means()
    {
        return std::get<1>(GetParam());
    }

    // In steps, or microseconds.
    long measure() const
    {
        const test::Diagnostics diagnostics;
        Shop shop(_file);
        EXPECT_TRUE(shop.open());
        StopFlag stop(shop.database);
        const Stopper stopper(shop, stop, Means::step, 0);
        const Clock::time_point start = Clock::now();
        EXPECT_TRUE(work().run(shop));
        const auto time = std::chrono::duration_cast<microseconds>(Clock::now() - start);
        EXPECT_THAT(diagnostics.events(), IsEmpty());
        return means() == Means::step ? stopper.steps() : static_cast<long>(time.count());
    }

    // A failure is that of a stop, or follows it in a transaction; without one there is silence.
    static void expectReports(const test::Diagnostics& diagnostics, bool isDone)
    {
        EXPECT_EQ(diagnostics.events().empty(), isDone);
        EXPECT_THAT(diagnostics.assertions(), IsEmpty());
        for (const std::string& error : diagnostics.errors()) {
            const std::size_t rc = error.find("rc=");
            const int code = rc != std::string::npos ? std::stoi(error.substr(rc + 3))
                                                     : SQLITE_ABORT;
            EXPECT_THAT(code & 0xff, testing::AnyOf(SQLITE_INTERRUPT, SQLITE_ABORT)) << error;
        }
    }

    const test::TemporaryDirectory _directory;
    const std::string _pattern = _directory.file("pattern.db");
    const std::string _file = _directory.file("shop.db");
    std::string _before;
    std::string _after;
    long _extent = 0;
};

TEST_P(StopFaultTest, WorkIsDoneOrUndoneAndDoneTheNextTime)
{
    const long stride = std::max(test::stride(static_cast<int>(extent() / 8)), 1);
    for (long when = 1; when <= extent() + 1 && !HasFailure(); when += stride) {
        stopAt(when);
        if (HasFailure())
            std::printf("at %ld\n", when);
    }
}

std::string nameOfCase(const testing::TestParamInfo<StopFaultTest::ParamType>& chosen)
{
    return std::get<0>(chosen.param).name
           + names_of_means[static_cast<int>(std::get<1>(chosen.param))];
}

INSTANTIATE_TEST_SUITE_P(Works, StopFaultTest,
                         Combine(ValuesIn(works),
                                 ValuesIn({Means::step, Means::thread, Means::signal})),
                         nameOfCase);

// --- How long it takes

struct LongWork : test::Case {
    std::string statement;
};

const LongWork long_works[] = {
    {"Select", "select * from product where name like '%x%'"},
    {"Count", "select count(*) from product where name like '%x%'"},
    {"Sort", "select * from product order by name desc, price"},
    {"CreateIndex", "create index by_name on product (name, price)"},
    {"Update", "update product set name = name || '!'"},
    {"Insert", "insert into archive select * from product"},
    {"Delete", "delete from product where id % 2"},
    {"Vacuum", "vacuum"},
    {"IntegrityCheck", "pragma integrity_check"},
};

// No more than SQLite needs to undo what it has written of a few megabytes, where nothing else runs.
const milliseconds longest_stop(50);

class StopTimeTest : public testing::TestWithParam<LongWork> {
protected:
    StopTimeTest()
    {
        static const std::string pattern = makePattern(_file);
        _pattern = &pattern;
    }

    // From a moment of the run, nothing where that was over by then; from its beginning without one.
    std::optional<microseconds> timeToStop(std::optional<microseconds> moment) const
    {
        test::writeFile(_file, *_pattern);
        Shop shop(_file);
        EXPECT_TRUE(shop.open() && shop.query("pragma cache_size = -500"));
        StopFlag stop(shop.database);
        sql::Statement statement(shop.database, GetParam().statement);
        std::atomic<Clock::rep> start(Clock::now().time_since_epoch().count());
        std::thread other;
        if (moment)
            other = std::thread([&] {
                std::this_thread::sleep_for(*moment);
                start = Clock::now().time_since_epoch().count();
                stop.set();
            });
        const bool isDone = statement.run();
        const Clock::duration end = Clock::now().time_since_epoch();
        if (moment)
            other.join();
        EXPECT_NE(isDone, statement.error().isStopped());
        if (isDone && moment)
            return std::nullopt;
        return std::chrono::duration_cast<microseconds>(end - Clock::duration(start));
    }

private:
    static std::string makePattern(const std::string& file)
    {
        Shop shop(file);
        EXPECT_TRUE(shop.open() && shop.product.create() && shop.archive.create());
        const int count = test::briefRun() ? 5000 : 50000;
        test::run(shop.handle(),
                  "insert into product (id, name, price, code) with recursive n (i) as"
                  " (select 1 union all select i + 1 from n limit "
                      + std::to_string(count)
                      + ") select i, 'product ' || (i * 7919 % 100003), i, i from n");
        shop.close();
        return test::readFile(file);
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("shop.db");
    const std::string* _pattern;
};

// The machine may be busy with something else: once is enough.
TEST_P(StopTimeTest, StopIsHeededSoon)
{
    const test::Diagnostics diagnostics;
    const microseconds whole = *timeToStop(std::nullopt);
    std::vector<microseconds> times;
    for (int i = 0; i < 8 || (times.empty() && i < 400); ++i) {
        if (const auto time = timeToStop(whole * (i % 8 + 1) / 10))
            times.push_back(*time);
    }
    ASSERT_FALSE(times.empty());
    std::sort(times.begin(), times.end());
    std::printf("%s of %.1f ms: %zu stops, within %.1f ms\n", GetParam().name.c_str(),
                static_cast<double>(whole.count()) / 1000, times.size(),
                static_cast<double>(times.back().count()) / 1000);
    EXPECT_LT(times.front(), longest_stop);
}

INSTANTIATE_TEST_SUITE_P(LongWorks, StopTimeTest, ValuesIn(long_works), test::NameOfCase());

// --- No memory

TEST(StopMemoryTest, FlagIsAttachedOrSaysWhyNot)
{
    bool isAttached = false;
    for (int nth = 1; !isAttached && nth < 1000; ++nth) {
        test::Diagnostics diagnostics;
        test::SqliteMemory memory;
        sql::Database database;
        EXPECT_TRUE(database.open(":memory:", sql::Database::access_create, false, 1000));
        memory.refuse(nth, false);
        memory.watch(true);
        StopFlag stop(database);
        memory.watch(false);
        isAttached = stop.isAttached();
        EXPECT_EQ(stop.error().isNoMemory(), !isAttached);
        EXPECT_EQ(diagnostics.events().empty(), isAttached);
        stop.set();
        EXPECT_EQ(sql::RecordSet(database.getHandle()).query("select 1"), !isAttached);
    }
    EXPECT_TRUE(isAttached);
}

} // namespace
