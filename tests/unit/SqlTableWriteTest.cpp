#include "SqlTable.h"

#include "Cases.h"
#include "Environment.h"
#include "ProductTest.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

// What a table writes: records and keys in full, within what the connection is doing.

namespace {

namespace report = test::report;

using sql::Field;
using sql::FieldSet;
using sql::integer;
using sql::Record;
using sql::string;
using sql::Table;
using test::held;
using test::joined;
using test::product;
using test::products;
using testing::ElementsAre;

class TableWriteTest : public test::ProductTest {};

const char insert_rum[] = "insert into product (id, name, price) values (7, 'rum', 8.00000000)";

TEST_F(TableWriteTest, RowOfTheTableItselfIsWrittenBack)
{
    _table.open();
    _table.getRecord(1)->setNull("name");
    EXPECT_TRUE(_table.updateRecord(*_table.getRecord(1)));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|NULL|4.5\n3|milk|1.25");
    EXPECT_THAT(held(_table), ElementsAre("1|tea|2.5", "2|null|4.5", "3|milk|1.25"));
}

// What a hook of SQLite's sees of a table while a row is written.
void noteRowsHeld(void* note, int, const char*, const char*, sqlite3_int64)
{
    auto& [table, rows] = *static_cast<std::pair<Table*, std::vector<string>>*>(note);
    rows = held(*table);
}

TEST_F(TableWriteTest, RowsHeldStayWhileAWriteRuns)
{
    _table.open("id = 1");
    const Record* const row = _table.getTopRecord();
    std::pair<Table*, std::vector<string>> note(&_table, {});
    sqlite3_update_hook(_db, noteRowsHeld, &note);
    EXPECT_TRUE(_table.deleteRecord(integer(2)));
    sqlite3_update_hook(_db, nullptr, nullptr);
    EXPECT_THAT(note.second, ElementsAre("1|tea|2.5"));
    EXPECT_EQ(_table.getTopRecord(), row);
}

TEST_F(TableWriteTest, AllTypesAreWrittenAndReadBack)
{
    const test::TimeZone zone;
    Table table(_db, "sale", test::all_type_columns);
    table.create();
    Record record(*table.fields());
    record.setInteger("id", 7);
    record.setString("name", "O'Brien");
    record.setDouble("price", 2.5);
    record.setBool("sold", true);
    record.setTime("at", sql::Time(1616893200));
    const test::Statements statements(_db);
    EXPECT_TRUE(table.addRecord(record));
    EXPECT_NE(table.getRecordByKeyId(7), nullptr);
    EXPECT_THAT(
        statements.texts(),
        ElementsAre(
            "insert into sale (id, name, price, sold, at) values (7, 'O''Brien', 2.50000000, 1, 1616893200)",
            "select * from sale where id = 7"));
    EXPECT_THAT(held(table), ElementsAre("7|O'Brien|2.5|1|28-03-2021 03:00:00, Sun"));
}

TEST_F(TableWriteTest, NumbersOfTheTextsDoNotDependOnTheLocale)
{
    const test::CommaLocale locale;
    const test::Statements statements(_db);
    EXPECT_TRUE(_table.addRecord(product(_table, 1234567, "rum", 8.5)));
    ASSERT_NE(_table.getRecordByKeyId(1234567), nullptr);
    EXPECT_THAT(
        statements.texts(),
        ElementsAre("insert into product (id, name, price) values (1234567, 'rum', 8.50000000)",
                    "select * from product where id = 1234567"));
    EXPECT_EQ(_table.getTopRecord()->getValue("price")->asDouble(), 8.5);
}

TEST_F(TableWriteTest, RecordOfOtherColumnsIsWrittenWithThoseColumns)
{
    const FieldSet columns(test::key_last_columns);
    Record record(columns);
    record.setString("name", "rum");
    record.setInteger("id", 7);
    const test::Statements statements(_db);
    EXPECT_TRUE(_table.addRecord(record));
    EXPECT_THAT(statements.texts(),
                ElementsAre("insert into product (name, price, id) values ('rum', null, 7)"));
}

TEST_F(TableWriteTest, RecordWithUnnumberedColumnsCannotBeAdded)
{
    const FieldSet columns(std::vector<Field>{Field("id", sql::type_int, sql::flag_primary_key)});
    EXPECT_FALSE(_table.addRecord(Record(columns)));
    expectReport(joined({report::noValue(-1), report::noValueToList(0),
                         report::notAdded("product", report::noValuesToInsert("product"))}));
}

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

TEST_F(TableWriteTest, WriteReadsRowsThatSqliteReturnsWithTheTablesColumnsAndDropsThem)
{
    _table.open("id = 1");
    _diagnostics.setLevel(9);
    EXPECT_TRUE(_table.deleteRecords("id = 2 returning *"));
    expectReport(joined({report::ran("delete from product where id = 2 returning *"),
                         {report::rowRead("id = 2|name = coffee|price = 4.5")}}));
    EXPECT_THAT(held(_table), ElementsAre("1|tea|2.5"));
}

#endif

TEST_F(TableWriteTest, FailedExistenceTestLeadsToAnInsertDeliberately)
{
    _diagnostics.setLevel(9);
    EXPECT_TRUE(_table.addOrUpdateRecord("a\"b", product(_table, 7, "rum", 8)));
    expectReport(joined({report::notPrepared("select count(*) from product where id = \"a\"b\"",
                                             "1=SQLITE_ERROR: near \"b\": syntax error"),
                         {report::debug(2, "Table::addOrUpdateRecord", "add record for key=a\"b")},
                         report::ran(insert_rum)}));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|coffee|4.5\n3|milk|1.25\n7|rum|8.0");
}

TEST_F(TableWriteTest, AddOrUpdateWithoutKeyColumnInsertsDeliberately)
{
    Table table(_db, "product", test::without_key_columns);
    const auto added = [](const char* signature) {
        return joined(
            {report::noKeyName(signature),
             {report::debug(2, "Table::addOrUpdateRecord", "add record for key=1")},
             report::ran("insert into product (name, price) values ('rum', 8.00000000)")});
    };
    _diagnostics.clear();
    _diagnostics.setLevel(9);
    EXPECT_TRUE(table.addOrUpdateRecord(1, product(table, "rum", 8)));
    EXPECT_TRUE(table.addOrUpdateRecord("1", product(table, "rum", 8)));
    expectReport(joined({added("bool sql::Table::hasRecordWithKeyId(sql::integer)"),
                         added("bool sql::Table::hasRecordWithKeyId(sql::string)")}));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|coffee|4.5\n3|milk|1.25\n4|rum|8.0\n5|rum|8.0");
}

TEST_F(TableWriteTest, ZeroByteInACellCutsTheKeyOffTheUpdateWhichIsAHazard)
{
    Record record = product(_table, 1, "tea", 2.5);
    record.setString("price", string("5\0", 2));
    const test::Statements statements(_db);
    EXPECT_TRUE(_table.updateRecord(record));
    EXPECT_THAT(statements.texts(), ElementsAre("update product set name='tea', price=5"));
    EXPECT_EQ(products(_db), "1|tea|5.0\n2|tea|5.0\n3|tea|5.0");
}

TEST_F(TableWriteTest, ZeroByteInAConditionCutsItsRestOffWhichIsAHazard)
{
    const test::Statements statements(_db);
    EXPECT_TRUE(_table.deleteRecords(string("id > 1\0 and id < 3", 18)));
    EXPECT_THAT(statements.texts(), ElementsAre("delete from product where id > 1"));
    EXPECT_EQ(products(_db), "1|tea|2.5");
}

TEST_F(TableWriteTest, RecordIsRefusedByAFullDatabaseWhichWorksAfterwards)
{
    _table.open();
    _db.run("pragma max_page_count = " + _db.rows("pragma page_count"));
    const std::string longName(100000, 'x');
    _diagnostics.setLevel(9);
    EXPECT_FALSE(_table.addRecord(product(_table, 7, longName, 8)));
    expectReport(report::refused("insert into product (id, name, price) values (7, '" + longName
                                     + "', 8.00000000)",
                                 "13=SQLITE_FULL: database or disk is full"));
    _diagnostics.setLevel(3);
    EXPECT_EQ(held(_table), test::all_held);
    EXPECT_EQ(products(_db), test::three_products);
    EXPECT_TRUE(_table.updateRecord(product(_table, 2, "cocoa", 3)));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|cocoa|3.0\n3|milk|1.25");
    _db.run("pragma max_page_count = 1000");
    EXPECT_TRUE(_table.addRecord(product(_table, 7, longName, 8)));
    EXPECT_EQ(_table.totalRecordCount(), 4);
}

TEST_F(TableWriteTest, WritesJoinTheTransactionOfTheConnection)
{
    _db.run("begin");
    EXPECT_TRUE(_table.addRecord(product(_table, 7, "rum", 8)));
    EXPECT_TRUE(_table.deleteRecord(1));
    EXPECT_TRUE(_table.updateRecord(product(_table, 2, "cocoa", 3)));
    _db.run("rollback");
    EXPECT_EQ(products(_db), test::three_products);
}

// --- Keys of 64 bits

struct WideKey : test::Case {
    integer key;
    const char* text;
};

class TableWideKeyTest : public test::ProductTest, public testing::WithParamInterface<WideKey> {};

TEST_P(TableWideKeyTest, IsWrittenAndTracedInFullByEveryOperation)
{
    const integer key = GetParam().key;
    const std::string text = GetParam().text;
    const std::string count = "select count(*) from product where id = " + text;
    const std::string insert = "insert into product (id, name, price) values (" + text
                               + ", 'rum', 8.00000000)";
    const std::string update = "update product set name='gin', price=8.00000000 where id = " + text;
    const std::string select = "select * from product where id = " + text;
    const std::string remove = "delete from product where id = " + text;
    const test::Statements statements(_db);
    _diagnostics.setLevel(8);
    EXPECT_TRUE(_table.addOrUpdateRecord(key, product(_table, key, "rum", 8)));
    EXPECT_TRUE(_table.addOrUpdateRecord(key, product(_table, key, "gin", 8)));
    ASSERT_NE(_table.getRecordByKeyId(key), nullptr);
    EXPECT_EQ(_table.getTopRecord()->getValue("id")->asInteger(), key);
    EXPECT_TRUE(_table.deleteRecord(key));
    EXPECT_THAT(statements.texts(), ElementsAre(count, insert, count, update, select, remove));
    EXPECT_EQ(
        _diagnostics.take(),
        joined({report::counted(count, "0"),
                {report::debug(2, "Table::addOrUpdateRecord", "add record for key=" + text)},
                report::ran(insert),
                report::counted(count, "1"),
                {report::debug(2, "Table::addOrUpdateRecord", "update record for key=" + text)},
                report::ran(update),
                report::ran(select),
                report::ran(remove)}));
    EXPECT_EQ(products(_db), test::three_products);
}

INSTANTIATE_TEST_SUITE_P(
    All, TableWideKeyTest,
    testing::Values(WideKey{"Highest", std::numeric_limits<integer>::max(), "9223372036854775807"},
                    WideKey{"Lowest", std::numeric_limits<integer>::min(), "-9223372036854775808"},
                    WideKey{"Above32Bits", 4294967299, "4294967299"}, WideKey{"Zero", 0, "0"},
                    WideKey{"MinusOne", -1, "-1"}),
    test::NameOfCase());

} // namespace
