// A backup of a whole database that is in use, and the way back: makes DATABASE.bak, or puts it in
// place of what the database holds.
//
//     snapshot DATABASE [restore]

#include "SqlBackup.h"

#include <cstdio>
#include <string_view>

namespace {

constexpr int busy_timeout_ms = 1000;
constexpr std::chrono::seconds patience(30);

int fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "snapshot: cannot %s: %s\n", what, error.text().c_str());
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    const bool restores = argc == 3 && std::string_view(argv[2]) == "restore";
    if (argc != 2 && !restores) {
        std::fputs("usage: snapshot DATABASE [restore]\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("open the database", sql::lastError(database));

    // A backup that is damaged, or was made of a damaged database, would be of no use.
    sql::BackupOptions options;
    options.check = sql::check_full;
    options.patience = patience;
    const sql::string backup = sql::string(argv[1]) + ".bak";
    const auto pages = restores ? sql::restoreDatabase(database, backup, options)
                                : sql::backupDatabase(database, backup, options);
    if (!pages)
        return fail(restores ? "restore" : "back up", pages.error());
    std::printf("%lld pages %s\n", *pages, restores ? "restored" : "backed up");
    return 0;
}
