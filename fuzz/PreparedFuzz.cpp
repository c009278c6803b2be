// Statements and transactions of sqlprepared beside plain SQLite: any series of binds, steps, runs,
// reads, moves, releases, changes of the schema, transactions, closes and reopens.

#include "Prepared.h"

#include "Diagnostics.h"
#include "Sqlite.h"

#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using fuzz::expectEqual;
using fuzz::failureOf;
using fuzz::Input;
using fuzz::Scope;
using fuzz::Statement;
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
    {"select b, c, a as b from t order by id desc"},
    {"select count(*), max(id) from w"},
    {"select * from w where k > :k"},
    {"select cast(? as integer), cast(? as text)"},
    {"values (2, '+-5'), (x'3132', 9223372036854775808.0), (null, '12e1'), ('0x10', 1e999)"},
    {"select ?, '9223372036854775808', '-9223372036854775808', '12e1'"},
    {"explain select 1"},
};

const Text writes[] = {
    {"insert into t (a, b, c) values (?, ?, ?)", "t"},
    {"insert or replace into t values (?, ?, ?, ?)", "t"},
    {"insert /* or update */ into t (id, b) values (:id, :b)"
     " on conflict (id) do update set b = excluded.b || '!'",
     "t"},
    {"insert into t (b) values (?), (?) returning id, b", "t"},
    {"replace into w (k, v) values (:k, :v)"},
    {"insert or ignore into w values (?, ?)"},
    {"with x (n) as (values (1), (2)) insert into t (a) select n from x where n > ?", "t"},
    {"insert or fail into t (c) select value from (select 1 as value union select ? union select 3)",
     "t"},
    {"insert or rollback into t (id) values (?)", "t"},
    {"insert into child (parent) values (?) returning *", "child"},
    {"insert into t default values", "t"},
    {"update t set b = ? where id = ?"},
    {"update or rollback t set c = 1"},
    {"update t set a = a + 1 returning id"},
    {"delete from t where id = ?"},
    {"delete from t"},
    {"delete from child"},
    {"with x as (select max(id) as id from t) delete from t where id = (select id from x)"},
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

const Text odd[] = {
    {"", "", "there is no statement in the text"},
    {"  -- a remark\n;", "", "there is no statement in the text"},
    {"select 1; select 2", "", "there is more than one statement in the text"},
    {"select 1;; /* the end */ -- of it"},
    {"select 1; -- another\nselect", "", "there is more than one statement in the text"},
    {"select 1 /* open"},
    {std::string("select 1\0", 9), "", "there is a zero byte in the text"},
    {"select * from missing"},
    {"select select"},
    {"select 'open"},
    {"insert into t (b) values (?, 1)"},
};

const Text& chosenText(Input& input)
{
    const int kind = input.below(8);
    if (kind < 2)
        return kind == 0 ? input.oneOf(odd) : input.oneOf(changes);
    return kind < 5 ? input.oneOf(reads) : input.oneOf(writes);
}

// --- What is compared ----------------------------------------------------------------------------

std::string contentsOf(sqlite3* db)
{
    std::string contents;
    for (const std::string table : {"sqlite_schema", "t", "w", "child", "log", "d"}) {
        if (sqlite3_table_column_metadata(db, nullptr, table.c_str(), nullptr, nullptr, nullptr,
                                          nullptr, nullptr, nullptr)
            == SQLITE_OK)
            contents += table + ":\n" + test::rows(db, "select * from " + table) + "\n";
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
    explicit Run(Input& input) : _input(input), _database(input)
    {
        _diagnostics.setLevel(level);
        open();
        for (int i = 0; i < 3; ++i)
            _statements.emplace_back(_database, chosenText(_input));
        expectSame(false);
    }

    void step()
    {
        static void (Run::*const own[])() = {
            &Run::prepare, &Run::prepare, &Run::move, &Run::script, &Run::script,   &Run::begin,
            &Run::begin,   &Run::end,     &Run::end,  &Run::end,    &Run::transact, &Run::reopen};
        static void (Statement::*const ofStatement[])() = {
            &Statement::bind,   &Statement::bind, &Statement::next,  &Statement::next,
            &Statement::next,   &Statement::run,  &Statement::run,   &Statement::one,
            &Statement::column, &Statement::ask,  &Statement::reset, &Statement::clear,
            &Statement::release};
        if (_input.below(3) == 0)
            (this->*_input.oneOf(own))();
        else
            (chosen().*_input.oneOf(ofStatement))();
        expectSame(_input.below(16) == 0);
    }

    void finish()
    {
        while (!_scopes.empty())
            _scopes.pop_back();
        for (Statement& statement : _statements)
            statement.letGo();
        _statements.clear();
        expectSame(true);
        close();
        for (sqlite3* const db : _database.left)
            expectEqual("the result of closing late", sqlite3_close(db), SQLITE_OK);
    }

private:
    void open()
    {
        _database.open();
        test::run(_database.library.getHandle(), schema);
        test::run(_database.plain, schema);
        _diagnostics.clear();
    }

    void close()
    {
        if (_database.plain == nullptr)
            return;
        const std::size_t assertions = _database.close() ? 0 : 1;
        expectEqual("the assertions", _diagnostics.assertions().size(), assertions);
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

    Statement& chosen()
    {
        return _statements[static_cast<std::size_t>(_input.below(3))];
    }

    void prepare()
    {
        Statement made(_database, chosenText(_input));
        chosen().take(made);
    }

    void move()
    {
        chosen().take(chosen());
    }

    void script()
    {
        static const std::string between[] = {"",         "",     "; ;\n", "-- a remark\n",
                                              " /* ; */", " \t;", "\n",    std::string("\0", 1)};
        std::vector<std::string> texts;
        std::string script;
        for (int i = _input.below(3); i >= 0; --i) {
            const bool writing = _input.below(8) == 0;
            texts.push_back((writing ? _input.oneOf(writes) : _input.oneOf(changes)).sql + ";");
            script += texts.back() + _input.oneOf(between);
        }
        const sql::Result<int> count = sql::runScript(_database.library, script);
        const std::string failure = plainScript(script, texts);
        expectEqual("the failure of a script", failureOf(count.error()), failure);
        expectEqual("the statements of a script", count.valueOr(-1),
                    failure.empty() ? static_cast<int>(texts.size()) : -1);
    }

    std::string plainScript(const std::string& script, const std::vector<std::string>& texts)
    {
        sqlite3* const db = _database.plain;
        const char* const misuse = db == nullptr ? "the database is not open"
                                                 : "there is a zero byte in the text";
        if (db == nullptr || script.find('\0') != std::string::npos)
            return _database.fail("runScript", script, {SQLITE_MISUSE, misuse});
        std::string failure;
        for (std::size_t i = 0; i < texts.size() && failure.empty(); ++i) {
            sqlite3_stmt* statement = nullptr;
            int rc = sqlite3_prepare_v2(db, texts[i].c_str(), -1, &statement, nullptr);
            if (rc == SQLITE_OK)
                _database.start("Statement::runScript", texts[i]);
            while (rc == SQLITE_OK || rc == SQLITE_ROW)
                rc = sqlite3_step(statement);
            const std::string place = "statement " + std::to_string(i + 1) + ": ";
            if (rc != SQLITE_DONE)
                failure = _database.fail(
                    "runScript", texts[i],
                    {sqlite3_extended_errcode(db), place + sqlite3_errmsg(db)});
            sqlite3_finalize(statement);
        }
        return failure;
    }

    // --- Transactions

    void begin()
    {
        static const char* const beginnings[] = {"begin deferred", "begin immediate",
                                                 "begin exclusive"};
        if (_scopes.size() == 4)
            return;
        const int mode = _input.below(6);
        std::shared_ptr<sql::TransactionScope> library;
        if (mode < 3)
            library = std::make_shared<sql::Transaction>(_database.library,
                                                         static_cast<sql::TransactionMode>(mode));
        else
            library = std::make_shared<sql::Savepoint>(_database.library);
        _scopes.push_back(std::make_unique<Scope>(_database, mode < 3 ? beginnings[mode] : nullptr,
                                                  std::move(library)));
    }

    // Mostly the innermost, which alone may go out of scope.
    void end()
    {
        if (_scopes.empty())
            return;
        const int outer = _input.below(4) == 0 ? _input.below(4) : 0;
        Scope& scope = **(_scopes.rbegin() + outer % static_cast<int>(_scopes.size()));
        const int way = _input.below(3);
        if (way == 0)
            scope.commit();
        else if (way == 1)
            scope.rollback();
        else
            _scopes.pop_back();
    }

    // By sqlwrapper, whose operations keep no reason.
    void transact()
    {
        if (_database.plain == nullptr)
            return;
        const bool done = _database.library.transactionCommit();
        const std::string failure = failureOf(sql::lastError(_database.library));
        expectEqual("transactionCommit", done, _database.transact("COMMIT"));
        expectEqual("the latest error", failure, failureOf(fuzz::reasonOf(_database.plain)));
    }

    // --- What has to be the same after each operation

    void expectSame(bool contents)
    {
        expectEqual("what is reported", _diagnostics.take(),
                    test::visibleAt(level, _database.events()));
        _database.clear();
        for (const Statement& statement : _statements)
            statement.expectSame();
        for (const auto& scope : _scopes)
            scope->expectSame();
        sqlite3* const plain = _database.plain;
        sqlite3* const library = _database.library.getHandle();
        if (plain != nullptr)
            expectEqual("the locks", locksOf(library), locksOf(plain));
        if (plain != nullptr && contents)
            expectEqual("the contents", contentsOf(library), contentsOf(plain));
    }

    Input& _input;
    test::Diagnostics _diagnostics;
    fuzz::Database _database;
    std::vector<Statement> _statements;
    std::vector<std::unique_ptr<Scope>> _scopes; // the innermost last
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Run run(input);
    for (int steps = 0; steps < 100 && !input.isUsedUp(); ++steps)
        run.step();
    run.finish();
    return 0;
}
