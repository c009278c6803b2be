// A cell: stored in one form, read in another, written into a statement.

#include "SqlValue.h"

#include <cstdio>

int main()
{
    //! [value]
    sql::Value price(sql::type_float);
    std::printf("%s\n", price.toString().c_str()); // -> null
    price.setDouble(2.5);
    const sql::string text = price.asString();
    std::printf("%s, about %lld\n", text.c_str(), price.asInteger());
    // -> 2.50000000, about 2

    sql::Value name(sql::type_text);
    name.setString("Captain's tea");
    std::printf("%s\n", name.toSql(sql::type_text).c_str());
    // -> 'Captain''s tea'
    //! [value]
}
