#include "SqlTransaction.h"

#include "SqlCommitGuard.h"
#include "SqlFailure.h"
#include "SqlStop.h"
#include "SqlTrace.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>

namespace sql {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds longest_pause(50);

constexpr const char* lost = "the transaction was rolled back before";
constexpr const char* ended = "the transaction has ended before";

// The scopes that were begun and have not ended, the latest first, of all connections, which threads
// may have one each. SQLite keeps one word for each hook, but tells it only to who takes the hook away.
std::mutex scopes_mutex;
TransactionScope* scopes = nullptr;

// Likewise.
std::mutex guards_mutex;
CommitGuard* guards = nullptr;

const char* beginOf(TransactionMode mode)
{
    switch (mode) {
    case begin_deferred:
        return "begin deferred";
    case begin_immediate:
        return "begin immediate";
    case begin_exclusive:
        break;
    }
    return "begin exclusive";
}

// Nested scopes may end in any order: each has a name of its own.
string savepointName()
{
    static std::atomic<int> count(0);
    return "sqlprepared_" + intToStr(++count);
}

} // namespace

// --- Begin and end -------------------------------------------------------------------------------

TransactionScope::TransactionScope(Database& database, milliseconds patience)
    : _database(&database), _connection(database.getHandle()), _patience(patience)
{
}

// What the other has made is destroyed, should memory run out here.
TransactionScope::TransactionScope(Database& database, const char* text, milliseconds patience)
    : TransactionScope(database, patience)
{
    if (begin(text))
        enter();
    else
        end();
}

TransactionScope::~TransactionScope()
{
    if (hasToUndo()) {
        const int rc = undo("~TransactionScope");
        if (rc != SQLITE_DONE)
            reportFailure("~TransactionScope", sqlite3_sql(_rollback),
                          extendedCodeOf(_connection, rc), reasonOf(_connection, rc));
    }
    end();
}

Transaction::Transaction(Database& database, TransactionMode mode, milliseconds patience)
    : TransactionScope(database, beginOf(mode), patience)
{
}

Savepoint::Savepoint(Database& database) : TransactionScope(database, nullptr, milliseconds(0))
{
}

// What ends it is prepared before it begins: then a rollback takes no memory, unless SQLite has to
// compile it anew, and the connection outlives the scope, whoever closes it.
bool TransactionScope::begin(const char* text)
{
    const string name = text == nullptr ? savepointName() : string();
    const string beginning = text != nullptr ? text : "savepoint " + name;
    if (_connection == nullptr)
        return fail("begin", beginning, SQLITE_MISUSE, database_not_open);
    const TransactionScope* const outer = outermost(_connection);
    if (const char* const why = outer != nullptr ? outer->whyNotOpen() : nullptr)
        return fail("begin", beginning, SQLITE_ABORT_ROLLBACK, why);
    if (isStopRequested(_connection)) // not every SQLite looks itself
        return fail("begin", beginning, SQLITE_INTERRUPT, reasonOf(_connection, SQLITE_INTERRUPT));

    _nested = text == nullptr && sqlite3_get_autocommit(_connection) == 0;
    sqlite3_stmt* statement = nullptr;
    if (!prepare(text != nullptr ? "commit" : "release " + name, &_commit)
        || !prepare(_nested ? "rollback to " + name : "rollback", &_rollback)
        || !prepare("begin immediate", &_abort) || !prepare(beginning, &statement))
        return false;
    const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> owner(statement,
                                                                           sqlite3_finalize);
    const int rc = run("begin", statement);
    return rc == SQLITE_DONE || failAsSqlite("begin", statement, rc);
}

bool TransactionScope::prepare(const string& text, sqlite3_stmt** statement)
{
    const int rc = sqlite3_prepare_v2(_connection, text.c_str(), -1, statement, nullptr);
    return rc == SQLITE_OK
           || fail("begin", text, extendedCodeOf(_connection, rc), reasonOf(_connection, rc));
}

void TransactionScope::end()
{
    if (_watching)
        CommitGuard::hook(_connection);
    _watching = false;
    leave();
    sqlite3_finalize(_commit);
    sqlite3_finalize(_rollback);
    sqlite3_finalize(_abort);
    _commit = _rollback = _abort = nullptr;
}

// --- While it lasts ------------------------------------------------------------------------------

void TransactionScope::enter()
{
    if (outermost(_connection) == nullptr) {
        _watching = true;
        sqlite3_commit_hook(_connection, refuseCommit, this);
        sqlite3_rollback_hook(_connection, noteRollback, this);
    }
    _state = State::open;
    const std::lock_guard<std::mutex> lock(scopes_mutex);
    _next = scopes;
    scopes = this;
}

// Those that were begun in it end with it.
void TransactionScope::leave()
{
    if (_state == State::unbegun)
        return;
    const std::lock_guard<std::mutex> lock(scopes_mutex);
    for (TransactionScope** link = &scopes; _state != State::ended;) {
        TransactionScope& scope = **link;
        if (scope._connection == _connection) {
            scope._state = State::ended;
            *link = scope._next;
        } else {
            link = &scope._next;
        }
    }
}

TransactionScope* TransactionScope::outermost(sqlite3* connection)
{
    const std::lock_guard<std::mutex> lock(scopes_mutex);
    TransactionScope* found = nullptr;
    for (TransactionScope* scope = scopes; scope != nullptr; scope = scope->_next) {
        if (scope->_connection == connection)
            found = scope;
    }
    return found;
}

// SQLite rolls back what it may not commit.
int TransactionScope::refuseCommit(void* scope)
{
    const TransactionScope& self = *static_cast<TransactionScope*>(scope);
    if (!self._committing) {
        TRACE_ERROR("Refused a commit that is not the transaction's own");
        return 1;
    }
    CommitGuard* const guard = CommitGuard::of(self._connection);
    return guard == nullptr || guard->mayCommit() ? 0 : 1;
}

void TransactionScope::noteRollback(void* scope)
{
    const TransactionScope& self = *static_cast<TransactionScope*>(scope);
    if (CommitGuard* const guard = CommitGuard::of(self._connection))
        guard->rolledBack();
    if (self._state != State::open)
        return;
    {
        const std::lock_guard<std::mutex> lock(scopes_mutex);
        for (TransactionScope* each = scopes; each != nullptr; each = each->_next) {
            if (each->_connection == self._connection)
                each->_state = State::lost;
        }
    }
    TRACE_ERROR("The transaction was rolled back: nothing is committed before its scope ends");
}

bool TransactionScope::isOpen() const
{
    return whyNotOpen() == nullptr;
}

// Null while it is open. A commit of nothing that was written passes the hook, whoever it is of.
const char* TransactionScope::whyNotOpen() const
{
    if (_state == State::lost)
        return lost;
    return _state == State::open && sqlite3_get_autocommit(_connection) == 0 ? nullptr : ended;
}

// After a loss another may have begun anew: nothing of that outlives the scope either.
bool TransactionScope::hasToUndo() const
{
    const bool isLost = _state == State::lost && !_nested;
    return isOpen() || (isLost && sqlite3_get_autocommit(_connection) == 0);
}

bool TransactionScope::commit()
{
    if (!isUsable("commit"))
        return false;
    if (const char* const why = whyNotOpen())
        return fail("commit", sqlite3_sql(_commit), SQLITE_ABORT_ROLLBACK, why);
    const int rc = commitAs("commit");
    if (rc != SQLITE_DONE)
        return failAsSqlite("commit", _commit, rc);
    end();
    _error = Error();
    return true;
}

int TransactionScope::commitAs(const char* operation)
{
    if (isStopRequested(_connection))
        return SQLITE_INTERRUPT;
    _committing = true;
    const int rc = run(operation, _commit);
    _committing = false;
    return rc;
}

bool TransactionScope::rollback()
{
    if (!isUsable("rollback"))
        return false;
    const int rc = hasToUndo() ? undo("rollback") : SQLITE_DONE;
    if (rc != SQLITE_DONE)
        return failAsSqlite("rollback", _rollback, rc);
    end();
    _error = Error();
    return true;
}

const Error& TransactionScope::error() const
{
    return _error;
}

// One that could not begin has said why.
bool TransactionScope::isUsable(const char* operation)
{
    if (_state == State::unbegun)
        return false;
    if (_state == State::ended)
        return fail(operation, operation, SQLITE_MISUSE, ended);
    if (_database->getHandle() == _connection)
        return true;
    return fail(operation, operation, SQLITE_MISUSE, database_closed);
}

// Without the database, which may be gone: what ends here was begun on its connection.
int TransactionScope::undo(const char* operation)
{
    const State former = _state;
    if (!_nested)
        _state = State::undoing; // so that the rollback is known for its own
    int rc = run(operation, _rollback);
    if (rc == SQLITE_INTERRUPT) // which came while it began, and is over then
        rc = run(operation, _rollback);
    // An interrupt lasts as long as a statement stands at a row, and stops a rollback like any other.
    // SQLite itself rolls back when it stops one that writes; if it does not, the interrupt is over.
    if (rc == SQLITE_INTERRUPT && sqlite3_step(_abort) != SQLITE_INTERRUPT)
        rc = run(operation, _rollback);
    if (sqlite3_get_autocommit(_connection) != 0)
        rc = SQLITE_DONE;
    else if (rc == SQLITE_DONE)
        run(operation, _commit); // else it ends with what it is in
    _state = former;
    return rc;
}

// Waits for other connections in ever longer pauses.
int TransactionScope::run(const char* operation, sqlite3_stmt* statement) const
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    TRACE_DEBUG2_AS(operation, "stmt='%s'", sqlite3_sql(statement));
    for (milliseconds pause(1);; pause = std::min(2 * pause, longest_pause)) {
        const int rc = sqlite3_step(statement);
        const milliseconds left = _patience
                                  - std::chrono::duration_cast<milliseconds>(Clock::now() - start);
        if ((rc & 0xff) != SQLITE_BUSY || left <= milliseconds(0) || isStopRequested(_connection))
            return rc;
        sqlite3_reset(statement);
        if (pause == milliseconds(1))
            TRACE_DEBUG1_AS(operation, "Waiting for another connection to '%s'",
                            sqlite3_sql(statement));
        pauseUnlessStopped(_connection, std::min(pause, left));
    }
}

// --- Guards --------------------------------------------------------------------------------------

CommitGuard::CommitGuard(sqlite3* connection, MayCommit ask, RolledBack tell)
    : _connection(connection), _mayCommit(ask), _rolledBack(tell)
{
    {
        const std::lock_guard<std::mutex> lock(guards_mutex);
        _next = guards;
        guards = this;
    }
    if (TransactionScope::outermost(_connection) == nullptr)
        hook(connection);
}

CommitGuard::~CommitGuard()
{
    {
        const std::lock_guard<std::mutex> lock(guards_mutex);
        CommitGuard** link = &guards;
        while (*link != this)
            link = &(*link)->_next;
        *link = _next;
    }
    if (TransactionScope::outermost(_connection) == nullptr)
        hook(_connection);
}

CommitGuard* CommitGuard::of(sqlite3* connection)
{
    const std::lock_guard<std::mutex> lock(guards_mutex);
    CommitGuard* guard = guards;
    while (guard != nullptr && guard->_connection != connection)
        guard = guard->_next;
    return guard;
}

void CommitGuard::hook(sqlite3* connection)
{
    CommitGuard* const guard = of(connection);
    const auto refuse = [](void* self) {
        return static_cast<CommitGuard*>(self)->mayCommit() ? 0 : 1;
    };
    const auto note = [](void* self) {
        static_cast<CommitGuard*>(self)->rolledBack();
    };
    sqlite3_commit_hook(connection, guard != nullptr ? +refuse : nullptr, guard);
    sqlite3_rollback_hook(connection, guard != nullptr ? +note : nullptr, guard);
}

// --- Failures ------------------------------------------------------------------------------------

bool TransactionScope::fail(const char* operation, const string& text, int rc, const char* why)
{
    reportFailure(operation, text.c_str(), rc, why);
    _error = errorOf(_connection, rc, why, text.c_str());
    return false;
}

bool TransactionScope::failAsSqlite(const char* operation, sqlite3_stmt* statement, int rc)
{
    fail(operation, sqlite3_sql(statement), extendedCodeOf(_connection, rc),
         reasonOf(_connection, rc));
    sqlite3_reset(statement);
    return false;
}

} // namespace sql
