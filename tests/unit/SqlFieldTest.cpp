#include "SqlField.h"

#include "Columns.h"
#include "Diagnostics.h"

#include <gmock/gmock.h>

namespace {

using sql::Field;
using testing::ElementsAre;
using testing::IsEmpty;

class FieldTest : public testing::Test {
protected:
    test::Diagnostics _diagnostics;
};

TEST_F(FieldTest, EmptyNameIsReportedAndMakesAnEndingField)
{
    const Field field("", sql::type_text, sql::flag_primary_key);
    EXPECT_TRUE(field.isEndingField());
    EXPECT_EQ(field.getType(), sql::type_text);
    EXPECT_TRUE(field.isPrimaryKey());
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'name.empty() == false' in SqlField.cpp (sql::Field::Field(const string&, sql::field_type, int))"));
    EXPECT_EQ(_diagnostics.failedAssertions()[0].path,
              "components/sql/sqlwrapper/src/SqlField.cpp");
}

} // namespace
