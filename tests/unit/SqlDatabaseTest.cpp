#include "SqlDatabase.h"

#include "SqlRecordSet.h"
#include "SqlTable.h"

#include "Columns.h"
#include "Declarations.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Sqlite.h"
#include "Wording.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sql::Database;
using testing::Combine;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Values;
using testing::ValuesIn;
using testing::WithParamInterface;

static_assert(!std::is_copy_constructible_v<Database> && !std::is_copy_assignable_v<Database>);
static_assert(!std::is_polymorphic_v<Database>);
static_assert(sizeof(Database::AccessMode) == 4);
static_assert(Database::access_read_only == 0);
static_assert(Database::access_read_write == 1);
static_assert(Database::access_create == 2);

static_assert(std::is_default_constructible_v<Database>);
static_assert(test::declared<bool (Database::*)(const std::string&, Database::AccessMode, bool,
                                                int)>(&Database::open));
static_assert(test::declared<void (Database::*)()>(&Database::close));
static_assert(test::declared<bool (Database::*)() const>(&Database::isOpen));
static_assert(test::declared<sqlite3* (Database::*)()>(&Database::getHandle));
static_assert(test::declared<bool (Database::*)()>(&Database::transactionBegin));
static_assert(test::declared<bool (Database::*)()>(&Database::transactionCommit));
static_assert(test::declared<bool (Database::*)()>(&Database::transactionRollback));
static_assert(test::declared<int (Database::*)() const>(&Database::getUserVersion));
static_assert(test::declared<bool (Database::*)(unsigned int)>(&Database::setUserVersion));

const Database::AccessMode unknown_mode = Database::AccessMode(3);

template <typename Parameter> std::string nameOf(const testing::TestParamInfo<Parameter>& info)
{
    return info.param.name;
}

class DatabaseTest : public testing::Test {
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

    // The log lines as they come between the calls.
    void noteLines(test::SqliteCalls& calls)
    {
        _diagnostics.onLine(
            [&calls](const test::LogLine& line) { calls.order.push_back(line.tag); });
    }

    test::TemporaryDirectory _directory;
    std::string _file;
    std::string _missing;
    test::Diagnostics _diagnostics;
    Database _database;
};

TEST_F(DatabaseTest, NewObjectHasNoConnection)
{
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- opening ---

struct Mode {
    const char* name;
    Database::AccessMode mode;
    int flags;
};

void PrintTo(const Mode& mode, std::ostream* out)
{
    *out << mode.name;
}

class AccessModeTest : public DatabaseTest, public WithParamInterface<std::tuple<Mode, bool>> {};

TEST_P(AccessModeTest, SelectsTheOpenFlagsWhateverTheIgnoredFlag)
{
    const auto& [mode, ignored] = GetParam();
    std::vector<std::string> files;
    std::vector<int> flags;
    bool defaultVfs = false;
    test::SqliteCalls calls;
    calls.open = [&](const char* file, sqlite3** db, int openFlags, const char* vfs) {
        files.push_back(file);
        flags.push_back(openFlags);
        defaultVfs = vfs == nullptr;
        return sqlite3_open(":memory:", db);
    };
    EXPECT_TRUE(_database.open("any file", mode.mode, ignored, 0));
    EXPECT_THAT(files, ElementsAre("any file"));
    EXPECT_THAT(flags, ElementsAre(mode.flags));
    EXPECT_TRUE(defaultVfs);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(AccessModeTest, OpensAnExistingFile)
{
    const auto& [mode, ignored] = GetParam();
    EXPECT_TRUE(_database.open(_file, mode.mode, ignored, 0));
    EXPECT_TRUE(_database.isOpen());
    EXPECT_EQ(_database.getUserVersion(), 7);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

std::string modeAndFlag(const testing::TestParamInfo<std::tuple<Mode, bool>>& info)
{
    return std::string(std::get<0>(info.param).name)
           + (std::get<1>(info.param) ? "WithFlag" : "WithoutFlag");
}

INSTANTIATE_TEST_SUITE_P(Modes, AccessModeTest,
                         Combine(Values(Mode{"ReadOnly", Database::access_read_only, 1},
                                        Mode{"ReadWrite", Database::access_read_write, 2},
                                        Mode{"Create", Database::access_create, 6}),
                                 testing::Bool()),
                         modeAndFlag);

class UnknownModeTest : public DatabaseTest, public WithParamInterface<int> {};

TEST_P(UnknownModeTest, IsReportedAndOpenedWithFlagsZero)
{
    int flags = -1;
    test::SqliteCalls calls;
    calls.open = [&flags](const char*, sqlite3** db, int openFlags, const char*) {
        flags = openFlags;
        return sqlite3_open(":memory:", db);
    };
    EXPECT_TRUE(_database.open(_file, Database::AccessMode(GetParam()), false, 0));
    EXPECT_EQ(flags, 0);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'false' in SqlDatabase.cpp (bool sql::Database::open(const string&, sql::Database::AccessMode, bool, int))"));
}

INSTANTIATE_TEST_SUITE_P(Modes, UnknownModeTest, Values(3, 4, 6, -1, 256));

// What `open` reports at each level when it fails.
struct FailedOpen {
    const char* name;
    const char* file; // in the test's directory
    Database::AccessMode mode;
    const char* assertion;
    const char* error; // past the file name
};

void PrintTo(const FailedOpen& open, std::ostream* out)
{
    *out << open.name;
}

class FailedOpenTest : public DatabaseTest,
                       public WithParamInterface<std::tuple<FailedOpen, int>> {};

TEST_P(FailedOpenTest, IsReportedWithTheErrorTextOfSqlite)
{
    const auto& [failure, level] = GetParam();
    const std::string file = _directory.file(failure.file);
    std::vector<std::string> events = {"[DEBUG1] SqlDatabase.cpp (open) - Opening database '" + file
                                       + "'"};
    if (failure.assertion != nullptr)
        events.push_back(failure.assertion);
    events.push_back("[ERROR] SqlDatabase.cpp (open) - Failed to open the database " + file
                     + failure.error);

    _diagnostics.setLevel(level);
    EXPECT_FALSE(_database.open(file, failure.mode, false, 0));
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(_diagnostics.events(), test::visibleAt(level, events));
}

const std::vector<FailedOpen> failed_opens = {
    {"MissingFileReadOnly", "missing.db", Database::access_read_only, nullptr,
     ": rc=14=SQLITE_CANTOPEN: unable to open database file"},
    {"MissingFileReadWrite", "missing.db", Database::access_read_write, nullptr,
     ": rc=14=SQLITE_CANTOPEN: unable to open database file"},
    {"MissingDirectory", "missing/product.db", Database::access_create, nullptr,
     ": rc=14=SQLITE_CANTOPEN: unable to open database file"},
    {"PercentSigns", "%s%n%d.db", Database::access_read_only, nullptr,
     ": rc=14=SQLITE_CANTOPEN: unable to open database file"},
    {"UnknownMode", "product.db", unknown_mode,
     "assert 'false' in SqlDatabase.cpp (bool sql::Database::open(const string&, sql::Database::AccessMode, bool, int))",
     ": rc=21=SQLITE_MISUSE: bad parameter or other API misuse"},
};

std::string failureAtLevel(const testing::TestParamInfo<std::tuple<FailedOpen, int>>& info)
{
    return std::string(std::get<0>(info.param).name) + "AtLevel"
           + std::to_string(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Failures, FailedOpenTest,
                         Combine(ValuesIn(failed_opens), Values(2, 3, 6, 7, 9)), failureAtLevel);

TEST_F(DatabaseTest, OpeningIsLoggedAtDebug1)
{
    _diagnostics.setLevel(7);
    EXPECT_TRUE(open());
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[DEBUG1] SqlDatabase.cpp (open) - Opening database '" + _file + "'"));
}

TEST_F(DatabaseTest, OpeningIsSilentBelowDebug1)
{
    _diagnostics.setLevel(6);
    EXPECT_TRUE(open());
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(DatabaseTest, MissingFileIsMadeWhenCreating)
{
    EXPECT_TRUE(_database.open(_missing, Database::access_create, false, 0));
    EXPECT_TRUE(_database.setUserVersion(1));
    EXPECT_TRUE(std::filesystem::exists(_missing));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(DatabaseTest, MissingFileIsNotMadeOtherwise)
{
    EXPECT_FALSE(openMissing());
    EXPECT_FALSE(std::filesystem::exists(_missing));
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
    EXPECT_THAT(_diagnostics.events(), IsEmpty());

    EXPECT_EQ(_database.getUserVersion(), -1);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'PRAGMA user_version;' failed",
            test::worded(
                "[ERROR] SqlCommon.cpp (queryNumber) -    the query returned 26=SQLITE_NOTADB instead of SQLITE_ROW: file is not a database")));
}

TEST_F(DatabaseTest, FailedOpenKeepsItsHandleUntilTheNextClose)
{
    test::SqliteCalls calls;
    openMissing();
    sqlite3* const kept = _database.getHandle();
    EXPECT_NE(kept, nullptr);
    EXPECT_EQ(calls.closes, 0);
    EXPECT_EQ(calls.busyTimeouts, 0);

    sqlite3* closed = nullptr;
    calls.close = [&closed](sqlite3* db) {
        closed = db;
        return test::closeConnection(db);
    };
    _diagnostics.clear();
    _database.close();
    EXPECT_EQ(closed, kept);
    EXPECT_EQ(_database.getHandle(), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(DatabaseTest, HandleOfAFailedOpenIsReleasedByTheNextOpen)
{
    openMissing();
    const test::SqliteCalls calls;
    EXPECT_TRUE(open());
    EXPECT_THAT(calls.order, ElementsAre("close", "open", "busy_timeout"));
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
}

TEST_F(DatabaseTest, FailedOpenIsReportedWithTheErrorTextOfItsHandle)
{
    test::SqliteCalls calls;
    calls.open = [](const char*, sqlite3** db, int, const char*) {
        sqlite3_open(":memory:", db);
        return sqlite3_exec(*db, "select * from nowhere", nullptr, nullptr, nullptr);
    };
    EXPECT_FALSE(open());
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[ERROR] SqlDatabase.cpp (open) - Failed to open the database " + _file
                            + ": rc=1=SQLITE_ERROR: no such table: nowhere"));
}

TEST_F(DatabaseTest, FailedOpenWithoutHandleIsReportedWithTheTextForNoMemory)
{
    test::SqliteCalls calls;
    calls.open = [](const char*, sqlite3** db, int, const char*) {
        *db = nullptr;
        return SQLITE_NOMEM;
    };
    EXPECT_FALSE(open());
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), nullptr);
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[ERROR] SqlDatabase.cpp (open) - Failed to open the database " + _file
                            + ": rc=7=SQLITE_NOMEM: out of memory"));
}

TEST_F(DatabaseTest, NullHandleInSpiteOfSuccessIsAFailureOfAnOpenDatabase)
{
    test::SqliteCalls calls;
    calls.open = [](const char*, sqlite3** db, int, const char*) {
        *db = nullptr;
        return SQLITE_OK;
    };
    EXPECT_FALSE(open());
    EXPECT_TRUE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), nullptr);
    EXPECT_EQ(calls.busyTimeouts, 0);
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[ERROR] SqlDatabase.cpp (open) - Failed to open the database " + _file
                            + ": database handle returned by SQLite is 0"));
}

TEST_F(DatabaseTest, ClosingWithoutHandleInSpiteOfSuccessIsClosedAndSilent)
{
    test::SqliteCalls calls;
    calls.open = [](const char*, sqlite3** db, int, const char*) {
        *db = nullptr;
        return SQLITE_OK;
    };
    open();
    _diagnostics.clear();
    _database.close();
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(calls.closes, 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- string keys ---

#ifdef SQLITE_DBCONFIG_DQS_DML

// Opens a file as an SQLite does that was built to read double-quoted words as names alone.
int openWithoutDoubleQuotedTexts(const char* file, sqlite3** db, int, const char*)
{
    const int rc = sqlite3_open(file, db);
    int* const none = nullptr;
    sqlite3_db_config(*db, SQLITE_DBCONFIG_DQS_DML, 0, none);
    return rc;
}

struct KeyUse {
    const char* name;
    bool (*use)(sql::Table&);
    std::vector<std::string> failure; // where a double-quoted word is no text
};

void PrintTo(const KeyUse& use, std::ostream* out)
{
    *out << use.name;
}

class StringKeyTest : public DatabaseTest, public WithParamInterface<KeyUse> {
protected:
    StringKeyTest()
    {
        test::Connection connection(_file);
        connection.run("create table code (code text primary key, name text)");
        connection.run("insert into code values ('tea', 'Tea')");
    }

    bool use(sqlite3* db)
    {
        sql::Table table(db, "code", test::text_key_columns);
        return GetParam().use(table);
    }
};

TEST_P(StringKeyTest, IsATextThoughSqliteWasBuiltToReadNamesAlone)
{
    test::SqliteCalls calls;
    calls.open = openWithoutDoubleQuotedTexts;
    EXPECT_TRUE(open());
    EXPECT_TRUE(use(_database.getHandle()));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(StringKeyTest, IsATextThoughTheBusyTimeoutCannotBeSet)
{
    test::SqliteCalls calls;
    calls.open = openWithoutDoubleQuotedTexts;
    calls.busyTimeout = [](sqlite3*, int) {
        return SQLITE_MISUSE;
    };
    EXPECT_FALSE(open());
    _diagnostics.clear();
    EXPECT_TRUE(use(_database.getHandle()));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(StringKeyTest, IsANameOnAHandleFromElsewhereAndFails)
{
    sqlite3* db = nullptr;
    openWithoutDoubleQuotedTexts(_file.c_str(), &db, 0, nullptr);
    EXPECT_FALSE(use(db));
    EXPECT_THAT(_diagnostics.events(), ElementsAreArray(GetParam().failure));
    sqlite3_close(db);
}

const std::vector<KeyUse> key_uses = {
    {"Load",
     [](sql::Table& table) { return table.getRecordByKeyId("tea") != nullptr; },
     {"[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'select * from code where code = \"tea\"'",
      "[ERROR] SqlRecordSet.cpp (query) -   rc=1=SQLITE_ERROR: no such column: tea"}},
    {"ExistenceTest",
     [](sql::Table& table) { return table.hasRecordWithKeyId("tea"); },
     {"[ERROR] SqlCommon.cpp (queryNumber) - Failed to prepare the SQL query 'select count(*) from code where code = \"tea\"': ",
      "[ERROR] SqlCommon.cpp (queryNumber) -   rc=1=SQLITE_ERROR: no such column: tea"}},
    {"Delete",
     [](sql::Table& table) { return table.deleteRecord("tea") && table.totalRecordCount() == 0; },
     {"[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'delete from code where code = \"tea\"'",
      "[ERROR] SqlRecordSet.cpp (query) -   rc=1=SQLITE_ERROR: no such column: tea"}},
};

INSTANTIATE_TEST_SUITE_P(Uses, StringKeyTest, ValuesIn(key_uses), nameOf<KeyUse>);

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
    calls.open = [](const char* file, sqlite3** db, int, const char*) {
        const int rc = sqlite3_open(file, db);
        int* const none = nullptr;
        sqlite3_db_config(*db, SQLITE_DBCONFIG_DQS_DDL, 0, none);
        return rc;
    };
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
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

#endif // every double-quoted word that is no name is a text to an SQLite without that switch

TEST_F(DatabaseTest, DoubleQuotedTextsAreLeftAloneWhenTheOpenFails)
{
    const test::SqliteCalls calls;
    EXPECT_FALSE(openMissing());
    EXPECT_EQ(calls.configures, 0);
}

TEST_F(DatabaseTest, DoubleQuotedTextsAreLeftAloneWithoutAHandle)
{
    test::SqliteCalls calls;
    calls.open = [](const char*, sqlite3** db, int, const char*) {
        *db = nullptr;
        return SQLITE_OK;
    };
    EXPECT_FALSE(open());
    EXPECT_EQ(calls.configures, 0);
}

// --- busy timeout ---

class BusyTimeoutTest : public DatabaseTest, public WithParamInterface<int> {};

TEST_P(BusyTimeoutTest, IsPassedToSqliteForTheConnection)
{
    sqlite3* db = nullptr;
    int milliseconds = 77;
    test::SqliteCalls calls;
    calls.busyTimeout = [&](sqlite3* connection, int given) {
        db = connection;
        milliseconds = given;
        return SQLITE_OK;
    };
    EXPECT_TRUE(_database.open(_file, Database::access_read_only, false, GetParam()));
    EXPECT_EQ(db, _database.getHandle());
    EXPECT_EQ(milliseconds, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, BusyTimeoutTest, Values(0, 1, 2500, -1));

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
    calls.busyTimeout = [](sqlite3*, int) {
        return SQLITE_MISUSE;
    };
    EXPECT_FALSE(open());
    EXPECT_TRUE(_database.isOpen());
    EXPECT_EQ(calls.closes, 0);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlDatabase.cpp (open) - Failed to set the busy timeout: rc=21=SQLITE_MISUSE"));
    EXPECT_EQ(_database.getUserVersion(), 7);
}

TEST_F(DatabaseTest, LockOfAnotherConnectionFailsAStatementWithoutABusyTimeout)
{
    open();
    test::Connection other(_file);
    other.run("begin exclusive");
    EXPECT_FALSE(_database.setUserVersion(8));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - Running the SQL stmt 'PRAGMA user_version=8;' failed",
            "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) -   SQLite returned 5=SQLITE_BUSY instead of SQLITE_DONE: database is locked"));
}

// --- order ---

TEST_F(DatabaseTest, OpeningIsLoggedBeforeAnythingIsDone)
{
    _diagnostics.setLevel(9);
    test::SqliteCalls calls;
    noteLines(calls);
    open();
    EXPECT_THAT(calls.order, ElementsAre("[DEBUG1]", "open", "busy_timeout"));
}

TEST_F(DatabaseTest, FailedOpenIsReportedAfterIt)
{
    _diagnostics.setLevel(9);
    test::SqliteCalls calls;
    noteLines(calls);
    openMissing();
    EXPECT_THAT(calls.order, ElementsAre("[DEBUG1]", "open", "[ERROR]"));
}

TEST_F(DatabaseTest, OpeningTheSameFileAgainClosesFirst)
{
    open();
    _diagnostics.setLevel(9);
    test::SqliteCalls calls;
    noteLines(calls);
    EXPECT_TRUE(open());
    EXPECT_THAT(calls.order, ElementsAre("[DEBUG1]", "close", "open", "busy_timeout"));
    EXPECT_EQ(_database.getUserVersion(), 7);
}

TEST_F(DatabaseTest, FailedOpenHasClosedTheFormerConnection)
{
    open();
    const test::SqliteCalls calls;
    EXPECT_FALSE(openMissing());
    EXPECT_FALSE(_database.isOpen());
    EXPECT_THAT(calls.order, ElementsAre("close", "open"));
}

TEST_F(DatabaseTest, UnknownModeIsReportedAfterClosingAndBeforeOpening)
{
    open();
    test::SqliteCalls calls;
    std::vector<std::size_t> reported;
    calls.close = [&](sqlite3* db) {
        reported.push_back(_diagnostics.events().size());
        return test::closeConnection(db);
    };
    calls.open = [&](const char*, sqlite3** db, int, const char*) {
        reported.push_back(_diagnostics.events().size());
        return sqlite3_open(":memory:", db);
    };
    open(unknown_mode);
    EXPECT_THAT(reported, ElementsAre(0u, 1u));
}

// --- closing ---

TEST_F(DatabaseTest, ClosingANeverOpenedDatabaseIsSilent)
{
    _diagnostics.setLevel(9);
    const test::SqliteCalls calls;
    _database.close();
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(calls.closes, 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
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
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
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
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
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

const char refused_close[] =
    "assert 'rc == SQLITE_OK' in SqlDatabase.cpp (void sql::Database::close())";

TEST_F(RefusedCloseTest, IsReportedAndTheConnectionAbandoned)
{
    _diagnostics.setLevel(9);
    _database.close();
    EXPECT_FALSE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), nullptr);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(refused_close));
}

TEST_F(RefusedCloseTest, IsNotRetried)
{
    _database.close();
    _diagnostics.clear();
    const test::SqliteCalls calls;
    _database.close();
    EXPECT_EQ(calls.closes, 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RefusedCloseTest, DoesNotKeepTheNextOpenFromSucceeding)
{
    EXPECT_TRUE(open());
    EXPECT_TRUE(_database.isOpen());
    EXPECT_NE(_database.getHandle(), _abandoned);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(refused_close));
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
    EXPECT_THAT(_diagnostics.events(), ElementsAre(refused_close));
}

// --- user version ---

struct Version {
    const char* name;
    unsigned int version;
    const char* statement;
};

void PrintTo(const Version& version, std::ostream* out)
{
    *out << version.version;
}

class UserVersionTest : public DatabaseTest, public WithParamInterface<Version> {};

TEST_P(UserVersionTest, IsStoredByItsPragma)
{
    open();
    const test::Statements statements(_database.getHandle());
    EXPECT_TRUE(_database.setUserVersion(GetParam().version));
#if SQLITE_VERSION_NUMBER >= 3015002 // 3.7.7.1 does not trace this pragma
    EXPECT_THAT(statements.texts(), ElementsAre(GetParam().statement));
#endif
    EXPECT_EQ(test::Connection(_file).rows("pragma user_version"),
              std::to_string(GetParam().version));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(UserVersionTest, IsReadBack)
{
    open();
    _database.setUserVersion(GetParam().version);
    const Database& database = _database;
    EXPECT_EQ(database.getUserVersion(), static_cast<int>(GetParam().version));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Versions, UserVersionTest,
                         Values(Version{"Zero", 0, "PRAGMA user_version=0;"},
                                Version{"Eight", 8, "PRAGMA user_version=8;"},
                                Version{"Highest", 2147483647, "PRAGMA user_version=2147483647;"}),
                         nameOf<Version>);

class UserVersionTooHighTest : public DatabaseTest, public WithParamInterface<unsigned int> {};

TEST_P(UserVersionTooHighTest, IsRefusedWithoutRunningAStatement)
{
    open();
    _diagnostics.setLevel(9);
    const test::SqliteCalls calls;
    EXPECT_FALSE(_database.setUserVersion(GetParam()));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlDatabase.cpp (setUserVersion) - User version of a Quillmoor SQL database must be <= 2147483647"));
    EXPECT_THAT(calls.order, IsEmpty());
}

TEST_P(UserVersionTooHighTest, IsRefusedSilentlyBelowTheErrorLevel)
{
    open();
    _diagnostics.setLevel(2);
    EXPECT_FALSE(_database.setUserVersion(GetParam()));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(UserVersionTooHighTest, IsRefusedBeforeTheConnectionIsLookedAt)
{
    EXPECT_FALSE(_database.setUserVersion(GetParam()));
    EXPECT_THAT(_diagnostics.errors(),
                ElementsAre("User version of a Quillmoor SQL database must be <= 2147483647"));
    EXPECT_THAT(_diagnostics.assertions(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Versions, UserVersionTooHighTest,
                         Values(2147483648u, 2147483649u, 4294967295u));

TEST_F(DatabaseTest, UserVersionIsReadThroughQueryNumber)
{
    open();
    _diagnostics.setLevel(8);
    const test::SqliteCalls calls;
    EXPECT_EQ(_database.getUserVersion(), 7);
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[DEBUG2] SqlCommon.cpp (queryNumber) - stmt='PRAGMA user_version;'",
                            "[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=7"));
    EXPECT_THAT(calls.order, ElementsAre("prepare", "step", "finalize"));
}

TEST_F(DatabaseTest, UserVersionIsSetThroughRunOneStepSqlStmt)
{
    open();
    _diagnostics.setLevel(8);
    const test::SqliteCalls calls;
    EXPECT_TRUE(_database.setUserVersion(8));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("[DEBUG2] SqlCommon.cpp (runOneStepSqlStmt) - stmt='PRAGMA user_version=8;'"));
    EXPECT_THAT(calls.order, ElementsAre("prepare", "step", "finalize"));
}

TEST_F(DatabaseTest, UserVersionDoesNotDependOnTheLocale)
{
    open();
    const test::CommaLocale locale;
    EXPECT_TRUE(_database.setUserVersion(1234567));
    EXPECT_EQ(_database.getUserVersion(), 1234567);
}

TEST_F(DatabaseTest, NewFileHasUserVersionZero)
{
    _database.open(_missing, Database::access_create, false, 0);
    EXPECT_EQ(_database.getUserVersion(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

class NegativeUserVersionTest : public DatabaseTest, public WithParamInterface<const char*> {};

TEST_P(NegativeUserVersionTest, IsAFailure)
{
    test::Connection(_file).run(std::string("pragma user_version = ") + GetParam());
    open();
    EXPECT_EQ(_database.getUserVersion(), -1);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'PRAGMA user_version;' failed",
            std::string(
                "[ERROR] SqlCommon.cpp (queryNumber) -   SQLite returned returned number = ")
                + GetParam() + " < 0"));
}

INSTANTIATE_TEST_SUITE_P(Versions, NegativeUserVersionTest, Values("-1", "-2", "-2147483648"));

TEST_F(DatabaseTest, UserVersionOfAReadOnlyConnectionCannotBeSet)
{
    open(Database::access_read_only);
    EXPECT_FALSE(_database.setUserVersion(8));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - Running the SQL stmt 'PRAGMA user_version=8;' failed",
            "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) -   SQLite returned 8=SQLITE_READONLY instead of SQLITE_DONE: attempt to write a readonly database"));
    EXPECT_EQ(_database.getUserVersion(), 7);
}

// --- without a connection ---

struct Unconnected {
    const char* name;
    bool opened; // and closed again
    int level;
};

void PrintTo(const Unconnected& parameter, std::ostream* out)
{
    *out << parameter.name;
}

class UnconnectedTest : public DatabaseTest, public WithParamInterface<Unconnected> {
protected:
    UnconnectedTest()
    {
        if (GetParam().opened) {
            open();
            _database.close();
        }
        _diagnostics.setLevel(GetParam().level);
    }
};

TEST_P(UnconnectedTest, UserVersionCannotBeRead)
{
    EXPECT_EQ(_database.getUserVersion(), -1);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'db' in SqlCommon.cpp (int sql::queryNumber(sqlite3*, const string&))"));
}

TEST_P(UnconnectedTest, UserVersionCannotBeSet)
{
    EXPECT_FALSE(_database.setUserVersion(7));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'db' in SqlCommon.cpp (bool sql::runOneStepSqlStmt(sqlite3*, const string&))"));
}

const char no_connection[] =
    "assert '_db' in SqlRecordSet.cpp (bool sql::RecordSet::query(const string&))";

TEST_P(UnconnectedTest, TransactionCannotBegin)
{
    EXPECT_FALSE(_database.transactionBegin());
    EXPECT_THAT(_diagnostics.events(), ElementsAre(no_connection));
}

TEST_P(UnconnectedTest, TransactionCannotBeCommitted)
{
    EXPECT_FALSE(_database.transactionCommit());
    EXPECT_THAT(_diagnostics.events(), ElementsAre(no_connection));
}

TEST_P(UnconnectedTest, TransactionCannotBeRolledBack)
{
    EXPECT_FALSE(_database.transactionRollback());
    EXPECT_THAT(_diagnostics.events(), ElementsAre(no_connection));
}

INSTANTIATE_TEST_SUITE_P(Databases, UnconnectedTest,
                         Values(Unconnected{"NeverOpened", false, 9},
                                Unconnected{"NeverOpenedUntraced", false, 0},
                                Unconnected{"Closed", true, 9},
                                Unconnected{"ClosedUntraced", true, 0}),
                         nameOf<Unconnected>);

// --- transactions ---

struct Transaction {
    const char* name;
    bool (Database::*operation)();
    const char* statement;
};

void PrintTo(const Transaction& transaction, std::ostream* out)
{
    *out << transaction.name;
}

class TransactionTest : public DatabaseTest, public WithParamInterface<Transaction> {
protected:
    TransactionTest()
    {
        open();
    }

    bool run()
    {
        return (_database.*GetParam().operation)();
    }
};

TEST_P(TransactionTest, RunsItsStatementThroughARecordSet)
{
    sqlite3* db = nullptr;
    std::vector<std::string> texts;
    test::SqliteCalls::RowCallback callback = nullptr;
    test::SqliteCalls calls;
    calls.exec = [&](sqlite3* connection, const char* text, test::SqliteCalls::RowCallback rows,
                     void*, char**) {
        db = connection;
        texts.push_back(text);
        callback = rows;
        return SQLITE_OK;
    };
    _diagnostics.setLevel(9);
    EXPECT_TRUE(run());
    EXPECT_EQ(db, _database.getHandle());
    EXPECT_THAT(texts, ElementsAre(GetParam().statement));
    EXPECT_EQ(callback, &sql::RecordSet::on_next_record);
    EXPECT_THAT(calls.order, ElementsAre("exec"));
    EXPECT_THAT(_diagnostics.events(), ElementsAre("[DEBUG2] SqlRecordSet.cpp (query) - stmt='"
                                                   + std::string(GetParam().statement) + "'"));
}

TEST_P(TransactionTest, IsSilentBelowDebug2)
{
    test::SqliteCalls calls;
    calls.exec = [](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*, char**) {
        return SQLITE_OK;
    };
    _diagnostics.setLevel(7);
    EXPECT_TRUE(run());
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(TransactionTest, FailureIsReportedAndNotRetried)
{
    test::SqliteCalls calls;
    calls.exec = [](sqlite3*, const char*, test::SqliteCalls::RowCallback, void*, char**) {
        return SQLITE_BUSY;
    };
    EXPECT_FALSE(run());
    EXPECT_EQ(calls.execs, 1);
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt '"
                                + std::string(GetParam().statement) + "'",
                            "[ERROR] SqlRecordSet.cpp (query) -   rc=5=SQLITE_BUSY"));
    EXPECT_TRUE(_database.isOpen());
}

INSTANTIATE_TEST_SUITE_P(
    Operations, TransactionTest,
    Values(Transaction{"Begin", &Database::transactionBegin, "BEGIN TRANSACTION"},
           Transaction{"Commit", &Database::transactionCommit, "COMMIT TRANSACTION"},
           Transaction{"Rollback", &Database::transactionRollback, "ROLLBACK TRANSACTION"}),
    nameOf<Transaction>);

class OpenTransactionTest : public DatabaseTest {
protected:
    OpenTransactionTest()
    {
        open();
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
    EXPECT_TRUE(_database.transactionBegin());
    EXPECT_TRUE(inTransaction());
    insert("1");
    insert("2");
    EXPECT_EQ(committed(), "");
    EXPECT_TRUE(_database.transactionCommit());
    EXPECT_FALSE(inTransaction());
    EXPECT_EQ(committed(), "1\n2");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(OpenTransactionTest, RollbackUndoesWhatWasWritten)
{
    EXPECT_TRUE(_database.transactionBegin());
    insert("1");
    EXPECT_TRUE(_database.transactionRollback());
    EXPECT_FALSE(inTransaction());
    EXPECT_EQ(committed(), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(OpenTransactionTest, NestedBeginIsRefusedAndTheFirstTransactionStaysOpen)
{
    EXPECT_TRUE(_database.transactionBegin());
    insert("1");
    EXPECT_FALSE(_database.transactionBegin());
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'BEGIN TRANSACTION'",
            "[ERROR] SqlRecordSet.cpp (query) -   rc=1=SQLITE_ERROR: cannot start a transaction within a transaction"));
    EXPECT_TRUE(inTransaction());
    EXPECT_TRUE(_database.transactionCommit());
    EXPECT_EQ(committed(), "1");
}

TEST_F(OpenTransactionTest, CommitWithoutBeginIsRefused)
{
    EXPECT_FALSE(_database.transactionCommit());
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'COMMIT TRANSACTION'",
            "[ERROR] SqlRecordSet.cpp (query) -   rc=1=SQLITE_ERROR: cannot commit - no transaction is active"));
}

TEST_F(OpenTransactionTest, RollbackWithoutBeginIsRefused)
{
    EXPECT_FALSE(_database.transactionRollback());
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'ROLLBACK TRANSACTION'",
            "[ERROR] SqlRecordSet.cpp (query) -   rc=1=SQLITE_ERROR: cannot rollback - no transaction is active"));
}

TEST_F(OpenTransactionTest, CommitThatIsLockedOutIsNotRolledBack)
{
    EXPECT_TRUE(_database.transactionBegin());
    insert("1");
    test::Connection reader(_file);
    reader.run("begin; select count(*) from product");
    const test::SqliteCalls calls;
    EXPECT_FALSE(_database.transactionCommit());
    EXPECT_THAT(calls.order, ElementsAre("exec", "free"));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'COMMIT TRANSACTION'",
            "[ERROR] SqlRecordSet.cpp (query) -   rc=5=SQLITE_BUSY: database is locked"));
    EXPECT_TRUE(inTransaction());
}

TEST_F(OpenTransactionTest, CommitSucceedsOnceTheLockIsGone)
{
    EXPECT_TRUE(_database.transactionBegin());
    insert("1");
    {
        test::Connection reader(_file);
        reader.run("begin; select count(*) from product");
        EXPECT_FALSE(_database.transactionCommit());
    }
    EXPECT_TRUE(_database.transactionCommit());
    EXPECT_EQ(committed(), "1");
}

TEST_F(OpenTransactionTest, ClosingDropsAnOpenTransaction)
{
    EXPECT_TRUE(_database.transactionBegin());
    insert("1");
    _database.close();
    EXPECT_EQ(committed(), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(OpenTransactionTest, BeginsAndEndsAgainAsOftenAsWanted)
{
    EXPECT_TRUE(_database.transactionBegin());
    EXPECT_TRUE(_database.transactionRollback());
    EXPECT_TRUE(_database.transactionBegin());
    insert("1");
    EXPECT_TRUE(_database.transactionCommit());
    EXPECT_EQ(committed(), "1");
}

TEST_F(OpenTransactionTest, StateOfTheDatabaseStays)
{
    sqlite3* const db = _database.getHandle();
    _database.transactionCommit();
    EXPECT_TRUE(_database.isOpen());
    EXPECT_EQ(_database.getHandle(), db);
}

} // namespace
