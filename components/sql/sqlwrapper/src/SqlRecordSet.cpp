#include "SqlRecordSet.h"

#include "SqlTrace.h"

#include <sqlite3.h>

#include <new>
#include <utility>

namespace sql {

namespace {

// Runs a statement, whoever takes its rows, and reports as RecordSet::query() does.
int run(sqlite3* db, const string& sql, sqlite3_callback callback, void* target)
{
    TRACE_DEBUG2_AS("query", "stmt='%s'", sql.c_str());

    char* errorText = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), callback, target, &errorText);
    if (rc == SQLITE_OK)
        return rc;

    TRACE_ERROR_AS("query", "Failed to run the SQL stmt '%s'", sql.c_str());
    if (errorText != nullptr)
        TRACE_ERROR_AS("query", "  rc=%d=%s: %s", rc, sqliteRc2Str(rc), errorText);
    else
        TRACE_ERROR_AS("query", "  rc=%d=%s", rc, sqliteRc2Str(rc));
    sqlite3_free(errorText);
    return rc;
}

} // namespace

RecordSet::RecordSet() : RecordSet(nullptr)
{
}

RecordSet::RecordSet(sqlite3* db) : RecordSet(db, static_cast<const Field*>(nullptr))
{
}

RecordSet::RecordSet(sqlite3* db, const FieldSet& fields)
    : _db(db), _rc(SQLITE_ERROR), _fields(fields)
{
}

RecordSet::RecordSet(sqlite3* db, const Field* fields) : _db(db), _rc(SQLITE_ERROR), _fields(fields)
{
}

RecordSet::~RecordSet()
{
    close();
}

bool RecordSet::initRecordSet(sqlite3* db, const Field* fields)
{
    close();
    _db = db;
    // Appends: columns that the set was built with are the caller's to keep.
    return _fields.initFieldSet(fields);
}

void RecordSet::close()
{
    _records.clear();
    _rc = SQLITE_ERROR;
}

bool RecordSet::query(const string& sql)
{
    close();
    if (!SQL_ASSERT(_db, "bool sql::RecordSet::query(const string&)"))
        return false;
    _rc = run(_db, sql, on_next_record, this);
    return isResultOk();
}

// Not by a second set, which would copy the columns for each write.
bool RecordSet::queryAside(const string& sql)
{
    if (!SQL_ASSERT(_db, "bool sql::RecordSet::query(const string&)"))
        return false;
    const auto trace = [](void* set, int columnCount, char** values, char** columnNames) {
        return takeRow(*static_cast<RecordSet*>(set), false, columnCount, values, columnNames);
    };
    return run(_db, sql, trace, this) == SQLITE_OK;
}

bool RecordSet::isResultOk() const
{
    return _rc == SQLITE_OK;
}

int RecordSet::count() const
{
    return static_cast<int>(_records.size());
}

Record* RecordSet::getRecord(int index)
{
    return index >= 0 && index < count() ? &_records[index] : nullptr;
}

const Record* RecordSet::getRecord(int index) const
{
    return index >= 0 && index < count() ? &_records[index] : nullptr;
}

const Record* RecordSet::getTopRecord() const
{
    return isResultOk() ? getRecord(0) : nullptr;
}

const Value* RecordSet::getTopRecordFirstValue() const
{
    const Record* const record = getTopRecord();
    return record != nullptr ? record->getValue(0) : nullptr;
}

const FieldSet* RecordSet::fields() const
{
    return &_fields;
}

string RecordSet::toString() const
{
    string lines;
    for (int i = 0; i < count(); ++i) {
        if (const Record* const record = getRecord(i))
            lines += intToStr(i + 1) + ". " + record->toString() + "\r\n";
    }
    return lines;
}

int RecordSet::on_next_record(void* recordSet, int columnCount, char** values, char** columnNames)
{
    return takeRow(*static_cast<RecordSet*>(recordSet), true, columnCount, values, columnNames);
}

// Memory that runs out ends the statement, since SQLite's own frames cannot be unwound: they would
// leak it.
int RecordSet::takeRow(RecordSet& set, bool keep, int columnCount, char** values,
                       char** columnNames)
#ifdef __cpp_exceptions
try
#endif
{
    // "pragma empty_result_callbacks" announces a result without rows this way.
    if (values == nullptr && columnNames != nullptr)
        return 0;

    Record record(set._fields, values != nullptr ? columnCount : 0, values);
    TRACE_DEBUG3_AS("on_next_record", "%s", record.dump(false).c_str());
    if (keep)
        set._records.push_back(std::move(record));
    return 0;
}
#ifdef __cpp_exceptions
catch (const std::bad_alloc&) {
    return 1;
}
#endif

} // namespace sql
