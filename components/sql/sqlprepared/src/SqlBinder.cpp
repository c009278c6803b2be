#include "SqlBinder.h"

#include "SqlFailure.h"
#include "SqlNumber.h"
#include "SqlStatement.h"
#include "SqlValue.h"

#include <sqlite3.h>

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace sql {

namespace {

const char is_null[] = "is NULL";
const char is_no_integer[] = "is no integer";
const char is_of_another_size[] = "is of another size than the variable";

bool isInRange(double number)
{
    return number >= -9223372036854775808.0 && number < 9223372036854775808.0;
}

// Outside a row there is no value, which counts as NULL.
int typeOf(sqlite3_value* value)
{
    return value != nullptr ? sqlite3_value_type(value) : SQLITE_NULL;
}

} // namespace

bool Column::isNull() const
{
    return typeOf(_value) == SQLITE_NULL;
}

integer Column::asInteger() const
{
    return isNull() ? 0 : sqlite3_value_int64(_value);
}

double Column::asDouble() const
{
    const int type = typeOf(_value);
    if (type == SQLITE_NULL)
        return 0.0;
    if (type == SQLITE_INTEGER || type == SQLITE_FLOAT)
        return sqlite3_value_double(_value);
    Value text(type_text); // knows more forms than SQLite
    text.setString(asString());
    return text.asDouble();
}

bool Column::asBool() const
{
    if (typeOf(_value) == SQLITE_INTEGER)
        return asInteger() == 1;
    return asText() == "1";
}

Time Column::asTime() const
{
    return Time(asInteger());
}

string Column::asString() const
{
    return string(asText());
}

std::string_view Column::asText() const
{
    std::string_view text;
    if (!isNull() && read(text) != nullptr && _statement != nullptr)
        _statement->keepFailure("column", Statement::State::broken, SQLITE_NOMEM, no_memory);
    return text;
}

Bytes Column::asBytes() const
{
    Bytes bytes;
    if (!isNull() && read(bytes) != nullptr && _statement != nullptr)
        _statement->keepFailure("column", Statement::State::broken, SQLITE_NOMEM, no_memory);
    return bytes;
}

const char* Column::read(integer& number, integer lowest, integer highest) const
{
    integer found = 0;
    if (typeOf(_value) == SQLITE_INTEGER)
        found = sqlite3_value_int64(_value);
    else if (const char* const why = readOther(found))
        return why;
    if (found < lowest || found > highest)
        return is_out_of_range;
    number = found;
    return nullptr;
}

// An integer out of a cell that holds none: a text, as long as it is exact, or a real.
const char* Column::readOther(integer& number) const
{
    std::string_view text;
    if (typeOf(_value) == SQLITE_TEXT && read(text) == nullptr) {
        const char* const why = readNumber(text, number);
        if (why != is_no_number)
            return why;
    }
    double real = 0;
    if (const char* const why = read(real))
        return why;
    if (real != std::trunc(real))
        return is_no_integer;
    if (!isInRange(real))
        return is_out_of_range;
    number = static_cast<integer>(real);
    return nullptr;
}

const char* Column::read(double& number) const
{
    const int type = typeOf(_value);
    if (type != SQLITE_FLOAT && type != SQLITE_INTEGER)
        return readOther(number);
    number = sqlite3_value_double(_value);
    return nullptr;
}

// A number out of the text of one.
const char* Column::readOther(double& number) const
{
    const int type = typeOf(_value);
    if (type == SQLITE_NULL)
        return is_null;
    if (type != SQLITE_TEXT)
        return is_no_number;
    std::string_view text;
    if (const char* const why = read(text))
        return why;
    double found = 0;
    const char* const why = readNumber(text, found);
    if (!std::isfinite(found)) // "inf" and "nan" are words
        return is_no_number;
    if (why == nullptr)
        number = found;
    return why;
}

const char* Column::read(float& number) const
{
    double wide = 0;
    if (const char* const why = read(wide))
        return why;
    if (std::isfinite(wide) && std::fabs(wide) > static_cast<double>(FLT_MAX))
        return is_out_of_range;
    number = static_cast<float>(wide);
    return nullptr;
}

const char* Column::read(std::string_view& text) const
{
    if (_value == nullptr) // nor is there always a connection to ask
        return is_null;
    const void* const bytes = sqlite3_value_text(_value);
    if (bytes == nullptr) // a cell that there is no memory for is NULL from then on
        return _statement != nullptr && sqlite3_errcode(_statement->_connection) == SQLITE_NOMEM
                   ? no_memory
                   : is_null;
    text = std::string_view(static_cast<const char*>(bytes), sqlite3_value_bytes(_value));
    return nullptr;
}

const char* Column::read(Bytes& bytes) const
{
    const int type = typeOf(_value);
    if (type == SQLITE_NULL)
        return is_null;
    // A number's block is its text, which takes memory to make; an empty block has no address.
    const void* const data = sqlite3_value_blob(_value);
    if (data == nullptr && (type == SQLITE_INTEGER || type == SQLITE_FLOAT))
        return no_memory;
    bytes = Bytes{data, static_cast<std::size_t>(sqlite3_value_bytes(_value))};
    return nullptr;
}

const char* Column::read(string& text) const
{
    std::string_view view;
    const char* const why = read(view);
    if (why == nullptr)
        text = view;
    return why;
}

const char* Column::read(std::vector<unsigned char>& bytes) const
{
    Bytes view;
    const char* const why = read(view);
    const unsigned char* const first = static_cast<const unsigned char*>(view.data);
    if (why == nullptr)
        bytes.assign(first, first + view.size);
    return why;
}

const char* Column::read(unsigned char* bytes, std::size_t size) const
{
    Bytes view;
    if (const char* const why = read(view))
        return why;
    if (view.size != size)
        return is_of_another_size;
    std::copy_n(static_cast<const unsigned char*>(view.data), size, bytes);
    return nullptr;
}

} // namespace sql
