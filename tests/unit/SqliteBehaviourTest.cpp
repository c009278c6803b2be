#include "Cases.h"
#include "Environment.h"
#include "Sqlite.h"
#include "Wording.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

// What the library expects of SQLite, asked of SQLite itself: a failure here says that the
// library's texts and results change with the SQLite at hand, not that the library is wrong.

namespace {

using testing::ElementsAre;
using testing::Values;
using testing::ValuesIn;
using testing::WithParamInterface;

// What sqlite3_exec() hands to its callback.
int takeRow(void* context, int columnCount, char** values, char**)
{
    std::string row;
    for (int i = 0; i < columnCount; ++i) {
        if (i > 0)
            row += "|";
        row += values == nullptr ? "none" : values[i] != nullptr ? values[i] : "NULL";
    }
    static_cast<std::vector<std::string>*>(context)->push_back(row);
    return 0;
}

class SqliteTest : public testing::Test {
protected:
    SqliteTest()
    {
        _db.run("create table product (id INTEGER PRIMARY KEY, name TEXT, price REAL)");
        _db.run("insert into product select 7, 'tea', 1.5 union all select 8, 'milk', 2");
    }

    // The result code; what SQLite says is left in _error, "-" for no text.
    int exec(const std::string& sql, sqlite3_callback callback = takeRow)
    {
        char* error = nullptr;
        const int rc = sqlite3_exec(_db, sql.c_str(), callback, &_rows, &error);
        _error = error != nullptr ? error : "-";
        sqlite3_free(error);
        return rc;
    }

    test::Connection _db;
    std::vector<std::string> _rows;
    std::string _error;
};

// --- Statements run with a row callback

struct Exec : test::Case {
    std::string statement;
    std::vector<std::string> rows;
    int rc = SQLITE_OK;
    const char* error = "-";
    const char* left = "7,8"; // the keys in the table afterwards
};

class ExecTest : public SqliteTest, public WithParamInterface<Exec> {};

TEST_P(ExecTest, GivesItsRowsItsResultAndItsText)
{
    EXPECT_EQ(exec(GetParam().statement), GetParam().rc);
    EXPECT_EQ(_rows, GetParam().rows);
    EXPECT_EQ(_error, test::worded(GetParam().error));
    EXPECT_EQ(_db.rows("select group_concat(id) from product"), GetParam().left);
}

const Exec execs[] = {
    {"EveryRow", "select * from product order by id", {"7|tea|1.5", "8|milk|2.0"}},
    {"RowsBeforeAFailure",
     "select abs(i) from (select -1 as i union all select -9223372036854775807 - 1)",
     {"1"},
     SQLITE_ERROR,
     "integer overflow"},
    {"EmptyResult", "select id from product where 0", {}},
    {"EmptyResultsAnnouncedWithoutValues",
     "pragma empty_result_callbacks = 1; select id, name from product where 0",
     {"", "none|none"}},
    {"AllStatementsOfAText",
     "delete from product where id = 7; select id from product",
     {"8"},
     SQLITE_OK,
     "-",
     "8"},
    {"StopsAtTheFirstStatementThatFails",
     "delete from product where id = 7; delete from nowhere; delete from product",
     {},
     SQLITE_ERROR,
     "no such table: nowhere",
     "8"},
    {"EmptyText", "", {}},
    {"TextUpToAZeroByte", std::string("select 5\0 nonsense", 18), {"5"}},
    {"UpdateOfNoRow", "update product set name='salt' where id = 9", {}},
    {"DeleteOfNoRow", "delete from product where id = 9", {}},
};

const Exec value_texts[] = {
    {"Null", "select null", {"NULL"}},
    {"Integer", "select 7", {"7"}},
    {"LowestInteger", "select -9223372036854775807 - 1", {"-9223372036854775808"}},
    {"Text", "select 'tea'", {"tea"}},
    {"EmptyText", "select ''", {""}},
    {"DoubledQuote", "select 'O''Brien'", {"O'Brien"}},
    {"OtherBytes", "select '\"\\\x80\xff'", {"\"\\\x80\xff"}},
    {"TextEndsAtAZeroByte", "select cast(x'610062' as text)", {"a"}},
    {"Bool", "select 1 = 1", {"1"}},
    {"RealThatIsWhole", "select 2.0", {"2.0"}},
    {"Real", "select 1.50000000", {"1.5"}},
    {"RealOf15Digits", "select 1.0 / 3", {"0.333333333333333"}},
    {"LargeReal", "select 1e100", {"1.0e+100"}},
};

const Exec lookups[] = {
    {"Integer", "select id from product where id = 7", {"7"}},
    {"DoubleQuotedWordIsAText", "select id from product where name = \"tea\"", {"7"}},
    {"DoubleQuotedNumberFindsTheInteger", "select id from product where id = \"7\"", {"7"}},
    {"DoubleQuotedNumberIsConvertedAsAWhole", "select id from product where id = \" 7.0 \"", {"7"}},
    {"DoubleQuotedWordIsNoInteger", "select id from product where id = \"7 apples\"", {}},
    {"DoubleQuotedColumnNameIsTheColumn", "select id from product where id = \"id\"", {"7", "8"}},
    {"DoubleQuotedColumnNameInAnyCase", "select id from product where id = \"ID\"", {"7", "8"}},
    {"EmptyDoubleQuotedWord", "select id from product where name = \"\"", {}},
};

const Exec refusals[] = {
    {"DuplicateKey",
     "insert into product values (7, 'salt', 1)",
     {},
     SQLITE_CONSTRAINT,
     "UNIQUE constraint failed: product.id"},
    {"KeyThatIsNoInteger",
     "insert into product values ('x', 'salt', 1)",
     {},
     SQLITE_MISMATCH,
     "datatype mismatch"},
    {"CommaBeforeWhere",
     "update product set name='salt',  where id = 7",
     {},
     SQLITE_ERROR,
     "near \"where\": syntax error"},
    {"QuoteInADoubleQuotedWord",
     "select id from product where name = \"a\"b\"",
     {},
     SQLITE_ERROR,
     "near \"b\": syntax error"},
    {"MissingTable", "drop table nowhere", {}, SQLITE_ERROR, "no such table: nowhere"},
    {"ExistingTable",
     "CREATE TABLE product (id INTEGER)",
     {},
     SQLITE_ERROR,
     "table product already exists"},
    {"MissingColumn",
     "delete from product where color = 1",
     {},
     SQLITE_ERROR,
     "no such column: color"},
    {"NestedBegin",
     "BEGIN TRANSACTION; BEGIN TRANSACTION",
     {},
     SQLITE_ERROR,
     "cannot start a transaction within a transaction"},
    {"CommitWithoutBegin",
     "COMMIT TRANSACTION",
     {},
     SQLITE_ERROR,
     "cannot commit - no transaction is active"},
    {"RollbackWithoutBegin",
     "ROLLBACK TRANSACTION",
     {},
     SQLITE_ERROR,
     "cannot rollback - no transaction is active"},
};

INSTANTIATE_TEST_SUITE_P(Statements, ExecTest, ValuesIn(execs), test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(Values, ExecTest, ValuesIn(value_texts), test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(Keys, ExecTest, ValuesIn(lookups), test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(Refusals, ExecTest, ValuesIn(refusals), test::NameOfCase());

TEST_F(SqliteTest, TextsOfValuesDoNotDependOnTheLocale)
{
    const test::CommaLocale locale;
    for (const Exec& value : value_texts) {
        _rows.clear();
        exec(value.statement);
        EXPECT_EQ(_rows, value.rows) << value.statement;
    }
}

TEST_F(SqliteTest, ExecStopsWhenTheCallbackRefusesARow)
{
    const auto refuseAfterOne = [](void* rows, int count, char** values, char** names) {
        return takeRow(rows, count, values, names) + 1;
    };
    EXPECT_EQ(exec("select id from product order by id", refuseAfterOne), SQLITE_ABORT);
    EXPECT_THAT(_rows, ElementsAre("7"));
    EXPECT_EQ(_error, test::worded("query aborted"));
    EXPECT_EQ(sqlite3_next_stmt(_db, nullptr), nullptr);
}

TEST_F(SqliteTest, RefusedBeginLeavesTheFirstTransactionOpen)
{
    exec("BEGIN TRANSACTION; BEGIN TRANSACTION");
    EXPECT_EQ(sqlite3_get_autocommit(_db), 0);
}

// --- Single steps

class NoStatementTest : public SqliteTest, public WithParamInterface<const char*> {};

TEST_P(NoStatementTest, PreparesToNullWhichCannotBeStepped)
{
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(_db, GetParam(), -1, &statement, nullptr), SQLITE_OK);
    EXPECT_EQ(statement, nullptr);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_MISUSE);
    EXPECT_STREQ(sqlite3_errmsg(_db), "not an error");
    EXPECT_EQ(sqlite3_column_count(statement), 0);
    EXPECT_EQ(sqlite3_finalize(statement), SQLITE_OK);
}

INSTANTIATE_TEST_SUITE_P(Texts, NoStatementTest, Values("", "  \n", "-- comment", ";", "/* */"));

// A statement of the test's own.
class StepTest : public SqliteTest {
protected:
    ~StepTest() override
    {
        sqlite3_finalize(_statement);
    }

    int step(const std::string& sql)
    {
        sqlite3_prepare_v2(_db, sql.c_str(), -1, &_statement, nullptr);
        return sqlite3_step(_statement);
    }

    void finalize()
    {
        sqlite3_finalize(_statement);
        _statement = nullptr;
    }

    sqlite3_stmt* _statement = nullptr;
};

TEST_F(StepTest, TextThatCannotBePreparedGivesNoStatement)
{
    EXPECT_EQ(sqlite3_prepare_v2(_db, "selec", -1, &_statement, nullptr), SQLITE_ERROR);
    EXPECT_EQ(_statement, nullptr);
    EXPECT_STREQ(sqlite3_errmsg(_db), "near \"selec\": syntax error");
}

TEST_F(StepTest, OnlyTheFirstStatementIsPrepared)
{
    EXPECT_EQ(step("select 5; nonsense"), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(_statement, 0), 5);
}

TEST_F(StepTest, RowIsNamedByTheErrorTextUntilTheStatementIsFinalized)
{
    EXPECT_EQ(step("select 5"), SQLITE_ROW);
    EXPECT_STREQ(sqlite3_errmsg(_db), test::worded("another row available").c_str());
    finalize();
    EXPECT_STREQ(sqlite3_errmsg(_db), "not an error");
}

TEST_F(StepTest, EndIsNamedByTheErrorTextUntilTheStatementIsFinalized)
{
    EXPECT_EQ(step("select 5 where 0"), SQLITE_DONE);
    EXPECT_STREQ(sqlite3_errmsg(_db), test::worded("no more rows available").c_str());
    finalize();
    EXPECT_STREQ(sqlite3_errmsg(_db), "not an error");
}

TEST_F(StepTest, ErrorTextOfAFailedStepOutlivesItsStatement)
{
    EXPECT_EQ(step("select abs(-9223372036854775807 - 1)"), SQLITE_ERROR);
    finalize();
    EXPECT_STREQ(sqlite3_errmsg(_db), "integer overflow");
}

TEST(SqliteErrorTextTest, OfNoConnectionIsThatForNoMemory)
{
    EXPECT_STREQ(sqlite3_errmsg(nullptr), "out of memory");
}

struct IntRead : test::Case {
    const char* expression;
    int number;
};

class IntReadTest : public StepTest, public WithParamInterface<IntRead> {};

TEST_P(IntReadTest, IsConvertedAndNarrowedTo32Bits)
{
    EXPECT_EQ(step(std::string("select ") + GetParam().expression), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(_statement, 0), GetParam().number);
}

const IntRead int_reads[] = {
    {"Highest", "2147483647", 2147483647},
    {"AboveTheHighest", "2147483648", -2147483647 - 1},
    {"LowerBitsOnly", "4294967301", 5},
    {"Null", "null", 0},
    {"Text", "'7 apples'", 7},
    {"TextWithoutDigits", "'tea'", 0},
    {"Real", "-2.9", -2},
};

INSTANTIATE_TEST_SUITE_P(All, IntReadTest, ValuesIn(int_reads), test::NameOfCase());

// --- Connections

class SqliteFileTest : public testing::Test {
protected:
    SqliteFileTest() : _file(_directory.file("product.db"))
    {
    }

    ~SqliteFileTest() override
    {
        sqlite3_close(_db);
    }

    int open(int flags)
    {
        return sqlite3_open_v2(_file.c_str(), &_db, flags, nullptr);
    }

    int exec(const char* sql)
    {
        return sqlite3_exec(_db, sql, nullptr, nullptr, nullptr);
    }

    test::TemporaryDirectory _directory;
    std::string _file;
    sqlite3* _db = nullptr;
};

TEST_F(SqliteFileTest, MissingFileGivesAHandleThatKnowsTheError)
{
    for (const int flags : {SQLITE_OPEN_READONLY, SQLITE_OPEN_READWRITE}) {
        EXPECT_EQ(open(flags), SQLITE_CANTOPEN);
        EXPECT_NE(_db, nullptr);
        EXPECT_STREQ(sqlite3_errmsg(_db), "unable to open database file");
        sqlite3_close(_db);
    }
    _db = nullptr;
}

TEST_F(SqliteFileTest, FlagsZeroAreRefused)
{
    EXPECT_EQ(open(0), SQLITE_MISUSE);
    EXPECT_EQ(std::string("SQLITE_MISUSE: ") + sqlite3_errmsg(_db),
              test::worded("SQLITE_MISUSE: bad parameter or other API misuse"));
}

TEST_F(SqliteFileTest, FileThatIsNoDatabaseFailsWithTheFirstStatement)
{
    test::writeFile(_file, std::string(2000, 'x'));
    EXPECT_EQ(open(SQLITE_OPEN_READWRITE), SQLITE_OK);
    EXPECT_EQ(exec("select count(*) from sqlite_master"), SQLITE_NOTADB);
    EXPECT_STREQ(sqlite3_errmsg(_db), test::worded("file is not a database").c_str());
}

TEST_F(SqliteFileTest, EmptyFileIsADatabase)
{
    test::writeFile(_file, "");
    EXPECT_EQ(open(SQLITE_OPEN_READWRITE), SQLITE_OK);
    EXPECT_EQ(exec("create table product (id integer)"), SQLITE_OK);
}

TEST_F(SqliteFileTest, ReadOnlyConnectionRefusesWrites)
{
    test::Connection(_file).run("create table product (id integer)");
    EXPECT_EQ(open(SQLITE_OPEN_READONLY), SQLITE_OK);
    EXPECT_EQ(exec("delete from product"), SQLITE_READONLY);
    EXPECT_STREQ(sqlite3_errmsg(_db), "attempt to write a readonly database");
}

TEST_F(SqliteFileTest, ConnectionWithAnUnfinishedStatementDoesNotClose)
{
    open(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(_db, "select 5", -1, &statement, nullptr);
    EXPECT_EQ(sqlite3_close(_db), SQLITE_BUSY);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    sqlite3_finalize(statement);
    EXPECT_EQ(sqlite3_close(_db), SQLITE_OK);
    _db = nullptr;
}

TEST_F(SqliteFileTest, ClosingRollsAnOpenTransactionBack)
{
    open(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    EXPECT_EQ(exec("begin; create table product (id integer)"), SQLITE_OK);
    EXPECT_EQ(sqlite3_close(_db), SQLITE_OK);
    _db = nullptr;
    EXPECT_EQ(test::Connection(_file).rows("select name from sqlite_master"), "");
}

TEST_F(SqliteFileTest, LockedFileIsBusyWithoutABusyTimeout)
{
    open(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    EXPECT_EQ(sqlite3_busy_timeout(_db, 0), SQLITE_OK);
    test::Connection other(_file);
    other.run("begin exclusive");
    EXPECT_EQ(exec("create table product (id integer)"), SQLITE_BUSY);
    EXPECT_STREQ(sqlite3_errmsg(_db), "database is locked");
}

#if SQLITE_VERSION_NUMBER >= 3015002 // 3.7.7.1 has no such pragma

TEST_F(SqliteFileTest, NegativeBusyTimeoutIsTakenForNone)
{
    open(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    sqlite3_busy_timeout(_db, 2500);
    EXPECT_EQ(sqlite3_busy_timeout(_db, -1), SQLITE_OK);
    std::vector<std::string> rows;
    sqlite3_exec(_db, "pragma busy_timeout", takeRow, &rows, nullptr);
    EXPECT_THAT(rows, ElementsAre("0"));
}

#endif

struct UserVersion : test::Case {
    const char* given;
    const char* kept;
};

class UserVersionTest : public SqliteTest, public WithParamInterface<UserVersion> {};

TEST_P(UserVersionTest, IsKeptIn32SignedBits)
{
    _db.run(std::string("PRAGMA user_version=") + GetParam().given + ";");
    EXPECT_EQ(_db.rows("PRAGMA user_version;"), GetParam().kept);
}

const UserVersion user_versions[] = {
    {"Zero", "0", "0"},
    {"Highest", "2147483647", "2147483647"},
    {"TooHighIsZero", "2147483648", "0"},
    {"Negative", "-7", "-7"},
    {"Lowest", "-2147483648", "-2147483648"},
};

INSTANTIATE_TEST_SUITE_P(All, UserVersionTest, ValuesIn(user_versions), test::NameOfCase());

// --- Keys and names

TEST_F(SqliteTest, IntegerPrimaryKeyIsAssignedForNull)
{
    _db.run("insert into product (id, name, price) values (null, 'salt', null)");
    EXPECT_EQ(_db.rows("select id from product where name = 'salt'"), "9");
}

TEST_F(SqliteTest, TextPrimaryKeyStaysNull)
{
    _db.run("create table code (code TEXT PRIMARY KEY)");
    _db.run("insert into code select null union all select null");
    EXPECT_EQ(_db.rows("select count(*) from code where code is null"), "2");
}

TEST_F(SqliteTest, ColumnTypesConvertWhatIsStored)
{
    _db.run("insert into product values ('9', 5, '3')");
    EXPECT_EQ(_db.rows("select typeof(id), typeof(name), typeof(price) from product where id = 9"),
              "integer|text|real");
}

TEST_F(SqliteTest, AllColumnsComeInTheOrderOfTheirDeclaration)
{
    _db.run("alter table product add column sold INTEGER");
    EXPECT_EQ(_db.rows("select * from product where id = 7"), "7|tea|1.5|NULL");
}

TEST_F(SqliteTest, CatalogueKnowsATableByTheExactCaseOnly)
{
    EXPECT_EQ(
        _db.rows("select count(*) from sqlite_master where type = 'table' and name = 'product'"),
        "1");
    EXPECT_EQ(
        _db.rows("select count(*) from sqlite_master where type = 'table' and name = 'Product'"),
        "0");
    EXPECT_EQ(_db.rows("select count(*) from Product"), "2");
}

TEST_F(SqliteTest, RenamedTableIsKnownByItsNewNameOnly)
{
    _db.run("alter table product rename to goods");
    EXPECT_EQ(_db.rows("select name from sqlite_master where type = 'table'"), "goods");
}

} // namespace
