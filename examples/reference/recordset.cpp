// Any query, its rows as typed records.

#include "SqlDatabase.h"
#include "SqlRecordSet.h"

#include <cstdio>

namespace {

const sql::Field columns[] = {
    sql::Field("maker", sql::type_text, sql::flag_primary_key),
    sql::Field("products", sql::type_int, sql::flag_none),
    sql::Field(),
};

} // namespace

int main()
{
    sql::Database database;
    if (!database.open(":memory:", sql::Database::access_create, false, 0))
        return 1;
    if (!sql::RecordSet(database.getHandle())
             .query("create table tea (maker text, name text);"
                    "insert into tea values ('Crew', 'black');"
                    "insert into tea values ('Crew', 'green');"
                    "insert into tea values ('Cook', 'mint')"))
        return 1;
    //! [recordset]
    // Filled by position, whatever the names in the statement.
    sql::RecordSet counts(database.getHandle(), columns);
    if (!counts.query("select maker, count(*) from tea group by maker"))
        return 1;
    for (int i = 0; i < counts.count(); ++i)
        std::printf("%s\n", counts.getRecord(i)->toString().c_str());
    // -> Cook|1
    // -> Crew|2
    //! [recordset]
}
