#include "SqlRecorder.h"

#include "SqlCommitGuard.h"
#include "SqlFailure.h"
#include "SqlOutboxFile.h"
#include "SqlSchema.h"
#include "SqlStatement.h"
#include "SqlTrace.h"

#include <sqlite3.h>

#include <unistd.h>

namespace sql {

namespace {

// Never 0; which is returned where the system has none.
integer randomNumber()
{
    integer number = 0;
    while (number == 0) {
        if (::getentropy(&number, sizeof(number)) != 0)
            return 0;
    }
    return number;
}

struct SessionEnd {
    void operator()(sqlite3_session* session) const
    {
        sqlite3session_delete(session);
    }
};
typedef std::unique_ptr<sqlite3_session, SessionEnd> Session;

} // namespace

// --- What it holds while it records ---------------------------------------------------------------

// The statements keep the connection, which the session needs to end, from closing before.
struct Recorder::Core : CommitGuard {
    Core(Database& database, std::vector<SyncTable> described);
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    Session makeSession() const;
    bool start();
    bool hasSeenAll() const;
    bool allowsCommit() const;
    Error whyNotReady();
    Error look();

    sqlite3* db;
    std::vector<SyncTable> tables;
    string description;
    integer hash;
    Statement askSchema;
    Statement askData;
    Statement askState;
    Statement keepSchema;
    Statement keepChanges;
    Statement keepState;
    Statement beginPart; // of a transaction: what is stored as it commits
    Statement undoPart;
    integer schemaVersion = 0;
    integer dataVersion = 0; // which other connections move
    SyncPosition seen;       // the latest commit of the file
    integer incarnation = 0; // of its own commits; 0 before the first
    bool isCommitting = false;
    Session session;
    Session spare; // for the next start
    Session former;
};

Recorder::Core::Core(Database& database, std::vector<SyncTable> described)
    : CommitGuard(
        database.getHandle(),
        [](CommitGuard& core) { return static_cast<Core&>(core).allowsCommit(); },
        [](CommitGuard& core) { static_cast<Core&>(core).start(); }),
      db(database.getHandle()), tables(std::move(described)), description(encodeSchema(tables)),
      hash(static_cast<integer>(checksumOf(description))),
      askSchema(database, "pragma main.schema_version"),
      askData(database, "pragma main.data_version"),
      askState(database, "select incarnation, number from main.sqlsync_state"),
      keepSchema(database, "insert or ignore into main.sqlsync_schema values (?, ?)"),
      keepChanges(database, "insert into main.sqlsync_outbox values (?, ?, ?, ?, ?, ?)"),
      keepState(database, "update main.sqlsync_state set incarnation = ?, number = ?,"
                          " bytes = bytes + ?"),
      beginPart(database, "savepoint sqlsync"), undoPart(database, "rollback to sqlsync")
{
}

Error Recorder::Core::whyNotReady()
{
    for (const Statement* statement : {&askSchema, &askData, &askState, &keepSchema, &keepChanges,
                                       &keepState, &beginPart, &undoPart}) {
        if (!statement->isPrepared())
            return statement->error();
    }
    const Result<integer> version = askSchema.one<integer>();
    if (!version)
        return version.error();
    schemaVersion = *version;
    return start() ? look() : failed("Recorder", SQLITE_NOMEM, no_memory);
}

// Where the file stands, and whether other connections have committed.
Error Recorder::Core::look()
{
    const Result<integer> data = askData.one<integer>();
    if (!data)
        return data.error();
    const auto state = askState.one<integer, integer>();
    if (!state)
        return state.error();
    dataVersion = *data;
    seen = {std::get<0>(*state), std::get<1>(*state)};
    return Error();
}

// One that does not record yet; null without memory.
Session Recorder::Core::makeSession() const
{
    sqlite3_session* made = nullptr;
    int rc = sqlite3session_create(db, "main", &made);
    Session owner(made);
    for (auto table = tables.begin(); rc == SQLITE_OK && table != tables.end(); ++table)
        rc = sqlite3session_attach(made, table->name.c_str());
    if (rc != SQLITE_OK)
        return nullptr;
    sqlite3session_enable(made, 0);
    sqlite3session_table_filter(
        made, [](void*, const char*) { return 0; }, nullptr);
    return owner;
}

// Forgets what has changed so far. SQLite has it called as it rolls back, maybe since the session has failed
// in a function that is still running: so it uses no statement, and the former session lives on until the
// next start. Takes no memory if there was some the last time. Else the former session stays, which has
// recorded changes: nothing is committed then.
bool Recorder::Core::start()
{
    if (spare == nullptr)
        spare = makeSession();
    if (spare == nullptr)
        return false;
    former = std::move(session);
    if (former != nullptr)
        sqlite3session_enable(former.get(), 0);
    session = std::move(spare);
    sqlite3session_enable(session.get(), 1);
    spare = makeSession();
    return spare != nullptr;
}

// A session that could not record a change, for lack of memory or since it was interrupted, says so as it
// is asked for the difference of a table that there is not; which its filter keeps it from looking for.
bool Recorder::Core::hasSeenAll() const
{
    return sqlite3session_diff(session.get(), "main", "", nullptr) == SQLITE_OK;
}

bool Recorder::Core::allowsCommit() const
{
    if (isCommitting || (hasSeenAll() && sqlite3session_isempty(session.get()) != 0))
        return true;
    TRACE_ERROR_AS("Recorder",
                   "Refused a commit of recorded tables outside of a RecordedTransaction");
    return false;
}

// --- Recorder -------------------------------------------------------------------------------------

Recorder::Recorder(Database& database, const std::vector<string>& tables,
                   const RecorderOptions& options)
    : _database(&database), _tables(tables), _options(options)
{
    begin("Recorder");
}

Recorder::~Recorder() = default;

bool Recorder::isRecording() const
{
    return _core != nullptr;
}

bool Recorder::renew()
{
    return begin("renew");
}

integer Recorder::unrecorded() const
{
    return _unrecorded;
}

const Error& Recorder::error() const
{
    return _error;
}

// In a transaction, so that all belongs to one schema.
bool Recorder::begin(const char* operation)
{
    _error = Error();
    if (const char* const why = whyNotBegun())
        return fail(operation, SQLITE_MISUSE, why);
    Transaction transaction(*_database, begin_immediate);
    if (!transaction.isOpen())
        return failAs(transaction.error());
    if (const Error error = makeOutbox(*_database))
        return failAs(error);
    std::unique_ptr<Core> core = describe(operation);
    if (core == nullptr || !checkInbox(operation, core->tables))
        return false;
    const Bytes description{core->description.data(), core->description.size()};
    if (!core->keepSchema.run(core->hash, description))
        return failAs(core->keepSchema.error());
    if (!transaction.commit())
        return failAs(transaction.error());
    if (!expireStatements())
        return false;
    _core = std::move(core);
    return true;
}

const char* Recorder::whyNotBegun() const
{
    sqlite3* const db = _database->getHandle();
    if (db == nullptr)
        return database_not_open;
    if (CommitGuard::of(db) != nullptr && (_core == nullptr || _core->db != db))
        return "the connection has a recorder";
    if (sqlite3_get_autocommit(db) == 0)
        return "a transaction is open";
    return _tables.empty() ? "there are no tables" : nullptr;
}

std::unique_ptr<Recorder::Core> Recorder::describe(const char* operation)
{
    std::vector<SyncTable> described;
    for (const string& name : _tables) {
        Result<SyncTable> table = describeTable(*_database, operation, name);
        if (!table) {
            failAs(table.error());
            return nullptr;
        }
        described.push_back(std::move(*table));
    }
    auto core = std::make_unique<Core>(*_database, std::move(described));
    const Error reason = core->whyNotReady();
    if (!reason)
        return core;
    failAs(reason);
    return nullptr;
}

// Each table has one writer: this file, or an inbox of it.
bool Recorder::checkInbox(const char* operation, const std::vector<SyncTable>& tables)
{
    Statement find(*_database,
                   "select 1 from main.sqlite_master where name = 'sqlsync_inbox_table'");
    const Result<int> hasInbox = find.one<int>();
    if (!hasInbox)
        return !hasInbox.failed() || failAs(hasInbox.error());
    Statement ask(*_database, "select 1 from main.sqlsync_inbox_table where name = ?");
    for (const SyncTable& table : tables) {
        const Result<int> isOpened = ask.one<int>(table.name);
        if (isOpened.failed())
            return failAs(isOpened.error());
        if (isOpened)
            return fail(operation, SQLITE_MISUSE,
                        joined({"table '", table.name, "': an inbox writes it in this file"}));
    }
    return true;
}

// Statements that were compiled before may have SQLite empty a table without telling of its rows: all are
// compiled anew once a setting was set, to what it is.
bool Recorder::expireStatements()
{
    Statement ask(*_database, "pragma recursive_triggers");
    const Result<bool> setting = ask.one<bool>();
    if (!setting)
        return failAs(setting.error());
    const Result<int> done = runScript(*_database, *setting ? "pragma recursive_triggers = on"
                                                            : "pragma recursive_triggers = off");
    return done || failAs(done.error());
}

bool Recorder::fail(const char* operation, int rc, const string& why)
{
    return failAs(failed(operation, rc, why));
}

bool Recorder::failAs(const Error& error)
{
    _error = error;
    return false;
}

// --- Transactions ---------------------------------------------------------------------------------

RecordedTransaction::RecordedTransaction(Recorder& recorder, std::chrono::milliseconds patience)
    : _recorder(&recorder)
{
    if (recorder._core == nullptr) { // which was told
        _error = recorder._error;
        return;
    }
    if (recorder._database->getHandle() != recorder._core->db) {
        fail("begin", SQLITE_MISUSE, database_closed);
        return;
    }
    _transaction.emplace(*recorder._database, begin_immediate, patience);
    if (!_transaction->isOpen())
        failAs(_transaction->error());
    else if (!isOfSchema("begin") || !look())
        _transaction.reset();
}

// Here no session is in use any more.
RecordedTransaction::~RecordedTransaction()
{
    _transaction.reset();
    if (_recorder->_core != nullptr)
        _recorder->_core->former = nullptr;
}

bool RecordedTransaction::isOpen() const
{
    return _transaction && _transaction->isOpen();
}

bool RecordedTransaction::isOfSchema(const char* operation)
{
    Recorder::Core& core = *_recorder->_core;
    const Result<integer> version = core.askSchema.one<integer>();
    if (!version)
        return failAs(version.error());
    return *version == core.schemaVersion
           || fail(operation, SQLITE_SCHEMA, "the schema has changed: renew the recorder");
}

// Looks what others have done to the file.
bool RecordedTransaction::look()
{
    Recorder::Core& core = *_recorder->_core;
    const SyncPosition seen = core.seen;
    const integer dataVersion = core.dataVersion;
    const Error reason = core.look();
    if (reason)
        return failAs(reason);
    if (core.dataVersion != dataVersion && core.seen == seen) {
        ++_recorder->_unrecorded;
        TRACE_ERROR_AS("RecordedTransaction",
                       "Another connection has committed what is not recorded");
    }
    if (core.seen.number < seen.number) // the file was restored: its numbers come again
        core.incarnation = 0;
    _previous = core.seen;
    return core.start() || fail("begin", SQLITE_NOMEM, no_memory);
}

// What was stored is undone if it cannot be committed: there may be more to store the next time. All is
// undone where that fails, too, where not all was recorded, and where std::bad_alloc ends it.
bool RecordedTransaction::commit()
{
    if (!_transaction)
        return false;
    Recorder::Core& core = *_recorder->_core;
    if (!_transaction->isOpen())
        return commitAll(); // which says why not
    if (!isOfSchema("commit"))
        return false;
    if (!core.beginPart.run())
        return failAs(core.beginPart.error());
    const auto undoAll = [](std::optional<Transaction>* transaction) {
        transaction->reset();
    };
    std::unique_ptr<std::optional<Transaction>, decltype(undoAll)> part(&_transaction, undoAll);
    SyncPosition position = _previous;
    if (store(position) && commitAll()) {
        (void)part.release();
        core.seen = position;
        core.start();
        return true;
    }
    if (!_transaction->isOpen() || (core.hasSeenAll() && core.undoPart.run()))
        (void)part.release();
    return false;
}

bool RecordedTransaction::commitAll()
{
    const auto end = [](bool* isCommitting) {
        *isCommitting = false;
    };
    const std::unique_ptr<bool, decltype(end)> committing(&_recorder->_core->isCommitting, end);
    *committing = true;
    const bool isCommitted = _transaction->commit();
    _error = _transaction->error();
    return isCommitted;
}

bool RecordedTransaction::store(SyncPosition& position)
{
    Recorder::Core& core = *_recorder->_core;
    int size = 0;
    void* bytes = nullptr;
    const int rc = sqlite3session_changeset(core.session.get(), &size, &bytes);
    const std::unique_ptr<void, decltype(&sqlite3_free)> owner(bytes, sqlite3_free);
    if (rc != SQLITE_OK)
        return fail("commit", rc, sqlite3_errstr(rc));
    if (size == 0)
        return true;
    if (core.incarnation == 0)
        core.incarnation = randomNumber();
    if (core.incarnation == 0)
        return fail("commit", SQLITE_IOERR, "the system has no random numbers");
    position = {core.incarnation, _previous.number + 1};
    const Bytes changes{bytes, static_cast<std::size_t>(size)};
    if (!core.keepChanges.run(position.number, position.incarnation, _previous.number,
                              _previous.incarnation, core.hash, changes))
        return failAs(core.keepChanges.error());
    if (!core.keepState.run(position.incarnation, position.number, size))
        return failAs(core.keepState.error());
    const RecorderOptions& options = _recorder->_options;
    if (options.limit == 0)
        return true;
    const Error reason = keepLimit(*_recorder->_database, position.number, options.limit,
                                   options.whenFull);
    return !reason || failAs(reason);
}

bool RecordedTransaction::rollback()
{
    if (!_transaction)
        return false;
    const bool isDone = _transaction->rollback();
    _error = _transaction->error();
    return isDone;
}

const Error& RecordedTransaction::error() const
{
    return _error;
}

bool RecordedTransaction::fail(const char* operation, int rc, const string& why)
{
    return failAs(failed(operation, rc, why));
}

bool RecordedTransaction::failAs(const Error& error)
{
    _error = error;
    return false;
}

} // namespace sql
