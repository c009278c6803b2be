#include "SqlSettings.h"

#include "SqlFailure.h"
#include "SqlStatement.h"
#include "SqlStop.h"

#include <sqlite3.h>

#include <climits>
#include <cstdlib>

namespace sql {

namespace {

constexpr std::string_view page_size = "page_size";
constexpr std::string_view busy_timeout = "busy_timeout";

const char* nameOf(JournalMode mode)
{
    switch (mode) {
    case journal_delete:
        return "delete";
    case journal_truncate:
        return "truncate";
    case journal_persist:
        return "persist";
    case journal_memory:
        return "memory";
    case journal_wal:
        return "wal";
    case journal_off:
        break;
    }
    return "off";
}

const char* nameOf(CheckpointMode mode)
{
    switch (mode) {
    case checkpoint_passive:
        return "passive";
    case checkpoint_full:
        return "full";
    case checkpoint_restart:
        return "restart";
    case checkpoint_truncate:
        break;
    }
    return "truncate";
}

// As SQLite answers when it is asked for the setting.
template <typename Number> std::optional<string> textOf(const std::optional<Number>& number)
{
    return number ? std::optional<string>(intToStr(static_cast<integer>(*number))) : std::nullopt;
}

std::optional<string> textOf(const std::optional<std::chrono::milliseconds>& time)
{
    return time ? std::optional<string>(intToStr(static_cast<integer>(time->count())))
                : std::nullopt;
}

std::optional<string> textOf(const std::optional<JournalMode>& mode)
{
    return mode ? std::optional<string>(nameOf(*mode)) : std::nullopt;
}

} // namespace

// A pragma that runs under the name of an operation, and whose failures are told by failed() alone.
// It is compiled when it runs: SQLite sets some settings then already.
class Pragma {
public:
    Pragma(Database& database, string text) : _database(database), _text(std::move(text))
    {
    }

    // The cells of the first row, or none of them.
    template <typename... Cells> Presence read(const char* operation, Cells&... cells)
    {
        const Statement::Variable variables[] = {Statement::variableOf(cells)..., {}};
        return statement(operation).readFirst(operation, nullptr, 0, variables, sizeof...(Cells));
    }

    bool next(const char* operation, string& cell)
    {
        const Statement::Variable variable = Statement::variableOf(cell);
        return statement(operation).readNext(operation, &variable, 1);
    }

    bool finished() const
    {
        return _statement->finished();
    }

    Error failed(const char* operation, int rc, const string& why) const
    {
        reportFailure(operation, _text.c_str(), rc, why.c_str());
        return errorOf(_database.getHandle(), rc, why, _text.c_str());
    }

    Error failedAsSqlite(const char* operation) const
    {
        const Error& reason = _statement->error();
        return failed(operation, reason.extendedCode(), reason.text());
    }

    Error failedToSet(const char* operation, const string& setting) const
    {
        const Error& reason = _statement->error();
        return failed(operation, reason.extendedCode(), joined({setting, ": ", reason.text()}));
    }

private:
    static constexpr integer untold = -1; // as the record that a failure is about

    Statement& statement(const char* operation)
    {
        if (!_statement)
            _statement = Statement(operation, _database, _text, untold);
        return *_statement;
    }

    Database& _database;
    string _text;
    std::optional<Statement> _statement;
};

namespace {

bool isInTransaction(Database& database)
{
    sqlite3* const db = database.getHandle();
    return db != nullptr && sqlite3_get_autocommit(db) == 0;
}

// The hook of a connection that heeds a StopFlag, which a busy timeout of SQLite's would displace.
StopHook* hookFor(Database& database, std::string_view name)
{
    return name == busy_timeout ? StopHook::of(database.getHandle()) : nullptr;
}

// As SQLite reads such a number.
int timeoutOf(const string& value)
{
    const long long number = std::strtoll(value.c_str(), nullptr, 10);
    return number < 0 || number > INT_MAX ? 0 : static_cast<int>(number);
}

// Error() once SQLite has had the setting, taken or not.
Error give(Database& database, std::string_view name, const string& value)
{
    const string setting = joined({name, " = ", value});
    Pragma change(database, "pragma main." + setting);
    if (isInTransaction(database))
        return change.failed("apply", SQLITE_MISUSE, setting + ": a transaction is open");
    if (isStopRequested(database.getHandle())) // what is set when it is compiled is not interrupted
        return change.failed("apply", SQLITE_INTERRUPT,
                             joined({setting, ": ", sqlite3_errstr(SQLITE_INTERRUPT)}));
    if (StopHook* const hook = hookFor(database, name))
        hook->setBusyTimeout(timeoutOf(value));
    else if (change.read("apply") == Presence::unknown)
        return change.failedToSet("apply", setting);
    Pragma look(database, "pragma main.schema_version");
    // A page size counts as set until the file is read, which another may have filled.
    if (name == page_size && look.read("apply") == Presence::unknown)
        return look.failedToSet("apply", setting);
    return Error();
}

// SQLite passes over in silence what it does not take.
Error set(Database& database, std::string_view name, const string& value)
{
    if (Error error = give(database, name, value))
        return error;
    string present = "unknown";
    Pragma question(database, joined({"pragma main.", name}));
    if (StopHook* const hook = hookFor(database, name))
        present = intToStr(hook->busyTimeout());
    else if (question.read("apply", present) == Presence::unknown)
        return question.failedToSet("apply", joined({name, " = ", value}));
    if (present == value)
        return Error();
    const Pragma change(database, joined({"pragma main.", name, " = ", value}));
    return change.failed("apply", SQLITE_ERROR, joined({name, " is ", present, ", not ", value}));
}

} // namespace

Result<bool> Settings::apply(Database& database) const
{
    const struct {
        std::string_view name;
        std::optional<string> value;
    } settings[] = {
        {busy_timeout, textOf(busyTimeout)},   {"foreign_keys", textOf(foreignKeys)},
        {"cache_size", textOf(cacheSize)},     {"mmap_size", textOf(mmapSize)},
        {"temp_store", textOf(tempStore)},     {page_size, textOf(pageSize)},
        {"journal_mode", textOf(journalMode)}, {"synchronous", textOf(synchronous)},
    };
    for (const auto& [name, value] : settings) {
        Error error = value ? set(database, name, *value) : Error();
        if (error)
            return error;
    }
    return true;
}

Result<std::vector<string>> checkIntegrity(Database& database, IntegrityCheck check)
{
    std::vector<string> complaints;
    if (check == check_none)
        return complaints;
    Pragma pragma(database,
                  check == check_quick ? "pragma main.quick_check" : "pragma main.integrity_check");
    for (string line; pragma.next("checkIntegrity", line);) {
        if (line != "ok")
            complaints.push_back(line);
    }
    if (!pragma.finished())
        return pragma.failedAsSqlite("checkIntegrity");
    return complaints;
}

Result<integer> checkpoint(Database& database, CheckpointMode mode)
{
    Pragma pragma(database, joined({"pragma main.wal_checkpoint(", nameOf(mode), ")"}));
    integer isBusy = 0;
    integer frames = 0;
    integer copied = 0;
    if (pragma.read("checkpoint", isBusy, frames, copied) != Presence::present)
        return pragma.failedAsSqlite("checkpoint");
    if (isBusy != 0 && frames < 0)
        return pragma.failed("checkpoint", SQLITE_BUSY, "another checkpoint is under way");
    if (isBusy != 0)
        return pragma.failed(
            "checkpoint", SQLITE_BUSY,
            joined({"the log is in use: ", intToStr(frames - copied), " frames are left"}));
    if (frames < 0)
        return Result<integer>();
    return frames - copied;
}

Result<bool> optimize(Database& database)
{
    Pragma pragma(database, "pragma main.optimize");
    if (pragma.read("optimize") == Presence::unknown)
        return pragma.failedAsSqlite("optimize");
    return true;
}

} // namespace sql
