// Opening a database, its version, and a transaction.

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <cstdio>

namespace {

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_none),
    sql::Field(),
};

bool fill(sql::Database& database)
{
    sql::Table table(database.getHandle(), "product", columns);
    sql::Record tea(*table.fields());
    tea.setString("name", "Captain's tea");
    return table.create() && table.addRecord(tea);
}

} // namespace

int main()
{
    const sql::string file = ":memory:";
    //! [database]
    sql::Database database;
    // Waits up to two seconds for another connection's lock.
    if (!database.open(file, sql::Database::access_create, false, 2000))
        return 1;
    if (database.getUserVersion() == 0) { // a new file
        if (!database.transactionBegin())
            return 1;
        const bool filled = fill(database) && database.setUserVersion(1);
        if (!filled || !database.transactionCommit()) {
            database.transactionRollback();
            return 1;
        }
    }
    std::printf("version %d\n", database.getUserVersion());
    // -> version 1
    //! [database]
}
