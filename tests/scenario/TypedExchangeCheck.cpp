// Reads the rows of a file into structs and adds them to another one: see typed_exchange_test.py.

#include "SqlDatabase.h"
#include "SqlTypedTable.h"

#include "TypedItem.h"

#include <iostream>
#include <vector>

namespace {

int report(const sql::Error& error)
{
    std::cout << error.text() << '\n';
    return 1;
}

int exchange(const char* from, const char* to)
{
    sql::Database source;
    sql::Database target;
    if (!source.open(from, sql::Database::access_read_only, false, 0)
        || !target.open(to, sql::Database::access_create, false, 0))
        return 2;
    sql::TypedTable read(source, test::item_with_given_key);
    sql::TypedTable written(target, test::item_with_given_key);
    std::vector<test::Item> items;
    if (!read.load(items, "order by id"))
        return report(read.error());
    if (!written.create() || !written.add(items.begin(), items.end()))
        return report(written.error());
    std::cout << items.size() << " items\n";
    return 0;
}

} // namespace

int main(int, char** arguments)
{
    return exchange(arguments[1], arguments[2]);
}
