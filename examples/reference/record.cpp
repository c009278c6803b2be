// A row: filled by column name, read by position, written as a statement.

#include "SqlRecord.h"

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
    //! [record]
    const sql::FieldSet fields(columns); // lives longer than the record
    sql::Record tea(fields);
    tea.setInteger("id", 7);
    tea.setString("name", "tea");
    if (const sql::Value* const name = tea.getValue("name"))
        std::printf("%s\n", name->asString().c_str());
    // -> tea
    std::printf("%s\n", tea.toSqlInsert("product").c_str());
    // -> insert into product (id, name) values (7, 'tea')
    //! [record]
}
