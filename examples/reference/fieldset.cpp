// The columns of a table as a set.

#include "SqlFieldSet.h"

#include <cstdio>

namespace {

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_none),
    sql::Field(),
};

} // namespace

int main()
{
    //! [fieldset]
    const sql::FieldSet fields(columns);
    const sql::string key = fields.getKeyIdName();
    std::printf("%d columns, key %s\n", fields.count(), key.c_str());
    // -> 2 columns, key id
    if (const sql::Field* const name = fields.getByName("name"))
        std::printf("%s\n", name->dump().c_str());
    // -> 1: name=name, type=text, flags:
    //! [fieldset]
}
