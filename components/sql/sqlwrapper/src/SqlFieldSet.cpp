#include "SqlFieldSet.h"

#include "SqlTrace.h"

namespace sql {

namespace {

// Most names need no more, with what stands between two: no copies while the list grows.
constexpr string::size_type usual_name_size = 16;

bool canBeKey(field_type type)
{
    return type == type_int || type == type_text;
}

const Field* findKey(const std::vector<Field>& fields)
{
    for (const Field& field : fields) {
        if (field.isPrimaryKey())
            return &field;
    }
    return nullptr;
}

// The field at a position below the count; its lack is reported for the operation.
const Field* fieldAt(const FieldSet& fields, int index, const char* operation,
                     const char* signature)
{
    const Field* const field = fields.getByIndex(index);
    if (field == nullptr) {
        TRACE_ERROR_AS(operation, "No field for index %d", index);
        SQL_ASSERT(false, signature);
    }
    return field;
}

} // namespace

FieldSet::FieldSet(const Field* fields)
{
    initFieldSet(fields);
}

FieldSet::FieldSet(const std::vector<Field>& fields) : _fields(fields)
{
}

FieldSet::FieldSet(const FieldSet&) = default;
FieldSet& FieldSet::operator=(const FieldSet&) = default;

bool FieldSet::initFieldSet(const Field* fields)
{
    if (fields == nullptr)
        return true;

    for (int i = 0; !fields[i].isEndingField(); ++i) {
        const Field& field = fields[i];
        if (field.isPrimaryKey() && !canBeKey(field._type)) {
            TRACE_ERROR(
                "PRIMARY KEY column '%s' must be of type 'integer' or 'text' instead of type '%s'",
                field._name.c_str(), type2Str(field._type).c_str());
            SQL_ASSERT(false, "bool sql::FieldSet::initFieldSet(const sql::Field*)");
            _fields.clear();
            return false;
        }
        _fields.push_back(field);
        // Counted from the start of the set, not of what is appended: in a set that already held
        // fields those get the new positions, and callers rely on it.
        _fields[i]._index = i;
    }

    if (findKey(_fields) != nullptr)
        return true;
    SQL_ASSERT(false, "bool sql::FieldSet::initFieldSet(const sql::Field*)");
    return false;
}

int FieldSet::count() const
{
    return static_cast<int>(_fields.size());
}

const Field* FieldSet::getByIndex(int index) const
{
    return index >= 0 && index < count() ? &_fields[index] : nullptr;
}

const Field* FieldSet::getByName(const string& name) const
{
    for (const Field& field : _fields) {
        if (field._name == name)
            return &field;
    }
    return nullptr;
}

string FieldSet::getKeyIdName() const
{
    if (const Field* const key = findKey(_fields))
        return key->_name;
    TRACE_ERROR("Failed to get name of PRIMARY KEY column");
    SQL_ASSERT(false, "sql::string sql::FieldSet::getKeyIdName() const");
    return string();
}

string FieldSet::getDefinition() const
{
    string definitions;
    for (int i = 0; i < count(); ++i) {
        definitions += _fields[i].getDefinition();
        if (i < count() - 1)
            definitions += ", ";
    }
    return definitions;
}

string FieldSet::toSql() const
{
    string names;
    names.reserve(usual_name_size * _fields.size());
    for (int i = 0; i < count(); ++i) {
        const Field* const field = fieldAt(*this, i, __func__,
                                           "sql::string sql::FieldSet::toSql() const");
        if (field == nullptr)
            continue;
        names += field->_name;
        if (i < count() - 1)
            names += ", ";
    }
    return names;
}

string FieldSet::dump() const
{
    string lines;
    for (int i = 0; i < count(); ++i) {
        const Field* const field = fieldAt(*this, i, __func__,
                                           "sql::string sql::FieldSet::dump() const");
        if (field == nullptr)
            continue;
        lines += field->dump();
        if (i < count() - 1)
            lines += "\r\n";
    }
    return lines;
}

} // namespace sql
