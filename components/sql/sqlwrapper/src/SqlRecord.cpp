#include "SqlRecord.h"

#include "SqlText.h"
#include "SqlTrace.h"

#include <bitset>
#include <cstddef>
#include <cstdint>

namespace sql {

namespace {

// Knows of nearly every column whether it is the first of its name, without a walk through those
// before it: statements of wide tables would cost the square of their width. Of a name that falls
// on the place of another it cannot tell.
class NamesSeen {
public:
    bool isFirst(const string& name)
    {
        const std::size_t place = hash(name) % places;
        const bool isFirst = !_taken[place];
        _taken[place] = true;
        return isFirst;
    }

private:
    static constexpr std::size_t places = 2048;

    // FNV-1a
    static std::uint32_t hash(const string& name)
    {
        std::uint32_t hash = 2166136261;
        for (const char byte : name)
            hash = (hash ^ static_cast<unsigned char>(byte)) * 16777619;
        return hash;
    }

    std::bitset<places> _taken;
};

} // namespace

Record::Record(const FieldSet& fields) : _fields(&fields)
{
    _values.reserve(fields.count());
    for (int i = 0; i < fields.count(); ++i)
        _values.emplace_back(fields.getByIndex(i)->getType());
}

Record::Record(const FieldSet& fields, int columnCount, const char* const* texts) : _fields(&fields)
{
    _values.reserve(fields._fields.size());
    int i = 0;
    for (const Field& field : fields._fields) {
        _values.emplace_back(i < columnCount ? texts[i] : nullptr, field._type);
        ++i;
    }
}

Record::Record(const Record* other) : Record(*other)
{
}

const FieldSet* Record::fields() const
{
    return _fields;
}

int Record::columnCount() const
{
    return static_cast<int>(_values.size());
}

bool Record::initColumnValue(int index, const char* text, field_type type)
{
    if (index < 0 || index >= columnCount()) {
        TRACE_ERROR("Column index (%d) is out of range [0, %d[", index, columnCount());
        SQL_ASSERT(false, "bool sql::Record::initColumnValue(int, const char*, sql::field_type)");
        return false;
    }
    _values[index].setValue(text, type);
    return true;
}

Value* Record::getValue(int index)
{
    if (index >= 0 && index < columnCount())
        return &_values[index];
    TRACE_ERROR("No value for column with index %d", index);
    SQL_ASSERT(false, "sql::Value* sql::Record::getValue(int)");
    return nullptr;
}

const Value* Record::getValue(int index) const
{
    if (index >= 0 && index < columnCount())
        return &_values[index];
    TRACE_ERROR("No value for column with index %d", index);
    SQL_ASSERT(false, "const sql::Value* sql::Record::getValue(int) const");
    return nullptr;
}

Value* Record::getValue(const string& name)
{
    if (const Field* const field = _fields->getByName(name))
        return getValue(field->getIndex());
    TRACE_ERROR("No value for column with name '%s'", name.c_str());
    SQL_ASSERT(false, "sql::Value* sql::Record::getValue(const string&)");
    return nullptr;
}

const Value* Record::getValue(const string& name) const
{
    if (const Field* const field = _fields->getByName(name))
        return getValue(field->getIndex());
    TRACE_ERROR("No value for column with name '%s'", name.c_str());
    SQL_ASSERT(false, "const sql::Value* sql::Record::getValue(const string&) const");
    return nullptr;
}

const Value* Record::getKeyIdValue() const
{
    for (int i = 0; i < _fields->count(); ++i) {
        const Field* const field = _fields->getByIndex(i);
        if (field != nullptr && field->isPrimaryKey())
            return getValue(field->getIndex());
    }
    TRACE_ERROR("No PRIMARY KEY column found");
    SQL_ASSERT(false, "const sql::Value* sql::Record::getKeyIdValue() const");
    return nullptr;
}

const Field* Record::fieldByName(const string& name) const
{
    const Field* const field = _fields->getByName(name);
    if (field == nullptr) {
        TRACE_ERROR("Field/column '%s' not found", name.c_str());
        SQL_ASSERT(false, "const sql::Field* sql::Record::fieldByName(const string&) const");
    }
    return field;
}

void Record::setNull(int index)
{
    if (Value* const value = getValue(index))
        value->setNull();
}

void Record::setNull(const string& name)
{
    if (const Field* const field = fieldByName(name))
        setNull(field->getIndex());
}

void Record::setString(int index, const string& s)
{
    if (Value* const value = getValue(index))
        value->setString(s);
}

void Record::setString(const string& name, const string& s)
{
    if (const Field* const field = fieldByName(name))
        setString(field->getIndex(), s);
}

void Record::setInteger(int index, integer n)
{
    if (Value* const value = getValue(index))
        value->setInteger(n);
}

void Record::setInteger(const string& name, integer n)
{
    if (const Field* const field = fieldByName(name))
        setInteger(field->getIndex(), n);
}

void Record::setDouble(int index, double d)
{
    if (Value* const value = getValue(index))
        value->setDouble(d);
}

void Record::setDouble(const string& name, double d)
{
    if (const Field* const field = fieldByName(name))
        setDouble(field->getIndex(), d);
}

void Record::setBool(int index, bool b)
{
    if (Value* const value = getValue(index))
        value->setBool(b);
}

void Record::setBool(const string& name, bool b)
{
    if (const Field* const field = fieldByName(name))
        setBool(field->getIndex(), b);
}

void Record::setTime(int index, Time t)
{
    if (Value* const value = getValue(index))
        value->setTime(t);
}

void Record::setTime(const string& name, Time t)
{
    if (const Field* const field = fieldByName(name))
        setTime(field->getIndex(), t);
}

bool Record::equalsColumnValue(const Record* other, const string& name) const
{
    if (other == nullptr)
        return false;
    const Value* const value = getValue(name);
    if (value == nullptr)
        return false;
    const Value* const otherValue = other->getValue(name);
    return otherValue != nullptr && value->equals(*otherValue);
}

bool Record::equalsValues(const Record* other) const
{
    if (other == nullptr)
        return false;
    for (int i = 0; i < _fields->count(); ++i) {
        const Field* const field = _fields->getByIndex(i);
        if (field == nullptr || field->isPrimaryKey())
            continue;
        const Value* const value = getValue(field->getName());
        if (value == nullptr)
            continue;
        const Value* const otherValue = other->getValue(field->getName());
        if (otherValue != nullptr && !value->equals(*otherValue))
            return false;
    }
    return true;
}

string Record::toString() const
{
    string text;
    for (int i = 0; i < columnCount(); ++i) {
        const Value* const value = getValue(i);
        if (value == nullptr)
            continue;
        text += value->toString();
        if (i < columnCount() - 1)
            text += "|";
    }
    return text;
}

string Record::dump(bool withTypes) const
{
    string text;
    for (int i = 0; i < columnCount(); ++i) {
        if (const Field* const field = _fields->getByIndex(i))
            text += field->getName() + " = ";
        const Value* const value = getValue(i);
        if (value == nullptr)
            continue;
        text += value->dump(withTypes);
        if (i < columnCount() - 1)
            text += "|";
    }
    return text;
}

string::size_type Record::statementSize() const
{
    string::size_type size = 0;
    for (const Field& field : _fields->_fields)
        size += field._name.size() + sizeof ", ";
    for (const Value& value : _values)
        size += value._value.size() + sizeof ", null";
    return size;
}

string Record::toSql() const
{
    string literals;
    return toSql(literals) ? literals : string();
}

bool Record::toSql(string& statement) const
{
    NamesSeen names;
    const int count = _fields->count();
    for (int i = 0; i < count; ++i) {
        const Field* const field = _fields->getByIndex(i);
        if (field == nullptr) {
            TRACE_ERROR("field with index %d does not exist", i);
            SQL_ASSERT(false, "sql::string sql::Record::toSql() const");
            return false;
        }
        const Value* const value = names.isFirst(field->_name) ? getValue(field->_index)
                                                               : getValue(field->_name);
        if (value == nullptr) {
            TRACE_ERROR("field with index %d does not have value", i);
            SQL_ASSERT(false, "sql::string sql::Record::toSql() const");
            return false;
        }
        value->appendSql(statement, field->_type);
        if (i < count - 1)
            appendComma(statement);
    }
    return true;
}

string Record::toSqlInsert(const string& tableName) const
{
    if (tableName.empty()) {
        TRACE_ERROR("No table name given");
        SQL_ASSERT(false, "sql::string sql::Record::toSqlInsert(const string&) const");
        return string();
    }
    string statement = joined({"insert into ", tableName, " ("},
                              statementSize() + sizeof ") values ()");
    const string::size_type start = statement.size();
    _fields->toSql(statement);
    if (statement.size() == start) {
        TRACE_ERROR("No fields to insert in table '%s'", tableName.c_str());
        SQL_ASSERT(false, "sql::string sql::Record::toSqlInsert(const string&) const");
        return string();
    }
    statement += ") values (";
    const string::size_type literals = statement.size();
    if (!toSql(statement) || statement.size() == literals) {
        TRACE_ERROR("No values to insert in table '%s'", tableName.c_str());
        SQL_ASSERT(false, "sql::string sql::Record::toSqlInsert(const string&) const");
        return string();
    }
    return statement += ')';
}

const Field* Record::appendAssignments(string& statement, int& position) const
{
    NamesSeen names;
    const int count = _fields->count();
    for (position = 0; position < count; ++position) {
        const Field* const field = _fields->getByIndex(position);
        if (field == nullptr)
            continue;
        const bool isFirst = names.isFirst(field->_name);
        if (field->isPrimaryKey())
            continue;
        const Value* const value = isFirst ? getValue(field->_index) : getValue(field->_name);
        if (value == nullptr)
            return field;
        (statement += field->_name) += '=';
        value->appendSql(statement, field->_type);
        // By position alone: callers know the comma that a key in the last column leaves behind.
        if (position < count - 1)
            appendComma(statement);
    }
    return nullptr;
}

string Record::toSqlUpdate(const string& tableName) const
{
    if (tableName.empty()) {
        TRACE_ERROR("No table name given");
        SQL_ASSERT(false, "sql::string sql::Record::toSqlUpdate(const string&) const");
        return string();
    }

    string statement = joined({"update ", tableName, " set "}, statementSize() + sizeof " where ");
    int position = 0;
    if (const Field* const missing = appendAssignments(statement, position)) {
        TRACE_ERROR("No value for column with index=%d (and name=%s) of table %s", position,
                    missing->getName().c_str(), tableName.c_str());
        SQL_ASSERT(false, "sql::string sql::Record::toSqlUpdate(const string&) const");
        return string();
    }
    const string keyName = _fields->getKeyIdName();
    if (keyName.empty()) {
        TRACE_ERROR("Failed to get name of PRIMARY KEY column for table %s", tableName.c_str());
        SQL_ASSERT(false, "sql::string sql::Record::toSqlUpdate(const string&) const");
        return string();
    }
    const Value* const value = getKeyIdValue();
    if (value == nullptr) {
        TRACE_ERROR("No PRIMARY KEY column found for table %s", tableName.c_str());
        SQL_ASSERT(false, "sql::string sql::Record::toSqlUpdate(const string&) const");
        return string();
    }
    // Only integer keys make a sound statement; a key of another type is reported, and written all
    // the same, without quotes.
    SQL_ASSERT(value->getType() == type_int,
               "sql::string sql::Record::toSqlUpdate(const string&) const");
    ((statement += " where ") += keyName) += " = ";
    value->appendSql(statement, type_int);
    return statement;
}

} // namespace sql
