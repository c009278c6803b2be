// A schema that grows from release to release: the user version tells which steps a file still
// needs.
//
//     upgrade DATABASE

#include "SqlDatabase.h"
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

// Runs the steps that the file lacks; within the caller's transaction, as the version belongs to
// it.
bool runSteps(sql::Database& database, int& oldVersion)
{
    oldVersion = database.getUserVersion();
    if (oldVersion < 0 || oldVersion > latest_version)
        return false;
    for (int version = oldVersion; version < latest_version; ++version)
        if (!sql::runOneStepSqlStmt(database.getHandle(), steps[version]))
            return false;
    return oldVersion == latest_version || database.setUserVersion(latest_version);
}

// All steps or none: after a power failure the file is the old one or the new one.
bool upgrade(sql::Database& database, int& oldVersion)
{
    if (!database.transactionBegin())
        return false;
    if (runSteps(database, oldVersion) && database.transactionCommit())
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
    int oldVersion = -1;
    if (!upgrade(database, oldVersion)) {
        const bool isNewer = oldVersion > latest_version;
        return fail(isNewer ? "made by a newer release" : "cannot be upgraded", argv[1]);
    }
    std::printf("version %d, was %d\n", database.getUserVersion(), oldVersion);

    sql::Table products(database.getHandle(), "product", columns);
    if (!products.open("", "id"))
        return fail("cannot be read", argv[1]);
    for (int i = 0; i < products.recordCount(); ++i)
        std::printf("%s\n", products.getRecord(i)->dump(false).c_str());
    return 0;
}
