#ifndef SQLPREPARED_SQLTRANSACTION_H
#define SQLPREPARED_SQLTRANSACTION_H

#include "SqlResult.h"

#include <chrono>

struct sqlite3_stmt;

#pragma GCC visibility push(default)

namespace sql {

/// When a transaction takes its locks.
enum TransactionMode : std::int32_t {
    begin_deferred = 0,  ///< with its statements; a write after a read may fail at once
    begin_immediate = 1, ///< that for writing when it begins: the mode for transactions that write
    begin_exclusive = 2  ///< likewise, and keeps readers out, but for those of a write-ahead log
};

/// What Transaction and Savepoint have in common. It is open from its making until it is committed
/// or rolled back; at the end of its scope it rolls back what was not committed.
///
///     const auto end = [](sql::TransactionScope& scope, bool isGood) {
///         return isGood ? scope.commit() : scope.rollback();
///     };
///     sql::Transaction transaction(database, sql::begin_immediate);
///     if (!end(transaction, products.addRecord(tea)))
///         std::puts(transaction.error().text().c_str());
class TransactionScope {
public:
    TransactionScope(const TransactionScope&) = delete;            ///< It stays where it is.
    TransactionScope& operator=(const TransactionScope&) = delete; ///< It stays where it is.

    /// Returns whether it was begun and nobody, SQLite included, has committed or undone it.
    bool isOpen() const;

    /// Commits what was done since the beginning, and ends the scopes begun in it. Returns false on
    /// failure: it is still open then, to be mended and committed again, unless SQLite has rolled
    /// it back.
    [[nodiscard]] bool commit();

    /// Undoes what was done since the beginning, unless SQLite has, and ends the scopes begun in
    /// it. Returns false if it has ended before, or SQLite fails: it is still open then.
    bool rollback();

    /// Returns why the latest operation failed; no failure if it did not. Lives as long as this.
    const Error& error() const;

protected:
    /// Begins with the statement `text`, or a savepoint for null. Waits for other connections, here
    /// and in commit(), as long as `patience` says.
    TransactionScope(Database& database, const char* text, std::chrono::milliseconds patience);
    ~TransactionScope();

private:
    friend class TableStatements; // begins one when its statements are compiled
    friend class GroupCommit;     // commits one that ends, without memory
    friend class CommitGuard;     // has the hooks when no transaction has

    // Lost: SQLite has rolled back.
    enum class State { unbegun, open, undoing, lost, ended };

    SQLWRAPPER_LOCAL TransactionScope(Database& database, std::chrono::milliseconds patience);
    SQLWRAPPER_LOCAL static TransactionScope* outermost(sqlite3* connection);
    SQLWRAPPER_LOCAL static int refuseCommit(void* scope);
    SQLWRAPPER_LOCAL static void noteRollback(void* scope);

    SQLWRAPPER_LOCAL bool begin(const char* text);
    SQLWRAPPER_LOCAL bool prepare(const string& text, sqlite3_stmt** statement);
    SQLWRAPPER_LOCAL const char* whyNotOpen() const;
    SQLWRAPPER_LOCAL bool isUsable(const char* operation);
    SQLWRAPPER_LOCAL int run(const char* operation, sqlite3_stmt* statement) const;
    SQLWRAPPER_LOCAL int commitAs(const char* operation);
    SQLWRAPPER_LOCAL int undo(const char* operation);
    SQLWRAPPER_LOCAL void enter();
    SQLWRAPPER_LOCAL void leave();
    SQLWRAPPER_LOCAL bool hasToUndo() const;
    SQLWRAPPER_LOCAL void end();
    SQLWRAPPER_LOCAL bool fail(const char* operation, const string& text, int rc, const char* why);
    SQLWRAPPER_LOCAL bool failAsSqlite(const char* operation, sqlite3_stmt* statement, int rc);

    Database* _database;
    sqlite3* _connection;
    std::chrono::milliseconds _patience;
    sqlite3_stmt* _commit = nullptr;
    sqlite3_stmt* _rollback = nullptr;
    sqlite3_stmt* _abort = nullptr;    // rolls back when it is interrupted
    TransactionScope* _next = nullptr; // of those that have not ended
    State _state = State::unbegun;
    bool _nested = false;     // in another transaction, to which a rollback goes back
    bool _watching = false;   // it is the outermost of its connection, and has the hooks
    bool _committing = false; // the commit that the hook is asked about is its own
    Error _error;
};

/// A transaction that is rolled back at the end of its scope unless it was committed.
///
///     sql::Transaction transaction(database, sql::begin_immediate);
///     if (!transaction.isOpen() || !products.addRecord(tea))
///         return 1;
///     if (!transaction.commit())
///         return 1;
///
/// Nothing of a lost transaction goes on alone: it sees at once when SQLite rolls back by itself,
/// and refuses every commit but its own until its scope ends. For that it takes SQLite's commit and
/// rollback hooks; a program's own are gone, afterwards too. Borrows the database, as a Statement
/// does. One thread at a time.
class Transaction : public TransactionScope {
public:
    /// Begins a transaction. While another connection has a lock, tries again for as long as
    /// `patience` says, here and in commit(); each try waits for the database's busy timeout. If
    /// it fails it is not open, and error() says why.
    Transaction(Database& database, TransactionMode mode,
                std::chrono::milliseconds patience = std::chrono::milliseconds(0));
};

/// A part of a transaction, or of another savepoint, that can be undone alone. A rollback of what
/// it is in undoes it too, committed or not. Outside of both it is a deferred transaction.
///
///     sql::Transaction whole(database, sql::begin_immediate);
///     sql::Savepoint part(database);
///     if (!products.addRecord(tea) || !part.commit())
///         part.rollback();
///     if (!whole.commit())
///         return 1;
///
/// Takes the hooks and borrows the database, as a Transaction does. One thread at a time.
class Savepoint : public TransactionScope {
public:
    /// Begins it. If that fails it is not open, and error() says why.
    explicit Savepoint(Database& database);
};

/// Begins an immediate transaction, runs `work` once, and commits if that returned true. Waits at
/// both ends as a Transaction with this `patience`. Returns true once it is committed, nothing if
/// `work` returned false and all is undone, or the reason of a failure. An exception of `work`
/// undoes all and passes through.
template <typename Work>
Result<bool> inTransaction(Database& database, Work&& work,
                           std::chrono::milliseconds patience = std::chrono::milliseconds(0))
{
    Transaction transaction(database, begin_immediate, patience);
    if (!transaction.isOpen())
        return transaction.error();
    if (!work()) {
        if (!transaction.rollback())
            return transaction.error();
        return Result<bool>();
    }
    if (!transaction.commit())
        return transaction.error();
    return true;
}

} // namespace sql

#pragma GCC visibility pop

#endif
