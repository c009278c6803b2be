#ifndef SQLWRAPPER_FUZZ_PREPARED_H
#define SQLWRAPPER_FUZZ_PREPARED_H

// Databases, statements and transactions on two sides: the library, and SQLite's own interface, on which
// is told once more what the library has to do, to report and to answer. Each operation compares them.

#include "Any.h"
#include "Reports.h"
#include "SqlDatabase.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"
#include "Twin.h"

#include <sqlite3.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace fuzz {

class Scope;

inline sql::Error reasonOf(sqlite3* db)
{
    return {sqlite3_extended_errcode(db), sqlite3_errmsg(db)};
}

// Empty where there is none.
inline std::string failureOf(const sql::Error& error)
{
    const std::string code = std::to_string(error.extendedCode());
    return error ? code + ": " + error.text() + " in '" + error.statement() + "'" : "";
}

inline std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

inline std::string upToZero(const std::string& text)
{
    return text.substr(0, text.find('\0'));
}

class Database : public test::Twin {
public:
    explicit Database(Input& choices) : input(choices)
    {
    }

    void open()
    {
        expectEqual("whether a database can be opened in memory",
                    library.open(":memory:", sql::Database::access_create, false, 0), true);
        expectEqual("the result of sqlite3_open", sqlite3_open(":memory:", &plain), SQLITE_OK);
        sqlite3_update_hook(plain, noteInsertion, this);
        use(plain);
    }

    // With statements of its own a connection stays, until they have gone.
    bool close()
    {
        sqlite3* const db = library.getHandle();
        const bool stays = sqlite3_next_stmt(db, nullptr) != nullptr;
        library.close();
        expectEqual("the result of closing", sqlite3_close(plain), stays ? SQLITE_BUSY : SQLITE_OK);
        if (stays)
            left.insert(left.end(), {db, plain});
        plain = nullptr;
        return !stays;
    }

    void start(const std::string& operation, const std::string& statement)
    {
        report(test::report::debug(2, operation, "stmt='" + statement + "'"));
    }

    std::string fail(const char* operation, const std::string& statement, const sql::Error& reason)
    {
        const std::string code = std::to_string(reason.extendedCode());
        const std::string line = code + "=" + reason.name() + ": " + reason.text();
        const std::string text = upToZero(statement);
        report(test::report::statementFailed(operation, text, upToZero(line)));
        return failureOf({reason.extendedCode(), reason.text(), text});
    }

    Input& input;
    sql::Database library;
    sqlite3* plain = nullptr;
    std::vector<sqlite3*> left;                     // that were closed, and stay
    std::map<sqlite3*, std::vector<Scope*>> scopes; // that last, the outermost first
    std::string target;                             // of the statement that runs, if it inserts
    std::optional<sql::integer> latest;             // the key that it has given to a row of it last

private:
    static void noteInsertion(void* context, int operation, const char*, const char* table,
                              sqlite3_int64 key)
    {
        Database& self = *static_cast<Database*>(context);
        if (operation == SQLITE_INSERT && self.target == table)
            self.latest = key;
    }
};

// A statement, and what SQLite does not tell of it.
struct Text {
    std::string sql;
    std::string target = {}; // into which it inserts
    std::string misuse = {}; // why the library has to refuse it
};

// --- Statements ----------------------------------------------------------------------------------

template <typename Operation> auto spread(std::vector<Any>& all, Operation operation)
{
    switch (all.size()) {
    case 0:
        return operation();
    case 1:
        return operation(all[0]);
    case 2:
        return operation(all[0], all[1]);
    case 3:
        return operation(all[0], all[1], all[2]);
    default:
        return operation(all[0], all[1], all[2], all[3]);
    }
}

class Statement {
public:
    Statement(Database& side, const Text& text)
        : _library(side.library, text.sql), _side(&side), _db(side.plain), _text(text)
    {
        const std::string misuse = _db == nullptr ? "the database is not open" : text.misuse;
        if (!misuse.empty())
            _failure = side.fail("Statement", text.sql, {SQLITE_MISUSE, misuse});
        else if (sqlite3_prepare_v2(_db, text.sql.c_str(), -1, &_plain, nullptr) != SQLITE_OK)
            _failure = side.fail("Statement", text.sql, reasonOf(_db));
        else
            _state = ready;
    }

    // From itself, too.
    void take(Statement& other)
    {
        _library = std::move(other._library);
        if (&other == this)
            return;
        letGo();
        _db = other._db;
        _text = other._text;
        _plain = std::exchange(other._plain, nullptr);
        _state = std::exchange(other._state, ready);
        _keyBefore = other._keyBefore;
        _changesBefore = other._changesBefore;
        _failure = std::exchange(other._failure, std::string());
        _changes = other._changes;
        _key = other._key;
    }

    void release()
    {
        _library.release();
        letGo();
    }

    void letGo()
    {
        if (sqlite3_reset(_plain) != SQLITE_OK)
            _side->fail("release", text(), reasonOf(_db));
        sqlite3_finalize(std::exchange(_plain, nullptr));
        _state = _state == unprepared ? unprepared : ready;
    }

    void bind()
    {
        static const std::string names[] = {":x", "@y",  "$z", ":k", ":v", "x",
                                            "",   ":id", ":b", "?1", ":X", std::string(":x\0", 3)};
        const Any value = anyValue(_side->input);
        const int count = sqlite3_bind_parameter_count(_plain);
        int position = anyIndex();
        std::string which = std::to_string(position) + " among " + std::to_string(count);
        if (_side->input.flip()) {
            which = _side->input.oneOf(names);
            position = sqlite3_bind_parameter_index(_plain, which.c_str());
            position = upToZero(which) == which ? position : 0;
            _library.bind(which, value);
        } else {
            _library.bind(position, value);
        }
        if (!canBind())
            return;
        if (position > 0 && position <= count)
            bindOne("bind", position, value);
        else
            fail("bind", unbound, {SQLITE_RANGE, "there is no parameter " + which});
    }

    void clear()
    {
        _library.clearBindings();
        if (canBind())
            sqlite3_clear_bindings(_plain);
    }

    void next()
    {
        std::vector<Any> cells = someOf(_library.columnCount(), true);
        std::vector<Any> expected = cells;
        const bool found = spread(cells, [&](auto&... each) { return _library.next(each...); });
        const bool usable = isUsable("next");
        if (usable && _state == broken && end("next"))
            _state = failed;
        if (usable && _state == ready)
            begin("next");
        const bool goesOn = usable && (_state == ready || _state == row);
        compare("next", found,
                goesOn && step("next") && (cells.empty() || readRow("next", expected)));
        compare("the row", testing::PrintToString(cells), testing::PrintToString(expected));
    }

    void run()
    {
        std::vector<Any> values = someOf(_library.parameterCount(), false);
        const bool done = spread(values, [&](auto&... each) { return _library.run(each...); });
        if (start("run", values)) {
            while (step("run")) {
            }
        }
        forgetValues();
        compare("run", done, _state == ended);
    }

    // With variables that one() makes itself.
    void one()
    {
        const int kind = _side->input.below(3);
        if (kind == 0)
            oneRow<double>();
        else if (kind == 1)
            oneRow<sql::integer, OptionalText>();
        else
            oneRow<OptionalText, Block, std::string>();
    }

    void column()
    {
        static const std::string names[] = {"id", "b", "a", "count(*)", "k", "n", "", "ID", "?"};
        const bool isName = _side->input.flip();
        const int index = anyIndex();
        const std::string which = isName ? _side->input.oneOf(names) : std::to_string(index);
        const sql::Column column = isName ? _library.column(which) : _library.column(index);
        const Cell cell = plainColumn(which, isName);
        for (int i = _side->input.below(4); i >= 0; --i)
            compareCell(column, cell);
        compare("isNull", column.isNull(), cell.type == SQLITE_NULL);
    }

    void reset()
    {
        const bool done = restart("reset");
        if (done)
            _failure.clear();
        compare("reset", _library.reset(), done);
    }

    void ask()
    {
        char* const expanded = sqlite3_expanded_sql(_plain);
        compare("text", std::string(_library.text()), text());
        compare("expandedText", _library.expandedText(), orEmpty(expanded));
        sqlite3_free(expanded);
        compare("isReadOnly", _library.isReadOnly(), sqlite3_stmt_readonly(_plain) != 0);
        compare("parameterCount", _library.parameterCount(), sqlite3_bind_parameter_count(_plain));
        const int count = sqlite3_column_count(_plain);
        compare("columnCount", _library.columnCount(), count);
        for (int i = -1; _plain != nullptr && i <= count; ++i)
            compare("columnName", _library.columnName(i), orEmpty(sqlite3_column_name(_plain, i)));
    }

    void expectSame() const
    {
        compare("error", failureOf(_library.error()), _failure);
        compare("isPrepared", _library.isPrepared(), _plain != nullptr);
        compare("finished", _library.finished(), _state == ended);
        compare("changes", _library.changes(), _changes);
        compare("lastKey", _library.lastKey(), _key);
    }

private:
    enum State { ready, row, broken, ended, failed, unbound, unprepared };

    template <typename T> void compare(const char* what, const T& actual, const T& expected) const
    {
        expectEqual((what + (" of " + text())).c_str(), actual, expected);
    }

    std::string text() const
    {
        return orEmpty(sqlite3_sql(_plain));
    }

    // --- Choices

    // Mostly from 0 to 2.
    int anyIndex() const
    {
        return _side->input.below(8) == 0 ? _side->input.number() : _side->input.below(3);
    }

    // None, or mostly as many as there have to be; some are lenient, and take any cell.
    std::vector<Any> someOf(int wanted, bool lenient) const
    {
        Input& input = _side->input;
        const int count = input.flip() ? 0 : input.below(8) == 0 ? input.below(5) : wanted;
        std::vector<Any> all(static_cast<std::size_t>(count > 4 ? 4 : count));
        for (Any& each : all) {
            if (!lenient || input.flip())
                each = anyValue(input);
        }
        return all;
    }

    // --- What the library has to do

    bool fail(const char* operation, State state, const sql::Error& reason)
    {
        sqlite3_reset(_plain);
        _state = state;
        _failure = _side->fail(operation, text(), reason);
        return false;
    }

    bool isAtRow() const
    {
        return _state == row || _state == broken;
    }

    bool isUsable(const char* operation)
    {
        if (_state == unprepared || (_plain != nullptr && _side->plain == _db))
            return _state != unprepared;
        return fail(operation, failed,
                    {SQLITE_MISUSE, _plain == nullptr ? "the statement was released or moved from"
                                                      : "the database was closed or opened anew"});
    }

    bool canBind()
    {
        if (_state == unbound || _state == unprepared)
            return false;
        if (isAtRow() && _side->plain == _db)
            return fail("bind", unbound,
                        {SQLITE_MISUSE, "a value was bound at a row: reset the statement before"});
        _state = isUsable("bind") ? ready : unbound;
        return _state == ready;
    }

    bool bindOne(const char* operation, int position, const Any& value)
    {
        const char* const why = bindPlainly(_plain, position, value);
        const std::string which = "the value of parameter " + std::to_string(position) + " ";
        return why == nullptr || fail(operation, unbound, {SQLITE_MISMATCH, which + why});
    }

    void forgetValues()
    {
        if (std::exchange(_hasToForget, false))
            sqlite3_clear_bindings(_plain);
    }

    bool restart(const char* operation)
    {
        if (!isUsable(operation) || (isAtRow() && !end(operation)))
            return false;
        _state = ready;
        return true;
    }

    // With the values that are bound, if there are none.
    bool start(const char* operation, const std::vector<Any>& values)
    {
        if ((_state == unbound && values.empty()) || !restart(operation))
            return false;
        if (!values.empty())
            forgetRun(); // even if it ends here
        const int wanted = sqlite3_bind_parameter_count(_plain);
        if (!values.empty() && static_cast<int>(values.size()) != wanted)
            return fail(operation, failed,
                        {SQLITE_RANGE, "there are " + std::to_string(values.size()) + " values for "
                                           + std::to_string(wanted) + " parameters"});
        _hasToForget = !values.empty();
        int position = 0;
        for (const Any& value : values) {
            if (!bindOne(operation, ++position, value))
                return false;
        }
        begin(operation);
        return true;
    }

    void forgetRun()
    {
        _changes = 0;
        _key.reset();
    }

    void begin(const std::string& operation)
    {
        _side->start("Statement::" + operation, text());
        _side->target = _text.target;
        _side->latest.reset();
        _failure.clear();
        forgetRun();
        _keyBefore = sqlite3_last_insert_rowid(_db);
        _changesBefore = sqlite3_total_changes64(_db);
    }

    bool step(const char* operation)
    {
        const bool isFirst = _state == ready;
        const int rc = sqlite3_step(_plain);
        if (isFirst)
            noteKey();
        if (rc == SQLITE_ROW)
            _state = row;
        else if (rc == SQLITE_DONE)
            end(operation);
        else
            failToRun(operation);
        return rc == SQLITE_ROW;
    }

    bool end(const char* operation)
    {
        if (sqlite3_reset(_plain) != SQLITE_OK)
            return failToRun(operation);
        noteChanges();
        _state = ended;
        return true;
    }

    // Some of its changes may stay.
    bool failToRun(const char* operation)
    {
        noteChanges();
        return fail(operation, failed, reasonOf(_db));
    }

    // One that may update as well tells an insertion by its new key.
    void noteKey()
    {
        const bool mayUpdate = _text.sql.find("conflict") != std::string::npos;
        if (!mayUpdate || _side->latest != _keyBefore)
            _key = _side->latest;
    }

    void noteChanges()
    {
        if (!sqlite3_stmt_readonly(_plain) && sqlite3_total_changes64(_db) != _changesBefore)
            _changes = sqlite3_changes64(_db);
        if (_changes == 0)
            _key.reset();
    }

    bool readRow(const char* operation, std::vector<Any>& variables)
    {
        const int columns = sqlite3_data_count(_plain);
        if (static_cast<int>(variables.size()) != columns)
            return fail(operation, failed,
                        {SQLITE_RANGE, "there are " + std::to_string(variables.size())
                                           + " variables for " + std::to_string(columns)
                                           + " columns"});
        int index = 0;
        for (Any& variable : variables) {
            const char* const why = readPlainly(cellOf(_plain, index), variable);
            const std::string which = std::string("column ") + sqlite3_column_name(_plain, index++);
            if (why != nullptr)
                return fail(operation, failed, {SQLITE_MISMATCH, which + " " + why});
        }
        return true;
    }

    template <typename... Row> void oneRow()
    {
        std::vector<Any> values = someOf(_library.parameterCount(), false);
        const auto result = spread(values,
                                   [&](auto&... each) { return _library.one<Row...>(each...); });
        const auto listed = [](const auto&... cells) {
            return std::vector<Any>{cells...};
        };
        std::vector<Any> expected = listed(Row()...);
        const bool isRead = start("one", values) && step("one") && readRow("one", expected)
                            && end("one");
        forgetValues();
        compare("whether one() has a row", static_cast<bool>(result), isRead);
        compare("the failure of one()", failureOf(result.error()),
                _state == ended ? std::string() : _failure);
        if (result)
            compare("the row of one()", std::apply(listed, std::tuple(*result)), expected);
    }

    // By name or, as a text, by index. The row stays.
    Cell plainColumn(const std::string& which, bool isName)
    {
        if (!isUsable("column"))
            return Cell();
        for (int i = 0; i < sqlite3_data_count(_plain); ++i) {
            if (which == (isName ? sqlite3_column_name(_plain, i) : std::to_string(i)))
                return cellOf(_plain, i);
        }
        const std::string why = isAtRow() ? "there is no column " + which
                                          : "column " + which + " was asked for outside a row";
        _failure = _side->fail("column", text(), {isAtRow() ? SQLITE_RANGE : SQLITE_MISUSE, why});
        _state = isAtRow() ? broken : _state == unbound ? unbound : failed;
        return Cell();
    }

    // In any order: a getter may change what SQLite holds.
    void compareCell(const sql::Column& column, const Cell& cell) const
    {
        const int getter = _side->input.below(5);
        const sql::Bytes bytes = getter == 0 ? column.asBytes() : sql::Bytes();
        const std::string_view block(static_cast<const char*>(bytes.data), bytes.size);
        if (getter == 0)
            compare("asBytes", std::string(block), cell.text);
        else if (getter == 1)
            compare("asInteger", column.asInteger(), cell.number);
        else if (getter == 2)
            compare("asDouble", testing::PrintToString(column.asDouble()),
                    testing::PrintToString(cell.real));
        else if (getter == 3)
            compare("asBool", column.asBool(), cell.text == "1");
        else
            compare("asString", column.asString(), cell.text);
    }

    sql::Statement _library;
    Database* _side;
    sqlite3* _db;
    sqlite3_stmt* _plain = nullptr;
    Text _text;
    State _state = unprepared;
    bool _hasToForget = false;
    sql::integer _keyBefore = 0;
    sql::integer _changesBefore = 0;
    std::string _failure;
    sql::integer _changes = 0;
    std::optional<sql::integer> _key;
};

// --- Transactions --------------------------------------------------------------------------------

class Scope {
public:
    // A savepoint for null.
    Scope(Database& side, const char* beginning, std::shared_ptr<sql::TransactionScope> library)
        : _library(std::move(library)), _side(side), _db(side.plain)
    {
        static int savepoints = 0; // named as the library's are
        std::string text = orEmpty(beginning);
        if (beginning == nullptr) {
            const std::string name = "sqlprepared_" + std::to_string(++savepoints);
            _isNested = _db != nullptr && sqlite3_get_autocommit(_db) == 0;
            text = "savepoint " + name;
            _commit = "release " + name;
            _rollback = _isNested ? "rollback to " + name : _rollback;
        }
        begin(text);
    }

    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    ~Scope()
    {
        if (hasToUndo() && !undo("~TransactionScope"))
            fail("~TransactionScope", _rollback, reasonOf(_db));
        end();
    }

    void commit()
    {
        bool done = isUsable("commit");
        if (const char* const why = done ? whyNotOpen() : nullptr)
            done = fail("commit", _commit, {SQLITE_ABORT_ROLLBACK, why});
        _isCommitting = true;
        if (done)
            done = run("commit", _commit) ? end() : fail("commit", _commit, reasonOf(_db));
        _isCommitting = false;
        expectEqual("commit", _library->commit(), done);
    }

    void rollback()
    {
        bool done = isUsable("rollback");
        if (done && hasToUndo() && !undo("rollback"))
            done = fail("rollback", _rollback, reasonOf(_db));
        expectEqual("rollback", _library->rollback(), done && end());
    }

    void expectSame() const
    {
        expectEqual("isOpen", _library->isOpen(), whyNotOpen() == nullptr);
        expectEqual("the error of a transaction", failureOf(_library->error()), _failure);
    }

private:
    enum State { unbegun, open, undoing, lost, ended };

    bool begin(const std::string& text)
    {
        std::vector<Scope*>& scopes = _side.scopes[_db];
        const char* const why = scopes.empty() ? nullptr : scopes.front()->whyNotOpen();
        if (_db == nullptr)
            return fail("begin", text, {SQLITE_MISUSE, "the database is not open"});
        if (why != nullptr)
            return fail("begin", text, {SQLITE_ABORT_ROLLBACK, why});
        if (!run("begin", text))
            return fail("begin", text, reasonOf(_db));
        _state = open;
        sqlite3_prepare_v2(_db, _commit.c_str(), -1, &_holder, nullptr);
        _isWatching = scopes.empty();
        if (_isWatching)
            watch(refuseCommit, noteRollback);
        scopes.push_back(this);
        return true;
    }

    void watch(int (*onCommit)(void*), void (*onRollback)(void*))
    {
        sqlite3_commit_hook(_db, onCommit, this);
        sqlite3_rollback_hook(_db, onRollback, this);
    }

    static int refuseCommit(void* scope)
    {
        const Scope& self = *static_cast<Scope*>(scope);
        if (self._isCommitting)
            return 0;
        self._side.report(test::report::error(
            "Transaction::refuseCommit", "Refused a commit that is not the transaction's own"));
        return 1;
    }

    static void noteRollback(void* scope)
    {
        const Scope& self = *static_cast<Scope*>(scope);
        if (self._state != open)
            return;
        for (Scope* const each : self._side.scopes[self._db])
            each->_state = lost;
        self._side.report(test::report::error(
            "Transaction::noteRollback",
            "The transaction was rolled back: nothing is committed before its scope ends"));
    }

    // With those that were begun in it.
    bool end()
    {
        if (std::exchange(_isWatching, false))
            watch(nullptr, nullptr);
        std::vector<Scope*>& scopes = _side.scopes[_db];
        for (; _state != unbegun && _state != ended; scopes.pop_back())
            scopes.back()->_state = ended;
        sqlite3_finalize(std::exchange(_holder, nullptr));
        _failure.clear();
        return true;
    }

    // Null while it is open.
    const char* whyNotOpen() const
    {
        if (_state == lost)
            return "the transaction was rolled back before";
        const bool isOpen = _state == open && sqlite3_get_autocommit(_db) == 0;
        return isOpen ? nullptr : "the transaction has ended before";
    }

    bool isUsable(const char* operation)
    {
        if (_state == ended)
            return fail(operation, operation, {SQLITE_MISUSE, "the transaction has ended before"});
        if (_state == unbegun || _side.plain == _db)
            return _state != unbegun;
        return fail(operation, operation,
                    {SQLITE_MISUSE, "the database was closed or opened anew"});
    }

    // What was begun after a loss goes with it.
    bool hasToUndo() const
    {
        const bool isLast = _state == lost && _isWatching && !_isNested;
        return whyNotOpen() == nullptr || (isLast && sqlite3_get_autocommit(_db) == 0);
    }

    bool undo(const char* operation)
    {
        const State former = std::exchange(_state, _isNested ? _state : undoing);
        const bool done = run(operation, _rollback);
        if (done && _isNested)
            run(operation, _commit);
        _state = former;
        return done;
    }

    bool run(const std::string& operation, const std::string& statement) const
    {
        _side.start("Transaction::" + operation, statement);
        return sqlite3_exec(_db, statement.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    }

    bool fail(const char* operation, const std::string& statement, const sql::Error& reason)
    {
        _failure = _side.fail(operation, statement, reason);
        return false;
    }

    std::shared_ptr<sql::TransactionScope> _library; // which knows what it was made as
    Database& _side;
    sqlite3* _db;
    std::string _commit = "commit";
    std::string _rollback = "rollback";
    sqlite3_stmt* _holder = nullptr; // of the connection, as the library's statements are
    State _state = unbegun;
    bool _isNested = false;
    bool _isWatching = false;
    bool _isCommitting = false;
    std::string _failure;
};

} // namespace fuzz

#endif
