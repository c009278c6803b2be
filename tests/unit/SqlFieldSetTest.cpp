#include "SqlFieldSet.h"

#include "Columns.h"
#include "Declarations.h"
#include "Diagnostics.h"
#include "Environment.h"

#include <gmock/gmock.h>

#include <syslog.h>

#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sql::Field;
using sql::FieldSet;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_polymorphic<FieldSet>::value, "a plain value");

static_assert(std::is_constructible<FieldSet, const Field*>::value, "an array of columns");
static_assert(std::is_constructible<FieldSet, const std::vector<Field>&>::value, "copied fields");
static_assert(std::is_copy_constructible<FieldSet>::value, "a plain value");
static_assert(std::is_same<decltype(std::declval<FieldSet&>() = std::declval<const FieldSet&>()),
                           FieldSet&>::value,
              "assignments chain");
static_assert(test::declared<bool (FieldSet::*)(const Field*)>(&FieldSet::initFieldSet));
static_assert(test::declared<int (FieldSet::*)() const>(&FieldSet::count));
static_assert(test::declared<const Field* (FieldSet::*)(int) const>(&FieldSet::getByIndex));
static_assert(
    test::declared<const Field* (FieldSet::*)(const std::string&) const>(&FieldSet::getByName));
static_assert(test::declared<std::string (FieldSet::*)() const>(&FieldSet::getKeyIdName));
static_assert(test::declared<std::string (FieldSet::*)() const>(&FieldSet::getDefinition));
static_assert(test::declared<std::string (FieldSet::*)() const>(&FieldSet::toSql));
static_assert(test::declared<std::string (FieldSet::*)() const>(&FieldSet::dump));

const char init_assertion[] =
    "assert 'false' in SqlFieldSet.cpp (bool sql::FieldSet::initFieldSet(const sql::Field*))";
const char key_name_error[] =
    "[ERROR] SqlFieldSet.cpp (getKeyIdName) - Failed to get name of PRIMARY KEY column";
const char key_name_assertion[] =
    "assert 'false' in SqlFieldSet.cpp (sql::string sql::FieldSet::getKeyIdName() const)";

const Field* const no_array = nullptr;

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
    for (const std::string& name : names)
        fields.push_back(Field(name, sql::type_text, sql::flag_none));
    return fields;
}

// A key column of a type that none may have, and an unnamed field in the middle.
std::vector<Field> uncheckedFields()
{
    return {
        Field("price", sql::type_float, sql::flag_primary_key),
        Field(),
        Field("name", sql::type_text, sql::flag_none),
    };
}

class FieldSetTest : public testing::Test {
protected:
    FieldSetTest()
    {
        _diagnostics.setLevel(9);
    }

    test::Diagnostics _diagnostics;
};

TEST_F(FieldSetTest, NullArrayMakesAnEmptySetSilently)
{
    const FieldSet fields(no_array);
    EXPECT_EQ(fields.count(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, ColumnsOfAnArrayGetTheirPositions)
{
    const FieldSet fields(test::key_last_columns);
    EXPECT_EQ(fields.count(), 3);
    EXPECT_EQ(fields.dump(), "0: name=name, type=text, flags:\r\n"
                             "1: name=price, type=float, flags:\r\n"
                             "2: name=id, type=integer, flags: PRIMARY KEY");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, ColumnsAreCopied)
{
    const FieldSet fields(test::product_columns);
    EXPECT_NE(fields.getByIndex(0), &test::product_columns[0]);
    EXPECT_EQ(test::product_columns[1].getIndex(), -1);
}

TEST_F(FieldSetTest, ArrayIsReadUpToTheFirstEndingField)
{
    const Field columns[] = {
        Field("id", sql::type_int, sql::flag_primary_key),
        Field(),
        Field("name", sql::type_text, sql::flag_none),
        Field(),
    };
    EXPECT_THAT(namesOf(FieldSet(columns)), ElementsAre("id"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, FieldWithoutANameEndsTheArrayWhateverItsTypeAndFlags)
{
    const Field columns[] = {
        Field("id", sql::type_int, sql::flag_primary_key),
        Field("", sql::type_float, sql::flag_primary_key),
    };
    _diagnostics.clear();
    EXPECT_THAT(namesOf(FieldSet(columns)), ElementsAre("id"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, EndingFieldAloneMakesAnEmptySetWithoutAKeyAndIsReported)
{
    const FieldSet fields(test::no_columns);
    EXPECT_EQ(fields.count(), 0);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(init_assertion));
    EXPECT_EQ(_diagnostics.failedAssertions()[0].path,
              "components/sql/sqlwrapper/src/SqlFieldSet.cpp");
}

TEST_F(FieldSetTest, ColumnsWithoutAKeyAreKeptAndReported)
{
    const FieldSet fields(test::without_key_columns);
    EXPECT_THAT(namesOf(fields), ElementsAre("name", "price"));
    EXPECT_THAT(indexesOf(fields), ElementsAre(0, 1));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(init_assertion));
}

TEST_F(FieldSetTest, InitWithoutAKeyFailsAndKeepsTheColumns)
{
    FieldSet fields(no_array);
    EXPECT_FALSE(fields.initFieldSet(test::without_key_columns));
    EXPECT_THAT(namesOf(fields), ElementsAre("name", "price"));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(init_assertion));
}

TEST_F(FieldSetTest, InitWithAKeyInAnyPositionSucceeds)
{
    FieldSet fields(no_array);
    EXPECT_TRUE(fields.initFieldSet(test::key_last_columns));
    EXPECT_THAT(indexesOf(fields), ElementsAre(0, 1, 2));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, InitWithATextKeySucceeds)
{
    FieldSet fields(no_array);
    EXPECT_TRUE(fields.initFieldSet(test::text_key_columns));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, OnlyThePrimaryKeyFlagMakesAKey)
{
    const Field columns[] = {
        Field("id", sql::type_int, sql::flag_not_null | sql::flag_unique | 8),
        Field(),
    };
    FieldSet fields(no_array);
    EXPECT_FALSE(fields.initFieldSet(columns));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(init_assertion));
}

TEST_F(FieldSetTest, InitWithANullArrayChangesNothing)
{
    FieldSet fields(test::product_columns);
    EXPECT_TRUE(fields.initFieldSet(nullptr));
    EXPECT_THAT(namesOf(fields), ElementsAre("id", "name", "price"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, InitWithANullArraySucceedsWithoutAKeyToo)
{
    FieldSet fields(no_array);
    EXPECT_TRUE(fields.initFieldSet(nullptr));
    EXPECT_EQ(fields.count(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, InitOfASetWithFieldsNumbersTheEarlierOnesDeliberately)
{
    const FieldSet numbered(test::product_columns);
    const Field columns[] = {*numbered.getByIndex(2), *numbered.getByIndex(0), Field()};
    FieldSet fields(freshFields({"a", "b", "c"}));
    EXPECT_TRUE(fields.initFieldSet(columns));
    EXPECT_THAT(namesOf(fields), ElementsAre("a", "b", "c", "price", "id"));
    EXPECT_THAT(indexesOf(fields), ElementsAre(0, 1, -1, 2, 0));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, InitWithMoreColumnsThanTheSetHeldNumbersSomeOfTheCopiesDeliberately)
{
    FieldSet fields(freshFields({"a"}));
    EXPECT_TRUE(fields.initFieldSet(test::product_columns));
    EXPECT_THAT(namesOf(fields), ElementsAre("a", "id", "name", "price"));
    EXPECT_THAT(indexesOf(fields), ElementsAre(0, 1, 2, -1));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, KeyThatTheSetHeldBeforeCounts)
{
    FieldSet fields(test::product_columns);
    EXPECT_TRUE(fields.initFieldSet(test::without_key_columns));
    EXPECT_EQ(fields.count(), 5);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, InitWithTheEndingFieldAloneChecksTheKeyOfTheFieldsHeld)
{
    FieldSet fields(test::product_columns);
    EXPECT_TRUE(fields.initFieldSet(test::no_columns));
    EXPECT_EQ(fields.count(), 3);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, KeyOfAnyTypeThatTheSetHeldBeforeCounts)
{
    FieldSet fields(uncheckedFields());
    EXPECT_TRUE(fields.initFieldSet(test::without_key_columns));
    EXPECT_THAT(namesOf(fields), ElementsAre("price", "", "name", "name", "price"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, WrongKeyTypeIsOneLogLineOfErrorPriority)
{
    const Field columns[] = {Field("at", sql::type_time, sql::flag_primary_key), Field()};
    FieldSet fields(no_array);
    fields.initFieldSet(columns);
    ASSERT_EQ(_diagnostics.lines().size(), 1U);
    EXPECT_EQ(_diagnostics.lines()[0].priority, LOG_ERR);
    EXPECT_EQ(
        _diagnostics.lines()[0].format,
        "[ERROR] %s:%d (%s) - PRIMARY KEY column '%s' must be of type 'integer' or 'text' instead of type '%s'");
}

TEST_F(FieldSetTest, RestOfAnArrayIsNotReadAfterAWrongKeyType)
{
    const Field columns[] = {
        Field("first", sql::type_float, sql::flag_primary_key),
        Field("second", sql::type_bool, sql::flag_primary_key),
    };
    EXPECT_EQ(FieldSet(columns).count(), 0);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlFieldSet.cpp (initFieldSet) - PRIMARY KEY column 'first' must be of type 'integer' or 'text' instead of type 'float'",
            init_assertion));
}

TEST_F(FieldSetTest, WrongKeyTypeBelowTheErrorLevelIsAnAssertionAlone)
{
    _diagnostics.setLevel(2);
    const Field columns[] = {Field("a", sql::type_bool, sql::flag_primary_key), Field()};
    FieldSet fields(no_array);
    EXPECT_FALSE(fields.initFieldSet(columns));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(init_assertion));
}

TEST_F(FieldSetTest, WrongKeyTypeWithoutATraceObjectIsAnAssertionAlone)
{
    _diagnostics.removeTraceObject();
    const Field columns[] = {Field("a", sql::type_bool, sql::flag_primary_key), Field()};
    FieldSet fields(no_array);
    EXPECT_FALSE(fields.initFieldSet(columns));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(init_assertion));
}

TEST_F(FieldSetTest, UndefinedKeyTypeIsNamedForTheLogLineOnly)
{
    _diagnostics.setLevel(2);
    const Field columns[] = {
        Field("a", static_cast<sql::field_type>(7), sql::flag_primary_key),
        Field(),
    };
    EXPECT_EQ(FieldSet(columns).count(), 0);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(init_assertion));
}

TEST_F(FieldSetTest, UndefinedKeyTypeReportsItsNameThenTheLineThenTheRejection)
{
    _diagnostics.setLevel(3);
    const Field columns[] = {
        Field("a", static_cast<sql::field_type>(7), sql::flag_primary_key),
        Field(),
    };
    EXPECT_EQ(FieldSet(columns).count(), 0);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'false' in SqlCommon.cpp (sql::string sql::type2Str(sql::field_type))",
            "[ERROR] SqlFieldSet.cpp (initFieldSet) - PRIMARY KEY column 'a' must be of type 'integer' or 'text' instead of type 'undefined'",
            init_assertion));
}

TEST_F(FieldSetTest, UndefinedTypeOfAnotherColumnIsTaken)
{
    const Field columns[] = {
        Field("id", sql::type_int, sql::flag_primary_key),
        Field("odd", static_cast<sql::field_type>(7), sql::flag_not_null),
        Field(),
    };
    FieldSet fields(no_array);
    EXPECT_TRUE(fields.initFieldSet(columns));
    EXPECT_THAT(namesOf(fields), ElementsAre("id", "odd"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

struct WrongKey {
    sql::field_type type;
    const char* error;
};

void PrintTo(const WrongKey& key, std::ostream* out)
{
    *out << key.type;
}

class FieldSetWrongKeyTest : public FieldSetTest, public testing::WithParamInterface<WrongKey> {
protected:
    FieldSetWrongKeyTest()
        : _columns{
            Field("id", sql::type_int, sql::flag_primary_key),
            Field("name", sql::type_text, sql::flag_none),
            Field("key", GetParam().type, sql::flag_primary_key | sql::flag_not_null),
            Field("price", sql::type_float, sql::flag_none),
            Field(),
        }
    {
        _diagnostics.setLevel(3);
    }

    const Field _columns[5];
};

TEST_P(FieldSetWrongKeyTest, SetIsEmptyAndTheRejectionReported)
{
    EXPECT_EQ(FieldSet(_columns).count(), 0);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(GetParam().error, init_assertion));
}

TEST_P(FieldSetWrongKeyTest, InitFails)
{
    FieldSet fields(no_array);
    EXPECT_FALSE(fields.initFieldSet(_columns));
    EXPECT_EQ(fields.count(), 0);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(GetParam().error, init_assertion));
}

TEST_P(FieldSetWrongKeyTest, FieldsHeldBeforeAreDroppedToo)
{
    FieldSet fields(test::product_columns);
    EXPECT_FALSE(fields.initFieldSet(_columns));
    EXPECT_EQ(fields.count(), 0);
    EXPECT_EQ(fields.getByName("id"), nullptr);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(GetParam().error, init_assertion));
}

TEST_P(FieldSetWrongKeyTest, SetIsEmptiedAfterTheReport)
{
    FieldSet fields(test::product_columns);
    std::vector<int> counts;
    _diagnostics.onLine([&](const test::LogLine&) { counts.push_back(fields.count()); });
    _diagnostics.onAssertion([&](const test::Assertion&) { counts.push_back(fields.count()); });
    fields.initFieldSet(_columns);
    EXPECT_THAT(counts, ElementsAre(5, 5)); // the former three, and those before the key
    EXPECT_EQ(fields.count(), 0);
}

TEST_P(FieldSetWrongKeyTest, SetCanBeFilledAfterwards)
{
    FieldSet fields(_columns);
    _diagnostics.clear();
    EXPECT_TRUE(fields.initFieldSet(test::product_columns));
    EXPECT_THAT(indexesOf(fields), ElementsAre(0, 1, 2));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Types, FieldSetWrongKeyTest,
    testing::Values(
        WrongKey{
            sql::type_float,
            "[ERROR] SqlFieldSet.cpp (initFieldSet) - PRIMARY KEY column 'key' must be of type 'integer' or 'text' instead of type 'float'"},
        WrongKey{
            sql::type_bool,
            "[ERROR] SqlFieldSet.cpp (initFieldSet) - PRIMARY KEY column 'key' must be of type 'integer' or 'text' instead of type 'bool'"},
        WrongKey{
            sql::type_time,
            "[ERROR] SqlFieldSet.cpp (initFieldSet) - PRIMARY KEY column 'key' must be of type 'integer' or 'text' instead of type 'time'"}));

TEST_F(FieldSetTest, VectorIsTakenAsItIsWithoutPositions)
{
    const FieldSet fields(freshFields({"a", "b"}));
    EXPECT_THAT(namesOf(fields), ElementsAre("a", "b"));
    EXPECT_THAT(indexesOf(fields), ElementsAre(-1, -1));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, VectorKeepsThePositionsAndFlagsItsFieldsHave)
{
    const FieldSet numbered(test::key_last_columns);
    const std::vector<Field> reversed = {*numbered.getByIndex(2), *numbered.getByIndex(0)};
    EXPECT_EQ(FieldSet(reversed).dump(), "2: name=id, type=integer, flags: PRIMARY KEY\r\n"
                                         "0: name=name, type=text, flags:");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, VectorIsNotCheckedForItsKeyNorForEndingFields)
{
    const FieldSet fields(uncheckedFields());
    EXPECT_THAT(namesOf(fields), ElementsAre("price", "", "name"));
    EXPECT_EQ(fields.getKeyIdName(), "price");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, EmptyVectorMakesAnEmptySetSilently)
{
    EXPECT_EQ(FieldSet(std::vector<Field>()).count(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, CopyOwnsItsFields)
{
    FieldSet original(test::product_columns);
    const FieldSet copy(original);
    original = FieldSet(no_array);
    EXPECT_EQ(copy.dump(), "0: name=id, type=integer, flags: PRIMARY KEY\r\n"
                           "1: name=name, type=text, flags:\r\n"
                           "2: name=price, type=float, flags:");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, AssignmentReplacesTheFields)
{
    const FieldSet source(test::text_key_columns);
    FieldSet fields(test::product_columns);
    EXPECT_EQ(&(fields = source), &fields);
    EXPECT_THAT(namesOf(fields), ElementsAre("code", "name"));
    EXPECT_NE(fields.getByIndex(0), source.getByIndex(0));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, SelfAssignmentKeepsTheFieldsWhereTheyAre)
{
    FieldSet fields(test::product_columns);
    const Field* const first = fields.getByIndex(0);
    const FieldSet& same = fields;
    EXPECT_EQ(&(fields = same), &fields);
    EXPECT_EQ(fields.getByIndex(0), first);
    EXPECT_THAT(namesOf(fields), ElementsAre("id", "name", "price"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, PositionOutsideTheSetHasNoField)
{
    const FieldSet fields(test::product_columns);
    EXPECT_EQ(fields.getByIndex(-1), nullptr);
    EXPECT_EQ(fields.getByIndex(fields.count()), nullptr);
    EXPECT_EQ(FieldSet(no_array).getByIndex(0), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
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
    EXPECT_EQ(fields.getByName("Name"), nullptr);
    EXPECT_EQ(fields.getByName("nam"), nullptr);
    EXPECT_EQ(fields.getByName("name "), nullptr);
    EXPECT_EQ(fields.getByName(" name"), nullptr);
    EXPECT_EQ(fields.getByName(std::string("name\0", 5)), nullptr);
    EXPECT_EQ(fields.getByName(""), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, UnnamedFieldIsFoundByTheEmptyName)
{
    const FieldSet fields(uncheckedFields());
    EXPECT_EQ(fields.getByName(""), fields.getByIndex(1));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, FirstOfTwoFieldsWithOneNameIsFound)
{
    const FieldSet fields(freshFields({"a", "b", "b"}));
    EXPECT_EQ(fields.getByName("b"), fields.getByIndex(1));
}

TEST_F(FieldSetTest, KeyIsFoundInAnyPosition)
{
    EXPECT_EQ(FieldSet(test::key_last_columns).getKeyIdName(), "id");
    EXPECT_EQ(FieldSet(test::text_key_columns).getKeyIdName(), "code");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, FirstOfTwoKeysCounts)
{
    const Field columns[] = {
        Field("name", sql::type_text, sql::flag_none),
        Field("first", sql::type_text, sql::flag_primary_key | sql::flag_unique),
        Field("second", sql::type_int, sql::flag_primary_key),
        Field(),
    };
    EXPECT_EQ(FieldSet(columns).getKeyIdName(), "first");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, MissingKeyIsLoggedThenAsserted)
{
    _diagnostics.setLevel(3);
    const FieldSet fields(test::without_key_columns);
    _diagnostics.clear();
    EXPECT_EQ(fields.getKeyIdName(), "");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(key_name_error, key_name_assertion));
    EXPECT_EQ(_diagnostics.lines()[0].priority, LOG_ERR);
}

TEST_F(FieldSetTest, MissingKeyBelowTheErrorLevelIsAnAssertionAlone)
{
    _diagnostics.setLevel(2);
    EXPECT_EQ(FieldSet(no_array).getKeyIdName(), "");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(key_name_assertion));
}

TEST_F(FieldSetTest, EmptySetHasNoKeyNorDebugLines)
{
    EXPECT_EQ(FieldSet(no_array).getKeyIdName(), "");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(key_name_error, key_name_assertion));
}

TEST_F(FieldSetTest, TextsOfAnEmptySetAreEmpty)
{
    const FieldSet fields(no_array);
    EXPECT_EQ(fields.getDefinition(), "");
    EXPECT_EQ(fields.toSql(), "");
    EXPECT_EQ(fields.dump(), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, TextsOfOneFieldHaveNoSeparator)
{
    const Field columns[] = {Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
                             Field()};
    const FieldSet fields(columns);
    EXPECT_EQ(fields.getDefinition(), "id INTEGER PRIMARY KEY NOT NULL");
    EXPECT_EQ(fields.toSql(), "id");
    EXPECT_EQ(fields.dump(), "0: name=id, type=integer, flags: PRIMARY KEY NOT NULL");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, TextsListAnUnnamedFieldLikeAnyOther)
{
    const FieldSet fields(uncheckedFields());
    EXPECT_EQ(fields.getDefinition(), "price REAL PRIMARY KEY, INTEGER, name TEXT");
    EXPECT_EQ(fields.toSql(), "price, , name");
    EXPECT_EQ(fields.dump(), "-1: name=price, type=float, flags: PRIMARY KEY\r\n"
                             "-1: name=, type=integer, flags:\r\n"
                             "-1: name=name, type=text, flags:");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, DefinitionListsTheColumnDefinitions)
{
    const FieldSet fields(test::all_type_columns);
    EXPECT_EQ(fields.getDefinition(),
              "id INTEGER PRIMARY KEY, name TEXT, price REAL, sold INTEGER, at INTEGER");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, DefinitionOfAnUndefinedTypeIsReportedByTheField)
{
    const std::vector<Field> odd = {
        Field("a", static_cast<sql::field_type>(7), sql::flag_none),
        Field("b", sql::type_text, sql::flag_none),
    };
    EXPECT_EQ(FieldSet(odd).getDefinition(), "a, b TEXT");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("assert 'false' in SqlField.cpp (sql::string sql::Field::getTypeStr() const)"));
}

TEST_F(FieldSetTest, SqlListsTheColumnNamesAsTheyStand)
{
    EXPECT_EQ(FieldSet(test::all_type_columns).toSql(), "id, name, price, sold, at");
    EXPECT_EQ(FieldSet(freshFields({"it's", " b "})).toSql(), "it's,  b ");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, DumpHasALineBreakBetweenTwoFieldsOnly)
{
    EXPECT_EQ(FieldSet(test::all_type_columns).dump(),
              "0: name=id, type=integer, flags: PRIMARY KEY\r\n"
              "1: name=name, type=text, flags:\r\n"
              "2: name=price, type=float, flags:\r\n"
              "3: name=sold, type=bool, flags:\r\n"
              "4: name=at, type=time, flags:");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldSetTest, PositionInADumpHasNoDigitGrouping)
{
    std::vector<Field> columns(1235, Field("a", sql::type_int, sql::flag_primary_key));
    columns.push_back(Field());
    const FieldSet fields(columns.data());
    const test::CommaLocale comma;
    EXPECT_EQ(fields.getByIndex(1234)->dump(), "1234: name=a, type=integer, flags: PRIMARY KEY");
}

} // namespace
