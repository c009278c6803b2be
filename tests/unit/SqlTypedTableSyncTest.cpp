#include "Environment.h"
#include "TypedTableTest.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

namespace report = test::report;

using sql::TypedTable;
using test::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

struct Part {
    sql::integer id = 0;
    sql::string name;
    sql::integer stock = 0;
    std::optional<double> price;
    std::vector<unsigned char> image;
};

const auto part = sql::mapping<Part>(
    "part", sql::autoKey<&Part::id>("id"),
    sql::column<&Part::name>("name", sql::flag_not_null, sql::indexed),
    sql::column<&Part::stock>("stock", sql::flag_not_null, sql::defaultsTo("0"),
                              sql::check("stock >= 0")),
    sql::column<&Part::price>("price"), sql::column<&Part::image>("image"),
    sql::uniqueOver("name", "price"));

const std::string complete =
    "create table part (id integer primary key, name text not null, stock integer not null,"
    " price real, image blob); create index part_name on part (name);"
    "create unique index part_name_price on part (name, price);";

class TypedSyncTest : public TypedTest {
protected:
    TypedSyncTest() : _parts(_database, part)
    {
    }
    void TearDown() override
    {
        _parts.release();
        TypedTest::TearDown();
    }

    Texts differences()
    {
        return told(_parts.checkDeclaration());
    }
    Texts synced()
    {
        return told(_parts.sync());
    }

    TypedTable<Part, sql::integer> _parts;

private:
    Texts told(const sql::Result<std::vector<sql::string>>& found)
    {
        EXPECT_TRUE(found) << found.error().text();
        EXPECT_FALSE(_parts.error());
        EXPECT_EQ(_parts.changes(), 0);
        return found.valueOr({"failed"});
    }
};

// --- What differs

TEST_F(TypedSyncTest, TableOfItsOwnDoesNotDiffer)
{
    ASSERT_TRUE(_parts.create());
    EXPECT_THAT(differences(), IsEmpty());
    run("drop table part;" + complete);
    EXPECT_THAT(differences(), IsEmpty());
}

TEST_F(TypedSyncTest, TableThatIsMissingIsNamed)
{
    EXPECT_THAT(differences(), ElementsAre("there is no table part"));
}

TEST_F(TypedSyncTest, ColumnsThatDifferAreNamed)
{
    run("create table part (id integer, name, stock text not null, price real not null, size int)");
    EXPECT_THAT(differences(),
                ElementsAre("column id is no key", "column name has no type, declared as TEXT",
                            "column name may be NULL",
                            "column stock has the type TEXT, declared as INTEGER",
                            "column price may not be NULL", "column image is missing",
                            "column size is not declared", "index part_name is missing",
                            "index part_name_price is missing"));
}

TEST_F(TypedSyncTest, IndexesThatDifferAreNamed)
{
    run(complete
        + "drop index part_name; create unique index part_name on part (name);"
          "drop index part_name_price; create unique index part_name_price on part (price, name)");
    EXPECT_THAT(differences(), ElementsAre("index part_name is unique",
                                           "index part_name_price is over `price`, `name`"));
    run("drop index part_name_price; create index part_name_price on part (name, price)");
    EXPECT_THAT(differences(),
                ElementsAre("index part_name is unique", "index part_name_price is not unique"));
}

TEST_F(TypedSyncTest, TablesOfEveryKeyDoNotDiffer)
{
    struct Pair {
        sql::string one;
        int other = 0;
    };
    const auto several = sql::mapping<Pair>("several", sql::key<&Pair::one>("one"),
                                            sql::key<&Pair::other>("other"));
    const auto text = sql::mapping<Pair>("text", sql::key<&Pair::one>("one"),
                                         sql::column<&Pair::other>("other"));
    const auto without = sql::mapping<Pair>("without", sql::key<&Pair::other>("other"),
                                            sql::column<&Pair::one>("one"), sql::without_rowid);
    const auto none = sql::mapping<Pair>("none", sql::column<&Pair::one>("one"));
    const auto expectNone = [](auto&& table) {
        ASSERT_TRUE(table.create());
        const auto found = table.checkDeclaration();
        ASSERT_TRUE(found);
        EXPECT_THAT(*found, IsEmpty());
    };
    expectNone(TypedTable(_database, several));
    expectNone(TypedTable(_database, text));
    expectNone(TypedTable(_database, without));
    expectNone(TypedTable(_database, none));
}

// --- What is added

TEST_F(TypedSyncTest, TableThatIsMissingIsCreated)
{
    EXPECT_THAT(synced(), IsEmpty());
    EXPECT_EQ(rows("select name from sqlite_master order by 1"),
              "part\npart_name\npart_name_price");
}

TEST_F(TypedSyncTest, ColumnsAndIndexesAreAdded)
{
    run("create table part (id integer primary key, name text not null);"
        "insert into part values (7, 'bolt')");
    EXPECT_THAT(synced(), IsEmpty());
    EXPECT_EQ(textOf("part"), "CREATE TABLE part (id integer primary key, name text not null,"
                              " `stock` INTEGER NOT NULL DEFAULT 0 CHECK (stock >= 0),"
                              " `price` REAL, `image` BLOB)");
    EXPECT_EQ(textOf("part_name"), "CREATE INDEX `part_name` on `part` (`name`)");
    EXPECT_EQ(textOf("part_name_price"),
              "CREATE UNIQUE INDEX `part_name_price` on `part` (`name`, `price`)");
    EXPECT_EQ(rows("select * from part"), "7|bolt|0|NULL|NULL");
}

TEST_F(TypedSyncTest, FileThatLacksNothingIsNotWritten)
{
    run(complete + "pragma query_only = on");
    EXPECT_THAT(synced(), IsEmpty());
    run("pragma query_only = off; alter table part add column size");
    run("pragma query_only = on");
    EXPECT_THAT(synced(), ElementsAre("column size is not declared"));
    run("pragma query_only = off");
}

TEST_F(TypedSyncTest, WhatSqliteDoesNotAllowIsNamedAndTheRestAdded)
{
    run("create table part (stock integer not null, price text, size);"
        "insert into part values (1, 'low', 2)");
    EXPECT_THAT(
        synced(),
        ElementsAre("column id is missing: Cannot add a PRIMARY KEY column",
                    "column name is missing: Cannot add a NOT NULL column with default value NULL",
                    "column price has the type TEXT, declared as REAL",
                    "column size is not declared",
                    "index part_name is missing: no such column: name",
                    "index part_name_price is missing: no such column: name"));
    EXPECT_EQ(textOf("part"),
              "CREATE TABLE part (stock integer not null, price text, size, `image` BLOB)");
    EXPECT_EQ(rows("select * from part"), "1|low|2|NULL");
}

TEST_F(TypedSyncTest, IndexThatTheRowsContradictIsNamed)
{
    run(complete
        + "drop index part_name_price; insert into part (name, stock, price) values"
          " ('nut', 1, 2), ('nut', 1, 2)");
    EXPECT_THAT(synced(), ElementsAre("index part_name_price is missing: UNIQUE constraint failed:"
                                      " part.name, part.price"));
    EXPECT_EQ(rows("select count(*) from part"), "2");
}

TEST_F(TypedSyncTest, IsAPartOfTheCallersTransaction)
{
    run("begin");
    EXPECT_THAT(synced(), IsEmpty());
    run("rollback");
    EXPECT_THAT(differences(), ElementsAre("there is no table part"));
}

TEST_F(TypedSyncTest, FailureAddsNothing)
{
    run("create table part (id integer primary key, name text not null)");
    run("pragma query_only = on");
    const sql::Result<std::vector<sql::string>> found = _parts.sync();
    EXPECT_TRUE(found.failed());
    expectFailure(found.error(), "begin",
                  "8=SQLITE_READONLY: attempt to write a readonly database");
    run("pragma query_only = off");
    EXPECT_EQ(textOf("part"), "CREATE TABLE part (id integer primary key, name text not null)");
}

TEST_F(TypedSyncTest, FailureOfAnAdditionIsThatOfTheWhole)
{
    run("create table part (id integer primary key, name text not null)");
    run("begin; pragma query_only = on");
    const sql::Result<std::vector<sql::string>> found = _parts.sync();
    EXPECT_TRUE(found.failed());
    expectFailure(found.error(), "sync", "8=SQLITE_READONLY: attempt to write a readonly database");
    EXPECT_EQ(
        found.error().statement(),
        "alter table `part` add column `stock` INTEGER NOT NULL DEFAULT 0 CHECK (stock >= 0)");
    run("pragma query_only = off; rollback");
}

TEST_F(TypedSyncTest, EachStatementIsTracedAsItsOwn)
{
    for (const char* const before :
         {"", "create table part (id integer primary key, name text not null)"}) {
        run(std::string("drop table if exists part;") + before);
        _diagnostics.setLevel(8);
        EXPECT_TRUE(_parts.sync());
        _diagnostics.setLevel(3);
        for (const std::string& line : _diagnostics.take())
            EXPECT_THAT(line, testing::ContainsRegex("\\((sync|begin|commit)\\) - stmt="));
    }
}

TEST_F(TypedSyncTest, ClosedDatabaseIsAFailure)
{
    const std::string not_open = "21=SQLITE_MISUSE: the database is not open";
    _database.close();
    EXPECT_TRUE(_parts.checkDeclaration().failed());
    expectFailure(_parts, "checkDeclaration", not_open);
    EXPECT_TRUE(_parts.sync().failed());
    expectFailure(_parts, "sync", not_open);
}

} // namespace
