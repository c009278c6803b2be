#include "Twin.h"

#include "HostileTexts.h"

#include "SqlCommon.h"

#include <algorithm>

namespace test {

namespace {

// What the row callback fills.
struct Result {
    const sql::FieldSet& fields;
    std::vector<TwinRow>& rows;
    std::vector<std::string>& events;
};

std::string dump(const sql::FieldSet& fields, const TwinRow& row)
{
    std::string text;
    for (int i = 0; i < fields.count(); ++i) {
        text += i > 0 ? "|" : "";
        text += fields.getByIndex(i)->getName() + " = " + row[i].value_or("null");
    }
    return text;
}

int takeRow(void* context, int count, char** values, char**)
{
    if (values == nullptr)
        return 0;
    const Result& result = *static_cast<Result*>(context);
    TwinRow row(result.fields.count());
    for (int i = 0; i < count && i < result.fields.count(); ++i) {
        if (values[i] != nullptr)
            row[i] = values[i];
    }
    result.events.push_back("[DEBUG3] SqlRecordSet.cpp (on_next_record) - "
                            + shown(dump(result.fields, row)));
    result.rows.push_back(row);
    return 0;
}

std::string named(int rc)
{
    return std::to_string(rc) + "=" + sql::sqliteRc2Str(rc);
}

std::string literal(const sql::Value& value, sql::field_type type)
{
    if (value.isNull())
        return "null";
    return type == sql::type_text ? "'" + sql::quoteStr(value.asString()) + "'" : value.asString();
}

// The cell is looked up by name: columns of the same name share the first one's.
std::string literal(const sql::Record& record, const sql::Field& field)
{
    return literal(*record.getValue(field.getName()), field.getType());
}

std::string where(const std::string& condition)
{
    return condition.empty() ? "" : " where " + condition;
}

std::string quoted(const std::string& key)
{
    return "\"" + key + "\"";
}

} // namespace

Twin::Twin(sqlite3* db) : _db(db)
{
}

void Twin::use(sqlite3* db)
{
    _db = db;
}

bool Twin::query(const std::string& statement, const sql::FieldSet& fields,
                 std::vector<TwinRow>& rows)
{
    rows.clear();
    reportStatement("SqlRecordSet.cpp (query)", statement);
    Result result = {fields, rows, _events};
    char* error = nullptr;
    const int rc = sqlite3_exec(_db, statement.c_str(), takeRow, &result, &error);
    if (rc != SQLITE_OK) {
        report("[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt '" + shown(statement)
               + "'");
        report("[ERROR] SqlRecordSet.cpp (query) -   rc=" + named(rc)
               + (error != nullptr ? std::string(": ") + error : ""));
    }
    sqlite3_free(error);
    return rc == SQLITE_OK;
}

bool Twin::query(const std::string& statement)
{
    std::vector<TwinRow> rows;
    return query(statement, sql::FieldSet(nullptr), rows);
}

int Twin::number(const std::string& statement)
{
    const std::string error = "[ERROR] SqlCommon.cpp (queryNumber) - ";
    const std::string failed = error + "The SQL query '" + shown(statement) + "' failed";
    reportStatement("SqlCommon.cpp (queryNumber)", statement);
    sqlite3_stmt* query = nullptr;
    int rc = sqlite3_prepare_v2(_db, statement.c_str(), -1, &query, nullptr);
    if (rc != SQLITE_OK) {
        report(error + "Failed to prepare the SQL query '" + shown(statement) + "': ");
        report(error + "  rc=" + named(rc) + ": " + sqlite3_errmsg(_db));
        return -1;
    }
    rc = sqlite3_step(query);
    const int columns = rc == SQLITE_ROW ? sqlite3_column_count(query) : 0;
    const int number = columns == 1 ? sqlite3_column_int(query, 0) : -1;
    sqlite3_finalize(query);
    if (rc != SQLITE_ROW) {
        report(failed);
        report(error + "   the query returned " + named(rc)
               + " instead of SQLITE_ROW: " + sqlite3_errmsg(_db));
    } else if (columns != 1) {
        report(failed + ": query returned " + std::to_string(columns)
               + " columns in result while 1 is expected");
    } else if (number < 0) {
        report(failed);
        report(error + "  SQLite returned returned number = " + std::to_string(number) + " < 0");
    } else {
        report("[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number="
               + std::to_string(number));
    }
    return number < 0 ? -1 : number;
}

bool Twin::oneStep(const std::string& statement)
{
    const std::string error = "[ERROR] SqlCommon.cpp (runOneStepSqlStmt) - ";
    reportStatement("SqlCommon.cpp (runOneStepSqlStmt)", statement);
    sqlite3_stmt* prepared = nullptr;
    int rc = sqlite3_prepare_v2(_db, statement.c_str(), -1, &prepared, nullptr);
    if (rc != SQLITE_OK) {
        report(error + "Failed to prepare the SQL statement '" + shown(statement) + "': ");
        report(error + " rc=" + named(rc) + ": " + sqlite3_errmsg(_db));
        return false;
    }
    rc = sqlite3_step(prepared);
    if (rc != SQLITE_DONE) {
        report(error + "Running the SQL stmt '" + shown(statement) + "' failed");
        report(error + "  SQLite returned " + named(rc)
               + " instead of SQLITE_DONE: " + sqlite3_errmsg(_db));
    }
    sqlite3_finalize(prepared);
    return rc == SQLITE_DONE;
}

const std::vector<std::string>& Twin::events() const
{
    return _events;
}

void Twin::clear()
{
    _events.clear();
}

void Twin::report(const std::string& event)
{
    _events.push_back(event);
}

void Twin::reportStatement(const std::string& where, const std::string& statement)
{
    report("[DEBUG2] " + where + " - stmt='" + shown(statement) + "'");
}

TwinTable::TwinTable(Twin& twin, const std::string& name, const sql::FieldSet& fields)
    : _twin(&twin), _name(name), _fields(fields)
{
}

bool TwinTable::exists()
{
    const int count = _twin->number(
        "select count(*) from sqlite_master where type = 'table' and name = '" + _name + "'");
    if (count == 0 || count == 1)
        _twin->report("[DEBUG2] SqlTable.cpp (exists) - Table '" + shown(_name)
                      + (count == 1 ? "' exists" : "' does not exist"));
    else
        _twin->report("[ERROR] SqlTable.cpp (exists) - Failed to determine if table '"
                      + shown(_name) + "' exists");
    return count != 0;
}

bool TwinTable::create()
{
    return exists() || query("CREATE TABLE " + _name + " (" + _fields.getDefinition() + ")");
}

bool TwinTable::remove()
{
    return query("drop table " + _name);
}

bool TwinTable::truncate()
{
    return query("delete from " + _name);
}

int TwinTable::totalRecordCount()
{
    return _twin->number("select count(*) from " + _name);
}

bool TwinTable::open(const std::string& condition, const std::string& order)
{
    return query("select * from " + _name + where(condition)
                 + (order.empty() ? "" : " order by " + order));
}

bool TwinTable::query(const std::string& statement)
{
    return _twin->query(statement, _fields, _rows);
}

std::vector<std::string> TwinTable::held() const
{
    std::vector<std::string> texts;
    for (const TwinRow& row : _rows)
        texts.push_back(record(row).toString());
    return texts;
}

std::optional<std::string> TwinTable::getRecordByKeyId(const std::string& key)
{
    return first(keyIs(quoted(key)));
}

std::optional<std::string> TwinTable::getRecordByKeyId(sql::integer key)
{
    return first(keyIs(std::to_string(key)));
}

bool TwinTable::hasRecordWithKeyId(const std::string& key)
{
    return has(keyIs(quoted(key)));
}

bool TwinTable::hasRecordWithKeyId(sql::integer key)
{
    return has(keyIs(std::to_string(key)));
}

bool TwinTable::addRecord(const sql::Record& record)
{
    std::string literals;
    for (int i = 0; i < _fields.count(); ++i)
        literals += (i > 0 ? ", " : "") + literal(record, *_fields.getByIndex(i));
    return write("insert into " + _name + " (" + _fields.toSql() + ") values (" + literals + ")");
}

bool TwinTable::updateRecord(const sql::Record& record)
{
    std::string assignments;
    for (int i = 0; i < _fields.count(); ++i) {
        const sql::Field& field = *_fields.getByIndex(i);
        if (!field.isPrimaryKey())
            assignments += field.getName() + "=" + literal(record, field)
                           + (i < _fields.count() - 1 ? ", " : "");
    }
    const sql::Value& key = *record.getKeyIdValue();
    if (key.getType() != sql::type_int)
        _twin->report("assert 'value->getType() == type_int' in SqlRecord.cpp (sql::string "
                      "sql::Record::toSqlUpdate(const string&) const)");
    return write("update " + _name + " set " + assignments
                 + where(keyIs(literal(key, sql::type_int))));
}

bool TwinTable::addOrUpdateRecord(const std::string& key, const sql::Record& record)
{
    const bool found = hasRecordWithKeyId(key);
    _twin->report(std::string("[DEBUG2] SqlTable.cpp (addOrUpdateRecord) - ")
                  + (found ? "update" : "add") + " record for key=" + shown(key));
    return found ? updateRecord(record) : addRecord(record);
}

bool TwinTable::addOrUpdateRecord(sql::integer key, const sql::Record& record)
{
    const bool found = hasRecordWithKeyId(key);
    _twin->report(std::string("[DEBUG2] SqlTable.cpp (addOrUpdateRecord) - ")
                  + (found ? "update" : "add") + " record for key=" + std::to_string(key));
    return found ? updateRecord(record) : addRecord(record);
}

bool TwinTable::deleteRecord(const std::string& key)
{
    return deleteRecords(keyIs(quoted(key)));
}

bool TwinTable::deleteRecord(sql::integer key)
{
    return deleteRecords(keyIs(std::to_string(key)));
}

bool TwinTable::deleteRecords(const std::string& condition)
{
    return write("delete from " + _name + where(condition));
}

bool TwinTable::backup(TwinTable& source)
{
    if (exists())
        remove();
    if (!create() || !source.open())
        return false;
    for (const TwinRow& row : source._rows) {
        if (!addRecord(source.record(row)))
            return false;
    }
    const int expected = source.totalRecordCount();
    return expected == totalRecordCount();
}

std::string TwinTable::keyIs(const std::string& literal) const
{
    return _fields.getKeyIdName() + " = " + literal;
}

std::optional<std::string> TwinTable::first(const std::string& condition)
{
    if (!open(condition) || _rows.empty())
        return std::nullopt;
    return record(_rows.front()).toString();
}

bool TwinTable::has(const std::string& condition)
{
    return _twin->number("select count(*) from " + _name + where(condition)) > 0;
}

bool TwinTable::write(const std::string& statement)
{
    std::vector<TwinRow> rows;
    return _twin->query(statement, _fields, rows);
}

sql::Record TwinTable::record(const TwinRow& row) const
{
    sql::Record record(_fields);
    for (int i = 0; i < _fields.count(); ++i) {
        if (row[i])
            record.setString(i, *row[i]);
    }
    return record;
}

std::string result(bool success)
{
    return success ? "true" : "false";
}

std::string result(int number)
{
    return std::to_string(number);
}

std::string result(const sql::Record* record)
{
    return record != nullptr ? record->toString() : "no record";
}

std::string result(const std::optional<std::string>& record)
{
    return record.value_or("no record");
}

std::vector<std::string> held(const TwinTable& table)
{
    return table.held();
}

std::string image(sqlite3* db)
{
    sqlite3_int64 size = 0;
    unsigned char* const bytes = sqlite3_serialize(db, "main", &size, 0);
    std::string text(reinterpret_cast<const char*>(bytes),
                     bytes != nullptr ? static_cast<std::size_t>(size) : 0);
    sqlite3_free(bytes);
    return text;
}

void load(sqlite3* db, const std::string& image)
{
    auto* const bytes = static_cast<unsigned char*>(sqlite3_malloc64(image.size()));
    std::copy(image.begin(), image.end(), bytes);
    const auto size = static_cast<sqlite3_int64>(image.size());
    sqlite3_deserialize(db, "main", bytes, size, size,
                        SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_RESIZEABLE);
}

} // namespace test
