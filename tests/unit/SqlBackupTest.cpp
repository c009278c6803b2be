#include "SqlBackup.h"

#include "SqlStopFlag.h"

#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace report = test::report;

using sql::BackupOptions;
using std::chrono::milliseconds;

using Signature = sql::Result<sql::integer> (*)(sql::Database&, const sql::string&,
                                                const BackupOptions&);
static_assert(std::is_same_v<decltype(&sql::backupDatabase), Signature>);
static_assert(std::is_same_v<decltype(&sql::restoreDatabase), Signature>);

const char ask_all[] = "select count(*), sum(id), sum(length(name)) from product";
const char all[] = "1000|500500|400000";

class SqlBackupTest : public test::ReportTest {
protected:
    SqlBackupTest()
    {
        _other.run("create table product (id integer primary key, name text);"
                   "create index by_name on product (name);"
                   "insert into product with recursive n (i) as (select 1 union all"
                   " select i + 1 from n limit 1000) select i, printf('%0400d', i) from n");
        EXPECT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
    }

    void TearDown() override
    {
        _database.close();
        ReportTest::TearDown();
    }

    std::set<std::string> files() const
    {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            names.insert(entry.path().filename());
        return names;
    }

    static std::string contents(const std::string& file)
    {
        test::Connection reader(file);
        return reader.rows(ask_all) + " " + reader.rows("pragma integrity_check") + " "
               + reader.rows("pragma journal_mode");
    }

    void expectFailure(const sql::Result<sql::integer>& result, const std::string& operation,
                       const std::string& file, const std::string& code, const std::string& reason)
    {
        ASSERT_TRUE(result.failed());
        const sql::Error& error = result.error();
        EXPECT_EQ(error.text(), file + ": " + reason);
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name(), code);
        expectReport(
            report::statementFailed(operation, operation, code + ": " + file + ": " + reason));
    }

    void expectNoBackup(const std::string& file, const std::string& about, const std::string& code,
                        const std::string& reason, const BackupOptions& options = BackupOptions())
    {
        const std::set<std::string> former = files();
        expectFailure(sql::backupDatabase(_database, file, options), "backupDatabase", about, code,
                      reason);
        EXPECT_EQ(files(), former);
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("shop.db");
    const std::string _copy = _directory.file("copy.db");
    const std::string _unfinished = _copy + "-unfinished";
    test::Connection _other{_file};
    sql::Database _database;
};

// --- Backup

TEST_F(SqlBackupTest, NewFileHasAllThereIsAndStandsAlone)
{
    for (const sql::IntegrityCheck check : {sql::check_none, sql::check_quick, sql::check_full}) {
        BackupOptions options;
        options.check = check;
        const auto pages = sql::backupDatabase(_database, _copy, options);
        ASSERT_TRUE(pages);
        EXPECT_EQ(std::to_string(*pages), _other.rows("pragma page_count"));
        EXPECT_EQ(files(), (std::set<std::string>{"copy.db", "shop.db"}));
        EXPECT_EQ(contents(_copy), std::string(all) + " ok delete");
        std::filesystem::remove(_copy);
    }
}

TEST_F(SqlBackupTest, CopyOfAFileWithALogHasNone)
{
    _other.run("pragma journal_mode = wal; insert into product values (0, '')");
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    EXPECT_EQ(files(), (std::set<std::string>{"copy.db", "shop.db", "shop.db-shm", "shop.db-wal"}));
    EXPECT_EQ(contents(_copy), "1001|500500|400000 ok delete");
}

TEST_F(SqlBackupTest, CopyMayBeReadByWhoMayReadTheDatabase)
{
    const ::mode_t mask = ::umask(0);
    for (const ::mode_t mode : {0600, 0777}) {
        ::chmod(_file.c_str(), mode);
        EXPECT_TRUE(sql::backupDatabase(_database, _copy));
        struct stat found = {};
        EXPECT_EQ(::stat(_copy.c_str(), &found), 0);
        EXPECT_EQ(found.st_mode & 0777, mode & 0666);
        std::filesystem::remove(_copy);
    }
    sql::Database memory;
    EXPECT_TRUE(memory.open(":memory:", sql::Database::access_create, false, 0));
    EXPECT_TRUE(sql::backupDatabase(memory, _copy));
    struct stat found = {};
    EXPECT_EQ(::stat(_copy.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777, 0644U);
    ::umask(mask);
}

TEST_F(SqlBackupTest, ExistingFileIsOverwrittenAndKeepsItsLog)
{
    test::Connection(_copy).run("pragma journal_mode = wal; create table old (a)");
    test::Connection reader(_copy);
    reader.run("begin; select * from old");
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    EXPECT_EQ(reader.rows("select count(*) from old"), "0"); // in its transaction
    reader.run("commit");
    EXPECT_EQ(contents(_copy), std::string(all) + " ok wal");
    EXPECT_EQ(files().count("copy.db-unfinished"), 0U);
}

TEST_F(SqlBackupTest, WhatIsNotCommittedIsNotCopied)
{
    test::run(_database.getHandle(), "begin immediate; delete from product");
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    EXPECT_EQ(contents(_copy), std::string(all) + " ok delete");
    test::run(_database.getHandle(), "rollback");
}

TEST_F(SqlBackupTest, DatabaseInMemoryIsCopiedOutsideOfTransactions)
{
    sql::Database memory;
    ASSERT_TRUE(memory.open(":memory:", sql::Database::access_create, false, 0));
    test::run(memory.getHandle(), "create table product (id, name); insert into product values"
                                  " (7, 'tea'); begin");
    expectFailure(sql::backupDatabase(memory, _copy), "backupDatabase", _copy, "21=SQLITE_MISUSE",
                  "a transaction is open already");
    test::run(memory.getHandle(), "commit");
    ASSERT_TRUE(sql::backupDatabase(memory, _copy));
    EXPECT_EQ(contents(_copy), "1|7|3 ok delete");
}

TEST_F(SqlBackupTest, ProgressIsToldAndStops)
{
    std::vector<std::pair<sql::integer, sql::integer>> told;
    BackupOptions options;
    options.progress = [&told](sql::integer done, sql::integer total) {
        told.emplace_back(done, total);
        return done < 64;
    };
    expectNoBackup(_copy, _copy, "9=SQLITE_INTERRUPT", "stopped by its progress", options);
    const sql::integer total = std::stoll(_other.rows("pragma page_count"));
    EXPECT_EQ(told, (std::vector<std::pair<sql::integer, sql::integer>>{{64, total}}));
}

TEST_F(SqlBackupTest, StopFlagStopsCopyAndCheck)
{
    sql::StopFlag stop(_database);
    BackupOptions options;
    options.progress = [&stop](sql::integer, sql::integer) {
        stop.set();
        return true;
    };
    expectNoBackup(_copy, _copy, "9=SQLITE_INTERRUPT", "interrupted", options);
    stop.clear();
    EXPECT_TRUE(sql::backupDatabase(_database, _copy));
}

TEST_F(SqlBackupTest, StatementsAreTraced)
{
    _diagnostics.setLevel(9);
    BackupOptions options;
    const auto ran = [](const std::string& operation, const std::vector<std::string>& statements) {
        std::vector<std::string> events;
        for (const std::string& statement : statements)
            events.push_back("[DEBUG2] SqlBackup.cpp (" + operation + ") - stmt='" + statement
                             + "'");
        return events;
    };
    EXPECT_TRUE(sql::backupDatabase(_database, _copy, options));
    expectReport(
        ran("backupDatabase", {"begin", "pragma main.schema_version",
                               "pragma main.journal_mode = delete", "pragma main.quick_check(1)"}));
    options.check = sql::check_full;
    EXPECT_TRUE(sql::backupDatabase(_database, _copy, options));
    expectReport(ran("backupDatabase",
                     {"begin", "pragma main.schema_version", "pragma main.journal_mode = delete",
                      "pragma main.integrity_check(1)", "pragma main.synchronous",
                      "pragma main.synchronous = extra"}));
    EXPECT_TRUE(sql::restoreDatabase(_database, _copy, options));
    expectReport(ran("restoreDatabase",
                     {"begin", "pragma main.schema_version", "pragma main.integrity_check(1)",
                      "pragma main.synchronous", "pragma main.synchronous = extra"}));
    sql::Database memory;
    EXPECT_TRUE(memory.open(":memory:", sql::Database::access_create, false, 0));
    _diagnostics.clear();
    options.check = sql::check_none;
    EXPECT_TRUE(sql::backupDatabase(memory, _directory.file("memory.db"), options));
    expectReport(ran("backupDatabase", {"pragma main.journal_mode = delete"}));
    memory.close();
    _database.close();
    _diagnostics.clear();
}

TEST_F(SqlBackupTest, WriterInAnotherThreadDoesNotKeepItFromItsEnd)
{
    _other.run("pragma journal_mode = wal");
    std::atomic<bool> ends(false);
    std::thread writer([this, &ends] {
        test::Connection own(_file);
        own.run("pragma busy_timeout = 60000; pragma synchronous = off");
        while (!ends)
            own.run("begin; delete from product where id = 1;"
                    "insert into product values (1, printf('%0400d', 1)); commit");
    });
    BackupOptions options;
    options.patience = milliseconds(60000);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(sql::backupDatabase(_database, _copy, options));
        EXPECT_EQ(contents(_copy), std::string(all) + " ok delete");
    }
    ends = true;
    writer.join();
}

// --- What is refused

TEST_F(SqlBackupTest, NamesAndFilesThatAreNoTargetAreRefused)
{
    const std::string misuse = "21=SQLITE_MISUSE";
    for (const std::string name : {"", ":memory:", "file:x.db"})
        expectNoBackup(name, name, misuse, "is no plain name of a file");
    expectNoBackup(_copy + '\0' + "x", _copy, misuse, "is no plain name of a file");
    expectNoBackup(_file, _file, misuse, "is the database itself");
    std::filesystem::create_hard_link(_file, _copy);
    expectNoBackup(_copy, _copy, misuse, "is the database itself");
    std::filesystem::remove(_copy);
    std::filesystem::create_symlink("nowhere", _copy);
    expectNoBackup(_copy, _copy, misuse, "is a symbolic link");
    expectNoBackup(_directory.path(), _directory.path(), misuse, "is no regular file");
    const std::string lost = _directory.file("no/a.db");
    expectNoBackup(lost, lost + "-unfinished", "14=SQLITE_CANTOPEN", "No such file or directory");
}

TEST_F(SqlBackupTest, NewFileIsNotMadeBesideTheLeftoversOfAnother)
{
    BackupOptions options;
    options.progress = [](sql::integer, sql::integer) {
        ADD_FAILURE() << "it is copied all the same";
        return true;
    };
    for (const char* const ending : {"-journal", "-wal", "-shm"}) {
        test::writeFile(_copy + ending, "");
        expectNoBackup(_copy, _copy + ending, "14=SQLITE_CANTOPEN", "is left of another database",
                       options);
        std::filesystem::remove(_copy + ending);
    }
}

TEST_F(SqlBackupTest, FileThatIsNoDatabaseStaysAsItIs)
{
    const std::string text(5000, 'x');
    test::writeFile(_copy, text);
    expectNoBackup(_copy, _copy, "26=SQLITE_NOTADB", "file is not a database");
    EXPECT_EQ(test::readFile(_copy), text);
}

TEST_F(SqlBackupTest, TargetThatIsLockedIsWaitedFor)
{
    test::Connection holder(_copy);
    holder.run("pragma busy_timeout = 60000; create table old (a); begin immediate");
    expectNoBackup(_copy, _copy, "5=SQLITE_BUSY", "database is locked");
    std::thread other([&holder] {
        std::this_thread::sleep_for(milliseconds(5));
        holder.run("commit");
    });
    BackupOptions options;
    options.patience = milliseconds(60000);
    EXPECT_TRUE(sql::backupDatabase(_database, _copy, options));
    other.join();
    EXPECT_EQ(contents(_copy), std::string(all) + " ok delete");
}

TEST_F(SqlBackupTest, StopEndsTheWaitForALock)
{
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    _other.run("begin immediate");
    sql::StopFlag stop(_database);
    std::thread other([&stop] {
        std::this_thread::sleep_for(milliseconds(5));
        stop.set();
    });
    BackupOptions options;
    options.patience = milliseconds(60000);
    expectFailure(sql::restoreDatabase(_database, _copy, options), "restoreDatabase", _copy,
                  "9=SQLITE_INTERRUPT", "interrupted");
    other.join();
    _other.run("commit");
}

TEST_F(SqlBackupTest, SourceThatIsLockedIsNamedAndWaitedFor)
{
    _other.run("begin exclusive");
    expectNoBackup(_copy, _file, "5=SQLITE_BUSY", "database is locked");
    std::thread other([this] {
        std::this_thread::sleep_for(milliseconds(20));
        _other.run("commit");
    });
    BackupOptions options;
    options.patience = milliseconds(60000);
    EXPECT_TRUE(sql::backupDatabase(_database, _copy, options));
    other.join();
}

TEST_F(SqlBackupTest, OneCopyAtATimeIsMadeAndThatOfAKilledOneIsTakenOver)
{
    test::writeFile(_unfinished, std::string(100000, 'x'));
    for (const char* const ending : {"-journal", "-wal", "-shm"})
        test::writeFile(_unfinished + ending, "x");
    const int descriptor = ::open(_unfinished.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(descriptor, LOCK_EX), 0);
    expectNoBackup(_copy, _unfinished, "5=SQLITE_BUSY", "another backup is being made");
    test::writeFile(_copy, "");
    expectNoBackup(_copy, _unfinished, "5=SQLITE_BUSY", "another backup is being made");
    std::filesystem::remove(_copy);
    ::close(descriptor);
    EXPECT_TRUE(sql::backupDatabase(_database, _copy));
    EXPECT_EQ(files(), (std::set<std::string>{"copy.db", "shop.db"}));
    EXPECT_EQ(contents(_copy), std::string(all) + " ok delete");
}

// As a kill leaves it where the file system knows no other way to give a new name.
TEST_F(SqlBackupTest, SecondNameThatAFormerOneHasLeftIsNotWrittenTo)
{
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    std::filesystem::create_hard_link(_copy, _unfinished);
    _other.run("drop index by_name; delete from product");
    const std::string former = test::readFile(_copy);
    BackupOptions options;
    options.progress = [](sql::integer, sql::integer) {
        return false;
    };
    expectFailure(sql::backupDatabase(_database, _copy, options), "backupDatabase", _copy,
                  "9=SQLITE_INTERRUPT", "stopped by its progress");
    EXPECT_EQ(test::readFile(_copy), former);
    EXPECT_EQ(files(), (std::set<std::string>{"copy.db", "shop.db"}));
}

TEST_F(SqlBackupTest, DatabaseWhoseNameIsThatOfTheCopyOnItsWayIsNotWrittenTo)
{
    const std::string misuse = "21=SQLITE_MISUSE";
    std::filesystem::create_hard_link(_file, _unfinished);
    expectNoBackup(_copy, _unfinished, misuse, "is the database itself");
    std::filesystem::remove(_unfinished);
    std::filesystem::create_symlink(_file, _unfinished);
    expectNoBackup(_copy, _unfinished, misuse, "is a symbolic link");
    std::filesystem::remove(_unfinished);
    std::filesystem::create_directory(_unfinished);
    expectNoBackup(_copy, _unfinished, misuse, "is no regular file");
    EXPECT_EQ(contents(_file), std::string(all) + " ok delete");
}

TEST_F(SqlBackupTest, FileMayHaveMoreThanTwoGigabytes)
{
    test::writeFile(_copy, std::string(100, 'x'));
    std::filesystem::resize_file(_copy, 3ULL << 30);
    expectNoBackup(_copy, _copy, "26=SQLITE_NOTADB", "file is not a database");
    EXPECT_EQ(std::filesystem::file_size(_copy), 3ULL << 30);
}

TEST_F(SqlBackupTest, FileInTheWorkingFolderNeedsNoPath)
{
    const std::filesystem::path former = std::filesystem::current_path();
    std::filesystem::current_path(_directory.path());
    EXPECT_TRUE(sql::backupDatabase(_database, "copy.db"));
    std::filesystem::current_path(former);
    EXPECT_EQ(contents(_copy), std::string(all) + " ok delete");
}

TEST_F(SqlBackupTest, DamageIsFoundBeforeTheFileIsTouched)
{
    _other.run("pragma writable_schema = on;"
               "update sqlite_master set sql = 'create index by_name on product (id)'"
               " where name = 'by_name'");
    BackupOptions options;
    options.check = sql::check_full;
    test::writeFile(_copy, "");
    expectNoBackup(_copy, _unfinished, "11=SQLITE_CORRUPT",
                   "the check says: row 1 missing from index by_name", options);
    EXPECT_EQ(test::readFile(_copy), "");
}

TEST_F(SqlBackupTest, DatabaseThatIsNotOpenIsRefused)
{
    sql::Database closed;
    expectFailure(sql::backupDatabase(closed, _copy), "backupDatabase", _copy, "21=SQLITE_MISUSE",
                  "the database is not open");
    expectFailure(sql::restoreDatabase(closed, _copy), "restoreDatabase", _copy, "21=SQLITE_MISUSE",
                  "the database is not open");
}

// --- Restore

TEST_F(SqlBackupTest, RestoredDatabaseIsThatOfTheFile)
{
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    const std::string copy = test::readFile(_copy);
    for (const char* const mode : {"delete", "wal"}) {
        _other.run(std::string("pragma journal_mode = ") + mode + "; drop table product");
        EXPECT_EQ(test::rows(_database.getHandle(), "select count(*) from sqlite_master"), "0");
        ASSERT_TRUE(sql::restoreDatabase(_database, _copy));
        EXPECT_EQ(test::rows(_database.getHandle(), ask_all), all);
        EXPECT_EQ(contents(_file), std::string(all) + " ok " + mode);
        EXPECT_EQ(test::readFile(_copy), copy);
    }
}

TEST_F(SqlBackupTest, RestoreIsRefusedWhereItCannotBe)
{
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    const std::string misuse = "21=SQLITE_MISUSE";
    test::run(_database.getHandle(), "begin");
    expectFailure(sql::restoreDatabase(_database, _copy), "restoreDatabase", _copy, misuse,
                  "a transaction is open already");
    test::run(_database.getHandle(), "commit");
    expectFailure(sql::restoreDatabase(_database, _file), "restoreDatabase", _file, misuse,
                  "is the database itself");
    const std::string none = _directory.file("none.db");
    expectFailure(sql::restoreDatabase(_database, none), "restoreDatabase", none,
                  "14=SQLITE_CANTOPEN", "unable to open database file");
    sql::Database reader;
    ASSERT_TRUE(reader.open(_file, sql::Database::access_read_only, false, 0));
    expectFailure(sql::restoreDatabase(reader, _copy), "restoreDatabase", _copy,
                  "8=SQLITE_READONLY", "the database is read-only");
    test::writeFile(none, std::string(5000, 'x'));
    expectFailure(sql::restoreDatabase(_database, none), "restoreDatabase", none,
                  "26=SQLITE_NOTADB", "file is not a database");
    EXPECT_EQ(contents(_file), std::string(all) + " ok delete");
}

TEST_F(SqlBackupTest, DamagedFileIsNotRestored)
{
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    test::Connection(_copy).run(
        "pragma writable_schema = on;"
        "update sqlite_master set sql = 'create index by_name on product (id)'"
        " where name = 'by_name'");
    BackupOptions options;
    options.check = sql::check_full;
    expectFailure(sql::restoreDatabase(_database, _copy, options), "restoreDatabase", _copy,
                  "11=SQLITE_CORRUPT", "the check says: row 1 missing from index by_name");
    EXPECT_EQ(contents(_file), std::string(all) + " ok delete");
}

TEST_F(SqlBackupTest, RestoreIsRefusedWhileAStatementStandsAtARow)
{
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(_database.getHandle(), "select * from product", -1, &statement, nullptr);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    expectFailure(sql::restoreDatabase(_database, _copy), "restoreDatabase", _copy,
                  "1=SQLITE_ERROR", "destination database is in use");
    sqlite3_finalize(statement);
    EXPECT_TRUE(sql::restoreDatabase(_database, _copy));
}

TEST_F(SqlBackupTest, RestoreIntoALogNeedsTheSamePageSize)
{
    test::Connection(_copy).run("pragma page_size = 1024; create table t (a)");
    _other.run("pragma journal_mode = wal");
    expectFailure(sql::restoreDatabase(_database, _copy), "restoreDatabase", _copy,
                  "8=SQLITE_READONLY",
                  "cannot be written, or has a write-ahead log and another page size");
    EXPECT_EQ(contents(_file), std::string(all) + " ok wal");
}

TEST_F(SqlBackupTest, StoppedRestoreLeavesTheDatabaseAsItWas)
{
    test::Connection(_copy).run("create table t (a); insert into t values (zeroblob(1000000))");
    BackupOptions options;
    options.progress = [](sql::integer, sql::integer) {
        return false;
    };
    expectFailure(sql::restoreDatabase(_database, _copy, options), "restoreDatabase", _copy,
                  "9=SQLITE_INTERRUPT", "stopped by its progress");
    EXPECT_EQ(contents(_file), std::string(all) + " ok delete");
}

TEST_F(SqlBackupTest, RestoreGivesTheSynchronousModeBack)
{
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    const auto synchronous = [this] {
        return test::rows(_database.getHandle(), "pragma synchronous");
    };
    test::run(_database.getHandle(), "pragma synchronous = normal");
    sql::StopFlag stop(_database);
    std::string meanwhile;
    BackupOptions options;
    options.progress = [&](sql::integer, sql::integer) {
        meanwhile = synchronous();
        return true;
    };
    EXPECT_TRUE(sql::restoreDatabase(_database, _copy, options));
    EXPECT_EQ(meanwhile, "3");
    EXPECT_EQ(synchronous(), "1");
    options.progress = [&stop](sql::integer, sql::integer) {
        stop.set();
        return true;
    };
    expectFailure(sql::restoreDatabase(_database, _copy, options), "restoreDatabase", _copy,
                  "9=SQLITE_INTERRUPT", "interrupted");
    stop.clear();
    EXPECT_EQ(synchronous(), "1");
}

TEST_F(SqlBackupTest, RestoreWaitsForReaders)
{
    ASSERT_TRUE(sql::backupDatabase(_database, _copy));
    _other.run("drop index by_name; begin; select * from product");
    expectFailure(sql::restoreDatabase(_database, _copy), "restoreDatabase", _copy, "5=SQLITE_BUSY",
                  "database is locked");
    std::thread other([this] {
        std::this_thread::sleep_for(milliseconds(20));
        _other.run("commit");
    });
    int told = 0;
    BackupOptions options;
    options.patience = milliseconds::max();
    options.progress = [&told](sql::integer, sql::integer) {
        ++told;
        return true;
    };
    const auto pages = sql::restoreDatabase(_database, _copy, options);
    other.join();
    ASSERT_TRUE(pages);
    EXPECT_EQ(told, (*pages - 1) / 64);
    EXPECT_EQ(_other.rows("select count(*) from sqlite_master"), "2");
}

} // namespace
