#include "SqlInbox.h"

#include "SqlChangeReader.h"
#include "SqlFailure.h"
#include "SqlSchema.h"
#include "SqlStatement.h"
#include "SqlTrace.h"
#include "SqlTransaction.h"

#include <sqlite3.h>

#include <algorithm>
#include <tuple>

namespace sql {

namespace {

constexpr const char* make_tables =
    "create table if not exists main.sqlsync_inbox (device text primary key, incarnation integer"
    " not null, number integer not null, checksum integer not null, lost integer not null)"
    " without rowid;"
    "create table if not exists main.sqlsync_inbox_table (name text primary key) without rowid;"
    "create table if not exists main.sqlsync_incarnation (device text, incarnation integer,"
    " first integer not null, last integer not null, retired integer not null,"
    " primary key (device, incarnation)) without rowid;"
    "create table if not exists main.sqlsync_kept (id integer primary key, device text not null,"
    " last integer not null, header blob not null, bytes blob not null, reason text not null);"
    "create index if not exists main.sqlsync_kept_device on sqlsync_kept (device)";

Bytes bytesOf(std::string_view text)
{
    return {text.data(), text.size()};
}

// Has triggers and foreign keys rest while it lives. Neither call can fail.
class Rest {
public:
    explicit Rest(sqlite3* connection) : _connection(connection)
    {
        for (auto& [option, former] : _settings) {
            sqlite3_db_config(_connection, option, -1, &former);
            sqlite3_db_config(_connection, option, 0, nullptr);
        }
    }
    Rest(const Rest&) = delete;
    Rest& operator=(const Rest&) = delete;
    ~Rest()
    {
        for (const auto& [option, former] : _settings)
            sqlite3_db_config(_connection, option, former, nullptr);
    }

private:
    struct Setting {
        int option;
        int former;
    };

    sqlite3* _connection;
    Setting _settings[2] = {{SQLITE_DBCONFIG_ENABLE_TRIGGER, 1}, {SQLITE_DBCONFIG_ENABLE_FKEY, 1}};
};

// --- Conflicts -----------------------------------------------------------------------------------

// The change that could not be made. SQLite calls with it: nothing here takes memory.
struct Conflict {
    const std::vector<SyncTable>& tables;
    const SyncTable* table = nullptr;
    int kind = 0;
    int operation = 0;
};

const SyncTable* findTable(const std::vector<SyncTable>& tables, std::string_view name)
{
    const auto found = std::find_if(tables.begin(), tables.end(),
                                    [name](const SyncTable& table) { return table.name == name; });
    return found != tables.end() ? &*found : nullptr;
}

int noteConflict(void* context, int kind, sqlite3_changeset_iter* changes)
{
    Conflict& conflict = *static_cast<Conflict*>(context);
    const char* name = "";
    int columns = 0;
    int isIndirect = 0;
    sqlite3changeset_op(changes, &name, &columns, &conflict.operation, &isIndirect);
    conflict.table = findTable(conflict.tables, name);
    conflict.kind = kind;
    return SQLITE_CHANGESET_ABORT;
}

const char* nameOf(int operation)
{
    if (operation == SQLITE_INSERT)
        return "insert";
    return operation == SQLITE_UPDATE ? "update" : "delete";
}

const char* whyConflict(int kind)
{
    switch (kind) {
    case SQLITE_CHANGESET_DATA:
        return "the row has other values here";
    case SQLITE_CHANGESET_NOTFOUND:
        return "there is no such row here";
    case SQLITE_CHANGESET_CONFLICT:
        return "there is a row with this key here";
    default:
        return "a constraint forbids it here";
    }
}

// --- Tables --------------------------------------------------------------------------------------

// What differs between a column of the device's and one of this file.
string whyNotSame(const SyncColumn& theirs, const SyncColumn& ours)
{
    if (theirs.name != ours.name)
        return joined({"column '", theirs.name, "' is '", ours.name, "' here"});
    if (theirs.type != ours.type)
        return joined({"column '", theirs.name, "' has type '", theirs.type, "', and '", ours.type,
                       "' here"});
    if (theirs.keyOrdinal != ours.keyOrdinal)
        return joined({"column '", theirs.name, "' has another place in the key here"});
    if (theirs.isNotNull != ours.isNotNull)
        return joined({"column '", theirs.name, "' may be null on one side alone"});
    return string();
}

// Columns that are behind theirs, added by a later release, keep what they hold and begin with their
// defaults.
string whyNotSame(const SyncTable& theirs, const SyncTable& ours)
{
    const std::size_t common = std::min(theirs.columns.size(), ours.columns.size());
    for (std::size_t i = 0; i < common; ++i) {
        string why = whyNotSame(theirs.columns[i], ours.columns[i]);
        if (!why.empty())
            return why;
    }
    if (theirs.columns.size() > common)
        return joined({"column '", theirs.columns[common].name, "' is missing here"});
    for (std::size_t i = common; i < ours.columns.size(); ++i) {
        if (ours.columns[i].keyOrdinal != 0)
            return joined({"column '", ours.columns[i].name, "' of the key is here alone"});
    }
    return string();
}

} // namespace

// A change set on its way, and what becomes of it.
struct Inbox::Set {
    std::string_view header;
    std::string_view bytes;
    Envelope envelope = {};
    std::vector<bool> isTouched = {}; // by table of the envelope
    Received received = Received::applied;
    string reason = {};  // why it is kept
    integer missing = 0; // commits before it that never come
};

struct Inbox::Mark : SyncMark {
    integer lost = 0; // commits that never come
};

// --- Opening -------------------------------------------------------------------------------------

Inbox::Inbox(Database& database, const std::vector<string>& tables,
             std::chrono::milliseconds patience)
    : _database(&database), _connection(database.getHandle()), _patience(patience)
{
    _error = open(tables);
}

bool Inbox::isOpen() const
{
    return !_error;
}

const Error& Inbox::error() const
{
    return _error;
}

Error Inbox::open(const std::vector<string>& tables)
{
    if (_connection == nullptr)
        return failed("Inbox", SQLITE_MISUSE, database_not_open);
    if (tables.empty())
        return failed("Inbox", SQLITE_MISUSE, "there is no table");
    Transaction transaction(*_database, begin_immediate, _patience);
    if (!transaction.isOpen())
        return transaction.error();
    if (Error error = takeTables(tables))
        return error;
    return transaction.commit() ? Error() : transaction.error();
}

Error Inbox::takeTables(const std::vector<string>& tables)
{
    const Result<int> made = runScript(*_database, make_tables);
    if (!made)
        return made.error();
    for (const string& name : tables)
        _tables.push_back({name, {}});
    if (Error error = readTables("Inbox"))
        return error;
    if (Error error = checkUnrecorded())
        return error;
    Statement add(*_database, "insert or ignore into main.sqlsync_inbox_table values (?)");
    for (const SyncTable& table : _tables) {
        if (!add.run(table.name))
            return add.error();
    }
    return Error();
}

// A table has one writer: a device's own rows are not overwritten by others'.
Error Inbox::checkUnrecorded() const
{
    const auto hasSchemas =
        Statement(*_database,
                  "select count(*) from main.sqlite_master where name = 'sqlsync_schema'")
            .one<bool>();
    if (!hasSchemas || !*hasSchemas)
        return hasSchemas.error();
    std::string_view description;
    Statement schemas(*_database, "select description from main.sqlsync_schema");
    while (schemas.next(description)) {
        std::vector<SyncTable> recorded;
        const string why = whyNotSchema(description, recorded);
        if (!why.empty())
            return failed("Inbox", SQLITE_CORRUPT, why);
        for (const SyncTable& table : recorded) {
            if (tableOf(table.name) != nullptr)
                return failed("Inbox", SQLITE_MISUSE,
                              joined({"table '", table.name, "': it is recorded in this file"}));
        }
    }
    return schemas.finished() ? Error() : schemas.error();
}

const SyncTable* Inbox::tableOf(std::string_view name) const
{
    return findTable(_tables, name);
}

Error Inbox::checkUse(const char* operation) const
{
    if (_error)
        return _error;
    if (_database->getHandle() != _connection)
        return failed(operation, SQLITE_MISUSE, database_closed);
    return Error();
}

// Again whenever the file's schema has changed.
Error Inbox::readTables(const char* operation)
{
    const auto version = Statement(*_database, "pragma main.schema_version").one<integer>();
    if (!version || *version == _schemaVersion)
        return version.error();
    for (SyncTable& table : _tables) {
        Result<SyncTable> read = describeTable(*_database, operation, table.name);
        if (!read)
            return read.error();
        table = *std::move(read);
    }
    _schemaVersion = *version;
    return Error();
}

// --- Checks --------------------------------------------------------------------------------------

Error Inbox::readHeader(const char* operation, const string& device, std::string_view header,
                        Envelope& envelope)
{
    const string why = whyNotEnvelope(header, envelope);
    if (!why.empty())
        return failed(operation, SQLITE_CORRUPT, why);
    if (envelope.device != device)
        return failed(operation, SQLITE_MISMATCH,
                      joined({"the change set is of device '", envelope.device, "'"}));
    return Error();
}

Error Inbox::readSet(const char* operation, const string& device, Set& set)
{
    if (Error error = readHeader(operation, device, set.header, set.envelope))
        return error;
    integer count = 0;
    const string why = whyNotChanges(set.envelope, set.bytes, count, set.isTouched);
    return why.empty() ? Error() : failed(operation, SQLITE_CORRUPT, why);
}

Error Inbox::checkTables(const char* operation, const Set& set)
{
    if (Error error = readTables(operation))
        return error;
    for (std::size_t i = 0; i < set.envelope.tables.size(); ++i) {
        const SyncTable& theirs = set.envelope.tables[i];
        const SyncTable* const ours = tableOf(theirs.name);
        if (ours == nullptr && set.isTouched[i])
            return failed(operation, SQLITE_SCHEMA,
                          joined({"table '", theirs.name, "': the inbox was not opened for it"}));
        const string why = ours != nullptr ? whyNotSame(theirs, *ours) : string();
        if (!why.empty())
            return failed(operation, SQLITE_SCHEMA, joined({"table '", theirs.name, "': ", why}));
    }
    return Error();
}

// --- Positions -----------------------------------------------------------------------------------

Error Inbox::readMark(const string& device, const Envelope& envelope, Mark& mark) const
{
    const auto found = Statement(*_database, "select incarnation, number, checksum, lost"
                                             " from main.sqlsync_inbox where device = ?")
                           .one<integer, integer, integer, integer>(device);
    if (found)
        std::tie(mark.position.incarnation, mark.position.number, mark.checksum,
                 mark.lost) = *found;
    if (found.failed())
        return found.error();
    const auto line = Statement(
                          *_database,
                          "select ? between first and last, retired"
                          " from main.sqlsync_incarnation where device = ? and incarnation = ?")
                          .one<bool, bool>(envelope.last.number, device, envelope.last.incarnation);
    if (line)
        std::tie(mark.isKnown, mark.isRetired) = *line;
    return line.error();
}

Error Inbox::moveMark(const string& device, const Mark& mark) const
{
    Statement move(*_database, "insert or replace into main.sqlsync_inbox values (?, ?, ?, ?, ?)");
    return move.run(device, mark.position.incarnation, mark.position.number, mark.checksum,
                    mark.lost)
               ? Error()
               : move.error();
}

// Commits of an incarnation that have come, or were passed over.
Error Inbox::noteCommits(const string& device, integer first, const SyncPosition& last) const
{
    Statement note(*_database, "insert into main.sqlsync_incarnation values (?, ?, ?, ?, 0)"
                               " on conflict (device, incarnation) do update"
                               " set first = min(first, excluded.first),"
                               " last = max(last, excluded.last)");
    return note.run(device, last.incarnation, first, last.number) ? Error() : note.error();
}

// --- Receiving -----------------------------------------------------------------------------------

Result<Received> Inbox::apply(const string& device, std::string_view header, std::string_view bytes)
{
    if (Error error = checkUse("apply"))
        return error;
    Set set{header, bytes};
    if (Error error = readSet("apply", device, set))
        return error;
    const Rest rest(_connection);
    Transaction transaction(*_database, begin_immediate, _patience);
    if (!transaction.isOpen())
        return transaction.error();
    if (Error error = receive(device, set))
        return error;
    if (!transaction.commit())
        return transaction.error();
    if (set.missing > 0)
        TRACE_ERROR("Device '%s' has dropped %lld commits, up to %lld", device.c_str(), set.missing,
                    set.envelope.previous.number);
    if (set.received == Received::kept)
        TRACE_ERROR("Kept the change set of device '%s' up to %lld: %s", device.c_str(),
                    set.envelope.last.number, set.reason.c_str());
    return set.received;
}

Error Inbox::receive(const string& device, Set& set)
{
    const Envelope& envelope = set.envelope;
    Mark mark;
    if (Error error = readMark(device, envelope, mark))
        return error;
    const Result<bool> isNext = isTurn("apply", envelope, mark);
    if (!isNext)
        return isNext.error();
    if (!*isNext) {
        set.received = Received::repeated;
        return Error();
    }
    if (Error error = checkTables("apply", set))
        return error;
    if (Error error = changeInTurn(device, set))
        return error;
    set.missing = envelope.previous.number - mark.position.number;
    if (Error error = noteCommits(device, mark.position.number + 1, envelope.last))
        return error;
    mark.position = envelope.last;
    mark.checksum = static_cast<integer>(envelope.checksum);
    mark.lost += set.missing;
    return moveMark(device, mark);
}

// A set behind one that is kept is kept, too.
Error Inbox::changeInTurn(const string& device, Set& set) const
{
    const Result<integer> oldest = number(
        "select last from main.sqlsync_kept where device = ? order by id limit 1", device);
    if (oldest.failed())
        return oldest.error();
    if (oldest) {
        set.received = Received::kept;
        set.reason = joined({"it waits for the one up to ", intToStr(*oldest)});
    } else if (Error error = change("apply", set)) {
        return error;
    }
    return set.received == Received::kept ? keep(device, set) : Error();
}

// All of the set, or nothing and the reason. SQLite's own savepoint does not tell when it cannot be
// rolled back, and would leave a part.
Error Inbox::change(const char* operation, Set& set) const
{
    Savepoint part(*_database);
    if (!part.isOpen())
        return part.error();
    Conflict conflict{_tables};
    const int rc = sqlite3changeset_apply_v2(
        _connection, static_cast<int>(set.bytes.size()), const_cast<char*>(set.bytes.data()),
        nullptr, noteConflict, &conflict, nullptr, nullptr, SQLITE_CHANGESETAPPLY_NOSAVEPOINT);
    if (rc == SQLITE_OK)
        return part.commit() ? Error() : part.error();
    if (conflict.table == nullptr)
        return failed(operation, extendedCodeOf(_connection, rc), reasonOf(_connection, rc));
    if (!part.rollback())
        return part.error();
    if (sqlite3_get_autocommit(_connection) != 0)
        return failed(operation, SQLITE_ABORT_ROLLBACK, "SQLite has rolled the transaction back");
    set.received = Received::kept;
    set.reason = joined({"table '", conflict.table->name, "', ", nameOf(conflict.operation), ": ",
                         whyConflict(conflict.kind)});
    return Error();
}

Error Inbox::keep(const string& device, const Set& set) const
{
    Statement add(*_database, "insert into main.sqlsync_kept (device, last, header, bytes, reason)"
                              " values (?, ?, ?, ?, ?)");
    return add.run(device, set.envelope.last.number, bytesOf(set.header), bytesOf(set.bytes),
                   set.reason)
               ? Error()
               : add.error();
}

// --- What an operator does -----------------------------------------------------------------------

Result<bool> Inbox::admit(const string& device, std::string_view header)
{
    if (Error error = checkUse("admit"))
        return error;
    Envelope envelope;
    if (Error error = readHeader("admit", device, header, envelope))
        return error;
    Transaction transaction(*_database, begin_immediate, _patience);
    if (!transaction.isOpen())
        return transaction.error();
    Mark mark;
    if (Error error = readMark(device, envelope, mark))
        return error;
    if (mark.isRetired)
        return failed("admit", SQLITE_AUTH, retired);
    if (hasCome(envelope, mark))
        return failed("admit", SQLITE_MISUSE, "the change set has come before");
    if (envelope.previous != mark.position) {
        if (Error error = admitAfter(device, envelope, mark))
            return error;
    }
    if (!transaction.commit())
        return transaction.error();
    return true;
}

// The set is the next then, and the former line ends.
Error Inbox::admitAfter(const string& device, const Envelope& envelope, const Mark& mark) const
{
    const SyncPosition& former = mark.position;
    const integer missing = std::max(envelope.previous.number - former.number, 0LL);
    if (missing > 0) {
        if (Error error = noteCommits(device, former.number + 1, envelope.previous))
            return error;
    }
    if (former.incarnation != envelope.last.incarnation) {
        Statement retire(*_database, "update main.sqlsync_incarnation set retired = 1"
                                     " where device = ? and incarnation = ?");
        if (!retire.run(device, former.incarnation))
            return retire.error();
    }
    Mark moved;
    moved.position = envelope.previous;
    moved.lost = mark.lost + missing;
    return moveMark(device, moved);
}

Result<integer> Inbox::retry(const string& device)
{
    if (Error error = checkUse("retry"))
        return error;
    const Rest rest(_connection);
    Transaction transaction(*_database, begin_immediate, _patience);
    if (!transaction.isOpen())
        return transaction.error();
    integer count = 0;
    for (bool isApplied = true; isApplied; count += isApplied) {
        if (Error error = retryOldest(device, isApplied))
            return error;
    }
    if (!transaction.commit())
        return transaction.error();
    return count;
}

Error Inbox::retryOldest(const string& device, bool& isApplied)
{
    isApplied = false;
    Statement oldest(*_database, "select id, header, bytes from main.sqlsync_kept where device = ?"
                                 " order by id limit 1");
    const auto kept = oldest.one<integer, string, string>(device);
    if (!kept)
        return kept.error();
    Set set{std::get<1>(*kept), std::get<2>(*kept)};
    if (Error error = readSet("retry", device, set))
        return error;
    if (Error error = checkTables("retry", set))
        return error;
    if (Error error = change("retry", set))
        return error;
    Statement settle(*_database, set.received == Received::kept
                                     ? "update main.sqlsync_kept set reason = ?2 where id = ?1"
                                     : "delete from main.sqlsync_kept where id = ?1 and ?2 = ''");
    if (!settle.run(std::get<0>(*kept), set.reason))
        return settle.error();
    isApplied = set.received == Received::applied;
    return Error();
}

Result<bool> Inbox::discard(const string& device)
{
    if (Error error = checkUse("discard"))
        return error;
    Statement drop(*_database, "delete from main.sqlsync_kept where id ="
                               " (select min(id) from main.sqlsync_kept where device = ?)");
    if (!drop.run(device))
        return drop.error();
    return drop.changes() > 0 ? Result<bool>(true) : Result<bool>();
}

Result<integer> Inbox::kept(const string& device) const
{
    if (Error error = checkUse("kept"))
        return error;
    return number("select count(*) from main.sqlsync_kept where device = ?", device);
}

Result<integer> Inbox::lost(const string& device) const
{
    if (Error error = checkUse("lost"))
        return error;
    return number("select total(lost) from main.sqlsync_inbox where device = ?", device);
}

Result<integer> Inbox::number(const char* query, const string& device) const
{
    return Statement(*_database, query).one<integer>(device);
}

} // namespace sql
