// The columns of a table, as an application declares them.

#include "SqlField.h"

#include <cstdio>

static const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null),
    sql::Field(),
};

int main()
{
    for (const sql::Field* field = columns; !field->isEndingField(); ++field)
        std::printf("%s\n", field->getDefinition().c_str());
    // -> id INTEGER PRIMARY KEY
    // -> name TEXT NOT NULL
}
