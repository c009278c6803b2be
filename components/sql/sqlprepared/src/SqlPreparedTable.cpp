#include "SqlPreparedTable.h"

#include "SqlFailure.h"
#include "SqlLiteral.h"
#include "SqlNumber.h"
#include "SqlRecordCells.h"
#include "SqlTrace.h"

#include <sqlite3.h>

#include <algorithm>

namespace sql {

namespace {

constexpr const char* is_null = "is NULL";
constexpr const char* is_no_integer = "is no integer";
constexpr const char* is_no_text = "is no text";
constexpr const char* no_columns = "the table has no columns";
constexpr const char* no_key = "there is no PRIMARY KEY column";

bool isSame(std::string_view name, std::string_view other)
{
    return name.size() == other.size()
           && sqlite3_strnicmp(name.data(), other.data(), static_cast<int>(name.size())) == 0;
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

// --- From the table to the release ----------------------------------------------------------------

PreparedTable::PreparedTable(Database& database, const Table& table)
    : _database(&database), _table(&table), _fields(table.fields()),
      _types(_fields->count(), type_undefined), _cells(_fields->count(), nullptr)
{
    for (int i = 0; i < columnCount(); ++i) {
        const Field& field = *_fields->getByIndex(i);
        _types[i] = field.getType();
        if (field.isPrimaryKey() && _keyCount++ == 0)
            _keyIndex = i;
    }
}

PreparedTable::~PreparedTable() = default;

void PreparedTable::release()
{
    for (std::optional<Statement>& statement : _statements)
        statement.reset();
}

int PreparedTable::columnCount() const
{
    return static_cast<int>(_types.size());
}

// --- Texts of statements --------------------------------------------------------------------------

string PreparedTable::listed(Listed columns, Item item, const char* between) const
{
    string list;
    for (int i = 0; i < columnCount(); ++i) {
        const Field& field = *_fields->getByIndex(i);
        if (columns != Listed::all && field.isPrimaryKey() != (columns == Listed::keys))
            continue;
        if (!list.empty())
            list += between;
        list += item(quoteIdentifier(field.getName()), firstOf(field.getName()) + 1);
    }
    return list;
}

// Of columns of one name the first counts.
int PreparedTable::firstOf(std::string_view name) const
{
    int index = 0;
    while (index < columnCount() && !isSame(_fields->getByIndex(index)->getName(), name))
        ++index;
    return index;
}

string PreparedTable::selectionFrom(const Table& table) const
{
    return joined(
        {"select ", listed(Listed::all, itsName, ", "), " from ", quoteIdentifier(table.name())});
}

string PreparedTable::insertion() const
{
    return joined({"insert into ", quoteIdentifier(_table->name()), " (",
                   listed(Listed::all, itsName, ", "), ")"});
}

string PreparedTable::insertionOf(int rows) const
{
    const string row = joined({" (", listed(Listed::all, itsValue, ", "), ")"});
    string text = joined({insertion(), " values", row});
    while (--rows > 0)
        text.append(",").append(row);
    return text;
}

// The values are numbered as the columns, so that all are given in their order.
string PreparedTable::updating() const
{
    const Listed changed = _keyCount == columnCount() ? Listed::keys : Listed::others;
    return joined({"update ", quoteIdentifier(_table->name()), " set ",
                   listed(changed, isNumberedValue, ", "), " where ",
                   listed(Listed::keys, isNumberedValue, " and ")});
}

string PreparedTable::upserting() const
{
    const string changes = listed(Listed::others, isExcluded, ", ");
    return joined({insertionOf(1), " on conflict (", listed(Listed::keys, itsName, ", "), ") do ",
                   changes.empty() ? "nothing" : "update set ", changes});
}

string PreparedTable::textOf(Work work) const
{
    const string from = " from " + quoteIdentifier(_table->name());
    const string where = " where " + listed(Listed::keys, isValue, " and ");
    switch (work) {
    case insert_many:
        return insertionOf(rowsAtOnce());
    case update:
        return updating();
    case upsert:
        return upserting();
    case remove:
        return joined({"delete", from, where});
    case exists:
        return joined({"select 1", from, where});
    case read:
        return selectionFrom(*_table) + where;
    default:
        return insertionOf(1);
    }
}

// --- Statements -----------------------------------------------------------------------------------

inline void PreparedTable::forget()
{
    if (_error)
        _error = Error();
    _changes = 0;
    _key.reset();
}

// Null where it cannot be compiled.
Statement* PreparedTable::prepared(const char* operation, Work work)
{
    forget();
    return _statements[work] ? &*_statements[work] : compiled(operation, work);
}

Statement* PreparedTable::compiled(const char* operation, Work work)
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
string PreparedTable::whyNotCompiled(Work work) const
{
    if (_types.empty())
        return no_columns;
    if (work > insert_many && _keyCount == 0)
        return no_key;
    if (work > upsert && _keyCount > 1)
        return joined({"the key has ", intToStr(_keyCount), " columns"});
    return string();
}

// Takes over what there is to know of a run.
bool PreparedTable::keep(const Statement& statement, bool isDone)
{
    if (isDone) {
        _changes = statement._changes;
        _key = statement._key;
    } else {
        _error = statement._error;
    }
    return isDone;
}

bool PreparedTable::fail(const char* operation, const string& text, int rc, const string& why)
{
    reportFailure(operation, text.c_str(), rc, why.c_str());
    _error = errorOf(nullptr, rc, why, text.c_str());
    return false;
}

integer PreparedTable::changes() const
{
    return _changes;
}

std::optional<integer> PreparedTable::lastKey() const
{
    return _key;
}

const Error& PreparedTable::error() const
{
    return _error;
}

// --- Single records -------------------------------------------------------------------------------

bool PreparedTable::addRecord(const Record& record)
{
    return store("addRecord", insert_one, record);
}

bool PreparedTable::updateRecord(const Record& record)
{
    return store("updateRecord", update, record);
}

bool PreparedTable::addOrUpdateRecord(const Record& record)
{
    return store("addOrUpdateRecord", upsert, record);
}

bool PreparedTable::store(const char* operation, Work work, const Record& record)
{
    Statement* const statement = prepared(operation, work);
    if (statement == nullptr)
        return false;
    if (!_texts.empty())
        _texts.clear();
    const int index = RecordAccess::take(record, *_fields, _types, _cells.data(), _texts);
    if (index != RecordAccess::all)
        return keep(*statement, failToTake(operation, *statement, index));
    if (work == update) {
        if (const char* const why = whyNotFound(record))
            return keep(*statement, failToFind(operation, *statement, why));
    }
    return keep(*statement, statement->runAs(operation, _cells.data(), statement->_parameterCount));
}

bool PreparedTable::failToTake(const char* operation, Statement& statement, int index)
{
    if (index == RecordAccess::other_columns)
        return statement.fail(operation, Statement::State::failed, SQLITE_MISUSE, wrong_columns);
    return statement.fail(
        operation, Statement::State::failed, SQLITE_MISMATCH,
        joined({"column ", _fields->getByIndex(index)->getName(), " ", is_no_number}));
}

bool PreparedTable::failToFind(const char* operation, Statement& statement, const char* why)
{
    return statement.fail(operation, Statement::State::failed, SQLITE_MISMATCH,
                          joined({"the key ", why}));
}

// Null where the cells have a key that a row can have.
const char* PreparedTable::whyNotFound(const Record& record)
{
    for (int i = _keyIndex, left = _keyCount; left > 0; ++i) {
        if (i != _keyIndex && !_fields->getByIndex(i)->isPrimaryKey())
            continue;
        if (_cells[i]._kind == Argument::Kind::null)
            return is_null;
        if (_cells[i]._kind == Argument::Kind::real
            && !RecordAccess::takeInteger(record, i, _cells[i]))
            return is_no_integer;
        --left;
    }
    return nullptr;
}

inline const Argument* PreparedTable::keyFor(const char* operation, Statement& statement,
                                             const Argument& given)
{
    const bool isText = isOfText(_types[_keyIndex]);
    return given._kind == (isText ? Argument::Kind::text : Argument::Kind::number)
               ? &given
               : otherKey(operation, statement, given);
}

bool PreparedTable::deleteByKey(const Argument& key)
{
    Statement* const statement = prepared("deleteRecord", remove);
    if (statement == nullptr)
        return false;
    const Argument* const value = keyFor("deleteRecord", *statement, key);
    return keep(*statement, value != nullptr && statement->runAs("deleteRecord", value, 1));
}

Presence PreparedTable::hasKey(const Argument& key)
{
    return find("hasRecordWithKeyId", exists, key, nullptr, 0);
}

Result<bool> PreparedTable::readByKey(const Argument& key, Record& record)
{
    RowTarget target{&record, _fields, &_cells};
    const Statement::Variable whole{nullptr, &target};
    const Presence found = find("readRecord", read, key, &whole, Statement::whole_row);
    if (found == Presence::unknown)
        return _error;
    return found == Presence::present ? Result<bool>(true) : Result<bool>();
}

Presence PreparedTable::find(const char* operation, Work work, const Argument& key,
                             const Statement::Variable* variables, int count)
{
    Statement* const statement = prepared(operation, work);
    if (statement == nullptr)
        return Presence::unknown;
    const Argument* const value = keyFor(operation, *statement, key);
    const Presence found = value != nullptr
                               ? statement->readFirst(operation, value, 1, variables, count)
                               : Presence::unknown;
    keep(*statement, found != Presence::unknown);
    return found;
}

// What SQLite would take for the key of a row, "7.0", " 7" and "7e0" for 7, is none: null.
const Argument* PreparedTable::otherKey(const char* operation, Statement& statement,
                                        const Argument& argument)
{
    const bool isText = isOfText(_types[_keyIndex]);
    Argument& made = _cells[_keyIndex];
    const char* why = isText ? is_no_text : is_no_integer;
    if (argument._kind == Argument::Kind::null) {
        why = is_null;
    } else if (argument._kind == Argument::Kind::unfit) {
        why = argument._why;
    } else if (argument._kind == Argument::Kind::number) {
        _texts.clear();
        made = std::string_view(_texts.emplace_front(intToStr(argument._number)));
        return &made;
    } else if (argument._kind == Argument::Kind::text) {
        const std::string_view text(static_cast<const char*>(argument._bytes.data),
                                    argument._bytes.size);
        integer number = 0;
        if (readNumber(text, number) == nullptr && intToStr(number) == text) {
            made = number;
            return &made;
        }
    }
    failToFind(operation, statement, why);
    return nullptr;
}

// --- Selections -----------------------------------------------------------------------------------

RecordCursor PreparedTable::selectWith(std::string_view condition, const Argument* values,
                                       int count)
{
    forget();
    string text = selectionFrom(*_table);
    if (!condition.empty())
        text.append(1, ' ').append(condition);
    RecordCursor cursor(Statement("select", *_database, text), *_fields);
    if (!cursor._statement.bindCopies("select", values, count))
        _error = cursor._statement._error;
    return cursor;
}

RecordCursor::RecordCursor(Statement statement, const FieldSet& fields)
    : _statement(std::move(statement)), _fields(&fields), _cells(fields.count(), nullptr)
{
}

RecordCursor::RecordCursor(RecordCursor&& other) noexcept = default;

RecordCursor& RecordCursor::operator=(RecordCursor&& other) noexcept
{
    if (this != &other) {
        const RecordCursor former(std::move(*this));
        _statement = std::move(other._statement);
        _fields = other._fields;
        _cells = std::move(other._cells);
        _record = std::move(other._record);
        _isAsked = other._isAsked;
    }
    return *this;
}

RecordCursor::~RecordCursor()
{
    SQL_ASSERT(_isAsked || !_statement.error(), "sql::RecordCursor::~RecordCursor()");
}

bool RecordCursor::next(Record& record)
{
    RowTarget target{&record, _fields, &_cells};
    const Statement::Variable whole{nullptr, &target};
    return _statement.readRow(&whole, Statement::whole_row);
}

const Record* RecordCursor::nextOwn()
{
    if (!_record)
        _record.emplace(*_fields);
    return next(*_record) ? &*_record : nullptr;
}

bool RecordCursor::finished() const
{
    _isAsked = static_cast<bool>(_statement._error);
    return _statement.finished();
}

const Error& RecordCursor::error() const
{
    _isAsked = static_cast<bool>(_statement._error);
    return _statement.error();
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

void compareTypes(const Field& field, const FileColumn& column, Remarks& remarks)
{
    const bool isKnown = field.getType() == type_text || !isOfText(field.getType());
    const string declared = isKnown ? field.getTypeStr() : string();
    if (!isSame(column.type, declared))
        remark(remarks, field.getName(),
               {column.type.empty() ? " has no type" : " has the type ", column.type,
                ", declared as ", declared});
}

void compareNulls(const Field& field, const FileColumn& column, Remarks& remarks)
{
    if (field.isNotNull() && !column.isNotNull && !column.isRowId)
        remark(remarks, field.getName(), {" may be NULL"});
    if (!field.isNotNull() && !field.isPrimaryKey() && column.isNotNull)
        remark(remarks, field.getName(), {" may not be NULL"});
}

void compare(const Field& field, const FileColumn& column, Remarks& remarks)
{
    compareTypes(field, column, remarks);
    compareNulls(field, column, remarks);
    if (field.isPrimaryKey() != column.isKey)
        remark(remarks, field.getName(),
               {column.isKey ? " is a key, which is not declared" : " is no key"});
    if (column.hidden > 0)
        remark(remarks, field.getName(), {column.hidden == 1 ? " is hidden" : " is generated"});
}

} // namespace

Result<std::vector<string>> PreparedTable::checkDeclaration()
{
    forget();
    // The older one knows of no hidden columns, as does its SQLite.
    const char* const pragma = sqlite3_libversion_number() < 3026000 ? "info" : "xinfo";
    Statement rows = Statement(
        "checkDeclaration", *_database,
        joined({"pragma table_", pragma, "(", quoteIdentifier(_table->name()), ")"}));
    FileColumns columns;
    while (rows.nextAs("checkDeclaration"))
        columns.push_back(columnAt(rows));
    if (!keep(rows, rows.finished()))
        return _error;
    if (columns.empty())
        return Remarks{"there is no table " + _table->name()};
    findRowId(columns);

    Remarks remarks;
    for (int i = 0; i < columnCount(); ++i) {
        const Field& field = *_fields->getByIndex(i);
        const auto column = std::find_if(
            columns.begin(), columns.end(),
            [&](const FileColumn& each) { return isSame(each.name, field.getName()); });
        if (column != columns.end())
            compare(field, *column, remarks);
        else
            remark(remarks, field.getName(), {" is missing"});
    }
    for (const FileColumn& column : columns) {
        if (firstOf(column.name) == columnCount() && column.hidden != 1)
            remark(remarks, column.name, {" is not declared"});
    }
    return remarks;
}

} // namespace sql
