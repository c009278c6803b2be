#ifndef SQLSYNC_SQLINBOX_H
#define SQLSYNC_SQLINBOX_H

#include "SqlEnvelope.h"

#include <chrono>

#pragma GCC visibility push(default)

namespace sql {

/// What has become of a change set. In each case the device may forget it.
enum class Received {
    applied,  ///< its changes are in the tables
    repeated, ///< it had come before: nothing has changed
    kept      ///< it conflicts, or waits behind one that does: it is stored for retry()
};

/// Applies the change sets of devices to tables of a file: each once and in order, or not at all.
///
///     sql::Inbox inbox(centre, {"product"});
///     const sql::Result<sql::Received> received =
///         inbox.apply("device-17", header, bytes);
///     if (!received)
///         return 1; // not to be acknowledged
///     if (*received == sql::Received::kept)
///         std::puts("conflict");
///
/// Writes the tables that it was made for and some of its own, whose names begin with "sqlsync_".
/// Triggers and foreign keys rest while it writes: what they do is part of the changes. Takes the
/// hooks and borrows the database, as a Transaction does; no transaction may be open. One thread at
/// a time.
class Inbox {
public:
    /// Opens an inbox for tables of the main file, which have a key that is never null and are not
    /// recorded in the same file. Makes its own tables there. Waits for other connections, here and
    /// in each operation, as a Transaction with this `patience`. If it fails, every operation does,
    /// without another report.
    Inbox(Database& database, const std::vector<string>& tables,
          std::chrono::milliseconds patience = std::chrono::milliseconds(0));
    Inbox(const Inbox&) = delete;            ///< It stays where it is.
    Inbox& operator=(const Inbox&) = delete; ///< It stays where it is.

    bool isOpen() const; ///< Returns whether it could be opened.

    /// Returns why it could not be opened; no failure if it was. Lives as long as this.
    const Error& error() const;

    /// Applies a change set of the device, all of it or nothing, after everything in it was checked.
    /// A conflict with a row that is there stores the whole set, and those that follow. Fails, and
    /// changes nothing, with SQLITE_CORRUPT for damaged bytes, SQLITE_MISMATCH for those of another
    /// device, SQLITE_SCHEMA for tables that differ, SQLITE_NOTFOUND if sets before it are missing
    /// that the device has not dropped, and SQLITE_AUTH if it continues something else than what the
    /// device has sent: see admit().
    Result<Received> apply(const string& device, std::string_view header, std::string_view bytes);

    /// Takes the change set of this header as the device's next, wherever it begins: an operator's
    /// decision, after a device was restored from a backup or exchanged. What the device has sent
    /// since stays, and its former incarnation is never accepted again. Fails for a set that has
    /// come before.
    Result<bool> admit(const string& device, std::string_view header);

    /// Applies the device's stored sets in their order, up to the next conflict. Returns how many;
    /// on failure none is.
    Result<integer> retry(const string& device);

    /// Drops the device's oldest stored set. Returns nothing if there is none.
    Result<bool> discard(const string& device);

    /// Returns how many sets of the device are stored.
    Result<integer> kept(const string& device) const;

    /// Returns how many commits of the device never come, since it has dropped them or one with
    /// later numbers was admitted.
    Result<integer> lost(const string& device) const;

private:
    struct Set;
    struct Mark;

    SQLWRAPPER_LOCAL Error open(const std::vector<string>& tables);
    SQLWRAPPER_LOCAL Error takeTables(const std::vector<string>& tables);
    SQLWRAPPER_LOCAL Error checkUnrecorded() const;
    SQLWRAPPER_LOCAL Error checkUse(const char* operation) const;
    SQLWRAPPER_LOCAL static Error readHeader(const char* operation, const string& device,
                                             std::string_view header, Envelope& envelope);
    SQLWRAPPER_LOCAL static Error readSet(const char* operation, const string& device, Set& set);
    SQLWRAPPER_LOCAL Error readTables(const char* operation);
    SQLWRAPPER_LOCAL Error checkTables(const char* operation, const Set& set);
    SQLWRAPPER_LOCAL Error readMark(const string& device, const Envelope& envelope,
                                    Mark& mark) const;
    SQLWRAPPER_LOCAL Error moveMark(const string& device, const Mark& mark) const;
    SQLWRAPPER_LOCAL Error noteCommits(const string& device, integer first,
                                       const SyncPosition& last) const;
    SQLWRAPPER_LOCAL Error receive(const string& device, Set& set);
    SQLWRAPPER_LOCAL Error changeInTurn(const string& device, Set& set) const;
    SQLWRAPPER_LOCAL Error change(const char* operation, Set& set) const;
    SQLWRAPPER_LOCAL Error keep(const string& device, const Set& set) const;
    SQLWRAPPER_LOCAL Error admitAfter(const string& device, const Envelope& envelope,
                                      const Mark& mark) const;
    SQLWRAPPER_LOCAL Error retryOldest(const string& device, bool& isApplied);
    SQLWRAPPER_LOCAL Result<integer> number(const char* query, const string& device) const;
    SQLWRAPPER_LOCAL const SyncTable* tableOf(std::string_view name) const;

    Database* _database;
    sqlite3* _connection;
    std::chrono::milliseconds _patience;
    std::vector<SyncTable> _tables;
    integer _schemaVersion = -1; // of the file, when the tables were read
    Error _error;
};

} // namespace sql

#pragma GCC visibility pop

#endif
