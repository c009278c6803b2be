// A user's program: uses the library and its stand-ins as they are installed.

#include "SqlDatabase.h"
#include "SqlTable.h"
#include "TraceLevel.h"

#include <cstdio>

static const sql::Field columns[] = {sql::Field("id", sql::type_int, sql::flag_primary_key),
                                     sql::Field("name", sql::type_text, sql::flag_not_null),
                                     sql::Field("price", sql::type_float, sql::flag_none),
                                     sql::Field()};

int main()
{
    trace::setLevel(trace::trace_errors);
    sql::Database database;
    if (!database.open(":memory:", sql::Database::access_create, false, 1000))
        return 1;
    sql::Table products(database.getHandle(), "product", columns);
    sql::Record tea(*products.fields());
    tea.setString("name", "Captain's tea");
    tea.setDouble("price", 2.5);
    if (!products.create() || !products.addRecord(tea) || !products.open())
        return 1;
    std::printf("%s\n", products.getRecord(0)->toString().c_str());
}
