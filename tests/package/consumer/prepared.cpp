// A program of somebody else, who has the installed libraries alone. It uses every header of
// sqlprepared, and what sqlwrapper has made.
#include "SqlLiteral.h"
#include "SqlStatement.h"
#include "SqlStopFlag.h"
#include "SqlTable.h"
#include "SqlTransaction.h"

#include <cstdio>

static const sql::Field columns[] = {sql::Field("name", sql::type_text, sql::flag_primary_key),
                                     sql::Field("price", sql::type_float, sql::flag_none),
                                     sql::Field("since", sql::type_time, sql::flag_none),
                                     sql::Field()};

int main()
{
    sql::Database database;
    if (!database.open(":memory:", sql::Database::access_create, false, 0))
        return 1;
    sql::Table table(database.getHandle(), "product", sql::FieldSet(columns));
    if (!table.create())
        return 1;

    sql::Statement add(database, "insert into product values (?, ?, ?)");
    const sql::Result<bool> added = sql::inTransaction(database, [&] {
        sql::Savepoint savepoint(database);
        return add.run("tea", 3.5, sql::Time(86400)) && savepoint.commit();
    });
    if (!added || add.run("tea", 4, nullptr))
        return 1;

    sql::Statement find(database, "select price, since from product where name like ? escape '\\'");
    const auto row = find.one<double, sql::Time>(sql::escapeLike("tea"));
    if (!row)
        return 1;
    sql::StopFlag stop(database);
    stop.set();
    if (find.run() || !find.error().isStopped())
        return 1;
    const auto& [price, since] = *row;
    std::printf("%s: %.1f, %s, %s\n", sql::quoteIdentifier("tea").c_str(), price,
                sql::toIso8601(since).c_str(), add.error().name());
    return 0;
}
