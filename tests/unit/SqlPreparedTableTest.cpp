#include "SqlPreparedTable.h"

#include "Environment.h"
#include "PlainNumbers.h"
#include "PreparedTableTest.h"
#include "SqlLiteral.h"

#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace report = test::report;

using sql::Field;
using sql::PreparedTable;
using sql::Presence;
using sql::Record;
using sql::Result;
using sql::Table;
using test::Texts;

static_assert(!std::is_polymorphic_v<PreparedTable>);
static_assert(!std::is_copy_constructible_v<PreparedTable>);
static_assert(!std::is_copy_assignable_v<PreparedTable>);
static_assert(std::is_constructible_v<PreparedTable, sql::Database&, Table&>);
static_assert(std::is_constructible_v<PreparedTable, sql::Database&, const Table&>);
static_assert(!std::is_constructible_v<PreparedTable, sql::Database&, Table>);
static_assert(!std::is_constructible_v<PreparedTable, sql::Database&, const Table>);

// Every operation by its exact signature.
using Rows = const Record*;
using Going = bool (&)(sql::integer);
template <typename Signature> constexpr bool has(Signature PreparedTable::*)
{
    return true;
}
static_assert(has<bool(const Record&)>(&PreparedTable::addRecord));
static_assert(has<bool(const Record&)>(&PreparedTable::updateRecord));
static_assert(has<bool(const Record&)>(&PreparedTable::addOrUpdateRecord));
static_assert(has<bool(const int&)>(&PreparedTable::deleteRecord<int>));
static_assert(has<sql::Presence(const int&)>(&PreparedTable::hasRecordWithKeyId<int>));
static_assert(has<sql::Result<bool>(const int&, Record&)>(&PreparedTable::readRecord<int>));
static_assert(has<bool(Rows, Rows)>(&PreparedTable::addRecords<Rows>));
static_assert(has<bool(Rows, Rows, Going)>(&PreparedTable::addRecords<Rows, Going>));
static_assert(has<bool(PreparedTable&)>(&PreparedTable::copyRecords));
static_assert(has<sql::RecordCursor(std::string_view, const int&)>(&PreparedTable::select<int>));
static_assert(has<sql::Result<std::vector<sql::string>>()>(&PreparedTable::checkDeclaration));
template <typename Signature> constexpr bool shares(Signature sql::TableStatements::*)
{
    return true;
}
static_assert(shares<sql::integer() const>(&PreparedTable::changes));
static_assert(shares<std::optional<sql::integer>() const>(&PreparedTable::lastKey));
static_assert(shares<const sql::Error&() const>(&PreparedTable::error));
static_assert(shares<void()>(&PreparedTable::release));

const std::string taken = "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: product.id";
const std::string other_columns = "21=SQLITE_MISUSE: the record has other columns than the table";
const std::string without_key = "21=SQLITE_MISUSE: there is no PRIMARY KEY column";
const std::string without_columns = "21=SQLITE_MISUSE: the table has no columns";
const std::string closed = "21=SQLITE_MISUSE: the database was closed or opened anew";
const std::string not_open = "21=SQLITE_MISUSE: the database is not open";

// --- One record

TEST_F(PreparedTableTest, RecordIsAdded)
{
    EXPECT_TRUE(_fast.addRecord(product(7, "tea", 2.5)));
    EXPECT_EQ(products(), "integer 7|text tea|real 2.5");
    EXPECT_EQ(_fast.changes(), 1);
    EXPECT_EQ(_fast.lastKey(), 7);
    EXPECT_FALSE(_fast.error());
}

TEST_F(PreparedTableTest, NullKeyIsChosenBySqlite)
{
    fill();
    EXPECT_TRUE(_fast.addRecord(test::product(_table, "rum", 8)));
    EXPECT_EQ(_fast.lastKey(), 4);
    EXPECT_TRUE(_fast.addRecord(test::product(_table, "rum", 8)));
    EXPECT_EQ(_fast.lastKey(), 5);
    EXPECT_EQ(rows("select * from product where id > 3"), "4|rum|8.0\n5|rum|8.0");
}

TEST_F(PreparedTableTest, RecordOfNullsIsOne)
{
    EXPECT_TRUE(_fast.addRecord(Record(*_table.fields())));
    EXPECT_EQ(products(), "integer 1|null|null");
    EXPECT_EQ(_fast.lastKey(), 1);
}

TEST_F(PreparedTableTest, KeyThatIsTakenIsRefused)
{
    fill();
    EXPECT_FALSE(_fast.addRecord(product(2, "rum", 8)));
    expectFailure(_fast, "addRecord", taken);
    EXPECT_TRUE(_fast.error().isConstraint());
    EXPECT_EQ(test::rows(_database.getHandle(), "select * from product"), test::three_products);
    EXPECT_TRUE(_fast.addRecord(product(4, "rum", 8)));
    EXPECT_FALSE(_fast.error());
    EXPECT_EQ(_fast.changes(), 1);
}

TEST_F(PreparedTableTest, UpdateSetsAllColumnsOfTheRowWithTheKey)
{
    fill();
    EXPECT_TRUE(_fast.updateRecord(product(2, "mocha", 5)));
    EXPECT_EQ(_fast.changes(), 1);
    EXPECT_EQ(_fast.lastKey(), std::nullopt);
    Record milk(*_table.fields());
    milk.setInteger("id", 3);
    EXPECT_TRUE(_fast.updateRecord(milk));
    EXPECT_EQ(rows("select * from product"), "1|tea|2.5\n2|mocha|5.0\n3|NULL|NULL");
}

TEST_F(PreparedTableTest, UpdateOfNoRowChangesNone)
{
    fill();
    EXPECT_TRUE(_fast.updateRecord(product(2, "mocha", 5)));
    EXPECT_TRUE(_fast.updateRecord(product(9, "rum", 8)));
    EXPECT_EQ(_fast.changes(), 0);
    EXPECT_FALSE(_fast.error());
    EXPECT_EQ(rows("select count(*) from product"), "3");
}

TEST_F(PreparedTableTest, UpdateThatIsRefusedChangesNothing)
{
    fill();
    run("create unique index name on product (name)");
    EXPECT_FALSE(_fast.updateRecord(product(2, "tea", 5)));
    expectFailure(_fast, "updateRecord",
                  "2067=SQLITE_CONSTRAINT_UNIQUE: UNIQUE constraint failed: product.name");
    EXPECT_EQ(rows("select * from product"), test::three_products);
}

TEST_F(PreparedTableTest, UpsertAddsOrUpdates)
{
    fill();
    EXPECT_TRUE(_fast.addOrUpdateRecord(product(4, "rum", 8)));
    EXPECT_EQ(_fast.changes(), 1);
    EXPECT_EQ(_fast.lastKey(), 4);
    EXPECT_TRUE(_fast.addOrUpdateRecord(product(2, "mocha", 5)));
    EXPECT_EQ(_fast.changes(), 1);
    EXPECT_EQ(_fast.lastKey(), std::nullopt);
    EXPECT_TRUE(_fast.addOrUpdateRecord(test::product(_table, "gin", 9)));
    EXPECT_EQ(_fast.lastKey(), 5);
    EXPECT_EQ(rows("select * from product"),
              "1|tea|2.5\n2|mocha|5.0\n3|milk|1.25\n4|rum|8.0\n5|gin|9.0");
}

TEST_F(PreparedTableTest, UpsertIsOneStatement)
{
    fill();
    const test::Statements statements(_database.getHandle());
    EXPECT_TRUE(_fast.addOrUpdateRecord(product(4, "rum", 8)));
    EXPECT_TRUE(_fast.addOrUpdateRecord(product(2, "mocha", 5)));
    EXPECT_EQ(statements.texts().size(), 2u);
}

TEST_F(PreparedTableTest, ColumnsThatAreNotDeclaredStay)
{
    run("alter table product add column stock integer default 5");
    fill();
    run("update product set stock = id * 10");
    EXPECT_TRUE(_fast.addOrUpdateRecord(product(2, "mocha", 5)));
    EXPECT_TRUE(_fast.updateRecord(product(3, "cream", 2)));
    EXPECT_TRUE(_fast.addRecord(product(4, "rum", 8)));
    EXPECT_EQ(rows("select * from product"),
              "1|tea|2.5|10\n2|mocha|5.0|20\n3|cream|2.0|30\n4|rum|8.0|5");
}

TEST_F(PreparedTableTest, UpsertDeletesNoRow)
{
    fill();
    run("pragma foreign_keys = on;"
        "create table sale (product references product on delete cascade);"
        "insert into sale values (2);"
        "create table log (id); create trigger gone after delete on product begin"
        " insert into log values (old.id); end");
    EXPECT_TRUE(_fast.addOrUpdateRecord(product(2, "mocha", 5)));
    EXPECT_EQ(rows("select product from sale"), "2");
    EXPECT_EQ(rows("select id from log"), "");
}

TEST_F(PreparedTableTest, UpsertIsRefusedByOtherConstraints)
{
    fill();
    run("create unique index name on product (name)");
    EXPECT_FALSE(_fast.addOrUpdateRecord(product(2, "tea", 5)));
    expectFailure(_fast, "addOrUpdateRecord",
                  "2067=SQLITE_CONSTRAINT_UNIQUE: UNIQUE constraint failed: product.name");
    EXPECT_EQ(rows("select * from product"), test::three_products);
}

TEST_F(PreparedTableTest, UpsertIntoATableWithoutTheKeysConstraintSaysSo)
{
    run("drop table product; create table product (id integer, name text, price real)");
    EXPECT_FALSE(_fast.addOrUpdateRecord(product(7, "tea", 2.5)));
    expectFailure(
        _fast, "addOrUpdateRecord",
        "1=SQLITE_ERROR: ON CONFLICT clause does not match any PRIMARY KEY or UNIQUE constraint");
    EXPECT_EQ(products(), "");
    run("create unique index id on product (id)");
    EXPECT_TRUE(_fast.addOrUpdateRecord(product(7, "tea", 2.5)));
    EXPECT_TRUE(_fast.addOrUpdateRecord(product(7, "rum", 8)));
    EXPECT_EQ(products(), "integer 7|text rum|real 8");
}

TEST_F(PreparedTableTest, RowIsDeletedByItsKey)
{
    fill();
    EXPECT_TRUE(_fast.deleteRecord(2));
    EXPECT_EQ(_fast.changes(), 1);
    EXPECT_EQ(_fast.lastKey(), std::nullopt);
    EXPECT_EQ(rows("select id from product"), "1\n3");
    EXPECT_TRUE(_fast.deleteRecord(2));
    EXPECT_EQ(_fast.changes(), 0);
    EXPECT_FALSE(_fast.error());
}

TEST_F(PreparedTableTest, DeletionThatIsRefusedChangesNothing)
{
    fill();
    run("create trigger kept before delete on product begin select raise(abort, 'not this'); end");
    EXPECT_FALSE(_fast.deleteRecord(2));
    expectFailure(_fast, "deleteRecord", "1811=SQLITE_CONSTRAINT_TRIGGER: not this");
    EXPECT_EQ(rows("select * from product"), test::three_products);
}

TEST_F(PreparedTableTest, ChangesLeaveOutThoseOfTriggers)
{
    fill();
    run("create table log (id); create trigger more after update on product begin"
        " insert into log values (1), (2); end");
    EXPECT_TRUE(_fast.updateRecord(product(2, "mocha", 5)));
    EXPECT_EQ(_fast.changes(), 1);
    EXPECT_TRUE(_fast.addOrUpdateRecord(product(2, "mocha", 6)));
    EXPECT_EQ(_fast.changes(), 1);
    EXPECT_EQ(rows("select count(*) from log"), "4");
}

TEST_F(PreparedTableTest, PresenceOfAKey)
{
    fill();
    EXPECT_EQ(_fast.hasRecordWithKeyId(2), Presence::present);
    EXPECT_EQ(_fast.changes(), 0);
    EXPECT_EQ(_fast.hasRecordWithKeyId(9), Presence::absent);
    EXPECT_FALSE(_fast.error());
    EXPECT_EQ(_fast.lastKey(), std::nullopt);
}

TEST_F(PreparedTableTest, RowIsReadIntoTheRecord)
{
    fill();
    Record record(*_table.fields());
    const Result<bool> coffee = _fast.readRecord(2, record);
    ASSERT_TRUE(coffee);
    EXPECT_TRUE(*coffee);
    EXPECT_FALSE(coffee.failed());
    EXPECT_EQ(test::cells(record), (Texts{"2 (integer)", "coffee (text)", "4.5 (float)"}));
    const sql::Value* const cell = record.getValue(0);
    EXPECT_TRUE(_fast.readRecord(3, record));
    EXPECT_EQ(record.toString(), "3|milk|1.25");
    EXPECT_EQ(record.getValue(0), cell) << "its memory is used again";
    EXPECT_EQ(_fast.changes(), 0);
}

TEST_F(PreparedTableTest, RowThatIsNotThereLeavesTheRecord)
{
    fill();
    Record record = product(7, "rum", 8);
    const Result<bool> none = _fast.readRecord(9, record);
    EXPECT_FALSE(none);
    EXPECT_FALSE(none.failed());
    EXPECT_FALSE(_fast.error());
    EXPECT_EQ(record.toString(), "7|rum|8.00000000");
}

TEST_F(PreparedTableTest, ResultsAreThoseOfTheLatestOperation)
{
    EXPECT_FALSE(_fast.error());
    EXPECT_EQ(_fast.changes(), 0);
    EXPECT_EQ(_fast.lastKey(), std::nullopt);
    EXPECT_TRUE(_fast.addRecord(product(7, "tea", 2.5)));
    EXPECT_EQ(_fast.hasRecordWithKeyId(7), Presence::present);
    EXPECT_EQ(_fast.changes(), 0);
    EXPECT_EQ(_fast.lastKey(), std::nullopt);
    EXPECT_FALSE(_fast.addRecord(product(7, "tea", 2.5)));
    expectFailure(_fast, "addRecord", taken);
    EXPECT_EQ(_fast.hasRecordWithKeyId(8), Presence::absent);
    EXPECT_FALSE(_fast.error());
    Record record(*_table.fields());
    EXPECT_FALSE(_fast.addRecord(product(7, "tea", 2.5)));
    expectFailure(_fast, "addRecord", taken);
    EXPECT_FALSE(_fast.readRecord(8, record));
    EXPECT_FALSE(_fast.error());
}

TEST_F(PreparedTableTest, KeyOfARowThatATriggerAddsIsNotTheRecords)
{
    run("create table log (id integer primary key); create trigger more after insert on product"
        " begin insert into log values (1000); end");
    EXPECT_TRUE(_fast.addRecord(test::product(_table, "tea", 2.5)));
    EXPECT_EQ(_fast.lastKey(), 1);
    EXPECT_EQ(_fast.changes(), 1);
}

TEST_F(PreparedTableTest, RecordThatTheSchemaIgnoresIsNotAdded)
{
    EXPECT_TRUE(_fast.addRecord(product(1, "tea", 2.5)));
    run("create trigger none before insert on product begin select raise(ignore); end");
    EXPECT_TRUE(_fast.addRecord(product(7, "rum", 8)));
    EXPECT_EQ(_fast.changes(), 0);
    EXPECT_EQ(_fast.lastKey(), std::nullopt);
    EXPECT_FALSE(_fast.error());
    EXPECT_EQ(rows("select id from product"), "1");
}

// --- The key column, of any type and in any place

TEST_F(PreparedTableTest, KeyMayStandInAnyPlace)
{
    const Field key("id", sql::type_int, sql::flag_primary_key);
    const Field name("name", sql::type_text, sql::flag_none);
    const Field price("price", sql::type_float, sql::flag_none);
    const auto expectAllOf = [this](const std::vector<Field>& fields, const Cells& tea,
                                    const Cells& rum, const std::string& stored) {
        Declared shelf(_database, fields);
        run("drop table if exists shelf");
        ASSERT_TRUE(shelf.table.create());
        PreparedTable& fast = shelf.fast;
        EXPECT_TRUE(fast.addRecord(shelf.record(tea)));
        EXPECT_EQ(fast.lastKey(), 7);
        EXPECT_TRUE(fast.updateRecord(shelf.record(rum)));
        EXPECT_EQ(fast.changes(), 1);
        EXPECT_EQ(rows("select * from shelf"), stored);
        EXPECT_TRUE(fast.addOrUpdateRecord(shelf.record(tea)));
        EXPECT_EQ(fast.lastKey(), std::nullopt);
        Record record(*shelf.table.fields());
        EXPECT_TRUE(fast.readRecord(7, record));
        EXPECT_EQ(textsOf(record), tea);
        EXPECT_EQ(fast.hasRecordWithKeyId(7), Presence::present);
        EXPECT_TRUE(fast.deleteRecord(7));
        EXPECT_EQ(fast.changes(), 1);
        EXPECT_EQ(rows("select * from shelf"), "");
    };
    expectAllOf({key, name, price}, {"7", "tea", "2.5"}, {"7", "rum", "8.5"}, "7|rum|8.5");
    expectAllOf({name, key, price}, {"tea", "7", "2.5"}, {"rum", "7", "8.5"}, "rum|7|8.5");
    expectAllOf({name, price, key}, {"tea", "2.5", "7"}, {"rum", "8.5", "7"}, "rum|8.5|7");
}

TEST_F(PreparedTableTest, KeyMayBeTheOnlyColumn)
{
    Declared shelf(_database, {Field("id", sql::type_int, sql::flag_primary_key)});
    ASSERT_TRUE(shelf.table.create());
    EXPECT_TRUE(shelf.fast.addRecord(shelf.record({"7"})));
    EXPECT_TRUE(shelf.fast.updateRecord(shelf.record({"7"})));
    EXPECT_EQ(shelf.fast.changes(), 1);
    EXPECT_TRUE(shelf.fast.updateRecord(shelf.record({"8"})));
    EXPECT_EQ(shelf.fast.changes(), 0);
    EXPECT_TRUE(shelf.fast.addOrUpdateRecord(shelf.record({"7"})));
    EXPECT_EQ(shelf.fast.changes(), 0);
    EXPECT_EQ(shelf.fast.lastKey(), std::nullopt);
    EXPECT_TRUE(shelf.fast.addOrUpdateRecord(shelf.record({"8"})));
    EXPECT_EQ(shelf.fast.lastKey(), 8);
    EXPECT_EQ(rows("select id from shelf"), "7\n8");
}

const std::vector<Field> text_key = {Field("code", sql::type_text, sql::flag_primary_key),
                                     Field("name", sql::type_text, sql::flag_none)};

TEST_F(PreparedTableTest, KeyMayBeAText)
{
    Declared shelf(_database, text_key);
    PreparedTable& fast = shelf.fast;
    ASSERT_TRUE(shelf.table.create());
    const std::string zeros("a\0b", 3);
    for (const std::string& key :
         {std::string("tea"), std::string("it's \"quoted\""), std::string("name"), std::string("7"),
          std::string("7.0"), std::string(" 7"), std::string(), std::string(" "), zeros,
          std::string("' or 1 = 1 --"), std::string("null"), std::string("code")}) {
        EXPECT_TRUE(fast.addRecord(shelf.record({key, "first"})));
        EXPECT_TRUE(fast.updateRecord(shelf.record({key, "second"})));
        EXPECT_EQ(fast.changes(), 1) << key;
        EXPECT_TRUE(fast.addOrUpdateRecord(shelf.record({key, key})));
        EXPECT_EQ(fast.changes(), 1) << key;
        EXPECT_EQ(fast.hasRecordWithKeyId(key), Presence::present) << key;
        Record record(*shelf.table.fields());
        EXPECT_TRUE(fast.readRecord(std::string_view(key), record));
        EXPECT_EQ(textsOf(record), (Cells{key, key}));
    }
    EXPECT_EQ(rows("select count(*), sum(code = name) from shelf"), "12|12");
    EXPECT_EQ(fast.hasRecordWithKeyId("a"), Presence::absent) << "the rest behind the zero byte";
    EXPECT_TRUE(fast.deleteRecord("it's \"quoted\""));
    EXPECT_EQ(fast.changes(), 1);
    EXPECT_TRUE(fast.deleteRecord("' or 1 = 1 --"));
    EXPECT_EQ(fast.changes(), 1);
    EXPECT_EQ(rows("select count(*) from shelf"), "10");
}

TEST_F(PreparedTableTest, IntegerIsTheTextOfItsDigitsForATextKey)
{
    Declared shelf(_database, text_key);
    ASSERT_TRUE(shelf.table.create());
    run("insert into shelf values ('7', 'seven'), ('-9223372036854775808', 'lowest'), ('07', '')");
    EXPECT_EQ(shelf.fast.hasRecordWithKeyId(7), Presence::present);
    EXPECT_EQ(shelf.fast.hasRecordWithKeyId(Limits<sql::integer>::min()), Presence::present);
    EXPECT_EQ(shelf.fast.hasRecordWithKeyId(8), Presence::absent);
    EXPECT_TRUE(shelf.fast.deleteRecord(7));
    EXPECT_EQ(rows("select name from shelf"), "lowest\n");
}

TEST_F(PreparedTableTest, KeyThatIsNoText)
{
    Declared shelf(_database, text_key);
    ASSERT_TRUE(shelf.table.create());
    run("insert into shelf values ('7.5', ''), ('7.0', ''), ('tea', '')");
    const std::string no_text = "20=SQLITE_MISMATCH: the key is no text";
    expectKeyFails(shelf, 7.5, no_text);
    expectKeyFails(shelf, 7.0, no_text);
    expectKeyFails(shelf, sql::Bytes{"tea", 3}, no_text);
    EXPECT_EQ(rows("select count(*) from shelf"), "3");
}

class IntegerKeyTest : public PreparedTableTest {
protected:
    IntegerKeyTest()
        : _shelf(_database, {Field("id", sql::type_int, sql::flag_primary_key),
                             Field("name", sql::type_text, sql::flag_none)})
    {
        EXPECT_TRUE(_shelf.table.create());
        run("insert into shelf values (7, 'seven'), (0, 'zero'), (1, 'one'), (-7, 'minus seven'),"
            " (-9223372036854775807 - 1, 'lowest'), (9223372036854775807, 'highest')");
    }

    void TearDown() override
    {
        _shelf.fast.release();
        PreparedTableTest::TearDown();
    }

    // The key is that of the row with this name.
    template <typename Key> void expectKey(const Key& key, const std::string& name)
    {
        PreparedTable& fast = _shelf.fast;
        Record record(*_shelf.table.fields());
        EXPECT_TRUE(fast.readRecord(key, record)) << name;
        EXPECT_EQ(record.getValue(1)->asString(), name);
        EXPECT_EQ(fast.hasRecordWithKeyId(key), Presence::present) << name;
        run("savepoint s");
        EXPECT_TRUE(fast.deleteRecord(key));
        EXPECT_EQ(fast.changes(), 1) << name;
        EXPECT_EQ(rows("select count(*) from shelf where name = '" + name + "'"), "0");
        run("rollback to s; release s");
    }

    Declared _shelf;
};

TEST_F(IntegerKeyTest, IntegersOfEveryType)
{
    enum class Size : short { seven = 7 };
    expectKey(7, "seven");
    expectKey(7u, "seven");
    expectKey(static_cast<signed char>(-7), "minus seven");
    expectKey(7ULL, "seven");
    expectKey(std::optional<int>(7), "seven");
    expectKey(Size::seven, "seven");
    expectKey(sql::Time(7), "seven");
    expectKey(true, "one");
    expectKey(Limits<sql::integer>::min(), "lowest");
    expectKey(Limits<sql::integer>::max(), "highest");
}

TEST_F(IntegerKeyTest, CanonicalDecimalsInATextAreIntegers)
{
    expectKey("7", "seven");
    expectKey(std::string("-7"), "minus seven");
    expectKey(std::string_view("0"), "zero");
    expectKey("9223372036854775807", "highest");
    expectKey("-9223372036854775808", "lowest");
    EXPECT_EQ(_shelf.fast.hasRecordWithKeyId("8"), Presence::absent);
}

TEST_F(IntegerKeyTest, OtherTextsAreNoIntegers)
{
    for (const std::string& key : {std::string("7.0"),
                                   std::string(" 7"),
                                   std::string("7 "),
                                   std::string("7e0"),
                                   std::string("+7"),
                                   std::string("07"),
                                   std::string("-07"),
                                   std::string("-0"),
                                   std::string("00"),
                                   std::string(),
                                   std::string("-"),
                                   std::string("0x7"),
                                   std::string("7\n"),
                                   std::string("\t7"),
                                   std::string("seven"),
                                   std::string("7\0", 2),
                                   std::string("7 or 1 = 1"),
                                   std::string("9223372036854775808"),
                                   std::string("--7"),
                                   std::string("-9223372036854775809"),
                                   std::string("99999999999999999999"),
                                   std::string("7,0"),
                                   std::string("null"),
                                   std::string("id")})
        expectKeyFails(_shelf, key, "20=SQLITE_MISMATCH: the key is no integer");
    EXPECT_EQ(rows("select count(*) from shelf"), "6");
}

TEST_F(IntegerKeyTest, OtherValuesAreNoIntegers)
{
    const std::string no_integer = "20=SQLITE_MISMATCH: the key is no integer";
    expectKeyFails(_shelf, 7.0, no_integer);
    expectKeyFails(_shelf, 7.5f, no_integer);
    expectKeyFails(_shelf, Limits<double>::quiet_NaN(), no_integer);
    expectKeyFails(_shelf, sql::Bytes{"7", 1}, no_integer);
    expectKeyFails(_shelf, std::vector<unsigned char>{'7'}, no_integer);
    expectKeyFails(_shelf, Limits<unsigned long long>::max(),
                   "20=SQLITE_MISMATCH: the key is above the range of integers");
    EXPECT_EQ(rows("select count(*) from shelf"), "6");
}

TEST_F(IntegerKeyTest, NullIsNoKey)
{
    const std::string null_key = "20=SQLITE_MISMATCH: the key is NULL";
    expectKeyFails(_shelf, nullptr, null_key);
    expectKeyFails(_shelf, std::optional<int>(), null_key);
    expectKeyFails(_shelf, static_cast<const char*>(nullptr), null_key);
    EXPECT_FALSE(_shelf.fast.updateRecord(_shelf.record({{}, "x"})));
    expectFailure(_shelf.fast, "updateRecord", null_key);
    Declared texts(_database, text_key, "texts");
    ASSERT_TRUE(texts.table.create());
    run("insert into texts values (null, 'nobody')");
    expectKeyFails(texts, nullptr, null_key);
    expectKeyFails(texts, std::optional<std::string>(), null_key);
    EXPECT_FALSE(texts.fast.updateRecord(texts.record({{}, "x"})));
    expectFailure(texts.fast, "updateRecord", null_key);
    EXPECT_EQ(rows("select name from texts"), "nobody");
}

TEST_F(IntegerKeyTest, UpdateTakesTheKeyAsAnyCellButItHasToBeAnInteger)
{
    const auto update = [this](const std::string& key) {
        return _shelf.fast.updateRecord(_shelf.record({key, "x" + key}));
    };
    EXPECT_TRUE(update("+7"));
    EXPECT_EQ(rows("select name from shelf where id = 7"), "x+7");
    EXPECT_TRUE(update("007"));
    EXPECT_EQ(rows("select name from shelf where id = 7"), "x007");
    for (const char* const key : {"7.0", "7.5", "7e0", "9223372036854775808"}) {
        EXPECT_FALSE(update(key));
        expectFailure(_shelf.fast, "updateRecord", "20=SQLITE_MISMATCH: the key is no integer");
    }
    EXPECT_EQ(rows("select name from shelf where id = 7"), "x007");
}

TEST_F(PreparedTableTest, NumberKeysOfEveryType)
{
    for (const sql::field_type type :
         {sql::type_int, sql::type_bool, sql::type_time, sql::type_float}) {
        Declared shelf(_database, {Field("name", sql::type_text, sql::flag_none),
                                   Field("id", type, sql::flag_primary_key)});
        run("drop table if exists shelf");
        ASSERT_TRUE(shelf.table.create());
        EXPECT_TRUE(shelf.fast.addRecord(shelf.record({"tea", "7"})));
        EXPECT_TRUE(shelf.fast.updateRecord(shelf.record({"rum", "7"})));
        EXPECT_EQ(shelf.fast.changes(), 1);
        EXPECT_TRUE(shelf.fast.addOrUpdateRecord(shelf.record({"gin", "7"})));
        EXPECT_EQ(rows("select name from shelf"), "gin");
        EXPECT_EQ(shelf.fast.hasRecordWithKeyId("7"), Presence::present);
        expectKeyFails(shelf, 7.0, "20=SQLITE_MISMATCH: the key is no integer");
        expectKeyFails(shelf, "7.0", "20=SQLITE_MISMATCH: the key is no integer");
        EXPECT_FALSE(shelf.fast.updateRecord(shelf.record({"x", "7.0"})));
        expectFailure(shelf.fast, "updateRecord", "20=SQLITE_MISMATCH: the key is no integer");
        EXPECT_TRUE(shelf.fast.deleteRecord(7));
        EXPECT_EQ(shelf.fast.changes(), 1);
    }
}

TEST_F(PreparedTableTest, KeyOfAColumnOfRealsIsAnIntegerToTheLastDigit)
{
    Declared shelf(_database, {Field("name", sql::type_text, sql::flag_none),
                               Field("id", sql::type_float, sql::flag_primary_key)});
    run("create table shelf (name, id integer primary key);"
        "insert into shelf values ('a', 9007199254740992), ('b', 9007199254740993)");
    EXPECT_TRUE(shelf.fast.updateRecord(shelf.record({"c", "9007199254740993"})));
    EXPECT_EQ(rows("select name from shelf order by id"), "a\nc");
}

TEST_F(PreparedTableTest, NullTextKeyIsWhatSqliteTakesItFor)
{
    Declared shelf(_database, text_key);
    ASSERT_TRUE(shelf.table.create());
    EXPECT_TRUE(shelf.fast.addRecord(shelf.record({{}, "a"})));
    EXPECT_TRUE(shelf.fast.addOrUpdateRecord(shelf.record({{}, "b"})));
    EXPECT_EQ(typedRows("select * from shelf"), "null|text a\nnull|text b");
}

// --- Statements

TEST_F(PreparedTableTest, StatementsHaveNamesQuotedAndValuesNumberedAsTheColumns)
{
    const Field a("a", sql::type_int, sql::flag_primary_key);
    const Field b("b", sql::type_text, sql::flag_none);
    const Field c("c", sql::type_float, sql::flag_primary_key);
    const Field d("d", sql::type_text, sql::flag_none);
    run("create table shelf (a, b, c, d, primary key (a, c));"
        "create table pair (a, c, primary key (a, c))");
    Declared shelf(_database, {a, b, c, d});
    Declared pair(_database, {a, c}, "pair");
    const test::Statements statements(_database.getHandle());
    EXPECT_TRUE(shelf.fast.addRecord(shelf.record({"1", "x", "2", "y"})));
    EXPECT_TRUE(shelf.fast.updateRecord(shelf.record({"1", "x", "2", "y"})));
    EXPECT_TRUE(shelf.fast.addOrUpdateRecord(shelf.record({"1", "x", "2", "y"})));
    EXPECT_TRUE(pair.fast.updateRecord(pair.record({"1", "2"})));
    EXPECT_TRUE(pair.fast.addOrUpdateRecord(pair.record({"1", "2"})));
    EXPECT_EQ(_fast.hasRecordWithKeyId(1), Presence::absent);
    EXPECT_TRUE(_fast.deleteRecord(1));
    Record record(*_table.fields());
    EXPECT_FALSE(_fast.readRecord(1, record));
    EXPECT_EQ(
        statements.texts(),
        (std::vector<std::string>{
            "insert into `shelf` (`a`, `b`, `c`, `d`) values (?, ?, ?, ?)",
            "update `shelf` set `b` = ?2, `d` = ?4 where `a` = ?1 and `c` = ?3",
            "insert into `shelf` (`a`, `b`, `c`, `d`) values (?, ?, ?, ?) on conflict (`a`, `c`)"
            " do update set `b` = excluded.`b`, `d` = excluded.`d`",
            "update `pair` set `a` = ?1, `c` = ?2 where `a` = ?1 and `c` = ?2",
            "insert into `pair` (`a`, `c`) values (?, ?) on conflict (`a`, `c`) do nothing",
            "select 1 from `product` where `id` = ?", "delete from `product` where `id` = ?",
            "select `id`, `name`, `price` from `product` where `id` = ?"}));
}

// --- No key column, or several

TEST_F(PreparedTableTest, WithoutAKeyColumnRecordsAreAddedAlone)
{
    Declared shelf(_database, {Field("name", sql::type_text, sql::flag_none),
                               Field("price", sql::type_float, sql::flag_none)});
    ASSERT_TRUE(shelf.table.create());
    const Record tea = shelf.record({"tea", "2.5"});
    EXPECT_TRUE(shelf.fast.addRecord(tea));
    EXPECT_TRUE(shelf.fast.addRecord(tea));
    EXPECT_EQ(shelf.fast.changes(), 1);
    EXPECT_FALSE(shelf.fast.updateRecord(tea));
    expectFailure(shelf.fast, "updateRecord", without_key);
    EXPECT_FALSE(shelf.fast.addOrUpdateRecord(tea));
    expectFailure(shelf.fast, "addOrUpdateRecord", without_key);
    expectKeyFails(shelf, 1, without_key);
    expectKeyFails(shelf, "tea", without_key);
    EXPECT_EQ(rows("select * from shelf"), "tea|2.5\ntea|2.5");
}

TEST_F(PreparedTableTest, SeveralKeyColumnsAreOneKey)
{
    Declared shelf(_database, {Field("row", sql::type_int, sql::flag_primary_key),
                               Field("name", sql::type_text, sql::flag_none),
                               Field("place", sql::type_text, sql::flag_primary_key)});
    run("create table shelf (row integer, name text, place text, primary key (row, place));"
        "insert into shelf values (1, 'tea', 'left'), (1, 'rum', 'right'), (2, 'gin', 'left')");
    EXPECT_TRUE(shelf.fast.updateRecord(shelf.record({"1", "water", "right"})));
    EXPECT_EQ(shelf.fast.changes(), 1);
    EXPECT_TRUE(shelf.fast.addOrUpdateRecord(shelf.record({"2", "wine", "left"})));
    EXPECT_TRUE(shelf.fast.addOrUpdateRecord(shelf.record({"2", "beer", "right"})));
    EXPECT_TRUE(shelf.fast.updateRecord(shelf.record({"3", "none", "left"})));
    EXPECT_EQ(shelf.fast.changes(), 0);
    const std::string stored = "1|tea|left\n1|water|right\n2|wine|left\n2|beer|right";
    EXPECT_EQ(rows("select * from shelf"), stored);
    expectKeyFails(shelf, 1, "21=SQLITE_MISUSE: the key has 2 columns");
    expectKeyFails(shelf, "left", "21=SQLITE_MISUSE: the key has 2 columns");
    EXPECT_FALSE(shelf.fast.updateRecord(shelf.record({"1", "x", {}})));
    expectFailure(shelf.fast, "updateRecord", "20=SQLITE_MISMATCH: the key is NULL");
    EXPECT_FALSE(shelf.fast.updateRecord(shelf.record({"1.0", "x", "left"})));
    expectFailure(shelf.fast, "updateRecord", "20=SQLITE_MISMATCH: the key is no integer");
    EXPECT_EQ(rows("select * from shelf"), stored);
}

// --- Cells on their way in

// One column of each type in a table whose columns take every value as it comes.
class CellTest : public PreparedTableTest {
protected:
    CellTest()
        : _shelf(_database, {Field("id", sql::type_int, sql::flag_primary_key),
                             Field("whole", sql::type_int, sql::flag_none),
                             Field("words", sql::type_text, sql::flag_none),
                             Field("share", sql::type_float, sql::flag_none),
                             Field("truth", sql::type_bool, sql::flag_none),
                             Field("at", sql::type_time, sql::flag_none),
                             Field("any", static_cast<sql::field_type>(77), sql::flag_none)})
    {
        run("create table shelf (id integer primary key, whole, words, share, truth, at, any)");
    }

    void TearDown() override
    {
        _shelf.fast.release();
        PreparedTableTest::TearDown();
    }

    // A row of this text in one of the columns.
    Record with(int column, const std::string& text)
    {
        Record record(*_shelf.table.fields());
        record.setInteger(0, 7);
        record.setString(column, text);
        return record;
    }

    // How the text is stored in that column.
    std::string stored(int column, const std::string& text)
    {
        run("delete from shelf");
        EXPECT_TRUE(_shelf.fast.addRecord(with(column, text))) << column << " " << text;
        const std::string name = _shelf.table.fields()->getByIndex(column)->getName();
        const std::string added = typedRows("select " + name + " from shelf");
        run("update shelf set " + name + " = 'changed'");
        EXPECT_TRUE(_shelf.fast.updateRecord(with(column, text)));
        EXPECT_EQ(typedRows("select " + name + " from shelf"), added);
        run("update shelf set " + name + " = 'changed'");
        EXPECT_TRUE(_shelf.fast.addOrUpdateRecord(with(column, text)));
        EXPECT_EQ(typedRows("select " + name + " from shelf"), added);
        return added;
    }

    void expectNoNumber(int column, const std::string& text)
    {
        const std::string name = _shelf.table.fields()->getByIndex(column)->getName();
        const std::string reason = "20=SQLITE_MISMATCH: column " + name + " is no number";
        run("delete from shelf; insert into shelf values (7, 1, 2, 3, 4, 5, 6)");
        EXPECT_FALSE(_shelf.fast.addRecord(with(column, text))) << text;
        expectFailure(_shelf.fast, "addRecord", reason);
        EXPECT_FALSE(_shelf.fast.updateRecord(with(column, text))) << text;
        expectFailure(_shelf.fast, "updateRecord", reason);
        EXPECT_FALSE(_shelf.fast.addOrUpdateRecord(with(column, text))) << text;
        expectFailure(_shelf.fast, "addOrUpdateRecord", reason);
        EXPECT_EQ(rows("select * from shelf"), "7|1|2|3|4|5|6");
    }

    Declared _shelf;
};

enum { whole = 1, words, share, truth, at, any };
const int number_columns[] = {whole, share, truth, at};

TEST_F(CellTest, IntegersAreStoredAsSuch)
{
    for (const int column : {whole, truth, at}) {
        EXPECT_EQ(stored(column, "7"), "integer 7");
        EXPECT_EQ(stored(column, "0"), "integer 0");
        EXPECT_EQ(stored(column, "-0"), "integer 0");
        EXPECT_EQ(stored(column, "-7"), "integer -7");
        EXPECT_EQ(stored(column, "+7"), "integer 7");
        EXPECT_EQ(stored(column, "007"), "integer 7");
        EXPECT_EQ(stored(column, "9223372036854775807"), "integer 9223372036854775807");
        EXPECT_EQ(stored(column, "-9223372036854775808"), "integer -9223372036854775808");
    }
}

TEST_F(CellTest, OtherNumbersAreStoredAsReals)
{
    for (const int column : number_columns) {
        EXPECT_EQ(stored(column, "2.5"), "real 2.5");
        EXPECT_EQ(stored(column, "7.0"), "real 7");
        EXPECT_EQ(stored(column, "+.5"), "real 0.5");
        EXPECT_EQ(stored(column, "7."), "real 7");
        EXPECT_EQ(stored(column, "1e3"), "real 1000");
        EXPECT_EQ(stored(column, "-1E-3"), "real -0.001");
        EXPECT_EQ(stored(column, "9223372036854775808"), "real 9223372036854775808");
        EXPECT_EQ(stored(column, "-99999999999999999999"), "real -1e+20");
        EXPECT_EQ(stored(column, "1.7976931348623157e308"), "real 1.7976931348623157e+308");
        EXPECT_EQ(stored(column, "4.9e-324"), "real 5e-324");
        EXPECT_EQ(stored(column, "0.1"), "real 0.1");
        EXPECT_EQ(stored(column, "0.30000000000000004"), "real 0.30000000000000004");
    }
}

TEST_F(CellTest, IntegersOfARealColumnAreReals)
{
    EXPECT_EQ(stored(share, "7"), "real 7");
    EXPECT_EQ(stored(share, "-0.0"), "real -0");
    EXPECT_EQ(stored(share, "9007199254740993"), "real 9007199254740992");
}

TEST_F(CellTest, TextsThatAreNoNumbersAreRefused)
{
    for (const int column : number_columns) {
        for (const char* const text : {"",
                                       " ",
                                       "tea",
                                       "7x",
                                       " 7",
                                       "7 ",
                                       "\t7",
                                       "7\n",
                                       "0x10",
                                       "7,5",
                                       "1e",
                                       "1e+",
                                       ".",
                                       "+",
                                       "-",
                                       "+-7",
                                       "-+7",
                                       "++7",
                                       "--7",
                                       "inf",
                                       "-inf",
                                       "nan",
                                       "NaN",
                                       "Infinity",
                                       "1e400",
                                       "-1e400",
                                       "1e-400",
                                       "null",
                                       "true",
                                       "1_000",
                                       "1;",
                                       "(1)",
                                       "whole",
                                       "1 or 1 = 1",
                                       "1); drop table shelf; --",
                                       "(select max(id) from shelf)",
                                       "x'37'",
                                       "'7'"})
            expectNoNumber(column, text);
        expectNoNumber(column, std::string("7\0", 2));
        expectNoNumber(column, std::string("7\0008", 3));
    }
}

TEST_F(CellTest, TextsAreStoredWithTheirZeroBytes)
{
    for (const std::string& text :
         {std::string("tea"), std::string(), std::string("a\0b", 3), std::string("\0", 1),
          std::string("7"), std::string("2.5"), std::string("it's"), std::string("null"),
          std::string("'); drop table shelf; --"), std::string("\xC3\xA9\xFF"),
          std::string(100000, 'x')}) {
        EXPECT_EQ(stored(words, text), "text " + text);
        EXPECT_EQ(stored(any, text), "text " + text);
    }
}

TEST_F(CellTest, CellsGoInByTheColumnsTypeWhateverTheirOwn)
{
    const test::TimeZone zone;
    Record record = with(whole, "1");
    ASSERT_TRUE(record.initColumnValue(words, "86399", sql::type_time));
    ASSERT_TRUE(record.initColumnValue(whole, "7", sql::type_text));
    ASSERT_TRUE(record.initColumnValue(share, "86399", sql::type_time));
    ASSERT_TRUE(record.initColumnValue(truth, "2.5", sql::type_text));
    ASSERT_TRUE(record.initColumnValue(at, "5", sql::type_float));
    ASSERT_TRUE(record.initColumnValue(any, "7", sql::type_int));
    EXPECT_TRUE(_shelf.fast.addRecord(record));
    EXPECT_EQ(typedRows("select * from shelf"),
              "integer 7|integer 7|text 02-01-1970 00:59:59, Fri|real 86399|real 2.5|integer 5"
              "|text 7");
}

TEST_F(CellTest, NullIsNullInEveryColumn)
{
    Record record(*_shelf.table.fields());
    ASSERT_TRUE(record.initColumnValue(words, nullptr, sql::type_time));
    EXPECT_TRUE(_shelf.fast.addRecord(record));
    EXPECT_EQ(typedRows("select * from shelf"), "integer 1|null|null|null|null|null|null");
}

TEST_F(CellTest, SettersOfARecordStoreWhatTheySay)
{
    Record record(*_shelf.table.fields());
    record.setInteger(whole, Limits<sql::integer>::min());
    record.setString(words, "tea");
    record.setDouble(share, -1234567.125);
    record.setBool(truth, true);
    record.setTime(at, sql::Time(1616893200));
    record.setString(any, "7");
    EXPECT_TRUE(_shelf.fast.addRecord(record));
    EXPECT_EQ(typedRows("select * from shelf"),
              "integer 1|integer -9223372036854775808|text tea|real -1234567.125|integer 1"
              "|integer 1616893200|text 7");
    record.setDouble(share, Limits<double>::infinity());
    EXPECT_FALSE(_shelf.fast.addRecord(record));
    expectFailure(_shelf.fast, "addRecord", "20=SQLITE_MISMATCH: column share is no number");
    record.setDouble(share, Limits<double>::quiet_NaN());
    EXPECT_FALSE(_shelf.fast.addRecord(record));
    expectFailure(_shelf.fast, "addRecord", "20=SQLITE_MISMATCH: column share is no number");
}

TEST_F(CellTest, NumbersDoNotFollowTheLocale)
{
    const test::CommaLocale locale;
    EXPECT_EQ(stored(share, "1234567.125"), "real 1234567.125");
    expectNoNumber(share, "1234567,125");
    Record record(*_shelf.table.fields());
    EXPECT_TRUE(_shelf.fast.addOrUpdateRecord(with(share, "1234567.125")));
    EXPECT_TRUE(_shelf.fast.readRecord(7, record));
    EXPECT_EQ(record.getValue(share)->asString(), "1234567.125");
}

TEST_F(CellTest, FirstCellThatIsNoNumberIsNamed)
{
    Record record = with(at, "now");
    record.setString(share, "much");
    EXPECT_FALSE(_shelf.fast.addRecord(record));
    expectFailure(_shelf.fast, "addRecord", "20=SQLITE_MISMATCH: column share is no number");
    EXPECT_TRUE(_shelf.fast.error().isMismatch());
}

TEST_F(CellTest, LongestTextIsSqlitesToRefuse)
{
    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_LENGTH, 1000);
    EXPECT_FALSE(_shelf.fast.addRecord(with(words, std::string(1001, 'x'))));
    expectFailure(_shelf.fast, "addRecord", "18=SQLITE_TOOBIG: string or blob too big");
    EXPECT_TRUE(_shelf.fast.error().isTooBig());
    EXPECT_EQ(rows("select count(*) from shelf"), "0");
}

// --- Cells on their way out

// What a cell of SQLite's, given as SQL, is in a record; the same in every column.
class ReadCellTest : public CellTest {
protected:
    std::optional<std::string> text(const std::string& sql)
    {
        run("delete from shelf; insert into shelf select 7, " + sql + ", " + sql + ", " + sql + ", "
            + sql + ", null, " + sql);
        Record record(*_shelf.table.fields());
        EXPECT_TRUE(_shelf.fast.readRecord(7, record)) << sql;
        const Cells cells = textsOf(record);
        for (const int column : {words, share, truth, any})
            EXPECT_EQ(cells[column], cells[whole]) << sql;
        return cells[whole];
    }
};

TEST_F(ReadCellTest, IntegersTextsAndNull)
{
    EXPECT_EQ(text("7"), "7");
    EXPECT_EQ(text("-9223372036854775807 - 1"), "-9223372036854775808");
    EXPECT_EQ(text("9223372036854775807"), "9223372036854775807");
    EXPECT_EQ(text("null"), std::nullopt);
    EXPECT_EQ(text("''"), "");
    EXPECT_EQ(text("'tea'"), "tea");
    EXPECT_EQ(text("' 007'"), " 007");
    EXPECT_EQ(text("'2.50'"), "2.50");
    EXPECT_EQ(text("'a' || char(0) || 'b'"), std::string("a\0b", 3));
    EXPECT_EQ(text("char(0)"), std::string("\0", 1));
    EXPECT_EQ(text("cast(x'C3A9FF' as text)"), "\xC3\xA9\xFF");
}

// Up to fifteen digits it is SQLite's own text, which Table holds.
TEST_F(ReadCellTest, RealsAreTheShortestDigitsOfThatReal)
{
    for (const char* const real : {"2.5",
                                   "0.1",
                                   "3.0",
                                   "-3.0",
                                   "0.0",
                                   "100000.0",
                                   "1000000.0",
                                   "1e8",
                                   "123456789",
                                   "123456.75",
                                   "0.0001",
                                   "0.00012345",
                                   "-1.25",
                                   "1e14",
                                   "999999999999999.0",
                                   "0.333",
                                   "1.0e-3",
                                   "299792458.0",
                                   "12345678901234.5",
                                   "1616893200.0"}) {
        const std::string cell = "cast(" + std::string(real) + " as real)";
        EXPECT_EQ(text(cell), rows("select " + cell)) << real;
    }
    EXPECT_EQ(text("100000.0"), "100000.0") << "asInteger() would stop at an exponent";
    EXPECT_EQ(text("1e15"), "1e+15");
    EXPECT_EQ(text("0.1 + 0.2"), "0.30000000000000004");
    EXPECT_EQ(text("1.0 / 3"), "0.3333333333333333");
    EXPECT_EQ(text("2.0 / 3"), "0.6666666666666666");
}

TEST_F(ReadCellTest, RealsBeyondHaveAllTheirDigits)
{
    for (const char* const real :
         {"1e15", "1e20", "-1e20", "1e22", "1e23", "1e100", "1.7e308", "2.2250738585072014e-308",
          "4.9e-324", "1e-5", "1.0000000000000002", "9007199254740993.0", "9.223372036854775807e18",
          "-0.0", "123456789.123456789", "-0.1234567890123456789"}) {
        const std::string read = text(real).value_or("");
        const std::string stored = typedRows("select whole from shelf");
        EXPECT_EQ(test::readDouble(read), test::readDouble(stored.substr(5))) << read;
        EXPECT_EQ(read[0] == '-', stored[5] == '-') << read;
        EXPECT_NE(read.find_first_of(".e"), std::string::npos) << read << " looks like an integer";
    }
}

TEST_F(ReadCellTest, InfiniteRealsAreSqlitesText)
{
    EXPECT_EQ(text("9e999"), "Inf");
    EXPECT_EQ(text("-9e999"), "-Inf");
    Record record(*_shelf.table.fields());
    ASSERT_TRUE(_shelf.fast.readRecord(7, record));
    EXPECT_FALSE(_shelf.fast.updateRecord(record)) << "infinity is no number to store";
    expectFailure(_shelf.fast, "updateRecord", "20=SQLITE_MISMATCH: column whole is no number");
}

TEST_F(ReadCellTest, WhatWasReadIsWrittenBackTheSame)
{
    run("insert into shelf (id, words, share, whole) values"
        " (1, 'a' || char(0), 0.1 + 0.2, 7), (2, '', 1e-320, -7.25), (3, null, -1e300, 2.0),"
        " (4, '7', 1.0 / 3, 9223372036854775807), (5, ' ', 123456789012345678.0, -0.0)");
    const std::string before = typedRows("select * from shelf");
    for (int id = 1; id <= 5; ++id) {
        Record record(*_shelf.table.fields());
        ASSERT_TRUE(_shelf.fast.readRecord(id, record));
        run("update shelf set words = 1, share = 1, whole = 1 where id = " + std::to_string(id));
        ASSERT_TRUE(_shelf.fast.updateRecord(record));
    }
    EXPECT_EQ(typedRows("select * from shelf"), before);
}

TEST_F(ReadCellTest, CellsHaveTheTypesOfTheirColumns)
{
    const test::TimeZone zone;
    run("insert into shelf values (7, 'tea', 2, 3, 4, 86399, 6)");
    Record record(*_shelf.table.fields());
    ASSERT_TRUE(_shelf.fast.readRecord(7, record));
    record.setNull(any);
    for (int i = 0; i < any; ++i)
        EXPECT_EQ(record.getValue(i)->getType(), _shelf.table.fields()->getByIndex(i)->getType());
    EXPECT_EQ(record.toString(), "7|tea|2|3|4|02-01-1970 00:59:59, Fri|null");
}

TEST_F(ReadCellTest, NullHasNoTextOfTheRowBefore)
{
    run("insert into shelf (id, words) values (7, 'tea'), (8, null)");
    Record record(*_shelf.table.fields());
    ASSERT_TRUE(_shelf.fast.readRecord(7, record));
    ASSERT_TRUE(_shelf.fast.readRecord(8, record));
    EXPECT_EQ(record.getValue(words)->asString(), "");
}

TEST_F(ReadCellTest, BlockOfBytesFailsAndNamesItsColumn)
{
    for (const char* const block : {"x'746561'", "x''", "zeroblob(100)", "x'37'"}) {
        run("delete from shelf; insert into shelf values (7, 1, 'new', 2.5, 1, 5, "
            + std::string(block) + ")");
        Record record = with(words, "old");
        const Result<bool> read = _shelf.fast.readRecord(7, record);
        EXPECT_FALSE(read);
        EXPECT_TRUE(read.failed());
        expectFailure(_shelf.fast, "readRecord",
                      "20=SQLITE_MISMATCH: column any is a block of bytes");
        EXPECT_EQ(textsOf(record), (Cells{"7", {}, "old", {}, {}, {}, {}})) << "all cells or none";
    }
    EXPECT_EQ(_shelf.fast.hasRecordWithKeyId(7), Presence::present);
    run("update shelf set words = x'00'");
    Record record(*_shelf.table.fields());
    EXPECT_TRUE(_shelf.fast.readRecord(7, record).failed());
    expectFailure(_shelf.fast, "readRecord",
                  "20=SQLITE_MISMATCH: column words is a block of bytes");
    run("update shelf set words = 'new', any = null");
    EXPECT_TRUE(_shelf.fast.readRecord(7, record));
    EXPECT_EQ(record.getValue(words)->asString(), "new");
}

// --- Columns

TEST_F(PreparedTableTest, RecordsNeedTheTablesColumns)
{
    fill();
    const Field id("id", sql::type_int, sql::flag_primary_key);
    const Field name("name", sql::type_text, sql::flag_none);
    const Field price("price", sql::type_float, sql::flag_none);
    const Field stock("stock", sql::type_int, sql::flag_none);
    const std::vector<Field> others[] = {{id, name},           {id, name, price, stock},
                                         {id, price, name},    {id, name, stock},
                                         {stock, name, price}, {}};
    for (const std::vector<Field>& fields : others) {
        const sql::FieldSet set(fields);
        Record record(set);
        const Cells before = textsOf(record);
        EXPECT_FALSE(_fast.addRecord(record));
        expectFailure(_fast, "addRecord", other_columns);
        EXPECT_FALSE(_fast.updateRecord(record));
        expectFailure(_fast, "updateRecord", other_columns);
        EXPECT_FALSE(_fast.addOrUpdateRecord(record));
        expectFailure(_fast, "addOrUpdateRecord", other_columns);
        EXPECT_TRUE(_fast.readRecord(2, record).failed());
        expectFailure(_fast, "readRecord", other_columns);
        EXPECT_EQ(textsOf(record), before);
    }
    EXPECT_EQ(rows("select * from product"), test::three_products);
}

TEST_F(PreparedTableTest, RecordWhoseColumnsHaveChangedHasOthers)
{
    fill();
    sql::FieldSet fields(*_table.fields());
    const Record record(fields);
    fields = sql::FieldSet({Field("id", sql::type_int, sql::flag_primary_key)});
    EXPECT_FALSE(_fast.addRecord(record));
    expectFailure(_fast, "addRecord", other_columns);
}

TEST_F(PreparedTableTest, RecordThatWasMovedAwayHasNoColumns)
{
    fill();
    Record record = product(2, "rum", 8);
    const Record owner(std::move(record));
    EXPECT_FALSE(_fast.addRecord(record)); // NOLINT(bugprone-use-after-move)
    expectFailure(_fast, "addRecord", other_columns);
    EXPECT_FALSE(_fast.updateRecord(record));
    expectFailure(_fast, "updateRecord", other_columns);
    EXPECT_TRUE(_fast.readRecord(2, record).failed());
    expectFailure(_fast, "readRecord", other_columns);
    EXPECT_EQ(rows("select * from product"), test::three_products);
}

TEST_F(PreparedTableTest, SameColumnsOfAnotherSetWillDo)
{
    const sql::FieldSet own(test::product_columns);
    const sql::FieldSet texts(std::vector<Field>{Field("id", sql::type_text, sql::flag_none),
                                                 Field("name", sql::type_text, sql::flag_none),
                                                 Field("price", sql::type_text, sql::flag_none)});
    for (const sql::FieldSet* const fields : {&own, &texts}) {
        run("delete from product");
        Record record(*fields);
        record.setString(0, "7");
        record.setString(1, "2.5");
        record.setString(2, "2.5");
        EXPECT_TRUE(_fast.addRecord(record));
        EXPECT_EQ(products(), "integer 7|text 2.5|real 2.5");
        run("update product set name = 'tea'");
        EXPECT_TRUE(_fast.readRecord(7, record));
        EXPECT_EQ(record.toString(), "7|tea|2.5");
        EXPECT_EQ(record.fields(), fields);
    }
}

TEST_F(PreparedTableTest, NamesAreQuoted)
{
    const std::string table = "or`der \"by' [1]; --";
    const std::vector<std::string> names = {"select", "a`b", "\"x\"", "where 1 = 1; --", "\xFF%s"};
    std::string definition = "create table " + sql::quoteIdentifier(table) + " (";
    std::vector<Field> fields;
    for (const std::string& name : names) {
        definition += (fields.empty() ? "" : ", ") + sql::quoteIdentifier(name)
                      + (fields.empty() ? " integer primary key" : " text");
        fields.emplace_back(name, fields.empty() ? sql::type_int : sql::type_text,
                            fields.empty() ? sql::flag_primary_key : sql::flag_none);
    }
    run(definition + ")");
    Declared odd(_database, fields, table);
    const std::string all = "select * from " + sql::quoteIdentifier(table);
    EXPECT_TRUE(odd.fast.addRecord(odd.record({"7", "a", "b", "c", "d"})));
    EXPECT_TRUE(odd.fast.updateRecord(odd.record({"7", "e", "f", "g", "h"})));
    EXPECT_EQ(rows(all), "7|e|f|g|h");
    EXPECT_TRUE(odd.fast.addOrUpdateRecord(odd.record({"7", "i", "j", "k", "l"})));
    Record record(*odd.table.fields());
    EXPECT_TRUE(odd.fast.readRecord(7, record));
    EXPECT_EQ(record.toString(), "7|i|j|k|l");
    EXPECT_EQ(odd.fast.hasRecordWithKeyId(7), Presence::present);
    EXPECT_TRUE(odd.fast.deleteRecord(7));
    EXPECT_EQ(rows(all), "");
    EXPECT_EQ(rows("select count(*) from product"), "0");
}

TEST_F(PreparedTableTest, UnknownColumnIsNoText)
{
    Declared shelf(_database, {Field("id", sql::type_int, sql::flag_primary_key),
                               Field("colour", sql::type_text, sql::flag_none)});
    run("create table shelf (id integer primary key, name text); insert into shelf values (7, '')");
    Record record(*shelf.table.fields());
    EXPECT_TRUE(shelf.fast.readRecord(7, record).failed());
    expectFailure(shelf.fast, "readRecord", "1=SQLITE_ERROR: no such column: colour");
    EXPECT_FALSE(shelf.fast.addRecord(shelf.record({"8", "red"})));
    expectFailure(shelf.fast, "addRecord",
                  "1=SQLITE_ERROR: table shelf has no column named colour");
    EXPECT_FALSE(shelf.fast.updateRecord(shelf.record({"7", "red"})));
    expectFailure(shelf.fast, "updateRecord", "1=SQLITE_ERROR: no such column: colour");
}

TEST_F(PreparedTableTest, ZeroByteInANameIsAFailure)
{
    Declared shelf(_database, text_key, std::string("product\0x", 9));
    EXPECT_FALSE(shelf.fast.addRecord(shelf.record({"a", "b"})));
    expectFailure(shelf.fast.error(), "addRecord",
                  "21=SQLITE_MISUSE: there is a zero byte in the text");
}

// SQLite would take the first of them in an INSERT, the last in an UPDATE. As those of a Table's.
TEST_F(PreparedTableTest, FirstCellOfARepeatedNameIsTheColumns)
{
    Declared shelf(_database, {Field("id", sql::type_int, sql::flag_primary_key),
                               Field("name", sql::type_text, sql::flag_none),
                               Field("name", sql::type_text, sql::flag_none),
                               Field("NAME", sql::type_text, sql::flag_none)});
    run("create table shelf (id integer primary key, name text)");
    EXPECT_TRUE(shelf.fast.addRecord(shelf.record({"7", "first", "second", "x"})));
    EXPECT_EQ(rows("select * from shelf"), "7|first");
    EXPECT_TRUE(shelf.fast.updateRecord(shelf.record({"7", "third", "fourth", "x"})));
    EXPECT_EQ(rows("select * from shelf"), "7|third");
    EXPECT_TRUE(shelf.fast.addOrUpdateRecord(shelf.record({"7", "fifth", "sixth", "x"})));
    EXPECT_EQ(rows("select * from shelf"), "7|fifth");
    Record record(*shelf.table.fields());
    EXPECT_TRUE(shelf.fast.readRecord(7, record));
    EXPECT_EQ(record.toString(), "7|fifth|fifth|fifth");
}

TEST_F(PreparedTableTest, TableWithoutColumnsIsAFailure)
{
    Declared none(_database, {}, "product");
    EXPECT_FALSE(none.fast.addRecord(Record(*none.table.fields())));
    expectFailure(none.fast, "addRecord", without_columns);
    EXPECT_EQ(products(), "");
}

TEST_F(PreparedTableTest, TableItselfNeedsNoConnection)
{
    const Table unconnected(nullptr, "product", sql::FieldSet(test::product_columns));
    PreparedTable fast(_database, unconnected);
    EXPECT_TRUE(fast.addRecord(product(7, "tea", 2.5)));
    EXPECT_EQ(products(), "integer 7|text tea|real 2.5");
}

// --- Statements

TEST_F(PreparedTableTest, FailureHasTheStatementWithItsParameters)
{
    fill();
    run("create trigger a before insert on product begin select raise(abort, 'no'); end;"
        "create trigger u before update on product begin select raise(abort, 'no'); end;"
        "create trigger d before delete on product begin select raise(abort, 'no'); end");
    const std::string no = "1811=SQLITE_CONSTRAINT_TRIGGER: no";
    EXPECT_FALSE(_fast.addRecord(product(7, "rum", 8)));
    expectFailure(_fast.error(), "addRecord", no,
                  "insert into `product` (`id`, `name`, `price`) values (?, ?, ?)");
    EXPECT_FALSE(_fast.updateRecord(product(2, "rum", 8)));
    expectFailure(_fast.error(), "updateRecord", no,
                  "update `product` set `name` = ?2, `price` = ?3 where `id` = ?1");
    EXPECT_FALSE(_fast.deleteRecord(2));
    expectFailure(_fast.error(), "deleteRecord", no, "delete from `product` where `id` = ?");
}

TEST_F(PreparedTableTest, StatementsAreCompiledOnce)
{
    int compiled = 0;
    const auto count = [](void* number, int action, const char*, const char*, const char*,
                          const char*) {
        if (action == SQLITE_INSERT || action == SQLITE_UPDATE || action == SQLITE_DELETE
            || action == SQLITE_SELECT)
            ++*static_cast<int*>(number);
        return SQLITE_OK;
    };
    fill();
    sqlite3_set_authorizer(_database.getHandle(), count, &compiled);
    int first = 0;
    for (int id = 10; id < 20; ++id) {
        Record record(*_table.fields());
        EXPECT_TRUE(_fast.addRecord(product(id, "tea", 2.5)));
        EXPECT_TRUE(_fast.updateRecord(product(id, "rum", 8)));
        EXPECT_TRUE(_fast.addOrUpdateRecord(product(id, "gin", 9)));
        EXPECT_EQ(_fast.hasRecordWithKeyId(id), Presence::present);
        EXPECT_TRUE(_fast.readRecord(id, record));
        EXPECT_TRUE(_fast.deleteRecord(id));
        first = id == 10 ? compiled : first;
    }
    EXPECT_GT(first, 0);
    EXPECT_EQ(compiled, first);
    sqlite3_set_authorizer(_database.getHandle(), nullptr, nullptr);
}

TEST_F(PreparedTableTest, NothingIsLockedAfterAnOperation)
{
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    _fast.release();
    ASSERT_TRUE(_database.open(file, sql::Database::access_create, false, 0));
    run(test::product_definition);
    test::Connection other(file);
    Record record(*_table.fields());
    EXPECT_TRUE(_fast.addRecord(product(1, "tea", 2.5)));
    other.run("insert into product values (2, 'coffee', 4.5)");
    EXPECT_TRUE(_fast.readRecord(2, record));
    other.run("update product set name = 'mocha'");
    EXPECT_EQ(_fast.hasRecordWithKeyId(2), Presence::present);
    other.run("delete from product where id = 2");
    EXPECT_FALSE(_fast.readRecord(2, record));
    EXPECT_FALSE(_fast.addRecord(product(1, "tea", 2.5)));
    expectFailure(_fast, "addRecord", taken);
    other.run("drop table product");
}

TEST_F(PreparedTableTest, ConnectionThatHasTheLockIsTheReason)
{
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    ASSERT_TRUE(_database.open(file, sql::Database::access_create, false, 0));
    run(test::product_definition);
    test::Connection other(file);
    other.run("begin immediate");
    EXPECT_FALSE(_fast.addRecord(product(1, "tea", 2.5)));
    expectFailure(_fast, "addRecord", "5=SQLITE_BUSY: database is locked");
    EXPECT_TRUE(_fast.error().isBusy());
    EXPECT_EQ(_fast.hasRecordWithKeyId(1), Presence::absent);
    other.run("commit");
    EXPECT_TRUE(_fast.addRecord(product(1, "tea", 2.5)));
    other.run("begin exclusive");
    EXPECT_EQ(_fast.hasRecordWithKeyId(1), Presence::unknown);
    expectFailure(_fast, "hasRecordWithKeyId", "5=SQLITE_BUSY: database is locked");
    Record record(*_table.fields());
    EXPECT_TRUE(_fast.readRecord(1, record).failed());
    expectFailure(_fast, "readRecord", "5=SQLITE_BUSY: database is locked");
    EXPECT_FALSE(_fast.deleteRecord(1));
    expectFailure(_fast, "deleteRecord", "5=SQLITE_BUSY: database is locked");
}

TEST_F(PreparedTableTest, ReadOnlyFileIsTheReason)
{
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    test::Connection(file).run(test::product_definition);
    ASSERT_TRUE(_database.open(file, sql::Database::access_read_only, false, 0));
    EXPECT_FALSE(_fast.addRecord(product(1, "tea", 2.5)));
    expectFailure(_fast, "addRecord", "8=SQLITE_READONLY: attempt to write a readonly database");
    EXPECT_TRUE(_fast.error().isReadOnly());
    EXPECT_EQ(_fast.hasRecordWithKeyId(1), Presence::absent);
}

TEST_F(PreparedTableTest, TableThatIsMissingMayComeLater)
{
    Declared shelf(_database, text_key);
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(shelf.fast.addRecord(shelf.record({"a", "b"})));
        expectFailure(shelf.fast, "addRecord", "1=SQLITE_ERROR: no such table: shelf");
        EXPECT_EQ(shelf.fast.hasRecordWithKeyId("a"), Presence::unknown);
        expectFailure(shelf.fast, "hasRecordWithKeyId", "1=SQLITE_ERROR: no such table: shelf");
    }
    ASSERT_TRUE(shelf.table.create());
    EXPECT_TRUE(shelf.fast.addRecord(shelf.record({"a", "b"})));
    EXPECT_EQ(shelf.fast.hasRecordWithKeyId("a"), Presence::present);
}

TEST_F(PreparedTableTest, SchemaChangesAreFollowed)
{
    Record record(*_table.fields());
    EXPECT_TRUE(_fast.addRecord(product(1, "tea", 2.5)));
    EXPECT_TRUE(_fast.readRecord(1, record));
    run("drop table product;"
        "create table product (price text, extra default 9, name blob, id integer primary key)");
    EXPECT_TRUE(_fast.addRecord(product(1, "tea", 2.5)));
    EXPECT_TRUE(_fast.readRecord(1, record));
    EXPECT_EQ(record.toString(), "1|tea|2.5");
    EXPECT_EQ(products(), "text 2.5|integer 9|text tea|integer 1");
    run("drop table product");
    EXPECT_FALSE(_fast.addRecord(product(2, "tea", 2.5)));
    expectFailure(_fast, "addRecord", "1=SQLITE_ERROR: no such table: product");
    run(test::product_definition);
    EXPECT_TRUE(_fast.addRecord(product(2, "tea", 2.5)));
    EXPECT_EQ(products(), "integer 2|text tea|real 2.5");
}

TEST_F(PreparedTableTest, TextsOfAnotherEncodingAreTheSame)
{
    _fast.release();
    ASSERT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
    run("pragma encoding = 'UTF-16'");
    Declared shelf(_database, text_key);
    ASSERT_TRUE(shelf.table.create());
    const std::string tea("th\xC3\xA9 \xF0\x9F\x8D\xB5\0!", 11);
    EXPECT_TRUE(shelf.fast.addRecord(shelf.record({tea, tea})));
    EXPECT_EQ(shelf.fast.hasRecordWithKeyId(tea), Presence::present);
    Record record(*shelf.table.fields());
    EXPECT_TRUE(shelf.fast.readRecord(tea, record));
    EXPECT_EQ(textsOf(record), (Cells{tea, tea}));
}

TEST_F(PreparedTableTest, OperationsAreOfTheCallersTransaction)
{
    run("begin");
    EXPECT_TRUE(_fast.addRecord(product(1, "tea", 2.5)));
    EXPECT_FALSE(_fast.addRecord(product(1, "tea", 2.5)));
    expectFailure(_fast, "addRecord", taken);
    EXPECT_FALSE(sqlite3_get_autocommit(_database.getHandle()));
    EXPECT_EQ(rows("select id from product"), "1");
    run("rollback");
    EXPECT_EQ(rows("select id from product"), "");
}

// --- The database behind it

// All operations of one record or key, and the names that they fail under.
void useInEveryWay(PreparedTable& fast, const Record& record,
                   const std::function<void(const char*)>& failed)
{
    Record read(record);
    EXPECT_FALSE(fast.addRecord(record));
    failed("addRecord");
    EXPECT_FALSE(fast.updateRecord(record));
    failed("updateRecord");
    EXPECT_FALSE(fast.addOrUpdateRecord(record));
    failed("addOrUpdateRecord");
    EXPECT_FALSE(fast.deleteRecord(7));
    failed("deleteRecord");
    EXPECT_EQ(fast.hasRecordWithKeyId(7), Presence::unknown);
    failed("hasRecordWithKeyId");
    EXPECT_TRUE(fast.readRecord(7, read).failed());
    failed("readRecord");
    EXPECT_FALSE(fast.addRecords(&record, &record + 1));
    failed("addRecords");
    EXPECT_TRUE(fast.checkDeclaration().failed());
    failed("checkDeclaration");
}

TEST_F(PreparedTableTest, DatabaseThatWasNotOpenedIsAFailureUntilItIs)
{
    sql::Database database;
    PreparedTable fast(database, _table);
    useInEveryWay(fast, product(7, "tea", 2.5),
                  [&](const char* operation) { expectFailure(fast.error(), operation, not_open); });
    ASSERT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
    test::run(database.getHandle(), test::product_definition);
    EXPECT_TRUE(fast.addRecord(product(7, "tea", 2.5)));
    fast.release();
}

TEST_F(PreparedTableTest, DatabaseThatWasClosedIsAFailure)
{
    EXPECT_TRUE(_fast.addRecord(product(7, "tea", 2.5)));
    sqlite3* const leaked = _database.getHandle();
    _database.close();
    expectReport({report::asserted("void sql::Database::close()", "rc == SQLITE_OK")});
    EXPECT_FALSE(_fast.addRecord(product(8, "tea", 2.5)));
    expectFailure(_fast, "addRecord", closed);
    ASSERT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
    run(test::product_definition);
    EXPECT_FALSE(_fast.addRecord(product(8, "tea", 2.5)));
    expectFailure(_fast, "addRecord", closed);
    const Record record = product(8, "tea", 2.5);
    EXPECT_FALSE(_fast.addRecords(&record, &record + 1));
    expectFailure(_fast, "addRecords", closed);
    _fast.release();
    EXPECT_TRUE(_fast.addRecord(product(8, "tea", 2.5)));
    EXPECT_EQ(products(), "integer 8|text tea|real 2.5");
    EXPECT_EQ(test::closeConnection(leaked), SQLITE_OK);
}

TEST_F(PreparedTableTest, ReleasedBeforeTheDatabaseClosesItIsUsedAgain)
{
    EXPECT_TRUE(_fast.addRecord(product(7, "tea", 2.5)));
    EXPECT_EQ(_fast.hasRecordWithKeyId(7), Presence::present);
    _fast.release();
    EXPECT_EQ(sqlite3_next_stmt(_database.getHandle(), nullptr), nullptr);
    _fast.release();
    EXPECT_EQ(_fast.hasRecordWithKeyId(7), Presence::present);
    _fast.release();
    _database.close();
    useInEveryWay(_fast, product(7, "tea", 2.5), [&](const char* operation) {
        expectFailure(_fast.error(), operation, not_open);
    });
    ASSERT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
    run(test::product_definition);
    EXPECT_TRUE(_fast.addRecord(product(8, "tea", 2.5)));
    EXPECT_EQ(products(), "integer 8|text tea|real 2.5");
}

TEST_F(PreparedTableTest, StatementsEndWithIt)
{
    {
        PreparedTable fast(_database, _table);
        EXPECT_TRUE(fast.addRecord(product(7, "tea", 2.5)));
        EXPECT_NE(sqlite3_next_stmt(_database.getHandle(), nullptr), nullptr);
    }
    EXPECT_EQ(sqlite3_next_stmt(_database.getHandle(), nullptr), nullptr);
}

// --- Reports

TEST_F(PreparedTableTest, ValuesAreReportedAtTheHighestLevelAlone)
{
    const std::string secret = "geheim";
    Declared shelf(_database, text_key);
    ASSERT_TRUE(shelf.table.create());
    Declared numbers(_database,
                     {Field("id", sql::type_int, sql::flag_primary_key),
                      Field("price", sql::type_float, sql::flag_none)},
                     "numbers");
    ASSERT_TRUE(numbers.table.create());
    for (const int level : {3, 6, 7, 8}) {
        _diagnostics.setLevel(level);
        Record record = shelf.record({secret, secret});
        EXPECT_TRUE(shelf.fast.addOrUpdateRecord(record));
        EXPECT_FALSE(shelf.fast.addRecord(record));
        EXPECT_TRUE(shelf.fast.updateRecord(record));
        EXPECT_TRUE(shelf.fast.readRecord(secret, record));
        EXPECT_EQ(shelf.fast.hasRecordWithKeyId(secret), Presence::present);
        EXPECT_FALSE(shelf.fast.addRecords(&record, &record + 1));
        EXPECT_TRUE(shelf.fast.deleteRecord(secret));
        EXPECT_FALSE(numbers.fast.addRecord(numbers.record({"1", secret})));
        EXPECT_EQ(numbers.fast.hasRecordWithKeyId(secret), Presence::unknown);
        for (const std::string& line : _diagnostics.take())
            EXPECT_EQ(line.find(secret), std::string::npos) << line;
    }
    _diagnostics.setLevel(3);
}

TEST_F(PreparedTableTest, StatementsAreTracedAndTheirValuesAtTheHighestLevel)
{
    fill();
    const std::string insert = "insert into `product` (`id`, `name`, `price`) values (?, ?, ?)";
    const std::string remove = "delete from `product` where `id` = ?";
    int id = 10;
    for (const int level : test::trace_levels) {
        _diagnostics.setLevel(level);
        EXPECT_TRUE(_fast.addRecord(product(++id, "tea", 2.5)));
        const std::string key = std::to_string(id);
        expectReport(
            {report::started("addRecord", insert),
             report::withValues("addRecord", "insert into `product` (`id`, `name`, `price`)"
                                             " values ("
                                                 + key + ", 'tea', 2.5)")});
        EXPECT_TRUE(_fast.deleteRecord(id));
        expectReport(
            {report::started("deleteRecord", remove),
             report::withValues("deleteRecord", "delete from `product` where `id` = " + key)});
        EXPECT_FALSE(_fast.deleteRecord("tea"));
        expectReport(report::statementFailed("deleteRecord", remove,
                                             "20=SQLITE_MISMATCH: the key is no integer"));
    }
}

} // namespace
