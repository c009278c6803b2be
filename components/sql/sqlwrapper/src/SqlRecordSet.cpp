#include "SqlRecordSet.h"

#include "SqlTrace.h"

#include <sqlite3.h>

#include <new>
#include <utility>

namespace sql {

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
    TRACE_DEBUG2("stmt='%s'", sql.c_str());

    char* errorText = nullptr;
    _rc = sqlite3_exec(_db, sql.c_str(), on_next_record, this, &errorText);
    if (isResultOk())
        return true;

    TRACE_ERROR("Failed to run the SQL stmt '%s'", sql.c_str());
    if (errorText != nullptr)
        TRACE_ERROR("  rc=%d=%s: %s", _rc, sqliteRc2Str(_rc), errorText);
    else
        TRACE_ERROR("  rc=%d=%s", _rc, sqliteRc2Str(_rc));
    sqlite3_free(errorText);
    return false;
}

// Not by a second set: copying the columns would take longer than building most statements.
bool RecordSet::queryAside(const string& sql)
{
    std::vector<Record> held;
    held.swap(_records);
    const bool done = query(sql);
    _records.swap(held);
    return done;
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

// Memory that runs out ends the statement, since SQLite's own frames cannot be unwound: they would
// leak it.
int RecordSet::on_next_record(void* recordSet, int columnCount, char** values, char** columnNames)
#ifdef __cpp_exceptions
try
#endif
{
    // "pragma empty_result_callbacks" announces a result without rows this way.
    if (values == nullptr && columnNames != nullptr)
        return 0;

    RecordSet& set = *static_cast<RecordSet*>(recordSet);
    Record record(set._fields, values != nullptr ? columnCount : 0, values);
    TRACE_DEBUG3("%s", record.dump(false).c_str());
    set._records.push_back(std::move(record));
    return 0;
}
#ifdef __cpp_exceptions
catch (const std::bad_alloc&) {
    return 1;
}
#endif

} // namespace sql
