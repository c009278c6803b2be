// Encryption at rest, where the library is built with an SQLite that encrypts.
//
//     encryption DATABASE <KEY

#include "SqlDatabase.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"

#include <sqlite3.h>

#include <cstdio>
#include <iostream>
#include <string>

namespace {

constexpr int busy_timeout_ms = 2000;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null),
    sql::Field(),
};

// An SQLite without encryption ignores pragmas that it does not know, the one for the key too, and
// would store everything in plain text: only this tells.
bool encrypts(sql::Database& database)
{
    sql::RecordSet version(database.getHandle());
    return version.query("pragma cipher_version") && version.count() > 0;
}

// Straight to SQLite: the library writes its statements to the system log, at some levels.
bool giveKey(sql::Database& database, const sql::string& key)
{
    const sql::string pragma = "pragma key = '" + sql::quoteStr(key) + "'";
    return sqlite3_exec(database.getHandle(), pragma.c_str(), nullptr, nullptr, nullptr)
           == SQLITE_OK;
}

int fail(const char* what)
{
    std::fprintf(stderr, "encryption: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    std::string key;
    if (argc != 2 || !std::getline(std::cin, key) || key.empty()) {
        std::fputs("usage: encryption DATABASE <KEY\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("cannot open the database");
    if (!encrypts(database))
        return fail("this SQLite does not encrypt");
    if (!giveKey(database, key))
        return fail("SQLite does not take the key");
    // Whether the key is the right one shows with the first read.
    if (database.getUserVersion() < 0)
        return fail("not with this key, or no database");

    sql::Table table(database.getHandle(), "patient", columns);
    sql::Record patient(*table.fields());
    patient.setString("name", "John Doe");
    if (!table.create() || !table.addRecord(patient))
        return fail("cannot write");
    std::printf("%d rows, encrypted\n", table.totalRecordCount());
    return 0;
}
