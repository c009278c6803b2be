#ifndef SQLPREPARED_SQLSETTINGS_H
#define SQLPREPARED_SQLSETTINGS_H

#include "SqlResult.h"

#include <chrono>

#pragma GCC visibility push(default)

namespace sql {

/// How SQLite keeps a file whole while it changes it.
enum JournalMode : std::int32_t {
    journal_delete = 0,   ///< a journal beside the file, removed at each commit
    journal_truncate = 1, ///< likewise, but cut to nothing
    journal_persist = 2,  ///< likewise, but overwritten
    journal_memory = 3, ///< a journal in memory: a program that ends amid a commit damages the file
    journal_wal = 4,    ///< a write-ahead log, beside which others read; kept by the file
    journal_off = 5     ///< none: what fails or is rolled back damages the file
};

/// When SQLite waits for the disk.
enum SynchronousMode : std::int32_t {
    synchronous_off = 0,    ///< never: a power cut may damage the file
    synchronous_normal = 1, ///< with a write-ahead log: a power cut may cost the last commits
    synchronous_full = 2,   ///< at each commit
    synchronous_extra = 3   ///< likewise, and when a journal is removed
};

/// Where temporary tables and large sorts are.
enum TempStore : std::int32_t {
    temp_store_default = 0, ///< as SQLite was built
    temp_store_file = 1,    ///< in a file in the folder for such
    temp_store_memory = 2   ///< in memory
};

/// Settings of a connection and its file. A member without a value leaves its setting alone.
///
///     sql::Settings settings;
///     settings.busyTimeout = std::chrono::seconds(2);
///     settings.journalMode = sql::journal_wal;
///     settings.synchronous = sql::synchronous_full;
///     const sql::Result<bool> applied = settings.apply(database);
///     if (!applied)
///         std::puts(applied.error().text().c_str());
///
/// A plain value. The page size and journal_wal stay with the file, all others end with the
/// connection.
struct Settings {
    /// How long to wait for other connections; takes the place of open()'s, and of a busy handler.
    std::optional<std::chrono::milliseconds> busyTimeout;
    std::optional<bool> foreignKeys;    ///< Whether foreign keys are enforced.
    std::optional<int> cacheSize;       ///< Of pages in memory; below 0 that of kibibytes.
    std::optional<integer> mmapSize;    ///< How many bytes of the file are mapped into memory.
    std::optional<TempStore> tempStore; ///< A change removes the temporary tables that there are.
    std::optional<int> pageSize; ///< In bytes, a power of two from 512; for a file yet empty.
    std::optional<JournalMode> journalMode;     ///< How the file is kept whole.
    std::optional<SynchronousMode> synchronous; ///< Left alone if the journal mode is not taken.

    /// Sets them one after the other, in the order of the members, and reads each back. Returns
    /// true, or why the first was not set that SQLite did not take, where its text says which that
    /// is, and what it stays; those behind it are left alone then. Fails in a transaction before it
    /// sets anything.
    Result<bool> apply(Database& database) const;
};

/// How much of a file is looked at.
enum IntegrityCheck : std::int32_t {
    check_none = 0,  ///< nothing
    check_quick = 1, ///< all pages and rows
    check_full = 2   ///< also whether each index has what its table has
};

/// Reads the whole file and returns what is wrong with it, in SQLite's words and at most a hundred
/// lines; none if it is sound. Damage in the way of reading is a failure, isCorrupt() or not, as is
/// whatever else keeps it from reading. Does not look at foreign keys.
Result<std::vector<string>> checkIntegrity(Database& database, IntegrityCheck check);

/// How far a checkpoint goes, and for whom it waits as long as the busy timeout says.
enum CheckpointMode : std::int32_t {
    checkpoint_passive = 0, ///< as far as it comes, waits for nobody
    checkpoint_full = 1,    ///< all, waits for writers, and for readers of what is older
    checkpoint_restart = 2, ///< likewise, and for all readers: the next write begins the log anew
    checkpoint_truncate = 3 ///< likewise, and cuts the log to nothing
};

/// Copies the write-ahead log into the file. Returns how many of its frames, of a page each, are
/// left to copy, and nothing if the file has no such log. Fails, isBusy(), if it may not go as far
/// as `mode` says: what could be copied is copied then.
Result<integer> checkpoint(Database& database, CheckpointMode mode);

/// Lets SQLite gather anew what it knows of tables that have changed much, for the sake of its
/// plans. For when a program closes a file, or every few hours. Returns true, or the reason of a
/// failure.
Result<bool> optimize(Database& database);

} // namespace sql

#pragma GCC visibility pop

#endif
