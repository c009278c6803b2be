#include "SqlPreparedTable.h"

#include "SqlFailure.h"
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
} // namespace

// --- From the table to the release ----------------------------------------------------------------

PreparedTable::PreparedTable(Database& database, const Table& table)
    : TableStatements(database, table.fields()->count(), declared), _fields(table.fields()),
      _types(_columnCount, type_undefined), _cells(_columnCount, nullptr)
{
    _name = table.name();
    _mostKeys = 1;
    for (int i = 0; i < _columnCount; ++i) {
        const Field& field = *_fields->getByIndex(i);
        _types[i] = field.getType();
        if (field.isPrimaryKey() && _keyCount++ == 0)
            _keyIndex = i;
    }
}

PreparedTable::~PreparedTable() = default;

TableStatements::Declared PreparedTable::declared(const TableStatements& table, int index)
{
    const Field& field = *static_cast<const PreparedTable&>(table)._fields->getByIndex(index);
    const bool isKnown = field.getType() == type_text || !isOfText(field.getType());
    return {field.getName(), isKnown ? field.getTypeStr() : string(), field.isPrimaryKey(),
            field.isNotNull()};
}

Result<std::vector<string>> PreparedTable::checkDeclaration()
{
    return differences("checkDeclaration");
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
    string text = selectionFrom(_name);
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

} // namespace sql
