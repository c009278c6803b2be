#include "Columns.h"
#include "Diagnostics.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

// While one of these lives, a lookup does not find what is at one position, though it is there.
class Missing {
public:
    explicit Missing(int position) : _position(position)
    {
    }

    bool hides(int position) const
    {
        return position == _position;
    }

private:
    const int _position;
};

Missing* missingField = nullptr;
Missing* missingRecord = nullptr;
Missing* missingValue = nullptr;

// Puts one of the lookups out of order.
class Fault {
public:
    Fault(Missing*& place, int position) : _place(place), _missing(position)
    {
        _place = &_missing;
    }
    ~Fault()
    {
        _place = nullptr;
    }
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

private:
    Missing*& _place;
    Missing _missing;
};

bool isHidden(Missing* missing, int position)
{
    return missing != nullptr && missing->hides(position);
}

} // namespace

// The lookups, in place of the library's own: its calls come here too, since the library that this
// program is linked against leaves them open to that.
namespace sql {

const Field* FieldSet::getByIndex(int index) const
{
    const bool found = index >= 0 && index < count() && !isHidden(missingField, index);
    return found ? &_fields[index] : nullptr;
}

// Without a report, to tell a cell that is skipped from one that is looked for again.
const Value* Record::getValue(int index) const
{
    const bool found = index >= 0 && index < columnCount() && !isHidden(missingValue, index);
    return found ? &_values[index] : nullptr;
}

Record* RecordSet::getRecord(int index)
{
    const bool found = index >= 0 && index < count() && !isHidden(missingRecord, index);
    return found ? &_records[index] : nullptr;
}

const Record* RecordSet::getRecord(int index) const
{
    const bool found = index >= 0 && index < count() && !isHidden(missingRecord, index);
    return found ? &_records[index] : nullptr;
}

} // namespace sql

namespace {

using sql::FieldSet;
using sql::Record;
using sql::RecordSet;
using sql::Table;
using testing::ElementsAre;
using testing::IsEmpty;

const char to_sql_signature[] =
    "assert 'false' in SqlFieldSet.cpp (sql::string sql::FieldSet::toSql() const)";
const char dump_signature[] =
    "assert 'false' in SqlFieldSet.cpp (sql::string sql::FieldSet::dump() const)";

// Columns id, name and price, and a record with all of them.
class LookupTest : public testing::Test {
protected:
    LookupTest() : _fields(test::product_columns), _record(_fields)
    {
        _record.setInteger("id", 7);
        _record.setString("name", "tea");
        _record.setDouble("price", 2.5);
        _db.run("create table product (id integer primary key, name text, price real)");
        _db.run("insert into product select 1, 'tea', 2.5 union all select 2, 'mate', 3.5"
                " union all select 3, 'kava', 4.5");
        _diagnostics.setLevel(7);
    }

    test::Connection _db;
    test::Diagnostics _diagnostics;
    const FieldSet _fields;
    Record _record;
};

// The other tests rest on this one: a library that did not call what is defined above would pass
// them only by accident.
TEST_F(LookupTest, LibraryCallsTheLookupsOfThisProgram)
{
    Table table(_db, "product", _fields);
    ASSERT_TRUE(table.open());
    EXPECT_NE(table.getTopRecord(), nullptr);
    EXPECT_NE(_record.getKeyIdValue(), nullptr);
    const Fault noRecord(missingRecord, 0);
    const Fault noField(missingField, 0);
    EXPECT_EQ(table.getTopRecord(), nullptr);
    EXPECT_EQ(_record.getKeyIdValue(), nullptr);
}

// --- FieldSet

TEST_F(LookupTest, ColumnListReportsAMissingFieldAndGoesOnWithoutASeparator)
{
    const Fault fault(missingField, 1);
    EXPECT_EQ(_fields.toSql(), "id, price");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("[ERROR] SqlFieldSet.cpp (toSql) - No field for index 1", to_sql_signature));
}

TEST_F(LookupTest, ColumnListKeepsTheSeparatorBeforeAMissingLastField)
{
    const Fault fault(missingField, 2);
    EXPECT_EQ(_fields.toSql(), "id, name, ");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("[ERROR] SqlFieldSet.cpp (toSql) - No field for index 2", to_sql_signature));
}

TEST_F(LookupTest, ColumnListStartsWithTheFirstFieldFound)
{
    const Fault fault(missingField, 0);
    EXPECT_EQ(_fields.toSql(), "name, price");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("[ERROR] SqlFieldSet.cpp (toSql) - No field for index 0", to_sql_signature));
}

TEST_F(LookupTest, MissingFieldBelowTheErrorLevelIsAnAssertionAlone)
{
    _diagnostics.setLevel(2);
    const Fault fault(missingField, 1);
    EXPECT_EQ(_fields.toSql(), "id, price");
    EXPECT_EQ(_fields.dump(), "0: name=id, type=integer, flags: PRIMARY KEY\r\n"
                              "2: name=price, type=float, flags:");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(to_sql_signature, dump_signature));
}

TEST_F(LookupTest, FieldDumpReportsAMissingFieldAndGoesOnWithoutALineBreak)
{
    const Fault fault(missingField, 1);
    EXPECT_EQ(_fields.dump(), "0: name=id, type=integer, flags: PRIMARY KEY\r\n"
                              "2: name=price, type=float, flags:");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("[ERROR] SqlFieldSet.cpp (dump) - No field for index 1", dump_signature));
}

TEST_F(LookupTest, FieldDumpKeepsTheLineBreakBeforeAMissingLastField)
{
    const Fault fault(missingField, 2);
    EXPECT_EQ(_fields.dump(), "0: name=id, type=integer, flags: PRIMARY KEY\r\n"
                              "1: name=name, type=text, flags:\r\n");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("[ERROR] SqlFieldSet.cpp (dump) - No field for index 2", dump_signature));
}

// --- Record

TEST_F(LookupTest, ValueListFailsAtAMissingField)
{
    const Fault fault(missingField, 1);
    EXPECT_EQ(_record.toSql(), "");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("[ERROR] SqlRecord.cpp (toSql) - field with index 1 does not exist",
                    "assert 'false' in SqlRecord.cpp (sql::string sql::Record::toSql() const)"));
}

TEST_F(LookupTest, MissingFieldIsReportedWithOneLiteral)
{
    const Fault fault(missingField, 1);
    _record.toSql();
    _fields.toSql();
    _fields.dump();
    std::vector<std::string> formats;
    for (const test::LogLine& line : _diagnostics.lines())
        formats.push_back(line.format);
    EXPECT_THAT(formats, ElementsAre("[ERROR] %s:%d (%s) - field with index %d does not exist",
                                     "[ERROR] %s:%d (%s) - No field for index %d",
                                     "[ERROR] %s:%d (%s) - No field for index %d"));
}

TEST_F(LookupTest, InsertFailsAtAMissingFieldReportedByEveryStep)
{
    const Fault fault(missingField, 2);
    EXPECT_EQ(_record.toSqlInsert("product"), "");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlFieldSet.cpp (toSql) - No field for index 2", to_sql_signature,
            "[ERROR] SqlRecord.cpp (toSql) - field with index 2 does not exist",
            "assert 'false' in SqlRecord.cpp (sql::string sql::Record::toSql() const)",
            "[ERROR] SqlRecord.cpp (toSqlInsert) - No values to insert in table 'product'",
            "assert 'false' in SqlRecord.cpp (sql::string sql::Record::toSqlInsert(const string&) const)"));
}

TEST_F(LookupTest, UpdateSkipsAMissingField)
{
    const Fault fault(missingField, 1);
    EXPECT_EQ(_record.toSqlUpdate("product"), "update product set price=2.50000000 where id = 7");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, UpdateKeepsTheCommaBeforeAMissingLastField)
{
    const Fault fault(missingField, 2);
    EXPECT_EQ(_record.toSqlUpdate("product"), "update product set name='tea',  where id = 7");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, UpdateWithoutTheKeyCellFails)
{
    const Fault fault(missingField, 0);
    EXPECT_EQ(_record.toSqlUpdate("product"), "");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecord.cpp (getKeyIdValue) - No PRIMARY KEY column found",
            "assert 'false' in SqlRecord.cpp (const sql::Value* sql::Record::getKeyIdValue() const)",
            "[ERROR] SqlRecord.cpp (toSqlUpdate) - No PRIMARY KEY column found for table product",
            "assert 'false' in SqlRecord.cpp (sql::string sql::Record::toSqlUpdate(const string&) const)"));
}

TEST_F(LookupTest, KeyCellIsLookedForBehindAMissingField)
{
    const FieldSet keyLast(test::key_last_columns);
    Record record(keyLast);
    record.setInteger("id", 7);
    const Fault fault(missingField, 0);
    EXPECT_EQ(record.getKeyIdValue(), record.getValue(2));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, RecordDumpOmitsTheNameOfAMissingField)
{
    const Fault fault(missingField, 1);
    EXPECT_EQ(_record.dump(false), "id = 7|tea|price = 2.50000000");
    EXPECT_EQ(_record.dump(true), "id = 7 (integer)|tea (text)|price = 2.50000000 (float)");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, ComparisonSkipsAMissingField)
{
    Record other(_record);
    other.setString("name", "coffee");
    EXPECT_FALSE(_record.equalsValues(&other));
    const Fault fault(missingField, 1);
    EXPECT_TRUE(_record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, ComparisonGoesOnBehindAMissingField)
{
    Record other(_record);
    other.setDouble("price", 9.5);
    const Fault fault(missingField, 1);
    EXPECT_FALSE(_record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, RecordTextSkipsAMissingCellWithItsSeparator)
{
    const Fault fault(missingValue, 1);
    EXPECT_EQ(_record.toString(), "7|2.50000000");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, RecordTextKeepsTheSeparatorBeforeAMissingLastCell)
{
    const Fault fault(missingValue, 2);
    EXPECT_EQ(_record.toString(), "7|tea|");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, RecordDumpNamesAMissingCellWithoutASeparator)
{
    const Fault fault(missingValue, 1);
    EXPECT_EQ(_record.dump(false), "id = 7|name = price = 2.50000000");
    EXPECT_EQ(_record.dump(true), "id = 7 (integer)|name = price = 2.50000000 (float)");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- RecordSet

TEST_F(LookupTest, SetTextSkipsAMissingRecord)
{
    RecordSet set(_db, _fields);
    ASSERT_TRUE(set.query("select * from product"));
    const Fault fault(missingRecord, 1);
    EXPECT_EQ(set.toString(), "1. 1|tea|2.5\r\n3. 3|kava|4.5\r\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, MissingFirstRecordIsNoTopRecord)
{
    RecordSet set(_db, _fields);
    ASSERT_TRUE(set.query("select * from product"));
    const Fault fault(missingRecord, 0);
    EXPECT_EQ(set.getTopRecord(), nullptr);
    EXPECT_EQ(set.getTopRecordFirstValue(), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- Table

TEST_F(LookupTest, TableTextSkipsAMissingField)
{
    const Table table(_db, "product", _fields);
    const Fault fault(missingField, 1);
    EXPECT_EQ(table.toString(), "1. id INTEGER PRIMARY KEY\r\n3. price REAL");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, TableTextKeepsTheLineBreakBeforeAMissingLastField)
{
    const Table table(_db, "product", _fields);
    const Fault fault(missingField, 2);
    EXPECT_EQ(table.toString(), "1. id INTEGER PRIMARY KEY\r\n2. name TEXT\r\n");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, LoadOfAMissingRecordGivesNone)
{
    Table table(_db, "product", _fields);
    const Fault fault(missingRecord, 0);
    EXPECT_EQ(table.getRecordByKeyId(sql::integer(2)), nullptr);
    EXPECT_EQ(table.recordCount(), 1);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, CopySkipsAMissingRecord)
{
    Table source(_db, "product", _fields);
    Table spare(_db, "spare", _fields);
    ASSERT_TRUE(source.open());
    ASSERT_TRUE(spare.create());
    const Fault fault(missingRecord, 1);
    EXPECT_TRUE(spare.copyRecords(source));
    EXPECT_EQ(_db.rows("select * from spare order by id"), "1|tea|2.5\n3|kava|4.5");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, BackupWithoutAMissingRecordFailsByItsCount)
{
    Table source(_db, "product", _fields);
    Table spare(_db, "spare", _fields);
    const Fault fault(missingRecord, 2);
    EXPECT_FALSE(spare.backup(source));
    EXPECT_EQ(_db.rows("select * from spare order by id"), "1|tea|2.5\n2|mate|3.5");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

} // namespace
