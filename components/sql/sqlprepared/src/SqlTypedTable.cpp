#include "SqlTypedTable.h"

#include "SqlFailure.h"
#include "SqlLiteral.h"
#include "SqlNumber.h"
#include "SqlStatementRun.h"
#include "SqlStop.h"
#include "SqlTrace.h"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace sql {

// --- Members --------------------------------------------------------------------------------------

using Texts = std::forward_list<string>;

struct MemberAccess {
    using Kind = MappedColumn::Kind;

    SQLWRAPPER_LOCAL static Argument keptIn(Texts& texts, const Argument& argument);
    SQLWRAPPER_LOCAL static Argument keyArgument(const MappedColumn& column, const KeyValue& key,
                                                 Texts& texts);
    SQLWRAPPER_LOCAL static bool readPlain(const MappedColumn& column, sqlite3_value* cell,
                                           void* member);
    SQLWRAPPER_LOCAL static bool readText(sqlite3_value* cell, string& member);
    SQLWRAPPER_LOCAL static const char* read(const MappedColumn& column, Statement& statement,
                                             sqlite3_value* value, void* member);
    SQLWRAPPER_LOCAL static const char* readValue(const MappedColumn& column, const Column& cell,
                                                  void* value);
    SQLWRAPPER_LOCAL static const char* whyUnfit(const Argument& argument);
    SQLWRAPPER_LOCAL static bool isNull(const Argument& argument)
    {
        return argument._kind == Argument::Kind::null;
    }
    SQLWRAPPER_LOCAL static bool isNoKey(const MappedColumn& column, const void* value)
    {
        return value == nullptr || numberAt(column, value) == 0;
    }
    SQLWRAPPER_LOCAL static const char* setKey(const MappedColumn& column, integer key,
                                               void* object);

    SQLWRAPPER_LOCAL static Argument argumentFor(const MappedColumn& column, const void* value,
                                                 Texts& texts);
    SQLWRAPPER_LOCAL static integer numberAt(const MappedColumn& column, const void* value);
    SQLWRAPPER_LOCAL static const char* setNumber(const MappedColumn& column, integer number,
                                                  void* value);
};

static_assert(cellTypeOf(MappedColumn::Kind::whole, false) == SQLITE_INTEGER
              && cellTypeOf(MappedColumn::Kind::real, false) == SQLITE_FLOAT
              && cellTypeOf(MappedColumn::Kind::text, false) == SQLITE_TEXT);

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
    if (column.kind == MappedColumn::Kind::truth)
        return 1;
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
inline integer MemberAccess::numberAt(const MappedColumn& column, const void* value)
{
    unsigned long long number = 0;
    if (column.size == sizeof(number)) {
        std::memcpy(&number, value, sizeof(number));
        return static_cast<integer>(number);
    }
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
    default: {
        std::uint32_t word = 0;
        std::memcpy(&word, value, sizeof(word));
        number = word;
    }
    }
    const int unused = 64 - 8 * column.size;
    return column.isSigned ? static_cast<integer>(number << unused) >> unused
                           : static_cast<integer>(number);
}

const char* MemberAccess::setNumber(const MappedColumn& column, integer number, void* value)
{
    if (column.size == sizeof(number) && column.isSigned) {
        std::memcpy(value, &number, sizeof(number));
        return nullptr;
    }
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

// Of what is not bound straight, or could not be.
Argument MemberAccess::argumentFor(const MappedColumn& column, const void* value, Texts& texts)
{
    using TimePoint = std::chrono::system_clock::time_point;
    switch (column.kind) {
    case Kind::number: {
        const integer number = numberAt(column, value);
        return number < 0 && !column.isSigned ? Argument::unfit(is_above) : Argument(number);
    }
    case Kind::real:
        return at<double>(value);
    case Kind::small_real:
        return static_cast<double>(at<float>(value));
    case Kind::block:
        return Binder<std::vector<unsigned char>>::argument(at<std::vector<unsigned char>>(value));
    case Kind::time:
        return at<Time>(value).asInteger();
    case Kind::in_seconds:
        return Binder<TimePoint>::argument(at<TimePoint>(value));
    case Kind::in_milliseconds:
        return inMilliseconds(at<TimePoint>(value));
    default:
        return column.operations->argument(value, texts);
    }
}

// The value itself, also where its member is an accessor.
Argument MemberAccess::keyArgument(const MappedColumn& column, const KeyValue& key, Texts& texts)
{
    if (key.value == nullptr)
        return key.argument;
    if (column.kind == Kind::other && column.operations->ofValue != nullptr)
        return column.operations->ofValue->argument(key.value, texts);
    return argumentFor(column, key.value, texts);
}

// A cell of its member's own kind, which most are. Returns false for any other.
[[gnu::always_inline]] inline bool MemberAccess::readPlain(const MappedColumn& column,
                                                           sqlite3_value* cell, void* member)
{
    const int type = sqlite3_value_type(cell);
    if (type != column.cellType) {
        if (type != SQLITE_NULL || column.optional == nullptr)
            return false;
        column.optional->set(member, false);
        return true;
    }
    if (column.optional != nullptr)
        member = column.optional->set(member, true);
    switch (column.kind) {
    case Kind::whole:
        *static_cast<integer*>(member) = sqlite3_value_int64(cell);
        return true;
    case Kind::real:
        *static_cast<double*>(member) = sqlite3_value_double(cell);
        return true;
    case Kind::text:
        return readText(cell, *static_cast<string*>(member));
    case Kind::truth: {
        const integer number = sqlite3_value_int64(cell);
        if (number != 0 && number != 1)
            return false;
        *static_cast<bool*>(member) = number == 1;
        return true;
    }
    default:
        return setNumber(column, sqlite3_value_int64(cell), member) == nullptr;
    }
}

// Returns false without memory.
inline bool MemberAccess::readText(sqlite3_value* cell, string& member)
{
    const void* const text = sqlite3_value_text(cell);
    if (text != nullptr)
        member.assign(static_cast<const char*>(text), sqlite3_value_bytes(cell));
    return text != nullptr;
}

const char* MemberAccess::read(const MappedColumn& column, Statement& statement,
                               sqlite3_value* value, void* member)
{
    const Column cell(statement, value);
    if (column.optional == nullptr)
        return readValue(column, cell, member);
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
    case Kind::whole:
        return readAs<integer>(cell, value);
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

// Of an argument that cannot be bound: NaN is the only one without a reason of its own.
const char* MemberAccess::whyUnfit(const Argument& argument)
{
    return argument._kind == Argument::Kind::unfit ? argument._why : is_not_a_number;
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
    const int count = place.count; // of the statement's columns, too: it was made for them
    void* const object = place.make != nullptr ? place.make(place.list) : place.object;
    const int* const order = place.order;
    const MappedColumn* column = place.columns;
    for (int i = 0; i < count; ++i, ++column) {
        if (order != nullptr)
            column = place.columns + order[i];
        sqlite3_value* const value = sqlite3_column_value(_handle.statement, i);
        void* const member = const_cast<void*>(column->place(object));
        if (MemberAccess::readPlain(*column, value, member))
            continue;
        if (const char* const why = MemberAccess::read(*column, *this, value, member))
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

constexpr std::string_view behind_missing = " is missing";

string missing(const char* what, std::string_view name)
{
    return joined({what, name, behind_missing});
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

string MappedTable::columnDefinition(int index) const
{
    const MappedColumn& column = _mapping.columns[index];
    const bool isUnique = (column.flags & flag_unique) != 0;
    string text = joined({quoteIdentifier(string(column.name)), *column.type != '\0' ? " " : "",
                          column.type, isKey(column) && _keyCount == 1 ? " PRIMARY KEY" : "",
                          declared(*this, index).isNotNull ? " NOT NULL" : "",
                          isUnique ? " UNIQUE" : ""});
    if (column.defaultValue != nullptr)
        text += joined({" DEFAULT ", column.defaultValue});
    if (column.check != nullptr)
        text += joined({" CHECK (", column.check, ")"});
    if (column.references != nullptr)
        text += joined({" REFERENCES ", column.references});
    return text;
}

string MappedTable::definition() const
{
    string list;
    for (int i = 0; i < _columnCount; ++i)
        list += joined({i > 0 ? ", " : "", columnDefinition(i)});
    if (_keyCount > 1) {
        const auto itsName = [](const string& name, int) {
            return name;
        };
        list += joined({", PRIMARY KEY (", listed(Listed::keys, itsName, ", "), ")"});
    }
    return joined({"create table if not exists ", quoteIdentifier(_name), " (", list, ")",
                   _mapping.hasRowid ? "" : " WITHOUT ROWID"});
}

std::vector<MappedTable::IndexText> MappedTable::indexes() const
{
    std::vector<IndexText> all;
    const auto append = [&](const std::string_view* columns, int count, bool isUnique) {
        IndexText index{_name, string(), isUnique};
        for (int i = 0; i < count; ++i) {
            index.name.append(1, '_').append(columns[i]);
            index.columns.append(i > 0 ? ", " : "").append(quoteIdentifier(string(columns[i])));
        }
        all.push_back(index);
    };
    for (int i = 0; i < _mapping.columnCount; ++i) {
        if (_mapping.columns[i].isIndexed)
            append(&_mapping.columns[i].name, 1, false);
    }
    for (int i = 0; i < _mapping.indexCount; ++i)
        append(_mapping.indexes[i].columns, _mapping.indexes[i].count,
               _mapping.indexes[i].isUnique);
    return all;
}

// Where there is none of its name.
string MappedTable::indexDefinition(const IndexText& index) const
{
    return joined({index.isUnique ? "create unique index" : "create index", " if not exists ",
                   quoteIdentifier(index.name), " on ", quoteIdentifier(_name), " (", index.columns,
                   ")"});
}

bool MappedTable::runAll(const char* operation)
{
    std::vector<string> texts{definition()};
    for (const IndexText& index : indexes())
        texts.push_back(indexDefinition(index));
    for (const string& text : texts) {
        Statement statement(operation, *_database, text);
        if (!statement.runAs(operation, nullptr, 0))
            return keep(statement, false);
    }
    return true;
}

bool MappedTable::create()
{
    forget();
    Whole whole(*_database);
    if (whole.isOpen() && !runAll("create"))
        return false;
    return endOf(whole);
}

// Commits; a transaction that has not begun fails, too.
bool MappedTable::endOf(TransactionScope& whole)
{
    if (whole.commit())
        return true;
    _error = whole.error();
    return false;
}

// --- The file -------------------------------------------------------------------------------------

Result<std::vector<string>> MappedTable::checkDeclaration()
{
    return check("checkDeclaration");
}

Result<std::vector<string>> MappedTable::check(const char* operation)
{
    Result<std::vector<string>> found = differences(operation);
    if (!found || isOfNoTable(*found))
        return found;
    for (const IndexText& index : indexes()) {
        if (!compareIndex(operation, index, *found))
            return _error;
    }
    return found;
}

bool MappedTable::isOfNoTable(const std::vector<string>& remarks) const
{
    return remarks.size() == 1 && remarks[0] == "there is no table " + _name;
}

bool MappedTable::compareIndex(const char* operation, const IndexText& index,
                               std::vector<string>& remarks)
{
    Statement list(operation, *_database,
                   joined({"pragma index_list(", quoteIdentifier(_name), ")"}));
    bool isThere = false;
    bool isUnique = false;
    while (list.nextAs(operation)) {
        if (sqlite3_stricmp(list.column(1).asString().c_str(), index.name.c_str()) == 0) {
            isThere = true;
            isUnique = list.column(2).asBool();
        }
    }
    Statement info(operation, *_database,
                   joined({"pragma index_info(", quoteIdentifier(index.name), ")"}));
    string columns;
    while (info.nextAs(operation))
        columns += joined(
            {columns.empty() ? "" : ", ", quoteIdentifier(info.column(2).asString())});
    if (!list.finished() || !info.finished())
        return keep(list.finished() ? info : list, false);
    if (!isThere)
        remarks.push_back(missing("index ", index.name));
    else if (sqlite3_stricmp(columns.c_str(), index.columns.c_str()) != 0)
        remarks.push_back(joined({"index ", index.name, " is over ", columns}));
    else if (isUnique != index.isUnique)
        remarks.push_back(
            joined({"index ", index.name, isUnique ? " is unique" : " is not unique"}));
    return true;
}

Result<std::vector<string>> MappedTable::sync()
{
    Result<std::vector<string>> found = check("sync");
    if (!found || !isIncomplete(*found))
        return found;
    std::vector<string> refusals;
    Whole whole(*_database);
    if (whole.isOpen()) {
        if (!addMissing(refusals))
            return _error;
        found = check("sync");
        if (!found)
            return found;
    }
    if (!endOf(whole))
        return _error;
    for (const string& refusal : refusals) {
        for (string& remark : *found) {
            if (refusal.compare(0, remark.size() + 1, remark + ":") == 0)
                remark = refusal;
        }
    }
    return found;
}

bool MappedTable::isIncomplete(const std::vector<string>& remarks) const
{
    const auto isMissing = [](const string& remark) {
        const std::size_t size = behind_missing.size();
        return remark.size() > size
               && remark.compare(remark.size() - size, size, behind_missing) == 0;
    };
    return isOfNoTable(remarks) || std::any_of(remarks.begin(), remarks.end(), isMissing);
}

// Looks again: another program may have done the same meanwhile.
bool MappedTable::addMissing(std::vector<string>& refusals)
{
    const Result<std::vector<string>> found = check("sync");
    if (!found)
        return false;
    if (isOfNoTable(*found))
        return runAll("sync");
    const auto add = [&](const string& remark, const string& text) {
        const bool isMissing = std::find(found->begin(), found->end(), remark) != found->end();
        return !isMissing || addOne(text, remark, refusals);
    };
    const string alter = joined({"alter table ", quoteIdentifier(_name), " add column "});
    for (int i = 0; i < _columnCount; ++i) {
        if (!add(missing("column ", _mapping.columns[i].name), alter + columnDefinition(i)))
            return false;
    }
    const std::vector<IndexText> all = indexes();
    return std::all_of(all.begin(), all.end(), [&](const IndexText& index) {
        return add(missing("index ", index.name), indexDefinition(index));
    });
}

// What SQLite does not allow is no failure.
bool MappedTable::addOne(const string& text, const string& remark, std::vector<string>& refusals)
{
    Statement statement("sync", *_database, text, -1);
    if (statement.runAs("sync", nullptr, 0))
        return true;
    const Error& reason = statement._error;
    sqlite3* const db = _database->getHandle();
    if (isStopRequested(db))
        return fail("sync", text, SQLITE_INTERRUPT, reasonOf(db, SQLITE_INTERRUPT));
    if (reason.code() != SQLITE_ERROR && !reason.isConstraint())
        return fail("sync", text, reason.extendedCode(), reason.text());
    refusals.push_back(joined({remark, ": ", reason.text()}));
    return true;
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

// --- Values of statements -------------------------------------------------------------------------

// What a statement of a table's is run with: the members of an object, or keys. Texts are not copied.
class MappedValues {
public:
    // For an update the object has to have its key; otherwise SQLite may choose it.
    MappedValues(const MappingView& mapping, Texts& texts, const void* const* objects, int count,
                 bool isUpdate)
        : _mapping(mapping), _texts(texts), _objects(objects), _count(count), _isUpdate(isUpdate)
    {
    }
    MappedValues(const MappingView& mapping, Texts& texts, const KeyValue* keys, int keyCount)
        : _mapping(mapping), _texts(texts), _keys(keys), _count(keyCount)
    {
    }

    SQLWRAPPER_LOCAL bool bind(const char* operation, Statement& statement);
    bool isKeyChosen() const
    {
        return _isKeyChosen;
    }

    SQLWRAPPER_LOCAL static bool failToTake(const char* operation, Statement& statement,
                                            const MappedColumn& column, const char* why);

private:
    using Kind = MappedColumn::Kind;

    SQLWRAPPER_LOCAL bool bindObject(const char* operation, Statement& statement, int index);
    SQLWRAPPER_LOCAL const void* valueOf(const MappedColumn& column, const void* member);
    SQLWRAPPER_LOCAL int bindNull(Statement& statement, int position,
                                  const MappedColumn& column) const;
    SQLWRAPPER_LOCAL int bindValue(Statement& statement, int position, const MappedColumn& column,
                                   const void* value);
    SQLWRAPPER_LOCAL bool failToBind(const char* operation, Statement& statement, int position,
                                     const MappedColumn& column, const void* value, int rc);
    SQLWRAPPER_LOCAL bool bindKeys(const char* operation, Statement& statement);
    SQLWRAPPER_LOCAL int bindKey(Statement& statement, int position, const MappedColumn& column,
                                 const KeyValue& key);
    SQLWRAPPER_LOCAL bool failToBindKey(const char* operation, Statement& statement, int position,
                                        const MappedColumn& column, const KeyValue& key, int rc);
    SQLWRAPPER_LOCAL static bool failToFind(const char* operation, Statement& statement,
                                            const char* why);

    const MappingView& _mapping;
    Texts& _texts;
    const void* const* _objects = nullptr;
    const KeyValue* _keys = nullptr; // where there are no objects
    int _count;
    bool _isUpdate = false;
    bool _isKeyChosen = false;
};

inline bool MappedValues::bind(const char* operation, Statement& statement)
{
    if (!_texts.empty())
        _texts.clear();
    statement._stale = true;
    if (_keys != nullptr)
        return bindKeys(operation, statement);
    for (int i = 0; i < _count; ++i) {
        if (!bindObject(operation, statement, i))
            return false;
    }
    return true;
}

bool MappedValues::bindObject(const char* operation, Statement& statement, int index)
{
    const void* const object = _objects[index];
    int position = index * _mapping.columnCount + 1;
    const MappedColumn* const end = _mapping.columns + _mapping.columnCount;
    for (const MappedColumn* column = _mapping.columns; column != end; ++column, ++position) {
        const void* value = column->place(object);
        if (!column->isPlain)
            value = valueOf(*column, value);
        const int rc = value != nullptr ? bindValue(statement, position, *column, value)
                                        : bindNull(statement, position, *column);
        if (rc != SQLITE_OK)
            return failToBind(operation, statement, position, *column, value, rc);
    }
    return true;
}

// Null for none.
inline const void* MappedValues::valueOf(const MappedColumn& column, const void* member)
{
    const void* const value = column.optional != nullptr ? column.optional->get(member) : member;
    if (_isUpdate || !column.isChosen || !MemberAccess::isNoKey(column, value))
        return value;
    _isKeyChosen = true;
    return nullptr;
}

int MappedValues::bindNull(Statement& statement, int position, const MappedColumn& column) const
{
    return _isUpdate && isKey(column) ? SQLITE_MISMATCH
                                      : sqlite3_bind_null(statement._handle.statement, position);
}

inline int MappedValues::bindValue(Statement& statement, int position, const MappedColumn& column,
                                   const void* value)
{
    sqlite3_stmt* const handle = statement._handle.statement;
    switch (column.kind) {
    case Kind::truth:
        return sqlite3_bind_int64(handle, position, at<bool>(value));
    case Kind::whole:
        return sqlite3_bind_int64(handle, position, at<integer>(value));
    case Kind::real:
        return std::isnan(at<double>(value))
                   ? SQLITE_MISMATCH
                   : sqlite3_bind_double(handle, position, at<double>(value));
    case Kind::text:
        return sqlite3_bind_text64(handle, position, at<string>(value).data(),
                                   at<string>(value).size(), SQLITE_STATIC, SQLITE_UTF8);
    default:
        return statement.bindBorrowed(position, MemberAccess::argumentFor(column, value, _texts));
    }
}

bool MappedValues::failToBind(const char* operation, Statement& statement, int position,
                              const MappedColumn& column, const void* value, int rc)
{
    if (rc != SQLITE_MISMATCH)
        return statement.failToBind(operation, position, nullptr, rc);
    if (value == nullptr)
        return failToFind(operation, statement, is_null);
    const Argument argument = MemberAccess::argumentFor(column, value, _texts);
    return failToTake(operation, statement, column, MemberAccess::whyUnfit(argument));
}

bool MappedValues::bindKeys(const char* operation, Statement& statement)
{
    const KeyValue* key = _keys;
    int position = 1;
    for (const MappedColumn* column = _mapping.columns; position <= _count; ++column) {
        if (!isKey(*column))
            continue;
        const int rc = bindKey(statement, position, *column, *key);
        if (rc != SQLITE_OK)
            return failToBindKey(operation, statement, position, *column, *key, rc);
        ++key;
        ++position;
    }
    return true;
}

// The value itself, also where its member is an accessor.
inline int MappedValues::bindKey(Statement& statement, int position, const MappedColumn& column,
                                 const KeyValue& key)
{
    if (key.value != nullptr && column.kind != Kind::other)
        return bindValue(statement, position, column, key.value);
    const Argument argument = MemberAccess::keyArgument(column, key, _texts);
    return MemberAccess::isNull(argument) ? SQLITE_MISMATCH
                                          : statement.bindBorrowed(position, argument);
}

bool MappedValues::failToBindKey(const char* operation, Statement& statement, int position,
                                 const MappedColumn& column, const KeyValue& key, int rc)
{
    if (rc != SQLITE_MISMATCH)
        return statement.failToBind(operation, position, nullptr, rc);
    const Argument argument = MemberAccess::keyArgument(column, key, _texts);
    return failToFind(operation, statement,
                      MemberAccess::isNull(argument) ? is_null : MemberAccess::whyUnfit(argument));
}

bool MappedValues::failToTake(const char* operation, Statement& statement,
                              const MappedColumn& column, const char* why)
{
    return statement.fail(operation, Statement::State::failed, SQLITE_MISMATCH,
                          joined({"column ", column.name, " ", why}));
}

bool MappedValues::failToFind(const char* operation, Statement& statement, const char* why)
{
    return statement.fail(operation, Statement::State::failed, SQLITE_MISMATCH,
                          joined({"the key ", why}));
}

inline bool Statement::runMapped(const char* operation, MappedValues& values)
{
    if (!restart(operation))
        return false;
    const Lock lock(_connection, _parameterCount + 3);
    if (values.bind(operation, *this))
        return runToEnd(operation);
    forgetRun();
    return false;
}

inline Presence Statement::readMapped(const char* operation, MappedValues& values,
                                      const Variable* variables, int variableCount)
{
    if (!restart(operation))
        return Presence::unknown;
    const Lock lock(_connection, _parameterCount + variableCount + 2);
    return values.bind(operation, *this) ? readStep(operation, variables, variableCount)
                                         : Presence::unknown;
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
    MappedValues values(_mapping, _texts, &object, 1, work == update);
    if (!keep(*statement, statement->runMapped(operation, values)))
        return false;
    if (values.isKeyChosen() && changes() > 0) // always known, unlike that of other upserts
        _key = sqlite3_last_insert_rowid(_database->getHandle());
    if (keyed == nullptr || !values.isKeyChosen() || !lastKey())
        return true;
    const char* const why = MemberAccess::setKey(_mapping.columns[_chosenKey], *lastKey(), keyed);
    return why == nullptr
           || keep(*statement, MappedValues::failToTake(operation, *statement,
                                                        _mapping.columns[_chosenKey], why));
}

// --- Keys -----------------------------------------------------------------------------------------

bool MappedTable::removeByKey(const KeyValue* keys)
{
    Statement* const statement = prepared("remove", remove);
    if (statement == nullptr)
        return false;
    MappedValues values(_mapping, _texts, keys, _keyCount);
    return keep(*statement, statement->runMapped("remove", values));
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
    MappedValues values(_mapping, _texts, keys, keys != nullptr ? _keyCount : 0);
    const Presence found = statement->readMapped(operation, values, variables, count);
    keep(*statement, found != Presence::unknown);
    return found;
}

// --- Conditions -----------------------------------------------------------------------------------

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
    Presence found = Presence::unknown;
    if (!condition.empty() || count > 0) {
        if (_counting.empty())
            _counting = textOf(count_all);
        found = firstBy("count", _counting, condition, values, count, &variable, 1);
    } else {
        found = lookUp("count", count_all, nullptr, &variable, 1);
    }
    return found == Presence::unknown ? Result<integer>(_error) : rows;
}

Presence MappedTable::firstRow(std::string_view condition, const Argument* values, int count,
                               void* object)
{
    RowPlace place{_mapping.columns, _columnCount, nullptr, object, nullptr, nullptr};
    const Statement::Variable whole{nullptr, &place};
    return firstBy("first", selection(), condition, values, count, &whole, Statement::whole_object);
}

Presence MappedTable::firstBy(const char* operation, const string& start,
                              std::string_view condition, const Argument* values, int count,
                              const Statement::Variable* variables, int variableCount)
{
    Held held = taken(operation, start, condition);
    Statement& statement = held.front();
    Presence found = Presence::unknown;
    if (count == 0 && statement._parameterCount > 0)
        statement.failToCount(operation, count);
    else
        found = statement.readFirst(operation, values, count, variables, variableCount);
    keep(statement, found != Presence::unknown);
    giveBack(held, _releases);
    return found;
}

bool MappedTable::loadRows(std::string_view condition, const Argument* values, int count,
                           void* (*make)(void* list), void* list)
{
    RowPlace place{_mapping.columns, _columnCount, nullptr, nullptr, make, list};
    const Statement::Variable whole{nullptr, &place};
    return readAll("load", selection(), condition, values, count, whole, Statement::whole_object);
}

bool MappedTable::loadColumn(std::string_view name, std::string_view condition,
                             const Argument* values, int count, Reader reader,
                             Reader readerOfMilliseconds, void* list)
{
    const int index = firstOf(name);
    const bool inMilliseconds = index < _columnCount && _mapping.columns[index].isInMilliseconds;
    const string start = joined(
        {"select ", quoteIdentifier(string(name)), " from ", quoteIdentifier(_name)});
    return readAll("values", start, condition, values, count,
                   {inMilliseconds ? readerOfMilliseconds : reader, list}, 1);
}

bool MappedTable::readAll(const char* operation, const string& start, std::string_view condition,
                          const Argument* values, int count, const Statement::Variable& variable,
                          int variableCount)
{
    Held held = taken(operation, start, condition);
    Statement& statement = held.front();
    if (statement.bindCopies(operation, values, count)) {
        while (statement.readNext(operation, &variable, variableCount)) {
        }
    }
    const bool isDone = keep(statement, statement.finished());
    giveBack(held, _releases);
    return isDone;
}

MappedCursor MappedTable::selectRows(std::string_view condition, const Argument* values, int count)
{
    Held held = taken("select", selection(), condition);
    if (!held.front().bindCopies("select", values, count))
        _error = held.front()._error;
    return MappedCursor(*this, std::move(held), _mapping);
}

// --- Many objects ---------------------------------------------------------------------------------

MappedTable::ObjectBulk::ObjectBulk(MappedTable& table, integer count)
    : Bulk("add", table, count, runRows), _table(table), _objects(_rows, nullptr)
{
}

MappedTable::ObjectBulk::~ObjectBulk() = default;

bool MappedTable::ObjectBulk::add(const void* object)
{
    _objects[_pending] = object;
    return addNext();
}

bool MappedTable::ObjectBulk::runRows(Bulk& bulk, Statement& statement, int row, int count)
{
    const ObjectBulk& objects = static_cast<ObjectBulk&>(bulk);
    MappedValues values(objects._table._mapping, objects._table._texts, &objects._objects[row],
                        count, false);
    return statement.runMapped("add", values);
}

// --- Cursors --------------------------------------------------------------------------------------

MappedCursor::MappedCursor(TableStatements& table, std::list<Statement> held,
                           const MappingView& mapping)
    : _statement(std::move(held.front())), _held(std::move(held)), _table(&table),
      _releases(table._releases), _columns(mapping.columns), _columnCount(mapping.columnCount)
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
        _held = std::move(other._held);
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
    if (_held.empty())
        return;
    _held.front() = std::move(_statement);
    _table->giveBack(_held, _releases);
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
