#include "SqlField.h"

#include "Cases.h"
#include "Diagnostics.h"
#include "ReportTest.h"
#include "Reports.h"

#include <gmock/gmock.h>

#include <string>
#include <type_traits>

namespace {

namespace report = test::report;

using sql::Field;
using test::Texts;
using testing::ValuesIn;

static_assert(!std::is_polymorphic<Field>::value, "a plain value");

static_assert(sql::flag_none == 0, "declarations may use the number");
static_assert(sql::flag_not_null == 1, "declarations may use the number");
static_assert(sql::flag_primary_key == 2, "declarations may use the number");
static_assert(sql::flag_unique == 4, "declarations may use the number");

const std::string no_type_name = report::asserted("sql::string sql::type2Str(sql::field_type)");
const std::string no_sql_type = report::asserted("sql::string sql::Field::getTypeStr() const");
const std::string empty_name = report::asserted(
    "sql::Field::Field(const string&, sql::field_type, int)", "name.empty() == false");

// Fields log nothing, however high the level.
class FieldTest : public test::ReportTest {
protected:
    FieldTest()
    {
        _diagnostics.setLevel(9);
    }
};

TEST_F(FieldTest, DefaultIsTheEndingField)
{
    const Field field;
    EXPECT_TRUE(field.isEndingField());
    EXPECT_EQ(field.getName(), "");
    EXPECT_EQ(field.getType(), sql::type_int);
    EXPECT_EQ(field.getIndex(), -1);
    EXPECT_EQ(field.getFlags(), "");
    EXPECT_EQ(field.getDefinition(), "INTEGER");
    EXPECT_EQ(field.dump(), "-1: name=, type=integer, flags:");
}

TEST_F(FieldTest, ColumnHasItsNameTypeAndFlagsAndNoPosition)
{
    const Field field("a", sql::type_text, sql::flag_none);
    EXPECT_FALSE(field.isEndingField());
    EXPECT_EQ(field.getName(), "a");
    EXPECT_EQ(field.getType(), sql::type_text);
    EXPECT_EQ(field.getIndex(), -1);
    EXPECT_EQ(field.getFlags(), "");
}

TEST_F(FieldTest, EmptyNameIsReportedAtEveryLevelAndMakesAnEndingField)
{
    for (const int level : test::trace_levels) {
        _diagnostics.clear();
        _diagnostics.setLevel(level);
        const Field field("", sql::type_text, sql::flag_primary_key);
        EXPECT_TRUE(field.isEndingField());
        EXPECT_EQ(field.dump(), "-1: name=, type=text, flags: PRIMARY KEY");
        expectReport({empty_name});
    }
}

TEST_F(FieldTest, NeitherTypeNorFlagsAreChecked)
{
    const Field field("odd", static_cast<sql::field_type>(-1), ~0);
    EXPECT_EQ(field.getType(), static_cast<sql::field_type>(-1));
    EXPECT_EQ(field.getFlags(), " PRIMARY KEY NOT NULL UNIQUE");
}

TEST_F(FieldTest, NameOfABlankIsNoEndingField)
{
    EXPECT_FALSE(Field(" ", sql::type_int, sql::flag_none).isEndingField());
}

TEST_F(FieldTest, NameIsHandedOutAsACopy)
{
    const Field field("name", sql::type_text, sql::flag_none);
    field.getName().clear();
    EXPECT_EQ(field.getName(), "name");
}

// --- Types

struct Type {
    int type;
    const char* sqlType;
    const char* name;
    Texts sqlEvents;
    Texts nameEvents;
};

const Type types[] = {
    {0, "INTEGER", "integer", {}, {}},
    {1, "TEXT", "text", {}, {}},
    {2, "REAL", "float", {}, {}},
    {3, "INTEGER", "bool", {}, {}},
    {4, "INTEGER", "time", {}, {}},
    {sql::type_undefined, "", "undefined", {no_sql_type}, {no_type_name}},
    {7, "", "undefined", {no_sql_type}, {no_type_name}},
    {-1, "", "undefined", {no_sql_type}, {no_type_name}},
};

TEST_F(FieldTest, TypeHasItsNamesInDefinitionsAndDumpsOrIsReported)
{
    for (const Type& type : types) {
        const Field field("a", static_cast<sql::field_type>(type.type), sql::flag_none);
        EXPECT_EQ(field.getTypeStr(), type.sqlType);
        expectReport(type.sqlEvents);
        EXPECT_EQ(field.dump(), std::string("-1: name=a, type=") + type.name + ", flags:");
        expectReport(type.nameEvents);
    }
}

// --- Flags

struct Flags {
    int flags;
    bool isPrimaryKey;
    bool isNotNull;
    bool isUnique;
    const char* text;
};

const Flags all_flags[] = {
    {0, false, false, false, ""},
    {1, false, true, false, " NOT NULL"},
    {2, true, false, false, " PRIMARY KEY"},
    {3, true, true, false, " PRIMARY KEY NOT NULL"},
    {4, false, false, true, " UNIQUE"},
    {5, false, true, true, " NOT NULL UNIQUE"},
    {6, true, false, true, " PRIMARY KEY UNIQUE"},
    {7, true, true, true, " PRIMARY KEY NOT NULL UNIQUE"},
    {8, false, false, false, ""},
    {~7, false, false, false, ""},
    {8 | 1, false, true, false, " NOT NULL"},
};

TEST_F(FieldTest, EachFlagIsAConstraintWrittenInAFixedOrderAfterABlank)
{
    for (const Flags& flags : all_flags) {
        const Field field("id", sql::type_int, flags.flags);
        SCOPED_TRACE(flags.flags);
        EXPECT_EQ(field.isPrimaryKey(), flags.isPrimaryKey);
        EXPECT_EQ(field.isNotNull(), flags.isNotNull);
        EXPECT_EQ(field.isUnique(), flags.isUnique);
        EXPECT_EQ(field.getFlags(), flags.text);
        EXPECT_EQ(field.getDefinition(), std::string("id INTEGER") + flags.text);
        EXPECT_EQ(field.dump(), std::string("-1: name=id, type=integer, flags:") + flags.text);
    }
}

// --- Definitions

struct Definition : test::Case {
    const char* column;
    int type;
    int flags;
    const char* definition;
    Texts events;
};

class FieldDefinitionTest : public FieldTest, public testing::WithParamInterface<Definition> {};

TEST_P(FieldDefinitionTest, IsTrimmedAtBothEndsOnly)
{
    const Definition& c = GetParam();
    const Field field(c.column, static_cast<sql::field_type>(c.type), c.flags);
    EXPECT_EQ(field.getDefinition(), c.definition);
    expectReport(c.events);
}

const Definition definitions[] = {
    {"Key", "id", 0, 2 | 1, "id INTEGER PRIMARY KEY NOT NULL", {}},
    {"NoFlags", "name", 1, 0, "name TEXT", {}},
    {"OneFlag", "price", 2, 1, "price REAL NOT NULL", {}},
    {"BlanksAroundTheName", " id\t", 0, 0, "id\t INTEGER", {}},
    {"BlanksBeforeTheName", "\t\n id", 1, 4, "id TEXT UNIQUE", {}},
    {"UnknownTypeKeepsTwoBlanks", "name", 7, 2, "name  PRIMARY KEY", {no_sql_type}},
    {"UnknownTypeAtTheEnd", "name \t", 7, 0, "name", {no_sql_type}},
    {"BlankNameAndUnknownType", " ", 7, 0, "", {no_sql_type}},
    {"FlagsAlone", " ", 7, 1, "NOT NULL", {no_sql_type}},
    {"EndingFieldWithFlags", "", 1, 1, "TEXT NOT NULL", {empty_name}},
};

INSTANTIATE_TEST_SUITE_P(All, FieldDefinitionTest, ValuesIn(definitions), test::NameOfCase());

} // namespace
