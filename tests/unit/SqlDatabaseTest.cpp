#include "SqlDatabase.h"

#include "SqlRecordSet.h"
#include "SqlTable.h"

#include "Cases.h"
#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace {

namespace report = test::report;

using sql::Database;
using test::joined;
using test::Texts;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Values;
using testing::ValuesIn;
using testing::WithParamInterface;

static_assert(!std::is_polymorphic_v<Database>);
static_assert(Database::access_read_only == 0);
static_assert(Database::access_read_write == 1);
static_assert(Database::access_create == 2);

const Database::AccessMode unknown_mode = Database::AccessMode(3);
const std::string unknown_mode_asserted = report::asserted(
    "bool sql::Database::open(const string&, sql::Database::AccessMode, bool, int)");
const std::string version_too_high = report::error(
    "Database::setUserVersion", "User version of a Quillmoor SQL database must be <= 2147483647");

class DatabaseTest : public test::ReportTest {
protected:
    DatabaseTest() : _file(_directory.file("product.db")), _missing(_directory.file("missing.db"))
    {
        test::Connection connection(_file);
        connection.run("pragma user_version = 7");
        connection.run("create table product (id integer primary key)");
    }

    bool open(Database::AccessMode mode = Database::access_read_write)
    {
        return _database.open(_file, mode, false, 0);
    }

    bool openMissing()
    {
        return _database.open(_missing, Database::access_read_write, false, 0);
    }

    // SQLite opens nothing, whatever it says.
    static void openNothing(test::SqliteCalls& calls, int rc)
    {
        calls.open = [rc](const char*, sqlite3** db, int, const char*) {
            *db = nullptr;
            return rc;
        };
    }

    static void refuseTheBusyTimeout(test::SqliteCalls& calls)
    {
        calls.busyTimeout = [](sqlite3*, int) {
            return SQLITE_MISUSE;
        };
    }

    // The log lines and assertions as they come between the calls.
    void noteReports(test::SqliteCalls& calls)
    {
        _diagnostics.setLevel(9);
        _diagnostics.onLine(
            [&calls](const test::LogLine& line) { calls.order.push_back(line.tag); });
        _diagnostics.onAssertion(
            [&calls](const test::Assertion&) { calls.order.push_back("assert"); });
    }

    test::TemporaryDirectory _directory;
    std::string _file;
    std::string _missing;
    Database _database;
};

TEST_F(DatabaseTest, NewObjectHasNoConnection)
{
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), nullptr);
}

// --- Opening

struct Mode : test::Case {
    int mode;
    int flags;
    Texts events;
};

class AccessModeTest : public DatabaseTest, public WithParamInterface<Mode> {};

TEST_P(AccessModeTest, SelectsTheOpenFlagsWhateverTheIgnoredFlag)
{
    for (const bool ignored : {false, true}) {
        int calledFlags = -1;
        test::SqliteCalls calls;
        calls.open = [&](const char* file, sqlite3** db, int flags, const char* vfs) {
            EXPECT_STREQ(file, "any file");
            EXPECT_EQ(vfs, nullptr);
            calledFlags = flags;
            return sqlite3_open(":memory:", db);
        };
        EXPECT_TRUE(_database.open("any file", Database::AccessMode(GetParam().mode), ignored, 0));
        EXPECT_EQ(calledFlags, GetParam().flags);
        EXPECT_EQ(calls.opens, 1);
        expectReport(GetParam().events);
    }
}

const Mode modes[] = {
    {"ReadOnly", Database::access_read_only, 1, {}},
    {"ReadWrite", Database::access_read_write, 2, {}},
    {"Create", Database::access_create, 6, {}},
    {"Unknown3", 3, 0, {unknown_mode_asserted}},
    {"Unknown4", 4, 0, {unknown_mode_asserted}},
    {"Unknown6", 6, 0, {unknown_mode_asserted}},
    {"UnknownMinus1", -1, 0, {unknown_mode_asserted}},
    {"Unknown256", 256, 0, {unknown_mode_asserted}},
};

INSTANTIATE_TEST_SUITE_P(All, AccessModeTest, ValuesIn(modes), test::NameOfCase());

TEST_F(DatabaseTest, ExistingFileIsOpenedInEveryModeAndSilently)
{
    for (const auto mode :
         {Database::access_read_only, Database::access_read_write, Database::access_create}) {
        EXPECT_TRUE(open(mode));
        EXPECT_TRUE(_database.isOpen());
        EXPECT_EQ(_database.getUserVersion(), 7);
    }
}

TEST_F(DatabaseTest, OpeningIsTracedAtEveryLevelThatShowsIt)
{
    for (const int level : test::trace_levels) {
        _diagnostics.setLevel(level);
        _diagnostics.clear();
        EXPECT_TRUE(open());
        expectReport(report::opening(_file));
    }
}

struct FailedOpen : test::Case {
    const char* file; // in the test's directory
    Database::AccessMode mode;
    Texts assertions;
    const char* reason;
};

class FailedOpenTest : public DatabaseTest, public WithParamInterface<FailedOpen> {};

TEST_P(FailedOpenTest, IsReportedWithTheErrorTextOfSqlite)
{
    const std::string file = _directory.file(GetParam().file);
    Texts events = report::notOpened(file, GetParam().reason);
    events.insert(events.begin() + 1, GetParam().assertions.begin(), GetParam().assertions.end());
    for (const int level : test::trace_levels) {
        _database.close();
        _diagnostics.setLevel(level);
        _diagnostics.clear();
        EXPECT_FALSE(_database.open(file, GetParam().mode, false, 0));
        EXPECT_FALSE(_database.isOpen());
        expectReport(events);
    }
}

const char cannot_open[] = "14=SQLITE_CANTOPEN: unable to open database file";
const FailedOpen failed_opens[] = {
    {"MissingFileReadOnly", "missing.db", Database::access_read_only, {}, cannot_open},
    {"MissingFileReadWrite", "missing.db", Database::access_read_write, {}, cannot_open},
    {"MissingDirectory", "missing/product.db", Database::access_create, {}, cannot_open},
    {"PercentSigns", "%s%n%d.db", Database::access_read_only, {}, cannot_open},
    {"UnknownMode",
     "product.db",
     unknown_mode,
     {unknown_mode_asserted},
     "21=SQLITE_MISUSE: bad parameter or other API misuse"},
};

INSTANTIATE_TEST_SUITE_P(All, FailedOpenTest, ValuesIn(failed_opens), test::NameOfCase());

TEST_F(DatabaseTest, MissingFileIsMadeWhenCreatingAlone)
{
    EXPECT_FALSE(openMissing());
    EXPECT_FALSE(std::filesystem::exists(_missing));
    _diagnostics.clear();
    EXPECT_TRUE(_database.open(_missing, Database::access_create, false, 0));
    EXPECT_EQ(_database.getUserVersion(), 0);
    EXPECT_TRUE(_database.setUserVersion(1));
    EXPECT_TRUE(std::filesystem::exists(_missing));
}

TEST_F(DatabaseTest, HandleIsSqlitesOwn)
{
    sqlite3* given = nullptr;
    test::SqliteCalls calls;
    calls.open = [&given](const char*, sqlite3** db, int, const char*) {
        const int rc = sqlite3_open(":memory:", db);
        given = *db;
        return rc;
    };
    open();
    EXPECT_NE(given, nullptr);
    EXPECT_EQ(_database.getHandle(), given);
}

TEST_F(DatabaseTest, FileThatIsNoDatabaseOpensAndItsFirstStatementFails)
{
    test::writeFile(_missing, std::string(2000, 'x'));
    EXPECT_TRUE(openMissing());
    EXPECT_TRUE(_database.isOpen());
    EXPECT_EQ(_database.getUserVersion(), -1);
    expectReport(report::noRow("PRAGMA user_version;", "26=SQLITE_NOTADB: file is not a database"));
}

TEST_F(DatabaseTest, FailedOpenKeepsItsHandleUntilTheNextClose)
{
    test::SqliteCalls calls;
    openMissing();
    sqlite3* const kept = _database.getHandle();
    EXPECT_NE(kept, nullptr);
    EXPECT_THAT(calls.order, ElementsAre("open"));
    sqlite3* closed = nullptr;
    calls.close = [&closed](sqlite3* db) {
        closed = db;
        return test::closeConnection(db);
    };
    _diagnostics.clear();
    _database.close();
    EXPECT_EQ(closed, kept);
    EXPECT_EQ(_database.getHandle(), nullptr);
}

TEST_F(DatabaseTest, HandleOfAFailedOpenIsReleasedByTheDestructor)
{
    const test::SqliteCalls calls;
    {
        Database database;
        database.open(_missing, Database::access_read_only, false, 0);
        EXPECT_EQ(calls.closes, 0);
    }
    EXPECT_EQ(calls.closes, 1);
    expectReport(report::notOpened(_missing, cannot_open));
}

TEST_F(DatabaseTest, FailedOpenIsReportedWithTheErrorTextOfItsHandle)
{
    test::SqliteCalls calls;
    calls.open = [](const char*, sqlite3** db, int, const char*) {
        sqlite3_open(":memory:", db);
        return sqlite3_exec(*db, "select * from nowhere", nullptr, nullptr, nullptr);
    };
    EXPECT_FALSE(open());
    expectReport(report::notOpened(_file, "1=SQLITE_ERROR: no such table: nowhere"));
}

TEST_F(DatabaseTest, FailedOpenWithoutHandleIsReportedWithTheTextForNoMemory)
{
    test::SqliteCalls calls;
    openNothing(calls, SQLITE_NOMEM);
    EXPECT_FALSE(open());
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), nullptr);
    expectReport(report::notOpened(_file, "7=SQLITE_NOMEM: out of memory"));
}

TEST_F(DatabaseTest, NullHandleInSpiteOfSuccessIsAFailureOfAnOpenDatabase)
{
    test::SqliteCalls calls;
    openNothing(calls, SQLITE_OK);
    EXPECT_FALSE(open());
    EXPECT_TRUE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), nullptr);
    EXPECT_EQ(calls.configures, 0);
    expectReport({report::openedWithoutHandle(_file)});
    _database.close();
    EXPECT_FALSE(_database.isOpen());
    EXPECT_THAT(calls.order, ElementsAre("open"));
}

// --- String keys

#ifdef SQLITE_DBCONFIG_DQS_DML

// Opens a file as an SQLite does that was built to read double-quoted words as names alone.
template <int option> int openWithout(const char* file, sqlite3** db, int, const char*)
{
    const int rc = sqlite3_open(file, db);
    int* const none = nullptr;
    sqlite3_db_config(*db, option, 0, none);
    return rc;
}

struct KeyUse : test::Case {
    bool (*use)(sql::Table&);
    Texts failure; // where a double-quoted word is no text
};

class StringKeyTest : public DatabaseTest, public WithParamInterface<KeyUse> {
protected:
    StringKeyTest()
    {
        test::Connection connection(_file);
        connection.run("create table code (code text primary key, name text)");
        connection.run("insert into code values ('tea', 'Tea')");
        _calls.open = openWithout<SQLITE_DBCONFIG_DQS_DML>;
    }

    bool use(sqlite3* db)
    {
        sql::Table table(db, "code", test::text_key_columns);
        return GetParam().use(table);
    }

    test::SqliteCalls _calls;
};

TEST_P(StringKeyTest, IsATextThoughSqliteWasBuiltToReadNamesAlone)
{
    EXPECT_TRUE(open());
    EXPECT_TRUE(use(_database.getHandle()));
}

TEST_P(StringKeyTest, IsATextThoughTheBusyTimeoutCannotBeSet)
{
    refuseTheBusyTimeout(_calls);
    EXPECT_FALSE(open());
    _diagnostics.clear();
    EXPECT_TRUE(use(_database.getHandle()));
}

TEST_P(StringKeyTest, IsANameOnAHandleFromElsewhereAndFails)
{
    sqlite3* db = nullptr;
    openWithout<SQLITE_DBCONFIG_DQS_DML>(_file.c_str(), &db, 0, nullptr);
    EXPECT_FALSE(use(db));
    expectReport(GetParam().failure);
    sqlite3_close(db);
}

const char no_column[] = "1=SQLITE_ERROR: no such column: tea";
const KeyUse key_uses[] = {
    {"Load", [](sql::Table& table) { return table.getRecordByKeyId("tea") != nullptr; },
     report::refused("select * from code where code = \"tea\"", no_column)},
    {"ExistenceTest", [](sql::Table& table) { return table.hasRecordWithKeyId("tea"); },
     report::notPrepared("select count(*) from code where code = \"tea\"", no_column)},
    {"Delete",
     [](sql::Table& table) { return table.deleteRecord("tea") && table.totalRecordCount() == 0; },
     report::refused("delete from code where code = \"tea\"", no_column)},
};

INSTANTIATE_TEST_SUITE_P(All, StringKeyTest, ValuesIn(key_uses), test::NameOfCase());

TEST_F(DatabaseTest, DoubleQuotedTextsAreTurnedOnForRowsBetweenOpeningAndTheBusyTimeout)
{
    test::SqliteCalls calls;
    calls.configure = [&calls](sqlite3*, int option, int value) {
        calls.order.push_back(std::to_string(option) + "=" + std::to_string(value));
        return SQLITE_OK;
    };
    EXPECT_TRUE(open());
    EXPECT_THAT(calls.order, ElementsAre("open", std::to_string(SQLITE_DBCONFIG_DQS_DML) + "=1",
                                         "busy_timeout"));
}

TEST_F(DatabaseTest, DoubleQuotedTextsInDefinitionsStayAsSqliteWasBuilt)
{
    test::SqliteCalls calls;
    calls.open = openWithout<SQLITE_DBCONFIG_DQS_DDL>;
    open();
    int on = -1;
    sqlite3_db_config(_database.getHandle(), SQLITE_DBCONFIG_DQS_DDL, -1, &on);
    EXPECT_EQ(on, 0);
}

// As an SQLite answers that is older than the header the library was built with.
TEST_F(DatabaseTest, SqliteThatKnowsNoSwitchForDoubleQuotedTextsOpensSilently)
{
    _diagnostics.setLevel(6);
    test::SqliteCalls calls;
    calls.configure = [](sqlite3*, int, int) {
        return SQLITE_ERROR;
    };
    EXPECT_TRUE(open());
    EXPECT_EQ(calls.configures, 1);
    EXPECT_EQ(_database.getUserVersion(), 7);
}

#endif // every double-quoted word that is no name is a text to an SQLite without that switch

TEST_F(DatabaseTest, DoubleQuotedTextsAreLeftAloneWhenTheOpenFails)
{
    const test::SqliteCalls calls;
    EXPECT_FALSE(openMissing());
    EXPECT_EQ(calls.configures, 0);
    expectReport(report::notOpened(_missing, cannot_open));
}

// --- Busy timeout

TEST_F(DatabaseTest, BusyTimeoutIsPassedToSqliteForTheConnection)
{
    for (const int milliseconds : {0, 1, 2500, -1}) {
        sqlite3* db = nullptr;
        int given = 77;
        test::SqliteCalls calls;
        calls.busyTimeout = [&](sqlite3* connection, int value) {
            db = connection;
            given = value;
            return SQLITE_OK;
        };
        EXPECT_TRUE(_database.open(_file, Database::access_read_only, false, milliseconds));
        EXPECT_EQ(db, _database.getHandle());
        EXPECT_EQ(given, milliseconds);
    }
}

#if SQLITE_VERSION_NUMBER >= 3015002 // 3.7.7.1 has no such pragma

TEST_F(DatabaseTest, BusyTimeoutHoldsForTheConnection)
{
    _database.open(_file, Database::access_read_only, false, 2500);
    EXPECT_EQ(sql::queryNumber(_database.getHandle(), "pragma busy_timeout"), 2500);
}

#endif

TEST_F(DatabaseTest, BusyTimeoutThatFailsLeavesTheDatabaseOpen)
{
    test::SqliteCalls calls;
    refuseTheBusyTimeout(calls);
    EXPECT_FALSE(open());
    EXPECT_TRUE(_database.isOpen());
    EXPECT_EQ(calls.closes, 0);
    expectReport({report::noBusyTimeout("21=SQLITE_MISUSE")});
    EXPECT_EQ(_database.getUserVersion(), 7);
}

TEST_F(DatabaseTest, LockOfAnotherConnectionFailsAStatementWithoutABusyTimeout)
{
    open();
    test::Connection other(_file);
    other.run("begin exclusive");
    EXPECT_FALSE(_database.setUserVersion(8));
    expectReport(report::stepFailed("PRAGMA user_version=8;", "5=SQLITE_BUSY: database is locked"));
}

// --- Order

TEST_F(DatabaseTest, OpeningTracesClosesReportsTheModeAndOpens)
{
    test::SqliteCalls calls;
    noteReports(calls);
    EXPECT_TRUE(open());
    EXPECT_THAT(std::exchange(calls.order, {}), ElementsAre("[DEBUG1]", "open", "busy_timeout"));
    EXPECT_TRUE(open());
    EXPECT_THAT(std::exchange(calls.order, {}),
                ElementsAre("[DEBUG1]", "close", "open", "busy_timeout"));
    EXPECT_FALSE(open(unknown_mode));
    EXPECT_FALSE(_database.isOpen());
    EXPECT_THAT(std::exchange(calls.order, {}),
                ElementsAre("[DEBUG1]", "close", "assert", "open", "[ERROR]"));
    EXPECT_FALSE(openMissing());
#if SQLITE_VERSION_NUMBER >= 3024000 // 3.15 leaves no handle where it does not know the mode
    EXPECT_THAT(calls.order, ElementsAre("[DEBUG1]", "close", "open", "[ERROR]"));
#else
    EXPECT_THAT(calls.order, ElementsAre("[DEBUG1]", "open", "[ERROR]"));
#endif
    _diagnostics.clear();
}

// --- Closing

TEST_F(DatabaseTest, ClosingANeverOpenedDatabaseIsSilent)
{
    _diagnostics.setLevel(9);
    const test::SqliteCalls calls;
    _database.close();
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(calls.closes, 0);
}

TEST_F(DatabaseTest, ClosingReleasesTheConnectionOnce)
{
    open();
    _diagnostics.setLevel(9);
    const test::SqliteCalls calls;
    _database.close();
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), nullptr);
    _database.close();
    EXPECT_EQ(calls.closes, 1);
}

TEST_F(DatabaseTest, DestructorCloses)
{
    auto database = std::make_unique<Database>();
    database->open(_file, Database::access_read_only, false, 0);
    sqlite3* const db = database->getHandle();
    sqlite3* closed = nullptr;
    test::SqliteCalls calls;
    calls.close = [&closed](sqlite3* connection) {
        closed = connection;
        return test::closeConnection(connection);
    };
    database.reset();
    EXPECT_EQ(closed, db);
    EXPECT_EQ(calls.closes, 1);
}

// A statement of the caller's own that keeps SQLite from closing.
class RefusedCloseTest : public DatabaseTest {
protected:
    RefusedCloseTest() : _unfinished(nullptr)
    {
        open();
        sqlite3_prepare_v2(_database.getHandle(), "select 5", -1, &_unfinished, nullptr);
        _abandoned = _database.getHandle();
    }

    ~RefusedCloseTest() override
    {
        sqlite3_finalize(_unfinished);
        sqlite3_close(_abandoned);
    }

    sqlite3_stmt* _unfinished;
    sqlite3* _abandoned;
};

const std::string refused_close = report::asserted("void sql::Database::close()",
                                                   "rc == SQLITE_OK");

TEST_F(RefusedCloseTest, IsReportedAndTheConnectionAbandonedForGood)
{
    _diagnostics.setLevel(9);
    const test::SqliteCalls calls;
    _database.close();
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), nullptr);
    _database.close();
    EXPECT_EQ(calls.closes, 1);
    expectReport({refused_close});
}

TEST_F(RefusedCloseTest, DoesNotKeepTheNextOpenFromSucceeding)
{
    EXPECT_TRUE(open());
    EXPECT_TRUE(_database.isOpen());
    EXPECT_NE(_database.getHandle(), _abandoned);
    expectReport({refused_close});
}

TEST_F(DatabaseTest, CloseRefusedToTheDestructorIsReported)
{
    auto database = std::make_unique<Database>();
    database->open(_file, Database::access_read_only, false, 0);
    test::SqliteCalls calls;
    calls.close = [](sqlite3* db) {
        test::closeConnection(db);
        return SQLITE_BUSY;
    };
    database.reset();
    expectReport({refused_close});
}

// --- User version

class UserVersionTest : public DatabaseTest, public WithParamInterface<unsigned int> {};

TEST_P(UserVersionTest, IsStoredAndReadByItsPragma)
{
    const std::string version = std::to_string(GetParam());
    const std::string statement = "PRAGMA user_version=" + version + ";";
    open();
    _diagnostics.setLevel(9);
    const test::Statements statements(_database.getHandle());
    const test::SqliteCalls calls;
    EXPECT_TRUE(_database.setUserVersion(GetParam()));
#if SQLITE_VERSION_NUMBER >= 3015002 // 3.7.7.1 does not trace this pragma
    EXPECT_THAT(statements.texts(), ElementsAre(statement));
#endif
    const Database& constant = _database;
    EXPECT_EQ(constant.getUserVersion(), static_cast<int>(GetParam()));
    EXPECT_THAT(calls.order,
                ElementsAre("prepare", "step", "finalize", "prepare", "step", "finalize"));
    expectReport(
        joined({report::stepped(statement), report::counted("PRAGMA user_version;", version)}));
    EXPECT_EQ(test::Connection(_file).rows("pragma user_version"), version);
}

INSTANTIATE_TEST_SUITE_P(All, UserVersionTest, Values(0, 8, 2147483647));

class UserVersionTooHighTest : public DatabaseTest, public WithParamInterface<unsigned int> {};

TEST_P(UserVersionTooHighTest, IsRefusedBeforeTheConnectionIsLookedAt)
{
    open();
    Database neverOpened;
    for (const int level : test::trace_levels) {
        _diagnostics.setLevel(level);
        const test::SqliteCalls calls;
        EXPECT_FALSE(_database.setUserVersion(GetParam()));
        EXPECT_FALSE(neverOpened.setUserVersion(GetParam()));
        expectReport({version_too_high, version_too_high});
        EXPECT_THAT(calls.order, IsEmpty());
        _diagnostics.clear();
    }
}

INSTANTIATE_TEST_SUITE_P(All, UserVersionTooHighTest,
                         Values(2147483648u, 2147483649u, 4294967295u));

TEST_F(DatabaseTest, UserVersionDoesNotDependOnTheLocale)
{
    open();
    const test::CommaLocale locale;
    EXPECT_TRUE(_database.setUserVersion(1234567));
    EXPECT_EQ(_database.getUserVersion(), 1234567);
}

TEST_F(DatabaseTest, NegativeUserVersionIsAFailure)
{
    open();
    for (const char* const version : {"-1", "-2", "-2147483648"}) {
        test::Connection(_file).run(std::string("pragma user_version = ") + version);
        EXPECT_EQ(_database.getUserVersion(), -1);
        expectReport(report::negative("PRAGMA user_version;", version));
    }
}

TEST_F(DatabaseTest, UserVersionOfAReadOnlyConnectionCannotBeSet)
{
    open(Database::access_read_only);
    EXPECT_FALSE(_database.setUserVersion(8));
    expectReport(report::stepFailed("PRAGMA user_version=8;",
                                    "8=SQLITE_READONLY: attempt to write a readonly database"));
    EXPECT_EQ(_database.getUserVersion(), 7);
}

// --- Without a connection

struct Unconnected : test::Case {
    std::function<int(Database&)> act;
    int result;
    std::string event;
};

class UnconnectedTest : public DatabaseTest, public WithParamInterface<Unconnected> {};

TEST_P(UnconnectedTest, IsAssertedAtEveryLevelNeverOpenedOrClosed)
{
    open();
    _database.close();
    Database neverOpened;
    for (const int level : test::trace_levels) {
        _diagnostics.setLevel(level);
        EXPECT_EQ(GetParam().act(_database), GetParam().result);
        EXPECT_EQ(GetParam().act(neverOpened), GetParam().result);
        expectReport({GetParam().event, GetParam().event});
    }
}

const Unconnected unconnected_operations[] = {
    {"UserVersionCannotBeRead", &Database::getUserVersion, -1, report::nothingToCountOn()},
    {"UserVersionCannotBeSet", [](Database& database) { return database.setUserVersion(7); }, false,
     report::nothingToStepOn()},
    {"TransactionCannotBegin", &Database::transactionBegin, false, report::notConnected()},
    {"TransactionCannotBeCommitted", &Database::transactionCommit, false, report::notConnected()},
    {"TransactionCannotBeRolledBack", &Database::transactionRollback, false,
     report::notConnected()},
};

INSTANTIATE_TEST_SUITE_P(All, UnconnectedTest, ValuesIn(unconnected_operations),
                         test::NameOfCase());

// --- Transactions

struct Transaction : test::Case {
    bool (Database::*operation)();
    const char* statement;
};

class TransactionTest : public DatabaseTest, public WithParamInterface<Transaction> {
protected:
    // Whether the transaction succeeds while SQLite gives this result.
    bool run(int rc)
    {
        _calls.exec = [this, rc](sqlite3* db, const char* text,
                                 test::SqliteCalls::RowCallback callback, void*, char**) {
            EXPECT_EQ(db, _database.getHandle());
            EXPECT_STREQ(text, GetParam().statement);
            EXPECT_EQ(callback, &sql::RecordSet::on_next_record);
            return rc;
        };
        _calls.order.clear();
        return (_database.*GetParam().operation)();
    }

    test::SqliteCalls _calls;
};

TEST_P(TransactionTest, RunsItsStatementThroughARecordSetOnceAndReportsAFailure)
{
    open();
    for (const int level : test::trace_levels) {
        _diagnostics.setLevel(level);
        EXPECT_TRUE(run(SQLITE_OK));
        EXPECT_THAT(_calls.order, ElementsAre("exec"));
        expectReport(report::ran(GetParam().statement));

        EXPECT_FALSE(run(SQLITE_BUSY));
        EXPECT_THAT(_calls.order, ElementsAre("exec"));
        expectReport(report::refused(GetParam().statement, "5=SQLITE_BUSY"));
        EXPECT_TRUE(_database.isOpen());
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, TransactionTest,
    Values(Transaction{"Begin", &Database::transactionBegin, "BEGIN TRANSACTION"},
           Transaction{"Commit", &Database::transactionCommit, "COMMIT TRANSACTION"},
           Transaction{"Rollback", &Database::transactionRollback, "ROLLBACK TRANSACTION"}),
    test::NameOfCase());

class OpenTransactionTest : public DatabaseTest {
protected:
    OpenTransactionTest()
    {
        open();
        EXPECT_TRUE(_database.transactionBegin());
        insert("1");
    }

    void insert(const char* id)
    {
        sql::runOneStepSqlStmt(_database.getHandle(),
                               std::string("insert into product values (") + id + ")");
    }

    bool inTransaction()
    {
        return sqlite3_get_autocommit(_database.getHandle()) == 0;
    }

    std::string committed()
    {
        return test::Connection(_file).rows("select id from product order by id");
    }
};

TEST_F(OpenTransactionTest, CommitKeepsWhatWasWritten)
{
    EXPECT_TRUE(inTransaction());
    insert("2");
    EXPECT_EQ(committed(), "");
    EXPECT_TRUE(_database.transactionCommit());
    EXPECT_FALSE(inTransaction());
    EXPECT_EQ(committed(), "1\n2");
}

TEST_F(OpenTransactionTest, RollbackUndoesWhatWasWrittenAndAnotherMayBegin)
{
    EXPECT_TRUE(_database.transactionRollback());
    EXPECT_FALSE(inTransaction());
    EXPECT_EQ(committed(), "");
    EXPECT_TRUE(_database.transactionBegin());
    insert("2");
    EXPECT_TRUE(_database.transactionCommit());
    EXPECT_EQ(committed(), "2");
}

TEST_F(OpenTransactionTest, NestedBeginIsRefusedAndTheFirstTransactionStaysOpen)
{
    EXPECT_FALSE(_database.transactionBegin());
    expectReport(report::refused(
        "BEGIN TRANSACTION", "1=SQLITE_ERROR: cannot start a transaction within a transaction"));
    EXPECT_TRUE(inTransaction());
    EXPECT_TRUE(_database.transactionCommit());
    EXPECT_EQ(committed(), "1");
}

TEST_F(OpenTransactionTest, EndWithoutBeginIsRefusedAndTheDatabaseStaysOpen)
{
    _database.transactionRollback();
    sqlite3* const db = _database.getHandle();
    EXPECT_FALSE(_database.transactionCommit());
    expectReport(report::refused("COMMIT TRANSACTION",
                                 "1=SQLITE_ERROR: cannot commit - no transaction is active"));
    EXPECT_FALSE(_database.transactionRollback());
    expectReport(report::refused("ROLLBACK TRANSACTION",
                                 "1=SQLITE_ERROR: cannot rollback - no transaction is active"));
    EXPECT_TRUE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), db);
}

TEST_F(OpenTransactionTest, CommitThatIsLockedOutIsNotRolledBackAndSucceedsLater)
{
    {
        test::Connection reader(_file);
        reader.run("begin; select count(*) from product");
        const test::SqliteCalls calls;
        EXPECT_FALSE(_database.transactionCommit());
        EXPECT_THAT(calls.order, ElementsAre("exec", "free"));
        expectReport(report::refused("COMMIT TRANSACTION", "5=SQLITE_BUSY: database is locked"));
        EXPECT_TRUE(inTransaction());
    }
    EXPECT_TRUE(_database.transactionCommit());
    EXPECT_EQ(committed(), "1");
}

TEST_F(OpenTransactionTest, ClosingDropsAnOpenTransaction)
{
    _database.close();
    EXPECT_EQ(committed(), "");
}

} // namespace
