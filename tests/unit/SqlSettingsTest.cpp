#include "SqlSettings.h"

#include "SqlStatement.h"
#include "SqlStopFlag.h"
#include "SqlTransaction.h"

#include "Cases.h"
#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <chrono>
#include <climits>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace {

namespace report = test::report;

using sql::integer;
using sql::Result;
using sql::Settings;
using std::chrono::milliseconds;
using test::Texts;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ValuesIn;

static_assert(sql::journal_delete == 0 && sql::journal_truncate == 1 && sql::journal_persist == 2);
static_assert(sql::journal_memory == 3 && sql::journal_wal == 4 && sql::journal_off == 5);
static_assert(sql::synchronous_off == 0 && sql::synchronous_normal == 1);
static_assert(sql::synchronous_full == 2 && sql::synchronous_extra == 3);
static_assert(sql::temp_store_default == 0 && sql::temp_store_file == 1);
static_assert(sql::temp_store_memory == 2);
static_assert(sql::check_none == 0 && sql::check_quick == 1 && sql::check_full == 2);
static_assert(sql::checkpoint_passive == 0 && sql::checkpoint_full == 1);
static_assert(sql::checkpoint_restart == 2 && sql::checkpoint_truncate == 3);
static_assert(std::is_same_v<std::underlying_type_t<sql::JournalMode>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<sql::SynchronousMode>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<sql::TempStore>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<sql::IntegrityCheck>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<sql::CheckpointMode>, std::int32_t>);

// A file with two pages of products and one index, and a connection to it.
class SettingsTest : public test::ReportTest {
protected:
    SettingsTest()
    {
        test::Connection(_file).run("create table product (id integer primary key, name);"
                                    "create index by_name on product (name);"
                                    "insert into product values (1, 'tea'), (2, 'rum')");
        open(_file);
    }

    // A statement that is left over would be reported here.
    void TearDown() override
    {
        _database.close();
        ReportTest::TearDown();
    }

    void open(const std::string& file,
              sql::Database::AccessMode mode = sql::Database::access_create)
    {
        _database.close();
        ASSERT_TRUE(_database.open(file, mode, false, 0));
    }

    std::string rows(const std::string& query)
    {
        return test::rows(_database.getHandle(), query);
    }

    void expectApplied(const Settings& settings)
    {
        const Result<bool> applied = settings.apply(_database);
        EXPECT_FALSE(applied.failed()) << applied.error().text();
        EXPECT_TRUE(applied.valueOr(false));
        expectReport({});
    }

    // For the reason "1=SQLITE_ERROR: page_size is 4096, not 512", which the statement told.
    template <typename T>
    void expectFailure(const Result<T>& result, const std::string& operation,
                       const std::string& statement, const std::string& reason)
    {
        const sql::Error& error = result.error();
        EXPECT_FALSE(result);
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name() + ": " + error.text(),
                  reason);
        EXPECT_EQ(error.statement(), statement);
        expectReport(report::statementFailed(operation, statement, reason));
    }

    void expectNotApplied(const Settings& settings, const std::string& setting,
                          const std::string& reason)
    {
        expectFailure(settings.apply(_database), "apply", "pragma main." + setting, reason);
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("shop.db");
    sql::Database _database;
};

template <typename T> Settings with(std::optional<T> Settings::*member, T value)
{
    Settings settings;
    settings.*member = value;
    return settings;
}

Settings withJournal(sql::JournalMode mode)
{
    return with(&Settings::journalMode, mode);
}

// --- Applied and read back

struct Setting : test::Case {
    std::function<void(Settings&)> set;
    std::string asked;
    std::string value;

    std::string text() const
    {
        return asked + " = " + value;
    }
};

template <typename Member, typename T>
Setting setting(const std::string& title, Member member, T value, const std::string& name,
                const std::string& text)
{
    return {title, [=](Settings& settings) { settings.*member = value; }, name, text};
}

const Setting all_settings[] = {
    setting("BusyTimeout", &Settings::busyTimeout, milliseconds(70), "busy_timeout", "70"),
    setting("NoBusyTimeout", &Settings::busyTimeout, milliseconds(0), "busy_timeout", "0"),
    setting("ForeignKeys", &Settings::foreignKeys, true, "foreign_keys", "1"),
    setting("NoForeignKeys", &Settings::foreignKeys, false, "foreign_keys", "0"),
    setting("CacheInPages", &Settings::cacheSize, 50, "cache_size", "50"),
    setting("CacheInKibibytes", &Settings::cacheSize, -77, "cache_size", "-77"),
    setting("Mapped", &Settings::mmapSize, 1 << 20, "mmap_size", "1048576"),
    setting("NotMapped", &Settings::mmapSize, 0, "mmap_size", "0"),
    setting("TempStoreAsBuilt", &Settings::tempStore, sql::temp_store_default, "temp_store", "0"),
    setting("TempStoreInAFile", &Settings::tempStore, sql::temp_store_file, "temp_store", "1"),
    setting("TempStoreInMemory", &Settings::tempStore, sql::temp_store_memory, "temp_store", "2"),
    setting("PageSizeOfTheFile", &Settings::pageSize, 4096, "page_size", "4096"),
    setting("JournalDelete", &Settings::journalMode, sql::journal_delete, "journal_mode", "delete"),
    setting("JournalTruncate", &Settings::journalMode, sql::journal_truncate, "journal_mode",
            "truncate"),
    setting("JournalPersist", &Settings::journalMode, sql::journal_persist, "journal_mode",
            "persist"),
    setting("JournalMemory", &Settings::journalMode, sql::journal_memory, "journal_mode", "memory"),
    setting("JournalWal", &Settings::journalMode, sql::journal_wal, "journal_mode", "wal"),
    setting("JournalOff", &Settings::journalMode, sql::journal_off, "journal_mode", "off"),
    setting("SynchronousOff", &Settings::synchronous, sql::synchronous_off, "synchronous", "0"),
    setting("SynchronousNormal", &Settings::synchronous, sql::synchronous_normal, "synchronous",
            "1"),
    setting("SynchronousFull", &Settings::synchronous, sql::synchronous_full, "synchronous", "2"),
    setting("SynchronousExtra", &Settings::synchronous, sql::synchronous_extra, "synchronous", "3"),
};

class EachSettingTest : public SettingsTest, public testing::WithParamInterface<Setting> {
protected:
    EachSettingTest()
    {
        GetParam().set(_settings);
    }

    std::string present()
    {
        return rows("pragma " + GetParam().asked);
    }

    Settings _settings;
};

TEST_P(EachSettingTest, IsAppliedReadBackAndNothingElse)
{
    const std::string question = "pragma main." + GetParam().asked;
    Texts expected = {"pragma main." + GetParam().text(), question};
    if (GetParam().asked == "page_size")
        expected.insert(expected.begin() + 1, "pragma main.schema_version");
    {
        const test::Statements statements(_database.getHandle());
        expectApplied(_settings);
        EXPECT_EQ(statements.texts(), expected);
    }
    EXPECT_EQ(present(), GetParam().value);
}

TEST_P(EachSettingTest, IsRefusedInATransaction)
{
    const std::string before = present();
    sql::Transaction transaction(_database, sql::begin_deferred);
    expectNotApplied(_settings, GetParam().text(),
                     "21=SQLITE_MISUSE: " + GetParam().text() + ": a transaction is open");
    EXPECT_EQ(present(), before);
    EXPECT_TRUE(transaction.commit());
}

INSTANTIATE_TEST_SUITE_P(All, EachSettingTest, ValuesIn(all_settings), test::NameOfCase());

TEST_F(SettingsTest, WithoutAValueAllIsLeftAlone)
{
    const test::Statements statements(_database.getHandle());
    expectApplied(Settings());
    EXPECT_THAT(statements.texts(), IsEmpty());
}

TEST_F(SettingsTest, AreAppliedInTheirOrderOnANewFile)
{
    open(_directory.file("new.db"));
    Settings settings;
    settings.synchronous = sql::synchronous_normal;
    settings.journalMode = sql::journal_wal;
    settings.pageSize = 1024;
    settings.tempStore = sql::temp_store_memory;
    settings.mmapSize = 65536;
    settings.cacheSize = -300;
    settings.foreignKeys = true;
    settings.busyTimeout = milliseconds(20);
    const test::Statements statements(_database.getHandle());
    _diagnostics.setLevel(8);
    EXPECT_TRUE(settings.apply(_database));
    EXPECT_THAT(statements.texts(),
                ElementsAre("pragma main.busy_timeout = 20", "pragma main.busy_timeout",
                            "pragma main.foreign_keys = 1", "pragma main.foreign_keys",
                            "pragma main.cache_size = -300", "pragma main.cache_size",
                            "pragma main.mmap_size = 65536", "pragma main.mmap_size",
                            "pragma main.temp_store = 2", "pragma main.temp_store",
                            "pragma main.page_size = 1024", "pragma main.schema_version",
                            "pragma main.page_size", "pragma main.journal_mode = wal",
                            "pragma main.journal_mode", "pragma main.synchronous = 1",
                            "pragma main.synchronous"));
    Texts started;
    for (const std::string& text : statements.texts())
        started.push_back(report::started("apply", text));
    expectReport(started);
    _diagnostics.setLevel(3);

    test::run(_database.getHandle(), "create table t (id)");
    EXPECT_EQ(rows("pragma page_size"), "1024");
    EXPECT_EQ(test::Connection(_directory.file("new.db")).rows("pragma page_size; "), "1024");
    EXPECT_EQ(test::Connection(_directory.file("new.db")).rows("pragma journal_mode"), "wal");
}

// --- Not taken

TEST_F(SettingsTest, WriteAheadLogIsRefusedInMemory)
{
    open(":memory:");
    expectNotApplied(withJournal(sql::journal_wal), "journal_mode = wal",
                     "1=SQLITE_ERROR: journal_mode is memory, not wal");
    expectNotApplied(with<integer>(&Settings::mmapSize, 100), "mmap_size = 100",
                     "1=SQLITE_ERROR: mmap_size is unknown, not 100");
}

// Makes one of SQLite's file systems the default while it lives.
class FileSystem {
public:
    explicit FileSystem(const char* name) : _former(sqlite3_vfs_find(nullptr))
    {
        sqlite3_vfs_register(sqlite3_vfs_find(name), 1);
    }
    ~FileSystem()
    {
        sqlite3_vfs_register(_former, 1);
    }
    FileSystem(const FileSystem&) = delete;
    FileSystem& operator=(const FileSystem&) = delete;

private:
    sqlite3_vfs* _former;
};

TEST_F(SettingsTest, WriteAheadLogIsRefusedWithoutSharedMemoryAndWhatIsBehindItLeftAlone)
{
    const FileSystem fileSystem("unix-dotfile");
    open(_file);
    Settings settings = withJournal(sql::journal_wal);
    settings.foreignKeys = true;
    settings.synchronous = sql::synchronous_normal;
    expectNotApplied(settings, "journal_mode = wal",
                     "1=SQLITE_ERROR: journal_mode is delete, not wal");
    EXPECT_EQ(rows("pragma foreign_keys"), "1");
    EXPECT_EQ(rows("pragma synchronous"), "2");
}

TEST_F(SettingsTest, PageSizeIsRefusedForAFullFile)
{
    expectNotApplied(with(&Settings::pageSize, 1024), "page_size = 1024",
                     "1=SQLITE_ERROR: page_size is 4096, not 1024");
}

TEST_F(SettingsTest, PageSizeIsRefusedForAFileThatAnotherHasFilled)
{
    const std::string file = _directory.file("new.db");
    open(file);
    EXPECT_EQ(rows("pragma page_size"), "4096");
    test::Connection(file).run("create table t (id)");
    expectNotApplied(with(&Settings::pageSize, 1024), "page_size = 1024",
                     "1=SQLITE_ERROR: page_size is 4096, not 1024");
}

TEST_F(SettingsTest, NumbersThatSqliteDoesNotTakeAreRefused)
{
    expectNotApplied(with(&Settings::pageSize, 1000), "page_size = 1000",
                     "1=SQLITE_ERROR: page_size is 4096, not 1000");
    expectNotApplied(with(&Settings::busyTimeout, milliseconds(-1)), "busy_timeout = -1",
                     "1=SQLITE_ERROR: busy_timeout is 0, not -1");
    expectNotApplied(with(&Settings::busyTimeout, milliseconds(1LL << 32)),
                     "busy_timeout = 4294967296",
                     "1=SQLITE_ERROR: busy_timeout is 0, not 4294967296");
    expectNotApplied(with<integer>(&Settings::mmapSize, -2), "mmap_size = -2",
                     "1=SQLITE_ERROR: mmap_size is 0, not -2");
}

TEST_F(SettingsTest, ReadOnlyFileKeepsItsJournal)
{
    open(_file, sql::Database::access_read_only);
    const Result<bool> applied = withJournal(sql::journal_wal).apply(_database);
    EXPECT_TRUE(applied.error().isReadOnly());
    expectFailure(applied, "apply", "pragma main.journal_mode = wal",
                  "8=SQLITE_READONLY: journal_mode = wal: attempt to write a readonly database");
    Settings settings;
    settings.foreignKeys = true;
    settings.cacheSize = 10;
    settings.mmapSize = 4096;
    settings.tempStore = sql::temp_store_memory;
    settings.synchronous = sql::synchronous_off;
    expectApplied(settings);
}

TEST_F(SettingsTest, BusyFileIsWaitedForAsLongAsTheNewTimeoutSays)
{
    test::Connection other(_file);
    other.run("begin exclusive");
    Settings settings = withJournal(sql::journal_wal);
    settings.busyTimeout = milliseconds(30);
    const auto start = std::chrono::steady_clock::now();
    const Result<bool> applied = settings.apply(_database);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(30));
    EXPECT_TRUE(applied.error().isBusy());
    expectFailure(applied, "apply", "pragma main.journal_mode = wal",
                  "5=SQLITE_BUSY: journal_mode = wal: database is locked");
    other.run("commit");
    expectApplied(settings);
}

TEST_F(SettingsTest, WriteAheadLogStaysWhileOthersHaveTheFileOpen)
{
    expectApplied(withJournal(sql::journal_wal));
    {
        test::Connection other(_file);
        EXPECT_EQ(other.rows("select count(*) from product"), "2");
        expectNotApplied(withJournal(sql::journal_delete), "journal_mode = delete",
                         "5=SQLITE_BUSY: journal_mode = delete: database is locked");
    }
    expectApplied(withJournal(sql::journal_delete));
}

TEST_F(SettingsTest, NothingIsSetWhileAStopIsAskedFor)
{
    sql::StopFlag stop(_database);
    stop.set();
    const Result<bool> applied = with(&Settings::cacheSize, 50).apply(_database);
    EXPECT_TRUE(applied.error().isStopped());
    expectFailure(applied, "apply", "pragma main.cache_size = 50",
                  "9=SQLITE_INTERRUPT: cache_size = 50: interrupted");
    expectFailure(sql::checkIntegrity(_database, sql::check_full), "checkIntegrity",
                  "pragma main.integrity_check", "9=SQLITE_INTERRUPT: interrupted");
    stop.clear();
    EXPECT_EQ(rows("pragma cache_size"), "-2000");
    expectApplied(with(&Settings::cacheSize, 50));
}

TEST_F(SettingsTest, BusyTimeoutOfAConnectionThatHeedsAFlagIsTheFlags)
{
    test::Connection other(_file);
    other.run("begin exclusive");
    std::optional<sql::StopFlag> stop(std::in_place, _database);
    expectApplied(with(&Settings::busyTimeout, milliseconds(INT_MAX)));
    expectNotApplied(with(&Settings::busyTimeout, milliseconds(-1)), "busy_timeout = -1",
                     "1=SQLITE_ERROR: busy_timeout is 0, not -1");
    expectNotApplied(with(&Settings::busyTimeout, milliseconds((1LL << 32) + 5)),
                     "busy_timeout = 4294967301",
                     "1=SQLITE_ERROR: busy_timeout is 0, not 4294967301");
    Settings settings = withJournal(sql::journal_wal);
    settings.busyTimeout = milliseconds(30);
    const auto start = std::chrono::steady_clock::now();
    expectNotApplied(settings, "journal_mode = wal",
                     "5=SQLITE_BUSY: journal_mode = wal: database is locked");
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(30));
    EXPECT_EQ(rows("pragma busy_timeout"), "0") << "one of SQLite's, which heeds no flag";
    stop.reset();
    EXPECT_EQ(rows("pragma busy_timeout"), "30");
    other.run("commit");
}

// As a program may forbid it, by SQLite's authorizer.
TEST_F(SettingsTest, ThatCannotBeReadBackAreAFailure)
{
    const auto forbidQuestions = [](void*, int action, const char*, const char* value, const char*,
                                    const char*) {
        return action == SQLITE_PRAGMA && value == nullptr ? SQLITE_DENY : SQLITE_OK;
    };
    sqlite3_set_authorizer(_database.getHandle(), forbidQuestions, nullptr);
    expectNotApplied(with(&Settings::cacheSize, 50), "cache_size",
                     "23=SQLITE_AUTH: cache_size = 50: not authorized");
    sqlite3_set_authorizer(_database.getHandle(), nullptr, nullptr);
    EXPECT_EQ(rows("pragma cache_size"), "50");
}

TEST_F(SettingsTest, OfADatabaseThatIsNotOpenAreRefused)
{
    _database.close();
    expectNotApplied(with(&Settings::cacheSize, 5), "cache_size = 5",
                     "21=SQLITE_MISUSE: cache_size = 5: the database is not open");
}

TEST_F(SettingsTest, FileThatIsNoDatabaseIsAFailure)
{
    const std::string file = _directory.file("text");
    test::writeFile(file, std::string(2000, 't'));
    open(file);
    expectApplied(with(&Settings::busyTimeout, milliseconds(5)));
    const Result<bool> applied = with(&Settings::cacheSize, 5).apply(_database);
    EXPECT_TRUE(applied.error().isCorrupt());
    expectFailure(applied, "apply", "pragma main.cache_size = 5",
                  "26=SQLITE_NOTADB: cache_size = 5: file is not a database");
    expectNotApplied(with(&Settings::pageSize, 512), "schema_version",
                     "26=SQLITE_NOTADB: page_size = 512: file is not a database");
}

// --- Integrity

class IntegrityTest : public SettingsTest {
protected:
    Texts complaints(sql::IntegrityCheck check)
    {
        const Result<std::vector<std::string>> found = sql::checkIntegrity(_database, check);
        EXPECT_FALSE(found.failed()) << found.error().text();
        expectReport({});
        return found.valueOr({"unknown"});
    }
};

TEST_F(IntegrityTest, SoundFileHasNoComplaints)
{
    _diagnostics.setLevel(8);
    EXPECT_THAT(*sql::checkIntegrity(_database, sql::check_quick), IsEmpty());
    expectReport({report::started("checkIntegrity", "pragma main.quick_check")});
    EXPECT_THAT(*sql::checkIntegrity(_database, sql::check_full), IsEmpty());
    expectReport({report::started("checkIntegrity", "pragma main.integrity_check")});
    EXPECT_THAT(*sql::checkIntegrity(_database, sql::check_none), IsEmpty());
    expectReport({});
    _diagnostics.setLevel(3);
}

TEST_F(IntegrityTest, RowMissingInAnIndexIsFoundByTheFullCheckAlone)
{
    _database.close();
    test::Connection(_file).run("pragma writable_schema = on;"
                                "delete from sqlite_master where name = 'by_name'");
    test::Connection(_file).run("insert into product values (3, 'gin'), (4, 'ale')");
    test::Connection(_file).run("pragma writable_schema = on;"
                                "insert into sqlite_master values ('index', 'by_name', 'product',"
                                " 3, 'CREATE INDEX by_name on product (name)')");
    open(_file);
    EXPECT_THAT(complaints(sql::check_none), IsEmpty());
    EXPECT_THAT(complaints(sql::check_quick), IsEmpty());
    EXPECT_EQ(complaints(sql::check_full),
              (Texts{"row 3 missing from index by_name", "row 4 missing from index by_name",
                     "wrong # of entries in index by_name"}));
}

TEST_F(IntegrityTest, DamageThatIsInTheWayIsAFailure)
{
    test::writeFile(_file, test::readFile(_file).substr(0, 4096));
    open(_file);
    const auto found = sql::checkIntegrity(_database, sql::check_full);
    EXPECT_TRUE(found.error().isCorrupt());
    expectFailure(found, "checkIntegrity", "pragma main.integrity_check",
                  "11=SQLITE_CORRUPT: database disk image is malformed");
}

TEST_F(IntegrityTest, FileThatIsLockedOrNotOpenIsNotKnownToBeSound)
{
    {
        test::Connection other(_file);
        other.run("begin exclusive");
        const auto found = sql::checkIntegrity(_database, sql::check_quick);
        EXPECT_TRUE(found.error().isBusy());
        expectFailure(found, "checkIntegrity", "pragma main.quick_check",
                      "5=SQLITE_BUSY: database is locked");
    }
    _database.close();
    expectFailure(sql::checkIntegrity(_database, sql::check_quick), "checkIntegrity",
                  "pragma main.quick_check", "21=SQLITE_MISUSE: the database is not open");
}

// --- Checkpoints

class CheckpointTest : public SettingsTest {
protected:
    CheckpointTest()
    {
        expectApplied(withJournal(sql::journal_wal));
    }

    void add(const std::string& name)
    {
        test::run(_database.getHandle(), "insert into product (name) values ('" + name + "')");
    }

    std::size_t logSize() const
    {
        return test::readFile(_file + "-wal").size();
    }
};

TEST_F(CheckpointTest, CopiesTheLogInEachMode)
{
    const std::pair<sql::CheckpointMode, std::string> modes[] = {
        {sql::checkpoint_passive, "passive"},
        {sql::checkpoint_full, "full"},
        {sql::checkpoint_restart, "restart"},
        {sql::checkpoint_truncate, "truncate"}};
    for (const auto& [mode, name] : modes) {
        add(name);
        EXPECT_GT(logSize(), 0U);
        _diagnostics.setLevel(8);
        const Result<integer> left = sql::checkpoint(_database, mode);
        expectReport({report::started("checkpoint", "pragma main.wal_checkpoint(" + name + ")")});
        _diagnostics.setLevel(3);
        EXPECT_EQ(left.valueOr(-1), 0) << name;
        EXPECT_NE(test::readFile(_file).find(name), std::string::npos);
        EXPECT_EQ(logSize() == 0, mode == sql::checkpoint_truncate);
    }
}

TEST_F(CheckpointTest, CopiesTheLogOfAConnectionThatHasReadNothing)
{
    test::Connection keepsTheLog(_file);
    add("whisky");
    EXPECT_EQ(keepsTheLog.rows("select count(*) from product"), "3");
    open(_file);
    EXPECT_EQ(sql::checkpoint(_database, sql::checkpoint_full).valueOr(-1), 0);
    EXPECT_NE(test::readFile(_file).find("whisky"), std::string::npos);
}

TEST_F(CheckpointTest, SaysHowManyFramesAReaderKeepsFromBeingCopied)
{
    add("gin");
    test::Connection reader(_file);
    reader.run("begin; select * from product");
    add("ale");
    add("wine");
    const Result<integer> left = sql::checkpoint(_database, sql::checkpoint_passive);
    const integer frames = left.valueOr(-1);
    EXPECT_GE(frames, 2);
    for (const std::string mode : {"full", "restart", "truncate"}) {
        const auto number = mode == "full"      ? sql::checkpoint_full
                            : mode == "restart" ? sql::checkpoint_restart
                                                : sql::checkpoint_truncate;
        const Result<integer> busy = sql::checkpoint(_database, number);
        EXPECT_TRUE(busy.error().isBusy());
        expectFailure(busy, "checkpoint", "pragma main.wal_checkpoint(" + mode + ")",
                      "5=SQLITE_BUSY: the log is in use: " + std::to_string(frames)
                          + " frames are left");
    }
    reader.run("commit");
    EXPECT_EQ(sql::checkpoint(_database, sql::checkpoint_full).valueOr(-1), 0);
}

TEST_F(CheckpointTest, WriterKeepsItFromTakingTheLogAlsoWhenThatIsEmpty)
{
    add("gin");
    EXPECT_EQ(sql::checkpoint(_database, sql::checkpoint_truncate).valueOr(-1), 0);
    test::Connection writer(_file);
    writer.run("begin immediate");
    expectFailure(sql::checkpoint(_database, sql::checkpoint_full), "checkpoint",
                  "pragma main.wal_checkpoint(full)",
                  "5=SQLITE_BUSY: the log is in use: 0 frames are left");
    writer.run("commit");
}

TEST_F(CheckpointTest, IsRefusedInATransactionThatHasWritten)
{
    sql::Transaction transaction(_database, sql::begin_immediate);
    const Result<integer> left = sql::checkpoint(_database, sql::checkpoint_passive);
    EXPECT_TRUE(left.error().isBusy());
    expectFailure(left, "checkpoint", "pragma main.wal_checkpoint(passive)",
                  "6=SQLITE_LOCKED: database table is locked");
    EXPECT_TRUE(transaction.rollback());
}

TEST_F(CheckpointTest, WithoutALogThereIsNothing)
{
    expectApplied(withJournal(sql::journal_delete));
    const Result<integer> left = sql::checkpoint(_database, sql::checkpoint_full);
    EXPECT_FALSE(left);
    EXPECT_FALSE(left.failed());
}

TEST_F(CheckpointTest, OfADatabaseThatIsNotOpenIsRefused)
{
    _database.close();
    expectFailure(sql::checkpoint(_database, sql::checkpoint_full), "checkpoint",
                  "pragma main.wal_checkpoint(full)", "21=SQLITE_MISUSE: the database is not open");
}

// --- Plans

TEST_F(SettingsTest, OptimizeGathersWhatIsKnownOfTables)
{
    test::run(_database.getHandle(),
              "analyze; insert into product (name) with recursive n(i) as "
              "(select 1 union all select i + 1 from n limit 900) select i from n;"
              "select * from product where name = 'tea'");
    _diagnostics.setLevel(8);
    const Result<bool> done = sql::optimize(_database);
    EXPECT_TRUE(done.valueOr(false));
    expectReport({report::started("optimize", "pragma main.optimize")});
    _diagnostics.setLevel(3);
    EXPECT_EQ(rows("select stat from sqlite_stat1"), "902 1");
}

TEST_F(SettingsTest, OptimizeOfALockedOrClosedFileIsAFailure)
{
    {
        test::Connection other(_file);
        other.run("begin exclusive");
        const Result<bool> done = sql::optimize(_database);
        EXPECT_TRUE(done.error().isBusy());
        expectFailure(done, "optimize", "pragma main.optimize",
                      "5=SQLITE_BUSY: database is locked");
    }
    _database.close();
    expectFailure(sql::optimize(_database), "optimize", "pragma main.optimize",
                  "21=SQLITE_MISUSE: the database is not open");
}

} // namespace
