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
using testing::IsEmpty;
using testing::Values;
using testing::ValuesIn;
using testing::WithParamInterface;

// The rows that sqlite3_exec() hands to its callback.
struct Rows {
    std::vector<std::string> texts;
    std::size_t refusedFrom = 1000; // the callback refuses the row at this position
};

int takeRow(void* context, int columnCount, char** values, char**)
{
    Rows& rows = *static_cast<Rows*>(context);
    if (rows.texts.size() >= rows.refusedFrom)
        return 1;
    std::string row;
    for (int i = 0; i < columnCount; ++i) {
        if (i > 0)
            row += "|";
        row += values == nullptr ? "none" : values[i] != nullptr ? values[i] : "NULL";
    }
    rows.texts.push_back(row);
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
    int exec(const std::string& sql)
    {
        char* error = nullptr;
        const int rc = sqlite3_exec(_db, sql.c_str(), takeRow, &_rows, &error);
        _error = error != nullptr ? error : "-";
        sqlite3_free(error);
        return rc;
    }

    test::Connection _db;
    Rows _rows;
    std::string _error;
};

// --- Statements run with a row callback

TEST_F(SqliteTest, ExecDeliversEveryRowAndNoErrorText)
{
    EXPECT_EQ(exec("select * from product order by id"), SQLITE_OK);
    EXPECT_THAT(_rows.texts, ElementsAre("7|tea|1.5", "8|milk|2.0"));
    EXPECT_EQ(_error, "-");
}

TEST_F(SqliteTest, ExecStopsWhenTheCallbackRefusesARow)
{
    _rows.refusedFrom = 1;
    EXPECT_EQ(exec("select id from product order by id"), SQLITE_ABORT);
    EXPECT_THAT(_rows.texts, ElementsAre("7"));
    EXPECT_EQ(_error, test::worded("query aborted"));
    EXPECT_EQ(sqlite3_next_stmt(_db, nullptr), nullptr);
}

TEST_F(SqliteTest, ExecHasDeliveredTheRowsBeforeAFailure)
{
    EXPECT_EQ(exec("select abs(i) from (select -1 as i union all select -9223372036854775807 - 1)"),
              SQLITE_ERROR);
    EXPECT_THAT(_rows.texts, ElementsAre("1"));
    EXPECT_EQ(_error, "integer overflow");
}

TEST_F(SqliteTest, ExecDeliversNoRowOfAnEmptyResult)
{
    EXPECT_EQ(exec("select id from product where 0"), SQLITE_OK);
    EXPECT_THAT(_rows.texts, IsEmpty());
}

TEST_F(SqliteTest, ExecAnnouncesAnEmptyResultWithoutValuesWhenToldTo)
{
    _db.run("pragma empty_result_callbacks = 1");
    EXPECT_EQ(exec("select id, name from product where 0"), SQLITE_OK);
    EXPECT_THAT(_rows.texts, ElementsAre("none|none"));
}

TEST_F(SqliteTest, ExecRunsAllStatementsOfAText)
{
    EXPECT_EQ(exec("delete from product where id = 7; select id from product"), SQLITE_OK);
    EXPECT_THAT(_rows.texts, ElementsAre("8"));
}

TEST_F(SqliteTest, ExecStopsAtTheFirstStatementThatFails)
{
    EXPECT_EQ(exec("delete from product where id = 7; delete from nowhere; delete from product"),
              SQLITE_ERROR);
    EXPECT_EQ(_error, "no such table: nowhere");
    EXPECT_EQ(_db.rows("select id from product"), "8");
}

TEST_F(SqliteTest, ExecOfAnEmptyTextSucceeds)
{
    EXPECT_EQ(exec(""), SQLITE_OK);
    EXPECT_EQ(_error, "-");
}

TEST_F(SqliteTest, ExecEndsAtAZeroByte)
{
    EXPECT_EQ(exec(std::string("select 5\0 nonsense", 18)), SQLITE_OK);
    EXPECT_THAT(_rows.texts, ElementsAre("5"));
}

// --- The texts of values

struct ValueText : test::Case {
    const char* expression;
    const char* text;
};

class ValueTextTest : public SqliteTest, public WithParamInterface<ValueText> {};

TEST_P(ValueTextTest, IsDeliveredToTheCallbackAlikeInEveryLocale)
{
    const std::string query = std::string("select ") + GetParam().expression;
    EXPECT_EQ(exec(query), SQLITE_OK);
    const test::CommaLocale locale;
    EXPECT_EQ(exec(query), SQLITE_OK);
    EXPECT_THAT(_rows.texts, ElementsAre(GetParam().text, GetParam().text));
}

const ValueText value_texts[] = {
    {"Null", "null", "NULL"},
    {"Integer", "7", "7"},
    {"LowestInteger", "-9223372036854775807 - 1", "-9223372036854775808"},
    {"Text", "'tea'", "tea"},
    {"EmptyText", "''", ""},
    {"DoubledQuote", "'O''Brien'", "O'Brien"},
    {"OtherBytes", "'\"\\\x80\xff'", "\"\\\x80\xff"},
    {"TextEndsAtAZeroByte", "cast(x'610062' as text)", "a"},
    {"Bool", "1 = 1", "1"},
    {"RealThatIsWhole", "2.0", "2.0"},
    {"Real", "1.50000000", "1.5"},
    {"RealOf15Digits", "1.0 / 3", "0.333333333333333"},
    {"LargeReal", "1e100", "1.0e+100"},
};

INSTANTIATE_TEST_SUITE_P(All, ValueTextTest, ValuesIn(value_texts), test::NameOfCase());

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
    Rows rows;
    sqlite3_exec(_db, "pragma busy_timeout", takeRow, &rows, nullptr);
    EXPECT_THAT(rows.texts, ElementsAre("0"));
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

struct Lookup : test::Case {
    const char* condition;
    std::vector<std::string> ids;
};

class LookupTest : public SqliteTest, public WithParamInterface<Lookup> {};

TEST_P(LookupTest, FindsItsRows)
{
    EXPECT_EQ(
        exec(std::string("select id from product where ") + GetParam().condition + " order by id"),
        SQLITE_OK);
    EXPECT_EQ(_rows.texts, GetParam().ids);
}

const Lookup lookups[] = {
    {"Integer", "id = 7", {"7"}},
    {"DoubleQuotedWordIsAText", "name = \"tea\"", {"7"}},
    {"DoubleQuotedNumberFindsTheInteger", "id = \"7\"", {"7"}},
    {"DoubleQuotedNumberIsConvertedAsAWhole", "id = \" 7.0 \"", {"7"}},
    {"DoubleQuotedWordIsNoInteger", "id = \"7 apples\"", {}},
    {"DoubleQuotedColumnNameIsTheColumn", "id = \"id\"", {"7", "8"}},
    {"DoubleQuotedColumnNameInAnyCase", "id = \"ID\"", {"7", "8"}},
    {"EmptyDoubleQuotedWord", "name = \"\"", {}},
};

INSTANTIATE_TEST_SUITE_P(All, LookupTest, ValuesIn(lookups), test::NameOfCase());

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

TEST_F(SqliteTest, WriteOfNoRowSucceeds)
{
    EXPECT_EQ(exec("update product set name='salt' where id = 9"), SQLITE_OK);
    EXPECT_EQ(exec("delete from product where id = 9"), SQLITE_OK);
    EXPECT_EQ(_db.rows("select count(*) from product where name <> 'salt'"), "2");
}

// --- Refusals

struct Refusal : test::Case {
    const char* statement;
    int rc;
    const char* error;
};

class RefusalTest : public SqliteTest, public WithParamInterface<Refusal> {};

TEST_P(RefusalTest, HasItsResultCodeAndText)
{
    EXPECT_EQ(exec(GetParam().statement), GetParam().rc);
    EXPECT_EQ(_error, test::worded(GetParam().error));
    EXPECT_EQ(_db.rows("select id from product order by id"), "7\n8");
}

const Refusal refusals[] = {
    {"DuplicateKey", "insert into product values (7, 'salt', 1)", SQLITE_CONSTRAINT,
     "UNIQUE constraint failed: product.id"},
    {"KeyThatIsNoInteger", "insert into product values ('x', 'salt', 1)", SQLITE_MISMATCH,
     "datatype mismatch"},
    {"CommaBeforeWhere", "update product set name='salt',  where id = 7", SQLITE_ERROR,
     "near \"where\": syntax error"},
    {"QuoteInADoubleQuotedWord", "select id from product where name = \"a\"b\"", SQLITE_ERROR,
     "near \"b\": syntax error"},
    {"MissingTable", "drop table nowhere", SQLITE_ERROR, "no such table: nowhere"},
    {"ExistingTable", "CREATE TABLE product (id INTEGER)", SQLITE_ERROR,
     "table product already exists"},
    {"MissingColumn", "delete from product where color = 1", SQLITE_ERROR, "no such column: color"},
    {"NestedBegin", "BEGIN TRANSACTION; BEGIN TRANSACTION", SQLITE_ERROR,
     "cannot start a transaction within a transaction"},
    {"CommitWithoutBegin", "COMMIT TRANSACTION", SQLITE_ERROR,
     "cannot commit - no transaction is active"},
    {"RollbackWithoutBegin", "ROLLBACK TRANSACTION", SQLITE_ERROR,
     "cannot rollback - no transaction is active"},
};

INSTANTIATE_TEST_SUITE_P(All, RefusalTest, ValuesIn(refusals), test::NameOfCase());

TEST_F(SqliteTest, RefusedBeginLeavesTheFirstTransactionOpen)
{
    exec("BEGIN TRANSACTION; BEGIN TRANSACTION");
    EXPECT_EQ(sqlite3_get_autocommit(_db), 0);
}

} // namespace
