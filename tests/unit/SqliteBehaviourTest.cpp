#include "Cases.h"
#include "Environment.h"
#include "Sqlite.h"
#include "Wording.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

// What the library expects of SQLite, and no test of the library shows, asked of SQLite itself: a
// failure here says that the library's texts and results change with the SQLite at hand, not that
// the library is wrong.

namespace {

using testing::ElementsAre;
using testing::Values;
using testing::ValuesIn;
using testing::WithParamInterface;

typedef std::vector<std::string> Rows;

int takeRow(void* rows, int columnCount, char** values, char**)
{
    std::string row;
    for (int i = 0; i < columnCount; ++i)
        row += std::string(i > 0 ? "|" : "") + (values[i] != nullptr ? values[i] : "NULL");
    static_cast<Rows*>(rows)->push_back(row);
    return 0;
}

class SqliteTest : public testing::Test {
protected:
    SqliteTest()
    {
        _db.run("create table product (id INTEGER PRIMARY KEY, name TEXT, price REAL)");
        _db.run("insert into product select 7, 'tea', 1.5 union all select 8, 'milk', 2");
    }

    // The rows that sqlite3_exec() hands to its callback.
    Rows exec(const std::string& sql)
    {
        Rows rows;
        EXPECT_EQ(sqlite3_exec(_db, sql.c_str(), takeRow, &rows, nullptr), SQLITE_OK);
        return rows;
    }

    test::Connection _db;
};

// --- The texts of values, and the rows of conditions

struct Query : test::Case {
    const char* text;
    Rows rows;
};

class QueryTest : public SqliteTest, public WithParamInterface<Query> {};

TEST_P(QueryTest, HasItsRowsInEveryLocale)
{
    EXPECT_EQ(exec(GetParam().text), GetParam().rows);
    const test::CommaLocale locale;
    EXPECT_EQ(exec(GetParam().text), GetParam().rows);
}

const Query value_texts[] = {
    {"Null", "select null", {"NULL"}},
    {"Integer", "select 7", {"7"}},
    {"LowestInteger", "select -9223372036854775807 - 1", {"-9223372036854775808"}},
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

const Query lookups[] = {
    {"DoubleQuotedWordIsAText", "select id from product where name = \"tea\"", {"7"}},
    {"DoubleQuotedNumberIsConvertedAsAWhole", "select id from product where id = \" 7.0 \"", {"7"}},
    {"DoubleQuotedWordIsNoInteger", "select id from product where id = \"7 apples\"", {}},
    {"DoubleQuotedColumnNameInAnyCase", "select id from product where id = \"ID\"", {"7", "8"}},
    {"TableByAnyCase", "select count(*) from Product", {"2"}},
    {"TableInTheCatalogueByItsOwnCase",
     "select count(*) from sqlite_master where type = 'table' and name = 'Product'",
     {"0"}},
};

INSTANTIATE_TEST_SUITE_P(Values, QueryTest, ValuesIn(value_texts), test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(Lookups, QueryTest, ValuesIn(lookups), test::NameOfCase());

TEST_F(SqliteTest, ExecStopsWhenTheCallbackRefusesARow)
{
    Rows rows;
    char* error = nullptr;
    const auto refuse = [](void* taken, int count, char** texts, char** names) {
        return takeRow(taken, count, texts, names) + 1;
    };
    EXPECT_EQ(sqlite3_exec(_db, "select id from product", refuse, &rows, &error), SQLITE_ABORT);
    EXPECT_THAT(rows, ElementsAre("7"));
    EXPECT_EQ(error, test::worded("query aborted"));
    EXPECT_EQ(sqlite3_next_stmt(_db, nullptr), nullptr);
    sqlite3_free(error);
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

TEST_F(SqliteTest, RowAndEndAreNamedByTheErrorTextUntilTheStatementIsFinalized)
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(_db, "select 5", -1, &statement, nullptr);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(sqlite3_errmsg(_db), test::worded("another row available"));
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
    EXPECT_EQ(sqlite3_errmsg(_db), test::worded("no more rows available"));
    sqlite3_finalize(statement);
    EXPECT_STREQ(sqlite3_errmsg(_db), "not an error");
}

// --- Connections

class SqliteFileTest : public testing::Test {
protected:
    ~SqliteFileTest() override
    {
        sqlite3_close(_db);
    }

    int open()
    {
        return sqlite3_open(_file.c_str(), &_db);
    }

    test::TemporaryDirectory _directory;
    std::string _file = _directory.file("product.db");
    sqlite3* _db = nullptr;
};

TEST_F(SqliteFileTest, EmptyFileIsADatabase)
{
    test::writeFile(_file, "");
    EXPECT_EQ(open(), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(_db, "create table product (id)", nullptr, nullptr, nullptr), SQLITE_OK);
}

TEST_F(SqliteFileTest, ConnectionThatDoesNotCloseGoesOnWithItsStatement)
{
    open();
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(_db, "select 5", -1, &statement, nullptr);
    EXPECT_EQ(sqlite3_close(_db), SQLITE_BUSY);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    sqlite3_finalize(statement);
    EXPECT_EQ(sqlite3_close(_db), SQLITE_OK);
    _db = nullptr;
}

#if SQLITE_VERSION_NUMBER >= 3015002 // 3.7.7.1 has no such pragma

TEST_F(SqliteFileTest, NegativeBusyTimeoutIsTakenForNone)
{
    open();
    sqlite3_busy_timeout(_db, 2500);
    EXPECT_EQ(sqlite3_busy_timeout(_db, -1), SQLITE_OK);
    Rows rows;
    sqlite3_exec(_db, "pragma busy_timeout", takeRow, &rows, nullptr);
    EXPECT_THAT(rows, ElementsAre("0"));
}

#endif

TEST_F(SqliteTest, UserVersionIsKeptIn32SignedBits)
{
    _db.run("PRAGMA user_version=2147483648;");
    EXPECT_EQ(_db.rows("PRAGMA user_version;"), "0");
    _db.run("PRAGMA user_version=-2147483648;");
    EXPECT_EQ(_db.rows("PRAGMA user_version;"), "-2147483648");
}

// --- Keys and columns

TEST_F(SqliteTest, IntegerPrimaryKeyTakesNoOtherText)
{
    EXPECT_EQ(
        sqlite3_exec(_db, "insert into product values ('x', 'salt', 1)", nullptr, nullptr, nullptr),
        SQLITE_MISMATCH);
    EXPECT_STREQ(sqlite3_errmsg(_db), "datatype mismatch");
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

TEST_F(SqliteTest, RenamedTableIsKnownByItsNewNameOnly)
{
    _db.run("alter table product rename to goods");
    EXPECT_EQ(_db.rows("select name from sqlite_master where type = 'table'"), "goods");
}

} // namespace
