#include "SqlTableStatements.h"

#include "SqlFailure.h"
#include "SqlLiteral.h"
#include "SqlNumber.h"
#include "SqlToken.h"

#include <sqlite3.h>

#include <algorithm>

namespace sql {

namespace {

constexpr std::size_t most_conditions = 8; // whose statements are kept
constexpr int most_rows = 32;              // of a statement: more gain nothing
constexpr int fewest_rows = 8;             // that gain anything
constexpr integer fewest_records = 280;    // that repay its compilation

constexpr const char* no_columns = "the table has no columns";
constexpr const char* no_key = "there is no PRIMARY KEY column";

bool isSame(std::string_view name, std::string_view other)
{
    return name.size() == other.size()
           && sqlite3_strnicmp(name.data(), other.data(), static_cast<int>(name.size())) == 0;
}

// Whether a text is that of a statement's start and its condition.
bool isJoined(std::string_view text, std::string_view start, std::string_view condition)
{
    if (condition.empty())
        return text == start;
    return text.size() == start.size() + 1 + condition.size()
           && text.substr(0, start.size()) == start && text[start.size()] == ' '
           && text.substr(start.size() + 1) == condition;
}

// What a list has for a column: of its quoted name, and its position as a value.

string itsName(const string& name, int /*position*/)
{
    return name;
}

string itsValue(const string& /*name*/, int /*position*/)
{
    return "?";
}

string isValue(const string& name, int /*position*/)
{
    return name + " = ?";
}

string isNumberedValue(const string& name, int position)
{
    return name + " = ?" + intToStr(position);
}

string isExcluded(const string& name, int /*position*/)
{
    return name + " = excluded." + name;
}

} // namespace

// --- From the declaration to the release ----------------------------------------------------------

TableStatements::TableStatements(Database& database, int columnCount, Declaration declared)
    : _database(&database), _columnCount(columnCount), _declared(declared)
{
}

TableStatements::~TableStatements() = default;

void TableStatements::release()
{
    for (std::optional<Statement>& statement : _statements)
        statement.reset();
    _conditions.clear();
    ++_releases;
}

// --- Texts of statements --------------------------------------------------------------------------

string TableStatements::listed(Listed columns, Item item, const char* between) const
{
    string list;
    for (int i = 0; i < _columnCount; ++i) {
        const Declared column = _declared(*this, i);
        if (columns != Listed::all && column.isKey != (columns == Listed::keys))
            continue;
        if (!list.empty())
            list += between;
        list += item(quoteIdentifier(column.name), firstOf(column.name) + 1);
    }
    return list;
}

// Of columns of one name the first counts.
int TableStatements::firstOf(std::string_view name) const
{
    int index = 0;
    while (index < _columnCount && !isSame(_declared(*this, index).name, name))
        ++index;
    return index;
}

string TableStatements::selectionFrom(const string& table) const
{
    return joined(
        {"select ", listed(Listed::all, itsName, ", "), " from ", quoteIdentifier(table)});
}

string TableStatements::insertion() const
{
    return joined(
        {"insert into ", quoteIdentifier(_name), " (", listed(Listed::all, itsName, ", "), ")"});
}

string TableStatements::insertionOf(int rows) const
{
    const string row = joined({" (", listed(Listed::all, itsValue, ", "), ")"});
    string text = joined({insertion(), " values", row});
    while (--rows > 0)
        text.append(",").append(row);
    return text;
}

// The values are numbered as the columns, so that all are given in their order.
string TableStatements::updating() const
{
    const Listed changed = _keyCount == _columnCount ? Listed::keys : Listed::others;
    return joined({"update ", quoteIdentifier(_name), " set ",
                   listed(changed, isNumberedValue, ", "), " where ",
                   listed(Listed::keys, isNumberedValue, " and ")});
}

string TableStatements::upserting() const
{
    const string changes = listed(Listed::others, isExcluded, ", ");
    return joined({insertionOf(1), " on conflict (", listed(Listed::keys, itsName, ", "), ") do ",
                   changes.empty() ? "nothing" : "update set ", changes});
}

string TableStatements::textOf(Work work) const
{
    const string from = " from " + quoteIdentifier(_name);
    const auto where = [this] {
        return " where " + listed(Listed::keys, isValue, " and ");
    };
    switch (work) {
    case insert_many:
        return insertionOf(rowsAtOnce());
    case count_all:
        return "select count(*)" + from;
    case update:
        return updating();
    case upsert:
        return upserting();
    case remove:
        return joined({"delete", from, where()});
    case exists:
        return joined({"select 1", from, where()});
    case read:
        return selectionFrom(_name) + where();
    default:
        return insertionOf(1);
    }
}

// --- Statements -----------------------------------------------------------------------------------

Statement* TableStatements::compiled(const char* operation, Work work)
{
    const string why = whyNotCompiled(work);
    if (!why.empty()) {
        fail(operation, string(), SQLITE_MISUSE, why);
        return nullptr;
    }
    std::optional<Statement>& statement = _statements[work];
    statement = Statement(operation, *_database, textOf(work));
    if (statement->isPrepared())
        return &*statement;
    _error = statement->error();
    statement.reset();
    return nullptr;
}

// Empty where the declaration suffices.
string TableStatements::whyNotCompiled(Work work) const
{
    if (_columnCount == 0)
        return no_columns;
    if (work > count_all && _keyCount == 0)
        return no_key;
    if (work > upsert && _keyCount > _mostKeys)
        return joined({"the key has ", intToStr(_keyCount), " columns"});
    return string();
}

bool TableStatements::fail(const char* operation, const string& text, int rc, const string& why)
{
    reportFailure(operation, text.c_str(), rc, why.c_str());
    _error = errorOf(nullptr, rc, why, text.c_str());
    return false;
}

integer TableStatements::changes() const
{
    return _changes;
}

std::optional<integer> TableStatements::lastKey() const
{
    return _key;
}

const Error& TableStatements::error() const
{
    return _error;
}

// As many as SQLite has variables for; one where that gains nothing.
int TableStatements::rowsAtOnce() const
{
    const int limit = sqlite3_limit(_database->getHandle(), SQLITE_LIMIT_VARIABLE_NUMBER, -1);
    const int rows = std::min(limit / _columnCount, most_rows);
    return rows >= fewest_rows ? rows : 1;
}

// One that is kept, or a new one.
TableStatements::Held TableStatements::taken(const char* operation, std::string_view start,
                                             std::string_view condition)
{
    forget();
    Held held;
    const auto kept = std::find_if(
        _conditions.begin(), _conditions.end(),
        [&](const Statement& statement) { return isJoined(statement.text(), start, condition); });
    if (kept != _conditions.end())
        held.splice(held.end(), _conditions, kept);
    else
        held.push_back(Statement(operation, *_database,
                                 joined({start, condition.empty() ? "" : " ", condition})));
    return held;
}

// Without its values, row and failure, unless it belongs to another connection by now.
void TableStatements::giveBack(Held& held, int releases)
{
    Statement& statement = held.front();
    if (!statement.isPrepared() || releases != _releases
        || statement._connection != _database->getHandle())
        return;
    sqlite3_reset(statement._handle.statement);
    sqlite3_clear_bindings(statement._handle.statement);
    statement._handle.state = Statement::State::ready;
    statement._stale = false;
    statement.forgetError();
    if (_conditions.size() == most_conditions)
        _conditions.pop_front();
    _conditions.splice(_conditions.end(), held);
}

// --- Many rows ------------------------------------------------------------------------------------

TableStatements::Bulk::Bulk(const char* operation, TableStatements& table, integer count,
                            RunRows runRows)
    : TransactionScope(*table._database, std::chrono::milliseconds(0)), _operation(operation),
      _table(table), _runRows(runRows)
{
    _isReady = compile(count) && start();
}

TableStatements::Bulk::~Bulk()
{
    if (_one != nullptr)
        _one->_record = 0;
}

bool TableStatements::Bulk::compile(integer count)
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
    _rows = _many->_parameterCount / _table._columnCount;
    return true;
}

bool TableStatements::Bulk::start()
{
    const bool isOwn = sqlite3_get_autocommit(_table._database->getHandle()) != 0;
    if (!begin(isOwn ? "begin immediate" : nullptr)) {
        _table._error = error();
        return false;
    }
    enter();
    _reportStep = _nextReport = _rows > 1 ? _rows : most_rows;
    return true;
}

// Whose values are there.
bool TableStatements::Bulk::addNext()
{
    ++_pending;
    return _pending < _rows || flush();
}

// The statement of a row that cannot be added; null where one before it has failed.
Statement* TableStatements::Bulk::failing()
{
    if (!flush())
        return nullptr;
    _one->_record = _count + 1;
    return _one;
}

// Together, or one by one: the rest, and where one of them fails, so that it is known which.
bool TableStatements::Bulk::flush()
{
    int done = 0;
    if (_rows > 1 && _pending == _rows && !runTogether(done))
        return false;
    for (; done < _pending; ++done) {
        _one->_record = _count + done + 1;
        if (!note(*_one, _runRows(*this, *_one, done, 1)))
            return false;
    }
    _count += _pending;
    _pending = 0;
    return true;
}

// A failure leaves nothing, but for "on conflict fail", which leaves the rows before.
bool TableStatements::Bulk::runTogether(int& done)
{
    _latest = _many;
    if (_runRows(*this, *_many, 0, _rows))
        done = _pending;
    else if (isOpen())
        done = static_cast<int>(_many->_changes);
    else
        return failTogether();
    _added += _many->_changes;
    return true;
}

// With the transaction it is lost which row it was.
bool TableStatements::Bulk::failTogether()
{
    const integer first = _count + 1;
    const integer last = _count + _pending;
    return _table.fail(_operation, string(_many->text()), _many->_error.extendedCode(),
                       joined({"records ", NumberText(first).view(), " to ",
                               NumberText(last).view(), ": ", _many->_error.text()}));
}

// Takes over what there is to know of a row's run.
bool TableStatements::Bulk::note(Statement& statement, bool hasRun)
{
    _latest = &statement;
    _added += hasRun ? statement._changes : 0;
    return hasRun || _table.keep(statement, false);
}

// The last report is of all, and comes once.
bool TableStatements::Bulk::addRest()
{
    if (!flush())
        return false;
    if (_count == 0 || _count + _reportStep != _nextReport)
        _nextReport = _count;
    return true;
}

bool TableStatements::Bulk::stop()
{
    return _table.fail(_operation, string(_one->text()), SQLITE_INTERRUPT,
                       "stopped by its progress");
}

bool TableStatements::Bulk::finish()
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

// --- The declaration ------------------------------------------------------------------------------

namespace {

// A column as the file has it.
struct FileColumn {
    string name;
    string type;
    bool isNotNull;
    bool isKey;
    bool isRowId;
    integer hidden;
};

using FileColumns = std::vector<FileColumn>;
using Remarks = std::vector<string>;

FileColumn columnAt(Statement& row)
{
    const integer hidden = row.columnCount() > 6 ? row.column(6).asInteger() : 0;
    return {row.column(1).asString(),
            row.column(2).asString(),
            row.column(3).asBool(),
            row.column(5).asInteger() > 0,
            false,
            hidden};
}

// A key of integers that SQLite chooses, and that is never NULL.
void findRowId(FileColumns& columns)
{
    const auto isKey = [](const FileColumn& column) {
        return column.isKey;
    };
    if (std::count_if(columns.begin(), columns.end(), isKey) != 1)
        return;
    FileColumn& key = *std::find_if(columns.begin(), columns.end(), isKey);
    key.isRowId = isSame(key.type, "INTEGER");
}

void remark(Remarks& remarks, const string& name, std::initializer_list<std::string_view> words)
{
    remarks.push_back(joined({"column ", name, joined(words)}));
}

void compareTypes(const string& name, const string& type, const FileColumn& column,
                  Remarks& remarks)
{
    if (!isSame(column.type, type))
        remark(remarks, name,
               {column.type.empty() ? " has no type" : " has the type ", column.type,
                ", declared as ", type});
}

void compareNulls(const string& name, bool isNotNull, bool isKey, const FileColumn& column,
                  Remarks& remarks)
{
    if (isNotNull && !column.isNotNull && !column.isRowId)
        remark(remarks, name, {" may be NULL"});
    if (!isNotNull && !isKey && column.isNotNull)
        remark(remarks, name, {" may not be NULL"});
}

void compareKeys(const string& name, bool isKey, const FileColumn& column, Remarks& remarks)
{
    if (isKey != column.isKey)
        remark(remarks, name, {column.isKey ? " is a key, which is not declared" : " is no key"});
    if (column.hidden > 0)
        remark(remarks, name, {column.hidden == 1 ? " is hidden" : " is generated"});
}

} // namespace

Result<std::vector<string>> TableStatements::differences(const char* operation)
{
    forget();
    // The older one knows of no hidden columns, as does its SQLite.
    const char* const pragma = sqlite3_libversion_number() < 3026000 ? "info" : "xinfo";
    Statement rows = Statement(operation, *_database,
                               joined({"pragma table_", pragma, "(", quoteIdentifier(_name), ")"}));
    FileColumns columns;
    while (rows.nextAs(operation))
        columns.push_back(columnAt(rows));
    if (!keep(rows, rows.finished()))
        return _error;
    if (columns.empty())
        return Remarks{"there is no table " + _name};
    findRowId(columns);

    Remarks remarks;
    for (int i = 0; i < _columnCount; ++i) {
        const Declared declared = _declared(*this, i);
        const string& name = declared.name;
        const auto column = std::find_if(
            columns.begin(), columns.end(),
            [&](const FileColumn& each) { return isSame(each.name, name); });
        if (column == columns.end()) {
            remark(remarks, name, {" is missing"});
            continue;
        }
        compareTypes(name, declared.type, *column, remarks);
        compareNulls(name, declared.isNotNull, declared.isKey, *column, remarks);
        compareKeys(name, declared.isKey, *column, remarks);
    }
    for (const FileColumn& column : columns) {
        if (firstOf(column.name) == _columnCount && column.hidden != 1)
            remark(remarks, column.name, {" is not declared"});
    }
    return remarks;
}

} // namespace sql
