#include "SqlMigration.h"

#include "SqlFailure.h"
#include "SqlScript.h"
#include "SqlStatement.h"
#include "SqlTrace.h"
#include "SqlTransaction.h"

#include <sqlite3.h>

namespace sql {

namespace {

using std::chrono::milliseconds;

constexpr char ask_version[] = "pragma user_version";

// Foreign keys are switched by SQLite's own call: it takes no memory, heeds no interrupt, and nobody
// can forbid it.
class WithoutForeignKeys {
public:
    explicit WithoutForeignKeys(sqlite3* connection) : _connection(connection)
    {
        sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_FKEY, -1, &_were);
        enforce(0);
    }
    ~WithoutForeignKeys()
    {
        enforce(_were);
    }
    WithoutForeignKeys(const WithoutForeignKeys&) = delete;
    WithoutForeignKeys& operator=(const WithoutForeignKeys&) = delete;

private:
    void enforce(int on) const
    {
        sqlite3_db_config(_connection, SQLITE_DBCONFIG_ENABLE_FKEY, on, nullptr);
    }

    sqlite3* _connection;
    int _were = 0;
};

} // namespace

// What migrateSteps() works with. An operation of its own returns no failure where all is well.
class SQLWRAPPER_LOCAL Migration {
public:
    Migration(Database& database, const MigrationStep* steps, std::size_t count)
        : _database(database), _connection(database.getHandle()), _steps(steps), _count(count)
    {
    }

    Result<int> run(milliseconds patience);

private:
    int latest() const;
    Error checkUse() const;
    int readVersion(int& version) const;
    Error checkVersion(int version) const;
    Error runSteps(const Transaction& transaction) const;
    Error runStep(const MigrationStep& step) const;
    Error runFunction(const MigrationStep& step) const;
    Error checkReferences() const;
    Error setVersion() const;
    Error fail(const MigrationStep& step, int rc, const string& cause) const;
    Error failed(const char* statement, int rc, const string& why) const;
    Error failedAsSqlite(const char* statement, int rc) const;

    Database& _database;
    sqlite3* const _connection;
    const MigrationStep* const _steps;
    const std::size_t _count;
};

Result<int> migrateSteps(Database& database, const MigrationStep* steps, std::size_t count,
                         milliseconds patience)
{
    return Migration(database, steps, count).run(patience);
}

// A first look that another connection keeps from reading is left to the one in the transaction, which
// waits.
Result<int> Migration::run(milliseconds patience)
{
    if (Error error = checkUse())
        return error;
    int version = 0;
    const int rc = readVersion(version);
    if (rc != SQLITE_ROW && (rc & 0xff) != SQLITE_BUSY)
        return failedAsSqlite(ask_version, rc);
    if (rc == SQLITE_ROW && version == latest())
        return version;
    if (Error error = checkVersion(version))
        return error;

    const WithoutForeignKeys withoutForeignKeys(_connection);
    Transaction transaction(_database, begin_immediate, patience);
    if (!transaction.isOpen())
        return transaction.error();
    if (Error error = runSteps(transaction))
        return error;
    if (!transaction.commit())
        return transaction.error();
    return latest();
}

int Migration::latest() const
{
    return _count == 0 ? 0 : _steps[_count - 1]._version;
}

Error Migration::checkUse() const
{
    if (_connection == nullptr)
        return failed("migrate", SQLITE_MISUSE, database_not_open);
    int former = 0;
    for (std::size_t i = 0; i < _count; former = _steps[i++]._version) {
        if (_steps[i]._version <= former)
            return failed("migrate", SQLITE_MISUSE,
                          "the versions of the steps do not ascend from 1 on: "
                              + intToStr(_steps[i]._version) + " follows " + intToStr(former));
    }
    if (sqlite3_get_autocommit(_connection) == 0)
        return failed("migrate", SQLITE_MISUSE, "a transaction is open already");
    return Error();
}

int Migration::readVersion(int& version) const
{
    TRACE_DEBUG2_AS("migrate", "stmt='%s'", ask_version);
    sqlite3_stmt* statement = nullptr;
    int rc = sqlite3_prepare_v2(_connection, ask_version, -1, &statement, nullptr);
    if (rc == SQLITE_OK)
        rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW)
        version = sqlite3_column_int(statement, 0);
    sqlite3_finalize(statement);
    return rc;
}

Error Migration::checkVersion(int version) const
{
    if (version >= 0 && version <= latest())
        return Error();
    return failed(ask_version, SQLITE_MISMATCH,
                  "the file has version " + intToStr(version) + ", the program those up to "
                      + intToStr(latest()));
}

// Looks again: another program may have been faster.
Error Migration::runSteps(const Transaction& transaction) const
{
    int version = 0;
    const int rc = readVersion(version);
    if (rc != SQLITE_ROW)
        return failedAsSqlite(ask_version, rc);
    if (Error error = checkVersion(version))
        return error;
    if (version == latest())
        return Error();
    for (std::size_t i = 0; i < _count; ++i) {
        if (_steps[i]._version <= version)
            continue;
        if (Error error = runStep(_steps[i]))
            return error;
        if (!transaction.isOpen())
            return fail(_steps[i], SQLITE_ABORT_ROLLBACK, "the step has finished the transaction");
    }
    if (Error error = checkReferences())
        return error;
    return setVersion();
}

Error Migration::runStep(const MigrationStep& step) const
{
    if (step._run != nullptr)
        return runFunction(step);
    return runStatements("migrate", _connection, step._version, string(step._statements)).error();
}

// Where it says no more than that it failed, SQLite may know why.
Error Migration::runFunction(const MigrationStep& step) const
{
    const bool isDone = step._run(step, _database);
    if (_database.getHandle() != _connection)
        return fail(step, SQLITE_MISUSE, database_closed);
    if (isDone)
        return Error();
    const Error reason = lastError(_database);
    if (!reason)
        return fail(step, SQLITE_ABORT, "the function has failed");
    return fail(step, reason.extendedCode(), "the function has failed: " + reason.text());
}

Error Migration::checkReferences() const
{
    Statement broken(_database, "pragma main.foreign_key_check");
    string table;
    std::optional<integer> row; // none where the table has no such keys
    string parent;
    int key = 0;
    if (!broken.next(table, row, parent, key))
        return broken.error();
    const string which = row ? "row " + intToStr(*row) : "a row";
    return failed(string(broken.text()).c_str(), SQLITE_CONSTRAINT_FOREIGNKEY,
                  which + " of " + table + " refers to none of " + parent);
}

Error Migration::setVersion() const
{
    const string statement = string(ask_version) + " = " + intToStr(latest());
    TRACE_DEBUG2_AS("migrate", "stmt='%s'", statement.c_str());
    const int rc = sqlite3_exec(_connection, statement.c_str(), nullptr, nullptr, nullptr);
    return rc == SQLITE_OK ? Error() : failedAsSqlite(statement.c_str(), rc);
}

Error Migration::fail(const MigrationStep& step, int rc, const string& cause) const
{
    const string why = "version " + intToStr(step._version) + ": " + cause;
    return failed("migrate", rc, why);
}

Error Migration::failed(const char* statement, int rc, const string& why) const
{
    reportFailure("migrate", statement, rc, why.c_str());
    return errorOf(_connection, rc, why, statement);
}

Error Migration::failedAsSqlite(const char* statement, int rc) const
{
    return failed(statement, extendedCodeOf(_connection, rc), reasonOf(_connection, rc));
}

} // namespace sql
