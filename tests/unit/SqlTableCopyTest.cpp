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
using test::visibleAt;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string copy_exists = report::existenceQuery("copy");

const Field constrained_columns[] = {
    Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
    Field("name", sql::type_text, sql::flag_not_null | sql::flag_unique),
    Field("price", sql::type_float, sql::flag_none),
    Field(),
};

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

    void makeCopy(const std::string& rows = "")
    {
        _db.run("create table copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)");
        if (!rows.empty())
            _db.run("insert into copy values " + rows);
    }

    Table& _source = _table;
    Table _copy;
};

const Texts three_inserts = {"insert into copy (id, name, price) values (1, 'tea', 2.5)",
                             "insert into copy (id, name, price) values (2, 'coffee', 4.5)",
                             "insert into copy (id, name, price) values (3, 'milk', 1.25)"};

const char copy_definition[] = "CREATE TABLE copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)";

TEST_F(TableCopyTest, CopyAddsEveryRowThatTheSourceHolds)
{
    makeCopy("(9, 'gin', 6.5)");
    _source.open();
    _copy.open();
    const test::Statements statements(_db);
    EXPECT_TRUE(_copy.copyRecords(_source));
    EXPECT_EQ(statements.texts(), three_inserts);
    EXPECT_EQ(products(_db, "copy"), std::string(three_products) + "\n9|gin|6.5");
    EXPECT_THAT(held(_copy), ElementsAre("9|gin|6.5"));
    EXPECT_EQ(held(_source), test::all_held);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, CopyShowsTheRouteOfWrites)
{
    makeCopy();
    _source.open("id = 1");
    _diagnostics.setLevel(9);
    EXPECT_TRUE(_copy.copyRecords(_source));
    EXPECT_EQ(_diagnostics.events(), report::ran(three_inserts[0]));
}

TEST_F(TableCopyTest, CopyTakesTheRowsHeldNotThoseOfTheDatabase)
{
    makeCopy();
    _source.open("id < 3");
    _source.getRecord(0)->setString("name", "changed");
    _source.truncate();
    _source.query("select 1, 'changed', null");
    EXPECT_TRUE(_copy.copyRecords(_source));
    EXPECT_EQ(products(_db, "copy"), "1|changed|NULL");
}

TEST_F(TableCopyTest, CopyOfASourceNeverReadAddsNothing)
{
    makeCopy();
    EXPECT_TRUE(_copy.copyRecords(_source));
    EXPECT_EQ(products(_db, "copy"), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, CopyUsesTheSourcesColumnsUnderItsOwnNameDeliberately)
{
    makeCopy();
    Table source(_db, "product", test::key_last_columns);
    source.query("select name, price, id from product where id = 2");
    const test::Statements statements(_db);
    EXPECT_TRUE(_copy.copyRecords(source));
    EXPECT_THAT(statements.texts(),
                ElementsAre("insert into copy (name, price, id) values ('coffee', 4.5, 2)"));
    EXPECT_EQ(products(_db, "copy"), "2|coffee|4.5");
}

TEST_F(TableCopyTest, CopyOfAnExistingKeyFailsAndKeepsTheRowsBeforeIt)
{
    makeCopy("(2, 'gin', 6.5)");
    _source.open();
    const test::Statements statements(_db);
    EXPECT_FALSE(_copy.copyRecords(_source));
    EXPECT_THAT(statements.texts(), ElementsAre(three_inserts[0], three_inserts[1]));
    EXPECT_EQ(products(_db, "copy"), "1|tea|2.5\n2|gin|6.5");
    EXPECT_EQ(
        _diagnostics.events(),
        visibleAt(3, report::refused(three_inserts[1],
                                     "19=SQLITE_CONSTRAINT: UNIQUE constraint failed: copy.id")));
}

TEST_F(TableCopyTest, CopyToATableWithoutConnectionFails)
{
    Table copy("copy");
    _source.open();
    EXPECT_FALSE(copy.copyRecords(_source));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(report::notConnected()));
}

TEST_F(TableCopyTest, CopyGoesFromOneConnectionToAnother)
{
    test::Connection other;
    Table copy(other, "copy", test::product_columns);
    copy.create();
    _source.open();
    EXPECT_TRUE(copy.copyRecords(_source));
    EXPECT_EQ(products(other, "copy"), three_products);
}

TEST_F(TableCopyTest, BackupRebuildsAnExistingCopyAndCountsTheSourceFirst)
{
    makeCopy("(9, 'gin', 6.5)");
    _copy.open();
    const test::Statements statements(_db);
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(statements.texts(),
              joined({{copy_exists, "drop table copy", copy_exists, copy_definition,
                       "select * from product"},
                      three_inserts,
                      {"select count(*) from product", "select count(*) from copy"}}));
    EXPECT_EQ(products(_db, "copy"), three_products);
    EXPECT_EQ(products(_db), three_products);
    EXPECT_EQ(_copy.recordCount(), 0);
    EXPECT_EQ(held(_source), test::all_held);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, BackupReportsTheRouteOfEveryStep)
{
    makeCopy();
    _diagnostics.setLevel(9);
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(_diagnostics.events(), joined({report::present("copy"),
                                             report::ran("drop table copy"),
                                             report::absent("copy"),
                                             report::ran(copy_definition),
                                             report::ran("select * from product"),
                                             {report::rowRead("id = 1|name = tea|price = 2.5"),
                                              report::rowRead("id = 2|name = coffee|price = 4.5"),
                                              report::rowRead("id = 3|name = milk|price = 1.25")},
                                             report::ran(three_inserts[0]),
                                             report::ran(three_inserts[1]),
                                             report::ran(three_inserts[2]),
                                             report::counted("select count(*) from product", "3"),
                                             report::counted("select count(*) from copy", "3")}));
}

TEST_F(TableCopyTest, BackupCreatesAMissingCopyWithoutDropping)
{
    _db.run("delete from product");
    const test::Statements statements(_db);
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_THAT(statements.texts(),
                ElementsAre(copy_exists, copy_exists, copy_definition, "select * from product",
                            "select count(*) from product", "select count(*) from copy"));
    EXPECT_EQ(_db.rows("select sql from sqlite_master where name = 'copy'"), copy_definition);
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
    Table& same = _source;
    EXPECT_TRUE(_source.backup(same));
    EXPECT_EQ(products(_db), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, BackupOfATableOntoAnotherObjectForItLosesItsRowsDeliberately)
{
    Table twin(_db, "product", test::product_columns);
    twin.open();
    const test::Statements statements(_db);
    EXPECT_TRUE(twin.backup(_source));
    EXPECT_THAT(statements.texts(),
                ElementsAre(report::existenceQuery("product"), "drop table product",
                            report::existenceQuery("product"), test::product_definition,
                            "select * from product", "select count(*) from product",
                            "select count(*) from product"));
    EXPECT_EQ(products(_db), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, BackupIgnoresAFailedRemoveDeliberately)
{
    makeCopy();
    const Denied denied(_db, SQLITE_DROP_TABLE);
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(products(_db, "copy"), three_products);
    EXPECT_EQ(_diagnostics.events(),
              visibleAt(3, report::refused("drop table copy", "23=SQLITE_AUTH: not authorized")));
}

TEST_F(TableCopyTest, BackupWithDifferentCountsFailsWithoutAReport)
{
    makeCopy("(9, 'gin', 6.5)");
    const Denied denied(_db, SQLITE_DROP_TABLE);
    EXPECT_FALSE(_copy.backup(_source));
    EXPECT_EQ(products(_db, "copy"), std::string(three_products) + "\n9|gin|6.5");
    EXPECT_EQ(_diagnostics.events(),
              visibleAt(3, report::refused("drop table copy", "23=SQLITE_AUTH: not authorized")));
}

TEST_F(TableCopyTest, BackupWithTwoFailedCountsSucceedsDeliberately)
{
    _db.run("delete from product");
    const Denied denied(_db, SQLITE_FUNCTION); // no count(), so every table seems to exist
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(_db.rows("select name from sqlite_master"), "product");
    const std::string reason = "1=SQLITE_ERROR: not authorized to use function: count";
    const std::string missing_copy = "1=SQLITE_ERROR: no such table: copy";
    const Texts seems_to_exist = report::undetermined("copy", reason);
    EXPECT_EQ(
        _diagnostics.events(),
        visibleAt(
            3, joined({seems_to_exist, report::refused("drop table copy", missing_copy),
                       seems_to_exist, report::notPrepared("select count(*) from product", reason),
                       report::notPrepared("select count(*) from copy", missing_copy)})));
}

TEST_F(TableCopyTest, BackupWithoutColumnsFailsAtCreateAndLoadsNothing)
{
    Table copy(_db, "copy", FieldSet(nullptr));
    const test::Statements statements(_db);
    EXPECT_FALSE(copy.backup(_source));
    EXPECT_THAT(statements.texts(), ElementsAre(copy_exists, copy_exists));
    EXPECT_EQ(_source.recordCount(), 0);
    EXPECT_EQ(_diagnostics.events(), report::notCreated("copy"));
}

TEST_F(TableCopyTest, BackupOfAMissingSourceFailsAndLeavesAnEmptyCopy)
{
    makeCopy("(9, 'gin', 6.5)");
    Table source(_db, "order_line", test::product_columns);
    const test::Statements statements(_db);
    EXPECT_FALSE(_copy.backup(source));
    EXPECT_THAT(statements.texts(),
                ElementsAre(copy_exists, "drop table copy", copy_exists, copy_definition));
    EXPECT_EQ(products(_db, "copy"), "");
    EXPECT_EQ(_diagnostics.events(),
              visibleAt(3, report::refused("select * from order_line",
                                           "1=SQLITE_ERROR: no such table: order_line")));
}

TEST_F(TableCopyTest, BackupKeepsAPartlyFilledCopyDeliberately)
{
    _db.run("update product set name = null where id = 2");
    Table copy(_db, "copy", constrained_columns);
    const test::Statements statements(_db);
    EXPECT_FALSE(copy.backup(_source));
    EXPECT_THAT(
        statements.texts(),
        ElementsAre(
            copy_exists, copy_exists,
            "CREATE TABLE copy (id INTEGER PRIMARY KEY NOT NULL, name TEXT NOT NULL UNIQUE, price REAL)",
            "select * from product", three_inserts[0],
            "insert into copy (id, name, price) values (2, null, 4.5)"));
    EXPECT_EQ(products(_db, "copy"), "1|tea|2.5");
    EXPECT_EQ(_diagnostics.events(),
              visibleAt(3, report::refused(
                               "insert into copy (id, name, price) values (2, null, 4.5)",
                               "19=SQLITE_CONSTRAINT: NOT NULL constraint failed: copy.name")));
}

TEST_F(TableCopyTest, BackupWithoutConnectionFailsAtCreate)
{
    Table copy(nullptr, "copy", test::product_columns);
    const test::Statements statements(_db);
    EXPECT_FALSE(copy.backup(_source));
    EXPECT_THAT(statements.texts(), IsEmpty());
    const std::string unknown = report::asserted("bool sql::Table::exists()", "_db");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(unknown, unknown, report::notConnected()));
}

TEST_F(TableCopyTest, BackupOfASourceWithoutConnectionFailsAndLeavesAnEmptyCopy)
{
    Table source("product");
    EXPECT_FALSE(_copy.backup(source));
    EXPECT_EQ(products(_db, "copy"), "");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(report::notConnected()));
}

} // namespace
