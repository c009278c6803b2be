#ifndef SQLPREPARED_SQLSTATEMENTRUN_H
#define SQLPREPARED_SQLSTATEMENTRUN_H

// How a statement runs, for the sources whose operations are a run each.

#include "SqlStatement.h"

#include "SqlTrace.h"

#include <sqlite3.h>

namespace sql {

// Each call of SQLite's takes the connection's lock, at less cost where it is taken already: five calls
// are worth taking it around them.
class Lock {
public:
    Lock(sqlite3* db, int calls) : _mutex(calls < 5 ? nullptr : sqlite3_db_mutex(db))
    {
        if (_mutex != nullptr)
            sqlite3_mutex_enter(_mutex);
    }
    ~Lock()
    {
        if (_mutex != nullptr)
            sqlite3_mutex_leave(_mutex);
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    sqlite3_mutex* _mutex;
};

inline integer latestChanges(sqlite3* db)
{
#if SQLITE_VERSION_NUMBER >= 3037000
    return sqlite3_changes64(db);
#else
    return sqlite3_changes(db);
#endif
}

// What fails is told elsewhere, so that the ways to it stay short.
inline bool Statement::isUsable(const char* operation)
{
    return (_handle.statement != nullptr && _database->getHandle() == _connection)
           || failToUse(operation);
}

inline void Statement::forgetRun()
{
    _changes = 0;
    _key.reset();
}

inline bool Statement::restart(const char* operation)
{
    if (!isUsable(operation))
        return false;
    if ((_handle.state == State::row || _handle.state == State::broken) && !end(operation))
        return false;
    _handle.state = State::ready;
    return true;
}

inline void Statement::begin(const char* operation)
{
    if (traceLevelAbove(7))
        traceRun(operation);
    if (_error)
        forgetError();
    _namesKnown = false;
    forgetRun();
    if (_inserts)
        _keyBefore = sqlite3_last_insert_rowid(_connection);
}

inline bool Statement::step(const char* operation)
{
    const int rc = sqlite3_step(_handle.statement);
    // All rows are inserted before the first comes back.
    if (_inserts && _handle.state == State::ready) {
        const integer key = sqlite3_last_insert_rowid(_connection);
        if (key != _keyBefore || _givesKeys)
            _key = key;
    }
    if (rc == SQLITE_ROW) {
        _handle.state = State::row;
        return true;
    }
    end(operation); // which fails as the step did
    return false;
}

// Returns false if what was written cannot be committed, which a reset at a row does.
inline bool Statement::end(const char* operation)
{
    const int rc = sqlite3_reset(_handle.statement);
    noteChanges(rc);
    if (rc != SQLITE_OK)
        return failToRun(operation, rc);
    _handle.state = State::ended;
    return true;
}

// SQLite takes back what a statement did before it failed, but for `or fail`, which only constraints heed;
// one that has not begun has left the count of another. Where nothing has changed, nothing was inserted.
inline void Statement::noteChanges(int rc)
{
    if (!_writes)
        return;
    if (rc == SQLITE_OK || (rc & 0xff) == SQLITE_CONSTRAINT)
        _changes = latestChanges(_connection);
    if (_changes == 0)
        _key.reset();
}

inline bool Statement::runToEnd(const char* operation)
{
    begin(operation);
    while (step(operation)) {
    }
    return _handle.state == State::ended;
}

// Of the row and the values, should a binder throw.
struct Statement::LettingGo {
    ~LettingGo()
    {
        if (statement._handle.state != State::row)
            return;
        sqlite3_reset(statement._handle.statement);
        statement._handle.state = State::failed;
    }

    Statement& statement;
};

inline Presence Statement::readStep(const char* operation, const Variable* variables, int count)
{
    begin(operation);
    if (!step(operation))
        return _handle.state == State::ended ? Presence::absent : Presence::unknown;
    const LettingGo lettingGo{*this};
    const bool isRead = count == 0 || readCells(operation, variables, count);
    return isRead && end(operation) ? Presence::present : Presence::unknown;
}

inline bool Statement::readCells(const char* operation, const Variable* variables, int count)
{
    sqlite3_stmt* const statement = _handle.statement;
    if (count == whole_object)
        return readObject(operation, *variables);
    if (count != sqlite3_data_count(statement))
        return count == whole_row ? readRecord(operation, *variables)
                                  : failToFill(operation, count);
    for (int i = 0; i < count; ++i) {
        const Column column(*this, sqlite3_column_value(statement, i));
        if (const char* const why = variables[i].read(column, variables[i].variable))
            return failToRead(operation, i, why);
    }
    return true;
}

} // namespace sql

#endif
