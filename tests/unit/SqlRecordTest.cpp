#include "SqlRecord.h"

#include "Columns.h"
#include "Declarations.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Rows.h"

#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <limits>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sql::Field;
using sql::FieldSet;
using sql::integer;
using sql::Record;
using sql::string;
using sql::Time;
using sql::Value;
using test::cells;
using test::declared;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

static_assert(!std::is_polymorphic<Record>::value, "a plain value");
static_assert(!std::is_default_constructible<Record>::value, "every record has its columns");

// The declarations, as users compile against them.
static_assert(std::is_constructible<Record, const FieldSet&>::value);
static_assert(std::is_constructible<Record, const Record*>::value);
static_assert(std::is_copy_constructible<Record>::value);
static_assert(declared<Record& (Record::*)(const Record&)>(&Record::operator=));
static_assert(declared<const FieldSet* (Record::*)() const>(&Record::fields));
static_assert(declared<int (Record::*)() const>(&Record::columnCount));
static_assert(
    declared<bool (Record::*)(int, const char*, sql::field_type)>(&Record::initColumnValue));
static_assert(declared<Value* (Record::*)(int)>(&Record::getValue));
static_assert(declared<const Value* (Record::*)(int) const>(&Record::getValue));
static_assert(declared<Value* (Record::*)(const string&)>(&Record::getValue));
static_assert(declared<const Value* (Record::*)(const string&) const>(&Record::getValue));
static_assert(declared<const Value* (Record::*)() const>(&Record::getKeyIdValue));
static_assert(declared<const Field* (Record::*)(const string&) const>(&Record::fieldByName));
static_assert(declared<void (Record::*)(int)>(&Record::setNull));
static_assert(declared<void (Record::*)(const string&)>(&Record::setNull));
static_assert(declared<void (Record::*)(int, const string&)>(&Record::setString));
static_assert(declared<void (Record::*)(const string&, const string&)>(&Record::setString));
static_assert(declared<void (Record::*)(int, integer)>(&Record::setInteger));
static_assert(declared<void (Record::*)(const string&, integer)>(&Record::setInteger));
static_assert(declared<void (Record::*)(int, double)>(&Record::setDouble));
static_assert(declared<void (Record::*)(const string&, double)>(&Record::setDouble));
static_assert(declared<void (Record::*)(int, bool)>(&Record::setBool));
static_assert(declared<void (Record::*)(const string&, bool)>(&Record::setBool));
static_assert(declared<void (Record::*)(int, Time)>(&Record::setTime));
static_assert(declared<void (Record::*)(const string&, Time)>(&Record::setTime));
static_assert(
    declared<bool (Record::*)(const Record*, const string&) const>(&Record::equalsColumnValue));
static_assert(declared<bool (Record::*)(const Record*) const>(&Record::equalsValues));
static_assert(declared<string (Record::*)() const>(&Record::toString));
static_assert(declared<string (Record::*)(bool) const>(&Record::dump));
static_assert(declared<string (Record::*)() const>(&Record::toSql));
static_assert(declared<string (Record::*)(const string&) const>(&Record::toSqlInsert));
static_assert(declared<string (Record::*)(const string&) const>(&Record::toSqlUpdate));

typedef std::vector<std::string> Events;

// The functions as assertions name them.
const char init_column_value[] =
    "bool sql::Record::initColumnValue(int, const char*, sql::field_type)";
const char get_by_index[] = "sql::Value* sql::Record::getValue(int)";
const char get_by_index_const[] = "const sql::Value* sql::Record::getValue(int) const";
const char get_by_name[] = "sql::Value* sql::Record::getValue(const string&)";
const char get_by_name_const[] = "const sql::Value* sql::Record::getValue(const string&) const";
const char get_key_id_value[] = "const sql::Value* sql::Record::getKeyIdValue() const";
const char field_by_name[] = "const sql::Field* sql::Record::fieldByName(const string&) const";
const char to_sql[] = "sql::string sql::Record::toSql() const";
const char to_sql_insert[] = "sql::string sql::Record::toSqlInsert(const string&) const";
const char to_sql_update[] = "sql::string sql::Record::toSqlUpdate(const string&) const";

// A failure of a record: the line, then the assertion.
Events report(const std::string& function, const std::string& message, const std::string& signature)
{
    return {"[ERROR] SqlRecord.cpp (" + function + ") - " + message,
            "assert 'false' in SqlRecord.cpp (" + signature + ")"};
}

Events noIndex(int index)
{
    return report("getValue", "No value for column with index " + std::to_string(index),
                  get_by_index);
}

Events noIndexConst(int index)
{
    return report("getValue", "No value for column with index " + std::to_string(index),
                  get_by_index_const);
}

Events noNameConst(const std::string& name)
{
    return report("getValue", "No value for column with name '" + name + "'", get_by_name_const);
}

Events noField(const std::string& name)
{
    return report("fieldByName", "Field/column '" + name + "' not found", field_by_name);
}

Events inOrder(const std::vector<Events>& reports)
{
    Events events;
    for (const Events& report : reports)
        events.insert(events.end(), report.begin(), report.end());
    return events;
}

const Events no_key_name = {
    "[ERROR] SqlFieldSet.cpp (getKeyIdName) - Failed to get name of PRIMARY KEY column",
    "assert 'false' in SqlFieldSet.cpp (sql::string sql::FieldSet::getKeyIdName() const)",
};

const Events key_is_no_integer = {
    "assert 'value->getType() == type_int' in SqlRecord.cpp (sql::string sql::Record::toSqlUpdate(const string&) const)",
};

// --- Sets of columns: one without a key column is reported when it is built

FieldSet products()
{
    return FieldSet(test::product_columns);
}

FieldSet allTypes()
{
    return FieldSet(test::all_type_columns);
}

FieldSet textKey()
{
    return FieldSet(test::text_key_columns);
}

FieldSet keyLast()
{
    return FieldSet(test::key_last_columns);
}

FieldSet withoutKey()
{
    return FieldSet(test::without_key_columns);
}

FieldSet noColumns()
{
    return FieldSet(test::no_columns);
}

FieldSet keyAlone()
{
    const Field columns[] = {
        Field("id", sql::type_int, sql::flag_primary_key),
        Field(),
    };
    return FieldSet(columns);
}

FieldSet priceAlone()
{
    const Field columns[] = {
        Field("price", sql::type_float, sql::flag_none),
        Field(),
    };
    return FieldSet(columns);
}

FieldSet keyInTheMiddle()
{
    const Field columns[] = {
        Field("name", sql::type_text, sql::flag_none),
        Field("id", sql::type_int, sql::flag_primary_key),
        Field("price", sql::type_float, sql::flag_none),
        Field(),
    };
    return FieldSet(columns);
}

FieldSet twoKeys()
{
    const Field columns[] = {
        Field("id", sql::type_int, sql::flag_primary_key),
        Field("code", sql::type_text, sql::flag_primary_key),
        Field("name", sql::type_text, sql::flag_none),
        Field(),
    };
    return FieldSet(columns);
}

FieldSet twoKeysLast()
{
    const Field columns[] = {
        Field("name", sql::type_text, sql::flag_none),
        Field("code", sql::type_text, sql::flag_primary_key),
        Field("id", sql::type_int, sql::flag_primary_key),
        Field(),
    };
    return FieldSet(columns);
}

// So many that some of their names share a place, whatever way names are sorted into places.
constexpr int wide_count = 3000;

std::string wideName(int position)
{
    return position == 0 ? "id" : "c" + std::to_string(position);
}

FieldSet wide()
{
    std::vector<Field> columns;
    columns.push_back(Field(wideName(0), sql::type_int, sql::flag_primary_key));
    for (int i = 1; i < wide_count; ++i)
        columns.push_back(Field(wideName(i), sql::type_int, sql::flag_none));
    columns.push_back(Field());
    return FieldSet(columns.data());
}

FieldSet oneNameTwice()
{
    const Field columns[] = {
        Field("id", sql::type_int, sql::flag_primary_key),
        Field("name", sql::type_text, sql::flag_none),
        Field("name", sql::type_float, sql::flag_none),
        Field(),
    };
    return FieldSet(columns);
}

// The columns of products() without positions.
FieldSet unplacedProducts()
{
    return FieldSet(std::vector<Field>(test::product_columns, test::product_columns + 3));
}

FieldSet unplacedKeyAlone()
{
    return FieldSet(std::vector<Field>(test::product_columns, test::product_columns + 1));
}

FieldSet namelessKeyAlone()
{
    return FieldSet(std::vector<Field>(1, Field("", sql::type_int, sql::flag_primary_key)));
}

// Names the case of a parameterised test.
template <typename Case> std::string nameOf(const testing::TestParamInfo<Case>& info)
{
    return info.param.name;
}

// The most verbose level: a record traces nothing but the times that it converts.
class RecordTest : public testing::Test {
protected:
    RecordTest()
    {
        _diagnostics.setLevel(9);
    }

    // A record on products().
    Record tea() const
    {
        Record record(_fields);
        record.setInteger(0, 7);
        record.setString(1, "tea");
        record.setDouble(2, 2.5);
        return record;
    }

    // A set that is reported when it is built, without that report.
    FieldSet quiet(FieldSet (*columns)())
    {
        FieldSet fields = columns();
        _diagnostics.clear();
        return fields;
    }

    const test::TimeZone _zone;
    test::Diagnostics _diagnostics;
    FieldSet _fields = products();
};

// --- Construction, copies and moves

TEST_F(RecordTest, FreshRecordHasANullCellOfEachColumnsType)
{
    const FieldSet fields = allTypes();
    const Record record(fields);
    EXPECT_EQ(record.columnCount(), 5);
    EXPECT_THAT(cells(record), ElementsAre("null (integer)", "null (text)", "null (float)",
                                           "null (bool)", "null (time)"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, FreshCellsAreEmptyTexts)
{
    const Record record(_fields);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(record.getValue(i)->isNull());
        EXPECT_EQ(record.getValue(i)->asString(), "");
    }
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, RecordPointsAtTheGivenColumns)
{
    const Record record(_fields);
    EXPECT_EQ(record.fields(), &_fields);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, RecordWithoutColumnsHasNoCells)
{
    const FieldSet fields = quiet(noColumns);
    const Record record(fields);
    EXPECT_EQ(record.columnCount(), 0);
    EXPECT_EQ(record.toString(), "");
    EXPECT_EQ(record.dump(false), "");
    EXPECT_EQ(record.dump(true), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ColumnWithoutAPositionHasACell)
{
    const FieldSet fields = unplacedProducts();
    const Record record(fields);
    EXPECT_THAT(cells(record), ElementsAre("null (integer)", "null (text)", "null (float)"));
}

TEST_F(RecordTest, ColumnOfAnUndefinedTypeHasACellOfThatType)
{
    const FieldSet fields(std::vector<Field>(1, Field("x", sql::type_undefined, sql::flag_none)));
    const Record record(fields);
    EXPECT_EQ(record.getValue(0)->getType(), sql::type_undefined);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, CopyHasEqualCellsAndTheSameColumns)
{
    Record record = tea();
    record.initColumnValue(2, nullptr, sql::type_time);
    const Record copy(record);
    EXPECT_EQ(copy.fields(), &_fields);
    EXPECT_THAT(cells(copy), ElementsAre("7 (integer)", "tea (text)", "null (time)"));
    EXPECT_TRUE(copy.getValue(2)->isNull());
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, CopyIsIndependent)
{
    const Record record = tea();
    Record copy(record);
    copy.setString("name", "coffee");
    EXPECT_EQ(record.toString(), "7|tea|2.50000000");
    EXPECT_EQ(copy.toString(), "7|coffee|2.50000000");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, CopyFromAPointerHasEqualCellsAndTheSameColumns)
{
    const Record record = tea();
    const Record copy(&record);
    EXPECT_EQ(copy.fields(), &_fields);
    EXPECT_THAT(cells(copy), ElementsAre("7 (integer)", "tea (text)", "2.50000000 (float)"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, CopyFromAPointerIsIndependent)
{
    Record record = tea();
    const Record copy(&record);
    record.setNull("name");
    EXPECT_EQ(copy.toString(), "7|tea|2.50000000");
}

TEST_F(RecordTest, AssignmentTakesCellsAndColumns)
{
    const FieldSet others = allTypes();
    Record longer(others);
    longer.setBool("sold", true);
    const Record record = tea();
    EXPECT_EQ(&(longer = record), &longer);
    EXPECT_EQ(longer.fields(), &_fields);
    EXPECT_THAT(cells(longer), ElementsAre("7 (integer)", "tea (text)", "2.50000000 (float)"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, AssignmentOfALongerRecordAddsCells)
{
    const FieldSet others = allTypes();
    Record longer(others);
    longer.setTime("at", Time(0));
    Record record = tea();
    record = longer;
    EXPECT_EQ(record.fields(), &others);
    EXPECT_THAT(cells(record), ElementsAre("null (integer)", "null (text)", "null (float)",
                                           "null (bool)", "01-01-1970 01:00:00, Thu (time)"));
}

TEST_F(RecordTest, AssignedRecordIsIndependent)
{
    Record record = tea();
    Record other(_fields);
    other = record;
    record.setString("name", "coffee");
    EXPECT_EQ(other.toString(), "7|tea|2.50000000");
}

TEST_F(RecordTest, AssignmentToItselfDoesNothing)
{
    Record record = tea();
    const Record& same = record;
    EXPECT_EQ(&(record = same), &record);
    EXPECT_EQ(record.fields(), &_fields);
    EXPECT_EQ(record.toString(), "7|tea|2.50000000");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, MoveTakesCellsAndColumns)
{
    Record record = tea();
    const Record moved(std::move(record));
    EXPECT_EQ(moved.fields(), &_fields);
    EXPECT_THAT(cells(moved), ElementsAre("7 (integer)", "tea (text)", "2.50000000 (float)"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, MoveAssignmentTakesCellsAndColumns)
{
    const FieldSet others = allTypes();
    Record record(others);
    EXPECT_EQ(&(record = tea()), &record);
    EXPECT_EQ(record.fields(), &_fields);
    EXPECT_THAT(cells(record), ElementsAre("7 (integer)", "tea (text)", "2.50000000 (float)"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DestructionLeavesTheColumnsAlone)
{
    {
        const Record record(_fields);
    }
    EXPECT_EQ(_fields.toSql(), "id, name, price");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- Cells from SQLite

TEST_F(RecordTest, InitColumnValueSetsTextAndType)
{
    Record record(_fields);
    EXPECT_TRUE(record.initColumnValue(0, "abc", sql::type_bool));
    EXPECT_THAT(cells(record), ElementsAre("abc (bool)", "null (text)", "null (float)"));
    EXPECT_FALSE(record.getValue(0)->isNull());
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, InitColumnValueReachesTheLastCell)
{
    Record record(_fields);
    EXPECT_TRUE(record.initColumnValue(2, "", sql::type_text));
    EXPECT_THAT(cells(record), ElementsAre("null (integer)", "null (text)", " (text)"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, InitColumnValueCopiesTheText)
{
    char text[] = "tea";
    Record record(_fields);
    record.initColumnValue(1, text, sql::type_text);
    text[0] = 's';
    EXPECT_EQ(record.getValue(1)->asString(), "tea");
}

TEST_F(RecordTest, InitColumnValueWithoutTextMakesTheCellNullAndSetsItsType)
{
    Record record = tea();
    EXPECT_TRUE(record.initColumnValue(0, nullptr, sql::type_text));
    EXPECT_THAT(cells(record), ElementsAre("null (text)", "tea (text)", "2.50000000 (float)"));
    EXPECT_EQ(record.getValue(0)->asString(), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, InitColumnValueIsBoundByTheCellsNotByTheColumns)
{
    Record record(_fields);
    _fields = keyAlone();
    EXPECT_TRUE(record.initColumnValue(2, "x", sql::type_text));
    EXPECT_THAT(cells(record), ElementsAre("null (integer)", "null (text)", "x (text)"));
}

// --- Lookups

TEST_F(RecordTest, CellsAreFoundByPositionAndByName)
{
    Record record = tea();
    const Record& constant = record;
    const char* const names[] = {"id", "name", "price"};
    const char* const texts[] = {"7", "tea", "2.50000000"};
    for (int i = 0; i < 3; ++i) {
        ASSERT_NE(record.getValue(i), nullptr);
        EXPECT_EQ(record.getValue(i)->asString(), texts[i]);
        EXPECT_EQ(record.getValue(names[i]), record.getValue(i));
        EXPECT_EQ(constant.getValue(i), record.getValue(i));
        EXPECT_EQ(constant.getValue(names[i]), record.getValue(i));
    }
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, CellFoundByPositionCanBeChanged)
{
    Record record = tea();
    record.getValue(1)->setString("coffee");
    EXPECT_EQ(record.toString(), "7|coffee|2.50000000");
}

TEST_F(RecordTest, CellFoundByNameCanBeChanged)
{
    Record record = tea();
    record.getValue("price")->setNull();
    EXPECT_EQ(record.toString(), "7|tea|null");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, FirstOfTwoColumnsOfOneNameIsFound)
{
    const FieldSet fields = oneNameTwice();
    Record record(fields);
    EXPECT_EQ(record.getValue("name"), record.getValue(1));
    EXPECT_EQ(record.fieldByName("name"), fields.getByIndex(1));
}

TEST_F(RecordTest, NamesFollowTheColumnsAsTheyAreNow)
{
    const Record record = tea();
    _fields = keyLast();
    EXPECT_EQ(record.getValue("name"), record.getValue(0));
    EXPECT_EQ(record.getKeyIdValue(), record.getValue(2));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, CellCountStaysWhenTheColumnsChange)
{
    const Record record(_fields);
    _fields = allTypes();
    EXPECT_EQ(record.columnCount(), 3);
    EXPECT_EQ(record.fields()->count(), 5);
}

TEST_F(RecordTest, FieldIsFoundByName)
{
    const Record record(_fields);
    EXPECT_EQ(record.fieldByName("price"), _fields.getByIndex(2));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, KeyCellIsThatOfTheKeyColumn)
{
    const FieldSet fields = keyLast();
    const Record record(fields);
    EXPECT_EQ(record.getKeyIdValue(), record.getValue(2));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, KeyCellOfTwoKeyColumnsIsThatOfTheFirst)
{
    const FieldSet fields = twoKeysLast();
    const Record record(fields);
    EXPECT_EQ(record.getKeyIdValue(), record.getValue(1));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ReportNamesPriorityAndSource)
{
    const Record record(_fields);
    record.getValue(3);
    ASSERT_EQ(_diagnostics.lines().size(), 1u);
    EXPECT_EQ(_diagnostics.lines()[0].priority, 3);
    EXPECT_EQ(_diagnostics.lines()[0].format,
              "[ERROR] %s:%d (%s) - No value for column with index %d");
    ASSERT_EQ(_diagnostics.failedAssertions().size(), 1u);
    EXPECT_EQ(_diagnostics.failedAssertions()[0].path,
              "components/sql/sqlwrapper/src/SqlRecord.cpp");
}

// --- Setters

struct Setter {
    const char* name;
    std::function<void(Record&, int)> byPosition;
    std::function<void(Record&, const std::string&)> byName;
    const char* stored;
    bool isNull;
};

void PrintTo(const Setter& setter, std::ostream* out)
{
    *out << setter.name;
}

std::vector<Setter> setters()
{
    const Time day(86400);
    return {
        {"SetNull", [](Record& record, int i) { record.setNull(i); },
         [](Record& record, const std::string& name) { record.setNull(name); }, "", true},
        {"SetString", [](Record& record, int i) { record.setString(i, "O'Neil \xE9"); },
         [](Record& record, const std::string& name) { record.setString(name, "O'Neil \xE9"); },
         "O'Neil \xE9", false},
        {"SetInteger", [](Record& record, int i) { record.setInteger(i, LLONG_MIN); },
         [](Record& record, const std::string& name) { record.setInteger(name, LLONG_MIN); },
         "-9223372036854775808", false},
        {"SetDouble", [](Record& record, int i) { record.setDouble(i, -0.125); },
         [](Record& record, const std::string& name) { record.setDouble(name, -0.125); },
         "-0.12500000", false},
        {"SetBoolTrue", [](Record& record, int i) { record.setBool(i, true); },
         [](Record& record, const std::string& name) { record.setBool(name, true); }, "1", false},
        {"SetBoolFalse", [](Record& record, int i) { record.setBool(i, false); },
         [](Record& record, const std::string& name) { record.setBool(name, false); }, "0", false},
        {"SetTime", [day](Record& record, int i) { record.setTime(i, day); },
         [day](Record& record, const std::string& name) { record.setTime(name, day); }, "86400",
         false},
    };
}

class RecordSetterTest : public RecordTest, public testing::WithParamInterface<Setter> {
protected:
    void expectStored(const Record& record)
    {
        EXPECT_EQ(record.getValue(1)->asString(), GetParam().stored);
        EXPECT_EQ(record.getValue(1)->isNull(), GetParam().isNull);
        EXPECT_EQ(record.getValue(1)->getType(), sql::type_text);
        EXPECT_EQ(record.getValue(0)->dump(true), "7 (integer)");
        EXPECT_EQ(record.getValue(2)->dump(true), "2.50000000 (float)");
        EXPECT_THAT(_diagnostics.events(), IsEmpty());
    }

    // Nothing has changed, and this was reported.
    void expectUnchanged(const Record& record, const Events& events)
    {
        EXPECT_THAT(_diagnostics.events(), ElementsAreArray(events));
        EXPECT_THAT(cells(record), ElementsAre("7 (integer)", "tea (text)", "2.50000000 (float)"));
    }
};

TEST_P(RecordSetterTest, StoresByPosition)
{
    Record record = tea();
    GetParam().byPosition(record, 1);
    expectStored(record);
}

TEST_P(RecordSetterTest, StoresByName)
{
    Record record = tea();
    GetParam().byName(record, "name");
    expectStored(record);
}

TEST_P(RecordSetterTest, StoresInANullCell)
{
    Record record = tea();
    record.setNull(1);
    GetParam().byPosition(record, 1);
    expectStored(record);
}

TEST_P(RecordSetterTest, KeepsTheTypeOfEveryCell)
{
    const FieldSet fields = allTypes();
    Record record(fields);
    for (int i = 0; i < 5; ++i) {
        GetParam().byPosition(record, i);
        EXPECT_EQ(record.getValue(i)->getType(), fields.getByIndex(i)->getType());
    }
}

TEST_P(RecordSetterTest, StoresInTheFirstOfTwoColumnsOfOneName)
{
    const FieldSet fields = oneNameTwice();
    Record record(fields);
    record.setString(1, "tea");
    record.setString(2, "other");
    GetParam().byName(record, "name");
    EXPECT_EQ(record.getValue(1)->asString(), GetParam().stored);
    EXPECT_EQ(record.getValue(2)->asString(), "other");
}

TEST_P(RecordSetterTest, NegativePositionIsReportedAndChangesNothing)
{
    Record record = tea();
    GetParam().byPosition(record, -1);
    expectUnchanged(record, noIndex(-1));
}

TEST_P(RecordSetterTest, PositionBehindTheLastIsReportedAndChangesNothing)
{
    Record record = tea();
    GetParam().byPosition(record, 3);
    expectUnchanged(record, noIndex(3));
}

TEST_P(RecordSetterTest, UnknownNameIsReportedAndChangesNothing)
{
    Record record = tea();
    GetParam().byName(record, "no_such_column");
    expectUnchanged(record, noField("no_such_column"));
}

TEST_P(RecordSetterTest, NameOfAColumnWithoutAPositionIsReportedByPosition)
{
    Record record = tea();
    _fields = unplacedProducts();
    GetParam().byName(record, "name");
    expectUnchanged(record, noIndex(-1));
}

TEST_P(RecordSetterTest, NameOfAColumnWithoutACellIsReportedByPosition)
{
    Record record = tea();
    _fields = allTypes();
    GetParam().byName(record, "at");
    expectUnchanged(record, noIndex(4));
}

INSTANTIATE_TEST_SUITE_P(All, RecordSetterTest, testing::ValuesIn(setters()), nameOf<Setter>);

TEST_F(RecordTest, TextInAnIntegerColumnIsStoredUnchanged)
{
    Record record(_fields);
    record.setString(0, "abc");
    EXPECT_EQ(record.getValue(0)->dump(true), "abc (integer)");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, SettingATimeCopiesItWithoutATrace)
{
    const FieldSet fields = allTypes();
    Record record(fields);
    const Time time(86400);
    _diagnostics.clear();
    record.setTime("at", time);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
    EXPECT_EQ(record.getValue(4)->asInteger(), 86400);
}

// --- Comparison

TEST_F(RecordTest, ColumnsOfEqualCellsAreEqual)
{
    const Record record = tea();
    Record other = tea();
    other.setString("name", "coffee");
    EXPECT_TRUE(record.equalsColumnValue(&other, "price"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ColumnsOfDifferentCellsDiffer)
{
    const Record record = tea();
    Record other = tea();
    other.setString("name", "coffee");
    EXPECT_FALSE(record.equalsColumnValue(&other, "name"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, KeyColumnIsComparedByName)
{
    const Record record = tea();
    Record other = tea();
    other.setInteger("id", 8);
    EXPECT_FALSE(record.equalsColumnValue(&other, "id"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ColumnIsComparedAcrossDifferentColumnSets)
{
    const FieldSet others = keyLast();
    Record other(others);
    other.setString("name", "tea");
    const Record record = tea();
    EXPECT_TRUE(record.equalsColumnValue(&other, "name"));
    EXPECT_FALSE(record.equalsColumnValue(&other, "id"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ColumnIsComparedByTheTypeOfThisRecordsCell)
{
    Record number(_fields);
    number.initColumnValue(1, "07", sql::type_int);
    Record text(_fields);
    text.setString("name", "7");
    EXPECT_TRUE(number.equalsColumnValue(&text, "name"));
    EXPECT_FALSE(text.equalsColumnValue(&number, "name"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, NoOtherRecordIsDifferentInEveryColumnWithoutAReport)
{
    const Record record = tea();
    EXPECT_FALSE(record.equalsColumnValue(nullptr, "name"));
    EXPECT_FALSE(record.equalsColumnValue(nullptr, "no_such_column"));
    EXPECT_FALSE(record.equalsValues(nullptr));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ColumnThatBothRecordsLackIsReportedOnceAndDiffers)
{
    const Record record = tea();
    const Record other = tea();
    EXPECT_FALSE(record.equalsColumnValue(&other, "no_such_column"));
    EXPECT_THAT(_diagnostics.events(), ElementsAreArray(noNameConst("no_such_column")));
}

TEST_F(RecordTest, ColumnThatTheOtherRecordLacksIsReportedAndDiffers)
{
    const FieldSet others = keyAlone();
    const Record other(others);
    const Record record = tea();
    EXPECT_FALSE(record.equalsColumnValue(&other, "name"));
    EXPECT_THAT(_diagnostics.events(), ElementsAreArray(noNameConst("name")));
}

TEST_F(RecordTest, ColumnThatThisRecordLacksIsReportedBeforeTheOtherRecordIsLookedAt)
{
    const FieldSet unplaced = unplacedProducts();
    const FieldSet others = keyAlone();
    const Record record(unplaced);
    const Record other(others);
    EXPECT_FALSE(record.equalsColumnValue(&other, "name"));
    EXPECT_THAT(_diagnostics.events(), ElementsAreArray(noIndexConst(-1)));
}

TEST_F(RecordTest, RecordsThatDifferInTheirKeyAloneAreEqual)
{
    const Record record = tea();
    Record other = tea();
    other.setInteger("id", 8);
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, RecordsThatDifferInASecondKeyColumnAreEqual)
{
    const FieldSet fields = twoKeys();
    Record record(fields);
    record.setString("code", "a");
    Record other(fields);
    other.setString("code", "b");
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, RecordEqualsItself)
{
    const Record record = tea();
    EXPECT_TRUE(record.equalsValues(&record));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, NullCellsAreEqual)
{
    const FieldSet fields = allTypes();
    const Record record(fields);
    const Record other(fields);
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, RecordsThatDifferInAnyOtherColumnDiffer)
{
    const FieldSet fields = allTypes();
    const Record record(fields);
    for (const char* const name : {"name", "price", "sold"}) {
        Record other(fields);
        other.setInteger(name, 1);
        EXPECT_FALSE(record.equalsValues(&other)) << name;
        EXPECT_FALSE(other.equalsValues(&record)) << name;
    }
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DifferentTimesAreEqualDeliberately)
{
    const FieldSet fields = allTypes();
    Record record(fields);
    record.setTime("at", Time(1));
    Record other(fields);
    other.setTime("at", Time(2));
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_TRUE(record.equalsColumnValue(&other, "at"));
}

TEST_F(RecordTest, NullCellsEqualZeroDeliberately)
{
    const FieldSet fields = allTypes();
    const Record record(fields);
    Record other(fields);
    other.setString("name", "");
    other.setDouble("price", 0.0);
    other.setBool("sold", false);
    other.setTime("at", Time(5));
    EXPECT_TRUE(record.equalsValues(&other));
}

TEST_F(RecordTest, ValuesAreComparedByNameAcrossDifferentColumnSets)
{
    const FieldSet others = keyLast();
    Record other(others);
    other.setString("name", "tea");
    other.setDouble("price", 2.5);
    const Record record = tea();
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_TRUE(other.equalsValues(&record));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DifferenceIsFoundAcrossDifferentColumnSets)
{
    const FieldSet others = keyLast();
    Record other(others);
    other.setString("name", "tea");
    other.setDouble("price", 3.5);
    const Record record = tea();
    EXPECT_FALSE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DifferenceInTheFirstColumnIsFound)
{
    const FieldSet fields = keyLast();
    Record record(fields);
    record.setString(0, "tea");
    Record other(fields);
    other.setString(0, "mate");
    EXPECT_FALSE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ValuesAreComparedByTheTypesOfThisRecordsCells)
{
    Record number(_fields);
    number.initColumnValue(1, "07", sql::type_int);
    Record text(_fields);
    text.setString("name", "7");
    EXPECT_TRUE(number.equalsValues(&text));
    EXPECT_FALSE(text.equalsValues(&number));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, CellsOfAnUndefinedTypeDiffer)
{
    Record record = tea();
    record.initColumnValue(1, "tea", sql::type_undefined);
    const Record other = tea();
    EXPECT_FALSE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ColumnsOfTheOtherRecordAloneAreNotCompared)
{
    const FieldSet others = allTypes();
    Record other(others);
    other.setString("name", "tea");
    other.setDouble("price", 2.5);
    other.setBool("sold", true);
    const Record record = tea();
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ColumnsThatTheOtherRecordLacksAreReportedAndCountAsEqual)
{
    const FieldSet others = keyAlone();
    const Record other(others);
    const Record record = tea();
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(),
                ElementsAreArray(inOrder({noNameConst("name"), noNameConst("price")})));
}

TEST_F(RecordTest, ColumnsThatThisRecordLacksAreReportedOnceAndCountAsEqual)
{
    const FieldSet unplaced = unplacedProducts();
    const FieldSet others = keyAlone();
    const Record record(unplaced);
    const Record other(others);
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(),
                ElementsAreArray(inOrder({noIndexConst(-1), noIndexConst(-1)})));
}

TEST_F(RecordTest, ComparisonGoesOnBehindALackingColumn)
{
    const FieldSet others = quiet(priceAlone);
    Record other(others);
    other.setDouble("price", 3.5);
    const Record record = tea();
    EXPECT_FALSE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), ElementsAreArray(noNameConst("name")));
}

TEST_F(RecordTest, ComparisonEndsAtTheFirstDifference)
{
    const FieldSet others = textKey();
    Record other(others);
    other.setString("name", "coffee");
    const Record record = tea();
    EXPECT_FALSE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, SecondOfTwoColumnsOfOneNameIsNotComparedDeliberately)
{
    const FieldSet fields = oneNameTwice();
    Record record(fields);
    record.setDouble(2, 1.0);
    Record other(fields);
    other.setDouble(2, 2.0);
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, RecordsWithoutColumnsAreEqual)
{
    const FieldSet fields = quiet(noColumns);
    const Record record(fields);
    const Record other(fields);
    EXPECT_TRUE(record.equalsValues(&other));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- Texts

TEST_F(RecordTest, TextOfAFreshRecordIsNulls)
{
    const Record record(_fields);
    EXPECT_EQ(record.toString(), "null|null|null");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, TextIsTheCellsInTheirOrder)
{
    const FieldSet fields = allTypes();
    Record record(fields);
    record.setInteger("id", 7);
    record.setString("name", "a|b");
    record.setBool("sold", true);
    record.setTime("at", Time(86400));
    _diagnostics.clear();
    EXPECT_EQ(record.toString(), "7|a|b|null|1|02-01-1970 01:00:00, Fri");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 86400 = 'Fri Jan  2 01:00:00 1970\n'"));
}

TEST_F(RecordTest, TextOfOneCellHasNoSeparator)
{
    const FieldSet fields = keyAlone();
    Record record(fields);
    record.setInteger(0, 7);
    EXPECT_EQ(record.toString(), "7");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, TextHasAllCellsWhateverTheColumnsAreNow)
{
    const Record record = tea();
    _fields = keyAlone();
    EXPECT_EQ(record.toString(), "7|tea|2.50000000");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DumpWithoutTypesIsNamesAndCells)
{
    const Record record = tea();
    EXPECT_EQ(record.dump(false), "id = 7|name = tea|price = 2.50000000");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DumpWithTypesAddsTheTypesOfTheCells)
{
    const Record record = tea();
    EXPECT_EQ(record.dump(true), "id = 7 (integer)|name = tea (text)|price = 2.50000000 (float)");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DumpOfNullsNamesEveryType)
{
    const FieldSet fields = allTypes();
    const Record record(fields);
    EXPECT_EQ(record.dump(true), "id = null (integer)|name = null (text)|price = null (float)|"
                                 "sold = null (bool)|at = null (time)");
}

TEST_F(RecordTest, DumpShowsTheTypeOfTheCellNotOfTheColumn)
{
    Record record = tea();
    record.initColumnValue(1, "1", sql::type_bool);
    EXPECT_EQ(record.dump(true), "id = 7 (integer)|name = 1 (bool)|price = 2.50000000 (float)");
}

TEST_F(RecordTest, DumpOfACellOfUndefinedTypeIsReportedWhenTypesAreShown)
{
    Record record = tea();
    record.initColumnValue(1, "x", sql::type_undefined);
    EXPECT_EQ(record.dump(true),
              "id = 7 (integer)|name = x (undefined)|price = 2.50000000 (float)");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'false' in SqlCommon.cpp (sql::string sql::type2Str(sql::field_type))"));
}

TEST_F(RecordTest, DumpOfACellOfUndefinedTypeIsSilentWithoutTypes)
{
    Record record = tea();
    record.initColumnValue(1, "x", sql::type_undefined);
    EXPECT_EQ(record.dump(false), "id = 7|name = x|price = 2.50000000");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, StatementsOfAWideTableHaveEachCellBesideItsName)
{
    const FieldSet fields = wide();
    Record record(fields);
    std::string names, literals, assignments;
    for (int i = 0; i < wide_count; ++i) {
        record.setInteger(i, 7 * i);
        const std::string separator = i < wide_count - 1 ? ", " : "";
        names += wideName(i) + separator;
        literals += std::to_string(7 * i) + separator;
        if (i > 0)
            assignments += wideName(i) + "=" + std::to_string(7 * i) + separator;
    }
    EXPECT_EQ(record.toSqlInsert("t"), "insert into t (" + names + ") values (" + literals + ")");
    EXPECT_EQ(record.toSqlUpdate("t"), "update t set " + assignments + " where id = 0");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DumpShowsBothColumnsOfOneNameWithTheirOwnCells)
{
    const FieldSet fields = oneNameTwice();
    Record record(fields);
    record.setString(1, "tea");
    record.setDouble(2, 2.5);
    EXPECT_EQ(record.dump(false), "id = null|name = tea|name = 2.50000000");
}

TEST_F(RecordTest, DumpNamesColumnsWithoutPositions)
{
    const FieldSet fields = unplacedProducts();
    Record record(fields);
    record.setString(1, "tea");
    EXPECT_EQ(record.dump(false), "id = null|name = tea|price = null");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DumpOfACellWithoutAColumnHasNoName)
{
    const Record record = tea();
    _fields = keyAlone();
    EXPECT_EQ(record.dump(false), "id = 7|tea|2.50000000");
    EXPECT_EQ(record.dump(true), "id = 7 (integer)|tea (text)|2.50000000 (float)");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, DumpEndsWithTheLastCellWhenThereAreMoreColumns)
{
    const Record record = tea();
    _fields = allTypes();
    EXPECT_EQ(record.dump(false), "id = 7|name = tea|price = 2.50000000");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- Statements

struct Statement {
    const char* name;
    FieldSet (*columns)();
    void (*fill)(Record&);
    const char* values;
    const char* insert;
    const char* update;
    Events updateEvents;
    Events traces = Events(); // of the time that every statement converts
};

void PrintTo(const Statement& statement, std::ostream* out)
{
    *out << statement.name;
}

void fillTea(Record& record)
{
    record.setString("name", "O'Brien tea");
    record.setDouble("price", 2.5);
}

void fillTeaWithKey(Record& record)
{
    fillTea(record);
    record.setInteger("id", 7);
}

std::vector<Statement> statements()
{
    return {
        {"KeyLeftNull", products, fillTea, "null, 'O''Brien tea', 2.50000000",
         "insert into product (id, name, price) values (null, 'O''Brien tea', 2.50000000)",
         "update product set name='O''Brien tea', price=2.50000000 where id = null", Events()},
        {"KeyFirst", products, fillTeaWithKey, "7, 'O''Brien tea', 2.50000000",
         "insert into product (id, name, price) values (7, 'O''Brien tea', 2.50000000)",
         "update product set name='O''Brien tea', price=2.50000000 where id = 7", Events()},
        {"KeyLastLeavesACommaAndTwoBlanksDeliberately", keyLast, fillTeaWithKey,
         "'O''Brien tea', 2.50000000, 7",
         "insert into product (name, price, id) values ('O''Brien tea', 2.50000000, 7)",
         "update product set name='O''Brien tea', price=2.50000000,  where id = 7", Events()},
        {"KeyInTheMiddle", keyInTheMiddle, fillTeaWithKey, "'O''Brien tea', 7, 2.50000000",
         "insert into product (name, id, price) values ('O''Brien tea', 7, 2.50000000)",
         "update product set name='O''Brien tea', price=2.50000000 where id = 7", Events()},
        {"KeyAloneLeavesTwoBlanksDeliberately", keyAlone,
         [](Record& record) { record.setInteger("id", 7); }, "7",
         "insert into product (id) values (7)", "update product set  where id = 7", Events()},
        {"AllTypesNull", allTypes, [](Record&) {}, "null, null, null, null, null",
         "insert into product (id, name, price, sold, at) values (null, null, null, null, null)",
         "update product set name=null, price=null, sold=null, at=null where id = null", Events()},
        {"AllTypes", allTypes,
         [](Record& record) {
             record.setInteger("id", LLONG_MIN);
             record.setString("name", "''");
             record.setDouble("price", -0.1);
             record.setBool("sold", true);
             record.setTime("at", Time(86400));
         },
         "-9223372036854775808, '''''', -0.10000000, 1, 86400",
         "insert into product (id, name, price, sold, at) values (-9223372036854775808, '''''', -0.10000000, 1, 86400)",
         "update product set name='''''', price=-0.10000000, sold=1, at=86400 where id = -9223372036854775808",
         Events()},
        {"InfinityIsABareWord", products,
         [](Record& record) { record.setDouble("price", std::numeric_limits<double>::infinity()); },
         "null, null, inf", "insert into product (id, name, price) values (null, null, inf)",
         "update product set name=null, price=inf where id = null", Events()},
        {"NegativeInfinityIsABareWord", products,
         [](Record& record) {
             record.setDouble("price", -std::numeric_limits<double>::infinity());
         },
         "null, null, -inf", "insert into product (id, name, price) values (null, null, -inf)",
         "update product set name=null, price=-inf where id = null", Events()},
        {"NotANumberIsABareWord", products,
         [](Record& record) {
             record.setDouble("price", std::numeric_limits<double>::quiet_NaN());
         },
         "null, null, nan", "insert into product (id, name, price) values (null, null, nan)",
         "update product set name=null, price=nan where id = null", Events()},
        {"EmptyTextAndFalse", allTypes,
         [](Record& record) {
             record.setString("name", "");
             record.setBool("sold", false);
         },
         "null, '', null, 0, null",
         "insert into product (id, name, price, sold, at) values (null, '', null, 0, null)",
         "update product set name='', price=null, sold=0, at=null where id = null", Events()},
        {"TextKeyIsReportedAndBareDeliberately", textKey,
         [](Record& record) {
             record.setString("code", "O'Brien");
             record.setString("name", "tea");
         },
         "'O''Brien', 'tea'", "insert into product (code, name) values ('O''Brien', 'tea')",
         "update product set name='tea' where code = O'Brien", key_is_no_integer},
        {"TextKeyLeftNullIsReported", textKey, [](Record&) {}, "null, null",
         "insert into product (code, name) values (null, null)",
         "update product set name=null where code = null", key_is_no_integer},
        {"TextKeyWithAnIntegerCellIsBareWithoutAReport", textKey,
         [](Record& record) { record.initColumnValue(0, "5", sql::type_int); }, "'5', null",
         "insert into product (code, name) values ('5', null)",
         "update product set name=null where code = 5", Events()},
        {"IntegerKeyWithATextCellIsReported", keyAlone,
         [](Record& record) { record.initColumnValue(0, "o'k", sql::type_text); }, "o'k",
         "insert into product (id) values (o'k)", "update product set  where id = o'k",
         key_is_no_integer},
        {"IntegerKeyWithATimeCellIsReportedAndInSeconds", keyAlone,
         [](Record& record) { record.initColumnValue(0, "12x", sql::type_time); }, "12",
         "insert into product (id) values (12)", "update product set  where id = 12",
         key_is_no_integer},
        {"IntegerColumnsFilledWithTextAreBare", products,
         [](Record& record) { record.setString("id", "abc"); }, "abc, null, null",
         "insert into product (id, name, price) values (abc, null, null)",
         "update product set name=null, price=null where id = abc", Events()},
        {"TextColumnFilledWithAnIntegerIsQuoted", products,
         [](Record& record) { record.setInteger("name", 5); }, "null, '5', null",
         "insert into product (id, name, price) values (null, '5', null)",
         "update product set name='5', price=null where id = null", Events()},
        {"TextColumnWithAnIntegerCellIsQuoted", products,
         [](Record& record) { record.initColumnValue(1, "5", sql::type_int); }, "null, '5', null",
         "insert into product (id, name, price) values (null, '5', null)",
         "update product set name='5', price=null where id = null", Events()},
        {"TextColumnWithATimeCellIsQuotedLocalTime",
         products,
         [](Record& record) { record.initColumnValue(1, "0", sql::type_time); },
         "null, '01-01-1970 01:00:00, Thu', null",
         "insert into product (id, name, price) values (null, '01-01-1970 01:00:00, Thu', null)",
         "update product set name='01-01-1970 01:00:00, Thu', price=null where id = null",
         Events(),
         {"[DEBUG3] SqlCommon.cpp (Time) - Time ctor: time = 0 = 'Thu Jan  1 01:00:00 1970\n'"}},
        {"FloatColumnWithATextCellIsBare", products,
         [](Record& record) { record.initColumnValue(2, "a'b", sql::type_text); },
         "null, null, a'b", "insert into product (id, name, price) values (null, null, a'b)",
         "update product set name=null, price=a'b where id = null", Events()},
        {"TimeColumnFilledWithTextIsItsLeadingSeconds", allTypes,
         [](Record& record) { record.setString("at", "12x"); }, "null, null, null, null, 12",
         "insert into product (id, name, price, sold, at) values (null, null, null, null, 12)",
         "update product set name=null, price=null, sold=null, at=12 where id = null", Events()},
        {"TimeColumnWithATextCellIsBare", allTypes,
         [](Record& record) { record.initColumnValue(4, "12x", sql::type_text); },
         "null, null, null, null, 12x",
         "insert into product (id, name, price, sold, at) values (null, null, null, null, 12x)",
         "update product set name=null, price=null, sold=null, at=12x where id = null", Events()},
        {"FirstOfTwoKeysSelectsAndNeitherIsSet", twoKeys,
         [](Record& record) {
             record.setInteger("id", 7);
             record.setString("code", "a");
             record.setString("name", "tea");
         },
         "7, 'a', 'tea'", "insert into product (id, code, name) values (7, 'a', 'tea')",
         "update product set name='tea' where id = 7", Events()},
        {"TwoKeysLastLeaveOneCommaDeliberately", twoKeysLast,
         [](Record& record) {
             record.setInteger("id", 7);
             record.setString("code", "a");
             record.setString("name", "tea");
         },
         "'tea', 'a', 7", "insert into product (name, code, id) values ('tea', 'a', 7)",
         "update product set name='tea',  where code = a", key_is_no_integer},
        {"TwoColumnsOfOneNameShareTheFirstCellDeliberately", oneNameTwice,
         [](Record& record) {
             record.setInteger(0, 7);
             record.setString(1, "tea");
             record.setDouble(2, 2.5);
         },
         "7, 'tea', tea", "insert into product (id, name, name) values (7, 'tea', tea)",
         "update product set name='tea', name=tea where id = 7", Events()},
    };
}

class RecordStatementTest : public RecordTest, public testing::WithParamInterface<Statement> {
protected:
    RecordStatementTest() : _record(_columns)
    {
        GetParam().fill(_record);
        _before = cells(_record);
        _diagnostics.clear();
    }

    void TearDown() override
    {
        EXPECT_EQ(cells(_record), _before);
    }

    const FieldSet _columns = GetParam().columns();
    Record _record;
    std::vector<std::string> _before;
};

TEST_P(RecordStatementTest, ValueList)
{
    EXPECT_EQ(_record.toSql(), GetParam().values);
    EXPECT_THAT(_diagnostics.events(), ElementsAreArray(GetParam().traces));
}

TEST_P(RecordStatementTest, Insert)
{
    EXPECT_EQ(_record.toSqlInsert("product"), GetParam().insert);
    EXPECT_THAT(_diagnostics.events(), ElementsAreArray(GetParam().traces));
}

TEST_P(RecordStatementTest, Update)
{
    EXPECT_EQ(_record.toSqlUpdate("product"), GetParam().update);
    EXPECT_THAT(_diagnostics.events(),
                ElementsAreArray(inOrder({GetParam().traces, GetParam().updateEvents})));
}

TEST_P(RecordStatementTest, UpdateWithoutATraceObject)
{
    _diagnostics.removeTraceObject();
    EXPECT_EQ(_record.toSqlUpdate("product"), GetParam().update);
    EXPECT_THAT(_diagnostics.events(), ElementsAreArray(GetParam().updateEvents));
}

INSTANTIATE_TEST_SUITE_P(All, RecordStatementTest, testing::ValuesIn(statements()),
                         nameOf<Statement>);

TEST_F(RecordTest, NamesGoIntoStatementsAsTheyStand)
{
    const Field columns[] = {
        Field("order by", sql::type_int, sql::flag_primary_key),
        Field("it's", sql::type_int, sql::flag_none),
        Field(),
    };
    const FieldSet fields(columns);
    const Record record(fields);
    EXPECT_EQ(record.toSqlInsert(" a;'b "),
              "insert into  a;'b  (order by, it's) values (null, null)");
    EXPECT_EQ(record.toSqlUpdate(" a;'b "), "update  a;'b  set it's=null where order by = null");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, BlankIsATableName)
{
    const Record record(_fields);
    EXPECT_EQ(record.toSqlInsert(" "), "insert into   (id, name, price) values (null, null, null)");
    EXPECT_EQ(record.toSqlUpdate(" "), "update   set name=null, price=null where id = null");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ZeroByteInACellStaysInStatements)
{
    Record record = tea();
    record.setString("name", string("t\0a", 3));
    record.setString("price", string("5\0", 2));
    EXPECT_EQ(record.toSql(), string("7, 't\0a', 5\0", 12));
    EXPECT_EQ(record.toSqlUpdate("product"), "update product set name='t" + string(1, '\0')
                                                 + "a', price=5" + string(1, '\0')
                                                 + " where id = 7");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, StatementsDoNotDependOnTheLocale)
{
    const test::CommaLocale locale;
    Record record = tea();
    record.setInteger("id", 1234567);
    record.setDouble("price", 1234.5);
    EXPECT_EQ(record.toSqlInsert("product"),
              "insert into product (id, name, price) values (1234567, 'tea', 1234.50000000)");
    EXPECT_EQ(record.toSqlUpdate("product"),
              "update product set name='tea', price=1234.50000000 where id = 1234567");
    EXPECT_EQ(record.dump(false), "id = 1234567|name = tea|price = 1234.50000000");
}

TEST_F(RecordTest, BytesAbove127StayInStatements)
{
    Record record(_fields);
    record.setString("name", "\xC3\xA9'\xFC");
    EXPECT_EQ(record.toSql(), "null, '\xC3\xA9''\xFC', null");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, InsertOfAnEmptyIntegerAloneIsReportedByTheTableAlone)
{
    const FieldSet fields = keyAlone();
    Record record(fields);
    record.setString("id", "");
    EXPECT_EQ(record.toSqlInsert("product"), "");
    EXPECT_THAT(_diagnostics.events(),
                ElementsAreArray(report("toSqlInsert", "No values to insert in table 'product'",
                                        to_sql_insert)));
}

TEST_F(RecordTest, InsertWorksWithoutAKeyColumn)
{
    const FieldSet fields = quiet(withoutKey);
    Record record(fields);
    fillTea(record);
    EXPECT_EQ(record.toSqlInsert("product"),
              "insert into product (name, price) values ('O''Brien tea', 2.50000000)");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, ValueListWithoutColumnsIsEmptyWithoutAReport)
{
    const FieldSet fields = quiet(noColumns);
    const Record record(fields);
    EXPECT_EQ(record.toSql(), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, StatementsHaveTheColumnsOfNowNotAllCells)
{
    const Record record = tea();
    _fields = keyAlone();
    EXPECT_EQ(record.toSql(), "7");
    EXPECT_EQ(record.toSqlInsert("product"), "insert into product (id) values (7)");
    EXPECT_EQ(record.toSqlUpdate("product"), "update product set  where id = 7");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(RecordTest, CellsAreRenderedAfterTheColumnsOfNow)
{
    const Record record = tea();
    _fields = keyLast();
    EXPECT_EQ(record.toSql(), "'7', tea, 2.50000000");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// --- Failures

struct Failure {
    const char* name;
    FieldSet (*columns)();
    FieldSet (*laterColumns)(); // what the columns are changed into under the record, or null
    std::function<bool(Record&)> fails; // whether the result is that of a failure
    Events events;
};

void PrintTo(const Failure& failure, std::ostream* out)
{
    *out << failure.name;
}

std::function<bool(Record&)> initialised(int index)
{
    return [index](Record& record) {
        return !record.initColumnValue(index, "x", sql::type_bool);
    };
}

std::function<bool(Record&)> got(int index)
{
    return [index](Record& record) {
        return record.getValue(index) == nullptr;
    };
}

std::function<bool(Record&)> gotConst(int index)
{
    return [index](const Record& record) {
        return record.getValue(index) == nullptr;
    };
}

std::function<bool(Record&)> gotNamed(const std::string& name)
{
    return [name](Record& record) {
        return record.getValue(name) == nullptr;
    };
}

std::function<bool(Record&)> gotNamedConst(const std::string& name)
{
    return [name](const Record& record) {
        return record.getValue(name) == nullptr;
    };
}

bool gotNoKey(const Record& record)
{
    return record.getKeyIdValue() == nullptr;
}

std::function<bool(Record&)> gotField(const std::string& name)
{
    return [name](const Record& record) {
        return record.fieldByName(name) == nullptr;
    };
}

bool listed(const Record& record)
{
    return record.toSql().empty();
}

bool inserted(const Record& record)
{
    return record.toSqlInsert("product").empty();
}

bool insertedNowhere(const Record& record)
{
    return record.toSqlInsert("").empty();
}

bool updated(const Record& record)
{
    return record.toSqlUpdate("product").empty();
}

bool updatedNowhere(const Record& record)
{
    return record.toSqlUpdate("").empty();
}

std::vector<Failure> lookupFailures()
{
    return {
        {"InitColumnValueAtMinusOne", products, nullptr, initialised(-1),
         report("initColumnValue", "Column index (-1) is out of range [0, 3[", init_column_value)},
        {"InitColumnValueBehindTheLast", products, nullptr, initialised(3),
         report("initColumnValue", "Column index (3) is out of range [0, 3[", init_column_value)},
        {"InitColumnValueAtTheLowestIndex", products, nullptr, initialised(INT_MIN),
         report("initColumnValue", "Column index (-2147483648) is out of range [0, 3[",
                init_column_value)},
        {"InitColumnValueAtTheHighestIndex", products, nullptr, initialised(INT_MAX),
         report("initColumnValue", "Column index (2147483647) is out of range [0, 3[",
                init_column_value)},
        {"InitColumnValueWithoutCells", noColumns, nullptr, initialised(0),
         report("initColumnValue", "Column index (0) is out of range [0, 0[", init_column_value)},
        {"InitColumnValueOfAColumnWithoutACell", products, allTypes, initialised(3),
         report("initColumnValue", "Column index (3) is out of range [0, 3[", init_column_value)},

        {"ValueAtMinusOne", products, nullptr, got(-1), noIndex(-1)},
        {"ValueBehindTheLast", products, nullptr, got(3), noIndex(3)},
        {"ValueAtTheLowestIndex", products, nullptr, got(INT_MIN), noIndex(INT_MIN)},
        {"ValueAtTheHighestIndex", products, nullptr, got(INT_MAX), noIndex(INT_MAX)},
        {"ValueWithoutCells", noColumns, nullptr, got(0), noIndex(0)},
        {"ConstValueAtMinusOne", products, nullptr, gotConst(-1), noIndexConst(-1)},
        {"ConstValueBehindTheLast", products, nullptr, gotConst(3), noIndexConst(3)},

        {"ValueOfAnUnknownName", products, nullptr, gotNamed("no_such_column"),
         report("getValue", "No value for column with name 'no_such_column'", get_by_name)},
        {"ValueOfANameInAnotherCase", products, nullptr, gotNamed("Name"),
         report("getValue", "No value for column with name 'Name'", get_by_name)},
        {"ValueOfANameWithABlank", products, nullptr, gotNamed("name "),
         report("getValue", "No value for column with name 'name '", get_by_name)},
        {"ValueOfAnEmptyName", products, nullptr, gotNamed(""),
         report("getValue", "No value for column with name ''", get_by_name)},
        {"ConstValueOfAnUnknownName", products, nullptr, gotNamedConst("no_such_column"),
         noNameConst("no_such_column")},
        {"ConstValueOfAnEmptyName", products, nullptr, gotNamedConst(""), noNameConst("")},
        {"ValueOfAColumnWithoutAPosition", unplacedProducts, nullptr, gotNamed("name"),
         noIndex(-1)},
        {"ConstValueOfAColumnWithoutAPosition", unplacedProducts, nullptr, gotNamedConst("name"),
         noIndexConst(-1)},
        {"ValueOfAColumnWithoutACell", products, allTypes, gotNamed("sold"), noIndex(3)},
        {"ConstValueOfAColumnWithoutACell", products, allTypes, gotNamedConst("at"),
         noIndexConst(4)},
        {"ValueOfACellWithoutAColumn", products, keyAlone, gotNamed("name"),
         report("getValue", "No value for column with name 'name'", get_by_name)},

        {"KeyWithoutAKeyColumn", withoutKey, nullptr, gotNoKey,
         report("getKeyIdValue", "No PRIMARY KEY column found", get_key_id_value)},
        {"KeyWithoutColumns", noColumns, nullptr, gotNoKey,
         report("getKeyIdValue", "No PRIMARY KEY column found", get_key_id_value)},
        {"KeyWithoutAPosition", unplacedProducts, nullptr, gotNoKey, noIndexConst(-1)},
        {"KeyWithoutACell", withoutKey, keyLast, gotNoKey, noIndexConst(2)},

        {"FieldOfAnUnknownName", products, nullptr, gotField("no_such_column"),
         noField("no_such_column")},
        {"FieldOfANameInAnotherCase", products, nullptr, gotField("ID"), noField("ID")},
        {"FieldOfAnEmptyName", products, nullptr, gotField(""), noField("")},
    };
}

std::vector<Failure> statementFailures()
{
    const Events no_value_3 = report("toSql", "field with index 3 does not have value", to_sql);
    const Events no_values = report("toSqlInsert", "No values to insert in table 'product'",
                                    to_sql_insert);
    const Events no_key_for_table = report(
        "toSqlUpdate", "Failed to get name of PRIMARY KEY column for table product", to_sql_update);
    const Events no_key_value_for_table = report(
        "toSqlUpdate", "No PRIMARY KEY column found for table product", to_sql_update);
    return {
        {"ValueListOfAColumnWithoutACell", products, allTypes, listed,
         inOrder({noIndexConst(3), no_value_3})},
        {"ValueListOfColumnsWithoutPositions", unplacedProducts, nullptr, listed,
         inOrder({noIndexConst(-1),
                  report("toSql", "field with index 0 does not have value", to_sql)})},

        {"InsertWithoutATableName", products, nullptr, insertedNowhere,
         report("toSqlInsert", "No table name given", to_sql_insert)},
        {"InsertWithoutATableNameAndWithoutColumns", noColumns, nullptr, insertedNowhere,
         report("toSqlInsert", "No table name given", to_sql_insert)},
        {"InsertWithoutColumns", noColumns, nullptr, inserted,
         report("toSqlInsert", "No fields to insert in table 'product'", to_sql_insert)},
        {"InsertOfANamelessColumnAlone", namelessKeyAlone, nullptr, inserted,
         report("toSqlInsert", "No fields to insert in table 'product'", to_sql_insert)},
        {"InsertOfAColumnWithoutACell", products, allTypes, inserted,
         inOrder({noIndexConst(3), no_value_3, no_values})},
        {"InsertOfColumnsWithoutPositions", unplacedProducts, nullptr, inserted,
         inOrder({noIndexConst(-1),
                  report("toSql", "field with index 0 does not have value", to_sql), no_values})},

        {"UpdateWithoutATableName", products, nullptr, updatedNowhere,
         report("toSqlUpdate", "No table name given", to_sql_update)},
        {"UpdateWithoutATableNameAndWithoutAKey", withoutKey, nullptr, updatedNowhere,
         report("toSqlUpdate", "No table name given", to_sql_update)},
        {"UpdateOfAColumnWithoutACell", products, allTypes, updated,
         inOrder({noIndexConst(3),
                  report("toSqlUpdate",
                         "No value for column with index=3 (and name=sold) of table product",
                         to_sql_update)})},
        {"UpdateOfColumnsWithoutPositions", unplacedProducts, nullptr, updated,
         inOrder({noIndexConst(-1),
                  report("toSqlUpdate",
                         "No value for column with index=1 (and name=name) of table product",
                         to_sql_update)})},
        {"UpdateOfAColumnWithoutACellAndWithoutAKey", keyAlone, withoutKey, updated,
         inOrder({noIndexConst(1),
                  report("toSqlUpdate",
                         "No value for column with index=1 (and name=price) of table product",
                         to_sql_update)})},
        {"UpdateWithoutAKeyColumn", withoutKey, nullptr, updated,
         inOrder({no_key_name, no_key_for_table})},
        {"UpdateWithoutColumns", noColumns, nullptr, updated,
         inOrder({no_key_name, no_key_for_table})},
        {"UpdateWithANamelessKey", namelessKeyAlone, nullptr, updated, no_key_for_table},
        {"UpdateWithAKeyWithoutAPosition", unplacedKeyAlone, nullptr, updated,
         inOrder({noIndexConst(-1), no_key_value_for_table})},
        {"UpdateWithAKeyWithoutACell", withoutKey, keyLast, updated,
         inOrder({noIndexConst(2), no_key_value_for_table})},
    };
}

Events assertionsOf(const Events& events)
{
    Events assertions;
    for (const std::string& event : events) {
        if (event.compare(0, 6, "assert") == 0)
            assertions.push_back(event);
    }
    return assertions;
}

class RecordFailureTest : public RecordTest, public testing::WithParamInterface<Failure> {
protected:
    RecordFailureTest() : _columns(GetParam().columns()), _record(_columns)
    {
        for (int i = 0; i < _record.columnCount(); ++i)
            _record.setInteger(i, i);
        if (GetParam().laterColumns != nullptr)
            _columns = GetParam().laterColumns();
        _before = cells(_record);
        _diagnostics.clear();
        _diagnostics.setLevel(3);
    }

    void expectFailure(const Events& events)
    {
        EXPECT_TRUE(GetParam().fails(_record));
        EXPECT_THAT(_diagnostics.events(), ElementsAreArray(events));
        _diagnostics.clear();
        EXPECT_EQ(cells(_record), _before);
        EXPECT_EQ(_record.fields(), &_columns);
    }

    FieldSet _columns;
    Record _record;
    std::vector<std::string> _before;
};

TEST_P(RecordFailureTest, IsLoggedThenAsserted)
{
    expectFailure(GetParam().events);
}

TEST_P(RecordFailureTest, IsReportedAlikeAtTheHighestTraceLevel)
{
    _diagnostics.setLevel(9);
    expectFailure(GetParam().events);
}

TEST_P(RecordFailureTest, IsAssertedBelowTheTraceLevelOfErrors)
{
    _diagnostics.setLevel(2);
    expectFailure(assertionsOf(GetParam().events));
}

TEST_P(RecordFailureTest, IsAssertedWithoutATraceLevel)
{
    _diagnostics.removeLevel();
    expectFailure(assertionsOf(GetParam().events));
}

TEST_P(RecordFailureTest, IsAssertedWithoutATraceObject)
{
    _diagnostics.removeTraceObject();
    expectFailure(assertionsOf(GetParam().events));
}

INSTANTIATE_TEST_SUITE_P(Lookup, RecordFailureTest, testing::ValuesIn(lookupFailures()),
                         nameOf<Failure>);

INSTANTIATE_TEST_SUITE_P(Statement, RecordFailureTest, testing::ValuesIn(statementFailures()),
                         nameOf<Failure>);

} // namespace
