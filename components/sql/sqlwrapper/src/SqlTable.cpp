#include "SqlTable.h"

#include "SqlTrace.h"

namespace sql {

namespace {

// " where id = 7", or nothing: a condition or an order behind its word, if there is one.
string clause(const char* word, const string& text)
{
    return text.empty() ? string() : word + text;
}

// A double-quoted word is a text to SQLite as long as no column is called so, and is compared with
// the key column under its affinity: the key "7" finds the integer 7 too.
string keyLiteral(const string& key)
{
    return "\"" + key + "\"";
}

// The condition that finds a key. Empty without a key column: reported after the FieldSet has done
// so, so that the log names both the cause and the operation that failed.
string keyCondition(const FieldSet& fields, const string& literal, const char* operation,
                    const char* signature)
{
    const string keyName = fields.getKeyIdName();
    if (keyName.empty()) {
        TRACE_ERROR_AS(operation, "Failed to get name of PRIMARY KEY column");
        SQL_ASSERT(false, signature);
        return string();
    }
    return keyName + " = " + literal;
}

bool hasRow(sqlite3* db, const string& table, const string& condition)
{
    return queryNumber(db, "select count(*) from " + table + " where " + condition) > 0;
}

} // namespace

Table::Table(const string& name) : _db(nullptr), _name(name)
{
}

Table::Table(sqlite3* db, const string& name, const Field* fields)
    : _db(db), _name(name), _recordSet(db, fields)
{
}

Table::Table(sqlite3* db, const string& name, const FieldSet& fields)
    : _db(db), _name(name), _recordSet(db, fields)
{
}

bool Table::initTable(sqlite3* db, const Field* fields)
{
    _db = db;
    return _recordSet.initRecordSet(db, fields);
}

string Table::name() const
{
    return _name;
}

const FieldSet* Table::fields() const
{
    return _recordSet.fields();
}

sqlite3* Table::getHandle()
{
    return _db;
}

bool Table::exists()
{
    if (!SQL_ASSERT(_db, "bool sql::Table::exists()"))
        return false;

    const int count = queryNumber(
        _db, "select count(*) from sqlite_master where type = 'table' and name = '" + _name + "'");
    if (count == 1)
        TRACE_DEBUG2("Table '%s' exists", _name.c_str());
    else if (count == 0)
        TRACE_DEBUG2("Table '%s' does not exist", _name.c_str());
    else
        TRACE_ERROR("Failed to determine if table '%s' exists", _name.c_str());
    // A count that failed reads as a table that exists: callers must not create over what they
    // could not see.
    return count != 0;
}

bool Table::create()
{
    if (exists())
        return true;

    // Reported here as well as by getDefinition(), so that the log names the operation that failed.
    const string definition = getDefinition();
    if (definition.empty()) {
        TRACE_ERROR("Failed to build SQL CREATE TABLE stmt for table %s", _name.c_str());
        SQL_ASSERT(false, "bool sql::Table::create()");
        return false;
    }
    return _recordSet.query(definition);
}

bool Table::remove()
{
    return _recordSet.query("drop table " + _name);
}

bool Table::truncate()
{
    return _recordSet.query("delete from " + _name);
}

int Table::totalRecordCount() const
{
    if (!SQL_ASSERT(_db, "int sql::Table::totalRecordCount() const"))
        return -1;
    return queryNumber(_db, "select count(*) from " + _name);
}

string Table::getDefinition() const
{
    const string columns = fields()->getDefinition();
    if (columns.empty()) {
        TRACE_ERROR("Failed to build SQL CREATE TABLE stmt for table %s", _name.c_str());
        SQL_ASSERT(false, "sql::string sql::Table::getDefinition() const");
        return string();
    }
    return "CREATE TABLE " + _name + " (" + columns + ")";
}

string Table::toString() const
{
    string lines;
    for (int i = 0; i < fields()->count(); ++i) {
        const Field* const field = fields()->getByIndex(i);
        if (field == nullptr)
            continue;
        lines += intToStr(i + 1) + ". " + field->getDefinition();
        if (i < fields()->count() - 1)
            lines += "\r\n";
    }
    return lines;
}

bool Table::open()
{
    return open(string(), string());
}

bool Table::open(const string& whereCondition)
{
    return open(whereCondition, string());
}

bool Table::open(const string& whereCondition, const string& sortBy)
{
    return query("select * from " + _name + clause(" where ", whereCondition)
                 + clause(" order by ", sortBy));
}

bool Table::query(const string& sql)
{
    return _recordSet.query(sql);
}

int Table::recordCount() const
{
    return _recordSet.count();
}

Record* Table::getRecord(int index)
{
    return _recordSet.getRecord(index);
}

Record* Table::getTopRecord()
{
    return getRecord(0);
}

Record* Table::getRecordByKeyId(string key)
{
    const string condition = keyCondition(*fields(), keyLiteral(key), __func__,
                                          "sql::Record* sql::Table::getRecordByKeyId(sql::string)");
    return !condition.empty() && open(condition) ? getTopRecord() : nullptr;
}

Record* Table::getRecordByKeyId(integer key)
{
    const string condition = keyCondition(
        *fields(), intToStr(key), __func__,
        "sql::Record* sql::Table::getRecordByKeyId(sql::integer)");
    return !condition.empty() && open(condition) ? getTopRecord() : nullptr;
}

bool Table::hasRecordWithKeyId(string key)
{
    const string condition = keyCondition(*fields(), keyLiteral(key), __func__,
                                          "bool sql::Table::hasRecordWithKeyId(sql::string)");
    return !condition.empty() && hasRow(_db, _name, condition);
}

bool Table::hasRecordWithKeyId(integer key)
{
    const string condition = keyCondition(*fields(), intToStr(key), __func__,
                                          "bool sql::Table::hasRecordWithKeyId(sql::integer)");
    return !condition.empty() && hasRow(_db, _name, condition);
}

bool Table::addRecord(const Record& record)
{
    const string statement = record.toSqlInsert(_name);
    if (statement.empty()) {
        TRACE_ERROR("Failed to build SQL INSERT statement for table '%s'", _name.c_str());
        return false;
    }
    return _recordSet.queryAside(statement);
}

bool Table::updateRecord(const Record& record)
{
    const string statement = record.toSqlUpdate(_name);
    if (statement.empty()) {
        TRACE_ERROR("Failed to build SQL UPDATE statement for table '%s'", _name.c_str());
        return false;
    }
    return _recordSet.queryAside(statement);
}

bool Table::addOrUpdateRecord(string key, const Record& record)
{
    if (hasRecordWithKeyId(key)) {
        TRACE_DEBUG2("update record for key=%s", key.c_str());
        return updateRecord(record);
    }
    TRACE_DEBUG2("add record for key=%s", key.c_str());
    return addRecord(record);
}

bool Table::addOrUpdateRecord(integer key, const Record& record)
{
    if (hasRecordWithKeyId(key)) {
        TRACE_DEBUG2("update record for key=%lld", key);
        return updateRecord(record);
    }
    TRACE_DEBUG2("add record for key=%lld", key);
    return addRecord(record);
}

bool Table::deleteRecord(string key)
{
    const string condition = keyCondition(*fields(), keyLiteral(key), __func__,
                                          "bool sql::Table::deleteRecord(sql::string)");
    return !condition.empty() && deleteRecords(condition);
}

bool Table::deleteRecord(integer key)
{
    const string condition = keyCondition(*fields(), intToStr(key), __func__,
                                          "bool sql::Table::deleteRecord(sql::integer)");
    return !condition.empty() && deleteRecords(condition);
}

bool Table::deleteRecords(const string& whereCondition)
{
    return _recordSet.queryAside("delete from " + _name + clause(" where ", whereCondition));
}

bool Table::copyRecords(Table& source)
{
    for (int i = 0; i < source.recordCount(); ++i) {
        const Record* const record = source.getRecord(i);
        if (record != nullptr && !addRecord(*record))
            return false;
    }
    return true;
}

bool Table::backup(Table& source)
{
    if (exists())
        remove();
    if (!create() || !source.open() || !copyRecords(source))
        return false;
    const int expected = source.totalRecordCount();
    return expected == totalRecordCount();
}

} // namespace sql
