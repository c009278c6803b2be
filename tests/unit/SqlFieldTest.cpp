#include "SqlField.h"

#include "Columns.h"
#include "Declarations.h"
#include "Diagnostics.h"
#include "SqlFieldSet.h"

#include <gmock/gmock.h>

#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sql::Field;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_polymorphic<Field>::value, "a plain value");

static_assert(std::is_default_constructible<Field>::value, "the ending field");
static_assert(std::is_constructible<Field, const std::string&, sql::field_type, int>::value,
              "a column");
static_assert(std::is_copy_constructible<Field>::value, "a plain value");
static_assert(
    std::is_same<decltype(std::declval<Field&>() = std::declval<const Field&>()), Field&>::value,
    "assignments chain");
static_assert(test::declared<bool (Field::*)() const>(&Field::isEndingField));
static_assert(test::declared<sql::field_type (Field::*)() const>(&Field::getType));
static_assert(test::declared<int (Field::*)() const>(&Field::getIndex));
static_assert(test::declared<std::string (Field::*)() const>(&Field::getName));
static_assert(test::declared<bool (Field::*)() const>(&Field::isPrimaryKey));
static_assert(test::declared<bool (Field::*)() const>(&Field::isNotNull));
static_assert(test::declared<bool (Field::*)() const>(&Field::isUnique));
static_assert(test::declared<std::string (Field::*)() const>(&Field::getTypeStr));
static_assert(test::declared<std::string (Field::*)() const>(&Field::getFlags));
static_assert(test::declared<std::string (Field::*)() const>(&Field::getDefinition));
static_assert(test::declared<std::string (Field::*)() const>(&Field::dump));

static_assert(sql::flag_none == 0, "declarations may use the number");
static_assert(sql::flag_not_null == 1, "declarations may use the number");
static_assert(sql::flag_primary_key == 2, "declarations may use the number");
static_assert(sql::flag_unique == 4, "declarations may use the number");

const char type_name_assertion[] =
    "assert 'false' in SqlCommon.cpp (sql::string sql::type2Str(sql::field_type))";
const char sql_type_assertion[] =
    "assert 'false' in SqlField.cpp (sql::string sql::Field::getTypeStr() const)";
const char empty_name_assertion[] =
    "assert 'name.empty() == false' in SqlField.cpp (sql::Field::Field(const string&, sql::field_type, int))";

// Fields log nothing, however high the level.
class FieldTest : public testing::Test {
protected:
    FieldTest()
    {
        _diagnostics.setLevel(9);
    }

    test::Diagnostics _diagnostics;
};

TEST_F(FieldTest, DefaultIsTheEndingField)
{
    const Field field;
    EXPECT_TRUE(field.isEndingField());
    EXPECT_EQ(field.getName(), "");
    EXPECT_EQ(field.getType(), sql::type_int);
    EXPECT_EQ(field.getIndex(), -1);
    EXPECT_EQ(field.getFlags(), "");
    EXPECT_FALSE(field.isPrimaryKey());
    EXPECT_FALSE(field.isNotNull());
    EXPECT_FALSE(field.isUnique());
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldTest, ColumnHasItsNameTypeAndFlagsAndNoPosition)
{
    const Field field("a", sql::type_text, sql::flag_none);
    EXPECT_FALSE(field.isEndingField());
    EXPECT_EQ(field.getName(), "a");
    EXPECT_EQ(field.getType(), sql::type_text);
    EXPECT_EQ(field.getIndex(), -1);
    EXPECT_EQ(field.getFlags(), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldTest, EmptyNameIsReportedAndMakesAnEndingField)
{
    const Field field("", sql::type_text, sql::flag_primary_key);
    EXPECT_TRUE(field.isEndingField());
    EXPECT_EQ(field.getType(), sql::type_text);
    EXPECT_EQ(field.getIndex(), -1);
    EXPECT_TRUE(field.isPrimaryKey());
    EXPECT_THAT(_diagnostics.events(), ElementsAre(empty_name_assertion));
    EXPECT_EQ(_diagnostics.failedAssertions()[0].path,
              "components/sql/sqlwrapper/src/SqlField.cpp");
}

TEST_F(FieldTest, EmptyNameIsReportedWithoutATraceObjectToo)
{
    _diagnostics.removeTraceObject();
    const Field field("", sql::type_int, sql::flag_none);
    EXPECT_TRUE(field.isEndingField());
    EXPECT_THAT(_diagnostics.events(), ElementsAre(empty_name_assertion));
}

TEST_F(FieldTest, NeitherTypeNorFlagsAreChecked)
{
    const Field field("odd", static_cast<sql::field_type>(-1), ~0);
    EXPECT_EQ(field.getType(), static_cast<sql::field_type>(-1));
    EXPECT_EQ(field.getFlags(), " PRIMARY KEY NOT NULL UNIQUE");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldTest, NameOfABlankIsNoEndingField)
{
    EXPECT_FALSE(Field(" ", sql::type_int, sql::flag_none).isEndingField());
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldTest, CopyHasTheNameTypePositionAndFlags)
{
    const sql::FieldSet fields(test::product_columns);
    const Field copy(*fields.getByIndex(2));
    EXPECT_EQ(copy.getName(), "price");
    EXPECT_EQ(copy.getType(), sql::type_float);
    EXPECT_EQ(copy.getIndex(), 2);
    EXPECT_EQ(Field(*fields.getByIndex(0)).getFlags(), " PRIMARY KEY");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldTest, AssignmentReplacesTheNameTypePositionAndFlags)
{
    const sql::FieldSet fields(test::key_last_columns);
    Field field("other", sql::type_text, sql::flag_not_null | sql::flag_unique);
    EXPECT_EQ(&(field = *fields.getByIndex(2)), &field);
    EXPECT_EQ(field.getName(), "id");
    EXPECT_EQ(field.getType(), sql::type_int);
    EXPECT_EQ(field.getIndex(), 2);
    EXPECT_EQ(field.getFlags(), " PRIMARY KEY");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldTest, AssignmentOfAnEndingFieldMakesOne)
{
    Field field("name", sql::type_text, sql::flag_not_null);
    field = Field();
    EXPECT_TRUE(field.isEndingField());
    EXPECT_EQ(field.dump(), "-1: name=, type=integer, flags:");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldTest, SelfAssignmentChangesNothing)
{
    Field field("a name too long for any short text buffer", sql::type_time, sql::flag_unique);
    const Field& same = field;
    EXPECT_EQ(&(field = same), &field);
    EXPECT_EQ(field.dump(),
              "-1: name=a name too long for any short text buffer, type=time, flags: UNIQUE");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldTest, NameIsHandedOutAsACopy)
{
    const Field field("name", sql::type_text, sql::flag_none);
    field.getName().clear();
    EXPECT_EQ(field.getName(), "name");
}

struct TypeCase {
    int type;
    const char* sqlType;
    const char* dump;
};

void PrintTo(const TypeCase& c, std::ostream* out)
{
    *out << c.type;
}

class FieldTypeTest : public FieldTest, public testing::WithParamInterface<TypeCase> {
protected:
    FieldTypeTest() : _field("a", static_cast<sql::field_type>(GetParam().type), sql::flag_none)
    {
    }

    const Field _field;
};

class FieldKnownTypeTest : public FieldTypeTest {};

TEST_P(FieldKnownTypeTest, HasItsTypeInTableDefinitions)
{
    EXPECT_EQ(_field.getTypeStr(), GetParam().sqlType);
    EXPECT_EQ(_field.getDefinition(), std::string("a ") + GetParam().sqlType);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(FieldKnownTypeTest, HasItsLowerCaseNameInDumps)
{
    EXPECT_EQ(_field.dump(), GetParam().dump);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Types, FieldKnownTypeTest,
                         testing::Values(TypeCase{0, "INTEGER", "-1: name=a, type=integer, flags:"},
                                         TypeCase{1, "TEXT", "-1: name=a, type=text, flags:"},
                                         TypeCase{2, "REAL", "-1: name=a, type=float, flags:"},
                                         TypeCase{3, "INTEGER", "-1: name=a, type=bool, flags:"},
                                         TypeCase{4, "INTEGER", "-1: name=a, type=time, flags:"}));

class FieldUnknownTypeTest : public FieldTypeTest {};

TEST_P(FieldUnknownTypeTest, HasNoTypeInTableDefinitionsAndIsReported)
{
    EXPECT_EQ(_field.getTypeStr(), GetParam().sqlType);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(sql_type_assertion));
    EXPECT_EQ(_diagnostics.failedAssertions()[0].path,
              "components/sql/sqlwrapper/src/SqlField.cpp");
}

TEST_P(FieldUnknownTypeTest, DefinitionIsTheNameAloneAndReported)
{
    EXPECT_EQ(_field.getDefinition(), "a");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(sql_type_assertion));
}

TEST_P(FieldUnknownTypeTest, DumpsAsUndefinedAndIsReported)
{
    EXPECT_EQ(_field.dump(), GetParam().dump);
    EXPECT_THAT(_diagnostics.events(), ElementsAre(type_name_assertion));
}

INSTANTIATE_TEST_SUITE_P(Types, FieldUnknownTypeTest,
                         testing::Values(TypeCase{sql::type_undefined, "",
                                                  "-1: name=a, type=undefined, flags:"},
                                         TypeCase{7, "", "-1: name=a, type=undefined, flags:"},
                                         TypeCase{-1, "", "-1: name=a, type=undefined, flags:"}));

struct FlagCase {
    int flags;
    bool isPrimaryKey;
    bool isNotNull;
    bool isUnique;
    const char* text;
};

void PrintTo(const FlagCase& c, std::ostream* out)
{
    *out << c.flags;
}

class FieldFlagTest : public FieldTest, public testing::WithParamInterface<FlagCase> {
protected:
    FieldFlagTest() : _field("id", sql::type_int, GetParam().flags)
    {
    }

    const Field _field;
};

TEST_P(FieldFlagTest, EachBitIsAConstraint)
{
    EXPECT_EQ(_field.isPrimaryKey(), GetParam().isPrimaryKey);
    EXPECT_EQ(_field.isNotNull(), GetParam().isNotNull);
    EXPECT_EQ(_field.isUnique(), GetParam().isUnique);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(FieldFlagTest, ConstraintsAreWrittenInAFixedOrderEachAfterABlank)
{
    EXPECT_EQ(_field.getFlags(), GetParam().text);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(FieldFlagTest, DefinitionEndsInTheConstraints)
{
    EXPECT_EQ(_field.getDefinition(), std::string("id INTEGER") + GetParam().text);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(FieldFlagTest, DumpEndsInTheConstraints)
{
    EXPECT_EQ(_field.dump(), std::string("-1: name=id, type=integer, flags:") + GetParam().text);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Flags, FieldFlagTest,
    testing::Values(FlagCase{0, false, false, false, ""},
                    FlagCase{1, false, true, false, " NOT NULL"},
                    FlagCase{2, true, false, false, " PRIMARY KEY"},
                    FlagCase{3, true, true, false, " PRIMARY KEY NOT NULL"},
                    FlagCase{4, false, false, true, " UNIQUE"},
                    FlagCase{5, false, true, true, " NOT NULL UNIQUE"},
                    FlagCase{6, true, false, true, " PRIMARY KEY UNIQUE"},
                    FlagCase{7, true, true, true, " PRIMARY KEY NOT NULL UNIQUE"},
                    FlagCase{8, false, false, false, ""}, FlagCase{~7, false, false, false, ""},
                    FlagCase{8 | 1, false, true, false, " NOT NULL"}));

struct DefinitionCase {
    const char* what;
    const char* name;
    int type;
    int flags;
    const char* definition;
    std::vector<std::string> events;
};

void PrintTo(const DefinitionCase& c, std::ostream* out)
{
    *out << c.what;
}

class FieldDefinitionTest : public FieldTest, public testing::WithParamInterface<DefinitionCase> {};

TEST_P(FieldDefinitionTest, IsTrimmedAtBothEndsOnly)
{
    const DefinitionCase& c = GetParam();
    const Field field(c.name, static_cast<sql::field_type>(c.type), c.flags);
    EXPECT_EQ(field.getDefinition(), c.definition);
    EXPECT_EQ(_diagnostics.events(), c.events);
}

INSTANTIATE_TEST_SUITE_P(
    Definitions, FieldDefinitionTest,
    testing::Values(
        DefinitionCase{"key", "id", 0, 2 | 1, "id INTEGER PRIMARY KEY NOT NULL", {}},
        DefinitionCase{"no flags", "name", 1, 0, "name TEXT", {}},
        DefinitionCase{"one flag", "price", 2, 1, "price REAL NOT NULL", {}},
        DefinitionCase{"blanks around the name", " id\t", 0, 0, "id\t INTEGER", {}},
        DefinitionCase{"blanks before the name", "\t\n id", 1, 4, "id TEXT UNIQUE", {}},
        DefinitionCase{"unknown type keeps two blanks",
                       "name",
                       7,
                       2,
                       "name  PRIMARY KEY",
                       {sql_type_assertion}},
        DefinitionCase{"unknown type at the end", "name \t", 7, 0, "name", {sql_type_assertion}},
        DefinitionCase{"blank name and unknown type", " ", 7, 0, "", {sql_type_assertion}},
        DefinitionCase{"flags alone", " ", 7, 1, "NOT NULL", {sql_type_assertion}},
        DefinitionCase{
            "ending field with flags", "", 1, 1, "TEXT NOT NULL", {empty_name_assertion}}));

TEST_F(FieldTest, DefinitionOfTheEndingFieldIsItsTypeAlone)
{
    EXPECT_EQ(Field().getDefinition(), "INTEGER");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(FieldTest, DumpShowsThePositionInASet)
{
    const Field columns[] = {
        Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
        Field("name", sql::type_text, sql::flag_none),
        Field(),
    };
    const sql::FieldSet fields(columns);
    EXPECT_EQ(fields.getByIndex(0)->dump(),
              "0: name=id, type=integer, flags: PRIMARY KEY NOT NULL");
    EXPECT_EQ(fields.getByIndex(1)->dump(), "1: name=name, type=text, flags:");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

} // namespace
