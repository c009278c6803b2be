#include "SqlPreparedTable.h"

#include "Environment.h"
#include "PreparedTableTest.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using sql::Field;
using sql::flag_none;
using sql::flag_not_null;
using sql::flag_primary_key;
using sql::flag_unique;
using sql::type_bool;
using sql::type_float;
using sql::type_int;
using sql::type_text;
using sql::type_time;
using test::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<Field> declared = {Field("id", type_int, flag_primary_key),
                                     Field("name", type_text, flag_not_null),
                                     Field("price", type_float, flag_none)};

class PreparedTableCheckTest : public PreparedTableTest {
protected:
    // How the file's table, made by this statement, differs from the declaration.
    Texts differences(const std::string& definition, const std::vector<Field>& fields = declared)
    {
        run("drop table if exists shelf; " + definition);
        return differences(fields);
    }

    Texts differences(const std::vector<Field>& fields)
    {
        Declared shelf(_database, fields);
        const sql::Result<std::vector<sql::string>> found = shelf.fast.checkDeclaration();
        EXPECT_TRUE(found) << found.error().text();
        EXPECT_FALSE(shelf.fast.error());
        EXPECT_EQ(shelf.fast.changes(), 0);
        return found.valueOr({"failed"});
    }
};

// --- No difference

TEST_F(PreparedTableCheckTest, TableOfItsOwnHasNone)
{
    const int flags[] = {flag_none, flag_not_null, flag_unique, flag_not_null | flag_unique};
    const sql::field_type types[] = {type_int, type_text, type_float, type_bool, type_time};
    for (const sql::field_type keyType : types) {
        for (const int keyFlags : flags) {
            std::vector<Field> fields;
            for (const sql::field_type type : types) {
                for (const int columnFlags : flags) {
                    const std::string name = "c" + std::to_string(fields.size());
                    fields.emplace_back(name, type, columnFlags);
                }
            }
            fields.emplace(fields.begin() + 7, "key", keyType, flag_primary_key | keyFlags);
            run("drop table if exists shelf");
            ASSERT_TRUE(Declared(_database, fields).table.create());
            EXPECT_THAT(differences(fields), IsEmpty());
            fields.erase(fields.begin() + 7);
            run("drop table shelf");
            ASSERT_TRUE(Declared(_database, fields).table.create());
            EXPECT_THAT(differences(fields), IsEmpty()) << "no key";
        }
    }
}

TEST_F(PreparedTableCheckTest, ColumnOfNoTypeHasNone)
{
    const std::vector<Field> fields = {Field("id", type_int, flag_primary_key),
                                       Field("any", static_cast<sql::field_type>(77), flag_none)};
    run("create table shelf (id INTEGER PRIMARY KEY, any)");
    EXPECT_THAT(differences(fields), IsEmpty());
}

TEST_F(PreparedTableCheckTest, LettersOfEitherCaseAreTheSame)
{
    EXPECT_THAT(differences("create table SHELF (ID Integer primary key, Name text not null,"
                            " pRICE real)"),
                IsEmpty());
}

TEST_F(PreparedTableCheckTest, OrderDefaultsAndOtherConstraintsAreNone)
{
    EXPECT_THAT(differences("create table shelf (price REAL default 2.5 check (price > 0),"
                            " name TEXT NOT NULL collate nocase unique,"
                            " id INTEGER PRIMARY KEY autoincrement)"),
                IsEmpty());
}

TEST_F(PreparedTableCheckTest, KeyOfSeveralColumnsHasNone)
{
    EXPECT_THAT(differences("create table shelf (row INTEGER, place TEXT, name TEXT,"
                            " primary key (place, row))",
                            {Field("row", type_int, flag_primary_key),
                             Field("place", type_text, flag_primary_key),
                             Field("name", type_text, flag_none)}),
                IsEmpty());
}

TEST_F(PreparedTableCheckTest, KeyWithoutARowidHasNone)
{
    EXPECT_THAT(differences("create table shelf (id TEXT PRIMARY KEY, name TEXT) without rowid",
                            {Field("id", type_text, flag_primary_key),
                             Field("name", type_text, flag_none)}),
                IsEmpty());
}

// --- One difference

TEST_F(PreparedTableCheckTest, MissingTable)
{
    EXPECT_THAT(differences(declared), ElementsAre("there is no table shelf"));
    EXPECT_THAT(differences(std::vector<Field>()), ElementsAre("there is no table shelf"));
}

TEST_F(PreparedTableCheckTest, MissingColumn)
{
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY, price REAL)"),
                ElementsAre("column name is missing"));
}

TEST_F(PreparedTableCheckTest, ColumnThatIsNotDeclared)
{
    EXPECT_THAT(differences("create table shelf (stock INTEGER, id INTEGER PRIMARY KEY,"
                            " name TEXT NOT NULL, price REAL, place TEXT)"),
                ElementsAre("column stock is not declared", "column place is not declared"));
}

TEST_F(PreparedTableCheckTest, OtherType)
{
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
                            " price TEXT)"),
                ElementsAre("column price has the type TEXT, declared as REAL"));
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY,"
                            " name varchar(20) NOT NULL, price REAL)"),
                ElementsAre("column name has the type varchar(20), declared as TEXT"));
    EXPECT_THAT(differences("create table shelf (id INT PRIMARY KEY, name TEXT NOT NULL,"
                            " price REAL)"),
                ElementsAre("column id has the type INT, declared as INTEGER"));
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
                            " price)"),
                ElementsAre("column price has no type, declared as REAL"));
}

TEST_F(PreparedTableCheckTest, TimesAndTruthsAreIntegers)
{
    EXPECT_THAT(
        differences("create table shelf (at TEXT, sold BOOLEAN)",
                    {Field("at", type_time, flag_none), Field("sold", type_bool, flag_none)}),
        ElementsAre("column at has the type TEXT, declared as INTEGER",
                    "column sold has the type BOOLEAN, declared as INTEGER"));
}

TEST_F(PreparedTableCheckTest, NullOrNot)
{
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY, name TEXT, price REAL)"),
                ElementsAre("column name may be NULL"));
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
                            " price REAL NOT NULL)"),
                ElementsAre("column price may not be NULL"));
}

TEST_F(PreparedTableCheckTest, NullInTheKey)
{
    const std::vector<Field> texts = {Field("id", type_text, flag_primary_key | flag_not_null)};
    EXPECT_THAT(differences("create table shelf (id TEXT PRIMARY KEY)", texts),
                ElementsAre("column id may be NULL"))
        << "as SQLite has it";
    const std::vector<Field> integers = {Field("id", type_int, flag_primary_key | flag_not_null)};
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY)", integers), IsEmpty())
        << "which is never NULL";
}

TEST_F(PreparedTableCheckTest, KeyOrNot)
{
    EXPECT_THAT(differences("create table shelf (id INTEGER, name TEXT NOT NULL, price REAL)"),
                ElementsAre("column id is no key"));
    EXPECT_THAT(differences("create table shelf (id INTEGER, name TEXT NOT NULL PRIMARY KEY,"
                            " price REAL)"),
                ElementsAre("column id is no key", "column name is a key, which is not declared"));
    EXPECT_THAT(differences("create table shelf (id INTEGER, name TEXT NOT NULL, price REAL,"
                            " primary key (id, name))"),
                ElementsAre("column name is a key, which is not declared"));
}

TEST_F(PreparedTableCheckTest, GeneratedColumn)
{
    if (sqlite3_libversion_number() < 3031000)
        GTEST_SKIP() << "SQLite generates none";
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
                            " price REAL as (id * 2.0))"),
                ElementsAre("column price is generated"));
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
                            " price REAL generated always as (id * 2.0) stored)"),
                ElementsAre("column price is generated"));
    EXPECT_THAT(differences("create table shelf (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
                            " price REAL, tax REAL as (price * 0.2))"),
                ElementsAre("column tax is not declared"));
}

TEST_F(PreparedTableCheckTest, HiddenColumn)
{
    if (sqlite3_libversion_number() < 3026000)
        GTEST_SKIP() << "SQLite tells none";
    const std::string definition = "create virtual table shelf using fts5(name)";
    const auto of = [&](const std::string& hidden) {
        run("drop table if exists shelf; " + definition);
        Declared shelf(_database, {Field(hidden, static_cast<sql::field_type>(77), flag_none)});
        return shelf.fast.checkDeclaration().valueOr({"failed"});
    };
    EXPECT_THAT(of("rank"), testing::Contains("column rank is hidden"));
    EXPECT_THAT(of("name"), IsEmpty());
}

TEST_F(PreparedTableCheckTest, IntegerOfAKeyOfSeveralColumnsMayBeNull)
{
    EXPECT_THAT(differences("create table shelf (a INTEGER, b TEXT, primary key (a, b))",
                            {Field("a", type_int, flag_primary_key | flag_not_null),
                             Field("b", type_text, flag_primary_key)}),
                ElementsAre("column a may be NULL"));
}

// --- Several, in the order of the declaration, then in the file's

TEST_F(PreparedTableCheckTest, AllDifferencesInTheirOrder)
{
    EXPECT_THAT(
        differences(
            "create table shelf (extra TEXT, price INTEGER NOT NULL, more REAL, name BLOB)"),
        ElementsAre("column id is missing", "column name has the type BLOB, declared as TEXT",
                    "column name may be NULL",
                    "column price has the type INTEGER, declared as REAL",
                    "column price may not be NULL", "column extra is not declared",
                    "column more is not declared"));
}

TEST_F(PreparedTableCheckTest, HostileNamesAreNamed)
{
    const std::vector<Field> fields = {Field("a`b", type_text, flag_none),
                                       Field("\"; drop table product; --", type_text, flag_none)};
    EXPECT_THAT(differences("create table shelf (`a``b` TEXT, `c\"d'` TEXT)", fields),
                ElementsAre("column \"; drop table product; -- is missing",
                            "column c\"d' is not declared"));
    Declared odd(_database, declared, "it's `odd`");
    EXPECT_THAT(odd.fast.checkDeclaration().valueOr({"failed"}),
                ElementsAre("there is no table it's `odd`"));
    EXPECT_EQ(products(), "");
}

TEST_F(PreparedTableCheckTest, FollowsTheFile)
{
    EXPECT_THAT(_fast.checkDeclaration().valueOr({"failed"}), IsEmpty());
    run("alter table product add column stock integer");
    EXPECT_THAT(_fast.checkDeclaration().valueOr({"failed"}),
                ElementsAre("column stock is not declared"));
    run("drop table product");
    EXPECT_THAT(_fast.checkDeclaration().valueOr({"failed"}),
                ElementsAre("there is no table product"));
}

TEST_F(PreparedTableCheckTest, FailureIsForgottenByTheNext)
{
    run("drop table product");
    EXPECT_EQ(_fast.hasRecordWithKeyId(7), sql::Presence::unknown);
    expectFailure(_fast, "hasRecordWithKeyId", "1=SQLITE_ERROR: no such table: product");
    EXPECT_TRUE(_fast.checkDeclaration());
    EXPECT_FALSE(_fast.error());
}

TEST_F(PreparedTableCheckTest, InterruptIsAFailure)
{
    const auto interrupt = [](void*) {
        return 1;
    };
    sqlite3_progress_handler(_database.getHandle(), 1, interrupt, nullptr);
    EXPECT_TRUE(_fast.checkDeclaration().failed());
    sqlite3_progress_handler(_database.getHandle(), 0, nullptr, nullptr);
    expectFailure(_fast, "checkDeclaration", "9=SQLITE_INTERRUPT: interrupted");
}

TEST_F(PreparedTableCheckTest, LockedFileIsAFailure)
{
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    test::Connection other(file);
    other.run(test::product_definition);
    other.run("begin exclusive");
    ASSERT_TRUE(_database.open(file, sql::Database::access_read_write, false, 0));
    const sql::Result<std::vector<sql::string>> found = _fast.checkDeclaration();
    EXPECT_TRUE(found.failed());
    expectFailure(_fast, "checkDeclaration", "5=SQLITE_BUSY: database is locked");
    EXPECT_EQ(found.error().text(), _fast.error().text());
}

} // namespace
