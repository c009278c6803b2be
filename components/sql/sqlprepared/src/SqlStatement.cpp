#include "SqlStatementRun.h"

#include "SqlFailure.h"
#include "SqlNumber.h"
#include "SqlScript.h"
#include "SqlToken.h"
#include "SqlTrace.h"

#include <sqlite3.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <utility>

namespace sql {

namespace {

constexpr const char* gone = "the statement was released or moved from";

// Null where SQLite may have a look at the text. It would read no further than to a zero byte.
const char* whyNotCompiled(const sqlite3* db, const string& text)
{
    if (db == nullptr)
        return database_not_open;
    return text.find('\0') != string::npos ? "there is a zero byte in the text" : nullptr;
}

int boundText(sqlite3_stmt* statement, int position, Bytes text, sqlite3_destructor_type copy)
{
    const char* const data = text.data != nullptr ? static_cast<const char*>(text.data) : "";
    return sqlite3_bind_text64(statement, position, data, text.size, copy, SQLITE_UTF8);
}

int boundBlock(sqlite3_stmt* statement, int position, Bytes bytes, sqlite3_destructor_type copy)
{
    if (bytes.size == 0)
        return sqlite3_bind_zeroblob(statement, position, 0);
    return sqlite3_bind_blob64(statement, position, bytes.data, bytes.size, copy);
}

} // namespace

void Statement::traceRun(const char* operation) const
{
    TRACE_DEBUG2_AS(operation, "stmt='%s'", sqlite3_sql(_handle.statement));
    if (!traceLevelAbove(8))
        return;
    char* const text = sqlite3_expanded_sql(_handle.statement);
    if (text != nullptr)
        TRACE_DEBUG3_AS(operation, "%s", text);
    sqlite3_free(text);
}

// --- From the text to the release -----------------------------------------------------------------

Statement::Handle& Statement::Handle::operator=(Handle&& other) noexcept
{
    Handle former(std::move(other)); // swapped, so that one that takes itself stays
    std::swap(statement, former.statement);
    std::swap(state, former.state);
    return *this;
}

Statement::Handle::~Handle()
{
    // What a statement has written may be committed only here.
    const int rc = sqlite3_reset(statement);
    if (rc != SQLITE_OK) {
        sqlite3* const db = sqlite3_db_handle(statement);
        reportFailure("release", sqlite3_sql(statement), extendedCodeOf(db, rc), reasonOf(db, rc));
    }
    sqlite3_finalize(statement);
}

Statement::Statement(Database& database, const string& text)
    : Statement("Statement", database, text)
{
}

Statement::Statement(const char* operation, Database& database, const string& text, integer record)
    : _database(&database), _connection(database.getHandle()), _record(record)
{
    prepare(operation, text);
}

Statement::Statement(Statement&& other) noexcept = default;
Statement& Statement::operator=(Statement&& other) noexcept = default;
Statement::~Statement() = default;

void Statement::prepare(const char* operation, const string& text)
{
    if (const char* const why = whyNotCompiled(_connection, text))
        return refuse(operation, text, SQLITE_MISUSE, why);
    _givesKeys = givesKeys(_connection, text); // before SQLite's failure, which it replaces
    // With the final zero SQLite needs no copy.
    const int size = static_cast<int>(std::min<std::size_t>(text.size() + 1, INT_MAX));
    const char* rest = nullptr;
    const int rc = sqlite3_prepare_v3(_connection, text.c_str(), size, SQLITE_PREPARE_PERSISTENT,
                                      &_handle.statement, &rest);
    if (rc != SQLITE_OK)
        return refuse(operation, text, extendedCodeOf(_connection, rc), reasonOf(_connection, rc));
    if (_handle.statement == nullptr)
        return refuse(operation, text, SQLITE_MISUSE, "there is no statement in the text");
    if (rest[nextStatement(rest)] != '\0') {
        _handle = Handle();
        return refuse(operation, text, SQLITE_MISUSE,
                      "there is more than one statement in the text");
    }
    _handle.state = State::ready;
    _parameterCount = sqlite3_bind_parameter_count(_handle.statement);
    _writes = mayChange(text) && !isReadOnly();
    _inserts = _writes && mayInsert(text);
}

void Statement::refuse(const char* operation, const string& text, int rc, const char* why)
{
    if (_record >= 0)
        reportFailure(operation, text.c_str(), rc, why);
    _error = errorOf(_connection, rc, why, text.c_str());
}

void Statement::release()
{
    if (_handle.state == State::unprepared)
        return;
    const Handle released(std::move(_handle));
}

bool Statement::isPrepared() const
{
    return _handle.statement != nullptr;
}

bool Statement::failToUse(const char* operation)
{
    if (_handle.state != State::unprepared)
        fail(operation, State::failed, SQLITE_MISUSE,
             _handle.statement == nullptr ? gone : database_closed);
    return false;
}

// --- Values --------------------------------------------------------------------------------------

inline bool Statement::canBind()
{
    if (_handle.state == State::unbound)
        return false;
    if (!isUsable("bind")) {
        if (_handle.state != State::unprepared)
            _handle.state = State::unbound;
        return false;
    }
    if (_handle.state == State::row || _handle.state == State::broken)
        return fail("bind", State::unbound, SQLITE_MISUSE,
                    "a value was bound at a row: reset the statement before");
    _handle.state = State::ready;
    forgetStale();
    return true;
}

void Statement::forgetStale()
{
    if (_stale && _handle.statement != nullptr)
        sqlite3_clear_bindings(_handle.statement);
    _stale = false;
}

// SQLITE_MISMATCH, which SQLite never returns here, for what it cannot store.
inline int Statement::bindOne(int position, const Argument& argument, bool copied)
{
    sqlite3_stmt* const statement = _handle.statement;
    const sqlite3_destructor_type owner = copied ? SQLITE_TRANSIENT : SQLITE_STATIC;
    switch (argument._kind) {
    case Argument::Kind::null:
        return sqlite3_bind_null(statement, position);
    case Argument::Kind::number:
        return sqlite3_bind_int64(statement, position, argument._number);
    case Argument::Kind::real:
        return std::isnan(argument._real)
                   ? SQLITE_MISMATCH // SQLite would take it for NULL
                   : sqlite3_bind_double(statement, position, argument._real);
    case Argument::Kind::text:
        return boundText(statement, position, argument._bytes, owner);
    case Argument::Kind::block:
        return boundBlock(statement, position, argument._bytes, owner);
    case Argument::Kind::unfit:
        break;
    }
    return SQLITE_MISMATCH;
}

int Statement::bindBorrowed(int position, const Argument& argument)
{
    return bindOne(position, argument, false);
}

inline bool Statement::bindFrom(const char* operation, int position, const Argument* arguments,
                                int count, bool copied)
{
    for (const Argument* argument = arguments; argument != arguments + count; ++argument) {
        const int rc = bindOne(position, *argument, copied);
        if (rc != SQLITE_OK)
            return failToBind(operation, position, *argument, rc);
        ++position;
    }
    return true;
}

bool Statement::failToBind(const char* operation, int position, const Argument& argument, int rc)
{
    // SQLite never sees a value that it cannot store.
    if (position < 1 || position > _parameterCount)
        return fail(operation, State::unbound, SQLITE_RANGE,
                    "there is no parameter " + intToStr(position) + " among "
                        + intToStr(_parameterCount));
    if (rc != SQLITE_MISMATCH)
        return fail(operation, State::unbound, rc, reasonOf(_connection, rc));
    const bool unfit = argument._kind == Argument::Kind::unfit;
    return fail(operation, State::unbound, rc,
                "the value of parameter " + intToStr(position) + " "
                    + (unfit ? argument._why : "is not a number"));
}

// The run has begun, even if it ends here.
inline bool Statement::bindAll(const char* operation, const Argument* arguments, int count)
{
    forgetRun();
    if (count != _parameterCount)
        return failToCount(operation, count);
    _stale = true;
    return bindFrom(operation, 1, arguments, count, false);
}

bool Statement::failToCount(const char* operation, int count)
{
    return fail(operation, State::failed, SQLITE_RANGE,
                "there are " + intToStr(count) + " values for " + intToStr(parameterCount())
                    + " parameters");
}

bool Statement::bindCopies(const char* operation, const Argument* arguments, int count)
{
    return isUsable(operation) && (count == _parameterCount || failToCount(operation, count))
           && bindFrom(operation, 1, arguments, count, true);
}

Statement& Statement::bindArgument(int position, const Argument& argument)
{
    if (canBind())
        bindFrom("bind", position, &argument, 1, true);
    return *this;
}

int Statement::positionOf(std::string_view name)
{
    if (!canBind())
        return 0;
    for (int i = parameterCount(); i > 0; --i) {
        const char* const known = sqlite3_bind_parameter_name(_handle.statement, i);
        if (known != nullptr && name == known)
            return i;
    }
    fail("bind", State::unbound, SQLITE_RANGE, "there is no parameter " + string(name));
    return 0;
}

void Statement::clearBindings()
{
    if (canBind())
        sqlite3_clear_bindings(_handle.statement);
}

// --- Runs ----------------------------------------------------------------------------------------

bool Statement::next()
{
    return nextAs("next");
}

bool Statement::nextAs(const char* operation)
{
    return isUsable(operation) && nextRow(operation);
}

inline bool Statement::nextRow(const char* operation)
{
    if (_handle.state == State::row)
        return step(operation);
    if (_handle.state == State::broken && end(operation))
        _handle.state = State::failed;
    if (_handle.state != State::ready)
        return false;
    forgetStale();
    begin(operation);
    return step(operation);
}

bool Statement::run()
{
    if (_handle.state == State::unbound || !restart("run"))
        return false;
    forgetStale();
    return runToEnd("run");
}

bool Statement::runWith(const Argument* arguments, int count)
{
    return runAs("run", arguments, count);
}

bool Statement::runAs(const char* operation, const Argument* arguments, int count)
{
    if (!restart(operation))
        return false;
    const Lock lock(_connection, count + 3); // with the step, the reset and what it asks for
    return bindAll(operation, arguments, count) && runToEnd(operation);
}

Presence Statement::readOne(const Argument* arguments, int argumentCount, const Variable* variables,
                            int variableCount)
{
    return readFirst("one", arguments, argumentCount, variables, variableCount);
}

Presence Statement::readFirst(const char* operation, const Argument* arguments, int argumentCount,
                              const Variable* variables, int variableCount)
{
    const bool bound = argumentCount == 0;
    if ((bound && _handle.state == State::unbound) || !restart(operation))
        return Presence::unknown;
    const Lock lock(_connection, argumentCount + variableCount + 2);
    if (bound)
        forgetStale();
    else if (!bindAll(operation, arguments, argumentCount))
        return Presence::unknown;
    return readStep(operation, variables, variableCount);
}

bool Statement::finished() const
{
    return _handle.state == State::ended;
}

bool Statement::reset()
{
    if (!restart("reset"))
        return false;
    if (_error)
        forgetError();
    return true;
}

// --- Rows ----------------------------------------------------------------------------------------

bool Statement::readRow(const Variable* variables, int count)
{
    return readNext("next", variables, count);
}

bool Statement::readNext(const char* operation, const Variable* variables, int count)
{
    if (!isUsable(operation))
        return false;
    const Lock lock(_connection, count + 1);
    return nextRow(operation) && readCells(operation, variables, count);
}

bool Statement::failToFill(const char* operation, int count)
{
    return fail(operation, State::failed, SQLITE_RANGE,
                "there are " + intToStr(count) + " variables for " + intToStr(columnCount())
                    + " columns");
}

bool Statement::failToRead(const char* operation, int index, const char* why)
{
    if (why == no_memory)
        return fail(operation, State::failed, SQLITE_NOMEM, why);
    return fail(operation, State::failed, SQLITE_MISMATCH,
                "column " + columnName(index) + " " + why);
}

Column Statement::column(int index)
{
    if (!isUsable("column"))
        return Column(*this, nullptr);
    if (index >= 0 && index < sqlite3_data_count(_handle.statement))
        return Column(*this, sqlite3_column_value(_handle.statement, index));
    return noColumn(intToStr(index));
}

Column Statement::column(std::string_view name)
{
    if (!isUsable("column"))
        return Column(*this, nullptr);
    const int index = indexOf(name);
    if (index >= 0)
        return Column(*this, sqlite3_column_value(_handle.statement, index));
    return noColumn(string(name));
}

// The row stays where it is until the statement goes on: other cells of it may be in use.
Column Statement::noColumn(const string& which)
{
    if (_handle.state == State::row || _handle.state == State::broken)
        keepFailure("column", State::broken, SQLITE_RANGE, "there is no column " + which);
    else
        keepFailure("column", _handle.state == State::unbound ? State::unbound : State::failed,
                    SQLITE_MISUSE, "column " + which + " was asked for outside a row");
    return Column(*this, nullptr);
}

// In most programs names are asked for in the order of the columns. A statement that was assigned to
// itself has lost them.
int Statement::indexOf(std::string_view name)
{
    const int count = sqlite3_data_count(_handle.statement);
    if (!_namesKnown || _names.empty())
        learnNames(count);
    int index = _namesDistinct ? _latestIndex : -1;
    for (int i = 0; i < count; ++i) {
        if (++index == count)
            index = 0;
        if (_names[index] == name)
            return _latestIndex = index;
    }
    return -1;
}

// Once a run: SQLite compiles the statement anew where the schema has changed, and with it the names.
void Statement::learnNames(int count)
{
    const int compilations = sqlite3_stmt_status(_handle.statement, SQLITE_STMTSTATUS_REPREPARE, 0);
    if (_names.empty() || _compilations != compilations) {
        std::vector<string> names;
        bool distinct = true;
        for (int i = 0; i < count; ++i) {
            string name = columnName(i);
            if (std::find(names.begin(), names.end(), name) != names.end())
                distinct = false;
            names.push_back(std::move(name));
        }
        _names = std::move(names);
        _namesDistinct = distinct;
        _compilations = compilations;
        _latestIndex = -1;
    }
    _namesKnown = true;
}

// --- What there is to know ------------------------------------------------------------------------

integer Statement::changes() const
{
    return _changes;
}

std::optional<integer> Statement::lastKey() const
{
    return _key;
}

const Error& Statement::error() const
{
    return _error;
}

std::string_view Statement::text() const
{
    const char* const text = sqlite3_sql(_handle.statement);
    return text != nullptr ? text : std::string_view();
}

string Statement::expandedText()
{
    forgetStale();
    const std::unique_ptr<char, decltype(&sqlite3_free)> expanded(
        sqlite3_expanded_sql(_handle.statement), sqlite3_free);
    return expanded != nullptr ? expanded.get() : string();
}

bool Statement::isReadOnly() const
{
    return sqlite3_stmt_readonly(_handle.statement) != 0;
}

int Statement::parameterCount() const
{
    return sqlite3_bind_parameter_count(_handle.statement);
}

int Statement::columnCount() const
{
    return sqlite3_column_count(_handle.statement);
}

string Statement::columnName(int index) const
{
    if (!isPrepared())
        return string();
    const char* const name = sqlite3_column_name(_handle.statement, index);
    return name != nullptr ? name : "";
}

// --- Failures ------------------------------------------------------------------------------------

void Statement::keepFailure(const char* operation, State state, int rc, const string& cause)
{
    const char* const known = sqlite3_sql(_handle.statement);
    const char* const sql = known != nullptr ? known : "";
    _handle.state = state;
    string why(cause);
    if (_record > 0)
        why = joined({"record ", NumberText(_record).view(), ": ", cause});
    if (_record >= 0)
        reportFailure(operation, sql, rc, why.c_str());
    _error = errorOf(_connection, rc, why, sql);
}

// No lock outlives a failure.
bool Statement::fail(const char* operation, State state, int rc, const string& why)
{
    sqlite3_reset(_handle.statement);
    keepFailure(operation, state, rc, why);
    return false;
}

void Statement::forgetError()
{
    _error = Error();
}

bool Statement::failToRun(const char* operation, int rc)
{
    return fail(operation, State::failed, extendedCodeOf(_connection, rc),
                reasonOf(_connection, rc));
}

// --- Scripts -------------------------------------------------------------------------------------

namespace {

// Statements that end the transaction of a migration, that do not work in one, or that it cannot undo.
const char* whyNotInStep(std::string_view statement)
{
    return beginsWith(statement,
                      {"begin", "commit", "end", "rollback", "vacuum", "attach", "detach"})
               ? "a step cannot begin or end a transaction, vacuum, attach or detach"
               : nullptr;
}

Error failed(const char* operation, sqlite3* db, int version, const char* sql, int rc,
             const string& cause)
{
    string why(cause);
    if (version != no_version)
        why = joined({"version ", intToStr(version), ": ", cause});
    reportFailure(operation, sql, rc, why.c_str());
    return errorOf(db, rc, why, sql);
}

} // namespace

Result<int> runScript(Database& database, const string& script)
{
    return runStatements("runScript", database.getHandle(), no_version, script);
}

Result<int> runStatements(const char* operation, sqlite3* db, int version, const string& script)
{
    if (const char* const why = whyNotCompiled(db, script))
        return failed(operation, db, version, script.c_str(), SQLITE_MISUSE, why);

    int count = 0;
    const char* rest = script.c_str();
    while (rest[nextStatement(rest)] != '\0') {
        const char* const sql = rest + nextStatement(rest);
        ++count;
        const char* const objection = whyNotInStep(sql);
        if (objection != nullptr && version != no_version)
            return failed(operation, db, version, firstStatement(sql).c_str(), SQLITE_MISUSE,
                          "statement " + intToStr(count) + ": " + objection);
        sqlite3_stmt* statement = nullptr;
        int rc = sqlite3_prepare_v2(db, sql, -1, &statement, &rest);
        const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> owner(statement,
                                                                               sqlite3_finalize);
        if (rc == SQLITE_OK) {
            TRACE_DEBUG2_AS(operation, "stmt='%s'", sqlite3_sql(statement));
            while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
            }
        }
        if (rc != SQLITE_DONE) {
            const char* const own = sqlite3_sql(statement);
            const string text = own != nullptr ? own : firstStatement(sql);
            return failed(operation, db, version, text.c_str(), extendedCodeOf(db, rc),
                          "statement " + intToStr(count) + ": " + reasonOf(db, rc));
        }
    }
    return count;
}

} // namespace sql
