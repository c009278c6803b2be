// A schema that grows from release to release, by steps of SQL and of C++: a file of any earlier
// release becomes one of this release.
//
//     migrate DATABASE

#include "SqlMigration.h"
#include "SqlStatement.h"

#include <cstdio>

namespace {

constexpr int busy_timeout_ms = 1000;
constexpr std::chrono::seconds patience(30);

// Release 2 had dates as users write them, "31.12.2009". What SQL cannot do, a function does: it runs
// in the transaction, as the statements of the other steps.
bool rewriteDates(sql::Database& database)
{
    sql::Statement dates(database, "select id, day from visit where day is not null");
    sql::Statement update(database, "update visit set day = ? where id = ?");
    sql::integer id = 0;
    sql::string day;
    while (dates.next(id, day)) {
        if (day.size() == 10
            && !update.run(day.substr(6) + "-" + day.substr(3, 2) + "-" + day.substr(0, 2), id))
            return false;
    }
    return dates.finished();
}

// Steps that were released are never changed: a new release appends its own. That of version 3 makes
// a table anew that another refers to, as SQLite needs it to change a column.
const sql::MigrationStep steps[] = {
    {1, "create table customer (id integer primary key, name text);"
        "create table visit (id integer primary key, customer references customer, day text)"},
    {2, rewriteDates},
    {3, "create table named (id integer primary key, name text not null);"
        "insert into named select id, coalesce(name, '') from customer;"
        "drop table customer;"
        "alter table named rename to customer"},
};

int fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "migrate: cannot %s: %s\n", what, error.text().c_str());
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: migrate DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("open the database", sql::lastError(database));
    const sql::Result<int> version = sql::migrate(database, steps, patience);
    if (!version)
        return fail("upgrade the file", version.error());
    std::printf("version %d\n", *version);
    return 0;
}
