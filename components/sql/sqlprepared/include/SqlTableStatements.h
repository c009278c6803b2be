#ifndef SQLPREPARED_SQLTABLESTATEMENTS_H
#define SQLPREPARED_SQLTABLESTATEMENTS_H

#include "SqlStatement.h"
#include "SqlTransaction.h"

#include <forward_list>
#include <list>

#pragma GCC visibility push(default)

namespace sql {

/// What tables with prepared statements have in common: what the latest operation did, and an end.
///
///     const auto tell = [](const sql::TableStatements& table) {
///         if (table.error())
///             std::puts(table.error().text().c_str());
///     };
///     sql::PreparedTable fast(database, products);
///     if (!fast.addRecord(tea))
///         tell(fast);
///
/// Compiles a statement when it is first needed. One thread at a time.
class TableStatements {
public:
    TableStatements(const TableStatements&) = delete;            ///< One owner of the statements.
    TableStatements& operator=(const TableStatements&) = delete; ///< One owner of the statements.

    integer changes() const; ///< Returns how many rows the latest operation has changed.

    /// Returns the integer key of the row that the latest operation added, or nothing.
    std::optional<integer> lastKey() const;

    /// Returns why the latest operation failed; no failure if not. Lives as long as the table.
    const Error& error() const;

    /// Lets go of the statements: before the database closes. The next operation compiles anew.
    void release();

private:
    friend class PreparedTable; // which is one
    friend class MappedTable;   // likewise
    friend class MappedCursor;  // gives its statement back

    enum class Listed { all, keys, others };
    using Item = string (*)(const string& name, int position);

    enum Work {
        insert_one,
        insert_many,
        count_all,
        update,
        upsert,
        remove,
        exists,
        read,
        work_count
    };

    // Statements, one of which goes from list to list without memory.
    using Held = std::list<Statement>;

    // A column as it is declared.
    struct Declared {
        string name;
        string type;
        bool isKey;
        bool isNotNull;
    };
    using Declaration = Declared (*)(const TableStatements& table, int index);

    // Rows on their way into a table, in a transaction of its own or a part of the caller's: several a
    // statement, where there are enough of them.
    class Bulk : private TransactionScope {
    public:
        Bulk(const Bulk&) = delete;
        Bulk& operator=(const Bulk&) = delete;

        bool isReady() const // compiled, and begun
        {
            return _isReady;
        }
        bool addRest();

        // After each statement's rows, and so many single ones.
        template <typename Progress> bool report(Progress& progress)
        {
            if (_count < _nextReport)
                return true;
            _nextReport = _count + _reportStep;
            return progress(_count) || stop();
        }
        bool finish();

    protected:
        // Runs a statement with the values of so many rows that are pending, from this one on.
        using RunRows = bool (*)(Bulk& bulk, Statement& statement, int row, int count);

        SQLWRAPPER_LOCAL Bulk(const char* operation, TableStatements& table, integer count,
                              RunRows run);
        SQLWRAPPER_LOCAL ~Bulk();

        SQLWRAPPER_LOCAL bool addNext();
        SQLWRAPPER_LOCAL Statement* failing();
        SQLWRAPPER_LOCAL bool note(Statement& statement, bool hasRun);

        const char* _operation;
        Statement* _one = nullptr; // inserts a row
        int _rows = 1;             // that go in together
        int _pending = 0;          // of them

    private:
        bool stop();
        SQLWRAPPER_LOCAL bool compile(integer count);
        SQLWRAPPER_LOCAL bool start();
        SQLWRAPPER_LOCAL bool flush();
        SQLWRAPPER_LOCAL bool runTogether(int& done);
        SQLWRAPPER_LOCAL bool failTogether();

        TableStatements& _table;
        RunRows _runRows;
        Statement* _many = nullptr;         // inserts several
        const Statement* _latest = nullptr; // that has run
        bool _isReady = false;
        integer _count = 0; // of rows that went in
        integer _added = 0; // of rows that they became
        integer _reportStep = 0;
        integer _nextReport = 0;
    };

    SQLWRAPPER_LOCAL TableStatements(Database& database, int columnCount, Declaration declared);
    SQLWRAPPER_LOCAL ~TableStatements();

    SQLWRAPPER_LOCAL string listed(Listed columns, Item item, const char* between) const;
    SQLWRAPPER_LOCAL int firstOf(std::string_view name) const;
    SQLWRAPPER_LOCAL string selectionFrom(const string& table) const;
    SQLWRAPPER_LOCAL string insertion() const;
    SQLWRAPPER_LOCAL string insertionOf(int rows) const;
    SQLWRAPPER_LOCAL string updating() const;
    SQLWRAPPER_LOCAL string upserting() const;
    SQLWRAPPER_LOCAL int rowsAtOnce() const;
    SQLWRAPPER_LOCAL string textOf(Work work) const;
    SQLWRAPPER_LOCAL Statement* compiled(const char* operation, Work work);
    SQLWRAPPER_LOCAL string whyNotCompiled(Work work) const;

    void forget()
    {
        if (_error)
            _error = Error();
        _changes = 0;
        _key.reset();
    }
    // Null where it cannot be compiled.
    Statement* prepared(const char* operation, Work work)
    {
        forget();
        return _statements[work] ? &*_statements[work] : compiled(operation, work);
    }
    // Takes over what there is to know of a run.
    bool keep(const Statement& statement, bool isDone)
    {
        if (isDone) {
            _changes = statement._changes;
            _key = statement._key;
        } else {
            _error = statement._error;
        }
        return isDone;
    }
    SQLWRAPPER_LOCAL bool fail(const char* operation, const string& text, int rc,
                               const string& why);
    SQLWRAPPER_LOCAL Result<std::vector<string>> differences(const char* operation);
    SQLWRAPPER_LOCAL Held taken(const char* operation, std::string_view start,
                                std::string_view condition);
    SQLWRAPPER_LOCAL void giveBack(Held& held, int releases);

    Database* _database;
    int _columnCount;
    int _keyCount = 0;
    int _mostKeys = 0; // columns that the operations by a key can have
    Declaration _declared;
    string _name;                     // of the table
    std::forward_list<string> _texts; // that some of a row's values borrow
    Error _error;
    std::optional<Statement> _statements[work_count];
    Held _conditions; // statements that nobody uses, the latest at the end
    int _releases = 0;
    integer _changes = 0;
    std::optional<integer> _key;
};

} // namespace sql

#pragma GCC visibility pop

#endif
