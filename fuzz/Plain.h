#ifndef SQLWRAPPER_FUZZ_PLAIN_H
#define SQLWRAPPER_FUZZ_PLAIN_H

// Statements and transactions on SQLite's own C interface: what those of the library have to do, to
// report and to answer, told once more.

#include "Any.h"
#include "Reports.h"
#include "SqlResult.h"

#include <sqlite3.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fuzz {

class PlainScope;

struct Failure {
    int code = 0; // extended
    std::string text;
    std::string statement;

    bool operator==(const Failure& other) const
    {
        return code == other.code && text == other.text && statement == other.statement;
    }
};

inline Failure failureOf(const sql::Error& error)
{
    return {error.extendedCode(), error.text(), error.statement()};
}

inline void PrintTo(const Failure& failure, std::ostream* out)
{
    *out << failure.code << " '" << failure.text << "' of '" << failure.statement << "'";
}

// A connection, and what is reported.
class PlainDatabase {
public:
    sqlite3* db = nullptr;
    Events events;

    std::map<sqlite3*, std::vector<PlainScope*>> scopes; // those that last, by connection
    std::string target;                 // of the statement that runs, if it inserts
    std::optional<sql::integer> latest; // the key that it has given to a row of it last

    void use(sqlite3* connection)
    {
        db = connection;
        if (db != nullptr)
            sqlite3_update_hook(db, noteInsertion, this);
    }

    void report(const std::string& line)
    {
        events.push_back(line);
    }

    Failure fail(const char* operation, const std::string& statement, int code,
                 const std::string& why)
    {
        const std::string name = sql::Error(code, std::string()).name();
        const std::string reason = std::to_string(code) + "=" + name + ": " + why;
        for (const std::string& line :
             test::report::statementFailed(operation, upToZero(statement), upToZero(reason)))
            report(line);
        return {code, why, upToZero(statement)};
    }

    void run(const std::string& file, const char* operation, const char* statement)
    {
        report(test::report::debug(2, file + "::" + operation,
                                   std::string("stmt='") + statement + "'"));
    }

private:
    static void noteInsertion(void* context, int operation, const char*, const char* table,
                              sqlite3_int64 key)
    {
        PlainDatabase& self = *static_cast<PlainDatabase*>(context);
        if (operation == SQLITE_INSERT && self.target == table)
            self.latest = key;
    }
};

// What a statement is for: SQLite tells nothing of it.
struct Text {
    std::string sql;
    bool changes = false;
    std::string target = {}; // into which it inserts
};

// --- Statements ----------------------------------------------------------------------------------

class PlainStatement {
public:
    PlainStatement(PlainDatabase& side, const Text& text) : _side(&side), _db(side.db), _text(text)
    {
        prepare(text.sql);
    }

    PlainStatement(PlainStatement&& other) noexcept
    {
        take(other);
    }

    PlainStatement& operator=(PlainStatement&& other) noexcept
    {
        if (this != &other) {
            letGo();
            take(other);
        }
        return *this;
    }

    ~PlainStatement()
    {
        letGo();
    }

    void release()
    {
        letGo();
        if (_state != unprepared)
            _state = ready;
    }

    bool isPrepared() const
    {
        return _statement != nullptr;
    }

    void bind(int position, const Any& value)
    {
        if (!canBind())
            return;
        const int count = parameterCount();
        if (position < 1 || position > count)
            fail("bind", unbound, SQLITE_RANGE,
                 "there is no parameter " + std::to_string(position) + " among "
                     + std::to_string(count));
        else
            bindOne("bind", position, value);
    }

    void bind(const std::string& name, const Any& value)
    {
        if (!canBind())
            return;
        const int position = name.find('\0') == std::string::npos
                                 ? sqlite3_bind_parameter_index(_statement, name.c_str())
                                 : 0;
        if (position == 0)
            fail("bind", unbound, SQLITE_RANGE, "there is no parameter " + name);
        else
            bindOne("bind", position, value);
    }

    void clearBindings()
    {
        if (canBind())
            sqlite3_clear_bindings(_statement);
    }

    bool next()
    {
        if (!isUsable("next"))
            return false;
        if (_state == row)
            return step("next");
        if (_state == broken) {
            sqlite3_reset(_statement);
            _state = failed;
        }
        if (_state != ready)
            return false;
        begin("next");
        return step("next");
    }

    bool next(std::vector<Any>& variables)
    {
        return next() && readRow("next", variables);
    }

    bool run()
    {
        return _state != unbound && restart("run") && runToEnd();
    }

    bool run(const std::vector<Any>& values)
    {
        const bool done = restart("run") && bindAll("run", values) && runToEnd();
        forget(values);
        return done;
    }

    sql::Presence one(const std::vector<Any>& values, std::vector<Any>& variables)
    {
        const sql::Presence found = readOne(values, variables);
        forget(values);
        return found;
    }

    bool reset()
    {
        if (!restart("reset"))
            return false;
        failure = Failure();
        return true;
    }

    bool finished() const
    {
        return _state == ended;
    }

    // The cell of a row, or none after a failure.
    std::optional<int> column(int index)
    {
        if (!isUsable("column"))
            return std::nullopt;
        if (index >= 0 && index < sqlite3_data_count(_statement))
            return index;
        return noColumn(std::to_string(index));
    }

    std::optional<int> column(const std::string& name)
    {
        if (!isUsable("column"))
            return std::nullopt;
        for (int i = 0; i < sqlite3_data_count(_statement); ++i) {
            if (name == sqlite3_column_name(_statement, i))
                return i;
        }
        return noColumn(name);
    }

    // All that can be asked of it; what a view of the text takes from a block is its type, so that
    // the cell is read as it came.
    Cell cell(int index) const
    {
        Cell cell;
        cell.type = sqlite3_column_type(_statement, index);
        if (cell.type == SQLITE_NULL)
            return cell;
        cell.number = sqlite3_column_int64(_statement, index);
        const void* const block = sqlite3_column_blob(_statement, index);
        cell.block.assign(static_cast<const char*>(block),
                          static_cast<std::size_t>(sqlite3_column_bytes(_statement, index)));
        const unsigned char* const text = sqlite3_column_text(_statement, index);
        cell.text.assign(reinterpret_cast<const char*>(text),
                         static_cast<std::size_t>(sqlite3_column_bytes(_statement, index)));
        const bool isNumber = cell.type == SQLITE_INTEGER || cell.type == SQLITE_FLOAT;
        cell.real = isNumber ? sqlite3_column_double(_statement, index)
                             : test::readDouble(cell.text);
        return cell;
    }

    std::string text() const
    {
        const char* const text = sqlite3_sql(_statement);
        return text != nullptr ? text : "";
    }

    std::string expandedText() const
    {
        char* const text = sqlite3_expanded_sql(_statement);
        std::string expanded = text != nullptr ? text : "";
        sqlite3_free(text);
        return expanded;
    }

    bool isReadOnly() const
    {
        return sqlite3_stmt_readonly(_statement) != 0;
    }

    int parameterCount() const
    {
        return sqlite3_bind_parameter_count(_statement);
    }

    int columnCount() const
    {
        return sqlite3_column_count(_statement);
    }

    std::string columnName(int index) const
    {
        const char* const name = isPrepared() ? sqlite3_column_name(_statement, index) : nullptr;
        return name != nullptr ? name : "";
    }

    Failure failure;
    sql::integer changes = 0;
    std::optional<sql::integer> key;

private:
    // As those of the library's statement.
    enum State { ready, row, broken, ended, failed, unbound, unprepared };

    // Whether there is another statement: to SQLite itself.
    bool hasStatement(const char* rest) const
    {
        sqlite3_stmt* next = nullptr;
        bool found = false;
        while (!found && *rest != '\0')
            found = sqlite3_prepare_v2(_db, rest, -1, &next, &rest) != SQLITE_OK || next != nullptr;
        sqlite3_finalize(next);
        return found;
    }

    void prepare(const std::string& sql)
    {
        if (_db == nullptr)
            return refuse(SQLITE_MISUSE, "the database is not open");
        if (sql.find('\0') != std::string::npos)
            return refuse(SQLITE_MISUSE, "there is a zero byte in the text");
        const char* rest = nullptr;
        if (sqlite3_prepare_v2(_db, sql.c_str(), -1, &_statement, &rest) != SQLITE_OK)
            return refuse(sqlite3_extended_errcode(_db), sqlite3_errmsg(_db));
        if (_statement == nullptr)
            return refuse(SQLITE_MISUSE, "there is no statement in the text");
        if (hasStatement(rest)) {
            sqlite3_finalize(std::exchange(_statement, nullptr));
            return refuse(SQLITE_MISUSE, "there is more than one statement in the text");
        }
        _state = ready;
    }

    void refuse(int code, const std::string& why)
    {
        failure = _side->fail("Statement", _text.sql, code, why);
    }

    void fail(const char* operation, State state, int code, const std::string& why)
    {
        sqlite3_reset(_statement);
        keepFailure(operation, state, code, why);
    }

    void keepFailure(const char* operation, State state, int code, const std::string& why)
    {
        _state = state;
        failure = _side->fail(operation, text(), code, why);
    }

    void failAsSqlite(const char* operation)
    {
        const int code = sqlite3_extended_errcode(_db);
        const std::string why = sqlite3_errmsg(_db);
        fail(operation, failed, code, why);
    }

    void letGo()
    {
        if (sqlite3_reset(_statement) != SQLITE_OK)
            _side->fail("release", text(), sqlite3_extended_errcode(_db), sqlite3_errmsg(_db));
        sqlite3_finalize(std::exchange(_statement, nullptr));
    }

    void take(PlainStatement& other)
    {
        _side = other._side;
        _db = other._db;
        _text = other._text;
        _statement = std::exchange(other._statement, nullptr);
        _state = std::exchange(other._state, ready);
        changes = other.changes;
        key = other.key;
        failure = std::exchange(other.failure, Failure());
    }

    bool isUsable(const char* operation)
    {
        if (_statement != nullptr && _side->db == _db)
            return true;
        if (_state != unprepared)
            fail(operation, failed, SQLITE_MISUSE,
                 _statement == nullptr ? "the statement was released or moved from"
                                       : "the database was closed or opened anew");
        return false;
    }

    bool canBind()
    {
        if (_state == unbound)
            return false;
        if (!isUsable("bind")) {
            if (_state != unprepared)
                _state = unbound;
            return false;
        }
        if (_state == row || _state == broken) {
            fail("bind", unbound, SQLITE_MISUSE,
                 "a value was bound at a row: reset the statement before");
            return false;
        }
        _state = ready;
        return true;
    }

    bool bindOne(const char* operation, int position, const Any& any)
    {
        const Stored value = stored(any);
        if (!value.unfit.empty()) {
            fail(operation, unbound, SQLITE_MISMATCH,
                 "the value of parameter " + std::to_string(position) + " " + value.unfit);
            return false;
        }
        const int size = static_cast<int>(value.text.size());
        if (value.type == SQLITE_INTEGER)
            sqlite3_bind_int64(_statement, position, value.number);
        else if (value.type == SQLITE_FLOAT)
            sqlite3_bind_double(_statement, position, value.real);
        else if (value.type == SQLITE_TEXT)
            sqlite3_bind_text(_statement, position, value.text.c_str(), size, SQLITE_TRANSIENT);
        else if (value.type == SQLITE_BLOB && size == 0)
            sqlite3_bind_zeroblob(_statement, position, 0);
        else if (value.type == SQLITE_BLOB)
            sqlite3_bind_blob(_statement, position, value.text.c_str(), size, SQLITE_TRANSIENT);
        else
            sqlite3_bind_null(_statement, position);
        return true;
    }

    bool bindAll(const char* operation, const std::vector<Any>& values)
    {
        const int wanted = parameterCount();
        const int given = static_cast<int>(values.size());
        if (given != wanted) {
            fail(operation, failed, SQLITE_RANGE,
                 "there are " + std::to_string(given) + " values for " + std::to_string(wanted)
                     + " parameters");
            return false;
        }
        _forgets = true;
        for (int i = 0; i < given; ++i) {
            if (!bindOne(operation, i + 1, values[static_cast<std::size_t>(i)]))
                return false;
        }
        return true;
    }

    // The values of a run are gone afterwards.
    void forget(const std::vector<Any>& values)
    {
        if (!values.empty() && _forgets)
            sqlite3_clear_bindings(_statement);
        _forgets = false;
    }

    bool restart(const char* operation)
    {
        if (!isUsable(operation))
            return false;
        if ((_state == row || _state == broken) && !end(operation))
            return false;
        _state = ready;
        return true;
    }

    void begin(const char* operation)
    {
        _side->run("Statement", operation, sqlite3_sql(_statement));
        failure = Failure();
        changes = 0;
        key.reset();
        _side->target = _text.target;
        _side->latest.reset();
        _keyBefore = sqlite3_last_insert_rowid(_db);
        _changesBefore = sqlite3_total_changes64(_db);
    }

    bool step(const char* operation)
    {
        const bool isFirst = _state == ready;
        const int rc = sqlite3_step(_statement);
        if (isFirst)
            key = _side->latest;
        // One that may update as well tells an insertion by its new key.
        const bool mayUpdate = _text.sql.find("conflict") != std::string::npos
                               || _text.sql.rfind("with", 0) == 0;
        if (mayUpdate && key == _keyBefore)
            key.reset();
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
            noteChanges();
            failAsSqlite(operation);
            return false;
        }
        if (rc == SQLITE_DONE) {
            end(operation);
            return false;
        }
        _state = row;
        return true;
    }

    bool end(const char* operation)
    {
        const int rc = sqlite3_reset(_statement);
        noteChanges();
        if (rc != SQLITE_OK) {
            failAsSqlite(operation);
            return false;
        }
        _state = ended;
        return true;
    }

    // Some of a statement that fails may stay.
    void noteChanges()
    {
        if (_text.changes && sqlite3_total_changes64(_db) != _changesBefore)
            changes = sqlite3_changes64(_db);
        if (changes == 0)
            key.reset();
    }

    bool runToEnd()
    {
        begin("run");
        while (step("run")) {
        }
        return _state == ended;
    }

    sql::Presence readOne(const std::vector<Any>& values, std::vector<Any>& variables)
    {
        if (values.empty() && _state == unbound)
            return sql::Presence::unknown;
        if (!restart("one") || (!values.empty() && !bindAll("one", values)))
            return sql::Presence::unknown;
        begin("one");
        if (!step("one"))
            return _state == ended ? sql::Presence::absent : sql::Presence::unknown;
        return readRow("one", variables) && end("one") ? sql::Presence::present
                                                       : sql::Presence::unknown;
    }

    bool readRow(const char* operation, std::vector<Any>& variables)
    {
        const int columns = sqlite3_data_count(_statement);
        const int given = static_cast<int>(variables.size());
        if (given != columns) {
            fail(operation, failed, SQLITE_RANGE,
                 "there are " + std::to_string(given) + " variables for " + std::to_string(columns)
                     + " columns");
            return false;
        }
        for (int i = 0; i < columns; ++i) {
            Any& variable = variables[static_cast<std::size_t>(i)];
            const char* const why = read(cell(i), variable.kind, variable.found);
            if (why != nullptr) {
                const std::string column = columnName(i);
                fail(operation, failed, SQLITE_MISMATCH, "column " + column + " " + why);
                return false;
            }
        }
        return true;
    }

    std::nullopt_t noColumn(const std::string& which)
    {
        if (_state == row || _state == broken)
            keepFailure("column", broken, SQLITE_RANGE, "there is no column " + which);
        else
            keepFailure("column", _state == unbound ? unbound : failed, SQLITE_MISUSE,
                        "column " + which + " was asked for outside a row");
        return std::nullopt;
    }

    PlainDatabase* _side = nullptr;
    sqlite3* _db = nullptr;
    sqlite3_stmt* _statement = nullptr;
    Text _text;
    State _state = unprepared;
    bool _forgets = false;
    sql::integer _keyBefore = 0;
    sql::integer _changesBefore = 0;
};

// --- Transactions --------------------------------------------------------------------------------

class PlainScope {
public:
    // A savepoint for null.
    PlainScope(PlainDatabase& side, const char* beginning) : _side(&side), _db(side.db)
    {
        static int savepoints = 0; // named as the library's are
        const std::string name = beginning == nullptr
                                     ? "sqlprepared_" + std::to_string(++savepoints)
                                     : "";
        if (begin(beginning != nullptr ? beginning : "savepoint " + name, name))
            enter();
        else
            finalize();
    }

    PlainScope(const PlainScope&) = delete;
    PlainScope& operator=(const PlainScope&) = delete;

    ~PlainScope()
    {
        if (hasToUndo() && undo("~TransactionScope") != SQLITE_DONE)
            _side->fail("~TransactionScope", sqlite3_sql(_rollback), sqlite3_extended_errcode(_db),
                        sqlite3_errmsg(_db));
        end();
    }

    bool isOpen() const
    {
        return whyNotOpen() == nullptr;
    }

    bool commit()
    {
        if (!isUsable("commit"))
            return false;
        if (const char* const why = whyNotOpen())
            return fail("commit", sqlite3_sql(_commit), SQLITE_ABORT_ROLLBACK, why);
        _isCommitting = true;
        const int rc = run("commit", _commit);
        _isCommitting = false;
        if (rc != SQLITE_DONE)
            return failAsSqlite("commit", _commit);
        end();
        failure = Failure();
        return true;
    }

    bool rollback()
    {
        if (!isUsable("rollback"))
            return false;
        if (hasToUndo() && undo("rollback") != SQLITE_DONE)
            return failAsSqlite("rollback", _rollback);
        end();
        failure = Failure();
        return true;
    }

    Failure failure;

private:
    enum State { unbegun, open, undoing, lost, ended };

    bool begin(const std::string& beginning, const std::string& name)
    {
        if (_db == nullptr)
            return fail("begin", beginning, SQLITE_MISUSE, "the database is not open");
        if (!scopes().empty() && !scopes().front()->isOpen())
            return fail("begin", beginning, SQLITE_ABORT_ROLLBACK, scopes().front()->whyNotOpen());
        _isNested = !name.empty() && sqlite3_get_autocommit(_db) == 0;
        _commit = prepared(name.empty() ? "commit" : "release " + name);
        _rollback = prepared(_isNested ? "rollback to " + name : "rollback");
        sqlite3_stmt* const statement = prepared(beginning);
        const bool hasBegun = run("begin", statement) == SQLITE_DONE;
        if (!hasBegun)
            failAsSqlite("begin", statement);
        sqlite3_finalize(statement);
        return hasBegun;
    }

    sqlite3_stmt* prepared(const std::string& text) const
    {
        sqlite3_stmt* statement = nullptr;
        expectEqual("the result of preparing",
                    sqlite3_prepare_v2(_db, text.c_str(), -1, &statement, nullptr), SQLITE_OK);
        return statement;
    }

    // On the same connection, the outermost first.
    std::vector<PlainScope*>& scopes() const
    {
        return _side->scopes[_db];
    }

    void enter()
    {
        _state = open;
        scopes().push_back(this);
        if (scopes().size() > 1)
            return;
        _isWatching = true;
        sqlite3_commit_hook(_db, refuseCommit, this);
        sqlite3_rollback_hook(_db, noteRollback, this);
    }

    // With those that were begun in it.
    void end()
    {
        if (_state == unbegun || _state == ended)
            return finalize();
        if (_isWatching) {
            sqlite3_commit_hook(_db, nullptr, nullptr);
            sqlite3_rollback_hook(_db, nullptr, nullptr);
        }
        while (_state != ended) {
            scopes().back()->_state = ended;
            scopes().pop_back();
        }
        finalize();
    }

    void finalize()
    {
        sqlite3_finalize(std::exchange(_commit, nullptr));
        sqlite3_finalize(std::exchange(_rollback, nullptr));
    }

    static int refuseCommit(void* scope)
    {
        PlainScope& self = *static_cast<PlainScope*>(scope);
        if (self._isCommitting)
            return 0;
        self._side->report(test::report::error(
            "Transaction::refuseCommit", "Refused a commit that is not the transaction's own"));
        return 1;
    }

    static void noteRollback(void* scope)
    {
        PlainScope& self = *static_cast<PlainScope*>(scope);
        if (self._state != open)
            return;
        for (PlainScope* const each : self.scopes())
            each->_state = lost;
        self._side->report(test::report::error(
            "Transaction::noteRollback",
            "The transaction was rolled back: nothing is committed before its scope ends"));
    }

    const char* whyNotOpen() const
    {
        if (_state == lost)
            return "the transaction was rolled back before";
        return _state == open && sqlite3_get_autocommit(_db) == 0
                   ? nullptr
                   : "the transaction has ended before";
    }

    // What was begun after a loss goes with it.
    bool hasToUndo() const
    {
        return isOpen()
               || (_state == lost && _isWatching && !_isNested && sqlite3_get_autocommit(_db) == 0);
    }

    bool isUsable(const char* operation)
    {
        if (_state == unbegun)
            return false;
        if (_state == ended)
            return fail(operation, operation, SQLITE_MISUSE, "the transaction has ended before");
        return _side->db == _db
               || fail(operation, operation, SQLITE_MISUSE,
                       "the database was closed or opened anew");
    }

    int undo(const char* operation)
    {
        if (!_isNested)
            _state = undoing;
        int rc = run(operation, _rollback);
        if (rc == SQLITE_DONE && _isNested)
            rc = run(operation, _commit);
        if (rc != SQLITE_DONE)
            _state = lost;
        return rc;
    }

    int run(const char* operation, sqlite3_stmt* statement) const
    {
        _side->run("Transaction", operation, sqlite3_sql(statement));
        return sqlite3_step(statement);
    }

    bool fail(const char* operation, const std::string& statement, int code, const std::string& why)
    {
        failure = _side->fail(operation, statement, code, why);
        return false;
    }

    bool failAsSqlite(const char* operation, sqlite3_stmt* statement)
    {
        fail(operation, sqlite3_sql(statement), sqlite3_extended_errcode(_db), sqlite3_errmsg(_db));
        sqlite3_reset(statement);
        return false;
    }

    PlainDatabase* _side;
    sqlite3* _db;
    sqlite3_stmt* _commit = nullptr;
    sqlite3_stmt* _rollback = nullptr;
    State _state = unbegun;
    bool _isNested = false;
    bool _isWatching = false;
    bool _isCommitting = false;
};

} // namespace fuzz

#endif
