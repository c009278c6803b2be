#ifndef SQLWRAPPER_SQLDATABASE_H
#define SQLWRAPPER_SQLDATABASE_H

#include "SqlCommon.h"

#include <cstdint>

#pragma GCC visibility push(default)

namespace sql {

/// A connection to a database file. It owns the SQLite handle and closes it in the end.
///
/// @snippet database.cpp database
///
/// Tables and result sets borrow the handle: they end with close(), with the next open() and with
/// this object, whichever comes first. One thread at a time; other connections to the same file are
/// waited for as long as the busy timeout says.
class Database {
public:
    /// What a connection is opened for. The numbers are fixed.
    enum AccessMode : std::int32_t {
        access_read_only = 0,  ///< for reading; the file exists
        access_read_write = 1, ///< for reading and writing; the file exists
        access_create = 2      ///< for reading and writing; makes the file when it is missing
    };

    /// Not open.
    Database();

    /// @{
    /// Not copied: a connection has one owner.
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    /// @}

    /// Closes the connection, as close() does.
    ~Database();

    /// Opens a database file, after it has closed the connection held before, even if it fails
    /// then. Every statement waits up to `busyTimeoutMs` milliseconds for another connection's
    /// lock, so that an operation of several statements may wait as often; zero and negative
    /// numbers stand for no waiting. The flag has no effect.
    ///
    /// On this connection SQLite reads a double-quoted word that names no column as a text, which
    /// string keys need, in statements that read or write rows, also where it was built not to.
    ///
    /// False with an ERROR line when SQLite cannot open the file, "Failed to open the database
    /// a.db: rc=14=SQLITE_CANTOPEN: ...", or gives no connection, "Failed to open the database
    /// a.db: database handle returned by SQLite is 0", or does not take the timeout, "Failed to set
    /// the busy timeout: rc=21=SQLITE_MISUSE". After the latter the database is open nevertheless.
    /// SQLite reads the file with the first statement: a file that is no database opens, and that
    /// statement fails. An unknown `mode` reports the assertion "false", and SQLite refuses it. The
    /// file's name is traced at DEBUG1.
    bool open(const string& fileName, AccessMode mode, bool, int busyTimeoutMs);

    /// Closes the connection, if there is one. When SQLite refuses, because a statement, backup or
    /// blob of the caller's own is unfinished, the assertion "rc == SQLITE_OK" is reported and the
    /// connection is abandoned: it leaks.
    void close();

    /// Whether SQLite has opened the file and close() has not followed.
    bool isOpen() const;

    /// The SQLite connection that tables and result sets are built on; null when there is none. Of
    /// no use while isOpen() is false. Owned by this object: never close it.
    sqlite3* getHandle();

    /// @{
    /// Begin, commit or roll back a transaction for all that runs on this connection. False with
    /// the two ERROR lines of RecordSet::query() when SQLite refuses, as it does for a transaction
    /// within another or for the end of one that was not begun; nothing is retried or rolled back.
    /// False after the assertion "_db" when there is no connection.
    bool transactionBegin();
    bool transactionCommit();
    bool transactionRollback();
    /// @}

    /// The number an application keeps in the file to tell its schema's version: 0 in a new file.
    /// -1 when it cannot be read or is negative, with the lines of queryNumber(); without a
    /// connection after the assertion "db".
    int getUserVersion() const;

    /// Stores that number: 0 to 2147483647. False for a greater one, with the ERROR line "User
    /// version of a Quillmoor SQL database must be <= 2147483647", and when the statement fails,
    /// with the lines of runOneStepSqlStmt(); without a connection after the assertion "db".
    bool setUserVersion(unsigned int version);

private:
    sqlite3* _db;
    std::int32_t _rc;
};

} // namespace sql

#pragma GCC visibility pop

#endif
