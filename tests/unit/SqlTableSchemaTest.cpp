#include "SqlTable.h"

#include "Cases.h"
#include "Environment.h"
#include "ProductTest.h"

#include <gmock/gmock.h>

#include <string>

// How a table comes to its connection and columns, and what it says and does about its schema.

namespace {

namespace report = test::report;

using sql::Field;
using sql::FieldSet;
using sql::string;
using sql::Table;
using test::held;
using test::joined;
using test::product;
using test::products;
using testing::ElementsAre;

class TableSchemaTest : public test::ProductTest {
protected:
    // Silence is that of all levels.
    TableSchemaTest()
    {
        _diagnostics.setLevel(9);
    }
};

const Field constrained_columns[] = {
    Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
    Field("name", sql::type_text, sql::flag_not_null | sql::flag_unique),
    Field("price", sql::type_float, sql::flag_none),
    Field(),
};

const Field float_key_columns[] = {
    Field("name", sql::type_text, sql::flag_none),
    Field("price", sql::type_float, sql::flag_primary_key),
    Field(),
};

const Field one_column[] = {
    Field("id", sql::type_int, sql::flag_primary_key),
    Field(),
};

const std::string not_connected = report::asserted("bool sql::Table::exists()", "_db");

// --- Construction and initTable()

TEST_F(TableSchemaTest, NameOnlyTableHasNoConnectionColumnsOrRows)
{
    Table table("product");
    EXPECT_EQ(table.name(), "product");
    EXPECT_EQ(table.getHandle(), nullptr);
    ASSERT_NE(table.fields(), nullptr);
    EXPECT_EQ(table.fields()->count(), 0);
    EXPECT_EQ(table.recordCount(), 0);
    EXPECT_EQ(table.getTopRecord(), nullptr);
}

TEST_F(TableSchemaTest, TableTakesConnectionNameAndColumnArray)
{
    EXPECT_EQ(_table.name(), "product");
    EXPECT_EQ(_table.getHandle(), _db.get());
    EXPECT_EQ(_table.fields()->dump(), FieldSet(test::product_columns).dump());
    EXPECT_EQ(_table.recordCount(), 0);
}

TEST_F(TableSchemaTest, TableTakesACopyOfAFieldSet)
{
    FieldSet columns(test::product_columns);
    Table table(_db, "product", columns);
    columns = FieldSet(test::text_key_columns);
    EXPECT_EQ(table.name(), "product");
    EXPECT_EQ(table.getHandle(), _db.get());
    EXPECT_NE(table.fields(), &columns);
    EXPECT_EQ(table.fields()->toSql(), "id, name, price");
}

TEST_F(TableSchemaTest, ColumnArrayWithoutKeyIsReportedAndKept)
{
    const Table table(_db, "product", test::without_key_columns);
    EXPECT_EQ(table.fields()->toSql(), "name, price");
    expectReport({report::badColumns()});
}

TEST_F(TableSchemaTest, NullColumnArrayMakesATableWithoutColumns)
{
    const Table table(_db, "product", static_cast<const Field*>(nullptr));
    EXPECT_EQ(table.fields()->count(), 0);
    EXPECT_EQ(table.toString(), "");
}

TEST_F(TableSchemaTest, InitTableMakesANameOnlyTableUsable)
{
    _diagnostics.setLevel(3);
    Table table("product");
    EXPECT_TRUE(table.initTable(_db, test::product_columns));
    EXPECT_EQ(table.name(), "product");
    EXPECT_EQ(table.getHandle(), _db.get());
    EXPECT_TRUE(table.exists());
    EXPECT_TRUE(table.addRecord(product(table, 7, "rum", 8)));
    ASSERT_NE(table.getRecordByKeyId(7), nullptr);
    EXPECT_THAT(held(table), ElementsAre("7|rum|8.0"));
    EXPECT_EQ(table.totalRecordCount(), 4);
}

TEST_F(TableSchemaTest, InitTableDiscardsTheRowsHeldAndUsesTheOtherConnectionThroughout)
{
    _diagnostics.setLevel(3);
    test::Connection other;
    other.run("create table product (id INTEGER PRIMARY KEY, name TEXT, price REAL);"
              "insert into product values (9, 'gin', 6.5)");
    _table.open();
    EXPECT_TRUE(_table.initTable(other, nullptr));
    EXPECT_EQ(_table.recordCount(), 0);
    EXPECT_EQ(_table.getHandle(), other.get());
    EXPECT_EQ(_table.fields()->toSql(), "id, name, price");
    EXPECT_TRUE(_table.open());
    EXPECT_THAT(held(_table), ElementsAre("9|gin|6.5"));
    EXPECT_EQ(_table.totalRecordCount(), 1);
    EXPECT_TRUE(_table.deleteRecord(9));
    EXPECT_EQ(products(other), "");
    EXPECT_EQ(products(_db), test::three_products);
}

TEST_F(TableSchemaTest, InitTableWithoutKeyColumnFailsAndKeepsColumnsAndConnection)
{
    Table table("product");
    EXPECT_FALSE(table.initTable(_db, test::without_key_columns));
    EXPECT_EQ(table.getHandle(), _db.get());
    EXPECT_EQ(table.fields()->toSql(), "name, price");
    expectReport({report::badColumns()});
}

TEST_F(TableSchemaTest, InitTableWithAKeyOfAnotherTypeFailsAndLeavesNoColumns)
{
    Table table("product");
    EXPECT_FALSE(table.initTable(_db, float_key_columns));
    EXPECT_EQ(table.fields()->count(), 0);
    expectReport(report::wrongKeyType("price", "float"));
}

TEST_F(TableSchemaTest, InitTableAppendsToTheColumnsThereAreDeliberately)
{
    EXPECT_TRUE(_table.initTable(_db, test::text_key_columns));
    EXPECT_EQ(_table.fields()->toSql(), "id, name, price, code, name");
}

TEST_F(TableSchemaTest, CreateOfANameOnlyTableReportsItsMissingColumnsTwiceDeliberately)
{
    Table table("product");
    EXPECT_FALSE(table.create());
    expectReport(joined({{not_connected}, report::notCreated("product")}));
}

TEST_F(TableSchemaTest, DestroyedTableLeavesTheConnectionOpen)
{
    _diagnostics.setLevel(3);
    const test::SqliteCalls calls;
    {
        Table table(_db, "product", test::product_columns);
        table.open();
    }
    EXPECT_THAT(calls.order, ElementsAre("exec"));
    EXPECT_EQ(products(_db), test::three_products);
}

// --- Whether it exists, and what create() makes

TEST_F(TableSchemaTest, MissingTableDoesNotExist)
{
    EXPECT_FALSE(Table(_db, "order_line", test::product_columns).exists());
    expectReport(report::absent("order_line"));
}

TEST_F(TableSchemaTest, ViewOfTheNameIsNoTable)
{
    _db.run("create view dear as select * from product where price > 2");
    EXPECT_FALSE(Table(_db, "dear", test::product_columns).exists());
    expectReport(report::absent("dear"));
}

TEST_F(TableSchemaTest, TableCountedTwiceCannotBeDeterminedAndExists)
{
    _db.run("pragma writable_schema = on; insert into sqlite_master"
            " select type, name, tbl_name, rootpage, sql from sqlite_master");
    EXPECT_TRUE(_table.exists());
    expectReport(joined({report::counted(report::existenceQuery("product"), "2"),
                         {report::undetermined("product")}}));
}

TEST_F(TableSchemaTest, TableOfAnUnreadableFileExistsAndIsNotCreatedDeliberately)
{
    const test::TemporaryDirectory directory;
    test::writeFile(directory.file("notes.txt"), std::string(4096, 'x'));
    test::Connection unreadable(directory.file("notes.txt"));
    EXPECT_TRUE(Table(unreadable, "product", test::product_columns).create());
    expectReport(report::undetermined("product", "26=SQLITE_NOTADB: file is not a database"));
    EXPECT_EQ(test::readFile(directory.file("notes.txt")), std::string(4096, 'x'));
}

TEST_F(TableSchemaTest, CreateOfAMissingTableRunsItsDefinitionAndDiscardsTheRowsHeld)
{
    const char definition[] = "CREATE TABLE copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)";
    Table table(_db, "copy", test::product_columns);
    table.query("select 1, 'tea', 2.5");
    _diagnostics.clear();
    const test::Statements statements(_db);
    EXPECT_TRUE(table.create());
    EXPECT_THAT(statements.texts(), ElementsAre(report::existenceQuery("copy"), definition));
    EXPECT_EQ(table.recordCount(), 0);
    EXPECT_EQ(_db.rows("select sql from sqlite_master where name = 'copy'"), definition);
    expectReport(joined({report::absent("copy"), report::ran(definition)}));
}

TEST_F(TableSchemaTest, CreateDoesNotCompareTheColumnsOfAnExistingTable)
{
    EXPECT_TRUE(Table(_db, "product", test::all_type_columns).create());
    EXPECT_EQ(_db.rows("select sql from sqlite_master"), test::product_definition);
    expectReport(report::present("product"));
}

TEST_F(TableSchemaTest, RemovedTableExistsNoMoreWhileATruncatedOneDoes)
{
    _diagnostics.setLevel(3);
    _table.truncate();
    EXPECT_TRUE(_table.exists());
    _table.remove();
    EXPECT_FALSE(_table.exists());
}

TEST_F(TableSchemaTest, TotalRecordCountIsNotTheNumberOfRowsHeld)
{
    _diagnostics.setLevel(3);
    _table.open("id = 1");
    EXPECT_EQ(_table.recordCount(), 1);
    EXPECT_EQ(_table.totalRecordCount(), 3);
}

// The operations of SqlTableTest.cpp run on this name too; these need the table missing.
TEST_F(TableSchemaTest, OddNameIsCreatedAsItStands)
{
    _diagnostics.setLevel(3);
    const char odd_name[] = "\"it''s my product\"";
    const test::Statements statements(_db);
    EXPECT_TRUE(Table(_db, odd_name, one_column).create());
    EXPECT_THAT(statements.texts(),
                ElementsAre(report::existenceQuery(odd_name),
                            string("CREATE TABLE ") + odd_name + " (id INTEGER PRIMARY KEY)"));
    EXPECT_EQ(_db.rows("select name from sqlite_master where name like 'it%'"), "it''s my product");
}

TEST_F(TableSchemaTest, NameWithASchemaIsInsertedAsItStands)
{
    _diagnostics.setLevel(3);
    Table table(_db, "main.\"my product\"", one_column);
    const test::Statements statements(_db);
    EXPECT_TRUE(table.create());
    EXPECT_TRUE(table.open());
    EXPECT_TRUE(table.remove());
    EXPECT_THAT(statements.texts(),
                ElementsAre(report::existenceQuery("main.\"my product\""),
                            "CREATE TABLE main.\"my product\" (id INTEGER PRIMARY KEY)",
                            "select * from main.\"my product\"", "drop table main.\"my product\""));
}

TEST_F(TableSchemaTest, BlankIsATableName)
{
    EXPECT_FALSE(Table(_db, " ", test::product_columns).addRecord(product(_table, 7, "rum", 8)));
    expectReport(report::refused("insert into   (id, name, price) values (7, 'rum', 8.00000000)",
                                 "1=SQLITE_ERROR: near \"(\": syntax error"));
}

// --- Columns as text

struct Schema : test::Case {
    const Field* columns;
    const char* definition;
    const char* list;
};

const Schema schemas[] = {
    {"Product", test::product_columns,
     "CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL)",
     "1. id INTEGER PRIMARY KEY\r\n2. name TEXT\r\n3. price REAL"},
    {"AllTypes", test::all_type_columns,
     "CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL, sold INTEGER, at INTEGER)",
     "1. id INTEGER PRIMARY KEY\r\n2. name TEXT\r\n3. price REAL\r\n4. sold INTEGER\r\n5. at INTEGER"},
    {"Constraints", constrained_columns,
     "CREATE TABLE product (id INTEGER PRIMARY KEY NOT NULL, name TEXT NOT NULL UNIQUE, price REAL)",
     "1. id INTEGER PRIMARY KEY NOT NULL\r\n2. name TEXT NOT NULL UNIQUE\r\n3. price REAL"},
    {"OneColumn", one_column, "CREATE TABLE product (id INTEGER PRIMARY KEY)",
     "1. id INTEGER PRIMARY KEY"},
};

class TableColumnsTest : public TableSchemaTest, public testing::WithParamInterface<Schema> {};

TEST_P(TableColumnsTest, AreTheDefinitionAndANumberedListWithoutALineBreakAtTheEnd)
{
    Table table(_db, "product", GetParam().columns);
    EXPECT_EQ(table.getDefinition(), GetParam().definition);
    EXPECT_EQ(table.toString(), GetParam().list);
    _diagnostics.setLevel(3);
    table.open();
    EXPECT_EQ(table.toString(), GetParam().list) << "it shows no rows";
}

INSTANTIATE_TEST_SUITE_P(All, TableColumnsTest, testing::ValuesIn(schemas), test::NameOfCase());

} // namespace
