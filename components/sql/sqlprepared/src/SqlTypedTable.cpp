#include "SqlTypedTable.h"

#include "SqlFailure.h"
#include "SqlLiteral.h"
#include "SqlNumber.h"
#include "SqlTrace.h"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace sql {

// --- Members --------------------------------------------------------------------------------------

struct MemberAccess {
    using Kind = MappedColumn::Kind;
    using Texts = std::forward_list<string>;

    SQLWRAPPER_LOCAL static Argument keptIn(Texts& texts, const Argument& argument);
    SQLWRAPPER_LOCAL static Argument take(const MappedColumn& column, const void* object,
                                          Texts& texts);
    SQLWRAPPER_LOCAL static Argument takeValue(const MappedColumn& column, const void* value,
                                               Texts& texts);
    SQLWRAPPER_LOCAL static const char* read(const MappedColumn& column, const Column& cell,
                                             void* object);
    SQLWRAPPER_LOCAL static const char* readValue(const MappedColumn& column, const Column& cell,
                                                  void* value);
    SQLWRAPPER_LOCAL static const char* whyUnfit(const Argument& argument);
    SQLWRAPPER_LOCAL static bool isNull(const Argument& argument)
    {
        return argument._kind == Argument::Kind::null;
    }
    SQLWRAPPER_LOCAL static bool isZero(const Argument& argument)
    {
        return argument._kind == Argument::Kind::number && argument._number == 0;
    }
    SQLWRAPPER_LOCAL static const char* setKey(const MappedColumn& column, integer key,
                                               void* object);

private:
    SQLWRAPPER_LOCAL static integer numberAt(const MappedColumn& column, const void* value);
    SQLWRAPPER_LOCAL static const char* setNumber(const MappedColumn& column, integer number,
                                                  void* value);
};

namespace {

constexpr const char* is_null = "is NULL";
constexpr const char* is_not_a_number = "is not a number";
constexpr const char* is_not_mapped = "is not mapped";
constexpr const char* comes_twice = "comes twice";
constexpr const char* is_missing = "is missing";
constexpr const char* is_above = "is above the range of integers";

template <typename T> const T& at(const void* value)
{
    return *static_cast<const T*>(value);
}

template <typename T> const char* readAs(const Column& cell, void* value)
{
    return Binder<T>::read(cell, *static_cast<T*>(value));
}

// The numbers that so many bytes hold.

integer highestOf(const MappedColumn& column)
{
    const int bits = 8 * column.size - (column.isSigned ? 1 : 0);
    return static_cast<integer>(~0ULL >> (bits < 63 ? 64 - bits : 1));
}

integer lowestOf(const MappedColumn& column)
{
    return column.isSigned ? -highestOf(column) - 1 : 0;
}

} // namespace

Argument keptIn(std::forward_list<string>& texts, const Argument& argument)
{
    return MemberAccess::keptIn(texts, argument);
}

Argument MemberAccess::keptIn(Texts& texts, const Argument& argument)
{
    Argument kept = argument;
    if (argument._kind != Argument::Kind::text && argument._kind != Argument::Kind::block)
        return kept;
    const string& copy = texts.emplace_front(static_cast<const char*>(argument._bytes.data),
                                             argument._bytes.size);
    kept._bytes.data = copy.data();
    return kept;
}

// An integer of any type and size, whose bytes alone are looked at.
integer MemberAccess::numberAt(const MappedColumn& column, const void* value)
{
    unsigned long long number = 0;
    switch (column.size) {
    case 1:
        number = at<unsigned char>(value);
        break;
    case 2: {
        std::uint16_t half = 0;
        std::memcpy(&half, value, sizeof(half));
        number = half;
        break;
    }
    case 4: {
        std::uint32_t word = 0;
        std::memcpy(&word, value, sizeof(word));
        number = word;
        break;
    }
    default:
        std::memcpy(&number, value, sizeof(number));
    }
    const int unused = 64 - 8 * column.size;
    return column.isSigned ? static_cast<integer>(number << unused) >> unused
                           : static_cast<integer>(number);
}

const char* MemberAccess::setNumber(const MappedColumn& column, integer number, void* value)
{
    if (number < lowestOf(column) || number > highestOf(column))
        return is_out_of_range;
    const auto set = [&](auto narrow) {
        std::memcpy(value, &narrow, sizeof(narrow));
    };
    switch (column.size) {
    case 1:
        set(static_cast<std::uint8_t>(number));
        break;
    case 2:
        set(static_cast<std::uint16_t>(number));
        break;
    case 4:
        set(static_cast<std::uint32_t>(number));
        break;
    default:
        set(number);
    }
    return nullptr;
}

Argument MemberAccess::take(const MappedColumn& column, const void* object, Texts& texts)
{
    const void* member = column.place(object);
    if (column.optional != nullptr)
        member = column.optional->get(member);
    if (member == nullptr)
        return nullptr;
    return column.kind == Kind::other ? column.operations->argument(member, texts)
                                      : takeValue(column, member, texts);
}

Argument MemberAccess::takeValue(const MappedColumn& column, const void* value, Texts& texts)
{
    switch (column.kind) {
    case Kind::truth:
        return static_cast<integer>(at<bool>(value));
    case Kind::number: {
        const integer number = numberAt(column, value);
        if (number < 0 && !column.isSigned)
            return Argument::unfit(is_above);
        return number;
    }
    case Kind::real:
        return at<double>(value);
    case Kind::small_real:
        return static_cast<double>(at<float>(value));
    case Kind::text:
        return std::string_view(at<string>(value));
    case Kind::block:
        return Binder<std::vector<unsigned char>>::argument(at<std::vector<unsigned char>>(value));
    case Kind::time:
        return at<Time>(value).asInteger();
    case Kind::in_seconds:
        return Binder<std::chrono::system_clock::time_point>::argument(
            at<std::chrono::system_clock::time_point>(value));
    case Kind::in_milliseconds:
        return inMilliseconds(at<std::chrono::system_clock::time_point>(value));
    case Kind::other:
        break;
    }
    const MemberOperations* const ofValue = column.operations->ofValue;
    return (ofValue != nullptr ? ofValue : column.operations)->argument(value, texts);
}

const char* MemberAccess::read(const MappedColumn& column, const Column& cell, void* object)
{
    void* member = const_cast<void*>(column.place(object));
    if (column.optional == nullptr)
        return readValue(column, cell, member);
    if (cell.isNull()) {
        column.optional->set(member, false);
        return nullptr;
    }
    const bool had = column.optional->get(member) != nullptr;
    const char* const why = readValue(column, cell, column.optional->set(member, true));
    if (why != nullptr && !had)
        column.optional->set(member, false);
    return why;
}

const char* MemberAccess::readValue(const MappedColumn& column, const Column& cell, void* value)
{
    switch (column.kind) {
    case Kind::truth:
        return readAs<bool>(cell, value);
    case Kind::number: {
        integer number = 0;
        const char* const why = cell.read(number, lowestOf(column), highestOf(column));
        return why != nullptr ? why : setNumber(column, number, value);
    }
    case Kind::real:
        return readAs<double>(cell, value);
    case Kind::small_real:
        return readAs<float>(cell, value);
    case Kind::text:
        return readAs<string>(cell, value);
    case Kind::block:
        return readAs<std::vector<unsigned char>>(cell, value);
    case Kind::time:
        return readAs<Time>(cell, value);
    case Kind::in_seconds:
        return readAs<std::chrono::system_clock::time_point>(cell, value);
    case Kind::in_milliseconds:
        return MillisecondsBinder<std::chrono::system_clock::time_point>::read(
            cell, *static_cast<std::chrono::system_clock::time_point*>(value));
    case Kind::other:
        break;
    }
    return column.operations->read(cell, value);
}

// Null where it can be bound.
const char* MemberAccess::whyUnfit(const Argument& argument)
{
    if (argument._kind == Argument::Kind::unfit)
        return argument._why;
    const bool isReal = argument._kind == Argument::Kind::real;
    return isReal && std::isnan(argument._real) ? is_not_a_number : nullptr;
}

const char* MemberAccess::setKey(const MappedColumn& column, integer key, void* object)
{
    void* const member = const_cast<void*>(column.place(object));
    return setNumber(column, key,
                     column.optional != nullptr ? column.optional->set(member, true) : member);
}

// A row into an object, cell by cell.
bool Statement::readObject(const char* operation, const Variable& variable)
{
    RowPlace& place = *static_cast<RowPlace*>(variable.variable);
    const int count = sqlite3_data_count(_handle.statement);
    if (count != place.count)
        return failToFill(operation, place.count);
    void* const object = place.make != nullptr ? place.make(place.list) : place.object;
    for (int i = 0; i < count; ++i) {
        const MappedColumn& column = place.columns[place.order != nullptr ? place.order[i] : i];
        const Column cell(*this, sqlite3_column_value(_handle.statement, i));
        if (const char* const why = MemberAccess::read(column, cell, object))
            return failToRead(operation, i, why);
    }
    return true;
}

// --- The declaration ------------------------------------------------------------------------------

namespace {

// A key that is a row's number, and never NULL.
bool isRowNumber(const MappingView& mapping, const MappedColumn& column)
{
    return mapping.hasRowid && std::string_view(column.type) == "INTEGER";
}

bool isKey(const MappedColumn& column)
{
    return (column.flags & flag_primary_key) != 0;
}

string indexName(const MappingView& mapping, const std::string_view* columns, int count)
{
    string name(mapping.name);
    for (int i = 0; i < count; ++i)
        name.append(1, '_').append(columns[i]);
    return name;
}

string indexDefinition(const MappingView& mapping, const std::string_view* columns, int count,
                       bool isUnique)
{
    string list;
    for (int i = 0; i < count; ++i)
        list.append(i > 0 ? ", " : "").append(quoteIdentifier(string(columns[i])));
    return joined({isUnique ? "create unique index" : "create index", " if not exists ",
                   quoteIdentifier(indexName(mapping, columns, count)), " on ",
                   quoteIdentifier(string(mapping.name)), " (", list, ")"});
}

std::vector<string> indexDefinitions(const MappingView& mapping)
{
    std::vector<string> texts;
    for (int i = 0; i < mapping.columnCount; ++i) {
        const MappedColumn& column = mapping.columns[i];
        if (column.isIndexed)
            texts.push_back(indexDefinition(mapping, &column.name, 1, false));
    }
    for (int i = 0; i < mapping.indexCount; ++i) {
        const MappedIndex& index = mapping.indexes[i];
        texts.push_back(indexDefinition(mapping, index.columns, index.count, index.isUnique));
    }
    return texts;
}

// A transaction of its own, or a part of the caller's.
class Whole : public TransactionScope {
public:
    explicit Whole(Database& database)
        : TransactionScope(database, textFor(database.getHandle()), std::chrono::milliseconds(0))
    {
    }

private:
    static const char* textFor(sqlite3* db)
    {
        return db == nullptr || sqlite3_get_autocommit(db) != 0 ? "begin immediate" : nullptr;
    }
};

} // namespace

TableStatements::Declared MappedTable::declared(const TableStatements& table, int index)
{
    const MappingView& mapping = static_cast<const MappedTable&>(table)._mapping;
    const MappedColumn& column = mapping.columns[index];
    const bool neverNull = (column.flags & flag_not_null) != 0
                           || (isKey(column)
                               && (table._keyCount > 1 || !isRowNumber(mapping, column)));
    return {string(column.name), column.type, isKey(column), neverNull};
}

string MappedTable::definition() const
{
    const string keyNames = listed(
        Listed::keys, [](const string& name, int) { return name; }, ", ");
    const char* const alone = _keyCount == 1 ? " PRIMARY KEY" : "";
    string list;
    for (int i = 0; i < _columnCount; ++i) {
        const MappedColumn& column = _mapping.columns[i];
        const bool isUnique = (column.flags & flag_unique) != 0;
        list += joined({i > 0 ? ", " : "", quoteIdentifier(string(column.name)),
                        *column.type != '\0' ? " " : "", column.type, isKey(column) ? alone : "",
                        declared(*this, i).isNotNull ? " NOT NULL" : "",
                        isUnique ? " UNIQUE" : ""});
        if (column.defaultValue != nullptr)
            list += joined({" DEFAULT ", column.defaultValue});
        if (column.check != nullptr)
            list += joined({" CHECK (", column.check, ")"});
        if (column.references != nullptr)
            list += joined({" REFERENCES ", column.references});
    }
    if (_keyCount > 1)
        list += joined({", PRIMARY KEY (", keyNames, ")"});
    return joined({"create table if not exists ", quoteIdentifier(_name), " (", list, ")",
                   _mapping.hasRowid ? "" : " WITHOUT ROWID"});
}

bool MappedTable::create()
{
    forget();
    Whole whole(*_database);
    if (!whole.isOpen()) {
        _error = whole.error();
        return false;
    }
    std::vector<string> texts = indexDefinitions(_mapping);
    texts.insert(texts.begin(), definition());
    for (const string& text : texts) {
        Statement statement("create", *_database, text);
        if (!statement.isPrepared() || !statement.runAs("create", nullptr, 0))
            return keep(statement, false);
    }
    if (whole.commit())
        return true;
    _error = whole.error();
    return false;
}

FieldSet MappedTable::fields() const
{
    std::vector<Field> fields;
    bool isNumbered = false;
    for (int i = 0; i < _columnCount; ++i) {
        const MappedColumn& column = _mapping.columns[i];
        const std::string_view declaredType = column.type;
        field_type type = type_undefined;
        if (column.kind == MappedColumn::Kind::truth)
            type = type_bool;
        else if (column.kind == MappedColumn::Kind::time
                 || column.kind == MappedColumn::Kind::in_seconds)
            type = type_time;
        else if (declaredType == "INTEGER")
            type = type_int;
        else if (declaredType == "REAL")
            type = type_float;
        else if (declaredType == "TEXT")
            type = type_text;
        isNumbered = isNumbered || (isKey(column) && (type == type_int || type == type_text));
        fields.emplace_back(string(column.name), type, column.flags);
    }
    if (!isNumbered)
        return FieldSet(fields);
    fields.emplace_back();
    return FieldSet(fields.data());
}

// --- Single objects -------------------------------------------------------------------------------

MappedTable::MappedTable(Database& database, const MappingView& mapping)
    : TableStatements(database, mapping.columnCount, declared), _mapping(mapping)
{
    _name = string(mapping.name);
    for (int i = 0; i < _columnCount; ++i) {
        if (isKey(mapping.columns[i]))
            ++_keyCount;
        if (mapping.columns[i].isChosen)
            _chosenKey = i;
    }
    _mostKeys = _keyCount;
}

MappedTable::~MappedTable() = default;

bool MappedTable::addObject(const void* object, void* keyed)
{
    return store("add", insert_one, object, keyed);
}

bool MappedTable::updateObject(const void* object)
{
    return store("update", update, object, nullptr);
}

bool MappedTable::addOrUpdateObject(const void* object, void* keyed)
{
    return store("addOrUpdate", upsert, object, keyed);
}

bool MappedTable::store(const char* operation, Work work, const void* object, void* keyed)
{
    Statement* const statement = prepared(operation, work);
    if (statement == nullptr)
        return false;
    if (!_texts.empty())
        _texts.clear();
    const int unfit = take(object, _cells.data(), _texts);
    if (unfit >= 0)
        return keep(*statement, failToTake(operation, *statement, unfit,
                                           MemberAccess::whyUnfit(_cells[unfit])));
    if (work == update) {
        if (!hasWholeKey(operation, *statement))
            return keep(*statement, false);
    } else {
        chooseKey(_cells.data());
    }
    const bool isChosen = _chosenKey >= 0 && MemberAccess::isNull(_cells[_chosenKey]);
    if (!keep(*statement, statement->runAs(operation, _cells.data(), _columnCount)))
        return false;
    if (keyed == nullptr || !isChosen || !lastKey())
        return true;
    const char* const why = MemberAccess::setKey(_mapping.columns[_chosenKey], *lastKey(), keyed);
    return why == nullptr || keep(*statement, failToTake(operation, *statement, _chosenKey, why));
}

// Of a key of 0, which SQLite chooses anew.
void MappedTable::chooseKey(Argument* cells) const
{
    if (_chosenKey >= 0 && MemberAccess::isZero(cells[_chosenKey]))
        cells[_chosenKey] = nullptr;
}

// Returns the index of a column whose member cannot be bound, or -1.
int MappedTable::take(const void* object, Argument* cells, std::forward_list<string>& texts) const
{
    for (int i = 0; i < _columnCount; ++i) {
        cells[i] = MemberAccess::take(_mapping.columns[i], object, texts);
        if (MemberAccess::whyUnfit(cells[i]) != nullptr)
            return i;
    }
    return -1;
}

bool MappedTable::failToTake(const char* operation, Statement& statement, int index,
                             const char* why)
{
    return statement.fail(operation, Statement::State::failed, SQLITE_MISMATCH,
                          joined({"column ", _mapping.columns[index].name, " ", why}));
}

bool MappedTable::failToFind(const char* operation, Statement& statement, const char* why)
{
    return statement.fail(operation, Statement::State::failed, SQLITE_MISMATCH,
                          joined({"the key ", why}));
}

bool MappedTable::hasWholeKey(const char* operation, Statement& statement)
{
    for (int i = 0; i < _columnCount; ++i) {
        if (isKey(_mapping.columns[i]) && MemberAccess::isNull(_cells[i]))
            return failToFind(operation, statement, is_null);
    }
    return true;
}

// --- Keys -----------------------------------------------------------------------------------------

bool MappedTable::takeKeys(const char* operation, Statement& statement, const KeyValue* keys)
{
    if (!_texts.empty())
        _texts.clear();
    Argument* cell = _cells.data();
    for (int i = 0; i < _columnCount; ++i) {
        const MappedColumn& column = _mapping.columns[i];
        if (!isKey(column))
            continue;
        *cell = keys->value != nullptr ? MemberAccess::takeValue(column, keys->value, _texts)
                                       : keys->argument;
        ++keys;
        const char* const why = MemberAccess::isNull(*cell) ? is_null
                                                            : MemberAccess::whyUnfit(*cell);
        if (why != nullptr)
            return failToFind(operation, statement, why);
        ++cell;
    }
    return true;
}

bool MappedTable::removeByKey(const KeyValue* keys)
{
    Statement* const statement = prepared("remove", remove);
    if (statement == nullptr)
        return false;
    return keep(*statement, takeKeys("remove", *statement, keys)
                                && statement->runAs("remove", _cells.data(), _keyCount));
}

Presence MappedTable::hasKey(const KeyValue* keys)
{
    return lookUp("has", exists, keys, nullptr, 0);
}

Presence MappedTable::findByKey(const KeyValue* keys, void* object)
{
    RowPlace place{_mapping.columns, _columnCount, nullptr, object, nullptr, nullptr};
    const Statement::Variable whole{nullptr, &place};
    return lookUp("find", read, keys, &whole, Statement::whole_object);
}

Presence MappedTable::lookUp(const char* operation, Work work, const KeyValue* keys,
                             const Statement::Variable* variables, int count)
{
    Statement* const statement = prepared(operation, work);
    if (statement == nullptr)
        return Presence::unknown;
    const Presence found = takeKeys(operation, *statement, keys) ? statement->readFirst(
                               operation, _cells.data(), _keyCount, variables, count)
                                                                 : Presence::unknown;
    keep(*statement, found != Presence::unknown);
    return found;
}

// --- Conditions -----------------------------------------------------------------------------------

namespace {

string withCondition(string text, std::string_view condition)
{
    if (!condition.empty())
        text.append(1, ' ').append(condition);
    return text;
}

} // namespace

const string& MappedTable::selection()
{
    if (_selection.empty())
        _selection = selectionFrom(_name);
    return _selection;
}

Result<integer> MappedTable::countRows(std::string_view condition, const Argument* values,
                                       int count)
{
    integer rows = 0;
    const Statement::Variable variable = Statement::variableOf(rows);
    const string text = withCondition("select count(*) from " + quoteIdentifier(_name), condition);
    const Presence found = firstBy("count", text, values, count, &variable, 1);
    return found == Presence::unknown ? Result<integer>(_error) : rows;
}

Presence MappedTable::firstRow(std::string_view condition, const Argument* values, int count,
                               void* object)
{
    RowPlace place{_mapping.columns, _columnCount, nullptr, object, nullptr, nullptr};
    const Statement::Variable whole{nullptr, &place};
    return firstBy("first", withCondition(selection(), condition), values, count, &whole,
                   Statement::whole_object);
}

Presence MappedTable::firstBy(const char* operation, const string& text, const Argument* values,
                              int count, const Statement::Variable* variables, int variableCount)
{
    Statement statement = taken(operation, text);
    Presence found = Presence::unknown;
    if (count == 0 && statement._parameterCount > 0)
        statement.failToCount(operation, count);
    else
        found = statement.readFirst(operation, values, count, variables, variableCount);
    keep(statement, found != Presence::unknown);
    giveBack(statement, _releases);
    return found;
}

bool MappedTable::loadRows(std::string_view condition, const Argument* values, int count,
                           void* (*make)(void* list), void* list)
{
    RowPlace place{_mapping.columns, _columnCount, nullptr, nullptr, make, list};
    const Statement::Variable whole{nullptr, &place};
    return readAll("load", withCondition(selection(), condition), values, count, whole,
                   Statement::whole_object);
}

bool MappedTable::loadColumn(std::string_view name, std::string_view condition,
                             const Argument* values, int count, Reader reader,
                             Reader readerOfMilliseconds, void* list)
{
    const int index = firstOf(name);
    const bool inMilliseconds = index < _columnCount && _mapping.columns[index].isInMilliseconds;
    const string text = withCondition(
        joined({"select ", quoteIdentifier(string(name)), " from ", quoteIdentifier(_name)}),
        condition);
    return readAll("values", text, values, count,
                   {inMilliseconds ? readerOfMilliseconds : reader, list}, 1);
}

bool MappedTable::readAll(const char* operation, const string& text, const Argument* values,
                          int count, const Statement::Variable& variable, int variableCount)
{
    Statement statement = taken(operation, text);
    if (statement.bindCopies(operation, values, count)) {
        while (statement.readNext(operation, &variable, variableCount)) {
        }
    }
    const bool isDone = keep(statement, statement.finished());
    giveBack(statement, _releases);
    return isDone;
}

MappedCursor MappedTable::selectRows(std::string_view condition, const Argument* values, int count)
{
    Statement statement = taken("select", withCondition(selection(), condition));
    if (!statement.bindCopies("select", values, count))
        _error = statement._error;
    return MappedCursor(*this, std::move(statement), _mapping);
}

// --- Many objects ---------------------------------------------------------------------------------

MappedTable::ObjectBulk::ObjectBulk(MappedTable& table, integer count)
    : Bulk("add", table, count), _table(table)
{
}

MappedTable::ObjectBulk::~ObjectBulk() = default;

bool MappedTable::ObjectBulk::add(const void* object)
{
    Argument* const cells = nextCells();
    const int unfit = _table.take(object, cells, _texts);
    if (unfit >= 0)
        return failToTake(unfit, MemberAccess::whyUnfit(cells[unfit]));
    _table.chooseKey(cells);
    return addNext();
}

// Those before it may fail first.
bool MappedTable::ObjectBulk::failToTake(int index, const char* why)
{
    Statement* const statement = failing();
    return statement != nullptr
           && _table.keep(*statement, _table.failToTake("add", *statement, index, why));
}

// --- Cursors --------------------------------------------------------------------------------------

MappedCursor::MappedCursor(TableStatements& table, Statement statement, const MappingView& mapping)
    : _statement(std::move(statement)), _table(&table), _releases(table._releases),
      _columns(mapping.columns), _columnCount(mapping.columnCount)
{
}

MappedCursor::MappedCursor(Database& database, const MappingView& mapping, const string& text,
                           const Argument* values, int count)
    : _statement("query", database, text), _table(nullptr), _columns(mapping.columns),
      _columnCount(mapping.columnCount), _order(mapping.columnCount, 0)
{
    if (_statement.isPrepared() && findColumns("query"))
        (void)_statement.bindCopies("query", values, count);
}

MappedCursor::MappedCursor(MappedCursor&& other) noexcept = default;

MappedCursor& MappedCursor::operator=(MappedCursor&& other) noexcept
{
    if (this != &other) {
        const MappedCursor former(std::move(*this));
        _statement = std::move(other._statement);
        _table = other._table;
        _releases = other._releases;
        _columns = other._columns;
        _columnCount = other._columnCount;
        _order = std::move(other._order);
        _compilations = other._compilations;
        _isAsked = other._isAsked;
    }
    return *this;
}

MappedCursor::~MappedCursor()
{
    SQL_ASSERT(_isAsked || !_statement.error(), "sql::MappedCursor::~MappedCursor()");
    if (_table != nullptr)
        _table->giveBack(_statement, _releases);
}

// What SQLite has compiled anew may have other columns.
bool MappedCursor::readNext(void* object)
{
    RowPlace place{_columns, _columnCount, nullptr, object, nullptr, nullptr};
    const Statement::Variable whole{nullptr, &place};
    if (_order.empty())
        return _statement.readNext("next", &whole, Statement::whole_object);
    if (!_statement.nextAs("next"))
        return false;
    if (_compilations != compilations() && !findColumns("next"))
        return false;
    place.order = _order.data();
    return _statement.readObject("next", whole);
}

int MappedCursor::compilations() const
{
    return sqlite3_stmt_status(_statement._handle.statement, SQLITE_STMTSTATUS_REPREPARE, 0);
}

// Finds for each column of the query that of the mapping.
bool MappedCursor::findColumns(const char* operation)
{
    string why;
    const auto remark = [&](std::string_view name, const char* what) {
        why += joined({why.empty() ? "column " : ", column ", name, " ", what});
    };
    std::vector<bool> isFound(_columnCount);
    for (int i = 0; i < _statement.columnCount(); ++i) {
        const string name = _statement.columnName(i);
        const int index = indexOf(name);
        if (index == _columnCount)
            remark(name, is_not_mapped);
        else if (isFound[index])
            remark(name, comes_twice);
        else
            _order[std::min(i, _columnCount - 1)] = index;
        if (index != _columnCount)
            isFound[index] = true;
    }
    for (int i = 0; i < _columnCount; ++i) {
        if (!isFound[i])
            remark(_columns[i].name, is_missing);
    }
    _compilations = compilations();
    return why.empty()
           || _statement.fail(operation, Statement::State::failed, SQLITE_MISMATCH, why);
}

int MappedCursor::indexOf(std::string_view name) const
{
    int index = 0;
    while (index < _columnCount && _columns[index].name != name)
        ++index;
    return index;
}

bool MappedCursor::finished() const
{
    _isAsked = static_cast<bool>(_statement._error);
    return _statement.finished();
}

const Error& MappedCursor::error() const
{
    _isAsked = static_cast<bool>(_statement._error);
    return _statement.error();
}

} // namespace sql
