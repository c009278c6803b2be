#include "SqlFailure.h"
#include "SqlLiteral.h"
#include "SqlNumber.h"
#include "SqlPreparedTable.h"
#include "SqlRecordCells.h"

#include <sqlite3.h>

#include <algorithm>

namespace sql {

namespace {

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

// --- Many records ---------------------------------------------------------------------------------

PreparedTable::RecordBulk::RecordBulk(const char* operation, PreparedTable& table, bool stays,
                                      integer count)
    : Bulk(operation, table, count, runRows), _table(table), _stays(stays),
      _cells(static_cast<std::size_t>(_rows) * table._columnCount, nullptr)
{
}

PreparedTable::RecordBulk::~RecordBulk() = default;

bool PreparedTable::RecordBulk::add(const Record& record)
{
    const Record& kept = _stays || _rows == 1 ? record : lasting(record);
    if (_pending == 0)
        _texts.clear();
    const int index = RecordAccess::take(kept, *_table._fields, _table._types, cellsOf(_pending),
                                         _texts);
    return index == RecordAccess::all ? addNext() : failToTake(index);
}

Argument* PreparedTable::RecordBulk::cellsOf(int row)
{
    return &_cells[static_cast<std::size_t>(row) * _table._columnCount];
}

bool PreparedTable::RecordBulk::runRows(Bulk& bulk, Statement& statement, int row, int count)
{
    RecordBulk& records = static_cast<RecordBulk&>(bulk);
    return statement.runAs(records._operation, records.cellsOf(row),
                           count * records._table._columnCount);
}

// A copy that lasts until it is inserted.
const Record& PreparedTable::RecordBulk::lasting(const Record& record)
{
    if (_pending == static_cast<int>(_records.size()))
        _records.push_back(record);
    else
        _records[_pending] = record;
    return _records[_pending];
}

// Those before it may fail first.
bool PreparedTable::RecordBulk::failToTake(int index)
{
    Statement* const statement = failing();
    return statement != nullptr
           && _table.keep(*statement, _table.failToTake(_operation, *statement, index));
}

// --- Copies ---------------------------------------------------------------------------------------

// Why the rows cannot be copied, or whether they can is not known; no failure where nothing is in the way.
Error PreparedTable::whyNotCopied(const PreparedTable& source) const
{
    sqlite3* const db = _database->getHandle();
    sqlite3* const from = source._database->getHandle();
    const string table = _name;
    const string other = source._name;
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
    string text = selectionFrom(source._name);
    if (isOwn)
        text = joined({insertion(), " ", text});
    Statement rows = Statement("copyRecords", *source._database, text);
    if (!rows.isPrepared())
        return keep(rows, false);
    if (const Error reason = whyNotCopied(source))
        return fail("copyRecords", text, reason.extendedCode(), reason.text());
    RecordBulk bulk("copyRecords", *this, true, 0);
    return bulk.isReady()
           && (isOwn ? bulk.note(rows, rows.runAs("copyRecords", nullptr, 0)) : bulk.copyAll(rows))
           && bulk.finish();
}

bool PreparedTable::RecordBulk::copyAll(Statement& rows)
{
    std::vector<Argument>& cells = _table._cells;
    RowTarget target{nullptr, nullptr, &cells};
    const Statement::Variable whole{nullptr, &target};
    while (rows.readNext(_operation, &whole, Statement::whole_row)) {
        if (!note(*_one, _one->runAs(_operation, cells.data(), _table._columnCount)))
            return false;
    }
    return rows.finished() || _table.keep(rows, false);
}

} // namespace sql
