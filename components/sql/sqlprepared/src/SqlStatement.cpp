#include "SqlStatement.h"

#include "SqlFailure.h"
#include "SqlTrace.h"
#include "SqlValue.h"

#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <cfloat>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <utility>

namespace sql {

namespace {

// Why a cell could not be converted; compared by address, since it is SQLite's failure, not the cell's.
const char no_memory[] = "out of memory";

const char is_null[] = "is NULL";
const char is_no_number[] = "is no number";
const char is_no_integer[] = "is no integer";
const char is_out_of_range[] = "is out of the variable's range";

// SQLite's own messages have no values in them, nor do ours: statements and reasons are logged where
// values are not.
constexpr const char* gone = "the statement was released or moved from";

bool isBlank(char byte)
{
    return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

// Behind the comment or the quoted text that begins here, else behind this byte. SQLite takes a comment
// that nobody ends for one up to the end.
std::size_t behind(std::string_view sql, std::size_t at)
{
    const auto past = [&](std::string_view end, std::size_t from) {
        const std::size_t found = sql.find(end, from);
        return found != std::string_view::npos ? found + end.size() : sql.size();
    };
    if (sql.compare(at, 2, "--") == 0)
        return past("\n", at);
    if (sql.compare(at, 2, "/*") == 0)
        return past("*/", at + 2);
    if (sql[at] == '\'' || sql[at] == '"' || sql[at] == '`')
        return past(sql.substr(at, 1), at + 1);
    if (sql[at] == '[')
        return past("]", at + 1);
    return at + 1;
}

// Where the next statement begins: behind blanks, comments and semicolons.
std::size_t nextStatement(std::string_view sql)
{
    std::size_t at = 0;
    while (at < sql.size()
           && (isBlank(sql[at]) || sql[at] == ';' || sql.compare(at, 2, "--") == 0
               || sql.compare(at, 2, "/*") == 0))
        at = behind(sql, at);
    return at;
}

// The text up to its first semicolon: that of a statement that SQLite has not compiled.
string firstStatement(std::string_view sql)
{
    std::size_t at = 0;
    while (at < sql.size() && sql[at] != ';')
        at = behind(sql, at);
    return string(sql.substr(0, at + 1));
}

// Null where SQLite may have a look at the text. It would read no further than to a zero byte.
const char* whyNotCompiled(const sqlite3* db, const string& text)
{
    if (db == nullptr)
        return database_not_open;
    return text.find('\0') != string::npos ? "there is a zero byte in the text" : nullptr;
}

bool isInRange(double number)
{
    return number >= -9223372036854775808.0 && number < 9223372036854775808.0;
}

// Reads a number in any form that SQL has, and nothing else; blanks around it are SQLite's own habit.
// Returns null, or why the text is none.
template <typename Number> const char* readNumber(std::string_view text, Number& number)
{
    if (text.size() > 1 && text[0] == '+' && text[1] != '-')
        text.remove_prefix(1);
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    if (last != end || error == std::errc::invalid_argument)
        return is_no_number;
    return error == std::errc() ? nullptr : is_out_of_range;
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

// Each call of SQLite's takes the connection's lock, at less cost where it is taken already: five calls
// are worth taking it around them.
class Lock {
public:
    Lock(sqlite3* db, int calls) : _mutex(calls < 5 ? nullptr : sqlite3_db_mutex(db))
    {
        sqlite3_mutex_enter(_mutex);
    }
    ~Lock()
    {
        sqlite3_mutex_leave(_mutex);
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    sqlite3_mutex* _mutex;
};

bool beginsWith(std::string_view sql, std::string_view keyword)
{
    return sqlite3_strnicmp(sql.data(), keyword.data(), static_cast<int>(keyword.size())) == 0;
}

bool mentions(std::string_view sql, std::string_view word)
{
    for (std::size_t at = 0; at + word.size() <= sql.size(); ++at) {
        if (beginsWith(sql.substr(at), word))
            return true;
    }
    return false;
}

// Takes the next word, mark or quoted name off the text.
std::string_view takeToken(std::string_view& sql)
{
    sql.remove_prefix(nextStatement(sql));
    const auto isOfWord = [](unsigned char byte) {
        return byte == '_' || byte == '$' || byte > 127 || std::isalnum(byte) != 0;
    };
    std::size_t end = sql.empty() ? 0 : behind(sql, 0);
    while (end < sql.size() && isOfWord(sql[0]) && isOfWord(sql[end]))
        ++end;
    while (end > 1 && end < sql.size() && sql[end] == sql[0]) // a doubled quote is one of the name
        end = behind(sql, end);
    const std::string_view token = sql.substr(0, end);
    sql.remove_prefix(end);
    return token;
}

string unquoted(std::string_view name)
{
    if (name.size() < 2 || behind(name, 0) == 1)
        return string(name);
    string bare;
    for (std::size_t i = 1; i + 1 < name.size(); ++i) {
        bare += name[i];
        if (name[i] == name[0] && name[i] != '[')
            ++i;
    }
    return bare;
}

bool is(std::string_view token, std::string_view keyword)
{
    return token.size() == keyword.size() && beginsWith(token, keyword);
}

bool mayInsert(std::string_view sql)
{
    const std::string_view word = takeToken(sql);
    return is(word, "insert") || is(word, "replace") || is(word, "with");
}

// Whether each row that the statement inserts gets a key, and nothing else is counted as a change: a
// table with rows that have one, and no update in place of an insertion.
bool givesKeys(sqlite3* db, std::string_view sql)
{
    const std::string_view word = takeToken(sql);
    if ((!is(word, "insert") && !is(word, "replace")) || mentions(sql, "conflict"))
        return false;
    std::string_view token;
    while (!is(token = takeToken(sql), "into")) {
        if (token.empty())
            return false;
    }
    const string first = unquoted(takeToken(sql));
    const bool isSchema = is(takeToken(sql), ".");
    const string table = isSchema ? unquoted(takeToken(sql)) : first;
    return sqlite3_table_column_metadata(db, isSchema ? first.c_str() : nullptr, table.c_str(),
                                         "rowid", nullptr, nullptr, nullptr, nullptr, nullptr)
           == SQLITE_OK;
}

integer totalChanges(sqlite3* db)
{
#if SQLITE_VERSION_NUMBER >= 3037000
    return sqlite3_total_changes64(db);
#else
    return sqlite3_total_changes(db);
#endif
}

integer latestChanges(sqlite3* db)
{
#if SQLITE_VERSION_NUMBER >= 3037000
    return sqlite3_changes64(db);
#else
    return sqlite3_changes(db);
#endif
}

// Outside a row there is no value, which counts as NULL.
int typeOf(sqlite3_value* value)
{
    return value != nullptr ? sqlite3_value_type(value) : SQLITE_NULL;
}

void traceRun(const char* operation, sqlite3_stmt* statement)
{
    TRACE_DEBUG2_AS(operation, "stmt='%s'", sqlite3_sql(statement));
    if (!traceLevelAbove(8))
        return;
    char* const text = sqlite3_expanded_sql(statement);
    if (text != nullptr)
        TRACE_DEBUG3_AS(operation, "%s", text);
    sqlite3_free(text);
}

} // namespace

// --- Cells ---------------------------------------------------------------------------------------

bool Column::isNull() const
{
    return typeOf(_value) == SQLITE_NULL;
}

integer Column::asInteger() const
{
    return isNull() ? 0 : sqlite3_value_int64(_value);
}

double Column::asDouble() const
{
    const int type = typeOf(_value);
    if (type == SQLITE_NULL)
        return 0.0;
    if (type == SQLITE_INTEGER || type == SQLITE_FLOAT)
        return sqlite3_value_double(_value);
    Value text(type_text); // knows more forms than SQLite
    text.setString(asString());
    return text.asDouble();
}

bool Column::asBool() const
{
    if (!isNull() && sqlite3_value_type(_value) == SQLITE_INTEGER)
        return asInteger() == 1;
    return asText() == "1";
}

Time Column::asTime() const
{
    return Time(asInteger());
}

string Column::asString() const
{
    return string(asText());
}

std::string_view Column::asText() const
{
    std::string_view text;
    if (!isNull() && read(text) != nullptr)
        _statement->keepFailure("column", Statement::State::broken, SQLITE_NOMEM, no_memory);
    return text;
}

Bytes Column::asBytes() const
{
    Bytes bytes;
    if (!isNull() && read(bytes) != nullptr)
        _statement->keepFailure("column", Statement::State::broken, SQLITE_NOMEM, no_memory);
    return bytes;
}

const char* Column::read(integer& number, integer lowest, integer highest) const
{
    integer found = 0;
    if (typeOf(_value) == SQLITE_INTEGER)
        found = sqlite3_value_int64(_value);
    else if (const char* const why = readOther(found))
        return why;
    if (found < lowest || found > highest)
        return is_out_of_range;
    number = found;
    return nullptr;
}

// An integer out of a cell that holds none: a text, as long as it is exact, or a real.
const char* Column::readOther(integer& number) const
{
    std::string_view text;
    if (typeOf(_value) == SQLITE_TEXT && read(text) == nullptr) {
        const char* const why = readNumber(text, number);
        if (why != is_no_number)
            return why;
    }
    double real = 0;
    if (const char* const why = read(real))
        return why;
    if (real != std::trunc(real))
        return is_no_integer;
    if (!isInRange(real))
        return is_out_of_range;
    number = static_cast<integer>(real);
    return nullptr;
}

const char* Column::read(double& number) const
{
    const int type = typeOf(_value);
    if (type != SQLITE_FLOAT && type != SQLITE_INTEGER)
        return readOther(number);
    number = sqlite3_value_double(_value);
    return nullptr;
}

// A number out of the text of one.
const char* Column::readOther(double& number) const
{
    const int type = typeOf(_value);
    if (type == SQLITE_NULL)
        return is_null;
    if (type != SQLITE_TEXT)
        return is_no_number;
    std::string_view text;
    if (const char* const why = read(text))
        return why;
    double found = 0;
    const char* const why = readNumber(text, found);
    if (why == nullptr && !std::isfinite(found)) // "inf" and "nan" are words
        return is_no_number;
    if (why == nullptr)
        number = found;
    return why;
}

const char* Column::read(float& number) const
{
    double wide = 0;
    if (const char* const why = read(wide))
        return why;
    if (std::isfinite(wide) && std::fabs(wide) > static_cast<double>(FLT_MAX))
        return is_out_of_range;
    number = static_cast<float>(wide);
    return nullptr;
}

const char* Column::read(std::string_view& text) const
{
    const void* const bytes = sqlite3_value_text(_value);
    if (bytes == nullptr)
        return isNull() ? is_null : no_memory;
    text = std::string_view(static_cast<const char*>(bytes), sqlite3_value_bytes(_value));
    return nullptr;
}

const char* Column::read(Bytes& bytes) const
{
    const int type = typeOf(_value);
    if (type == SQLITE_NULL)
        return is_null;
    // A number's block is its text, which takes memory to make; an empty block has no address.
    const void* const data = sqlite3_value_blob(_value);
    if (data == nullptr && (type == SQLITE_INTEGER || type == SQLITE_FLOAT))
        return no_memory;
    bytes = Bytes{data, static_cast<std::size_t>(sqlite3_value_bytes(_value))};
    return nullptr;
}

const char* Column::read(string& text) const
{
    std::string_view view;
    const char* const why = read(view);
    if (why == nullptr)
        text = view;
    return why;
}

const char* Column::read(std::vector<unsigned char>& bytes) const
{
    Bytes view;
    const char* const why = read(view);
    const unsigned char* const first = static_cast<const unsigned char*>(view.data);
    if (why == nullptr)
        bytes.assign(first, first + view.size);
    return why;
}

// --- From the text to the release -----------------------------------------------------------------

Statement::Handle& Statement::Handle::operator=(Handle&& other) noexcept
{
    Handle former(std::move(other)); // swapped, so that one that takes itself stays
    std::swap(statement, former.statement);
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
    : _database(&database), _connection(database.getHandle())
{
    prepare(text);
}

Statement::Statement(Statement&& other) noexcept = default;
Statement& Statement::operator=(Statement&& other) noexcept = default;
Statement::~Statement() = default;

void Statement::prepare(const string& text)
{
    if (const char* const why = whyNotCompiled(_connection, text))
        return refuse(text, SQLITE_MISUSE, why);
    _givesKeys = givesKeys(_connection,
                           text); // before, for the connection keeps the latest failure
    // With the final zero SQLite needs no copy.
    const int size = static_cast<int>(std::min<std::size_t>(text.size() + 1, INT_MAX));
    const char* rest = nullptr;
    const int rc = sqlite3_prepare_v3(_connection, text.c_str(), size, SQLITE_PREPARE_PERSISTENT,
                                      &_handle.statement, &rest);
    if (rc != SQLITE_OK)
        return refuse(text, extendedCodeOf(_connection, rc), reasonOf(_connection, rc));
    if (_handle.statement == nullptr)
        return refuse(text, SQLITE_MISUSE, "there is no statement in the text");
    if (rest[nextStatement(rest)] != '\0') {
        _handle = Handle();
        return refuse(text, SQLITE_MISUSE, "there is more than one statement in the text");
    }
    _state = State::ready;
    _parameterCount = sqlite3_bind_parameter_count(_handle.statement);
    _writes = !isReadOnly();
    _inserts = _writes && mayInsert(text);
}

void Statement::refuse(const string& text, int rc, const char* why)
{
    reportFailure("Statement", text.c_str(), rc, why);
    _error = errorOf(_connection, rc, why, text.c_str());
}

void Statement::release()
{
    _handle = Handle();
    if (_state != State::unprepared)
        _state = State::ready;
}

bool Statement::isPrepared() const
{
    return _handle.statement != nullptr;
}

// What fails is told elsewhere, so that the ways to it stay short.
inline bool Statement::isUsable(const char* operation)
{
    return (_handle.statement != nullptr && _database->getHandle() == _connection)
           || failToUse(operation);
}

bool Statement::failToUse(const char* operation)
{
    if (_state != State::unprepared || !_error) // one without a reason was moved from
        fail(operation, State::failed, SQLITE_MISUSE,
             _handle.statement == nullptr ? gone : database_closed);
    return false;
}

bool Statement::isUnbound() const
{
    return _state == State::unbound && _error; // nor was it moved from
}

// --- Values --------------------------------------------------------------------------------------

inline bool Statement::canBind()
{
    if (isUnbound())
        return false;
    if (!isUsable("bind")) {
        if (_state != State::unprepared)
            _state = State::unbound;
        return false;
    }
    if (_state == State::row || _state == State::broken)
        return fail("bind", State::unbound, SQLITE_MISUSE,
                    "a value was bound at a row: reset the statement before");
    _state = State::ready;
    forgetStale();
    return true;
}

void Statement::forgetStale()
{
    if (_stale && _handle.statement != nullptr)
        sqlite3_clear_bindings(_handle.statement);
    _stale = false;
}

inline bool Statement::bindFrom(const char* operation, int position, const Argument* arguments,
                                int count, bool copied)
{
    sqlite3_stmt* const statement = _handle.statement;
    const sqlite3_destructor_type owner = copied ? SQLITE_TRANSIENT : SQLITE_STATIC;
    for (const Argument* argument = arguments; argument != arguments + count; ++argument) {
        int rc = SQLITE_MISMATCH; // which SQLite never returns here
        switch (argument->_kind) {
        case Argument::Kind::null:
            rc = sqlite3_bind_null(statement, position);
            break;
        case Argument::Kind::number:
            rc = sqlite3_bind_int64(statement, position, argument->_number);
            break;
        case Argument::Kind::real:
            if (!std::isnan(argument->_real)) // SQLite would take it for NULL
                rc = sqlite3_bind_double(statement, position, argument->_real);
            break;
        case Argument::Kind::text:
            rc = boundText(statement, position, argument->_bytes, owner);
            break;
        case Argument::Kind::block:
            rc = boundBlock(statement, position, argument->_bytes, owner);
            break;
        case Argument::Kind::unfit:
            break;
        }
        if (rc != SQLITE_OK)
            return failToBind(operation, position, *argument, rc);
        ++position;
    }
    return true;
}

bool Statement::failToBind(const char* operation, int position, const Argument& argument, int rc)
{
    if (rc != SQLITE_MISMATCH)
        return fail(operation, State::unbound, rc, reasonOf(_connection, rc));
    const bool unfit = argument._kind == Argument::Kind::unfit;
    return fail(operation, State::unbound, rc,
                "the value of parameter " + intToStr(position) + " "
                    + (unfit ? argument._why : "is not a number"));
}

inline bool Statement::bindAll(const char* operation, const Argument* arguments, int count)
{
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

Statement& Statement::bindArgument(int position, const Argument& argument)
{
    if (!canBind())
        return *this;
    if (position < 1 || position > _parameterCount)
        fail("bind", State::unbound, SQLITE_RANGE,
             "there is no parameter " + intToStr(position) + " among " + intToStr(_parameterCount));
    else
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

inline bool Statement::restart(const char* operation)
{
    if (!isUsable(operation))
        return false;
    if ((_state == State::row || _state == State::broken) && !end(operation))
        return false;
    _state = State::ready;
    return true;
}

inline void Statement::begin(const char* operation)
{
    if (traceLevelAbove(7))
        traceRun(operation, _handle.statement);
    if (_error)
        forgetError();
    _namesKnown = false;
    _changes = 0;
    _key.reset();
    if (_writes)
        _totalBefore = totalChanges(_connection);
    if (_inserts)
        _keyBefore = sqlite3_last_insert_rowid(_connection);
}

inline bool Statement::step(const char* operation)
{
    const int rc = sqlite3_step(_handle.statement);
    if (_inserts && _state == State::ready) { // all rows are inserted before the first comes back
        const integer key = sqlite3_last_insert_rowid(_connection);
        if (key != _keyBefore || (rc == SQLITE_ROW && _givesKeys))
            _key = key;
    }
    if (rc == SQLITE_ROW) {
        _state = State::row;
        return true;
    }
    if (rc != SQLITE_DONE) {
        noteChanges();
        return failToRun(operation, rc);
    }
    end(operation);
    return false;
}

// Returns false if what was written cannot be committed, which a reset at a row does.
inline bool Statement::end(const char* operation)
{
    const int rc = sqlite3_reset(_handle.statement);
    noteChanges();
    if (rc != SQLITE_OK)
        return failToRun(operation, rc);
    _state = State::ended;
    return true;
}

// Others' changes during a query are not its own. Where it has changed nothing, a row that was inserted
// is taken back.
inline void Statement::noteChanges()
{
    if (!_writes)
        return;
    if (totalChanges(_connection) != _totalBefore)
        _changes = latestChanges(_connection);
    if (_changes == 0)
        _key.reset();
    else if (_givesKeys && !_key)
        _key = _keyBefore; // the same again, in another table or after a deletion
}

inline bool Statement::runToEnd(const char* operation)
{
    begin(operation);
    while (step(operation)) {
    }
    return _state == State::ended;
}

bool Statement::next()
{
    return isUsable("next") && nextRow();
}

inline bool Statement::nextRow()
{
    if (_state == State::row)
        return step("next");
    if (_state == State::broken && end("next"))
        _state = State::failed;
    if (_state != State::ready)
        return false;
    forgetStale();
    begin("next");
    return step("next");
}

bool Statement::run()
{
    if (isUnbound() || !restart("run"))
        return false;
    forgetStale();
    return runToEnd("run");
}

bool Statement::runWith(const Argument* arguments, int count)
{
    if (!restart("run"))
        return false;
    const Lock lock(_connection, count + 3); // with the step, the reset and what it asks for
    return bindAll("run", arguments, count) && runToEnd("run");
}

// Of the row and the values, should a binder throw.
struct Statement::LettingGo {
    ~LettingGo()
    {
        if (statement._state != State::row)
            return;
        sqlite3_reset(statement._handle.statement);
        statement._state = State::failed;
    }

    Statement& statement;
};

Presence Statement::readOne(const Argument* arguments, int argumentCount, const Variable* variables,
                            int variableCount)
{
    const bool bound = argumentCount == 0;
    if ((bound && isUnbound()) || !restart("one"))
        return Presence::unknown;
    const Lock lock(_connection, argumentCount + variableCount + 2);
    if (bound)
        forgetStale();
    else if (!bindAll("one", arguments, argumentCount))
        return Presence::unknown;
    begin("one");
    if (!step("one"))
        return _state == State::ended ? Presence::absent : Presence::unknown;
    const LettingGo lettingGo{*this};
    return readCells("one", variables, variableCount) && end("one") ? Presence::present
                                                                    : Presence::unknown;
}

bool Statement::finished() const
{
    return _state == State::ended && isPrepared();
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
    if (!isUsable("next"))
        return false;
    const Lock lock(_connection, count + 1);
    return nextRow() && readCells("next", variables, count);
}

inline bool Statement::readCells(const char* operation, const Variable* variables, int count)
{
    sqlite3_stmt* const statement = _handle.statement;
    if (count != sqlite3_data_count(statement))
        return failToFill(operation, count);
    for (int i = 0; i < count; ++i) {
        const Column column(*this, sqlite3_column_value(statement, i));
        if (const char* const why = variables[i].read(column, variables[i].variable))
            return failToRead(operation, i, why);
    }
    return true;
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
    if (_state == State::row || _state == State::broken)
        keepFailure("column", State::broken, SQLITE_RANGE, "there is no column " + which);
    else
        keepFailure("column", _state == State::unbound ? State::unbound : State::failed,
                    SQLITE_MISUSE, "column " + which + " was asked for outside a row");
    return Column(*this, nullptr);
}

// In most programs names are asked for in the order of the columns.
int Statement::indexOf(std::string_view name)
{
    const int count = sqlite3_data_count(_handle.statement);
    if (count > 0 && !_namesKnown && !learnNames(count))
        return -1;
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
bool Statement::learnNames(int count)
{
    const int compilations = sqlite3_stmt_status(_handle.statement, SQLITE_STMTSTATUS_REPREPARE, 0);
    if (_names.empty() || _compilations != compilations) {
        std::vector<string> names;
        bool distinct = true;
        for (int i = 0; i < count; ++i) {
            const char* const name = sqlite3_column_name(_handle.statement, i);
            if (name == nullptr) // memory has run out
                return false;
            if (std::find(names.begin(), names.end(), name) != names.end())
                distinct = false;
            names.emplace_back(name);
        }
        _names = std::move(names);
        _namesDistinct = distinct;
        _compilations = compilations;
        _latestIndex = -1;
    }
    _namesKnown = true;
    return true;
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

void Statement::keepFailure(const char* operation, State state, int rc, const string& why)
{
    const char* const sql = sqlite3_sql(_handle.statement);
    _state = state;
    reportFailure(operation, sql != nullptr ? sql : "", rc, why.c_str());
    _error = errorOf(_connection, rc, why, sql != nullptr ? sql : "");
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

Result<int> runScript(Database& database, const string& script)
{
    sqlite3* const db = database.getHandle();
    const auto failed = [&](const char* sql, int rc, const string& why) {
        reportFailure("runScript", sql, rc, why.c_str());
        return errorOf(db, rc, why, sql);
    };
    if (const char* const why = whyNotCompiled(db, script))
        return failed(script.c_str(), SQLITE_MISUSE, why);

    int count = 0;
    const char* rest = script.c_str();
    while (rest[nextStatement(rest)] != '\0') {
        const char* const sql = rest + nextStatement(rest);
        sqlite3_stmt* statement = nullptr;
        int rc = sqlite3_prepare_v2(db, sql, -1, &statement, &rest);
        const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> owner(statement,
                                                                               sqlite3_finalize);
        if (rc == SQLITE_OK) {
            TRACE_DEBUG2("stmt='%s'", sqlite3_sql(statement));
            while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
            }
        }
        ++count;
        if (rc != SQLITE_OK && rc != SQLITE_DONE) {
            const string why = "statement " + intToStr(count) + ": " + reasonOf(db, rc);
            const char* const own = sqlite3_sql(statement);
            const string text = own != nullptr ? own : firstStatement(sql);
            return failed(text.c_str(), extendedCodeOf(db, rc), why);
        }
    }
    return count;
}

} // namespace sql
