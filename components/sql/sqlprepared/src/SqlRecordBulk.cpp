#include "SqlFailure.h"
#include "SqlLiteral.h"
#include "SqlNumber.h"
#include "SqlPreparedTable.h"
#include "SqlRecordCells.h"

#include <sqlite3.h>

#include <algorithm>

namespace sql {

namespace {

constexpr int most_rows = 32;           // of a statement: more gain nothing
constexpr int fewest_rows = 8;          // that gain anything
constexpr integer fewest_records = 280; // that repay its compilation

constexpr const char* into_itself = "a table cannot be copied into itself";
constexpr const char* is_in_the_way = "the source's connection would keep this one from writing";

// A question about a file, asked in silence: who needs the answer reports why there is none.
class Question {
public:
    Question(sqlite3* db, const string& text, Error& error) : _db(db), _error(error)
    {
        note(sqlite3_prepare_v2(db, text.c_str(), -1, &_statement, nullptr));
    }
    ~Question()
    {
        sqlite3_finalize(_statement);
    }
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;

    bool next()
    {
        return _statement != nullptr && note(sqlite3_step(_statement)) == SQLITE_ROW;
    }
    // Empty for NULL.
    string answer(int column)
    {
        const unsigned char* const text = sqlite3_column_text(_statement, column);
        if (text == nullptr && sqlite3_column_type(_statement, column) != SQLITE_NULL)
            note(SQLITE_NOMEM);
        return text != nullptr ? reinterpret_cast<const char*>(text) : string();
    }

private:
    int note(int rc)
    {
        if (rc != SQLITE_OK && rc != SQLITE_ROW && rc != SQLITE_DONE)
            _error = Error(extendedCodeOf(_db, rc), reasonOf(_db, rc));
        return rc;
    }

    sqlite3* _db;
    sqlite3_stmt* _statement = nullptr;
    Error& _error;
};

// Where a table is.
struct Place {
    string schema;
    string file; // empty for a temporary table, and in memory
};

bool holdsTable(sqlite3* db, const string& schema, const string& table, Error& error)
{
    Question columns(
        db,
        joined({"pragma ", quoteIdentifier(schema), ".table_info(", quoteIdentifier(table), ")"}),
        error);
    return columns.next();
}

// As SQLite looks for it: among the temporary ones, in the main file, then in those that were attached.
Place placeOf(sqlite3* db, const string& table, Error& error)
{
    Place place;
    Question schemas(db, "pragma database_list", error);
    while (!error && schemas.next()) {
        const string schema = schemas.answer(1);
        const bool isSought = place.schema.empty() || schema == "temp";
        if (!error && isSought && holdsTable(db, schema, table, error))
            place = {schema, schemas.answer(2)};
    }
    return place;
}

bool hasWriteAheadLog(sqlite3* db, const string& schema, Error& error)
{
    Question mode(db, joined({"pragma ", quoteIdentifier(schema), ".journal_mode"}), error);
    return mode.next() && mode.answer(0) == "wal";
}

} // namespace

// As many as SQLite has variables for; one where that gains nothing.
int PreparedTable::rowsAtOnce() const
{
    const int limit = sqlite3_limit(_database->getHandle(), SQLITE_LIMIT_VARIABLE_NUMBER, -1);
    const int rows = std::min(limit / columnCount(), most_rows);
    return rows >= fewest_rows ? rows : 1;
}

// --- Many records ---------------------------------------------------------------------------------

PreparedTable::Bulk::Bulk(const char* operation, PreparedTable& table, bool stays, integer count)
    : TransactionScope(*table._database, std::chrono::milliseconds(0)), _operation(operation),
      _table(table), _stays(stays)
{
    _isReady = compile(count) && start();
}

PreparedTable::Bulk::~Bulk()
{
    if (_one != nullptr)
        _one->_record = 0;
}

bool PreparedTable::Bulk::compile(integer count)
{
    _one = _table.prepared(_operation, insert_one);
    if (_one == nullptr)
        return false;
    if (_one->_connection != _table._database->getHandle())
        return _table.keep(*_one, _one->failToUse(_operation));
    const bool isEnough = count < 0 || count >= fewest_records;
    if (!isEnough || _table.rowsAtOnce() == 1)
        return true;
    _many = _table.prepared(_operation, insert_many);
    if (_many == nullptr)
        return false;
    _many->_record = -1;
    _rows = _many->_parameterCount / _table.columnCount();
    return true;
}

bool PreparedTable::Bulk::start()
{
    const bool isOwn = sqlite3_get_autocommit(_table._database->getHandle()) != 0;
    if (!begin(isOwn ? "begin immediate" : nullptr)) {
        _table._error = error();
        return false;
    }
    enter();
    _reportStep = _nextReport = _rows > 1 ? _rows : most_rows;
    _cells = std::vector<Argument>(static_cast<std::size_t>(_rows) * _table.columnCount(), nullptr);
    return true;
}

Argument* PreparedTable::Bulk::cellsOf(int row)
{
    return &_cells[static_cast<std::size_t>(row) * _table.columnCount()];
}

bool PreparedTable::Bulk::add(const Record& record)
{
    const Record& kept = _stays || _rows == 1 ? record : lasting(record);
    const int index = RecordAccess::take(kept, *_table._fields, _table._types, cellsOf(_pending),
                                         _texts);
    if (index != RecordAccess::all)
        return failToTake(index);
    ++_pending;
    return _pending < _rows || flush();
}

// A copy that lasts until it is inserted.
const Record& PreparedTable::Bulk::lasting(const Record& record)
{
    if (_pending == static_cast<int>(_records.size()))
        _records.push_back(record);
    else
        _records[_pending] = record;
    return _records[_pending];
}

// Those before it may fail first.
bool PreparedTable::Bulk::failToTake(int index)
{
    if (!flush())
        return false;
    _one->_record = _count + 1;
    return _table.keep(*_one, _table.failToTake("addRecords", *_one, index));
}

// Together, or one by one: the rest, and where one of them fails, so that it is known which.
bool PreparedTable::Bulk::flush()
{
    int done = 0;
    if (_rows > 1 && _pending == _rows && !runTogether(done))
        return false;
    for (; done < _pending; ++done) {
        _one->_record = _count + done + 1;
        if (!run(*_one, cellsOf(done), _table.columnCount()))
            return false;
    }
    _count += _pending;
    _pending = 0;
    _texts.clear();
    return true;
}

// A failure leaves nothing, but for "on conflict fail", which leaves the rows before.
bool PreparedTable::Bulk::runTogether(int& done)
{
    _latest = _many;
    if (_many->runAs("addRecords", _cells.data(), _many->_parameterCount))
        done = _pending;
    else if (isOpen())
        done = static_cast<int>(_many->_changes);
    else
        return failTogether();
    _added += _many->_changes;
    return true;
}

// With the transaction it is lost which record it was.
bool PreparedTable::Bulk::failTogether()
{
    const integer first = _count + 1;
    const integer last = _count + _pending;
    return _table.fail("addRecords", string(_many->text()), _many->_error.extendedCode(),
                       joined({"records ", NumberText(first).view(), " to ",
                               NumberText(last).view(), ": ", _many->_error.text()}));
}

bool PreparedTable::Bulk::run(Statement& statement, const Argument* cells, int count)
{
    _latest = &statement;
    if (!statement.runAs(_operation, cells, count))
        return _table.keep(statement, false);
    _added += statement._changes;
    return true;
}

// The last report is of all, and comes once.
bool PreparedTable::Bulk::addRest()
{
    if (!flush())
        return false;
    if (_count == 0 || _count + _reportStep != _nextReport)
        _nextReport = _count;
    return true;
}

bool PreparedTable::Bulk::stop()
{
    return _table.fail("addRecords", string(_one->text()), SQLITE_INTERRUPT,
                       "stopped by its progress");
}

bool PreparedTable::Bulk::finish()
{
    if (!commit()) {
        _table._error = error();
        return false;
    }
    _table._changes = _added;
    if (_latest != nullptr)
        _table._key = _latest->_key;
    return true;
}

// --- Copies ---------------------------------------------------------------------------------------

// Why the rows cannot be copied, or whether they can is not known; no failure where nothing is in the way.
Error PreparedTable::whyNotCopied(const PreparedTable& source) const
{
    sqlite3* const db = _database->getHandle();
    sqlite3* const from = source._database->getHandle();
    const string table = _table->name();
    const string other = source._table->name();
    const bool isSameTable = sqlite3_stricmp(table.c_str(), other.c_str()) == 0;
    Error error;
    if (db != from) {
        const Place place = placeOf(db, table, error);
        const Place there = placeOf(from, other, error);
        if (error || place.file.empty() || place.file != there.file)
            return error;
        if (!isSameTable && !hasWriteAheadLog(db, place.schema, error) && !error)
            return Error(SQLITE_MISUSE, is_in_the_way);
    }
    return isSameTable ? Error(SQLITE_MISUSE, into_itself) : error;
}

// Within a connection in one statement, which SQLite keeps from reading what it has written.
bool PreparedTable::copyRecords(PreparedTable& source)
{
    Statement* const one = prepared("copyRecords", insert_one);
    if (one == nullptr)
        return false;
    const bool isOwn = source._database->getHandle() == _database->getHandle();
    string text = selectionFrom(*source._table);
    if (isOwn)
        text = joined({insertion(), " ", text});
    Statement rows = Statement("copyRecords", *source._database, text);
    if (!rows.isPrepared())
        return keep(rows, false);
    if (const Error reason = whyNotCopied(source))
        return fail("copyRecords", text, reason.extendedCode(), reason.text());
    Bulk bulk("copyRecords", *this, true, 0);
    return bulk.isReady() && (isOwn ? bulk.run(rows, nullptr, 0) : bulk.copyAll(rows))
           && bulk.finish();
}

bool PreparedTable::Bulk::copyAll(Statement& rows)
{
    RowTarget target{nullptr, nullptr, &_cells};
    const Statement::Variable whole{nullptr, &target};
    while (rows.readNext(_operation, &whole, Statement::whole_row)) {
        if (!run(*_one, _cells.data(), _table.columnCount()))
            return false;
    }
    return rows.finished() || _table.keep(rows, false);
}

} // namespace sql
