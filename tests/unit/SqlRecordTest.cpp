#include "SqlRecord.h"

#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Rows.h"

#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace {

namespace report = test::report;

using sql::Field;
using sql::FieldSet;
using sql::Record;
using sql::string;
using sql::Time;
using sql::Value;
using test::cells;
using test::joined;
using test::Texts;
using test::report::noField;
using test::report::noKeyValue;
using test::report::noValue;
using test::report::noValueToChange;
using test::report::noValueToList;
using test::report::noValueToUpdate;
using testing::ElementsAre;
using testing::ValuesIn;

static_assert(!std::is_polymorphic<Record>::value, "a plain value");
static_assert(!std::is_default_constructible<Record>::value, "every record has its columns");

// --- What is reported

Texts outOfRange(const std::string& index, int count)
{
    return report::failed("bool sql::Record::initColumnValue(int, const char*, sql::field_type)",
                          "Column index (" + index + ") is out of range [0, "
                              + std::to_string(count) + "[");
}

const Texts key_is_no_integer = {report::keyIsNoInteger()};

// --- Columns: those of an array have positions, those of a vector have none

struct Columns {
    std::vector<Field> fields;
    bool havePositions = true;

    FieldSet make() const
    {
        std::vector<Field> ended = fields;
        ended.push_back(Field());
        return havePositions ? FieldSet(ended.data()) : FieldSet(fields);
    }
};

const Field id("id", sql::type_int, sql::flag_primary_key);
const Field code("code", sql::type_text, sql::flag_primary_key);
const Field name("name", sql::type_text, sql::flag_none);
const Field price("price", sql::type_float, sql::flag_none);
const Field sold("sold", sql::type_bool, sql::flag_none);
const Field at("at", sql::type_time, sql::flag_none);

const Columns no_columns = {{}};
const Columns products = {{id, name, price}};
const Columns all_types = {{id, name, price, sold, at}};
const Columns text_key = {{code, name}};
const Columns key_last = {{name, price, id}};
const Columns key_in_the_middle = {{name, id, price}};
const Columns key_alone = {{id}};
const Columns without_key = {{name, price}};
const Columns price_alone = {{price}};
const Columns two_keys = {{id, code, name}};
const Columns two_keys_last = {{name, code, id}};
const Columns one_name_twice = {{id, name, Field("name", sql::type_float, sql::flag_none)}};
const Columns unplaced_products = {{id, name, price}, false};
const Columns unplaced_key_alone = {{id}, false};
const Columns odd_names = {{Field("order by", sql::type_int, sql::flag_primary_key),
                            Field("it's", sql::type_int, sql::flag_none)}};

// --- Records

typedef void (*Fill)(Record&);

void fillNothing(Record&)
{
}

void fillTea(Record& record)
{
    record.setInteger("id", 7);
    record.setString("name", "tea");
    record.setDouble("price", 2.5);
}

// The most verbose level: a record traces nothing but the times that it converts.
class RecordTest : public test::ReportTest {
protected:
    RecordTest()
    {
        _diagnostics.setLevel(9);
    }

    Record tea() const
    {
        Record record(_fields);
        fillTea(record);
        return record;
    }

    // Nothing has changed, and this was reported since.
    void expectTea(const Record& record, const Texts& events)
    {
        EXPECT_EQ(record.dump(true),
                  "id = 7 (integer)|name = tea (text)|price = 2.50000000 (float)");
        expectReport(events);
    }

    const test::TimeZone _zone;
    FieldSet _fields = products.make();
};

TEST_F(RecordTest, FreshRecordHasANullCellOfEachColumnsType)
{
    const FieldSet fields = all_types.make();
    const Record record(fields);
    EXPECT_EQ(record.fields(), &fields);
    EXPECT_EQ(record.columnCount(), 5);
    EXPECT_THAT(cells(record), ElementsAre("null (integer)", "null (text)", "null (float)",
                                           "null (bool)", "null (time)"));
    EXPECT_TRUE(record.getValue(0)->isNull());
    EXPECT_EQ(record.getValue(0)->asString(), "");
}

TEST_F(RecordTest, ColumnWithoutAPositionHasACell)
{
    const FieldSet fields = unplaced_products.make();
    EXPECT_THAT(cells(Record(fields)),
                ElementsAre("null (integer)", "null (text)", "null (float)"));
}

TEST_F(RecordTest, ColumnOfAnUndefinedTypeHasACellOfThatType)
{
    const FieldSet fields(std::vector<Field>(1, Field("x", sql::type_undefined, sql::flag_none)));
    const Record record(fields);
    EXPECT_EQ(record.getValue(0)->getType(), sql::type_undefined);
}

TEST_F(RecordTest, CopyFromAPointerIsEqualAndIndependent)
{
    Record record = tea();
    const Record copy(&record);
    record.setNull("name");
    EXPECT_EQ(copy.fields(), &_fields);
    expectTea(copy, {});
}

// --- Cells from SQLite

TEST_F(RecordTest, InitColumnValueCopiesTheTextAndSetsTheType)
{
    char text[] = "abc";
    Record record(_fields);
    EXPECT_TRUE(record.initColumnValue(0, text, sql::type_bool));
    EXPECT_TRUE(record.initColumnValue(2, "", sql::type_text));
    text[0] = 's';
    EXPECT_THAT(cells(record), ElementsAre("abc (bool)", "null (text)", " (text)"));
}

TEST_F(RecordTest, InitColumnValueWithoutTextMakesTheCellNullAndSetsItsType)
{
    Record record = tea();
    EXPECT_TRUE(record.initColumnValue(0, nullptr, sql::type_text));
    EXPECT_THAT(cells(record), ElementsAre("null (text)", "tea (text)", "2.50000000 (float)"));
    EXPECT_EQ(record.getValue(0)->asString(), "");
}

TEST_F(RecordTest, InitColumnValueIsBoundByTheCellsNotByTheColumns)
{
    Record record(_fields);
    _fields = key_alone.make();
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
        EXPECT_EQ(record.fieldByName(names[i]), _fields.getByIndex(i));
    }
}

TEST_F(RecordTest, CellThatIsFoundCanBeChanged)
{
    Record record = tea();
    record.getValue(1)->setString("coffee");
    record.getValue("price")->setNull();
    EXPECT_EQ(record.toString(), "7|coffee|null");
}

TEST_F(RecordTest, FirstOfTwoColumnsOfOneNameIsFound)
{
    const FieldSet fields = one_name_twice.make();
    Record record(fields);
    EXPECT_EQ(record.getValue("name"), record.getValue(1));
    EXPECT_EQ(record.fieldByName("name"), fields.getByIndex(1));
}

TEST_F(RecordTest, NamesFollowTheColumnsAsTheyAreNow)
{
    const Record record = tea();
    _fields = key_last.make();
    EXPECT_EQ(record.getValue("name"), record.getValue(0));
    EXPECT_EQ(record.getKeyIdValue(), record.getValue(2));
}

TEST_F(RecordTest, CellCountStaysWhenTheColumnsChange)
{
    const Record record(_fields);
    _fields = all_types.make();
    EXPECT_EQ(record.columnCount(), 3);
    EXPECT_EQ(record.fields()->count(), 5);
}

TEST_F(RecordTest, KeyCellIsThatOfTheFirstKeyColumn)
{
    const FieldSet fields = two_keys_last.make();
    const Record record(fields);
    EXPECT_EQ(record.getKeyIdValue(), record.getValue(1));
}

// --- Setters, by position and by name

struct Setter : test::Case {
    template <typename Set>
    Setter(const char* title, Set set, const char* text, bool null = false)
        : Case(title), byPosition(set), byName(set), stored(text), isNull(null)
    {
    }

    std::function<void(Record&, int)> byPosition;
    std::function<void(Record&, const char*)> byName;
    const char* stored;
    bool isNull;
};

class RecordSetterTest : public RecordTest, public testing::WithParamInterface<Setter> {
protected:
    void expectStored(const Record& record)
    {
        EXPECT_EQ(record.getValue(1)->asString(), GetParam().stored);
        EXPECT_EQ(record.getValue(1)->isNull(), GetParam().isNull);
        EXPECT_EQ(record.getValue(1)->getType(), sql::type_text);
        EXPECT_EQ(record.getValue(0)->dump(true), "7 (integer)");
        EXPECT_EQ(record.getValue(2)->dump(true), "2.50000000 (float)");
    }
};

TEST_P(RecordSetterTest, StoresByPositionInACellWithOrWithoutAValue)
{
    Record record = tea();
    GetParam().byPosition(record, 1);
    expectStored(record);
    record.setNull(1);
    GetParam().byPosition(record, 1);
    expectStored(record);
}

TEST_P(RecordSetterTest, StoresByName)
{
    Record record = tea();
    GetParam().byName(record, "name");
    expectStored(record);
}

TEST_P(RecordSetterTest, KeepsTheTypeOfEveryCell)
{
    const FieldSet fields = all_types.make();
    Record record(fields);
    for (int i = 0; i < 5; ++i) {
        GetParam().byPosition(record, i);
        EXPECT_EQ(record.getValue(i)->getType(), fields.getByIndex(i)->getType());
    }
}

TEST_P(RecordSetterTest, StoresInTheFirstOfTwoColumnsOfOneName)
{
    const FieldSet fields = one_name_twice.make();
    Record record(fields);
    record.setString(1, "tea");
    record.setString(2, "other");
    GetParam().byName(record, "name");
    EXPECT_EQ(record.getValue(1)->asString(), GetParam().stored);
    EXPECT_EQ(record.getValue(2)->asString(), "other");
}

TEST_P(RecordSetterTest, ReportsWhatHasNoCellAndChangesNothing)
{
    Record record = tea();
    GetParam().byPosition(record, -1);
    expectTea(record, noValueToChange(-1));
    GetParam().byPosition(record, 3);
    expectTea(record, noValueToChange(3));
    GetParam().byName(record, "no_such_column");
    expectTea(record, noField("no_such_column"));
    _fields = unplaced_products.make();
    GetParam().byName(record, "name");
    expectTea(record, noValueToChange(-1));
    _fields = all_types.make();
    GetParam().byName(record, "at");
    expectReport(noValueToChange(4));
}

const Time day(86400);

const Setter setters[] = {
    {"SetNull", [](Record& record, auto where) { record.setNull(where); }, "", true},
    {"SetString", [](Record& record, auto where) { record.setString(where, "O'Neil \xE9"); },
     "O'Neil \xE9"},
    {"SetInteger", [](Record& record, auto where) { record.setInteger(where, LLONG_MIN); },
     "-9223372036854775808"},
    {"SetDouble", [](Record& record, auto where) { record.setDouble(where, -0.125); },
     "-0.12500000"},
    {"SetBoolTrue", [](Record& record, auto where) { record.setBool(where, true); }, "1"},
    {"SetBoolFalse", [](Record& record, auto where) { record.setBool(where, false); }, "0"},
    {"SetTime", [](Record& record, auto where) { record.setTime(where, day); }, "86400"},
};

INSTANTIATE_TEST_SUITE_P(All, RecordSetterTest, ValuesIn(setters), test::NameOfCase());

TEST_F(RecordTest, TextInAnIntegerColumnIsStoredUnchanged)
{
    Record record(_fields);
    record.setString(0, "abc");
    EXPECT_EQ(record.getValue(0)->dump(true), "abc (integer)");
}

// --- Comparison: two records, in one column or in all

struct Comparison : test::Case {
    const Columns& columns;
    Fill fill;
    const Columns& otherColumns;
    Fill fillOther;
    const char* column; // null for all
    bool areEqual;
    Texts events = {};
};

class RecordComparisonTest : public RecordTest, public testing::WithParamInterface<Comparison> {};

TEST_P(RecordComparisonTest, IsEqualOrDifferentAndReportsWhatIsLacking)
{
    const FieldSet fields = GetParam().columns.make();
    const FieldSet others = GetParam().otherColumns.make();
    Record record(fields);
    Record other(others);
    GetParam().fill(record);
    GetParam().fillOther(other);
    _diagnostics.clear();
    const char* const column = GetParam().column;
    EXPECT_EQ(column != nullptr ? record.equalsColumnValue(&other, column)
                                : record.equalsValues(&other),
              GetParam().areEqual);
    expectReport(GetParam().events);
}

void fillOtherKey(Record& record)
{
    fillTea(record);
    record.setInteger("id", 8);
}

void fillOtherName(Record& record)
{
    fillTea(record);
    record.setString("name", "coffee");
}

void fillOtherPrice(Record& record)
{
    fillTea(record);
    record.setDouble("price", 3.5);
}

void fillIntegerCell(Record& record)
{
    record.initColumnValue(1, "07", sql::type_int);
}

void fillSeven(Record& record)
{
    record.setString("name", "7");
}

void fillPrice(Record& record)
{
    record.setDouble("price", 3.5);
}

template <int seconds> void fillTime(Record& record)
{
    record.setTime("at", Time(seconds));
}

const Texts time_conversions = {report::timeMade("1", "Thu Jan  1 01:00:01 1970\n"),
                                report::timeMade("2", "Thu Jan  1 01:00:02 1970\n")};

const Comparison comparisons[] = {
    {"ColumnsOfEqualCells", products, fillTea, products, fillOtherName, "price", true},
    {"ColumnsOfDifferentCells", products, fillTea, products, fillOtherName, "name", false},
    {"KeyColumn", products, fillTea, products, fillOtherKey, "id", false},
    {"ColumnOfOtherColumns", products, fillTea, key_last, fillTea, "name", true},
    {"DifferentColumnOfOtherColumns", products, fillTea, key_last, fillOtherKey, "id", false},
    {"ColumnByTheTypeOfThisIntegerCell", products, fillIntegerCell, products, fillSeven, "name",
     true},
    {"ColumnByTheTypeOfThisTextCell", products, fillSeven, products, fillIntegerCell, "name",
     false},
    {"ColumnThatBothLackIsReportedOnce", products, fillTea, products, fillTea, "no_such_column",
     false, noValue("no_such_column")},
    {"ColumnThatTheOtherLacks", products, fillTea, key_alone, fillNothing, "name", false,
     noValue("name")},
    {"ColumnThatThisLacksIsReportedBeforeTheOtherIsLookedAt", unplaced_products, fillNothing,
     key_alone, fillNothing, "name", false, noValue(-1)},
    {"ColumnOfDifferentTimesIsEqualDeliberately", all_types, fillTime<1>, all_types, fillTime<2>,
     "at", true, time_conversions},

    {"KeysAreNotCompared", products, fillTea, products, fillOtherKey, nullptr, true},
    {"SecondKeysAreNotCompared", two_keys, [](Record& record) { record.setString("code", "a"); },
     two_keys, [](Record& record) { record.setString("code", "b"); }, nullptr, true},
    {"Nulls", all_types, fillNothing, all_types, fillNothing, nullptr, true},
    {"OtherName", products, fillTea, products, fillOtherName, nullptr, false},
    {"OtherPrice", products, fillTea, products, fillOtherPrice, nullptr, false},
    {"OtherBool", all_types, fillNothing, all_types,
     [](Record& record) { record.setBool("sold", true); }, nullptr, false},
    {"DifferentTimesAreEqualDeliberately", all_types, fillTime<1>, all_types, fillTime<2>, nullptr,
     true, time_conversions},
    {"NullsEqualZeroDeliberately",
     all_types,
     fillNothing,
     all_types,
     [](Record& record) {
         record.setString("name", "");
         record.setDouble("price", 0.0);
         record.setBool("sold", false);
         record.setTime("at", Time(5));
     },
     nullptr,
     true,
     {report::timeMade("0", "Thu Jan  1 01:00:00 1970\n"),
      report::timeMade("5", "Thu Jan  1 01:00:05 1970\n")}},
    {"OtherColumnsByName", products, fillTea, key_last, fillTea, nullptr, true},
    {"OtherColumnsByNameTheOtherWayRound", key_last, fillTea, products, fillTea, nullptr, true},
    {"DifferenceInOtherColumns", products, fillTea, key_last, fillOtherPrice, nullptr, false},
    {"DifferenceInTheFirstColumn", key_last, fillTea, key_last, fillOtherName, nullptr, false},
    {"AllByTheTypeOfThisIntegerCell", products, fillIntegerCell, products, fillSeven, nullptr,
     true},
    {"AllByTheTypeOfThisTextCell", products, fillSeven, products, fillIntegerCell, nullptr, false},
    {"CellOfAnUndefinedTypeDiffers", products,
     [](Record& record) {
         fillTea(record);
         record.initColumnValue(1, "tea", sql::type_undefined);
     },
     products, fillTea, nullptr, false},
    {"ColumnsOfTheOtherAloneAreNotCompared", products, fillTea, all_types,
     [](Record& record) {
         fillTea(record);
         record.setBool("sold", true);
     },
     nullptr, true},
    {"ColumnsThatTheOtherLacksCountAsEqual", products, fillTea, key_alone, fillNothing, nullptr,
     true, joined({noValue("name"), noValue("price")})},
    {"ColumnsThatThisLacksAreReportedOnceAndCountAsEqual", unplaced_products, fillNothing,
     key_alone, fillNothing, nullptr, true, joined({noValue(-1), noValue(-1)})},
    {"GoesOnBehindALackingColumn", products, fillTea, price_alone, fillPrice, nullptr, false,
     noValue("name")},
    {"EndsAtTheFirstDifference", products, fillTea, text_key,
     [](Record& record) { record.setString("name", "coffee"); }, nullptr, false},
    {"SecondOfTwoColumnsOfOneNameIsNotComparedDeliberately", one_name_twice,
     [](Record& record) { record.setDouble(2, 1.0); }, one_name_twice,
     [](Record& record) { record.setDouble(2, 2.0); }, nullptr, true},
    {"WithoutColumns", no_columns, fillNothing, no_columns, fillNothing, nullptr, true},
};

INSTANTIATE_TEST_SUITE_P(All, RecordComparisonTest, ValuesIn(comparisons), test::NameOfCase());

TEST_F(RecordTest, RecordEqualsItself)
{
    const Record record = tea();
    EXPECT_TRUE(record.equalsValues(&record));
}

TEST_F(RecordTest, NoOtherRecordIsDifferentInEveryColumnWithoutAReport)
{
    const Record record = tea();
    EXPECT_FALSE(record.equalsColumnValue(nullptr, "name"));
    EXPECT_FALSE(record.equalsColumnValue(nullptr, "no_such_column"));
    EXPECT_FALSE(record.equalsValues(nullptr));
}

// --- Texts

struct Text : test::Case {
    const Columns& columns;
    Fill fill;
    const Columns* laterColumns; // what the columns are changed into under the record, or null
    std::string text;
    std::string dump;
    std::string typedDump;
    Texts events = {};      // of each text
    Texts typedEvents = {}; // of the dump with types besides
};

class RecordTextTest : public RecordTest, public testing::WithParamInterface<Text> {
protected:
    void expect(const std::string& text, const std::string& expected, const Texts& events)
    {
        EXPECT_EQ(text, expected);
        expectReport(events);
    }
};

TEST_P(RecordTextTest, HasTheCellsWithoutAndWithNamesAndTypes)
{
    FieldSet fields = GetParam().columns.make();
    Record record(fields);
    GetParam().fill(record);
    if (GetParam().laterColumns != nullptr)
        fields = GetParam().laterColumns->make();
    _diagnostics.clear();
    expect(record.toString(), GetParam().text, GetParam().events);
    expect(record.dump(false), GetParam().dump, GetParam().events);
    expect(record.dump(true), GetParam().typedDump,
           joined({GetParam().events, GetParam().typedEvents}));
}

const Text texts[] = {
    {"NoColumns", no_columns, fillNothing, nullptr, "", "", ""},
    {"Nulls", all_types, fillNothing, nullptr, "null|null|null|null|null",
     "id = null|name = null|price = null|sold = null|at = null",
     "id = null (integer)|name = null (text)|price = null (float)|sold = null (bool)|at = null (time)"},
    {"AllTypes",
     all_types,
     [](Record& record) {
         record.setInteger("id", 7);
         record.setString("name", "a|b");
         record.setBool("sold", true);
         record.setTime("at", Time(86400));
     },
     nullptr,
     "7|a|b|null|1|02-01-1970 01:00:00, Fri",
     "id = 7|name = a|b|price = null|sold = 1|at = 02-01-1970 01:00:00, Fri",
     "id = 7 (integer)|name = a|b (text)|price = null (float)|sold = 1 (bool)|at = 02-01-1970 01:00:00, Fri (time)",
     {report::timeMade("86400", "Fri Jan  2 01:00:00 1970\n")}},
    {"OneCell", key_alone, [](Record& record) { record.setInteger(0, 7); }, nullptr, "7", "id = 7",
     "id = 7 (integer)"},
    {"TypeOfTheCellNotOfTheColumn", products,
     [](Record& record) { record.initColumnValue(1, "1", sql::type_bool); }, nullptr, "null|1|null",
     "id = null|name = 1|price = null", "id = null (integer)|name = 1 (bool)|price = null (float)"},
    {"UndefinedTypeIsReportedWhereTypesAreShown",
     products,
     [](Record& record) { record.initColumnValue(1, "x", sql::type_undefined); },
     nullptr,
     "null|x|null",
     "id = null|name = x|price = null",
     "id = null (integer)|name = x (undefined)|price = null (float)",
     {},
     {report::asserted("sql::string sql::type2Str(sql::field_type)")}},
    {"OneNameTwice", one_name_twice,
     [](Record& record) {
         record.setString(1, "tea");
         record.setDouble(2, 2.5);
     },
     nullptr, "null|tea|2.50000000", "id = null|name = tea|name = 2.50000000",
     "id = null (integer)|name = tea (text)|name = 2.50000000 (float)"},
    {"ColumnsWithoutPositions", unplaced_products,
     [](Record& record) { record.setString(1, "tea"); }, nullptr, "null|tea|null",
     "id = null|name = tea|price = null",
     "id = null (integer)|name = tea (text)|price = null (float)"},
    {"CellsWithoutAColumnHaveNoName", products, fillTea, &key_alone, "7|tea|2.50000000",
     "id = 7|tea|2.50000000", "id = 7 (integer)|tea (text)|2.50000000 (float)"},
    {"EndsWithTheLastCell", products, fillTea, &all_types, "7|tea|2.50000000",
     "id = 7|name = tea|price = 2.50000000",
     "id = 7 (integer)|name = tea (text)|price = 2.50000000 (float)"},
};

INSTANTIATE_TEST_SUITE_P(All, RecordTextTest, ValuesIn(texts), test::NameOfCase());

// --- Statements

struct Statement : test::Case {
    const Columns& columns;
    Fill fill;
    std::string values;      // of the list, and of the INSERT behind the columns' names
    std::string assignments; // of the UPDATE, up to its end
    Texts updateEvents = {};
    Texts events = {}; // of every statement: the time that it converts
};

class RecordStatementTest : public RecordTest, public testing::WithParamInterface<Statement> {
protected:
    void expect(const std::string& statement, const std::string& expected, const Texts& events)
    {
        EXPECT_EQ(statement, expected);
        expectReport(events);
    }
};

TEST_P(RecordStatementTest, HasTheCellsAsLiteralsOfTheColumns)
{
    const FieldSet fields = GetParam().columns.make();
    Record record(fields);
    GetParam().fill(record);
    const Texts before = cells(record);
    _diagnostics.clear();
    const std::string& values = GetParam().values;
    const std::string update = "update product set " + GetParam().assignments;
    expect(record.toSql(), values, GetParam().events);
    expect(record.toSqlInsert("product"),
           "insert into product (" + fields.toSql() + ") values (" + values + ")",
           GetParam().events);
    expect(record.toSqlUpdate("product"), update,
           joined({GetParam().events, GetParam().updateEvents}));
    _diagnostics.setLevel(test::without_trace_object);
    expect(record.toSqlUpdate("product"), update, GetParam().updateEvents);
    EXPECT_EQ(cells(record), before);
}

const double infinity = std::numeric_limits<double>::infinity();
const double not_a_number = std::numeric_limits<double>::quiet_NaN();

const Statement statements[] = {
    {"KeyLeftNull", products, [](Record& record) { record.setString("name", "O'Brien tea"); },
     "null, 'O''Brien tea', null", "name='O''Brien tea', price=null where id = null"},
    {"KeyFirst", products, fillTea, "7, 'tea', 2.50000000",
     "name='tea', price=2.50000000 where id = 7"},
    {"KeyLastLeavesACommaAndTwoBlanksDeliberately", key_last, fillTea, "'tea', 2.50000000, 7",
     "name='tea', price=2.50000000,  where id = 7"},
    {"KeyInTheMiddle", key_in_the_middle, fillTea, "'tea', 7, 2.50000000",
     "name='tea', price=2.50000000 where id = 7"},
    {"KeyAloneLeavesTwoBlanksDeliberately", key_alone,
     [](Record& record) { record.setInteger("id", 7); }, "7", " where id = 7"},
    {"AllTypesNull", all_types, fillNothing, "null, null, null, null, null",
     "name=null, price=null, sold=null, at=null where id = null"},
    {"AllTypes", all_types,
     [](Record& record) {
         record.setInteger("id", LLONG_MIN);
         record.setString("name", "''");
         record.setDouble("price", -0.1);
         record.setBool("sold", true);
         record.setTime("at", Time(86400));
     },
     "-9223372036854775808, '''''', -0.10000000, 1, 86400",
     "name='''''', price=-0.10000000, sold=1, at=86400 where id = -9223372036854775808"},
    {"InfinityIsABareWord", products, [](Record& record) { record.setDouble("price", infinity); },
     "null, null, inf", "name=null, price=inf where id = null"},
    {"NegativeInfinityIsABareWord", products,
     [](Record& record) { record.setDouble("price", -infinity); }, "null, null, -inf",
     "name=null, price=-inf where id = null"},
    {"NotANumberIsABareWord", products,
     [](Record& record) { record.setDouble("price", not_a_number); }, "null, null, nan",
     "name=null, price=nan where id = null"},
    {"EmptyTextAndFalse", all_types,
     [](Record& record) {
         record.setString("name", "");
         record.setBool("sold", false);
     },
     "null, '', null, 0, null", "name='', price=null, sold=0, at=null where id = null"},
    {"BytesAbove127AndBehindAZeroByte", products,
     [](Record& record) {
         record.setString("name", string("\xC3\xA9'\0\xFC", 5));
         record.setString("price", string("5\0", 2));
     },
     string("null, '\xC3\xA9''\0\xFC', 5\0", 18),
     string("name='\xC3\xA9''\0\xFC', price=5\0 where id = null", 39)},
    {"NamesAsTheyStand", odd_names, fillNothing, "null, null", "it's=null where order by = null"},
    {"TextKeyIsReportedAndBareDeliberately", text_key,
     [](Record& record) {
         record.setString("code", "O'Brien");
         record.setString("name", "tea");
     },
     "'O''Brien', 'tea'", "name='tea' where code = O'Brien", key_is_no_integer},
    {"TextKeyLeftNullIsReported", text_key, fillNothing, "null, null",
     "name=null where code = null", key_is_no_integer},
    {"TextKeyWithAnIntegerCellIsBareWithoutAReport", text_key,
     [](Record& record) { record.initColumnValue(0, "5", sql::type_int); }, "'5', null",
     "name=null where code = 5"},
    {"IntegerKeyWithATextCellIsReported", key_alone,
     [](Record& record) { record.initColumnValue(0, "o'k", sql::type_text); }, "o'k",
     " where id = o'k", key_is_no_integer},
    {"IntegerKeyWithATimeCellIsReportedAndInSeconds", key_alone,
     [](Record& record) { record.initColumnValue(0, "12x", sql::type_time); }, "12",
     " where id = 12", key_is_no_integer},
    {"IntegerColumnFilledWithTextIsBare", products,
     [](Record& record) { record.setString("id", "abc"); }, "abc, null, null",
     "name=null, price=null where id = abc"},
    {"TextColumnFilledWithAnIntegerIsQuoted", products,
     [](Record& record) { record.setInteger("name", 5); }, "null, '5', null",
     "name='5', price=null where id = null"},
    {"TextColumnWithAnIntegerCellIsQuoted", products,
     [](Record& record) { record.initColumnValue(1, "5", sql::type_int); }, "null, '5', null",
     "name='5', price=null where id = null"},
    {"TextColumnWithATimeCellIsQuotedLocalTime",
     products,
     [](Record& record) { record.initColumnValue(1, "0", sql::type_time); },
     "null, '01-01-1970 01:00:00, Thu', null",
     "name='01-01-1970 01:00:00, Thu', price=null where id = null",
     {},
     {report::timeMade("0", "Thu Jan  1 01:00:00 1970\n")}},
    {"FloatColumnWithATextCellIsBare", products,
     [](Record& record) { record.initColumnValue(2, "a'b", sql::type_text); }, "null, null, a'b",
     "name=null, price=a'b where id = null"},
    {"TimeColumnFilledWithTextIsItsLeadingSeconds", all_types,
     [](Record& record) { record.setString("at", "12x"); }, "null, null, null, null, 12",
     "name=null, price=null, sold=null, at=12 where id = null"},
    {"TimeColumnWithATextCellIsBare", all_types,
     [](Record& record) { record.initColumnValue(4, "12x", sql::type_text); },
     "null, null, null, null, 12x", "name=null, price=null, sold=null, at=12x where id = null"},
    {"FirstOfTwoKeysSelectsAndNeitherIsSet", two_keys,
     [](Record& record) {
         record.setInteger("id", 7);
         record.setString("code", "a");
     },
     "7, 'a', null", "name=null where id = 7"},
    {"TwoKeysLastLeaveOneCommaDeliberately", two_keys_last,
     [](Record& record) {
         record.setInteger("id", 7);
         record.setString("code", "a");
     },
     "null, 'a', 7", "name=null,  where code = a", key_is_no_integer},
    {"TwoColumnsOfOneNameShareTheFirstCellDeliberately", one_name_twice,
     [](Record& record) {
         record.setInteger(0, 7);
         record.setString(1, "tea");
         record.setDouble(2, 2.5);
     },
     "7, 'tea', tea", "name='tea', name=tea where id = 7"},
};

INSTANTIATE_TEST_SUITE_P(All, RecordStatementTest, ValuesIn(statements), test::NameOfCase());

TEST_F(RecordTest, StatementsAreWhole)
{
    const Record record = tea();
    EXPECT_EQ(record.toSqlInsert("product"),
              "insert into product (id, name, price) values (7, 'tea', 2.50000000)");
    EXPECT_EQ(record.toSqlUpdate("product"),
              "update product set name='tea', price=2.50000000 where id = 7");
}

// So many columns that a search for each name would show in the time that it takes.
TEST_F(RecordTest, StatementsOfAWideTableHaveEachCellBesideItsName)
{
    const int count = 3000;
    Columns columns = {{id}};
    std::string names = "id";
    std::string literals = "0";
    std::string assignments;
    for (int i = 1; i < count; ++i) {
        const std::string column = "c" + std::to_string(i);
        columns.fields.push_back(Field(column, sql::type_int, sql::flag_none));
        names += ", " + column;
        literals += ", " + std::to_string(7 * i);
        assignments += (i > 1 ? ", " : "") + column + "=" + std::to_string(7 * i);
    }
    const FieldSet fields = columns.make();
    Record record(fields);
    for (int i = 0; i < count; ++i)
        record.setInteger(i, 7 * i);
    EXPECT_EQ(record.toSqlInsert("t"), "insert into t (" + names + ") values (" + literals + ")");
    EXPECT_EQ(record.toSqlUpdate("t"), "update t set " + assignments + " where id = 0");
}

TEST_F(RecordTest, TableNameGoesIntoStatementsAsItStands)
{
    const Record record(_fields);
    EXPECT_EQ(record.toSqlInsert(" a;'b "),
              "insert into  a;'b  (id, name, price) values (null, null, null)");
    EXPECT_EQ(record.toSqlUpdate(" a;'b "),
              "update  a;'b  set name=null, price=null where id = null");
    EXPECT_EQ(record.toSqlInsert(" "), "insert into   (id, name, price) values (null, null, null)");
    EXPECT_EQ(record.toSqlUpdate(" "), "update   set name=null, price=null where id = null");
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

TEST_F(RecordTest, InsertOfAnEmptyIntegerAloneIsReportedByTheTableAlone)
{
    const FieldSet fields = key_alone.make();
    Record record(fields);
    record.setString("id", "");
    EXPECT_EQ(record.toSqlInsert("product"), "");
    expectReport(report::noValuesToInsert("product"));
}

TEST_F(RecordTest, InsertWorksWithoutAKeyColumn)
{
    const FieldSet fields = without_key.make();
    Record record(fields);
    record.setString("name", "tea");
    _diagnostics.clear();
    EXPECT_EQ(record.toSqlInsert("product"),
              "insert into product (name, price) values ('tea', null)");
}

TEST_F(RecordTest, ValueListWithoutColumnsIsEmptyWithoutAReport)
{
    const FieldSet fields = no_columns.make();
    _diagnostics.clear();
    EXPECT_EQ(Record(fields).toSql(), "");
}

TEST_F(RecordTest, StatementsHaveTheColumnsOfNowNotAllCells)
{
    const Record record = tea();
    _fields = key_alone.make();
    EXPECT_EQ(record.toSql(), "7");
    EXPECT_EQ(record.toSqlInsert("product"), "insert into product (id) values (7)");
    EXPECT_EQ(record.toSqlUpdate("product"), "update product set  where id = 7");
}

TEST_F(RecordTest, CellsAreRenderedAfterTheColumnsOfNow)
{
    const Record record = tea();
    _fields = key_last.make();
    EXPECT_EQ(record.toSql(), "'7', tea, 2.50000000");
}

// Without a name a column can only be made while somebody listens.
TEST_F(RecordTest, NamelessKeyAloneMakesNoStatement)
{
    const FieldSet fields(std::vector<Field>(1, Field("", sql::type_int, sql::flag_primary_key)));
    const Record record(fields);
    _diagnostics.clear();
    EXPECT_EQ(record.toSqlInsert("product"), "");
    EXPECT_EQ(record.toSqlUpdate("product"), "");
    EXPECT_EQ(_diagnostics.take(),
              joined({report::noFieldsToInsert("product"), report::noKeyNameToUpdate("product")}));
}

// --- Failures, each told by what came back

std::string told(const void* found)
{
    return found == nullptr ? "null" : "something";
}

std::string told(const std::string& statement)
{
    return statement.empty() ? "no statement" : statement;
}

std::string told(bool done)
{
    return done ? "true" : "false";
}

struct Act {
    template <typename Operation>
    Act(Operation operation) : run([operation](Record& record) { return told(operation(record)); })
    {
    }

    std::function<std::string(Record&)> run;
};

Act initialised(int index)
{
    return [index](Record& record) {
        return record.initColumnValue(index, "x", sql::type_bool);
    };
}

// By position or by name
template <typename Place> Act got(Place place)
{
    return [place](Record& record) {
        return record.getValue(place);
    };
}

template <typename Place> Act gotConst(Place place)
{
    return [place](const Record& record) {
        return record.getValue(place);
    };
}

Act gotField(const char* column)
{
    return [column](const Record& record) {
        return record.fieldByName(column);
    };
}

const Act got_key = [](const Record& record) {
    return record.getKeyIdValue();
};
const Act listed = [](const Record& record) {
    return record.toSql();
};
const Act inserted = [](const Record& record) {
    return record.toSqlInsert("product");
};
const Act inserted_nowhere = [](const Record& record) {
    return record.toSqlInsert("");
};
const Act updated = [](const Record& record) {
    return record.toSqlUpdate("product");
};
const Act updated_nowhere = [](const Record& record) {
    return record.toSqlUpdate("");
};

struct Failure : test::Case {
    const Columns& columns;
    const Columns& laterColumns; // what the columns are changed into under the record
    Act act;
    const char* result;
    Texts events;
};

class RecordFailureTest : public RecordTest, public testing::WithParamInterface<Failure> {};

TEST_P(RecordFailureTest, IsLoggedThenAssertedAndChangesNothingAtAnyLevel)
{
    for (const int level : test::trace_levels) {
        FieldSet fields = GetParam().columns.make();
        Record record(fields);
        for (int i = 0; i < record.columnCount(); ++i)
            record.setInteger(i, i);
        fields = GetParam().laterColumns.make();
        const Texts before = cells(record);
        _diagnostics.clear();
        _diagnostics.setLevel(level);
        EXPECT_EQ(GetParam().act.run(record), GetParam().result);
        expectReport(GetParam().events);
        _diagnostics.setLevel(3);
        EXPECT_EQ(cells(record), before);
        EXPECT_EQ(record.fields(), &fields);
    }
}

const Failure lookup_failures[] = {
    {"InitColumnValueAtMinusOne", products, products, initialised(-1), "false",
     outOfRange("-1", 3)},
    {"InitColumnValueBehindTheLast", products, products, initialised(3), "false",
     outOfRange("3", 3)},
    {"InitColumnValueAtTheLowestIndex", products, products, initialised(INT_MIN), "false",
     outOfRange("-2147483648", 3)},
    {"InitColumnValueAtTheHighestIndex", products, products, initialised(INT_MAX), "false",
     outOfRange("2147483647", 3)},
    {"InitColumnValueWithoutCells", no_columns, no_columns, initialised(0), "false",
     outOfRange("0", 0)},
    {"InitColumnValueOfAColumnWithoutACell", products, all_types, initialised(3), "false",
     outOfRange("3", 3)},

    {"ValueAtMinusOne", products, products, got(-1), "null", noValueToChange(-1)},
    {"ValueBehindTheLast", products, products, got(3), "null", noValueToChange(3)},
    {"ValueAtTheLowestIndex", products, products, got(INT_MIN), "null", noValueToChange(INT_MIN)},
    {"ValueAtTheHighestIndex", products, products, got(INT_MAX), "null", noValueToChange(INT_MAX)},
    {"ValueWithoutCells", no_columns, no_columns, got(0), "null", noValueToChange(0)},
    {"ConstValueAtMinusOne", products, products, gotConst(-1), "null", noValue(-1)},
    {"ConstValueBehindTheLast", products, products, gotConst(3), "null", noValue(3)},

    {"ValueOfAnUnknownName", products, products, got("no_such_column"), "null",
     noValueToChange("no_such_column")},
    {"ValueOfANameInAnotherCase", products, products, got("Name"), "null", noValueToChange("Name")},
    {"ValueOfANameWithABlank", products, products, got("name "), "null", noValueToChange("name ")},
    {"ValueOfAnEmptyName", products, products, got(""), "null", noValueToChange("")},
    {"ConstValueOfAnUnknownName", products, products, gotConst("no_such_column"), "null",
     noValue("no_such_column")},
    {"ConstValueOfAnEmptyName", products, products, gotConst(""), "null", noValue("")},
    {"ValueOfAColumnWithoutAPosition", unplaced_products, unplaced_products, got("name"), "null",
     noValueToChange(-1)},
    {"ConstValueOfAColumnWithoutAPosition", unplaced_products, unplaced_products, gotConst("name"),
     "null", noValue(-1)},
    {"ValueOfAColumnWithoutACell", products, all_types, got("sold"), "null", noValueToChange(3)},
    {"ConstValueOfAColumnWithoutACell", products, all_types, gotConst("at"), "null", noValue(4)},
    {"ValueOfACellWithoutAColumn", products, key_alone, got("name"), "null",
     noValueToChange("name")},

    {"KeyWithoutAKeyColumn", without_key, without_key, got_key, "null", noKeyValue()},
    {"KeyWithoutColumns", no_columns, no_columns, got_key, "null", noKeyValue()},
    {"KeyWithoutAPosition", unplaced_products, unplaced_products, got_key, "null", noValue(-1)},
    {"KeyWithoutACell", without_key, key_last, got_key, "null", noValue(2)},

    {"FieldOfAnUnknownName", products, products, gotField("no_such_column"), "null",
     noField("no_such_column")},
    {"FieldOfANameInAnotherCase", products, products, gotField("ID"), "null", noField("ID")},
    {"FieldOfAnEmptyName", products, products, gotField(""), "null", noField("")},
};

const Texts no_values = report::noValuesToInsert("product");
const Texts no_fields = report::noFieldsToInsert("product");
const Texts no_key_name = joined({report::noKeyName(), report::noKeyNameToUpdate("product")});
const Texts no_key_value = report::noKeyValueToUpdate("product");
const char none[] = "no statement";

const Failure statement_failures[] = {
    {"ValueListOfAColumnWithoutACell", products, all_types, listed, none,
     joined({noValue(3), noValueToList(3)})},
    {"ValueListOfColumnsWithoutPositions", unplaced_products, unplaced_products, listed, none,
     joined({noValue(-1), noValueToList(0)})},

    {"InsertWithoutATableName", products, products, inserted_nowhere, none,
     report::noInsert("No table name given")},
    {"InsertWithoutATableNameAndWithoutColumns", no_columns, no_columns, inserted_nowhere, none,
     report::noInsert("No table name given")},
    {"InsertWithoutColumns", no_columns, no_columns, inserted, none, no_fields},
    {"InsertOfAColumnWithoutACell", products, all_types, inserted, none,
     joined({noValue(3), noValueToList(3), no_values})},
    {"InsertOfColumnsWithoutPositions", unplaced_products, unplaced_products, inserted, none,
     joined({noValue(-1), noValueToList(0), no_values})},

    {"UpdateWithoutATableName", products, products, updated_nowhere, none,
     report::noUpdate("No table name given")},
    {"UpdateWithoutATableNameAndWithoutAKey", without_key, without_key, updated_nowhere, none,
     report::noUpdate("No table name given")},
    {"UpdateOfAColumnWithoutACell", products, all_types, updated, none,
     joined({noValue(3), noValueToUpdate(3, "sold", "product")})},
    {"UpdateOfColumnsWithoutPositions", unplaced_products, unplaced_products, updated, none,
     joined({noValue(-1), noValueToUpdate(1, "name", "product")})},
    {"UpdateOfAColumnWithoutACellAndWithoutAKey", key_alone, without_key, updated, none,
     joined({noValue(1), noValueToUpdate(1, "price", "product")})},
    {"UpdateWithoutAKeyColumn", without_key, without_key, updated, none, no_key_name},
    {"UpdateWithoutColumns", no_columns, no_columns, updated, none, no_key_name},
    {"UpdateWithAKeyWithoutAPosition", unplaced_key_alone, unplaced_key_alone, updated, none,
     joined({noValue(-1), no_key_value})},
    {"UpdateWithAKeyWithoutACell", without_key, key_last, updated, none,
     joined({noValue(2), no_key_value})},
};

INSTANTIATE_TEST_SUITE_P(Lookup, RecordFailureTest, ValuesIn(lookup_failures), test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(Statement, RecordFailureTest, ValuesIn(statement_failures),
                         test::NameOfCase());

} // namespace
