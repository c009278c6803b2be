#include "SqlTable.h"

#include "ProductTest.h"

#include <gmock/gmock.h>

#include <string>

// Copy and backup: from "product" to "copy".

namespace {

namespace report = test::report;

using sql::Field;
using sql::FieldSet;
using sql::Table;
using test::held;
using test::joined;
using test::products;
using test::Texts;
using test::three_products;
using testing::ElementsAre;

// SQLite refuses one kind of action while this object lives.
class Denied {
public:
    Denied(sqlite3* db, int action) : _db(db), _action(action)
    {
        sqlite3_set_authorizer(_db, answer, &_action);
    }
    ~Denied()
    {
        sqlite3_set_authorizer(_db, nullptr, nullptr);
    }
    Denied(const Denied&) = delete;
    Denied& operator=(const Denied&) = delete;

private:
    static int answer(void* denied, int action, const char*, const char*, const char*, const char*)
    {
        return action == *static_cast<int*>(denied) ? SQLITE_DENY : SQLITE_OK;
    }

    sqlite3* _db;
    int _action;
};

class TableCopyTest : public test::ProductTest {
protected:
    TableCopyTest() : _copy(_db, "copy", test::product_columns)
    {
    }

    void makeCopy(const std::string& row = "")
    {
        _db.run("create table copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)");
        if (!row.empty())
            _db.run("insert into copy values " + row);
    }

    // Copies the rows held, or makes a backup; `statements` run on the test's connection.
    void expect(bool (Table::*act)(Table&), Table& copy, Table& source, bool result,
                const Texts& statements, const Texts& errors = {})
    {
        _diagnostics.clear();
        const test::Statements run(_db);
        EXPECT_EQ((copy.*act)(source), result);
        EXPECT_EQ(run.texts(), statements);
        expectReport(errors);
    }

    Table& _source = _table;
    Table _copy;
};

const Texts three_inserts = {"insert into copy (id, name, price) values (1, 'tea', 2.5)",
                             "insert into copy (id, name, price) values (2, 'coffee', 4.5)",
                             "insert into copy (id, name, price) values (3, 'milk', 1.25)"};
const Texts two_counts = {"select count(*) from product", "select count(*) from copy"};
const std::string definition = "CREATE TABLE copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)";
const std::string exists = report::existenceQuery("copy");
const Texts rebuilt = {exists, "drop table copy", exists, definition};
const auto copying = &Table::copyRecords;
const auto backup = &Table::backup;

TEST_F(TableCopyTest, CopyAddsEveryRowThatTheSourceHolds)
{
    makeCopy("(9, 'gin', 6.5)");
    _source.open();
    _copy.open();
    expect(copying, _copy, _source, true, three_inserts);
    EXPECT_EQ(products(_db, "copy"), std::string(three_products) + "\n9|gin|6.5");
    EXPECT_THAT(held(_copy), ElementsAre("9|gin|6.5"));
    EXPECT_EQ(held(_source), test::all_held);
}

TEST_F(TableCopyTest, CopyTakesTheRowsHeldNotThoseOfTheDatabase)
{
    makeCopy();
    _source.open("id < 3");
    _source.getRecord(0)->setString("name", "changed");
    _source.truncate();
    _source.query("select 1, 'changed', null");
    expect(copying, _copy, _source, true,
           {"insert into copy (id, name, price) values (1, 'changed', null)"});
    EXPECT_EQ(products(_db, "copy"), "1|changed|NULL");
}

TEST_F(TableCopyTest, CopyOfASourceNeverReadAddsNothing)
{
    makeCopy();
    expect(copying, _copy, _source, true, {});
}

TEST_F(TableCopyTest, CopyUsesTheSourcesColumnsUnderItsOwnNameDeliberately)
{
    makeCopy();
    Table source(_db, "product", test::key_last_columns);
    source.query("select name, price, id from product where id = 2");
    expect(copying, _copy, source, true,
           {"insert into copy (name, price, id) values ('coffee', 4.5, 2)"});
    EXPECT_EQ(products(_db, "copy"), "2|coffee|4.5");
}

TEST_F(TableCopyTest, CopyOfAnExistingKeyFailsAndKeepsTheRowsBeforeIt)
{
    makeCopy("(2, 'gin', 6.5)");
    _source.open();
    expect(copying, _copy, _source, false, {three_inserts[0], three_inserts[1]},
           report::refused(three_inserts[1],
                           "19=SQLITE_CONSTRAINT: UNIQUE constraint failed: copy.id"));
    EXPECT_EQ(products(_db, "copy"), "1|tea|2.5\n2|gin|6.5");
}

TEST_F(TableCopyTest, CopyToATableWithoutConnectionFails)
{
    Table copy("copy");
    _source.open();
    expect(copying, copy, _source, false, {}, {report::notConnected()});
}

TEST_F(TableCopyTest, CopyGoesFromOneConnectionToAnother)
{
    test::Connection other;
    Table copy(other, "copy", test::product_columns);
    copy.create();
    _source.open();
    expect(copying, copy, _source, true, {});
    EXPECT_EQ(products(other, "copy"), three_products);
}

TEST_F(TableCopyTest, BackupRebuildsAnExistingCopyAndCountsTheSourceFirst)
{
    makeCopy("(9, 'gin', 6.5)");
    _copy.open();
    expect(backup, _copy, _source, true,
           joined({rebuilt, {"select * from product"}, three_inserts, two_counts}));
    EXPECT_EQ(products(_db, "copy"), three_products);
    EXPECT_EQ(products(_db), three_products);
    EXPECT_EQ(_copy.recordCount(), 0);
    EXPECT_EQ(held(_source), test::all_held);
}

TEST_F(TableCopyTest, BackupReportsTheRouteOfEveryStep)
{
    makeCopy();
    _diagnostics.setLevel(9);
    EXPECT_TRUE(_copy.backup(_source));
    expectReport(joined({report::present("copy"),
                         report::ran("drop table copy"),
                         report::absent("copy"),
                         report::ran(definition),
                         report::ran("select * from product"),
                         {report::rowRead("id = 1|name = tea|price = 2.5"),
                          report::rowRead("id = 2|name = coffee|price = 4.5"),
                          report::rowRead("id = 3|name = milk|price = 1.25")},
                         report::ran(three_inserts[0]),
                         report::ran(three_inserts[1]),
                         report::ran(three_inserts[2]),
                         report::counted(two_counts[0], "3"),
                         report::counted(two_counts[1], "3")}));
}

TEST_F(TableCopyTest, BackupCreatesAMissingCopyWithoutDropping)
{
    _db.run("delete from product");
    expect(backup, _copy, _source, true,
           joined({{exists, exists, definition, "select * from product"}, two_counts}));
    EXPECT_EQ(_db.rows("select sql from sqlite_master where name = 'copy'"), definition);
    EXPECT_EQ(products(_db, "copy"), "");
}

TEST_F(TableCopyTest, BackupLoadsAllRowsOfTheSourceWhateverItHeld)
{
    _source.open("id = 1");
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(products(_db, "copy"), three_products);
    EXPECT_EQ(held(_source), test::all_held);
}

TEST_F(TableCopyTest, BackupOfATableOntoItselfLosesItsRowsDeliberately)
{
    const std::string there = report::existenceQuery("product");
    const Texts statements = {there,
                              "drop table product",
                              there,
                              test::product_definition,
                              "select * from product",
                              "select count(*) from product",
                              "select count(*) from product"};
    Table twin(_db, "product", test::product_columns);
    twin.open();
    for (Table* const same : {&twin, &_source}) {
        expect(backup, *same, _source, true, statements);
        EXPECT_EQ(products(_db), "");
        _db.run("insert into product values (1, 'tea', 2.5)");
    }
}

TEST_F(TableCopyTest, BackupIgnoresAFailedRemoveDeliberately)
{
    makeCopy();
    const Denied denied(_db, SQLITE_DROP_TABLE);
    expect(backup, _copy, _source, true,
           joined({{exists, exists, "select * from product"}, three_inserts, two_counts}),
           report::refused("drop table copy", "23=SQLITE_AUTH: not authorized"));
    EXPECT_EQ(products(_db, "copy"), three_products);
}

TEST_F(TableCopyTest, BackupWithDifferentCountsFailsWithoutAReport)
{
    makeCopy("(9, 'gin', 6.5)");
    const Denied denied(_db, SQLITE_DROP_TABLE);
    expect(backup, _copy, _source, false,
           joined({{exists, exists, "select * from product"}, three_inserts, two_counts}),
           report::refused("drop table copy", "23=SQLITE_AUTH: not authorized"));
    EXPECT_EQ(products(_db, "copy"), std::string(three_products) + "\n9|gin|6.5");
}

TEST_F(TableCopyTest, BackupWithTwoFailedCountsSucceedsDeliberately)
{
    _db.run("delete from product");
    const Denied denied(_db, SQLITE_FUNCTION); // no count(), so every table seems to exist
    const std::string reason = "1=SQLITE_ERROR: not authorized to use function: count";
    const std::string missing_copy = "1=SQLITE_ERROR: no such table: copy";
    expect(backup, _copy, _source, true, {"select * from product"},
           joined({report::undetermined("copy", reason),
                   report::refused("drop table copy", missing_copy),
                   report::undetermined("copy", reason), report::notPrepared(two_counts[0], reason),
                   report::notPrepared(two_counts[1], missing_copy)}));
    EXPECT_EQ(_db.rows("select name from sqlite_master"), "product");
}

TEST_F(TableCopyTest, BackupWithoutColumnsFailsAtCreateAndLoadsNothing)
{
    Table copy(_db, "copy", FieldSet(nullptr));
    expect(backup, copy, _source, false, {exists, exists}, report::notCreated("copy"));
    EXPECT_EQ(_source.recordCount(), 0);
}

TEST_F(TableCopyTest, BackupOfAMissingSourceFailsAndLeavesAnEmptyCopy)
{
    makeCopy("(9, 'gin', 6.5)");
    Table source(_db, "order_line", test::product_columns);
    expect(
        backup, _copy, source, false, rebuilt,
        report::refused("select * from order_line", "1=SQLITE_ERROR: no such table: order_line"));
    EXPECT_EQ(products(_db, "copy"), "");
}

TEST_F(TableCopyTest, BackupKeepsAPartlyFilledCopyDeliberately)
{
    const Field constrained_columns[] = {
        Field("id", sql::type_int, sql::flag_primary_key),
        Field("name", sql::type_text, sql::flag_not_null),
        Field("price", sql::type_float, sql::flag_none),
        Field(),
    };
    const std::string insert = "insert into copy (id, name, price) values (2, null, 4.5)";
    _db.run("update product set name = null where id = 2");
    Table copy(_db, "copy", constrained_columns);
    expect(backup, copy, _source, false,
           {exists, exists,
            "CREATE TABLE copy (id INTEGER PRIMARY KEY, name TEXT NOT NULL, price REAL)",
            "select * from product", three_inserts[0], insert},
           report::refused(insert, "19=SQLITE_CONSTRAINT: NOT NULL constraint failed: copy.name"));
    EXPECT_EQ(products(_db, "copy"), "1|tea|2.5");
}

TEST_F(TableCopyTest, BackupWithoutConnectionFailsAtCreate)
{
    Table copy(nullptr, "copy", test::product_columns);
    const std::string unknown = report::asserted("bool sql::Table::exists()", "_db");
    expect(backup, copy, _source, false, {}, {unknown, unknown, report::notConnected()});
}

TEST_F(TableCopyTest, BackupOfASourceWithoutConnectionFailsAndLeavesAnEmptyCopy)
{
    Table source("product");
    expect(backup, _copy, source, false, {exists, exists, definition}, {report::notConnected()});
    EXPECT_EQ(products(_db, "copy"), "");
}

} // namespace
