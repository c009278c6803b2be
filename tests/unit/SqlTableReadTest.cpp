#include "SqlTable.h"

#include "ProductTest.h"

#include <gmock/gmock.h>

#include <string>

// What a table reads: the rows held, and the keys they are found by.

namespace {

namespace report = test::report;

using sql::Field;
using sql::Table;
using test::held;
using test::joined;
using test::product;
using test::products;
using testing::ElementsAre;

class TableReadTest : public test::ProductTest {};

const Field two_key_columns[] = {
    Field("name", sql::type_text, sql::flag_none),
    Field("first", sql::type_int, sql::flag_primary_key),
    Field("second", sql::type_int, sql::flag_primary_key),
    Field(),
};

TEST_F(TableReadTest, RowsHeldAreTypedAfterTheColumns)
{
    _table.open("id = 2");
    EXPECT_EQ(_table.getTopRecord()->dump(true),
              "id = 2 (integer)|name = coffee (text)|price = 4.5 (float)");
    EXPECT_EQ(_table.getTopRecord()->fields(), _table.fields());
}

TEST_F(TableReadTest, QueryFillsColumnsByPosition)
{
    EXPECT_TRUE(_table.query("select price, id from product where id = 2"));
    EXPECT_EQ(_table.getTopRecord()->dump(true),
              "id = 4.5 (integer)|name = 2 (text)|price = null (float)");
}

TEST_F(TableReadTest, LoadThatFailsOnTheWayKeepsTheRowsDelivered)
{
    _table.open("id = 3");
    const std::string condition = "abs(case id when 3 then -9223372036854775808 else id end) > 0";
    EXPECT_FALSE(_table.open(condition));
    EXPECT_THAT(held(_table), ElementsAre("1|tea|2.5", "2|coffee|4.5"));
    EXPECT_EQ(_table.getTopRecord(), _table.getRecord(0));
    expectReport(report::refused("select * from product where " + condition,
                                 "1=SQLITE_ERROR: integer overflow"));
}

TEST_F(TableReadTest, KeyLookupThatFailsOnTheWayIsNullAndKeepsTheRowsDelivered)
{
    _db.run(
        "create table log (id INTEGER, name TEXT, price REAL);"
        "insert into log select 7, 'first', 1 union all select 7, 'second', -9223372036854775808;"
        "create view checked as select id, name, abs(cast(price as integer)) from log");
    Table table(_db, "checked", test::product_columns);
    EXPECT_EQ(table.getRecordByKeyId(7), nullptr);
    EXPECT_THAT(held(table), ElementsAre("7|first|1"));
    table.query("select 1");
    EXPECT_EQ(table.getRecordByKeyId("7"), nullptr);
    EXPECT_THAT(held(table), ElementsAre("7|first|1"));
    const char overflow[] = "1=SQLITE_ERROR: integer overflow";
    expectReport(joined({report::refused("select * from checked where id = 7", overflow),
                         report::refused("select * from checked where id = \"7\"", overflow)}));
}

TEST_F(TableReadTest, StringKeyIsNotEscapedDeliberately)
{
    const std::string key = "x\" or \"1\" = \"1";
    const test::Statements statements(_db);
    EXPECT_NE(_table.getRecordByKeyId(key), nullptr);
    EXPECT_EQ(held(_table), test::all_held);
    EXPECT_TRUE(_table.hasRecordWithKeyId(key));
    EXPECT_TRUE(_table.deleteRecord(key));
    EXPECT_THAT(statements.texts(),
                ElementsAre("select * from product where id = \"x\" or \"1\" = \"1\"",
                            "select count(*) from product where id = \"x\" or \"1\" = \"1\"",
                            "delete from product where id = \"x\" or \"1\" = \"1\""));
    EXPECT_EQ(products(_db), "");
}

TEST_F(TableReadTest, StringKeyThatNamesAColumnIsThatColumnDeliberately)
{
    _db.run("update product set name = id where id = 2");
    EXPECT_NE(_table.getRecordByKeyId("name"), nullptr);
    EXPECT_THAT(held(_table), ElementsAre("2|2|4.5"));
}

TEST_F(TableReadTest, StringKeyMayContainSingleQuotesUtf8AndBlanks)
{
    _db.run(
        "create table label (code TEXT PRIMARY KEY, name TEXT);"
        "insert into label select ' O''Brien ☕ ', 'found' union all select 'O''Brien ☕', 'other'");
    Table table(_db, "label", test::text_key_columns);
    const test::Statements statements(_db);
    EXPECT_NE(table.getRecordByKeyId(" O'Brien ☕ "), nullptr);
    EXPECT_THAT(held(table), ElementsAre(" O'Brien ☕ |found"));
    EXPECT_TRUE(table.hasRecordWithKeyId(" O'Brien ☕ "));
    EXPECT_TRUE(table.deleteRecord(" O'Brien ☕ "));
    EXPECT_THAT(statements.texts(),
                ElementsAre("select * from label where code = \" O'Brien ☕ \"",
                            "select count(*) from label where code = \" O'Brien ☕ \"",
                            "delete from label where code = \" O'Brien ☕ \""));
    EXPECT_EQ(products(_db, "label"), "O'Brien ☕|other");
}

TEST_F(TableReadTest, FirstOfTwoKeyColumnsIsTheKey)
{
    _db.run("create table pair (name TEXT, first INTEGER, second INTEGER)");
    Table table(_db, "pair", two_key_columns);
    const test::Statements statements(_db);
    EXPECT_EQ(table.getRecordByKeyId(7), nullptr);
    EXPECT_FALSE(table.hasRecordWithKeyId("7"));
    EXPECT_TRUE(table.deleteRecord(7));
    EXPECT_THAT(statements.texts(), ElementsAre("select * from pair where first = 7",
                                                "select count(*) from pair where first = \"7\"",
                                                "delete from pair where first = 7"));
}

TEST_F(TableReadTest, SeveralRowsOfOneKeyAreARecordWithThatKey)
{
    _db.run("create table log (id INTEGER, name TEXT, price REAL);"
            "insert into log select 7, 'first', 1 union all select 7, 'second', 2");
    Table table(_db, "log", test::product_columns);
    EXPECT_TRUE(table.hasRecordWithKeyId(7));
    EXPECT_TRUE(table.hasRecordWithKeyId("7"));
    EXPECT_EQ(table.getRecordByKeyId(7)->toString(), "7|first|1.0");
    EXPECT_THAT(held(table), ElementsAre("7|first|1.0", "7|second|2.0"));
}

} // namespace
