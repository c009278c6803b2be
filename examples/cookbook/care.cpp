// Care for a file on flash memory: settings that are known to hold, a look for damage, and what is to
// be done before the end.
//
//     care DATABASE

#include "SqlSettings.h"
#include "SqlStatement.h"

#include <cstdio>

namespace {

bool fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "care: cannot %s: %s\n", what, error.text().c_str());
    return false;
}

// A commit writes and waits for the disk once, and no power cut takes it back. Whoever can do
// without the latest commits takes synchronous_normal, which waits only now and then.
bool applySettings(sql::Database& database)
{
    sql::Settings settings;
    settings.busyTimeout = std::chrono::seconds(2);
    settings.foreignKeys = true;
    settings.cacheSize = -512; // half a mebibyte
    settings.tempStore = sql::temp_store_memory;
    settings.journalMode = sql::journal_wal;
    settings.synchronous = sql::synchronous_full;
    const sql::Result<bool> applied = settings.apply(database);
    return applied || fail("apply the settings", applied.error());
}

bool isSound(sql::Database& database)
{
    const auto complaints = sql::checkIntegrity(database, sql::check_quick);
    if (!complaints)
        return fail("check the database", complaints.error());
    for (const sql::string& complaint : *complaints)
        std::fprintf(stderr, "care: %s\n", complaint.c_str());
    return complaints->empty();
}

bool countStarts(sql::Database& database)
{
    const sql::Result<int> made = sql::runScript(
        database, "create table if not exists start (id integer primary key);"
                  "insert into start default values");
    if (!made)
        return fail("count this start", made.error());
    const auto starts = sql::Statement(database, "select count(*) from start").one<int>();
    if (starts)
        std::printf("start %d\n", *starts);
    return starts || fail("read the starts", starts.error());
}

// A log that others still read stays as it is: it is copied another time.
bool tidy(sql::Database& database)
{
    const sql::Result<bool> optimized = sql::optimize(database);
    if (!optimized)
        return fail("optimize the database", optimized.error());
    const sql::Result<sql::integer> left = sql::checkpoint(database, sql::checkpoint_truncate);
    if (left.error().isBusy())
        std::printf("%s\n", left.error().text().c_str());
    return !left.failed() || left.error().isBusy() || fail("copy the log", left.error());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: care DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, 0)) {
        fail("open the database", sql::lastError(database));
        return 1;
    }
    return applySettings(database) && isSound(database) && countStarts(database) && tidy(database)
               ? 0
               : 1;
}
