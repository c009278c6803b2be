// A table: made, filled, read by condition and by key.

#include "SqlDatabase.h"
#include "SqlTable.h"

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
    sql::Database database;
    if (!database.open(":memory:", sql::Database::access_create, false, 0))
        return 1;
    const sql::string wanted = "Captain's tea";
    //! [table]
    sql::Table products(database.getHandle(), "product", columns);
    sql::Record added(*products.fields()); // SQLite chooses its key
    added.setString("name", "Captain's tea");
    if (!products.create() || !products.addRecord(added))
        return 1;

    if (!products.open("name = '" + sql::quoteStr(wanted) + "'"))
        return 1;
    for (int i = 0; i < products.recordCount(); ++i)
        std::printf("%s\n", products.getRecord(i)->toString().c_str());
    // -> 1|Captain's tea

    sql::Record* const first = products.getTopRecord();
    if (first != nullptr) { // lives until the next read
        first->setString("name", "Cook's tea");
        const bool renamed = products.updateRecord(*first);
        std::printf("%s\n", renamed ? "renamed" : "failed");
        // -> renamed
    }
    //! [table]
}
