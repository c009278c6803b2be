#include "SqlField.h"

#include "SqlTrace.h"

namespace sql {

Field::Field() : _type(type_int), _index(-1), _flags(flag_none)
{
}

Field::Field(const string& name, field_type type, int flags)
    : _name(name), _type(type), _index(-1), _flags(flags)
{
    SQL_ASSERT(name.empty() == false, "sql::Field::Field(const string&, sql::field_type, int)");
}

Field::Field(const Field&) = default;
Field& Field::operator=(const Field&) = default;

bool Field::isEndingField() const
{
    return _name.empty();
}

field_type Field::getType() const
{
    return _type;
}

int Field::getIndex() const
{
    return _index;
}

string Field::getName() const
{
    return _name;
}

bool Field::isPrimaryKey() const
{
    return (_flags & flag_primary_key) != 0;
}

bool Field::isNotNull() const
{
    return (_flags & flag_not_null) != 0;
}

bool Field::isUnique() const
{
    return (_flags & flag_unique) != 0;
}

string Field::getTypeStr() const
{
    switch (_type) {
    case type_int:
    case type_bool:
    case type_time:
        return "INTEGER";
    case type_text:
        return "TEXT";
    case type_float:
        return "REAL";
    case type_undefined:
        break;
    }
    SQL_ASSERT(false, "sql::string sql::Field::getTypeStr() const");
    return string();
}

string Field::getFlags() const
{
    string flags;
    if (isPrimaryKey())
        flags += " PRIMARY KEY";
    if (isNotNull())
        flags += " NOT NULL";
    if (isUnique())
        flags += " UNIQUE";
    return flags;
}

string Field::getDefinition() const
{
    string definition = _name + " " + getTypeStr() + getFlags();
    trim(definition);
    return definition;
}

string Field::dump() const
{
    return intToStr(_index) + ": name=" + _name + ", type=" + type2Str(_type)
           + ", flags:" + getFlags();
}

} // namespace sql
