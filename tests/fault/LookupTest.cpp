#include "Cases.h"
#include "Columns.h"
#include "Diagnostics.h"
#include "Reports.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <string>

namespace {

// The position at which a lookup does not find what is there.
int missingField = -1;
int missingRecord = -1;
int missingValue = -1;

// Puts one of the lookups out of order.
class Fault {
public:
    Fault(int& lookup, int position) : _lookup(lookup)
    {
        _lookup = position;
    }
    ~Fault()
    {
        _lookup = -1;
    }
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

private:
    int& _lookup;
};

} // namespace

// The lookups, in place of the library's own: its calls come here too, since the library that this
// program is linked against leaves them open to that.
namespace sql {

const Field* FieldSet::getByIndex(int index) const
{
    const bool found = index >= 0 && index < count() && index != missingField;
    return found ? &_fields[index] : nullptr;
}

// Without a report, to tell a cell that is skipped from one that is looked for again.
const Value* Record::getValue(int index) const
{
    const bool found = index >= 0 && index < columnCount() && index != missingValue;
    return found ? &_values[index] : nullptr;
}

Record* RecordSet::getRecord(int index)
{
    const bool found = index >= 0 && index < count() && index != missingRecord;
    return found ? &_records[index] : nullptr;
}

const Record* RecordSet::getRecord(int index) const
{
    const bool found = index >= 0 && index < count() && index != missingRecord;
    return found ? &_records[index] : nullptr;
}

} // namespace sql

namespace {

using sql::FieldSet;
using sql::Record;
using sql::RecordSet;
using sql::Table;
using testing::IsEmpty;

namespace report = test::report;

// Columns id, name and price, a record with all of them, and a table with three rows.
class LookupTest : public testing::Test {
protected:
    LookupTest()
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
    const FieldSet _fields{test::product_columns};
    Record _record{_fields};
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

// --- Texts of columns and records

struct Text : test::Case {
    int& lookup;
    int position;
    std::string (*make)(const Record& record);
    const char* text;
    test::Texts events;
};

class LookupTextTest : public LookupTest, public testing::WithParamInterface<Text> {};

TEST_P(LookupTextTest, LeavesOutWhatIsMissing)
{
    const Text& text = GetParam();
    const Fault fault(text.lookup, text.position);
    for (const int level : {7, 2}) { // where an assertion stands alone
        _diagnostics.clear();
        _diagnostics.setLevel(level);
        EXPECT_EQ(text.make(_record), text.text);
        EXPECT_EQ(_diagnostics.events(), test::visibleAt(level, text.events));
    }
}

std::string columnList(const Record& record)
{
    return record.fields()->toSql();
}

std::string fieldDump(const Record& record)
{
    return record.fields()->dump();
}

std::string valueList(const Record& record)
{
    return record.toSql();
}

std::string insertText(const Record& record)
{
    return record.toSqlInsert("product");
}

std::string updateText(const Record& record)
{
    return record.toSqlUpdate("product");
}

std::string recordDump(const Record& record)
{
    return record.dump(false) + "; " + record.dump(true);
}

std::string recordText(const Record& record)
{
    return record.toString();
}

std::string tableText(const Record& record)
{
    return Table(nullptr, "product", *record.fields()).toString();
}

test::Texts notListed(const std::string& index)
{
    return report::failed("sql::string sql::FieldSet::toSql() const",
                          "No field for index " + index);
}

test::Texts notDumped(const std::string& index)
{
    return report::failed("sql::string sql::FieldSet::dump() const", "No field for index " + index);
}

test::Texts noField(const std::string& index)
{
    return report::failed("sql::string sql::Record::toSql() const",
                          "field with index " + index + " does not exist");
}

const Text texts[] = {
    {"FirstOfTheColumnList", missingField, 0, columnList, "name, price", notListed("0")},
    {"ColumnListWithItsSeparator", missingField, 1, columnList, "id, price", notListed("1")},
    {"LastOfTheColumnListButNotTheSeparator", missingField, 2, columnList, "id, name, ",
     notListed("2")},
    {"FieldDumpWithItsLineBreak", missingField, 1, fieldDump,
     "0: name=id, type=integer, flags: PRIMARY KEY\r\n2: name=price, type=float, flags:",
     notDumped("1")},
    {"LastOfTheFieldDumpButNotTheLineBreak", missingField, 2, fieldDump,
     "0: name=id, type=integer, flags: PRIMARY KEY\r\n1: name=name, type=text, flags:\r\n",
     notDumped("2")},
    {"WholeValueList", missingField, 1, valueList, "", noField("1")},
    {"WholeInsert", missingField, 2, insertText, "",
     test::joined({notListed("2"), noField("2"), report::noValuesToInsert("product")})},
    {"UpdateSilently",
     missingField,
     1,
     updateText,
     "update product set price=2.50000000 where id = 7",
     {}},
    {"LastOfTheUpdateButNotTheComma",
     missingField,
     2,
     updateText,
     "update product set name='tea',  where id = 7",
     {}},
    {"WholeUpdateWithoutTheKeyCell", missingField, 0, updateText, "",
     test::joined({report::noKeyValue(), report::noKeyValueToUpdate("product")})},
    {"NameOfTheRecordDump",
     missingField,
     1,
     recordDump,
     "id = 7|tea|price = 2.50000000; id = 7 (integer)|tea (text)|price = 2.50000000 (float)",
     {}},
    {"RecordTextWithItsSeparator", missingValue, 1, recordText, "7|2.50000000", {}},
    {"LastOfTheRecordTextButNotTheSeparator", missingValue, 2, recordText, "7|tea|", {}},
    {"CellOfTheRecordDumpButNotItsName",
     missingValue,
     1,
     recordDump,
     "id = 7|name = price = 2.50000000; id = 7 (integer)|name = price = 2.50000000 (float)",
     {}},
    {"TableTextWithItsLineBreak",
     missingField,
     1,
     tableText,
     "1. id INTEGER PRIMARY KEY\r\n3. price REAL",
     {}},
    {"LastOfTheTableTextButNotTheLineBreak",
     missingField,
     2,
     tableText,
     "1. id INTEGER PRIMARY KEY\r\n2. name TEXT\r\n",
     {}},
};

INSTANTIATE_TEST_SUITE_P(Texts, LookupTextTest, testing::ValuesIn(texts), test::NameOfCase());

// --- What is looked for

TEST_F(LookupTest, KeyCellIsLookedForBehindAMissingField)
{
    const FieldSet keyLast(test::key_last_columns);
    Record record(keyLast);
    record.setInteger("id", 7);
    const Fault fault(missingField, 0);
    EXPECT_EQ(record.getKeyIdValue(), record.getValue(2));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(LookupTest, ComparisonSkipsAMissingFieldAndGoesOnBehindIt)
{
    Record otherName(_record);
    Record otherPrice(_record);
    otherName.setString("name", "coffee");
    otherPrice.setDouble("price", 9.5);
    EXPECT_FALSE(_record.equalsValues(&otherName));
    const Fault fault(missingField, 1);
    EXPECT_TRUE(_record.equalsValues(&otherName));
    EXPECT_FALSE(_record.equalsValues(&otherPrice));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

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
