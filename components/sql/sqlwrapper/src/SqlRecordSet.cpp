#include "SqlRecordSet.h"

#include "SqlTrace.h"

#include <sqlite3.h>

#include <new>
#include <utility>

namespace sql {

// The log shows the names of these two as those of the set's operations, and the assertion that of
// the connection.
struct RecordSet::Run {
    static std::int32_t query(sqlite3* _db, const string& sql, sqlite3_callback callback,
                              void* target)
    {
        if (!SQL_ASSERT(_db, "bool sql::RecordSet::query(const string&)"))
            return SQLITE_ERROR;
        TRACE_DEBUG2("stmt='%s'", sql.c_str());

        char* errorText = nullptr;
        const int rc = sqlite3_exec(_db, sql.c_str(), callback, target, &errorText);
        if (rc == SQLITE_OK)
            return rc;

        TRACE_ERROR("Failed to run the SQL stmt '%s'", sql.c_str());
        if (errorText != nullptr)
            TRACE_ERROR("  rc=%d=%s: %s", rc, sqliteRc2Str(rc), errorText);
        else
            TRACE_ERROR("  rc=%d=%s", rc, sqliteRc2Str(rc));
        sqlite3_free(errorText);
        return rc;
    }

    // Without `records` the row is only traced. Memory that runs out ends the statement, since
    // SQLite's own frames cannot be unwound: they would leak it.
    static int on_next_record(const FieldSet& fields, std::vector<Record>* records, int columnCount,
                              char** values)
#ifdef __cpp_exceptions
    try
#endif
    {
        // "pragma empty_result_callbacks" announces a result without rows this way.
        if (values == nullptr)
            return 0;
        Record record(fields, columnCount, values);
        TRACE_DEBUG3("%s", record.dump(false).c_str());
        if (records != nullptr)
            records->push_back(std::move(record));
        return 0;
    }
#ifdef __cpp_exceptions
    catch (const std::bad_alloc&) {
        return 1;
    }
#endif
};

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
    _rc = Run::query(_db, sql, on_next_record, this);
    return isResultOk();
}

bool RecordSet::write(sqlite3* db, const FieldSet& fields, const string& sql)
{
    const auto trace = [](void* columns, int columnCount, char** values, char**) {
        return Run::on_next_record(*static_cast<const FieldSet*>(columns), nullptr, columnCount,
                                   values);
    };
    return Run::query(db, sql, trace, const_cast<FieldSet*>(&fields)) == SQLITE_OK;
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

int RecordSet::on_next_record(void* recordSet, int columnCount, char** values, char**)
{
    RecordSet& set = *static_cast<RecordSet*>(recordSet);
    return Run::on_next_record(set._fields, &set._records, columnCount, values);
}

} // namespace sql
