#include "Twin.h"

#include "HostileTexts.h"

#include "SqlCommon.h"

#include <algorithm>
#include <cstdlib>

namespace test {

namespace {

// What the row callback fills.
struct Result {
    const sql::FieldSet& fields;
    std::vector<TwinRow>& rows;
    Texts& events;
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
        if (values[i] == nullptr)
            continue;
        row[i] = result.fields.getByIndex(i)->getType() == sql::type_time
                     ? std::to_string(std::strtoll(values[i], nullptr, 10))
                     : values[i];
    }
    result.events.push_back(report::rowRead(shown(dump(result.fields, row))));
    result.rows.push_back(row);
    return 0;
}

std::string literal(const sql::Value& value, sql::field_type type)
{
    if (value.isNull())
        return "null";
    if (type == sql::type_text)
        return quoted(value.asString());
    return value.getType() == sql::type_time ? std::to_string(value.asInteger()) : value.asString();
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

std::string inDoubleQuotes(const std::string& key)
{
    return "\"" + key + "\"";
}

} // namespace

std::string reasonOf(int rc, const char* text)
{
    const std::string code = std::to_string(rc) + "=" + sql::sqliteRc2Str(rc);
    return text != nullptr ? code + ": " + text : code;
}

Twin::Twin(sqlite3* db) : _db(db)
{
}

void Twin::use(sqlite3* db)
{
    _db = db;
}

bool Twin::hasWritten() const
{
    return _hasWritten;
}

bool Twin::inTransaction() const
{
    return sqlite3_get_autocommit(_db) == 0;
}

void Twin::follow(const Course& course)
{
    clear();
    _course = course;
}

int Twin::statements() const
{
    return _statements;
}

int Twin::refused() const
{
    return _refused;
}

bool Twin::query(const std::string& statement, const sql::FieldSet& fields,
                 std::vector<TwinRow>& rows)
{
    begin(by_query, statement);
    rows.clear();
    if (!isRefused(by_query, statement))
        return run(statement, fields, rows);
    if (statement.compare(0, 6, "select") == 0) { // the first of the rows may have come
        Result result = {fields, rows, _events};
        sqlite3_exec(_db, statement.c_str(), takeRow, &result, nullptr);
    }
    return false;
}

bool Twin::run(const std::string& statement, const sql::FieldSet& fields,
               std::vector<TwinRow>& rows)
{
    Result result = {fields, rows, _events};
    char* error = nullptr;
    const int rc = sqlite3_exec(_db, statement.c_str(), takeRow, &result, &error);
    if (rc != SQLITE_OK)
        reportEnd(report::refused(shown(statement), reasonOf(rc, error)));
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
    begin(by_number, statement);
    if (isRefused(by_number, statement))
        return -1;
    const std::string text = shown(statement);
    sqlite3_stmt* query = nullptr;
    int rc = sqlite3_prepare_v2(_db, statement.c_str(), -1, &query, nullptr);
    if (rc != SQLITE_OK) {
        reportEnd(report::notPrepared(text, reasonOf(rc, sqlite3_errmsg(_db))));
        return -1;
    }
    rc = sqlite3_step(query);
    const int columns = rc == SQLITE_ROW ? sqlite3_column_count(query) : 0;
    const int number = columns == 1 ? sqlite3_column_int(query, 0) : -1;
    sqlite3_finalize(query);
    if (rc != SQLITE_ROW)
        reportEnd(report::noRow(text, reasonOf(rc, sqlite3_errmsg(_db))));
    else if (columns != 1)
        reportEnd(report::columnsInstead(text, columns));
    else if (number < 0)
        reportEnd(report::negative(text, std::to_string(number)));
    else
        reportEnd(report::counted(text, std::to_string(number)));
    return number < 0 ? -1 : number;
}

bool Twin::oneStep(const std::string& statement)
{
    begin(by_one_step, statement);
    if (isRefused(by_one_step, statement))
        return false;
    sqlite3_stmt* prepared = nullptr;
    int rc = sqlite3_prepare_v2(_db, statement.c_str(), -1, &prepared, nullptr);
    if (rc != SQLITE_OK) {
        reportEnd(report::stepNotPrepared(shown(statement), reasonOf(rc, sqlite3_errmsg(_db))));
        return false;
    }
    rc = sqlite3_step(prepared);
    if (rc != SQLITE_DONE)
        reportEnd(report::stepFailed(shown(statement), reasonOf(rc, sqlite3_errmsg(_db))));
    sqlite3_finalize(prepared);
    return rc == SQLITE_DONE;
}

int Twin::prepared(const std::string& statement, const std::string& filled,
                   const std::string& operation)
{
    begin(by_statement, statement);
    if (isRefused(by_statement, statement, filled))
        return -1;
    const int rc = sqlite3_exec(_db, filled.c_str(), nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK)
        return sqlite3_changes(_db);
    report(report::statementFailed(operation, statement, reasonOf(rc, sqlite3_errmsg(_db))));
    return -1;
}

int Twin::getUserVersion()
{
    return number("PRAGMA user_version;");
}

bool Twin::setUserVersion(unsigned int version)
{
    return oneStep("PRAGMA user_version=" + std::to_string(version) + ";");
}

bool Twin::transact(const std::string& word)
{
    return query(word + " TRANSACTION");
}

// --- Reports

void Twin::begin(Route route, const std::string& statement)
{
    if (_course.interruptedAt == _statements)
        throw Interrupted();
    ++_statements;
    _hasWritten = _hasWritten || (route != by_number && statement.compare(0, 6, "select") != 0);
    const std::string text = shown(statement);
    if (route == by_query)
        report(report::ran(text));
    else if (route == by_statement)
        report(report::started("run", text));
    else
        report(route == by_number ? report::counted(text, "").front()
                                  : report::stepped(text).front());
}

namespace {

// The reports of a statement that is refused for one reason.
std::vector<Texts> queryRefusals(const std::string& statement, const std::string& reason)
{
    return {report::refused(statement, reason)};
}

std::vector<Texts> numberRefusals(const std::string& statement, const std::string& reason)
{
    return {report::notPrepared(statement, reason), report::noRow(statement, reason)};
}

std::vector<Texts> stepRefusals(const std::string& statement, const std::string& reason)
{
    return {report::stepNotPrepared(statement, reason), report::stepFailed(statement, reason)};
}

std::vector<Texts> statementRefusals(const std::string& statement, const std::string& reason)
{
    std::vector<Texts> all;
    for (const char* const operation : {"Statement", "bind", "run", "addRecord", "updateRecord",
                                        "addOrUpdateRecord", "deleteRecord"})
        all.push_back(joined({{report::started(operation, statement)},
                              report::statementFailed(operation, statement, reason)}));
    return all;
}

} // namespace

// When it is, its effect and report are what the course says.
bool Twin::isRefused(Route route, const std::string& statement, const std::string& filled)
{
    static constexpr std::vector<Texts> (*refusals[])(const std::string&, const std::string&) = {
        queryRefusals, numberRefusals, stepRefusals, statementRefusals};
    if (_errors + 2 > _course.errors.size())
        return false;
    const Texts next = {_course.errors[_errors], _course.errors[_errors + 1]};
    bool found = false;
    for (const std::string& reason : _course.reasons) {
        if (route != by_query && reason.find(':') == std::string::npos)
            continue; // the text is never missing there
        for (const Texts& report : refusals[route](shown(statement), reason))
            found = found || std::equal(next.begin(), next.end(), report.begin() + 1);
    }
    if (!found || _course.spared-- > 0)
        return false;
    if ((_course.effective >> _refused & 1) != 0)
        sqlite3_exec(_db, (filled.empty() ? statement : filled).c_str(), nullptr, nullptr, nullptr);
    if (_course.endsTransactionAt == _refused)
        sqlite3_exec(_db, "rollback", nullptr, nullptr, nullptr);
    ++_refused;
    report(next);
    return true;
}

// Without its first line, the statement's.
void Twin::reportEnd(const Texts& lines)
{
    report(Texts(lines.begin() + 1, lines.end()));
}

const Texts& Twin::events() const
{
    return _events;
}

void Twin::clear()
{
    _events.clear();
    _course = Course();
    _errors = 0;
    _statements = 0;
    _refused = 0;
    _hasWritten = false;
}

void Twin::report(const std::string& event)
{
    _errors += event.compare(0, 7, "[ERROR]") == 0;
    _events.push_back(event);
}

void Twin::report(const Texts& events)
{
    for (const std::string& event : events)
        report(event);
}

TwinTable::TwinTable(Twin& twin, const std::string& name, const sql::FieldSet& fields)
    : _twin(&twin), _name(name), _fields(fields)
{
}

bool TwinTable::exists()
{
    const int count = _twin->number(report::existenceQuery(_name));
    const std::string table = shown(_name);
    if (count == 0 || count == 1)
        _twin->report((count == 1 ? report::present(table) : report::absent(table)).back());
    else
        _twin->report(report::undetermined(table, ": ").back());
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
    _holdsAll = _twin->query(statement, _fields, _rows);
    return _holdsAll;
}

bool TwinTable::copyRecords(const TwinTable& source)
{
    return std::all_of(source._rows.begin(), source._rows.end(),
                       [&](const TwinRow& row) { return addRecord(source.record(row)); });
}

const std::vector<TwinRow>& TwinTable::rows() const
{
    return _rows;
}

bool TwinTable::holdsAll() const
{
    return _holdsAll;
}

void TwinTable::hold(const std::vector<TwinRow>& rows)
{
    _rows = rows;
    _holdsAll = true;
}

std::vector<TwinRow> rowsOf(sql::Table& table)
{
    std::vector<TwinRow> rows(static_cast<std::size_t>(table.recordCount()));
    for (int i = 0; i < table.recordCount(); ++i) {
        for (int j = 0; j < table.fields()->count(); ++j) {
            const sql::Value& cell = *table.getRecord(i)->getValue(j);
            rows[i].push_back(cell.isNull() ? std::nullopt
                                            : std::make_optional(cell.toSql(sql::type_int)));
        }
    }
    return rows;
}

Texts TwinTable::held() const
{
    Texts texts;
    for (const TwinRow& row : _rows)
        texts.push_back(record(row).toString());
    return texts;
}

std::optional<std::string> TwinTable::getRecordByKeyId(const std::string& key)
{
    return first(keyIs(inDoubleQuotes(key)));
}

std::optional<std::string> TwinTable::getRecordByKeyId(sql::integer key)
{
    return first(keyIs(std::to_string(key)));
}

bool TwinTable::hasRecordWithKeyId(const std::string& key)
{
    return has(keyIs(inDoubleQuotes(key)));
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
        _twin->report(report::keyIsNoInteger());
    return write("update " + _name + " set " + assignments
                 + where(keyIs(literal(key, sql::type_int))));
}

bool TwinTable::addOrUpdateRecord(const std::string& key, const sql::Record& record)
{
    return addOrUpdate(hasRecordWithKeyId(key), shown(key), record);
}

bool TwinTable::addOrUpdateRecord(sql::integer key, const sql::Record& record)
{
    return addOrUpdate(hasRecordWithKeyId(key), std::to_string(key), record);
}

bool TwinTable::addOrUpdate(bool found, const std::string& key, const sql::Record& record)
{
    _twin->report(report::debug(2, "Table::addOrUpdateRecord",
                                (found ? "update" : "add") + (" record for key=" + key)));
    return found ? updateRecord(record) : addRecord(record);
}

bool TwinTable::deleteRecord(const std::string& key)
{
    return deleteRecords(keyIs(inDoubleQuotes(key)));
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
    if (!create() || !source.open() || !copyRecords(source))
        return false;
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

std::string result(const std::string& text)
{
    return text;
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

Texts held(const TwinTable& table)
{
    return table.held();
}

} // namespace test
