#include "SqlRecord.h"

#include "SqlTrace.h"

#include <optional>
#include <utility>

namespace sql {

namespace {

// Most literals need no more, with what stands between two: no copies while the list grows.
constexpr string::size_type usual_literal_size = 16;

// Whether there is such a cell; reported as getValue() does otherwise.
bool hasCell(int index, int count, const char* signature)
{
    if (index >= 0 && index < count)
        return true;
    TRACE_ERROR_AS("getValue", "No value for column with index %d", index);
    SQL_ASSERT(false, signature);
    return false;
}

// The column of this name; its lack is reported as getValue() does.
const Field* namedColumn(const FieldSet& fields, const string& name, const char* signature)
{
    const Field* const field = fields.getByName(name);
    if (field == nullptr) {
        TRACE_ERROR_AS("getValue", "No value for column with name '%s'", name.c_str());
        SQL_ASSERT(false, signature);
    }
    return field;
}

// What an UPDATE sets: all columns but the key. Nothing where a column has no cell, which is
// reported as toSqlUpdate() does.
std::optional<string> assignments(const Record& record, const string& tableName)
{
    string list;
    const int count = record.fields()->count();
    for (int i = 0; i < count; ++i) {
        const Field* const field = record.fields()->getByIndex(i);
        if (field == nullptr || field->isPrimaryKey())
            continue;
        const string name = field->getName();
        const Value* const value = record.getValue(name);
        if (value == nullptr) {
            TRACE_ERROR_AS("toSqlUpdate",
                           "No value for column with index=%d (and name=%s) of table %s", i,
                           name.c_str(), tableName.c_str());
            SQL_ASSERT(false, "sql::string sql::Record::toSqlUpdate(const string&) const");
            return std::nullopt;
        }
        list += name + "=" + value->toSql(field->getType());
        // By position alone: callers know the comma that a key in the last column leaves behind.
        if (i < count - 1)
            list += ", ";
    }
    return list;
}

} // namespace

Record::Record(const FieldSet& fields) : Record(fields, 0, nullptr)
{
}

Record::Record(const FieldSet& fields, int textCount, const char* const* texts) : _fields(&fields)
{
    const int count = fields.count();
    _values.reserve(count);
    for (int i = 0; i < count; ++i) {
        _values.emplace_back(fields.getByIndex(i)->getType());
        if (i < textCount && texts[i] != nullptr) {
            _values.back()._value += texts[i];
            _values.back()._isNull = false;
        }
    }
}

Record::Record(const Record* other) : Record(*other)
{
}

Record::Record(const Record&) = default;
Record& Record::operator=(const Record&) = default;
Record::Record(Record&&) noexcept = default;

Record& Record::operator=(Record&& other) noexcept
{
    if (this != &other) {
        _fields = other._fields;
        _values = std::move(other._values);
    }
    return *this;
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
    const bool found = hasCell(index, columnCount(), "sql::Value* sql::Record::getValue(int)");
    return found ? &_values[index] : nullptr;
}

const Value* Record::getValue(int index) const
{
    const bool found = hasCell(index, columnCount(),
                               "const sql::Value* sql::Record::getValue(int) const");
    return found ? &_values[index] : nullptr;
}

Value* Record::getValue(const string& name)
{
    const Field* const field = namedColumn(*_fields, name,
                                           "sql::Value* sql::Record::getValue(const string&)");
    return field != nullptr ? getValue(field->getIndex()) : nullptr;
}

const Value* Record::getValue(const string& name) const
{
    const Field* const field = namedColumn(
        *_fields, name, "const sql::Value* sql::Record::getValue(const string&) const");
    return field != nullptr ? getValue(field->getIndex()) : nullptr;
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

string Record::toSql() const
{
    string literals;
    const int count = _fields->count();
    literals.reserve(usual_literal_size * _values.size());
    for (int i = 0; i < count; ++i) {
        const Field* const field = _fields->getByIndex(i);
        if (field == nullptr) {
            TRACE_ERROR("field with index %d does not exist", i);
            SQL_ASSERT(false, "sql::string sql::Record::toSql() const");
            return string();
        }
        const Value* const value = getValue(field->_name);
        if (value == nullptr) {
            TRACE_ERROR("field with index %d does not have value", i);
            SQL_ASSERT(false, "sql::string sql::Record::toSql() const");
            return string();
        }
        value->appendSql(literals, field->_type);
        if (i < count - 1)
            literals += ", ";
    }
    return literals;
}

string Record::toSqlInsert(const string& tableName) const
{
    if (tableName.empty()) {
        TRACE_ERROR("No table name given");
        SQL_ASSERT(false, "sql::string sql::Record::toSqlInsert(const string&) const");
        return string();
    }
    const string columns = _fields->toSql();
    if (columns.empty()) {
        TRACE_ERROR("No fields to insert in table '%s'", tableName.c_str());
        SQL_ASSERT(false, "sql::string sql::Record::toSqlInsert(const string&) const");
        return string();
    }
    const string values = toSql();
    if (values.empty()) {
        TRACE_ERROR("No values to insert in table '%s'", tableName.c_str());
        SQL_ASSERT(false, "sql::string sql::Record::toSqlInsert(const string&) const");
        return string();
    }
    string statement;
    statement.reserve(tableName.size() + columns.size() + values.size() + 32); // in one allocation
    statement.append("insert into ").append(tableName).append(" (").append(columns);
    return statement.append(") values (").append(values).append(")");
}

string Record::toSqlUpdate(const string& tableName) const
{
    if (tableName.empty()) {
        TRACE_ERROR("No table name given");
        SQL_ASSERT(false, "sql::string sql::Record::toSqlUpdate(const string&) const");
        return string();
    }

    const std::optional<string> settings = assignments(*this, tableName);
    if (!settings)
        return string();
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
    return "update " + tableName + " set " + *settings + " where " + keyName + " = "
           + value->toSql(type_int);
}

} // namespace sql
