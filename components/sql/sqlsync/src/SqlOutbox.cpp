#include "SqlOutbox.h"

#include "SqlFailure.h"
#include "SqlOutboxFile.h"
#include "SqlSchema.h"
#include "SqlStatement.h"
#include "SqlTrace.h"
#include "SqlTransaction.h"

#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <memory>

namespace sql {

namespace {

constexpr const char* make_tables =
    "create table if not exists main.sqlsync_state (id integer primary key check (id = 1),"
    " incarnation integer not null, number integer not null, sent integer not null,"
    " dropped_incarnation integer not null, dropped integer not null, bytes integer not null);"
    "insert or ignore into main.sqlsync_state values (1, 0, 0, 0, 0, 0, 0);"
    "create table if not exists main.sqlsync_schema (hash integer primary key,"
    " description blob not null);"
    "create table if not exists main.sqlsync_outbox (number integer primary key,"
    " incarnation integer not null, previous integer not null, previous_incarnation integer"
    " not null, hash integer not null, changes blob not null)";

// A row of the outbox.
struct Stored {
    SyncPosition last;
    SyncPosition previous;
    integer hash = 0;
    std::string_view changes; // as long as its statement stands there
};

constexpr const char* select_stored =
    "select number, incarnation, previous, previous_incarnation, hash,"
    " changes from main.sqlsync_outbox where number > ? order by number";

bool readStored(Statement& rows, Stored& stored)
{
    Bytes changes{nullptr, 0};
    if (!rows.next(stored.last.number, stored.last.incarnation, stored.previous.number,
                   stored.previous.incarnation, stored.hash, changes))
        return false;
    stored.changes = {static_cast<const char*>(changes.data), changes.size};
    return true;
}

struct GroupEnd {
    void operator()(sqlite3_changegroup* group) const
    {
        sqlite3changegroup_delete(group);
    }
};

} // namespace

// --- The file -------------------------------------------------------------------------------------

Error makeOutbox(Database& database)
{
    return runScript(database, make_tables).error();
}

Error removeUpTo(Database& database, integer number)
{
    Statement count(database, "update main.sqlsync_state set bytes = bytes - (select"
                              " ifnull(sum(length(changes)), 0) from main.sqlsync_outbox"
                              " where number <= ?)");
    Statement remove(database, "delete from main.sqlsync_outbox where number <= ?");
    if (!count.run(number))
        return count.error();
    return remove.run(number) ? Error() : remove.error();
}

namespace {

// Replaces the sets between two numbers by one with these changes.
Error replace(Database& database, integer after, const Stored& merged)
{
    Statement uncount(database, "update main.sqlsync_state set bytes = bytes + ? - (select"
                                " sum(length(changes)) from main.sqlsync_outbox"
                                " where number > ? and number <= ?)");
    Statement remove(database, "delete from main.sqlsync_outbox where number > ? and number <= ?");
    Statement add(database, "insert into main.sqlsync_outbox values (?, ?, ?, ?, ?, ?)");
    if (!uncount.run(static_cast<integer>(merged.changes.size()), after, merged.last.number))
        return uncount.error();
    if (!remove.run(after, merged.last.number))
        return remove.error();
    const Bytes changes{merged.changes.data(), merged.changes.size()};
    return add.run(merged.last.number, merged.last.incarnation, merged.previous.number,
                   merged.previous.incarnation, merged.hash, changes)
               ? Error()
               : add.error();
}

} // namespace

Error mergeBehind(Database& database, const char* operation, integer after, integer most,
                  integer& last)
{
    sqlite3_changegroup* made = nullptr;
    int rc = sqlite3changegroup_new(&made);
    const std::unique_ptr<sqlite3_changegroup, GroupEnd> group(made);
    Stored all;
    Stored stored;
    int count = 0;
    integer size = 0;
    Statement rows(database, select_stored);
    rows.bind(1, after);
    while (rc == SQLITE_OK && readStored(rows, stored)) {
        size += static_cast<integer>(stored.changes.size());
        if (count > 0 && (stored.hash != all.hash || size > most))
            break;
        rc = sqlite3changegroup_add(group.get(), static_cast<int>(stored.changes.size()),
                                    const_cast<char*>(stored.changes.data()));
        if (count++ == 0)
            all = stored;
        all.last = stored.last;
    }
    if (rows.error())
        return rows.error();
    last = all.last.number;
    int length = 0;
    void* changes = nullptr;
    if (rc == SQLITE_OK && count > 1)
        rc = sqlite3changegroup_output(group.get(), &length, &changes);
    const std::unique_ptr<void, decltype(&sqlite3_free)> owner(changes, sqlite3_free);
    if (rc != SQLITE_OK)
        return failed(operation, rc, sqlite3_errstr(rc));
    if (count < 2)
        return Error();
    all.changes = {static_cast<const char*>(changes), static_cast<std::size_t>(length)};
    return replace(database, after, all);
}

// --- The limit ------------------------------------------------------------------------------------

namespace {

Error mergeUnsent(Database& database, integer number)
{
    Statement ask(database, "select sent from main.sqlsync_state");
    const Result<integer> sent = ask.one<integer>();
    if (!sent)
        return sent.error();
    for (integer after = *sent; after < number;) {
        if (Error error = mergeBehind(database, "commit", after,
                                      std::numeric_limits<integer>::max(), after))
            return error;
    }
    return Error();
}

// As many as leave enough; none where the latest alone has too much.
Error dropOldest(Database& database, integer number, integer surplus)
{
    Stored stored;
    SyncPosition dropped;
    Statement rows(database, select_stored);
    rows.bind(1, 0);
    while (surplus > 0 && readStored(rows, stored) && stored.last.number < number) {
        surplus -= static_cast<integer>(stored.changes.size());
        dropped = stored.last;
    }
    if (rows.error())
        return rows.error();
    if (surplus > 0)
        return Error();
    Statement note(database, "update main.sqlsync_state set dropped_incarnation = ?, dropped = ?");
    if (!note.run(dropped.incarnation, dropped.number))
        return note.error();
    TRACE_ERROR_AS("commit", "The outbox is full: change sets up to %lld were dropped",
                   static_cast<long long>(dropped.number));
    return removeUpTo(database, dropped.number);
}

Result<integer> bytesIn(Database& database)
{
    return Statement(database, "select bytes from main.sqlsync_state").one<integer>();
}

} // namespace

Error keepLimit(Database& database, integer number, integer limit, WhenFull whenFull)
{
    Result<integer> bytes = bytesIn(database);
    if (!bytes || *bytes <= limit)
        return bytes.error();
    Error error;
    if (whenFull == WhenFull::merge_ranges)
        error = mergeUnsent(database, number);
    else if (whenFull == WhenFull::drop_oldest)
        error = dropOldest(database, number, *bytes - limit);
    if (error)
        return error;
    bytes = bytesIn(database);
    if (!bytes || *bytes <= limit)
        return bytes.error();
    return failed("commit", SQLITE_FULL,
                  joined({"the outbox is full: ", intToStr(*bytes), " bytes, at most ",
                          intToStr(limit), " are allowed"}));
}

// --- Change sets ----------------------------------------------------------------------------------

std::string_view ChangeSet::header() const
{
    return _header;
}

std::string_view ChangeSet::bytes() const
{
    return _bytes;
}

SyncPosition ChangeSet::previous() const
{
    return _previous;
}

SyncPosition ChangeSet::last() const
{
    return _last;
}

// --- Outbox ---------------------------------------------------------------------------------------

Outbox::Outbox(Database& database, const string& device, integer most)
    : _database(&database), _device(device), _most(most)
{
}

void Outbox::restart()
{
    _after = 0;
}

bool Outbox::next(ChangeSet& set)
{
    bool isRead = false;
    Transaction transaction(*_database, begin_immediate);
    _error = transaction.isOpen() ? readNext(set, isRead) : transaction.error();
    if (!_error && !transaction.commit())
        _error = transaction.error();
    if (_error || !isRead)
        return false;
    _after = set._last.number;
    return true;
}

// Before a set is handed out, it is noted that it was: from then on it stays as it is.
Error Outbox::readNext(ChangeSet& set, bool& isRead)
{
    if (Error error = makeOutbox(*_database))
        return error;
    Statement ask(*_database, "select sent, dropped, dropped_incarnation from main.sqlsync_state");
    const auto state = ask.one<integer, integer, integer>();
    if (!state)
        return state.error();
    Statement find(*_database, "select min(number) from main.sqlsync_outbox where number > ?");
    const auto first = find.one<std::optional<integer>>(_after);
    if (!first || !*first)
        return first.error();
    const integer sent = std::get<0>(*state);
    if (**first > sent) {
        integer last = 0;
        if (Error error = mergeBehind(*_database, "next", std::max(_after, sent), _most, last))
            return error;
        Statement note(*_database, "update main.sqlsync_state set sent = max(sent, ?)");
        if (!note.run(last))
            return note.error();
    }
    Statement rows(*_database, select_stored);
    rows.bind(1, _after);
    Stored stored;
    isRead = readStored(rows, stored);
    if (!isRead)
        return rows.error();
    Statement describe(*_database, "select description from main.sqlsync_schema where hash = ?");
    const Result<string> description = describe.one<string>(stored.hash);
    if (description.failed())
        return description.error();
    Envelope envelope;
    envelope.device = _device;
    envelope.previous = stored.previous;
    envelope.last = stored.last;
    envelope.dropped = {std::get<2>(*state), std::get<1>(*state)};
    const string why = whyNotSchema(description.valueOr(string()), envelope.tables);
    if (!why.empty())
        return failed("next", SQLITE_CORRUPT, why);
    set._header = encode(envelope, stored.changes);
    set._bytes = stored.changes;
    set._previous = stored.previous;
    set._last = stored.last;
    return Error();
}

bool Outbox::acknowledge(SyncPosition last)
{
    Transaction transaction(*_database, begin_immediate);
    _error = transaction.isOpen() ? remove(last) : transaction.error();
    if (!_error && !transaction.commit())
        _error = transaction.error();
    return !_error;
}

Error Outbox::remove(SyncPosition last)
{
    if (Error error = makeOutbox(*_database))
        return error;
    Statement ask(*_database, "select sent >= ?1 and not exists (select 1 from main.sqlsync_outbox"
                              " where number = ?1 and incarnation != ?2) from main.sqlsync_state");
    const Result<bool> wasSent = ask.one<bool>(last.number, last.incarnation);
    if (!wasSent)
        return wasSent.error();
    if (!*wasSent)
        return failed("acknowledge", SQLITE_MISUSE,
                      joined({"commit ", intToStr(last.number), " was never handed out"}));
    return removeUpTo(*_database, last.number);
}

Result<OutboxSize> Outbox::pending()
{
    Statement ask(*_database, "select (select count(*) from main.sqlsync_outbox), bytes"
                              " from main.sqlsync_state");
    const auto size = ask.one<integer, integer>();
    _error = size.error();
    if (!size)
        return _error;
    return OutboxSize{std::get<0>(*size), std::get<1>(*size)};
}

const Error& Outbox::error() const
{
    return _error;
}

} // namespace sql
