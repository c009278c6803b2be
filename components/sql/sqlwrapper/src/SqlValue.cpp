#include "SqlValue.h"

#include "SqlText.h"

#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace sql {

namespace {

// What a reader of such cells may take for granted: no text of a number is longer.
constexpr std::size_t double_text_limit = 127;

// The longest double has a sign, 309 digits, the point and eight decimals.
constexpr std::size_t double_text_buffer = 320;

} // namespace

Value::Value(field_type type) : _isNull(true), _type(type)
{
}

Value::Value(const Value&) = default;
Value& Value::operator=(const Value&) = default;

void Value::setValue(const char* text, field_type type)
{
    // The text comes first, since it may find no memory.
    if (text == nullptr)
        _value.clear();
    else
        _value = text;
    _isNull = text == nullptr;
    _type = type;
}

void Value::setNull()
{
    _value.clear();
    _isNull = true;
}

void Value::setString(const string& s)
{
    _value = s;
    _isNull = false;
}

void Value::setInteger(integer n)
{
    _value = intToStr(n);
    _isNull = false;
}

// Not printf(), which takes its decimal point from the process's locale.
void Value::setDouble(double d)
{
    char text[double_text_buffer];
    char* const end = std::to_chars(text, text + sizeof text, d, std::chars_format::fixed, 8).ptr;
    _value.assign(text, std::min(end, text + double_text_limit));
    _isNull = false;
}

void Value::setBool(bool b)
{
    setString(b ? "1" : "0");
}

void Value::setTime(Time t)
{
    setInteger(t.asInteger());
}

bool Value::isNull() const
{
    return _isNull;
}

field_type Value::getType() const
{
    return _type;
}

integer Value::asInteger() const
{
    return _isNull ? 0 : ::strtoll(_value.c_str(), nullptr, 10);
}

// Not strtod(), which takes its decimal point from the process's locale. What from_chars() does not
// take whole, such as blanks before the number, is read in the "C" locale: glibc and musl keep that
// ready, so that nothing is allocated and nothing fails.
double Value::asDouble() const
{
    if (_isNull)
        return 0.0;
    double plainNumber = 0.0;
    const char* const end = _value.data() + _value.size();
    const std::from_chars_result read = std::from_chars(_value.data(), end, plainNumber);
    if (read.ec == std::errc() && read.ptr == end)
        return plainNumber;
    const locale_t plain = ::newlocale(LC_ALL_MASK, "C", nullptr);
    const double number = ::strtod_l(_value.c_str(), nullptr, plain);
    ::freelocale(plain);
    return number;
}

bool Value::asBool() const
{
    return !_isNull && _value == "1";
}

Time Value::asTime() const
{
    return Time(asInteger());
}

string Value::asString() const
{
    return _type == type_time ? asTime().asString() : _value;
}

string Value::toString() const
{
    return _isNull ? "null" : asString();
}

string Value::dump(bool withType) const
{
    return withType ? toString() + " (" + type2Str(_type) + ")" : toString();
}

bool Value::equals(const Value& other) const
{
    if (_isNull && other._isNull)
        return true;

    switch (_type) {
    case type_int:
        return asInteger() == other.asInteger();
    case type_text:
        return asString() == other.asString();
    case type_float:
        return asDouble() == other.asDouble();
    case type_bool:
        return asBool() == other.asBool();
    case type_time: {
        Time time = asTime();
        const Time otherTime = other.asTime();
        return time == otherTime;
    }
    case type_undefined:
        break;
    }
    return false;
}

string Value::toSql(field_type type) const
{
    string literal;
    appendSql(literal, type);
    return literal;
}

void Value::appendSql(string& statement, field_type type) const
{
    if (_isNull) {
        statement += "null";
    } else if (type == type_text) {
        statement += '\'';
        if (_type == type_time)
            appendQuoted(statement, asString());
        else
            appendQuoted(statement, _value);
        statement += '\'';
    } else if (_type == type_time) {
        statement += intToStr(asInteger());
    } else {
        statement += _value;
    }
}

} // namespace sql
