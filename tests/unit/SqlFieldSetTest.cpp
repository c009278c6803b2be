#include "SqlFieldSet.h"

#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"

#include <gmock/gmock.h>

#include <string>
#include <type_traits>
#include <vector>

namespace {

namespace report = test::report;

using sql::Field;
using sql::FieldSet;
using testing::ElementsAre;

static_assert(!std::is_polymorphic<FieldSet>::value, "a plain value");

const Field* const no_array = nullptr;
const Field id("id", sql::type_int, sql::flag_primary_key);
const Field name("name", sql::type_text, sql::flag_none);
const sql::field_type undefined = static_cast<sql::field_type>(7);

std::vector<std::string> namesOf(const FieldSet& fields)
{
    std::vector<std::string> names;
    for (int i = 0; i < fields.count(); ++i)
        names.push_back(fields.getByIndex(i)->getName());
    return names;
}

std::vector<int> indexesOf(const FieldSet& fields)
{
    std::vector<int> indexes;
    for (int i = 0; i < fields.count(); ++i)
        indexes.push_back(fields.getByIndex(i)->getIndex());
    return indexes;
}

std::vector<Field> freshFields(const std::vector<std::string>& names)
{
    std::vector<Field> fields;
    for (const std::string& one : names)
        fields.push_back(Field(one, sql::type_text, sql::flag_none));
    return fields;
}

// A key column of a type that none may have, and an unnamed field in the middle.
std::vector<Field> uncheckedFields()
{
    return {Field("price", sql::type_float, sql::flag_primary_key), Field(), name};
}

class FieldSetTest : public test::ReportTest {
protected:
    FieldSetTest()
    {
        _diagnostics.setLevel(9);
    }

    // Whether the set takes the columns, with what it reports.
    void expectInit(bool succeeds, const Field* columns, const test::Texts& events)
    {
        _diagnostics.clear();
        EXPECT_EQ(_fields.initFieldSet(columns), succeeds);
        expectReport(events);
    }

    FieldSet _fields{no_array};
};

// --- A set of an array, and initFieldSet()

TEST_F(FieldSetTest, NullArrayMakesAnEmptySetSilently)
{
    EXPECT_EQ(_fields.count(), 0);
    EXPECT_EQ(_fields.getDefinition(), "");
    EXPECT_EQ(_fields.toSql(), "");
    EXPECT_EQ(_fields.dump(), "");
}

TEST_F(FieldSetTest, ColumnsOfAnArrayAreCopiedAndGetTheirPositions)
{
    const FieldSet fields(test::key_last_columns);
    EXPECT_EQ(fields.count(), 3);
    EXPECT_EQ(fields.dump(), "0: name=name, type=text, flags:\r\n"
                             "1: name=price, type=float, flags:\r\n"
                             "2: name=id, type=integer, flags: PRIMARY KEY");
    EXPECT_EQ(test::key_last_columns[1].getIndex(), -1);
}

TEST_F(FieldSetTest, ArrayIsReadUpToTheFirstFieldWithoutAName)
{
    const Field ended[] = {id, Field(), name, Field()};
    const Field unnamed[] = {id, Field("", sql::type_float, sql::flag_primary_key)};
    _diagnostics.clear();
    EXPECT_THAT(namesOf(FieldSet(ended)), ElementsAre("id"));
    EXPECT_THAT(namesOf(FieldSet(unnamed)), ElementsAre("id"));
}

TEST_F(FieldSetTest, EndingFieldAloneMakesAnEmptySetWithoutAKeyAndIsReported)
{
    EXPECT_EQ(FieldSet(test::no_columns).count(), 0);
    expectReport({report::badColumns()});
}

TEST_F(FieldSetTest, ColumnsWithoutAKeyAreKeptAndReported)
{
    expectInit(false, test::without_key_columns, {report::badColumns()});
    EXPECT_THAT(namesOf(_fields), ElementsAre("name", "price"));
    EXPECT_THAT(indexesOf(_fields), ElementsAre(0, 1));
    const FieldSet made(test::without_key_columns);
    EXPECT_EQ(made.dump(), _fields.dump());
    expectReport({report::badColumns()});
}

TEST_F(FieldSetTest, InitWithAKeyInAnyPositionSucceeds)
{
    expectInit(true, test::key_last_columns, {});
    EXPECT_THAT(indexesOf(_fields), ElementsAre(0, 1, 2));
}

TEST_F(FieldSetTest, InitWithATextKeySucceeds)
{
    expectInit(true, test::text_key_columns, {});
}

TEST_F(FieldSetTest, OnlyThePrimaryKeyFlagMakesAKey)
{
    const Field columns[] = {
        Field("id", sql::type_int, sql::flag_not_null | sql::flag_unique | 8),
        Field(),
    };
    expectInit(false, columns, {report::badColumns()});
}

TEST_F(FieldSetTest, InitWithANullArrayChangesNothingWithOrWithoutAKey)
{
    expectInit(true, nullptr, {});
    EXPECT_EQ(_fields.count(), 0);
    _fields = FieldSet(test::product_columns);
    expectInit(true, nullptr, {});
    EXPECT_THAT(namesOf(_fields), ElementsAre("id", "name", "price"));
}

TEST_F(FieldSetTest, InitOfASetWithFieldsNumbersTheEarlierOnesDeliberately)
{
    const FieldSet numbered(test::product_columns);
    const Field columns[] = {*numbered.getByIndex(2), *numbered.getByIndex(0), Field()};
    _fields = FieldSet(freshFields({"a", "b", "c"}));
    expectInit(true, columns, {});
    EXPECT_THAT(namesOf(_fields), ElementsAre("a", "b", "c", "price", "id"));
    EXPECT_THAT(indexesOf(_fields), ElementsAre(0, 1, -1, 2, 0));
}

TEST_F(FieldSetTest, InitWithMoreColumnsThanTheSetHeldNumbersSomeOfTheCopiesDeliberately)
{
    _fields = FieldSet(freshFields({"a"}));
    expectInit(true, test::product_columns, {});
    EXPECT_THAT(namesOf(_fields), ElementsAre("a", "id", "name", "price"));
    EXPECT_THAT(indexesOf(_fields), ElementsAre(0, 1, 2, -1));
}

TEST_F(FieldSetTest, KeyThatTheSetHeldBeforeCounts)
{
    _fields = FieldSet(test::product_columns);
    expectInit(true, test::no_columns, {});
    EXPECT_EQ(_fields.count(), 3);
    expectInit(true, test::without_key_columns, {});
    EXPECT_EQ(_fields.count(), 5);
}

TEST_F(FieldSetTest, KeyOfAnyTypeThatTheSetHeldBeforeCounts)
{
    _fields = FieldSet(uncheckedFields());
    expectInit(true, test::without_key_columns, {});
    EXPECT_THAT(namesOf(_fields), ElementsAre("price", "", "name", "name", "price"));
}

// --- A key of another type than integer or text

class FieldSetWrongKeyTest : public FieldSetTest,
                             public testing::WithParamInterface<sql::field_type> {
protected:
    const Field _columns[5] = {
        id,
        name,
        Field("key", GetParam(), sql::flag_primary_key | sql::flag_not_null),
        Field("price", sql::type_float, sql::flag_none),
        Field(),
    };
    const test::Texts _events = report::wrongKeyType("key", sql::type2Str(GetParam()));
};

TEST_P(FieldSetWrongKeyTest, IsReportedAndLeavesTheSetEmpty)
{
    for (const int level : test::trace_levels) {
        _diagnostics.clear();
        _diagnostics.setLevel(level);
        EXPECT_EQ(FieldSet(_columns).count(), 0);
        expectReport(_events);
    }
}

TEST_P(FieldSetWrongKeyTest, FailsInitAndDropsTheFieldsHeldAfterTheReport)
{
    std::vector<int> counts;
    _diagnostics.onLine([&](const test::LogLine&) { counts.push_back(_fields.count()); });
    _diagnostics.onAssertion([&](const test::Assertion&) { counts.push_back(_fields.count()); });
    _fields = FieldSet(test::product_columns);
    expectInit(false, _columns, _events);
    EXPECT_THAT(counts, ElementsAre(5, 5)); // the former three, and those before the key
    EXPECT_EQ(_fields.count(), 0);
    EXPECT_EQ(_fields.getByName("id"), nullptr);
    expectInit(true, test::product_columns, {});
    EXPECT_THAT(indexesOf(_fields), ElementsAre(0, 1, 2));
}

INSTANTIATE_TEST_SUITE_P(Types, FieldSetWrongKeyTest,
                         testing::Values(sql::type_float, sql::type_bool, sql::type_time));

TEST_F(FieldSetTest, RestOfAnArrayIsNotReadAfterAWrongKeyType)
{
    const Field columns[] = {
        Field("first", sql::type_float, sql::flag_primary_key),
        Field("second", sql::type_bool, sql::flag_primary_key),
    };
    EXPECT_EQ(FieldSet(columns).count(), 0);
    expectReport(report::wrongKeyType("first", "float"));
}

TEST_F(FieldSetTest, UndefinedKeyTypeIsNamedForTheLogLineAlone)
{
    const Field columns[] = {Field("a", undefined, sql::flag_primary_key), Field()};
    expectInit(false, columns,
               test::joined({{report::asserted("sql::string sql::type2Str(sql::field_type)")},
                             report::wrongKeyType("a", "undefined")}));
    _diagnostics.setLevel(2);
    expectInit(false, columns, {report::badColumns()});
}

TEST_F(FieldSetTest, UndefinedTypeOfAnotherColumnIsTaken)
{
    const Field columns[] = {id, Field("odd", undefined, sql::flag_not_null), Field()};
    expectInit(true, columns, {});
    EXPECT_THAT(namesOf(_fields), ElementsAre("id", "odd"));
}

// --- A set of a vector

TEST_F(FieldSetTest, VectorIsTakenAsItIsWithoutPositions)
{
    const FieldSet fields(freshFields({"a", "b"}));
    EXPECT_THAT(namesOf(fields), ElementsAre("a", "b"));
    EXPECT_THAT(indexesOf(fields), ElementsAre(-1, -1));
    EXPECT_EQ(FieldSet(std::vector<Field>()).count(), 0);
}

TEST_F(FieldSetTest, VectorKeepsThePositionsAndFlagsItsFieldsHave)
{
    const FieldSet numbered(test::key_last_columns);
    const std::vector<Field> reversed = {*numbered.getByIndex(2), *numbered.getByIndex(0)};
    EXPECT_EQ(FieldSet(reversed).dump(), "2: name=id, type=integer, flags: PRIMARY KEY\r\n"
                                         "0: name=name, type=text, flags:");
}

TEST_F(FieldSetTest, VectorIsNotCheckedForItsKeyNorForEndingFields)
{
    const FieldSet fields(uncheckedFields());
    EXPECT_EQ(fields.getKeyIdName(), "price");
    EXPECT_EQ(fields.getByName(""), fields.getByIndex(1));
    EXPECT_EQ(fields.getDefinition(), "price REAL PRIMARY KEY, INTEGER, name TEXT");
    EXPECT_EQ(fields.toSql(), "price, , name");
    EXPECT_EQ(fields.dump(), "-1: name=price, type=float, flags: PRIMARY KEY\r\n"
                             "-1: name=, type=integer, flags:\r\n"
                             "-1: name=name, type=text, flags:");
}

// --- Lookups

TEST_F(FieldSetTest, PositionOutsideTheSetHasNoField)
{
    const FieldSet fields(test::product_columns);
    EXPECT_EQ(fields.getByIndex(-1), nullptr);
    EXPECT_EQ(fields.getByIndex(fields.count()), nullptr);
    EXPECT_EQ(_fields.getByIndex(0), nullptr);
}

TEST_F(FieldSetTest, LookupsPointAtTheSameFields)
{
    const FieldSet fields(test::product_columns);
    EXPECT_EQ(fields.getByName("id"), fields.getByIndex(0));
    EXPECT_EQ(fields.getByName("price"), fields.getByIndex(2));
    EXPECT_EQ(fields.getByIndex(2)->getName(), "price");
}

TEST_F(FieldSetTest, NameIsFoundOnlyByteForByte)
{
    const FieldSet fields(test::product_columns);
    for (const std::string& other : {std::string("Name"), std::string("nam"), std::string("name "),
                                     std::string(" name"), std::string("name\0", 5), std::string()})
        EXPECT_EQ(fields.getByName(other), nullptr) << other;
}

TEST_F(FieldSetTest, FirstOfTwoFieldsWithOneNameIsFound)
{
    const FieldSet fields(freshFields({"a", "b", "b"}));
    EXPECT_EQ(fields.getByName("b"), fields.getByIndex(1));
}

TEST_F(FieldSetTest, FirstKeyCountsInAnyPosition)
{
    const Field columns[] = {
        name,
        Field("first", sql::type_text, sql::flag_primary_key | sql::flag_unique),
        id,
        Field(),
    };
    EXPECT_EQ(FieldSet(test::key_last_columns).getKeyIdName(), "id");
    EXPECT_EQ(FieldSet(columns).getKeyIdName(), "first");
}

TEST_F(FieldSetTest, MissingKeyIsLoggedThenAsserted)
{
    for (const FieldSet& fields : {_fields, FieldSet(freshFields({"name"}))}) {
        for (const int level : test::trace_levels) {
            _diagnostics.setLevel(level);
            _diagnostics.clear();
            EXPECT_EQ(fields.getKeyIdName(), "");
            expectReport(report::noKeyName());
        }
    }
}

// --- Texts

TEST_F(FieldSetTest, TextsListAllColumnsWithSeparatorsInBetween)
{
    const FieldSet fields(test::all_type_columns);
    EXPECT_EQ(fields.getDefinition(),
              "id INTEGER PRIMARY KEY, name TEXT, price REAL, sold INTEGER, at INTEGER");
    EXPECT_EQ(fields.toSql(), "id, name, price, sold, at");
    EXPECT_EQ(fields.dump(), "0: name=id, type=integer, flags: PRIMARY KEY\r\n"
                             "1: name=name, type=text, flags:\r\n"
                             "2: name=price, type=float, flags:\r\n"
                             "3: name=sold, type=bool, flags:\r\n"
                             "4: name=at, type=time, flags:");
}

TEST_F(FieldSetTest, TextsOfOneFieldHaveNoSeparator)
{
    const Field columns[] = {Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
                             Field()};
    const FieldSet fields(columns);
    EXPECT_EQ(fields.getDefinition(), "id INTEGER PRIMARY KEY NOT NULL");
    EXPECT_EQ(fields.toSql(), "id");
    EXPECT_EQ(fields.dump(), "0: name=id, type=integer, flags: PRIMARY KEY NOT NULL");
}

TEST_F(FieldSetTest, NamesAreListedAsTheyStand)
{
    EXPECT_EQ(FieldSet(freshFields({"it's", " b "})).toSql(), "it's,  b ");
}

TEST_F(FieldSetTest, DefinitionOfAnUndefinedTypeIsReportedByTheField)
{
    const std::vector<Field> odd = {Field("a", undefined, sql::flag_none), name};
    EXPECT_EQ(FieldSet(odd).getDefinition(), "a, name TEXT");
    expectReport({report::asserted("sql::string sql::Field::getTypeStr() const")});
}

TEST_F(FieldSetTest, PositionInADumpHasNoDigitGrouping)
{
    std::vector<Field> columns(1235, id);
    columns.push_back(Field());
    const FieldSet fields(columns.data());
    const test::CommaLocale comma;
    EXPECT_EQ(fields.getByIndex(1234)->dump(), "1234: name=id, type=integer, flags: PRIMARY KEY");
}

} // namespace
