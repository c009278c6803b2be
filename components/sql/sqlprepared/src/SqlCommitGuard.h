#ifndef SQLPREPARED_SRC_SQLCOMMITGUARD_H
#define SQLPREPARED_SRC_SQLCOMMITGUARD_H

struct sqlite3;

#pragma GCC visibility push(default) // for sqlsync, which records changes

namespace sql {

// Asked before each commit of a connection, whoever commits, and told of each rollback. It takes SQLite's
// two hooks, and shares them with the transactions. Neither function may use a statement.
class CommitGuard {
public:
    CommitGuard(const CommitGuard&) = delete;
    CommitGuard& operator=(const CommitGuard&) = delete;

    using MayCommit = bool (*)(CommitGuard& guard);
    using RolledBack = void (*)(CommitGuard& guard);

    CommitGuard(sqlite3* connection, MayCommit ask, RolledBack tell);
    ~CommitGuard();

    // The guard of the connection, null for none. Outside of its thread it may be gone at once.
    static CommitGuard* of(sqlite3* connection);

    // Gives the hooks to the guard, or to nobody, when a transaction lets go of them.
    static void hook(sqlite3* connection);

    bool mayCommit()
    {
        return _mayCommit(*this);
    }
    void rolledBack()
    {
        _rolledBack(*this);
    }

private:
    sqlite3* _connection;
    MayCommit _mayCommit;
    RolledBack _rolledBack;
    CommitGuard* _next;
};

} // namespace sql

#pragma GCC visibility pop

#endif
