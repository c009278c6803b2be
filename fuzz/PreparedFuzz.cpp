// Statements and transactions of sqlprepared beside plain SQLite: any series of binds, steps, runs,
// reads, moves, releases, changes of the schema, transactions, closes and reopens.

#include "Plain.h"

#include "Diagnostics.h"
#include "SqlDatabase.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"
#include "Twin.h"

#include <sqlite3.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using fuzz::Any;
using fuzz::Events;
using fuzz::expectEqual;
using fuzz::Failure;
using fuzz::failureOf;
using fuzz::Input;
using fuzz::Text;

constexpr int level = 8; // statements too

const char schema[] =
    "pragma foreign_keys = on;"
    "create table t (id integer primary key, a, b text, c real unique);"
    "create table w (k text primary key, v) without rowid;"
    "create table child (id integer primary key,"
    " parent references t (id) deferrable initially deferred);"
    "create table log (n integer primary key, id);"
    "create trigger t_log after insert on t begin insert into log (id) values (new.id); end";

// --- What is run ----------------------------------------------------------------------------------

const Text reads[] = {
    {"select * from t"},
    {"select id, b from t where id >= ?"},
    {"select :x, @y, $z, :x"},
    {"select ?1 as a, ?3 as b, ?1 as a"},
    {"select b, c, b from t order by id desc"},
    {"select count(*), max(id) from w"},
    {"select * from w where k > :k"},
    {"select cast(? as integer), cast(? as text)"},
    {"values (1, 'x'), (x'3132', 2.5), (null, ''), ('1', 1e999)"},
    {"select ?, '9223372036854775808', '-9223372036854775808', '12e1'"},
    {"explain select 1"},
};

const Text writes[] = {
    {"insert into t (a, b, c) values (?, ?, ?)", true, "t"},
    {"insert or replace into t values (?, ?, ?, ?)", true, "t"},
    {"/* an upsert */ insert into t (id, b) values (:id, :b)"
     " on conflict (id) do update set b = excluded.b || '!'",
     true, "t"},
    {"insert into t (b) values (?), (?) returning id, b", true, "t"},
    {"replace into w (k, v) values (:k, :v)", true, "w"},
    {"insert or ignore into w values (?, ?)", true, "w"},
    {"with x (n) as (values (1), (2)) insert into t (a) select n from x where n > ?", true, "t"},
    {"insert or fail into t (c) select value from (select 1 as value union select ? union select 3)",
     true, "t"},
    {"insert or rollback into t (id) values (?)", true, "t"},
    {"insert into child (parent) values (?) returning *", true, "child"},
    {"insert into t default values", true, "t"},
    {"update t set b = ? where id = ?", true},
    {"update or rollback t set c = 1", true},
    {"update t set a = a + 1 returning id", true},
    {"delete from t where id = ?", true},
    {"delete from t", true},
    {"delete from child", true},
    {"with x as (select max(id) as id from t) delete from t where id = (select id from x)", true},
};

const Text changes[] = {
    {"create table if not exists d (n)"},
    {"drop table if exists d"},
    {"create table d as select * from t"},
    {"alter table t add column e"},
    {"alter table t rename column b to bb"},
    {"alter table t rename column bb to b"},
    {"alter table w add column more default 7"},
    {"drop table w"},
    {"create table w (k text primary key, v) without rowid"},
    {"create index if not exists t_a on t (a)"},
    {"drop index if exists t_a"},
    {"begin"},
    {"begin immediate"},
    {"commit"},
    {"rollback"},
    {"savepoint p"},
    {"release p"},
    {"rollback to p"},
    {"vacuum"},
};

const Text refused[] = {
    {""},
    {"  -- a remark\n;"},
    {"select 1; select 2"},
    {"select 1;; /* the end */ -- of it"},
    {"select 1; -- another\nselect"},
    {"select 1 /* open"},
    {std::string("select 1\0", 9)},
    {"select * from missing"},
    {"select select"},
    {"select 'open"},
    {"insert into t (b) values (?, 1)"},
};

template <std::size_t count> const Text& oneOf(const Text (&texts)[count], Input& input)
{
    return texts[input.below(count)];
}

const Text& chosenText(Input& input)
{
    switch (input.below(8)) {
    case 0:
        return oneOf(refused, input);
    case 1:
        return oneOf(changes, input);
    case 2:
    case 3:
    case 4:
        return oneOf(reads, input);
    default:
        return oneOf(writes, input);
    }
}

// --- Both sides -----------------------------------------------------------------------------------

struct Statement {
    Statement(sql::Database& database, fuzz::PlainDatabase& side, const Text& text)
        : library(database, text.sql), plain(side, text)
    {
    }

    sql::Statement library;
    fuzz::PlainStatement plain;
};

struct Scope {
    std::unique_ptr<sql::TransactionScope, void (*)(sql::TransactionScope*)> library;
    std::unique_ptr<fuzz::PlainScope> plain;
};

template <typename Guard> void destroy(sql::TransactionScope* scope)
{
    delete static_cast<Guard*>(scope);
}

std::string contentsOf(sqlite3* db)
{
    std::string contents;
    const auto note = [](void* text, int count, char** values, char**) {
        for (int i = 0; i < count; ++i)
            *static_cast<std::string*>(text) += std::string(values[i] != nullptr ? values[i]
                                                                                 : "NULL")
                                                + (i < count - 1 ? '|' : '\n');
        return 0;
    };
    for (const char* const table : {"sqlite_schema", "t", "w", "child", "log", "d"}) {
        const std::string query = std::string("select * from ") + table;
        contents += query + "\n";
        sqlite3_exec(db, query.c_str(), note, &contents, nullptr);
    }
    return contents;
}

// Which locks there are, and the statements that hold them.
std::string locksOf(sqlite3* db)
{
    std::string locks = sqlite3_get_autocommit(db) != 0 ? "" : "in a transaction; ";
    locks += std::to_string(sqlite3_txn_state(db, nullptr));
    for (sqlite3_stmt* at = nullptr; (at = sqlite3_next_stmt(db, at)) != nullptr;)
        locks += sqlite3_stmt_busy(at) != 0 ? "; 1" : "";
    return locks;
}

class Run {
public:
    explicit Run(Input& input) : _input(input)
    {
        _diagnostics.setLevel(level);
        open();
    }

    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    ~Run()
    {
        while (!_scopes.empty())
            endScope();
        for (std::optional<Statement>& statement : _statements)
            statement.reset();
        expectSameReports();
        expectSameContents();
        close();
        for (sqlite3* const db : _left)
            expectEqual("the result of closing late", sqlite3_close(db), SQLITE_OK);
    }

    void step()
    {
        typedef void (Run::*Operation)();
        static const Operation operations[] = {
            &Run::prepare,  &Run::prepare,       &Run::bind,          &Run::bind,
            &Run::next,     &Run::next,          &Run::read,          &Run::read,
            &Run::run,      &Run::runWithValues, &Run::runWithValues, &Run::one,
            &Run::one,      &Run::columnByIndex, &Run::columnByName,  &Run::reset,
            &Run::clear,    &Run::ask,           &Run::release,       &Run::moveOver,
            &Run::script,   &Run::script,        &Run::begin,         &Run::commit,
            &Run::rollBack, &Run::endScope,      &Run::transact,      &Run::reopen,
        };
        const int count = sizeof operations / sizeof operations[0];
        _chosen = _input.below(statements);
        (this->*operations[_input.below(count)])();
        expectSame();
    }

private:
    static constexpr int statements = 3;

    // --- The database

    void open()
    {
        _diagnostics.clear();
        expectEqual("whether a database can be opened in memory",
                    _database.open(":memory:", sql::Database::access_create, false, 0), true);
        sqlite3* plain = nullptr;
        expectEqual("the result of sqlite3_open", sqlite3_open(":memory:", &plain), SQLITE_OK);
        _plain.use(plain);
        for (sqlite3* const db : {_database.getHandle(), plain})
            expectEqual("the result of the schema",
                        sqlite3_exec(db, schema, nullptr, nullptr, nullptr), SQLITE_OK);
        _diagnostics.clear();
        _plain.events.clear();
    }

    // With statements of its own a connection stays, until they have gone.
    void close()
    {
        sqlite3* const db = _database.getHandle();
        if (db == nullptr)
            return;
        const bool stays = sqlite3_next_stmt(db, nullptr) != nullptr;
        _database.close();
        expectEqual("the assertions", _diagnostics.assertions().size(), stays ? 1U : 0U);
        if (stays)
            _left.push_back(db);
        const int rc = sqlite3_close(_plain.db);
        expectEqual("the result of closing", rc, stays ? SQLITE_BUSY : SQLITE_OK);
        if (stays)
            _left.push_back(_plain.db);
        _plain.use(nullptr);
        _diagnostics.clear();
    }

    void reopen()
    {
        if (_input.below(4) != 0)
            return;
        close();
        if (_input.flip())
            open();
    }

    // --- Statements

    std::optional<Statement>& chosen()
    {
        std::optional<Statement>& statement = _statements[_chosen];
        if (!statement)
            prepare();
        return statement;
    }

    template <typename Actual, typename Expected>
    void compare(const char* what, Actual actual, Expected expected)
    {
        expectEqual((std::string(what) + " of " + _statements[_chosen]->plain.text()).c_str(),
                    actual, expected);
    }

    void prepare()
    {
        const Text& text = chosenText(_input);
        Statement made(_database, _plain, text);
        std::optional<Statement>& statement = _statements[_chosen];
        if (statement && _input.flip())
            *statement = std::move(made);
        else
            statement.emplace(std::move(made));
        if (_input.flip())
            statement->library = moved(statement->library);
    }

    // Itself.
    static sql::Statement&& moved(sql::Statement& statement)
    {
        return std::move(statement);
    }

    void moveOver()
    {
        std::optional<Statement>& from = chosen();
        const int other = _input.below(statements);
        if (_input.flip() && _statements[other])
            *_statements[other] = std::move(*from);
        else if (other != _chosen)
            _statements[other].emplace(std::move(*from));
    }

    void release()
    {
        chosen()->library.release();
        chosen()->plain.release();
    }

    void bind()
    {
        Statement& statement = *chosen();
        const Any value = fuzz::chosenAny(_input);
        if (_input.flip()) {
            const int position = _input.below(8) == 0 ? _input.number() : 1 + _input.below(3);
            statement.library.bind(position, value);
            statement.plain.bind(position, value);
        } else {
            static const std::string names[] = {":x", "@y", "$z", ":k",
                                                ":v", "x",  "",   ":id",
                                                ":b", "?1", ":X", std::string(":x\0", 3)};
            const std::string& name = names[_input.below(sizeof names / sizeof names[0])];
            statement.library.bind(name, value);
            statement.plain.bind(name, value);
        }
    }

    void clear()
    {
        chosen()->library.clearBindings();
        chosen()->plain.clearBindings();
    }

    void next()
    {
        compareNext(chosen()->library.next());
    }

    void compareNext(bool found)
    {
        compare("next", found, chosen()->plain.next());
    }

    // Mostly as many as there have to be.
    int chosenCount(int wanted)
    {
        const int count = _input.below(8) == 0 ? _input.below(5) : wanted;
        return count > 4 ? 4 : count;
    }

    std::vector<Any> chosenValues(int count)
    {
        std::vector<Any> values(static_cast<std::size_t>(count));
        for (Any& value : values)
            value = fuzz::chosenAny(_input);
        return values;
    }

    std::vector<Any> chosenVariables(int count)
    {
        static const Any::Kind lenient[] = {Any::of_optional_string, Any::of_optional_string,
                                            Any::of_optional_double, Any::of_optional_number};
        std::vector<Any> variables(static_cast<std::size_t>(count));
        for (Any& variable : variables)
            variable.kind = _input.flip()
                                ? lenient[_input.below(4)]
                                : static_cast<Any::Kind>(_input.below(Any::readable_kinds));
        return variables;
    }

    template <typename Operation> static auto spread(std::vector<Any>& all, Operation operation)
    {
        switch (all.size()) {
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

    static std::vector<std::string> foundIn(const std::vector<Any>& variables)
    {
        std::vector<std::string> found;
        found.reserve(variables.size());
        for (const Any& variable : variables)
            found.push_back(variable.found);
        return found;
    }

    void read()
    {
        Statement& statement = *chosen();
        const int count = chosenCount(statement.plain.columnCount());
        if (count == 0)
            return;
        std::vector<Any> variables = chosenVariables(count);
        std::vector<Any> expected = variables;
        const bool found = spread(variables,
                                  [&](auto&... each) { return statement.library.next(each...); });
        compare("next", found, statement.plain.next(expected));
        if (found)
            compare("a row", foundIn(variables), foundIn(expected));
    }

    void run()
    {
        Statement& statement = *chosen();
        compare("run", statement.library.run(), statement.plain.run());
    }

    void runWithValues()
    {
        Statement& statement = *chosen();
        const int count = chosenCount(statement.plain.parameterCount());
        if (count == 0)
            return run();
        std::vector<Any> values = chosenValues(count);
        const bool done = spread(values,
                                 [&](auto&... each) { return statement.library.run(each...); });
        compare("run", done, statement.plain.run(values));
    }

    // With variables of one kind each, which one() makes itself.
    void one()
    {
        Statement& statement = *chosen();
        std::vector<Any> values = chosenValues(_input.flip() ? statement.plain.parameterCount()
                                                             : 0);
        if (values.size() > 4)
            values.resize(4);
        if (_input.flip())
            oneOf<std::optional<std::string>>(statement, values, {Any::of_optional_string});
        else if (_input.flip())
            oneOf<double>(statement, values, {Any::of_double});
        else if (_input.flip())
            oneOf<sql::integer, std::optional<std::string>>(
                statement, values, {Any::of_int64, Any::of_optional_string});
        else
            oneOf<std::optional<double>, std::vector<unsigned char>, std::string>(
                statement, values, {Any::of_optional_double, Any::of_vector, Any::of_string});
    }

    template <typename... Row>
    void oneOf(Statement& statement, std::vector<Any>& values, const std::vector<Any::Kind>& kinds)
    {
        const auto result = values.empty() ? statement.library.one<Row...>()
                                           : spread(values, [&](auto&... each) {
                                                 return statement.library.one<Row...>(each...);
                                             });
        std::vector<Any> expected(kinds.size());
        for (std::size_t i = 0; i < kinds.size(); ++i)
            expected[i].kind = kinds[i];
        const sql::Presence found = statement.plain.one(values, expected);
        compare("whether one() has a value", static_cast<bool>(result),
                found == sql::Presence::present);
        compare("whether one() failed", result.failed(), found == sql::Presence::unknown);
        if (result.failed())
            compare("the failure of one()", failureOf(result.error()), statement.plain.failure);
        if (result)
            compare("the row of one()", textsOf(*result), foundIn(expected));
    }

    template <typename T> static std::vector<std::string> textsOf(const T& value)
    {
        return {fuzz::textOf(value)};
    }
    template <typename... Row>
    static std::vector<std::string> textsOf(const std::tuple<Row...>& row)
    {
        return std::apply(
            [](const auto&... cells) { return std::vector<std::string>{fuzz::textOf(cells)...}; },
            row);
    }

    void columnByIndex()
    {
        const int index = _input.below(8) == 0 ? _input.number() : _input.below(3);
        compareColumn(chosen()->library.column(index), chosen()->plain.column(index));
    }

    void columnByName()
    {
        static const std::string names[] = {"id", "b", "a", "count(*)", "k", "n", "", "ID", "?"};
        const std::string& name = names[_input.below(sizeof names / sizeof names[0])];
        compareColumn(chosen()->library.column(name), chosen()->plain.column(name));
    }

    void compareColumn(const sql::Column& column, std::optional<int> index)
    {
        const fuzz::Cell cell = index ? chosen()->plain.cell(*index) : fuzz::Cell();
        for (int i = _input.below(4); i >= 0; --i) {
            switch (_input.below(7)) {
            case 0:
                compare("asInteger", column.asInteger(), cell.number);
                break;
            case 1:
                compare("asDouble", fuzz::shown(column.asDouble()), fuzz::shown(cell.real));
                break;
            case 2:
                compare("asBool", column.asBool(),
                        cell.type == SQLITE_INTEGER ? cell.number == 1 : cell.text == "1");
                break;
            case 3:
                compare("asTime", column.asTime().asInteger(),
                        sql::integer{static_cast<time_t>(cell.number)});
                break;
            case 4:
                compare("asString", column.asString(), cell.text);
                break;
            case 5:
                compare("asText", std::string(column.asText()), cell.text);
                break;
            default:
                compare("asBytes", fuzz::textOf(column.asBytes()), cell.block);
            }
        }
        compare("isNull", column.isNull(), cell.type == SQLITE_NULL);
    }

    void reset()
    {
        Statement& statement = *chosen();
        compare("reset", statement.library.reset(), statement.plain.reset());
    }

    void ask()
    {
        Statement& statement = *chosen();
        compare("text", std::string(statement.library.text()), statement.plain.text());
        compare("expandedText", statement.library.expandedText(), statement.plain.expandedText());
        compare("isReadOnly", statement.library.isReadOnly(), statement.plain.isReadOnly());
        compare("parameterCount", statement.library.parameterCount(),
                statement.plain.parameterCount());
        compare("columnCount", statement.library.columnCount(), statement.plain.columnCount());
        for (int i = -1; i <= statement.plain.columnCount(); ++i)
            compare("columnName", statement.library.columnName(i), statement.plain.columnName(i));
    }

    // --- Scripts

    void script()
    {
        std::string script;
        for (int i = _input.below(3); i >= 0; --i) {
            static const char* const between[] = {";", "; ;\n", ";-- a remark\n", "; /* ; */ "};
            script += (_input.below(8) == 0 ? chosenText(_input) : oneOfChanges()).sql
                      + between[_input.below(4)];
        }
        const sql::Result<int> count = sql::runScript(_database, script);
        const auto [expected, failure] = plainScript(script);
        expectEqual("the failure of a script", failureOf(count.error()), failure);
        expectEqual("the statements of a script", count.valueOr(-1), expected);
    }

    const Text& oneOfChanges()
    {
        return changes[_input.below(sizeof changes / sizeof changes[0])];
    }

    std::pair<int, Failure> plainScript(const std::string& script)
    {
        if (_plain.db == nullptr)
            return {-1,
                    _plain.fail("runScript", script, SQLITE_MISUSE, "the database is not open")};
        if (script.find('\0') != std::string::npos)
            return {-1, _plain.fail("runScript", script, SQLITE_MISUSE,
                                    "there is a zero byte in the text")};
        int count = 0;
        const char* rest = script.c_str();
        while (*(rest = behindBlanks(rest)) != '\0') {
            std::string text = firstStatement(rest);
            sqlite3_stmt* statement = nullptr;
            int rc = sqlite3_prepare_v2(_plain.db, rest, -1, &statement, &rest);
            if (rc == SQLITE_OK) {
                text = sqlite3_sql(statement);
                _plain.run("Statement", "runScript", text.c_str());
                while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
                }
            }
            ++count;
            const int code = sqlite3_extended_errcode(_plain.db);
            const std::string why = sqlite3_errmsg(_plain.db);
            sqlite3_finalize(statement);
            if (rc != SQLITE_OK && rc != SQLITE_DONE)
                return {-1, _plain.fail("runScript", text, code,
                                        "statement " + std::to_string(count) + ": " + why)};
        }
        return {count, Failure()};
    }

    // Up to the first semicolon that ends one for SQLite.
    static std::string firstStatement(const std::string& script)
    {
        for (std::size_t end = script.find(';'); end != std::string::npos;
             end = script.find(';', end + 1)) {
            std::string first = script.substr(0, end + 1);
            if (sqlite3_complete(first.c_str()) != 0)
                return first;
        }
        return script;
    }

    static const char* behindBlanks(const char* sql)
    {
        for (;;) {
            sql += std::strspn(sql, "; \n");
            const char* end = nullptr;
            if (std::strncmp(sql, "--", 2) == 0)
                end = std::strchr(sql, '\n');
            else if (std::strncmp(sql, "/*", 2) == 0)
                end = std::strstr(sql, "*/");
            else
                return sql;
            sql = end != nullptr ? end + (*end == '*' ? 2 : 0) : sql + std::strlen(sql);
        }
    }

    // --- Transactions

    void begin()
    {
        static const char* const beginnings[] = {"begin deferred", "begin immediate",
                                                 "begin exclusive"};
        if (_scopes.size() == 4)
            return;
        const int mode = _input.below(6);
        Scope scope = {{nullptr, nullptr}, nullptr};
        if (mode < 3)
            scope.library = {
                new sql::Transaction(_database, static_cast<sql::TransactionMode>(mode)),
                destroy<sql::Transaction>};
        else
            scope.library = {new sql::Savepoint(_database), destroy<sql::Savepoint>};
        scope.plain = std::make_unique<fuzz::PlainScope>(_plain,
                                                         mode < 3 ? beginnings[mode] : nullptr);
        _scopes.push_back(std::move(scope));
    }

    Scope* chosenScope()
    {
        if (_scopes.empty())
            return nullptr;
        const std::size_t outer = _input.below(4) == 0 ? static_cast<std::size_t>(_input.below(4))
                                                       : 0;
        return &_scopes[_scopes.size() - 1 - outer % _scopes.size()];
    }

    void commit()
    {
        if (Scope* const scope = chosenScope())
            expectEqual("commit", scope->library->commit(), scope->plain->commit());
    }

    void rollBack()
    {
        if (Scope* const scope = chosenScope())
            expectEqual("rollback", scope->library->rollback(), scope->plain->rollback());
    }

    void endScope()
    {
        if (!_scopes.empty())
            _scopes.pop_back();
    }

    // By sqlwrapper, whose operations keep no reason.
    void transact()
    {
        if (_plain.db == nullptr)
            return;
        static const char* const words[] = {"BEGIN", "COMMIT", "ROLLBACK"};
        const int word = _input.below(3);
        const bool done = word == 0   ? _database.transactionBegin()
                          : word == 1 ? _database.transactionCommit()
                                      : _database.transactionRollback();
        const sql::Error error = sql::lastError(_database);
        const std::string statement = std::string(words[word]) + " TRANSACTION";
        _plain.report(test::report::ran(statement).front());
        char* why = nullptr;
        const int rc = sqlite3_exec(_plain.db, statement.c_str(), nullptr, nullptr, &why);
        if (rc != SQLITE_OK) {
            const Events report = test::report::refused(statement, test::reasonOf(rc, why));
            for (std::size_t i = 1; i < report.size(); ++i)
                _plain.report(report[i]);
        }
        expectEqual("a transaction's result", done, rc == SQLITE_OK);
        const Failure failure = {rc == SQLITE_OK ? 0 : sqlite3_extended_errcode(_plain.db),
                                 why != nullptr ? why : "", ""};
        expectEqual("the latest error", failureOf(error), failure);
        sqlite3_free(why);
    }

    // --- What has to be the same after each operation

    void expectSame()
    {
        expectSameReports();
        for (_chosen = 0; _chosen < statements; ++_chosen) {
            if (!_statements[_chosen])
                continue;
            const Statement& statement = *_statements[_chosen];
            compare("error", failureOf(statement.library.error()), statement.plain.failure);
            compare("isPrepared", statement.library.isPrepared(), statement.plain.isPrepared());
            compare("finished", statement.library.finished(), statement.plain.finished());
            compare("changes", statement.library.changes(), statement.plain.changes);
            compare("lastKey", statement.library.lastKey(), statement.plain.key);
        }
        for (const Scope& scope : _scopes) {
            expectEqual("isOpen", scope.library->isOpen(), scope.plain->isOpen());
            expectEqual("the error of a transaction", failureOf(scope.library->error()),
                        scope.plain->failure);
        }
        if (_plain.db != nullptr)
            expectEqual("the locks", locksOf(_database.getHandle()), locksOf(_plain.db));
        if (_input.below(16) == 0)
            expectSameContents();
    }

    void expectSameReports()
    {
        expectEqual("what is reported", _diagnostics.take(), test::visibleAt(level, _plain.events));
        _plain.events.clear();
    }

    void expectSameContents()
    {
        if (_plain.db != nullptr)
            expectEqual("the contents", contentsOf(_database.getHandle()), contentsOf(_plain.db));
    }

    Input& _input;
    test::Diagnostics _diagnostics;
    std::vector<sqlite3*> _left; // closed with statements that were not released
    sql::Database _database;
    fuzz::PlainDatabase _plain;
    int _chosen = 0;
    std::optional<Statement> _statements[statements];
    std::vector<Scope> _scopes; // the innermost last
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Run run(input);
    for (int steps = 0; steps < 100 && !input.isUsedUp(); ++steps)
        run.step();
    return 0;
}
