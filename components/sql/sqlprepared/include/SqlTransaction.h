#ifndef SQLPREPARED_SQLTRANSACTION_H
#define SQLPREPARED_SQLTRANSACTION_H

#include "SqlResult.h"

#include <chrono>

struct sqlite3_stmt;

#pragma GCC visibility push(default)

namespace sql {

/// When a transaction takes its locks.
enum TransactionMode : std::int32_t {
    begin_deferred = 0,  ///< with its first statements; one that reads first may not come to write
    begin_immediate = 1, ///< to write at once: what a transaction that writes wants
    begin_exclusive = 2  ///< to keep readers out as well
};

/// What Transaction and Savepoint have in common: it is open from its making to its commit or
/// rollback, and what is not committed at the end of its scope is rolled back.
///
///     const auto end = [](sql::TransactionScope& scope, bool isGood) {
///         return isGood ? scope.commit() : scope.rollback();
///     };
///     sql::Transaction transaction(database, sql::begin_immediate);
///     if (!end(transaction, products.addRecord(tea)))
///         std::puts(transaction.error().text().c_str());
class TransactionScope {
public:
    TransactionScope(const TransactionScope&) = delete;            ///< It is where it was made.
    TransactionScope& operator=(const TransactionScope&) = delete; ///< It is where it was made.

    /// Returns whether it was begun, and neither committed nor rolled back since, by SQLite either.
    bool isOpen() const;

    /// Commits what was done since the beginning. If that fails, keeps the reason and reports it;
    /// it is then still open, unless SQLite has rolled it back, so that it can be tried again.
    [[nodiscard]] bool commit();

    /// Undoes what was done since the beginning, if SQLite has not done so already. Returns false
    /// if it was not open, or could not.
    bool rollback();

    const Error& error() const; ///< Returns why the latest operation failed.

protected:
    /// Begins with the statement `text`, or a savepoint for null. Waits for other connections, here
    /// and in commit(), as long as `patience` says.
    TransactionScope(Database& database, const char* text, std::chrono::milliseconds patience);
    ~TransactionScope();

private:
    // Lost: SQLite has rolled back, or could not.
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
/// Nothing of a lost transaction goes on alone: while it lasts it has SQLite's commit and rollback
/// hooks, which displaces a program's own, sees at once when SQLite rolls back by itself, and
/// refuses every commit but its own until its scope ends. Borrows the database, as a Statement
/// does. One thread at a time.
class Transaction : public TransactionScope {
public:
    /// Begins a transaction. Waits for other connections, here and in commit(), as long as
    /// `patience` says, beside the database's own timeout. If it fails it is not open, and error()
    /// says why.
    Transaction(Database& database, TransactionMode mode,
                std::chrono::milliseconds patience = std::chrono::milliseconds(0));
};

/// A part of a transaction, or of another savepoint, that can be undone alone. Outside both it is a
/// deferred transaction. What it commits is still undone by a rollback of what it is in.
///
///     sql::Transaction whole(database, sql::begin_immediate);
///     sql::Savepoint part(database);
///     if (!products.addRecord(tea) || !part.commit())
///         part.rollback();
///     if (!whole.commit())
///         return 1;
class Savepoint : public TransactionScope {
public:
    explicit Savepoint(Database& database); ///< Begins it. If that fails it is not open.
};

/// Begins an immediate transaction, runs `work`, and commits if that returns true. Waits for other
/// connections at both ends as long as `patience` says. Returns true once it is committed, nothing
/// if `work` returned false and all is rolled back, or the reason of a failure; runs `work` at most
/// once.
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
