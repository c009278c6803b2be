// A program of somebody else, who has the installed library alone. It uses every class.
#include "SqlDatabase.h"
#include "SqlTable.h"
#ifdef STAND_INS
#include "TraceLevel.h"
#endif

#include <cstdio>

static const sql::Field columns[] = {sql::Field("id", sql::type_int, sql::flag_primary_key),
                                     sql::Field("name", sql::type_text, sql::flag_not_null),
                                     sql::Field("since", sql::type_time, sql::flag_none),
                                     sql::Field()};

int main()
{
#ifdef STAND_INS
    trace::setLevel(trace::trace_errors);
#endif
    sql::Database database;
    if (!database.open(":memory:", sql::Database::access_create, false, 0))
        return 1;

    const sql::FieldSet fields(columns);
    sql::Table table(database.getHandle(), "product", fields);
    sql::Record record(fields);
    record.setString("name", "Captain's tea");
    record.setTime("since", sql::Time(86400));
    if (!table.create() || !table.addRecord(record))
        return 1;

    sql::RecordSet rows(database.getHandle(), fields);
    if (!rows.query("select * from product"))
        return 1;
    const sql::Value* const since = rows.getRecord(0)->getValue("since");
    std::printf("%s, %lld\n", rows.getRecord(0)->getValue(1)->asString().c_str(),
                since->asInteger());
    return 0;
}
