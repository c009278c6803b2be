// A schema that grows from release to release: the user version tells which steps a file still
// needs.
//
//     upgrade DATABASE

#include "SqlDatabase.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"

#include <cstdio>

namespace {

constexpr int busy_timeout_ms = 2000;

// The step at position n takes a file from version n to version n + 1. Steps that were released are
// never changed: a new release appends its own. A new column comes last, as in the declaration
// below, since rows are matched to columns by position.
const char* const steps[] = {
    "create table product (id integer primary key, name text not null)",
    "alter table product add column cents integer not null default 0",
    "create index product_by_name on product (name)",
};
constexpr int latest_version = sizeof steps / sizeof *steps;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null),
    sql::Field("cents", sql::type_int, sql::flag_not_null),
    sql::Field(),
};

bool isUpgradable(int version)
{
    return version >= 0 && version < latest_version;
}

bool runSteps(sql::Database& database, int version)
{
    for (; version < latest_version; ++version)
        if (!sql::runOneStepSqlStmt(database.getHandle(), steps[version]))
            return false;
    return database.setUserVersion(latest_version);
}

// All steps that the file lacks or none: after a power failure it is the old one or the new one.
bool upgrade(sql::Database& database, int& version)
{
    // Unlike transactionBegin() this waits for a program that writes, and keeps all others from it.
    if (!sql::RecordSet(database.getHandle()).query("begin immediate"))
        return false;
    version = database.getUserVersion(); // again: another program may have been faster
    const bool isDone = !isUpgradable(version) || runSteps(database, version);
    if (isDone && database.transactionCommit())
        return true;
    database.transactionRollback(); // nothing to do when SQLite has done so itself
    return false;
}

int fail(const char* what, const char* file)
{
    std::fprintf(stderr, "upgrade: %s: %s\n", file, what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: upgrade DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("cannot be opened", argv[1]);
    int version = database.getUserVersion();
    if (isUpgradable(version) && !upgrade(database, version))
        return fail("cannot be upgraded", argv[1]);
    if (version < 0)
        return fail("cannot be read", argv[1]);
    if (version > latest_version)
        return fail("made by a newer release", argv[1]);
    std::printf("version %d, was %d\n", database.getUserVersion(), version);

    sql::Table products(database.getHandle(), "product", columns);
    if (!products.open("", "id"))
        return fail("cannot be read", argv[1]);
    for (int i = 0; i < products.recordCount(); ++i)
        std::printf("%s\n", products.getRecord(i)->dump(false).c_str());
    return 0;
}
