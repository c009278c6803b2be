// The helpers for texts, and a number from a query.

#include "SqlDatabase.h"

#include <cstdio>
#include <vector>

int main()
{
    sql::Database database;
    if (!database.open(":memory:", sql::Database::access_create, false, 0))
        return 1;
    //! [text]
    const sql::string name = sql::quoteStr("Captain's tea");
    const sql::string query = "select length('" + name + "')";
    std::printf("%s\n", query.c_str());
    // -> select length('Captain''s tea')
    std::printf("%d\n", sql::queryNumber(database.getHandle(), query));
    // -> 13

    std::vector<sql::string> items;
    sql::listToVector("tea; rum ;pie", items, ";");
    for (const sql::string& item : items)
        std::printf("%s\n", item.c_str());
    // -> tea
    // -> rum
    // -> pie
    //! [text]
}
