#ifndef SQLWRAPPER_SQLDATABASE_H
#define SQLWRAPPER_SQLDATABASE_H

#include "SqlCommon.h"

#include <cstdint>

#pragma GCC visibility push(default)

namespace sql {

/// A connection to a database file.
///
///     sql::Database database;
///     if (!database.open("products.db", sql::Database::access_create,
///                        false, 2000))
///         return 1;
///     if (database.getUserVersion() == 0 && !database.setUserVersion(1))
///         return 1;
///     sql::Table products(database.getHandle(), "product", columns);
///
/// Owns the connection; tables and result sets borrow it. Do not use them after close(), another
/// open(), or the end of this object. One thread at a time.
class Database {
public:
    /// What a connection is opened for. The numbers are fixed.
    enum AccessMode : std::int32_t {
        access_read_only = 0,  ///< for reading; the file exists
        access_read_write = 1, ///< for reading and writing; the file exists
        access_create = 2      ///< for reading and writing; makes a missing file
    };

    Database();                                    ///< Holds no connection.
    Database(const Database&) = delete;            ///< A connection has one owner.
    Database& operator=(const Database&) = delete; ///< A connection has one owner.
    ~Database();                                   ///< Closes the connection, as close() does.

    /// Closes any open connection, then opens `fileName`. If that fails, the old connection stays
    /// closed. Each statement waits up to `busyTimeoutMs` milliseconds for other connections'
    /// locks, for 0 and less not at all; the unnamed flag has no effect. Returns false, and reports
    /// why, if SQLite refuses the file, the mode or the timeout; after a refused timeout the
    /// database is open all the same.
    bool open(const string& fileName, AccessMode mode, bool, int busyTimeoutMs);

    /// Closes the connection, if there is one. If a statement of the caller's own is unfinished,
    /// reports that and leaks the connection.
    void close();

    /// Returns whether SQLite has opened the file and close() has not followed.
    bool isOpen() const;

    /// Returns the connection that tables and result sets are built on; null if there is none. This
    /// object owns it: never close it.
    sqlite3* getHandle();

    /// Begins a transaction for all that runs on this connection. Returns false, and reports why,
    /// if SQLite refuses, as the two below do; nothing is retried or rolled back then.
    bool transactionBegin();
    bool transactionCommit();   ///< Commits the transaction.
    bool transactionRollback(); ///< Rolls the transaction back.

    /// Returns the number that an application keeps in the file as its schema's version, 0 in a new
    /// file. Returns -1, and reports why, if it cannot be read or is negative.
    int getUserVersion() const;

    /// Stores that number, 0 to 2147483647. Returns false, and reports why, for a greater one and
    /// if SQLite refuses.
    bool setUserVersion(unsigned int version);

private:
    sqlite3* _db;
    std::int32_t _rc;
};

} // namespace sql

#pragma GCC visibility pop

#endif
