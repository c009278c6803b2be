#include "SqlGroupCommit.h"

#include "SqlFailure.h"
#include "SqlTrace.h"

#include <sqlite3.h>

#include <algorithm>
#include <limits>

namespace sql {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds retry_pause(100);                              // after a commit that failed
constexpr milliseconds longest_wait(std::numeric_limits<int>::max()); // as poll() takes

} // namespace

GroupCommit::GroupCommit(Database& database, int count, milliseconds longest, milliseconds patience)
    : _database(&database), _connection(database.getHandle()), _count(count), _longest(longest),
      _patience(patience)
{
}

// Takes no memory, and leaves the database alone, which may be gone.
GroupCommit::~GroupCommit()
{
    if (!isOpen())
        return;
    const int rc = _transaction->commitAs("~GroupCommit");
    if (rc == SQLITE_DONE)
        _pending = 0;
    else
        reportFailure("~GroupCommit", "commit", extendedCodeOf(_connection, rc),
                      reasonOf(_connection, rc));
    drop();
}

// --- Writes --------------------------------------------------------------------------------------

GroupCommit::Write::Write(GroupCommit& group) : _group(group)
{
    if (!group.begin())
        return;
    _part.emplace(*group._database);
    group._error = _part->error();
    group._isWriting = true;
}

// Without a write in it, a group would only keep others from writing.
GroupCommit::Write::~Write()
{
    if (!_part)
        return;
    _group._isWriting = false;
    if (_group.isOpen() && _group._pending == 0)
        _group.drop();
}

bool GroupCommit::Write::end(bool isGood)
{
    _group._error = Error();
    if (!isGood)
        return false;
    if (!_part->commit()) {
        _group._error = _part->error();
        return false;
    }
    // A write whose commit fails for good is not lost: its program is told.
    const integer writes = _group._pending + 1;
    if (_group.isComplete(writes) && _group.commit(writes))
        return true;
    if (!_group.isOpen())
        return false;
    _group._pending = writes;
    return true;
}

bool GroupCommit::begin()
{
    if (!isUsable("write"))
        return false;
    if (isOpen())
        return true;
    _transaction.emplace(*_database, begin_immediate, _patience);
    if (!_transaction->isOpen()) {
        _error = _transaction->error();
        _transaction.reset();
        return false;
    }
    _since = Clock::now();
    _wait = _longest;
    _goal = _count;
    return true;
}

bool GroupCommit::isUsable(const char* operation)
{
    if (_isWriting)
        return fail(operation, "a write of the group is under way");
    if (_connection == nullptr)
        return fail(operation, database_not_open);
    return _database->getHandle() == _connection || fail(operation, database_closed);
}

// --- Commits -------------------------------------------------------------------------------------

bool GroupCommit::isComplete(integer writes) const
{
    return writes >= _goal || *due() == milliseconds(0);
}

std::optional<milliseconds> GroupCommit::due() const
{
    if (!_transaction)
        return std::nullopt;
    const auto passed = std::chrono::duration_cast<milliseconds>(Clock::now() - _since);
    return passed < _wait ? std::min(_wait - passed, longest_wait) : milliseconds(0);
}

bool GroupCommit::flush()
{
    _error = Error();
    return !_transaction || (isUsable("flush") && commit(_pending));
}

// What cannot be committed now may be later, when others have let go of the file.
bool GroupCommit::commit(integer writes)
{
    if (_transaction->commit()) {
        _transaction.reset();
        _pending = 0;
        return true;
    }
    _error = _transaction->error();
    _since = Clock::now();
    _wait = std::min(_longest, retry_pause);
    _goal = writes + _count;
    isOpen();
    return false;
}

// --- Losses --------------------------------------------------------------------------------------

// One that SQLite has rolled back by itself is lost.
bool GroupCommit::isOpen()
{
    if (_transaction && !_transaction->isOpen())
        drop();
    return _transaction.has_value();
}

void GroupCommit::drop()
{
    _transaction.reset();
    if (_pending > 0)
        TRACE_ERROR("Writes of a group that are lost: %lld", _pending);
    _lost += _pending;
    _pending = 0;
}

integer GroupCommit::pending() const
{
    return _pending;
}

integer GroupCommit::lost() const
{
    return _lost;
}

const Error& GroupCommit::error() const
{
    return _error;
}

bool GroupCommit::fail(const char* operation, const char* why)
{
    reportFailure(operation, operation, SQLITE_MISUSE, why);
    _error = errorOf(_connection, SQLITE_MISUSE, why, operation);
    return false;
}

} // namespace sql
