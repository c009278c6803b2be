#ifndef SQLPREPARED_SQLBACKUP_H
#define SQLPREPARED_SQLBACKUP_H

#include "SqlSettings.h"

#include <functional>

#pragma GCC visibility push(default)

namespace sql {

/// How a backup or a restore is done.
///
///     sql::BackupOptions options;
///     options.progress = [](sql::integer done, sql::integer total) {
///         std::printf("%lld of %lld pages\n", done, total);
///         return true; // false stops
///     };
///     if (sql::backupDatabase(database, "backup.db", options))
///         std::puts("backed up"); // backed up
struct BackupOptions {
    IntegrityCheck check = check_quick; ///< How the copy is checked before it takes its place.

    /// Is told after every few pages how many are copied, of how many. Returns false to stop. Onto
    /// an existing file all pages are copied twice, and told once more from the beginning. It does
    /// not throw, and leaves the database alone.
    std::function<bool(integer done, integer total)> progress{};

    /// How long other connections' locks are waited for, at each place.
    std::chrono::milliseconds patience{0};
};

/// Copies the database, as of one moment, into the file, while others read it; they write meanwhile,
/// too, where it has a write-ahead log, and wait otherwise. Returns the number of pages, or the
/// reason of a failure, after which the file is what it was. A new file is one in whole, synced, with
/// `journal_mode=delete`; one that exists is overwritten in one transaction, which its readers
/// outlive. The copy is made in a file beside it whose name ends with `-unfinished`: there is room
/// for both. What a transaction of the database itself has not committed is not copied. A StopFlag of
/// the database stops it.
Result<integer> backupDatabase(Database& database, const string& file,
                               const BackupOptions& options = BackupOptions());

/// Overwrites the database by the file, in one transaction of the database's connection, which other
/// connections outlive; statements go on with the new tables. The file is checked before, and is not
/// changed. Returns the number of pages, or the reason of a failure, after which the database is what
/// it was. Outside of transactions only.
Result<integer> restoreDatabase(Database& database, const string& file,
                                const BackupOptions& options = BackupOptions());

} // namespace sql

#pragma GCC visibility pop

#endif
